/*
 * strparse.h - skipping blanks and tokens in a string.
 *
 * Nothing is moved or copied: each operation gives a position in the string
 * it was handed. The forward forms stop at the terminator; the backward
 * forms have nothing to stop them, so the caller must know that a non-blank
 * stands before the position.
 */
#ifndef FHCORE_STRPARSE_H
#define FHCORE_STRPARSE_H

#include "types.h"

FH_BEGIN_DECLS

/* The first position at or after position that holds neither a space nor a
 * tab (nor a line feed or carriage return, for the EOL form). */
FHAPI char *StrSkipWhiteSpaceF(const char *position);
FHAPI char *StrSkipWhiteSpaceEOLF(const char *position);

/* The nearest position at or before position that holds neither a space nor
 * a tab (nor a line feed or carriage return), stepping back by characters. */
FHAPI char *StrSkipWhiteSpaceB(const char *position);
FHAPI char *StrSkipWhiteSpaceEOLB(const char *position);

/* The first position at or after position that holds no ASCII letter or digit. */
FHAPI char *StrSkipTokenF(const char *position);

/* The number of ASCII letters and digits from position on (traced). */
FHAPI int32_t StrGetTokenCharCount(const char *position);

FH_END_DECLS

#endif /* FHCORE_STRPARSE_H */
