// The signal module with real signals, each case in a child process so that
// handlers and masks stay there: the mask a handler runs with, interrupted
// calls, nested critical sections in and out of handlers, pausing, and
// ignoring everything.
#include "helpers.h"

#include <poll.h>
#include <signal.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

namespace {

using SigTest = LibraryTest;

// Each check in a child: 0 when every check held, else the number of the
// first that failed.
using testhelp::inChild;

bool held(int sig) {
    sigset_t now;
    sigprocmask(SIG_BLOCK, nullptr, &now);
    return sigismember(&now, sig) == 1;
}

volatile sig_atomic_t gAlarmHeldInHandler = -1;
volatile sig_atomic_t gHeldAfterInnerSection = -1;

TEST_F(SigTest, HandlerRunsWithAlarmHeldAndInterruptsCalls) {
    EXPECT_EQ(0, inChild([] {
                  auto handler = [](int) { gAlarmHeldInHandler = held(SIGALRM); };
                  if (SigSet(SIGUSR1, handler) != SIG_DFL || SigGet(SIGUSR1) != handler) return 1;
                  raise(SIGUSR1);
                  if (gAlarmHeldInHandler != 1 || held(SIGALRM)) return 2;
                  // No SA_RESTART: a read that a handled signal interrupts fails with EINTR.
                  int pipeEnds[2];
                  if (pipe(pipeEnds) != 0 || SigSet(SIGALRM, [](int) {}) != SIG_DFL) return 3;
                  itimerval shortly{{0, 0}, {0, 50 * 1000}};
                  setitimer(ITIMER_REAL, &shortly, nullptr);
                  char byte;
                  if (read(pipeEnds[0], &byte, 1) != -1 || errno != EINTR) return 4;
                  if (SigIgnore(SIGUSR1) != handler || SigGet(SIGUSR1) != SIG_IGN) return 5;
                  if (SigSet(0, handler) != SIG_ERR || SigGet(-1) != SIG_ERR) return 6;
                  return 0;
              }));
}

TEST_F(SigTest, OnlyTheOutermostSectionReleasesAlarm) {
    EXPECT_EQ(0, inChild([] {
                  SigNotifyStop();
                  SigNotifyStop();
                  SigNotifyStart();
                  if (!held(SIGALRM)) return 1;
                  SigNotifyStart();
                  if (held(SIGALRM)) return 2;
                  SigNotifyStart(); // one too many changes nothing
                  SigNotifyStop();
                  if (!held(SIGALRM)) return 3;
                  // A handler that opens and closes a section inside the outer one
                  // leaves alarm held, in the handler and after it.
                  SigSet(SIGUSR1, [](int) {
                      SigNotifyStop();
                      SigNotifyStart();
                      gHeldAfterInnerSection = held(SIGALRM);
                  });
                  raise(SIGUSR1);
                  if (gHeldAfterInnerSection != 1 || !held(SIGALRM)) return 4;
                  SigNotifyStart();
                  if (held(SIGALRM)) return 5;
                  // A handler counts as a section of its own.
                  SigEnteringHandler();
                  SigNotifyStop();
                  SigNotifyStart();
                  if (!held(SIGALRM)) return 6;
                  SigLeavingHandler();
                  SigNotifyStop();
                  SigNotifyStart();
                  return held(SIGALRM) ? 7 : 0;
              }));
}

// The child pauses on SIGUSR1 with SIGUSR1 already pending; SIGUSR2 ends the
// pause, and only then is SIGUSR1 handled. The handlers write the order.
char gOrder[16];
volatile sig_atomic_t gOrderLength = 0;
void note(char c) {
    if (gOrderLength >= static_cast<sig_atomic_t>(sizeof gOrder) - 1) return;
    gOrder[gOrderLength] = c;
    gOrderLength = gOrderLength + 1;
}

TEST_F(SigTest, PauseEndsOnAnotherSignalNotItsOwn) {
    int ready[2], done[2];
    ASSERT_EQ(pipe(ready), 0);
    ASSERT_EQ(pipe(done), 0);
    const pid_t pid = fork();
    if (pid == 0) {
        SigSet(SIGUSR1, [](int) { note('1'); });
        SigSet(SIGUSR2, [](int) { note('2'); });
        SigHold(SIGUSR1);
        if (write(ready[1], "r", 1) != 1) _exit(1);
        SigPause(SIGUSR1);
        gOrder[gOrderLength] = '\0';
        if (write(done[1], gOrder, strlen(gOrder) + 1) < 0) _exit(1);
        _exit(0);
    }
    char byte;
    ASSERT_EQ(read(ready[0], &byte, 1), 1);
    kill(pid, SIGUSR1);
    usleep(100 * 1000); // time for a pause that wrongly lets SIGUSR1 in to end on it
    // Until the child reports, keep nudging it: a SIGUSR2 that arrives before
    // it pauses is handled and the pause waits for the next one.
    char order[16] = {};
    pollfd report{done[0], POLLIN, 0};
    for (int tries = 0; tries < 200 && poll(&report, 1, 0) == 0; ++tries) {
        kill(pid, SIGUSR2);
        poll(&report, 1, 50);
    }
    ASSERT_GT(read(done[0], order, sizeof order - 1), 0);
    int status = 0;
    waitpid(pid, &status, 0);
    // SIGUSR2 (perhaps more than one, some before the pause) ends the pause;
    // only then is the held SIGUSR1 handled, once.
    const std::string seen = order;
    ASSERT_GE(seen.size(), 2u) << seen;
    EXPECT_EQ(seen.find('1'), seen.size() - 1) << seen;
    EXPECT_EQ(seen.find_first_not_of('2'), seen.size() - 1) << seen;
    for (int fd : {ready[0], ready[1], done[0], done[1]}) close(fd);
}

TEST_F(SigTest, IgnoreAllKeepsTheMask) {
    EXPECT_EQ(0, inChild([] {
                  SigSet(SIGTERM, [](int) { _exit(9); });
                  SigHold(SIGUSR2);
                  if (SigIgnoreAll() != 0) return 1;
                  if (SigGet(SIGTERM) != SIG_IGN || SigGet(SIGHUP) != SIG_IGN || SigGet(SIGUSR1) != SIG_IGN) return 2;
                  if (!held(SIGUSR2) || held(SIGUSR1) || held(SIGTERM)) return 3;
                  raise(SIGTERM);
                  raise(SIGUSR1);
                  // What isn't a signal is refused.
                  if (SigHold(0) != -1 || SigHold(1000) != -1 || SigHoldSet(nullptr) != -1 || SigPause(0) != -1)
                      return 8;
                  return SigErrorCode();
              }));
}

} // namespace
