// fhnmgr - the network manager: knows the other machines and carries
// packets between them.
//
//   fhnmgr <process id>      (the process manager passes "3")
//
// It links the library as process 3 and joins the communication manager
// of its machine (which must run) over the IPC channel; it listens for the
// network managers of other machines at "Peer Listen Address" (default any
// address) and "Peer TcpPort" (default 20034) of stanza "Network" of
// lmnmgr.cfg under FHHOME, and reaches them at the same port (netmgr.h).
// It prints one line, "fhnmgr ready on port <port>", when it accepts
// connections; it ends cleanly, exit status 0, on SIGTERM, and with status
// 1 when the communication manager goes.
#include <signal.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/fhcore.h"
#include "netmgr.h"

namespace {

constexpr int32_t kDefaultPeerPort = 20034;
constexpr int32_t kPassMilliseconds = 500;
constexpr fhnmgr::Settings kSettings{kDefaultPeerPort, std::chrono::seconds(20), std::chrono::seconds(30),
                                     int64_t{64} << 20};

volatile sig_atomic_t gStop = 0;
void onStop(int) { gStop = 1; }

int usage(FILE *to, int status) {
    fprintf(to, "usage: fhnmgr <process id>\n"
                "  The network manager of this machine (process id 3). FHHOME names the home\n"
                "  directory; peers meet at \"Peer TcpPort\" of stanza \"Network\" of lmnmgr.cfg,\n"
                "  and the machines are those of etc/machines.dat.\n");
    return status;
}

int32_t listenAt(int32_t port) {
    char *host = nullptr;
    CfgGetString(&host, "lmnmgr.cfg", "Network", "Peer Listen Address", "0.0.0.0");
    NetAddressT address{};
    const bool resolved = host != nullptr && NetGetHostAddress(&address, host) && NetSetIpPort(&address, port);
    MemFreeInternal(&host);
    int32_t listener = -1;
    if (!resolved || !NetOpen(&listener, NET_SOCKET_STREAM)) return -1;
    NetSetReuseAddress(listener);
    if (!NetBind(listener, &address) || !NetListen(listener, 16) || !NetSetNonBlocking(listener)) {
        NetClose(&listener);
        return -1;
    }
    return listener;
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
        fprintf(stderr, "fhnmgr: the library did not start, or no communication manager answered\n");
        return 1;
    }
    fhnmgr::Settings settings = kSettings;
    CfgGetInteger(&settings.peerPort, "lmnmgr.cfg", "Network", "Peer TcpPort", kDefaultPeerPort);
    int32_t listener = listenAt(settings.peerPort);
    if (listener == -1) {
        fprintf(stderr, "fhnmgr: cannot listen at port %ld\n", static_cast<long>(settings.peerPort));
        return 1;
    }
    printf("fhnmgr ready on port %ld\n", static_cast<long>(settings.peerPort));
    fflush(stdout);

    int status = 0;
    {
        fhnmgr::Manager manager(static_cast<MSG_CHANNEL *>(gtLmContext.oMsgIpcChannel), settings);
        NetSelectMask *mask = nullptr;
        NetInitializeSelectMask(&mask);
        while (!gStop && !manager.ipcDown()) {
            memset(mask, 0, sizeof *mask);
            NetAddReadSelect(mask, listener);
            manager.fillMask(mask);
            const int32_t result = NetSelectRelative(nullptr, mask, kPassMilliseconds);
            if (result != NET_ERROR_NONE && result != NET_ERROR_INTERRUPTED && result != NET_ERROR_TIMEOUT) {
                status = 1;
                break;
            }
            if (result == NET_ERROR_NONE) {
                if (NetIsReadSelectSet(mask, listener))
                    for (int32_t socket = -1; NetAccept(&socket, listener, nullptr) == NET_ERROR_NONE; socket = -1)
                        manager.accepted(socket);
                manager.serve(mask);
            }
            manager.expire();
        }
        if (manager.ipcDown()) {
            fprintf(stderr, "fhnmgr: the communication manager has gone\n");
            status = 1;
        }
        NetReleaseSelectMask(&mask);
    }
    NetClose(&listener);
    ContextReleaseThread();
    return status;
}
