// Addresses, messages and packets: the packet image byte for byte, machine
// ids from each machine's own "machines.dat", images from elsewhere refused
// before they are read, and the networks of a machine.
#include <fstream>
#include <vector>

#include "messages/msgmsg.h"
#include "net_support.h"

namespace {

using Bytes = std::vector<unsigned char>;
constexpr uint32_t kIpcConnectMagic = 0xC998B959;

class MsgPacketTest : public LibraryTest {
protected:
    void SetUp() override {
        LibraryTest::SetUp();
        local_ = SysLocalMachineName();
        for (char &c : upper_ = local_) c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
    }
    // This machine's name, and the same in capitals.
    const char *local() const { return local_.c_str(); }
    const char *upper() const { return upper_.c_str(); }
    void TearDown() override {
        for (void *object : held_) ObjReleaseInternal(&object);
        LibraryTest::TearDown();
    }
    // Objects released at the end of the test.
    template <typename T> T *hold(T *object) {
        held_.push_back(object);
        return object;
    }
    MSG_ADDRESS *address(const char *machine, int32_t process) {
        MSG_ADDRESS *a = nullptr;
        EXPECT_TRUE(MsgMakeAddress(&a, machine, process));
        return hold(a);
    }
    void machines(const std::string &home, const std::string &text) {
        mkdir((home + "/etc").c_str(), 0755);
        std::ofstream(home + "/etc/machines.dat", std::ios::binary) << text;
    }
    static Bytes image(const MSG_PACKET *packet) {
        const auto *p = static_cast<const unsigned char *>(packet->oImage.pData);
        return Bytes(p, p + packet->oImage.iSize);
    }
    // A packet of type 3000 from the manager to here, with the integer 77.
    MSG_PACKET *integerPacket() {
        MSG_PACKET *packet = nullptr;
        EXPECT_TRUE(MsgCreatePacket(&packet, MsgLocalAddress(), MsgCommMgrAddress(), 3000, hold(ObjIntegerNew(77))));
        return hold(packet);
    }
    MSG_PACKET *packetOf(const Bytes &bytes) {
        auto *packet = static_cast<MSG_PACKET *>(ObjTemplateNewInstanceFromPool(gtObjTemplatePacket, nullptr));
        packet->oImage.iSize = static_cast<int32_t>(bytes.size());
        packet->oImage.pData = MemAllocateFromPool(bytes.size() + 1, nullptr);
        if (!bytes.empty()) memcpy(packet->oImage.pData, bytes.data(), bytes.size());
        return hold(packet);
    }

private:
    std::vector<void *> held_;
    std::string local_, upper_;
};

void put(Bytes &b, int32_t value) {
    for (int i = 0; i < 4; ++i) b.push_back(static_cast<unsigned char>(static_cast<uint32_t>(value) >> (8 * i)));
}

int32_t word(const Bytes &b, size_t offset) {
    uint32_t v = 0;
    for (int i = 3; i >= 0; --i) v = v << 8 | b[offset + static_cast<size_t>(i)];
    return static_cast<int32_t>(v);
}

// The header as the table of the image has it.
Bytes header(int32_t route, int32_t total, MsgPacketAddress from, MsgPacketAddress to, int32_t type) {
    Bytes b;
    for (int32_t v : {route, total, from.iMachine, from.iProcess, to.iMachine, to.iProcess, type, 0}) put(b, v);
    b.resize(MSG_PACKET_HEADER_SIZE, 0);
    return b;
}

TEST_F(MsgPacketTest, GoldenImages) {
    // MSG_CONNECTED_OK_MSG with no body: 201 bytes ending in the nine bytes
    // a data channel carries.
    MSG_PACKET *packet = nullptr;
    ASSERT_TRUE(MsgCreatePacket(&packet, address(nullptr, 6), MsgLocalAddress(), MSG_CONNECTED_OK_MSG, nullptr));
    Bytes expected = header(-6, 201, {1, 0}, {-1, 6}, 2711);
    for (unsigned char b : {0x09, 0x00, 0x00, 0x00, 0x97, 0x0a, 0x00, 0x00, 0x00}) expected.push_back(b);
    EXPECT_EQ(image(hold(packet)), expected);

    // The opening of the IPC connection: 228 bytes, kind 0, id 5, a pid.
    void *body = hold(ObjNewInternal(12, kIpcConnectMagic, "i;i;i;", nullptr, nullptr));
    ObjSetFromTagsVA(body, -2, 0, 0, 1, 5, 2, 4242, -1);
    ASSERT_TRUE(MsgCreatePacket(&packet, address(local(), 2), address(upper(), 5), MSG_IPC_CONNECT_MSG, body));
    expected = header(2, 228, {1, 5}, {1, 2}, 2716);
    put(expected, 36);
    put(expected, 2716);
    for (unsigned char b : {0x01, 0x59, 0xB9, 0x98, 0xC9}) expected.push_back(b);
    put(expected, 7);
    for (char c : std::string("i;i;i;")) expected.push_back(static_cast<unsigned char>(c));
    expected.push_back(0);
    for (int32_t v : {0, 5, 4242}) put(expected, v);
    ASSERT_EQ(expected.size(), 228u);
    EXPECT_EQ(image(hold(packet)), expected);
    EXPECT_TRUE(MsgPacketMsgType(packet) == MSG_IPC_CONNECT_MSG && !MsgPacketIsFromChannel(packet));
}

TEST_F(MsgPacketTest, RoutesFollowTheDestinationAlone) {
    const struct {
        const char *machine;
        int32_t process;
        int32_t route, machineId;
    } cases[] = {
        {nullptr, 9, -9, -1}, // a channel: no file is read, none exists yet
        {"", 7, 7, 1}, // this machine
        {"far", 7, 3, 4},
        {"far", 1, 3, 4},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.route);
        if (c.machine != nullptr) machines(home(), "[far]\nId=4\n");
        MSG_PACKET *packet = nullptr;
        const char *machine = c.machine != nullptr && c.machine[0] == '\0' ? upper() : c.machine;
        ASSERT_TRUE(MsgCreatePacket(&packet, address(machine, c.process), address(local(), 12), 1, nullptr));
        const Bytes b = image(hold(packet));
        EXPECT_EQ(word(b, 0), c.route);
        EXPECT_TRUE(word(b, 16) == c.machineId && word(b, 20) == c.process);
        EXPECT_EQ(MsgPacketIsFromChannel(packet), c.machineId == -1);
        // Redirected to the process manager here: route 1, the source as it was.
        ASSERT_TRUE(MsgRedirectPacket(MsgProcMgrAddress(), packet));
        const Bytes redirected = image(packet);
        EXPECT_TRUE(word(redirected, 0) == 1 && word(redirected, 16) == 1 && word(redirected, 20) == 1);
        EXPECT_TRUE(std::equal(b.begin() + 4, b.begin() + 16, redirected.begin() + 4));
        EXPECT_TRUE(std::equal(b.begin() + 24, b.end(), redirected.begin() + 24));
    }
}

