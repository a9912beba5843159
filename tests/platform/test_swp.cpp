// SWP queues between two processes' request queues (both in this test
// process): what the peer receives, what the owner gets back, what is freed.
// The tick counter is driven by hand, so retransmissions happen when the test
// says.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

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
using Msg = std::vector<uint8_t>;

int freeCalls = 0;
std::vector<int> sendErrorQueues;

void* testAlloc(uint32_t size) { return qorMC_M_memBlockVarAlloc("test_swp", __LINE__, 1, size, kModule, 0, 0); }
int testFree(void* block) {
    ++freeCalls;
    return qorMC_M_memBlockVarFree("test_swp", __LINE__, block);
}
void testErr(int queue, int) { sendErrorQueues.push_back(queue); }
void freeBlock(void* block) { qorMC_M_memBlockVarFree("test_swp", __LINE__, block); }

// The next message waiting on a queue handle or socket, or empty.
Msg next(int queue) {
    Msg buf(QOR_IPC_MAX_MSG);
    const int n = qorIpcRecv(queue, buf.data(), uint32_t(buf.size()), QOR_IPC_NOWAIT, 0, 0);
    buf.resize(n > 0 ? size_t(n) : 0);
    return buf;
}
std::vector<Msg> all(int queue) {
    std::vector<Msg> out;
    for (auto m = next(queue); !m.empty(); m = next(queue)) out.push_back(m);
    return out;
}
std::vector<uint32_t> seqs(const std::vector<Msg>& msgs) {
    std::vector<uint32_t> out;
    for (const auto& m : msgs) out.push_back(qor::u32At(m, QOR_SWP_OFF_SEQ));
    return out;
}

// A peer program (the ACL service, 57) whose socket can go away and come back.
class PeerSocket {
public:
    PeerSocket() : path_(std::string(qorRunDir()) + "/ipc/57.0.1") { up(); }
    ~PeerSocket() { down(); }
    void up() {
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        std::strncpy(addr.sun_path, path_.c_str(), sizeof addr.sun_path - 1);
        fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
    }
    void down() {
        if (fd_ >= 0) close(fd_);
        unlink(path_.c_str());
        fd_ = -1;
    }
    std::vector<Msg> take() const {
        std::vector<Msg> out;
        for (Msg buf(QOR_IPC_MAX_MSG); recv(fd_, buf.data(), buf.size(), MSG_DONTWAIT) > 0;)
            out.push_back({buf.begin(), buf.begin() + 8});  // the numbering words
        return out;
    }

private:
    std::string path_;
    int fd_ = -1;
};

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
        sendErrorQueues.clear();
        owner = Key_getReqQueue(qorTaskStartup(0, nullptr, 336, 0));
        peer = Key_getReqQueue(qorTaskStartup(0, nullptr, 138, 0));
        ASSERT_GE(owner, 0);
        ASSERT_GE(peer, 0);
        pipeName = "/qor/pipe/swp-" + std::string(::testing::UnitTest::GetInstance()->current_test_info()->name());
        pipeFd = qorSwpCreatePipe(pipeName.c_str());
        ASSERT_GE(pipeFd, 0);
        qorTickSetManual(true);
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
        EXPECT_EQ(qorSwpQueueCreate_p(0, maxEntries, window, kRetransmit, 336, 0, owner, dstApp, 0, msgType,
                                      testAlloc, 0, testFree, testErr, &handle, pipeFd),
                  0);
        if (handle >= 0) made.push_back(handle);
        return handle;
    }
    // A block built as the daemon builds one: header, then its fields.
    void* enqueue(int queue, uint32_t mark, uint32_t type = 5701) {
        auto* block = static_cast<uint8_t*>(qorSwpAllocBlock(queue, kMsgLen));
        if (block == nullptr) return nullptr;
        std::memset(block, 0, kMsgLen);
        const qor::MutByteView m(block, kMsgLen);
        qorIpcSetSourceHeader(m, kMsgLen, type, 138, 0, QOR_QUEUE_REQUEST);
        qor::putU32(m, 80, mark);
        EXPECT_EQ(qorSwpEnqueue(queue, block, kMsgLen), 0);
        return block;
    }
    int peerAccepts(const Msg& msg) { return qorSwpCkSeqAndAck(msg.data(), uint32_t(msg.size()), &peerSeq, peer); }
    // The block an acknowledgement gives back, or null.
    static void* dequeue(const Msg& ack) {
        void* block = nullptr;
        return qorSwpDequeue(ack.data(), uint32_t(ack.size()), &block) == 0 ? block : nullptr;
    }
    // The owner's dispatcher hands every acknowledgement to the SWP layer
    // and frees what comes back.
    int ownerTakesAcks() {
        int freed = 0;
        for (const auto& ack : all(owner)) {
            EXPECT_EQ(qor::u32At(ack, QOR_IPC_OFF_TYPE), MT_SWP_ACK);
            if (void* block = dequeue(ack)) {
                freeBlock(block);
                ++freed;
            }
        }
        return freed;
    }
    bool ownerPipeReadable(int timeoutMs = 0) const {
        pollfd p{pipeFd, POLLIN, 0};
        return poll(&p, 1, timeoutMs) == 1;
    }

    std::string runDir, pipeName;
    int owner = -1, peer = -1, pipeFd = -1;
    QOR_SWP_SEQ peerSeq{};
    std::vector<int> made;
};

