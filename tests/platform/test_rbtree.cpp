// Red-black trees as the switch-port tree (ifIndex keys compared as unsigned
// long) uses them, and with byte-string keys, checked against an ordered map.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <vector>

#include "qor/rbtree.h"

namespace {

// Tree-record callbacks that count every block and can be told to fail.
struct TreeAccounting {
    std::set<void*> live;
    size_t unknownFrees = 0;
    bool failing = false;
} trees;

void* countingAlloc(size_t size) {
    if (trees.failing) return nullptr;
    void* block = std::malloc(size);
    trees.live.insert(block);
    return block;
}

void countingFree(void* block) {
    if (trees.live.erase(block) == 0) {
        ++trees.unknownFrees;
        return;
    }
    std::free(block);
}

constexpr size_t kBytesKey = 20;
int compareBytes(const void* a, const void* b) { return std::memcmp(a, b, kBytesKey); }

enum class KeyKind { IfIndex, Bytes20 };

// The model's key is a number (an ifIndex, or the varying tail of a byte key).
struct Entry {
    QOR_RBT_NODE node{};
    uint32_t ifIndex = 0;
    uint8_t bytes[kBytesKey] = {};
    Entry(KeyKind kind, uint32_t v) : ifIndex(v) {
        std::memset(bytes, 0x33, kBytesKey);
        for (int i = 0; i < 4; ++i) bytes[kBytesKey - 1 - i] = static_cast<uint8_t>(v >> (8 * i));
        node.key = kind == KeyKind::IfIndex ? static_cast<const void*>(&ifIndex) : bytes;
    }
};

using Model = std::map<uint32_t, std::unique_ptr<Entry>>;

QOR_RBT_HANDLE create(KeyKind kind) {
    return qorRBTreeCreate("testRbt", kind == KeyKind::IfIndex ? _RBTCompareUL : compareBytes, countingAlloc,
                           countingFree);
}

std::vector<const QOR_RBT_NODE*> walk(QOR_RBT_HANDLE tree) {
    std::vector<const QOR_RBT_NODE*> seen;
    const QOR_RBT_NODE* node = qorRBTreeGetNext(tree, nullptr);
    for (; node && seen.size() <= qorRBTreeCount(tree); node = qorRBTreeGetNext(tree, node->key)) seen.push_back(node);
    return seen;
}

std::vector<const QOR_RBT_NODE*> inOrder(const Model& model) {
    std::vector<const QOR_RBT_NODE*> order;
    for (const auto& [key, entry] : model) order.push_back(&entry->node);
    return order;
}

// The shape as the public links show it: parent links match, no red node has
// a red child, every path has the same number of black nodes. `black` is the
// root's colour. Returns the height, or -1 when a rule is broken.
int checkedHeight(const QOR_RBT_NODE* node, const QOR_RBT_NODE* parent, int black, int* blackHeight) {
    *blackHeight = 1;
    if (!node) return 0;
    if (node->parent != parent) return -1;
    const bool red = node->color != black;
    if (red && parent && parent->color != black) return -1;
    int leftBlack = 0, rightBlack = 0;
    const int left = checkedHeight(node->left, node, black, &leftBlack);
    const int right = checkedHeight(node->right, node, black, &rightBlack);
    if (left < 0 || right < 0 || leftBlack != rightBlack) return -1;
    *blackHeight = leftBlack + (red ? 0 : 1);
    return 1 + std::max(left, right);
}

// Balanced: valid links and colours, height at most 2 log2(n + 1).
::testing::AssertionResult balanced(QOR_RBT_HANDLE tree) {
    const QOR_RBT_NODE* root = qorRBTreeGetNext(tree, nullptr);
    while (root && root->parent) root = root->parent;
    int blackHeight = 0;
    const int height = checkedHeight(root, nullptr, root ? root->color : 0, &blackHeight);
    if (height < 0) return ::testing::AssertionFailure() << "links or colours broken";
    const double bound = 2 * std::log2(qorRBTreeCount(tree) + 1.0);
    if (height > bound) return ::testing::AssertionFailure() << "height " << height << " > " << bound;
    return ::testing::AssertionSuccess();
}

class RBTreeFixture : public ::testing::Test {
protected:
    void SetUp() override { trees = TreeAccounting{}; }
    void TearDown() override {
        EXPECT_TRUE(trees.live.empty()) << "tree record outstanding";
        EXPECT_EQ(trees.unknownFrees, 0u);
    }
};

class RBTreeProperty : public RBTreeFixture, public ::testing::WithParamInterface<KeyKind> {};

TEST_P(RBTreeProperty, RandomOperationsMatchAnOrderedMap) {
    const KeyKind kind = GetParam();
    Model model;  // outlives the tree
    QOR_RBT_HANDLE tree = create(kind);
    ASSERT_NE(tree, nullptr);
    std::mt19937 rng(kind == KeyKind::IfIndex ? 11 : 12);
    for (int op = 0; op < 30000; ++op) {
        // ifIndexes, half with the top bit set: the order must be unsigned.
        const uint32_t key = (rng() % 2 ? 0x80000000u : 0x10000u) + rng() % 3000;
        const Entry probe(kind, key);
        const uint32_t roll = rng() % 100;
        auto it = model.find(key);
        const QOR_RBT_NODE* present = it == model.end() ? nullptr : &it->second->node;
        if (roll < 45) {
            auto entry = std::make_unique<Entry>(kind, key);
            ASSERT_EQ(qorRBTreeInsert(tree, &entry->node), present ? -1 : 0) << "op " << op;
            if (!present) model[key] = std::move(entry);
        } else if (roll < 75) {
            ASSERT_EQ(qorRBTreeRemove(tree, probe.node.key), present) << "op " << op;
            if (present) model.erase(it);
        } else if (roll < 88) {
            ASSERT_EQ(qorRBTreeGetExact(tree, probe.node.key), present) << "op " << op;
        } else {
            auto next = model.upper_bound(key);
            ASSERT_EQ(qorRBTreeGetNext(tree, probe.node.key), next == model.end() ? nullptr : &next->second->node)
                << "op " << op << (present ? " (key present)" : " (key absent)");
        }
        ASSERT_EQ(qorRBTreeCount(tree), model.size());
        if (op % 1000 == 0) {
            ASSERT_TRUE(balanced(tree)) << "op " << op;
            ASSERT_EQ(walk(tree), inOrder(model)) << "op " << op;
        }
    }
    ASSERT_TRUE(balanced(tree));
    ASSERT_EQ(walk(tree), inOrder(model));
    for (auto& [key, entry] : model) {
        ASSERT_EQ(qorRBTreeRemove(tree, entry->node.key), &entry->node);
        EXPECT_EQ(entry->node.parent, nullptr) << "a removed entry keeps no links into the tree";
    }
    EXPECT_EQ(qorRBTreeGetNext(tree, nullptr), nullptr);
    // Destroy hands every remaining entry back exactly once, then frees the tree.
    static std::multiset<const QOR_RBT_NODE*> released;
    released.clear();
    model.clear();
    for (uint32_t k = 0; k < 500 * 7919; k += 7919) {
        model[k] = std::make_unique<Entry>(kind, k);
        ASSERT_EQ(qorRBTreeInsert(tree, &model[k]->node), 0);
    }
    EXPECT_EQ(qorRBTreeDestroy(tree, [](QOR_RBT_NODE* node) { released.insert(node); }), 0);
    const auto expected = inOrder(model);
    EXPECT_EQ(released, std::multiset<const QOR_RBT_NODE*>(expected.begin(), expected.end()));
}

INSTANTIATE_TEST_SUITE_P(RBTreeKeys, RBTreeProperty, ::testing::Values(KeyKind::IfIndex, KeyKind::Bytes20),
                         [](const auto& p) { return p.param == KeyKind::IfIndex ? "IfIndex" : "Bytes20"; });

using RBTreeSwitchPorts = RBTreeFixture;

// Ports are usually configured in ifIndex order: the worst order for an
// unbalanced tree.
TEST_F(RBTreeSwitchPorts, FourThousandPortsInAscendingOrderStayBalanced) {
    std::vector<std::unique_ptr<Entry>> ports;
    QOR_RBT_HANDLE tree = create(KeyKind::IfIndex);
    for (uint32_t i = 0; i < 4000; ++i) {
        ports.push_back(std::make_unique<Entry>(KeyKind::IfIndex, 0x04100000u + i));
        ASSERT_EQ(qorRBTreeInsert(tree, &ports.back()->node), 0);
    }
    EXPECT_TRUE(balanced(tree));
    for (uint32_t i = 0; i < 4000; i += 2) ASSERT_EQ(qorRBTreeRemove(tree, &ports[i]->ifIndex), &ports[i]->node);
    EXPECT_EQ(qorRBTreeCount(tree), 2000u);
    EXPECT_TRUE(balanced(tree));
    qorRBTreeDestroy(tree, nullptr);
}

TEST_F(RBTreeSwitchPorts, CallsRefuseBadArguments) {
    EXPECT_EQ(qorRBTreeCreate("noCompare", nullptr, countingAlloc, countingFree), nullptr);
    EXPECT_EQ(qorRBTreeCreate("noAlloc", _RBTCompareUL, nullptr, countingFree), nullptr);
    trees.failing = true;
    EXPECT_EQ(create(KeyKind::IfIndex), nullptr);
    trees.failing = false;
    EXPECT_EQ(qorRBTreeDestroy(nullptr, nullptr), -1);
    EXPECT_EQ(qorRBTreeCount(nullptr), 0u);
    uint32_t ifIndex = 7;
    EXPECT_EQ(qorRBTreeGetExact(nullptr, &ifIndex), nullptr);
    EXPECT_EQ(qorRBTreeRemove(nullptr, &ifIndex), nullptr);
    QOR_RBT_HANDLE tree = create(KeyKind::IfIndex);
    EXPECT_EQ(qorRBTreeInsert(tree, nullptr), -1);
    EXPECT_EQ(qorRBTreeGetNext(tree, nullptr), nullptr);
    EXPECT_EQ(qorRBTreeGetNext(tree, &ifIndex), nullptr);
    EXPECT_EQ(qorRBTreeRemove(tree, &ifIndex), nullptr);
    qorRBTreeDestroy(tree, nullptr);
}

TEST(RBTreeCompareUL, OrdersIfIndexesAsUnsigned) {
    const int64_t cases[][3] = {{0, 0, 0}, {0, 1, -1}, {0x7fffffff, 0x80000000, -1}, {1, 0x80000000, -1},
                                {0xffffffff, 1, 1}, {0xffffffff, 0xffffffff, 0}};  // a, b, sign of a - b
    for (const auto& [wideA, wideB, sign] : cases) {
        const uint32_t a = uint32_t(wideA), b = uint32_t(wideB);
        const int order = _RBTCompareUL(&a, &b), reverse = _RBTCompareUL(&b, &a);
        EXPECT_EQ((order > 0) - (order < 0), sign) << std::hex << a << " vs " << b;
        EXPECT_EQ((reverse > 0) - (reverse < 0), -sign) << std::hex << b << " vs " << a;
    }
}

}  // namespace
