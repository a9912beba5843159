// The configuration store as the relay manager and an operator see it: lines
// written and removed by key, show running-config (in pieces), write memory,
// and the startup-config replay that ends with init-complete.
#include "chassis_test_util.h"

namespace {

using namespace chassistest;

constexpr uint32_t kVlan10 = 0x1800000A, kVlan20 = 0x18000014, kIf = DHCPV6_CFG_ID_INTERFACE;
const std::string kSrc30 = "ipv6 dhcp relay source-interface vlan 30", kEmpty = "!\nend\n";
const std::string kSrc40 = "ipv6 dhcp relay source-interface vlan 40";
const std::string kVlan10Block = "interface vlan 10\n ipv6 helper-address 2001:db8:ff::2\n ipv6 helper-address vrf "
                                 "blue 2001:db8:dd::2\n ipv6 helper-address vrf red 2001:db8:ee::2\n";

// A key: the ifIndex, then a sub-key, and for a helper a 32-byte VRF name field and the address.
Bytes cfgKey(uint32_t ifIndex, uint16_t sub = 0, const std::string& vrf = "", const std::string& address = "") {
    Bytes key(!sub ? 4 : address.empty() ? 6 : 38 + address.size(), 0);
    qor::putU32(key, 0, ifIndex);
    qor::putU16(key, 4, sub);
    qor::putBytes(key, 6, vrf.data(), vrf.size());
    qor::putBytes(key, 38, address.data(), address.size());
    return key;
}

class CfgStore : public ChassisFixture {
protected:
    void SetUp() override { start({}); }
    void start(ChassisOptions options) {
        ASSERT_EQ(startChassis(std::move(options)), 0);
        ASSERT_TRUE(relay.emplace(QOR_APP_RELAYMGR, instance_).ok());
    }
    // A message of `type` with the 552-byte record (key length the key's unless given), from `from`.
    Bytes record(uint32_t type, uint32_t id, const Bytes& key, const std::string& line, PeerQueue& from,
                 std::optional<uint32_t> keyLen = {}) {
        const size_t r = QOR_CHASSIS_OFF_BODY;
        Bytes m = message(r + QOR_CFG_RECORD_LEN, type, from.id(), queueOf(QOR_APP_CFGSTORE, instance_));
        qor::putBytes(m, r + QOR_CFG_OFF_KEY, key.data(), std::min(key.size(), QOR_CFG_KEY_MAX));
        putWords(m, r + QOR_CFG_OFF_ID, {id, 0, keyLen.value_or(uint32_t(key.size()))});
        qor::putBytes(m, r + QOR_CFG_OFF_LINE, line.data(), line.size());
        return m;
    }
    void send(uint32_t type, uint32_t id, const Bytes& key, const std::string& line, PeerQueue* from = nullptr) {
        ASSERT_TRUE((from ? *from : *relay).send(record(type, id, key, line, from ? *from : *relay)));
    }
    void helper(uint32_t type, uint32_t ifIndex, const std::string& vrf, const std::string& address) {
        const std::string line = " ipv6 helper-address " + (vrf.empty() ? "" : "vrf " + vrf + " ") + address;
        send(type, kIf, cfgKey(ifIndex, DHCPV6_CFG_KEY_HELPER, vrf, address), line);
    }
    // A request of `length` bytes to the store (for a show, from `offset` on), answered in place (empty: none).
    Bytes ask(uint32_t type, size_t length, uint32_t status, uint32_t offset = 0) {
        Bytes m = message(length, type, 0, queueOf(QOR_APP_CFGSTORE, instance_));
        putWords(m, QOR_IPC_OFF_STATUS, {status});
        qor::putU32(m, QOR_CFG_SHOW_OFF_TOTAL, offset);
        return request(QOR_APP_CFGSTORE, instance_, m) ? m : Bytes{};
    }
    // show running-config as the CLI reads it, piece by piece.
    std::string show(size_t length = QOR_IPC_MAX_MSG) {
        std::string text;
        for (uint32_t total = 1, piece = 1; text.size() < total && piece > 0;) {
            const Bytes m = ask(QOR_MT_CFG_SHOW_RUNNING, length, 0, uint32_t(text.size()));
            total = qor::u32At(m, QOR_CFG_SHOW_OFF_TOTAL), piece = qor::u32At(m, QOR_CFG_SHOW_OFF_PIECE);
            if (m.empty() || qor::u32At(m, QOR_IPC_OFF_STATUS) || piece > length - QOR_CFG_SHOW_OFF_TEXT) return "?";
            text.append(m.begin() + QOR_CFG_SHOW_OFF_TEXT, m.begin() + QOR_CFG_SHOW_OFF_TEXT + piece);
        }
        return text;
    }
    int writeMemory() {
        const Bytes m = ask(QOR_MT_CFG_WRITE_MEMORY, QOR_IPC_OFF_STATUS + 4, 0x5A5A5A5A);
        return m.empty() ? -99 : int(qor::u32At(m, QOR_IPC_OFF_STATUS));
    }

