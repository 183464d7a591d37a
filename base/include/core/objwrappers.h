/*
 * objwrappers.h - objects that wrap one value: the simple object types.
 *
 * Lists, maps and messages hold objects, never bare values. These eight
 * types carry a truth value, an integer, a string, a block of data, a
 * stanza, a unique identifier or view information as an object, so that it
 * can be counted, held in a list and serialised like any other. Each payload
 * is the C struct below; what a string, data or stanza pointer points at
 * belongs to the object and goes with it.
 *
 * Constructors: New gives the object with one reference, the caller's;
 * Create stores it in *out and gives TRUE. All come from the default pool.
 * Accessors compare the start magic with the exact magic of their type and
 * give a fixed value, with no trace, for null or any other type. Pointers
 * they return are the object's own, not copies.
 */
#ifndef FHCORE_OBJWRAPPERS_H
#define FHCORE_OBJWRAPPERS_H

#include "object.h"
#include "objviewinfo.h"
#include "types.h"

FH_BEGIN_DECLS

#define OBJ_BOOLEAN_MAGIC 0xC96CEC79u
#define OBJ_INTEGER_MAGIC 0xC96CF22Au
#define OBJ_INT64_MAGIC 0xC998C2B6u
#define OBJ_STRING_MAGIC 0xC96CEC6Fu
#define OBJ_DATA_FIELD_MAGIC 0xC999120Du
#define OBJ_STANZA_MAGIC 0xC96CEED4u
#define OBJ_UNIQUE_MAGIC 0xCA84A8D9u
#define OBJ_VIEWABLE_MAGIC 0xCA24B82Bu

#define OBJ_BOOLEAN_FORMAT "b;"
#define OBJ_INTEGER_FORMAT "i;"
#define OBJ_INT64_FORMAT "I;"
#define OBJ_STRING_FORMAT "s;"
#define OBJ_DATA_FIELD_FORMAT "d;"
#define OBJ_STANZA_FORMAT "z;"
#define OBJ_UNIQUE_FORMAT "u;"
#define OBJ_VIEWABLE_FORMAT "v;"

/* Bytes of a unique identifier. */
#define OBJ_UNIQUE_SIZE 32

typedef struct OBJ_BOOLEAN {
    BOOL bValue;
} OBJ_BOOLEAN;
typedef struct OBJ_INTEGER {
    int32_t iValue;
} OBJ_INTEGER;
typedef struct OBJ_INT64 {
    int64_t iValue;
} OBJ_INT64;
typedef struct OBJ_STRING {
    char *pszValue;
} OBJ_STRING;
typedef struct OBJ_DATA_FIELD {
    ObjData oData;
} OBJ_DATA_FIELD;
typedef struct OBJ_STANZA {
    Stanza *pStanza;
} OBJ_STANZA;
typedef struct OBJ_UNIQUE {
    unsigned char aId[OBJ_UNIQUE_SIZE];
} OBJ_UNIQUE;
typedef struct OBJ_VIEWABLE {
    ObjViewInfo oView;
} OBJ_VIEWABLE;

/* ---- Constructors ----------------------------------------------------------
 * A Create form with a null out traces "Invalid Argument" at level -1 under
 * the id of its type (93 boolean, 94 integer, 95 int64, 96 string, 97 data,
 * 175 data without copy, 98 stanza, 151 viewable: "Invalid Arguments"),
 * calls ProcCrash(0) and gives FALSE; the unique forms give FALSE silently.
 * Nothing is made then. */

/* A boolean or integer object holding value, owned by the caller. The
 * Create forms report a null out as said above. */
FHAPI OBJ_BOOLEAN *ObjBooleanNew(BOOL value);
FHAPI BOOL ObjBooleanCreate(OBJ_BOOLEAN **out, BOOL value);
FHAPI OBJ_INTEGER *ObjIntegerNew(int32_t value);
FHAPI BOOL ObjIntegerCreate(OBJ_INTEGER **out, int32_t value);

/* A 64-bit integer object holding highWord in its upper 32 bits and
 * lowWord, taken as unsigned, in its lower 32 bits. */
FHAPI OBJ_INT64 *ObjInt64New(int32_t lowWord, int32_t highWord);
FHAPI BOOL ObjInt64Create(OBJ_INT64 **out, int32_t lowWord, int32_t highWord);

/* A string object holding a copy of string from the default pool; a null
 * string gives an object with a null string. */
FHAPI OBJ_STRING *ObjStringNew(const char *string);
FHAPI BOOL ObjStringCreate(OBJ_STRING **out, const char *string);

/* A string object holding a copy of the first length bytes of string (as
 * StrDuplicateRangeIntoPool); a null string or negative length gives null. */
FHAPI OBJ_STRING *ObjStringNewRanged(const char *string, int32_t length);

/* A data object holding a new block of size bytes with data copied in (left
 * zero when data is null). A size of 0 or less holds no block and size 0. */
FHAPI OBJ_DATA_FIELD *ObjDataFieldNew(const void *data, int32_t size);
FHAPI BOOL ObjDataFieldCreate(OBJ_DATA_FIELD **out, const void *data, int32_t size);

