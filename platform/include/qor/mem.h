// qor/mem.h -- memory partitions, pools and allocators with accounting.
//
// A module (e.g. 0xC30000) owns a fixed-block partition, in which pools of
// one block size each are created under identifiers from the module's range,
// and optionally a variable-block partition with a list of block sizes. The
// system allocator serves everything else. Every allocation names the source
// unit and line that made it; every live block is accounted, so a test can
// list what is outstanding, prove that nothing leaked, and see a double free
// (refused, counted, never corrupting the pool). A test can make the next
// allocation of a pool (or of the system allocator, pool 0) fail.
//
// Pool blocks also have a 32-bit handle, non-zero, stable while the block is
// live: records that must travel through 4-byte channels (the timer pipe)
// carry the handle, never the address.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

constexpr uint32_t QOR_MEM_SYSTEM = 0;  // "pool" identifier of the system allocator

// Fixed-block partition of a module: pools may be made with identifiers from
// moduleId to lastPoolId. OK, or ERROR (bad range, already made).
int qor_memPartFixedInit(uint32_t moduleId, uint32_t lastPoolId, int instance);
// Variable-block partition of a module with nSizes block sizes (any order).
int qorMC_qor_memPartVarInit(uint32_t moduleId, int instance, const uint32_t* sizes, int nSizes);
// A pool of blockSize-byte blocks. OK, or ERROR (no partition for it, id taken,
// size 0, or an injected failure).
int qorMC_M_memPoolCreate(const char* name, uint32_t poolId, int instance, uint32_t blockSize);
// Frees a pool; its live blocks are reported as leaked by qorMemLiveBlocks
// until then, and are released with it. OK or ERROR.
int qorMC_M_memPoolDelete(uint32_t poolId);

void* qorMC_M_memBlockAlloc(const char* unit, int line, uint32_t poolId);
// The block frees return ERROR for a block that is not live in that pool (a
// double free, a foreign pointer), counted by qorMemDoubleFreeCount; a null
// block is ERROR but not counted. qorMC_M_sysFree(null) is OK, as free().
int qorMC_M_memBlockFree(const char* unit, int line, uint32_t poolId, void* block);
// count blocks of at least `size` bytes each, side by side (count * size
// bytes), from the variable partition of module memType: the smallest block
// size that holds them is used. Null when nothing fits or count < 1.
void* qorMC_M_memBlockVarAlloc(const char* unit, int line, int count, uint32_t size,
                               uint32_t memType, int flags, int instance);
int qorMC_M_memBlockVarFree(const char* unit, int line, void* block);
void* qorMC_M_sysMalloc(const char* unit, int line, size_t size);
int qorMC_M_sysFree(const char* unit, int line, void* p);

uint32_t qorMemBlockHandle(uint32_t poolId, const void* block);   // 0 when not a live block
void* qorMemBlockFromHandle(uint32_t poolId, uint32_t handle);     // null when not live
// Bytes usable in a live pool or variable block: the pool's block size, or the
// variable block size chosen for it. 0 when not a live block.
size_t qorMemBlockCapacity(const void* block);

// Accounting.
struct QorMemBlockInfo {
    uint32_t poolId;     // QOR_MEM_SYSTEM, a pool id, or the module id of a variable block
    std::string unit;    // source unit that allocated it
    int line;
    size_t size;
};
std::vector<QorMemBlockInfo> qorMemLiveBlocks();
size_t qorMemLiveCount(uint32_t poolId);           // live blocks of one pool (or system)
size_t qorMemVarLiveCount(uint32_t moduleId);      // live variable blocks of a module
uint64_t qorMemDoubleFreeCount();                  // frees refused since start (or reset)
// The next `count` allocations of the pool, of the system allocator
// (QOR_MEM_SYSTEM) or of the module's variable partition fail; a pool whose
// id is also a module id (0xC30000) shares the count with the module's
// variable blocks. A pool creation under that id uses one up as well.
// count 0 clears it.
void qorMemFailNextAlloc(uint32_t poolId, int count = 1);
// Forgets every partition, pool and block (tests, between cases).
void qorMemReset();
