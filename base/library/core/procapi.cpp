// procapi.cpp - the task interface: tasks for services on any machine, and
// the process manager's other services to a program.
//
// A request leaves as PMGR_GIVE_SERVICE_A_TASK_MSG for process 1 of the
// service's machine, in the plain form, or in the extended form with a task
// context for a machine of major version 7 or more. Whatever happens, the
// caller hears back exactly once: a request that can't leave puts its
// failure reply on the process's own receive list here; one that leaves is
// answered by the far process manager, or by the message layer from its
// pending task list when the machine goes down or can't be reached.
//
// The module's state is the counter of unique task ids (process-wide, the
// last id given, starting at 0) and the static buffer of ProcErrorString.
// The task bodies are plain objects; each may arrive from elsewhere, so
// each template is receivable, and every body read here is checked for its
// magic and its exact format first.
#include "core/procapi.h"

#include <cstdarg>
#include <cstdio>

#include "core/context.h"
#include "core/locale.h"
#include "core/machinfo.h"
#include "core/msgpacket.h"
#include "core/msgsend.h"
#include "core/msgwait.h"
#include "core/object.h"
#include "core/proc.h"
#include "core/strbase.h"
#include "core/task.h"
#include "messages/msgmsg.h"
#include "messages/msgpmgr.h"
#include "msgchannel.h"
#include "objcore.h"
#include "seams.h"
#include "tracer.h"

