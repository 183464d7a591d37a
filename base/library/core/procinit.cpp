// procinit.cpp - the process: how it joins the system and leaves it.
//
// Start-up (ProcInitializeTags) fills a PROC_INITIALIZE_ARGS from the
// caller's tags, reads the id text, connects to the communication manager,
// sends the initial status to the process manager and waits, without a time
// limit, for the attach message; packets of other types that come in the
// meantime are kept (the latest first) and go back to the front of the
// receive list afterwards, so that the program sees them in their order.
// The communication manager (id 2) and the process manager (id 1) have
// nobody to ask and skip the status and the wait. Any failure ends in
// ProcRelease(1), which takes the context down again.
//
// A process goes through these states:
//   Loaded       nothing of the library is up
//   Connecting   the id is known, the IPC channel is being made
//   Waiting      the initial status is sent; packets are kept
//   Up           attached and its first state told (2 ready, 3 busy)
//   Released     ProcRelease has run: state 4 (or 6) told, the cleanup
//                routines run, the context released
// ProcCleanup is Released and then the end of the process; only its first
// call counts (iProcCleanupCount).
//
// SIGTERM runs ProcCleanup in a managed process. Since that sends,
// allocates and exits, the handler runs it at once only while the receive
// layer waits in its poll, where nothing is half done; elsewhere it marks
// the signal, and the next entry into the receive layer (procStopPoint, or
// the next wait) runs it there.
#include "core/proc.h"

#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include "core/channel.h"
#include "core/config.h"
#include "core/context.h"
#include "core/list.h"
#include "core/memory.h"
#include "core/msgpacket.h"
#include "core/msgreceive.h"
#include "core/msgsend.h"
#include "core/object.h"
#include "core/strbase.h"
#include "core/sys.h"
#include "core/syssignal.h"
#include "core/timeout.h"
#include "core/trace.h"
#include "messages/msgmsg.h"
#include "messages/msgpmgr.h"
#include "msgchannel.h"
#include "objcore.h"
#include "procstart.h"
#include "tracer.h"

