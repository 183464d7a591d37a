// Timers and messages to self: events fire earliest first with both tie
// rules, follow the caller's timeout object, fire once; a packet to self
// keeps pointers whole, never leaves the process, and a timer message from
// a socket is dropped.
#include <chrono>
#include <vector>

#include "messages/msgtimer.h"
#include "msgchannel.h"
#include "msgself.h"
#include "net_support.h"

namespace {

using Clock = std::chrono::steady_clock;

void routineA(void *) {}
void routineB(void *) {}

class TimerTest : public LibraryTest {
protected:
    void TearDown() override {
        for (MSG_MESSAGE *m : drain()) ObjReleaseInternal(&m);
        ListReleaseAll(static_cast<LIST *>(gtLmContext.oTimrEvents));
        for (void *object : held_) ObjReleaseInternal(&object);
        LibraryTest::TearDown();
    }
    // A timeout at now plus seconds, released at the end of the test.
    TIME_TIMEOUT *at(int32_t seconds, int32_t milliseconds = 0) {
        TIME_TIMEOUT *t = nullptr;
        EXPECT_TRUE(TimeCreateAndSetTimeout(&t, seconds, milliseconds));
        held_.push_back(t);
        return t;
    }
    // The queued messages, taken off the receive list in order.
    static std::vector<MSG_MESSAGE *> drain() {
        std::vector<MSG_MESSAGE *> messages;
        MSG_PACKET *packet = nullptr;
        while (MsgReceivePopPacket(&packet)) {
            MSG_MESSAGE *m = nullptr;
            EXPECT_TRUE(MsgMessageFromPacket(&m, packet));
            ObjReleaseInternal(&packet);
            messages.push_back(m);
        }
        return messages;
    }
    // The cookies of the timer messages queued, in order; the rest dropped.
    static std::vector<intptr_t> fired() {
        std::vector<intptr_t> cookies;
        for (MSG_MESSAGE *m : drain()) {
            if (m->iType == TIMER_CALLBACK_MSG && ObjCheckTypeInternal(m->oObject, TIMER_CALLBACK_MAGIC))
                cookies.push_back(reinterpret_cast<intptr_t>(static_cast<TIMER_CALLBACK *>(m->oObject)->pCookie));
            ObjReleaseInternal(&m);
        }
        return cookies;
    }
    static void *cookie(intptr_t n) { return reinterpret_cast<void *>(n); }

private:
    std::vector<void *> held_;
};

// Moments in the past in every order of setting come out earliest first;
// a future event stays and is the next event.
TEST_F(TimerTest, FireEarliestFirstWhateverTheOrderOfSetting) {
    const std::vector<std::vector<int>> orders{{0, 1, 2}, {2, 1, 0}, {1, 0, 2}, {2, 0, 1}, {1, 2, 0}};
    for (const auto &order : orders) {
        TIME_TIMEOUT *future = at(3600);
        ASSERT_TRUE(TimrSetAlarm(routineA, cookie(99), future));
        for (const int n : order) ASSERT_TRUE(TimrSetAlarm(routineA, cookie(n + 1), at(-30 + 10 * n)));
        TimrClearTimers();
        EXPECT_EQ(fired(), (std::vector<intptr_t>{1, 2, 3})) << order[0] << order[1] << order[2];
        const TIME_TIMEOUT *next = TimrNextEvent();
        EXPECT_TRUE(next->iSeconds == future->iSeconds && next->iMilliseconds == future->iMilliseconds);
        ASSERT_TRUE(TimrResetAlarm(routineA, cookie(99)));
        EXPECT_TRUE(TimeTimeoutIsNever(TimrNextEvent()));
    }
}

// Equal moments: one that ties with the earliest goes behind it and fires
// first; one that ties with a later event goes in front of it and fires
// after it.
TEST_F(TimerTest, BothTieRules) {
    struct Case {
        std::vector<std::pair<int, int>> set; // (cookie, seconds from now)
        std::vector<intptr_t> fires;
    };
    const Case cases[] = {
        {{{1, -10}, {2, -10}}, {2, 1}},
        {{{1, -20}, {2, -10}, {3, -10}}, {1, 2, 3}},
        {{{1, -20}, {2, -10}, {3, -5}, {4, -10}}, {1, 2, 4, 3}},
        {{{1, -10}, {2, -20}, {3, -20}, {4, -10}}, {3, 2, 1, 4}},
    };
    for (const Case &c : cases) {
        TIME_TIMEOUT *base = at(0);
        for (const auto &[n, seconds] : c.set) {
            TIME_TIMEOUT *t = at(0);
            t->iSeconds = base->iSeconds + seconds;
            t->iMilliseconds = base->iMilliseconds;
            ASSERT_TRUE(TimrSetAlarm(routineA, cookie(n), t));
        }
        TimrClearTimers();
        EXPECT_EQ(fired(), c.fires);
    }
}

// The event reads the caller's object: moved into the past it fires, moved
// into the future it waits; its place in the list stays.
TEST_F(TimerTest, EventFollowsTheCallersTimeout) {
    TIME_TIMEOUT *later = at(3600), *sooner = at(-5);
    ASSERT_TRUE(TimrSetAlarm(routineA, cookie(1), later));
    ASSERT_TRUE(TimrSetAlarm(routineA, cookie(2), sooner));
    TimeSetTimeout(sooner, static_cast<int32_t>(TimeNow()) + 1800);
    TimrClearTimers();
    EXPECT_TRUE(fired().empty());
    EXPECT_EQ(TimrNextEvent()->iSeconds, sooner->iSeconds);
    TimeSetTimeout(sooner, 1);
    TimeSetTimeout(later, 2);
    TimrClearTimers();
    EXPECT_EQ(fired(), (std::vector<intptr_t>{2, 1}));
    EXPECT_EQ(fh::refCount(later), 1) << "the event let go of the caller's object";
}

// Reset counts from the latest; after expiry it finds nothing and the
// queued message stays, so the routine still runs once.
TEST_F(TimerTest, ResetCountsFromTheLatestAndMissesAnExpiredTimer) {
    TIME_TIMEOUT *early = at(-1), *late = at(3600);
    ASSERT_TRUE(TimrSetAlarm(routineA, cookie(7), early));
    ASSERT_TRUE(TimrSetAlarm(routineA, cookie(7), late));
    ASSERT_TRUE(TimrSetAlarm(routineB, cookie(7), at(7200)));
    EXPECT_FALSE(TimrResetAlarm(routineB, cookie(8)));
    ASSERT_TRUE(TimrResetAlarm(routineA, cookie(7)));
    EXPECT_EQ(TimrNextEvent()->iSeconds, early->iSeconds) << "the latest of the pair went";
    TimrClearTimers();
    EXPECT_EQ(MsgReceiveCount(), 1);
    EXPECT_FALSE(TimrResetAlarm(routineA, cookie(7)));
    EXPECT_EQ(MsgReceiveCount(), 1);
    TimrClearTimers();
    EXPECT_EQ(fired(), (std::vector<intptr_t>{7})) << "fires once";
    char text[80];
    snprintf(text, sizeof text, "FALSE = TimrResetAlarm(%p, %p)", reinterpret_cast<void *>(routineA), cookie(7));
    EXPECT_TRUE(traced("TIMER", 3, text));
}

// What is refused: a never timeout (no moment to sort by), objects of the
// wrong type; a relative alarm makes a timeout of its own.
TEST_F(TimerTest, RefusalsAndTheNeverValue) {
    EXPECT_TRUE(TimeTimeoutIsNever(TimrNextEvent()));
    TIME_TIMEOUT *never = nullptr;
    ASSERT_TRUE(TimeCreateTimeout(&never));
    TIME_OFFSET *offset = nullptr;
    ASSERT_TRUE(TimeCreateOffset(&offset, 0, -50));
    EXPECT_FALSE(TimrSetAlarm(routineA, cookie(1), never));
    EXPECT_FALSE(TimrSetAlarm(routineA, cookie(1), reinterpret_cast<TIME_TIMEOUT *>(offset)));
    EXPECT_FALSE(TimrSetAlarmRelative(routineA, cookie(1), reinterpret_cast<TIME_OFFSET *>(never)));
    EXPECT_TRUE(TimeTimeoutIsNever(TimrNextEvent()));
    EXPECT_EQ(fh::refCount(never), 1);
    ASSERT_TRUE(TimrSetAlarmRelative(routineA, cookie(2), offset));
    TimrClearTimers();
    EXPECT_EQ(fired(), (std::vector<intptr_t>{2}));
    ObjReleaseInternal(&never);
    ObjReleaseInternal(&offset);
}

// A routine and a cookie above 4 GiB come back whole through a packet to
// self, and again after the message goes back onto the list as a packet.
TEST_F(TimerTest, PointersAbove4GiBComeBackWhole) {
    if (sizeof(void *) < 8) GTEST_SKIP() << "pointers are 32 bits wide here";
    TIMER_CALLBACK *callback = static_cast<TIMER_CALLBACK *>(ObjTemplateNewInstanceFromPool(gtObjTemplateTimerCallback, nullptr));
    const auto high = static_cast<uintptr_t>(0x7654321089ABCDEFull);
    callback->pfnRoutine = reinterpret_cast<TIMER_ROUTINE>(high);
    callback->pCookie = reinterpret_cast<void *>(high + 1);
    ASSERT_TRUE(MsgSendObjectToSelf(TIMER_CALLBACK_MSG, callback));
    ObjReleaseInternal(&callback);
    MSG_PACKET *packet = nullptr;
    ASSERT_TRUE(MsgReceivePopPacket(&packet));
    EXPECT_TRUE(fh::msgPacketIsSelf(packet));
    for (int round = 0; round < 2; ++round) {
        MSG_MESSAGE *m = nullptr;
        ASSERT_TRUE(MsgMessageFromPacket(&m, packet));
        ObjReleaseInternal(&packet);
        const auto *body = static_cast<const TIMER_CALLBACK *>(m->oObject);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(body->pfnRoutine), high);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(body->pCookie), high + 1);
        EXPECT_TRUE(MsgAddressEqual(m->oSource, MsgLocalAddress()) && MsgAddressEqual(m->oDestination, MsgLocalAddress()));
        ASSERT_TRUE(fh::msgPacketFromMessage(&packet, m));
        EXPECT_TRUE(fh::msgPacketIsSelf(packet));
        ObjReleaseInternal(&m);
    }
    ObjReleaseInternal(&packet);
}

