// msgconnect.cpp - messaging: making channels. The IPC connection to the
// communication manager, both halves of a data channel, and the
// connections under way (oConnectingList, MSG_CONNECTING entries).
//
// A connection under way is either a listening socket with its read bit
// set, waiting for the peer to connect back, or a connecting socket with
// its write and exception bits set. Each entry has a deadline; every pass
// of select walks the list once (msgServeConnecting), and each entry ends in
// exactly one MSG_CONNECTED_MSG, from the peer to the local address,
// carrying its cookie, unless a held accept defers it to the peer's
// MSG_CONNECTED_OK_MSG.
//
// The waits (60 seconds for the IPC connection, 300 for the others, one
// second between attempts) are the module's constants; msgSetConnectLimits
// shortens them for tests.
#include "core/channel.h"

#include <unistd.h>

#include "core/config.h"
#include "core/context.h"
#include "core/list.h"
#include "core/msgsend.h"
#include "core/nethost.h"
#include "core/timeout.h"
#include "messages/msgmsg.h"
#include "msgchannel.h"
#include "objcore.h"
#include "tracer.h"

namespace {

constexpr fh::ModuleTracer trace{"MESSAGE        "};

enum TraceId : int32_t {
    kIdUnexpected = 80,
    kIdIpcCreated = 81,
    kIdNoListenPort = 82,
    kIdWaitConnect = 83,
    kIdAcceptError = 84,
    kIdListenSelect = 85,
    kIdWaitComplete = 86,
    kIdSelectError = 87,
    kIdOpenFailed = 88,
    kIdNoConnectPort = 89,
    kIdConnectFailed = 90,
    kIdConnected = 91,
    kIdNonBlocking = 92,
    kIdSaveCookie = 93,
    kIdException = 94,
    kIdTimeout = 95,
    kIdNoTunnelListen = 96,
    kIdNoTunnelConnect = 97,
};

constexpr uint32_t kLoopback = 0x7f000001;
constexpr int32_t kFamilyInet = 2;

struct Limits {
    int32_t ipcSeconds = 60, waitSeconds = 300, retryMilliseconds = 1000;
};
Limits gLimits;

constinit fh::ObjectType<MSG_CONNECTING> gConnectingType{MSG_CONNECTING_MAGIC, MSG_CONNECTING_FORMAT};
constinit fh::ObjectType<MSG_CONNECT> gConnectType{MSG_CONNECT_MAGIC, MSG_CONNECT_FORMAT, fh::kReceivable};
constinit fh::ObjectType<MSG_CONNECT_INET> gInetType{MSG_CONNECT_INET_MAGIC, MSG_CONNECT_INET_FORMAT, fh::kReceivable};
constinit fh::ObjectType<MSG_CONNECTED> gConnectedType{MSG_CONNECTED_MAGIC, MSG_CONNECTED_FORMAT, fh::kReceivable};
constinit fh::ObjectType<MSG_IPC_CONNECT> gIpcConnectType{MSG_IPC_CONNECT_MAGIC, MSG_IPC_CONNECT_FORMAT,
                                                          fh::kReceivable};

LIST *connecting() { return static_cast<LIST *>(gtLmContext.oMsgConnectingList); }
NetSelectMask *mask() { return fh::msgSelectMask(); }

void pauseBeforeRetry() { NetSelectRelative(nullptr, nullptr, gLimits.retryMilliseconds); }

void clearBits(int32_t socket) {
    NetRemoveReadSelect(mask(), socket);
    NetRemoveWriteSelect(mask(), socket);
    NetRemoveExceptionSelect(mask(), socket);
}

TIME_TIMEOUT *deadline(int32_t seconds) {
    TIME_TIMEOUT *timeout = nullptr;
    TimeCreateAndSetTimeout(&timeout, seconds, 0);
    return timeout;
}

// Waits for one socket with select until the deadline; the NET_ERROR_*.
int32_t waitFor(int32_t socket, bool read, const TIME_TIMEOUT *until) {
    NetSelectMask *one = nullptr;
    NetInitializeSelectMask(&one);
    if (read) NetAddReadSelect(one, socket);
    else NetAddWriteSelect(one, socket), NetAddExceptionSelect(one, socket);
    const int32_t result = NetSelect(nullptr, one, until);
    NetReleaseSelectMask(&one);
    return result;
}

// ---- The IPC connection ----

// One attempt: the connected socket, -1 to try again after a pause, or -2
// to give up (traced).
int32_t ipcAttempt(const NetAddressT &target, const TIME_TIMEOUT *until) {
    int32_t socket = -1;
    if (!NetOpen(&socket, NET_SOCKET_STREAM)) return -1;
    NetSetNoLinger(socket);
    NetSetNonBlocking(socket);
    const int32_t result = NetConnect(socket, &target);
    if (result == NET_ERROR_REFUSED) return NetClose(&socket), -1;
    if (result != NET_ERROR_NONE && result != NET_ERROR_WOULD_BLOCK) {
        trace(kIdUnexpected, result, -1, "Unexpected network error");
        return NetClose(&socket), -2;
    }
    const int32_t ready = result == NET_ERROR_NONE ? NET_ERROR_NONE : waitFor(socket, false, until);
    if (ready != NET_ERROR_NONE) {
        trace(kIdUnexpected, ready, -1, "Unexpected network error");
        return NetClose(&socket), -2;
    }
    if (!NetIsConnected(socket)) return NetClose(&socket), -1;
    return socket;
}

// The channel on a connected socket and the opening packet on it; false
// when the packet could not go (the channel is gone again).
bool ipcOpen(int32_t socket, int32_t kind) {
    MSG_CHANNEL *channel = nullptr;
    if (!MsgChannelCreateInternal(&channel, socket, MsgCommMgrAddress(), TRUE, TRUE, TRUE, FALSE, FALSE)) return false;
    gtLmContext.oMsgIpcChannel = channel;
    auto *body = gIpcConnectType.newInstance(nullptr);
    *body = {kind == 1 ? 1 : 0, gtLmContext.iProcessId, kind == 1 ? static_cast<int32_t>(gettid()) : static_cast<int32_t>(getpid())};
    ObjIncRefCount(channel); // a failed send lets go of the context's reference
    const bool sent = MsgSendObject(MsgCommMgrAddress(), MSG_IPC_CONNECT_MSG, body);
    ObjReleaseInternal(&body);
    if (!sent) {
        channel->bIsClosing = TRUE;
        fh::msgChannelRemove(channel);
        fh::msgChannelDown(channel);
        ObjReleaseInternal(&gtLmContext.oMsgIpcChannel);
        while (MsgReceiveCount() > 0) { // the loss the failed send queued
            MSG_PACKET *lost = nullptr;
            MsgReceivePopPacket(&lost);
            ObjReleaseInternal(&lost);
        }
    } else if (gtLmContext.iProcessId == MSG_PROCESS_NETMGR) {
        channel->bIsBlocking = FALSE;
        NetSetNonBlocking(channel->iSocket);
    }
    ObjReleaseInternal(&channel);
    return sent;
}

// ---- Data channels ----

// A listening socket on 127.0.0.1 or through the firewall; the error code of
// MSG_CONNECT on failure (the socket closed).
int32_t listenFor(int32_t *socket, int32_t *port, const MSG_ADDRESS *peer) {
    // A peer to be reached by tunnel needs the tunnel service, which is not
    // wired in yet: no port is to be had, and the peer hears so.
    if (fh::msgTunnelPort() != 0 && !MsgIsLocalMachine(peer) && fh::msgMachineCanTunnel(peer)) {
        trace(kIdNoTunnelListen, 0, -1, "No tunnel service for a message channel to %s", MsgGetMachineName(peer));
        return 2;
    }
    if (!NetOpen(socket, NET_SOCKET_STREAM)) return 3;
    NetAddressT local{};
    NetInitializeIpAddress(&local, kLoopback, 0);
    const bool bound = MsgIsLocalMachine(peer) ? NetBind(*socket, &local)
                                               : NetBindThroughFirewallTyped(*socket, 0, "MsgChannel", TRUE);
    if (!bound || !NetGetLocalAddress(&local, *socket)) {
        trace(kIdNoListenPort, 0, -1, "No available ports for message channel listen sockets");
        return NetClose(socket), 2;
    }
    if (!NetListen(*socket, 1)) return NetClose(socket), 1;
    *port = NetGetIpPort(&local);
    return 0;
}

MSG_CONNECT *connectBody(void *peerCookie, int32_t error, int32_t port) {
    auto *body = gConnectType.newInstance(nullptr);
    body->bSuccess = error == 0;
    body->iError = error;
    if (peerCookie != nullptr) ObjIncRefCount(peerCookie);
    body->oCookie = peerCookie;
    if (error == 0) {
        auto *inet = gInetType.newInstance(nullptr);
        inet->iPort = port;
        body->iFamily = kFamilyInet;
        body->oDetails = inet;
    }
    return body;
}

void addPending(MSG_ADDRESS *peer, int32_t socket, void *cookie, bool listening, bool holdOutput, bool blocking,
                bool notify, bool sendOk) {
    auto *entry = gConnectingType.newInstance(nullptr);
    if (peer != nullptr) ObjIncRefCount(peer);
    if (cookie != nullptr) ObjIncRefCount(cookie);
    *entry = {peer, socket, deadline(gLimits.waitSeconds), 0, blocking, notify, holdOutput, sendOk, cookie, 0};
    if (listening)
        NetAddReadSelect(mask(), socket);
    else
        NetAddWriteSelect(mask(), socket), NetAddExceptionSelect(mask(), socket);
    ListPushLastItemInternal(connecting(), &entry);
}

// Waits on a new synchronous channel for the peer's MSG_CONNECTED_OK_MSG.
bool waitForOk(MSG_CHANNEL *channel) {
    trace(kIdWaitComplete, 0, 2, "Wait for other end to complete connection");
    TIME_TIMEOUT *until = deadline(gLimits.waitSeconds);
    bool ok = false, over = false;
    while (!over && !TimeTimeoutHasExpired(until)) {
        const int32_t result = waitFor(channel->iSocket, true, until);
        if (result == NET_ERROR_INTERRUPTED || result == NET_ERROR_TIMEOUT) continue;
        if (result != NET_ERROR_NONE) {
            trace(kIdSelectError, result, -1, "Unexpected select error");
            break;
        }
        MSG_PACKET *packet = nullptr;
        if (MsgChannelReceiveData(&packet, channel)) {
            ok = MsgPacketMsgType(packet) == MSG_CONNECTED_OK_MSG;
            over = true;
            ObjReleaseInternal(&packet);
        }
        over = over || channel->bIsDown;
    }
    ObjReleaseInternal(&until);
    return ok;
}

// The synchronous listening half after MSG_CONNECT_MSG went out.
bool acceptBack(MSG_ADDRESS **channelAddress, int32_t listener, const MSG_ADDRESS *peer, bool blocking,
                bool waitOk) {
    trace(kIdWaitConnect, 0, 2, "Wait for connect back");
    TIME_TIMEOUT *until = deadline(gLimits.waitSeconds);
    int32_t result = NET_ERROR_INTERRUPTED, socket = -1;
    while (result == NET_ERROR_INTERRUPTED) result = waitFor(listener, true, until);
    ObjReleaseInternal(&until);
    if (result == NET_ERROR_NONE && NetAccept(&socket, listener, nullptr) != NET_ERROR_NONE) {
        trace(kIdAcceptError, 0, 2, "Error accepting a connection");
        result = NET_ERROR_FATAL;
    } else if (result != NET_ERROR_NONE && result != NET_ERROR_TIMEOUT) {
        trace(kIdListenSelect, result, 2, "Select error listening for connection");
    }
    NetClose(&listener);
    MSG_CHANNEL *channel = nullptr;
    if (result != NET_ERROR_NONE ||
        !MsgChannelCreateInternal(&channel, socket, peer, blocking, TRUE, FALSE, FALSE, FALSE))
        return NetClose(&socket), false;
    const bool ok = !waitOk || waitForOk(channel);
    if (ok) {
        MsgChannelAddress(channelAddress, channel);
    } else {
        trace(kIdOpenFailed, 0, -1, "Failed to open data channel");
        fh::msgChannelDown(channel);
    }
    ObjReleaseInternal(&channel);
    return ok;
}

// The first packet of the connecting side on a new channel: connected-ok,
// bare from the synchronous side, with the local address from the other.
void greet(MSG_CHANNEL *channel, bool sendOk, bool synchronous) {
    const void *okBody = synchronous ? nullptr : MsgLocalAddress();
    MSG_PACKET *packet = nullptr;
    if (sendOk && MsgCreatePacket(&packet, channel->oAddress, MsgLocalAddress(), MSG_CONNECTED_OK_MSG, okBody))
        MsgChannelDispatch(channel, &packet);
}

// ---- The connections under way ----

// One entry against the working mask: true when it is done.
bool serveEntry(MSG_CONNECTING *e, const NetSelectMask *working) {
    int32_t error = 0;
    MSG_CHANNEL *channel = nullptr;
    if (NetIsReadSelectSet(working, e->iSocket)) {
        NetRemoveReadSelect(mask(), e->iSocket);
        int32_t socket = -1;
        if (NetAccept(&socket, e->iSocket, nullptr) != NET_ERROR_NONE) {
            fh::msgQueueConnected(e->oAddress, false, 1, nullptr, e->oCookie);
        } else if (MsgChannelCreateInternal(&channel, socket, e->oAddress, e->iIsBlocking, e->iNotifyOnDown, e->iIsIpc,
                                            e->iHoldOutput, FALSE)) {
            if (!e->iHoldOutput) {
                fh::msgQueueConnected(e->oAddress, true, 0, channel->oAddress, e->oCookie);
            } else {
                trace(kIdSaveCookie, 0, 2, "Save cookie %p", e->oCookie);
                channel->oConnectCookie = e->oCookie;
                e->oCookie = nullptr;
            }
        }
        NetClose(&e->iSocket);
        ObjReleaseInternal(&channel);
        return true;
    }
    if (NetIsExceptionSelectSet(working, e->iSocket)) {
        trace(kIdException, 0, 2, "connection had exception");
        error = 3;
    } else if (NetIsWriteSelectSet(working, e->iSocket)) {
        if (!NetIsConnected(e->iSocket)) {
            error = 3;
        } else {
            NetRemoveWriteSelect(mask(), e->iSocket);
            NetRemoveExceptionSelect(mask(), e->iSocket);
            if (MsgChannelCreateInternal(&channel, e->iSocket, e->oAddress, e->iIsBlocking, e->iNotifyOnDown, e->iIsIpc,
                                         FALSE, FALSE)) {
                e->iSocket = -1;
                greet(channel, e->iSendConnectedOk, false);
                fh::msgQueueConnected(e->oAddress, true, 0, channel->oAddress, e->oCookie);
                ObjReleaseInternal(&channel);
                return true;
            }
            error = 3;
        }
    } else if (TimeTimeoutHasExpired(static_cast<TIME_TIMEOUT *>(e->oTimeout))) {
        trace(kIdTimeout, 0, 2, "Timeout connection");
        error = 2;
    } else {
        return false;
    }
    clearBits(e->iSocket);
    NetClose(&e->iSocket);
    fh::msgQueueConnected(e->oAddress, false, error, nullptr, e->oCookie);
    return true;
}

} // namespace

