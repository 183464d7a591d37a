/*
 * objwalk.h - the walker over object graphs.
 */
#ifndef FHCORE_OBJWALK_H
#define FHCORE_OBJWALK_H

#include "map.h"
#include "types.h"

FH_BEGIN_DECLS

/* The walker. The callback gets the cookie and the address of the variable
 * that holds an object, and answers: */
enum ObjWalkResult {
    eObjWalkAbort = 0,    /* end the walk */
    eObjWalkEnter = 1,    /* go on, into this object */
    eObjWalkSkip = 2,     /* go on, but not into this object */
    eObjWalkRelease = 3   /* release this reference and go on */
};
typedef int32_t (*ObjWalkFunction)(void *cookie, void **slot);

/* Visits every object reachable from *objectVariable once (shared objects
 * and cycles are safe), list and tree nodes included, which the callback
 * may not replace. FALSE for a non-zero reserved argument or a null first
 * or second argument, and when the walk ended on eObjWalkAbort or a fault. */
FHAPI BOOL ObjWalk(void **objectVariable, ObjWalkFunction callback, void *cookie, int32_t reserved);

/* The map of visited objects: objects with more than one reference. */
FHAPI MAP *ObjWalkMapNew(void);
FHAPI void ObjWalkMapRelease(MAP **mapAddress);
FHAPI BOOL ObjWalkMapAddObject(MAP *map, void *object);
FHAPI BOOL ObjWalkMapRemoveObject(MAP *map, void *object);

FH_END_DECLS

#endif /* FHCORE_OBJWALK_H */
