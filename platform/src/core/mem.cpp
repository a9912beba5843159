// mem.cpp -- memory partitions, fixed-block pools, the variable-block
// allocator and the accounted system allocator.
//
// A pool is a set of chunks; each chunk holds slots of one size, a slot being
// a small header followed by the block. Free slots sit on a free list, so
// taking and returning a block is O(1). Every block is found from its
// address through an ordered index of chunk ranges before its header is
// read, so a free of a foreign pointer never touches memory that is not a
// slot. A variable partition is one internal pool per block size.
#include "qor/mem.h"

#include <algorithm>
#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <set>
#include <string_view>
#include <unordered_map>

#include "qor/task.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/asan_interface.h>
// Free blocks are poisoned so that a use after free of a pool block is caught
// by the address sanitizer just like one of the system heap.
#define QOR_MEM_POISON(p, n) ASAN_POISON_MEMORY_REGION((p), (n))
#define QOR_MEM_UNPOISON(p, n) ASAN_UNPOISON_MEMORY_REGION((p), (n))
#else
#define QOR_MEM_POISON(p, n) ((void)(p), (void)(n))
#define QOR_MEM_UNPOISON(p, n) ((void)(p), (void)(n))
#endif

namespace {

enum class BlockState : uint8_t { Free = 0, Live = 1 };
enum class BlockKind : uint8_t { Fixed = 0, Var = 1 };

struct BlockHeader {
    uint32_t poolId;  // accounting id: the fixed pool, or the variable block's module
    uint32_t index;   // slot number inside its pool
    uint16_t generation;
    BlockState state;
    BlockKind kind;
    const std::string* unit;  // interned
    int line;
    size_t size;  // bytes asked for
};

constexpr size_t kAlign = alignof(std::max_align_t);
constexpr size_t roundUp(size_t n, size_t to) { return (n + to - 1) / to * to; }
constexpr size_t kHeaderSize = roundUp(sizeof(BlockHeader), kAlign);

// A handle is generation << 20 | slot index. The generation (1..4095) moves
// on at every free, so a handle kept past a free no longer resolves.
constexpr unsigned kHandleIndexBits = 20;
constexpr uint32_t kMaxSlots = 1u << kHandleIndexBits;
constexpr uint16_t kMaxGeneration = 4095;

// Chunks grow with the pool, up to about 256 KiB (or 8 blocks) each.
constexpr size_t kMinChunkBlocks = 8;
constexpr size_t kMaxChunkBytes = 256 * 1024;

struct Chunk {
    std::unique_ptr<std::byte[]> mem;
    size_t bytes;
};

struct Pool {
    std::string name;
    uint32_t id = 0;
    uint32_t blockSize = 0;
    size_t slotSize = 0;
    BlockKind kind = BlockKind::Fixed;
    std::vector<Chunk> chunks;
    std::vector<BlockHeader*> slots;
    std::vector<uint32_t> freeList;
    size_t live = 0;
};

struct ChunkRef {
    Pool* pool;
    size_t bytes;
};

struct FixedPart {
    uint32_t lastPoolId;
    int instance;
};

struct VarPart {
    int instance;
    std::vector<std::unique_ptr<Pool>> classes;  // ascending block size
};

struct SysBlock {
    const std::string* unit;
    int line;
    size_t size;
};

struct MemState {
    std::mutex mu;
    std::map<uint32_t, FixedPart> fixedParts;  // by module id
    std::map<uint32_t, VarPart> varParts;      // by module id
    std::unordered_map<uint32_t, std::unique_ptr<Pool>> pools;
    std::map<uintptr_t, ChunkRef> chunkIndex;  // chunk start -> chunk
    std::unordered_map<void*, SysBlock> sysBlocks;
    std::unordered_map<uint32_t, int> failNext;
    std::set<std::string, std::less<>> units;
    uint64_t refusedFrees = 0;
    uint16_t nextGeneration = 1;
};

MemState& mem() {
    // Never destroyed: detached tasks may still free blocks while the process
    // exits.
    static MemState* s = new MemState;
    return *s;
}

const std::string* internUnit(MemState& s, const char* unit) {
    const std::string_view name = unit ? unit : "?";
    auto it = s.units.find(name);
    if (it == s.units.end()) it = s.units.emplace(name).first;
    return &*it;
}

// True (and one failure used up) when a test asked this id to fail.
bool takeInjectedFailure(MemState& s, uint32_t id) {
    auto it = s.failNext.find(id);
    if (it == s.failNext.end() || it->second <= 0) return false;
    if (--it->second == 0) s.failNext.erase(it);
    return true;
}

std::byte* payloadOf(BlockHeader* h) { return reinterpret_cast<std::byte*>(h) + kHeaderSize; }

std::unique_ptr<Pool> makePool(const char* name, uint32_t id, uint32_t blockSize, BlockKind kind) {
    auto pool = std::make_unique<Pool>();
    pool->name = name ? name : "";
    pool->id = id;
    pool->blockSize = blockSize;
    pool->slotSize = kHeaderSize + roundUp(blockSize, kAlign);
    pool->kind = kind;
    return pool;
}

size_t chunkBlocks(const Pool& pool) {
    const size_t cap = std::max(kMinChunkBlocks, kMaxChunkBytes / pool.slotSize);
    return std::clamp(pool.slots.size(), kMinChunkBlocks, cap);
}

bool poolGrow(MemState& s, Pool& pool) {
    size_t n = chunkBlocks(pool);
    if (pool.slots.size() >= kMaxSlots) return false;
    n = std::min<size_t>(n, kMaxSlots - pool.slots.size());
    Chunk chunk{std::make_unique_for_overwrite<std::byte[]>(n * pool.slotSize), n * pool.slotSize};
    std::byte* base = chunk.mem.get();
    for (size_t i = 0; i < n; ++i) {
        auto* h = new (base + i * pool.slotSize) BlockHeader{};
        h->poolId = pool.id;
        h->index = uint32_t(pool.slots.size());
        h->generation = s.nextGeneration;
        s.nextGeneration = uint16_t(s.nextGeneration % kMaxGeneration + 1);
        h->kind = pool.kind;
        QOR_MEM_POISON(payloadOf(h), pool.slotSize - kHeaderSize);
        pool.slots.push_back(h);
    }
    // Lowest index on top, so that a fresh pool hands blocks out in order.
    for (size_t i = 0; i < n; ++i) pool.freeList.push_back(uint32_t(pool.slots.size() - 1 - i));
    s.chunkIndex.emplace(reinterpret_cast<uintptr_t>(base), ChunkRef{&pool, chunk.bytes});
    pool.chunks.push_back(std::move(chunk));
    return true;
}

void* poolTake(MemState& s, Pool& pool, const char* unit, int line, size_t size) {
    if (pool.freeList.empty() && !poolGrow(s, pool)) return nullptr;
    BlockHeader* h = pool.slots[pool.freeList.back()];
    pool.freeList.pop_back();
    h->state = BlockState::Live;
    h->unit = internUnit(s, unit);
    h->line = line;
    h->size = size;
    ++pool.live;
    QOR_MEM_UNPOISON(payloadOf(h), pool.slotSize - kHeaderSize);
    return payloadOf(h);
}

void poolGive(Pool& pool, BlockHeader* h) {
    h->state = BlockState::Free;
    h->generation = uint16_t(h->generation % kMaxGeneration + 1);
    --pool.live;
    pool.freeList.push_back(h->index);
    QOR_MEM_POISON(payloadOf(h), pool.slotSize - kHeaderSize);
}

void poolRelease(MemState& s, Pool& pool) {
    for (Chunk& c : pool.chunks) {
        QOR_MEM_UNPOISON(c.mem.get(), c.bytes);
        s.chunkIndex.erase(reinterpret_cast<uintptr_t>(c.mem.get()));
    }
    pool.chunks.clear();
}

struct Located {
    BlockHeader* header = nullptr;
    Pool* pool = nullptr;
};

// The slot whose block starts exactly at p; nothing when p is not the start
// of a block of any pool. Only the chunk index is read until p is known to be
// a slot.
Located locateBlock(MemState& s, const void* p) {
    const auto addr = reinterpret_cast<uintptr_t>(p);
    auto it = s.chunkIndex.upper_bound(addr);
    if (it == s.chunkIndex.begin()) return {};
    --it;
    const uintptr_t offset = addr - it->first;
    Pool* pool = it->second.pool;
    if (offset >= it->second.bytes || offset % pool->slotSize != kHeaderSize) return {};
    return {reinterpret_cast<BlockHeader*>(it->first + offset - kHeaderSize), pool};
}

Pool* findPool(MemState& s, uint32_t poolId) {
    auto it = s.pools.find(poolId);
    return it == s.pools.end() ? nullptr : it->second.get();
}

// The live block at p of the given kind; nothing when it is not one.
Located liveBlock(MemState& s, const void* p, BlockKind kind) {
    const Located at = p ? locateBlock(s, p) : Located{};
    if (!at.header || at.header->state != BlockState::Live || at.header->kind != kind) return {};
    return at;
}

bool overlapsFixedPart(const MemState& s, uint32_t first, uint32_t last) {
    for (const auto& [module, part] : s.fixedParts)
        if (first <= part.lastPoolId && module <= last) return true;
    return false;
}

bool hasFixedPartFor(const MemState& s, uint32_t poolId) {
    auto it = s.fixedParts.upper_bound(poolId);
    if (it == s.fixedParts.begin()) return false;
    --it;
    return poolId <= it->second.lastPoolId;
}

Pool* varClassFor(VarPart& part, uint64_t bytes) {
    for (auto& cls : part.classes)
        if (cls->blockSize >= bytes) return cls.get();
    return nullptr;
}

int refuseFree(MemState& s) {
    ++s.refusedFrees;
    return ERROR;
}

void appendPoolBlocks(const Pool& pool, std::vector<QorMemBlockInfo>& out) {
    for (const BlockHeader* h : pool.slots)
        if (h->state == BlockState::Live) out.push_back({h->poolId, *h->unit, h->line, h->size});
}

}  // namespace

