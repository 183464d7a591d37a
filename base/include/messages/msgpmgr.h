/*
 * msgpmgr.h - the messages of the process manager.
 *
 * Process state, tasks for services, notice of death, shared memory and
 * start of day, between a process and the process manager of its machine.
 */
#ifndef FHCORE_MESSAGES_MSGPMGR_H
#define FHCORE_MESSAGES_MSGPMGR_H

#include "msgfamily.h"

/* The process manager: 1000 to 1044. */
#define FH_MSG_FAMILY_PMGR(FIRST, NAME, SKIP)                                                                          \
    FIRST(PMGR_KILL_YOURSELF_MSG, 1000)                                                                                \
    NAME(PMGR_KILL_PROCESS_MSG)                                                                                        \
    NAME(PMGR_GIVE_SERVICE_A_TASK_MSG)                                                                                 \
    NAME(PMGR_GIVE_SERVICE_A_TASK_RETURN_MSG)                                                                          \
    NAME(PMGR_PROCESS_STATUS_MSG)                                                                                      \
    NAME(PMGR_NOTIFY_ON_DEATH_MSG)                                                                                     \
    NAME(PMGR_PROCESS_DIED_MSG)                                                                                        \
    NAME(PMGR_GET_PROCESS_STATE_MSG)                                                                                   \
    NAME(PMGR_GET_PROCESS_STATE_RETURN_MSG)                                                                            \
    NAME(PMGR_ATTACH_TO_SHM_MSG)                                                                                       \
    NAME(PMGR_TASK_MSG)                                                                                                \
    NAME(PMGR_OK_TO_DIE_MSG)                                                                                           \
    NAME(PMGR_REGISTER_FILE_MSG)                                                                                       \
    NAME(PMGR_DELETE_FILE_MSG)                                                                                         \
    NAME(PMGR_REGISTER_PROCESS_MSG)                                                                                    \
    SKIP(1015, 1015)                                                                                                   \
    NAME(PMGR_ACCEPTING_MESSAGES_MSG)                                                                                  \
    NAME(PMGR_CONNECTION_DROPPED_MSG)                                                                                  \
    SKIP(1018, 1018)                                                                                                   \
    NAME(PMGR_ATTACH_TO_PROGRESS_MSG)                                                                                  \
    NAME(PMGR_ATTACH_RESULT_MSG)                                                                                       \
    NAME(PMGR_DETACH_FROM_PROGRESS_MSG)                                                                                \
    NAME(PMGR_READY_MSG)                                                                                               \
    NAME(PMGR_SHUTDOWN_MSG)                                                                                            \
    NAME(PMGR_CHANGE_FROM_READY_MSG)                                                                                   \
    NAME(PMGR_CHANGE_FROM_READY_RETURN_MSG)                                                                            \
    NAME(PMGR_ABORT_ADOPT_MSG)                                                                                         \
    SKIP(1027, 1028)                                                                                                   \
    NAME(PMGR_SET_LOCALE_MSG)                                                                                          \
    NAME(PMGR_REGISTER_UNIX_SEM_MSG)                                                                                   \
    NAME(PMGR_UNREGISTER_UNIX_SEM_MSG)                                                                                 \
    SKIP(1032, 1033)                                                                                                   \
    NAME(PMGR_BECOME_CLIENT_REQUEST_MSG)                                                                               \
    NAME(PMGR_BECOME_CLIENT_RESPONSE_MSG)                                                                              \
    NAME(PMGR_DISASSOCIATE_CLIENT_REQUEST_MSG)                                                                         \
    NAME(PMGR_DISASSOCIATE_CLIENT_RESPONSE_MSG)                                                                        \
    NAME(PMGR_UTC_REQUEST_MSG)                                                                                         \
    NAME(PMGR_UTC_RESPONSE_MSG)                                                                                        \
    NAME(PMGR_PROCESS_INITIAL_STATUS_MSG)                                                                              \
    NAME(PMGR_START_OF_DAY_READY_MSG)                                                                                  \
    NAME(PMGR_SET_MACHINE_DESCRIPTION_REQUEST_MSG)                                                                     \
    NAME(PMGR_SET_MACHINE_DESCRIPTION_RESPONSE_MSG)                                                                    \
    NAME(PMGR_CANCEL_NOTIFY_ON_DEATH_MSG)

FH_MSG_DECLARE_FAMILY(FH_MSG_FAMILY_PMGR)

/* The body of PMGR_ATTACH_TO_SHM_MSG: the id of the main segment, the id
 * of the process table segment, and the offsets in the main segment of the
 * process's entry, its progress buffer (0: none) and the time area. */
#define PMGR_ATTACH_TO_UNIX_SHM_MAGIC 0xC9C6BE54u
#define PMGR_ATTACH_TO_UNIX_SHM_FORMAT "i;i;i;i;i;"
typedef struct PMGR_ATTACH_TO_UNIX_SHM {
    int32_t iMainSegment;
    int32_t iTableSegment;
    int32_t iEntryOffset;
    int32_t iProgressOffset;
    int32_t iTimeOffset;
} PMGR_ATTACH_TO_UNIX_SHM;

#endif /* FHCORE_MESSAGES_MSGPMGR_H */
