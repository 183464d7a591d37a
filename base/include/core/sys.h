/*
 * sys.h - system services: sleeping and file status objects.
 *
 * SYS_STAT is the file status record that FileStat and FileStatHandle fill,
 * as an object so that it can travel. Its integers are the system's values,
 * narrowed to the widths of the record (the low word of node numbers and
 * devices, seconds of the times).
 */
#ifndef FHCORE_SYS_H
#define FHCORE_SYS_H

#include "context.h"
#include "types.h"

FH_BEGIN_DECLS

#define SYS_STAT_MAGIC 0xC8550014u
#define SYS_STAT_FORMAT "I;I;i;i;i;i;i;i;i;i;i;i;i;i;"

typedef struct SYS_STAT {
    int64_t size;       /* bytes */
    int64_t blocks;     /* allocated, in units of block_unit */
    int32_t mode;       /* file type and permission bits */
    int32_t inode;      /* low word */
    int32_t device;     /* low word */
    int32_t raw_device; /* low word, of a special file */
    int32_t links;
    int32_t owner;
    int32_t group;
    int32_t block_unit; /* always 512 */
    int32_t access_time;
    int32_t modify_time;
    int32_t change_time;
    int32_t reserved;   /* 0 */
} SYS_STAT;

/* Waits seconds, going on after a signal until the time is up. */
FHAPI BOOL SysSleep(int32_t seconds);

/* A new SYS_STAT of path in *out (follow 1: through a symbolic link, else of
 * the link itself), or only the test when out is null; the same of a
 * handle. FALSE, with nothing made, when the status can't be had. */
FHAPI BOOL SysStat(const char *path, SYS_STAT **out, int32_t follow);
FHAPI BOOL SysStatHandle(SYS_STAT **out, int32_t handle);

/* The module's part of the context ladder. */
FHAPI BOOL SysInitialize(void);
FHAPI BOOL SysInitializeThread(void);
FHAPI void SysReleaseThread(LmContext *context);

FH_END_DECLS

#endif /* FHCORE_SYS_H */
