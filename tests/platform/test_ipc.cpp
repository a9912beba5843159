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
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "qor/ipc.h"
#include "qor/task.h"

namespace {

using Msg = std::vector<uint8_t>;

TEST(IpcHeader, FieldsSitAtTheirOffsetsBigEndian) {
    std::array<uint8_t, 96> msg;
    msg.fill(0xAA);
    ASSERT_TRUE(qorIpcBuildHeader(msg, 0x01020304, 6001, 0x7F000001, 0x01500001, 0x7F000002, 0x008A0001));
    const std::pair<size_t, uint32_t> fields[] = {{8, 0x01020304}, {12, 6001},         {20, 0},
                                                  {36, 0},         {40, 0x7F000001},   {44, 0x01500001},
                                                  {48, 0},         {52, 0x7F000002},   {56, 0x008A0001}};
    for (const auto& [off, value] : fields) {
        const uint32_t word = (uint32_t(msg[off]) << 24) | (uint32_t(msg[off + 1]) << 16) |
                              (uint32_t(msg[off + 2]) << 8) | msg[off + 3];
        EXPECT_EQ(word, value) << "at " << off;
    }
    EXPECT_EQ(msg[64], 0xAA) << "the header builder wrote into the command's fields";
    std::array<uint8_t, 63> shortBuf{};
    EXPECT_FALSE(qorIpcBuildHeader(shortBuf, 63, 1, 0, 0, 0, 0));
    // Queues differ by application, instance and kind.
    const std::set<uint32_t> ids = {qor_getQueueId(336, 0, 1), qor_getQueueId(336, 0, 3), qor_getQueueId(336, 1, 1),
                                    qor_getQueueId(138, 0, 1)};
    EXPECT_EQ(ids.size(), 4u);
}

sockaddr_un addrOf(const std::string& path) {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
    return addr;
}

// A socket of another program in the run directory (a CLI, a harness); with
// no name it is unbound.
class RawSocket {
public:
    explicit RawSocket(const std::string& path = "") : path_(path), fd_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un addr = addrOf(path_);
        if (!path.empty()) bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
    }
    ~RawSocket() {
        close(fd_);
        if (!path_.empty()) unlink(path_.c_str());
    }
    bool sendTo(const std::string& path, const Msg& bytes) const {
        sockaddr_un addr = addrOf(path);
        return sendto(fd_, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr*>(&addr), sizeof addr) ==
               ssize_t(bytes.size());
    }
    // What waits in the socket, without blocking: the datagram, or empty.
    Msg take() const {
        Msg buf(QOR_IPC_MAX_MSG * 2);
        const ssize_t n = recv(fd_, buf.data(), buf.size(), MSG_DONTWAIT);
        buf.resize(n > 0 ? size_t(n) : 0);
        return buf;
    }

private:
    std::string path_;
    int fd_;
};

// A message of `size` bytes whose length word says `lengthWord`, to `dstApp`.
Msg message(size_t size, uint32_t lengthWord, int dstApp = 336) {
    Msg m(size, 0);
    qorIpcBuildHeader(m, lengthWord, 6001, qor_sysGetIpAddr(), qor_getQueueId(99, 0, 1), qor_sysGetIpAddr(),
                      qor_getQueueId(dstApp, 0, 1));
    if (dstApp != 336) qorIpcSetSourceHeader(m, lengthWord, 6001, dstApp, 0, QOR_QUEUE_REQUEST);
    for (size_t i = QOR_IPC_HDR_LEN; i < size; ++i) m[i] = uint8_t(i);
    return m;
}

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
    void SetUp() override {
        daemon = Key_getReqQueue(qorTaskStartup(0, nullptr, 0, 0));
        peer = Key_getReqQueue(qorTaskStartup(0, nullptr, 138, 0));
        ASSERT_GE(daemon, 0);
        ASSERT_GE(peer, 0);
    }
    static std::string path(int app, int inst = 0) {
        return runDir + "/ipc/" + std::to_string(app) + "." + std::to_string(inst) + ".1";
    }
    // The peer answers the next request: with `answer`, or else with the
    // request's own bytes and `status` in the status word.
    std::thread answerOnce(uint32_t status, Msg answer = {}) {
        return std::thread([this, status, answer] {
            std::array<uint8_t, QOR_IPC_MAX_MSG> buf{};
            const int n = qorIpcRecv(peer, buf.data(), uint32_t(buf.size()), 0, 0, 0);
            if (n <= 0) return;
            qor::putU32(buf, QOR_IPC_OFF_STATUS, status);
            if (answer.empty()) qorIpcReply(peer, buf.data(), uint32_t(n));
            else qorIpcReply(peer, answer.data(), uint32_t(answer.size()));
        });
    }
    int daemon = -1, peer = -1;
};
std::string Ipc::runDir;

