// The configuration store as the relay manager and an operator see it: lines
// written and removed by key, show running-config (in pieces), write memory,
// and the startup-config replay that ends with init-complete.
#include <fstream>
#include <map>
#include <mutex>
#include <sstream>

#include "chassis_test_util.h"

namespace {

using namespace chassistest;

// ifIndexes as the IFM library encodes them: type 24 (VLAN) in the top byte.
constexpr uint32_t kVlan10 = 0x1800000A;
constexpr uint32_t kVlan20 = 0x18000014;
constexpr uint32_t kIfId = DHCPV6_CFG_ID_INTERFACE;
const std::string kSrc30 = "ipv6 dhcp relay source-interface vlan 30";
const std::string kEmpty = "!\nend\n";

const char* const kGoldenRunningConfig =
    "ipv6 dhcp relay source-interface vlan 30\nDHCPv6RelayMgr:\n DHCPv6 debugging is on\n!\n"
    "interface vlan 10\n ipv6 helper-address 2001:db8:ff::2\n ipv6 helper-address vrf blue 2001:db8:dd::2\n"
    " ipv6 helper-address vrf red 2001:db8:ee::2\n!\n"
    "interface vlan 20\n ipv6 helper-address 2001:db8:ff::2\n ipv6 dhcp relay source-interface vlan 30\n!\nend\n";

// The relay manager's side of the store: it writes lines from its own queue.
class CfgStore : public ChassisFixture {
protected:
    void SetUp() override { startWith(); }
    void startWith(ChassisOptions options = {}) {
        ASSERT_EQ(startChassis(std::move(options)), 0);
        relay = std::make_unique<PeerQueue>(QOR_APP_RELAYMGR, instance_);
        ASSERT_TRUE(relay->ok());
    }
    void send(uint32_t type, uint32_t id, const Bytes& key, const std::string& line, PeerQueue* from = nullptr) {
        PeerQueue& q = from ? *from : *relay;
        ASSERT_TRUE(q.send(cfgMessage(type, q, instance_, cfgRecord(id, key, line))));
    }
    void insert(uint32_t id, const Bytes& key, const std::string& line) { send(QOR_MT_CFG_INSERT, id, key, line); }
    void writeGoldenConfig() {
        // Written out of order: the store keeps key order, not arrival order.
        const std::string ff = " ipv6 helper-address 2001:db8:ff::2";
        insert(kIfId, helperKey(kVlan20, "", "2001:db8:ff::2"), ff);
        insert(DHCPV6_CFG_ID_DEBUG, {}, DHCPV6_DEBUG_ON_LINE);
        insert(kIfId, helperKey(kVlan10, "red", "2001:db8:ee::2"), " ipv6 helper-address vrf red 2001:db8:ee::2");
        // The system source-interface line is keyed by a 32-bit 9.
        insert(DHCPV6_CFG_ID_SRC_INTF, cfgKey(DHCPV6_CFG_KEY_SRC_INTF), kSrc30);
        insert(kIfId, cfgKey(kVlan20, DHCPV6_CFG_KEY_IF_SRC_INTF), " " + kSrc30);
        insert(kIfId, helperKey(kVlan10, "", "2001:db8:ff::2"), ff);
        insert(kIfId, helperKey(kVlan10, "blue", "2001:db8:dd::2"), " ipv6 helper-address vrf blue 2001:db8:dd::2");
    }
    int writeMemory() {
        Bytes m = message(QOR_IPC_OFF_STATUS + 4, QOR_MT_CFG_WRITE_MEMORY, 0, queueOf(QOR_APP_CFGSTORE, instance_));
        qor::putU32(m, QOR_IPC_OFF_STATUS, 0x5A5A5A5A);
        return request(QOR_APP_CFGSTORE, instance_, m) ? int(qor::u32At(m, QOR_IPC_OFF_STATUS)) : -99;
    }

