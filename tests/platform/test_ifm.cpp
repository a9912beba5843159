// The interface manager library: every kind of interface survives the trip
// ifIndex -> fields -> name -> ifIndex, names parse as an operator types
// them, bad names and out-of-range fields are refused, and the port part of
// an Interface-ID leads a reply back to the very port its request came in on.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <set>
#include <string>
#include <vector>

#include "qor/chassis.h"
#include "qor/hostmap.h"
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
    {IFM_IFTYPE_ETHERNET, 1, 0x20, QOR_CARD_LINE, "ethernet 1/2", 1, 2, 0, 0x20, 1, 0, 0},
    {IFM_IFTYPE_ETHERNET, 1, 0x23, 0, "ethernet 1/2:3", 1, 2, 3, 0x23, 1, 0, 0},
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

void PrintTo(const IfCase& c, std::ostream* os) { *os << c.name; }

class IfIndexRoundTrip : public ::testing::TestWithParam<IfCase> {};

TEST_P(IfIndexRoundTrip, FieldsNameAndParseGiveBackTheInterface) {
    const IfCase& c = GetParam();
    const uint32_t ifIndex = ifmCreateIfIndex(c.type, c.a, c.b, c.c);
    ASSERT_NE(ifIndex, 0u) << c.name;
    EXPECT_EQ(ifmIfIndexToIfType(ifIndex), c.type);
    EXPECT_EQ(ifmIfIndexToSlotId(ifIndex), c.slot);
    EXPECT_EQ(ifmIfIndexToPortId(ifIndex), c.port);
    EXPECT_EQ(ifmIfIndexToSubPortId(ifIndex), c.sub);
    EXPECT_EQ(ifmIfIndexToUsrPortId(ifIndex), c.usrPort);
    EXPECT_EQ(ifmGetIfIndexToLogicalSlotId(ifIndex), c.logicalSlot);
    EXPECT_EQ(ifmIfIndexToPeFlag(ifIndex), c.type == IFM_IFTYPE_PE_ETHERNET ? 1u : 0u);
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
        EXPECT_TRUE(seen.insert(ifmCreateIfIndex(c.type, c.a, c.b, c.c)).second) << c.name;
    // The daemon passes a VLAN id or LAG number as the last argument.
    EXPECT_EQ(ifmCreateIfIndex(IFM_IFTYPE_VLAN, 0, 0, 10), ifmCreateIfIndex(IFM_IFTYPE_VLAN, 0, 10, 0));
    EXPECT_EQ(ifmCreateIfIndex(IFM_IFTYPE_LAG, 0, 0, 7), ifmCreateIfIndex(IFM_IFTYPE_LAG, 0, 7, 0));
    // A port by slot, main port and sub-port is the port of its user port number.
    EXPECT_EQ(ifmEthernetIfIndex(1, 2, 3), ifmCreateIfIndex(IFM_IFTYPE_ETHERNET, 1, 0x23, QOR_CARD_LINE));
}

struct OutOfRange {
    const char* what;
    uint32_t type, slot, port, sub;
};