void fh::msgSetConnectLimits(int32_t ipcSeconds, int32_t waitSeconds, int32_t retryMilliseconds) {
    const Limits standard;
    gLimits = {ipcSeconds > 0 ? ipcSeconds : standard.ipcSeconds, waitSeconds > 0 ? waitSeconds : standard.waitSeconds,
               retryMilliseconds > 0 ? retryMilliseconds : standard.retryMilliseconds};
}

bool fh::msgConnectInitialize() {
    return gConnectingType.declare() && gConnectType.declare() && gInetType.declare() && gConnectedType.declare() &&
           gIpcConnectType.declare();
}

void fh::msgQueueConnected(const MSG_ADDRESS *peer, bool connected, int32_t error, const MSG_ADDRESS *channel,
                           void *cookie) {
    auto *body = gConnectedType.newInstance(nullptr);
    for (const void *held : {static_cast<const void *>(channel), static_cast<const void *>(cookie)})
        if (held != nullptr) ObjIncRefCount(const_cast<void *>(held));
    *body = {connected ? TRUE : FALSE, error, const_cast<MSG_ADDRESS *>(channel), cookie};
    MSG_PACKET *packet = nullptr;
    const void *from = peer != nullptr ? static_cast<const void *>(peer) : MsgLocalAddress();
    if (MsgCreatePacket(&packet, MsgLocalAddress(), from, MSG_CONNECTED_MSG, body)) msgQueue(&packet);
    ObjReleaseInternal(&body);
}

