// map.cpp - MAP, the sorted map of fixed-size entries, and the sorted array
// that MAP and OBJ_MAP share.
//
// The array is sorted by Locate and holds no two entries that compare equal.
// Insertion moves the tail up by one entry; removal moves it down. Find must
// order keys as Locate orders entries, so one binary search serves both.
// A full array grows by GrowBy entries or by half its capacity, whichever is
// more (map.h says why), into a block that is not cleared where the old
// entries are copied.
//
// The array's size (Capacity entries of the entry size) always fits the
// 32-bit size of its data component: a map that would pass it is not made,
// and an insertion that would grow it beyond fails.
#include "core/map.h"

#include <algorithm>
#include <cstring>
#include <optional>

#include "core/context.h"
#include "core/memory.h"
#include "core/object.h"
#include "core/objmap.h"
#include "mapcore.h"
#include "objcore.h"
#include "sizes.h"
#include "tracer.h"

namespace {

constexpr fh::ModuleTracer trace{"MAP        "};
MemPool *gPool = nullptr;
constinit fh::ObjectType<MAP> gMapType{MAP_MAGIC, MAP_FORMAT, MapReleaseEntries};
constexpr int32_t kDefaultGrowth = 64;

enum TraceId : int32_t { kIdTooLarge = 6 };

static_assert(sizeof(MAP) == sizeof(OBJ_MAP) && offsetof(MAP, oData) == offsetof(OBJ_MAP, oData),
              "MAP and OBJ_MAP share one layout");

MemPool *pool() { return gPool != nullptr ? gPool : (gPool = MemGetDefaultPoolId()); }

inline bool isMap(const MAP *map) { return map != nullptr && ObjCheckTypeInternal(map, MAP_MAGIC); }

void releaseEntry(MAP *map, void *entry) {
    if (map->pfnReleaseEntry != nullptr) map->pfnReleaseEntry(entry);
}

} // namespace