namespace {

constexpr fh::ModuleTracer trace{"PROCESS        "};

enum TraceId : int32_t {
    kIdEntry = 20,
    kIdExit,
    kIdBadId,
    kIdNoIpc,
    kIdNewStyle,
    kIdNoStatusObject,
    kIdNoInitialStatus,
    kIdNoAttach,
    kIdLocale,
    kIdNoLocale,
    kIdBadLocale,
    kIdSubsystem,
    kIdDefer,
    kIdSetLevel,
    kIdRelease,
    kIdBadTags,
    kIdNoParent,
    kIdObjects,
    kIdMemory,
    kIdAlive,
};

// The start-up arguments, tag by tag (proc.h names the tags).
struct PROC_INITIALIZE_ARGS {
    int32_t iTraceLevel;
    BOOL bUnmanaged;
    BOOL bNewStyleTasks;
    BOOL bReady;
    BOOL bWantsProgress;
    BOOL bViewer;
    char *pszTraceFile;
    char *pszIdText;
    int32_t iProcessId;
    char *pszTitle;
    char *pszName;
    BOOL bTracePrefix;
    BOOL bHoldDisconnect;
};

// A cleanup routine and its user value.
struct PROC_CLEANUP {
    void *pRoutine;
    void *pUser;
};

constexpr uint32_t kArgsMagic = 0xCA950881u;
constexpr uint32_t kCleanupMagic = 0xC8E8EE95u;

constinit fh::ObjectType<PROC_INITIALIZE_ARGS> gArgsType{kArgsMagic, "i;b;b;b;b;b;s;s;i;s;s;b;b;"};
constinit fh::ObjectType<PROC_CLEANUP> gCleanupType{kCleanupMagic, "p;p;"};
constinit fh::ObjectType<PMGR_PROCESS_STATUS> gStatusType{PMGR_PROCESS_STATUS_MAGIC, PMGR_PROCESS_STATUS_FORMAT,
                                                          fh::kReceivable};
constinit fh::ObjectType<PMGR_PROCESS_INITIAL_STATUS> gInitialType{PMGR_PROCESS_INITIAL_STATUS_MAGIC,
                                                                   PMGR_PROCESS_INITIAL_STATUS_FORMAT, fh::kReceivable};
constinit fh::ObjectType<PMGR_SET_LOCALE> gLocaleType{PMGR_SET_LOCALE_MAGIC, PMGR_SET_LOCALE_FORMAT, fh::kReceivable};
constinit fh::ObjectType<MSG_CHILD_INITIALIZED> gChildType{MSG_CHILD_INITIALIZED_MAGIC, MSG_CHILD_INITIALIZED_FORMAT,
                                                           fh::kReceivable};

constexpr std::pair<const char *, int32_t> kLevels[] = {
    {"ALWAYS", -1}, {"NORMAL", 0}, {"VERBOSE", 1}, {"LIBNORMAL", 2}, {"LIBVERBOSE", 3}};

// What every status tells besides the state: copies of the start-up's
// progress and viewer tags. Written once, at start-up.
struct StatusFlags {
    BOOL wantsProgress;
    BOOL viewer;
};
StatusFlags gStatusFlags{};

// The SIGTERM protocol: gWaiting while the receive layer polls, the signal
// kept in gStopSignal while it can't be served.
volatile sig_atomic_t gWaiting = 0;
volatile sig_atomic_t gStopSignal = 0;

void onTerm(int sig) {
    if (gWaiting != 0) {
        gWaiting = 0;
        ProcCleanup(sig);
        return;
    }
    gStopSignal = sig;
}

LIST *cleanupList() { return static_cast<LIST *>(gtLmContext.oProcCleanupList); }

bool special(int32_t id) { return id == MSG_PROCESS_PROCMGR || id == MSG_PROCESS_COMMMGR; }

PMGR_PROCESS_STATUS *newStatus(int32_t state, int32_t pid) {
    PMGR_PROCESS_STATUS *status = gStatusType.newInstance(nullptr);
    if (status != nullptr) *status = {state, pid, 0, gStatusFlags.wantsProgress, gStatusFlags.viewer, 0};
    return status;
}

// ---- Start-up ----

struct StartUp {
    PROC_INITIALIZE_ARGS *args;
    int32_t parent;     // the waiting parent's id, or 0
    int32_t firstState; // told once attached
};

// The arguments: defaults, then the caller's tags through the context's
// tag target.
PROC_INITIALIZE_ARGS *makeArgs(int32_t first, va_list pairs) {
    PROC_INITIALIZE_ARGS *args = gArgsType.newInstance(nullptr);
    if (args == nullptr) return nullptr;
    gtLmContext.pObjTagTarget = args;
    ObjSetFromTagsStepperInternal(-2, PROC_TAG_TRACE_LEVEL, 0, -1);
    if (first == -2)
        ObjSetFromTagsVAListInternal(args, pairs);
    else if (first != 0)
        trace.fault(0, kIdBadTags, 0, "ProcInitializeTags(%ld, ...) - bad tag list", static_cast<long>(first));
    gtLmContext.pObjTagTarget = nullptr;
    return args;
}

// The id, the flags and the settings of the process, before any
// connection. False when the id text is not a number alone.
bool configure(StartUp &s) {
    PROC_INITIALIZE_ARGS &a = *s.args;
    LmContext &c = gtLmContext;
    const char *idText = a.pszIdText != nullptr ? a.pszIdText : "0";
    if (a.pszIdText == nullptr) a.bUnmanaged = TRUE;
    int32_t id = 0;
    if (!fh::procScanId(idText, &id)) {
        trace(kIdBadId, 0, -1, "Invalid process id '%s'", idText);
        return false;
    }
    if (id < 0) {
        s.parent = -id;
        id = 0;
        a.bUnmanaged = TRUE;
    }
    a.iProcessId = id;
    s.firstState = a.bReady ? PROC_STATE_WAITING : PROC_STATE_BUSY;
    c.bProcUnmanaged = a.bUnmanaged;
    c.bProcNewStyleTasks = a.bNewStyleTasks;
    c.bProcHoldDisconnect = a.bHoldDisconnect;
    c.iProcessId = id;
    fh::msgSetOldStyleTasks(!a.bNewStyleTasks);
    gStatusFlags = {a.bWantsProgress, a.bViewer};
    // The trace file itself is opened by the trace file layer; the prefix
    // is kept for the names that the end of start-up makes from it.
    if (a.pszTraceFile != nullptr && a.bTracePrefix) {
        MemFreeInternal(&c.pszProcTraceFilePrefix);
        c.pszProcTraceFilePrefix = StrDuplicateIntoPool(a.pszTraceFile, nullptr);
    }
    TraceSetLevel(a.iTraceLevel);
    trace(kIdEntry, 0, 2, "ProcInitializeTags(%ld, %s, %s, %s, %s, %s, %s, %d)", static_cast<long>(a.iTraceLevel),
          idText, fh::boolText(a.bUnmanaged), fh::boolText(a.bNewStyleTasks), fh::boolText(a.bReady),
          fh::boolText(a.bWantsProgress), fh::boolText(a.bViewer), static_cast<int>(a.bHoldDisconnect));
    ProcSetCrash();
    MsgCreateLocalAddress();
    if (!a.bUnmanaged) SigSet(SIGTERM, onTerm);
    return true;
}

bool sendInitialStatus(const PROC_INITIALIZE_ARGS &a) {
    PMGR_PROCESS_INITIAL_STATUS *initial = gInitialType.newInstance(nullptr);
    PMGR_PROCESS_STATUS *status = newStatus(a.bUnmanaged ? 1 : 0, a.bUnmanaged ? ProcGetRealId() : 0);
    if (initial == nullptr || status == nullptr) {
        trace(kIdNoStatusObject, 0, -1, "failed to create status object");
        ObjReleaseInternal(&initial);
        ObjReleaseInternal(&status);
        return false;
    }
    initial->oStatus = status;
    if (a.bNewStyleTasks) {
        initial->iFlags |= PMGR_INITIAL_NEW_STYLE_TASKS;
        trace(kIdNewStyle, 0, 2, "This process will expect new style tasks");
    }
    const bool sent = MsgSendObject(MsgProcMgrAddress(), PMGR_PROCESS_INITIAL_STATUS_MSG, initial);
    if (!sent) trace(kIdNoInitialStatus, 0, -1, "Failed to send initial status");
    ObjReleaseInternal(&initial);
    return sent;
}

// The locale of PMGR_SET_LOCALE_MSG goes to the catalogues once they take
// one; until then it is checked and traced.
void takeLocale(const MSG_PACKET *packet) {
    PMGR_SET_LOCALE *body = nullptr;
    if (!MsgObjectFromPacketInternal(reinterpret_cast<void **>(&body), packet, PMGR_SET_LOCALE_MAGIC)) {
        trace(kIdBadLocale, 0, -1, "Bad/No object in PMGR_SET_LOCALE_MSG");
        return;
    }
    if (body->pszLocale == nullptr || body->pszLocale[0] == '\0')
        trace(kIdNoLocale, 0, -1, "No locale in PMGR_SET_LOCALE_MSG");
    else
        trace(kIdLocale, 0, 2, "Locale '%s' from PMGR_SET_LOCALE_MSG", body->pszLocale);
    ObjReleaseInternal(&body);
}

enum class Wait { kOn, kUp, kFailed };

// One packet of the start-up wait; takes it.
Wait onPacket(MSG_PACKET **packet, const StartUp &s, LIST *deferred) {
    const int32_t type = MsgPacketMsgType(*packet);
    Wait next = Wait::kOn;
    if (type == PMGR_ATTACH_TO_SHM_MSG) {
        const bool attached = ProcAttachSharedMemory(*packet, s.args->bViewer);
        if (!attached) trace(kIdNoAttach, 0, -1, "Failed to attach shared memory");
        next = attached && ProcSendStatus(s.firstState) ? Wait::kUp : Wait::kFailed;
    } else if (type == PMGR_SET_LOCALE_MSG) {
        takeLocale(*packet);
    } else if (type >= MSG_LOST_RECEIVE_QUEUE_MSG && type <= MSG_UNEXPECTED_SEND_ERROR_MSG) {
        trace(kIdSubsystem, type, -1, "Message subsystem has failed (%ld)", static_cast<long>(type));
        next = Wait::kFailed;
    } else {
        trace(kIdDefer, 0, 2, "Defer message type %ld for later processing", static_cast<long>(type));
        ListPushFirstItemInternal(deferred, packet);
    }
    ObjReleaseInternal(packet);
    return next;
}

// The connection, the initial status and the wait for the attach; the
// packets kept meanwhile go back to the receive list in their order.
bool converse(const StartUp &s) {
    if (!MsgIpcConnect(0)) {
        trace(kIdNoIpc, 0, -1, "Failed to connect to the communication manager");
        return false;
    }
    const int32_t id = gtLmContext.iProcessId;
    if (id == MSG_PROCESS_COMMMGR) ProcSetName("Communication Manager");
    if (special(id)) return true;
    if (!sendInitialStatus(*s.args)) return false;
    TIME_TIMEOUT never{};
    TimeSetTimeoutNever(&never);
    LIST *deferred = ListNewFromPool(MSG_PACKET_MAGIC, nullptr);
    Wait state = Wait::kOn;
    for (MSG_PACKET *packet = nullptr; state == Wait::kOn; packet = nullptr)
        if (MsgReceivePacket(&packet, &never)) state = onPacket(&packet, s, deferred);
    MsgPushPackets(deferred);
    ObjReleaseInternal(&deferred);
    return state == Wait::kUp;
}

void applyNames(const PROC_INITIALIZE_ARGS &a) {
    if (a.pszTitle != nullptr && a.pszTitle[0] != '\0') ProcSetTitle(a.pszTitle);
    if (a.pszName != nullptr && a.pszName[0] != '\0') ProcSetName(a.pszName);
    ProcSetDefaultTraceLevel();
}

// MSG_CHILD_INITIALIZED_MSG to the process that started this one and
// waits for it on this machine.
void tellParent(int32_t parent) {
    MSG_CHILD_INITIALIZED *body = gChildType.newInstance(nullptr);
    MSG_ADDRESS *to = nullptr;
    const bool sent = body != nullptr && MsgCreateAddress(&to, SysLocalMachineName(), parent) &&
                      (*body = {ProcGetId(), ProcGetRealId()}, MsgSendObject(to, MSG_CHILD_INITIALIZED_MSG, body));
    if (!sent) trace(kIdNoParent, 0, -1, "Failed to tell process %ld of this start", static_cast<long>(parent));
    ObjReleaseInternal(&to);
    ObjReleaseInternal(&body);
}

BOOL signalProcess(int32_t pid, int sig) { return pid > 1 && kill(pid, sig) == 0 ? TRUE : FALSE; }

} // namespace

