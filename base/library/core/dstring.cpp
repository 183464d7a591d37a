// dstring.cpp - OBJ_DSTRING, a growable, always terminated text buffer.
//
// Invariants: 1 <= iUsed <= oText.iSize and the byte at iUsed - 1 is NUL.
// Every append goes through makeRoom, which, when the text plus what comes
// does not fit, moves it to a new buffer of twice the size then needed (at
// most what the 32-bit capacity holds). A dynamic string may arrive from
// elsewhere: the reader of such bytes makes one only if these invariants
// hold for it.
#include "core/dstring.h"

#include <cstdio>
#include <cstring>
#include <optional>

#include "core/context.h"
#include "core/memory.h"
#include "core/strbase.h"
#include "objcore.h"
#include "sizes.h"
#include "tracer.h"

namespace {

constexpr fh::ModuleTracer trace{"STRDYNAM        "};

enum TraceId : int32_t { kIdNew = 1, kIdTooLong = 2 };

inline char *text(const OBJ_DSTRING *s) { return static_cast<char *>(s->oText.pData); }

// What a dynamic string read from elsewhere must be: the invariants above,
// and nothing in the reserved reference.
BOOL holdsTogether(const void *object) {
    const auto *s = static_cast<const OBJ_DSTRING *>(object);
    return s->oText.pData != nullptr && s->iUsed >= 1 && s->iUsed <= s->oText.iSize &&
           static_cast<const char *>(s->oText.pData)[s->iUsed - 1] == '\0' && s->oReserved == nullptr;
}

constinit fh::ObjectType<OBJ_DSTRING> gType{OBJ_DSTRING_MAGIC, OBJ_DSTRING_FORMAT, fh::kReceivable, holdsTogether};

// The capacity for a text of needed bytes: twice that, or what the 32-bit
// capacity holds. A text that cannot fit at all is exhausted memory.
int32_t capacityFor(int64_t needed) {
    if (const std::optional<size_t> doubled = fh::checkedSize(needed, 2)) return static_cast<int32_t>(*doubled);
    if (needed >= 0 && needed <= INT32_MAX) return INT32_MAX;
    trace(kIdTooLong, 0, -1, "A dynamic string of %lld bytes does not fit its capacity", static_cast<long long>(needed));
    ProcCrash(1);
    return INT32_MAX;
}

// Moves the text to a buffer of capacity bytes (the text and its
// terminator are kept) and gives the old buffer, which the caller frees once
// it has copied what it appends: those bytes may lie in the old buffer.
void *moveTo(OBJ_DSTRING *s, int64_t capacity) {
    auto *grown = static_cast<char *>(MemAllocateFromPool(static_cast<size_t>(capacity), nullptr));
    memcpy(grown, text(s), static_cast<size_t>(s->iUsed));
    void *old = s->oText.pData;
    s->oText = {static_cast<int32_t>(capacity), grown};
    return old;
}

// Room for extra more bytes: twice the new size when they don't fit. Gives
// the old buffer to free after the append, or null.
void *makeRoom(OBJ_DSTRING *s, int64_t extra) {
    const int64_t needed = int64_t{s->iUsed} + extra;
    return needed > s->oText.iSize ? moveTo(s, capacityFor(needed)) : nullptr;
}

// Writes count bytes over the terminator, and the terminator behind them.
char *append(OBJ_DSTRING *s, const void *bytes, int32_t count) {
    if (count <= 0) return text(s);
    void *old = makeRoom(s, count);
    memcpy(text(s) + s->iUsed - 1, bytes, static_cast<size_t>(count));
    s->iUsed += count;
    text(s)[s->iUsed - 1] = '\0';
    MemFreeInternal(&old);
    return text(s);
}

// The size in bytes of the last character, 0 for "".
int32_t lastCharSize(const OBJ_DSTRING *s) {
    if (s->iUsed < 2) return 0;
    if (s->iUsed == 2) return 1;
    const auto lead = static_cast<unsigned char>(text(s)[s->iUsed - 3]);
    return (lead >= 0x80 && lead <= 0x9F) || lead >= 0xE0 ? 2 : 1;
}

} // namespace

