// Simple object types: each accessor answers only for its own type, the
// constructors' reports, string ownership, the words ObjGetValue copies and
// the values that pass through words.
#include <cstring>
#include <functional>
#include <type_traits>

#include "fixture.h"

namespace {

int gStanzaStandIn[2]; // stanzas come from the stanza module; only their address matters here
Stanza *const kStanza = reinterpret_cast<Stanza *>(&gStanzaStandIn[0]);
Stanza *const kOtherStanza = reinterpret_cast<Stanza *>(&gStanzaStandIn[1]);

// One object of each type, in the order of their registration.
struct Objects {
    OBJ_BOOLEAN *boolean = ObjBooleanNew(TRUE);
    OBJ_INTEGER *integer = ObjIntegerNew(7);
    OBJ_INT64 *int64 = ObjInt64New(5, 6);
    OBJ_STRING *string = ObjStringNew("text");
    OBJ_DATA_FIELD *data = ObjDataFieldNew("abc", 3);
    OBJ_STANZA *stanza = ObjStanzaNew(kStanza);
    OBJ_UNIQUE *unique;
    OBJ_VIEWABLE *viewable = ObjViewableNew(5, "view", nullptr);

    Objects() {
        unsigned char id[OBJ_UNIQUE_SIZE];
        for (int i = 0; i < OBJ_UNIQUE_SIZE; ++i) id[i] = static_cast<unsigned char>(i + 1);
        unique = ObjUniqueNewInternal(id);
    }
    ~Objects() {
        *ObjGetStanzaPointer(stanza) = nullptr; // not a real stanza: keep it from its release
        void *all[] = {boolean, integer, int64, string, data, stanza, unique, viewable};
        for (void *&object : all) ObjReleaseInternal(&object);
    }
    std::vector<void *> all() const { return {boolean, integer, int64, string, data, stanza, unique, viewable}; }
};

template <typename T> int64_t word(T value) {
    if constexpr (std::is_pointer_v<T>)
        return reinterpret_cast<intptr_t>(value);
    else
        return static_cast<int64_t>(value);
}

} // namespace

class ObjWrappersTest : public LibraryTest {};

TEST_F(ObjWrappersTest, EachAccessorAnswersOnlyForItsOwnType) {
    Objects o;
    const struct {
        const char *name;
        void *owner;
        std::function<int64_t(const void *)> get;
        int64_t own;
    } getters[] = {
        {"boolean", o.boolean, [](const void *x) { return word(ObjGetBoolean(x)); }, TRUE},
        {"integer", o.integer, [](const void *x) { return word(ObjGetInteger(x)); }, 7},
        {"int64", o.int64, [](const void *x) { return word(ObjGetInt64(x)); }, (int64_t{6} << 32) + 5},
        {"string", o.string, [](const void *x) { return word(ObjGetString(x)); }, word(o.string->pszValue)},
        {"data", o.data, [](const void *x) { return word(ObjGetDataField(x)); }, word(&o.data->oData)},
        {"data size", o.data, [](const void *x) { return word(ObjGetDataFieldSize(x)); }, 3},
        {"data bytes", o.data, [](const void *x) { return word(ObjGetDataFieldData(x)); }, word(o.data->oData.pData)},
        {"stanza", o.stanza, [](const void *x) { return word(ObjGetStanza(x)); }, word(kStanza)},
        {"stanza pointer", o.stanza, [](const void *x) { return word(ObjGetStanzaPointer(const_cast<void *>(x))); },
         word(&o.stanza->pStanza)},
        {"unique", o.unique, [](const void *x) { return word(ObjGetUnique(x)); }, word(o.unique->aId)},
    };
    for (const auto &g : getters) {
        EXPECT_EQ(g.get(nullptr), 0) << g.name;
        for (void *object : o.all()) EXPECT_EQ(g.get(object), object == g.owner ? g.own : 0) << g.name;
    }

    const struct {
        const char *name;
        void *owner;
        std::function<BOOL(void *)> set;
        std::function<bool()> took;
    } setters[] = {
        {"boolean", o.boolean, [](void *x) { return ObjSetBoolean(x, FALSE); }, [&] { return !o.boolean->bValue; }},
        {"integer", o.integer, [](void *x) { return ObjSetInteger(x, -3); }, [&] { return o.integer->iValue == -3; }},
        {"int64", o.int64, [](void *x) { return ObjSetInt64(x, 0, -1); },
         [&] { return o.int64->iValue == static_cast<int64_t>(0xFFFFFFFF00000000u); }},
        {"string", o.string, [](void *x) { return ObjSetString(x, "new"); },
         [&] { return strcmp(o.string->pszValue, "new") == 0; }},
        {"stanza", o.stanza, [](void *x) { return ObjSetStanza(x, kOtherStanza); },
         [&] { return o.stanza->pStanza == kOtherStanza; }},
    };
    for (const auto &s : setters) {
        for (void *object : o.all()) {
            if (object == s.owner) continue;
            const ObjectHeader *h = fh::objectHeader(object);
            const size_t bytes = h->Template->Descriptor.ObjSize - sizeof(ObjectHeader);
            std::vector<char> before(static_cast<char *>(object), static_cast<char *>(object) + bytes);
            EXPECT_FALSE(s.set(object)) << s.name;
            EXPECT_EQ(memcmp(before.data(), object, bytes), 0) << s.name;
        }
        EXPECT_FALSE(s.set(nullptr)) << s.name;
        EXPECT_TRUE(s.set(s.owner)) << s.name;
        EXPECT_TRUE(s.took()) << s.name;
    }
    EXPECT_FALSE(ObjSetStanza(o.stanza, nullptr));
    EXPECT_EQ(o.stanza->pStanza, kOtherStanza);
}