TEST_F(Ipc, MessageReachesThePeerQueueWithTheBytesSent) {
    EXPECT_EQ(Key_getReqQueue(daemon), daemon) << "a queue handle names its receiving side";
    Msg msg = message(80, 80, 138);
    msg[79] = 0x5A;
    ASSERT_EQ(qorIpcSend(daemon, msg.data(), 80, 0), 0);
    std::array<uint8_t, 200> got{};
    ASSERT_EQ(recv(Key_getSocketFd(peer), got.data(), got.size(), MSG_DONTWAIT), 80);
    EXPECT_TRUE(std::equal(msg.begin(), msg.end(), got.begin()));
    EXPECT_EQ(qor::u32At(got, QOR_IPC_OFF_SRC_QUEUE), qor_getQueueId(336, 0, 1));
    // A missing queue, an oversized or a headerless message is not sent.
    EXPECT_EQ(qorIpcSend(daemon, message(64, 64, 250).data(), 64, 0), -1);
    Msg big(QOR_IPC_MAX_MSG + 1);
    EXPECT_EQ(qorIpcSend(daemon, big.data(), uint32_t(big.size()), 0), -1);
    EXPECT_EQ(qorIpcSend(daemon, msg.data(), 10, 0), -1) << "shorter than a header";
}

TEST_F(Ipc, QueuesArePrivateAndAStaleSocketOfAKilledDaemonIsReplaced) {
    struct stat st {};
    ASSERT_EQ(stat((runDir + "/ipc").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0700u);
    ASSERT_EQ(stat(path(336).c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    {  // bound then closed, as a killed process leaves it
        int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
        sockaddr_un addr = addrOf(path(77));
        ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
        close(fd);
    }
    EXPECT_GE(Key_getReqQueue(qorTaskStartup(0, nullptr, 77, 0)), 0) << "the stale socket file blocked the queue";
}

TEST_F(Ipc, ReceiveCountIsWhatArrivedAndStaysInTheBuffer) {
    std::array<uint8_t, 128> none{};
    EXPECT_EQ(qorIpcRecv(daemon, none.data(), 128, QOR_IPC_NOWAIT, 0, 0), -1) << "nothing waiting";
    EXPECT_EQ(qorIpcRecv(-1, none.data(), 128, QOR_IPC_NOWAIT, 0, 0), -1);
    struct Case {
        const char* what;
        size_t sent;
        uint32_t lengthWord, bufLen;
        int expected;
    };
    RawSocket cli(runDir + "/ipc/t.recv");
    for (const Case& c : {Case{"length word larger than the message", 80, 4000, 8192, 80},
                          Case{"length word zero", 96, 0, 8192, 96},
                          Case{"length word past the maximum", 64, 0xFFFFFFFF, 8192, 64},
                          Case{"message longer than the buffer", 300, 300, 100, 100},
                          Case{"message exactly the buffer", 100, 100, 100, 100}}) {
        ASSERT_TRUE(cli.sendTo(path(336), message(c.sent, c.lengthWord)));
        Msg buf(c.bufLen + 16, 0xEE);
        EXPECT_EQ(qorIpcRecv(daemon, buf.data(), c.bufLen, QOR_IPC_NOWAIT, 0, 0), c.expected) << c.what;
        for (size_t i = c.bufLen; i < buf.size(); ++i) ASSERT_EQ(buf[i], 0xEE) << c.what << ": wrote past at " << i;
    }
    // A reply after a lying length word sends only what the buffer holds.
    ASSERT_TRUE(cli.sendTo(path(336), message(100, 4000)));
    Msg buf(100);
    ASSERT_EQ(qorIpcRecv(daemon, buf.data(), 100, 0, 0, 0), 100);
    ASSERT_EQ(qorIpcReply(daemon, buf.data(), qor::u32At(buf, QOR_IPC_OFF_LENGTH)), 0);
    EXPECT_EQ(cli.take().size(), 100u);
}

TEST_F(Ipc, ReplyGoesBackToTheSenderOfTheLastMessage) {
    const int fresh = Key_getReqQueue(qorTaskStartup(0, nullptr, 250, 3));
    Msg buf(256);
    EXPECT_EQ(qorIpcReply(fresh, buf.data(), 64), -2) << "nothing was received yet";
    RawSocket first(runDir + "/ipc/t.first"), second(runDir + "/ipc/t.second"), anon;
    ASSERT_TRUE(first.sendTo(path(336), message(80, 80)));
    ASSERT_EQ(qorIpcRecv(daemon, buf.data(), uint32_t(buf.size()), 0, 0, 0), 80);
    qor::putU32(buf, QOR_IPC_OFF_STATUS, 7);
    ASSERT_EQ(qorIpcReply(daemon, buf.data(), 80), 0);
    const auto toFirst = first.take();
    ASSERT_EQ(toFirst.size(), 80u);
    EXPECT_EQ(qor::u32At(toFirst, QOR_IPC_OFF_STATUS), 7u);
    EXPECT_EQ(toFirst[79], 79) << "the reply carries the request's own fields";
    ASSERT_TRUE(second.sendTo(path(336), message(72, 72)));
    ASSERT_EQ(qorIpcRecv(daemon, buf.data(), uint32_t(buf.size()), 0, 0, 0), 72);
    ASSERT_EQ(qorIpcReply(daemon, buf.data(), 72), 0);
    EXPECT_EQ(second.take().size(), 72u);
    EXPECT_TRUE(first.take().empty()) << "the first sender got the second's reply";
    // An unbound socket has no name to answer.
    ASSERT_TRUE(anon.sendTo(path(250, 3), message(64, 64)));
    ASSERT_EQ(qorIpcRecv(fresh, buf.data(), uint32_t(buf.size()), 0, 0, 0), 64);
    EXPECT_EQ(qorIpcReply(fresh, buf.data(), 64), -2);
}

TEST_F(Ipc, SendWaitGetsThePeersAnswerInTheCallersBufferAndNoMore) {
    std::thread peerTask = answerOnce(0x2A);
    Msg msg = message(120, 120, 138);
    EXPECT_EQ(qorIpcSendWait(daemon, msg.data(), 120, 500, 6001, 0), 0);
    peerTask.join();
    EXPECT_EQ(qor::u32At(msg, QOR_IPC_OFF_STATUS), 0x2Au);
    EXPECT_EQ(msg[119], 119);
    std::array<uint8_t, 64> stray{};
    EXPECT_EQ(qorIpcRecv(daemon, stray.data(), 64, QOR_IPC_NOWAIT, 0, 0), -1)
        << "the answer must not land in the daemon's request queue";
    // An answer longer than the caller's message is cut to it.
    Msg answer = message(300, 300);
    std::fill(answer.begin() + QOR_IPC_HDR_LEN, answer.end(), 0xA5);
    peerTask = answerOnce(0, answer);
    Msg buf(164, 0x11);  // 100 bytes of request, then a guard
    const Msg req = message(100, 100, 138);
    std::copy(req.begin(), req.end(), buf.begin());
    EXPECT_EQ(qorIpcSendWait(daemon, buf.data(), 100, 500, 6001, 0), 0);
    peerTask.join();
    EXPECT_EQ(buf[99], 0xA5) << "the answer fills the caller's buffer";
    for (size_t i = 100; i < buf.size(); ++i) ASSERT_EQ(buf[i], 0x11) << "overran at " << i;
}

TEST_F(Ipc, LateAnswerIsNotTakenForTheNextRequest) {
    EXPECT_EQ(qorIpcSendWait(daemon, message(64, 64, 250).data(), 64, 500, 6001, 0), -1) << "no such queue";
    EXPECT_EQ(qorIpcSendWait(-1, message(64, 64, 138).data(), 64, 500, 6001, 0), -1) << "no queue of the caller's";
    Msg first = message(80, 80, 138);
    ASSERT_EQ(qorIpcSendWait(daemon, first.data(), 80, 1, 6001, 0), -2) << "no answer in time";
    // The peer answers the first request only now.
    std::array<uint8_t, 128> buf{};
    ASSERT_EQ(qorIpcRecv(peer, buf.data(), 128, QOR_IPC_NOWAIT, 0, 0), 80) << "it was sent";
    qor::putU32(buf, QOR_IPC_OFF_STATUS, 111);
    ASSERT_EQ(qorIpcReply(peer, buf.data(), 80), 0);
    std::thread peerTask = answerOnce(222);
    Msg second = message(80, 80, 138);
    EXPECT_EQ(qorIpcSendWait(daemon, second.data(), 80, 500, 6001, 0), 0);
    peerTask.join();
    EXPECT_EQ(qor::u32At(second, QOR_IPC_OFF_STATUS), 222u);
}

TEST_F(Ipc, ToolWithoutAQueueReachesTheDaemon) {
    // dhcpv6-cli has no request queue: its answer comes back to a private socket.
    std::thread daemonTask([this] {
        std::array<uint8_t, 256> buf{};
        const int n = qorIpcRecv(daemon, buf.data(), uint32_t(buf.size()), 0, 0, 0);
        qor::putU32(buf, QOR_IPC_OFF_STATUS, 5);
        if (n > 0) qorIpcReply(daemon, buf.data(), uint32_t(n));
    });
    Msg msg = message(88, 88);
    EXPECT_EQ(qorIpcRequest(336, 0, msg.data(), 88, 500), 0);
    daemonTask.join();
    EXPECT_EQ(qor::u32At(msg, QOR_IPC_OFF_STATUS), 5u);
    EXPECT_EQ(qorIpcRequest(250, 9, msg.data(), 88, 500), -1) << "no such daemon";
}

TEST_F(Ipc, QueueMovesWithTheRunDirectory) {
    char tmpl[] = "/tmp/qor-ipc2-XXXXXX";
    const std::string other = mkdtemp(tmpl);
    qorSetRunDir(other.c_str());
    EXPECT_EQ(Key_getReqQueue(qorTaskStartup(0, nullptr, 0, 0)), daemon) << "the handle stays the same";
    struct stat st {};
    EXPECT_EQ(stat((other + "/ipc/336.0.1").c_str(), &st), 0);
    EXPECT_TRUE(qorIpcQueueReachable(qor_getQueueId(336, 0, 1)));
    EXPECT_FALSE(qorIpcQueueReachable(qor_getQueueId(138, 0, 1))) << "138 was not asked for here";
    qorSetRunDir(runDir.c_str());
    Key_getReqQueue(qorTaskStartup(0, nullptr, 0, 0));
    std::system(("rm -rf " + other).c_str());
}

}  // namespace
