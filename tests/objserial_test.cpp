// The byte form of objects: the golden encodings, back references, Local
// components, frames, translators, files, the bounded reader, and the walker.
#include "fixture.h"

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <random>
#include <vector>

namespace {

using Bytes = std::vector<unsigned char>;
using SerialTest = LibraryTest;

// A type that holds an integer, an object, a local object, data and a pointer.
constexpr uint32_t kNodeMagic = 0xC9000101u;
struct Node {
    int32_t value;
    void *next;
    void *local;
    ObjData data;
    void *pointer;
};
// The test declares Node, so bytes from elsewhere may make one only because
// it says they may (its p component makes it name a check).
BOOL anyNode(const void *) { return TRUE; }
Node *newNode(int32_t value) {
    auto *node = static_cast<Node *>(ObjNewInternal(sizeof(Node), kNodeMagic, "i;o;ol;d;p;", nullptr, nullptr));
    ObjTemplateSetReceivable(ObjGetTemplateFromObject(node), anyNode);
    node->value = value;
    return node;
}

Bytes encode(const void *object, bool local = false) {
    Bytes bytes(static_cast<size_t>(local ? ObjSerializedSizeLocal(object) : ObjSerializedSize(object)));
    int32_t length = -1;
    EXPECT_TRUE(local ? ObjSerializeLocal(object, bytes.data(), &length)
                      : ObjSerializeToMemory(object, bytes.data(), &length));
    EXPECT_EQ(length, static_cast<int32_t>(bytes.size()));
    return bytes;
}

// Bytes written as hex digits; anything else between them is ignored.
Bytes hex(const char *text) {
    Bytes bytes;
    for (const char *p = text; p[0] != '\0' && p[1] != '\0';) {
        if (!isxdigit(static_cast<unsigned char>(p[0]))) {
            ++p;
            continue;
        }
        bytes.push_back(static_cast<unsigned char>(std::stoi(std::string(p, 2), nullptr, 16)));
        p += 2;
    }
    return bytes;
}

void *decode(const Bytes &bytes) {
    void *object = nullptr;
    EXPECT_TRUE(ObjReconstructFromBytes(&object, bytes.data(), static_cast<int32_t>(bytes.size())));
    return object;
}

TEST_F(SerialTest, GoldenEncodings) {
    OBJ_INTEGER *five = ObjIntegerNew(5);
    EXPECT_EQ(encode(five), (Bytes{0x01, 0x2A, 0xF2, 0x6C, 0xC9, 0x03, 0, 0, 0, 0x69, 0x3B, 0x00, 0x05, 0, 0, 0}));
    ObjReleaseInternal(&five);

    LIST *list = ListNewFromPool(0, nullptr);
    OBJ_STRING *a = ObjStringNew("a"), *bc = ObjStringNew("bc");
    ListAddLastItem(list, a);
    ListAddLastItem(list, bc);
    const Bytes item = {0x01, 0x6F, 0xEC, 0x6C, 0xC9, 0x03, 0, 0, 0, 0x73, 0x3B, 0x00};
    Bytes expected = {0x01, 0xB9, 0xF9, 0xA2, 0xC8, 0, 0, 0, 0, 0x02, 0, 0, 0, 0x00};
    expected.insert(expected.end(), item.begin(), item.end());
    expected.insert(expected.end(), {0x02, 0, 0, 0, 0x61, 0x00});
    expected.insert(expected.end(), item.begin(), item.end());
    expected.insert(expected.end(), {0x03, 0, 0, 0, 0x62, 0x63, 0x00, 0xB9, 0xF9, 0xA2, 0xC8});
    ObjReleaseInternal(&a);
    ObjReleaseInternal(&bc);
    EXPECT_EQ(encode(list), expected);

    // The same string twice: lead 2 with id 1, then a back reference; ids
    // start at 1 again in the next operation.
    ListRemoveLastItem(list);
    ListGetNthItem(&a, list, 1);
    ListAddLastItem(list, a);
    ObjReleaseInternal(&a);
    const Bytes twice = encode(list);
    const Bytes shared = {0x02, 0x01, 0, 0, 0, 0x6F, 0xEC, 0x6C, 0xC9};
    EXPECT_TRUE(std::search(twice.begin(), twice.end(), shared.begin(), shared.end()) != twice.end());
    const Bytes back = {0x03, 0x01, 0, 0, 0, 0xB9, 0xF9, 0xA2, 0xC8};
    EXPECT_TRUE(std::equal(back.begin(), back.end(), twice.end() - 9));
    EXPECT_EQ(encode(list), twice);
    ObjReleaseInternal(&list);

    EXPECT_EQ(encode(nullptr), Bytes{0});
    void *null = &null;
    EXPECT_TRUE(ObjReconstructFromMemory(&null, Bytes{0}.data()));
    EXPECT_EQ(null, nullptr);
}

TEST_F(SerialTest, ComponentsLocalDataAndPointers) {
    Node *node = newNode(-7);
    node->local = ObjStringNew("local");
    node->next = newNode(3);
    const Bytes plain = encode(node), whole = encode(node, true);

    auto *fromPlain = static_cast<Node *>(decode(plain));
    auto *fromWhole = static_cast<Node *>(decode(whole));
    EXPECT_EQ(fromPlain->value, -7);
    EXPECT_EQ(fromPlain->local, nullptr);
    EXPECT_STREQ(ObjGetString(fromWhole->local), "local");
    EXPECT_EQ(static_cast<Node *>(fromWhole->next)->value, 3);
    EXPECT_EQ(fromPlain->data.pData, nullptr); // size 0: four bytes, no block
    ObjReleaseInternal(&fromPlain);
    ObjReleaseInternal(&fromWhole);

    // A p component: an in-process copy keeps the whole pointer, a pointer
    // above 4 GiB too; bytes that leave the process keep its low 32 bits,
    // which on a 32-bit build are all of it, and no reader of bytes from
    // elsewhere takes one that is not null.
    node->data = {3, MemAllocateFromPool(3, nullptr)};
    memcpy(node->data.pData, "xyz", 3);
    const uintptr_t pointers[] = {0, 0x7FFFFFFF, 0x80000000, UINTPTR_MAX,
                                  static_cast<uintptr_t>(UINT64_C(0x123456789A))};
    for (const uintptr_t pointer : pointers) {
        SCOPED_TRACE(pointer);
        node->pointer = reinterpret_cast<void *>(pointer);
        Node *copy = nullptr;
        ASSERT_TRUE(ObjDuplicate(reinterpret_cast<void **>(&copy), node));
        EXPECT_EQ(copy->pointer, node->pointer);
        EXPECT_EQ(memcmp(copy->data.pData, "xyz", 3), 0);
        EXPECT_STREQ(ObjGetString(copy->local), "local");
        EXPECT_TRUE(ObjCompare(node, copy));
        static_cast<Node *>(copy->next)->value = 4;
        EXPECT_FALSE(ObjCompare(node, copy));
        const Bytes bytes = encode(node);
        const auto low = static_cast<uint32_t>(pointer);
        Node *wire = nullptr;
        EXPECT_EQ(ObjReconstructFromBytes(reinterpret_cast<void **>(&wire), bytes.data(),
                                          static_cast<int32_t>(bytes.size())),
                  low == 0 ? TRUE : FALSE);
        if (low != 0) {
            EXPECT_TRUE(traced("OBJECT", 190, "Refused bytes: pointer " + std::to_string(low)));
            ASSERT_TRUE(ObjReconstructFromMemory(reinterpret_cast<void **>(&wire), bytes.data()));
        }
        EXPECT_EQ(reinterpret_cast<uintptr_t>(wire->pointer), low);
        for (Node *n : {copy, wire}) ObjReleaseInternal(&n);
    }
    ObjReleaseInternal(&node);
}

TEST_F(SerialTest, SelfReferenceReadsBackButNotFromElsewhere) {
    Node *node = newNode(1);
    node->next = node;
    ObjIncRefCount(node);
    const Bytes bytes = encode(node);
    EXPECT_EQ(bytes[0], 2);
    const Bytes back = {0x03, 0x01, 0, 0, 0};
    EXPECT_TRUE(std::search(bytes.begin(), bytes.end(), back.begin(), back.end()) != bytes.end());

    Node *copy = nullptr;
    ASSERT_TRUE(ObjReconstructFromMemory(reinterpret_cast<void **>(&copy), bytes.data()));
    EXPECT_EQ(copy->next, copy);
    void *none = nullptr;
    EXPECT_FALSE(ObjReconstructFromBytes(&none, bytes.data(), static_cast<int32_t>(bytes.size())));
    EXPECT_TRUE(traced("OBJECT", 193, "Back reference 1 into an object not yet complete"));
    for (Node *n : {node, copy}) {
        ObjReleaseInternal(&n->next);
        ObjReleaseInternal(&n);
    }

    // A list whose cookie is the list encodes but cannot read back: the list
    // is not known while its cookie is read.
    LIST *list = ListNewFromPool(0, nullptr);
    ListSetCookie(list, list);
    const Bytes listBytes = encode(list);
    EXPECT_FALSE(ObjReconstructFromMemory(&none, listBytes.data()));
    EXPECT_TRUE(traced("OBJECT", 49, "Fatal error - entry not in map"));
    ListSetCookie(list, nullptr);
    ObjReleaseInternal(&list);
}

TEST_F(SerialTest, FramesInAGrowingBuffer) {
    ObjBufferDescriptor *d = nullptr;
    ASSERT_TRUE(ObjBufferDescriptorCreate(&d, nullptr, 0, 16));
    ASSERT_TRUE(ObjSerializeToBuffer(nullptr, 0xABCD, d));
    void *buffer = nullptr;
    int32_t used = 0;
    ObjBufferDescriptorGetBuffer(&buffer, &used, d);
    EXPECT_EQ(used, 16 + 9);
    int32_t size = 0;
    uint32_t type = 0;
    ASSERT_TRUE(ObjBufferAnalyze(static_cast<char *>(buffer) + 16, &size, &type));
    EXPECT_EQ(size, 1);
    EXPECT_EQ(type, 0xABCDu);

    // Big enough to grow the buffer more than once, and the frame stays whole.
    OBJ_STRING *big = ObjStringNew(std::string(10000, 'q').c_str());
    ASSERT_TRUE(ObjSerializeToBuffer(big, 7, d));
    ObjBufferDescriptorGetBuffer(&buffer, &used, d);
    const char *frame = static_cast<char *>(buffer) + 25;
    EXPECT_EQ(ObjBufferSerializedObjectSize(frame), ObjSerializedSize(big));
    void *copy = nullptr;
    ASSERT_TRUE(ObjReconstructFromMemory(&copy, frame + 8));
    EXPECT_TRUE(ObjCompare(copy, big));
    ObjReleaseInternal(&copy);

    ObjBufferDescriptorReset(d);
    ObjBufferDescriptorGetBuffer(&buffer, &used, d);
    EXPECT_EQ(used, 16);
    EXPECT_NE(buffer, nullptr);
    int32_t length = 0;
    ASSERT_TRUE(ObjSerializeToBufferNoHead(&length, big, d));
    EXPECT_EQ(length, ObjSerializedSize(big));
    ObjBufferDescriptorReset(d);
    const char head[3] = {'h', 'e', 'd'};
    ASSERT_TRUE(ObjSerializeToBufferCustomHead(nullptr, d, 3, head, TRUE));
    ASSERT_TRUE(ObjSerializeToBufferCustomHead(nullptr, d, 3, head, FALSE));
    ASSERT_TRUE(ObjBufferInsertBytes(2, "zz", d));
    ObjBufferDescriptorGetBuffer(&buffer, &used, d);
    EXPECT_EQ(std::string(static_cast<char *>(buffer) + 16, used - 16), std::string("\x08\0\0\0hed\0hed\0zz", 14));
    EXPECT_FALSE(ObjSerializeToBufferCustomHead(nullptr, d, 0, head, FALSE));
    char text[160];
    snprintf(text, sizeof text, "ObjSerializeToBufferCustomHead() - bad params (%p, %p, %ld, %p) ", nullptr,
             static_cast<void *>(d), 0L, static_cast<const void *>(head));
    EXPECT_TRUE(traced("OBJECT", 172, text));
    ObjReleaseInternal(&big);
    ASSERT_TRUE(ObjBufferDescriptorFree(&d));
    EXPECT_EQ(d, nullptr);
}

// A buffer that is full at 2 GiB refuses to grow past it on every width: the
// new capacity is reckoned where it cannot wrap around to a small number.
TEST_F(SerialTest, BufferRefusesToGrowPast2GiB) {
    char area[16] = {};
    for (const int32_t start : {0, 16, INT32_MAX / 2}) {
        ObjBufferDescriptor *d = nullptr;
        ASSERT_TRUE(ObjBufferDescriptorCreate(&d, area, INT32_MAX, start));
        d->Used = INT32_MAX; // as a buffer written full would stand
        EXPECT_FALSE(ObjBufferInsertBytes(1, "x", d)) << start;
        EXPECT_FALSE(ObjSerializeToBuffer(nullptr, 1, d)) << start;
        EXPECT_EQ(d->Used, INT32_MAX);
        EXPECT_EQ(d->Buffer, area);
        ASSERT_TRUE(ObjBufferDescriptorFree(&d));
    }
}

// A type of two shapes: the old one received as "i;o;", the new declared one.
constexpr uint32_t kShapeMagic = 0xC9000202u;
struct OldShape {
    int32_t value;
    void *next;
};
struct NewShape {
    int32_t value;
    void *next;
    int32_t added;
};
int32_t gTranslatorResult = 2;
int32_t toNewShape(void **variable) {
    if (gTranslatorResult != 2) return gTranslatorResult;
    auto *old = static_cast<OldShape *>(*variable);
    auto *fresh = static_cast<NewShape *>(ObjNewInternal(sizeof(NewShape), kShapeMagic, "i;o;i;", nullptr, nullptr));
    fresh->value = old->value;
    fresh->next = old->next; // the reference moves over
    old->next = nullptr;
    fresh->added = 99;
    ObjReleaseInternal(variable);
    *variable = fresh;
    return 2;
}

// An old-shape object (value 5) that holds itself, as another version writes it.
const Bytes kOldSelf = {0x02, 0x01, 0, 0, 0, 0x02, 0x02, 0x00, 0xC9, 0x05, 0, 0, 0, 'i', ';', 'o', ';', 0,
                        0x05, 0, 0, 0, 0x03, 0x01, 0, 0, 0};

TEST_F(SerialTest, OlderShapesGoThroughTheTranslator) {
    void *object = nullptr;
    ASSERT_TRUE(ObjTemplateNewInternal(sizeof(OldShape), kShapeMagic, "i;o;", nullptr));
    ASSERT_TRUE(ObjReconstructFromMemory(&object, kOldSelf.data())); // the same shape: no translator needed
    ObjReleaseInternal(&static_cast<OldShape *>(object)->next);
    ObjReleaseInternal(&object);

    const Bytes wider = {0x01, 0x02, 0x02, 0x00, 0xC9, 0x07, 0, 0, 0, 'i', ';', 'i', ';', 'i', ';', 0,
                         1, 0, 0, 0, 2, 0, 0, 0, 3, 0, 0, 0};
    EXPECT_FALSE(ObjReconstructFromMemory(&object, wider.data())); // another shape, no translator
    EXPECT_TRUE(traced("OBJECT", 122, "Failed to create new object"));
    EXPECT_EQ(object, nullptr);
}

TEST_F(SerialTest, TranslatorRepairsBackReferences) {
    ASSERT_TRUE(ObjSetTranslatorInternal(sizeof(NewShape), kShapeMagic, "i;o;i;", nullptr, toNewShape));
    NewShape *object = nullptr;
    ASSERT_TRUE(ObjReconstructFromMemory(reinterpret_cast<void **>(&object), kOldSelf.data()));
    EXPECT_EQ(object->value, 5);
    EXPECT_EQ(object->added, 99);
    EXPECT_EQ(object->next, object); // the old object's reference now points at the new one
    ObjReleaseInternal(&object->next);
    ObjReleaseInternal(&object);

    for (const auto &[result, id, text] : {std::tuple{0, 169, "Error translating simple object"},
                                           std::tuple{3, 168, "Failed to translate simple object"}}) {
        gTranslatorResult = result;
        void *failed = nullptr;
        const Bytes single = {0x01, 0x02, 0x02, 0x00, 0xC9, 0x05, 0, 0, 0, 'i', ';', 'o', ';', 0, 1, 0, 0, 0, 0};
        EXPECT_FALSE(ObjReconstructFromMemory(&failed, single.data()));
        EXPECT_TRUE(traced("OBJECT", id, text));
    }
    gTranslatorResult = 2;
}

// A random graph of lists, nodes and strings with sharing.
void *randomGraph(std::mt19937 &random, std::vector<void *> &pool, int depth) {
    const int kind = static_cast<int>(random() % (depth > 3 ? 2 : 4));
    if (kind == 0 && !pool.empty()) {
        void *shared = pool[random() % pool.size()];
        ObjIncRefCount(shared);
        return shared;
    }
    if (kind == 1) {
        void *text = ObjStringNew(random() % 2 ? "\x81\x40 wide \xE0\x5C" : "");
        pool.push_back(text);
        return text;
    }
    if (kind == 2) {
        LIST *list = ListNewFromPool(0, nullptr);
        for (int i = static_cast<int>(random() % 5); i > 0; --i) {
            void *item = randomGraph(random, pool, depth + 1);
            ListPushLastItemInternal(list, &item);
        }
        return list;
    }
    Node *node = newNode(static_cast<int32_t>(random()));
    node->next = randomGraph(random, pool, depth + 1);
    return node;
}

TEST_F(SerialTest, RandomGraphsRoundTripThroughEveryReader) {
    std::mt19937 random(20261123);
    for (int round = 0; round < 200; ++round) {
        std::vector<void *> pool;
        LIST *top = ListNewFromPool(0, nullptr);
        for (int i = 0; i < 4; ++i) {
            void *item = randomGraph(random, pool, 0);
            ListPushLastItemInternal(&*top, &item);
        }
        const Bytes bytes = encode(top);
        void *copy = decode(bytes);
        ASSERT_TRUE(ObjCompare(top, copy)) << "round " << round; // same bytes: same sharing
        EXPECT_EQ(encode(copy), bytes);

        // Every truncation fails cleanly: the fixture finds any leak.
        for (size_t cut = 0; cut < bytes.size(); cut += 1 + bytes.size() / 40) {
            void *partial = nullptr;
            EXPECT_FALSE(ObjReconstructFromBytes(&partial, bytes.data(), static_cast<int32_t>(cut)));
            EXPECT_EQ(partial, nullptr);
        }
        ObjReleaseInternal(&copy);
        ObjReleaseInternal(&top);
    }
}

TEST_F(SerialTest, BoundedReaderRefusesWhatCannotBe) {
    const Bytes cases[] = {
        {0x04},                                                     // lead byte outside the table
        {0x03, 0x09, 0, 0, 0},                                      // back reference to nothing
        {0x01, 0x6F, 0xEC, 0x6C, 0xC9, 0xFF, 0xFF, 0xFF, 0x7F, 's'}, // format longer than the bytes
        {0x01, 0x6F, 0xEC, 0x6C, 0xC9, 0x02, 0, 0, 0, 's', ';'},     // format without its NUL
        {0x01, 0xB9, 0xF9, 0xA2, 0xC8, 0, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0x0F, 0x00}, // count beyond the bytes
        {0x01, 0xB9, 0xF9, 0xA2, 0xC8, 0, 0, 0, 0, 0, 0, 0, 0, 0x00, 1, 2, 3, 4}, // wrong end mark
        {0x02, 0, 0, 0, 0, 0x2A, 0xF2, 0x6C, 0xC9},                  // id 0
    };
    for (const Bytes &bytes : cases) {
        void *object = nullptr;
        EXPECT_FALSE(ObjReconstructFromBytes(&object, bytes.data(), static_cast<int32_t>(bytes.size())));
        EXPECT_EQ(object, nullptr);
    }
    // Nesting deeper than the reader allows.
    Bytes deep;
    for (int i = 0; i < 300; ++i) deep.insert(deep.end(), {0x01, 0xB9, 0xF9, 0xA2, 0xC8, 0, 0, 0, 0, 1, 0, 0, 0, 0});
    void *object = nullptr;
    EXPECT_FALSE(ObjReconstructFromBytes(&object, deep.data(), static_cast<int32_t>(deep.size())));
    EXPECT_TRUE(traced("OBJECT", 191, "Objects nested deeper than 200"));
}

TEST_F(SerialTest, FilesHoldOneObjectEach) {
    const std::string path = home() + "/object";
    Node *node = newNode(42);
    node->next = ObjStringNew("next");
    ASSERT_TRUE(ObjSerializeToFile(node, path.c_str()));
    void *copy = nullptr;
    ASSERT_TRUE(ObjReconstructFromFile(&copy, path.c_str()));
    EXPECT_TRUE(ObjCompare(node, copy));
    ObjReleaseInternal(&copy);

    // Two objects one after the other in a stream, then a cut file.
    FILE *file = fopen(path.c_str(), "w+b");
    ASSERT_TRUE(ObjSerializeToFP(node, file));
    ASSERT_TRUE(ObjSerializeToFP(nullptr, file));
    rewind(file);
    ASSERT_TRUE(ObjReconstructFromFP(&copy, file));
    EXPECT_TRUE(ObjCompare(node, copy));
    ObjReleaseInternal(&copy);
    ASSERT_TRUE(ObjReconstructFromFP(&copy, file));
    EXPECT_EQ(copy, nullptr);
    EXPECT_FALSE(ObjReconstructFromFP(&copy, file));
    fclose(file);
    ASSERT_EQ(truncate(path.c_str(), 20), 0);
    EXPECT_FALSE(ObjReconstructFromTempFile(&copy, path.c_str()));
    EXPECT_NE(access(path.c_str(), F_OK), 0); // deleted whatever the result
    EXPECT_FALSE(ObjReconstructFromFile(&copy, path.c_str()));
    EXPECT_TRUE(traced("OBJECT", 57, "Failed to open " + path));
    ObjReleaseInternal(&node);
}

// The walker: counts calls per object and acts on one of them.
struct Visits {
    std::vector<void *> seen;
    void *target = nullptr;
    int32_t onTarget = eObjWalkEnter;
    void *replacement = nullptr;
};
int32_t record(void *cookie, void **slot) {
    auto &v = *static_cast<Visits *>(cookie);
    v.seen.push_back(*slot);
    if (*slot != v.target) return eObjWalkEnter;
    if (v.replacement != nullptr) {
        ObjReleaseInternal(slot);
        *slot = v.replacement;
    }
    return v.onTarget;
}

TEST_F(SerialTest, WalkerVisitsEachObjectOnce) {
    LIST *list = ListNewFromPool(0, nullptr);
    OBJ_STRING *shared = ObjStringNew("shared");
    Node *node = newNode(1);
    ListAddLastItem(list, shared);
    ListAddLastItem(list, shared);
    ListAddLastItem(list, node);
    void *const nodeAddress = node;
    ObjReleaseInternal(&shared);
    ObjReleaseInternal(&node);

    Visits all;
    ASSERT_TRUE(ObjWalk(reinterpret_cast<void **>(&list), record, &all, 0));
    // list, 3 nodes, the shared string once, the node object.
    EXPECT_EQ(all.seen.size(), 6u);

    // A replaced object is walked into; release on an item removes its node.
    Visits replace;
    replace.target = nodeAddress;
    replace.replacement = newNode(2);
    static_cast<Node *>(replace.replacement)->next = ObjIntegerNew(8);
    ASSERT_TRUE(ObjWalk(reinterpret_cast<void **>(&list), record, &replace, 0));
    EXPECT_EQ(static_cast<Node *>(list->oLast->oItem)->value, 2);
    EXPECT_EQ(replace.seen.back(), static_cast<Node *>(list->oLast->oItem)->next);

    Visits release;
    release.target = list->oFirst->oItem;
    release.onTarget = eObjWalkRelease;
    ASSERT_TRUE(ObjWalk(reinterpret_cast<void **>(&list), record, &release, 0));
    EXPECT_EQ(list->iCount, 1); // both nodes of the shared string go, one by one
    Visits abort;
    abort.target = list;
    abort.onTarget = eObjWalkAbort;
    EXPECT_FALSE(ObjWalk(reinterpret_cast<void **>(&list), record, &abort, 0));
    EXPECT_FALSE(ObjWalk(reinterpret_cast<void **>(&list), record, &abort, 1));
    EXPECT_EQ(abort.seen.size(), 1u);

    Visits top;
    top.target = list;
    top.onTarget = eObjWalkRelease;
    ASSERT_TRUE(ObjWalk(reinterpret_cast<void **>(&list), record, &top, 0));
    EXPECT_EQ(list, nullptr);
}

// What arrives from outside never steers the process: no pointer from the
// bytes is kept, and no type that this process declared is made from them
// unless its module said it may arrive.
TEST_F(SerialTest, OutsideBytesCarryNoPointersAndMakeNoDeclaredType) {
    const struct {
        const char *name;
        Bytes bytes;
        int32_t id;
        const char *text;
    } refused[] = {
        // A MAP whose release would call 0x41414141, and its OBJ_MAP twin
        // holding an address in its entry array.
        {"map",
         hex("0127e038c911000000693b693b693b693b703b703b703b643b0008000000010000000100000001000000"
             "000000000000000041414141080000000102030405060708"),
         122, "Failed to create new object"},
        {"object map",
         hex("012f10d3ca11000000693b693b693b693b703b703b703b643b002af26cc9010000000100000001000000"
             "000000000000000000000000080000004141414100000000"),
         122, "Failed to create new object"},
        // A declared type without a release callback or pointer, but with
        // fields that belong together: a stanza file scan.
        {"stanza file", hex("01a60b23c90f000000 6f3b693b733b733b733b733b693b00 00 00000000 00000000 00000000"
                            "00000000 00000000 00000000"),
         122, "Failed to create new object"},
        // A type this process never declared may come, but not with a pointer.
        {"foreign pointer", hex("01 0100c0c9 05000000 693b703b00 07000000 41414141"), 190,
         "Refused bytes: pointer 1094795585"},
    };
    for (const auto &c : refused) {
        void *object = &object;
        EXPECT_FALSE(ObjReconstructFromBytes(&object, c.bytes.data(), static_cast<int32_t>(c.bytes.size()))) << c.name;
        EXPECT_EQ(object, nullptr) << c.name;
        EXPECT_TRUE(traced("OBJECT", c.id, c.text)) << c.name;
        EXPECT_TRUE(traced("OBJECT", 54, "ObjReconstruct failed")) << c.name;
    }
    // The same foreign type with a null pointer, and a plain value type.
    for (const Bytes &bytes : {hex("01 0100c0c9 05000000 693b703b00 07000000 00000000"),
                               hex("01 2af26cc9 03000000 693b00 05000000")}) {
        void *object = nullptr;
        ASSERT_TRUE(ObjReconstructFromBytes(&object, bytes.data(), static_cast<int32_t>(bytes.size())));
        ObjReleaseInternal(&object);
    }

    // Files and streams are bytes from elsewhere too.
    const std::string path = home() + "/map";
    FILE *file = fopen(path.c_str(), "wb");
    fwrite(refused[0].bytes.data(), 1, refused[0].bytes.size(), file);
    fclose(file);
    void *object = nullptr;
    EXPECT_FALSE(ObjReconstructFromFile(&object, path.c_str()));
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const Bytes huge = hex("01 0100c1c9 03000000 643b00 00000040 616263"); // a gigabyte of data, three bytes of it
    ASSERT_EQ(write(ends[1], huge.data(), huge.size()), static_cast<ssize_t>(huge.size()));
    close(ends[1]);
    FILE *stream = fdopen(ends[0], "rb");
    EXPECT_FALSE(ObjReconstructFromFP(&object, stream));
    fclose(stream);
    EXPECT_TRUE(traced("OBJECT", 198, "Refused bytes: 16 bytes of input may not take more than 66048 bytes of memory"));
    EXPECT_EQ(object, nullptr);
}

// A declared type arrives only as its module allows: with a check where its
// fields must hold together, and never with a release callback unchecked.
int gChecks = 0;
BOOL countCheck(const void *object) {
    ++gChecks;
    return *static_cast<const int32_t *>(object) >= 0;
}
BOOL noteRelease(void *) { return TRUE; }
TEST_F(SerialTest, DeclaredTypesArriveOnlyAsTheirModuleAllows) {
    OBJ_DSTRING *local = ObjDStringNew("x"); // declares the type
    ObjReleaseInternal(&local);
    const Bytes good = hex("01 cef398c8 07000000 643b693b6f3b00 04000000 61620000 03000000 00");
    void *text = nullptr;
    ASSERT_TRUE(ObjReconstructFromBytes(&text, good.data(), static_cast<int32_t>(good.size())));
    EXPECT_STREQ(DStringAppendSized(static_cast<OBJ_DSTRING *>(text), "c", 1), "abc");
    ObjReleaseInternal(&text);
    for (const char *used : {"05000000", "00000000", "02000000"}) { // beyond, before, and not on the terminator
        const Bytes bad = hex(("01 cef398c8 07000000 643b693b6f3b00 04000000 61620000" + std::string(used) + "00").c_str());
        EXPECT_FALSE(ObjReconstructFromBytes(&text, bad.data(), static_cast<int32_t>(bad.size()))) << used;
    }
    EXPECT_TRUE(traced("OBJECT", 200, "Refused a received Unknown object magic 0xc898f3ce c898f3ce: its fields do not hold together"));

    constexpr uint32_t kCounted = 0xC9C00010u;
    ObjectTemplate *counted = ObjTemplateNewInternal(sizeof(int32_t), kCounted, "i;", noteRelease);
    EXPECT_FALSE(ObjTemplateSetReceivable(counted, nullptr)); // a release callback needs a check
    EXPECT_TRUE(traced("OBJECT", 196, "Type Unknown object magic 0xc9c00010 cannot be received without a check of its own"));
    const Bytes seven = hex("01 1000c0c9 03000000 693b00 07000000"), minus = hex("01 1000c0c9 03000000 693b00 ffffffff");
    void *object = nullptr;
    EXPECT_FALSE(ObjReconstructFromBytes(&object, seven.data(), static_cast<int32_t>(seven.size())));
    ASSERT_TRUE(ObjTemplateSetReceivable(counted, countCheck));
    ASSERT_TRUE(ObjReconstructFromBytes(&object, seven.data(), static_cast<int32_t>(seven.size())));
    EXPECT_FALSE(ObjReconstructFromBytes(&text, minus.data(), static_cast<int32_t>(minus.size())));
    EXPECT_EQ(gChecks, 2);
    ObjReleaseInternal(&object);
}

// Runs body in a child whose address space may grow by at most 256 MiB
// beyond what it has; true when the child ended with status 0.
bool inLimitedChild(int (*body)()) {
    const pid_t child = fork();
    if (child == 0) {
        long pages = 0;
        FILE *statm = fopen("/proc/self/statm", "r");
        if (statm == nullptr || fscanf(statm, "%ld", &pages) != 1) _exit(90);
        fclose(statm);
        const rlim_t bytes = static_cast<rlim_t>(pages) * static_cast<rlim_t>(sysconf(_SC_PAGESIZE)) + (rlim_t{256} << 20);
        const rlimit limit{bytes, bytes};
        if (setrlimit(RLIMIT_AS, &limit) != 0) _exit(91);
        _exit(body());
    }
    int status = 0;
    return waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// Whether the pool bytes held at the peak of a read stayed within the
// reader's allowance for its input.
bool withinAllowance(size_t before, size_t input) {
    return fh::memBytesPeak() - before <= input * OBJ_RECEIVE_BYTES_PER_BYTE + OBJ_RECEIVE_FIXED_BYTES;
}

// A megabyte of stanza keys that each ask for 4,096 value slots.
int readGreedyStanza() {
    constexpr uint32_t kKeys = (1 << 20) / 14;
    Bytes bytes = hex("01 d4ee6cc9 03000000 7a3b00 01 00000000");
    for (int i = 0; i < 2; ++i)
        for (int shift = 0; shift < 32; shift += 8) bytes.push_back(static_cast<unsigned char>(kKeys >> shift));
    const Bytes key = hex("02000000 6b00 00000000 00100000");
    for (uint32_t i = 0; i < kKeys; ++i) bytes.insert(bytes.end(), key.begin(), key.end());
    void *object = nullptr;
    fh::memResetBytesPeak();
    const size_t before = fh::memBytesInUse();
    if (!ObjReconstructFromBytes(&object, bytes.data(), static_cast<int32_t>(bytes.size()))) return 1;
    if (!withinAllowance(before, bytes.size())) return 2;
    const Stanza *stanza = ObjGetStanza(object);
    const bool whole = stanza != nullptr && stanza->keyCount == static_cast<int32_t>(kKeys) &&
                       stanza->keys[0]->valueCapacity == 1;
    ObjReleaseInternal(&object);
    return whole ? 0 : 3;
}

// A list of objects of the magics from first on, each of a type never seen,
// up to size bytes or count objects.
Bytes listOfNewTypes(uint32_t first, size_t size, uint32_t &count) {
    Bytes item = hex("01 00000000 01000000 00");
    Bytes bytes = hex("01 b9f9a2c8 00000000 00000000 00");
    uint32_t made = 0;
    for (uint32_t magic = first; bytes.size() < size && made < count; ++magic, ++made) {
        for (int shift = 0; shift < 32; shift += 8) item[1 + shift / 8] = static_cast<unsigned char>(magic >> shift);
        bytes.insert(bytes.end(), item.begin(), item.end());
    }
    for (int shift = 0; shift < 32; shift += 8) bytes[9 + shift / 8] = static_cast<unsigned char>(made >> shift);
    bytes.insert(bytes.end(), {0xB9, 0xF9, 0xA2, 0xC8});
    count = made;
    return bytes;
}

bool reads(const Bytes &bytes) {
    void *object = nullptr;
    const bool read = ObjReconstructFromBytes(&object, bytes.data(), static_cast<int32_t>(bytes.size()));
    ObjReleaseInternal(&object);
    return read;
}

// A megabyte of objects of types never seen, each of its own magic; then
// reads of 64 new types at a time up to the bound of the process.
int readManyNewTypes() {
    uint32_t count = UINT32_MAX;
    fh::memResetBytesPeak();
    const size_t before = fh::memBytesInUse();
    const Bytes megabyte = listOfNewTypes(0xC9400000u, 1u << 20, count);
    if (reads(megabyte) || !withinAllowance(before, megabyte.size())) return 1;
    int32_t made = 0;
    for (uint32_t magic = 0xC9400000u; magic < 0xC9400000u + count; ++magic)
        made += strcmp(ObjNameFromMagic(magic), "Unknown Object") != 0;
    if (made != OBJ_RECEIVE_NEW_TYPES_PER_READ || fh::objectForeignTemplates() != made) return 2;
    uint32_t magic = 0xC9500000u;
    for (;; magic += OBJ_RECEIVE_NEW_TYPES_PER_READ) {
        count = OBJ_RECEIVE_NEW_TYPES_PER_READ;
        if (!reads(listOfNewTypes(magic, SIZE_MAX, count))) break;
    }
    if (fh::objectForeignTemplates() != OBJ_RECEIVE_NEW_TYPES) return 3;
    count = 1; // a type seen before is still read; one never seen is not
    return reads(listOfNewTypes(0xC9400000u, SIZE_MAX, count)) && reads(hex("01 2af26cc9 03000000 693b00 05000000")) &&
                   !reads(listOfNewTypes(0xC9600000u, SIZE_MAX, count))
               ? 0
               : 4;
}

TEST_F(SerialTest, AMegabyteFromOutsideStaysInItsMemory) {
    EXPECT_TRUE(inLimitedChild(readGreedyStanza));
    EXPECT_TRUE(inLimitedChild(readManyNewTypes));
}

} // namespace
