// machine.h - a machine of the system inside a test: a home of its own
// (FHHOME) with its name and ports in "config/configure.cfg" and
// "config/lmnmgr.cfg", the other machines it knows in "etc/machines.dat",
// and its daemons, started in order through the Daemon launcher (the
// communication manager, then the network manager) and stopped as a unit,
// last started first. Two or three machines run on one host, each at an
// address of its own on 127.0.0.x: their network managers listen at one
// shared peer port, as on separate hosts.
#ifndef FHCORE_TESTS_SUPPORT_MACHINE_H
#define FHCORE_TESTS_SUPPORT_MACHINE_H

#include <memory>
#include <string>
#include <vector>

#include "daemon.h"

namespace testsupport {

// A port free at each of addresses a moment ago.
int freePortAt(const std::vector<std::string> &addresses);

class Machine {
public:
    // A machine name, its home root/name, at address (dotted), with its
    // network manager at peerPort.
    Machine(const std::string &root, const std::string &name, const std::string &address, int peerPort);
    ~Machine();
    Machine(const Machine &) = delete;
    Machine &operator=(const Machine &) = delete;

    // Adds a stanza for another machine to "machines.dat": its id in this
    // machine's file and where it is reached (any more key lines follow).
    void knows(const std::string &name, int id, const std::string &address, const std::string &more = "");
    void knows(const Machine &other, int id) { knows(other.name(), id, other.address()); }
    // Starts the daemons in order; false (the started ones stopped) when one
    // did not come up.
    bool start();
    // Stops the daemons, newest first; true when each ended cleanly.
    bool stop();
    // The network manager killed at once (a machine that is lost).
    void killNetworkManager();
    // Makes this process a process of the machine: its home, its name.
    void enter() const;

    const std::string &name() const { return name_; }
    const std::string &home() const { return home_; }
    const std::string &address() const { return address_; }
    int commsPort() const { return commsPort_; }

private:
    std::string name_, home_, address_;
    int commsPort_;
    std::vector<std::unique_ptr<Daemon>> daemons_;
};

} // namespace testsupport

#endif // FHCORE_TESTS_SUPPORT_MACHINE_H
