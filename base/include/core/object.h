/*
 * object.h - typed, reference-counted objects described at run time.
 *
 * An object is one pool block: the block header, an ObjectHeader (start
 * magic, reference count, template, address of the end magic), the payload
 * that callers point at, the end magic and the block's guard word. Its type
 * is an ObjectTemplate, found by magic, whose component format string ("i;s;o;")
 * says what the payload holds field by field; that one description drives
 * release, copying, comparison, serialisation and walking.
 *
 * Payload layout follows the C layout of the matching struct on this
 * machine: each component is placed at the next multiple of its alignment
 * and the payload is rounded up to the largest alignment in it.
 *
 * A type may arrive from elsewhere before this process declares it: its
 * template is then made from the received format (Foreign). A declaration
 * of that magic takes it over, whatever shape arrived, so bytes from a peer
 * can never make a declaration fail or lose its release callback. Objects
 * read before the declaration keep the template they were read with: they
 * are released, copied, serialised and walked in that shape, and they no
 * longer pass ObjCheckTypeInternal for the magic (code that relies on a
 * start magic alone should not meet them: declare a type before reading
 * bytes that may hold it).
 *
 *   letter  datatype  payload                         owned
 *   b       1         int32_t (truth value)           no
 *   i       2         int32_t                         no
 *   s       3         char *                          yes
 *   o, L    4         object pointer (a reference)    yes
 *   l       5         object pointer (no reference)   no
 *   z       6         Stanza *                        yes
 *   d       7         ObjData                         yes
 *   c, n    8         bytes, the count rounded to 4   no
 *   v       9         ObjViewInfo                     yes
 *   I       10        int64_t                         no
 *   u       11        32 bytes                        no
 *   p       12        void *                          no
 */
#ifndef FHCORE_OBJECT_H
#define FHCORE_OBJECT_H

#include <stdarg.h>

#include "memory.h"
#include "objviewinfo.h"
#include "types.h"

FH_BEGIN_DECLS

#define OBJ_MAGIC_MASK 0xF8000000u
#define OBJ_MAGIC_BITS 0xC8000000u
#define OBJ_VALID_MAGIC(magic) ((((uint32_t)(magic)) & OBJ_MAGIC_MASK) == OBJ_MAGIC_BITS)

/* Datatypes of components. */
enum ObjDatatype {
    eObjNone = 0,
    eObjBoolean = 1,
    eObjInteger = 2,
    eObjString = 3,
    eObjObject = 4,
    eObjBackLink = 5,
    eObjStanza = 6,
    eObjData = 7,
    eObjInline = 8,
    eObjViewInfo = 9,
    eObjInt64 = 10,
    eObjUnique = 11,
    eObjPointer = 12
};

#define OBJ_MODIFIER_LOCAL 2

/* A data component (letter d): a size and a pool block of that many bytes. */
typedef struct ObjData {
    int32_t iSize;
    void *pData;
} ObjData;

typedef struct ObjectTemplate ObjectTemplate;

/* Called with the object when it dies, while it is still whole. */
typedef BOOL (*ObjReleaseCallback)(void *object);
/* Looks at an object that a reader of bytes from elsewhere made of a
 * receivable type, once its components are read; FALSE refuses it. */
typedef BOOL (*ObjReceivedCheck)(const void *object);
/* Converts a reconstructed object of an older shape, held in *objectVariable. */
typedef int32_t (*ObjTranslator)(void **objectVariable);
/* Comparisons of ObjQuickSort: exactly -1, 0 or 1. */
typedef int32_t (*ObjCompareFunction)(void *first, void *second);
typedef int32_t (*ObjCompareWithCookieFunction)(void *first, void *second, void *cookie);

typedef struct ComponentEntry {
    int32_t Datatype;
    int32_t Offset;     /* byte offset in the payload */
    int32_t DbOffset;   /* running size of the stored form in front of it */
    int32_t InlineSize; /* for inline bytes: the count in the format */
    BOOL Local;         /* modifier l: a reference for this process only */
} ComponentEntry;

/* What serialisation and walking iterate over. */
typedef struct ObjectDescriptor {
    char *Format;
    int32_t FieldCount;
    int32_t ObjSize;    /* payload plus the object header and the end magic */
    int32_t DbSize;
    BOOL InvalidDb;
    ComponentEntry *Entries;
} ObjectDescriptor;

