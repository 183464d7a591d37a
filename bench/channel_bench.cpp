// channel_bench - data channels beside raw TCP, and the communication
// manager's rate, in one run:
//   - 64 KiB messages one way over a blocking data channel (a packet made
//     once, dispatched again and again; the child reads each with
//     MsgChannelReceiveData into a packet of its own), beside send of the
//     same bytes to a child that recv's them;
//   - a 100-byte ping-pong over data channels at both ends, beside send and
//     recv at both ends;
//   - packets through a real fhcmgr: a batch of 64 sent to this process's
//     own id and read back, per packet; beside the raw ping-pong, reported.
// The transfers take wall-clock time (half the work is in the child), and
// the program and its children keep to one processor, as net_bench does.
#include <sched.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "core/fhcore.h"
#include "messages/msgmsg.h"
#include "ratios.h"

namespace {

constexpr int32_t kBulk = 64 * 1024;
constexpr int32_t kPing = 100;
constexpr int kBatch = 64;
// Socket buffers of both ends, fixed: what one side may run ahead of the
// other is then a few messages, so that each figure carries the reader's
// work too, and no backlog spills into the next benchmark's time.
constexpr int32_t kSocketBuffer = 256 * 1024;

struct Peer {
    int32_t socket = -1;
    pid_t pid = -1;
};
Peer gRawSink, gChannelSink, gRawEcho, gChannelEcho;
MSG_CHANNEL *gBulkChannel = nullptr, *gPingChannel = nullptr;
MSG_PACKET *gBulkPacket = nullptr, *gPingPacket = nullptr;
pid_t gManager = -1;

// A connected pair: this end's socket, and the child's, which runs body.
template <typename Body> Peer spawn(Body body) {
    // TCP on 127.0.0.1, as a channel runs: a listener for the child's end.
    int32_t listener = -1, mine = -1;
    NetAddressT address{};
    NetInitializeIpAddress(&address, 0x7f000001, 0);
    NetOpen(&listener, NET_SOCKET_STREAM);
    NetSetSendBufferSize(listener, kSocketBuffer);
    NetSetReceiveBufferSize(listener, kSocketBuffer);
    NetBind(listener, &address);
    NetListen(listener, 1);
    NetGetLocalAddress(&address, listener);
    NetOpen(&mine, NET_SOCKET_STREAM);
    NetSetSendBufferSize(mine, kSocketBuffer);
    NetSetReceiveBufferSize(mine, kSocketBuffer);
    NetConnect(mine, &address);
    int32_t theirs = -1;
    NetAccept(&theirs, listener, nullptr);
    NetClose(&listener);
    const pid_t pid = fork();
    if (pid == 0) {
        NetClose(&mine);
        body(theirs);
        _exit(0);
    }
    NetClose(&theirs);
    return {mine, pid};
}

void rawSink(int32_t socket) {
    std::vector<char> buffer(kBulk);
    while (recv(socket, buffer.data(), buffer.size(), 0) > 0) {
    }
}

void channelSink(int32_t socket) {
    MSG_CHANNEL *channel = nullptr;
    MsgChannelCreateInternal(&channel, socket, nullptr, TRUE, FALSE, FALSE, FALSE, FALSE);
    for (MSG_PACKET *packet = nullptr; !MsgChannelIsDown(channel);)
        if (MsgChannelReceiveData(&packet, channel)) ObjReleaseInternal(&packet);
}

void rawEcho(int32_t socket) {
    char buffer[kPing];
    for (;;) {
        size_t have = 0;
        while (have < sizeof buffer) {
            const ssize_t n = recv(socket, buffer + have, sizeof buffer - have, 0);
            if (n <= 0) return;
            have += static_cast<size_t>(n);
        }
        if (send(socket, buffer, sizeof buffer, 0) != kPing) return;
    }
}

void channelEcho(int32_t socket) {
    MSG_CHANNEL *channel = nullptr;
    MsgChannelCreateInternal(&channel, socket, nullptr, TRUE, FALSE, FALSE, FALSE, FALSE);
    for (MSG_PACKET *packet = nullptr; !MsgChannelIsDown(channel);)
        if (MsgChannelReceiveData(&packet, channel)) MsgChannelDispatch(channel, &packet);
}

// A packet of a body of size bytes in all on the wire of a data channel.
MSG_PACKET *packetOfWireSize(MSG_CHANNEL *channel, int32_t size) {
    MSG_ADDRESS *address = nullptr;
    MsgChannelAddress(&address, channel);
    // Frame: 8 bytes of head, a lead byte, magic, format and the text.
    std::string text(static_cast<size_t>(size - 40), 'p');
    OBJ_STRING *body = ObjStringNew(text.c_str());
    MSG_PACKET *packet = nullptr;
    MsgCreatePacket(&packet, address, MsgLocalAddress(), MSG_PING_MSG, body);
    ObjReleaseInternal(&body);
    ObjReleaseInternal(&address);
    return packet;
}

int32_t wireSize(const MSG_PACKET *packet) { return packet->oImage.iSize - 192; }

void BM_RawBulk(benchmark::State &state) {
    std::vector<char> bytes(static_cast<size_t>(wireSize(gBulkPacket)), 'b');
    for (auto _ : state) {
        for (size_t sent = 0; sent < bytes.size();) {
            const ssize_t n = send(gRawSink.socket, bytes.data() + sent, bytes.size() - sent, 0);
            if (n <= 0) return state.SkipWithError("send failed");
            sent += static_cast<size_t>(n);
        }
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(bytes.size()));
}

void BM_ChannelBulk(benchmark::State &state) {
    for (auto _ : state) {
        ObjIncRefCount(gBulkPacket);
        MSG_PACKET *packet = gBulkPacket;
        if (!MsgChannelDispatch(gBulkChannel, &packet)) return state.SkipWithError("dispatch failed");
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * wireSize(gBulkPacket));
}

void BM_RawPingPong(benchmark::State &state) {
    char buffer[kPing] = {};
    for (auto _ : state) {
        if (send(gRawEcho.socket, buffer, sizeof buffer, 0) != kPing) return state.SkipWithError("send failed");
        for (size_t have = 0; have < sizeof buffer;) {
            const ssize_t n = recv(gRawEcho.socket, buffer + have, sizeof buffer - have, 0);
            if (n <= 0) return state.SkipWithError("recv failed");
            have += static_cast<size_t>(n);
        }
    }
}

void BM_ChannelPingPong(benchmark::State &state) {
    for (auto _ : state) {
        ObjIncRefCount(gPingPacket);
        MSG_PACKET *packet = gPingPacket, *back = nullptr;
        if (!MsgChannelDispatch(gPingChannel, &packet)) return state.SkipWithError("dispatch failed");
        while (!MsgChannelReceiveData(&back, gPingChannel))
            if (MsgChannelIsDown(gPingChannel)) return state.SkipWithError("channel down");
        ObjReleaseInternal(&back);
    }
}

void BM_ManagerPackets(benchmark::State &state) {
    MSG_PACKET *packet = nullptr;
    MsgCreatePacket(&packet, MsgLocalAddress(), MsgLocalAddress(), MSG_PING_MSG, nullptr);
    auto *ipc = static_cast<MSG_CHANNEL *>(gtLmContext.oMsgIpcChannel);
    for (auto _ : state) {
        for (int i = 0; i < kBatch; ++i) {
            ObjIncRefCount(packet);
            MSG_PACKET *one = packet;
            if (!MsgDispatch(&one)) return state.SkipWithError("dispatch failed");
        }
        for (int got = 0; got < kBatch;) {
            MSG_PACKET *back = nullptr;
            if (MsgChannelReceiveData(&back, ipc)) ++got, ObjReleaseInternal(&back);
            else if (MsgChannelIsDown(ipc)) return state.SkipWithError("manager gone");
        }
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kBatch);
    ObjReleaseInternal(&packet);
}

constexpr bench::Entry kBenchmarks[] = {
    {"raw TCP send, 64 KiB", BM_RawBulk, true},
    {"data channel, 64 KiB message", BM_ChannelBulk, true},
    {"raw TCP ping-pong, 100 bytes", BM_RawPingPong, true},
    {"data channel ping-pong, 100 bytes", BM_ChannelPingPong, true},
    {"64 packets to self through fhcmgr", BM_ManagerPackets, true},
};

constexpr bench::Comparison kComparisons[] = {
    {"data channel, 64 KiB message", "raw TCP send, 64 KiB", bench::Aim::RatioAtMost, 1.25},
    {"data channel ping-pong, 100 bytes", "raw TCP ping-pong, 100 bytes", bench::Aim::Report, 0},
    {"64 packets to self through fhcmgr", "raw TCP ping-pong, 100 bytes", bench::Aim::Report, 0},
};

// The manager, on a free port under a home of its own; this process joins
// it as id 21. False when it did not come up.
bool startManager() {
    char home[] = "/tmp/fhcore-channel-bench-XXXXXX";
    if (mkdtemp(home) == nullptr) return false;
    setenv("FHHOME", home, 1);
    PathInitialize(); // the home is read at start-up
    int32_t probe = -1;
    NetAddressT address{};
    NetInitializeIpAddress(&address, 0x7f000001, 0);
    NetOpen(&probe, NET_SOCKET_STREAM);
    NetBind(probe, &address);
    NetGetLocalAddress(&address, probe);
    NetClose(&probe);
    mkdir((std::string(home) + "/config").c_str(), 0755);
    std::ofstream(std::string(home) + "/config/configure.cfg")
        << "[Machine]\nComms TcpPort=" << NetGetIpPort(&address) << "\n";
    gManager = fork();
    if (gManager == 0) {
        execl(FHCORE_BIN_DIR "/fhcmgr", "fhcmgr", "2", static_cast<char *>(nullptr));
        _exit(127);
    }
    return ProcSetId(21) && MsgIpcConnect(0);
}

} // namespace

