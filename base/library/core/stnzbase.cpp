// stnzbase.cpp - stanzas and keys in memory.
//
// A stanza and a key are the same shape: a few fields, a count, a capacity
// and an inline array of pointers (keys, values) at the end of one block.
// One set of helpers, parametrised by the record, allocates such a block,
// grows it (moving it, so callers pass the address of their pointer),
// appends to it and closes a gap in it. Everything else is a thin operation
// over those helpers and over the two look-ups: the first key of a keyword
// (no case) and the first value equal to a text (case counts).
//
// Invariants: count <= capacity, 1 <= capacity <= STNZ_MAX_SLOTS, keyword
// and title-less category aside every name is a private copy from the
// default pool.
#include "core/stanza.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <optional>

#include "core/list.h"
#include "core/memory.h"
#include "core/objviewinfo.h"
#include "core/objwrappers.h"
#include "core/strbase.h"
#include "objcore.h"
#include "sizes.h"
#include "tracer.h"

namespace {

constexpr fh::ModuleTracer trace{"STANZA        "};

enum TraceId : int32_t { kIdNotAString = 20, kIdTooManySlots = 21 }; // stnzfile.cpp has 1 to 13

constexpr int32_t kValueGrowth = 4;
constexpr int32_t kKeyGrowth = 1;

MemPool *gPool = nullptr;
MemPool *pool() {
    if (gPool == nullptr) gPool = MemGetDefaultPoolId();
    return gPool;
}

char *copyOf(const char *text) { return text != nullptr ? StrDuplicateIntoPool(text, pool()) : nullptr; }

// The inline array of a record: count, capacity and the slots.
template <typename R> struct Slots;
template <> struct Slots<Stanza> {
    using Slot = StanzaKey *;
    static int32_t &count(Stanza *s) { return s->keyCount; }
    static int32_t &capacity(Stanza *s) { return s->keyCapacity; }
    static Slot *at(Stanza *s) { return s->keys; }
};
template <> struct Slots<StanzaKey> {
    using Slot = char *;
    static int32_t &count(StanzaKey *k) { return k->valueCount; }
    static int32_t &capacity(StanzaKey *k) { return k->valueCapacity; }
    static Slot *at(StanzaKey *k) { return k->values; }
};

// A record of capacity slots (at least 1); null, traced, beyond the bound.
template <typename R> R *allocate(int64_t capacity) {
    capacity = capacity < 1 ? 1 : capacity;
    const std::optional<size_t> bytes = capacity <= STNZ_MAX_SLOTS
                                            ? fh::checkedSize(capacity, sizeof(typename Slots<R>::Slot), sizeof(R))
                                            : std::nullopt;
    if (!bytes) {
        trace(kIdTooManySlots, 0, 1, "A capacity of %lld slots is beyond the bound of %ld",
              static_cast<long long>(capacity), static_cast<long>(STNZ_MAX_SLOTS));
        return nullptr;
    }
    auto *r = static_cast<R *>(MemAllocateFromPool(*bytes, pool()));
    Slots<R>::capacity(r) = static_cast<int32_t>(capacity);
    return r;
}

// Room for one more slot, growing by step (not beyond the bound); the
// record may move. False, with the record as it was, when it is full.
template <typename R> bool makeRoom(R *&r, int32_t step) {
    using S = Slots<R>;
    if (S::count(r) < S::capacity(r)) return true;
    const int64_t wanted = int64_t{S::capacity(r)} + step; // a full record asks beyond the bound, and fails
    R *grown = allocate<R>(S::capacity(r) < STNZ_MAX_SLOTS ? std::min<int64_t>(wanted, STNZ_MAX_SLOTS) : wanted);
    if (grown == nullptr) return false;
    const int32_t capacity = S::capacity(grown);
    memcpy(grown, r, sizeof(R) + static_cast<size_t>(S::count(r)) * sizeof(typename S::Slot));
    S::capacity(grown) = capacity;
    MemFreeInternal(&r);
    r = grown;
    return true;
}

template <typename R> bool append(R *&r, typename Slots<R>::Slot slot, int32_t step) {
    if (!makeRoom(r, step)) return false;
    Slots<R>::at(r)[Slots<R>::count(r)++] = slot;
    return true;
}

template <typename R> void closeGap(R *r, int32_t index) {
    using S = Slots<R>;
    memmove(&S::at(r)[index], &S::at(r)[index + 1], static_cast<size_t>(S::count(r) - index - 1) * sizeof(typename S::Slot));
    --S::count(r);
}

int32_t findKey(const Stanza *stanza, const char *keyword, int32_t from = 0) {
    if (stanza == nullptr || keyword == nullptr) return -1;
    for (int32_t i = from; i < stanza->keyCount; ++i)
        if (StrCompareNoCase(stanza->keys[i]->keyword, keyword) == 0) return i;
    return -1;
}

bool sameValue(const char *a, const char *b) { return a == b || (a != nullptr && b != nullptr && strcmp(a, b) == 0); }

const char *firstValue(const Stanza *stanza, const char *keyword, bool &found) {
    const int32_t i = findKey(stanza, keyword);
    found = i >= 0;
    return found ? StnzKeyValue(stanza->keys[i], 1) : nullptr;
}

// A key of one value for the StnzCreateKeyFrom... family.
BOOL keyOfOne(StanzaKey **out, const char *keyword, const char *value) {
    if (out == nullptr || keyword == nullptr || *keyword == '\0' || !StnzCreateKey(out, keyword, 1)) return FALSE;
    return StnzAddValueToKey(out, value);
}

// Builds a key with make and adds it, or replaces the keyword's keys with it.
template <typename Make> BOOL setKeyword(Stanza **stanzaAddress, const char *keyword, BOOL replace, Make make) {
    if (stanzaAddress == nullptr || *stanzaAddress == nullptr || keyword == nullptr) return FALSE;
    StanzaKey *key = nullptr;
    if (!make(&key)) return FALSE;
    const BOOL result = replace ? StnzReplaceKeyInStanza(stanzaAddress, &key) : StnzAddKeyToStanza(stanzaAddress, &key);
    StnzReleaseKey(&key);
    return result;
}

} // namespace

