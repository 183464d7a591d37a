// cfgutil.cpp - the configuration utilities: where a file's settings are,
// whether a call goes remote, and the settings of a stanza list held in
// memory.
//
// In memory, a setting is the key "value" of the first stanza [section:item]
// of the list, else the key item of the first stanza [section].
#include "core/config.h"

#include <cstring>

#include "core/cfglocal.h"
#include "core/context.h"
#include "core/filesys.h"
#include "core/list.h"
#include "core/memory.h"
#include "core/object.h"
#include "core/objwrappers.h"
#include "core/path.h"
#include "core/stanza.h"
#include "core/strbase.h"
#include "core/task.h"
#include "objcore.h"
#include "text.h"
#include "tracer.h"

namespace {

using fh::charBytes;
using fh::isBlank;

constexpr fh::ModuleTracer traceUtil{"CFGUTIL        "};

// Trace ids of this module; fixed once chosen.
enum UtilTraceId : int32_t {
    kIdNullFile = 1,
    kIdTryPlain = 2,
    kIdAddItem = 3,
};

constexpr const char *kValue = "value";

// ---- Settings in a stanza list ----------------------------------------------

inline bool sameName(const char *a, const char *b) {
    return StrCompareNoCase(a != nullptr ? a : "", b != nullptr ? b : "") == 0;
}

// The key keyword of the first OBJ_STANZA of those names in list.
StanzaKey *listKey(const LIST *list, const char *category, const char *title, const char *keyword) {
    if (!ObjCheckTypeInternal(list, LIST_MAGIC) || title == nullptr || keyword == nullptr) return nullptr;
    for (const LISTNODE *node = list->oFirst; node != nullptr; node = node->oNext) {
        if (!ObjCheckTypeInternal(node->oItem, OBJ_STANZA_MAGIC)) continue;
        const Stanza *stanza = static_cast<const OBJ_STANZA *>(node->oItem)->pStanza;
        if (stanza == nullptr || !sameName(stanza->title, title) || !sameName(stanza->category, category)) continue;
        StanzaKey *key = nullptr;
        return StnzGetKey(&key, stanza, keyword) ? key : nullptr;
    }
    return nullptr;
}

template <typename T, typename Convert>
BOOL convertFromList(T *out, const LIST *list, const char *section, const char *item, T defaultValue,
                     Convert convert) {
    StanzaKey *key = nullptr;
    if (out == nullptr) return FALSE;
    if (!CfgUtilGetKeyFromList(list, section, item, &key)) {
        *out = defaultValue;
        return FALSE;
    }
    return convert(StnzKeyValue(key, 1), out);
}

// ---- The split of a value list held in one value ------------------------------

// The text of one item from p on: up to "!," (true, p behind it) or the end
// (false). "!!" takes the character after it along; blanks before the item
// and blanks and commas at its end do not count; a '!' that ends the text
// is no text.
bool scanItem(const char *&p, char *text, size_t &length) {
    while (isBlank(*p)) ++p;
    length = 0;
    size_t counted = 0;
    while (*p != '\0') {
        if (p[0] == '!' && p[1] == ',') {
            p += 2;
            length = counted;
            return true;
        }
        if (p[0] == '!' && p[1] == '\0') {
            ++p;
            break;
        }
        const bool taken = p[0] == '!' && p[1] == '!' && p[2] != '\0';
        const size_t bytes = taken ? 2 + charBytes(p + 2) : charBytes(p);
        memcpy(text + length, p, bytes);
        length += bytes;
        if (taken || bytes == 2 || (!isBlank(*p) && *p != ',')) counted = length;
        p += bytes;
    }
    length = counted;
    return false;
}

// Undoes the '!' of an item's text in place: each '!' counts and takes the
// character behind it, which is kept at the count of 1 and dropped at 2,
// when the count starts again.
void undoEscapes(char *text, size_t &length) {
    size_t out = 0;
    int count = 0;
    for (size_t i = 0; i < length;) {
        if (text[i] != '!') {
            const size_t bytes = i + 1 < length ? charBytes(text + i) : 1;
            memmove(text + out, text + i, bytes);
            out += bytes;
            i += bytes;
            continue;
        }
        ++i;
        if (i >= length) break;
        const size_t bytes = i + 1 < length ? charBytes(text + i) : 1;
        if (++count == 1) {
            memmove(text + out, text + i, bytes);
            out += bytes;
        } else {
            count = 0;
        }
        i += bytes;
    }
    length = out;
}

bool addItem(LIST *items, const char *text) {
    traceUtil(kIdAddItem, 0, 3, "Add item '%s' to exclude list", text != nullptr ? text : "");
    OBJ_STRING *item = ObjStringNew(text);
    if (item != nullptr && ListPushLastItemInternal(items, &item)) return true;
    ObjReleaseInternal(&item);
    return false;
}

} // namespace

// ---- Paths and routing ------------------------------------------------------

char *CfgUtilBuildPath(const char *file, const char *alternatePath) {
    if (file == nullptr) {
        traceUtil(kIdNullFile, 0, 1, "CfgUtilBuildPath passed null stanza file");
        return nullptr;
    }
    if (alternatePath == nullptr) return CfgLocalBuildPath(file);
    return PathHomeBuild(alternatePath, file, static_cast<char *>(nullptr));
}

