/*
 * cmgr_roundtrip - a message through the communication manager and back.
 *
 * Starts fhcmgr (beside this program's directory, in ../fhcmgr) in a fresh
 * home on a free port, joins it as process 21, sends itself a ping by its
 * own address and reads it back off the IPC channel, then stops the
 * manager. Prints what it sees; exit status 0 when the ping came back.
 */
#define _POSIX_C_SOURCE 200809L
#include <libgen.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "core/fhcore.h"
#include "messages/msgmsg.h"

/* A port that was free a moment ago. */
static int32_t freePort(void) {
    int32_t probe = -1, port = 0;
    NetAddressT address;
    memset(&address, 0, sizeof address);
    NetInitializeIpAddress(&address, 0x7f000001, 0);
    if (NetOpen(&probe, NET_SOCKET_STREAM) && NetBind(probe, &address) && NetGetLocalAddress(&address, probe))
        port = NetGetIpPort(&address);
    NetClose(&probe);
    return port;
}

/* Starts the manager and waits for its ready line; its pid, or -1. */
static pid_t startManager(const char *self, const char *home, int32_t port) {
    char directory[4096], path[4096], settings[4096], line[256];
    int pipeEnds[2];
    FILE *file;
    pid_t pid;
    snprintf(directory, sizeof directory, "%s", self);
    snprintf(path, sizeof path, "%s/../fhcmgr", dirname(directory));
    snprintf(settings, sizeof settings, "%s/config", home);
    mkdir(settings, 0755);
    snprintf(settings, sizeof settings, "%s/config/configure.cfg", home);
    if ((file = fopen(settings, "w")) == NULL) return -1;
    fprintf(file, "[Machine]\nComms TcpPort=%ld\n", (long)port);
    fclose(file);
    if (pipe(pipeEnds) != 0) return -1;
    pid = fork();
    if (pid == 0) {
        dup2(pipeEnds[1], STDOUT_FILENO);
        execl(path, "fhcmgr", "2", (char *)NULL);
        _exit(127);
    }
    close(pipeEnds[1]);
    file = fdopen(pipeEnds[0], "r");
    if (file == NULL || fgets(line, sizeof line, file) == NULL) return -1;
    printf("manager: %s", line);
    fclose(file);
    return pid;
}

int main(int argc, char **argv) {
    char home[] = "/tmp/fhcore-roundtrip-XXXXXX";
    MSG_CHANNEL *ipc;
    MSG_PACKET *back = NULL;
    pid_t manager;
    int status = 1, tries;
    int32_t port;
    (void)argc;
    if (mkdtemp(home) == NULL) return 1;
    setenv("FHHOME", home, 1);
    if (!ContextInitialize()) return 1;
    port = freePort();
    manager = startManager(argv[0], home, port);
    if (manager == -1) {
        fprintf(stderr, "the manager did not start\n");
        return 1;
    }
    if (ProcSetId(21) && MsgIpcConnect(0)) {
        printf("joined as process %ld on port %ld\n", (long)ProcGetId(), (long)MsgGetCommsPort());
        if (MsgSendObject(MsgLocalAddress(), MSG_PING_MSG, NULL))
            printf("sent %s to myself\n", MsgNameWithBuffer(MSG_PING_MSG, NULL, 0));
        ipc = (MSG_CHANNEL *)gtLmContext.oMsgIpcChannel;
        for (tries = 0; tries < 100 && back == NULL && ipc != NULL; ++tries)
            if (!MsgChannelReceiveData(&back, ipc)) back = NULL;
        if (back != NULL) {
            printf("back through the manager: %s, %ld bytes\n", MsgNameWithBuffer(MsgPacketMsgType(back), NULL, 0),
                   (long)back->oImage.iSize);
            status = MsgPacketMsgType(back) == MSG_PING_MSG ? 0 : 1;
            ObjReleaseInternal(&back);
        }
    }
    kill(manager, SIGTERM);
    waitpid(manager, NULL, 0);
    ContextReleaseThread();
    return status;
}
