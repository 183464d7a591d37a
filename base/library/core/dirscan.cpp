// dirscan.cpp - walks over directories.
//
// DirScanDirect is the one reader of a directory: it calls a callback per
// entry while the directory is open and decides by errno, at the end of the
// entries, whether that was the end or a failure. DirScan reads twice with
// it (measuring the names, then copying them) so that its callbacks run
// with the directory closed. The recursive scan keeps the directories still
// to read in a tree of DIR_SCAN_DIR objects: each node is a directory, its
// path the names from the root down; stepping with TreeNextNodeAndBin frees
// each directory once it and everything below it are done.
#include "core/file.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstring>

#include "core/memory.h"
#include "core/object.h"
#include "core/strbase.h"
#include "core/sys.h"
#include "core/tree.h"
#include "objcore.h"
#include "syscalls.h"
#include "tracer.h"

namespace {

constexpr fh::ModuleTracer trace{"DIRSCAN        "};

enum TraceId : int32_t {
    kIdOpenFailed = 1,
    kIdReadError = 2,
    kIdProcess = 3,
    kIdStopped = 4,
    kIdScanError = 5,
};

constexpr size_t kNameRoom = 2048;
constexpr size_t kPathLimit = 20000;

struct DIR_SCAN_DIR {
    char *pszName;
};

// The state of a recursive scan (DIR_SCAN_RECURSIVE_CONTEXT).
struct ScanContext {
    TREENODE *oNode;
    DirScanFunction pfnCallback;
    void *pUser;
    char *pszText; // what the callback gets as its directory
    BOOL bStopped;
};

constinit fh::ObjectType<DIR_SCAN_DIR> gDirType{DIR_SCAN_DIR_MAGIC, DIR_SCAN_DIR_FORMAT};

constinit fh::ObjectType<ScanContext> gContextType{DIR_SCAN_RECURSIVE_CONTEXT_MAGIC, DIR_SCAN_RECURSIVE_CONTEXT_FORMAT};

bool isDot(const char *name) { return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0')); }

void ensureTemplates() {
    gDirType.declare();
    gContextType.declare();
}

// The path of a scan node: the names from the root down, each followed by
// "/" (unless it ends in one); false when it would not fit the limit.
bool pathOf(const TREENODE *node, char (&path)[kPathLimit]) {
    auto nameOf = [](const TREENODE *n) { return static_cast<const DIR_SCAN_DIR *>(n->oItem)->pszName; };
    auto slashAfter = [](const char *name, size_t n) { return n == 0 || name[n - 1] != '/'; };
    size_t length = 0;
    for (const TREENODE *n = node; n != nullptr; n = n->oParent) {
        const size_t size = strlen(nameOf(n));
        length += size + (slashAfter(nameOf(n), size) ? 1 : 0);
        if (length >= kPathLimit) return false;
    }
    path[length] = '\0';
    for (const TREENODE *n = node; n != nullptr; n = n->oParent) {
        const char *name = nameOf(n);
        const size_t size = strlen(name);
        if (slashAfter(name, size)) path[--length] = '/';
        length -= size;
        memcpy(path + length, name, size);
    }
    return true;
}

struct Names {
    size_t bytes = 0;
    char *block = nullptr;
    size_t used = 0, room = 0;
};

BOOL measureName(const char *, const char *entry, void *user) {
    static_cast<Names *>(user)->bytes += strlen(entry) + 1;
    return TRUE;
}

BOOL copyName(const char *, const char *entry, void *user) {
    auto &names = *static_cast<Names *>(user);
    const size_t n = strlen(entry) + 1;
    if (names.used + n <= names.room) { // a name for which there is no room is dropped
        memcpy(names.block + names.used, entry, n);
        names.used += n;
    }
    return TRUE;
}

// An entry of the recursive scan: a directory becomes a child of the node.
BOOL scanEntry(const char *directory, const char *entry, void *user) {
    auto &context = *static_cast<ScanContext *>(user);
    char path[kPathLimit];
    if (strlen(directory) + strlen(entry) + 1 > sizeof path) return TRUE;
    memcpy(mempcpy(path, directory, strlen(directory)), entry, strlen(entry) + 1);
    struct stat status {};
    if (fh::retried([&] { return fh::sys().lstat(path, &status); }) == 0 && S_ISDIR(status.st_mode)) {
        auto *dir = gDirType.newInstance(nullptr);
        dir->pszName = StrDuplicateIntoPool(entry, nullptr);
        TreePushItem(&dir, context.oNode, 1);
    }
    if (context.pfnCallback(context.pszText, entry, context.pUser) == TRUE) return TRUE;
    context.bStopped = TRUE;
    trace(kIdStopped, 0, 2, "Stopping recursive directory sacn as user callback returned FALSE.");
    return FALSE;
}

BOOL addSize(const char *directory, const char *entry, void *user) {
    char *path = StrCat(directory, "/", entry, static_cast<char *>(nullptr));
    int32_t size = 0;
    if (FileSize(&size, path)) *static_cast<int64_t *>(user) += size;
    MemFreeInternal(&path);
    return TRUE;
}

} // namespace

BOOL DirScanDirect(const char *directory, DirScanFunction callback, void *user) {
    if (directory == nullptr || callback == nullptr) return FALSE;
    DIR *dir = fh::retried([&] { return fh::sys().opendir(directory); });
    if (dir == nullptr) {
        fh::traceFailure(trace, kIdOpenFailed, "Failed to open directory '%s': %s", directory);
        return FALSE;
    }
    BOOL result = TRUE;
    for (;;) {
        errno = 0;
        const struct dirent *entry = fh::sys().readdir(dir);
        if (entry != nullptr) {
            if (isDot(entry->d_name)) continue;
            if (!callback(directory, entry->d_name, user)) {
                result = FALSE;
                break;
            }
            continue;
        }
        if (errno == EAGAIN || errno == ENOLCK) {
            SysSleep(1);
        } else if (errno == EINTR) {
        } else if (errno == ENOENT || errno == EBADF || errno == EINVAL || errno == EOVERFLOW) {
            fh::traceFailure(trace, kIdReadError, "Error reading directory: %s");
            result = FALSE;
            break;
        } else {
            break; // the end of the directory
        }
    }
    closedir(dir);
    return result;
}

BOOL DirScan(const char *directory, DirScanFunction callback, void *user) {
    if (callback == nullptr) return FALSE;
    Names names;
    if (!DirScanDirect(directory, measureName, &names)) return FALSE;
    names.room = names.bytes + kNameRoom;
    names.block = static_cast<char *>(MemAllocateFromPool(names.room, nullptr));
    BOOL result = DirScanDirect(directory, copyName, &names);
    for (size_t at = 0; result && at < names.used; at += strlen(names.block + at) + 1) {
        trace(kIdProcess, 0, 3, "Process '%s'", names.block + at);
        result = callback(directory, names.block + at, user);
    }
    MemFreeInternal(&names.block);
    return result;
}

int32_t DirScanDirectRecursive(const char *directory, DirScanFunction callback, void *user, BOOL relative) {
    if (directory == nullptr || *directory == '\0' || callback == nullptr) return 0;
    ensureTemplates();
    TREE *tree = TreeNewFromPool(nullptr);
    auto *root = gDirType.newInstance(nullptr);
    root->pszName = StrDuplicateIntoPool(directory, nullptr);
    auto *context = gContextType.newInstance(nullptr);
    context->oNode = TreePushRootItem(&root, tree);
    context->pfnCallback = callback;
    context->pUser = user;
    const size_t rootLength = strlen(directory) + (directory[strlen(directory) - 1] == '/' ? 0 : 1);

    int32_t result = 1;
    char path[kPathLimit];
    for (TREENODE *node = context->oNode; node != nullptr;) {
        context->oNode = node;
        bool scanned = pathOf(node, path);
        if (scanned) {
            const char *text = relative == 1 ? path + std::min(rootLength, strlen(path)) : path;
            context->pszText = const_cast<char *>(text);
            scanned = DirScanDirect(path, scanEntry, context);
        }
        if (!scanned) {
            if (!context->bStopped) trace(kIdScanError, 0, 1, "Error when scanning directory '%s'", path);
            result = context->bStopped ? 2 : 0;
            break;
        }
        if (!TreeNextNodeAndBin(&node, node, FALSE)) node = nullptr;
    }
    context->oNode = nullptr; // the tree holds its nodes
    context->pszText = nullptr;
    ObjReleaseInternal(&context);
    ObjReleaseInternal(&tree);
    return result;
}

BOOL DirGetContentsSize(int64_t *sum, const char *directory) {
    if (sum == nullptr) return FALSE;
    return DirScanDirect(directory, addSize, sum);
}
