// chassis_test_util.h -- what the chassis tests share: a run directory per
// suite, a chassis instance per test, and a queue the test plays a peer on.
#pragma once

#include <gtest/gtest.h>
#include <poll.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <thread>
#include <utility>

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

// A service's queue holds only a few datagrams (net.unix.max_dgram_qlen): `op`
// refused (-1) during a burst is tried again; the tries are a hang guard only.
template <typename Op>
int retryRefused(Op op) {
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
    PeerQueue(int app, int instance)
        : id_(queueOf(app, instance)), queue_(Key_getReqQueue(qorTaskStartup(0, nullptr, app, instance))) {}
    bool ok() const { return queue_ >= 0; }
    uint32_t id() const { return id_; }
    int handle() const { return queue_; }
    bool send(const Bytes& m) {
        return retryRefused([&] { return qorIpcSend(queue_, m.data(), uint32_t(m.size()), 0) == 0 ? 0 : -1; }) == 0;
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
        return n < 0 ? std::nullopt : std::optional(Bytes(buf.begin(), buf.begin() + n));
    }
    uint32_t id_;
    int queue_;
};

// An IFM registration from application `app`'s queue `from`.
inline Bytes ifmRegistration(uint16_t app, int instance, uint32_t from) {
    Bytes m = message(QOR_IFM_REG_LEN, QOR_MT_IFM_REGISTER, from, queueOf(QOR_APP_IFM, instance));
    qor::putU16(m, 1956, app);
    qor::putU16(m, 1958, uint16_t(instance));
    qor::putU32(m, 1968, from);
    return m;
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
        std::string templ = (std::filesystem::temp_directory_path() / "chassis-XXXXXX").string();
        ASSERT_NE(mkdtemp(templ.data()), nullptr);
        qorSetRunDir((runDir() = templ).c_str());
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
        return qorChassisStart(options);
    }
    void stopChassis() { qorChassisStop(instance_); }  // none running: nothing to do
    int startWithMap(const std::string& map) {
        ChassisOptions options;
        options.hostMapPath = runDir() + "/hosts-" + std::to_string(getpid()) + ".ini";
        std::ofstream(options.hostMapPath) << map;
        return startChassis(options);
    }
    // Runs body in a forked child in a fresh network namespace (root only, else skipped);
    // the child's failures print there and fail the test here.
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
};

// Runs a shell command in the caller's network namespace.
inline void sh(const std::string& cmd) {
    ASSERT_EQ(std::system((cmd + " >/dev/null 2>&1").c_str()), 0) << cmd;
}

}  // namespace chassistest