TEST_F(Swp, MessagesReachThePeerInOrderAndEachAckGivesBackItsBlock) {
    const int q = makeQueue(10, 0, 12804);
    // The queue's type is stamped only on a block without one.
    const uint32_t types[] = {0, 7777, 5701};
    void* blocks[3];
    for (uint32_t i = 0; i < 3; ++i) blocks[i] = enqueue(q, 0xA0 + i, types[i]);
    EXPECT_TRUE(ownerPipeReadable()) << "enqueue must wake the owner's loop";
    EXPECT_TRUE(next(peer).empty()) << "nothing is sent before the owner reads its pipe";

    ASSERT_EQ(qorSwpReadPipe(pipeFd), 0);
    EXPECT_FALSE(ownerPipeReadable()) << "the pipe words were consumed";
    const auto got = all(peer);
    ASSERT_EQ(seqs(got), (std::vector<uint32_t>{1, 2, 3}));
    // The peer takes only the next number; out of order is not acknowledged.
    EXPECT_EQ(peerAccepts(got[1]), QOR_SWP_OUT_OF_ORDER);
    EXPECT_TRUE(next(owner).empty());
    for (uint32_t i = 0; i < 3; ++i) {
        EXPECT_EQ(qor::u32At(got[i], QOR_SWP_OFF_QUEUE), uint32_t(q));
        EXPECT_EQ(qor::u32At(got[i], 80), 0xA0u + i) << "the caller's fields travel unchanged";
        EXPECT_EQ(qor::u32At(got[i], QOR_IPC_OFF_TYPE), i == 0 ? 12804u : types[i]);
        EXPECT_EQ(qor::u32At(got[i], QOR_IPC_OFF_SRC_QUEUE), qor_getQueueId(336, 0, 1));
        EXPECT_EQ(qor::u32At(got[i], QOR_IPC_OFF_DST_QUEUE), qor_getQueueId(138, 0, 1));
        EXPECT_EQ(peerAccepts(got[i]), QOR_SWP_IN_ORDER);
    }
    EXPECT_EQ(peerAccepts(got[0]), QOR_SWP_DUPLICATE);
    EXPECT_EQ(qorSwpQueueDepth(q), 3);
    // A duplicate is acknowledged again (its first ack may be lost), but that
    // ack must not hand the freed block out again.
    const auto acks = all(owner);
    ASSERT_EQ(seqs(acks), (std::vector<uint32_t>{1, 2, 3, 1}));
    for (uint32_t i = 0; i < 4; ++i) {
        void* block = dequeue(acks[i]);
        EXPECT_EQ(block, i < 3 ? blocks[i] : nullptr) << "ack " << i;
        if (block) freeBlock(block);
    }
    EXPECT_EQ(qorSwpQueueDepth(q), 0);
    EXPECT_EQ(freeCalls, 0) << "acknowledged blocks are freed by the owner, not the queue";
}

