/*
 * objviewinfo.h - the view information that an object may carry as its
 * first component (letter v): a word, a string and a stanza.
 */
#ifndef FHCORE_OBJVIEWINFO_H
#define FHCORE_OBJVIEWINFO_H

#include "types.h"

FH_BEGIN_DECLS

typedef struct Stanza Stanza;

typedef struct ObjViewInfo {
    int32_t iWord;
    char *pszString;  /* owned by the object */
    Stanza *pStanza;  /* owned by the object */
} ObjViewInfo;

FH_END_DECLS

#endif /* FHCORE_OBJVIEWINFO_H */
