/*
 * stanza.h - stanzas in memory: a title with an optional category, and keys
 * with a keyword and a list of values.
 *
 * These are plain records, not objects (OBJ_STANZA wraps one when a list
 * must hold it). A stanza is one block with its array of key pointers
 * inline at its end, and a key one block with its array of values inline,
 * so growing moves the record: every operation that can grow takes the
 * address of the caller's pointer and updates it. A key gains 4 value slots
 * at a time; a stanza gains one key slot per key added.
 *
 * A stanza may hold several keys of one keyword; look-up finds the first.
 * Keywords compare without regard to case, values with it. The stanza owns
 * its keys, the key its values; every string is a private copy from the
 * default pool, and a value may be null (an empty value). Values are text:
 * the numeric and boolean getters convert on demand.
 *
 * Getters with a default never fail on the data: a missing key or a value
 * that does not convert gives the default, with TRUE.
 *
 * A stanza holds at most STNZ_MAX_SLOTS keys and a key at most that many
 * values (8 MiB of slots on a 64-bit machine): a larger capacity is refused
 * with a trace, and so is an addition that would grow a record beyond it.
 */
#ifndef FHCORE_STANZA_H
#define FHCORE_STANZA_H

#include "list.h"
#include "objviewinfo.h"
#include "types.h"

FH_BEGIN_DECLS

/* The most slots a stanza (keys) or a key (values) may have. */
#define STNZ_MAX_SLOTS (1 << 20)

typedef struct StanzaKey {
    char *keyword;         /* never null */
    int32_t valueCount;    /* values in use */
    int32_t valueCapacity; /* slots, at least 1 */
    char *values[];        /* valueCount entries; an entry may be null */
} StanzaKey;

struct Stanza {
    char *category;      /* of the title line; null when it has none */
    char *title;
    int32_t keyCount;    /* keys in use */
    int32_t keyCapacity; /* slots, at least 1 */
    StanzaKey *keys[];   /* keyCount keys in order */
};

/* Called by StnzWalk with the cookie and the address of a key's slot;
 * FALSE stops the walk. */
typedef BOOL (*StnzWalkFunction)(void *cookie, StanzaKey **slot);

/* A new stanza with copies of the names and room for capacity keys (0 means
 * 1). FALSE for a null out, a negative capacity or one beyond
 * STNZ_MAX_SLOTS (traced). */
FHAPI BOOL StnzCreate(Stanza **out, const char *category, const char *title, int32_t capacity);

/* Releases every key, both names and the record, and clears the pointer. A
 * null address or stanza does nothing. */
FHAPI void StnzRelease(Stanza **stanzaAddress);

/* A new key without values and room for capacity (0 means 1). FALSE for a
 * null out, a null keyword, a negative capacity or one beyond
 * STNZ_MAX_SLOTS (traced). */
FHAPI BOOL StnzCreateKey(StanzaKey **out, const char *keyword, int32_t capacity);

/* Releases every value, the keyword and the record, and clears the pointer. */
FHAPI void StnzReleaseKey(StanzaKey **keyAddress);

/* Deep copies with the same capacity, keys and values in order. FALSE for
 * null arguments. */
FHAPI BOOL StnzCopy(Stanza **out, const Stanza *stanza);
FHAPI BOOL StnzKeyCopy(StanzaKey **out, const StanzaKey *key);

/* TRUE when the stanza has a key of keyword; *out (when out is given)
 * borrows the first such key. */
FHAPI BOOL StnzGetKey(StanzaKey **out, const Stanza *stanza, const char *keyword);

/* The value at index (from 1), borrowed; null for a null key, an index
 * outside 1 to valueCount, or a null value. */
FHAPI const char *StnzKeyValue(const StanzaKey *key, int32_t index);

/* The number of values; -1 for a null key. */
FHAPI int32_t StnzKeyValueCount(const StanzaKey *key);

/* Calls callback for each key in order until it gives FALSE; gives the last
 * result, TRUE for a stanza without keys, FALSE for a null stanza or callback. */
FHAPI BOOL StnzWalk(Stanza *stanza, StnzWalkFunction callback, void *cookie);

/* Typed getters of the first value of the first key of keyword: through
 * StrToInteger or StrToInt64; a boolean is 1 for "true" in any case and 0
 * for any other text; a string is a new copy (of the default when the key
 * is missing, null for a null default). TRUE unless out is null. */
