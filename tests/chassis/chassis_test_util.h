// chassis_test_util.h -- what the chassis tests share: a temporary run
// directory per suite, a chassis instance per test, a queue the test plays a
// peer on, and builders for the records peers send.
#pragma once

#include <gtest/gtest.h>
#include <poll.h>
#include <stdlib.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <thread>
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

// Answers come within this many ticks or the request failed; only a hang
// guard, never what a test measures.
constexpr int kWaitTicks = 500;
constexpr int kRecvGuardMs = 5000;

inline std::string makeTempDir(std::string tag) {
    // Parameterised suites are named "Prefix/Suite".
    std::replace(tag.begin(), tag.end(), '/', '-');
    std::string templ = (std::filesystem::temp_directory_path() / "chassis-").string() + tag + "-XXXXXX";
    const char* made = mkdtemp(templ.data());
    return made ? std::string(made) : std::string();
}

// Every test starts its own chassis instance: queues of earlier tests stay
// bound to the process, so instances are never reused.
inline int nextInstance() {
    static int next = 1;
    return next++;
}

inline uint32_t queueOf(int app, int instance) {
    return qor_getQueueId(app, instance, QOR_QUEUE_REQUEST);
}

// A message of `length` bytes addressed from `srcQueue` to `dstQueue`.
inline Bytes message(size_t length, uint32_t type, uint32_t srcQueue, uint32_t dstQueue) {
    Bytes m(length, 0);
    qorIpcBuildHeader(m, uint32_t(length), type, qor_sysGetIpAddr(), srcQueue, qor_sysGetIpAddr(),
                      dstQueue);
    return m;
}

// A request answered in place (the platform's synchronous form); false when
// no answer came.
// A service's queue holds only a few datagrams (net.unix.max_dgram_qlen):
// while a burst is being served a request may be refused (-1) and is sent
// again; an unanswered one (-2) is not.
inline bool request(int app, int instance, Bytes& msg) {
    const Bytes sent = msg;
    for (int attempt = 0; attempt < 5000; ++attempt) {
        const int rc = qorIpcRequest(app, instance, msg.data(), uint32_t(msg.size()), kWaitTicks);
        if (rc != -1) return rc == 0;
        msg = sent;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return false;
}

// The queue of a peer the test plays (the relay manager, a client).
class PeerQueue {
public:
    PeerQueue(int app, int instance) : app_(app), instance_(instance) {
        queue_ = Key_getReqQueue(qorTaskStartup(0, nullptr, app, instance));
    }
    bool ok() const { return queue_ >= 0; }
    uint32_t id() const { return queueOf(app_, instance_); }
    int handle() const { return queue_; }

    // Sends a message built by message() with this queue as its source. A
    // receiving queue holds only a few datagrams (net.unix.max_dgram_qlen):
    // a burst is sent again until the service has taken the earlier ones.
    bool send(const Bytes& msg) {
        for (int attempt = 0; attempt < 5000; ++attempt) {
            if (qorIpcSend(queue_, msg.data(), uint32_t(msg.size()), 0) == 0) return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        return false;
    }
    // The next message to arrive (none within the guard: nullopt).
    std::optional<Bytes> recv() {
        pollfd p{Key_getSocketFd(queue_), POLLIN, 0};
        if (poll(&p, 1, kRecvGuardMs) <= 0) return std::nullopt;
        return take(0);
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
    int app_;
    int instance_;
    int queue_ = -1;
};

// ---- configuration records, as the relay manager writes them ---------------------

inline Bytes helperKey(uint32_t ifIndex, const std::string& vrfName, const std::string& address) {
    Bytes key(4 + 2 + 32 + address.size(), 0);
    qor::putU32(key, 0, ifIndex);
    qor::putU16(key, 4, DHCPV6_CFG_KEY_HELPER);
    qor::putBytes(key, 6, vrfName.data(), std::min<size_t>(vrfName.size(), 32));
    qor::putBytes(key, 38, address.data(), address.size());
    return key;
}

inline Bytes ifSourceKey(uint32_t ifIndex) {
    Bytes key(6, 0);
    qor::putU32(key, 0, ifIndex);
    qor::putU16(key, 4, DHCPV6_CFG_KEY_IF_SRC_INTF);
    return key;
}

inline Bytes ifIndexKey(uint32_t ifIndex) {
    Bytes key(4, 0);
    qor::putU32(key, 0, ifIndex);
    return key;
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

// A configuration-store message carrying a record, from `from` to the store.
inline Bytes cfgMessage(uint32_t type, const PeerQueue& from, int instance, const Bytes& record) {
    Bytes m = message(QOR_CHASSIS_OFF_BODY + record.size(), type, from.id(),
                      queueOf(QOR_APP_CFGSTORE, instance));
    qor::putBytes(m, QOR_CHASSIS_OFF_BODY, record.data(), record.size());
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
        if (qor::u32At(m, QOR_IPC_OFF_STATUS) != 0 || piece > requestLen - QOR_CFG_SHOW_OFF_TEXT)
            return std::nullopt;
        text.append(m.begin() + QOR_CFG_SHOW_OFF_TEXT, m.begin() + QOR_CFG_SHOW_OFF_TEXT + piece);
        if (text.size() >= total) return text;
        if (piece == 0) return std::nullopt;
    }
}

// A suite's run directory, and one chassis instance per test.
class ChassisFixture : public ::testing::Test {
protected:
    static std::string& runDir() {
        static std::string dir;
        return dir;
    }
    static void SetUpTestSuite() {
        runDir() = makeTempDir(::testing::UnitTest::GetInstance()->current_test_suite()->name());
        ASSERT_FALSE(runDir().empty());
        qorSetRunDir(runDir().c_str());
    }
    static void TearDownTestSuite() {
        std::error_code ec;
        std::filesystem::remove_all(runDir(), ec);
    }
    void TearDown() override {
        if (started_) qorChassisStop(instance_);
    }
    // Starts the chassis on a fresh instance; 0 or qorChassisStart's -1.
    int startChassis(ChassisOptions options = {}) {
        instance_ = nextInstance();
        options.instance = instance_;
        const int rc = qorChassisStart(options);
        started_ = rc == 0;
        return rc;
    }
    void stopChassis() {
        if (started_) qorChassisStop(instance_);
        started_ = false;
    }

    int instance_ = 0;
    bool started_ = false;
};

}  // namespace chassistest
