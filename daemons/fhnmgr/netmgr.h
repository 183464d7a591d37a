// netmgr.h - the network manager's work: its IPC channel to the
// communication manager of its machine, and its peers, the network managers
// of the other machines.
//
// From the IPC channel come the packets with route 3. One for this machine
// (machine id 1) is a request to the manager itself; any other goes to the
// network manager of its destination machine, found by the machine's
// stanza in "etc/machines.dat" (MsgPreferredNet) at the peer port, with its
// machine ids made names (peerframe.h). The far manager makes the names its
// own ids and hands the image to its communication manager.
//
// Peers. Each peer is one TCP connection. Either side may open it; each
// side says hello with its name first, and a connection stays nameless
// (and carries nothing) until then. Packets to a machine go over the first
// live connection to it, so they arrive in the order they were sent. A
// connection is connecting (packets queue, held for a failure answer),
// then up. When a connection that was up is lost, every connection to that
// machine is closed and the communication manager is told
// (CMGR_MACHINE_DOWN_MSG to process 2), which tells every process.
//
// Failure answers. A packet that can't go (no stanza, no address, the
// connect failed, the queue of a peer that stopped reading is full) brings
// its sender NMGR_MACHINE_UNREACHABLE_MSG from the far machine's id, process
// 3. A details request is answered when the peer's details have been
// written, when it can't be asked, or when the connection fails, with
// bKnown saying whether the stanza is now current.
#ifndef FHNMGR_NETMGR_H
#define FHNMGR_NETMGR_H

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "core/fhcore.h"
#include "peerframe.h"

namespace fhnmgr {

using Clock = std::chrono::steady_clock;

struct Settings {
    int32_t peerPort;               // where every network manager listens
    std::chrono::seconds connect;   // bound of a connect to a peer
    std::chrono::seconds details;   // bound of a peer's answer to a details request
    int64_t queueBound;             // bytes a peer may leave unread
};

class Manager {
public:
    Manager(MSG_CHANNEL *ipc, const Settings &settings);
    ~Manager();
    Manager(const Manager &) = delete;
    Manager &operator=(const Manager &) = delete;

    // Takes a connection that a peer opened.
    void accepted(int32_t socket);
    // The bits select is to watch, and the work for what it found.
    void fillMask(NetSelectMask *mask) const;
    void serve(const NetSelectMask *ready);
    // Deadlines of connects and details requests; lets go of closed peers.
    void expire();
    bool ipcDown() const { return MsgChannelIsDown(ipc_); }

private:
    struct Peer {
        int32_t socket = -1;
        std::string name;         // the machine; empty until its hello
        bool outbound = false;    // opened by this side
        bool connecting = false;  // an outbound connect under way
        bool helloSeen = false;
        bool wasUp = false;       // connected, and its hello came
        Clock::time_point deadline;
        PeerReader reader;
        std::string out;          // frames to send, from sent on
        size_t sent = 0;
        std::vector<MSG_PACKET *> held; // packets sent while connecting
    };
    struct Asker {
        std::string machine;
        MSG_ADDRESS *requester;
        Clock::time_point deadline;
    };

    void fromIpc(MSG_PACKET **packet);
    void forward(MSG_PACKET **packet);
    void detailsRequest(const MSG_PACKET *packet);
    void answer(const MSG_ADDRESS *requester, const char *machine, bool known);
    void answerAll(const std::string &machine, bool known);
    void unreachable(const MSG_PACKET *packet, int32_t farId, const char *farName);
    void toIpc(MSG_PACKET **packet);

    Peer *peerFor(const std::string &machine, const MSG_ADDRESS *address);
    void queue(Peer &peer, MSG_PACKET **packet, const std::string &source);
    void flush(Peer &peer);
    void readFrom(Peer &peer);
    bool frame(Peer &peer, const Frame &frame);
    bool hello(Peer &peer, std::string_view name);
    bool fromPeer(Peer &peer, const PacketFrame &packet);
    void connected(Peer &peer);
    void lost(Peer &peer, const char *why);

    MSG_CHANNEL *ipc_;
    Settings settings_;
    std::vector<std::unique_ptr<Peer>> peers_;
    std::vector<Asker> askers_;
};

// This machine's settings as its peers are to see them.
Details ownDetails();
// Writes details into the machine's stanza of "etc/machines.dat", keeping
// its other keys; false when the stanza is missing or can't be written.
bool updateStanza(const std::string &machine, const Details &details);

} // namespace fhnmgr

#endif // FHNMGR_NETMGR_H
