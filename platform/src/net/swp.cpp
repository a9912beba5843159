// swp.cpp -- SWP: sequence-numbered, acknowledged, retransmitting message
// queues between processes over the IPC request queues, and the thread that
// tells owners when a retransmission is due.
#include "qor/swp.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "qor/bytes.h"
#include "qor/ipc.h"
#include "qor/pipe.h"
#include "qor/task.h"

namespace {

// Handles double as the SWP queue identifier on the wire (byte 4), so they
// are kept apart from IPC queue handles and never reused in a process.
constexpr int kSwpHandleBase = 0x40001;
constexpr size_t kSwpAckLen = 64;
constexpr int kSwpPipeMessages = 1024;

struct Block {
    void* data;
    uint32_t length;
    uint32_t seq = 0;        // 0 until first sent
    uint64_t sentTick = 0;   // tick of the last (re)transmission
    bool delivered = false;  // a transmission reached the peer's queue
};

struct SwpQueue {
    int maxEntries = 0;
    int window = 1;
    int retransmitTicks = 1;
    int srcQueue = -1;       // the owner's IPC request queue, whose socket sends
    uint32_t srcQueueId = 0;
    uint32_t dstQueueId = 0;
    uint32_t msgType = 0;
    SWP_MALLOC allocCb = nullptr;
    SWP_FREE freeCb = nullptr;
    SWP_ERR errCb = nullptr;
    int pipeFd = -1;
    uint32_t nextSeq = 1;
    bool poked = false;      // a pipe word is waiting for the owner
    std::deque<Block> blocks;  // in queue order; the first `inFlight` have a sequence
};

struct SendFailure {
    SWP_ERR cb;
    int handle;
    int error;
};

struct Swp {
    std::mutex mu;
    std::condition_variable wake;  // something went in flight, or stop
    std::map<int, SwpQueue> queues;
    int nextHandle = kSwpHandleBase;
    std::thread retransmitter;
    pid_t retransmitterPid = 0;
    bool stop = false;

