/*
 * pmgr_table - processes under the process manager, and its process table
 * read from shared memory.
 *
 * Without arguments: makes a fresh home with its own copies of fhpmgr and
 * of this program under "bin", starts fhcmgr and fhpmgr (beside this
 * program's directory), and lets the manager start two workers of the
 * day, processes 31 and 32, which are this program again. When both are
 * busy it attaches the table and the main segment read-only and prints
 * each process's id, pid, state, title and counters; then it ends them
 * and the managers. Exit status 0 when every step worked.
 *
 * With a process id: a worker. It goes through the start-up conversation
 * (initial status, attach, first state), sets its title, makes a few
 * objects, reports busy, and waits until it is asked to die.
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
#include "messages/msgpmgr.h"
#include "messages/pmgrtable.h"

enum { kWorkers = 2, kFirstWorker = 31 };

static BOOL sendStatus(int32_t type, int32_t state) {
    PMGR_PROCESS_STATUS *status = ObjNewInternal(sizeof *status, PMGR_PROCESS_STATUS_MAGIC,
                                                 PMGR_PROCESS_STATUS_FORMAT, NULL, NULL);
    void *body = status;
    BOOL sent;
    status->iState = state;
    if (type == PMGR_PROCESS_INITIAL_STATUS_MSG) {
        PMGR_PROCESS_INITIAL_STATUS *initial = ObjNewInternal(
            sizeof *initial, PMGR_PROCESS_INITIAL_STATUS_MAGIC, PMGR_PROCESS_INITIAL_STATUS_FORMAT, NULL, NULL);
        initial->oStatus = status;
        body = initial;
    }
    sent = MsgSendObject(MsgProcMgrAddress(), type, body);
    ObjReleaseInternal(&body);
    return sent;
}

static int worker(long id) {
    MSG_PACKET *packet = NULL;
    void *kept[16];
    char title[80];
    int32_t type = 0, i, count = (int32_t)(id % 8) + 3;
    BOOL attached = FALSE;
    if (!ContextInitialize() || !ProcSetId((int32_t)id) || !MsgIpcConnect(0) ||
        !sendStatus(PMGR_PROCESS_INITIAL_STATUS_MSG, PROC_STATE_CREATING))
        return 1;
    while (type != PMGR_ATTACH_TO_SHM_MSG && MsgReceivePacket(&packet, NULL)) {
        type = MsgPacketMsgType(packet);
        attached = type == PMGR_ATTACH_TO_SHM_MSG && ProcAttachSharedMemory(packet, 0);
        ObjReleaseInternal(&packet);
    }
    if (!attached || !sendStatus(PMGR_PROCESS_STATUS_MSG, PROC_STATE_WAITING)) return 2;
    snprintf(title, sizeof title, "%s %ld, holding %ld objects", ProcName(), id, (long)count);
    ProcSetTitle(title);
    for (i = 0; i < count; ++i) kept[i] = ObjIntegerNew(i);
    sendStatus(PMGR_PROCESS_STATUS_MSG, PROC_STATE_BUSY);
    for (type = 0; type != PMGR_KILL_YOURSELF_MSG && type != MSG_LOST_RECEIVE_QUEUE_MSG;) {
        if (!MsgReceivePacket(&packet, NULL)) continue;
        type = MsgPacketMsgType(packet);
        ObjReleaseInternal(&packet);
    }
    for (i = 0; i < count; ++i) ObjReleaseInternal(&kept[i]);
    ContextReleaseThread();
    return 0;
}

/* Writes text to home/name. */
static BOOL writeFile(const char *home, const char *name, const char *text) {
    char path[4096];
    FILE *file;
    snprintf(path, sizeof path, "%s/%s", home, name);
    if ((file = fopen(path, "w")) == NULL) return FALSE;
    fputs(text, file);
    return fclose(file) == 0;
}

/* Copies the program at from to home/bin/name, executable. */
static BOOL copyProgram(const char *from, const char *home, const char *name) {
    char path[4096], buffer[65536];
    size_t got;
    FILE *in = fopen(from, "rb"), *out;
    BOOL ok = in != NULL;
    snprintf(path, sizeof path, "%s/bin/%s", home, name);
    out = ok ? fopen(path, "wb") : NULL;
    ok = out != NULL;
    while (ok && (got = fread(buffer, 1, sizeof buffer, in)) > 0) ok = fwrite(buffer, 1, got, out) == got;
    if (in != NULL) fclose(in);
    if (out != NULL) ok = fclose(out) == 0 && ok;
    return ok && chmod(path, 0755) == 0;
}

/* Starts a manager beside this program and reads its ready line into line;
 * its pid, or -1. */
static pid_t startManager(const char *self, const char *name, const char *id, char *line, size_t size) {
    char directory[4096], path[4096];
    int ends[2];
    FILE *file;
    pid_t pid;
    snprintf(directory, sizeof directory, "%s", self);
    snprintf(path, sizeof path, "%s/../%s", dirname(directory), name);
    if (pipe(ends) != 0) return -1;
    if ((pid = fork()) == 0) {
        dup2(ends[1], STDOUT_FILENO);
        close(ends[0]);
        execl(path, name, id, (char *)NULL);
        _exit(127);
    }
    close(ends[1]);
    file = fdopen(ends[0], "r");
    if (file == NULL || fgets(line, (int)size, file) == NULL) return -1;
    fclose(file);
    return pid;
}

static int32_t word(const unsigned char *at) {
    int32_t value;
    memcpy(&value, at, sizeof value);
    return value;
}

