// cfglocal.cpp - settings in the stanza files of this machine.
//
// Every operation builds the file's path (CfgUtilBuildPath) and turns the
// three names of a setting into a stanza and a key of one of two forms:
// displayable, the key "value" of [section:item], or plain, the key item of
// [section]. Reads try the displayable form first. Writes test the form and
// then replace the key under the file's exclusive lock (StnzAddKeyToFile).
// The value-list entry operations hold that lock from read to rewrite; the
// key operations on [title] read under a shared lock and rewrite in a second
// open, as cfglocal.h says.
#include "core/cfglocal.h"

#include "core/config.h"
#include "core/list.h"
#include "core/memory.h"
#include "core/object.h"
#include "core/objwrappers.h"
#include "core/path.h"
#include "core/stanza.h"
#include "core/stanzafile.h"
#include "core/strbase.h"
#include "cfgcache.h"
#include "tracer.h"

namespace {

constexpr fh::ModuleTracer trace{"CFGLOCAL        "};

// Trace ids of this module; fixed once chosen.
enum TraceId : int32_t {
    kIdGetStanza = 1,
    kIdGetStanzaList = 2,
    kIdReplaceStanzaList = 3,
    kIdAddStanza = 4,
    kIdReplaceStanza = 5,
    kIdRemoveStanza = 6,
    kIdTryPlain = 7,
    kIdDisplayable = 8,
    kIdReplacingDisplayable = 9,
    kIdReplacingPlain = 10,
    kIdAddKey = 11,
    kIdNoDuplicates = 12,
    kIdMatched = 13,
    kIdCreateKey = 14,
    kIdLoadedStanza = 15,
    kIdLoadedKey = 16,
    kIdOpenedFile = 17,
};

constexpr const char *kValue = "value";

inline bool isEmpty(const char *text) { return text == nullptr || *text == '\0'; }
inline const char *shown(const char *text) { return text != nullptr ? text : "(null)"; }

// A path of the library's, freed when it goes.
class Path {
  public:
    Path(const char *file, const char *alternatePath) : text_(CfgUtilBuildPath(file, alternatePath)) {}
    Path(const Path &) = delete;
    Path &operator=(const Path &) = delete;
    ~Path() { MemFreeInternal(&text_); }
    const char *get() const { return text_; }
    explicit operator bool() const { return text_ != nullptr; }

  private:
    char *text_;
};

// Owners that release what they hold when they go.
struct KeyHolder {
    StanzaKey *key = nullptr;
    ~KeyHolder() { StnzReleaseKey(&key); }
};
struct StanzaHolder {
    Stanza *stanza = nullptr;
    ~StanzaHolder() { StnzRelease(&stanza); }
};
struct ListHolder {
    LIST *list = nullptr;
    ~ListHolder() { ObjReleaseInternal(&list); }
};
struct FileHolder {
    STNZ_FILE *file = nullptr;
    ~FileHolder() { StnzCloseFile(&file); }
};

BOOL traced(bool result, TraceId id, const char *text) {
    if (!result) trace(id, 0, 2, "%s", text);
    return result;
}

// The first value of the setting through convert; a missing setting stores
// the default and gives FALSE.
template <typename T, typename Convert>
BOOL getConverted(T *out, const char *file, const char *section, const char *item, const char *alternatePath,
                  T defaultValue, Convert convert) {
    if (out == nullptr) return FALSE;
    KeyHolder found;
    if (!CfgLocalGetKey(&found.key, file, section, item, alternatePath)) {
        *out = defaultValue;
        return FALSE;
    }
    return convert(StnzKeyValue(found.key, 1), out);
}

// Replaces the setting's key, in the form it has, by the key that make
// builds for a keyword.
template <typename Make>
BOOL setKey(const char *file, const char *section, const char *item, const char *alternatePath, Make make) {
    if (file == nullptr || section == nullptr || item == nullptr) return FALSE;
    Path path(file, alternatePath);
    if (!path) return FALSE;
    const bool displayable = CfgLocalGotCategory(path.get(), section, item);
    trace(displayable ? kIdReplacingDisplayable : kIdReplacingPlain, 0, 3,
          displayable ? "Replacing displayable stanza" : "Replacing non-displayable stanza");
    KeyHolder key;
    if (!make(&key.key, displayable ? kValue : item)) return FALSE;
    return displayable ? CfgLocalAddKey(path.get(), section, item, &key.key, TRUE)
                       : CfgLocalAddKey(path.get(), nullptr, section, &key.key, TRUE);
}

// The stanza of those names from the file open in mode 516, or a new empty
// one when there is none. Null when it exists but cannot be loaded.
Stanza *loadOrCreate(STNZ_FILE *file, const char *category, const char *title) {
    Stanza *stanza = nullptr;
    if (StnzFindStanza(file, category, title)) {
        StnzLoadCurrentStanza(&stanza, file);
    } else {
        StnzCreate(&stanza, isEmpty(category) ? nullptr : category, title, 1);
    }
    return stanza;
}

// The string layer's comparisons take a null string as "".
bool sameEntry(const char *a, const char *b, BOOL noCase) {
    return (noCase ? StrCompareNoCase(a, b) : StrCompare(a, b)) == 0;
}

// Puts the list back as the stanza's key "value", rewrites the file and hands
// the list out when asked.
BOOL storeValueList(STNZ_FILE *file, Stanza *&stanza, LIST *&list, LIST **out) {
    KeyHolder key;
    if (!StnzCreateKeyFromValueList(&key.key, kValue, list) || !StnzReplaceKeyInStanza(&stanza, &key.key))
        return FALSE;
    if (out != nullptr && ObjIncRefCount(list)) *out = list;
    return StnzFileReplaceStanza(file, stanza);
}

// Loads [title] (shared lock), lets change work on the key of keyword (null
// when missing; change may make one), and rewrites the stanza in a second
// open. FALSE when change says so or any step fails.
template <typename Change>
BOOL changeKey(const char *file, const char *title, const char *keyword, const char *alternatePath, Change change) {
    Path path(file, alternatePath);
    StanzaHolder held;
    if (!path || !StnzLoadStanzaFromFile(&held.stanza, path.get(), nullptr, title)) return FALSE;
    trace(kIdLoadedStanza, 0, 3, "Loaded stanza %s", title);
    StanzaKey *key = nullptr;
    StnzGetKey(&key, held.stanza, keyword);
    if (!change(held.stanza, key)) return FALSE;
    FileHolder open;
    if (!StnzOpenFile(&open.file, path.get(), STNZ_MODE_UPDATE)) return FALSE;
    trace(kIdOpenedFile, 0, 3, "Opened stanza file %s", path.get());
    return StnzFileReplaceStanza(open.file, held.stanza);
}

} // namespace

