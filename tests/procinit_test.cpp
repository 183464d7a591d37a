// Start-up and exit of a managed process, in children of the test: the id
// text, the conversation with the real communication manager while the
// test plays the process manager (or, for a process the manager did not
// start, both managers on the comms port), messages that come early,
// SIGTERM and the cleanup routines.
#include <poll.h>
#include <sys/stat.h>

#include "daemon.h"
#include "helpers.h"
#include "messages/msgmsg.h"
#include "messages/msgpmgr.h"
#include "net_support.h"
#include "procstart.h"

namespace {

constexpr int32_t kEarly = 50020, kHere = 50021;
std::string gHome;

// A cleanup routine: appends "<user> <code> <trace level>" to the file of
// the process id.
void note(void *user, int32_t code) {
    std::ofstream(gHome + "/cleanup" + std::to_string(ProcGetId()), std::ios::app)
        << static_cast<const char *>(user) << " " << code << " " << TraceSetLevel(-2) << "\n";
}
void noteAfterSecondCleanup(void *user, int32_t code) {
    ProcCleanup(0); // must return at once
    note(user, code);
}

bool sendTo(int32_t id, int32_t type, void *body) {
    MSG_ADDRESS *to = nullptr;
    const bool sent = MsgCreateAddress(&to, SysLocalMachineName(), id) && MsgSendObject(to, type, body);
    ObjReleaseInternal(&to);
    ObjReleaseInternal(&body);
    return sent;
}
MSG_MESSAGE *next(int32_t type, int seconds = 20) {
    TIME_TIMEOUT until{};
    const TIME_OFFSET span{seconds, 0};
    TimeSetTimeoutFromOffset(&until, &span);
    MSG_MESSAGE *m = nullptr;
    while (!MsgReceiveMsgTypeFromAddress(&m, type, nullptr, &until) && !TimeTimeoutHasExpired(&until)) {}
    return m;
}
int32_t nextState() { // -2: none came
    MSG_MESSAGE *m = next(PMGR_PROCESS_STATUS_MSG);
    const int32_t state = m != nullptr ? static_cast<PMGR_PROCESS_STATUS *>(m->oObject)->iState : -2;
    ObjReleaseInternal(&m);
    return state;
}

// Both managers on the comms port, for one client at a time: its packets
// as they come, and answers through its channel.
struct Switch {
    int32_t listener = -1;
    MSG_CHANNEL *client = nullptr;
    explicit Switch(int port) {
        const NetAddressT at = nettest::loopback(port);
        NetOpen(&listener, NET_SOCKET_STREAM);
        NetSetReuseAddress(listener);
        EXPECT_TRUE(NetBind(listener, &at) && NetListen(listener, 8));
    }
    ~Switch() {
        ObjReleaseInternal(&client);
        NetClose(&listener);
    }
    static bool ready(int32_t socket, int milliseconds) {
        pollfd entry{socket, POLLIN, 0};
        return poll(&entry, 1, milliseconds) == 1;
    }
    bool accept() {
        int32_t socket = -1;
        return ready(listener, 10000) && NetAccept(&socket, listener, nullptr) == NET_ERROR_NONE &&
               MsgChannelCreateInternal(&client, socket, nullptr, FALSE, FALSE, TRUE, FALSE, TRUE);
    }
    // The next packet, or null once the client is gone.
    MSG_PACKET *next() {
        MSG_PACKET *packet = nullptr;
        while (!MsgChannelIsDown(client) && ready(client->iSocket, 10000) && !MsgChannelReceiveData(&packet, client)) {}
        return packet;
    }
    void send(int32_t id, int32_t type, void *body) {
        MSG_ADDRESS *to = nullptr, *from = nullptr;
        MSG_PACKET *packet = nullptr;
        if (MsgCreateAddress(&to, SysLocalMachineName(), id) && MsgCreateAddress(&from, SysLocalMachineName(), 1) &&
            MsgCreatePacket(&packet, to, from, type, body))
            MsgChannelDispatch(client, &packet);
        for (void *held : {static_cast<void *>(to), static_cast<void *>(from), body}) ObjReleaseInternal(&held);
    }
};

struct Child {
    pid_t pid;
    int go; // the child starts when a byte arrives here
};

class ProcInitTest : public LibraryTest {
  protected:
    void SetUp() override {
        LibraryTest::SetUp();
        gHome = home();
        mkdir((home() + "/config").c_str(), 0755);
        mkdir((home() + "/bin").c_str(), 0755);
        testhelp::writeFile(home() + "/bin/fhpmgr", "keys");
        testhelp::writeFile(home() + "/config/programs.cfg",
                            "[Process Manager]\nunix=bin/fhpmgr\n[worker]\nTrace Level=always\n");
        port_ = testsupport::freePort();
        testsupport::writeMachineSettings(home(), port_);
    }
    void TearDown() override {
        if (segment_ != -1) ShmFree(&segment_);
        if (manager_ != nullptr) {
            EXPECT_TRUE(manager_->stop());
        }
        MsgReleaseThread(&gtLmContext);
        MsgInitializeThread();
        LibraryTest::TearDown();
    }
    void startManager() {
        manager_ = std::make_unique<testsupport::Daemon>(home(), "fhcmgr", std::vector<std::string>{"2"});
        ASSERT_FALSE(manager_->readyLine().empty());
    }
    // Forked before the test joins, so that it shares no socket with it.
    template <typename Body> static Child start(Body body) {
        int fds[2];
        EXPECT_EQ(pipe(fds), 0);
        fflush(stdout);
        const pid_t pid = fork();
        char byte = 0;
        if (pid == 0) _exit(close(fds[1]) == 0 && read(fds[0], &byte, 1) == 1 ? body() : 90);
        close(fds[0]);
        return {pid, fds[1]};
    }
    static void go(const Child &c) { EXPECT_EQ(write(c.go, "g", 1), 1), close(c.go); }
    // The attach body for entry index of a segment laid out as a manager
    // lays it: the time area at 256, entries from 1024 titled "worker" with
    // a ring of 4096.
    PMGR_ATTACH_TO_UNIX_SHM *attachBody(int32_t index = 0) {
        void *base = nullptr;
        EXPECT_TRUE((segment_ != -1 || ShmAllocate(&segment_, 32768)) && ShmAttach(&base, segment_));
        const int32_t entry = 1024 + 8192 * index, ring = 4096;
        strcpy(static_cast<char *>(base) + entry, "worker");
        memcpy(static_cast<char *>(base) + entry + 104, &ring, 4);
        ShmDetach(&base);
        auto *body = static_cast<PMGR_ATTACH_TO_UNIX_SHM *>(ObjNewInternal(
            sizeof(PMGR_ATTACH_TO_UNIX_SHM), PMGR_ATTACH_TO_UNIX_SHM_MAGIC, PMGR_ATTACH_TO_UNIX_SHM_FORMAT, nullptr,
            nullptr));
        *body = {segment_, segment_, entry, 0, 256};
        return body;
    }

