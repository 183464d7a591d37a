/*
 * strbase.h - characters and NUL-terminated multi-byte strings.
 *
 * A string is a NUL-terminated array of bytes in a fixed multi-byte code.
 * Bytes 0x80 to 0x9F and 0xE0 to 0xFF lead a double-byte character; a
 * character value is the byte itself for a single-byte character, and
 * lead << 8 | trail for a double-byte one (always above 255). A lead byte
 * directly before the terminator is read as a single-byte character. Every
 * operation here walks text character by character, so a double-byte
 * character is never cut in two and nothing is read past a terminator.
 *
 * Folding ("NoCase") maps only 'a' to 'z' onto 'A' to 'Z'. New strings come
 * from the default pool (or the pool given to an ...IntoPool operation) and
 * belong to the caller, who frees them with MemFreeInternal. Sizes are bytes
 * unless a comment says characters; a "cursor" is the address of a string
 * pointer that the operation moves.
 */
#ifndef FHCORE_STRBASE_H
#define FHCORE_STRBASE_H

#include <stdarg.h>

#include "memory.h"
#include "types.h"

FH_BEGIN_DECLS

/* ---- Characters ---------------------------------------------------------- */

/* TRUE when byte leads a double-byte character. The table is fixed at build
 * time and does not depend on the locale. */
FHAPI BOOL StrIsDBCSLeadByte(unsigned char byte);

/* TRUE for a character value below 128. */
FHAPI BOOL StrCharIsAscii(int32_t charValue);

/* Reads the character at *cursor and moves past it. 0, without moving, for a
 * null cursor, a null string or the terminator: the cursor never passes the
 * terminator. */
FHAPI int32_t StrGetChar(const char **cursor);

/* The character at string, without a cursor; 0 for a null string. */
FHAPI int32_t StrGetCharAtPointer(const char *string);

/* The character after the first count characters of string; 0 when the
 * string has no more characters or is null. */
FHAPI int32_t StrGetCharAfterPointer(const char *string, int32_t count);

/* The position after count characters of string, stopping at the
 * terminator; string itself for a count of 0 or less, null for null. */
FHAPI char *StrForwardNChars(const char *string, int32_t count);

/* Steps back from the character at *cursor. With c the byte at the cursor and
 * p the byte before it: when p is a lead byte the cursor moves back two bytes
 * and the result is c << 8 | p, else it moves back one byte and the result is
 * c. 0, without moving, for a null cursor or string or a terminator at the
 * cursor. The cursor must stand inside the string, not on its first byte. */
FHAPI int32_t StrPrevChar(const char **cursor);

/* Writes charValue at *cursor and moves past it. Gives the bytes written: 2
 * for a value above 255 (high byte first), 1 for a single byte, 0 for the
 * value 0, which writes a NUL and does not move. -1, with nothing written,
 * for a null cursor or string. */
FHAPI int32_t StrPutChar(char **cursor, int32_t charValue);

/* The number of characters in string, a double-byte character counting
 * once; 0 for null. */
FHAPI int32_t StrCharCount(const char *string);

/* The position of the terminator of string; null for a null string. */
FHAPI char *StrTerminatorPosition(const char *string);

/* ---- Sizes (bytes) ------------------------------------------------------- */

/* Bytes of string with its terminator; 0 for null. */
FHAPI int32_t StrSize(const char *string);

/* Bytes of string without its terminator; 0 for null. */
FHAPI int32_t StrSizeNoTerm(const char *string);

/* Bytes taken by the first count + 1 characters (the first character alone
 * for a count below 1), at most the string without its terminator. 0 for
 * null. */
FHAPI int32_t StrSizeRange(const char *string, int32_t count);

/* Bytes taken by the first count characters, at most the string without its
 * terminator. 0 for null or a count below 1. */
FHAPI int32_t StrSizeRangeNoTerm(const char *string, int32_t count);

