// The host map: the shipped sample and a full map read into the fields the
// packet layer uses, every mistake refused with its line, and the installed
// map replaced at run time without changing under a reader.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "qor/hostmap.h"
#include "qor/ifm.h"
#include "qor/l2sock.h"

namespace {

uint32_t ifIndexOf(const char* name) {
    uint32_t ifIndex = 0;
    EXPECT_EQ(ifmNameToIfIndex(name, &ifIndex), 0) << name;
    return ifIndex;
}

// Comments, blank lines, indentation, CRLF endings and an inline comment.
const char* const kMap =
    "# a switch on one host\r\n"
    "[system]\r\n"
    "chassis-mac = 02:00:5E:10:00:01\n"
    "master-slot = 2\n"
    "four-tuple = yes\n"
    "ports-per-module = 8\n"
    "\n"
    "[interface ethernet 1/1]\n"
    "  linux = veth-c1\n"
    "  untagged = 10   ; the access VLAN\n"
    "[interface ethernet 1/2]\n"
    "linux = veth-c2\n"
    "tagged = 20,30-32,  31\n"
    "[interface port-channel 3]\n"
    "members = ethernet 1/4, pe-ethernet 0/1/5,ethernet 1/3\n"
    "vrf = red\n"
    "[interface vlan 10]\n"
    "linux = br10\n"
    "[interface ethernet 2/7:1]\n"
    "linux = veth-r\n"
    "vrf = default\n"
    "[interface management 1/0]\n"
    "linux = eth0\n"
    "[vrf red]\n"
    "id = 5\n"
    "[vrf blue]\n"
    "id = 65535\n"
    "table = 201\n";

TEST(HostMap, ReadsEveryFieldThePacketLayerUses) {
    QorHostMap map;
    std::string err;
    ASSERT_EQ(qorHostMapParse(kMap, map, err), 0) << err;
    EXPECT_EQ(map.system.chassisMac, (std::array<uint8_t, 6>{0x02, 0x00, 0x5e, 0x10, 0x00, 0x01}));
    EXPECT_EQ(map.system.masterSlot, 2u);
    EXPECT_TRUE(map.system.fourTuple);
    EXPECT_EQ(map.system.portsPerModule, 8u);

    const QorHostIf* e11 = map.find(ifIndexOf("ethernet 1/1"));
    const QorHostIf* e12 = map.find(ifIndexOf("ethernet 1/2"));
    const QorHostIf* lag = map.find(ifIndexOf("port-channel 3"));
    ASSERT_TRUE(e11 && e12 && lag);
    EXPECT_EQ(e11->name, "ethernet 1/1");
    EXPECT_EQ(e11->linuxName, "veth-c1");
    EXPECT_EQ(e11->untaggedVlan, 10u);
    EXPECT_EQ(e12->taggedVlans, (std::vector<uint32_t>{20, 30, 31, 32}));
    EXPECT_EQ(lag->members, (std::vector<uint32_t>{ifIndexOf("ethernet 1/4"), ifIndexOf("pe-ethernet 0/1/5"),
                                                   ifIndexOf("ethernet 1/3")}));
    EXPECT_EQ(map.lagOf(ifIndexOf("pe-ethernet 0/1/5")), lag->ifIndex);
    EXPECT_EQ(map.lagOf(ifIndexOf("ethernet 1/1")), 0u);

    // Ports are found by their Linux interface; a VLAN's bridge is no port.
    EXPECT_EQ(map.portByLinuxName("veth-c2"), e12);
    EXPECT_EQ(map.portByLinuxName("eth0"), map.find(ifIndexOf("management 1/0")));
    EXPECT_EQ(map.portByLinuxName("br10"), nullptr);

    // VRFs: a table defaults to the id; "default" is 0 whatever is written.
    EXPECT_EQ(map.vrfIdOf(lag->ifIndex), 5u);
    EXPECT_EQ(map.vrfIdOf(ifIndexOf("ethernet 2/7:1")), 0u);
    EXPECT_EQ(map.vrfIdOf(ifIndexOf("vlan 99")), 0u);
    EXPECT_EQ(map.tableOfVrf(5), 5u);
    EXPECT_EQ(map.tableOfVrf(65535), 201u);
    EXPECT_EQ(map.tableOfVrf(0), 0u);
    EXPECT_EQ(map.tableOfVrf(7), 0u);
    EXPECT_EQ(map.vrfId("default"), 0u);
    EXPECT_EQ(map.vrfId("green"), std::nullopt);
}

TEST(HostMap, TheShippedSampleIsAValidMap) {
    const std::string path = std::string(__FILE__).substr(0, std::string(__FILE__).rfind("/tests/")) +
                             "/examples/hostmap.ini";
    QorHostMap map;
    std::string err;
    ASSERT_EQ(qorHostMapLoad(path, map, err), 0) << err;
    EXPECT_TRUE(map.system.chassisMac.has_value());
    EXPECT_EQ(map.vrfs.count("red"), 1u);
    EXPECT_NE(map.find(ifIndexOf("vlan 20")), nullptr);
    const QorHostIf* tagged = map.find(ifIndexOf("ethernet 1/2"));
    ASSERT_NE(tagged, nullptr);
    EXPECT_EQ(tagged->taggedVlans, (std::vector<uint32_t>{10, 20}));

    EXPECT_EQ(qorHostMapLoad(path + ".missing", map, err), -1);
    EXPECT_NE(err.find(path + ".missing"), std::string::npos) << err;
}

struct Bad {
    std::string text;
    const char* reason;  // what the message must hold, its line first
};

class HostMapBad : public ::testing::TestWithParam<Bad> {};

TEST_P(HostMapBad, IsRefusedWithItsLineAndLeavesTheCallersMap) {
    QorHostMap map;
    map.vrfs["kept"] = QorHostVrf{9, 9};
    std::string err;
    EXPECT_EQ(qorHostMapParse(GetParam().text, map, err), -1);
    EXPECT_EQ(err.rfind(GetParam().reason, 0), 0u) << err;
    EXPECT_EQ(map.vrfs.size(), 1u);
}

INSTANTIATE_TEST_SUITE_P(
    Maps, HostMapBad,
    ::testing::Values(
        Bad{"[vrf red\nid = 1\n", "line 1: section header without ']'"},
        Bad{"id = 1\n", "line 1: key outside a section"},
        Bad{"# c\r\n\r\n[vrf red]\r\nid 1\r\n", "line 4: expected key = value"},
        Bad{"[vlan 10]\n", "line 1: unknown section [vlan 10]"},
        Bad{"[system]\n[vrf red]\nid = 1\n[system]\n", "line 4: section [system] given twice"},
        Bad{"[system] x\n", "line 1: text after the section header"},
        Bad{"[system]\nfour-tuple = maybe\n", "line 2: bad four-tuple 'maybe'"},
        Bad{"[system]\nchassis-mac = 02:00:5e:10:00\n", "line 2: bad chassis-mac"},
        Bad{"[system]\nmaster-slot = 48\n", "line 2: bad master-slot '48'"},
        Bad{"[system]\nports-per-module = 0\n", "line 2: bad ports-per-module '0'"},
        Bad{"[system]\nslot = 1\n", "line 2: unknown key 'slot' in [system]"},
        Bad{"[interface vlan 10]\n\n[vrf red]\ntable = 5\n", "line 3: VRF 'red' has no id"},
        Bad{"[vrf red]\nid = one\n", "line 2: VRF 'red': bad id 'one'"},
        Bad{"[vrf red]\nid = 0\n", "line 2: VRF 'red': bad id '0'"},
        Bad{"[vrf red]\nid = 65536\n", "line 2: VRF 'red': bad id '65536'"},
        Bad{"[vrf red]\nid = 1\n[vrf blue]\nid = 1\n", "line 3: VRF id 1 given twice"},
        Bad{"[vrf red]\nid = 1\n[vrf red]\nid = 2\n", "line 3: VRF 'red' given twice"},
        Bad{"[vrf red blue]\nid = 1\n", "line 1: a VRF section needs one name"},
        Bad{"[vrf default]\n", "line 1: the VRF 'default' is id 0"},
        Bad{"[interface tunnel 1]\n", "line 1: unknown interface name 'tunnel 1'"},
        Bad{"[interface ethernet 48/1]\n", "line 1: unknown interface name 'ethernet 48/1'"},
        Bad{"[interface vlan 10]\n[interface Vlan10]\n", "line 2: interface 'Vlan10' given twice"},
        Bad{"[interface vlan 10]\nlinux = a\n  linux = b\n", "line 3: key 'linux' given twice"},
        Bad{"[interface vlan 10]\nuntagged = 10\n", "line 2: unknown key 'untagged' in [interface vlan 10]"},
        Bad{"[interface management 1/0]\nvrf = red\n", "line 2: unknown key 'vrf'"},
        Bad{"[interface ethernet 1/1]\nlinux =\n", "line 2: key 'linux' has no value"},
        Bad{"[interface ethernet 1/1]\nlinux = veth-with-a-long-name\n", "line 2: bad linux"},
        Bad{"[interface ethernet 1/1]\nuntagged = 4095\n", "line 2: bad untagged '4095'"},
        Bad{"[interface ethernet 1/1]\ntagged = 30-20\n", "line 2: bad tagged '30-20'"},
        Bad{"[interface ethernet 1/1]\ntagged = 10,\n", "line 2: bad tagged '10,'"},
        Bad{"[interface ethernet 1/1]\ntagged = 1-4095\n", "line 2: bad tagged '1-4095'"},
        Bad{"[interface ethernet 1/1]\nuntagged = 10\ntagged = 5-15\n", "line 1: 'ethernet 1/1' carries VLAN 10"},
        Bad{"[vrf red]\nid = 1\n[interface ethernet 1/1]\nvrf = red\nuntagged = 10\n", "line 4: vrf is for a routed port"},
        Bad{"[interface vlan 10]\n\nvrf = blue\n[vrf red]\nid = 1\n", "line 3: no [vrf blue] for 'vlan 10'"},
        Bad{"[interface port-channel 1]\nmembers = vlan 10\n", "line 2: member 'vlan 10' is not a port"},
        Bad{"[interface port-channel 1]\nmembers = ethernet 1/1,,\n", "line 2: member '' is not a port"},
        Bad{"[interface port-channel 1]\nmembers = ethernet 1/1, Ethernet 1/1\n", "line 2: member 'Ethernet 1/1' given twice"},
        Bad{"[interface port-channel 1]\nmembers = ethernet 1/1\n[interface port-channel 2]\nmembers = ethernet 1/1\n",
            "line 4: 'ethernet 1/1' is already a member of 'port-channel 1'"},
        Bad{std::string("[interface vlan 1]\nlinux = a\0b\n", 31), "line 2: a NUL byte"},
        Bad{"[interface vlan 1]\n\n; the next line is too long\nlinux = "
            "xxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxx"
            "xxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxx\n",
            "line 4: longer than"}));

// A map replaced at run time never changes under a reader holding the old one.
TEST(HostMap, InstalledMapIsASnapshotAndPortChannelsChangeAtRunTime) {
    QorHostMap map;
    std::string err;
    ASSERT_EQ(qorHostMapParse(std::string(kMap) + "[interface port-channel 4]\n", map, err), 0) << err;
    qorHostMapInstall(map);
    const uint32_t lag3 = ifIndexOf("port-channel 3"), lag4 = ifIndexOf("port-channel 4"),
                   e11 = ifIndexOf("ethernet 1/1"), e13 = ifIndexOf("ethernet 1/3");
    const auto before = qorHostMapGet();
    EXPECT_EQ(getVrfIdForIfIndex(lag3), 5);
    EXPECT_EQ(getVrfIdForIfIndex(0), -1);

    // ethernet 1/3 moves from port-channel 3 to 4.
    ASSERT_EQ(qorHostMapSetLagMembers(lag4, {e11, e13, e11}), 0);
    const auto after = qorHostMapGet();
    EXPECT_EQ(after->find(lag4)->members, (std::vector<uint32_t>{e11, e13}));
    EXPECT_EQ(after->lagOf(e13), lag4);
    EXPECT_EQ(after->find(lag3)->members.size(), 2u);
    EXPECT_EQ(before->lagOf(e13), lag3);
    EXPECT_EQ(before->find(lag4)->members.size(), 0u);

    EXPECT_EQ(qorHostMapSetLagMembers(ifIndexOf("port-channel 9"), {e11}), -1);
    EXPECT_EQ(qorHostMapSetLagMembers(e11, {e13}), -1);
    EXPECT_EQ(qorHostMapSetLagMembers(lag4, {ifIndexOf("vlan 10")}), -1);
    EXPECT_EQ(qorHostMapGet(), after);
    qorHostMapInstall(QorHostMap{});
    EXPECT_EQ(getVrfIdForIfIndex(lag3), 0);
}

}  // namespace
