/*
 * channel.h - channels: one TCP connection carrying packets between this
 * process and a peer, and the receive list that they fill.
 *
 * Two kinds. The IPC channel is the loopback connection of a process to the
 * communication manager of its machine (process id 2); it carries whole
 * packet images (msgpacket.h) and every addressed message travels over it.
 * A data channel runs straight between two processes and carries frames
 * alone: frame length, type, body; its ends know each other only by channel
 * id, and the reader makes the 192-byte header itself (route 0, machines -1,
 * the channel id as source and destination).
 *
 * Channels live in the channel map of the context, keyed by id (at least 1).
 * A channel that has gone down stays there, socket -1, until MsgChannelClose.
 * The reader keeps its state in the channel and yields at most one packet
 * per call; a non-blocking channel is never waited on: a send is one
 * attempt and the rest goes when select finds the socket writable.
 *
 * Bytes from the peer are not trusted: a frame length below 9 or an IPC
 * total below 200 takes the channel down, and the block a packet is read
 * into grows with what has arrived, not with what was declared.
 */
#ifndef FHCORE_CHANNEL_H
#define FHCORE_CHANNEL_H

#include "list.h"
#include "msgpacket.h"
#include "net.h"
#include "types.h"

FH_BEGIN_DECLS

#define MSG_CHANNEL_MAGIC 0xC912BD30u
#define MSG_CHANNEL_FORMAT "i;i;o;o;o;o;b;b;b;b;b;b;o;o;i;d;i;n512;b;"
#define MSG_CONNECTING_MAGIC 0xCA08F0ABu
#define MSG_CONNECTING_FORMAT "o;i;o;i;i;i;i;i;o;i;"
#define MSG_CONNECT_MAGIC 0xC90CF834u
#define MSG_CONNECT_FORMAT "b;i;o;i;o;"
#define MSG_CONNECT_INET_MAGIC 0xC91693B5u
#define MSG_CONNECT_INET_FORMAT "i;i;"
#define MSG_CONNECTED_MAGIC 0xCA0B44EAu
#define MSG_CONNECTED_FORMAT "b;i;o;o;"
#define MSG_IPC_CONNECT_MAGIC 0xC998B959u
#define MSG_IPC_CONNECT_FORMAT "i;i;i;"

/* The bytes of the staging area for the first bytes of a packet. */
#define MSG_CHANNEL_HEADER_AREA 512

typedef struct MSG_CHANNEL {
    int32_t iId;                  /* key in the channel map, at least 1 */
    int32_t iSocket;              /* -1 once closed */
    MSG_ADDRESS *oRemoteAddress;  /* the peer as a process address; may be null */
    MSG_ADDRESS *oAddress;        /* the channel address: null machine, the id */
    void *oProxyPeer;             /* set from MSG_PROXY_SOURCE_MSG */
    LIST *oOutputList;            /* MSG_PACKET waiting to go, the first in progress */
    BOOL bIsDown;                 /* gone down, socket closed */
    BOOL bIsBlocking;             /* the socket is in blocking mode */
    BOOL bNotifyOnDown;           /* queue MSG_CHANNEL_DOWN_MSG when it goes down */
    BOOL bIsClosing;              /* being closed: no MSG_CHANNEL_DOWN_MSG */
    BOOL bIsIpc;                  /* whole packet images go over it */
    BOOL bHoldOutput;             /* nothing written until connected-ok or flush */
    void *oAuthCookie;            /* from MSG_CHANNEL_AUTH_MSG */
    void *oConnectCookie;         /* handed back in MSG_CONNECTED_MSG after a held accept */
    int32_t iOutputPosition;      /* offset in the first packet from which to send */
    ObjData oInput;               /* the block the packet is read into: its capacity */
    int32_t iInputPosition;       /* bytes of the image read so far */
    unsigned char aHeader[MSG_CHANNEL_HEADER_AREA]; /* the first bytes of a packet */
    BOOL bIsNdmp;                 /* a channel with no socket */
} MSG_CHANNEL;

typedef struct MSG_CONNECTING {
    MSG_ADDRESS *oAddress; /* the peer */
    int32_t iSocket;       /* the listening or the connecting socket */
    void *oTimeout;        /* TIME_TIMEOUT: the deadline */
    int32_t iIsIpc, iIsBlocking, iNotifyOnDown, iHoldOutput, iSendConnectedOk;
    void *oCookie;         /* handed back in MSG_CONNECTED_MSG */
    int32_t iViaTunnel;
} MSG_CONNECTING;

