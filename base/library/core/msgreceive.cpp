// msgreceive.cpp - messaging: the pass of the select mask, and taking
// messages off the receive list.
//
// A pass waits with poll over the sockets of the process's select mask
// (below FD_SETSIZE) and the sockets of the channels from FD_SETSIZE up,
// which the mask can't hold. The poll set lives in the context and only
// grows: the entries below FD_SETSIZE come first in socket order, then the
// channels' high sockets, sorted by socket. After the wait, readiness goes
// back into the working mask for the low sockets; for the high ones the
// poll set itself answers (msgSocketReady). The order of serving is: per
// channel of the map write before read, then the lingering channels, then
// the handlers with the working mask, then the connections under way, then
// the timers. An interrupted wait calls the handlers with a null mask and
// ends the pass; a failed one queues MSG_FATAL_SELECT_ERROR_MSG.
//
// The handler list (LIST of MSG_HANDLER_ENTRY) is walked in the order the
// handlers were added; a handler may remove itself while it runs.
#include "core/msgreceive.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>

#include "core/channel.h"
#include "core/config.h"
#include "core/context.h"
#include "core/list.h"
#include "core/memory.h"
#include "core/msg.h"
#include "core/msgsend.h"
#include "core/objmap.h"
#include "core/strbase.h"
#include "core/timer.h"
#include "messages/msgcmgr.h"
#include "messages/msgmsg.h"
#include "messages/msgnmgr.h"
#include "messages/msgpmgr.h"
#include "msgbody.h"
#include "msgchannel.h"
#include "msgself.h"
#include "netcalls.h"
#include "objcore.h"
#include "procstart.h"
#include "tracer.h"

