// Radix tables as the daemon's binding (20-byte key), transaction (128-byte)
// and lease-IP (152-byte) tables use them, checked against an ordered map.
#include <gtest/gtest.h>

#include <algorithm>
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

#include "qor/radix.h"

namespace {

// Node callbacks that count every block and can be told to fail.
struct NodeAccounting {
    std::set<void*> live;
    size_t allocs = 0;
    size_t frees = 0;
    size_t unknownFrees = 0;   // frees of blocks the callbacks never handed out
    size_t oversized = 0;      // requests above QOR_RADIX_INTERNAL_SIZE
    bool failing = false;
};

NodeAccounting& nodes() {
    static NodeAccounting accounting;
    return accounting;
}

void* countingAlloc(size_t size) {
    if (size > QOR_RADIX_INTERNAL_SIZE) ++nodes().oversized;
    if (nodes().failing) return nullptr;
    void* block = std::malloc(size);
    nodes().live.insert(block);
    ++nodes().allocs;
    return block;
}

void countingFree(void* block) {
    if (nodes().live.erase(block) == 0) {
        ++nodes().unknownFrees;
        return;
    }
    ++nodes().frees;
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
    TableOwner(const char* name, uint32_t keyBytes)
        : table(qorRadixCreate(name, keyBytes, countingAlloc, countingFree)) {}
    ~TableOwner() {
        if (table) qorRadixDestroy(table);
    }
    TableOwner(const TableOwner&) = delete;
    TableOwner& operator=(const TableOwner&) = delete;
};

// Every entry, first to last, by GetNext from null and then from each key.
std::vector<const Entry*> walk(QOR_RADIX_HANDLE table) {
    std::vector<const Entry*> seen;
    const QOR_RADIX_NODE* node = qorRadixGetNext(table, nullptr, 0);
    while (node && seen.size() <= qorRadixCount(table)) {
        const auto* entry = reinterpret_cast<const Entry*>(node);
        seen.push_back(entry);
        node = qorRadixGetNext(table, entry->key.data(), bits(entry->key));
    }
    return seen;
}

std::vector<const Entry*> inOrder(const Model& model) {
    std::vector<const Entry*> order;
    for (const auto& [key, entry] : model) order.push_back(entry.get());
    return order;
}

class RadixFixture : public ::testing::Test {
protected:
    void SetUp() override { nodes() = NodeAccounting{}; }
    void TearDown() override {
        EXPECT_TRUE(nodes().live.empty()) << nodes().live.size() << " internal nodes outstanding";
        EXPECT_EQ(nodes().unknownFrees, 0u);
        EXPECT_EQ(nodes().oversized, 0u);
    }

    // Inserts a fresh entry and records it in the model.
    ::testing::AssertionResult insert(QOR_RADIX_HANDLE table, Model& model, const Key& key) {
        auto entry = std::make_unique<Entry>(key);
        if (qorRadixInsert(table, &entry->node, bits(key)) != 0)
            return ::testing::AssertionFailure() << "insert refused";
        model[key] = std::move(entry);
        return ::testing::AssertionSuccess();
    }

    static void removeAll(QOR_RADIX_HANDLE table, Model& model) {
        for (auto& [key, entry] : model)
            EXPECT_EQ(qorRadixRemove(table, key.data(), bits(key)), &entry->node);
        model.clear();
    }
};

// ---------------------------------------------------------------------------
// Random operations against the model.

enum class KeyShape {
    Duid,          // a shared DUID header, six varying bytes, zero padding
    FewBits,       // a shared prefix; first, middle, last byte vary in bit 0 and 7
    LastByte,      // everything shared but the last byte
    MixedLengths,  // any length from one byte to the table's, small alphabet
};

const char* shapeName(KeyShape shape) {
    switch (shape) {
    case KeyShape::Duid: return "Duid";
    case KeyShape::FewBits: return "FewBits";
    case KeyShape::LastByte: return "LastByte";
    case KeyShape::MixedLengths: return "MixedLengths";
    }
    return "?";
}

class KeyMaker {
public:
    KeyMaker(uint32_t keyBytes, KeyShape shape, uint32_t seed) : keyBytes_(keyBytes), shape_(shape), rng_(seed) {
        prefix_.resize(keyBytes);
        for (auto& b : prefix_) b = static_cast<uint8_t>(rng_());
    }