typedef struct MSG_CONNECT {
    BOOL bSuccess;
    int32_t iError;  /* 1 listen failed, 2 no port available, 3 no socket */
    void *oCookie;
    int32_t iFamily; /* 2: MSG_CONNECT_INET follows */
    void *oDetails;
} MSG_CONNECT;

typedef struct MSG_CONNECT_INET {
    int32_t iPort;
    int32_t iViaTunnel;
} MSG_CONNECT_INET;

typedef struct MSG_CONNECTED {
    BOOL bConnected;
    int32_t iError;         /* 0 none, 1 accept failed, 2 timed out, 3 the connection failed */
    MSG_ADDRESS *oChannel;  /* present only when connected */
    void *oCookie;
} MSG_CONNECTED;

typedef struct MSG_IPC_CONNECT {
    int32_t iKind;          /* 0 a process, 1 a thread */
    int32_t iProcessId;     /* the logical process id */
    int32_t iSystemId;      /* system process id, or thread id */
} MSG_IPC_CONNECT;

/* ---- Creating ---------------------------------------------------------- */

/* The channel on an open socket: resets on close, blocking or not, in the
 * map with a new id unless notInMap (then no id, address or select bit).
 * *channel (may be null) gets a reference. FALSE, socket untouched, for a
 * socket of -1. */
FHAPI BOOL MsgChannelCreateInternal(MSG_CHANNEL **channel, int32_t socket, const MSG_ADDRESS *remoteAddress,
                                    BOOL isBlocking, BOOL notifyOnDown, BOOL isIpc, BOOL holdOutput, BOOL notInMap);
/* Non-blocking, notifying, in the map; the second carries whole images. */
FHAPI BOOL MsgChannelCreate(MSG_CHANNEL **channel, int32_t socket);
FHAPI BOOL MsgChannelCreateIpc(int32_t socket);
/* inMap 0 gives a bare record: no notification, id, address or select bit. */
FHAPI BOOL MsgChannelCreateGui(MSG_CHANNEL **channel, int32_t socket, BOOL inMap);
/* MsgInitializeThread on the current context. */
FHAPI BOOL MsgChannelInitialize(void);

/* ---- Working with a channel -------------------------------------------- */

/* Queues the packet for output and sends what the socket takes now; the
 * caller's reference is consumed whatever happens. FALSE for a channel that
 * is down or NDMP, or not a packet; a failed send takes the channel down. */
FHAPI BOOL MsgChannelDispatch(MSG_CHANNEL *channel, MSG_PACKET **packet);
/* Puts the packet at the end of the output list without sending (takes the
 * reference). */
FHAPI BOOL MsgChannelAddPacket(MSG_CHANNEL *channel, MSG_PACKET **packet);
/* Writes what it can. TRUE while the channel is up. */
FHAPI BOOL MsgChannelOutputData(MSG_CHANNEL *channel);
/* Reads what it can, at most one packet. TRUE with a new packet in *packet
 * when one for the caller is whole; FALSE when more must come, the packet
 * was one for the channel itself, or the channel went down. */
FHAPI BOOL MsgChannelReceiveData(MSG_PACKET **packet, MSG_CHANNEL *channel);
/* Length of the output list; the socket (-1 if not a channel); whether it
 * is down (TRUE for anything that isn't a channel). */
FHAPI int32_t MsgChannelOutputCount(const MSG_CHANNEL *channel);
FHAPI int32_t MsgChannelSocket(const MSG_CHANNEL *channel);
FHAPI BOOL MsgChannelIsDown(const MSG_CHANNEL *channel);
/* The channel's address with a new reference. */
FHAPI BOOL MsgChannelAddress(MSG_ADDRESS **address, const MSG_CHANNEL *channel);
/* The channel of a channel address with a new reference; FALSE if unknown. */
FHAPI BOOL MsgGetChannel(MSG_CHANNEL **channel, const void *address);
/* Sends MSG_FLUSH_CHANNEL_MSG on the channel. FALSE for not a channel's. */
FHAPI BOOL MsgChannelFlush(const MSG_ADDRESS *channelAddress);
/* Takes the channel out of the map and down, with no MSG_CHANNEL_DOWN_MSG,
 * and releases *channelAddress. FALSE for an unknown channel; any address
 * is taken in the communication manager. */
