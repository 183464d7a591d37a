// msgwait.cpp - the message wait: handlers, default handlers, and the waits
// that serve everything else while they wait for one reply.
//
// The context holds the handler list (LIST of MSG_WAIT_HANDLER), newest
// first, and the wait depth: the number of handler runs under way. A walk
// of the list may meet a change of it: an entry added during the walk goes
// to the front, behind the walker; an entry removed while the depth is
// above 0 is only marked (bRemoved, and the context's removal flag), so no
// node that a walk stands on is ever freed. Marked entries go when a
// handler run brings the depth back to 0.
//
// A wait keeps what no handler took in a list of its own while the depth is
// above 0 (or the program keeps unhandled messages), and puts it back at the
// front of the receive list when it ends, from the last to the first, so
// that the level below finds it in its old order ahead of anything newer.
//
// Bodies of messages come from any sender: a default handler reads one only
// when its magic and its whole format are those of the type it expects, and
// an object field of it only after checking that field's own type.
#include "core/msgwait.h"

#include <cstring>

#include "core/list.h"
#include "core/memory.h"
#include "core/msg.h"
#include "core/msgreceive.h"
#include "core/msgsend.h"
#include "core/channel.h"
#include "core/objwrappers.h"
#include "core/proc.h"
#include "core/strbase.h"
#include "core/timer.h"
#include "core/trace.h"
#include "messages/msgcmgr.h"
#include "messages/msgmsg.h"
#include "messages/msgpmgr.h"
#include "messages/msgtimer.h"
#include "messages/msgtrace.h"
#include "msgbody.h"
#include "msgchannel.h"
#include "objcore.h"
#include "seams.h"
#include "tracer.h"

