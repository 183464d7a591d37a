// Value lists as text and back, sorted insertion, clock text and skipping.
#include "helpers.h"

#include <string>
#include <vector>

namespace {

using namespace testhelp;

using StrWrapTest = LibraryTest;

std::vector<std::string> texts(const LIST *list) {
    std::vector<std::string> out;
    for (const LISTNODE *node = list->oFirst; node != nullptr; node = node->oNext) {
        const char *text = ObjGetString(node->oItem);
        out.push_back(text != nullptr ? text : "(none)");
    }
    return out;
}

TEST_F(StrWrapTest, ListsJoinIntoOneLine) {
    LIST *list = ListNewFromPool(0, nullptr);
    char *out = nullptr;
    EXPECT_FALSE(StrFromStrList(&out, list)); // no text is not an empty string
    EXPECT_EQ(out, nullptr);
    for (void *item : {static_cast<void *>(ObjStringNew("a")), static_cast<void *>(ObjIntegerNew(0x01020304)),
                       static_cast<void *>(ObjStringNew(nullptr)), static_cast<void *>(ObjStringNew("b")),
                       static_cast<void *>(ObjIntegerNew(-5))})
        ListPushLastItemInternal(list, &item);
    ASSERT_TRUE(StrFromStrList(&out, list));
    EXPECT_EQ(taken(out), "a, b");
    ASSERT_TRUE(StrFromStrListWithDelimiter(&out, list, ":"));
    EXPECT_EQ(taken(out), "a:b");
    ASSERT_TRUE(StrFromValueList(&out, list));
    EXPECT_EQ(taken(out), "16909060, -5");
    ASSERT_TRUE(StrFromIpList(&out, list));
    EXPECT_EQ(taken(out).substr(0, 9), "1.2.3.4, ");
    EXPECT_FALSE(StrFromStrListWithDelimiter(&out, list, nullptr));
    EXPECT_TRUE(traced("STRWRAP", 1, "Invalid argument to StrFromStrListWithDelimiter"));
    ObjReleaseInternal(&list);
}

TEST_F(StrWrapTest, LinesSplitIntoItems) {
    const struct {
        const char *line;
        std::vector<std::string> items;
    } cases[] = {
        {"", {}}, {nullptr, {}}, {" a , b c ,", {"a", "b c", "(none)"}}, {"a,", {"a", "(none)"}},
        {",", {"(none)", "(none)"}}, {"\t x\t", {"x"}},
        {"\x81,\x81 ,y", {"\x81,\x81 ", "y"}}, // trail bytes that look like a comma and a blank
    };
    for (const auto &c : cases) {
        LIST *list = nullptr;
        ASSERT_TRUE(StrValueListFromString(&list, c.line));
        EXPECT_EQ(texts(list), c.items) << (c.line != nullptr ? c.line : "(null)");
        ObjReleaseInternal(&list);
    }
    EXPECT_FALSE(StrValueListFromString(nullptr, "a"));
}

TEST_F(StrWrapTest, InsertionKeepsCaselessOrder) {
    LIST *list = ListNewFromPool(0, nullptr);
    for (const char *text : {"C", "a", "b", "B", "d"}) ASSERT_TRUE(StrInsertInList(list, text));
    EXPECT_EQ(texts(list), (std::vector<std::string>{"a", "b", "B", "C", "d"}));
    EXPECT_FALSE(StrInsertInList(list, nullptr));
    EXPECT_FALSE(StrInsertInList(nullptr, "x"));
    EXPECT_TRUE(traced("STRWRAP", 2, "StrInsertInList((nil),'x') - bad params"));
    ObjReleaseInternal(&list);

    EXPECT_EQ(taken(StrFromInt64Time(3723999)), "01:02:03");
    EXPECT_EQ(taken(StrFromInt64Time(360000000)), "100:00:00");
}

TEST_F(StrWrapTest, SkippingBlanksAndTokens) {
    const char text[] = "  a\r\n\t b_c9 \x81 ";
    EXPECT_EQ(StrSkipWhiteSpaceF(text), text + 2);
    EXPECT_EQ(StrSkipWhiteSpaceF(text + 2), text + 2);
    EXPECT_EQ(StrSkipWhiteSpaceF(text + 3), text + 3); // a carriage return is not white space here
    EXPECT_EQ(StrSkipWhiteSpaceEOLF(text + 3), text + 7);
    EXPECT_EQ(StrSkipTokenF(text + 7), text + 8);
    EXPECT_EQ(StrGetTokenCharCount(text + 9), 2);
    EXPECT_TRUE(traced("STRPARSE", 1, "Token char count = '2'"));
    EXPECT_EQ(StrSkipWhiteSpaceB(text + 6), text + 4);
    EXPECT_EQ(StrSkipWhiteSpaceEOLB(text + 6), text + 2);
    EXPECT_EQ(StrSkipTokenF(text + 12), text + 12); // a double-byte character is no token
    EXPECT_EQ(StrSkipWhiteSpaceF(text + sizeof text - 1), text + sizeof text - 1);
}

} // namespace