namespace {

constexpr fh::ModuleTracer trace{"PROCAPI        "};

// Trace ids of this module; fixed once chosen.
enum TraceId : int32_t {
    kIdGiving = 1,
    kIdSendNew = 2,
    kIdSendOld = 3,
    kIdDuplicateFailed = 4,
    kIdSetObjectFailed = 5,
    kIdTaskFailed = 6,
    kIdInformOnDeath = 7,
    kIdCancelInform = 8,
    kIdCancelNoAddress = 9,
    kIdRunning = 10,
    kIdNotRunning = 11,
    kIdOldMachine = 12,
    kIdContextSent = 13,
    kIdContextNotSent = 14,
    kIdInformNoAddress = 15,
};

// ---- Types ----

template <typename T> using Type = fh::ObjectType<T>;

constinit Type<PMGR_GIVE_SERVICE_A_TASK> gRequestType{PMGR_GIVE_SERVICE_A_TASK_MAGIC, PMGR_GIVE_SERVICE_A_TASK_FORMAT,
                                                      fh::kReceivable};
constinit Type<PROC_ADDRESS> gAddressType{PROC_ADDRESS_MAGIC, PROC_ADDRESS_FORMAT, fh::kReceivable};
constinit Type<PMGR_KILL_PROCESS> gKillType{PMGR_KILL_PROCESS_MAGIC, PMGR_KILL_PROCESS_FORMAT, fh::kReceivable};
constinit Type<PMGR_NOTIFY_ON_DEATH> gNotifyType{PMGR_NOTIFY_ON_DEATH_MAGIC, PMGR_NOTIFY_ON_DEATH_FORMAT,
                                                 fh::kReceivable};
constinit Type<PMGR_GIVE_SERVICE_A_TASK_EXT> gRequestExtType{PMGR_GIVE_SERVICE_A_TASK_EXT_MAGIC,
                                                             PMGR_GIVE_SERVICE_A_TASK_EXT_FORMAT, fh::kReceivable};
constinit Type<PMGR_CANCEL_NOTIFY_ON_DEATH> gCancelType{PMGR_CANCEL_NOTIFY_ON_DEATH_MAGIC,
                                                        PMGR_CANCEL_NOTIFY_ON_DEATH_FORMAT, fh::kReceivable};
constinit Type<PMGR_GET_PROCESS_STATE> gStateType{PMGR_GET_PROCESS_STATE_MAGIC, PMGR_GET_PROCESS_STATE_FORMAT,
                                                  fh::kReceivable};
constinit Type<PMGR_GET_PROCESS_STATE_RETURN> gStateReturnType{PMGR_GET_PROCESS_STATE_RETURN_MAGIC,
                                                               PMGR_GET_PROCESS_STATE_RETURN_FORMAT, fh::kReceivable};
constinit Type<SET_PROCESS_CONTEXT_REQUEST> gContextRequestType{SET_PROCESS_CONTEXT_REQUEST_MAGIC,
                                                                SET_PROCESS_CONTEXT_REQUEST_FORMAT, fh::kReceivable};
constinit Type<PROC_GIVE_TASK_ARGS> gArgsType{PROC_GIVE_TASK_ARGS_MAGIC, PROC_GIVE_TASK_ARGS_FORMAT, fh::kReceivable};

// The four whose failure the ladder reports, by "ProcAPI 45" to 48, then
// the rest of the family.
constexpr fh::DeclaredType *kReportedTypes[] = {&gRequestType, &gAddressType, &gKillType, &gNotifyType};
constexpr fh::DeclaredType *kOtherTypes[] = {&gRequestExtType,  &gCancelType,         &gStateType,
                                             &gStateReturnType, &gContextRequestType, &gArgsType};
constexpr int32_t kFirstReportCode = 45;
int32_t gFailReportCode = 0; // a test's seam: the report code that fails

int32_t gLastUniqueId = 0; // the first id given is 1

const PROC_ADDRESS *addressOf(const void *object) {
    return fh::objectShaped<PROC_ADDRESS>(object, PROC_ADDRESS_MAGIC, PROC_ADDRESS_FORMAT);
}

int32_t interfaceOf(const PROC_ADDRESS *address) { return static_cast<int8_t>(address->iInterfaceType & 0xFF); }

bool sameName(const char *a, const char *b) {
    return a == nullptr || b == nullptr ? a == b : StrCompareNoCase(a, b) == 0;
}

// Holds an object reference for the scope.
template <typename T> struct Held {
    T *object = nullptr;
    ~Held() { ObjReleaseInternal(&object); }
    T **out() { return &object; }
};

// ---- Machines ----

// Whether the machine takes the extended forms: one that machine
// information knows, of major version 7 or more.
bool takesNewTasks(const char *machine) {
    return machine != nullptr && MachInfoFind(machine) && MachInfoLMVersionMajor(machine) >= 7;
}

// The process manager of machine, in *address; false for a machine that
// can't be addressed (no name, or no id).
bool procMgrOf(MSG_ADDRESS **address, const char *machine) {
    int32_t id = 0;
    return machine != nullptr && MsgMachineNameToId(&id, machine) &&
           MsgCreateAddress(address, machine, MSG_PROCESS_PROCMGR);
}

// ---- Giving a task ----

// The task context for an extended request (the caller's reference), or a
// failure code: a copy of the current one with contextObject set in it, or
// the current one itself without; a new one when there is none.
struct ContextResult {
    TASK_CONTEXT *context = nullptr;
    int32_t code = PROC_ERROR_NONE;
};

ContextResult contextForRequest(void *contextObject) {
    ContextResult result;
    // A current context of another shape (it came with a task) counts as none.
    void *current = fh::objectShaped(gtLmContext.oMsgTaskContext, TASK_CONTEXT_MAGIC, TASK_CONTEXT_FORMAT);
    if (contextObject == nullptr && current != nullptr) {
        ObjIncRefCount(current);
        result.context = static_cast<TASK_CONTEXT *>(current);
        return result;
    }
    if (current != nullptr) {
        if (!ObjDuplicate(reinterpret_cast<void **>(&result.context), current)) {
            trace(kIdDuplicateFailed, 0, -1, "Error, Object duplication failed");
            result.code = PROC_ERROR_UNKNOWN;
            return result;
        }
    } else if (!TaskCreateContext(&result.context)) {
        result.code = PROC_ERROR_UNKNOWN;
        return result;
    }
    if (contextObject != nullptr &&
        (!ObjHasValidGlobalMagic(contextObject) || !TaskSetContextObject(result.context, contextObject))) {
        trace(kIdSetObjectFailed, 0, -1, "Failed to set task context object");
        ObjReleaseInternal(&result.context);
        result.code = PROC_ERROR_INVALID_ARGUMENTS;
    }
    return result;
}

// The request for service in the form that its machine takes; the fields
// shared by both forms first. Null with *code set when it can't be made.
void *newRequest(const PROC_ADDRESS *service, const char *firstText, const char *secondText, BOOL connectBack,
                 void *taskObject, int32_t uniqueId, void *contextObject, int32_t *code) {
    const bool extended = takesNewTasks(service->pszMachine);
    TASK_CONTEXT *context = nullptr;
    if (extended) {
        const ContextResult made = contextForRequest(contextObject);
        if ((*code = made.code) != PROC_ERROR_NONE) return nullptr;
        context = made.context;
    }
    auto *request = extended ? reinterpret_cast<PMGR_GIVE_SERVICE_A_TASK *>(gRequestExtType.newInstance(nullptr))
                             : gRequestType.newInstance(nullptr);
    ObjIncRefCount(const_cast<PROC_ADDRESS *>(service));
    request->oService = const_cast<PROC_ADDRESS *>(service);
    request->pszFirstText = firstText != nullptr ? StrDuplicateIntoPool(firstText, nullptr) : nullptr;
    request->iSecurityCookie = -1; // no cookie: the far side judges the request
    request->pszSecondText = secondText != nullptr ? StrDuplicateIntoPool(secondText, nullptr) : nullptr;
    request->bConnectBack = connectBack ? TRUE : FALSE;
    if ((request->oTaskObject = taskObject) != nullptr) ObjIncRefCount(taskObject);
    request->iUniqueId = uniqueId;
    if (extended) reinterpret_cast<PMGR_GIVE_SERVICE_A_TASK_EXT *>(request)->oTaskContext = context;
    trace(extended ? kIdSendNew : kIdSendOld, 0, 2, extended ? "Send new task out" : "Send old task out");
    return request;
}

// The reply a failed request still owes its caller, on the process's own
// receive list.
void replyToSelf(int32_t code, int32_t uniqueId, const void *address) {
    trace(kIdTaskFailed, code, 1, "Task %ld not given (error %ld)", static_cast<long>(uniqueId),
          static_cast<long>(code));
    void *service = addressOf(address) != nullptr ? const_cast<void *>(address) : nullptr;
    PMGR_GIVE_SERVICE_A_TASK_RETURN *reply = fh::msgNewTaskReturn(code, uniqueId, service);
    if (reply != nullptr) MsgSendObjectToSelf(PMGR_GIVE_SERVICE_A_TASK_RETURN_MSG, reply);
    ObjReleaseInternal(&reply);
}

int32_t giveTask(const void *address, const char *firstText, const char *secondText, BOOL connectBack, void *taskObject,
                 int32_t uniqueId, void *contextObject) {
    const PROC_ADDRESS *service = addressOf(address);
    if (service == nullptr || service->pszProcess == nullptr ||
        (taskObject != nullptr && !ObjHasValidGlobalMagic(taskObject)))
        return PROC_ERROR_INVALID_ARGUMENTS;
    Held<MSG_ADDRESS> procMgr;
    if (!procMgrOf(procMgr.out(), service->pszMachine)) return PROC_ERROR_MACHINE_UNKNOWN;
    int32_t code = PROC_ERROR_NONE;
    Held<void> request;
    request.object =
        newRequest(service, firstText, secondText, connectBack, taskObject, uniqueId, contextObject, &code);
    if (request.object == nullptr) return code;
    if (MsgSendObject(procMgr.object, PMGR_GIVE_SERVICE_A_TASK_MSG, request.object)) return PROC_ERROR_NONE;
    // The message layer may have filed a failure for the machine going
    // down; this failure answers the request instead.
    fh::msgDropPending(uniqueId, service);
    return PROC_ERROR_TRANSMISSION;
}

// ---- Messages to a process manager ----

// Sends a body of one address (and, for the kill, a number) to the process
// manager of that address's machine.
template <typename T>
bool sendAboutAddress(const Type<T> &type, int32_t messageType, MSG_ADDRESS *about, int32_t number = 0) {
    Held<MSG_ADDRESS> procMgr;
    if (!procMgrOf(procMgr.out(), about->pszMachine)) return false;
    Held<T> body;
    body.object = type.newInstance(nullptr);
    ObjIncRefCount(about);
    body.object->oAddress = about;
    if constexpr (requires { body.object->iNumber; }) body.object->iNumber = number;
    return MsgSendObject(procMgr.object, messageType, body.object);
}

// The sender that source names: a message's, or the address's.
MSG_ADDRESS *senderOf(const void *source) {
    MSG_ADDRESS *sender = nullptr;
    if (!MsgGetSender(&sender, source)) MsgSenderAddressFromSourceAddress(&sender, source);
    return sender;
}

template <typename T>
BOOL deathNotice(const void *source, const Type<T> &type, int32_t messageType, TraceId id, const char *text,
                 TraceId failedId, const char *failedText) {
    Held<MSG_ADDRESS> sender;
    sender.object = senderOf(source);
    if (sender.object == nullptr || sender.object->pszMachine == nullptr) {
        trace(failedId, 0, -1, "%s", failedText);
        return FALSE;
    }
    trace(id, 0, 2, text, sender.object->pszMachine, static_cast<long>(sender.object->iProcess));
    return sendAboutAddress(type, messageType, sender.object);
}

// ---- Error texts ----

struct ErrorText {
    int32_t number; // of the catalogue
    const char *text;
};
constexpr int32_t kFirstCode = -1;
constexpr ErrorText kErrorTexts[] = {
    {568, "Unknown Error"},
    {569, "No Error"},
    {570, "Error Starting Process"},
    {571, "Error Shutting down process"},
    {572, "Security Access Failed"},
    {573, "Password Error"},
    {574, "Progress Unavailable"},
    {575, "Cancelled"},
    {576, "Invalid Arguments"},
    {577, "GUI Proxy Died"},
    {578, "The remote machine is unavailable"},
    {579, "No GUI Connection"},
    {580, "Unsupported interface"},
    {581, "No more processes permitted"},
    {582, "Service already running"},
    {583, "Failed to spawn new process"},
    {584, "Failed to resolve name of process"},
    {585, "Failed to adopt process"},
    {586, "The remote machine is unreachable"},
    {587, "The remote machine is unknown"},
    {588, "Transmission failure"},
    {589, "The remote machine cannot be remotely controlled"},
    {590, "A plugin died unexpectedly"},
};
static_assert(std::size(kErrorTexts) == PROC_ERROR_PLUGIN_DIED - kFirstCode + 1, "one text per code");
constexpr ErrorText kOtherCode{591, "Unknown Error"};

char gErrorBuffer[160];

} // namespace

