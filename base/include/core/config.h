/*
 * config.h - settings by file, section and item: what every module calls.
 *
 * A setting is addressed by a bare configuration file name
 * ("configure.cfg"), a section and an item (cfglocal.h tells how they are
 * stored). Each call decides anew whether it goes to this machine's files
 * or to the configuration server: it goes remote only when the process's
 * task context carries remote configuration details (a
 * CFG_UTIL_REMOTE_CONFIG_DETAILS naming a client and a server) and the
 * file has a map file, "config/map/<file>.map" under the home directory.
 * A process without a task context is always local, as is CfgRemoveKey.
 *
 * The getters of settings read through a cache of parsed files, kept per
 * thread: each holds the settings of the last four files it read (files
 * of up to 1 MiB; a larger file is scanned on every call). A cached file
 * holds its names and raw values once, and an index row of 24 bytes for
 * each key of the first stanza of each name: about twice the file's size
 * for lines of 20 to 30 bytes, never more than 9 times its size, so at
 * most about 36 MiB a thread and commonly a few KiB. A file is served from
 * the cache only while it is the same file: every get opens it with its
 * shared lock, as a read without the cache does, and compares its device,
 * inode, size and modification time (nanoseconds) with those it was
 * parsed at. A set here or in another process (a rewrite renames a new
 * file in) and an append in place are seen by the next get, and so is an
 * edit by hand that changes the time; a file changed within two ticks of
 * the file clock before it was parsed is parsed again on its next get. The
 * cache goes when the thread's context is released.
 *
 * Getters: a missing setting stores the default and gives FALSE; callers
 * that only want the value ignore the result.
 *
 * The FromList forms address the same settings in a stanza list that a
 * caller holds (CfgGetStanzaList); keys they give are borrowed from it.
 *
 * Setters (and CfgReplaceStanza) rewrite the file with one stanza of the
 * section's name, at its end. When a file holds several stanzas of that
 * name, getters only ever see the first, and a set drops the others with
 * all their keys: each dropped stanza and each of its keys is traced at
 * level 0 ("Dropped another stanza [Net] of that name from '...'",
 * "Dropped with [Net]: keyword=value"), so that an operator can find what
 * went. Every rewrite reaches the disk before it replaces the file.
 */
#ifndef FHCORE_CONFIG_H
#define FHCORE_CONFIG_H

#include "cfglocal.h" /* CfgLocalBuildPath and the local layer */
#include "list.h"
#include "stanza.h"
#include "types.h"

FH_BEGIN_DECLS

#define CFG_UTIL_REMOTE_CONFIG_DETAILS_MAGIC 0xCA46D3ABu

/* Names a remote configuration; set among the task context's objects by
 * whoever starts the task. */
typedef struct CFG_UTIL_REMOTE_CONFIG_DETAILS {
    char *pszServer;
    char *pszClient;
} CFG_UTIL_REMOTE_CONFIG_DETAILS;

/* ---- Stanzas and files ---------------------------------------------------- */

/* The stanza [title] of file; the whole file as a list of OBJ_STANZA items;
 * the file rewritten to hold exactly a list; a stanza appended (FALSE if
 * there already), put in place of its namesakes, or removed with them. Each
 * of the first five traces its failure ("CfgGetStanza returned FALSE"). */
FHAPI BOOL CfgGetStanza(Stanza **out, const char *file, const char *title);
FHAPI BOOL CfgGetStanzaList(LIST **out, const char *file);
FHAPI BOOL CfgReplaceStanzaList(const char *file, const LIST *list);
FHAPI BOOL CfgAddStanza(const Stanza *stanza, const char *file);
FHAPI BOOL CfgReplaceStanza(const Stanza *stanza, const char *file);
FHAPI BOOL CfgRemoveStanza(const char *category, const char *title, const char *file);

/* ---- Settings ------------------------------------------------------------- */

/* A new key of the setting; its first value converted, or copied; its
 * values as a new list of OBJ_STRING items. A missing setting stores the
 * default and gives FALSE; a value that does not convert gives FALSE with
 * *out untouched (cfglocal.h). */
FHAPI BOOL CfgGetKey(const char *file, const char *section, const char *item, StanzaKey **out);
FHAPI BOOL CfgGetBoolean(BOOL *out, const char *file, const char *section, const char *item, BOOL defaultValue);
FHAPI BOOL CfgGetInteger(int32_t *out, const char *file, const char *section, const char *item,
                         int32_t defaultValue);
FHAPI BOOL CfgGetInt64(int64_t *out, const char *file, const char *section, const char *item, int64_t defaultValue);
FHAPI BOOL CfgGetString(char **out, const char *file, const char *section, const char *item,
                        const char *defaultValue);
FHAPI BOOL CfgGetValueList(LIST **out, const char *file, const char *section, const char *item);

/* The setting written in the form it has (a new one is plain); booleans as
 * "true" and "false". FALSE, the file as it was, on any failure. */
