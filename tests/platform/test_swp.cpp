// SWP queues between two processes' request queues (both in this test
// process): what the peer receives, what the owner gets back, what is freed.
// The tick counter is driven by hand, so retransmissions happen when the test
// says.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "qor/bytes.h"
#include "qor/ipc.h"
#include "qor/mem.h"
#include "qor/pipe.h"
#include "qor/swp.h"
#include "qor/task.h"

namespace {

constexpr uint32_t kModule = 0x7A0000;  // the test's own variable partition
constexpr int kRetransmit = 25;
constexpr uint32_t kMsgLen = 96;

int freeCalls = 0;
std::vector<std::pair<int, int>> sendErrors;

void* testAlloc(uint32_t size) {
    return qorMC_M_memBlockVarAlloc("test_swp", __LINE__, 1, size, kModule, 0, 0);
}
int testFree(void* block) {
    ++freeCalls;
    return qorMC_M_memBlockVarFree("test_swp", __LINE__, block);
}
void testErr(int queue, int error) { sendErrors.emplace_back(queue, error); }

class Swp : public ::testing::Test {
protected:
    void SetUp() override {
        char tmpl[] = "/tmp/qor-swp-XXXXXX";
        runDir = mkdtemp(tmpl);
        qorSetRunDir(runDir.c_str());
        qorPlatformSetIdentity(336, 0);
        qorMemReset();
        const uint32_t sizes[] = {128, 512, 8192};
        ASSERT_EQ(qorMC_qor_memPartVarInit(kModule, 0, sizes, 3), OK);
        freeCalls = 0;
        sendErrors.clear();
        owner = Key_getReqQueue(qorTaskStartup(0, nullptr, 336, 0));
        peer = Key_getReqQueue(qorTaskStartup(0, nullptr, 138, 0));
        ASSERT_GE(owner, 0);
        ASSERT_GE(peer, 0);
        pipeName = "/qor/pipe/swp-" +
                   std::string(::testing::UnitTest::GetInstance()->current_test_info()->name());
        pipeFd = qorSwpCreatePipe(pipeName.c_str());
        ASSERT_GE(pipeFd, 0);
        qorTickSetManual(true);
        drainOwnerPipe();
    }
    void TearDown() override {
        for (int q : made) qorSwpQueueRemove(q);
        qorTickSetManual(false);
        pipeDevDelete(pipeName.c_str());
        EXPECT_EQ(qorMemVarLiveCount(kModule), 0u) << "blocks left outstanding";
        qorMemReset();
        qorSetRunDir("/run/qor");
        std::system(("rm -rf " + runDir).c_str());
    }