// ---- What the process module shares ----

bool fh::procScanId(const char *text, int32_t *id) {
    long value = 0;
    char behind = 0;
    if (text == nullptr || sscanf(text, "%ld%c", &value, &behind) != 1) return false;
    // -INT32_MIN has no 32-bit form: a parent's id must be one.
    if (value <= INT32_MIN || value > INT32_MAX) return false;
    *id = static_cast<int32_t>(value);
    return true;
}

void fh::procWaitBegin() {
    gWaiting = 1; // from here a SIGTERM is served by its handler
    if (gStopSignal != 0) procStopPoint();
}

void fh::procWaitEnd() { gWaiting = 0; }

void fh::procStopPoint() {
    const int sig = gStopSignal;
    if (sig == 0) return;
    gStopSignal = 0;
    gWaiting = 0;
    ProcCleanup(sig);
}

bool fh::procStartInitialize() {
    return gArgsType.declare() && gCleanupType.declare() && gStatusType.declare() && gInitialType.declare() &&
           gLocaleType.declare() && gChildType.declare();
}

bool fh::procStartInitializeThread(LmContext *context) {
    context->oProcCleanupList = ListNewFromPool(kCleanupMagic, nullptr);
    return context->oProcCleanupList != nullptr;
}

void fh::procStartReleaseThread(LmContext *context) {
    ObjReleaseInternal(&context->oProcCleanupList);
    MemFreeInternal(&context->pszProcTraceFilePrefix);
}