BOOL StnzCreate(Stanza **out, const char *category, const char *title, int32_t capacity) {
    if (out == nullptr || capacity < 0) return FALSE;
    Stanza *stanza = allocate<Stanza>(capacity);
    if (stanza == nullptr) return FALSE;
    stanza->category = copyOf(category);
    stanza->title = copyOf(title);
    *out = stanza;
    return TRUE;
}

void StnzRelease(Stanza **stanzaAddress) {
    if (stanzaAddress == nullptr || *stanzaAddress == nullptr) return;
    Stanza *stanza = *stanzaAddress;
    for (int32_t i = 0; i < stanza->keyCount; ++i) StnzReleaseKey(&stanza->keys[i]);
    MemFreeInternal(&stanza->category);
    MemFreeInternal(&stanza->title);
    MemFreeInternal(stanzaAddress);
}

BOOL StnzCreateKey(StanzaKey **out, const char *keyword, int32_t capacity) {
    if (out == nullptr || keyword == nullptr || capacity < 0) return FALSE;
    StanzaKey *key = allocate<StanzaKey>(capacity);
    if (key == nullptr) return FALSE;
    key->keyword = copyOf(keyword);
    *out = key;
    return TRUE;
}

void StnzReleaseKey(StanzaKey **keyAddress) {
    if (keyAddress == nullptr || *keyAddress == nullptr) return;
    StanzaKey *key = *keyAddress;
    for (int32_t i = 0; i < key->valueCount; ++i) MemFreeInternal(&key->values[i]);
    MemFreeInternal(&key->keyword);
    MemFreeInternal(keyAddress);
}

BOOL StnzKeyCopy(StanzaKey **out, const StanzaKey *key) {
    if (key == nullptr || !StnzCreateKey(out, key->keyword, key->valueCapacity)) return FALSE;
    for (int32_t i = 0; i < key->valueCount; ++i) (*out)->values[i] = copyOf(key->values[i]);
    (*out)->valueCount = key->valueCount;
    return TRUE;
}

BOOL StnzCopy(Stanza **out, const Stanza *stanza) {
    if (stanza == nullptr || !StnzCreate(out, stanza->category, stanza->title, stanza->keyCapacity)) return FALSE;
    for (int32_t i = 0; i < stanza->keyCount; ++i) {
        if (!StnzKeyCopy(&(*out)->keys[i], stanza->keys[i])) {
            StnzRelease(out);
            return FALSE;
        }
        (*out)->keyCount = i + 1;
    }
    return TRUE;
}

