/*
 * net.h - sockets, addresses and select masks.
 *
 * The thin layer over the platform's IPv4 sockets that every message channel
 * works through. A socket is a signed 32-bit descriptor; -1 is no socket,
 * and every operation that takes one tests for -1 before it touches the
 * platform. Every socket is close-on-exec from birth.
 *
 * A NetAddressT holds an IPv4 socket address in 32 bytes, laid out with a
 * length byte in front of the family, which is not the platform's layout:
 *
 *   offset 0  1 byte   length, 16 in a filled-in address
 *   offset 1  1 byte   family, 2 for IPv4
 *   offset 2  2 bytes  port, big-endian
 *   offset 4  4 bytes  IPv4 address, big-endian
 *   offset 8  8 bytes  padding, not written by NetInitializeIpAddress
 *   offset 16 16 bytes room for a platform call, never read
 *
 * Callers hold addresses and ports in host order (127.0.0.1 is 0x7f000001);
 * the operations here swap them. The same 32 bytes are the object type
 * NET_ADDRESS, so an address travels inside a message as it is.
 *
 * Transfers, accept, connect and select give a NET_ERROR_* value, 0 for
 * success; the other operations give TRUE or FALSE. Out parameters come
 * first and are written only on success, unless a comment says otherwise.
 */
#ifndef FHCORE_NET_H
#define FHCORE_NET_H

#include <sys/select.h>

#include "context.h"
#include "timeout.h"
#include "types.h"

FH_BEGIN_DECLS

#define NET_ADDRESS_MAGIC 0xCAF097A5u
#define NET_ADDRESS_FORMAT "n32;"
#define NET_ADDRESS_SIZE 32
#define NET_ADDRESS_LENGTH 16 /* the bytes that carry anything */
#define NET_FAMILY_IP 2

typedef struct NetAddressT {
    unsigned char aBytes[NET_ADDRESS_SIZE];
} NetAddressT;
typedef NetAddressT NET_ADDRESS;

/* The kinds of NetOpen. */
#define NET_SOCKET_DATAGRAM 1
#define NET_SOCKET_STREAM 2

#define NET_INVALID_SOCKET (-1)

/* Results of transfers, accept, connect and select. 11 is not used. */
#define NET_ERROR_NONE 0           /* success */
#define NET_ERROR_WOULD_BLOCK 1    /* try after select; a connect is under way */
#define NET_ERROR_INTERRUPTED 2    /* a signal interrupted the call */
#define NET_ERROR_TIMEOUT 3        /* the time ran out */
#define NET_ERROR_CLOSED 4         /* the peer closed: the call gave 0 */
#define NET_ERROR_REFUSED 5        /* connection refused */
#define NET_ERROR_UNREACHABLE 6    /* network unreachable */
#define NET_ERROR_BAD_LENGTH 7     /* buffer length below 1 */
#define NET_ERROR_NOT_CONNECTED 8  /* stream send on a socket not connected */
#define NET_ERROR_BAD_SOCKET 9     /* the handle was -1 */
#define NET_ERROR_PROTOCOL 10      /* a protocol error outlasted the connect retries */
#define NET_ERROR_DOWN 12          /* broken pipe */
#define NET_ERROR_ACCEPT_FAILED 13 /* accept failed for want of resources or an aborted connection */
#define NET_ERROR_FATAL (-1)       /* any other failure of the platform */

/* Attempts of NetConnect while the platform reports a protocol error. */
#define NET_CONNECT_ATTEMPTS 11

/* The longest single wait of NetSelect, in seconds. */
#define NET_SELECT_LONGEST_WAIT 86400

/* A select mask: three sets of the platform and one more than the highest
 * socket ever added, which only rises. Not an object: a plain block from the
 * module's pool, all zero when new. Sockets from FD_SETSIZE up don't fit. */
typedef struct NetSelectMask {
    fd_set oRead;
    fd_set oWrite;
    fd_set oException;
    int32_t iNfds;
} NetSelectMask;

/* ---- Opening and closing --------------------------------------------------- */

/* Opens an IPv4 socket of kind NET_SOCKET_DATAGRAM or NET_SOCKET_STREAM in
 * *socket. A datagram socket gets SO_BROADCAST and, when "TTL" of section
 * "Network" of "lmnmgr.cfg" is above 0, that IP_TTL. FALSE, with *socket
 * untouched and no descriptor left open, for another kind or any failure. */
FHAPI BOOL NetOpen(int32_t *socket, int32_t kind);

/* Closes *socket and writes -1 into it. FALSE for a null pointer or -1,
 * without a platform call, and for a failed close (traced). */
FHAPI BOOL NetClose(int32_t *socket);

/* ---- Addresses ------------------------------------------------------------- */

/* Writes length 16, family 2, port and address (host order in), and nothing
 * else. FALSE only for a null address. */
FHAPI BOOL NetInitializeIpAddress(NetAddressT *address, uint32_t ipHostOrder, int32_t portHostOrder);

/* Replaces the port alone. FALSE only for a null address. */
FHAPI BOOL NetSetIpPort(NetAddressT *address, int32_t portHostOrder);

