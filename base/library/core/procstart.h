// procstart.h - what the start-up and exit of a process share with the
// receive layer and the fuzz target: the scan of the id text, and the
// points where a SIGTERM may end the process.
#ifndef FHCORE_PROCSTART_H
#define FHCORE_PROCSTART_H

#include <cstdint>

#include "core/types.h"

namespace fh {

// The id text of a command line as "%ld%c" reads it: a number with nothing
// behind it, which must also fit in 32 bits. False, *id untouched, for
// anything else (a null text too).
bool procScanId(const char *text, int32_t *id);

// SIGTERM runs ProcCleanup, which sends, allocates and exits: that is safe
// only where nothing of the library is half done. The handler runs it at
// once while the receive layer waits between these two calls, and
// otherwise leaves it for the next procStopPoint or procWaitBegin.
void procWaitBegin();
void procWaitEnd();
void procStopPoint();

// The types of start-up and exit, made once per process; the cleanup list
// of a context, and what start-up kept in it.
bool procStartInitialize();
bool procStartInitializeThread(LmContext *context);
void procStartReleaseThread(LmContext *context);

} // namespace fh

#endif // FHCORE_PROCSTART_H