// MsgSendToSelf keeps the message's own source; a message made here is not
// marked, and its packet is the ordinary image.
TEST_F(TimerTest, SendToSelfKeepsTheSource) {
    MSG_ADDRESS *source = nullptr;
    ASSERT_TRUE(MsgMakeAddress(&source, nullptr, 42));
    MSG_MESSAGE *message = nullptr;
    OBJ_STRING *body = ObjStringNew("body");
    ASSERT_TRUE(MsgCreate(&message, MsgLocalAddress(), 5000, body));
    EXPECT_FALSE(fh::msgMessageIsSelf(message));
    ObjReleaseInternal(&message->oSource);
    message->oSource = source;
    ASSERT_TRUE(MsgSendToSelf(message));
    std::vector<MSG_MESSAGE *> got = drain();
    ASSERT_EQ(got.size(), 1u);
    EXPECT_TRUE(fh::msgMessageIsSelf(got[0]));
    EXPECT_EQ(MsgGetChannelId(got[0]->oSource), 42);
    EXPECT_TRUE(MsgAddressEqual(got[0]->oDestination, MsgLocalAddress()));
    EXPECT_STREQ(ObjGetString(got[0]->oObject), "body");
    MSG_PACKET *plain = nullptr;
    ASSERT_TRUE(fh::msgPacketFromMessage(&plain, message));
    EXPECT_FALSE(fh::msgPacketIsSelf(plain));
    for (void *object : {(void *)got[0], (void *)message, (void *)body, (void *)plain}) ObjReleaseInternal(&object);
}