BOOL StnzGetKey(StanzaKey **out, const Stanza *stanza, const char *keyword) {
    const int32_t i = findKey(stanza, keyword);
    if (i < 0) return FALSE;
    if (out != nullptr) *out = stanza->keys[i];
    return TRUE;
}

const char *StnzKeyValue(const StanzaKey *key, int32_t index) {
    return key != nullptr && index >= 1 && index <= key->valueCount ? key->values[index - 1] : nullptr;
}

int32_t StnzKeyValueCount(const StanzaKey *key) { return key != nullptr ? key->valueCount : -1; }

BOOL StnzWalk(Stanza *stanza, StnzWalkFunction callback, void *cookie) {
    if (stanza == nullptr || callback == nullptr) return FALSE;
    BOOL result = TRUE;
    for (int32_t i = 0; i < stanza->keyCount && result; ++i) result = callback(cookie, &stanza->keys[i]);
    return result;
}

// The first value through convert, or the default when the key is missing
// or its value does not convert.
template <typename T> BOOL getNumber(const Stanza *stanza, const char *keyword, T defaultValue, T *out,
                                     BOOL (*convert)(const char *, T *)) {
    if (out == nullptr) return FALSE;
    bool found = false;
    const char *value = firstValue(stanza, keyword, found);
    T converted{};
    *out = value != nullptr && convert(value, &converted) ? converted : defaultValue;
    return TRUE;
}

BOOL StnzGetInteger(const Stanza *stanza, const char *keyword, int32_t defaultValue, int32_t *out) {
    return getNumber(stanza, keyword, defaultValue, out, StrToInteger);
}

BOOL StnzGetInt64(const Stanza *stanza, const char *keyword, int64_t defaultValue, int64_t *out) {
    return getNumber(stanza, keyword, defaultValue, out, StrToInt64);
}

BOOL StnzGetBoolean(const Stanza *stanza, const char *keyword, BOOL defaultValue, BOOL *out) {
    if (out == nullptr) return FALSE;
    bool found = false;
    const char *value = firstValue(stanza, keyword, found);
    *out = !found ? defaultValue : value != nullptr && StrCompareNoCase(value, "true") == 0 ? TRUE : FALSE;
    return TRUE;
}

BOOL StnzGetString(const Stanza *stanza, const char *keyword, const char *defaultValue, char **out) {
    if (out == nullptr) return FALSE;
    bool found = false;
    const char *value = firstValue(stanza, keyword, found);
    *out = copyOf(found ? value : defaultValue);
    return TRUE;
}

BOOL StnzGetValueList(const Stanza *stanza, const char *keyword, LIST **out) {
    const int32_t i = findKey(stanza, keyword);
    return i >= 0 && StnzKeyGetValueList(stanza->keys[i], out);
}

BOOL StnzKeyGetValueList(const StanzaKey *key, LIST **out) {
    if (key == nullptr || out == nullptr) return FALSE;
    LIST *list = ListNewFromPool(OBJ_STRING_MAGIC, pool());
    for (int32_t i = 0; i < key->valueCount; ++i) {
        OBJ_STRING *item = ObjStringNew(key->values[i]);
        ListPushLastItemInternal(list, &item);
    }
    *out = list;
    return TRUE;
}

BOOL StnzAddKeyToStanza(Stanza **stanzaAddress, StanzaKey **keyAddress) {
    if (stanzaAddress == nullptr || *stanzaAddress == nullptr || keyAddress == nullptr || *keyAddress == nullptr)
        return FALSE;
    if (!append(*stanzaAddress, *keyAddress, kKeyGrowth)) return FALSE;
    *keyAddress = nullptr;
    return TRUE;
}

BOOL StnzReplaceKeyInStanza(Stanza **stanzaAddress, StanzaKey **keyAddress) {
    if (stanzaAddress == nullptr || *stanzaAddress == nullptr || keyAddress == nullptr || *keyAddress == nullptr)
        return FALSE;
    StnzDeleteKeywordFromStanza(*stanzaAddress, (*keyAddress)->keyword, TRUE);
    return StnzAddKeyToStanza(stanzaAddress, keyAddress);
}

BOOL StnzDeleteKeywordFromStanza(Stanza *stanza, const char *keyword, BOOL all) {
    BOOL any = FALSE;
    for (int32_t i = findKey(stanza, keyword); i >= 0; i = all ? findKey(stanza, keyword, i) : -1) {
        StnzReleaseKey(&stanza->keys[i]);
        closeGap(stanza, i);
        any = TRUE;
    }
    return any;
}

