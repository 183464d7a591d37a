// strings_fuzz.cpp - the string layer over arbitrary bytes.
//
// The input is a parameter byte followed by two strings separated by the
// first NUL. Each string is copied into a block of exactly its size, so
// that AddressSanitizer sees any read behind a terminator; lead bytes fall
// anywhere, before the terminator too. Besides the sanitizers, the target
// checks the properties the layer promises: the walker moves from boundary
// to boundary and stops on the terminator, compares are antisymmetric, a
// match lies on a character boundary and holds the bytes looked for, copies
// reproduce their source, StrToken leaves the text whole, and nothing leaks.
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "core/fhcore.h"
#include "leakcheck.h"

namespace {


// A NUL-terminated copy in a block of exactly its size.
struct Exact {
    char *p;
    size_t length;
    Exact(const uint8_t *data, size_t size) : p(static_cast<char *>(malloc(size + 1))), length(size) {
        memcpy(p, data, size);
        p[size] = 0;
    }
    Exact(const Exact &) = delete;
    Exact &operator=(const Exact &) = delete;
    ~Exact() { free(p); }
};

void release(char *made) { MemFreeInternal(&made); }

// Walks the string, checks the walker and gives the offset of each
// character boundary, the terminator last.
std::vector<size_t> boundaries(const char *s, size_t length) {
    std::vector<size_t> at;
    const char *cursor = s;
    for (;;) {
        at.push_back(static_cast<size_t>(cursor - s));
        const char *before = cursor;
        const int32_t c = StrGetChar(&cursor);
        if (c == 0) break;
        const size_t width = static_cast<size_t>(cursor - before);
        CHECK(width == (c > 255 ? 2u : 1u));
        CHECK(StrGetCharAtPointer(before) == c);
    }
    CHECK(at.back() == length);
    CHECK(static_cast<size_t>(StrCharCount(s)) + 1 == at.size());
    CHECK(StrTerminatorPosition(s) == s + length);
    CHECK(StrSizeNoTerm(s) == static_cast<int32_t>(length));
    return at;
}

bool isBoundary(const std::vector<size_t> &at, const char *s, const char *p) {
    for (size_t offset : at)
        if (s + offset == p) return true;
    return false;
}

void walkBack(const char *s, const std::vector<size_t> &at) {
    for (size_t i = 1; i + 1 < at.size(); ++i) {
        // Byte 0 ends a character of its own when a boundary follows it, so
        // stepping back from offset 1 stays inside the string.
        const char *cursor = s + at[i];
        CHECK(StrPrevChar(&cursor) != 0);
        CHECK(cursor == s + at[i] - 1 || cursor == s + at[i] - 2);
    }
}

// The first match of subString found character by character.
const char *referenceFind(const char *string, const char *subString) {
    if (*subString == 0) return nullptr;
    const int32_t first = StrGetCharAtPointer(subString);
    const int32_t bytes = StrSizeNoTerm(subString);
    for (const char *at = StrNextCharMatch(string, first); at != nullptr;) {
        if (StrCompareRange(at, subString, bytes) == 0) return at;
        StrGetChar(&at);
        at = StrNextCharMatch(at, first);
    }
    return nullptr;
}

void compareAndSearch(const Exact &a, const Exact &b, const std::vector<size_t> &atA, int32_t n) {
    CHECK(StrCompare(a.p, a.p) == 0 && StrCompareNoCase(a.p, a.p) == 0);
    CHECK(StrCompare(a.p, b.p) == -StrCompare(b.p, a.p));
    CHECK(StrCompareNoCase(a.p, b.p) == -StrCompareNoCase(b.p, a.p));
    const int32_t characters = static_cast<int32_t>(atA.size()) - 1;
    CHECK(StrCompareRange(a.p, a.p, n) == 0 && StrCompareRangeNoCase(a.p, a.p, n) == 0);
    CHECK(StrCompareRangeExact(a.p, a.p, n) == (n >= 1 && n < characters ? 1 : 0));
    if (StrCompareRange(a.p, b.p, n) == 0) CHECK(StrCompareRangeNoCase(a.p, b.p, n) == 0);
    if (StrCompareRangeExact(a.p, b.p, n) == 0) CHECK(StrCompareRangeExactNoCase(a.p, b.p, n) == 0);
    if (StrCompare(a.p, b.p) == 0) CHECK(a.length == b.length && memcmp(a.p, b.p, a.length) == 0);
    // The byte-first fast paths against the character walk.
    CHECK(StrCompare(a.p, b.p) == StrCompareRange(a.p, b.p, INT32_MAX));
    CHECK(StrFindSubString(a.p, b.p) == referenceFind(a.p, b.p));

    const char *cursor = b.p;
    for (int32_t c, tries = 0; (c = StrGetChar(&cursor)) != 0 && tries < 4; ++tries) {
        for (char *found : {StrNextCharMatch(a.p, c), StrNextCharMatchNoCase(a.p, c), StrLastCharMatch(a.p, c),
                            StrNextCharMatchRange(a.p, c, n)}) {
            if (found == nullptr) continue;
            CHECK(isBoundary(atA, a.p, found) && found < a.p + a.length);
        }
    }
    if (char *found = StrFindSubString(a.p, b.p); found != nullptr) {
        CHECK(isBoundary(atA, a.p, found));
        CHECK(static_cast<size_t>(a.p + a.length - found) >= b.length && memcmp(found, b.p, b.length) == 0);
    }
    if (char *found = StrFindSubStringNoCase(a.p, b.p); found != nullptr) CHECK(isBoundary(atA, a.p, found));
    const int32_t delimiters[] = {StrGetCharAtPointer(b.p), n & 1 ? 0 : ';', 0x8141};
    if (char *found = StrFindVariableDelimiter(a.p, delimiters, 3); found != nullptr)
        CHECK(isBoundary(atA, a.p, found));
}

void copies(const Exact &a, const Exact &b, int32_t n, int32_t character) {
    std::vector<char> target(2 * a.length + b.length + 2 * static_cast<size_t>(n > 0 ? n : 0) + 8, '#');
    CHECK(StrCopy(target.data(), a.p) == target.data() + a.length);
    CHECK(memcmp(target.data(), a.p, a.length + 1) == 0);
    CHECK(StrAppend(target.data(), b.p) == target.data() + a.length + b.length);
    char *end = StrCopyRange(target.data(), b.p, n);
    CHECK(end >= target.data() && end <= target.data() + (n > 0 ? n + 1 : 0));
    StrConvertChar(target.data(), a.p, character, StrGetCharAtPointer(b.p));
    end = StrPad(target.data(), n, character);
    CHECK(end <= target.data() + (n > 0 ? n : 0));

    std::vector<char> trimmed(a.p, a.p + a.length + 1);
    CHECK(StrTerminate(trimmed.data(), b.p) == trimmed.data());
    CHECK(strlen(trimmed.data()) <= a.length && memcmp(trimmed.data(), a.p, strlen(trimmed.data())) == 0);

    const int32_t delimiters[] = {character, 0x8141};
    for (char *made :
         {StrDuplicateIntoPool(a.p, nullptr), StrDuplicateIntoPoolNullIfEmpty(a.p, nullptr),
          StrDuplicateRangeIntoPool(a.p, nullptr, n), StrDuplicateToChar(a.p, character),
          StrDuplicateToCharWithTerm(a.p, character), StrDuplicateToLastChar(a.p, character),
          StrDuplicateToLastCharWithTerm(a.p, character), StrDuplicateToVariableDelimChar(a.p, delimiters, 2),
          StrDuplicateToSubString(a.p, b.p), StrDuplicateToSubStringNoCase(a.p, b.p),
          StrReplaceChar(a.p, character, 0x9F9F), StrCat(a.p, b.p, a.p, static_cast<char *>(nullptr))}) {
        if (made != nullptr) CHECK(strlen(made) <= 3 * a.length + b.length);
        release(made);
    }
    char *joined = StrCat(a.p, static_cast<char *>(nullptr));
    StrJoin(&joined, b.p);
    CHECK(strlen(joined) == a.length + b.length);
    release(joined);
    char *folded = nullptr;
    StrConvertToLower(&folded, a.p);
    CHECK(strlen(folded) == a.length);
    release(folded);
    StrConvertToUpper(&folded, a.p);
    release(folded);
}

void tokens(const Exact &a, const Exact &b) {
    std::vector<char> text(a.p, a.p + a.length + 1);
    size_t count = 0;
    for (char *t = StrToken(text.data(), b.p); t != nullptr; t = StrToken(nullptr, b.p)) {
        CHECK(t >= text.data() && t <= text.data() + a.length);
        CHECK(++count <= a.length + 1);
    }
    CHECK(memcmp(text.data(), a.p, a.length + 1) == 0);
}

void conversions(const Exact &a, const uint8_t *data, size_t size, int32_t n) {
    int32_t integer = 0;
    int64_t wide = 0;
    BOOL truth = 0;
    StrToInteger(a.p, &integer);
    StrToInt64(a.p, &wide);
    StrToBoolean(a.p, &truth);
    StrIsAscii(a.p);

    std::vector<uint16_t> units(a.length + 1);
    CHECK(StrToUnicode(units.data(), a.p, static_cast<int32_t>(units.size())) <= static_cast<int32_t>(2 * a.length));

    std::vector<uint16_t> source(size / 2 + 1);
    memcpy(source.data(), data, size);
    char *made = nullptr;
    const int32_t written = StrFromUnicode(&made, source.data(), static_cast<int32_t>(size));
    CHECK(written >= 0 && static_cast<size_t>(written) <= size);
    release(made);

    StrBuildRegExpLiteralWithQuoting(&made, a.p, n & 1, n & 2 ? '\\' : StrGetCharAtPointer(a.p));
    CHECK(strlen(made) <= 2 * a.length + 2);
    release(made);

    char buffer[16];
    StrFormat(buffer, (n & 7) + 2, "%s", a.p);
    CHECK(strlen(buffer) <= static_cast<size_t>(n & 7) + 1);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const bool ready = ContextInitialize();
    (void)ready;
    if (size < 1) return 0;
    const int32_t n = static_cast<int8_t>(data[0]);
    const uint8_t *rest = data + 1;
    const size_t restSize = size - 1;
    const uint8_t *split = static_cast<const uint8_t *>(memchr(rest, 0, restSize));
    const size_t aSize = split != nullptr ? static_cast<size_t>(split - rest) : restSize;
    const Exact a(rest, aSize);
    const Exact b(split != nullptr ? split + 1 : rest + restSize, split != nullptr ? restSize - aSize - 1 : 0);
    const size_t bLength = strlen(b.p); // b may hold further NULs
    const Exact bString(reinterpret_cast<const uint8_t *>(b.p), bLength);

    const InUse before;
    const std::vector<size_t> atA = boundaries(a.p, a.length);
    boundaries(bString.p, bString.length);
    walkBack(a.p, atA);
    compareAndSearch(a, bString, atA, n);
    const int32_t character = StrGetCharAtPointer(bString.p) ^ (n & 0x20);
    copies(a, bString, n, character);
    tokens(a, bString);
    conversions(a, rest, restSize, n);
    CHECK(!before.leaked());
    return 0;
}
