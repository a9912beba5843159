// chassis_test_util.h -- what the chassis tests share: a run directory per
// suite, a chassis instance per test, a queue the test plays a peer on, and
// builders for the records peers send.
#pragma once

#include <gtest/gtest.h>
#include <poll.h>
#include <sched.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Chassis.h"
#include "dhcpv6RelayMsgs.h"
#include "qor/bytes.h"
#include "qor/cfg.h"
#include "qor/chassis.h"
#include "qor/ipc.h"
#include "qor/swp.h"
#include "qor/task.h"

namespace chassistest {

using Bytes = std::vector<uint8_t>;

inline uint32_t queueOf(int app, int instance) { return qor_getQueueId(app, instance, QOR_QUEUE_REQUEST); }

// A message of `length` bytes addressed from `srcQueue` to `dstQueue`.
inline Bytes message(size_t length, uint32_t type, uint32_t srcQueue, uint32_t dstQueue) {
    Bytes m(length, 0);
    qorIpcBuildHeader(m, uint32_t(length), type, qor_sysGetIpAddr(), srcQueue, qor_sysGetIpAddr(), dstQueue);
    return m;
}

// Consecutive 32-bit fields from `offset` on.
inline void putWords(Bytes& m, size_t offset, std::initializer_list<uint32_t> words) {
    for (uint32_t w : words) qor::putU32(m, std::exchange(offset, offset + 4), w);
}

// A service's queue holds only a few datagrams (net.unix.max_dgram_qlen):
// during a burst `op` may be refused (-1) and is tried again; the tries are
// a hang guard only.
template <typename Op>
inline int retryRefused(Op op) {
    int rc = -1;
    for (int attempt = 0; attempt < 5000 && (rc = op()) == -1; ++attempt)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return rc;
}

// A request answered in place; false when no answer came.
inline bool request(int app, int instance, Bytes& msg) {
    const Bytes sent = msg;
    return retryRefused([&] {
               msg = sent;
               return qorIpcRequest(app, instance, msg.data(), uint32_t(msg.size()), 500);
           }) == 0;
}

// The queue of a peer the test plays (the relay manager, a client).
class PeerQueue {
public:
    PeerQueue(int app, int instance) : id_(queueOf(app, instance)) {
        queue_ = Key_getReqQueue(qorTaskStartup(0, nullptr, app, instance));
    }
    bool ok() const { return queue_ >= 0; }
    uint32_t id() const { return id_; }
    int handle() const { return queue_; }
    bool send(const Bytes& msg) {
        return retryRefused([&] { return qorIpcSend(queue_, msg.data(), uint32_t(msg.size()), 0) == 0 ? 0 : -1; }) == 0;
    }
    // The next message to arrive (none within a hang guard: nullopt).
    std::optional<Bytes> recv() {
        pollfd p{Key_getSocketFd(queue_), POLLIN, 0};
        return poll(&p, 1, 5000) > 0 ? take(0) : std::nullopt;
    }
    // A message already waiting, without waiting.
    std::optional<Bytes> pending() { return take(QOR_IPC_NOWAIT); }

private:
    std::optional<Bytes> take(int flags) {
        Bytes buf(QOR_IPC_MAX_MSG);
        const int n = qorIpcRecv(queue_, buf.data(), uint32_t(buf.size()), flags, 0, 0);
        if (n < 0) return std::nullopt;
        buf.resize(size_t(n));
        return buf;
    }
    uint32_t id_;
    int queue_ = -1;
};

// An IFM registration from application `app`'s queue `from`.
inline Bytes ifmRegistration(uint16_t app, int instance, uint32_t from) {
    Bytes m = message(QOR_IFM_REG_LEN, QOR_MT_IFM_REGISTER, from, queueOf(QOR_APP_IFM, instance));
    qor::putU16(m, 1956, app);
    qor::putU16(m, 1958, uint16_t(instance));
    qor::putU32(m, 1968, from);
    return m;
}

// A configuration key: ifIndex, then (when given) a sub-key, a VRF name
// field of 32 bytes and an address.
inline Bytes cfgKey(uint32_t ifIndex, std::optional<uint16_t> sub = std::nullopt, const std::string& vrf = "",
                    const std::string& address = "") {
    Bytes key(sub ? (address.empty() && vrf.empty() ? 6 : 38 + address.size()) : 4, 0);
    qor::putU32(key, 0, ifIndex);
    if (sub) qor::putU16(key, 4, *sub);
    if (key.size() > 6) {
        qor::putBytes(key, 6, vrf.data(), std::min<size_t>(vrf.size(), 32));
        qor::putBytes(key, 38, address.data(), address.size());
    }
    return key;
}
inline Bytes helperKey(uint32_t ifIndex, const std::string& vrf, const std::string& address) {
    return cfgKey(ifIndex, DHCPV6_CFG_KEY_HELPER, vrf, address);
}

// The 552-byte record; keyLen is the key's size unless given.
inline Bytes cfgRecord(uint32_t id, const Bytes& key, const std::string& line,
                       std::optional<uint32_t> keyLen = std::nullopt) {
    Bytes r(QOR_CFG_RECORD_LEN, 0);
    qor::putBytes(r, QOR_CFG_OFF_KEY, key.data(), std::min(key.size(), QOR_CFG_KEY_MAX));
    qor::putU32(r, QOR_CFG_OFF_ID, id);
    qor::putU32(r, QOR_CFG_OFF_KEYLEN, keyLen.value_or(uint32_t(key.size())));
    qor::putBytes(r, QOR_CFG_OFF_LINE, line.data(), std::min(line.size(), QOR_CFG_LINE_MAX - 1));
    return r;
}

// A configuration-store message with `body`, from `from` to the store.
inline Bytes cfgMessage(uint32_t type, const PeerQueue& from, int instance, const Bytes& body) {
    Bytes m = message(QOR_CHASSIS_OFF_BODY + body.size(), type, from.id(), queueOf(QOR_APP_CFGSTORE, instance));
    qor::putBytes(m, QOR_CHASSIS_OFF_BODY, body.data(), body.size());
    return m;
}

// show running-config, piece by piece with requests of `requestLen` bytes.
inline std::optional<std::string> showRunning(int instance, size_t requestLen = QOR_IPC_MAX_MSG) {
    std::string text;
    for (;;) {
        Bytes m = message(requestLen, QOR_MT_CFG_SHOW_RUNNING, 0, queueOf(QOR_APP_CFGSTORE, instance));
        qor::putU32(m, QOR_CFG_SHOW_OFF_TOTAL, uint32_t(text.size()));
        if (!request(QOR_APP_CFGSTORE, instance, m)) return std::nullopt;
        const uint32_t total = qor::u32At(m, QOR_CFG_SHOW_OFF_TOTAL);
        const uint32_t piece = qor::u32At(m, QOR_CFG_SHOW_OFF_PIECE);
        if (qor::u32At(m, QOR_IPC_OFF_STATUS) != 0 || piece > requestLen - QOR_CFG_SHOW_OFF_TEXT) return std::nullopt;
        text.append(m.begin() + QOR_CFG_SHOW_OFF_TEXT, m.begin() + QOR_CFG_SHOW_OFF_TEXT + piece);
        if (text.size() >= total) return text;
        if (piece == 0) return std::nullopt;
    }
}

// A suite's run directory, and a fresh chassis instance per test: queues of
// earlier tests stay bound to the process, so instances are never reused.
class ChassisFixture : public ::testing::Test {
protected:
    static std::string& runDir() {
        static std::string dir;
        return dir;
    }
    static void SetUpTestSuite() {
        std::string tag = ::testing::UnitTest::GetInstance()->current_test_suite()->name();
        std::replace(tag.begin(), tag.end(), '/', '-');
        std::string templ = (std::filesystem::temp_directory_path() / "chassis-").string() + tag + "-XXXXXX";
        runDir() = mkdtemp(templ.data()) ? templ : std::string();
        ASSERT_FALSE(runDir().empty());
        qorSetRunDir(runDir().c_str());
    }
    static void TearDownTestSuite() {
        std::error_code ec;
        std::filesystem::remove_all(runDir(), ec);
    }
    void TearDown() override { stopChassis(); }
    // Starts the chassis on a fresh instance; 0 or qorChassisStart's -1.
    int startChassis(ChassisOptions options = {}) {
        static int next = 1;
        options.instance = instance_ = next++;
        const int rc = qorChassisStart(options);
        started_ = rc == 0;
        return rc;
    }
    void stopChassis() {
        if (started_) qorChassisStop(instance_);
        started_ = false;
    }

