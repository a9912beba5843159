// micro_radix.cpp -- cost of one operation on the keyed containers at the
// sizes the daemon runs them: the transaction table at 100,000 clients
// (1024-bit DUID keys) and the switch-port tree at 4000 ports.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <random>
#include <set>
#include <vector>

#include "qor/radix.h"
#include "qor/rbtree.h"

namespace {

constexpr uint32_t kTransKeyBytes = 128;
constexpr uint32_t kTransKeyBits = kTransKeyBytes * 8;
constexpr size_t kClients = 100000;
constexpr size_t kPorts = 4000;

struct TransEntry {
    QOR_RADIX_NODE node{};
    uint8_t duid[kTransKeyBytes] = {};
};

void* heapAlloc(size_t size) { return std::malloc(size); }
void heapFree(void* block) { std::free(block); }

// DUID-LLT keys as clients send them: type 1, hardware type 1, a time, a MAC
// from one of a few vendors, zero-padded to the key length.
std::vector<std::unique_ptr<TransEntry>> makeClients(size_t count, uint32_t seed) {
    static constexpr uint8_t ouis[][3] = {{0x00, 0x1b, 0x21}, {0x3c, 0xfd, 0xfe}, {0xf8, 0xbc, 0x12}};
    std::mt19937 rng(seed);
    std::set<std::array<uint8_t, kTransKeyBytes>> seen;
    std::vector<std::unique_ptr<TransEntry>> clients;
    while (clients.size() < count) {
        auto entry = std::make_unique<TransEntry>();
        const uint8_t header[] = {0x00, 0x01, 0x00, 0x01};
        std::copy(std::begin(header), std::end(header), entry->duid);
        const uint32_t time = 0x2a000000u + rng() % 0x100000u;
        for (int i = 0; i < 4; ++i) entry->duid[4 + i] = static_cast<uint8_t>(time >> (24 - 8 * i));
        const auto& oui = ouis[rng() % 3];
        std::copy(std::begin(oui), std::end(oui), entry->duid + 8);
        const uint32_t nic = rng();
        for (int i = 0; i < 3; ++i) entry->duid[11 + i] = static_cast<uint8_t>(nic >> (16 - 8 * i));
        std::array<uint8_t, kTransKeyBytes> key;
        std::copy(std::begin(entry->duid), std::end(entry->duid), key.begin());
        if (!seen.insert(key).second) continue;
        entry->node.rnKey = entry->duid;
        clients.push_back(std::move(entry));
    }
    return clients;
}

// 100,000 clients in the table and 100,000 more waiting to be inserted.
struct TransWorkload {
    std::vector<std::unique_ptr<TransEntry>> present;
    std::vector<std::unique_ptr<TransEntry>> extra;
    TransWorkload() {
        auto all = makeClients(2 * kClients, 6);
        present.assign(std::make_move_iterator(all.begin()), std::make_move_iterator(all.begin() + kClients));
        extra.assign(std::make_move_iterator(all.begin() + kClients), std::make_move_iterator(all.end()));
    }
};

TransWorkload& transWorkload() {
    static TransWorkload workload;
    return workload;
}

struct TransTable {
    QOR_RADIX_HANDLE table = qorRadixCreate("dhcpv6TransactionTbl", kTransKeyBytes, heapAlloc, heapFree);
    TransTable() {
        for (auto& entry : transWorkload().present) qorRadixInsert(table, &entry->node, kTransKeyBits);
    }
    ~TransTable() { qorRadixDestroy(table); }
    TransTable(const TransTable&) = delete;
    TransTable& operator=(const TransTable&) = delete;
};

// New clients go in batches of 10,000, taken out again untimed, so the table
// stays between 100,000 and 110,000 entries.
void BM_RadixInsert(benchmark::State& state) {
    constexpr size_t kBatch = 10000;
    TransTable trans;
    auto& extra = transWorkload().extra;
    const auto removeBatch = [&](size_t from, size_t to) {
        for (size_t i = from; i < to; ++i) qorRadixRemove(trans.table, extra[i]->duid, kTransKeyBits);
    };
    size_t batchStart = 0;
    size_t next = 0;
    for (auto _ : state) {
        if (next - batchStart == kBatch) {
            state.PauseTiming();
            removeBatch(batchStart, next);
            batchStart = next = next == extra.size() ? 0 : next;
            state.ResumeTiming();
        }
        benchmark::DoNotOptimize(qorRadixInsert(trans.table, &extra[next++]->node, kTransKeyBits));
    }
    removeBatch(batchStart, next);
}
BENCHMARK(BM_RadixInsert);

void BM_RadixGetExact(benchmark::State& state) {
    TransTable trans;
    std::vector<const uint8_t*> keys;
    for (auto& entry : transWorkload().present) keys.push_back(entry->duid);
    std::shuffle(keys.begin(), keys.end(), std::mt19937(3));
    size_t next = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(qorRadixGetExact(trans.table, keys[next], kTransKeyBits));
        if (++next == keys.size()) next = 0;
    }
}
BENCHMARK(BM_RadixGetExact);