/* The port and the IPv4 address in host order; the family byte and the
 * length byte. All give 0 for a null address. */
FHAPI int32_t NetGetIpPort(const NetAddressT *address);
FHAPI uint32_t NetGetIpAddress(const NetAddressT *address);
FHAPI int32_t NetGetFamily(const NetAddressT *address);
FHAPI int32_t NetGetAddressLength(const NetAddressT *address);

/* TRUE for two null pointers, or two addresses of family 2 with the same
 * IPv4 address and, unless addressOnly, the same port. FALSE for one null
 * pointer and for any other family. */
FHAPI BOOL NetAddressEqual(const NetAddressT *first, const NetAddressT *second, BOOL addressOnly);

/* ---- Binding, listening and the peer --------------------------------------- */

/* Binds socket to address. FALSE for -1, a null address or a failed bind
 * (traced at level -1). */
FHAPI BOOL NetBind(int32_t socket, const NetAddressT *address);

/* Listens on socket. FALSE for -1 or a failure (traced). */
FHAPI BOOL NetListen(int32_t socket, int32_t backlog);

/* Accepts a connection into *newSocket, repeating while a signal interrupts,
 * and its peer's address into *address unless that is null. No option is
 * set on the new socket. NET_ERROR_WOULD_BLOCK without a trace when none is
 * waiting; NET_ERROR_ACCEPT_FAILED for want of resources or an aborted
 * connection, NET_ERROR_FATAL otherwise, both traced. */
FHAPI int32_t NetAccept(int32_t *newSocket, int32_t socket, NetAddressT *address);

/* Connects socket to address with one call; only a protocol error is tried
 * again, NET_CONNECT_ATTEMPTS calls in all, then NET_ERROR_PROTOCOL. On a
 * non-blocking socket NET_ERROR_WOULD_BLOCK means under way: select for
 * writing, then NetIsConnected. NET_ERROR_FATAL for a null address. */
FHAPI int32_t NetConnect(int32_t socket, const NetAddressT *address);

/* The socket's own address and its peer's in *address. FALSE, with *address
 * untouched, for a null address, -1 or a failure (traced). */
FHAPI BOOL NetGetLocalAddress(NetAddressT *address, int32_t socket);
FHAPI BOOL NetGetRemoteAddress(NetAddressT *address, int32_t socket);

/* ---- Transfers --------------------------------------------------------------
 * The one-shot forms make one platform call and never repeat it, not even
 * when a signal interrupts it (NET_ERROR_INTERRUPTED). -1 gives
 * NET_ERROR_BAD_SOCKET and a length below 1 NET_ERROR_BAD_LENGTH, before any
 * platform call and without a trace. The count is written on success only;
 * a null count pointer is allowed. */

/* Sends one datagram to address. A datagram sent short is NET_ERROR_FATAL. */
FHAPI int32_t NetUdpSend(int32_t socket, const void *buffer, int32_t length, const NetAddressT *address);

/* Receives one datagram, and its sender's address unless address is null. */
FHAPI int32_t NetUdpReceive(int32_t *received, int32_t socket, void *buffer, int32_t length, NetAddressT *address);

/* Sends as much of length bytes as the platform takes now; the count in
 * *sent. */
FHAPI int32_t NetTcpSend(int32_t *sent, int32_t socket, const void *buffer, int32_t length);

/* Receives what has arrived, up to length bytes; the count in *received. */
FHAPI int32_t NetTcpReceive(int32_t *received, int32_t socket, void *buffer, int32_t length);

/* Transfer all length bytes or fail, for non-blocking sockets (any
 * descriptor): between attempts they wait for the socket until timeout, an
 * absolute deadline (null or never: no limit), then NET_ERROR_TIMEOUT.
 * Interrupted calls and waits are repeated. *waited (may be null) has the
 * milliseconds spent waiting added to it, *didWait (may be null) is set to 1
 * if the call waited. The count moved goes to *sent or *received also after
 * a failure; on bad arguments (traced) the send writes 0 there and the
 * receive leaves it alone. */
FHAPI int32_t NetTcpSendBlocking(int32_t *sent, int32_t socket, const void *buffer, int32_t length,
                                 const TIME_TIMEOUT *timeout, int32_t *waited, BOOL *didWait);
FHAPI int32_t NetTcpReceiveBlocking(int32_t *received, int32_t socket, void *buffer, int32_t length,
                                    const TIME_TIMEOUT *timeout, int32_t *waited, BOOL *didWait);

/* ---- Options and state ------------------------------------------------------
 * All FALSE for -1 and for a failed platform call, which is traced with the
 * platform's error text and number; an out parameter is then untouched. */

/* Adds or removes O_NONBLOCK. */
FHAPI BOOL NetSetNonBlocking(int32_t socket);
FHAPI BOOL NetSetBlocking(int32_t socket);

/* SO_REUSEADDR to 1, and reading it as 1 or 0 (FALSE also for a null flag). */
FHAPI BOOL NetSetReuseAddress(int32_t socket);
FHAPI BOOL NetGetReuseAddress(BOOL *flag, int32_t socket);