int main(int argc, char **argv) {
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(sched_getcpu(), &one);
    sched_setaffinity(0, sizeof one, &one);
    signal(SIGPIPE, SIG_IGN);
    if (!ContextInitialize() || !startManager()) return 1;
    gRawSink = spawn(rawSink);
    gChannelSink = spawn(channelSink);
    gRawEcho = spawn(rawEcho);
    gChannelEcho = spawn(channelEcho);
    MsgChannelCreateInternal(&gBulkChannel, gChannelSink.socket, nullptr, TRUE, FALSE, FALSE, FALSE, FALSE);
    MsgChannelCreateInternal(&gPingChannel, gChannelEcho.socket, nullptr, TRUE, FALSE, FALSE, FALSE, FALSE);
    gBulkPacket = packetOfWireSize(gBulkChannel, kBulk);
    gPingPacket = packetOfWireSize(gPingChannel, kPing);
    const int status = bench::run(argc, argv, kBenchmarks, kComparisons);
    for (Peer *peer : {&gRawSink, &gRawEcho}) NetClose(&peer->socket);
    ObjReleaseInternal(&gBulkPacket);
    ObjReleaseInternal(&gPingPacket);
    ContextReleaseThread();
    for (pid_t pid : {gRawSink.pid, gChannelSink.pid, gRawEcho.pid, gChannelEcho.pid, gManager}) {
        kill(pid, SIGTERM);
        waitpid(pid, nullptr, 0);
    }
    return status;
}
