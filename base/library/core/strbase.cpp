// strbase.cpp - the character model and the operations on NUL-terminated
// multi-byte strings.
//
// Text is walked by one reader, readChar: a byte that the fixed lead table
// marks (0x80-0x9F, 0xE0-0xFF) starts a double-byte character whose value is
// lead << 8 | trail, unless the terminator follows it, in which case it is a
// single-byte character of its own. Everything else is built on that reader
// and three walks:
//
//   compareWalk  reads two strings pair by pair, optionally folded, until a
//                difference, the common end, a byte bound on the first string
//                or a count of characters; the Str Compare entries only map
//                its last pair onto their own result rule;
//   findChar     the first character equal to a value, optionally folded and
//                bounded by the byte where matching characters must end;
//   copyWalk     copies characters (one value replaced by another) while the
//                source cursor is below a bound, writing a terminator only
//                when the source ends first.
//
// Invariants: a walk only moves from one character boundary to the next, so
// a double-byte character is never split, and no walk reads a byte behind a
// terminator (readChar looks at the byte after a lead only when the lead is
// not itself the terminator). The fast paths skip runs of bytes below 0x80,
// which are always whole characters when the walk stands on a boundary. A
// null string reads as "".
//
// State: the default pool, cached on first need, and the two StrToken fields
// of the context record (the cursor and the character it overwrote).
#include "core/strbase.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string_view>

#if defined(__SSE2__)
#include <immintrin.h>
#endif

#include "core/context.h"
#include "core/memory.h"
#include "seams.h"
#include "text.h"
#include "tracer.h"

