// Messages between processes through the real communication manager: a
// long exchange both ways, news of deaths and lost machines injected as
// raw images by a helper process and what the receiving side makes of
// them, and the loss of the manager itself.
#include <sys/stat.h>

#include <fstream>

#include "core/msgreceive.h"
#include "daemon.h"
#include "messages/msgcmgr.h"
#include "messages/msgmsg.h"
#include "messages/msgnmgr.h"
#include "messages/msgpmgr.h"
#include "msgchannel.h"
#include "net_support.h"

namespace {

using testsupport::Daemon;

constexpr int32_t kData = 50010;   // an application's message of bytes
constexpr int32_t kInject = 50011; // asks the helper to send one set of news
constexpr int32_t kTest = 41, kHelper = 42, kPeer = 43;

using nettest::join;
MSG_ADDRESS *address(const char *machine, int32_t id) {
    MSG_ADDRESS *a = nullptr;
    MsgCreateAddress(&a, machine != nullptr ? machine : SysLocalMachineName(), id);
    return a;
}
using nettest::sendTo;
// Whether the manager is gone (the search for a message would end at once).
bool lost() {
    return MsgWalkReceiveList(
               [](void *, LISTNODE *node) -> int32_t { return MsgPacketMsgType(node->oItem) != MSG_LOST_RECEIVE_QUEUE_MSG; },
               nullptr) == FALSE;
}
// The next message of type from anyone within seconds.
MSG_MESSAGE *next(int32_t type, int seconds = 10) {
    TIME_TIMEOUT until{};
    TIME_OFFSET span{seconds, 0};
    TimeSetTimeoutFromOffset(&until, &span);
    MSG_MESSAGE *m = nullptr;
    while (!MsgReceiveMsgTypeFromAddress(&m, type, nullptr, &until) && !TimeTimeoutHasExpired(&until) && !lost()) {}
    return m;
}
// Until id has joined: kInject 0 goes to it, and it answers with the
// same (answer()); each attempt ends with that or the manager's word
// that id is unknown.
bool reach(int32_t id) {
    OBJ_INTEGER *hello = ObjIntegerNew(0);
    bool reached = false, unknown = false;
    for (int attempt = 0; attempt < 200 && !reached; ++attempt) {
        sendTo(id, kInject, hello);
        unknown = false;
        for (MSG_MESSAGE *any = nullptr; !reached && !unknown && (any = next(0, 5)) != nullptr;
             ObjReleaseInternal(&any)) {
            reached = any->iType == kInject;
            unknown = any->iType == CMGR_PROCESS_UNREACHABLE_MSG;
        }
        if (unknown) fh::msgSelectPass(20);
    }
    ObjReleaseInternal(&hello);
    return reached;
}
bool answer() {
    MSG_MESSAGE *hello = next(kInject, 20);
    const bool answered = hello != nullptr && ObjGetInteger(hello->oObject) == 0 && sendTo(kTest, kInject, hello->oObject);
    ObjReleaseInternal(&hello);
    return answered;
}
// The types on the receive list, after passes for a short while.
std::vector<int32_t> settle(size_t atLeast) {
    for (int i = 0; i < 400 && MsgReceiveCount() < static_cast<int32_t>(atLeast); ++i) fh::msgSelectPass(10);
    std::vector<int32_t> types;
    for (MSG_PACKET *p = nullptr; MsgReceivePopPacket(&p); ObjReleaseInternal(&p))
        types.push_back(MsgPacketMsgType(p));
    return types;
}

class ManagerTest : public LibraryTest {
protected:
    void SetUp() override {
        LibraryTest::SetUp();
        mkdir((home() + "/etc").c_str(), 0755);
        std::ofstream(home() + "/etc/machines.dat") << "[remote1]\nId=5\n";
        port_ = testsupport::freePort();
        testsupport::writeMachineSettings(home(), port_);
        manager_ = std::make_unique<Daemon>(home(), "fhcmgr", std::vector<std::string>{"2"});
        ASSERT_EQ(manager_->readyLine(), "fhcmgr ready on port " + std::to_string(port_));
    }
    void TearDown() override {
        EXPECT_TRUE(manager_ == nullptr || manager_->stop());
        nettest::leaveManager();
        LibraryTest::TearDown();
    }

