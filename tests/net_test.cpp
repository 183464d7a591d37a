// The network layer on its own: the address layout both ways, how every
// failure of a transfer, connect and accept is classified and traced (made
// on demand through the call table), options and their traced failures on
// real descriptors, opening sockets with the settings, and select masks with
// the waits over them.
#include "net_support.h"

#include <netinet/in.h>
#include <sys/stat.h>

#include <array>
#include <fstream>
#include <functional>
#include <tuple>

namespace {

using namespace nettest;
using NetTest = LibraryTest;
constexpr int32_t F = NET_ERROR_FATAL, W = NET_ERROR_WOULD_BLOCK, I = NET_ERROR_INTERRUPTED, D = NET_ERROR_DOWN;

// The injected failure: gFailures calls fail with gError, and gCalls counts
// the calls made.
int gError = 0, gFailures = 0, gCalls = 0;
ssize_t gCount = 0;
void inject(int error, int failures) { gError = error, gFailures = failures, gCalls = 0; }

ssize_t failing() { return ++gCalls, errno = gError, -1; }

// The first call moves three bytes, the next gFailures fail, then the rest
// goes.
ssize_t stepped(size_t left) {
    if (gCalls++ == 0) return 3;
    if (gFailures-- > 0) return errno = gError, -1;
    return static_cast<ssize_t>(left);
}

std::string text(const char *format, const char *error, long number = 0) {
    char line[160];
    snprintf(line, sizeof line, format, error, number);
    return line;
}

TEST_F(NetTest, AddressLayoutBothWays) {
    NetAddressT address;
    memset(&address, 0xEE, sizeof address);
    ASSERT_TRUE(NetInitializeIpAddress(&address, kLoopback, 20033));
    const unsigned char golden[] = {0x10, 0x02, 0x4E, 0x41, 0x7F, 0x00, 0x00, 0x01};
    EXPECT_EQ(memcmp(address.aBytes, golden, 8), 0);
    EXPECT_EQ(std::count(address.aBytes + 8, address.aBytes + 32, 0xEE), 24);
    EXPECT_TRUE(NetGetIpPort(&address) == 20033 && NetGetIpAddress(&address) == kLoopback);
    EXPECT_TRUE(NetGetFamily(&address) == 2 && NetGetAddressLength(&address) == 16);
    ASSERT_TRUE(NetSetIpPort(&address, 0xABCD));
    EXPECT_TRUE(address.aBytes[2] == 0xAB && address.aBytes[3] == 0xCD && address.aBytes[4] == 0x7F);
    EXPECT_FALSE(NetInitializeIpAddress(nullptr, 1, 2) || NetSetIpPort(nullptr, 2));

    // From the platform: the first bytes as built here, the room behind alone.
    int32_t socket = -1;
    ASSERT_TRUE(NetOpen(&socket, NET_SOCKET_DATAGRAM));
    const NetAddressT any = loopback(0);
    ASSERT_TRUE(NetBind(socket, &any));
    memset(&address, 0xEE, sizeof address);
    ASSERT_TRUE(NetGetLocalAddress(&address, socket));
    const NetAddressT built = loopback(NetGetIpPort(&address));
    EXPECT_TRUE(memcmp(address.aBytes, built.aBytes, 8) == 0 && NetGetIpPort(&address) != 0);
    EXPECT_EQ(std::count(address.aBytes + 16, address.aBytes + 32, 0xEE), 16);
    NetClose(&socket);

    const NetAddressT a = loopback(1), samePort = loopback(1), otherPort = loopback(2);
    NetAddressT otherHost = loopback(1), family3 = loopback(1);
    NetInitializeIpAddress(&otherHost, 0x7f000002, 1);
    family3.aBytes[1] = 3;
    const NetAddressT family3Too = family3;
    const std::tuple<const NetAddressT *, const NetAddressT *, BOOL, BOOL> equal[] = {
        {&a, &samePort, FALSE, TRUE},  {&a, &otherPort, FALSE, FALSE},  {&a, &otherPort, TRUE, TRUE},
        {&a, &otherHost, TRUE, FALSE}, {nullptr, nullptr, FALSE, TRUE}, {&a, nullptr, TRUE, FALSE},
        {nullptr, &a, TRUE, FALSE},    {&a, &family3, TRUE, FALSE},     {&family3, &family3Too, TRUE, FALSE},
    };
    int row = 0;
    for (const auto &[first, second, addressOnly, result] : equal)
        EXPECT_EQ(NetAddressEqual(first, second, addressOnly), result) << "row " << row++;
}

// The four one-shot transfers, each a column over one buffer.
using Column = std::function<int32_t(int32_t socket, int32_t length)>;
char gBuffer[8];
int32_t gMoved = -7;
const Column kColumns[] = {
    [](int32_t s, int32_t n) { return NetUdpSend(s, gBuffer, n, nullptr); },
    [](int32_t s, int32_t n) { return NetTcpSend(&gMoved, s, gBuffer, n); },
    [](int32_t s, int32_t n) { return NetUdpReceive(&gMoved, s, gBuffer, n, nullptr); },
    [](int32_t s, int32_t n) { return NetTcpReceive(&gMoved, s, gBuffer, n); },
};

// Every cell of the one-shot table: one call, its errno left, nothing moved.
TEST_F(NetTest, OneShotTransfersClassifyEveryError) {
    PlatformCallsBack back;
    fh::NetCalls &calls = fh::netCalls();
    calls.send = [](int, const void *, size_t, int flags) { return flags == MSG_NOSIGNAL ? failing() : 0; };
    calls.recv = [](int, void *, size_t, int) { return failing(); };
    calls.sendto = [](int, const void *, size_t, int, const sockaddr *, socklen_t) { return failing(); };
    calls.recvfrom = [](int, void *, size_t, int, sockaddr *, socklen_t *) { return failing(); };
    const char *fatal[] = {"Fatal error during UDP send: %s", "Fatal error during TCP send: %s (%ld)",
                           "Fatal error during UDP receive: %s", "Fatal error during TCP receive: %s"};
    const std::pair<int, std::array<int32_t, 4>> rows[] = {
        {EAGAIN, {W, W, W, W}}, {ENOMEM, {F, W, F, F}}, {EINTR, {I, I, I, I}}, // and not repeated
        {EPIPE, {F, D, D, D}}, {ENOTCONN, {F, NET_ERROR_NOT_CONNECTED, F, F}},
        {ECONNREFUSED, {F, F, F, NET_ERROR_REFUSED}}, {EBADF, {F, F, F, F}},
    };
    for (const auto &[error, results] : rows) {
        for (int column = 0; column < 4; ++column) {
            inject(error, 0);
            Traces traces;
            if (results[column] == F) traces.push_back({text(fatal[column], strerror(error), error), error, -1});
            if (results[column] == D && column >= 2) traces.push_back({"Connection down", error, 2});
            int left = 0;
            EXPECT_EQ(seen([&] { const int32_t r = kColumns[column](5, 8); return left = errno, r; }),
                      (Seen{results[column], traces}))
                << strerror(error) << ", column " << column;
            EXPECT_TRUE(gCalls == 1 && left == error && gMoved == -7);
        }
    }
}

// Bad handle and length: no call, no word. A short datagram is fatal
// without a word, a short stream transfer a success; 0 is closed.
TEST_F(NetTest, OneShotTransfersCountWhatMoved) {
    PlatformCallsBack back;
    fh::NetCalls &calls = fh::netCalls();
    calls.sendto = [](int, const void *, size_t, int, const sockaddr *, socklen_t) { return ++gCalls, gCount; };
    calls.send = [](int, const void *, size_t, int) { return ++gCalls, gCount; };
    calls.recv = [](int, void *, size_t, int) { return ++gCalls, gCount; };
    calls.recvfrom = [](int, void *, size_t, int, sockaddr *, socklen_t *) { return ++gCalls, gCount; };
    gCalls = 0;
    for (const Column &column : kColumns) {
        EXPECT_EQ(seen([&] { return column(-1, 8); }), (Seen{NET_ERROR_BAD_SOCKET, {}}));
        EXPECT_EQ(seen([&] { return column(5, 0); }), (Seen{NET_ERROR_BAD_LENGTH, {}}));
    }
    EXPECT_EQ(gCalls, 0);
    const std::pair<ssize_t, std::array<int32_t, 4>> counts[] = {
        {8, {0, 0, 0, 0}}, {3, {F, 0, 0, 0}}, {0, {4, 4, 4, 4}}};
    for (const auto &[count, results] : counts) {
        for (int column = 0; column < 4; ++column) {
            gCount = count;
            gMoved = -7;
            EXPECT_EQ(seen([&] { return kColumns[column](5, 8); }), (Seen{results[column], {}})) << count;
            EXPECT_EQ(gMoved, column > 0 && results[column] == 0 ? count : -7) << count << ", column " << column;
        }
    }
}

// The blocking forms take the one-shot column and add what they do with a
// result: wait, go on, or trace the end of the connection.
TEST_F(NetTest, BlockingTransfersClassifyEveryError) {
    PlatformCallsBack back;
    fh::NetCalls &calls = fh::netCalls();
    calls.send = [](int, const void *, size_t left, int) { return stepped(left); };
    calls.recv = [](int, void *, size_t left, int) { return stepped(left); };
    calls.poll = [](pollfd *one, nfds_t, int limit) {
        if (limit == -1) return 1;
        if (limit == 86400 * 1000) return 0; // a wait cut to a day ends: try again
        return one->events == POLLOUT && limit > 4000 && limit <= 5000 ? 0 : (errno = EBADF, -1);
    };
    TIME_TIMEOUT *inFive = nullptr, *inTwoDays = nullptr;
    TimeCreateAndSetTimeout(&inFive, 5, 0);
    TimeCreateAndSetTimeout(&inTwoDays, 2 * 86400, 0);
    char buffer[10];
    const std::string refusedSend = "Fatal error during TCP send: Connection refused (111)";
    const std::string notConnected = text("Fatal error during TCP receive: %s", strerror(ENOTCONN));
    const std::string noMemory = text("Fatal error during TCP receive: %s", strerror(ENOMEM));
    // Send?, error, failures, deadline, result, count, waited?, traces.
    const std::tuple<bool, int, int, TIME_TIMEOUT *, int32_t, int32_t, BOOL, Traces> rows[] = {
        {true, EPIPE, 1, nullptr, D, 3, 0, {{"Connection down", EPIPE, 2}}},
        {false, EPIPE, 1, nullptr, D, 3, 0, {{"Connection down", EPIPE, 2}}},
        {true, ENOTCONN, 1, nullptr, NET_ERROR_NOT_CONNECTED, 3, 0, {{"Connection refused", ENOTCONN, 2}}},
        {false, ENOTCONN, 1, nullptr, F, 3, 0, {{notConnected, ENOTCONN, -1}}},
        {false, ECONNREFUSED, 1, nullptr, NET_ERROR_REFUSED, 3, 0, {{"Connection refused", ECONNREFUSED, 2}}},
        {true, ECONNREFUSED, 1, nullptr, F, 3, 0, {{refusedSend, ECONNREFUSED, -1}}},
        {false, ENOMEM, 1, nullptr, F, 3, 0, {{noMemory, ENOMEM, -1}}},
        {true, ENOMEM, 2, nullptr, 0, 10, 1, {}}, // waits, like EAGAIN
        {false, EAGAIN, 2, nullptr, 0, 10, 1, {}},
        {true, EINTR, 3, nullptr, 0, 10, 0, {}},
        {false, EINTR, 3, nullptr, 0, 10, 0, {}},
        {true, EAGAIN, 1, inFive, NET_ERROR_TIMEOUT, 3, 1, {}},
        {false, EAGAIN, 1, inFive, F, 3, 1, {{"Fatal error during TCP receive: Bad file descriptor", EBADF, -1}}},
        {false, EAGAIN, 1, inTwoDays, 0, 10, 1, {}},
        {true, EAGAIN, 1, inFive, 0, 10, 1, {}}, // the wait fails with EINTR: go on
    };
    int row = 0;
    for (const auto &[sends, error, failures, until, result, count, waits, traces] : rows) {
        inject(error, failures);
        if (++row == static_cast<int>(std::size(rows)))
            calls.poll = [](pollfd *, nfds_t, int) { return errno = EINTR, -1; };
        int32_t moved = -1;
        BOOL didWait = 0;
        EXPECT_EQ(seen([&] {
                      return sends ? NetTcpSendBlocking(&moved, 5, "0123456789", 10, until, nullptr, &didWait)
                                   : NetTcpReceiveBlocking(&moved, 5, buffer, 10, until, nullptr, &didWait);
                  }),
                  (Seen{result, traces}))
            << "row " << row;
        EXPECT_TRUE(moved == count && didWait == waits) << "row " << row;
    }
    ObjReleaseInternal(&inFive);
    ObjReleaseInternal(&inTwoDays);
}

// A wait that fails ends a transfer with its trace. Bad arguments reach no
// call: the send says it moved nothing, the receive says nothing.
TEST_F(NetTest, BlockingTransfersEndOnAFailedWaitOrBadArguments) {
    PlatformCallsBack back;
    fh::netCalls().send = [](int, const void *, size_t left, int) { return stepped(left); };
    fh::netCalls().recv = [](int, void *, size_t left, int) { return stepped(left); };
    fh::netCalls().poll = [](pollfd *, nfds_t, int) { return errno = EBADF, -1; };
    TIME_TIMEOUT *inFive = nullptr;
    TimeCreateAndSetTimeout(&inFive, 5, 0);
    inject(EAGAIN, 1);
    EXPECT_EQ(seen([&] { return NetTcpSendBlocking(nullptr, 5, "0123456789", 10, inFive, nullptr, nullptr); }),
              (Seen{F, {{"Fatal error during TCP send: Bad file descriptor", EBADF, -1}}}));
    ObjReleaseInternal(&inFive);
    int32_t sent = 77, received = 77;
    char buffer[1];
    gCalls = 0;
    EXPECT_EQ(seen([&] { return NetTcpSendBlocking(&sent, -1, "x", 1, nullptr, nullptr, nullptr); }),
              (Seen{NET_ERROR_BAD_SOCKET, {{"Invalid socket handle", 0, -1}}}));
    EXPECT_EQ(seen([&] { return NetTcpReceiveBlocking(&received, 5, buffer, 0, nullptr, nullptr, nullptr); }),
              (Seen{NET_ERROR_BAD_LENGTH, {{"Invalid buffer length", 0, -1}}}));
    EXPECT_TRUE(sent == 0 && received == 77 && gCalls == 0);
}

TEST_F(NetTest, ConnectRetriesOnlyProtocolErrors) {
    PlatformCallsBack back;
    fh::netCalls().connect = [](int, const sockaddr *to, socklen_t length) {
        ++gCalls;
        const auto *platform = reinterpret_cast<const sockaddr_in *>(to);
        if (length != 16 || platform->sin_family != AF_INET || platform->sin_port != htons(9))
            return errno = EFAULT, -1;
        return gFailures-- > 0 ? (errno = gError, -1) : 0;
    };
    const NetAddressT to = loopback(9);
    const std::tuple<int, int, int32_t, int> rows[] = {
        {EPROTO, 10, 0, 11}, {EPROTO, 11, NET_ERROR_PROTOCOL, 11}, {EINTR, 1, I, 1}, {EINPROGRESS, 1, W, 1},
        {EAGAIN, 1, W, 1}, {ETIMEDOUT, 1, NET_ERROR_TIMEOUT, 1}, {ECONNREFUSED, 1, NET_ERROR_REFUSED, 1},
        {ENETUNREACH, 1, NET_ERROR_UNREACHABLE, 1}, {EACCES, 1, F, 1},
    };
    for (const auto &[error, failures, result, made] : rows) {
        inject(error, failures);
        const Traces fatal = {{"Fatal connect error: Permission denied", EACCES, -1}};
        EXPECT_EQ(seen([&] { return NetConnect(5, &to); }), (Seen{result, result == F ? fatal : Traces{}}))
            << strerror(error) << " x" << failures;
        EXPECT_EQ(gCalls, made) << strerror(error) << " x" << failures;
    }
    gCalls = 0;
    EXPECT_EQ(seen([&] { return NetConnect(-1, &to); }), (Seen{NET_ERROR_BAD_SOCKET, {}}));
    EXPECT_EQ(seen([&] { return NetConnect(5, nullptr); }), (Seen{F, {{"NULL address passed to NetConnect", 0, -1}}}));
    EXPECT_EQ(gCalls, 0);
}

TEST_F(NetTest, AcceptRepeatsOnlyInterruptions) {
    PlatformCallsBack back;
    Connection c;
    ASSERT_EQ(NetConnect(c.client, &c.address), NET_ERROR_NONE);
    ASSERT_TRUE(NetSetNonBlocking(c.listener));
    fh::netCalls().accept = [](int fd, sockaddr *from, socklen_t *length, int flags) {
        ++gCalls;
        return gFailures-- > 0 ? (errno = gError, -1) : fh::netPlatformCalls().accept(fd, from, length, flags);
    };
    inject(EINTR, 2);
    NetAddressT peer, client;
    memset(&peer, 0xEE, sizeof peer);
    ASSERT_EQ(NetAccept(&c.server, c.listener, &peer), NET_ERROR_NONE);
    ASSERT_TRUE(gCalls == 3);
    ASSERT_TRUE(NetGetLocalAddress(&client, c.client));
    EXPECT_TRUE(NetAddressEqual(&peer, &client, FALSE) && peer.aBytes[0] == 16 && peer.aBytes[31] == 0xEE);
    // Nothing taken from the non-blocking listener; close-on-exec all the same.
    EXPECT_TRUE((fcntl(c.server, F_GETFL) & O_NONBLOCK) == 0 && (fcntl(c.server, F_GETFD) & FD_CLOEXEC) != 0);

    const std::pair<int, int32_t> rows[] = {
        {EAGAIN, W}, {ECONNABORTED, NET_ERROR_ACCEPT_FAILED}, {ENOSR, NET_ERROR_ACCEPT_FAILED},
        {ENOBUFS, NET_ERROR_ACCEPT_FAILED}, {ENOMEM, NET_ERROR_ACCEPT_FAILED}, {EMFILE, F},
    };
    for (const auto &[error, result] : rows) {
        inject(error, 1);
        int32_t accepted = -5;
        const Traces traced = {{text("Fatal accept error: %s", strerror(error)), error, -1}};
        EXPECT_EQ(seen([&] { return NetAccept(&accepted, c.listener, nullptr); }),
                  (Seen{result, error == EAGAIN ? Traces{} : traced}));
        EXPECT_EQ(accepted, -5);
    }
    EXPECT_EQ(seen([&] { return NetAccept(&c.server, -1, nullptr); }),
              (Seen{NET_ERROR_BAD_SOCKET, {{"NetAccept called with invalid socket", 0, -1}}}));
}

// Options set on a stream socket read back as set, each to its own option.
TEST_F(NetTest, OptionsTakeEffectOnAStreamSocket) {
    int32_t socket = -1, sendSize = 0, receiveSize = 0;
    ASSERT_TRUE(NetOpen(&socket, NET_SOCKET_STREAM));
    BOOL reuse = -1;
    EXPECT_TRUE(NetGetReuseAddress(&reuse, socket) && reuse == 0);
    EXPECT_TRUE(NetSetReuseAddress(socket) && NetGetReuseAddress(&reuse, socket) && reuse == 1);
    linger lingering{};
    socklen_t length = sizeof lingering;
    ASSERT_TRUE(NetSetNoLinger(socket));
    getsockopt(socket, SOL_SOCKET, SO_LINGER, &lingering, &length);
    EXPECT_TRUE(lingering.l_onoff == 1 && lingering.l_linger == 0);
    ASSERT_TRUE(NetSetSendBufferSize(socket, 8192) && NetSetReceiveBufferSize(socket, 12288));
    ASSERT_TRUE(NetGetSendBufferSize(&sendSize, socket) && NetGetReceiveBufferSize(&receiveSize, socket));
    EXPECT_TRUE(sendSize >= 8192 && receiveSize >= 12288 && sendSize != receiveSize) << sendSize << " " << receiveSize;
    EXPECT_TRUE(NetSetNonBlocking(socket) && (fcntl(socket, F_GETFL) & O_NONBLOCK) != 0);
    EXPECT_TRUE(NetSetBlocking(socket) && (fcntl(socket, F_GETFL) & O_NONBLOCK) == 0);
    EXPECT_FALSE(NetIsConnected(socket) || NetGetReuseAddress(nullptr, socket) || NetTcpSetNoDelay());
    NetClose(&socket);
}

// Each option fails on a pipe with its own trace, and leaves what it would
// have read as it was.
TEST_F(NetTest, EachOptionTracesItsFailure) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const int32_t pipe = ends[0];
    NetAddressT address = loopback(0);
    BOOL reuse = 7;
    int32_t size = 77;
    const std::tuple<const char *, int32_t, std::function<BOOL()>> rows[] = {
        {"Failed to get reuse address on : %s", 2, [&] { return NetGetReuseAddress(&reuse, pipe); }},
        {"Failed to set reuse address on : %s", 2, [&] { return NetSetReuseAddress(pipe); }},
        {"Failed to set keepalive on : %s", 2, [&] { return NetSetKeepAlive(pipe); }},
        {"Failed to set no linger : %s", 2, [&] { return NetSetNoLinger(pipe); }},
        {"Failed to set send buffer size: %s", 2, [&] { return NetSetSendBufferSize(pipe, 1); }},
        {"Failed to get send buffer size: %s", 2, [&] { return NetGetSendBufferSize(&size, pipe); }},
        {"Failed to set receive buffer size: %s", 2, [&] { return NetSetReceiveBufferSize(pipe, 1); }},
        {"Failed to get receive buffer size: %s", 2, [&] { return NetGetReceiveBufferSize(&size, pipe); }},
        {"Failed to listen on socket: %s", 2, [&] { return NetListen(pipe, 1); }},
        {"Failed to get local address of socket: %s", 2, [&] { return NetGetLocalAddress(&address, pipe); }},
        {"Failed to get remote address of socket: %s", 2, [&] { return NetGetRemoteAddress(&address, pipe); }},
        {"Fatal error during address bind: %s", -1, [&] { return NetBind(pipe, &address); }},
    };
    for (const auto &[format, level, call] : rows) {
        EXPECT_EQ(seen(call), (Seen{FALSE, {{text(format, strerror(ENOTSOCK)), ENOTSOCK, level}}}));
        EXPECT_EQ(errno, ENOTSOCK);
    }
    const NetAddressT unbound = loopback(0);
    EXPECT_TRUE(memcmp(&address, &unbound, sizeof address) == 0 && reuse == 7 && size == 77);
    EXPECT_FALSE(NetSocketError(pipe)); // a failed read is no pending error
    close(ends[0]), close(ends[1]);
}

