/*
 * msglogdaemon.h - the messages of the log daemon: log records,
 * requests for entries, dumps, purges and the backup of the logs.
 */
#ifndef FHCORE_MESSAGES_MSGLOGDAEMON_H
#define FHCORE_MESSAGES_MSGLOGDAEMON_H

#include "msgfamily.h"

/* The log daemon: 2600 to 2622. */
#define FH_MSG_FAMILY_LOGD(FIRST, NAME, SKIP)                                                                          \
    FIRST(LOGD_LOG_MSG, 2600)                                                                                          \
    NAME(LOGD_REQUEST_ENTRIES_MSG)                                                                                     \
    NAME(LOGD_END_OF_REQUEST_MSG)                                                                                      \
    NAME(LOGD_GOING_LIVE_MSG)                                                                                          \
    NAME(LOGD_CANCEL_REQUEST_MSG)                                                                                      \
    NAME(LOGD_DUMP_ENTRIES_MSG)                                                                                        \
    NAME(LOGD_DUMP_RETURN_MSG)                                                                                         \
    NAME(LOGD_LIST_DUMPS_MSG)                                                                                          \
    NAME(LOGD_LIST_OF_DUMPS_MSG)                                                                                       \
    NAME(LOGD_PURGE_ENTRIES_MSG)                                                                                       \
    NAME(LOGD_PURGE_ENTRIES_REPLY_MSG)                                                                                 \
    NAME(LOGD_DUMP_PROCEED_MSG)                                                                                        \
    NAME(LOGD_SET_EVENT_SCREEN_MSG)                                                                                    \
    NAME(LOGD_SET_EVENT_SCREEN_FINISHED_MSG)                                                                           \
    NAME(LOGD_START_BACKUP_LOGEVENTS_MSG)                                                                              \
    NAME(LOGD_START_BACKUP_LOGEVENTS_REPLY_MSG)                                                                        \
    NAME(LOGD_FINISHED_BACKUP_LOGEVENTS_MSG)                                                                           \
    NAME(LOGD_FINISHED_RESTORE_LOGEVENTS_MSG)                                                                          \
    NAME(LOGD_START_BACKUP_LOGS_MSG)                                                                                   \
    NAME(LOGD_START_BACKUP_LOGS_REPLY_MSG)                                                                             \
    NAME(LOGD_FINISHED_BACKUP_LOGS_MSG)                                                                                \
    NAME(LOGD_CLI_REQUEST_MSG)                                                                                         \
    NAME(LOGD_CLI_REPLY_MSG)

FH_MSG_DECLARE_FAMILY(FH_MSG_FAMILY_LOGD)

#endif /* FHCORE_MESSAGES_MSGLOGDAEMON_H */
