// The interface manager's notifications as the relay manager acts on them:
// each TLV sets off its actions in TLV order, and the walk acts on nothing
// that the message does not hold whole, whatever its count and lengths say.
#include <gtest/gtest.h>

#include "relaymgr_fixture.h"

namespace {

using namespace relaytest;
using ::testing::internal::CaptureStdout;
using ::testing::internal::GetCapturedStdout;

// One TLV as it lies in the message: its length field (the whole TLV), and
// the words it holds (fewer or more than the length says, for broken ones).
struct RawTlv {
    uint16_t type;
    uint16_t length;
    std::vector<uint32_t> words;
};

std::vector<uint8_t> notification(int32_t count, const std::vector<RawTlv>& tlvs) {
    size_t len = 140;
    for (const auto& t : tlvs) len += 4 + 4 * t.words.size();
    auto m = typeMsg(MT_IFM_NOTIF_MSG, len);
    qor::putU32(m, 128, uint32_t(count));
    size_t off = 140;
    for (const auto& t : tlvs) {
        qor::putU16(m, off, t.type);
        qor::putU16(m, off + 2, t.length);
        for (size_t i = 0; i < t.words.size(); ++i) qor::putU32(m, off + 4 + 4 * i, t.words[i]);
        off += 4 + 4 * t.words.size();
    }
    return m;
}

const uint32_t kV10 = vlanIf(10), kV20 = vlanIf(20);

// What the relay prints for each interface event (debug 0x10 and 0x1000).
std::string up(const char* name) {
    return std::string("Got IFM_TYP_OSTATE_UP for ") + name + " \r\nDHCPv6RelayMgr : dhcpv6LeaseIpDownLoadRoute\r";
}
std::string down(const char* name) {
    return std::string("Got IFM_TYP_OSTATE_DN for ") + name +
           " \r\nDHCPv6RelayMgr : Inside dhcpv6LeaseIpWithDrawRoute\r";
}
// Routes first, then helpers, source interface and snooping state.
std::string deleted(const char* name) {
    return std::string("Got IFM_TYP_DEL_IF for ") + name +
           " \r\nDHCPv6RelayMgr : Inside dhcpv6LeaseIpWithDrawRoute\r"
           "DHCPv6RelayMgr : Inside dhcpv6RelayDelIntHelper\rRemoved Int helper list \r";
}

struct Case {
    const char* what;
    int32_t count;
    std::vector<RawTlv> tlvs;
    std::string printed;  // after the entry line
    bool v10Kept;         // VLAN 10's helper is still there
};

void PrintTo(const Case& c, std::ostream* os) { *os << c.what; }

class IfmEvents : public RelayFixture, public ::testing::WithParamInterface<Case> {};

TEST_P(IfmEvents, ActsOnEachWholeTlvInOrderAndOnNothingElse) {
    const Case& c = GetParam();
    for (uint32_t ifIndex : {kV10, kV20}) {
        auto h = cmdMsg(DHCP_RELAYADDR_CONFIG, DHCPV6_RLY_MSG_LEN);
        qor::putU32(h, DHCPV6_RLY_OFF_OPERATION, 1);
        qor::putU32(h, DHCPV6_RLY_OFF_IFINDEX, ifIndex);
        const uint8_t server[16] = {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 5};
        qor::putBytes(h, DHCPV6_RLY_OFF_ADDR, server, sizeof server);
        ASSERT_EQ(dispatch(h), 0);
    }
    dhcpv6_debug_flag = DHCPV6_DBG_EVENT | DHCPV6_DBG_DETAIL;
    auto m = notification(c.count, c.tlvs);
    CaptureStdout();
    dhcpv6ProcessIfmTlvMessage(m);
    EXPECT_EQ(GetCapturedStdout(), "Dhcpv6RelayMgr : Inside dhcpv6ProcessIfmTlvMessage \r" + c.printed);
    EXPECT_EQ(relayv6Lookup(kV10) != nullptr, c.v10Kept);
    EXPECT_NE(relayv6Lookup(kV20), nullptr) << "no TLV names VLAN 20";
}

INSTANTIATE_TEST_SUITE_P(
    Walks, IfmEvents,
    ::testing::Values(
        Case{"up", 1, {{3, 8, {kV10}}}, up("vlan 10"), true},
        Case{"down then delete", 2, {{4, 8, {kV10}}, {2, 8, {kV10}}}, down("vlan 10") + deleted("vlan 10"), false},
        Case{"unknown types are skipped by their length", 3,
             {{99, 12, {1, 2}}, {53, 4, {}}, {3, 8, {kV10}}}, up("vlan 10"), true},
        Case{"a longer TLV moves the walk by its length", 2, {{4, 12, {kV10, 0}}, {3, 8, {kV10}}},
             down("vlan 10") + up("vlan 10"), true},
        Case{"count 0", 0, {{2, 8, {kV10}}}, "", true},
        Case{"negative count", -5, {{2, 8, {kV10}}}, "", true},
        Case{"count stops the walk", 1, {{4, 8, {kV10}}, {2, 8, {kV10}}}, down("vlan 10"), true},
        Case{"count beyond the TLVs present", 9, {{4, 8, {kV10}}}, down("vlan 10"), true},
        Case{"length below the header ends the walk", 3, {{4, 8, {kV10}}, {3, 3, {}}, {2, 8, {kV10}}},
             down("vlan 10"), true},
        Case{"length 0 ends the walk", 2, {{2, 0, {kV10}}, {2, 8, {kV10}}}, "", true},
        Case{"length past the end is not read", 2, {{4, 8, {kV10}}, {2, 0xFFFF, {kV10}}}, down("vlan 10"), true},
        Case{"an event without its ifIndex does nothing", 2, {{2, 4, {}}, {4, 6, {kV10}}}, "", true}),
    [](const ::testing::TestParamInfo<Case>& p) {
        std::string name = p.param.what;
        for (char& ch : name)
            if (!std::isalnum(static_cast<unsigned char>(ch))) ch = '_';
        return name;
    });

}  // namespace
