// router.cpp - the switch of the communication manager (router.h).
#include "router.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/select.h>
#include <sys/socket.h>

#include <cstdarg>
#include <cstring>

#include "messages/msgcmgr.h"
#include "messages/msgmsg.h"

namespace fhcmgr {
namespace {

constexpr const char *kTag = "CMGR           ";
// A pass reads at most this many packets of one client, so that one busy
// client does not starve the others.
constexpr int kReadsPerPass = 64;

void trace(int32_t id, int32_t level, const char *format, ...) __attribute__((format(printf, 3, 4)));
void trace(int32_t id, int32_t level, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    TraceMessageVa(kTag, id, 0, level, format, arguments);
    va_end(arguments);
}

int32_t le32(const unsigned char *p) {
    return static_cast<int32_t>(uint32_t{p[0]} | uint32_t{p[1]} << 8 | uint32_t{p[2]} << 16 | uint32_t{p[3]} << 24);
}

ObjectTemplate *unreachableTemplate() {
    static ObjectTemplate *made = nullptr;
    if (made == nullptr)
        ObjTemplateCreateInternal(&made, sizeof(CMGR_PROCESS_UNREACHABLE), CMGR_PROCESS_UNREACHABLE_MAGIC,
                                  CMGR_PROCESS_UNREACHABLE_FORMAT, nullptr);
    return made;
}

} // namespace

Router::Router(int64_t queueBound) : queueBound_(queueBound) {}

Router::~Router() {
    for (Client &client : clients_) {
        MSG_ADDRESS *address = nullptr;
        if (MsgChannelAddress(&address, client.channel)) MsgChannelClose(&address);
        ObjReleaseInternal(&client.channel);
    }
}

bool Router::add(int32_t socket, MSG_CHANNEL **made) {
    MSG_CHANNEL *channel = nullptr;
    if (socket >= FD_SETSIZE ||
        !MsgChannelCreateInternal(&channel, socket, nullptr, FALSE, TRUE, TRUE, FALSE, FALSE)) {
        trace(1, 1, "No room for a client on socket %ld", static_cast<long>(socket));
        NetClose(&socket);
        return false;
    }
    // Small images go out at once: a forwarded packet is often a reply
    // that its client waits for.
    const int on = 1;
    setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    clients_.push_back({channel, 0});
    if (made != nullptr) *made = channel;
    return true;
}

void Router::fillMask(NetSelectMask *mask) const {
    for (const Client &client : clients_) {
        const int32_t socket = MsgChannelSocket(client.channel);
        if (socket == -1) continue;
        NetAddReadSelect(mask, socket);
        if (MsgChannelOutputCount(client.channel) > 0) NetAddWriteSelect(mask, socket);
    }
}

void Router::serve(const NetSelectMask *ready) {
    // Routing can add nothing to clients_, so indices stay valid; a client
    // that goes down stays until sweep.
    for (size_t i = 0; i < clients_.size(); ++i) {
        MSG_CHANNEL *channel = clients_[i].channel;
        const int32_t socket = MsgChannelSocket(channel);
        if (socket != -1 && NetIsWriteSelectSet(ready, socket)) MsgChannelOutputData(channel);
        if (MsgChannelSocket(channel) == -1 || !NetIsReadSelectSet(ready, socket)) continue;
        // A read that ended at a packet's end most likely emptied the socket:
        // read on only while bytes of the next packet came with it, rather
        // than pay a read that finds nothing.
        MSG_PACKET *packet = nullptr;
        for (int reads = 0; reads < kReadsPerPass && MsgChannelReceiveData(&packet, channel); ++reads) {
            route(channel, &packet);
            if (channel->iInputPosition == 0) break;
        }
    }
}

Router::Client *Router::byProcess(int32_t process) {
    for (Client &client : clients_)
        if (client.process == process && !MsgChannelIsDown(client.channel)) return &client;
    return nullptr;
}

Router::Client *Router::byChannel(int32_t channelId) {
    for (Client &client : clients_)
        if (client.channel->iId == channelId && !MsgChannelIsDown(client.channel)) return &client;
    return nullptr;
}

bool Router::overBound(MSG_CHANNEL *channel) const {
    int64_t queued = -channel->iOutputPosition;
    for (const LISTNODE *node = channel->oOutputList->oFirst; node != nullptr; node = node->oNext)
        queued += static_cast<const MSG_PACKET *>(node->oItem)->oImage.iSize;
    return queued > queueBound_;
}

void Router::route(MSG_CHANNEL *from, MSG_PACKET **packet) {
    const int32_t type = MsgPacketMsgType(*packet);
    const auto *image = static_cast<const unsigned char *>((*packet)->oImage.pData);
    if (type == 0) { // not a sound image: nothing to route or answer
        trace(2, 1, "Dropped an image of %ld bytes from channel %ld", static_cast<long>((*packet)->oImage.iSize),
              static_cast<long>(from->iId));
        ObjReleaseInternal(packet);
        return;
    }
    if (type == MSG_IPC_CONNECT_MSG) {
        for (Client &client : clients_)
            if (client.channel == from) client.process = le32(image + 12);
        trace(3, 2, "Channel %ld is process %ld", static_cast<long>(from->iId), static_cast<long>(le32(image + 12)));
        ObjReleaseInternal(packet);
        return;
    }
    const int32_t route = le32(image);
    if (route == MSG_PROCESS_COMMMGR) {
        ObjReleaseInternal(packet);
        return;
    }
    Client *to = route > 0 ? byProcess(route) : route < 0 ? byChannel(-route) : nullptr;
    if (to != nullptr && overBound(to->channel)) {
        trace(4, 1, "Process %ld on channel %ld stopped reading: taken down", static_cast<long>(to->process),
              static_cast<long>(to->channel->iId));
        MSG_ADDRESS *address = nullptr;
        MsgChannelAddress(&address, to->channel);
        MsgChannelClose(&address);
        to = nullptr;
    }
    if (to != nullptr) {
        // The header is all the answer needs: keep it, for the dispatch
        // consumes the packet whatever happens.
        unsigned char header[MSG_PACKET_HEADER_SIZE];
        memcpy(header, image, sizeof header);
        if (!MsgChannelDispatch(to->channel, packet)) unreachable(from, header, type);
        return;
    }
    unreachable(from, image, type);
    ObjReleaseInternal(packet);
}

void Router::unreachable(MSG_CHANNEL *from, const unsigned char *image, int32_t type) {
    if (type == CMGR_PROCESS_UNREACHABLE_MSG || MsgChannelIsDown(from)) return;
    const MsgPacketAddress lost{le32(image + 16), le32(image + 20)};
    const MsgPacketAddress sender{le32(image + 8), le32(image + 12)};
    trace(5, 2, "Process %ld:%ld unreachable for a message %ld", static_cast<long>(lost.iMachine),
          static_cast<long>(lost.iProcess), static_cast<long>(type));
    auto *body = static_cast<CMGR_PROCESS_UNREACHABLE *>(ObjTemplateNewInstanceFromPool(unreachableTemplate(), nullptr));
    body->iMsgType = type;
    MSG_ADDRESS *lostAddress = nullptr, *senderAddress = nullptr;
    if (MsgAddressFromPacketAddress(&lostAddress, &lost)) body->oAddress = lostAddress;
    MsgAddressFromPacketAddress(&senderAddress, &sender);
    MSG_PACKET *answer = nullptr;
    if (senderAddress != nullptr &&
        MsgCreatePacket(&answer, senderAddress, MsgCommMgrAddress(), CMGR_PROCESS_UNREACHABLE_MSG, body))
        MsgChannelDispatch(from, &answer);
    ObjReleaseInternal(&senderAddress);
    ObjReleaseInternal(&body);
}

void Router::sweep() {
    for (MSG_PACKET *queued = nullptr; MsgReceivePopPacket(&queued);) ObjReleaseInternal(&queued);
    for (size_t i = 0; i < clients_.size();) {
        if (!MsgChannelIsDown(clients_[i].channel)) {
            ++i;
            continue;
        }
        trace(6, 2, "Client of process %ld on channel %ld is gone", static_cast<long>(clients_[i].process),
              static_cast<long>(clients_[i].channel->iId));
        MSG_ADDRESS *address = nullptr;
        if (MsgChannelAddress(&address, clients_[i].channel) && !MsgChannelClose(&address))
            ObjReleaseInternal(&address);
        ObjReleaseInternal(&clients_[i].channel);
        clients_.erase(clients_.begin() + static_cast<std::ptrdiff_t>(i));
    }
}

} // namespace fhcmgr