    std::optional<PeerQueue> relay;
};

TEST_F(CfgStore, RunningConfigKeepsKeyOrderAndRemovalsTakeOnlyTheirOwnLines) {
    // Written out of order: the store keeps key order, globals first, not arrival order.
    helper(QOR_MT_CFG_INSERT, kVlan20, "", "2001:db8:ff::2");
    send(QOR_MT_CFG_INSERT, DHCPV6_CFG_ID_DEBUG, {}, DHCPV6_DEBUG_ON_LINE);
    helper(QOR_MT_CFG_INSERT, kVlan10, "red", "2001:db8:ee::2");
    send(QOR_MT_CFG_INSERT, DHCPV6_CFG_ID_SRC_INTF, cfgKey(DHCPV6_CFG_KEY_SRC_INTF), kSrc30);  // keyed by a 32-bit 9
    send(QOR_MT_CFG_INSERT, kIf, cfgKey(kVlan20, DHCPV6_CFG_KEY_IF_SRC_INTF), " " + kSrc30);
    helper(QOR_MT_CFG_INSERT, kVlan10, "", "2001:db8:ff::2");
    helper(QOR_MT_CFG_INSERT, kVlan10, "blue", "2001:db8:dd::2");
    const std::string golden = kSrc30 + "\nDHCPv6RelayMgr:\n DHCPv6 debugging is on\n!\n" + kVlan10Block +
                               "!\ninterface vlan 20\n ipv6 helper-address 2001:db8:ff::2\n " + kSrc30 + "\n" + kEmpty;
    for (size_t length : {QOR_CFG_SHOW_OFF_TEXT + 32, size_t(1000), QOR_IPC_MAX_MSG})
        EXPECT_EQ(show(length), golden) << length;
    // An offset past the end is refused, with the total to start again from.
    const Bytes past = ask(QOR_MT_CFG_SHOW_RUNNING, 512, 0, 100000);
    EXPECT_EQ(qor::u32At(past, QOR_IPC_OFF_STATUS), uint32_t(-1));
    EXPECT_EQ(qor::u32At(past, QOR_CFG_SHOW_OFF_TOTAL), golden.size());
    EXPECT_EQ(qor::u32At(past, QOR_CFG_SHOW_OFF_PIECE), 0u);
    // Another application's lines are its own: its removals leave the relay manager's.
    PeerQueue other(20, instance_);
    send(QOR_MT_CFG_INSERT, kIf, cfgKey(kVlan10), " description uplink", &other);
    send(QOR_MT_CFG_REMOVE_EXACT, kIf, cfgKey(kVlan10, DHCPV6_CFG_KEY_HELPER, "", "2001:db8:ff::2"), "", &other);
    send(QOR_MT_CFG_REMOVE_NODE, kIf, cfgKey(kVlan10), "", &other);
    // The key alone names the line, not one whose key it is a prefix of, whatever " no" text comes with it.
    helper(QOR_MT_CFG_INSERT, kVlan20, "", "2001:db8:ff::20");
    helper(QOR_MT_CFG_REMOVE_EXACT, kVlan20, "", "2001:db8:ff::2");
    send(QOR_MT_CFG_REMOVE_EXACT, DHCPV6_CFG_ID_DEBUG, {}, "");
    // An insert with an existing key replaces the line.
    send(QOR_MT_CFG_INSERT, DHCPV6_CFG_ID_SRC_INTF, cfgKey(DHCPV6_CFG_KEY_SRC_INTF), kSrc40);
    const std::string vlan20 = "!\ninterface vlan 20\n ipv6 helper-address 2001:db8:ff::20\n " + kSrc30 + "\n";
    EXPECT_EQ(show(), kSrc40 + "\n!\n" + kVlan10Block + vlan20 + kEmpty);
    // A node removal takes every line under the key prefix: the helpers, not the source interface.
    send(QOR_MT_CFG_REMOVE_NODE, kIf, cfgKey(kVlan10), "");
    send(QOR_MT_CFG_REMOVE_NODE, kIf, cfgKey(kVlan20, DHCPV6_CFG_KEY_HELPER), "");
    EXPECT_EQ(show(), kSrc40 + "\n!\ninterface vlan 20\n " + kSrc30 + "\n" + kEmpty);
    // write memory saves it; a startup-config that cannot be replaced stays, answered -1.
    EXPECT_EQ(writeMemory(), 0);
    const std::string saved = runDir() + "/startup-config";
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(std::ifstream(saved).rdbuf()), {}), show());
    std::filesystem::remove(saved);
    std::filesystem::create_directory(saved);
    EXPECT_EQ(writeMemory(), -1);
    std::filesystem::remove(saved);
}