FHAPI BOOL MsgChannelClose(MSG_ADDRESS **channelAddress);
/* A list walker: takes the channel of the node down at once; TRUE. */
FHAPI BOOL MsgChannelForceDown(void *cookie, LISTNODE *listNode);
/* TRUE if the channel has an authentication cookie; *cookie (may be null)
 * gets a new reference. */
FHAPI BOOL MsgChannelGetAuth(void **cookie, const MSG_ADDRESS *channelAddress);
/* Replaces the cookie: only in the auditor (process 8); FALSE elsewhere. */
FHAPI BOOL MsgChannelSetAuth(const MSG_ADDRESS *channelAddress, void *cookie);

/* The select mask of the process, as net.h's operations. */
FHAPI BOOL MsgAddReadSelect(int32_t socket);
FHAPI BOOL MsgAddWriteSelect(int32_t socket);
FHAPI BOOL MsgAddExceptionSelect(int32_t socket);
FHAPI BOOL MsgRemoveReadSelect(int32_t socket);
FHAPI BOOL MsgRemoveWriteSelect(int32_t socket);
FHAPI BOOL MsgRemoveExceptionSelect(int32_t socket);
FHAPI BOOL MsgIsReadSelectSet(int32_t socket);
FHAPI BOOL MsgIsWriteSelectSet(int32_t socket);
FHAPI BOOL MsgIsExceptionSelectSet(int32_t socket);

/* ---- Opening ------------------------------------------------------------ */

/* The port of the communication manager: 20032, or service "lathmere6";
 * "TcpPort" of stanza "Machine" of "configure.cfg"; plus 1; or service
 * "lathmere6comms"; "Comms TcpPort" of the same stanza. */
FHAPI int32_t MsgGetCommsPort(void);

/* Makes the local address and, in every process but the communication
 * manager, the IPC channel: retried each second on refusal until 60 seconds
 * (process id 0: "Adopted Processes Connection" of stanza "Timeouts", 6).
 * kind is 1 for a thread, else 0. FALSE when no connection was made. */
FHAPI BOOL MsgIpcConnect(int32_t kind);

/* The listening half of a data channel, called by the side that wants it:
 * sends MSG_CONNECT_MSG with peerCookie to peer. Synchronous: waits for the
 * peer and gives the channel address in *channelAddress (with waitForOk,
 * also for its MSG_CONNECTED_OK_MSG). Otherwise MSG_CONNECTED_MSG with
 * localCookie comes later. FALSE if nothing was sent or the wait failed. */
FHAPI BOOL MsgChannelOpenInternal(MSG_ADDRESS **channelAddress, const MSG_ADDRESS *peer, void *peerCookie,
                                  void *localCookie, BOOL isBlocking, BOOL isSynchronous, BOOL waitForOk);
/* The connecting half, with a received MSG_CONNECT_MSG. Synchronous: the
 * channel address in *channelAddress and no MSG_CONNECTED_MSG; otherwise
 * exactly one MSG_CONNECTED_MSG later. */
FHAPI BOOL MsgChannelCompleteInternal(MSG_ADDRESS **channelAddress, const MSG_MESSAGE *message, BOOL isBlocking,
                                      BOOL isSynchronous, BOOL sendOk);
/* Connects out to ipHostOrder:port. Synchronous: *channel gets the channel
 * (a new reference). FALSE when the connect failed or could not start. */
FHAPI BOOL MsgCompleteTcpConnectionTyped(MSG_CHANNEL **channel, const MSG_ADDRESS *peer, void *cookie,
                                         uint32_t ipHostOrder, int32_t port, BOOL isBlocking, BOOL isSynchronous,
                                         BOOL notifyOnDown, BOOL sendOk, BOOL viaTunnel);
FHAPI BOOL MsgCompleteTcpConnection(MSG_CHANNEL **channel, const MSG_ADDRESS *peer, void *cookie,
                                    uint32_t ipHostOrder, int32_t port, BOOL isBlocking, BOOL isSynchronous,
                                    BOOL notifyOnDown, BOOL sendOk);

FH_END_DECLS

#endif /* FHCORE_CHANNEL_H */
