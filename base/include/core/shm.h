/*
 * shm.h - shared memory segments and the keys they are found under.
 *
 * Every process of one installation derives the same key for an index from
 * the executable of the process manager; another installation derives other
 * keys. A process allocates segments under its own indices, counted from 0
 * once per call, and removes what it allocated at ShmFree or, at the latest,
 * when its context is released. Attachments end with the process.
 */
#ifndef FHCORE_SHM_H
#define FHCORE_SHM_H

#include "context.h"
#include "types.h"

FH_BEGIN_DECLS

/* An item of the context's segment list: the id of a segment this process
 * allocated. */
#define SHM_SEGMENT_MAGIC 0xC8E71C5Au
#define SHM_SEGMENT_FORMAT "i;"
typedef struct SHM_SEGMENT {
    int32_t iId;
} SHM_SEGMENT;

/* The highest number of keys, and so of allocations in a process's life. */
#define IPC_KEY_COUNT 256

/* The key for index: index << 24 | (device & 0xFF) << 16 | (inode & 0xFFFF)
 * of the file that "unix" of "Process Manager" in "programs.cfg" names.
 * FALSE, *key unchanged, for a null key, an index outside 0 to 255, or a
 * path that can't be found or examined. */
FHAPI BOOL IpcGetKey(int32_t *key, int32_t index);

/* In the process manager (id 1): removes segments under the installation's
 * keys that nobody has attached, and gives FALSE when one is in use or its
 * status can't be read (the higher indices are then left alone). Any other
 * process gives TRUE at once. */
FHAPI BOOL ShmInitialize(void);
/* The context's segment list: made, and at release emptied by removing
 * every segment still on it. */
FHAPI BOOL ShmInitializeThread(LmContext *context);
FHAPI void ShmReleaseThread(LmContext *context);

/* A new segment of size bytes under this process's next index, its id in
 * *id and on the segment list. FALSE, *id unchanged, for a null id, a size
 * below 1, no key, or a refusal (a key in use too); the index is used up
 * all the same. */
FHAPI BOOL ShmAllocate(int32_t *id, int32_t size);
/* Removes the segment *id, takes it off the list and sets *id to -1. TRUE
 * if the system removed it. */
FHAPI BOOL ShmFree(int32_t *id);
/* Attaches segment id for reading and writing, or for reading only, at
 * *address. FALSE, *address unchanged, for a null address, id -1 or a
 * refusal. */
FHAPI BOOL ShmAttach(void **address, int32_t id);
FHAPI BOOL ShmAttachReadOnly(void **address, int32_t id);
/* Detaches *address and sets it to (void *)-1. FALSE for a null pointer, a
 * value of -1 or a refusal. */
FHAPI BOOL ShmDetach(void **address);
/* Copies length bytes; FALSE, without dying, if either address faults, with
 * the former handlers of the faults in place again in both cases. What was
 * copied before the fault stays copied. */
FHAPI BOOL ShmCopy(void *destination, const void *source, int32_t length);
/* Stores id in *address (nothing for a null address). */
FHAPI void ShmSetId(int32_t *address, int32_t id);

FH_END_DECLS

#endif /* FHCORE_SHM_H */
