/*
 * msgcfgserver.h - the messages of the configuration server,
 * which reads and writes settings for another machine.
 */
#ifndef FHCORE_MESSAGES_MSGCFGSERVER_H
#define FHCORE_MESSAGES_MSGCFGSERVER_H

#include "msgfamily.h"

/* The configuration server: 4701 and 4702. */
#define FH_MSG_FAMILY_CFG_SVR(FIRST, NAME, SKIP)                                                                       \
    FIRST(CFG_SVR_CONFIG_REQUEST_MSG, 4701)                                                                            \
    NAME(CFG_SVR_CONFIG_REPLY_MSG)

FH_MSG_DECLARE_FAMILY(FH_MSG_FAMILY_CFG_SVR)

#endif /* FHCORE_MESSAGES_MSGCFGSERVER_H */