void StnzRemoveKeyFromStanza(Stanza *stanza, const StanzaKey *key) {
    if (stanza == nullptr || key == nullptr) return;
    for (int32_t i = 0; i < stanza->keyCount; ++i) {
        if (stanza->keys[i] == key) {
            closeGap(stanza, i);
            return;
        }
    }
}

BOOL StnzAddValueToKey(StanzaKey **keyAddress, const char *value) {
    if (keyAddress == nullptr || *keyAddress == nullptr) return FALSE;
    char *copy = copyOf(value);
    if (append(*keyAddress, copy, kValueGrowth)) return TRUE;
    MemFreeInternal(&copy);
    return FALSE;
}

BOOL StnzDeleteValueFromKey(StanzaKey *key, const char *value, BOOL all) {
    if (key == nullptr) return FALSE;
    BOOL any = FALSE;
    for (int32_t i = 0; i < key->valueCount && (all || !any);) {
        if (!sameValue(key->values[i], value)) {
            ++i;
            continue;
        }
        MemFreeInternal(&key->values[i]);
        closeGap(key, i);
        any = TRUE;
    }
    return any;
}

BOOL StnzRemoveValueFromKey(StanzaKey *key, int32_t index) {
    if (key == nullptr || index < 1 || index > key->valueCount) return FALSE;
    closeGap(key, index - 1);
    return TRUE;
}

BOOL StnzCreateKeyFromInteger(StanzaKey **out, const char *keyword, int32_t value) {
    char text[16];
    snprintf(text, sizeof text, "%ld", static_cast<long>(value));
    return keyOfOne(out, keyword, text);
}

BOOL StnzCreateKeyFromInt64(StanzaKey **out, const char *keyword, int64_t value) {
    char *text = nullptr;
    StrFromInt64(&text, value);
    const BOOL made = keyOfOne(out, keyword, text);
    MemFreeInternal(&text);
    return made;
}

BOOL StnzCreateKeyFromBoolean(StanzaKey **out, const char *keyword, BOOL value) {
    return keyOfOne(out, keyword, value ? "true" : "false");
}

BOOL StnzCreateKeyFromString(StanzaKey **out, const char *keyword, const char *string) {
    return keyOfOne(out, keyword, string);
}

BOOL StnzCreateKeyFromValueList(StanzaKey **out, const char *keyword, const LIST *list) {
    if (out == nullptr || keyword == nullptr || *keyword == '\0' || list == nullptr || !ListVerify(list) ||
        !StnzCreateKey(out, keyword, list->iCount))
        return FALSE;
    for (const LISTNODE *node = list->oFirst; node != nullptr; node = node->oNext) {
        if (node->oItem == nullptr || fh::startMagic(node->oItem) != OBJ_STRING_MAGIC) {
            trace(kIdNotAString, 0, 2, "Not an ObjStringO");
            continue;
        }
        StnzAddValueToKey(out, ObjGetString(node->oItem));
    }
    return TRUE;
}

BOOL StnzSetKeywordFromInteger(Stanza **stanzaAddress, const char *keyword, int32_t value, BOOL replace) {
    return setKeyword(stanzaAddress, keyword, replace,
                      [&](StanzaKey **key) { return StnzCreateKeyFromInteger(key, keyword, value); });
}

BOOL StnzSetKeywordFromBoolean(Stanza **stanzaAddress, const char *keyword, BOOL value, BOOL replace) {
    return setKeyword(stanzaAddress, keyword, replace,
                      [&](StanzaKey **key) { return StnzCreateKeyFromBoolean(key, keyword, value); });
}

BOOL StnzSetKeywordFromString(Stanza **stanzaAddress, const char *keyword, const char *string, BOOL replace) {
    return setKeyword(stanzaAddress, keyword, replace,
                      [&](StanzaKey **key) { return StnzCreateKeyFromString(key, keyword, string); });
}

BOOL StnzSetKeywordFromValueList(Stanza **stanzaAddress, const char *keyword, const LIST *list, BOOL replace) {
    return setKeyword(stanzaAddress, keyword, replace,
                      [&](StanzaKey **key) { return StnzCreateKeyFromValueList(key, keyword, list); });
}
