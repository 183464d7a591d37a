// msgsend.cpp - messaging: sending packets, and the receive list.
//
// The receive list (a LIST of MSG_PACKET in the context) takes packets at
// its end in the order things happened. A packet to a channel address goes
// to that channel; any other goes over the IPC channel, and the route field
// tells the communication manager the rest. When the IPC channel takes
// nothing, MSG_LOST_SEND_QUEUE_MSG goes on the list and the context lets go
// of the channel.
#include "core/msgsend.h"

#include "core/channel.h"
#include "core/context.h"
#include "core/list.h"
#include "core/msgreceive.h"
#include "core/objwrappers.h"
#include "core/strbase.h"
#include "core/timeout.h"
#include "messages/msgmsg.h"
#include "messages/msgpmgr.h"
#include "msgchannel.h"
#include "msgself.h"
#include "objcore.h"
#include "tracer.h"

namespace {

constexpr fh::ModuleTracer trace{"MESSAGE        "};

enum TraceId : int32_t {
    kIdBadSend = 70,
    kIdLostSend = 71,
    kIdNoChannel = 72,
    kIdUnknownTask = 73,
    kIdUndecodable = 74,
    kIdNotifyOnDeath = 75,
    kIdProxyPeer = 76,
    kIdPong = 77,
    kIdBadReply = 78,
};

constexpr uint32_t kProxySourceMagic = 0xC8B8B32Fu;
constexpr int32_t kMachineDownCode = 9;

LIST *receiveList() { return static_cast<LIST *>(gtLmContext.oMsgReceiveList); }

// The bodies that the message layer makes itself. Each may also arrive
// from another process, so each is receivable.
constinit fh::ObjectType<MSG_UNKNOWN> gUnknownType{MSG_UNKNOWN_MAGIC, MSG_UNKNOWN_FORMAT, fh::kReceivable};
constinit fh::ObjectType<MSG_ERROR> gErrorType{MSG_ERROR_MAGIC, MSG_ERROR_FORMAT, fh::kReceivable};
constinit fh::ObjectType<MSG_PING> gPingType{MSG_PING_MAGIC, MSG_PING_FORMAT, fh::kReceivable};
constinit fh::ObjectType<PMGR_GIVE_SERVICE_A_TASK_RETURN> gTaskReturnType{
    PMGR_GIVE_SERVICE_A_TASK_RETURN_MAGIC, PMGR_GIVE_SERVICE_A_TASK_RETURN_FORMAT, fh::kReceivable};
constinit fh::ObjectType<PMGR_PROCESS_DIED> gProcessDiedType{PMGR_PROCESS_DIED_MAGIC, PMGR_PROCESS_DIED_FORMAT,
                                                              fh::kReceivable};
constexpr fh::DeclaredType *kBodyTypes[] = {&gUnknownType, &gErrorType, &gPingType, &gTaskReturnType,
                                            &gProcessDiedType};

// The object's magic and format are exactly these.
bool isShaped(const void *object, uint32_t magic, const char *format) {
    return fh::objectShaped(object, magic, format) != nullptr;
}

// Remembers a task request leaving for another machine: a prepared
// failure at the end of the pending task list. The send goes on whatever
// happens here.
void rememberTask(const MSG_PACKET *packet) {
    void *body = nullptr;
    if (!MsgObjectFromPacketInternal(&body, packet, 0) || body == nullptr) {
        trace(kIdUndecodable, 0, -1, "Failed to decode message object");
        return;
    }
    // The extended form begins as the plain one.
    if (isShaped(body, PMGR_GIVE_SERVICE_A_TASK_MAGIC, PMGR_GIVE_SERVICE_A_TASK_FORMAT) ||
        isShaped(body, PMGR_GIVE_SERVICE_A_TASK_EXT_MAGIC, PMGR_GIVE_SERVICE_A_TASK_EXT_FORMAT)) {
        const auto *request = static_cast<const PMGR_GIVE_SERVICE_A_TASK *>(body);
        PMGR_GIVE_SERVICE_A_TASK_RETURN *reply =
            fh::msgNewTaskReturn(kMachineDownCode, request->iUniqueId, request->oService);
        auto *pending = static_cast<LIST *>(gtLmContext.oMsgPendingTaskList);
        if (reply != nullptr && (pending == nullptr || !ListPushLastItemInternal(pending, &reply)))
            ObjReleaseInternal(&reply);
    } else {
        trace(kIdUnknownTask, 0, -1, "Unknown task object");
    }
    ObjReleaseInternal(&body);
}

// The first field of an object whose format begins with an object.
void *firstObject(const void *object) {
    const char *format = object != nullptr ? ObjGetFormat(ObjGetTemplateFromObject(object)) : nullptr;
    return format != nullptr && format[0] == 'o' && format[1] == ';' ? *static_cast<void *const *>(object) : nullptr;
}

// What a successful send of some types does beside the send.
void afterSend(const void *address, int32_t type, const void *object) {
    if (type == PMGR_NOTIFY_ON_DEATH_MSG && isShaped(object, PMGR_NOTIFY_ON_DEATH_MAGIC, PMGR_NOTIFY_ON_DEATH_FORMAT)) {
        const MSG_ADDRESS *watched = fh::msgAddressOf(firstObject(object));
        if (watched != nullptr && !MsgIsLocalMachine(watched) && fh::msgNotifyOnDeathAdd(watched))
            trace(kIdNotifyOnDeath, 0, 2, "Notify process that %s:%ld has died if its machine goes down",
                  watched->pszMachine != nullptr ? watched->pszMachine : "", static_cast<long>(watched->iProcess));
    } else if (type == MSG_PROXY_SOURCE_MSG && object != nullptr && ObjCheckTypeInternal(object, kProxySourceMagic) &&
               MsgIsAChannel(address)) {
        MSG_CHANNEL *c = fh::msgChannelFind(MsgGetChannelId(address));
        if (c == nullptr) return;
        trace(kIdProxyPeer, 0, 2, "Setting proxy peer on local channel end point");
        ObjReleaseInternal(&c->oProxyPeer);
        if ((c->oProxyPeer = firstObject(object)) != nullptr) ObjIncRefCount(c->oProxyPeer);
    }
}

} // namespace

