/*
 * nethost.h - host names, interfaces, binding inside a firewall, and the
 * hand-over of a socket to another process.
 *
 * Names. A dotted address of four numbers up to 255 never asks the name
 * service. A reverse look-up is checked forwards: a name that doesn't lead
 * back to its address is not used, and the address joins the process-wide
 * list of addresses that don't resolve, which are not looked up again until
 * NetClearCaches. So NetGetHostName never fails for an IPv4 address: at
 * worst the caller gets the dotted form. "Do not resolve" in stanza
 * "Network" of "lmnmgr.cfg" switches reverse look-ups off.
 *
 * Firewall. The ports a firewall lets through are the value list "Ports"
 * (listening sockets) or "Out Ports" (connecting sockets) of a stanza of
 * "firewall.cfg": single ports ("5990") and ranges ("5990 - 6000", blanks
 * around the hyphen optional, either end first). Once any value is a port or
 * a range the socket binds inside them or not at all; with none, a firewall
 * does not apply and the system picks the port.
 *
 * Hand-over. The owner of a socket lets a process it starts inherit it:
 * NetInheritPhase1 before the start (the descriptor survives exec), then
 * NetInheritPhase2 once the other process exists, which closes the owner's
 * copy. The NET_INHERIT_CONTEXT keeps the number, valid in the other process
 * only, and the serial by which NetInheritMatch pairs the answer with the
 * request.
 */
#ifndef FHCORE_NETHOST_H
#define FHCORE_NETHOST_H

#include "list.h"
#include "net.h"
#include "object.h"
#include "types.h"

FH_BEGIN_DECLS

/* An IPv4 interface: its address and its broadcast address (all zero when it
 * has none). */
#define NET_INTERFACE_MAGIC 0xC868C19Fu
#define NET_INTERFACE_FORMAT "n32;n32;"

typedef struct NET_INTERFACE {
    NetAddressT oAddress;
    NetAddressT oBroadcast;
} NET_INTERFACE;

#define NET_INHERIT_CONTEXT_MAGIC 0xCA0F3196u
#define NET_INHERIT_CONTEXT_FORMAT "i;b;i;i;i;d;"

typedef struct NET_INHERIT_CONTEXT {
    int32_t iSerial;    /* from the context's inherit counter, from 1 */
    BOOL bInherited;    /* the receiving process has taken the socket */
    int32_t iSocket;    /* valid in the receiving process; -1 once taken */
    int32_t iOwner;     /* process id of the giver */
    int32_t iTarget;    /* process id given to NetInheritPhase2 */
    ObjData oData;      /* left empty by the library */
} NET_INHERIT_CONTEXT;

/* The most entries SIOCGIFCONF is asked for. */
#define NET_INTERFACES_MAX 64

/* ---- Names ------------------------------------------------------------------ */

/* The IPv4 address of name in *address (length 16, family 2, port 0). A
 * dotted address is taken as it is, with errno 0 and no name service asked.
 * FALSE, *address untouched, for a null or empty name, a null address, a
 * failed look-up (errno as the look-up left it) or a family other than 2. */
FHAPI BOOL NetGetHostAddress(NetAddressT *address, const char *name);

/* The name of an IPv4 address as a new string in *name, which the caller
 * frees with MemFreeInternal; the dotted form when the address has no name
 * that leads back to it. FALSE only for a null argument or another family. */
FHAPI BOOL NetGetHostName(char **name, const NetAddressT *address);

/* Looks name up: in *aliases (may be null) a new list of OBJ_STRING, the
 * official name first; in *addresses (may be null) a new list of OBJ_INTEGER
 * with each IPv4 address in host order. FALSE, nothing made, for a null or
 * empty name or a failed look-up. */
FHAPI BOOL NetGetHostDetails(const char *name, LIST **aliases, LIST **addresses);

/* The machine's host name into buffer of size bytes. FALSE for a null
 * buffer, a size below 1 or a failure. */