// The blocking mode fails at either step with its trace; the handle -1
// reaches no call at all.
TEST_F(NetTest, FlagFailuresAndTheAbsentHandle) {
    EXPECT_EQ(seen([&] { return NetSetNonBlocking(1000); }),
              (Seen{FALSE, {{"Failed to get socket flags: Bad file descriptor", EBADF, 2}}}));
    PlatformCallsBack back;
    fh::netCalls().fcntl = [](int, int command, int) { return command == F_SETFL ? (errno = EPERM, -1) : 0; };
    EXPECT_EQ(seen([&] { return NetSetBlocking(5); }),
              (Seen{FALSE, {{"Failed to set socket flags: Operation not permitted", EPERM, 2}}}));
    fh::netCalls() = {};
    NetAddressT address = loopback(0);
    int32_t size = 0;
    for (BOOL result :
         {NetSetNonBlocking(-1), NetSetBlocking(-1), NetSetReuseAddress(-1), NetSetKeepAlive(-1), NetSetNoLinger(-1),
          NetSetSendBufferSize(-1, 1), NetGetSendBufferSize(&size, -1), NetSocketError(-1), NetIsConnected(-1),
          NetBind(-1, &address), NetListen(-1, 1), NetGetLocalAddress(&address, -1), NetGetRemoteAddress(&address, -1)})
        EXPECT_FALSE(result);
}