void fh::msgServeConnecting(const NetSelectMask *working) {
    LISTNODE *next = nullptr;
    for (LISTNODE *node = connecting() != nullptr ? connecting()->oFirst : nullptr; node != nullptr; node = next) {
        next = node->oNext;
        if (serveEntry(static_cast<MSG_CONNECTING *>(node->oItem), working)) ListRemoveItem(node);
    }
}

int32_t MsgGetCommsPort(void) {
    int32_t port = 20032, found = 0;
    if (NetGetServicePort(&found, "lathmere6", "tcp")) port = found;
    CfgGetInteger(&port, "configure.cfg", "Machine", "TcpPort", port);
    port += 1;
    if (NetGetServicePort(&found, "lathmere6comms", "tcp")) port = found;
    CfgGetInteger(&port, "configure.cfg", "Machine", "Comms TcpPort", port);
    return port;
}

BOOL MsgIpcConnect(int32_t kind) {
    if (!MsgCreateLocalAddress()) return FALSE;
    if (gtLmContext.iProcessId == MSG_PROCESS_COMMMGR) return TRUE;
    int32_t seconds = gLimits.ipcSeconds;
    if (gtLmContext.iProcessId == MSG_PROCESS_NONE)
        CfgGetInteger(&seconds, "configure.cfg", "Timeouts", "Adopted Processes Connection", 6);
    NetAddressT target{};
    NetInitializeIpAddress(&target, kLoopback, MsgGetCommsPort());
    TIME_TIMEOUT *until = deadline(seconds);
    bool made = false;
    while (!made && !TimeTimeoutHasExpired(until)) {
        const int32_t socket = ipcAttempt(target, until);
        if (socket == -2) break;
        made = socket >= 0 && ipcOpen(socket, kind);
        if (!made) pauseBeforeRetry();
    }
    ObjReleaseInternal(&until);
    if (!made) return FALSE;
    trace(kIdIpcCreated, 0, 2, "Created Ipc Channel");
    gtLmContext.bMsgIpcConnected = TRUE;
    return TRUE;
}