namespace {

constexpr fh::ModuleTracer trace{"MESSAGE        "};

enum TraceId : int32_t {
    kIdGotMessage = 100,
    kIdFatalSelect = 101,
    kIdBadHandler = 102,
    kIdBadReceive = 103,
    kIdQueueLength = 104,
    kIdChannelLine = 105,
    kIdBadList = 106,
    kIdBadRequeue = 107,
};

MemPool *gPool = nullptr;
MemPool *pool() { return gPool != nullptr ? gPool : (gPool = MemGetDefaultPoolId()); }

BOOL releaseHandler(void *object) {
    ObjReleaseInternal(&static_cast<MSG_HANDLER_ENTRY *>(object)->oCookie);
    return TRUE;
}

constinit fh::ObjectType<MSG_HANDLER_ENTRY> gHandlerType{MSG_HANDLER_ENTRY_MAGIC, MSG_HANDLER_ENTRY_FORMAT,
                                                          releaseHandler};

// The two shared timeouts: never (a receive with a null timeout) and
// immediate (MsgPoll). Made once per process.
TIME_TIMEOUT gNever{-1, -1};
TIME_TIMEOUT gImmediate{0, 0};
// "Tunnel Port" of the network settings, read once per process.
int32_t gTunnelPort = 0;

LIST *receiveList() { return static_cast<LIST *>(gtLmContext.oMsgReceiveList); }
LIST *handlerList() { return static_cast<LIST *>(gtLmContext.oMsgHandlerList); }
OBJ_MAP *channelMap() { return static_cast<OBJ_MAP *>(gtLmContext.oMsgChannels); }
NetSelectMask *workingMask() { return static_cast<NetSelectMask *>(gtLmContext.pMsgWorkingMask); }

// ---- The poll set ----

struct PollSet {
    pollfd *entries;
    int32_t count;
    int32_t highStart; // entries from here on are high sockets, by socket
};

PollSet pollSet() {
    return {static_cast<pollfd *>(gtLmContext.pMsgPollSet), gtLmContext.iMsgPollCount, gtLmContext.iMsgPollHighStart};
}

// Room for needed entries, growing by doubling; false when memory is out
// (traced by the pool).
bool reserve(int32_t needed) {
    if (needed <= gtLmContext.iMsgPollCapacity) return true;
    const int32_t capacity = std::max(needed, std::max<int32_t>(64, gtLmContext.iMsgPollCapacity * 2));
    void *block = MemAllocateFromPool(static_cast<int32_t>(sizeof(pollfd)) * capacity, pool());
    if (block == nullptr) return false;
    MemFreeInternal(&gtLmContext.pMsgPollSet);
    gtLmContext.pMsgPollSet = block;
    gtLmContext.iMsgPollCapacity = capacity;
    return true;
}

bool wantsWrite(const MSG_CHANNEL *c) {
    return !c->bIsBlocking && !c->bHoldOutput && c->oOutputList != nullptr && c->oOutputList->iCount > 0;
}

int32_t lingerCount() {
    const auto *linger = static_cast<const LIST *>(gtLmContext.oMsgLingerList);
    return linger != nullptr ? linger->iCount : 0;
}

void addHigh(pollfd *entries, int32_t *count, const MSG_CHANNEL *c) {
    if (c->bIsDown || c->bIsNdmp || c->iSocket < FD_SETSIZE) return;
    entries[(*count)++] = {c->iSocket, static_cast<short>(POLLIN | (wantsWrite(c) ? POLLOUT : 0)), 0};
}

// Fills the poll set from the select mask and the channels; false when it
// can't be had.
bool buildPollSet(const NetSelectMask *mask) {
    const int32_t channels = channelMap() != nullptr ? channelMap()->iCount : 0;
    const int32_t low = std::min<int32_t>(mask->iNfds, FD_SETSIZE);
    if (!reserve(low + channels + lingerCount() + 1)) return false;
    auto *entries = static_cast<pollfd *>(gtLmContext.pMsgPollSet);
    int32_t count = 0;
    for (int32_t socket = 0; socket < low; ++socket) {
        const short events = static_cast<short>((FD_ISSET(socket, &mask->oRead) ? POLLIN : 0) |
                                                (FD_ISSET(socket, &mask->oWrite) ? POLLOUT : 0) |
                                                (FD_ISSET(socket, &mask->oException) ? POLLPRI : 0));
        if (events != 0) entries[count++] = {socket, events, 0};
    }
    const int32_t highStart = count;
    for (int32_t i = 0; i < channels; ++i) addHigh(entries, &count, static_cast<MSG_CHANNEL **>(channelMap()->oData.pData)[i]);
    if (auto *linger = static_cast<LIST *>(gtLmContext.oMsgLingerList); linger != nullptr)
        for (LISTNODE *node = linger->oFirst; node != nullptr; node = node->oNext)
            addHigh(entries, &count, static_cast<const MSG_CHANNEL *>(node->oItem));
    std::sort(entries + highStart, entries + count, [](const pollfd &a, const pollfd &b) { return a.fd < b.fd; });
    gtLmContext.iMsgPollCount = count;
    gtLmContext.iMsgPollHighStart = highStart;
    return true;
}

// Readiness of the low sockets back into the working mask, as select would
// have left it: a socket in error or hung up is ready for what it asked.
void intoWorking(NetSelectMask *working) {
    FD_ZERO(&working->oRead);
    FD_ZERO(&working->oWrite);
    FD_ZERO(&working->oException);
    const PollSet set = pollSet();
    constexpr short kBroken = POLLERR | POLLHUP | POLLNVAL;
    for (int32_t i = 0; i < set.highStart; ++i) {
        const pollfd &e = set.entries[i];
        if (e.revents == 0) continue;
        if ((e.events & POLLIN) && (e.revents & (POLLIN | kBroken))) FD_SET(e.fd, &working->oRead);
        if ((e.events & POLLOUT) && (e.revents & (POLLOUT | kBroken))) FD_SET(e.fd, &working->oWrite);
        if ((e.events & POLLPRI) && (e.revents & (POLLPRI | kBroken))) FD_SET(e.fd, &working->oException);
    }
}

// Milliseconds to wait for timeout: -1 for never, at most a day.
int pollMilliseconds(const TIME_TIMEOUT *timeout) {
    if (TimeTimeoutIsNever(timeout)) return -1;
    const int32_t left = TimeTimeoutLeft(timeout);
    return std::clamp<int32_t>(left, 0, NET_SELECT_LONGEST_WAIT * 1000);
}

// The wait of a pass, as NetSelect classifies it.
int32_t pollWait(NetSelectMask *working, const TIME_TIMEOUT *timeout) {
    NetCopySelectMask(working, fh::msgSelectMask());
    if (!buildPollSet(working)) return NET_ERROR_FATAL;
    const PollSet set = pollSet();
    fh::procWaitBegin(); // a SIGTERM may end the process in here
    const int ready = fh::netCalls().poll(set.entries, static_cast<nfds_t>(set.count), pollMilliseconds(timeout));
    fh::procWaitEnd();
    if (ready < 0) return errno == EINTR ? NET_ERROR_INTERRUPTED : NET_ERROR_FATAL;
    intoWorking(working);
    return ready == 0 ? NET_ERROR_TIMEOUT : NET_ERROR_NONE;
}

// ---- Handlers ----

int32_t callHandler(void *mask, LISTNODE *node) {
    auto *entry = static_cast<MSG_HANDLER_ENTRY *>(node->oItem);
    ObjIncRefCount(entry); // the handler may remove its own entry
    entry->pRoutine(static_cast<NetSelectMask *>(mask), entry->oCookie);
    ObjReleaseInternal(&entry);
    return TRUE;
}

void callHandlers(NetSelectMask *mask) {
    if (handlerList() != nullptr && handlerList()->iCount > 0) ListWalk(handlerList(), callHandler, mask);
}

// ---- Taking packets off ----

// The source pair of a packet's image, for the trace.
MsgPacketAddress sourceOf(const MSG_PACKET *packet) {
    if (packet->oImage.iSize < MSG_PACKET_HEADER_SIZE) return {0, 0};
    const auto *image = static_cast<const unsigned char *>(packet->oImage.pData);
    return {fh::msgGetLe32(image + 8), fh::msgGetLe32(image + 12)};
}

// The packet as a message in *message; the packet is consumed either way.
bool intoMessage(MSG_MESSAGE **message, MSG_PACKET **packet) {
    const bool made = MsgMessageFromPacket(message, *packet);
    if (made) {
        const MsgPacketAddress from = sourceOf(*packet);
        trace(kIdGotMessage, 0, 3, "Got message type %s from %ld:%ld", fh::msgTracedName(3, (*message)->iType),
              static_cast<long>(from.iMachine), static_cast<long>(from.iProcess));
    }
    ObjReleaseInternal(packet);
    return made;
}

bool takeFirstMessage(MSG_MESSAGE **message) {
    for (MSG_PACKET *packet = nullptr; MsgReceivePopPacket(&packet);)
        if (intoMessage(message, &packet)) return true;
    return false;
}

// The timeout lowered to the connect deadlines and the next timer.
TIME_TIMEOUT lowered(const TIME_TIMEOUT *timeout) {
    TIME_TIMEOUT limit = timeout != nullptr ? *timeout : gNever;
    if (auto *pending = static_cast<LIST *>(gtLmContext.oMsgConnectingList); pending != nullptr)
        for (LISTNODE *node = pending->oFirst; node != nullptr; node = node->oNext)
            if (const auto *deadline = static_cast<const TIME_TIMEOUT *>(static_cast<MSG_CONNECTING *>(node->oItem)->oTimeout))
                TimeSetTimeoutIfLower(&limit, deadline);
    fh::msgLowerToTimers(&limit);
    return limit;
}

// ---- Selective receive ----

struct Wanted {
    int32_t type;
    const MSG_ADDRESS *address; // null: anyone
    MsgPacketAddress pair;
    MSG_MESSAGE *found;
    bool gone;
};

bool pairOf(MsgPacketAddress *pair, const MSG_ADDRESS *address) {
    if (address->pszMachine == nullptr) {
        *pair = {MSG_MACHINE_CHANNEL, address->iProcess};
        return true;
    }
    pair->iProcess = address->iProcess;
    return MsgMachineNameToId(&pair->iMachine, address->pszMachine);
}

// Whether packet is news that the wanted peer is gone.
bool peerGone(const Wanted &w, const MSG_PACKET *packet, int32_t type, const MsgPacketAddress &from) {
    switch (type) {
    case PMGR_PROCESS_DIED_MSG: {
        fh::Body<PMGR_PROCESS_DIED> died(packet, PMGR_PROCESS_DIED_MAGIC, PMGR_PROCESS_DIED_FORMAT);
        const MSG_ADDRESS *a = died ? fh::msgAddressOf(died->oAddress) : nullptr;
        return a != nullptr && MsgAddressMachinesEqual(a, w.address);
    }
    case CMGR_PROCESS_UNREACHABLE_MSG: {
        fh::Body<CMGR_PROCESS_UNREACHABLE> lost(packet, CMGR_PROCESS_UNREACHABLE_MAGIC, CMGR_PROCESS_UNREACHABLE_FORMAT);
        const MSG_ADDRESS *a = lost ? fh::msgAddressOf(lost->oAddress) : nullptr;
        return a != nullptr && MsgAddressEqual(a, w.address);
    }
    case CMGR_MACHINE_DOWN_MSG: {
        fh::Body<CMGR_MACHINE_DOWN> down(packet, CMGR_MACHINE_DOWN_MAGIC, CMGR_MACHINE_DOWN_FORMAT);
        return down && down->pszMachine != nullptr && w.address->pszMachine != nullptr &&
               StrCompareNoCase(down->pszMachine, w.address->pszMachine) == 0;
    }
    case NMGR_MACHINE_UNREACHABLE_MSG: return from.iMachine == w.pair.iMachine;
    default: return false;
    }
}

int32_t matchPacket(void *cookie, LISTNODE *node) {
    auto &w = *static_cast<Wanted *>(cookie);
    auto *packet = static_cast<MSG_PACKET *>(node->oItem);
    const int32_t type = MsgPacketMsgType(packet);
    const MsgPacketAddress from = sourceOf(packet);
    if ((w.address != nullptr && peerGone(w, packet, type, from)) || type == MSG_LOST_RECEIVE_QUEUE_MSG ||
        type == MSG_LOST_SEND_QUEUE_MSG) {
        w.gone = true;
        return FALSE;
    }
    if (w.address != nullptr && (from.iMachine != w.pair.iMachine || from.iProcess != w.pair.iProcess)) return TRUE;
    if (w.type != 0 && type != w.type) return TRUE;
    if (!MsgMessageFromPacket(&w.found, packet)) return TRUE; // it stays; the walk goes on
    trace(kIdGotMessage, 0, 3, "Got message type %s from %ld:%ld", fh::msgTracedName(3, type),
          static_cast<long>(from.iMachine), static_cast<long>(from.iProcess));
    ListRemoveItem(node);
    return FALSE;
}

// ---- Putting back ----

bool requeueOwned(MSG_PACKET **packet) {
    if (ListPushFirstItemInternal(receiveList(), packet)) return true;
    ObjReleaseInternal(packet);
    return false;
}

// Empties list into the front of the receive list; each item becomes a
// packet by intoPacket (consuming nothing of the item).
template <typename IntoPacket> bool pushAll(LIST *list, uint32_t itemMagic, IntoPacket intoPacket, const char *name) {
    if (list == nullptr || (list->iItemMagic != 0 && static_cast<uint32_t>(list->iItemMagic) != itemMagic))
        return trace.fault(false, kIdBadList, 0, "%s(%p) - not a list of the right items", name,
                           static_cast<void *>(list));
    bool all = true;
    for (void *item = nullptr; ListPopFirstItemInternal(list, &item);) {
        MSG_PACKET *packet = intoPacket(item);
        ObjReleaseInternal(&item);
        all = (packet != nullptr && requeueOwned(&packet)) && all;
    }
    return all;
}

MSG_PACKET *messageIntoPacket(const void *message) {
    return fh::msgMessageOf(message) != nullptr ? fh::msgRequeueForm(message) : nullptr;
}

} // namespace