namespace {

constexpr fh::ModuleTracer trace{"STRING        "};

// Trace ids of this module; fixed once chosen.
enum TraceId : int32_t {
    kIdInitialize = 1,
    kIdDuplicateToSubStringArgs = 2,
    kIdFormatArguments = 3,
    kIdFormatFailed = 4,
    kIdFormatOverrun = 5
};

using Byte = unsigned char;

constexpr std::array<bool, 256> kLeadByte = [] {
    std::array<bool, 256> table{};
    for (int b = 0; b < 256; ++b) table[b] = fh::isLeadByte(static_cast<unsigned char>(b));
    return table;
}();

MemPool *gPool = nullptr;

MemPool *defaultPool() {
    if (gPool == nullptr) gPool = MemGetDefaultPoolId();
    return gPool;
}

constexpr Byte kEmpty = 0;
inline const Byte *text(const char *s) { return s != nullptr ? reinterpret_cast<const Byte *>(s) : &kEmpty; }
inline uintptr_t address(const Byte *p) { return reinterpret_cast<uintptr_t>(p); }
inline char *writable(const Byte *p) { return reinterpret_cast<char *>(const_cast<Byte *>(p)); }
constexpr uintptr_t kNoBound = UINTPTR_MAX;

// The end of a range of bytes from source. A range past the top of the
// address space (a 32-bit one can hold one) ends there rather than wrapping.
inline uintptr_t rangeEnd(const char *source, int32_t bytes) {
    const uintptr_t start = address(text(source));
    return bytes > 0 ? start + std::min<uintptr_t>(static_cast<uint32_t>(bytes), kNoBound - start) : start;
}

// The reader: the character at p, moving p past it; 0 on the terminator,
// where p stays.
inline int32_t readChar(const Byte *&p) {
    const Byte lead = *p;
    if (lead == 0) return 0;
    if (kLeadByte[lead] && p[1] != 0) {
        p += 2;
        return lead << 8 | p[-1];
    }
    ++p;
    return lead;
}

// The writer: one byte for values up to 255, high then low byte above; the
// value 0 writes a NUL and stays. Gives the bytes the cursor moved.
inline int32_t writeChar(Byte *&out, int32_t value) {
    if (value == 0) {
        *out = 0;
        return 0;
    }
    if (value > 255) {
        *out++ = static_cast<Byte>(value >> 8);
        *out++ = static_cast<Byte>(value);
        return 2;
    }
    *out++ = static_cast<Byte>(value);
    return 1;
}

inline bool isAsciiRunByte(Byte b) { return b - 1u < 0x7Fu; } // 1 to 127: a whole character

enum class Case { exact, folded };

template <Case K> constexpr int32_t fold(int32_t c) {
    return K == Case::folded && c >= 'a' && c <= 'z' ? c - ('a' - 'A') : c;
}

const Byte *forward(const Byte *p, int32_t count) {
    while (count-- > 0 && readChar(p) != 0) {
    }
    return p;
}

// The last pair read by compareWalk, folded, and where the walk left a.
struct Pair {
    int32_t a;
    int32_t b;
    const Byte *restOfA;
};

// Reads a and b pair by pair until the pair differs, both end, count pairs
// are read or the cursor of a has reached aEnd; at least one pair is read.
template <Case K, bool Bounded>
Pair compareWalk(const char *a, const char *b, uintptr_t aEnd = kNoBound, int32_t count = INT32_MAX) {
    const Byte *pa = text(a), *pb = text(b);
    Pair last{};
    do {
        if constexpr (Bounded) {
            while (isAsciiRunByte(*pa) && fold<K>(*pa) == fold<K>(*pb) && count > 1 && address(pa) + 1 < aEnd)
                ++pa, ++pb, --count;
        } else {
            while (isAsciiRunByte(*pa) && fold<K>(*pa) == fold<K>(*pb)) ++pa, ++pb;
        }
        last.a = fold<K>(readChar(pa));
        last.b = fold<K>(readChar(pb));
    } while (last.a == last.b && last.a != 0 && --count > 0 && address(pa) < aEnd);
    last.restOfA = pa;
    return last;
}

inline int32_t sign(const Pair &p) { return p.a < p.b ? -1 : p.a > p.b ? 1 : 0; }

template <Case K> int32_t compareRange(const char *a, const char *b, int32_t bytes) {
    return bytes < 1 ? 0 : sign(compareWalk<K, true>(a, b, rangeEnd(a, bytes)));
}

template <Case K> int32_t compareExact(const char *a, const char *b, int32_t count) {
    if (count < 1) return 0;
    const Pair last = compareWalk<K, true>(a, b, kNoBound, count);
    if (last.a != last.b) return last.a - last.b;
    return last.a != 0 && *last.restOfA != 0 ? 1 : 0;
}

// The first character from p equal to value, among those that end at or
// before end; null when there is none or value is 0.
template <Case K> const Byte *findChar(const Byte *p, int32_t value, uintptr_t end = kNoBound) {
    const int32_t wanted = fold<K>(value);
    if (wanted == 0) return nullptr;
    for (;;) {
        if (end == kNoBound)
            while (isAsciiRunByte(*p) && fold<K>(*p) != wanted) ++p;
        const Byte *at = p;
        const int32_t c = readChar(p);
        if (c == 0 || address(p) > end) return nullptr;
        if (fold<K>(c) == wanted) return at;
    }
}

const Byte *findLast(const Byte *p, int32_t value) {
    const Byte *last = nullptr;
    for (const Byte *at; (at = findChar<Case::exact>(p, value)) != nullptr; readChar(p)) last = p = at;
    return last;
}

// The fast paths of the exact compare and search let the C library find
// candidate bytes, over lengths already known, and settle the character
// boundary afterwards: the byte after a non-lead byte always starts a
// character, and a run of lead bytes that starts a character pairs up.

// TRUE when at starts a character, given that from (not after at) does.
bool startsCharacter(const Byte *from, const Byte *at) {
    const Byte *p = at;
    while (p > from && kLeadByte[p[-1]]) --p;
    return (at - p) % 2 == 0;
}

// The offset of the first byte where a and b differ or both end. Where the
// machine has vectors, it compares blocks of 16 or 32 bytes; a block is read
// only when neither of its two halves reaches into the next page, so it never
// touches memory that a byte-by-byte walk could not touch without faulting,
// and bytes behind a terminator, read with the block, never decide the
// offset. The sanitizer cannot tell such a read from an overrun and is told
// to let these functions be.
#if defined(__SSE2__)
#define FH_BLOCK_READ __attribute__((no_sanitize("address"))) inline

// One bit per byte of the block at a and b: set where they differ or a ends.
struct Sse2Block {
    static constexpr size_t kBytes = 16;
    FH_BLOCK_READ static uint32_t stops(const Byte *a, const Byte *b) {
        const __m128i x = _mm_loadu_si128(reinterpret_cast<const __m128i *>(a));
        const __m128i y = _mm_loadu_si128(reinterpret_cast<const __m128i *>(b));
        const __m128i same = _mm_andnot_si128(_mm_cmpeq_epi8(x, _mm_setzero_si128()), _mm_cmpeq_epi8(x, y));
        return ~static_cast<uint32_t>(_mm_movemask_epi8(same)) & 0xFFFF;
    }
};

struct Avx2Block {
    static constexpr size_t kBytes = 32;
    __attribute__((target("avx2"))) FH_BLOCK_READ static uint32_t stops(const Byte *a, const Byte *b) {
        const __m256i x = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(a));
        const __m256i y = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(b));
        const __m256i same = _mm256_andnot_si256(_mm256_cmpeq_epi8(x, _mm256_setzero_si256()), _mm256_cmpeq_epi8(x, y));
        return ~static_cast<uint32_t>(_mm256_movemask_epi8(same));
    }
};

