// dhcpv6-cli's command lines as the daemon and the chassis services receive
// them: request bytes at the offsets the receiver reads, the lines a saved
// configuration replays, messages for bad input, and inconsistent answers.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "../../cli/CliParse.h"

namespace {

constexpr int kInstance = 2;
constexpr uint32_t kVlan10 = 0x1800000A;  // type 24 in bits 31-24, VLAN id 10
constexpr uint32_t kVlan30 = 0x1800001E;

uint32_t word(const std::vector<uint8_t>& msg, size_t offset) {
    uint32_t v = 0;
    EXPECT_TRUE(qor::getU32(msg, offset, v)) << "offset " << offset << " past a message of " << msg.size();
    return v;
}

// The zero-terminated text of a field.
std::string text(const std::vector<uint8_t>& msg, size_t offset, size_t fieldLen) {
    std::string s;
    for (size_t i = offset; i < offset + fieldLen && i < msg.size() && msg[i] != 0; ++i)
        s += char(msg[i]);
    return s;
}

CliParsed parseOk(const std::string& line, bool inInterface) {
    CliParsed p;
    std::string err;
    EXPECT_EQ(cliParseLine(line, inInterface, p, err), 0) << line << ": " << err;
    return p;
}

std::string parseErr(const std::string& line, bool inInterface) {
    CliParsed p;
    std::string err;
    EXPECT_NE(cliParseLine(line, inInterface, p, err), 0) << line << " was accepted";
    return err;
}

// Every request names the receiver's request queue (application, instance,
// kind 1) and carries its own length.
void expectAddressedTo(const std::vector<uint8_t>& msg, uint32_t application, uint32_t type) {
    EXPECT_EQ(word(msg, 8), msg.size());
    EXPECT_EQ(word(msg, 12), type);
    EXPECT_EQ(word(msg, 56), (application << 16) | (uint32_t(kInstance) << 8) | 1);
}

TEST(CliHelperAddress, AddInTheDefaultVrfFillsTheRelayAddressCommand) {
    const CliParsed p = parseOk("ipv6 helper-address 2001:db8:ff::2", true);
    ASSERT_EQ(p.cmd, CliCmd::HelperAddress);
    const auto msg = cliEncodeRelayAddr(kInstance, p, kVlan10, 0);
    ASSERT_EQ(msg.size(), 652u);
    expectAddressedTo(msg, 336, 6001);
    EXPECT_EQ(word(msg, 72), 40030u);  // DHCP_RELAYADDR_CONFIG
    EXPECT_EQ(word(msg, 80), 1u);      // add
    EXPECT_EQ(word(msg, 84), kVlan10);
    EXPECT_EQ(text(msg, 92, 32), "");
    // bytes 290-305: 2001:0db8:00ff:0000:0000:0000:0000:0002, not word aligned
    const std::vector<uint8_t> addr(msg.begin() + 290, msg.begin() + 306);
    EXPECT_EQ(addr, (std::vector<uint8_t>{0x20, 0x01, 0x0d, 0xb8, 0x00, 0xff, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2}));
    EXPECT_EQ(word(msg, 648), 0u);
}

TEST(CliHelperAddress, RemoveInAVrfCarriesTheVrfNameAndId) {
    const CliParsed p = parseOk("  NO Ipv6 Helper-Address VRF red 2001:db8:ee::2  ", true);
    ASSERT_EQ(p.cmd, CliCmd::HelperAddress);
    EXPECT_EQ(p.vrfName, "red") << "a VRF name keeps its case";
    const auto msg = cliEncodeRelayAddr(kInstance, p, kVlan10, 7);
    EXPECT_EQ(word(msg, 80), 0u);  // remove
    EXPECT_EQ(text(msg, 92, 32), "red");
    EXPECT_EQ(msg[290], 0x20);
    EXPECT_EQ(msg[305], 0x02);
    EXPECT_EQ(word(msg, 648), 7u);
}

// The name field is 32 bytes; the daemon reads it into a buffer one longer,
// so a name of exactly 32 fills the field.
TEST(CliHelperAddress, VrfNameFitsTheThirtyTwoByteField) {
    for (size_t length : {1, 31, 32, 33}) {
        const std::string name(length, 'v');
        const std::string line = "ipv6 helper-address vrf " + name + " 2001:db8::1";
        if (length > 32) {
            EXPECT_NE(parseErr(line, true).find("at most 32"), std::string::npos);
            continue;
        }
        const auto msg = cliEncodeRelayAddr(kInstance, parseOk(line, true), kVlan10, 1);
        EXPECT_EQ(std::string(msg.begin() + 92, msg.begin() + 92 + long(length)), name);
        for (size_t i = 92 + length; i < 124; ++i) EXPECT_EQ(msg[i], 0) << "byte " << i;
        EXPECT_EQ(msg[290], 0x20) << "the address stays where it belongs";
    }
}

TEST(CliSourceInterface, GlobalLineCarriesTheNameAsTheIfmPrintsIt) {
    const CliParsed p = parseOk("ipv6 dhcp relay source-interface VLAN30", false);
    ASSERT_EQ(p.cmd, CliCmd::SourceInterface);
    const auto msg = cliEncodeSourceIntf(kInstance, p, kVlan30);
    ASSERT_EQ(msg.size(), 369u);
    expectAddressedTo(msg, 336, 6001);
    EXPECT_EQ(word(msg, 72), 9u);  // DHCP_SOURCE_INTERFACE
    EXPECT_EQ(word(msg, 80), 1u);
    EXPECT_EQ(word(msg, 84), kVlan30);
    EXPECT_EQ(text(msg, 88, 281), "ipv6 dhcp relay source-interface vlan 30");
}

TEST(CliSourceInterface, InsideAnInterfaceTheLineIsIndented) {
    const CliParsed p = parseOk("ipv6 dhcp relay source-interface ethernet 1/2:3", true);
    ASSERT_EQ(p.cmd, CliCmd::IfSourceInterface);
    const auto msg = cliEncodeIfSourceIntf(kInstance, p, kVlan10, p.ifIndex);
    ASSERT_EQ(msg.size(), 373u);
    EXPECT_EQ(word(msg, 72), 10u);  // DHCP_IF_SOURCE_INTERFACE
    EXPECT_EQ(word(msg, 80), kVlan10);
    EXPECT_EQ(word(msg, 84), 1u);
    EXPECT_EQ(word(msg, 88), 0x06010023u);  // ethernet: type 6, slot 1, port 2, sub-port 3
    EXPECT_EQ(text(msg, 92, 281), " ipv6 dhcp relay source-interface ethernet 1/2:3");
}

TEST(CliSourceInterface, RemovalNeedsNoName) {
    const CliParsed p = parseOk("no ipv6 dhcp relay source-interface", false);
    ASSERT_EQ(p.cmd, CliCmd::SourceInterface);
    const auto msg = cliEncodeSourceIntf(kInstance, p, p.ifIndex);
    EXPECT_EQ(word(msg, 80), 0u);
    EXPECT_EQ(word(msg, 84), 0u);
    EXPECT_EQ(parseErr("ipv6 dhcp relay source-interface", false),
              "% Error: an interface name is missing");
}

// The event log knows levels 1 to 7 and 24; "debug ipv6 dhcp" alone asks for
// 7, and its no form goes back to the start-up level 6.
TEST(CliDebug, LevelBecomesTheLogLevelCommand) {
    const struct {
        const char* line;
        bool accepted;
        uint32_t debugSwitch, level;
    } cases[] = {{"debug ipv6 dhcp", true, 1, 7},           {"no debug ipv6 dhcp", true, 0, 6},
                 {"debug ipv6 dhcp level 1", true, 1, 1},   {"debug ipv6 dhcp level 7", true, 1, 7},
                 {"debug ipv6 dhcp level 24", true, 1, 24}, {"debug ipv6 dhcp level 0", false, 0, 0},
                 {"debug ipv6 dhcp level 8", false, 0, 0},  {"debug ipv6 dhcp level 23", false, 0, 0},
                 {"debug ipv6 dhcp level 25", false, 0, 0}, {"debug ipv6 dhcp level 4294967303", false, 0, 0},
                 {"debug ipv6 dhcp level -1", false, 0, 0}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line);
        if (!c.accepted) {
            EXPECT_NE(parseErr(c.line, false).find("invalid debug level"), std::string::npos);
            continue;
        }
        const CliParsed p = parseOk(c.line, false);
        ASSERT_EQ(p.cmd, CliCmd::DebugLog);
        const auto msg = cliEncodeLogLevel(kInstance, p);
        ASSERT_EQ(msg.size(), 88u);
        expectAddressedTo(msg, 336, 6001);
        EXPECT_EQ(word(msg, 72), 40031u);  // DHCP_LOG_LEVEL
        EXPECT_EQ(word(msg, 80), c.debugSwitch);
        EXPECT_EQ(word(msg, 84), c.level);
    }
}

