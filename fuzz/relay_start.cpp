// relay_start.cpp -- fuzz target for the packet entry point: a whole frame as the protocol socket delivers it
// through dhcpv6RelayStart on the relay manager of harness.h, with every debug line formatted. Input: the logical,
// physical and receiving-port indexes (big-endian, in the platform's receive order), then the frame (18-byte link
// header, IPv6, UDP, DHCPv6).
#include "harness.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace fz;
    if (data == nullptr || size < 12) return 0;
    const qor::ByteView in(data, size);
    bringUp();
    dhcpv6_debug_flag = kAllDebug;
    checkSent(relayFrame(in.subspan(12, std::min(size - 12, DHCPV6_PKT_BUF_LEN)), qor::u32At(in, 0), qor::u32At(in, 8),
                         qor::u32At(in, 4)));
    takeDown();
    return 0;
}
