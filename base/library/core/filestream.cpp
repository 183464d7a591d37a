// filestream.cpp - FILE_STREAM: buffered input and output on one named file
// under the ".lck" lock, with the rewrite through ".new".
//
// The stream's states, for access mode 4: input only (after the open);
// appending (output on the file itself); rewriting (output on path".new",
// pszNewPath set). Commit renames ".new" over the file and reopens the input
// on the new contents; cancel deletes ".new". Modes 2 and 3 have their
// output from the open on; mode 1 never has one. The lock handle on
// path".lck" lives as long as the stream and is closed last, after a
// pending rename, so that no locked reader ever sees a half-done rewrite.
//
// A commit flushes the ".new" file's data to the disk before the rename,
// and the directory after it: after a power loss the name holds the old
// contents or the new ones, never a name without its data. New contents
// that do not reach the disk are not committed.
#include "core/filestream.h"

#include <cstdarg>
#include <cstring>

#include "core/file.h"
#include "core/filesys.h"
#include "core/memory.h"
#include "core/object.h"
#include "core/strbase.h"
#include "objcore.h"
#include "syscalls.h"
#include "tracer.h"

namespace {

constexpr fh::ModuleTracer trace{"FILE        "};

enum TraceId : int32_t {
    kIdBadArgs = 40,
    kIdLockOpen = 41,
    kIdLockSet = 42,
    kIdOpenFailed = 43,
    kIdStartRewrite = 44,
    kIdWriteByte = 45,
    kIdWrite = 46,
    kIdClose = 47,
    kIdFlush = 48,
    kIdFlushDirectory = 49,
};

struct OpenArgs {
    char *pszPath;
    int32_t iMode;
    BOOL bLock;
};

constinit fh::ObjectType<FILE_STREAM> gStreamType{FILE_STREAM_MAGIC, FILE_STREAM_FORMAT};

constinit fh::ObjectType<OpenArgs> gArgsType{FILE_STREAM_OPEN_ARGS_MAGIC, FILE_STREAM_OPEN_ARGS_FORMAT};

void ensureTemplates() {
    gStreamType.declare();
    gArgsType.declare();
}

inline int32_t accessOf(const FILE_STREAM *s) { return FILE_MODE_ACCESS(s->iMode); }
inline bool isText(const FILE_STREAM *s) { return (s->iMode & FILE_MODE_TEXT) != 0; }
inline int32_t kindOf(const FILE_STREAM *s) { return isText(s) ? FILE_MODE_TEXT : FILE_MODE_BINARY; }

char *withSuffix(const char *path, const char *suffix) { return StrCat(path, suffix, static_cast<char *>(nullptr)); }

bool closeStream(FILE *&f) { return f == nullptr || FileSysFClose(&f); }

// The output's data, through the C library's buffer, on the disk.
bool flushToDisk(FILE *output, const char *path) {
    if (fflush(output) == 0 && fh::retried([&] { return fh::sys().fsync(fileno(output)); }) == 0) return true;
    fh::traceFailure(trace, kIdFlush, "Failed to flush '%s' to the disk: %s", path);
    return false;
}

// The directory entry of path on the disk: what makes a rename last. A
// failure is traced; the rename has happened all the same.
void flushDirectoryOf(const char *path) {
    const char *slash = strrchr(path, '/');
    const size_t length = slash == nullptr ? 1 : slash == path ? 1 : static_cast<size_t>(slash - path);
    auto *directory = static_cast<char *>(MemAllocateFromPool(length + 1, nullptr));
    memcpy(directory, slash == nullptr ? "." : slash == path ? "/" : path, length);
    const int fd = fh::retried([&] { return fh::sys().open(directory, O_RDONLY | O_DIRECTORY | O_CLOEXEC, 0); });
    if (fd == -1 || fh::retried([&] { return fh::sys().fsync(fd); }) != 0)
        fh::traceFailure(trace, kIdFlushDirectory, "Failed to flush the directory '%s' to the disk: %s", directory);
    if (fd != -1) fh::sys().close(fd);
    MemFreeInternal(&directory);
}

// Makes the rewrite's ".new" the file, and that rename last.
bool renameNew(FILE_STREAM *s) {
    const bool renamed = fh::retried([&] { return fh::sys().rename(s->pszNewPath, s->pszPath); }) == 0;
    if (renamed) flushDirectoryOf(s->pszPath);
    return renamed;
}

bool lockTheFile(FILE_STREAM *s, const char *path, int32_t access) {
    char *lockPath = withSuffix(path, ".lck");
    const bool opened = FileSysOpen(&s->iLockHandle, lockPath, FILE_MODE_LOCK_FILE);
    MemFreeInternal(&lockPath);
    if (!opened) {
        trace(kIdLockOpen, 0, 1, "FileStreamOpenTags - Failed to open lock file");
        return false;
    }
    if (!FileLockSet(s->iLockHandle, access == FILE_MODE_UPDATE ? FILE_LOCK_EXCLUSIVE : FILE_LOCK_SHARED)) {
        trace(kIdLockSet, 0, 1, "FileStreamOpenTags - Failed to set lock");
        return false;
    }
    return true;
}

bool openStream(FILE_STREAM **out, const OpenArgs &args) {
    if (out == nullptr || args.pszPath == nullptr || *args.pszPath == '\0') {
        trace(kIdBadArgs, 0, 1, "FileStreamOpenTags - bad args (%p, '%s')", static_cast<void *>(out),
              args.pszPath != nullptr ? args.pszPath : "(null)");
        return false;
    }
    auto *s = gStreamType.newInstance(nullptr);
    s->iLockHandle = -1;
    s->iMode = args.iMode;
    const int32_t access = accessOf(s);
    bool ok = !args.bLock || lockTheFile(s, args.pszPath, access);
    if (ok) {
        s->pszPath = StrDuplicateIntoPool(args.pszPath, nullptr);
        ok = FileSysFOpen(&s->pInput, s->pszPath, s->iMode);
    }
    if (ok && (access == FILE_MODE_WRITE || access == FILE_MODE_APPEND)) {
        ok = FileSysFOpen(&s->pOutput, s->pszPath, s->iMode) &&
             (!args.bLock || FileLockSet(FileHandleFromFILE(s->pOutput), FILE_LOCK_EXCLUSIVE));
    }
    if (!ok) {
        trace(kIdOpenFailed, 0, 1, "Failed to open file stream '%s'", args.pszPath);
        FileStreamClose(&s);
        return false;
    }
    *out = s;
    return true;
}

} // namespace

