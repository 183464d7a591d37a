// The tables of objects met by the serialiser, the copier and the walker:
// the private index against a plain map, sharing kept across a hundred
// thousand shared objects on every path, and a caller's stream whose Seen
// map carries the objects of one call into the next.
#include "fixture.h"
#include "seenindex.h"

#include <algorithm>
#include <map>
#include <random>
#include <vector>

namespace {

using SeenTest = LibraryTest;
using Bytes = std::vector<unsigned char>;

// A list holding each of count integer objects twice, in shuffled order.
LIST *doublyHeld(int32_t count, std::vector<void *> &objects) {
    objects.clear();
    for (int32_t i = 0; i < count; ++i) objects.push_back(ObjIntegerNew(i));
    std::vector<void *> order = objects;
    order.insert(order.end(), objects.begin(), objects.end());
    std::shuffle(order.begin(), order.end(), std::mt19937(count));
    LIST *list = ListNewFromPool(OBJ_INTEGER_MAGIC, nullptr);
    std::vector<bool> held(static_cast<size_t>(count));
    for (void *object : order) {
        const int32_t value = ObjGetInteger(object);
        if (held[static_cast<size_t>(value)]) ObjIncRefCount(object); // the second reference
        held[static_cast<size_t>(value)] = true;
        ListPushLastItemInternal(list, &object);
    }
    return list;
}

// The sharing of a copy of such a list: every value's two items are one
// object with two references, and no two values share one.
void expectSharing(const LIST *copy, int32_t count, const char *path) {
    std::vector<void *> byValue(static_cast<size_t>(count));
    int32_t items = 0, wrong = 0;
    for (const LISTNODE *node = copy->oFirst; node != nullptr; node = node->oNext, ++items) {
        const int32_t value = ObjGetInteger(node->oItem);
        void *&first = byValue.at(static_cast<size_t>(value));
        wrong += first != nullptr && first != node->oItem;
        wrong += fh::refCount(node->oItem) != 2;
        first = node->oItem;
    }
    EXPECT_EQ(items, 2 * count) << path;
    EXPECT_EQ(wrong, 0) << path;
}

struct Visits {
    std::map<void *, int> times;
};
int32_t countVisit(void *cookie, void **slot) {
    ++static_cast<Visits *>(cookie)->times[*slot];
    return eObjWalkEnter;
}

BOOL toBytes(void *cookie, void *address, int32_t count) {
    auto *bytes = static_cast<Bytes *>(cookie);
    bytes->insert(bytes->end(), static_cast<unsigned char *>(address), static_cast<unsigned char *>(address) + count);
    return TRUE;
}
struct Source {
    const Bytes *bytes;
    size_t at;
};
BOOL fromBytes(void *cookie, void *address, int32_t count) {
    auto *source = static_cast<Source *>(cookie);
    if (source->at + static_cast<size_t>(count) > source->bytes->size()) return FALSE;
    memcpy(address, source->bytes->data() + source->at, static_cast<size_t>(count));
    source->at += static_cast<size_t>(count);
    return TRUE;
}

} // namespace

// Random puts, overwrites, erases and finds against std::map: erasing from
// the middle of a run of collisions must not lose the entries behind it.
TEST_F(SeenTest, IndexAgreesWithAPlainMap) {
    for (const uintptr_t spread : {UINTPTR_MAX - 1, uintptr_t{300}, uintptr_t{64}}) {
        fh::SeenIndex index;
        std::map<uintptr_t, uintptr_t> oracle;
        std::mt19937_64 random(spread);
        for (int step = 0; step < 60000; ++step) {
            const uintptr_t key = 1 + random() % spread, value = random();
            switch (random() % 3) {
            case 0:
                ASSERT_TRUE(index.put(key, value));
                oracle[key] = value;
                break;
            case 1:
                index.erase(key);
                oracle.erase(key);
                break;
            default: {
                uintptr_t found = 0;
                const auto it = oracle.find(key);
                ASSERT_EQ(index.find(key, found), it != oracle.end()) << "key " << key << " step " << step;
                if (it != oracle.end()) {
                    ASSERT_EQ(found, it->second);
                }
            }
            }
            ASSERT_EQ(index.size(), oracle.size());
        }
        size_t visited = 0;
        index.forEach([&](uintptr_t key, uintptr_t value) { visited += oracle.at(key) == value; });
        EXPECT_EQ(visited, oracle.size());
    }
}

