// Maps: the sorted array under MAP and OBJ_MAP, growth, the comparisons,
// ReleaseEntry and the references an object map holds.
#include <climits>
#include <algorithm>
#include <random>
#include <set>

#include "fixture.h"

namespace {

struct Pair {
    int32_t key;
    int32_t value;
};
int32_t locatePair(const void *a, const void *b) {
    return static_cast<const Pair *>(a)->key - static_cast<const Pair *>(b)->key;
}
std::vector<int32_t> gReleased;
void noteRelease(void *entry) { gReleased.push_back(static_cast<Pair *>(entry)->key); }
BOOL collectKey(void *entry, void *cookie) {
    static_cast<std::vector<int32_t> *>(cookie)->push_back(static_cast<Pair *>(entry)->key);
    return static_cast<Pair *>(entry)->key != 99;
}

constexpr uint32_t kItem = 0xC8002001;
struct Item {
    int32_t id;
};
int gDied = 0;
BOOL itemDied(void *) { return ++gDied, TRUE; }
Item *newItem(int32_t id) {
    auto *item = static_cast<Item *>(ObjNewInternal(sizeof(Item), kItem, "i;", itemDied, nullptr));
    item->id = id;
    return item;
}
int32_t locateItem(const void *a, const void *b) {
    return static_cast<const Item *>(a)->id - static_cast<const Item *>(b)->id;
}
int32_t findItem(const void *key, const void *b) {
    return *static_cast<const int32_t *>(key) - static_cast<const Item *>(b)->id;
}

} // namespace

class MapTest : public LibraryTest {};

TEST_F(MapTest, CreationRules) {
    MAP *map = nullptr;
    EXPECT_FALSE(MapCreate(nullptr, 8, 0, locatePair, nullptr, nullptr));
    EXPECT_FALSE(MapCreate(&map, 0, 0, locatePair, nullptr, nullptr));
    EXPECT_FALSE(MapCreate(&map, 8, -1, locatePair, nullptr, nullptr));
    EXPECT_FALSE(MapCreate(&map, 8, 0, nullptr, nullptr, nullptr));
    EXPECT_EQ(map, nullptr);
    ASSERT_TRUE(MapCreate(&map, sizeof(Pair), 0, locatePair, nullptr, nullptr));
    EXPECT_EQ(map->iCapacity, 64);
    EXPECT_EQ(MapSize(map), 0);
    EXPECT_EQ(MapSize(nullptr), -1);
    OBJ_MAP *objects = nullptr;
    ASSERT_TRUE(ObjMapCreateInternal(&objects, kItem, 4, locateItem, findItem, nullptr));
    EXPECT_EQ(MapSize(reinterpret_cast<MAP *>(objects)), -1); // another type
    EXPECT_EQ(ObjMapSize(objects), 0);
    ObjReleaseInternal(&objects);
    ObjReleaseInternal(&map);
}

// Sizes computed from the arguments are checked before anything is made.
TEST_F(MapTest, SizesThatDoNotFitAreRefused) {
    const struct {
        int32_t entrySize, growBy;
    } cases[] = {{INT_MAX / 2, INT_MAX}, {INT_MAX, 0}, {1 << 16, 1 << 16}, {8, INT_MAX}};
    for (const auto &c : cases) {
        MAP *map = nullptr;
        OBJ_MAP *objects = nullptr;
        EXPECT_FALSE(MapCreate(&map, c.entrySize, c.growBy, locatePair, nullptr, nullptr)) << c.entrySize;
        EXPECT_EQ(map, nullptr);
        if (c.entrySize == 8) {
            EXPECT_FALSE(ObjMapCreateInternal(&objects, kItem, c.growBy, locatePair, nullptr, nullptr));
            EXPECT_EQ(objects, nullptr);
        }
    }
}