    int makeQueue(int window, int maxEntries = 0, uint32_t msgType = 0, int dstApp = 138) {
        int handle = -1;
        EXPECT_EQ(qorSwpQueueCreate_p(0, maxEntries, window, kRetransmit, 336, 0, owner, dstApp, 0,
                                      msgType, testAlloc, 0, testFree, testErr, &handle, pipeFd),
                  0);
        if (handle >= 0) made.push_back(handle);
        return handle;
    }
    // A block built as the daemon builds one: header, then its fields.
    void* enqueueMessage(int queue, uint8_t mark, uint32_t type = 5701) {
        auto* block = static_cast<uint8_t*>(qorSwpAllocBlock(queue, kMsgLen));
        EXPECT_NE(block, nullptr);
        if (block == nullptr) return nullptr;
        std::memset(block, 0, kMsgLen);
        const qor::MutByteView m(block, kMsgLen);
        qorIpcSetSourceHeader(m, kMsgLen, type, 138, 0, QOR_QUEUE_REQUEST);
        qor::putU32(m, 80, mark);
        EXPECT_EQ(qorSwpEnqueue(queue, block, kMsgLen), 0);
        return block;
    }
    // The next message waiting in a queue, or empty.
    static std::vector<uint8_t> next(int queue) {
        std::vector<uint8_t> buf(QOR_IPC_MAX_MSG);
        const int n = qorIpcRecv(queue, buf.data(), uint32_t(buf.size()), QOR_IPC_NOWAIT, 0, 0);
        buf.resize(n > 0 ? size_t(n) : 0);
        return buf;
    }
    static std::vector<std::vector<uint8_t>> all(int queue) {
        std::vector<std::vector<uint8_t>> out;
        for (auto m = next(queue); !m.empty(); m = next(queue)) out.push_back(m);
        return out;
    }
    // The peer processes a message as a dispatcher would: check, acknowledge.
    int peerAccepts(const std::vector<uint8_t>& msg) {
        return qorSwpCkSeqAndAck(msg.data(), uint32_t(msg.size()), &peerSeq, peer);
    }
    // The owner's dispatcher hands every acknowledgement to the SWP layer
    // and frees what comes back.
    int ownerTakesAcks() {
        int freed = 0;
        for (const auto& ack : all(owner)) {
            EXPECT_EQ(qor::u32At(ack, QOR_IPC_OFF_TYPE), MT_SWP_ACK);
            void* block = nullptr;
            if (qorSwpDequeue(ack.data(), uint32_t(ack.size()), &block) == 0 && block) {
                qorMC_M_memBlockVarFree("test_swp", __LINE__, block);
                ++freed;
            }
        }
        return freed;
    }
    bool ownerPipeReadable(int timeoutMs = 0) const {
        pollfd p{pipeFd, POLLIN, 0};
        return poll(&p, 1, timeoutMs) == 1;
    }
    void drainOwnerPipe() {
        uint32_t w;
        while (ownerPipeReadable()) ASSERT_EQ(read(pipeFd, &w, 4), 4);
    }

