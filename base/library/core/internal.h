// internal.h - what the modules of the library share and do not export.
//
// Each module traces through one ModuleTracer that carries its tag; the
// context module owns the crash flag and the test seams that make a module
// of the ladder fail.
#ifndef FHCORE_INTERNAL_H
#define FHCORE_INTERNAL_H

#include <climits>
#include <cstddef>
#include <ctime>
#include <optional>

#include "core/fhcore.h"

namespace fh {

// The private trace operation of a module: id, code, level, format and its
// arguments, stored under the module's tag. The tag is the module name
// followed by at least eight spaces, so its first eight bytes are the field.
struct ModuleTracer {
    const char *tag;
    TracePosition operator()(int32_t id, int32_t code, int32_t level, const char *format, ...) const
        __attribute__((format(printf, 5, 6)));
};

inline const char *boolText(bool value) { return value ? "TRUE" : "FALSE"; }

// The lead bytes of the double-byte character model: a lead byte and the byte
// behind it are one character.
constexpr bool isLeadByte(unsigned char byte) { return (byte >= 0x80 && byte <= 0x9F) || byte >= 0xE0; }

// Bytes of the character at p: 2 for a lead byte with a byte behind it.
inline int charBytes(const char *p) { return isLeadByte(static_cast<unsigned char>(*p)) && p[1] != '\0' ? 2 : 1; }

// The blanks of the text formats: space and tab.
constexpr bool isBlank(char c) { return c == ' ' || c == '\t'; }

// Case folding of the string layer: 'a' to 'z' onto 'A' to 'Z', nothing else.
constexpr char foldCase(char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c; }

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

// The largest size computed from arguments or received values: what the
// 32-bit size fields of records and byte forms hold.
inline constexpr size_t kLargestComputedSize = INT32_MAX;

// The bytes of count things of unit bytes behind a head of extra bytes, or
// nothing for a negative count or a size beyond limit. The product and the
// sum are checked, so no overflow passes for a small size. Every size that
// is computed from arguments or received values goes through here.
constexpr std::optional<size_t> checkedSize(int64_t count, size_t unit, size_t extra = 0,
                                            size_t limit = kLargestComputedSize) {
    size_t product = 0, total = 0;
    if (count < 0 || __builtin_mul_overflow(static_cast<uint64_t>(count), unit, &product) ||
        __builtin_add_overflow(product, extra, &total) || total > limit)
        return std::nullopt;
    return total;
}

// Pool bytes: what a block of size user bytes takes (header, user area as
// the pool rounds it, guard word), the bytes of all blocks in use, and the
// highest that has been since the last reset of the peak. A reader of bytes
// from elsewhere counts its allocations in the same unit.
size_t memBlockBytes(size_t size);

// MemAllocateFromPool of size bytes that start as a copy of the filled bytes
// at from, zero behind them: a grown array is not cleared where the copy of
// the old one lands.
void *memAllocateFilled(size_t size, MemPool *pool, const void *from, size_t filled);
size_t memBytesInUse();
size_t memBytesPeak();
void memResetBytesPeak();

// Byte forms carry seconds as a 32-bit count. The value is cut deliberately
// here and nowhere else; in memory the same value stays a time_t.
inline int32_t secondsToWire(time_t seconds) { return static_cast<int32_t>(static_cast<uint32_t>(seconds)); }

// The process-wide crash flag that ProcCrash(0) consults.
void contextSetCrashFlag(bool on);
bool contextCrashFlag();

// Test seams: the module whose Initialize or InitializeThread carries this
// failure code fails as if it had returned FALSE. 0 switches a seam off.
void contextFailInitialize(int32_t code);
void contextFailInitializeThread(int32_t code);

// Byte offsets of the counters in a process table entry (shared memory).
enum ProcessEntryOffset : size_t {
    kEntryMemUsed = 80,
    kEntryMemMax = 84,
    kEntryMemAllocations = 88,
    kEntryObjUsed = 92,
    kEntryObjMax = 96,
    kEntryObjAllocations = 100,
};

// Copies a counter into the process table entry, if one is set, in this
// machine's byte order.
void processEntryStore(size_t offset, int32_t value);

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

// Test seam for the fuzz target: takes out of the table and frees every
// template made for a received format that no object uses, so that a long
// run keeps meeting new types rather than the bound of the process.
void objectForgetUnusedForeignTemplates();

// Builds a template outside the table and frees it again: how a format that
// arrived from elsewhere is parsed, for the fuzz target.
ObjectTemplate *objectTemplateBuild(int32_t size, uint32_t magic, const char *format);
void objectTemplateFree(ObjectTemplate *objectTemplate);

// Test seams: the file the home directory is registered in, and the mount
// table (null puts the system's back).
void pathRegistryFile(const char *file);
void pathMountTable(const char *file);

// Test seam: forgets the machine name, so that the next SysLocalMachineName
// looks it up again.
void sysForgetMachineName();

// Test seam: StrCompare with 16-byte blocks even where the processor has
// wider ones, so that both bodies are tested on one machine.
int32_t strCompareNarrow(const char *a, const char *b);

} // namespace fh

#endif // FHCORE_INTERNAL_H