    ~Swp() {
        {
            std::lock_guard lock(mu);
            stop = true;
        }
        wake.notify_all();
        if (!retransmitter.joinable()) return;
        // A forked child that exits has no such thread to wait for.
        if (retransmitterPid == getpid())
            retransmitter.join();
        else
            retransmitter.detach();
    }
};

Swp& swp() {
    // The clock is made first so that it outlives the retransmission thread,
    // which reads it until the registry's destructor has joined it.
    static const uint64_t clockFirst = qorTickGet();
    (void)clockFirst;
    static Swp s;
    return s;
}

SwpQueue* findQueue(int handle) {
    auto it = swp().queues.find(handle);
    return it == swp().queues.end() ? nullptr : &it->second;
}

// Writes one word into the owner's pipe unless one is already waiting there;
// never blocks (a full pipe already holds a wake-up).
void pokeOwner(int handle, SwpQueue& q) {
    if (q.poked || q.pipeFd < 0) return;
    pollfd p{q.pipeFd, POLLOUT, 0};
    if (poll(&p, 1, 0) != 1 || !(p.revents & POLLOUT)) return;
    const uint32_t word = uint32_t(handle);
    if (write(q.pipeFd, &word, sizeof word) == ssize_t(sizeof word)) q.poked = true;
}

void drainPipe(int pipeFd) {
    uint32_t words[64];
    for (;;) {
        pollfd p{pipeFd, POLLIN, 0};
        if (poll(&p, 1, 0) != 1 || !(p.revents & POLLIN)) return;
        if (read(pipeFd, words, sizeof words) <= 0) return;
    }
}

bool isDue(const Block& b, const SwpQueue& q, uint64_t now) {
    return b.seq != 0 && now - b.sentTick >= uint64_t(q.retransmitTicks);
}

// ---- retransmission thread ---------------------------------------------------

// Wakes once a tick while anything is in flight and pokes the owner of every
// queue with a block due for resending; the owner resends it in qorSwpReadPipe.
void retransmitLoop() {
    Swp& s = swp();
    const auto tick = std::chrono::microseconds(
        std::clamp(1000000 / std::max(sysClkRateGet(), 1), 1000, 50000));
    std::unique_lock lock(s.mu);
    while (!s.stop) {
        bool inFlight = false;
        const uint64_t now = qorTickGet();
        for (auto& [handle, q] : s.queues) {
            for (const Block& b : q.blocks) {
                if (b.seq == 0) break;
                inFlight = true;
                if (isDue(b, q, now)) {
                    pokeOwner(handle, q);
                    break;
                }
            }
        }
        if (inFlight)
            s.wake.wait_for(lock, tick);
        else
            s.wake.wait(lock);
    }
}

bool startRetransmitter() {
    Swp& s = swp();
    if (s.retransmitter.joinable()) return true;
    try {
        s.retransmitter = std::thread(retransmitLoop);
    } catch (...) {
        return false;
    }
    s.retransmitterPid = getpid();
    return true;
}

// ---- sending -------------------------------------------------------------------

// Writes the SWP words and the addressing into a block before it goes out.
void stampBlock(int handle, const SwpQueue& q, Block& b) {
    const qor::MutByteView m(static_cast<uint8_t*>(b.data), b.length);
    qor::putU32(m, QOR_SWP_OFF_SEQ, b.seq);
    qor::putU32(m, QOR_SWP_OFF_QUEUE, uint32_t(handle));
    if (qor::u32At(m, QOR_IPC_OFF_LENGTH) == 0) qor::putU32(m, QOR_IPC_OFF_LENGTH, b.length);
    if (qor::u32At(m, QOR_IPC_OFF_TYPE) == 0) qor::putU32(m, QOR_IPC_OFF_TYPE, q.msgType);
    qor::putU32(m, QOR_IPC_OFF_SRC_ADDR, qor_sysGetIpAddr());
    qor::putU32(m, QOR_IPC_OFF_SRC_QUEUE, q.srcQueueId);
    qor::putU32(m, QOR_IPC_OFF_DST_ADDR, qor_sysGetIpAddr());
    qor::putU32(m, QOR_IPC_OFF_DST_QUEUE, q.dstQueueId);
}

void transmit(int handle, SwpQueue& q, Block& b, uint64_t now, std::vector<SendFailure>& failed) {
    b.sentTick = now;
    errno = 0;
    if (qorIpcSend(q.srcQueue, b.data, b.length, 0) == 0)
        b.delivered = true;
    else if (q.errCb)
        failed.push_back(SendFailure{q.errCb, handle, errno ? errno : -1});
}

// Resends what is due and sends new blocks while the window has room.
void serviceQueue(int handle, SwpQueue& q, uint64_t now, std::vector<SendFailure>& failed) {
    int inFlight = 0;
    for (Block& b : q.blocks) {
        if (b.seq != 0) {
            ++inFlight;
            if (isDue(b, q, now)) transmit(handle, q, b, now, failed);
            continue;
        }
        if (inFlight >= q.window) break;
        b.seq = q.nextSeq++;
        if (q.nextSeq == 0) q.nextSeq = 1;  // 0 never names a message
        stampBlock(handle, q, b);
        transmit(handle, q, b, now, failed);
        ++inFlight;
    }
}

void reportFailures(const std::vector<SendFailure>& failed) {
    for (const auto& f : failed) f.cb(f.handle, f.error);
}

// Takes every block off a queue; the caller frees them outside the lock.
std::deque<Block> takeBlocks(SwpQueue& q) {
    // A message in the peer's queue will be processed; the first one that
    // never got there is the number the peer waits for (it drops everything
    // after it as out of order), so numbering resumes from it.
    for (const Block& b : q.blocks)
        if (b.seq != 0 && !b.delivered) {
            q.nextSeq = b.seq;
            break;
        }
    return std::exchange(q.blocks, {});
}

void freeBlocks(SWP_FREE freeCb, const std::deque<Block>& blocks) {
    if (freeCb == nullptr) return;
    for (const Block& b : blocks) freeCb(b.data);
}

struct CreateArgs {
    int maxEntries, window, retransmitTicks, srcQueue, dstApplication, dstInstance;
    uint32_t msgType;
    SWP_MALLOC allocCb;
    SWP_FREE freeCb;
    SWP_ERR errCb;
    int* outHandle;
    int pipeFd;
};

int createQueue(const CreateArgs& a) {
    if (a.outHandle == nullptr || a.pipeFd < 0 || a.maxEntries < 0) return -1;
    const uint32_t srcId = qorIpcQueueId(a.srcQueue);
    const uint32_t dstId = qor_getQueueId(a.dstApplication, a.dstInstance, QOR_QUEUE_REQUEST);
    // The peer must be up: the caller retries until it is.
    if (srcId == 0 || !qorIpcQueueReachable(dstId)) return -1;
    SwpQueue q;
    q.maxEntries = a.maxEntries;
    q.window = std::max(a.window, 1);
    q.retransmitTicks = std::max(a.retransmitTicks, 1);
    q.srcQueue = a.srcQueue;
    q.srcQueueId = srcId;
    q.dstQueueId = dstId;
    q.msgType = a.msgType;
    q.allocCb = a.allocCb;
    q.freeCb = a.freeCb;
    q.errCb = a.errCb;
    q.pipeFd = a.pipeFd;
    std::lock_guard lock(swp().mu);
    if (!startRetransmitter()) return -1;
    const int handle = swp().nextHandle++;
    swp().queues.emplace(handle, std::move(q));
    *a.outHandle = handle;
    return 0;
}

}  // namespace

