// Objects: template layout, reference counts, damaged and stale objects,
// release of long chains, deep copies, names, tag lists and sorting.
#include <algorithm>
#include <cstring>
#include <numeric>
#include <random>

#include "fixture.h"

namespace {

constexpr uint32_t kThing = 0xC8001001, kLink = 0xC8001002, kOther = 0xC8001003;

// The C struct that "i;s;o;c5;i;I;d;v;p;" describes.
struct Thing {
    int32_t number;
    char *text;
    void *child;
    char inlineBytes[8];
    int32_t second;
    int64_t wide;
    ObjData data;
    ObjViewInfo view;
    void *raw;
};
constexpr const char *kThingFormat = "i;s;o;c5;i;I;d;v;p;";

int gReleases = 0;
BOOL countRelease(void *) { return ++gReleases, TRUE; }

Thing *newThing() {
    return static_cast<Thing *>(ObjNewInternal(sizeof(Thing), kThing, kThingFormat, countRelease, nullptr));
}


// A pool that never gives memory back, so a stale pointer stays readable.
void *keepAllocate(MemPool *, size_t bytes) { return malloc(bytes); }
std::vector<void *> gKept;
BOOL keepFree(void *raw) { return gKept.push_back(raw), TRUE; }
const MemPoolOperations kKeepOperations = {nullptr, keepAllocate, keepFree, nullptr};
MemPool gKeepPool = {MEM_POOL_MAGIC, &kKeepOperations};

} // namespace

class ObjectTest : public LibraryTest {};

TEST_F(ObjectTest, LayoutFollowsTheStructOfTheFormat) {
    ObjectTemplate *t = ObjTemplateNewInternal(sizeof(Thing), kThing, kThingFormat, nullptr);
    ASSERT_NE(t, nullptr);
    const ObjectDescriptor &d = t->Descriptor;
    const struct { int32_t datatype, offset; } expected[] = {
        {eObjInteger, offsetof(Thing, number)}, {eObjString, offsetof(Thing, text)},
        {eObjObject, offsetof(Thing, child)},   {eObjInline, offsetof(Thing, inlineBytes)},
        {eObjInteger, offsetof(Thing, second)}, {eObjInt64, offsetof(Thing, wide)},
        {eObjData, offsetof(Thing, data)},      {eObjViewInfo, offsetof(Thing, view)},
        {eObjPointer, offsetof(Thing, raw)}};
    ASSERT_EQ(d.FieldCount, 9);
    for (int i = 0; i < 9; ++i) {
        EXPECT_EQ(d.Entries[i].Datatype, expected[i].datatype) << i;
        EXPECT_EQ(d.Entries[i].Offset, expected[i].offset) << i;
    }
    EXPECT_EQ(d.Entries[3].InlineSize, 5);
    EXPECT_EQ(d.ObjSize, static_cast<int32_t>(sizeof(Thing) + sizeof(ObjectHeader) + sizeof(uint32_t)));
    EXPECT_EQ(d.DbSize, 16 + 4 + 8 + 8 + 8 + 4 + 8 + 8 + 0 + 0);
    EXPECT_TRUE(d.InvalidDb);
    EXPECT_FALSE(t->Simple);
    EXPECT_STREQ(t->Name, "Unknown object magic 0xc8001001");
    // The same type again is the same template; the second callback is ignored.
    EXPECT_EQ(ObjTemplateNewInternal(sizeof(Thing), kThing, kThingFormat, countRelease), t);
    EXPECT_EQ(t->ReleaseCallback, nullptr);
}

TEST_F(ObjectTest, FormatsStopAtUnknownLettersAndRefuseOtherShapes) {
    ObjectTemplate *t = ObjTemplateNewInternal(-1, kOther, "i;i;x;s;", nullptr);
    ASSERT_NE(t, nullptr);
    EXPECT_EQ(t->Descriptor.FieldCount, 2);
    EXPECT_TRUE(t->Foreign && t->Simple);
    EXPECT_EQ(ObjTemplateNewInternal(-1, kOther, "i;", nullptr), nullptr); // no translator: one shape
    EXPECT_TRUE(traced("OBJECT", 155, "Object 'Unknown object magic 0xc8001003' c8001003 has changed shape from "
                                      "'i;' to 'i;i;x;s;'"));
    ObjectTemplate *empty = ObjTemplateNewInternal(0, 0xC8001004, "", nullptr);
    ASSERT_NE(empty, nullptr);
    EXPECT_EQ(empty->Descriptor.ObjSize, static_cast<int32_t>(sizeof(ObjectHeader) + sizeof(uint32_t)));
    void *instance = ObjTemplateNewInstanceFromPool(empty, nullptr);
    EXPECT_TRUE(ObjReleaseInternal(&instance));
    EXPECT_EQ(ObjTemplateNewInternal(-1, 0x12345678, "i;", nullptr), nullptr);
}