// An empty value stands for the no form, which clears every flag.
TEST(CliDebug, FlagsBecomeTheDebugFlagWord) {
    const struct {
        const char* value;
        bool accepted;
        uint32_t flags;
    } cases[] = {{"0x10010", true, 0x10010},        {"65552", true, 0x10010}, {"0XFFFFFFFF", true, 0xFFFFFFFF},
                 {"4294967295", true, 0xFFFFFFFF},  {"0", true, 0},           {"", true, 0},
                 {"0x100000000", false, 0},         {"4294967296", false, 0}, {"0x", false, 0},
                 {"1f", false, 0},                  {"0x1g", false, 0}};
    for (const auto& c : cases) {
        const std::string line =
            *c.value ? std::string("debug ipv6 dhcp flags ") + c.value : std::string("no debug ipv6 dhcp flags");
        SCOPED_TRACE(line);
        if (!c.accepted) {
            EXPECT_NE(parseErr(line, false).find("invalid debug flags"), std::string::npos);
            continue;
        }
        const auto msg = cliEncodeDebugFlag(kInstance, parseOk(line, false));
        ASSERT_EQ(msg.size(), 88u);
        expectAddressedTo(msg, 336, 46500);
        EXPECT_EQ(word(msg, 80), c.flags);
    }
}

