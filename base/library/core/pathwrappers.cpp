// pathwrappers.cpp - directories: change, create, recursive removal, the
// directory lock and the list of mounted file systems.
//
// Recursive removal is one worker for both forms (Remove traces failures of
// the operating system through FileDelete and FileDirDelete, Destroy is quiet
// through FileDestroy and FileDirDestroy). It decides "directory" by the
// entry itself, never through a symbolic link, so a link to a directory is
// removed as a link and nothing outside the tree is touched.
#include "core/path.h"

#include <mntent.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "core/file.h"
#include "core/filesys.h"
#include "core/list.h"
#include "core/memory.h"
#include "core/object.h"
#include "core/strbase.h"
#include "objcore.h"
#include "seams.h"
#include "tracer.h"

namespace {

constexpr fh::ModuleTracer trace{"PATH        "};

enum TraceId : int32_t {
    kIdChangeNull = 20,
    kIdChangeFailed = 21,
    kIdCreateNull = 22,
    kIdCreateFailed = 23,
    kIdRemoveArgs = 24,
    kIdDeletingFile = 25,
    kIdDeletingDir = 26,
    kIdLockParams = 27,
    kIdNotADirectory = 28,
    kIdLockOpen = 29,
    kIdLockSet = 30,
    kIdLocked = 31,
    kIdMunged = 32,
    kIdReleased = 33,
};

constexpr size_t kLongestWorkingDirectory = 2048;

constinit fh::ObjectType<PATH_LOCK> gLockType{PATH_LOCK_MAGIC, PATH_LOCK_FORMAT};

constinit fh::ObjectType<PATH_FH_MOUNT_POINT> gMountType{PATH_FH_MOUNT_POINT_MAGIC, PATH_FH_MOUNT_POINT_FORMAT};

void ensureTemplates() {
    gLockType.declare();
    gMountType.declare();
}

// The entry itself is a directory (a symbolic link never is).
bool isRealDirectory(const char *path) {
    struct stat s {};
    return lstat(path, &s) == 0 && S_ISDIR(s.st_mode);
}

struct Removal {
    bool quiet;
    const char *name;        // of the operation, for its traces
    const char *fileText;    // "DELETING FILE '%s'" or "Deleting file '%s'"
    const char *dirText;
    BOOL (*deleteFile)(const char *);
    BOOL (*deleteDir)(const char *);
};
constexpr Removal kRemove{false, "PathRemoveDirectory", "DELETING FILE '%s'", "DELETING DIR: '%s'", FileDelete,
                          FileDirDelete};
constexpr Removal kDestroy{true, "PathDestroyDirectory", "Deleting file '%s'", "Deleting dir: '%s'", FileDestroy,
                           FileDirDestroy};

BOOL removeTree(const Removal &how, const char *path);

BOOL removeEntry(const char *directory, const char *entry, void *user) {
    const Removal &how = *static_cast<const Removal *>(user);
    char *path = PathBuild(directory, entry, static_cast<char *>(nullptr));
    BOOL result = FALSE;
    if (isRealDirectory(path)) {
        result = removeTree(how, path);
    } else {
        trace(kIdDeletingFile, 0, 3, how.fileText, path);
        result = how.deleteFile(path);
    }
    MemFreeInternal(&path);
    return result;
}

BOOL removeTree(const Removal &how, const char *path) {
    if (path == nullptr || !isRealDirectory(path)) {
        trace(kIdRemoveArgs, 0, 2, "Bad args to %s", how.name);
        return FALSE;
    }
    if (!DirScan(path, removeEntry, const_cast<Removal *>(&how))) return FALSE;
    trace(kIdDeletingDir, 0, 3, how.dirText, path);
    how.deleteDir(path);
    return TRUE;
}

int32_t mountClass(const char *type) {
    static constexpr const char *kPseudo[] = {"proc", "swap", "devpts", "cachefs", "autofs",
                                              "fd",   "tmpfs", "shm",   "usbdevfs"};
    for (const char *pseudo : kPseudo)
        if (strcmp(type, pseudo) == 0) return PATH_MOUNT_PSEUDO;
    return strcmp(type, "nfs") == 0 || strcmp(type, "smbfs") == 0 ? PATH_MOUNT_NETWORK : PATH_MOUNT_LOCAL;
}

void fillFigures(PATH_FH_MOUNT_POINT *m, const char *directory) {
    struct statfs s {};
    if (statfs(directory, &s) != 0) return;
    const int64_t block = s.f_bsize != 0 ? static_cast<int64_t>(s.f_bsize) : 512;
    m->total_bytes = block * static_cast<int64_t>(s.f_blocks);
    m->used_bytes = m->total_bytes - block * static_cast<int64_t>(s.f_bfree);
    m->available_bytes = block * static_cast<int64_t>(s.f_bavail);
    m->total_files = static_cast<int64_t>(s.f_files);
    m->used_files = m->total_files - static_cast<int64_t>(s.f_ffree);
}

} // namespace

