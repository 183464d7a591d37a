/*
 * stanzafile.h - stanza files: the text form of every configuration file,
 * scanned by position, appended to, and rewritten without ever being left
 * half written.
 *
 * The text. A line ends at a line feed; carriage returns are dropped
 * wherever they stand; a line keeps at most 4095 bytes (the rest is read and
 * dropped); a lead byte and the byte behind it are one character. Empty
 * lines are skipped, then a line is a title, a key, or skipped in silence:
 *
 *   [Title]            [Category:Title]        Keyword=value, value, ...
 *
 * Blanks (space, tab) around '[', ':', ']' and at the end of a keyword do
 * not count; text behind ']' is ignored; a title's further ':' is text of
 * the title. There is no comment syntax ("# a=b" is the key "# a"). A value
 * list separates values by ',' with '!' as the escape: "!n" is a line feed,
 * '!' before any other character is that character, blanks around a value
 * do not count unless escaped, and an empty value between commas is a null
 * value. Names compare without regard to case; the first match wins; a null
 * and an empty category are equal. Key lines before the first title belong
 * to no stanza.
 *
 * Name limits. Readers undo no escape in category, title or keyword, so a
 * name comes back the same only if it is not empty, holds no '!', ',',
 * line feed or carriage return, neither begins nor ends with a blank, and
 * does not end in a lone lead byte; a keyword also holds no '=' and does not
 * begin with '['; a category holds no ':' or ']', and a title no ']' (nor
 * ':' when it has no category). Every line, title or key with all its
 * escaped values, fits in 4095 bytes. The writers refuse a stanza that
 * breaks these limits (traced, nothing written) rather than write what
 * would come back cut short. Values have no other limits but one: a
 * carriage return is lost on reading. A value that ends in a lone lead byte
 * (an in-memory value, or one cut short by a NUL in its line) takes the byte
 * behind it along on reading.
 *
 * Rewrites (remove, replace, save) copy the lines they keep rebuilt from
 * their parts, names exactly as they were read: "[" category ":" title "]"
 * for a title, keyword "=" argument for a key. Spacing, text behind ']' and
 * skipped lines do not survive the first rewrite; from the second on, a
 * copied stanza comes back byte for byte, whatever '!' or ',' its names
 * hold. (Copied names are not escaped: since no reader undoes an escape in
 * a name, escaping on each copy would double every '!' and ',' of every
 * other stanza on every rewrite, until its title line passed the longest
 * line and the stanza was lost.) A rewrite never drops a stanza it was not
 * asked to remove: a line that would not read back as itself (only a
 * caller's record to StnzWriteRecord can be one) fails the rewrite and
 * leaves the file as it was. A replace takes every stanza of the replaced
 * name with it; each one after the first is traced at level 0 with its
 * keys ("Dropped another stanza [%s] of that name from '%s'", then "Dropped
 * with [%s]: keyword=argument"), once the rewrite is committed. A rewrite
 * goes through path".new" (filestream.h): the file is at every moment its
 * complete old or complete new contents, and the new contents are on the
 * disk before the rename makes them the file.
 *
 * Offsets are 32-bit: a stanza file is smaller than 2 GiB. A STNZ_FILE
 * belongs to one thread; between processes, every open holds the stream's
 * lock on path".lck" (shared for modes 257 and 515, exclusive for 516)
 * until the close.
 */
#ifndef FHCORE_STANZAFILE_H
#define FHCORE_STANZAFILE_H

#include "filestream.h"
#include "list.h"
#include "stanza.h"
#include "types.h"

FH_BEGIN_DECLS

#define STNZ_FILE_MAGIC 0xC9230BA6u
#define STNZ_FILE_FORMAT "o;i;s;s;s;s;i;"
#define STNZ_DYNAMIC_LIST_MAGIC 0xC976F067u
#define STNZ_DYNAMIC_LIST_FORMAT "o;s;"

/* The open modes of the stanza layer (mode words of filesys.h). */
#define STNZ_MODE_READ 257   /* every load */
#define STNZ_MODE_APPEND 515 /* adding a stanza */
#define STNZ_MODE_UPDATE 516 /* every remove, replace and rewrite */

/* The longest line kept, without its terminator. */
#define STNZ_LINE_MAX 4095

/* An open stanza file and its scan position: the current stanza (names null
 * when there is none) and the current key (null when there is none). */
