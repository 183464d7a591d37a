// Stanzas in memory: growth that moves the record, keyword look-up without
// case, the getters' defaults, the setters, and stanzas inside objects (copy,
// release, byte form).
#include "fixture.h"

#include <climits>
#include <string>
#include <vector>

namespace {

using StanzaTest = LibraryTest;

std::vector<std::string> keywords(const Stanza *stanza) {
    std::vector<std::string> out;
    for (int32_t i = 0; i < stanza->keyCount; ++i) out.push_back(stanza->keys[i]->keyword);
    return out;
}

std::vector<std::string> values(const StanzaKey *key) {
    std::vector<std::string> out;
    for (int32_t i = 1; i <= StnzKeyValueCount(key); ++i) {
        const char *value = StnzKeyValue(key, i);
        out.push_back(value != nullptr ? value : "(null)");
    }
    return out;
}

TEST_F(StanzaTest, KeysGrowReplaceAndGo) {
    Stanza *stanza = nullptr;
    ASSERT_TRUE(StnzCreate(&stanza, nullptr, "Title", 0));
    EXPECT_EQ(stanza->keyCapacity, 1);
    for (const char *name : {"a", "b", "A"}) {
        StanzaKey *key = nullptr;
        ASSERT_TRUE(StnzCreateKeyFromString(&key, name, name));
        ASSERT_TRUE(StnzAddKeyToStanza(&stanza, &key)); // the stanza may move
        EXPECT_EQ(key, nullptr);
        StnzReleaseKey(&key); // does nothing now
    }
    EXPECT_EQ(keywords(stanza), (std::vector<std::string>{"a", "b", "A"}));
    StanzaKey *found = nullptr;
    ASSERT_TRUE(StnzGetKey(&found, stanza, "B"));
    EXPECT_EQ(values(found), std::vector<std::string>{"b"});
    EXPECT_FALSE(StnzGetKey(nullptr, stanza, "c"));

    StanzaKey *key = nullptr;
    StnzCreateKeyFromInteger(&key, "a", -12);
    ASSERT_TRUE(StnzReplaceKeyInStanza(&stanza, &key));
    EXPECT_EQ(keywords(stanza), (std::vector<std::string>{"b", "a"}));
    StnzSetKeywordFromBoolean(&stanza, "flag", TRUE, FALSE);
    StnzSetKeywordFromBoolean(&stanza, "FLAG", FALSE, FALSE);
    EXPECT_TRUE(StnzDeleteKeywordFromStanza(stanza, "Flag", FALSE));
    ASSERT_TRUE(StnzGetKey(&found, stanza, "flag"));
    EXPECT_EQ(values(found), std::vector<std::string>{"false"}); // lower case, unlike StrFromBoolean
    EXPECT_TRUE(StnzDeleteKeywordFromStanza(stanza, "flag", TRUE));
    EXPECT_FALSE(StnzDeleteKeywordFromStanza(stanza, "flag", TRUE));

    ASSERT_TRUE(StnzGetKey(&found, stanza, "b"));
    StnzRemoveKeyFromStanza(stanza, found); // out, not released
    EXPECT_EQ(keywords(stanza), std::vector<std::string>{"a"});
    StnzReleaseKey(&found);
    StnzRelease(&stanza);
    EXPECT_EQ(stanza, nullptr);
    StnzRelease(&stanza);
}

// Capacities beyond the bound are refused before anything is allocated.
TEST_F(StanzaTest, CapacitiesHaveABound) {
    for (const int32_t capacity : {INT_MAX, STNZ_MAX_SLOTS + 1}) {
        Stanza *stanza = nullptr;
        StanzaKey *key = nullptr;
        EXPECT_FALSE(StnzCreate(&stanza, nullptr, "t", capacity));
        EXPECT_FALSE(StnzCreateKey(&key, "k", capacity));
        EXPECT_EQ(stanza, nullptr);
        EXPECT_EQ(key, nullptr);
    }
    char text[96];
    snprintf(text, sizeof text, "A capacity of %ld slots is beyond the bound of %ld", static_cast<long>(INT_MAX),
             static_cast<long>(STNZ_MAX_SLOTS));
    EXPECT_TRUE(traced("STANZA", 21, text));
    Stanza *stanza = nullptr;
    ASSERT_TRUE(StnzCreate(&stanza, nullptr, "t", STNZ_MAX_SLOTS));
    EXPECT_EQ(stanza->keyCapacity, STNZ_MAX_SLOTS);
    StnzRelease(&stanza);
}

TEST_F(StanzaTest, ValuesOfAKey) {
    StanzaKey *key = nullptr;
    ASSERT_TRUE(StnzCreateKey(&key, "list", 0));
    for (int i = 0; i < 100; ++i) ASSERT_TRUE(StnzAddValueToKey(&key, i % 10 == 0 ? nullptr : i % 2 ? "a" : "A"));
    EXPECT_EQ(StnzKeyValueCount(key), 100);
    EXPECT_EQ(key->valueCapacity % 4, 1); // four slots at a time from one
    EXPECT_EQ(StnzKeyValue(key, 0), nullptr);
    EXPECT_STREQ(StnzKeyValue(key, 100), "a");
    EXPECT_EQ(StnzKeyValue(key, 101), nullptr);
    EXPECT_EQ(StnzKeyValueCount(nullptr), -1);

    EXPECT_TRUE(StnzDeleteValueFromKey(key, "A", FALSE)); // case counts
    EXPECT_EQ(StnzKeyValueCount(key), 99);
    EXPECT_TRUE(StnzDeleteValueFromKey(key, "a", TRUE));
    EXPECT_TRUE(StnzDeleteValueFromKey(key, nullptr, TRUE));
    EXPECT_EQ(values(key), std::vector<std::string>(39, "A"));
    const char *kept = StnzKeyValue(key, 1);
    ASSERT_TRUE(StnzRemoveValueFromKey(key, 1));
    EXPECT_FALSE(StnzRemoveValueFromKey(key, 39));
    char *owned = const_cast<char *>(kept);
    MemFreeInternal(&owned); // the caller's now

    LIST *list = nullptr;
    ASSERT_TRUE(StnzKeyGetValueList(key, &list));
    OBJ_INTEGER *number = ObjIntegerNew(1);
    ListAddFirstItem(list, number); // a typed list refuses it
    EXPECT_EQ(list->iCount, 38);
    StanzaKey *rebuilt = nullptr;
    ASSERT_TRUE(StnzCreateKeyFromValueList(&rebuilt, "copy", list));
    EXPECT_EQ(values(rebuilt), values(key));
    EXPECT_EQ(rebuilt->valueCapacity, 38);
    EXPECT_FALSE(StnzCreateKeyFromValueList(&rebuilt, "", list));
    EXPECT_FALSE(StnzCreateKeyFromValueList(&rebuilt, "x", reinterpret_cast<LIST *>(number)));
    for (StanzaKey *k : {key, rebuilt}) StnzReleaseKey(&k);
    ObjReleaseInternal(&number);
    ObjReleaseInternal(&list);
}

TEST_F(StanzaTest, GettersGiveTheirDefaults) {
    Stanza *stanza = nullptr;
    StnzCreate(&stanza, "cat", "title", 4);
    StnzSetKeywordFromString(&stanza, "Number", "12x", TRUE);
    StnzSetKeywordFromString(&stanza, "wide", "-9000000000", TRUE);
    StnzSetKeywordFromString(&stanza, "yes", "TRUE", TRUE);
    StnzSetKeywordFromString(&stanza, "one", "1", TRUE);
    int32_t number = 0;
    int64_t wide = 0;
    BOOL flag = FALSE;
    char *text = nullptr;
    for (const auto &[keyword, fallback] : {std::pair{"number", 7}, {"missing", 8}}) { // "12x": no number
        EXPECT_TRUE(StnzGetInteger(stanza, keyword, fallback, &number)) << keyword;
        EXPECT_EQ(number, fallback) << keyword;
    }
    EXPECT_TRUE(StnzGetInt64(stanza, "WIDE", 0, &wide));
    EXPECT_EQ(wide, -9000000000LL);
    for (const auto &[keyword, fallback, value] :
         {std::tuple{"yes", FALSE, TRUE}, {"one", TRUE, FALSE}, {"missing", TRUE, TRUE}}) {
        EXPECT_TRUE(StnzGetBoolean(stanza, keyword, fallback, &flag)) << keyword;
        EXPECT_EQ(flag, value) << keyword;
    }
    EXPECT_TRUE(StnzGetString(stanza, "missing", nullptr, &text));
    EXPECT_EQ(text, nullptr);
    EXPECT_TRUE(StnzGetString(stanza, "missing", "dflt", &text));
    EXPECT_STREQ(text, "dflt");
    MemFreeInternal(&text);
    EXPECT_FALSE(StnzGetInteger(stanza, "number", 0, nullptr));
    LIST *list = reinterpret_cast<LIST *>(&number);
    EXPECT_FALSE(StnzGetValueList(stanza, "missing", &list));
    EXPECT_EQ(list, reinterpret_cast<LIST *>(&number));
    StnzRelease(&stanza);
}

TEST_F(StanzaTest, StanzasInsideObjects) {
    Stanza *stanza = nullptr;
    StnzCreate(&stanza, "cat", "ti:tle", 3);
    StnzSetKeywordFromInteger(&stanza, "k", 5, FALSE);
    StanzaKey *key = nullptr;
    StnzCreateKey(&key, "empty", 6);
    StnzAddValueToKey(&key, nullptr);
    StnzAddKeyToStanza(&stanza, &key);

    OBJ_VIEWABLE *view = ObjViewableNew(3, "seen", stanza); // a copy
    OBJ_STANZA *held = ObjStanzaNew(stanza);                // taken over
    void *copy = nullptr;
    ASSERT_TRUE(ObjDuplicate(&copy, held));
    const Stanza *back = ObjGetStanza(copy);
    ASSERT_NE(back, stanza);
    EXPECT_STREQ(back->category, "cat");
    EXPECT_STREQ(back->title, "ti:tle"); // split at the first colon
    EXPECT_EQ(back->keyCapacity, stanza->keyCapacity);
    EXPECT_EQ(values(back->keys[1]), std::vector<std::string>{"(null)"});
    EXPECT_EQ(back->keys[1]->valueCapacity, 6);
    EXPECT_TRUE(ObjCompare(copy, held));
    void *viewCopy = nullptr;
    ASSERT_TRUE(ObjDuplicateInternal(&viewCopy, view, FALSE));
    EXPECT_TRUE(ObjCompare(viewCopy, view));
    for (void *object : {static_cast<void *>(view), static_cast<void *>(held), copy, viewCopy})
        ObjReleaseInternal(&object); // the fixture finds a stanza left behind
}

} // namespace
