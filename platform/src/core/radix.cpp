// radix.cpp -- ordered keyed tables: a crit-bit tree over the entries' keys.
//
// Every internal node records the first bit at which the keys below it
// differ and has exactly two children, so a table of n entries holds n - 1
// internal nodes and any walk from the root reads each key bit at most once.
#include "qor/radix.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <memory>
#include <new>

namespace {

// A key is read as one 9-bit symbol per byte position: a "present" bit, then
// the byte's bits from the most significant. Past a key's end every symbol is
// zero, so a key sorts before each longer key it begins: memcmp order, carried
// over to keys of different lengths.
struct RadixBit {
    uint32_t byteIndex;
    uint8_t rank;  // 0: the present bit; 1..8: bit 7..0 of the byte
};

struct RadixInternal {
    void* child[2];  // an entry (QOR_RADIX_NODE) or another RadixInternal
    RadixBit crit;   // child[0] holds the keys with a 0 at crit, child[1] those with a 1
    uint8_t leafMask;  // bit d set: child[d] is an entry
};
static_assert(sizeof(RadixInternal) <= QOR_RADIX_INTERNAL_SIZE);

struct RadixKey {
    const uint8_t* bytes;
    uint32_t len;
};

struct RadixRef {
    void* p;  // null only for the root of an empty table
    bool leaf;
};

// Where a subtree hangs: a child slot of an internal node, or the root.
struct RadixSlot {
    RadixInternal* parent;  // null: the table's root
    int dir;
};

constexpr size_t RADIX_NAME_MAX = 32;
constexpr uint32_t RADIX_MAX_KEY_BYTES = UINT32_MAX / 8;  // key lengths travel in bits

}  // namespace

struct qorRadixTable {
    char name[RADIX_NAME_MAX];
    uint32_t keyLenBytes;
    QOR_RADIX_ALLOC alloc;
    QOR_RADIX_FREE release;
    RadixRef root;
    uint32_t count;
};

