// path.cpp - the home directory, and paths as text.
//
// Every operation here walks its strings by characters (StrGetChar), so a
// double-byte character whose trail byte is "/" is part of a name, never a
// separator. Output is built in a Text, a growing pool buffer written by
// characters, and handed to the caller as a new string.
//
// State: the home directory, one string fixed by PathInitialize, and the
// name of the registry file it may come from (a seam for tests).
#include "core/path.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/context.h"
#include "core/list.h"
#include "core/memory.h"
#include "core/object.h"
#include "core/objwrappers.h"
#include "core/stanza.h"
#include "core/strbase.h"
#include "objcore.h"
#include "seams.h"
#include "tracer.h"

namespace {

constexpr fh::ModuleTracer trace{"PATH        "};

enum TraceId : int32_t {
    kIdSplitNull = 1,
    kIdLastComponentNull = 2,
    kIdLeafNull = 3,
    kIdRelative = 4,
    kIdToListArgs = 5,
    kIdZeroLength = 6,
    kIdFromListArgs = 7,
    kIdBuilt = 8,
    kIdHome = 9,
};

constexpr char kDefaultHome[] = "/usr/fernhaven";
constexpr size_t kRegistryLine = 1024;

const char *gRegistryFile = "/etc/.fernhaven";
char *gHome = nullptr;

MemPool *gPool = nullptr;
MemPool *pool() {
    if (gPool == nullptr) gPool = MemGetDefaultPoolId();
    return gPool;
}

// A growing string from the pool, written by characters or by strings.
class Text {
  public:
    explicit Text(size_t room = 64) : room_(room) { at_ = data_ = static_cast<char *>(MemAllocateFromPool(room_, pool())); }
    ~Text() { MemFreeInternal(&data_); }
    Text(const Text &) = delete;
    Text &operator=(const Text &) = delete;

    void put(int32_t c) {
        reserve(2);
        last_ = c;
        StrPutChar(&at_, c);
    }
    void put(const char *s) {
        for (const char *p = s; p != nullptr && *p != '\0';) put(StrGetChar(&p));
    }
    bool empty() const { return at_ == data_; }
    int32_t last() const { return last_; }
    void clear() {
        at_ = data_;
        last_ = 0;
    }
    const char *view() {
        *at_ = '\0';
        return data_;
    }
    // The string, which the caller now owns.
    char *take() {
        *at_ = '\0';
        char *out = data_;
        at_ = data_ = nullptr;
        return out;
    }

  private:
    void reserve(size_t n) {
        const size_t used = static_cast<size_t>(at_ - data_);
        if (used + n + 1 <= room_) return;
        room_ = 2 * room_ + n + 1;
        auto *grown = static_cast<char *>(MemAllocateFromPool(room_, pool()));
        memcpy(grown, data_, used);
        MemFreeInternal(&data_);
        data_ = grown;
        at_ = data_ + used;
    }

    size_t room_;
    char *data_;
    char *at_;
    int32_t last_ = 0;
};

char *copyOf(const char *text) { return StrDuplicateIntoPool(text, pool()); }

// The first line of the registry file, or null.
char *registeredHome() {
    if (const char *home = getenv("FHHOME"); home != nullptr) return copyOf(home);
    FILE *file = fopen(gRegistryFile, "re");
    if (file == nullptr) return nullptr;
    char line[kRegistryLine] = {};
    const int read = fscanf(file, "%1023[^\n]", line);
    fclose(file);
    return read == 1 && line[0] != '\0' ? copyOf(line) : nullptr;
}

// The position of the last "/" character of path, or null.
const char *lastSeparator(const char *path) {
    const char *last = nullptr;
    for (const char *p = path, *at = p; StrGetCharAtPointer(p) != 0; at = p)
        if (StrGetChar(&p) == '/') last = at;
    return last;
}

bool isString(const void *item) { return item != nullptr && fh::startMagic(item) == OBJ_STRING_MAGIC; }

// A list whose items are all string objects, and that has items.
bool stringList(const LIST *list) {
    if (list == nullptr || fh::startMagic(list) != LIST_MAGIC || list->iCount == 0) return false;
    for (const LISTNODE *node = list->oFirst; node != nullptr; node = node->oNext)
        if (!isString(node->oItem)) return false;
    return true;
}

char *traced(const char *operation, char *result) {
    trace(kIdBuilt, 0, 3, "%s: '%s'", operation, result != nullptr ? result : "(null)");
    return result;
}

// The strings of a list (or, for a key, its values) joined by "/".
template <typename Each> char *joinWithSlash(Each each) {
    Text text;
    bool first = true;
    each([&](const char *part) {
        if (!first) text.put('/');
        first = false;
        text.put(part);
    });
    return text.take();
}

void addComponent(LIST *list, const char *text) {
    OBJ_STRING *item = ObjStringNew(text);
    ListPushLastItemInternal(list, &item);
}

} // namespace

namespace fh {
void pathRegistryFile(const char *file) { gRegistryFile = file != nullptr ? file : "/etc/.fernhaven"; }
} // namespace fh

BOOL PathInitialize(void) {
    MemFreeInternal(&gHome);
    gHome = registeredHome();
    if (gHome == nullptr) gHome = copyOf(kDefaultHome);
    trace(kIdHome, 0, 2, "Home directory '%s'", gHome);
    return gHome != nullptr;
}

BOOL PathInitializeThread(void) { return TRUE; }
void PathReleaseThread(LmContext *) {}

BOOL PathGetRegisteredHomeDir(char **out) {
    if (out == nullptr) return FALSE;
    char *home = registeredHome();
    if (home == nullptr) return FALSE;
    *out = home;
    return TRUE;
}