// The configuration store's lines, in its order, each with what it must become.
TEST(CliReplay, EveryRunningConfigLineIsACommand) {
    struct Line {
        const char* text;
        CliCmd cmd;
    };
    const Line lines[] = {
        {"ipv6 dhcp relay source-interface vlan 30", CliCmd::SourceInterface},
        {"DHCPv6RelayMgr:", CliCmd::Nothing},
        {"DHCPv6RelayMgr: ", CliCmd::Nothing},
        {" DHCPv6 debugging is on", CliCmd::DebugLog},
        {"!", CliCmd::LeaveInterface},
        {"interface vlan 10", CliCmd::Interface},
        {" ipv6 helper-address 2001:db8:ff::2", CliCmd::HelperAddress},
        {" ipv6 helper-address vrf red 2001:db8:ee::2", CliCmd::HelperAddress},
        {" ipv6 dhcp relay source-interface vlan 40", CliCmd::IfSourceInterface},
        {"!", CliCmd::LeaveInterface},
        {"interface port-channel 5", CliCmd::Interface},
        {"interface management 1/0", CliCmd::Interface},
        {"end", CliCmd::LeaveInterface},
        {"# a comment", CliCmd::Nothing},
        {"   ", CliCmd::Nothing},
    };
    bool inInterface = false;
    for (const Line& l : lines) {
        const CliParsed p = parseOk(l.text, inInterface);
        EXPECT_EQ(p.cmd, l.cmd) << l.text;
        if (p.cmd == CliCmd::Interface) inInterface = true;
        if (p.cmd == CliCmd::LeaveInterface) inInterface = false;
    }
    const CliParsed on = parseOk(" DHCPv6 debugging is on", false);
    EXPECT_EQ(on.logSwitch, 1u);
    EXPECT_EQ(on.logLevel, 7u);
}

TEST(CliReplay, InterfaceNamesComeBackAsTheIfmPrintsThem) {
    const CliParsed p = parseOk("INTERFACE Ethernet 1/2", false);
    EXPECT_EQ(p.ifName, "ethernet 1/2");
    EXPECT_EQ(p.ifIndex, 0x06010020u);
    EXPECT_EQ(parseOk("interface vlan10", false).ifName, "vlan 10");
    EXPECT_EQ(parseOk("interface port-channel   5", false).ifName, "port-channel 5");
}