/* ---- Compare --------------------------------------------------------------
 * All compare character values, so a double-byte character compares as one
 * value, above every single-byte character. A null string equals "". */

/* -1, 0 or 1 as a sorts before, equal to or after b. */
FHAPI int32_t StrCompare(const char *a, const char *b);

/* StrCompare with 'a' to 'z' folded onto 'A' to 'Z'. */
FHAPI int32_t StrCompareNoCase(const char *a, const char *b);

/* StrCompare that also stops when the cursor in a has reached a + bytes (a
 * double-byte character that starts inside compares whole). 0 for bytes
 * below 1. So 0 tells that a starts with those bytes of b. */
FHAPI int32_t StrCompareRange(const char *a, const char *b, int32_t bytes);

/* StrCompareRange with folding. */
FHAPI int32_t StrCompareRangeNoCase(const char *a, const char *b, int32_t bytes);

/* Compares at most count characters. At the first difference it gives the
 * difference of the two character values (not clamped to -1 or 1); after
 * count equal characters 1 if a goes on, else 0. 0 for count below 1. So 0
 * tells that a is exactly those characters of b. */
FHAPI int32_t StrCompareRangeExact(const char *a, const char *b, int32_t count);

/* StrCompareRangeExact with folding. */
FHAPI int32_t StrCompareRangeExactNoCase(const char *a, const char *b, int32_t count);

/* ---- Search ---------------------------------------------------------------
 * Results point into the searched string; null when nothing matches or the
 * string is null. */

/* The first character of string equal to charValue; a search for 0 finds
 * nothing. */
FHAPI char *StrNextCharMatch(const char *string, int32_t charValue);

/* StrNextCharMatch with both sides folded. */
FHAPI char *StrNextCharMatchNoCase(const char *string, int32_t charValue);

/* The first match among the characters that end within the first bytes
 * bytes of string. */
FHAPI char *StrNextCharMatchRange(const char *string, int32_t charValue, int32_t bytes);

/* The last character of string equal to charValue. */
FHAPI char *StrLastCharMatch(const char *string, int32_t charValue);

/* The first occurrence of subString in string; null also for a null or empty
 * subString. */
FHAPI char *StrFindSubString(const char *string, const char *subString);

/* StrFindSubString with folding. */
FHAPI char *StrFindSubStringNoCase(const char *string, const char *subString);

/* The first position whose character is one of the count values in
 * characters; a 0 among them matches the terminator. Null when the
 * terminator is reached unmatched. */
FHAPI char *StrFindVariableDelimiter(const char *string, const int32_t *characters, int32_t count);

/* ---- Copy into the caller's memory ----------------------------------------
 * The target must be large enough; nothing is bounded except by the range
 * given. A null source copies as "". */

/* Copies source with its terminator to target and gives the position of
 * the terminator written; null, with nothing written, for a null target. */
FHAPI char *StrCopy(char *target, const char *source);

/* Copies whole characters while the source cursor is below source + bytes.
 * When the source ends first a terminator is written and its position
 * returned; when the range runs out none is written and the result is the
 * position behind the last character. Null for a null target. */
FHAPI char *StrCopyRange(char *target, const char *source, int32_t bytes);

/* StrCopy to the end of target; same result. */
FHAPI char *StrAppend(char *target, const char *source);

/* StrCopyRange to the end of target; same result. */
FHAPI char *StrAppendRange(char *target, const char *source, int32_t bytes);

/* StrCopy with every oldChar replaced by newChar; same result. The target
 * must hold the source with each replaced character grown to newChar. */
FHAPI char *StrConvertChar(char *target, const char *source, int32_t newChar, int32_t oldChar);

/* Writes charValue repeatedly until target + bytes is reached and gives the
 * position reached; no terminator. A double-byte character that would not
 * fit whole is not written; 0 pads with NUL bytes. Nothing for bytes of 0 or
 * less or a null target. */
FHAPI char *StrPad(char *target, int32_t bytes, int32_t charValue);

