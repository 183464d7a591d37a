/*
 * interfaces.h - the messages of the applications.
 *
 * The families that no header of a manager or daemon holds are declared here:
 * plug-ins (PLUGIN_), the database stream (DB_), NDMP (NDMP_) with its
 * snapshot extension (NDMP_SNAP_), replication (FH_) and the replication
 * extension of NDMP (NDMP_FHS_ and NDMP_FHP_). The library passes these ids
 * through untouched and knows only their names; the applications give them
 * their meaning.
 */
#ifndef FHCORE_MESSAGES_INTERFACES_H
#define FHCORE_MESSAGES_INTERFACES_H

#include "msgfamily.h"

/* Plug-ins: 1700 to 1726. */
#define FH_MSG_FAMILY_PLUGIN(FIRST, NAME, SKIP)                                                                        \
    FIRST(PLUGIN_LISTENING_MSG, 1700)                                                                                  \
    NAME(PLUGIN_DO_ACTION_MSG)                                                                                         \
    NAME(PLUGIN_PROCESS_SCREEN_MSG)                                                                                    \
    NAME(PLUGIN_CANCEL_MSG)                                                                                            \
    NAME(PLUGIN_CANCEL_REPLY_MSG)                                                                                      \
    NAME(PLUGIN_PROGRESS_MSG)                                                                                          \
    NAME(PLUGIN_UPDATE_TREE_MSG)                                                                                       \
    NAME(PLUGIN_DISPLAY_SCREEN_MSG)                                                                                    \
    NAME(PLUGIN_UPDATE_SCREEN_MSG)                                                                                     \
    NAME(PLUGIN_CLOSE_SCREEN_MSG)                                                                                      \
    NAME(PLUGIN_CLOSE_SCREEN_KEEP_CONNECTION_MSG)                                                                      \
    NAME(PLUGIN_SCREEN_CALLBACK_MSG)                                                                                   \
    SKIP(1712, 1712)                                                                                                   \
    NAME(PLUGIN_JOB_FAILED_MSG)                                                                                        \
    NAME(PLUGIN_PROXY_FAILED_MSG)                                                                                      \
    NAME(PLUGIN_ERROR_MSG)                                                                                             \
    NAME(PLUGIN_OPTIONS_SCREEN_MSG)                                                                                    \
    NAME(PLUGIN_DISPLAY_DISPOSABLE_SCREEN_MSG)                                                                         \
    NAME(PLUGIN_INWINDOW_SCREEN_MSG)                                                                                   \
    NAME(PLUGIN_UPDATE_TREE_KEEP_CONNECTION_MSG)                                                                       \
    NAME(PLUGIN_UPDATE_PIT_MSG)                                                                                        \
    NAME(PLUGIN_STANZA_SCREEN_MSG)                                                                                     \
    NAME(PLUGIN_UPDATE_STANZA_SCREEN_MSG)                                                                              \
    NAME(PLUGIN_STANZA_SCREEN_CALLBACK_MSG)                                                                            \
    NAME(PLUGIN_DROP_LINGERED_CONNECTIONS_MSG)                                                                         \
    NAME(PLUGIN_UPDATE_PLUGIN_LOCALE_MSG)                                                                              \
    NAME(PLUGIN_ERROR_KEEP_CONNECTION_MSG)

FH_MSG_DECLARE_FAMILY(FH_MSG_FAMILY_PLUGIN)

/* The database stream: 2801 to 2814. */
#define FH_MSG_FAMILY_DB(FIRST, NAME, SKIP)                                                                            \
    FIRST(DB_BACKUP_SIZE_MSG, 2801)                                                                                    \
    NAME(DB_RESTORE_START_MSG)                                                                                         \
    NAME(DB_DATABASE_ERROR_MSG)                                                                                        \
    NAME(DB_DATABASE_BUSY_MSG)                                                                                         \
    NAME(DB_BACKUP_REQUEST_MSG)                                                                                        \
    NAME(DB_RESTORE_STATUS_MSG)                                                                                        \
    NAME(DB_GOT_END_MARKER_MSG)                                                                                        \
    SKIP(2808, 2809)                                                                                                   \
    NAME(DB_DATABASE_MSG)                                                                                              \
    NAME(DB_TABLE_MSG)                                                                                                 \
    NAME(DB_RECORD_MSG)                                                                                                \
    NAME(DB_FILE_DATA_MSG)                                                                                             \
    NAME(DB_END_MARKER_MSG)

