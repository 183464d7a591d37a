// objcore.h - the object core's private view: the header in front of a
// payload, the facts of each datatype of the component format language, and
// what a reader of bytes from elsewhere may do with a template.
#ifndef FHCORE_OBJCORE_H
#define FHCORE_OBJCORE_H

#include <cstddef>
#include <cstdint>
#include <span>

#include "core/object.h"

namespace fh {

// The header in front of an object's payload, its start magic (compared
// inline by the accessors that run on every message), and the pool of its
// block, which stands directly in front of the header.
inline ObjectHeader *objectHeader(const void *object) {
    return static_cast<ObjectHeader *>(const_cast<void *>(object)) - 1;
}
inline uint32_t startMagic(const void *object) { return objectHeader(object)->StartMagic; }
inline MemPool *objectPool(const void *object) {
    return (reinterpret_cast<MemBlockHeader *>(objectHeader(object)) - 1)->Pool;
}
inline int32_t refCount(const void *object) { return objectHeader(object)->RefCount; }

// A component of an object, as the template's entry places it, and the
// entries of a template.
template <typename T> inline T &field(void *object, const ComponentEntry &entry) {
    return *reinterpret_cast<T *>(static_cast<char *>(object) + entry.Offset);
}
inline std::span<const ComponentEntry> entriesOf(const ObjectTemplate *objectTemplate) {
    return {objectTemplate->Descriptor.Entries, static_cast<size_t>(objectTemplate->Descriptor.FieldCount)};
}

// The heap's blocks are aligned to 8 at least, and so are the user area behind
// a block header and the payload behind an object header, on either word
// width: a 64-bit component of a payload sits on its own boundary.
static_assert(sizeof(MemBlockHeader) % 8 == 0 && (sizeof(MemBlockHeader) + sizeof(ObjectHeader)) % 8 == 0,
              "headers keep 8-byte alignment");

// Per datatype of the component format language: payload bytes and
// alignment on this machine, bytes in the stored form, and whether the
// object owns what the component points at.
struct DatatypeInfo {
    int32_t size;
    int32_t align;
    int32_t dbSize;
    bool owns;
};
inline constexpr int32_t kPointerSize = sizeof(void *);
inline constexpr DatatypeInfo kDatatypes[] = {
    {0, 1, 0, false},                                     // 0 none
    {4, 4, 4, false},                                     // 1 b
    {4, 4, 4, false},                                     // 2 i
    {kPointerSize, kPointerSize, 8, true},                // 3 s
    {kPointerSize, kPointerSize, 8, true},                // 4 o, L
    {kPointerSize, kPointerSize, 0, false},               // 5 l
    {kPointerSize, kPointerSize, 8, true},                // 6 z
    {sizeof(ObjData), alignof(ObjData), 8, true},         // 7 d
    {0, 4, 8, false},                                     // 8 c, n: size from the format
    {sizeof(ObjViewInfo), alignof(ObjViewInfo), 0, true}, // 9 v
    {sizeof(int64_t), alignof(int64_t), 8, false},        // 10 I
    {32, 4, 32, false},                                   // 11 u
    {kPointerSize, kPointerSize, 0, false},               // 12 p
};

constexpr int32_t datatypeOfLetter(char letter) {
    switch (letter) {
    case 'b': return eObjBoolean;
    case 'i': return eObjInteger;
    case 's': return eObjString;
    case 'o': case 'L': return eObjObject;
    case 'l': return eObjBackLink;
    case 'z': return eObjStanza;
    case 'd': return eObjData;
    case 'c': case 'n': return eObjInline;
    case 'v': return eObjViewInfo;
    case 'I': return eObjInt64;
    case 'u': return eObjUnique;
    case 'p': return eObjPointer;
    default: return eObjNone;
    }
}

// The payload size of a format as a template computes it: each component at
// the next multiple of its alignment, inline counts rounded up to 4, the
// whole rounded up to the largest alignment. A module checks the C struct
// of its type against its format with this in a static_assert.
constexpr int64_t formatPayloadSize(const char *format) {
    int64_t payload = 0;
    int32_t largestAlign = 1;
    for (const char *c = format; *c != '\0' && datatypeOfLetter(*c) != eObjNone;) {
        const DatatypeInfo &info = kDatatypes[datatypeOfLetter(*c)];
        int64_t size = info.size;
        if (datatypeOfLetter(*c) == eObjInline) {
            size = 0;
            for (const char *digit = c + 1; *digit >= '0' && *digit <= '9'; ++digit) size = size * 10 + (*digit - '0');
            size = (size + 3) / 4 * 4;
        }
        payload = (payload + info.align - 1) / info.align * info.align + size;
        largestAlign = info.align > largestAlign ? info.align : largestAlign;
        while (*c != '\0' && *c != ';') ++c;
        if (*c == ';') ++c;
    }
    return (payload + largestAlign - 1) / largestAlign * largestAlign;
}

// Blocks that templates, the template table and run-time names hold until
// the process ends; a leak check leaves them out.
int32_t objectTemplateBlocks();

// ---- Bytes from elsewhere (objserial.h states the rules)
//
// A reader of bytes from elsewhere makes objects of two kinds of template
// only: those made for a received format (Foreign, no release callback),
// and declared ones that their module marked receivable
// (ObjTemplateSetReceivable). A receivable template with a release
// callback or a p component, or with fields that must agree, carries a
// check: it sees each object so made once its components are read, and a
// FALSE answer refuses the object.
enum class Reception { kRefused, kPlain, kChecked };

// How a module declares a type that may arrive from elsewhere, in one call:
// the template as ObjTemplateCreateInternal gets it, marked receivable.
bool declareReceivable(ObjectTemplate **templateVariable, int32_t size, uint32_t magic, const char *format,
                       ObjReceivedCheck check = nullptr);

// What a reader of bytes from elsewhere may do with a template, and the
// check it runs (null for kPlain).
Reception objectReception(const ObjectTemplate *objectTemplate, ObjReceivedCheck *check);

// The template that (magic, format) names now, without making one: the
// table's, or another shape behind it; null when getting it would build one
// (or fail).
ObjectTemplate *objectTemplateFind(uint32_t magic, const char *format);

// Templates made for received formats in this process, the pool bytes they
// hold, and the pool bytes a template for (magic, format) would take.
int32_t objectForeignTemplates();
size_t objectForeignTemplateBytes();
size_t objectTemplateBytes(uint32_t magic, const char *format);

// The bytes of an instance of the declared type of magic (0 when none).
int32_t objectInstanceSize(uint32_t magic);

} // namespace fh

#endif // FHCORE_OBJCORE_H
