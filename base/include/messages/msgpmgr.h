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

/* ---- Bodies ------------------------------------------------------------------
 * The bodies that the message layer itself reads. Each arrives from another
 * process: a reader checks the magic and the format before it reads a
 * field. */

/* The address of a service: machine name, process name, interface type
 * (its low byte, signed). */
#define PROC_ADDRESS_MAGIC 0xC9F2F99Bu
#define PROC_ADDRESS_FORMAT "s;s;i;"
typedef struct PROC_ADDRESS {
    char *pszMachine;
    char *pszProcess;
    int32_t iInterfaceType;
} PROC_ADDRESS;

/* A request for a task of a service, in its plain and extended forms. */
#define PMGR_GIVE_SERVICE_A_TASK_MAGIC 0xC9C6BC30u
#define PMGR_GIVE_SERVICE_A_TASK_FORMAT "o;s;i;s;b;o;i;"
#define PMGR_GIVE_SERVICE_A_TASK_EXT_MAGIC 0xCA64F35Au
#define PMGR_GIVE_SERVICE_A_TASK_EXT_FORMAT "o;s;i;s;b;o;i;o;o;"
typedef struct PMGR_GIVE_SERVICE_A_TASK {
    void *oService;      /* PROC_ADDRESS */
    char *pszFirstText;
    int32_t iSecurityCookie; /* -1: none */
    char *pszSecondText;
    BOOL bConnectBack;
    void *oTaskObject;
    int32_t iUniqueId;
} PMGR_GIVE_SERVICE_A_TASK;
typedef struct PMGR_GIVE_SERVICE_A_TASK_EXT {
    void *oService;
    char *pszFirstText;
    int32_t iSecurityCookie;
    char *pszSecondText;
    BOOL bConnectBack;
    void *oTaskObject;
    int32_t iUniqueId;
    void *oTaskContext; /* TASK_CONTEXT */
    void *oReserved;    /* null */
} PMGR_GIVE_SERVICE_A_TASK_EXT;

/* The reply to a task request. */
#define PMGR_GIVE_SERVICE_A_TASK_RETURN_MAGIC 0xCC0B0916u
#define PMGR_GIVE_SERVICE_A_TASK_RETURN_FORMAT "b;i;o;i;b;i;o;"
typedef struct PMGR_GIVE_SERVICE_A_TASK_RETURN {
    BOOL bTaken;
    int32_t iError;     /* PROC_ERROR_... */
    void *oTakenBy;     /* MSG_ADDRESS of the process that took it */
    int32_t iReserved;
    BOOL bReserved;
    int32_t iUniqueId;  /* of the request */
    void *oService;     /* PROC_ADDRESS of the request */
} PMGR_GIVE_SERVICE_A_TASK_RETURN;

/* The error codes of a task reply (component 1), as ProcErrorString names
 * them. */
#define PROC_ERROR_UNKNOWN (-1)
#define PROC_ERROR_NONE 0
#define PROC_ERROR_STARTING_PROCESS 1
#define PROC_ERROR_SHUTTING_DOWN 2
#define PROC_ERROR_SECURITY 3
#define PROC_ERROR_PASSWORD 4
#define PROC_ERROR_PROGRESS_UNAVAILABLE 5
#define PROC_ERROR_CANCELLED 6
#define PROC_ERROR_INVALID_ARGUMENTS 7
#define PROC_ERROR_GUI_PROXY_DIED 8
#define PROC_ERROR_MACHINE_UNAVAILABLE 9
#define PROC_ERROR_NO_GUI_CONNECTION 10
#define PROC_ERROR_UNSUPPORTED_INTERFACE 11
#define PROC_ERROR_NO_MORE_PROCESSES 12
#define PROC_ERROR_SERVICE_RUNNING 13
#define PROC_ERROR_SPAWN_FAILED 14
#define PROC_ERROR_UNRESOLVED_NAME 15
#define PROC_ERROR_ADOPT_FAILED 16
#define PROC_ERROR_MACHINE_UNREACHABLE 17
#define PROC_ERROR_MACHINE_UNKNOWN 18
#define PROC_ERROR_TRANSMISSION 19
#define PROC_ERROR_NOT_REMOTELY_CONTROLLED 20
#define PROC_ERROR_PLUGIN_DIED 21

/* What a service receives in PMGR_TASK_MSG, plain and extended. */
#define PMGR_TASK_MAGIC 0xC9C6BE8Du
#define PMGR_TASK_FORMAT "o;i;o;i;"
#define PMGR_TASK_EXT_MAGIC 0xCA729367u
#define PMGR_TASK_EXT_FORMAT "o;i;o;i;o;"
typedef struct PMGR_TASK {
    void *oConnectBackTo; /* MSG_ADDRESS */
    int32_t iConnectNow;
    void *oTaskObject;
    int32_t iLast;
} PMGR_TASK;
typedef struct PMGR_TASK_EXT {
    void *oConnectBackTo;
    int32_t iConnectNow;
    void *oTaskObject;
    int32_t iLast;
    void *oTaskContext; /* TASK_CONTEXT */
} PMGR_TASK_EXT;

