// mapcore.h - the sorted array under MAP and OBJ_MAP.
//
// Both map types have the same fields; an OBJ_MAP is a map whose entries are
// object pointers. The array holds Count entries of a fixed size, sorted by
// Locate, in one pool block of Capacity entries that grows by GrowBy.
#ifndef FHCORE_MAPCORE_H
#define FHCORE_MAPCORE_H

#include "core/map.h"
#include "core/objmap.h"
#include "tracer.h"

namespace fh {

struct MapSlot {
    bool found;
    int32_t index; // of the entry found, or where it would be inserted
};

inline void *mapEntryAt(const MAP *map, int32_t entrySize, int32_t index) {
    return static_cast<char *>(map->oData.pData) + static_cast<size_t>(index) * entrySize;
}

// Binary search with compare(argument, stored), where stored is the entry
// itself or, for a map of objects (indirect), the object that it holds.
MapSlot mapSearch(const MAP *map, int32_t entrySize, bool indirect, MapCompareFunction compare,
                  const void *argument);

// Copies entry in at index, growing the array when it is full; false, with
// nothing changed, when the grown array would not fit (traced).
bool mapInsertAt(MAP *map, int32_t entrySize, int32_t index, const void *entry);

// Merges count entries, sorted by Locate and no two equal, into the map in
// one pass: an equal stored entry is overwritten (without ReleaseEntry).
// false, with nothing changed, when the merged array would not fit.
bool mapMergeSorted(MAP *map, int32_t entrySize, const void *entries, int32_t count);

// Closes the gap at index; the caller has released the entry.
void mapRemoveAt(MAP *map, int32_t entrySize, int32_t index);

// Fills a new map object's fields; false, traced, when its first array
// would not fit.
bool mapSetUp(MAP *map, int32_t firstWord, int32_t entrySize, int32_t growBy, MapCompareFunction locate,
              MapCompareFunction find, MapReleaseEntryFunction releaseEntry);

// What MapCreate and ObjMapCreateInternal share: a map object as make()
// gives it (null is traced as failedText under id 2), set up; TRUE with the
// map in *out, else FALSE with nothing left behind.
template <typename Map, typename Make>
BOOL mapCreate(Map **out, Make make, const ModuleTracer &trace, const char *failedText, int32_t firstWord,
               int32_t entrySize, int32_t growBy, MapCompareFunction locate, MapCompareFunction find,
               MapReleaseEntryFunction releaseEntry) {
    Map *map = make();
    if (map == nullptr) {
        trace(2, 0, 3, "%s", failedText);
        return FALSE;
    }
    if (!mapSetUp(reinterpret_cast<MAP *>(map), firstWord, entrySize, growBy, locate, find, releaseEntry)) {
        ObjReleaseInternal(&map);
        return FALSE;
    }
    *out = map;
    return TRUE;
}

inline MapCompareFunction mapFinder(const MAP *map) {
    return map->pfnFind != nullptr ? map->pfnFind : map->pfnLocate;
}

// OBJ_MAP has the layout of MAP, with the item magic in the first word.
inline MAP *asMap(OBJ_MAP *map) { return reinterpret_cast<MAP *>(map); }
inline const MAP *asMap(const OBJ_MAP *map) { return reinterpret_cast<const MAP *>(map); }

} // namespace fh

#endif // FHCORE_MAPCORE_H
