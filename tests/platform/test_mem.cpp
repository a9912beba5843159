// Memory pools as their owners see them: what a leak, a double free or an
// injected failure looks like, which variable block a request gets, and what
// a handle resolves to after its block is gone.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <set>
#include <thread>
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

    void* take(uint32_t pool = kTransPool, int line = 1) {
        return qorMC_M_memBlockAlloc("TestUnit", line, pool);
    }
    void give(void* block, uint32_t pool = kTransPool) {
        ASSERT_EQ(qorMC_M_memBlockFree("TestUnit", 2, pool, block), OK);
    }
};

TEST_F(Mem, LeakIsListedWithTheUnitAndLineThatAllocatedIt) {
    void* kept = qorMC_M_memBlockAlloc("Dhcpv6RelayMgrTransTbl", 412, kTransPool);
    void* returned = qorMC_M_memBlockAlloc("Dhcpv6RelayMgrTransTbl", 415, kTransPool);
    void* var = qorMC_M_memBlockVarAlloc("Dhcpv6RelayMgrUtil", 343, 1, 168, kModule, 0, 0);
    void* sys = qorMC_M_sysMalloc("Dhcpv6RelayMgrPktRelay", 870, 300);
    ASSERT_TRUE(kept && returned && var && sys);
    give(returned);
    ASSERT_EQ(qorMC_M_memBlockVarFree("Dhcpv6RelayMgrUtil", 350, var), OK);

    const auto live = qorMemLiveBlocks();
    ASSERT_EQ(live.size(), 2u);
    auto byPool = [&](uint32_t id) {
        return std::find_if(live.begin(), live.end(),
                            [&](const auto& b) { return b.poolId == id; });
    };
    auto leak = byPool(kTransPool);
    ASSERT_NE(leak, live.end());
    EXPECT_EQ(leak->unit, "Dhcpv6RelayMgrTransTbl");
    EXPECT_EQ(leak->line, 412);
    EXPECT_EQ(leak->size, 200u);
    auto sysLeak = byPool(QOR_MEM_SYSTEM);
    ASSERT_NE(sysLeak, live.end());
    EXPECT_EQ(sysLeak->unit, "Dhcpv6RelayMgrPktRelay");
    EXPECT_EQ(sysLeak->line, 870);
    EXPECT_EQ(sysLeak->size, 300u);
    EXPECT_EQ(qorMemLiveCount(kTransPool), 1u);
    EXPECT_EQ(qorMemLiveCount(QOR_MEM_SYSTEM), 1u);
    EXPECT_EQ(qorMemVarLiveCount(kModule), 0u);
    EXPECT_EQ(qorMemLiveCount(kLeasePool), 0u);
    ASSERT_EQ(qorMC_M_sysFree("Dhcpv6RelayMgrPktRelay", 880, sys), OK);
    give(kept);
    EXPECT_TRUE(qorMemLiveBlocks().empty());
}

TEST_F(Mem, VariableBlockLeakIsListedUnderItsModule) {
    void* var = qorMC_M_memBlockVarAlloc("Dhcpv6RelayMgrAgt", 2290, 1, 8192, kModule, 0, 0);
    ASSERT_NE(var, nullptr);
    const auto live = qorMemLiveBlocks();
    ASSERT_EQ(live.size(), 1u);
    EXPECT_EQ(live[0].poolId, kModule);
    EXPECT_EQ(live[0].unit, "Dhcpv6RelayMgrAgt");
    EXPECT_EQ(live[0].line, 2290);
    EXPECT_EQ(qorMemVarLiveCount(kModule), 1u);
}

TEST_F(Mem, DoubleFreeIsRefusedCountedAndThePoolStaysWhole) {
    void* a = take();
    void* b = take();
    ASSERT_TRUE(a && b);
    give(a);
    EXPECT_EQ(qorMC_M_memBlockFree("TestUnit", 9, kTransPool, a), ERROR);
    EXPECT_EQ(qorMemDoubleFreeCount(), 1u);

    // The pool hands out distinct blocks afterwards: a second free must not
    // have put the same slot on the free list twice.
    std::set<void*> seen{b};
    for (int i = 0; i < 4; ++i) {
        void* p = take();
        ASSERT_NE(p, nullptr);
        EXPECT_TRUE(seen.insert(p).second) << "block handed out twice";
        std::memset(p, 0xA5, 200);
    }
    EXPECT_EQ(qorMemLiveCount(kTransPool), 5u);
    for (void* p : seen) give(p);
    EXPECT_EQ(qorMemLiveCount(kTransPool), 0u);
    EXPECT_EQ(qorMemDoubleFreeCount(), 1u);
}

