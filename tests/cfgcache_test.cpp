// The cache of parsed settings files behind the getters: it answers as the
// file does, it sees every change made underneath it (by this process, by
// another, by hand), and it stays within its slots.
#include "helpers.h"
#include "syscalls.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <functional>
#include <sstream>
#include <string>

namespace {

class CfgCacheTest : public LibraryTest {
  protected:
    void SetUp() override {
        LibraryTest::SetUp();
        mkdir((home() + "/config").c_str(), 0755);
    }
    void TearDown() override {
        fh::sys() = fh::platformCalls();
        LibraryTest::TearDown();
    }
    std::string path(const char *file) const { return home() + "/config/" + file; }
    // Writes the file and dates it a minute back, so that the cache keeps it.
    void write(const char *file, const std::string &text) const {
        std::ofstream(path(file), std::ios::binary) << text;
        age(file);
    }
    void age(const char *file) const {
        const timespec times[2] = {{time(nullptr) - 60, 0}, {time(nullptr) - 60, 0}};
        utimensat(AT_FDCWD, path(file).c_str(), times, 0);
    }
};

// A key as "keyword=v1|v2|<null>", or "-" for none; the key released.
std::string shown(StanzaKey *&key) {
    if (key == nullptr) return "-";
    std::string text = std::string(key->keyword) + "=";
    for (int32_t i = 0; i < key->valueCount; ++i)
        text += (i != 0 ? "|" : "") + std::string(key->values[i] != nullptr ? key->values[i] : "<null>");
    StnzReleaseKey(&key);
    return text;
}

std::string setting(const char *file, const char *section, const char *item) {
    char *value = nullptr;
    CfgGetString(&value, file, section, item, "<default>");
    return testhelp::taken(value);
}

int noFlush(int) { return 0; }

} // namespace

// Every lookup through the cache gives what a scan of the file gives, on a
// file full of the cases a sorted index could get wrong; the file is parsed
// once for all of them.
TEST_F(CfgCacheTest, AnswersAsTheFileDoes) {
    write("odd.cfg", "orphan=before any title\n"
                     "[Net]\nPort=1\nport=2\nName= a, b ,!,c,,\n"
                     "[net]\nExtra=3\nPort=9\n"
                     "[Empty]\n[Empty]\nHidden=4\n"
                     "[Net:Port]\nvalue=shown\n"
                     "[:Blank]\nk=empty category\n"
                     "[Cat:Title:With colon]\nk=v\n"
                     "[\x81" "aX]\nk=lead\n"
                     "[Zeta]\nk=last\n[Alpha]\nk=first\n");
    const char *queries[][3] = {
        {nullptr, "Net", "Port"},   {nullptr, "NET", "PORT"},  {nullptr, "Net", "Name"},
        {nullptr, "Net", "Extra"},  {nullptr, "Empty", "Hidden"}, {"Net", "Port", "value"},
        {"net", "port", "VALUE"},   {nullptr, "Blank", "k"},   {"", "Blank", "k"},
        {"Cat", "Title:With colon", "k"}, {"cat", "title:with COLON", "K"}, {nullptr, "Cat:Title", "k"},
        {nullptr, "\x81" "aX", "k"}, {nullptr, "\x81" "AX", "k"}, {nullptr, "\x81" "ax", "k"},
        {nullptr, "Zeta", "k"},     {nullptr, "Alpha", "k"},   {nullptr, "Net", "orphan"},
        {nullptr, "Nets", "Port"},  {nullptr, "Ne", "Port"},   {"X", "Net", "Port"},
        {nullptr, "Net", "Por"},    {nullptr, "Net", "Ports"},
    };
    const std::string file = path("odd.cfg");
    const fh::CfgSnapshot *snapshot = nullptr;
    ASSERT_EQ(fh::cfgCacheSnapshot(&snapshot, file.c_str()), fh::CfgCached::kReady);
    const int32_t parses = fh::cfgCacheParses();
    for (const auto &q : queries) {
        StanzaKey *cached = nullptr, *scanned = nullptr;
        ASSERT_EQ(fh::cfgCacheSnapshot(&snapshot, file.c_str()), fh::CfgCached::kReady);
        fh::cfgSnapshotKey(&cached, snapshot, q[0], q[1], q[2]);
        StnzLoadKeyFromFile(&scanned, file.c_str(), q[0], q[1], q[2]);
        EXPECT_EQ(shown(cached), shown(scanned)) << (q[0] ? q[0] : "(null)") << ":" << q[1] << " " << q[2];
    }
    EXPECT_EQ(fh::cfgCacheParses(), parses) << "the file was parsed again";
    EXPECT_EQ(setting("odd.cfg", "Net", "Port"), "shown");       // displayable first
    EXPECT_EQ(setting("odd.cfg", "Net", "Extra"), "<default>"); // only the first [Net] counts
}