BOOL FileStreamOpen(FILE_STREAM **out, const char *path, int32_t mode) {
    return FileStreamOpenTags(out, -2, FILE_STREAM_TAG_PATH, path, FILE_STREAM_TAG_MODE, mode, FILE_STREAM_TAG_LOCK,
                              TRUE, -1);
}

BOOL FileStreamOpenTags(FILE_STREAM **out, int32_t first, ...) {
    ensureTemplates();
    auto *args = gArgsType.newInstance(nullptr);
    args->bLock = TRUE;
    if (first == -2) {
        va_list pairs;
        va_start(pairs, first);
        ObjSetFromTagsVAListInternal(args, pairs);
        va_end(pairs);
    }
    const bool opened = openStream(out, *args);
    ObjReleaseInternal(&args);
    return opened;
}

BOOL FileStreamClose(FILE_STREAM **streamAddress) {
    if (streamAddress == nullptr || *streamAddress == nullptr) return FALSE;
    FILE_STREAM *s = *streamAddress;
    const bool rewriting = s->pszNewPath != nullptr && s->pszPath != nullptr;
    if (rewriting && s->pOutput != nullptr) flushToDisk(s->pOutput, s->pszNewPath);
    const bool outputClosed = closeStream(s->pOutput);
    const bool inputClosed = closeStream(s->pInput);
    if (rewriting) renameNew(s);
    MemFreeInternal(&s->pszNewPath);
    MemFreeInternal(&s->pszPath);
    if (s->iLockHandle >= 0) FileSysClose(&s->iLockHandle); // only after the rename
    const BOOL result = outputClosed && inputClosed;
    trace(kIdClose, 0, 3, "%s = FileStreamClose(%#x)", fh::boolText(result),
          static_cast<unsigned>(reinterpret_cast<uintptr_t>(s)));
    ObjReleaseInternal(streamAddress);
    return result;
}