void fh::msgQueue(MSG_PACKET **packet) {
    if (!ListPushLastItemInternal(receiveList(), packet)) ObjReleaseInternal(packet);
}

void fh::msgQueueBare(int32_t type, const void *address) {
    MSG_PACKET *packet = msgBarePacket(type, address, address);
    if (packet != nullptr) msgQueue(&packet);
}

BOOL MsgReceivePushPacket(MSG_PACKET **packet) {
    if (packet == nullptr) return FALSE;
    if (ObjCheckTypeInternal(*packet, MSG_PACKET_MAGIC) && ListPushLastItemInternal(receiveList(), packet)) return TRUE;
    ObjReleaseInternal(packet);
    return FALSE;
}

BOOL MsgReceivePopPacket(MSG_PACKET **packet) { return ListPopFirstItemInternal(receiveList(), packet); }

int32_t MsgReceiveCount(void) { return receiveList() != nullptr ? receiveList()->iCount : 0; }

BOOL MsgDispatch(MSG_PACKET **packet) {
    if (packet == nullptr || fh::msgRefuseSelfDispatch(packet)) return FALSE;
    const int32_t type = MsgPacketMsgType(*packet);
    if (type == 0) {
        ObjReleaseInternal(packet);
        return FALSE;
    }
    const auto *image = static_cast<const unsigned char *>((*packet)->oImage.pData);
    if (fh::msgGetLe32(image + 16) == MSG_MACHINE_CHANNEL) {
        MSG_CHANNEL *channel = fh::msgChannelFind(fh::msgGetLe32(image + 20));
        if (channel == nullptr) {
            trace(kIdNoChannel, 0, 2, "No channel %ld for a message %ld", static_cast<long>(fh::msgGetLe32(image + 20)),
                  static_cast<long>(type));
            ObjReleaseInternal(packet);
            return FALSE;
        }
        return MsgChannelDispatch(channel, packet);
    }
    if (type == PMGR_GIVE_SERVICE_A_TASK_MSG && fh::msgGetLe32(image + 16) != MSG_MACHINE_LOCAL) rememberTask(*packet);
    auto *ipc = static_cast<MSG_CHANNEL *>(gtLmContext.oMsgIpcChannel);
    if (ipc != nullptr && MsgChannelDispatch(ipc, packet)) return TRUE;
    if (ipc == nullptr) ObjReleaseInternal(packet);
    trace(kIdLostSend, 0, 2, "Lost the send queue with a message %ld", static_cast<long>(type));
    fh::msgQueueBare(MSG_LOST_SEND_QUEUE_MSG, MsgLocalAddress());
    ObjReleaseInternal(&gtLmContext.oMsgIpcChannel);
    return FALSE;
}

BOOL MsgSendObject(const void *address, int32_t type, const void *object) {
    if (fh::msgAddressOf(address) == nullptr || (object != nullptr && !ObjHasValidGlobalMagic(object)))
        return trace.fault(FALSE, kIdBadSend, 0, "MsgSendObject(%p, %ld, %p) - bad arguments", address,
                           static_cast<long>(type), object);
    MSG_PACKET *packet = nullptr;
    if (!MsgCreatePacket(&packet, address, MsgLocalAddress(), type, object) || !MsgDispatch(&packet)) return FALSE;
    afterSend(address, type, object);
    return TRUE;
}