TEST_F(Mem, ForeignAndMisdirectedFreesAreRefused) {
    void* trans = take();
    void* var = qorMC_M_memBlockVarAlloc("TestUnit", 3, 1, 100, kModule, 0, 0);
    void* sys = qorMC_M_sysMalloc("TestUnit", 4, 16);
    ASSERT_TRUE(trans && var && sys);
    int onStack = 0;

    EXPECT_EQ(qorMC_M_memBlockFree("TestUnit", 5, kTransPool, &onStack), ERROR);
    EXPECT_EQ(qorMC_M_memBlockFree("TestUnit", 5, kTransPool, static_cast<char*>(trans) + 8),
              ERROR);
    EXPECT_EQ(qorMC_M_memBlockFree("TestUnit", 5, kLeasePool, trans), ERROR) << "wrong pool";
    EXPECT_EQ(qorMC_M_memBlockFree("TestUnit", 5, kModule, var), ERROR) << "variable block";
    EXPECT_EQ(qorMC_M_memBlockVarFree("TestUnit", 5, trans), ERROR) << "pool block";
    EXPECT_EQ(qorMC_M_sysFree("TestUnit", 5, trans), ERROR) << "pool block";
    EXPECT_EQ(qorMemDoubleFreeCount(), 6u);

    // Every block is still live and still frees once through its own call.
    EXPECT_EQ(qorMemLiveBlocks().size(), 3u);
    give(trans);
    EXPECT_EQ(qorMC_M_memBlockVarFree("TestUnit", 6, var), OK);
    EXPECT_EQ(qorMC_M_sysFree("TestUnit", 6, sys), OK);
    EXPECT_EQ(qorMC_M_sysFree("TestUnit", 6, sys), ERROR);
    EXPECT_EQ(qorMemDoubleFreeCount(), 7u);
    EXPECT_TRUE(qorMemLiveBlocks().empty());
}

TEST_F(Mem, InjectedFailureHitsExactlyTheNextAllocationsOfThatPool) {
    qorMemFailNextAlloc(kTransPool, 2);
    void* other = take(kLeasePool);
    EXPECT_NE(other, nullptr) << "another pool is not affected";
    EXPECT_EQ(take(), nullptr);
    EXPECT_EQ(take(), nullptr);
    void* third = take();
    EXPECT_NE(third, nullptr);
    EXPECT_EQ(qorMemLiveCount(kTransPool), 1u);
    give(third);
    give(other, kLeasePool);
}

TEST_F(Mem, InjectedFailureOfTheSystemAllocatorAndVariablePartition) {
    qorMemFailNextAlloc(QOR_MEM_SYSTEM);
    qorMemFailNextAlloc(kModule);
    void* pool = take();
    EXPECT_NE(pool, nullptr);
    EXPECT_EQ(qorMC_M_sysMalloc("TestUnit", 1, 64), nullptr);
    EXPECT_EQ(qorMC_M_memBlockVarAlloc("TestUnit", 1, 1, 64, kModule, 0, 0), nullptr);
    void* sys = qorMC_M_sysMalloc("TestUnit", 1, 64);
    void* var = qorMC_M_memBlockVarAlloc("TestUnit", 1, 1, 64, kModule, 0, 0);
    EXPECT_NE(sys, nullptr);
    EXPECT_NE(var, nullptr);
    give(pool);
    EXPECT_EQ(qorMC_M_sysFree("TestUnit", 1, sys), OK);
    EXPECT_EQ(qorMC_M_memBlockVarFree("TestUnit", 1, var), OK);
}

