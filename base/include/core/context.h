/*
 * context.h - the process-wide context record and the module ladder.
 *
 * gtLmContext is the one context of a process and the only data object the
 * library exports. Each module keeps its per-context state in a group of its
 * fields. ContextInitialize brings every module up once, in a fixed order,
 * and then creates the per-context state; ContextReleaseThread takes that
 * state down again in the reverse order.
 */
#ifndef FHCORE_CONTEXT_H
#define FHCORE_CONTEXT_H

#include "trace.h"
#include "types.h"

FH_BEGIN_DECLS

struct LmContext {
    /* Memory: blocks in use, the highest value it has had, all allocations. */
    int32_t iMemUsed;
    int32_t iMemMax;
    int32_t iMemAllocations;

    /* Trace. */
    TraceCallback pfnTraceCallback;
    int32_t bTraceSuspended;
    TraceBuffer *pTraceBuffer;     /* the current ring */
    unsigned char *pTraceData;     /* its data area */
    int32_t iTraceNextSequence;    /* 1 for a new ring, -1 without one */
    TraceBuffer *pTraceOwnBuffer;  /* the context's own ring */
    int32_t bTraceUseKeelTime;
    int32_t iTraceFileDescriptor;  /* -1 when no trace file is open */

    /* Strings: the StrToken cursor and the character it overwrote. */
    char *pStrTokenCursor;
    int32_t iStrTokenSaved;

    /* Message wait: the handlers (LIST of MSG_WAIT_HANDLER, newest first),
     * whether entries are marked for removal, the handler runs under way,
     * and the two flags set for the life of the process: the default
     * handlers disabled, unhandled messages kept at depth 0. */
    void *oMsgWaitHandlers;
    int32_t bMsgWaitRemovals;
    int32_t iMsgWaitDepth;
    int32_t bMsgWaitNoDefaults;
    int32_t bMsgWaitKeepUnhandled;

    /* Object core: objects in use, the highest value it has had, all made;
     * the object that tag stepping writes to. */
    int32_t iObjUsed;
    int32_t iObjMax;
    int32_t iObjAllocations;
    void *pObjTagTarget;

    /* Process: where the counters are copied for other processes to read;
     * the process id of the system (0 until the process is told it). */
    unsigned char *pProcessTableEntry;
    int32_t iProcessId;
    /* The main segment's base, the process table segment (a viewer's, read
     * only), the progress buffer and the time area inside the main segment
     * (null when absent); the title (in the entry) and the process name (a
     * private copy). */
    unsigned char *pProcMainSegment;
    void *pProcTable;
    unsigned char *pProcProgressBuffer;
    unsigned char *pProcTimeArea;
    char *pszProcTitle;
    char *pszProcName;
    /* Start-up and exit: whether the process manager did not start it,
     * whether it takes tasks in their extended form, whether a proxy
     * peer's MSG_DISCONNECT_MSG reaches the program; the cleanup routines
     * (LIST of PROC_CLEANUP, the last added first), the calls of
     * ProcCleanup so far, and the prefix of trace file names (a private
     * copy, or null). */
    int32_t bProcUnmanaged;
    int32_t bProcNewStyleTasks;
    int32_t bProcHoldDisconnect;
    void *oProcCleanupList;
    int32_t iProcCleanupCount;
    char *pszProcTraceFilePrefix;

    /* Shared memory: the segments this process allocated (LIST of
     * SHM_SEGMENT) and the index of its next allocation. */
    void *oShmSegmentList;
    int32_t iShmNextIndex;

    /* Net: the last serial given to a socket hand-over. */
    int32_t iNetInheritCounter;

    /* Timers: the pending events (LIST of TIMR_EVENT, latest first), and the
     * timeout (TIME_TIMEOUT) of the next alarm, also the clock of a sweep. */
    void *oTimrEvents;
    void *oTimrNextAlarm;