// ---- Whole stanzas and files ------------------------------------------------

BOOL CfgLocalGetStanza(Stanza **out, const char *file, const char *title, const char *alternatePath) {
    Path path(file, alternatePath);
    return traced(path && StnzLoadStanzaFromFile(out, path.get(), nullptr, title), kIdGetStanza,
                  "CfgLocalGetStanza returned FALSE");
}

BOOL CfgLocalGetStanzaList(LIST **out, const char *file, const char *alternatePath) {
    const auto load = [&] {
        Path path(file, alternatePath);
        return path && StnzLoadStanzaListFromFile(out, path.get());
    };
    return traced(!isEmpty(file) && load(), kIdGetStanzaList, "CfgLocalGetStanzaList returned FALSE");
}

BOOL CfgLocalReplaceStanzaList(const char *file, const LIST *list, const char *alternatePath) {
    const auto save = [&] {
        Path path(file, alternatePath);
        return path && StnzSaveStanzaListToFile(list, path.get());
    };
    return traced(!isEmpty(file) && ObjCheckTypeInternal(list, LIST_MAGIC) && save(), kIdReplaceStanzaList,
                  "CfgLocalReplaceStanzaList returned FALSE");
}

BOOL CfgLocalAddStanza(const Stanza *stanza, const char *file, const char *alternatePath) {
    Path path(file, alternatePath);
    return traced(path && StnzAddStanzaToFile(stanza, path.get()), kIdAddStanza, "CfgLocalAddStanza returned FALSE");
}

BOOL CfgLocalReplaceStanza(const Stanza *stanza, const char *file, const char *alternatePath) {
    Path path(file, alternatePath);
    return traced(path && StnzReplaceStanzaInFile(stanza, path.get()), kIdReplaceStanza,
                  "CfgLocalReplaceStanza returned FALSE");
}

BOOL CfgLocalRemoveStanza(const char *category, const char *file, const char *title, const char *alternatePath) {
    Path path(file, alternatePath);
    return traced(path && StnzRemoveStanzaFromFile(category, title, path.get()), kIdRemoveStanza,
                  "CfgLocalRemoveStanza returned FALSE");
}

// ---- Reading a setting ------------------------------------------------------

