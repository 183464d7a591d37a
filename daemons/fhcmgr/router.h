// router.h - the switch of the communication manager: its clients, one IPC
// channel each, and how a packet image finds its way by its route field.
//
// A client is unbound until its first packet, MSG_IPC_CONNECT_MSG, names
// its process id. Every other image goes on whole, unread past its header:
// a positive route to the client of that process id, a negative one to the
// client on minus that channel id (route 3 is the network manager's, for its
// own requests and for every other machine), route 2 to the manager itself.
// Of these only CMGR_MACHINE_DOWN_MSG from the network manager does
// anything: a copy goes to every other client, from process 2, so that each
// process learns that the machine is gone. An image that can't be delivered
// (route 3 while no network manager is connected too) brings its sender
// CMGR_PROCESS_UNREACHABLE_MSG. A client whose queued output passes the
// bound is taken down, as is one whose bytes can't be packets (the
// channel's own reader does that); the manager goes on. The process
// manager hears of every bound client whose connection ends
// (PMGR_CONNECTION_DROPPED_MSG), and its attach message gives a client
// without an id (process 0) the id it names.
#ifndef FHCMGR_ROUTER_H
#define FHCMGR_ROUTER_H

#include <cstdint>
#include <vector>

#include "core/fhcore.h"

namespace fhcmgr {

class Router {
public:
    explicit Router(int64_t queueBound);
    ~Router();
    Router(const Router &) = delete;
    Router &operator=(const Router &) = delete;

    // Makes an accepted connection a client, its channel in *channel if
    // asked for (borrowed). False (socket closed) when there is no room.
    bool add(int32_t socket, MSG_CHANNEL **channel = nullptr);
    // Sets the bits select is to watch: read for every client, write for
    // those with output waiting.
    void fillMask(NetSelectMask *mask) const;
    // Serves every client that the mask reports ready.
    void serve(const NetSelectMask *ready);
    // Routes one image that came from a client; takes the packet.
    void route(MSG_CHANNEL *from, MSG_PACKET **packet);
    // Lets go of clients that went down, and of what their going queued.
    void sweep();
    size_t clients() const { return clients_.size(); }

private:
    struct Client {
        MSG_CHANNEL *channel;
        int32_t process; // 0 until MSG_IPC_CONNECT_MSG
    };
    Client *byProcess(int32_t process);
    Client *byChannel(int32_t channelId);
    void unreachable(MSG_CHANNEL *from, const unsigned char *image, int32_t type);
    bool isNetworkManager(const MSG_CHANNEL *channel) const;
    void machineDown(const MSG_CHANNEL *from, const MSG_PACKET *news);
    bool overBound(MSG_CHANNEL *channel) const;
    void adopt(MSG_CHANNEL *from, Client &to, unsigned char *image, int32_t route, int32_t type);
    void dropped(int32_t process);

    int64_t queueBound_;
    std::vector<Client> clients_;
};

} // namespace fhcmgr

#endif // FHCMGR_ROUTER_H
