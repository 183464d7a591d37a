// filewrappers.cpp - whole files in memory: load, save and compare.
//
// Load and save are one worker each, told by a small record of the kind
// (text or binary) what mode to open in and which texts to trace; both read
// or write the whole file in one call, as their callers expect.
#include "core/file.h"

#include <cstring>

#include "core/filesys.h"
#include "core/memory.h"
#include "tracer.h"

namespace {

constexpr fh::ModuleTracer trace{"FILEWRAP        "};

enum TraceId : int32_t {
    kIdBadParams = 1,
    kIdSize = 2,
    kIdOpen = 3,
    kIdRead = 5,
    kIdLoaded = 6,
    kIdWrite = 7,
    kIdSaved = 8,
    kIdMatchOpen = 9,
};

struct Kind {
    const char *name;
    const char *sizeFailure;
    int32_t readMode;
    int32_t writeMode;
    bool terminated;
};
constexpr Kind kText{"Text", "Load text file - failed to get file siez of '%s'", FILE_MODE_TEXT | FILE_MODE_READ, FILE_MODE_TEXT | FILE_MODE_WRITE, true};
constexpr Kind kBinary{"Binary", "LoadBinaryFile - failed to get file siez of '%s'", FILE_MODE_BINARY | FILE_MODE_READ, FILE_MODE_BINARY | FILE_MODE_WRITE, false};

constexpr int32_t kMatchBlock = 8192;

// Reads the whole of path into new memory (terminated for text).
bool load(const Kind &kind, void **out, int32_t *size, const char *path) {
    if (out == nullptr || path == nullptr) {
        trace(kIdBadParams, 0, 1, "Load%sFile - bad params.", kind.name);
        return false;
    }
    int32_t bytes = 0, handle = -1, got = 0;
    if (!FileSize(&bytes, path) || bytes < 0) {
        trace(kIdSize, 0, 1, kind.sizeFailure, path);
        return false;
    }
    if (!FileSysOpen(&handle, path, kind.readMode)) {
        trace(kIdOpen, 0, 1, "Load%sFile - couldn't open file '%s'", kind.name, path);
        return false;
    }
    char *memory = static_cast<char *>(MemAllocateFromPool(static_cast<size_t>(bytes) + (kind.terminated ? 1 : 0), nullptr));
    const bool whole = FileSysRead(&got, handle, memory, bytes) && got == bytes;
    FileSysClose(&handle);
    if (!whole) {
        trace(kIdRead, 0, 1, "Load%sFile - failed to read contents of file '%s'", kind.name, path);
        MemFreeInternal(&memory);
        return false;
    }
    if (kind.terminated) memory[bytes] = '\0';
    if (size != nullptr) *size = bytes;
    *out = memory;
    trace(kIdLoaded, 0, 3, "Successfully read contents of file '%s' to memory", path);
    return true;
}

bool save(const Kind &kind, const void *bytes, int32_t length, const char *path) {
    if (bytes == nullptr || path == nullptr || length < 1) {
        trace(kIdBadParams, 0, 1, "FileSave%s - bad params.", kind.name);
        return false;
    }
    int32_t handle = -1, put = 0;
    if (!FileSysOpen(&handle, path, kind.writeMode)) {
        trace(kIdOpen, 0, 1, "FileSave%s - couldn't open file '%s'", kind.name, path);
        return false;
    }
    const bool whole = FileSysWrite(&put, handle, bytes, length) && put == length;
    const bool closed = FileSysClose(&handle);
    if (!whole || !closed) {
        trace(kIdWrite, 0, 1, "FileSave%s - failed to write memory contents to file '%s'", kind.name, path);
        return false;
    }
    trace(kIdSaved, 0, 3, "Successfully written memory contents to file '%s' ", path);
    return true;
}

} // namespace

BOOL LoadTextFile(char **out, const char *path) {
    return load(kText, reinterpret_cast<void **>(out), nullptr, path);
}

BOOL LoadBinaryFile(void **out, int32_t *size, const char *path) {
    if (size == nullptr) {
        trace(kIdBadParams, 0, 1, "LoadBinaryFile - bad params.");
        return FALSE;
    }
    return load(kBinary, out, size, path);
}

BOOL FileSaveText(const void *bytes, int32_t length, const char *path) { return save(kText, bytes, length, path); }
BOOL FileSaveBinary(const void *bytes, int32_t length, const char *path) { return save(kBinary, bytes, length, path); }

BOOL FilesMatch(const char *first, const char *second) {
    int32_t size = 0, otherSize = 0;
    if (!FileSize(&size, first) || !FileSize(&otherSize, second) || size != otherSize) return FALSE;
    int32_t a = -1, b = -1;
    const int32_t mode = FILE_MODE_BINARY | FILE_MODE_READ;
    if (!FileSysOpen(&a, first, mode) || !FileSysOpen(&b, second, mode)) {
        trace(kIdMatchOpen, 0, 1, "FilesMatch(): could not open files\n");
        FileSysClose(&a);
        return FALSE;
    }
    char left[kMatchBlock], right[kMatchBlock];
    bool same = true;
    for (int64_t done = 0; same && done < size;) {
        int32_t gotLeft = 0, gotRight = 0;
        same = FileSysRead(&gotLeft, a, left, kMatchBlock) && FileSysRead(&gotRight, b, right, kMatchBlock) &&
               gotLeft == gotRight && gotLeft > 0 && memcmp(left, right, static_cast<size_t>(gotLeft)) == 0;
        done += gotLeft;
    }
    FileSysClose(&a);
    FileSysClose(&b);
    return same;
}