class NetOpenTest : public LibraryTest {
  protected:
    void setTtl(const char *value) {
        mkdir((home() + "/config").c_str(), 0755);
        std::ofstream(home() + "/config/lmnmgr.cfg") << "[Network]\nTTL=" << value << "\n";
    }
    static int option(int32_t socket, int level, int name) {
        int value = -1;
        socklen_t length = sizeof value;
        getsockopt(socket, level, name, &value, &length);
        return value;
    }
    static int openDescriptors() {
        int count = 0;
        for (int fd = 0; fd < 4096; ++fd) count += fcntl(fd, F_GETFD) != -1 ? 1 : 0;
        return count;
    }
};

TEST_F(NetOpenTest, DatagramsBroadcastAndTakeTheirTimeToLive) {
    int32_t datagram = -1, stream = -1;
    ASSERT_TRUE(NetOpen(&datagram, NET_SOCKET_DATAGRAM));
    ASSERT_TRUE(NetOpen(&stream, NET_SOCKET_STREAM));
    EXPECT_TRUE(option(datagram, SOL_SOCKET, SO_BROADCAST) == 1);
    EXPECT_TRUE(option(stream, SOL_SOCKET, SO_BROADCAST) == 0);
    EXPECT_TRUE(option(datagram, SOL_SOCKET, SO_TYPE) == SOCK_DGRAM &&
                option(stream, SOL_SOCKET, SO_TYPE) == SOCK_STREAM);
    EXPECT_TRUE((fcntl(datagram, F_GETFD) & FD_CLOEXEC) != 0 && (fcntl(stream, F_GETFD) & FD_CLOEXEC) != 0);
    const int systemTtl = option(datagram, IPPROTO_IP, IP_TTL);
    for (const auto &[ttl, expected] : {std::pair{"7", 7}, {"-3", systemTtl}}) {
        setTtl(ttl);
        NetClose(&datagram);
        ASSERT_TRUE(NetOpen(&datagram, NET_SOCKET_DATAGRAM));
        EXPECT_EQ(option(datagram, IPPROTO_IP, IP_TTL), expected);
    }
    EXPECT_TRUE(NetClose(&datagram) && NetClose(&stream));
    EXPECT_TRUE(datagram == -1 && stream == -1);
    EXPECT_FALSE(NetClose(&datagram) || NetClose(nullptr));
    int32_t socket = 42;
    EXPECT_FALSE(NetOpen(&socket, 3) || NetOpen(nullptr, NET_SOCKET_STREAM) || socket != 42);
}