TEST_F(Mem, InjectedFailureMakesPoolCreationFail) {
    ASSERT_EQ(qorMC_M_memPoolDelete(kTransPool), OK);
    qorMemFailNextAlloc(kTransPool);
    EXPECT_EQ(qorMC_M_memPoolCreate("DHCPV6_TRANSACTION_TBL_POOL", kTransPool, 0, 200), ERROR);
    EXPECT_EQ(qorMC_M_memPoolCreate("DHCPV6_TRANSACTION_TBL_POOL", kTransPool, 0, 200), OK);
}

TEST_F(Mem, ClearedInjectionNoLongerFails) {
    qorMemFailNextAlloc(kTransPool, 3);
    qorMemFailNextAlloc(kTransPool, 0);
    void* p = take();
    EXPECT_NE(p, nullptr);
    give(p);
}

struct BadPoolCase {
    const char* what;
    uint32_t poolId;
    uint32_t blockSize;
};
void PrintTo(const BadPoolCase& c, std::ostream* os) { *os << c.what; }

class MemPoolCreate : public ::testing::TestWithParam<BadPoolCase> {
protected:
    void SetUp() override {
        qorMemReset();
        ASSERT_EQ(qor_memPartFixedInit(kModule, kLastPool, 0), OK);
        ASSERT_EQ(qorMC_M_memPoolCreate("taken", kTransPool, 0, 64), OK);
    }
    void TearDown() override { qorMemReset(); }
};

TEST_P(MemPoolCreate, IsRefused) {
    const BadPoolCase& c = GetParam();
    EXPECT_EQ(qorMC_M_memPoolCreate("bad", c.poolId, 0, c.blockSize), ERROR);
    void* p = qorMC_M_memBlockAlloc("TestUnit", 1, c.poolId);
    if (c.poolId == kTransPool) {
        EXPECT_EQ(qorMemBlockCapacity(p), 64u) << "the pool already made is kept as it was";
        qorMC_M_memBlockFree("TestUnit", 1, c.poolId, p);
    } else {
        EXPECT_EQ(p, nullptr);
    }
}

INSTANTIATE_TEST_SUITE_P(Mem, MemPoolCreate,
                         ::testing::Values(BadPoolCase{"below the module", kModule - 1, 64},
                                           BadPoolCase{"past the last pool", kLastPool + 1, 64},
                                           BadPoolCase{"id taken", kTransPool, 64},
                                           BadPoolCase{"size zero", kLeasePool, 0}),
                         [](const auto& p) {
                             std::string n = p.param.what;
                             std::replace(n.begin(), n.end(), ' ', '_');
                             return n;
                         });

TEST(MemPartition, OverlappingOrRepeatedPartitionsAreRefused) {
    qorMemReset();
    ASSERT_EQ(qor_memPartFixedInit(kModule, kLastPool, 0), OK);
    EXPECT_EQ(qor_memPartFixedInit(kModule, kLastPool, 0), ERROR);
    EXPECT_EQ(qor_memPartFixedInit(kLastPool, kLastPool + 8, 0), ERROR);
    EXPECT_EQ(qor_memPartFixedInit(0xC40010, 0xC4000F, 0), ERROR) << "empty range";
    EXPECT_EQ(qor_memPartFixedInit(0xC40000, 0xC40002, 0), OK) << "the timer service's own";
    ASSERT_EQ(qorMC_qor_memPartVarInit(kModule, 0, kVarSizes, 10), OK);
    EXPECT_EQ(qorMC_qor_memPartVarInit(kModule, 0, kVarSizes, 10), ERROR);
    const uint32_t withZero[] = {64, 0};
    EXPECT_EQ(qorMC_qor_memPartVarInit(0xC50000, 0, withZero, 2), ERROR);
    EXPECT_EQ(qorMC_M_memBlockVarAlloc("TestUnit", 1, 1, 64, 0xC50000, 0, 0), nullptr)
        << "no variable partition for that module";
    qorMemReset();
}

// Which variable block a request gets: the smallest of the relay manager's
// sizes that holds count * size bytes.
struct VarCase {
    const char* what;
    int count;
    uint32_t size;
    size_t capacity;  // 0: no block
};
void PrintTo(const VarCase& c, std::ostream* os) { *os << c.what; }

