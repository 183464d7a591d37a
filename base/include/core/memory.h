/*
 * memory.h - guarded blocks from pools.
 *
 * Every block the library hands out has a header of two pointers in front
 * (the address of its guard word, the pool it came from), a user area of the
 * requested size rounded up to a multiple of 4 and filled with zeros, and the
 * guard word MEM_GUARD_WORD behind it. A pool is a record whose first fields
 * are a magic and a table of operations, so that a caller can supply its own
 * allocator; the default pool is the platform heap.
 */
#ifndef FHCORE_MEMORY_H
#define FHCORE_MEMORY_H

#include "types.h"

FH_BEGIN_DECLS

#define MEM_GUARD_WORD 0x01020304u
#define MEM_POOL_MAGIC 0x5AA80C31u

/* The header in front of every user block. */
typedef struct MemBlockHeader {
    uint32_t *Guard; /* the guard word behind the user area */
    MemPool *Pool;   /* the pool the block came from, null for the heap */
} MemBlockHeader;

/* The operations of a pool, in this order. Create and Release may be null. */
typedef struct MemPoolOperations {
    MemPool *(*Create)(int32_t size, int32_t flags);
    void *(*Allocate)(MemPool *pool, size_t bytes);
    BOOL (*Free)(void *rawBlock);
    BOOL (*Release)(MemPool *pool);
} MemPoolOperations;

/* A pool; one made by Create may carry private fields behind these two. */
struct MemPool {
    uint32_t Magic;
    const MemPoolOperations *Operations;
};

/* Allocates size bytes, zero-filled, from pool (null means the heap). A
 * failing pool falls back to the heap. Never returns null: exhausted memory
 * ends the process with ProcCrash(1). The caller frees with MemFreeInternal. */
FHAPI void *MemAllocateFromPool(size_t size, MemPool *pool);

/* The same operation as MemAllocateFromPool, under its older name. */
FHAPI void *MemAllocateFromPoolNotLogged(size_t size, MemPool *pool);

/* Frees the block whose address *pointerAddress holds and clears that
 * pointer. Takes the address of any pointer variable. FALSE, with nothing
 * changed, for a null address or a null pointer; otherwise the pool's result.
 * A destroyed guard word (an overrun, a second free) ends the process. */
FHAPI BOOL MemFreeInternal(void *pointerAddress);

/* Kept as an entry point; there is no allocation log. */
FHAPI void MemRemoveFromLog(void);

/* Makes a pool through operations->Create(size, 64) and stores it in *out.
 * A table without Create stores null (the heap) and gives TRUE. FALSE with
 * *out untouched for a size of 0 or less or a Create that fails. */
FHAPI BOOL MemCreatePool(MemPool **out, const MemPoolOperations *operations, int32_t size);

/* Calls the Release operation of the pool in *poolAddress and gives its
 * result; FALSE for a null or all-ones pool, a bad magic or no Release. The
 * variable itself is not changed. */
FHAPI BOOL MemReleasePool(MemPool **poolAddress);

/* The default pool: the platform heap. */
FHAPI MemPool *MemGetDefaultPoolId(void);

/* Checks the header and guard word of a user block; null passes. A damaged
 * block is traced and ProcCrash(0) is called. */
FHAPI void MemCheck(const void *block);

/* Copies count bytes; the areas may overlap. Always TRUE. */
FHAPI BOOL MemCopy(void *destination, const void *source, size_t count);

/* Zero-fills count bytes when block is not null and count is positive. */
FHAPI void MemZero(void *block, int32_t count);

/* A new block of firstLength + secondLength bytes from the default pool,
 * holding the first block (if not null) and the second behind it (if not
 * null). Frees the first block. The caller owns the result. */
FHAPI void *MemCat(void *first, int32_t firstLength, const void *second, int32_t secondLength);

/* The counters: blocks in use now, the highest that has been, all made. */
FHAPI int32_t MemUsedCount(void);
FHAPI int32_t MemMax(void);
FHAPI int32_t MemAllocations(void);

/* The module's part of the context ladder. */
FHAPI BOOL MemoryInitialize(void);
FHAPI BOOL MemoryInitializeThread(void);
FHAPI void MemoryReleaseThread(LmContext *context);

FH_END_DECLS

#endif /* FHCORE_MEMORY_H */