// A failure while opening leaves *socket alone and no descriptor open.
TEST_F(NetOpenTest, FailuresLeaveNothingOpen) {
    PlatformCallsBack back;
    setTtl("9");
    static int gFailingOption;
    fh::netCalls().setsockopt = [](int fd, int level, int name, const void *value, socklen_t length) {
        if (name == gFailingOption) return errno = ENOPROTOOPT, -1;
        return fh::netPlatformCalls().setsockopt(fd, level, name, value, length);
    };
    fh::netCalls().socket = [](int domain, int type, int protocol) {
        return gFailures-- > 0 ? (errno = gError, -1) : fh::netPlatformCalls().socket(domain, type, protocol);
    };
    const std::tuple<int, int, int32_t, const char *> rows[] = {
        {SO_BROADCAST, 0, NET_SOCKET_DATAGRAM, "Failed to set BROADCAST value: Protocol not available"},
        {IP_TTL, 0, NET_SOCKET_DATAGRAM, "Failed to set TTL value: Protocol not available"},
        {0, EMFILE, NET_SOCKET_DATAGRAM, "Failed to create UDP socket: Too many open files"},
        {0, EMFILE, NET_SOCKET_STREAM, "Failed tp create TCP socket: Too many open files"},
    };
    for (const auto &[option, error, kind, line] : rows) {
        gFailingOption = option;
        inject(error, error != 0 ? 1 : 0);
        const int before = openDescriptors();
        int32_t socket = 42;
        EXPECT_EQ(seen([&] { return NetOpen(&socket, kind); }),
                  (Seen{FALSE, {{line, error ? error : ENOPROTOOPT, -1}}}));
        EXPECT_TRUE(socket == 42) << line;
        EXPECT_TRUE(openDescriptors() == before) << line;
    }
    gFailingOption = 0;
    inject(EINTR, 2);
    int32_t socket = -1;
    ASSERT_TRUE(NetOpen(&socket, NET_SOCKET_DATAGRAM)); // the interrupted call is made again

    // A close that a signal interrupted has closed all the same: not repeated.
    fh::netCalls().close = [](int fd) { return ++gCalls, fh::netPlatformCalls().close(fd), errno = EINTR, -1; };
    gCalls = 0;
    const int32_t handle = socket;
    EXPECT_TRUE(NetClose(&socket));
    EXPECT_TRUE(socket == -1 && gCalls == 1 && fcntl(handle, F_GETFD) == -1);
    fh::netCalls().close = fh::netPlatformCalls().close;
    socket = handle;
    EXPECT_EQ(seen([&] { return NetClose(&socket); }),
              (Seen{FALSE, {{"Failed to close socket: Bad file descriptor", EBADF, -1}}}));
    EXPECT_EQ(socket, handle);
}

