// qor/rbtree.h -- red-black trees.
//
// A balanced binary tree ordered by a comparison function, with O(log n)
// insert, exact lookup and removal. Intrusive like the radix tables: each
// entry embeds a QOR_RBT_NODE whose key pointer points at the entry's key;
// the tree never allocates for entries. Tree memory (the tree record) comes
// from the callbacks given at creation.
#pragma once

#include <cstddef>
#include <cstdint>

struct QOR_RBT_NODE {
    QOR_RBT_NODE* left;
    QOR_RBT_NODE* right;
    QOR_RBT_NODE* parent;
    const void* key;
    int color;
};

struct qorRBTree;
using QOR_RBT_HANDLE = qorRBTree*;
// <0, 0, >0 like memcmp
using QOR_RBT_COMPARE = int (*)(const void* a, const void* b);
using QOR_RBT_ALLOC = void* (*)(size_t size);
using QOR_RBT_FREE = void (*)(void* block);

// Compares two keys as the switch OS's unsigned long: 32-bit unsigned values
// in host order (the switch-port tree's keys are 4-byte ifIndex blocks).
int _RBTCompareUL(const void* a, const void* b);

QOR_RBT_HANDLE qorRBTreeCreate(const char* name, QOR_RBT_COMPARE compare, QOR_RBT_ALLOC alloc,
                               QOR_RBT_FREE release);
// 0, or -1 when the key is present already.
int qorRBTreeInsert(QOR_RBT_HANDLE tree, QOR_RBT_NODE* entry);
QOR_RBT_NODE* qorRBTreeGetExact(QOR_RBT_HANDLE tree, const void* key);
// First entry (key null) or the entry following `key`; null at the end.
QOR_RBT_NODE* qorRBTreeGetNext(QOR_RBT_HANDLE tree, const void* key);
// Removes and returns the entry with that key, or null.
QOR_RBT_NODE* qorRBTreeRemove(QOR_RBT_HANDLE tree, const void* key);
uint32_t qorRBTreeCount(QOR_RBT_HANDLE tree);
// Calls `release_entry` (if not null) for every entry, then frees the tree. 0 / -1.
int qorRBTreeDestroy(QOR_RBT_HANDLE tree, void (*release_entry)(QOR_RBT_NODE*));
