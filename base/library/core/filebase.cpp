// filebase.cpp - whole files by name: delete, copy, move and status.
//
// Each operation is a short sequence of calls of the layer below (or of the
// system call table), retried while interrupted. The copy is the one worker
// behind copying, appending and moving: blocks of 32768 bytes, one read and
// one write each, ending at the first short read.
#include "core/file.h"

#include <sys/stat.h>
#include <sys/time.h>

#include "core/filesys.h"
#include "core/memory.h"
#include "core/sys.h"
#include "syscalls.h"
#include "tracer.h"

namespace {

constexpr fh::ModuleTracer trace{"FILE        "};

enum TraceId : int32_t {
    kIdDeleteFailed = 1,
    kIdDestroyNull = 2,
    kIdDirDestroyNull = 3,
    kIdTryCopy = 4,
    kIdDeleteOriginal = 5,
    kIdSizeStat = 6,
    kIdStatNull = 7,
    kIdStatFailed = 8,
    kIdFstatFailed = 9,
};

constexpr int32_t kCopyBlock = 32768;

bool removeFile(const char *path) { return fh::retried([&] { return fh::sys().unlink(path); }) == 0; }
bool removeDirectory(const char *path) { return fh::retried([&] { return fh::sys().rmdir(path); }) == 0; }

void fill(SYS_STAT *out, const struct stat &s) {
    if (out == nullptr) return;
    *out = {static_cast<int64_t>(s.st_size),
            static_cast<int64_t>(s.st_blocks),
            static_cast<int32_t>(s.st_mode),
            static_cast<int32_t>(s.st_ino),
            static_cast<int32_t>(s.st_dev),
            static_cast<int32_t>(s.st_rdev),
            static_cast<int32_t>(s.st_nlink),
            static_cast<int32_t>(s.st_uid),
            static_cast<int32_t>(s.st_gid),
            512,
            // Times in the record are 32-bit seconds, narrowed on purpose.
            static_cast<int32_t>(s.st_atime),
            static_cast<int32_t>(s.st_mtime),
            static_cast<int32_t>(s.st_ctime),
            0};
}

} // namespace

BOOL FileDelete(const char *path) {
    if (path != nullptr && removeFile(path)) return TRUE;
    trace(kIdDeleteFailed, errno, 1, "FileDelete failed to delete file '%s'", path != nullptr ? path : "(null)");
    return FALSE;
}

BOOL FileDestroy(const char *path) {
    if (path == nullptr) {
        trace(kIdDestroyNull, 0, 1, "NULL string passed to FileDestroy");
        return FALSE;
    }
    return removeFile(path);
}

BOOL FileDirDelete(const char *path) { return path != nullptr && removeDirectory(path); }

BOOL FileDirDestroy(const char *path) {
    if (path == nullptr) {
        trace(kIdDirDestroyNull, 0, 1, "NULL string passed to FileDirDestroy");
        return FALSE;
    }
    return removeDirectory(path);
}

BOOL FileIsDir(const char *path) {
    struct stat s {};
    return path != nullptr && fh::retried([&] { return fh::sys().stat(path, &s); }) == 0 && S_ISDIR(s.st_mode);
}

BOOL FileCopy(const char *source, const char *destination) {
    return FileCopyMoveAppendInternal(destination, source, FALSE, FALSE);
}

BOOL FileCopyMoveAppendInternal(const char *destination, const char *source, BOOL append, BOOL deleteSource) {
    int32_t from = -1, to = -1;
    if (!FileSysOpen(&from, source, FILE_MODE_READ)) return FALSE;
    if (!FileSysOpen(&to, destination, append == 1 ? FILE_MODE_APPEND : FILE_MODE_WRITE)) {
        FileSysClose(&from);
        return FALSE;
    }
    char *block = static_cast<char *>(MemAllocateFromPool(kCopyBlock, nullptr));
    bool ok = true;
    for (int32_t got = kCopyBlock; ok && got == kCopyBlock;) {
        int32_t put = 0;
        ok = FileSysRead(&got, from, block, kCopyBlock) && FileSysWrite(&put, to, block, got) && put == got;
    }
    MemFreeInternal(&block);
    FileSysClose(&from);
    ok = FileSysClose(&to) && ok;
    if (ok && deleteSource == 1) return FileDelete(source);
    return ok;
}

BOOL FileRenameAndMove(const char *oldPath, const char *newPath) {
    if (oldPath == nullptr || newPath == nullptr) return FALSE;
    if (fh::retried([&] { return fh::sys().rename(oldPath, newPath); }) == 0) return TRUE;
    trace(kIdTryCopy, errno, 2, "Try copy+delete instead of simple move");
    if (!FileCopy(oldPath, newPath)) return FALSE;
    if (FileDelete(oldPath)) return TRUE;
    trace(kIdDeleteOriginal, errno, 1, "Delete of original file failed");
    FileDelete(newPath);
    return FALSE;
}

BOOL FileSize(int32_t *size, const char *path) {
    if (size == nullptr || path == nullptr || *path == '\0') return FALSE;
    struct stat s {};
    if (fh::retried([&] { return fh::sys().stat(path, &s); }) != 0) {
        fh::traceFailure(trace, kIdSizeStat, "Stat failed: %s");
        return FALSE;
    }
    *size = static_cast<int32_t>(s.st_size); // the low word, as callers expect
    return TRUE;
}

BOOL FileChangeMode(const char *path, int32_t mode) {
    return path != nullptr && fh::retried([&] { return chmod(path, static_cast<mode_t>(mode)); }) == 0;
}

BOOL FileChangeOwner(const char *path, int32_t owner, int32_t group) {
    return path != nullptr &&
           fh::retried([&] { return chown(path, static_cast<uid_t>(owner), static_cast<gid_t>(group)); }) == 0;
}

BOOL FileStat(SYS_STAT *out, const char *path, int32_t follow) {
    if (path == nullptr) {
        return trace.fault(FALSE, kIdStatNull, 0, "FileStat passed NULL file name");
    }
    struct stat s {};
    if (fh::retried([&] { return follow == 1 ? fh::sys().stat(path, &s) : fh::sys().lstat(path, &s); }) != 0) {
        fh::traceFailure(trace, kIdStatFailed, "Failed to stat '%s': %s", path);
        return FALSE;
    }
    fill(out, s);
    return TRUE;
}

BOOL FileStatHandle(SYS_STAT *out, int32_t handle) {
    if (handle == -1) return FALSE;
    struct stat s {};
    if (fh::retried([&] { return fh::sys().fstat(handle, &s); }) != 0) {
        fh::traceFailure(trace, kIdFstatFailed, "Failed to fstat handle: %s");
        return FALSE;
    }
    fill(out, s);
    return TRUE;
}

BOOL FileHaveAccess(const char *path, int32_t kind) {
    const int how = kind == FILE_ACCESS_READ ? R_OK : kind == FILE_ACCESS_WRITE ? W_OK : kind == FILE_ACCESS_EXECUTE ? X_OK : F_OK;
    return path != nullptr && fh::retried([&] { return access(path, how); }) == 0;
}

BOOL FileChangeTimes(const char *path, int32_t accessTime, int32_t modifyTime) {
    const timeval times[2] = {{accessTime, 0}, {modifyTime, 0}};
    return path != nullptr && fh::retried([&] { return utimes(path, times); }) == 0;
}
