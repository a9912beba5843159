// fake_l2sock.cpp -- recording stand-ins for the platform's socket layer.
//
// qorSocket of AF_QORL2 hands out one end of a socket pair, as the platform
// does (valid, selectable, never readable), unless the test chose a result.
// qorRecvfrom4 delivers the answer chosen with
// qorfake::setNextAnswer("qorRecvfrom4", bytes): bytes 0-11 are the logical,
// physical and receiving-port ifIndex (big-endian), the rest is the frame;
// without an answer it returns -1.
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <mutex>
#include <vector>

#include "fake.h"
#include "qor/bytes.h"
#include "qor/l2sock.h"

namespace {

constexpr size_t kIndexBytes = 12;

struct FakeL2 {
    std::mutex mu;
    std::map<int, int> peers;  // descriptors the fake made -> kept end
};

FakeL2& fl2() {
    static FakeL2 s;
    return s;
}

int fakeL2Descriptor() {
    int pair[2];
    if (socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, pair) != 0) return -1;
    std::lock_guard lock(fl2().mu);
    fl2().peers[pair[0]] = pair[1];
    return pair[0];
}

}  // namespace

int qorSocket(int family, int type, int protocol) {
    // The descriptor is made only when the test did not choose a result.
    const int rc = int(qorfake::record("qorSocket", {family, type, protocol}, {}, -2));
    if (rc != -2) return rc;
    return family == AF_QORL2 ? fakeL2Descriptor() : socket(family, type, protocol);
}

int qorBind(int fd, const void* addr, unsigned len) {
    return int(qorfake::record("qorBind", {fd, len}, qorfake::copyBytes(addr, len), 0));
}

ssize_t qorRecvfrom4(int fd, void* buf, size_t len, int flags, void* /*src*/, unsigned* srcLen,
                     uint32_t* logicalIfIndex, uint32_t* physIfIndex, uint32_t* recvIfIndex) {
    std::vector<uint8_t> answer;
    const bool have = qorfake::takeAnswer("qorRecvfrom4", answer) && answer.size() >= kIndexBytes;
    const size_t frameLen = have ? std::min(answer.size() - kIndexBytes, len) : 0;
    const int64_t rc = qorfake::record("qorRecvfrom4", {fd, int64_t(len), flags}, {},
                                       have ? int64_t(frameLen) : -1);
    if (have && buf != nullptr) {
        std::memcpy(buf, answer.data() + kIndexBytes, frameLen);
        if (logicalIfIndex) *logicalIfIndex = qor::u32At(answer, 0);
        if (physIfIndex) *physIfIndex = qor::u32At(answer, 4);
        if (recvIfIndex) *recvIfIndex = qor::u32At(answer, 8);
    }
    if (srcLen) *srcLen = 0;
    return ssize_t(rc);
}

int qorSetsockopt(int fd, int level, int option, const void* value, unsigned len) {
    return int(qorfake::record("qorSetsockopt", {fd, level, option, len},
                               qorfake::copyBytes(value, len), 0));
}

int qorClose(int fd) {
    const int rc = int(qorfake::record("qorClose", {fd}, {}, 0));
    int peer = -1;
    {
        std::lock_guard lock(fl2().mu);
        auto it = fl2().peers.find(fd);
        if (it == fl2().peers.end()) return rc;  // not the fake's: the test's to close
        peer = it->second;
        fl2().peers.erase(it);
    }
    close(peer);
    close(fd);
    return rc;
}
