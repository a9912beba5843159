// pkt_builder.h -- DHCPv6 messages and the frames that carry them, written
// field by field, and readers for what the relay sends, for the packet-path
// tests. The UDP checksum here is computed independently of the relay's.
#pragma once

#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
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

inline void put(Bytes& b, std::initializer_list<uint8_t> bytes) { b.insert(b.end(), bytes); }
inline void put16(Bytes& b, uint16_t v) { put(b, {uint8_t(v >> 8), uint8_t(v)}); }
template <typename Range>
void putAll(Bytes& b, const Range& r) {
    b.insert(b.end(), std::begin(r), std::end(r));
}

// code, length, data
inline Bytes option(uint16_t code, const Bytes& data) {
    Bytes o;
    put16(o, code);
    put16(o, uint16_t(data.size()));
    putAll(o, data);
    return o;
}
inline Bytes option(uint16_t code, const std::string& text) {
    return option(code, Bytes(text.begin(), text.end()));
}

// A DUID of `len` bytes: DUID-LL (type 3, Ethernet) then a counting tail.
inline Bytes duid(size_t len, uint8_t seed = 1) {
    Bytes d{0, 3, 0, 1};
    for (size_t i = d.size(); i < len; ++i) d.push_back(uint8_t(seed + i));
    d.resize(len);
    return d;
}

// A client or server message: type, 3-byte transaction id, options.
inline Bytes message(uint8_t type, uint32_t xid, std::initializer_list<Bytes> options) {
    Bytes m{type, uint8_t(xid >> 16), uint8_t(xid >> 8), uint8_t(xid)};
    for (const auto& o : options) putAll(m, o);
    return m;
}

// A Relay-Forward or Relay-Reply: type, hop-count, link, peer, options.
inline Bytes relay(uint8_t type, uint8_t hop, const Addr& link, const Addr& peer,
                   std::initializer_list<Bytes> options) {
    Bytes m{type, hop};
    putAll(m, link);
    putAll(m, peer);
    for (const auto& o : options) putAll(m, o);
    return m;
}

// RFC 1071 sum of the IPv6 pseudo-header and `len` bytes of UDP datagram,
// with the datagram's checksum field taken as zero.
inline uint16_t udpChecksum(const Addr& src, const Addr& dst, const uint8_t* udp, size_t len) {
    uint32_t sum = 0;
    auto add = [&](const uint8_t* p, size_t n, size_t skip) {
        for (size_t i = 0; i < n; i += 2) {
            if (i == skip) continue;
            sum += uint32_t(p[i]) << 8 | (i + 1 < n ? p[i + 1] : 0);
        }
    };
    add(src.data(), 16, 99);
    add(dst.data(), 16, 99);
    sum += uint32_t(len) + 17;
    add(udp, len, 6);
    while (sum >> 16) sum = (sum & 0xFFFF) + (sum >> 16);
    const uint16_t c = uint16_t(~sum);
    return c == 0 ? 0xFFFF : c;
}

// An Ethernet frame as the protocol socket delivers it: the 18-byte link
// header (tagged), IPv6, UDP, the message.
struct Frame {
    Mac dstMac{0x33, 0x33, 0, 1, 0, 2};
    Mac srcMac{0x02, 0, 0, 0, 0, 0xc1};
    uint16_t vlan = 10;
    Addr src = addr("fe80::c1");
    Addr dst = addr("ff02::1:2");
    uint16_t srcPort = 546;
    uint16_t dstPort = 547;
    Bytes payload;
    int udpLenDelta = 0;               // the UDP length field minus the true length
    int ip6LenDelta = 0;               // the IPv6 payload length minus the true length
    std::optional<uint16_t> checksum;  // the correct one unless set

    Bytes build() const {
        Bytes f;
        putAll(f, dstMac);
        putAll(f, srcMac);
        put16(f, 0x8100);
        put16(f, vlan);
        put16(f, 0x86DD);
        const size_t udpLen = 8 + payload.size();
        put(f, {0x60, 0, 0, 0});
        put16(f, uint16_t(int(udpLen) + ip6LenDelta));
        put(f, {17, 255});
        putAll(f, src);
        putAll(f, dst);
        const size_t udpAt = f.size();
        put16(f, srcPort);
        put16(f, dstPort);
        put16(f, uint16_t(int(udpLen) + udpLenDelta));
        put16(f, 0);
        putAll(f, payload);
        const uint16_t sum = checksum ? *checksum : udpChecksum(src, dst, f.data() + udpAt, udpLen);
        qor::putU16(f, udpAt + 6, sum);
        return f;
    }
};

// The options of a message from `from` on, in order.
inline std::vector<std::pair<uint16_t, Bytes>> options(const Bytes& m, size_t from) {
    std::vector<std::pair<uint16_t, Bytes>> out;
    for (size_t at = from; at + 4 <= m.size();) {
        const uint16_t len = qor::u16At(m, at + 2);
        if (at + 4 + len > m.size()) break;
        out.emplace_back(qor::u16At(m, at),
                         Bytes(m.begin() + long(at) + 4, m.begin() + long(at) + 4 + len));
        at += 4 + len;
    }
    return out;
}

inline Bytes slice(const Bytes& b, size_t from, size_t len) {
    if (from > b.size()) return {};
    return Bytes(b.begin() + long(from), b.begin() + long(std::min(b.size(), from + len)));
}

}  // namespace pkt