constexpr char kMachines[] = "[beta]\nId=5\n\n[Retired:gamma]\nId=6\n\n[gamma]\nServer=true\nId=7\n[zero]\nId=0\n";

// A name maps to the id of this machine's file, case aside; a name without
// a positive id has none, and no packet is made for it.
TEST_F(MsgPacketTest, NamesMapToTheIdsOfThisMachinesFile) {
    ASSERT_NE(StrCompareNoCase(local(), "beta"), 0);
    machines(home(), kMachines);
    const struct {
        const char *name;
        BOOL found;
        int32_t id;
    } ids[] = {{nullptr, TRUE, -1}, {upper(), TRUE, 1}, {"beta", TRUE, 5}, {"Gamma", TRUE, 7},
               {"zero", FALSE, 0},  {"zeta", FALSE, 0}};
    for (const auto &c : ids) {
        int32_t id = 99;
        EXPECT_EQ(MsgMachineNameToId(&id, c.name), c.found) << (c.name ? c.name : "null");
        EXPECT_EQ(id, c.found ? c.id : 99) << (c.name ? c.name : "null");
    }
    MSG_PACKET *packet = nullptr;
    EXPECT_FALSE(MsgCreatePacket(&packet, address("zeta", 1), MsgLocalAddress(), 1, nullptr) || packet != nullptr);
    EXPECT_TRUE(MsgMachineIsServer("gamma") && !MsgMachineIsServer("beta") && !MsgMachineIsServer(nullptr));
}