BOOL MsgChannelOpenInternal(MSG_ADDRESS **channelAddress, const MSG_ADDRESS *peer, void *peerCookie,
                            void *localCookie, BOOL isBlocking, BOOL isSynchronous, BOOL waitForOk) {
    if (fh::msgAddressOf(peer) == nullptr || (isSynchronous && channelAddress == nullptr)) return FALSE;
    int32_t listener = -1, port = 0;
    const int32_t error = listenFor(&listener, &port, peer);
    MSG_CONNECT *body = connectBody(peerCookie, error, port);
    const bool sent = MsgSendObject(peer, MSG_CONNECT_MSG, body);
    ObjReleaseInternal(&body);
    if (!sent || error != 0) return NetClose(&listener), FALSE;
    if (!isSynchronous) {
        addPending(const_cast<MSG_ADDRESS *>(peer), listener, localCookie, true, waitForOk, isBlocking, true, false);
        return TRUE;
    }
    return acceptBack(channelAddress, listener, peer, isBlocking, waitForOk);
}

BOOL MsgChannelCompleteInternal(MSG_ADDRESS **channelAddress, const MSG_MESSAGE *message, BOOL isBlocking,
                                BOOL isSynchronous, BOOL sendOk) {
    const MSG_MESSAGE *m = fh::msgMessageOf(message);
    const auto *body = m != nullptr && m->iType == MSG_CONNECT_MSG && ObjCheckTypeInternal(m->oObject, MSG_CONNECT_MAGIC)
                           ? static_cast<const MSG_CONNECT *>(m->oObject)
                           : nullptr;
    if (body == nullptr || !body->bSuccess || !ObjCheckTypeInternal(body->oDetails, MSG_CONNECT_INET_MAGIC)) return FALSE;
    const auto *inet = static_cast<const MSG_CONNECT_INET *>(body->oDetails);
    MSG_ADDRESS *sender = nullptr;
    NetAddressT where{};
    const bool found = MsgGetSender(&sender, m) && MsgPreferredNet(sender, &where);
    MSG_CHANNEL *channel = nullptr;
    const bool ok = found && MsgCompleteTcpConnectionTyped(&channel, sender, body->oCookie, NetGetIpAddress(&where),
                                                           inet->iPort, isBlocking, isSynchronous, TRUE, sendOk,
                                                           inet->iViaTunnel);
    ObjReleaseInternal(&sender);
    if (ok && isSynchronous && channelAddress != nullptr) MsgChannelAddress(channelAddress, channel);
    ObjReleaseInternal(&channel);
    return ok;
}

