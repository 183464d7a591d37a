/*
 * msgcmgr.h - the messages of the communication manager,
 * which carries messages between the processes of a machine and tells them
 * when a process or a machine can no longer be reached.
 */
#ifndef FHCORE_MESSAGES_MSGCMGR_H
#define FHCORE_MESSAGES_MSGCMGR_H

#include "msgfamily.h"

/* The communication manager: 1100 to 1104. */
#define FH_MSG_FAMILY_CMGR(FIRST, NAME, SKIP)                                                                          \
    FIRST(CMGR_REQUEST_MESSAGE_MSG, 1100)                                                                              \
    NAME(CMGR_NO_MESSAGES_MSG)                                                                                         \
    NAME(CMGR_PROCESS_UNREACHABLE_MSG)                                                                                 \
    NAME(CMGR_MACHINE_DOWN_MSG)                                                                                        \
    NAME(CMGR_DROPPED_CHANNEL_MSG)

FH_MSG_DECLARE_FAMILY(FH_MSG_FAMILY_CMGR)

/* The body of CMGR_PROCESS_UNREACHABLE_MSG: the address (MSG_ADDRESS) that
 * could not be reached, and the type of the message that was lost. */
#define CMGR_PROCESS_UNREACHABLE_MAGIC 0xCA3B6D11u
#define CMGR_PROCESS_UNREACHABLE_FORMAT "o;i;"
typedef struct CMGR_PROCESS_UNREACHABLE {
    void *oAddress;
    int32_t iMsgType;
} CMGR_PROCESS_UNREACHABLE;

/* The body of CMGR_MACHINE_DOWN_MSG: the name of the machine. */
#define CMGR_MACHINE_DOWN_MAGIC 0xCA3B6D12u
#define CMGR_MACHINE_DOWN_FORMAT "s;"
typedef struct CMGR_MACHINE_DOWN {
    char *pszMachine;
} CMGR_MACHINE_DOWN;

#endif /* FHCORE_MESSAGES_MSGCMGR_H */