// ---- What the other parts of the module share ----

bool fh::msgReceiveInitialize() {
    TimeSetTimeoutNever(&gNever);
    TimeSetTimeoutImmediate(&gImmediate);
    CfgGetInteger(&gTunnelPort, "lmnmgr.cfg", "Network", "Tunnel Port", 0);
    return gHandlerType.declare() && fh::msgSendInitialize() && fh::msgFilterInitialize();
}

bool fh::msgReceiveInitializeThread() {
    gtLmContext.oMsgHandlerList = ListNewFromPool(MSG_HANDLER_ENTRY_MAGIC, pool());
    gtLmContext.oMsgNotifyOnDeathList = ListNewFromPool(MSG_ADDRESS_MAGIC, pool());
    gtLmContext.oMsgPendingTaskList = ListNewFromPool(PMGR_GIVE_SERVICE_A_TASK_RETURN_MAGIC, pool());
    return gtLmContext.oMsgHandlerList != nullptr && gtLmContext.oMsgNotifyOnDeathList != nullptr &&
           gtLmContext.oMsgPendingTaskList != nullptr;
}

void fh::msgReceiveReleaseThread(LmContext *context) {
    ObjReleaseInternal(&context->oMsgHandlerList);
    ObjReleaseInternal(&context->oMsgPendingTaskList);
    ObjReleaseInternal(&context->oMsgTaskContext);
    MemFreeInternal(&context->pMsgPollSet);
    context->iMsgPollCapacity = context->iMsgPollCount = context->iMsgPollHighStart = 0;
}