class MemVarSize : public ::testing::TestWithParam<VarCase> {
protected:
    void SetUp() override {
        qorMemReset();
        ASSERT_EQ(qorMC_qor_memPartVarInit(kModule, 0, kVarSizes, 10), OK);
    }
    void TearDown() override { qorMemReset(); }
};

TEST_P(MemVarSize, GetsTheSmallestBlockThatFits) {
    const VarCase& c = GetParam();
    void* p = qorMC_M_memBlockVarAlloc("Dhcpv6RelayMgrUtil", 343, c.count, c.size, kModule, 0, 0);
    if (c.capacity == 0) {
        EXPECT_EQ(p, nullptr);
        EXPECT_EQ(qorMemVarLiveCount(kModule), 0u);
        return;
    }
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(qorMemBlockCapacity(p), c.capacity);
    std::memset(p, 0x5A, size_t(c.count) * c.size);  // the whole request is usable
    EXPECT_EQ(qorMC_M_memBlockVarFree("Dhcpv6RelayMgrUtil", 350, p), OK);
}

INSTANTIATE_TEST_SUITE_P(
    Mem, MemVarSize,
    ::testing::Values(
        VarCase{"smallest_exact", 1, 32, 32}, VarCase{"smallest_plus_one", 1, 33, 64},
        VarCase{"tiny", 1, 1, 32}, VarCase{"mrtm_request", 1, 168, 256},
        VarCase{"ethernet_exact", 1, 1516, 1516}, VarCase{"ethernet_plus_one", 1, 1517, 2048},
        VarCase{"agent_message", 1, 8192, 8192}, VarCase{"agent_plus_one", 1, 8193, 9300},
        VarCase{"largest_exact", 1, 9300, 9300}, VarCase{"largest_plus_one", 1, 9301, 0},
        VarCase{"three_of_100", 3, 100, 512}, VarCase{"two_fill_largest", 2, 4650, 9300},
        VarCase{"two_overflow_largest", 2, 4651, 0}, VarCase{"count_zero", 0, 64, 0},
        VarCase{"huge_count", 0x7FFFFFFF, 0xFFFFFFFF, 0}),
    [](const auto& p) { return std::string(p.param.what); });

TEST_F(Mem, HandleOfALiveBlockResolvesToIt) {
    void* a = take();
    void* b = take();
    const uint32_t ha = qorMemBlockHandle(kTransPool, a);
    const uint32_t hb = qorMemBlockHandle(kTransPool, b);
    EXPECT_NE(ha, 0u);
    EXPECT_NE(hb, 0u);
    EXPECT_NE(ha, hb);
    EXPECT_EQ(qorMemBlockFromHandle(kTransPool, ha), a);
    EXPECT_EQ(qorMemBlockFromHandle(kTransPool, hb), b);
    EXPECT_EQ(qorMemBlockHandle(kTransPool, a), ha) << "stable while live";
    EXPECT_EQ(qorMemBlockHandle(kLeasePool, a), 0u) << "not a block of that pool";
    give(a);
    give(b);
}

TEST_F(Mem, StaleHandleResolvesToNothingEvenWhenTheSlotIsReused) {
    void* a = take();
    const uint32_t old = qorMemBlockHandle(kTransPool, a);
    give(a);
    EXPECT_EQ(qorMemBlockFromHandle(kTransPool, old), nullptr);
    EXPECT_EQ(qorMemBlockHandle(kTransPool, a), 0u);

    void* again = take();  // the free list gives the same slot back
    const uint32_t fresh = qorMemBlockHandle(kTransPool, again);
    EXPECT_NE(fresh, 0u);
    EXPECT_EQ(qorMemBlockFromHandle(kTransPool, fresh), again);
    if (again == a) {
        EXPECT_NE(fresh, old);
        EXPECT_EQ(qorMemBlockFromHandle(kTransPool, old), nullptr);
    }
    give(again);
}