namespace {

constexpr fh::ModuleTracer trace{"MSGWAIT        "};

// Trace ids of this module; fixed once chosen.
enum TraceId : int32_t {
    kIdBadArgument = 1,
    kIdDefault = 2,
    kIdNotHandled = 3,
    kIdWait = 4,
    kIdSourceGone = 5,
    kIdPoll = 6,
    kIdExclusive = 7,
    kIdCallback = 8,
    kIdInterchange = 9,
    kIdUnplaced = 10,
};

constinit fh::ObjectType<MSG_WAIT_HANDLER> gHandlerType{MSG_WAIT_HANDLER_MAGIC, MSG_WAIT_HANDLER_FORMAT};

// The immediate timeout of the polls, made by MsgWaitInitialize.
TIME_TIMEOUT gImmediate{0, 0};

// What the default handlers do beyond the process (seams.h).
constexpr fh::MsgWaitActions kLibraryActions{MsgChannelOpenInternal, MsgChannelCompleteInternal, [] { ProcCleanup(0); }};
fh::MsgWaitActions gActions = kLibraryActions;

void endProcess() {
    if (gActions.endProcess != nullptr) gActions.endProcess();
}

MemPool *pool() { return MemGetDefaultPoolId(); }
LIST *handlers() { return static_cast<LIST *>(gtLmContext.oMsgWaitHandlers); }
MSG_WAIT_HANDLER *entryOf(const LISTNODE *node) { return static_cast<MSG_WAIT_HANDLER *>(node->oItem); }
const char *nameOf(int32_t type) { return MsgNameWithBuffer(type, nullptr, 0); }

bool ends(int32_t result) { return result != eMsgWaitResultHandled && result != eMsgWaitResultNotHandled; }

// ---- The handler list ----

void removeMarked() {
    for (LISTNODE *node = handlers()->oFirst, *next = nullptr; node != nullptr; node = next) {
        next = node->oNext;
        if (entryOf(node)->bRemoved) ListRemoveItem(node);
    }
    gtLmContext.bMsgWaitRemovals = FALSE;
}

// Removes the first live entry that matches: marked inside a handler run,
// at once outside. False if none.
template <typename Match> bool removeFirst(Match match) {
    if (handlers() == nullptr) return false;
    for (LISTNODE *node = handlers()->oFirst; node != nullptr; node = node->oNext) {
        MSG_WAIT_HANDLER *entry = entryOf(node);
        if (entry->bRemoved || !match(entry)) continue;
        if (gtLmContext.iMsgWaitDepth > 0) {
            entry->bRemoved = TRUE;
            gtLmContext.bMsgWaitRemovals = TRUE;
        } else {
            ListRemoveItem(node);
        }
        return true;
    }
    return false;
}

// The handlers of the message's type, newest first, then (if none took it)
// the default handlers. A wait removes marked entries when the run brings
// the depth back to 0; a poll leaves them.
int32_t runHandlers(MSG_MESSAGE *message, bool removeAtZero) {
    int32_t result = eMsgWaitResultNotHandled;
    ++gtLmContext.iMsgWaitDepth;
    for (LISTNODE *node = handlers() != nullptr ? handlers()->oFirst : nullptr; node != nullptr; node = node->oNext) {
        const MSG_WAIT_HANDLER *entry = entryOf(node);
        if (entry->bRemoved || entry->pfnRoutine == nullptr || entry->iType != message->iType) continue;
        result = entry->pfnRoutine(message, entry->oCookie);
        if (result == eMsgWaitResultExit) endProcess();
        if (result != eMsgWaitResultNotHandled) break;
    }
    if (--gtLmContext.iMsgWaitDepth == 0 && removeAtZero && gtLmContext.bMsgWaitRemovals) removeMarked();
    return result == eMsgWaitResultNotHandled ? MsgWaitDefaultHandlers(message) : result;
}

// ---- Default handlers ----

int32_t ipcLost(MSG_MESSAGE *) {
    trace(kIdDefault, 0, -1, "Fatal error on IPC connection, die");
    endProcess();
    return eMsgWaitResultExit;
}

int32_t killYourself(MSG_MESSAGE *) {
    trace(kIdDefault, 0, -1, "Been asked to die");
    endProcess();
    return eMsgWaitResultExit;
}

int32_t unknownReply(MSG_MESSAGE *message) {
    if (const auto *body = fh::shapedAs<MSG_UNKNOWN>(message->oObject, MSG_UNKNOWN_MAGIC, MSG_UNKNOWN_FORMAT)) {
        trace(kIdDefault, 0, 2, "Message of type %ld was unexpected by client", static_cast<long>(body->iType));
        trace(kIdDefault, 0, 2, "Reason given: %s", body->pszReason != nullptr ? body->pszReason : "");
    }
    return eMsgWaitResultHandled;
}

int32_t taskReturn(MSG_MESSAGE *message) {
    const auto *body = fh::shapedAs<PMGR_GIVE_SERVICE_A_TASK_RETURN>(
        message->oObject, PMGR_GIVE_SERVICE_A_TASK_RETURN_MAGIC, PMGR_GIVE_SERVICE_A_TASK_RETURN_FORMAT);
    if (body == nullptr) {
        trace(kIdDefault, 0, 0, "Invalid task reply message");
        return eMsgWaitResultError;
    }
    if (body->bTaken) {
        trace(kIdDefault, 0, 2, "Started process OK");
        return eMsgWaitResultHandled;
    }
    trace(kIdDefault, body->iError, 0, "Process failed to start (error %ld)", static_cast<long>(body->iError));
    return eMsgWaitResultError;
}

// A task: with a connection asked for now, a data channel back to the
// caller, which waits for our OK on it.
int32_t taskArrived(MSG_MESSAGE *message) {
    if (message->oObject == nullptr) return eMsgWaitResultNotHandled;
    // The extended form begins as the plain one.
    const PMGR_TASK *task = fh::shapedAs<PMGR_TASK>(message->oObject, PMGR_TASK_MAGIC, PMGR_TASK_FORMAT);
    if (task == nullptr)
        task = fh::shapedAs<PMGR_TASK>(message->oObject, PMGR_TASK_EXT_MAGIC, PMGR_TASK_EXT_FORMAT);
    if (task != nullptr && task->iConnectNow != 1) return eMsgWaitResultNotHandled;
    const MSG_ADDRESS *caller = task != nullptr ? fh::msgAddressOf(task->oConnectBackTo) : nullptr;
    if (caller == nullptr) {
        trace(kIdDefault, 0, -1, "No valid task object");
        return eMsgWaitResultNotHandled;
    }
    trace(kIdDefault, 0, 2, "Connecting to GUI");
    gActions.openChannel(nullptr, caller, task->oTaskObject, nullptr, TRUE, FALSE, TRUE);
    return eMsgWaitResultHandled;
}

int32_t machineDown(MSG_MESSAGE *message) {
    const auto *body = fh::shapedAs<CMGR_MACHINE_DOWN>(message->oObject, CMGR_MACHINE_DOWN_MAGIC, CMGR_MACHINE_DOWN_FORMAT);
    if (body != nullptr)
        trace(kIdDefault, 0, 2, "Machine down: %s", body->pszMachine != nullptr ? body->pszMachine : "");
    return eMsgWaitResultHandled;
}

int32_t ping(MSG_MESSAGE *message) {
    MsgPong(message); // answers only a body of the ping's own shape
    return eMsgWaitResultHandled;
}

int32_t connectBack(MSG_MESSAGE *message) {
    gActions.completeChannel(nullptr, message, TRUE, FALSE, TRUE);
    return eMsgWaitResultHandled;
}

int32_t connected(MSG_MESSAGE *) {
    trace(kIdDefault, 0, 2, "Point-to-point connection was completed");
    return eMsgWaitResultHandled;
}

// A timer's body holds plain pointers: only this process can have made one
// (the object layer reads no such type from elsewhere).
int32_t timerFired(MSG_MESSAGE *message) {
    const auto *body = fh::shapedAs<TIMER_CALLBACK>(message->oObject, TIMER_CALLBACK_MAGIC, TIMER_CALLBACK_FORMAT);
    if (body == nullptr) {
        trace(kIdDefault, 0, 2, "Invalid timer message!");
        return eMsgWaitResultHandled;
    }
    trace(kIdDefault, 0, 2, "Timer callback: routine at %p, cookie is %p", reinterpret_cast<void *>(body->pfnRoutine),
          body->pCookie);
    if (body->pfnRoutine != nullptr) body->pfnRoutine(body->pCookie);
    return eMsgWaitResultHandled;
}

int32_t traceToFile(MSG_MESSAGE *message) {
    if (fh::shapedAs<OBJ_STRING>(message->oObject, OBJ_STRING_MAGIC, OBJ_STRING_FORMAT) != nullptr) {
        char *file = ObjGetString(message->oObject);
        trace(kIdDefault, 0, 2, "Trace to file %s", file != nullptr ? file : "");
    } else {
        TraceSetCallback(nullptr);
    }
    return eMsgWaitResultHandled;
}

struct DefaultRow {
    int32_t type;
    int32_t (*handler)(MSG_MESSAGE *message);
};
constexpr DefaultRow kDefaults[] = {
    {MSG_LOST_RECEIVE_QUEUE_MSG, ipcLost},
    {MSG_LOST_SEND_QUEUE_MSG, ipcLost},
    {MSG_UNEXPECTED_RECEIVE_ERROR_MSG, ipcLost},
    {MSG_UNEXPECTED_SEND_ERROR_MSG, ipcLost},
    {MSG_FATAL_SELECT_ERROR_MSG, ipcLost},
    {PMGR_KILL_YOURSELF_MSG, killYourself},
    {MSG_UNKNOWN_MSG, unknownReply},
    {PMGR_GIVE_SERVICE_A_TASK_RETURN_MSG, taskReturn},
    {PMGR_TASK_MSG, taskArrived},
    {CMGR_MACHINE_DOWN_MSG, machineDown},
    {MSG_PING_MSG, ping},
    {MSG_CONNECT_MSG, connectBack},
    {MSG_CONNECTED_MSG, connected},
    {TIMER_CALLBACK_MSG, timerFired},
    {TRACE_TO_FILE_MSG, traceToFile},
};

// ---- What a wait does with a message it doesn't want ----

// The messages that no handler took, to be put back when a wait ends.
class Unplaced {
  public:
    Unplaced() = default;
    ~Unplaced() {
        if (list_ == nullptr) return;
        for (LISTNODE *node = list_->oLast; node != nullptr; node = node->oPrevious)
            MsgRequeue(static_cast<const MSG_MESSAGE *>(node->oItem));
        ObjReleaseInternal(&list_);
    }
    Unplaced(const Unplaced &) = delete;
    Unplaced &operator=(const Unplaced &) = delete;