BOOL CfgUtilDoRemote(char **client, char **server, const char *file, const char *alternatePath) {
    // The details come from the task context; the map file decides per file.
    char *clientName = nullptr, *serverName = nullptr;
    if (!CfgUtilDoRemoteFromProcContext(&clientName, &serverName)) return FALSE;
    if (client == nullptr || server == nullptr || !CfgUtilDoRemoteFromMapFile(file, alternatePath)) {
        MemFreeInternal(&clientName);
        MemFreeInternal(&serverName);
        return FALSE;
    }
    *client = clientName;
    *server = serverName;
    return TRUE;
}

BOOL CfgUtilDoRemoteFromProcContext(char **client, char **server) {
    // The details may have come with a task from another machine: both
    // names are read only from an object whose first two components are
    // strings.
    const auto *context =
        fh::objectShaped<TASK_CONTEXT>(gtLmContext.oMsgTaskContext, TASK_CONTEXT_MAGIC, TASK_CONTEXT_FORMAT);
    void *found = nullptr;
    if (client == nullptr || server == nullptr || context == nullptr ||
        !TaskGetContextObject(&found, context, CFG_UTIL_REMOTE_CONFIG_DETAILS_MAGIC))
        return FALSE;
    const char *format = ObjGetFormat(ObjGetTemplateFromObject(found));
    const auto *details = static_cast<const CFG_UTIL_REMOTE_CONFIG_DETAILS *>(found);
    const bool named = format != nullptr && strncmp(format, "s;s;", 4) == 0 && details->pszClient != nullptr &&
                       *details->pszClient != '\0' && details->pszServer != nullptr && *details->pszServer != '\0';
    if (named) {
        *client = StrDuplicateIntoPool(details->pszClient, nullptr);
        *server = StrDuplicateIntoPool(details->pszServer, nullptr);
    }
    ObjReleaseInternal(&found);
    return named;
}

BOOL CfgUtilDoRemoteFromMapFile(const char *file, const char *alternatePath) {
    return CfgUtilMapFileExists(file, alternatePath);
}

BOOL CfgUtilMapFileExists(const char *file, const char *alternatePath) {
    if (file == nullptr) return FALSE;
    char *name = StrCat(file, ".map", static_cast<char *>(nullptr));
    char *path = alternatePath != nullptr ? PathBuild(alternatePath, name, static_cast<char *>(nullptr))
                                          : PathHomeBuild("config", "map", name, static_cast<char *>(nullptr));
    const BOOL exists = path != nullptr && FileExists(path);
    MemFreeInternal(&path);
    MemFreeInternal(&name);
    return exists;
}

// ---- Settings in a stanza list ----------------------------------------------

BOOL CfgUtilGetKeyFromList(const LIST *list, const char *section, const char *item, StanzaKey **out) {
    if (out == nullptr) return FALSE;
    StanzaKey *key = listKey(list, section, item, kValue);
    if (key == nullptr) {
        traceUtil(kIdTryPlain, 0, 3, "Trying to load key '%s' from stanza '%s'", item != nullptr ? item : "(null)",
                  section != nullptr ? section : "(null)");
        key = listKey(list, nullptr, section, item);
    }
    if (key == nullptr) return FALSE;
    *out = key;
    return TRUE;
}

BOOL CfgUtilGetBooleanFromList(BOOL *out, const LIST *list, const char *section, const char *item,
                               BOOL defaultValue) {
    return convertFromList(out, list, section, item, defaultValue, StrToBoolean);
}

BOOL CfgUtilGetIntegerFromList(int32_t *out, const LIST *list, const char *section, const char *item,
                               int32_t defaultValue) {
    return convertFromList(out, list, section, item, defaultValue, StrToInteger);
}

BOOL CfgUtilGetInt64FromList(int64_t *out, const LIST *list, const char *section, const char *item,
                             int64_t defaultValue) {
    return convertFromList(out, list, section, item, defaultValue, StrToInt64);
}

BOOL CfgUtilGetValueListFromList(LIST **out, const LIST *list, const char *section, const char *item) {
    StanzaKey *key = nullptr;
    return out != nullptr && CfgUtilGetKeyFromList(list, section, item, &key) && StnzKeyGetValueList(key, out);
}

BOOL CfgUtilParseValueList(LIST **out, const LIST *list) {
    if (out == nullptr || !ObjCheckTypeInternal(list, LIST_MAGIC) || list->oFirst == nullptr ||
        !ObjCheckTypeInternal(list->oFirst->oItem, OBJ_STRING_MAGIC))
        return FALSE;
    const char *p = ObjGetString(list->oFirst->oItem);
    LIST *items = ListNewFromPool(OBJ_STRING_MAGIC, nullptr);
    char *text = static_cast<char *>(MemAllocateFromPool(p != nullptr ? strlen(p) + 1 : 1, nullptr));
    bool ok = items != nullptr && text != nullptr;
    for (bool separated = true; ok && p != nullptr && separated;) {
        size_t length = 0;
        separated = scanItem(p, text, length);
        undoEscapes(text, length);
        text[length] = '\0';
        if (length > 0 || separated) ok = addItem(items, length > 0 ? text : nullptr);
    }
    MemFreeInternal(&text);
    if (!ok) {
        ObjReleaseInternal(&items);
        return FALSE;
    }
    *out = items;
    return TRUE;
}