int qorSwpCreatePipe(const char* name) {
    if (name == nullptr) return -1;
    // A task started again in the same process reopens its pipe.
    if (pipeDevCreate(name, kSwpPipeMessages, 4) != OK && errno != EEXIST) return -1;
    return qorOsOpen(name, QOR_O_RDWR, 0);
}

int qorSwpQueueCreate_p(int /*evtLogHandle*/, int maxEntries, int window, int retransmitTicks,
                        int /*srcApplication*/, int /*srcInstance*/, int srcQueue,
                        int dstApplication, int dstInstance, uint32_t msgType, SWP_MALLOC allocCb,
                        int /*allocArg*/, SWP_FREE freeCb, SWP_ERR errCb, int* outHandle,
                        int pipeFd) {
    return createQueue(CreateArgs{maxEntries, window, retransmitTicks, srcQueue, dstApplication,
                                  dstInstance, msgType, allocCb, freeCb, errCb, outHandle, pipeFd});
}

int qorSwpQueueCreateQs(int /*evtLogHandle*/, int maxEntries, int window, int retransmitTicks,
                        int /*srcApplication*/, int /*srcInstance*/, int srcQueue,
                        int dstApplication, int dstInstance, uint32_t /*serviceQueueId*/,
                        int /*reserved*/, uint32_t msgType, SWP_MALLOC allocCb, int /*allocArg*/,
                        SWP_FREE freeCb, SWP_ERR errCb, int* outHandle, int pipeFd) {
    // Acknowledgements come back to the owner's request queue, which every
    // message names as its source; the service queue is not needed for them.
    return createQueue(CreateArgs{maxEntries, window, retransmitTicks, srcQueue, dstApplication,
                                  dstInstance, msgType, allocCb, freeCb, errCb, outHandle, pipeFd});
}

void* qorSwpAllocBlock(int queue, uint32_t size) {
    SWP_MALLOC cb;
    {
        std::lock_guard lock(swp().mu);
        const SwpQueue* q = findQueue(queue);
        if (q == nullptr || q->allocCb == nullptr) return nullptr;
        cb = q->allocCb;
    }
    return cb(size);
}

int qorSwpFreeBlock(int queue, void* block) {
    SWP_FREE cb;
    {
        std::lock_guard lock(swp().mu);
        const SwpQueue* q = findQueue(queue);
        if (q == nullptr || q->freeCb == nullptr || block == nullptr) return -1;
        cb = q->freeCb;
    }
    cb(block);
    return 0;
}

int qorSwpEnqueue(int queue, void* block, uint32_t length) {
    if (block == nullptr || length < QOR_IPC_HDR_LEN || length > QOR_IPC_MAX_MSG) return -1;
    std::lock_guard lock(swp().mu);
    SwpQueue* q = findQueue(queue);
    if (q == nullptr) return -1;
    if (q->maxEntries > 0 && q->blocks.size() >= size_t(q->maxEntries)) return -1;
    q->blocks.push_back(Block{block, length});
    pokeOwner(queue, *q);
    return 0;
}