// The reverse walk: a stanza with a category is never a machine.
TEST_F(MsgPacketTest, IdsMapBackToMachinesOnly) {
    machines(home(), kMachines);
    const struct {
        int32_t machine;
        const char *name; // "!" : not mapped
    } names[] = {{1, local()}, {-1, nullptr}, {5, "beta"}, {7, "gamma"}, {6, "!"}, {0, "!"}, {42, "!"}};
    for (const auto &c : names) {
        MSG_ADDRESS *a = nullptr;
        const MsgPacketAddress pair{c.machine, 3};
        const bool mapped = MsgAddressFromPacketAddress(&a, &pair);
        EXPECT_EQ(mapped, strcmp(c.name ? c.name : "", "!") != 0) << c.machine;
        if (!mapped) continue;
        EXPECT_TRUE(hold(a)->iProcess == 3);
        EXPECT_TRUE(c.name == nullptr ? MsgIsAChannel(a) : strcmp(a->pszMachine, c.name) == 0) << c.machine;
    }
    EXPECT_TRUE(traced("MESSAGE", 21, "Failed to map machine id 6 to name"));
}

// A packet made here to beta (5) from alpha (1), read on beta, whose own
// file calls id 5 "delta" and knows no id 1 but itself.
TEST_F(MsgPacketTest, APacketIsReadByItsReadersOwnFile) {
    machines(home(), kMachines);
    MSG_PACKET *packet = nullptr;
    ASSERT_TRUE(MsgCreatePacket(&packet, address("beta", 8), address(local(), 2), 4000, hold(ObjStringNew("payload"))));
    hold(packet);
    const std::string other = home() + "/beta";
    mkdir(other.c_str(), 0755);
    machines(other, "[alpha]\nId=9\n\n[delta]\nId=5\n");
    setenv("FHHOME", other.c_str(), 1);
    PathInitialize();
    SysSetLocalMachineName("beta");
    MSG_MESSAGE *message = nullptr;
    ASSERT_TRUE(MsgMessageFromPacket(&message, packet));
    hold(message);
    EXPECT_STREQ(MsgGetMachineName(message->oSource), "beta"); // 1 is always the reader
    EXPECT_STREQ(MsgGetMachineName(message->oDestination), "delta");
    EXPECT_TRUE(MsgType(message) == 4000 && strcmp(ObjGetString(message->oObject), "payload") == 0);
    setenv("FHHOME", home().c_str(), 1);
    PathInitialize();
    SysSetLocalMachineName(local());
}

// The frame length and frame type are not looked at; an unmapped machine
// leaves its address null and the message is still made.
TEST_F(MsgPacketTest, OnlyWhatAnImageMeansIsChecked) {
    const Bytes good = image(integerPacket());
    Bytes odd = good;
    odd[192] ^= 0xff;
    odd[196] ^= 0xff;
    odd[8] = 42;
    MSG_MESSAGE *message = nullptr;
    ASSERT_TRUE(MsgMessageFromPacket(&message, packetOf(odd)));
    hold(message);
    EXPECT_TRUE(message->oSource == nullptr && MsgGetProcessId(message->oDestination) == 0);
    EXPECT_EQ(ObjGetInteger(message->oObject), 77);
    EXPECT_TRUE(traced("MESSAGE", 21, "Failed to map machine id 42 to name"));
}

