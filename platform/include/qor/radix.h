// qor/radix.h -- ordered keyed tables ("radix tables").
//
// A table orders its entries by the bytes of their keys (memcmp order) and
// answers exact lookups, ordered walks and removals in O(key length). Tables
// are intrusive: each entry embeds a QOR_RADIX_NODE at its start, whose
// rnKey points at the entry's own key bytes. The table never copies keys or
// entries; its internal nodes come from the allocation callbacks given at
// creation, never larger than QOR_RADIX_INTERNAL_SIZE bytes.
//
// Key lengths are given in bits and must be whole bytes, at most the table's
// key length. An exact lookup with a zero-length (empty) key returns null.
// qorRadixGetNext with a null key gives the first entry; with a key, the
// entry whose key follows it (the key need not be in the table).
//
// Each entry keeps the key length it was inserted with; a key that begins a
// longer one sorts before it, and a lookup finds an entry only with its own
// length. An empty key is never stored. While an entry is in a table, its
// rnInternal belongs to the table. The table record itself comes from the
// heap: a table's callbacks serve only its internal nodes (one fewer than its
// entries), so qorRadixDestroy returns every block they handed out.
#pragma once

#include <cstddef>
#include <cstdint>

struct QOR_RADIX_NODE {
    void* rnInternal;        // the table's own link; not for the caller
    const uint8_t* rnKey;    // points at the entry's key
};

struct qorRadixTable;
using QOR_RADIX_HANDLE = qorRadixTable*;
using QOR_RADIX_ALLOC = void* (*)(size_t size);
using QOR_RADIX_FREE = void (*)(void* block);

constexpr size_t QOR_RADIX_INTERNAL_SIZE = 32;

// Null on failure (bad key length, allocation failure).
QOR_RADIX_HANDLE qorRadixCreate(const char* name, uint32_t keyLenBytes, QOR_RADIX_ALLOC alloc,
                                QOR_RADIX_FREE release);
// 0, or -1 when an entry with the same key exists or an internal node cannot
// be allocated (the table is then unchanged).
int qorRadixInsert(QOR_RADIX_HANDLE table, QOR_RADIX_NODE* entry, uint32_t keyLenBits);
QOR_RADIX_NODE* qorRadixGetExact(QOR_RADIX_HANDLE table, const void* key, uint32_t keyLenBits);
QOR_RADIX_NODE* qorRadixGetNext(QOR_RADIX_HANDLE table, const void* key, uint32_t keyLenBits);
// Removes the entry with that key and returns it (the caller frees it), or null.
QOR_RADIX_NODE* qorRadixRemove(QOR_RADIX_HANDLE table, const void* key, uint32_t keyLenBits);
uint32_t qorRadixCount(QOR_RADIX_HANDLE table);
// Frees the table's internal nodes; entries are the caller's. 0 / -1.
int qorRadixDestroy(QOR_RADIX_HANDLE table);
