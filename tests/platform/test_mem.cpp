// Memory pools as their owners see them: what a leak, a double free or an
// injected failure looks like, which variable block a request gets, and what
// a handle resolves to after its block is gone.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <set>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "qor/mem.h"
#include "qor/task.h"

namespace {

constexpr uint32_t kModule = 0xC30000;
constexpr uint32_t kLastPool = 0xC30004;
constexpr uint32_t kTransPool = 0xC30002;
constexpr uint32_t kLeasePool = 0xC30003;
// The relay manager's variable block sizes, in the order it gives them.
constexpr uint32_t kVarSizes[] = {9300, 8192, 2048, 1516, 1024, 512, 256, 128, 64, 32};

class Mem : public ::testing::Test {
protected:
    void SetUp() override {
        qorMemReset();
        ASSERT_EQ(qor_memPartFixedInit(kModule, kLastPool, 0), OK);
        ASSERT_EQ(qorMC_qor_memPartVarInit(kModule, 0, kVarSizes, 10), OK);
        ASSERT_EQ(qorMC_M_memPoolCreate("DHCPV6_TRANSACTION_TBL_POOL", kTransPool, 0, 200), OK);
        ASSERT_EQ(qorMC_M_memPoolCreate("DHCPV6_LEASEIP_TBL_POOL", kLeasePool, 0, 72), OK);
    }
    void TearDown() override { qorMemReset(); }
    static void* take(uint32_t pool = kTransPool) { return qorMC_M_memBlockAlloc("TestUnit", 1, pool); }
    static int give(void* block, uint32_t pool = kTransPool) {
        return qorMC_M_memBlockFree("TestUnit", 2, pool, block);
    }
    static void* var(uint32_t size) { return qorMC_M_memBlockVarAlloc("TestUnit", 3, 1, size, kModule, 0, 0); }
    static int varFree(void* block) { return qorMC_M_memBlockVarFree("TestUnit", 4, block); }
};

TEST_F(Mem, LeakIsListedWithTheUnitLineAndSizeThatAllocatedIt) {
    void* kept = qorMC_M_memBlockAlloc("Dhcpv6RelayMgrTransTbl", 412, kTransPool);
    void* returned = qorMC_M_memBlockAlloc("Dhcpv6RelayMgrTransTbl", 415, kTransPool);
    void* v = qorMC_M_memBlockVarAlloc("Dhcpv6RelayMgrAgt", 2290, 1, 8192, kModule, 0, 0);
    void* sys = qorMC_M_sysMalloc("Dhcpv6RelayMgrPktRelay", 870, 300);
    ASSERT_TRUE(kept && returned && v && sys);
    ASSERT_EQ(give(returned), OK);
    auto live = qorMemLiveBlocks();
    std::vector<std::tuple<uint32_t, std::string, int>> got;
    for (const auto& b : live) got.emplace_back(b.poolId, b.unit, b.line);
    std::sort(got.begin(), got.end());
    EXPECT_EQ(got, (std::vector<std::tuple<uint32_t, std::string, int>>{
                       {QOR_MEM_SYSTEM, "Dhcpv6RelayMgrPktRelay", 870},
                       {kModule, "Dhcpv6RelayMgrAgt", 2290},
                       {kTransPool, "Dhcpv6RelayMgrTransTbl", 412}}));
    for (const auto& b : live) EXPECT_EQ(b.size, b.poolId == kTransPool ? 200u : b.poolId == kModule ? 8192u : 300u);
    EXPECT_EQ(qorMemLiveCount(kTransPool), 1u);
    EXPECT_EQ(qorMemLiveCount(QOR_MEM_SYSTEM), 1u);
    EXPECT_EQ(qorMemVarLiveCount(kModule), 1u);
    EXPECT_EQ(qorMemLiveCount(kLeasePool), 0u);
    ASSERT_EQ(qorMC_M_sysFree("Dhcpv6RelayMgrPktRelay", 880, sys), OK);
    ASSERT_EQ(varFree(v), OK);
    ASSERT_EQ(give(kept), OK);
    EXPECT_TRUE(qorMemLiveBlocks().empty());
}

TEST_F(Mem, DoubleForeignAndMisdirectedFreesAreRefusedCountedAndHarmless) {
    void* trans = take();
    void* v = var(100);
    void* sys = qorMC_M_sysMalloc("TestUnit", 4, 16);
    void* gone = take();
    ASSERT_TRUE(trans && v && sys && gone);
    ASSERT_EQ(give(gone), OK);
    int onStack = 0;
    EXPECT_EQ(give(gone), ERROR) << "double free";
    EXPECT_EQ(give(&onStack), ERROR);
    EXPECT_EQ(give(static_cast<char*>(trans) + 8), ERROR);
    EXPECT_EQ(give(trans, kLeasePool), ERROR) << "wrong pool";
    EXPECT_EQ(give(v, kModule), ERROR) << "variable block";
    EXPECT_EQ(varFree(trans), ERROR) << "pool block";
    EXPECT_EQ(qorMC_M_sysFree("TestUnit", 5, trans), ERROR) << "pool block";
    EXPECT_EQ(qorMemDoubleFreeCount(), 7u);
    // The pool hands out distinct blocks afterwards: the double free must not
    // have put the same slot on the free list twice.
    std::set<void*> seen{trans};
    for (int i = 0; i < 4; ++i) {
        void* p = take();
        ASSERT_NE(p, nullptr);
        EXPECT_TRUE(seen.insert(p).second) << "block handed out twice";
        std::memset(p, 0xA5, 200);
    }
    // Every block is still live and frees once through its own call.
    EXPECT_EQ(qorMemLiveBlocks().size(), 7u);
    for (void* p : seen) EXPECT_EQ(give(p), OK);
    EXPECT_EQ(varFree(v), OK);
    EXPECT_EQ(qorMC_M_sysFree("TestUnit", 6, sys), OK);
    EXPECT_EQ(qorMC_M_sysFree("TestUnit", 6, sys), ERROR);
    EXPECT_EQ(qorMemDoubleFreeCount(), 8u);
    EXPECT_TRUE(qorMemLiveBlocks().empty());
}

TEST_F(Mem, InjectedFailureHitsExactlyTheNextAllocationsOfThatPool) {
    qorMemFailNextAlloc(kTransPool, 2);
    qorMemFailNextAlloc(QOR_MEM_SYSTEM);
    qorMemFailNextAlloc(kModule);
    qorMemFailNextAlloc(kLeasePool, 3);
    qorMemFailNextAlloc(kLeasePool, 0);  // cleared
    void* lease = take(kLeasePool);
    EXPECT_NE(lease, nullptr) << "a cleared injection no longer fails";
    EXPECT_EQ(take(), nullptr);
    EXPECT_EQ(take(), nullptr);
    EXPECT_EQ(qorMC_M_sysMalloc("TestUnit", 1, 64), nullptr);
    EXPECT_EQ(var(64), nullptr);
    void* trans = take();
    void* sys = qorMC_M_sysMalloc("TestUnit", 1, 64);
    void* v = var(64);
    EXPECT_TRUE(trans && sys && v);
    EXPECT_EQ(qorMemLiveCount(kTransPool), 1u);
    give(trans);
    give(lease, kLeasePool);
    qorMC_M_sysFree("TestUnit", 1, sys);
    varFree(v);
    // Creating a pool fails too while its allocations are made to fail.
    ASSERT_EQ(qorMC_M_memPoolDelete(kTransPool), OK);
    qorMemFailNextAlloc(kTransPool);
    EXPECT_EQ(qorMC_M_memPoolCreate("DHCPV6_TRANSACTION_TBL_POOL", kTransPool, 0, 200), ERROR);
    EXPECT_EQ(qorMC_M_memPoolCreate("DHCPV6_TRANSACTION_TBL_POOL", kTransPool, 0, 200), OK);
}

TEST_F(Mem, BadPoolOrPartitionIsRefusedAndWhatExistsIsKept) {
    EXPECT_EQ(qorMC_M_memPoolCreate("bad", kModule - 1, 0, 64), ERROR) << "below the module";
    EXPECT_EQ(qorMC_M_memPoolCreate("bad", kLastPool + 1, 0, 64), ERROR) << "past the last pool";
    EXPECT_EQ(qorMC_M_memPoolCreate("bad", kTransPool, 0, 64), ERROR) << "id taken";
    EXPECT_EQ(qorMC_M_memPoolCreate("bad", kLastPool, 0, 0), ERROR) << "size zero";
    EXPECT_EQ(take(kModule - 1), nullptr);
    EXPECT_EQ(take(kLastPool), nullptr);
    void* p = take();
    EXPECT_EQ(qorMemBlockCapacity(p), 200u) << "the pool already made is kept as it was";
    give(p);
    EXPECT_EQ(qor_memPartFixedInit(kModule, kLastPool, 0), ERROR);
    EXPECT_EQ(qor_memPartFixedInit(kLastPool, kLastPool + 8, 0), ERROR) << "overlapping";
    EXPECT_EQ(qor_memPartFixedInit(0xC40010, 0xC4000F, 0), ERROR) << "empty range";
    EXPECT_EQ(qor_memPartFixedInit(0xC40000, 0xC40002, 0), OK) << "the timer service's own";
    EXPECT_EQ(qorMC_qor_memPartVarInit(kModule, 0, kVarSizes, 10), ERROR);
    const uint32_t withZero[] = {64, 0};
    EXPECT_EQ(qorMC_qor_memPartVarInit(0xC50000, 0, withZero, 2), ERROR);
    EXPECT_EQ(qorMC_M_memBlockVarAlloc("TestUnit", 1, 1, 64, 0xC50000, 0, 0), nullptr)
        << "no variable partition for that module";
}

TEST_F(Mem, VariableRequestGetsTheSmallestBlockThatFits) {
    struct Case {
        int count;
        uint32_t size;
        size_t capacity;  // 0: no block
    };
    for (const Case& c : {Case{1, 1, 32}, Case{1, 32, 32}, Case{1, 33, 64}, Case{1, 168, 256}, Case{1, 1516, 1516},
                          Case{1, 1517, 2048}, Case{1, 8192, 8192}, Case{1, 8193, 9300}, Case{1, 9300, 9300},
                          Case{1, 9301, 0}, Case{3, 100, 512}, Case{2, 4650, 9300}, Case{2, 4651, 0},
                          Case{0, 64, 0}, Case{0x7FFFFFFF, 0xFFFFFFFF, 0}}) {
        void* p = qorMC_M_memBlockVarAlloc("Dhcpv6RelayMgrUtil", 343, c.count, c.size, kModule, 0, 0);
        EXPECT_EQ(qorMemBlockCapacity(p), c.capacity) << c.count << " x " << c.size;
        if (p == nullptr) continue;
        std::memset(p, 0x5A, size_t(c.count) * c.size);  // the whole request is usable
        EXPECT_EQ(varFree(p), OK);
    }
    EXPECT_EQ(qorMemVarLiveCount(kModule), 0u);
}

TEST_F(Mem, HandleResolvesOnlyToItsLiveBlock) {
    void* a = take();
    void* b = take();
    const uint32_t ha = qorMemBlockHandle(kTransPool, a), hb = qorMemBlockHandle(kTransPool, b);
    EXPECT_NE(ha, 0u);
    EXPECT_NE(ha, hb);
    EXPECT_EQ(qorMemBlockFromHandle(kTransPool, ha), a);
    EXPECT_EQ(qorMemBlockFromHandle(kTransPool, hb), b);
    EXPECT_EQ(qorMemBlockHandle(kTransPool, a), ha) << "stable while live";
    EXPECT_EQ(qorMemBlockHandle(kLeasePool, a), 0u) << "not a block of that pool";
    int onStack = 0;
    EXPECT_EQ(qorMemBlockHandle(kTransPool, &onStack), 0u);
    for (uint32_t bogus : {0u, 0xFFFFFFFFu, ha ^ 0x00080000u, ha + 1u, ha ^ 0x00100000u}) {
        EXPECT_EQ(qorMemBlockFromHandle(kTransPool, bogus), bogus == hb ? b : nullptr) << std::hex << bogus;
    }
    EXPECT_EQ(qorMemBlockFromHandle(0xC40000, ha), nullptr) << "no such pool";
    // A stale handle resolves to nothing, even when its slot is reused.
    give(a);
    EXPECT_EQ(qorMemBlockFromHandle(kTransPool, ha), nullptr);
    EXPECT_EQ(qorMemBlockHandle(kTransPool, a), 0u);
    void* again = take();
    const uint32_t fresh = qorMemBlockHandle(kTransPool, again);
    EXPECT_EQ(qorMemBlockFromHandle(kTransPool, fresh), again);
    EXPECT_NE(fresh, ha);
    EXPECT_EQ(qorMemBlockFromHandle(kTransPool, ha), nullptr);
    // A deleted pool releases its blocks and forgets them.
    ASSERT_EQ(qorMC_M_memPoolDelete(kTransPool), OK);
    EXPECT_TRUE(qorMemLiveBlocks().empty());
    EXPECT_EQ(qorMemBlockFromHandle(kTransPool, hb), nullptr);
    EXPECT_EQ(give(b), ERROR);
    EXPECT_EQ(qorMC_M_memPoolDelete(kTransPool), ERROR);
}

TEST_F(Mem, PoolGrowsPastItsFirstChunkWithDistinctBlocks) {
    std::vector<unsigned char*> blocks;
    for (int i = 0; i < 3000; ++i) {
        blocks.push_back(static_cast<unsigned char*>(take(kLeasePool)));
        ASSERT_NE(blocks.back(), nullptr);
        std::memset(blocks.back(), i & 0xFF, 72);
    }
    EXPECT_EQ(std::set<unsigned char*>(blocks.begin(), blocks.end()).size(), blocks.size());
    for (size_t i = 0; i < blocks.size(); ++i) {
        EXPECT_EQ(blocks[i][71], i & 0xFF) << "block " << i << " overwritten";
        give(blocks[i], kLeasePool);
    }
    EXPECT_EQ(qorMemLiveCount(kLeasePool), 0u);
}

// The timer task allocates expiry blocks while the main task allocates its own.
TEST_F(Mem, TwoTasksAllocatingAtOnceNeverShareABlock) {
    auto worker = [](unsigned char tag, int* clobbered) {
        std::vector<unsigned char*> mine;
        for (int round = 0; round < 2000; ++round) {
            auto* p = static_cast<unsigned char*>(take(kLeasePool));
            if (!p) continue;
            std::memset(p, tag, 64);
            mine.push_back(p);
            if (mine.size() > 16) {
                if (mine.front()[0] != tag || mine.front()[63] != tag) ++*clobbered;
                give(mine.front(), kLeasePool);
                mine.erase(mine.begin());
            }
        }
        for (auto* p : mine) give(p, kLeasePool);
    };
    int clobberedA = 0, clobberedB = 0;
    std::thread a(worker, 0x11, &clobberedA), b(worker, 0x22, &clobberedB);
    a.join();
    b.join();
    EXPECT_EQ(clobberedA + clobberedB, 0);
    EXPECT_EQ(qorMemLiveCount(kLeasePool), 0u);
    EXPECT_EQ(qorMemDoubleFreeCount(), 0u);
}

}  // namespace
