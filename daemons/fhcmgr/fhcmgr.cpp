// fhcmgr - the communication manager: the message switch of a machine.
//
//   fhcmgr <process id>      (the process manager passes "2")
//
// It links the library as process 2, listens on 127.0.0.1 at the comms
// port (MsgGetCommsPort, from configure.cfg under FHHOME) and carries every
// packet image between the processes of the machine (router.h). It prints
// one line, "fhcmgr ready on port <port>", when it accepts connections, and
// ends cleanly, exit status 0, on SIGTERM.
#include <signal.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/fhcore.h"
#include "router.h"

namespace {

// Queued output a client may leave unread before it is taken down.
constexpr int64_t kQueueBound = int64_t{64} << 20;
// The longest select, so that a stop request is seen soon whatever happens.
constexpr int32_t kPassMilliseconds = 500;

volatile sig_atomic_t gStop = 0;
void onStop(int) { gStop = 1; }

int usage(FILE *to, int status) {
    fprintf(to, "usage: fhcmgr <process id>\n"
                "  The communication manager of this machine (process id 2). FHHOME names the\n"
                "  home directory; the port is \"Comms TcpPort\" of stanza \"Machine\" of configure.cfg.\n");
    return status;
}

int32_t listenAt(int32_t port) {
    int32_t listener = -1;
    NetAddressT address{};
    NetInitializeIpAddress(&address, 0x7f000001, port);
    if (!NetOpen(&listener, NET_SOCKET_STREAM)) return -1;
    NetSetReuseAddress(listener);
    if (!NetBind(listener, &address) || !NetListen(listener, 64) || !NetSetNonBlocking(listener)) {
        NetClose(&listener);
        return -1;
    }
    return listener;
}

void acceptAll(int32_t listener, fhcmgr::Router &router) {
    for (int32_t socket = -1; NetAccept(&socket, listener, nullptr) == NET_ERROR_NONE; socket = -1) router.add(socket);
}

} // namespace

int main(int argc, char **argv) {
    if (argc >= 2 && strcmp(argv[1], "--help") == 0) return usage(stdout, 0);
    char *end = nullptr;
    const long id = argc == 2 ? strtol(argv[1], &end, 10) : 0;
    if (argc != 2 || end == argv[1] || *end != '\0' || id <= 0 || id > INT32_MAX) return usage(stderr, 2);

    struct sigaction stop{};
    stop.sa_handler = onStop; // no SA_RESTART: a stop cuts select short
    sigaction(SIGTERM, &stop, nullptr);
    sigaction(SIGINT, &stop, nullptr);
    signal(SIGPIPE, SIG_IGN);

    if (!ContextInitialize() || !ProcSetId(static_cast<int32_t>(id)) || !MsgIpcConnect(0)) {
        fprintf(stderr, "fhcmgr: the library did not start\n");
        return 1;
    }
    const int32_t port = MsgGetCommsPort();
    int32_t listener = listenAt(port);
    if (listener == -1) {
        fprintf(stderr, "fhcmgr: cannot listen on 127.0.0.1:%ld\n", static_cast<long>(port));
        return 1;
    }
    printf("fhcmgr ready on port %ld\n", static_cast<long>(port));
    fflush(stdout);

    int status = 0;
    {
        fhcmgr::Router router(kQueueBound);
        NetSelectMask *mask = nullptr;
        NetInitializeSelectMask(&mask);
        while (!gStop) {
            memset(mask, 0, sizeof *mask);
            NetAddReadSelect(mask, listener);
            router.fillMask(mask);
            const int32_t result = NetSelectRelative(nullptr, mask, kPassMilliseconds);
            if (result == NET_ERROR_INTERRUPTED || result == NET_ERROR_TIMEOUT) continue;
            if (result != NET_ERROR_NONE) {
                status = 1;
                break;
            }
            if (NetIsReadSelectSet(mask, listener)) acceptAll(listener, router);
            router.serve(mask);
            router.sweep();
        }
        NetReleaseSelectMask(&mask);
    }
    NetClose(&listener);
    ContextReleaseThread();
    return status;
}