    // Runs the handlers; a message that none took is kept above depth 0 or
    // with the keep flag, and lost otherwise. The final result.
    int32_t serve(MSG_MESSAGE *message) {
        const int32_t result = runHandlers(message, true);
        if (result == eMsgWaitResultNotHandled) {
            trace(kIdUnplaced, 0, 2, "Message was not handled");
            if (gtLmContext.iMsgWaitDepth > 0 || gtLmContext.bMsgWaitKeepUnhandled) keep(message);
        }
        return result;
    }

  private:
    // The list is made for the first message kept: most waits keep none.
    void keep(MSG_MESSAGE *message) {
        if (list_ == nullptr) list_ = ListNewFromPool(MSG_MESSAGE_MAGIC, pool());
        ListAddLastItem(list_, message);
    }
    LIST *list_ = nullptr;
};

bool sameMachine(const char *name, const MSG_ADDRESS *source) {
    MSG_ADDRESS *sender = nullptr;
    const bool same = name != nullptr && MsgSenderAddressFromSourceAddress(&sender, source) &&
                      sender->pszMachine != nullptr && StrCompareNoCase(sender->pszMachine, name) == 0;
    ObjReleaseInternal(&sender);
    return same;
}

// The address field of a body of type T, when the body has T's shape and
// the field is an address.
template <typename T> const MSG_ADDRESS *addressIn(const void *body, uint32_t magic, const char *format) {
    const T *shaped = fh::shapedAs<T>(body, magic, format);
    return shaped != nullptr ? fh::msgAddressOf(shaped->oAddress) : nullptr;
}

// Whether message says that source can no longer answer; traced.
bool sourceGone(const MSG_MESSAGE *message, const MSG_ADDRESS *source) {
    const char *why = nullptr;
    switch (message->iType) {
    case CMGR_MACHINE_DOWN_MSG:
        if (const auto *body =
                fh::shapedAs<CMGR_MACHINE_DOWN>(message->oObject, CMGR_MACHINE_DOWN_MAGIC, CMGR_MACHINE_DOWN_FORMAT);
            body != nullptr && sameMachine(body->pszMachine, source))
            why = "Machine running desired source has gone down";
        break;
    case MSG_CHANNEL_DOWN_MSG:
        if (MsgIsFrom(message, source)) why = "Desired source has gone down";
        break;
    case PMGR_PROCESS_DIED_MSG:
        if (const MSG_ADDRESS *died = addressIn<PMGR_PROCESS_DIED>(message->oObject, PMGR_PROCESS_DIED_MAGIC,
                                                                   PMGR_PROCESS_DIED_FORMAT);
            died != nullptr && MsgAddressIsFrom(died, source))
            why = "Desired source has died";
        break;
    case CMGR_PROCESS_UNREACHABLE_MSG:
        if (const MSG_ADDRESS *lost = addressIn<CMGR_PROCESS_UNREACHABLE>(
                message->oObject, CMGR_PROCESS_UNREACHABLE_MAGIC, CMGR_PROCESS_UNREACHABLE_FORMAT);
            lost != nullptr && MsgAddressIsFrom(lost, source))
            why = "Desired source can't be reached";
        break;
    default:
        break;
    }
    if (why != nullptr) trace(kIdSourceGone, 0, -1, "%s", why);
    return why != nullptr;
}

bool wanted(const int32_t *types, int32_t type) {
    for (; *types != -1; ++types)
        if (*types == type) return true;
    return false;
}

// The names of types for a trace, when level 3 is traced; bounded.
struct TypeNames {
    char text[256] = "";
    explicit TypeNames(const int32_t *types) {
        if (!TraceWouldTrace(3)) return;
        size_t used = 0;
        for (; *types != -1 && used + 1 < sizeof text; ++types) {
            const int written = snprintf(text + used, sizeof text - used, "%s%s", used > 0 ? "," : "", nameOf(*types));
            used += written > 0 ? static_cast<size_t>(written) : 0;
        }
    }
};

// ---- The exclusive wait, on packets ----

MsgPacketAddress sourceOf(const MSG_PACKET *packet) {
    const auto *image = static_cast<const unsigned char *>(packet->oImage.pData);
    return {fh::msgGetLe32(image + 8), fh::msgGetLe32(image + 12)};
}

// What a packet means to the exclusive wait; eMsgWaitResultTimeout for one
// to hold and put back.
int32_t exclusiveVerdict(const MSG_PACKET *packet, const MsgPacketAddress &from, const MSG_ADDRESS *source,
                         int32_t type, MSG_MESSAGE **message) {
    const int32_t has = MsgPacketMsgType(packet);
    if (has == 0) return eMsgWaitResultTimeout; // not a sound image: held as it is
    const MsgPacketAddress sender = sourceOf(packet);
    const bool fromSource = sender.iMachine == from.iMachine && sender.iProcess == from.iProcess;
    if (has == type && fromSource) {
        MSG_MESSAGE *m = nullptr;
        if (!MsgMessageFromPacket(&m, packet)) return eMsgWaitResultDecodeError;
        if (message != nullptr) *message = m;
        else ObjReleaseInternal(&m);
        return eMsgWaitResultSuccess;
    }
    if (has == PMGR_KILL_YOURSELF_MSG) {
        trace(kIdExclusive, 0, -1, "Been asked to die");
        return eMsgWaitResultKillRequest;
    }
    if (has == MSG_CHANNEL_DOWN_MSG && fromSource) {
        trace(kIdExclusive, 0, -1, "Desired source has gone down");
        return eMsgWaitResultChannelError;
    }
    if (has == PMGR_PROCESS_DIED_MSG) {
        const fh::Body<PMGR_PROCESS_DIED> body(packet, PMGR_PROCESS_DIED_MAGIC, PMGR_PROCESS_DIED_FORMAT);
        const MSG_ADDRESS *died = body ? fh::msgAddressOf(body->oAddress) : nullptr;
        if (died != nullptr && MsgAddressIsFrom(died, source)) {
            trace(kIdExclusive, 0, -1, "Desired source has died");
            return eMsgWaitResultPeerDied;
        }
    }
    if (has == MSG_FATAL_SELECT_ERROR_MSG || (has >= MSG_LOST_RECEIVE_QUEUE_MSG && has <= MSG_UNEXPECTED_SEND_ERROR_MSG)) {
        trace(kIdExclusive, 0, -1, "Fatal error on IPC connection");
        return eMsgWaitResultIpcError;
    }
    return eMsgWaitResultTimeout;
}

BOOL interchange(void **object, const void *address, int32_t sendType, const void *sendObject, int32_t replyType,
                 uint32_t replyMagic, const TIME_TIMEOUT *timeout) {
    if (!MsgSendObject(address, sendType, sendObject)) {
        trace(kIdInterchange, 0, 2, "Failed to send message %s", nameOf(sendType));
        return FALSE;
    }
    MSG_MESSAGE *reply = nullptr;
    if (!MsgWaitMessageWithTimeout(&reply, address, replyType, timeout)) return FALSE;
    void *body = nullptr;
    BOOL result = TRUE;
    if (replyMagic == 0) {
        if ((body = reply->oObject) != nullptr) ObjIncRefCount(body);
    } else {
        result = MsgGetObjectInternal(&body, reply, replyMagic);
    }
    if (object != nullptr && result) *object = body;
    else ObjReleaseInternal(&body);
    ObjReleaseInternal(&reply);
    return result;
}

} // namespace

