// msgself.h - packets that a process makes for itself, and the mark on them.
//
// A packet that the process sends to itself carries its body in the
// serialiser's in-process form (pointers at their full width), so a routine
// or a cookie of a timer comes back whole. Such a packet is marked by a word
// in the unused part of its header, which a copy keeps (ObjDuplicate and
// ObjDuplicateInternal alike). The image never leaves the process: a marked
// packet is never dispatched, the channel reader clears the word of every
// image it reads off a socket, and a MSG_PACKET read as a body from
// elsewhere with the word set is refused. A message made of a marked packet
// is marked by its pool, which no reader of bytes from elsewhere uses; a copy
// of such a message comes from the default pool and loses the mark, so its
// body goes back out in the form for other processes.
#ifndef FHCORE_MSGSELF_H
#define FHCORE_MSGSELF_H

#include <cstdint>

#include "core/msgpacket.h"
#include "core/objserial.h"

namespace fh {

// The pool of marked messages.
MemPool *msgSelfPool();

// Whether a packet or a message carries the mark.
bool msgPacketIsSelf(const MSG_PACKET *packet);
bool msgMessageIsSelf(const void *message);
// Sets the mark in a header being made; clears it in a header read off a
// socket.
void msgMarkSelf(unsigned char *header);
void msgClearMark(unsigned char *header);

// A new packet from source to destination with the body object; marked and
// in the in-process form when self is true. False, nothing made, for an
// address whose machine has no id or a body that can't be written.
bool msgMakePacket(MSG_PACKET **packet, const void *destination, const void *source, int32_t type,
                   const void *object, bool self);

// Writes a frame (its length, the type, the body) in the in-process form at
// the buffer's write position.
bool msgSelfFrame(const void *object, int32_t type, ObjBufferDescriptor *buffer);
// Reads a body of length bytes in the in-process form.
bool msgSelfReadBody(void **body, const unsigned char *bytes, int32_t length);

// The packet of a message that goes back on the receive list: marked when
// the message came from a marked packet, so that its body keeps its
// pointers, else as MsgMessageToPacket makes it.
bool msgPacketFromMessage(MSG_PACKET **packet, const void *message);

// What the send and read paths do with a marked packet or a timer message:
// true when MsgDispatch must refuse the packet (released, traced); true when
// a packet of type read from socket must be dropped (traced).
bool msgRefuseSelfDispatch(MSG_PACKET **packet);
bool msgDropFromSocket(int32_t type, int32_t channelId, int32_t socket);

} // namespace fh

#endif // FHCORE_MSGSELF_H
