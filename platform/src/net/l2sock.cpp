// l2sock.cpp -- the platform's socket layer on Linux: AF_QORL2 descriptors
// (for now valid, selectable and never readable) and the options only the
// platform knows; everything else goes to the kernel.
#include "qor/l2sock.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <mutex>

namespace {

// The other end of each AF_QORL2 socket pair, by the descriptor handed out.
struct L2Sockets {
    std::mutex mu;
    std::map<int, int> peers;
};

L2Sockets& l2() {
    static L2Sockets s;
    return s;
}

bool isL2(int fd) {
    std::lock_guard lock(l2().mu);
    return l2().peers.count(fd) != 0;
}

int l2Socket() {
    int pair[2];
    if (socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, pair) != 0) return -1;
    // Nothing is ever written to the kept end, so the daemon's end never
    // becomes readable and its select() waits on the other descriptors.
    std::lock_guard lock(l2().mu);
    l2().peers[pair[0]] = pair[1];
    return pair[0];
}

bool validFd(int fd) { return fd >= 0 && fcntl(fd, F_GETFD) != -1; }

}  // namespace

int qorSocket(int family, int type, int protocol) {
    if (family == AF_QORL2) {
        if (type != QOR_SOCK_RAW) {
            errno = EPROTONOSUPPORT;
            return -1;
        }
        return l2Socket();
    }
    return socket(family, type, protocol);
}

int qorBind(int fd, const void* addr, unsigned len) {
    if (!isL2(fd)) return bind(fd, static_cast<const sockaddr*>(addr), socklen_t(len));
    const auto* a = static_cast<const uint8_t*>(addr);
    if (a == nullptr || len != QOR_L2_ADDR_LEN || a[1] != AF_QORL2) {
        errno = EINVAL;
        return -1;
    }
    return 0;
}

ssize_t qorRecvfrom4(int fd, void* buf, size_t len, int flags, void* src, unsigned* srcLen,
                     uint32_t* logicalIfIndex, uint32_t* physIfIndex, uint32_t* recvIfIndex) {
    if (logicalIfIndex) *logicalIfIndex = 0;
    if (physIfIndex) *physIfIndex = 0;
    if (recvIfIndex) *recvIfIndex = 0;
    if (isL2(fd)) {
        // No frame source yet: never block the caller.
        if (srcLen) *srcLen = 0;
        return recv(fd, buf, len, flags | MSG_DONTWAIT);
    }
    socklen_t sl = srcLen ? socklen_t(*srcLen) : 0;
    const ssize_t n = recvfrom(fd, buf, len, flags, static_cast<sockaddr*>(src), srcLen ? &sl : nullptr);
    if (srcLen) *srcLen = unsigned(sl);
    return n;
}

int qorSetsockopt(int fd, int level, int option, const void* value, unsigned len) {
    if (level == QOR_IPPROTO_IPV6 && option == QOR_IPV6_SRC_INTF) {
        // No relay socket applies a source interface yet, so there is none to
        // set or clear; the descriptor must still be one.
        if (!validFd(fd)) {
            errno = EBADF;
            return -1;
        }
        return 0;
    }
    return setsockopt(fd, level, option, value, socklen_t(len));
}

int qorClose(int fd) {
    int peer = -1;
    {
        std::lock_guard lock(l2().mu);
        auto it = l2().peers.find(fd);
        if (it != l2().peers.end()) {
            peer = it->second;
            l2().peers.erase(it);
        }
    }
    if (peer >= 0) close(peer);
    return close(fd);
}