const TIME_TIMEOUT *fh::msgNeverTimeout() { return &gNever; }

int32_t fh::msgTunnelPort() { return gTunnelPort; }
void fh::msgSetTunnelPort(int32_t port) { gTunnelPort = port; }

bool fh::msgSocketReady(const NetSelectMask *working, int32_t socket, bool write) {
    if (socket >= 0 && socket < FD_SETSIZE)
        return write ? NetIsWriteSelectSet(working, socket) != FALSE : NetIsReadSelectSet(working, socket) != FALSE;
    const PollSet set = pollSet();
    const pollfd *first = set.entries + set.highStart, *last = set.entries + set.count;
    const pollfd *at = std::lower_bound(first, last, socket, [](const pollfd &e, int32_t s) { return e.fd < s; });
    if (at == last || at->fd != socket) return false;
    constexpr short kBroken = POLLERR | POLLHUP | POLLNVAL;
    const short wanted = write ? POLLOUT : POLLIN;
    return (at->events & wanted) && (at->revents & (wanted | kBroken));
}

int32_t fh::msgPass(const TIME_TIMEOUT *timeout) {
    NetSelectMask *working = workingMask();
    if (working == nullptr || msgSelectMask() == nullptr) return NET_ERROR_FATAL;
    const int32_t result = pollWait(working, timeout);
    switch (result) {
    case NET_ERROR_INTERRUPTED: callHandlers(nullptr); return result;
    case NET_ERROR_NONE:
        msgServeChannels(working);
        callHandlers(working);
        break;
    case NET_ERROR_TIMEOUT: break;
    default:
        trace(kIdFatalSelect, errno, -1, "Fatal error in select call");
        msgQueueBare(MSG_FATAL_SELECT_ERROR_MSG, MsgLocalAddress());
        return result;
    }
    msgServeConnecting(working);
    msgExpireTimers();
    return result;
}