/* Strips, in place, every trailing character of string that occurs in set
 * and gives string. A null or empty set changes nothing. */
FHAPI char *StrTerminate(char *string, const char *set);

/* ---- New strings ----------------------------------------------------------
 * The caller owns each result and frees it with MemFreeInternal. */

/* A copy of string from pool (null pool: the heap); null for null. */
FHAPI char *StrDuplicateIntoPool(const char *string, MemPool *pool);

/* StrDuplicateIntoPool, but null also for an empty string. */
FHAPI char *StrDuplicateIntoPoolNullIfEmpty(const char *string, MemPool *pool);

/* A new terminated string from pool holding StrCopyRange of string over
 * bytes (a double-byte character that starts inside is copied whole, so the
 * block has bytes + 2). Null for a null string or negative bytes. */
FHAPI char *StrDuplicateRangeIntoPool(const char *string, MemPool *pool, int32_t bytes);

/* A copy of what comes before the first charValue; the whole string when it
 * does not occur. Null for null. */
FHAPI char *StrDuplicateToChar(const char *string, int32_t charValue);

/* StrDuplicateToChar with the occurrence included. */
FHAPI char *StrDuplicateToCharWithTerm(const char *string, int32_t charValue);

/* A copy of what comes before the last charValue; "" when it does not occur.
 * Null for null. */
FHAPI char *StrDuplicateToLastChar(const char *string, int32_t charValue);

/* StrDuplicateToLastChar with the occurrence included; "" when it does not
 * occur. */
FHAPI char *StrDuplicateToLastCharWithTerm(const char *string, int32_t charValue);

/* A copy of what comes before the first character that is among the count
 * values in characters (a 0 among them matches the terminator); null when
 * none occurs or string is null. */
FHAPI char *StrDuplicateToVariableDelimChar(const char *string, const int32_t *characters, int32_t count);

/* A copy of what comes before the first occurrence of subString; null when
 * it does not occur. A null argument is a caller's fault: traced, then
 * ProcCrash(0), and null. */
FHAPI char *StrDuplicateToSubString(const char *string, const char *subString);

/* StrDuplicateToSubString with folding. */
FHAPI char *StrDuplicateToSubStringNoCase(const char *string, const char *subString);

/* One new string holding every argument in order; the list ends at the
 * first null pointer, which must be a real (char *)0. StrCat(NULL) is "". */
FHAPI char *StrCat(const char *first, ...);

/* Replaces *address by a new string of *address (null counts as "")
 * followed by string, frees the old one and gives the new one. Null, with
 * nothing changed, for a null address. */
FHAPI char *StrJoin(char **address, const char *string);

/* A new string of StrSize(string) * 2 bytes holding string with every
 * oldChar replaced by newChar. Null for null. */
FHAPI char *StrReplaceChar(const char *string, int32_t oldChar, int32_t newChar);

/* Stores at *out a copy of string with 'A' to 'Z' (ToLower) or 'a' to 'z'
 * (ToUpper) folded, and gives it; double-byte characters and bytes above 127
 * stay. Null for a null string (stored) or a null out (nothing stored). */
FHAPI char *StrConvertToLower(char **out, const char *string);
FHAPI char *StrConvertToUpper(char **out, const char *string);

/* ---- Tokens ---------------------------------------------------------------- */

/* Splits string at any character of delimiters, one token a call: a
 * non-null string starts a new walk, null goes on with the last one. The
 * delimiter behind the token is overwritten by a NUL until the next call,
 * which puts it back. Leading and repeated delimiters give empty tokens;
 * null when the string is done. The state lies in the context record, so
 * two walks cannot be interleaved. */
FHAPI char *StrToken(char *string, const char *delimiters);

/* ---- Conversions ------------------------------------------------------------ */

/* "TRUE" gives 1 and "FALSE" 0 in *out, case-insensitive, no blanks. FALSE
 * with *out untouched for anything else or a null out. */
