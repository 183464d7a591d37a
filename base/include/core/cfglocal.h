/*
 * cfglocal.h - settings in the stanza files of this machine.
 *
 * A setting is named by a configuration file ("configure.cfg"), a section
 * and an item, and is stored in one of two forms:
 *
 *   displayable   [section:item]   value=...   (the item is a stanza of its own)
 *   plain         [section]        item=...    (one key among others)
 *
 * A reader takes the displayable form when [section:item] has a key
 * "value", else the plain form. A writer keeps the form the setting has; a
 * new setting is plain. Every write rewrites the file (stanzafile.h), which
 * moves the stanza to the end of the file and the key to the end of the
 * stanza. Section and item compare without regard to case.
 *
 * Files lie in "config" under the home directory; every operation takes an
 * alternate path last (a directory relative to the home directory that
 * replaces "config"), which only the configuration server sets: pass null.
 *
 * Concurrency. Each open holds the stanza file's lock until its close. Sets
 * (through StnzAddKeyToFile) and the value-list entry operations run from
 * read to rewrite under one exclusive lock, so concurrent writers lose
 * nothing. CfgLocalAddValueToKey, CfgLocalRemoveValueFromKey and
 * CfgLocalRemoveKey read the stanza under a shared lock, close, and reopen
 * for the rewrite: a change by another process between the two opens is
 * overwritten. The form test of a set is an open of its own before the
 * write: a displayable stanza made in between gets the plain form written.
 *
 * Getters return FALSE when they find nothing; a file that does not exist
 * or cannot be locked holds nothing. Strings, keys and lists given out
 * belong to the caller.
 */
#ifndef FHCORE_CFGLOCAL_H
#define FHCORE_CFGLOCAL_H

#include "list.h"
#include "stanza.h"
#include "types.h"

FH_BEGIN_DECLS

/* ---- Whole stanzas and files -------------------------------------------------- */

/* The stanza [title] of the file. */
FHAPI BOOL CfgLocalGetStanza(Stanza **out, const char *file, const char *title, const char *alternatePath);

/* The whole file as a new list of OBJ_STANZA items. */
FHAPI BOOL CfgLocalGetStanzaList(LIST **out, const char *file, const char *alternatePath);

/* The file rewritten to hold exactly the OBJ_STANZA items of list. */
FHAPI BOOL CfgLocalReplaceStanzaList(const char *file, const LIST *list, const char *alternatePath);

/* The stanza appended (FALSE if the file holds it already), put in place of
 * every stanza of its names, or every stanza of those names removed. */
FHAPI BOOL CfgLocalAddStanza(const Stanza *stanza, const char *file, const char *alternatePath);
FHAPI BOOL CfgLocalReplaceStanza(const Stanza *stanza, const char *file, const char *alternatePath);
FHAPI BOOL CfgLocalRemoveStanza(const char *category, const char *file, const char *title,
                                const char *alternatePath);

/* ---- Reading a setting ------------------------------------------------------- */

/* A new key of the setting: "value" of [section:item], else item of
 * [section]. */
FHAPI BOOL CfgLocalGetKey(StanzaKey **out, const char *file, const char *section, const char *item,
                          const char *alternatePath);

/* The first value converted (a key without values converts as null: 0 for
 * the numbers, a failure for a boolean). A missing setting stores the
 * default and gives FALSE; a value that does not convert gives FALSE with
 * *out untouched. */
FHAPI BOOL CfgLocalGetBoolean(BOOL *out, const char *file, const char *section, const char *item,
                              const char *alternatePath, BOOL defaultValue);
FHAPI BOOL CfgLocalGetInteger(int32_t *out, const char *file, const char *section, const char *item,
                              const char *alternatePath, int32_t defaultValue);
FHAPI BOOL CfgLocalGetInt64(int64_t *out, const char *file, const char *section, const char *item,
                            const char *alternatePath, int64_t defaultValue);

