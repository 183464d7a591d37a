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
// Heap blocks with a user area of up to 256 bytes are made in sixteen size
// classes (16, 32, ... 256 bytes of user area) and, once freed, are kept in a
// small cache per thread and class (up to 16 KiB of user area each, so at
// most 256 KiB a thread) for the next block of that class; a cached block
// keeps its cleared guard word, so a second free of it is still caught. A thread's cache goes back to the heap when the
// thread ends. Builds with AddressSanitizer leave the cache out, so that the
// sanitizer sees every free.
//
// Counters: blocks in use, the highest value that has ever had (it never
// falls) and all allocations, copied to the process table entry when one is
// set; and the pool bytes of the blocks in use (headers, user areas as
// rounded, guard words) with their highest value since a reset, by which
// the readers of bytes from elsewhere are held to their bound.
#include "core/memory.h"

#include <pthread.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "core/context.h"
#include "memblock.h"
#include "sizes.h"
#include "tracer.h"

namespace {

constexpr fh::ModuleTracer trace{"MEM        "};
using fh::kBlockHeaderBytes;

void *heapAllocate(MemPool *, size_t bytes) {
    void *block = malloc(bytes);
    if (block == nullptr)
        trace(17, errno, -1, "Failed to allocate %ld byte: %s", static_cast<long>(bytes), strerror(errno));
    return block;
}

pthread_key_t gCacheKey;
pthread_once_t gCacheKeyOnce = PTHREAD_ONCE_INIT;

void emptyCache(void *cache) {
    auto &c = *static_cast<fh::BlockCache *>(cache);
    for (size_t k = 0; k < fh::kClassCount; ++k) {
        for (void *block = c.head[k]; block != nullptr;) {
            void *next = *static_cast<void **>(block);
            free(block);
            block = next;
        }
        c.head[k] = nullptr;
        c.count[k] = 0;
    }
}

BOOL heapFree(void *rawBlock) {
    free(rawBlock);
    return TRUE;
}

constexpr MemPoolOperations kHeapOperations = {nullptr, heapAllocate, heapFree, nullptr};

inline MemBlockHeader *headerOf(const void *user) {
    return reinterpret_cast<MemBlockHeader *>(const_cast<char *>(static_cast<const char *>(user)) - kBlockHeaderBytes);
}

inline size_t roundedSize(size_t size) { return size <= fh::kLargestRequest ? (size + 3) & ~size_t{3} : 0; }

// A block of size user bytes whose area starts with the filled bytes at
// from (which the caller holds for that many) and is zero behind them.
inline void *allocate(size_t size, MemPool *pool, const void *from = nullptr, size_t filled = 0) {
    const size_t rounded = roundedSize(size);
    if (rounded == 0 && size != 0) {
        fh::countAllocation(gtLmContext);
        fh::blockExhausted(size);
        return nullptr;
    }
    char *user = fh::newBlock(rounded, pool);
    if (filled != 0) {
        memcpy(user, from, filled);
        memset(user + filled, 0, rounded - filled);
    } else {
        fh::zeroArea(user, rounded);
    }
    return user;
}

} // namespace

namespace fh {

constinit __attribute__((tls_model("initial-exec"))) thread_local BlockCache tBlockCache{};
MemPool gDefaultPool = {MEM_POOL_MAGIC, &kHeapOperations};
size_t gBlockBytesInUse = 0;
size_t gBlockBytesPeak = 0;

// The raw block for a user area of rounded bytes from pool; pool becomes the
// pool to record, which is the default pool when a pool of the caller's could
// not give it.
char *poolBlock(size_t rounded, MemPool *&pool) {
    if (pool->Operations != nullptr && pool->Operations->Allocate != nullptr) {
        if (void *raw = pool->Operations->Allocate(pool, kBlockHeaderBytes + rounded + kGuardBytes))
            return static_cast<char *>(raw);
    }
    pool = &gDefaultPool;
    return heapBlock(rounded, false);
}

char *tracedHeapBlock(size_t rawSize) { return static_cast<char *>(heapAllocate(nullptr, rawSize)); }

void registerBlockCache() {
    pthread_once(&gCacheKeyOnce, [] { pthread_key_create(&gCacheKey, emptyCache); });
    pthread_setspecific(gCacheKey, &tBlockCache);
    tBlockCache.registered = true;
}

void blockExhausted(size_t size) {
    trace(4, 1, -1, "Unable to allocate %ld bytes of memory", static_cast<long>(size));
    ProcCrash(1);
}

void guardDestroyed(void *user, const uint32_t *guard, int32_t countBefore) {
    trace(6, 1, -1, "Guard band corrupted at '%p' '%p' (%ld)", user, static_cast<const void *>(guard),
          static_cast<long>(countBefore));
    ProcCrash(1);
    abort();
}

} // namespace fh

void *MemAllocateFromPoolNotLogged(size_t size, MemPool *pool) { return allocate(size, pool); }

void *MemAllocateFromPool(size_t size, MemPool *pool) { return allocate(size, pool); }

BOOL MemFreeInternal(void *pointerAddress) {
    auto **slot = static_cast<void **>(pointerAddress);
    if (slot == nullptr || *slot == nullptr) return FALSE;
    const BOOL result = fh::freeBlock(*slot);
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

MemPool *MemGetDefaultPoolId(void) { return &fh::gDefaultPool; }

void MemCheck(const void *block) {
    if (block == nullptr) return;
    if (reinterpret_cast<uintptr_t>(block) <= kBlockHeaderBytes) {
        trace(14, 1, -1, "Invalid Header pointer '%p'", block);
    } else if (const MemBlockHeader *header = headerOf(block); header->Guard == nullptr) {
        trace(15, 1, -1, "Header corrupted at '%p'", block);
    } else if (fh::guardAt(header->Guard) != MEM_GUARD_WORD) {
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
    auto *joined = static_cast<char *>(MemAllocateFromPool(a + b, &fh::gDefaultPool));
    if (first != nullptr) memcpy(joined, first, a);
    if (second != nullptr) memcpy(joined + a, second, b);
    MemFreeInternal(&first);
    return joined;
}

void *fh::memAllocateFilled(size_t size, MemPool *pool, const void *from, size_t filled) {
    return allocate(size, pool, from, filled < size ? filled : size);
}

size_t fh::memBlockBytes(size_t size) { return rawBytes(size <= kLargestRequest ? (size + 3) & ~size_t{3} : size); }
size_t fh::memBytesInUse() { return gBlockBytesInUse; }
size_t fh::memBytesPeak() { return gBlockBytesPeak; }
void fh::memResetBytesPeak() { gBlockBytesPeak = gBlockBytesInUse; }

int32_t MemUsedCount(void) { return gtLmContext.iMemUsed; }
int32_t MemMax(void) { return gtLmContext.iMemMax; }
int32_t MemAllocations(void) { return gtLmContext.iMemAllocations; }

BOOL MemoryInitialize(void) { return TRUE; }
BOOL MemoryInitializeThread(void) { return TRUE; }

void MemoryReleaseThread(LmContext *context) {
    trace(11, 0, 3, "MemReleaseThread %ld pieces left", static_cast<long>(context->iMemUsed));
}