template <class Block> FH_BLOCK_READ size_t firstDifferenceIn(const Byte *a, const Byte *b) {
    constexpr uintptr_t kPage = 4096;
    const auto untilPageEnd = [](const Byte *p) { return kPage - address(p) % kPage; };
    for (size_t i = 0;;) {
        // Whole blocks up to the nearer page end, then byte by byte across it.
        const size_t safe = i + std::min(untilPageEnd(a + i), untilPageEnd(b + i));
        for (; i + Block::kBytes <= safe; i += Block::kBytes)
            if (const uint32_t stops = Block::stops(a + i, b + i); stops != 0)
                return i + static_cast<size_t>(std::countr_zero(stops));
        for (const size_t end = i + Block::kBytes; i < end; ++i)
            if (a[i] != b[i] || a[i] == 0) return i;
    }
}

__attribute__((no_sanitize("address"), flatten)) size_t firstDifferenceSse2(const Byte *a, const Byte *b) {
    return firstDifferenceIn<Sse2Block>(a, b);
}
__attribute__((no_sanitize("address"), target("avx2"), flatten)) size_t firstDifferenceAvx2(const Byte *a, const Byte *b) {
    return firstDifferenceIn<Avx2Block>(a, b);
}

#else
size_t firstDifferenceBytes(const Byte *a, const Byte *b) {
    size_t i = 0;
    while (a[i] == b[i] && a[i] != 0) ++i;
    return i;
}
#endif

// StrCompare: the first differing byte lies in the first differing character.
template <size_t (*FirstDifference)(const Byte *, const Byte *)> int32_t compareWhole(const char *a, const char *b) {
    const Byte *pa = text(a), *pb = text(b);
    const size_t i = FirstDifference(pa, pb);
    if (pa[i] == pb[i]) return 0;
    const size_t start = startsCharacter(pa, pa + i) ? i : i - 1;
    const Byte *ra = pa + start, *rb = pb + start;
    return sign(Pair{readChar(ra), readChar(rb), nullptr});
}

// StrFindSubString: candidates are the byte matches of the C library that
// start a character. Equal bytes from a common boundary are equal
// characters, but for a subString that ends in a lone lead byte: that byte
// matches only where the string ends too.
const Byte *findSubStringExact(const char *string, const char *subString) {
    const size_t bytes = strlen(subString);
    const Byte *sub = text(subString), *from = text(string);
    const bool endsInLoneLead = kLeadByte[sub[bytes - 1]] && startsCharacter(sub, sub + bytes - 1);
    for (const char *hit; (hit = strstr(reinterpret_cast<const char *>(from), subString)) != nullptr;) {
        const Byte *at = text(hit);
        const bool onBoundary = startsCharacter(from, at);
        if (onBoundary && (!endsInLoneLead || at[bytes] == 0)) return at;
        from = at + 1; // behind a trail byte, or inside the character at hit
        if (onBoundary && kLeadByte[*at] && *from != 0) ++from;
    }
    return nullptr;
}

template <Case K> const Byte *findSubString(const char *string, const char *subString) {
    if (string == nullptr || subString == nullptr || *subString == 0) return nullptr;
    if constexpr (K == Case::exact) return findSubStringExact(string, subString);
    const Byte *p = text(string), *sub = text(subString);
    const int32_t first = readChar(sub), bytes = StrSizeNoTerm(subString);
    for (const Byte *at; (at = findChar<K>(p, first)) != nullptr; readChar(p)) {
        if (compareRange<K>(writable(at), subString, bytes) == 0) return at;
        p = at;
    }
    return nullptr;
}

const Byte *findAnyOf(const Byte *p, const int32_t *characters, int32_t count) {
    const int32_t *end = characters != nullptr && count > 0 ? characters + count : characters;
    for (;;) {
        const Byte *at = p;
        const int32_t c = readChar(p);
        if (std::find(characters, end, c) != end) return at;
        if (c == 0) return nullptr;
    }
}

