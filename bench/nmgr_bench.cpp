// nmgr_bench - a round trip of 100 bytes between two machines on one host,
// alpha (127.0.0.1) and beta (127.0.0.2), each with its fhcmgr and fhnmgr:
// from this process on alpha to a child on beta and back, through two
// communication managers and two network managers each way; beside the
// round trip through alpha's fhcmgr alone to a child on alpha.
// MsgSendObject and MsgReceive at both ends; wall-clock time, since most of
// the work is in the other processes.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
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
constexpr int32_t kSelf = 21, kEcho = 22;
constexpr int32_t kRound = 50020;

std::vector<pid_t> gChildren; // daemons and echoes, in the order started
MSG_ADDRESS *gLocal = nullptr, *gRemote = nullptr;
OBJ_DATA_FIELD *gBody = nullptr;

// A port free at both addresses a moment ago (before the library starts).
int freePort() {
    for (int attempt = 0; attempt < 50; ++attempt) {
        int port = 0;
        bool free = true;
        for (const char *address : {"127.0.0.1", "127.0.0.2"}) {
            const int s = socket(AF_INET, SOCK_STREAM, 0);
            sockaddr_in at{};
            at.sin_family = AF_INET;
            at.sin_port = htons(static_cast<uint16_t>(port));
            inet_pton(AF_INET, address, &at.sin_addr);
            socklen_t length = sizeof at;
            free = free && bind(s, reinterpret_cast<sockaddr *>(&at), sizeof at) == 0 &&
                   getsockname(s, reinterpret_cast<sockaddr *>(&at), &length) == 0;
            port = ntohs(at.sin_port);
            close(s);
        }
        if (free) return port;
    }
    return 0;
}

// A machine's home: its name and ports, and the other machine it knows.
std::string makeHome(const char *name, const char *address, int peerPort, const char *other, const char *otherAddress) {
    char pattern[] = "/tmp/fhcore-nmgr-bench-XXXXXX";
    const std::string home = mkdtemp(pattern) != nullptr ? pattern : "";
    mkdir((home + "/config").c_str(), 0755);
    mkdir((home + "/etc").c_str(), 0755);
    std::ofstream(home + "/config/configure.cfg") << "[Machine]\nName=" << name << "\nComms TcpPort=" << freePort() << "\n";
    std::ofstream(home + "/config/lmnmgr.cfg")
        << "[Network]\nPeer TcpPort=" << peerPort << "\nPeer Listen Address=" << address << "\n";
    std::ofstream(home + "/etc/machines.dat") << "[" << other << "]\nId=4\nContact Address=" << otherAddress << "\n";
    return home;
}

// Starts a daemon of the build under home and waits for its ready line.
bool startDaemon(const std::string &home, const char *program, const char *id) {
    int pipe[2];
    if (::pipe(pipe) != 0) return false;
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(pipe[1], STDOUT_FILENO);
        close(pipe[0]);
        setenv("FHHOME", home.c_str(), 1);
        execl((std::string(FHCORE_BIN_DIR) + "/" + program).c_str(), program, id, static_cast<char *>(nullptr));
        _exit(127);
    }
    close(pipe[1]);
    gChildren.push_back(pid);
    char c = 0;
    bool ready = false;
    while (read(pipe[0], &c, 1) == 1 && !(ready = c == '\n')) {
    }
    close(pipe[0]);
    return ready;
}

// A child of the machine at home that answers each message with its body.
void startEcho(const std::string &home) {
    const pid_t pid = fork();
    if (pid == 0) {
        setenv("FHHOME", home.c_str(), 1);
        if (!ContextInitialize() || !ProcSetId(kEcho) || !MsgIpcConnect(0)) _exit(3);
        for (MSG_MESSAGE *m = nullptr;; ObjReleaseInternal(&m)) {
            if (!MsgReceive(&m, nullptr)) continue;
            if (m->iType == MSG_LOST_RECEIVE_QUEUE_MSG) _exit(0);
            if (m->iType == kRound) MsgSendReply(m, kRound, m->oObject);
        }
    }
    gChildren.push_back(pid);
}

// One round trip to the echo at address; false when something else came.
bool roundTrip(const MSG_ADDRESS *address) {
    if (!MsgSendObject(address, kRound, gBody)) return false;
    MSG_MESSAGE *m = nullptr;
    while (!MsgReceive(&m, nullptr)) {
    }
    const bool answered = m->iType == kRound;
    ObjReleaseInternal(&m);
    return answered;
}

// Waits until the echo at address answers (it may join after this process).
bool reach(const MSG_ADDRESS *address) {
    for (int attempt = 0; attempt < 500; ++attempt) {
        if (roundTrip(address)) return true;
        usleep(10 * 1000);
    }
    return false;
}

void BM_LocalRoundTrip(benchmark::State &state) {
    for (auto _ : state)
        if (!roundTrip(gLocal)) return state.SkipWithError("no answer");
}

void BM_RemoteRoundTrip(benchmark::State &state) {
    for (auto _ : state)
        if (!roundTrip(gRemote)) return state.SkipWithError("no answer");
}

constexpr bench::Entry kBenchmarks[] = {
    {"round trip through fhcmgr, 100 bytes", BM_LocalRoundTrip, true},
    {"round trip alpha to beta, two managers each way, 100 bytes", BM_RemoteRoundTrip, true},
};

constexpr bench::Comparison kComparisons[] = {
    {"round trip alpha to beta, two managers each way, 100 bytes", "round trip through fhcmgr, 100 bytes",
     bench::Aim::Report, 0},
};

} // namespace

int main(int argc, char **argv) {
    signal(SIGPIPE, SIG_IGN);
    const int peerPort = freePort();
    const std::string alpha = makeHome("alpha", "127.0.0.1", peerPort, "beta", "127.0.0.2");
    const std::string beta = makeHome("beta", "127.0.0.2", peerPort, "alpha", "127.0.0.1");
    bool up = peerPort != 0;
    for (const std::string &home : {alpha, beta})
        up = up && startDaemon(home, "fhcmgr", "2") && startDaemon(home, "fhnmgr", "3");
    if (up) {
        startEcho(alpha);
        startEcho(beta);
    }
    setenv("FHHOME", alpha.c_str(), 1);
    if (!up || !ContextInitialize() || !ProcSetId(kSelf) || !MsgIpcConnect(0)) {
        fprintf(stderr, "nmgr_bench: could not start the two machines\n");
        return 1;
    }
    std::vector<unsigned char> bytes(kSize, 'r');
    gBody = ObjDataFieldNew(bytes.data(), kSize);
    MsgCreateAddress(&gLocal, "alpha", kEcho);
    MsgCreateAddress(&gRemote, "beta", kEcho);
    int status = 1;
    if (reach(gLocal) && reach(gRemote))
        status = bench::run(argc, argv, kBenchmarks, kComparisons);
    else
        fprintf(stderr, "nmgr_bench: an echo did not answer\n");
    ObjReleaseInternal(&gLocal);
    ObjReleaseInternal(&gRemote);
    ObjReleaseInternal(&gBody);
    ContextReleaseThread();
    for (auto pid = gChildren.rbegin(); pid != gChildren.rend(); ++pid) {
        kill(*pid, SIGTERM);
        waitpid(*pid, nullptr, 0);
    }
    return status;
}