TEST_F(ObjectTest, DeclaredSizeThatDisagreesEndsTheProcess) {
    EXPECT_DEATH(ObjNewInternal(8, kOther, "i;q;i;", nullptr, nullptr), "");
}

TEST_F(ObjectTest, ReleaseDropsOwnedPartsAndOnlyTheCallersPointer) {
    const int32_t objects = ObjCount();
    Thing *thing = newThing();
    thing->text = StrDuplicateIntoPool("text", nullptr);
    thing->data = {3, MemAllocateFromPool(3, nullptr)};
    thing->view.pszString = StrDuplicateIntoPool("view", nullptr);
    thing->child = newThing();
    void *shared = thing;
    ASSERT_TRUE(ObjIncRefCount(shared));
    EXPECT_TRUE(ObjReleaseInternal(&shared));
    EXPECT_EQ(shared, nullptr);
    EXPECT_EQ(ObjCount(), objects + 2);
    gReleases = 0;
    EXPECT_TRUE(ObjReleaseInternal(&thing));
    EXPECT_EQ(gReleases, 2);
    EXPECT_EQ(ObjCount(), objects);
    EXPECT_FALSE(ObjReleaseInternal(&thing)); // null pointer: nothing to do
}

TEST_F(ObjectTest, DamagedAndStaleObjectsAreReportedNotReleased) {
    auto *thing = static_cast<Thing *>(ObjNewInternal(sizeof(Thing), kThing, kThingFormat, nullptr, &gKeepPool));
    uint32_t magic = 1;
    EXPECT_FALSE(ObjGetMagic(thing, nullptr));
    ASSERT_TRUE(ObjGetMagic(thing, &magic));
    EXPECT_EQ(magic, kThing);

    uint32_t *end = fh::objectHeader(thing)->EndMagic;
    *end ^= 1; // an overrun into the end magic
    EXPECT_FALSE(ObjGetMagic(thing, &magic));
    EXPECT_EQ(magic, 0u);
    Thing *pointer = thing;
    EXPECT_FALSE(ObjReleaseInternal(&pointer));
    EXPECT_EQ(pointer, thing);
    EXPECT_TRUE(traced("OBJECT", 71, "ObjRelease - Corrupt object at " + testing::PrintToString((void *)thing)));
    *end ^= 1;

    fh::objectHeader(thing)->RefCount = 0; // one release too many
    EXPECT_FALSE(ObjReleaseInternal(&pointer));
    fh::objectHeader(thing)->RefCount = 1;
    EXPECT_TRUE(ObjReleaseInternal(&pointer));
    pointer = thing; // stale: its memory is still there, its start magic is 0
    EXPECT_FALSE(ObjReleaseInternal(&pointer));
    EXPECT_FALSE(ObjIncRefCount(thing));
    EXPECT_STREQ(ObjNameFromObject(thing), "Invalid Object");
    for (void *raw : gKept) free(raw);
    gKept.clear();
}

// Bytes of a damaged block are never followed: zeroed memory where an
// object should be, and end pointers that lie outside the block.
TEST_F(ObjectTest, DamagedBlocksAreNotReadThroughTheirEndPointer) {
    auto *block = static_cast<char *>(MemAllocateFromPool(sizeof(ObjectHeader) + 16, nullptr));
    void *object = block + sizeof(ObjectHeader);
    ObjectHeader *header = fh::objectHeader(object);
    uint32_t outside = kThing;
    uint32_t *ends[] = {nullptr, &outside, reinterpret_cast<uint32_t *>(block + sizeof(ObjectHeader) + 16),
                        reinterpret_cast<uint32_t *>(block) + 1};
    for (uint32_t *end : ends) {
        header->StartMagic = end == nullptr ? 0 : kThing;
        header->EndMagic = end;
        uint32_t magic = 1;
        EXPECT_FALSE(ObjGetMagic(object, &magic));
        EXPECT_EQ(magic, 0u);
        EXPECT_FALSE(ObjHasValidGlobalMagic(object));
        void *pointer = object;
        EXPECT_FALSE(ObjReleaseInternal(&pointer));
    }
    EXPECT_TRUE(traced("OBJECT", 28, "Start/end magic disagree - object is corrupt 0 0"));
    char text[80];
    snprintf(text, sizeof text, "Start/end magic disagree - object is corrupt %lx 0", static_cast<unsigned long>(kThing));
    EXPECT_TRUE(traced("OBJECT", 28, text));
    MemFreeInternal(&block);
}

