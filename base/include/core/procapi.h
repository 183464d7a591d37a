/*
 * procapi.h - tasks for services, and the process manager's other services
 * to a program.
 *
 * A task is the unit of work handed to a service: a process that the
 * process manager of the target machine starts or reuses. The caller names
 * the service by a PROC_ADDRESS (messages/msgpmgr.h) and always hears back
 * by one PMGR_GIVE_SERVICE_A_TASK_RETURN_MSG: from the far process manager,
 * from the message layer when the machine goes down or can't be reached,
 * or from this module itself when the request never leaves. A machine of
 * major version 7 or more gets the extended request, which carries the
 * task context (task.h); any other the plain one.
 *
 * Unique task ids come from one counter of the process, which starts at 0:
 * the first id handed out is 1, so that 0 never names a task.
 */
#ifndef FHCORE_PROCAPI_H
#define FHCORE_PROCAPI_H

#include "context.h"
#include "../messages/msgpmgr.h"
#include "types.h"

FH_BEGIN_DECLS

/* The tag list form of a request (ProcGiveServiceATaskTags). The tags set
 * texts, the flag and the id; the task object is not set by tag. */
#define PROC_GIVE_TASK_ARGS_MAGIC 0xCA97214Cu
#define PROC_GIVE_TASK_ARGS_FORMAT "s;s;b;o;i;"
typedef struct PROC_GIVE_TASK_ARGS {
    char *pszFirstText;
    char *pszSecondText;
    BOOL bConnectBack;
    void *oTaskObject;
    int32_t iUniqueId;
} PROC_GIVE_TASK_ARGS;
enum ProcGiveTaskTag {
    PROC_GIVE_TASK_TAG_FIRST_TEXT = 0,
    PROC_GIVE_TASK_TAG_SECOND_TEXT = 1,
    PROC_GIVE_TASK_TAG_CONNECT_BACK = 2,
    PROC_GIVE_TASK_TAG_UNIQUE_ID = 4
};

/* ---- Tasks ------------------------------------------------------------------ */

/* Sends the request for a task of service at address (a PROC_ADDRESS with a
 * process name) to the process manager of its machine: the two texts pass
 * through unread, connectBack asks the service to open a channel back, and
 * taskObject (the caller's, unchanged) goes with it. contextObject, when
 * given, is set in a copy of the current task context (or a new one) for an
 * extended request; an old machine never sees it. TRUE when the request
 * left. FALSE on any failure, after a failure reply with its code has gone
 * on the process's own receive list: 7 for a bad address or context object,
 * 18 for a machine that can't be addressed, 19 for a failed send, -1 when
 * the task context can't be copied. */
FHAPI BOOL ProcGiveServiceATaskExt(const void *address, const char *firstText, const char *secondText, BOOL connectBack,
                                   void *taskObject, int32_t uniqueId, void *contextObject);

/* ProcGiveServiceATaskExt without a context object. */
FHAPI BOOL ProcGiveServiceATask(const void *address, const char *firstText, const char *secondText, BOOL connectBack,
                                void *taskObject, int32_t uniqueId);

/* ProcGiveServiceATask with the next id of the process's counter. The id is
 * stored in *uniqueId only on success; it is used up in any case, and the
 * failure reply carries it. */
FHAPI BOOL ProcGiveServiceATaskWithID(int32_t *uniqueId, const void *address, const char *firstText,
                                      const char *secondText, BOOL connectBack, void *taskObject);

/* Fills a new PROC_GIVE_TASK_ARGS from the tag list (first -2, then pairs of
 * ProcGiveTaskTag and value, then -1) and hands it to the caller in *args
 * (when args is not null). Sends nothing, and gives FALSE. */
FHAPI BOOL ProcGiveServiceATaskTags(PROC_GIVE_TASK_ARGS **args, int32_t first, ...);

/* ---- Addresses of services -------------------------------------------------- */

/* A new PROC_ADDRESS in *address (the caller's) with copies of both names.
 * FALSE, nothing made, when a name or the out pointer is null. */
FHAPI BOOL ProcCreateAddress(PROC_ADDRESS **address, const char *machine, const char *processName,
                             int32_t interfaceType);

/* The process name of a PROC_ADDRESS, borrowed; null for anything else. */
FHAPI const char *ProcGetProcessNameFromAddress(const void *address);

/* The interface type of a PROC_ADDRESS: the low byte of its component,
 * signed; -1 for anything else. */
FHAPI int32_t ProcGetInterfaceTypeFromAddress(const void *address);

/* TRUE when both are PROC_ADDRESS objects of the same interface type whose
 * machine names and process names are equal without regard to case. */
FHAPI BOOL ProcAddressEqual(const void *first, const void *second);

/* ---- The process manager's services ---------------------------------------- */

/* Sends PMGR_CHANGE_FROM_READY_MSG, without a body, to the process manager.
 * TRUE when sent. */
FHAPI BOOL ProcChangeFromReady(void);

/* Asks the process manager of the address's machine to end the process at
 * address (a MSG_ADDRESS); number passes through. TRUE when sent. */
FHAPI BOOL ProcKillProcess(const void *address, int32_t number);

/* Asks the process manager of its machine to tell this process when the
 * sender named by source (an address or a message) dies, or no longer to.
 * TRUE when sent; FALSE when source names no sender. */
FHAPI BOOL ProcInformOnDeath(const void *source);
FHAPI BOOL ProcCancelInformOnDeath(const void *source);

/* Whether process processId runs on machine, as its process manager says;
 * waits for the answer. FALSE for a null machine and when no answer comes. */
FHAPI BOOL ProcIsProcessRunning(int32_t processId, const char *machine);

/* Sends object to the process at address (a MSG_ADDRESS) for its context
 * objects. FALSE, nothing sent, for a process on a machine older than
 * major version 7, and when the send fails. */
FHAPI BOOL ProcSetProcessContextObject(const void *address, void *object);

/* The text of a task error code, translated. A code outside the table gives
 * "Unknown Error - <code>" in a static buffer that the next such call
 * overwrites. Never null. */
FHAPI const char *ProcErrorString(int32_t code);

/* ---- The module ------------------------------------------------------------- */

/* Makes the templates of the task messages and of the task context. When
 * one of PMGR_GIVE_SERVICE_A_TASK, PROC_ADDRESS, PMGR_KILL_PROCESS and
 * PMGR_NOTIFY_ON_DEATH fails it prints "ProcAPI 45" to 48 (in that order)
 * on standard output, and gives FALSE, so the module ladder stops. */
FHAPI BOOL ProcApiInitialize(void);
/* TRUE; the module keeps no per-context state. */
FHAPI BOOL ProcApiInitializeThread(void);
FHAPI void ProcApiReleaseThread(LmContext *context);

FH_END_DECLS

#endif /* FHCORE_PROCAPI_H */
