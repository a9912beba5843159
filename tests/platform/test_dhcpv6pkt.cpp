// The DHCPv6 parsing routines on the packets a relay sees: where the UDP
// header lies behind the IPv6 header chain, which client message a stack of
// relay messages carries, and which option a lookup finds.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "qor/bytes.h"
#include "qor/dhcpv6pkt.h"

namespace {

using Bytes = std::vector<uint8_t>;

// ---- IPv6 header chain -------------------------------------------------------------

// kind: 0 hop-by-hop, 43 routing, 44 fragment, 60 destination options; units:
// the length byte (8-byte units past the first; reserved in a fragment);
// frag: offset << 3 | M flag.
struct Ext {
    uint8_t kind, units;
    uint16_t frag;
};

struct ChainCase {
    std::string name;
    uint8_t version;
    std::vector<Ext> exts;
    uint8_t last;   // next header after the chain
    size_t cut;     // bytes taken off the end of the packet
    int udpOffset;  // -1: no UDP header
};

// The IPv6 header, the chain, UDP 546 -> 547 and 4 bytes of payload, less `cut`.
Bytes ip6Packet(const ChainCase& c) {
    Bytes p(40, 0);
    p[0] = uint8_t(c.version << 4);
    size_t nextAt = 6;
    for (const Ext& e : c.exts) {
        p[nextAt] = e.kind;
        nextAt = p.size();
        p.resize(p.size() + (e.kind == 44 ? 8 : (e.units + 1) * 8), 0);
        p[nextAt + 1] = e.units;
        if (e.kind == 44) qor::putU16(p, nextAt + 2, e.frag);
    }
    p[nextAt] = c.last;
    p.resize(p.size() + 12, 0);
    qor::putU16(p, p.size() - 10, 547);
    p.resize(p.size() - c.cut);
    return p;
}

class UdpHeader : public ::testing::TestWithParam<ChainCase> {};

TEST_P(UdpHeader, IsFoundBehindTheChainOrRefused) {
    const ChainCase& c = GetParam();
    Bytes p = ip6Packet(c);
    uint32_t off = 0;
    const uint8_t* udp = dhcpv6_getudphdr(p.data(), p.data() + p.size(), &off);
    if (c.udpOffset < 0) {
        EXPECT_EQ(udp, nullptr);
        return;
    }
    ASSERT_EQ(udp, p.data() + c.udpOffset);
    EXPECT_EQ(off, uint32_t(c.udpOffset));
    EXPECT_EQ(qor::u16At(p, off + 2), 547) << "the walk must land on the UDP header";
}

const Ext kHbh{0, 0, 0}, kDst{60, 0, 0}, kDst2{60, 1, 0}, kRt{43, 2, 0};
const Ext kFirstFrag{44, 0, 0x0001}, kLaterFrag{44, 0, 0x0008}, kFragJunkLen{44, 0xFF, 0};

INSTANTIATE_TEST_SUITE_P(
    Chains, UdpHeader,
    ::testing::Values(
        ChainCase{"Direct", 6, {}, 17, 0, 40},
        ChainCase{"HopByHop", 6, {kHbh}, 17, 0, 48},
        ChainCase{"Routing", 6, {kRt}, 17, 0, 64},
        ChainCase{"DestinationOptions", 6, {kDst2}, 17, 0, 56},
        ChainCase{"FirstFragment", 6, {kFirstFrag}, 17, 0, 48},
        // A fragment header is 8 bytes, whatever its reserved byte holds.
        ChainCase{"FragmentLengthByteIgnored", 6, {kFragJunkLen}, 17, 0, 48},
        ChainCase{"EveryKind", 6, {kHbh, kDst, kRt, kFirstFrag, kDst2}, 17, 0, 104},
        ChainCase{"EightHeaders", 6, {kHbh, kDst, kDst, kDst, kDst, kDst, kDst, kDst}, 17, 0, 104},
        ChainCase{"NineHeaders", 6, {kHbh, kDst, kDst, kDst, kDst, kDst, kDst, kDst, kDst}, 17,
                  0, -1},
        ChainCase{"HeaderPastTheEnd", 6, {kRt}, 17, 13, -1},
        ChainCase{"LaterFragment", 6, {kLaterFrag}, 17, 0, -1},
        ChainCase{"HopByHopNotFirst", 6, {kDst, kHbh}, 17, 0, -1},
        ChainCase{"Version4", 4, {}, 17, 0, -1},
        ChainCase{"ShortIpv6Header", 6, {}, 17, 13, -1},
        ChainCase{"UdpHeaderWhole", 6, {kRt}, 17, 4, 64},
        ChainCase{"UdpHeaderTruncated", 6, {kRt}, 17, 5, -1},
        ChainCase{"Tcp", 6, {kDst}, 6, 0, -1},
        ChainCase{"NoNextHeader", 6, {}, 59, 0, -1}),
    [](const auto& row) { return row.param.name; });

// ---- relayed messages --------------------------------------------------------------

void putOption(Bytes& m, uint16_t code, const Bytes& data) {
    const size_t at = m.size();
    m.resize(at + 4 + data.size());
    qor::putU16(m, at, code);
    qor::putU16(m, at + 2, uint16_t(data.size()));
    qor::putBytes(m, at + 4, data.data(), data.size());
}

const Bytes kSolicit = {1, 0xAB, 0xCD, 0xEF, 0, 1, 0, 2, 0xDD, 0xEE};

// `levels` Relay-Forwards around `client`, each with an Interface-ID before
// its Relay-Message.
Bytes nested(int levels, const Bytes& client = kSolicit, uint8_t type = DHCPV6_RELAY_FORW) {
    Bytes m = client;
    for (int i = 0; i < levels; ++i) {
        Bytes r(DHCPV6_RELAY_HDR_LEN, 0);
        r[0] = type;
        putOption(r, 18, {'1', '0', ':', '0', ':', '0', ':', '5'});
        putOption(r, DHCPV6_OPTION_RELAY_MSG, m);
        m = r;
    }
    return m;
}

// The outer Relay-Message ends a byte before the inner one, inside the buffer.
Bytes innerPastItsParent() {
    Bytes m = nested(2);
    qor::putU16(m, 48, uint16_t(qor::u16At(m, 48) - 1));
    return m;
}

Bytes relayWithoutRelayMessage() {
    Bytes m = nested(1);
    qor::putU16(m, 46, 37);  // the Relay-Message becomes a Remote-ID
    return m;
}

struct RelayCase {
    std::string name;
    Bytes message;
    size_t shortBy;  // the length given is this much below the bytes held
    bool found;
};

class ClientPacket : public ::testing::TestWithParam<RelayCase> {};

TEST_P(ClientPacket, UnwrapsToTheClientMessageOrRefuses) {
    const RelayCase& c = GetParam();
    Bytes m = c.message;
    uint8_t* inner = m.data();
    uint32_t innerLen = 0;
    const uint32_t given = uint32_t(m.size() - c.shortBy);
    const int rc = dhcpv6GetClientPacket(m.data(), &inner, given, &innerLen);
    if (!c.found) {
        EXPECT_EQ(rc, -1);
        EXPECT_EQ(inner, nullptr);
        return;
    }
    ASSERT_EQ(rc, 0);
    ASSERT_TRUE(inner >= m.data() && inner + innerLen <= m.data() + given);
    EXPECT_EQ(Bytes(inner, inner + innerLen), kSolicit);
}

INSTANTIATE_TEST_SUITE_P(
    Levels, ClientPacket,
    ::testing::Values(
        RelayCase{"ClientItself", nested(0), 0, true},
        RelayCase{"OneLevel", nested(1), 0, true},
        RelayCase{"RelayReply", nested(1, kSolicit, DHCPV6_RELAY_REPL), 0, true},
        RelayCase{"ThirtyTwoLevels", nested(32), 0, true},
        RelayCase{"ThirtyThreeLevels", nested(33), 0, false},
        RelayCase{"RelayMessagePastTheEnd", nested(1), 1, false},
        RelayCase{"InnerRelayMessagePastItsParent", innerPastItsParent(), 0, false},
        RelayCase{"NoRelayMessage", relayWithoutRelayMessage(), 0, false},
        RelayCase{"RelayHeaderCut", nested(1), nested(1).size() - 33, false},
        RelayCase{"ClientMessageTooShort", nested(1, {3, 1, 2}), 0, false},
        RelayCase{"Empty", nested(0), kSolicit.size(), false}),
    [](const auto& row) { return row.param.name; });

// ---- option lookup -----------------------------------------------------------------

// Client Identifier (1), Relay-Message (9), a second Client Identifier, an
// empty Rapid Commit (14), and an Interface-ID (18) one byte short.
const Bytes kOptions = {
    0, 1,  0, 2, 0xA1, 0xA2,  // offset 0
    0, 9,  0, 3, 7, 8, 9,     // offset 6
    0, 1,  0, 1, 0xB1,        // offset 13
    0, 14, 0, 0,              // offset 18
    0, 18, 0, 3, '1', '0',    // offset 22
};

struct OptionCase {
    std::string name;
    uint32_t length;
    uint16_t code;
    int offset;  // -1: not found
};

class GetOption : public ::testing::TestWithParam<OptionCase> {};

TEST_P(GetOption, FindsTheFirstWholeOption) {
    const OptionCase& c = GetParam();
    Bytes area = kOptions;
    const uint8_t* opt = dhcpv6GetOption(area.data(), c.length, c.code);
    EXPECT_EQ(opt, c.offset < 0 ? nullptr : area.data() + c.offset);
}

const auto kAll = uint32_t(kOptions.size());

INSTANTIATE_TEST_SUITE_P(
    Areas, GetOption,
    ::testing::Values(OptionCase{"First", kAll, 1, 0}, OptionCase{"Middle", kAll, 9, 6},
                      OptionCase{"EmptyOption", kAll, 14, 18},
                      OptionCase{"TruncatedLast", kAll, 18, -1}, OptionCase{"Absent", kAll, 37, -1},
                      OptionCase{"DataPastTheArea", 12, 9, -1},
                      OptionCase{"EarlierStillFound", 12, 1, 0},
                      OptionCase{"HeaderCut", 3, 1, -1}, OptionCase{"NoArea", 0, 1, -1}),
    [](const auto& row) { return row.param.name; });

}  // namespace
