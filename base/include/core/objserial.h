/*
 * objserial.h - the byte form of objects (and, through objwalk.h, the
 * walker over object graphs).
 *
 * Bytes from elsewhere. What another process, another machine or a file
 * hands this process is read by the bounded reader: ObjReconstructFromBytes,
 * and the file readers (ObjReconstructFromFile, ObjReconstructFromFP,
 * ObjReconstructFromTempFile), which are the same reader. Its rules:
 *
 *  1. No pointer from the bytes is kept. A p component must arrive as 0;
 *     any other value refuses the object ("Refused bytes: pointer %lu").
 *  2. It makes objects of two kinds of type only: types this process never
 *     declared (a template made from the received format, with no release
 *     callback: plain values, any bytes make them valid), and declared types
 *     that their module marked receivable where it declares them (the
 *     one-value wrappers, TIME_TIMEOUT, TIME_OFFSET, OBJ_DSTRING with a check
 *     of its invariants; LIST and TREE are read by their own code). Every
 *     other declared type is refused, in particular any type with a release
 *     callback, a p component or fields that must agree (MAP, OBJ_MAP,
 *     FILE_STREAM, STNZ_FILE, the list and tree nodes, the directory scans),
 *     unless its module marks it receivable (ObjTemplateSetReceivable)
 *     with a check that vets each object read. A type received before this
 *     process declares it is taken over by the declaration (object.h).
 *  3. Its memory is bounded by its input: at most OBJ_RECEIVE_BYTES_PER_BYTE
 *     pool bytes (block headers and guard words included) per input byte,
 *     plus OBJ_RECEIVE_FIXED_BYTES, counted over everything it allocates
 *     (objects, strings, data, stanza and key records, list and tree nodes,
 *     its map of ids, new templates). An input whose reading would pass that
 *     is refused. For a stream of unknown length the input is what it has
 *     read so far. Capacities in the bytes are hints: a stanza or key keeps
 *     at most 16 spare slots, otherwise its capacity is its count.
 *  4. Templates live until the process ends, so a read may make at most
 *     OBJ_RECEIVE_NEW_TYPES_PER_READ new ones, and the process at most
 *     OBJ_RECEIVE_NEW_TYPES holding at most OBJ_RECEIVE_NEW_TYPE_BYTES. At a
 *     bound the read that needs one more type is refused ("Refused a new
 *     type"); types already known are read as before. Once the process
 *     holds its bound, bytes of a type it has never seen are refused for
 *     the rest of its life.
 *  5. Every size, count, lead byte, datatype and end mark is checked
 *     against what can be; nesting is at most 200 objects deep, and a back
 *     reference into an object whose body is still open is refused.
 *
 * A refused input gives FALSE, a trace of why and "ObjReconstruct failed",
 * and leaves nothing behind. The trusting readers (ObjReconstructFromMemory,
 * ObjReconstruct with a caller's stream, and through them ObjDuplicate and
 * ObjCompare) are for bytes this process made: they honour every size and
 * carry pointers; they must never see bytes from elsewhere.
 *
 * The byte form. Any object turns into a self-describing little-endian
 * byte form and back: each object carries its magic and its format string,
 * so a reader needs no prior knowledge of the type. An object is a lead
 * byte (0 null, 1 a single reference, 2 the first meeting of a shared
 * object with its id, 3 a back reference by id) and a body: the magic, then
 * for LIST and TREE their own layout and for every other type the format
 * string and the components. Ids start at 1 in every operation.
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
 */
#ifndef FHCORE_OBJSERIAL_H
#define FHCORE_OBJSERIAL_H

#include <stdio.h>

#include "map.h"
#include "objwalk.h"
#include "types.h"

FH_BEGIN_DECLS

/* The bounds of the reader of bytes from elsewhere (see above). */
#define OBJ_RECEIVE_BYTES_PER_BYTE 32
#define OBJ_RECEIVE_FIXED_BYTES 65536
#define OBJ_RECEIVE_NEW_TYPES_PER_READ 64
#define OBJ_RECEIVE_NEW_TYPES 1024
#define OBJ_RECEIVE_NEW_TYPE_BYTES (16 << 20)

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

/* Decodes one object from the caller's stream into *out (a new reference),
 * trusting it as bytes of this process. FALSE, with nothing in *out and
 * nothing leaked, on bad bytes. */
FHAPI BOOL ObjReconstruct(void **out, ObjStream *stream);

/* Bytes of the encoding, without and with Local components; -1 on failure
 * (the first traces it). */
FHAPI int32_t ObjSerializedSize(const void *object);
FHAPI int32_t ObjSerializedSizeLocal(const void *object);

/* Encodes into memory that the caller sized by ObjSerializedSize (or its
 * Local form); the length written goes to *length when length is given. */
FHAPI BOOL ObjSerializeToMemory(const void *object, void *memory, int32_t *length);
FHAPI BOOL ObjSerializeLocal(const void *object, void *memory, int32_t *length);

/* Decodes from memory this process wrote; sizes in it are trusted, and
 * pointers and every declared type are taken as they stand. */
FHAPI BOOL ObjReconstructFromMemory(void **out, const void *memory);

/* Decodes at most length bytes from elsewhere under the rules above. FALSE
 * with a trace for bytes it refuses; nothing leaks. */
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

/* Files: the whole file is the byte form of one object, read under the
 * rules for bytes from elsewhere. */
FHAPI BOOL ObjSerializeToFile(const void *object, const char *path);
FHAPI BOOL ObjSerializeToFP(const void *object, FILE *file);
FHAPI BOOL ObjReconstructFromFile(void **out, const char *path);
FHAPI BOOL ObjReconstructFromFP(void **out, FILE *file);

/* A file of a unique temporary path: written by the first, read and then
 * deleted whatever the result by the second. */
FHAPI BOOL ObjSerializeToTempFile(char **path, const char *owner, const void *object);
FHAPI BOOL ObjReconstructFromTempFile(void **out, const char *path);

FH_END_DECLS

#endif /* FHCORE_OBJSERIAL_H */
