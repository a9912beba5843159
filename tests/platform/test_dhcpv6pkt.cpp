// The DHCPv6 parsing routines on the packets a relay sees: where the UDP
// header lies behind the IPv6 header chain, which client message a stack of
// relay messages carries, and which option a lookup finds.
#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "qor/bytes.h"
#include "qor/dhcpv6pkt.h"

namespace {

using Bytes = std::vector<uint8_t>;

// A packet whose UDP header is misplaced is relayed as garbage or read past its end.
TEST(UdpHeader, IsFoundBehindTheChainOrRefused) {
    // {next header, length byte, offset << 3 | M}: hop-by-hop, destination options of 8 and 16 bytes, routing,
    // first and later fragment, a fragment (8 bytes) with junk in its length byte; TCP, no next header.
    const std::map<char, std::array<uint8_t, 3>> kExt = {{'h', {0, 0, 0}},  {'d', {60, 0, 0}}, {'D', {60, 1, 0}},
                                                         {'r', {43, 2, 0}}, {'f', {44, 0, 1}}, {'F', {44, 0, 8}},
                                                         {'j', {44, 9, 0}}, {'t', {6, 0, 0}},  {'n', {59, 0, 0}}};
    // The chain, the bytes cut off the end of the packet, the UDP header's offset (-1: none).
    const std::tuple<std::string, size_t, int> rows[] = {
        {"", 0, 40}, {"hdrfD", 0, 104}, {"j", 0, 48}, {"hddddddd", 0, 104}, {"hdddddddd", 0, -1}, {"r", 13, -1},
        {"r", 4, 64}, {"r", 5, -1},     {"", 13, -1}, {"F", 0, -1},         {"dh", 0, -1},        {"dt", 0, -1},
        {"n", 0, -1}};
    for (const auto& [chain, cut, udpOffset] : rows) {
        SCOPED_TRACE("chain '" + chain + "' cut by " + std::to_string(cut));
        // The IPv6 header, the chain, UDP 546 -> 547 and 4 bytes of payload, less `cut`.
        Bytes p(40, 0);
        p[0] = 0x60;
        size_t nextAt = 6;
        for (const char c : chain) {
            const auto [kind, units, frag] = kExt.at(c);
            p[nextAt] = kind;
            if (kind == 6 || kind == 59) break;
            nextAt = p.size();
            p.resize(p.size() + (kind == 44 ? 8 : (units + 1) * 8), 0);
            p[nextAt + 1] = units, p[nextAt + 3] = frag;
        }
        if (p[nextAt] != 6 && p[nextAt] != 59) p[nextAt] = 17;
        p.resize(p.size() + 12, 0);
        qor::putU16(p, p.size() - 10, 547);
        p.resize(p.size() - cut);
        uint32_t off = 0;
        const uint8_t* udp = dhcpv6_getudphdr(p.data(), p.data() + p.size(), &off);
        ASSERT_EQ(udp, udpOffset < 0 ? nullptr : p.data() + udpOffset);
        EXPECT_TRUE(udp == nullptr || qor::u16At(p, off + 2) == 547) << "the walk must land on the UDP header";
    }
    Bytes v4(52, 0);
    v4[0] = 0x40, v4[6] = 17;
    EXPECT_EQ(dhcpv6_getudphdr(v4.data(), v4.data() + v4.size(), nullptr), nullptr) << "IPv4";
}

const Bytes kSolicit = {1, 0xAB, 0xCD, 0xEF, 0, 1, 0, 2, 0xDD, 0xEE};

// `levels` relay messages around `client`, each an Interface-ID then the Relay-Message.
Bytes nested(int levels, const Bytes& client = kSolicit, uint8_t type = DHCPV6_RELAY_FORW) {
    Bytes m = client;
    for (int i = 0; i < levels; ++i) {
        Bytes r(DHCPV6_RELAY_HDR_LEN + 4 + 2 + 4 + m.size(), 0);
        r[0] = type;
        qor::putU16(r, 34, 18), qor::putU16(r, 36, 2);
        qor::putU16(r, 40, DHCPV6_OPTION_RELAY_MSG), qor::putU16(r, 42, uint16_t(m.size()));
        qor::putBytes(r, 44, m.data(), m.size());
        m = r;
    }
    return m;
}

// The relay counts up to 32 hops; a lying length must never let it read outside the message.
TEST(ClientPacket, UnwrapsToTheClientMessageOrRefuses) {
    Bytes innerPastItsParent = nested(2), noRelayMessage = nested(1);
    qor::putU16(innerPastItsParent, 42, uint16_t(qor::u16At(innerPastItsParent, 42) - 1));
    qor::putU16(noRelayMessage, 40, 37);  // the Relay-Message becomes a Remote-ID
    // The message, how far the length given falls short of it, whether the client message is found.
    const std::tuple<Bytes, size_t, bool> rows[] = {
        {nested(0), 0, true}, {nested(1, kSolicit, DHCPV6_RELAY_REPL), 0, true}, {nested(32), 0, true},
        {nested(33), 0, false}, {nested(1), 1, false}, {innerPastItsParent, 0, false}, {noRelayMessage, 0, false},
        {nested(1), nested(1).size() - 33, false} /* the relay header cut */, {nested(0), kSolicit.size(), false},
        {nested(1, {3, 1, 2}), 0, false} /* shorter than its type and transaction id */};
    for (size_t row = 0; row < std::size(rows); ++row) {
        auto [m, shortBy, found] = rows[row];
        uint8_t* inner = m.data();
        uint32_t innerLen = 0;
        const uint32_t given = uint32_t(m.size() - shortBy);
        ASSERT_EQ(dhcpv6GetClientPacket(m.data(), &inner, given, &innerLen), found ? 0 : -1) << row;
        EXPECT_EQ(inner ? Bytes(inner, inner + innerLen) : Bytes{}, found ? kSolicit : Bytes{}) << row;
        EXPECT_TRUE(!inner || (inner >= m.data() && inner + innerLen <= m.data() + given)) << row;
    }
}

// A lookup finds the first whole option, never one that runs past the area.
TEST(GetOption, FindsTheFirstWholeOption) {
    // Client Identifier (1), Relay-Message (9), a second Client Identifier, an
    // empty Rapid Commit (14), and an Interface-ID (18) one byte short.
    Bytes area = {0, 1, 0, 2, 0xA1, 0xA2, 0, 9, 0, 3, 7, 8, 9, 0, 1, 0, 1, 0xB1, 0, 14, 0, 0, 0, 18, 0, 3, '1', '0'};
    // The area's length, the code, where the option is found (-1: not found).
    const std::tuple<uint32_t, uint16_t, int> rows[] = {{28, 1, 0},   {28, 9, 6},  {28, 14, 18}, {28, 18, -1},
                                                        {28, 37, -1}, {12, 9, -1}, {12, 1, 0},   {3, 1, -1}, {0, 1, -1}};
    for (const auto& [length, code, offset] : rows)
        EXPECT_EQ(dhcpv6GetOption(area.data(), length, code), offset < 0 ? nullptr : area.data() + offset)
            << "code " << code << " in " << length << " bytes";
}

}  // namespace
