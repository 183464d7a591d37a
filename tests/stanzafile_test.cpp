// Stanza files on real files: the line and value grammar, a corpus checked
// byte for byte through load, save, remove and replace, the scan position of
// the finds, the operations by path, the writers' name limits, a rewrite
// that fails on a full file system, and read-change-write between processes
// under the exclusive lock.
#include "helpers.h"

#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <tuple>

namespace {

using namespace testhelp;

using StanzaFileTest = LibraryTest;

std::string corpus(const char *name) { return readFile(FHCORE_TEST_DATA "/stanzafile/" + std::string(name)); }
bool exists(const std::string &path) { return access(path.c_str(), F_OK) == 0; }

// A key's values as "a|<null>|b".
std::string values(const StanzaKey *key) {
    std::string text;
    for (int32_t i = 0; i < key->valueCount; ++i)
        text += (i > 0 ? "|" : "") + std::string(key->values[i] != nullptr ? key->values[i] : "<null>");
    return text;
}

// A stanza of the names and keys "keyword=value" (one value each).
Stanza *stanzaOf(const char *category, const char *title, std::initializer_list<std::pair<const char *, const char *>> keys) {
    Stanza *stanza = nullptr;
    EXPECT_TRUE(StnzCreate(&stanza, category, title, 1));
    for (const auto &[keyword, value] : keys) EXPECT_TRUE(StnzSetKeywordFromString(&stanza, keyword, value, FALSE));
    return stanza;
}

TEST_F(StanzaFileTest, TitleAndKeyLines) {
    struct Case {
        const char *line, *category, *title; // title null: no title
    } titles[] = {
        {"[Trace]", nullptr, "Trace"},          {" [ Trace ] comment", nullptr, "Trace"},
        {"[Cat:Name]", "Cat", "Name"},          {"\t[ Cat : Name ]", "Cat", "Name"},
        {"[a:b:c]", "a", "b:c"},                {"[a b :  c d  ]x]", "a b", "c d"},
        {"[]]", nullptr, "]"},                  {"[\x81]x]", nullptr, "\x81]x"},
        {"[:Name]", nullptr, nullptr},          {"[Cat:]", nullptr, nullptr},
        {"[Cat: \t]", nullptr, nullptr},        {"[]", nullptr, nullptr},
        {"[abc", nullptr, nullptr},             {"[Cat:abc", nullptr, nullptr},
        {"x[a]", nullptr, nullptr},             {"[ ", nullptr, nullptr},
    };
    for (const Case &c : titles) {
        char *category = nullptr, *title = nullptr;
        const BOOL isTitle = StnzLineToTitle(&category, &title, c.line);
        EXPECT_EQ(isTitle, c.title != nullptr) << c.line;
        if (!isTitle) continue;
        EXPECT_EQ(taken(category), c.category != nullptr ? c.category : "<null>") << c.line;
        EXPECT_EQ(taken(title), c.title) << c.line;
    }
    struct KeyCase {
        const char *line, *keyword, *argument; // keyword null: no key
    } keys[] = {
        {"Do Crash=FALSE", "Do Crash", "FALSE"},  {"  a b \t= x = y ", "a b", " x = y "},
        {"# a=b", "# a", "b"},                     {"k=", "k", ""},
        {"k\x81=x=y", "k\x81=x", "y"},             {"x[=1", "x[", "1"},
        {"=x", nullptr, nullptr},                  {"[x=1", nullptr, nullptr},
        {"no equal sign", nullptr, nullptr},       {" \t", nullptr, nullptr},
        {"k\x81=", nullptr, nullptr},
    };
    for (const KeyCase &c : keys) {
        char *keyword = nullptr, *argument = nullptr;
        const BOOL isKey = StnzLineToKeywordAndArgument(&keyword, &argument, c.line);
        EXPECT_EQ(isKey, c.keyword != nullptr) << c.line;
        EXPECT_EQ(StnzLineIsKey(c.line), isKey) << c.line;
        if (!isKey) continue;
        EXPECT_EQ(taken(keyword) + "|" + taken(argument), std::string(c.keyword) + "|" + c.argument) << c.line;
    }
    // The looser title test: a '[' first and a ']' anywhere.
    EXPECT_TRUE(StnzLineIsTitle("  [:x]") && StnzLineIsTitle("[]"));
    EXPECT_FALSE(StnzLineIsTitle("[\x81]") || StnzLineIsTitle("a[b]"));

    StanzaKey *key = nullptr;
    EXPECT_FALSE(StnzLineToKey(&key, "no key here"));
    EXPECT_TRUE(traced("STANZA", 1, "Failed to split key line no key here"));
    ASSERT_TRUE(StnzLineToKey(&key, " Path = C:!, D: "));
    EXPECT_TRUE(strcmp(key->keyword, "Path") == 0 && values(key) == "C:, D:");
    StnzReleaseKey(&key);
}

TEST_F(StanzaFileTest, ValueListsAndTheirEscapes) {
    struct Case {
        const char *argument, *values;
        int32_t count;
    } cases[] = {
        {"a, b", "a|b", 2},         {"a,", "a|<null>", 2},        {",", "<null>|<null>", 2},
        {"a!,b", "a,b", 1},         {"", "", 0},                  {"  \t ", "", 0},
        {"a,,b", "a|<null>|b", 3},  {"a!nb", "a\nb", 1},          {"! a", " a", 1},
        {" x ! ", "x  ", 1},        {"!!", "!", 1},               {"a!", "a", 1},
        {"a !", "a ", 1},           {"!q!", "q", 1},              {", ,", "<null>|<null>|<null>", 3},
        {"\x81,,x", "\x81,|x", 2},  {"!\x81,", "\x81,", 1},       {"a\x81 ", "a\x81 ", 1},
    };
    for (const Case &c : cases) {
        StanzaKey *key = nullptr;
        ASSERT_TRUE(StnzAddValues(&key, "k", c.argument)) << c.argument;
        EXPECT_TRUE(key->valueCount == c.count && values(key) == c.values) << c.argument << " " << values(key);
        StnzReleaseKey(&key);
    }
    struct Escape {
        const char *text, *escaped;
    } escapes[] = {
        {"a\nb", "a!nb"},  {"x!y", "x!!y"},  {"a,b", "a!,b"},         {" a ", "! a! "},
        {"   ", "! ! ! "}, {"a b", "a b"},   {"=:[]\"", "=:[]\""},    {"\t", "!\t"},
        {"\x81,", "\x81,"}, {"", ""},
    };
    for (const Escape &e : escapes) EXPECT_EQ(taken(StnzEscapeText(e.text)), e.escaped) << e.text;
    EXPECT_EQ(StnzEscapeText(nullptr), nullptr);
    // Whatever a value holds but a carriage return, its escape reads back as it.
    const char *texts[] = {" lead", "trail\t", "!,!n\n,", " ", "mid dle", "\x81!\x82,"};
    for (const char *text : texts) {
        StanzaKey *key = nullptr;
        char *escaped = StnzEscapeText(text);
        ASSERT_TRUE(StnzAddValues(&key, "k", escaped));
        EXPECT_EQ(values(key), text);
        MemFreeInternal(&escaped);
        StnzReleaseKey(&key);
    }
}

TEST_F(StanzaFileTest, WrittenFormComesBackByteForByte) {
    const std::string path = home() + "/written.cfg";
    writeFile(path, corpus("written.cfg"));
    LIST *list = nullptr;
    ASSERT_TRUE(StnzLoadStanzaListFromFile(&list, path.c_str()));
    EXPECT_EQ(list->iCount, 3);
    OBJ_STANZA *item = nullptr;
    ASSERT_TRUE(ListGetNthItem(&item, list, 2));
    const Stanza *net = item->pStanza;
    EXPECT_TRUE(strcmp(net->category, "Net") == 0 && net->keyCount == 12);
    for (const auto &[index, text] : {std::pair{1, "C:, D:"}, {3, "a|<null>|b"}, {8, "  "}})
        EXPECT_EQ(values(net->keys[index]), text);
    EXPECT_STREQ(net->keys[11]->keyword, "Twice");
    ObjReleaseInternal(&item);

    writeFile(path, "stale contents that the save replaces\n");
    ASSERT_TRUE(StnzSaveStanzaListToFile(list, path.c_str()));
    EXPECT_EQ(readFile(path), corpus("written.cfg"));
    EXPECT_FALSE(exists(path + ".new"));

    // The same through the dynamic list, which keeps its path.
    STNZ_DYNAMIC_LIST *dynamicList = nullptr;
    ASSERT_TRUE(StnzLoadDynamicStanzaListFromFile(&dynamicList, path.c_str()));
    EXPECT_EQ(dynamicList->pszPath, path);
    writeFile(path, "");
    ASSERT_TRUE(StnzSaveDynamicStanzaListToFile(dynamicList));
    EXPECT_EQ(readFile(path), corpus("written.cfg"));
    EXPECT_FALSE(StnzSaveDynamicStanzaListToFile(reinterpret_cast<STNZ_DYNAMIC_LIST *>(list)));
    // A save leaves out what the writer refuses, and items of other types.
    Stanza *untitled = nullptr;
    ASSERT_TRUE(StnzCreate(&untitled, "", "Bad", 1));
    OBJ_STANZA *bad = ObjStanzaNew(untitled);
    OBJ_STRING *other = ObjStringNew("not a stanza");
    ListPushFirstItemInternal(dynamicList->oList, &bad);
    ListPushLastItemInternal(dynamicList->oList, &other);
    ASSERT_TRUE(StnzSaveDynamicStanzaListToFile(dynamicList));
    EXPECT_EQ(readFile(path), corpus("written.cfg"));
    ObjReleaseInternal(&dynamicList);
    ObjReleaseInternal(&list);

    // A file without stanzas is an empty list; a missing one is no list.
    writeFile(path, "key=before any title\n\n");
    ASSERT_TRUE(StnzLoadStanzaListFromFile(&list, path.c_str()));
    EXPECT_EQ(list->iCount, 0);
    ObjReleaseInternal(&list);
    EXPECT_FALSE(StnzLoadStanzaListFromFile(&list, (home() + "/missing.cfg").c_str()) || list != nullptr);
}

TEST_F(StanzaFileTest, RewritesGiveTheCopiedForm) {
    const std::string path = home() + "/messy.cfg";
    // Removing what is not there still rewrites every kept line.
    writeFile(path, corpus("messy.cfg"));
    EXPECT_TRUE(StnzRemoveStanzaFromFile(nullptr, "Nothing", path.c_str()));
    EXPECT_EQ(readFile(path), corpus("messy.copied"));
    // Both stanzas of the name go; case does not count.
    writeFile(path, corpus("messy.cfg"));
    EXPECT_TRUE(StnzRemoveStanzaFromFile("net", "PORT", path.c_str()));
    EXPECT_EQ(readFile(path), corpus("messy.removed"));
    // The replaced stanza moves to the end, once.
    writeFile(path, corpus("messy.cfg"));
    Stanza *stanza = stanzaOf("NET", "port", {{"value", "7000"}});
    EXPECT_TRUE(StnzReplaceStanzaInFile(stanza, path.c_str()));
    EXPECT_EQ(readFile(path), corpus("messy.replaced"));
    // A file with no such stanza simply gets it, behind two blank lines.
    writeFile(path, "[A]\nx=1\n[B]\n");
    EXPECT_TRUE(StnzReplaceStanzaInFile(stanza, path.c_str()));
    EXPECT_EQ(readFile(path), "[A]\nx=1\n\n[B]\n\n\n[NET:port]\nvalue=7000\n\n");
    StnzRelease(&stanza);
    EXPECT_FALSE(exists(path + ".new"));

    // CR LF line ends give the same stanzas as LF, a CR behind a lead byte too.
    writeFile(path, "[T]\r\nk=x\x81\r\nj=1\r\n");
    ASSERT_TRUE(StnzRemoveStanzaFromFile(nullptr, "none", path.c_str()));
    EXPECT_EQ(readFile(path), "[T]\nk=x\x81\nj=1\n");
    std::string crlf;
    for (char c : corpus("written.cfg")) crlf += c == '\n' ? std::string("\r\n") : std::string(1, c);
    writeFile(path, crlf);
    LIST *list = nullptr;
    ASSERT_TRUE(StnzLoadStanzaListFromFile(&list, path.c_str()));
    ASSERT_TRUE(StnzSaveStanzaListToFile(list, path.c_str()));
    EXPECT_EQ(readFile(path), corpus("written.cfg"));
    ObjReleaseInternal(&list);
}

// The file the finds walk, opened to read.
STNZ_FILE *findsFile(const std::string &home) {
    const std::string path = home + "/finds.cfg";
    writeFile(path, "lone=before\n[One]\nk=a,b\nK=c\n\n[Cat:Two]\nx=1\n# note\ny=2\n[Three]\nz=3\nx=again\n");
    STNZ_FILE *file = nullptr;
    EXPECT_TRUE(StnzOpenFile(&file, path.c_str(), STNZ_MODE_READ));
    return file;
}

// Keys before the first title belong to no stanza, but FindKeyword sees
// them; loading a stanza leaves the position where it was.
TEST_F(StanzaFileTest, FindsMoveThePositionOnlyWhenTheyFind) {
    STNZ_FILE *file = findsFile(home());
    EXPECT_EQ(StnzFileOpenMode(file), STNZ_MODE_READ);
    char *category = nullptr, *title = nullptr, *text = nullptr;
    EXPECT_FALSE(StnzCurrentTitle(&category, &title, file));
    EXPECT_TRUE(StnzFindKeyword(file, "LONE"));
    EXPECT_FALSE(StnzCurrentTitle(nullptr, &title, file));
    EXPECT_TRUE(StnzCurrentArgument(&text, file));
    EXPECT_EQ(taken(text), "before");

    ASSERT_TRUE(StnzFindStanza(file, nullptr, "one"));
    EXPECT_TRUE(StnzFindKeywordInStanza(file, "K") && StnzCurrentArgument(&text, file));
    EXPECT_EQ(taken(text), "a,b");
    Stanza *stanza = nullptr;
    ASSERT_TRUE(StnzLoadCurrentStanza(&stanza, file));
    EXPECT_TRUE(stanza->keyCount == 2 && strcmp(stanza->keys[1]->keyword, "K") == 0);
    StnzRelease(&stanza);
    // Loading left the position behind "k=a,b": the next key is "K=c".
    EXPECT_TRUE(StnzFindNextKeyword(file) && StnzCurrentKeyword(&text, file));
    EXPECT_EQ(taken(text), "K");
    EXPECT_FALSE(StnzFindNextKeyword(file)); // a title comes first
    EXPECT_FALSE(StnzFindKeywordInStanza(file, "x"));
    StnzCloseFile(&file);
}

// A failed find changes nothing; FindKeyword runs on across stanzas and
// makes the stanza it found current.
TEST_F(StanzaFileTest, AFailedFindChangesNothing) {
    STNZ_FILE *file = findsFile(home());
    char *category = nullptr, *title = nullptr, *text = nullptr;
    ASSERT_TRUE(StnzFindStanza(file, nullptr, "one"));
    EXPECT_FALSE(StnzFindStanza(file, nullptr, "Missing") || StnzFindStanza(file, "Other", "Two"));
    EXPECT_TRUE(StnzCurrentTitle(&category, &title, file));
    EXPECT_EQ(taken(category) + ":" + taken(title), "<null>:one"); // the names the find was given
    ASSERT_TRUE(StnzFindNextStanza(file) && StnzCurrentTitle(&category, &title, file));
    EXPECT_EQ(taken(category) + ":" + taken(title), "Cat:Two");
    EXPECT_FALSE(StnzCurrentKeyword(&text, file)); // the new stanza has no current key

    EXPECT_TRUE(StnzFindKeyword(file, "z") && StnzCurrentTitle(&category, &title, file));
    EXPECT_EQ(taken(category) + ":" + taken(title), "<null>:Three");
    EXPECT_FALSE(StnzFindKeyword(file, "y") || StnzFindNextStanza(file)); // behind the position
    StanzaKey *key = nullptr;
    ASSERT_TRUE(StnzLoadCurrentKey(&key, file));
    EXPECT_EQ(values(key), "3");
    StnzReleaseKey(&key);
    StnzCloseFile(&file);
}

// The current stanza found again is the same, from its start; the find
// takes the caller's names, a category "" equal to none. A find given the
// file's own current keyword goes on to its next use.
TEST_F(StanzaFileTest, FindsAgainStartOverOrGoOn) {
    STNZ_FILE *file = findsFile(home());
    char *category = nullptr, *title = nullptr, *text = nullptr;
    EXPECT_TRUE(StnzFindStanza(file, "cat", "TWO") && StnzFindKeywordInStanza(file, "y"));
    EXPECT_TRUE(StnzFindStanza(file, "cat", "two") && StnzCurrentTitle(&category, &title, file));
    EXPECT_EQ(taken(category) + ":" + taken(title), "cat:TWO");
    EXPECT_TRUE(StnzFindStanza(file, "", "three"));
    EXPECT_TRUE(StnzRewindFile(file));
    EXPECT_FALSE(StnzCurrentKeyword(&text, file));
    ASSERT_TRUE(StnzFindKeyword(file, "x") && StnzFindKeyword(file, file->pszKeyword));
    EXPECT_STREQ(file->pszKeyword, "x");
    EXPECT_TRUE(StnzCurrentArgument(&text, file));
    EXPECT_EQ(taken(text), "again");
    EXPECT_STREQ(file->pszTitle, "Three");
    EXPECT_TRUE(StnzCloseFile(&file));
    EXPECT_FALSE(StnzCloseFile(&file) || StnzFileOpenMode(file) != -1);
    EXPECT_FALSE(StnzFindNextStanza(nullptr));
    EXPECT_TRUE(traced("STANZA", 2, "Invalid file pointer"));
}

TEST_F(StanzaFileTest, ALineOfFiveThousandBytesKeepsItsFirst4095) {
    const std::string path = home() + "/long.cfg";
    StanzaKey *key = nullptr;
    Stanza *stanza = nullptr;
    // Its rest is no line.
    writeFile(path, "[Long]\nk=" + std::string(4991, 'v') + "=tail\nj=after\n");
    ASSERT_TRUE(StnzLoadKeyFromFile(&key, path.c_str(), nullptr, "long", "K"));
    EXPECT_STREQ(key->keyword, "K");
    EXPECT_EQ(values(key), std::string(4093, 'v'));
    StnzReleaseKey(&key);
    ASSERT_TRUE(StnzLoadStanzaFromFile(&stanza, path.c_str(), "", "Long"));
    EXPECT_EQ(stanza->keyCount, 2);
    StnzRelease(&stanza);
    EXPECT_FALSE(StnzLoadKeyFromFile(&key, path.c_str(), nullptr, "Long", "tail"));
}

TEST_F(StanzaFileTest, AddingStanzasAndKeysByPath) {
    const std::string path = home() + "/add.cfg";
    Stanza *trace = stanzaOf(nullptr, "Trace", {{"Do Crash", "FALSE"}});
    ASSERT_TRUE(StnzAddStanzaToFile(trace, path.c_str())); // made if missing
    writeFile(path, readFile(path) + "junk line\n");
    EXPECT_FALSE(StnzAddStanzaToFile(trace, path.c_str())); // there already
    Stanza *port = stanzaOf("Net", "Port", {{"value", "6000"}});
    EXPECT_TRUE(StnzAddStanzaToFile(port, path.c_str()));
    EXPECT_EQ(readFile(path), "[Trace]\nDo Crash=FALSE\n\njunk line\n[Net:Port]\nvalue=6000\n\n");
    // A last line without its line feed gets one before the new title.
    writeFile(path, "[A]\nk=v");
    EXPECT_TRUE(StnzAddStanzaToFile(port, path.c_str()));
    EXPECT_EQ(readFile(path), "[A]\nk=v\n[Net:Port]\nvalue=6000\n\n");
    EXPECT_FALSE(StnzAddStanzaToFile(port, path.c_str()));
    writeFile(path, "[Trace]\nDo Crash=FALSE\n\njunk line\n[Net:Port]\nvalue=6000\n\n");
    const std::string noDir = home() + "/no/such/dir.cfg";
    const std::tuple<BOOL, int32_t, std::string> refused[] = {
        {StnzAddStanzaToFile(nullptr, path.c_str()), 3, "Attemped to add NULL stanza to file '" + path + "'"},
        {StnzAddStanzaToFile(trace, ""), 4, "Attemped to add stanza to NULL file"},
        {StnzReplaceStanzaInFile(nullptr, path.c_str()), 5, "Attemped to replace NULL stanza to file '" + path + "'"},
        {StnzReplaceStanzaInFile(trace, nullptr), 6, "Attemped to replace stanza to NULL file"},
        {StnzReplaceStanzaInFile(trace, noDir.c_str()), 7, "Failed to open '" + noDir + "' for update"}};
    for (const auto &[result, id, text] : refused) EXPECT_TRUE(!result && traced("STANZA", id, text)) << text;
    StnzRelease(&trace);
    StnzRelease(&port);
}

// A key goes to the stanza of the names given, which it then bears, beside
// or in place of the keys of its keyword; a missing stanza is made.
TEST_F(StanzaFileTest, AddingKeysByPath) {
    const std::string path = home() + "/add.cfg";
    writeFile(path, "[Trace]\nDo Crash=FALSE\n\njunk line\n[Net:Port]\nvalue=6000\n\n");
    StanzaKey *key = nullptr;
    ASSERT_TRUE(StnzCreateKeyFromString(&key, "value", "7000"));
    ASSERT_TRUE(StnzAddKeyToFile(path.c_str(), "net", "port", &key, FALSE));
    EXPECT_EQ(key, nullptr);
    EXPECT_EQ(readFile(path), "[Trace]\nDo Crash=FALSE\n\n\n[net:port]\nvalue=6000\nvalue=7000\n\n");
    ASSERT_TRUE(StnzCreateKeyFromString(&key, "VALUE", "8000"));
    ASSERT_TRUE(StnzAddKeyToFile(path.c_str(), "Net", "Port", &key, TRUE));
    EXPECT_EQ(readFile(path), "[Trace]\nDo Crash=FALSE\n\n\n[Net:Port]\nVALUE=8000\n\n");
    ASSERT_TRUE(StnzCreateKeyFromInteger(&key, "Lines", 10));
    ASSERT_TRUE(StnzAddKeyToFile(path.c_str(), "", "New", &key, TRUE));
    ASSERT_TRUE(StnzLoadKeyFromFile(&key, path.c_str(), nullptr, "new", "lines"));
    EXPECT_TRUE(values(key) == "10" && strcmp(key->keyword, "lines") == 0);
    StnzReleaseKey(&key); // an empty category is none, for a stanza that is there too
    ASSERT_TRUE(StnzCreateKeyFromInteger(&key, "More", 2));
    ASSERT_TRUE(StnzAddKeyToFile(path.c_str(), "", "new", &key, FALSE));
    EXPECT_TRUE(readFile(path).ends_with("[new]\nLines=10\nMore=2\n\n"));
    // A key whose keyword would not read back is refused; the file stays.
    const std::string before = readFile(path);
    StnzReleaseKey(&key);
    ASSERT_TRUE(StnzCreateKeyFromString(&key, "a=b", "x"));
    EXPECT_FALSE(StnzAddKeyToFile(path.c_str(), nullptr, "", &key, FALSE));
    EXPECT_FALSE(StnzAddKeyToFile(path.c_str(), nullptr, "New", nullptr, FALSE));
    ASSERT_NE(key, nullptr);
    EXPECT_FALSE(StnzAddKeyToFile(path.c_str(), nullptr, "New", &key, FALSE));
    EXPECT_EQ(readFile(path), before);
    StnzReleaseKey(&key);
    EXPECT_FALSE(exists(path + ".new"));
}

TEST_F(StanzaFileTest, WritersRefuseNamesThatWouldNotReadBack) {
    const std::string path = home() + "/names.cfg";
    struct Case {
        const char *category, *title, *keyword;
        bool accepted;
    } cases[] = {
        {nullptr, "Plain", "key", true},   {"Cat", "a:b", "k e y", true},  {nullptr, "\x81]", "\x81=", true},
        {"", "Title", "key", false},       {nullptr, "a:b", "key", false}, {"C:at", "T", "key", false},
        {"Cat", "T]", "key", false},       {nullptr, " T", "key", false},  {nullptr, "T ", "key", false},
        {nullptr, "T,x", "key", false},    {nullptr, "T!", "key", false},  {nullptr, "T\nx", "key", false},
        {nullptr, "T\x81", "key", false},  {nullptr, "T", "a=b", false},   {nullptr, "T", "[k", false},
        {nullptr, "T", "k\r", false},      {nullptr, "T", " k", false},    {nullptr, "T", "k!", false},
        {nullptr, "", "key", false},
    };
    for (const Case &c : cases) {
        writeFile(path, "");
        Stanza *stanza = stanzaOf(c.category, c.title, {{c.keyword, "v"}});
        EXPECT_EQ(StnzAddStanzaToFile(stanza, path.c_str()), c.accepted) << c.title << " " << c.keyword;
        if (c.accepted) {
            Stanza *back = nullptr;
            ASSERT_TRUE(StnzLoadStanzaFromFile(&back, path.c_str(), c.category, c.title));
            EXPECT_STREQ(back->keys[0]->keyword, c.keyword);
            StnzRelease(&back);
        } else {
            EXPECT_EQ(readFile(path), "") << c.title << " " << c.keyword;
        }
        StnzRelease(&stanza);
    }
}

// A title line and every key line with its escaped values must fit in a
// line; a value ending in a lone lead byte would take the line feed along.
TEST_F(StanzaFileTest, WritersRefuseLinesTooLongToReadBack) {
    const std::string path = home() + "/names.cfg";
    Stanza *stanza = stanzaOf(nullptr, std::string(4094, 't').c_str(), {});
    EXPECT_FALSE(StnzAddStanzaToFile(stanza, path.c_str()));
    StnzRelease(&stanza);
    stanza = stanzaOf(nullptr, std::string(4093, 't').c_str(), {});
    EXPECT_TRUE(StnzAddStanzaToFile(stanza, path.c_str()));
    StnzRelease(&stanza);
    writeFile(path, "");
    stanza = stanzaOf(nullptr, "T", {{"k", "x\x81"}, {"j", "1"}});
    EXPECT_FALSE(StnzAddStanzaToFile(stanza, path.c_str()));
    StnzRelease(&stanza);
    for (const auto &[value, accepted] : {std::pair{std::string(4093, 'v'), true}, {std::string(4094, 'v'), false},
                                          {std::string(2046, ','), true}, {std::string(2047, ','), false}}) {
        writeFile(path, "");
        stanza = stanzaOf(nullptr, "T", {{"k", value.c_str()}});
        EXPECT_EQ(StnzAddStanzaToFile(stanza, path.c_str()), accepted) << value.size();
        StnzRelease(&stanza);
    }
}

// Writing needs the right mode, and an update a stanza's name.
TEST_F(StanzaFileTest, WritersNeedTheirMode) {
    const std::string path = home() + "/names.cfg";
    writeFile(path, "");
    STNZ_FILE *file = nullptr;
    Stanza *stanza = stanzaOf(nullptr, "T", {});
    ASSERT_TRUE(StnzOpenFile(&file, path.c_str(), STNZ_MODE_READ));
    EXPECT_FALSE(StnzFileWriteStanza(file, stanza) || StnzFileRemoveStanza(file, nullptr, "T") ||
                 StnzFileReplaceStanza(file, stanza));
    StnzCloseFile(&file);
    ASSERT_TRUE(StnzOpenFile(&file, path.c_str(), STNZ_MODE_UPDATE));
    EXPECT_FALSE(StnzFileAppendStanza(file, stanza) || StnzFileRemoveStanza(file, nullptr, ""));
    StnzCloseFile(&file);
    StnzRelease(&stanza);
}

// Names with the escape character and commas are copied as they were read:
// from the second rewrite on, a copied stanza comes back byte for byte, and
// no rewrite loses a stanza it was not asked to remove.
TEST_F(StanzaFileTest, FiftyRewritesKeepEveryCopiedStanza) {
    const std::string path = home() + "/bangs.cfg";
    writeFile(path, "[a!b]\nk!x=v!,w\n[c,d:e!!f]\n,=1\n");
    std::string second;
    for (int rewrite = 1; rewrite <= 50; ++rewrite) {
        Stanza *stanza = stanzaOf(nullptr, "Other", {{"n", std::to_string(rewrite).c_str()}});
        ASSERT_TRUE(StnzReplaceStanzaInFile(stanza, path.c_str())) << rewrite;
        StnzRelease(&stanza);
        const std::string text = readFile(path);
        const std::string copied = text.substr(0, text.find("[Other]"));
        if (rewrite == 2) second = copied;
        if (rewrite > 2) {
            ASSERT_EQ(copied, second) << rewrite;
        }
    }
    EXPECT_EQ(second, "[a!b]\nk!x=v!,w\n\n[c,d:e!!f]\n,=1\n\n\n");
    StanzaKey *key = nullptr;
    ASSERT_TRUE(StnzLoadKeyFromFile(&key, path.c_str(), nullptr, "a!b", "k!x"));
    EXPECT_EQ(values(key), "v,w");
    StnzReleaseKey(&key);
    ASSERT_TRUE(StnzLoadKeyFromFile(&key, path.c_str(), "c,d", "e!!f", ","));
    StnzReleaseKey(&key);

    // A value cut short by a NUL after a lead byte cannot be copied: that
    // byte would take the line feed, and the next title with it. The rewrite
    // fails rather than lose [T].
    const char cut[] = "k=a\x81\0rest\n[T]\nx=1\n";
    writeFile(path, std::string(cut, sizeof cut - 1));
    EXPECT_FALSE(StnzRemoveStanzaFromFile(nullptr, "none", path.c_str()));
    EXPECT_EQ(readFile(path), std::string(cut, sizeof cut - 1));
    EXPECT_TRUE(traced("STANZA", 13, "A rewrite stops at a line that would not read back as itself: k"));
    writeFile(path, "[a!b]\nk!x=v!,w\n[c,d:e!!f]\n,=1\n");

    // A record that would not read back as itself is not written.
    STNZ_FILE *file = nullptr;
    ASSERT_TRUE(StnzOpenFile(&file, path.c_str(), STNZ_MODE_APPEND));
    const std::string before = readFile(path);
    StnzLineRecord records[] = {{nullptr, const_cast<char *>("x]\n[y"), nullptr, nullptr},
                                {const_cast<char *>("a:b"), const_cast<char *>("t"), nullptr, nullptr},
                                {nullptr, nullptr, const_cast<char *>("k=j"), const_cast<char *>("v")},
                                {nullptr, nullptr, const_cast<char *>("k"), const_cast<char *>("v\n[z]")}};
    for (const StnzLineRecord &record : records) EXPECT_FALSE(StnzWriteRecord(file, &record));
    StnzCloseFile(&file);
    EXPECT_EQ(readFile(path), before);
}

// A rewrite that cannot write its ".new" in full (the file size limit stands
// in for a full disk) fails and leaves the file exactly as it was.
TEST_F(StanzaFileTest, FailedRewriteLeavesTheFileWhole) {
    const std::string path = home() + "/big.cfg";
    std::string original;
    for (int i = 0; i < 400; ++i) original += "[S" + std::to_string(i) + "]\nkey=" + std::string(60, 'x') + "\n\n";
    writeFile(path, original);
    EXPECT_EQ(0, inChild([&] {
                  signal(SIGXFSZ, SIG_IGN);
                  const rlimit limit{8192, 8192};
                  setrlimit(RLIMIT_FSIZE, &limit);
                  Stanza *stanza = stanzaOf(nullptr, "S1", {{"key", "changed"}});
                  LIST *list = nullptr;
                  return StnzLoadStanzaListFromFile(&list, path.c_str()) &&
                                 !StnzReplaceStanzaInFile(stanza, path.c_str()) &&
                                 !StnzRemoveStanzaFromFile(nullptr, "S2", path.c_str()) &&
                                 !StnzSaveStanzaListToFile(list, path.c_str())
                             ? 0
                             : 1;
              }));
    EXPECT_EQ(readFile(path), original);
    EXPECT_FALSE(exists(path + ".new"));
}

// Processes that each read, change and write one stanza lose no update: the
// exclusive lock holds from the find to the rewrite.
TEST_F(StanzaFileTest, ConcurrentKeyAddsLoseNothing) {
    const std::string path = home() + "/shared.cfg";
    writeFile(path, "[Other]\nx=1\n");
    constexpr int kProcesses = 3, kKeys = 15;
    pid_t children[kProcesses];
    for (int p = 0; p < kProcesses; ++p) {
        children[p] = fork();
        if (children[p] != 0) continue;
        bool ok = true;
        for (int k = 0; k < kKeys; ++k) {
            StanzaKey *key = nullptr;
            const std::string keyword = "p" + std::to_string(p) + "k" + std::to_string(k);
            ok = StnzCreateKeyFromInteger(&key, keyword.c_str(), k) &&
                 StnzAddKeyToFile(path.c_str(), "Shared", "Keys", &key, FALSE) && ok;
        }
        _exit(ok ? 0 : 1);
    }
    for (pid_t child : children) {
        int status = 0;
        EXPECT_TRUE(waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 0) << child;
    }
    Stanza *stanza = nullptr;
    ASSERT_TRUE(StnzLoadStanzaFromFile(&stanza, path.c_str(), "shared", "keys"));
    EXPECT_EQ(stanza->keyCount, kProcesses * kKeys);
    StnzRelease(&stanza);
    ASSERT_TRUE(StnzLoadStanzaFromFile(&stanza, path.c_str(), nullptr, "Other"));
    StnzRelease(&stanza);
}

} // namespace