TEST_F(Swp, WindowLimitsMessagesInFlight) {
    const int q = makeQueue(2);
    for (uint32_t i = 1; i <= 5; ++i) enqueue(q, i);
    qorSwpReadPipe(pipeFd);
    auto got = all(peer);
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(peerAccepts(got[0]), QOR_SWP_IN_ORDER);
    EXPECT_EQ(ownerTakesAcks(), 1);
    EXPECT_TRUE(ownerPipeReadable()) << "an acknowledgement that opens the window wakes the owner";
    qorSwpReadPipe(pipeFd);
    EXPECT_EQ(seqs(all(peer)), std::vector<uint32_t>{3}) << "one slot opened, one more message";
    EXPECT_EQ(qorSwpQueueDepth(q), 4);
}

TEST_F(Swp, FlushAndRemoveFreeEveryBlockAndNumberingGoesOnFromWhatThePeerHas) {
    const int q = makeQueue(2, 5);
    for (uint32_t i = 1; i <= 5; ++i) enqueue(q, i);
    void* extra = qorSwpAllocBlock(q, kMsgLen);
    EXPECT_EQ(qorSwpEnqueue(q, extra, kMsgLen), -1) << "a full queue refuses";
    EXPECT_EQ(qorSwpFreeBlock(q, extra), 0) << "and the caller keeps the block";
    qorSwpReadPipe(pipeFd);  // two in flight, three waiting
    EXPECT_EQ(qorSwpQueueFlush(q), 0);
    EXPECT_EQ(freeCalls, 6);
    EXPECT_EQ(qorMemVarLiveCount(kModule), 0u);
    EXPECT_EQ(qorSwpQueueDepth(q), 0) << "a flushed queue stays usable";
    // The two in flight reached the peer, which processes them after the flush.
    for (const auto& m : all(peer)) EXPECT_EQ(peerAccepts(m), QOR_SWP_IN_ORDER);
    EXPECT_EQ(ownerTakesAcks(), 0) << "acknowledgements of flushed blocks name nothing";
    enqueue(q, 6);
    qorSwpReadPipe(pipeFd);
    EXPECT_EQ(peerAccepts(next(peer)), QOR_SWP_IN_ORDER) << "the next message must be the one expected";
    EXPECT_EQ(ownerTakesAcks(), 1);
    for (uint32_t i = 1; i <= 3; ++i) enqueue(q, i);
    EXPECT_EQ(qorSwpQueueRemove(q), 0);
    EXPECT_EQ(freeCalls, 9);
    EXPECT_EQ(qorSwpQueueDepth(q), -1);
    EXPECT_EQ(qorSwpEnqueue(q, &freeCalls, kMsgLen), -1) << "a removed queue takes nothing";
    EXPECT_EQ(qorSwpQueueRemove(q), -1);
    made.clear();
}