OBJ_DSTRING *ObjDStringNewSized(const char *initial, int32_t minimum) {
    gType.declare();
    const char *from = initial != nullptr ? initial : "";
    trace(kIdNew, 0, 3, "Creating new dstring '%s'", from);
    const int64_t length = static_cast<int64_t>(strlen(from));
    const int32_t doubled = capacityFor(length + 1);
    auto *s = gType.newInstance(nullptr);
    const auto used = static_cast<int32_t>(length + 1);
    const int32_t capacity = doubled > minimum ? doubled : minimum;
    s->oText = {capacity, MemAllocateFromPool(static_cast<size_t>(capacity), nullptr)};
    memcpy(text(s), from, static_cast<size_t>(used));
    s->iUsed = used;
    return s;
}

OBJ_DSTRING *ObjDStringNew(const char *initial) { return ObjDStringNewSized(initial, 0); }

char *DStringAppendSized(OBJ_DSTRING *string, const void *bytes, int32_t count) {
    if (count == 1 && string->iUsed < string->oText.iSize) { // one byte that fits: the common case
        char *t = text(string);
        t[string->iUsed - 1] = *static_cast<const char *>(bytes);
        t[string->iUsed++] = '\0';
        return t;
    }
    return append(string, bytes, count);
}

void DStringSetSized(OBJ_DSTRING *string, const void *bytes, int32_t count) {
    if (bytes == nullptr || count <= 0) count = 0;
    void *buffer = string->oText.pData;
    const int32_t capacity = count >= string->oText.iSize ? capacityFor(int64_t{count} + 1) : string->oText.iSize;
    if (count >= string->oText.iSize) buffer = MemAllocateFromPool(static_cast<size_t>(capacity), nullptr);
    if (count > 0) memmove(buffer, bytes, static_cast<size_t>(count)); // bytes may lie in the old buffer
    if (buffer != string->oText.pData) {
        MemFreeInternal(&string->oText.pData);
        string->oText = {capacity, buffer};
    }
    text(string)[count] = '\0';
    string->iUsed = count + 1;
}

void DStringAppendCharNTimes(OBJ_DSTRING *string, int32_t value, int32_t count) {
    if (count <= 0) return;
    const int32_t width = value > 255 ? 2 : 1;
    void *old = makeRoom(string, int64_t{width} * count);
    MemFreeInternal(&old);
    char *at = text(string) + string->iUsed - 1;
    for (int32_t i = 0; i < count; ++i) StrPutChar(&at, value);
    string->iUsed += width * count;
    text(string)[string->iUsed - 1] = '\0';
}

char *DStringAppendInteger(OBJ_DSTRING *string, int32_t value) {
    char digits[16];
    const int n = snprintf(digits, sizeof digits, "%ld", static_cast<long>(value));
    return append(string, digits, n);
}

char *DStringAppendInt64(OBJ_DSTRING *string, int64_t value) {
    char digits[24];
    const int n = snprintf(digits, sizeof digits, "%lld", static_cast<long long>(value));
    return append(string, digits, n);
}

int32_t DStringBytesUsed(const OBJ_DSTRING *string) { return string->iUsed; }

int32_t DStringLastChar(const OBJ_DSTRING *string) {
    const int32_t size = lastCharSize(string);
    const auto *end = reinterpret_cast<const unsigned char *>(text(string)) + string->iUsed - 1;
    return size == 0 ? 0 : size == 1 ? end[-1] : end[-2] << 8 | end[-1];
}

int32_t DStringDeleteLastChar(OBJ_DSTRING *string) {
    const int32_t size = lastCharSize(string);
    string->iUsed -= size;
    text(string)[string->iUsed - 1] = '\0';
    return 0;
}
