// Tests of the task interface: a request that can't leave answers its
// caller once, from the process itself; the texts of the error codes;
// service addresses; and requests in both forms through a real
// communication manager to a child that plays the process manager.
#include <sys/stat.h>

#include "daemon.h"
#include "helpers.h"
#include "msgchannel.h"
#include "net_support.h"

namespace {

constexpr int32_t kTest = 41;
constexpr int32_t kEchoBase = 50000; // the manager echoes a message of type t as kEchoBase + t
constexpr int32_t kDone = 50001;

PROC_ADDRESS *service(const char *machine, const char *name, int32_t interfaceType = 0) {
    PROC_ADDRESS *a = nullptr;
    ProcCreateAddress(&a, machine, name, interfaceType);
    return a;
}

using testhelp::release;
using testhelp::sendTo;

// Each way a request fails before it leaves gives FALSE and exactly one
// failure reply from and to the process itself, with the code, the id and
// the address; a request that a remote machine never got leaves nothing
// pending, so no second answer can follow when that machine goes down.
TEST_F(LibraryTest, TaskThatCannotLeaveRepliesOnceToSelf) {
    mkdir((home() + "/etc").c_str(), 0755);
    testhelp::writeFile(home() + "/etc/machines.dat", "[remote1]\nId=5\n");
    auto *nameless = testhelp::newObject<PROC_ADDRESS>(PROC_ADDRESS_MAGIC, PROC_ADDRESS_FORMAT);
    PROC_ADDRESS *unknown = service("nosuch", "svc"), *remote = service("remote1", "svc");
    const std::pair<void *, int32_t> cases[] = {{nullptr, 7}, {nameless, 7}, {unknown, 18}, {remote, 19}};
    int32_t id = 100;
    for (const auto &[address, code] : cases) {
        EXPECT_FALSE(ProcGiveServiceATask(address, "a", "b", FALSE, nullptr, ++id));
        std::vector<int32_t> replies;
        for (MSG_PACKET *p = nullptr; MsgReceivePopPacket(&p); ObjReleaseInternal(&p)) {
            MSG_MESSAGE *m = nullptr;
            if (MsgPacketMsgType(p) != PMGR_GIVE_SERVICE_A_TASK_RETURN_MSG || !MsgMessageFromPacket(&m, p)) continue;
            const auto *r = static_cast<const PMGR_GIVE_SERVICE_A_TASK_RETURN *>(m->oObject);
            EXPECT_TRUE(MsgIsFrom(m, MsgLocalAddress()) && !r->bTaken && r->iUniqueId == id);
            EXPECT_TRUE(address == nullptr ? r->oService == nullptr : ProcAddressEqual(r->oService, address));
            replies.push_back(r->iError);
            ObjReleaseInternal(&m);
        }
        EXPECT_EQ(replies, std::vector<int32_t>{code});
        EXPECT_EQ(static_cast<LIST *>(gtLmContext.oMsgPendingTaskList)->iCount, 0);
    }
    release({nameless, unknown, remote});
}

TEST_F(LibraryTest, ErrorStringsAndTheirFallback) {
    const std::pair<int32_t, const char *> cases[] = {
        {0, "No Error"}, {-1, "Unknown Error"}, {21, "A plugin died unexpectedly"}, {22, "Unknown Error - 22"},
        {-2, "Unknown Error - -2"}};
    for (const auto &[code, text] : cases) EXPECT_STREQ(ProcErrorString(code), text) << code;
    EXPECT_EQ(ProcErrorString(100), ProcErrorString(-100)); // one static buffer
}

// The interface type is the low byte, signed; equality ignores the case of
// both names but not the interface type.
TEST_F(LibraryTest, ServiceAddresses) {
    PROC_ADDRESS *none = nullptr;
    EXPECT_FALSE(ProcCreateAddress(&none, nullptr, "svc", 0) || ProcCreateAddress(&none, "m", nullptr, 0));
    PROC_ADDRESS *a = service("Mach", "Svc", 0x101), *b = service("mACH", "sVC", 1), *c = service("mach", "svc", 0x1FF);
    EXPECT_TRUE(ProcAddressEqual(a, b) && !ProcAddressEqual(a, c));
    EXPECT_EQ(ProcGetInterfaceTypeFromAddress(c), -1);
    c->iInterfaceType = 0x80;
    EXPECT_EQ(ProcGetInterfaceTypeFromAddress(c), -128);
    OBJ_INTEGER *other = ObjIntegerNew(0x101); // an object, but not an address
    EXPECT_EQ(ProcGetInterfaceTypeFromAddress(other), -1);
    release({a, b, c, other});
}

// A template that can't be made stops the ladder with its own report
// before the module's code.
TEST(ProcApiStart, EachTemplateFailureIsReported) {
    for (int32_t code : {45, 46, 47, 48}) {
        fh::procApiFailTemplate(code);
        testing::internal::CaptureStdout();
        EXPECT_FALSE(ContextInitialize());
        EXPECT_EQ(testing::internal::GetCapturedStdout(), "ProcAPI " + std::to_string(code) + "\n445\n");
    }
    fh::procApiFailTemplate(0);
    EXPECT_TRUE(ContextInitialize());
}

// ---- Through the communication manager ----

MSG_MESSAGE *next(int32_t type, int seconds = 10) { return testhelp::nextMessage(type, -1, seconds); }

// The child's side: this machine's process manager as far as tasks go. It
// echoes each message to the test and takes each task.
int playProcessManager(const testhelp::Gate &ready) {
    if (!ProcSetId(MSG_PROCESS_PROCMGR) || !MsgIpcConnect(0) || !ready.open()) return 3;
    for (MSG_MESSAGE *m = nullptr; (m = next(0, 20)) != nullptr && m->iType != kDone; ObjReleaseInternal(&m)) {
        sendTo(kTest, kEchoBase + m->iType, m->oObject);
        if (m->iType == PMGR_GIVE_SERVICE_A_TASK_MSG) {
            const auto *task = static_cast<const PMGR_GIVE_SERVICE_A_TASK *>(m->oObject);
            PMGR_GIVE_SERVICE_A_TASK_RETURN *taken = fh::msgNewTaskReturn(0, task->iUniqueId, task->oService);
            taken->bTaken = TRUE;
            ObjIncRefCount(taken->oTakenBy = MsgLocalAddress());
            MsgSendReply(m, PMGR_GIVE_SERVICE_A_TASK_RETURN_MSG, taken);
            ObjReleaseInternal(&taken);
        }
    }
    return 0;
}

class TaskTripTest : public LibraryTest {
protected:
    void SetUp() override {
        LibraryTest::SetUp();
        testsupport::writeMachineSettings(home(), testsupport::freePort());
        manager_ = std::make_unique<testsupport::Daemon>(home(), "fhcmgr", std::vector<std::string>{"2"});
        ASSERT_EQ(manager_->readyLine().rfind("fhcmgr ready", 0), 0u);
        const testhelp::Gate ready;
        child_ = nettest::child([&] { return playProcessManager(ready); });
        ASSERT_TRUE(ready.pass(10000));
        ASSERT_TRUE(ProcSetId(kTest) && MsgIpcConnect(0));
    }
    void TearDown() override {
        sendTo(MSG_PROCESS_PROCMGR, kDone, nullptr);
        EXPECT_EQ(nettest::waitChild(child_), 0);
        EXPECT_TRUE(manager_->stop());
        testhelp::resetMessaging();
        TaskSetTaskContext(nullptr);
        LibraryTest::TearDown();
    }
    // The request as the manager got it (the caller's reference), once the
    // reply that it was taken has come.
    template <typename T> T *trip(int32_t id, uint32_t magic, const char *format) {
        MSG_MESSAGE *echo = next(kEchoBase + PMGR_GIVE_SERVICE_A_TASK_MSG), *reply = next(PMGR_GIVE_SERVICE_A_TASK_RETURN_MSG);
        const auto *r = reply != nullptr ? static_cast<PMGR_GIVE_SERVICE_A_TASK_RETURN *>(reply->oObject) : nullptr;
        EXPECT_TRUE(r != nullptr && r->bTaken && r->iUniqueId == id && MsgGetProcessId(r->oTakenBy) == 1);
        T *request = echo != nullptr ? fh::objectShaped<T>(echo->oObject, magic, format) : nullptr;
        if (request != nullptr) ObjIncRefCount(request);
        release({echo, reply});
        return request;
    }
    pid_t child_ = -1;
    std::unique_ptr<testsupport::Daemon> manager_;
};

// The plain form carries what the caller gave; a failed request uses its
// id up, so the next success has an id two above the last.
TEST_F(TaskTripTest, PlainTaskRoundTripAndIds) {
    PROC_ADDRESS *svc = service(SysLocalMachineName(), "svc", 3);
    OBJ_STRING *job = ObjStringNew("job");
    int32_t id = 0, unused = -5;
    ASSERT_TRUE(ProcGiveServiceATaskWithID(&id, svc, "first", "second", TRUE, job));
    auto *request = trip<PMGR_GIVE_SERVICE_A_TASK>(id, PMGR_GIVE_SERVICE_A_TASK_MAGIC, PMGR_GIVE_SERVICE_A_TASK_FORMAT);
    ASSERT_NE(request, nullptr);
    EXPECT_TRUE(ProcAddressEqual(request->oService, svc) && request->bConnectBack && request->iSecurityCookie == -1);
    EXPECT_EQ(std::string(request->pszFirstText) + request->pszSecondText + ObjGetString(request->oTaskObject),
              "firstsecondjob");
    EXPECT_FALSE(ProcGiveServiceATaskWithID(&unused, nullptr, nullptr, nullptr, FALSE, nullptr));
    MSG_MESSAGE *failed = next(PMGR_GIVE_SERVICE_A_TASK_RETURN_MSG);
    EXPECT_TRUE(failed != nullptr && static_cast<PMGR_GIVE_SERVICE_A_TASK_RETURN *>(failed->oObject)->iUniqueId == id + 1);
    ObjReleaseInternal(&failed);
    const int32_t last = id;
    ASSERT_TRUE(ProcGiveServiceATaskWithID(&id, svc, nullptr, nullptr, FALSE, nullptr));
    EXPECT_TRUE(unused == -5 && id == last + 2);
    release({request, trip<void>(id, PMGR_GIVE_SERVICE_A_TASK_MAGIC, PMGR_GIVE_SERVICE_A_TASK_FORMAT)});
    release({svc, job});
}

// To a machine of version 7 the request carries a task context: a copy of
// the current one with the context object set in it (the current one
// unchanged), the current one itself, or a new one.
TEST_F(TaskTripTest, ExtendedTaskCarriesContext) {
    testhelp::writeFile(home() + "/config/version.cfg", "[Details]\nLMVersion=7005\n");
    PROC_ADDRESS *svc = service(SysLocalMachineName(), "svc");
    OBJ_STRING *kept = ObjStringNew("kept");
    OBJ_INTEGER *added = ObjIntegerNew(5);
    TASK_CONTEXT *current = nullptr;
    ASSERT_TRUE(TaskCreateContext(&current) && TaskSetContextObject(current, kept));
    const std::tuple<TASK_CONTEXT *, void *, std::vector<uint32_t>> cases[] = {
        {current, added, {OBJ_STRING_MAGIC, OBJ_INTEGER_MAGIC}},
        {current, nullptr, {OBJ_STRING_MAGIC}},
        {nullptr, added, {OBJ_INTEGER_MAGIC}},
        {nullptr, nullptr, {}}};
    int32_t id = 200;
    for (const auto &[now, contextObject, expected] : cases) {
        TaskSetTaskContext(now);
        ASSERT_TRUE(ProcGiveServiceATaskExt(svc, "a", "b", FALSE, nullptr, ++id, contextObject));
        auto *request = trip<PMGR_GIVE_SERVICE_A_TASK_EXT>(id, PMGR_GIVE_SERVICE_A_TASK_EXT_MAGIC,
                                                          PMGR_GIVE_SERVICE_A_TASK_EXT_FORMAT);
        ASSERT_TRUE(request != nullptr && request->oTaskContext != nullptr);
        std::vector<uint32_t> carried;
        for (uint32_t magic : {OBJ_STRING_MAGIC, OBJ_INTEGER_MAGIC}) {
            void *found = nullptr;
            if (TaskGetContextObject(&found, static_cast<TASK_CONTEXT *>(request->oTaskContext), magic))
                carried.push_back(magic);
            ObjReleaseInternal(&found);
        }
        EXPECT_EQ(carried, expected) << id;
        EXPECT_EQ(current->oObjects->iCount, 1);
        ObjReleaseInternal(&request);
    }
    release({svc, kept, added, current});
}

} // namespace
