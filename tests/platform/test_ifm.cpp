// The interface manager library: every kind of interface survives the trip
// ifIndex -> fields -> name -> ifIndex, and bad names and fields are refused.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <string>

#include "qor/ifm.h"

namespace {

struct IfCase {
    uint32_t type, a, b, c;  // as given to ifmCreateIfIndex
    const char* name;
    uint32_t slot, port, sub, usrPort, logicalSlot, vlan, num;  // what the decoders give
};

// Ethernet takes the user port (main << 4 | sub) and a card type it does not
// keep; pe-ethernet takes (stack unit, port, extender id).
const IfCase kInterfaces[] = {
    {IFM_IFTYPE_ETHERNET, 0, 0x10, 0, "ethernet 0/1", 0, 1, 0, 0x10, 0, 0, 0},
    {IFM_IFTYPE_ETHERNET, 1, 0x23, QOR_CARD_LINE, "ethernet 1/2:3", 1, 2, 3, 0x23, 1, 0, 0},
    {IFM_IFTYPE_ETHERNET, 47, 0x7FFF, 0, "ethernet 47/2047:15", 47, 2047, 15, 0x7FFF, 47, 0, 0},
    {IFM_IFTYPE_PE_ETHERNET, 1, 5, 0, "pe-ethernet 0/1/5", 1, 5, 0, 5, 49, 0, 0},
    {IFM_IFTYPE_PE_ETHERNET, 0, 1, 1, "pe-ethernet 1/0/1", 0, 1, 0, 1, 64, 0, 0},
    {IFM_IFTYPE_PE_ETHERNET, 15, 4095, 12, "pe-ethernet 12/15/4095", 15, 4095, 0, 4095, 255, 0, 0},
    {IFM_IFTYPE_MGMT, 1, 0, 0, "management 1/0", 1, 0, 0, 0, 1, 0, 0},
    {IFM_IFTYPE_MGMT, 255, 4095, 0, "management 255/4095", 255, 4095, 0, 0, 255, 0, 0},
    {IFM_IFTYPE_VLAN, 0, 0, 1, "vlan 1", 0, 0, 0, 0, 0, 1, 1},
    {IFM_IFTYPE_VLAN, 0, 0, 4094, "vlan 4094", 0, 0, 0, 0, 0, 4094, 4094},
    {IFM_IFTYPE_LAG, 0, 0, 1, "port-channel 1", 0, 0, 0, 0, 0, 0, 1},
    {IFM_IFTYPE_LAG, 0, 0, 65535, "port-channel 65535", 0, 0, 0, 0, 0, 0, 65535},
};

// A wrong field or name sends a relayed answer to the wrong port.
TEST(IfIndex, EveryKindRoundTripsThroughFieldsAndNames) {
    for (const IfCase& c : kInterfaces) {
        SCOPED_TRACE(c.name);
        const uint32_t ifIndex = ifmCreateIfIndex(c.type, c.a, c.b, c.c);
        ASSERT_NE(ifIndex, 0u);
        EXPECT_EQ((std::array{ifmIfIndexToIfType(ifIndex), ifmIfIndexToSlotId(ifIndex), ifmIfIndexToPortId(ifIndex),
                              ifmIfIndexToSubPortId(ifIndex), ifmIfIndexToUsrPortId(ifIndex),
                              ifmGetIfIndexToLogicalSlotId(ifIndex), ifmIfIndexToVlanId(ifIndex),
                              ifmIfIndexToIfNum(ifIndex), ifmIfIndexToPeFlag(ifIndex)}),
                  (std::array{c.type, c.slot, c.port, c.sub, c.usrPort, c.logicalSlot, c.vlan, c.num,
                              uint32_t(c.type == IFM_IFTYPE_PE_ETHERNET)}));
        char name[IFM_IFNAME_LEN];
        EXPECT_STREQ(ifmIfIndexToName(ifIndex, name), c.name);
        // As printed, in capitals, and with no space before the numbers ("vlan10").
        std::string upper = c.name, joined = c.name;
        std::transform(upper.begin(), upper.end(), upper.begin(), ::toupper);
        joined.erase(joined.find(' '), 1);
        for (const std::string& spelling : {std::string(c.name), upper, joined}) {
            uint32_t parsed = 0;
            EXPECT_EQ(std::pair(ifmNameToIfIndex(spelling.c_str(), &parsed), parsed), std::pair(0, ifIndex))
                << spelling;
        }
    }
    // The daemon passes a VLAN id or LAG number as the last argument.
    EXPECT_EQ(ifmCreateIfIndex(IFM_IFTYPE_VLAN, 0, 0, 10), ifmCreateIfIndex(IFM_IFTYPE_VLAN, 0, 10, 0));
    EXPECT_EQ(ifmEthernetIfIndex(1, 2, 3), ifmCreateIfIndex(IFM_IFTYPE_ETHERNET, 1, 0x23, QOR_CARD_LINE));
    char name[IFM_IFNAME_LEN];
    EXPECT_STREQ(ifmIfIndexToName(0x63000001, name), "unknown 0x63000001");
}

// Out-of-range fields give no interface; bad names are refused and leave the output alone.
TEST(IfIndex, OutOfRangeFieldsAndBadNamesGiveNoInterface) {
    const std::array<uint32_t, 4> fields[] = {
        {IFM_IFTYPE_ETHERNET, 48, 0x10, 0},   {IFM_IFTYPE_ETHERNET, 1, 0x0F, 0}, {IFM_IFTYPE_ETHERNET, 1, 0x8000, 0},
        {IFM_IFTYPE_ETHERNET, 1, 0x10010, 0}, {IFM_IFTYPE_PE_ETHERNET, 16, 1, 0}, {IFM_IFTYPE_PE_ETHERNET, 1, 0, 0},
        {IFM_IFTYPE_PE_ETHERNET, 1, 4096, 0}, {IFM_IFTYPE_PE_ETHERNET, 1, 1, 13}, {IFM_IFTYPE_MGMT, 1, 0, 1},
        {IFM_IFTYPE_MGMT, 256, 0, 0},         {IFM_IFTYPE_VLAN, 0, 0, 0},         {IFM_IFTYPE_VLAN, 0, 0, 4095},
        {IFM_IFTYPE_VLAN, 1, 0, 10},          {IFM_IFTYPE_VLAN, 0, 5, 6},         {IFM_IFTYPE_LAG, 0, 0, 65536},
        {99, 1, 1, 0},                        {0, 1, 1, 0}};
    for (const auto& [type, a, b, c] : fields)
        EXPECT_EQ(ifmCreateIfIndex(type, a, b, c), 0u) << type << " " << a << " " << b << " " << c;
    EXPECT_EQ(ifmEthernetIfIndex(1, 4096, 0) | ifmEthernetIfIndex(1, 1, 16), 0u);
    for (const char* bad : {"vlan 0", "vlan 4095", "ethernet 1/", "foo 1", "", "vlan", "vlan ", "vlan  10", " vlan 10",
                            "vlan 10 ", "vlan 10x", "vlan -1", "vlan 0x10", "vlanx10", "ethernet 1", "ethernet /2",
                            "ethernet 1/2:", "ethernet 1/2:16", "ethernet 1/0", "ethernet 48/1", "ethernet 1/2/3",
                            "ethernet 1/2048", "management 1/0:1", "management 1", "pe-ethernet 0/1",
                            "pe-ethernet 13/0/1", "pe-ethernet 0/16/1", "pe-ethernet 0/1/0", "pe-ethernet 0/1/4096",
                            "pe-ethernet 0/1/5:1", "port-channel 0", "port-channel 65536", "port-channel",
                            "vlan 99999999999999999999", "vlan 000000000000000000000000000010", "unknown 0x63000001",
                            "eth 1/2", "vlan\t10"}) {
        uint32_t ifIndex = 0xDEADBEEF;
        EXPECT_EQ(std::pair(ifmNameToIfIndex(bad, &ifIndex), ifIndex), std::pair(-1, 0xDEADBEEFu)) << '"' << bad << '"';
    }
    EXPECT_EQ(ifmNameToIfIndex(nullptr, nullptr), -1);
}

}  // namespace