void fh::procApiFailTemplate(int32_t reportCode) { gFailReportCode = reportCode; }

// ---- Tasks ----

BOOL ProcGiveServiceATaskExt(const void *address, const char *firstText, const char *secondText, BOOL connectBack,
                             void *taskObject, int32_t uniqueId, void *contextObject) {
    const int32_t code = giveTask(address, firstText, secondText, connectBack, taskObject, uniqueId, contextObject);
    if (code == PROC_ERROR_NONE) return TRUE;
    replyToSelf(code, uniqueId, address);
    return FALSE;
}

BOOL ProcGiveServiceATask(const void *address, const char *firstText, const char *secondText, BOOL connectBack,
                          void *taskObject, int32_t uniqueId) {
    return ProcGiveServiceATaskExt(address, firstText, secondText, connectBack, taskObject, uniqueId, nullptr);
}

BOOL ProcGiveServiceATaskWithID(int32_t *uniqueId, const void *address, const char *firstText, const char *secondText,
                                BOOL connectBack, void *taskObject) {
    const int32_t id = ++gLastUniqueId;
    trace(kIdGiving, 0, 2, "Giving task with unique id %ld", static_cast<long>(id));
    if (!ProcGiveServiceATask(address, firstText, secondText, connectBack, taskObject, id)) return FALSE;
    if (uniqueId != nullptr) *uniqueId = id;
    return TRUE;
}