void BM_RadixGetNext(benchmark::State& state) {
    TransTable trans;
    const QOR_RADIX_NODE* at = nullptr;
    for (auto _ : state) {
        at = at ? qorRadixGetNext(trans.table, at->rnKey, kTransKeyBits) : qorRadixGetNext(trans.table, nullptr, 0);
        benchmark::DoNotOptimize(at);
    }
}
BENCHMARK(BM_RadixGetNext);

// The switch-port tree: ifIndexes of physical ports.
struct PortEntry {
    QOR_RBT_NODE node{};
    unsigned long ifIndex = 0;
};

std::vector<std::unique_ptr<PortEntry>> makePorts(size_t count, uint32_t seed) {
    std::mt19937 rng(seed);
    std::set<unsigned long> seen;
    std::vector<std::unique_ptr<PortEntry>> ports;
    while (ports.size() < count) {
        auto entry = std::make_unique<PortEntry>();
        entry->ifIndex = 0x04000000UL | (rng() & 0xffffffUL);
        if (!seen.insert(entry->ifIndex).second) continue;
        entry->node.key = &entry->ifIndex;
        ports.push_back(std::move(entry));
    }
    return ports;
}

struct PortTree {
    std::vector<std::unique_ptr<PortEntry>> present = makePorts(2 * kPorts, 8);
    std::vector<std::unique_ptr<PortEntry>> extra;
    QOR_RBT_HANDLE tree = qorRBTreeCreate("dhcpv6SwRbtHandle", _RBTCompareUL, heapAlloc, heapFree);
    PortTree() {
        extra.assign(std::make_move_iterator(present.begin() + kPorts), std::make_move_iterator(present.end()));
        present.resize(kPorts);
        for (auto& entry : present) qorRBTreeInsert(tree, &entry->node);
    }
    ~PortTree() { qorRBTreeDestroy(tree, nullptr); }
    PortTree(const PortTree&) = delete;
    PortTree& operator=(const PortTree&) = delete;
};

// New ports go in batches of 400, taken out again untimed, so the tree stays
// between 4000 and 4400 entries.
void BM_RBTreeInsert(benchmark::State& state) {
    constexpr size_t kBatch = 400;
    PortTree ports;
    const auto removeBatch = [&](size_t from, size_t to) {
        for (size_t i = from; i < to; ++i) qorRBTreeRemove(ports.tree, &ports.extra[i]->ifIndex);
    };
    size_t batchStart = 0;
    size_t next = 0;
    for (auto _ : state) {
        if (next - batchStart == kBatch) {
            state.PauseTiming();
            removeBatch(batchStart, next);
            batchStart = next = next == ports.extra.size() ? 0 : next;
            state.ResumeTiming();
        }
        benchmark::DoNotOptimize(qorRBTreeInsert(ports.tree, &ports.extra[next++]->node));
    }
    removeBatch(batchStart, next);
}
BENCHMARK(BM_RBTreeInsert);

void BM_RBTreeGetExact(benchmark::State& state) {
    PortTree ports;
    std::vector<const unsigned long*> keys;
    for (auto& entry : ports.present) keys.push_back(&entry->ifIndex);
    std::shuffle(keys.begin(), keys.end(), std::mt19937(4));
    size_t next = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(qorRBTreeGetExact(ports.tree, keys[next]));
        if (++next == keys.size()) next = 0;
    }
}
BENCHMARK(BM_RBTreeGetExact);

}  // namespace
