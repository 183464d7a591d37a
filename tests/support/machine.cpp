#include "machine.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>

#include "core/fhcore.h"

namespace testsupport {
namespace {

constexpr int kPortAttempts = 50;

bool bindable(const std::string &address, int port) {
    const int s = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in at{};
    at.sin_family = AF_INET;
    at.sin_port = htons(static_cast<uint16_t>(port));
    inet_pton(AF_INET, address.c_str(), &at.sin_addr);
    const bool free = bind(s, reinterpret_cast<sockaddr *>(&at), sizeof at) == 0;
    close(s);
    return free;
}

} // namespace

int freePortAt(const std::vector<std::string> &addresses) {
    for (int attempt = 0; attempt < kPortAttempts; ++attempt) {
        const int port = freePort();
        bool all = true;
        for (const std::string &address : addresses) all = all && bindable(address, port);
        if (all) return port;
    }
    return 0;
}

Machine::Machine(const std::string &root, const std::string &name, const std::string &address, int peerPort)
    : name_(name), home_(root + "/" + name), address_(address), commsPort_(freePort()) {
    mkdir(home_.c_str(), 0755);
    mkdir((home_ + "/etc").c_str(), 0755);
    writeMachineSettings(home_, commsPort_, "Name=" + name + "\n");
    std::ofstream(home_ + "/config/lmnmgr.cfg")
        << "[Network]\nPeer TcpPort=" << peerPort << "\nPeer Listen Address=" << address << "\n";
    std::ofstream(home_ + "/etc/machines.dat", std::ios::app);
}

Machine::~Machine() { stop(); }

void Machine::knows(const std::string &name, int id, const std::string &address, const std::string &more) {
    std::ofstream(home_ + "/etc/machines.dat", std::ios::app)
        << "[" << name << "]\nId=" << id << "\nContact Address=" << address << "\n" << more << "\n";
}

bool Machine::start() {
    for (const auto &[program, id] : {std::pair{"fhcmgr", "2"}, std::pair{"fhnmgr", "3"}}) {
        daemons_.push_back(std::make_unique<Daemon>(home_, program, std::vector<std::string>{id}));
        if (daemons_.back()->readyLine().rfind(std::string(program) + " ready", 0) != 0) {
            stop();
            return false;
        }
    }
    return true;
}

bool Machine::stop() {
    bool clean = true;
    while (!daemons_.empty()) {
        clean = daemons_.back()->stop() && clean;
        daemons_.pop_back();
    }
    return clean;
}

void Machine::killNetworkManager() {
    if (daemons_.size() != 2) return;
    daemons_.back()->kill();
    daemons_.pop_back();
}

void Machine::enter() const {
    setenv("FHHOME", home_.c_str(), 1);
    PathInitialize();
    SysSetLocalMachineName(name_.c_str());
    // The library named the well-known processes after the machine it
    // started on; they are this machine's now.
    for (MSG_ADDRESS *known :
         {MsgProcMgrAddress(), MsgCommMgrAddress(), MsgNetMgrAddress(), MsgLogDaemonAddress(), MsgAuditorAddress()}) {
        MemFreeInternal(&known->pszMachine);
        known->pszMachine = StrDuplicateIntoPool(name_.c_str(), nullptr);
    }
}

} // namespace testsupport