int qor_memPartFixedInit(uint32_t moduleId, uint32_t lastPoolId, int instance) {
    MemState& s = mem();
    std::lock_guard lock(s.mu);
    if (moduleId == QOR_MEM_SYSTEM || lastPoolId < moduleId) return ERROR;
    if (overlapsFixedPart(s, moduleId, lastPoolId)) return ERROR;
    s.fixedParts.emplace(moduleId, FixedPart{lastPoolId, instance});
    return OK;
}

int qorMC_qor_memPartVarInit(uint32_t moduleId, int instance, const uint32_t* sizes, int nSizes) {
    if (moduleId == QOR_MEM_SYSTEM || !sizes || nSizes <= 0) return ERROR;
    std::vector<uint32_t> sorted(sizes, sizes + nSizes);
    std::sort(sorted.begin(), sorted.end());
    sorted.erase(std::unique(sorted.begin(), sorted.end()), sorted.end());
    if (sorted.front() == 0) return ERROR;
    MemState& s = mem();
    std::lock_guard lock(s.mu);
    if (s.varParts.count(moduleId)) return ERROR;
    VarPart part{instance, {}};
    for (uint32_t size : sorted)
        part.classes.push_back(makePool("", moduleId, size, BlockKind::Var));
    s.varParts.emplace(moduleId, std::move(part));
    return OK;
}

