/*
 * msgtrace.h - the message that sets a process's trace file, or ends the
 * trace callback.
 */
#ifndef FHCORE_MESSAGES_MSGTRACE_H
#define FHCORE_MESSAGES_MSGTRACE_H

#include "msgfamily.h"

/* One id, standing alone. */
#define FH_MSG_FAMILY_TRACE(FIRST, NAME, SKIP) FIRST(TRACE_TO_FILE_MSG, 141001)

FH_MSG_DECLARE_FAMILY(FH_MSG_FAMILY_TRACE)

#endif /* FHCORE_MESSAGES_MSGTRACE_H */
