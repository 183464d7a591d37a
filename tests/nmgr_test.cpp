// The network manager between two machines on one host, alpha at 127.0.0.1
// and beta at 127.0.0.2, each with its own communication manager: a message
// and its reply across, with each side seeing the other's id of its own
// file; the details request writing the far machine's settings into the
// stanza; a machine lost reported to every process; packets that can't go
// answered; and a peer's bytes that break the rules refused.
#include <arpa/inet.h>

#include <chrono>
#include <fstream>
#include <thread>

#include "core/fhcore.h"
#include "machine.h"
#include "messages/msgcmgr.h"
#include "messages/msgmsg.h"
#include "messages/msgnmgr.h"
#include "msgchannel.h"
#include "net_support.h"

namespace {

using nettest::await;
using testsupport::Machine;

// Ids the machines have in each other's file: different, so that an id
// that was not translated shows.
constexpr int kBetaAtAlpha = 7;
constexpr int kAlphaAtBeta = 5;
constexpr int kGammaAtAlpha = 9;

class NmgrTest : public LibraryTest {
protected:
    void SetUp() override {
        LibraryTest::SetUp();
        SysLocalMachineName(); // held from here on, so that entering a machine adds no block
        peerPort_ = testsupport::freePortAt({"127.0.0.1", "127.0.0.2"});
        ASSERT_NE(peerPort_, 0);
        alpha_ = std::make_unique<Machine>(home(), "alpha", "127.0.0.1", peerPort_);
        beta_ = std::make_unique<Machine>(home(), "beta", "127.0.0.2", peerPort_);
        alpha_->knows(*beta_, kBetaAtAlpha);
        alpha_->knows("gamma", kGammaAtAlpha, "127.0.0.3"); // no network manager there
        beta_->knows(*alpha_, kAlphaAtBeta);
        ASSERT_TRUE(alpha_->start());
        ASSERT_TRUE(beta_->start());
    }
    void TearDown() override {
        nettest::leaveManager();
        for (auto *machine : {&beta_, &alpha_})
            EXPECT_TRUE(*machine == nullptr || (*machine)->stop()) << (machine == &beta_ ? "beta" : "alpha");
        LibraryTest::TearDown();
    }
    static bool join(const Machine &machine, int32_t id) {
        machine.enter();
        return nettest::join(id);
    }
    static MsgPacketAddress sourceOf(const MSG_PACKET *packet) {
        const auto *image = static_cast<const unsigned char *>(packet->oImage.pData);
        return {fh::msgGetLe32(image + 8), fh::msgGetLe32(image + 12)};
    }
    // Pings beta's process id until it answers with a pong (it may join
    // later than this process); the pong's source in *from.
    static bool reach(int32_t id, MsgPacketAddress *from = nullptr) {
        for (int attempt = 0; attempt < 100; ++attempt) {
            OBJ_INTEGER *body = ObjIntegerNew(attempt);
            const bool sent = nettest::sendTo(id, MSG_PING_MSG, body, "beta");
            ObjReleaseInternal(&body);
            if (!sent) return false;
            MSG_PACKET *answer = nullptr;
            if (await({MSG_PONG_MSG, CMGR_PROCESS_UNREACHABLE_MSG}, 2000, &answer) == MSG_PONG_MSG) {
                if (from != nullptr) *from = sourceOf(answer);
                ObjReleaseInternal(&answer);
                return true;
            }
            ObjReleaseInternal(&answer);
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        return false;
    }
    // Asks alpha's network manager for the details of machine; the answer's
    // bKnown, or -1 when no sound answer naming the machine came.
    static int askDetails(const char *machine) {
        auto *request = static_cast<NMGR_GET_CURRENT_MACHINE_DETAILS_REQUEST *>(ObjNewInternal(
            sizeof(NMGR_GET_CURRENT_MACHINE_DETAILS_REQUEST), NMGR_GET_CURRENT_MACHINE_DETAILS_REQUEST_MAGIC,
            NMGR_GET_CURRENT_MACHINE_DETAILS_REQUEST_FORMAT, nullptr, nullptr));
        request->pszMachine = StrDuplicateIntoPool(machine, nullptr);
        const bool sent = MsgSendObject(MsgNetMgrAddress(), NMGR_GET_CURRENT_MACHINE_DETAILS_REQUEST_MSG, request);
        ObjReleaseInternal(&request);
        MSG_PACKET *answer = nullptr;
        if (!sent || await({NMGR_GET_CURRENT_MACHINE_DETAILS_RESPONSE_MSG}, 10000, &answer) == 0) return -1;
        const nettest::Body body(answer, NMGR_GET_CURRENT_MACHINE_DETAILS_RESPONSE_MAGIC);
        const auto *response = body.as<NMGR_GET_CURRENT_MACHINE_DETAILS_RESPONSE>();
        return response != nullptr && response->pszMachine != nullptr && std::string(response->pszMachine) == machine
                   ? response->bKnown
                   : -1;
    }
    // The value of key in the stanza of machine in alpha's "machines.dat".
    std::string alphaKnows(const char *machine, const char *key) const {
        const std::string path = alpha_->home() + "/etc/machines.dat";
        Stanza *stanza = nullptr;
        char *value = nullptr;
        std::string text = "(none)";
        if (StnzLoadStanzaFromFile(&stanza, path.c_str(), nullptr, machine) &&
            StnzGetString(stanza, key, nullptr, &value) && value != nullptr)
            text = value;
        MemFreeInternal(&value);
        StnzRelease(&stanza);
        return text;
    }

    int peerPort_ = 0;
    std::unique_ptr<Machine> alpha_, beta_;
};

// A ping from alpha reaches a process of beta, which sees alpha's id of its
// own file as the source and answers with a pong that alpha sees from
// beta's id of alpha's file.
TEST_F(NmgrTest, MessageAndReplyCrossWithEachSidesIds) {
    const pid_t far = nettest::child([this] {
        if (!join(*beta_, 30)) return 3;
        MSG_PACKET *ping = nullptr;
        if (await({MSG_PING_MSG}, 20000, &ping) != MSG_PING_MSG) return 4;
        const MsgPacketAddress from = sourceOf(ping);
        MSG_MESSAGE *message = nullptr;
        const bool answered = MsgMessageFromPacket(&message, ping) && MsgSendReply(message, MSG_PONG_MSG, nullptr);
        const char *machine = message != nullptr ? MsgGetMachineName(message->oSource) : nullptr;
        const bool named = machine != nullptr && std::string(machine) == "alpha";
        ObjReleaseInternal(&message);
        ObjReleaseInternal(&ping);
        if (from.iMachine != kAlphaAtBeta || from.iProcess != 21 || !named) return 5;
        return answered && await({MSG_LOST_RECEIVE_QUEUE_MSG}, 20000) != 0 ? 0 : 6;
    });
    ASSERT_TRUE(join(*alpha_, 21));
    MsgPacketAddress from{};
    EXPECT_TRUE(reach(30, &from));
    EXPECT_EQ(from.iMachine, kBetaAtAlpha);
    EXPECT_EQ(from.iProcess, 30);
    beta_->stop();
    EXPECT_EQ(nettest::waitChild(far), 0);
}

// The details request brings beta's own settings into its stanza in alpha's
// file, keeping the id and the address; the manager answers for its own
// machine, and for machines it has no stanza or no peer for, as unknown.
TEST_F(NmgrTest, DetailsRequestWritesThePeersSettings) {
    std::ofstream(beta_->home() + "/config/version.cfg") << "[Details]\nLMVersion=7005\nLMBuildLevel=12\n";
    std::ofstream(beta_->home() + "/config/configure.cfg", std::ios::app)
        << "\n[Details]\nServer=true\nDescription=the second machine\n";
    ASSERT_TRUE(join(*alpha_, 21));
    const struct {
        const char *machine;
        int known;
    } cases[] = {{"beta", TRUE}, {"BETA", TRUE}, {"alpha", TRUE}, {"gamma", FALSE}, {"nowhere", FALSE}};
    for (const auto &c : cases) EXPECT_EQ(askDetails(c.machine), c.known) << c.machine;

    const struct {
        const char *key, *value;
    } written[] = {{"LMVersion", "7005"},          {"LMBuildlevel", "12"}, {"Server", "true"},
                   {"Description", "the second machine"}, {"Type", "unix"},       {"Id", "7"},
                   {"Contact Address", "127.0.0.2"}};
    for (const auto &w : written) EXPECT_EQ(alphaKnows("beta", w.key), w.value) << w.key;
    EXPECT_EQ(alphaKnows("gamma", "LMVersion"), "(none)");

    std::ofstream(beta_->home() + "/config/version.cfg") << "[Details]\nLMVersion=7006\n";
    EXPECT_TRUE(MachInfoFind("beta")) << "over the connection already made";
    int32_t version = 0;
    EXPECT_TRUE(MachInfoGetLMVersion(&version, "beta"));
    EXPECT_EQ(version, 7006);
}

// Beta's network manager lost, alpha's manager tells its communication
// manager, which tells every process of alpha that beta is down.
TEST_F(NmgrTest, LostPeerBringsMachineDownToEveryProcess) {
    const pid_t other = nettest::child([this] {
        if (!join(*alpha_, 22) || !nettest::answerProbe(21)) return 3;
        MSG_PACKET *news = nullptr;
        if (await({CMGR_MACHINE_DOWN_MSG}, 20000, &news) != CMGR_MACHINE_DOWN_MSG) return 4;
        const nettest::Body down(news, CMGR_MACHINE_DOWN_MAGIC);
        return down.object != nullptr && std::string(down.as<CMGR_MACHINE_DOWN>()->pszMachine) == "beta" ? 0 : 5;
    });
    ASSERT_TRUE(join(*alpha_, 21));
    ASSERT_TRUE(nettest::reach(22)) << "the other process has joined";
    ASSERT_EQ(askDetails("beta"), TRUE) << "the connection is up";
    beta_->killNetworkManager();
    MSG_PACKET *news = nullptr;
    ASSERT_EQ(await({CMGR_MACHINE_DOWN_MSG}, 10000, &news), CMGR_MACHINE_DOWN_MSG);
    EXPECT_EQ(sourceOf(news).iProcess, MSG_PROCESS_COMMMGR);
    const nettest::Body down(news, CMGR_MACHINE_DOWN_MAGIC);
    ASSERT_NE(down.object, nullptr);
    EXPECT_STREQ(down.as<CMGR_MACHINE_DOWN>()->pszMachine, "beta");
    EXPECT_EQ(nettest::waitChild(other), 0);
}

// A packet for a machine that no peer serves (its manager isn't there, or
// the id has no stanza) comes back as NMGR_MACHINE_UNREACHABLE_MSG from
// that machine's id, with the lost type and body.
TEST_F(NmgrTest, PacketNoPeerServesComesBackUnreachable) {
    ASSERT_TRUE(join(*alpha_, 21));
    for (const int32_t machine : {kGammaAtAlpha, 11}) {
        OBJ_INTEGER *lost = ObjIntegerNew(4242);
        MSG_ADDRESS *gamma = nullptr;
        MSG_PACKET *packet = nullptr;
        ASSERT_TRUE(MsgCreateAddress(&gamma, "gamma", 40));
        ASSERT_TRUE(MsgCreatePacket(&packet, gamma, MsgLocalAddress(), MSG_KEEP_ALIVE_MSG, lost));
        fh::msgPutLe32(static_cast<unsigned char *>(packet->oImage.pData) + 16, machine);
        ObjReleaseInternal(&gamma);
        ObjReleaseInternal(&lost);
        ASSERT_TRUE(MsgDispatch(&packet));

        MSG_PACKET *news = nullptr;
        ASSERT_EQ(await({NMGR_MACHINE_UNREACHABLE_MSG}, 10000, &news), NMGR_MACHINE_UNREACHABLE_MSG) << machine;
        EXPECT_EQ(sourceOf(news).iMachine, machine);
        const nettest::Body body(news, NMGR_MACHINE_UNREACHABLE_MAGIC);
        const auto *unreachable = body.as<NMGR_MACHINE_UNREACHABLE>();
        ASSERT_NE(unreachable, nullptr);
        EXPECT_EQ(unreachable->iMsgType, MSG_KEEP_ALIVE_MSG);
        ASSERT_TRUE(ObjCheckTypeInternal(unreachable->oObject, OBJ_INTEGER_MAGIC));
        EXPECT_EQ(ObjGetInteger(unreachable->oObject), 4242);
    }
}

// With no network manager on alpha, its communication manager answers a
// packet for beta itself.
TEST_F(NmgrTest, NoNetworkManagerMeansProcessUnreachable) {
    alpha_->killNetworkManager();
    ASSERT_TRUE(join(*alpha_, 21));
    ASSERT_TRUE(nettest::sendTo(30, MSG_KEEP_ALIVE_MSG, nullptr, "beta"));
    MSG_PACKET *news = nullptr;
    ASSERT_EQ(await({CMGR_PROCESS_UNREACHABLE_MSG}, 10000, &news), CMGR_PROCESS_UNREACHABLE_MSG);
    const nettest::Body body(news, CMGR_PROCESS_UNREACHABLE_MAGIC);
    const auto *unreachable = body.as<CMGR_PROCESS_UNREACHABLE>();
    ASSERT_NE(unreachable, nullptr);
    EXPECT_STREQ(MsgGetMachineName(unreachable->oAddress), "beta");
    EXPECT_EQ(MsgGetProcessId(unreachable->oAddress), 30);
}

// Bytes on beta's peer port that break the rules close that connection and
// nothing else: beta still serves alpha afterwards.
TEST_F(NmgrTest, PeerThatBreaksTheRulesIsCutOff) {
    const auto frame = [](uint32_t kind, const std::string &payload, uint32_t length = 0) {
        std::string bytes(8, '\0');
        fh::msgPutLe32(reinterpret_cast<unsigned char *>(bytes.data()),
                       static_cast<int32_t>(length != 0 ? length : payload.size() + 4));
        fh::msgPutLe32(reinterpret_cast<unsigned char *>(bytes.data() + 4), static_cast<int32_t>(kind));
        return bytes + payload;
    };
    const std::string cases[] = {
        frame(1, "alpha", 0x7fffffff),                  // a length past the bound
        frame(9, "alpha"),                              // an unknown kind
        frame(1, "al]pha"),                             // a name that isn't a title
        frame(1, "nowhere"),                            // a machine beta doesn't know
        frame(3, ""),                                   // asking before hello
        frame(1, "alpha") + frame(2, std::string(3, '\x05')), // a packet cut short
    };
    for (const std::string &bytes : cases) {
        nettest::Connection raw;
        NetAddressT at{};
        NetInitializeIpAddress(&at, ntohl(inet_addr(beta_->address().c_str())), peerPort_);
        ASSERT_EQ(NetConnect(raw.client, &at), NET_ERROR_NONE);
        ASSERT_EQ(send(raw.client, bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
        timeval limit{5, 0};
        setsockopt(raw.client, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        char sink[256];
        ssize_t got = 0;
        while ((got = recv(raw.client, sink, sizeof sink, 0)) > 0) {
        }
        EXPECT_EQ(got, 0) << "closed by beta: " << testing::PrintToString(bytes);
    }
    ASSERT_TRUE(join(*alpha_, 21));
    EXPECT_EQ(askDetails("beta"), TRUE);
}

} // namespace