TEST_F(ObjWrappersTest, StringsAreCopiedAndTheOldOneIsFreed) {
    OBJ_STRING *object = ObjStringNew("first");
    const char *given = "second";
    const int32_t blocks = MemUsedCount();
    EXPECT_TRUE(ObjSetString(object, given));
    EXPECT_NE(object->pszValue, given);
    EXPECT_STREQ(object->pszValue, "second");
    EXPECT_EQ(MemUsedCount(), blocks);
    EXPECT_TRUE(ObjSetString(object, object->pszValue)); // its own string survives
    EXPECT_STREQ(object->pszValue, "second");
    char *block = StrDuplicateIntoPool("third", nullptr);
    EXPECT_TRUE(ObjSetStringNoCopy(object, block));
    EXPECT_EQ(object->pszValue, block);
    EXPECT_EQ(MemUsedCount(), blocks); // the block came in, the old string went
    EXPECT_TRUE(ObjSetString(object, nullptr));
    EXPECT_EQ(object->pszValue, nullptr);
    EXPECT_EQ(MemUsedCount(), blocks - 1);

    OBJ_STRING *none = ObjStringNew(nullptr), *ranged = ObjStringNewRanged("abcdef", 3);
    EXPECT_EQ(ObjGetString(none), nullptr);
    EXPECT_STREQ(ObjGetString(ranged), "abc");
    for (OBJ_STRING *s : {object, none, ranged}) ObjReleaseInternal(&s);
}

TEST_F(ObjWrappersTest, GetValueCopiesTheWordsOfItsSixTypesAndNothingMore) {
    Objects o;
    const struct {
        void *object;
        BOOL result;
        size_t bytes;
    } cases[] = {
        {o.boolean, TRUE, 4},          {o.integer, TRUE, 4},        {o.int64, TRUE, 8},
        {o.string, TRUE, sizeof(char *)}, {o.stanza, TRUE, sizeof(Stanza *)}, {o.unique, TRUE, OBJ_UNIQUE_SIZE},
        {o.data, FALSE, 0},            {o.viewable, FALSE, 0},      {nullptr, FALSE, 0},
    };
    for (const auto &c : cases) {
        unsigned char out[48];
        memset(out, 0xEE, sizeof out);
        EXPECT_EQ(ObjGetValue(out, c.object), c.result);
        EXPECT_TRUE(c.bytes == 0 || memcmp(out, c.object, c.bytes) == 0);
        for (size_t i = c.bytes; i < sizeof out; ++i) ASSERT_EQ(out[i], 0xEE) << c.bytes << " bytes, not " << i;
    }
    EXPECT_FALSE(ObjGetValue(nullptr, o.integer));
    int32_t value = 1;
    *fh::objectHeader(o.integer)->EndMagic ^= 1; // an overrun that reached the end magic
    EXPECT_FALSE(ObjGetValue(&value, o.integer));
    *fh::objectHeader(o.integer)->EndMagic ^= 1;
    EXPECT_EQ(value, 1);
}