BOOL FileStreamGetPath(const char **out, const FILE_STREAM *stream) {
    if (out == nullptr || stream == nullptr || stream->pszPath == nullptr) return FALSE;
    *out = stream->pszPath;
    return TRUE;
}

BOOL FileStreamStartAppend(FILE_STREAM *stream) {
    if (stream == nullptr || accessOf(stream) != FILE_MODE_UPDATE) return FALSE;
    if (stream->pOutput != nullptr && !FileStreamCloseOutput(stream)) return FALSE;
    return FileSysFOpen(&stream->pOutput, stream->pszPath, FILE_MODE_TEXT | FILE_MODE_APPEND);
}

BOOL FileStreamStartRewrite(FILE_STREAM *stream) {
    if (stream == nullptr || accessOf(stream) != FILE_MODE_UPDATE) return FALSE;
    if (stream->pOutput != nullptr && !FileStreamCloseOutput(stream)) return FALSE;
    char *newPath = withSuffix(stream->pszPath, ".new");
    FILE *empty = nullptr; // creates the ".new", or empties a stale one
    bool ok = FileSysFOpen(&empty, newPath, FILE_MODE_TEXT | FILE_MODE_WRITE) && FileSysFClose(&empty) &&
              FileSysFOpen(&stream->pOutput, newPath, kindOf(stream) | FILE_MODE_APPEND);
    if (ok)
        stream->pszNewPath = newPath;
    else
        MemFreeInternal(&newPath);
    trace(kIdStartRewrite, 0, 3, "%s = FileStreamStartRewrite(%p)", fh::boolText(ok), static_cast<void *>(stream));
    return ok;
}

BOOL FileStreamCloseOutput(FILE_STREAM *stream) {
    if (stream == nullptr || stream->pOutput == nullptr) return FALSE;
    if (stream->pszNewPath == nullptr) {
        const bool closed = closeStream(stream->pOutput);
        if (stream->pInput != nullptr) fseek(stream->pInput, 0, SEEK_SET);
        return closed;
    }
    // New contents that did not reach the disk whole (a failed flush) are
    // not committed: the rewrite stays pending for the caller to cancel.
    if (!flushToDisk(stream->pOutput, stream->pszNewPath) || !closeStream(stream->pOutput)) return FALSE;
    closeStream(stream->pInput);
    const bool renamed = renameNew(stream);
    if (!renamed) FileDelete(stream->pszNewPath); // the file keeps its old contents
    MemFreeInternal(&stream->pszNewPath);
    return FileSysFOpen(&stream->pInput, stream->pszPath, kindOf(stream) | FILE_MODE_READ) && renamed;
}

BOOL FileStreamCancelRewrite(FILE_STREAM *stream) {
    if (stream == nullptr || stream->pszNewPath == nullptr) return FALSE;
    closeStream(stream->pOutput);
    FileDelete(stream->pszNewPath);
    MemFreeInternal(&stream->pszNewPath);
    if (stream->pInput != nullptr) fseek(stream->pInput, 0, SEEK_SET);
    return TRUE;
}

BOOL FileStreamReadByte(FILE_STREAM *stream, unsigned char *byte) {
    if (byte == nullptr) return FALSE;
    const int c = stream != nullptr && stream->pInput != nullptr ? fgetc(stream->pInput) : EOF;
    *byte = c == EOF ? 0 : static_cast<unsigned char>(c);
    return c != EOF;
}

BOOL FileStreamRead(FILE_STREAM *stream, void *buffer, int32_t length, int32_t *count) {
    if (stream == nullptr || stream->pInput == nullptr || buffer == nullptr || length < 0 || count == nullptr)
        return FALSE;
    const size_t got = fread(buffer, 1, static_cast<size_t>(length), stream->pInput);
    *count = static_cast<int32_t>(got);
    return got > 0 || !ferror(stream->pInput);
}