/* A data object that takes over data, a pool block of size bytes, as it
 * is; the block is freed with the object. */
FHAPI OBJ_DATA_FIELD *ObjDataFieldNewNoCopy(void *data, int32_t size);
FHAPI BOOL ObjDataFieldCreateNoCopy(OBJ_DATA_FIELD **out, void *data, int32_t size);

/* A stanza object that takes over stanza (which may be null); the stanza is
 * released with the object. */
FHAPI OBJ_STANZA *ObjStanzaNew(Stanza *stanza);
FHAPI BOOL ObjStanzaCreate(OBJ_STANZA **out, Stanza *stanza);

/* A viewable object holding word, a copy of string and a copy of stanza
 * (either may be null). */
FHAPI OBJ_VIEWABLE *ObjViewableNew(int32_t word, const char *string, const Stanza *stanza);
FHAPI BOOL ObjViewableCreate(OBJ_VIEWABLE **out, int32_t word, const char *string, const Stanza *stanza);

/* A unique object holding a copy of the 32 bytes at unique. A null unique
 * asks for a new identifier from the unique identifier module; without it
 * the result is null (FALSE) and nothing is made. */
FHAPI OBJ_UNIQUE *ObjUniqueNewInternal(const void *unique);
FHAPI BOOL ObjUniqueCreateInternal(OBJ_UNIQUE **out, const void *unique);

/* A unique object holding a new session identifier for the job id, instance
 * and phase; this takes the unique identifier module, and without it the
 * result is null (FALSE) and nothing is made. */
FHAPI OBJ_UNIQUE *ObjUniqueNewSessionId(int32_t jobId, int32_t instance, int32_t phase);
FHAPI BOOL ObjUniqueCreateSessionId(OBJ_UNIQUE **out, int32_t jobId, int32_t instance, int32_t phase);

/* ---- Accessors ---------------------------------------------------------- */

/* The value of a boolean, integer or 64-bit integer object; 0 for null or
 * another type, so a caller that must tell those apart uses ObjGetValue. */
FHAPI BOOL ObjGetBoolean(const void *object);
FHAPI int32_t ObjGetInteger(const void *object);
FHAPI int64_t ObjGetInt64(const void *object);

/* Store the value in an object of their type and give TRUE; FALSE, with
 * nothing changed, for null or another type. */
FHAPI BOOL ObjSetBoolean(void *object, BOOL value);
FHAPI BOOL ObjSetInteger(void *object, int32_t value);
FHAPI BOOL ObjSetInt64(void *object, int32_t lowWord, int32_t highWord);

/* The object's string, not a copy: it lives as long as the object holds
 * it. Null for a null string, null or another type. */
FHAPI char *ObjGetString(const void *object);

/* Frees the object's string and stores a copy of string (ObjSetString) or
 * string itself, a pool block the object takes over (ObjSetStringNoCopy).
 * FALSE, with nothing changed or taken, for null or another type. */
FHAPI BOOL ObjSetString(void *object, const char *string);
FHAPI BOOL ObjSetStringNoCopy(void *object, char *string);

/* The payload of a data object (size and block), its size (0) and its block
 * (null); the object's own, and the fallback for null or another type. */
FHAPI ObjData *ObjGetDataField(const void *object);
FHAPI int32_t ObjGetDataFieldSize(const void *object);
FHAPI void *ObjGetDataFieldData(const void *object);

/* The object's stanza, and the address of its stanza pointer through which
 * a caller may replace or release it; null for null or another type. */
FHAPI Stanza *ObjGetStanza(const void *object);
FHAPI Stanza **ObjGetStanzaPointer(void *object);

/* Stores stanza, which the object takes over, and gives TRUE. The earlier
 * stanza is not released. FALSE, nothing changed, for a null stanza or
 * another type. */
FHAPI BOOL ObjSetStanza(void *object, Stanza *stanza);

/* The 32 bytes of a unique object, held inside the object and valid while
 * it lives; null for null or another type. */
FHAPI void *ObjGetUnique(const void *object);

/* TRUE when both are unique objects with the same 32 bytes; FALSE for null
 * or another type, even when its bytes agree. */
FHAPI BOOL ObjUniqueEqual(const void *first, const void *second);

/* TRUE when both unique objects name the same session instance; this takes
 * the unique identifier module, and without it the result is FALSE. */
FHAPI BOOL ObjUniqueSameSessionId(const void *first, const void *second);

/* Copies the value of a boolean or integer (4 bytes), int64 (8), string or
 * stanza (a pointer, still the object's) or unique object (32) to out and
 * gives TRUE. The type comes from ObjGetMagic, which also tests the end
 * magic. FALSE, with out unchanged, for a null out, a damaged object or any
 * other type, data and viewable objects included. */
FHAPI BOOL ObjGetValue(void *out, const void *object);

/* The module's part of the context ladder: ObjWrappersInitialize registers
 * the eight templates and gives FALSE at the first that fails. */
FHAPI BOOL ObjWrappersInitialize(void);
FHAPI BOOL ObjWrappersInitializeThread(void);
FHAPI void ObjWrappersReleaseThread(LmContext *context);

FH_END_DECLS

#endif /* FHCORE_OBJWRAPPERS_H */