/* A copy of the first value (null for a key without values); a missing
 * setting gives a copy of the default (null for null) and FALSE. */
FHAPI BOOL CfgLocalGetString(char **out, const char *file, const char *section, const char *item,
                             const char *alternatePath, const char *defaultValue);

/* A new list of OBJ_STRING items, one per value; FALSE with *out untouched
 * for a missing setting. */
FHAPI BOOL CfgLocalGetValueList(LIST **out, const char *file, const char *section, const char *item,
                                const char *alternatePath);

/* ---- Writing a setting ------------------------------------------------------- */

/* The setting's key replaced by one of value ("%ld", the 64-bit decimal,
 * "true"/"false", the string, the OBJ_STRING items of list) in its form.
 * FALSE for a null file, section or item, or a failed rewrite (the file is
 * then as it was). */
FHAPI BOOL CfgLocalSetInteger(const char *file, const char *section, const char *item, int32_t value,
                              const char *alternatePath);
FHAPI BOOL CfgLocalSetInt64(const char *file, const char *section, const char *item, int64_t value,
                            const char *alternatePath);
FHAPI BOOL CfgLocalSetBoolean(const char *file, const char *section, const char *item, BOOL value,
                              const char *alternatePath);
FHAPI BOOL CfgLocalSetString(const char *file, const char *section, const char *item, const char *string,
                             const char *alternatePath);
FHAPI BOOL CfgLocalSetValueList(const char *file, const char *section, const char *item, const LIST *list,
                                const char *alternatePath);

/* ---- Lower operations -------------------------------------------------------- */

/* Whether the file at path (a complete path) holds [section:item] with a key
 * "value": the setting is displayable. */
FHAPI BOOL CfgLocalGotCategory(const char *path, const char *section, const char *item);

/* StnzAddKeyToFile on a complete path. */
FHAPI BOOL CfgLocalAddKey(const char *path, const char *category, const char *title, StanzaKey **keyAddress,
                          BOOL replace);

/* ---- Value lists: the key "value" of [category:title] ------------------------ */

/* Appends entry, unless noDuplicates and an equal entry is there (compared
 * without regard to case when noCase): then FALSE, the file unchanged. The
 * stanza is made if missing. *out (when out is given) gets the new list. */
FHAPI BOOL CfgLocalAddEntryToValueList(LIST **out, const char *file, const char *category, const char *title,
                                       const char *entry, BOOL noDuplicates, BOOL noCase,
                                       const char *alternatePath);

/* Removes the first entry equal to entry; FALSE, the file unchanged, when the
 * stanza, its key or such an entry is missing. *out gets the rest. */
FHAPI BOOL CfgLocalRemoveEntryFromValueList(LIST **out, const char *file, const char *category, const char *title,
                                            const char *entry, BOOL noCase, const char *alternatePath);

/* ---- Keys of a plain stanza [title] (two opens: see above) ------------------- */

/* Appends value to the key (made if missing), which moves to the end of the
 * stanza; FALSE if the stanza is missing. */
FHAPI BOOL CfgLocalAddValueToKey(const char *file, const char *title, const char *keyword, const char *value,
                                 const char *alternatePath);

/* Removes every value equal to value (case counts); the key moves to the end
 * of the stanza. FALSE, the file unchanged, if none was there. */
FHAPI BOOL CfgLocalRemoveValueFromKey(const char *file, const char *title, const char *keyword, const char *value,
                                      const char *alternatePath);

/* Removes the first key of keyword; FALSE if the stanza or key is missing. */
FHAPI BOOL CfgLocalRemoveKey(const char *file, const char *title, const char *keyword, const char *alternatePath);

/* A new path "config/<file>" under the home directory (the directory itself
 * for a null file); the caller frees it. */
FHAPI char *CfgLocalBuildPath(const char *file);

FH_END_DECLS

#endif /* FHCORE_CFGLOCAL_H */
