// msgpacket.cpp - messaging: messages and the packet image.
//
// A MSG_MESSAGE holds references to its two addresses and its body. A
// MSG_PACKET holds one data block, the packet image (msgpacket.h lays it
// out): a header of 192 bytes that this file writes, then the frame that
// ObjSerializeToBuffer writes behind it in the same buffer, so a packet costs
// one serialisation and no copy. Every integer of the header is 32-bit
// little-endian on every platform.
//
// Images from elsewhere. Before anything is read from an image, soundImage
// checks that it holds at least 201 bytes and that its total equals its
// length; the body is read by the bounded reader over the bytes behind
// offset 200 alone. A packet inside a message body is refused by the same
// check when it arrives.
//
// Packets to self. A packet the process makes for itself (msgself.h) has the
// same header, but its body is in the in-process form and its object comes
// from the self pool; the body readers below tell the two apart by that
// pool, and a message made of such a packet comes from the same pool.
#include "core/msgpacket.h"

#include <cstring>

#include "core/memory.h"
#include "core/object.h"
#include "core/objserial.h"
#include "codec.h"
#include "msgchannel.h"
#include "msgself.h"
#include "objcore.h"
#include "tracer.h"

ObjectTemplate *gtObjTemplateMessage = nullptr;
ObjectTemplate *gtObjTemplatePacket = nullptr;

namespace {

constexpr fh::ModuleTracer trace{"MESSAGE        "};

enum TraceId : int32_t {
    kIdBadMessage = 30,
    kIdNoSerialize = 31,
    kIdBadImage = 32,
    kIdBodyMagic = 33,
    kIdBadPacket = 34,
};

MemPool *gPool = nullptr;
MemPool *pool() { return gPool != nullptr ? gPool : (gPool = MemGetDefaultPoolId()); }

// Offsets of the header fields.
enum Offset : size_t {
    kRoute = 0,
    kTotal = 4,
    kSource = 8,
    kDestination = 16,
    kType = 24,
    kReserved = 28,
};

using fh::msgAddressOf;

// The pair that stands for address in a packet; false for a machine
// without an id. A channel address needs no look-up.
bool toPacketAddress(MsgPacketAddress *pair, const void *address) {
    const MSG_ADDRESS *a = msgAddressOf(address);
    if (a == nullptr || !MsgMachineNameToId(&pair->iMachine, a->pszMachine)) return false;
    pair->iProcess = a->iProcess;
    return true;
}

int32_t routeTo(const MsgPacketAddress &destination) {
    switch (destination.iMachine) {
    case MSG_MACHINE_CHANNEL: return -destination.iProcess;
    case MSG_MACHINE_LOCAL: return destination.iProcess;
    default: return MSG_PROCESS_NETMGR;
    }
}

void putPair(unsigned char *image, size_t offset, const MsgPacketAddress &pair) {
    fh::writeLe32(image + offset, static_cast<uint32_t>(pair.iMachine));
    fh::writeLe32(image + offset + 4, static_cast<uint32_t>(pair.iProcess));
}

MsgPacketAddress getPair(const unsigned char *image, size_t offset) {
    return {static_cast<int32_t>(fh::readLe32(image + offset)), static_cast<int32_t>(fh::readLe32(image + offset + 4))};
}

// The image of a packet that holds at least a header, a frame head and a
// lead byte, and whose total is its length; else null, traced.
unsigned char *soundImage(const void *packet, int32_t *size) {
    if (packet == nullptr || !ObjCheckTypeInternal(packet, MSG_PACKET_MAGIC)) return nullptr;
    const ObjData &image = static_cast<const MSG_PACKET *>(packet)->oImage;
    auto *bytes = static_cast<unsigned char *>(image.pData);
    const int32_t total = image.iSize >= MSG_PACKET_MINIMUM_SIZE && bytes != nullptr ? static_cast<int32_t>(fh::readLe32(bytes + kTotal)) : -1;
    if (total != image.iSize) {
        trace(kIdBadImage, 0, 2, "Refused packet image of %ld bytes, total %ld", static_cast<long>(image.iSize),
              static_cast<long>(total));
        return nullptr;
    }
    *size = image.iSize;
    return bytes;
}

// The body of a sound image: by the bounded reader, or in the in-process
// form for a packet the process made for itself.
bool readBody(void **body, const MSG_PACKET *packet, const unsigned char *image, int32_t size) {
    if (fh::msgPacketIsSelf(packet))
        return fh::msgSelfReadBody(body, image + MSG_PACKET_BODY_OFFSET, size - MSG_PACKET_BODY_OFFSET);
    return ObjReconstructFromBytes(body, image + MSG_PACKET_BODY_OFFSET, size - MSG_PACKET_BODY_OFFSET);
}

// The address of a pair; null, traced, when its machine id can't be mapped.
MSG_ADDRESS *addressOfPair(const MsgPacketAddress &pair) {
    MSG_ADDRESS *address = nullptr;
    return MsgAddressFromPacketAddress(&address, &pair) ? address : nullptr;
}

// A received message must hold addresses where it holds any.
BOOL messageHoldsAddresses(const void *object) {
    const auto *m = static_cast<const MSG_MESSAGE *>(object);
    return (m->oDestination == nullptr || msgAddressOf(m->oDestination) != nullptr) &&
           (m->oSource == nullptr || msgAddressOf(m->oSource) != nullptr);
}

// A packet read from elsewhere: sound, and without the mark of a packet the
// process made for itself.
BOOL packetIsSound(const void *object) {
    int32_t size = 0;
    return soundImage(object, &size) != nullptr && !fh::msgPacketIsSelf(static_cast<const MSG_PACKET *>(object));
}

constinit fh::ObjectType<MSG_MESSAGE> gMessageType{MSG_MESSAGE_MAGIC, MSG_MESSAGE_FORMAT, fh::kReceivable,
                                                  messageHoldsAddresses, &gtObjTemplateMessage};
constinit fh::ObjectType<MSG_PACKET> gPacketType{MSG_PACKET_MAGIC, MSG_PACKET_FORMAT, fh::kReceivable, packetIsSound,
                                                &gtObjTemplatePacket};

MSG_MESSAGE *newMessage(void *destination, void *source, int32_t type, void *body, MemPool *from = pool()) {
    auto *m = gMessageType.newInstance(from);
    m->oDestination = static_cast<MSG_ADDRESS *>(destination);
    m->oSource = static_cast<MSG_ADDRESS *>(source);
    m->iType = type;
    m->oObject = body;
    return m;
}

// A new reference to an address of a message, through field.
BOOL getAddress(MSG_ADDRESS **address, const void *message, MSG_ADDRESS *MSG_MESSAGE::*field) {
    const MSG_MESSAGE *m = fh::msgMessageOf(message);
    if (address == nullptr || m == nullptr || m->*field == nullptr) return FALSE;
    ObjIncRefCount(m->*field);
    *address = m->*field;
    return TRUE;
}

} // namespace