/* SO_KEEPALIVE to 1. */
FHAPI BOOL NetSetKeepAlive(int32_t socket);

/* SO_LINGER on with a time of 0: closing resets the connection at once. */
FHAPI BOOL NetSetNoLinger(int32_t socket);

/* SO_SNDBUF and SO_RCVBUF, and reading them back (FALSE also for a null
 * size). */
FHAPI BOOL NetSetSendBufferSize(int32_t socket, int32_t size);
FHAPI BOOL NetSetReceiveBufferSize(int32_t socket, int32_t size);
FHAPI BOOL NetGetSendBufferSize(int32_t *size, int32_t socket);
FHAPI BOOL NetGetReceiveBufferSize(int32_t *size, int32_t socket);

/* Reads and so clears the pending error of socket: 1 if there was one
 * (traced "SO_ERROR: %s" at level 3), 0 if none, for -1, or if the read
 * fails. */
FHAPI BOOL NetSocketError(int32_t socket);

/* 1 when socket has no pending error and a send of zero bytes succeeds;
 * 0 for -1, a pending error (now cleared) or a failed send. */
FHAPI BOOL NetIsConnected(int32_t socket);

/* 0: this layer imposes no limit on a message. */
FHAPI int32_t NetGetMaximumMessageSize(void);

/* Does nothing and gives 0: TCP_NODELAY is never set. */
FHAPI BOOL NetTcpSetNoDelay(void);

/* ---- Select masks -----------------------------------------------------------
 * A socket of -1 or a null mask is ignored by the operations that change a
 * mask and gives 0 from those that read it. A socket that doesn't fit into
 * the sets (FD_SETSIZE or above) is refused with a trace by the Add forms,
 * ignored by the Remove forms and never set. */

/* A new clear mask in *mask, which the caller frees with
 * NetReleaseSelectMask. FALSE for a null out. */
FHAPI BOOL NetInitializeSelectMask(NetSelectMask **mask);

/* Frees *mask and clears the pointer. FALSE for a null address or mask. */
FHAPI BOOL NetReleaseSelectMask(NetSelectMask **mask);

/* A new copy of source in *mask, or source copied into target. FALSE, with
 * nothing made or changed, for a null argument. */
FHAPI BOOL NetDuplicateSelectMask(NetSelectMask **mask, const NetSelectMask *source);
FHAPI BOOL NetCopySelectMask(NetSelectMask *target, const NetSelectMask *source);

/* Set a socket's bit, raising the mask's nfds to socket + 1 if needed. TRUE
 * when the bit is set. */
FHAPI BOOL NetAddReadSelect(NetSelectMask *mask, int32_t socket);
FHAPI BOOL NetAddWriteSelect(NetSelectMask *mask, int32_t socket);
FHAPI BOOL NetAddExceptionSelect(NetSelectMask *mask, int32_t socket);

/* Clear a socket's bit; nfds stays as it is. TRUE when a bit was cleared. */
FHAPI BOOL NetRemoveReadSelect(NetSelectMask *mask, int32_t socket);
FHAPI BOOL NetRemoveWriteSelect(NetSelectMask *mask, int32_t socket);
FHAPI BOOL NetRemoveExceptionSelect(NetSelectMask *mask, int32_t socket);

/* 1 if the socket's bit is set. */
FHAPI BOOL NetIsReadSelectSet(const NetSelectMask *mask, int32_t socket);
FHAPI BOOL NetIsWriteSelectSet(const NetSelectMask *mask, int32_t socket);
FHAPI BOOL NetIsExceptionSelectSet(const NetSelectMask *mask, int32_t socket);

/* Waits until a socket of mask is ready or the deadline timeout passes
 * (null or never: no limit), one day at most: a NET_ERROR_TIMEOUT does not
 * mean that a later deadline has passed. The sets are overwritten with the
 * ready sockets, so callers wait on a copy. NET_ERROR_NONE with the number
 * ready in *count (may be null); NET_ERROR_INTERRUPTED for a signal, with
 * the sets undefined; NET_ERROR_FATAL for another failure (traced). A null
 * mask waits on no socket. */
FHAPI int32_t NetSelect(int32_t *count, NetSelectMask *mask, const TIME_TIMEOUT *timeout);

/* The same for a span: negative waits without limit, 0 polls, a positive
 * value waits that many milliseconds, without the cut to one day. */
FHAPI int32_t NetSelectRelative(int32_t *count, NetSelectMask *mask, int32_t milliseconds);

/* Diagnosis: traces for each socket set in mask whether it is ready now in
 * that set. The mask is not changed. FALSE for a null mask. */
FHAPI BOOL NetCheckSelect(const NetSelectMask *mask);

/* ---- The module's part of the context ladder ------------------------------- */

/* Registers NET_ADDRESS and makes the process-wide list of addresses that
 * don't resolve. */
FHAPI BOOL NetInitialize(void);
FHAPI BOOL NetInitializeThread(void);
FHAPI void NetReleaseThread(LmContext *context);

FH_END_DECLS

#endif /* FHCORE_NET_H */
