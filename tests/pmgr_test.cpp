// The process manager, started as a daemon beside a communication manager:
// the programs of its day in the process table with their states, a viewer
// reading another process's entry, kills and notice of death, adoption of
// a process without an id, stale and busy segments at its start, and two
// machines on one host with keys of their own. No segment of a test's keys
// outlives it.
#include <signal.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/stat.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <thread>

#include "daemon.h"
#include "helpers.h"
#include "messages/msgmsg.h"
#include "messages/msgpmgr.h"
#include "messages/pmgrtable.h"
#include "msgchannel.h"
#include "net_support.h"

// Sends the process manager PMGR_<NAME>_MSG about process id.
#define ASK(NAME, id) ask<PMGR_##NAME>(PMGR_##NAME##_MSG, PMGR_##NAME##_MAGIC, PMGR_##NAME##_FORMAT, id)

namespace {

using Clock = std::chrono::steady_clock;
using nettest::join;
using testsupport::Daemon;
constexpr int kKeysChecked = 8;

// The key of index for the manager's copy in home.
int32_t keyOf(const std::string &home, int32_t index) {
    struct stat status;
    if (stat((home + "/bin/fhpmgr").c_str(), &status) != 0) return -1;
    return static_cast<int32_t>(static_cast<uint32_t>(index) << 24 | (status.st_dev & 0xFF) << 16 |
                                (status.st_ino & 0xFFFF));
}

bool keyInUse(const std::string &home, int32_t index) { return shmget(keyOf(home, index), 0, 0) != -1; }
void expectNoKeysInUse(const std::string &home) {
    for (int index = 0; index < kKeysChecked; ++index) EXPECT_FALSE(keyInUse(home, index)) << index;
}

// A home with its settings, its own copies of the manager and the test
// program, and its two managers once started.
struct Machine {
    std::string home;
    int port = testsupport::freePort();
    std::unique_ptr<Daemon> cmgr, pmgr;
    int32_t mainId = -1, tableId = -1;