BOOL CfgLocalGetKey(StanzaKey **out, const char *file, const char *section, const char *item,
                    const char *alternatePath) {
    Path path(file, alternatePath);
    if (!path || out == nullptr) return FALSE;
    const fh::CfgSnapshot *snapshot = nullptr;
    switch (fh::cfgCacheSnapshot(&snapshot, path.get())) {
    case fh::CfgCached::kNoFile: return FALSE;
    case fh::CfgCached::kReady:
        if (fh::cfgSnapshotKey(out, snapshot, section, item, kValue)) return TRUE;
        trace(kIdTryPlain, 0, 3, "Trying to load key '%s' from stanza '%s'", shown(item), shown(section));
        return fh::cfgSnapshotKey(out, snapshot, nullptr, section, item);
    case fh::CfgCached::kTooLarge: break;
    }
    if (StnzLoadKeyFromFile(out, path.get(), section, item, kValue)) return TRUE;
    trace(kIdTryPlain, 0, 3, "Trying to load key '%s' from stanza '%s'", shown(item), shown(section));
    return StnzLoadKeyFromFile(out, path.get(), nullptr, section, item);
}

BOOL CfgLocalGetBoolean(BOOL *out, const char *file, const char *section, const char *item,
                        const char *alternatePath, BOOL defaultValue) {
    return getConverted(out, file, section, item, alternatePath, defaultValue, StrToBoolean);
}

BOOL CfgLocalGetInteger(int32_t *out, const char *file, const char *section, const char *item,
                        const char *alternatePath, int32_t defaultValue) {
    return getConverted(out, file, section, item, alternatePath, defaultValue, StrToInteger);
}

BOOL CfgLocalGetInt64(int64_t *out, const char *file, const char *section, const char *item,
                      const char *alternatePath, int64_t defaultValue) {
    return getConverted(out, file, section, item, alternatePath, defaultValue, StrToInt64);
}

BOOL CfgLocalGetString(char **out, const char *file, const char *section, const char *item,
                       const char *alternatePath, const char *defaultValue) {
    const auto copy = [](const char *value, char **to) {
        *to = value != nullptr ? StrDuplicateIntoPool(value, nullptr) : nullptr;
        return TRUE;
    };
    if (out == nullptr) return FALSE;
    char *missing = nullptr;
    if (getConverted(out, file, section, item, alternatePath, missing, copy)) return TRUE;
    copy(defaultValue, out);
    return FALSE;
}

BOOL CfgLocalGetValueList(LIST **out, const char *file, const char *section, const char *item,
                          const char *alternatePath) {
    KeyHolder found;
    return out != nullptr && CfgLocalGetKey(&found.key, file, section, item, alternatePath) &&
           StnzKeyGetValueList(found.key, out);
}

// ---- Writing a setting ------------------------------------------------------

BOOL CfgLocalSetInteger(const char *file, const char *section, const char *item, int32_t value,
                        const char *alternatePath) {
    return setKey(file, section, item, alternatePath,
                  [value](StanzaKey **key, const char *keyword) { return StnzCreateKeyFromInteger(key, keyword, value); });
}

BOOL CfgLocalSetInt64(const char *file, const char *section, const char *item, int64_t value,
                      const char *alternatePath) {
    return setKey(file, section, item, alternatePath,
                  [value](StanzaKey **key, const char *keyword) { return StnzCreateKeyFromInt64(key, keyword, value); });
}

BOOL CfgLocalSetBoolean(const char *file, const char *section, const char *item, BOOL value,
                        const char *alternatePath) {
    return setKey(file, section, item, alternatePath,
                  [value](StanzaKey **key, const char *keyword) { return StnzCreateKeyFromBoolean(key, keyword, value); });
}

BOOL CfgLocalSetString(const char *file, const char *section, const char *item, const char *string,
                       const char *alternatePath) {
    return setKey(file, section, item, alternatePath, [string](StanzaKey **key, const char *keyword) {
        return StnzCreateKeyFromString(key, keyword, string);
    });
}

BOOL CfgLocalSetValueList(const char *file, const char *section, const char *item, const LIST *list,
                          const char *alternatePath) {
    return setKey(file, section, item, alternatePath, [list](StanzaKey **key, const char *keyword) {
        return StnzCreateKeyFromValueList(key, keyword, list);
    });
}

// ---- Lower operations -------------------------------------------------------

BOOL CfgLocalGotCategory(const char *path, const char *section, const char *item) {
    KeyHolder found;
    const bool displayable = StnzLoadKeyFromFile(&found.key, path, section, item, kValue);
    trace(kIdDisplayable, 0, 3, "CfgItem %s:%s displayable = '%s'", shown(section), shown(item),
          fh::boolText(displayable));
    return displayable;
}

BOOL CfgLocalAddKey(const char *path, const char *category, const char *title, StanzaKey **keyAddress,
                    BOOL replace) {
    return traced(StnzAddKeyToFile(path, category, title, keyAddress, replace), kIdAddKey,
                  "CfgLocalAddKey returned FALSE");
}

// ---- Value lists ----------------------------------------------------------------