FH_MSG_DECLARE_FAMILY(FH_MSG_FAMILY_DB)

/* NDMP: 3000 to 3126. */
#define FH_MSG_FAMILY_NDMP(FIRST, NAME, SKIP)                                                                          \
    FIRST(NDMP_NOT_SUPPORTED_MSG, 3000)                                                                                \
    NAME(NDMP_CONNECT_OPEN_REQUEST_MSG)                                                                                \
    NAME(NDMP_CONNECT_OPEN_REPLY_MSG)                                                                                  \
    NAME(NDMP_CONNECT_CLIENT_AUTH_REQUEST_MSG)                                                                         \
    NAME(NDMP_CONNECT_CLIENT_AUTH_REPLY_MSG)                                                                           \
    NAME(NDMP_CONNECT_CLOSE_REQUEST_MSG)                                                                               \
    NAME(NDMP_CONNECT_CLOSE_REPLY_MSG)                                                                                 \
    NAME(NDMP_CONNECT_SERVER_AUTH_REQUEST_MSG)                                                                         \
    NAME(NDMP_CONNECT_SERVER_AUTH_REPLY_MSG)                                                                           \
    NAME(NDMP_CONFIG_GET_HOST_INFO_REQUEST_MSG)                                                                        \
    NAME(NDMP_CONFIG_GET_HOST_INFO_REPLY_MSG)                                                                          \
    NAME(NDMP_CONFIG_GET_CONNECTION_TYPE_REQUEST_MSG)                                                                  \
    NAME(NDMP_CONFIG_GET_CONNECTION_TYPE_REPLY_MSG)                                                                    \
    NAME(NDMP_CONFIG_GET_AUTH_ATTR_REQUEST_MSG)                                                                        \
    NAME(NDMP_CONFIG_GET_AUTH_ATTR_REPLY_MSG)                                                                          \
    NAME(NDMP_CONFIG_GET_BUTYPE_INFO_REQUEST_MSG)                                                                      \
    NAME(NDMP_CONFIG_GET_BUTYPE_INFO_REPLY_MSG)                                                                        \
    NAME(NDMP_CONFIG_GET_FS_INFO_REQUEST_MSG)                                                                          \
    NAME(NDMP_CONFIG_GET_FS_INFO_REPLY_MSG)                                                                            \
    NAME(NDMP_CONFIG_GET_TAPE_INFO_REQUEST_MSG)                                                                        \
    NAME(NDMP_CONFIG_GET_TAPE_INFO_REPLY_MSG)                                                                          \
    NAME(NDMP_CONFIG_GET_SCSI_INFO_REQUEST_MSG)                                                                        \
    NAME(NDMP_CONFIG_GET_SCSI_INFO_REPLY_MSG)                                                                          \
    NAME(NDMP_CONFIG_GET_SERVER_INFO_REQUEST_MSG)                                                                      \
    NAME(NDMP_CONFIG_GET_SERVER_INFO_REPLY_MSG)                                                                        \
    NAME(NDMP_SCSI_OPEN_REQUEST_MSG)                                                                                   \
    NAME(NDMP_SCSI_OPEN_REPLY_MSG)                                                                                     \
    NAME(NDMP_SCSI_CLOSE_REQUEST_MSG)                                                                                  \
    NAME(NDMP_SCSI_CLOSE_REPLY_MSG)                                                                                    \
    NAME(NDMP_SCSI_GET_STATE_REQUEST_MSG)                                                                              \
    NAME(NDMP_SCSI_GET_STATE_REPLY_MSG)                                                                                \
    NAME(NDMP_SCSI_SET_TARGET_REQUEST_MSG)                                                                             \
    NAME(NDMP_SCSI_SET_TARGET_REPLY_MSG)                                                                               \
    NAME(NDMP_SCSI_RESET_DEVICE_REQUEST_MSG)                                                                           \
    NAME(NDMP_SCSI_RESET_DEVICE_REPLY_MSG)                                                                             \
    NAME(NDMP_SCSI_RESET_BUS_REQUEST_MSG)                                                                              \
    NAME(NDMP_SCSI_RESET_BUS_REPLY_MSG)                                                                                \
    NAME(NDMP_EXECUTE_CDB_REQUEST_MSG)                                                                                 \
    NAME(NDMP_EXECUTE_CDB_REPLY_MSG)                                                                                   \
    NAME(NDMP_TAPE_OPEN_REQUEST_MSG)                                                                                   \
    NAME(NDMP_TAPE_OPEN_REPLY_MSG)                                                                                     \
    NAME(NDMP_TAPE_CLOSE_REQUEST_MSG)                                                                                  \
    NAME(NDMP_TAPE_CLOSE_REPLY_MSG)                                                                                    \
    NAME(NDMP_TAPE_GET_STATE_REQUEST_MSG)                                                                              \
    NAME(NDMP_TAPE_GET_STATE_REPLY_MSG)                                                                                \
    NAME(NDMP_TAPE_MTIO_REQUEST_MSG)                                                                                   \
    NAME(NDMP_TAPE_MTIO_REPLY_MSG)                                                                                     \
    NAME(NDMP_TAPE_WRITE_REQUEST_MSG)                                                                                  \
    NAME(NDMP_TAPE_WRITE_REPLY_MSG)                                                                                    \
    NAME(NDMP_TAPE_READ_REQUEST_MSG)                                                                                   \
    NAME(NDMP_TAPE_READ_REPLY_MSG)                                                                                     \
    SKIP(3051, 3052)                                                                                                   \
    NAME(NDMP_DATA_GET_STATE_REQUEST_MSG)                                                                              \
    NAME(NDMP_DATA_GET_STATE_REPLY_MSG)                                                                                \
    NAME(NDMP_DATA_START_BACKUP_REQUEST_MSG)                                                                           \
    NAME(NDMP_DATA_START_BACKUP_REPLY_MSG)                                                                             \
    NAME(NDMP_DATA_START_RECOVER_REQUEST_MSG)                                                                          \
    NAME(NDMP_DATA_START_RECOVER_REPLY_MSG)                                                                            \
    NAME(NDMP_DATA_ABORT_REQUEST_MSG)                                                                                  \
    NAME(NDMP_DATA_ABORT_REPLY_MSG)                                                                                    \
    NAME(NDMP_DATA_GET_ENV_REQUEST_MSG)                                                                                \
    NAME(NDMP_DATA_GET_ENV_REPLY_MSG)                                                                                  \
    NAME(NDMP_DATA_STOP_REQUEST_MSG)                                                                                   \
    NAME(NDMP_DATA_STOP_REPLY_MSG)                                                                                     \
    NAME(NDMP_DATA_LISTEN_REQUEST_MSG)                                                                                 \
    NAME(NDMP_DATA_LISTEN_REPLY_MSG)                                                                                   \
    NAME(NDMP_DATA_CONNECT_REQUEST_MSG)                                                                                \
    NAME(NDMP_DATA_CONNECT_REPLY_MSG)                                                                                  \
    NAME(NDMP_NOTIFY_DATA_HALTED_POST_MSG)                                                                             \
    SKIP(3070, 3070)                                                                                                   \
    NAME(NDMP_NOTIFY_CONNECTED_POST_MSG)                                                                               \
    SKIP(3072, 3072)                                                                                                   \
    NAME(NDMP_NOTIFY_MOVER_HALTED_POST_MSG)                                                                            \
    SKIP(3074, 3074)                                                                                                   \
    NAME(NDMP_NOTIFY_MOVER_PAUSED_POST_MSG)                                                                            \
    SKIP(3076, 3076)                                                                                                   \
    NAME(NDMP_NOTIFY_DATA_READ_POST_MSG)                                                                               \
    SKIP(3078, 3078)                                                                                                   \
    NAME(NDMP_LOG_FILE_POST_MSG)                                                                                       \
    SKIP(3080, 3080)                                                                                                   \
    NAME(NDMP_LOG_MESSAGE_POST_MSG)                                                                                    \
    SKIP(3082, 3082)                                                                                                   \
    NAME(NDMP_FH_ADD_FILE_POST_MSG)                                                                                    \
    SKIP(3084, 3084)                                                                                                   \
    NAME(NDMP_FH_ADD_DIR_POST_MSG)                                                                                     \
    SKIP(3086, 3086)                                                                                                   \
    NAME(NDMP_FH_ADD_NODE_POST_MSG)                                                                                    \
    SKIP(3088, 3088)                                                                                                   \
    NAME(NDMP_MOVER_GET_STATE_REQUEST_MSG)                                                                             \
    NAME(NDMP_MOVER_GET_STATE_REPLY_MSG)                                                                               \
    NAME(NDMP_MOVER_LISTEN_REQUEST_MSG)                                                                                \
    NAME(NDMP_MOVER_LISTEN_REPLY_MSG)                                                                                  \
    NAME(NDMP_MOVER_CONTINUE_REQUEST_MSG)                                                                              \
    NAME(NDMP_MOVER_CONTINUE_REPLY_MSG)                                                                                \
    NAME(NDMP_MOVER_ABORT_REQUEST_MSG)                                                                                 \
    NAME(NDMP_MOVER_ABORT_REPLY_MSG)                                                                                   \
    NAME(NDMP_MOVER_STOP_REQUEST_MSG)                                                                                  \
    NAME(NDMP_MOVER_STOP_REPLY_MSG)                                                                                    \
    NAME(NDMP_MOVER_SET_WINDOW_REQUEST_MSG)                                                                            \
    NAME(NDMP_MOVER_SET_WINDOW_REPLY_MSG)                                                                              \
    NAME(NDMP_MOVER_READ_REQUEST_MSG)                                                                                  \
    NAME(NDMP_MOVER_READ_REPLY_MSG)                                                                                    \
    NAME(NDMP_MOVER_CLOSE_REQUEST_MSG)                                                                                 \
    NAME(NDMP_MOVER_CLOSE_REPLY_MSG)                                                                                   \
    NAME(NDMP_MOVER_SET_RECORD_SIZE_REQUEST_MSG)                                                                       \
    NAME(NDMP_MOVER_SET_RECORD_SIZE_REPLY_MSG)                                                                         \
    NAME(NDMP_MOVER_CONNECT_REQUEST_MSG)                                                                               \
    NAME(NDMP_MOVER_CONNECT_REPLY_MSG)                                                                                 \
    NAME(NDMP_UNSUPPORTED_MSG)                                                                                         \
    NAME(NDMP_CHANNEL_DOWN_MSG)                                                                                        \
    NAME(NDMP_LM_GET_DIR_INFO_REQUEST_MSG)                                                                             \
    NAME(NDMP_LM_GET_DIR_INFO_REPLY_MSG)                                                                               \
    NAME(NDMP_LM_GET_PATH_INFO_REPLY_MSG)                                                                              \
    NAME(NDMP_CONFIG_GET_BUTYPE_ATTR_REQUEST_MSG)                                                                      \
    NAME(NDMP_CONFIG_GET_BUTYPE_ATTR_REPLY_MSG)                                                                        \
    NAME(NDMP_LOG_LOG_POST_MSG)                                                                                        \
    NAME(NDMP_LOG_DEBUG_POST_MSG)                                                                                      \
    NAME(NDMP_FH_ADD_UNIX_PATH_POST_MSG)                                                                               \
    NAME(NDMP_FH_ADD_UNIX_DIR_POST_MSG)                                                                                \
    NAME(NDMP_FH_ADD_UNIX_NODE_POST_MSG)                                                                               \
    NAME(NDMP_CONFIG_GET_EXT_LIST_REQUEST_MSG)                                                                         \
    NAME(NDMP_CONFIG_GET_EXT_LIST_REPLY_MSG)                                                                           \
    NAME(NDMP_CONFIG_SET_EXT_LIST_REQUEST_MSG)                                                                         \
    NAME(NDMP_CONFIG_SET_EXT_LIST_REPLY_MSG)                                                                           \
    NAME(NDMP_SCSI_EXECUTE_CDB_REQUEST_MSG)                                                                            \
    NAME(NDMP_TAPE_EXECUTE_CDB_REQUEST_MSG)

