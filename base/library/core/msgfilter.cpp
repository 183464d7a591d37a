// msgfilter.cpp - messaging: what happens to a packet read off a channel
// before it reaches the receive list.
//
// Until the IPC connection is made, packets are dropped. A packet from the
// IPC channel of any process but the communication manager passes the IPC
// filter, which reads bodies from a copy and keeps the packet as it is.
#include "core/msgreceive.h"

#include "core/context.h"
#include "core/object.h"
#include "msgchannel.h"

void fh::msgDeliver(MSG_CHANNEL *channel, MSG_PACKET **packet) {
    (void)channel;
    if (gtLmContext.bMsgIpcConnected)
        msgQueue(packet);
    else
        ObjReleaseInternal(packet);
}