    Machine(std::string at, const std::string &programs, const std::string &day) : home(std::move(at)) {
        namespace fs = std::filesystem;
        fs::create_directories(home + "/bin");
        testsupport::writeMachineSettings(home, port);
        for (const char *program : {"fhpmgr", "pmgr_child"})
            fs::copy_file(std::string(FHCORE_BIN_DIR) + "/" + program, home + "/bin/" + program);
        testhelp::writeFile(home + "/config/programs.cfg", "[Process Manager]\nunix=bin/fhpmgr\n[Child]\n"
                                                           "unix=bin/pmgr_child\n" + programs);
        testhelp::writeFile(home + "/config/procmgr.cfg", "[Process Manager]\nKill Grace=100\n" + day);
        expectNoKeysInUse(home);
    }
    ~Machine() { stop(), expectNoKeysInUse(home); }
    // Both managers up; false when the process manager did not get ready.
    bool start() {
        cmgr = std::make_unique<Daemon>(home, "fhcmgr", std::vector<std::string>{"2"});
        pmgr = std::make_unique<Daemon>(home, "fhpmgr", std::vector<std::string>{"1"});
        long main = -1, table = -1;
        if (sscanf(pmgr->readyLine().c_str(), "fhpmgr ready: main segment %ld table segment %ld", &main, &table) != 2)
            return false;
        mainId = static_cast<int32_t>(main), tableId = static_cast<int32_t>(table);
        return true;
    }
    void stop() {
        EXPECT_TRUE(pmgr == nullptr || pmgr->stop());
        EXPECT_TRUE(cmgr == nullptr || cmgr->stop());
        pmgr.reset(), cmgr.reset();
    }
};

class PmgrTest : public LibraryTest {
protected:
    void TearDown() override {
        machine_.reset();
        nettest::leaveManager();
        LibraryTest::TearDown();
    }
    Machine &machine(const std::string &programs, const std::string &day) {
        machine_ = std::make_unique<Machine>(home(), programs, day);
        return *machine_;
    }
    // Sends the manager type with a body T whose first field is the address
    // of id (the rest zero).
    template <typename T> static bool ask(int32_t type, uint32_t magic, const char *format, int32_t id) {
        void *body = ObjNewInternal(sizeof(T), magic, format, nullptr, nullptr);
        const bool sent = MsgCreateAddress(static_cast<MSG_ADDRESS **>(body), SysLocalMachineName(), id) &&
                          MsgSendObject(MsgProcMgrAddress(), type, body);
        ObjReleaseInternal(&body);
        return sent;
    }
    // Passes until a packet of type comes (others kept in order in *others
    // as types), within milliseconds; the packet or null.
    static MSG_PACKET *await(int32_t type, int milliseconds, std::vector<int32_t> *others = nullptr) {
        const auto until = Clock::now() + std::chrono::milliseconds(milliseconds);
        while (Clock::now() < until) {
            fh::msgSelectPass(20);
            for (MSG_PACKET *packet = nullptr; MsgReceivePopPacket(&packet);) {
                if (MsgPacketMsgType(packet) == type) return packet;
                if (others != nullptr) others->push_back(MsgPacketMsgType(packet));
                ObjReleaseInternal(&packet);
            }
        }
        return nullptr;
    }
    // The state the manager gives for id, and the deaths told before it.
    static int32_t stateOf(int32_t id, int *deaths = nullptr) {
        if (!ASK(GET_PROCESS_STATE, id))
            return -100;
        std::vector<int32_t> before;
        MSG_PACKET *reply = await(PMGR_GET_PROCESS_STATE_RETURN_MSG, 5000, &before);
        const nettest::Body body(reply, PMGR_GET_PROCESS_STATE_RETURN_MAGIC);
        const int32_t state = body.object != nullptr ? body.as<PMGR_GET_PROCESS_STATE_RETURN>()->iState : -100;
        if (deaths != nullptr) *deaths = static_cast<int>(std::count(before.begin(), before.end(), PMGR_PROCESS_DIED_MSG));
        return state;
    }
    // Asks until id's state is wanted, within 10 seconds.
    static bool reaches(int32_t id, int32_t wanted) {
        for (int attempt = 0; attempt < 200; ++attempt) {
            if (stateOf(id) == wanted) return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        return false;
    }
    static int32_t word(const unsigned char *at) {
        int32_t value;
        memcpy(&value, at, sizeof value);
        return value;
    }
    // The slot of id in a table attached read-only, or null.
    static const unsigned char *slotOf(const unsigned char *table, int32_t id) {
        for (int slot = 0; slot < word(table + PMGR_TABLE_HEAD_SLOTS); ++slot) {
            const unsigned char *at = table + PMGR_TABLE_HEAD_BYTES + slot * word(table + PMGR_TABLE_HEAD_SLOT_BYTES);
            if (word(at + PMGR_SLOT_PROCESS) == id) return at;
        }
        return nullptr;
    }

    std::unique_ptr<Machine> machine_;
};

// The day starts process 5, which makes objects, traces, sets a title of
// 100 characters and reports busy; a viewer (6) finds all of it in shared
// memory through the table; then 5 is killed, and its watcher told once.
TEST_F(PmgrTest, DayProcessesShowInTheTableAndToAViewer) {
    const std::string title(100, 'T');
    Machine &m = machine("[Viewer]\nunix=bin/pmgr_child\n[Process 5]\nTitle=" + title +
                             "\nObjects=7\n[Process 6]\nView=5\n",
                         "[Start of Day:Child]\nRun order=2\nProcess Id=5\n"
                         "[Start of Day:Viewer]\nRun order=1\nProcess Id=6\n");
    ASSERT_TRUE(m.start());
    ASSERT_TRUE(join(50));
    ASSERT_TRUE(reaches(5, PROC_STATE_BUSY));
    ASSERT_TRUE(ASK(NOTIFY_ON_DEATH, 6));
    MSG_PACKET *viewerDied = await(PMGR_PROCESS_DIED_MSG, 10000);
    ASSERT_NE(viewerDied, nullptr) << "the viewer ends when it has read process 5";
    ObjReleaseInternal(&viewerDied);

    const std::string view = testhelp::readFile(m.home + "/view.txt");
    EXPECT_NE(view.find("state 3\nstatuses 2\ntitle " + title.substr(0, 79) + "\n"), std::string::npos) << view;
    std::vector<long> counters;
    for (size_t at = 0; (at = view.find("counter ", at)) != std::string::npos; at += 8)
        counters.push_back(std::stol(view.substr(at + 8)));
    ASSERT_EQ(counters.size(), 6u) << view;
    EXPECT_GE(counters[3], 7) << "objects live";
    EXPECT_GE(counters[4], counters[3]);
    EXPECT_GE(counters[5], counters[4]);
    EXPECT_GT(counters[0], 0) << "blocks live";
    EXPECT_NE(view.find("trace child 5 made 7 objects\n"), std::string::npos) << view;

    const auto *table = static_cast<const unsigned char *>(shmat(m.tableId, nullptr, SHM_RDONLY));
    ASSERT_NE(table, reinterpret_cast<const void *>(-1));
    const unsigned char *slot = slotOf(table, 5);
    ASSERT_NE(slot, nullptr);
    const pid_t pid = word(slot + PMGR_SLOT_PID);
    EXPECT_GT(pid, 0);
    EXPECT_EQ(slotOf(table, 6), nullptr) << "the viewer's slot is free again";

    for (int twice = 0; twice < 2; ++twice)
        ASSERT_TRUE(ASK(NOTIFY_ON_DEATH, 5));
    ASSERT_TRUE(ASK(KILL_PROCESS, 5));
    MSG_PACKET *died = await(PMGR_PROCESS_DIED_MSG, 10000);
    const nettest::Body body(died, PMGR_PROCESS_DIED_MAGIC);
    ASSERT_NE(body.object, nullptr);
    EXPECT_EQ(MsgGetProcessId(body.as<PMGR_PROCESS_DIED>()->oAddress), 5);
    int more = -1;
    EXPECT_EQ(stateOf(5, &more), PROC_STATE_UNKNOWN);
    EXPECT_EQ(more, 0) << "one notice for a watcher, however often it asked";
    EXPECT_EQ(slotOf(table, 5), nullptr);
    // Its connection may be seen to drop before the child is reaped.
    for (int attempt = 0; attempt < 500 && kill(pid, 0) == 0; ++attempt)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_EQ(kill(pid, 0), -1) << "reaped";
    shmdt(table);
}

// A process that ignores the request and SIGTERM is killed after the grace
// periods; a watch cancelled before brings no notice.
TEST_F(PmgrTest, StubbornProcessIsKilledAndCancelledWatchIsSilent) {
    Machine &m = machine("[Process 7]\nStubborn=true\n", "[Start of Day:Child]\nProcess Id=7\n");
    ASSERT_TRUE(m.start());
    ASSERT_TRUE(join(50));
    ASSERT_TRUE(reaches(7, PROC_STATE_BUSY));
    ASSERT_TRUE(ASK(NOTIFY_ON_DEATH, 7));
    ASSERT_TRUE(ASK(CANCEL_NOTIFY_ON_DEATH, 7));
    ASSERT_TRUE(ASK(KILL_PROCESS, 7));
    int total = 0;
    bool gone = false;
    for (int attempt = 0; attempt < 200 && !gone; ++attempt) {
        int deaths = 0;
        gone = stateOf(7, &deaths) == PROC_STATE_UNKNOWN;
        total += deaths;
        if (!gone) std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    EXPECT_TRUE(gone) << "SIGKILL follows the ignored SIGTERM";
    EXPECT_EQ(total, 0);
}

// A process without an id gets one through the attach message's
// destination, and is reached by it through the communication manager.
TEST_F(PmgrTest, ProcessWithoutAnIdIsAdopted) {
    ASSERT_TRUE(machine("", "").start());
    ASSERT_TRUE(join(0));
    void *status = ObjNewInternal(sizeof(PMGR_PROCESS_STATUS), PMGR_PROCESS_STATUS_MAGIC, PMGR_PROCESS_STATUS_FORMAT,
                                  nullptr, nullptr);
    *static_cast<PMGR_PROCESS_STATUS *>(status) = {1, static_cast<int32_t>(getpid()), 0, FALSE, FALSE, 0};
    void *initial = ObjNewInternal(sizeof(PMGR_PROCESS_INITIAL_STATUS), PMGR_PROCESS_INITIAL_STATUS_MAGIC,
                                   PMGR_PROCESS_INITIAL_STATUS_FORMAT, nullptr, nullptr);
    static_cast<PMGR_PROCESS_INITIAL_STATUS *>(initial)->oStatus = status;
    ASSERT_TRUE(MsgSendObject(MsgProcMgrAddress(), PMGR_PROCESS_INITIAL_STATUS_MSG, initial));
    ObjReleaseInternal(&initial);
    MSG_PACKET *attach = await(PMGR_ATTACH_TO_SHM_MSG, 5000);
    ASSERT_NE(attach, nullptr);
    ObjReleaseInternal(&attach);
    EXPECT_EQ(ProcGetId(), PMGR_FIRST_ADOPTED_ID);
    EXPECT_EQ(stateOf(ProcGetId()), PROC_STATE_CREATING) << "the answer found the new id";
}

// Stale segments of the installation go at the start; one in use stops the
// manager, and what lies above it stays.
TEST_F(PmgrTest, StaleSegmentsGoAndOneInUseStopsTheManager) {
    Machine &m = machine("", "");
    const int stale = shmget(keyOf(m.home, 5), 4096, IPC_CREAT | IPC_EXCL | 0777);
    ASSERT_NE(stale, -1);
    ASSERT_TRUE(m.start());
    struct shmid_ds status;
    EXPECT_EQ(shmctl(stale, IPC_STAT, &status), -1) << "removed";
    m.stop();

    const int busy = shmget(keyOf(m.home, 2), 4096, IPC_CREAT | IPC_EXCL | 0777);
    const int above = shmget(keyOf(m.home, 3), 4096, IPC_CREAT | IPC_EXCL | 0777);
    void *attached = shmat(busy, nullptr, 0);
    ASSERT_NE(attached, reinterpret_cast<void *>(-1));
    EXPECT_FALSE(m.start());
    EXPECT_FALSE(m.pmgr->stop()) << "it ended with a failure";
    m.pmgr.reset();
    EXPECT_EQ(shmctl(above, IPC_STAT, &status), 0) << "left alone";
    shmdt(attached);
    shmctl(busy, IPC_RMID, nullptr);
    shmctl(above, IPC_RMID, nullptr);
}

// Two machines on one host: each manager's copy gives its own keys, and both
// run at once.
TEST_F(PmgrTest, TwoMachinesGetTheirOwnKeysAndBothRun) {
    Machine &first = machine("", "");
    Machine second(home() + "/second", "", "");
    EXPECT_NE(keyOf(first.home, 0), keyOf(second.home, 0));
    ASSERT_TRUE(first.start());
    ASSERT_TRUE(second.start());
    EXPECT_NE(first.mainId, second.mainId);
    EXPECT_TRUE(keyInUse(first.home, 0) && keyInUse(second.home, 0));
    second.stop();
    EXPECT_TRUE(keyInUse(first.home, 0)) << "the first runs on";
}

} // namespace