// ---- The module's part of start-up ----

const MSG_MESSAGE *fh::msgMessageOf(const void *object) {
    return object != nullptr && ObjCheckTypeInternal(object, MSG_MESSAGE_MAGIC)
               ? static_cast<const MSG_MESSAGE *>(object)
               : nullptr;
}

bool fh::msgPacketsInitialize() {
    return gMessageType.declare() && gPacketType.declare();
}

BOOL MsgCreateTemplates(void) { return fh::msgAddressesInitialize() && fh::msgPacketsInitialize(); }

// ---- Messages ----

BOOL MsgCreate(MSG_MESSAGE **message, const void *destination, int32_t type, void *object) {
    if (message == nullptr || msgAddressOf(destination) == nullptr ||
        (object != nullptr && !ObjHasValidGlobalMagic(object)) || MsgLocalAddress() == nullptr) {
        return trace.fault(FALSE, kIdBadMessage, 0, "MsgCreate(%p, %p, %ld, %p) - bad arguments", static_cast<void *>(message),
              destination, static_cast<long>(type), object);
    }
    for (const void *held : {destination, static_cast<const void *>(MsgLocalAddress()), static_cast<const void *>(object)})
        if (held != nullptr) ObjIncRefCount(const_cast<void *>(held));
    *message = newMessage(const_cast<void *>(destination), MsgLocalAddress(), type, object);
    return TRUE;
}

int32_t MsgType(const void *message) {
    const MSG_MESSAGE *m = fh::msgMessageOf(message);
    return m != nullptr ? m->iType : 0;
}

BOOL MsgGetSource(MSG_ADDRESS **address, const void *message) {
    return getAddress(address, message, &MSG_MESSAGE::oSource);
}

BOOL MsgGetDestination(MSG_ADDRESS **address, const void *message) {
    return getAddress(address, message, &MSG_MESSAGE::oDestination);
}

BOOL MsgGetSender(MSG_ADDRESS **address, const void *message) {
    const MSG_MESSAGE *m = fh::msgMessageOf(message);
    return m != nullptr && MsgSenderAddressFromSourceAddress(address, m->oSource);
}

BOOL MsgGetObjectInternal(void **object, const void *message, uint32_t magic) {
    const MSG_MESSAGE *m = fh::msgMessageOf(message);
    if (object == nullptr || m == nullptr || m->oObject == nullptr) return FALSE;
    if (magic != 0 && !ObjCheckTypeInternal(m->oObject, magic)) return FALSE;
    ObjIncRefCount(m->oObject);
    *object = m->oObject;
    return TRUE;
}

BOOL MsgIsFromAChannel(const void *message) {
    const MSG_MESSAGE *m = fh::msgMessageOf(message);
    return m != nullptr && MsgIsAChannel(m->oSource);
}

BOOL MsgIsFromLocalMachine(const void *message) {
    const MSG_MESSAGE *m = fh::msgMessageOf(message);
    return m != nullptr && MsgIsLocalMachine(m->oSource);
}

