// fhpmgr - the process manager: owner of the processes, the shared memory
// and the process table of a machine.
//
//   fhpmgr <process id>      ("1")
//
// The home comes from FHHOME; the copy of this program that "unix" of
// "Process Manager" in programs.cfg names gives the installation's IPC
// keys. It holds an exclusive lock on etc/fhpmgr.pid ("%12ld\n") while it
// runs, clears stale segments (ShmInitialize), makes the main and table
// segments, joins the communication manager as process 1, prints
// "fhpmgr ready: main segment <id> table segment <id>", starts the day's
// programs of procmgr.cfg and then serves its messages (manager.h) until
// SIGTERM, after which it removes its segments and ends with status 0.
//
// Settings, in stanza "Process Manager" of procmgr.cfg: "Kill Grace" (in
// milliseconds, default 5000) and "Locale" (sent to each starting process
// when set).
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/fhcore.h"
#include "manager.h"
#include "messages/msgmsg.h"

namespace {

constexpr int32_t kDefaultGrace = 5000;

volatile sig_atomic_t gStop = 0;
void onStop(int) { gStop = 1; }

int usage(FILE *to, int status) {
    fprintf(to, "usage: fhpmgr <process id>\n"
                "  The process manager of this machine (process id 1). FHHOME names the home\n"
                "  directory; the communication manager must be running.\n");
    return status;
}

// Takes the lock of etc/fhpmgr.pid and writes the pid line; the handle stays
// open, and the lock held, for the life of the process. -1 when another
// manager holds it or the file can't be made.
int lockPidFile() {
    char *directory = PathHomeBuild("etc", nullptr);
    char *path = PathHomeBuild("etc", "fhpmgr.pid", nullptr);
    if (directory != nullptr) mkdir(directory, 0755);
    const int fd = path != nullptr ? open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0644) : -1;
    MemFreeInternal(&directory);
    MemFreeInternal(&path);
    if (fd == -1) return -1;
    struct flock lock{};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    char line[32];
    const int length = snprintf(line, sizeof line, "%12ld\n", static_cast<long>(getpid()));
    if (fcntl(fd, F_SETLK, &lock) == -1 || ftruncate(fd, 0) != 0 || pwrite(fd, line, length, 0) != length) {
        close(fd);
        return -1;
    }
    return fd;
}

} // namespace

int main(int argc, char **argv) {
    if (argc >= 2 && strcmp(argv[1], "--help") == 0) return usage(stdout, 0);
    if (argc != 2 || strcmp(argv[1], "1") != 0) return usage(stderr, 2);

    struct sigaction stop{};
    stop.sa_handler = onStop; // no SA_RESTART: a stop cuts a wait short
    sigaction(SIGTERM, &stop, nullptr);
    sigaction(SIGINT, &stop, nullptr);
    signal(SIGPIPE, SIG_IGN);

    if (!ContextInitialize() || !ProcSetId(MSG_PROCESS_PROCMGR)) {
        fprintf(stderr, "fhpmgr: the library did not start\n");
        return 1;
    }
    ProcSetName("Process Manager");
    const int pidFile = lockPidFile();
    if (pidFile == -1) {
        fprintf(stderr, "fhpmgr: another process manager runs on this machine\n");
        ContextReleaseThread();
        return 1;
    }
    if (!ShmInitialize() || !MsgIpcConnect(0)) {
        fprintf(stderr, "fhpmgr: %s\n", "shared memory in use, or no communication manager");
        ContextReleaseThread();
        return 1;
    }
    int32_t grace = kDefaultGrace;
    char *locale = nullptr;
    CfgGetInteger(&grace, "procmgr.cfg", "Process Manager", "Kill Grace", kDefaultGrace);
    CfgGetString(&locale, "procmgr.cfg", "Process Manager", "Locale", "");
    int status = 0;
    {
        fhpmgr::Manager manager(grace, locale != nullptr ? locale : "");
        MemFreeInternal(&locale);
        if (!manager.open()) {
            fprintf(stderr, "fhpmgr: can't make the process table\n");
            status = 1;
        } else {
            printf("fhpmgr ready: main segment %ld table segment %ld\n", static_cast<long>(manager.mainSegment()),
                   static_cast<long>(manager.tableSegment()));
            fflush(stdout);
            manager.startOfDay();
        }
        TIME_TIMEOUT *timeout = nullptr;
        TimeCreateTimeout(&timeout);
        while (status == 0 && !gStop) {
            TimeSetTimeoutNow(timeout);
            TIME_OFFSET offset{0, manager.nextWait()};
            TimeSetTimeoutRelative(timeout, timeout, &offset);
            MSG_PACKET *packet = nullptr;
            if (MsgReceivePacket(&packet, timeout)) {
                const int32_t type = MsgPacketMsgType(packet);
                if (type >= MSG_LOST_RECEIVE_QUEUE_MSG && type <= MSG_UNEXPECTED_SEND_ERROR_MSG) {
                    fprintf(stderr, "fhpmgr: the connection to the communication manager is lost\n");
                    ObjReleaseInternal(&packet);
                    status = 1;
                    break;
                }
                manager.handle(&packet);
            }
            manager.pass();
        }
        ObjReleaseInternal(&timeout);
    }
    ContextReleaseThread();
    close(pidFile);
    return status;
}