// Copies whole characters from source while its cursor is below end, each
// oldChar written as newChar. Writes a terminator when the source ends first
// and gives its position; otherwise the position behind the last character.
char *copyWalk(char *target, const char *source, uintptr_t end, int32_t oldChar = 0, int32_t newChar = 0) {
    const Byte *p = text(source);
    Byte *out = reinterpret_cast<Byte *>(target);
    while (address(p) < end) {
        int32_t c = readChar(p);
        if (c == 0) break;
        writeChar(out, c == oldChar ? newChar : c);
    }
    if (address(p) < end) *out = 0;
    return reinterpret_cast<char *>(out);
}

char *newBlock(size_t bytes, MemPool *pool) { return static_cast<char *>(MemAllocateFromPool(bytes, pool)); }

// A new string of the bytes from string up to end, a character boundary.
char *duplicateUpTo(const char *string, const Byte *end) {
    return StrDuplicateRangeIntoPool(string, defaultPool(), static_cast<int32_t>(end - text(string)));
}

// The part of a string behind the first match, or behind the character of the
// match when it is included; the terminator when nothing matches.
inline const Byte *stopAt(const char *string, const Byte *match, bool withMatch) {
    const Byte *p = match != nullptr ? match : text(string) + StrSizeNoTerm(string);
    if (withMatch) readChar(p);
    return p;
}

template <Case K> char *duplicateToSubString(const char *string, const char *subString, const char *name) {
    if (string == nullptr || subString == nullptr) {
        return trace.fault(nullptr, kIdDuplicateToSubStringArgs, 0, "%s(%p, %p) - bad args", name, static_cast<const void *>(string),
              static_cast<const void *>(subString));
    }
    const Byte *at = findSubString<K>(string, subString);
    return at != nullptr ? duplicateUpTo(string, at) : nullptr;
}

// Copies string and moves every character in [from, from + 25] by delta.
char *convertCase(char **out, const char *string, int32_t from, int32_t delta) {
    if (out == nullptr) return nullptr;
    *out = StrDuplicateIntoPool(string, defaultPool());
    const Byte *p = text(*out);
    for (const Byte *at = p; int32_t c = readChar(p); at = p)
        if (c >= from && c <= from + 25) *const_cast<Byte *>(at) = static_cast<Byte>(c + delta);
    return *out;
}

// Reads a decimal number that must end the string, then narrows it to the
// out type. The format decides what text is a number; scanf clamps a value
// out of range without a word, so strtoll, which reads the same text, tells
// the range.
template <class Scanned, class Out> BOOL scanInteger(const char *string, Out *out, const char *format) {
    if (out == nullptr) return FALSE;
    if (string == nullptr) {
        *out = 0;
        return TRUE;
    }
    Scanned scanned = 0;
    char behind = 0;
    if (sscanf(string, format, &scanned, &behind) != 1) return FALSE;
    const int savedErrno = errno;
    errno = 0;
    const long long value = strtoll(string, nullptr, 10);
    const bool inRange =
        errno != ERANGE && value >= std::numeric_limits<Out>::min() && value <= std::numeric_limits<Out>::max();
    errno = savedErrno;
    if (!inRange) return FALSE;
    *out = static_cast<Out>(value);
    return TRUE;
}

// Formats a new string of size bytes into *out.
__attribute__((format(printf, 3, 4))) BOOL formatNew(char **out, size_t size, const char *format, ...) {
    if (out == nullptr) return FALSE;
    *out = newBlock(size, defaultPool());
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(*out, size, format, arguments);
    va_end(arguments);
    return TRUE;
}

BOOL formatInto(const char *name, char *target, int32_t size, const char *format, va_list arguments) {
    if (target == nullptr || format == nullptr || size < 2) {
        trace(kIdFormatArguments, 0, -1, "Invalid arguments to %s", name);
        return FALSE;
    }
    const int count = vsnprintf(target, static_cast<size_t>(size), format, arguments);
    if (count >= 0 && count < size) {
        target[count] = 0;
        return TRUE;
    }
    target[size - 1] = 0;
    if (count < 0) return trace.fault(FALSE, kIdFormatFailed, 0, "Failed to format string into memory buffer");
    return trace.fault(FALSE, kIdFormatOverrun, 0, "Buffer overrun formatting string into memory buffer");
}

// Regular expressions from wildcard patterns.
constexpr std::string_view kEscaped = "$()+.[\\]^{|}";    // written with a backslash
constexpr std::string_view kQuotable = "$()*+.?[\\]^{|}"; // literal behind the quote
constexpr std::string_view kControlNames = "nrtfb";
constexpr std::string_view kControls = "\n\r\t\f\b";

inline bool inSet(std::string_view set, int32_t c) {
    return c > 0 && c < 128 && set.find(static_cast<char>(c)) != set.npos;
}

