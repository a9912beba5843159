// IPC request queues and the header on the wire, as another process sees
// them: sends, receives, replies to the sender, and synchronous requests.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "qor/ipc.h"
#include "qor/task.h"

namespace {

class Ipc : public ::testing::Test {
protected:
    static std::string runDir;
    static void SetUpTestSuite() {
        char tmpl[] = "/tmp/qor-ipc-XXXXXX";
        runDir = mkdtemp(tmpl);
        qorSetRunDir(runDir.c_str());
        qorPlatformSetIdentity(336, 0);
    }
    static void TearDownTestSuite() {
        std::system(("rm -rf " + runDir).c_str());
        qorSetRunDir("/run/qor");
    }
    static std::string path(int app, int inst, int kind) {
        return runDir + "/ipc/" + std::to_string(app) + "." + std::to_string(inst) + "." +
               std::to_string(kind);
    }
};
std::string Ipc::runDir;

TEST(IpcHeader, FieldsSitAtTheirOffsetsBigEndian) {
    std::array<uint8_t, 96> msg;
    msg.fill(0xAA);
    ASSERT_TRUE(qorIpcBuildHeader(msg, 0x01020304, 6001, 0x7F000001, 0x01500001, 0x7F000002,
                                  0x008A0001));
    const auto word = [&](size_t off) {
        return (uint32_t(msg[off]) << 24) | (uint32_t(msg[off + 1]) << 16) |
               (uint32_t(msg[off + 2]) << 8) | msg[off + 3];
    };
    EXPECT_EQ(msg[8], 0x01);  // most significant byte first
    EXPECT_EQ(word(8), 0x01020304u);
    EXPECT_EQ(word(12), 6001u);
    EXPECT_EQ(word(20), 0u);
    EXPECT_EQ(word(36), 0u);
    EXPECT_EQ(word(40), 0x7F000001u);
    EXPECT_EQ(word(44), 0x01500001u);
    EXPECT_EQ(word(48), 0u);
    EXPECT_EQ(word(52), 0x7F000002u);
    EXPECT_EQ(word(56), 0x008A0001u);
    EXPECT_EQ(msg[64], 0xAA) << "the header builder wrote into the command's fields";
    std::array<uint8_t, 63> shortBuf{};
    EXPECT_FALSE(qorIpcBuildHeader(shortBuf, 63, 1, 0, 0, 0, 0));
}

TEST(IpcHeader, QueueIdentifiersDifferByApplicationInstanceAndKind) {
    EXPECT_NE(qor_getQueueId(336, 0, 1), qor_getQueueId(336, 0, 3));
    EXPECT_NE(qor_getQueueId(336, 0, 1), qor_getQueueId(336, 1, 1));
    EXPECT_NE(qor_getQueueId(336, 0, 1), qor_getQueueId(138, 0, 1));
}

TEST_F(Ipc, MessageReachesThePeerQueueWithTheBytesSent) {
    const int daemon = Key_getReqQueue(qorTaskStartup(0, nullptr, 0, 0));
    const int peer = Key_getReqQueue(qorTaskStartup(0, nullptr, 138, 0));
    ASSERT_GE(daemon, 0);
    ASSERT_GE(peer, 0);
    EXPECT_EQ(Key_getReqQueue(daemon), daemon) << "a queue handle names its receiving side";
    std::array<uint8_t, 80> msg{};
    ASSERT_EQ(qorIpcSetSourceHeader(msg, 80, 2009, 138, 0, QOR_QUEUE_REQUEST), OK);
    msg[79] = 0x5A;
    ASSERT_EQ(qorIpcSend(daemon, msg.data(), 80, 0), 0);
    std::array<uint8_t, 200> got{};
    const ssize_t n = recv(Key_getSocketFd(peer), got.data(), got.size(), MSG_DONTWAIT);
    ASSERT_EQ(n, 80);
    EXPECT_EQ(std::memcmp(got.data(), msg.data(), 80), 0);
    EXPECT_EQ(qor::u32At(got, QOR_IPC_OFF_SRC_QUEUE), qor_getQueueId(336, 0, 1));
}

TEST_F(Ipc, SendToAMissingQueueOrOversizedFails) {
    const int daemon = Key_getReqQueue(qorTaskStartup(0, nullptr, 0, 0));
    std::array<uint8_t, 64> msg{};
    qorIpcSetSourceHeader(msg, 64, 1, 250, 7, QOR_QUEUE_REQUEST);
    EXPECT_EQ(qorIpcSend(daemon, msg.data(), 64, 0), -1);
    std::array<uint8_t, QOR_IPC_MAX_MSG + 1> big{};
    EXPECT_EQ(qorIpcSend(daemon, big.data(), uint32_t(big.size()), 0), -1);
    EXPECT_EQ(qorIpcSend(daemon, msg.data(), 10, 0), -1) << "shorter than a header";
}

TEST_F(Ipc, OnlyTheOwnerMayUseTheQueues) {
    Key_getReqQueue(qorTaskStartup(0, nullptr, 0, 0));
    struct stat st {};
    ASSERT_EQ(stat((runDir + "/ipc").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0700u);
    ASSERT_EQ(stat(path(336, 0, 1).c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
}

TEST_F(Ipc, StaleSocketOfAKilledDaemonIsReplaced) {
    // Leave a bound-then-closed socket file behind, as a killed process would.
    ASSERT_GE(Key_getReqQueue(qorTaskStartup(0, nullptr, 0, 0)), 0);  // makes RUNDIR/ipc
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    const std::string p = path(77, 0, 1);
    std::strncpy(addr.sun_path, p.c_str(), sizeof addr.sun_path - 1);
    int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
    ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
    close(fd);
    const int q = Key_getReqQueue(qorTaskStartup(0, nullptr, 77, 0));
    EXPECT_GE(q, 0) << "the stale socket file blocked the queue";
}

// ---- receive, reply, synchronous requests ------------------------------------------

// A socket of another program in the run directory (a CLI, a harness).
class RawSocket {
public:
    RawSocket(const std::string& dir, const std::string& name) : path_(dir + "/ipc/" + name) {
        fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_un addr = addrOf(path_);
        unlink(path_.c_str());
        if (bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
            close(fd_);
            fd_ = -1;
        }
    }
    RawSocket(const RawSocket&) = delete;
    RawSocket& operator=(const RawSocket&) = delete;
    ~RawSocket() {
        if (fd_ >= 0) close(fd_);
        unlink(path_.c_str());
    }
    static sockaddr_un addrOf(const std::string& path) {
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        std::strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
        return addr;
    }
    bool sendTo(const std::string& path, const std::vector<uint8_t>& bytes) const {
        sockaddr_un addr = addrOf(path);
        return sendto(fd_, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr*>(&addr),
                      sizeof addr) == ssize_t(bytes.size());
    }
    // What waits in the socket, without blocking: the datagram, or empty.
    std::vector<uint8_t> take() const {
        std::vector<uint8_t> buf(QOR_IPC_MAX_MSG * 2);
        const ssize_t n = recv(fd_, buf.data(), buf.size(), MSG_DONTWAIT);
        buf.resize(n > 0 ? size_t(n) : 0);
        return buf;
    }
    int fd() const { return fd_; }

private:
    std::string path_;
    int fd_ = -1;
};

// A message of `size` bytes whose length word says `lengthWord`.
std::vector<uint8_t> message(size_t size, uint32_t lengthWord, uint32_t type = 6001) {
    std::vector<uint8_t> m(size, 0);
    qorIpcBuildHeader(m, lengthWord, type, qor_sysGetIpAddr(), qor_getQueueId(99, 0, 1),
                      qor_sysGetIpAddr(), qor_getQueueId(336, 0, 1));
    for (size_t i = QOR_IPC_HDR_LEN; i < size; ++i) m[i] = uint8_t(i);
    return m;
}

class IpcExchange : public Ipc {
protected:
    void SetUp() override {
        daemon = Key_getReqQueue(qorTaskStartup(0, nullptr, 0, 0));
        peer = Key_getReqQueue(qorTaskStartup(0, nullptr, 138, 0));
        ASSERT_GE(daemon, 0);
        ASSERT_GE(peer, 0);
    }
    // The peer answers the next request with `answer` (status word filled by
    // `status` when answer is empty: the request's own bytes are sent back).
    std::thread answerOnce(uint32_t status, std::vector<uint8_t> answer = {}) {
        return std::thread([this, status, answer] {
            std::array<uint8_t, QOR_IPC_MAX_MSG> buf{};
            const int n = qorIpcRecv(peer, buf.data(), uint32_t(buf.size()), 0, 0, 0);
            if (n <= 0) return;
            if (answer.empty()) {
                qor::putU32(buf, QOR_IPC_OFF_STATUS, status);
                qorIpcReply(peer, buf.data(), uint32_t(n));
            } else {
                qorIpcReply(peer, answer.data(), uint32_t(answer.size()));
            }
        });
    }
    int daemon = -1;
    int peer = -1;
};

struct RecvCase {
    const char* what;
    size_t sent;
    uint32_t lengthWord;
    uint32_t bufLen;
    int expected;
};

class IpcRecvBound : public IpcExchange, public ::testing::WithParamInterface<RecvCase> {};

TEST_P(IpcRecvBound, CountIsWhatArrivedNeverTheLengthWord) {
    const RecvCase& c = GetParam();
    RawSocket cli(runDir, "t.recv");
    ASSERT_GE(cli.fd(), 0);
    ASSERT_TRUE(cli.sendTo(path(336, 0, 1), message(c.sent, c.lengthWord)));
    std::vector<uint8_t> buf(c.bufLen + 16, 0xEE);
    const int n = qorIpcRecv(daemon, buf.data(), c.bufLen, QOR_IPC_NOWAIT, 0, 0);
    EXPECT_EQ(n, c.expected) << c.what;
    for (size_t i = c.bufLen; i < buf.size(); ++i)
        ASSERT_EQ(buf[i], 0xEE) << c.what << ": wrote past the buffer at " << i;
}

INSTANTIATE_TEST_SUITE_P(
    LyingAndLongMessages, IpcRecvBound,
    ::testing::Values(RecvCase{"length word larger than the message", 80, 4000, 8192, 80},
                      RecvCase{"length word zero", 96, 0, 8192, 96},
                      RecvCase{"length word past the maximum", 64, 0xFFFFFFFF, 8192, 64},
                      RecvCase{"message longer than the buffer", 300, 300, 100, 100},
                      RecvCase{"message exactly the buffer", 100, 100, 100, 100}));

TEST_F(IpcExchange, NothingWaitingGivesMinusOneWithoutBlocking) {
    std::array<uint8_t, 128> buf{};
    EXPECT_EQ(qorIpcRecv(daemon, buf.data(), uint32_t(buf.size()), QOR_IPC_NOWAIT, 0, 0), -1);
    EXPECT_EQ(qorIpcRecv(-1, buf.data(), uint32_t(buf.size()), QOR_IPC_NOWAIT, 0, 0), -1);
}

TEST_F(IpcExchange, ReplyGoesBackToTheSenderOfTheLastMessage) {
    RawSocket first(runDir, "t.first");
    RawSocket second(runDir, "t.second");
    std::array<uint8_t, 256> buf{};

    ASSERT_TRUE(first.sendTo(path(336, 0, 1), message(80, 80)));
    ASSERT_EQ(qorIpcRecv(daemon, buf.data(), uint32_t(buf.size()), 0, 0, 0), 80);
    qor::putU32(buf, QOR_IPC_OFF_STATUS, 7);
    ASSERT_EQ(qorIpcReply(daemon, buf.data(), qor::u32At(buf, QOR_IPC_OFF_LENGTH)), 0);
    const auto toFirst = first.take();
    ASSERT_EQ(toFirst.size(), 80u);
    EXPECT_EQ(qor::u32At(toFirst, QOR_IPC_OFF_STATUS), 7u);
    EXPECT_EQ(toFirst[79], 79) << "the reply carries the request's own fields";

    ASSERT_TRUE(second.sendTo(path(336, 0, 1), message(72, 72)));
    ASSERT_EQ(qorIpcRecv(daemon, buf.data(), uint32_t(buf.size()), 0, 0, 0), 72);
    ASSERT_EQ(qorIpcReply(daemon, buf.data(), 72), 0);
    EXPECT_EQ(second.take().size(), 72u);
    EXPECT_TRUE(first.take().empty()) << "the first sender got the second's reply";
}

TEST_F(IpcExchange, ReplyWithNoSenderToAnswerIsMinusTwo) {
    const int fresh = Key_getReqQueue(qorTaskStartup(0, nullptr, 250, 3));
    std::array<uint8_t, 64> msg{};
    EXPECT_EQ(qorIpcReply(fresh, msg.data(), 64), -2) << "nothing was received yet";

    // An unbound socket has no name to answer.
    int anon = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr = RawSocket::addrOf(path(250, 3, 1));
    const auto m = message(64, 64);
    ASSERT_EQ(sendto(anon, m.data(), m.size(), 0, reinterpret_cast<sockaddr*>(&addr), sizeof addr),
              64);
    std::array<uint8_t, 128> buf{};
    ASSERT_EQ(qorIpcRecv(fresh, buf.data(), uint32_t(buf.size()), 0, 0, 0), 64);
    EXPECT_EQ(qorIpcReply(fresh, buf.data(), 64), -2);
    close(anon);
}

TEST_F(IpcExchange, ReplyNeverReadsPastTheReceiveBuffer) {
    // The length word claims 4000 bytes; the loop's buffer holds 100.
    RawSocket cli(runDir, "t.liar");
    ASSERT_TRUE(cli.sendTo(path(336, 0, 1), message(100, 4000)));
    std::vector<uint8_t> buf(100);
    ASSERT_EQ(qorIpcRecv(daemon, buf.data(), 100, 0, 0, 0), 100);
    ASSERT_EQ(qorIpcReply(daemon, buf.data(), qor::u32At(buf, QOR_IPC_OFF_LENGTH)), 0);
    EXPECT_EQ(cli.take().size(), 100u);
}

TEST_F(IpcExchange, SendWaitGetsThePeersAnswerInTheSameBuffer) {
    std::thread peerTask = answerOnce(0x2A);
    auto msg = message(120, 120, 10802);
    qorIpcSetSourceHeader(msg, 120, 10802, 138, 0, QOR_QUEUE_REQUEST);
    const int rc = qorIpcSendWait(daemon, msg.data(), 120, 500, 10802, 0);
    peerTask.join();
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(qor::u32At(msg, QOR_IPC_OFF_STATUS), 0x2Au);
    EXPECT_EQ(msg[119], 119);
    std::array<uint8_t, 64> stray{};
    EXPECT_EQ(qorIpcRecv(daemon, stray.data(), 64, QOR_IPC_NOWAIT, 0, 0), -1)
        << "the answer must not land in the daemon's request queue";
}

TEST_F(IpcExchange, SendWaitWithoutAnAnswerTimesOut) {
    auto msg = message(64, 64);
    qorIpcSetSourceHeader(msg, 64, 1, 138, 0, QOR_QUEUE_REQUEST);
    EXPECT_EQ(qorIpcSendWait(daemon, msg.data(), 64, 2, 1, 0), -2);
    std::array<uint8_t, 128> got{};
    EXPECT_EQ(qorIpcRecv(peer, got.data(), 128, QOR_IPC_NOWAIT, 0, 0), 64) << "it was sent";
}

TEST_F(IpcExchange, LateAnswerIsNotTakenForTheNextRequest) {
    auto first = message(80, 80);
    qorIpcSetSourceHeader(first, 80, 1, 138, 0, QOR_QUEUE_REQUEST);
    ASSERT_EQ(qorIpcSendWait(daemon, first.data(), 80, 1, 1, 0), -2);
    // The peer answers the first request only now.
    std::array<uint8_t, 128> buf{};
    ASSERT_EQ(qorIpcRecv(peer, buf.data(), 128, QOR_IPC_NOWAIT, 0, 0), 80);
    qor::putU32(buf, QOR_IPC_OFF_STATUS, 111);
    ASSERT_EQ(qorIpcReply(peer, buf.data(), 80), 0);

    std::thread peerTask = answerOnce(222);
    auto second = message(80, 80);
    qorIpcSetSourceHeader(second, 80, 1, 138, 0, QOR_QUEUE_REQUEST);
    const int rc = qorIpcSendWait(daemon, second.data(), 80, 500, 1, 0);
    peerTask.join();
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(qor::u32At(second, QOR_IPC_OFF_STATUS), 222u);
}

TEST_F(IpcExchange, SendWaitToAMissingQueueFailsAtOnce) {
    auto msg = message(64, 64);
    qorIpcSetSourceHeader(msg, 64, 1, 250, 9, QOR_QUEUE_REQUEST);
    EXPECT_EQ(qorIpcSendWait(daemon, msg.data(), 64, 500, 1, 0), -1);
    EXPECT_EQ(qorIpcSendWait(-1, msg.data(), 64, 500, 1, 0), -1) << "no queue of the caller's";
}

TEST_F(IpcExchange, AnswerLongerThanTheCallersBufferIsCut) {
    std::vector<uint8_t> answer = message(300, 300);
    for (size_t i = QOR_IPC_HDR_LEN; i < answer.size(); ++i) answer[i] = 0xA5;
    std::thread peerTask = answerOnce(0, answer);
    std::vector<uint8_t> buf(164, 0x11);  // 100 bytes of request, then a guard
    auto req = message(100, 100);
    qorIpcSetSourceHeader(req, 100, 1, 138, 0, QOR_QUEUE_REQUEST);
    std::copy(req.begin(), req.end(), buf.begin());
    const int rc = qorIpcSendWait(daemon, buf.data(), 100, 500, 1, 0);
    peerTask.join();
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(buf[99], 0xA5) << "the answer fills the caller's buffer";
    for (size_t i = 100; i < buf.size(); ++i) ASSERT_EQ(buf[i], 0x11) << "overran at " << i;
}

TEST_F(IpcExchange, ToolWithoutAQueueReachesTheDaemon) {
    // dhcpv6-cli has no request queue: its answer comes back to a private socket.
    std::thread daemonTask([this] {
        std::array<uint8_t, 256> buf{};
        const int n = qorIpcRecv(daemon, buf.data(), uint32_t(buf.size()), 0, 0, 0);
        if (n <= 0) return;
        qor::putU32(buf, QOR_IPC_OFF_STATUS, 5);
        qorIpcReply(daemon, buf.data(), uint32_t(n));
    });
    auto msg = message(88, 88);
    const int rc = qorIpcRequest(336, 0, msg.data(), 88, 500);
    daemonTask.join();
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(qor::u32At(msg, QOR_IPC_OFF_STATUS), 5u);
    EXPECT_EQ(qorIpcRequest(250, 9, msg.data(), 88, 500), -1) << "no such daemon";
}

TEST_F(IpcExchange, QueueMovesWithTheRunDirectory) {
    char tmpl[] = "/tmp/qor-ipc2-XXXXXX";
    const std::string other = mkdtemp(tmpl);
    qorSetRunDir(other.c_str());
    const int moved = Key_getReqQueue(qorTaskStartup(0, nullptr, 0, 0));
    EXPECT_EQ(moved, daemon) << "the handle stays the same";
    struct stat st {};
    EXPECT_EQ(stat((other + "/ipc/336.0.1").c_str(), &st), 0);
    EXPECT_TRUE(qorIpcQueueReachable(qor_getQueueId(336, 0, 1)));
    EXPECT_FALSE(qorIpcQueueReachable(qor_getQueueId(138, 0, 1))) << "138 was not asked for here";
    qorSetRunDir(runDir.c_str());
    Key_getReqQueue(qorTaskStartup(0, nullptr, 0, 0));
    std::system(("rm -rf " + other).c_str());
}

}  // namespace
