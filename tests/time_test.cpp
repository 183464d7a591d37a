// Deadlines and spans: the never value, exact expiry, carrying milliseconds,
// the time left for select, and the guards of the relative difference.
#include "fixture.h"

namespace {

using TimeTest = LibraryTest;

struct Timeouts {
    TIME_TIMEOUT *deadline = nullptr, *reference = nullptr;
    TIME_OFFSET *span = nullptr;
    Timeouts() {
        TimeCreateTimeout(&deadline);
        TimeCreateTimeout(&reference);
        TimeCreateOffset(&span, 0, 0);
    }
    ~Timeouts() {
        ObjReleaseInternal(&deadline);
        ObjReleaseInternal(&reference);
        ObjReleaseInternal(&span);
    }
};

TEST_F(TimeTest, NeverAndImmediate) {
    Timeouts t;
    EXPECT_TRUE(TimeTimeoutIsNever(t.deadline));
    EXPECT_TRUE(TimeTimeoutIsNever(nullptr));
    EXPECT_FALSE(TimeTimeoutHasExpired(t.deadline));
    EXPECT_FALSE(TimeTimeoutHasExpired(nullptr));

    // Lowering: never gives way to anything, and never takes nothing away.
    TimeSetTimeout(t.reference, 500);
    ASSERT_TRUE(TimeSetTimeoutIfLower(t.deadline, t.reference));
    EXPECT_EQ(t.deadline->iSeconds, 500);
    TimeSetTimeoutNever(t.reference);
    ASSERT_TRUE(TimeSetTimeoutIfLower(t.deadline, t.reference));
    EXPECT_EQ(t.deadline->iSeconds, 500);
    TimeSetTimeout(t.reference, 600);
    TimeSetTimeoutIfLower(t.deadline, t.reference);
    EXPECT_EQ(t.deadline->iSeconds, 500);
    EXPECT_FALSE(TimeSetTimeoutIfLower(t.deadline, nullptr));

    TimeSetTimeoutImmediate(t.deadline);
    EXPECT_TRUE(TimeTimeoutHasExpired(t.deadline));
    EXPECT_EQ(TimeTimeoutLeft(t.deadline), 0);
    timeval tv{7, 7};
    ASSERT_TRUE(TimeSetTimeval(&tv, t.deadline));
    EXPECT_EQ(tv.tv_sec, 0);
    EXPECT_EQ(tv.tv_usec, 0);
}

TEST_F(TimeTest, ArithmeticCarriesAndExpiryIsExact) {
    Timeouts t;
    t.reference->iSeconds = 10;
    t.reference->iMilliseconds = 999;
    TimeSetOffset(t.span, 0, 2);
    ASSERT_TRUE(TimeSetTimeoutRelative(t.deadline, t.reference, t.span));
    EXPECT_EQ(t.deadline->iSeconds, 11);
    EXPECT_EQ(t.deadline->iMilliseconds, 1);

    EXPECT_FALSE(TimeTimeoutHasExpiredRelative(t.deadline, t.reference));
    EXPECT_EQ(TimeTimeoutLeftRelative(t.deadline, t.reference), 2);
    timeval tv{};
    ASSERT_TRUE(TimeSetTimevalRelative(&tv, t.deadline, t.reference));
    EXPECT_EQ(tv.tv_sec, 0); // one second less, borrowed into the microseconds
    EXPECT_EQ(tv.tv_usec, 2000);
    TimeTimeoutCopy(t.reference, t.deadline);
    EXPECT_TRUE(TimeTimeoutHasExpiredRelative(t.deadline, t.reference)); // reached exactly
    EXPECT_EQ(TimeTimeoutLeftRelative(t.deadline, t.reference), 0);

    // A deadline from now plus a span expires after it, not before.
    TimeSetOffset(t.span, 0, 80);
    ASSERT_TRUE(TimeSetTimeoutFromOffset(t.deadline, t.span));
    EXPECT_FALSE(TimeTimeoutHasExpired(t.deadline));
    const int32_t left = TimeTimeoutLeft(t.deadline);
    EXPECT_GT(left, 0);
    EXPECT_LE(left, 80);
    usleep(100 * 1000);
    EXPECT_TRUE(TimeTimeoutHasExpired(t.deadline));

    TIME_TIMEOUT *later = nullptr;
    ASSERT_TRUE(TimeCreateAndSetTimeout(&later, 2, 0));
    TIME_TIMEOUT *copy = nullptr;
    ASSERT_TRUE(TimeTimeoutClone(&copy, later));
    TimeSetTimeoutNow(t.reference);
    EXPECT_GE(TimeTimeoutLeftRelative(copy, t.reference), 1900);
    const int64_t milliseconds = TimeNowAsInt64();
    EXPECT_LE(std::llabs(milliseconds / 1000 - TimeNow()), 1);
    ObjReleaseInternal(&later);
    ObjReleaseInternal(&copy);
}

TEST_F(TimeTest, GuardsAndTraces) {
    Timeouts t;
    EXPECT_EQ(TimeTimeoutLeft(nullptr), -1);
    EXPECT_EQ(TimeTimeoutLeftRelative(nullptr, t.reference), -1);
    EXPECT_TRUE(traced("TIME", 4, "Timeout -1 - invalid timeout pointer"));
    TimeSetTimeout(t.deadline, 2147483000);
    TimeSetTimeout(t.reference, 100);
    EXPECT_EQ(TimeTimeoutLeftRelative(t.deadline, t.reference), -1);
    EXPECT_TRUE(traced("TIME", 3, "Timeout -1 - timeout difference: 2147483000 - 100"));
    EXPECT_FALSE(TimeSetOffset(nullptr, 1, 1));
    EXPECT_TRUE(traced("TIME", 1, "Cannot set offset of NULL TimeOffsetO"));
    EXPECT_FALSE(TimeSetTimeout(nullptr, 1));
    EXPECT_TRUE(traced("TIME", 2, "NULL timeout passed to TimeSetTimeout"));
    EXPECT_FALSE(TimeCreateTimeout(nullptr));
    EXPECT_FALSE(TimeTimeoutCopy(t.deadline, nullptr));
}

} // namespace