void writePatternChar(Byte *&out, int32_t c) {
    if (c == '*') {
        writeChar(out, '.');
        writeChar(out, '*');
    } else if (c == '?') {
        writeChar(out, '.');
    } else {
        if (inSet(kEscaped, c)) writeChar(out, '\\');
        writeChar(out, c);
    }
}

// What the quote character and the character n behind it become; n 0 (the
// end of the pattern) drops the quote.
void writeQuoted(Byte *&out, int32_t quote, int32_t n) {
    if (n == quote) {
        writeChar(out, n);
        if (n == '\\') writeChar(out, n);
    } else if (inSet(kQuotable, n)) {
        writeChar(out, '\\');
        writeChar(out, n);
    } else if (inSet(kControlNames, n)) {
        writeChar(out, kControls[kControlNames.find(static_cast<char>(n))]);
    } else {
        writeChar(out, n);
    }
}

} // namespace

#if defined(__SSE2__)
int32_t fh::strCompareNarrow(const char *a, const char *b) { return compareWhole<firstDifferenceSse2>(a, b); }
#else
int32_t fh::strCompareNarrow(const char *a, const char *b) { return compareWhole<firstDifferenceBytes>(a, b); }
#endif
// ---- Characters ---------------------------------------------------------------

BOOL StrIsDBCSLeadByte(unsigned char byte) { return kLeadByte[byte]; }
BOOL StrCharIsAscii(int32_t charValue) { return charValue < 128; }

int32_t StrGetChar(const char **cursor) {
    if (cursor == nullptr || *cursor == nullptr) return 0;
    const Byte *p = text(*cursor);
    const int32_t c = readChar(p);
    *cursor = writable(p);
    return c;
}

int32_t StrGetCharAtPointer(const char *string) {
    const Byte *p = text(string);
    return readChar(p);
}

int32_t StrGetCharAfterPointer(const char *string, int32_t count) {
    return StrGetCharAtPointer(StrForwardNChars(string, count));
}

char *StrForwardNChars(const char *string, int32_t count) {
    return string != nullptr ? writable(forward(text(string), count)) : nullptr;
}

int32_t StrPrevChar(const char **cursor) {
    if (cursor == nullptr || *cursor == nullptr || **cursor == 0) return 0;
    const Byte *p = text(*cursor);
    const Byte here = p[0], before = p[-1];
    *cursor -= kLeadByte[before] ? 2 : 1;
    return kLeadByte[before] ? here << 8 | before : here;
}

int32_t StrPutChar(char **cursor, int32_t charValue) {
    if (cursor == nullptr || *cursor == nullptr) return -1;
    Byte *out = reinterpret_cast<Byte *>(*cursor);
    const int32_t written = writeChar(out, charValue);
    *cursor = reinterpret_cast<char *>(out);
    return written;
}

int32_t StrCharCount(const char *string) {
    int32_t count = 0;
    for (const Byte *p = text(string); readChar(p) != 0;) ++count;
    return count;
}

// The terminator is the first NUL byte: no character holds one.
char *StrTerminatorPosition(const char *string) {
    return string != nullptr ? const_cast<char *>(string) + strlen(string) : nullptr;
}

// ---- Sizes ---------------------------------------------------------------------

int32_t StrSize(const char *string) { return string != nullptr ? StrSizeNoTerm(string) + 1 : 0; }

int32_t StrSizeNoTerm(const char *string) { return string != nullptr ? static_cast<int32_t>(strlen(string)) : 0; }

int32_t StrSizeRange(const char *string, int32_t count) { return StrSizeRangeNoTerm(string, std::max(count, 0) + 1); }

int32_t StrSizeRangeNoTerm(const char *string, int32_t count) {
    return static_cast<int32_t>(forward(text(string), count) - text(string));
}

// ---- Compare ---------------------------------------------------------------------

#if defined(__SSE2__)
// StrCompare is bound when the library loads to the body with the widest
// blocks this processor runs, so a call costs no more than one call. The
// bodies start on a cache line: where a build happened to place them moved
// the cost of a short compare by a tenth.
namespace {
__attribute__((aligned(64))) int32_t compareAvx2(const char *a, const char *b) { return compareWhole<firstDifferenceAvx2>(a, b); }
__attribute__((aligned(64))) int32_t compareSse2(const char *a, const char *b) { return compareWhole<firstDifferenceSse2>(a, b); }
} // namespace
using CompareFunction = int32_t (*)(const char *, const char *);
extern "C" __attribute__((no_sanitize("address", "undefined"))) CompareFunction fhResolveStrCompare(void) {
    __builtin_cpu_init();
    return __builtin_cpu_supports("avx2") ? compareAvx2 : compareSse2;
}
int32_t StrCompare(const char *a, const char *b) __attribute__((ifunc("fhResolveStrCompare")));
#else
int32_t StrCompare(const char *a, const char *b) { return compareWhole<firstDifferenceBytes>(a, b); }
#endif
int32_t StrCompareNoCase(const char *a, const char *b) { return sign(compareWalk<Case::folded, false>(a, b)); }
int32_t StrCompareRange(const char *a, const char *b, int32_t bytes) { return compareRange<Case::exact>(a, b, bytes); }