// A packet made for self is never sent out: MsgDispatch takes it, refuses
// it, and queues nothing, even where it would go to a channel.
TEST_F(TimerTest, DispatchRefusesAPacketToSelf) {
    ASSERT_TRUE(MsgSendObjectToSelf(TIMER_CALLBACK_MSG, nullptr));
    MSG_PACKET *packet = nullptr;
    ASSERT_TRUE(MsgReceivePopPacket(&packet));
    const int32_t objects = ObjCount();
    EXPECT_FALSE(MsgDispatch(&packet));
    EXPECT_EQ(packet, nullptr);
    EXPECT_EQ(ObjCount(), objects - 1);
    EXPECT_EQ(MsgReceiveCount(), 0) << "no lost-send notice either";
    EXPECT_TRUE(traced("MESSAGE", 161, "Refused to send out a message 41001 the process made for itself"));
}

// A timer message read from a data channel is dropped before delivery;
// the channel goes on and the message behind it arrives.
TEST_F(TimerTest, TimerMessageFromAChannelIsDropped) {
    gtLmContext.bMsgIpcConnected = TRUE;
    nettest::Connection c;
    ASSERT_TRUE(c.connect());
    MSG_CHANNEL *near = nullptr, *far = nullptr;
    ASSERT_TRUE(MsgChannelCreateInternal(&near, c.server, MsgLocalAddress(), FALSE, TRUE, FALSE, FALSE, FALSE));
    ASSERT_TRUE(MsgChannelCreateInternal(&far, c.client, MsgLocalAddress(), FALSE, TRUE, FALSE, FALSE, FALSE));
    c.server = c.client = -1;
    for (const int32_t type : {static_cast<int32_t>(TIMER_CALLBACK_MSG), int32_t{5000}}) {
        MSG_PACKET *packet = nullptr;
        ASSERT_TRUE(MsgCreatePacket(&packet, near->oAddress, MsgLocalAddress(), type, nullptr));
        ASSERT_TRUE(MsgChannelDispatch(far, &packet));
    }
    for (const auto until = Clock::now() + std::chrono::seconds(5); MsgReceiveCount() == 0 && Clock::now() < until;)
        fh::msgSelectPass(20);
    std::vector<MSG_MESSAGE *> got = drain();
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0]->iType, 5000);
    char text[80];
    snprintf(text, sizeof text, "Dropped a timer message read from channel %d socket %d", MsgGetChannelId(near->oAddress),
             MsgChannelSocket(near));
    EXPECT_TRUE(traced("MESSAGE", 162, text));
    for (void *object : {(void *)got[0], (void *)near, (void *)far}) ObjReleaseInternal(&object);
    MsgReleaseThread(&gtLmContext);
    MsgInitializeThread();
}

} // namespace
