// relay_start.cpp -- fuzz target for the packet entry point: one whole frame,
// as the protocol socket delivers it, through dhcpv6RelayStart on a relay
// manager set up as in a real run (relay_harness.h).
//
// An input is the three interface indexes the frame came with, big-endian
// (bytes 0-3 logical, 4-7 physical, 8-11 receiving port: the order the
// platform's receive gives them), then the frame: the 18-byte link header,
// the IPv6 packet, UDP, DHCPv6. The frame is handed over in a buffer of
// exactly its length, every debug line is formatted, what was sent is
// checked as a server and a client would read it, and no block may be left.
#include "relay_harness.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {
constexpr size_t kIndexBytes = 12;
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace relayfuzz;
    if (data == nullptr || size < kIndexBytes) return 0;
    process();
    const qor::ByteView in(data, size);
    const uint32_t logical = qor::u32At(in, 0), physical = qor::u32At(in, 4),
                   recvPort = qor::u32At(in, 8);
    // A receive never delivers more than the loop's buffer holds.
    const size_t length = std::min(size - kIndexBytes, DHCPV6_PKT_BUF_LEN);

    bringUp();
    const size_t sentBefore = qorfake::sent().size();
    std::vector<uint8_t> after;
    relayFrame(data + kIndexBytes, length, logical, recvPort, physical, kAllDebug, &after);
    checkSent(after, sentBefore);
    takeDown();
    return 0;
}