FHAPI BOOL CfgSetInteger(const char *file, const char *section, const char *item, int32_t value);
FHAPI BOOL CfgSetInt64(const char *file, const char *section, const char *item, int64_t value);
FHAPI BOOL CfgSetString(const char *file, const char *section, const char *item, const char *string);
FHAPI BOOL CfgSetValueList(const char *file, const char *section, const char *item, const LIST *list);
FHAPI BOOL CfgSetBoolean(const char *file, const char *section, const char *item, BOOL value);

/* Entries of the value list "value" of [category:title], and values of the
 * key keyword of [title]: as the CfgLocal operations of those names. */
FHAPI BOOL CfgAddEntryToValueList(LIST **out, const char *file, const char *category, const char *title,
                                  const char *entry, BOOL noDuplicates, BOOL noCase);
FHAPI BOOL CfgRemoveEntryFromValueList(LIST **out, const char *file, const char *category, const char *title,
                                       const char *entry, BOOL noCase);
FHAPI BOOL CfgAddValueToKey(const char *file, const char *title, const char *keyword, const char *value);
FHAPI BOOL CfgRemoveValueFromKey(const char *file, const char *title, const char *keyword, const char *value);

/* Always local. */
FHAPI BOOL CfgRemoveKey(const char *file, const char *title, const char *keyword);

/* ---- Paths and routing ------------------------------------------------------ */

/* New paths: "config/<file>" under the home directory (the directory
 * itself for a null file, as CfgLocalBuildPath), or from CfgUtilBuildPath with an alternate path
 * "<alternate path>/<file>" under it, and null, traced, for a null file. */
FHAPI char *CfgBuildPath(const char *file);
FHAPI char *CfgUtilBuildPath(const char *file, const char *alternatePath);

/* TRUE when the call is to go remote; *client and *server then get new
 * copies of the names. */
FHAPI BOOL CfgUtilDoRemote(char **client, char **server, const char *file, const char *alternatePath);

/* TRUE when the current task names a non-empty client and server (new
 * copies in the outs). FALSE while the process has no task context. */
FHAPI BOOL CfgUtilDoRemoteFromProcContext(char **client, char **server);

/* Whether the file's map file exists: "config/map/<file>.map" under the
 * home directory, or "<alternate path>/<file>.map" as it stands. Its content
 * is never read. FALSE for a null file. */
FHAPI BOOL CfgUtilDoRemoteFromMapFile(const char *file, const char *alternatePath);
FHAPI BOOL CfgUtilMapFileExists(const char *file, const char *alternatePath);

/* ---- Settings in a stanza list ---------------------------------------------- */

/* The setting's key in list (borrowed: neither change nor release it). */
FHAPI BOOL CfgGetKeyFromList(const LIST *list, const char *section, const char *item, StanzaKey **out);
FHAPI BOOL CfgUtilGetKeyFromList(const LIST *list, const char *section, const char *item, StanzaKey **out);

/* The first value converted; the result is the conversion's. A missing
 * setting stores the default and gives FALSE. */
FHAPI BOOL CfgGetBooleanFromList(BOOL *out, const LIST *list, const char *section, const char *item,
                                 BOOL defaultValue);
FHAPI BOOL CfgGetIntegerFromList(int32_t *out, const LIST *list, const char *section, const char *item,
                                 int32_t defaultValue);
FHAPI BOOL CfgGetInt64FromList(int64_t *out, const LIST *list, const char *section, const char *item,
                               int64_t defaultValue);
FHAPI BOOL CfgUtilGetBooleanFromList(BOOL *out, const LIST *list, const char *section, const char *item,
                                     BOOL defaultValue);
FHAPI BOOL CfgUtilGetIntegerFromList(int32_t *out, const LIST *list, const char *section, const char *item,
                                     int32_t defaultValue);
FHAPI BOOL CfgUtilGetInt64FromList(int64_t *out, const LIST *list, const char *section, const char *item,
                                   int64_t defaultValue);

/* A new list of OBJ_STRING items, one per value of the setting; FALSE with
 * *out untouched when the setting is missing. */
FHAPI BOOL CfgGetValueListFromList(LIST **out, const LIST *list, const char *section, const char *item);
FHAPI BOOL CfgUtilGetValueListFromList(LIST **out, const LIST *list, const char *section, const char *item);

/* Splits the text of the first OBJ_STRING item of list into a new list of
 * OBJ_STRING items. The text is one level deeper in escaping than a key's
 * argument: "!," separates items, "!!" takes the next character, a '!' in an
 * item takes the character behind it. FALSE for an empty list. */
FHAPI BOOL CfgParseValueList(LIST **out, const LIST *list);
FHAPI BOOL CfgUtilParseValueList(LIST **out, const LIST *list);

FH_END_DECLS

#endif /* FHCORE_CONFIG_H */