namespace fh {
const char *gMountTable = "/etc/mtab";
void pathMountTable(const char *file) { gMountTable = file != nullptr ? file : "/etc/mtab"; }
} // namespace fh

BOOL PathSetDirectory(const char *path) {
    if (path == nullptr) {
        trace(kIdChangeNull, 0, 2, "Error: asked to change to (null) directory");
        return FALSE;
    }
    int result = 0;
    do {
        result = chdir(path);
    } while (result != 0 && errno == EINTR);
    if (result == 0) return TRUE;
    trace(kIdChangeFailed, errno, 2, "PathBuild: chdir gave error: %s", strerror(errno));
    return FALSE;
}

BOOL PathCreateDirectory(const char *path) {
    if (path == nullptr) {
        trace(kIdCreateNull, 0, 2, "Error: asked to create (null) directory");
        return FALSE;
    }
    umask(0);
    if (mkdir(path, 0700) == 0) return TRUE;
    const int error = errno;
    trace(kIdCreateFailed, error, 2, "Failed to created directory '%s': %s", path, strerror(error));
    errno = error;
    return FALSE;
}

BOOL PathIsADirectory(const char *path) { return FileIsDir(path); }

BOOL PathGetCurrentDirectory(char **out) {
    char directory[kLongestWorkingDirectory];
    if (out == nullptr || getcwd(directory, sizeof directory) == nullptr) return FALSE;
    *out = StrDuplicateIntoPool(directory, nullptr);
    return TRUE;
}

BOOL PathRemoveDirectory(const char *path) { return removeTree(kRemove, path); }
BOOL PathDestroyDirectory(const char *path) { return removeTree(kDestroy, path); }

int32_t PathLock(PATH_LOCK **out, const char *path, int32_t kind) {
    if (out == nullptr || path == nullptr || (kind != FILE_LOCK_SHARED && kind != FILE_LOCK_EXCLUSIVE)) {
        trace(kIdLockParams, 0, 2, "PathLockSharedRaed(%p, %s) - bad params", static_cast<void *>(out),
              path != nullptr ? path : "(null)");
        return 0;
    }
    if (!FileIsDir(path)) {
        trace(kIdNotADirectory, 0, 2, "Cannot lock - '%s' is not a directory", path);
        return 2;
    }
    ensureTemplates();
    auto *lock = gLockType.newInstance(nullptr);
    lock->iHandle = -1;
    lock->pszPath = StrCat(path, ".lck", static_cast<char *>(nullptr));
    if (!FileSysOpen(&lock->iHandle, lock->pszPath, FILE_MODE_LOCK_FILE)) {
        trace(kIdLockOpen, 0, 2, "Failed to open lock file '%s'", lock->pszPath);
        ObjReleaseInternal(&lock);
        return 0;
    }
    if (!FileLockSet(lock->iHandle, kind)) {
        trace(kIdLockSet, 0, 2, "Failed to set lock on directory lock file");
        FileSysClose(&lock->iHandle);
        ObjReleaseInternal(&lock);
        return 0;
    }
    trace(kIdLocked, 0, 3, "Locked directory '%s'", path);
    *out = lock;
    return 1;
}

BOOL PathUnLock(PATH_LOCK **lockAddress) {
    if (lockAddress == nullptr || *lockAddress == nullptr || fh::startMagic(*lockAddress) != PATH_LOCK_MAGIC) {
        trace(kIdMunged, 0, 2, "PathUnLock() - munged lock object");
        return FALSE;
    }
    PATH_LOCK *lock = *lockAddress;
    if (lock->iHandle != -1) FileSysClose(&lock->iHandle);
    trace(kIdReleased, 0, 3, "Released directory lock '%s'", lock->pszPath);
    return ObjReleaseInternal(lockAddress);
}

BOOL PathUnixMountPoints(LIST **out) {
    if (out == nullptr) return FALSE;
    FILE *table = setmntent(fh::gMountTable, "r");
    if (table == nullptr) return FALSE;
    ensureTemplates();
    LIST *list = ListNewFromPool(PATH_FH_MOUNT_POINT_MAGIC, nullptr);
    for (const mntent *entry; (entry = getmntent(table)) != nullptr;) {
        if (strcmp(entry->mnt_type, "ignore") == 0) continue;
        auto *m = gMountType.newInstance(nullptr);
        m->mount_dir = StrDuplicateIntoPool(entry->mnt_dir, nullptr);
        m->device = StrDuplicateIntoPool(entry->mnt_fsname, nullptr);
        m->mount_class = mountClass(entry->mnt_type);
        if (m->mount_class == PATH_MOUNT_LOCAL) {
            m->type = StrDuplicateIntoPool(entry->mnt_type, nullptr);
            fillFigures(m, entry->mnt_dir);
        }
        ListPushLastItemInternal(list, &m);
    }
    endmntent(table);
    *out = list;
    return TRUE;
}
