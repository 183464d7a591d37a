// The path module reads two files that other programs write: the first line
// of the registry file that names the home directory, and the mount table.
// Each input is written to a file of the fuzzer's own and read as both; it
// is also taken as a path and split into components. Nothing may crash or
// leak, and a relative path that splits into components joins back to
// itself less one trailing "/".
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "core/fhcore.h"
#include "objcore.h"
#include "seams.h"
#include "leakcheck.h"

namespace {

char gFile[] = "/tmp/path_fuzz-XXXXXX";
int gHandle = -1;


void readFiles(const uint8_t *data, size_t size) {
    if (ftruncate(gHandle, 0) != 0 || pwrite(gHandle, data, size, 0) != static_cast<ssize_t>(size)) abort();
    char *home = nullptr;
    if (PathGetRegisteredHomeDir(&home) && (home[0] == '\0' || strchr(home, '\n') != nullptr)) abort();
    MemFreeInternal(&home);
    LIST *mounts = nullptr;
    if (!PathUnixMountPoints(&mounts)) abort();
    ObjReleaseInternal(&mounts);
}

void splitAndJoin(const std::string &path) {
    LIST *list = nullptr;
    if (!PathToComponentList(&list, path.c_str())) return;
    char *joined = nullptr;
    if (!PathFromComponentList(&joined, list)) abort();
    std::string expected = path;
    if (!expected.empty() && expected.back() == '/' && StrLastCharMatch(path.c_str(), '/') == &path.back())
        expected.pop_back();
    if (path[0] != '/' && expected != joined) abort();
    MemFreeInternal(&joined);
    ObjReleaseInternal(&list);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    gHandle = mkstemp(gFile);
    if (gHandle < 0) abort();
    unsetenv("FHHOME");
    fh::pathRegistryFile(gFile);
    fh::pathMountTable(gFile);
    ContextInitialize();
    atexit([] { unlink(gFile); });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size > 1 << 16) return 0;
    const InUse before;
    readFiles(data, size);
    const std::string text(reinterpret_cast<const char *>(data), strnlen(reinterpret_cast<const char *>(data), size));
    splitAndJoin(text);
    CHECK(!before.leaked());
    return 0;
}
