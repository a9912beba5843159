// fake_swp.cpp -- recording stand-ins for the SWP queues: queues are made as
// the test chooses, enqueued blocks are recorded and kept until the
// acknowledgement the test feeds back names them, and nothing is sent.
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <utility>
#include <cerrno>
#include <map>
#include <mutex>
#include <vector>

#include "fake.h"
#include "fake_state.h"
#include "qor/bytes.h"
#include "qor/ipc.h"
#include "qor/pipe.h"
#include "qor/swp.h"
#include "qor/task.h"

namespace {

constexpr int kFakeSwpHandleBase = 0x40001;
constexpr size_t kAckLen = 64;

struct FakeQueue {
    SWP_MALLOC allocCb = nullptr;
    SWP_FREE freeCb = nullptr;
    uint32_t nextSeq = 1;
    std::vector<qorfake::SwpBlock> kept;
};

struct FakeSwp {
    std::mutex mu;
    std::map<int, FakeQueue> queues;
    int nextHandle = kFakeSwpHandleBase;
};

FakeSwp& fswp() {
    static FakeSwp s;
    return s;
}

int makeQueue(int rc, SWP_MALLOC allocCb, SWP_FREE freeCb, int* outHandle) {
    if (rc != 0 || outHandle == nullptr) return rc;
    std::lock_guard lock(fswp().mu);
    const int handle = fswp().nextHandle++;
    FakeQueue& q = fswp().queues[handle];
    q.allocCb = allocCb;
    q.freeCb = freeCb;
    *outHandle = handle;
    return 0;
}

bool queueKnown(int queue) {
    std::lock_guard lock(fswp().mu);
    return fswp().queues.count(queue) != 0;
}

// Takes a queue's blocks (and the queue itself when `erase`) for freeing.
std::vector<qorfake::SwpBlock> takeKept(int queue, bool erase, SWP_FREE& outFree) {
    std::lock_guard lock(fswp().mu);
    auto it = fswp().queues.find(queue);
    if (it == fswp().queues.end()) return {};
    outFree = it->second.freeCb;
    auto blocks = std::exchange(it->second.kept, {});
    if (erase) fswp().queues.erase(it);
    return blocks;
}

void freeKept(SWP_FREE freeCb, const std::vector<qorfake::SwpBlock>& blocks) {
    if (freeCb == nullptr) return;
    for (const auto& b : blocks) freeCb(b.block);
}

}  // namespace

namespace qorfake {

std::vector<SwpBlock> swpPending(int queue) {
    std::lock_guard lock(fswp().mu);
    auto it = fswp().queues.find(queue);
    return it == fswp().queues.end() ? std::vector<SwpBlock>{} : it->second.kept;
}

std::vector<uint8_t> swpAck(int queue, uint32_t seq) {
    std::vector<uint8_t> ack(kAckLen, 0);
    qorIpcBuildHeader(ack, kAckLen, MT_SWP_ACK, qor_sysGetIpAddr(), 0, qor_sysGetIpAddr(),
                      qor_getQueueId(qorPlatformApplication(), qorPlatformInstance(),
                                     QOR_QUEUE_REQUEST));
    qor::putU32(ack, QOR_SWP_OFF_SEQ, seq);
    qor::putU32(ack, QOR_SWP_OFF_QUEUE, uint32_t(queue));
    return ack;
}

void resetSwpState() {
    std::lock_guard lock(fswp().mu);
    fswp().queues.clear();
}

}  // namespace qorfake

int qorSwpCreatePipe(const char* name) {
    const std::string n = name ? name : "";
    const int rc = int(qorfake::record("qorSwpCreatePipe", {},
                                       std::vector<uint8_t>(n.begin(), n.end()), 0));
    if (rc != 0 || name == nullptr) return rc != 0 ? rc : -1;
    if (pipeDevCreate(name, 1024, 4) != OK && errno != EEXIST) return -1;
    return qorOsOpen(name, QOR_O_RDWR, 0);
}

int qorSwpQueueCreate_p(int evtLogHandle, int maxEntries, int window, int retransmitTicks,
                        int srcApplication, int srcInstance, int srcQueue, int dstApplication,
                        int dstInstance, uint32_t msgType, SWP_MALLOC allocCb, int allocArg,
                        SWP_FREE freeCb, SWP_ERR /*errCb*/, int* outHandle, int pipeFd) {
    const int rc = int(qorfake::record(
        "qorSwpQueueCreate_p",
        {evtLogHandle, maxEntries, window, retransmitTicks, srcApplication, srcInstance, srcQueue,
         dstApplication, dstInstance, msgType, allocArg, pipeFd},
        {}, 0));
    return makeQueue(rc, allocCb, freeCb, outHandle);
}

