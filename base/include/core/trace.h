/*
 * trace.h - the trace ring.
 *
 * Every module writes short records into an in-memory ring. The ring is one
 * block: a 16-byte head (TraceBuffer) followed by Size bytes of records. A
 * record starts at a multiple of 8, carries a 40-byte head and its text with
 * a terminating NUL, and names the record written before it through
 * Previous, so that a reader walks the ring backwards from Position. All
 * integers are 32-bit in this machine's byte order: the same bytes are the
 * dump file format and what another process reads from shared memory.
 */
#ifndef FHCORE_TRACE_H
#define FHCORE_TRACE_H

#include <stdarg.h>

#include "types.h"

FH_BEGIN_DECLS

/* Trace levels. A record is stored when its level is not above the ring's. */
#define TRACE_LEVEL_ALWAYS (-1)
#define TRACE_LEVEL_NORMAL 0
#define TRACE_LEVEL_VERBOSE 1
#define TRACE_LEVEL_LIBNORMAL 2
#define TRACE_LEVEL_LIBVERBOSE 3

#define TRACE_SEQUENCE_MAX 0x40000000u   /* the highest sequence number */
#define TRACE_OWN_BUFFER_SIZE 32752      /* data bytes of the context's own ring */
#define TRACE_RECORD_HEAD 40             /* bytes in front of the text */
#define TRACE_RECORD_MAX 8192            /* the longest record */

/* Passed to TraceSetBuffer for the context's own ring. */
#define TRACE_OWN_BUFFER ((TraceBuffer *)(intptr_t)-1)

struct TraceBuffer {
    int32_t Size;     /* bytes of the data area */
    int32_t Position; /* offset of the newest record, -1 for an empty ring */
    int32_t Reserved;
    int32_t Level;    /* records above this level are not stored */
    unsigned char Data[];
};

struct TraceRecord {
    uint32_t Sequence; /* 0 to TRACE_SEQUENCE_MAX */
    int32_t Previous;  /* offset of the record before, -1 for the first */
    int32_t Length;    /* bytes of the whole record, a multiple of 8 */
    char Module[8];    /* module tag, space padded, not terminated */
    int32_t Id;
    int32_t Code;
    int32_t Time;      /* seconds since the epoch */
    int32_t Level;
    int32_t Reserved;  /* not written */
    char Text[];       /* NUL-terminated */
};

/* Names one record; Offset -1, Sequence -1 and a null Buffer name none. */
typedef struct TracePosition {
    int32_t Offset;
    int32_t Sequence;
    TraceBuffer *Buffer;
} TracePosition;

/* Called with a record, its Length and a cookie; 0 stops a walk. */
typedef BOOL (*TraceCallback)(const TraceRecord *record, int32_t length, void *cookie);

/* Stores one record in the current ring and gives its position, or the
 * nothing-stored position when there is no ring, tracing is suspended, the
 * level is above the ring's or format is null. Never fails its caller. */
FHAPI TracePosition TraceMessageVa(const char *module, int32_t id, int32_t code, int32_t level,
                                   const char *format, va_list arguments);

/* Brings the context up, then installs buffer as the current ring: the
 * context's own for TRACE_OWN_BUFFER, none for null (tracing off). A new
 * ring is emptied and keeps the level of the ring it replaces. */
FHAPI void TraceSetBuffer(TraceBuffer *buffer);

/* The current ring, or null. */
FHAPI TraceBuffer *TraceGetBuffer(void);

/* Sets the level of the current ring and gives the previous one; -2 only
 * reads it. Without a ring it gives 0 and changes nothing. */
FHAPI int32_t TraceSetLevel(int32_t level);

/* TRUE when a record of this level would be stored now. */
FHAPI BOOL TraceWouldTrace(int32_t level);

/* Names the newest record of the current ring. FALSE for a null argument or
 * an invalid ring, with *position untouched. */
FHAPI BOOL TraceGetPosition(TracePosition *position);

/* Installs a callback that sees every stored record; null removes it. */
FHAPI void TraceSetCallback(TraceCallback callback);

/* TRUE while a callback is installed. */
FHAPI BOOL TraceTracingToFile(void);

/* Write one record as a text line to standard output or standard error.
 * TRUE when the whole line was written; FALSE for a record too short to hold
 * its head. */
FHAPI BOOL TraceToStdOut(const TraceRecord *record, int32_t length, void *cookie);
FHAPI BOOL TraceToStdErr(const TraceRecord *record, int32_t length, void *cookie);

/* The offset of the oldest record still intact in buffer, found by walking
 * back from the newest; the Position itself when that is out of range. */
FHAPI int32_t TraceOldestMessage(const TraceBuffer *buffer);

/* Calls callback for each record from the newest to the oldest. FALSE for an
 * invalid ring or when the callback stops the walk. Reads nothing outside the
 * 16 + Size bytes of the ring, whatever they hold. */
FHAPI BOOL TraceWalkBuffer(const TraceBuffer *buffer, TraceCallback callback, void *cookie);

/* The newest record of buffer, or null for an invalid ring. */
FHAPI const TraceRecord *TraceCurrentMessage(const TraceBuffer *buffer);

/* The sequence number of the newest record; for an invalid ring it writes
 * "Arrrggh!" to standard error and gives 0xFFFFFFFF. */
FHAPI uint32_t TraceCurrentSequenceNumber(const TraceBuffer *buffer);

/* The module's part of the context ladder. */
FHAPI BOOL TraceInitialize(void);
FHAPI BOOL TraceInitializeThread(LmContext *context);
FHAPI void TraceReleaseThread(LmContext *context);

FH_END_DECLS

#endif /* FHCORE_TRACE_H */
