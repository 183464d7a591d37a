/*
 * filesys.h - the lowest file layer: handles, streams and record locks.
 *
 * Thin, uniform wrappers over file descriptors (a handle is an int32_t, -1
 * when not open) and standard I/O streams (null when not open). Every system
 * call is retried while a signal interrupts it, every handle is marked
 * close-on-exec, every failure is traced with the system's error text and
 * leaves errno as the call set it, and every operation gives a truth value.
 * Operations that close take the address of the variable and clear it.
 *
 * Opens take a mode word: the access mode in the low four bits, and for
 * streams the kind, FILE_MODE_BINARY or FILE_MODE_TEXT. Every open sets the
 * process's file creation mask to 0, so permission bits are exactly those
 * given: 0644, and 0666 for lock files.
 *
 * Record locks cover whole files; they belong to the process and go when
 * the handle is closed (there is no unlock).
 */
#ifndef FHCORE_FILESYS_H
#define FHCORE_FILESYS_H

#include <stdio.h>

#include "types.h"

FH_BEGIN_DECLS

enum FileMode {
    FILE_MODE_READ = 1,          /* read only */
    FILE_MODE_WRITE = 2,         /* write only, create, truncate */
    FILE_MODE_APPEND = 3,        /* write only, create, append */
    FILE_MODE_UPDATE = 4,        /* read and write, create */
    FILE_MODE_UPDATE_SHARED = 5, /* the same; differs in the lock a file stream takes */
    FILE_MODE_LOCK_FILE = 6,     /* read and write, create, 0666 */
    FILE_MODE_BINARY = 0x100,
    FILE_MODE_TEXT = 0x200
};

#define FILE_MODE_ACCESS(mode) ((mode) & 0xF)

enum FileLockKind { FILE_LOCK_SHARED = 123, FILE_LOCK_EXCLUSIVE = 666 };

/* Opens path by the low four bits of mode into *out (left alone on
 * failure). An unknown access mode is traced and opens read only; a write
 * open that may not truncate an existing file opens it as it is. */
FHAPI BOOL FileSysOpen(int32_t *out, const char *path, int32_t mode);

/* Opens with the writer-replaces-by-rename discipline: mode 1 opens path and
 * waits for a shared lock; mode 2 opens path".new" (created, truncated),
 * takes an exclusive lock without waiting and renames it over path. Other
 * modes are traced and fail. */
FHAPI BOOL FileSysOpenLocked(int32_t *out, const char *path, int32_t mode);

/* Cuts the file at the current offset (below 2 GiB). */
FHAPI BOOL FileSysTruncate(int32_t handle);

/* Closes *handle and sets it to -1; FALSE for null, -1 or a failed close
 * (the handle is then left as it was). */
FHAPI BOOL FileSysClose(int32_t *handle);

/* A stream on path opened by FileSysOpen; mode must be one of the ten words
 * of an access mode 1 to 5 with its kind. */
FHAPI BOOL FileSysFOpen(FILE **out, const char *path, int32_t mode);
FHAPI BOOL FileSysFClose(FILE **stream);

/* One line read (as fgets), and text written. */
FHAPI BOOL FileSysFGetString(FILE *stream, char *buffer, int32_t size);
FHAPI BOOL FileSysFPutString(FILE *stream, const char *text);

/* Writes all length bytes; a write of nothing fails. TRUE for length 0. */
FHAPI BOOL FileSysFWrite(FILE *stream, const void *buffer, int32_t length);

/* The stream's handle; -1 for null. */
FHAPI int32_t FileHandleFromFILE(FILE *stream);

/* A new empty block from the default pool. */
FHAPI void *FileSysDummy(void);

/* Adds synchronous writes to the handle's status flags. */
FHAPI BOOL FileSysSynchronous(int32_t handle);

/* One read (count 0 at end of file) or one write (count may be short). */
FHAPI BOOL FileSysRead(int32_t *count, int32_t handle, void *buffer, int32_t length);
FHAPI BOOL FileSysWrite(int32_t *count, int32_t handle, const void *buffer, int32_t length);

/* Offsets: start, end, absolute, relative, relative by 32 bits (no trace). */
FHAPI BOOL FileSysSeekStart(int32_t handle);
FHAPI BOOL FileSysSeekEnd(int32_t handle);
FHAPI BOOL FileSysSeek(int32_t handle, int64_t offset);
FHAPI BOOL FileSysSeekRelative(int32_t handle, int64_t offset);
FHAPI BOOL FileSysSkip(int32_t handle, int32_t offset);
FHAPI BOOL FileSysGetOffset(int64_t *offset, int32_t handle);
FHAPI BOOL FileSysSize(int64_t *size, int32_t handle);

/* TRUE when path exists and is not a directory (links followed); when the
 * owner's write bit of path or handle is clear. FALSE when stat fails. */
FHAPI BOOL FileExists(const char *path);
FHAPI BOOL FileIsReadOnly(const char *path);
FHAPI BOOL FileHandleIsReadOnly(int32_t handle);

/* A shared or exclusive lock on the whole file: waiting until it is held,
 * or FALSE at once when it is held elsewhere. FALSE for another kind. */
FHAPI BOOL FileLockSet(int32_t handle, int32_t kind);
FHAPI BOOL FileLockSetNoWait(int32_t handle, int32_t kind);

FH_END_DECLS

#endif /* FHCORE_FILESYS_H */