int qorSwpQueueCreateQs(int evtLogHandle, int maxEntries, int window, int retransmitTicks,
                        int srcApplication, int srcInstance, int srcQueue, int dstApplication,
                        int dstInstance, uint32_t serviceQueueId, int reserved, uint32_t msgType,
                        SWP_MALLOC allocCb, int allocArg, SWP_FREE freeCb, SWP_ERR /*errCb*/,
                        int* outHandle, int pipeFd) {
    const int rc = int(qorfake::record(
        "qorSwpQueueCreateQs",
        {evtLogHandle, maxEntries, window, retransmitTicks, srcApplication, srcInstance, srcQueue,
         dstApplication, dstInstance, serviceQueueId, reserved, msgType, allocArg, pipeFd},
        {}, 0));
    return makeQueue(rc, allocCb, freeCb, outHandle);
}

void* qorSwpAllocBlock(int queue, uint32_t size) {
    SWP_MALLOC cb = nullptr;
    {
        std::lock_guard lock(fswp().mu);
        auto it = fswp().queues.find(queue);
        if (it != fswp().queues.end()) cb = it->second.allocCb;
    }
    return cb ? cb(size) : nullptr;
}

int qorSwpFreeBlock(int queue, void* block) {
    SWP_FREE cb = nullptr;
    {
        std::lock_guard lock(fswp().mu);
        auto it = fswp().queues.find(queue);
        if (it != fswp().queues.end()) cb = it->second.freeCb;
    }
    if (cb == nullptr || block == nullptr) return -1;
    cb(block);
    return 0;
}

int qorSwpEnqueue(int queue, void* block, uint32_t length) {
    auto bytes = qorfake::copyBytes(block, length);
    const bool known = queueKnown(queue) && block != nullptr;
    const int rc = int(qorfake::record("qorSwpEnqueue", {queue, length}, bytes, known ? 0 : -1));
    if (rc != 0 || !known) return rc != 0 ? rc : -1;
    std::lock_guard lock(fswp().mu);
    FakeQueue& q = fswp().queues[queue];
    q.kept.push_back(qorfake::SwpBlock{q.nextSeq++, std::move(bytes), block});
    return 0;
}

int qorSwpDequeue(const void* ackMessage, uint32_t length, void** outBlock) {
    const auto bytes = qorfake::copyBytes(ackMessage, length);
    const uint32_t seq = qor::u32At(bytes, QOR_SWP_OFF_SEQ);
    const uint32_t queue = qor::u32At(bytes, QOR_SWP_OFF_QUEUE);
    const bool isAck = qor::u32At(bytes, QOR_IPC_OFF_TYPE) == MT_SWP_ACK;
    const auto named = [&](const qorfake::SwpBlock& b) { return b.seq == seq; };
    bool known = false;
    {
        std::lock_guard lock(fswp().mu);
        auto q = fswp().queues.find(int(queue));
        known = isAck && q != fswp().queues.end() &&
                std::any_of(q->second.kept.begin(), q->second.kept.end(), named);
    }
    const int rc = int(qorfake::record("qorSwpDequeue", {seq, queue}, bytes, known ? 0 : -1));
    if (rc != 0 || !known || outBlock == nullptr) return rc != 0 ? rc : -1;
    std::lock_guard lock(fswp().mu);
    auto& kept = fswp().queues[int(queue)].kept;
    auto it = std::find_if(kept.begin(), kept.end(), named);
    if (it == kept.end()) return -1;
    *outBlock = it->block;
    kept.erase(it);
    return 0;
}

int qorSwpCkSeqAndAck(const void* message, uint32_t length, QOR_SWP_SEQ* /*seq*/, int reqQueue) {
    return int(qorfake::record("qorSwpCkSeqAndAck", {reqQueue, length},
                               qorfake::copyBytes(message, length), QOR_SWP_IN_ORDER));
}

int qorSwpReadPipe(int pipeFd) {
    // Empties the pipe so that the owner's select does not spin on it.
    uint32_t words[64];
    for (;;) {
        pollfd p{pipeFd, POLLIN, 0};
        if (pipeFd < 0 || poll(&p, 1, 0) != 1 || !(p.revents & POLLIN)) break;
        if (read(pipeFd, words, sizeof words) <= 0) break;
    }
    return int(qorfake::record("qorSwpReadPipe", {pipeFd}, {}, 0));
}

int qorSwpQueueRemove(int queue) {
    const int rc =
        int(qorfake::record("qorSwpQueueRemove", {queue}, {}, queueKnown(queue) ? 0 : -1));
    if (rc != 0) return rc;
    SWP_FREE freeCb = nullptr;
    const auto blocks = takeKept(queue, true, freeCb);
    freeKept(freeCb, blocks);
    return 0;
}

int qorSwpQueueFlush(int queue) {
    const int rc =
        int(qorfake::record("qorSwpQueueFlush", {queue}, {}, queueKnown(queue) ? 0 : -1));
    if (rc != 0) return rc;
    SWP_FREE freeCb = nullptr;
    const auto blocks = takeKept(queue, false, freeCb);
    freeKept(freeCb, blocks);
    return 0;
}

int qorSwpQueueDepth(int queue) {
    std::lock_guard lock(fswp().mu);
    auto it = fswp().queues.find(queue);
    return it == fswp().queues.end() ? -1 : int(it->second.kept.size());
}