TEST_F(MapTest, EntriesStaySortedAndUniqueAcrossGrowth) {
    MAP *map = nullptr;
    ASSERT_TRUE(MapCreate(&map, sizeof(Pair), 16, locatePair, nullptr, noteRelease));
    std::mt19937 random(3);
    std::set<int32_t> keys;
    while (keys.size() < 200) {
        const Pair pair = {static_cast<int32_t>(random() % 1000), 1};
        EXPECT_EQ(MapInsertEntry(map, &pair), keys.insert(pair.key).second);
    }
    EXPECT_EQ(MapSize(map), 200);
    EXPECT_EQ(map->iCapacity, 243); // 16, 32, 48, 72, 108, 162, 243
    std::vector<int32_t> walked;
    EXPECT_TRUE(MapWalk(map, collectKey, &walked));
    EXPECT_EQ(walked, std::vector<int32_t>(keys.begin(), keys.end()));

    const int32_t first = *keys.begin();
    Pair found = {first, 0};
    EXPECT_TRUE(MapFindAndCopyEntry(&found, map, &found));
    EXPECT_EQ(found.value, 1); // the duplicate inserts above left the stored entry
    EXPECT_TRUE(MapFindEntry(nullptr, map, &found));

    gReleased.clear();
    const Pair replacement = {first, 2}, fresh = {5000, 3};
    EXPECT_TRUE(MapUpdateEntry(map, &replacement));
    EXPECT_TRUE(MapUpdateEntry(map, &fresh));
    EXPECT_EQ(gReleased, std::vector<int32_t>{first}); // only the replaced entry
    void *stored = nullptr;
    ASSERT_TRUE(MapFindEntry(&stored, map, &replacement));
    EXPECT_EQ(static_cast<Pair *>(stored)->value, 2);

    EXPECT_TRUE(MapRemoveEntry(map, &fresh)); // the last entry
    EXPECT_FALSE(MapDeleteEntry(map, &fresh));
    EXPECT_TRUE(MapDeleteEntry(map, &replacement)); // the first entry
    keys.erase(keys.begin());
    walked.clear();
    MapWalk(map, collectKey, &walked);
    EXPECT_EQ(walked, std::vector<int32_t>(keys.begin(), keys.end()));
    gReleased.clear();
    ObjReleaseInternal(&map); // releasing the map releases every entry
    EXPECT_EQ(gReleased.size(), 199u);
}

// Growth by at least half the capacity, across many steps, whatever the
// order of insertion: every step grows by GrowBy or half, whichever is more;
// the entries stay in order; the new part of a grown array is clear (no
// stale bytes of the heap behind Count).
TEST_F(MapTest, GrowthByHalfKeepsOrderAndClearsTheNewPart) {
    struct Case {
        int32_t growBy;
        int order; // 1 ascending, -1 descending, 0 random
    } const cases[] = {{1, 1}, {16, -1}, {0, 0}, {1000, 1}, {3, 0}};
    for (const Case &c : cases) {
        constexpr int32_t kEntries = 20000;
        std::vector<int32_t> keys(kEntries);
        for (int32_t i = 0; i < kEntries; ++i) keys[i] = c.order >= 0 ? i : kEntries - 1 - i;
        if (c.order == 0) std::shuffle(keys.begin(), keys.end(), std::mt19937(c.growBy));
        MAP *map = nullptr;
        ASSERT_TRUE(MapCreate(&map, sizeof(Pair), c.growBy, locatePair, nullptr, nullptr));
        const int32_t growBy = c.growBy != 0 ? c.growBy : 64;
        int32_t capacity = map->iCapacity, growths = 0;
        for (int32_t key : keys) {
            const Pair pair = {key, -key};
            ASSERT_TRUE(MapInsertEntry(map, &pair));
            if (map->iCapacity == capacity) continue;
            ++growths;
            EXPECT_EQ(map->iCapacity, capacity + std::max(growBy, capacity / 2)) << c.growBy;
            const auto *bytes = static_cast<const unsigned char *>(map->oData.pData);
            const size_t used = static_cast<size_t>(map->iCount) * sizeof(Pair);
            EXPECT_TRUE(std::all_of(bytes + used, bytes + map->oData.iSize, [](unsigned char b) { return b == 0; }))
                << "stale bytes behind the entries, growBy " << c.growBy;
            capacity = map->iCapacity;
        }
        EXPECT_LE(growths, 40) << "growth is geometric, growBy " << c.growBy;
        const auto *pairs = static_cast<const Pair *>(map->oData.pData);
        for (int32_t i = 0; i < kEntries; ++i) {
            ASSERT_EQ(pairs[i].key, i) << c.growBy;
            ASSERT_EQ(pairs[i].value, -i) << c.growBy;
        }
        ObjReleaseInternal(&map);
    }
}

