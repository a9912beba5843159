// fake_ipc.cpp -- recording stand-ins for the IPC queues: nothing leaves the
// process; each send, reply and request is recorded with the message bytes,
// requests are answered as the test chose, and receives deliver the messages
// the test queued.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <deque>
#include <mutex>
#include <vector>

#include "fake.h"
#include "fake_state.h"
#include "qor/ipc.h"
#include "qor/task.h"

namespace {
constexpr int kFakeQueueBase = 0x10000;

struct Incoming {
    std::mutex mu;
    std::deque<std::vector<uint8_t>> messages;
};

Incoming& incoming() {
    static Incoming in;
    return in;
}

// Copies the chosen answer of `name`, if any, over the caller's buffer.
void applyAnswer(const char* name, void* msg, uint32_t length) {
    std::vector<uint8_t> answer;
    if (msg == nullptr || !qorfake::takeAnswer(name, answer)) return;
    std::memcpy(msg, answer.data(), std::min<size_t>(answer.size(), length));
}
}  // namespace

namespace qorfake {
void queueIncoming(std::vector<uint8_t> bytes) {
    std::lock_guard lock(incoming().mu);
    incoming().messages.push_back(std::move(bytes));
}

void resetIpcState() {
    std::lock_guard lock(incoming().mu);
    incoming().messages.clear();
}
}  // namespace qorfake

int Key_getReqQueue(int key) {
    if (key >= kFakeQueueBase) return key;
    if (qorTaskGetServiceByKey(key) < 0) return -1;
    return int(qorfake::record("Key_getReqQueue", {key}, {}, kFakeQueueBase + key));
}

int Key_getSocketFd(int queue) {
    return int(qorfake::record("Key_getSocketFd", {queue}, {}, -1));
}

uint32_t qorIpcQueueId(int queue) {
    if (queue < kFakeQueueBase) return 0;
    const int key = queue - kFakeQueueBase;
    return qor_getQueueId(qorTaskGetServiceByKey(key), qorTaskGetInstanceByKey(key),
                          QOR_QUEUE_REQUEST);
}

bool qorIpcQueueReachable(uint32_t /*queueId*/) { return true; }

int qorIpcSend(int queue, const void* msg, uint32_t length, int flags) {
    return int(qorfake::record("qorIpcSend", {queue, length, flags},
                               qorfake::copyBytes(msg, length), 0));
}

int qorIpcRecv(int queue, void* buf, uint32_t bufLen, int flags, int /*a5*/, int /*a6*/) {
    std::vector<uint8_t> msg;
    bool have = false;
    {
        std::lock_guard lock(incoming().mu);
        if (buf != nullptr && !incoming().messages.empty()) {
            msg = std::move(incoming().messages.front());
            incoming().messages.pop_front();
            have = true;
        }
    }
    const size_t n = std::min<size_t>(msg.size(), bufLen);
    if (have) std::memcpy(buf, msg.data(), n);
    return int(qorfake::record("qorIpcRecv", {queue, bufLen, flags}, {}, have ? int64_t(n) : -1));
}

int qorIpcReply(int queue, const void* msg, uint32_t length) {
    return int(qorfake::record("qorIpcReply", {queue, length}, qorfake::copyBytes(msg, length), 0));
}

int qorIpcSendWait(int queue, void* msg, uint32_t length, int waitTicks, uint32_t type,
                   int flags) {
    const int rc = int(qorfake::record("qorIpcSendWait", {queue, length, waitTicks, type, flags},
                                       qorfake::copyBytes(msg, length), 0));
    if (rc == 0) applyAnswer("qorIpcSendWait", msg, length);
    return rc;
}

int qorIpcRequest(int dstApplication, int dstInstance, void* msg, uint32_t length, int waitTicks) {
    const int rc = int(qorfake::record("qorIpcRequest",
                                       {dstApplication, dstInstance, length, waitTicks},
                                       qorfake::copyBytes(msg, length), 0));
    if (rc == 0) applyAnswer("qorIpcRequest", msg, length);
    return rc;
}

int qor_tmeGetPeerIpAddrByName(int application, int instance, uint32_t* outAddr) {
    const int rc =
        int(qorfake::record("qor_tmeGetPeerIpAddrByName", {application, instance}, {}, 0));
    if (rc == 0 && outAddr) *outAddr = qor_sysGetIpAddr();
    return rc;
}
