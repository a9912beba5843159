// relay_reply.cpp -- fuzz target for the server side of the relay: the input
// is a DHCPv6 message a server sent (a Relay-Reply, or a reply passing
// through), which the harness puts into a well-formed IPv6/UDP frame with the
// right checksum, so that every input gets past intake into Relay-Reply
// processing on a relay manager set up as in a real run (relay_harness.h).
// The same bytes are also read as Interface-ID text, field by field, the way
// the Relay-Reply path decodes it.
//
// Byte 0 of the input chooses how the frame arrives:
//   bit 0  addressed to the client's link-local address (passing through),
//          else to the relay's own address on the receiving interface
//   bit 1  to UDP port 546, else 547
//   bit 2  received in VLAN 10 on the client's port, else on the routed
//          server-side port ethernet 1/1
//   bit 3  every debug line formatted
// The rest is the DHCPv6 message.
#include "relay_harness.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

using namespace relayfuzz;

constexpr uint8_t kToClient = 0x01;
constexpr uint8_t kToPort546 = 0x02;
constexpr uint8_t kInVlan10 = 0x04;
constexpr uint8_t kDebugOn = 0x08;
constexpr int kMaxFields = 8;  // the most fields an Interface-ID has, and more

[[noreturn]] void broken(const char* what) {
    std::fprintf(stderr, "relay_reply: %s\n", what);
    std::abort();
}

// Reads one field; it may take no more than it was given and the ':' after.
void checkField(const char* text, int remaining) {
    int consumed = -1;
    dhcpv6GetFromOption18(text, remaining, &consumed);
    if (consumed < 0 || consumed > std::max(remaining, 0) + 1)
        broken("an Interface-ID field consumed more than it was given");
}

// The text as the Relay-Reply path holds it: the option's bytes with a zero
// after them, read a field at a time, each call given the strlen of what is
// left (a field reader looks one character past what it is given, for the
// ':'); and single fields given less than there is.
void asInterfaceIdText(const uint8_t* bytes, size_t len) {
    const size_t textLen = std::min<size_t>(len, 1 << 16);
    auto text = std::make_unique<char[]>(textLen + 1);  // zeroed: the terminator
    std::memcpy(text.get(), bytes, textLen);
    for (int remaining : {-1, 0, 1, int(textLen / 2)})
        if (remaining < int(textLen)) checkField(text.get(), remaining);
    size_t at = 0;
    for (int field = 0; field < kMaxFields && at < textLen; ++field) {
        const int rest = int(std::strlen(text.get() + at));
        int consumed = -1;
        dhcpv6GetFromOption18(text.get() + at, rest, &consumed);
        if (consumed < 0 || consumed > rest) broken("an Interface-ID field ran past its text");
        if (consumed == 0) break;
        at += size_t(consumed);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (data == nullptr || size < 1) return 0;
    process();
    const uint8_t how = data[0];
    const uint8_t* msg = data + 1;
    // The frame fits the loop's receive buffer and its length the UDP header.
    const size_t msgLen = std::min(size - 1, DHCPV6_PKT_BUF_LEN - kFrameDhcp);

    const bool inVlan = (how & kInVlan10) != 0;
    const Addr& relayAddr = inVlan ? kVlan10Addr : kServerSideAddr;
    const Addr& dst = (how & kToClient) ? kClientLinkLocal : relayAddr;
    const uint16_t dstPort = (how & kToPort546) ? DHCPV6_CLIENT_PORT : DHCPV6_SERVER_PORT;
    const auto frame = udpFrame(kRelayMac, kServerMac, inVlan ? 10 : 0, kServerAddr, dst,
                                DHCPV6_SERVER_PORT, dstPort, msg, msgLen);
    const uint32_t logical = inVlan ? vlanIf(10) : portIf(1, 1);
    const uint32_t port = inVlan ? portIf(0, 5) : portIf(1, 1);

    bringUp();
    const size_t sentBefore = qorfake::sent().size();
    std::vector<uint8_t> after;
    relayFrame(frame.data(), frame.size(), logical, port, port, (how & kDebugOn) ? kAllDebug : 0,
               &after);
    checkSent(after, sentBefore);
    takeDown();

    asInterfaceIdText(msg, msgLen);
    return 0;
}
