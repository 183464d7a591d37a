// memory.cpp - guarded blocks from pools.
//
// A raw block is laid out as
//
//     MemBlockHeader | user area (size rounded up to 4, zero-filled) | guard word
//
// and the caller holds the address of the user area. The header names the
// guard word and the pool that made the block; the default pool (the heap) is
// recorded as such, so a block always goes back to where it came from. The
// guard word is 0x01020304 while the block lives and 0 once it is freed, which
// is how an overrun and a second free are both caught on the way out.
//
// Counters: blocks in use, the highest value that has ever had (it never
// falls) and all allocations, copied to the process table entry when one is
// set.
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "internal.h"

namespace {

constexpr fh::ModuleTracer trace{"MEM        "};
constexpr size_t kHeaderSize = sizeof(MemBlockHeader);
constexpr size_t kGuardSize = sizeof(uint32_t);
constexpr size_t kLargestRequest = SIZE_MAX - kHeaderSize - kGuardSize - 4;

void *heapAllocate(MemPool *, size_t bytes) {
    void *block = malloc(bytes);
    if (block == nullptr)
        trace(17, errno, -1, "Failed to allocate %ld byte: %s", static_cast<long>(bytes), strerror(errno));
    return block;
}

BOOL heapFree(void *rawBlock) {
    free(rawBlock);
    return TRUE;
}

constexpr MemPoolOperations kHeapOperations = {nullptr, heapAllocate, heapFree, nullptr};
MemPool gDefaultPool = {MEM_POOL_MAGIC, &kHeapOperations};

inline MemBlockHeader *headerOf(const void *user) {
    return reinterpret_cast<MemBlockHeader *>(const_cast<char *>(static_cast<const char *>(user)) - kHeaderSize);
}

inline uint32_t guardAt(const uint32_t *guard) {
    uint32_t word;
    memcpy(&word, guard, sizeof word);
    return word;
}

void countAllocation() {
    LmContext &c = gtLmContext;
    if (++c.iMemUsed > c.iMemMax) c.iMemMax = c.iMemUsed;
    ++c.iMemAllocations;
    if (c.pProcessTableEntry != nullptr) {
        fh::processEntryStore(fh::kEntryMemUsed, c.iMemUsed);
        fh::processEntryStore(fh::kEntryMemMax, c.iMemMax);
        fh::processEntryStore(fh::kEntryMemAllocations, c.iMemAllocations);
    }
}

} // namespace

namespace {

// The raw block of rawSize bytes from pool; pool becomes the pool to record,
// which is the default pool when a pool of the caller's could not give it.
char *poolBlock(size_t rawSize, MemPool *&pool) {
    if (pool != &gDefaultPool && pool->Operations != nullptr && pool->Operations->Allocate != nullptr) {
        if (void *raw = pool->Operations->Allocate(pool, rawSize)) return static_cast<char *>(raw);
    }
    pool = &gDefaultPool;
    return static_cast<char *>(heapAllocate(nullptr, rawSize));
}

inline char *rawBlock(size_t rawSize, MemPool *&pool) {
    return pool == nullptr ? static_cast<char *>(malloc(rawSize)) : poolBlock(rawSize, pool);
}

// Zero fill of a user area; small areas (the common case) take two
// overlapping stores of fixed size rather than a call.
inline void zeroUserArea(char *user, size_t bytes) {
    if (bytes > 64) {
        memset(user, 0, bytes);
    } else if (bytes >= 32) {
        memset(user, 0, 32);
        memset(user + bytes - 32, 0, 32);
    } else if (bytes >= 16) {
        memset(user, 0, 16);
        memset(user + bytes - 16, 0, 16);
    } else if (bytes >= 8) {
        memset(user, 0, 8);
        memset(user + bytes - 8, 0, 8);
    } else if (bytes >= 4) {
        memset(user, 0, 4);
    }
}

inline void *allocate(size_t size, MemPool *pool) {
    countAllocation();
    const size_t rounded = size <= kLargestRequest ? (size + 3) & ~size_t{3} : 0;
    char *raw = rounded != 0 || size == 0 ? rawBlock(kHeaderSize + rounded + kGuardSize, pool) : nullptr;
    if (raw == nullptr) {
        trace(4, 1, -1, "Unable to allocate %ld bytes of memory", static_cast<long>(rounded != 0 ? rounded : size));
        ProcCrash(1);
        return nullptr;
    }
    auto *header = reinterpret_cast<MemBlockHeader *>(raw);
    char *user = raw + kHeaderSize;
    header->Guard = reinterpret_cast<uint32_t *>(user + rounded);
    header->Pool = pool;
    const uint32_t guard = MEM_GUARD_WORD;
    memcpy(header->Guard, &guard, sizeof guard);
    zeroUserArea(user, rounded);
    return user;
}

} // namespace

