// sys.cpp - system services: the machine's name, sleeping, environment
// variables, resource limits, file status objects, free disk space and
// sizes as text.
//
// Static state: the machine name, looked up once and owned by the module
// (null until then), the SYS_STAT template and the module's pool. The
// module also keeps the table of system calls through which the file layer
// and this module reach the platform (syscalls.h). It has no per-context
// state: SysReleaseThread only traces.
#include "core/sys.h"

#include <sys/resource.h>
#include <sys/select.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "core/config.h"
#include "core/context.h"
#include "core/file.h"
#include "core/locale.h"
#include "core/memory.h"
#include "core/net.h"
#include "core/object.h"
#include "core/strbase.h"
#include "objcore.h"
#include "seams.h"
#include "syscalls.h"
#include "tracer.h"

namespace {

constexpr fh::ModuleTracer trace{"SYSTEM        "};

enum TraceId : int32_t {
    kIdMachineName = 1,
    kIdNoNodeName = 2,
    kIdRelease = 12,
    kIdReleased = 13,
    kIdUnlimit = 14,
    kIdDiskFree = 19,
    kIdBadEnvName = 20,
    kIdPutEnv = 21,
    kIdLimit = 22,
};

// The longest machine name the platform's node name gives.
constexpr size_t kMachineNameMax = 63;

MemPool *gPool = nullptr;
constinit fh::ObjectType<SYS_STAT> gStatType{SYS_STAT_MAGIC, SYS_STAT_FORMAT};
char *gMachineName = nullptr;

MemPool *pool() { return gPool != nullptr ? gPool : (gPool = MemGetDefaultPoolId()); }

int openFile(const char *path, int flags, mode_t mode) { return open(path, flags, mode); }
int fcntlFlags(int fd, int command, int flags) { return fcntl(fd, command, flags); }
int fcntlLock(int fd, int command, struct flock *lock) { return fcntl(fd, command, lock); }

constexpr fh::SystemCalls kPlatform = {
    openFile, ::close,  ::read,  ::write, ::lseek, ::ftruncate, fcntlFlags,    fcntlLock, ::rename, ::fsync,
    ::unlink, ::rmdir,  ::stat,  ::lstat, ::fstat, ::opendir,   ::readdir,     ::gethostname, ::statvfs, ::putenv,
};
fh::SystemCalls gCalls = kPlatform;

// Makes a SYS_STAT, fills it with stat, and hands it out on success.
template <typename Stat> BOOL statObject(SYS_STAT **out, Stat stat) {
    if (out == nullptr) return stat(nullptr);
    auto *object = gStatType.newInstance(nullptr);
    if (!stat(object)) {
        ObjReleaseInternal(&object);
        return FALSE;
    }
    *out = object;
    return TRUE;
}

// The platform's node name cut to kMachineNameMax bytes in node, or false.
bool nodeName(char (&node)[256]) {
    if (fh::sys().gethostname(node, sizeof node - 1) != 0) {
        fh::traceFailure(trace, kIdNoNodeName, "SysLocalMachineName: no node name: %s");
        return false;
    }
    node[sizeof node - 1] = '\0';
    if (strlen(node) > kMachineNameMax) node[kMachineNameMax] = '\0';
    return true;
}

// The wait of SysSleep: NetSelectRelative on an empty select mask, for
// milliseconds, without limit when negative. True when the time ran out;
// false when a signal, or a failure of select, ended it.
bool waitOnNothing(int32_t milliseconds) {
    NetSelectMask empty{};
    FD_ZERO(&empty.oRead);
    FD_ZERO(&empty.oWrite);
    FD_ZERO(&empty.oException);
    return NetSelectRelative(nullptr, &empty, milliseconds) == NET_ERROR_TIMEOUT;
}

// How a size is shown: values below `below` in this unit, rounded up after
// the shift. The 32-bit form's label numbers lie kNarrowLabels further on.
struct SizeUnit {
    int64_t below;
    int shift;
    const char *label;
    int32_t number;
};
constexpr SizeUnit kUnits[] = {
    {10240, 0, "bytes", 532},
    {10485760, 10, "Kbytes", 533},
    {INT64_MAX, 20, "Mbytes", 534},
};
constexpr int32_t kNarrowLabels = 3;

const SizeUnit &unitOf(int64_t value, bool wide) {
    if (value < 0) return kUnits[0];
    if (wide && (static_cast<uint64_t>(value) >> 32) != 0) return kUnits[2];
    const SizeUnit *unit = kUnits;
    while (value >= unit->below) ++unit;
    return *unit;
}

BOOL unitString(char **out, int64_t value, bool wide) {
    if (out == nullptr) return FALSE;
    const SizeUnit &unit = unitOf(value, wide);
    const uint64_t round = (uint64_t{1} << unit.shift) - 1;
    const int64_t shown =
        unit.shift == 0 ? value : static_cast<int64_t>((static_cast<uint64_t>(value) + round) >> unit.shift);
    char *number = nullptr;
    StrFromInt64(&number, shown);
    *out = StrCat(number, " ", LocaleGetStaticString(unit.label, unit.number + (wide ? 0 : kNarrowLabels)), nullptr);
    MemFreeInternal(&number);
    return TRUE;
}

// RLIMIT_FSIZE with the soft limit, and the hard one too if both, lifted.
bool unlimitFileSize(bool both) {
    rlimit limit;
    if (getrlimit(RLIMIT_FSIZE, &limit) != 0) return false;
    limit.rlim_cur = RLIM_INFINITY;
    if (both) limit.rlim_max = RLIM_INFINITY;
    if (setrlimit(RLIMIT_FSIZE, &limit) == 0) return true;
    fh::traceFailure(trace, kIdLimit, "setrlimit(RLIMIT_FSIZE) failed: %s");
    return false;
}

} // namespace

