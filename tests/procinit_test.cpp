// Start-up and exit of a managed process, in children of the test: the id
// text, the conversation with the real communication manager while the
// test plays the process manager (or, for a process the manager did not
// start, both managers on the comms port), early messages, SIGTERM and the
// cleanup routines.
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
// the process id; the second runs a second ProcCleanup, which must return.
void note(void *user, int32_t code) {
    std::ofstream(gHome + "/cleanup" + std::to_string(ProcGetId()), std::ios::app)
        << static_cast<const char *>(user) << " " << code << " " << TraceSetLevel(-2) << "\n";
}
void noteAfterCleanup(void *user, int32_t code) { ProcCleanup(0), note(user, code); }

// Sends body, which it then releases.
bool sendTo(int32_t id, int32_t type, void *body) {
    const bool sent = testhelp::sendTo(id, type, body);
    return ObjReleaseInternal(&body), sent;
}
MSG_MESSAGE *next(int32_t type) { return testhelp::nextMessage(type, -1, 20); }
int32_t nextState() { // -2: none came
    MSG_MESSAGE *m = next(PMGR_PROCESS_STATUS_MSG);
    const int32_t state = m != nullptr ? static_cast<PMGR_PROCESS_STATUS *>(m->oObject)->iState : -2;
    return ObjReleaseInternal(&m), state;
}
bool ready(int32_t socket, int milliseconds) {
    pollfd entry{socket, POLLIN, 0};
    return poll(&entry, 1, milliseconds) == 1;
}

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
        testsupport::writeMachineSettings(home(), port_ = testsupport::freePort());
    }
    void TearDown() override {
        if (segment_ != -1) ShmFree(&segment_);
        if (manager_ != nullptr) {
            EXPECT_TRUE(manager_->stop());
        }
        testhelp::resetMessaging();
        LibraryTest::TearDown();
    }
    // The real communication manager with the test as process 1, and
    // children that let go of the test's channels.
    template <typename... Body> std::vector<pid_t> underManagers(Body... bodies) {
        manager_ = std::make_unique<testsupport::Daemon>(home(), "fhcmgr", std::vector<std::string>{"2"});
        EXPECT_TRUE(ProcSetId(1) && MsgIpcConnect(0));
        return {
            nettest::child([bodies] { return testhelp::resetMessaging(), bodies(); })...};
    }
    // An attach for entry index of a segment laid out as a manager lays it:
    // the time area at 256, entries from 1024 titled "worker", rings of 4096.
    PMGR_ATTACH_TO_UNIX_SHM *attachBody(int32_t index = 0) {
        void *base = nullptr;
        EXPECT_TRUE((segment_ != -1 || ShmAllocate(&segment_, 32768)) && ShmAttach(&base, segment_));
        const int32_t entry = 1024 + 8192 * index, ring = 4096;
        strcpy(static_cast<char *>(base) + entry, "worker");
        memcpy(static_cast<char *>(base) + entry + 104, &ring, 4);
        ShmDetach(&base);
        auto *body = testhelp::newObject<PMGR_ATTACH_TO_UNIX_SHM>(PMGR_ATTACH_TO_UNIX_SHM_MAGIC,
                                                                   PMGR_ATTACH_TO_UNIX_SHM_FORMAT);
        return *body = {segment_, segment_, entry, 0, 256}, body;
    }
    // Answers the next initial status with early kEarly messages and an
    // attach (entry by process id); its status body, the flags in iReserved.
    PMGR_PROCESS_STATUS attachNext(int32_t early = 0, bool attach = true) {
        MSG_MESSAGE *initial = next(PMGR_PROCESS_INITIAL_STATUS_MSG);
        if (initial == nullptr) return {-2, 0, 0, 0, 0, 0};
        const auto *body = static_cast<const PMGR_PROCESS_INITIAL_STATUS *>(initial->oObject);
        PMGR_PROCESS_STATUS status = *static_cast<const PMGR_PROCESS_STATUS *>(body->oStatus);
        status.iReserved = body->iFlags;
        const int32_t id = MsgGetProcessId(initial->oSource);
        for (int32_t i = 0; i < early; ++i) sendTo(id, kEarly, ObjIntegerNew(i));
        if (attach) sendTo(id, PMGR_ATTACH_TO_SHM_MSG, attachBody(id - 5));
        return ObjReleaseInternal(&initial), status;
    }
    int32_t listenAtComms() const {
        int32_t listener = -1;
        const NetAddressT at = nettest::loopback(port_);
        EXPECT_TRUE(NetOpen(&listener, NET_SOCKET_STREAM) && NetBind(listener, &at) && NetListen(listener, 8));
        return listener;
    }

    int port_ = 0;
    int32_t segment_ = -1;
    std::unique_ptr<testsupport::Daemon> manager_;
};