BOOL MsgCompleteTcpConnectionTyped(MSG_CHANNEL **channel, const MSG_ADDRESS *peer, void *cookie,
                                   uint32_t ipHostOrder, int32_t port, BOOL isBlocking, BOOL isSynchronous,
                                   BOOL notifyOnDown, BOOL sendOk, BOOL viaTunnel) {
    // The tunnel service is not wired in yet: a connection through it fails
    // before any socket is made.
    if (viaTunnel) {
        trace(kIdNoTunnelConnect, 0, -1, "No tunnel service to connect a message channel through");
        return FALSE;
    }
    int32_t socket = -1;
    if (!NetOpen(&socket, NET_SOCKET_STREAM)) return FALSE;
    NetAddressT local{}, target{};
    NetInitializeIpAddress(&local, kLoopback, 0);
    NetInitializeIpAddress(&target, ipHostOrder, port);
    if (!(MsgIsLocalMachine(peer) ? NetBind(socket, &local)
                                  : NetBindThroughFirewallTyped(socket, 0, "MsgChannel", FALSE))) {
        trace(kIdNoConnectPort, 0, -1, "No available ports to connect to message channel");
        return NetClose(&socket), FALSE;
    }
    if (isSynchronous) {
        if (const int32_t result = NetConnect(socket, &target); result != NET_ERROR_NONE) {
            trace(kIdConnectFailed, result, 2, "Failed to connect");
            return NetClose(&socket), FALSE;
        }
        trace(kIdConnected, 0, 2, "Connected okay!");
        MSG_CHANNEL *made = nullptr;
        if (!MsgChannelCreateInternal(&made, socket, peer, isBlocking, notifyOnDown, FALSE, FALSE, FALSE))
            return NetClose(&socket), FALSE;
        greet(made, sendOk, true);
        if (channel != nullptr)
            *channel = made;
        else
            ObjReleaseInternal(&made);
        return TRUE;
    }
    NetSetNoLinger(socket);
    NetSetNonBlocking(socket);
    if (const int32_t result = NetConnect(socket, &target);
        result != NET_ERROR_NONE && result != NET_ERROR_WOULD_BLOCK) {
        trace(kIdNonBlocking, result, 2, "Failed to do non-blocking connect");
        return NetClose(&socket), FALSE;
    }
    addPending(const_cast<MSG_ADDRESS *>(peer), socket, cookie, false, false, isBlocking, notifyOnDown, sendOk);
    return TRUE;
}

BOOL MsgCompleteTcpConnection(MSG_CHANNEL **channel, const MSG_ADDRESS *peer, void *cookie, uint32_t ipHostOrder,
                              int32_t port, BOOL isBlocking, BOOL isSynchronous, BOOL notifyOnDown, BOOL sendOk) {
    return MsgCompleteTcpConnectionTyped(channel, peer, cookie, ipHostOrder, port, isBlocking, isSynchronous,
                                         notifyOnDown, sendOk, FALSE);
}
