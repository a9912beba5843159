// pkt_builder.h -- DHCPv6 messages and frames written field by field, and an option reader.
#pragma once

#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <utility>
#include <vector>

#include "qor/bytes.h"

namespace pkt {

using Bytes = std::vector<uint8_t>;
using Addr = std::array<uint8_t, 16>;
using Mac = std::array<uint8_t, 6>;

inline Addr addr(const char* text) {
    Addr a{};
    inet_pton(AF_INET6, text, a.data());
    return a;
}
template <size_t N>
Bytes bytes(const std::array<uint8_t, N>& a) {
    return Bytes(a.begin(), a.end());
}
inline Bytes cat(std::initializer_list<Bytes> parts) {
    Bytes b;
    for (const auto& p : parts) b.insert(b.end(), p.begin(), p.end());
    return b;
}
inline Bytes be16(int v) { return {uint8_t(v >> 8), uint8_t(v)}; }
inline Bytes be32(uint32_t v) { return cat({be16(int(v >> 16)), be16(int(v & 0xFFFF))}); }
inline Bytes option(uint16_t code, const Bytes& data) {
    return cat({be16(code), be16(int(data.size())), data});
}
// A DUID of `len` bytes: DUID-LL (type 3, Ethernet) then a counting tail.
inline Bytes duid(size_t len, uint8_t seed = 1) {
    Bytes d{0, 3, 0, 1};
    for (size_t i = d.size(); i < len; ++i) d.push_back(uint8_t(seed + i));
    d.resize(len);
    return d;
}
// A client or server message (type, transaction id) or a relay message, then options.
inline Bytes message(uint8_t type, uint32_t xid, std::initializer_list<Bytes> options) {
    Bytes m = be32(xid);
    m[0] = type;
    return cat({m, cat(options)});
}
inline Bytes relay(uint8_t type, uint8_t hop, const Addr& link, const Addr& peer,
                   std::initializer_list<Bytes> options) {
    return cat({{type, hop}, bytes(link), bytes(peer), cat(options)});
}

// A frame as the protocol socket delivers it: tagged 18-byte link header, IPv6, UDP, message.
struct Frame {
    Mac dstMac{0x33, 0x33, 0, 1, 0, 2};
    Mac srcMac{0x02, 0, 0, 0, 0, 0xc1};
    uint16_t vlan = 10;
    Addr src = addr("fe80::c1");
    Addr dst = addr("ff02::1:2");
    uint16_t srcPort = 546, dstPort = 547;
    Bytes payload = {};
    int udpLenDelta = 0, ip6LenDelta = 0;   // the length fields minus the true length
    std::optional<uint16_t> checksum = {};  // the correct one unless set

    Bytes build() const {
        const int len = int(8 + payload.size());
        const Bytes udp =
            cat({be16(srcPort), be16(dstPort), be16(len + udpLenDelta), be16(0), payload});
        // RFC 1071 over the pseudo-header and the datagram (padded to even).
        uint32_t sum = 0;
        const Bytes all = cat({bytes(src), bytes(dst), be32(len), be32(17), udp, Bytes(1, 0)});
        for (size_t i = 0; i + 1 < all.size(); i += 2) sum += uint32_t(all[i] << 8 | all[i + 1]);
        while (sum >> 16) sum = (sum & 0xFFFF) + (sum >> 16);
        Bytes f = cat({bytes(dstMac), bytes(srcMac), be32(0x81000000 | vlan), be16(0x86DD),
                       be32(0x60000000), be32(uint32_t(len + ip6LenDelta) << 16 | 17 << 8 | 255),
                       bytes(src), bytes(dst), udp});
        qor::putU16(f, 64, checksum ? *checksum : uint16_t(~sum) ? uint16_t(~sum) : 0xFFFF);
        return f;
    }
};

inline Bytes slice(const Bytes& b, size_t from, size_t len) {
    if (from > b.size()) return {};
    return Bytes(b.begin() + long(from), b.begin() + long(std::min(b.size(), from + len)));
}
// The options of a message from `from` on, in order, up to a malformed one.
inline std::vector<std::pair<uint16_t, Bytes>> options(const Bytes& m, size_t from) {
    std::vector<std::pair<uint16_t, Bytes>> out;
    for (size_t at = from; at + 4 <= m.size(); at += 4 + out.back().second.size()) {
        const size_t len = qor::u16At(m, at + 2);
        if (at + 4 + len > m.size()) break;
        out.emplace_back(qor::u16At(m, at), slice(m, at + 4, len));
    }
    return out;
}

}  // namespace pkt