// ---- Handlers ----

BOOL MsgWaitAddHandler(int32_t type, MsgWaitHandlerFunction routine, void *cookie) {
    if (routine == nullptr || handlers() == nullptr || (cookie != nullptr && !ObjHasValidGlobalMagic(cookie)))
        return trace.fault(FALSE, kIdBadArgument, 0, "MsgWaitAddHandler(%ld, %p, %p) - bad arguments",
                           static_cast<long>(type), reinterpret_cast<void *>(routine), cookie);
    MSG_WAIT_HANDLER *entry = gHandlerType.newInstance(pool());
    entry->iType = type;
    entry->pfnRoutine = routine;
    if ((entry->oCookie = cookie) != nullptr) ObjIncRefCount(cookie);
    return ListPushFirstItemInternal(handlers(), &entry) || (ObjReleaseInternal(&entry), false);
}

BOOL MsgWaitRemoveHandler(int32_t type, MsgWaitHandlerFunction routine, void *cookie) {
    return removeFirst([&](const MSG_WAIT_HANDLER *e) {
        return e->iType == type && e->pfnRoutine == routine && e->oCookie == cookie;
    });
}

void MsgWaitRemoveHandlerByCookie(void *cookie) {
    if (cookie == nullptr || !ObjHasValidGlobalMagic(cookie)) return;
    while (removeFirst([&](const MSG_WAIT_HANDLER *e) { return e->oCookie == cookie; })) {}
}