FHAPI BOOL StrToBoolean(const char *string, BOOL *out);

/* Reads a decimal number, with leading white space and a sign, that must
 * end the string. A null string gives 0. FALSE with *out untouched for a
 * null out, trailing characters (blanks too) or a value out of range. */
FHAPI BOOL StrToInteger(const char *string, int32_t *out);

/* StrToInteger for a signed 64-bit value. */
FHAPI BOOL StrToInt64(const char *string, int64_t *out);

/* Store at *out a new string: "TRUE" or "FALSE"; the decimal value; "0x"
 * and the 32-bit pattern in hex; the 64-bit pattern in hex without a prefix;
 * an IPv4 address given in host order as four decimals, most significant
 * first. FALSE, with nothing allocated, for a null out. */
FHAPI BOOL StrFromBoolean(char **out, BOOL value);
FHAPI BOOL StrFromInteger(char **out, int32_t value);
FHAPI BOOL StrFromInt64(char **out, int64_t value);
FHAPI BOOL StrHexFromInteger(char **out, int32_t value);
FHAPI BOOL StrHexFromInt64(char **out, int64_t value);
FHAPI BOOL StrFromIpAddr(char **out, uint32_t address);

/* TRUE when every byte of string is below 0x80; TRUE for null and "". */
FHAPI BOOL StrIsAscii(const char *string);

/* Stores each character value of string as one 16-bit unit, low byte first
 * whatever the host order, until the string ends or limit units are
 * written; no terminator. Gives the bytes written; 0 for a null target. */
FHAPI int32_t StrToUnicode(uint16_t *target, const char *string, int32_t limit);

/* Stores at *out a new string of bytes + 2 made from the 16-bit units
 * (low byte first) in the first bytes of source: a non-zero high byte, then
 * the low byte (a zero unit writes a NUL that counts). A last odd byte is
 * ignored. Gives the bytes written without the terminator; -1, with nothing
 * allocated, for a null out or source or negative bytes. */
FHAPI int32_t StrFromUnicode(char **out, const uint16_t *source, int32_t bytes);

/* ---- Formatting ------------------------------------------------------------ */

/* Formats into target, a buffer of size bytes, and terminates it. FALSE
 * with target untouched for a null target or format or a size below 2
 * (traced). A text that does not fit is cut and terminated, traced, and
 * ProcCrash(0) is called; the result is then FALSE. */
FHAPI BOOL StrFormat(char *target, int32_t size, const char *format, ...) __attribute__((format(printf, 3, 4)));
FHAPI BOOL StrFormatVa(char *target, int32_t size, const char *format, va_list arguments)
    __attribute__((format(printf, 3, 0)));

/* ---- Regular expressions --------------------------------------------------- */

/* Stores at *out a new regular expression for a shell-like wildcard pattern:
 * '*' becomes ".*", '?' becomes ".", the other operators are escaped, and
 * anchored 1 adds "^" and "$". The quote character (0 for none) makes the
 * next character literal, or a control character for n, r, t, f and b.
 * Always TRUE; a null out stores nothing, a null pattern counts as "". */
FHAPI BOOL StrBuildRegExpLiteralWithQuoting(char **out, const char *pattern, BOOL anchored, int32_t quote);

/* StrBuildRegExpLiteralWithQuoting without a quote character. */
FHAPI BOOL StrBuildRegExpLiteral(char **out, const char *pattern, BOOL anchored);

/* StrBuildRegExpLiteral, not anchored. */
FHAPI BOOL StrBuildRegExp(char **out, const char *pattern);

/* ---- The module's part of the context ladder --------------------------------
 * Initialize traces and gives TRUE; the others do nothing. */
FHAPI BOOL StrBaseInitialize(void);
FHAPI BOOL StrBaseInitializeThread(LmContext *context);
FHAPI void StrBaseReleaseThread(LmContext *context);

FH_END_DECLS

#endif /* FHCORE_STRBASE_H */
