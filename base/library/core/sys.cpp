// sys.cpp - system services: sleeping and file status objects.
//
// The module registers the SYS_STAT template and keeps the table of system
// calls through which the file layer reaches the platform (syscalls.h).
#include <ctime>

#include "internal.h"
#include "syscalls.h"

namespace {

constexpr fh::ModuleTracer trace{"SYS        "};

enum TraceId : int32_t { kIdRelease = 12, kIdReleased = 13 };

ObjectTemplate *gStatTemplate = nullptr;

int openFile(const char *path, int flags, mode_t mode) { return open(path, flags, mode); }
int fcntlFlags(int fd, int command, int flags) { return fcntl(fd, command, flags); }
int fcntlLock(int fd, int command, struct flock *lock) { return fcntl(fd, command, lock); }

constexpr fh::SystemCalls kPlatform = {
    openFile, ::close, ::read, ::write, ::lseek, ::ftruncate, fcntlFlags, fcntlLock,
    ::rename, ::fsync, ::unlink, ::rmdir, ::stat, ::lstat, ::fstat, ::opendir, ::readdir,
};
fh::SystemCalls gCalls = kPlatform;

// Makes a SYS_STAT, fills it with stat, and hands it out on success.
template <typename Stat> BOOL statObject(SYS_STAT **out, Stat stat) {
    if (out == nullptr) return stat(nullptr);
    auto *object = static_cast<SYS_STAT *>(ObjTemplateNewInstanceFromPool(gStatTemplate, nullptr));
    if (!stat(object)) {
        ObjReleaseInternal(&object);
        return FALSE;
    }
    *out = object;
    return TRUE;
}

} // namespace

fh::SystemCalls &fh::sys() { return gCalls; }
const fh::SystemCalls &fh::platformCalls() { return kPlatform; }

BOOL SysSleep(int32_t seconds) {
    timespec left{seconds > 0 ? seconds : 0, 0};
    while (nanosleep(&left, &left) != 0)
        if (errno != EINTR) return FALSE;
    return TRUE;
}

BOOL SysStat(const char *path, SYS_STAT **out, int32_t follow) {
    return statObject(out, [&](SYS_STAT *s) { return FileStat(s, path, follow); });
}

BOOL SysStatHandle(SYS_STAT **out, int32_t handle) {
    return statObject(out, [&](SYS_STAT *s) { return FileStatHandle(s, handle); });
}

BOOL SysInitialize(void) {
    return ObjTemplateCreateInternal(&gStatTemplate, sizeof(SYS_STAT), SYS_STAT_MAGIC, SYS_STAT_FORMAT, nullptr);
}

BOOL SysInitializeThread(void) { return TRUE; }

void SysReleaseThread(LmContext *context) {
    trace(kIdRelease, 0, 3, "SysReleaseThread(%p)", static_cast<void *>(context));
    trace(kIdReleased, 0, 3, "exiting SysReleaseThread(%p)", static_cast<void *>(context));
}
