// dhcpv6pkt.cpp -- the platform's DHCPv6 parsing routines: the UDP header
// behind an IPv6 header chain, the client message inside relayed messages,
// and the lookup of one option. Each stays inside the length it is given.
#include "qor/dhcpv6pkt.h"

#include "qor/bytes.h"
#include "qor/tlv.h"

namespace {

constexpr size_t kIp6HdrLen = 40;
constexpr size_t kIp6OffNextHeader = 6;
constexpr size_t kUdpHdrLen = 8;
constexpr size_t kFragHdrLen = 8;
// type and transaction id: the least a client message carries
constexpr uint32_t kClientHdrLen = 4;

constexpr uint8_t kNextHopByHop = 0;
constexpr uint8_t kNextUdp = 17;
constexpr uint8_t kNextRouting = 43;
constexpr uint8_t kNextFragment = 44;
constexpr uint8_t kNextDestOpts = 60;

// One extension header at `off`: its length and the header that follows it.
// False when it is cut short, or is a fragment other than the first (only
// the first fragment carries the UDP header).
bool dhcpv6ExtHeader(qor::ByteView pkt, size_t off, uint8_t kind, size_t& outLen,
                     uint8_t& outNext) {
    uint8_t next = 0, lenUnits = 0;
    if (!qor::getU8(pkt, off, next) || !qor::getU8(pkt, off + 1, lenUnits)) return false;
    size_t len = (size_t(lenUnits) + 1) * 8;  // options headers count 8-byte units past the first
    if (kind == kNextFragment) {
        uint16_t offsetFlags = 0;
        if (!qor::getU16(pkt, off + 2, offsetFlags) || (offsetFlags >> 3) != 0) return false;
        len = kFragHdrLen;
    }
    if (!qor::fits(pkt.size(), off, len)) return false;
    outLen = len;
    outNext = next;
    return true;
}

}  // namespace

uint8_t* dhcpv6_getudphdr(uint8_t* ip6, const uint8_t* end, uint32_t* udpOffset) {
    if (ip6 == nullptr || end == nullptr || end < ip6) return nullptr;
    const qor::ByteView pkt(ip6, size_t(end - ip6));
    if (pkt.size() < kIp6HdrLen || (pkt[0] >> 4) != 6) return nullptr;
    uint8_t next = pkt[kIp6OffNextHeader];
    size_t off = kIp6HdrLen;
    for (uint32_t walked = 0;; ++walked) {
        if (next == kNextUdp) {
            if (!qor::fits(pkt.size(), off, kUdpHdrLen)) return nullptr;
            if (udpOffset != nullptr) *udpOffset = uint32_t(off);
            return ip6 + off;
        }
        const bool known = next == kNextRouting || next == kNextFragment ||
                           next == kNextDestOpts || (next == kNextHopByHop && walked == 0);
        if (!known || walked == DHCPV6_MAX_EXT_HEADERS) return nullptr;
        size_t len = 0;
        if (!dhcpv6ExtHeader(pkt, off, next, len, next)) return nullptr;
        off += len;
    }
}

uint8_t* dhcpv6GetOption(uint8_t* options, uint32_t length, uint16_t code) {
    if (options == nullptr) return nullptr;
    dhcpv6TlvCursor cursor(qor::ByteView(options, length));
    dhcpv6Tlv opt;
    for (size_t at = 0; cursor.next(opt) == dhcpv6TlvStep::Item; at = cursor.offset())
        if (opt.code == code) return options + at;
    return nullptr;
}

int dhcpv6GetClientPacket(uint8_t* message, uint8_t** inner, uint32_t length,
                          uint32_t* innerLength) {
    if (inner != nullptr) *inner = nullptr;
    if (message == nullptr || inner == nullptr) return -1;
    uint8_t* msg = message;
    uint32_t len = length;
    // A loop, not recursion: each pass takes off one relay header.
    for (uint32_t level = 0; len > 0 && (msg[0] == DHCPV6_RELAY_FORW || msg[0] == DHCPV6_RELAY_REPL);
         ++level) {
        if (level == DHCPV6_MAX_RELAY_LEVELS || len < DHCPV6_RELAY_HDR_LEN) return -1;
        uint8_t* opt = dhcpv6GetOption(msg + DHCPV6_RELAY_HDR_LEN, len - DHCPV6_RELAY_HDR_LEN,
                                       DHCPV6_OPTION_RELAY_MSG);
        if (opt == nullptr) return -1;
        len = qor::u16At(qor::ByteView(opt, 4), 2);
        msg = opt + 4;
    }
    if (len < kClientHdrLen) return -1;
    *inner = msg;
    if (innerLength != nullptr) *innerLength = len;
    return 0;
}