    std::unique_ptr<PeerQueue> relay;
};

TEST_F(CfgStore, RunningConfigShowsGlobalLinesThenInterfaceBlocksInKeyOrder) {
    EXPECT_EQ(showRunning(instance_), kEmpty);
    writeGoldenConfig();
    EXPECT_EQ(showRunning(instance_), kGoldenRunningConfig);
    // An offset past the end is refused, with the total to start again from.
    Bytes m = message(512, QOR_MT_CFG_SHOW_RUNNING, 0, queueOf(QOR_APP_CFGSTORE, instance_));
    qor::putU32(m, QOR_CFG_SHOW_OFF_TOTAL, 100000);
    ASSERT_TRUE(request(QOR_APP_CFGSTORE, instance_, m));
    EXPECT_EQ(qor::u32At(m, QOR_IPC_OFF_STATUS), uint32_t(-1));
    EXPECT_EQ(qor::u32At(m, QOR_CFG_SHOW_OFF_TOTAL), std::string(kGoldenRunningConfig).size());
    EXPECT_EQ(qor::u32At(m, QOR_CFG_SHOW_OFF_PIECE), 0u);
    // An insert with an existing key replaces the line.
    insert(DHCPV6_CFG_ID_SRC_INTF, cfgKey(DHCPV6_CFG_KEY_SRC_INTF), "ipv6 dhcp relay source-interface vlan 40");
    EXPECT_EQ(showRunning(instance_),
              "ipv6 dhcp relay source-interface vlan 40" + std::string(kGoldenRunningConfig).substr(kSrc30.size()));
}

TEST_F(CfgStore, RemoveExactRemovesOnlyTheLineWithThatKeyOfItsOwnApplication) {
    PeerQueue other(20, instance_);
    ASSERT_TRUE(other.ok());
    // The first address's key is a prefix of the second's.
    insert(kIfId, helperKey(kVlan10, "", "2001:db8::1"), " ipv6 helper-address 2001:db8::1");
    insert(kIfId, helperKey(kVlan10, "", "2001:db8::10"), " ipv6 helper-address 2001:db8::10");
    insert(DHCPV6_CFG_ID_DEBUG, {}, DHCPV6_DEBUG_ON_LINE);
    // The same key from another application is another line, and its removals
    // do not touch the relay manager's; a key nobody wrote removes nothing.
    send(QOR_MT_CFG_INSERT, kIfId, cfgKey(kVlan10), " description uplink", &other);
    send(QOR_MT_CFG_REMOVE_EXACT, kIfId, helperKey(kVlan10, "", "2001:db8::10"), "", &other);
    send(QOR_MT_CFG_REMOVE_NODE, kIfId, cfgKey(kVlan10), "", &other);
    send(QOR_MT_CFG_REMOVE_EXACT, kIfId, helperKey(kVlan20, "", "2001:db8::10"), "");
    // The remove carries the " no" text; the key alone names the line.
    send(QOR_MT_CFG_REMOVE_EXACT, kIfId, helperKey(kVlan10, "", "2001:db8::1"),
         " no ipv6 helper-address 2001:db8::1");
    EXPECT_EQ(showRunning(instance_), "DHCPv6RelayMgr:\n DHCPv6 debugging is on\n!\n"
                                      "interface vlan 10\n ipv6 helper-address 2001:db8::10\n" + kEmpty);
    send(QOR_MT_CFG_REMOVE_EXACT, DHCPV6_CFG_ID_DEBUG, {}, "");
    EXPECT_EQ(showRunning(instance_), "!\ninterface vlan 10\n ipv6 helper-address 2001:db8::10\n" + kEmpty);
}

TEST_F(CfgStore, RemoveNodeRemovesEveryLineUnderTheKeyPrefix) {
    writeGoldenConfig();
    send(QOR_MT_CFG_REMOVE_NODE, kIfId, cfgKey(kVlan10), "");
    const std::string globals = kSrc30 + "\nDHCPv6RelayMgr:\n DHCPv6 debugging is on\n!\ninterface vlan 20\n";
    EXPECT_EQ(showRunning(instance_),
              globals + " ipv6 helper-address 2001:db8:ff::2\n " + kSrc30 + "\n" + kEmpty);
    // The interface and the helper sub-key take the helpers, not the source interface.
    send(QOR_MT_CFG_REMOVE_NODE, kIfId, cfgKey(kVlan20, DHCPV6_CFG_KEY_HELPER), "");
    EXPECT_EQ(showRunning(instance_), globals + " " + kSrc30 + "\n" + kEmpty);
}

TEST_F(CfgStore, SyncRecordsAreCountedAndLeaveTheConfigurationAlone) {
    Bytes sync(QOR_CFG_SYNC_LEN, 0);
    putWords(sync, 0, {18, 24, kVlan10});
    const Bytes m = cfgMessage(QOR_MT_CFG_SYNC, *relay, instance_, sync);
    ASSERT_TRUE(relay->send(m) && relay->send(m));
    // The show is served after the records that came before it.
    EXPECT_EQ(showRunning(instance_), kEmpty);
    EXPECT_EQ(qorChassisCfgSyncCount(instance_), 2u);
}

TEST_F(CfgStore, WriteMemorySavesTheRunningConfigAsTheStartupConfig) {
    writeGoldenConfig();
    EXPECT_EQ(writeMemory(), 0);
    std::ostringstream saved;
    saved << std::ifstream(runDir() + "/startup-config").rdbuf();
    EXPECT_EQ(saved.str(), kGoldenRunningConfig);
    EXPECT_FALSE(std::filesystem::exists(runDir() + "/startup-config.tmp"));
}

// Its own run directory: a store that cannot replace the startup-config says so.
using CfgStoreUnwritable = CfgStore;
TEST_F(CfgStoreUnwritable, WriteMemoryFailureIsAnsweredWithMinusOne) {
    std::filesystem::create_directory(runDir() + "/startup-config");
    insert(DHCPV6_CFG_ID_SRC_INTF, cfgKey(DHCPV6_CFG_KEY_SRC_INTF), kSrc30);
    EXPECT_EQ(writeMemory(), -1);
    EXPECT_TRUE(std::filesystem::is_directory(runDir() + "/startup-config"));
    EXPECT_FALSE(std::filesystem::exists(runDir() + "/startup-config.tmp"));
}

// A record's key length and the message's length are checked before use:
// (key length, bytes cut off the message's end, kept).
using RecordBoundary = std::tuple<uint32_t, size_t, bool>;
class CfgStoreRecordBoundary : public CfgStore, public ::testing::WithParamInterface<RecordBoundary> {};

TEST_P(CfgStoreRecordBoundary, MalformedRecordsAreDroppedWellFormedOnesKept) {
    const auto [keyLen, trim, kept] = GetParam();
    Bytes key(QOR_CFG_KEY_MAX, 0x41);
    qor::putU32(key, 0, kVlan10);
    Bytes m = cfgMessage(QOR_MT_CFG_INSERT, *relay, instance_,
                         cfgRecord(kIfId, key, " ipv6 helper-address 2001:db8::1", keyLen));
    m.resize(m.size() - trim);
    qor::putU32(m, QOR_IPC_OFF_LENGTH, uint32_t(m.size()));
    ASSERT_TRUE(relay->send(m));
    const std::string line = "!\ninterface vlan 10\n ipv6 helper-address 2001:db8::1\n";
    EXPECT_EQ(showRunning(instance_), kept ? line + kEmpty : kEmpty);
}

INSTANTIATE_TEST_SUITE_P(Records, CfgStoreRecordBoundary,
                         ::testing::Values(RecordBoundary{QOR_CFG_KEY_MAX, 0, true},
                                           RecordBoundary{QOR_CFG_KEY_MAX + 1, 0, false},
                                           RecordBoundary{0xFFFFFFFF, 0, false},
                                           RecordBoundary{8, 1, false},  // one byte short
                                           RecordBoundary{8, QOR_CFG_RECORD_LEN + 16, false}));  // header only

// A configuration longer than one message, read with requests of several sizes.
class CfgStoreLongShow : public CfgStore, public ::testing::WithParamInterface<size_t> {};

TEST_P(CfgStoreLongShow, PiecesReassembleTheWholeText) {
    // Highest VLAN first: the text is in ifIndex order whatever the order of writing.
    std::string expected = kEmpty;
    for (uint32_t vlan = 300; vlan >= 1; --vlan) {
        insert(kIfId, helperKey(0x18000000 | vlan, "", "2001:db8:ff::2"),
               " ipv6 helper-address 2001:db8:ff::2");
        expected.insert(0, "!\ninterface vlan " + std::to_string(vlan) + "\n ipv6 helper-address 2001:db8:ff::2\n");
    }
    ASSERT_GT(expected.size(), QOR_IPC_MAX_MSG);
    EXPECT_EQ(showRunning(instance_, GetParam()), expected);
}

INSTANTIATE_TEST_SUITE_P(RequestSizes, CfgStoreLongShow,
                         ::testing::Values(QOR_CFG_SHOW_OFF_TEXT + 32, 1000, QOR_IPC_MAX_MSG));

// What a command sink saw: the lines, and the interface context each came in.
struct Capture {
    std::mutex mu;
    std::string text;
    std::map<std::string, uint32_t> contextOf;
    std::string refuse;  // a line answered with an error
};

class CfgStoreReplay : public CfgStore {
protected:
    void SetUp() override { restart(true); }
    // A fresh chassis (a restarted daemon) in the same run directory.
    void restart(bool replay) {
        stopChassis();
        ChassisOptions options;
        options.replayStartup = replay;
        options.replaySink = [c = capture](CliSession& session, const std::string& line, std::string&,
                                           std::string& err) {
            std::lock_guard lock(c->mu);
            c->text += line + "\n";
            if (line.rfind("interface vlan ", 0) == 0)
                session.currentIfIndex = 0x18000000 | uint32_t(std::stoul(line.substr(15)));
            else if (line == "!" || line == "end")
                session.currentIfIndex = 0;
            c->contextOf[line] = session.currentIfIndex;
            if (line != c->refuse) return 0;
            err = "unknown interface";
            return -1;
        };
        startWith(std::move(options));
    }
    // Registers as the relay manager; the answer and then init-complete must follow.
    void registerRelay() {
        ASSERT_TRUE(relay->send(ifmRegistration(QOR_APP_RELAYMGR, instance_, relay->id())));
        const auto answer = relay->recv();
        ASSERT_TRUE(answer.has_value());
        EXPECT_EQ(qor::u32At(*answer, QOR_IPC_OFF_TYPE), QOR_MT_IFM_REGISTER);
        EXPECT_EQ(qor::u32At(*answer, QOR_IFM_REG_OFF_RESULT), 0u);
        const auto msg = relay->recv();
        ASSERT_TRUE(msg.has_value());
        EXPECT_EQ(msg->size(), QOR_IPC_HDR_LEN);
        EXPECT_EQ(qor::u32At(*msg, QOR_IPC_OFF_LENGTH), QOR_IPC_HDR_LEN);
        EXPECT_EQ(qor::u32At(*msg, QOR_IPC_OFF_TYPE), MT_DHCPV6_INIT_COMPLETE);
        EXPECT_EQ(qor::u32At(*msg, QOR_IPC_OFF_SRC_QUEUE), queueOf(QOR_APP_CFGSTORE, instance_));
        EXPECT_EQ(qor::u32At(*msg, QOR_IPC_OFF_DST_QUEUE), relay->id());
    }
    void writeStartupConfig(const std::string& text) { std::ofstream(runDir() + "/startup-config") << text; }
    std::string replayed() {
        std::lock_guard lock(capture->mu);
        return capture->text;
    }