TEST_F(Mem, BogusHandlesResolveToNothing) {
    void* a = take();
    const uint32_t h = qorMemBlockHandle(kTransPool, a);
    for (uint32_t bogus : {0u, 0xFFFFFFFFu, h ^ 0x00080000u, h + 1u, h ^ 0x00100000u})
        EXPECT_EQ(qorMemBlockFromHandle(kTransPool, bogus), nullptr) << std::hex << bogus;
    EXPECT_EQ(qorMemBlockFromHandle(0xC40000, h), nullptr) << "no such pool";
    int onStack = 0;
    EXPECT_EQ(qorMemBlockHandle(kTransPool, &onStack), 0u);
    give(a);
}

TEST_F(Mem, DeletedPoolReleasesItsBlocksAndForgetsThem) {
    void* a = take();
    const uint32_t h = qorMemBlockHandle(kTransPool, a);
    ASSERT_EQ(qorMemLiveBlocks().size(), 1u);
    ASSERT_EQ(qorMC_M_memPoolDelete(kTransPool), OK);
    EXPECT_TRUE(qorMemLiveBlocks().empty());
    EXPECT_EQ(qorMemBlockFromHandle(kTransPool, h), nullptr);
    EXPECT_EQ(qorMC_M_memBlockFree("TestUnit", 1, kTransPool, a), ERROR);
    EXPECT_EQ(qorMC_M_memPoolDelete(kTransPool), ERROR);
}

TEST_F(Mem, PoolGrowsPastItsFirstChunkWithDistinctBlocks) {
    std::vector<void*> blocks;
    std::set<void*> distinct;
    for (int i = 0; i < 3000; ++i) {
        void* p = take(kLeasePool);
        ASSERT_NE(p, nullptr);
        std::memset(p, i & 0xFF, 72);
        blocks.push_back(p);
        distinct.insert(p);
    }
    EXPECT_EQ(distinct.size(), blocks.size());
    EXPECT_EQ(qorMemLiveCount(kLeasePool), 3000u);
    for (size_t i = 0; i < blocks.size(); ++i)
        EXPECT_EQ(static_cast<unsigned char*>(blocks[i])[71], i & 0xFF)
            << "block " << i << " overwritten";
    for (void* p : blocks) give(p, kLeasePool);
    EXPECT_EQ(qorMemLiveCount(kLeasePool), 0u);
}

TEST_F(Mem, TwoTasksAllocatingAtOnceNeverShareABlock) {
    // The timer task allocates expiry blocks while the main task allocates
    // its own: the pools must serve both.
    auto worker = [](unsigned char tag, uint32_t pool, int* clobbered) {
        std::vector<unsigned char*> mine;
        for (int round = 0; round < 2000; ++round) {
            auto* p = static_cast<unsigned char*>(qorMC_M_memBlockAlloc("Worker", tag, pool));
            if (!p) continue;
            std::memset(p, tag, 64);
            mine.push_back(p);
            if (mine.size() > 16) {
                if (mine.front()[0] != tag || mine.front()[63] != tag) ++*clobbered;
                qorMC_M_memBlockFree("Worker", tag, pool, mine.front());
                mine.erase(mine.begin());
            }
        }
        for (auto* p : mine) qorMC_M_memBlockFree("Worker", tag, pool, p);
    };
    int clobberedA = 0, clobberedB = 0;
    std::thread a(worker, 0x11, kLeasePool, &clobberedA);
    std::thread b(worker, 0x22, kLeasePool, &clobberedB);
    a.join();
    b.join();
    EXPECT_EQ(clobberedA + clobberedB, 0);
    EXPECT_EQ(qorMemLiveCount(kLeasePool), 0u);
    EXPECT_EQ(qorMemDoubleFreeCount(), 0u);
}

TEST_F(Mem, ResetForgetsEverything) {
    take();
    qorMC_M_sysMalloc("TestUnit", 1, 10);
    qorMemFailNextAlloc(QOR_MEM_SYSTEM, 5);
    qorMemReset();
    EXPECT_TRUE(qorMemLiveBlocks().empty());
    EXPECT_EQ(take(), nullptr) << "no pool after a reset";
    void* sys = qorMC_M_sysMalloc("TestUnit", 1, 10);
    EXPECT_NE(sys, nullptr) << "injected failures are forgotten too";
    qorMC_M_sysFree("TestUnit", 1, sys);
}

}  // namespace