    int port_ = 0;
    std::unique_ptr<Daemon> manager_;
};

// ---- A long exchange ----

constexpr int kEach = 5000;

int32_t sizeOf(int i) { return i % 100 == 0 ? (1 << 20) : (i * 37) % 2000; }
unsigned char byteOf(int i, int32_t k) { return static_cast<unsigned char>(i * 31 + k); }

OBJ_DATA_FIELD *dataOf(int i) {
    std::vector<unsigned char> bytes(static_cast<size_t>(sizeOf(i)));
    for (size_t k = 0; k < bytes.size(); ++k) bytes[k] = byteOf(i, static_cast<int32_t>(k));
    return ObjDataFieldNew(bytes.data(), static_cast<int32_t>(bytes.size()));
}

bool intact(const MSG_MESSAGE *m, int i) {
    const auto *d = static_cast<const OBJ_DATA_FIELD *>(m->oObject);
    if (m->iType != kData || d == nullptr || d->oData.iSize != sizeOf(i)) return false;
    for (int32_t k = 0; k < d->oData.iSize; ++k)
        if (static_cast<const unsigned char *>(d->oData.pData)[k] != byteOf(i, k)) return false;
    return true;
}

// Sends kEach messages to peer while taking kEach from it; the count of
// those that came in order and intact.
int exchange(int32_t peer) {
    int sent = 0, good = 0, got = 0;
    const TIME_TIMEOUT brief{0, 0};
    while (got < kEach) {
        if (sent < kEach) {
            OBJ_DATA_FIELD *d = dataOf(sent);
            const bool ok = sendTo(peer, kData, d) || true;
            ObjReleaseInternal(&d);
            sent += ok;
        }
        MSG_MESSAGE *m = nullptr;
        TIME_TIMEOUT wait{};
        const TIME_OFFSET span{1, 0};
        TimeSetTimeoutFromOffset(&wait, &span);
        if (MsgReceive(&m, sent < kEach ? &brief : &wait)) {
            if (m->iType == MSG_LOST_RECEIVE_QUEUE_MSG || m->iType == MSG_LOST_SEND_QUEUE_MSG) return -1;
            good += intact(m, got++);
        } else if (sent >= kEach && TimeTimeoutHasExpired(&wait)) {
            return good; // a second with nothing: something was lost
        }
        ObjReleaseInternal(&m);
    }
    return good;
}

// Ten thousand messages of 0 bytes to 1 MiB, five thousand each way at
// once, all arrive in their order and intact.
TEST_F(ManagerTest, ExchangeBothWaysKeepsOrderAndBytes) {
    const pid_t peer = nettest::child([] {
        if (!join(kPeer) || !answer()) return 3;
        const int good = exchange(kTest);
        // Its sockets reset on close: it stays until the test has it all.
        MSG_MESSAGE *done = next(kInject, 20);
        ObjReleaseInternal(&done);
        return good == kEach ? 0 : 4;
    });
    ASSERT_TRUE(join(kTest));
    ASSERT_TRUE(reach(kPeer));
    EXPECT_EQ(exchange(kPeer), kEach);
    sendTo(kPeer, kInject, nullptr);
    EXPECT_EQ(nettest::waitChild(peer), 0);
}

// ---- News from elsewhere ----

// The address of service "svc" on remote1.
PROC_ADDRESS *remoteService() {
    auto *service = static_cast<PROC_ADDRESS *>(
        ObjNewInternal(sizeof(PROC_ADDRESS), PROC_ADDRESS_MAGIC, PROC_ADDRESS_FORMAT, nullptr, nullptr));
    service->pszMachine = StrDuplicateIntoPool("remote1", nullptr);
    service->pszProcess = StrDuplicateIntoPool("svc", nullptr);
    return service;
}

// The helper joins as kHelper and, for each kInject it gets, sends to
// kTest the images of that set as the managers would, from their ids.
int injector() {
    if (!join(kHelper) || !answer()) return 3;
    for (;;) {
        MSG_MESSAGE *ask = next(kInject, 20);
        if (ask == nullptr) return 0;
        const int set = ObjGetInteger(ask->oObject);
        ObjReleaseInternal(&ask);
        MSG_ADDRESS *to = address(nullptr, kTest), *watched = address(nullptr, 50);
        auto send = [&](int32_t fromId, int32_t type, void *body) {
            MSG_ADDRESS *from = address(nullptr, fromId);
            MSG_PACKET *p = nullptr;
            if (MsgCreatePacket(&p, to, from, type, body)) MsgDispatch(&p);
            ObjReleaseInternal(&from);
            ObjReleaseInternal(&body);
        };
        auto one = [](uint32_t magic, const char *format, int32_t size, void *first) {
            auto *body = static_cast<void **>(ObjNewInternal(size, magic, format, nullptr, nullptr));
            if ((body[0] = first) != nullptr) ObjIncRefCount(first);
            return static_cast<void *>(body);
        };
        if (set == 1) {
            send(MSG_PROCESS_PROCMGR, PMGR_PROCESS_DIED_MSG,
                 one(PMGR_PROCESS_DIED_MAGIC, PMGR_PROCESS_DIED_FORMAT, sizeof(PMGR_PROCESS_DIED), watched));
        } else if (set == 2) {
            send(MSG_PROCESS_COMMMGR, CMGR_PROCESS_UNREACHABLE_MSG,
                 one(CMGR_PROCESS_UNREACHABLE_MAGIC, CMGR_PROCESS_UNREACHABLE_FORMAT,
                     sizeof(CMGR_PROCESS_UNREACHABLE), watched));
        } else if (set == 3) {
            auto *down = static_cast<CMGR_MACHINE_DOWN *>(ObjNewInternal(
                sizeof(CMGR_MACHINE_DOWN), CMGR_MACHINE_DOWN_MAGIC, CMGR_MACHINE_DOWN_FORMAT, nullptr, nullptr));
            down->pszMachine = StrDuplicateIntoPool("REMOTE1", nullptr);
            send(MSG_PROCESS_COMMMGR, CMGR_MACHINE_DOWN_MSG, down);
        } else if (set == 4) {
            auto *task = static_cast<PMGR_GIVE_SERVICE_A_TASK *>(ObjNewInternal(
                sizeof(PMGR_GIVE_SERVICE_A_TASK), PMGR_GIVE_SERVICE_A_TASK_MAGIC, PMGR_GIVE_SERVICE_A_TASK_FORMAT,
                nullptr, nullptr));
            task->oService = remoteService();
            task->iUniqueId = 77;
            auto *lost = static_cast<NMGR_MACHINE_UNREACHABLE *>(
                ObjNewInternal(sizeof(NMGR_MACHINE_UNREACHABLE), NMGR_MACHINE_UNREACHABLE_MAGIC,
                               NMGR_MACHINE_UNREACHABLE_FORMAT, nullptr, nullptr));
            lost->iMsgType = PMGR_GIVE_SERVICE_A_TASK_MSG;
            lost->oObject = task;
            send(MSG_PROCESS_NETMGR, NMGR_MACHINE_UNREACHABLE_MSG, lost);
            for (int32_t type : {MSG_KEEP_ALIVE_MSG, MSG_SET_TRACE_FILE_MSG, MSG_LOG_MEMORY_USAGE_MSG})
                send(MSG_PROCESS_COMMMGR, type, nullptr);
            send(MSG_PROCESS_COMMMGR, MSG_SET_TRACE_LEVEL_MSG, ObjIntegerNew(4));
            send(MSG_PROCESS_COMMMGR, kData, nullptr); // a marker: all before it has passed
        }
        ObjReleaseInternal(&to);
        ObjReleaseInternal(&watched);
    }
}

// A data channel to remote (notice on down), and the other end silent.
MSG_CHANNEL *channelTo(nettest::Connection &c, const MSG_ADDRESS *remote) {
    MSG_CHANNEL *near = nullptr, *far = nullptr;
    if (!c.connect() ||
        !MsgChannelCreateInternal(&near, c.server, remote, FALSE, TRUE, FALSE, FALSE, FALSE) ||
        !MsgChannelCreateInternal(&far, c.client, MsgLocalAddress(), FALSE, FALSE, FALSE, FALSE, FALSE))
        return nullptr;
    c.server = c.client = -1;
    ObjReleaseInternal(&far);
    return near;
}

// Each death, unreachable process and machine down takes its channel down
// first and arrives after; a machine down sends, in order, the death of
// each watched process there, the pending task replies with code 9, the
// channel's notice, then itself. An unreachable machine holding a request
// gives a code 17 reply and goes no further, nor do the control messages.
TEST_F(ManagerTest, DeathNewsComesAfterWhatItCaused) {
    const pid_t helper = nettest::child(injector);
    ASSERT_TRUE(join(kTest));
    ASSERT_TRUE(reach(kHelper));
    MSG_ADDRESS *watched = address(nullptr, 50), *far = address("remote1", 60);
    struct Case {
        int set;
        const MSG_ADDRESS *remote;
        std::vector<int32_t> expected;
    };
    const std::vector<Case> cases = {
        {1, watched, {MSG_CHANNEL_DOWN_MSG, PMGR_PROCESS_DIED_MSG}},
        {2, watched, {MSG_CHANNEL_DOWN_MSG, CMGR_PROCESS_UNREACHABLE_MSG}},
        {3, far,
         {PMGR_PROCESS_DIED_MSG, PMGR_GIVE_SERVICE_A_TASK_RETURN_MSG, MSG_CHANNEL_DOWN_MSG, CMGR_MACHINE_DOWN_MSG}},
    };
    for (const Case &k : cases) {
        SCOPED_TRACE(k.set);
        nettest::Connection c;
        MSG_CHANNEL *channel = channelTo(c, k.remote);
        ASSERT_NE(channel, nullptr);
        if (k.set == 3) {
            ASSERT_TRUE(fh::msgNotifyOnDeathAdd(far));
            auto *pending = fh::msgNewTaskReturn(9, 5, nullptr);
            pending->oService = remoteService();
            ListPushLastItemInternal(static_cast<LIST *>(gtLmContext.oMsgPendingTaskList), &pending);
        }
        OBJ_INTEGER *set = ObjIntegerNew(k.set);
        ASSERT_TRUE(sendTo(kHelper, kInject, set));
        ObjReleaseInternal(&set);
        EXPECT_EQ(settle(k.expected.size()), k.expected);
        EXPECT_TRUE(MsgChannelIsDown(channel));
        ObjReleaseInternal(&channel);
    }
    // An unreachable machine with a pending request of id 77.
    OBJ_INTEGER *set = ObjIntegerNew(4);
    sendTo(kHelper, kInject, set);
    ObjReleaseInternal(&set);
    const int32_t level = TraceSetLevel(0);
    MSG_MESSAGE *reply = next(PMGR_GIVE_SERVICE_A_TASK_RETURN_MSG);
    ASSERT_NE(reply, nullptr);
    const auto *r = static_cast<const PMGR_GIVE_SERVICE_A_TASK_RETURN *>(reply->oObject);
    EXPECT_EQ(r->iError, 17);
    EXPECT_EQ(r->iUniqueId, 77);
    EXPECT_TRUE(MsgIsFrom(reply, MsgLocalAddress()));
    ObjReleaseInternal(&reply);
    EXPECT_EQ(settle(1), std::vector<int32_t>{kData}); // the rest went no further
    EXPECT_EQ(TraceSetLevel(level), 4);
    ObjReleaseInternal(&watched);
    ObjReleaseInternal(&far);
    manager_->stop();
    manager_.reset();
    EXPECT_EQ(nettest::waitChild(helper), 0);
}

// The manager gone: the loss of the receive queue, then a send fails and
// queues the loss of the send queue.
TEST_F(ManagerTest, LostManagerIsReportedOnBothQueues) {
    ASSERT_TRUE(join(kTest));
    manager_->kill();
    manager_.reset();
    EXPECT_EQ(settle(1), std::vector<int32_t>{MSG_LOST_RECEIVE_QUEUE_MSG});
    EXPECT_FALSE(sendTo(kHelper, kData, nullptr));
    EXPECT_EQ(settle(1), std::vector<int32_t>{MSG_LOST_SEND_QUEUE_MSG});
}

} // namespace