int qorSwpReadPipe(int pipeFd) {
    if (pipeFd < 0) return 0;
    drainPipe(pipeFd);
    std::vector<SendFailure> failed;
    {
        std::lock_guard lock(swp().mu);
        const uint64_t now = qorTickGet();
        for (auto& [handle, q] : swp().queues) {
            if (q.pipeFd != pipeFd) continue;
            q.poked = false;
            serviceQueue(handle, q, now, failed);
        }
    }
    swp().wake.notify_all();
    reportFailures(failed);
    return 0;
}

int qorSwpDequeue(const void* ackMessage, uint32_t length, void** outBlock) {
    if (ackMessage == nullptr || outBlock == nullptr) return -1;
    const qor::ByteView ack(static_cast<const uint8_t*>(ackMessage), length);
    uint32_t seq = 0, queueId = 0, type = 0;
    if (!qor::getU32(ack, QOR_SWP_OFF_SEQ, seq) || !qor::getU32(ack, QOR_SWP_OFF_QUEUE, queueId) ||
        !qor::getU32(ack, QOR_IPC_OFF_TYPE, type) || type != MT_SWP_ACK || seq == 0 ||
        queueId > uint32_t(INT32_MAX))
        return -1;
    std::lock_guard lock(swp().mu);
    SwpQueue* q = findQueue(int(queueId));
    if (q == nullptr) return -1;
    auto it = std::find_if(q->blocks.begin(), q->blocks.end(),
                           [seq](const Block& b) { return b.seq == seq; });
    if (it == q->blocks.end()) return -1;
    *outBlock = it->data;
    q->blocks.erase(it);
    // The window has room again: let the owner send what waits.
    if (std::any_of(q->blocks.begin(), q->blocks.end(), [](const Block& b) { return b.seq == 0; }))
        pokeOwner(int(queueId), *q);
    return 0;
}

int qorSwpCkSeqAndAck(const void* message, uint32_t length, QOR_SWP_SEQ* seq, int reqQueue) {
    if (message == nullptr || seq == nullptr) return QOR_SWP_OUT_OF_ORDER;
    const qor::ByteView m(static_cast<const uint8_t*>(message), length);
    if (m.size() < QOR_IPC_HDR_LEN) return QOR_SWP_OUT_OF_ORDER;
    const uint32_t got = qor::u32At(m, QOR_SWP_OFF_SEQ);
    const uint32_t expected = seq->expected ? seq->expected : 1;
    // Serial-number order, so the count may wrap.
    const int32_t ahead = int32_t(got - expected);
    if (got == 0 || ahead > 0) return QOR_SWP_OUT_OF_ORDER;

    uint8_t ack[kSwpAckLen] = {};
    qorIpcBuildHeader(ack, kSwpAckLen, MT_SWP_ACK, qor_sysGetIpAddr(), qorIpcQueueId(reqQueue),
                      qor::u32At(m, QOR_IPC_OFF_SRC_ADDR), qor::u32At(m, QOR_IPC_OFF_SRC_QUEUE));
    qor::putU32(ack, QOR_SWP_OFF_SEQ, got);
    qor::putU32(ack, QOR_SWP_OFF_QUEUE, qor::u32At(m, QOR_SWP_OFF_QUEUE));
    // A lost acknowledgement is repaired by the sender's retransmission,
    // which is then acknowledged as a duplicate.
    qorIpcSend(reqQueue, ack, kSwpAckLen, 0);
    if (ahead < 0) return QOR_SWP_DUPLICATE;
    seq->expected = got + 1 ? got + 1 : 1;
    seq->lastAcked = got;
    return QOR_SWP_IN_ORDER;
}

int qorSwpQueueRemove(int queue) {
    if (qorSwpQueueFlush(queue) != 0) return -1;
    std::lock_guard lock(swp().mu);
    swp().queues.erase(queue);
    return 0;
}

int qorSwpQueueFlush(int queue) {
    SWP_FREE freeCb;
    std::deque<Block> blocks;
    {
        std::lock_guard lock(swp().mu);
        SwpQueue* q = findQueue(queue);
        if (q == nullptr) return -1;
        freeCb = q->freeCb;
        blocks = takeBlocks(*q);
    }
    freeBlocks(freeCb, blocks);
    return 0;
}

int qorSwpQueueDepth(int queue) {
    std::lock_guard lock(swp().mu);
    const SwpQueue* q = findQueue(queue);
    return q ? int(q->blocks.size()) : -1;
}