namespace fh {

namespace {

// Binary search with an early exit on equality; inlined into the callers
// of this file, the lookups above all.
template <bool Indirect>
inline __attribute__((always_inline)) MapSlot searchArray(const MAP *map, int32_t entrySize, MapCompareFunction compare,
                                                         const void *argument) {
    const auto *entries = static_cast<const char *>(map->oData.pData);
    int32_t low = 0, high = map->iCount - 1, middle = 0, c = 0;
    while (low <= high) {
        middle = (low + high) / 2;
        const char *entry = entries + static_cast<size_t>(middle) * static_cast<size_t>(entrySize);
        c = compare(argument, Indirect ? *reinterpret_cast<void *const *>(entry) : entry);
        if (c == 0) return {true, middle};
        if (c < 0)
            high = middle - 1;
        else
            low = middle + 1;
    }
    return {false, c > 0 ? middle + 1 : middle};
}

} // namespace

MapSlot mapSearch(const MAP *map, int32_t entrySize, bool indirect, MapCompareFunction compare,
                  const void *argument) {
    return indirect ? searchArray<true>(map, entrySize, compare, argument)
                    : searchArray<false>(map, entrySize, compare, argument);
}

// The bytes of an array of capacity entries, traced when they do not fit.
std::optional<size_t> arrayBytes(int64_t capacity, int32_t entrySize) {
    const std::optional<size_t> bytes = checkedSize(capacity, static_cast<size_t>(entrySize));
    if (!bytes)
        trace(kIdTooLarge, 0, -1, "A map of %lld entries of %ld bytes is too large", static_cast<long long>(capacity),
              static_cast<long>(entrySize));
    return bytes;
}

// The capacity after the next growth: GrowBy entries at least, half the
// capacity when that is more, so that n insertions copy O(n) entries in all.
// Near the size limit, where half would not fit, the growth is GrowBy.
int64_t grownCapacity(const MAP *map, int32_t entrySize) {
    const int64_t half = int64_t{map->iCapacity} + std::max(int64_t{map->iGrowBy}, int64_t{map->iCapacity} / 2);
    return checkedSize(half, static_cast<size_t>(entrySize)) ? half : int64_t{map->iCapacity} + map->iGrowBy;
}

bool mapInsertAt(MAP *map, int32_t entrySize, int32_t index, const void *entry) {
    if (map->iCount == map->iCapacity) {
        const int64_t capacity = grownCapacity(map, entrySize);
        const std::optional<size_t> bytes = arrayBytes(capacity, entrySize);
        if (!bytes) return false;
        void *grown = memAllocateFilled(*bytes, pool(), map->oData.pData, static_cast<size_t>(map->iCount) * entrySize);
        MemFreeInternal(&map->oData.pData);
        map->oData.pData = grown;
        map->oData.iSize = static_cast<int32_t>(*bytes);
        map->iCapacity = static_cast<int32_t>(capacity);
    }
    char *at = static_cast<char *>(mapEntryAt(map, entrySize, index));
    MemCopy(at + entrySize, at, static_cast<size_t>(map->iCount - index) * entrySize);
    memcpy(at, entry, static_cast<size_t>(entrySize));
    ++map->iCount;
    return true;
}

bool mapMergeSorted(MAP *map, int32_t entrySize, const void *entries, int32_t count) {
    if (count == 0) return true;
    const int64_t capacity = std::max(int64_t{map->iCount} + count, grownCapacity(map, entrySize));
    const std::optional<size_t> bytes = arrayBytes(capacity, entrySize);
    if (!bytes) return false;
    auto *merged = static_cast<char *>(MemAllocateFromPool(*bytes, pool()));
    const auto *stored = static_cast<const char *>(map->oData.pData), *fresh = static_cast<const char *>(entries);
    const auto size = static_cast<size_t>(entrySize);
    int32_t s = 0, f = 0, used = 0;
    while (s < map->iCount || f < count) {
        const char *next = fresh + f * size, *old = stored + s * size;
        // Below 0 the fresh entry comes first, above 0 the stored one; 0: the
        // fresh entry takes the stored one's place.
        const int32_t order = s == map->iCount ? -1 : f == count ? 1 : map->pfnLocate(next, old);
        memcpy(merged + static_cast<size_t>(used++) * size, order <= 0 ? next : old, size);
        f += order <= 0;
        s += order >= 0;
    }
    MemFreeInternal(&map->oData.pData);
    map->oData.pData = merged;
    map->oData.iSize = static_cast<int32_t>(*bytes);
    map->iCapacity = static_cast<int32_t>(capacity);
    map->iCount = used;
    return true;
}

void mapRemoveAt(MAP *map, int32_t entrySize, int32_t index) {
    char *at = static_cast<char *>(mapEntryAt(map, entrySize, index));
    --map->iCount;
    MemCopy(at, at + entrySize, static_cast<size_t>(map->iCount - index) * entrySize);
}

bool mapSetUp(MAP *map, int32_t firstWord, int32_t entrySize, int32_t growBy, MapCompareFunction locate,
              MapCompareFunction find, MapReleaseEntryFunction releaseEntry) {
    const int32_t growth = growBy != 0 ? growBy : kDefaultGrowth;
    const std::optional<size_t> bytes = arrayBytes(growth, entrySize);
    if (!bytes) {
        ProcCrash(0);
        return false;
    }
    map->iEntrySize = firstWord;
    map->iGrowBy = growth;
    map->iCapacity = growth;
    map->pfnLocate = locate;
    map->pfnFind = find;
    map->pfnReleaseEntry = releaseEntry;
    map->oData.iSize = static_cast<int32_t>(*bytes);
    map->oData.pData = MemAllocateFromPool(*bytes, pool());
    return true;
}

} // namespace fh

BOOL MapCreate(MAP **out, int32_t entrySize, int32_t growBy, MapCompareFunction locate, MapCompareFunction find,
               MapReleaseEntryFunction releaseEntry) {
    BOOL ok = out != nullptr && locate != nullptr && entrySize > 0 && growBy >= 0;
    if (ok) {
        auto *map = gMapType.newInstance(pool());
        if (map == nullptr) {
            trace(2, 0, 3, "Failed to create MAP object");
            ok = FALSE;
        } else if (!fh::mapSetUp(map, entrySize, entrySize, growBy, locate, find, releaseEntry)) {
            ObjReleaseInternal(&map);
            ok = FALSE;
        } else {
            *out = map;
        }
    }
    trace(3, 0, 3, "%s = MapCreate(%p, %ld, %ld, %p, %p, %p)", fh::boolText(ok), static_cast<void *>(out),
          static_cast<long>(entrySize), static_cast<long>(growBy), reinterpret_cast<void *>(locate),
          reinterpret_cast<void *>(find), reinterpret_cast<void *>(releaseEntry));
    return ok;
}

