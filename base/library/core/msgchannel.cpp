// msgchannel.cpp - messaging: channels, the channel map and the select mask
// of the process; how bytes become packets and packets bytes.
//
// The context holds the channel map (an OBJ_MAP of MSG_CHANNEL ordered by
// id, growth 64, one reference per channel), the select mask of the process
// and its working copy, and the last id given. Ids run from 1 and wrap to 1,
// skipping ids still in the map.
//
// A channel's states: open (in the map), held (holdOutput: nothing is
// written until MSG_CONNECTED_OK_MSG or MSG_FLUSH_CHANNEL_MSG arrives),
// closing (isClosing: out of the map), down (isDown, socket -1, the output
// list and any half-read packet gone). Down is final.
//
// The reader. inputPosition counts the bytes of the image read so far. The
// first bytes go to the header area: 192 on an IPC channel (the header
// itself), 8 on a data channel (frame length and type, moved to offset 192
// behind a header that the reader makes). On an IPC channel that first read
// may take up to 392 bytes, the header and the shortest image behind it, so
// that a small packet costs one read; what came behind the header moves to
// the block with it. Then the block: its capacity
// (oInput.iSize) starts at kFirstBlock, or at the size of the channel's
// previous packet if that is more (kept in oInput.iSize between packets,
// with no block), or at what already waits in the socket if that is more
// still; never above the declared total. It grows, up to the total, only
// when what arrived has filled it: to double, or to what waits. So a peer
// that declares more than it sends costs about twice what it sent, or its
// previous packet; a large packet that has arrived is read in one block
// without copies; and a stream of packets of one size never asks the socket
// what waits. The declared total stays in the header area at offset 4.
//
// Reading ahead. A block that can hold the whole image has room for the
// first bytes of the next one behind it, as many as the header area takes
// (8 or 192), so that a stream of packets costs one read each. Those bytes
// move to the header area when the image is done, and inputPosition starts
// there. No packet is shorter than its header area plus one byte (an IPC
// image has 200 bytes at least), so bytes of every packet not yet delivered
// remain in the socket, and select still wakes the reader for it.
//
// Output. The first packet of the output list is in progress from
// outputPosition, which restarts at 0 on an IPC channel and at 192 on a data
// channel, where the header never leaves the process.
#include "core/channel.h"

#include <sys/ioctl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <cstring>

#include "core/context.h"
#include "core/list.h"
#include "core/memory.h"
#include "core/msg.h"
#include "core/msgsend.h"
#include "core/objmap.h"
#include "core/objserial.h"
#include "messages/msgmsg.h"
#include "msgchannel.h"
#include "msgself.h"
#include "netcalls.h"
#include "objcore.h"
#include "tracer.h"

