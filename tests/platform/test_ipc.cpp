// IPC request queues and the header on the wire, as another process sees them.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <string>

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

}  // namespace