// Images that can't be what they say are refused before they are read.
TEST_F(MsgPacketTest, ImagesFromElsewhereAreCheckedBeforeTheyAreRead) {
    const Bytes good = image(integerPacket());
    const auto cut = [&](size_t size) {
        Bytes b(good.begin(), good.begin() + static_cast<long>(std::min(size, good.size())));
        b.resize(size, 0);
        b[4] = static_cast<unsigned char>(size); // total as long as the image
        return b;
    };
    Bytes longerTotal = good, badBody = good;
    longerTotal[4] += 1;
    badBody[200] = 7; // no such lead byte
    const std::string beyond = "Refused packet image of " + std::to_string(good.size()) + " bytes, total " +
                               std::to_string(good.size() + 1);
    const struct {
        const char *what;
        Bytes bytes;
        const char *traceText; // null: the header is sound, only the body is refused
    } refused[] = {
        {"header and frame head only", cut(200), "Refused packet image of 200 bytes, total -1"},
        {"total beyond the image", longerTotal, beyond.c_str()},
        {"body cut short", cut(good.size() - 1), nullptr},
        {"unknown lead byte", badBody, nullptr},
        {"empty", Bytes{}, "Refused packet image of 0 bytes, total -1"},
    };
    for (const auto &c : refused) {
        SCOPED_TRACE(c.what);
        MSG_PACKET *p = packetOf(c.bytes);
        void *object = nullptr;
        MSG_MESSAGE *message = nullptr;
        EXPECT_FALSE(MsgMessageFromPacket(&message, p) || MsgObjectFromPacketInternal(&object, p, 0));
        EXPECT_EQ(MsgPacketMsgType(p), c.traceText != nullptr ? 0 : 3000);
        EXPECT_TRUE(c.traceText == nullptr || traced("MESSAGE", 32, c.traceText));
    }
}

// The body alone, with the magic it must have; no body passes only an
// impossible magic.
TEST_F(MsgPacketTest, TheBodyComesWithTheMagicAsked) {
    MSG_PACKET *packet = integerPacket(), *empty = nullptr;
    ASSERT_TRUE(MsgCreatePacket(&empty, MsgLocalAddress(), MsgLocalAddress(), 3001, nullptr));
    hold(empty);
    const struct {
        MSG_PACKET *packet;
        uint32_t magic;
        bool passes;
    } magics[] = {{packet, 0, true},        {packet, OBJ_INTEGER_MAGIC, true}, {packet, OBJ_STRING_MAGIC, false},
                  {packet, 0xFFFFFFFFu, false}, {empty, 0xFFFFFFFFu, true},   {empty, 0, false}};
    for (const auto &c : magics) {
        void *object = reinterpret_cast<void *>(1);
        EXPECT_EQ(MsgObjectFromPacketInternal(&object, c.packet, c.magic), c.passes) << std::hex << c.magic;
        if (!c.passes) continue;
        EXPECT_EQ(c.packet == packet ? ObjGetInteger(object) : object == nullptr, c.packet == packet ? 77 : 1);
        if (object != nullptr) ObjReleaseInternal(&object);
    }
}