int32_t fh::msgSelectPass(int32_t milliseconds) {
    TIME_TIMEOUT limit = gNever;
    const TIME_OFFSET span{milliseconds / 1000, milliseconds % 1000};
    if (milliseconds >= 0) TimeSetTimeoutFromOffset(&limit, &span);
    return msgPass(&limit);
}

void fh::msgExpireTimers() { TimrClearTimers(); }

void fh::msgLowerToTimers(TIME_TIMEOUT *deadline) {
    if (const TIME_TIMEOUT *next = TimrNextEvent(); next != nullptr) TimeSetTimeoutIfLower(deadline, next);
}

MSG_PACKET *fh::msgRequeueForm(const void *message) {
    MSG_PACKET *packet = nullptr;
    return msgPacketFromMessage(&packet, message) ? packet : nullptr;
}

// ---- Receiving ----

BOOL MsgUpdateReceiveList(const TIME_TIMEOUT *timeout) {
    fh::procStopPoint();
    if (MsgReceiveCount() > 0) return TRUE;
    fh::msgExpireTimers();
    const TIME_TIMEOUT limit = lowered(timeout);
    if (MsgReceiveCount() == 0) fh::msgPass(&limit);
    return MsgReceiveCount() > 0;
}

BOOL MsgReceive(MSG_MESSAGE **message, const TIME_TIMEOUT *timeout) {
    if (message == nullptr) return trace.fault(FALSE, kIdBadReceive, 0, "MsgReceive(null, %p)", timeout);
    MsgUpdateReceiveList(timeout);
    return takeFirstMessage(message);
}

