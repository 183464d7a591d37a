/*
 * dstring.h - OBJ_DSTRING, a growable text buffer that is always terminated.
 *
 * The object holds a data component (capacity and buffer), the bytes in use
 * with the terminator (at least 1) and a reserved object reference. Appends
 * grow the buffer to twice what is needed at that moment, so repeated
 * appends are amortised, and the stored count means no append measures the
 * text. The buffer may move on any append: use the pointer an operation
 * gives back. No operation checks its object, and appends count bytes, not
 * characters: appending half a double-byte character is the caller's affair.
 */
#ifndef FHCORE_DSTRING_H
#define FHCORE_DSTRING_H

#include "object.h"
#include "types.h"

FH_BEGIN_DECLS

#define OBJ_DSTRING_MAGIC 0xC898F3CEu
#define OBJ_DSTRING_FORMAT "d;i;o;"

typedef struct OBJ_DSTRING {
    ObjData oText;     /* iSize: capacity in bytes; pData: the text */
    int32_t iUsed;     /* bytes in use, terminator included */
    void *oReserved;   /* never set */
} OBJ_DSTRING;

/* A new string holding a copy of text (null is ""), with capacity twice
 * what it uses, or at least minimum. */
FHAPI OBJ_DSTRING *ObjDStringNew(const char *text);
FHAPI OBJ_DSTRING *ObjDStringNewSized(const char *text, int32_t minimum);

/* Appends count bytes (nothing for 0 or less); the buffer, which may move. */
FHAPI char *DStringAppendSized(OBJ_DSTRING *string, const void *bytes, int32_t count);

/* The content becomes those count bytes (empty for null or 0). */
FHAPI void DStringSetSized(OBJ_DSTRING *string, const void *bytes, int32_t count);

/* Appends a character count times (above 255: two bytes, high first). */
FHAPI void DStringAppendCharNTimes(OBJ_DSTRING *string, int32_t value, int32_t count);

/* Appends the decimal text of a number; the buffer. */
FHAPI char *DStringAppendInteger(OBJ_DSTRING *string, int32_t value);
FHAPI char *DStringAppendInt64(OBJ_DSTRING *string, int64_t value);

/* Bytes in use, terminator included. */
FHAPI int32_t DStringBytesUsed(const OBJ_DSTRING *string);

/* The last character (double-byte aware), 0 for ""; and its removal (no
 * change for ""), which gives 0. */
FHAPI int32_t DStringLastChar(const OBJ_DSTRING *string);
FHAPI int32_t DStringDeleteLastChar(OBJ_DSTRING *string);

FH_END_DECLS

#endif /* FHCORE_DSTRING_H */