FHAPI BOOL NetGetLocalHostName(char *buffer, int32_t size);

/* The first IPv4 address of the machine's host name: family 2, port 0 and
 * the length byte of the host entry (4). FALSE, traced, when the name or its
 * entry can't be had or the entry holds no address. */
FHAPI BOOL NetGetLocalHostAddress(NetAddressT *address);

/* The port of a service in host order in *port. FALSE, *port untouched, when
 * the service is not known: a default put there first survives. */
FHAPI BOOL NetGetServicePort(int32_t *port, const char *name, const char *protocol);

/* Empties the list of addresses that don't resolve. TRUE. */
FHAPI BOOL NetClearCaches(void);

/* ---- Interfaces and firewall ------------------------------------------------ */

/* A new list of NET_INTERFACE in *list: the IPv4 interfaces other than
 * 127.0.0.1, each with port put into both addresses, less those whose
 * address is in barred (a list of NET_ADDRESS, may be null). The interface
 * of "Preferred Address" (stanza "Network" of "lmnmgr.cfg") comes first, the
 * others in the system's order. socket is any open socket. FALSE, nothing
 * made, for a null list or a failed SIOCGIFCONF. */
FHAPI BOOL NetGetInterfaces(LIST **list, int32_t socket, int32_t portHostOrder, const LIST *barred);

/* A new list of NET_ADDRESS in *list from the value list "Barred Addresses"
 * of "lmnmgr.cfg"; values holding commas are split, names that don't resolve
 * are left out. FALSE, nothing made, when there is no such setting. */
FHAPI BOOL NetBarredAddresses(LIST **list);

/* Binds socket to ipHostOrder at a port that stanza of "firewall.cfg" lets
 * through ("Ports" when isListening, else "Out Ports"), trying ranges from
 * their low end. Ends beyond 65535 are not tried. Without any port or range
 * there it binds port 0. FALSE for -1 (a fault of the caller) or when no
 * bind worked. */
FHAPI BOOL NetBindThroughFirewallTyped(int32_t socket, uint32_t ipHostOrder, const char *stanza, BOOL isListening);

/* The same with address 0, stanza "Devices" and isListening. */
FHAPI BOOL NetBindThroughFirewall(int32_t socket);

/* ---- Hand-over -------------------------------------------------------------- */

/* Owner, before the other process is started: a new context in *context
 * (with a new serial, this process as owner and the handle) and the
 * socket's close-on-exec flag cleared. FALSE, traced at level -1 and
 * nothing made, for bad arguments or a failed fcntl. */
FHAPI BOOL NetInheritPhase1(NET_INHERIT_CONTEXT **context, int32_t socket);

/* Owner, once processId has inherited the descriptor: notes it as target and
 * closes the owner's copy; the context keeps the number. FALSE for not a
 * context or a handle of -1. */
FHAPI BOOL NetInheritPhase2(NET_INHERIT_CONTEXT *context, int32_t processId);

/* Owner: sends the context as MSG_INHERIT_SOCKET_MSG to processId on this
 * machine; the result of the send. */
FHAPI BOOL NetInheritPhase3(NET_INHERIT_CONTEXT *context, int32_t processId);

/* Receiver: takes the handle into *socket, writes -1 and inherited into the
 * context and sends it back to the owner as MSG_INHERITED_SOCKET_MSG; the
 * result of the send (the socket is the caller's either way). FALSE,
 * traced, nothing taken, for bad arguments or a handle of -1. */
FHAPI BOOL NetInheritPhase4(int32_t *socket, NET_INHERIT_CONTEXT *context);

/* Either side: closes the context's handle unless it is -1, and releases the
 * reference in *context, clearing it. FALSE for not a context. */
FHAPI BOOL NetInheritDone(NET_INHERIT_CONTEXT **context);

/* TRUE when both are contexts of the same serial. */
FHAPI BOOL NetInheritMatch(const void *first, const void *second);

FH_END_DECLS

#endif /* FHCORE_NETHOST_H */
