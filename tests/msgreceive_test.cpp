// Receiving within one process: channels whose two ends both belong to the
// test, so that what one end sends the pass reads off the other. The
// receive calls, selective receive, putting back and handlers.
#include <signal.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <unistd.h>

#include <set>
#include <string>
#include <vector>

#include "core/msgreceive.h"
#include "messages/msgcmgr.h"
#include "messages/msgmsg.h"
#include "messages/msgnmgr.h"
#include "messages/msgpmgr.h"
#include "msgchannel.h"
#include "net_support.h"

namespace {

// An application's own message type.
constexpr int32_t kTest = 50001;
constexpr TIME_TIMEOUT kImmediate{0, 0};

class ReceiveTest : public LibraryTest {
protected:
    void SetUp() override {
        LibraryTest::SetUp();
        gtLmContext.bMsgIpcConnected = TRUE; // packets read off channels are kept
    }
    void TearDown() override {
        for (MSG_PACKET *p = nullptr; MsgReceivePopPacket(&p);) ObjReleaseInternal(&p);
        MsgReleaseThread(&gtLmContext);
        MsgInitializeThread();
        LibraryTest::TearDown();
    }
    // The types of the receive list, in order.
    static std::vector<int32_t> queued() { return nettest::receiveListTypes(); }
    static void queueBare(int32_t type) { fh::msgQueueBare(type, MsgLocalAddress()); }
    static TIME_TIMEOUT in(int32_t milliseconds) {
        TIME_TIMEOUT t{};
        const TIME_OFFSET span{milliseconds / 1000, milliseconds % 1000};
        TimeSetTimeoutFromOffset(&t, &span);
        return t;
    }
};

// With a packet queued, a receive takes it without a single socket call,
// even with a deadline that has passed.
TEST_F(ReceiveTest, QueuedMessageTouchesNoSocket) {
    static int calls = 0;
    fh::NetCalls saved = fh::netCalls();
    fh::netCalls().poll = [](pollfd *, nfds_t, int) { return ++calls, 0; };
    fh::netCalls().select = [](int, fd_set *, fd_set *, fd_set *, timeval *) { return ++calls, 0; };
    queueBare(kTest);
    const TIME_TIMEOUT past{1, 0};
    MSG_MESSAGE *m = nullptr;
    EXPECT_TRUE(MsgReceive(&m, &past));
    EXPECT_EQ(calls, 0);
    EXPECT_FALSE(MsgReceive(&m, &past)); // now empty: one pass
    EXPECT_EQ(calls, 1);
    fh::netCalls() = saved;
    ObjReleaseInternal(&m);
}

// Selective receive: the earliest match wins, the rest keep their order;
// news that the peer is gone, or the loss of a queue, ends the search.
TEST_F(ReceiveTest, SelectiveReceiveTakesQueueInOrder) {
    MSG_ADDRESS *local = MsgLocalAddress();
    const TIME_TIMEOUT now{0, 0};
    struct Case {
        std::vector<int32_t> queue;
        int32_t type;
        bool withAddress;
        bool found;
        std::vector<int32_t> left;
    };
    const std::vector<Case> cases = {
        {{MSG_PING_MSG, kTest, kTest}, kTest, true, true, {MSG_PING_MSG, kTest}},
        {{MSG_PING_MSG, kTest}, 0, false, true, {kTest}},
        {{MSG_PING_MSG}, kTest, false, false, {MSG_PING_MSG}},
        {{MSG_LOST_SEND_QUEUE_MSG, kTest}, kTest, false, false, {MSG_LOST_SEND_QUEUE_MSG, kTest}},
        {{kTest, MSG_LOST_RECEIVE_QUEUE_MSG}, kTest, false, true, {MSG_LOST_RECEIVE_QUEUE_MSG}},
        // The machine's news from the manager itself: that machine id.
        {{NMGR_MACHINE_UNREACHABLE_MSG, kTest}, kTest, true, false,
         {NMGR_MACHINE_UNREACHABLE_MSG, kTest}},
        {{NMGR_MACHINE_UNREACHABLE_MSG, kTest}, kTest, false, true, {NMGR_MACHINE_UNREACHABLE_MSG}},
    };
    for (const Case &k : cases) {
        SCOPED_TRACE(testing::PrintToString(k.queue));
        for (int32_t type : k.queue) queueBare(type);
        MSG_MESSAGE *m = nullptr;
        EXPECT_EQ(MsgReceiveMsgTypeFromAddress(&m, k.type, k.withAddress ? local : nullptr, &now), k.found);
        EXPECT_EQ(m != nullptr, k.found);
        EXPECT_EQ(queued(), k.left);
        ObjReleaseInternal(&m);
        for (MSG_PACKET *p = nullptr; MsgReceivePopPacket(&p);) ObjReleaseInternal(&p);
    }
}

// Putting back adds at the front: two messages requeued in receive order,
// and a list pushed, come back reversed. A list of other items is refused.
TEST_F(ReceiveTest, RequeueAndPushReverseOrder) {
    for (int32_t type : std::vector<int32_t>{kTest, MSG_PING_MSG, MSG_PONG_MSG}) queueBare(type);
    MSG_MESSAGE *first = nullptr, *second = nullptr;
    ASSERT_TRUE(MsgPoll(&first));
    ASSERT_TRUE(MsgPoll(&second));
    EXPECT_TRUE(MsgRequeue(first));
    EXPECT_TRUE(MsgRequeue(second));
    EXPECT_EQ(queued(), (std::vector<int32_t>{MSG_PING_MSG, kTest, MSG_PONG_MSG}));
    LIST *messages = ListNewFromPool(MSG_MESSAGE_MAGIC, nullptr);
    ListPushLastItemInternal(messages, &first);
    ListPushLastItemInternal(messages, &second);
    EXPECT_TRUE(MsgPushMessages(messages));
    EXPECT_EQ(messages->iCount, 0);
    EXPECT_EQ(queued(), (std::vector<int32_t>{MSG_PING_MSG, kTest, MSG_PING_MSG, kTest, MSG_PONG_MSG}));
    LIST *packets = ListNewFromPool(0, nullptr);
    for (int i = 0; i < 2; ++i) {
        MSG_PACKET *p = nullptr;
        MsgReceivePopPacket(&p);
        ListPushLastItemInternal(packets, &p);
    }
    EXPECT_TRUE(MsgPushPackets(packets));
    EXPECT_EQ(queued(), (std::vector<int32_t>{kTest, MSG_PING_MSG, MSG_PING_MSG, kTest, MSG_PONG_MSG}));
    EXPECT_FALSE(MsgPushPackets(messages)); // a list of messages is not one of packets
    ObjReleaseInternal(&messages);
    ObjReleaseInternal(&packets);
}

// A handler sees the working mask with its own socket ready, and a null
// mask when a signal interrupts the wait; removing it stops the calls.
TEST_F(ReceiveTest, HandlersServeTheirOwnSockets) {
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    struct Seen {
        int fd;
        int ready = 0, interrupted = 0;
    };
    static Seen seen;
    seen = Seen{fds[0]};
    auto handler = [](NetSelectMask *mask, void *) {
        if (mask == nullptr) ++seen.interrupted;
        else if (NetIsReadSelectSet(mask, seen.fd)) ++seen.ready;
    };
    EXPECT_FALSE(MsgHandlerAdd(nullptr, nullptr));
    ASSERT_TRUE(MsgHandlerAdd(handler, nullptr));
    ASSERT_TRUE(MsgAddReadSelect(fds[0]));
    ASSERT_EQ(write(fds[1], "x", 1), 1);
    const TIME_TIMEOUT limit = in(2000);
    EXPECT_FALSE(MsgWait(&limit));
    EXPECT_EQ(seen.ready, 1);
    fh::NetCalls saved = fh::netCalls();
    fh::netCalls().poll = [](pollfd *, nfds_t, int) { return errno = EINTR, -1; };
    EXPECT_FALSE(MsgWait(&limit));
    fh::netCalls() = saved;
    EXPECT_EQ(seen.interrupted, 1);
    EXPECT_TRUE(MsgHandlerRemove(handler, nullptr));
    EXPECT_FALSE(MsgHandlerRemove(handler, nullptr));
    EXPECT_FALSE(MsgWait(&limit));
    EXPECT_EQ(seen.ready, 1);
    MsgRemoveReadSelect(fds[0]);
    close(fds[0]);
    close(fds[1]);
}

} // namespace

