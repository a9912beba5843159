// ipc.cpp -- request queues as Unix datagram sockets under RUNDIR/ipc.
#include "qor/ipc.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "qor/task.h"

namespace {

constexpr int kQueueHandleBase = 0x10000;

struct Queue {
    uint32_t queueId;
    int fd;
};

struct Queues {
    std::mutex mu;
    std::vector<Queue> list;  // handle = kQueueHandleBase + index
};

Queues& queues() {
    static Queues q;
    return q;
}

std::string queuePath(uint32_t queueId) {
    return std::string(qorRunDir()) + "/ipc/" + std::to_string(queueId >> 16) + "." +
           std::to_string((queueId >> 8) & 0xFF) + "." + std::to_string(queueId & 0xFF);
}

bool fillAddr(const std::string& path, sockaddr_un& addr) {
    std::memset(&addr, 0, sizeof addr);
    addr.sun_family = AF_UNIX;
    if (path.size() >= sizeof addr.sun_path) return false;
    std::memcpy(addr.sun_path, path.c_str(), path.size());
    return true;
}

// A socket file nobody reads from is what a killed daemon leaves behind.
bool socketIsStale(const sockaddr_un& addr) {
    int probe = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (probe < 0) return false;
    const bool stale = connect(probe, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) != 0 &&
                       errno == ECONNREFUSED;
    close(probe);
    return stale;
}

int bindQueue(uint32_t queueId) {
    const std::string dir = std::string(qorRunDir()) + "/ipc";
    mkdir(qorRunDir(), 0700);
    mkdir(dir.c_str(), 0700);
    sockaddr_un addr{};
    if (!fillAddr(queuePath(queueId), addr)) return -1;
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
    for (size_t i = 0; i < list.size(); ++i)
        if (list[i].queueId == id) return kQueueHandleBase + int(i);
    const int fd = bindQueue(id);
    if (fd < 0) return -1;
    list.push_back(Queue{id, fd});
    return kQueueHandleBase + int(list.size() - 1);
}

int Key_getSocketFd(int queue) {
    std::lock_guard lock(queues().mu);
    const size_t i = size_t(queue - kQueueHandleBase);
    if (queue < kQueueHandleBase || i >= queues().list.size()) return -1;
    return queues().list[i].fd;
}

int qorIpcSend(int queue, const void* msg, uint32_t length, int /*flags*/) {
    const int fd = Key_getSocketFd(queue);
    if (fd < 0 || msg == nullptr || length < QOR_IPC_HDR_LEN || length > QOR_IPC_MAX_MSG) return -1;
    const qor::ByteView bytes(static_cast<const uint8_t*>(msg), length);
    sockaddr_un addr{};
    if (!fillAddr(queuePath(qor::u32At(bytes, QOR_IPC_OFF_DST_QUEUE)), addr)) return -1;
    const ssize_t n = sendto(fd, msg, length, MSG_DONTWAIT, reinterpret_cast<sockaddr*>(&addr),
                             sizeof addr);
    return n == ssize_t(length) ? 0 : -1;
}

int qor_tmeGetPeerIpAddrByName(int application, int instance, uint32_t* outAddr) {
    if (application <= 0 || instance < 0 || outAddr == nullptr) return -1;
    *outAddr = qor_sysGetIpAddr();
    return 0;
}