// ---- Start-up ----

BOOL ProcInitializeTags(int32_t first, ...) {
    if (!ContextInitialize()) {
        ProcRelease(1);
        return FALSE;
    }
    va_list pairs;
    va_start(pairs, first);
    StartUp s{makeArgs(first, pairs), 0, PROC_STATE_BUSY};
    va_end(pairs);
    bool up = false;
    if (s.args != nullptr && configure(s)) {
        up = converse(s);
        applyNames(*s.args);
        if (up && s.parent != 0) tellParent(s.parent);
        trace(kIdExit, 0, 2, "%s = ProcInitializeTags(%ld, %s, %s, %s, %s, %s, %d)", fh::boolText(up),
              static_cast<long>(s.args->iTraceLevel), s.args->pszIdText != nullptr ? s.args->pszIdText : "0",
              fh::boolText(s.args->bUnmanaged), fh::boolText(s.args->bNewStyleTasks), fh::boolText(s.args->bReady),
              fh::boolText(s.args->bViewer), static_cast<int>(ProcGetId()));
    }
    ObjReleaseInternal(&s.args);
    if (!up) ProcRelease(1);
    return up ? TRUE : FALSE;
}

BOOL ProcInitialize(const char *idText, BOOL ready) {
    return ProcInitializeTags(-2, PROC_TAG_ID_TEXT, idText, PROC_TAG_READY, ready, -1);
}