    std::shared_ptr<Capture> capture = std::make_shared<Capture>();
};

TEST_F(CfgStoreReplay, WithoutStartupConfigOrWithReplayOffOnlyInitCompleteIsSent) {
    std::filesystem::remove(runDir() + "/startup-config");
    registerRelay();
    EXPECT_EQ(replayed(), "");
    restart(false);
    writeStartupConfig(kSrc30 + "\n");
    registerRelay();
    EXPECT_EQ(replayed(), "");
}

TEST_F(CfgStoreReplay, SavedConfigurationIsReplayedThroughOneSessionBeforeInitComplete) {
    writeGoldenConfig();
    ASSERT_EQ(writeMemory(), 0);
    restart(true);
    registerRelay();
    EXPECT_EQ(replayed(), kGoldenRunningConfig);
    // The helper lines come inside their interface's context.
    EXPECT_EQ(capture->contextOf[" ipv6 helper-address vrf red 2001:db8:ee::2"], kVlan10);
}

TEST_F(CfgStoreReplay, RefusedLineIsReportedWithItsNumberAndTheRestStillRuns) {
    writeStartupConfig("interface vlan 10\r\n ipv6 helper-address 2001:db8::1\n\n"
                       "interface vlan 99\n ipv6 helper-address 2001:db8::2  \nend\n");
    capture->refuse = "interface vlan 99";
    ::testing::internal::CaptureStderr();
    registerRelay();
    const std::string log = ::testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("line 4: unknown interface"), std::string::npos) << log;
    // Carriage returns, trailing blanks and empty lines never reach the CLI.
    EXPECT_EQ(replayed(), "interface vlan 10\n ipv6 helper-address 2001:db8::1\n"
                          "interface vlan 99\n ipv6 helper-address 2001:db8::2\nend\n");
}

TEST_F(CfgStoreReplay, OnlyTheRelayManagersRegistrationsStartAReplayEachTime) {
    writeStartupConfig(kSrc30 + "\n");
    PeerQueue agent(QOR_APP_AGENT, instance_);
    Bytes other = ifmRegistration(QOR_APP_AGENT, instance_, agent.id());
    ASSERT_TRUE(request(QOR_APP_IFM, instance_, other));
    EXPECT_EQ(qor::u32At(other, QOR_IFM_REG_OFF_RESULT), 0u);
    // The relay manager registers once in its life: another registration is a
    // new process with an empty configuration.
    registerRelay();
    registerRelay();
    // Stopping waits for any replay in progress: whatever it sent is queued by now.
    stopChassis();
    EXPECT_FALSE(relay->pending().has_value());
    EXPECT_EQ(replayed(), kSrc30 + "\n" + kSrc30 + "\n");
}

}  // namespace