// A record's key length and the message's length are checked before use.
TEST_F(CfgStore, MalformedRecordsAreDroppedWellFormedOnesKept) {
    // (key length, bytes cut off the message's end, kept): the last two one byte short, header only.
    const struct { uint32_t keyLen; size_t cut; bool kept; } rows[] = {{QOR_CFG_KEY_MAX, 0, true},
        {QOR_CFG_KEY_MAX + 1, 0, false}, {0xFFFFFFFF, 0, false}, {8, 1, false}, {8, QOR_CFG_RECORD_LEN + 16, false}};
    Bytes key(QOR_CFG_KEY_MAX, 0x41);
    qor::putU32(key, 0, kVlan10);
    for (const auto& row : rows) {
        Bytes m = record(QOR_MT_CFG_INSERT, kIf, key, " ipv6 helper-address 2001:db8::1", *relay, row.keyLen);
        m.resize(m.size() - row.cut);
        qor::putU32(m, QOR_IPC_OFF_LENGTH, uint32_t(m.size()));
        ASSERT_TRUE(relay->send(m));
        EXPECT_EQ(show(), row.kept ? "!\ninterface vlan 10\n ipv6 helper-address 2001:db8::1\n" + kEmpty : kEmpty)
            << row.keyLen << " " << row.cut;
        send(QOR_MT_CFG_REMOVE_NODE, kIf, cfgKey(kVlan10), "");
    }
}

// The relay manager (re)starting: its registration is answered, the
// startup-config replayed through one CLI session (which refuses
// "interface vlan 99"), then init-complete sent.
TEST_F(CfgStore, EachRelayRegistrationReplaysTheStartupConfigBeforeInitComplete) {
    std::ofstream(runDir() + "/startup-config") << "interface vlan 10\r\n ipv6 helper-address 2001:db8::1\n\n"
                                                   "interface vlan 99\n ipv6 helper-address 2001:db8::2  \nend\n";
    auto replayed = std::make_shared<std::string>();  // each line, with the VLAN its session was in
    stopChassis();
    ChassisOptions options;
    options.replaySink = [replayed](CliSession& session, const std::string& line, std::string&, std::string& err) {
        if (line.rfind("interface vlan ", 0) == 0) session.currentIfIndex = std::stoul(line.substr(15));
        *replayed += line + " @" + std::to_string(session.currentIfIndex) + "\n";
        err = "unknown interface";
        return line == "interface vlan 99" ? -1 : 0;
    };
    start(std::move(options));
    ::testing::internal::CaptureStderr();
    for (int run = 0; run < 2; ++run) {  // the second: a new relay manager process, with an empty configuration
        ASSERT_TRUE(relay->send(ifmRegistration(QOR_APP_RELAYMGR, instance_, relay->id())));
        const auto answer = relay->recv(), done = relay->recv();
        ASSERT_TRUE(answer && done);
        EXPECT_EQ(qor::u32At(*answer, QOR_IFM_REG_OFF_RESULT), 0u);
        EXPECT_EQ(*done, message(QOR_IPC_HDR_LEN, MT_DHCPV6_INIT_COMPLETE, queueOf(QOR_APP_CFGSTORE, instance_),
                                 relay->id()));
    }
    const std::string log = ::testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("line 4: unknown interface"), std::string::npos) << log;
    // Carriage returns, trailing blanks and empty lines never reach the CLI; a refused line stops nothing.
    const std::string lines = "interface vlan 10 @10\n ipv6 helper-address 2001:db8::1 @10\n"
                              "interface vlan 99 @99\n ipv6 helper-address 2001:db8::2 @99\nend @99\n";
    EXPECT_EQ(*replayed, lines + lines);
}

}  // namespace
