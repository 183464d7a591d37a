// netmgr.cpp - the network manager's work (netmgr.h).
#include "netmgr.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/select.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdarg>
#include <cstring>

#include "messages/msgcmgr.h"
#include "messages/msgnmgr.h"

namespace fhnmgr {
namespace {

constexpr const char *kTag = "NMGR           ";
// Reads of one socket in a pass, so that one busy peer does not starve the
// others.
constexpr int kReadsPerPass = 16;

void trace(int32_t id, int32_t level, const char *format, ...) __attribute__((format(printf, 3, 4)));
void trace(int32_t id, int32_t level, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    TraceMessageVa(kTag, id, 0, level, format, arguments);
    va_end(arguments);
}

// A body type the manager makes or reads: its template is made once, before
// anything is read, and receivable (none has a release callback or a
// pointer), so a body read has the declared layout or none.
template <typename T> struct BodyType {
    uint32_t magic;
    const char *format;
    ObjectTemplate *made = nullptr;

    ObjectTemplate *declared() {
        if (made == nullptr && ObjTemplateCreateInternal(&made, sizeof(T), magic, format, nullptr))
            ObjTemplateSetReceivable(made, nullptr);
        return made;
    }
    T *make() { return static_cast<T *>(ObjTemplateNewInstanceFromPool(declared(), nullptr)); }
    bool shaped(const void *object) const {
        if (object == nullptr || !ObjCheckTypeInternal(object, magic)) return false;
        const char *has = ObjGetFormat(ObjGetTemplateFromObject(object));
        return has != nullptr && StrCompare(has, format) == 0;
    }
};

BodyType<NMGR_GET_CURRENT_MACHINE_DETAILS_REQUEST> gRequest{NMGR_GET_CURRENT_MACHINE_DETAILS_REQUEST_MAGIC,
                                                            NMGR_GET_CURRENT_MACHINE_DETAILS_REQUEST_FORMAT};
BodyType<NMGR_GET_CURRENT_MACHINE_DETAILS_RESPONSE> gResponse{NMGR_GET_CURRENT_MACHINE_DETAILS_RESPONSE_MAGIC,
                                                              NMGR_GET_CURRENT_MACHINE_DETAILS_RESPONSE_FORMAT};
BodyType<NMGR_MACHINE_UNREACHABLE> gUnreachable{NMGR_MACHINE_UNREACHABLE_MAGIC, NMGR_MACHINE_UNREACHABLE_FORMAT};
BodyType<CMGR_MACHINE_DOWN> gMachineDown{CMGR_MACHINE_DOWN_MAGIC, CMGR_MACHINE_DOWN_FORMAT};

const unsigned char *imageOf(const MSG_PACKET *packet) {
    return static_cast<const unsigned char *>(packet->oImage.pData);
}
MsgPacketAddress sourceOf(const MSG_PACKET *packet) { return {getLe32(imageOf(packet) + 8), getLe32(imageOf(packet) + 12)}; }
MsgPacketAddress destinationOf(const MSG_PACKET *packet) {
    return {getLe32(imageOf(packet) + 16), getLe32(imageOf(packet) + 20)};
}

bool sameMachine(std::string_view a, const char *b) {
    return b != nullptr && StrCompareNoCase(std::string(a).c_str(), b) == 0;
}

// The name of a machine id of this machine's file; empty when it has none.
std::string nameOf(int32_t machine) {
    if (machine == MSG_MACHINE_LOCAL) return SysLocalMachineName();
    MSG_ADDRESS *address = nullptr;
    const MsgPacketAddress pair{machine, 0};
    std::string name = MsgAddressFromPacketAddress(&address, &pair) && address->pszMachine != nullptr
                           ? address->pszMachine
                           : "";
    ObjReleaseInternal(&address);
    return name;
}

// Sends a body to a process of this machine or beyond through the IPC
// channel; false when no packet could be made.
bool sendBody(MSG_CHANNEL *ipc, const MSG_ADDRESS *to, int32_t type, void *body, const MsgPacketAddress *from) {
    MSG_PACKET *packet = nullptr;
    if (!MsgCreatePacket(&packet, to, MsgLocalAddress(), type, body)) return false;
    if (from != nullptr) { // speaks for the far machine
        auto *image = static_cast<unsigned char *>(packet->oImage.pData);
        putLe32(image + 8, from->iMachine);
        putLe32(image + 12, from->iProcess);
    }
    return MsgChannelDispatch(ipc, &packet);
}

void noDelay(int32_t socket) {
    const int on = 1;
    setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

std::string configured(const char *file, const char *key, const char *otherwise) {
    char *value = nullptr;
    CfgGetString(&value, file, "Details", key, otherwise);
    std::string text = value != nullptr ? value : "";
    MemFreeInternal(&value);
    return text;
}

} // namespace

Details ownDetails() {
    BOOL server = FALSE;
    int32_t version = 6003, build = 0;
    CfgGetBoolean(&server, "configure.cfg", "Details", "Server", FALSE);
    CfgGetInteger(&version, "version.cfg", "Details", "LMVersion", 6003);
    CfgGetInteger(&build, "version.cfg", "Details", "LMBuildLevel", 0);
    const std::string values[] = {"unix", server ? "true" : "false", configured("configure.cfg", "Description", ""),
                                  std::to_string(version), std::to_string(build)};
    Details details;
    for (size_t i = 0; i < details.size(); ++i)
        if (valueReadsBack(i, values[i])) details[i] = values[i];
    return details;
}

bool updateStanza(const std::string &machine, const Details &details) {
    char *path = PathHomeBuild("etc", "machines.dat", nullptr);
    Stanza *stanza = nullptr;
    bool ok = path != nullptr && StnzLoadStanzaFromFile(&stanza, path, nullptr, machine.c_str());
    for (size_t i = 0; ok && i < details.size(); ++i) {
        if (!details[i]) continue;
        if (details[i]->empty())
            StnzDeleteKeywordFromStanza(stanza, kDetailKeys[i], TRUE);
        else
            ok = StnzSetKeywordFromString(&stanza, kDetailKeys[i], details[i]->c_str(), TRUE);
    }
    ok = ok && StnzReplaceStanzaInFile(stanza, path);
    StnzRelease(&stanza);
    MemFreeInternal(&path);
    return ok;
}

Manager::Manager(MSG_CHANNEL *ipc, const Settings &settings) : ipc_(ipc), settings_(settings) {
    gRequest.declared();
    gResponse.declared();
    gUnreachable.declared();
    gMachineDown.declared();
}

Manager::~Manager() {
    for (auto &peer : peers_) {
        NetClose(&peer->socket);
        for (MSG_PACKET *&packet : peer->held) ObjReleaseInternal(&packet);
    }
    for (Asker &asker : askers_) ObjReleaseInternal(&asker.requester);
}

// ---- The IPC channel ----

void Manager::toIpc(MSG_PACKET **packet) {
    if (!MsgChannelDispatch(ipc_, packet)) trace(1, 1, "The communication manager took no packet");
}

void Manager::fromIpc(MSG_PACKET **packet) {
    const MsgPacketAddress to = destinationOf(*packet);
    const int32_t type = MsgPacketMsgType(*packet);
    if (to.iMachine == MSG_MACHINE_LOCAL) {
        if (type == NMGR_GET_CURRENT_MACHINE_DETAILS_REQUEST_MSG)
            detailsRequest(*packet);
        else
            trace(2, 2, "Dropped a message %ld for the network manager", static_cast<long>(type));
        ObjReleaseInternal(packet);
    } else if (to.iMachine == MSG_MACHINE_CHANNEL || type == 0) {
        trace(3, 1, "Dropped a message %ld for channel %ld", static_cast<long>(type), static_cast<long>(to.iProcess));
        ObjReleaseInternal(packet);
    } else {
        forward(packet);
    }
}

void Manager::forward(MSG_PACKET **packet) {
    const MsgPacketAddress to = destinationOf(*packet);
    const std::string machine = nameOf(to.iMachine);
    const std::string source = nameOf(sourceOf(*packet).iMachine);
    MSG_ADDRESS *address = nullptr;
    Peer *peer = nullptr;
    if (!machine.empty() && !source.empty() && MsgCreateAddress(&address, machine.c_str(), MSG_PROCESS_NETMGR))
        peer = peerFor(machine, address);
    ObjReleaseInternal(&address);
    if (peer != nullptr) return queue(*peer, packet, source);
    trace(4, 1, "No way to machine %ld (%s) for a message %ld", static_cast<long>(to.iMachine), machine.c_str(),
          static_cast<long>(MsgPacketMsgType(*packet)));
    unreachable(*packet, to.iMachine, machine.empty() ? nullptr : machine.c_str());
    ObjReleaseInternal(packet);
}

void Manager::unreachable(const MSG_PACKET *packet, int32_t farId, const char *farName) {
    const int32_t type = MsgPacketMsgType(packet);
    const MsgPacketAddress source = sourceOf(packet);
    if (type == NMGR_MACHINE_UNREACHABLE_MSG || source.iMachine != MSG_MACHINE_LOCAL) return;
    NMGR_MACHINE_UNREACHABLE *body = gUnreachable.make();
    body->pszMachine = farName != nullptr ? StrDuplicateIntoPool(farName, nullptr) : nullptr;
    body->iMachine = farId;
    body->iMsgType = type;
    void *object = nullptr;
    if (MsgObjectFromPacketInternal(&object, packet, 0)) body->oObject = object;
    MSG_ADDRESS *sender = nullptr;
    const MsgPacketAddress far{farId, MSG_PROCESS_NETMGR};
    if (!MsgAddressFromPacketAddress(&sender, &source) ||
        !sendBody(ipc_, sender, NMGR_MACHINE_UNREACHABLE_MSG, body, &far))
        trace(5, 1, "Could not tell process %ld that machine %ld is unreachable", static_cast<long>(source.iProcess),
              static_cast<long>(farId));
    ObjReleaseInternal(&sender);
    ObjReleaseInternal(&body);
}

void Manager::detailsRequest(const MSG_PACKET *packet) {
    MSG_MESSAGE *message = nullptr;
    void *body = nullptr;
    if (!MsgMessageFromPacket(&message, packet) || message->oSource == nullptr ||
        !MsgGetObjectInternal(&body, message, gRequest.magic) || !gRequest.shaped(body) ||
        static_cast<NMGR_GET_CURRENT_MACHINE_DETAILS_REQUEST *>(body)->pszMachine == nullptr) {
        trace(6, 1, "Bad details request");
        ObjReleaseInternal(&body);
        ObjReleaseInternal(&message);
        return;
    }
    const std::string machine = static_cast<NMGR_GET_CURRENT_MACHINE_DETAILS_REQUEST *>(body)->pszMachine;
    ObjReleaseInternal(&body);
    MSG_ADDRESS *address = nullptr;
    int32_t id = 0;
    Peer *peer = nullptr;
    if (sameMachine(machine, SysLocalMachineName())) {
        answer(message->oSource, machine.c_str(), true);
    } else if (MsgMachineNameToId(&id, machine.c_str()) &&
               MsgCreateAddress(&address, machine.c_str(), MSG_PROCESS_NETMGR) &&
               (peer = peerFor(machine, address)) != nullptr) {
        ObjIncRefCount(message->oSource);
        askers_.push_back({machine, message->oSource, Clock::now() + settings_.details});
        encodeDetailsAsked(peer->out);
        flush(*peer);
    } else {
        trace(7, 1, "No details to be had of machine %s", machine.c_str());
        answer(message->oSource, machine.c_str(), false);
    }
    ObjReleaseInternal(&address);
    ObjReleaseInternal(&message);
}

void Manager::answer(const MSG_ADDRESS *requester, const char *machine, bool known) {
    NMGR_GET_CURRENT_MACHINE_DETAILS_RESPONSE *body = gResponse.make();
    body->bKnown = known ? TRUE : FALSE;
    body->pszMachine = StrDuplicateIntoPool(machine, nullptr);
    if (!sendBody(ipc_, requester, NMGR_GET_CURRENT_MACHINE_DETAILS_RESPONSE_MSG, body, nullptr))
        trace(8, 1, "Could not answer process %ld about machine %s", static_cast<long>(requester->iProcess), machine);
    ObjReleaseInternal(&body);
}

void Manager::answerAll(const std::string &machine, bool known) {
    const auto asked = [&](const Asker &asker) { return sameMachine(asker.machine, machine.c_str()); };
    for (Asker &asker : askers_)
        if (asked(asker)) {
            answer(asker.requester, asker.machine.c_str(), known);
            ObjReleaseInternal(&asker.requester);
        }
    askers_.erase(std::remove_if(askers_.begin(), askers_.end(), asked), askers_.end());
}

// ---- Peers ----

Manager::Peer *Manager::peerFor(const std::string &machine, const MSG_ADDRESS *address) {
    for (auto &peer : peers_)
        if (peer->socket != -1 && !peer->name.empty() && sameMachine(peer->name, machine.c_str())) return peer.get();
    NetAddressT at{};
    int32_t socket = -1;
    if (!MsgPreferredNet(address, &at) || !NetSetIpPort(&at, settings_.peerPort)) {
        trace(9, 1, "No address for machine %s", machine.c_str());
        return nullptr;
    }
    if (!NetOpen(&socket, NET_SOCKET_STREAM) || socket >= FD_SETSIZE || !NetSetNonBlocking(socket)) {
        NetClose(&socket);
        return nullptr;
    }
    noDelay(socket);
    const int32_t result = NetConnect(socket, &at);
    if (result != NET_ERROR_NONE && result != NET_ERROR_WOULD_BLOCK) {
        trace(10, 1, "Connect to machine %s failed at once (%ld)", machine.c_str(), static_cast<long>(result));
        NetClose(&socket);
        return nullptr;
    }
    auto peer = std::make_unique<Peer>();
    peer->socket = socket;
    peer->name = machine;
    peer->outbound = true;
    peer->connecting = true;
    peer->deadline = Clock::now() + settings_.connect;
    encodeHello(peer->out, SysLocalMachineName());
    trace(11, 2, "Connecting to machine %s", machine.c_str());
    peers_.push_back(std::move(peer));
    return peers_.back().get();
}

void Manager::accepted(int32_t socket) {
    if (socket >= FD_SETSIZE || !NetSetNonBlocking(socket)) {
        NetClose(&socket);
        return;
    }
    noDelay(socket);
    auto peer = std::make_unique<Peer>();
    peer->socket = socket;
    encodeHello(peer->out, SysLocalMachineName());
    peers_.push_back(std::move(peer));
    flush(*peers_.back());
}

void Manager::queue(Peer &peer, MSG_PACKET **packet, const std::string &source) {
    if (static_cast<int64_t>(peer.out.size() - peer.sent) > settings_.queueBound) {
        trace(12, 1, "Machine %s does not read: a message %ld refused", peer.name.c_str(),
              static_cast<long>(MsgPacketMsgType(*packet)));
        unreachable(*packet, destinationOf(*packet).iMachine, peer.name.c_str());
        ObjReleaseInternal(packet);
        return;
    }
    encodePacket(peer.out, source, peer.name, (*packet)->oImage.pData, static_cast<size_t>((*packet)->oImage.iSize));
    if (peer.connecting) {
        peer.held.push_back(*packet);
        *packet = nullptr;
        return;
    }
    ObjReleaseInternal(packet);
    flush(peer);
}

void Manager::flush(Peer &peer) {
    while (!peer.connecting && peer.socket != -1 && peer.sent < peer.out.size()) {
        const size_t left = std::min<size_t>(peer.out.size() - peer.sent, INT32_MAX);
        int32_t sent = 0;
        const int32_t result = NetTcpSend(&sent, peer.socket, peer.out.data() + peer.sent, static_cast<int32_t>(left));
        if (result == NET_ERROR_WOULD_BLOCK) return;
        if (result == NET_ERROR_INTERRUPTED) continue;
        if (result != NET_ERROR_NONE) return lost(peer, "send failed");
        peer.sent += static_cast<size_t>(sent);
    }
    if (peer.sent == peer.out.size()) {
        peer.out.clear();
        peer.sent = 0;
    }
}

void Manager::connected(Peer &peer) {
    peer.connecting = false;
    for (MSG_PACKET *&packet : peer.held) ObjReleaseInternal(&packet);
    peer.held.clear();
    trace(13, 2, "Connected to machine %s", peer.name.c_str());
    flush(peer);
}

void Manager::readFrom(Peer &peer) {
    for (int reads = 0; reads < kReadsPerPass && peer.socket != -1; ++reads) {
        unsigned char buffer[65536];
        int32_t got = 0;
        const int32_t result = NetTcpReceive(&got, peer.socket, buffer, sizeof buffer);
        if (result == NET_ERROR_WOULD_BLOCK) return;
        if (result == NET_ERROR_INTERRUPTED) continue;
        if (result != NET_ERROR_NONE) return lost(peer, "connection closed");
        peer.reader.append(buffer, static_cast<size_t>(got));
        Frame next{};
        PeerReader::Result read;
        while ((read = peer.reader.next(&next)) == PeerReader::Result::kFrame)
            if (!frame(peer, next)) return lost(peer, "bad frame");
        if (read == PeerReader::Result::kBroken) return lost(peer, "broken frame");
        if (static_cast<size_t>(got) < sizeof buffer) return;
    }
}

bool Manager::frame(Peer &peer, const Frame &frame) {
    if (frame.kind == Kind::kHello) {
        std::string_view name;
        return !peer.helloSeen && decodeHello(frame.payload, &name) && hello(peer, name);
    }
    if (!peer.helloSeen) return false;
    switch (frame.kind) {
    case Kind::kPacket: {
        PacketFrame packet;
        return decodePacket(frame.payload, &packet) && fromPeer(peer, packet);
    }
    case Kind::kDetailsAsked:
        if (!frame.payload.empty()) return false;
        encodeDetails(peer.out, ownDetails());
        flush(peer);
        return true;
    case Kind::kDetails: {
        Details details;
        size_t refused = 0;
        if (!decodeDetails(frame.payload, &details, &refused)) return false;
        if (refused > 0)
            trace(14, 1, "Machine %s sent %ld settings that would not read back", peer.name.c_str(),
                  static_cast<long>(refused));
        const bool written = updateStanza(peer.name, details);
        if (!written) trace(15, 1, "Could not write the details of machine %s", peer.name.c_str());
        answerAll(peer.name, written);
        return true;
    }
    default: return false;
    }
}

bool Manager::hello(Peer &peer, std::string_view name) {
    int32_t id = 0;
    if (peer.outbound ? !sameMachine(name, peer.name.c_str())
                      : !MsgMachineNameToId(&id, std::string(name).c_str()) || id <= MSG_MACHINE_LOCAL) {
        trace(16, 1, "Hello from a machine %.*s that is not the one expected", static_cast<int>(name.size()),
              name.data());
        return false;
    }
    if (!peer.outbound) peer.name = name;
    peer.helloSeen = peer.wasUp = true;
    trace(17, 2, "Machine %s is up", peer.name.c_str());
    return true;
}

bool Manager::fromPeer(Peer &peer, const PacketFrame &packet) {
    const auto *image = reinterpret_cast<const unsigned char *>(packet.image.data());
    const int32_t process = getLe32(image + 20);
    int32_t from = 0;
    // A peer speaks for itself alone, and to this machine alone.
    if (!sameMachine(packet.source, peer.name.c_str()) || !sameMachine(packet.destination, SysLocalMachineName()) ||
        process <= 0 || !MsgMachineNameToId(&from, peer.name.c_str()) || from <= MSG_MACHINE_LOCAL) {
        trace(18, 1, "Dropped a message %ld from machine %s for %.*s:%ld", static_cast<long>(getLe32(image + 24)),
              peer.name.c_str(), static_cast<int>(packet.destination.size()), packet.destination.data(),
              static_cast<long>(process));
        return true;
    }
    auto *made = static_cast<MSG_PACKET *>(ObjTemplateNewInstanceFromPool(gtObjTemplatePacket, nullptr));
    auto *copy = static_cast<unsigned char *>(MemAllocateFromPool(packet.image.size(), nullptr));
    memcpy(copy, image, packet.image.size());
    made->oImage = {static_cast<int32_t>(packet.image.size()), copy};
    putLe32(copy, process); // the route: a process of this machine
    putLe32(copy + 8, from);
    putLe32(copy + 16, MSG_MACHINE_LOCAL);
    toIpc(&made);
    return true;
}

void Manager::lost(Peer &peer, const char *why) {
    const std::string machine = peer.name;
    bool wasUp = false;
    for (auto &other : peers_) {
        if (other.get() != &peer && (machine.empty() || !sameMachine(other->name, machine.c_str()))) continue;
        if (other->socket == -1) continue;
        wasUp = wasUp || other->wasUp;
        NetClose(&other->socket);
        for (MSG_PACKET *&packet : other->held) {
            unreachable(packet, destinationOf(packet).iMachine, machine.c_str());
            ObjReleaseInternal(&packet);
        }
        other->held.clear();
    }
    trace(19, 1, "Lost the connection to machine %s: %s", machine.empty() ? "(unnamed)" : machine.c_str(), why);
    if (machine.empty()) return;
    answerAll(machine, false);
    if (!wasUp) return;
    CMGR_MACHINE_DOWN *body = gMachineDown.make();
    body->pszMachine = StrDuplicateIntoPool(machine.c_str(), nullptr);
    if (!sendBody(ipc_, MsgCommMgrAddress(), CMGR_MACHINE_DOWN_MSG, body, nullptr))
        trace(20, 1, "Could not tell the communication manager that machine %s is down", machine.c_str());
    ObjReleaseInternal(&body);
}

// ---- The pass ----

void Manager::fillMask(NetSelectMask *mask) const {
    const int32_t ipc = MsgChannelSocket(ipc_);
    if (ipc != -1) {
        NetAddReadSelect(mask, ipc);
        if (MsgChannelOutputCount(ipc_) > 0) NetAddWriteSelect(mask, ipc);
    }
    for (const auto &peer : peers_) {
        if (peer->socket == -1) continue;
        if (peer->connecting) {
            NetAddWriteSelect(mask, peer->socket);
            NetAddExceptionSelect(mask, peer->socket);
            continue;
        }
        NetAddReadSelect(mask, peer->socket);
        if (peer->sent < peer->out.size()) NetAddWriteSelect(mask, peer->socket);
    }
}

void Manager::serve(const NetSelectMask *ready) {
    const int32_t ipc = MsgChannelSocket(ipc_);
    if (ipc != -1 && NetIsWriteSelectSet(ready, ipc)) MsgChannelOutputData(ipc_);
    if (MsgChannelSocket(ipc_) != -1 && NetIsReadSelectSet(ready, ipc)) {
        MSG_PACKET *packet = nullptr;
        for (int reads = 0; reads < 64 && MsgChannelReceiveData(&packet, ipc_); ++reads) fromIpc(&packet);
    }
    // Peers made while serving were not selected: their sockets wait.
    for (size_t i = 0, count = peers_.size(); i < count; ++i) {
        Peer &peer = *peers_[i];
        const int32_t socket = peer.socket;
        if (socket == -1) continue;
        if (peer.connecting) {
            if (!NetIsWriteSelectSet(ready, socket) && !NetIsExceptionSelectSet(ready, socket)) continue;
            if (NetIsConnected(socket))
                connected(peer);
            else
                lost(peer, "connect failed");
            continue;
        }
        if (NetIsWriteSelectSet(ready, socket)) flush(peer);
        if (peer.socket != -1 && NetIsReadSelectSet(ready, socket)) readFrom(peer);
    }
}

void Manager::expire() {
    const Clock::time_point now = Clock::now();
    for (auto &peer : peers_)
        if (peer->socket != -1 && peer->connecting && now >= peer->deadline) lost(*peer, "connect timed out");
    for (Asker &asker : askers_)
        if (now >= asker.deadline) {
            trace(21, 1, "Machine %s did not send its details in time", asker.machine.c_str());
            answer(asker.requester, asker.machine.c_str(), false);
            ObjReleaseInternal(&asker.requester);
        }
    askers_.erase(std::remove_if(askers_.begin(), askers_.end(), [](const Asker &a) { return a.requester == nullptr; }),
                  askers_.end());
    peers_.erase(std::remove_if(peers_.begin(), peers_.end(), [](const auto &peer) { return peer->socket == -1; }),
                 peers_.end());
}

} // namespace fhnmgr
