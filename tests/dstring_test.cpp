// Dynamic strings: sizes after each operation, when the buffer moves and
// when it must not, and double-byte characters at the end.
#include "fixture.h"

#include <string>

namespace {

using DStringTest = LibraryTest;

std::string textOf(const OBJ_DSTRING *s) { return static_cast<const char *>(s->oText.pData); }

TEST_F(DStringTest, GrowthAndSizes) {
    OBJ_DSTRING *s = ObjDStringNew(nullptr);
    EXPECT_EQ(DStringBytesUsed(s), 1);
    EXPECT_EQ(s->oText.iSize, 2);
    EXPECT_TRUE(traced("STRDYNAM", 1, "Creating new dstring ''"));
    char *buffer = DStringAppendSized(s, "a", 1); // exactly up to the capacity: no move
    EXPECT_EQ(buffer, s->oText.pData);
    EXPECT_EQ(DStringAppendSized(s, "xyz", 0), buffer);
    char *moved = DStringAppendSized(s, "bc", 2);
    EXPECT_EQ(s->oText.iSize, 8); // twice the size then needed
    EXPECT_EQ(textOf(s), "abc");
    EXPECT_EQ(moved, s->oText.pData);
    DStringAppendInteger(s, -42);
    DStringAppendInt64(s, int64_t{1} << 40);
    EXPECT_EQ(textOf(s), "abc-421099511627776");
    DStringAppendCharNTimes(s, ',', 0);
    DStringAppendCharNTimes(s, 0x8141, 2);
    EXPECT_EQ(textOf(s), "abc-421099511627776\x81\x41\x81\x41");
    EXPECT_EQ(DStringBytesUsed(s), 24);
    // Its own text appended while it moves: the bytes are read before the old buffer goes.
    DStringAppendSized(s, s->oText.pData, DStringBytesUsed(s) - 1);
    EXPECT_EQ(textOf(s), "abc-421099511627776\x81\x41\x81\x41"
                         "abc-421099511627776\x81\x41\x81\x41");
    ObjReleaseInternal(&s);

    s = ObjDStringNewSized("ab", 1000);
    EXPECT_EQ(s->oText.iSize, 1000);
    EXPECT_EQ(DStringBytesUsed(s), 3);
    void *before = s->oText.pData;
    const std::string digits(999, '7');
    DStringSetSized(s, digits.data(), 999); // one less than the capacity: stays
    EXPECT_EQ(s->oText.pData, before);
    EXPECT_EQ(DStringBytesUsed(s), 1000);
    DStringSetSized(s, s->oText.pData, 1000); // its own whole buffer, and moved
    EXPECT_EQ(s->oText.iSize, 2002);
    EXPECT_EQ(textOf(s).substr(0, 3), "777");
    DStringSetSized(s, nullptr, 5);
    EXPECT_EQ(textOf(s), "");
    ObjReleaseInternal(&s);
}

TEST_F(DStringTest, LastCharacter) {
    OBJ_DSTRING *s = ObjDStringNew("a");
    DStringAppendCharNTimes(s, 0x8141, 1);
    EXPECT_EQ(DStringLastChar(s), 0x8141);
    EXPECT_EQ(DStringDeleteLastChar(s), 0);
    EXPECT_EQ(textOf(s), "a");
    EXPECT_EQ(DStringBytesUsed(s), 2);
    EXPECT_EQ(DStringLastChar(s), 'a');
    DStringDeleteLastChar(s);
    DStringDeleteLastChar(s); // nothing left: no change
    EXPECT_EQ(DStringBytesUsed(s), 1);
    EXPECT_EQ(DStringLastChar(s), 0);
    ObjReleaseInternal(&s);
}

} // namespace
