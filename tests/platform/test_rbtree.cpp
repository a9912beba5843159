// Red-black trees as the switch-port tree (ifIndex keys compared as unsigned
// long) uses them, and with byte-string keys, checked against an ordered map.
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "qor/rbtree.h"

namespace {

// Tree-record callbacks that count every block and can be told to fail.
struct TreeAccounting {
    std::set<void*> live;
    size_t unknownFrees = 0;
    bool failing = false;
};

TreeAccounting& trees() {
    static TreeAccounting accounting;
    return accounting;
}

void* countingAlloc(size_t size) {
    if (trees().failing) return nullptr;
    void* block = std::malloc(size);
    trees().live.insert(block);
    return block;
}

void countingFree(void* block) {
    if (trees().live.erase(block) == 0) {
        ++trees().unknownFrees;
        return;
    }
    std::free(block);
}

constexpr size_t kBytesKey = 20;

int compareBytes(const void* a, const void* b) { return std::memcmp(a, b, kBytesKey); }

// The two kinds of key a tree is used with.
enum class KeyKind { IfIndex, Bytes20 };

using Key = std::vector<uint8_t>;  // the model's key: big-endian for ifIndexes

struct Entry {
    QOR_RBT_NODE node{};
    uint32_t ifIndex = 0;
    uint8_t bytes[kBytesKey] = {};
    Entry(KeyKind kind, const Key& key) {
        if (kind == KeyKind::IfIndex) {
            for (uint8_t b : key) ifIndex = (ifIndex << 8) | b;
            node.key = &ifIndex;
        } else {
            std::copy(key.begin(), key.end(), bytes);
            node.key = bytes;
        }
    }
};

// memcmp order over the whole key (written out: GCC 12's inlined
// std::vector comparison trips -Wstringop-overread at -O2).
struct KeyLess {
    bool operator()(const Key& a, const Key& b) const {
        const size_t common = std::min(a.size(), b.size());
        const int order = common ? std::memcmp(a.data(), b.data(), common) : 0;
        return order < 0 || (order == 0 && a.size() < b.size());
    }
};

using Model = std::map<Key, std::unique_ptr<Entry>, KeyLess>;

// The key in the form the tree compares.
struct Probe {
    uint32_t ifIndex = 0;
    uint8_t bytes[kBytesKey] = {};
    const void* at(KeyKind kind) const { return kind == KeyKind::IfIndex ? static_cast<const void*>(&ifIndex) : bytes; }
    explicit Probe(const Key& key) {
        for (uint8_t b : key) ifIndex = (ifIndex << 8) | b;
        std::copy(key.begin(), key.begin() + std::min(key.size(), kBytesKey), bytes);
    }
};

struct TreeOwner {
    QOR_RBT_HANDLE tree;
    explicit TreeOwner(KeyKind kind)
        : tree(qorRBTreeCreate("testRbt", kind == KeyKind::IfIndex ? _RBTCompareUL : compareBytes, countingAlloc,
                               countingFree)) {}
    ~TreeOwner() {
        if (tree) qorRBTreeDestroy(tree, nullptr);
    }
    TreeOwner(const TreeOwner&) = delete;
    TreeOwner& operator=(const TreeOwner&) = delete;
};

std::vector<const Entry*> walk(QOR_RBT_HANDLE tree) {
    std::vector<const Entry*> seen;
    const QOR_RBT_NODE* node = qorRBTreeGetNext(tree, nullptr);
    while (node && seen.size() <= qorRBTreeCount(tree)) {
        seen.push_back(reinterpret_cast<const Entry*>(node));
        node = qorRBTreeGetNext(tree, node->key);
    }
    return seen;
}

std::vector<const Entry*> inOrder(const Model& model) {
    std::vector<const Entry*> order;
    for (const auto& [key, entry] : model) order.push_back(entry.get());
    return order;
}

// The shape of the tree as its public links show it: every parent link
// matches, no red node has a red child, every path has the same number of
// black nodes. `black` is the root's colour. Returns the height, or -1 when
// a rule is broken.
int checkedHeight(const QOR_RBT_NODE* node, const QOR_RBT_NODE* parent, int black, int* blackHeight) {
    if (!node) {
        *blackHeight = 1;
        return 0;
    }
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

const QOR_RBT_NODE* rootOf(QOR_RBT_HANDLE tree) {
    const QOR_RBT_NODE* node = qorRBTreeGetNext(tree, nullptr);
    while (node && node->parent) node = node->parent;
    return node;
}

// Balanced: valid colours and height at most 2 log2(n + 1).
::testing::AssertionResult balanced(QOR_RBT_HANDLE tree) {
    const QOR_RBT_NODE* root = rootOf(tree);
    int blackHeight = 0;
    const int height = checkedHeight(root, nullptr, root ? root->color : 0, &blackHeight);
    if (height < 0) return ::testing::AssertionFailure() << "links or colours broken";
    const double bound = 2 * std::log2(qorRBTreeCount(tree) + 1.0);
    if (height > bound) return ::testing::AssertionFailure() << "height " << height << " > " << bound;
    return ::testing::AssertionSuccess();
}

class RBTreeFixture : public ::testing::Test {
protected:
    void SetUp() override { trees() = TreeAccounting{}; }
    void TearDown() override {
        EXPECT_TRUE(trees().live.empty()) << "tree record outstanding";
        EXPECT_EQ(trees().unknownFrees, 0u);
    }
};

Key randomKey(KeyKind kind, std::mt19937& rng, uint32_t spread) {
    if (kind == KeyKind::IfIndex) {
        // ifIndexes, some with the top bit set: the order is unsigned.
        const uint32_t v = (rng() % 2 ? 0x80000000u : 0x10000u) + rng() % spread;
        return {0, 0, 0, 0, static_cast<uint8_t>(v >> 24), static_cast<uint8_t>(v >> 16), static_cast<uint8_t>(v >> 8),
                static_cast<uint8_t>(v)};
    }
    Key key(kBytesKey, 0x33);
    const uint32_t v = rng() % spread;
    key[kBytesKey - 3] = static_cast<uint8_t>(v >> 16);
    key[kBytesKey - 2] = static_cast<uint8_t>(v >> 8);
    key[kBytesKey - 1] = static_cast<uint8_t>(v);
    return key;
}

class RBTreeProperty : public RBTreeFixture, public ::testing::WithParamInterface<KeyKind> {};

TEST_P(RBTreeProperty, RandomOperationsMatchAnOrderedMap) {
    const KeyKind kind = GetParam();
    Model model;  // outlives the tree, whose destruction walks the entries
    TreeOwner owner(kind);
    ASSERT_NE(owner.tree, nullptr);
    std::mt19937 rng(kind == KeyKind::IfIndex ? 11 : 12);
    for (int op = 0; op < 30000; ++op) {
        const Key key = randomKey(kind, rng, 3000);
        const Probe probe(key);
        const uint32_t roll = rng() % 100;
        auto it = model.find(key);
        if (roll < 45) {
            auto entry = std::make_unique<Entry>(kind, key);
            ASSERT_EQ(qorRBTreeInsert(owner.tree, &entry->node), it == model.end() ? 0 : -1) << "op " << op;
            if (it == model.end()) model[key] = std::move(entry);
        } else if (roll < 75) {
            ASSERT_EQ(qorRBTreeRemove(owner.tree, probe.at(kind)), it == model.end() ? nullptr : &it->second->node)
                << "op " << op;
            if (it != model.end()) model.erase(it);
        } else if (roll < 88) {
            ASSERT_EQ(qorRBTreeGetExact(owner.tree, probe.at(kind)),
                      it == model.end() ? nullptr : &it->second->node)
                << "op " << op;
        } else {
            auto next = model.upper_bound(key);
            ASSERT_EQ(qorRBTreeGetNext(owner.tree, probe.at(kind)),
                      next == model.end() ? nullptr : &next->second->node)
                << "op " << op << (it == model.end() ? " (key absent)" : " (key present)");
        }
        ASSERT_EQ(qorRBTreeCount(owner.tree), model.size());
        if (op % 1000 == 0) {
            ASSERT_TRUE(balanced(owner.tree)) << "op " << op;
            ASSERT_EQ(walk(owner.tree), inOrder(model)) << "op " << op;
        }
    }
    ASSERT_TRUE(balanced(owner.tree));
    ASSERT_EQ(walk(owner.tree), inOrder(model));
    for (auto& [key, entry] : model) {
        ASSERT_EQ(qorRBTreeRemove(owner.tree, Probe(key).at(kind)), &entry->node);
        EXPECT_EQ(entry->node.parent, nullptr) << "a removed entry keeps no links into the tree";
    }
    EXPECT_EQ(qorRBTreeCount(owner.tree), 0u);
    EXPECT_EQ(qorRBTreeGetNext(owner.tree, nullptr), nullptr);
}

TEST_P(RBTreeProperty, DuplicateInsertIsRefusedAndTheFirstEntryStays) {
    const KeyKind kind = GetParam();
    Model model;
    TreeOwner owner(kind);
    std::mt19937 rng(5);
    while (model.size() < 100) {
        const Key key = randomKey(kind, rng, 100000);
        auto entry = std::make_unique<Entry>(kind, key);
        if (qorRBTreeInsert(owner.tree, &entry->node) == 0) model[key] = std::move(entry);
    }
    const auto before = walk(owner.tree);
    for (auto& [key, first] : model) {
        Entry second(kind, key);
        EXPECT_EQ(qorRBTreeInsert(owner.tree, &second.node), -1);
        EXPECT_EQ(qorRBTreeGetExact(owner.tree, Probe(key).at(kind)), &first->node);
    }
    EXPECT_EQ(qorRBTreeCount(owner.tree), 100u);
    EXPECT_EQ(walk(owner.tree), before);
    EXPECT_TRUE(balanced(owner.tree));
}

TEST_P(RBTreeProperty, DestroyReleasesEveryEntryOnceAndTheTree) {
    const KeyKind kind = GetParam();
    static std::multiset<const QOR_RBT_NODE*> released;
    released.clear();
    std::mt19937 rng(9);
    Model model;
    QOR_RBT_HANDLE tree = qorRBTreeCreate("destroyRbt", kind == KeyKind::IfIndex ? _RBTCompareUL : compareBytes,
                                          countingAlloc, countingFree);
    ASSERT_NE(tree, nullptr);
    while (model.size() < 500) {
        const Key key = randomKey(kind, rng, 100000);
        auto entry = std::make_unique<Entry>(kind, key);
        if (qorRBTreeInsert(tree, &entry->node) == 0) model[key] = std::move(entry);
    }
    EXPECT_EQ(qorRBTreeDestroy(tree, [](QOR_RBT_NODE* node) { released.insert(node); }), 0);
    std::multiset<const QOR_RBT_NODE*> expected;
    for (const auto& [key, entry] : model) expected.insert(&entry->node);
    EXPECT_EQ(released, expected);
    EXPECT_TRUE(trees().live.empty());
}

INSTANTIATE_TEST_SUITE_P(RBTreeKeys, RBTreeProperty, ::testing::Values(KeyKind::IfIndex, KeyKind::Bytes20),
                         [](const ::testing::TestParamInfo<KeyKind>& p) {
                             return p.param == KeyKind::IfIndex ? std::string("IfIndex") : std::string("Bytes20");
                         });

// ---------------------------------------------------------------------------

using RBTreeSwitchPorts = RBTreeFixture;

TEST_F(RBTreeSwitchPorts, FourThousandPortsInAscendingOrderStayBalanced) {
    // Ports are usually configured in ifIndex order: the worst order for an
    // unbalanced tree.
    std::vector<std::unique_ptr<Entry>> ports;
    TreeOwner owner(KeyKind::IfIndex);
    for (uint32_t i = 0; i < 4000; ++i) {
        ports.push_back(std::make_unique<Entry>(KeyKind::IfIndex, Key{0, 0, 0, 0, 0x04, 0x10, static_cast<uint8_t>(i >> 8),
                                                                      static_cast<uint8_t>(i)}));
        ASSERT_EQ(qorRBTreeInsert(owner.tree, &ports.back()->node), 0);
    }
    EXPECT_TRUE(balanced(owner.tree));
    // Removing every other port keeps it balanced too.
    for (uint32_t i = 0; i < 4000; i += 2) ASSERT_EQ(qorRBTreeRemove(owner.tree, &ports[i]->ifIndex), &ports[i]->node);
    EXPECT_EQ(qorRBTreeCount(owner.tree), 2000u);
    EXPECT_TRUE(balanced(owner.tree));
    // GetNext from a removed port gives the next configured one.
    EXPECT_EQ(qorRBTreeGetNext(owner.tree, &ports[10]->ifIndex), &ports[11]->node);
    EXPECT_EQ(qorRBTreeGetNext(owner.tree, &ports[3999]->ifIndex), nullptr);
}

TEST_F(RBTreeSwitchPorts, CreateAndCallsRefuseBadArguments) {
    EXPECT_EQ(qorRBTreeCreate("noCompare", nullptr, countingAlloc, countingFree), nullptr);
    EXPECT_EQ(qorRBTreeCreate("noAlloc", _RBTCompareUL, nullptr, countingFree), nullptr);
    trees().failing = true;
    EXPECT_EQ(qorRBTreeCreate("noMemory", _RBTCompareUL, countingAlloc, countingFree), nullptr);
    trees().failing = false;
    EXPECT_EQ(qorRBTreeDestroy(nullptr, nullptr), -1);
    EXPECT_EQ(qorRBTreeCount(nullptr), 0u);
    uint32_t ifIndex = 7;
    EXPECT_EQ(qorRBTreeGetExact(nullptr, &ifIndex), nullptr);
    EXPECT_EQ(qorRBTreeRemove(nullptr, &ifIndex), nullptr);
    TreeOwner owner(KeyKind::IfIndex);
    EXPECT_EQ(qorRBTreeInsert(owner.tree, nullptr), -1);
    EXPECT_EQ(qorRBTreeGetNext(owner.tree, nullptr), nullptr);
    EXPECT_EQ(qorRBTreeGetNext(owner.tree, &ifIndex), nullptr);
    EXPECT_EQ(qorRBTreeRemove(owner.tree, &ifIndex), nullptr);
}

// _RBTCompareUL on pairs of ifIndexes and the sign it must give.
struct CompareCase {
    uint32_t a;
    uint32_t b;
    int sign;
};

class RBTreeCompareUL : public ::testing::TestWithParam<CompareCase> {};

TEST_P(RBTreeCompareUL, OrdersAsUnsigned) {
    const CompareCase c = GetParam();
    const int order = _RBTCompareUL(&c.a, &c.b);
    EXPECT_EQ((order > 0) - (order < 0), c.sign);
    const int reverse = _RBTCompareUL(&c.b, &c.a);
    EXPECT_EQ((reverse > 0) - (reverse < 0), -c.sign);
}

INSTANTIATE_TEST_SUITE_P(RBTreePairs, RBTreeCompareUL,
                         ::testing::Values(CompareCase{0, 0, 0}, CompareCase{0, 1, -1},
                                           CompareCase{0x7fffffffu, 0x80000000u, -1},
                                           CompareCase{1, 0x80000000u, -1}, CompareCase{0xffffffffu, 1, 1},
                                           CompareCase{0xffffffffu, 0xffffffffu, 0}));

}  // namespace
