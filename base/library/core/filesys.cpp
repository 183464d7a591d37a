// filesys.cpp - the lowest file layer: handles, streams and record locks.
//
// Every operation is one or two system calls through the table of
// syscalls.h, each retried while a signal interrupts it (close aside: on
// this platform a close that reports EINTR has released the descriptor, so
// it is never repeated). A failure is traced with the system's error text
// by fh::traceFailure(), which puts errno back as the call left it. Handles are opened
// with O_CLOEXEC, so no child that executes another program inherits one.
//
// The table kModes gives, per access mode, the open flags, the permission
// bits on creation and the two stream modes.
#include "core/filesys.h"

#include <sys/stat.h>

#include <cstring>

#include "core/file.h"
#include "core/memory.h"
#include "core/strbase.h"
#include "core/sys.h"
#include "syscalls.h"
#include "tracer.h"

namespace {

constexpr fh::ModuleTracer trace{"FILESYS        "};
constexpr fh::ModuleTracer lockTrace{"FILE        "};

enum TraceId : int32_t {
    kIdUnknownMode = 1,
    kIdOpenFailed = 2,
    kIdUnknownLockedMode = 3,
    kIdOpenLockedFailed = 4,
    kIdTruncate = 5,
    kIdClose = 6,
    kIdUnknownStreamMode = 7,
    kIdStreamOpenFailed = 8,
    kIdStreamBuild = 9,
    kIdGetFlags = 10,
    kIdSetSynchronous = 11,
    kIdRead = 12,
    kIdWrite = 13,
    kIdSeekStart = 14,
    kIdSeekEnd = 15,
    kIdSeek = 16,
    kIdSeekRelative = 17,
    kIdLock = 18,
};

struct AccessMode {
    int flags;
    mode_t permissions;
    const char *binary;
    const char *text;
};
constexpr AccessMode kModes[] = {
    {O_RDONLY, 0644, nullptr, nullptr},                     // 0: unknown, read only
    {O_RDONLY, 0644, "rb", "r"},                            // FILE_MODE_READ
    {O_WRONLY | O_CREAT | O_TRUNC, 0644, "wb", "w"},        // FILE_MODE_WRITE
    {O_WRONLY | O_CREAT | O_APPEND, 0644, "ab", "a"},       // FILE_MODE_APPEND
    {O_RDWR | O_CREAT, 0644, "rb+", "r+"},                  // FILE_MODE_UPDATE
    {O_RDWR | O_CREAT, 0644, "rb+", "r+"},                  // FILE_MODE_UPDATE_SHARED
    {O_RDWR | O_CREAT, 0666, nullptr, nullptr},             // FILE_MODE_LOCK_FILE
};

int openRetried(const char *path, int flags, mode_t permissions) {
    umask(0); // permission bits exactly as asked; never put back
    return fh::retried([&] { return fh::sys().open(path, flags | O_CLOEXEC, permissions); });
}

// A lock on the whole file: F_SETLKW (wait) or F_SETLK.
bool lockWhole(int fd, short type, bool wait) {
    struct flock lock {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    return fh::retried([&] { return fh::sys().fcntlLock(fd, wait ? F_SETLKW : F_SETLK, &lock); }) == 0;
}

void closeQuietly(int fd) {
    const int error = errno;
    fh::sys().close(fd);
    errno = error;
}

BOOL seek(int32_t handle, off_t offset, int whence, int32_t id, const char *what) {
    if (fh::retried([&] { return fh::sys().lseek(handle, offset, whence); }) != -1) return TRUE;
    fh::traceFailure(trace, id, what);
    return FALSE;
}

BOOL setLock(int32_t handle, int32_t kind, bool wait) {
    if (kind != FILE_LOCK_SHARED && kind != FILE_LOCK_EXCLUSIVE) return FALSE;
    if (lockWhole(handle, kind == FILE_LOCK_SHARED ? F_RDLCK : F_WRLCK, wait)) return TRUE;
    if (wait || (errno != EAGAIN && errno != EACCES)) {
        const int error = errno;
        lockTrace(kIdLock, error, 1, "fcntl failed to set lock");
        errno = error;
    }
    return FALSE;
}

BOOL ownerCannotWrite(BOOL gotStatus, const SYS_STAT &status) { return gotStatus && (status.mode & 0200) == 0; }

} // namespace

BOOL FileSysOpen(int32_t *out, const char *path, int32_t mode) {
    if (out == nullptr || path == nullptr) return FALSE;
    int32_t access = FILE_MODE_ACCESS(mode);
    if (access == 0 || access > FILE_MODE_LOCK_FILE) {
        trace(kIdUnknownMode, 0, 1, "Unknown File mode %d in FileSysOpen", mode);
        access = 0;
    }
    const AccessMode &m = kModes[access];
    int fd = openRetried(path, m.flags, m.permissions);
    if (fd == -1 && (m.flags & O_TRUNC) != 0) fd = openRetried(path, m.flags & ~O_TRUNC, m.permissions);
    if (fd == -1) {
        fh::traceFailure(trace, kIdOpenFailed, "Failed to open %s error %s", path);
        return FALSE;
    }
    *out = fd;
    return TRUE;
}

BOOL FileSysOpenLocked(int32_t *out, const char *path, int32_t mode) {
    const int32_t access = FILE_MODE_ACCESS(mode);
    if (out == nullptr || path == nullptr || (access != FILE_MODE_READ && access != FILE_MODE_WRITE)) {
        trace(kIdUnknownLockedMode, 0, 1, "Unknown File mode %d in FileSysOpenLock", mode);
        return FALSE;
    }
    int fd = -1;
    bool ok = false;
    if (access == FILE_MODE_READ) {
        fd = openRetried(path, O_RDONLY, 0644);
        ok = fd != -1 && lockWhole(fd, F_RDLCK, true);
    } else {
        char *newPath = StrCat(path, ".new", static_cast<char *>(nullptr));
        fd = openRetried(newPath, O_WRONLY | O_CREAT | O_TRUNC, 0644);
        ok = fd != -1 && lockWhole(fd, F_WRLCK, false) &&
             fh::retried([&] { return fh::sys().rename(newPath, path); }) == 0;
        MemFreeInternal(&newPath);
    }
    if (!ok) {
        if (fd != -1) closeQuietly(fd);
        fh::traceFailure(trace, kIdOpenLockedFailed, "Failed to open lock file '%s': %s", path);
        return FALSE;
    }
    *out = fd;
    return TRUE;
}

BOOL FileSysTruncate(int32_t handle) {
    if (handle == -1) return FALSE;
    const off_t offset = fh::retried([&] { return fh::sys().lseek(handle, 0, SEEK_CUR); });
    if (offset != -1 && fh::retried([&] { return fh::sys().ftruncate(handle, static_cast<int32_t>(offset)); }) == 0)
        return TRUE;
    fh::traceFailure(trace, kIdTruncate, "Failed to truncate file: %s");
    return FALSE;
}

BOOL FileSysClose(int32_t *handle) {
    if (handle == nullptr || *handle == -1) return FALSE;
    if (fh::sys().close(*handle) != 0 && errno != EINTR) {
        fh::traceFailure(trace, kIdClose, "Failed to close file: %s");
        return FALSE;
    }
    *handle = -1;
    return TRUE;
}

BOOL FileSysFOpen(FILE **out, const char *path, int32_t mode) {
    const int32_t access = FILE_MODE_ACCESS(mode), kind = mode & ~0xF;
    if (out == nullptr || path == nullptr || access < FILE_MODE_READ || access > FILE_MODE_UPDATE_SHARED ||
        (kind != FILE_MODE_BINARY && kind != FILE_MODE_TEXT)) {
        trace(kIdUnknownStreamMode, 0, 1, "Unknown file mode in FileSysFOpen %d", mode);
        return FALSE;
    }
    int32_t fd = -1;
    if (!FileSysOpen(&fd, path, mode)) {
        trace(kIdStreamOpenFailed, 0, 1, "Failed to open file \"%s\"", path);
        return FALSE;
    }
    FILE *stream = fdopen(fd, kind == FILE_MODE_BINARY ? kModes[access].binary : kModes[access].text);
    if (stream == nullptr) {
        fh::traceFailure(trace, kIdStreamBuild, "Failed to build stream on file '%s': %s", path);
        closeQuietly(fd);
        return FALSE;
    }
    fh::retried([&] { return fh::sys().fcntlFlags(fd, F_SETFD, FD_CLOEXEC); });
    *out = stream;
    return TRUE;
}

BOOL FileSysFClose(FILE **stream) {
    if (stream == nullptr || *stream == nullptr) return FALSE;
    const bool closed = fclose(*stream) == 0;
    *stream = nullptr; // a failed fclose has let go of the stream all the same
    return closed;
}

BOOL FileSysFGetString(FILE *stream, char *buffer, int32_t size) {
    return stream != nullptr && buffer != nullptr && size > 0 && fgets(buffer, size, stream) != nullptr;
}

BOOL FileSysFPutString(FILE *stream, const char *text) {
    return stream != nullptr && text != nullptr && fputs(text, stream) >= 0;
}

BOOL FileSysFWrite(FILE *stream, const void *buffer, int32_t length) {
    if (stream == nullptr || buffer == nullptr || length < 0) return FALSE;
    const auto *at = static_cast<const char *>(buffer);
    for (size_t left = static_cast<size_t>(length); left > 0;) {
        const size_t written = fwrite(at, 1, left, stream);
        if (written == 0) return FALSE;
        at += written;
        left -= written;
    }
    return TRUE;
}

int32_t FileHandleFromFILE(FILE *stream) { return stream != nullptr ? fileno(stream) : -1; }

void *FileSysDummy(void) { return MemAllocateFromPool(0, MemGetDefaultPoolId()); }

BOOL FileSysSynchronous(int32_t handle) {
    const int flags = fh::retried([&] { return fh::sys().fcntlFlags(handle, F_GETFL, 0); });
    if (flags == -1) {
        fh::traceFailure(trace, kIdGetFlags, "Failed to file status flags: %s");
        return FALSE;
    }
    if (fh::retried([&] { return fh::sys().fcntlFlags(handle, F_SETFL, flags | O_SYNC); }) == -1) {
        fh::traceFailure(trace, kIdSetSynchronous, "Failed to set synchronous I/O: %s");
        return FALSE;
    }
    return TRUE;
}

BOOL FileSysRead(int32_t *count, int32_t handle, void *buffer, int32_t length) {
    if (count == nullptr || length < 0) return FALSE;
    const ssize_t got = fh::retried([&] { return fh::sys().read(handle, buffer, static_cast<size_t>(length)); });
    if (got == -1) {
        fh::traceFailure(trace, kIdRead, "Failed to read: %s");
        return FALSE;
    }
    *count = static_cast<int32_t>(got);
    return TRUE;
}

BOOL FileSysWrite(int32_t *count, int32_t handle, const void *buffer, int32_t length) {
    if (count == nullptr || length < 0) return FALSE;
    const ssize_t put = fh::retried([&] { return fh::sys().write(handle, buffer, static_cast<size_t>(length)); });
    if (put == -1) {
        fh::traceFailure(trace, kIdWrite, "Failed to write: %s");
        return FALSE;
    }
    *count = static_cast<int32_t>(put);
    return TRUE;
}

BOOL FileSysSeekStart(int32_t handle) { return seek(handle, 0, SEEK_SET, kIdSeekStart, "Failed to seek to start of file: %s"); }
BOOL FileSysSeekEnd(int32_t handle) { return seek(handle, 0, SEEK_END, kIdSeekEnd, "Failed to seek to end of file: %s"); }
BOOL FileSysSeek(int32_t handle, int64_t offset) {
    return seek(handle, offset, SEEK_SET, kIdSeek, "Failed to seek file absolute: %s");
}
BOOL FileSysSeekRelative(int32_t handle, int64_t offset) {
    return seek(handle, offset, SEEK_CUR, kIdSeekRelative, "Failed to seek file relative: %s");
}

BOOL FileSysSkip(int32_t handle, int32_t offset) {
    return fh::retried([&] { return fh::sys().lseek(handle, offset, SEEK_CUR); }) != -1;
}

BOOL FileSysGetOffset(int64_t *offset, int32_t handle) {
    if (offset == nullptr) return FALSE;
    const off_t at = fh::retried([&] { return fh::sys().lseek(handle, 0, SEEK_CUR); });
    if (at == -1) return FALSE;
    *offset = at;
    return TRUE;
}

BOOL FileSysSize(int64_t *size, int32_t handle) {
    SYS_STAT status{};
    if (size == nullptr || !FileStatHandle(&status, handle)) return FALSE;
    *size = status.size;
    return TRUE;
}

BOOL FileExists(const char *path) {
    SYS_STAT status{};
    return FileStat(&status, path, 1) && !S_ISDIR(status.mode);
}

BOOL FileIsReadOnly(const char *path) {
    SYS_STAT status{};
    return ownerCannotWrite(FileStat(&status, path, 1), status);
}

BOOL FileHandleIsReadOnly(int32_t handle) {
    SYS_STAT status{};
    return ownerCannotWrite(FileStatHandle(&status, handle), status);
}

BOOL FileLockSet(int32_t handle, int32_t kind) { return setLock(handle, kind, true); }
BOOL FileLockSetNoWait(int32_t handle, int32_t kind) { return setLock(handle, kind, false); }
