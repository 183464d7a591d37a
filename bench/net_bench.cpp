// net_bench - the socket layer beside the raw calls it wraps, in one run:
//   - a 64-byte ping-pong over 127.0.0.1 with NetTcpSend and NetTcpReceive,
//     beside send and recv, against a child that echoes with the raw calls;
//   - 64 KiB blocking bulk with NetTcpSendBlocking to a child that drains,
//     and NetTcpReceiveBlocking from a child that floods, beside a raw loop
//     of send or recv with poll on would-block;
//   - NetSelect on a copy of a mask of 64 sockets with one ready, beside
//     select on copied fd_sets.
// The transfers take wall-clock time (half the work is in the child). The
// program and its children keep to one processor, so that every round trip
// is the same two switches and not a matter of where the scheduler put the
// child this time.
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "core/fhcore.h"
#include "ratios.h"

namespace {

constexpr int32_t kPing = 64;
constexpr int32_t kBulk = 64 * 1024;

// One connection on 127.0.0.1 whose far end a child serves.
struct Peer {
    int32_t socket = -1;
    pid_t pid = -1;
};
Peer gEcho, gDrain, gFlood;
std::vector<int> gPairs; // the 64 sockets of the select mask
NetSelectMask *gMask = nullptr;
NetSelectMask *gWork = nullptr;

// A child that serves its end of a new connection with serve; the parent's
// end, non-blocking when asked.
template <typename Serve> Peer connectPeer(bool nonBlocking, Serve serve) {
    int32_t listener = -1, client = -1, server = -1;
    NetAddressT address;
    NetInitializeIpAddress(&address, 0x7f000001, 0);
    NetOpen(&listener, NET_SOCKET_STREAM);
    NetBind(listener, &address);
    NetListen(listener, 1);
    NetGetLocalAddress(&address, listener);
    NetOpen(&client, NET_SOCKET_STREAM);
    NetConnect(client, &address);
    NetAccept(&server, listener, nullptr);
    NetClose(&listener);
    const pid_t pid = fork();
    if (pid == 0) {
        close(client);
        serve(server);
        _exit(0);
    }
    NetClose(&server);
    if (nonBlocking) NetSetNonBlocking(client);
    return {client, pid};
}

void echo(int fd) {
    char buffer[kPing];
    for (ssize_t got; (got = recv(fd, buffer, sizeof buffer, 0)) > 0;)
        if (send(fd, buffer, static_cast<size_t>(got), 0) != got) return;
}

void drain(int fd) {
    std::vector<char> buffer(kBulk);
    while (recv(fd, buffer.data(), buffer.size(), 0) > 0) {
    }
}

void flood(int fd) {
    std::vector<char> buffer(kBulk, 'x');
    while (send(fd, buffer.data(), buffer.size(), MSG_NOSIGNAL) > 0) {
    }
}

void pingPongLibrary(benchmark::State &state) {
    char out[kPing] = {}, in[kPing];
    for (auto _ : state) {
        int32_t count = 0;
        if (NetTcpSend(&count, gEcho.socket, out, kPing) != NET_ERROR_NONE || count != kPing)
            state.SkipWithError("send failed");
        for (int32_t got = 0; got < kPing; got += count)
            if (NetTcpReceive(&count, gEcho.socket, in + got, kPing - got) != NET_ERROR_NONE)
                return state.SkipWithError("receive failed");
    }
}

void pingPongRaw(benchmark::State &state) {
    char out[kPing] = {}, in[kPing];
    for (auto _ : state) {
        if (send(gEcho.socket, out, kPing, MSG_NOSIGNAL) != kPing) state.SkipWithError("send failed");
        for (ssize_t got = 0, count; got < kPing; got += count)
            if ((count = recv(gEcho.socket, in + got, kPing - got, 0)) <= 0) return state.SkipWithError("recv failed");
    }
}

void bulkSendLibrary(benchmark::State &state) {
    std::vector<char> bytes(kBulk, 'b');
    for (auto _ : state) {
        int32_t sent = 0;
        if (NetTcpSendBlocking(&sent, gDrain.socket, bytes.data(), kBulk, nullptr, nullptr, nullptr) != 0)
            state.SkipWithError("send failed");
    }
    state.SetBytesProcessed(state.iterations() * kBulk);
}

void bulkReceiveLibrary(benchmark::State &state) {
    std::vector<char> bytes(kBulk);
    for (auto _ : state) {
        int32_t received = 0;
        if (NetTcpReceiveBlocking(&received, gFlood.socket, bytes.data(), kBulk, nullptr, nullptr, nullptr) != 0)
            state.SkipWithError("receive failed");
    }
    state.SetBytesProcessed(state.iterations() * kBulk);
}

// The raw loop: the whole buffer, waiting in poll when the socket is full or
// empty.
template <typename Move> bool rawAll(int fd, short event, Move move) {
    for (int32_t done = 0; done < kBulk;) {
        const ssize_t moved = move(done);
        if (moved > 0) {
            done += static_cast<int32_t>(moved);
        } else if (moved == 0 || (errno != EAGAIN && errno != EINTR)) {
            return false;
        } else if (errno == EAGAIN) {
            pollfd one{fd, event, 0};
            poll(&one, 1, -1);
        }
    }
    return true;
}

void bulkSendRaw(benchmark::State &state) {
    std::vector<char> bytes(kBulk, 'b');
    const int fd = gDrain.socket;
    for (auto _ : state)
        if (!rawAll(fd, POLLOUT, [&](int32_t at) { return send(fd, bytes.data() + at, kBulk - at, MSG_NOSIGNAL); }))
            state.SkipWithError("send failed");
    state.SetBytesProcessed(state.iterations() * kBulk);
}

void bulkReceiveRaw(benchmark::State &state) {
    std::vector<char> bytes(kBulk);
    const int fd = gFlood.socket;
    for (auto _ : state)
        if (!rawAll(fd, POLLIN, [&](int32_t at) { return recv(fd, bytes.data() + at, kBulk - at, 0); }))
            state.SkipWithError("recv failed");
    state.SetBytesProcessed(state.iterations() * kBulk);
}

void selectLibrary(benchmark::State &state) {
    for (auto _ : state) {
        int32_t count = 0;
        NetCopySelectMask(gWork, gMask);
        if (NetSelect(&count, gWork, nullptr) != NET_ERROR_NONE || count != 1) state.SkipWithError("select failed");
    }
}

void selectRaw(benchmark::State &state) {
    fd_set read, write, exception;
    for (auto _ : state) {
        memcpy(&read, &gMask->oRead, sizeof read);
        memcpy(&write, &gMask->oWrite, sizeof write);
        memcpy(&exception, &gMask->oException, sizeof exception);
        if (select(gMask->iNfds, &read, &write, &exception, nullptr) != 1) state.SkipWithError("select failed");
    }
}

constexpr bench::Entry kBenchmarks[] = {
    {"64 B ping-pong, NetTcpSend/Receive", pingPongLibrary, true},
    {"64 B ping-pong, send/recv", pingPongRaw, true},
    {"64 KiB NetTcpSendBlocking", bulkSendLibrary, true},
    {"64 KiB send loop with poll", bulkSendRaw, true},
    {"64 KiB NetTcpReceiveBlocking", bulkReceiveLibrary, true},
    {"64 KiB recv loop with poll", bulkReceiveRaw, true},
    {"NetSelect, copy of 64-socket mask", selectLibrary},
    {"select, copied fd_sets", selectRaw},
};

// At least 95% of the raw throughput is at most 1/0.95 of its time.
constexpr bench::Comparison kComparisons[] = {
    {"64 B ping-pong, NetTcpSend/Receive", "64 B ping-pong, send/recv", bench::Aim::RatioAtMost, 1.05},
    {"64 KiB NetTcpSendBlocking", "64 KiB send loop with poll", bench::Aim::RatioAtMost, 1.0 / 0.95},
    {"64 KiB NetTcpReceiveBlocking", "64 KiB recv loop with poll", bench::Aim::RatioAtMost, 1.0 / 0.95},
    {"NetSelect, copy of 64-socket mask", "select, copied fd_sets", bench::Aim::RatioAtMost, 1.2},
};

} // namespace

int main(int argc, char **argv) {
    if (!ContextInitialize()) return 1;
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(0, &one);
    if (sched_setaffinity(0, sizeof one, &one) != 0) return 1;
    gEcho = connectPeer(false, echo);
    gDrain = connectPeer(true, drain);
    gFlood = connectPeer(true, flood);
    NetInitializeSelectMask(&gMask);
    NetInitializeSelectMask(&gWork);
    for (int i = 0; i < 32; ++i) {
        int ends[2];
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) return 1;
        gPairs.insert(gPairs.end(), {ends[0], ends[1]});
        NetAddReadSelect(gMask, ends[0]);
        NetAddReadSelect(gMask, ends[1]);
    }
    if (send(gPairs[17], "!", 1, 0) != 1) return 1; // its partner stays readable

    const int status = bench::run(argc, argv, kBenchmarks, kComparisons);

    for (Peer *peer : {&gEcho, &gDrain, &gFlood}) {
        NetClose(&peer->socket);
        kill(peer->pid, SIGTERM);
        waitpid(peer->pid, nullptr, 0);
    }
    for (int fd : gPairs) close(fd);
    NetReleaseSelectMask(&gWork);
    NetReleaseSelectMask(&gMask);
    ContextReleaseThread();
    return status;
}
