// manager.h - the process manager's own state: its two segments, the
// process table in them (messages/pmgrtable.h), the processes it started,
// the watches on deaths and the kills under way.
//
// A slot of the table is free (process id 0) or names one process. It is
// taken when the manager starts a program (its child, pid known, state
// "Creating") or when a process's first word arrives, and freed when the
// process is known to be gone: its child reaped, or its connection to the
// communication manager dropped, whichever comes first. Then each watch
// on it is answered once with PMGR_PROCESS_DIED_MSG and dropped.
//
// A kill goes by stages: PMGR_KILL_YOURSELF_MSG at once, SIGTERM when the
// grace period is over, SIGKILL after a second one; a process whose pid
// the manager does not know gets the message only.
#ifndef FHPMGR_MANAGER_H
#define FHPMGR_MANAGER_H

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "core/fhcore.h"
#include "messages/msgpmgr.h"
#include "messages/pmgrtable.h"

namespace fhpmgr {

using Clock = std::chrono::steady_clock;

class Manager {
public:
    // graceMilliseconds: how long a process asked to die has before each
    // signal. locale: sent to every starting process when not empty.
    Manager(int32_t graceMilliseconds, std::string locale);
    ~Manager();
    Manager(const Manager &) = delete;
    Manager &operator=(const Manager &) = delete;

    // Makes and attaches both segments and lays out their heads and the
    // time area. False, traced, when the system refuses.
    bool open();
    int32_t mainSegment() const { return mainId_; }
    int32_t tableSegment() const { return tableId_; }

    // Starts the programs of the "Start of Day" stanzas of procmgr.cfg in
    // their run order; each is found as "unix" of its stanza in
    // programs.cfg and gets its "Process Id" (or a new id) as argument.
    void startOfDay();
    // Acts on one packet; takes it.
    void handle(MSG_PACKET **packet);
    // The periodic work: reap children, move kills on, keep the time area.
    void pass();
    // How long the next wait may last, in milliseconds.
    int32_t nextWait() const;

private:
    struct Process {
        int32_t id = 0;
        pid_t pid = 0;
        bool child = false;
        int killStage = 0; // 0 none, 1 asked, 2 SIGTERM sent
        Clock::time_point killAt{};
        std::string name;
    };
    struct Watch {
        MsgPacketAddress watcher;
        int32_t watched;
    };
    using Handler = void (Manager::*)(const MSG_PACKET *, const MsgPacketAddress &from);
    struct Row {
        int32_t type;
        Handler handler;
    };
    static const Row kRows[];

    void initialStatus(const MSG_PACKET *packet, const MsgPacketAddress &from);
    void status(const MSG_PACKET *packet, const MsgPacketAddress &from);
    void changeFromReady(const MSG_PACKET *packet, const MsgPacketAddress &from);
    void absorb(const MSG_PACKET *packet, const MsgPacketAddress &from);
    void getState(const MSG_PACKET *packet, const MsgPacketAddress &from);
    void killProcess(const MSG_PACKET *packet, const MsgPacketAddress &from);
    void notifyOnDeath(const MSG_PACKET *packet, const MsgPacketAddress &from);
    void cancelNotify(const MSG_PACKET *packet, const MsgPacketAddress &from);
    void connectionDropped(const MSG_PACKET *packet, const MsgPacketAddress &from);

    int slotOf(int32_t id) const;
    int freeSlot() const;
    int32_t newId() const;
    bool start(const char *name, int32_t id);
    void layOut(int slot, int32_t id, const PMGR_PROCESS_STATUS &status, uint32_t flags);
    bool sendAttach(int slot, int32_t route);
    bool sendTo(const MsgPacketAddress &to, int32_t route, int32_t type, void *body);
    void died(int32_t id);
    void setState(int slot, int32_t state);
    void touchTime();

    unsigned char *slotAt(int slot) const;
    unsigned char *entryAt(int slot) const;
    static void putWord(unsigned char *at, int32_t value);
    static int32_t getWord(const unsigned char *at);

    int32_t graceMilliseconds_;
    std::string locale_;
    int32_t mainId_ = -1, tableId_ = -1;
    unsigned char *main_ = nullptr, *table_ = nullptr;
    Process processes_[PMGR_TABLE_SLOTS];
    std::vector<Watch> watches_;
};

} // namespace fhpmgr

#endif // FHPMGR_MANAGER_H
