/*
 * objserial.h - the byte form of objects, and the walker over object graphs.
 *
 * Any object turns into a self-describing little-endian byte form and back:
 * each object carries its magic and its format string, so a reader needs no
 * prior knowledge of the type. An object is a lead byte (0 null, 1 a single
 * reference, 2 the first meeting of a shared object with its id, 3 a back
 * reference by id) and a body: the magic, then for LIST and TREE their own
 * layout and for every other type the format string and the components.
 * Ids start at 1 in every operation.
 *
 * Writers and readers work through an ObjStream whose Transfer callback
 * moves the bytes, so the same code measures, fills memory, fills a growing
 * buffer with room for a header in front, and writes or reads a file.
 *
 * A p component (a pointer) travels as a u32 in every byte form that leaves
 * the process. A stream with InProcess set carries it at pointer width
 * instead: ObjDuplicate and ObjCompare use such streams, and so can a
 * process for the messages it sends to itself. Both sides of one byte form
 * must agree on the flag.
 *
 * ObjReconstructFromMemory trusts the sizes in the bytes, as it is meant for
 * bytes this process made. Bytes from another process or machine go through
 * ObjReconstructFromBytes, which takes their length and checks everything.
 */
#ifndef FHCORE_OBJSERIAL_H
#define FHCORE_OBJSERIAL_H

#include <stdio.h>

#include "map.h"
#include "types.h"

FH_BEGIN_DECLS

/* Moves count bytes: a writer takes them from address, a reader stores them
 * there. TRUE when all of them went. */
typedef BOOL (*ObjTransferFunction)(void *cookie, void *address, int32_t count);

typedef struct ObjStream {
    ObjTransferFunction Transfer;
    void *Cookie;   /* first argument of Transfer */
    MAP *Seen;      /* (id, object) pairs, made on first need; the caller releases it */
    int32_t NextId; /* the last id given out (writer) */
    BOOL Local;     /* write Local components too (writer) */
    BOOL InProcess; /* p components at pointer width: the bytes stay in this process */
} ObjStream;

/* A growing buffer for framed byte forms, with room for a header in front. */
typedef struct ObjBufferDescriptor {
    char *Buffer;     /* may be null at first */
    int32_t Capacity;
    int32_t Used;     /* write position */
    int32_t Start;    /* the first Used: room for the caller's header */
    BOOL Owned;       /* Buffer was allocated here and is freed here */
} ObjBufferDescriptor;

/* Encodes object through a stream the caller set up; its Seen and NextId
 * carry on from earlier calls. FALSE on the first failing write (what went
 * before is not undone). */
FHAPI BOOL ObjSerialize(const void *object, ObjStream *stream);

/* Decodes one object from the stream into *out (a new reference). FALSE,
 * with nothing in *out and nothing leaked, on bad bytes. */
FHAPI BOOL ObjReconstruct(void **out, ObjStream *stream);

/* Bytes of the encoding, without and with Local components; -1 on failure
 * (the first traces it). */
FHAPI int32_t ObjSerializedSize(const void *object);
FHAPI int32_t ObjSerializedSizeLocal(const void *object);

/* Encodes into memory that the caller sized by ObjSerializedSize (or its
 * Local form); the length written goes to *length when length is given. */
FHAPI BOOL ObjSerializeToMemory(const void *object, void *memory, int32_t *length);
FHAPI BOOL ObjSerializeLocal(const void *object, void *memory, int32_t *length);

/* Decodes from memory this process wrote; sizes in it are trusted. */
FHAPI BOOL ObjReconstructFromMemory(void **out, const void *memory);

/* Decodes at most length bytes from elsewhere: every size, count, lead byte,
 * datatype and end mark is checked against what can be, nesting is bounded,
 * and a back reference into an object not yet complete is refused. FALSE
 * with a trace on bad bytes; nothing leaks. */
FHAPI BOOL ObjReconstructFromBytes(void **out, const void *memory, int32_t length);

/* Decodes only if the memory starts with lead byte 1 and this magic; FALSE
 * without a trace otherwise. size is not used. */
FHAPI BOOL ObjReconstructObjectFromMemory(void **out, const void *memory, int32_t size, uint32_t magic);

/* Appends a frame at Used: u32 total bytes of the frame, u32 typeWord, the
 * object. The buffer grows as needed. FALSE for a null descriptor. */
FHAPI BOOL ObjSerializeToBuffer(const void *object, uint32_t typeWord, ObjBufferDescriptor *descriptor);

/* Appends an optional u32 total (when withTotal), headSize bytes of head,
 * then the object. headSize 0 goes with a null head. Bad parameters end in
 * ProcCrash(0) and FALSE. */
FHAPI BOOL ObjSerializeToBufferCustomHead(const void *object, ObjBufferDescriptor *descriptor, int32_t headSize,
                                          const void *head, BOOL withTotal);

/* Appends only the object; its length in *length. */
FHAPI BOOL ObjSerializeToBufferNoHead(int32_t *length, const void *object, ObjBufferDescriptor *descriptor);

/* Appends count raw bytes. */
FHAPI BOOL ObjBufferInsertBytes(int32_t count, const void *bytes, ObjBufferDescriptor *descriptor);

/* A new descriptor over buffer (may be null) of capacity bytes, writing from
 * start. The caller keeps the buffer: Owned is FALSE until it grows. */
FHAPI BOOL ObjBufferDescriptorCreate(ObjBufferDescriptor **out, void *buffer, int32_t capacity, int32_t start);

/* The buffer and the write position. */
FHAPI BOOL ObjBufferDescriptorGetBuffer(void **buffer, int32_t *used, const ObjBufferDescriptor *descriptor);

/* Used goes back to Start; the buffer stays. */
FHAPI void ObjBufferDescriptorReset(ObjBufferDescriptor *descriptor);

/* Frees an Owned buffer, then the descriptor, and clears the variable. */
FHAPI BOOL ObjBufferDescriptorFree(ObjBufferDescriptor **descriptorAddress);

/* The two words of a frame: the object's size (total minus 8) and the type. */
FHAPI BOOL ObjBufferAnalyze(const void *frame, int32_t *objectSize, uint32_t *typeWord);
FHAPI int32_t ObjBufferSerializedObjectSize(const void *frame);
FHAPI uint32_t ObjBufferMsgType(const void *frame);

/* Files: the whole file is the byte form of one object. */
FHAPI BOOL ObjSerializeToFile(const void *object, const char *path);
FHAPI BOOL ObjSerializeToFP(const void *object, FILE *file);
FHAPI BOOL ObjReconstructFromFile(void **out, const char *path);
FHAPI BOOL ObjReconstructFromFP(void **out, FILE *file);

/* A file of a unique temporary path: written by the first, read and then
 * deleted whatever the result by the second. */
FHAPI BOOL ObjSerializeToTempFile(char **path, const char *owner, const void *object);
FHAPI BOOL ObjReconstructFromTempFile(void **out, const char *path);

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

#endif /* FHCORE_OBJSERIAL_H */