FH_MSG_DECLARE_FAMILY(FH_MSG_FAMILY_NDMP)

/* The snapshot extension of NDMP: 1026001 to 1026053. */
#define FH_MSG_FAMILY_NDMP_SNAP(FIRST, NAME, SKIP)                                                                     \
    FIRST(NDMP_SNAP_CREATE_REQUEST_MSG, 1026001)                                                                       \
    NAME(NDMP_SNAP_CREATE_REPLY_MSG)                                                                                   \
    NAME(NDMP_SNAP_DELETE_REQUEST_MSG)                                                                                 \
    NAME(NDMP_SNAP_DELETE_REPLY_MSG)                                                                                   \
    NAME(NDMP_SNAP_RECOVER_REQUEST_MSG)                                                                                \
    NAME(NDMP_SNAP_RECOVER_REPLY_MSG)                                                                                  \
    NAME(NDMP_SNAP_RENAME_REQUEST_MSG)                                                                                 \
    NAME(NDMP_SNAP_RENAME_REPLY_MSG)                                                                                   \
    NAME(NDMP_SNAP_GET_SERVER_INFO_REQUEST_MSG)                                                                        \
    NAME(NDMP_SNAP_GET_SERVER_INFO_REPLY_MSG)                                                                          \
    NAME(NDMP_SNAP_GET_SNAPSHOT_NAMES_REQUEST_MSG)                                                                     \
    NAME(NDMP_SNAP_GET_SNAPSHOT_NAMES_REPLY_MSG)                                                                       \
    NAME(NDMP_SNAP_GET_SNAPSHOT_STATE_REQUEST_MSG)                                                                     \
    NAME(NDMP_SNAP_GET_SNAPSHOT_STATE_REPLY_MSG)                                                                       \
    NAME(NDMP_SNAP_GET_CDR_OP_STATE_REQUEST_MSG)                                                                       \
    NAME(NDMP_SNAP_GET_CDR_OP_STATE_REPLY_MSG)                                                                         \
    NAME(NDMP_SNAP_GET_SNAPSHOT_PATH_REQUEST_MSG)                                                                      \
    NAME(NDMP_SNAP_GET_SNAPSHOT_PATH_REPLY_MSG)                                                                        \
    NAME(NDMP_SNAP_SET_RESERVE_REQUEST_MSG)                                                                            \
    NAME(NDMP_SNAP_SET_RESERVE_REPLY_MSG)                                                                              \
    NAME(NDMP_SNAP_GET_RESERVE_INFO_REQUEST_MSG)                                                                       \
    NAME(NDMP_SNAP_GET_RESERVE_INFO_REPLY_MSG)                                                                         \
    NAME(NDMP_SNAP_SET_SCHEDULE_REQUEST_MSG)                                                                           \
    NAME(NDMP_SNAP_SET_SCHEDULE_REPLY_MSG)                                                                             \
    NAME(NDMP_SNAP_GET_SCHEDULE_INFO_REQUEST_MSG)                                                                      \
    NAME(NDMP_SNAP_GET_SCHEDULE_INFO_REPLY_MSG)                                                                        \
    NAME(NDMP_SNAP_DIR_LIST_REQUEST_MSG)                                                                               \
    NAME(NDMP_SNAP_DIR_LIST_REPLY_MSG)                                                                                 \
    SKIP(1026029, 1026050)                                                                                             \
    NAME(NDMP_SNAP_NOTIFY_CREATE_END_POST_MSG)                                                                         \
    NAME(NDMP_SNAP_NOTIFY_DELETE_END_POST_MSG)                                                                         \
    NAME(NDMP_SNAP_NOTIFY_RECOVER_END_POST_MSG)

