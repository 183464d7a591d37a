// Machine information: the local files against a machine's stanza, the
// defaults and traps of each question, and MachInfoFind through a real
// communication manager with and without a network manager behind it.
#include <sys/stat.h>

#include <fstream>

#include "daemon.h"
#include "helpers.h"
#include "messages/msgnmgr.h"
#include "net_support.h"

namespace {

class MachInfoTest : public LibraryTest {
protected:
    void SetUp() override {
        LibraryTest::SetUp();
        mkdir((home() + "/etc").c_str(), 0755);
        port_ = testsupport::freePort();
        testsupport::writeMachineSettings(
            home(), port_, "[Details]\nServer=true\nDescription=Local box\nLMBuildLevel=12\nPreferred Address=10.0.0.1\n");
        std::ofstream(home() + "/config/version.cfg") << "[Details]\nLMVersion=6013\nLMBuildLevel=4\n";
        machines("7002");
        here_ = hereUpper_ = SysLocalMachineName();
        for (char &c : hereUpper_) c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
    }
    void machines(const std::string &fullVersion) {
        std::ofstream(home() + "/etc/machines.dat")
            << "[full]\nType=WinNT\nServer=false\nDescription=Full one\nLMVersion=" << fullVersion
            << "\nLMBuildlevel=33\nPreferred Address=pref.example\nContact Address=contact.example\n"
            << "[bare]\nId=4\n[odd]\nType=vms\nServer=TRUE\n";
    }
    int port_ = 0;
    // This machine's name, and the same in upper case.
    std::string here_, hereUpper_;
};

using IntegerQuestion = BOOL (*)(int32_t *, const char *);

// Each integer question of each kind of machine: the result, the value
// (-7 is the value left untouched) and a trace it must leave.
TEST_F(MachInfoTest, IntegerQuestions) {
    const IntegerQuestion type = MachInfoGetSystemType, server = MachInfoIsLMServer, version = MachInfoGetLMVersion,
                          both = MachInfoGetLMVersionAndBuild, patch = MachInfoGetLMPatchLevel;
    const struct {
        IntegerQuestion question;
        const char *machine;
        BOOL result;
        int32_t value;
        const char *traced;
        int32_t id;
    } cases[] = {
        {type, hereUpper_.c_str(), TRUE, -7, nullptr, 0},       {type, "full", TRUE, 1, nullptr, 0},
        {type, "bare", TRUE, 0, nullptr, 0},        {type, "odd", FALSE, -7, "Machine is of unknown type!", 3},
        {type, "none", FALSE, -7, "Have no info for machine 'none'", 2},
        {server, here_.c_str(), TRUE, TRUE, nullptr, 0},   {server, "full", TRUE, FALSE, nullptr, 0},
        {server, "odd", TRUE, TRUE, nullptr, 0},    {server, "bare", TRUE, FALSE, "Cannot find SERVER key!", 4},
        {version, here_.c_str(), TRUE, 6013, nullptr, 0},  {version, "full", TRUE, 7002, nullptr, 0},
        {version, "bare", TRUE, 6003, nullptr, 0},  {version, "none", FALSE, -7, nullptr, 0},
        {both, here_.c_str(), TRUE, 6013004, nullptr, 0},  {both, "full", TRUE, 7002033, nullptr, 0},
        {both, "bare", TRUE, 6003000, "Machine info has no build level key", 6},
        {patch, here_.c_str(), TRUE, 12, nullptr, 0},      {patch, "full", TRUE, 33, nullptr, 0},
        {patch, "bare", TRUE, 0, nullptr, 0},
    };
    for (const auto &c : cases) {
        int32_t value = -7;
        EXPECT_EQ(c.question(&value, c.machine), c.result) << c.machine;
        EXPECT_EQ(value, c.value) << c.machine;
        if (c.traced != nullptr) {
            EXPECT_TRUE(traced("MACHINFO", c.id, c.traced));
        }
    }
    EXPECT_EQ(MachInfoLMVersionMajor("full") * 100 + MachInfoLMVersionMinor("full"), 702);
    EXPECT_EQ(MachInfoLMVersionMajor("none") + MachInfoLMVersionMinor("none"), 0);
}

TEST_F(MachInfoTest, TextQuestionsAndVersionTexts) {
    using TextQuestion = BOOL (*)(char **, const char *);
    const TextQuestion description = MachInfoGetDescription, preferred = MachInfoGetPreferredAddr,
                       contact = MachInfoGetContactAddr;
    const struct {
        TextQuestion question;
        const char *machine;
        const char *text; // "<null>": FALSE
    } cases[] = {
        {description, here_.c_str(), "Local box"},   {description, "full", "Full one"}, {description, "bare", "<null>"},
        {preferred, here_.c_str(), "10.0.0.1"},      {preferred, "full", "pref.example"}, {preferred, "bare", "bare"},
        {contact, hereUpper_.c_str(), hereUpper_.c_str()},            {contact, "full", "contact.example"}, {contact, "none", "<null>"},
    };
    for (const auto &c : cases) {
        char *text = nullptr;
        EXPECT_EQ(c.question(&text, c.machine), std::string(c.text) != "<null>") << c.machine;
        EXPECT_EQ(testhelp::taken(text), c.text) << c.machine;
    }
    EXPECT_TRUE(traced("MACHINFO", 5, "Machine info for bare has no description key"));

    const std::pair<int32_t, const char *> texts[] = {{7002, "7.02"}, {7010, "7.10"}, {6003, "6.03"}, {6013, "6.13"}, {0, "0.00"}};
    for (const auto &[number, text] : texts) EXPECT_STREQ(MachInfoLMVersionStringFromLMVersion(number), text);
    EXPECT_EQ(MachInfoLMVersionString("full"), MachInfoLMVersionStringFromLMVersion(1)); // one static buffer
    // The stanza is read anew for every question.
    machines("7005");
    EXPECT_STREQ(MachInfoLMVersionString("full"), "7.05");
}

// MachInfoFind: the local machine at once; without an IPC channel, and with
// a communication manager but no network manager, FALSE at once; with a
// network manager, its answer decides.
TEST_F(MachInfoTest, FindAsksTheNetworkManager) {
    EXPECT_TRUE(MachInfoFind(hereUpper_.c_str()));
    EXPECT_TRUE(traced("MACHINFO", 7, "Always have details for local machine"));
    EXPECT_FALSE(MachInfoFind("full"));
    EXPECT_TRUE(traced("MACHINFO", 7, "Failed to send request to network manager"));
    for (MSG_PACKET *p = nullptr; MsgReceivePopPacket(&p);) ObjReleaseInternal(&p);

    testsupport::Daemon manager(home(), "fhcmgr", {"2"});
    ASSERT_FALSE(manager.readyLine().empty());
    const testhelp::Gate go;
    // The network manager, once told to join, says hello (when that arrives
    // the manager has bound it); then it answers "full" soundly, anything
    // else with a body of another type, and ends after "stop".
    constexpr int32_t kHello = 50001;
    const pid_t networkManager = nettest::child([&] {
        if (!go.pass() || !ProcSetId(MSG_PROCESS_NETMGR) || !MsgIpcConnect(0) ||
            !testhelp::sendTo(41, kHello, nullptr))
            return 3;
        for (MSG_MESSAGE *m = nullptr;
             MsgWaitMessageWithTimeout(&m, nullptr, NMGR_GET_CURRENT_MACHINE_DETAILS_REQUEST_MSG, nullptr);
             ObjReleaseInternal(&m)) {
            const char *name = static_cast<NMGR_GET_CURRENT_MACHINE_DETAILS_REQUEST *>(m->oObject)->pszMachine;
            auto *answer = testhelp::newObject<NMGR_GET_CURRENT_MACHINE_DETAILS_RESPONSE>(
                NMGR_GET_CURRENT_MACHINE_DETAILS_RESPONSE_MAGIC, NMGR_GET_CURRENT_MACHINE_DETAILS_RESPONSE_FORMAT);
            OBJ_INTEGER *other = ObjIntegerNew(5);
            MsgSendReply(m, NMGR_GET_CURRENT_MACHINE_DETAILS_RESPONSE_MSG,
                         StrCompare(name, "full") == 0 ? static_cast<void *>(answer) : other);
            if (StrCompare(name, "stop") == 0) return 0;
        }
        return 4;
    });
    ASSERT_TRUE(ProcSetId(41) && MsgIpcConnect(0));
    EXPECT_FALSE(MachInfoFind("full"));
    EXPECT_TRUE(traced("MACHINFO", 7, "Failed to get response from network manager"));
    ASSERT_TRUE(go.open());
    ASSERT_TRUE(testhelp::heard(kHello, MSG_PROCESS_NETMGR));
    EXPECT_TRUE(MachInfoFind("full"));
    EXPECT_TRUE(traced("MACHINFO", 7, "Have info on machine 'full'"));
    EXPECT_FALSE(MachInfoFind("other"));
    EXPECT_TRUE(traced("MACHINFO", 7, "Bad response object"));
    EXPECT_FALSE(MachInfoFind("stop"));
    EXPECT_EQ(nettest::waitChild(networkManager), 0);
    EXPECT_TRUE(manager.stop());
    testhelp::resetMessaging();
}

} // namespace
