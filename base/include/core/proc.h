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

FH_END_DECLS

#endif /* FHCORE_PROC_H */
