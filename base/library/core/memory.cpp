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
#include "proctable.h"
#include "sizes.h"
#include "tracer.h"

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

#if defined(__SANITIZE_ADDRESS__)
constexpr bool kCacheBlocks = false;
#else
constexpr bool kCacheBlocks = true;
#endif
constexpr size_t kClassBytes = 16;
constexpr size_t kClassCount = 16;
constexpr size_t kCachedLargest = kClassBytes * kClassCount;
constexpr size_t kCachedBytesPerClass = 16384;

// Freed raw blocks of one thread, by class, linked through their first word.
struct BlockCache {
    std::array<void *, kClassCount> head;
    std::array<uint16_t, kClassCount> count;
    bool registered; // with the key whose destructor empties the cache
};
__attribute__((tls_model("initial-exec"))) thread_local BlockCache tCache;

pthread_key_t gCacheKey;
pthread_once_t gCacheKeyOnce = PTHREAD_ONCE_INIT;

void emptyCache(void *cache) {
    auto &c = *static_cast<BlockCache *>(cache);
    for (size_t k = 0; k < kClassCount; ++k) {
        for (void *block = c.head[k]; block != nullptr;) {
            void *next = *static_cast<void **>(block);
            free(block);
            block = next;
        }
        c.head[k] = nullptr;
        c.count[k] = 0;
    }
}

inline size_t classOf(size_t rounded) { return rounded == 0 ? 0 : (rounded - 1) / kClassBytes; }

// A raw block for a user area of rounded bytes from the heap, traced on
// failure unless quiet; small ones come from the cache or in class size.
inline char *heapBlock(size_t rounded, bool quiet) {
    size_t rawSize = kHeaderSize + rounded + kGuardSize;
    if (kCacheBlocks && rounded <= kCachedLargest) {
        const size_t k = classOf(rounded);
        if (void *block = tCache.head[k]; block != nullptr) {
            tCache.head[k] = *static_cast<void **>(block);
            --tCache.count[k];
            return static_cast<char *>(block);
        }
        rawSize = kHeaderSize + (k + 1) * kClassBytes + kGuardSize;
    }
    return static_cast<char *>(quiet ? malloc(rawSize) : heapAllocate(nullptr, rawSize));
}

// Gives a heap block with a user area of rounded bytes back: to the cache
// while its class has room, else to the heap.
inline void heapRelease(void *raw, size_t rounded) {
    if (kCacheBlocks && rounded <= kCachedLargest) {
        const size_t k = classOf(rounded);
        if (tCache.count[k] < kCachedBytesPerClass / ((k + 1) * kClassBytes)) {
            if (!tCache.registered) {
                pthread_once(&gCacheKeyOnce, [] { pthread_key_create(&gCacheKey, emptyCache); });
                pthread_setspecific(gCacheKey, &tCache);
                tCache.registered = true;
            }
            *static_cast<void **>(raw) = tCache.head[k];
            tCache.head[k] = raw;
            ++tCache.count[k];
            return;
        }
    }
    free(raw);
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

size_t gBytesInUse = 0;
size_t gBytesPeak = 0;

inline size_t rawBytes(size_t rounded) {
    const size_t area = kCacheBlocks && rounded <= kCachedLargest ? (classOf(rounded) + 1) * kClassBytes : rounded;
    return kHeaderSize + area + kGuardSize;
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

// The raw block for a user area of rounded bytes from pool; pool becomes the
// pool to record, which is the default pool when a pool of the caller's could
// not give it.
char *poolBlock(size_t rounded, MemPool *&pool) {
    if (pool != &gDefaultPool && pool->Operations != nullptr && pool->Operations->Allocate != nullptr) {
        if (void *raw = pool->Operations->Allocate(pool, kHeaderSize + rounded + kGuardSize))
            return static_cast<char *>(raw);
    }
    pool = &gDefaultPool;
    return heapBlock(rounded, false);
}

inline char *rawBlock(size_t rounded, MemPool *&pool) {
    return pool == nullptr ? heapBlock(rounded, true) : pool == &gDefaultPool ? heapBlock(rounded, false)
                                                                              : poolBlock(rounded, pool);
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

// A block of size user bytes whose area starts with the filled bytes at
// from (which the caller holds for that many) and is zero behind them.
inline void *allocate(size_t size, MemPool *pool, const void *from = nullptr, size_t filled = 0) {
    countAllocation();
    const size_t rounded = size <= kLargestRequest ? (size + 3) & ~size_t{3} : 0;
    char *raw = rounded != 0 || size == 0 ? rawBlock(rounded, pool) : nullptr;
    if (raw == nullptr) {
        trace(4, 1, -1, "Unable to allocate %ld bytes of memory", static_cast<long>(rounded != 0 ? rounded : size));
        ProcCrash(1);
        return nullptr;
    }
    gBytesInUse += rawBytes(rounded);
    if (gBytesInUse > gBytesPeak) gBytesPeak = gBytesInUse;
    auto *header = reinterpret_cast<MemBlockHeader *>(raw);
    char *user = raw + kHeaderSize;
    header->Guard = reinterpret_cast<uint32_t *>(user + rounded);
    header->Pool = pool;
    const uint32_t guard = MEM_GUARD_WORD;
    memcpy(header->Guard, &guard, sizeof guard);
    if (filled != 0) {
        memcpy(user, from, filled);
        memset(user + filled, 0, rounded - filled);
    } else {
        zeroUserArea(user, rounded);
    }
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
    BOOL result = TRUE;
    const auto rounded = static_cast<size_t>(reinterpret_cast<char *>(header->Guard) - static_cast<char *>(*slot));
    gBytesInUse -= rawBytes(rounded);
    if (pool == nullptr || pool == &gDefaultPool)
        heapRelease(header, rounded);
    else
        result = pool->Operations->Free(header);
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

void *fh::memAllocateFilled(size_t size, MemPool *pool, const void *from, size_t filled) {
    return allocate(size, pool, from, filled < size ? filled : size);
}

size_t fh::memBlockBytes(size_t size) { return rawBytes(size <= kLargestRequest ? (size + 3) & ~size_t{3} : size); }
size_t fh::memBytesInUse() { return gBytesInUse; }
size_t fh::memBytesPeak() { return gBytesPeak; }
void fh::memResetBytesPeak() { gBytesPeak = gBytesInUse; }

int32_t MemUsedCount(void) { return gtLmContext.iMemUsed; }
int32_t MemMax(void) { return gtLmContext.iMemMax; }
int32_t MemAllocations(void) { return gtLmContext.iMemAllocations; }

BOOL MemoryInitialize(void) { return TRUE; }
BOOL MemoryInitializeThread(void) { return TRUE; }

void MemoryReleaseThread(LmContext *context) {
    trace(11, 0, 3, "MemReleaseThread %ld pieces left", static_cast<long>(context->iMemUsed));
}
