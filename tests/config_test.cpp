// Settings by file, section and item in real files under the test's home
// directory: the two stored forms and which one wins, every getter's result
// and out value, the setters' exact text, value-list entries, keys of plain
// stanzas, paths and map files, settings in a held stanza list, the split of
// a nested value list, and processes that write one file at the same time.
#include "helpers.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <string>

namespace {

class ConfigTest : public LibraryTest {
  protected:
    void SetUp() override {
        LibraryTest::SetUp();
        mkdir((home() + "/config").c_str(), 0755);
    }
    std::string path(const char *file) const { return home() + "/config/" + file; }
    void write(const char *file, const std::string &text) const { testhelp::writeFile(path(file), text); }
    std::string read(const char *file) const { return testhelp::readFile(path(file)); }
};

using testhelp::taken;

// The OBJ_STRING items of a list as "a|<null>|b", and the list released.
std::string items(LIST *&list) {
    std::string text;
    for (const LISTNODE *node = list->oFirst; node != nullptr; node = node->oNext) {
        const char *item = ObjGetString(node->oItem);
        text += (node != list->oFirst ? "|" : "") + std::string(item != nullptr ? item : "<null>");
    }
    ObjReleaseInternal(&list);
    return text;
}

LIST *listOf(std::initializer_list<const char *> texts) {
    LIST *list = ListNewFromPool(OBJ_STRING_MAGIC, nullptr);
    for (const char *text : texts) {
        OBJ_STRING *item = ObjStringNew(text);
        ListPushLastItemInternal(list, &item);
    }
    return list;
}

TEST_F(ConfigTest, GettersTakeTheDisplayableFormFirst) {
    write("net.cfg", "[Net:Port]\nvalue=1\n[Net]\nPort=2\nName=alpha, beta\nEmpty=\nBad=12x\nFlag=yes\nOn=TRUE\n"
                     "Big=5000000000\n[Other:Thing]\nnot value=3\n");
    int32_t number = -1;
    EXPECT_TRUE(CfgGetInteger(&number, "net.cfg", "net", "PORT", 9));
    EXPECT_EQ(number, 1);
    // [Other:Thing] has no key "value": the plain form, which is missing too.
    EXPECT_FALSE(CfgGetInteger(&number, "net.cfg", "Other", "Thing", 9));
    EXPECT_EQ(number, 9);
    EXPECT_TRUE(traced("CFGLOCAL", 7, "Trying to load key 'Thing' from stanza 'Other'"));
    struct Case {
        const char *item;
        BOOL result;
        int32_t number; // -1: untouched
    } integers[] = {{"Empty", TRUE, 0}, {"Bad", FALSE, -1}, {"Missing", FALSE, 77}, {"Big", FALSE, -1}};
    for (const Case &c : integers) {
        number = -1;
        EXPECT_EQ(CfgGetInteger(&number, "net.cfg", "Net", c.item, 77), c.result) << c.item;
        EXPECT_EQ(number, c.number) << c.item;
    }
    int64_t wide = 0;
    EXPECT_TRUE(CfgGetInt64(&wide, "net.cfg", "Net", "Big", 0));
    EXPECT_EQ(wide, 5000000000LL);
    EXPECT_FALSE(CfgGetInt64(&wide, "nofile.cfg", "Net", "Big", -5));
    EXPECT_EQ(wide, -5);
    BOOL flag = 7; // "yes" and "" are no booleans
    for (const auto &[item, result, value] : {std::tuple{"Flag", FALSE, 7}, {"Empty", FALSE, 7}, {"On", TRUE, TRUE}}) {
        EXPECT_EQ(CfgGetBoolean(&flag, "net.cfg", "Net", item, !value), result) << item;
        EXPECT_EQ(flag, value) << item;
    }
    char *text = nullptr;
    EXPECT_TRUE(CfgGetString(&text, "net.cfg", "Net", "Name", "none"));
    EXPECT_EQ(taken(text), "alpha");
    EXPECT_TRUE(CfgGetString(&text, "net.cfg", "Net", "Empty", "none"));
    EXPECT_EQ(taken(text), "<null>");
    EXPECT_FALSE(CfgGetString(&text, "net.cfg", "Net", "Missing", "none"));
    EXPECT_EQ(taken(text), "none");
    LIST *list = nullptr;
    EXPECT_TRUE(CfgGetValueList(&list, "net.cfg", "Net", "Name"));
    EXPECT_EQ(items(list), "alpha|beta");
    EXPECT_FALSE(CfgGetValueList(&list, "net.cfg", "Net", "Missing"));
    EXPECT_EQ(list, nullptr);
    StanzaKey *key = nullptr;
    ASSERT_TRUE(CfgGetKey("net.cfg", "Net", "Port", &key));
    EXPECT_STREQ(key->keyword, "value");
    StnzReleaseKey(&key);
}

TEST_F(ConfigTest, SettersKeepTheFormAndWriteExactText) {
    write("net.cfg", "[Net:Port]\nvalue=1\n[Net]\nPort=2\n[Tail]\nx=1\n");
    ASSERT_TRUE(CfgSetInteger("net.cfg", "Net", "Port", 3));
    EXPECT_TRUE(traced("CFGLOCAL", 8, "CfgItem Net:Port displayable = 'TRUE'"));
    EXPECT_TRUE(traced("CFGLOCAL", 9, "Replacing displayable stanza"));
    EXPECT_EQ(read("net.cfg"), "[Net]\nPort=2\n\n[Tail]\nx=1\n\n\n[Net:Port]\nvalue=3\n\n");
    // A new setting is plain; "true" and "false" are written in lower case.
    write("fresh.cfg", "");
    ASSERT_TRUE(CfgSetBoolean("fresh.cfg", "Net", "Fast", TRUE));
    EXPECT_TRUE(traced("CFGLOCAL", 10, "Replacing non-displayable stanza"));
    ASSERT_TRUE(CfgSetInt64("fresh.cfg", "Net", "Big", -5000000000LL));
    ASSERT_TRUE(CfgSetString("fresh.cfg", "Net", "Path", " C:, D: "));
    LIST *list = listOf({"a", "b,c", nullptr});
    ASSERT_TRUE(CfgSetValueList("fresh.cfg", "Other", "List", list));
    ObjReleaseInternal(&list);
    ASSERT_TRUE(CfgSetBoolean("fresh.cfg", "net", "FAST", FALSE));
    // The stanza takes the names the last setter gave.
    EXPECT_EQ(read("fresh.cfg"), "[Other]\nList=a,b!,c,\n\n\n[net]\nBig=-5000000000\nPath=! C:!, D:! \nFAST=false\n\n");
    char *text = nullptr;
    EXPECT_TRUE(CfgGetString(&text, "fresh.cfg", "Net", "Path", nullptr));
    EXPECT_EQ(taken(text), " C:, D: ");
    // A file that is missing is made; null names are refused.
    EXPECT_TRUE(CfgSetInteger("made.cfg", "S", "I", 1));
    EXPECT_EQ(read("made.cfg"), "[S]\nI=1\n\n");
    EXPECT_FALSE(CfgSetInteger("made.cfg", nullptr, "I", 1));
    EXPECT_FALSE(CfgSetInteger("made.cfg", "S", nullptr, 1));
    EXPECT_FALSE(CfgSetInteger(nullptr, "S", "I", 1));
}

// A set rewrites the file with one stanza of the section's name; any other
// stanza of that name goes, and each is traced with its keys for the operator.
TEST_F(ConfigTest, ASetTracesTheNamesakesItDrops) {
    write("net.cfg", "[Net]\nPort=1\n[Other]\nx=1\n[NET]\nLost=yes\nGone=a,b\n[Net]\n");
    ASSERT_TRUE(CfgSetInteger("net.cfg", "Net", "Port", 3));
    EXPECT_EQ(read("net.cfg"), "[Other]\nx=1\n\n\n[Net]\nPort=3\n\n");
    const std::string file = path("net.cfg");
    for (const auto &[id, text] : {std::pair{11, "Dropped another stanza [NET] of that name from '" + file + "'"},
                                   {12, std::string("Dropped with [NET]: Lost=yes")},
                                   {12, std::string("Dropped with [NET]: Gone=a,b")},
                                   {11, "Dropped another stanza [Net] of that name from '" + file + "'"}})
        EXPECT_TRUE(traced("STANZA", id, text)) << text;
    const auto texts = traceTexts();
    EXPECT_EQ(std::count_if(texts.begin(), texts.end(), [](const std::string &t) { return t.find("Dropped") == 0; }), 4);
}

TEST_F(ConfigTest, ValueListEntries) {
    write("fw.cfg", "[Ports:Open]\nvalue=X,b\n");
    LIST *list = nullptr;
    EXPECT_FALSE(CfgAddEntryToValueList(&list, "fw.cfg", "ports", "open", "x", TRUE, TRUE));
    EXPECT_TRUE(traced("CFGLOCAL", 13, "Matched 'X' and 'x'"));
    EXPECT_EQ(list, nullptr);
    EXPECT_EQ(read("fw.cfg"), "[Ports:Open]\nvalue=X,b\n");
    ASSERT_TRUE(CfgAddEntryToValueList(&list, "fw.cfg", "Ports", "Open", "x", TRUE, FALSE));
    EXPECT_EQ(items(list), "X|b|x");
    ASSERT_TRUE(CfgAddEntryToValueList(nullptr, "fw.cfg", "Ports", "Open", "b", FALSE, FALSE));
    ASSERT_TRUE(CfgRemoveEntryFromValueList(&list, "fw.cfg", "Ports", "Open", "B", TRUE));
    EXPECT_EQ(items(list), "X|x|b"); // the first match only
    EXPECT_FALSE(CfgRemoveEntryFromValueList(nullptr, "fw.cfg", "Ports", "Open", "nothing", TRUE));
    for (const char *entry : {"X", "x", "b"}) ASSERT_TRUE(CfgRemoveEntryFromValueList(nullptr, "fw.cfg", "Ports", "Open", entry, FALSE));
    EXPECT_EQ(read("fw.cfg"), "[Ports:Open]\nvalue=\n\n");
    EXPECT_FALSE(CfgRemoveEntryFromValueList(nullptr, "fw.cfg", "No", "Such", "x", FALSE));
    // A missing stanza is made for the first entry.
    ASSERT_TRUE(CfgAddEntryToValueList(&list, "fw.cfg", nullptr, "Barred", "10.0.0.1", TRUE, FALSE));
    EXPECT_EQ(items(list), "10.0.0.1");
    EXPECT_EQ(read("fw.cfg"), "[Ports:Open]\nvalue=\n\n\n[Barred]\nvalue=10.0.0.1\n\n");
    EXPECT_FALSE(CfgAddEntryToValueList(nullptr, "fw.cfg", nullptr, nullptr, "x", FALSE, FALSE));
    // An empty entry is an empty value, and the same as one.
    write("fw.cfg", "[P:O]\nvalue=a,,b\n");
    EXPECT_FALSE(CfgAddEntryToValueList(nullptr, "fw.cfg", "P", "O", "", TRUE, FALSE));
    ASSERT_TRUE(CfgRemoveEntryFromValueList(nullptr, "fw.cfg", "P", "O", "", FALSE));
    EXPECT_EQ(read("fw.cfg"), "[P:O]\nvalue=a,b\n\n");
}

TEST_F(ConfigTest, KeysOfPlainStanzas) {
    write("pm.cfg", "[Process Manager]\nunix=a\nunix=b\n[Net:Port]\nvalue=1\n");
    ASSERT_TRUE(CfgAddValueToKey("pm.cfg", "process manager", "unix", "c"));
    EXPECT_EQ(read("pm.cfg"), "[Net:Port]\nvalue=1\n\n\n[process manager]\nunix=b\nunix=a,c\n\n");
    ASSERT_TRUE(CfgAddValueToKey("pm.cfg", "Process Manager", "new", "v"));
    EXPECT_FALSE(CfgAddValueToKey("pm.cfg", "Missing", "k", "v"));
    ASSERT_TRUE(CfgAddValueToKey("pm.cfg", "Process Manager", "new", "v"));
    ASSERT_TRUE(CfgRemoveValueFromKey("pm.cfg", "Process Manager", "new", "v")); // every equal value
    EXPECT_FALSE(CfgRemoveValueFromKey("pm.cfg", "Process Manager", "new", "v"));
    EXPECT_FALSE(CfgRemoveValueFromKey("pm.cfg", "Process Manager", "unix", "C")); // case counts
    ASSERT_TRUE(CfgRemoveKey("pm.cfg", "Process Manager", "UNIX")); // the first only
    EXPECT_FALSE(CfgRemoveKey("pm.cfg", "Net", "Port")); // a displayable setting stays
    EXPECT_EQ(read("pm.cfg"), "[Net:Port]\nvalue=1\n\n\n[Process Manager]\nunix=a,c\nnew=\n\n");
    EXPECT_FALSE(CfgRemoveKey("pm.cfg", "Process Manager", "gone"));
    // A key whose values change moves to the end of its stanza.
    write("s.cfg", "[S]\na=1,2,1\nb=3\n");
    ASSERT_TRUE(CfgRemoveValueFromKey("s.cfg", "S", "a", "1"));
    EXPECT_EQ(read("s.cfg"), "[S]\nb=3\na=2\n\n");
    EXPECT_FALSE(CfgAddValueToKey("pm.cfg", "Process Manager", "k", nullptr));
}

TEST_F(ConfigTest, WholeStanzasPathsAndMapFiles) {
    Stanza *stanza = nullptr;
    ASSERT_TRUE(StnzCreate(&stanza, nullptr, "Trace", 1));
    ASSERT_TRUE(StnzSetKeywordFromString(&stanza, "Do Crash", "FALSE", TRUE));
    ASSERT_TRUE(CfgAddStanza(stanza, "configure.cfg"));
    EXPECT_FALSE(CfgAddStanza(stanza, "configure.cfg"));
    EXPECT_TRUE(traced("CONFIG", 1, "CfgAddStanza returned FALSE"));
    EXPECT_TRUE(traced("CFGLOCAL", 4, "CfgLocalAddStanza returned FALSE"));
    ASSERT_TRUE(CfgReplaceStanza(stanza, "configure.cfg"));
    StnzRelease(&stanza);
    ASSERT_TRUE(CfgGetStanza(&stanza, "configure.cfg", "TRACE"));
    EXPECT_EQ(stanza->keyCount, 1);
    StnzRelease(&stanza);
    EXPECT_FALSE(CfgGetStanza(&stanza, "configure.cfg", "Nothing"));
    EXPECT_TRUE(traced("CONFIG", 1, "CfgGetStanza returned FALSE"));
    LIST *list = nullptr;
    ASSERT_TRUE(CfgGetStanzaList(&list, "configure.cfg"));
    ASSERT_TRUE(CfgReplaceStanzaList("copy.cfg", list));
    EXPECT_EQ(read("copy.cfg"), "[Trace]\nDo Crash=FALSE\n\n");
    ObjReleaseInternal(&list);
    EXPECT_FALSE(CfgGetStanzaList(&list, ""));
    EXPECT_FALSE(CfgReplaceStanzaList("copy.cfg", nullptr));
    ASSERT_TRUE(CfgRemoveStanza(nullptr, "trace", "copy.cfg"));
    EXPECT_EQ(read("copy.cfg"), "");

    EXPECT_EQ(taken(CfgBuildPath("procmgr.cfg")), home() + "/config/procmgr.cfg");
    EXPECT_EQ(taken(CfgUtilBuildPath("procmgr.cfg", "remote/box")), home() + "/remote/box/procmgr.cfg");
    // The alternate path stands for "config" in every local operation.
    mkdir((home() + "/remote").c_str(), 0755);
    ASSERT_TRUE(CfgLocalSetInteger("procmgr.cfg", "Start", "Count", 2, "remote"));
    int32_t count = 0;
    EXPECT_FALSE(CfgGetInteger(&count, "procmgr.cfg", "Start", "Count", 0));
    EXPECT_TRUE(CfgLocalGetInteger(&count, "procmgr.cfg", "Start", "Count", "remote", 0));
    EXPECT_EQ(count, 2);
    EXPECT_TRUE(FileExists((home() + "/remote/procmgr.cfg").c_str()));
    EXPECT_EQ(taken(CfgBuildPath(nullptr)), home() + "/config");
    EXPECT_EQ(CfgUtilBuildPath(nullptr, nullptr), nullptr);
    EXPECT_TRUE(traced("CFGUTIL", 1, "CfgUtilBuildPath passed null stanza file"));
    // A map file counts only by being there; the alternate path is taken as it stands.
    EXPECT_FALSE(CfgUtilMapFileExists("configure.cfg", nullptr));
    mkdir((home() + "/config/map").c_str(), 0755);
    std::ofstream(home() + "/config/map/configure.cfg.map");
    EXPECT_TRUE(CfgUtilMapFileExists("configure.cfg", nullptr));
    EXPECT_TRUE(CfgUtilDoRemoteFromMapFile("configure.cfg", nullptr));
    EXPECT_TRUE(CfgUtilMapFileExists("configure.cfg", (home() + "/config/map").c_str()));
    EXPECT_FALSE(CfgUtilDoRemoteFromMapFile(nullptr, nullptr));
    // Without a task context every call is local, map file or not.
    char *client = nullptr, *server = nullptr;
    EXPECT_FALSE(CfgUtilDoRemote(&client, &server, "configure.cfg", nullptr));
    EXPECT_EQ(client, nullptr);
    int32_t lines = 0;
    ASSERT_TRUE(CfgSetInteger("configure.cfg", "Trace", "Lines per File", 1000));
    EXPECT_TRUE(CfgGetInteger(&lines, "configure.cfg", "Trace", "Lines per File", 0));
    EXPECT_EQ(lines, 1000);
}

TEST_F(ConfigTest, SettingsInAHeldStanzaList) {
    write("net.cfg", "[Net:Port]\nvalue=1\n[Net]\nPort=2\nFast=true\nList=a,,b\nExclude=a!,b,x!!,y ! ,\n"
                     "[Net:Port]\nvalue=9\n");
    LIST *list = nullptr;
    ASSERT_TRUE(CfgGetStanzaList(&list, "net.cfg"));
    StanzaKey *key = nullptr;
    ASSERT_TRUE(CfgGetKeyFromList(list, "net", "port", &key));
    EXPECT_STREQ(StnzKeyValue(key, 1), "1"); // displayable, and the first
    int32_t number = 0;
    EXPECT_TRUE(CfgGetIntegerFromList(&number, list, "Net", "Port", 5));
    EXPECT_EQ(number, 1);
    EXPECT_FALSE(CfgGetIntegerFromList(&number, list, "Net", "None", 5));
    EXPECT_EQ(number, 5);
    EXPECT_TRUE(traced("CFGUTIL", 2, "Trying to load key 'None' from stanza 'Net'"));
    BOOL flag = FALSE;
    EXPECT_TRUE(CfgGetBooleanFromList(&flag, list, "Net", "Fast", FALSE));
    EXPECT_EQ(flag, TRUE);
    EXPECT_FALSE(CfgGetBooleanFromList(&flag, list, "Net", "List", TRUE)); // "a" does not convert
    EXPECT_EQ(flag, TRUE);
    int64_t wide = 0;
    EXPECT_FALSE(CfgGetInt64FromList(&wide, nullptr, "Net", "Port", 3));
    EXPECT_EQ(wide, 3);
    LIST *values = nullptr;
    ASSERT_TRUE(CfgGetValueListFromList(&values, list, "Net", "List"));
    EXPECT_EQ(items(values), "a|<null>|b");

    ASSERT_TRUE(CfgGetValueListFromList(&values, list, "Net", "Exclude"));
    EXPECT_EQ(items(values), "a,b|x!|y  |<null>");
    // A nested list: "!," separates, "!!" protects what follows, a '!' takes
    // the character behind it (kept the first time, dropped the second).
    struct Case {
        const char *text, *items;
    } cases[] = {
        {"a!,b", "a|b"},          {"a,b", "a,b"},       {" a , !, b ", "a|b"},   {"!!,x", "!,x"},
        {"a!,", "a"},             {"!,!,", "<null>|<null>"}, {"x!", "x"},     {"!a!b!c", "ac"},
        {"a,,!,", "a"},           {"", ""},
    };
    for (const Case &c : cases) {
        LIST *one = listOf({c.text});
        ASSERT_TRUE(CfgParseValueList(&values, one)) << c.text;
        EXPECT_EQ(items(values), c.items) << c.text;
        ObjReleaseInternal(&one);
    }
    LIST *empty = listOf({});
    EXPECT_FALSE(CfgParseValueList(&values, empty));
    ObjReleaseInternal(&empty);
    ObjReleaseInternal(&list);
}

// An entry of three bytes, so that a thousand of them fit in one line.
std::string entry(int writer, int i) {
    const char digits[] = "0123456789abcdefghijklmnopqrstuvwxyz";
    return std::string{static_cast<char>('A' + writer), digits[i / 36], digits[i % 36]};
}

// Writers in several processes at once lose nothing, and a reader beside
// them always finds a whole file.
TEST_F(ConfigTest, ConcurrentWritersLoseNothing) {
    constexpr int kSettings = 500;
    write("shared.cfg", "[Start]\nx=1\n\n");
    const auto spawn = [](auto body) {
        const pid_t child = fork();
        if (child == 0) _exit(body() ? 0 : 1);
        return child;
    };
    const auto succeeded = [](pid_t child) {
        int status = 0;
        return waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 0;
    };
    pid_t writers[4];
    for (int w = 0; w < 2; ++w) {
        writers[w] = spawn([w] {
            for (int i = 0; i < kSettings; ++i)
                if (!CfgSetInteger("shared.cfg", "Settings", ("w" + std::to_string(w) + "i" + std::to_string(i)).c_str(), i))
                    return false;
            return true;
        });
        writers[2 + w] = spawn([w] {
            for (int i = 0; i < kSettings; ++i)
                if (!CfgAddEntryToValueList(nullptr, "shared.cfg", "Lists", "One", entry(w, i).c_str(), TRUE, FALSE))
                    return false;
            return true;
        });
    }
    const std::string file = path("shared.cfg"), done = path("done");
    const pid_t reader = spawn([&file, &done] {
        while (access(done.c_str(), F_OK) != 0) {
            // Not locked: a rename makes each open see one whole version.
            const std::string text = testhelp::readFile(file);
            if (text.size() < 2 || text.compare(text.size() - 2, 2, "\n\n") != 0) return false;
        }
        return true;
    });
    for (pid_t child : writers) EXPECT_TRUE(succeeded(child)) << "writer " << child;
    std::ofstream{done};
    EXPECT_TRUE(succeeded(reader)) << "the reader found a cut file";

    Stanza *stanza = nullptr;
    ASSERT_TRUE(CfgGetStanza(&stanza, "shared.cfg", "Settings"));
    EXPECT_EQ(stanza->keyCount, 2 * kSettings);
    StnzRelease(&stanza);
    LIST *entries = nullptr;
    ASSERT_TRUE(CfgGetValueList(&entries, "shared.cfg", "Lists", "One"));
    EXPECT_EQ(entries->iCount, 2 * kSettings);
    ObjReleaseInternal(&entries);
}

} // namespace