BOOL ProcInitializeWithTrace(const char *idText, BOOL ready, const char *traceFile) {
    return ProcInitializeTags(-2, PROC_TAG_ID_TEXT, idText, PROC_TAG_READY, ready, PROC_TAG_TRACE_FILE, traceFile,
                              PROC_TAG_TRACE_LEVEL, 0, -1);
}

BOOL ProcInitializeWithProgress(const char *idText, BOOL ready, const char *traceFile, int32_t traceLevel) {
    return ProcInitializeTags(-2, PROC_TAG_ID_TEXT, idText, PROC_TAG_READY, ready, PROC_TAG_WANTS_PROGRESS, TRUE,
                              PROC_TAG_TRACE_FILE, traceFile, PROC_TAG_TRACE_LEVEL, traceLevel, -1);
}

BOOL ProcInitializeThread(const char *, int32_t) { return FALSE; }

BOOL ProcInitializeThreadWithProgress(const char *, int32_t) { return FALSE; }

BOOL ProcInitializeViewer(void **table, void **segment, const char *traceFile, int32_t traceLevel) {
    const BOOL up = ProcInitializeTags(-2, PROC_TAG_VIEWER, TRUE, PROC_TAG_TRACE_FILE, traceFile, PROC_TAG_TRACE_LEVEL,
                                       traceLevel, -1);
    if (table != nullptr) *table = up ? ProcGetProcessTable() : nullptr;
    if (segment != nullptr) *segment = up ? ProcShmAddress(0) : nullptr;
    return up;
}

BOOL ProcSendStatus(int32_t state) {
    PMGR_PROCESS_STATUS *status = newStatus(state, 0);
    const bool sent = status != nullptr && MsgSendObject(MsgProcMgrAddress(), PMGR_PROCESS_STATUS_MSG, status);
    ObjReleaseInternal(&status);
    return sent ? TRUE : FALSE;
}

// ---- Cleanup routines and exit ----

BOOL ProcAddCleanupRoutine(ProcCleanupRoutine routine, void *user) {
    LIST *list = cleanupList();
    if (list == nullptr) return FALSE;
    const int32_t level = TraceSetLevel(0);
    PROC_CLEANUP *entry = gCleanupType.newInstance(nullptr);
    bool added = false;
    if (entry != nullptr) {
        *entry = {reinterpret_cast<void *>(routine), user};
        added = ListPushFirstItemInternal(list, &entry) || (ObjReleaseInternal(&entry), false);
    }
    TraceSetLevel(level);
    return added ? TRUE : FALSE;
}