BOOL ProcGiveServiceATaskTags(PROC_GIVE_TASK_ARGS **args, int32_t first, ...) {
    PROC_GIVE_TASK_ARGS *filled = gArgsType.newInstance(nullptr);
    if (filled != nullptr && first == -2) {
        va_list pairs;
        va_start(pairs, first);
        ObjSetFromTagsVAListInternal(filled, pairs);
        va_end(pairs);
    }
    if (args != nullptr)
        *args = filled;
    else
        ObjReleaseInternal(&filled);
    return FALSE;
}

// ---- Addresses of services ----

BOOL ProcCreateAddress(PROC_ADDRESS **address, const char *machine, const char *processName, int32_t interfaceType) {
    if (address == nullptr || machine == nullptr || processName == nullptr) return FALSE;
    PROC_ADDRESS *made = gAddressType.newInstance(nullptr);
    if (made == nullptr) return FALSE;
    made->pszMachine = StrDuplicateIntoPool(machine, nullptr);
    made->pszProcess = StrDuplicateIntoPool(processName, nullptr);
    made->iInterfaceType = interfaceType;
    *address = made;
    return TRUE;
}

const char *ProcGetProcessNameFromAddress(const void *address) {
    const PROC_ADDRESS *a = addressOf(address);
    return a != nullptr ? a->pszProcess : nullptr;
}

