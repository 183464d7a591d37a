// Simple object types: each accessor answers only for its own type, the
// reports of the Create forms, string ownership, the words ObjGetValue
// copies and the values that pass through words.
#include <cstring>
#include <functional>
#include <type_traits>

#include "fixture.h"

namespace {

int gStanzaStandIn[2]; // stanzas belong to the stanza module; only their address matters here
Stanza *const kStanza = reinterpret_cast<Stanza *>(&gStanzaStandIn[0]);
Stanza *const kOtherStanza = reinterpret_cast<Stanza *>(&gStanzaStandIn[1]);
const unsigned char kId[OBJ_UNIQUE_SIZE] = {1, 2, 3, 4, 5, 6, 7, 8, 9};

// One object of each type.
struct Objects {
    OBJ_BOOLEAN *boolean = ObjBooleanNew(TRUE);
    OBJ_INTEGER *integer = ObjIntegerNew(7);
    OBJ_INT64 *int64 = ObjInt64New(5, 6);
    OBJ_STRING *string = ObjStringNew("text");
    OBJ_DATA_FIELD *data = ObjDataFieldNew("abc", 3);
    OBJ_STANZA *stanza = ObjStanzaNew(kStanza);
    OBJ_UNIQUE *unique = ObjUniqueNewInternal(kId);
    OBJ_VIEWABLE *viewable = ObjViewableNew(5, "view", nullptr);

    std::vector<void *> all() const { return {boolean, integer, int64, string, data, stanza, unique, viewable}; }
    ~Objects() {
        *ObjGetStanzaPointer(stanza) = nullptr; // no real stanza to release
        for (void *object : all()) ObjReleaseInternal(&object);
    }
};

template <typename T> int64_t word(T value) {
    if constexpr (std::is_pointer_v<T>)
        return reinterpret_cast<intptr_t>(value);
    else
        return static_cast<int64_t>(value);
}

// A Create form called with an out pointer, or with none.
template <typename T, typename... Arguments>
std::function<BOOL(void **)> creating(BOOL (*create)(T **, Arguments...), Arguments... arguments) {
    return [=](void **out) { return create(reinterpret_cast<T **>(out), arguments...); };
}

} // namespace

class ObjWrappersTest : public LibraryTest {};

TEST_F(ObjWrappersTest, EachAccessorAnswersOnlyForItsOwnType) {
    Objects o;
    const struct {
        void *owner;
        std::function<int64_t(void *)> get;
        int64_t own;
    } getters[] = {
        {o.boolean, [](void *x) { return word(ObjGetBoolean(x)); }, TRUE},
        {o.integer, [](void *x) { return word(ObjGetInteger(x)); }, 7},
        {o.int64, [](void *x) { return word(ObjGetInt64(x)); }, (int64_t{6} << 32) + 5},
        {o.string, [](void *x) { return word(ObjGetString(x)); }, word(o.string->pszValue)},
        {o.data, [](void *x) { return word(ObjGetDataField(x)); }, word(&o.data->oData)},
        {o.data, [](void *x) { return word(ObjGetDataFieldSize(x)); }, 3},
        {o.data, [](void *x) { return word(ObjGetDataFieldData(x)); }, word(o.data->oData.pData)},
        {o.stanza, [](void *x) { return word(ObjGetStanza(x)); }, word(kStanza)},
        {o.stanza, [](void *x) { return word(ObjGetStanzaPointer(x)); }, word(&o.stanza->pStanza)},
        {o.unique, [](void *x) { return word(ObjGetUnique(x)); }, word(o.unique->aId)},
    };
    for (const auto &g : getters) {
        EXPECT_EQ(g.get(nullptr), 0) << g.own;
        for (void *object : o.all()) EXPECT_EQ(g.get(object), object == g.owner ? g.own : 0) << g.own;
    }
    const struct {
        void *owner;
        std::function<BOOL(void *)> set;
        std::function<bool()> took;
    } setters[] = {
        {o.boolean, [](void *x) { return ObjSetBoolean(x, FALSE); }, [&] { return !o.boolean->bValue; }},
        {o.integer, [](void *x) { return ObjSetInteger(x, -3); }, [&] { return o.integer->iValue == -3; }},
        {o.int64, [](void *x) { return ObjSetInt64(x, 0, -1); },
         [&] { return o.int64->iValue == -(int64_t{1} << 32); }},
        {o.string, [](void *x) { return ObjSetString(x, "new"); }, [&] { return !strcmp(o.string->pszValue, "new"); }},
        {o.stanza, [](void *x) { return ObjSetStanza(x, kOtherStanza); },
         [&] { return o.stanza->pStanza == kOtherStanza; }},
    };
    for (const auto &s : setters) {
        for (void *object : o.all()) {
            if (object == s.owner) continue;
            const size_t bytes = fh::objectHeader(object)->Template->Descriptor.ObjSize - sizeof(ObjectHeader);
            const std::vector<char> before(static_cast<char *>(object), static_cast<char *>(object) + bytes);
            EXPECT_FALSE(s.set(object));
            EXPECT_EQ(memcmp(before.data(), object, bytes), 0); // nothing written
        }
        EXPECT_FALSE(s.set(nullptr));
        EXPECT_TRUE(s.set(s.owner) && s.took());
    }
    EXPECT_FALSE(ObjSetStanza(o.stanza, nullptr));
    EXPECT_EQ(o.stanza->pStanza, kOtherStanza);
}

