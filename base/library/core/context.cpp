// context.cpp - the context record and the module ladder.
//
// Every module of the library has three operations: Initialize (once per
// process), InitializeThread (creates its state in the context record) and
// ReleaseThread (frees that state, and accepts state never made). They are
// held in one table, written in InitializeThread order; the Initialize ladder
// is the same table ordered by failure code, which differs only where a
// module's process-wide set-up must come before another's. Release runs the
// table backwards.
//
// States of a process, from Initialized, the thread context marker and the
// per-context state:
//   Loaded           0, unset, none     nothing has run
//   Running          1, set,   present  the normal state
//   Module failure   0, set,   none     an Initialize failed; the next
//                                       ContextInitialize runs the ladder again
//   Context failure  1, set,   released an InitializeThread failed
//   Released         1, set,   released after ContextReleaseThread
// ContextInitialize never creates per-context state twice: it does so only
// when it is the call that set the marker.
#include "core/context.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

#include "core/config.h"
#include "core/list.h"
#include "core/locale.h"
#include "core/map.h"
#include "core/memory.h"
#include "core/msg.h"
#include "core/msgwait.h"
#include "core/net.h"
#include "core/object.h"
#include "core/objmap.h"
#include "core/objwrappers.h"
#include "core/path.h"
#include "core/proc.h"
#include "core/shm.h"
#include "core/stanzafile.h"
#include "core/strbase.h"
#include "core/sys.h"
#include "core/syssignal.h"
#include "core/timeout.h"
#include "core/timer.h"
#include "core/trace.h"
#include "core/tree.h"
#include "cfgcache.h"
#include "proctable.h"
#include "seams.h"
#include "tracer.h"

LmContext gtLmContext = {};

namespace {

constexpr fh::ModuleTracer trace{"CONTEXT        "};

struct Module {
    const char *name;
    int32_t failureCode; // printed when Initialize fails; orders the ladder
    BOOL (*initialize)();
    BOOL (*initializeThread)(LmContext *);
    void (*releaseThread)(LmContext *);
};

constexpr Module kModules[] = {
    {"Trace", 390, TraceInitialize, TraceInitializeThread, TraceReleaseThread},
    {"Memory", 395, MemoryInitialize, [](LmContext *) { return MemoryInitializeThread(); }, MemoryReleaseThread},
    {"Sys", 400, SysInitialize, [](LmContext *) { return SysInitializeThread(); }, SysReleaseThread},
    {"Sig", 410, SigInitialize, [](LmContext *) { return SigInitializeThread(); }, SigReleaseThread},
    {"Path", 405, PathInitialize, [](LmContext *) { return PathInitializeThread(); }, PathReleaseThread},
    {"Map", 415, MapInitialize, [](LmContext *) { return MapInitializeThread(); }, MapReleaseThread},
    {"Obj", 420, ObjInitialize, [](LmContext *) { return ObjInitializeThread(); }, ObjReleaseThread},
    {"List", 425, ListInitialize, [](LmContext *) { return ListInitializeThread(); }, ListReleaseThread},
    {"Tree", 430, TreeInitialize, [](LmContext *) { return TreeInitializeThread(); }, TreeReleaseThread},
    {"ObjMap", 435, ObjMapInitialize, [](LmContext *) { return ObjMapInitializeThread(); }, ObjMapReleaseThread},
    {"ObjWrappers", 440, ObjWrappersInitialize, [](LmContext *) { return ObjWrappersInitializeThread(); },
     ObjWrappersReleaseThread},
    {"StrBase", 450, StrBaseInitialize, StrBaseInitializeThread, StrBaseReleaseThread},
    {"StnzFile", 455, StnzFileInitialize, [](LmContext *) { return StnzFileInitializeThread(); },
     StnzFileReleaseThread},
    {"CfgCache", 457, [] { return BOOL{TRUE}; }, [](LmContext *) { return BOOL{TRUE}; },
     [](LmContext *) { fh::cfgCacheRelease(); }},
    {"Net", 460, NetInitialize, [](LmContext *) { return NetInitializeThread(); }, NetReleaseThread},
    {"Time", 475, TimeInitialize, [](LmContext *) { return TimeInitializeThread(); }, TimeReleaseThread},
    {"Locale", 480, LocaleInitialize, [](LmContext *) { return LocaleInitializeThread(); }, LocaleReleaseThread},
    {"Msg", 500, MsgInitialize, [](LmContext *) { return MsgInitializeThread(); }, MsgReleaseThread},
    {"MsgWait", 505, MsgWaitInitialize, MsgWaitInitializeThread, MsgWaitReleaseThread},
    {"Timer", 510, TimerInitialize, TimerInitializeThread, TimerReleaseThread},
    {"Shm", 515, ShmInitialize, ShmInitializeThread, ShmReleaseThread},
    {"Process", 520, ProcessInitialize, ProcessInitializeThread, ProcessReleaseThread},
};
constexpr size_t kModuleCount = std::size(kModules);

constexpr std::array<size_t, kModuleCount> initializeOrder() {
    std::array<size_t, kModuleCount> order{};
    for (size_t i = 0; i < kModuleCount; ++i) order[i] = i;
    std::sort(order.begin(), order.end(),
              [](size_t a, size_t b) { return kModules[a].failureCode < kModules[b].failureCode; });
    return order;
}
constexpr std::array<size_t, kModuleCount> kLadder = initializeOrder();

bool gInitialized = false;
bool gThreaded = false;
bool gMultiThreaded = false; // no writer: one context per process
bool gThreadingAllowed = false;
bool gCrashFlag = false;
char gThreadContextMarker;
int32_t gFailInitializeCode = 0;
int32_t gFailThreadCode = 0;

// Runs the Initialize ladder; the failure code of the first module that
// fails, or 0.
int32_t runLadder() {
    for (size_t index : kLadder) {
        const Module &m = kModules[index];
        if (!m.initialize() || m.failureCode == gFailInitializeCode) return m.failureCode;
    }
    return 0;
}

} // namespace