int32_t ProcGetInterfaceTypeFromAddress(const void *address) {
    const PROC_ADDRESS *a = addressOf(address);
    return a != nullptr ? interfaceOf(a) : -1;
}

BOOL ProcAddressEqual(const void *first, const void *second) {
    const PROC_ADDRESS *a = addressOf(first), *b = addressOf(second);
    return a != nullptr && b != nullptr && interfaceOf(a) == interfaceOf(b) && sameName(a->pszMachine, b->pszMachine) &&
           sameName(a->pszProcess, b->pszProcess);
}

// ---- The process manager's services ----

BOOL ProcChangeFromReady(void) { return MsgSendObject(MsgProcMgrAddress(), PMGR_CHANGE_FROM_READY_MSG, nullptr); }

BOOL ProcKillProcess(const void *address, int32_t number) {
    Held<MSG_ADDRESS> process;
    if (!MsgSenderAddressFromSourceAddress(process.out(), address) || process.object->pszMachine == nullptr)
        return FALSE;
    return sendAboutAddress(gKillType, PMGR_KILL_PROCESS_MSG, process.object, number);
}

BOOL ProcInformOnDeath(const void *source) {
    return deathNotice(source, gNotifyType, PMGR_NOTIFY_ON_DEATH_MSG, kIdInformOnDeath,
                       "Ask to be notified if %s:%ld dies", kIdInformNoAddress,
                       "Cannot get address for inform on death");
}

BOOL ProcCancelInformOnDeath(const void *source) {
    return deathNotice(source, gCancelType, PMGR_CANCEL_NOTIFY_ON_DEATH_MSG, kIdCancelInform,
                       "Cancel notification of death if %s:%ld dies", kIdCancelNoAddress,
                       "Cannot get address for canceling inform on death");
}

