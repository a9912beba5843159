// The real daemon started with --external-chassis: this test plays the IFM,
// the ACL manager, the configuration store, the RTM and the MRTM on their own
// queues, and checks that each gets what the daemon owes it.
#include <gtest/gtest.h>
#include <poll.h>

#include <array>
#include <atomic>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "daemon_harness.h"
#include "dhcpv6RelayMsgs.h"
#include "qor/bytes.h"
#include "qor/chassis.h"
#include "qor/ifm.h"
#include "qor/ipc.h"
#include "qor/swp.h"
#include "qor/task.h"

namespace {

using harness::eventually;
using qor::u32At;

// The zero-terminated text at `offset`, never read past the message's end.
std::string textAt(const std::vector<uint8_t>& m, size_t offset) {
    if (offset >= m.size()) return "<past the end>";
    const char* p = reinterpret_cast<const char*>(m.data() + offset);
    return std::string(p, strnlen(p, m.size() - offset));
}

struct Msg {
    std::vector<uint8_t> bytes;
    uint32_t type() const { return u32At(bytes, QOR_IPC_OFF_TYPE); }
};

// One chassis process played by the test: records every message and answers
// the ones its real counterpart answers.
class Peer {
public:
    explicit Peer(int app) {
        queue_ = Key_getReqQueue(qorTaskStartup(0, nullptr, app, 0));
        if (queue_ >= 0) thread_ = std::thread([this] { serve(); });
    }
    ~Peer() {
        stop_ = true;
        if (thread_.joinable()) thread_.join();
    }
    bool ok() const { return queue_ >= 0; }
    std::vector<Msg> received(uint32_t type) {
        std::lock_guard lock(mu_);
        std::vector<Msg> out;
        for (const auto& m : msgs_)
            if (m.type() == type) out.push_back(m);
        return out;
    }

private:
    void serve() {
        std::array<uint8_t, QOR_IPC_MAX_MSG> buf{};
        pollfd pfd{Key_getSocketFd(queue_), POLLIN, 0};
        while (!stop_) {
            if (poll(&pfd, 1, 20) <= 0) continue;
            const int n = qorIpcRecv(queue_, buf.data(), uint32_t(buf.size()), 0, 0, 0);
            if (n <= 0) continue;
            Msg m{std::vector<uint8_t>(buf.begin(), buf.begin() + n)};
            answer(m);
            std::lock_guard lock(mu_);
            msgs_.push_back(std::move(m));
        }
    }
    void answer(Msg& m) {
        qor::MutByteView b(m.bytes);
        switch (m.type()) {
        case QOR_MT_IFM_REGISTER:
            qor::putU32(b, QOR_IFM_REG_OFF_RESULT, 0);
            qor::putU32(b, QOR_IPC_OFF_STATUS, 0);
            qorIpcReply(queue_, m.bytes.data(), uint32_t(m.bytes.size()));
            break;
        case QOR_MT_IFM_PORT_NOTICE:
        case QOR_MT_RTM_REGISTER:
            qor::putU32(b, QOR_IPC_OFF_STATUS, 0);
            qorIpcReply(queue_, m.bytes.data(), uint32_t(m.bytes.size()));
            break;
        case MT_MRTM_REGISTER:
            qor::putU32(b, 20, 0);
            qor::putU32(b, 60, 7);
            qorIpcReply(queue_, m.bytes.data(), uint32_t(m.bytes.size()));
            break;
        default:
            // SWP messages (ACL entries, MRTM index requests) are acknowledged.
            if (u32At(m.bytes, QOR_SWP_OFF_SEQ) != 0 && m.type() != MT_SWP_ACK)
                qorSwpCkSeqAndAck(m.bytes.data(), uint32_t(m.bytes.size()), &seq_, queue_);
            break;
        }
    }

    int queue_ = -1;
    std::atomic<bool> stop_{false};
    std::thread thread_;
    std::mutex mu_;
    std::vector<Msg> msgs_;
    QOR_SWP_SEQ seq_{};  // touched by the serving thread only
};

class ExternalChassis : public ::testing::Test {
protected:
    static inline std::string dir;
    static inline std::unique_ptr<harness::Daemon> daemon;
    static inline std::unique_ptr<Peer> ifm, acl, cfg, rtm, mrtm;

