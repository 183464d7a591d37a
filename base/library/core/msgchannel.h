// msgchannel.h - what the parts of the messaging module share and do not
// export: their shares of start-up, the check for a message, and the view
// of a channel that addresses and messages need.
#ifndef FHCORE_MSGCHANNEL_H
#define FHCORE_MSGCHANNEL_H

#include <cstdint>

#include "core/context.h"
#include "core/msgpacket.h"
#include "core/object.h"

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

} // namespace fh

#endif // FHCORE_MSGCHANNEL_H
