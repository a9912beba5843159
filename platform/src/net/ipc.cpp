// ipc.cpp -- request queues as Unix datagram sockets under RUNDIR/ipc: send,
// receive, reply to the sender, and synchronous requests from a private
// per-thread socket.
#include "qor/ipc.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "qor/task.h"

namespace {

constexpr int kQueueHandleBase = 0x10000;

struct Queue {
    Queue(uint32_t id, int socketFd, std::string socketPath)
        : queueId(id), fd(socketFd), path(std::move(socketPath)) {}
    uint32_t queueId;
    int fd;
    std::string path;
    // The sender of the last message received, for qorIpcReply; len 0 = none
    // (nothing received yet, or an unbound sender that cannot be answered).
    sockaddr_un lastSender{};
    socklen_t lastSenderLen = 0;
    // The buffer that message was received into: a reply from it never reads
    // past it, whatever length the caller takes from the message.
    const void* lastBuf = nullptr;
    uint32_t lastBufLen = 0;
};

struct Queues {
    std::mutex mu;
    std::vector<Queue> list;  // handle = kQueueHandleBase + index
};

Queues& queues() {
    static Queues q;
    return q;
}

// The queue of a handle; the caller holds the lock.
Queue* queueOf(int handle) {
    auto& list = queues().list;
    if (handle < kQueueHandleBase || size_t(handle - kQueueHandleBase) >= list.size())
        return nullptr;
    return &list[size_t(handle - kQueueHandleBase)];
}

std::string ipcDir() { return std::string(qorRunDir()) + "/ipc"; }

std::string queuePath(uint32_t queueId) {
    return ipcDir() + "/" + std::to_string(queueId >> 16) + "." +
           std::to_string((queueId >> 8) & 0xFF) + "." + std::to_string(queueId & 0xFF);
}

bool fillAddr(const std::string& path, sockaddr_un& addr) {
    std::memset(&addr, 0, sizeof addr);
    addr.sun_family = AF_UNIX;
    if (path.size() >= sizeof addr.sun_path) return false;
    std::memcpy(addr.sun_path, path.c_str(), path.size());
    return true;
}

// True when a process has the socket bound and reads it.
bool socketAnswers(const sockaddr_un& addr) {
    int probe = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (probe < 0) return false;
    const bool ok = connect(probe, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) == 0;
    close(probe);
    return ok;
}

// A socket file nobody reads from is what a killed process leaves behind.
bool socketIsStale(const sockaddr_un& addr) {
    int probe = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (probe < 0) return false;
    const bool stale = connect(probe, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) != 0 &&
                       errno == ECONNREFUSED;
    close(probe);
    return stale;
}

// Binds a datagram socket at path (mode 0600 in the 0700 directory),
// replacing a stale socket file. A descriptor or -1.
int bindPath(const std::string& path) {
    mkdir(qorRunDir(), 0700);
    mkdir(ipcDir().c_str(), 0700);
    sockaddr_un addr{};
    if (!fillAddr(path, addr)) return -1;
    int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    const mode_t old = umask(0077);
    int rc = bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
    if (rc != 0 && errno == EADDRINUSE && socketIsStale(addr)) {
        unlink(addr.sun_path);
        rc = bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
    }
    umask(old);
    if (rc != 0) {
        close(fd);
        return -1;
    }
    chmod(addr.sun_path, 0600);
    return fd;
}

// ---- synchronous requests ----------------------------------------------------

// Each thread waits for its answers on a socket of its own, so that an answer
// never lands in (or is taken from) a request queue read by the event loop.
// It is bound on first use and again when the run directory changes.
class PrivateSocket {
public:
    PrivateSocket() = default;
    PrivateSocket(const PrivateSocket&) = delete;
    PrivateSocket& operator=(const PrivateSocket&) = delete;
    ~PrivateSocket() { release(); }

