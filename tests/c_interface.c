/* The interface from C: the umbrella header compiles as C99 and the shared
 * object links and runs. */
#include <stdio.h>

#include "core/fhcore.h"

int main(void) {
    if (!ContextInitialize() || ContextGet() != &gtLmContext) return 1;
    int32_t before = MemUsedCount();
    void *block = MemAllocateFromPool(10, MemGetDefaultPoolId());
    if (block == NULL || MemUsedCount() != before + 1) return 2;
    MemFreeInternal(&block);
    if (block != NULL || MemUsedCount() != before) return 3;
    TracePosition position;
    if (!TraceGetPosition(&position) && TraceGetBuffer() == NULL) return 4;
    ContextReleaseThread();
    puts("C interface works");
    return 0;
}
