// dhcpv6-cli's command lines as the relay receives them: request bytes at the
// offsets the relay reads and the reasons given for bad input.
#include <gtest/gtest.h>

#include "../../cli/CliParse.h"

namespace {

// The reason a line is refused, empty when it is accepted into `p`.
std::string parse(const std::string& line, bool inInterface, CliParsed& p) {
    std::string err;
    const int rc = cliParseLine(line, inInterface, p, err);
    EXPECT_EQ(rc != 0, !err.empty()) << line;
    return err;
}

// Length at 8, type at 12, the relay's queue (application 336, instance 2, kind 1) at 56, then the
// command's words; the helper address at 290 is not word aligned; a VRF name keeps its case and may
// fill its 32-byte field, as the relay reads it into a buffer one longer. "debug ipv6 dhcp" asks for
// level 7, its no form for the start-up level 6.
TEST(CliRequests, CarryEachFieldWhereTheRelayReadsIt) {
    CliParsed p;
    const std::string vrf = "Red" + std::string(29, 'v');
    ASSERT_EQ(parse("  NO Ipv6 Helper-Address VRF " + vrf + " 2001:db8:ff::2  ", true, p), "");
    auto msg = cliEncodeRelayAddr(2, p, 0x1800000A, 7);
    ASSERT_EQ(msg.size(), 652u);
    for (const auto& [off, value] : {std::pair{8u, 652u}, {12, 6001}, {56, 0x1500201}, {72, 40030}, {80, 0}, {84, 0x1800000A}, {648, 7}})
        EXPECT_EQ(qor::u32At(msg, off), value) << "offset " << off;
    EXPECT_EQ(std::string(msg.begin() + 92, msg.begin() + 124), vrf);
    EXPECT_EQ(std::vector<uint8_t>(msg.begin() + 290, msg.begin() + 306),
              (std::vector<uint8_t>{0x20, 0x01, 0x0d, 0xb8, 0x00, 0xff, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2}));
    for (const auto& [line, words] : {std::pair<std::string, std::vector<uint32_t>>{"debug ipv6 dhcp", {88, 40031, 1, 7}},
                                      {"no debug ipv6 dhcp", {88, 40031, 0, 6}}, {"debug ipv6 dhcp level 24", {88, 40031, 1, 24}}}) {
        ASSERT_EQ(parse(line, false, p = {}), "");
        msg = cliEncodeLogLevel(2, p);
        EXPECT_EQ(std::vector({qor::u32At(msg, 8), qor::u32At(msg, 72), qor::u32At(msg, 80), qor::u32At(msg, 84)}), words) << line;
    }
    // Port configuration goes to the IFM: the port at 80, 84 mode (0) or port-channel (1), 88 the value.
    for (const auto& [line, words] : {std::pair<std::string, std::vector<uint32_t>>{"no switchport", {13803, 0x06010050, 0, 0}},
                                      {"switchport", {13803, 0x06010050, 0, 1}}, {"channel-group 65535", {13803, 0x06010050, 1, 65535}},
                                      {"no channel-group 7", {13803, 0x06010050, 1, 0}}, {"no channel-group", {13803, 0x06010050, 1, 0}}}) {
        ASSERT_EQ(parse(line, true, p = {}), "") << line;
        msg = cliEncodePortCfg(2, p, 0x06010050);
        EXPECT_EQ(std::vector({qor::u32At(msg, 12), qor::u32At(msg, 80), qor::u32At(msg, 84), qor::u32At(msg, 88)}), words) << line;
    }
}

// (line, inside an interface, the reason; a trailing '*' matches any rest)
TEST(CliRefused, SaysWhy) {
    const std::tuple<std::string, bool, std::string> cases[] = {
        {"frobnicate  now", false, "% Unknown command: frobnicate now"},
        {"ipv6 helper-address 2001:db8::zz", true, "% Invalid IPv6 address: 2001:db8::zz"},
        {"ipv6 helper-address ::", true, "% Invalid IPv6 address: ::"},
        {"ipv6 helper-address fe80::1%eth0", true, "% Invalid IPv6 address: fe80::1%eth0"},
        {"ipv6 helper-address vrf red", true, "% Unknown command: ipv6 helper-address vrf red"},
        {"ipv6 helper-address vrf " + std::string(33, 'v') + " ::1", true, "% Error: a VRF name has at most 32 *"},
        {"ipv6 helper-address 2001:db8::1", false,
         "% Error: ipv6 helper-address is an interface command (enter \"interface NAME\" first)"},
        {"ipv6 dhcp relay source-interface", false, "% Error: an interface name is missing"},
        {"no debug ipv6 dhcp level 7", false, "% Unknown command: no debug ipv6 dhcp level 7"},
        {"switchport", false, "% Error: switchport is an interface command (enter \"interface NAME\" first)"},
        {"switchport trunk", true, "% Unknown command: switchport trunk"},
        {"channel-group", true, "% Unknown command: channel-group"},
        {"channel-group 0", true, "% Error: invalid port-channel number 0 (1-65535)"},
        {"channel-group 65536", true, "% Error: invalid port-channel number 65536 (1-65535)"}};
    for (const auto& [line, inInterface, reason] : cases) {
        CliParsed p;
        const std::string got = parse(line, inInterface, p);
        EXPECT_EQ(reason.back() == '*' ? got.substr(0, reason.size() - 1) + "*" : got, reason) << line;
    }
    for (std::string value : {"level 0", "level 8", "level 23", "level 25", "level 4294967303", "flags 0x100000000", "flags 1f", "flags 0x"}) {
        CliParsed p;
        EXPECT_EQ(parse("debug ipv6 dhcp " + value, false, p),
                  "% Error: invalid debug " + value + (value[0] == 'l' ? " (1-7 or 24)" : " (a 32-bit value, decimal or 0x hex)"));
    }
}

}  // namespace