// A change made underneath the cache, whatever its way, is seen by the next
// get, and only a change parses the file again.
TEST_F(CfgCacheTest, SeesEveryChangeMadeUnderneath) {
    fh::sys().fsync = noFlush;
    const std::string file = path("live.cfg");
    struct Case {
        const char *how;
        std::function<void()> change;
        const char *expected;
    } const cases[] = {
        {"set by this process (a rename)", [] { CfgSetString("live.cfg", "S", "k", "set"); }, "set"},
        {"rewritten in place by hand, same size",
         [&] {
             std::fstream out(file, std::ios::in | std::ios::out | std::ios::binary);
             out.seekp(6); // "[S]\nk=" comes first
             out << "SET";
         },
         "SET"},
        {"replaced by hand with a new file of the same size and date",
         [&] {
             struct stat before{};
             stat(file.c_str(), &before);
             std::stringstream text;
             text << std::ifstream(file, std::ios::binary).rdbuf();
             std::string replaced = text.str();
             replaced.replace(replaced.find("SET"), 3, "new");
             std::ofstream(file + ".tmp", std::ios::binary) << replaced;
             const timespec times[2] = {before.st_atim, before.st_mtim};
             utimensat(AT_FDCWD, (file + ".tmp").c_str(), times, 0);
             rename((file + ".tmp").c_str(), file.c_str());
         },
         "new"},
        {"a stanza appended in place",
         [] {
             Stanza *stanza = nullptr;
             StnzCreate(&stanza, "S", "k", 1);
             StanzaKey *key = nullptr;
             StnzAddValues(&key, "value", "appended");
             StnzAddKeyToStanza(&stanza, &key);
             CfgLocalAddStanza(stanza, "live.cfg", nullptr);
             StnzRelease(&stanza);
         },
         "appended"},
        {"removed", [&] { unlink(file.c_str()); }, "<default>"},
    };
    write("live.cfg", "[S]\nk=old\n");
    ASSERT_EQ(setting("live.cfg", "S", "k"), "old");
    for (const Case &c : cases) {
        age("live.cfg"); // dated back: the cache may keep what it reads now
        const std::string before = setting("live.cfg", "S", "k");
        const int32_t parses = fh::cfgCacheParses();
        EXPECT_EQ(setting("live.cfg", "S", "k"), before);
        EXPECT_EQ(fh::cfgCacheParses(), parses) << "an unchanged file was parsed again before: " << c.how;
        c.change();
        EXPECT_EQ(setting("live.cfg", "S", "k"), c.expected) << c.how;
    }
}

// Two processes take turns, 1,000 times: each sets the value the other
// just read and checks that it reads the other's set.
TEST_F(CfgCacheTest, TwoProcessesAlternatingSetsAndGets) {
    fh::sys().fsync = noFlush;
    write("turns.cfg", "[Turn]\nn=-1\n");
    int toChild[2], toParent[2];
    ASSERT_EQ(pipe(toChild), 0);
    ASSERT_EQ(pipe(toParent), 0);
    constexpr int kTurns = 1000;
    // One side's turn: wait for the other's set, check it, set the next one.
    const auto play = [](int in, int out, int first) {
        int misses = 0;
        for (int n = first; n < kTurns; n += 2) {
            char token = 0;
            if (n > 0 && ::read(in, &token, 1) != 1) return kTurns;
            int32_t seen = -2;
            CfgGetInteger(&seen, "turns.cfg", "Turn", "n", -3);
            misses += seen != n - 1;
            if (!CfgSetInteger("turns.cfg", "Turn", "n", n) || ::write(out, "x", 1) != 1) return kTurns;
        }
        return misses;
    };
    const pid_t child = fork();
    if (child == 0) _exit(std::min(play(toChild[0], toParent[1], 1), 100));
    const int parentMisses = play(toParent[0], toChild[1], 0);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(parentMisses, 0);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0) << "the child missed sets";
    int32_t last = 0;
    CfgGetInteger(&last, "turns.cfg", "Turn", "n", -3);
    EXPECT_EQ(last, kTurns - 1);
    for (int fd : {toChild[0], toChild[1], toParent[0], toParent[1]}) close(fd);
}

// More files than slots, and a file too large to keep: every value is
// right, the least recently used file makes room, and the cache never holds
// more than its slots.
TEST_F(CfgCacheTest, StaysWithinItsSlots) {
    constexpr int kFiles = fh::kCfgCacheFiles + 2;
    for (int f = 0; f < kFiles; ++f) {
        const std::string name = "f" + std::to_string(f) + ".cfg";
        write(name.c_str(), "[S]\nk=" + std::to_string(f) + "\n");
    }
    std::string large = "[Big]\n";
    while (large.size() <= static_cast<size_t>(fh::kCfgCacheLargestFile)) large += "padding=0123456789abcdef\n";
    write("large.cfg", large + "k=large\n");
    for (int round = 0; round < 3; ++round) {
        for (int f = 0; f < kFiles; ++f) {
            const std::string name = "f" + std::to_string(f) + ".cfg";
            EXPECT_EQ(setting(name.c_str(), "S", "k"), std::to_string(f));
            EXPECT_LE(fh::cfgCacheBlocks(), 3 * fh::kCfgCacheFiles);
        }
        EXPECT_EQ(setting("large.cfg", "Big", "k"), "large");
    }
    const int32_t parses = fh::cfgCacheParses();
    for (int f = 0; f < 2; ++f) EXPECT_EQ(setting("f5.cfg", "S", "k"), "5"); // most recent: kept
    EXPECT_EQ(fh::cfgCacheParses(), parses);
    fh::cfgCacheRelease();
    EXPECT_EQ(fh::cfgCacheBlocks(), 0);
}
