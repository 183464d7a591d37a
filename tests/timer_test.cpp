// Timers and messages to self: events fire earliest first with both tie
// rules, follow the caller's timeout object and fire once; a packet to self
// keeps pointers whole and never leaves the process.
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <utility>
#include <vector>

#include "messages/msgtimer.h"
#include "msgself.h"
#include "fixture.h"

namespace {

void routineA(void *) {}
void routineB(void *) {}
void *cookie(intptr_t n) { return reinterpret_cast<void *>(n); }

class TimerTest : public LibraryTest {
protected:
    void TearDown() override {
        fired();
        ListReleaseAll(static_cast<LIST *>(gtLmContext.oTimrEvents));
        for (void *object : held_) ObjReleaseInternal(&object);
        MsgReleaseThread(&gtLmContext); // and the poll set of a pass
        MsgInitializeThread();
        LibraryTest::TearDown();
    }
    // A timeout at a whole second from the start of the test, held to its end.
    TIME_TIMEOUT *at(int32_t seconds) {
        TIME_TIMEOUT *t = nullptr;
        EXPECT_TRUE(TimeCreateTimeout(&t) && TimeSetTimeout(t, start_ + seconds));
        return static_cast<TIME_TIMEOUT *>(held_.emplace_back(t));
    }
    // Empties the receive list: the cookies of its timer messages, in order.
    static std::vector<intptr_t> fired() {
        std::vector<intptr_t> cookies;
        for (MSG_PACKET *packet = nullptr; MsgReceivePopPacket(&packet); ObjReleaseInternal(&packet)) {
            void *body = nullptr;
            const bool timer = MsgObjectFromPacketInternal(&body, packet, TIMER_CALLBACK_MAGIC);
            cookies.push_back(timer ? reinterpret_cast<intptr_t>(static_cast<TIMER_CALLBACK *>(body)->pCookie) : -1);
            ObjReleaseInternal(&body);
        }
        return cookies;
    }

private:
    const int32_t start_ = static_cast<int32_t>(TimeNow());
    std::vector<void *> held_;
};

// Events set in any order fire earliest first. Of equal moments, one that
// ties with the earliest goes behind it and fires first; one that ties with
// a later event goes in front of it and fires after it.
TEST_F(TimerTest, FireOrderAndTieRules) {
    const std::pair<std::vector<std::pair<int, int>>, std::vector<intptr_t>> cases[] = {
        {{{3, -10}, {2, -20}, {1, -30}}, {1, 2, 3}}, {{{2, -20}, {3, -10}, {1, -30}}, {1, 2, 3}}, {{{1, -10}, {2, -10}}, {2, 1}},
        {{{1, -20}, {2, -10}, {3, -5}, {4, -10}}, {1, 2, 4, 3}}, {{{1, -10}, {2, -20}, {3, -20}, {4, -10}}, {3, 2, 1, 4}},
    };
    for (const auto &[set, fires] : cases) {
        for (const auto &[n, seconds] : set) ASSERT_TRUE(TimrSetAlarm(routineA, cookie(n), at(seconds)));
        TimrClearTimers();
        EXPECT_EQ(fired(), fires);
    }
}

// The event reads the caller's object at each sweep but keeps its place;
// reset counts from the latest; an expired timer can't be reset and fires
// once; never is refused.
TEST_F(TimerTest, FollowCallersTimeoutResetAndNever) {
    TIME_TIMEOUT *later = at(3600), *sooner = at(1800), *never = at(0);
    TimeSetTimeoutNever(never);
    EXPECT_FALSE(TimrSetAlarm(routineA, cookie(9), never));
    ASSERT_TRUE(TimrSetAlarm(routineA, cookie(1), later));
    ASSERT_TRUE(TimrSetAlarm(routineA, cookie(2), sooner));
    ASSERT_TRUE(TimrSetAlarm(routineB, cookie(3), at(-1)));
    ASSERT_TRUE(TimrSetAlarm(routineB, cookie(3), at(7200)));
    TimeSetTimeout(later, 2); // now earlier than sooner, but set in front of it
    ASSERT_TRUE(TimrResetAlarm(routineB, cookie(3)));
    TimrClearTimers();
    EXPECT_EQ(MsgReceiveCount(), 1) << "the earlier of the pair stayed and fired";
    EXPECT_EQ(TimrNextEvent()->iSeconds, sooner->iSeconds) << "checked in the place it was set";
    EXPECT_FALSE(TimrResetAlarm(routineB, cookie(3)));
    TimeSetTimeout(sooner, 1);
    TimrClearTimers();
    EXPECT_EQ(fired(), (std::vector<intptr_t>{3, 2, 1}));
    EXPECT_TRUE(TimeTimeoutIsNever(TimrNextEvent()));
    // A timer whose message can't be queued goes, and says so.
    ASSERT_TRUE(TimrSetAlarm(routineA, cookie(4), at(-1)));
    void *local = std::exchange(gtLmContext.oMsgLocalAddress, nullptr);
    TimrClearTimers();
    gtLmContext.oMsgLocalAddress = local;
    EXPECT_TRUE(MsgReceiveCount() == 0 && TimeTimeoutIsNever(TimrNextEvent()));
    char text[128];
    snprintf(text, sizeof text, "Lost timer (%p, %p): its message could not be queued",
             reinterpret_cast<void *>(routineA), cookie(4));
    EXPECT_TRUE(traced("TIMER", 7, text));
}

// A timer due in 50 ms wakes a receive that waits on idle sockets with a
// limit of a minute: the timer message comes within milliseconds.
TEST_F(TimerTest, DueTimerWakesBlockedReceive) {
    int idle[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, idle), 0);
    ASSERT_TRUE(MsgAddReadSelect(idle[0]));
    TIME_OFFSET *soon = nullptr;
    ASSERT_TRUE(TimeCreateOffset(&soon, 0, 50) && TimrSetAlarmRelative(routineA, cookie(5), soon));
    ObjReleaseInternal(&soon);
    TIME_TIMEOUT minute{};
    const TIME_OFFSET span{60, 0};
    TimeSetTimeoutFromOffset(&minute, &span);
    const auto start = std::chrono::steady_clock::now();
    MSG_MESSAGE *m = nullptr;
    for (int pass = 0; pass < 100 && !MsgReceive(&m, &minute); ++pass) {}
    const auto waited =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count();
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(m->iType, TIMER_CALLBACK_MSG);
    EXPECT_TRUE(waited >= 40 && waited < 1000) << waited << " ms";
    ObjReleaseInternal(&m);
    MsgRemoveReadSelect(idle[0]);
    close(idle[0]);
    close(idle[1]);
}