    Key next() {
        switch (shape_) {
        case KeyShape::Duid: return duid();
        case KeyShape::FewBits: return fewBits();
        case KeyShape::LastByte: {
            Key key = prefix_;
            key.back() = static_cast<uint8_t>(rng_());
            return key;
        }
        case KeyShape::MixedLengths: return mixedLength();
        }
        return {};
    }

private:
    Key duid() {
        // DUID-LL of a client from a handful of vendors, zero-padded.
        Key key(keyBytes_, 0);
        const uint8_t header[] = {0x00, 0x03, 0x00, 0x01, 0x00, 0x1b, 0x21};
        std::copy(std::begin(header), std::end(header), key.begin());
        for (size_t i = 7; i < 10 && i < key.size(); ++i) key[i] = static_cast<uint8_t>(rng_() % 3);
        for (size_t i = 10; i < 13 && i < key.size(); ++i) key[i] = static_cast<uint8_t>(rng_());
        return key;
    }

    uint8_t flipped(uint8_t b) {
        static constexpr uint8_t flips[] = {0x00, 0x01, 0x80, 0x81};
        return static_cast<uint8_t>(b ^ flips[rng_() % 4]);
    }

    Key fewBits() {
        Key key = prefix_;
        key.front() = flipped(key.front());
        key[key.size() / 2] = flipped(key[key.size() / 2]);
        key.back() = flipped(key.back());
        return key;
    }

    Key mixedLength() {
        // Lengths cluster near 1 and near the full key so prefixes collide.
        const uint32_t len = std::max<uint32_t>(1, rng_() % 2 ? 1 + rng_() % 3 : keyBytes_ - rng_() % 3);
        Key key(prefix_.begin(), prefix_.begin() + len);
        static constexpr uint8_t alphabet[] = {0x00, 0x01, 0xff};
        key[len - 1] = alphabet[rng_() % 3];
        if (len > 1) key[len - 2] = alphabet[rng_() % 3];
        return key;
    }

