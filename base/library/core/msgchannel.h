// msgchannel.h - what the parts of the messaging module share and do not
// export: their shares of start-up, the check for a message, and the view
// of a channel that addresses and messages need.
#ifndef FHCORE_MSGCHANNEL_H
#define FHCORE_MSGCHANNEL_H

#include <cstdint>

#include "core/channel.h"
#include "core/context.h"
#include "core/msgpacket.h"
#include "core/net.h"
#include "core/object.h"
#include "codec.h"

namespace fh {

// Templates and well-known addresses (once per process); the process's own
// address in the context, and its release.
bool msgAddressesInitialize();
bool msgAddressesInitializeThread();
void msgAddressesReleaseThread(LmContext *context);
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

// ---- Channels (msgchannel.cpp) ----

// Templates (once per process); the map, select masks and lists of the
// context, and their release in the order of the release of a thread.
bool msgChannelsInitialize();
bool msgChannelsInitializeThread();
void msgChannelsReleaseThread(LmContext *context);

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
// The little-endian 32-bit words of an image, as the signed fields they are.
inline int32_t msgGetLe32(const unsigned char *p) { return static_cast<int32_t>(readLe32(p)); }
inline void msgPutLe32(unsigned char *p, int32_t value) { writeLe32(p, static_cast<uint32_t>(value)); }

// One pass over the channels and the connections under way with a working
// mask that select has filled: output on each write bit, one read on each
// read bit; a delivered packet goes on the receive list once the IPC
// connection is made, else it is dropped. Then oConnectingList is served.
void msgServeChannels(const NetSelectMask *working);
// A select pass for at most milliseconds (-1: no limit) and the service
// above; the result of the select.
int32_t msgSelectPass(int32_t milliseconds);

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

// Puts a packet at the end of the receive list (takes the reference).
void msgQueue(MSG_PACKET **packet);
// Queues a packet of type, no body, from and to address.
void msgQueueBare(int32_t type, const void *address);

} // namespace fh

#endif // FHCORE_MSGCHANNEL_H