TEST_F(ObjWrappersTest, CreateFormsReportANullOutUnderTheirId) {
    Stanza *stanza = nullptr; // a stanza object with none, so nothing is released here
    const struct {
        const char *name;
        std::function<BOOL(void **)> create;
        int32_t id;
        const char *text;
    } cases[] = {
        {"boolean", [](void **out) { return ObjBooleanCreate(reinterpret_cast<OBJ_BOOLEAN **>(out), TRUE); }, 93,
         "Invalid Argument"},
        {"integer", [](void **out) { return ObjIntegerCreate(reinterpret_cast<OBJ_INTEGER **>(out), 1); }, 94,
         "Invalid Argument"},
        {"int64", [](void **out) { return ObjInt64Create(reinterpret_cast<OBJ_INT64 **>(out), 1, 2); }, 95,
         "Invalid Argument"},
        {"string", [](void **out) { return ObjStringCreate(reinterpret_cast<OBJ_STRING **>(out), "s"); }, 96,
         "Invalid Argument"},
        {"data", [](void **out) { return ObjDataFieldCreate(reinterpret_cast<OBJ_DATA_FIELD **>(out), "d", 1); }, 97,
         "Invalid Argument"},
        {"data taken over", [](void **out) {
             void *block = MemAllocateFromPool(2, nullptr);
             const BOOL made = ObjDataFieldCreateNoCopy(reinterpret_cast<OBJ_DATA_FIELD **>(out), block, 2);
             if (!made) MemFreeInternal(&block);
             return made;
         }, 175, "Invalid Argument"},
        {"stanza", [&](void **out) { return ObjStanzaCreate(reinterpret_cast<OBJ_STANZA **>(out), stanza); }, 98,
         "Invalid Argument"},
        {"viewable", [](void **out) { return ObjViewableCreate(reinterpret_cast<OBJ_VIEWABLE **>(out), 1, "v", nullptr); },
         151, "Invalid Arguments"},
        {"unique", [](void **out) { return ObjUniqueCreateInternal(reinterpret_cast<OBJ_UNIQUE **>(out), "0123456789abcdef0123456789abcdef"); },
         0, nullptr},
    };
    for (const auto &c : cases) {
        const size_t records = traceTexts().size();
        EXPECT_FALSE(c.create(nullptr)) << c.name;
        if (c.id != 0)
            EXPECT_TRUE(traced("OBJECT", c.id, c.text)) << c.name;
        else
            EXPECT_EQ(traceTexts().size(), records) << c.name;
        void *made = nullptr;
        EXPECT_TRUE(c.create(&made)) << c.name;
        EXPECT_NE(made, nullptr) << c.name;
        ObjReleaseInternal(&made);
    }
    // What needs the stanza and unique identifier modules fails cleanly, with nothing made.
    const int32_t objects = ObjCount(), blocks = MemUsedCount();
    OBJ_UNIQUE placeholder, *unique = &placeholder;
    EXPECT_FALSE(ObjUniqueCreateInternal(&unique, nullptr));
    EXPECT_EQ(unique, nullptr);
    EXPECT_FALSE(ObjUniqueCreateSessionId(&unique, 1, 2, 3));
    EXPECT_EQ(ObjViewableNew(1, "v", kStanza), nullptr);
    EXPECT_TRUE(ObjCount() == objects && MemUsedCount() == blocks);
}

TEST_F(ObjWrappersTest, ValuesPassThroughTheirWords) {
    OBJ_INT64 *wide = ObjInt64New(-1, 1); // the low word is not sign-extended
    EXPECT_EQ(ObjGetInt64(wide), INT64_C(0x1FFFFFFFF));
    OBJ_DATA_FIELD *copied = ObjDataFieldNew("xyz", 3), *zeros = ObjDataFieldNew(nullptr, 4),
                   *empty = ObjDataFieldNew("x", 0);
    EXPECT_EQ(memcmp(ObjGetDataFieldData(copied), "xyz", 3), 0);
    EXPECT_EQ(memcmp(ObjGetDataFieldData(zeros), "\0\0\0\0", 4), 0);
    EXPECT_TRUE(ObjGetDataFieldData(empty) == nullptr && ObjGetDataFieldSize(empty) == 0);
    const int32_t blocks = MemUsedCount();
    OBJ_DATA_FIELD *taken = ObjDataFieldNewNoCopy(MemAllocateFromPool(8, nullptr), 8);
    ObjReleaseInternal(&taken); // the block went with the object
    EXPECT_EQ(MemUsedCount(), blocks);

    unsigned char bytes[OBJ_UNIQUE_SIZE] = {1, 2, 3};
    OBJ_UNIQUE *a = ObjUniqueNewInternal(bytes), *b = ObjUniqueNewInternal(bytes);
    void *lookalike = ObjNewInternal(OBJ_UNIQUE_SIZE, 0xC8003001, "u;", nullptr, nullptr);
    memcpy(lookalike, bytes, sizeof bytes);
    EXPECT_TRUE(ObjUniqueEqual(a, b));
    EXPECT_FALSE(ObjUniqueEqual(a, lookalike)); // the same bytes in another type
    EXPECT_FALSE(ObjUniqueEqual(a, nullptr));
    b->aId[31] = 9;
    EXPECT_FALSE(ObjUniqueEqual(a, b));
    EXPECT_FALSE(ObjUniqueSameSessionId(a, a)); // waits for the unique identifier module

    OBJ_VIEWABLE *viewable = ObjViewableNew(4, "seen", nullptr);
    ObjViewInfo view;
    ASSERT_TRUE(ObjGetViewInfo(&view, viewable));
    EXPECT_EQ(view.iWord, 4);
    EXPECT_STREQ(view.pszString, "seen");
    void *all[] = {wide, copied, zeros, empty, a, b, lookalike, viewable};
    for (void *&object : all) ObjReleaseInternal(&object);
}
