/*
 * strwrap.h - lists of values as one line of text, and back.
 *
 * A value list here is a LIST of OBJ_STRING or OBJ_INTEGER items; its text
 * form is a comma-separated line without escapes (unlike the value list of a
 * stanza key). New strings come from the default pool and belong to the
 * caller.
 */
#ifndef FHCORE_STRWRAP_H
#define FHCORE_STRWRAP_H

#include "list.h"
#include "types.h"

FH_BEGIN_DECLS

/* The text of a list's items joined by ", " (or by delimiter) in *out: the
 * OBJ_STRING items with text, the OBJ_INTEGER items as decimal numbers, or
 * as dotted IPv4 addresses. Items of other types are skipped and leave no
 * separator. FALSE, with *out untouched, when no item gives text and for a
 * null out, not a list or a null delimiter (traced by the first three). */
FHAPI BOOL StrFromStrList(char **out, const LIST *list);
FHAPI BOOL StrFromStrListWithDelimiter(char **out, const LIST *list, const char *delimiter);
FHAPI BOOL StrFromValueList(char **out, const LIST *list);
FHAPI BOOL StrFromIpList(char **out, const LIST *list);

/* A new list of OBJ_STRING items from a comma-separated line in *out:
 * blanks around an item are dropped, an empty item has no text, and a final
 * empty item counts only when the list has items ("" gives an empty list,
 * "a," two items). A null string gives an empty list. FALSE for a null out. */
FHAPI BOOL StrValueListFromString(LIST **out, const char *string);

/* Inserts a new OBJ_STRING of string before the first item that compares
 * greater without regard to case, or last, so that equal items keep their
 * order of arrival. FALSE, traced, for not a list or a null string. */
FHAPI BOOL StrInsertInList(LIST *list, const char *string);

/* A new string "hh:mm:ss" of a count of milliseconds (cut to whole seconds);
 * the hours do not wrap at 24. */
FHAPI char *StrFromInt64Time(int64_t milliseconds);

FH_END_DECLS

#endif /* FHCORE_STRWRAP_H */
