// msgself.cpp - messaging: messages a process sends to itself.
//
// A packet to self is an ordinary image (header, frame, body) whose body is
// in the serialiser's in-process form: a p component at pointer width, so a
// timer's routine and cookie survive above 4 GiB. The form is told by a
// mark: in a packet, the word at offset 32 of the header (in the 160 bytes
// that nobody else reads) holds kSelfMark, so that a copy of the packet is
// marked too; in a message reconstructed from it, the object comes from the
// self pool below, which borrows the heap's operations and differs from the
// default pool by its address alone. Nothing from outside carries either
// mark: the channel reader clears the word of each image it reads, a
// MSG_PACKET read from elsewhere with the word set is refused, readers make
// their messages from the default pool, and a marked packet is never
// dispatched.
//
// The mark follows a message back onto the receive list: a marked message
// is turned into a marked packet again (msgPacketFromMessage).
#include "core/msgsend.h"

#include <cstring>

#include "core/memory.h"
#include "core/object.h"
#include "core/objserial.h"
#include "messages/msgtimer.h"
#include "codec.h"
#include "msgchannel.h"
#include "msgself.h"
#include "objcore.h"
#include "tracer.h"

namespace {

constexpr fh::ModuleTracer trace{"MESSAGE        "};

enum TraceId : int32_t {
    kIdBadSelfSend = 160,
    kIdSelfDispatch = 161,
    kIdTimerFromSocket = 162,
};

MemPool gSelfPool{MEM_POOL_MAGIC, nullptr};

// Where the mark of a packet to self stands in its header, and its value.
constexpr int32_t kMarkOffset = 32;
constexpr uint32_t kSelfMark = 0x464C4553u;

// Appends the bytes of a writer to the buffer in the cookie.
BOOL appendBytes(void *cookie, void *address, int32_t count) {
    return ObjBufferInsertBytes(count, address, static_cast<ObjBufferDescriptor *>(cookie));
}

// Takes bytes from a bounded window of memory.
struct Window {
    const unsigned char *at;
    int32_t left;
};
BOOL takeBytes(void *cookie, void *address, int32_t count) {
    auto *w = static_cast<Window *>(cookie);
    if (count < 0 || count > w->left) return FALSE;
    memcpy(address, w->at, static_cast<size_t>(count));
    w->at += count;
    w->left -= count;
    return TRUE;
}

// Makes and queues a marked packet; false when it can't be made.
bool queueSelf(const void *destination, const void *source, int32_t type, const void *object) {
    MSG_PACKET *packet = nullptr;
    if (!fh::msgMakePacket(&packet, destination, source, type, object, true)) return false;
    fh::msgQueue(&packet);
    return true;
}

} // namespace

MemPool *fh::msgSelfPool() {
    if (gSelfPool.Operations == nullptr) gSelfPool.Operations = MemGetDefaultPoolId()->Operations;
    return &gSelfPool;
}

bool fh::msgPacketIsSelf(const MSG_PACKET *packet) {
    if (packet == nullptr || !ObjCheckTypeInternal(packet, MSG_PACKET_MAGIC)) return false;
    const ObjData &image = packet->oImage;
    return image.pData != nullptr && image.iSize >= MSG_PACKET_HEADER_SIZE &&
           readLe32(static_cast<const unsigned char *>(image.pData) + kMarkOffset) == kSelfMark;
}

void fh::msgMarkSelf(unsigned char *header) { writeLe32(header + kMarkOffset, kSelfMark); }
void fh::msgClearMark(unsigned char *header) { writeLe32(header + kMarkOffset, 0); }

bool fh::msgMessageIsSelf(const void *message) {
    return msgMessageOf(message) != nullptr && objectPool(message) == &gSelfPool;
}

bool fh::msgSelfFrame(const void *object, int32_t type, ObjBufferDescriptor *buffer) {
    const int32_t frame = buffer->Used;
    unsigned char head[8] = {};
    writeLe32(head + 4, static_cast<uint32_t>(type));
    ObjStream stream{};
    stream.Transfer = appendBytes;
    stream.Cookie = buffer;
    stream.InProcess = TRUE;
    const bool written = ObjBufferInsertBytes(sizeof head, head, buffer) && ObjSerialize(object, &stream);
    if (stream.Seen != nullptr) ObjReleaseInternal(&stream.Seen);
    if (written) writeLe32(reinterpret_cast<unsigned char *>(buffer->Buffer) + frame, static_cast<uint32_t>(buffer->Used - frame));
    return written;
}

bool fh::msgSelfReadBody(void **body, const unsigned char *bytes, int32_t length) {
    Window window{bytes, length};
    ObjStream stream{};
    stream.Transfer = takeBytes;
    stream.Cookie = &window;
    stream.InProcess = TRUE;
    const bool read = ObjReconstruct(body, &stream);
    if (stream.Seen != nullptr) ObjReleaseInternal(&stream.Seen);
    return read;
}

bool fh::msgPacketFromMessage(MSG_PACKET **packet, const void *message) {
    const MSG_MESSAGE *m = msgMessageOf(message);
    if (m == nullptr || !msgMessageIsSelf(message)) return MsgMessageToPacket(packet, message);
    return msgMakePacket(packet, m->oDestination, m->oSource, m->iType, m->oObject, true);
}

bool fh::msgRefuseSelfDispatch(MSG_PACKET **packet) {
    if (!msgPacketIsSelf(*packet)) return false;
    trace(kIdSelfDispatch, 0, 2, "Refused to send out a message %ld the process made for itself",
          static_cast<long>(MsgPacketMsgType(*packet)));
    ObjReleaseInternal(packet);
    return true;
}

bool fh::msgDropFromSocket(int32_t type, int32_t channelId, int32_t socket) {
    if (type != TIMER_CALLBACK_MSG) return false;
    trace(kIdTimerFromSocket, 0, -1, "Dropped a timer message read from channel %ld socket %ld",
          static_cast<long>(channelId), static_cast<long>(socket));
    return true;
}

BOOL MsgSendToSelf(const void *message) {
    const MSG_MESSAGE *m = fh::msgMessageOf(message);
    if (m == nullptr || MsgLocalAddress() == nullptr)
        return trace.fault(FALSE, kIdBadSelfSend, 0, "MsgSendToSelf(%p) - bad arguments", message);
    return queueSelf(MsgLocalAddress(), m->oSource, m->iType, m->oObject);
}

BOOL MsgSendObjectToSelf(int32_t type, const void *object) {
    if ((object != nullptr && !ObjHasValidGlobalMagic(object)) || MsgLocalAddress() == nullptr)
        return trace.fault(FALSE, kIdBadSelfSend, 0, "MsgSendObjectToSelf(%ld, %p) - bad arguments",
                           static_cast<long>(type), object);
    return queueSelf(MsgLocalAddress(), MsgLocalAddress(), type, object);
}
