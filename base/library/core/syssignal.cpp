// syssignal.cpp - signal handlers and critical sections.
//
// State, all static: the notify set, which holds SIGALRM once SigInitialize
// has built it; the switch that SigInitialize turns on, before which the
// critical sections do nothing; and the nesting count of critical sections
// and running handlers.
//
// Invariant: while the count is above 0 the notify set is held. Stop holds
// the set before it counts, Start counts down before it releases, and only
// the step down to 0 releases; so a handler that opens and closes a section
// inside an outer one leaves the set held. The count never goes below 0.
#include "core/syssignal.h"

#include <cerrno>
#include <cstring>

#include "core/context.h"
#include "tracer.h"

namespace {

constexpr fh::ModuleTracer trace{"SIGNAL        "};

enum TraceId : int32_t { kIdCleanup = 1, kIdSetFailed = 2 };

sigset_t gNotifySet;                   // empty until SigInitialize
volatile sig_atomic_t gSectionsOn = 0; // the switch
volatile sig_atomic_t gNesting = 0;

// sigaction with the notify set as the mask and no flags, so no SA_RESTART;
// the old handler, or SIG_ERR.
SigHandler install(int sig, SigHandler handler) {
    struct sigaction action, old;
    memset(&action, 0, sizeof action);
    action.sa_handler = handler;
    action.sa_mask = gNotifySet;
    if (sigaction(sig, &action, &old) != 0) return SIG_ERR;
    return old.sa_handler;
}

// sigprocmask how on a set of one signal; -1 for a signal that isn't one.
int32_t maskOne(int how, int sig) {
    sigset_t one;
    sigemptyset(&one);
    if (sigaddset(&one, sig) != 0) return -1;
    return sigprocmask(how, &one, nullptr);
}

int32_t maskSet(int how, const sigset_t *set) {
    if (set == nullptr) return errno = EINVAL, -1;
    return sigprocmask(how, set, nullptr);
}

} // namespace

SigHandler SigSet(int32_t sig, SigHandler handler) {
    SigHandler old = install(sig, handler);
    if (old == SIG_ERR) {
        const int error = errno;
        trace(kIdSetFailed, error, 1, "SigSet(%ld) failed: %s", static_cast<long>(sig), strerror(error));
        errno = error;
    }
    return old;
}

SigHandler SigGet(int32_t sig) {
    struct sigaction current;
    return sigaction(sig, nullptr, &current) == 0 ? current.sa_handler : SIG_ERR;
}

SigHandler SigIgnore(int32_t sig) { return SigSet(sig, SIG_IGN); }

int32_t SigHold(int32_t sig) { return maskOne(SIG_BLOCK, sig); }
int32_t SigRelease(int32_t sig) { return maskOne(SIG_UNBLOCK, sig); }
int32_t SigHoldSet(const sigset_t *set) { return maskSet(SIG_BLOCK, set); }
int32_t SigReleaseSet(const sigset_t *set) { return maskSet(SIG_UNBLOCK, set); }

int32_t SigHoldAll(void) {
    sigset_t all;
    sigfillset(&all);
    return sigprocmask(SIG_BLOCK, &all, nullptr);
}

// SIGKILL and SIGSTOP, and signals the system library keeps for itself,
// refuse; the others are ignored.
int32_t SigIgnoreAll(void) {
    sigset_t all, old;
    sigfillset(&all);
    if (sigprocmask(SIG_BLOCK, &all, &old) != 0) return -1;
    for (int sig = 1; sig <= 32; ++sig) install(sig, SIG_IGN);
    return sigprocmask(SIG_SETMASK, &old, nullptr);
}

int32_t SigPause(int32_t sig) {
    sigset_t only;
    sigemptyset(&only);
    if (sigaddset(&only, sig) != 0) return -1;
    sigsuspend(&only); // always -1 with EINTR
    return sigprocmask(SIG_UNBLOCK, &only, nullptr);
}

void SigNotifyStop(void) {
    if (!gSectionsOn) return;
    sigprocmask(SIG_BLOCK, &gNotifySet, nullptr);
    gNesting = gNesting + 1;
}

void SigNotifyStart(void) {
    if (!gSectionsOn || gNesting == 0) return;
    gNesting = gNesting - 1;
    if (gNesting == 0) sigprocmask(SIG_UNBLOCK, &gNotifySet, nullptr);
}

void SigEnteringHandler(void) { gNesting = gNesting + 1; }

void SigLeavingHandler(void) {
    if (gNesting > 0) gNesting = gNesting - 1;
}

int32_t SigErrorCode(void) { return 0; }

void SigCleanup(void) { trace(kIdCleanup, 0, 3, "SigCleanup"); }

BOOL SigInitialize(void) {
    sigemptyset(&gNotifySet);
    sigaddset(&gNotifySet, SIGALRM);
    gSectionsOn = 1;
    return TRUE;
}

BOOL SigInitializeThread(void) { return TRUE; }
void SigReleaseThread(LmContext *) {}
