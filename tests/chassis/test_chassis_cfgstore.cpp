// The configuration store as the relay manager and an operator see it: lines
// written and removed by key, show running-config (in pieces), write memory,
// and the startup-config replay that ends with init-complete.
#include <fstream>
#include <memory>
#include <mutex>
#include <sstream>

#include "chassis_test_util.h"

namespace {

using namespace chassistest;

// ifIndexes as the IFM library encodes them: type 24 (VLAN) in the top byte,
// the VLAN id in the low bits.
constexpr uint32_t kVlan10 = 0x1800000A;
constexpr uint32_t kVlan20 = 0x18000014;
constexpr int kOtherApp = 20;

Bytes globalSourceKey() {
    // The system source-interface line is keyed by the first byte of a 32-bit 9.
    Bytes key(4, 0);
    qor::putU32(key, 0, DHCPV6_CFG_KEY_SRC_INTF);
    return key;
}

const char* const kGoldenRunningConfig =
    "ipv6 dhcp relay source-interface vlan 30\n"
    "DHCPv6RelayMgr:\n"
    " DHCPv6 debugging is on\n"
    "!\n"
    "interface vlan 10\n"
    " ipv6 helper-address 2001:db8:ff::2\n"
    " ipv6 helper-address vrf blue 2001:db8:dd::2\n"
    " ipv6 helper-address vrf red 2001:db8:ee::2\n"
    "!\n"
    "interface vlan 20\n"
    " ipv6 helper-address 2001:db8:ff::2\n"
    " ipv6 dhcp relay source-interface vlan 30\n"
    "!\n"
    "end\n";

std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

std::string readFile(const std::string& path) {
    std::ifstream in(path);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

// The relay manager's side of the store: it writes lines from its own queue.
class CfgStoreBase : public ChassisFixture {
protected:
    void startWith(ChassisOptions options = {}) {
        ASSERT_EQ(startChassis(std::move(options)), 0);
        relay = std::make_unique<PeerQueue>(QOR_APP_RELAYMGR, instance_);
        ASSERT_TRUE(relay->ok());
    }
    bool send(uint32_t type, uint32_t id, const Bytes& key, const std::string& line,
              PeerQueue* from = nullptr, std::optional<uint32_t> keyLen = std::nullopt) {
        PeerQueue& q = from ? *from : *relay;
        return q.send(cfgMessage(type, q, instance_, cfgRecord(id, key, line, keyLen)));
    }
    void insert(uint32_t id, const Bytes& key, const std::string& line) {
        ASSERT_TRUE(send(QOR_MT_CFG_INSERT, id, key, line));
    }
    void writeGoldenConfig() {
        // Written out of order: the store keeps key order, not arrival order.
        insert(DHCPV6_CFG_ID_INTERFACE, helperKey(kVlan20, "", "2001:db8:ff::2"),
               " ipv6 helper-address 2001:db8:ff::2");
        insert(DHCPV6_CFG_ID_DEBUG, {}, DHCPV6_DEBUG_ON_LINE);
        insert(DHCPV6_CFG_ID_INTERFACE, helperKey(kVlan10, "red", "2001:db8:ee::2"),
               " ipv6 helper-address vrf red 2001:db8:ee::2");
        insert(DHCPV6_CFG_ID_SRC_INTF, globalSourceKey(), "ipv6 dhcp relay source-interface vlan 30");
        insert(DHCPV6_CFG_ID_INTERFACE, ifSourceKey(kVlan20), " ipv6 dhcp relay source-interface vlan 30");
        insert(DHCPV6_CFG_ID_INTERFACE, helperKey(kVlan10, "", "2001:db8:ff::2"),
               " ipv6 helper-address 2001:db8:ff::2");
        insert(DHCPV6_CFG_ID_INTERFACE, helperKey(kVlan10, "blue", "2001:db8:dd::2"),
               " ipv6 helper-address vrf blue 2001:db8:dd::2");
    }
    int writeMemory() {
        Bytes m = message(QOR_IPC_OFF_STATUS + 4, QOR_MT_CFG_WRITE_MEMORY, 0,
                          queueOf(QOR_APP_CFGSTORE, instance_));
        qor::putU32(m, QOR_IPC_OFF_STATUS, 0x5A5A5A5A);
        if (!request(QOR_APP_CFGSTORE, instance_, m)) return -99;
        return int(qor::u32At(m, QOR_IPC_OFF_STATUS));
    }

    std::unique_ptr<PeerQueue> relay;
};

class CfgStore : public CfgStoreBase {
protected:
    void SetUp() override { startWith(); }
};

TEST_F(CfgStore, EmptyConfigurationShowsOnlyItsEnd) {
    EXPECT_EQ(showRunning(instance_), "!\nend\n");
}

TEST_F(CfgStore, RunningConfigShowsGlobalLinesThenInterfaceBlocksInKeyOrder) {
    writeGoldenConfig();
    EXPECT_EQ(showRunning(instance_), kGoldenRunningConfig);
}

TEST_F(CfgStore, InsertWithAnExistingKeyReplacesTheLine) {
    insert(DHCPV6_CFG_ID_SRC_INTF, globalSourceKey(), "ipv6 dhcp relay source-interface vlan 30");
    insert(DHCPV6_CFG_ID_SRC_INTF, globalSourceKey(), "ipv6 dhcp relay source-interface vlan 40");
    EXPECT_EQ(showRunning(instance_), "ipv6 dhcp relay source-interface vlan 40\n!\nend\n");
}

TEST_F(CfgStore, RemoveExactRemovesOnlyTheLineWithThatKey) {
    // The first address's key is a prefix of the second's.
    insert(DHCPV6_CFG_ID_INTERFACE, helperKey(kVlan10, "", "2001:db8::1"), " ipv6 helper-address 2001:db8::1");
    insert(DHCPV6_CFG_ID_INTERFACE, helperKey(kVlan10, "", "2001:db8::10"), " ipv6 helper-address 2001:db8::10");
    insert(DHCPV6_CFG_ID_DEBUG, {}, DHCPV6_DEBUG_ON_LINE);
    // The remove carries the " no" text; the key alone names the line.
    ASSERT_TRUE(send(QOR_MT_CFG_REMOVE_EXACT, DHCPV6_CFG_ID_INTERFACE,
                     helperKey(kVlan10, "", "2001:db8::1"), " no ipv6 helper-address 2001:db8::1"));
    // A key nobody wrote removes nothing.
    ASSERT_TRUE(send(QOR_MT_CFG_REMOVE_EXACT, DHCPV6_CFG_ID_INTERFACE,
                     helperKey(kVlan20, "", "2001:db8::10"), ""));
    EXPECT_EQ(showRunning(instance_),
              "DHCPv6RelayMgr:\n DHCPv6 debugging is on\n!\n"
              "interface vlan 10\n ipv6 helper-address 2001:db8::10\n!\nend\n");
    ASSERT_TRUE(send(QOR_MT_CFG_REMOVE_EXACT, DHCPV6_CFG_ID_DEBUG, {}, ""));
    EXPECT_EQ(showRunning(instance_), "!\ninterface vlan 10\n ipv6 helper-address 2001:db8::10\n!\nend\n");
}

TEST_F(CfgStore, LinesBelongToTheApplicationThatWroteThem) {
    PeerQueue other(kOtherApp, instance_);
    ASSERT_TRUE(other.ok());
    insert(DHCPV6_CFG_ID_INTERFACE, helperKey(kVlan10, "", "2001:db8::1"), " ipv6 helper-address 2001:db8::1");
    // The same key from another application is another line, and its
    // removals do not touch the relay manager's.
    ASSERT_TRUE(send(QOR_MT_CFG_INSERT, DHCPV6_CFG_ID_INTERFACE, ifIndexKey(kVlan10), " description uplink", &other));
    ASSERT_TRUE(send(QOR_MT_CFG_REMOVE_EXACT, DHCPV6_CFG_ID_INTERFACE,
                     helperKey(kVlan10, "", "2001:db8::1"), "", &other));
    ASSERT_TRUE(send(QOR_MT_CFG_REMOVE_NODE, DHCPV6_CFG_ID_INTERFACE, ifIndexKey(kVlan10), "", &other));
    EXPECT_EQ(showRunning(instance_), "!\ninterface vlan 10\n ipv6 helper-address 2001:db8::1\n!\nend\n");
}

TEST_F(CfgStore, RemoveNodeRemovesEveryLineUnderTheKeyPrefix) {
    writeGoldenConfig();
    ASSERT_TRUE(send(QOR_MT_CFG_REMOVE_NODE, DHCPV6_CFG_ID_INTERFACE, ifIndexKey(kVlan10), ""));
    EXPECT_EQ(showRunning(instance_),
              "ipv6 dhcp relay source-interface vlan 30\nDHCPv6RelayMgr:\n DHCPv6 debugging is on\n!\n"
              "interface vlan 20\n ipv6 helper-address 2001:db8:ff::2\n"
              " ipv6 dhcp relay source-interface vlan 30\n!\nend\n");
    // A node of the interface and the helper key takes the helpers, not the
    // interface's source interface.
    Bytes helpers(6, 0);
    qor::putU32(helpers, 0, kVlan20);
    qor::putU16(helpers, 4, DHCPV6_CFG_KEY_HELPER);
    ASSERT_TRUE(send(QOR_MT_CFG_REMOVE_NODE, DHCPV6_CFG_ID_INTERFACE, helpers, ""));
    EXPECT_EQ(showRunning(instance_),
              "ipv6 dhcp relay source-interface vlan 30\nDHCPv6RelayMgr:\n DHCPv6 debugging is on\n!\n"
              "interface vlan 20\n ipv6 dhcp relay source-interface vlan 30\n!\nend\n");
}

TEST_F(CfgStore, SyncRecordsAreCountedAndLeaveTheConfigurationAlone) {
    Bytes sync(QOR_CFG_SYNC_LEN, 0);
    qor::putU32(sync, 0, 18);
    qor::putU32(sync, 4, 24);
    qor::putU32(sync, 8, kVlan10);
    Bytes m = message(QOR_CHASSIS_OFF_BODY + sync.size(), QOR_MT_CFG_SYNC, relay->id(),
                      queueOf(QOR_APP_CFGSTORE, instance_));
    qor::putBytes(m, QOR_CHASSIS_OFF_BODY, sync.data(), sync.size());
    ASSERT_TRUE(relay->send(m));
    ASSERT_TRUE(relay->send(m));
    // The show is served after the records that came before it.
    EXPECT_EQ(showRunning(instance_), "!\nend\n");
    EXPECT_EQ(qorChassisCfgSyncCount(instance_), 2u);
}

// A record's key length and the message's length are checked before use.
struct RecordBoundary {
    const char* name;
    uint32_t keyLen;
    size_t trim;  // bytes cut off the end of the message
    bool kept;
};

void PrintTo(const RecordBoundary& p, std::ostream* os) { *os << p.name; }

class CfgStoreRecordBoundary : public CfgStoreBase,
                               public ::testing::WithParamInterface<RecordBoundary> {
protected:
    void SetUp() override { startWith(); }
};

TEST_P(CfgStoreRecordBoundary, MalformedRecordsAreDroppedWellFormedOnesKept) {
    const RecordBoundary& p = GetParam();
    Bytes key(QOR_CFG_KEY_MAX, 0x41);
    qor::putU32(key, 0, kVlan10);
    Bytes m = cfgMessage(QOR_MT_CFG_INSERT, *relay, instance_,
                         cfgRecord(DHCPV6_CFG_ID_INTERFACE, key, " ipv6 helper-address 2001:db8::1", p.keyLen));
    m.resize(m.size() - p.trim);
    qor::putU32(m, QOR_IPC_OFF_LENGTH, uint32_t(m.size()));
    ASSERT_TRUE(relay->send(m));
    const std::string kept = "!\ninterface vlan 10\n ipv6 helper-address 2001:db8::1\n!\nend\n";
    EXPECT_EQ(showRunning(instance_), p.kept ? kept : "!\nend\n");
}

INSTANTIATE_TEST_SUITE_P(
    Records, CfgStoreRecordBoundary,
    ::testing::Values(RecordBoundary{"KeyOfFullLength", QOR_CFG_KEY_MAX, 0, true},
                      RecordBoundary{"KeyOneByteTooLong", QOR_CFG_KEY_MAX + 1, 0, false},
                      RecordBoundary{"KeyLengthHuge", 0xFFFFFFFF, 0, false},
                      RecordBoundary{"RecordOneByteShort", 8, 1, false},
                      RecordBoundary{"RecordOnlyAHeader", 8, QOR_CFG_RECORD_LEN + 16, false}),
    [](const ::testing::TestParamInfo<RecordBoundary>& param) { return std::string(param.param.name); });

// show running-config of a configuration longer than one message, read with
// requests of several sizes.
class CfgStoreLongShow : public CfgStoreBase, public ::testing::WithParamInterface<size_t> {
protected:
    void SetUp() override { startWith(); }
};

TEST_P(CfgStoreLongShow, PiecesReassembleTheWholeText) {
    constexpr uint32_t kVlans = 300;
    // Highest VLAN first: the text is in ifIndex order whatever the order of writing.
    for (uint32_t vlan = kVlans; vlan >= 1; --vlan)
        insert(DHCPV6_CFG_ID_INTERFACE, helperKey(0x18000000 | vlan, "", "2001:db8:ff::2"),
               " ipv6 helper-address 2001:db8:ff::2");
    std::string expected;
    for (uint32_t vlan = 1; vlan <= kVlans; ++vlan)
        expected += "!\ninterface vlan " + std::to_string(vlan) + "\n ipv6 helper-address 2001:db8:ff::2\n";
    expected += "!\nend\n";
    ASSERT_GT(expected.size(), QOR_IPC_MAX_MSG);
    EXPECT_EQ(showRunning(instance_, GetParam()), expected);
}

INSTANTIATE_TEST_SUITE_P(RequestSizes, CfgStoreLongShow,
                         ::testing::Values(QOR_CFG_SHOW_OFF_TEXT + 32, 1000, QOR_IPC_MAX_MSG));

TEST_F(CfgStore, ShowFromAnOffsetPastTheEndIsRefused) {
    writeGoldenConfig();
    Bytes m = message(512, QOR_MT_CFG_SHOW_RUNNING, 0, queueOf(QOR_APP_CFGSTORE, instance_));
    qor::putU32(m, QOR_CFG_SHOW_OFF_TOTAL, 100000);
    ASSERT_TRUE(request(QOR_APP_CFGSTORE, instance_, m));
    EXPECT_EQ(qor::u32At(m, QOR_IPC_OFF_STATUS), uint32_t(-1));
    EXPECT_EQ(qor::u32At(m, QOR_CFG_SHOW_OFF_TOTAL), std::string(kGoldenRunningConfig).size());
    EXPECT_EQ(qor::u32At(m, QOR_CFG_SHOW_OFF_PIECE), 0u);
}

TEST_F(CfgStore, WriteMemorySavesTheRunningConfigAsTheStartupConfig) {
    writeGoldenConfig();
    EXPECT_EQ(writeMemory(), 0);
    EXPECT_EQ(readFile(runDir() + "/startup-config"), kGoldenRunningConfig);
    EXPECT_FALSE(std::filesystem::exists(runDir() + "/startup-config.tmp"));
}

// ---- start-up replay --------------------------------------------------------------

// What a command sink saw: each line, and the interface context the session
// had when the line came.
struct Capture {
    std::mutex mu;
    std::vector<std::string> lines;
    std::vector<uint32_t> contexts;
    std::string refuse;  // a line answered with an error
};

ChassisReplaySink captureSink(std::shared_ptr<Capture> capture) {
    return [capture](CliSession& session, const std::string& line, std::string&, std::string& err) {
        std::lock_guard lock(capture->mu);
        capture->lines.push_back(line);
        if (line.rfind("interface vlan ", 0) == 0)
            session.currentIfIndex = 0x18000000 | uint32_t(std::stoul(line.substr(15)));
        else if (line == "!" || line == "end")
            session.currentIfIndex = 0;
        capture->contexts.push_back(session.currentIfIndex);
        if (line == capture->refuse) {
            err = "unknown interface";
            return -1;
        }
        return 0;
    };
}

// The relay manager's registration with the IFM, from its own queue.
Bytes ifmRegistration(const PeerQueue& relay, int instance) {
    Bytes m = message(QOR_IFM_REG_LEN, QOR_MT_IFM_REGISTER, relay.id(), queueOf(QOR_APP_IFM, instance));
    qor::putU16(m, 1956, QOR_APP_RELAYMGR);
    qor::putU16(m, 1958, uint16_t(instance));
    qor::putU32(m, 1968, relay.id());
    return m;
}

class CfgStoreReplay : public CfgStoreBase {
protected:
    void SetUp() override {
        capture = std::make_shared<Capture>();
        ChassisOptions options;
        options.replaySink = captureSink(capture);
        startWith(std::move(options));
    }
    // Registers as the relay manager and waits for the answer.
    void registerRelay() {
        ASSERT_TRUE(relay->send(ifmRegistration(*relay, instance_)));
        const auto answer = relay->recv();
        ASSERT_TRUE(answer.has_value());
        EXPECT_EQ(qor::u32At(*answer, QOR_IPC_OFF_TYPE), QOR_MT_IFM_REGISTER);
        EXPECT_EQ(qor::u32At(*answer, QOR_IFM_REG_OFF_RESULT), 0u);
    }
    void expectInitComplete() {
        const auto msg = relay->recv();
        ASSERT_TRUE(msg.has_value());
        EXPECT_EQ(msg->size(), QOR_IPC_HDR_LEN);
        EXPECT_EQ(qor::u32At(*msg, QOR_IPC_OFF_LENGTH), QOR_IPC_HDR_LEN);
        EXPECT_EQ(qor::u32At(*msg, QOR_IPC_OFF_TYPE), MT_DHCPV6_INIT_COMPLETE);
        EXPECT_EQ(qor::u32At(*msg, QOR_IPC_OFF_SRC_QUEUE), queueOf(QOR_APP_CFGSTORE, instance_));
        EXPECT_EQ(qor::u32At(*msg, QOR_IPC_OFF_DST_QUEUE), relay->id());
    }
    void writeStartupConfig(const std::string& text) {
        std::ofstream(runDir() + "/startup-config") << text;
    }

    std::shared_ptr<Capture> capture;
};

TEST_F(CfgStoreReplay, NoStartupConfigStillCompletesInitialisation) {
    std::filesystem::remove(runDir() + "/startup-config");
    registerRelay();
    expectInitComplete();
    std::lock_guard lock(capture->mu);
    EXPECT_TRUE(capture->lines.empty());
}

TEST_F(CfgStoreReplay, SavedConfigurationIsReplayedThroughOneSessionBeforeInitComplete) {
    writeGoldenConfig();
    ASSERT_EQ(writeMemory(), 0);
    // A fresh chassis (a restarted daemon) in the same run directory.
    stopChassis();
    ChassisOptions options;
    options.replaySink = captureSink(capture);
    startWith(std::move(options));
    registerRelay();
    expectInitComplete();
    std::lock_guard lock(capture->mu);
    EXPECT_EQ(capture->lines, linesOf(kGoldenRunningConfig));
    // The helper lines come inside their interface's context.
    const auto& lines = capture->lines;
    const auto at = std::find(lines.begin(), lines.end(), " ipv6 helper-address vrf red 2001:db8:ee::2");
    ASSERT_NE(at, lines.end());
    EXPECT_EQ(capture->contexts[size_t(at - lines.begin())], kVlan10);
}

TEST_F(CfgStoreReplay, RefusedLineIsReportedWithItsNumberAndTheRestStillRuns) {
    writeStartupConfig("interface vlan 10\r\n ipv6 helper-address 2001:db8::1\n\n"
                       "interface vlan 99\n ipv6 helper-address 2001:db8::2  \nend\n");
    capture->refuse = "interface vlan 99";
    ::testing::internal::CaptureStderr();
    registerRelay();
    expectInitComplete();
    const std::string log = ::testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("line 4: unknown interface"), std::string::npos) << log;
    std::lock_guard lock(capture->mu);
    // Carriage returns, trailing blanks and empty lines never reach the CLI.
    EXPECT_EQ(capture->lines,
              (std::vector<std::string>{"interface vlan 10", " ipv6 helper-address 2001:db8::1",
                                        "interface vlan 99", " ipv6 helper-address 2001:db8::2",
                                        "end"}));
}

TEST_F(CfgStoreReplay, AnotherClientsRegistrationStartsNoReplay) {
    writeStartupConfig("ipv6 dhcp relay source-interface vlan 30\n");
    PeerQueue agent(QOR_APP_AGENT, instance_);
    Bytes other = message(QOR_IFM_REG_LEN, QOR_MT_IFM_REGISTER, agent.id(), queueOf(QOR_APP_IFM, instance_));
    qor::putU16(other, 1956, QOR_APP_AGENT);
    ASSERT_TRUE(request(QOR_APP_IFM, instance_, other));
    EXPECT_EQ(qor::u32At(other, QOR_IFM_REG_OFF_RESULT), 0u);
    // Stopping waits for any replay in progress: whatever it sent is queued by now.
    stopChassis();
    EXPECT_FALSE(relay->pending().has_value());
    std::lock_guard lock(capture->mu);
    EXPECT_TRUE(capture->lines.empty());
}

TEST_F(CfgStoreReplay, RestartedRelayManagerIsGivenItsConfigurationAgain) {
    writeStartupConfig("ipv6 dhcp relay source-interface vlan 30\n");
    registerRelay();
    expectInitComplete();
    // The relay manager registers once in its life: another registration
    // is a new process with an empty configuration.
    registerRelay();
    expectInitComplete();
    stopChassis();
    EXPECT_FALSE(relay->pending().has_value());
    std::lock_guard lock(capture->mu);
    EXPECT_EQ(capture->lines, (std::vector<std::string>{"ipv6 dhcp relay source-interface vlan 30",
                                                        "ipv6 dhcp relay source-interface vlan 30"}));
}

TEST_F(CfgStoreReplay, WithReplayOffOnlyInitCompleteIsSent) {
    stopChassis();
    ChassisOptions options;
    options.replayStartup = false;
    options.replaySink = captureSink(capture);
    startWith(std::move(options));
    writeStartupConfig("ipv6 dhcp relay source-interface vlan 30\n");
    registerRelay();
    expectInitComplete();
    std::lock_guard lock(capture->mu);
    EXPECT_TRUE(capture->lines.empty());
}

// A store that cannot replace the startup-config says so.
class CfgStoreUnwritable : public CfgStore {};

TEST_F(CfgStoreUnwritable, WriteMemoryFailureIsAnsweredWithMinusOne) {
    std::filesystem::create_directory(runDir() + "/startup-config");
    insert(DHCPV6_CFG_ID_SRC_INTF, globalSourceKey(), "ipv6 dhcp relay source-interface vlan 30");
    EXPECT_EQ(writeMemory(), -1);
    EXPECT_TRUE(std::filesystem::is_directory(runDir() + "/startup-config"));
    EXPECT_FALSE(std::filesystem::exists(runDir() + "/startup-config.tmp"));
}

}  // namespace