fh::SystemCalls &fh::sys() { return gCalls; }
const fh::SystemCalls &fh::platformCalls() { return kPlatform; }

void fh::sysForgetMachineName() { MemFreeInternal(&gMachineName); }

const char *SysLocalMachineName(void) {
    if (gMachineName != nullptr) return gMachineName;
    trace(kIdMachineName, 0, 3, "Get machine name");
    char node[256] = {};
    char *name = nullptr;
    CfgGetString(&name, "configure.cfg", "Machine", "Name", nodeName(node) ? node : nullptr);
    if (gMachineName != nullptr) // set while the configuration was read: that one wins
        MemFreeInternal(&name);
    else
        gMachineName = name;
    return gMachineName;
}

BOOL SysSetLocalMachineName(const char *name) {
    if (name == nullptr) return FALSE;
    char *copy = StrDuplicateIntoPool(name, pool());
    MemFreeInternal(&gMachineName);
    gMachineName = copy;
    return TRUE;
}

BOOL SysSleep(int32_t seconds) {
    constexpr int32_t kMostSeconds = INT32_MAX / 1000; // what milliseconds can hold
    return waitOnNothing((seconds < kMostSeconds ? seconds : kMostSeconds) * 1000);
}

uint32_t SysConvertToMegs(int64_t bytes) { return static_cast<uint32_t>(static_cast<uint64_t>(bytes) >> 20); }

BOOL SysInt64ToUnitString(char **out, int64_t value) { return unitString(out, value, true); }
BOOL SysIntegerToUnitString(char **out, int32_t value) { return unitString(out, value, false); }

int64_t SysUnpackInt64(const unsigned char *bytes) {
    if (bytes == nullptr) return 0;
    uint64_t value = 0;
    for (int i = 7; i >= 0; --i) value = value << 8 | bytes[i];
    return static_cast<int64_t>(value);
}

BOOL SysSetEnvString(const char *name, const char *value) {
    if (name == nullptr || name[0] == '\0' || strchr(name, '=') != nullptr) {
        return trace.fault(FALSE, kIdBadEnvName, 0, "SysSetEnvString(%s) - bad name", name != nullptr ? name : "(null)");
    }
    char *entry = StrCat(name, "=", value != nullptr ? value : "", nullptr);
    if (fh::sys().putenv(entry) == 0) return TRUE; // the environment keeps entry
    fh::traceFailure(trace, kIdPutEnv, "SysSetEnvString(%s) failed: %s", name);
    MemFreeInternal(&entry);
    return FALSE;
}

BOOL SysSetEnvInteger(const char *name, int32_t value) {
    char text[16];
    snprintf(text, sizeof text, "%ld", static_cast<long>(value));
    return SysSetEnvString(name, text);
}

BOOL SysGetEnvString(char **out, const char *name) {
    const char *value = out != nullptr && name != nullptr ? getenv(name) : nullptr;
    if (value == nullptr) return FALSE;
    *out = StrDuplicateIntoPool(value, pool());
    return TRUE;
}

BOOL SysGetEnvInteger(int32_t *out, const char *name) {
    const char *value = out != nullptr && name != nullptr ? getenv(name) : nullptr;
    if (value == nullptr) return FALSE;
    *out = 0;
    return StrToInteger(value, out);
}

BOOL SysMaxFileLimit(void) {
    trace(kIdUnlimit, 0, 0, "Unlimiting file size limit");
    umask(0);
    return unlimitFileSize(true);
}

int32_t SysSetLimits(void) { return unlimitFileSize(false) ? 0 : -1; }

BOOL SysStat(const char *path, SYS_STAT **out, int32_t follow) {
    return statObject(out, [&](SYS_STAT *s) { return FileStat(s, path, follow); });
}

BOOL SysStatHandle(SYS_STAT **out, int32_t handle) {
    return statObject(out, [&](SYS_STAT *s) { return FileStatHandle(s, handle); });
}

BOOL SysGetDiskFreeSpace(int64_t *bytes, int32_t *percent, const char *path) {
    struct statvfs status;
    if (path == nullptr || fh::retried([&] { return fh::sys().statvfs(path, &status); }) != 0) {
        const int error = errno;
        trace(kIdDiskFree, error, -1, "SysGetDiskFreeSpace(): failed to statvfs %s", path != nullptr ? path : "(null)");
        errno = error;
        return FALSE;
    }
    const uint64_t free = status.f_bfree, total = status.f_blocks;
    const uint64_t unit = status.f_frsize != 0 ? status.f_frsize : status.f_bsize;
    uint64_t freeBytes = 0;
    if (bytes != nullptr)
        *bytes = __builtin_mul_overflow(free, unit, &freeBytes) || freeBytes > INT64_MAX
                     ? INT64_MAX
                     : static_cast<int64_t>(freeBytes);
    if (percent != nullptr) {
        // A hundredth of the blocks, exact below 100 blocks, and 0 % of none;
        // never above 100.
        const uint64_t share = total >= 100 ? free / (total / 100) : total != 0 ? free * 100 / total : 0;
        *percent = static_cast<int32_t>(share < 100 ? share : 100);
    }
    return TRUE;
}

BOOL SysSetLocale(void) { return FALSE; }
BOOL SysIsDefaultLocale(void) { return TRUE; }

BOOL SysInitialize(void) {
    return gStatType.declare();
}

BOOL SysInitializeThread(void) { return TRUE; }

void SysReleaseThread(LmContext *context) {
    trace(kIdRelease, 0, 3, "SysReleaseThread(%p)", static_cast<void *>(context));
    trace(kIdReleased, 0, 3, "exiting SysReleaseThread(%p)", static_cast<void *>(context));
}
