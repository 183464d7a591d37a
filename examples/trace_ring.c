/*
 * trace_ring - brings the library up, writes trace records at several levels,
 * walks the ring from the newest record back and prints each as a text line,
 * then releases the context.
 */
#include <stdio.h>
#include <stdlib.h>

#include "core/fhcore.h"

static void note(int32_t id, int32_t level, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    TraceMessageVa("EXAMPLE ", id, 0, level, format, arguments);
    va_end(arguments);
}

int main(void) {
    if (!ContextInitialize()) return 1;
    int32_t previous = TraceSetLevel(TRACE_LEVEL_VERBOSE);
    printf("trace level was %d, now %d\n", previous, TraceSetLevel(-2));

    note(1, TRACE_LEVEL_ALWAYS, "starting example, pid-independent text");
    note(2, TRACE_LEVEL_NORMAL, "allocating %d blocks", 3);
    void *blocks[3];
    for (int i = 0; i < 3; ++i) blocks[i] = MemAllocateFromPool((size_t)(16 << i), NULL);
    note(3, TRACE_LEVEL_VERBOSE, "%d blocks in use, highest %d", MemUsedCount(), MemMax());
    note(4, TRACE_LEVEL_LIBVERBOSE, "this record is above the level and is not stored");
    for (int i = 0; i < 3; ++i) MemFreeInternal(&blocks[i]);
    note(5, TRACE_LEVEL_NORMAL, "freed, %d blocks in use", MemUsedCount());

    printf("newest record has sequence %u; the ring, newest first:\n",
           TraceCurrentSequenceNumber(TraceGetBuffer()));
    fflush(stdout);
    BOOL walked = TraceWalkBuffer(TraceGetBuffer(), TraceToStdOut, NULL);
    fflush(stdout);

    ContextReleaseThread();
    printf("released: trace buffer %s\n", TraceGetBuffer() == NULL ? "gone" : "still there");
    return walked ? 0 : 1;
}