    // Starts the chassis with a host map of this text.
    int startWithMap(const std::string& map) {
        ChassisOptions options;
        options.hostMapPath = runDir() + "/hosts-" + std::to_string(getpid()) + ".ini";
        std::ofstream(options.hostMapPath) << map;
        return startChassis(options);
    }

    // Runs body in a forked child inside a fresh network namespace (root
    // only; skipped otherwise); the child's failures print there and fail
    // the test here.
    void inNamespace(const std::function<void()>& body) {
        constexpr int kSkipped = 77;
        if (geteuid() != 0) GTEST_SKIP() << "needs root for network namespaces";
        if (std::system("ip -V >/dev/null 2>&1") != 0) GTEST_SKIP() << "needs iproute2 (ip)";
        std::fflush(stdout);
        const pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            if (unshare(CLONE_NEWNET) != 0 || std::system("ip link set lo up") != 0) _exit(kSkipped);
            body();
            stopChassis();
            std::fflush(stdout);
            _exit(::testing::Test::HasFailure() ? 1 : 0);
        }
        int status = 0;
        ASSERT_EQ(waitpid(pid, &status, 0), pid);
        ASSERT_TRUE(WIFEXITED(status)) << "the child died by signal " << WTERMSIG(status);
        if (WEXITSTATUS(status) == kSkipped) GTEST_SKIP() << "cannot create a network namespace";
        EXPECT_EQ(WEXITSTATUS(status), 0) << "the namespace child failed (see above)";
    }

    int instance_ = 0;
    bool started_ = false;
};

// Runs a shell command in the caller's network namespace.
inline void sh(const std::string& cmd) {
    ASSERT_EQ(std::system((cmd + " >/dev/null 2>&1").c_str()), 0) << cmd;
}
inline std::string shOut(const std::string& cmd) {
    std::string out;
    if (FILE* p = popen((cmd + " 2>/dev/null").c_str(), "r")) {
        char buf[512];
        size_t n;
        while ((n = fread(buf, 1, sizeof buf, p)) > 0) out.append(buf, n);
        pclose(p);
    }
    return out;
}

}  // namespace chassistest