TEST_F(ObjWrappersTest, StringsAreCopiedAndTheOldOneIsFreed) {
    OBJ_STRING *object = ObjStringNew("first"), *none = ObjStringNew(nullptr),
               *ranged = ObjStringNewRanged("abcdef", 3);
    const char *given = "second";
    const int32_t blocks = MemUsedCount();
    EXPECT_TRUE(ObjSetString(object, given) && object->pszValue != given && !strcmp(object->pszValue, "second"));
    EXPECT_EQ(MemUsedCount(), blocks);
    EXPECT_TRUE(ObjSetString(object, object->pszValue)); // its own string survives
    EXPECT_STREQ(object->pszValue, "second");
    char *block = StrDuplicateIntoPool("third", nullptr);
    EXPECT_TRUE(ObjSetStringNoCopy(object, block) && object->pszValue == block);
    EXPECT_EQ(MemUsedCount(), blocks); // the block came in, the old string went
    EXPECT_TRUE(ObjSetString(object, nullptr) && object->pszValue == nullptr && MemUsedCount() == blocks - 1);
    EXPECT_TRUE(ObjGetString(none) == nullptr && !strcmp(ObjGetString(ranged), "abc"));
    for (OBJ_STRING *s : {object, none, ranged}) ObjReleaseInternal(&s);
}

TEST_F(ObjWrappersTest, GetValueCopiesTheWordsOfItsSixTypesAndNothingMore) {
    Objects o;
    const struct {
        void *object;
        size_t bytes; // 0: not read at all
    } cases[] = {{o.boolean, 4}, {o.integer, 4}, {o.int64, 8}, {o.string, sizeof(char *)},
                 {o.stanza, sizeof(Stanza *)}, {o.unique, OBJ_UNIQUE_SIZE}, {o.data, 0}, {o.viewable, 0}, {nullptr, 0}};
    for (const auto &c : cases) {
        unsigned char out[48];
        memset(out, 0xEE, sizeof out);
        EXPECT_EQ(ObjGetValue(out, c.object), c.bytes != 0);
        EXPECT_TRUE(c.bytes == 0 || memcmp(out, c.object, c.bytes) == 0);
        for (size_t i = c.bytes; i < sizeof out; ++i) ASSERT_EQ(out[i], 0xEE) << c.bytes << " bytes, not " << i;
    }
    int32_t value = 1;
    *fh::objectHeader(o.integer)->EndMagic ^= 1; // an overrun that reached the end magic
    EXPECT_FALSE(ObjGetValue(&value, o.integer) || ObjGetValue(nullptr, o.boolean) || value != 1);
    *fh::objectHeader(o.integer)->EndMagic ^= 1;
}