typedef struct STNZ_FILE {
    FILE_STREAM *pStream;
    int32_t iMode;          /* the mode of the open */
    char *pszCategory;      /* of the current stanza; null if it has none */
    char *pszTitle;         /* of the current stanza */
    char *pszKeyword;       /* of the current key */
    char *pszArgument;      /* the current key's raw argument */
    int32_t iStanzaOffset;  /* the first byte behind the current title line */
} STNZ_FILE;

/* A whole stanza file in memory: a list of OBJ_STANZA items and the path of
 * the file they came from. */
typedef struct STNZ_DYNAMIC_LIST {
    LIST *oList;
    char *pszPath;
} STNZ_DYNAMIC_LIST;

/* One line read: a title (category may be null) or a key, the other two
 * strings null. */
typedef struct StnzLineRecord {
    char *category;
    char *title;
    char *keyword;
    char *argument;
} StnzLineRecord;

/* ---- Lines ------------------------------------------------------------- */

/* Whether line is a title: after blanks a '[' with a ']' anywhere behind it
 * (looser than StnzLineToTitle); whether it splits as a key line. */
FHAPI BOOL StnzLineIsTitle(const char *line);
FHAPI BOOL StnzLineIsKey(const char *line);

/* Splits a title line into new strings (*category null when the title has
 * none). FALSE, outs untouched, for a line that is no title. */
FHAPI BOOL StnzLineToTitle(char **category, char **title, const char *line);

/* Splits a key line into a new keyword (blanks at its end dropped) and a new
 * raw argument. FALSE, outs untouched, for a line that is no key. */
FHAPI BOOL StnzLineToKeywordAndArgument(char **keyword, char **argument, const char *line);

/* A new key of the line's keyword and values; FALSE, traced, if the line does
 * not split. */
FHAPI BOOL StnzLineToKey(StanzaKey **out, const char *line);

/* A new key of keyword with the values of the value list argument (null
 * counts as empty). FALSE with nothing made if any step fails. */
FHAPI BOOL StnzAddValues(StanzaKey **out, const char *keyword, const char *argument);

/* The escaped form of text as a new string: line feed as "!n", '!' and ','
 * behind a '!', and a '!' before every blank that leads or trails. Null for
 * a null text. */
FHAPI char *StnzEscapeText(const char *text);

/* Reads on to the next title or key line into record (released and cleared
 * first). FALSE at the end of the file, with record clear. */
FHAPI BOOL StnzReadRecord(STNZ_FILE *file, StnzLineRecord *record);

/* Writes record as a copied line (see above) to the file's output. */
FHAPI BOOL StnzWriteRecord(STNZ_FILE *file, const StnzLineRecord *record);

/* Frees the record's strings and clears them. */
FHAPI void StnzReleaseRecord(StnzLineRecord *record);

/* ---- An open file ------------------------------------------------------- */

/* Opens path in mode (STNZ_MODE_...) with its lock; waits for the lock.
 * FALSE for a null out, a null or empty path, or a failed open. */
FHAPI BOOL StnzOpenFile(STNZ_FILE **out, const char *path, int32_t mode);

/* Closes the stream, lets the lock go, releases the file and clears the
 * variable. The stream's close result; FALSE if there is nothing to close. */
FHAPI BOOL StnzCloseFile(STNZ_FILE **fileAddress);

/* Back to the start with no current stanza or key. */
FHAPI BOOL StnzRewindFile(STNZ_FILE *file);

/* The open mode; -1 for a null file or one without a stream. */
FHAPI int32_t StnzFileOpenMode(const STNZ_FILE *file);

/* New copies of the current stanza's names (category may be a null out, and
 * *category is null for a title without one), of the current keyword, and
 * of its raw argument. FALSE, outs untouched, when there is none. */
FHAPI BOOL StnzCurrentTitle(char **category, char **title, const STNZ_FILE *file);
FHAPI BOOL StnzCurrentKeyword(char **out, const STNZ_FILE *file);
FHAPI BOOL StnzCurrentArgument(char **out, const STNZ_FILE *file);

/* A new key of the current keyword and argument. */
FHAPI BOOL StnzLoadCurrentKey(StanzaKey **out, const STNZ_FILE *file);

/* A new stanza of the current stanza's names and every key line up to the
 * next title, in file order. The position is the same afterwards. */
FHAPI BOOL StnzLoadCurrentStanza(Stanza **out, STNZ_FILE *file);

/* The finds. Each makes what it found current and leaves the position
 * behind the line; a failed find changes neither position nor anything
 * current. FindStanza searches from the start of the file; FindKeyword from
 * the position on across stanzas; FindKeywordInStanza within the current
 * stanza from its start; FindNextStanza and FindNextKeyword take the next
 * line of their kind (FindNextKeyword stops at a title). */
