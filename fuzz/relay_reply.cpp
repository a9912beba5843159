// relay_reply.cpp -- fuzz target for the server side of the relay: a DHCPv6 message a server sent, put into a
// well-formed IPv6/UDP frame so that it reaches Relay-Reply processing (Relay-Message unwrapping, Interface-ID
// fields) on the relay manager of harness.h. Byte 0: bit 0 to the client's link-local address (passing through),
// else to the relay's own; bit 1 to UDP port 546, else 547; bit 2 in VLAN 10 on the client's port, else on the
// routed port ethernet 1/1; bit 3 every debug line formatted. The rest is the message.
#include "harness.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace fz;
    if (data == nullptr || size < 1) return 0;
    const uint8_t how = data[0];
    const size_t msgLen = std::min(size - 1, DHCPV6_PKT_BUF_LEN - kFrameDhcp);
    const bool inVlan = (how & 4) != 0;
    const Addr dst = (how & 1) ? kClientLinkLocal : inVlan ? db8(0x10, 1) : db8(0xff, 1);
    const auto frame = udpFrame({0x02, 0, 0x5e, 0x10, 0, 1, 0x02, 0xaa, 0, 0, 0, 2}, inVlan ? 10 : 0, kServerAddr, dst,
                                DHCPV6_SERVER_PORT << 16 | ((how & 2) ? DHCPV6_CLIENT_PORT : DHCPV6_SERVER_PORT),
                                data + 1, msgLen);
    const uint32_t port = inVlan ? portIf(0, 5) : portIf(1, 1);
    bringUp();
    dhcpv6_debug_flag = (how & 8) ? kAllDebug : 0;
    checkSent(relayFrame(frame, inVlan ? vlanIf(10) : port, port, port));
    takeDown();
    return 0;
}
