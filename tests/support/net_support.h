// net_support.h - what the network tests share: connections on 127.0.0.1,
// the result of a call beside the module's records it left, the call table
// put back after a test, and children made with fork.
#ifndef FHCORE_TESTS_NET_SUPPORT_H
#define FHCORE_TESTS_NET_SUPPORT_H

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

#include "fixture.h"
#include "messages/msgcmgr.h"
#include "msgchannel.h"
#include "netcalls.h"

namespace nettest {

constexpr uint32_t kLoopback = 0x7f000001;

inline NetAddressT loopback(int32_t port) {
    NetAddressT address{};
    NetInitializeIpAddress(&address, kLoopback, port);
    return address;
}

// A listener on 127.0.0.1 at a port the system chose and a client; connect()
// joins them through the server end. All closed at the end.
struct Connection {
    int32_t listener = -1, client = -1, server = -1;
    NetAddressT address = loopback(0);
    Connection() {
        NetOpen(&listener, NET_SOCKET_STREAM);
        NetBind(listener, &address);
        NetListen(listener, 8);
        NetGetLocalAddress(&address, listener);
        NetOpen(&client, NET_SOCKET_STREAM);
    }
    // Small buffers on the client make a transfer wait.
    bool connect(int32_t bufferSize = 0) {
        if (bufferSize > 0) NetSetSendBufferSize(client, bufferSize), NetSetReceiveBufferSize(client, bufferSize);
        return NetConnect(client, &address) == NET_ERROR_NONE && NetAccept(&server, listener, nullptr) == 0;
    }
    ~Connection() {
        for (int32_t *socket : {&listener, &client, &server}) NetClose(socket);
    }
};

// A record of the module, and a result with the records its call left.
struct NetTrace {
    std::string text;
    int32_t code, level;
    bool operator==(const NetTrace &) const = default;
};
using Traces = std::vector<NetTrace>;
struct Seen {
    int32_t result;
    Traces traces;
    bool operator==(const Seen &) const = default;
};
inline void PrintTo(const NetTrace &t, std::ostream *os) { *os << '"' << t.text << "\" " << t.code << " " << t.level; }
inline void PrintTo(const Seen &s, std::ostream *os) { *os << s.result << " " << testing::PrintToString(s.traces); }

// The module's records stored after the record at mark, oldest first,
// leaving out the level-3 records of NetConnect and NetClose.
inline Traces netTracesSince(uint32_t mark) {
    struct Walk {
        uint32_t mark;
        Traces newestFirst;
    } walk{mark, {}};
    TraceWalkBuffer(
        TraceGetBuffer(),
        [](const TraceRecord *r, int32_t, void *cookie) -> BOOL {
            auto *w = static_cast<Walk *>(cookie);
            const std::string text = r->Text;
            const bool own = text.find("NetC") != std::string::npos || text.find(" bytes") != std::string::npos;
            if (r->Sequence > w->mark && strncmp(r->Module, "NET ", 4) == 0 && (!own || r->Level < 3))
                w->newestFirst.push_back({text, r->Code, r->Level});
            return r->Sequence > w->mark;
        },
        &walk);
    return {walk.newestFirst.rbegin(), walk.newestFirst.rend()};
}

template <typename Call> Seen seen(Call call) {
    TracePosition mark{};
    TraceGetPosition(&mark);
    const int32_t result = call();
    return {result, netTracesSince(static_cast<uint32_t>(mark.Sequence))};
}

// Puts the platform's calls back when the test ends.
struct PlatformCallsBack {
    ~PlatformCallsBack() { fh::netCalls() = fh::netPlatformCalls(); }
};

// A child that runs body and ends with its result as exit status; its exit
// status, or 128 plus the signal that ended it.
template <typename Body> pid_t child(Body body) {
    const pid_t pid = fork();
    if (pid == 0) _exit(body());
    return pid;
}
inline int waitChild(pid_t pid) {
    int status = 0;
    while (waitpid(pid, &status, 0) == -1 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// Joins the communication manager as process id.
inline bool join(int32_t id) { return ProcSetId(id) && MsgIpcConnect(0); }

// Sends type with body to process id of machine (this one by default).
inline bool sendTo(int32_t id, int32_t type, const void *body = nullptr, const char *machine = nullptr) {
    MSG_ADDRESS *to = nullptr;
    const bool sent = MsgCreateAddress(&to, machine != nullptr ? machine : SysLocalMachineName(), id) &&
                      MsgSendObject(to, type, body);
    ObjReleaseInternal(&to);
    return sent;
}

// Leaves the manager and starts this thread's messaging afresh.
inline void leaveManager() {
    ObjReleaseInternal(&gtLmContext.oMsgIpcChannel);
    MsgReleaseThread(&gtLmContext);
    MsgInitializeThread();
}

// Passes until a packet of one of types is queued, or milliseconds are
// over; its type (0 for none), the packet in *out if asked for. Other
// packets are dropped.
inline int32_t await(std::initializer_list<int32_t> types, int milliseconds, MSG_PACKET **out = nullptr) {
    const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
    while (std::chrono::steady_clock::now() < until) {
        fh::msgSelectPass(20);
        for (MSG_PACKET *packet = nullptr; MsgReceivePopPacket(&packet); ObjReleaseInternal(&packet)) {
            const int32_t type = MsgPacketMsgType(packet);
            if (std::find(types.begin(), types.end(), type) == types.end()) continue;
            if (out != nullptr) std::swap(*out, packet);
            ObjReleaseInternal(&packet);
            return type;
        }
    }
    return 0;
}

// Until process id has joined the manager: a probe goes to it and it
// answers with one (answerProbe()); the manager's word that id is unknown
// means it hasn't joined yet, so after a short pass the probe goes again.
constexpr int32_t kProbe = 50099;
inline bool reach(int32_t id) {
    for (int attempt = 0; attempt < 500; ++attempt) {
        if (!sendTo(id, kProbe)) return false;
        const int32_t got = await({kProbe, CMGR_PROCESS_UNREACHABLE_MSG}, 10000);
        if (got != CMGR_PROCESS_UNREACHABLE_MSG) return got == kProbe;
        fh::msgSelectPass(20);
    }
    return false;
}
inline bool answerProbe(int32_t from) { return await({kProbe}, 20000) == kProbe && sendTo(from, kProbe); }

// The body of a packet read as magic (object null when it isn't one); the
// packet is released at once, the body at the end of the scope.
struct Body {
    void *object = nullptr;
    Body(MSG_PACKET *&packet, uint32_t magic) {
        if (packet != nullptr) MsgObjectFromPacketInternal(&object, packet, magic);
        ObjReleaseInternal(&packet);
    }
    ~Body() { ObjReleaseInternal(&object); }
    template <typename T> const T *as() const { return static_cast<const T *>(object); }
};

// The types of the receive list, in order, left in place.
inline std::vector<int32_t> receiveListTypes() {
    std::vector<int32_t> types;
    for (LISTNODE *n = static_cast<LIST *>(gtLmContext.oMsgReceiveList)->oFirst; n != nullptr; n = n->oNext)
        types.push_back(MsgPacketMsgType(n->oItem));
    return types;
}

} // namespace nettest

#endif // FHCORE_TESTS_NET_SUPPORT_H