void MsgWaitDisableDefaultHandlers(void) { gtLmContext.bMsgWaitNoDefaults = TRUE; }
void MsgWaitKeepUnhandledMessages(void) { gtLmContext.bMsgWaitKeepUnhandled = TRUE; }
int32_t MsgWaitDepth(void) { return gtLmContext.iMsgWaitDepth; }

int32_t MsgWaitDefaultHandlers(MSG_MESSAGE *message) {
    if (fh::msgMessageOf(message) == nullptr)
        return trace.fault(int32_t{eMsgWaitResultInvalidArgument}, kIdBadArgument, 0,
                           "MsgWaitDefaultHandlers(%p) - not a message", static_cast<void *>(message));
    int32_t result = eMsgWaitResultNotHandled;
    if (!gtLmContext.bMsgWaitNoDefaults)
        for (const DefaultRow &row : kDefaults)
            if (row.type == message->iType) {
                result = row.handler(message);
                break;
            }
    if (result == eMsgWaitResultNotHandled)
        trace(kIdNotHandled, message->iType, -1, "Message '%s' not handled a depth %ld", nameOf(message->iType),
              static_cast<long>(gtLmContext.iMsgWaitDepth));
    return result;
}

const char *MsgWaitResultString(int32_t code) {
#define FH_MSG_WAIT_RESULT_NAME(name, value)                                                                           \
    case value:                                                                                                        \
        return #name;
    switch (code) { FH_MSG_WAIT_RESULTS(FH_MSG_WAIT_RESULT_NAME) }
#undef FH_MSG_WAIT_RESULT_NAME
    return "UNKNOWN";
}