TEST_F(MsgPacketTest, MessagesHoldTheirPartsAndTravelWhole) {
    void *body = hold(ObjStringNew("x"));
    MSG_MESSAGE *message = nullptr;
    ASSERT_TRUE(MsgCreate(&message, MsgLogDaemonAddress(), 5000, body));
    hold(message);
    EXPECT_EQ(message->oSource, MsgLocalAddress());
    MSG_ADDRESS *a = nullptr;
    ASSERT_TRUE(MsgGetDestination(&a, message));
    EXPECT_EQ(a, MsgLogDaemonAddress());
    ObjReleaseInternal(&a);
    void *got = nullptr;
    EXPECT_FALSE(MsgGetObjectInternal(&got, message, OBJ_INTEGER_MAGIC));
    ASSERT_TRUE(MsgGetObjectInternal(&got, message, OBJ_STRING_MAGIC));
    EXPECT_EQ(got, body);
    ObjReleaseInternal(&got);
    EXPECT_FALSE(MsgCreate(&message, body, 1, nullptr)); // not an address

    // Through a packet and back: the same message.
    MSG_PACKET *packet = nullptr;
    ASSERT_TRUE(MsgMessageToPacket(&packet, message));
    hold(packet);
    MSG_MESSAGE *back = nullptr;
    ASSERT_TRUE(MsgMessageFromPacket(&back, packet));
    hold(back);
    EXPECT_TRUE(MsgAddressEqual(back->oDestination, message->oDestination));
    EXPECT_TRUE(MsgAddressEqual(back->oSource, message->oSource));
    EXPECT_TRUE(ObjCompare(back->oObject, body));
    EXPECT_TRUE(MsgIsFromLocalMachine(back) && !MsgIsFromAChannel(back));

    // A message arrives inside another object only with addresses in it.
    void *bytes = nullptr;
    const int32_t size = ObjSerializedSize(message);
    std::vector<unsigned char> form(static_cast<size_t>(size));
    ASSERT_TRUE(ObjSerializeToMemory(message, form.data(), nullptr));
    ASSERT_TRUE(ObjReconstructFromBytes(&bytes, form.data(), size));
    ObjReleaseInternal(&bytes);
    ObjReleaseInternal(&message->oDestination);
    message->oDestination = reinterpret_cast<MSG_ADDRESS *>(ObjIntegerNew(3));
    form.resize(static_cast<size_t>(ObjSerializedSize(message)));
    ASSERT_TRUE(ObjSerializeToMemory(message, form.data(), nullptr));
    EXPECT_FALSE(ObjReconstructFromBytes(&bytes, form.data(), static_cast<int32_t>(form.size())));
}

TEST_F(MsgPacketTest, AddressesCompareAndTheWellKnownAreBorrowed) {
    const struct {
        const char *m1;
        int32_t p1;
        const char *m2;
        int32_t p2;
        BOOL equal, machinesEqual;
    } cases[] = {
        {nullptr, 4, nullptr, 4, TRUE, TRUE}, {nullptr, 4, "", 4, TRUE, TRUE},    {"Alpha", 4, "aLPHA", 4, TRUE, TRUE},
        {"alpha", 4, "alpha", 5, FALSE, TRUE}, {"alpha", 4, "beta", 4, FALSE, FALSE}, {nullptr, 4, "x", 4, FALSE, FALSE},
    };
    for (const auto &c : cases) {
        MSG_ADDRESS *a = address(c.m1, c.p1), *b = address(c.m2, c.p2);
        EXPECT_EQ(MsgAddressEqual(a, b), c.equal) << c.p1 << (c.m2 ? c.m2 : "null");
        EXPECT_EQ(MsgAddressMachinesEqual(a, b), c.machinesEqual);
    }
    void *notAddress = hold(ObjIntegerNew(4));
    EXPECT_FALSE(MsgAddressEqual(notAddress, notAddress));
    EXPECT_TRUE(MsgGetProcessId(notAddress) == -1);
    EXPECT_TRUE(MsgGetChannelId(notAddress) == -1);
    EXPECT_TRUE(MsgGetChannelId(address(nullptr, 8)) == 8);
    EXPECT_TRUE(MsgGetChannelId(address("a", 8)) == -1);
    EXPECT_EQ(MsgGetMachineName(notAddress), nullptr);

    const int32_t objects = ObjCount();
    const struct {
        MSG_ADDRESS *(*get)();
        int32_t id;
    } wellKnown[] = {{MsgProcMgrAddress, 1}, {MsgCommMgrAddress, 2},    {MsgNetMgrAddress, 3},
                     {MsgLogDaemonAddress, 7}, {MsgAuditorAddress, 8}, {MsgChannelDummyAddress, 0}};
    for (const auto &w : wellKnown) {
        MSG_ADDRESS *a = w.get();
        ASSERT_NE(a, nullptr);
        EXPECT_EQ(a->iProcess, w.id);
        EXPECT_EQ(fh::objectHeader(a)->RefCount, 1); // nobody was given a reference
        EXPECT_EQ(MsgIsAChannel(a), w.get == MsgChannelDummyAddress);
    }
    EXPECT_EQ(ObjCount(), objects);
    gtLmContext.iProcessId = 17;
    ASSERT_TRUE(MsgCreateLocalAddress());
    EXPECT_TRUE(MsgLocalAddress()->iProcess == 17 && MsgIsLocalMachine(MsgLocalAddress()));
    EXPECT_EQ(ObjCount(), objects);
}

