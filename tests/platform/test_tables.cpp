// The daemon's ordered tables, each driven by random operations and compared
// with an ordered map: radix tables at the binding (20-byte), transaction
// (128) and lease-IP (152) key sizes, and the switch-port red-black tree.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <utility>

#include "qor/radix.h"
#include "qor/rbtree.h"

namespace {

// Internal-node callbacks, as the daemon's pools of fixed-size blocks serve
// them, that account for every block and can be made to fail.
std::set<void*> g_nodes;
bool g_failing = false;
void* nodeAlloc(size_t size) {
    EXPECT_LE(size, QOR_RADIX_INTERNAL_SIZE);
    return std::exchange(g_failing, false) ? nullptr : *g_nodes.insert(std::malloc(size)).first;
}
void nodeFree(void* block) {
    if (g_nodes.erase(block)) std::free(block);
    else ADD_FAILURE() << "the table freed a block it was not given";
}

// std::string orders bytes as memcmp does, a key that begins a longer one first.
struct Entry {
    QOR_RADIX_NODE node{};
    std::string key;
    explicit Entry(std::string k) : key(std::move(k)) { node.rnKey = reinterpret_cast<const uint8_t*>(key.data()); }
};

class RadixModel : public ::testing::TestWithParam<uint32_t> {};

// Keys collide as the daemon's do: one prefix differing in the last byte, in
// single bits at the start, middle and end, or in length (near one byte and
// near the whole key, so that many keys begin others).
TEST_P(RadixModel, RandomOperationsMatchAnOrderedMap) {
    const uint32_t keyBytes = GetParam();
    QOR_RADIX_HANDLE table = qorRadixCreate("testTbl", keyBytes, nodeAlloc, nodeFree);
    ASSERT_NE(table, nullptr);
    const char alphabet[] = {'\x00', '\x01', '\x80', '\xff'};
    std::mt19937 rng(keyBytes);
    std::string prefix(keyBytes, 0);
    for (auto& b : prefix) b = alphabet[rng() % 4];
    std::map<std::string, std::unique_ptr<Entry>> model;
    auto at = [&](auto it) { return it == model.end() ? nullptr : &it->second->node; };
    for (int op = 0; op < 20000; ++op) {
        std::string key = prefix;
        const uint32_t shape = rng() % 3, roll = rng() % 8;
        if (shape == 0) key.back() = char(rng() % 32);
        for (size_t i : {size_t(0), key.size() / 2, key.size() - 1}) key[i] ^= shape == 1 ? alphabet[rng() % 3] : 0;
        if (shape == 2) key.resize(rng() % 2 ? 1 + rng() % 3 : keyBytes - rng() % 3), key.back() = alphabet[rng() % 4];
        if (roll == 4 && !model.empty())  // a removal of a present key
            key = (model.lower_bound(key) == model.end() ? model.begin() : model.lower_bound(key))->first;
        const uint32_t bits = uint32_t(key.size() * 8);
        auto it = model.find(key);
        if (roll < 3) {  // a new entry, or the present one again; refused while no node can be had
            g_failing = rng() % 8 == 0;
            auto entry = std::make_unique<Entry>(key);
            QOR_RADIX_NODE* node = it != model.end() && rng() % 2 ? &it->second->node : &entry->node;
            const bool takes = it == model.end() && (!g_failing || model.empty());
            ASSERT_EQ(qorRadixInsert(table, node, bits), takes ? 0 : -1) << "op " << op;
            if (takes) model[key] = std::move(entry);
        } else if (roll < 6) {
            ASSERT_EQ(qorRadixRemove(table, key.data(), bits), at(it)) << "op " << op;
            if (it != model.end()) model.erase(it);
        } else if (roll < 7) {
            ASSERT_EQ(qorRadixGetExact(table, key.data(), bits), at(it)) << "op " << op;
        } else {  // the entry after a key, present or not, or the first
            ASSERT_EQ(qorRadixGetNext(table, key.data(), bits), at(model.upper_bound(key))) << "op " << op;
            ASSERT_EQ(qorRadixGetNext(table, nullptr, 0), at(model.begin()));
        }
        ASSERT_EQ(qorRadixCount(table), model.size());
        ASSERT_EQ(g_nodes.size(), model.empty() ? 0 : model.size() - 1) << "one internal node fewer than entries";
    }
    // Destroy with entries still in gives back every node and no foreign block.
    EXPECT_EQ(qorRadixDestroy(table), 0);
    EXPECT_TRUE(g_nodes.empty());
}

INSTANTIATE_TEST_SUITE_P(RadixKeys, RadixModel, ::testing::Values(20u, 128u, 152u),
                         [](const auto& p) { return std::to_string(p.param * 8) + "bits"; });

struct Port {
    QOR_RBT_NODE node{};
    uint32_t ifIndex;
    explicit Port(uint32_t v) : ifIndex(v) { node.key = &ifIndex; }
};
int height(const QOR_RBT_NODE* n) { return n ? 1 + std::max(height(n->left), height(n->right)) : 0; }
std::multiset<const QOR_RBT_NODE*> g_released;

// Ports are configured in ifIndex order, the worst order for an unbalanced
// tree; then random changes, half with the top bit set so the order must be
// unsigned. The tree answers as the map does and stays within 2 log2(n + 1).
TEST(RBTreeModel, AscendingThenRandomOperationsMatchAnOrderedMapAndStayBalanced) {
    std::map<uint32_t, std::unique_ptr<Port>> model;  // outlives the tree
    QOR_RBT_HANDLE tree = qorRBTreeCreate("testRbt", _RBTCompareUL, std::malloc, std::free);
    ASSERT_NE(tree, nullptr);
    for (uint32_t i = 0x04100000u; i < 0x04100000u + 4000; ++i)
        ASSERT_EQ(qorRBTreeInsert(tree, &(model[i] = std::make_unique<Port>(i))->node), 0);
    auto at = [&](auto it) { return it == model.end() ? nullptr : &it->second->node; };
    std::mt19937 rng(11);
    for (int op = 0; op <= 30000; ++op) {
        const uint32_t key = (rng() % 2 ? 0x80000000u : 0x04100000u) + rng() % 6000, roll = rng() % 8;
        auto it = model.find(key);
        if (roll < 3) {
            auto port = std::make_unique<Port>(key);
            ASSERT_EQ(qorRBTreeInsert(tree, &port->node), it == model.end() ? 0 : -1) << "op " << op;
            if (it == model.end()) model[key] = std::move(port);
        } else if (roll < 6) {
            ASSERT_EQ(qorRBTreeRemove(tree, &key), at(it)) << "op " << op;
            if (it != model.end()) model.erase(it);
        } else if (roll < 7) {
            ASSERT_EQ(qorRBTreeGetExact(tree, &key), at(it)) << "op " << op;
        } else {  // the entry after a key, present or not, or the first
            ASSERT_EQ(qorRBTreeGetNext(tree, &key), at(model.upper_bound(key))) << "op " << op;
            ASSERT_EQ(qorRBTreeGetNext(tree, nullptr), at(model.begin()));
        }
        ASSERT_EQ(qorRBTreeCount(tree), model.size());
        if (op % 3000) continue;
        const QOR_RBT_NODE* root = model.empty() ? nullptr : &model.begin()->second->node;
        while (root && root->parent) root = root->parent;
        ASSERT_LE(height(root), 2 * std::log2(model.size() + 1.0)) << "op " << op;
    }
    // Destroy hands every remaining entry back once, then frees the tree.
    EXPECT_EQ(qorRBTreeDestroy(tree, [](QOR_RBT_NODE* n) { g_released.insert(n); }), 0);
    std::multiset<const QOR_RBT_NODE*> expected;
    for (const auto& [k, p] : model) expected.insert(&p->node);
    EXPECT_EQ(g_released, expected);
}

}  // namespace