    uint32_t keyBytes_;
    KeyShape shape_;
    std::mt19937 rng_;
    Key prefix_;
};

using PropertyParam = std::tuple<uint32_t, KeyShape>;

class RadixProperty : public RadixFixture, public ::testing::WithParamInterface<PropertyParam> {};

TEST_P(RadixProperty, RandomOperationsMatchAnOrderedMap) {
    const auto [keyBytes, shape] = GetParam();
    TableOwner owner("propertyTbl", keyBytes);
    ASSERT_NE(owner.table, nullptr);
    QOR_RADIX_HANDLE table = owner.table;
    KeyMaker keys(keyBytes, shape, keyBytes * 31 + static_cast<uint32_t>(shape));
    std::mt19937 dice(7);
    Model model;

    for (int op = 0; op < 20000; ++op) {
        Key key = keys.next();
        const uint32_t roll = dice() % 100;
        if (roll < 45) {
            auto entry = std::make_unique<Entry>(key);
            const bool fresh = model.count(key) == 0;
            ASSERT_EQ(qorRadixInsert(table, &entry->node, bits(key)), fresh ? 0 : -1) << "op " << op;
            if (fresh) model[key] = std::move(entry);
        } else if (roll < 70) {
            // Half of the removals name a key known to be present.
            if (dice() % 2 && !model.empty()) {
                auto it = model.lower_bound(key);
                key = (it == model.end() ? model.begin() : it)->first;
            }
            auto it = model.find(key);
            QOR_RADIX_NODE* removed = qorRadixRemove(table, key.data(), bits(key));
            if (it == model.end()) {
                ASSERT_EQ(removed, nullptr) << "op " << op;
            } else {
                ASSERT_EQ(removed, &it->second->node) << "op " << op;
                model.erase(it);
            }
        } else if (roll < 85) {
            auto it = model.find(key);
            ASSERT_EQ(qorRadixGetExact(table, key.data(), bits(key)),
                      it == model.end() ? nullptr : &it->second->node)
                << "op " << op;
        } else {
            auto it = model.upper_bound(key);
            ASSERT_EQ(qorRadixGetNext(table, key.data(), bits(key)),
                      it == model.end() ? nullptr : &it->second->node)
                << "op " << op << (model.count(key) ? " (key present)" : " (key absent)");
        }
        ASSERT_EQ(qorRadixCount(table), model.size());
        ASSERT_LE(nodes().live.size(), model.size()) << "at most one internal node per entry";
        if (op % 2000 == 0) {
            ASSERT_EQ(walk(table), inOrder(model)) << "op " << op;
        }
    }
    ASSERT_EQ(walk(table), inOrder(model));
    removeAll(table, model);
    EXPECT_EQ(qorRadixCount(table), 0u);
    EXPECT_EQ(qorRadixGetNext(table, nullptr, 0), nullptr);
    EXPECT_EQ(nodes().allocs, nodes().frees);
}

INSTANTIATE_TEST_SUITE_P(RadixKeys, RadixProperty,
                         ::testing::Combine(::testing::Values(20u, 128u, 152u),
                                            ::testing::Values(KeyShape::Duid, KeyShape::FewBits,
                                                              KeyShape::LastByte, KeyShape::MixedLengths)),
                         [](const ::testing::TestParamInfo<PropertyParam>& p) {
                             return std::to_string(std::get<0>(p.param) * 8) + "bits" +
                                    shapeName(std::get<1>(p.param));
                         });

// ---------------------------------------------------------------------------
// Behaviour at each of the daemon's key sizes.

class RadixTable : public RadixFixture, public ::testing::WithParamInterface<uint32_t> {
protected:
    uint32_t keyBytes() const { return GetParam(); }
    uint32_t keyBits() const { return GetParam() * 8; }
    // Keys sharing everything but their last bytes, like padded DUIDs.
    Key key(uint32_t n) const {
        Key k(keyBytes(), 0x5a);
        k[keyBytes() - 1] = static_cast<uint8_t>(n);
        k[keyBytes() - 2] = static_cast<uint8_t>(n >> 8);
        return k;
    }
    void fill(QOR_RADIX_HANDLE table, Model& model, uint32_t n) {
        for (uint32_t i = 0; i < n; ++i) ASSERT_TRUE(insert(table, model, key(i * 7919 % 65521)));
    }
};

TEST_P(RadixTable, DuplicateInsertIsRefusedAndTheFirstEntryStays) {
    TableOwner owner("dupTbl", keyBytes());
    Model model;
    fill(owner.table, model, 40);
    const auto before = walk(owner.table);
    const size_t nodesBefore = nodes().live.size();
    for (const auto& [k, first] : model) {
        Entry second(k);
        EXPECT_EQ(qorRadixInsert(owner.table, &second.node, keyBits()), -1);
        EXPECT_EQ(qorRadixInsert(owner.table, &first->node, keyBits()), -1) << "same entry twice";
        EXPECT_EQ(qorRadixGetExact(owner.table, k.data(), keyBits()), &first->node);
    }
    EXPECT_EQ(qorRadixCount(owner.table), 40u);
    EXPECT_EQ(walk(owner.table), before);
    EXPECT_EQ(nodes().live.size(), nodesBefore) << "a refused insert keeps no node";
    removeAll(owner.table, model);
}

TEST_P(RadixTable, FailedNodeAllocationLeavesTheTableAsItWas) {
    TableOwner owner("allocTbl", keyBytes());
    Model model;
    fill(owner.table, model, 50);
    const auto before = walk(owner.table);
    std::vector<std::unique_ptr<Entry>> refused;
    nodes().failing = true;
    for (uint32_t i = 0; i < 20; ++i) {
        Key k = key(0xf000 + i);
        k[0] = static_cast<uint8_t>(i * 13);  // new keys branching early and late
        refused.push_back(std::make_unique<Entry>(k));
        EXPECT_EQ(qorRadixInsert(owner.table, &refused.back()->node, keyBits()), -1);
        EXPECT_EQ(qorRadixGetExact(owner.table, k.data(), keyBits()), nullptr);
    }
    nodes().failing = false;
    EXPECT_EQ(qorRadixCount(owner.table), 50u);
    EXPECT_EQ(walk(owner.table), before);
    for (const auto& [k, entry] : model) EXPECT_EQ(qorRadixGetExact(owner.table, k.data(), keyBits()), &entry->node);
    // The same entries go in once memory is back.
    for (auto& entry : refused) {
        ASSERT_EQ(qorRadixInsert(owner.table, &entry->node, keyBits()), 0);
        model[entry->key] = std::move(entry);
    }
    EXPECT_EQ(walk(owner.table), inOrder(model));
    removeAll(owner.table, model);
}

TEST_P(RadixTable, RemovingEveryEntryReturnsEveryInternalNode) {
    TableOwner owner("drainTbl", keyBytes());
    Model model;
    fill(owner.table, model, 1000);
    EXPECT_GT(nodes().allocs, 0u);
    std::vector<Key> order;
    for (const auto& [k, entry] : model) order.push_back(k);
    std::shuffle(order.begin(), order.end(), std::mt19937(keyBytes()));
    for (const Key& k : order) {
        QOR_RADIX_NODE* removed = qorRadixRemove(owner.table, k.data(), keyBits());
        ASSERT_EQ(removed, &model[k]->node);
        EXPECT_EQ(qorRadixRemove(owner.table, k.data(), keyBits()), nullptr) << "removed twice";
    }
    model.clear();
    EXPECT_EQ(qorRadixCount(owner.table), 0u);
    EXPECT_EQ(qorRadixGetNext(owner.table, nullptr, 0), nullptr);
    EXPECT_TRUE(nodes().live.empty());
    EXPECT_EQ(nodes().allocs, nodes().frees);
    // The emptied table takes entries again.
    ASSERT_TRUE(insert(owner.table, model, key(1)));
    ASSERT_TRUE(insert(owner.table, model, key(2)));
    EXPECT_EQ(walk(owner.table), inOrder(model));
    removeAll(owner.table, model);
}

TEST_P(RadixTable, DestroyReturnsTheNodesAndLeavesTheEntries) {
    Model model;
    {
        TableOwner owner("destroyTbl", keyBytes());
        fill(owner.table, model, 300);
        ASSERT_EQ(qorRadixDestroy(owner.table), 0);
        owner.table = nullptr;
    }
    EXPECT_TRUE(nodes().live.empty());
    EXPECT_EQ(nodes().allocs, nodes().frees);
    // The entries are still the caller's, whole, and go into a new table.
    TableOwner again("destroyTbl2", keyBytes());
    for (auto& [k, entry] : model) ASSERT_EQ(qorRadixInsert(again.table, &entry->node, keyBits()), 0);
    EXPECT_EQ(walk(again.table), inOrder(model));
    removeAll(again.table, model);
}

TEST_P(RadixTable, EmptyKeyFindsAndRemovesNothing) {
    TableOwner owner("emptyKeyTbl", keyBytes());
    Model model;
    ASSERT_TRUE(insert(owner.table, model, Key(keyBytes(), 0)));  // the all-zero key
    fill(owner.table, model, 10);
    const Key zeros(keyBytes(), 0);
    EXPECT_EQ(qorRadixGetExact(owner.table, zeros.data(), 0), nullptr);
    EXPECT_EQ(qorRadixRemove(owner.table, zeros.data(), 0), nullptr);
    Entry empty(zeros);
    EXPECT_EQ(qorRadixInsert(owner.table, &empty.node, 0), -1);
    EXPECT_EQ(qorRadixCount(owner.table), 11u);
    // Every stored key follows the empty key.
    EXPECT_EQ(qorRadixGetNext(owner.table, zeros.data(), 0), &model.begin()->second->node);
    removeAll(owner.table, model);
}

TEST_P(RadixTable, HoldsKeysDifferingOnlyInTheLastBit) {
    TableOwner owner("lastBitTbl", keyBytes());
    Model model;
    Key low(keyBytes(), 0xa5);
    low.back() = 0xfe;
    Key high = low;
    high.back() = 0xff;
    ASSERT_TRUE(insert(owner.table, model, high));
    ASSERT_TRUE(insert(owner.table, model, low));
    EXPECT_EQ(qorRadixGetExact(owner.table, low.data(), keyBits()), &model[low]->node);
    EXPECT_EQ(qorRadixGetExact(owner.table, high.data(), keyBits()), &model[high]->node);
    EXPECT_EQ(qorRadixGetNext(owner.table, nullptr, 0), &model[low]->node);
    EXPECT_EQ(qorRadixGetNext(owner.table, low.data(), keyBits()), &model[high]->node);
    EXPECT_EQ(qorRadixGetNext(owner.table, high.data(), keyBits()), nullptr);
    Key between = low;
    between[keyBytes() - 2] = 0xa4;  // below both
    EXPECT_EQ(qorRadixGetNext(owner.table, between.data(), keyBits()), &model[low]->node);
    between[keyBytes() - 2] = 0xa6;  // above both
    EXPECT_EQ(qorRadixGetNext(owner.table, between.data(), keyBits()), nullptr);
    removeAll(owner.table, model);
}

INSTANTIATE_TEST_SUITE_P(RadixKeySizes, RadixTable, ::testing::Values(20u, 128u, 152u),
                         [](const ::testing::TestParamInfo<uint32_t>& p) {
                             return std::to_string(p.param * 8) + "bits";
                         });

// Key lengths the tables refuse, relative to the table's key length.
enum class BadLength { OneBit, SevenBits, NineBits, OneBitShort, OneBitLong, OneByteLong, Huge };

using BadLengthParam = std::tuple<uint32_t, BadLength>;

uint32_t badBits(uint32_t keyBits, BadLength bad) {
    switch (bad) {
    case BadLength::OneBit: return 1;
    case BadLength::SevenBits: return 7;
    case BadLength::NineBits: return 9;
    case BadLength::OneBitShort: return keyBits - 1;
    case BadLength::OneBitLong: return keyBits + 1;
    case BadLength::OneByteLong: return keyBits + 8;
    case BadLength::Huge: return UINT32_MAX & ~7u;
    }
    return 0;
}

class RadixBadLength : public RadixFixture, public ::testing::WithParamInterface<BadLengthParam> {};

TEST_P(RadixBadLength, IsRefusedByEveryCallAndChangesNothing) {
    const auto [keyBytes, bad] = GetParam();
    const uint32_t wrong = badBits(keyBytes * 8, bad);
    TableOwner owner("badLenTbl", keyBytes);
    Model model;
    // The buffers hold a byte more than the table's key, so a length just
    // over it is refused by the table, not by a sanitizer.
    ASSERT_TRUE(insert(owner.table, model, Key(keyBytes, 0x11)));
    Key probe(keyBytes + 1, 0x11);
    Entry entry(Key(keyBytes + 1, 0x22));
    EXPECT_EQ(qorRadixInsert(owner.table, &entry.node, wrong), -1);
    EXPECT_EQ(qorRadixGetExact(owner.table, probe.data(), wrong), nullptr);
    EXPECT_EQ(qorRadixGetNext(owner.table, Key(keyBytes + 1, 0).data(), wrong), nullptr);
    EXPECT_EQ(qorRadixRemove(owner.table, probe.data(), wrong), nullptr);
    EXPECT_EQ(qorRadixCount(owner.table), 1u);
    EXPECT_EQ(walk(owner.table), inOrder(model));
    removeAll(owner.table, model);
}

INSTANTIATE_TEST_SUITE_P(RadixKeySizes, RadixBadLength,
                         ::testing::Combine(::testing::Values(20u, 128u, 152u),
                                            ::testing::Values(BadLength::OneBit, BadLength::SevenBits,
                                                              BadLength::NineBits, BadLength::OneBitShort,
                                                              BadLength::OneBitLong, BadLength::OneByteLong,
                                                              BadLength::Huge)),
                         [](const ::testing::TestParamInfo<BadLengthParam>& p) {
                             return std::to_string(std::get<0>(p.param) * 8) + "bits_" +
                                    std::to_string(badBits(std::get<0>(p.param) * 8, std::get<1>(p.param)));
                         });

// ---------------------------------------------------------------------------
// Single cases.

using RadixTableBasics = RadixFixture;

TEST_F(RadixTableBasics, ShorterKeysSortBeforeTheKeysTheyBegin) {
    TableOwner owner("prefixTbl", 20);
    Model model;
    const std::vector<std::string> keys = {"abc", "b", "a", "ab", "a\xff", std::string("ab\x00", 3)};
    for (const std::string& s : keys) ASSERT_TRUE(insert(owner.table, model, Key(s.begin(), s.end())));
    const std::vector<std::string> expected = {"a", "ab", std::string("ab\x00", 3), "abc", "a\xff", "b"};
    std::vector<std::string> seen;
    for (const Entry* e : walk(owner.table)) seen.emplace_back(e->key.begin(), e->key.end());
    EXPECT_EQ(seen, expected);
    // A lookup finds an entry only with that entry's own length.
    const Key abc = {'a', 'b', 'c'};
    EXPECT_EQ(qorRadixGetExact(owner.table, abc.data(), 16), (&model[Key{'a', 'b'}]->node));
    const Key absent = {'a', 'b', 'b', 'z'};
    EXPECT_EQ(qorRadixGetExact(owner.table, absent.data(), 32), nullptr);
    EXPECT_EQ(qorRadixGetNext(owner.table, absent.data(), 32), &model[abc]->node);
    removeAll(owner.table, model);
}

TEST_F(RadixTableBasics, HoldsTheTransactionTablesHundredThousandClients) {
    constexpr uint32_t kClients = 100000;
    TableOwner owner("dhcpv6TransactionTbl", 128);
    Model model;
    KeyMaker keys(128, KeyShape::Duid, 2024);
    while (model.size() < kClients) {
        Key k = keys.next();
        if (model.count(k)) continue;
        ASSERT_TRUE(insert(owner.table, model, k));
    }
    EXPECT_EQ(qorRadixCount(owner.table), kClients);
    ASSERT_EQ(walk(owner.table), inOrder(model));
    for (const auto& [k, entry] : model) ASSERT_EQ(qorRadixGetExact(owner.table, k.data(), 1024), &entry->node);
    removeAll(owner.table, model);
    EXPECT_EQ(qorRadixCount(owner.table), 0u);
}

TEST_F(RadixTableBasics, CreateAndDestroyRefuseBadArguments) {
    EXPECT_EQ(qorRadixCreate("zeroKey", 0, countingAlloc, countingFree), nullptr);
    EXPECT_EQ(qorRadixCreate("noAlloc", 20, nullptr, countingFree), nullptr);
    EXPECT_EQ(qorRadixCreate("noFree", 20, countingAlloc, nullptr), nullptr);
    EXPECT_EQ(qorRadixDestroy(nullptr), -1);
    EXPECT_EQ(qorRadixCount(nullptr), 0u);
    const Key k(20, 1);
    EXPECT_EQ(qorRadixGetExact(nullptr, k.data(), 160), nullptr);
    EXPECT_EQ(qorRadixGetNext(nullptr, nullptr, 0), nullptr);
    EXPECT_EQ(qorRadixRemove(nullptr, k.data(), 160), nullptr);
    TableOwner owner("emptyTbl", 20);
    ASSERT_NE(owner.table, nullptr);
    EXPECT_EQ(qorRadixInsert(owner.table, nullptr, 160), -1);
    EXPECT_EQ(qorRadixGetExact(owner.table, k.data(), 160), nullptr);
    EXPECT_EQ(qorRadixGetNext(owner.table, k.data(), 160), nullptr);
    EXPECT_EQ(qorRadixGetNext(owner.table, nullptr, 160), nullptr);
    EXPECT_EQ(qorRadixRemove(owner.table, k.data(), 160), nullptr);
    Entry noKey(Key{});
    noKey.node.rnKey = nullptr;
    EXPECT_EQ(qorRadixInsert(owner.table, &noKey.node, 160), -1);
}

}  // namespace
