// The real dhcpv6relaymgr in a temporary run directory (kept, with its output in daemon.out, when a
// test failed), configured through dhcpv6-cli, or with --external-chassis while this test plays the
// IFM, ACL manager, configuration store, RTM and MRTM.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <mutex>
#include <thread>

#include "dhcpv6RelayMsgs.h"
#include "qor/bytes.h"
#include "qor/chassis.h"
#include "qor/ifm.h"
#include "qor/ipc.h"
#include "qor/swp.h"
#include "qor/task.h"

namespace {

using Bytes = std::vector<uint8_t>;
using qor::putU32;
using qor::u32At;

// Polls `pred` until it holds, bounded by a number of tries, never by a clock.
bool eventually(const std::function<bool()>& pred) {
    for (int i = 0; i < 200 && !pred(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(50));
    return pred();
}

struct Daemon {
    std::string dir = [] {
        std::string templ = "/tmp/dhcpv6-test-XXXXXX";
        return mkdtemp(templ.data()) ? templ : "";
    }();
    pid_t pid = -1;

    ~Daemon() {
        kill();
        std::error_code ec;
        if (!dir.empty() && !::testing::Test::HasFailure()) std::filesystem::remove_all(dir, ec);
    }
    void start(const char* option, const char* arg = nullptr) {  // a null arg ends the list
        if ((pid = fork()) != 0) return;
        if (std::freopen((dir + "/daemon.out").c_str(), "a", stdout)) dup2(fileno(stdout), 2);
        execl(DHCPV6RELAYMGR_BIN, DHCPV6RELAYMGR_BIN, "--rundir", dir.c_str(), option, arg, nullptr);
        _exit(127);
    }
    // SIGKILL, as an operator's kill -9 or a crash would end it.
    void kill() {
        if (pid > 0 && ::kill(pid, SIGKILL) == 0) waitpid(pid, nullptr, 0);
        pid = -1;
    }
    // One dhcpv6-cli session running the ';'-separated commands: its exit status and output.
    std::pair<int, std::string> cli(const std::string& commands, const std::string& options = "") const {
        std::string cmd = std::string(DHCPV6CLI_BIN) + " --rundir " + dir + " " + options, out;
        for (size_t at = 0, end; at < commands.size(); at = end + 1)
            cmd += " -c '" + commands.substr(at, (end = std::min(commands.find(';', at), commands.size())) - at) + "'";
        FILE* p = popen((cmd + " 2>&1").c_str(), "r");
        char buf[4096];
        for (size_t n; p && (n = fread(buf, 1, sizeof buf, p)) > 0;) out.append(buf, n);
        const int st = p ? pclose(p) : -1;
        return {WIFEXITED(st) ? WEXITSTATUS(st) : -1, out};
    }
};

// An operator's configuration survives write memory and a restart (the store
// replays the startup-config once the daemon has registered); bad input is refused.
TEST(DaemonCli, ConfigurationSurvivesWriteMemoryAndARestart) {
    Daemon daemon;
    ASSERT_FALSE(daemon.dir.empty());
    const std::string hosts = daemon.dir + "/hosts.ini";
    std::ofstream(hosts) << "[vrf red]\nid = 1\ntable = 101\n[interface vlan 10]\n[interface vlan 30]\n";
    auto show = [&] { return daemon.cli("show running-config"); };
    daemon.start("--host-map", hosts.c_str());
    ASSERT_TRUE(eventually([&] { return show().first == 0; })) << daemon.dir;
    const auto bad = daemon.cli("interface vlan 10;ipv6 helper-address 2001:db8::zz");
    EXPECT_NE(bad.first, 0);
    EXPECT_NE(bad.second.find("Invalid IPv6 address"), std::string::npos) << bad.second;
    const auto r = daemon.cli("interface vlan 10;ipv6 helper-address 2001:db8:ff::2;ipv6 helper-address vrf red "
                              "2001:db8:ee::2;ipv6 dhcp relay source-interface vlan 30;end;debug ipv6 dhcp;write memory");
    ASSERT_EQ(r.first, 0) << r.second;
    const std::string before = "DHCPv6RelayMgr:\n DHCPv6 debugging is on\n!\ninterface vlan 10\n ipv6 helper-address "
                               "2001:db8:ff::2\n ipv6 helper-address vrf red 2001:db8:ee::2\n ipv6 dhcp relay "
                               "source-interface vlan 30\n!\nend\n";
    EXPECT_EQ(show().second, before);
    daemon.kill();
    daemon.start("--host-map", hosts.c_str());
    EXPECT_TRUE(eventually([&] { return show().second == before; })) << show().second;
    const std::string trapOn = "[{\"protocol\":30,\"name\":\"dhcpv6-relay\",\"enabled\":true}]\n";
    EXPECT_EQ(daemon.cli("show acl trap", "--json").second, trapOn);
}

// The chassis processes, played on one thread: every message is kept, then
// answered as the real service would (SWP messages acknowledged).
struct Chassis {
    Chassis() {
        for (int app : {QOR_APP_IFM, QOR_APP_ACL, QOR_APP_CFGSTORE, QOR_APP_RTM, QOR_APP_MRTM}) {
            queues_.push_back(Key_getReqQueue(qorTaskStartup(0, nullptr, app, 0)));
            fds_.push_back({Key_getSocketFd(queues_.back()), POLLIN, 0});
        }
        thread_ = std::thread([this] {
            for (Bytes buf(QOR_IPC_MAX_MSG); !stop_;) {
                if (poll(fds_.data(), fds_.size(), 20) <= 0) continue;
                for (size_t i = 0; i < fds_.size(); ++i) {
                    const int n = fds_[i].revents ? qorIpcRecv(queues_[i], buf.data(), QOR_IPC_MAX_MSG, 0, 0, 0) : 0;
                    if (n > 0) serve(i, Bytes(buf.begin(), buf.begin() + n));
                }
            }
        });
    }
    ~Chassis() { stop_ = true, thread_.join(); }
    bool ok() const { return std::count(queues_.begin(), queues_.end(), -1) == 0; }
    // The last message of `type`, once there is one; empty when none came.
    Bytes last(uint32_t type) {
        Bytes out;
        eventually([&] {
            std::lock_guard lock(mu_);
            for (const auto& m : msgs_)
                if (u32At(m, QOR_IPC_OFF_TYPE) == type) out = m;
            return !out.empty();
        });
        return out;
    }
    void serve(size_t i, Bytes m) {
        std::lock_guard<std::mutex>{mu_}, msgs_.push_back(m);  // kept before the answer lets the daemon go on
        const uint32_t type = u32At(m, QOR_IPC_OFF_TYPE);
        if (type == QOR_MT_IFM_REGISTER) putU32(m, QOR_IFM_REG_OFF_RESULT, 0);
        if (type == MT_MRTM_REGISTER) putU32(m, 60, 7);  // the client id; its status (20) is 0
        if (type == QOR_MT_IFM_REGISTER || type == QOR_MT_IFM_PORT_NOTICE || type == QOR_MT_RTM_REGISTER ||
            type == MT_MRTM_REGISTER) {
            putU32(m, type == MT_MRTM_REGISTER ? 20 : QOR_IPC_OFF_STATUS, 0);
            qorIpcReply(queues_[i], m.data(), uint32_t(m.size()));
        } else if (u32At(m, QOR_SWP_OFF_SEQ) != 0 && type != MT_SWP_ACK) {
            qorSwpCkSeqAndAck(m.data(), uint32_t(m.size()), &seqs_[i], queues_[i]);
        }
    }

    std::vector<int> queues_;
    std::vector<pollfd> fds_;
    QOR_SWP_SEQ seqs_[5] = {};  // the serving thread's only
    std::atomic<bool> stop_{false};
    std::thread thread_;
    std::mutex mu_;
    std::vector<Bytes> msgs_;
};

// The zero-terminated text at `offset`, never read past the message's end.
std::string textAt(const Bytes& m, size_t offset) {
    const char* p = offset < m.size() ? reinterpret_cast<const char*>(m.data() + offset) : "";
    return std::string(p, strnlen(p, m.size() - std::min(offset, m.size())));
}

TEST(ExternalChassis, RegistersWithEveryPeerAndAHelperAddressSendsNoticeTrapAndConfigurationRecords) {
    Daemon daemon;
    qorSetRunDir(daemon.dir.c_str());
    qorPlatformSetIdentity(20, 0);
    Chassis chassis;
    ASSERT_TRUE(chassis.ok());
    daemon.start("--external-chassis");
    const Bytes reg = chassis.last(QOR_MT_IFM_REGISTER);
    ASSERT_EQ(reg.size(), QOR_IFM_REG_LEN) << "no IFM registration? see " << daemon.dir << "/daemon.out";
    EXPECT_EQ(qor::u16At(reg, 1956), 336u) << "the registering application";
    EXPECT_EQ(u32At(reg, 1968), qor_getQueueId(336, 0, 1)) << "the IFM answers the relay's queue";
    EXPECT_EQ(u32At(reg, 1976), 51u);
    EXPECT_EQ(u32At(reg, 2616), 0xFFFFFFFFu);
    EXPECT_FALSE(chassis.last(MT_MRTM_REGISTER).empty());
    ASSERT_FALSE(chassis.last(QOR_MT_RTM_REGISTER).empty());
    // DHCP_RELAYADDR_CONFIG as the CLI sends it: add 2001:db8::5 on VLAN 10.
    uint32_t vlan10 = 0;
    ASSERT_EQ(ifmNameToIfIndex("vlan 10", &vlan10), 0);
    Bytes msg(DHCPV6_RLY_MSG_LEN);
    qorIpcSetSourceHeader(msg, uint32_t(msg.size()), MT_DHCPV6_CMD, QOR_APP_RELAYMGR, 0, QOR_QUEUE_REQUEST);
    putU32(msg, QOR_IPC_OFF_COMMAND, DHCP_RELAYADDR_CONFIG);
    putU32(msg, DHCPV6_RLY_OFF_OPERATION, 1);
    putU32(msg, DHCPV6_RLY_OFF_IFINDEX, vlan10);
    const uint8_t addr[16] = {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 5};
    qor::putBytes(msg, DHCPV6_RLY_OFF_ADDR, addr, 16);
    ASSERT_EQ(qorIpcRequest(QOR_APP_RELAYMGR, 0, msg.data(), uint32_t(msg.size()), 300), 0);
    EXPECT_EQ(u32At(msg, QOR_IPC_OFF_STATUS), 0u);
    const size_t body = QOR_CHASSIS_OFF_BODY;
    const Bytes notice = chassis.last(QOR_MT_IFM_PORT_NOTICE), trap = chassis.last(QOR_MT_ACL_SYS_FLOW);
    EXPECT_EQ(u32At(notice, body + 64), vlan10);
    EXPECT_EQ(notice.at(body + 68), 0) << "becomes a relay interface (trust 0)";
    EXPECT_EQ(u32At(trap, body), 30u) << "the DHCPv6 relay's protocol";
    EXPECT_EQ(u32At(trap, body + 24), 1u) << "switched on";
    const std::string text = " ipv6 helper-address 2001:db8::5";
    EXPECT_EQ(textAt(chassis.last(QOR_MT_CFG_SYNC), body + 272), text);
    const Bytes rec = chassis.last(QOR_MT_CFG_INSERT);  // the helper line, keyed on its interface
    EXPECT_EQ(u32At(rec, body + 256), 119u);
    EXPECT_EQ(u32At(rec, body), vlan10);
    EXPECT_EQ(textAt(rec, body + 268), text);
    daemon.kill();  // before the peers it talks to
}

}  // namespace
