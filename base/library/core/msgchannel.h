// msgchannel.h - what the parts of the messaging module share and do not
// export: their shares of start-up, the check for a message, and the view
// of a channel that addresses and messages need.
#ifndef FHCORE_MSGCHANNEL_H
#define FHCORE_MSGCHANNEL_H

#include <cstdint>

#include "core/channel.h"
#include "core/context.h"
#include "core/msg.h"
#include "core/msgpacket.h"
#include "core/net.h"
#include "core/object.h"
#include "core/timeout.h"
#include "core/trace.h"
#include "messages/msgpmgr.h"
#include "codec.h"

namespace fh {

// Templates and well-known addresses (once per process); the process's own
// address in the context.
bool msgAddressesInitialize();
bool msgAddressesInitializeThread();
bool msgPacketsInitialize();

// The address or the message itself, or null for anything that isn't one.
inline const MSG_ADDRESS *msgAddressOf(const void *object) {
    return object != nullptr && ObjCheckTypeInternal(object, MSG_ADDRESS_MAGIC)
               ? static_cast<const MSG_ADDRESS *>(object)
               : nullptr;
}
const MSG_MESSAGE *msgMessageOf(const void *object);

// What an address or a message needs to know of a channel of this process:
// whether the channel map has it, its kind, and the peer behind it
// (borrowed; may be null).
struct ChannelView {
    bool found;
    bool isNdmp;
    bool hasProxyPeer;
    const MSG_ADDRESS *remote;
};
ChannelView msgChannelView(int32_t channelId);
// Whether the machine of address says "Can Tunnel" in "machines.dat", read
// anew; false for an address without a machine name.
bool msgMachineCanTunnel(const void *address);

// ---- Channels (msgchannel.cpp) ----

// Templates (once per process); the map, select masks and lists of the
// context. The first steps of the release of a thread: the receive list
// goes, the connections under way are closed, every channel but the IPC
// channel goes down without notice, and the lingering ones are forced
// down; the objects themselves stay for MsgReleaseThread.
bool msgChannelsInitialize();
bool msgChannelsInitializeThread();
void msgChannelsShutDown(LmContext *context);

// The channel of an id in the map, borrowed; null if none.
MSG_CHANNEL *msgChannelFind(int32_t id);
// The channel itself, or null for anything that isn't one.
MSG_CHANNEL *msgChannelOf(const void *object);
// The process's select mask; null before MsgInitializeThread.
NetSelectMask *msgSelectMask();
// Takes a channel down in its order (a channel already down is left).
void msgChannelDown(MSG_CHANNEL *channel);
// Takes a channel out of the map, with its reference.
void msgChannelRemove(MSG_CHANNEL *channel);
// A new packet of type, no body, from and to address; null if none.
MSG_PACKET *msgBarePacket(int32_t type, const void *from, const void *to);
// The name of a message type for a trace at level, looked up (and for a
// type without a name, formatted) only when the trace would be kept: the
// traces of every packet cost a compare when they are off.
inline const char *msgTracedName(int32_t level, int32_t type) {
    return TraceWouldTrace(level) ? MsgNameWithBuffer(type, nullptr, 0) : "";
}
// The little-endian 32-bit words of an image, as the signed fields they are.
inline int32_t msgGetLe32(const unsigned char *p) { return static_cast<int32_t>(readLe32(p)); }
inline void msgPutLe32(unsigned char *p, int32_t value) { writeLe32(p, static_cast<uint32_t>(value)); }

// One pass over the channels of the map and then the lingering ones, with
// the readiness of a pass: output when ready to write, then one read when
// ready to read; each packet read goes to msgDeliver. A lingering channel
// that has gone down leaves the linger list.
void msgServeChannels(const NetSelectMask *working);
// What the channel layer does with a whole packet read off channel: the
// IPC filter for the IPC channel of every process but the communication
// manager, then the receive list once the IPC connection is made; before
// that the packet is dropped. Takes the reference.
void msgDeliver(MSG_CHANNEL *channel, MSG_PACKET **packet);
// The filter's body types (once per process).
bool msgFilterInitialize();
// Whether this process takes tasks in the old plain form only, so that a
// PMGR_TASK_EXT is converted on arrival; set at start-up.
void msgSetOldStyleTasks(bool oldStyle);

// ---- The pass (msgreceive.cpp) ----

bool msgReceiveInitialize();
bool msgReceiveInitializeThread();
void msgReceiveReleaseThread(LmContext *context);
// Whether socket was found ready to write (or read) by the last pass: the
// working mask below FD_SETSIZE, the pass's own record from there up.
bool msgSocketReady(const NetSelectMask *working, int32_t socket, bool write);
// One pass: wait until timeout (null: no limit) for a socket of the select
// mask or a channel, serve what is ready, the handlers, the connections
// under way and the timers. The result of the wait, as NetSelect gives it.
int32_t msgPass(const TIME_TIMEOUT *timeout);
// The same for at most milliseconds (-1: no limit).
int32_t msgSelectPass(int32_t milliseconds);
// The never timeout that a null timeout stands for.
const TIME_TIMEOUT *msgNeverTimeout();
// The port of the tunnel service ("Tunnel Port" in the network settings;
// 0: none), read at start-up; tests set it.
int32_t msgTunnelPort();
void msgSetTunnelPort(int32_t port);
// Timers: expire what is due, and lower a deadline to the next event.
void msgExpireTimers();
void msgLowerToTimers(TIME_TIMEOUT *deadline);
// A message as a packet for the front of the receive list, keeping its
// destination and source; null when it can't be made.
MSG_PACKET *msgRequeueForm(const void *message);

// ---- Connections (msgconnect.cpp) ----

// Walks oConnectingList once with the working mask: accepts, completes,
// fails, times out; each outcome queues its MSG_CONNECTED_MSG.
void msgServeConnecting(const NetSelectMask *working);
// Queues MSG_CONNECTED_MSG from peer to the local address.
void msgQueueConnected(const MSG_ADDRESS *peer, bool connected, int32_t error, const MSG_ADDRESS *channel,
                       void *cookie);
// The waits of the module in seconds, and the pause between attempts of the
// IPC connection in milliseconds; tests shorten them. 0 puts a value back.
void msgSetConnectLimits(int32_t ipcSeconds, int32_t waitSeconds, int32_t retryMilliseconds);
bool msgConnectInitialize();

// ---- The receive list (msgsend.cpp) ----

// The body types that the layer makes (once per process).
bool msgSendInitialize();
// A prepared failure of a task request: not taken, code, the request's
// unique id and service address (referenced). Null when out of memory.
PMGR_GIVE_SERVICE_A_TASK_RETURN *msgNewTaskReturn(int32_t code, int32_t uniqueId, void *service);
// A PMGR_PROCESS_DIED body naming address (referenced).
void *msgNewProcessDied(const MSG_ADDRESS *address);
// Adds a copy of address to oNotifyOnDeathList unless an equal one is
// there; true when added.
bool msgNotifyOnDeathAdd(const MSG_ADDRESS *address);
// Puts a packet at the end of the receive list (takes the reference).
void msgQueue(MSG_PACKET **packet);
// Queues a packet of type, no body, from and to address.
void msgQueueBare(int32_t type, const void *address);

} // namespace fh

#endif // FHCORE_MSGCHANNEL_H