/* The slot of process id in the table, or NULL. */
static const unsigned char *slotOf(const unsigned char *table, int32_t id) {
    int32_t slot;
    for (slot = 0; slot < word(table + PMGR_TABLE_HEAD_SLOTS); ++slot) {
        const unsigned char *at = table + PMGR_TABLE_HEAD_BYTES + slot * word(table + PMGR_TABLE_HEAD_SLOT_BYTES);
        if (word(at + PMGR_SLOT_PROCESS) == id) return at;
    }
    return NULL;
}

/* Waits up to ten seconds for every worker to be busy, then prints the
 * table; TRUE when all were there. */
static BOOL printTable(const unsigned char *table, const unsigned char *main) {
    const struct timespec pause = {0, 10 * 1000 * 1000};
    int busy = 0, tries, i;
    for (tries = 0; tries < 1000 && busy < kWorkers; ++tries, nanosleep(&pause, NULL))
        for (busy = 0, i = 0; i < kWorkers; ++i) {
            const unsigned char *slot = slotOf(table, kFirstWorker + i);
            busy += slot != NULL && word(slot + PMGR_SLOT_STATE) == PROC_STATE_BUSY;
        }
    printf("%-4s %-7s %-18s %-44s %6s %6s %6s %6s\n", "id", "pid", "state", "title", "blocks", "peak", "objs",
           "made");
    for (i = 0; i < kWorkers; ++i) {
        const unsigned char *slot = slotOf(table, kFirstWorker + i), *entry;
        if (slot == NULL) continue;
        entry = main + word(slot + PMGR_SLOT_ENTRY);
        printf("%-4ld %-7ld %-18s %-44.79s %6ld %6ld %6ld %6ld\n", (long)word(slot + PMGR_SLOT_PROCESS),
               (long)word(slot + PMGR_SLOT_PID), ProcProcessStateDescription(word(slot + PMGR_SLOT_STATE)),
               (const char *)entry, (long)word(entry + 80), (long)word(entry + 84), (long)word(entry + 92),
               (long)word(entry + 100));
    }
    return busy == kWorkers;
}

int main(int argc, char **argv) {
    char home[] = "/tmp/fhcore-pmgr-XXXXXX", path[4096], line[256], settings[512];
    long mainId = -1, tableId = -1;
    void *table = NULL, *main = NULL;
    pid_t cmgr, pmgr;
    int status = 1, i;
    int32_t port = 0, probe = -1;
    NetAddressT address;
    if (argc == 2) return worker(strtol(argv[1], NULL, 10));
    setvbuf(stdout, NULL, _IOLBF, 0);
    if (mkdtemp(home) == NULL) return 1;
    setenv("FHHOME", home, 1);
    if (!ContextInitialize()) return 1;
    memset(&address, 0, sizeof address);
    NetInitializeIpAddress(&address, 0x7f000001, 0);
    if (NetOpen(&probe, NET_SOCKET_STREAM) && NetBind(probe, &address) && NetGetLocalAddress(&address, probe))
        port = NetGetIpPort(&address);
    NetClose(&probe);
    snprintf(path, sizeof path, "%s/config", home);
    mkdir(path, 0755);
    snprintf(path, sizeof path, "%s/bin", home);
    mkdir(path, 0755);
    snprintf(path, sizeof path, "%s", argv[0]);
    snprintf(settings, sizeof settings, "[Machine]\nComms TcpPort=%ld\n", (long)port);
    snprintf(line, sizeof line, "%s/../fhpmgr", dirname(path));
    if (!writeFile(home, "config/configure.cfg", settings) ||
        !writeFile(home, "config/programs.cfg",
                   "[Process Manager]\nunix=bin/fhpmgr\n[Worker]\nunix=bin/pmgr_table\n"
                   "[Helper]\nunix=bin/pmgr_table\n") ||
        !writeFile(home, "config/procmgr.cfg",
                   "[Start of Day:Worker]\nRun order=1\nProcess Id=31\n"
                   "[Start of Day:Helper]\nRun order=2\nProcess Id=32\n") ||
        !copyProgram(line, home, "fhpmgr") || !copyProgram(argv[0], home, "pmgr_table"))
        return 1;
    cmgr = startManager(argv[0], "fhcmgr", "2", line, sizeof line);
    pmgr = cmgr == -1 ? -1 : startManager(argv[0], "fhpmgr", "1", line, sizeof line);
    if (pmgr != -1 && sscanf(line, "fhpmgr ready: main segment %ld table segment %ld", &mainId, &tableId) == 2 &&
        ShmAttachReadOnly(&table, (int32_t)tableId) && ShmAttachReadOnly(&main, (int32_t)mainId)) {
        printf("%s", line);
        status = printTable(table, main) ? 0 : 1;
        for (i = 0; i < kWorkers; ++i) {
            const unsigned char *slot = slotOf(table, kFirstWorker + i);
            if (slot != NULL && word(slot + PMGR_SLOT_PID) > 1) kill(word(slot + PMGR_SLOT_PID), SIGTERM);
        }
        ShmDetach(&table);
        ShmDetach(&main);
    }
    if (pmgr > 0) kill(pmgr, SIGTERM), waitpid(pmgr, NULL, 0);
    if (cmgr > 0) kill(cmgr, SIGTERM), waitpid(cmgr, NULL, 0);
    ContextReleaseThread();
    snprintf(path, sizeof path, "rm -rf '%s'", home);
    if (system(path) != 0) status = 1;
    return status;
}
