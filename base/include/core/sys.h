/*
 * sys.h - system services: the machine's name, sleeping, environment
 * variables, resource limits, file status objects, free disk space and
 * sizes as text.
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
    int32_t reserved; /* 0 */
} SYS_STAT;

/* The name of this machine in the system: "Name" in section "Machine" of
 * "configure.cfg", else the node name of the platform cut to 63 bytes. Looked
 * up on first use and kept; a name set by SysSetLocalMachineName while the
 * look-up runs wins over it. The string stays the module's. Null only when
 * neither the platform nor the configuration names the machine. */
FHAPI const char *SysLocalMachineName(void);

/* Replaces the machine name by a copy of name. FALSE, with nothing changed,
 * for null. */
FHAPI BOOL SysSetLocalMachineName(const char *name);

/* Waits seconds in select on no descriptors. A signal that is handled ends
 * the wait early (select is never restarted): the result is then FALSE, and
 * the rest of the time is not slept. TRUE when the time ran out. A negative
 * count waits until a signal comes; 0 returns at once. */
FHAPI BOOL SysSleep(int32_t seconds);

/* bytes shifted right by 20, in 32 bits. */
FHAPI uint32_t SysConvertToMegs(int64_t bytes);

/* Stores in *out a new string of value as a size: "n bytes" below 10,240,
 * "n Kbytes" below 10,485,760, else "n Mbytes", n rounded up in its unit.
 * A negative value is shown in bytes; a 64-bit value above the low word in
 * Mbytes. The labels are translatable (numbers 532 to 534 for the 64-bit
 * form, 535 to 537 for the 32-bit one). FALSE for a null out. */
FHAPI BOOL SysInt64ToUnitString(char **out, int64_t value);
FHAPI BOOL SysIntegerToUnitString(char **out, int32_t value);

/* The 64-bit value of eight bytes, least significant first, on any host;
 * 0 for null. */
FHAPI int64_t SysUnpackInt64(const unsigned char *bytes);

/* Sets the environment variable name to value ("" for a null value). The
 * string "name=value" is handed to putenv and belongs to the environment
 * from then on: it stays counted as a block in use. FALSE, with nothing
 * changed, for a null or empty name, a name holding "=", or when putenv
 * fails. */
FHAPI BOOL SysSetEnvString(const char *name, const char *value);

/* SysSetEnvString of value in decimal. */
FHAPI BOOL SysSetEnvInteger(const char *name, int32_t value);

/* A new copy of the variable's value in *out. FALSE, *out untouched, when
 * it isn't set or for a null argument. */
FHAPI BOOL SysGetEnvString(char **out, const char *name);

/* The variable's value as a decimal number in *out. FALSE when it isn't set
 * (*out untouched) or isn't a number (*out is then 0). */
FHAPI BOOL SysGetEnvInteger(int32_t *out, const char *name);

/* Clears the file creation mask and lifts the soft and the hard limit of
 * the file size (RLIMIT_FSIZE) to unlimited. Raising the hard limit needs
 * privilege: FALSE, with the limits unchanged, without it. */
FHAPI BOOL SysMaxFileLimit(void);

/* Lifts the soft limit of the file size to unlimited, keeping the hard
 * limit: fails where the hard limit is lower. The result of the platform
 * call: 0, or -1 with errno set. */
FHAPI int32_t SysSetLimits(void);

/* A new SYS_STAT of path in *out (follow 1: through a symbolic link, else of
 * the link itself), or only the test when out is null; the same of a
 * handle. FALSE, with nothing made, when the status can't be had. */
FHAPI BOOL SysStat(const char *path, SYS_STAT **out, int32_t follow);
FHAPI BOOL SysStatHandle(SYS_STAT **out, int32_t handle);

/* Free space of the file system that holds path: *bytes the free blocks
 * times the fragment size (the block size where that is 0), *percent the
 * free blocks in hundredths of all blocks. A file system of fewer than 100
 * blocks gives free * 100 / total, and one of no blocks (pseudo file
 * systems) 0 %. Either out may be null; the path is examined anyway. FALSE,
 * traced, with the outs untouched, when the file system can't be examined. */
FHAPI BOOL SysGetDiskFreeSpace(int64_t *bytes, int32_t *percent, const char *path);

/* The platform's locale is never changed: SysSetLocale does nothing and
 * gives FALSE, and SysIsDefaultLocale is always TRUE. */
FHAPI BOOL SysSetLocale(void);
FHAPI BOOL SysIsDefaultLocale(void);

/* The module's part of the context ladder. */
FHAPI BOOL SysInitialize(void);
FHAPI BOOL SysInitializeThread(void);
FHAPI void SysReleaseThread(LmContext *context);

FH_END_DECLS

#endif /* FHCORE_SYS_H */
