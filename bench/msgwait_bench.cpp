// msgwait_bench - what the message wait adds to a round trip: 100 bytes to
// a child through a real fhcmgr and back, taken with
// MsgWaitInterchangeInternal (send, then a wait for the reply type from that
// address, the handlers and default handlers standing by), beside the same
// round trip with MsgSendObject and MsgReceive. The figures take wall-clock
// time (half the work is in the child); the program and its children keep
// to one processor.
#include <sched.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
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

pid_t gManager = -1, gEcho = -1;
MSG_ADDRESS *gEchoAddress = nullptr;
OBJ_DATA_FIELD *gBody = nullptr;

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
// answers each message with its body; this process joins as kSelf once the
// child answers.
bool startManager() {
    char home[] = "/tmp/fhcore-msgwait-bench-XXXXXX";
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
    // Until the child has joined, the manager says it can't be reached,
    // which ends the wait at once.
    TIME_TIMEOUT *limit = nullptr;
    for (int attempt = 0; attempt < 500; ++attempt) {
        if (MsgWaitInterchangeInternal(nullptr, gEchoAddress, kRound, gBody, kRound, 0)) return true;
        TimeCreateAndSetTimeout(&limit, 0, 10);
        MsgWaitPollWithTimeout(limit); // the child is starting
        ObjReleaseInternal(&limit);
    }
    return false;
}

void BM_SendReceive(benchmark::State &state) {
    for (auto _ : state) {
        if (!MsgSendObject(gEchoAddress, kRound, gBody)) return state.SkipWithError("send failed");
        MSG_MESSAGE *m = nullptr;
        while (!MsgReceive(&m, nullptr)) {
        }
        if (m->iType != kRound) return state.SkipWithError("unexpected message");
        ObjReleaseInternal(&m);
    }
}

void BM_Interchange(benchmark::State &state) {
    for (auto _ : state) {
        void *reply = nullptr;
        if (!MsgWaitInterchangeInternal(&reply, gEchoAddress, kRound, gBody, kRound, OBJ_DATA_FIELD_MAGIC))
            return state.SkipWithError("interchange failed");
        ObjReleaseInternal(&reply);
    }
}

constexpr bench::Entry kBenchmarks[] = {
    {"MsgSendObject + MsgReceive round trip through fhcmgr, 100 bytes", BM_SendReceive, true},
    {"MsgWaitInterchangeInternal round trip through fhcmgr, 100 bytes", BM_Interchange, true},
};

constexpr bench::Comparison kComparisons[] = {
    {"MsgWaitInterchangeInternal round trip through fhcmgr, 100 bytes",
     "MsgSendObject + MsgReceive round trip through fhcmgr, 100 bytes", bench::Aim::RatioAtMost, 1.1},
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
    const bool started = startManager();
    const int status = started ? bench::run(argc, argv, kBenchmarks, kComparisons) : 1;
    if (!started) fprintf(stderr, "msgwait_bench: could not set up the manager and its child\n");
    ObjReleaseInternal(&gEchoAddress);
    ObjReleaseInternal(&gBody);
    ContextReleaseThread();
    for (pid_t pid : {gEcho, gManager}) {
        kill(pid, SIGTERM);
        waitpid(pid, nullptr, 0);
    }
    return status;
}
