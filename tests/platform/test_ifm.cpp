// The interface manager library: every kind of interface survives the trip
// ifIndex -> fields -> name -> ifIndex, names parse as an operator types
// them, and bad names and out-of-range fields are refused.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <set>
#include <string>
#include <vector>

#include "qor/chassis.h"
#include "qor/ifm.h"

namespace {

struct IfCase {
    uint32_t type, slot, port, sub;  // as given to ifmCreateIfIndex
    const char* name;
    uint32_t vlan, num;              // what the VLAN and number decoders give
};

// Slot, port and sub-port decode only for ports (ethernet, management).
const IfCase kInterfaces[] = {
    {IFM_IFTYPE_ETHERNET, 0, 1, 0, "ethernet 0/1", 0, 0},
    {IFM_IFTYPE_ETHERNET, 1, 2, 0, "ethernet 1/2", 0, 0},
    {IFM_IFTYPE_ETHERNET, 1, 2, 3, "ethernet 1/2:3", 0, 0},
    {IFM_IFTYPE_ETHERNET, 255, 4095, 15, "ethernet 255/4095:15", 0, 0},
    {IFM_IFTYPE_MGMT, 1, 0, 0, "management 1/0", 0, 0},
    {IFM_IFTYPE_MGMT, 255, 4095, 0, "management 255/4095", 0, 0},
    {IFM_IFTYPE_VLAN, 0, 0, 1, "vlan 1", 1, 1},
    {IFM_IFTYPE_VLAN, 0, 0, 10, "vlan 10", 10, 10},
    {IFM_IFTYPE_VLAN, 0, 0, 4094, "vlan 4094", 4094, 4094},
    {IFM_IFTYPE_LAG, 0, 0, 1, "port-channel 1", 0, 1},
    {IFM_IFTYPE_LAG, 0, 0, 5, "port-channel 5", 0, 5},
    {IFM_IFTYPE_LAG, 0, 0, 65535, "port-channel 65535", 0, 65535},
};

class IfIndexRoundTrip : public ::testing::TestWithParam<IfCase> {};

TEST_P(IfIndexRoundTrip, FieldsNameAndParseGiveBackTheInterface) {
    const IfCase& c = GetParam();
    const uint32_t ifIndex = ifmCreateIfIndex(c.type, c.slot, c.port, c.sub);
    ASSERT_NE(ifIndex, 0u) << c.name;
    EXPECT_EQ(ifmIfIndexToIfType(ifIndex), c.type);
    const bool port = c.type == IFM_IFTYPE_ETHERNET || c.type == IFM_IFTYPE_MGMT;
    EXPECT_EQ(ifmIfIndexToSlotId(ifIndex), port ? c.slot : 0u);
    EXPECT_EQ(ifmIfIndexToPortId(ifIndex), port ? c.port : 0u);
    EXPECT_EQ(ifmIfIndexToSubPortId(ifIndex), port ? c.sub : 0u);
    EXPECT_EQ(ifmIfIndexToVlanId(ifIndex), c.vlan);
    EXPECT_EQ(ifmIfIndexToIfNum(ifIndex), c.num);

    char name[IFM_IFNAME_LEN];
    EXPECT_STREQ(ifmIfIndexToName(ifIndex, name), c.name);
    // As printed, in capitals, and with no space before the numbers ("vlan10").
    std::string upper = c.name, joined = c.name;
    std::transform(upper.begin(), upper.end(), upper.begin(), ::toupper);
    joined.erase(joined.find(' '), 1);
    for (const std::string& spelling : {std::string(c.name), upper, joined}) {
        uint32_t parsed = 0;
        EXPECT_EQ(ifmNameToIfIndex(spelling.c_str(), &parsed), 0) << spelling;
        EXPECT_EQ(parsed, ifIndex) << spelling;
    }
}

INSTANTIATE_TEST_SUITE_P(EveryKind, IfIndexRoundTrip, ::testing::ValuesIn(kInterfaces));

TEST(IfIndex, EveryInterfaceHasItsOwnIfIndexWhicheverFormTheDaemonUses) {
    std::set<uint32_t> seen;
    for (const IfCase& c : kInterfaces)
        EXPECT_TRUE(seen.insert(ifmCreateIfIndex(c.type, c.slot, c.port, c.sub)).second) << c.name;
    // The daemon passes a VLAN id or LAG number as the last argument.
    EXPECT_EQ(ifmCreateIfIndex(IFM_IFTYPE_VLAN, 0, 0, 10), ifmCreateIfIndex(IFM_IFTYPE_VLAN, 0, 10, 0));
    EXPECT_EQ(ifmCreateIfIndex(IFM_IFTYPE_LAG, 0, 0, 7), ifmCreateIfIndex(IFM_IFTYPE_LAG, 0, 7, 0));
}

struct OutOfRange {
    const char* what;
    uint32_t type, slot, port, sub;
};

TEST(IfIndex, OutOfRangeFieldsGiveNoInterface) {
    for (const OutOfRange& c : {OutOfRange{"ethernet slot 256", IFM_IFTYPE_ETHERNET, 256, 1, 0},
                                OutOfRange{"ethernet port 0", IFM_IFTYPE_ETHERNET, 1, 0, 0},
                                OutOfRange{"ethernet port 4096", IFM_IFTYPE_ETHERNET, 1, 4096, 0},
                                OutOfRange{"ethernet sub-port 16", IFM_IFTYPE_ETHERNET, 1, 1, 16},
                                OutOfRange{"management sub-port", IFM_IFTYPE_MGMT, 1, 0, 1},
                                OutOfRange{"management slot 256", IFM_IFTYPE_MGMT, 256, 0, 0},
                                OutOfRange{"vlan 0", IFM_IFTYPE_VLAN, 0, 0, 0},
                                OutOfRange{"vlan 4095", IFM_IFTYPE_VLAN, 0, 0, 4095},
                                OutOfRange{"vlan with a slot", IFM_IFTYPE_VLAN, 1, 0, 10},
                                OutOfRange{"vlan given twice", IFM_IFTYPE_VLAN, 0, 5, 6},
                                OutOfRange{"port-channel 0", IFM_IFTYPE_LAG, 0, 0, 0},
                                OutOfRange{"port-channel 65536", IFM_IFTYPE_LAG, 0, 0, 65536},
                                OutOfRange{"unknown type", 99, 1, 1, 0}, OutOfRange{"type 0", 0, 1, 1, 0}})
        EXPECT_EQ(ifmCreateIfIndex(c.type, c.slot, c.port, c.sub), 0u) << c.what;
}

class IfNameRefused : public ::testing::TestWithParam<const char*> {};

TEST_P(IfNameRefused, LeavesTheOutputAlone) {
    uint32_t ifIndex = 0xDEADBEEF;
    EXPECT_EQ(ifmNameToIfIndex(GetParam(), &ifIndex), -1) << '"' << GetParam() << '"';
    EXPECT_EQ(ifIndex, 0xDEADBEEFu);
}

INSTANTIATE_TEST_SUITE_P(
    BadNames, IfNameRefused,
    ::testing::Values("vlan 0", "vlan 4095", "ethernet 1/", "foo 1", "", "vlan", "vlan ",
                      "vlan  10", " vlan 10", "vlan 10 ", "vlan 10x", "vlan -1", "vlan 0x10",
                      "vlanx10", "ethernet 1", "ethernet /2", "ethernet 1/2:", "ethernet 1/2:16",
                      "ethernet 1/0", "ethernet 256/1", "ethernet 1/2/3", "management 1/0:1",
                      "management 1", "port-channel 0", "port-channel 65536", "port-channel",
                      "vlan 99999999999999999999", "vlan 000000000000000000000000000010",
                      "unknown 0x63000001", "eth 1/2", "vlan\t10"));

TEST(IfName, NullArgumentsAreRefusedAndAnUnknownIfIndexPrintsItsValue) {
    uint32_t ifIndex = 0;
    EXPECT_EQ(ifmNameToIfIndex(nullptr, &ifIndex), -1);
    EXPECT_EQ(ifmNameToIfIndex("vlan 10", nullptr), -1);
    char name[IFM_IFNAME_LEN];
    EXPECT_STREQ(ifmIfIndexToName(0x63000001, name), "unknown 0x63000001");
    EXPECT_STREQ(ifmIfIndexToName(0, name), "unknown 0x00000000");
}

TEST(IfmRegistration, MaskOfEachServiceTypeSitsInItsWordBigEndian) {
    std::array<uint8_t, QOR_IFM_REG_LEN> reg{};
    ASSERT_EQ(ifmSetPerSvcTypeMasks(reg.data(), reg.size(), 11, 0x3C0000), 0);
    ASSERT_EQ(ifmSetPerSvcTypeMasks(reg.data(), reg.size(), 53, 0x01020304), 0);
    // The IFM reads type 11's mask at byte 2044 and type 53's at 2212.
    EXPECT_EQ(reg[2044], 0x00);
    EXPECT_EQ(reg[2045], 0x3C);
    EXPECT_EQ(reg[2046], 0x00);
    EXPECT_EQ(reg[2212], 0x01);
    EXPECT_EQ(reg[2215], 0x04);
    size_t touched = 0;
    for (uint8_t b : reg) touched += b != 0;
    EXPECT_EQ(touched, 5u) << "bytes outside the two masks changed";

    EXPECT_EQ(ifmSetPerSvcTypeMasks(reg.data(), reg.size(), -1, 1), -1);
    EXPECT_EQ(ifmSetPerSvcTypeMasks(reg.data(), reg.size(), QOR_IFM_REG_MAX_TYPE + 1, 1), -1);
    EXPECT_EQ(ifmSetPerSvcTypeMasks(nullptr, reg.size(), 2, 1), -1);
    // A record too short for the word is refused and left alone.
    std::array<uint8_t, 2011> shortReg{};
    EXPECT_EQ(ifmSetPerSvcTypeMasks(shortReg.data(), shortReg.size(), 2, 0xFFFFFFFF), -1);
    EXPECT_TRUE(std::all_of(shortReg.begin(), shortReg.end(), [](uint8_t b) { return b == 0; }));
    EXPECT_EQ(ifmSetPerSvcTypeMasks(shortReg.data(), shortReg.size(), 1, 0xFFFFFFFF), 0)
        << "type 1's word ends at byte 2008";
}

}  // namespace