    int port_ = 0;
    int32_t segment_ = -1;
    std::unique_ptr<testsupport::Daemon> manager_;
};

// A text that is not a number alone fails before any connection: the comms
// port listens, and nobody comes.
TEST_F(ProcInitTest, IdTextIsANumberAlone) {
    const struct {
        const char *text;
        bool ok;
        int32_t id;
    } rows[] = {{"5", true, 5},       {"-5", true, -5},        {" 7", true, 7},
                {"12x", false, 0},    {"", false, 0},          {"5 ", false, 0},
                {nullptr, false, 0},  {"2147483648", false, 0}, {"-2147483648", false, 0}};
    for (const auto &row : rows) {
        int32_t id = 0;
        EXPECT_EQ(fh::procScanId(row.text, &id), row.ok) << (row.text ? row.text : "null");
        EXPECT_EQ(id, row.id);
    }
    Switch comms(port_);
    for (const char *text : {"12x", ""}) {
        const pid_t pid = nettest::child([text] {
            ProcAddCleanupRoutine(note, const_cast<char *>("F"));
            return ProcInitializeTags(-2, PROC_TAG_ID_TEXT, text, PROC_TAG_TRACE_LEVEL, 1, -1) ? 1 : 0;
        });
        EXPECT_EQ(nettest::waitChild(pid), 0) << text;
    }
    EXPECT_FALSE(Switch::ready(comms.listener, 0));
    EXPECT_EQ(testhelp::readFile(home() + "/cleanup0"), "F 1 3\nF 1 3\n");
}

// Started with "5": the initial status, early messages kept and delivered
// after the start in their order, the name from the entry and its trace
// level, the first state, and state 6 from ProcRelease(-1).
TEST_F(ProcInitTest, ManagedStartKeepsEarlyMessagesInOrder) {
    startManager();
    const Child child = start([] {
        ProcAddCleanupRoutine(note, const_cast<char *>("A"));
        if (!ProcInitializeTags(-2, PROC_TAG_ID_TEXT, "5", PROC_TAG_READY, TRUE, -1)) return 2;
        if (ProcGetId() != 5 || strcmp(ProcName(), "worker") != 0) return 3;
        for (int32_t i = 0; i < 3; ++i) {
            MSG_MESSAGE *m = next(kEarly, 5);
            const bool inOrder = m != nullptr && ObjGetInteger(m->oObject) == i;
            ObjReleaseInternal(&m);
            if (!inOrder) return 4 + i;
        }
        ProcRelease(-1);
        return 0;
    });
    ASSERT_TRUE(ProcSetId(1) && MsgIpcConnect(0));
    go(child);
    MSG_MESSAGE *initial = next(PMGR_PROCESS_INITIAL_STATUS_MSG);
    ASSERT_NE(initial, nullptr);
    const auto *body = static_cast<const PMGR_PROCESS_INITIAL_STATUS *>(initial->oObject);
    const auto *status = static_cast<const PMGR_PROCESS_STATUS *>(body->oStatus);
    EXPECT_EQ(status->iState, 0);
    EXPECT_EQ(status->iPid, 0);
    EXPECT_EQ(body->iFlags, 0);
    ObjReleaseInternal(&initial);
    for (int32_t i = 0; i < 3; ++i) sendTo(5, kEarly, ObjIntegerNew(i));
    sendTo(5, PMGR_ATTACH_TO_SHM_MSG, attachBody());
    EXPECT_EQ(nextState(), PROC_STATE_WAITING);
    EXPECT_EQ(nextState(), PROC_STATE_RESTART);
    EXPECT_EQ(nettest::waitChild(child.pid), 0);
    EXPECT_EQ(testhelp::readFile(home() + "/cleanup5"), "A -1 -1\n");
}

// The communication manager gone during the wait: the start fails, with the
// name's trace level applied all the same, and releases with code 1.
TEST_F(ProcInitTest, LostManagerDuringTheWaitFailsTheStart) {
    startManager();
    const Child child = start([] {
        ProcAddCleanupRoutine(note, const_cast<char *>("L"));
        return ProcInitializeTags(-2, PROC_TAG_ID_TEXT, "5", PROC_TAG_NAME, "worker", -1) ? 1 : 0;
    });
    ASSERT_TRUE(ProcSetId(1) && MsgIpcConnect(0));
    go(child);
    MSG_MESSAGE *initial = next(PMGR_PROCESS_INITIAL_STATUS_MSG);
    EXPECT_NE(initial, nullptr);
    ObjReleaseInternal(&initial);
    manager_->kill();
    manager_.reset();
    EXPECT_EQ(nettest::waitChild(child.pid), 0);
    EXPECT_EQ(testhelp::readFile(home() + "/cleanup5"), "L 1 -1\n");
}

// "-5": unmanaged, its pid in the initial status, adopted as the attach's
// destination, and one word to process 5. The process manager itself ("1")
// connects and tells nothing, also when it leaves.
TEST_F(ProcInitTest, WaitingParentHearsOnceAndTheManagerTellsNothing) {
    const std::pair<const char *, std::vector<int32_t>> rows[] = {
        {"-5", {MSG_IPC_CONNECT_MSG, PMGR_PROCESS_INITIAL_STATUS_MSG, PMGR_PROCESS_STATUS_MSG, MSG_CHILD_INITIALIZED_MSG,
                PMGR_PROCESS_STATUS_MSG}},
        {"1", {MSG_IPC_CONNECT_MSG}}};
    for (const auto &[text, expected] : rows) {
        Switch comms(port_);
        const pid_t pid = nettest::child([text] {
            if (!ProcInitializeTags(-2, PROC_TAG_ID_TEXT, text, -1)) return 2;
            ProcRelease(0);
            return 0;
        });
        ASSERT_TRUE(comms.accept());
        std::vector<int32_t> types;
        for (MSG_PACKET *p = nullptr; (p = comms.next()) != nullptr; ObjReleaseInternal(&p)) {
            types.push_back(MsgPacketMsgType(p));
            MSG_MESSAGE *m = nullptr;
            ASSERT_TRUE(MsgMessageFromPacket(&m, p));
            if (m->iType == PMGR_PROCESS_INITIAL_STATUS_MSG) {
                const auto *s = static_cast<const PMGR_PROCESS_STATUS *>(
                    static_cast<const PMGR_PROCESS_INITIAL_STATUS *>(m->oObject)->oStatus);
                EXPECT_EQ(s->iState, 1);
                EXPECT_EQ(s->iPid, pid);
                comms.send(9, PMGR_ATTACH_TO_SHM_MSG, attachBody());
            } else if (m->iType == MSG_CHILD_INITIALIZED_MSG) {
                const auto *c = static_cast<const MSG_CHILD_INITIALIZED *>(m->oObject);
                EXPECT_EQ(MsgGetProcessId(m->oDestination), 5);
                EXPECT_EQ(c->iProcessId, 9);
                EXPECT_EQ(c->iPid, pid);
            }
            ObjReleaseInternal(&m);
        }
        EXPECT_EQ(types, expected) << text;
        EXPECT_EQ(nettest::waitChild(pid), 0) << text;
    }
}

// SIGTERM to a process that waits for a message and to one busy
// allocating: the routines run last added first with the signal as code
// (a second ProcCleanup inside one returns at once), state 4, exit 1.
TEST_F(ProcInitTest, TermRunsTheRoutinesAndEnds) {
    startManager();
    auto term = [](const char *id, bool busy) {
        return [id, busy] {
            ProcAddCleanupRoutine(noteAfterSecondCleanup, const_cast<char *>("A"));
            ProcAddCleanupRoutine(note, const_cast<char *>("B"));
            if (!ProcInitializeTags(-2, PROC_TAG_ID_TEXT, id, -1) || !sendTo(1, kHere, nullptr)) return 2;
            for (MSG_MESSAGE *m = nullptr; !busy;) MsgReceive(&m, nullptr);
            for (int i = 0;; ++i) {
                void *block = MemAllocateFromPool(64 + i % 512, nullptr);
                MemFreeInternal(&block);
                MSG_MESSAGE *m = nullptr;
                if (i % 4096 == 0 && MsgPoll(&m)) ObjReleaseInternal(&m);
            }
        };
    };
    const Child children[] = {start(term("5", false)), start(term("6", true))};
    ASSERT_TRUE(ProcSetId(1) && MsgIpcConnect(0));
    for (const Child &c : children) go(c);
    for (int i = 0; i < 2; ++i) {
        MSG_MESSAGE *initial = next(PMGR_PROCESS_INITIAL_STATUS_MSG);
        ASSERT_NE(initial, nullptr);
        const int32_t id = MsgGetProcessId(initial->oSource);
        sendTo(id, PMGR_ATTACH_TO_SHM_MSG, attachBody(id - 5));
        ObjReleaseInternal(&initial);
    }
    for (int i = 0; i < 2; ++i) {
        MSG_MESSAGE *here = next(kHere);
        ASSERT_NE(here, nullptr);
        ObjReleaseInternal(&here);
    }
    for (const Child &c : children) EXPECT_TRUE(ProcTerminate(c.pid));
    std::vector<int32_t> states;
    for (int i = 0; i < 4; ++i) states.push_back(nextState());
    std::sort(states.begin(), states.end());
    EXPECT_EQ(states, (std::vector<int32_t>{PROC_STATE_BUSY, PROC_STATE_BUSY, PROC_STATE_EXITING, PROC_STATE_EXITING}));
    for (const Child &c : children) EXPECT_EQ(nettest::waitChild(c.pid), 1);
    for (const char *id : {"5", "6"})
        EXPECT_EQ(testhelp::readFile(home() + "/cleanup" + id), "B 15 -1\nA 15 -1\n") << id;
}

} // namespace
