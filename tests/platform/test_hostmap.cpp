// The host map: a full map and the shipped sample read into the fields the
// packet layer uses, and every mistake refused with its line.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "qor/hostmap.h"
#include "qor/ifm.h"

namespace {

uint32_t ifIndexOf(const char* name) {
    uint32_t ifIndex = 0;
    EXPECT_EQ(ifmNameToIfIndex(name, &ifIndex), 0) << name;
    return ifIndex;
}

// Comments, blank lines, indentation, CRLF endings and an inline comment.
const char* const kMap =
    "# a switch on one host\r\n[system]\r\nchassis-mac = 02:00:5E:10:00:01\nmaster-slot = 2\nfour-tuple = yes\n"
    "ports-per-module = 8\n\n[interface ethernet 1/1]\n  linux = veth-c1\n  untagged = 10   ; the access VLAN\n"
    "[interface ethernet 1/2]\nlinux = veth-c2\ntagged = 20,30-32,  31\n[interface port-channel 3]\n"
    "members = ethernet 1/4, pe-ethernet 0/1/5,ethernet 1/3\nvrf = red\n[interface vlan 10]\nlinux = br10\n"
    "[interface ethernet 2/7:1]\nlinux = veth-r\nvrf = default\n[interface management 1/0]\nlinux = eth0\n"
    "[vrf red]\nid = 5\n[vrf blue]\nid = 65535\ntable = 201\n";

// A field read wrong sends frames out of the wrong port, VLAN or routing table.
TEST(HostMap, ReadsEveryFieldThePacketLayerUses) {
    QorHostMap map;
    std::string err;
    ASSERT_EQ(qorHostMapParse(kMap, map, err), 0) << err;
    EXPECT_EQ(map.system.chassisMac, (std::array<uint8_t, 6>{0x02, 0x00, 0x5e, 0x10, 0x00, 0x01}));
    EXPECT_EQ((std::vector{map.system.masterSlot, uint32_t(map.system.fourTuple), map.system.portsPerModule}),
              (std::vector<uint32_t>{2, 1, 8}));
    const QorHostIf *e11 = map.find(ifIndexOf("ethernet 1/1")), *e12 = map.find(ifIndexOf("ethernet 1/2")),
                    *lag = map.find(ifIndexOf("port-channel 3"));
    ASSERT_TRUE(e11 && e12 && lag);
    EXPECT_EQ(e11->linuxName + " " + std::to_string(e11->untaggedVlan), "veth-c1 10");
    EXPECT_EQ(e12->taggedVlans, (std::vector<uint32_t>{20, 30, 31, 32}));
    EXPECT_EQ(lag->members, (std::vector{ifIndexOf("ethernet 1/4"), ifIndexOf("pe-ethernet 0/1/5"),
                                         ifIndexOf("ethernet 1/3")}));
    EXPECT_EQ((std::vector{map.lagOf(ifIndexOf("pe-ethernet 0/1/5")), map.lagOf(e11->ifIndex)}),
              (std::vector{lag->ifIndex, 0u}));
    // Ports are found by their Linux interface; a VLAN's bridge is no port.
    EXPECT_EQ((std::vector{map.portByLinuxName("veth-c2"), map.portByLinuxName("eth0"), map.portByLinuxName("br10")}),
              (std::vector<const QorHostIf*>{e12, map.find(ifIndexOf("management 1/0")), nullptr}));
    // VRFs: a table defaults to the id; "default" is 0 whatever is written.
    EXPECT_EQ((std::vector{map.vrfIdOf(lag->ifIndex), map.vrfIdOf(ifIndexOf("ethernet 2/7:1")), map.tableOfVrf(5),
                           map.tableOfVrf(65535), map.tableOfVrf(0), map.tableOfVrf(7)}),
              (std::vector<uint32_t>{5, 0, 5, 201, 0, 0}));
    EXPECT_EQ(map.vrfId("green"), std::nullopt);

    const std::string sample = std::string(__FILE__).substr(0, std::string(__FILE__).rfind("/tests/")) +
                               "/examples/hostmap.ini";
    ASSERT_EQ(qorHostMapLoad(sample, map, err), 0) << "the shipped sample: " << err;
    EXPECT_EQ(map.find(ifIndexOf("ethernet 1/2"))->taggedVlans, (std::vector<uint32_t>{10, 20}));
    EXPECT_EQ(qorHostMapLoad(sample + ".missing", map, err), -1);
    EXPECT_NE(err.find(sample + ".missing"), std::string::npos) << err;
}

// The operator reads the message to fix the file: the line and the mistake.
TEST(HostMap, MistakesAreRefusedWithTheirLineAndLeaveTheCallersMap) {
    const std::string sys = "[system]\n", red = "[vrf red]\n", v10 = "[interface vlan 10]\n",
                      e11 = "[interface ethernet 1/1]\n", po1 = "[interface port-channel 1]\nmembers = ";
    const std::pair<std::string, const char*> bad[] = {
        {"[vrf red\nid = 1\n", "line 1: section header without ']'"}, {"id = 1\n", "line 1: key outside a section"},
        {"# c\r\n\r\n[vrf red]\r\nid 1\r\n", "line 4: expected key = value"},
        {"[vlan 10]\n", "line 1: unknown section [vlan 10]"},
        {sys + red + "id = 1\n" + sys, "line 4: section [system] given twice"},
        {sys + "four-tuple = maybe\n", "line 2: bad four-tuple 'maybe'"},
        {sys + "chassis-mac = 02:00:5e:10:00\n", "line 2: bad chassis-mac"},
        {sys + "master-slot = 48\n", "line 2: bad master-slot '48'"},
        {sys + "ports-per-module = 0\n", "line 2: bad ports-per-module '0'"},
        {v10 + "\n" + red + "table = 5\n", "line 3: VRF 'red' has no id"},
        {red + "id = 0\n", "line 2: VRF 'red': bad id '0'"},
        {red + "id = 65536\n", "line 2: VRF 'red': bad id '65536'"},
        {red + "id = 1\n[vrf blue]\nid = 1\n", "line 3: VRF id 1 given twice"},
        {"[vrf red blue]\nid = 1\n", "line 1: a VRF section needs one name"},
        {"[vrf default]\n", "line 1: the VRF 'default' is id 0"},
        {"[interface ethernet 48/1]\n", "line 1: unknown interface name 'ethernet 48/1'"},
        {v10 + "[interface Vlan10]\n", "line 2: interface 'Vlan10' given twice"},
        {v10 + "linux = a\n  linux = b\n", "line 3: key 'linux' given twice"},
        {v10 + "untagged = 10\n", "line 2: unknown key 'untagged' in [interface vlan 10]"},
        {e11 + "linux =\n", "line 2: key 'linux' has no value"},
        {e11 + "linux = veth-with-a-long-name\n", "line 2: bad linux"},
        {e11 + "untagged = 4095\n", "line 2: bad untagged '4095'"},
        {e11 + "tagged = 30-20\n", "line 2: bad tagged '30-20'"},
        {e11 + "tagged = 1-4095\n", "line 2: bad tagged '1-4095'"},
        {e11 + "untagged = 10\ntagged = 5-15\n", "line 1: 'ethernet 1/1' carries VLAN 10"},
        {red + "id = 1\n" + e11 + "vrf = red\nuntagged = 10\n", "line 4: vrf is for a routed port"},
        {v10 + "\nvrf = blue\n" + red + "id = 1\n", "line 3: no [vrf blue] for 'vlan 10'"},
        {po1 + "vlan 10\n", "line 2: member 'vlan 10' is not a port"},
        {po1 + "ethernet 1/1, Ethernet 1/1\n", "line 2: member 'Ethernet 1/1' given twice"},
        {po1 + "ethernet 1/1\n[interface port-channel 2]\nmembers = ethernet 1/1\n",
         "line 4: 'ethernet 1/1' is already a member of 'port-channel 1'"},
        {std::string("[interface vlan 1]\nlinux = a\0b\n", 31), "line 2: a NUL byte"},
        {v10 + "\n; the next line is too long\nlinux = " + std::string(200, 'x') + "\n", "line 4: longer than"}};
    for (const auto& [text, reason] : bad) {
        QorHostMap map;
        map.vrfs["kept"] = QorHostVrf{9, 9};
        std::string err;
        EXPECT_EQ(qorHostMapParse(text, map, err), -1) << reason;
        EXPECT_EQ(err.rfind(reason, 0), 0u) << err;
        EXPECT_EQ(map.vrfs.size(), 1u) << reason;
    }
}

}  // namespace
