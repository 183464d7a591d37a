/*
 * msgfamily.h - how a family's list of message names becomes its ids.
 *
 * Every message carries a 32-bit type id; the meaning of an id is shared by
 * all processes on all machines, so ids never move. Each family header holds
 * its names as one list macro, FH_MSG_FAMILY_<family>(FIRST, NAME, SKIP), in
 * id order:
 *
 *   FIRST(name, id)     the family's first name and its id;
 *   NAME(name)          the next id, one above the one before;
 *   SKIP(first, last)   ids from first to last that are not assigned.
 *
 * The list is the one source of the ids. FH_MSG_DECLARE_FAMILY makes enum
 * constants of it here; the library expands the same lists into its table of
 * names (MsgNameWithBuffer, MsgTypeFromName). A gap leaves two constants
 * fhMsgUnassigned<first> and fhMsgUnassignedTo<last> behind: they name no
 * message and are only there to step over the gap.
 */
#ifndef FHCORE_MESSAGES_MSGFAMILY_H
#define FHCORE_MESSAGES_MSGFAMILY_H

#define FH_MSG_ENUM_FIRST(name, id) name = (id),
#define FH_MSG_ENUM_NAME(name) name,
#define FH_MSG_ENUM_SKIP(first, last)                                                                                  \
    fhMsgUnassigned##first, fhMsgUnassignedTo##last = fhMsgUnassigned##first + ((last) - (first)),

/* The enum constants of a family list. */
#define FH_MSG_DECLARE_FAMILY(family) enum { family(FH_MSG_ENUM_FIRST, FH_MSG_ENUM_NAME, FH_MSG_ENUM_SKIP) };

#endif /* FHCORE_MESSAGES_MSGFAMILY_H */