BOOL ProcRemoveCleanupRoutine(ProcCleanupRoutine routine, void *user) {
    LIST *list = cleanupList();
    if (list == nullptr || list->oFirst == nullptr) return FALSE;
    if (routine == nullptr) {
        ListRemoveItem(list->oFirst);
        return FALSE;
    }
    for (LISTNODE *node = list->oFirst; node != nullptr; node = node->oNext) {
        const auto *entry = static_cast<const PROC_CLEANUP *>(node->oItem);
        if (entry->pRoutine == reinterpret_cast<void *>(routine) && entry->pUser == user) return ListRemoveItem(node);
    }
    return FALSE;
}

void ProcRelease(int32_t code) {
    LmContext &c = gtLmContext;
    c.pProcTimeArea = nullptr;
    trace(kIdRelease, code, 2, "ProcRelease(%ld)", static_cast<long>(code));
    // Before the connection there is nobody to tell.
    if (!special(c.iProcessId) && c.bMsgIpcConnected)
        ProcSendStatus(code == -1 ? PROC_STATE_RESTART : PROC_STATE_EXITING);
    // Each entry leaves the list before its routine runs, so a routine may
    // add or remove others.
    for (void *item = nullptr; cleanupList() != nullptr && ListPopFirstItemInternal(cleanupList(), &item);) {
        auto *entry = static_cast<PROC_CLEANUP *>(item);
        if (entry->pRoutine != nullptr) reinterpret_cast<ProcCleanupRoutine>(entry->pRoutine)(entry->pUser, code);
        ObjReleaseInternal(&item);
    }
    TraceSetBuffer(TRACE_OWN_BUFFER);
    ContextReleaseThread();
}

void ProcCleanup(int32_t code) {
    if (gtLmContext.iProcCleanupCount++ > 0) return;
    BOOL logMemory = FALSE;
    if (ProcName() != nullptr) CfgGetBoolean(&logMemory, "monitor.cfg", "Log Memory on Exit", ProcName(), FALSE);
    if (logMemory) ProcMemoryUsage();
    if (code == -2) {
        MsgQuickExit(TRUE);
        code = 0;
    }
    ProcRelease(code);
    exit(code == 0 ? 0 : 1);
}

// ---- Settings ----

void ProcMemoryUsage(void) {
    trace(kIdObjects, 0, 0, "Objects: Count %ld Max %ld Allocations %ld", static_cast<long>(ObjCount()),
          static_cast<long>(ObjMax()), static_cast<long>(ObjAllocations()));
    trace(kIdMemory, 0, 0, "Memory: Count %ld Max %ld Allocations %ld", static_cast<long>(gtLmContext.iMemUsed),
          static_cast<long>(gtLmContext.iMemMax), static_cast<long>(gtLmContext.iMemAllocations));
}

void ProcSetDefaultTraceLevel(void) {
    char *text = nullptr;
    if (ProcName() == nullptr || !CfgGetString(&text, "programs.cfg", ProcName(), "Trace Level", nullptr) ||
        text == nullptr) {
        MemFreeInternal(&text);
        return;
    }
    trace(kIdSetLevel, 0, 2, "Set trace level to '%s'", text);
    for (const auto &[name, level] : kLevels)
        if (StrCompareNoCase(text, name) == 0) TraceSetLevel(level);
    MemFreeInternal(&text);
}

// ---- Small operations ----

char *ProcIdFileName(int32_t id) {
    char name[16];
    snprintf(name, sizeof name, "lmid%08lx", static_cast<unsigned long>(static_cast<uint32_t>(id)));
    return StrDuplicateIntoPool(name, nullptr);
}

int32_t ProcGetThreadId(void) { return -1; }

BOOL ProcKill(int32_t pid) { return signalProcess(pid, SIGKILL); }

BOOL ProcTerminate(int32_t pid) { return signalProcess(pid, SIGTERM); }

BOOL ProcAlive(int32_t *pid, int32_t other) {
    if (pid == nullptr || *pid < 2) return FALSE;
    trace(kIdAlive, 0, 3, "ProcAlive(%ld, %ld)", static_cast<long>(*pid), static_cast<long>(other));
    if (kill(*pid, 0) == 0 || errno == EPERM) return TRUE;
    if (errno == ESRCH) *pid = -1;
    return FALSE;
}