// ---- Waiting ----

BOOL MsgWaitMultipleMessagesWithTimeout(MSG_MESSAGE **message, const void *source, const int32_t *types,
                                        const TIME_TIMEOUT *timeout) {
    const MSG_ADDRESS *from = fh::msgAddressOf(source);
    if (types == nullptr || (source != nullptr && from == nullptr))
        return trace.fault(FALSE, kIdBadArgument, 0, "MsgWaitMultipleMessagesWithTimeout(%p, %p, %p, %p) - bad arguments",
                           static_cast<void *>(message), source, static_cast<const void *>(types), timeout);
    const TypeNames names(types);
    const long depth = gtLmContext.iMsgWaitDepth;
    trace(kIdWait, 0, 3, "MsgWaitMultipleMessagesWithTimeout(%p, %p, %s %p) level %ld", static_cast<void *>(message),
          source, names.text, timeout, depth);
    MSG_ADDRESS *held = const_cast<MSG_ADDRESS *>(from);
    if (held != nullptr) ObjIncRefCount(held);
    BOOL got = FALSE;
    {
        Unplaced unplaced;
        for (bool finished = false; !finished && !TimeTimeoutHasExpired(timeout);) {
            MSG_MESSAGE *m = nullptr;
            if (!MsgReceive(&m, timeout)) continue;
            if (wanted(types, m->iType) && (held == nullptr || MsgIsFrom(m, held))) {
                got = TRUE;
                if (message != nullptr) *message = m;
                else ObjReleaseInternal(&m);
                break;
            }
            finished = ends(unplaced.serve(m)) || (held != nullptr && sourceGone(m, held));
            ObjReleaseInternal(&m);
        }
    }
    ObjReleaseInternal(&held);
    trace(kIdWait, 0, 3, "%s = MsgWaitMessageWithTimeout(%p, %p, %s %p) level %ld", fh::boolText(got),
          static_cast<void *>(message), source, names.text, timeout, depth);
    return got;
}