namespace {

// Connected TCP pairs on 127.0.0.1 through one listener: the near ends as
// channels of this process (notice on down), the far ends left raw.
struct Pairs {
    std::vector<int32_t> far;
    std::vector<MSG_ADDRESS *> near;
    explicit Pairs(int count) {
        nettest::Connection c; // its listener
        for (int i = 0; i < count; ++i) {
            int32_t client = -1, server = -1;
            NetOpen(&client, NET_SOCKET_STREAM);
            if (NetConnect(client, &c.address) != NET_ERROR_NONE || NetAccept(&server, c.listener, nullptr) != 0) return;
            MSG_CHANNEL *channel = nullptr;
            if (!MsgChannelCreateInternal(&channel, server, MsgLocalAddress(), FALSE, TRUE, FALSE, FALSE, FALSE)) return;
            MSG_ADDRESS *address = nullptr;
            MsgChannelAddress(&address, channel);
            ObjReleaseInternal(&channel);
            near.push_back(address);
            far.push_back(client);
        }
    }
    ~Pairs() {
        for (MSG_ADDRESS *a : near) ObjReleaseInternal(&a);
        for (int32_t &s : far) NetClose(&s);
    }
};

// The bytes of a data channel frame of type with a text body.
std::vector<unsigned char> frameOf(int32_t type, const char *text) {
    OBJ_STRING *body = ObjStringNew(text);
    MSG_PACKET *packet = nullptr;
    MsgCreatePacket(&packet, MsgLocalAddress(), MsgLocalAddress(), type, body);
    const auto *image = static_cast<const unsigned char *>(packet->oImage.pData);
    std::vector<unsigned char> frame(image + MSG_PACKET_HEADER_SIZE, image + packet->oImage.iSize);
    ObjReleaseInternal(&packet);
    ObjReleaseInternal(&body);
    return frame;
}

// More channels than a select mask holds: each of 1,100 delivers its one
// frame, those on descriptors past FD_SETSIZE too.
TEST_F(ReceiveTest, ChannelsPastTheSelectLimitAllDeliver) {
    constexpr int kCount = 1100;
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    if (limit.rlim_cur < 3 * kCount) {
        limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, 3 * kCount);
        if (setrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur < 3 * kCount)
            GTEST_SKIP() << "the limit on descriptors can't be raised";
    }
    Pairs pairs(kCount);
    ASSERT_EQ(pairs.near.size(), static_cast<size_t>(kCount));
    EXPECT_GE(pairs.far.back(), FD_SETSIZE);
    const std::vector<unsigned char> frame = frameOf(kTest, "one");
    for (int32_t s : pairs.far) ASSERT_EQ(send(s, frame.data(), frame.size(), 0), static_cast<ssize_t>(frame.size()));
    std::set<int32_t> from;
    const TIME_TIMEOUT limitTime = in(10000);
    for (MSG_MESSAGE *m = nullptr; from.size() < kCount && !TimeTimeoutHasExpired(&limitTime);)
        if (MsgReceive(&m, &limitTime)) {
            EXPECT_EQ(m->iType, kTest);
            from.insert(MsgGetChannelId(m->oSource));
            ObjReleaseInternal(&m);
        }
    EXPECT_EQ(from.size(), static_cast<size_t>(kCount));
}