FH_MSG_DECLARE_FAMILY(FH_MSG_FAMILY_NDMP_SNAP)

/* Replication: 1035001 to 1035061. */
#define FH_MSG_FAMILY_FH(FIRST, NAME, SKIP)                                                                            \
    FIRST(FH_MANAGER_ADDRESS_MSG, 1035001)                                                                             \
    NAME(FH_BACKUP_REQUEST_MSG)                                                                                        \
    NAME(FH_BACKUP_DONE_MSG)                                                                                           \
    NAME(FH_BACKUP_ACK_MSG)                                                                                            \
    NAME(FH_RESTORE_CONNECTED_MSG)                                                                                     \
    NAME(FH_RESTORE_DONE_MSG)                                                                                          \
    NAME(FH_STREAM_ERROR_MSG)                                                                                          \
    NAME(FH_GOT_CHUNK_MSG)                                                                                             \
    SKIP(1035009, 1035009)                                                                                             \
    NAME(FH_RESTORE_ACK_MSG)                                                                                           \
    NAME(FH_SENT_CHUNK_MSG)                                                                                            \
    NAME(FH_RESTORE_RESULT_MSG)                                                                                        \
    NAME(FH_RESTORE_EXIT_MSG)                                                                                          \
    NAME(FH_PRIMARY_SERVICE_LIST_REQUEST_MSG)                                                                          \
    NAME(FH_PRIMARY_SERVICE_LIST_REPLY_MSG)                                                                            \
    NAME(FH_CANOPY_REQUEST_MSG)                                                                                        \
    NAME(FH_CANOPY_REPLY_MSG)                                                                                          \
    NAME(FH_CANOPY_SOFTLOCK_REQUEST_MSG)                                                                               \
    NAME(FH_CANOPY_SOFTLOCK_REPLY_MSG)                                                                                 \
    NAME(FH_CANOPY_RESTART_REQUEST_MSG)                                                                                \
    NAME(FH_CANOPY_RESTART_REPLY_MSG)                                                                                  \
    NAME(FH_CANOPY_STATUS_MSG)                                                                                         \
    NAME(FH_LOG_MESSAGE_MSG)                                                                                           \
    NAME(FH_SNAP_SET_REQUEST_MSG)                                                                                      \
    NAME(FH_SNAP_SET_REPLY_MSG)                                                                                        \
    NAME(FH_SNAP_GET_REQUEST_MSG)                                                                                      \
    NAME(FH_SNAP_GET_REPLY_MSG)                                                                                        \
    NAME(FH_SNAP_CREATE_REQUEST_MSG)                                                                                   \
    NAME(FH_SNAP_CREATE_REPLY_MSG)                                                                                     \
    NAME(FH_SNAP_DELETE_REQUEST_MSG)                                                                                   \
    NAME(FH_SNAP_DELETE_REPLY_MSG)                                                                                     \
    NAME(FH_CANOPY_DELETE_REQUEST_MSG)                                                                                 \
    NAME(FH_CANOPY_DELETE_REPLY_MSG)                                                                                   \
    NAME(FH_CANOPY_STATUS_REQUEST_MSG)                                                                                 \
    NAME(FH_CANOPY_STATUS_REPLY_MSG)                                                                                   \
    NAME(FH_TASK_COMPLETED_MSG)                                                                                        \
    NAME(FH_SAVE_DATABASE_REQUEST_MSG)                                                                                 \
    NAME(FH_SAVE_DATABASE_REPLY_MSG)                                                                                   \
    NAME(FH_RESTORE_DATABASE_REQUEST_MSG)                                                                              \
    NAME(FH_RESTORE_DATABASE_REPLY_MSG)                                                                                \
    NAME(FH_NDMP_LOG_POST_MSG)                                                                                         \
    NAME(FH_CHECKSUM_REQUEST_MSG)                                                                                      \
    NAME(FH_CHECKSUM_REPLY_MSG)                                                                                        \
    NAME(FH_CHECKPOINT_REQUEST_MSG)                                                                                    \
    NAME(FH_CHECKPOINT_REPLY_MSG)                                                                                      \
    NAME(FH_CHECKPOINT_UPDATE_REQUEST_MSG)                                                                             \
    NAME(FH_CHECKPOINT_UPDATE_REPLY_MSG)                                                                               \
    NAME(FH_CANOPY_DONE_REQUEST_MSG)                                                                                   \
    NAME(FH_CANOPY_DONE_REPLY_MSG)                                                                                     \
    NAME(FH_TRANSFER_ABORT_REQUEST_MSG)                                                                                \
    NAME(FH_TRANSFER_ABORT_REPLY_MSG)                                                                                  \
    NAME(FH_CANOPY_ABORT_REQUEST_MSG)                                                                                  \
    NAME(FH_CANOPY_ABORTED_MSG)                                                                                        \
    NAME(FH_BLOCK_MISMATCH_MSG)                                                                                        \
    NAME(FH_BLOCK_MISMATCH_END_MSG)                                                                                    \
    NAME(FH_CANOPY_RESYNC_REQUEST_MSG)                                                                                 \
    NAME(FH_CANOPY_RESYNC_REPLY_MSG)                                                                                   \
    NAME(FH_DBBACKUP_INFO_REQUEST_MSG)                                                                                 \
    NAME(FH_DBBACKUP_INFO_REPLY_MSG)                                                                                   \
    NAME(FH_DBBACKUP_RESTORE_REQUEST_MSG)                                                                              \
    NAME(FH_DBBACKUP_RESTORE_REPLY_MSG)

