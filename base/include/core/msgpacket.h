/*
 * msgpacket.h - messages in their three forms: the MSG_ADDRESS that names
 * where one goes, the MSG_MESSAGE that applications hold, and the MSG_PACKET
 * image that goes on a socket.
 *
 * Addresses. An address is a machine name and a process id on it. An
 * address with a null machine name is a channel address: it names one end
 * of a channel of this process by the channel id and means nothing in
 * another process. Well-known processes have fixed ids; their addresses on
 * this machine are made once and handed out borrowed, with no reference.
 *
 * Machine ids. A packet names machines by 32-bit ids: 1 this machine, -1 no
 * machine (the process field is a channel id), and above 1 the integer "Id"
 * of the machine's stanza in "etc/machines.dat" under the home directory.
 * The ids are those of the machine that reads them: the library rewrites
 * nothing when a packet arrives. A stanza with a category is never a
 * machine.
 *
 * The packet image, every integer 32-bit little-endian:
 *
 *   offset 0    route: minus the channel id for machine -1, the process id
 *               for machine 1, else 3 (the network manager)
 *   offset 4    total: bytes of the image, header included
 *   offset 8    source machine id, source process id
 *   offset 16   destination machine id, destination process id
 *   offset 24   message type
 *   offset 28   reserved, 0
 *   offset 32   160 zero bytes
 *   offset 192  frame length: bytes from offset 192 to the end
 *   offset 196  the message type again
 *   offset 200  the body in its byte form (objserial.h); a null body is the
 *               one lead byte 0
 *
 * So total is the frame length plus 192. A data channel carries the image
 * from offset 192 on. An image from elsewhere is read only when it holds at
 * least 201 bytes and its total equals its length.
 *
 * Channels. Until the channel map of this process knows a channel, a channel
 * address names an unknown channel: it is not on this machine, has no
 * sender behind it and is from no one.
 */
#ifndef FHCORE_MSGPACKET_H
#define FHCORE_MSGPACKET_H

#include "net.h"
#include "object.h"
#include "stanza.h"
#include "types.h"

FH_BEGIN_DECLS

#define MSG_ADDRESS_MAGIC 0xC8CD2676u
#define MSG_ADDRESS_FORMAT "s;i;"
#define MSG_MESSAGE_MAGIC 0xC8C71546u
#define MSG_MESSAGE_FORMAT "o;o;i;i;o;"
#define MSG_PACKET_MAGIC 0xC9736716u
#define MSG_PACKET_FORMAT "d;"

typedef struct MSG_ADDRESS {
    char *pszMachine;  /* null in a channel address */
    int32_t iProcess;  /* the process id, or the channel id */
} MSG_ADDRESS;

typedef struct MSG_MESSAGE {
    MSG_ADDRESS *oDestination;
    MSG_ADDRESS *oSource;
    int32_t iReserved; /* never set */
    int32_t iType;     /* message id (messages/) */
    void *oObject;     /* the body, may be null */
} MSG_MESSAGE;

typedef struct MSG_PACKET {
    ObjData oImage; /* the packet image; the packet owns the block */
} MSG_PACKET;

/* A (machine id, process id) pair as it stands in a packet. */
typedef struct MsgPacketAddress {
    int32_t iMachine;
    int32_t iProcess;
} MsgPacketAddress;

/* The templates of the three types. */
extern FHAPI ObjectTemplate *gtObjTemplateAddress;
extern FHAPI ObjectTemplate *gtObjTemplateMessage;
extern FHAPI ObjectTemplate *gtObjTemplatePacket;

/* Process ids of the well-known processes. */
#define MSG_PROCESS_NONE 0
#define MSG_PROCESS_PROCMGR 1
#define MSG_PROCESS_COMMMGR 2
#define MSG_PROCESS_NETMGR 3
#define MSG_PROCESS_LOGDAEMON 7
#define MSG_PROCESS_AUDITOR 8
#define MSG_PROCESS_TUNNEL 11

/* Machine ids in a packet. */
#define MSG_MACHINE_LOCAL 1
#define MSG_MACHINE_CHANNEL (-1)