TEST_F(MsgPacketTest, AnUnknownChannelIsNowhereAndFromNoOne) {
    MSG_ADDRESS *channel = address(nullptr, 4);
    MSG_ADDRESS *sender = nullptr;
    EXPECT_FALSE(MsgSenderAddressFromSourceAddress(&sender, channel));
    EXPECT_FALSE(MsgIsLocalMachine(channel));
    EXPECT_FALSE(MsgAddressIsFrom(channel, channel));
    EXPECT_TRUE(MsgGetSenderFromSource(nullptr, channel)); // unsound arguments: nothing done
    ASSERT_TRUE(MsgSenderAddressFromSourceAddress(&sender, MsgProcMgrAddress()));
    EXPECT_EQ(sender, MsgProcMgrAddress());
    ObjReleaseInternal(&sender);

    MSG_MESSAGE *message = hold(static_cast<MSG_MESSAGE *>(ObjTemplateNewInstanceFromPool(gtObjTemplateMessage, nullptr)));
    message->oSource = address(nullptr, 4);
    ObjIncRefCount(message->oSource);
    EXPECT_TRUE(MsgIsFromAChannel(message));
    EXPECT_TRUE(MsgIsFrom(message, channel)); // a channel address compares as it is
    EXPECT_FALSE(MsgIsFrom(message, MsgProcMgrAddress()));
    EXPECT_TRUE(traced("MESSAGE", 22, "Could not find channel 4"));
    EXPECT_FALSE(MsgGetSender(&sender, message));
}

