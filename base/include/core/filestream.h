/*
 * filestream.h - FILE_STREAM: a buffered input and output on one named file
 * under an advisory lock, with a rewrite that never puts the old contents
 * at risk.
 *
 * Locks, by access mode (filesys.h): 1 read takes a shared lock on
 * path".lck"; 2 write and 3 append a shared one there and an exclusive one
 * on the data file through the output; 4 update an exclusive one on ".lck";
 * 5 update a shared one. So an update excludes all other locked readers and
 * updaters for its whole life, readers exclude updaters, and writers in
 * modes 2 and 3 exclude each other. Locks wait without limit.
 *
 * A rewrite (access mode 4) writes the new contents to path".new" while the
 * input still reads the old ones, then renames it over path: the data file
 * is at every moment the complete old or the complete new contents. A crash
 * leaves the old file and a stale ".new", which the next rewrite empties.
 * Closing a stream in the midst of a rewrite commits it; cancel first to
 * abandon it. All seeks act on the input.
 */
#ifndef FHCORE_FILESTREAM_H
#define FHCORE_FILESTREAM_H

#include <stdio.h>

#include "types.h"

/* Positions are whole 64-bit offsets on every word width, and fpos_t is one
 * only with 64-bit file offsets: a 32-bit program builds with
 * _FILE_OFFSET_BITS=64, as fhcore.pc and the CMake package say. */
#if __SIZEOF_LONG__ == 4 && (!defined(_FILE_OFFSET_BITS) || _FILE_OFFSET_BITS != 64)
#error "a 32-bit program that uses fhcore builds with -D_FILE_OFFSET_BITS=64"
#endif

FH_BEGIN_DECLS

#define FILE_STREAM_MAGIC 0xC922FE33u
#define FILE_STREAM_FORMAT "s;p;p;i;i;s;"
#define FILE_STREAM_OPEN_ARGS_MAGIC 0xC85311C4u
#define FILE_STREAM_OPEN_ARGS_FORMAT "s;i;b;"

/* Tags of FileStreamOpenTags: the index of the argument, then its value. */
enum FileStreamTag { FILE_STREAM_TAG_PATH = 0, FILE_STREAM_TAG_MODE = 1, FILE_STREAM_TAG_LOCK = 2 };

typedef struct FILE_STREAM {
    char *pszPath;
    FILE *pInput;    /* reading; in modes 2 and 3 a second, unused write stream */
    FILE *pOutput;   /* null while no output is open */
    int32_t iMode;   /* the mode word of the open */
    int32_t iLockHandle; /* on path".lck"; -1 without a lock */
    char *pszNewPath;    /* path".new" while a rewrite is under way */
} FILE_STREAM;

/* Opens path by mode word with the lock. */
FHAPI BOOL FileStreamOpen(FILE_STREAM **out, const char *path, int32_t mode);

/* Opens by a tag list: -2, then pairs of tag and value (path: const char *,
 * mode: int, lock: int), ended by -1. FALSE, with *out untouched, for a
 * missing or empty path and any failure to lock or open. */
FHAPI BOOL FileStreamOpenTags(FILE_STREAM **out, int32_t first, ...);

/* Closes output and input, commits a rewrite under way, lets the lock go and
 * releases the stream; FALSE if a stream failed to close or for null. */
FHAPI BOOL FileStreamClose(FILE_STREAM **streamAddress);

/* The stream's own path (not a copy). */
FHAPI BOOL FileStreamGetPath(const char **out, const FILE_STREAM *stream);

/* Access mode 4 only: opens the output appending to the file itself, or on
 * a new, empty path".new" for a rewrite. FALSE otherwise, nothing changed. */
FHAPI BOOL FileStreamStartAppend(FILE_STREAM *stream);
FHAPI BOOL FileStreamStartRewrite(FILE_STREAM *stream);

/* Ends an append (the input goes back to the start) or commits a rewrite
 * (the input reopens on the new contents). FALSE without an output; FALSE
 * with the rewrite still pending (to be cancelled) when the new contents
 * fail to close, since they may be incomplete. */
FHAPI BOOL FileStreamCloseOutput(FILE_STREAM *stream);

/* Abandons a rewrite: the ".new" goes, the input goes back to the start. */
FHAPI BOOL FileStreamCancelRewrite(FILE_STREAM *stream);

/* Input: the next byte (0 and FALSE at the end), up to length bytes. */
FHAPI BOOL FileStreamReadByte(FILE_STREAM *stream, unsigned char *byte);
FHAPI BOOL FileStreamRead(FILE_STREAM *stream, void *buffer, int32_t length, int32_t *count);

/* Output: one byte, all of length bytes, formatted text. */
FHAPI BOOL FileStreamWriteByte(FILE_STREAM *stream, unsigned char byte);
FHAPI BOOL FileStreamWrite(FILE_STREAM *stream, const void *buffer, int32_t length);
FHAPI BOOL FileStreamPrintF(FILE_STREAM *stream, const char *format, ...) __attribute__((format(printf, 2, 3)));

/* Positions of the input. */
FHAPI BOOL FileStreamSeek(FILE_STREAM *stream, fpos_t position);
FHAPI BOOL FileStreamGetOffset(fpos_t *position, FILE_STREAM *stream);
FHAPI BOOL FileStreamSeekFromLong(FILE_STREAM *stream, int32_t offset);
FHAPI BOOL FileStreamGetOffsetLong(int32_t *offset, FILE_STREAM *stream);
FHAPI BOOL FileStreamSeekRelative(FILE_STREAM *stream, int32_t offset);
FHAPI BOOL FileStreamSeekStart(FILE_STREAM *stream);
FHAPI BOOL FileStreamSeekEnd(FILE_STREAM *stream);

FH_END_DECLS

#endif /* FHCORE_FILESTREAM_H */