// A type that arrived from elsewhere before this process declared it: the
// declaration takes the magic over, whatever shape arrived, and keeps its
// release callback; what was received keeps its own shape.
TEST_F(ObjectTest, ADeclarationTakesTheMagicFromAReceivedShape) {
    struct Late {
        char *text;
        void *child;
    };
    constexpr uint32_t kLate = 0xC8001005, kSame = 0xC8001006;
    const unsigned char other[] = {0x01, 0x05, 0x10, 0x00, 0xC8, 0x03, 0, 0, 0, 'i', ';', 0, 7, 0, 0, 0};
    const unsigned char same[] = {0x01, 0x06, 0x10, 0x00, 0xC8, 0x03, 0, 0, 0, 'i', ';', 0, 7, 0, 0, 0};
    void *received = nullptr, *sameShape = nullptr;
    ASSERT_TRUE(ObjReconstructFromBytes(&received, other, sizeof other));
    ASSERT_TRUE(ObjReconstructFromBytes(&sameShape, same, sizeof same));
    EXPECT_TRUE(ObjCheckTypeInternal(received, kLate));

    gReleases = 0;
    auto *late = static_cast<Late *>(ObjNewInternal(sizeof(Late), kLate, "s;o;", countRelease, nullptr));
    auto *declared = static_cast<int32_t *>(ObjNewInternal(sizeof(int32_t), kSame, "i;", countRelease, nullptr));
    ASSERT_NE(late, nullptr);
    ASSERT_NE(declared, nullptr);
    EXPECT_EQ(ObjGetInstanceCount(kLate), 1);
    EXPECT_STREQ(ObjGetDescriptor(late), "s;o;");
    EXPECT_STREQ(ObjGetDescriptor(received), "i;");
    EXPECT_FALSE(ObjCheckTypeInternal(received, kLate)); // no longer taken for the declared type
    EXPECT_FALSE(ObjCheckTypeInternal(sameShape, kSame));
    EXPECT_TRUE(ObjCheckTypeInternal(late, kLate));
    EXPECT_EQ(*static_cast<int32_t *>(received), 7);
    ObjReleaseInternal(&late);
    ObjReleaseInternal(&declared);
    EXPECT_EQ(gReleases, 2);
    ObjReleaseInternal(&received);
    ObjReleaseInternal(&sameShape);
    EXPECT_EQ(gReleases, 2);

    // The old shape now arrives as another shape of a declared type.
    EXPECT_FALSE(ObjReconstructFromBytes(&received, other, sizeof other));
    EXPECT_EQ(received, nullptr);
}

namespace {
struct Node {
    void *next;
    int32_t value;
};
void *releaseChain(void *) {
    void *head = nullptr;
    for (int i = 0; i < 1000000; ++i) {
        auto *node = static_cast<Node *>(ObjNewInternal(sizeof(Node), kLink, "L;i;", nullptr, nullptr));
        node->next = head;
        head = node;
    }
    return reinterpret_cast<void *>(static_cast<intptr_t>(ObjReleaseInternal(&head)));
}
} // namespace

TEST_F(ObjectTest, AMillionLinksAreReleasedInASmallStack) {
    EXPECT_EQ(runInSmallStack(releaseChain), reinterpret_cast<void *>(1));
}

