// IPC and SWP queues between two processes (both in this test process), as the
// other side sees them; the tick is driven by hand for SWP's retransmissions.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "qor/ipc.h"
#include "qor/mem.h"
#include "qor/pipe.h"
#include "qor/swp.h"
#include "qor/task.h"

namespace {

using Msg = std::vector<uint8_t>;
using Words = std::vector<uint32_t>;
constexpr uint32_t kModule = 0x7A0000;  // the test's own variable partition
constexpr int kRetransmit = 25;
void* swpAlloc(uint32_t size) { return qorMC_M_memBlockVarAlloc("test_ipc", __LINE__, 1, size, kModule, 0, 0); }
int swpFree(void* block) { return qorMC_M_memBlockVarFree("test_ipc", __LINE__, block); }

// A socket of another program bound at `path`; or, given a message and that socket, the send of it to `path`.
int rawSocket(const std::string& path, const Msg& m = {}, int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un addr{AF_UNIX, {}};
    std::strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
    if (!m.empty()) return int(sendto(fd, m.data(), m.size(), 0, reinterpret_cast<sockaddr*>(&addr), sizeof addr));
    return bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0 ? fd : -1;
}
// Every message waiting on a queue handle (or, raw, on a socket), without blocking.
std::vector<Msg> all(int queue, bool raw = false) {
    std::vector<Msg> out;
    for (Msg buf(QOR_IPC_MAX_MSG);; buf.resize(QOR_IPC_MAX_MSG)) {
        const long n = raw ? recv(queue, buf.data(), buf.size(), MSG_DONTWAIT)
                           : qorIpcRecv(queue, buf.data(), uint32_t(buf.size()), QOR_IPC_NOWAIT, 0, 0);
        if (n <= 0) return out;
        out.emplace_back(buf.begin(), buf.begin() + n);
    }
}
// One word of each message: by default its sequence number.
Words words(const std::vector<Msg>& msgs, size_t off = QOR_SWP_OFF_SEQ) {
    Words out;
    for (const auto& m : msgs) out.push_back(qor::u32At(m, off));
    return out;
}
// `size` bytes whose length word says `lengthWord`, from the owner's queue to application `dstApp`.
Msg message(size_t size, uint32_t lengthWord, int dstApp = 336, uint32_t type = 6001) {
    Msg m(size, 0);
    qorIpcBuildHeader(m, lengthWord, type, qor_sysGetIpAddr(), qor_getQueueId(336, 0, 1), qor_sysGetIpAddr(),
                      qor_getQueueId(dstApp, 0, 1));
    for (size_t i = QOR_IPC_HDR_LEN; i < size; ++i) m[i] = uint8_t(i);
    return m;
}

class Ipc : public ::testing::Test {
protected:
    void SetUp() override {
        char tmpl[] = "/tmp/qor-ipc-XXXXXX";
        const uint32_t sizes[] = {128, 512, 8192};
        qorSetRunDir((runDir = mkdtemp(tmpl)).c_str()), qorPlatformSetIdentity(336, 0), qorTickSetManual(true);
        qorMemReset();
        owner = Key_getReqQueue(qorTaskStartup(0, nullptr, 336, 0));
        peer = Key_getReqQueue(qorTaskStartup(0, nullptr, 138, 0));
        ASSERT_TRUE(owner >= 0 && peer >= 0 && (pipeFd = qorSwpCreatePipe("/qor/pipe/swp-test")) >= 0 &&
                    qorMC_qor_memPartVarInit(kModule, 0, sizes, 3) == OK);
    }
    void TearDown() override {
        EXPECT_EQ(q >= 0 ? qorSwpQueueRemove(q) : 0, 0);
        EXPECT_EQ(qorMemVarLiveCount(kModule), 0u) << "removing the queue must free every block it holds";
        EXPECT_EQ(qorMemDoubleFreeCount(), 0u) << "a block freed by both the queue and its owner";
        qorTickSetManual(false), pipeDevDelete("/qor/pipe/swp-test"), qorSetRunDir("/run/qor");
        std::filesystem::remove_all(runDir);
    }
    void makeQueue(int maxEntries, int window, uint32_t type = 0) {
        ASSERT_EQ(qorSwpQueueCreate_p(0, maxEntries, window, kRetransmit, 336, 0, owner, 138, 0, type, swpAlloc, 0,
                                      swpFree, nullptr, &q, pipeFd), 0);
    }
    // A block built as the daemon builds one, header then fields; null when the queue refuses it.
    void* enqueue(uint32_t mark, uint32_t type = 5701) {
        auto* block = static_cast<uint8_t*>(qorSwpAllocBlock(q, 96));
        qorIpcSetSourceHeader(qor::MutByteView(block, 96), 96, type, 138, 0, QOR_QUEUE_REQUEST);
        qor::putU32(qor::MutByteView(block, 96), 80, mark);
        if (qorSwpEnqueue(q, block, 96) == 0) return block;
        EXPECT_EQ(qorSwpFreeBlock(q, block), 0) << "a refused block stays the caller's";
        return nullptr;
    }
    int accept(const Msg& m, size_t len = 0) {
        return qorSwpCkSeqAndAck(m.data(), uint32_t(len ? len : m.size()), &peerSeq, peer);
    }
    // The owner's dispatcher hands each acknowledgement to SWP and frees the block it gets back.
    std::vector<void*> takeAcks() {
        std::vector<void*> blocks;
        for (const auto& ack : all(owner)) {  // 64-byte messages of their own type
            EXPECT_EQ(Words({uint32_t(ack.size()), qor::u32At(ack, QOR_IPC_OFF_TYPE)}), Words({64, MT_SWP_ACK}));
            void* block = nullptr;
            blocks.push_back(qorSwpDequeue(ack.data(), uint32_t(ack.size()), &block) == 0 ? block : nullptr);
            if (block) swpFree(block);
        }
        return blocks;
    }
    bool pipeReadable(int timeoutMs = 0) const {
        pollfd p{pipeFd, POLLIN, 0};
        return poll(&p, 1, timeoutMs) == 1;
    }
    std::string runDir;
    int owner = -1, peer = -1, pipeFd = -1, q = -1;
    QOR_SWP_SEQ peerSeq{};
};

// The count is what arrived, whatever the length word says, never more than
// the buffer; a reply echoing a lying length word sends only what arrived.
TEST_F(Ipc, ReceiveAndReplyStayWithinWhatArrived) {
    EXPECT_EQ(qorIpcRecv(owner, Msg(64).data(), 64, QOR_IPC_NOWAIT, 0, 0), -1) << "nothing waiting";
    const std::tuple<const char*, size_t, uint32_t, uint32_t, int> cases[] = {  // sent, length word, buffer, count
        {"length word larger than the message", 80, 4000, 8192, 80}, {"length word zero", 96, 0, 8192, 96},
        {"length word past the maximum", 64, 0xFFFFFFFF, 8192, 64},
        {"message longer than the buffer", 300, 300, 100, 100}, {"message exactly the buffer", 100, 100, 100, 100}};
    const int cli = rawSocket(runDir + "/ipc/t.cli");
    for (const auto& [what, sent, lengthWord, bufLen, count] : cases) {
        ASSERT_EQ(rawSocket(runDir + "/ipc/336.0.1", message(sent, lengthWord), cli), int(sent));
        Msg buf(bufLen + 16, 0xEE);
        EXPECT_EQ(qorIpcRecv(owner, buf.data(), bufLen, QOR_IPC_NOWAIT, 0, 0), count) << what;
        EXPECT_EQ(std::count(buf.begin() + bufLen, buf.end(), 0xEE), 16) << what << ": wrote past the buffer";
        ASSERT_EQ(qorIpcReply(owner, buf.data(), std::max(lengthWord, uint32_t(sent))), 0) << what;
        EXPECT_EQ(all(cli, true).at(0).size(), size_t(count)) << what;
    }
    close(cli);
}

// The peer takes each number once and in order; each acknowledgement gives
// back its block once, even when a duplicate is acknowledged again. Short,
// lying or foreign acknowledgements give no block; short or unnumbered
// messages are neither processed nor acknowledged, and move no state.
TEST_F(Ipc, SwpPeerProcessesInOrderOnceAndEachAckGivesBackItsBlock) {
    makeQueue(0, 10, 12804);
    void* const blocks[] = {enqueue(0xA0, 0), enqueue(0xA1, 7777)};  // the queue's type only where none is set
    EXPECT_TRUE(pipeReadable() && all(peer).empty()) << "enqueue wakes the owner's loop, which sends";
    ASSERT_EQ(qorSwpReadPipe(pipeFd), 0);
    EXPECT_FALSE(pipeReadable()) << "the pipe words were consumed";
    const auto got = all(peer);
    ASSERT_EQ(words(got), (Words{1, 2}));
    // Addressed owner to peer with the queue's identifier, the caller's fields unchanged.
    EXPECT_EQ(words(got, QOR_SWP_OFF_QUEUE), (Words{uint32_t(q), uint32_t(q)}));
    EXPECT_EQ(words(got, QOR_IPC_OFF_TYPE), (Words{12804, 7777}));
    EXPECT_EQ(words(got, QOR_IPC_OFF_SRC_QUEUE), Words(2, qor_getQueueId(336, 0, 1)));
    EXPECT_EQ(words(got, QOR_IPC_OFF_DST_QUEUE), Words(2, qor_getQueueId(138, 0, 1)));
    EXPECT_EQ(words(got, 80), (Words{0xA0, 0xA1}));
    const std::tuple<const char*, bool, uint32_t, uint32_t, uint32_t, uint32_t> bad[] = {
        // what, an acknowledgement?, length, type, number, queue offset
        {"ack of an unknown number", true, 64, MT_SWP_ACK, 3, 0}, {"ack of number 0", true, 64, MT_SWP_ACK, 0, 0},
        {"ack of an unknown queue", true, 64, MT_SWP_ACK, 1, 1000}, {"ack of another type", true, 64, 10908, 1, 0},
        {"ack cut before the type word", true, 15, MT_SWP_ACK, 1, 0},
        {"ack cut before the queue word", true, 6, MT_SWP_ACK, 1, 0},
        {"message shorter than a header", false, 63, 10908, 1, 0}, {"message numbered 0", false, 64, 10908, 0, 0},
        {"message out of order", false, 64, 10908, 2, 0}};
    for (const auto& [what, ack, length, type, seq, queue] : bad) {
        Msg m = message(64, 64, 138, type);
        qor::putU32(m, QOR_SWP_OFF_SEQ, seq);
        qor::putU32(m, QOR_SWP_OFF_QUEUE, uint32_t(q) + queue);
        void* out = &peerSeq;
        EXPECT_EQ(ack ? qorSwpDequeue(m.data(), length, &out) : accept(m, length), ack ? -1 : QOR_SWP_OUT_OF_ORDER)
            << what;
        EXPECT_EQ(out, &peerSeq) << what << ": the output was touched";
        EXPECT_TRUE(all(owner).empty()) << what << ": acknowledged";
    }
    EXPECT_EQ(qorSwpQueueDepth(q), 2);
    EXPECT_EQ(accept(got[0]), QOR_SWP_IN_ORDER);
    EXPECT_EQ(accept(got[1]), QOR_SWP_IN_ORDER);
    EXPECT_EQ(accept(got[0]), QOR_SWP_DUPLICATE) << "its first acknowledgement may have been lost";
    EXPECT_EQ(takeAcks(), (std::vector<void*>{blocks[0], blocks[1], nullptr}));
    EXPECT_EQ(qorSwpQueueDepth(q), 0);
}

// Two in flight at most; a lost message is resent with its number once the
// interval has passed, and an acknowledgement that opens the window sends more.
TEST_F(Ipc, SwpLostMessageIsResentAfterTheIntervalAndTheWindowBoundsWhatIsInFlight) {
    makeQueue(3, 2);
    for (uint32_t i = 1; i <= 3; ++i) ASSERT_NE(enqueue(i), nullptr);
    EXPECT_EQ(enqueue(4), nullptr) << "a full queue refuses";
    qorSwpReadPipe(pipeFd);
    const auto first = all(peer);
    ASSERT_EQ(words(first), (Words{1, 2}));
    EXPECT_EQ(accept(first[1]), QOR_SWP_OUT_OF_ORDER) << "the first was lost";
    qorTickAdvance(kRetransmit - 1);
    qorSwpReadPipe(pipeFd);
    EXPECT_TRUE(all(peer).empty()) << "resent before the interval";
    qorTickAdvance(1);
    ASSERT_TRUE(pipeReadable(10000)) << "no wake-up for the due retransmission";
    qorSwpReadPipe(pipeFd);
    const auto again = all(peer);
    ASSERT_EQ(words(again), (Words{1, 2}));
    for (const auto& m : again) EXPECT_EQ(accept(m), QOR_SWP_IN_ORDER);
    EXPECT_EQ(takeAcks().size(), 2u);
    EXPECT_TRUE(pipeReadable()) << "an acknowledgement that opens the window wakes the owner";
    qorSwpReadPipe(pipeFd);
    EXPECT_EQ(words(all(peer)), Words{3});
}

}  // namespace
