/*
 * proc.h - the process: its id in the system.
 *
 * Well-known processes have fixed ids (msgpacket.h); a process that is
 * adopted runs with id 0 until it is told its own.
 */
#ifndef FHCORE_PROC_H
#define FHCORE_PROC_H

#include "context.h"
#include "msgpacket.h"
#include "types.h"

FH_BEGIN_DECLS

/* The process id in the system; 0 until it is set. */
FHAPI int32_t ProcGetId(void);
/* Sets the id and makes the local message address anew. */
FHAPI BOOL ProcSetId(int32_t id);
/* The operating system's process id. */
FHAPI int32_t ProcGetRealId(void);

/* The module's part of the context ladder: the name and the pointers into
 * shared memory are per context, and go at its release. */
FHAPI BOOL ProcessInitialize(void);
FHAPI BOOL ProcessInitializeThread(LmContext *context);
FHAPI void ProcessReleaseThread(LmContext *context);

/* Process states, as told to the process manager. */
#define PROC_STATE_UNKNOWN (-1)
#define PROC_STATE_CREATING 0
#define PROC_STATE_INITIALIZING 1
#define PROC_STATE_WAITING 2
#define PROC_STATE_BUSY 3
#define PROC_STATE_EXITING 4
#define PROC_STATE_ZOMBIE 5
#define PROC_STATE_RESTART 6

/* The text of a state ("Invalid" for a value outside them); not translated,
 * and the library's. */
FHAPI const char *ProcProcessStateDescription(int32_t state);

/* The process name, or null when it has none; the library's. */
FHAPI const char *ProcName(void);
/* Takes a copy of name as the process name (null: none). FALSE, nothing
 * changed, when the copy can't be made. */
FHAPI BOOL ProcSetName(const char *name);

/* Attaches the shared memory that an attach message (PMGR_ATTACH_TO_SHM_MSG)
 * names: the main segment, where the trace, the counters and the title go
 * from now on, and with viewer 1 the process table read only. FALSE for a
 * packet without a PMGR_ATTACH_TO_UNIX_SHM body, areas outside the segment,
 * or a refusal; what was attached before a failure stays attached. */
FHAPI BOOL ProcAttachSharedMemory(const MSG_PACKET *packet, int32_t viewer);
/* The progress buffer, the time area, the process table segment (a
 * viewer's) and the main segment's base plus offset; null when not
 * attached (ProcShmAddress: when the main segment is not). */
FHAPI void *ProcGetProgressBuffer(void);
FHAPI void *ProcGetKeelTimeArea(void);
FHAPI void *ProcGetProcessTable(void);
FHAPI void *ProcShmAddress(int32_t offset);
/* Sets the entry where the memory and object counters are copied (null:
 * nowhere). */
FHAPI void ProcSetDetails(void *entry);
/* The title in the process table entry; null before the attach. */
FHAPI const char *ProcTitle(void);
/* Copies at most 79 characters of title into the entry's title. A null
 * title, or no entry, does nothing. */
FHAPI void ProcSetTitle(const char *title);

/* ---- Start-up and exit -------------------------------------------------- */

/* The tags of ProcInitializeTags: a list of -2, pairs of tag and value
 * (integers and truth values as int, texts as const char *), and -1. */
#define PROC_TAG_TRACE_LEVEL 0
#define PROC_TAG_UNMANAGED 1
#define PROC_TAG_NEW_STYLE_TASKS 2
#define PROC_TAG_READY 3
#define PROC_TAG_WANTS_PROGRESS 4
#define PROC_TAG_VIEWER 5
#define PROC_TAG_TRACE_FILE 6
#define PROC_TAG_ID_TEXT 7
#define PROC_TAG_TITLE 9
#define PROC_TAG_NAME 10
#define PROC_TAG_TRACE_PREFIX 11
#define PROC_TAG_HOLD_DISCONNECT 12