/* The layout of the packet image. */
#define MSG_PACKET_HEADER_SIZE 192
#define MSG_PACKET_BODY_OFFSET 200
#define MSG_PACKET_MINIMUM_SIZE 201

/* ---- Addresses --------------------------------------------------------------- */

/* A new address in *address with a copy of machineName, which must not be
 * null. MsgMakeAddress accepts a null name (a channel address). FALSE, with
 * nothing made, for bad arguments. */
FHAPI BOOL MsgCreateAddress(MSG_ADDRESS **address, const char *machineName, int32_t processId);
FHAPI BOOL MsgMakeAddress(MSG_ADDRESS **address, const char *machineName, int32_t processId);

/* The well-known addresses on this machine and the process's own, borrowed:
 * no reference is added. Null before MsgInitialize (MsgLocalAddress: before
 * MsgInitializeThread). MsgChannelDummyAddress has a null name and id 0. */
FHAPI MSG_ADDRESS *MsgProcMgrAddress(void);
FHAPI MSG_ADDRESS *MsgCommMgrAddress(void);
FHAPI MSG_ADDRESS *MsgNetMgrAddress(void);
FHAPI MSG_ADDRESS *MsgLogDaemonAddress(void);
FHAPI MSG_ADDRESS *MsgAuditorAddress(void);
FHAPI MSG_ADDRESS *MsgChannelDummyAddress(void);
FHAPI MSG_ADDRESS *MsgLocalAddress(void);

/* Makes the process's own address anew from the machine name and the
 * context's process id. FALSE before MsgInitializeThread. */
FHAPI BOOL MsgCreateLocalAddress(void);

/* TRUE for an address with a null machine name. */
FHAPI BOOL MsgIsAChannel(const void *address);
/* The process id; -1 for anything that isn't an address. */
FHAPI int32_t MsgGetProcessId(const void *address);
/* The channel id; -1 unless it is a channel address. */
FHAPI int32_t MsgGetChannelId(const void *address);
/* The machine name, still owned by the address; null for a channel address
 * or anything that isn't an address. */
FHAPI const char *MsgGetMachineName(const void *address);

/* Both addresses, equal process ids and machine names equal ignoring case
 * (a null name compares as an empty one). MachinesEqual compares the names
 * alone. */
FHAPI BOOL MsgAddressEqual(const void *first, const void *second);
FHAPI BOOL MsgAddressMachinesEqual(const void *first, const void *second);

/* Whether source, mapped to its sender, equals address. */
FHAPI BOOL MsgAddressIsFrom(const void *address, const void *source);

/* Whether the address is on this machine: its name against the local name
 * ignoring case; for a channel address, the channel's peer. */
FHAPI BOOL MsgIsLocalMachine(const void *address);
/* The same for a message's source. */
FHAPI BOOL MsgIsFromLocalMachine(const void *message);

/* ---- Machine ids and networks --------------------------------------------------- */

/* The machine id of name in *id: -1 for a null name, 1 for this machine
 * (ignoring case), else "Id" of its stanza. FALSE, *id untouched, for a
 * machine without a stanza or with an "Id" of 0 or below. */
FHAPI BOOL MsgMachineNameToId(int32_t *id, const char *name);

/* A new address in *address for a pair of a packet. FALSE, traced, for a
 * machine id that no stanza of "machines.dat" has. */
FHAPI BOOL MsgAddressFromPacketAddress(MSG_ADDRESS **address, const MsgPacketAddress *packetAddress);

/* Whether a machine is a server: "Server" of its stanza; for a null name or
 * this machine "server" of stanza "details" of "configure.cfg". */
FHAPI BOOL MsgMachineIsServer(const char *name);

/* The network address at which the machine of address is reached, port 0:
 * 127.0.0.1 for this machine; else by MsgPreferredNetFromStanza. FALSE for
 * a channel address and an unknown machine. */
FHAPI BOOL MsgPreferredNet(const void *address, NetAddressT *netAddress);

/* The first of "Contact Address", "Preferred Address", "Networks" that holds
 * a value decides alone: its first value that resolves. FALSE if none of
 * its values resolves. */
FHAPI BOOL MsgPreferredNetFromStanza(const Stanza *stanza, NetAddressT *netAddress);

