// The IFM service as its clients see it: the registration answer, port
// notices, the name lookups of the CLI with and without a host map, and the
// host map the services install for the packet layer of their process.
#include <fstream>

#include "chassis_test_util.h"
#include "qor/hostmap.h"
#include "qor/ifm.h"
#include "qor/l2sock.h"
#include "qor/tlv.h"

namespace {

using namespace chassistest;

// ifIndexes as the IFM library documents them: type in the top byte; VLAN id
// in the low bits; for Ethernet slot in bits 23-16 and port in bits 15-4.
constexpr uint32_t kVlan10 = 0x1800000A;
constexpr uint32_t kVlan20 = 0x18000014;
constexpr uint32_t kEthernet1_2 = 0x06010020;
constexpr uint32_t kIf = 0, kVrf = 1;  // lookup kinds

const char* const kHostMap =
    "# two VRFs and two interfaces\n[vrf red]\nid = 1\ntable = 101\n\n[vrf blue]\nid = 2\n"
    "; an interface per section\n[interface vlan 10]\nlinux = veth0\n[interface ethernet 1/2]\nlinux = veth1\n";

class Ifm : public ChassisFixture {
protected:
    void SetUp() override { ASSERT_EQ(startChassis(), 0); }
};

TEST_F(Ifm, RegistrationIsAcceptedAndAnsweredWithTheRequestItself) {
    // The registration as the relay manager builds it.
    Bytes sent = ifmRegistration(QOR_APP_AGENT, instance_, queueOf(QOR_APP_AGENT, instance_));
    qor::putU32(sent, QOR_IPC_OFF_STATUS, 0xFFFFFFFF);
    qor::putU32(sent, QOR_IFM_REG_OFF_RESULT, 0xFFFFFFFF);
    qor::putU32(sent, 1964, qor_sysGetIpAddr());
    qor::putU32(sent, 1976, 51);
    qor::putU32(sent, 2616, 0xFFFFFFFF);
    ifmSetPerSvcTypeMasks(sent.data(), sent.size(), 11, 0x3C0000);
    Bytes answer = sent;
    ASSERT_TRUE(request(QOR_APP_IFM, instance_, answer));
    // Result and status become 0; every other byte comes back as it was sent.
    qor::putU32(sent, QOR_IFM_REG_OFF_RESULT, 0);
    qor::putU32(sent, QOR_IPC_OFF_STATUS, 0);
    EXPECT_EQ(answer, sent);
}

// A request too short for its fields gets status -1 rather than no answer.
class IfmShortRequest : public Ifm, public ::testing::WithParamInterface<uint32_t> {};

TEST_P(IfmShortRequest, IsRefusedNotLeftWaiting) {
    Bytes m = message(QOR_IPC_OFF_STATUS + 4, GetParam(), 0, queueOf(QOR_APP_IFM, instance_));
    ASSERT_TRUE(request(QOR_APP_IFM, instance_, m));
    EXPECT_EQ(qor::u32At(m, QOR_IPC_OFF_STATUS), uint32_t(-1));
}

INSTANTIATE_TEST_SUITE_P(Types, IfmShortRequest,
                         ::testing::Values(QOR_MT_IFM_REGISTER, QOR_MT_IFM_PORT_NOTICE, QOR_MT_IFM_LOOKUP,
                                           QOR_MT_IFM_PORT_CONFIG));

TEST_F(Ifm, PortNoticeIsAcceptedAndKept) {
    Bytes m = message(QOR_CHASSIS_OFF_BODY + QOR_PORT_NOTICE_LEN, QOR_MT_IFM_PORT_NOTICE, 0,
                      queueOf(QOR_APP_IFM, instance_));
    qor::putU32(m, QOR_IPC_OFF_STATUS, 0xFFFFFFFF);
    qor::putU32(m, QOR_CHASSIS_OFF_BODY + 64, kVlan10);
    qor::putU32(m, QOR_CHASSIS_OFF_BODY + 76, 0x2000);
    const Bytes notice(m.begin() + QOR_CHASSIS_OFF_BODY, m.end());
    ASSERT_TRUE(request(QOR_APP_IFM, instance_, m));
    EXPECT_EQ(qor::u32At(m, QOR_IPC_OFF_STATUS), 0u);
    EXPECT_EQ(qorChassisIfmPortNotices(instance_), std::vector<Bytes>{notice});
}

// Status and result of a lookup, or nothing when no answer came.
std::optional<std::pair<int32_t, uint32_t>> lookup(int instance, uint32_t kind, const std::string& text) {
    Bytes m = message(QOR_IFM_LOOKUP_OFF_RESULT + 4, QOR_MT_IFM_LOOKUP, 0, queueOf(QOR_APP_IFM, instance));
    qor::putU32(m, QOR_IFM_LOOKUP_OFF_KIND, kind);
    qor::putBytes(m, QOR_IFM_LOOKUP_OFF_NAME, text.data(), std::min(text.size(), QOR_IFM_LOOKUP_NAME_LEN));
    if (!request(QOR_APP_IFM, instance, m)) return std::nullopt;
    return std::make_pair(int32_t(qor::u32At(m, QOR_IPC_OFF_STATUS)), qor::u32At(m, QOR_IFM_LOOKUP_OFF_RESULT));
}

using IfmLookup = ChassisFixture;

// The CLI's name checks: with a host map only what it maps; without one every
// well-formed interface name and only the VRF "default". -1 is "refused".
TEST_F(IfmLookup, AnswersWhatTheHostMapHoldsOrEveryInterfaceWithoutOne) {
    const std::string unterminated(QOR_IFM_LOOKUP_NAME_LEN, 'v');
    const std::tuple<bool, uint32_t, std::string, int64_t> rows[] = {
        {false, kIf, "vlan 20", kVlan20}, {false, kIf, "ethernet 1/2", kEthernet1_2}, {false, kIf, "bogus 3", -1},
        {false, kIf, "", -1}, {false, kIf, "vlan 4095", -1}, {false, kIf, unterminated, -1},
        {false, kVrf, "default", 0}, {false, kVrf, "red", -1}, {false, 7, "vlan 10", -1},
        {true, kIf, "Vlan10", kVlan10}, {true, kIf, "ethernet 1/2", kEthernet1_2}, {true, kIf, "vlan 20", -1},
        {true, kVrf, "blue", 2}, {true, kVrf, "default", 0}, {true, kVrf, "RED", -1}, {true, kVrf, unterminated, -1}};
    for (const bool withMap : {false, true}) {
        ChassisOptions options;
        if (withMap) std::ofstream(options.hostMapPath = runDir() + "/hosts.ini") << kHostMap;
        ASSERT_EQ(startChassis(options), 0);
        for (const auto& [mapped, kind, text, want] : rows) {
            if (mapped != withMap) continue;
            const auto got = lookup(instance_, kind, text);
            ASSERT_TRUE(got.has_value()) << text;
            if (want >= 0) {
                EXPECT_EQ(got->second, uint32_t(want)) << text << " with map " << withMap;
            }
            EXPECT_EQ(got->first, want < 0 ? -1 : 0) << text;
        }
        stopChassis();
    }
}

// ---- interface notifications (root, network namespace) ------------------------------

// One notification TLV: type and the words of its payload.
using NotifTlv = std::pair<uint16_t, std::vector<uint32_t>>;

// The TLVs of the next notifications, as the relay manager takes them: each
// message checked for its sequence and acknowledged (a resent one is
// acknowledged again and dropped), until `want` TLVs have come.
std::vector<NotifTlv> takeNotifications(PeerQueue& relay, QOR_SWP_SEQ& seq, size_t want) {
    std::vector<NotifTlv> got;
    while (got.size() < want) {
        const auto m = relay.recv();
        if (!m) break;
        if (qor::u32At(*m, QOR_IPC_OFF_TYPE) != MT_IFM_NOTIF_MSG) continue;  // the store's start-up notice
        if (qorSwpCkSeqAndAck(m->data(), uint32_t(m->size()), &seq, relay.handle()) != QOR_SWP_IN_ORDER) continue;
        dhcpv6TlvCursor cursor(qor::ByteView(*m).subspan(140), dhcpv6TlvCursor::LengthCounts::WholeTlv);
        dhcpv6Tlv tlv;
        const uint32_t count = qor::u32At(*m, 128);
        for (uint32_t i = 0; i < count; ++i) {
            EXPECT_EQ(cursor.next(tlv), dhcpv6TlvStep::Item) << "the count says more TLVs than there are";
            std::vector<uint32_t> words;
            for (size_t at = 0; at + 4 <= tlv.data.size(); at += 4) words.push_back(qor::u32At(tlv.data, at));
            got.emplace_back(tlv.code, words);
        }
        dhcpv6Tlv extra;
        EXPECT_EQ(cursor.next(extra), dhcpv6TlvStep::End) << "bytes after the counted TLVs";
    }
    return got;
}

using IfmLinks = ChassisFixture;

// A VLAN interface follows the link that holds its address, a port its own,
// a port-channel without a bond its members; members come from the host map.
TEST_F(IfmLinks, LinkChangesReachTheRegisteredClientAsInterfaceTlvs) {
    inNamespace([&] {
        sh("ip link add i0 type veth peer name j0 && ip link add i4 type veth peer name j4");
        sh("for l in i0 j0 i4 j4; do ip link set $l up; done");
        ASSERT_EQ(startWithMap("[interface ethernet 1/1]\nlinux = i0\nuntagged = 10\n"
                               "[interface vlan 10]\nlinux = i0\n"
                               "[interface ethernet 1/4]\nlinux = i4\n"
                               "[interface ethernet 1/5]\nlinux = i5\n"
                               "[interface port-channel 3]\nmembers = ethernet 1/4\n"),
                  0);
        const uint32_t e11 = ifmEthernetIfIndex(1, 1, 0), e14 = ifmEthernetIfIndex(1, 4, 0),
                       e15 = ifmEthernetIfIndex(1, 5, 0), po3 = ifmCreateIfIndex(IFM_IFTYPE_LAG, 0, 0, 3);
        PeerQueue relay(QOR_APP_RELAYMGR, instance_);
        Bytes reg = ifmRegistration(QOR_APP_RELAYMGR, instance_, relay.id());
        ASSERT_TRUE(request(QOR_APP_IFM, instance_, reg));
        QOR_SWP_SEQ seq{};
        EXPECT_EQ(takeNotifications(relay, seq, 2), (std::vector<NotifTlv>{{47, {po3, e14}}, {11, {e11, 1}}}))
            << "the members and the switch ports there are at registration";
        // The operator's port configuration (dhcpv6-cli "switchport", "channel-group").
        const auto portCfg = [&](uint32_t port, uint32_t what, uint32_t value) {
            Bytes m = message(QOR_IFM_PORT_CFG_LEN, QOR_MT_IFM_PORT_CONFIG, 0, queueOf(QOR_APP_IFM, instance_));
            qor::putU32(m, QOR_IFM_PORT_CFG_OFF_IFINDEX, port);
            qor::putU32(m, QOR_IFM_PORT_CFG_OFF_WHAT, what);
            qor::putU32(m, QOR_IFM_PORT_CFG_OFF_VALUE, value);
            EXPECT_TRUE(request(QOR_APP_IFM, instance_, m));
            return int32_t(qor::u32At(m, QOR_IPC_OFF_STATUS));
        };
        const auto ok = [&](uint32_t port, uint32_t what, uint32_t value) {
            ASSERT_EQ(portCfg(port, what, value), 0);
        };
        // Refused, and nothing told: a VLAN interface has no mode, a port-channel
        // nobody mapped, an unmapped port, an unknown request.
        EXPECT_EQ(portCfg(kVlan10, QOR_IFM_PORT_CFG_MODE, 0), QOR_IFM_PORT_CFG_ERR_PORT);
        EXPECT_EQ(portCfg(e14, QOR_IFM_PORT_CFG_LAG, 9), QOR_IFM_PORT_CFG_ERR_LAG);
        EXPECT_EQ(portCfg(po3, QOR_IFM_PORT_CFG_LAG, 3), QOR_IFM_PORT_CFG_ERR_PORT);
        EXPECT_EQ(portCfg(ifmEthernetIfIndex(1, 7, 0), QOR_IFM_PORT_CFG_MODE, 1), QOR_IFM_PORT_CFG_ERR_PORT);
        EXPECT_EQ(portCfg(e11, QOR_IFM_PORT_CFG_MODE, 2), QOR_IFM_PORT_CFG_ERR_REQUEST);
        EXPECT_EQ(portCfg(e11, 7, 0), QOR_IFM_PORT_CFG_ERR_REQUEST);
        const struct {
            std::function<void()> change;
            std::vector<NotifTlv> tlvs;
        } cases[] = {
            {[] { sh("ip link set i0 down"); }, {{4, {e11}}, {4, {kVlan10}}}},
            {[] { sh("ip link set i0 up"); }, {{3, {e11}}, {3, {kVlan10}}}},
            {[] { sh("ip link set j4 down"); }, {{4, {e14}}, {4, {po3}}}},  // carrier lost
            {[] { sh("ip link set j4 up"); }, {{3, {e14}}, {3, {po3}}}},
            {[] { sh("ip link add i5 type veth peer name j5 && ip link set j5 up && ip link set i5 up"); },
             {{3, {e15}}}},
            // Down first, as the kernel closes a link before it removes it.
            {[] { sh("ip link del i0"); }, {{4, {e11}}, {4, {kVlan10}}, {2, {e11}}, {2, {kVlan10}}}},
            {[&] { ASSERT_EQ(qorHostMapSetLagMembers(po3, {e15}), 0); },
             {{48, {po3, e14}}, {47, {po3, e15}}}},
            {[&] { ok(e11, QOR_IFM_PORT_CFG_MODE, 0); }, {{11, {e11, 0}}}},
            {[&] { ok(po3, QOR_IFM_PORT_CFG_MODE, 1); }, {{11, {po3, 1}}}},
            {[&] { ok(e14, QOR_IFM_PORT_CFG_LAG, 3); }, {{47, {po3, e14}}}},
            {[&] { ok(e15, QOR_IFM_PORT_CFG_LAG, 0); }, {{48, {po3, e15}}}},
        };
        for (size_t i = 0; i < std::size(cases); ++i) {
            cases[i].change();
            EXPECT_EQ(takeNotifications(relay, seq, cases[i].tlvs.size()), cases[i].tlvs) << "case " << i;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(400));
        while (const auto m = relay.pending()) {
            if (qor::u32At(*m, QOR_IPC_OFF_TYPE) == MT_IFM_NOTIF_MSG) {
                EXPECT_NE(qorSwpCkSeqAndAck(m->data(), uint32_t(m->size()), &seq, relay.handle()), QOR_SWP_IN_ORDER)
                    << "a notification nothing changed for";
            }
        }
    });
}

using ChassisStart = ChassisFixture;

// The packet layer of the process reads the map the services installed; a
// map that cannot be used stops the start and leaves the installed one.
TEST_F(ChassisStart, InstallsItsHostMapOrFailsWithoutTouchingTheInstalledOne) {
    ChassisOptions good;
    good.hostMapPath = runDir() + "/hosts.ini";
    std::ofstream(good.hostMapPath) << kHostMap << "[interface ethernet 1/3]\nlinux = veth2\nvrf = blue\n";
    ASSERT_EQ(startChassis(good), 0);
    const auto installed = qorHostMapGet();
    ASSERT_NE(installed->find(kEthernet1_2), nullptr);
    EXPECT_EQ(installed->find(kEthernet1_2)->linuxName, "veth1");
    EXPECT_EQ(getVrfIdForIfIndex(ifmEthernetIfIndex(1, 3, 0)), 2);
    stopChassis();

    const std::string bad = runDir() + "/bad.ini";
    std::ofstream(bad) << "[vrf red]\n";
    for (const std::string& path : {bad, runDir() + "/missing.ini"}) {
        ChassisOptions options;
        options.hostMapPath = path;
        ::testing::internal::CaptureStderr();
        EXPECT_EQ(startChassis(options), -1) << path;
        EXPECT_NE(::testing::internal::GetCapturedStderr().find(path), std::string::npos);
        EXPECT_EQ(qorHostMapGet(), installed) << path;
    }
}

TEST_F(ChassisStart, AnInstanceStartsOnlyOnceAndTheRunningOneStillAnswers) {
    ASSERT_EQ(startChassis(), 0);
    ChassisOptions again;
    again.instance = instance_;
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(qorChassisStart(again), -1);
    ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(lookup(instance_, kVrf, "default"), std::make_pair(0, 0u));
}

}  // namespace