FHAPI BOOL StnzGetInteger(const Stanza *stanza, const char *keyword, int32_t defaultValue, int32_t *out);
FHAPI BOOL StnzGetInt64(const Stanza *stanza, const char *keyword, int64_t defaultValue, int64_t *out);
FHAPI BOOL StnzGetBoolean(const Stanza *stanza, const char *keyword, BOOL defaultValue, BOOL *out);
FHAPI BOOL StnzGetString(const Stanza *stanza, const char *keyword, const char *defaultValue, char **out);

/* A new list of OBJ_STRING items, one per value in order (a null value is an
 * item without text): of the first key of keyword, FALSE with *out untouched
 * when there is none; or of a key. */
FHAPI BOOL StnzGetValueList(const Stanza *stanza, const char *keyword, LIST **out);
FHAPI BOOL StnzKeyGetValueList(const StanzaKey *key, LIST **out);

/* Appends *keyAddress to the stanza, which takes it over (the variable is
 * cleared), even when that keyword is there already. FALSE, nothing
 * changed, when the stanza holds STNZ_MAX_SLOTS keys. */
FHAPI BOOL StnzAddKeyToStanza(Stanza **stanzaAddress, StanzaKey **keyAddress);

/* Releases every key of the new key's keyword, then appends it as above. */
FHAPI BOOL StnzReplaceKeyInStanza(Stanza **stanzaAddress, StanzaKey **keyAddress);

/* Releases the first key of keyword, or every one when all is TRUE, closing
 * the gap. TRUE if any went. */
FHAPI BOOL StnzDeleteKeywordFromStanza(Stanza *stanza, const char *keyword, BOOL all);

/* Takes the key at that very address out of the stanza, without releasing it. */
FHAPI void StnzRemoveKeyFromStanza(Stanza *stanza, const StanzaKey *key);

/* Appends a copy of value (null is stored as an empty value); FALSE when
 * the key holds STNZ_MAX_SLOTS values. */
FHAPI BOOL StnzAddValueToKey(StanzaKey **keyAddress, const char *value);

/* Releases the first value equal to value (case counts), or every one when
 * all is TRUE, closing the gap. TRUE if any went. */
FHAPI BOOL StnzDeleteValueFromKey(StanzaKey *key, const char *value, BOOL all);

/* Takes the value at index (from 1) out without releasing it: the caller
 * keeps what StnzKeyValue gave. FALSE for an index out of range. */
FHAPI BOOL StnzRemoveValueFromKey(StanzaKey *key, int32_t index);

/* New keys of one value ("%ld", the 64-bit decimal, "true"/"false", a copy
 * of string) or of the OBJ_STRING items of a list (other items are traced
 * and skipped). FALSE for a null out, a null or empty keyword, or not a list. */
FHAPI BOOL StnzCreateKeyFromInteger(StanzaKey **out, const char *keyword, int32_t value);
FHAPI BOOL StnzCreateKeyFromInt64(StanzaKey **out, const char *keyword, int64_t value);
FHAPI BOOL StnzCreateKeyFromBoolean(StanzaKey **out, const char *keyword, BOOL value);
FHAPI BOOL StnzCreateKeyFromString(StanzaKey **out, const char *keyword, const char *string);
FHAPI BOOL StnzCreateKeyFromValueList(StanzaKey **out, const char *keyword, const LIST *list);

/* Builds the key as above and replaces the keyword's keys with it (replace
 * TRUE) or adds it. FALSE for a null stanza or keyword. */
FHAPI BOOL StnzSetKeywordFromInteger(Stanza **stanzaAddress, const char *keyword, int32_t value, BOOL replace);
FHAPI BOOL StnzSetKeywordFromBoolean(Stanza **stanzaAddress, const char *keyword, BOOL value, BOOL replace);
FHAPI BOOL StnzSetKeywordFromString(Stanza **stanzaAddress, const char *keyword, const char *string, BOOL replace);
FHAPI BOOL StnzSetKeywordFromValueList(Stanza **stanzaAddress, const char *keyword, const LIST *list,
                                       BOOL replace);

FH_END_DECLS

#endif /* FHCORE_STANZA_H */