int32_t StrCompareRangeNoCase(const char *a, const char *b, int32_t bytes) {
    return compareRange<Case::folded>(a, b, bytes);
}

int32_t StrCompareRangeExact(const char *a, const char *b, int32_t count) {
    return compareExact<Case::exact>(a, b, count);
}

int32_t StrCompareRangeExactNoCase(const char *a, const char *b, int32_t count) {
    return compareExact<Case::folded>(a, b, count);
}

// ---- Search ------------------------------------------------------------------------

char *StrNextCharMatch(const char *string, int32_t charValue) {
    return writable(findChar<Case::exact>(text(string), charValue));
}

char *StrNextCharMatchNoCase(const char *string, int32_t charValue) {
    return writable(findChar<Case::folded>(text(string), charValue));
}

char *StrNextCharMatchRange(const char *string, int32_t charValue, int32_t bytes) {
    return bytes > 0 ? writable(findChar<Case::exact>(text(string), charValue, rangeEnd(string, bytes))) : nullptr;
}

char *StrLastCharMatch(const char *string, int32_t charValue) { return writable(findLast(text(string), charValue)); }

char *StrFindSubString(const char *string, const char *subString) {
    return writable(findSubString<Case::exact>(string, subString));
}

char *StrFindSubStringNoCase(const char *string, const char *subString) {
    return writable(findSubString<Case::folded>(string, subString));
}

char *StrFindVariableDelimiter(const char *string, const int32_t *characters, int32_t count) {
    return string != nullptr ? writable(findAnyOf(text(string), characters, count)) : nullptr;
}

// ---- Copy ------------------------------------------------------------------------------

char *StrCopy(char *target, const char *source) {
    return target != nullptr ? copyWalk(target, source, kNoBound) : nullptr;
}

char *StrCopyRange(char *target, const char *source, int32_t bytes) {
    return target != nullptr ? copyWalk(target, source, rangeEnd(source, bytes)) : nullptr;
}

char *StrAppend(char *target, const char *source) { return StrCopy(StrTerminatorPosition(target), source); }

char *StrAppendRange(char *target, const char *source, int32_t bytes) {
    return StrCopyRange(StrTerminatorPosition(target), source, bytes);
}

char *StrConvertChar(char *target, const char *source, int32_t newChar, int32_t oldChar) {
    return target != nullptr ? copyWalk(target, source, kNoBound, oldChar, newChar) : nullptr;
}

char *StrPad(char *target, int32_t bytes, int32_t charValue) {
    if (target == nullptr || bytes <= 0) return target;
    const int32_t width = charValue > 255 ? 2 : 1;
    Byte *out = reinterpret_cast<Byte *>(target), *end = out + bytes;
    while (end - out >= width)
        if (writeChar(out, charValue) == 0) *out++ = 0;
    return reinterpret_cast<char *>(out);
}

char *StrTerminate(char *string, const char *set) {
    if (string == nullptr || set == nullptr || *set == 0) return string;
    const Byte *p = text(string), *keep = p;
    while (int32_t c = readChar(p))
        if (findChar<Case::exact>(text(set), c) == nullptr) keep = p;
    *writable(keep) = 0;
    return string;
}

// ---- New strings ---------------------------------------------------------------------------

char *StrDuplicateIntoPool(const char *string, MemPool *pool) {
    return string != nullptr ? StrDuplicateRangeIntoPool(string, pool, StrSizeNoTerm(string)) : nullptr;
}

char *StrDuplicateIntoPoolNullIfEmpty(const char *string, MemPool *pool) {
    return string != nullptr && *string != 0 ? StrDuplicateIntoPool(string, pool) : nullptr;
}

// The block is zero-filled, so a range that runs out is terminated too. It
// has one byte more than the range and its terminator: a double-byte
// character that starts on the last byte of the range is copied whole.
char *StrDuplicateRangeIntoPool(const char *string, MemPool *pool, int32_t bytes) {
    if (string == nullptr || bytes < 0) return nullptr;
    char *block = newBlock(static_cast<size_t>(bytes) + 2, pool);
    copyWalk(block, string, rangeEnd(string, bytes));
    return block;
}

