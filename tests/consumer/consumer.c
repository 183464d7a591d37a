/* A program built against the installed library. */
#include <stdio.h>

#include "core/fhcore.h"

int main(void) {
    if (!ContextInitialize()) return 1;
    int32_t before = MemUsedCount();
    void *block = MemAllocateFromPool(32, NULL);
    MemFreeInternal(&block);
    /* Counted before the release, which frees per-context blocks too. */
    int32_t left = MemUsedCount() - before;
    ContextReleaseThread();
    printf("consumer: %d blocks in use\n", left);
    return left == 0 ? 0 : 1;
}
