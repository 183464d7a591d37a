/*
 * msgcatalogue.h - every family of message ids, in ascending order of ids.
 *
 * FH_MSG_CATALOGUE(FIRST, NAME, SKIP) runs through the family lists of the
 * other headers here (msgfamily.h tells the three row kinds), so that a
 * table of all names can be expanded from the one list: the library's own,
 * and a tool's that wants one.
 */
#ifndef FHCORE_MESSAGES_MSGCATALOGUE_H
#define FHCORE_MESSAGES_MSGCATALOGUE_H

#include "interfaces.h"
#include "msgcfgserver.h"
#include "msgcmgr.h"
#include "msglogdaemon.h"
#include "msgmsg.h"
#include "msgnmgr.h"
#include "msgpmgr.h"
#include "msgtimer.h"
#include "msgtrace.h"

#define FH_MSG_CATALOGUE(FIRST, NAME, SKIP)                                                                            \
    FH_MSG_FAMILY_CHANNEL_STATUS(FIRST, NAME, SKIP)                                                                    \
    FH_MSG_FAMILY_PMGR(FIRST, NAME, SKIP)                                                                              \
    FH_MSG_FAMILY_CMGR(FIRST, NAME, SKIP)                                                                              \
    FH_MSG_FAMILY_NMGR(FIRST, NAME, SKIP)                                                                              \
    FH_MSG_FAMILY_PLUGIN(FIRST, NAME, SKIP)                                                                            \
    FH_MSG_FAMILY_LOGD(FIRST, NAME, SKIP)                                                                              \
    FH_MSG_FAMILY_CHANNEL(FIRST, NAME, SKIP)                                                                           \
    FH_MSG_FAMILY_DB(FIRST, NAME, SKIP)                                                                                \
    FH_MSG_FAMILY_NDMP(FIRST, NAME, SKIP)                                                                              \
    FH_MSG_FAMILY_CFG_SVR(FIRST, NAME, SKIP)                                                                           \
    FH_MSG_FAMILY_TIMER(FIRST, NAME, SKIP)                                                                             \
    FH_MSG_FAMILY_TRACE(FIRST, NAME, SKIP)                                                                             \
    FH_MSG_FAMILY_NDMP_SNAP(FIRST, NAME, SKIP)                                                                         \
    FH_MSG_FAMILY_FH(FIRST, NAME, SKIP)                                                                                \
    FH_MSG_FAMILY_NDMP_FHS(FIRST, NAME, SKIP)

#endif /* FHCORE_MESSAGES_MSGCATALOGUE_H */