int qorMC_M_memPoolCreate(const char* name, uint32_t poolId, int /*instance*/, uint32_t blockSize) {
    MemState& s = mem();
    std::lock_guard lock(s.mu);
    if (blockSize == 0 || !hasFixedPartFor(s, poolId) || s.pools.count(poolId)) return ERROR;
    if (takeInjectedFailure(s, poolId)) return ERROR;
    s.pools.emplace(poolId, makePool(name, poolId, blockSize, BlockKind::Fixed));
    return OK;
}

int qorMC_M_memPoolDelete(uint32_t poolId) {
    MemState& s = mem();
    std::lock_guard lock(s.mu);
    auto it = s.pools.find(poolId);
    if (it == s.pools.end()) return ERROR;
    poolRelease(s, *it->second);
    s.pools.erase(it);
    return OK;
}

void* qorMC_M_memBlockAlloc(const char* unit, int line, uint32_t poolId) {
    MemState& s = mem();
    std::lock_guard lock(s.mu);
    Pool* pool = findPool(s, poolId);
    if (!pool || takeInjectedFailure(s, poolId)) return nullptr;
    return poolTake(s, *pool, unit, line, pool->blockSize);
}

int qorMC_M_memBlockFree(const char* /*unit*/, int /*line*/, uint32_t poolId, void* block) {
    if (!block) return ERROR;  // nothing was freed, nothing is at risk: not counted
    MemState& s = mem();
    std::lock_guard lock(s.mu);
    const Located at = liveBlock(s, block, BlockKind::Fixed);
    if (!at.header || at.header->poolId != poolId) return refuseFree(s);
    poolGive(*at.pool, at.header);
    return OK;
}

void* qorMC_M_memBlockVarAlloc(const char* unit, int line, int count, uint32_t size,
                               uint32_t memType, int /*flags*/, int /*instance*/) {
    if (count <= 0) return nullptr;
    const uint64_t bytes = uint64_t(count) * size;  // count blocks side by side
    MemState& s = mem();
    std::lock_guard lock(s.mu);
    auto part = s.varParts.find(memType);
    if (part == s.varParts.end() || takeInjectedFailure(s, memType)) return nullptr;
    Pool* cls = varClassFor(part->second, bytes);
    return cls ? poolTake(s, *cls, unit, line, size_t(bytes)) : nullptr;
}