namespace {

constexpr fh::ModuleTracer trace{"MESSAGE        "};

enum TraceId : int32_t {
    kIdInsert = 40,
    kIdDown = 41,
    kIdSendFailed = 42,
    kIdWouldBlock = 43,
    kIdInterrupted = 44,
    kIdClosed = 45,
    kIdUnknownError = 46,
    kIdGotIpc = 47,
    kIdGotData = 48,
    kIdGotA = 49,
    kIdDisconnect = 50,
    kIdFlush = 51,
    kIdContextItem = 52,
    kIdContextNull = 53,
    kIdContextBad = 54,
    kIdConnectedOk = 55,
    kIdClosingDiscard = 56,
    kIdBadChannel = 57,
    kIdNoMap = 58,
};

constexpr int32_t kIpcHeader = MSG_PACKET_HEADER_SIZE;
constexpr int32_t kFrameHead = 8;
constexpr int32_t kIpcStage = kIpcHeader + MSG_PACKET_BODY_OFFSET;
static_assert(kIpcStage <= MSG_CHANNEL_HEADER_AREA, "the staging area holds a header and the shortest image");
constexpr int32_t kFirstBlock = 4096;
constexpr int32_t kMapGrowth = 64;

MemPool *gPool = nullptr;
MemPool *pool() { return gPool != nullptr ? gPool : (gPool = MemGetDefaultPoolId()); }


OBJ_MAP *channelMap() { return static_cast<OBJ_MAP *>(gtLmContext.oMsgChannels); }
int32_t restartPosition(const MSG_CHANNEL *c) { return c->bIsIpc ? 0 : MSG_PACKET_HEADER_SIZE; }

// The map orders channels by their first word, the id; a key is an id, so
// one comparison serves to locate and to find.
int32_t compareFirstWords(const void *a, const void *b) {
    const int32_t x = *static_cast<const int32_t *>(a), y = *static_cast<const int32_t *>(b);
    return x < y ? -1 : x > y ? 1 : 0;
}

// A channel released while still up closes its socket.
BOOL releaseChannel(void *object) {
    auto *c = static_cast<MSG_CHANNEL *>(object);
    if (c->iSocket != -1) NetClose(&c->iSocket);
    return TRUE;
}

constinit fh::ObjectType<MSG_CHANNEL> gChannelType{MSG_CHANNEL_MAGIC, MSG_CHANNEL_FORMAT, releaseChannel};

void selectBits(int32_t socket, bool read, bool write, bool exception) {
    NetSelectMask *mask = fh::msgSelectMask();
    if (mask == nullptr || socket == -1) return;
    if (!read) NetRemoveReadSelect(mask, socket);
    if (!write) NetRemoveWriteSelect(mask, socket);
    if (!exception) NetRemoveExceptionSelect(mask, socket);
}

// The next free id: one past the last, wrapping to 1, skipping ids in use.
int32_t nextId() {
    int32_t id = gtLmContext.iMsgLastChannelId;
    do {
        id = id >= INT32_MAX || id < 1 ? 1 : id + 1;
    } while (ObjMapFind(nullptr, channelMap(), &id));
    return gtLmContext.iMsgLastChannelId = id;
}

MSG_CHANNEL *newChannel(int32_t socket, BOOL isBlocking, BOOL notifyOnDown, BOOL isIpc, BOOL holdOutput) {
    auto *c = gChannelType.newInstance(pool());
    c->iSocket = socket;
    NetSetNoLinger(socket);
    c->oOutputList = ListNewFromPool(MSG_PACKET_MAGIC, pool());
    c->bIsIpc = isIpc ? TRUE : FALSE;
    c->iOutputPosition = restartPosition(c);
    c->bIsBlocking = isBlocking ? TRUE : FALSE;
    if (isBlocking)
        NetSetBlocking(socket);
    else
        NetSetNonBlocking(socket);
    c->bNotifyOnDown = notifyOnDown ? TRUE : FALSE;
    c->bHoldOutput = holdOutput ? TRUE : FALSE;
    return c;
}

bool intoMap(MSG_CHANNEL *c, const MSG_ADDRESS *remote) {
    if (channelMap() == nullptr) {
        trace(kIdNoMap, 0, -1, "No channel map: MsgInitializeThread has not run");
        return false;
    }
    if (remote != nullptr) {
        ObjIncRefCount(const_cast<MSG_ADDRESS *>(remote));
        c->oRemoteAddress = const_cast<MSG_ADDRESS *>(remote);
    }
    c->iId = nextId();
    trace(kIdInsert, 0, 2, "Insert channel %p Socket %ld Id %ld (Ipc = %s) into map", static_cast<void *>(c),
          static_cast<long>(c->iSocket), static_cast<long>(c->iId), fh::boolText(c->bIsIpc));
    MsgMakeAddress(&c->oAddress, nullptr, c->iId);
    NetAddReadSelect(fh::msgSelectMask(), c->iSocket);
    return ObjMapInsert(channelMap(), c) != FALSE;
}

void freeInput(MSG_CHANNEL *c) {
    MemFreeInternal(&c->oInput.pData);
    c->oInput.iSize = 0;
    c->iInputPosition = 0;
}

// ---- Reading ----

int32_t declaredTotal(const MSG_CHANNEL *c) { return fh::msgGetLe32(c->aHeader + 4); }
int32_t headerArea(const MSG_CHANNEL *c) { return c->bIsIpc ? kIpcHeader : kFrameHead; }
// How far a read into the staging area may go: on an IPC channel the header
// and the shortest image behind it, so that a small packet comes in one read
// and no read takes a whole packet that follows.
int32_t stageLimit(const MSG_CHANNEL *c) { return c->bIsIpc ? kIpcStage : kFrameHead; }

// Bytes that have arrived on the socket and wait to be read: a hint for the
// size of a block, never more than the peer really sent (0 if unknown).
int32_t bytesWaiting(int32_t socket) {
    int waiting = 0;
    return fh::netCalls().ioctl(socket, FIONREAD, &waiting) == 0 && waiting > 0 ? waiting : 0;
}

// The capacity for the bytes of the image at position and those waiting:
// at least kFirstBlock and floor, at most the declared total and the room
// to read ahead. The socket is asked only when that decides.
int32_t capacityFor(const MSG_CHANNEL *c, int32_t position, int64_t floor) {
    const int64_t total = declaredTotal(c);
    int64_t wanted = std::max<int64_t>(kFirstBlock, floor);
    if (wanted < total) wanted = std::max<int64_t>(wanted, int64_t{position} + bytesWaiting(c->iSocket));
    if (wanted < total) return static_cast<int32_t>(wanted);
    return static_cast<int32_t>(std::min<int64_t>(total + headerArea(c), INT32_MAX));
}

// The header is in; check the lengths and set up the block. False for
// lengths that no packet has.
bool startImage(MSG_CHANNEL *c) {
    if (!c->bIsIpc) {
        const int32_t frameLength = fh::msgGetLe32(c->aHeader);
        if (frameLength < MSG_PACKET_MINIMUM_SIZE - MSG_PACKET_HEADER_SIZE ||
            frameLength > INT32_MAX - MSG_PACKET_HEADER_SIZE)
            return false;
        uint32_t type = 0;
        int32_t objectSize = 0;
        ObjBufferAnalyze(c->aHeader, &objectSize, &type);
        memmove(c->aHeader + MSG_PACKET_HEADER_SIZE, c->aHeader, kFrameHead);
        memset(c->aHeader, 0, MSG_PACKET_HEADER_SIZE);
        const int32_t total = objectSize + MSG_PACKET_BODY_OFFSET;
        const int32_t words[] = {0, total, -1, c->iId, -1, c->iId, static_cast<int32_t>(type)};
        for (size_t i = 0; i < std::size(words); ++i) fh::msgPutLe32(c->aHeader + 4 * i, words[i]);
        trace(kIdGotData, 0, 3, "Got a message %ld with a %ld byte serialized object", static_cast<long>(type),
              static_cast<long>(objectSize));
    } else if (declaredTotal(c) < MSG_PACKET_BODY_OFFSET) {
        return false;
    } else {
        fh::msgClearMark(c->aHeader); // no image from a socket is one the process made for itself
        trace(kIdGotIpc, 0, 3, "Got a message %s for %ld:%ld with a %ld bytes of data",
              fh::msgTracedName(3, fh::msgGetLe32(c->aHeader + 24)),
              static_cast<long>(fh::msgGetLe32(c->aHeader + 16)), static_cast<long>(fh::msgGetLe32(c->aHeader + 20)),
              static_cast<long>(declaredTotal(c)));
    }
    // What the staging area holds moves to the block: on an IPC channel the
    // header and what was read behind it, on a data channel the header made.
    const int32_t staged = c->bIsIpc ? c->iInputPosition : MSG_PACKET_BODY_OFFSET;
    c->oInput.iSize = capacityFor(c, staged, c->oInput.iSize);
    c->oInput.pData = MemAllocateFromPool(static_cast<size_t>(c->oInput.iSize), pool());
    memcpy(c->oInput.pData, c->aHeader, static_cast<size_t>(staged));
    c->iInputPosition = staged;
    return true;
}

// The block is full and the image isn't: double it, up to the total.
void growBlock(MSG_CHANNEL *c) {
    const int32_t capacity = capacityFor(c, c->iInputPosition, int64_t{c->oInput.iSize} * 2);
    void *bigger = MemAllocateFromPool(static_cast<size_t>(capacity), pool());
    memcpy(bigger, c->oInput.pData, static_cast<size_t>(c->iInputPosition));
    MemFreeInternal(&c->oInput.pData);
    c->oInput = {capacity, bigger};
}

// The body of the image being read, reconstructed; null if none or refused.
void *inputBody(const MSG_CHANNEL *c) {
    void *body = nullptr;
    const auto *image = static_cast<const unsigned char *>(c->oInput.pData);
    if (!ObjReconstructFromBytes(&body, image + MSG_PACKET_BODY_OFFSET, declaredTotal(c) - MSG_PACKET_BODY_OFFSET))
        return nullptr;
    return body;
}

// The first component of an object whose format begins with an object.
void *firstObjectField(void *object) {
    if (object == nullptr) return nullptr;
    const char *format = ObjGetFormat(ObjGetTemplateFromObject(object));
    return format != nullptr && (format[0] == 'o' || format[0] == 'L') && format[1] == ';'
               ? *static_cast<void **>(object)
               : nullptr;
}

// A packet of type with no body from the local address to the channel, at
// the end of the output list; the write bit first if the list was empty.
void queueAnswer(MSG_CHANNEL *c, int32_t type) {
    MSG_PACKET *answer = fh::msgBarePacket(type, MsgLocalAddress(), c->oAddress);
    if (answer == nullptr) return;
    if (c->oOutputList->iCount == 0) NetAddWriteSelect(fh::msgSelectMask(), c->iSocket);
    ListPushLastItemInternal(c->oOutputList, &answer);
}

void setProcessContext(MSG_CHANNEL *c) {
    void *body = inputBody(c);
    void *item = firstObjectField(body);
    if (body == nullptr) {
        trace(kIdContextBad, 0, -1, "Bad SET_PROCESS_CONTEXT_REQUEST object");
    } else if (item == nullptr) {
        trace(kIdContextNull, 0, -1, "NULL object in SET_PROCESS_CONTEXT_REQUEST message");
    } else {
        trace(kIdContextItem, 0, 1, "Setting new process context extension item of type '%s'",
              ObjNameFromObject(item));
        ListSetExtensionItem(&gtLmContext.pContextObjects, item);
    }
    ObjReleaseInternal(&body);
    queueAnswer(c, MSG_SET_PROCESS_CONTEXT_REPLY_MSG);
}

void connectedOk(MSG_CHANNEL *c) {
    trace(kIdConnectedOk, 0, 2, "Received CONNECTED_OK on channel %ld socket %ld Cookie %p",
          static_cast<long>(c->iId), static_cast<long>(c->iSocket), c->oConnectCookie);
    c->bHoldOutput = FALSE;
    fh::msgQueueConnected(c->oRemoteAddress, true, 0, c->oAddress, c->oConnectCookie);
    ObjReleaseInternal(&c->oConnectCookie);
    if (!c->bIsBlocking && c->oOutputList->iCount > 0) NetAddWriteSelect(fh::msgSelectMask(), c->iSocket);
    MsgChannelOutputData(c);
}

// What the channel does with a whole image before delivery, in order; true
// when the packet is the channel's own and is dropped.
bool consumed(MSG_CHANNEL *c) {
    auto *image = static_cast<unsigned char *>(c->oInput.pData);
    const int32_t type = fh::msgGetLe32(image + 24);
    trace(kIdGotA, 0, 3, "Got a %s", fh::msgTracedName(3, type));
    if (fh::msgDropFromSocket(type, c->iId, c->iSocket)) return true;
    switch (type) {
    case MSG_DISCONNECT_MSG:
        trace(kIdDisconnect, 0, 2, "Received Disconnect request on channel %ld socket %ld", static_cast<long>(c->iId),
              static_cast<long>(c->iSocket));
        fh::msgChannelDown(c);
        return true;
    case MSG_FLUSH_CHANNEL_MSG:
        trace(kIdFlush, 0, 2, "Received FLUSH request on channel %ld socket %ld", static_cast<long>(c->iId),
              static_cast<long>(c->iSocket));
        c->bHoldOutput = FALSE;
        queueAnswer(c, MSG_CHANNEL_FLUSHED_MSG);
        return true;
    case MSG_CHANNEL_AUTH_MSG:
        ObjReleaseInternal(&c->oAuthCookie);
        c->oAuthCookie = inputBody(c);
        return true;
    case MSG_PROXY_SOURCE_MSG: {
        void *body = inputBody(c);
        ObjReleaseInternal(&c->oProxyPeer);
        if ((c->oProxyPeer = firstObjectField(body)) != nullptr) ObjIncRefCount(c->oProxyPeer);
        ObjReleaseInternal(&body);
        return true;
    }
    case MSG_SET_PROCESS_CONTEXT_REQUEST_MSG:
        if (gtLmContext.iProcessId == MSG_PROCESS_COMMMGR) break;
        setProcessContext(c);
        return true;
    case MSG_CONNECTED_OK_MSG:
        if (!c->bHoldOutput) break;
        connectedOk(c);
        return true;
    default: break;
    }
    if (c->bIsClosing) {
        trace(kIdClosingDiscard, 0, -1, "Closing, discard message");
        return true;
    }
    if (type == MSG_IPC_CONNECT_MSG) {
        fh::msgPutLe32(image + 16, MSG_MACHINE_CHANNEL);
        fh::msgPutLe32(image + 20, c->iId);
    }
    return false;
}

// The image is whole: the packet, or null when the channel kept it. The
// reader starts again with the bytes read ahead, if any.
MSG_PACKET *finishImage(MSG_CHANNEL *c) {
    const int32_t total = declaredTotal(c);
    const bool kept = consumed(c);
    if (c->bIsDown) return nullptr; // and the block went with it
    auto *image = static_cast<unsigned char *>(c->oInput.pData);
    const int32_t ahead = c->iInputPosition - total;
    memcpy(c->aHeader, image + total, static_cast<size_t>(ahead));
    MSG_PACKET *packet = nullptr;
    if (!kept) {
        packet = static_cast<MSG_PACKET *>(ObjTemplateNewInstanceFromPool(gtObjTemplatePacket, pool()));
        packet->oImage = {total, image}; // the packet takes the block over
        c->oInput = {0, nullptr};
    }
    freeInput(c);
    c->oInput.iSize = total;
    c->iInputPosition = ahead;
    return packet;
}

// The header read ahead is whole: set up the block as a read would.
bool startStaged(MSG_CHANNEL *c) {
    if (startImage(c)) return true;
    trace(kIdUnknownError, 0, 2, "NetTcpReceive returned unknown error");
    fh::msgChannelDown(c);
    return false;
}

// One read of the socket into the header area or the block. False when the
// reader is to stop (traced; on a failure the channel is down).
bool readOnce(MSG_CHANNEL *c) {
    const int32_t head = headerArea(c);
    if (c->oInput.pData == nullptr && c->iInputPosition >= head && !startStaged(c)) return false;
    const bool inHeader = c->oInput.pData == nullptr;
    unsigned char *into = inHeader ? c->aHeader : static_cast<unsigned char *>(c->oInput.pData);
    const int32_t limit = inHeader ? stageLimit(c) : c->oInput.iSize;
    int32_t got = 0;
    switch (const int32_t result = NetTcpReceive(&got, c->iSocket, into + c->iInputPosition, limit - c->iInputPosition)) {
    case NET_ERROR_NONE: break;
    case NET_ERROR_WOULD_BLOCK: trace(kIdWouldBlock, 0, 2, "NetTcpReceive returned NET_ERROR_WOULD_BLOCK"); return false;
    case NET_ERROR_INTERRUPTED:
        trace(kIdInterrupted, 0, 2, "NetTcpReceive returned NET_ERROR_INTERRUPTED");
        return c->bIsIpc != FALSE;
    case NET_ERROR_CLOSED:
        trace(kIdClosed, 0, 2, "NetTcpReceive returned NET_ERROR_CLOSED");
        fh::msgChannelDown(c);
        return false;
    default:
        trace(kIdUnknownError, result, 2, "NetTcpReceive returned unknown error");
        fh::msgChannelDown(c);
        return false;
    }
    c->iInputPosition += got;
    if (inHeader && c->iInputPosition >= head) return startStaged(c);
    if (!inHeader && c->iInputPosition == c->oInput.iSize && c->iInputPosition < declaredTotal(c)) growBlock(c);
    return true;
}

} // namespace