    static void SetUpTestSuite() {
        dir = harness::makeTempDir("ext");
        qorSetRunDir(dir.c_str());
        qorPlatformSetIdentity(20, 0);
        ifm = std::make_unique<Peer>(QOR_APP_IFM);
        acl = std::make_unique<Peer>(QOR_APP_ACL);
        cfg = std::make_unique<Peer>(QOR_APP_CFGSTORE);
        rtm = std::make_unique<Peer>(QOR_APP_RTM);
        mrtm = std::make_unique<Peer>(QOR_APP_MRTM);
        daemon = std::make_unique<harness::Daemon>(dir);
        daemon->start({"--external-chassis"});
    }
    static void TearDownTestSuite() {
        daemon.reset();  // the daemon goes before the peers it talks to
        for (auto* p : {&ifm, &acl, &cfg, &rtm, &mrtm}) p->reset();
        harness::removeTree(dir);
    }
    // Sends a command as the CLI would and returns the daemon's status.
    static int command(std::vector<uint8_t>& msg, uint32_t code) {
        qorIpcSetSourceHeader(msg, uint32_t(msg.size()), MT_DHCPV6_CMD, QOR_APP_RELAYMGR, 0,
                              QOR_QUEUE_REQUEST);
        qor::putU32(msg, QOR_IPC_OFF_COMMAND, code);
        if (qorIpcRequest(QOR_APP_RELAYMGR, 0, msg.data(), uint32_t(msg.size()), 300) != 0) return -99;
        return int(u32At(msg, QOR_IPC_OFF_STATUS));
    }
    // The first (or last) message of `type` `peer` has received, once there is one.
    static std::vector<uint8_t> await(Peer& peer, uint32_t type, bool first = false) {
        if (!eventually([&] { return !peer.received(type).empty(); })) return {};
        const auto all = peer.received(type);
        return first ? all.front().bytes : all.back().bytes;
    }
};

// The byte layouts are the unit tests' business; here every peer must get
// its message from the real daemon over the real queues.
TEST_F(ExternalChassis, RegistersWithEveryPeerThenServesCommands) {
    ASSERT_TRUE(ifm->ok() && acl->ok() && cfg->ok() && rtm->ok() && mrtm->ok());
    const auto req = await(*ifm, QOR_MT_IFM_REGISTER, true);
    ASSERT_EQ(req.size(), QOR_IFM_REG_LEN) << "no IFM registration? daemon output in " << dir << "/daemon.out";
    EXPECT_EQ(u32At(req, QOR_IPC_OFF_LENGTH), QOR_IFM_REG_LEN);
    EXPECT_EQ(u32At(req, 1968), qor_getQueueId(336, 0, 1)) << "the IFM answers the relay's queue";
    ASSERT_FALSE(await(*rtm, QOR_MT_RTM_REGISTER).empty());
    EXPECT_FALSE(mrtm->received(MT_MRTM_REGISTER).empty());
    std::vector<uint8_t> msg(DHCPV6_LOG_MSG_LEN);
    qor::putU32(msg, DHCPV6_LOG_OFF_DEBUG_SWITCH, 1);
    qor::putU32(msg, DHCPV6_LOG_OFF_LEVEL, 24);
    ASSERT_TRUE(eventually([&] {
        std::vector<uint8_t> m = msg;
        return command(m, DHCP_LOG_LEVEL) == 0;
    }));
    const auto rec = await(*cfg, QOR_MT_CFG_INSERT);
    EXPECT_EQ(u32At(rec, QOR_CHASSIS_OFF_BODY + 256), 366u);
    EXPECT_EQ(textAt(rec, QOR_CHASSIS_OFF_BODY + 268), DHCPV6_DEBUG_ON_LINE);
}

TEST_F(ExternalChassis, HelperAddressSendsNoticeTrapAndConfigurationRecords) {
    uint32_t vlan10 = 0;
    ASSERT_EQ(ifmNameToIfIndex("vlan 10", &vlan10), 0);
    std::vector<uint8_t> msg(DHCPV6_RLY_MSG_LEN);
    qor::putU32(msg, DHCPV6_RLY_OFF_OPERATION, 1);
    qor::putU32(msg, DHCPV6_RLY_OFF_IFINDEX, vlan10);
    const uint8_t addr[16] = {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 5};
    std::memcpy(msg.data() + DHCPV6_RLY_OFF_ADDR, addr, 16);
    ASSERT_FALSE(await(*rtm, QOR_MT_RTM_REGISTER).empty());
    ASSERT_EQ(command(msg, DHCP_RELAYADDR_CONFIG), 0);
    const size_t body = QOR_CHASSIS_OFF_BODY;
    const auto notices = ifm->received(QOR_MT_IFM_PORT_NOTICE);
    ASSERT_FALSE(notices.empty());
    EXPECT_EQ(u32At(notices.back().bytes, body + 64), vlan10);
    EXPECT_EQ(notices.back().bytes[body + 68], 0) << "becomes a relay interface";
    const auto a = await(*acl, QOR_MT_ACL_SYS_FLOW, true);
    EXPECT_EQ(u32At(a, body), 30u);
    EXPECT_EQ(u32At(a, body + 24), 1u);
    const std::string text = " ipv6 helper-address 2001:db8::5";
    EXPECT_EQ(textAt(await(*cfg, QOR_MT_CFG_SYNC), body + 272), text);
    bool inserted = false;  // the helper line, keyed on its interface
    for (const auto& m : cfg->received(QOR_MT_CFG_INSERT)) {
        const auto& r = m.bytes;
        inserted |= u32At(r, body + 256) == 119 && u32At(r, body) == vlan10 && textAt(r, body + 268) == text;
    }
    EXPECT_TRUE(inserted);
}

}  // namespace