TEST_F(NetTest, MasksKeepTheirHighestSocket) {
    NetSelectMask *mask = nullptr, *copy = nullptr, *empty = nullptr;
    ASSERT_TRUE(NetInitializeSelectMask(&mask));
    ASSERT_TRUE(NetInitializeSelectMask(&empty));
    using Op = BOOL (*)(NetSelectMask *, int32_t);
    const std::tuple<Op, BOOL (*)(const NetSelectMask *, int32_t), Op> sets[] = {
        {NetAddReadSelect, NetIsReadSelectSet, NetRemoveReadSelect},
        {NetAddWriteSelect, NetIsWriteSelectSet, NetRemoveWriteSelect},
        {NetAddExceptionSelect, NetIsExceptionSelectSet, NetRemoveExceptionSelect}};
    for (const auto &[add, isSet, remove] : sets) EXPECT_TRUE(add(mask, 5) && isSet(mask, 5));
    EXPECT_FALSE(NetIsReadSelectSet(mask, 4) || NetIsReadSelectSet(mask, 6));
    for (const auto &[add, isSet, remove] : sets) EXPECT_TRUE(remove(mask, 5) && !isSet(mask, 5));
    EXPECT_TRUE(mask->iNfds == 6 && memcmp(&mask->oRead, &empty->oRead, 3 * sizeof(fd_set)) == 0);
    NetAddReadSelect(mask, 3);
    EXPECT_EQ(mask->iNfds, 6);
    NetAddWriteSelect(mask, 33); // bit 1 of word 1
    uint32_t word;
    memcpy(&word, reinterpret_cast<const char *>(&mask->oWrite) + 4, sizeof word);
    EXPECT_TRUE(mask->iNfds == 34 && word == 2u);

    ASSERT_TRUE(NetDuplicateSelectMask(&copy, mask));
    ASSERT_TRUE(memcmp(copy, mask, sizeof *mask) == 0);
    ASSERT_TRUE(NetCopySelectMask(mask, empty));
    ASSERT_TRUE(memcmp(mask, empty, sizeof *mask) == 0);
    EXPECT_FALSE(NetDuplicateSelectMask(&copy, nullptr) || NetCopySelectMask(nullptr, mask) ||
                 NetInitializeSelectMask(nullptr) || NetReleaseSelectMask(nullptr));
    EXPECT_FALSE(NetAddReadSelect(nullptr, 3) || NetAddReadSelect(copy, -1) || NetIsReadSelectSet(nullptr, 3));
    // Beyond the sets: refused with a word, never set, nothing changed.
    const std::string refused = "Socket " + std::to_string(FD_SETSIZE) + " does not fit into the read select mask of " +
                                std::to_string(FD_SETSIZE) + " sockets";
    EXPECT_EQ(seen([&] { return NetAddReadSelect(copy, FD_SETSIZE); }), (Seen{FALSE, {{refused, FD_SETSIZE, -1}}}));
    EXPECT_FALSE(NetIsReadSelectSet(copy, FD_SETSIZE) || NetRemoveReadSelect(copy, FD_SETSIZE) || copy->iNfds != 34);
    EXPECT_TRUE(NetReleaseSelectMask(&mask));
    EXPECT_TRUE(NetReleaseSelectMask(&copy));
    EXPECT_TRUE(NetReleaseSelectMask(&empty));
    EXPECT_EQ(mask, nullptr);
}