char *StrDuplicateToChar(const char *string, int32_t charValue) {
    return string != nullptr
               ? duplicateUpTo(string, stopAt(string, findChar<Case::exact>(text(string), charValue), false))
               : nullptr;
}

char *StrDuplicateToCharWithTerm(const char *string, int32_t charValue) {
    return string != nullptr
               ? duplicateUpTo(string, stopAt(string, findChar<Case::exact>(text(string), charValue), true))
               : nullptr;
}

char *StrDuplicateToLastChar(const char *string, int32_t charValue) {
    if (string == nullptr) return nullptr;
    const Byte *at = findLast(text(string), charValue);
    return duplicateUpTo(string, at != nullptr ? at : text(string));
}

char *StrDuplicateToLastCharWithTerm(const char *string, int32_t charValue) {
    if (string == nullptr) return nullptr;
    const Byte *at = findLast(text(string), charValue);
    return duplicateUpTo(string, at != nullptr ? stopAt(string, at, true) : text(string));
}

char *StrDuplicateToVariableDelimChar(const char *string, const int32_t *characters, int32_t count) {
    const Byte *at = string != nullptr ? findAnyOf(text(string), characters, count) : nullptr;
    return at != nullptr ? duplicateUpTo(string, at) : nullptr;
}

char *StrDuplicateToSubString(const char *string, const char *subString) {
    return duplicateToSubString<Case::exact>(string, subString, "StrDuplicateToSubString");
}

char *StrDuplicateToSubStringNoCase(const char *string, const char *subString) {
    return duplicateToSubString<Case::folded>(string, subString, "StrDuplicateToSubStringNoCase");
}

char *StrCat(const char *first, ...) {
    va_list arguments, sizing;
    va_start(arguments, first);
    va_copy(sizing, arguments);
    size_t bytes = 1;
    for (const char *s = first; s != nullptr; s = va_arg(sizing, const char *)) bytes += StrSizeNoTerm(s);
    va_end(sizing);
    char *joined = newBlock(bytes, defaultPool()), *end = joined;
    for (const char *s = first; s != nullptr; s = va_arg(arguments, const char *)) end = StrCopy(end, s);
    va_end(arguments);
    return joined;
}

char *StrJoin(char **address, const char *string) {
    if (address == nullptr) return nullptr;
    char *joined = StrCat(*address != nullptr ? *address : "", string, static_cast<const char *>(nullptr));
    MemFreeInternal(address);
    return *address = joined;
}

char *StrReplaceChar(const char *string, int32_t oldChar, int32_t newChar) {
    if (string == nullptr) return nullptr;
    char *block = newBlock(static_cast<size_t>(StrSize(string)) * 2, defaultPool());
    StrConvertChar(block, string, newChar, oldChar);
    return block;
}

char *StrConvertToLower(char **out, const char *string) { return convertCase(out, string, 'A', 'a' - 'A'); }
char *StrConvertToUpper(char **out, const char *string) { return convertCase(out, string, 'a', 'A' - 'a'); }

// ---- Tokens --------------------------------------------------------------------------------------

// The cursor stands on the delimiter that ended the last token, which holds a
// NUL now; the saved character is what it held. Null: no walk under way.
char *StrToken(char *string, const char *delimiters) {
    LmContext &c = gtLmContext;
    if (string != nullptr)
        c.pStrTokenCursor = string;
    else if (c.pStrTokenCursor == nullptr)
        return nullptr;
    else
        StrPutChar(&c.pStrTokenCursor, c.iStrTokenSaved);
    char *token = c.pStrTokenCursor;
    for (;;) {
        const Byte *p = text(c.pStrTokenCursor);
        c.iStrTokenSaved = readChar(p);
        if (c.iStrTokenSaved == 0) {
            c.pStrTokenCursor = nullptr;
            return token;
        }
        if (StrNextCharMatch(delimiters, c.iStrTokenSaved) != nullptr) {
            *c.pStrTokenCursor = 0;
            return token;
        }
        c.pStrTokenCursor = writable(p);
    }
}

// ---- Conversions ----------------------------------------------------------------------------------

BOOL StrToBoolean(const char *string, BOOL *out) {
    if (string == nullptr || out == nullptr) return FALSE;
    const bool isTrue = StrCompareNoCase(string, "TRUE") == 0;
    if (!isTrue && StrCompareNoCase(string, "FALSE") != 0) return FALSE;
    *out = isTrue;
    return TRUE;
}