BOOL MsgWaitMessageWithTimeout(MSG_MESSAGE **message, const void *source, int32_t type, const TIME_TIMEOUT *timeout) {
    const int32_t types[] = {type, -1};
    return MsgWaitMultipleMessagesWithTimeout(message, source, types, timeout);
}

int32_t MsgWaitOnCallbackWithTimeout(MsgWaitCallbackFunction callback, void *cookie, const TIME_TIMEOUT *timeout) {
    if (callback == nullptr)
        return trace.fault(int32_t{eMsgWaitResultInvalidArgument}, kIdBadArgument, 0,
                           "MsgWaitOnCallbackWithTimeout(null, %p, %p)", cookie, timeout);
    int32_t result = -1;
    Unplaced unplaced;
    while (callback(&result, cookie) != TRUE) {
        if (TimeTimeoutHasExpired(timeout)) return eMsgWaitResultTimeout;
        MSG_MESSAGE *m = nullptr;
        if (!MsgReceive(&m, timeout)) continue;
        trace(kIdCallback, 0, 3, "Check %ld handlers", static_cast<long>(handlers() != nullptr ? handlers()->iCount : 0));
        const int32_t served = unplaced.serve(m);
        ObjReleaseInternal(&m);
        if (ends(served)) return served;
    }
    return result;
}

BOOL MsgWaitPollWithTimeoutAndFilter(const TIME_TIMEOUT *timeout, MsgWaitHandlerFunction filter, void *cookie) {
    for (MSG_MESSAGE *m = nullptr; MsgReceive(&m, timeout); timeout = &gImmediate) {
        trace(kIdPoll, 0, 2, "MsgWaitPoll: got message %s", nameOf(m->iType));
        int32_t result = filter != nullptr ? filter(m, cookie) : eMsgWaitResultNotHandled;
        if (result == eMsgWaitResultNotHandled) result = runHandlers(m, false);
        ObjReleaseInternal(&m);
        if (ends(result)) return FALSE;
    }
    return TRUE;
}

BOOL MsgWaitPollWithTimeout(const TIME_TIMEOUT *timeout) { return MsgWaitPollWithTimeoutAndFilter(timeout, nullptr, nullptr); }
BOOL MsgWaitPoll(void) { return MsgWaitPollWithTimeout(&gImmediate); }

