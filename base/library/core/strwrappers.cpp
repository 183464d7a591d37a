// strwrappers.cpp - lists of values as one line of text, and back.
//
// Joining is one worker over the list: a function per family gives the text
// of an item (or null to skip it) in a scratch area, the worker measures the
// line in a first pass and fills it in a second. Splitting walks the line by
// characters, so a double-byte character whose trail byte looks like a comma
// or a blank stays whole.
#include "core/strwrap.h"

#include <cstdio>
#include <cstring>

#include "core/list.h"
#include "core/memory.h"
#include "core/object.h"
#include "core/objwrappers.h"
#include "core/strbase.h"
#include "objcore.h"
#include "tracer.h"

namespace {

constexpr fh::ModuleTracer trace{"STRWRAP        "};

enum TraceId : int32_t { kIdBadArgument = 1, kIdInsertBadParams = 2 };

constexpr size_t kScratch = 32;

inline bool startMagicIs(const void *item, uint32_t magic) { return item != nullptr && fh::startMagic(item) == magic; }

using ItemText = const char *(*)(void *item, char (&scratch)[kScratch]);

const char *stringText(void *item, char (&)[kScratch]) {
    return startMagicIs(item, OBJ_STRING_MAGIC) ? static_cast<OBJ_STRING *>(item)->pszValue : nullptr;
}

const char *integerText(void *item, char (&scratch)[kScratch]) {
    if (!startMagicIs(item, OBJ_INTEGER_MAGIC)) return nullptr;
    snprintf(scratch, sizeof scratch, "%ld", static_cast<long>(static_cast<OBJ_INTEGER *>(item)->iValue));
    return scratch;
}

const char *addressText(void *item, char (&scratch)[kScratch]) {
    if (!startMagicIs(item, OBJ_INTEGER_MAGIC)) return nullptr;
    char *text = nullptr;
    if (!StrFromIpAddr(&text, static_cast<uint32_t>(static_cast<OBJ_INTEGER *>(item)->iValue))) return nullptr;
    snprintf(scratch, sizeof scratch, "%s", text);
    MemFreeInternal(&text);
    return scratch;
}

// Joins the texts of the items with separator into *out; who names the
// operation in the trace of a bad argument (null: not traced).
BOOL joinList(const char *who, char **out, const LIST *list, const char *separator, ItemText textOf) {
    if (out == nullptr || separator == nullptr || !ListVerify(list)) {
        if (who != nullptr) trace(kIdBadArgument, 0, 2, "Invalid argument to %s", who);
        return FALSE;
    }
    char scratch[kScratch];
    size_t length = 0, texts = 0;
    for (const LISTNODE *node = list->oFirst; node != nullptr; node = node->oNext)
        if (const char *text = textOf(node->oItem, scratch); text != nullptr) length += strlen(text), ++texts;
    if (texts == 0) return FALSE;
    const size_t separatorLength = strlen(separator);
    auto *line = static_cast<char *>(MemAllocateFromPool(length + (texts - 1) * separatorLength + 1, nullptr));
    char *at = line;
    for (const LISTNODE *node = list->oFirst; node != nullptr; node = node->oNext) {
        const char *text = textOf(node->oItem, scratch);
        if (text == nullptr) continue;
        if (at != line) at = static_cast<char *>(mempcpy(at, separator, separatorLength));
        at = static_cast<char *>(mempcpy(at, text, strlen(text)));
    }
    *at = '\0';
    *out = line;
    return TRUE;
}

constexpr bool blank(int32_t c) { return c == ' ' || c == '\t'; }

// Adds the item from start up to end (no text when empty) to the list.
void addItem(LIST *list, const char *start, const char *end) {
    OBJ_STRING *item = end > start ? ObjStringNewRanged(start, static_cast<int32_t>(end - start)) : ObjStringNew(nullptr);
    ListPushLastItemInternal(list, &item);
}

} // namespace

BOOL StrFromStrList(char **out, const LIST *list) { return joinList("StrFromStrList", out, list, ", ", stringText); }

BOOL StrFromStrListWithDelimiter(char **out, const LIST *list, const char *delimiter) {
    return joinList("StrFromStrListWithDelimiter", out, list, delimiter, stringText);
}

BOOL StrFromValueList(char **out, const LIST *list) {
    return joinList("StrFromValueList", out, list, ", ", integerText);
}

BOOL StrFromIpList(char **out, const LIST *list) { return joinList(nullptr, out, list, ", ", addressText); }

BOOL StrValueListFromString(LIST **out, const char *string) {
    if (out == nullptr) return FALSE;
    LIST *list = ListNewFromPool(0, nullptr);
    for (const char *p = string != nullptr ? string : "";;) {
        while (blank(StrGetCharAtPointer(p))) ++p;
        const char *start = p, *end = p;
        int32_t c = 0;
        while ((c = StrGetChar(&p)) != 0 && c != ',')
            if (!blank(c)) end = p;
        if (c == ',') {
            addItem(list, start, end);
            continue;
        }
        if (end > start || list->iCount > 0) addItem(list, start, end);
        break;
    }
    *out = list;
    return TRUE;
}

BOOL StrInsertInList(LIST *list, const char *string) {
    if (string == nullptr || !ListVerify(list)) {
        trace(kIdInsertBadParams, 0, 2, "StrInsertInList(%p,'%s') - bad params", static_cast<void *>(list),
              string != nullptr ? string : "(null)");
        return FALSE;
    }
    OBJ_STRING *item = ObjStringNew(string);
    LISTNODE *node = list->oFirst;
    while (node != nullptr && StrCompareNoCase(ObjGetString(node->oItem), string) <= 0) node = node->oNext;
    const BOOL added = node != nullptr ? ListInsertBefore(node, item) : ListAddLastItem(list, item);
    ObjReleaseInternal(&item);
    return added;
}

char *StrFromInt64Time(int64_t milliseconds) {
    const int64_t seconds = milliseconds / 1000;
    char text[64];
    snprintf(text, sizeof text, "%2.2ld:%2.2ld:%2.2ld", static_cast<long>(seconds / 3600),
             static_cast<long>(seconds / 60 % 60), static_cast<long>(seconds % 60));
    return StrDuplicateIntoPool(text, nullptr);
}
