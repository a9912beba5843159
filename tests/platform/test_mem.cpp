// Memory pools as their owners see them: which blocks are live, what a double
// free or an injected failure does, and which variable block a request gets.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <random>
#include <tuple>
#include <vector>

#include "qor/mem.h"
#include "qor/task.h"

namespace {

constexpr uint32_t kModule = 0xC30000, kLastPool = 0xC30004, kTransPool = 0xC30002, kLeasePool = 0xC30003;
// The relay manager's variable block sizes, in the order it gives them.
constexpr uint32_t kVarSizes[] = {9300, 8192, 2048, 1516, 1024, 512, 256, 128, 64, 32};

class Mem : public ::testing::Test {
protected:
    void SetUp() override {
        qorMemReset();
        ASSERT_TRUE(qor_memPartFixedInit(kModule, kLastPool, 0) == OK &&
                    qorMC_qor_memPartVarInit(kModule, 0, kVarSizes, 10) == OK &&
                    qorMC_M_memPoolCreate("DHCPV6_TRANSACTION_TBL_POOL", kTransPool, 0, 200) == OK &&
                    qorMC_M_memPoolCreate("DHCPV6_LEASEIP_TBL_POOL", kLeasePool, 0, 72) == OK);
    }
    void TearDown() override { qorMemReset(); }
    static int give(void* block, uint32_t pool) { return qorMC_M_memBlockFree("TestUnit", 2, pool, block); }
};

// Random allocations, injected failures, frees and refused frees (double, into
// the other pool, inside a block) against the set of blocks that should be
// live: blocks are distinct and keep their bytes, a handle resolves only while
// its block lives, and every refused free is counted.
TEST_F(Mem, RandomPoolTrafficMatchesTheLiveSet) {
    using Block = std::tuple<uint32_t, uint32_t, uint8_t>;  // pool, handle, fill byte
    std::map<uint8_t*, Block> live;
    std::vector<std::pair<uint8_t*, Block>> freed;
    uint64_t refused = 0;
    std::mt19937 rng(5);
    for (int op = 0; op < 4000; ++op) {  // fewer frees than the 4095 handle generations
        const uint32_t pool = rng() % 2 ? kTransPool : kLeasePool, roll = rng() % 10;
        if (roll < 5) {
            if (roll == 0) qorMemFailNextAlloc(pool);
            auto* p = static_cast<uint8_t*>(qorMC_M_memBlockAlloc("TestUnit", 1, pool));
            ASSERT_EQ(p != nullptr, roll != 0) << "op " << op << ": only the injected failure fails";
            if (p == nullptr) continue;
            ASSERT_EQ(live.count(p), 0u) << "block handed out twice";
            std::memset(p, uint8_t(op), qorMemBlockCapacity(p));
            ASSERT_NE(std::get<1>(live[p] = {pool, qorMemBlockHandle(pool, p), uint8_t(op)}), 0u);
        } else if (roll < 8 && !live.empty()) {
            const auto it = std::next(live.begin(), long(rng() % live.size()));
            const auto [p, b] = *it;  // a live block: intact and found by its handle
            const auto [id, handle, fill] = b;
            ASSERT_TRUE(p[0] == fill && p[qorMemBlockCapacity(p) - 1] == fill) << "op " << op << ": overwritten";
            ASSERT_EQ(qorMemBlockFromHandle(id, handle), p);
            if (roll == 7) {  // refused: into the other pool, or inside the block
                ASSERT_EQ(give(p, id ^ 1), ERROR);
                ASSERT_EQ(give(p + 8, id), ERROR);
                refused += 2;
            }
            ASSERT_EQ(give(p, id), OK);
            freed.emplace_back(p, b);
            live.erase(it);
        } else if (!freed.empty()) {
            const auto& [p, b] = freed[rng() % freed.size()];
            EXPECT_EQ(qorMemBlockFromHandle(std::get<0>(b), std::get<1>(b)), nullptr) << "op " << op << ": stale";
            const bool dead = live.count(p) == 0;
            EXPECT_EQ(dead ? give(p, std::get<0>(b)) : ERROR, ERROR) << "op " << op << ": double free";
            refused += dead;
        }
        ASSERT_EQ(qorMemLiveCount(kTransPool) + qorMemLiveCount(kLeasePool), live.size());
    }
    EXPECT_EQ(qorMemDoubleFreeCount(), refused);
    EXPECT_EQ(qorMemLiveBlocks().size(), live.size());
    ASSERT_EQ(qorMC_M_memPoolDelete(kTransPool), OK) << "a deleted pool releases its live blocks";
    EXPECT_EQ(qorMemLiveCount(kTransPool), 0u);
}

// A request gets the smallest block that holds it, all of it usable; a
// variable block is freed once, and only as one.
TEST_F(Mem, VariableRequestGetsTheSmallestBlockThatFits) {
    const std::tuple<int, uint32_t, size_t> cases[] = {  // count, size, capacity (0: no block)
        {1, 1, 32},   {1, 32, 32},   {1, 33, 64},     {1, 1516, 1516}, {1, 1517, 2048}, {1, 8193, 9300},
        {1, 9300, 9300}, {1, 9301, 0}, {3, 100, 512}, {2, 4650, 9300}, {2, 4651, 0}, {0, 64, 0},
        {0x7FFFFFFF, 0xFFFFFFFF, 0}};
    uint64_t refused = 0;
    for (const auto& [count, size, capacity] : cases) {
        void* p = qorMC_M_memBlockVarAlloc("Dhcpv6RelayMgrUtil", 343, count, size, kModule, 0, 0);
        EXPECT_EQ(qorMemBlockCapacity(p), capacity) << count << " x " << size;
        if (p == nullptr) continue;
        std::memset(p, 0x5A, size_t(count) * size), refused += 2;
        EXPECT_EQ(give(p, kTransPool), ERROR) << "freed as a pool block";
        EXPECT_EQ(qorMC_M_memBlockVarFree("TestUnit", 4, p), OK);
        EXPECT_EQ(qorMC_M_memBlockVarFree("TestUnit", 4, p), ERROR);
    }
    EXPECT_EQ(qorMemVarLiveCount(kModule), 0u);
    EXPECT_EQ(qorMemDoubleFreeCount(), refused) << "each refused free is counted";
}

}  // namespace