TEST_F(ObjWrappersTest, CreateFormsReportANullOutUnderTheirId) {
    const struct {
        std::function<BOOL(void **)> create;
        int32_t id; // 0: no report
        const char *text;
    } cases[] = {
        {creating(ObjBooleanCreate, BOOL{TRUE}), 93, "Invalid Argument"},
        {creating(ObjIntegerCreate, int32_t{1}), 94, "Invalid Argument"},
        {creating(ObjInt64Create, int32_t{1}, int32_t{2}), 95, "Invalid Argument"},
        {creating(ObjStringCreate, "s"), 96, "Invalid Argument"},
        {creating(ObjDataFieldCreate, static_cast<const void *>("d"), int32_t{1}), 97, "Invalid Argument"},
        {creating(ObjDataFieldCreateNoCopy, static_cast<void *>(nullptr), int32_t{0}), 175, "Invalid Argument"},
        {creating(ObjStanzaCreate, static_cast<Stanza *>(nullptr)), 98, "Invalid Argument"},
        {creating(ObjViewableCreate, int32_t{1}, "v", static_cast<const Stanza *>(nullptr)), 151, "Invalid Arguments"},
        {creating(ObjUniqueCreateInternal, static_cast<const void *>(kId)), 0, nullptr},
    };
    for (const auto &c : cases) {
        const size_t records = traceTexts().size();
        EXPECT_FALSE(c.create(nullptr)) << c.id;
        EXPECT_TRUE(c.id == 0 ? traceTexts().size() == records : traced("OBJECT", c.id, c.text)) << c.id;
        void *made = nullptr;
        EXPECT_TRUE(c.create(&made) && made != nullptr) << c.id;
        ObjReleaseInternal(&made);
    }
    // What needs the unique identifier module fails cleanly, with nothing made.
    const int32_t objects = ObjCount(), blocks = MemUsedCount();
    OBJ_UNIQUE placeholder, *unique = &placeholder;
    EXPECT_FALSE(ObjUniqueCreateInternal(&unique, nullptr));
    EXPECT_FALSE(ObjUniqueCreateSessionId(&unique, 1, 2, 3) || unique != nullptr);
    EXPECT_TRUE(ObjCount() == objects && MemUsedCount() == blocks);
}

TEST_F(ObjWrappersTest, ValuesPassThroughTheirWords) {
    OBJ_INT64 *wide = ObjInt64New(-1, 1); // the low word is not sign-extended
    EXPECT_EQ(ObjGetInt64(wide), INT64_C(0x1FFFFFFFF));
    const int32_t blocks = MemUsedCount();
    OBJ_DATA_FIELD *taken = ObjDataFieldNewNoCopy(MemAllocateFromPool(8, nullptr), 8);
    ObjReleaseInternal(&taken); // the block went with the object
    EXPECT_EQ(MemUsedCount(), blocks);

    OBJ_UNIQUE *a = ObjUniqueNewInternal(kId), *b = ObjUniqueNewInternal(kId);
    void *lookalike = ObjNewInternal(OBJ_UNIQUE_SIZE, 0xC8003001, "u;", nullptr, nullptr);
    memcpy(lookalike, kId, sizeof kId);
    EXPECT_TRUE(ObjUniqueEqual(a, b));
    EXPECT_FALSE(ObjUniqueEqual(a, lookalike) || ObjUniqueEqual(a, nullptr)); // the same bytes in another type
    b->aId[31] = 9;
    EXPECT_FALSE(ObjUniqueEqual(a, b));

    OBJ_VIEWABLE *viewable = ObjViewableNew(4, "seen", nullptr);
    ObjViewInfo view;
    EXPECT_TRUE(ObjGetViewInfo(&view, viewable) && view.iWord == 4 && !strcmp(view.pszString, "seen"));
    void *all[] = {wide, a, b, lookalike, viewable};
    for (void *&object : all) ObjReleaseInternal(&object);
}
