// memblock.h - the steps of a guarded block, for the modules that lay a header
// of their own into one.
//
// MemAllocateFromPool and MemFreeInternal are these steps with a zero fill
// and the caller's checks around them. The object core takes them inline
// instead: it writes its object header in the same pass as the block header
// and frees the block in the same pass as its release, so an object pays for
// one set of steps (counters, header, guard word, cache), not two. The
// block format and the counters are the same either way; memory.cpp says
// what they are.
#ifndef FHCORE_MEMBLOCK_H
#define FHCORE_MEMBLOCK_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "core/context.h"
#include "core/memory.h"
#include "proctable.h"

namespace fh {

inline constexpr size_t kBlockHeaderBytes = sizeof(MemBlockHeader);
inline constexpr size_t kGuardBytes = sizeof(uint32_t);
inline constexpr size_t kLargestRequest = SIZE_MAX - kBlockHeaderBytes - kGuardBytes - 4;

// Small heap blocks come in classes of 16 bytes of user area, and freed ones
// wait in a cache of their thread and class for the next block of the class.
#if defined(__SANITIZE_ADDRESS__)
inline constexpr bool kCacheBlocks = false;
#else
inline constexpr bool kCacheBlocks = true;
#endif
inline constexpr size_t kClassBytes = 16;
inline constexpr size_t kClassCount = 16;
inline constexpr size_t kCachedLargest = kClassBytes * kClassCount;
inline constexpr size_t kCachedBytesPerClass = 16384;

// Freed raw blocks of one thread, by class, linked through their first word.
struct BlockCache {
    std::array<void *, kClassCount> head;
    std::array<uint16_t, kClassCount> count;
    bool registered; // with the key whose destructor empties the cache
};
extern constinit __attribute__((tls_model("initial-exec"))) thread_local BlockCache tBlockCache;

// The default pool, and the pool bytes of the blocks in use with their peak.
extern MemPool gDefaultPool;
extern size_t gBlockBytesInUse;
extern size_t gBlockBytesPeak;

// Out of line: a block from a pool of the caller's (pool becomes the pool to
// record), a heap block traced on failure, the cache's registration with the
// thread's end, and the end of the process when no block can be had.
char *poolBlock(size_t rounded, MemPool *&pool);
char *tracedHeapBlock(size_t rawSize);
void registerBlockCache();
void blockExhausted(size_t size);
[[noreturn]] void guardDestroyed(void *user, const uint32_t *guard, int32_t countBefore);

// The class of a small user area (an empty one is in the first), and the
// blocks that its cache keeps at most.
constexpr size_t classOf(size_t rounded) { return (rounded - (rounded != 0)) / kClassBytes; }
inline constexpr auto kCachedBlocks = [] {
    std::array<uint16_t, kClassCount> most{};
    for (size_t k = 0; k < kClassCount; ++k) most[k] = static_cast<uint16_t>(kCachedBytesPerClass / ((k + 1) * kClassBytes));
    return most;
}();

// The pool bytes of a block with a user area of rounded bytes.
constexpr size_t rawBytes(size_t rounded) {
    const size_t area = kCacheBlocks && rounded <= kCachedLargest ? (classOf(rounded) + 1) * kClassBytes : rounded;
    return kBlockHeaderBytes + area + kGuardBytes;
}
static_assert(rawBytes(0) == rawBytes(16) && rawBytes(17) == rawBytes(32) && (!kCacheBlocks || rawBytes(4) == kBlockHeaderBytes + 16 + kGuardBytes));

// A raw heap block for a user area of rounded bytes, traced on failure
// unless quiet; a small one from the cache or in its class's size.
inline char *heapBlock(size_t rounded, bool quiet) {
    size_t rawSize = kBlockHeaderBytes + rounded + kGuardBytes;
    if (kCacheBlocks && rounded <= kCachedLargest) {
        const size_t k = classOf(rounded);
        BlockCache &cache = tBlockCache;
        if (void *block = cache.head[k]; block != nullptr) {
            cache.head[k] = *static_cast<void **>(block);
            --cache.count[k];
            return static_cast<char *>(block);
        }
        rawSize = rawBytes(rounded);
    }
    return quiet ? static_cast<char *>(malloc(rawSize)) : tracedHeapBlock(rawSize);
}

// Gives a heap block with a user area of rounded bytes back: to the cache
// while its class has room, else to the heap.
inline void heapRelease(void *raw, size_t rounded) {
    if (kCacheBlocks && rounded <= kCachedLargest) {
        const size_t k = classOf(rounded);
        BlockCache &cache = tBlockCache;
        if (cache.count[k] < kCachedBlocks[k]) {
            if (!cache.registered) registerBlockCache();
            *static_cast<void **>(raw) = cache.head[k];
            cache.head[k] = raw;
            ++cache.count[k];
            return;
        }
    }
    free(raw);
}

inline char *rawBlock(size_t rounded, MemPool *&pool) {
    if (pool == nullptr) return heapBlock(rounded, true);
    return pool == &gDefaultPool ? heapBlock(rounded, false) : poolBlock(rounded, pool);
}

inline void countAllocation(LmContext &c) {
    if (++c.iMemUsed > c.iMemMax) c.iMemMax = c.iMemUsed;
    ++c.iMemAllocations;
    if (c.pProcessTableEntry != nullptr) {
        processEntryStore(kEntryMemUsed, c.iMemUsed);
        processEntryStore(kEntryMemMax, c.iMemMax);
        processEntryStore(kEntryMemAllocations, c.iMemAllocations);
    }
}

// A counted block with a user area of rounded bytes (a multiple of 4) from
// pool, its header and guard word written; the user area is not cleared.
// Gives the user area; exhausted memory ends the process.
inline char *newBlock(size_t rounded, MemPool *pool) {
    countAllocation(gtLmContext);
    char *raw = rawBlock(rounded, pool);
    if (raw == nullptr) {
        blockExhausted(rounded);
        return nullptr;
    }
    gBlockBytesInUse += rawBytes(rounded);
    if (gBlockBytesInUse > gBlockBytesPeak) gBlockBytesPeak = gBlockBytesInUse;
    auto *header = reinterpret_cast<MemBlockHeader *>(raw);
    char *user = raw + kBlockHeaderBytes;
    header->Guard = reinterpret_cast<uint32_t *>(user + rounded);
    header->Pool = pool;
    const uint32_t guard = MEM_GUARD_WORD;
    memcpy(header->Guard, &guard, sizeof guard);
    return user;
}

inline uint32_t guardAt(const uint32_t *guard) {
    uint32_t word;
    memcpy(&word, guard, sizeof word);
    return word;
}

// Frees the block of the user area user: counted, its guard word tested
// (a destroyed one ends the process) and cleared, the block back to its
// pool. Gives the pool's result.
inline BOOL freeBlock(void *user) {
    LmContext &c = gtLmContext;
    const int32_t before = c.iMemUsed--;
    if (c.pProcessTableEntry != nullptr) processEntryStore(kEntryMemUsed, c.iMemUsed);
    auto *header = reinterpret_cast<MemBlockHeader *>(static_cast<char *>(user) - kBlockHeaderBytes);
    uint32_t *guard = header->Guard;
    if (guard == nullptr || guardAt(guard) != MEM_GUARD_WORD) guardDestroyed(user, guard, before);
    memset(guard, 0, kGuardBytes);
    MemPool *pool = header->Pool;
    const auto rounded = static_cast<size_t>(reinterpret_cast<char *>(guard) - static_cast<char *>(user));
    gBlockBytesInUse -= rawBytes(rounded);
    if (pool == nullptr || pool == &gDefaultPool) {
        heapRelease(header, rounded);
        return TRUE;
    }
    return pool->Operations->Free(header);
}

// Zero fill of a user area; small areas (the common case) take two
// overlapping stores of fixed size rather than a call.
inline void zeroArea(char *area, size_t bytes) {
    if (bytes > 64) {
        memset(area, 0, bytes);
    } else if (bytes >= 32) {
        memset(area, 0, 32);
        memset(area + bytes - 32, 0, 32);
    } else if (bytes >= 16) {
        memset(area, 0, 16);
        memset(area + bytes - 16, 0, 16);
    } else if (bytes >= 8) {
        memset(area, 0, 8);
        memset(area + bytes - 8, 0, 8);
    } else if (bytes >= 4) {
        memset(area, 0, 4);
    }
}

} // namespace fh

#endif // FHCORE_MEMBLOCK_H
