/*
 * wait_reply - a process waits for a reply while the rest of its life goes
 * on: its timer fires and another process pings it, inside the wait.
 *
 * Starts fhcmgr (beside this program's directory, in ../fhcmgr) in a fresh
 * home on a free port, and three processes that join it:
 *   21 sets a timer 20 ms ahead, asks 22 a question and waits for the
 *      answer with MsgWaitMessageWithTimeout; the default handlers of the
 *      wait call the timer's routine and answer the ping;
 *   22 on the question lets 23 know, waits for its word, and answers 21
 *      once 21's timer has had its time;
 *   23 pings 21, takes the pong, and gives 22 its word.
 * Exit status 0 when the answer, the pong and the timer all came.
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

enum { kAsker = 21, kAnswerer = 22, kPinger = 23 };
enum { kQuestion = 50101, kAnswer = 50102, kStart = 50103, kWord = 50104 };

static BOOL gRang = FALSE;

/* The manager on a free port, once it has printed its ready line; its pid,
 * or -1. */
static pid_t startManager(const char *self, const char *home) {
    char directory[4096], path[4096], settings[4096], line[256];
    int32_t probe = -1;
    int ends[2];
    NetAddressT address;
    FILE *file;
    pid_t pid;
    memset(&address, 0, sizeof address);
    NetInitializeIpAddress(&address, 0x7f000001, 0);
    if (!NetOpen(&probe, NET_SOCKET_STREAM) || !NetBind(probe, &address) || !NetGetLocalAddress(&address, probe))
        return -1;
    NetClose(&probe);
    snprintf(directory, sizeof directory, "%s", self);
    snprintf(path, sizeof path, "%s/../fhcmgr", dirname(directory));
    snprintf(settings, sizeof settings, "%s/config", home);
    mkdir(settings, 0755);
    snprintf(settings, sizeof settings, "%s/config/configure.cfg", home);
    if ((file = fopen(settings, "w")) == NULL) return -1;
    fprintf(file, "[Machine]\nComms TcpPort=%ld\n", (long)NetGetIpPort(&address));
    fclose(file);
    if (pipe(ends) != 0) return -1;
    if ((pid = fork()) == 0) {
        dup2(ends[1], STDOUT_FILENO);
        execl(path, "fhcmgr", "2", (char *)NULL);
        _exit(127);
    }
    close(ends[1]);
    file = fdopen(ends[0], "r");
    if (file == NULL || fgets(line, sizeof line, file) == NULL) return -1;
    printf("manager: %s", line);
    fclose(file);
    return pid;
}

static MSG_ADDRESS *addressOf(int32_t id) {
    MSG_ADDRESS *address = NULL;
    MsgCreateAddress(&address, SysLocalMachineName(), id);
    return address;
}

/* A wait of seconds for type from id; the message or null. */
static MSG_MESSAGE *awaitFrom(int32_t id, int32_t type, int32_t seconds) {
    MSG_ADDRESS *from = addressOf(id);
    MSG_MESSAGE *message = NULL;
    TIME_TIMEOUT *limit = NULL;
    if (TimeCreateAndSetTimeout(&limit, seconds, 0)) MsgWaitMessageWithTimeout(&message, from, type, limit);
    ObjReleaseInternal(&limit);
    ObjReleaseInternal(&from);
    return message;
}

static BOOL sendTo(int32_t id, int32_t type, void *object) {
    MSG_ADDRESS *to = addressOf(id);
    BOOL sent = MsgSendObject(to, type, object);
    ObjReleaseInternal(&to);
    return sent;
}