TEST_F(Swp, PeerThatIsAwayGetsTheNumbersItStillWaitsFor) {
    int q = 12345;
    EXPECT_EQ(qorSwpQueueCreate_p(0, 0, 10, kRetransmit, 336, 0, owner, 57, 0, 0, testAlloc, 0, testFree, testErr,
                                  &q, pipeFd),
              -1) << "no queue to a peer that is not there";
    EXPECT_EQ(q, 12345);
    PeerSocket acl;
    ASSERT_EQ(qorSwpQueueCreateQs(0, 0, 10, kRetransmit, 336, 0, owner, 57, 0, qor_getQueueId(336, 0, 3), 0, 0,
                                  testAlloc, 0, testFree, testErr, &q, pipeFd),
              0);
    made.push_back(q);
    enqueue(q, 1);
    qorSwpReadPipe(pipeFd);
    acl.down();
    enqueue(q, 2);
    enqueue(q, 3);
    qorSwpReadPipe(pipeFd);
    EXPECT_EQ(sendErrorQueues, (std::vector<int>{q, q})) << "each failed send is reported";
    acl.up();
    qorTickAdvance(kRetransmit - 1);
    qorSwpReadPipe(pipeFd);
    EXPECT_TRUE(acl.take().empty()) << "resent before the interval";
    qorTickAdvance(1);
    // The platform's thread wakes the owner once the blocks are due.
    ASSERT_TRUE(ownerPipeReadable(10000)) << "no wake-up for the due retransmission";
    qorSwpReadPipe(pipeFd);
    EXPECT_EQ(seqs(acl.take()), (std::vector<uint32_t>{1, 2, 3})) << "unacknowledged ones are sent again";
    acl.down();
    enqueue(q, 4);
    qorSwpReadPipe(pipeFd);
    ASSERT_EQ(qorSwpQueueFlush(q), 0);
    acl.up();
    enqueue(q, 5);
    qorSwpReadPipe(pipeFd);
    EXPECT_EQ(seqs(acl.take()), std::vector<uint32_t>{4}) << "after a flush the undelivered number is given again";
}

TEST_F(Swp, BadAcknowledgementGivesNoBlock) {
    const int q = makeQueue(10);
    enqueue(q, 1);
    qorSwpReadPipe(pipeFd);
    struct Case {
        const char* what;
        size_t length;
        uint32_t type, seq;
        int queue;
    };
    for (const Case& c : {Case{"unknown sequence", 64, MT_SWP_ACK, 2, q}, Case{"sequence 0", 64, MT_SWP_ACK, 0, q},
                          Case{"unknown queue", 64, MT_SWP_ACK, 1, q + 1000},
                          Case{"not an acknowledgement", 64, 10908, 1, q},
                          Case{"cut before the type word", 15, MT_SWP_ACK, 1, q},
                          Case{"cut before the queue word", 6, MT_SWP_ACK, 1, q}}) {
        Msg ack(64, 0);
        qorIpcBuildHeader(ack, 64, c.type, 0, 0, 0, 0);
        qor::putU32(ack, QOR_SWP_OFF_SEQ, c.seq);
        qor::putU32(ack, QOR_SWP_OFF_QUEUE, uint32_t(c.queue));
        void* block = &freeCalls;
        EXPECT_EQ(qorSwpDequeue(ack.data(), uint32_t(c.length), &block), -1) << c.what;
        EXPECT_EQ(block, &freeCalls) << c.what << ": the output was touched";
    }
    EXPECT_EQ(qorSwpQueueDepth(q), 1);
}

TEST_F(Swp, ShortOrUnnumberedMessageIsNeitherProcessedNorAcknowledged) {
    Msg msg(QOR_IPC_HDR_LEN, 0);
    qorIpcBuildHeader(msg, 64, 10908, qor_sysGetIpAddr(), qor_getQueueId(336, 0, 1), qor_sysGetIpAddr(),
                      qor_getQueueId(138, 0, 1));
    qor::putU32(msg, QOR_SWP_OFF_SEQ, 1);
    EXPECT_EQ(qorSwpCkSeqAndAck(msg.data(), uint32_t(QOR_IPC_HDR_LEN - 1), &peerSeq, peer), QOR_SWP_OUT_OF_ORDER);
    qor::putU32(msg, QOR_SWP_OFF_SEQ, 0);
    EXPECT_EQ(peerAccepts(msg), QOR_SWP_OUT_OF_ORDER) << "0 never names a message";
    EXPECT_TRUE(next(owner).empty());
    qor::putU32(msg, QOR_SWP_OFF_SEQ, 1);
    EXPECT_EQ(peerAccepts(msg), QOR_SWP_IN_ORDER);
    EXPECT_EQ(next(owner).size(), 64u) << "the acknowledgement is a 64-byte message";
}

}  // namespace