BOOL StrToInteger(const char *string, int32_t *out) { return scanInteger<long>(string, out, "%ld%c"); }
BOOL StrToInt64(const char *string, int64_t *out) { return scanInteger<long long>(string, out, "%lld%c"); }

BOOL StrFromBoolean(char **out, BOOL value) { return formatNew(out, 6, "%s", value ? "TRUE" : "FALSE"); }
BOOL StrFromInteger(char **out, int32_t value) { return formatNew(out, 12, "%ld", static_cast<long>(value)); }
BOOL StrFromInt64(char **out, int64_t value) { return formatNew(out, 24, "%lld", static_cast<long long>(value)); }

BOOL StrHexFromInteger(char **out, int32_t value) {
    return formatNew(out, 14, "0x%lx", static_cast<unsigned long>(static_cast<uint32_t>(value)));
}

BOOL StrHexFromInt64(char **out, int64_t value) {
    return formatNew(out, 26, "%llx", static_cast<unsigned long long>(value));
}

BOOL StrFromIpAddr(char **out, uint32_t address) {
    return formatNew(out, 32, "%ld.%ld.%ld.%ld", static_cast<long>(address >> 24),
                     static_cast<long>(address >> 16 & 0xFF), static_cast<long>(address >> 8 & 0xFF),
                     static_cast<long>(address & 0xFF));
}

BOOL StrIsAscii(const char *string) {
    const Byte *p = text(string);
    while (*p != 0 && *p < 0x80) ++p;
    return *p == 0;
}

int32_t StrToUnicode(uint16_t *target, const char *string, int32_t limit) {
    if (target == nullptr) return 0;
    Byte *out = reinterpret_cast<Byte *>(target);
    const Byte *p = text(string);
    int32_t units = 0;
    for (int32_t c; units < limit && (c = readChar(p)) != 0; ++units) {
        *out++ = static_cast<Byte>(c);
        *out++ = static_cast<Byte>(c >> 8);
    }
    return units * 2;
}

int32_t StrFromUnicode(char **out, const uint16_t *source, int32_t bytes) {
    if (out == nullptr || source == nullptr || bytes < 0) return -1;
    const Byte *in = reinterpret_cast<const Byte *>(source);
    Byte *const block = reinterpret_cast<Byte *>(newBlock(static_cast<size_t>(bytes) + 2, defaultPool()));
    Byte *w = block;
    for (int32_t i = 0; i + 1 < bytes; i += 2) {
        if (in[i + 1] != 0) *w++ = in[i + 1];
        *w++ = in[i];
    }
    *out = reinterpret_cast<char *>(block);
    return static_cast<int32_t>(w - block);
}

// ---- Formatting ------------------------------------------------------------------------------------

BOOL StrFormat(char *target, int32_t size, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const BOOL result = formatInto("StrFormat", target, size, format, arguments);
    va_end(arguments);
    return result;
}

BOOL StrFormatVa(char *target, int32_t size, const char *format, va_list arguments) {
    return formatInto("StrFormatVa", target, size, format, arguments);
}

// ---- Regular expressions ---------------------------------------------------------------------------

BOOL StrBuildRegExpLiteralWithQuoting(char **out, const char *pattern, BOOL anchored, int32_t quote) {
    if (out == nullptr) return TRUE;
    char *block = newBlock(2 * static_cast<size_t>(StrSize(pattern)) + 3, defaultPool());
    Byte *w = reinterpret_cast<Byte *>(block);
    if (anchored == 1) writeChar(w, '^');
    const Byte *p = text(pattern);
    for (int32_t c; (c = readChar(p)) != 0;) {
        if (c == quote)
            writeQuoted(w, quote, readChar(p));
        else
            writePatternChar(w, c);
    }
    if (anchored == 1) writeChar(w, '$');
    *out = block;
    return TRUE;
}

BOOL StrBuildRegExpLiteral(char **out, const char *pattern, BOOL anchored) {
    return StrBuildRegExpLiteralWithQuoting(out, pattern, anchored, 0);
}

BOOL StrBuildRegExp(char **out, const char *pattern) {
    return StrBuildRegExpLiteralWithQuoting(out, pattern, FALSE, 0);
}

// ---- Life cycle ------------------------------------------------------------------------------------

BOOL StrBaseInitialize(void) {
    trace(kIdInitialize, 0, 2, "TRUE == StrBaseInitialize()");
    return TRUE;
}

BOOL StrBaseInitializeThread(LmContext *) { return TRUE; }
void StrBaseReleaseThread(LmContext *) {}
