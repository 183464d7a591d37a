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
#include "messages/msgmsg.h"
#include "msgchannel.h"
#include "msgself.h"
#include "tracer.h"

namespace {

constexpr fh::ModuleTracer trace{"MESSAGE        "};

enum TraceId : int32_t { kIdBadSend = 70, kIdLostSend = 71, kIdNoChannel = 72 };

LIST *receiveList() { return static_cast<LIST *>(gtLmContext.oMsgReceiveList); }

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
    return MsgCreatePacket(&packet, address, MsgLocalAddress(), type, object) && MsgDispatch(&packet);
}
