// proc.cpp - the process: its id in the system.
//
// The id lives in the context (iProcessId), 0 until the process is told
// its own; the local message address carries it.
#include "core/proc.h"

#include <unistd.h>

#include "core/context.h"
#include "core/msgpacket.h"

int32_t ProcGetId(void) { return gtLmContext.iProcessId; }

BOOL ProcSetId(int32_t id) {
    gtLmContext.iProcessId = id;
    return MsgCreateLocalAddress();
}

int32_t ProcGetRealId(void) { return static_cast<int32_t>(getpid()); }