TEST(IfIndex, OutOfRangeFieldsGiveNoInterface) {
    for (const OutOfRange& c : {OutOfRange{"ethernet slot 48", IFM_IFTYPE_ETHERNET, 48, 0x10, 0},
                                OutOfRange{"ethernet main port 0", IFM_IFTYPE_ETHERNET, 1, 0x0F, 0},
                                OutOfRange{"ethernet user port above 16 bits", IFM_IFTYPE_ETHERNET, 1, 0x10010, 0},
                                OutOfRange{"ethernet main port 2048", IFM_IFTYPE_ETHERNET, 1, 0x8000, 0},
                                OutOfRange{"pe unit 16", IFM_IFTYPE_PE_ETHERNET, 16, 1, 0},
                                OutOfRange{"pe port 0", IFM_IFTYPE_PE_ETHERNET, 1, 0, 0},
                                OutOfRange{"pe port 4096", IFM_IFTYPE_PE_ETHERNET, 1, 4096, 0},
                                OutOfRange{"pe extender 13", IFM_IFTYPE_PE_ETHERNET, 1, 1, 13},
                                OutOfRange{"management with a last field", IFM_IFTYPE_MGMT, 1, 0, 1},
                                OutOfRange{"management slot 256", IFM_IFTYPE_MGMT, 256, 0, 0},
                                OutOfRange{"vlan 0", IFM_IFTYPE_VLAN, 0, 0, 0},
                                OutOfRange{"vlan 4095", IFM_IFTYPE_VLAN, 0, 0, 4095},
                                OutOfRange{"vlan with a slot", IFM_IFTYPE_VLAN, 1, 0, 10},
                                OutOfRange{"vlan given twice", IFM_IFTYPE_VLAN, 0, 5, 6},
                                OutOfRange{"port-channel 0", IFM_IFTYPE_LAG, 0, 0, 0},
                                OutOfRange{"port-channel 65536", IFM_IFTYPE_LAG, 0, 0, 65536},
                                OutOfRange{"unknown type", 99, 1, 1, 0}, OutOfRange{"type 0", 0, 1, 1, 0}})
        EXPECT_EQ(ifmCreateIfIndex(c.type, c.slot, c.port, c.sub), 0u) << c.what;
    EXPECT_EQ(ifmEthernetIfIndex(1, 4096, 0), 0u);
    EXPECT_EQ(ifmEthernetIfIndex(1, 1, 16), 0u);
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
                      "ethernet 1/0", "ethernet 48/1", "ethernet 1/2/3", "management 1/0:1",
                      "pe-ethernet 0/1", "pe-ethernet 13/0/1", "pe-ethernet 0/16/1", "pe-ethernet 0/1/0",
                      "pe-ethernet 0/1/4096", "pe-ethernet 0/1/5:1", "ethernet 1/2048",
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

// ---- the Interface-ID's port part, both ways ---------------------------------------
// The relay writes "slot:port text" from the physical port of a request and
// the reply path builds the port back from that text with the port-numbering
// and card helpers; both are spelled out here as the relay does them.

std::string interfaceIdPort(uint32_t phys) {
    const int slot = int(ifmGetIfIndexToLogicalSlotId(phys));
    char text[32];
    if (ifmIfIndexToPeFlag(phys)) {
        std::snprintf(text, sizeof text, "%d:%d:%d", slot, (slot - 48) % 16, int(ifmIfIndexToPortId(phys)));
        return text;
    }
    const uint32_t usr = ifmIfIndexToUsrPortId(phys);
    const uint32_t main = qorUsrPortToMainPort(usr), sub = qorUsrPortToSubPort(usr);
    uint32_t module = 0, port = main;
    if (qorIsFourTupleSupported()) {
        if (qorGetPlugModIdAndPortFromMainPort(main, &module, &port) != 0) return "none";
        if (qorIsSubPortValid(sub)) std::snprintf(text, sizeof text, "%d:%d:%d:%d", slot, module, port, sub);
        else std::snprintf(text, sizeof text, "%d:%d:%d", slot, module, port);
    } else if (qorIsSubPortValid(sub)) {
        std::snprintf(text, sizeof text, "%d:%d:%d", slot, main, sub);
    } else {
        std::snprintf(text, sizeof text, "%d:%d", slot, main);
    }
    return text;
}

// The physical port an Interface-ID's "slot:..." names, or 0.
uint32_t portFromInterfaceId(const std::string& text) {
    std::vector<int32_t> f;  // the fields as strtol reads them; missing ones are 0
    for (size_t at = 0; at <= text.size(); at = text.find(':', at) + 1) {
        f.push_back(int32_t(std::strtol(text.c_str() + at, nullptr, 10)));
        if (text.find(':', at) == std::string::npos) break;
    }
    f.resize(5, 0);
    const int32_t slot = f[0];
    if (slot < 48) {
        size_t i = 1;
        const int32_t module = qorIsFourTupleSupported() ? f[i++] : 0;
        const int32_t port = f[i++], sub = f[i];
        const uint32_t card = halDrvCardIdGetFromSlot(uint32_t(slot));
        if (card == 0) return 0;
        const uint32_t usr = qorMainAndSubPortToUsrPort(uint32_t(module), uint32_t(port), uint32_t(sub));
        const uint32_t portId = qorSysCardTypeUsrPortIdToPortId(card, 2047, usr);
        const uint32_t ifType = qorSysCardTypeToIfmIfType(card, portId);
        return ifType == 0 ? 0 : ifmCreateIfIndex(ifType, uint32_t(slot), portId, card);
    }
    const int32_t peId = (slot - 48) >> 4, unit = f[1], pePort = f[2];
    const int32_t unitSlot = unit + (peId + 3) * 16;
    const uint32_t card = halDrvCardIdGetFromSlot(uint32_t(unitSlot)) | (uint32_t(unitSlot) << 19);
    const uint32_t ifType = qorSysCardTypeToIfmIfType(card, uint32_t(pePort));
    return ifmCreateIfIndex(ifType, uint32_t(unit), uint32_t(pePort), uint32_t(peId));
}

void installMap(const std::string& text) {
    QorHostMap map;
    std::string err;
    ASSERT_EQ(qorHostMapParse(text, map, err), 0) << err;
    qorHostMapInstall(std::move(map));
}

struct PortCase {
    const char* port;  // the host map's port
    bool fourTuple;
    uint32_t perModule;
    const char* text;  // its Interface-ID from the slot on
};

void PrintTo(const PortCase& c, std::ostream* os) { *os << c.port << (c.fourTuple ? " four-tuple" : ""); }

class InterfaceIdPort : public ::testing::TestWithParam<PortCase> {
protected:
    void TearDown() override { qorHostMapInstall(QorHostMap{}); }
};

TEST_P(InterfaceIdPort, LeadsTheReplyBackToThePortOfTheRequest) {
    const PortCase& c = GetParam();
    installMap(std::string("[system]\nfour-tuple = ") + (c.fourTuple ? "yes" : "no") +
               "\nports-per-module = " + std::to_string(c.perModule) + "\n[interface " + c.port + "]\n");
    uint32_t phys = 0;
    ASSERT_EQ(ifmNameToIfIndex(c.port, &phys), 0);
    EXPECT_EQ(interfaceIdPort(phys), c.text);
    EXPECT_EQ(portFromInterfaceId(c.text), phys) << c.text;
}

INSTANTIATE_TEST_SUITE_P(
    EveryKindOfPort, InterfaceIdPort,
    ::testing::Values(PortCase{"ethernet 0/1", false, 4, "0:1"}, PortCase{"ethernet 1/5", false, 4, "1:5"},
                      PortCase{"ethernet 1/2:1", false, 4, "1:2:1"},
                      // slot 47, sub-port 15 and the highest main port the relay reads
                      PortCase{"ethernet 47/2047:15", false, 4, "47:2047:15"},
                      PortCase{"ethernet 1/4", true, 4, "1:1:4"}, PortCase{"ethernet 1/5", true, 4, "1:2:1"},
                      PortCase{"ethernet 1/5:3", true, 4, "1:2:1:3"},
                      PortCase{"ethernet 2/17:15", true, 8, "2:3:1:15"},
                      PortCase{"ethernet 47/2047", true, 1, "47:2047:1"},
                      PortCase{"pe-ethernet 0/0/1", false, 4, "48:0:1"},
                      PortCase{"pe-ethernet 1/3/7", true, 4, "67:3:7"},
                      PortCase{"pe-ethernet 12/15/4095", false, 4, "255:15:4095"}));

// Texts no request of ours carries (a forged or stale Interface-ID) name no port.
TEST(InterfaceIdPortRefused, NamesNoPort) {
    installMap("[system]\nmaster-slot = 3\nports-per-module = 4\n[interface ethernet 1/2]\n"
               "[interface port-channel 1]\nmembers = pe-ethernet 0/0/1, pe-ethernet 1/0/1\n");
    EXPECT_EQ(qor_wrap_bcm_stk_get_master_slotid(), 3u);
    ASSERT_EQ(portFromInterfaceId("1:2"), ifmEthernetIfIndex(1, 2, 0));
    ASSERT_EQ(portFromInterfaceId("48:0:1"), ifmCreateIfIndex(IFM_IFTYPE_PE_ETHERNET, 0, 1, 0));
    for (const char* text : {"1:0", "1:2048", "1:2:16", "1:2:-1", "5:2", "-1:2", "1", "48:0:0", "48:0:4096",
                             "49:1:1", "48:16:1", "48:-1:1", "256:0:1"})
        EXPECT_EQ(portFromInterfaceId(text), 0u) << text;
    installMap("[system]\nfour-tuple = yes\nports-per-module = 4\n[interface ethernet 1/2]\n");
    for (const char* text : {"1:1:5", "1:1:0", "1:1024:4"}) EXPECT_EQ(portFromInterfaceId(text), 0u) << text;
    EXPECT_EQ(portFromInterfaceId("1:1:2"), ifmEthernetIfIndex(1, 2, 0));
    qorHostMapInstall(QorHostMap{});
    EXPECT_EQ(portFromInterfaceId("1:2"), 0u) << "no map: no card";
    EXPECT_EQ(qor_wrap_bcm_stk_get_master_slotid(), 1u);
}

}  // namespace
