/*
 * cmgr_roundtrip - two processes talk through the communication manager.
 *
 * Starts fhcmgr (beside this program's directory, in ../fhcmgr) in a fresh
 * home on a free port. A second process joins as 22 and answers every
 * message with the same body; this one joins as 21, sends it a thousand
 * messages of 100 bytes one after the other, each waiting for its answer,
 * and prints the round-trip time. Then it sets a timer and waits for its
 * TIMER_CALLBACK_MSG, which it sends to itself, and calls the routine.
 * Exit status 0 when every answer and the timer came back.
 */
#define _POSIX_C_SOURCE 200809L
#include <libgen.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "core/fhcore.h"
#include "messages/msgmsg.h"
#include "messages/msgtimer.h"

enum { kEchoId = 22, kAskerId = 21, kRounds = 1000 };

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

static double nowMicroseconds(void) {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (double)now.tv_sec * 1e6 + (double)now.tv_nsec / 1e3;
}

/* Process 22: answers each ping with its own body until the manager goes
 * or a ping without a body comes. */
static int echo(int ready) {
    MSG_MESSAGE *message = NULL;
    int32_t type = 0;
    if (!ProcSetId(kEchoId) || !MsgIpcConnect(0)) return 1;
    if (write(ready, "r", 1) != 1) return 1;
    close(ready);
    BOOL done = FALSE;
    while (!done) {
        if (!MsgReceive(&message, NULL)) continue;
        type = message->iType;
        done = type == MSG_LOST_RECEIVE_QUEUE_MSG || (type == MSG_PING_MSG && message->oObject == NULL);
        if (type == MSG_PING_MSG && !done) MsgSendReply(message, MSG_PONG_MSG, message->oObject);
        ObjReleaseInternal(&message);
    }
    ContextReleaseThread();
    return 0;
}

static void ring(void *cookie) { printf("timer routine called with \"%s\"\n", (const char *)cookie); }

/* Sends kRounds pings to process 22 and waits for each pong; the mean
 * round trip in microseconds, or -1. */
static double exchange(void) {
    MSG_ADDRESS *peer = NULL;
    MSG_MESSAGE *answer = NULL;
    char text[101];
    OBJ_STRING *body;
    TIME_TIMEOUT *limit = NULL;
    double start;
    int round, answered = 0;
    memset(text, 'x', 100);
    text[100] = 0;
    body = ObjStringNew(text);
    if (body == NULL || !MsgCreateAddress(&peer, MsgGetMachineName(MsgLocalAddress()), kEchoId)) return -1;
    start = nowMicroseconds();
    for (round = 0; round < kRounds; ++round) {
        if (!MsgSendObject(peer, MSG_PING_MSG, body)) break;
        if (!TimeCreateAndSetTimeout(&limit, 2, 0)) break;
        if (!MsgReceiveMsgTypeFromAddress(&answer, MSG_PONG_MSG, peer, limit)) break;
        ObjReleaseInternal(&limit);
        answered += strcmp(((OBJ_STRING *)answer->oObject)->pszValue, text) == 0;
        ObjReleaseInternal(&answer);
    }
    start = (nowMicroseconds() - start) / kRounds;
    MsgSendObject(peer, MSG_PING_MSG, NULL);
    printf("%d of %d messages of 100 bytes came back intact, %.1f us a round trip\n", answered, kRounds, start);
    ObjReleaseInternal(&limit);
    ObjReleaseInternal(&body);
    ObjReleaseInternal(&peer);
    return answered == kRounds ? start : -1;
}

/* Sets a timer 20 ms ahead and waits for its message; TRUE when it came
 * and its routine ran. */
static BOOL timer(void) {
    TIME_OFFSET *offset = NULL;
    MSG_MESSAGE *message = NULL;
    static char cookie[] = "twenty milliseconds";
    BOOL fired = FALSE;
    double start = nowMicroseconds();
    if (!TimeCreateOffset(&offset, 0, 20) || !TimrSetAlarmRelative(ring, cookie, offset)) return FALSE;
    while (!fired && nowMicroseconds() - start < 2e6) {
        if (!MsgReceive(&message, NULL)) continue;
        if (message->iType == TIMER_CALLBACK_MSG) {
            const TIMER_CALLBACK *callback = (const TIMER_CALLBACK *)message->oObject;
            printf("%s after %.1f ms\n", MsgNameWithBuffer(message->iType, NULL, 0), (nowMicroseconds() - start) / 1e3);
            callback->pfnRoutine(callback->pCookie);
            fired = TRUE;
        }
        ObjReleaseInternal(&message);
    }
    ObjReleaseInternal(&offset);
    return fired;
}

int main(int argc, char **argv) {
    char home[] = "/tmp/fhcore-roundtrip-XXXXXX";
    pid_t manager, peer;
    int status = 1, ready[2];
    char mark;
    int32_t port;
    (void)argc;
    setvbuf(stdout, NULL, _IOLBF, 0);
    if (mkdtemp(home) == NULL) return 1;
    setenv("FHHOME", home, 1);
    if (!ContextInitialize()) return 1;
    port = freePort();
    manager = startManager(argv[0], home, port);
    if (manager == -1) {
        fprintf(stderr, "the manager did not start\n");
        return 1;
    }
    fflush(stdout);
    if (pipe(ready) != 0) return 1;
    peer = fork();
    if (peer == 0) _exit(echo(ready[1]));
    close(ready[1]);
    if (read(ready[0], &mark, 1) == 1 && ProcSetId(kAskerId) && MsgIpcConnect(0)) {
        printf("joined as process %ld on port %ld; process %d answers\n", (long)ProcGetId(), (long)MsgGetCommsPort(),
               kEchoId);
        status = exchange() >= 0 && timer() ? 0 : 1;
    }
    waitpid(peer, NULL, 0);
    kill(manager, SIGTERM);
    waitpid(manager, NULL, 0);
    ContextReleaseThread();
    return status;
}