// ---- What the other parts of the module share ----

bool fh::msgChannelsInitialize() {
    return gChannelType.declare();
}

bool fh::msgChannelsInitializeThread() {
    OBJ_MAP *map = nullptr;
    NetSelectMask *mask = nullptr, *working = nullptr;
    if (!ObjMapCreateInternal(&map, MSG_CHANNEL_MAGIC, kMapGrowth, compareFirstWords, compareFirstWords, nullptr) ||
        !NetInitializeSelectMask(&mask) || !NetInitializeSelectMask(&working))
        return false;
    gtLmContext.oMsgChannels = map;
    gtLmContext.pMsgSelectMask = mask;
    gtLmContext.pMsgWorkingMask = working;
    gtLmContext.oMsgConnectingList = ListNewFromPool(MSG_CONNECTING_MAGIC, pool());
    gtLmContext.oMsgLingerList = ListNewFromPool(MSG_CHANNEL_MAGIC, pool());
    gtLmContext.oMsgReceiveList = ListNewFromPool(MSG_PACKET_MAGIC, pool());
    gtLmContext.iMsgLastChannelId = 0;
    gtLmContext.bMsgIpcConnected = FALSE;
    return true;
}

void fh::msgChannelsShutDown(LmContext *context) {
    ObjReleaseInternal(&context->oMsgReceiveList);
    auto *pending = static_cast<LIST *>(context->oMsgConnectingList);
    for (MSG_CONNECTING *entry = nullptr; pending != nullptr && ListPopFirstItemInternal(pending, &entry);) {
        selectBits(entry->iSocket, false, false, false);
        NetClose(&entry->iSocket);
        ObjReleaseInternal(&entry);
    }
    // The IPC channel's last packets (the final state for the manager) may
    // still wait in the socket for the acknowledgement of the one before;
    // the reset on close would drop them, so they are pushed out first. (A
    // child that inherited the socket shares it: this changes nothing else
    // for the parent.)
    if (auto *ipc = static_cast<MSG_CHANNEL *>(context->oMsgIpcChannel); ipc != nullptr && !ipc->bIsDown) {
        const int on = 1;
        setsockopt(ipc->iSocket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    }
    // Channels still up go down without a word: the process is leaving.
    if (auto *map = static_cast<OBJ_MAP *>(context->oMsgChannels); map != nullptr)
        for (int32_t i = 0; i < map->iCount; ++i) {
            auto *c = static_cast<MSG_CHANNEL **>(map->oData.pData)[i];
            c->bIsClosing = TRUE;
            if (c != context->oMsgIpcChannel) msgChannelDown(c);
        }
    if (context->oMsgLingerList != nullptr)
        ListWalk(static_cast<LIST *>(context->oMsgLingerList), MsgChannelForceDown, nullptr);
}

MSG_CHANNEL *fh::msgChannelOf(const void *object) {
    return object != nullptr && ObjCheckTypeInternal(object, MSG_CHANNEL_MAGIC)
               ? static_cast<MSG_CHANNEL *>(const_cast<void *>(object))
               : nullptr;
}

MSG_CHANNEL *fh::msgChannelFind(int32_t id) {
    void *found = nullptr;
    if (channelMap() == nullptr || !ObjMapFind(&found, channelMap(), &id)) return nullptr;
    auto *c = static_cast<MSG_CHANNEL *>(found);
    ObjReleaseInternal(&found); // borrowed: the map keeps its reference
    return c;
}

NetSelectMask *fh::msgSelectMask() { return static_cast<NetSelectMask *>(gtLmContext.pMsgSelectMask); }

fh::ChannelView fh::msgChannelView(int32_t channelId) {
    const MSG_CHANNEL *c = msgChannelFind(channelId);
    if (c == nullptr) return {false, false, false, nullptr};
    return {true, c->bIsNdmp != FALSE, c->oProxyPeer != nullptr, c->oRemoteAddress};
}

MSG_PACKET *fh::msgBarePacket(int32_t type, const void *from, const void *to) {
    MSG_PACKET *packet = nullptr;
    return MsgCreatePacket(&packet, to, from, type, nullptr) ? packet : nullptr;
}

void fh::msgChannelDown(MSG_CHANNEL *c) {
    if (c == nullptr || c->bIsDown) return;
    trace(kIdDown, 0, 2, "MsgChannelDown(%p) %ld", static_cast<void *>(c), static_cast<long>(c->iId));
    c->bIsDown = TRUE;
    ListReleaseAll(c->oOutputList);
    freeInput(c);
    selectBits(c->iSocket, false, false, false);
    NetClose(&c->iSocket);
    if (c == gtLmContext.oMsgIpcChannel) {
        msgQueueBare(MSG_LOST_RECEIVE_QUEUE_MSG, MsgLocalAddress());
        ObjReleaseInternal(&gtLmContext.oMsgIpcChannel);
    } else if (c->bNotifyOnDown && !c->bIsClosing && c->oAddress != nullptr) {
        msgQueueBare(MSG_CHANNEL_DOWN_MSG, c->oAddress);
    }
}

void fh::msgChannelRemove(MSG_CHANNEL *c) {
    if (channelMap() != nullptr && c->oAddress != nullptr) ObjMapDelete(channelMap(), &c->iId);
}

// ---- Creating ----

BOOL MsgChannelCreateInternal(MSG_CHANNEL **channel, int32_t socket, const MSG_ADDRESS *remoteAddress,
                              BOOL isBlocking, BOOL notifyOnDown, BOOL isIpc, BOOL holdOutput, BOOL notInMap) {
    if (socket == -1 || gChannelType.get() == nullptr)
        return trace.fault(FALSE, kIdBadChannel, 0, "MsgChannelCreateInternal(%ld) - no socket",
                           static_cast<long>(socket));
    MSG_CHANNEL *c = newChannel(socket, isBlocking, notifyOnDown, isIpc, holdOutput);
    if (!notInMap && !intoMap(c, remoteAddress)) {
        c->iSocket = -1; // the caller keeps the socket
        ObjReleaseInternal(&c);
        return FALSE;
    }
    if (channel != nullptr)
        *channel = c;
    else
        ObjReleaseInternal(&c);
    return TRUE;
}

BOOL MsgChannelCreate(MSG_CHANNEL **channel, int32_t socket) {
    return MsgChannelCreateInternal(channel, socket, nullptr, FALSE, TRUE, FALSE, FALSE, FALSE);
}

BOOL MsgChannelCreateIpc(int32_t socket) {
    return MsgChannelCreateInternal(nullptr, socket, nullptr, FALSE, TRUE, TRUE, FALSE, FALSE);
}

BOOL MsgChannelCreateGui(MSG_CHANNEL **channel, int32_t socket, BOOL inMap) {
    return MsgChannelCreateInternal(channel, socket, nullptr, FALSE, inMap, FALSE, FALSE, !inMap);
}

BOOL MsgChannelInitialize(void) { return MsgInitializeThread(); }

// ---- Output ----

BOOL MsgChannelAddPacket(MSG_CHANNEL *channel, MSG_PACKET **packet) {
    MSG_CHANNEL *c = fh::msgChannelOf(channel);
    if (c == nullptr || packet == nullptr || !ObjCheckTypeInternal(*packet, MSG_PACKET_MAGIC)) {
        if (packet != nullptr) ObjReleaseInternal(packet);
        return FALSE;
    }
    return ListPushLastItemInternal(c->oOutputList, packet);
}

BOOL MsgChannelDispatch(MSG_CHANNEL *channel, MSG_PACKET **packet) {
    MSG_CHANNEL *c = fh::msgChannelOf(channel);
    if (c == nullptr || c->bIsDown || c->bIsNdmp) {
        if (packet != nullptr) ObjReleaseInternal(packet);
        return FALSE;
    }
    const bool wasEmpty = c->oOutputList->iCount == 0;
    if (!MsgChannelAddPacket(c, packet)) return FALSE;
    if (c->bHoldOutput) return TRUE;
    if (!c->bIsBlocking && wasEmpty) NetAddWriteSelect(fh::msgSelectMask(), c->iSocket);
    return MsgChannelOutputData(c);
}

BOOL MsgChannelOutputData(MSG_CHANNEL *channel) {
    MSG_CHANNEL *c = fh::msgChannelOf(channel);
    if (c == nullptr) return FALSE;
    while (!c->bIsDown && c->oOutputList->iCount > 0) {
        const auto *first = static_cast<const MSG_PACKET *>(c->oOutputList->oFirst->oItem);
        const int32_t left = first->oImage.iSize - c->iOutputPosition;
        int32_t sent = 0;
        const int32_t result =
            left > 0 ? NetTcpSend(&sent, c->iSocket, static_cast<const char *>(first->oImage.pData) + c->iOutputPosition,
                                  left)
                     : NET_ERROR_NONE;
        if (result == NET_ERROR_WOULD_BLOCK || (result == NET_ERROR_INTERRUPTED && !c->bIsBlocking)) break;
        if (result == NET_ERROR_INTERRUPTED) continue;
        if (result != NET_ERROR_NONE) {
            trace(kIdSendFailed, result, -1, "Failed to send data");
            fh::msgChannelDown(c);
            return FALSE;
        }
        c->iOutputPosition += sent;
        if (c->iOutputPosition >= first->oImage.iSize) {
            ListRemoveFirstItem(c->oOutputList);
            c->iOutputPosition = restartPosition(c);
        }
    }
    if (!c->bIsDown && c->oOutputList->iCount == 0) NetRemoveWriteSelect(fh::msgSelectMask(), c->iSocket);
    return !c->bIsDown;
}

// ---- Input ----

BOOL MsgChannelReceiveData(MSG_PACKET **packet, MSG_CHANNEL *channel) {
    MSG_CHANNEL *c = fh::msgChannelOf(channel);
    if (c == nullptr || packet == nullptr || c->bIsDown || c->bIsNdmp) return FALSE;
    while (readOnce(c))
        if (c->oInput.pData != nullptr && c->iInputPosition >= declaredTotal(c)) {
            *packet = finishImage(c);
            return *packet != nullptr;
        }
    return FALSE;
}

// ---- Reading a channel ----

int32_t MsgChannelOutputCount(const MSG_CHANNEL *channel) {
    const MSG_CHANNEL *c = fh::msgChannelOf(channel);
    return c != nullptr ? c->oOutputList->iCount : 0;
}

int32_t MsgChannelSocket(const MSG_CHANNEL *channel) {
    const MSG_CHANNEL *c = fh::msgChannelOf(channel);
    return c != nullptr ? c->iSocket : -1;
}

BOOL MsgChannelIsDown(const MSG_CHANNEL *channel) {
    const MSG_CHANNEL *c = fh::msgChannelOf(channel);
    return c == nullptr || c->bIsDown;
}

BOOL MsgChannelAddress(MSG_ADDRESS **address, const MSG_CHANNEL *channel) {
    const MSG_CHANNEL *c = fh::msgChannelOf(channel);
    if (address == nullptr || c == nullptr || c->oAddress == nullptr) return FALSE;
    ObjIncRefCount(c->oAddress);
    *address = c->oAddress;
    return TRUE;
}

BOOL MsgGetChannel(MSG_CHANNEL **channel, const void *address) {
    MSG_CHANNEL *c = MsgIsAChannel(address) ? fh::msgChannelFind(MsgGetChannelId(address)) : nullptr;
    if (channel == nullptr || c == nullptr) return FALSE;
    ObjIncRefCount(c);
    *channel = c;
    return TRUE;
}

// ---- Ending ----

BOOL MsgChannelClose(MSG_ADDRESS **channelAddress) {
    if (channelAddress == nullptr || fh::msgAddressOf(*channelAddress) == nullptr ||
        (!MsgIsAChannel(*channelAddress) && gtLmContext.iProcessId != MSG_PROCESS_COMMMGR))
        return FALSE;
    MSG_CHANNEL *c = fh::msgChannelFind(MsgGetProcessId(*channelAddress));
    if (c == nullptr) return FALSE;
    ObjIncRefCount(c);
    fh::msgChannelRemove(c);
    c->bIsClosing = TRUE; // the linger of a closing channel ends here at once
    fh::msgChannelDown(c);
    ObjReleaseInternal(&c);
    ObjReleaseInternal(channelAddress);
    return TRUE;
}

BOOL MsgChannelForceDown(void *, LISTNODE *listNode) {
    if (listNode != nullptr) fh::msgChannelDown(fh::msgChannelOf(listNode->oItem));
    return TRUE;
}

BOOL MsgChannelFlush(const MSG_ADDRESS *channelAddress) {
    if (!MsgIsAChannel(channelAddress) || fh::msgChannelFind(MsgGetChannelId(channelAddress)) == nullptr)
        return FALSE;
    MSG_PACKET *packet = fh::msgBarePacket(MSG_FLUSH_CHANNEL_MSG, MsgLocalAddress(), channelAddress);
    return packet != nullptr && MsgDispatch(&packet);
}

BOOL MsgChannelGetAuth(void **cookie, const MSG_ADDRESS *channelAddress) {
    const MSG_CHANNEL *c = MsgIsAChannel(channelAddress) ? fh::msgChannelFind(MsgGetChannelId(channelAddress)) : nullptr;
    if (c == nullptr || c->oAuthCookie == nullptr) return FALSE;
    if (cookie != nullptr) {
        ObjIncRefCount(c->oAuthCookie);
        *cookie = c->oAuthCookie;
    }
    return TRUE;
}

BOOL MsgChannelSetAuth(const MSG_ADDRESS *channelAddress, void *cookie) {
    MSG_CHANNEL *c = MsgIsAChannel(channelAddress) ? fh::msgChannelFind(MsgGetChannelId(channelAddress)) : nullptr;
    if (c == nullptr || gtLmContext.iProcessId != MSG_PROCESS_AUDITOR) return FALSE;
    if (cookie != nullptr) ObjIncRefCount(cookie);
    ObjReleaseInternal(&c->oAuthCookie);
    c->oAuthCookie = cookie;
    return TRUE;
}

// ---- The select mask of the process ----

#define FH_MSG_SELECT_OPERATION(name, net)                                                                             \
    BOOL name(int32_t socket) { return fh::msgSelectMask() != nullptr && net(fh::msgSelectMask(), socket); }
FH_MSG_SELECT_OPERATION(MsgAddReadSelect, NetAddReadSelect)
FH_MSG_SELECT_OPERATION(MsgAddWriteSelect, NetAddWriteSelect)
FH_MSG_SELECT_OPERATION(MsgAddExceptionSelect, NetAddExceptionSelect)
FH_MSG_SELECT_OPERATION(MsgRemoveReadSelect, NetRemoveReadSelect)
FH_MSG_SELECT_OPERATION(MsgRemoveWriteSelect, NetRemoveWriteSelect)
FH_MSG_SELECT_OPERATION(MsgRemoveExceptionSelect, NetRemoveExceptionSelect)
FH_MSG_SELECT_OPERATION(MsgIsReadSelectSet, NetIsReadSelectSet)
FH_MSG_SELECT_OPERATION(MsgIsWriteSelectSet, NetIsWriteSelectSet)
FH_MSG_SELECT_OPERATION(MsgIsExceptionSelectSet, NetIsExceptionSelectSet)
#undef FH_MSG_SELECT_OPERATION

// ---- A pass ----

namespace {

// Serves one channel with the readiness of a pass: write, then read.
void serveOne(MSG_CHANNEL *c, const NetSelectMask *working) {
    ObjIncRefCount(c);
    if (!c->bIsDown && fh::msgSocketReady(working, c->iSocket, true)) MsgChannelOutputData(c);
    MSG_PACKET *packet = nullptr;
    if (!c->bIsDown && fh::msgSocketReady(working, c->iSocket, false) && MsgChannelReceiveData(&packet, c))
        fh::msgDeliver(c, &packet);
    ObjReleaseInternal(&c);
}

int32_t serveLingering(void *working, LISTNODE *node) {
    auto *c = static_cast<MSG_CHANNEL *>(node->oItem);
    serveOne(c, static_cast<const NetSelectMask *>(working));
    if (c->bIsDown) ListRemoveItem(node);
    return TRUE;
}

} // namespace

void fh::msgServeChannels(const NetSelectMask *working) {
    OBJ_MAP *map = channelMap();
    // The map can change under a read (a channel down stays, a close
    // removes): walk by id, each channel held while it is served.
    for (int32_t id = 0, i = 0; map != nullptr && i < map->iCount; ++i) {
        MSG_CHANNEL *c = static_cast<MSG_CHANNEL **>(map->oData.pData)[i];
        if (c->iId <= id) continue;
        id = c->iId;
        serveOne(c, working);
    }
    if (auto *linger = static_cast<LIST *>(gtLmContext.oMsgLingerList); linger != nullptr && linger->iCount > 0)
        ListWalk(linger, serveLingering, const_cast<NetSelectMask *>(working));
}