BOOL FileStreamWriteByte(FILE_STREAM *stream, unsigned char byte) {
    if (stream != nullptr && stream->pOutput != nullptr && fputc(byte, stream->pOutput) != EOF) return TRUE;
    trace(kIdWriteByte, 0, 1, "%s = FileStreamWriteByte(%p, 0x%x)", "FALSE", static_cast<void *>(stream), byte);
    return FALSE;
}

BOOL FileStreamWrite(FILE_STREAM *stream, const void *buffer, int32_t length) {
    if (length == 0 && stream != nullptr && stream->pOutput != nullptr) return TRUE;
    if (stream != nullptr && length > 0 && FileSysFWrite(stream->pOutput, buffer, length)) return TRUE;
    trace(kIdWrite, 0, 1, "%s = FileStreamWrite(%p, %p, %ld)", "FALSE", static_cast<void *>(stream), buffer,
          static_cast<long>(length));
    return FALSE;
}

BOOL FileStreamPrintF(FILE_STREAM *stream, const char *format, ...) {
    if (stream == nullptr || stream->pOutput == nullptr || format == nullptr) return FALSE;
    va_list arguments;
    va_start(arguments, format);
    const int written = vfprintf(stream->pOutput, format, arguments);
    va_end(arguments);
    return written >= 0;
}

// A seek to a byte that the input's buffer still holds only moves the read
// pointer, where fseek would also set the kernel's offset again, a system
// call per seek that a scan going back and forth in a file pays thousands of
// times. The C library keeps the buffer's bytes between _IO_read_base and
// _IO_read_end, the next one at _IO_read_ptr, and ftell answers from its
// own count. Streams here never push bytes back, so the buffer is never a
// push-back area, and an input never holds unwritten output.
bool seekWithinBuffer(FILE *in, long target) {
    if (in->_IO_read_base == nullptr || in->_IO_write_ptr > in->_IO_write_base) return false;
    const long at = ftell(in);
    if (at < 0) return false;
    const long start = at - (in->_IO_read_ptr - in->_IO_read_base);
    if (target < start || target > at + (in->_IO_read_end - in->_IO_read_ptr)) return false;
    in->_IO_read_ptr = in->_IO_read_base + (target - start);
    in->_flags &= ~_IO_EOF_SEEN;
    return true;
}

bool seekTo(FILE *in, long target) { return seekWithinBuffer(in, target) || fseek(in, target, SEEK_SET) == 0; }

// Every seek acts on the input; FALSE for a null stream or input.
#define FH_INPUT_OR_FALSE(stream)                                                                                      \
    if ((stream) == nullptr || (stream)->pInput == nullptr) return FALSE

BOOL FileStreamSeek(FILE_STREAM *stream, fpos_t position) {
    FH_INPUT_OR_FALSE(stream);
    return fsetpos(stream->pInput, &position) == 0;
}

BOOL FileStreamGetOffset(fpos_t *position, FILE_STREAM *stream) {
    FH_INPUT_OR_FALSE(stream);
    return position != nullptr && fgetpos(stream->pInput, position) == 0;
}

BOOL FileStreamSeekFromLong(FILE_STREAM *stream, int32_t offset) {
    FH_INPUT_OR_FALSE(stream);
    return offset >= 0 && seekTo(stream->pInput, offset);
}

BOOL FileStreamGetOffsetLong(int32_t *offset, FILE_STREAM *stream) {
    FH_INPUT_OR_FALSE(stream);
    const long at = ftell(stream->pInput);
    if (offset == nullptr || at < 0 || at > INT32_MAX) return FALSE;
    *offset = static_cast<int32_t>(at);
    return TRUE;
}

BOOL FileStreamSeekRelative(FILE_STREAM *stream, int32_t offset) {
    FH_INPUT_OR_FALSE(stream);
    return fseek(stream->pInput, offset, SEEK_CUR) == 0;
}

BOOL FileStreamSeekStart(FILE_STREAM *stream) {
    FH_INPUT_OR_FALSE(stream);
    return seekTo(stream->pInput, 0);
}

BOOL FileStreamSeekEnd(FILE_STREAM *stream) {
    FH_INPUT_OR_FALSE(stream);
    return fseek(stream->pInput, 0, SEEK_END) == 0;
}