BOOL ProcIsProcessRunning(int32_t processId, const char *machine) {
    Held<MSG_ADDRESS> process, procMgr;
    Held<PMGR_GET_PROCESS_STATE> asked;
    Held<void> reply;
    if (machine == nullptr || !MsgCreateAddress(process.out(), machine, processId) ||
        !procMgrOf(procMgr.out(), machine) || (asked.object = gStateType.newInstance(nullptr)) == nullptr)
        return FALSE;
    ObjIncRefCount(asked.object->oAddress = process.object);
    if (!MsgWaitInterchangeInternal(reply.out(), procMgr.object, PMGR_GET_PROCESS_STATE_MSG, asked.object,
                                    PMGR_GET_PROCESS_STATE_RETURN_MSG, PMGR_GET_PROCESS_STATE_RETURN_MAGIC))
        return FALSE;
    const auto *state = fh::objectShaped<PMGR_GET_PROCESS_STATE_RETURN>(
        reply.object, PMGR_GET_PROCESS_STATE_RETURN_MAGIC, PMGR_GET_PROCESS_STATE_RETURN_FORMAT);
    const bool running = state != nullptr && state->iState != PROC_STATE_UNKNOWN;
    if (running)
        trace(kIdRunning, 0, 2, "Process %ld is running on %s.", static_cast<long>(processId), machine);
    else
        trace(kIdNotRunning, 0, 2, "Process %ld is not running on %s.", static_cast<long>(processId), machine);
    return running;
}

BOOL ProcSetProcessContextObject(const void *address, void *object) {
    Held<MSG_ADDRESS> peer;
    peer.object = senderOf(address);
    const char *machine = peer.object != nullptr ? peer.object->pszMachine : nullptr;
    if (!takesNewTasks(machine)) {
        trace(kIdOldMachine, 0, 1, "Wont send set-process-context to old machine '%s'", machine != nullptr ? machine : "");
        return FALSE;
    }
    Held<SET_PROCESS_CONTEXT_REQUEST> request;
    request.object = gContextRequestType.newInstance(nullptr);
    if (request.object == nullptr) return FALSE;
    if ((request.object->oObject = object) != nullptr) ObjIncRefCount(object);
    const bool sent = MsgSendObject(address, MSG_SET_PROCESS_CONTEXT_REQUEST_MSG, request.object);
    if (sent)
        trace(kIdContextSent, 0, 2, "Sent set-process-context msg to machine '%s'", machine);
    else
        trace(kIdContextNotSent, 0, 1, "Failed to send set-process-context msg to machine '%s'", machine);
    return sent;
}

const char *ProcErrorString(int32_t code) {
    if (code >= kFirstCode && code <= PROC_ERROR_PLUGIN_DIED) {
        const ErrorText &e = kErrorTexts[code - kFirstCode];
        return LocaleGetStaticString(e.text, e.number);
    }
    snprintf(gErrorBuffer, sizeof gErrorBuffer, "%s - %ld", LocaleGetStaticString(kOtherCode.text, kOtherCode.number),
             static_cast<long>(code));
    return gErrorBuffer;
}

// ---- The module ----

BOOL ProcApiInitialize(void) {
    for (int32_t i = 0; i < static_cast<int32_t>(std::size(kReportedTypes)); ++i) {
        const int32_t report = kFirstReportCode + i;
        if (report == gFailReportCode || !kReportedTypes[i]->declare()) {
            printf("ProcAPI %d\n", static_cast<int>(report));
            fflush(stdout);
            return FALSE;
        }
    }
    for (fh::DeclaredType *type : kOtherTypes)
        if (!type->declare()) return FALSE;
    return TaskInitialize();
}

BOOL ProcApiInitializeThread(void) { return TRUE; }

void ProcApiReleaseThread(LmContext *) {}