namespace {

// While an entry is in a table its rnInternal holds its key length in bytes:
// keys may be shorter than the table's and the node header has no other room.
RadixKey radixEntryKey(const QOR_RADIX_NODE* entry) {
    return {entry->rnKey, static_cast<uint32_t>(reinterpret_cast<uintptr_t>(entry->rnInternal))};
}

void radixSetEntryKeyLen(QOR_RADIX_NODE* entry, uint32_t len) {
    entry->rnInternal = reinterpret_cast<void*>(static_cast<uintptr_t>(len));
}

int radixBitAt(RadixKey key, RadixBit bit) {
    if (bit.byteIndex >= key.len) return 0;
    if (bit.rank == 0) return 1;
    return (key.bytes[bit.byteIndex] >> (8 - bit.rank)) & 1;
}

bool radixBitBefore(RadixBit a, RadixBit b) {
    return a.byteIndex < b.byteIndex || (a.byteIndex == b.byteIndex && a.rank < b.rank);
}

// The first bit where a and b differ; false when the keys are equal.
bool radixFirstDifference(RadixKey a, RadixKey b, RadixBit* outBit) {
    const uint32_t common = std::min(a.len, b.len);
    const auto [pa, pb] = std::mismatch(a.bytes, a.bytes + common, b.bytes);
    const auto index = static_cast<uint32_t>(pa - a.bytes);
    if (index < common) {
        const auto diff = static_cast<uint8_t>(*pa ^ *pb);
        *outBit = {index, static_cast<uint8_t>(1 + std::countl_zero(diff))};
        return true;
    }
    if (a.len == b.len) return false;
    *outBit = {common, 0};
    return true;
}

bool radixKeysEqual(RadixKey a, RadixKey b) {
    return a.len == b.len && std::memcmp(a.bytes, b.bytes, a.len) == 0;
}

RadixRef radixChild(const RadixInternal* node, int dir) {
    return {node->child[dir], ((node->leafMask >> dir) & 1) != 0};
}

void radixSetChild(RadixInternal* node, int dir, RadixRef ref) {
    node->child[dir] = ref.p;
    const auto bit = static_cast<uint8_t>(1u << dir);
    node->leafMask = static_cast<uint8_t>(ref.leaf ? (node->leafMask | bit) : (node->leafMask & ~bit));
}

void radixSetSlot(qorRadixTable* table, RadixSlot slot, RadixRef ref) {
    if (slot.parent)
        radixSetChild(slot.parent, slot.dir, ref);
    else
        table->root = ref;
}

RadixInternal* radixInternal(RadixRef ref) { return static_cast<RadixInternal*>(ref.p); }
QOR_RADIX_NODE* radixEntry(RadixRef ref) { return static_cast<QOR_RADIX_NODE*>(ref.p); }

QOR_RADIX_NODE* radixLeftmost(RadixRef ref) {
    if (!ref.p) return nullptr;
    while (!ref.leaf) ref = radixChild(radixInternal(ref), 0);
    return radixEntry(ref);
}

// The entry reached by following the key's bits: the only one that can equal
// it, and one sharing its longest common prefix with any entry.
QOR_RADIX_NODE* radixBestEntry(const qorRadixTable* table, RadixKey key) {
    RadixRef ref = table->root;
    if (!ref.p) return nullptr;
    while (!ref.leaf) {
        const RadixInternal* node = radixInternal(ref);
        ref = radixChild(node, radixBitAt(key, node->crit));
    }
    return radixEntry(ref);
}

// A key length in bits the table accepts: whole bytes, at most its own key.
bool radixKeyLenOk(const qorRadixTable* table, uint32_t keyLenBits) {
    return keyLenBits % 8 == 0 && keyLenBits / 8 <= table->keyLenBytes;
}

// The non-empty key a lookup names, or false when the call must fail.
bool radixLookupKey(const qorRadixTable* table, const void* key, uint32_t keyLenBits, RadixKey* outKey) {
    if (!table || !key || keyLenBits == 0 || !radixKeyLenOk(table, keyLenBits)) return false;
    *outKey = {static_cast<const uint8_t*>(key), keyLenBits / 8};
    return true;
}

// Hangs `node` (crit already set, child[dir] already the new entry) where the
// walk along `key` first meets a subtree whose keys branch after node->crit.
void radixLink(qorRadixTable* table, RadixKey key, RadixInternal* node, int dir) {
    RadixSlot slot{nullptr, 0};
    RadixRef ref = table->root;
    while (!ref.leaf) {
        RadixInternal* below = radixInternal(ref);
        if (radixBitBefore(node->crit, below->crit)) break;
        slot = {below, radixBitAt(key, below->crit)};
        ref = radixChild(below, slot.dir);
    }
    radixSetChild(node, 1 - dir, ref);
    radixSetSlot(table, slot, {node, false});
}

// Frees every internal node without recursion or extra memory: rotating each
// left internal child up turns the tree into a right-leaning chain.
void radixFreeInternals(qorRadixTable* table) {
    RadixRef ref = table->root;
    while (ref.p && !ref.leaf) {
        RadixInternal* node = radixInternal(ref);
        const RadixRef left = radixChild(node, 0);
        if (!left.leaf) {
            RadixInternal* up = radixInternal(left);
            radixSetChild(node, 0, radixChild(up, 1));
            radixSetChild(up, 1, ref);
            ref = left;
        } else {
            ref = radixChild(node, 1);
            table->release(node);
        }
    }
    table->root = {nullptr, true};
}

}  // namespace

QOR_RADIX_HANDLE qorRadixCreate(const char* name, uint32_t keyLenBytes, QOR_RADIX_ALLOC alloc,
                                QOR_RADIX_FREE release) {
    if (keyLenBytes == 0 || keyLenBytes > RADIX_MAX_KEY_BYTES || !alloc || !release) return nullptr;
    std::unique_ptr<qorRadixTable> table(new (std::nothrow) qorRadixTable{});
    if (!table) return nullptr;
    if (name) {
        std::strncpy(table->name, name, RADIX_NAME_MAX - 1);
        table->name[RADIX_NAME_MAX - 1] = '\0';
    }
    table->keyLenBytes = keyLenBytes;
    table->alloc = alloc;
    table->release = release;
    table->root = {nullptr, true};
    return table.release();
}

