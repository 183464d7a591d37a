/*
 * proc.h - the process: its id in the system.
 *
 * Well-known processes have fixed ids (msgpacket.h); a process that is
 * adopted runs with id 0 until it is told its own.
 */
#ifndef FHCORE_PROC_H
#define FHCORE_PROC_H

#include "types.h"

FH_BEGIN_DECLS

/* The process id in the system; 0 until it is set. */
FHAPI int32_t ProcGetId(void);
/* Sets the id and makes the local message address anew. */
FHAPI BOOL ProcSetId(int32_t id);
/* The operating system's process id. */
FHAPI int32_t ProcGetRealId(void);

FH_END_DECLS

#endif /* FHCORE_PROC_H */