// ---- Packets ----

bool fh::msgMakePacket(MSG_PACKET **packet, const void *destination, const void *source, int32_t type,
                       const void *object, bool self) {
    MsgPacketAddress to{}, from{};
    if (!toPacketAddress(&to, destination) || !toPacketAddress(&from, source)) return false;
    ObjBufferDescriptor *buffer = nullptr;
    ObjBufferDescriptorCreate(&buffer, nullptr, 0, MSG_PACKET_HEADER_SIZE);
    if (!(self ? fh::msgSelfFrame(object, type, buffer) : ObjSerializeToBuffer(object, static_cast<uint32_t>(type), buffer))) {
        trace(kIdNoSerialize, 0, 2, "Unable to serialize Message object to buffer");
        ObjBufferDescriptorFree(&buffer);
        return false;
    }
    auto *image = reinterpret_cast<unsigned char *>(buffer->Buffer);
    memset(image, 0, MSG_PACKET_HEADER_SIZE);
    fh::writeLe32(image + kRoute, static_cast<uint32_t>(routeTo(to)));
    fh::writeLe32(image + kTotal, static_cast<uint32_t>(buffer->Used));
    putPair(image, kSource, from);
    putPair(image, kDestination, to);
    fh::writeLe32(image + kType, static_cast<uint32_t>(type));
    if (self) fh::msgMarkSelf(image);
    auto *made = gPacketType.newInstance(pool());
    made->oImage = {buffer->Used, buffer->Buffer}; // the packet takes the buffer over
    buffer->Buffer = nullptr;
    buffer->Owned = FALSE;
    ObjBufferDescriptorFree(&buffer);
    *packet = made;
    return true;
}

BOOL MsgCreatePacket(MSG_PACKET **packet, const void *destination, const void *source, int32_t type,
                     const void *object) {
    if (packet == nullptr || (object != nullptr && !ObjHasValidGlobalMagic(object)) ||
        !fh::msgMakePacket(packet, destination, source, type, object, false)) {
        trace(kIdBadPacket, 0, 2, "MsgCreatePacket(%p, %p, %p, %ld, %p) - no packet for these addresses",
              static_cast<void *>(packet), destination, source, static_cast<long>(type), object);
        return FALSE;
    }
    return TRUE;
}

BOOL MsgMessageToPacket(MSG_PACKET **packet, const void *message) {
    const MSG_MESSAGE *m = fh::msgMessageOf(message);
    return m != nullptr && MsgCreatePacket(packet, m->oDestination, m->oSource, m->iType, m->oObject);
}

BOOL MsgRedirectPacket(const void *address, MSG_PACKET *packet) {
    int32_t size = 0;
    unsigned char *image = soundImage(packet, &size);
    MsgPacketAddress to{};
    if (image == nullptr || !toPacketAddress(&to, address)) return FALSE;
    putPair(image, kDestination, to);
    fh::writeLe32(image + kRoute, static_cast<uint32_t>(routeTo(to)));
    return TRUE;
}

BOOL MsgMessageFromPacket(MSG_MESSAGE **message, const MSG_PACKET *packet) {
    int32_t size = 0;
    const unsigned char *image = soundImage(packet, &size);
    void *body = nullptr;
    if (message == nullptr || image == nullptr || !readBody(&body, packet, image, size)) return FALSE;
    *message = newMessage(addressOfPair(getPair(image, kDestination)), addressOfPair(getPair(image, kSource)),
                          static_cast<int32_t>(fh::readLe32(image + kType)), body,
                          fh::msgPacketIsSelf(packet) ? fh::msgSelfPool() : pool());
    return TRUE;
}

BOOL MsgObjectFromPacketInternal(void **object, const MSG_PACKET *packet, uint32_t magic) {
    int32_t size = 0;
    const unsigned char *image = soundImage(packet, &size);
    void *body = nullptr;
    if (object == nullptr || image == nullptr || !readBody(&body, packet, image, size)) return FALSE;
    const bool passes = body == nullptr ? magic == 0xFFFFFFFFu : magic == 0 || ObjCheckTypeInternal(body, magic);
    if (!passes) {
        trace(kIdBodyMagic, 0, 2, "Packet body %s is not of magic 0x%lx", ObjNameFromObject(body),
              static_cast<unsigned long>(magic));
        ObjReleaseInternal(&body);
        return FALSE;
    }
    *object = body;
    return TRUE;
}

int32_t MsgPacketMsgType(const void *packet) {
    int32_t size = 0;
    const unsigned char *image = soundImage(packet, &size);
    return image != nullptr ? static_cast<int32_t>(fh::readLe32(image + kType)) : 0;
}

BOOL MsgPacketIsFromChannel(const void *packet) {
    int32_t size = 0;
    const unsigned char *image = soundImage(packet, &size);
    return image != nullptr && static_cast<int32_t>(fh::readLe32(image + kDestination)) == MSG_MACHINE_CHANNEL;
}