namespace fh {

void contextSetCrashFlag(bool on) { gCrashFlag = on; }
bool contextCrashFlag() { return gCrashFlag; }
void contextFailInitialize(int32_t code) { gFailInitializeCode = code; }
void contextFailInitializeThread(int32_t code) { gFailThreadCode = code; }

void processEntryStore(size_t offset, int32_t value) {
    if (unsigned char *entry = gtLmContext.pProcessTableEntry; entry != nullptr)
        memcpy(entry + offset, &value, sizeof value);
}

} // namespace fh

BOOL ContextInitialize(void) {
    bool error = false;
    bool initializeThreadContext = true;
    if (!gThreaded) {
        gThreadingAllowed = false;
        if (gtLmContext.pThreadContextMarker != nullptr)
            initializeThreadContext = false;
        else
            gtLmContext.pThreadContextMarker = &gThreadContextMarker;
    }
    if (!gInitialized) {
        umask(0);
        if (int32_t failed = runLadder(); failed != 0) {
            printf("%d\n", failed);
            fflush(stdout);
            error = true;
        }
        gInitialized = !error;
    }
    trace(2, 0, 2, "bError = %s bInitializeThreadContext = %s", fh::boolText(error),
          fh::boolText(initializeThreadContext));
    if (!error && initializeThreadContext && !ContextInitializeThread()) error = true;
    return !error;
}

BOOL ContextInitializeThread(void) {
    trace(1, 0, 2, "ContextInitializeThread");
    for (const Module &m : kModules) {
        if (!m.initializeThread(&gtLmContext) || m.failureCode == gFailThreadCode) {
            trace(6, m.failureCode, -1, "ContextInitializeThread - %s failed", m.name);
            ContextReleaseThread();
            return FALSE;
        }
    }
    return TRUE;
}

void ContextReleaseThread(void) {
    gtLmContext.pProcessTableEntry = nullptr;
    for (size_t i = kModuleCount; i-- > 0;) kModules[i].releaseThread(&gtLmContext);
}

BOOL ContextIsInitialized(void) { return gInitialized; }
BOOL ContextIsThreaded(void) { return gThreaded; }
BOOL ContextIsMultiThreaded(void) { return gMultiThreaded; }
BOOL ContextThreadIsInitialized(void) { return gInitialized && !gThreaded; }

BOOL ContextAllowThreading(void) {
    if (gThreadingAllowed) gThreaded = true;
    return gThreaded;
}

LmContext *ContextGet(void) { return &gtLmContext; }
void ContextSet(void) {}
BOOL ContextValid(void) { return TRUE; }

BOOL ContextSetThreadData(intptr_t data) {
    if (!ContextThreadIsInitialized()) return FALSE;
    gtLmContext.iThreadData = data;
    return TRUE;
}

intptr_t ContextGetThreadData(void) { return ContextThreadIsInitialized() ? gtLmContext.iThreadData : 0; }

// The list of context objects is an extension list, made by the first
// object stored and released with the per-context state of lists.
BOOL ContextSetContextObject(void *object) {
    if (!ObjHasValidGlobalMagic(object)) {
        return trace.fault(FALSE, 3, 0, "ContextSetContextObject(%p) - not passed an object", object);
    }
    return ListSetExtensionItem(&gtLmContext.pContextObjects, object);
}

BOOL ContextGetContextObject(void **object, uint32_t magic) {
    if (object == nullptr) {
        trace(4, 0, -1, "ContextGetContextObject(%p, %ld) - bad params", static_cast<void *>(object),
              static_cast<long>(static_cast<int32_t>(magic)));
        return FALSE;
    }
    *object = nullptr;
    return ListGetExtensionItem(object, static_cast<LIST *>(gtLmContext.pContextObjects), magic);
}

void ProcCrash(int32_t force) {
    if (force == 0 && !gCrashFlag) return;
    trace(5, force, -1, "Crash program");
    // The default action of SIGSEGV leaves a core file; make sure nothing
    // the program installed, or a blocked mask, stands in its way.
    struct sigaction action;
    memset(&action, 0, sizeof action);
    action.sa_handler = SIG_DFL;
    sigaction(SIGSEGV, &action, nullptr);
    sigset_t segv;
    sigemptyset(&segv);
    sigaddset(&segv, SIGSEGV);
    sigprocmask(SIG_UNBLOCK, &segv, nullptr);
    kill(getpid(), SIGSEGV);
    abort();
}

void ProcSetCrash(void) {
    BOOL crash = FALSE;
    CfgGetBoolean(&crash, "configure.cfg", "Trace", "Do Crash", FALSE);
    gCrashFlag = crash != FALSE;
}