// Signals that cut the waits short lose nothing: with an alarm every
// millisecond, 3,000 messages over a channel arrive whole and in order.
TEST_F(ReceiveTest, AlarmsDuringPassesLoseNothing) {
    struct sigaction alarm{}, saved{};
    alarm.sa_handler = [](int) {}; // no SA_RESTART: the wait is interrupted
    sigaction(SIGALRM, &alarm, &saved);
    const itimerval every{{0, 1000}, {0, 1000}}, off{};
    setitimer(ITIMER_REAL, &every, nullptr);
    Pairs pairs(1);
    MSG_CHANNEL *other = nullptr; // the far end as a channel too
    ASSERT_TRUE(MsgChannelCreateInternal(&other, pairs.far[0], MsgLocalAddress(), FALSE, TRUE, FALSE, FALSE, FALSE));
    pairs.far[0] = -1;
    ObjReleaseInternal(&other);
    constexpr int kCount = 3000;
    int sent = 0, got = 0;
    const TIME_TIMEOUT limit = in(20000);
    while (got < kCount && !TimeTimeoutHasExpired(&limit)) {
        if (sent < kCount) {
            OBJ_INTEGER *n = ObjIntegerNew(sent++);
            EXPECT_TRUE(MsgSendObject(pairs.near[0], kTest, n));
            ObjReleaseInternal(&n);
        }
        MSG_MESSAGE *m = nullptr;
        if (!MsgReceive(&m, sent < kCount ? &kImmediate : &limit)) continue;
        EXPECT_EQ(ObjGetInteger(m->oObject), got++);
        ObjReleaseInternal(&m);
    }
    setitimer(ITIMER_REAL, &off, nullptr);
    sigaction(SIGALRM, &saved, nullptr);
    EXPECT_EQ(got, kCount);
}

// A peer gone half-way through a 50 MiB message: one notice that the
// channel is down, and nothing else however many passes follow.
TEST_F(ReceiveTest, PeerGoneMidMessageGivesOneNotice) {
    Pairs pairs(1);
    ASSERT_EQ(pairs.far.size(), 1u);
    std::vector<unsigned char> part(32 << 10, 'x');
    fh::msgPutLe32(part.data(), 50 << 20);
    fh::msgPutLe32(part.data() + 4, kTest);
    ASSERT_EQ(send(pairs.far[0], part.data(), part.size(), 0), static_cast<ssize_t>(part.size()));
    NetClose(&pairs.far[0]);
    std::vector<int32_t> types;
    for (int pass = 0; pass < 50 && types.size() < 2; ++pass)
        for (MSG_MESSAGE *m = nullptr; MsgReceive(&m, &kImmediate) || (fh::msgSelectPass(5), false);
             ObjReleaseInternal(&m))
            types.push_back(m->iType);
    EXPECT_EQ(types, std::vector<int32_t>{MSG_CHANNEL_DOWN_MSG});
}

} // namespace