struct ObjectTemplate {
    uint32_t Magic;
    char *Name;
    int32_t Instances;
    BOOL Simple;        /* no component owns anything */
    ObjReleaseCallback ReleaseCallback;
    ObjTranslator Translator;
    ObjectTemplate *Next; /* next older template of the same magic */
    int32_t Created;
    BOOL Foreign;       /* made without a declared size */
    ObjectDescriptor Descriptor;
};

/* The four words in front of every object's payload. */
typedef struct ObjectHeader {
    uint32_t StartMagic;
    int32_t RefCount;
    ObjectTemplate *Template;
    uint32_t *EndMagic;
} ObjectHeader;

/* Gets the template for (size, magic, format, callback) and stores it in
 * *templateVariable. Size is the payload size, -1 when not declared. FALSE
 * for bad parameters; a declared type that cannot get its template ends the
 * process. Templates live until the process ends. */
FHAPI BOOL ObjTemplateCreateInternal(ObjectTemplate **templateVariable, int32_t size, uint32_t magic,
                                     const char *format, ObjReleaseCallback releaseCallback);

/* The same, giving the template; null for bad parameters. */
FHAPI ObjectTemplate *ObjTemplateNewInternal(int32_t size, uint32_t magic, const char *format,
                                             ObjReleaseCallback releaseCallback);

/* A new instance with one reference and a zero payload, from pool (null for
 * the heap). Null for a null template. */
FHAPI void *ObjTemplateNewInstanceFromPool(ObjectTemplate *objectTemplate, MemPool *pool);

/* The same through *out, which must not be null. */
FHAPI BOOL ObjTemplateCreateInstanceFromPool(void **out, ObjectTemplate *objectTemplate, MemPool *pool);

/* Gets the template and makes an instance in one step, for types without a
 * template variable. FALSE (or null) when either fails. */
FHAPI BOOL ObjCreateInternal(void **out, int32_t size, uint32_t magic, const char *format,
                             ObjReleaseCallback releaseCallback, MemPool *pool);
FHAPI void *ObjNewInternal(int32_t size, uint32_t magic, const char *format, ObjReleaseCallback releaseCallback,
                           MemPool *pool);

/* Sets the translator of a template before any object of it exists. TRUE
 * if it already has this one; a template with objects ends the process. */
FHAPI BOOL ObjSetTranslatorInternal(int32_t size, uint32_t magic, const char *format,
                                    ObjReleaseCallback releaseCallback, ObjTranslator translator);

/* The translator of the object's template, or null. */
FHAPI ObjTranslator ObjGetTranslator(const void *object);

/* Lets the readers of bytes from elsewhere (objserial.h) make objects of a
 * declared template; check, when given, vets each one. A template with a
 * release callback or a p component needs a check. FALSE, traced, nothing
 * changed, for a null template, one made from a received format, or one
 * that needs a check and has none. */
FHAPI BOOL ObjTemplateSetReceivable(ObjectTemplate *objectTemplate, ObjReceivedCheck check);

/* Walking a format string: the first component is the format itself; the
 * next is behind the next ";" (the terminator at the end; null for null). */
FHAPI const char *ObjFirstComponent(const char *format);
FHAPI const char *ObjNextComponent(const char *cursor);
/* The datatype of the component at cursor; 0 for the end or an unknown letter. */
FHAPI int32_t ObjComponentDatatype(const char *cursor);
/* OBJ_MODIFIER_LOCAL for the modifier l, otherwise 0. */
FHAPI int32_t ObjComponentModifiers(const char *cursor);
/* The number after the letter (0 if none), and the same rounded up to 4. */
FHAPI int32_t ObjInlineSizeUsed(const char *cursor);
FHAPI int32_t ObjInlineSize(const char *cursor);

/* Adds a reference. FALSE for null; FALSE and ProcCrash(0) for a bad magic. */
FHAPI BOOL ObjIncRefCount(void *object);

/* Drops the reference in *objectAddress and clears that variable. An object
 * whose last reference goes releases what it owns and is freed. FALSE for a
 * null object, a damaged one (traced, ProcCrash(0), nothing changed) or a
 * count that would fall below 0. */
