// The message wait: handler order and removal during a run, the default
// handlers row by row, nesting with held messages put back in order, the
// ends of a wait with a source, the poll, the callback wait and the
// exclusive wait. Messages come from the process itself, and for a ping
// from another process through a real communication manager.

#include <string>
#include <vector>

#include "daemon.h"
#include "fixture.h"
#include "helpers.h"
#include "messages/msgcmgr.h"
#include "messages/msgmsg.h"
#include "messages/msgpmgr.h"
#include "messages/msgtimer.h"
#include "messages/msgtrace.h"
#include "net_support.h"
#include "seams.h"

namespace {

constexpr int32_t kA = 50001, kB = 50002, kC = 50003, kD = 50004;

std::vector<std::string> gCalls;
int32_t gResult = eMsgWaitResultHandled;

void queue(int32_t type, int32_t value = 0) {
    OBJ_INTEGER *body = ObjIntegerNew(value);
    MsgSendObjectToSelf(type, body);
    ObjReleaseInternal(&body);
}
std::vector<int32_t> drain() {
    std::vector<int32_t> values;
    for (MSG_MESSAGE *m = nullptr; MsgPoll(&m); ObjReleaseInternal(&m))
        values.push_back(m->iType * 10 + (m->oObject != nullptr ? ObjGetInteger(m->oObject) : 0));
    return values;
}
using testhelp::In;
using testhelp::localAddress;
template <typename T> T *make(uint32_t magic, const char *format) { return testhelp::newObject<T>(magic, format); }

int32_t named(MSG_MESSAGE *m, void *cookie) {
    gCalls.push_back(std::string(ObjGetString(cookie)) + ":" + std::to_string(ObjGetInteger(m->oObject)));
    return gResult;
}
// Removes itself and adds itself again; the older handler then takes it.
int32_t readds(MSG_MESSAGE *m, void *cookie) {
    named(m, cookie);
    EXPECT_TRUE(MsgWaitRemoveHandler(kA, readds, cookie));
    EXPECT_TRUE(MsgWaitAddHandler(kA, readds, cookie));
    return eMsgWaitResultNotHandled;
}
// At depth 1: waits for kB while unrelated messages come, or for kC that
// never comes.
int32_t nestedWait(MSG_MESSAGE *m, void *) {
    gCalls.push_back("depth " + std::to_string(MsgWaitDepth()));
    MSG_MESSAGE *reply = nullptr;
    const bool got = MsgWaitMessageWithTimeout(&reply, nullptr, ObjGetInteger(m->oObject), In(50));
    gCalls.push_back(got ? "got " + std::to_string(ObjGetInteger(reply->oObject)) : "none");
    ObjReleaseInternal(&reply);
    return eMsgWaitResultHandled;
}

class MsgWaitTest : public LibraryTest {
protected:
    void SetUp() override {
        LibraryTest::SetUp();
        gCalls.clear();
    }
    void TearDown() override {
        drain();
        while (static_cast<LIST *>(gtLmContext.oMsgWaitHandlers)->iCount > 0)
            ListRemoveFirstItem(static_cast<LIST *>(gtLmContext.oMsgWaitHandlers));
        for (OBJ_STRING *s : held_) ObjReleaseInternal(&s);
        testhelp::resetMessaging(); // and the poll set of the passes
        LibraryTest::TearDown();
    }
    OBJ_STRING *name(const char *text) { return held_.emplace_back(ObjStringNew(text)); }
    std::vector<OBJ_STRING *> held_;
};

// The newest handler sees a message first; NotHandled passes it on. An
// entry removed and added again during the run is marked, the new one is
// not called in that run, and the marked one goes when the depth is 0.
TEST_F(MsgWaitTest, HandlerOrderAndRemovalDuringARun) {
    ASSERT_TRUE(MsgWaitAddHandler(kA, named, name("old")));
    ASSERT_TRUE(MsgWaitAddHandler(kA, readds, name("new")));
    queue(kA, 1);
    queue(kA, 2);
    queue(kC);
    EXPECT_TRUE(MsgWaitMessageWithTimeout(nullptr, nullptr, kC, In(1000)));
    EXPECT_EQ(gCalls, (std::vector<std::string>{"new:1", "old:1", "new:2", "old:2"}));
    EXPECT_EQ(static_cast<LIST *>(gtLmContext.oMsgWaitHandlers)->iCount, 2);
    EXPECT_EQ(MsgWaitDepth(), 0);
    MsgWaitRemoveHandlerByCookie(held_[1]);
    EXPECT_EQ(static_cast<LIST *>(gtLmContext.oMsgWaitHandlers)->iCount, 1);
    EXPECT_FALSE(MsgWaitRemoveHandler(kA, readds, held_[1]));
}

// A handler waits inside a wait: what it can't place is held and comes back
// in order, ahead of newer messages; at depth 0 it is dropped, traced once.
TEST_F(MsgWaitTest, NestedWaitsPutBackWhatTheyCannotPlace) {
    ASSERT_TRUE(MsgWaitAddHandler(kA, nestedWait, nullptr));
    for (const auto &[inner, got] : {std::pair{kB, "got 9"}, std::pair{kC, "none"}}) {
        gCalls.clear();
        queue(kA, inner);
        queue(kD, 1);
        queue(kD, 2);
        queue(kB, 9);
        EXPECT_TRUE(MsgWaitMessageWithTimeout(nullptr, nullptr, kD, In(1000)));
        EXPECT_EQ(gCalls, (std::vector<std::string>{"depth 1", got}));
        EXPECT_EQ(drain(), (inner == kB ? std::vector<int32_t>{(kD) * 10 + 2}
                                        : std::vector<int32_t>{(kD) * 10 + 2, kB * 10 + 9}));
    }
    queue(kB, 3);
    queue(kC);
    EXPECT_TRUE(MsgWaitMessageWithTimeout(nullptr, nullptr, kC, In(1000)));
    EXPECT_TRUE(traced("MSGWAIT", 10, "Message was not handled"));
    EXPECT_EQ(MsgReceiveCount(), 0);
    MsgWaitKeepUnhandledMessages();
    queue(kB, 4);
    queue(kC);
    EXPECT_TRUE(MsgWaitMessageWithTimeout(nullptr, nullptr, kC, In(1000)));
    EXPECT_EQ(drain(), std::vector<int32_t>{kB * 10 + 4});
    // An expired timeout receives nothing.
    const TIME_TIMEOUT past{1, 0};
    queue(kC);
    EXPECT_FALSE(MsgWaitMessageWithTimeout(nullptr, nullptr, kC, &past));
    EXPECT_EQ(MsgReceiveCount(), 1);
}

// A wait with a source ends on each piece of news that it is gone, and
// takes its type from that source only: the same type from another sender
// goes to the handlers.
TEST_F(MsgWaitTest, WaitWithASourceEndsWhenTheSourceIsGone) {
    MSG_ADDRESS *source = localAddress(ProcGetId()), *other = localAddress(78);
    auto died = [&](MSG_ADDRESS *who) {
        auto *body = make<PMGR_PROCESS_DIED>(PMGR_PROCESS_DIED_MAGIC, PMGR_PROCESS_DIED_FORMAT);
        ObjIncRefCount(body->oAddress = who);
        return body;
    };
    auto *down = make<CMGR_MACHINE_DOWN>(CMGR_MACHINE_DOWN_MAGIC, CMGR_MACHINE_DOWN_FORMAT);
    down->pszMachine = StrDuplicateIntoPool(SysLocalMachineName(), nullptr);
    auto *unreachable = make<CMGR_PROCESS_UNREACHABLE>(CMGR_PROCESS_UNREACHABLE_MAGIC, CMGR_PROCESS_UNREACHABLE_FORMAT);
    ObjIncRefCount(unreachable->oAddress = source);
    const struct {
        int32_t type;
        void *body;
        const char *traced; // null: the wait goes on to the wanted message
    } cases[] = {
        {PMGR_PROCESS_DIED_MSG, died(other), nullptr},
        {PMGR_PROCESS_DIED_MSG, died(source), "Desired source has died"},
        {CMGR_PROCESS_UNREACHABLE_MSG, unreachable, "Desired source can't be reached"},
        {CMGR_MACHINE_DOWN_MSG, down, "Machine running desired source has gone down"},
        {MSG_CHANNEL_DOWN_MSG, nullptr, "Desired source has gone down"},
        {kA, ObjIntegerNew(1), nullptr},
    };
    for (const auto &c : cases) {
        MSG_MESSAGE *news = nullptr, *got = nullptr;
        MsgCreate(&news, MsgLocalAddress(), c.type, c.body);
        if (c.type == kA) ObjReleaseInternal(&news->oSource), ObjIncRefCount(news->oSource = other);
        MsgSendToSelf(news);
        ObjReleaseInternal(&news);
        queue(kA, 2);
        EXPECT_EQ(MsgWaitMessageWithTimeout(&got, source, kA, In(1000)), c.traced == nullptr) << c.type;
        EXPECT_EQ(got != nullptr ? ObjGetInteger(got->oObject) : 0, c.traced == nullptr ? 2 : 0);
        if (c.traced != nullptr) {
            EXPECT_TRUE(traced("MSGWAIT", 5, c.traced));
        }
        ObjReleaseInternal(&got);
        ObjReleaseInternal(const_cast<void **>(&c.body));
        drain();
    }
    testhelp::release({source, other});
}

// What the default handlers did beyond the process, through the seam.
BOOL opened(MSG_ADDRESS **, const MSG_ADDRESS *peer, void *, void *, BOOL blocking, BOOL synchronous, BOOL waitOk) {
    gCalls.push_back("open " + std::to_string(peer->iProcess) + (blocking && !synchronous && waitOk ? " ok" : ""));
    return TRUE;
}
BOOL completed(MSG_ADDRESS **, const MSG_MESSAGE *m, BOOL blocking, BOOL synchronous, BOOL sendOk) {
    gCalls.push_back("complete " + std::to_string(m->iType) + (blocking && !synchronous && sendOk ? " ok" : ""));
    return TRUE;
}

// The default handlers, row by row, on bodies of the wrong shape too.
TEST_F(MsgWaitTest, DefaultHandlerRows) {
    const fh::MsgWaitActions stubs{opened, completed, [] { gCalls.push_back("end"); }};
    fh::msgWaitSetActions(&stubs);
    auto *unknown = make<MSG_UNKNOWN>(MSG_UNKNOWN_MAGIC, MSG_UNKNOWN_FORMAT);
    unknown->pszReason = StrDuplicateIntoPool("why", nullptr);
    auto taskReturn = [](BOOL taken) {
        auto *r = make<PMGR_GIVE_SERVICE_A_TASK_RETURN>(PMGR_GIVE_SERVICE_A_TASK_RETURN_MAGIC,
                                                       PMGR_GIVE_SERVICE_A_TASK_RETURN_FORMAT);
        r->bTaken = taken;
        r->iError = 9;
        return r;
    };
    auto task = [](int32_t connectNow, bool withAddress) {
        auto *t = make<PMGR_TASK_EXT>(PMGR_TASK_EXT_MAGIC, PMGR_TASK_EXT_FORMAT);
        t->iConnectNow = connectNow;
        if (withAddress) ObjIncRefCount(t->oConnectBackTo = MsgLocalAddress());
        return t;
    };
    const std::string none, end = "end", open = "open " + std::to_string(ProcGetId()) + " ok";
    const struct {
        int32_t type;
        void *body;
        int32_t result;
        const char *traced;
        std::string call; // what reached the seam
    } cases[] = {
        {MSG_LOST_RECEIVE_QUEUE_MSG, nullptr, eMsgWaitResultExit, "Fatal error on IPC connection, die", end},
        {PMGR_KILL_YOURSELF_MSG, nullptr, eMsgWaitResultExit, "Been asked to die", end},
        {MSG_UNKNOWN_MSG, unknown, eMsgWaitResultHandled, "Reason given: why", none},
        {PMGR_GIVE_SERVICE_A_TASK_RETURN_MSG, taskReturn(TRUE), eMsgWaitResultHandled, "Started process OK", none},
        {PMGR_GIVE_SERVICE_A_TASK_RETURN_MSG, taskReturn(FALSE), eMsgWaitResultError,
         "Process failed to start (error 9)", none},
        {PMGR_GIVE_SERVICE_A_TASK_RETURN_MSG, ObjIntegerNew(1), eMsgWaitResultError, "Invalid task reply message",
         none},
        {PMGR_TASK_MSG, task(1, true), eMsgWaitResultHandled, "Connecting to GUI", open},
        {PMGR_TASK_MSG, task(0, false), eMsgWaitResultNotHandled, nullptr, none},
        {PMGR_TASK_MSG, task(1, false), eMsgWaitResultNotHandled, "No valid task object", none},
        {PMGR_TASK_MSG, ObjIntegerNew(1), eMsgWaitResultNotHandled, "No valid task object", none},
        {MSG_PING_MSG, ObjIntegerNew(1), eMsgWaitResultHandled, nullptr, none},
        {MSG_CONNECT_MSG, nullptr, eMsgWaitResultHandled, nullptr, "complete " + std::to_string(MSG_CONNECT_MSG) + " ok"},
        {MSG_CONNECTED_MSG, nullptr, eMsgWaitResultHandled, "Point-to-point connection was completed", none},
        {TIMER_CALLBACK_MSG, ObjIntegerNew(1), eMsgWaitResultHandled, "Invalid timer message!", none},
        {kA, nullptr, eMsgWaitResultNotHandled, "Message 'Unknown message type 50001' not handled a depth 0", none},
    };
    for (const auto &c : cases) {
        gCalls.clear();
        MSG_MESSAGE *m = nullptr;
        ASSERT_TRUE(MsgCreate(&m, MsgLocalAddress(), c.type, c.body));
        EXPECT_EQ(MsgWaitDefaultHandlers(m), c.result) << c.type;
        if (c.traced != nullptr) {
            EXPECT_TRUE(traced("MSGWAIT", c.type == kA ? 3 : 2, c.traced));
        }
        EXPECT_EQ(gCalls, c.call.empty() ? std::vector<std::string>{} : std::vector<std::string>{c.call}) << c.type;
        ObjReleaseInternal(&m);
        ObjReleaseInternal(const_cast<void **>(&c.body));
    }
    EXPECT_EQ(MsgReceiveCount(), 0); // a ping of another shape is not answered
    fh::msgWaitSetActions(nullptr);
    MsgWaitDisableDefaultHandlers();
    MSG_MESSAGE *kill = nullptr;
    MsgCreate(&kill, MsgLocalAddress(), PMGR_KILL_YOURSELF_MSG, nullptr);
    EXPECT_EQ(MsgWaitDefaultHandlers(kill), eMsgWaitResultNotHandled);
    ObjReleaseInternal(&kill);
}

BOOL never(int32_t *, void *) { return FALSE; }
// At depth 1: a callback wait that only a handler's result can end.
int32_t waitsForEver(MSG_MESSAGE *, void *) {
    const int32_t result = MsgWaitOnCallbackWithTimeout(never, nullptr, In(5000));
    gCalls.push_back(MsgWaitResultString(result));
    return result;
}

// A kill request inside a nested wait ends it with the exit result, which
// ends the outer wait too; what the inner wait held is put back. A wanted
// kill request reaches the caller and nothing dies.
TEST_F(MsgWaitTest, KillRequestEndsNestedWaits) {
    const fh::MsgWaitActions stays{nullptr, nullptr, [] {}}; // the test process lives on
    fh::msgWaitSetActions(&stays);
    ASSERT_TRUE(MsgWaitAddHandler(kA, waitsForEver, nullptr));
    queue(kA);
    queue(kD, 1);
    queue(PMGR_KILL_YOURSELF_MSG);
    queue(kC);
    EXPECT_FALSE(MsgWaitMessageWithTimeout(nullptr, nullptr, kC, In(5000)));
    EXPECT_EQ(gCalls, std::vector<std::string>{"eMsgWaitResultExit"});
    EXPECT_EQ(drain(), (std::vector<int32_t>{kD * 10 + 1, kC * 10}));
    queue(PMGR_KILL_YOURSELF_MSG);
    EXPECT_TRUE(MsgWaitMessageWithTimeout(nullptr, nullptr, PMGR_KILL_YOURSELF_MSG, nullptr));
    EXPECT_EQ(MsgWaitOnCallbackWithTimeout(never, nullptr, In(30)), eMsgWaitResultTimeout);
}

constexpr int32_t kTest = 41, kPinger = 42;
void fired(void *cookie) { gCalls.push_back("timer " + std::to_string(reinterpret_cast<intptr_t>(cookie))); }
BOOL pingDone(int32_t *result, void *) {
    *result = eMsgWaitResultSuccess;
    return gCalls.size() > 1;
}
// Two handler runs deep: sets a timer, lets the other process ping, and
// waits for its word that the pong came.
int32_t deepWait(MSG_MESSAGE *, void *) {
    if (MsgWaitDepth() == 1) {
        queue(kA);
        return MsgWaitOnCallbackWithTimeout(pingDone, nullptr, In(10000));
    }
    TIME_OFFSET *now = nullptr;
    MSG_ADDRESS *pinger = localAddress(kPinger);
    MSG_MESSAGE *word = nullptr;
    if (TimeCreateOffset(&now, 0, 0) && TimrSetAlarmRelative(fired, reinterpret_cast<void *>(intptr_t{5}), now) &&
        MsgSendObject(pinger, kB, nullptr) && MsgWaitMessageWithTimeout(&word, pinger, kB, In(10000)))
        gCalls.push_back("pong " + std::to_string(ObjGetInteger(word->oObject)));
    testhelp::release({word, pinger, now});
    return eMsgWaitResultHandled;
}

// Another process pings this one while it waits two handler runs deep, and
// a timer fires there: the default handlers serve both at depth 2.
TEST_F(MsgWaitTest, PingAndTimerServedTwoRunsDeep) {
    const int port = testsupport::freePort();
    testsupport::writeMachineSettings(home(), port);
    testsupport::Daemon manager(home(), "fhcmgr", {"2"});
    ASSERT_FALSE(manager.readyLine().empty());
    // The pinger connects once this process has, and then says hello: when
    // the hello arrives the manager has bound both, so neither side's first
    // message can meet an unknown id.
    const testhelp::Gate connected;
    const pid_t pinger = nettest::child([&] {
        if (!connected.pass() || !ProcSetId(kPinger) || !MsgIpcConnect(0)) return 3;
        if (!testhelp::sendTo(kTest, kC, nullptr) || !testhelp::heard(kB, kTest)) return 3;
        MSG_MESSAGE *pong = nullptr;
        const bool answered = testhelp::sendTo(kTest, MSG_PING_MSG, make<MSG_PING>(MSG_PING_MAGIC, MSG_PING_FORMAT)) &&
                              (pong = testhelp::nextMessage(MSG_PONG_MSG, kTest)) != nullptr &&
                              static_cast<MSG_PING *>(pong->oObject)->iAnswered > 0;
        return testhelp::sendTo(kTest, kB, ObjIntegerNew(answered ? 1 : 0)) && answered ? 0 : 4;
    });
    ASSERT_TRUE(ProcSetId(kTest) && MsgIpcConnect(0));
    ASSERT_TRUE(connected.open());
    ASSERT_TRUE(testhelp::heard(kC, kPinger));
    ASSERT_TRUE(MsgWaitAddHandler(kA, deepWait, nullptr));
    queue(kA);
    EXPECT_EQ(MsgWaitOnCallbackWithTimeout(pingDone, nullptr, In(10000)), eMsgWaitResultSuccess);
    EXPECT_EQ(gCalls, (std::vector<std::string>{"timer 5", "pong 1"}));
    EXPECT_EQ(nettest::waitChild(pinger), 0);
    EXPECT_TRUE(manager.stop());
}

// The poll: a filter's Handled keeps a message from the handlers; an Error
// stops it; it keeps nothing and removes no marked entry.
TEST_F(MsgWaitTest, PollAndExclusiveWait) {
    ASSERT_TRUE(MsgWaitAddHandler(kA, named, name("h")));
    queue(kA, 1);
    queue(kB, 2);
    queue(kA, 3);
    EXPECT_TRUE(MsgWaitPollWithTimeoutAndFilter(nullptr, [](MSG_MESSAGE *m, void *) {
        return ObjGetInteger(m->oObject) == 1 ? int32_t{eMsgWaitResultHandled} : int32_t{eMsgWaitResultNotHandled};
    }, nullptr));
    EXPECT_EQ(gCalls, std::vector<std::string>{"h:3"});
    EXPECT_EQ(MsgReceiveCount(), 0);
    gResult = eMsgWaitResultError;
    queue(kA, 4);
    queue(kA, 5);
    EXPECT_FALSE(MsgWaitPoll());
    EXPECT_EQ(drain(), std::vector<int32_t>{kA * 10 + 5});

    // The exclusive wait runs no handler and puts back what it held.
    MSG_ADDRESS *far = nullptr;
    MsgCreateAddress(&far, "elsewhere", 1);
    EXPECT_EQ(MsgWaitExclusiveWithTimeout(nullptr, far, kB, nullptr), eMsgWaitResultInvalidArgument);
    ObjReleaseInternal(&far);
    const std::pair<int32_t, int32_t> ends[] = {{kB, eMsgWaitResultSuccess},
                                                {PMGR_KILL_YOURSELF_MSG, eMsgWaitResultKillRequest},
                                                {MSG_CHANNEL_DOWN_MSG, eMsgWaitResultChannelError},
                                                {MSG_LOST_SEND_QUEUE_MSG, eMsgWaitResultIpcError}};
    for (const auto &[type, result] : ends) {
        queue(kA, 6);
        queue(kC, 7);
        queue(type, 8);
        EXPECT_EQ(MsgWaitExclusiveWithTimeout(nullptr, MsgLocalAddress(), kB, In(1000)), result);
        EXPECT_EQ(drain(), (std::vector<int32_t>{kA * 10 + 6, kC * 10 + 7}));
    }
    EXPECT_EQ(gCalls.size(), 2u);
}

} // namespace