// A channel in the map stands for its peer: the sender of its messages is
// the peer, and it is on this machine as the peer is, unless a proxy stands
// behind it; an NDMP channel is always here and has no peer.
TEST_F(MsgPacketTest, AKnownChannelAnswersForItsPeer) {
    MSG_ADDRESS *here = address(local(), 5), *shouting = address(upper(), 5), *away = address("elsewhere", 5);
    MSG_ADDRESS *stranger = address(local(), 6);
    const struct {
        const char *name;
        MSG_ADDRESS *peer;
        bool proxy, ndmp;
        BOOL local, fromHere;
    } cases[] = {
        {"peer here", here, false, false, TRUE, TRUE},      {"name in capitals", shouting, false, false, TRUE, TRUE},
        {"peer away", away, false, false, FALSE, FALSE},    {"no peer", nullptr, false, false, FALSE, FALSE},
        {"behind a proxy", here, true, false, FALSE, TRUE}, {"ndmp", nullptr, false, true, TRUE, FALSE},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        nettest::Connection link;
        ASSERT_TRUE(link.connect());
        MSG_CHANNEL *channel = nullptr;
        ASSERT_TRUE(MsgChannelCreateInternal(&channel, link.server, c.peer, FALSE, TRUE, FALSE, FALSE, FALSE));
        link.server = -1;
        hold(channel);
        if (c.proxy) channel->oProxyPeer = ObjStringNew("proxy");
        channel->bIsNdmp = c.ndmp;
        auto *message = static_cast<MSG_MESSAGE *>(ObjTemplateNewInstanceFromPool(gtObjTemplateMessage, nullptr));
        hold(message)->oSource = channel->oAddress;
        ObjIncRefCount(channel->oAddress);

        EXPECT_TRUE(MsgIsLocalMachine(channel->oAddress) == c.local && MsgIsFromLocalMachine(message) == c.local);
        MSG_ADDRESS *sender = nullptr;
        EXPECT_EQ(MsgSenderAddressFromSourceAddress(&sender, channel->oAddress), c.peer != nullptr);
        EXPECT_EQ(sender, c.peer) << "the peer itself, with a reference";
        ObjReleaseInternal(&sender);
        EXPECT_EQ(MsgIsFrom(message, here), c.fromHere);
        EXPECT_EQ(MsgAddressIsFrom(here, channel->oAddress), c.fromHere);
        EXPECT_EQ(MsgIsFrom(message, away), c.peer == away);
        EXPECT_FALSE(MsgIsFrom(message, stranger));
        EXPECT_TRUE(MsgIsFrom(message, channel->oAddress)) << "a channel address compares as it is";
        EXPECT_FALSE(MsgIsFrom(message, address(nullptr, channel->iId + 1)));
        MSG_ADDRESS *closing = nullptr;
        ASSERT_TRUE(MsgChannelAddress(&closing, channel));
        ASSERT_TRUE(MsgChannelClose(&closing));
        EXPECT_FALSE(MsgIsLocalMachine(channel->oAddress)) << "out of the map, the channel is nowhere";
    }
}

TEST_F(MsgPacketTest, TheNetworksOfAMachine) {
    nettest::PlatformCallsBack back; // names that no name service is asked for
    fh::netCalls().gethostbyname = [](const char *) -> hostent * { return nullptr; };
    machines(home(),
             "[empty]\nContact Address=\nPreferred Address=10.0.0.2\n\n"
             "[stuck]\nContact Address=nowhere\nPreferred Address=10.0.0.3\n\n"
             "[many]\nContact Address=10.0.0.4, 10.0.0.9\nPreferred Address=10.0.0.4\n"
             "Networks=10.0.0.5, nowhere, 10.0.0.6, 10.0.0.5\n\n"
             "[none]\nServer=false\n");
    const struct {
        const char *machine;
        uint32_t preferred; // 0: none
        std::vector<uint32_t> nets;
    } cases[] = {
        {"", 0x7f000001, {0x7f000001}}, // this machine
        {"empty", 0x0a000002, {0x0a000002}},
        {"stuck", 0, {0x0a000003}},
        {"many", 0x0a000004, {0x0a000004, 0x0a000005, 0x0a000006}},
        {"none", 0, {}},
        {"unlisted", 0, {}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.machine);
        MSG_ADDRESS *a = address(c.machine[0] != '\0' ? c.machine : local(), 1);
        NetAddressT net;
        memset(&net, 0xEE, sizeof net);
        EXPECT_EQ(MsgPreferredNet(a, &net), c.preferred != 0);
        EXPECT_TRUE(c.preferred == 0 || (NetGetIpAddress(&net) == c.preferred && NetGetIpPort(&net) == 0));
        LIST *list = nullptr;
        EXPECT_EQ(MsgNets(&list, a), !c.nets.empty());
        std::vector<uint32_t> seen;
        for (LISTNODE *node = list != nullptr ? list->oFirst : nullptr; node != nullptr; node = node->oNext)
            seen.push_back(NetGetIpAddress(static_cast<const NetAddressT *>(node->oItem)));
        EXPECT_EQ(seen, c.nets);
        ObjReleaseInternal(&list);
    }
    NetAddressT net{};
    EXPECT_FALSE(MsgPreferredNet(address(nullptr, 3), &net));
}

} // namespace
