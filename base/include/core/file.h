/*
 * file.h - whole files and directories by name: delete, copy, move, status,
 * load and save, compare, and directory walks.
 *
 * Like the layer under them (filesys.h) these retry interrupted calls and
 * give truth values. New memory comes from the default pool and belongs to
 * the caller.
 */
#ifndef FHCORE_FILE_H
#define FHCORE_FILE_H

#include "sys.h"
#include "types.h"

FH_BEGIN_DECLS

/* Kinds of FileHaveAccess; any other value asks only whether path exists. */
enum FileAccessKind { FILE_ACCESS_READ = 1, FILE_ACCESS_WRITE = 2, FILE_ACCESS_EXECUTE = 3 };

/* A directory of a recursive scan, and the state of the scan. */
#define DIR_SCAN_DIR_MAGIC 0xCB16F0D9u
#define DIR_SCAN_DIR_FORMAT "s;"
#define DIR_SCAN_RECURSIVE_CONTEXT_MAGIC 0xCB16F549u
#define DIR_SCAN_RECURSIVE_CONTEXT_FORMAT "o;p;p;s;b;"

/* Directory callbacks: directory, entry name and the user value; TRUE goes on. */
typedef BOOL (*DirScanFunction)(const char *directory, const char *entry, void *user);

/* Deletes a file (FileDelete traces any failure; FileDestroy only a null
 * path), or an empty directory (FileDirDestroy traces a null path). */
FHAPI BOOL FileDelete(const char *path);
FHAPI BOOL FileDestroy(const char *path);
FHAPI BOOL FileDirDelete(const char *path);
FHAPI BOOL FileDirDestroy(const char *path);

/* TRUE when path is a directory, links followed. */
FHAPI BOOL FileIsDir(const char *path);

/* Copies source to destination (permission 0644, whatever the source had),
 * in blocks of 32768 bytes. The Internal form appends instead when append
 * is 1 and deletes the source after a good copy when deleteSource is 1. A
 * failed copy leaves what it wrote. */
FHAPI BOOL FileCopy(const char *source, const char *destination);
FHAPI BOOL FileCopyMoveAppendInternal(const char *destination, const char *source, BOOL append, BOOL deleteSource);

/* Renames, or where that fails copies and deletes the old file (removing the
 * copy again when the old file can't be deleted). */
FHAPI BOOL FileRenameAndMove(const char *oldPath, const char *newPath);

/* The low 32 bits of the size of path, links followed. */
FHAPI BOOL FileSize(int32_t *size, const char *path);

FHAPI BOOL FileChangeMode(const char *path, int32_t mode);
FHAPI BOOL FileChangeOwner(const char *path, int32_t owner, int32_t group);

/* The status of path (follow 1: through a symbolic link, else of the link)
 * or of a handle, into *out when out is given. A null path is a caller's
 * fault; handle -1 gives FALSE. */
FHAPI BOOL FileStat(SYS_STAT *out, const char *path, int32_t follow);
FHAPI BOOL FileStatHandle(SYS_STAT *out, int32_t handle);

/* TRUE when the process may read, write or execute path (FileAccessKind). */
FHAPI BOOL FileHaveAccess(const char *path, int32_t kind);

/* Sets the access and modification times, in seconds. */
FHAPI BOOL FileChangeTimes(const char *path, int32_t accessTime, int32_t modifyTime);

/* A whole file: as one new terminated string, or as new memory and its
 * size. FALSE, with nothing allocated, when it can't be read whole. */
FHAPI BOOL LoadTextFile(char **out, const char *path);
FHAPI BOOL LoadBinaryFile(void **out, int32_t *size, const char *path);

/* Writes length bytes (at least 1) as the whole file, creating or emptying
 * it; a failure leaves a partial file. */
FHAPI BOOL FileSaveText(const void *bytes, int32_t length, const char *path);
FHAPI BOOL FileSaveBinary(const void *bytes, int32_t length, const char *path);

/* TRUE when both files hold the same bytes (two empty files match). */
FHAPI BOOL FilesMatch(const char *first, const char *second);

/* Calls callback for each entry of directory ("." and ".." aside): while
 * reading it (Direct), or after reading all names (so a callback may change
 * the directory). FALSE when the directory can't be read or a callback says
 * stop. */
FHAPI BOOL DirScanDirect(const char *directory, DirScanFunction callback, void *user);
FHAPI BOOL DirScan(const char *directory, DirScanFunction callback, void *user);

/* Walks the tree below directory, calling callback with each entry and the
 * path of its directory (ending in "/", relative to directory when relative
 * is 1). Symbolic links are reported, not followed. 1 when all was walked,
 * 2 when the callback said stop, 0 when a directory could not be read. */
FHAPI int32_t DirScanDirectRecursive(const char *directory, DirScanFunction callback, void *user, BOOL relative);

/* Adds the sizes of the entries of directory (not recursive) to *sum. */
FHAPI BOOL DirGetContentsSize(int64_t *sum, const char *directory);

FH_END_DECLS

#endif /* FHCORE_FILE_H */