TEST_F(MapTest, WalksAndSearchesStopWhereTheyShould) {
    MAP *map = nullptr;
    ASSERT_TRUE(MapCreate(&map, sizeof(Pair), 4, locatePair, nullptr, nullptr));
    std::vector<int32_t> walked;
    EXPECT_TRUE(MapWalk(map, collectKey, &walked)); // empty: TRUE
    for (int32_t key : {120, 99, 5, 300}) {
        const Pair pair = {key, key};
        MapInsertEntry(map, &pair);
    }
    EXPECT_FALSE(MapWalk(map, collectKey, &walked));
    EXPECT_EQ(walked, (std::vector<int32_t>{5, 99}));
    void *hit = nullptr;
    auto above100 = [](void *entry, void *) -> BOOL { return static_cast<Pair *>(entry)->key > 100; };
    EXPECT_TRUE(MapSearch(&hit, map, above100, nullptr));
    EXPECT_EQ(static_cast<Pair *>(hit)->key, 120);
    ObjReleaseInternal(&map);
}

TEST_F(MapTest, ObjectMapsHoldReferences) {
    OBJ_MAP *map = nullptr;
    ASSERT_TRUE(ObjMapCreateInternal(&map, kItem, 2, locateItem, findItem, nullptr));
    Item *a = newItem(20), *b = newItem(10), *twin = newItem(20);
    void *stranger = ObjNewInternal(4, 0xC8002002, "i;", nullptr, nullptr);
    EXPECT_TRUE(ObjMapInsert(map, a));
    EXPECT_TRUE(ObjMapInsert(map, b));
    EXPECT_FALSE(ObjMapInsert(map, twin));
    EXPECT_FALSE(ObjMapInsert(map, stranger));
    EXPECT_EQ(fh::refCount(a), 2);

    std::vector<int32_t> order;
    auto collect = [](void *item, void *cookie) -> BOOL {
        static_cast<std::vector<int32_t> *>(cookie)->push_back(static_cast<Item *>(item)->id);
        return TRUE;
    };
    EXPECT_TRUE(ObjMapWalkBackwards(map, collect, &order));
    EXPECT_EQ(order, (std::vector<int32_t>{20, 10}));

    void *found = nullptr;
    const int32_t key = 20;
    ASSERT_TRUE(ObjMapFind(&found, map, &key));
    EXPECT_EQ(found, a);
    EXPECT_EQ(fh::refCount(a), 3);
    ObjReleaseInternal(&found);

    EXPECT_TRUE(ObjMapUpdate(map, twin)); // replaces a and drops the map's reference to it
    EXPECT_EQ(fh::refCount(a), 1);
    EXPECT_EQ(fh::refCount(twin), 2);
    EXPECT_TRUE(ObjMapDelete(map, &key));
    EXPECT_FALSE(ObjMapDelete(map, nullptr));
    EXPECT_EQ(ObjMapSize(map), 1);

    gDied = 0;
    ObjReleaseInternal(&b); // the map holds the last reference now
    EXPECT_EQ(gDied, 0);
    ObjReleaseInternal(&map);
    EXPECT_EQ(gDied, 1);
    ObjReleaseInternal(&a);
    ObjReleaseInternal(&twin);
    ObjReleaseInternal(&stranger);
}

TEST_F(MapTest, AddressComparisonsOrderByTheObject) {
    ObjMapAddressEntry low = {1, reinterpret_cast<void *>(0x1000)}, high = {0, reinterpret_cast<void *>(0x2000)};
    EXPECT_LT(ObjMapAddressLocate(&low, &high), 0);
    EXPECT_GT(ObjMapAddressLocate(&high, &low), 0);
    EXPECT_EQ(ObjMapAddressFind(reinterpret_cast<void *>(0x2000), &high), 0);
    EXPECT_LT(ObjMapAddressFind(reinterpret_cast<void *>(0x1000), &high), 0);
}
