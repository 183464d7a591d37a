// msgreceive_bench - the receive side of messaging, beside its peers:
//   - a round trip of 100 bytes from this process through a real fhcmgr to
//     a child and back, MsgSendObject and MsgReceive at both ends, beside a
//     raw TCP ping-pong of 100 bytes with a child, and beside a ZeroMQ
//     REQ/REP round trip of 100 bytes over TCP on loopback;
//   - an idle process with 1,000 data channels, one peer writing one frame:
//     the time to MsgReceive's return, beside a bare poll over the same
//     sockets and the read of one byte.
// The round trips take wall-clock time (half the work is in the child);
// the program and its children keep to one processor.
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zmq.h>

#include <fstream>
#include <initializer_list>
#include <string>
#include <vector>

#include "core/fhcore.h"
#include "messages/msgcmgr.h"
#include "messages/msgmsg.h"
#include "ratios.h"

namespace {

constexpr int32_t kSize = 100;
constexpr int32_t kEcho = 22, kSelf = 21;
constexpr int32_t kRound = 50020;
constexpr int kChannels = 1000;

pid_t gManager = -1, gEcho = -1, gRawEcho = -1, gZmqEcho = -1;
int32_t gRaw = -1;
MSG_ADDRESS *gEchoAddress = nullptr;
OBJ_DATA_FIELD *gBody = nullptr;
void *gZmq = nullptr, *gReq = nullptr;
std::string gZmqEndpoint;

int32_t freePort() {
    int32_t probe = -1;
    NetAddressT address{};
    NetInitializeIpAddress(&address, 0x7f000001, 0);
    NetOpen(&probe, NET_SOCKET_STREAM);
    NetBind(probe, &address);
    NetGetLocalAddress(&address, probe);
    NetClose(&probe);
    return NetGetIpPort(&address);
}

// The manager on a free port under a home of its own, and the child that
// answers each message with its body; this process joins as kSelf.
bool startManager() {
    char home[] = "/tmp/fhcore-msgreceive-bench-XXXXXX";
    if (mkdtemp(home) == nullptr) return false;
    setenv("FHHOME", home, 1);
    PathInitialize(); // the home is read at start-up
    mkdir((std::string(home) + "/config").c_str(), 0755);
    std::ofstream(std::string(home) + "/config/configure.cfg") << "[Machine]\nComms TcpPort=" << freePort() << "\n";
    gManager = fork();
    if (gManager == 0) {
        execl(FHCORE_BIN_DIR "/fhcmgr", "fhcmgr", "2", static_cast<char *>(nullptr));
        _exit(127);
    }
    gEcho = fork();
    if (gEcho == 0) {
        if (!ProcSetId(kEcho) || !MsgIpcConnect(0)) _exit(3);
        for (MSG_MESSAGE *m = nullptr;; ObjReleaseInternal(&m)) {
            if (!MsgReceive(&m, nullptr)) continue;
            if (m->iType == MSG_LOST_RECEIVE_QUEUE_MSG) _exit(0);
            if (m->iType == kRound) MsgSendReply(m, kRound, m->oObject);
        }
    }
    if (!ProcSetId(kSelf) || !MsgIpcConnect(0)) return false;
    MsgCreateAddress(&gEchoAddress, SysLocalMachineName(), kEcho);
    // The child may join after this process: until it answers, the
    // manager says it is unknown.
    for (int attempt = 0; attempt < 500; ++attempt) {
        MsgSendObject(gEchoAddress, kRound, gBody);
        for (MSG_MESSAGE *m = nullptr; MsgReceive(&m, nullptr); ObjReleaseInternal(&m)) {
            if (m->iType == kRound) return ObjReleaseInternal(&m), true;
            if (m->iType == CMGR_PROCESS_UNREACHABLE_MSG) break;
        }
        TIME_TIMEOUT pause{};
        const TIME_OFFSET span{0, 10};
        TimeSetTimeoutFromOffset(&pause, &span);
        MsgWait(&pause); // the child is starting
    }
    return false;
}

// A child that returns every 100 bytes it gets; this end's socket.
int32_t startRawEcho() {
    int32_t listener = -1, mine = -1, theirs = -1;
    NetAddressT address{};
    NetInitializeIpAddress(&address, 0x7f000001, 0);
    NetOpen(&listener, NET_SOCKET_STREAM);
    NetBind(listener, &address);
    NetListen(listener, 1);
    NetGetLocalAddress(&address, listener);
    NetOpen(&mine, NET_SOCKET_STREAM);
    NetConnect(mine, &address);
    NetAccept(&theirs, listener, nullptr);
    NetClose(&listener);
    gRawEcho = fork();
    if (gRawEcho == 0) {
        char buffer[kSize];
        for (;;) {
            size_t have = 0;
            while (have < sizeof buffer) {
                const ssize_t n = recv(theirs, buffer + have, sizeof buffer - have, 0);
                if (n <= 0) _exit(0);
                have += static_cast<size_t>(n);
            }
            if (send(theirs, buffer, sizeof buffer, 0) != kSize) _exit(0);
        }
    }
    NetClose(&theirs);
    return mine;
}

void startZmq() {
    gZmqEndpoint = "tcp://127.0.0.1:" + std::to_string(freePort());
    gZmqEcho = fork();
    if (gZmqEcho == 0) {
        void *context = zmq_ctx_new(), *rep = zmq_socket(context, ZMQ_REP);
        zmq_bind(rep, gZmqEndpoint.c_str());
        char buffer[kSize];
        while (zmq_recv(rep, buffer, sizeof buffer, 0) >= 0 && zmq_send(rep, buffer, sizeof buffer, 0) >= 0) {
        }
        _exit(0);
    }
    gZmq = zmq_ctx_new();
    gReq = zmq_socket(gZmq, ZMQ_REQ);
    zmq_connect(gReq, gZmqEndpoint.c_str());
}

// Nanoseconds that the processes have run on a processor so far, from the
// scheduler's own count: what a round trip costs in processor time, which
// other load on the machine does not inflate as it does wall-clock time.
double runNanoseconds(std::initializer_list<pid_t> pids) {
    double total = 0;
    for (pid_t pid : pids) {
        std::ifstream stat("/proc/" + std::to_string(pid) + "/schedstat");
        double ran = 0;
        stat >> ran;
        total += ran;
    }
    return total;
}

// Reports the processor time per iteration of the processes as a counter.
struct ProcessorTime {
    benchmark::State &state;
    std::initializer_list<pid_t> pids;
    double start = runNanoseconds(pids);
    ~ProcessorTime() {
        state.counters["cpu_ns"] =
            benchmark::Counter(runNanoseconds(pids) - start, benchmark::Counter::kAvgIterations);
    }
};

void BM_ManagerRoundTrip(benchmark::State &state) {
    const ProcessorTime cpu{state, {getpid(), gManager, gEcho}};
    for (auto _ : state) {
        if (!MsgSendObject(gEchoAddress, kRound, gBody)) return state.SkipWithError("send failed");
        MSG_MESSAGE *m = nullptr;
        while (!MsgReceive(&m, nullptr)) {
        }
        if (m->iType != kRound) return state.SkipWithError("unexpected message");
        ObjReleaseInternal(&m);
    }
}

void BM_RawPingPong(benchmark::State &state) {
    const ProcessorTime cpu{state, {getpid(), gRawEcho}};
    char buffer[kSize] = {};
    for (auto _ : state) {
        if (send(gRaw, buffer, sizeof buffer, 0) != kSize) return state.SkipWithError("send failed");
        for (size_t have = 0; have < sizeof buffer;) {
            const ssize_t n = recv(gRaw, buffer + have, sizeof buffer - have, 0);
            if (n <= 0) return state.SkipWithError("recv failed");
            have += static_cast<size_t>(n);
        }
    }
}

void BM_ZmqRoundTrip(benchmark::State &state) {
    char buffer[kSize] = {};
    for (auto _ : state) {
        if (zmq_send(gReq, buffer, sizeof buffer, 0) < 0 || zmq_recv(gReq, buffer, sizeof buffer, 0) < 0)
            return state.SkipWithError("zmq failed");
    }
}

// ---- An idle process with many channels ----

std::vector<int> gFar;           // the peers' ends
std::vector<pollfd> gBare;       // the baseline's own sockets, one pair per channel
std::vector<int> gBareFar;
std::vector<unsigned char> gFrame; // one data channel frame of 100 bytes of body

// The baseline's pairs, for good; and the limit on descriptors raised.
bool startBare() {
    const rlimit wanted{4 * kChannels + 256, 4 * kChannels + 256};
    rlimit now{};
    getrlimit(RLIMIT_NOFILE, &now);
    if (now.rlim_cur < wanted.rlim_cur && setrlimit(RLIMIT_NOFILE, &wanted) != 0) return false;
    for (int i = 0; i < kChannels; ++i) {
        int bare[2];
        if (socketpair(AF_UNIX, SOCK_STREAM, 0, bare) != 0) return false;
        gBare.push_back({bare[0], POLLIN, 0});
        gBareFar.push_back(bare[1]);
    }
    return true;
}

// The channels live only while their benchmark runs, so that the other
// figures pay nothing for them.
struct IdleChannels {
    std::vector<MSG_ADDRESS *> addresses;
    IdleChannels() {
        for (int i = 0; i < kChannels; ++i) {
            int fds[2];
            if (socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0) return;
            MSG_CHANNEL *channel = nullptr;
            if (!MsgChannelCreateInternal(&channel, fds[0], nullptr, FALSE, TRUE, FALSE, FALSE, FALSE)) return;
            MSG_ADDRESS *address = nullptr;
            MsgChannelAddress(&address, channel);
            ObjReleaseInternal(&channel);
            addresses.push_back(address);
            gFar.push_back(fds[1]);
        }
        MSG_PACKET *packet = nullptr;
        MsgCreatePacket(&packet, addresses.front(), MsgLocalAddress(), kRound, gBody);
        const auto *image = static_cast<const unsigned char *>(packet->oImage.pData);
        gFrame.assign(image + 192, image + packet->oImage.iSize);
        ObjReleaseInternal(&packet);
    }
    ~IdleChannels() {
        for (MSG_ADDRESS *address : addresses) MsgChannelClose(&address);
        for (int fd : gFar) close(fd);
        gFar.clear();
    }
};

void BM_IdleChannelsReceive(benchmark::State &state) {
    const IdleChannels channels;
    if (channels.addresses.size() != static_cast<size_t>(kChannels)) return state.SkipWithError("no channels");
    size_t next = 0;
    for (auto _ : state) {
        const int far = gFar[next++ % gFar.size()];
        if (write(far, gFrame.data(), gFrame.size()) != static_cast<ssize_t>(gFrame.size()))
            return state.SkipWithError("write failed");
        MSG_MESSAGE *m = nullptr;
        while (!MsgReceive(&m, nullptr)) {
        }
        ObjReleaseInternal(&m);
    }
}

void BM_IdleBarePoll(benchmark::State &state) {
    size_t next = 0;
    for (auto _ : state) {
        const size_t which = next++ % gBare.size();
        if (write(gBareFar[which], "x", 1) != 1) return state.SkipWithError("write failed");
        if (poll(gBare.data(), gBare.size(), -1) != 1) return state.SkipWithError("poll failed");
        for (pollfd &p : gBare)
            if (p.revents & POLLIN) {
                char byte;
                if (read(p.fd, &byte, 1) != 1) return state.SkipWithError("read failed");
            }
    }
}

constexpr bench::Entry kBenchmarks[] = {
    {"raw TCP ping-pong, 100 bytes", BM_RawPingPong, true},
    {"ZeroMQ REQ/REP round trip, 100 bytes", BM_ZmqRoundTrip, true},
    {"round trip through fhcmgr, 100 bytes", BM_ManagerRoundTrip, true},
    {"poll over 1,000 idle sockets, one ready", BM_IdleBarePoll, true},
    {"MsgReceive with 1,000 idle channels, one frame", BM_IdleChannelsReceive, true},
};

constexpr bench::Comparison kComparisons[] = {
    {"round trip through fhcmgr, 100 bytes", "raw TCP ping-pong, 100 bytes", bench::Aim::RatioAtMost, 2.5},
    {"round trip through fhcmgr, 100 bytes", "ZeroMQ REQ/REP round trip, 100 bytes", bench::Aim::RatioBelow, 1.0},
    {"MsgReceive with 1,000 idle channels, one frame", "poll over 1,000 idle sockets, one ready",
     bench::Aim::NanosecondsBelow, 1e6},
};

} // namespace

int main(int argc, char **argv) {
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(sched_getcpu(), &one);
    sched_setaffinity(0, sizeof one, &one);
    signal(SIGPIPE, SIG_IGN);
    if (!ContextInitialize()) return 1;
    std::vector<unsigned char> bytes(kSize, 'r');
    gBody = ObjDataFieldNew(bytes.data(), kSize);
    if (!startManager() || !startBare()) {
        fprintf(stderr, "msgreceive_bench: could not set up the manager or the channels\n");
        return 1;
    }
    gRaw = startRawEcho();
    startZmq();
    const int status = bench::run(argc, argv, kBenchmarks, kComparisons);
    zmq_close(gReq);
    zmq_ctx_term(gZmq);
    NetClose(&gRaw);
    ObjReleaseInternal(&gEchoAddress);
    ObjReleaseInternal(&gBody);
    ContextReleaseThread();
    for (pid_t pid : {gRawEcho, gZmqEcho, gEcho, gManager}) {
        kill(pid, SIGTERM);
        waitpid(pid, nullptr, 0);
    }
    return status;
}