int qorRadixInsert(QOR_RADIX_HANDLE table, QOR_RADIX_NODE* entry, uint32_t keyLenBits) {
    if (!entry) return -1;
    RadixKey key;
    if (!radixLookupKey(table, entry->rnKey, keyLenBits, &key)) return -1;
    if (!table->root.p) {
        radixSetEntryKeyLen(entry, key.len);
        table->root = {entry, true};
        table->count = 1;
        return 0;
    }
    RadixBit crit;
    if (!radixFirstDifference(key, radixEntryKey(radixBestEntry(table, key)), &crit)) return -1;
    auto* node = static_cast<RadixInternal*>(table->alloc(sizeof(RadixInternal)));
    if (!node) return -1;
    *node = RadixInternal{};
    node->crit = crit;
    const int dir = radixBitAt(key, crit);
    radixSetEntryKeyLen(entry, key.len);
    radixSetChild(node, dir, {entry, true});
    radixLink(table, key, node, dir);
    ++table->count;
    return 0;
}

QOR_RADIX_NODE* qorRadixGetExact(QOR_RADIX_HANDLE table, const void* key, uint32_t keyLenBits) {
    RadixKey wanted;
    if (!radixLookupKey(table, key, keyLenBits, &wanted)) return nullptr;
    QOR_RADIX_NODE* best = radixBestEntry(table, wanted);
    return best && radixKeysEqual(wanted, radixEntryKey(best)) ? best : nullptr;
}

QOR_RADIX_NODE* qorRadixGetNext(QOR_RADIX_HANDLE table, const void* key, uint32_t keyLenBits) {
    if (!table) return nullptr;
    // Every entry's key is non-empty, so all of them follow the empty key.
    if (!key || keyLenBits == 0) return radixLeftmost(table->root);
    RadixKey from;
    if (!radixLookupKey(table, key, keyLenBits, &from)) return nullptr;
    QOR_RADIX_NODE* best = radixBestEntry(table, from);
    if (!best) return nullptr;
    RadixBit crit;
    const bool absent = radixFirstDifference(from, radixEntryKey(best), &crit);
    // Walk along the key; the last turn to child[0] leaves the following keys
    // in that node's child[1].
    const RadixInternal* lastLeftTurn = nullptr;
    RadixRef ref = table->root;
    while (!ref.leaf) {
        const RadixInternal* node = radixInternal(ref);
        if (absent && radixBitBefore(crit, node->crit)) break;
        const int dir = radixBitAt(from, node->crit);
        if (dir == 0) lastLeftTurn = node;
        ref = radixChild(node, dir);
    }
    // All keys below `ref` share the key's bits before crit and differ at crit.
    if (absent && radixBitAt(from, crit) == 0) return radixLeftmost(ref);
    return lastLeftTurn ? radixLeftmost(radixChild(lastLeftTurn, 1)) : nullptr;
}

QOR_RADIX_NODE* qorRadixRemove(QOR_RADIX_HANDLE table, const void* key, uint32_t keyLenBits) {
    RadixKey wanted;
    if (!radixLookupKey(table, key, keyLenBits, &wanted) || !table->root.p) return nullptr;
    RadixSlot parentSlot{nullptr, 0};
    RadixInternal* parent = nullptr;
    int dir = 0;
    RadixRef ref = table->root;
    while (!ref.leaf) {
        if (parent) parentSlot = {parent, dir};
        parent = radixInternal(ref);
        dir = radixBitAt(wanted, parent->crit);
        ref = radixChild(parent, dir);
    }
    QOR_RADIX_NODE* entry = radixEntry(ref);
    if (!radixKeysEqual(wanted, radixEntryKey(entry))) return nullptr;
    if (parent) {
        radixSetSlot(table, parentSlot, radixChild(parent, 1 - dir));
        table->release(parent);
    } else {
        table->root = {nullptr, true};
    }
    entry->rnInternal = nullptr;
    --table->count;
    return entry;
}

uint32_t qorRadixCount(QOR_RADIX_HANDLE table) { return table ? table->count : 0; }

int qorRadixDestroy(QOR_RADIX_HANDLE table) {
    if (!table) return -1;
    std::unique_ptr<qorRadixTable> owned(table);
    radixFreeInternals(owned.get());
    return 0;
}