TEST_F(ObjectTest, DeepCopyKeepsSharingAndSkipsLocalReferences) {
    Thing *source = newThing();
    source->number = 7;
    source->text = StrDuplicateIntoPool("hello", nullptr);
    source->data = {4, MemAllocateFromPool(4, nullptr)};
    memcpy(source->data.pData, "abcd", 4);
    memcpy(source->inlineBytes, "12345", 5);
    source->wide = INT64_C(0x123456789);
    Thing *child = newThing();
    child->child = newThing(); // shared below: the copy must share it too
    ObjIncRefCount(child->child);
    source->child = child;
    child->raw = child->child;

    void *copy = nullptr;
    ASSERT_TRUE(ObjDuplicateInternal(&copy, source, FALSE));
    auto *c = static_cast<Thing *>(copy);
    EXPECT_EQ(c->number, 7);
    EXPECT_NE(c->text, source->text);
    EXPECT_STREQ(c->text, "hello");
    EXPECT_EQ(memcmp(c->data.pData, "abcd", 4), 0);
    EXPECT_EQ(memcmp(c->inlineBytes, "12345", 5), 0);
    EXPECT_EQ(c->wide, source->wide);
    auto *copiedChild = static_cast<Thing *>(c->child);
    ASSERT_NE(copiedChild, nullptr);
    EXPECT_NE(copiedChild, child);
    EXPECT_EQ(fh::objectHeader(copiedChild->child)->RefCount, 1);
    ObjReleaseInternal(&child->raw); // the extra reference taken above
    ObjReleaseInternal(&copy);
    ObjReleaseInternal(&source);
}

TEST_F(ObjectTest, NamesAndInstanceCounts) {
    EXPECT_STREQ(ObjNameFromMagic(0), "No Magic");
    EXPECT_STREQ(ObjNameFromMagic(0x12345678), "Invalid Magic");
    EXPECT_STREQ(ObjNameFromMagic(0xC8007777), "Unknown Object");
    EXPECT_STREQ(ObjNameFromObject(nullptr), "NULL Object");
    EXPECT_EQ(ObjGetInstanceCount(kThing), -1);
    Thing *thing = newThing();
    EXPECT_EQ(ObjGetInstanceCount(kThing), 1);
    EXPECT_TRUE(ObjSetObjName(kThing, "THING"));
    EXPECT_FALSE(ObjSetObjName(kThing, "AGAIN"));
    EXPECT_FALSE(ObjSetObjName(0x12345678, "BAD"));
    EXPECT_STREQ(ObjNameFromObject(thing), "THING");
    EXPECT_TRUE(ObjSetObjName(0xC8007777, "LATER"));
    EXPECT_STREQ(ObjTemplateNewInternal(-1, 0xC8007777, "i;", nullptr)->Name, "LATER");
    ObjReleaseInternal(&thing);
    EXPECT_EQ(ObjGetInstanceCount(kThing), 0);
}

TEST_F(ObjectTest, TagListsSetIntegersAndStrings) {
    Thing *thing = newThing();
    ObjSetFromTagsVA(thing, -2, 0, 42, 1, "first", 4, 9, -1);
    ObjSetFromTagsVA(thing, -2, 1, "second", -1);
    EXPECT_EQ(thing->number, 42);
    EXPECT_EQ(thing->second, 9);
    EXPECT_STREQ(thing->text, "second");
    ObjSetFromTagsVA(thing, 0);
    ObjSetFromTagsVA(thing, 5, 0, 1, -1);
    EXPECT_TRUE(traced("OBJECT", 161, "Bad tags list for object type 'Unknown object magic 0xc8001001', "
                                      "starting with tag value 5"));
    ObjSetFromTagsVA(thing, -2, 2, nullptr, 0, 43, -1); // an object component cannot be set by tag
    EXPECT_EQ(thing->number, 43);
    gtLmContext.pObjTagTarget = thing;
    ObjSetFromTagsStepperInternal(-2, 4, 10, -1);
    EXPECT_EQ(thing->second, 10);
    ObjReleaseInternal(&thing);
}

namespace {
int32_t byValue(void *a, void *b) {
    const auto x = reinterpret_cast<intptr_t>(a), y = reinterpret_cast<intptr_t>(b);
    return x < y ? -1 : x > y ? 1 : 0;
}
int32_t refuseAfter(void *a, void *b, void *cookie) {
    int *left = static_cast<int *>(cookie);
    return --*left < 0 ? 2 : byValue(a, b);
}
} // namespace