// The limit that select is given, for deadlines and spans.
TEST_F(NetTest, SelectWaitsAsLongAsAsked) {
    PlatformCallsBack back;
    static timeval gLimit;
    static bool gUnlimited;
    fh::netCalls().select = [](int, fd_set *, fd_set *, fd_set *, timeval *limit) {
        gUnlimited = limit == nullptr;
        gLimit = limit != nullptr ? *limit : timeval{-1, -1};
        return 0;
    };
    TIME_TIMEOUT *never = nullptr, *later = nullptr, *past = nullptr;
    TimeCreateTimeout(&never);
    TimeCreateAndSetTimeout(&later, 2 * 86400, 0);
    TimeCreateAndSetTimeout(&past, -1, 0);
    const Traces unlimited = {{"Wait for data (no timeout)", 0, 3}};
    for (const TIME_TIMEOUT *deadline : {static_cast<TIME_TIMEOUT *>(nullptr), never}) {
        EXPECT_EQ(seen([&] { return NetSelect(nullptr, nullptr, deadline); }), (Seen{NET_ERROR_TIMEOUT, unlimited}));
        EXPECT_TRUE(gUnlimited);
    }
    NetSelect(nullptr, nullptr, later);
    EXPECT_TRUE(gLimit.tv_sec == 86400);
    NetSelect(nullptr, nullptr, past);
    EXPECT_TRUE(gLimit.tv_sec == 0);
    EXPECT_TRUE(gLimit.tv_usec == 0);
    for (TIME_TIMEOUT *t : {never, later, past}) ObjReleaseInternal(&t);

    const std::tuple<int32_t, timeval, const char *> spans[] = {
        {-1, {-1, -1}, "Wait for data (no timeout)"}, {0, {0, 0}, "poll for data"},
        {2500, {2, 500000}, "Wait 2500 milliseconds for data"},
        {172800000, {172800, 0}, "Wait 172800000 milliseconds for data"}, // no cut
    };
    for (const auto &[milliseconds, limit, line] : spans) {
        EXPECT_EQ(seen([&] { return NetSelectRelative(nullptr, nullptr, milliseconds); }),
                  (Seen{NET_ERROR_TIMEOUT, {{line, 0, 3}}}));
        EXPECT_TRUE(gLimit.tv_sec == limit.tv_sec) << milliseconds;
        EXPECT_TRUE(gLimit.tv_usec == limit.tv_usec) << milliseconds;
    }
    fh::netCalls().select = [](int, fd_set *, fd_set *, fd_set *, timeval *) { return errno = gError, -1; };
    gError = EINTR;
    EXPECT_EQ(NetSelectRelative(nullptr, nullptr, 0), I);
    gError = EBADF;
    EXPECT_EQ(seen([&] { return NetSelectRelative(nullptr, nullptr, -1); }).traces.back(),
              (NetTrace{"Fatal network select error: Bad file descriptor", EBADF, -1}));
}