// A text that is not a number alone fails before any connection: the comms
// port listens, and nobody comes.
TEST_F(ProcInitTest, IdTextIsANumberAlone) {
    const std::tuple<const char *, bool, int32_t> rows[] = {
        {"5", true, 5},   {"-5", true, -5},    {" 7", true, 7},          {"12x", false, 0},        {"", false, 0},
        {"5 ", false, 0}, {nullptr, false, 0}, {"2147483648", false, 0}, {"-2147483648", false, 0}};
    for (const auto &[text, ok, expected] : rows) {
        int32_t id = 0;
        EXPECT_EQ(fh::procScanId(text, &id), ok) << (text ? text : "null");
        EXPECT_EQ(id, expected);
    }
    int32_t listener = listenAtComms();
    for (const char *text : {"12x", ""}) {
        const pid_t pid = nettest::child([text] {
            ProcAddCleanupRoutine(note, const_cast<char *>("F"));
            return ProcInitializeTags(-2, PROC_TAG_ID_TEXT, text, PROC_TAG_TRACE_LEVEL, 1, -1) ? 1 : 0;
        });
        EXPECT_EQ(nettest::waitChild(pid), 0) << text;
    }
    EXPECT_FALSE(ready(listener, 0));
    EXPECT_EQ(testhelp::readFile(home() + "/cleanup0"), "F 1 3\nF 1 3\n");
    NetClose(&listener);
}

// Started with "5": its initial status, early messages delivered after the
// start in their order, the name from the entry with its trace level, the
// first state, state 6 from ProcRelease(-1).
TEST_F(ProcInitTest, ManagedStartKeepsEarlyMessagesInOrder) {
    const std::vector<pid_t> child = underManagers([] {
        ProcAddCleanupRoutine(note, const_cast<char *>("A"));
        if (!ProcInitializeTags(-2, PROC_TAG_ID_TEXT, "5", PROC_TAG_READY, TRUE, -1)) return 2;
        if (ProcGetId() != 5 || strcmp(ProcName(), "worker") != 0) return 3;
        for (int32_t i = 0; i < 3; ++i) {
            MSG_MESSAGE *m = next(kEarly);
            const bool inOrder = m != nullptr && ObjGetInteger(m->oObject) == i;
            if (ObjReleaseInternal(&m), !inOrder) return 4 + i;
        }
        return ProcRelease(-1), 0;
    });
    const PMGR_PROCESS_STATUS status = attachNext(3);
    EXPECT_TRUE(status.iState == 0 && status.iPid == 0 && status.iReserved == 0); // flags: no new style tasks
    EXPECT_EQ(nextState(), PROC_STATE_WAITING);
    EXPECT_EQ(nextState(), PROC_STATE_RESTART);
    EXPECT_EQ(nettest::waitChild(child[0]), 0);
    EXPECT_EQ(testhelp::readFile(home() + "/cleanup5"), "A -1 -1\n");
}

// The communication manager gone during the wait: the start fails, with the
// name's trace level applied all the same, and releases with code 1.
TEST_F(ProcInitTest, LostManagerDuringTheWaitFailsTheStart) {
    const std::vector<pid_t> child = underManagers([] {
        ProcAddCleanupRoutine(note, const_cast<char *>("L"));
        return ProcInitializeTags(-2, PROC_TAG_ID_TEXT, "5", PROC_TAG_NAME, "worker", -1) ? 1 : 0;
    });
    EXPECT_EQ(attachNext(0, false).iState, 0);
    manager_->kill();
    manager_.reset();
    EXPECT_EQ(nettest::waitChild(child[0]), 0);
    EXPECT_EQ(testhelp::readFile(home() + "/cleanup5"), "L 1 -1\n");
}