int qorMC_M_memBlockVarFree(const char* /*unit*/, int /*line*/, void* block) {
    if (!block) return ERROR;
    MemState& s = mem();
    std::lock_guard lock(s.mu);
    const Located at = liveBlock(s, block, BlockKind::Var);
    if (!at.header) return refuseFree(s);
    poolGive(*at.pool, at.header);
    return OK;
}

void* qorMC_M_sysMalloc(const char* unit, int line, size_t size) {
    MemState& s = mem();
    std::lock_guard lock(s.mu);
    if (takeInjectedFailure(s, QOR_MEM_SYSTEM)) return nullptr;
    void* p = std::malloc(size ? size : 1);
    if (p) s.sysBlocks[p] = SysBlock{internUnit(s, unit), line, size};
    return p;
}

int qorMC_M_sysFree(const char* /*unit*/, int /*line*/, void* p) {
    if (!p) return OK;  // as free(NULL)
    MemState& s = mem();
    std::lock_guard lock(s.mu);
    auto it = s.sysBlocks.find(p);
    if (it == s.sysBlocks.end()) return refuseFree(s);
    s.sysBlocks.erase(it);
    std::free(p);
    return OK;
}

uint32_t qorMemBlockHandle(uint32_t poolId, const void* block) {
    MemState& s = mem();
    std::lock_guard lock(s.mu);
    const BlockHeader* h = liveBlock(s, block, BlockKind::Fixed).header;
    if (!h || h->poolId != poolId) return 0;
    return uint32_t(h->generation) << kHandleIndexBits | h->index;
}

void* qorMemBlockFromHandle(uint32_t poolId, uint32_t handle) {
    MemState& s = mem();
    std::lock_guard lock(s.mu);
    Pool* pool = findPool(s, poolId);
    const uint32_t index = handle & (kMaxSlots - 1);
    if (!pool || index >= pool->slots.size()) return nullptr;
    BlockHeader* h = pool->slots[index];
    if (h->state != BlockState::Live || uint32_t(h->generation) != handle >> kHandleIndexBits)
        return nullptr;
    return payloadOf(h);
}

size_t qorMemBlockCapacity(const void* block) {
    MemState& s = mem();
    std::lock_guard lock(s.mu);
    const Located at = block ? locateBlock(s, block) : Located{};
    return at.header && at.header->state == BlockState::Live ? at.pool->blockSize : 0;
}

std::vector<QorMemBlockInfo> qorMemLiveBlocks() {
    MemState& s = mem();
    std::lock_guard lock(s.mu);
    std::vector<QorMemBlockInfo> out;
    for (const auto& [id, sb] : s.sysBlocks)
        out.push_back({QOR_MEM_SYSTEM, *sb.unit, sb.line, sb.size});
    for (const auto& [id, pool] : s.pools) appendPoolBlocks(*pool, out);
    for (const auto& [module, part] : s.varParts)
        for (const auto& cls : part.classes) appendPoolBlocks(*cls, out);
    return out;
}

size_t qorMemLiveCount(uint32_t poolId) {
    MemState& s = mem();
    std::lock_guard lock(s.mu);
    if (poolId == QOR_MEM_SYSTEM) return s.sysBlocks.size();
    const Pool* pool = findPool(s, poolId);
    return pool ? pool->live : 0;
}

size_t qorMemVarLiveCount(uint32_t moduleId) {
    MemState& s = mem();
    std::lock_guard lock(s.mu);
    auto part = s.varParts.find(moduleId);
    if (part == s.varParts.end()) return 0;
    size_t n = 0;
    for (const auto& cls : part->second.classes) n += cls->live;
    return n;
}

uint64_t qorMemDoubleFreeCount() {
    MemState& s = mem();
    std::lock_guard lock(s.mu);
    return s.refusedFrees;
}

void qorMemFailNextAlloc(uint32_t poolId, int count) {
    MemState& s = mem();
    std::lock_guard lock(s.mu);
    if (count > 0)
        s.failNext[poolId] = count;
    else
        s.failNext.erase(poolId);
}

void qorMemReset() {
    MemState& s = mem();
    std::lock_guard lock(s.mu);
    for (auto& [id, pool] : s.pools) poolRelease(s, *pool);
    for (auto& [module, part] : s.varParts)
        for (auto& cls : part.classes) poolRelease(s, *cls);
    for (auto& [p, sb] : s.sysBlocks) std::free(p);
    s.pools.clear();
    s.varParts.clear();
    s.fixedParts.clear();
    s.sysBlocks.clear();
    s.failNext.clear();
    s.refusedFrees = 0;
    // Unit names stay interned: there are a handful, one per source unit.
}