/* Brings the library up and joins the system: the modules, the connection
 * to the communication manager, the initial status to the process manager
 * and the wait for its attach message, the first state. The id text must be
 * a number with nothing behind it ("-N": started by process N, which hears
 * MSG_CHILD_INITIALIZED_MSG at the end). Messages that came during the wait
 * come first from the receive list afterwards, in their order. The
 * communication manager (id 2) and, unlike older processes of the system,
 * the process manager (id 1) send no status and wait for nothing. FALSE on
 * any failure, after ProcRelease(1): nothing of the library stays up. */
FHAPI BOOL ProcInitializeTags(int32_t first, ...);
/* Short forms: ProcInitializeTags with the id text and ready; and a trace
 * file at level 0; and progress with a trace level. */
FHAPI BOOL ProcInitialize(const char *idText, BOOL ready);
FHAPI BOOL ProcInitializeWithTrace(const char *idText, BOOL ready, const char *traceFile);
FHAPI BOOL ProcInitializeWithProgress(const char *idText, BOOL ready, const char *traceFile, int32_t traceLevel);
/* FALSE: no context is ever threaded. */
FHAPI BOOL ProcInitializeThread(const char *traceFile, int32_t traceLevel);
FHAPI BOOL ProcInitializeThreadWithProgress(const char *traceFile, int32_t traceLevel);
/* Start-up of a viewer, which attaches the process table too: *table and
 * *segment get the process table and the main segment (null when not
 * attached). FALSE as ProcInitializeTags, with both null. */
FHAPI BOOL ProcInitializeViewer(void **table, void **segment, const char *traceFile, int32_t traceLevel);

/* Tells the process manager the state (PMGR_PROCESS_STATUS_MSG). TRUE if
 * sent. */
FHAPI BOOL ProcSendStatus(int32_t state);

/* A cleanup routine: run at ProcRelease with its user value and the exit
 * code. */
typedef void (*ProcCleanupRoutine)(void *user, int32_t code);
/* Puts a routine at the front of the cleanup list, so it runs before those
 * added earlier. FALSE, nothing changed, for a null routine. */
FHAPI BOOL ProcAddCleanupRoutine(ProcCleanupRoutine routine, void *user);
/* Removes the first entry with both equal; TRUE if there was one. A null
 * routine removes the front entry and gives FALSE. */
FHAPI BOOL ProcRemoveCleanupRoutine(ProcCleanupRoutine routine, void *user);

/* Leaves the system without ending the process: tells the manager state 6
 * for code -1, else 4 (not from ids 1 and 2, nor before the connection),
 * runs the cleanup routines with the code, takes the trace back to the
 * private ring and releases the context. */
FHAPI void ProcRelease(int32_t code);
/* ProcRelease, then exit with 0 for code 0, else 1. Only the first call
 * does anything: later ones, as from a signal during the first, return at
 * once. Code -2 is a quick exit (no lingering channels) with code 0. */
FHAPI void ProcCleanup(int32_t code);

/* Traces the object and memory counts. */
FHAPI void ProcMemoryUsage(void);
/* Applies "Trace Level" of the process's stanza in "programs.cfg" (ALWAYS,
 * NORMAL, VERBOSE, LIBNORMAL, LIBVERBOSE); leaves the level alone without
 * a name, a key or a known value. */
FHAPI void ProcSetDefaultTraceLevel(void);

/* A new string "lmid%08lx" of id; the caller's. */
FHAPI char *ProcIdFileName(int32_t id);
/* -1: there are no threads of the library. */
FHAPI int32_t ProcGetThreadId(void);
/* SIGKILL or SIGTERM to pid; FALSE for a pid of 1 or less or a refusal. */
FHAPI BOOL ProcKill(int32_t pid);
FHAPI BOOL ProcTerminate(int32_t pid);
/* Whether *pid (2 or more) is a live process, also one of another user.
 * A process that is gone sets *pid to -1 and gives FALSE. other only goes
 * to the trace. */
FHAPI BOOL ProcAlive(int32_t *pid, int32_t other);

FH_END_DECLS

#endif /* FHCORE_PROC_H */
