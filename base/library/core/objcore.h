// objcore.h - the object core's private view: the header in front of a
// payload, the facts of each datatype of the component format language, and
// what a reader of bytes from elsewhere may do with a template.
#ifndef FHCORE_OBJCORE_H
#define FHCORE_OBJCORE_H

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <span>

#include "core/object.h"

namespace fh {

struct ContainerOperations; // objcontainer.h

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

// Per datatype of the component format language, in one table: its letters,
// payload bytes and alignment on this machine, bytes in the stored form of a
// template's DbSize, the fewest bytes it takes in the byte form (an inline
// count adds its own bytes), and whether the object owns what the component
// points at, so that release and copy must look at it.
struct DatatypeInfo {
    char letters[3];
    int32_t size;
    int32_t align;
    int32_t dbSize;
    int32_t leastStored;
    bool owns;
};
inline constexpr int32_t kPointerSize = sizeof(void *);
inline constexpr DatatypeInfo kDatatypes[] = {
    {"", 0, 1, 0, 4, false},                                      // 0 none
    {"b", 4, 4, 4, 1, false},                                     // 1
    {"i", 4, 4, 4, 4, false},                                     // 2
    {"s", kPointerSize, kPointerSize, 8, 4, true},                // 3
    {"oL", kPointerSize, kPointerSize, 8, 1, true},               // 4
    {"l", kPointerSize, kPointerSize, 0, 4, false},               // 5
    {"z", kPointerSize, kPointerSize, 8, 1, true},                // 6
    {"d", sizeof(ObjData), alignof(ObjData), 8, 4, true},         // 7
    {"cn", 0, 4, 8, 4, false},                                    // 8 size from the format
    {"v", sizeof(ObjViewInfo), alignof(ObjViewInfo), 0, 9, true}, // 9
    {"I", sizeof(int64_t), alignof(int64_t), 8, 8, false},        // 10
    {"u", 32, 4, 32, 32, false},                                  // 11
    {"p", kPointerSize, kPointerSize, 0, 4, false},               // 12
};
static_assert(std::size(kDatatypes) == eObjPointer + 1, "one row per datatype");

inline constexpr auto kDatatypeOfLetter = [] {
    std::array<int8_t, 256> datatypes{};
    for (size_t datatype = 0; datatype < std::size(kDatatypes); ++datatype)
        for (const char letter : kDatatypes[datatype].letters)
            if (letter != '\0') datatypes[static_cast<unsigned char>(letter)] = static_cast<int8_t>(datatype);
    return datatypes;
}();

constexpr int32_t datatypeOfLetter(char letter) { return kDatatypeOfLetter[static_cast<unsigned char>(letter)]; }

static_assert(datatypeOfLetter('L') == eObjObject && datatypeOfLetter('n') == eObjInline &&
              datatypeOfLetter('p') == eObjPointer && datatypeOfLetter('x') == eObjNone && datatypeOfLetter(';') == eObjNone);

// The largest payload a template may describe.
inline constexpr int64_t kLargestPayload = int64_t{1} << 28;

// The component behind the one at cursor: past its ';', or the end.
constexpr const char *nextComponent(const char *cursor) {
    while (*cursor != '\0' && *cursor != ';') ++cursor;
    return *cursor == ';' ? cursor + 1 : cursor;
}

// The count of an inline component (the digits behind its letter), held at
// one past the largest payload.
constexpr int64_t inlineCount(const char *cursor) {
    int64_t count = 0;
    for (const char *digit = cursor + 1; *digit >= '0' && *digit <= '9'; ++digit)
        count = std::min<int64_t>(count * 10 + (*digit - '0'), kLargestPayload + 1);
    return count;
}

// The layout of a format: each component at the next multiple of its
// alignment, inline counts rounded up to 4, the whole rounded up to the
// largest alignment; the stored form has 16 bytes in front of its components.
struct FormatLayout {
    int32_t fieldCount = 0;
    int64_t payload = 0;
    int32_t dbSize = 16;
    bool simple = true;     // no component owns anything
    bool invalidDb = false; // a component that no stored form can hold
};

// Lays out format. visit(cursor, datatype, layout) sees each component with
// layout.payload at its offset, layout.dbSize at its stored offset and
// layout.fieldCount its index; invalid(cursor) sees a letter outside the
// language, which ends the format. The walk stops past the largest payload.
template <typename Visit, typename Invalid>
constexpr FormatLayout layOutFormat(const char *format, Visit visit, Invalid invalid) {
    FormatLayout layout;
    int32_t largestAlign = 1;
    for (const char *cursor = format; *cursor != '\0'; cursor = nextComponent(cursor)) {
        const int32_t datatype = datatypeOfLetter(*cursor);
        if (datatype == eObjNone) {
            invalid(cursor);
            break;
        }
        const DatatypeInfo &info = kDatatypes[datatype];
        const int64_t size = datatype == eObjInline ? (inlineCount(cursor) + 3) / 4 * 4 : info.size;
        layout.payload = (layout.payload + info.align - 1) / info.align * info.align;
        largestAlign = std::max(largestAlign, info.align);
        visit(cursor, datatype, layout);
        layout.payload += size;
        layout.dbSize += info.dbSize;
        layout.simple = layout.simple && !info.owns;
        layout.invalidDb = layout.invalidDb || datatype == eObjBackLink || datatype == eObjPointer;
        ++layout.fieldCount;
        if (layout.payload > kLargestPayload) break;
    }
    layout.payload = (layout.payload + largestAlign - 1) / largestAlign * largestAlign;
    return layout;
}

// The payload size of a format as a template computes it. A module checks
// the C struct of its type against its format with this in a static_assert.
constexpr int64_t formatPayloadSize(const char *format) {
    return layOutFormat(format, [](const char *, int32_t, const FormatLayout &) {}, [](const char *) {}).payload;
}
static_assert(formatPayloadSize("b;c5;") == 12 && formatPayloadSize("i;c5;b;") == 16 && formatPayloadSize("c3l;i;") == 8 &&
              formatPayloadSize("i;x;i;") == 4);

// ---- Declared types
//
// A type of this library is declared in one line from its C struct, magic
// and format: fh::ObjectType<T> is made at compile time (constinit), which
// proves that T is laid out as its format, and declare() makes its template
// once (ObjTemplateCreateInternal), marked receivable when the type may
// arrive from elsewhere (see below).

// Not defined: reaching it while a type is made at compile time stops the
// build, because the struct is not laid out as its format.
void structIsNotLaidOutAsItsFormat();

inline constexpr struct Receivable {
} kReceivable;

class DeclaredType {
  public:
    consteval DeclaredType(int32_t size, int64_t formatSize, uint32_t magic, const char *format,
                           ObjReleaseCallback release, bool receivable, ObjReceivedCheck check,
                           ObjectTemplate **exported, const ContainerOperations *operations = nullptr)
        : size_(size), magic_(magic), format_(format), release_(release), receivable_(receivable), check_(check),
          exported_(exported), operations_(operations) {
        if (formatSize != size) structIsNotLaidOutAsItsFormat();
    }