BOOL MsgSendReply(const void *message, int32_t type, const void *object) {
    MSG_ADDRESS *source = nullptr;
    if (!MsgGetSource(&source, message))
        return trace.fault(FALSE, kIdBadReply, 0, "MsgSendReply(%p, %ld) - not a message", message,
                           static_cast<long>(type));
    const BOOL sent = MsgSendObject(source, type, object);
    ObjReleaseInternal(&source);
    return sent;
}

void MsgError(const void *address, int32_t code, const char *text, const void *object) {
    MSG_ERROR *error = gErrorType.newInstance(nullptr);
    if (error == nullptr) return;
    error->iCode = code;
    error->pszText = text != nullptr ? StrDuplicateIntoPool(text, nullptr) : nullptr;
    if ((error->oObject = const_cast<void *>(object)) != nullptr) ObjIncRefCount(error->oObject);
    MsgSendObject(address, MSG_ERROR_MSG, error);
    ObjReleaseInternal(&error);
}

int32_t MsgErrorCode(void) { return gtLmContext.iMsgErrorCode; }

BOOL MsgPong(const void *message) {
    void *body = nullptr;
    if (!MsgGetObjectInternal(&body, message, MSG_PING_MAGIC)) return FALSE;
    BOOL sent = FALSE;
    if (isShaped(body, MSG_PING_MAGIC, MSG_PING_FORMAT)) {
        auto *ping = static_cast<MSG_PING *>(body);
        ping->iAnswered = fh::secondsToWire(TimeNow());
        trace(kIdPong, 0, 3, "Replied to ping (%ld,%ld)", static_cast<long>(ping->iSent),
              static_cast<long>(ping->iAnswered));
        sent = MsgSendReply(message, MSG_PONG_MSG, ping);
    }
    ObjReleaseInternal(&body);
    return sent;
}

BOOL MsgReturnUnknown(const void *message, const char *reason) {
    const MSG_MESSAGE *m = fh::msgMessageOf(message);
    if (m == nullptr || m->iType == MSG_UNKNOWN_MSG || MsgAddressEqual(m->oSource, MsgLocalAddress())) return FALSE;
    MSG_UNKNOWN *unknown = gUnknownType.newInstance(nullptr);
    if (unknown == nullptr) return FALSE;
    unknown->pszReason = reason != nullptr ? StrDuplicateIntoPool(reason, nullptr) : nullptr;
    unknown->iType = m->iType;
    if ((unknown->oObject = m->oObject) != nullptr) ObjIncRefCount(unknown->oObject);
    MSG_PACKET *packet = nullptr;
    const BOOL sent = MsgCreatePacket(&packet, m->oSource, MsgLocalAddress(), MSG_UNKNOWN_MSG, unknown) &&
                      MsgDispatch(&packet);
    ObjReleaseInternal(&unknown);
    return sent;
}

// ---- What the other parts of the module share ----

bool fh::msgSendInitialize() {
    for (fh::DeclaredType *type : kBodyTypes)
        if (!type->declare()) return false;
    return true;
}

PMGR_GIVE_SERVICE_A_TASK_RETURN *fh::msgNewTaskReturn(int32_t code, int32_t uniqueId, void *service) {
    PMGR_GIVE_SERVICE_A_TASK_RETURN *reply = gTaskReturnType.newInstance(nullptr);
    if (reply == nullptr) return nullptr;
    reply->bTaken = FALSE;
    reply->iError = code;
    reply->iUniqueId = uniqueId;
    if ((reply->oService = service) != nullptr) ObjIncRefCount(service);
    return reply;
}

void *fh::msgNewProcessDied(const MSG_ADDRESS *address) {
    PMGR_PROCESS_DIED *died = gProcessDiedType.newInstance(nullptr);
    if (died != nullptr && (died->oAddress = const_cast<MSG_ADDRESS *>(address)) != nullptr) ObjIncRefCount(died->oAddress);
    return died;
}

bool fh::msgNotifyOnDeathAdd(const MSG_ADDRESS *address) {
    auto *watched = static_cast<LIST *>(gtLmContext.oMsgNotifyOnDeathList);
    if (watched == nullptr) return false;
    for (LISTNODE *node = watched->oFirst; node != nullptr; node = node->oNext)
        if (MsgAddressEqual(node->oItem, address)) return false;
    MSG_ADDRESS *copy = nullptr;
    if (!MsgCreateAddress(&copy, address->pszMachine, address->iProcess)) return false;
    return ListPushLastItemInternal(watched, &copy) || (ObjReleaseInternal(&copy), false);
}
