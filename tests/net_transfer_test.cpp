// Transfers between real peers on 127.0.0.1: a peer's close and reset,
// refused connections, whole buffers against a slow child, a deadline, a
// child that closes or is killed half way, a timer signal firing throughout,
// a socket numbered beyond the select sets, and datagrams.
#include "net_support.h"

#include <signal.h>
#include <sys/resource.h>
#include <sys/time.h>

#include <vector>

namespace {

using namespace nettest;
using NetTransferTest = LibraryTest;

constexpr int32_t kPiece = 1024;

std::vector<char> pattern(int32_t length) {
    std::vector<char> bytes(length);
    for (int32_t i = 0; i < length; ++i) bytes[i] = static_cast<char>(i * 7);
    return bytes;
}

// Reads to the end a piece at a time with a pause after each; 0 if the
// pattern came whole.
int slowReader(int32_t socket, int32_t length, useconds_t pause) {
    std::vector<char> all;
    char piece[kPiece];
    for (ssize_t got; (got = recv(socket, piece, kPiece, 0)) > 0; usleep(pause))
        all.insert(all.end(), piece, piece + got);
    return all == pattern(length) ? 0 : 1;
}

// Runs body on one end of the connection in a child, the other ends closed
// there; the parent's copy of that end is closed.
template <typename Body> pid_t peer(Connection &c, int32_t &end, Body body) {
    const pid_t pid = child([&] {
        for (int32_t socket : {c.listener, c.client, c.server})
            if (socket != end) close(socket);
        return body(end);
    });
    NetClose(&end);
    return pid;
}

// Waits until the peer's reset has arrived: the socket is hung up.
void awaitReset(int32_t socket) {
    pollfd one{socket, 0, 0};
    poll(&one, 1, 2000);
}

TEST_F(NetTransferTest, PeerCloseAndReset) {
    char buffer[16] = {};
    int32_t count = 0;
    {
        Connection c;
        ASSERT_TRUE(c.connect());
        NetClose(&c.server); // orderly
        EXPECT_EQ(NetTcpReceive(&count, c.client, buffer, 16), NET_ERROR_CLOSED);
        EXPECT_EQ(NetTcpSend(&count, c.client, "a", 1), NET_ERROR_NONE); // answered by a reset
        awaitReset(c.client);
        EXPECT_EQ(NetTcpSend(&count, c.client, "b", 1), NET_ERROR_DOWN); // a broken pipe, no SIGPIPE
    }
    Connection c;
    ASSERT_TRUE(c.connect());
    ASSERT_TRUE(NetSetNoLinger(c.server));
    NetClose(&c.server); // a reset
    awaitReset(c.client);
    EXPECT_EQ(
        seen([&] { return NetTcpSend(&count, c.client, "a", 1); }),
        (Seen{NET_ERROR_FATAL, {{"Fatal error during TCP send: Connection reset by peer (104)", ECONNRESET, -1}}}));
    EXPECT_EQ(NetTcpSend(&count, c.client, "b", 1), NET_ERROR_DOWN);
}

TEST_F(NetTransferTest, ConnectToAClosedPort) {
    int32_t socket = -1;
    NetAddressT address = loopback(0);
    ASSERT_TRUE(NetOpen(&socket, NET_SOCKET_STREAM));
    ASSERT_TRUE(NetBind(socket, &address));
    NetGetLocalAddress(&address, socket);
    NetClose(&socket); // bound, never listening: the port refuses
    ASSERT_TRUE(NetOpen(&socket, NET_SOCKET_STREAM));
    EXPECT_EQ(NetConnect(socket, &address), NET_ERROR_REFUSED);
    NetClose(&socket);

    ASSERT_TRUE(NetOpen(&socket, NET_SOCKET_STREAM));
    ASSERT_TRUE(NetSetNonBlocking(socket));
    EXPECT_EQ(NetConnect(socket, &address), NET_ERROR_WOULD_BLOCK);
    pollfd one{socket, POLLOUT, 0};
    ASSERT_EQ(poll(&one, 1, 2000), 1);
    EXPECT_EQ(seen([&] { return NetSocketError(socket); }),
              (Seen{TRUE, {{"SO_ERROR: Connection refused", ECONNREFUSED, 3}}}));
    EXPECT_FALSE(NetSocketError(socket) || NetIsConnected(socket)); // reading cleared it
    NetClose(&socket);

    Connection c;
    ASSERT_TRUE(c.connect());
    EXPECT_TRUE(NetIsConnected(c.client));
    EXPECT_TRUE(NetIsConnected(c.server));
}

// Whole buffers against a child that moves 1 KiB at a time with pauses.
TEST_F(NetTransferTest, BlockingTransfersOfWholeBuffers) {
    constexpr int32_t kLength = 96 * kPiece;
    const std::vector<char> bytes = pattern(kLength);
    Connection c;
    ASSERT_TRUE(c.connect(4096));
    ASSERT_TRUE(NetSetSendBufferSize(c.server, 4096));
    ASSERT_TRUE(NetSetNonBlocking(c.server));
    const pid_t reader = peer(c, c.client, [](int32_t s) { return slowReader(s, kLength, 1000); });
    int32_t sent = -1, waited = 5;
    BOOL didWait = 0;
    TIME_TIMEOUT *deadline = nullptr;
    TimeCreateAndSetTimeout(&deadline, 60, 0);
    EXPECT_EQ(NetTcpSendBlocking(&sent, c.server, bytes.data(), kLength, deadline, &waited, &didWait), NET_ERROR_NONE);
    EXPECT_TRUE(sent == kLength);
    EXPECT_TRUE(didWait == 1);
    EXPECT_GT(waited, 5 + 20); // the child's pauses come to about 100 ms
    NetClose(&c.server);
    EXPECT_EQ(waitChild(reader), 0);
    ObjReleaseInternal(&deadline);

    Connection d;
    ASSERT_TRUE(d.connect());
    ASSERT_TRUE(NetSetNonBlocking(d.server));
    const pid_t writer = peer(d, d.client, [&](int32_t s) {
        for (int32_t at = 0; at < kLength; at += kPiece, usleep(500))
            if (send(s, bytes.data() + at, kPiece, 0) != kPiece) return 1;
        return 0;
    });
    std::vector<char> received(kLength);
    didWait = 0;
    EXPECT_EQ(NetTcpReceiveBlocking(&sent, d.server, received.data(), kLength, nullptr, nullptr, &didWait), 0);
    EXPECT_TRUE(sent == kLength);
    EXPECT_TRUE(received == bytes);
    EXPECT_TRUE(didWait == 1);
    EXPECT_EQ(waitChild(writer), 0);
}

// A deadline that passes, a peer killed half way and one that closes half
// way: each failure comes with the count moved so far.
TEST_F(NetTransferTest, BlockingTransfersEndPartWay) {
    constexpr int32_t kLength = 4 << 20;
    const std::vector<char> bytes = pattern(kLength);
    int32_t count = -1;
    {
        Connection c;
        ASSERT_TRUE(c.connect(4096));
        ASSERT_TRUE(NetSetNonBlocking(c.server));
        TIME_TIMEOUT *deadline = nullptr;
        TimeCreateAndSetTimeout(&deadline, 0, 300);
        const int64_t started = TimeNowAsInt64();
        EXPECT_EQ(NetTcpSendBlocking(&count, c.server, bytes.data(), kLength, deadline, nullptr, nullptr),
                  NET_ERROR_TIMEOUT); // nobody reads
        EXPECT_GE(TimeNowAsInt64() - started, 290);
        EXPECT_TRUE(count > 0) << count;
        EXPECT_TRUE(count < kLength) << count;
        ObjReleaseInternal(&deadline);
    }
    {
        Connection c;
        ASSERT_TRUE(c.connect(4096));
        ASSERT_TRUE(NetSetNonBlocking(c.server));
        const pid_t reader = peer(c, c.client, [](int32_t s) {
            char piece[kPiece];
            for (int32_t total = 0; total < 16 * kPiece; total += kPiece)
                if (recv(s, piece, kPiece, MSG_WAITALL) != kPiece) return 1;
            return raise(SIGKILL);
        });
        const int32_t result = NetTcpSendBlocking(&count, c.server, bytes.data(), kLength, nullptr, nullptr, nullptr);
        EXPECT_TRUE(result == NET_ERROR_FATAL || result == NET_ERROR_DOWN) << result;
        EXPECT_TRUE(count >= 16 * kPiece) << count;
        EXPECT_TRUE(count < kLength) << count;
        EXPECT_EQ(waitChild(reader), 128 + SIGKILL);
    }
    Connection c;
    ASSERT_TRUE(c.connect());
    ASSERT_TRUE(NetSetNonBlocking(c.server));
    const pid_t writer = peer(c, c.client, [&](int32_t s) { return send(s, bytes.data(), 1000, 0) == 1000 ? 0 : 1; });
    std::vector<char> received(2000);
    EXPECT_EQ(
        seen([&] { return NetTcpReceiveBlocking(&count, c.server, received.data(), 2000, nullptr, nullptr, nullptr); }),
        (Seen{NET_ERROR_CLOSED, {{"Socket closed unexpectedly", 0, 2}}}));
    EXPECT_EQ(count, 1000);
    EXPECT_EQ(waitChild(writer), 0);
}

// A timer signal every millisecond, its handler without SA_RESTART: the
// blocking forms carry on, a one-shot form and select report it.
TEST_F(NetTransferTest, TimerSignalsThroughout) {
    static volatile sig_atomic_t gAlarms = 0;
    struct sigaction action {
    }, saved{};
    action.sa_handler = [](int) { gAlarms = gAlarms + 1; };
    sigaction(SIGALRM, &action, &saved);
    constexpr int32_t kLength = 64 * kPiece;
    const std::vector<char> bytes = pattern(kLength);
    Connection c, quiet;
    ASSERT_TRUE(c.connect(4096));
    ASSERT_TRUE(NetSetSendBufferSize(c.server, 4096));
    ASSERT_TRUE(quiet.connect());
    const pid_t reader = peer(c, c.client, [](int32_t s) { return slowReader(s, kLength, 1000); });
    itimerval every{{0, 1000}, {0, 1000}};
    setitimer(ITIMER_REAL, &every, nullptr);

    int32_t count = -1; // blocking sockets: every send waits inside the call
    EXPECT_EQ(NetTcpSendBlocking(&count, c.server, bytes.data(), kLength, nullptr, nullptr, nullptr), NET_ERROR_NONE);
    EXPECT_TRUE(count == kLength) << count << " " << gAlarms;
    EXPECT_TRUE(gAlarms > 10) << count << " " << gAlarms;
    NetClose(&c.server);
    EXPECT_EQ(waitChild(reader), 0);
    char buffer[16];
    EXPECT_EQ(NetTcpReceive(&count, quiet.client, buffer, 16), NET_ERROR_INTERRUPTED); // nothing comes
    NetSelectMask *mask = nullptr;
    NetInitializeSelectMask(&mask);
    NetAddReadSelect(mask, quiet.client);
    EXPECT_EQ(NetSelect(&count, mask, nullptr), NET_ERROR_INTERRUPTED);
    NetReleaseSelectMask(&mask);
    every = {};
    setitimer(ITIMER_REAL, &every, nullptr);
    sigaction(SIGALRM, &saved, nullptr);
}

TEST_F(NetTransferTest, SocketBeyondTheSelectSets) {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    if (limit.rlim_max < 1600) GTEST_SKIP() << "the hard limit of descriptors is " << limit.rlim_max;
    limit.rlim_cur = std::max<rlim_t>(limit.rlim_cur, 1600);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    Connection c;
    ASSERT_TRUE(c.connect());
    int32_t high = 1500;
    ASSERT_EQ(dup2(c.server, high), high);
    NetClose(&c.server);

    NetSelectMask *mask = nullptr, *clear = nullptr;
    NetInitializeSelectMask(&mask);
    NetInitializeSelectMask(&clear);
    EXPECT_FALSE(NetAddReadSelect(mask, high) || NetAddWriteSelect(mask, high) || NetAddExceptionSelect(mask, high));
    EXPECT_FALSE(NetIsExceptionSelectSet(mask, high) || NetRemoveExceptionSelect(mask, high));
    EXPECT_EQ(memcmp(mask, clear, sizeof *mask), 0);
    MemCheck(mask); // the guard word behind the block is whole
    EXPECT_EQ(traceTexts().back().find("corrupted"), std::string::npos);
    NetReleaseSelectMask(&mask);
    NetReleaseSelectMask(&clear);

    // The blocking transfers wait on it all the same.
    constexpr int32_t kLength = 32 * kPiece;
    const std::vector<char> bytes = pattern(kLength);
    ASSERT_TRUE(NetSetNonBlocking(high));
    const pid_t reader = peer(c, c.client, [](int32_t s) {
        close(1500);
        return slowReader(s, kLength, 200);
    });
    int32_t sent = 0;
    EXPECT_EQ(NetTcpSendBlocking(&sent, high, bytes.data(), kLength, nullptr, nullptr, nullptr), NET_ERROR_NONE);
    EXPECT_EQ(sent, kLength);
    NetClose(&high);
    EXPECT_EQ(waitChild(reader), 0);
}

TEST_F(NetTransferTest, DatagramsTellTheirSender) {
    int32_t a = -1, b = -1;
    NetAddressT aAddress = loopback(0), bAddress = loopback(0), from{};
    ASSERT_TRUE(NetOpen(&a, NET_SOCKET_DATAGRAM));
    ASSERT_TRUE(NetOpen(&b, NET_SOCKET_DATAGRAM));
    ASSERT_TRUE(NetBind(a, &aAddress));
    ASSERT_TRUE(NetBind(b, &bAddress));
    NetGetLocalAddress(&aAddress, a);
    NetGetLocalAddress(&bAddress, b);
    ASSERT_TRUE(NetUdpSend(a, "ping", 4, &bAddress) == 0);
    ASSERT_TRUE(NetUdpSend(a, "pong", 4, &bAddress) == 0);
    char buffer[16] = {};
    int32_t received = 0;
    ASSERT_EQ(NetUdpReceive(&received, b, buffer, sizeof buffer, &from), NET_ERROR_NONE);
    EXPECT_EQ(std::string(buffer, received), "ping");
    EXPECT_TRUE(NetAddressEqual(&from, &aAddress, FALSE));
    EXPECT_TRUE(NetGetAddressLength(&from) == 16);
    ASSERT_EQ(NetUdpReceive(&received, b, buffer, sizeof buffer, nullptr), NET_ERROR_NONE);
    EXPECT_EQ(std::string(buffer, received), "pong");
    NetSetNonBlocking(b);
    EXPECT_EQ(NetUdpReceive(&received, b, buffer, sizeof buffer, &from), NET_ERROR_WOULD_BLOCK);
    NetClose(&a);
    NetClose(&b);
}

} // namespace
