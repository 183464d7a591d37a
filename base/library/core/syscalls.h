// syscalls.h - the system calls of the file layer and the system module,
// through one table.
//
// These modules call the platform through fh::sys(), never directly, so
// that a test can make one call fail (or be interrupted) and check that the
// operation failed cleanly. Only tests switch entries; the table starts as
// the platform's own calls.
#ifndef FHCORE_SYSCALLS_H
#define FHCORE_SYSCALLS_H

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <type_traits>

#include "tracer.h"

namespace fh {

struct SystemCalls {
    int (*open)(const char *path, int flags, mode_t mode);
    int (*close)(int fd);
    ssize_t (*read)(int fd, void *buffer, size_t count);
    ssize_t (*write)(int fd, const void *buffer, size_t count);
    off_t (*lseek)(int fd, off_t offset, int whence);
    int (*ftruncate)(int fd, off_t length);
    int (*fcntlFlags)(int fd, int command, int flags); // F_GETFL, F_SETFL, F_SETFD
    int (*fcntlLock)(int fd, int command, struct flock *lock);
    int (*rename)(const char *from, const char *to);
    int (*fsync)(int fd);
    int (*unlink)(const char *path);
    int (*rmdir)(const char *path);
    int (*stat)(const char *path, struct stat *status);
    int (*lstat)(const char *path, struct stat *status);
    int (*fstat)(int fd, struct stat *status);
    DIR *(*opendir)(const char *path);
    struct dirent *(*readdir)(DIR *directory);
    int (*gethostname)(char *name, size_t size); // the node name
    int (*statvfs)(const char *path, struct statvfs *status);
    int (*putenv)(char *entry);
};

// The table in use; tests change entries and put them back.
SystemCalls &sys();
// The platform's own calls.
const SystemCalls &platformCalls();

// Calls f until it is not interrupted by a signal (a failure is -1, or null
// for a call that gives a pointer).
template <typename F> auto retried(F f) {
    using Result = decltype(f());
    Result result;
    do {
        result = f();
    } while (errno == EINTR && [&] {
        if constexpr (std::is_pointer_v<Result>)
            return result == nullptr;
        else
            return result == -1;
    }());
    return result;
}

// Traces a failed call, the system's error text as the format's last
// argument, and keeps errno as the call left it.
template <typename... Args> void traceFailure(const ModuleTracer &tracer, int32_t id, const char *format, Args... args) {
    const int error = errno;
    tracer(id, error, 1, format, args..., strerror(error));
    errno = error;
}

} // namespace fh

#endif // FHCORE_SYSCALLS_H