    /* Messaging: the map of message names (a MAP), and the field in which
     * the name of an unknown id is formatted. */
    void *pMsgNameMap;
    char szMsgUnknownName[80];
    /* The process's own address (MSG_ADDRESS). */
    void *oMsgLocalAddress;
    /* Channels: the channel map (OBJ_MAP of MSG_CHANNEL), the select mask of
     * the process and its working copy (NetSelectMask), the connections
     * under way and the lingering channels (LIST), the IPC channel, the last
     * channel id given, whether the IPC connection is made, and the receive
     * list (LIST of MSG_PACKET). */
    void *oMsgChannels;
    void *pMsgSelectMask;
    void *pMsgWorkingMask;
    void *oMsgConnectingList;
    void *oMsgLingerList;
    void *oMsgIpcChannel;
    int32_t iMsgLastChannelId;
    int32_t bMsgIpcConnected;
    void *oMsgReceiveList;
    /* Receiving: the addresses on other machines whose death this process
     * wants to hear of (LIST of MSG_ADDRESS), the prepared failures of task
     * requests that went to other machines (LIST of
     * PMGR_GIVE_SERVICE_A_TASK_RETURN), the handlers (LIST of
     * MSG_HANDLER_ENTRY), the poll set of a pass (pollfd entries: the
     * capacity, those in use, where the high sockets start), the quick exit
     * flag, the last message error code, whether tasks arrive in their old
     * plain form only, and the task context that came with the last task
     * converted to that form. */
    void *oMsgNotifyOnDeathList;
    void *oMsgPendingTaskList;
    void *oMsgHandlerList;
    void *pMsgPollSet;
    int32_t iMsgPollCapacity;
    int32_t iMsgPollCount;
    int32_t iMsgPollHighStart;
    int32_t bMsgQuickExit;
    int32_t iMsgErrorCode;
    int32_t bMsgOldStyleTasks;
    void *oMsgTaskContext;

    /* Context. */
    void *pThreadContextMarker;
    void *pContextObjects;         /* the extension list (LIST) of context objects */
    intptr_t iThreadData;
};

/* The context record of the process. */
extern FHAPI LmContext gtLmContext;

/* Brings up every module once and the per-context state once. May be called
 * again at any time: from Running it does nothing, after a failed module it
 * runs the module ladder again. On the first failing module it prints that
 * module's code alone on standard output and gives FALSE. */
FHAPI BOOL ContextInitialize(void);

/* Creates every module's per-context state; on the first failure it releases
 * all of it again and gives FALSE. */
FHAPI BOOL ContextInitializeThread(void);

/* Releases every module's per-context state, in the reverse order. */
FHAPI void ContextReleaseThread(void);

/* The process-wide predicates. The library runs one context per process, so
 * the threading predicates are FALSE throughout a run. */
FHAPI BOOL ContextIsInitialized(void);
FHAPI BOOL ContextIsThreaded(void);
FHAPI BOOL ContextIsMultiThreaded(void);
FHAPI BOOL ContextThreadIsInitialized(void);
FHAPI BOOL ContextAllowThreading(void);

/* The address of gtLmContext; ContextSet does nothing and ContextValid is
 * always TRUE. */
FHAPI LmContext *ContextGet(void);
FHAPI void ContextSet(void);
FHAPI BOOL ContextValid(void);

/* One word for the caller. The setter gives FALSE and the getter 0 until the
 * context is initialised. */
FHAPI BOOL ContextSetThreadData(intptr_t data);
FHAPI intptr_t ContextGetThreadData(void);

/* Keeps one object per magic for the context in its list of context
 * objects (made on first use), taking a reference and replacing an earlier
 * object of the same magic. FALSE, with nothing changed, for not an object. */
FHAPI BOOL ContextSetContextObject(void *object);

/* Finds the context object of a magic; *object receives a new reference.
 * FALSE, with *object null, when there is none or no list of context
 * objects yet; FALSE for a null object pointer. */
FHAPI BOOL ContextGetContextObject(void **object, uint32_t magic);

/* Ends the process with SIGSEGV, leaving a core file, when force is set or
 * the process's crash flag is on; otherwise returns and the caller goes on
 * with its failure path. */
FHAPI void ProcCrash(int32_t force);

/* Sets the crash flag that ProcCrash(0) consults from "Do Crash" of stanza
 * "Trace" in "configure.cfg" (FALSE when it is not there). */
FHAPI void ProcSetCrash(void);

FH_END_DECLS

#endif /* FHCORE_CONTEXT_H */