    std::string runDir;
    std::string pipeName;
    int owner = -1;
    int peer = -1;
    int pipeFd = -1;
    QOR_SWP_SEQ peerSeq{};
    std::vector<int> made;
};

TEST_F(Swp, MessagesReachThePeerInOrderNumberedFromOne) {
    const int q = makeQueue(10);
    void* blocks[3];
    for (uint8_t i = 0; i < 3; ++i) blocks[i] = enqueueMessage(q, uint8_t(0xA0 + i));
    EXPECT_TRUE(ownerPipeReadable()) << "enqueue must wake the owner's loop";
    EXPECT_TRUE(next(peer).empty()) << "nothing is sent before the owner reads its pipe";

    ASSERT_EQ(qorSwpReadPipe(pipeFd), 0);
    EXPECT_FALSE(ownerPipeReadable()) << "the pipe words were consumed";
    const auto got = all(peer);
    ASSERT_EQ(got.size(), 3u);
    for (uint32_t i = 0; i < 3; ++i) {
        EXPECT_EQ(qor::u32At(got[i], QOR_SWP_OFF_SEQ), i + 1);
        EXPECT_EQ(qor::u32At(got[i], QOR_SWP_OFF_QUEUE), uint32_t(q));
        EXPECT_EQ(qor::u32At(got[i], 80), 0xA0u + i) << "the caller's fields travel unchanged";
        EXPECT_EQ(qor::u32At(got[i], QOR_IPC_OFF_TYPE), 5701u);
        EXPECT_EQ(qor::u32At(got[i], QOR_IPC_OFF_SRC_QUEUE), qor_getQueueId(336, 0, 1));
        EXPECT_EQ(qor::u32At(got[i], QOR_IPC_OFF_DST_QUEUE), qor_getQueueId(138, 0, 1));
        EXPECT_EQ(peerAccepts(got[i]), QOR_SWP_IN_ORDER);
    }
    EXPECT_EQ(qorSwpQueueDepth(q), 3);
    // Each acknowledgement gives back exactly the block it names.
    const auto acks = all(owner);
    ASSERT_EQ(acks.size(), 3u);
    for (uint32_t i = 0; i < 3; ++i) {
        EXPECT_EQ(qor::u32At(acks[i], QOR_SWP_OFF_SEQ), i + 1);
        void* block = nullptr;
        ASSERT_EQ(qorSwpDequeue(acks[i].data(), uint32_t(acks[i].size()), &block), 0);
        EXPECT_EQ(block, blocks[i]);
        qorMC_M_memBlockVarFree("test_swp", __LINE__, block);
    }
    EXPECT_EQ(qorSwpQueueDepth(q), 0);
    EXPECT_EQ(freeCalls, 0) << "acknowledged blocks are freed by the owner, not the queue";
    EXPECT_EQ(qorMemVarLiveCount(kModule), 0u);
}

TEST_F(Swp, QueueTypeIsStampedOnlyOnBlocksWithoutOne) {
    const int q = makeQueue(10, 0, 12804);
    enqueueMessage(q, 1, 0);
    enqueueMessage(q, 2, 7777);
    qorSwpReadPipe(pipeFd);
    const auto got = all(peer);
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(qor::u32At(got[0], QOR_IPC_OFF_TYPE), 12804u);
    EXPECT_EQ(qor::u32At(got[1], QOR_IPC_OFF_TYPE), 7777u);
    for (const auto& m : got) peerAccepts(m);
    EXPECT_EQ(ownerTakesAcks(), 2);
}

TEST_F(Swp, DuplicateIsAcknowledgedAgainAndDropped) {
    const int q = makeQueue(10);
    enqueueMessage(q, 1);
    qorSwpReadPipe(pipeFd);
    const auto msg = next(peer);
    ASSERT_FALSE(msg.empty());
    EXPECT_EQ(peerAccepts(msg), QOR_SWP_IN_ORDER);
    EXPECT_EQ(peerAccepts(msg), QOR_SWP_DUPLICATE);
    const auto acks = all(owner);
    ASSERT_EQ(acks.size(), 2u) << "a duplicate is acknowledged again (its first ack may be lost)";
    void* block = nullptr;
    ASSERT_EQ(qorSwpDequeue(acks[0].data(), uint32_t(acks[0].size()), &block), 0);
    qorMC_M_memBlockVarFree("test_swp", __LINE__, block);
    void* again = nullptr;
    EXPECT_EQ(qorSwpDequeue(acks[1].data(), uint32_t(acks[1].size()), &again), -1);
    EXPECT_EQ(again, nullptr) << "the second ack must not hand the freed block out again";
}

TEST_F(Swp, OutOfOrderIsDroppedWithoutAcknowledgement) {
    const int q = makeQueue(10);
    enqueueMessage(q, 1);
    enqueueMessage(q, 2);
    qorSwpReadPipe(pipeFd);
    const auto got = all(peer);
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(peerAccepts(got[1]), QOR_SWP_OUT_OF_ORDER) << "message 1 was lost";
    EXPECT_TRUE(next(owner).empty());
    EXPECT_EQ(peerAccepts(got[0]), QOR_SWP_IN_ORDER);
    EXPECT_EQ(peerAccepts(got[1]), QOR_SWP_IN_ORDER);
    EXPECT_EQ(ownerTakesAcks(), 2);
}

TEST_F(Swp, LostMessageIsSentAgainAfterTheRetransmissionInterval) {
    const int q = makeQueue(10);
    void* block = enqueueMessage(q, 0x55);
    qorSwpReadPipe(pipeFd);
    const auto lost = next(peer);  // the peer never sees this one
    ASSERT_FALSE(lost.empty());

    qorTickAdvance(kRetransmit - 1);
    qorSwpReadPipe(pipeFd);
    EXPECT_TRUE(next(peer).empty()) << "resent before the interval";

    qorTickAdvance(1);
    // The platform's thread wakes the owner once the block is due.
    ASSERT_TRUE(ownerPipeReadable(10000)) << "no wake-up for the due retransmission";
    qorSwpReadPipe(pipeFd);
    const auto resent = next(peer);
    ASSERT_EQ(resent.size(), lost.size());
    EXPECT_EQ(resent, lost) << "the same message with the same number";
    EXPECT_EQ(peerAccepts(resent), QOR_SWP_IN_ORDER);
    const auto acks = all(owner);
    ASSERT_EQ(acks.size(), 1u);
    void* back = nullptr;
    ASSERT_EQ(qorSwpDequeue(acks[0].data(), uint32_t(acks[0].size()), &back), 0);
    EXPECT_EQ(back, block);
    qorMC_M_memBlockVarFree("test_swp", __LINE__, back);
}

TEST_F(Swp, WindowLimitsMessagesInFlight) {
    const int q = makeQueue(2);
    for (uint8_t i = 1; i <= 5; ++i) enqueueMessage(q, i);
    qorSwpReadPipe(pipeFd);
    auto got = all(peer);
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(peerAccepts(got[0]), QOR_SWP_IN_ORDER);
    EXPECT_EQ(ownerTakesAcks(), 1);
    EXPECT_TRUE(ownerPipeReadable()) << "an acknowledgement that opens the window wakes the owner";
    qorSwpReadPipe(pipeFd);
    got = all(peer);
    ASSERT_EQ(got.size(), 1u) << "one slot opened, one more message";
    EXPECT_EQ(qor::u32At(got[0], QOR_SWP_OFF_SEQ), 3u);
    EXPECT_EQ(qorSwpQueueDepth(q), 4);
    EXPECT_EQ(qorSwpQueueFlush(q), 0);
}

TEST_F(Swp, FullQueueRefusesAndTheCallerKeepsTheBlock) {
    const int q = makeQueue(1, 2);
    enqueueMessage(q, 1);
    enqueueMessage(q, 2);
    void* extra = qorSwpAllocBlock(q, kMsgLen);
    ASSERT_NE(extra, nullptr);
    EXPECT_EQ(qorSwpEnqueue(q, extra, kMsgLen), -1);
    EXPECT_EQ(qorSwpQueueDepth(q), 2);
    EXPECT_EQ(qorSwpFreeBlock(q, extra), 0);
    EXPECT_EQ(freeCalls, 1);
}

TEST_F(Swp, FlushAndRemoveFreeEveryBlock) {
    const int q = makeQueue(2);
    for (uint8_t i = 1; i <= 5; ++i) enqueueMessage(q, i);
    qorSwpReadPipe(pipeFd);  // two in flight, three waiting
    EXPECT_EQ(qorMemVarLiveCount(kModule), 5u);
    EXPECT_EQ(qorSwpQueueFlush(q), 0);
    EXPECT_EQ(freeCalls, 5);
    EXPECT_EQ(qorMemVarLiveCount(kModule), 0u);
    EXPECT_EQ(qorSwpQueueDepth(q), 0) << "a flushed queue stays usable";

    for (uint8_t i = 1; i <= 3; ++i) enqueueMessage(q, i);
    EXPECT_EQ(qorSwpQueueRemove(q), 0);
    EXPECT_EQ(freeCalls, 8);
    EXPECT_EQ(qorMemVarLiveCount(kModule), 0u);
    EXPECT_EQ(qorSwpQueueDepth(q), -1);
    EXPECT_EQ(qorSwpEnqueue(q, &freeCalls, kMsgLen), -1) << "a removed queue takes nothing";
    EXPECT_EQ(qorSwpQueueRemove(q), -1);
    made.clear();
}

TEST_F(Swp, AfterAFlushNumberingGoesOnFromWhatThePeerHas) {
    const int q = makeQueue(2);
    enqueueMessage(q, 1);
    enqueueMessage(q, 2);
    qorSwpReadPipe(pipeFd);
    // Both reached the peer, which processes them after the owner flushed.
    ASSERT_EQ(qorSwpQueueFlush(q), 0);
    for (const auto& m : all(peer)) EXPECT_EQ(peerAccepts(m), QOR_SWP_IN_ORDER);
    all(owner);  // acknowledgements of flushed blocks name nothing any more
    enqueueMessage(q, 3);
    qorSwpReadPipe(pipeFd);
    const auto m = next(peer);
    ASSERT_FALSE(m.empty());
    EXPECT_EQ(peerAccepts(m), QOR_SWP_IN_ORDER) << "the next message must be the one expected";
    EXPECT_EQ(ownerTakesAcks(), 1);
}

// A peer program whose queue socket can go away and come back.
class PeerSocket {
public:
    explicit PeerSocket(uint32_t queueId) : queueId_(queueId) { up(); }
    PeerSocket(const PeerSocket&) = delete;
    PeerSocket& operator=(const PeerSocket&) = delete;
    ~PeerSocket() { down(); }
    void up() {
        const std::string path = std::string(qorRunDir()) + "/ipc/" +
                                 std::to_string(queueId_ >> 16) + "." +
                                 std::to_string((queueId_ >> 8) & 0xFF) + "." +
                                 std::to_string(queueId_ & 0xFF);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        std::strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
        unlink(path.c_str());
        fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
        path_ = path;
    }
    void down() {
        if (fd_ < 0) return;
        close(fd_);
        unlink(path_.c_str());
        fd_ = -1;
    }
    std::vector<std::vector<uint8_t>> take() const {
        std::vector<std::vector<uint8_t>> out;
        for (;;) {
            std::vector<uint8_t> buf(QOR_IPC_MAX_MSG);
            const ssize_t n = recv(fd_, buf.data(), buf.size(), MSG_DONTWAIT);
            if (n <= 0) return out;
            buf.resize(size_t(n));
            out.push_back(buf);
        }
    }

private:
    uint32_t queueId_;
    std::string path_;
    int fd_ = -1;
};

TEST_F(Swp, QueueToAPeerThatIsNotThereIsNotCreated) {
    int handle = 12345;
    EXPECT_EQ(qorSwpQueueCreate_p(0, 0, 10, kRetransmit, 336, 0, owner, 57, 0, 0, testAlloc, 0,
                                  testFree, testErr, &handle, pipeFd),
              -1);
    EXPECT_EQ(handle, 12345);
    PeerSocket acl(qor_getQueueId(57, 0, 1));
    EXPECT_EQ(qorSwpQueueCreateQs(0, 0, 10, kRetransmit, 336, 0, owner, 57, 0,
                                  qor_getQueueId(336, 0, 3), 0, 0, testAlloc, 0, testFree, testErr,
                                  &handle, pipeFd),
              0)
        << "the owner retries until the peer is up";
    made.push_back(handle);
}

TEST_F(Swp, FailedSendIsReportedAndRetransmittedWhenThePeerIsBack) {
    PeerSocket acl(qor_getQueueId(57, 0, 1));
    const int q = makeQueue(10, 0, 0, 57);
    acl.down();
    enqueueMessage(q, 1);
    enqueueMessage(q, 2);
    qorSwpReadPipe(pipeFd);
    ASSERT_EQ(sendErrors.size(), 2u);
    EXPECT_EQ(sendErrors[0].first, q);

    acl.up();
    qorTickAdvance(kRetransmit);
    qorSwpReadPipe(pipeFd);
    const auto got = acl.take();
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(qor::u32At(got[0], QOR_SWP_OFF_SEQ), 1u);
    EXPECT_EQ(qor::u32At(got[1], QOR_SWP_OFF_SEQ), 2u);
}

TEST_F(Swp, AfterAFlushUndeliveredNumbersAreGivenOutAgain) {
    PeerSocket acl(qor_getQueueId(57, 0, 1));
    const int q = makeQueue(10, 0, 0, 57);
    enqueueMessage(q, 1);
    qorSwpReadPipe(pipeFd);
    acl.down();
    enqueueMessage(q, 2);
    enqueueMessage(q, 3);
    qorSwpReadPipe(pipeFd);  // 2 and 3 never get there
    ASSERT_EQ(qorSwpQueueFlush(q), 0);
    acl.up();
    enqueueMessage(q, 4);
    qorSwpReadPipe(pipeFd);
    const auto got = acl.take();
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(qor::u32At(got[0], QOR_SWP_OFF_SEQ), 2u) << "the peer still waits for number 2";
}

struct BadAck {
    const char* what;
    size_t length;
    uint32_t type;
    uint32_t seq;
    bool otherQueue;
};

class SwpBadAck : public Swp, public ::testing::WithParamInterface<BadAck> {};

TEST_P(SwpBadAck, GivesNoBlock) {
    const BadAck& c = GetParam();
    const int q = makeQueue(10);
    enqueueMessage(q, 1);
    qorSwpReadPipe(pipeFd);
    std::vector<uint8_t> ack(64, 0);
    qorIpcBuildHeader(ack, 64, c.type, 0, 0, 0, 0);
    qor::putU32(ack, QOR_SWP_OFF_SEQ, c.seq);
    qor::putU32(ack, QOR_SWP_OFF_QUEUE, c.otherQueue ? uint32_t(q + 1000) : uint32_t(q));
    void* block = &freeCalls;
    EXPECT_EQ(qorSwpDequeue(ack.data(), uint32_t(c.length), &block), -1) << c.what;
    EXPECT_EQ(block, &freeCalls) << c.what << ": the output was touched";
    EXPECT_EQ(qorSwpQueueDepth(q), 1) << c.what;
}

INSTANTIATE_TEST_SUITE_P(
    Acks, SwpBadAck,
    ::testing::Values(BadAck{"unknown sequence", 64, MT_SWP_ACK, 2, false},
                      BadAck{"sequence 0", 64, MT_SWP_ACK, 0, false},
                      BadAck{"unknown queue", 64, MT_SWP_ACK, 1, true},
                      BadAck{"not an acknowledgement", 64, 10908, 1, false},
                      BadAck{"cut before the type word", 15, MT_SWP_ACK, 1, false},
                      BadAck{"cut before the queue word", 6, MT_SWP_ACK, 1, false}));

TEST_F(Swp, ShortMessageIsNeitherProcessedNorAcknowledged) {
    std::vector<uint8_t> msg(QOR_IPC_HDR_LEN, 0);
    qorIpcBuildHeader(msg, 64, 10908, qor_sysGetIpAddr(), qor_getQueueId(336, 0, 1),
                      qor_sysGetIpAddr(), qor_getQueueId(138, 0, 1));
    qor::putU32(msg, QOR_SWP_OFF_SEQ, 1);
    EXPECT_EQ(qorSwpCkSeqAndAck(msg.data(), uint32_t(QOR_IPC_HDR_LEN - 1), &peerSeq, peer),
              QOR_SWP_OUT_OF_ORDER);
    EXPECT_TRUE(next(owner).empty());
    qor::putU32(msg, QOR_SWP_OFF_SEQ, 0);
    EXPECT_EQ(peerAccepts(msg), QOR_SWP_OUT_OF_ORDER) << "0 never names a message";
    EXPECT_TRUE(next(owner).empty());
    qor::putU32(msg, QOR_SWP_OFF_SEQ, 1);
    EXPECT_EQ(peerAccepts(msg), QOR_SWP_IN_ORDER);
    EXPECT_EQ(peerSeq.expected, 2u);
    EXPECT_EQ(next(owner).size(), 64u) << "the acknowledgement is a 64-byte message";
}

}  // namespace