BOOL MsgPoll(MSG_MESSAGE **message) { return MsgReceive(message, &gImmediate); }

BOOL MsgWait(const TIME_TIMEOUT *timeout) { return MsgUpdateReceiveList(timeout); }

BOOL MsgReceivePacket(MSG_PACKET **packet, const TIME_TIMEOUT *timeout) {
    if (packet == nullptr) return trace.fault(FALSE, kIdBadReceive, 0, "MsgReceivePacket(null, %p)", timeout);
    MsgUpdateReceiveList(timeout);
    return MsgReceivePopPacket(packet);
}

BOOL MsgReceiveObject(int32_t *type, void **object, const TIME_TIMEOUT *timeout) {
    if (type == nullptr || object == nullptr)
        return trace.fault(FALSE, kIdBadReceive, 0, "MsgReceiveObject(%p, %p, %p)", static_cast<void *>(type),
                           static_cast<void *>(object), timeout);
    MSG_MESSAGE *message = nullptr;
    if (!MsgReceive(&message, timeout)) return FALSE;
    *type = message->iType;
    *object = message->oObject;
    message->oObject = nullptr;
    ObjReleaseInternal(&message);
    return TRUE;
}

BOOL MsgReceiveMsgTypeFromAddress(MSG_MESSAGE **message, int32_t type, const void *address,
                                  const TIME_TIMEOUT *timeout) {
    Wanted w{type, fh::msgAddressOf(address), {0, 0}, nullptr, false};
    if (message == nullptr || (address != nullptr && (w.address == nullptr || !pairOf(&w.pair, w.address))))
        return trace.fault(FALSE, kIdBadReceive, 0, "MsgReceiveMsgTypeFromAddress(%p, %ld, %p, %p) - bad arguments",
                           static_cast<void *>(message), static_cast<long>(type), address, timeout);
    for (bool last = false;;) {
        fh::msgExpireTimers();
        ListWalk(receiveList(), matchPacket, &w);
        if (w.found != nullptr || w.gone || last) break;
        last = TimeTimeoutHasExpired(timeout);
        const TIME_TIMEOUT limit = lowered(timeout);
        fh::msgPass(&limit);
    }
    if (w.found == nullptr) return FALSE;
    *message = w.found;
    return TRUE;
}