/* A new list of NET_ADDRESS (port 0) in *list: 127.0.0.1 for this machine;
 * else the first value of "Contact Address", the first of "Preferred
 * Address" and every value of "Networks" that resolve, each address once.
 * FALSE, nothing made, when the list would be empty. */
FHAPI BOOL MsgNets(LIST **list, const void *address);

/* ---- Messages -------------------------------------------------------------- */

/* A new message in *message from the local address to destination, holding
 * references to both addresses and to object (null or a valid object).
 * FALSE, nothing made, for bad arguments. */
FHAPI BOOL MsgCreate(MSG_MESSAGE **message, const void *destination, int32_t type, void *object);

/* The type; 0 for anything that isn't a message. */
FHAPI int32_t MsgType(const void *message);

/* A new reference to the source as it stands, the source mapped to its
 * sender, or the destination. FALSE for not a message or no such address. */
FHAPI BOOL MsgGetSource(MSG_ADDRESS **address, const void *message);
FHAPI BOOL MsgGetSender(MSG_ADDRESS **address, const void *message);
FHAPI BOOL MsgGetDestination(MSG_ADDRESS **address, const void *message);

/* A new reference in *address: for a channel address the peer of the
 * channel, else the address itself. FALSE for an unknown channel or not an
 * address. MsgGetSenderFromSource does the same, and with unsound arguments
 * nothing at all and TRUE. */
FHAPI BOOL MsgSenderAddressFromSourceAddress(MSG_ADDRESS **address, const void *source);
FHAPI BOOL MsgGetSenderFromSource(MSG_ADDRESS **address, const void *source);

/* A new reference to the body in *object. FALSE for no body, or a magic
 * (unless 0) other than the body's. */
FHAPI BOOL MsgGetObjectInternal(void **object, const void *message, uint32_t magic);

/* Whether message came from address: compared as they are, unless the
 * source is a channel address and address isn't, when the channel's peer is
 * compared (FALSE for an unknown channel, traced). */
FHAPI BOOL MsgIsFrom(const void *message, const void *address);

/* Whether the source has a null machine name. */
FHAPI BOOL MsgIsFromAChannel(const void *message);

/* ---- Packets --------------------------------------------------------------- */

/* A new packet in *packet addressed from source to destination, with the
 * body object (null or valid). FALSE, nothing made, for a machine without an
 * id or an object that can't be serialised. */
FHAPI BOOL MsgCreatePacket(MSG_PACKET **packet, const void *destination, const void *source, int32_t type,
                           const void *object);

/* Points the packet at address: destination fields and route; the source
 * stays. FALSE, nothing changed, for a machine without an id or a damaged
 * image. */
FHAPI BOOL MsgRedirectPacket(const void *address, MSG_PACKET *packet);

/* MsgCreatePacket from the message's fields. */
FHAPI BOOL MsgMessageToPacket(MSG_PACKET **packet, const void *message);

/* A new message in *message from an image: source, destination, type and
 * body; the frame fields are not looked at. An address whose machine id
 * can't be mapped stays null (traced). FALSE, nothing made, for an image
 * that is too short, whose total differs from its length, or whose body is
 * refused. */
FHAPI BOOL MsgMessageFromPacket(MSG_MESSAGE **message, const MSG_PACKET *packet);

/* The body alone in *object (a new reference, null for a null body). A magic
 * other than 0 must be the body's; a null body passes only magic -1. FALSE
 * as MsgMessageFromPacket. */
FHAPI BOOL MsgObjectFromPacketInternal(void **object, const MSG_PACKET *packet, uint32_t magic);

/* The type field; 0 for anything that isn't a sound packet. */
FHAPI int32_t MsgPacketMsgType(const void *packet);

/* Whether the destination machine is -1, as on every packet read from a
 * data channel. */
FHAPI BOOL MsgPacketIsFromChannel(const void *packet);

/* Creates the three templates alone, for a tool that reads packets without
 * starting the module. */
FHAPI BOOL MsgCreateTemplates(void);

FH_END_DECLS

#endif /* FHCORE_MSGPACKET_H */