/* The bodies of PMGR_NOTIFY_ON_DEATH_MSG and PMGR_PROCESS_DIED_MSG: one
 * MSG_ADDRESS. */
#define PMGR_NOTIFY_ON_DEATH_MAGIC 0xC9C6BD30u
#define PMGR_NOTIFY_ON_DEATH_FORMAT "o;"
#define PMGR_PROCESS_DIED_MAGIC 0xC9C6BD5Du
#define PMGR_PROCESS_DIED_FORMAT "o;"
typedef struct PMGR_PROCESS_DIED {
    void *oAddress;
} PMGR_PROCESS_DIED, PMGR_NOTIFY_ON_DEATH;

/* The body of PMGR_KILL_PROCESS_MSG: the MSG_ADDRESS of the process to end,
 * and a number of the caller's that passes through. */
#define PMGR_KILL_PROCESS_MAGIC 0xC9C6BD79u
#define PMGR_KILL_PROCESS_FORMAT "o;i;"
typedef struct PMGR_KILL_PROCESS {
    void *oAddress;
    int32_t iNumber;
} PMGR_KILL_PROCESS;

/* The body of PMGR_CANCEL_NOTIFY_ON_DEATH_MSG: the MSG_ADDRESS watched, and
 * a null object. */
#define PMGR_CANCEL_NOTIFY_ON_DEATH_MAGIC 0xC8B88867u
#define PMGR_CANCEL_NOTIFY_ON_DEATH_FORMAT "o;o;"
typedef struct PMGR_CANCEL_NOTIFY_ON_DEATH {
    void *oAddress;
    void *oReserved;
} PMGR_CANCEL_NOTIFY_ON_DEATH;

/* PMGR_GET_PROCESS_STATE_MSG asks for the state of the process at a
 * MSG_ADDRESS; the return names the process again and gives its state
 * (PROC_STATE_..., -1 when it does not run). */
#define PMGR_GET_PROCESS_STATE_MAGIC 0xC9C6BDDFu
#define PMGR_GET_PROCESS_STATE_FORMAT "o;"
typedef struct PMGR_GET_PROCESS_STATE {
    void *oAddress;
} PMGR_GET_PROCESS_STATE;
#define PMGR_GET_PROCESS_STATE_RETURN_MAGIC 0xC9C6BE03u
#define PMGR_GET_PROCESS_STATE_RETURN_FORMAT "o;i;"
typedef struct PMGR_GET_PROCESS_STATE_RETURN {
    void *oAddress;
    int32_t iState;
} PMGR_GET_PROCESS_STATE_RETURN;

/* The body of MSG_SET_PROCESS_CONTEXT_REQUEST_MSG, sent straight to a
 * process: the object for its context objects, and a null object. */
#define SET_PROCESS_CONTEXT_REQUEST_MAGIC 0xCF52C585u
#define SET_PROCESS_CONTEXT_REQUEST_FORMAT "o;o;"
typedef struct SET_PROCESS_CONTEXT_REQUEST {
    void *oObject;
    void *oReserved;
} SET_PROCESS_CONTEXT_REQUEST;

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

/* A process's state for the manager (PMGR_PROCESS_STATUS_MSG, and inside
 * the initial status): a PROC_STATE_ value (in the initial status 0, or 1
 * for a process the manager did not start), the system's pid (only in an
 * unmanaged process's initial status), thread 0, whether it asked for a
 * progress buffer and the process table, and 0. */
#define PMGR_PROCESS_STATUS_MAGIC 0xC9C6BE28u
#define PMGR_PROCESS_STATUS_FORMAT "i;i;i;b;b;i;"
typedef struct PMGR_PROCESS_STATUS {
    int32_t iState;
    int32_t iPid;
    int32_t iThread;
    BOOL bWantsProgress;
    BOOL bViewer;
    int32_t iReserved;
} PMGR_PROCESS_STATUS;

/* The first word of a process (PMGR_PROCESS_INITIAL_STATUS_MSG): its
 * PMGR_PROCESS_STATUS, flags (PMGR_INITIAL_NEW_STYLE_TASKS) and null. */
#define PMGR_PROCESS_INITIAL_STATUS_MAGIC 0xCA68F424u
#define PMGR_PROCESS_INITIAL_STATUS_FORMAT "o;i;o;"
#define PMGR_INITIAL_NEW_STYLE_TASKS 0x1
typedef struct PMGR_PROCESS_INITIAL_STATUS {
    void *oStatus;
    int32_t iFlags;
    void *oReserved;
} PMGR_PROCESS_INITIAL_STATUS;

/* The body of PMGR_SET_LOCALE_MSG: the name of a locale. */
#define PMGR_SET_LOCALE_MAGIC 0xC84CE84Cu
#define PMGR_SET_LOCALE_FORMAT "s;"
typedef struct PMGR_SET_LOCALE {
    char *pszLocale;
} PMGR_SET_LOCALE;

/* PMGR_CONNECTION_DROPPED_MSG, from the communication manager to the
 * process manager when a bound client's connection ends: an OBJ_INTEGER,
 * the process id of that client. */

#endif /* FHCORE_MESSAGES_MSGPMGR_H */