static int answerer(void) {
    MSG_MESSAGE *question = awaitFrom(kAsker, kQuestion, 10), *word = NULL;
    TIME_TIMEOUT *pause = NULL;
    int status = 1;
    if (question != NULL && sendTo(kPinger, kStart, NULL) && (word = awaitFrom(kPinger, kWord, 10)) != NULL) {
        TimeCreateAndSetTimeout(&pause, 0, 100); /* the asker's timer has had its time */
        MsgWaitPollWithTimeout(pause);
        status = MsgSendReply(question, kAnswer, question->oObject) ? 0 : 1;
    }
    ObjReleaseInternal(&pause);
    ObjReleaseInternal(&word);
    ObjReleaseInternal(&question);
    return status;
}

static int pinger(void) {
    MSG_MESSAGE *start = awaitFrom(kAnswerer, kStart, 10), *pong = NULL;
    MSG_PING *ping = (MSG_PING *)ObjNewInternal(sizeof(MSG_PING), MSG_PING_MAGIC, MSG_PING_FORMAT, NULL, NULL);
    int status = 1;
    ping->iSent = (int32_t)TimeNow();
    if (start != NULL && sendTo(kAsker, MSG_PING_MSG, ping) && (pong = awaitFrom(kAsker, MSG_PONG_MSG, 10)) != NULL) {
        printf("23: pong from 21 while it waits, answered at %ld\n", (long)((MSG_PING *)pong->oObject)->iAnswered);
        status = sendTo(kAnswerer, kWord, NULL) ? 0 : 1;
    }
    ObjReleaseInternal(&pong);
    ObjReleaseInternal(&start);
    ObjReleaseInternal(&ping);
    return status;
}

static void ring(void *cookie) {
    printf("21: timer \"%s\" fired inside the wait\n", (const char *)cookie);
    gRang = TRUE;
}

static int asker(void) {
    static char cookie[] = "twenty milliseconds";
    TIME_OFFSET *offset = NULL;
    OBJ_STRING *text = ObjStringNew("how are things?");
    MSG_MESSAGE *answer = NULL;
    int status = 1;
    if (TimeCreateOffset(&offset, 0, 20) && TimrSetAlarmRelative(ring, cookie, offset) &&
        sendTo(kAnswerer, kQuestion, text) && (answer = awaitFrom(kAnswerer, kAnswer, 10)) != NULL) {
        printf("21: the answer came: \"%s\"\n", ObjGetString(answer->oObject));
        status = gRang ? 0 : 1;
    }
    ObjReleaseInternal(&answer);
    ObjReleaseInternal(&text);
    ObjReleaseInternal(&offset);
    return status;
}

/* A process that joins as id, says so on ready, and runs body. */
static pid_t start(int32_t id, int (*body)(void), int ready) {
    pid_t pid = fork();
    if (pid == 0) {
        int status = 1;
        if (ProcSetId(id) && MsgIpcConnect(0) && write(ready, "r", 1) == 1) status = body();
        ContextReleaseThread();
        _exit(status);
    }
    return pid;
}

int main(int argc, char **argv) {
    char home[] = "/tmp/fhcore-waitreply-XXXXXX";
    int ready[2], status = 1, childStatus = 0;
    char marks[2];
    pid_t manager, children[2];
    (void)argc;
    setvbuf(stdout, NULL, _IOLBF, 0);
    if (mkdtemp(home) == NULL) return 1;
    setenv("FHHOME", home, 1);
    if (!ContextInitialize() || (manager = startManager(argv[0], home)) == -1 || pipe(ready) != 0) return 1;
    children[0] = start(kAnswerer, answerer, ready[1]);
    children[1] = start(kPinger, pinger, ready[1]);
    if (read(ready[0], marks, 1) == 1 && read(ready[0], marks + 1, 1) == 1 && ProcSetId(kAsker) && MsgIpcConnect(0))
        status = asker();
    for (int i = 0; i < 2; ++i) {
        waitpid(children[i], &childStatus, 0);
        if (!WIFEXITED(childStatus) || WEXITSTATUS(childStatus) != 0) status = 1;
    }
    kill(manager, SIGTERM);
    waitpid(manager, NULL, 0);
    ContextReleaseThread();
    return status;
}
