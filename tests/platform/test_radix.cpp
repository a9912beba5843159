// Radix tables as the daemon's binding (20-byte key), transaction (128-byte)
// and lease-IP (152-byte) tables use them, checked against an ordered map.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "qor/radix.h"

namespace {

// Node callbacks that count every block and can be told to fail.
struct NodeAccounting {
    std::set<void*> live;
    size_t allocs = 0, frees = 0, unknownFrees = 0, oversized = 0;
    bool failing = false;
} nodes;

void* countingAlloc(size_t size) {
    if (size > QOR_RADIX_INTERNAL_SIZE) ++nodes.oversized;
    if (nodes.failing) return nullptr;
    void* block = std::malloc(size);
    nodes.live.insert(block);
    ++nodes.allocs;
    return block;
}

void countingFree(void* block) {
    if (nodes.live.erase(block) == 0) {
        ++nodes.unknownFrees;
        return;
    }
    ++nodes.frees;
    std::free(block);
}

using Key = std::vector<uint8_t>;

// A caller's entry: the node header first, its key pointer at its own key.
struct Entry {
    QOR_RADIX_NODE node{};
    Key key;
    explicit Entry(Key k) : key(std::move(k)) { node.rnKey = key.data(); }
};

// memcmp order; a key that begins a longer one comes first. (Written out:
// GCC 12's inlined std::vector comparison trips -Wstringop-overread at -O2.)
struct KeyLess {
    bool operator()(const Key& a, const Key& b) const {
        const size_t common = std::min(a.size(), b.size());
        const int order = common ? std::memcmp(a.data(), b.data(), common) : 0;
        return order < 0 || (order == 0 && a.size() < b.size());
    }
};

using Model = std::map<Key, std::unique_ptr<Entry>, KeyLess>;

uint32_t bits(const Key& key) { return static_cast<uint32_t>(key.size() * 8); }

struct TableOwner {
    QOR_RADIX_HANDLE table;
    explicit TableOwner(uint32_t keyBytes)
        : table(qorRadixCreate("testTbl", keyBytes, countingAlloc, countingFree)) {}
    ~TableOwner() {
        if (table) qorRadixDestroy(table);
    }
};

// Every entry, first to last, by GetNext from null and then from each key.
std::vector<const Entry*> walk(QOR_RADIX_HANDLE table) {
    std::vector<const Entry*> seen;
    for (auto* n = qorRadixGetNext(table, nullptr, 0); n && seen.size() <= qorRadixCount(table);) {
        seen.push_back(reinterpret_cast<const Entry*>(n));
        n = qorRadixGetNext(table, seen.back()->key.data(), bits(seen.back()->key));
    }
    return seen;
}

std::vector<const Entry*> inOrder(const Model& model) {
    std::vector<const Entry*> order;
    for (const auto& [key, entry] : model) order.push_back(entry.get());
    return order;
}

enum class KeyShape { Duid, FewBits, LastByte, MixedLengths };
const char* const kShapeNames[] = {"Duid", "FewBits", "LastByte", "MixedLengths"};

// Keys that collide in the ways the daemon's keys do.
class KeyMaker {
public:
    KeyMaker(uint32_t keyBytes, KeyShape shape, uint32_t seed) : n_(keyBytes), shape_(shape), rng_(seed) {
        prefix_.resize(keyBytes);
        for (auto& b : prefix_) b = static_cast<uint8_t>(rng_());
    }
    Key next() {
        Key key = prefix_;
        switch (shape_) {
        case KeyShape::Duid: {  // DUID-LL of a client from a handful of vendors, zero-padded
            std::fill(key.begin(), key.end(), 0);
            const uint8_t header[] = {0x00, 0x03, 0x00, 0x01, 0x00, 0x1b, 0x21};
            std::copy(std::begin(header), std::end(header), key.begin());
            for (size_t i = 7; i < 13; ++i) key[i] = static_cast<uint8_t>(i < 10 ? rng_() % 3 : rng_());
            break;
        }
        case KeyShape::FewBits:  // first, middle, last byte vary in bits 0 and 7
            for (size_t i : {size_t(0), key.size() / 2, key.size() - 1}) key[i] ^= kFlips[rng_() % 4];
            break;
        case KeyShape::LastByte: key.back() = static_cast<uint8_t>(rng_()); break;
        case KeyShape::MixedLengths: {  // lengths near 1 and near the full key
            const uint32_t len = std::max<uint32_t>(1, rng_() % 2 ? 1 + rng_() % 3 : n_ - rng_() % 3);
            key.resize(len);
            key[len - 1] = kAlphabet[rng_() % 3];
            if (len > 1) key[len - 2] = kAlphabet[rng_() % 3];
            break;
        }
        }
        return key;
    }

private:
    static constexpr uint8_t kFlips[] = {0x00, 0x01, 0x80, 0x81};
    static constexpr uint8_t kAlphabet[] = {0x00, 0x01, 0xff};
    uint32_t n_;
    KeyShape shape_;
    std::mt19937 rng_;
    Key prefix_;
};

class RadixFixture : public ::testing::Test {
protected:
    void SetUp() override { nodes = NodeAccounting{}; }
    void TearDown() override {
        EXPECT_TRUE(nodes.live.empty()) << nodes.live.size() << " internal nodes outstanding";
        EXPECT_EQ(nodes.unknownFrees, 0u);
        EXPECT_EQ(nodes.oversized, 0u);
    }
    ::testing::AssertionResult insert(QOR_RADIX_HANDLE table, const Key& key) {
        auto entry = std::make_unique<Entry>(key);
        if (qorRadixInsert(table, &entry->node, bits(key)) != 0) return ::testing::AssertionFailure() << "refused";
        model[key] = std::move(entry);
        return ::testing::AssertionSuccess();
    }
    void removeAll(QOR_RADIX_HANDLE table) {
        for (auto& [key, entry] : model) EXPECT_EQ(qorRadixRemove(table, key.data(), bits(key)), &entry->node);
        model.clear();
    }
    const QOR_RADIX_NODE* modelNode(Model::const_iterator it) const {
        return it == model.end() ? nullptr : &it->second->node;
    }
    Model model;
};

class RadixProperty : public RadixFixture, public ::testing::WithParamInterface<std::tuple<uint32_t, KeyShape>> {};

TEST_P(RadixProperty, RandomOperationsMatchAnOrderedMap) {
    const auto [keyBytes, shape] = GetParam();
    TableOwner owner(keyBytes);
    ASSERT_NE(owner.table, nullptr);
    QOR_RADIX_HANDLE table = owner.table;
    KeyMaker keys(keyBytes, shape, keyBytes * 31 + static_cast<uint32_t>(shape));
    std::mt19937 dice(7);
    for (int op = 0; op < 20000; ++op) {
        Key key = keys.next();
        const uint32_t roll = dice() % 100;
        if (roll < 45) {
            auto entry = std::make_unique<Entry>(key);
            const bool fresh = model.count(key) == 0;
            ASSERT_EQ(qorRadixInsert(table, &entry->node, bits(key)), fresh ? 0 : -1) << "op " << op;
            if (fresh) model[key] = std::move(entry);
        } else if (roll < 70) {
            if (dice() % 2 && !model.empty()) {  // half the removals name a present key
                auto it = model.lower_bound(key);
                key = (it == model.end() ? model.begin() : it)->first;
            }
            auto it = model.find(key);
            ASSERT_EQ(qorRadixRemove(table, key.data(), bits(key)), modelNode(it)) << "op " << op;
            if (it != model.end()) model.erase(it);
        } else if (roll < 85) {
            ASSERT_EQ(qorRadixGetExact(table, key.data(), bits(key)), modelNode(model.find(key))) << "op " << op;
        } else {
            ASSERT_EQ(qorRadixGetNext(table, key.data(), bits(key)), modelNode(model.upper_bound(key)))
                << "op " << op << (model.count(key) ? " (key present)" : " (key absent)");
        }
        ASSERT_EQ(qorRadixCount(table), model.size());
        ASSERT_LE(nodes.live.size(), model.size()) << "at most one internal node per entry";
        if (op % 2000 == 0) {
            ASSERT_EQ(walk(table), inOrder(model)) << "op " << op;
        }
    }
    ASSERT_EQ(walk(table), inOrder(model));
    removeAll(table);
    EXPECT_EQ(qorRadixGetNext(table, nullptr, 0), nullptr);
    EXPECT_EQ(nodes.allocs, nodes.frees);
}

INSTANTIATE_TEST_SUITE_P(RadixKeys, RadixProperty,
                         ::testing::Combine(::testing::Values(20u, 128u, 152u),
                                            ::testing::Values(KeyShape::Duid, KeyShape::FewBits, KeyShape::LastByte,
                                                              KeyShape::MixedLengths)),
                         [](const auto& p) {
                             return std::to_string(std::get<0>(p.param) * 8) + "bits" +
                                    kShapeNames[int(std::get<1>(p.param))];
                         });

// Behaviour at each of the daemon's key sizes.
class RadixTable : public RadixFixture, public ::testing::WithParamInterface<uint32_t> {
protected:
    uint32_t keyBits() const { return GetParam() * 8; }
    // Keys sharing everything but their last bytes, like padded DUIDs.
    Key key(uint32_t n) const {
        Key k(GetParam(), 0x5a);
        k[k.size() - 1] = static_cast<uint8_t>(n);
        k[k.size() - 2] = static_cast<uint8_t>(n >> 8);
        return k;
    }
};

TEST_P(RadixTable, RefusedCallsLeaveTheTableAsItWasAndDestroyLeavesTheEntries) {
    auto owner = std::make_unique<TableOwner>(GetParam());
    QOR_RADIX_HANDLE table = owner->table;
    ASSERT_TRUE(insert(table, Key(GetParam(), 0)));
    for (uint32_t i = 0; i < 50; ++i) ASSERT_TRUE(insert(table, key(i * 7919 % 65521)));
    const auto before = walk(table);
    const size_t nodesBefore = nodes.live.size();
    // A key already present, as a new entry or as the same one, is refused.
    for (const auto& [k, first] : model) {
        Entry second(k);
        EXPECT_EQ(qorRadixInsert(table, &second.node, keyBits()), -1);
        EXPECT_EQ(qorRadixInsert(table, &first->node, keyBits()), -1) << "same entry twice";
        EXPECT_EQ(qorRadixGetExact(table, k.data(), keyBits()), &first->node);
    }
    EXPECT_EQ(nodes.live.size(), nodesBefore) << "a refused insert keeps no node";
    // Empty and bad lengths. The buffers hold a byte more than the table's
    // key, so a length just over it is refused by the table, not a sanitizer.
    const Key probe(GetParam() + 1, 0x5a);
    Entry longer(probe);
    for (uint32_t wrong : {0u, 1u, 7u, 9u, keyBits() - 1, keyBits() + 1, keyBits() + 8, UINT32_MAX & ~7u}) {
        EXPECT_EQ(qorRadixInsert(table, &longer.node, wrong), -1) << wrong;
        EXPECT_EQ(qorRadixGetExact(table, probe.data(), wrong), nullptr) << wrong;
        EXPECT_EQ(qorRadixRemove(table, probe.data(), wrong), nullptr) << wrong;
        // Every stored key follows the empty key.
        EXPECT_EQ(qorRadixGetNext(table, probe.data(), wrong), wrong ? nullptr : &model.begin()->second->node)
            << wrong;
    }
    // New keys branching early and late are refused while no node can be had.
    std::vector<std::unique_ptr<Entry>> refused;
    nodes.failing = true;
    for (uint32_t i = 0; i < 20; ++i) {
        Key k = key(0xf000 + i);
        k[0] = static_cast<uint8_t>(i * 13);
        refused.push_back(std::make_unique<Entry>(k));
        EXPECT_EQ(qorRadixInsert(table, &refused.back()->node, keyBits()), -1);
        EXPECT_EQ(qorRadixGetExact(table, k.data(), keyBits()), nullptr);
    }
    nodes.failing = false;
    EXPECT_EQ(qorRadixCount(table), 51u);
    EXPECT_EQ(walk(table), before);
    for (auto& entry : refused) {  // the same entries go in once memory is back
        ASSERT_EQ(qorRadixInsert(table, &entry->node, keyBits()), 0);
        model[entry->key] = std::move(entry);
    }
    EXPECT_EQ(walk(table), inOrder(model));
    // Destroy gives back every node; the entries are still whole and go into a new table.
    owner.reset();
    EXPECT_TRUE(nodes.live.empty());
    TableOwner again(GetParam());
    for (auto& [k, entry] : model) ASSERT_EQ(qorRadixInsert(again.table, &entry->node, keyBits()), 0);
    EXPECT_EQ(walk(again.table), inOrder(model));
    removeAll(again.table);
}

INSTANTIATE_TEST_SUITE_P(RadixKeySizes, RadixTable, ::testing::Values(20u, 128u, 152u),
                         [](const auto& p) { return std::to_string(p.param * 8) + "bits"; });

using RadixTableBasics = RadixFixture;

TEST_F(RadixTableBasics, HoldsTheTransactionTablesHundredThousandClients) {
    TableOwner owner(128);
    KeyMaker keys(128, KeyShape::Duid, 2024);
    while (model.size() < 100000) {
        Key k = keys.next();
        if (model.count(k) == 0) {
            ASSERT_TRUE(insert(owner.table, k));
        }
    }
    ASSERT_EQ(walk(owner.table), inOrder(model));
    removeAll(owner.table);
    EXPECT_TRUE(nodes.live.empty());
    ASSERT_TRUE(insert(owner.table, Key(128, 1)));  // the emptied table takes entries again
    EXPECT_EQ(walk(owner.table), inOrder(model));
    removeAll(owner.table);
}

TEST_F(RadixTableBasics, CallsRefuseBadArguments) {
    EXPECT_EQ(qorRadixCreate("zeroKey", 0, countingAlloc, countingFree), nullptr);
    EXPECT_EQ(qorRadixCreate("noAlloc", 20, nullptr, countingFree), nullptr);
    EXPECT_EQ(qorRadixCreate("noFree", 20, countingAlloc, nullptr), nullptr);
    EXPECT_EQ(qorRadixDestroy(nullptr), -1);
    EXPECT_EQ(qorRadixCount(nullptr), 0u);
    const Key k(20, 1);
    EXPECT_EQ(qorRadixGetExact(nullptr, k.data(), 160), nullptr);
    EXPECT_EQ(qorRadixGetNext(nullptr, nullptr, 0), nullptr);
    EXPECT_EQ(qorRadixRemove(nullptr, k.data(), 160), nullptr);
    TableOwner owner(20);
    EXPECT_EQ(qorRadixInsert(owner.table, nullptr, 160), -1);
    EXPECT_EQ(qorRadixGetNext(owner.table, k.data(), 160), nullptr);
    EXPECT_EQ(qorRadixRemove(owner.table, k.data(), 160), nullptr);
    Entry noKey(Key{});
    noKey.node.rnKey = nullptr;
    EXPECT_EQ(qorRadixInsert(owner.table, &noKey.node, 160), -1);
}

}  // namespace
