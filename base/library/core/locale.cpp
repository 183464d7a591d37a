// locale.cpp - translatable texts by catalogue number.
//
// A look-up goes to the catalogue of the current language and falls back to
// the built-in text. Reading catalogues, and so any language but the
// built-in one, comes with the log layer; until then the module has no
// state and every look-up gives the built-in text.
#include "core/locale.h"

#include "core/context.h"

const char *LocaleGetStaticString(const char *text, int32_t) { return text != nullptr ? text : ""; }

BOOL LocaleInitialize(void) { return TRUE; }
BOOL LocaleInitializeThread(void) { return TRUE; }
void LocaleReleaseThread(LmContext *) {}