BOOL CfgLocalAddEntryToValueList(LIST **out, const char *file, const char *category, const char *title,
                                 const char *entry, BOOL noDuplicates, BOOL noCase, const char *alternatePath) {
    if (file == nullptr || title == nullptr) return FALSE;
    Path path(file, alternatePath);
    FileHolder open;
    if (!path || !StnzOpenFile(&open.file, path.get(), STNZ_MODE_UPDATE)) return FALSE;
    StanzaHolder held;
    held.stanza = loadOrCreate(open.file, category, title);
    if (held.stanza == nullptr) return FALSE;
    ListHolder entries;
    StanzaKey *key = nullptr;
    if (StnzGetKey(&key, held.stanza, kValue)) {
        if (!StnzKeyGetValueList(key, &entries.list)) return FALSE;
        if (noDuplicates == TRUE) {
            trace(kIdNoDuplicates, 0, 3, "Do not add duplicate entries");
            for (const LISTNODE *node = entries.list->oFirst; node != nullptr; node = node->oNext) {
                const char *text = ObjGetString(node->oItem);
                if (sameEntry(text, entry, noCase == TRUE)) {
                    trace(kIdMatched, 0, 3, "Matched '%s' and '%s'", shown(text), shown(entry));
                    return FALSE;
                }
            }
        }
    } else {
        entries.list = ListNewFromPool(OBJ_STRING_MAGIC, nullptr);
    }
    OBJ_STRING *item = ObjStringNew(entry);
    if (entries.list == nullptr || !ListPushLastItemInternal(entries.list, &item)) {
        ObjReleaseInternal(&item);
        return FALSE;
    }
    trace(kIdCreateKey, 0, 3, "Create new key");
    return storeValueList(open.file, held.stanza, entries.list, out);
}

BOOL CfgLocalRemoveEntryFromValueList(LIST **out, const char *file, const char *category, const char *title,
                                      const char *entry, BOOL noCase, const char *alternatePath) {
    if (file == nullptr || title == nullptr) return FALSE;
    Path path(file, alternatePath);
    FileHolder open;
    StanzaHolder held;
    StanzaKey *key = nullptr;
    ListHolder entries;
    if (!path || !StnzOpenFile(&open.file, path.get(), STNZ_MODE_UPDATE) ||
        !StnzFindStanza(open.file, category, title) || !StnzLoadCurrentStanza(&held.stanza, open.file) ||
        !StnzGetKey(&key, held.stanza, kValue) || !StnzKeyGetValueList(key, &entries.list))
        return FALSE;
    LISTNODE *node = entries.list->oFirst;
    while (node != nullptr && !sameEntry(ObjGetString(node->oItem), entry, noCase == TRUE)) node = node->oNext;
    if (node == nullptr || !ListRemoveItem(node)) return FALSE;
    return storeValueList(open.file, held.stanza, entries.list, out);
}

// ---- Keys of a plain stanza -----------------------------------------------------

BOOL CfgLocalAddValueToKey(const char *file, const char *title, const char *keyword, const char *value,
                           const char *alternatePath) {
    if (file == nullptr || title == nullptr || keyword == nullptr || value == nullptr) return FALSE;
    return changeKey(file, title, keyword, alternatePath, [&](Stanza *&stanza, StanzaKey *key) {
        KeyHolder moved;
        if (key != nullptr) {
            StnzRemoveKeyFromStanza(stanza, key);
            moved.key = key;
        } else if (!StnzCreateKey(&moved.key, keyword, 1)) {
            return false;
        }
        trace(kIdLoadedKey, 0, 3, "Loaded key %s", keyword);
        return StnzAddValueToKey(&moved.key, value) && StnzAddKeyToStanza(&stanza, &moved.key);
    });
}

BOOL CfgLocalRemoveValueFromKey(const char *file, const char *title, const char *keyword, const char *value,
                                const char *alternatePath) {
    if (file == nullptr || title == nullptr || keyword == nullptr || value == nullptr) return FALSE;
    return changeKey(file, title, keyword, alternatePath, [&](Stanza *&stanza, StanzaKey *key) {
        if (key == nullptr) return false;
        trace(kIdLoadedKey, 0, 3, "Loaded key %s", keyword);
        StnzRemoveKeyFromStanza(stanza, key);
        KeyHolder moved{key};
        return StnzDeleteValueFromKey(moved.key, value, TRUE) && StnzAddKeyToStanza(&stanza, &moved.key);
    });
}

BOOL CfgLocalRemoveKey(const char *file, const char *title, const char *keyword, const char *alternatePath) {
    if (file == nullptr || title == nullptr || keyword == nullptr) return FALSE;
    return changeKey(file, title, keyword, alternatePath,
                     [&](Stanza *&stanza, StanzaKey *) { return StnzDeleteKeywordFromStanza(stanza, keyword, FALSE); });
}

char *CfgLocalBuildPath(const char *file) { return PathHomeBuild("config", file, static_cast<char *>(nullptr)); }