BOOL PathGetHomeDir(char **out) {
    if (out == nullptr) return FALSE;
    *out = copyOf(gHome != nullptr ? gHome : kDefaultHome);
    return TRUE;
}

char *PathHomeBuild(const char *first, ...) {
    Text text;
    text.put(gHome);
    va_list more;
    va_start(more, first);
    for (const char *part = first; part != nullptr; part = va_arg(more, const char *)) {
        if (*part != '/') text.put('/');
        text.put(part);
    }
    va_end(more);
    return traced("PathHomeBuild", text.take());
}

char *PathHomeBuildFromValueList(const LIST *list) {
    if (!stringList(list)) return traced("PathHomeBuildFromValueList", nullptr);
    Text text;
    text.put(gHome);
    for (const LISTNODE *node = list->oFirst; node != nullptr; node = node->oNext) {
        text.put('/');
        text.put(ObjGetString(node->oItem));
    }
    return traced("PathHomeBuildFromValueList", text.take());
}

char *PathBuildVAList(const char *first, va_list more) {
    Text text; // nothing copied yet counts as a "/" copied
    for (const char *part = first; part != nullptr; part = va_arg(more, const char *)) {
        if (!text.empty() && text.last() != '/') text.put('/');
        text.put(part);
    }
    return text.take();
}

char *PathBuild(const char *first, ...) {
    va_list more;
    va_start(more, first);
    char *path = PathBuildVAList(first, more);
    va_end(more);
    return path;
}

BOOL PathAddDir(char **out, const char *directory, const char *name) {
    if (out == nullptr || directory == nullptr || name == nullptr) return FALSE;
    *out = StrCat(directory, "/", name, static_cast<char *>(nullptr));
    return *out != nullptr;
}

BOOL PathAddFilename(char **out, const char *directory, const char *name) { return PathAddDir(out, directory, name); }

char *PathSplit(const char *path) {
    if (path == nullptr) {
        trace(kIdSplitNull, 0, 2, "Warning - PathSplit() passed NULL path.");
        return nullptr;
    }
    const char *last = lastSeparator(path);
    return last == nullptr || last == path ? copyOf("")
                                           : StrDuplicateRangeIntoPool(path, pool(), static_cast<int32_t>(last - path));
}

BOOL PathLastComponent(char **out, const char *path) {
    if (path == nullptr) {
        trace(kIdLastComponentNull, 0, 2, "Warning - PathLastComponent() passed NULL path.");
        return FALSE;
    }
    const char *last = lastSeparator(path);
    if (out == nullptr || last == nullptr) return FALSE;
    *out = copyOf(last + 1);
    return TRUE;
}

BOOL PathLeaf(char **out, const char *path) {
    if (path == nullptr) {
        trace(kIdLeafNull, 0, 2, "Warning - PathLeaf() passed NULL path.");
        return FALSE;
    }
    if (out == nullptr) return FALSE;
    const char *last = lastSeparator(path);
    *out = copyOf(last != nullptr ? last + 1 : path);
    return TRUE;
}

BOOL PathIsDescending(const char *path) {
    if (path == nullptr || StrFindSubString(path, "..") == nullptr) return TRUE;
    Text component;
    for (const char *p = path;;) {
        const int32_t c = StrGetChar(&p);
        if (c != '/' && c != 0) {
            component.put(c);
            continue;
        }
        if (strcmp(component.view(), "..") == 0) {
            trace(kIdRelative, 0, 2, "Detected relative path '%s'", path);
            return FALSE;
        }
        if (c == 0) return TRUE;
        component.clear();
    }
}

BOOL PathToComponentList(LIST **out, const char *path) {
    if (out == nullptr || path == nullptr) {
        return trace.fault(FALSE, kIdToListArgs, 0, "PathToComponentList(%p,%s) - bad args", static_cast<void *>(out),
              path != nullptr ? path : "(null)");
    }
    LIST *list = ListNewFromPool(OBJ_STRING_MAGIC, pool());
    Text component(200);
    const char *p = path;
    if (StrGetCharAtPointer(p) == '/') {
        addComponent(list, "/");
        StrGetChar(&p);
    }
    for (int32_t c; (c = StrGetChar(&p)) != 0;) {
        if (c != '/') {
            component.put(c);
            continue;
        }
        if (component.empty()) {
            trace(kIdZeroLength, 0, 2, "Bad path '%s' - zero length component", path);
            ObjReleaseInternal(&list);
            return FALSE;
        }
        addComponent(list, component.view());
        component.clear();
    }
    if (!component.empty()) addComponent(list, component.view());
    *out = list;
    return TRUE;
}

BOOL PathFromComponentList(char **out, const LIST *list) {
    if (out == nullptr || list == nullptr) {
        return trace.fault(FALSE, kIdFromListArgs, 0, "PathFromComponentList(%p,%p) - bad args", static_cast<void *>(out),
              static_cast<const void *>(list));
    }
    *out = joinWithSlash([&](auto put) {
        for (const LISTNODE *node = list->oFirst; node != nullptr; node = node->oNext) put(ObjGetString(node->oItem));
    });
    return TRUE;
}

char *PathRelativeFromKey(const StanzaKey *key) {
    return traced("PathRelativeFromKey", joinWithSlash([&](auto put) {
                      for (int32_t i = 1; i <= StnzKeyValueCount(key); ++i) put(StnzKeyValue(key, i));
                  }));
}

char *PathRelativeFromValueList(const LIST *list) {
    return traced("PathRelativeFromValueList", joinWithSlash([&](auto put) {
                      if (!stringList(list)) return;
                      for (const LISTNODE *node = list->oFirst; node != nullptr; node = node->oNext)
                          put(ObjGetString(node->oItem));
                  }));
}