int32_t MsgWaitExclusiveWithTimeout(MSG_MESSAGE **message, const void *source, int32_t type,
                                    const TIME_TIMEOUT *timeout) {
    const MSG_ADDRESS *from = fh::msgAddressOf(source);
    if (from == nullptr)
        return trace.fault(int32_t{eMsgWaitResultInvalidArgument}, kIdBadArgument, 0,
                           "MsgWaitExclusiveWithTimeout(%p, %p, %ld, %p) - no source", static_cast<void *>(message),
                           source, static_cast<long>(type), timeout);
    if (!MsgIsLocalMachine(from)) {
        trace(kIdExclusive, 0, -1, "MsgWaitExclusiveWithTimeout is only valid on local machine");
        return eMsgWaitResultInvalidArgument;
    }
    const MsgPacketAddress pair{MsgIsAChannel(from) ? MSG_MACHINE_CHANNEL : MSG_MACHINE_LOCAL, from->iProcess};
    LIST *held = ListNewFromPool(MSG_PACKET_MAGIC, pool());
    int32_t result = eMsgWaitResultTimeout;
    while (result == eMsgWaitResultTimeout && !TimeTimeoutHasExpired(timeout)) {
        MSG_PACKET *packet = nullptr;
        if (!MsgReceivePacket(&packet, timeout)) continue;
        result = exclusiveVerdict(packet, pair, from, type, message);
        if (result == eMsgWaitResultTimeout) ListAddLastItem(held, packet);
        ObjReleaseInternal(&packet);
    }
    for (LISTNODE *node = held->oLast; node != nullptr; node = node->oPrevious)
        MsgRequeuePacket(static_cast<MSG_PACKET *>(node->oItem));
    ObjReleaseInternal(&held);
    return result;
}

BOOL MsgWaitInterchangeInternal(void **object, const void *address, int32_t sendType, const void *sendObject,
                                int32_t replyType, uint32_t replyMagic) {
    return interchange(object, address, sendType, sendObject, replyType, replyMagic, nullptr);
}

BOOL MsgWaitInterchangeTimeoutInternal(void **object, const void *address, int32_t sendType, const void *sendObject,
                                       int32_t replyType, uint32_t replyMagic, int32_t seconds) {
    if (seconds == 0) return interchange(object, address, sendType, sendObject, replyType, replyMagic, nullptr);
    TIME_TIMEOUT *timeout = nullptr;
    if (!TimeCreateAndSetTimeout(&timeout, seconds, 0)) return FALSE;
    const BOOL result = interchange(object, address, sendType, sendObject, replyType, replyMagic, timeout);
    ObjReleaseInternal(&timeout);
    return result;
}

// ---- Seams ----

void fh::msgWaitSetActions(const MsgWaitActions *actions) {
    const MsgWaitActions chosen = actions != nullptr ? *actions : kLibraryActions;
    gActions.openChannel = chosen.openChannel != nullptr ? chosen.openChannel : kLibraryActions.openChannel;
    gActions.completeChannel =
        chosen.completeChannel != nullptr ? chosen.completeChannel : kLibraryActions.completeChannel;
    gActions.endProcess = chosen.endProcess;
}

// ---- Life cycle ----

BOOL MsgWaitInitialize(void) { return TimeSetTimeoutImmediate(&gImmediate) && gHandlerType.declare(); }

BOOL MsgWaitInitializeThread(LmContext *context) {
    context->iMsgWaitDepth = 0;
    context->bMsgWaitRemovals = FALSE;
    return ListCreateFromPool(reinterpret_cast<LIST **>(&context->oMsgWaitHandlers), MSG_WAIT_HANDLER_MAGIC, pool());
}

void MsgWaitReleaseThread(LmContext *context) { ObjReleaseInternal(&context->oMsgWaitHandlers); }
