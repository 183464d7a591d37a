// The communication manager, started as a daemon: images routed by process
// id between processes, news of an id nobody has, a client that sends
// garbage or stops reading taken down while the others go on, and the loss
// of the manager reported in every client.
#include <chrono>
#include <thread>

#include "daemon.h"
#include "messages/msgcmgr.h"
#include "messages/msgmsg.h"
#include "messages/msgtimer.h"
#include "msgchannel.h"
#include "net_support.h"

namespace {

using nettest::await;
using nettest::join;
using nettest::sendTo;
using testsupport::Daemon;

class CmgrTest : public LibraryTest {
protected:
    void SetUp() override {
        LibraryTest::SetUp();
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
    // A child that joins as id and answers one ping with a pong; its exit
    // status tells whether it did.
    static pid_t echo(int32_t id) {
        return nettest::child([id] {
            if (!join(id)) return 3;
            MSG_PACKET *ping = nullptr;
            if (await({MSG_PING_MSG}, 8000, &ping) != MSG_PING_MSG) return 4;
            const int32_t from = fh::msgGetLe32(static_cast<unsigned char *>(ping->oImage.pData) + 12);
            ObjReleaseInternal(&ping);
            return sendTo(from, MSG_PONG_MSG) && await({MSG_LOST_RECEIVE_QUEUE_MSG}, 8000) != 0 ? 0 : 5;
        });
    }
    // Pings id until it answers (it may join later than this process).
    static bool reach(int32_t id) {
        for (int attempt = 0; attempt < 100; ++attempt) {
            if (!sendTo(id, MSG_PING_MSG)) return false;
            if (await({MSG_PONG_MSG, CMGR_PROCESS_UNREACHABLE_MSG}, 1000) == MSG_PONG_MSG) return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        return false;
    }

    int port_ = 0;
    std::unique_ptr<Daemon> manager_;
};

// Images go by id between processes; an id that nobody has brings the
// sender CMGR_PROCESS_UNREACHABLE_MSG naming it; the manager killed, every
// client queues MSG_LOST_RECEIVE_QUEUE_MSG.
TEST_F(CmgrTest, RoutesByIdAndReportsWhatItCannot) {
    const pid_t other = echo(20);
    ASSERT_TRUE(join(21));
    EXPECT_TRUE(reach(20));

    ASSERT_TRUE(sendTo(99, MSG_KEEP_ALIVE_MSG));
    MSG_PACKET *news = nullptr;
    ASSERT_EQ(await({CMGR_PROCESS_UNREACHABLE_MSG}, 5000, &news), CMGR_PROCESS_UNREACHABLE_MSG);
    const nettest::Body body(news, CMGR_PROCESS_UNREACHABLE_MAGIC);
    const auto *unreachable = body.as<CMGR_PROCESS_UNREACHABLE>();
    ASSERT_NE(unreachable, nullptr);
    EXPECT_EQ(MsgGetProcessId(unreachable->oAddress), 99);
    EXPECT_EQ(unreachable->iMsgType, MSG_KEEP_ALIVE_MSG);

    ASSERT_TRUE(sendTo(21, MSG_PING_MSG)) << "to itself, through the manager";
    EXPECT_EQ(await({MSG_PING_MSG}, 5000), MSG_PING_MSG);

    manager_->kill();
    manager_.reset();
    EXPECT_EQ(await({MSG_LOST_RECEIVE_QUEUE_MSG}, 5000), MSG_LOST_RECEIVE_QUEUE_MSG);
    EXPECT_EQ(gtLmContext.oMsgIpcChannel, nullptr);
    EXPECT_EQ(nettest::waitChild(other), 0);
}

// A client whose bytes can't be packets is dropped; the others go on.
TEST_F(CmgrTest, GarbageClientIsDroppedOthersGoOn) {
    ASSERT_TRUE(join(21));
    for (const int32_t total : {0, 199, -1}) {
        nettest::Connection raw;
        NetAddressT at = nettest::loopback(port_);
        ASSERT_EQ(NetConnect(raw.client, &at), NET_ERROR_NONE);
        std::vector<unsigned char> garbage(MSG_PACKET_HEADER_SIZE, 0xEE);
        fh::msgPutLe32(garbage.data() + 4, total);
        ASSERT_EQ(send(raw.client, garbage.data(), garbage.size(), MSG_NOSIGNAL), 192);
        char byte = 0;
        timeval limit{5, 0};
        setsockopt(raw.client, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        EXPECT_LE(recv(raw.client, &byte, 1, 0), 0) << "dropped by the manager";
        ASSERT_TRUE(sendTo(21, MSG_PING_MSG));
        EXPECT_EQ(await({MSG_PING_MSG}, 5000), MSG_PING_MSG) << total;
    }
}

// A client that stops reading is taken down once its queue passes the
// bound; the sender learns that it is unreachable.
TEST_F(CmgrTest, ClientThatStopsReadingIsTakenDown) {
    ASSERT_TRUE(join(21));
    const pid_t stuck = nettest::child([] {
        MsgReleaseThread(&gtLmContext); // not the parent's channel
        MsgInitializeThread();
        if (!join(30) || !sendTo(21, MSG_PING_MSG)) return 3;
        pause(); // never reads again
        return 0;
    });
    ASSERT_EQ(await({MSG_PING_MSG}, 5000), MSG_PING_MSG) << "process 30 has joined";
    std::string text(1 << 20, 'm');
    OBJ_STRING *big = ObjStringNew(text.c_str());
    int32_t news = 0, sent = 0;
    for (; sent < 120 && news == 0; ++sent) {
        ASSERT_TRUE(sendTo(30, MSG_PING_MSG, big));
        news = await({CMGR_PROCESS_UNREACHABLE_MSG}, 5);
    }
    EXPECT_GE(sent, 64) << "not before the bound";
    if (news == 0) news = await({CMGR_PROCESS_UNREACHABLE_MSG}, 5000);
    EXPECT_EQ(news, CMGR_PROCESS_UNREACHABLE_MSG);
    ObjReleaseInternal(&big);
    ASSERT_TRUE(sendTo(21, MSG_PING_MSG));
    EXPECT_EQ(await({MSG_PING_MSG}, 5000), MSG_PING_MSG);
    kill(stuck, SIGKILL);
    nettest::waitChild(stuck);
}

// No peer makes a process call a pointer: a timer message read from a
// socket is dropped, and the message behind it arrives.
TEST_F(CmgrTest, TimerMessageThroughTheManagerIsDropped) {
    ASSERT_TRUE(join(21));
    ASSERT_TRUE(sendTo(21, TIMER_CALLBACK_MSG));
    ASSERT_TRUE(sendTo(21, MSG_PING_MSG));
    EXPECT_EQ(await({TIMER_CALLBACK_MSG, MSG_PING_MSG}, 5000), MSG_PING_MSG);
}

} // namespace