    // Makes the template unless it is made already, and stores it in the
    // exported template variable if the type has one; false when it cannot
    // be made or marked (traced by the object core).
    bool declare();
    ObjectTemplate *get() const { return template_; }
    int32_t size() const { return size_; }
    uint32_t magic() const { return magic_; }

  private:
    int32_t size_;
    uint32_t magic_;
    const char *format_;
    ObjReleaseCallback release_;
    bool receivable_;
    ObjReceivedCheck check_;
    ObjectTemplate **exported_;
    const ContainerOperations *operations_;
    ObjectTemplate *template_ = nullptr;
};

template <typename T> class ObjectType : public DeclaredType {
  public:
    // exported: the template variable of the interface (gtObjTemplate...)
    // that holds the template once it is made, if the type has one.
    consteval ObjectType(uint32_t magic, const char *format, ObjReleaseCallback release = nullptr,
                         ObjectTemplate **exported = nullptr)
        : DeclaredType(sizeof(T), formatPayloadSize(format), magic, format, release, false, nullptr, exported) {}
    consteval ObjectType(uint32_t magic, const char *format, Receivable, ObjReceivedCheck check = nullptr,
                         ObjectTemplate **exported = nullptr)
        : DeclaredType(sizeof(T), formatPayloadSize(format), magic, format, nullptr, true, check, exported) {}
    // A container type, with its table of operations (objcontainer.h).
    consteval ObjectType(uint32_t magic, const char *format, const ContainerOperations *operations)
        : DeclaredType(sizeof(T), formatPayloadSize(format), magic, format, nullptr, false, nullptr, nullptr,
                       operations) {}

    // A new instance from pool (null: the default pool), as
    // ObjTemplateNewInstanceFromPool makes it of the template as it stands.
    T *newInstance(MemPool *from) const { return static_cast<T *>(ObjTemplateNewInstanceFromPool(get(), from)); }
};

// Blocks that templates, the template table and run-time names hold until
// the process ends; a leak check leaves them out.
int32_t objectTemplateBlocks();

// ---- Bytes from elsewhere (objserial.h states the rules)
//
// A reader of bytes from elsewhere makes objects of two kinds of template
// only: those made for a received format (Foreign, no release callback),
// and declared ones that their module marked receivable
// (ObjTemplateSetReceivable, or fh::kReceivable above). A receivable template with a release
// callback or a p component, or with fields that must agree, carries a
// check: it sees each object so made once its components are read, and a
// FALSE answer refuses the object.
enum class Reception { kRefused, kPlain, kChecked };

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

// object as a T when it is of magic and of exactly format, as a reader of
// an object from elsewhere must see it before it reads a field; else null.
template <typename T = void> T *objectShaped(const void *object, uint32_t magic, const char *format) {
    if (object == nullptr || !ObjCheckTypeInternal(object, magic)) return nullptr;
    const char *has = ObjGetFormat(ObjGetTemplateFromObject(object));
    if (has == nullptr || std::strcmp(has, format) != 0) return nullptr;
    return static_cast<T *>(const_cast<void *>(object));
}

} // namespace fh

#endif // FHCORE_OBJCORE_H
