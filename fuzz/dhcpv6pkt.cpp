// dhcpv6pkt.cpp -- fuzz target for the platform's DHCPv6 parsing routines: the input as an IPv6 packet (UDP header
// lookup, then the client message and its Client Identifier in the UDP payload, as intake does) and as a bare
// DHCPv6 message (relay unwrapping, option lookups in the relay header's option area). Each routine gets exactly
// the bytes it is told of, and every answer must lie inside them.
#include "harness.h"

namespace {

using fz::check;
using fz::inside;

void checkOption(uint8_t* area, uint32_t length, uint16_t code) {
    const uint8_t* opt = dhcpv6GetOption(area, length, code);
    check(opt == nullptr || (inside(opt, 4, area, length) && qor::u16At(qor::ByteView(opt, 4), 0) == code &&
                             inside(opt, 4 + size_t(qor::u16At(qor::ByteView(opt, 4), 2)), area, length)),
          "an option of another code or outside the area");
}

void checkClientPacket(uint8_t* message, uint32_t length) {
    uint8_t* inner = message;
    uint32_t innerLength = 0;
    if (dhcpv6GetClientPacket(message, &inner, length, &innerLength) != 0)
        return check(inner == nullptr, "refused, yet an inner message");
    check(inner != nullptr && innerLength >= 4 && inside(inner, innerLength, message, length),
          "inner message outside the message");
    checkOption(inner + 4, innerLength - 4, 1);  // its Client Identifier
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (data == nullptr) return 0;
    auto pkt = fz::exactCopy(data, size), msg = fz::exactCopy(data, size);
    uint32_t udpOffset = 0;
    if (const uint8_t* udp = dhcpv6_getudphdr(pkt.get(), pkt.get() + size, &udpOffset)) {
        check(udp == pkt.get() + udpOffset && size >= 48 && udpOffset >= 40 && udpOffset <= size - 8,
              "UDP header outside the packet");
        checkClientPacket(fz::exactCopy(udp + 8, size - udpOffset - 8).get(), uint32_t(size - udpOffset - 8));
    }
    checkClientPacket(msg.get(), uint32_t(size));
    if (size >= DHCPV6_RELAY_HDR_LEN)
        for (uint16_t code : {DHCPV6_OPTION_RELAY_MSG, uint16_t(18)})  // and the Interface-ID
            checkOption(msg.get() + DHCPV6_RELAY_HDR_LEN, uint32_t(size - DHCPV6_RELAY_HDR_LEN), code);
    if (size >= 2) checkOption(msg.get(), uint32_t(size), uint16_t(data[0] << 8 | data[1]));
    return 0;
}
