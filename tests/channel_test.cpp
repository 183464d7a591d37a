// Channels on real sockets: the reader's framing, bounds on what a peer
// declares, going down, output that never waits, the channel map's ids, the
// receive list, and the IPC opening at a raw listener.
#include <poll.h>
#include <sys/ioctl.h>

#include <chrono>
#include <fstream>
#include <thread>

#include "messages/msgmsg.h"
#include "msgchannel.h"
#include "daemon.h"
#include "msgself.h"
#include "net_support.h"

namespace {

using Bytes = std::vector<unsigned char>;
using nettest::Connection;

int32_t le32(const unsigned char *p) { return fh::msgGetLe32(p); }
void put(Bytes &b, int32_t value) {
    for (int i = 0; i < 4; ++i) b.push_back(static_cast<unsigned char>(static_cast<uint32_t>(value) >> (8 * i)));
}

class ChannelTest : public LibraryTest {
protected:
    void TearDown() override {
        for (void *object : held_) ObjReleaseInternal(&object);
        closeAll();
        while (MsgReceiveCount() > 0) popType();
        LibraryTest::TearDown();
    }
    // Closes every channel of the map, and the IPC channel.
    static void closeAll() {
        auto *map = static_cast<OBJ_MAP *>(gtLmContext.oMsgChannels);
        while (map->iCount > 0) {
            MSG_ADDRESS *address = nullptr;
            MsgChannelAddress(&address, static_cast<MSG_CHANNEL **>(map->oData.pData)[0]);
            MsgChannelClose(&address);
        }
        ObjReleaseInternal(&gtLmContext.oMsgIpcChannel);
    }
    void configure(const std::string &text) const {
        mkdir((home() + "/config").c_str(), 0755);
        std::ofstream(home() + "/config/configure.cfg") << text;
    }
    template <typename T> T *hold(T *object) {
        held_.push_back(object);
        return object;
    }
    // A channel on the server end of a fresh connection; the client end
    // stays with the test.
    MSG_CHANNEL *channelOn(Connection &c, bool ipc = false, bool notify = true, bool holdOutput = false) {
        EXPECT_TRUE(c.connect());
        MSG_CHANNEL *channel = nullptr;
        EXPECT_TRUE(MsgChannelCreateInternal(&channel, c.server, nullptr, FALSE, notify, ipc, holdOutput, FALSE));
        c.server = -1; // the channel owns it now
        return hold(channel);
    }
    // The bytes a packet of type with body puts on a socket.
    static Bytes wire(const void *to, int32_t type, const void *body, bool ipc) {
        MSG_PACKET *packet = nullptr;
        EXPECT_TRUE(MsgCreatePacket(&packet, to, MsgLocalAddress(), type, body));
        const auto *p = static_cast<const unsigned char *>(packet->oImage.pData);
        Bytes bytes(p + (ipc ? 0 : MSG_PACKET_HEADER_SIZE), p + packet->oImage.iSize);
        ObjReleaseInternal(&packet);
        return bytes;
    }
    static void send(int32_t socket, const Bytes &bytes) {
        ASSERT_EQ(::send(socket, bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
    }
    // Reads until a packet is whole or five seconds pass.
    static MSG_PACKET *receive(MSG_CHANNEL *channel) {
        MSG_PACKET *packet = nullptr;
        for (int i = 0; i < 500 && !channel->bIsDown; ++i) {
            if (MsgChannelReceiveData(&packet, channel)) return packet;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return nullptr;
    }
    // One call after the bytes have had time to arrive: for frames that the
    // channel keeps for itself.
    static MSG_PACKET *receiveOnce(MSG_CHANNEL *channel) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        MSG_PACKET *packet = nullptr;
        return MsgChannelReceiveData(&packet, channel) ? packet : nullptr;
    }
    static int32_t popType() {
        MSG_PACKET *packet = nullptr;
        if (!MsgReceivePopPacket(&packet)) return 0;
        const int32_t type = MsgPacketMsgType(packet);
        ObjReleaseInternal(&packet);
        return type;
    }
    static std::vector<int32_t> queuedTypes() {
        std::vector<int32_t> types;
        while (MsgReceiveCount() > 0) types.push_back(popType());
        return types;
    }
    // Joins as process 5 a manager that is only the listener of c; its end
    // of the IPC channel in c.server.
    void ipcAtRawListener(Connection &c) const {
        configure("[Machine]\nComms TcpPort=" + std::to_string(NetGetIpPort(&c.address)) + "\n");
        ProcSetId(5);
        ASSERT_TRUE(MsgIpcConnect(0));
        ASSERT_EQ(NetAccept(&c.server, c.listener, nullptr), NET_ERROR_NONE);
    }
    // Up to size bytes off socket, fewer if the peer ends first.
    static Bytes readBytes(int32_t socket, size_t size) {
        Bytes got(size);
        size_t have = 0;
        for (ssize_t n = 1; have < size && n > 0; have += static_cast<size_t>(std::max<ssize_t>(n, 0)))
            n = recv(socket, got.data() + have, size - have, 0);
        got.resize(have);
        return got;
    }
    static Bytes image(const MSG_PACKET *packet) {
        const auto *p = static_cast<const unsigned char *>(packet->oImage.pData);
        return Bytes(p, p + packet->oImage.iSize);
    }

private:
    std::vector<void *> held_;
};

// A frame is put together the same however the bytes are cut, and the
// header that the reader makes names the channel both ways.
TEST_F(ChannelTest, DataFramesAssembleTheSameAcrossCuts) {
    Connection c;
    MSG_CHANNEL *channel = channelOn(c);
    OBJ_STRING *body = hold(ObjStringNew("a body long enough to be cut in many places"));
    const Bytes frame = wire(channel->oAddress, MSG_PING_MSG, body, false);
    for (const size_t cut : {size_t{1}, size_t{3}, size_t{8}, frame.size()}) {
        SCOPED_TRACE(cut);
        MSG_PACKET *packet = nullptr;
        for (size_t at = 0; at < frame.size(); at += cut) {
            ASSERT_FALSE(MsgChannelReceiveData(&packet, channel)) << "whole before the last byte";
            send(c.client, Bytes(frame.begin() + at, frame.begin() + std::min(at + cut, frame.size())));
            if (at + cut < frame.size()) {
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
                ASSERT_FALSE(MsgChannelReceiveData(&packet, channel));
            }
        }
        packet = hold(receive(channel));
        ASSERT_NE(packet, nullptr);
        const Bytes got = image(packet);
        ASSERT_EQ(got.size(), frame.size() + MSG_PACKET_HEADER_SIZE);
        const int32_t header[] = {0, static_cast<int32_t>(got.size()), -1, channel->iId, -1, channel->iId,
                                  MSG_PING_MSG, 0};
        for (size_t i = 0; i < std::size(header); ++i) EXPECT_EQ(le32(got.data() + 4 * i), header[i]) << i;
        EXPECT_TRUE(std::all_of(got.begin() + 32, got.begin() + 192, [](unsigned char b) { return b == 0; }));
        EXPECT_EQ(Bytes(got.begin() + MSG_PACKET_HEADER_SIZE, got.end()), frame);
        MSG_MESSAGE *message = nullptr;
        ASSERT_TRUE(MsgMessageFromPacket(&message, packet));
        hold(message);
        EXPECT_TRUE(MsgIsAChannel(message->oSource) && MsgGetChannelId(message->oSource) == channel->iId);
        EXPECT_STREQ(ObjGetString(message->oObject), ObjGetString(body));
    }
}

// Packets that arrive together come one a call, also behind a packet that
// the channel keeps for itself, and the socket stays readable while one is
// still to come: what the reader took ahead never strands a packet.
TEST_F(ChannelTest, PacketsThatArriveTogetherComeOneACall) {
    for (const bool ipc : {false, true}) {
        SCOPED_TRACE(ipc);
        Connection c;
        MSG_CHANNEL *channel = channelOn(c, ipc);
        const int32_t types[] = {MSG_CHANNEL_AUTH_MSG, MSG_PING_MSG, MSG_PONG_MSG, MSG_KEEP_ALIVE_MSG};
        std::vector<Bytes> sent;
        Bytes all;
        for (const int32_t type : types) {
            sent.push_back(
                wire(channel->oAddress, type, type == MSG_PONG_MSG ? hold(ObjStringNew("pong")) : nullptr, ipc));
            all.insert(all.end(), sent.back().begin(), sent.back().end());
        }
        send(c.client, all);
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        for (size_t i = 0; i < sent.size(); ++i) {
            pollfd readable{channel->iSocket, POLLIN, 0};
            EXPECT_EQ(poll(&readable, 1, 0), 1) << "with packet " << i << " to come";
            MSG_PACKET *packet = nullptr;
            const bool kept = types[i] == MSG_CHANNEL_AUTH_MSG;
            ASSERT_EQ(MsgChannelReceiveData(&packet, channel), !kept);
            if (kept) continue;
            const Bytes got = image(hold(packet));
            ASSERT_EQ(got.size(), sent[i].size() + (ipc ? 0 : MSG_PACKET_HEADER_SIZE));
            EXPECT_EQ(Bytes(got.end() - static_cast<ptrdiff_t>(sent[i].size()), got.end()), sent[i]);
        }
        MSG_PACKET *none = nullptr;
        EXPECT_FALSE(MsgChannelReceiveData(&none, channel));
        EXPECT_FALSE(channel->bIsDown);
    }
}

// An IPC channel reads whole images, a small one that has arrived in one
// read; an opening names the channel it came in on as its destination.
TEST_F(ChannelTest, IpcImagesAndTheOpeningRewritten) {
    Connection c;
    MSG_CHANNEL *channel = channelOn(c, true);
    Bytes opening = wire(MsgCommMgrAddress(), MSG_IPC_CONNECT_MSG, nullptr, true);
    fh::msgMarkSelf(opening.data()); // as if the process had made it for itself
    send(c.client, opening);
    for (int waiting = 0, i = 0; i < 500 && waiting < static_cast<int>(opening.size()); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
        ioctl(channel->iSocket, FIONREAD, &waiting);
    }
    static int reads = 0;
    const fh::NetCalls saved = fh::netCalls();
    fh::netCalls().recv = [](int fd, void *buffer, size_t length, int flags) { return ++reads, recv(fd, buffer, length, flags); };
    MSG_PACKET *packet = nullptr;
    EXPECT_TRUE(MsgChannelReceiveData(&packet, channel));
    fh::netCalls() = saved;
    EXPECT_EQ(reads, 1);
    ASSERT_NE(hold(packet), nullptr);
    EXPECT_FALSE(fh::msgPacketIsSelf(packet));
    const Bytes got = image(packet);
    EXPECT_EQ(le32(got.data() + 0), 2);
    EXPECT_EQ(le32(got.data() + 16), -1);
    EXPECT_EQ(le32(got.data() + 20), channel->iId);
    EXPECT_EQ(le32(got.data() + 8), 1);
}

// Lengths that no packet has take the channel down, with the trace of a
// failed read and one MSG_CHANNEL_DOWN_MSG.
TEST_F(ChannelTest, ImpossibleLengthsTakeTheChannelDown) {
    struct Case {
        bool ipc;
        int32_t length;
    } cases[] = {{false, 8}, {false, 0}, {false, -1}, {false, INT32_MAX - 191}, {true, 199}, {true, 0}, {true, -300}};
    for (const Case &k : cases) {
        SCOPED_TRACE(k.length);
        Connection c;
        MSG_CHANNEL *channel = channelOn(c, k.ipc);
        Bytes head;
        if (k.ipc) {
            head.assign(MSG_PACKET_HEADER_SIZE, 0);
            fh::msgPutLe32(head.data() + 4, k.length);
        } else {
            put(head, k.length);
            put(head, MSG_PING_MSG);
        }
        send(c.client, head);
        EXPECT_EQ(receive(channel), nullptr);
        EXPECT_TRUE(channel->bIsDown);
        EXPECT_EQ(channel->iSocket, -1);
        EXPECT_TRUE(traced("MESSAGE", 46, "NetTcpReceive returned unknown error"));
        EXPECT_EQ(queuedTypes(), std::vector<int32_t>{MSG_CHANNEL_DOWN_MSG});
    }
}

// A peer that declares 2 GiB and sends 300 bytes costs about what it sent,
// or the size of the packet it sent before.
TEST_F(ChannelTest, DeclaredTotalIsNotAllocated) {
    for (const bool ipc : {false, true})
        for (const size_t before : {size_t{0}, size_t{20000}}) {
            SCOPED_TRACE(testing::Message() << ipc << " " << before);
            Connection c;
            MSG_CHANNEL *channel = channelOn(c, ipc);
            if (before > 0) {
                send(c.client,
                     wire(channel->oAddress, MSG_PING_MSG, hold(ObjStringNew(std::string(before, 'b').c_str())), ipc));
                MSG_PACKET *honest = hold(receive(channel));
                ASSERT_NE(honest, nullptr);
            }
            Bytes bytes(ipc ? MSG_PACKET_HEADER_SIZE : 0, 0);
            if (ipc) bytes[4] = 0xF0, bytes[5] = 0xFF, bytes[6] = 0xFF, bytes[7] = 0x7F;
            else put(bytes, INT32_MAX - 200), put(bytes, MSG_PING_MSG);
            bytes.resize(bytes.size() + 300, 0x55);
            const int32_t blocks = MemUsedCount();
            send(c.client, bytes);
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            MSG_PACKET *packet = nullptr;
            EXPECT_FALSE(MsgChannelReceiveData(&packet, channel));
            EXPECT_FALSE(channel->bIsDown);
            EXPECT_LE(channel->oInput.iSize, static_cast<int32_t>(std::max<size_t>(4096, before + 300) + 2 * 300));
            EXPECT_LE(MemUsedCount(), blocks + 1);
        }
}

// A frame larger than the first block, read where the socket can't tell
// what waits in it, grows its block step by step and comes out whole.
TEST_F(ChannelTest, ABlockGrowsToALargeFrame) {
    nettest::PlatformCallsBack back;
    fh::netCalls().ioctl = [](int, unsigned long, void *) { return errno = ENOTTY, -1; };
    Connection c;
    MSG_CHANNEL *channel = channelOn(c);
    const Bytes frame =
        wire(channel->oAddress, MSG_PING_MSG, hold(ObjStringNew(std::string(100000, 'g').c_str())), false);
    std::thread writer([&] { send(c.client, frame); });
    MSG_PACKET *packet = hold(receive(channel));
    writer.join();
    ASSERT_NE(packet, nullptr);
    const Bytes got = image(packet);
    EXPECT_EQ(Bytes(got.begin() + MSG_PACKET_HEADER_SIZE, got.end()), frame);
}

// A peer gone mid-frame brings one MSG_CHANNEL_DOWN_MSG, and none when the
// channel was made without notification or is closing.
TEST_F(ChannelTest, PeerGoneMidFrame) {
    for (const bool notify : {true, false}) {
        Connection c;
        MSG_CHANNEL *channel = channelOn(c, false, notify);
        const Bytes frame = wire(channel->oAddress, MSG_PING_MSG, hold(ObjStringNew("cut short")), false);
        send(c.client, Bytes(frame.begin(), frame.begin() + 12));
        NetClose(&c.client);
        EXPECT_EQ(receive(channel), nullptr);
        EXPECT_TRUE(channel->bIsDown);
        EXPECT_EQ(channel->oInput.pData, nullptr);
        MSG_PACKET *again = nullptr;
        EXPECT_FALSE(MsgChannelReceiveData(&again, channel));
        EXPECT_EQ(queuedTypes(), notify ? std::vector<int32_t>{MSG_CHANNEL_DOWN_MSG} : std::vector<int32_t>{});
    }
}

// Output never waits: a peer that doesn't read leaves packets on the output
// list with the write bit set; once it reads, everything arrives frame by
// frame from offset 192, and the bit goes.
TEST_F(ChannelTest, OutputIsOneAttemptAndResumes) {
    Connection c;
    ASSERT_TRUE(c.connect(4096));
    NetSetSendBufferSize(c.server, 4096);
    MSG_CHANNEL *channel = nullptr;
    ASSERT_TRUE(MsgChannelCreate(&channel, c.server));
    c.server = -1;
    hold(channel);
    const std::string text(64 * 1024, 'x');
    OBJ_STRING *body = hold(ObjStringNew(text.c_str()));
    const Bytes frame = wire(channel->oAddress, MSG_PING_MSG, body, false);
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < 40; ++i) {
        MSG_PACKET *packet = nullptr;
        ASSERT_TRUE(MsgCreatePacket(&packet, channel->oAddress, MsgLocalAddress(), MSG_PING_MSG, body));
        ASSERT_TRUE(MsgChannelDispatch(channel, &packet));
        EXPECT_EQ(packet, nullptr);
    }
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
    EXPECT_GT(MsgChannelOutputCount(channel), 0);
    EXPECT_TRUE(MsgIsWriteSelectSet(channel->iSocket));
    Bytes got;
    std::vector<unsigned char> buffer(65536);
    while (got.size() < 40 * frame.size()) {
        MsgChannelOutputData(channel);
        const ssize_t n = recv(c.client, buffer.data(), buffer.size(), MSG_DONTWAIT);
        if (n > 0) got.insert(got.end(), buffer.begin(), buffer.begin() + n);
    }
    for (int i = 0; i < 40; ++i)
        ASSERT_TRUE(std::equal(frame.begin(), frame.end(), got.begin() + i * frame.size())) << i;
    EXPECT_EQ(MsgChannelOutputCount(channel), 0);
    EXPECT_FALSE(MsgIsWriteSelectSet(channel->iSocket));
}

// A send to a peer that is gone takes the channel down; later sends give
// FALSE and queue nothing more.
TEST_F(ChannelTest, FailedSendTakesTheChannelDown) {
    Connection c;
    MSG_CHANNEL *channel = channelOn(c);
    NetClose(&c.client);
    bool sent = true;
    for (int i = 0; i < 50 && sent; ++i) {
        MSG_PACKET *packet = fh::msgBarePacket(MSG_PING_MSG, MsgLocalAddress(), channel->oAddress);
        sent = MsgChannelDispatch(channel, &packet);
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    EXPECT_FALSE(sent);
    EXPECT_TRUE(MsgChannelIsDown(channel));
    EXPECT_FALSE(MsgSendObject(channel->oAddress, MSG_PING_MSG, nullptr));
    EXPECT_EQ(queuedTypes(), std::vector<int32_t>{MSG_CHANNEL_DOWN_MSG});
}

// Ids wrap to 1 and skip ids in use; a closed channel leaves the map with
// no message, and a send to it fails.
TEST_F(ChannelTest, IdsWrapAndCloseLeavesTheMap) {
    Connection a, b, d;
    gtLmContext.iMsgLastChannelId = INT32_MAX - 1;
    MSG_CHANNEL *first = channelOn(a);
    EXPECT_EQ(first->iId, INT32_MAX);
    gtLmContext.iMsgLastChannelId = 0;
    MSG_CHANNEL *one = channelOn(b);
    EXPECT_EQ(one->iId, 1);
    gtLmContext.iMsgLastChannelId = INT32_MAX - 1; // the next two: INT32_MAX and 1 are taken
    MSG_CHANNEL *third = channelOn(d);
    EXPECT_EQ(third->iId, 2);
    MSG_CHANNEL *found = nullptr;
    ASSERT_TRUE(MsgGetChannel(&found, one->oAddress));
    EXPECT_EQ(hold(found), one);
    MSG_ADDRESS *address = nullptr;
    ASSERT_TRUE(MsgChannelAddress(&address, one));
    ASSERT_TRUE(MsgChannelClose(&address));
    EXPECT_EQ(address, nullptr);
    EXPECT_TRUE(one->bIsDown && one->bIsClosing);
    EXPECT_FALSE(MsgGetChannel(&found, one->oAddress));
    EXPECT_FALSE(MsgSendObject(one->oAddress, MSG_PING_MSG, nullptr));
    EXPECT_EQ(MsgReceiveCount(), 0);
    MSG_ADDRESS *stranger = nullptr;
    ASSERT_TRUE(MsgMakeAddress(&stranger, nullptr, 999));
    EXPECT_FALSE(MsgChannelClose(&stranger));
    ObjReleaseInternal(&stranger);
}

// The channel's own messages: a flush frees held output and answers
// flushed; auth keeps the body as the cookie; disconnect takes it down;
// connected-ok on a channel that isn't held is an ordinary message.
TEST_F(ChannelTest, MessagesForTheChannelItself) {
    Connection c;
    MSG_CHANNEL *channel = channelOn(c, false, true, true);
    MSG_PACKET *held = fh::msgBarePacket(MSG_PONG_MSG, MsgLocalAddress(), channel->oAddress);
    ASSERT_TRUE(MsgChannelDispatch(channel, &held));
    EXPECT_EQ(MsgChannelOutputCount(channel), 1) << "held";
    send(c.client, wire(channel->oAddress, MSG_FLUSH_CHANNEL_MSG, nullptr, false));
    EXPECT_EQ(receiveOnce(channel), nullptr);
    EXPECT_FALSE(channel->bHoldOutput);
    MsgChannelOutputData(channel);
    Bytes got(64);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    const ssize_t n = recv(c.client, got.data(), got.size(), MSG_DONTWAIT);
    ASSERT_EQ(n, 18);
    EXPECT_EQ(le32(got.data() + 4), MSG_PONG_MSG);
    EXPECT_EQ(le32(got.data() + 13), MSG_CHANNEL_FLUSHED_MSG);

    OBJ_STRING *cookie = hold(ObjStringNew("who I am"));
    send(c.client, wire(channel->oAddress, MSG_CHANNEL_AUTH_MSG, cookie, false));
    EXPECT_EQ(receiveOnce(channel), nullptr);
    void *kept = nullptr;
    ASSERT_TRUE(MsgChannelGetAuth(&kept, channel->oAddress));
    EXPECT_STREQ(ObjGetString(hold(kept)), "who I am");
    EXPECT_FALSE(MsgChannelSetAuth(channel->oAddress, cookie)) << "only the auditor";

    send(c.client, wire(channel->oAddress, MSG_CONNECTED_OK_MSG, nullptr, false));
    MSG_PACKET *ok = hold(receive(channel));
    ASSERT_NE(ok, nullptr);
    EXPECT_EQ(MsgPacketMsgType(ok), MSG_CONNECTED_OK_MSG);

    send(c.client, wire(channel->oAddress, MSG_DISCONNECT_MSG, nullptr, false));
    EXPECT_EQ(receiveOnce(channel), nullptr);
    EXPECT_TRUE(channel->bIsDown);
}

// The receive list keeps order; a send with no IPC channel queues the lost
// send queue; setting the id renews the local address.
TEST_F(ChannelTest, ReceiveListDispatchAndId) {
    for (const int32_t type : {MSG_PING_MSG, MSG_PONG_MSG, MSG_KEEP_ALIVE_MSG}) {
        MSG_PACKET *packet = fh::msgBarePacket(type, MsgLocalAddress(), MsgLocalAddress());
        ASSERT_TRUE(MsgReceivePushPacket(&packet));
        EXPECT_EQ(packet, nullptr);
    }
    EXPECT_EQ(queuedTypes(), (std::vector<int32_t>{MSG_PING_MSG, MSG_PONG_MSG, MSG_KEEP_ALIVE_MSG}));
    OBJ_STRING *notPacket = ObjStringNew("x");
    EXPECT_FALSE(MsgReceivePushPacket(reinterpret_cast<MSG_PACKET **>(&notPacket)));
    EXPECT_EQ(notPacket, nullptr) << "released on failure";

    EXPECT_FALSE(MsgSendObject(MsgProcMgrAddress(), MSG_PING_MSG, nullptr));
    EXPECT_EQ(queuedTypes(), std::vector<int32_t>{MSG_LOST_SEND_QUEUE_MSG});

    EXPECT_TRUE(ProcSetId(42));
    EXPECT_EQ(ProcGetId(), 42);
    EXPECT_EQ(MsgGetProcessId(MsgLocalAddress()), 42);
    EXPECT_EQ(ProcGetRealId(), static_cast<int32_t>(getpid()));
    ProcSetId(0);
}

// The IPC opening at a raw listener: exactly the 228 bytes, nothing after.
TEST_F(ChannelTest, IpcOpeningBytes) {
    Connection listener;
    ipcAtRawListener(listener);
    const Bytes got = readBytes(listener.server, 228);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    unsigned char more = 0;
    EXPECT_LE(recv(listener.server, &more, 1, MSG_DONTWAIT), 0) << "nothing after the opening";
    ASSERT_EQ(got.size(), 228u);
    Bytes expected;
    for (const int32_t word : {2, 228, 1, 5, 1, 2, 2716, 0}) put(expected, word);
    expected.resize(192, 0);
    put(expected, 36);
    put(expected, 2716);
    expected.push_back(1);
    put(expected, static_cast<int32_t>(MSG_IPC_CONNECT_MAGIC));
    put(expected, 7);
    for (const char ch : std::string("i;i;i;")) expected.push_back(static_cast<unsigned char>(ch));
    expected.push_back(0);
    for (const int32_t word : {0, 5, static_cast<int32_t>(getpid())}) put(expected, word);
    EXPECT_EQ(got, expected);
    EXPECT_TRUE(gtLmContext.bMsgIpcConnected);
}

// Refusal is retried each pause until the limit: a manager that comes late
// is reached; an adopted process gives up after its own setting.
TEST_F(ChannelTest, IpcConnectRetriesUntilItsLimit) {
    fh::msgSetConnectLimits(3, 0, 100);
    const int32_t port = testsupport::freePort();
    configure("[Machine]\nComms TcpPort=" + std::to_string(port) + "\n[Timeouts]\nAdopted Processes Connection=1\n");

    ProcSetId(0);
    auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(MsgIpcConnect(0));
    const auto waited = std::chrono::steady_clock::now() - start;
    EXPECT_GE(waited, std::chrono::milliseconds(900));
    EXPECT_LT(waited, std::chrono::milliseconds(2500));

    ProcSetId(6);
    std::thread late([port] {
        std::this_thread::sleep_for(std::chrono::milliseconds(1500));
        int32_t listener = -1;
        NetAddressT at = nettest::loopback(port);
        NetOpen(&listener, NET_SOCKET_STREAM);
        NetSetReuseAddress(listener);
        NetBind(listener, &at);
        NetListen(listener, 1);
        std::this_thread::sleep_for(std::chrono::milliseconds(1500));
        NetClose(&listener);
    });
    EXPECT_TRUE(MsgIpcConnect(0));
    late.join();
    fh::msgSetConnectLimits(0, 0, 0);
}

} // namespace

namespace {

// The last two steps of a socket hand-over go to the manager as images
// routed to the taker and back to the owner; the taker's step takes the
// handle out of the context.
TEST_F(ChannelTest, HandOverStepsTravelAsMessages) {
    Connection manager, handed;
    ipcAtRawListener(manager);
    readBytes(manager.server, 228);
    auto packetImage = [&] { // a whole image: its length, then the rest
        Bytes head = readBytes(manager.server, 8);
        const Bytes rest = readBytes(manager.server, head.size() == 8 ? static_cast<size_t>(std::max(le32(head.data() + 4), 8)) - 8 : 0);
        head.insert(head.end(), rest.begin(), rest.end());
        return head;
    };
    NET_INHERIT_CONTEXT *context = nullptr;
    ASSERT_TRUE(NetInheritPhase1(&context, handed.client));
    handed.client = -1;
    hold(context);
    ASSERT_TRUE(NetInheritPhase3(context, 9));
    Bytes head = packetImage();
    ASSERT_GE(head.size(), 28u);
    EXPECT_EQ(le32(head.data()), 9) << "routed to the taker";
    EXPECT_EQ(le32(head.data() + 24), MSG_INHERIT_SOCKET_MSG);

    const int32_t handle = context->iSocket;
    int32_t taken = -1;
    ASSERT_TRUE(NetInheritPhase4(&taken, context));
    EXPECT_EQ(taken, handle);
    EXPECT_EQ(context->iSocket, -1);
    EXPECT_TRUE(context->bInherited);
    head = packetImage();
    ASSERT_GE(head.size(), 28u);
    EXPECT_EQ(le32(head.data()), 5) << "back to the owner, by its process id";
    EXPECT_EQ(le32(head.data() + 24), MSG_INHERITED_SOCKET_MSG);
    EXPECT_FALSE(NetInheritPhase4(&taken, context)) << "taken once only";
    NetClose(&taken);
}

} // namespace