FHAPI BOOL ObjReleaseInternal(void *objectAddress);

/* Kept as an entry point; there is no object log. */
FHAPI void ObjRemoveFromLog(void);

/* Checks the magics and the block of an object; null passes. A damaged
 * object is traced and ProcCrash(0) is called. */
FHAPI void ObjCheck(const void *object);

/* The object's magic in *magic. FALSE and 0 for null or a damaged object
 * (an end pointer that is null or lies outside the object's block is never
 * read through: it counts as magics that differ); FALSE with nothing
 * written for a null out pointer. ObjCheckTypeInternal is TRUE for the
 * object's magic, unless the object was read before its type's declaration
 * took the magic over. */
FHAPI BOOL ObjGetMagic(const void *object, uint32_t *magic);
FHAPI BOOL ObjHasValidGlobalMagic(const void *object);
FHAPI BOOL ObjCheckTypeInternal(const void *object, uint32_t magic);

/* Names for traces; the strings belong to the library. */
FHAPI const char *ObjNameFromObject(const void *object);
FHAPI const char *ObjNameFromMagic(uint32_t magic);

/* Names a magic at run time. FALSE for an invalid magic, an empty name or a
 * magic that has a name already. */
FHAPI BOOL ObjSetObjName(uint32_t magic, const char *name);

/* Introspection; null (or 0) for null or a damaged object. Nothing returned
 * is a new reference or belongs to the caller. */
FHAPI ObjectTemplate *ObjGetTemplateFromObject(const void *object);
FHAPI ObjectDescriptor *ObjGetDbData(const void *object);
FHAPI ObjectDescriptor *ObjGetDbDataFromTemplate(ObjectTemplate *objectTemplate);
FHAPI const char *ObjGetFormat(const ObjectTemplate *objectTemplate);
FHAPI const char *ObjGetDescriptor(const void *object);

/* Copies the view information of an object whose first component is v and
 * gives TRUE; otherwise fills -1, null, null and gives FALSE. FALSE with no
 * change for a null argument. Borrowed pointers. */
FHAPI BOOL ObjGetViewInfo(ObjViewInfo *out, const void *object);

/* Live instances of the template of magic; -1 when it has none. */
FHAPI int32_t ObjGetInstanceCount(uint32_t magic);

/* A deep copy through the byte form, with a count of 1, in *out. */
FHAPI BOOL ObjDuplicate(void **out, const void *object);

/* A deep copy by walking the components. Sharing inside the object is kept;
 * local references are copied only when keepLocal is set. */
FHAPI BOOL ObjDuplicateInternal(void **out, const void *object, BOOL keepLocal);

/* TRUE when the byte forms of two objects are identical. */
FHAPI BOOL ObjCompare(void *first, void *second);

/* Sorts array[0..last] in place. FALSE, with the array still a permutation
 * of its input, when a comparison gives anything but -1, 0 or 1. */
FHAPI BOOL ObjQuickSort(void **array, int32_t last, ObjCompareFunction compare);
FHAPI BOOL ObjQuickSortWithCookie(void **array, int32_t last, ObjCompareWithCookieFunction compare, void *cookie);

/* Tag lists: first is -2 and pairs of (component index, value) follow up to
 * the index -1, or first is 0 for none. Integers and truth values are passed
 * as int, strings as const char * (copied). */
FHAPI void ObjSetFromTagsVA(void *object, int32_t first, ...);
FHAPI void ObjSetFromTagsVAListInternal(void *object, va_list pairs);
/* The same on the object in the context's tag target. */
FHAPI void ObjSetFromTagsStepperInternal(int32_t first, ...);

/* The counters: objects in use now, the highest that has been, all made. */
FHAPI int32_t ObjCount(void);
FHAPI int32_t ObjMax(void);
FHAPI int32_t ObjAllocations(void);

/* The module's part of the context ladder. */
FHAPI BOOL ObjInitialize(void);
FHAPI BOOL ObjInitializeThread(void);
FHAPI void ObjReleaseThread(LmContext *context);

FH_END_DECLS

#endif /* FHCORE_OBJECT_H */
