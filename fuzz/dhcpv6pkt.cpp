// dhcpv6pkt.cpp -- fuzz target for the platform's DHCPv6 parsing routines on
// arbitrary bytes: the input is taken as an IPv6 packet (UDP header lookup,
// then the client message and its Client Identifier in the UDP payload, as
// intake does) and as a bare DHCPv6 message (relay unwrapping, option
// lookups at the relay header's option area).
//
// Every routine gets exactly the bytes it is told of (a fresh buffer of that
// size), so a read past the length stops the run; every answer is checked to
// lie inside what was given.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "qor/bytes.h"
#include "qor/dhcpv6pkt.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

constexpr uint16_t kOptionClientId = 1;
constexpr uint16_t kOptionInterfaceId = 18;

[[noreturn]] void broken(const char* what) {
    std::fprintf(stderr, "dhcpv6pkt: %s\n", what);
    std::abort();
}

// A heap copy of exactly `len` bytes.
std::unique_ptr<uint8_t[]> exactCopy(const uint8_t* src, size_t len) {
    auto buf = std::make_unique<uint8_t[]>(len == 0 ? 1 : len);
    if (len != 0) std::memcpy(buf.get(), src, len);
    return buf;
}

bool inside(const uint8_t* p, size_t len, const uint8_t* base, size_t size) {
    return p >= base && len <= size && size_t(p - base) <= size - len;
}

void checkOption(uint8_t* area, uint32_t length, uint16_t code) {
    const uint8_t* opt = dhcpv6GetOption(area, length, code);
    if (opt == nullptr) return;
    if (!inside(opt, 4, area, length)) broken("option header outside the area");
    const qor::ByteView hdr(opt, 4);
    if (qor::u16At(hdr, 0) != code) broken("option of another code");
    if (!inside(opt, 4 + size_t(qor::u16At(hdr, 2)), area, length))
        broken("option data outside the area");
}

// The client message inside `message`, and its Client Identifier.
void checkClientPacket(uint8_t* message, uint32_t length) {
    uint8_t* inner = message;
    uint32_t innerLength = 0;
    if (dhcpv6GetClientPacket(message, &inner, length, &innerLength) != 0) {
        if (inner != nullptr) broken("refused, yet an inner message");
        return;
    }
    if (inner == nullptr || innerLength < 4 || !inside(inner, innerLength, message, length))
        broken("inner message outside the message");
    checkOption(inner + 4, innerLength - 4, kOptionClientId);
}

void asIp6Packet(const uint8_t* data, size_t size) {
    auto pkt = exactCopy(data, size);
    uint32_t udpOffset = 0;
    const uint8_t* udp = dhcpv6_getudphdr(pkt.get(), pkt.get() + size, &udpOffset);
    if (udp == nullptr) return;
    if (udp != pkt.get() + udpOffset || size < 48 || udpOffset < 40 || udpOffset > size - 8)
        broken("UDP header outside the packet");
    const size_t payloadLen = size - udpOffset - 8;
    auto payload = exactCopy(udp + 8, payloadLen);
    checkClientPacket(payload.get(), uint32_t(payloadLen));
}

void asDhcpv6Message(const uint8_t* data, size_t size) {
    const auto length = uint32_t(size);
    auto msg = exactCopy(data, size);
    checkClientPacket(msg.get(), length);
    if (length >= DHCPV6_RELAY_HDR_LEN) {
        uint8_t* options = msg.get() + DHCPV6_RELAY_HDR_LEN;
        for (uint16_t code : {DHCPV6_OPTION_RELAY_MSG, kOptionInterfaceId})
            checkOption(options, length - DHCPV6_RELAY_HDR_LEN, code);
    }
    if (size >= 2) checkOption(msg.get(), length, uint16_t(data[0] << 8 | data[1]));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (data == nullptr) return 0;
    asIp6Packet(data, size);
    asDhcpv6Message(data, size);
    return 0;
}
