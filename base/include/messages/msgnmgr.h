/*
 * msgnmgr.h - the messages of the network manager, which
 * knows the machines of the system: their details, their state and their
 * security.
 */
#ifndef FHCORE_MESSAGES_MSGNMGR_H
#define FHCORE_MESSAGES_MSGNMGR_H

#include "msgfamily.h"

/* The network manager: 1304 to 1325. */
#define FH_MSG_FAMILY_NMGR(FIRST, NAME, SKIP)                                                                          \
    FIRST(NMGR_CONNECTION_DROPPED_MSG, 1304)                                                                           \
    NAME(NMGR_MACHINE_INFORMATION_MSG)                                                                                 \
    NAME(NMGR_MACHINE_STATUS_REQUEST_MSG)                                                                              \
    NAME(NMGR_MACHINE_STATUS_RESULTS_MSG)                                                                              \
    NAME(NMGR_MACHINE_UNREACHABLE_MSG)                                                                                 \
    NAME(NMGR_MACHINE_NAME_REQUEST_MSG)                                                                                \
    NAME(NMGR_MACHINE_NAME_RESULT_MSG)                                                                                 \
    NAME(NMGR_GET_DETAILS_MACHINE_MSG)                                                                                 \
    NAME(NMGR_GET_DETAILS_MACHINE_RESULT_MSG)                                                                          \
    NAME(NMGR_GET_DETAILS_ALL_MACHINES_MSG)                                                                            \
    NAME(NMGR_GET_DETAILS_ALL_MACHINES_RESULT_MSG)                                                                     \
    NAME(NMGR_SET_MACHINE_SECURITY_MSG)                                                                                \
    NAME(NMGR_MACHINE_REMOVE_REQUEST_MSG)                                                                              \
    NAME(NMGR_MACHINE_REMOVE_RESULT_MSG)                                                                               \
    NAME(NMGR_GET_CURRENT_MACHINE_DETAILS_REQUEST_MSG)                                                                 \
    NAME(NMGR_GET_CURRENT_MACHINE_DETAILS_RESPONSE_MSG)                                                                \
    NAME(NMGR_MACHINE_UP_MSG)                                                                                          \
    NAME(NMGR_MACHINE_DOWN_MSG)                                                                                        \
    NAME(NMGR_MACHINE_PING_REQUEST_MSG)                                                                                \
    NAME(NMGR_MACHINE_PING_RESPONSE_MSG)                                                                               \
    NAME(NMGR_CREATE_CLUSTERED_MACHINE_REQUEST_MSG)                                                                    \
    NAME(NMGR_CREATE_CLUSTERED_MACHINE_RESPONSE_MSG)

FH_MSG_DECLARE_FAMILY(FH_MSG_FAMILY_NMGR)

/* The body of NMGR_MACHINE_UNREACHABLE_MSG: the machine and its id, the
 * type of the message that could not be delivered, and that message's
 * body. The message layer reads the last two fields only. */
#define NMGR_MACHINE_UNREACHABLE_MAGIC 0xCA3B6E15u
#define NMGR_MACHINE_UNREACHABLE_FORMAT "s;i;i;o;"
typedef struct NMGR_MACHINE_UNREACHABLE {
    char *pszMachine;
    int32_t iMachine;
    int32_t iMsgType;
    void *oObject;
} NMGR_MACHINE_UNREACHABLE;

/* The request of NMGR_GET_CURRENT_MACHINE_DETAILS_REQUEST_MSG: the name of
 * the machine whose details the network manager is to bring up to date, and
 * an object it doesn't read (null). */
#define NMGR_GET_CURRENT_MACHINE_DETAILS_REQUEST_MAGIC 0xC93EAADEu
#define NMGR_GET_CURRENT_MACHINE_DETAILS_REQUEST_FORMAT "s;o;"
typedef struct NMGR_GET_CURRENT_MACHINE_DETAILS_REQUEST {
    char *pszMachine;
    void *oReserved;
} NMGR_GET_CURRENT_MACHINE_DETAILS_REQUEST;

/* Its answer, NMGR_GET_CURRENT_MACHINE_DETAILS_RESPONSE_MSG: whether the
 * machine is known, and its name. When it comes, the machine's stanza in
 * "etc/machines.dat" is current. */
#define NMGR_GET_CURRENT_MACHINE_DETAILS_RESPONSE_MAGIC 0xC93EAB54u
#define NMGR_GET_CURRENT_MACHINE_DETAILS_RESPONSE_FORMAT "b;s;"
typedef struct NMGR_GET_CURRENT_MACHINE_DETAILS_RESPONSE {
    BOOL bKnown;
    char *pszMachine;
} NMGR_GET_CURRENT_MACHINE_DETAILS_RESPONSE;

#endif /* FHCORE_MESSAGES_MSGNMGR_H */