// A routine and a cookie above 4 GiB come back whole through a packet to
// self, after the message goes back to a packet, and in either copy of the
// packet; such a packet is never sent out, and queues no lost-send notice.
// Its bytes as a body from elsewhere are refused while they carry the mark.
TEST_F(TimerTest, PacketsToSelfKeepPointersAndStayHome) {
    if (sizeof(void *) < 8) GTEST_SKIP() << "pointers are 32 bits wide here";
    auto *callback = static_cast<TIMER_CALLBACK *>(ObjTemplateNewInstanceFromPool(gtObjTemplateTimerCallback, nullptr));
    const auto high = static_cast<uintptr_t>(0x7654321089ABCDEFull);
    callback->pfnRoutine = reinterpret_cast<TIMER_ROUTINE>(high);
    callback->pCookie = reinterpret_cast<void *>(high + 1);
    ASSERT_TRUE(MsgSendObjectToSelf(TIMER_CALLBACK_MSG, callback));
    ObjReleaseInternal(&callback);
    MSG_PACKET *packet = nullptr;
    ASSERT_TRUE(MsgReceivePopPacket(&packet));
    using Next = BOOL (*)(void **, MSG_PACKET *, MSG_MESSAGE *);
    const Next nexts[] = {
        [](void **next, MSG_PACKET *, MSG_MESSAGE *m) -> BOOL {
            return fh::msgPacketFromMessage(reinterpret_cast<MSG_PACKET **>(next), m);
        },
        [](void **next, MSG_PACKET *p, MSG_MESSAGE *) { return ObjDuplicate(next, p); },
        [](void **next, MSG_PACKET *p, MSG_MESSAGE *) { return ObjDuplicateInternal(next, p, FALSE); },
        nullptr,
    };
    for (const Next next : nexts) {
        MSG_MESSAGE *m = nullptr;
        ASSERT_TRUE(fh::msgPacketIsSelf(packet) && MsgMessageFromPacket(&m, packet));
        const auto *body = static_cast<const TIMER_CALLBACK *>(m->oObject);
        EXPECT_TRUE(reinterpret_cast<uintptr_t>(body->pfnRoutine) == high && body->pCookie == cookie(high + 1));
        void *made = nullptr;
        if (next != nullptr) {
            ASSERT_TRUE(next(&made, packet, m));
            ObjReleaseInternal(&packet);
            packet = static_cast<MSG_PACKET *>(made);
        }
        ObjReleaseInternal(&m);
    }
    for (const bool marked : {true, false}) {
        if (!marked) fh::msgClearMark(static_cast<unsigned char *>(packet->oImage.pData));
        ObjBufferDescriptor *wire = nullptr;
        int32_t length = 0;
        ObjBufferDescriptorCreate(&wire, nullptr, 0, 0);
        ASSERT_TRUE(ObjSerializeToBufferNoHead(&length, packet, wire));
        void *read = nullptr;
        EXPECT_EQ(ObjReconstructFromBytes(&read, wire->Buffer, length), !marked);
        ObjReleaseInternal(&read);
        ObjBufferDescriptorFree(&wire);
    }
    fh::msgMarkSelf(static_cast<unsigned char *>(packet->oImage.pData));
    EXPECT_FALSE(MsgDispatch(&packet));
    EXPECT_TRUE(packet == nullptr && MsgReceiveCount() == 0);
}

} // namespace