// Real sockets: the sets come back holding the ready ones; the diagnosis
// tells each set of each socket.
TEST_F(NetTest, SelectAndItsDiagnosis) {
    Connection c;
    ASSERT_TRUE(c.connect());
    ASSERT_EQ(NetTcpSend(nullptr, c.client, "x", 1), NET_ERROR_NONE);
    NetSelectMask *mask = nullptr, *work = nullptr;
    NetInitializeSelectMask(&mask);
    NetAddReadSelect(mask, c.client);
    NetAddWriteSelect(mask, c.client);
    NetAddReadSelect(mask, c.server);
    NetAddExceptionSelect(mask, c.server);
    NetDuplicateSelectMask(&work, mask);
    int32_t count = 0;
    ASSERT_TRUE(NetSelect(&count, work, nullptr) == NET_ERROR_NONE);
    ASSERT_TRUE(count == 2);
    EXPECT_TRUE(NetIsReadSelectSet(work, c.server));
    EXPECT_TRUE(NetIsWriteSelectSet(work, c.client));
    EXPECT_FALSE(NetIsReadSelectSet(work, c.client) || NetIsExceptionSelectSet(work, c.server));

    auto line = [](const char *format, long socket) {
        char l[64];
        snprintf(l, sizeof l, format, socket);
        return NetTrace{l, 0, 0};
    };
    char opening[32];
    snprintf(opening, sizeof opening, "NetCheckSelect(%p)", static_cast<void *>(mask));
    ASSERT_LT(c.client, c.server);
    EXPECT_EQ(seen([&] { return NetCheckSelect(mask); }),
              (Seen{TRUE,
                    {{opening, 0, -1},
                     line("Socket %ld has read select not set", c.client),
                     line("Socket %ld has write select set", c.client),
                     line("Socket %ld has read select set", c.server),
                     line("Socket %ld has exception select not set", c.server)}}));

    PlatformCallsBack back;
    fh::netCalls().select = [](int, fd_set *, fd_set *write, fd_set *, timeval *) {
        return write != nullptr ? (errno = EBADF, -1) : 0;
    };
    EXPECT_EQ(
        seen([&] { return NetCheckSelect(mask); }).traces[2],
        (NetTrace{"Fatal write select error on " + std::to_string(c.client) + ": Bad file descriptor", EBADF, -1}));
    NetCopySelectMask(mask, work);
    mask->iNfds = 0; // nothing to look at
    EXPECT_EQ(seen([&] { return NetCheckSelect(mask); }).traces.size(), 1u);
    NetReleaseSelectMask(&work);
    NetReleaseSelectMask(&mask);
}

} // namespace

// Addresses travel inside messages: a NET_ADDRESS from elsewhere reads back
// byte for byte through the reader of outside bytes.
TEST_F(NetTest, AddressObjectTravelsFromElsewhere) {
    ObjectTemplate *t = ObjTemplateNewInternal(sizeof(NetAddressT), NET_ADDRESS_MAGIC, NET_ADDRESS_FORMAT, nullptr);
    auto *address = static_cast<NetAddressT *>(ObjTemplateNewInstanceFromPool(t, nullptr));
    ASSERT_NE(address, nullptr);
    NetInitializeIpAddress(address, kLoopback, 20033);
    const int32_t size = ObjSerializedSize(address);
    std::vector<unsigned char> bytes(static_cast<size_t>(size));
    ASSERT_TRUE(ObjSerializeToMemory(address, bytes.data(), nullptr));
    NetAddressT *copy = nullptr;
    ASSERT_TRUE(ObjReconstructFromBytes(reinterpret_cast<void **>(&copy), bytes.data(), size));
    EXPECT_EQ(memcmp(copy->aBytes, address->aBytes, sizeof address->aBytes), 0);
    ObjReleaseInternal(&copy);
    ObjReleaseInternal(&address);
}
