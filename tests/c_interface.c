/* The interface from C: the umbrella header and the message headers compile
 * as C99 and the shared object links and runs. */
#include <stdio.h>
#include <string.h>

#include "core/fhcore.h"
#include "messages/msgcatalogue.h"

int main(void) {
    if (!ContextInitialize() || ContextGet() != &gtLmContext) return 1;
    int32_t before = MemUsedCount();
    void *block = MemAllocateFromPool(10, MemGetDefaultPoolId());
    if (block == NULL || MemUsedCount() != before + 1) return 2;
    MemFreeInternal(&block);
    if (block != NULL || MemUsedCount() != before) return 3;
    TracePosition position;
    if (!TraceGetPosition(&position) && TraceGetBuffer() == NULL) return 4;
    /* Typed object variables pass by address, with no cast. */
    LIST *list = ListNewFromPool(OBJ_INTEGER_MAGIC, NULL);
    OBJ_INTEGER *item = ObjIntegerNew(5);
    if (!ListPushLastItemInternal(list, &item) || item != NULL) return 5;
    if (!ListPopFirstItemInternal(list, &item) || ObjGetInteger(item) != 5) return 6;
    ObjReleaseInternal(&item);
    ObjReleaseInternal(&list);
    /* The message headers give ids, the library their names. */
    if (PMGR_TASK_MSG != 1010 || strcmp(MsgNameWithBuffer(TRACE_TO_FILE_MSG, NULL, 0), "TRACE_TO_FILE_MSG") != 0)
        return 7;
    ContextReleaseThread();
    puts("C interface works");
    return 0;
}