// 100,000 objects held twice each keep their sharing through the byte form
// (the bounded reader and the trusted one), the copier and the walker.
TEST_F(SeenTest, SharingHoldsAcrossAHundredThousandSharedObjects) {
    constexpr int32_t kShared = 100000;
    std::vector<void *> objects;
    LIST *list = doublyHeld(kShared, objects);
    const int32_t size = ObjSerializedSize(list);
    ASSERT_GT(size, 0);
    Bytes bytes(static_cast<size_t>(size));
    ASSERT_TRUE(ObjSerializeToMemory(list, bytes.data(), nullptr));

    void *copy = nullptr;
    ASSERT_TRUE(ObjReconstructFromBytes(&copy, bytes.data(), size)) << [] { std::string t; for (auto &x : traceTexts()) t += x + "\n"; return t.substr(t.size() > 800 ? t.size() - 800 : 0); }();
    expectSharing(static_cast<LIST *>(copy), kShared, "bounded reader");
    ObjReleaseInternal(&copy);
    ASSERT_TRUE(ObjReconstructFromMemory(&copy, bytes.data()));
    expectSharing(static_cast<LIST *>(copy), kShared, "trusted reader");
    ObjReleaseInternal(&copy);
    ASSERT_TRUE(ObjDuplicateInternal(&copy, list, FALSE));
    expectSharing(static_cast<LIST *>(copy), kShared, "copier");
    ObjReleaseInternal(&copy);

    Visits visits;
    void *walked = list;
    ASSERT_TRUE(ObjWalk(&walked, countVisit, &visits, 0));
    int32_t integersOnce = 0;
    for (void *object : objects) integersOnce += visits.times[object] == 1;
    EXPECT_EQ(integersOnce, kShared) << "the walker visits each shared object once";
    ObjReleaseInternal(&list);
}

// A caller's stream keeps its Seen map across calls: a later call writes a
// back reference to an object an earlier call wrote, and a reader on one
// stream gives back the object it made in the earlier call. The map holds
// every object met, in order, whatever the order of the calls' addresses.
TEST_F(SeenTest, ACallersStreamCarriesItsSeenMapAcrossCalls) {
    constexpr int kCalls = 5, kPerCall = 300;
    std::vector<void *> objects;
    for (int i = 0; i < kCalls * kPerCall; ++i) {
        objects.push_back(ObjIntegerNew(i)); // and held by a list below: shared
    }
    std::vector<void *> shuffled = objects;
    std::shuffle(shuffled.begin(), shuffled.end(), std::mt19937(9));
    Bytes bytes;
    ObjStream writer{toBytes, &bytes, nullptr, 0, FALSE, FALSE};
    std::vector<LIST *> lists;
    for (int c = 0; c < kCalls; ++c) {
        LIST *list = ListNewFromPool(OBJ_INTEGER_MAGIC, nullptr);
        // This call's objects, and one of the first call's again.
        for (int i = 0; i < kPerCall; ++i) ListAddLastItem(list, shuffled[static_cast<size_t>(c * kPerCall + i)]);
        ListAddLastItem(list, shuffled[0]);
        ASSERT_TRUE(ObjSerialize(list, &writer));
        ASSERT_EQ(MapSize(writer.Seen), (c + 1) * kPerCall);
        lists.push_back(list);
    }
    const auto *entries = static_cast<const ObjMapAddressEntry *>(writer.Seen->oData.pData);
    for (int i = 1; i < MapSize(writer.Seen); ++i)
        ASSERT_LT(reinterpret_cast<uintptr_t>(entries[i - 1].pObject), reinterpret_cast<uintptr_t>(entries[i].pObject));
    for (size_t i = 0; i < shuffled.size(); ++i) {
        void *found = nullptr;
        ASSERT_TRUE(MapFindEntry(&found, writer.Seen, shuffled[i]));
        EXPECT_EQ(static_cast<ObjMapAddressEntry *>(found)->iId, static_cast<int32_t>(i + 1));
    }

    Source source{&bytes, 0};
    ObjStream reader{fromBytes, &source, nullptr, 0, FALSE, FALSE};
    std::vector<void *> read;
    for (int c = 0; c < kCalls; ++c) {
        void *list = nullptr;
        ASSERT_TRUE(ObjReconstruct(&list, &reader));
        read.push_back(list);
        EXPECT_EQ(MapSize(reader.Seen), (c + 1) * kPerCall);
    }
    void *firstOfAll = static_cast<LIST *>(read[0])->oFirst->oItem;
    for (void *list : read) EXPECT_EQ(static_cast<LIST *>(list)->oLast->oItem, firstOfAll);
    EXPECT_EQ(source.at, bytes.size());

    for (void *&list : read) ObjReleaseInternal(&list);
    for (LIST *&list : lists) ObjReleaseInternal(&list);
    for (void *&object : objects) ObjReleaseInternal(&object);
    ObjReleaseInternal(&writer.Seen);
    ObjReleaseInternal(&reader.Seen);
}
