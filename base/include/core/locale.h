/*
 * locale.h - translatable texts.
 *
 * Every text that the system shows to a user has a catalogue number beside
 * its built-in text. Callers hand in both and get the translation of the
 * current language, or the built-in text. Until catalogues are read, the
 * built-in language is the only one, and every look-up gives the built-in
 * text.
 */
#ifndef FHCORE_LOCALE_H
#define FHCORE_LOCALE_H

#include "types.h"

FH_BEGIN_DECLS

/* The text of number in the current language, else text itself; "" for a
 * null text. Nothing is copied: the result lives as long as the language's
 * catalogue, or as the caller's text. */
FHAPI const char *LocaleGetStaticString(const char *text, int32_t number);

/* The module's part of the context ladder. */
FHAPI BOOL LocaleInitialize(void);
FHAPI BOOL LocaleInitializeThread(void);
FHAPI void LocaleReleaseThread(LmContext *context);

FH_END_DECLS

#endif /* FHCORE_LOCALE_H */
