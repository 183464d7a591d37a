/* A program built against the installed library. */
#include <stdio.h>

#include "core/fhcore.h"

int main(void) {
    if (!ContextInitialize()) return 1;
    int32_t before = MemUsedCount();
    void *block = MemAllocateFromPool(32, NULL);
    MemFreeInternal(&block);
    ContextReleaseThread();
    printf("consumer: %d blocks in use\n", MemUsedCount() - before);
    return MemUsedCount() == before ? 0 : 1;
}