    int get() {
        const std::string want = ipcDir() + "/w." + std::to_string(getpid()) + "." +
                                 std::to_string(gettid());
        if (fd_ >= 0 && path_ == want) return fd_;
        release();
        fd_ = bindPath(want);
        if (fd_ >= 0) {
            path_ = want;
            owner_ = getpid();
        }
        return fd_;
    }

private:
    void release() {
        if (fd_ < 0) return;
        close(fd_);
        // A forked child (the file-transfer program) leaves its parent's socket alone.
        if (owner_ == getpid()) unlink(path_.c_str());
        fd_ = -1;
        path_.clear();
    }
    int fd_ = -1;
    pid_t owner_ = 0;
    std::string path_;
};

thread_local PrivateSocket privateSocket;

int64_t monotonicMs() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return int64_t(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

int64_t waitMs(int waitTicks) {
    const int64_t ticks = waitTicks > 0 ? waitTicks : 100;
    const int64_t ms = ticks * 1000 / sysClkRateGet();
    return ms > 0 ? ms : 1;
}

// Answers to earlier requests that came after their wait ended.
void drainLateAnswers(int fd) {
    uint8_t scrap[16];
    while (recv(fd, scrap, sizeof scrap, MSG_DONTWAIT) >= 0) {
    }
}

// Waits until fd is readable or the deadline passes: 1 readable, 0 time-out, -1 error.
int waitReadable(int fd, int64_t deadlineMs) {
    for (;;) {
        const int64_t left = deadlineMs - monotonicMs();
        if (left <= 0) return 0;
        pollfd p{fd, POLLIN, 0};
        const int rc = poll(&p, 1, int(left > 60000 ? 60000 : left));
        if (rc > 0) return 1;
        if (rc < 0 && errno != EINTR) return -1;
    }
}

// A receiving queue holds only a few datagrams (net.unix.max_dgram_qlen):
// when it is full the send waits for room, bounded, instead of losing the
// message. True when all `length` bytes went.
bool sendDatagram(int fd, const void* msg, size_t length, const sockaddr_un& to, socklen_t toLen) {
    for (int attempt = 0; attempt < 2000; ++attempt) {
        const ssize_t n = sendto(fd, msg, length, MSG_DONTWAIT,
                                 reinterpret_cast<const sockaddr*>(&to), toLen);
        if (n == ssize_t(length)) return true;
        if (n >= 0 || (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)) return false;
        usleep(500);
    }
    return false;
}

// Sends msg to the socket at path and copies the first answer into msg (at
// most `length` bytes). 0 answered, -1 send failed, -2 no answer in time.
int sendAndWait(const std::string& path, void* msg, uint32_t length, int waitTicks) {
    if (msg == nullptr || length < QOR_IPC_HDR_LEN || length > QOR_IPC_MAX_MSG) return -1;
    sockaddr_un addr{};
    if (!fillAddr(path, addr)) return -1;
    const int fd = privateSocket.get();
    if (fd < 0) return -1;
    drainLateAnswers(fd);
    if (!sendDatagram(fd, msg, length, addr, sizeof addr)) return -1;
    const int64_t deadline = monotonicMs() + waitMs(waitTicks);
    for (;;) {
        const int ready = waitReadable(fd, deadline);
        if (ready == 0) return -2;
        if (ready < 0) return -1;
        // A datagram longer than the caller's buffer is cut to it by the kernel.
        const ssize_t n = recv(fd, msg, length, MSG_DONTWAIT);
        if (n > 0) return 0;
    }
}

}  // namespace

int Key_getReqQueue(int key) {
    std::lock_guard lock(queues().mu);
    auto& list = queues().list;
    if (key >= kQueueHandleBase) {
        // A queue handle names its own receiving side.
        return size_t(key - kQueueHandleBase) < list.size() ? key : -1;
    }
    const int service = qorTaskGetServiceByKey(key);
    const int instance = qorTaskGetInstanceByKey(key);
    if (service < 0 || instance < 0) return -1;
    const uint32_t id = qor_getQueueId(service, instance, QOR_QUEUE_REQUEST);
    const std::string path = queuePath(id);
    for (size_t i = 0; i < list.size(); ++i) {
        if (list[i].queueId != id) continue;
        if (list[i].path != path) {
            // The run directory changed (tests): the queue moves with it.
            const int fd = bindPath(path);
            if (fd < 0) return -1;
            close(list[i].fd);
            list[i] = Queue(id, fd, path);
        }
        return kQueueHandleBase + int(i);
    }
    const int fd = bindPath(path);
    if (fd < 0) return -1;
    list.emplace_back(id, fd, path);
    return kQueueHandleBase + int(list.size() - 1);
}

int Key_getSocketFd(int queue) {
    std::lock_guard lock(queues().mu);
    const Queue* q = queueOf(queue);
    return q ? q->fd : -1;
}

uint32_t qorIpcQueueId(int queue) {
    std::lock_guard lock(queues().mu);
    const Queue* q = queueOf(queue);
    return q ? q->queueId : 0;
}

bool qorIpcQueueReachable(uint32_t queueId) {
    sockaddr_un addr{};
    return fillAddr(queuePath(queueId), addr) && socketAnswers(addr);
}

int qorIpcSend(int queue, const void* msg, uint32_t length, int /*flags*/) {
    const int fd = Key_getSocketFd(queue);
    if (fd < 0 || msg == nullptr || length < QOR_IPC_HDR_LEN || length > QOR_IPC_MAX_MSG) return -1;
    const qor::ByteView bytes(static_cast<const uint8_t*>(msg), length);
    sockaddr_un addr{};
    if (!fillAddr(queuePath(qor::u32At(bytes, QOR_IPC_OFF_DST_QUEUE)), addr)) return -1;
    return sendDatagram(fd, msg, length, addr, sizeof addr) ? 0 : -1;
}

int qorIpcRecv(int queue, void* buf, uint32_t bufLen, int flags, int /*a5*/, int /*a6*/) {
    const int fd = Key_getSocketFd(queue);
    if (fd < 0 || buf == nullptr || bufLen == 0) return -1;
    sockaddr_un from{};
    socklen_t fromLen = 0;
    ssize_t n;
    do {
        fromLen = sizeof from;
        n = recvfrom(fd, buf, bufLen, (flags & QOR_IPC_NOWAIT) ? MSG_DONTWAIT : 0,
                     reinterpret_cast<sockaddr*>(&from), &fromLen);
    } while (n < 0 && errno == EINTR);
    if (n < 0) return -1;
    std::lock_guard lock(queues().mu);
    if (Queue* q = queueOf(queue)) {
        // An unbound sender has no name (only the family): it cannot be answered.
        const bool named = fromLen > socklen_t(sizeof(sa_family_t)) && from.sun_path[0] != '\0';
        q->lastSender = from;
        q->lastSenderLen = named ? fromLen : 0;
        q->lastBuf = buf;
        q->lastBufLen = uint32_t(n);  // a reply from this buffer never goes past what arrived
    }
    // recvfrom cuts a longer datagram to bufLen: n is what arrived, never more.
    return int(n);
}

int qorIpcReply(int queue, const void* msg, uint32_t length) {
    int fd;
    sockaddr_un to{};
    socklen_t toLen;
    {
        std::lock_guard lock(queues().mu);
        const Queue* q = queueOf(queue);
        if (q == nullptr) return -1;
        if (q->lastSenderLen == 0) return -2;
        fd = q->fd;
        to = q->lastSender;
        toLen = q->lastSenderLen;
        if (msg == q->lastBuf && length > q->lastBufLen) length = q->lastBufLen;
    }
    if (msg == nullptr || length < QOR_IPC_HDR_LEN || length > QOR_IPC_MAX_MSG) return -1;
    return sendDatagram(fd, msg, length, to, toLen) ? 0 : -1;
}

int qorIpcSendWait(int queue, void* msg, uint32_t length, int waitTicks, uint32_t /*type*/,
                   int /*flags*/) {
    if (Key_getSocketFd(queue) < 0 || msg == nullptr || length < QOR_IPC_HDR_LEN) return -1;
    const qor::ByteView bytes(static_cast<const uint8_t*>(msg), length);
    return sendAndWait(queuePath(qor::u32At(bytes, QOR_IPC_OFF_DST_QUEUE)), msg, length, waitTicks);
}

int qorIpcRequest(int dstApplication, int dstInstance, void* msg, uint32_t length, int waitTicks) {
    if (dstApplication <= 0 || dstInstance < 0) return -1;
    return sendAndWait(queuePath(qor_getQueueId(dstApplication, dstInstance, QOR_QUEUE_REQUEST)),
                       msg, length, waitTicks);
}

int qor_tmeGetPeerIpAddrByName(int application, int instance, uint32_t* outAddr) {
    if (application <= 0 || instance < 0 || outAddr == nullptr) return -1;
    *outAddr = qor_sysGetIpAddr();
    return 0;
}