void *MemAllocateFromPoolNotLogged(size_t size, MemPool *pool) { return allocate(size, pool); }

void *MemAllocateFromPool(size_t size, MemPool *pool) { return allocate(size, pool); }

BOOL MemFreeInternal(void *pointerAddress) {
    auto **slot = static_cast<void **>(pointerAddress);
    if (slot == nullptr || *slot == nullptr) return FALSE;
    LmContext &c = gtLmContext;
    int32_t before = c.iMemUsed--;
    if (c.pProcessTableEntry != nullptr) fh::processEntryStore(fh::kEntryMemUsed, c.iMemUsed);

    MemBlockHeader *header = headerOf(*slot);
    if (header->Guard == nullptr || guardAt(header->Guard) != MEM_GUARD_WORD) {
        trace(6, 1, -1, "Guard band corrupted at '%p' '%p' (%ld)", *slot, static_cast<void *>(header->Guard),
              static_cast<long>(before));
        ProcCrash(1);
        return FALSE;
    }
    memset(header->Guard, 0, kGuardSize);
    MemPool *pool = header->Pool;
    BOOL result = pool == nullptr || pool == &gDefaultPool ? heapFree(header) : pool->Operations->Free(header);
    *slot = nullptr;
    return result;
}

void MemRemoveFromLog(void) {}

BOOL MemCreatePool(MemPool **out, const MemPoolOperations *operations, int32_t size) {
    if (size <= 0 || out == nullptr) {
        trace(1, 0, 2, "MemCreatePool - returning %s", "FALSE");
        return FALSE;
    }
    if (operations == nullptr || operations->Create == nullptr) {
        *out = nullptr;
        return TRUE;
    }
    MemPool *pool = operations->Create(size, 64);
    if (pool == nullptr) {
        trace(1, 0, 2, "MemCreatePool - returning %s", "FALSE");
        return FALSE;
    }
    pool->Magic = MEM_POOL_MAGIC;
    pool->Operations = operations;
    *out = pool;
    trace(1, 0, 2, "MemCreatePool - returning %s", "TRUE");
    return TRUE;
}

BOOL MemReleasePool(MemPool **poolAddress) {
    MemPool *pool = poolAddress != nullptr ? *poolAddress : nullptr;
    BOOL result = FALSE;
    if (pool != nullptr && pool != reinterpret_cast<MemPool *>(~uintptr_t{0}) && pool->Magic == MEM_POOL_MAGIC &&
        pool->Operations != nullptr && pool->Operations->Release != nullptr)
        result = pool->Operations->Release(pool);
    trace(2, 0, 2, "MemReleasePool - returning %s", fh::boolText(result));
    return result;
}

MemPool *MemGetDefaultPoolId(void) { return &gDefaultPool; }

void MemCheck(const void *block) {
    if (block == nullptr) return;
    if (reinterpret_cast<uintptr_t>(block) <= kHeaderSize) {
        trace(14, 1, -1, "Invalid Header pointer '%p'", block);
    } else if (const MemBlockHeader *header = headerOf(block); header->Guard == nullptr) {
        trace(15, 1, -1, "Header corrupted at '%p'", block);
    } else if (guardAt(header->Guard) != MEM_GUARD_WORD) {
        trace(16, 1, -1, "Guard band corrupted at '%p'", block);
    } else {
        return;
    }
    ProcCrash(0);
}

BOOL MemCopy(void *destination, const void *source, size_t count) {
    if (count != 0) memmove(destination, source, count);
    return TRUE;
}

void MemZero(void *block, int32_t count) {
    if (block != nullptr && count > 0) memset(block, 0, static_cast<size_t>(count));
}

void *MemCat(void *first, int32_t firstLength, const void *second, int32_t secondLength) {
    size_t a = firstLength > 0 ? static_cast<size_t>(firstLength) : 0;
    size_t b = secondLength > 0 ? static_cast<size_t>(secondLength) : 0;
    auto *joined = static_cast<char *>(MemAllocateFromPool(a + b, &gDefaultPool));
    if (first != nullptr) memcpy(joined, first, a);
    if (second != nullptr) memcpy(joined + a, second, b);
    MemFreeInternal(&first);
    return joined;
}

int32_t MemUsedCount(void) { return gtLmContext.iMemUsed; }
int32_t MemMax(void) { return gtLmContext.iMemMax; }
int32_t MemAllocations(void) { return gtLmContext.iMemAllocations; }

BOOL MemoryInitialize(void) { return TRUE; }
BOOL MemoryInitializeThread(void) { return TRUE; }

void MemoryReleaseThread(LmContext *context) {
    trace(11, 0, 3, "MemReleaseThread %ld pieces left", static_cast<long>(context->iMemUsed));
}