FH_MSG_DECLARE_FAMILY(FH_MSG_FAMILY_FH)

/* The replication extension of NDMP: 1080021 to 1080099. */
#define FH_MSG_FAMILY_NDMP_FHS(FIRST, NAME, SKIP)                                                                      \
    FIRST(NDMP_FHS_CREATE_RELATIONSHIP_REQUEST_MSG, 1080021)                                                           \
    NAME(NDMP_FHS_CREATE_RELATIONSHIP_REPLY_MSG)                                                                       \
    NAME(NDMP_FHS_MODIFY_RELATIONSHIP_REQUEST_MSG)                                                                     \
    NAME(NDMP_FHS_MODIFY_RELATIONSHIP_REPLY_MSG)                                                                       \
    NAME(NDMP_FHS_TRANSFER_BACKUP_REQUEST_MSG)                                                                         \
    NAME(NDMP_FHS_TRANSFER_BACKUP_REPLY_MSG)                                                                           \
    NAME(NDMP_FHS_ABORT_TRANSFER_REQUEST_MSG)                                                                          \
    NAME(NDMP_FHS_ABORT_TRANSFER_REPLY_MSG)                                                                            \
    NAME(NDMP_FHS_DELETE_RELATIONSHIP_REQUEST_MSG)                                                                     \
    NAME(NDMP_FHS_DELETE_RELATIONSHIP_REPLY_MSG)                                                                       \
    NAME(NDMP_FHS_RESTART_RELATIONSHIP_REQUEST_MSG)                                                                    \
    NAME(NDMP_FHS_RESTART_RELATIONSHIP_REPLY_MSG)                                                                      \
    NAME(NDMP_FHS_SET_SNAP_SCHEDULE_REQUEST_MSG)                                                                       \
    NAME(NDMP_FHS_SET_SNAP_SCHEDULE_REPLY_MSG)                                                                         \
    NAME(NDMP_FHS_GET_SNAP_SCHEDULE_REQUEST_MSG)                                                                       \
    NAME(NDMP_FHS_GET_SNAP_SCHEDULE_REPLY_MSG)                                                                         \
    NAME(NDMP_FHS_DELETE_SNAP_SCHEDULE_REQUEST_MSG)                                                                    \
    NAME(NDMP_FHS_DELETE_SNAP_SCHEDULE_REPLY_MSG)                                                                      \
    NAME(NDMP_FHS_CREATE_SNAP_REQUEST_MSG)                                                                             \
    NAME(NDMP_FHS_CREATE_SNAP_REPLY_MSG)                                                                               \
    NAME(NDMP_FHS_GET_STATUS_REQUEST_MSG)                                                                              \
    NAME(NDMP_FHS_GET_STATUS_REPLY_MSG)                                                                                \
    NAME(NDMP_FHS_GET_SNAP_STATUS_REQUEST_MSG)                                                                         \
    NAME(NDMP_FHS_GET_SNAP_STATUS_REPLY_MSG)                                                                           \
    NAME(NDMP_FHS_GET_CLIENT_STATUS_REQUEST_MSG)                                                                       \
    NAME(NDMP_FHS_GET_CLIENT_STATUS_REPLY_MSG)                                                                         \
    NAME(NDMP_FHS_GET_ACCESS_INFORMATION_REQUEST_MSG)                                                                  \
    NAME(NDMP_FHS_GET_ACCESS_INFORMATION_REPLY_MSG)                                                                    \
    NAME(NDMP_FHS_SET_ACCESS_INFORMATION_REQUEST_MSG)                                                                  \
    NAME(NDMP_FHS_SET_ACCESS_INFORMATION_REPLY_MSG)                                                                    \
    NAME(NDMP_FHS_GET_INFORMATION_REQUEST_MSG)                                                                         \
    NAME(NDMP_FHS_GET_INFORMATION_REPLY_MSG)                                                                           \
    NAME(NDMP_FHS_ABORT_SNAP_REQUEST_MSG)                                                                              \
    NAME(NDMP_FHS_ABORT_SNAP_REPLY_MSG)                                                                                \
    NAME(NDMP_FHS_RELEASE_RELATIONSHIP_REQUEST_MSG)                                                                    \
    NAME(NDMP_FHS_RELEASE_RELATIONSHIP_REPLY_MSG)                                                                      \
    NAME(NDMP_FHS_GET_DATA_ADDRESS_REQUEST_MSG)                                                                        \
    NAME(NDMP_FHS_GET_DATA_ADDRESS_REPLY_MSG)                                                                          \
    SKIP(1080059, 1080059)                                                                                             \
    NAME(NDMP_FHP_CREATE_SNAP_REPLY_MSG)                                                                               \
    NAME(NDMP_FHP_SET_SNAP_SCHEDULE_REQUEST_MSG)                                                                       \
    NAME(NDMP_FHP_SET_SNAP_SCHEDULE_REPLY_MSG)                                                                         \
    NAME(NDMP_FHP_GET_SNAP_SCHEDULE_REQUEST_MSG)                                                                       \
    NAME(NDMP_FHP_GET_SNAP_SCHEDULE_REPLY_MSG)                                                                         \
    NAME(NDMP_FHP_GET_SNAP_STATUS_REQUEST_MSG)                                                                         \
    NAME(NDMP_FHP_GET_SNAP_STATUS_REPLY_MSG)                                                                           \
    NAME(NDMP_FHP_DELETE_SNAP_SCHEDULE_REQUEST_MSG)                                                                    \
    NAME(NDMP_FHP_DELETE_SNAP_SCHEDULE_REPLY_MSG)                                                                      \
    NAME(NDMP_FHP_CREATE_SNAP_REQUEST_MSG)                                                                             \
    SKIP(1080070, 1080070)                                                                                             \
    NAME(NDMP_FHP_GET_STATUS_REQUEST_MSG)                                                                              \
    NAME(NDMP_FHP_GET_STATUS_REPLY_MSG)                                                                                \
    NAME(NDMP_FHP_ABORT_TRANSFER_REQUEST_MSG)                                                                          \
    NAME(NDMP_FHP_ABORT_TRANSFER_REPLY_MSG)                                                                            \
    NAME(NDMP_FHP_RECOVER_BACKUP_REQUEST_MSG)                                                                          \
    NAME(NDMP_FHP_RECOVER_BACKUP_REPLY_MSG)                                                                            \
    NAME(NDMP_FHP_RELEASE_RELATIONSHIP_REQUEST_MSG)                                                                    \
    NAME(NDMP_FHP_RELEASE_RELATIONSHIP_REPLY_MSG)                                                                      \
    NAME(NDMP_FHP_GET_ACCESS_INFORMATION_REQUEST_MSG)                                                                  \
    NAME(NDMP_FHP_GET_ACCESS_INFORMATION_REPLY_MSG)                                                                    \
    NAME(NDMP_FHP_SET_ACCESS_INFORMATION_REQUEST_MSG)                                                                  \
    NAME(NDMP_FHP_SET_ACCESS_INFORMATION_REPLY_MSG)                                                                    \
    NAME(NDMP_FHP_GET_INFORMATION_REQUEST_MSG)                                                                         \
    NAME(NDMP_FHP_GET_INFORMATION_REPLY_MSG)                                                                           \
    NAME(NDMP_FHP_GET_DATA_ADDRESS_REQUEST_MSG)                                                                        \
    NAME(NDMP_FHP_GET_DATA_ADDRESS_REPLY_MSG)                                                                          \
    SKIP(1080087, 1080087)                                                                                             \
    NAME(NDMP_FHS_NOTIFY_RELEASE_RELATIONSHIP_POST_MSG)                                                                \
    NAME(NDMP_FHS_NOTIFY_CREATE_RELATIONSHIP_POST_MSG)                                                                 \
    NAME(NDMP_FHS_NOTIFY_TRANSFER_BACKUP_POST_MSG)                                                                     \
    NAME(NDMP_FHS_NOTIFY_ABORT_TRANSFER_POST_MSG)                                                                      \
    NAME(NDMP_FHS_NOTIFY_DELETE_RELATIONSHIP_POST_MSG)                                                                 \
    NAME(NDMP_FHS_NOTIFY_RESTART_RELATIONSHIP_POST_MSG)                                                                \
    NAME(NDMP_FHS_NOTIFY_CREATE_SNAP_POST_MSG)                                                                         \
    NAME(NDMP_FHS_NOTIFY_ABORT_SNAP_POST_MSG)                                                                          \
    NAME(NDMP_FHP_NOTIFY_CREATE_SNAP_POST_MSG)                                                                         \
    NAME(NDMP_FHP_NOTIFY_ABORT_TRANSFER_POST_MSG)                                                                      \
    NAME(NDMP_FHP_NOTIFY_RECOVER_BACKUP_POST_MSG)                                                                      \
    NAME(NDMP_FHP_NOTIFY_RELEASE_RELATIONSHIP_POST_MSG)

FH_MSG_DECLARE_FAMILY(FH_MSG_FAMILY_NDMP_FHS)

#endif /* FHCORE_MESSAGES_INTERFACES_H */