FHAPI BOOL StnzFindStanza(STNZ_FILE *file, const char *category, const char *title);
FHAPI BOOL StnzFindKeyword(STNZ_FILE *file, const char *keyword);
FHAPI BOOL StnzFindKeywordInStanza(STNZ_FILE *file, const char *keyword);
FHAPI BOOL StnzFindNextStanza(STNZ_FILE *file);
FHAPI BOOL StnzFindNextKeyword(STNZ_FILE *file);

/* Writes the stanza to the output (mode 515, or 516 during a rewrite): the
 * title line, one line per key, and a blank line. FALSE, nothing written,
 * for a stanza without a title or outside the limits; else the result of
 * the write. AppendStanza is the same in mode 515 only. */
FHAPI BOOL StnzFileWriteStanza(STNZ_FILE *file, const Stanza *stanza);
FHAPI BOOL StnzFileAppendStanza(STNZ_FILE *file, const Stanza *stanza);

/* Mode 516. Rewrite the file without every stanza of those names (TRUE also
 * when there was none), or with every such stanza gone and the new one last,
 * two blank lines before it and the copied stanzas one apart. On any failure
 * the file is as it was and the result is FALSE. Current names stay; the
 * input is back at the start. */
FHAPI BOOL StnzFileRemoveStanza(STNZ_FILE *file, const char *category, const char *title);
FHAPI BOOL StnzFileReplaceStanza(STNZ_FILE *file, const Stanza *stanza);

/* A new list of OBJ_STANZA items of every stanza from the position on; FALSE
 * with no list if one fails to load. */
FHAPI BOOL StnzFileLoadStanzaList(LIST **out, STNZ_FILE *file);

/* Mode 516: rewrites the file with every OBJ_STANZA item of the list in
 * order; other items, and stanzas the writer refuses (traced), are left
 * out. FALSE, the file as it was, when the rewrite fails. */
FHAPI BOOL StnzFileSaveStanzaList(const LIST *list, STNZ_FILE *file);

/* ---- By path: each opens and closes the file itself ---------------------- */

/* A new stanza, or a new key under the keyword as asked, from the first
 * stanza of those names. Path, title (and keyword) must not be empty. */
FHAPI BOOL StnzLoadStanzaFromFile(Stanza **out, const char *path, const char *category, const char *title);
FHAPI BOOL StnzLoadKeyFromFile(StanzaKey **out, const char *path, const char *category, const char *title,
                               const char *keyword);

/* Appends the stanza unless the file holds one of its names already (then
 * FALSE, the file unchanged). The file is made if it is missing. */
FHAPI BOOL StnzAddStanzaToFile(const Stanza *stanza, const char *path);

/* StnzFileReplaceStanza and StnzFileRemoveStanza on path. */
FHAPI BOOL StnzReplaceStanzaInFile(const Stanza *stanza, const char *path);
FHAPI BOOL StnzRemoveStanzaFromFile(const char *category, const char *title, const char *path);

/* Under the exclusive lock: loads the stanza (or makes an empty one), adds
 * the key (or replaces the keys of its keyword when replace is TRUE) and
 * replaces the stanza in the file. The stanza takes the key over: *keyAddress
 * is null afterwards whenever the key got that far. TRUE only if both the
 * key operation and the rewrite succeeded. */
FHAPI BOOL StnzAddKeyToFile(const char *path, const char *category, const char *title, StanzaKey **keyAddress,
                            BOOL replace);

/* A whole file as a new list of OBJ_STANZA items (empty for a file without
 * stanzas); the list saved as the whole file. */
FHAPI BOOL StnzLoadStanzaListFromFile(LIST **out, const char *path);
FHAPI BOOL StnzSaveStanzaListToFile(const LIST *list, const char *path);

/* A new STNZ_DYNAMIC_LIST of a whole file; its list saved back to its path
 * (FALSE for any other object). */
FHAPI BOOL StnzLoadDynamicStanzaListFromFile(STNZ_DYNAMIC_LIST **out, const char *path);
FHAPI BOOL StnzSaveDynamicStanzaListToFile(const STNZ_DYNAMIC_LIST *dynamicList);

/* The module's part of the context ladder: the template of STNZ_FILE. */
FHAPI BOOL StnzFileInitialize(void);
FHAPI BOOL StnzFileInitializeThread(void);
FHAPI void StnzFileReleaseThread(LmContext *context);

FH_END_DECLS

#endif /* FHCORE_STANZAFILE_H */