TEST_F(ObjectTest, QuickSortSortsAndStopsOnABadComparison) {
    std::mt19937 random(7);
    for (int n : {0, 1, 2, 3, 17, 1000, 200000}) {
        std::vector<void *> values(n);
        for (auto &v : values) v = reinterpret_cast<void *>(static_cast<intptr_t>(random() % 100));
        if (n == 200000) std::sort(values.begin(), values.end()); // already in order
        std::vector<void *> expected = values;
        std::sort(expected.begin(), expected.end());
        EXPECT_TRUE(ObjQuickSort(values.data(), n - 1, byValue)) << n;
        EXPECT_EQ(values, expected) << n;
    }
    // What a stopped sort leaves is checked through the list sort over it.
    std::vector<void *> values(50);
    for (auto &v : values) v = reinterpret_cast<void *>(static_cast<intptr_t>(random() % 1000));
    int budget = 30;
    EXPECT_FALSE(ObjQuickSortWithCookie(values.data(), 49, refuseAfter, &budget));
}

TEST_F(ObjectTest, CountersReachTheProcessTableEntry) {
    unsigned char entry[104] = {};
    gtLmContext.pProcessTableEntry = entry;
    Thing *thing = newThing();
    int32_t used;
    for (const auto &[offset, expected] : {std::pair{92, ObjCount()}, {96, ObjMax()}, {100, ObjAllocations()}}) {
        memcpy(&used, entry + offset, 4);
        EXPECT_EQ(used, expected) << offset;
    }
    ObjReleaseInternal(&thing);
    memcpy(&used, entry + 92, 4);
    EXPECT_EQ(used, ObjCount());
    gtLmContext.pProcessTableEntry = nullptr;
}

TEST_F(ObjectTest, TranslatorsAllowASecondShape) {
    auto translate = [](void **) -> int32_t { return 1; };
    ObjectTemplate *foreign = ObjTemplateNewInternal(-1, 0xC8001006, "i;i;", nullptr);
    ASSERT_TRUE(ObjSetTranslatorInternal(-1, 0xC8001006, "i;i;", nullptr, translate));
    ObjectTemplate *own = ObjTemplateNewInternal(4, 0xC8001006, "i;", nullptr);
    ASSERT_NE(own, nullptr);
    EXPECT_EQ(own->Next, foreign);
    EXPECT_EQ(own->Translator, foreign->Translator);
    EXPECT_EQ(ObjTemplateNewInternal(-1, 0xC8001006, "i;i;", nullptr), foreign);
    // A received shape of its own never becomes the head; it is kept behind
    // it and found again for the next object of that shape.
    ObjectTemplate *received = ObjTemplateNewInternal(-1, 0xC8001006, "i;i;i;", nullptr);
    ASSERT_NE(received, nullptr);
    EXPECT_EQ(received->Translator, own->Translator);
    EXPECT_EQ(ObjTemplateNewInternal(-1, 0xC8001006, "i;i;i;", nullptr), received);
    EXPECT_EQ(ObjTemplateNewInternal(4, 0xC8001006, "i;", nullptr), own);
    EXPECT_EQ(own->Next, received);
    EXPECT_EQ(received->Next, foreign);
    void *thing = ObjTemplateNewInstanceFromPool(own, nullptr);
    EXPECT_DEATH(ObjSetTranslatorInternal(4, 0xC8001006, "i;", nullptr, nullptr), "");
    // Two declared shapes of one magic conflict, which ends the process.
    EXPECT_DEATH(ObjTemplateNewInternal(16, 0xC8001006, "i;i;i;i;", nullptr), "");
    ObjReleaseInternal(&thing);
}

TEST_F(ObjectTest, ViewInformationComesFromTheFirstComponent) {
    struct Viewable {
        ObjViewInfo view;
    };
    auto *v = static_cast<Viewable *>(ObjNewInternal(sizeof(Viewable), 0xC8001007, "v;", nullptr, nullptr));
    v->view.iWord = 5;
    ObjViewInfo out;
    EXPECT_TRUE(ObjGetViewInfo(&out, v));
    EXPECT_EQ(out.iWord, 5);
    Thing *thing = newThing();
    EXPECT_FALSE(ObjGetViewInfo(&out, thing));
    EXPECT_EQ(out.iWord, -1);
    EXPECT_FALSE(ObjGetViewInfo(nullptr, thing));
    ObjReleaseInternal(&thing);
    ObjReleaseInternal(&v);
}