int32_t MapSize(const MAP *map) { return isMap(map) ? map->iCount : -1; }

BOOL MapInsertEntry(MAP *map, const void *entry) {
    if (!isMap(map) || entry == nullptr) return FALSE;
    const fh::MapSlot slot = fh::mapSearch(map, map->iEntrySize, false, map->pfnLocate, entry);
    if (slot.found) {
        trace(5, 0, 3, "Entry is already in map");
        return FALSE;
    }
    return fh::mapInsertAt(map, map->iEntrySize, slot.index, entry);
}

BOOL MapUpdateEntry(MAP *map, const void *entry) {
    if (!isMap(map) || entry == nullptr) return FALSE;
    const fh::MapSlot slot = fh::mapSearch(map, map->iEntrySize, false, map->pfnLocate, entry);
    if (!slot.found) return fh::mapInsertAt(map, map->iEntrySize, slot.index, entry);
    void *stored = fh::mapEntryAt(map, map->iEntrySize, slot.index);
    releaseEntry(map, stored);
    memcpy(stored, entry, static_cast<size_t>(map->iEntrySize));
    return TRUE;
}

namespace {

BOOL removeFound(MAP *map, MapCompareFunction compare, const void *argument) {
    if (!isMap(map) || argument == nullptr) return FALSE;
    const fh::MapSlot slot = fh::mapSearch(map, map->iEntrySize, false, compare, argument);
    if (!slot.found) return FALSE;
    releaseEntry(map, fh::mapEntryAt(map, map->iEntrySize, slot.index));
    fh::mapRemoveAt(map, map->iEntrySize, slot.index);
    return TRUE;
}

} // namespace

BOOL MapRemoveEntry(MAP *map, const void *entry) { return removeFound(map, map != nullptr ? map->pfnLocate : nullptr, entry); }

BOOL MapDeleteEntry(MAP *map, const void *key) { return removeFound(map, map != nullptr ? fh::mapFinder(map) : nullptr, key); }

// The lookup tests the start magic inline (a released object has it
// cleared) rather than through the object core's full check, which would
// be a third of the cost of a search among a thousand entries.
BOOL MapFindEntry(void **out, const MAP *map, const void *key) {
    if (map == nullptr || key == nullptr || fh::startMagic(map) != MAP_MAGIC) return FALSE;
    const fh::MapSlot slot = fh::searchArray<false>(map, map->iEntrySize, fh::mapFinder(map), key);
    if (slot.found && out != nullptr) *out = fh::mapEntryAt(map, map->iEntrySize, slot.index);
    return slot.found;
}

BOOL MapFindAndCopyEntry(void *out, const MAP *map, const void *key) {
    void *stored = nullptr;
    if (out == nullptr || !MapFindEntry(&stored, map, key)) return FALSE;
    memcpy(out, stored, static_cast<size_t>(map->iEntrySize));
    return TRUE;
}

BOOL MapWalk(MAP *map, MapWalkFunction callback, void *cookie) {
    if (!isMap(map) || callback == nullptr) return FALSE;
    BOOL result = TRUE;
    for (int32_t i = 0; i < map->iCount && result; ++i) result = callback(fh::mapEntryAt(map, map->iEntrySize, i), cookie);
    return result;
}

BOOL MapSearch(void **out, MAP *map, MapWalkFunction predicate, void *argument) {
    if (!isMap(map) || predicate == nullptr) return FALSE;
    for (int32_t i = 0; i < map->iCount; ++i) {
        void *entry = fh::mapEntryAt(map, map->iEntrySize, i);
        if (predicate(entry, argument)) {
            if (out != nullptr) *out = entry;
            return TRUE;
        }
    }
    return FALSE;
}

BOOL MapReleaseEntries(void *object) {
    auto *map = static_cast<MAP *>(object);
    if (!isMap(map)) return FALSE;
    for (int32_t i = 0; i < map->iCount; ++i) releaseEntry(map, fh::mapEntryAt(map, map->iEntrySize, i));
    map->iCount = 0;
    return TRUE;
}

BOOL MapInitialize(void) {
    return gMapType.declare();
}

BOOL MapInitializeThread(void) { return TRUE; }

void MapReleaseThread(LmContext *) {}