BOOL MsgPending(void) {
    fh::msgExpireTimers();
    if (MsgReceiveCount() > 0) return TRUE;
    NetSelectMask *working = workingMask();
    return working != nullptr && fh::msgSelectMask() != nullptr && pollWait(working, &gImmediate) == NET_ERROR_NONE;
}

int32_t MsgWalkReceiveList(ListWalkFunction routine, void *cookie) { return ListWalk(receiveList(), routine, cookie); }

// ---- Putting back ----

BOOL MsgRequeuePacket(MSG_PACKET *packet) {
    if (packet == nullptr || !ObjCheckTypeInternal(packet, MSG_PACKET_MAGIC))
        return trace.fault(FALSE, kIdBadRequeue, 0, "MsgRequeuePacket(%p) - not a packet", static_cast<void *>(packet));
    ObjIncRefCount(packet);
    return requeueOwned(&packet);
}

BOOL MsgRequeue(const MSG_MESSAGE *message) {
    MSG_PACKET *packet = messageIntoPacket(message);
    if (packet == nullptr)
        return trace.fault(FALSE, kIdBadRequeue, 0, "MsgRequeue(%p) - not a message", static_cast<const void *>(message));
    return requeueOwned(&packet);
}

BOOL MsgPushPackets(LIST *list) {
    return pushAll(list, MSG_PACKET_MAGIC, [](void *item) {
        if (!ObjCheckTypeInternal(item, MSG_PACKET_MAGIC)) return static_cast<MSG_PACKET *>(nullptr);
        ObjIncRefCount(item);
        return static_cast<MSG_PACKET *>(item);
    }, "MsgPushPackets");
}

BOOL MsgPushMessages(LIST *list) { return pushAll(list, MSG_MESSAGE_MAGIC, messageIntoPacket, "MsgPushMessages"); }

// ---- Handlers ----

BOOL MsgHandlerAdd(MsgHandlerFunction routine, void *cookie) {
    if (routine == nullptr || handlerList() == nullptr || (cookie != nullptr && !ObjHasValidGlobalMagic(cookie)))
        return trace.fault(FALSE, kIdBadHandler, 0, "MsgHandlerAdd(%p, %p) - bad arguments",
                           reinterpret_cast<void *>(routine), cookie);
    MSG_HANDLER_ENTRY *entry = gHandlerType.newInstance(pool());
    if (entry == nullptr) return FALSE;
    entry->pRoutine = routine;
    if ((entry->oCookie = cookie) != nullptr) ObjIncRefCount(cookie);
    return ListPushLastItemInternal(handlerList(), &entry) || (ObjReleaseInternal(&entry), false);
}

BOOL MsgHandlerRemove(MsgHandlerFunction routine, const void *cookie) {
    if (handlerList() == nullptr) return FALSE;
    for (LISTNODE *node = handlerList()->oFirst; node != nullptr; node = node->oNext) {
        const auto *entry = static_cast<const MSG_HANDLER_ENTRY *>(node->oItem);
        if (entry->pRoutine == routine && entry->oCookie == cookie) return ListRemoveItem(node);
    }
    return FALSE;
}

// ---- Diagnostics ----

void MsgCheckSelect(void) {
    trace(kIdQueueLength, 0, -1, "%ld messages on receive queue", static_cast<long>(MsgReceiveCount()));
    NetCheckSelect(fh::msgSelectMask());
    OBJ_MAP *map = channelMap();
    for (int32_t i = 0; map != nullptr && i < map->iCount; ++i) {
        const MSG_CHANNEL *c = static_cast<MSG_CHANNEL **>(map->oData.pData)[i];
        trace(kIdChannelLine, 0, -1, "Message Channel on socket %ld (IPC = %s)", static_cast<long>(c->iSocket),
              c->bIsIpc ? "TRUE" : "FALSE");
    }
}

void MsgQuickExit(BOOL value) { gtLmContext.bMsgQuickExit = value; }
