// The IFM service as its clients see it: the registration answer, port
// notices, and the name lookups of the CLI with and without a host map; and
// the host map's reader.
#include <fstream>

#include "ChassisHostMap.h"
#include "chassis_test_util.h"
#include "qor/ifm.h"

namespace {

using namespace chassistest;

// ifIndexes as the IFM library documents them: type in the top byte; VLAN id
// in the low bits; for Ethernet slot in bits 23-16 and port in bits 15-4.
constexpr uint32_t kVlan10 = 0x1800000A;
constexpr uint32_t kVlan20 = 0x18000014;
constexpr uint32_t kEthernet1_2 = 0x06010020;

const char* const kHostMap =
    "# two VRFs and two interfaces\n"
    "[vrf red]\n"
    "id = 1\n"
    "table = 101\n"
    "\n"
    "[vrf blue]\n"
    "id = 2\n"
    "; an interface per section\n"
    "[interface vlan 10]\n"
    "linux = veth0\n"
    "[interface ethernet 1/2]\n"
    "linux = veth1\n";

class Ifm : public ChassisFixture {
protected:
    void SetUp() override { ASSERT_EQ(startChassis(), 0); }
};

// The registration as the relay manager builds it (every field of its own).
Bytes relayRegistration(uint16_t app, int instance) {
    Bytes m = message(QOR_IFM_REG_LEN, QOR_MT_IFM_REGISTER, queueOf(app, instance), queueOf(QOR_APP_IFM, instance));
    qor::putU32(m, QOR_IPC_OFF_STATUS, 0xFFFFFFFF);
    qor::putU32(m, QOR_IFM_REG_OFF_RESULT, 0xFFFFFFFF);
    qor::putU16(m, 1956, app);
    qor::putU16(m, 1958, 0);
    qor::putU32(m, 1964, qor_sysGetIpAddr());
    qor::putU32(m, 1968, queueOf(app, instance));
    qor::putU32(m, 1976, 51);
    qor::putU32(m, 2616, 0xFFFFFFFF);
    for (int type : {2, 3, 4, 47, 48, 53}) ifmSetPerSvcTypeMasks(m.data(), m.size(), type, 0);
    ifmSetPerSvcTypeMasks(m.data(), m.size(), 11, 0x3C0000);
    return m;
}

TEST_F(Ifm, RegistrationIsAcceptedAndAnsweredWithTheRequestItself) {
    const Bytes sent = relayRegistration(QOR_APP_AGENT, instance_);
    Bytes answer = sent;
    ASSERT_TRUE(request(QOR_APP_IFM, instance_, answer));
    ASSERT_EQ(answer.size(), QOR_IFM_REG_LEN);
    EXPECT_EQ(qor::u32At(answer, QOR_IFM_REG_OFF_RESULT), 0u);
    EXPECT_EQ(qor::u32At(answer, QOR_IPC_OFF_STATUS), 0u);
    EXPECT_EQ(qor::u32At(answer, QOR_IPC_OFF_LENGTH), QOR_IFM_REG_LEN);
    // Every other byte comes back as it was sent.
    Bytes expected = sent;
    qor::putU32(expected, QOR_IFM_REG_OFF_RESULT, 0);
    qor::putU32(expected, QOR_IPC_OFF_STATUS, 0);
    EXPECT_EQ(answer, expected);
}

// A request too short for the registration's fields gets status -1 rather
// than no answer.
class IfmShortRequest : public Ifm, public ::testing::WithParamInterface<uint32_t> {};

TEST_P(IfmShortRequest, IsRefusedNotLeftWaiting) {
    const uint32_t type = GetParam();
    Bytes m = message(QOR_IPC_OFF_STATUS + 4, type, 0, queueOf(QOR_APP_IFM, instance_));
    ASSERT_TRUE(request(QOR_APP_IFM, instance_, m));
    EXPECT_EQ(qor::u32At(m, QOR_IPC_OFF_STATUS), uint32_t(-1));
}

INSTANTIATE_TEST_SUITE_P(Types, IfmShortRequest,
                         ::testing::Values(QOR_MT_IFM_REGISTER, QOR_MT_IFM_PORT_NOTICE, QOR_MT_IFM_LOOKUP));

TEST_F(Ifm, PortNoticeIsAcceptedAndKept) {
    Bytes m = message(QOR_CHASSIS_OFF_BODY + QOR_PORT_NOTICE_LEN, QOR_MT_IFM_PORT_NOTICE, 0,
                      queueOf(QOR_APP_IFM, instance_));
    qor::putU32(m, QOR_IPC_OFF_STATUS, 0xFFFFFFFF);
    qor::putU32(m, QOR_CHASSIS_OFF_BODY + 64, kVlan10);
    qor::putU8(m, QOR_CHASSIS_OFF_BODY + 68, 0);
    qor::putU32(m, QOR_CHASSIS_OFF_BODY + 76, 0x2000);
    const Bytes notice(m.begin() + QOR_CHASSIS_OFF_BODY, m.end());
    ASSERT_TRUE(request(QOR_APP_IFM, instance_, m));
    EXPECT_EQ(qor::u32At(m, QOR_IPC_OFF_STATUS), 0u);
    EXPECT_EQ(qorChassisIfmPortNotices(instance_), std::vector<Bytes>{notice});
}

// ---- name lookups -------------------------------------------------------------

constexpr uint32_t kKindInterface = 0;
constexpr uint32_t kKindVrf = 1;

struct Lookup {
    const char* name;       // the test's name
    uint32_t kind;
    std::string text;       // the name asked for
    bool found;
    uint32_t value;
};

// Status and result of a lookup, or nothing when no answer came.
std::optional<std::pair<int32_t, uint32_t>> lookup(int instance, uint32_t kind, const std::string& text) {
    Bytes m = message(QOR_IFM_LOOKUP_OFF_RESULT + 4, QOR_MT_IFM_LOOKUP, 0, queueOf(QOR_APP_IFM, instance));
    qor::putU32(m, QOR_IFM_LOOKUP_OFF_KIND, kind);
    qor::putBytes(m, QOR_IFM_LOOKUP_OFF_NAME, text.data(), std::min(text.size(), QOR_IFM_LOOKUP_NAME_LEN));
    if (!request(QOR_APP_IFM, instance, m)) return std::nullopt;
    return std::make_pair(int32_t(qor::u32At(m, QOR_IPC_OFF_STATUS)),
                          qor::u32At(m, QOR_IFM_LOOKUP_OFF_RESULT));
}

void expectLookup(int instance, const Lookup& p) {
    const auto got = lookup(instance, p.kind, p.text);
    ASSERT_TRUE(got.has_value());
    EXPECT_EQ(got->first, p.found ? 0 : -1);
    if (p.found) {
        EXPECT_EQ(got->second, p.value);
    }
}

std::string lookupName(const ::testing::TestParamInfo<Lookup>& info) { return info.param.name; }

void PrintTo(const Lookup& p, std::ostream* os) { *os << "kind " << p.kind << " \"" << p.text << "\""; }

const std::string kUnterminated(QOR_IFM_LOOKUP_NAME_LEN, 'v');

class IfmLookupNoMap : public Ifm, public ::testing::WithParamInterface<Lookup> {};

TEST_P(IfmLookupNoMap, AnswersEveryWellFormedInterfaceAndOnlyTheDefaultVrf) {
    expectLookup(instance_, GetParam());
}

INSTANTIATE_TEST_SUITE_P(
    Names, IfmLookupNoMap,
    ::testing::Values(Lookup{"Vlan", kKindInterface, "vlan 10", true, kVlan10},
                      Lookup{"VlanNotMapped", kKindInterface, "vlan 20", true, kVlan20},
                      Lookup{"Ethernet", kKindInterface, "ethernet 1/2", true, kEthernet1_2},
                      Lookup{"Garbage", kKindInterface, "bogus 3", false, 0},
                      Lookup{"Empty", kKindInterface, "", false, 0},
                      Lookup{"VlanOutOfRange", kKindInterface, "vlan 4095", false, 0},
                      Lookup{"Unterminated", kKindInterface, kUnterminated, false, 0},
                      Lookup{"DefaultVrf", kKindVrf, "default", true, 0},
                      Lookup{"UnknownVrf", kKindVrf, "red", false, 0},
                      Lookup{"UnknownKind", 7, "vlan 10", false, 0}),
    lookupName);

class IfmLookupHostMap : public ChassisFixture, public ::testing::WithParamInterface<Lookup> {
protected:
    void SetUp() override {
        const std::string path = runDir() + "/hosts.ini";
        std::ofstream(path) << kHostMap;
        ChassisOptions options;
        options.hostMapPath = path;
        ASSERT_EQ(startChassis(options), 0);
    }
};

TEST_P(IfmLookupHostMap, AnswersOnlyWhatTheMapHolds) { expectLookup(instance_, GetParam()); }

INSTANTIATE_TEST_SUITE_P(
    Names, IfmLookupHostMap,
    ::testing::Values(Lookup{"MappedVlan", kKindInterface, "vlan 10", true, kVlan10},
                      Lookup{"MappedVlanAsTyped", kKindInterface, "Vlan10", true, kVlan10},
                      Lookup{"MappedEthernet", kKindInterface, "ethernet 1/2", true, kEthernet1_2},
                      Lookup{"UnmappedVlan", kKindInterface, "vlan 20", false, 0},
                      Lookup{"UnmappedPort", kKindInterface, "ethernet 1/3", false, 0},
                      Lookup{"Red", kKindVrf, "red", true, 1},
                      Lookup{"Blue", kKindVrf, "blue", true, 2},
                      Lookup{"DefaultAlways", kKindVrf, "default", true, 0},
                      Lookup{"UnknownVrf", kKindVrf, "green", false, 0},
                      Lookup{"VrfNameIsCaseSensitive", kKindVrf, "RED", false, 0},
                      Lookup{"UnterminatedVrf", kKindVrf, kUnterminated, false, 0}),
    lookupName);

// ---- the host map's reader ------------------------------------------------------

TEST(ChassisHostMap, ReadsVrfsAndInterfaces) {
    ChassisHostMap map;
    std::string err;
    ASSERT_EQ(chassisHostMapParse(std::string(kHostMap) + "[vrf green]\nid = 7\n[agent 3]\nslot = 3\n", map, err), 0)
        << err;
    ASSERT_EQ(map.vrfs.size(), 3u);
    EXPECT_EQ(map.vrfs.at("red").id, 1u);
    EXPECT_EQ(map.vrfs.at("red").table, 101u);
    // Without a table the VRF's packets use the table of its id.
    EXPECT_EQ(map.vrfs.at("green").table, 7u);
    EXPECT_EQ(map.vrfId("default"), 0u);
    EXPECT_FALSE(map.vrfId("purple").has_value());
    ASSERT_TRUE(map.hasInterface(kVlan10));
    EXPECT_EQ(map.interfaces.at(kVlan10).values.at("linux"), "veth0");
    EXPECT_EQ(map.interfaces.at(kEthernet1_2).values.at("linux"), "veth1");
    EXPECT_FALSE(map.hasInterface(kVlan20));
}

struct BadMap {
    const char* name;
    const char* text;
    const char* error;  // what the reason must say
};

void PrintTo(const BadMap& p, std::ostream* os) { *os << p.name; }

class ChassisHostMapBad : public ::testing::TestWithParam<BadMap> {};

TEST_P(ChassisHostMapBad, IsRefusedWithTheLine) {
    ChassisHostMap map;
    map.vrfs["kept"] = ChassisHostVrf{9, 9};
    std::string err;
    EXPECT_EQ(chassisHostMapParse(GetParam().text, map, err), -1);
    EXPECT_NE(err.find(GetParam().error), std::string::npos) << err;
    // A refused map leaves the caller's map as it was.
    EXPECT_EQ(map.vrfs.size(), 1u);
}

INSTANTIATE_TEST_SUITE_P(
    Maps, ChassisHostMapBad,
    ::testing::Values(
        BadMap{"UnclosedSection", "[vrf red\nid = 1\n", "line 1: section header without ']'"},
        BadMap{"KeyOutsideSection", "id = 1\n", "line 1: key outside a section"},
        BadMap{"NoEquals", "[vrf red]\nid 1\n", "line 2: expected key = value"},
        BadMap{"VrfWithoutId", "[interface vlan 10]\n\n[vrf red]\ntable = 5\n", "line 3: VRF 'red' has no id"},
        BadMap{"VrfIdNotANumber", "[vrf red]\nid = one\n", "line 1: VRF 'red': bad id 'one'"},
        BadMap{"VrfIdZero", "[vrf red]\nid = 0\n", "bad id '0'"},
        BadMap{"VrfIdTooLarge", "[vrf red]\nid = 65536\n", "bad id '65536'"},
        BadMap{"DefaultVrfNotZero", "[vrf default]\nid = 3\n", "bad id '3'"},
        BadMap{"VrfIdTwice", "[vrf red]\nid = 1\n[vrf blue]\nid = 1\n", "line 3: VRF id 1 given twice"},
        BadMap{"VrfNameTwice", "[vrf red]\nid = 1\n[vrf red]\nid = 2\n", "line 3: VRF 'red' given twice"},
        BadMap{"VrfWithTwoNames", "[vrf red blue]\nid = 1\n", "line 1: a VRF section needs one name"},
        BadMap{"UnknownInterface", "[interface tunnel 1]\n", "line 1: unknown interface name 'tunnel 1'"},
        BadMap{"InterfaceTwice", "[interface vlan 10]\n[interface Vlan10]\n", "line 2: interface 'Vlan10' given twice"},
        BadMap{"KeyTwice", "[interface vlan 10]\nlinux = a\nlinux = b\n", "line 3: key 'linux' given twice"}),
    [](const ::testing::TestParamInfo<BadMap>& param) { return std::string(param.param.name); });

class ChassisStartHostMap : public ChassisFixture {};

TEST_F(ChassisStartHostMap, StartFailsWhenTheHostMapCannotBeUsed) {
    const std::string bad = runDir() + "/bad.ini";
    std::ofstream(bad) << "[vrf red]\n";
    for (const std::string& path : {bad, runDir() + "/missing.ini"}) {
        ChassisOptions options;
        options.hostMapPath = path;
        ::testing::internal::CaptureStderr();
        EXPECT_EQ(startChassis(options), -1) << path;
        EXPECT_NE(::testing::internal::GetCapturedStderr().find(path), std::string::npos);
    }
}

TEST_F(ChassisStartHostMap, AnInstanceStartsOnlyOnce) {
    ASSERT_EQ(startChassis(), 0);
    ChassisOptions again;
    again.instance = instance_;
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(qorChassisStart(again), -1);
    ::testing::internal::GetCapturedStderr();
    // The running instance still answers.
    const auto got = lookup(instance_, kKindVrf, "default");
    ASSERT_TRUE(got.has_value());
    EXPECT_EQ(got->first, 0);
}

}  // namespace