TEST(CliRefused, SaysWhy) {
    const struct {
        const char* line;
        bool inInterface;
        const char* message;
    } cases[] = {
        {"frobnicate  now", false, "% Unknown command: frobnicate now"},
        {"show running-config all", false, "% Unknown command: show running-config all"},
        {"no show running-config", false, "% Unknown command: no show running-config"},
        {"ipv6 helper-address 2001:db8::zz", true, "% Invalid IPv6 address: 2001:db8::zz"},
        {"ipv6 helper-address ::", true, "% Invalid IPv6 address: ::"},
        {"ipv6 helper-address 10.0.0.1", true, "% Invalid IPv6 address: 10.0.0.1"},
        {"ipv6 helper-address fe80::1%eth0", true, "% Invalid IPv6 address: fe80::1%eth0"},
        {"ipv6 helper-address vrf red", true, "% Unknown command: ipv6 helper-address vrf red"},
        {"ipv6 helper-address 2001:db8::1 2001:db8::2", true,
         "% Unknown command: ipv6 helper-address 2001:db8::1 2001:db8::2"},
        {"ipv6 helper-address 2001:db8::1", false,
         "% Error: ipv6 helper-address is an interface command (enter \"interface NAME\" first)"},
        {"interface", false, "% Error: an interface name is missing"},
        {"interface vlan 4095", false, "% Error: unknown interface vlan 4095"},
        {"interface vlan", false, "% Error: unknown interface vlan"},
        {"interface ethernet 1", false, "% Error: unknown interface ethernet 1"},
        {"interface tunnel 1", false, "% Error: unknown interface tunnel 1"},
        {"debug ipv6 dhcp flags", false, "% Unknown command: debug ipv6 dhcp flags"},
        {"no debug ipv6 dhcp level 7", false, "% Unknown command: no debug ipv6 dhcp level 7"}};
    for (const auto& c : cases) EXPECT_EQ(parseErr(c.line, c.inInterface), c.message) << c.line;
}

TEST(CliIfmLookup, NameFieldKeepsItsTerminatingZero) {
    std::vector<uint8_t> msg;
    ASSERT_TRUE(cliEncodeIfmLookup(kInstance, 1, std::string(63, 'r'), msg));
    ASSERT_EQ(msg.size(), 152u) << "room for the answer's value at 148";
    expectAddressedTo(msg, 138, 13802);
    EXPECT_EQ(word(msg, 80), 1u);
    EXPECT_EQ(text(msg, 84, 64), std::string(63, 'r'));
    EXPECT_EQ(msg[84 + 63], 0);
    EXPECT_FALSE(cliEncodeIfmLookup(kInstance, 1, std::string(64, 'r'), msg));
}

TEST(CliShowRequests, AskTheStoreAndTheAclManagerWithRoomForLongAnswers) {
    const auto show = cliEncodeShowRunning(kInstance, 8104);
    expectAddressedTo(show, 120, 30010);
    EXPECT_EQ(word(show, 80), 8104u) << "the offset of the piece asked for";
    EXPECT_EQ(show.size(), 8192u);
    expectAddressedTo(cliEncodeWriteMemory(kInstance), 120, 30011);
    const auto acl = cliEncodeAclShow(kInstance);
    expectAddressedTo(acl, 57, 5702);
    EXPECT_EQ(acl.size(), 8192u);
}

// A store's answer for one piece: status, total length, piece length, text.
std::vector<uint8_t> showAnswer(size_t bufferLen, uint32_t length, int32_t status, uint32_t total,
                                uint32_t piece, const std::string& body) {
    std::vector<uint8_t> a(bufferLen, 0);
    qor::putU32(a, 8, length);
    qor::putU32(a, 64, uint32_t(status));
    qor::putU32(a, 80, total);
    qor::putU32(a, 84, piece);
    qor::putBytes(a, 88, body.data(), body.size() < bufferLen - 88 ? body.size() : bufferLen - 88);
    return a;
}

