// Data channels made by their two halves: the listening side's
// MSG_CONNECT_MSG goes over a control channel, the connecting side
// completes it, and each side hears of the outcome once, or not at all in
// the synchronous form. Held output waits for the peer's word.
#include <chrono>
#include <filesystem>
#include <fstream>
#include <thread>

#include "messages/msgmsg.h"
#include "msgchannel.h"
#include "net_support.h"

namespace {

using Clock = std::chrono::steady_clock;

class DataChannelTest : public LibraryTest {
protected:
    void SetUp() override {
        LibraryTest::SetUp();
        gtLmContext.bMsgIpcConnected = TRUE; // packets read off channels are kept
    }
    void TearDown() override {
        while (MsgReceiveCount() > 0) pop();
        MsgReleaseThread(&gtLmContext);
        MsgInitializeThread();
        LibraryTest::TearDown();
    }
    // Both ends of a connection as channels whose peer is this process.
    static void controlLink(nettest::Connection &c, MSG_CHANNEL **near, MSG_CHANNEL **far) {
        ASSERT_TRUE(c.connect());
        ASSERT_TRUE(MsgChannelCreateInternal(near, c.server, MsgLocalAddress(), FALSE, TRUE, FALSE, FALSE, FALSE));
        ASSERT_TRUE(MsgChannelCreateInternal(far, c.client, MsgLocalAddress(), FALSE, TRUE, FALSE, FALSE, FALSE));
        c.server = c.client = -1;
    }
    static MSG_PACKET *pop() {
        MSG_PACKET *packet = nullptr;
        MsgReceivePopPacket(&packet);
        ObjReleaseInternal(&packet);
        return nullptr;
    }
    // Passes until a message of type is queued (others stay queued in
    // order behind the search); the message, or null after five seconds.
    static MSG_MESSAGE *await(int32_t type) {
        for (const auto until = Clock::now() + std::chrono::seconds(5); Clock::now() < until;) {
            auto *list = static_cast<LIST *>(gtLmContext.oMsgReceiveList);
            for (LISTNODE *node = list->oFirst; node != nullptr; node = node->oNext) {
                if (MsgPacketMsgType(node->oItem) != type) continue;
                MSG_MESSAGE *message = nullptr;
                EXPECT_TRUE(MsgMessageFromPacket(&message, static_cast<MSG_PACKET *>(node->oItem)));
                ListRemoveItem(node);
                return message;
            }
            fh::msgSelectPass(20);
        }
        return nullptr;
    }
    static std::vector<int32_t> queued() { return nettest::receiveListTypes(); }
    static std::string cookieOf(const MSG_MESSAGE *connected) {
        const auto *body = static_cast<const MSG_CONNECTED *>(connected->oObject);
        const char *text = body != nullptr ? ObjGetString(body->oCookie) : nullptr;
        return text != nullptr ? text : "<none>";
    }
};

// The asynchronous form, held or not, with connected-ok or without: one
// MSG_CONNECTED_MSG for each side carrying its own cookie, and the first
// frame of the connecting side is type 2711 with its address as body.
TEST_F(DataChannelTest, AsynchronousHalvesEachHearOnce) {
    for (const bool held : {false, true}) {
        SCOPED_TRACE(held);
        nettest::Connection c;
        MSG_CHANNEL *near = nullptr, *far = nullptr;
        controlLink(c, &near, &far);
        OBJ_STRING *peerCookie = ObjStringNew("peer"), *localCookie = ObjStringNew("local");
        ASSERT_TRUE(MsgChannelOpenInternal(nullptr, near->oAddress, peerCookie, localCookie, FALSE, FALSE, held));
        MSG_MESSAGE *connect = await(MSG_CONNECT_MSG);
        ASSERT_NE(connect, nullptr);
        ASSERT_TRUE(MsgChannelCompleteInternal(nullptr, connect, FALSE, FALSE, TRUE));
        MSG_MESSAGE *first = await(MSG_CONNECTED_MSG);
        MSG_MESSAGE *second = await(MSG_CONNECTED_MSG);
        ASSERT_TRUE(first != nullptr && second != nullptr);
        std::vector<std::string> cookies{cookieOf(first), cookieOf(second)};
        std::sort(cookies.begin(), cookies.end());
        EXPECT_EQ(cookies, (std::vector<std::string>{"local", "peer"}));
        for (const MSG_MESSAGE *m : {first, second}) {
            const auto *body = static_cast<const MSG_CONNECTED *>(m->oObject);
            EXPECT_TRUE(body->bConnected && body->iError == 0 && MsgIsAChannel(body->oChannel));
        }
        if (!held) { // connected-ok comes out as an ordinary message, byte for byte
            MSG_MESSAGE *ok = await(MSG_CONNECTED_OK_MSG);
            ASSERT_NE(ok, nullptr);
            EXPECT_TRUE(MsgAddressEqual(ok->oObject, MsgLocalAddress()));
            ObjReleaseInternal(&ok);
        }
        fh::msgSelectPass(50);
        EXPECT_EQ(std::count(queued().begin(), queued().end(), MSG_CONNECTED_MSG), 0) << "exactly one each";
        for (void *object : {(void *)first, (void *)second, (void *)connect, (void *)peerCookie, (void *)localCookie,
                             (void *)near, (void *)far})
            ObjReleaseInternal(&object);
        while (MsgReceiveCount() > 0) pop();
    }
}

// The connected-ok frame on a data channel is exactly nine bytes in the
// synchronous form, and the synchronous halves queue no MSG_CONNECTED_MSG.
TEST_F(DataChannelTest, SynchronousHalvesAcrossTwoProcesses) {
    nettest::Connection c;
    const pid_t completer = nettest::child([&c] {
        MSG_CHANNEL *link = nullptr;
        if (NetConnect(c.client, &c.address) != NET_ERROR_NONE ||
            !MsgChannelCreateInternal(&link, c.client, MsgLocalAddress(), FALSE, TRUE, FALSE, FALSE, FALSE))
            return 3;
        MSG_MESSAGE *connect = await(MSG_CONNECT_MSG);
        MSG_ADDRESS *channel = nullptr;
        if (connect == nullptr || !MsgChannelCompleteInternal(&channel, connect, TRUE, TRUE, TRUE)) return 4;
        if (!MsgSendObject(channel, MSG_PING_MSG, nullptr)) return 5;
        fh::msgSelectPass(100);
        return std::count(queued().begin(), queued().end(), MSG_CONNECTED_MSG) == 0 ? 0 : 6;
    });
    ASSERT_EQ(NetAccept(&c.server, c.listener, nullptr), NET_ERROR_NONE);
    MSG_CHANNEL *link = nullptr;
    ASSERT_TRUE(MsgChannelCreateInternal(&link, c.server, MsgLocalAddress(), FALSE, TRUE, FALSE, FALSE, FALSE));
    c.server = -1;
    MSG_ADDRESS *channel = nullptr;
    ASSERT_TRUE(MsgChannelOpenInternal(&channel, link->oAddress, nullptr, nullptr, FALSE, TRUE, TRUE));
    EXPECT_TRUE(MsgIsAChannel(channel));
    MSG_MESSAGE *ping = await(MSG_PING_MSG);
    ASSERT_NE(ping, nullptr);
    EXPECT_TRUE(MsgAddressEqual(ping->oSource, channel)) << "from the new channel";
    EXPECT_EQ(nettest::waitChild(completer), 0);
    EXPECT_EQ(std::count(queued().begin(), queued().end(), MSG_CONNECTED_MSG), 0);
    ObjReleaseInternal(&ping);
    ObjReleaseInternal(&channel);
    ObjReleaseInternal(&link);
}

// Output held on a channel goes once the peer's connected-ok arrives, which
// also brings the saved cookie back in MSG_CONNECTED_MSG.
TEST_F(DataChannelTest, HeldOutputGoesOnConnectedOk) {
    nettest::Connection c;
    ASSERT_TRUE(c.connect());
    MSG_CHANNEL *channel = nullptr;
    ASSERT_TRUE(MsgChannelCreateInternal(&channel, c.server, MsgLocalAddress(), FALSE, TRUE, FALSE, TRUE, FALSE));
    c.server = -1;
    channel->oConnectCookie = ObjStringNew("saved");
    MSG_PACKET *packet = fh::msgBarePacket(MSG_PONG_MSG, MsgLocalAddress(), channel->oAddress);
    ASSERT_TRUE(MsgChannelDispatch(channel, &packet));
    char sink[64];
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_LT(recv(c.client, sink, sizeof sink, MSG_DONTWAIT), 0) << "held";
    const unsigned char ok[] = {9, 0, 0, 0, 0x97, 0x0a, 0, 0, 0};
    ASSERT_EQ(send(c.client, ok, sizeof ok, 0), 9);
    MSG_MESSAGE *connected = await(MSG_CONNECTED_MSG);
    ASSERT_NE(connected, nullptr);
    EXPECT_EQ(cookieOf(connected), "saved");
    EXPECT_EQ(channel->oConnectCookie, nullptr);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    ASSERT_EQ(recv(c.client, sink, sizeof sink, MSG_DONTWAIT), 9);
    EXPECT_EQ(fh::msgGetLe32(reinterpret_cast<unsigned char *>(sink) + 4), MSG_PONG_MSG);
    ObjReleaseInternal(&connected);
    ObjReleaseInternal(&channel);
}

// A channel through a tunnel waits for the tunnel service: until that is
// wired in, the listening half tells the peer that no port was free and the
// connecting half refuses, each traced, with no socket left behind. A
// machine without a tunnel port of its own never asks for one.
TEST_F(DataChannelTest, TunnelPathsFailCleanly) {
    mkdir((home() + "/etc").c_str(), 0755);
    std::ofstream(home() + "/etc/machines.dat") << "[faraway]\nId=5\nCan Tunnel=true\n";
    nettest::Connection c;
    MSG_CHANNEL *ipc = nullptr, *manager = nullptr;
    ASSERT_TRUE(c.connect());
    ASSERT_TRUE(MsgChannelCreateInternal(&ipc, c.client, MsgCommMgrAddress(), TRUE, TRUE, TRUE, FALSE, FALSE));
    ASSERT_TRUE(MsgChannelCreateInternal(&manager, c.server, nullptr, TRUE, TRUE, TRUE, FALSE, FALSE));
    c.client = c.server = -1;
    gtLmContext.oMsgIpcChannel = ipc; // takes the reference
    MSG_ADDRESS *peer = nullptr;
    ASSERT_TRUE(MsgMakeAddress(&peer, "faraway", 4));
    auto descriptors = [] { return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}); };
    auto told = [manager] { // the error of the MSG_CONNECT_MSG that went out; -1 for none
        MSG_PACKET *packet = nullptr;
        void *body = nullptr;
        int32_t error = -1;
        if (MsgChannelReceiveData(&packet, manager) && MsgObjectFromPacketInternal(&body, packet, MSG_CONNECT_MAGIC)) {
            error = static_cast<MSG_CONNECT *>(body)->iError;
            EXPECT_EQ(static_cast<MSG_CONNECT *>(body)->bSuccess, error == 0);
        }
        ObjReleaseInternal(&body);
        ObjReleaseInternal(&packet);
        return error;
    };
    const auto before = descriptors();
    fh::msgSetTunnelPort(7000);
    EXPECT_FALSE(MsgChannelOpenInternal(nullptr, peer, nullptr, nullptr, FALSE, FALSE, FALSE));
    EXPECT_TRUE(traced("MESSAGE", 96, "No tunnel service for a message channel to faraway"));
    EXPECT_EQ(told(), 2);
    for (const BOOL synchronous : {TRUE, FALSE}) {
        MSG_CHANNEL *made = nullptr;
        EXPECT_FALSE(MsgCompleteTcpConnectionTyped(&made, peer, nullptr, nettest::kLoopback, 7000, FALSE, synchronous,
                                                   TRUE, TRUE, TRUE));
        EXPECT_EQ(made, nullptr);
    }
    EXPECT_TRUE(traced("MESSAGE", 97, "No tunnel service to connect a message channel through"));
    EXPECT_EQ(descriptors(), before);
    EXPECT_EQ(static_cast<LIST *>(gtLmContext.oMsgConnectingList)->iCount, 0);

    fh::msgSetTunnelPort(0);
    EXPECT_TRUE(MsgChannelOpenInternal(nullptr, peer, nullptr, nullptr, FALSE, FALSE, FALSE));
    EXPECT_EQ(told(), 0);
    ObjReleaseInternal(&peer);
    ObjReleaseInternal(&manager);
}

} // namespace
