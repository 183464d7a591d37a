/*
 * msgsend.h - sending packets and the receive list of the process.
 *
 * Everything a process receives ends as a packet on one receive list, in the
 * order in which it happened: packets read off channels, channels that went
 * down, the loss of the IPC channel. A packet to a channel address goes
 * straight to that channel; every other packet goes over the IPC channel to
 * the communication manager, whose route field takes it on.
 */
#ifndef FHCORE_MSGSEND_H
#define FHCORE_MSGSEND_H

#include "msgpacket.h"
#include "types.h"

FH_BEGIN_DECLS

/* Sends object (null or valid; it stays the caller's) as a message of type
 * to address, from the local address. FALSE when no packet could be made or
 * handed to a channel; it says nothing of delivery. */
FHAPI BOOL MsgSendObject(const void *address, int32_t type, const void *object);

/* Sends a packet by its destination and always consumes the caller's
 * reference. When the IPC channel takes nothing, MSG_LOST_SEND_QUEUE_MSG
 * goes on the receive list and the result is FALSE. */
FHAPI BOOL MsgDispatch(MSG_PACKET **packet);

/* MsgSendObject to the source of message: a reply to a message that came
 * over a channel goes back over that channel. */
FHAPI BOOL MsgSendReply(const void *message, int32_t type, const void *object);

/* Sends a MSG_ERROR (code, a copy of text, object) to address as
 * MSG_ERROR_MSG. No result. */
FHAPI void MsgError(const void *address, int32_t code, const char *text, const void *object);

/* The last message error code of the process: nothing sets it, so 0. */
FHAPI int32_t MsgErrorCode(void);

/* Answers a MSG_PING_MSG: its MSG_PING body goes back by MsgSendReply as
 * MSG_PONG_MSG, the second field set to the time now. FALSE for a message
 * without such a body, or when the send fails. */
FHAPI BOOL MsgPong(const void *message);

/* Sends back to the source of message a MSG_UNKNOWN_MSG naming its type,
 * its body and a copy of reason. FALSE, with nothing sent, for a
 * MSG_UNKNOWN_MSG itself, a message from the local address, or when the
 * send fails. */
FHAPI BOOL MsgReturnUnknown(const void *message, const char *reason);

/* Takes over *packet and adds it at the end of the receive list; on failure
 * the packet is released. */
FHAPI BOOL MsgReceivePushPacket(MSG_PACKET **packet);
/* The first packet of the list in *packet, taken off; FALSE when empty. */
FHAPI BOOL MsgReceivePopPacket(MSG_PACKET **packet);
/* The length of the receive list. */
FHAPI int32_t MsgReceiveCount(void);

/* Puts a copy of message at the end of the receive list, to the local
 * address and from the message's own source. The body travels in this
 * process's own form, pointers whole, and the packet is never sent out.
 * FALSE, nothing queued, for not a message or a source without an id. */
FHAPI BOOL MsgSendToSelf(const void *message);
/* The same for object (null or valid; it stays the caller's) as a message
 * of type from and to the local address. */
FHAPI BOOL MsgSendObjectToSelf(int32_t type, const void *object);

FH_END_DECLS

#endif /* FHCORE_MSGSEND_H */