TEST(CliShowAnswer, PiecesReassembleTheText) {
    const std::string whole = "!\ninterface vlan 10\n ipv6 helper-address 2001:db8::1\n!\nend\n";
    std::string got;
    uint32_t offset = 0;
    const size_t pieceLen = 20;
    while (offset < whole.size()) {
        const std::string piece = whole.substr(offset, pieceLen);
        const auto a = showAnswer(8192, uint32_t(88 + piece.size()), 0, uint32_t(whole.size()),
                                  uint32_t(piece.size()), piece);
        CliShowPiece out;
        ASSERT_TRUE(cliDecodeShowPiece(a, offset, out)) << "offset " << offset;
        EXPECT_EQ(out.total, whole.size());
        got += out.text;
        offset += uint32_t(out.text.size());
    }
    EXPECT_EQ(got, whole);
}

TEST(CliShowAnswer, PieceStaysInsideTheAnswerAndTheText) {
    const struct {
        const char* what;
        size_t bufferLen;
        uint32_t length;
        int32_t status;
        uint32_t offset, total, piece;
        bool accepted;
    } cases[] = {{"whole text", 200, 100, 0, 0, 12, 12, true},
                 {"last piece", 200, 93, 0, 7, 12, 5, true},
                 {"empty text", 200, 88, 0, 0, 0, 0, true},
                 {"piece one past the text", 200, 101, 0, 0, 12, 13, false},
                 {"offset past the text", 200, 88, 0, 13, 12, 0, false},
                 {"piece one past the length word", 200, 99, 0, 0, 12, 12, false},
                 {"piece past the buffer", 100, 100, 0, 0, 13, 13, false},
                 {"huge piece", 200, 200, 0, 0, 0xFFFFFFFF, 0xFFFFFFFF, false},
                 {"refused", 200, 100, -1, 0, 12, 12, false},
                 {"answer shorter than its fields", 84, 84, 0, 0, 0, 0, false}};
    for (const auto& c : cases) {
        const std::string body(c.piece < c.bufferLen ? c.piece : c.bufferLen, 'x');
        const auto a = showAnswer(c.bufferLen, c.length, c.status, c.total, c.piece, body);
        CliShowPiece out;
        EXPECT_EQ(cliDecodeShowPiece(a, c.offset, out), c.accepted) << c.what;
        if (c.accepted) {
            EXPECT_EQ(out.text.size(), c.piece) << c.what;
        }
    }
}

std::vector<uint8_t> aclAnswer(uint32_t count, const std::vector<std::pair<uint32_t, uint32_t>>& pairs,
                               size_t lengthWord) {
    std::vector<uint8_t> a(8192, 0);
    qor::putU32(a, 8, uint32_t(lengthWord));
    qor::putU32(a, 80, count);
    size_t at = 84;
    for (const auto& [protocol, on] : pairs) {
        qor::putU32(a, at, protocol);
        qor::putU32(a, at + 4, on);
        at += 8;
    }
    return a;
}

TEST(CliAclAnswer, ListsEachTrapProtocolWithItsNameAndRefusesACountBeyondTheAnswer) {
    std::vector<CliAclTrap> traps;
    ASSERT_TRUE(cliDecodeAclShow(aclAnswer(2, {{30, 1}, {39, 0}}, 84 + 16), traps));
    ASSERT_EQ(traps.size(), 2u);
    EXPECT_EQ(traps[0].protocol, 30u);
    EXPECT_TRUE(traps[0].enabled);
    EXPECT_STREQ(cliAclProtocolName(traps[0].protocol), "dhcpv6-relay");
    EXPECT_EQ(traps[1].protocol, 39u);
    EXPECT_FALSE(traps[1].enabled);
    EXPECT_STREQ(cliAclProtocolName(traps[1].protocol), "dhcpv6-snooping");
    EXPECT_FALSE(cliDecodeAclShow(aclAnswer(3, {{30, 1}, {39, 0}}, 84 + 16), traps))
        << "three pairs claimed, two sent";
    EXPECT_FALSE(cliDecodeAclShow(aclAnswer(0xFFFFFFFF, {}, 8192), traps));
    EXPECT_TRUE(cliDecodeAclShow(aclAnswer(0, {}, 84), traps));
    EXPECT_TRUE(traps.empty());
}

}  // namespace