// "-5", with the test as both managers: unmanaged, its pid in the initial
// status, adopted as the attach's destination, one word to process 5. The
// process manager itself ("1") connects and tells nothing, also at the end.
TEST_F(ProcInitTest, WaitingParentHearsOnceAndTheManagerTellsNothing) {
    const std::pair<const char *, std::vector<int32_t>> rows[] = {
        {"-5",
         {MSG_IPC_CONNECT_MSG, PMGR_PROCESS_INITIAL_STATUS_MSG, PMGR_PROCESS_STATUS_MSG, MSG_CHILD_INITIALIZED_MSG,
          PMGR_PROCESS_STATUS_MSG}},
        {"1", {MSG_IPC_CONNECT_MSG}}};
    for (const auto &[text, expected] : rows) {
        int32_t listener = listenAtComms(), socket = -1;
        const pid_t pid = nettest::child(
            [text] { return ProcInitializeTags(-2, PROC_TAG_ID_TEXT, text, -1) ? (ProcRelease(0), 0) : 2; });
        MSG_CHANNEL *client = nullptr;
        ASSERT_TRUE(ready(listener, 10000) && NetAccept(&socket, listener, nullptr) == NET_ERROR_NONE &&
                    MsgChannelCreateInternal(&client, socket, nullptr, FALSE, FALSE, TRUE, FALSE, TRUE));
        std::vector<int32_t> types;
        for (MSG_PACKET *p = nullptr; !MsgChannelIsDown(client) && ready(client->iSocket, 10000); p = nullptr) {
            MSG_MESSAGE *m = nullptr;
            if (!MsgChannelReceiveData(&p, client) || !MsgMessageFromPacket(&m, p)) continue;
            types.push_back(m->iType);
            if (m->iType == PMGR_PROCESS_INITIAL_STATUS_MSG) {
                const auto *s = static_cast<const PMGR_PROCESS_STATUS *>(
                    static_cast<const PMGR_PROCESS_INITIAL_STATUS *>(m->oObject)->oStatus);
                EXPECT_TRUE(s->iState == 1 && s->iPid == pid);
                MSG_ADDRESS *to = testhelp::localAddress(9);
                MSG_PACKET *attach = nullptr;
                void *body = attachBody();
                if (MsgCreatePacket(&attach, to, MsgProcMgrAddress(), PMGR_ATTACH_TO_SHM_MSG, body))
                    MsgChannelDispatch(client, &attach);
                testhelp::release({to, body});
            } else if (m->iType == MSG_CHILD_INITIALIZED_MSG) {
                const auto *c = static_cast<const MSG_CHILD_INITIALIZED *>(m->oObject);
                EXPECT_TRUE(MsgGetProcessId(m->oDestination) == 5 && c->iProcessId == 9 && c->iPid == pid);
            }
            ObjReleaseInternal(&m), ObjReleaseInternal(&p);
        }
        EXPECT_EQ(types, expected) << text;
        EXPECT_EQ(nettest::waitChild(pid), 0) << text;
        ObjReleaseInternal(&client), NetClose(&listener);
    }
}

// SIGTERM to a process that waits for a message and to one busy
// allocating: the routines run last added first with the signal as code,
// state 4, exit 1.
TEST_F(ProcInitTest, TermRunsTheRoutinesAndEnds) {
    auto term = [](const char *id, bool busy) {
        return [id, busy] {
            ProcAddCleanupRoutine(noteAfterCleanup, const_cast<char *>("A"));
            ProcAddCleanupRoutine(note, const_cast<char *>("B"));
            if (!ProcInitializeTags(-2, PROC_TAG_ID_TEXT, id, -1) || !sendTo(1, kHere, nullptr)) return 2;
            for (MSG_MESSAGE *m = nullptr; !busy;) MsgReceive(&m, nullptr);
            for (int i = 0;; ++i) { // into the receive layer now and then
                void *block = MemAllocateFromPool(64 + i % 512, nullptr);
                MemFreeInternal(&block);
                MSG_MESSAGE *m = nullptr;
                if (i % 4096 == 0 && MsgPoll(&m)) ObjReleaseInternal(&m);
            }
        };
    };
    const std::vector<pid_t> children = underManagers(term("5", false), term("6", true));
    for (int i = 0; i < 2; ++i) EXPECT_EQ(attachNext().iState, 0);
    for (int i = 0; i < 2; ++i) ASSERT_TRUE(testhelp::heard(kHere, 5 + i, 20));
    for (const pid_t c : children) EXPECT_TRUE(ProcTerminate(c));
    std::vector<int32_t> states;
    for (int i = 0; i < 4; ++i) states.push_back(nextState());
    std::sort(states.begin(), states.end());
    EXPECT_EQ(states, (std::vector<int32_t>{PROC_STATE_BUSY, PROC_STATE_BUSY, PROC_STATE_EXITING, PROC_STATE_EXITING}));
    for (const pid_t c : children) EXPECT_EQ(nettest::waitChild(c), 1);
    for (const char *id : {"5", "6"})
        EXPECT_EQ(testhelp::readFile(home() + "/cleanup" + id), "B 15 -1\nA 15 -1\n") << id;
}

} // namespace
