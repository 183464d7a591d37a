/*
 * msgreceive.h - receiving messages: the receive list of the process, the
 * pass that fills it, and the routines that serve a caller's own sockets.
 *
 * No thread of the library moves messages: each receive call makes at most
 * one pass of the select mask of the process. A pass writes and reads each
 * ready channel once (write first), serves the lingering channels, then
 * calls the handlers with the working mask, serves the connections under
 * way and expires timers. Whatever happens ends as a packet on the receive
 * list, in the order in which it happened. A receive does no pass while
 * anything is queued.
 *
 * A null timeout waits without limit. A receive that gives FALSE before its
 * time is up has done its one pass; callers loop.
 */
#ifndef FHCORE_MSGRECEIVE_H
#define FHCORE_MSGRECEIVE_H

#include "list.h"
#include "msgpacket.h"
#include "net.h"
#include "timeout.h"
#include "types.h"

FH_BEGIN_DECLS

/* A routine served after each select: the working mask (null when the
 * select was interrupted by a signal) and the cookie it was added with. */
typedef void (*MsgHandlerFunction)(NetSelectMask *mask, void *cookie);

#define MSG_HANDLER_ENTRY_MAGIC 0xC9BABCCDu
#define MSG_HANDLER_ENTRY_FORMAT "p;o;"
typedef struct MSG_HANDLER_ENTRY {
    MsgHandlerFunction pRoutine;
    void *oCookie; /* any object, or null; the entry holds a reference */
} MSG_HANDLER_ENTRY;

/* The bodies of MSG_UNKNOWN_MSG, MSG_ERROR_MSG and MSG_PING_MSG /
 * MSG_PONG_MSG. */
#define MSG_UNKNOWN_MAGIC 0xC9B0FA00u
#define MSG_UNKNOWN_FORMAT "s;i;o;"
typedef struct MSG_UNKNOWN {
    char *pszReason;
    int32_t iType;   /* the type of the message that nobody took */
    void *oObject;   /* its body */
} MSG_UNKNOWN;

#define MSG_ERROR_MAGIC 0xCA10B0B8u
#define MSG_ERROR_FORMAT "i;s;o;"
typedef struct MSG_ERROR {
    int32_t iCode;
    char *pszText;
    void *oObject;
} MSG_ERROR;

#define MSG_PING_MAGIC 0xC9FED45Eu
#define MSG_PING_FORMAT "i;i;"
typedef struct MSG_PING {
    int32_t iSent;     /* left as it came */
    int32_t iAnswered; /* set by the answerer to TimeNow */
} MSG_PING;

/* ---- Receiving ------------------------------------------------------------ */

/* One update of the receive list (MsgUpdateReceiveList), then the first
 * packet that becomes a message, in *message (the caller's); packets that
 * don't are dropped. FALSE when the list runs out. */
FHAPI BOOL MsgReceive(MSG_MESSAGE **message, const TIME_TIMEOUT *timeout);
/* The same with the immediate timeout. */
FHAPI BOOL MsgPoll(MSG_MESSAGE **message);
/* One update; TRUE if the receive list holds a packet. Nothing is taken. */
FHAPI BOOL MsgWait(const TIME_TIMEOUT *timeout);
/* One update, then the first packet itself (the caller's). */
FHAPI BOOL MsgReceivePacket(MSG_PACKET **packet, const TIME_TIMEOUT *timeout);
/* MsgReceive, then the type in *type and the body in *object (the caller's,
 * may be null); the message itself is released. */
FHAPI BOOL MsgReceiveObject(int32_t *type, void **object, const TIME_TIMEOUT *timeout);

/* Selective receive: the first queued message of type (0: any) from
 * address (null: anyone), searching until the deadline; the others stay in
 * the queue in their order. With an address, news that the peer is gone
 * (its death, its machine down or unreachable) ends the search as FALSE,
 * as MSG_LOST_RECEIVE_QUEUE_MSG and MSG_LOST_SEND_QUEUE_MSG always do; the
 * news stays queued. */
FHAPI BOOL MsgReceiveMsgTypeFromAddress(MSG_MESSAGE **message, int32_t type, const void *address,
                                        const TIME_TIMEOUT *timeout);

/* Expires timers; TRUE if the receive list holds a packet or a poll of the
 * select mask finds a socket ready. Nothing is read. */
FHAPI BOOL MsgPending(void);

/* When the receive list is empty: expires timers and makes one pass, for at
 * most the timeout lowered to the next connect deadline and timer event.
 * TRUE if the list holds a packet afterwards. */
FHAPI BOOL MsgUpdateReceiveList(const TIME_TIMEOUT *timeout);

/* A ListWalk of the receive list (items MSG_PACKET); its result. */
FHAPI int32_t MsgWalkReceiveList(ListWalkFunction routine, void *cookie);

/* Put back at the front of the list: a packet (with a reference of its
 * own), a message made into a packet with its own addresses. A list of
 * packets or of messages is emptied into the front item by item, so that
 * its last item ends up first; a list of another declared type gives
 * FALSE and is left as it was. */
FHAPI BOOL MsgRequeuePacket(MSG_PACKET *packet);
FHAPI BOOL MsgRequeue(const MSG_MESSAGE *message);
FHAPI BOOL MsgPushPackets(LIST *list);
FHAPI BOOL MsgPushMessages(LIST *list);

/* ---- Handlers --------------------------------------------------------------- */

/* Adds routine, called after each select with the working mask and cookie
 * (the entry takes a reference). FALSE for a null routine. */
FHAPI BOOL MsgHandlerAdd(MsgHandlerFunction routine, void *cookie);
/* Removes the first entry with both routine and cookie; FALSE if none. */
FHAPI BOOL MsgHandlerRemove(MsgHandlerFunction routine, const void *cookie);

/* ---- Diagnostics and life cycle ------------------------------------------ */

/* Traces the length of the receive list, the sockets of the select mask
 * and each channel. */
FHAPI void MsgCheckSelect(void);
/* Non-zero: MsgReleaseThread lets channels go without lingering. */
FHAPI void MsgQuickExit(BOOL value);

FH_END_DECLS

#endif /* FHCORE_MSGRECEIVE_H */
