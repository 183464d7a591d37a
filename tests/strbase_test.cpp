// The string layer: the character walker, and each family over it, checked
// with double-byte characters at the start, middle and end of the text, a
// lead byte directly before the terminator, and the folding rules.
#include "helpers.h"

#include <cerrno>
#include <cstring>
#include <functional>

#include <sys/mman.h>
#include <unistd.h>

namespace {

using testhelp::taken;
using StringTest = LibraryTest;

TEST_F(StringTest, WalkerReadsWholeCharactersAndNeverPassesTheTerminator) {
    struct Case {
        const char *text;
        std::vector<int32_t> chars;
    } cases[] = {{"\x81", {0x81}},                       // a lone lead byte before the terminator
                 {"\x81\x41", {0x8141}},                 // lead and trail
                 {"A\x81\x41\x42", {'A', 0x8141, 'B'}},  // in the middle
                 {"AB\x9F\xFF", {'A', 'B', 0x9FFF}},     // at the end, trail above 0x7F
                 {"\xE0\x80\xFF\x01", {0xE080, 0xFF01}}, // lead bytes as trail bytes
                 {"\xA0\xDF", {0xA0, 0xDF}},             // 0xA0-0xDF are single-byte
                 {"A\xE0", {'A', 0xE0}},
                 {"", {}}};
    for (const Case &c : cases) {
        SCOPED_TRACE(testing::PrintToString(std::string(c.text)));
        const char *cursor = c.text;
        std::vector<int32_t> read;
        while (int32_t value = StrGetChar(&cursor)) read.push_back(value);
        EXPECT_EQ(read, c.chars);
        EXPECT_EQ(cursor, c.text + strlen(c.text));
        EXPECT_EQ(StrGetChar(&cursor), 0);
        EXPECT_EQ(cursor, c.text + strlen(c.text)) << "moved past the terminator";
        EXPECT_EQ(StrCharCount(c.text), static_cast<int32_t>(c.chars.size()));
        EXPECT_EQ(StrTerminatorPosition(c.text), c.text + strlen(c.text));
        EXPECT_EQ(StrGetCharAtPointer(c.text), c.chars.empty() ? 0 : c.chars[0]);
    }
    const char *null = nullptr;
    EXPECT_EQ(StrGetChar(&null), 0);
    EXPECT_EQ(StrGetChar(nullptr), 0);
    EXPECT_EQ(StrGetCharAtPointer(nullptr), 0);
    EXPECT_EQ(StrCharCount(nullptr), 0);
    for (int byte : {0x7F, 0x80, 0x9F, 0xA0, 0xDF, 0xE0})
        EXPECT_EQ(StrIsDBCSLeadByte(byte), byte == 0x80 || byte == 0x9F || byte == 0xE0) << byte;
    EXPECT_TRUE(StrCharIsAscii(127));
    EXPECT_FALSE(StrCharIsAscii(128) || StrCharIsAscii(0x8141));
}

TEST_F(StringTest, PrevCharStepsBackOverALeadByte) {
    const char text[] = "A\x81\x42\x43";
    const char *cursor = text + 3; // on 'C'; 'B' before it is not a lead byte
    EXPECT_EQ(StrPrevChar(&cursor), 'C');
    EXPECT_EQ(cursor, text + 2);
    EXPECT_EQ(StrPrevChar(&cursor), 'B' << 8 | 0x81); // the byte here, then the lead before it
    EXPECT_EQ(cursor, text);
    const char *end = text + 4;
    EXPECT_EQ(StrPrevChar(&end), 0);
    EXPECT_EQ(end, text + 4);
    EXPECT_EQ(StrPrevChar(nullptr), 0);
}

TEST_F(StringTest, PutCharWritesHighByteFirstAndZeroStays) {
    char buffer[8] = "xxxxxxx";
    char *cursor = buffer;
    EXPECT_EQ(StrPutChar(&cursor, 0x8141), 2);
    EXPECT_EQ(StrPutChar(&cursor, 'B'), 1);
    EXPECT_EQ(StrPutChar(&cursor, 0), 0);
    EXPECT_EQ(cursor, buffer + 3);
    EXPECT_EQ(StrPutChar(&cursor, 'C'), 1); // overwrites the NUL
    EXPECT_EQ(std::string(buffer, 4), "\x81\x41\x42\x43");
    char *null = nullptr;
    EXPECT_EQ(StrPutChar(&null, 'A'), -1);
    EXPECT_EQ(StrPutChar(nullptr, 'A'), -1);
}

TEST_F(StringTest, SizesCountBytesOfWholeCharacters) {
    struct Case {
        const char *text;
        int32_t count, forwardBytes, range, rangeNoTerm;
    } cases[] = {
        {"\x81\x41\x62\x43", 1, 2, 3, 2}, {"\x81\x41\x62\x43", 0, 0, 2, 0}, {"\x81\x41\x62\x43", -3, 0, 2, 0},
        {"a\x81\x41\x62", 2, 3, 4, 3}, {"a\x81\x41\x62", 3, 4, 4, 4}, {"a\x81\x41\x62", 9, 4, 4, 4},
        {"ab\x81", 2, 2, 3, 2}, {"", 1, 0, 0, 0},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(testing::PrintToString(std::string(c.text)) + " count " + std::to_string(c.count));
        EXPECT_EQ(StrForwardNChars(c.text, c.count), c.text + c.forwardBytes);
        EXPECT_EQ(StrSizeRange(c.text, c.count), c.range);
        EXPECT_EQ(StrSizeRangeNoTerm(c.text, c.count), c.rangeNoTerm);
    }
    EXPECT_EQ(StrGetCharAfterPointer("a\x81\x41\x62", 1), 0x8141);
    EXPECT_EQ(StrGetCharAfterPointer("a\x81\x41\x62", 5), 0);
    EXPECT_EQ(StrSize("\x81\x41"), 3);
    EXPECT_EQ(StrSizeNoTerm("\x81\x41"), 2);
    for (auto size :
         {StrSize(nullptr), StrSizeNoTerm(nullptr), StrSizeRange(nullptr, 2), StrSizeRangeNoTerm(nullptr, 2)})
        EXPECT_EQ(size, 0);
    EXPECT_EQ(StrForwardNChars(nullptr, 1), nullptr);
}

TEST_F(StringTest, CompareFamilyKeepsItsResultRules) {
    using Compare = int32_t (*)(const char *, const char *, int32_t);
    enum Op { kCmp, kNoCase, kRange, kRangeNoCase, kExact, kExactNoCase };
    const Compare compare[] = {[](const char *a, const char *b, int32_t) { return StrCompare(a, b); },
                               [](const char *a, const char *b, int32_t) { return StrCompareNoCase(a, b); },
                               StrCompareRange, StrCompareRangeNoCase, StrCompareRangeExact,
                               StrCompareRangeExactNoCase};
    struct Case {
        Op op;
        const char *a, *b;
        int32_t n, expected;
    } cases[] = {
        {kCmp, nullptr, "", 0, 0}, {kCmp, nullptr, "a", 0, -1}, {kCmp, "abc", "abd", 0, -1}, {kCmp, "abd", "abc", 0, 1},
        {kCmp, "ab", "abc", 0, -1},
        {kCmp, "\x81\x41", "\x7F", 0, 1}, // a double-byte value is above every single byte
        {kCmp, "a\x81", "a", 0, 1}, // lone lead byte before the terminator
        {kCmp, "a\x81", "a\x81", 0, 0}, {kCmp, "abc", "ABC", 0, 1},
        {kCmp, "\xA0", "\x81\x41", 0, -1}, // bytes order the other way
        {kCmp, "x\x81", "x\x81\x01", 0, -1}, // lone lead below a whole character
        {kCmp, "\x81\x81\x81\x42", "\x81\x81\x81\x41", 0, 1}, // a run of lead bytes pairs up
        {kCmp, "\x81\x81\x41\x42", "\x81\x81\x42\x41", 0, -1},
        {kCmp, "abcdefghijklmnopqrstuvwxyz\x81", "abcdefghijklmnopqrstuvwxyz\x81\x41", 0, -1},
        {kNoCase, "abc", "ABD", 0, -1}, {kNoCase, "aBc", "AbC", 0, 0},
        {kNoCase, "{", "[", 0, 1}, // only 'a'-'z' fold
        {kNoCase, "\xE0\x61", "\xE0\x41", 0, 1}, // a trail byte is not folded
        {kNoCase, "\xE9", "\xC9", 0, 1}, // nor a byte above 127
        {kRange, "abcd", "abcx", 3, 0}, {kRange, "abcd", "abcx", 4, -1}, {kRange, "abcd", "abcx", 0, 0},
        {kRange, "ab", "abc", 5, -1},
        {kRange, "\x81\x41X", "\x81\x42X", 1, -1}, // the range ends inside a double-byte character
        {kRange, "x\x81\x41", "x\x81\x41", 2, 0}, {kRangeNoCase, "ABcd", "abCX", 3, 0},
        {kRangeNoCase, "ABcd", "abDX", 3, -1}, {kExact, "abcd", "abcx", 3, 1}, {kExact, "abc", "abcx", 3, 0},
        {kExact, "abc", "abx", 3, 'c' - 'x'}, // not clamped
        {kExact, "\x81\x41", "A", 1, 0x8141 - 'A'}, {kExact, "ab", "ab", 5, 0}, {kExact, "ab", "abc", 5, -'c'},
        {kExact, "ab", "x", 0, 0}, {kExactNoCase, "ABCd", "abc", 3, 1}, {kExactNoCase, "abc", "ABC", 3, 0},
        {kExactNoCase, "abc", "ABD", 3, 'C' - 'D'},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(testing::Message() << "op " << c.op << " " << (c.a ? c.a : "(null)") << " / " << c.b << " "
                                        << c.n);
        EXPECT_EQ(compare[c.op](c.a, c.b, c.n), c.expected);
    }
}

// The compare reads sixteen bytes at a time: a text whose terminator is the
// last byte before an unreadable page must still compare, at every offset,
// with blocks of either width.
TEST_F(StringTest, CompareStopsAtTheTerminatorBeforeAnUnreadablePage) {
    const long page = sysconf(_SC_PAGESIZE);
    auto *area = static_cast<char *>(mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(area, MAP_FAILED);
    ASSERT_EQ(mprotect(area + page, page, PROT_NONE), 0);
    for (int length = 0; length < 80; ++length) {
        const auto compare = length % 2 == 1 ? fh::strCompareNarrow : StrCompare;
        char *edge = area + page - length - 1; // its terminator is the page's last byte
        memset(edge, 'q', length);
        edge[length] = 0;
        std::string longer(length + 20, 'q'), lower(length, 'q');
        if (length > 0) lower.back() = 'p';
        SCOPED_TRACE(length);
        EXPECT_EQ(compare(edge, std::string(length, 'q').c_str()), 0);
        EXPECT_EQ(compare(edge, longer.c_str()), -1);
        EXPECT_EQ(compare(longer.c_str(), edge), 1);
        if (length > 0) {
            EXPECT_EQ(compare(edge, lower.c_str()), 1);
        }
    }
    munmap(area, 2 * page);
}

TEST_F(StringTest, SearchMatchesCharactersNotTrailBytes) {
    const char text[] = "A\x81\x41\x62\x81\x42\x41\x62";
    // bytes: 0 'A', 1-2 0x8141, 3 'b', 4-5 0x8142, 6 'A', 7 'b'
    struct Case {
        const char *name;
        char *found;
        int expected; // offset, -1 for null
    } cases[] = {
        {"next A", StrNextCharMatch(text + 1, 'A'), 6}, {"next dbcs", StrNextCharMatch(text, 0x8142), 4},
        {"next 0", StrNextCharMatch(text, 0), -1}, {"next none", StrNextCharMatch(text, 'z'), -1},
        {"nocase b", StrNextCharMatchNoCase(text, 'B'), 3},
        {"nocase on trail", StrNextCharMatchNoCase(text + 1, 'a'), 6},
        {"range ends inside", StrNextCharMatchRange(text, 0x8142, 5), -1},
        {"range holds it", StrNextCharMatchRange(text, 0x8142, 6), 4},
        {"range 0", StrNextCharMatchRange(text, 'A', 0), -1}, {"last A", StrLastCharMatch(text, 'A'), 6},
        {"last b", StrLastCharMatch(text, 'b'), 7}, {"last none", StrLastCharMatch(text, 'B'), -1},
        {"sub on trail", StrFindSubString(text, "Ab"), 6}, {"sub dbcs", StrFindSubString(text, "\x81\x42\x41"), 4},
        {"sub nocase", StrFindSubStringNoCase(text, "aB"), 6}, {"sub none", StrFindSubString(text, "bb"), -1},
        {"sub empty", StrFindSubString(text, ""), -1},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(c.found == nullptr ? -1 : static_cast<int>(c.found - text), c.expected);
    }
    struct SubCase {
        const char *text, *sub;
        int expected;
    } subCases[] = {{"\x81\x81\x81\x41", "\x81\x41", 2}, // the byte match at 1 starts on a trail byte
                    {"\x81\x81\x41", "\x81\x41", -1},
                    {"x\x81\x41x\x81", "x\x81", 3}, // a lone lead matches only before the terminator
                    {"\xA0\x81\xA0", "\x81\xA0", 1},
                    {"aaab", "aab", 1}};
    for (const SubCase &c : subCases) {
        const char *found = StrFindSubString(c.text, c.sub);
        EXPECT_EQ(found == nullptr ? -1 : static_cast<int>(found - c.text), c.expected)
            << testing::PrintToString(std::string(c.sub));
    }
    EXPECT_EQ(StrFindSubString(nullptr, "a"), nullptr);
    EXPECT_EQ(StrFindSubString("a", nullptr), nullptr);
    EXPECT_EQ(StrNextCharMatch(nullptr, 'a'), nullptr);
    const char lone[] = "ab\x81";
    EXPECT_EQ(StrLastCharMatch(lone, 0x81), lone + 2);
    EXPECT_EQ(StrFindSubString("ab", "abc"), nullptr);

    const int32_t delimiters[] = {',', 0x8142};
    EXPECT_EQ(StrFindVariableDelimiter(text, delimiters, 2), text + 4);
    EXPECT_EQ(StrFindVariableDelimiter("ab", delimiters, 2), nullptr);
    const int32_t withEnd[] = {',', 0};
    EXPECT_EQ(StrFindVariableDelimiter(lone, withEnd, 2), lone + 3);
    EXPECT_EQ(StrFindVariableDelimiter("ab", nullptr, 2), nullptr);
}

TEST_F(StringTest, CopyRangeWritesWholeCharactersAndTerminatesOnlyAtTheSourceEnd) {
    struct Case {
        const char *source;
        int32_t bytes;
        std::string written;                           // what lands in the target, terminator included when written
        int32_t result;                                // offset of the returned position
    } cases[] = {{"abcdef", 3, "abc", 3},              // range runs out: no terminator
                 {"ab", 5, std::string("ab\0", 3), 2}, // source ends first: terminated, result on the NUL
                 {"a\x81\x41\x62", 2, "a\x81\x41", 3}, // a character started inside the range is copied whole
                 {"a\x81", 5, std::string("a\x81\0", 3), 2},
                 {"abc", 0, "", 0},
                 {"abc", -2, "", 0},
                 {nullptr, 3, std::string("\0", 1), 0}};
    for (const Case &c : cases) {
        SCOPED_TRACE(testing::Message() << (c.source ? c.source : "(null)") << " " << c.bytes);
        char target[16];
        memset(target, '#', sizeof target);
        char *end = StrCopyRange(target, c.source, c.bytes);
        EXPECT_EQ(end - target, c.result);
        EXPECT_EQ(std::string(target, c.written.size()), c.written);
        EXPECT_EQ(target[c.written.size()], '#') << "wrote behind the range";
    }

    char target[32] = "x";
    char *end = StrAppend(target, "\x81\x41");
    EXPECT_EQ(end, target + 3);
    EXPECT_EQ(*end, 0);
    end = StrAppendRange(target, "yz", 1);
    EXPECT_EQ(end, target + 4);
    EXPECT_EQ(std::string(target, 4), "x\x81\x41y");
    EXPECT_EQ(StrCopy(target, nullptr), target);
    EXPECT_EQ(target[0], 0);
    EXPECT_EQ(StrCopy(nullptr, "a"), nullptr);

    end = StrConvertChar(target, "a/b\x81\x2F/", 0x9F41, '/');
    EXPECT_STREQ(target, "a\x9F\x41\x62\x81\x2F\x9F\x41"); // the trail '/' of 0x812F stays
    EXPECT_EQ(end, target + strlen(target));
    StrConvertChar(target, "a,b,c", 0, ',');
    EXPECT_STREQ(target, "abc"); // a new character 0 drops the old one
}

// A range as wide as an int32_t allows, from a string high in memory (on
// 32-bit x86 the stack lies above 2 GiB, so the range reaches past the end
// of the address space), still ends at the string's terminator: its end never
// wraps round to an address below the string.
TEST_F(StringTest, RangePastTheTopOfMemoryEndsAtTheTerminator) {
    char onStack[] = "ab\x81\x41z";
    char target[16];
    memset(target, '#', sizeof target);
    EXPECT_EQ(StrCopyRange(target, onStack, INT32_MAX), target + 5);
    EXPECT_STREQ(target, onStack);
    EXPECT_EQ(StrAppendRange(target, onStack, INT32_MAX), target + 10);
    EXPECT_STREQ(target + 5, onStack);
    EXPECT_EQ(StrNextCharMatchRange(onStack, 'z', INT32_MAX), onStack + 4);
    EXPECT_EQ(StrNextCharMatchRange(onStack, '#', INT32_MAX), nullptr);
    char other[] = "ab\x81\x41y";
    EXPECT_EQ(StrCompareRange(onStack, other, INT32_MAX), 1);
    EXPECT_EQ(StrCompareRangeNoCase(other, onStack, INT32_MAX), -1);
}

TEST_F(StringTest, PadAndTerminate) {
    char buffer[8];
    memset(buffer, '#', sizeof buffer);
    EXPECT_EQ(StrPad(buffer, 3, '-'), buffer + 3);
    EXPECT_EQ(std::string(buffer, 4), "---#");
    memset(buffer, '#', sizeof buffer);
    EXPECT_EQ(StrPad(buffer, 5, 0x8141), buffer + 4); // the third would be cut in two
    EXPECT_EQ(std::string(buffer, 5), "\x81\x41\x81\x41#");
    EXPECT_EQ(StrPad(buffer, 0, '-'), buffer);
    EXPECT_EQ(StrPad(buffer, 2, 0), buffer + 2);
    EXPECT_EQ(std::string(buffer, 3), std::string("\0\0\x81", 3));

    struct Case {
        const char *text, *set, *expected;
    } cases[] = {{"abc \t ", " \t", "abc"},       {"  ", " ", ""},    {" a b ", " ", " a b"},
                 {"ab\x81 ", " ", "ab\x81 "}, // 0x8120: its trail byte is no blank
                 {"ab\x81 ", "\x81 ", "ab"},  // the double-byte character is in the set
                 {"ab\x81", " \x81", "ab"},   // so is a lone lead byte at the end of each
                 {"ab\x81 \x81 ", "\x81 ", "ab"}, {"abc", "", "abc"}, {"", " ", ""}};
    for (const Case &c : cases) {
        char text[16];
        strcpy(text, c.text);
        EXPECT_EQ(StrTerminate(text, c.set), text);
        EXPECT_STREQ(text, c.expected) << "in '" << c.text << "'";
    }
    char untouched[] = "ab  ";
    StrTerminate(untouched, nullptr);
    EXPECT_STREQ(untouched, "ab  ");
    EXPECT_EQ(StrTerminate(nullptr, " "), nullptr);
}

TEST_F(StringTest, DuplicatesCopyUpToTheRightCharacter) {
    const char text[] = "a/b\x81/c/d"; // 0x812F hides a '/' as its trail byte
    const int32_t semicolonOrDbcs[] = {';', 0x812F};
    const int32_t semicolon[] = {';'};
    const int32_t semicolonOrEnd[] = {';', 0};
    struct Case {
        const char *name;
        char *made;
        const char *expected; // null: no string expected
    } cases[] = {{"to char", StrDuplicateToChar(text, '/'), "a"},
                 {"to char none", StrDuplicateToChar(text, 'z'), text},
                 {"to char with term", StrDuplicateToCharWithTerm(text, '/'), "a/"},
                 {"to dbcs with term", StrDuplicateToCharWithTerm(text, 0x812F), "a/b\x81/"},
                 {"to last", StrDuplicateToLastChar(text, '/'), "a/b\x81/c"},
                 {"to last none", StrDuplicateToLastChar(text, 'z'), ""},
                 {"to last with term", StrDuplicateToLastCharWithTerm(text, '/'), "a/b\x81/c/"},
                 {"to last with term none", StrDuplicateToLastCharWithTerm(text, 'z'), ""},
                 {"to delimiter", StrDuplicateToVariableDelimChar(text, semicolonOrDbcs, 2), "a/b"},
                 {"to delimiter none", StrDuplicateToVariableDelimChar(text, semicolon, 1), nullptr},
                 {"to delimiter end", StrDuplicateToVariableDelimChar(text, semicolonOrEnd, 2), text},
                 {"to sub", StrDuplicateToSubString(text, "c/"), "a/b\x81/"},
                 {"to sub on a trail byte", StrDuplicateToSubString(text, "/c"), nullptr},
                 {"to sub nocase", StrDuplicateToSubStringNoCase(text, "C/"), "a/b\x81/"},
                 {"pool", StrDuplicateIntoPool(text, MemGetDefaultPoolId()), text},
                 {"pool null", StrDuplicateIntoPool(nullptr, nullptr), nullptr},
                 {"pool empty", StrDuplicateIntoPoolNullIfEmpty("", nullptr), nullptr},
                 {"pool not empty", StrDuplicateIntoPoolNullIfEmpty("x", nullptr), "x"},
                 {"range", StrDuplicateRangeIntoPool(text, nullptr, 4), "a/b\x81/"},
                 {"range 0", StrDuplicateRangeIntoPool(text, nullptr, 0), ""},
                 {"range ends inside", StrDuplicateRangeIntoPool("ab\x81\x41\x63\x64", nullptr, 3), "ab\x81\x41"},
                 {"range ends inside", StrDuplicateRangeIntoPool("abcdef\x81\x41x", nullptr, 7), "abcdef\x81\x41"},
                 {"range negative", StrDuplicateRangeIntoPool(text, nullptr, -1), nullptr},
                 {"to char null", StrDuplicateToChar(nullptr, '/'), nullptr},
                 {"to last null", StrDuplicateToLastChar(nullptr, '/'), nullptr}};
    for (Case &c : cases) {
        EXPECT_EQ(taken(c.made), c.expected != nullptr ? c.expected : "<null>") << c.name;
    }
}

TEST_F(StringTest, DuplicateToSubStringTracesANullArgument) {
    const char *text = "abc";
    EXPECT_EQ(StrDuplicateToSubString(nullptr, text), nullptr);
    EXPECT_EQ(StrDuplicateToSubStringNoCase(text, nullptr), nullptr);
    char expected[2][96];
    snprintf(expected[0], sizeof expected[0], "StrDuplicateToSubString(%p, %p) - bad args",
             static_cast<const void *>(nullptr), static_cast<const void *>(text));
    snprintf(expected[1], sizeof expected[1], "StrDuplicateToSubStringNoCase(%p, %p) - bad args",
             static_cast<const void *>(text), static_cast<const void *>(nullptr));
    EXPECT_TRUE(traced("STRING", 2, expected[0])) << expected[0];
    EXPECT_TRUE(traced("STRING", 2, expected[1])) << expected[1];
}

TEST_F(StringTest, CatJoinReplaceAndCaseConversion) {
    EXPECT_EQ(taken(StrCat("ab", "", "\x81", "A", static_cast<char *>(nullptr))), "ab\x81\x41");
    EXPECT_EQ(taken(StrCat(static_cast<char *>(nullptr))), "");
    EXPECT_EQ(taken(StrCat("a", static_cast<char *>(nullptr), "b", static_cast<char *>(nullptr))), "a");

    char *joined = nullptr;
    EXPECT_EQ(StrJoin(&joined, "ab"), joined);
    EXPECT_STREQ(joined, "ab");
    StrJoin(&joined, "cd");
    EXPECT_EQ(taken(joined), "abcd"); // and the first block was freed: the fixture counts
    EXPECT_EQ(StrJoin(nullptr, "x"), nullptr);

    // Grows to twice the size; the guard word checks it.
    EXPECT_EQ(taken(StrReplaceChar("a.b.", '.', 0x8141)), "a\x81\x41\x62\x81\x41");
    EXPECT_EQ(taken(StrReplaceChar(nullptr, '.', ',')), "<null>");

    char *lower = nullptr, *upper = nullptr;
    EXPECT_EQ(StrConvertToLower(&lower, "AbZ\x81\x41[\xC9"), lower);
    EXPECT_EQ(taken(lower), "abz\x81\x41[\xC9"); // the trail 'A' and bytes above 127 stay
    StrConvertToUpper(&upper, "az\xE0\x61{\xE9");
    EXPECT_EQ(taken(upper), "AZ\xE0\x61{\xE9");
    char *null = reinterpret_cast<char *>(1);
    EXPECT_EQ(StrConvertToLower(&null, nullptr), nullptr);
    EXPECT_EQ(null, nullptr);
}

TEST_F(StringTest, TokenCutsOnlyWhileTheTokenIsInUse) {
    auto tokens = [](char *text, const char *delimiters) {
        std::vector<std::string> out;
        for (char *t = StrToken(text, delimiters); t != nullptr; t = StrToken(nullptr, delimiters)) out.emplace_back(t);
        return out;
    };
    struct Case {
        const char *text, *delimiters;
        std::vector<std::string> expected;
    } cases[] = {{"a,", ",", {"a", ""}},
                 {"", ",", {""}},
                 {",a,,b", ",", {"", "a", "", "b"}},
                 {"a b;c", " ;", {"a", "b", "c"}},
                 {"x\x81,y,z", ",", {"x\x81,y", "z"}},      // the ',' inside 0x812C is no delimiter
                 {"x\x81,y\x81,", "\x81,", {"x", "y", ""}}, // a double-byte delimiter
                 {"ab", nullptr, {"ab"}}};
    for (const Case &c : cases) {
        std::string text = c.text;
        EXPECT_EQ(tokens(text.data(), c.delimiters), c.expected) << "in '" << c.text << "'";
        EXPECT_EQ(text, c.text) << "the text is whole again";
    }
    EXPECT_EQ(StrToken(nullptr, ","), nullptr);

    // The state is one per context: a second walk takes over the first.
    char first[] = "a,b,c", second[] = "x;y";
    EXPECT_STREQ(StrToken(first, ","), "a");
    EXPECT_STREQ(StrToken(second, ";"), "x");
    EXPECT_STREQ(StrToken(nullptr, ","), "y");
    EXPECT_EQ(StrToken(nullptr, ","), nullptr);
    EXPECT_STREQ(first, "a") << "the first walk stays cut";
}

TEST_F(StringTest, IntegerConversionsHoldTheirContract) {
    struct Case {
        const char *text;
        bool ok;
        int64_t value;
    } cases32[] = {
        {"12", true, 12},    {" -12", true, -12}, {"+7", true, 7},   {"\t\n 5", true, 5}, {"12 ", false, 0},
        {"12x", false, 0},   {"0x10", false, 0},  {"", false, 0},    {"  ", false, 0},    {"- 1", false, 0},
        {"abc", false, 0},   {"2147483647", true, INT32_MAX},        {"-2147483648", true, INT32_MIN},
        {"2147483648", false, 0}, {"-2147483649", false, 0},         {"99999999999999999999", false, 0},
    };
    for (const Case &c : cases32) {
        int32_t value = 4242;
        EXPECT_EQ(StrToInteger(c.text, &value), c.ok) << "'" << c.text << "'";
        EXPECT_EQ(value, c.ok ? c.value : 4242) << "'" << c.text << "'";
    }
    const Case cases64[] = {{"9223372036854775807", true, INT64_MAX}, {" -9223372036854775808", true, INT64_MIN},
                            {"9223372036854775808", false, 0},        {"-99999999999999999999", false, 0},
                            {"4294967296", true, 4294967296LL},       {"1 ", false, 0}};
    for (const Case &c : cases64) {
        int64_t value = 4242;
        EXPECT_EQ(StrToInt64(c.text, &value), c.ok) << "'" << c.text << "'";
        EXPECT_EQ(value, c.ok ? c.value : 4242) << "'" << c.text << "'";
    }
    int32_t zero = 5;
    EXPECT_TRUE(StrToInteger(nullptr, &zero));
    EXPECT_EQ(zero, 0);
    EXPECT_FALSE(StrToInteger("1", nullptr));
    errno = EBADF;
    int64_t big;
    StrToInt64("99999999999999999999", &big);
    EXPECT_EQ(errno, EBADF) << "the caller's errno survives";

    BOOL truth = 7;
    EXPECT_TRUE(StrToBoolean("tRuE", &truth));
    EXPECT_EQ(truth, 1);
    EXPECT_TRUE(StrToBoolean("FALSE", &truth));
    EXPECT_EQ(truth, 0);
    for (const char *bad : {"TRUE ", " TRUE", "yes", "", "TRU"}) {
        truth = 7;
        EXPECT_FALSE(StrToBoolean(bad, &truth)) << bad;
        EXPECT_EQ(truth, 7);
    }
    EXPECT_FALSE(StrToBoolean(nullptr, &truth));
}

TEST_F(StringTest, TextFormsOfNumbers) {
    struct Case {
        std::function<BOOL(char **)> make;
        const char *expected;
    } table[] = {{[](char **o) { return StrFromBoolean(o, 5); }, "TRUE"},
                 {[](char **o) { return StrFromBoolean(o, FALSE); }, "FALSE"},
                 {[](char **o) { return StrFromInteger(o, INT32_MIN); }, "-2147483648"},
                 {[](char **o) { return StrFromInt64(o, INT64_MIN); }, "-9223372036854775808"},
                 {[](char **o) { return StrHexFromInteger(o, 255); }, "0xff"},
                 {[](char **o) { return StrHexFromInteger(o, -1); }, "0xffffffff"},
                 {[](char **o) { return StrHexFromInt64(o, 255); }, "ff"},
                 {[](char **o) { return StrHexFromInt64(o, -1); }, "ffffffffffffffff"},
                 {[](char **o) { return StrFromIpAddr(o, 0xC0A80001u); }, "192.168.0.1"},
                 {[](char **o) { return StrFromIpAddr(o, 0xFFFFFFFFu); }, "255.255.255.255"}};
    for (const Case &c : table) {
        char *made = nullptr;
        EXPECT_TRUE(c.make(&made));
        EXPECT_EQ(taken(made), c.expected);
    }
    EXPECT_FALSE(StrFromInteger(nullptr, 1));
    EXPECT_FALSE(StrFromBoolean(nullptr, 1));
    EXPECT_TRUE(StrIsAscii(nullptr));
    EXPECT_TRUE(StrIsAscii(""));
    EXPECT_TRUE(StrIsAscii("a\x7F"));
    EXPECT_FALSE(StrIsAscii("ab\x80") || StrIsAscii("\xC9"));
}

TEST_F(StringTest, UnicodeUnitsAreLittleEndianBytes) {
    unsigned char units[16];
    memset(units, 0xEE, sizeof units);
    EXPECT_EQ(StrToUnicode(reinterpret_cast<uint16_t *>(units), "A\x81\x42z", 2), 4);
    const unsigned char expected[] = {'A', 0, 'B', 0x81, 0xEE};
    EXPECT_EQ(memcmp(units, expected, sizeof expected), 0);
    EXPECT_EQ(StrToUnicode(reinterpret_cast<uint16_t *>(units), "ab\x81", 9), 6) << "a lone lead byte is one unit";
    EXPECT_EQ(units[4], 0x81);
    EXPECT_EQ(units[5], 0);
    EXPECT_EQ(StrToUnicode(reinterpret_cast<uint16_t *>(units), "ab", 0), 0);

    // 'A', 0x8142, a zero unit, 'c', and a last odd byte that is ignored.
    const unsigned char source[] = {'A', 0, 0x42, 0x81, 0, 0, 'c', 0, 'z'};
    char *made = nullptr;
    EXPECT_EQ(StrFromUnicode(&made, reinterpret_cast<const uint16_t *>(source), sizeof source), 5);
    EXPECT_EQ(std::string(made, 6), std::string("A\x81\x42\0c\0", 6));
    MemFreeInternal(&made);
    EXPECT_EQ(StrFromUnicode(&made, reinterpret_cast<const uint16_t *>(source), 0), 0);
    EXPECT_EQ(taken(made), "");
    made = nullptr;
    EXPECT_EQ(StrFromUnicode(&made, reinterpret_cast<const uint16_t *>(source), -1), -1);
    EXPECT_EQ(StrFromUnicode(&made, nullptr, 2), -1);
    EXPECT_EQ(StrFromUnicode(nullptr, reinterpret_cast<const uint16_t *>(source), 2), -1);
    EXPECT_EQ(made, nullptr);
}

TEST_F(StringTest, FormatCutsTerminatesAndTraces) {
    char target[8] = "unset";
    EXPECT_FALSE(StrFormat(target, 4, "%s", "abcdef"));
    EXPECT_STREQ(target, "abc");
    EXPECT_TRUE(traced("STRING", 5, "Buffer overrun formatting string into memory buffer"));

    memcpy(target, "unset", 6);
    EXPECT_FALSE(StrFormat(target, 1, "%s", "x"));
    EXPECT_STREQ(target, "unset");
    EXPECT_TRUE(traced("STRING", 3, "Invalid arguments to StrFormat"));
    const char *noFormat = nullptr;
    va_list none{};
    EXPECT_FALSE(StrFormatVa(target, 8, noFormat, none));
    EXPECT_TRUE(traced("STRING", 3, "Invalid arguments to StrFormatVa"));

    EXPECT_TRUE(StrFormat(target, 8, "%ld-%s", 42L, "ab"));
    EXPECT_STREQ(target, "42-ab");
    EXPECT_TRUE(StrFormat(target, 8, "%s", "1234567")); // exactly fills the buffer
    EXPECT_STREQ(target, "1234567");
}

TEST_F(StringTest, RegularExpressionsFromWildcards) {
    struct Case {
        const char *pattern;
        BOOL anchored;
        int32_t quote;
        const char *expected;
    } cases[] = {{"a*.c?", 1, 0, "^a.*\\.c.$"},
                 {"a*.c?", 0, 0, "a.*\\.c."},
                 {"x", 2, 0, "x"}, // only 1 anchors
                 {"$()+.[\\]^{|}", 0, 0, "\\$\\(\\)\\+\\.\\[\\\\\\]\\^\\{\\|\\}"},
                 {"a\\*", 0, '\\', "a\\*"},
                 {"\\n\\t\\r\\f\\b", 0, '\\', "\n\t\r\f\b"},
                 {"\\\\", 0, '\\', "\\\\"},
                 {"%%", 0, '%', "%"},
                 {"%q%", 0, '%', "q"}, // any other character: the quote goes; a last quote is dropped
                 {"%?%*", 1, '%', "^\\?\\*$"},
                 {"\x81*", 0, 0, "\x81*"}, // 0x812A is a character, not a star
                 {"", 1, 0, "^$"},
                 {nullptr, 0, 0, ""}};
    for (const Case &c : cases) {
        char *made = nullptr;
        EXPECT_TRUE(StrBuildRegExpLiteralWithQuoting(&made, c.pattern, c.anchored, c.quote));
        EXPECT_EQ(taken(made), c.expected) << "pattern '" << (c.pattern ? c.pattern : "(null)") << "'";
    }
    char *made = nullptr;
    EXPECT_TRUE(StrBuildRegExp(&made, "a\\*"));
    EXPECT_EQ(taken(made), "a\\\\.*");
    EXPECT_TRUE(StrBuildRegExpLiteral(&made, "?", TRUE));
    EXPECT_EQ(taken(made), "^.$");
    EXPECT_TRUE(StrBuildRegExp(nullptr, "a"));
}

TEST_F(StringTest, InitializeTracesItsResult) {
    EXPECT_TRUE(StrBaseInitialize());
    EXPECT_TRUE(traced("STRING", 1, "TRUE == StrBaseInitialize()"));
}

} // namespace
