// objmap.cpp - OBJ_MAP, the sorted map of objects of one magic.
//
// The entries are object pointers, each holding one reference of the map.
// An object leaving the map goes through ReleaseEntry first and then has
// that reference dropped; the map's own release does this for every entry.
#include "core/objmap.h"

#include "core/context.h"
#include "core/map.h"
#include "core/memory.h"
#include "core/object.h"
#include "mapcore.h"
#include "objcore.h"
#include "tracer.h"

namespace {

constexpr fh::ModuleTracer trace{"OBJMAP        "};
constinit fh::ObjectType<OBJ_MAP> gObjMapType{OBJ_MAP_MAGIC, OBJ_MAP_FORMAT, ObjMapReleaseEntries};
constexpr int32_t kEntry = sizeof(void *);

inline bool isObjMap(const OBJ_MAP *map) { return map != nullptr && ObjCheckTypeInternal(map, OBJ_MAP_MAGIC); }

inline void *&objectAt(const OBJ_MAP *map, int32_t index) {
    return *static_cast<void **>(fh::mapEntryAt(fh::asMap(map), kEntry, index));
}

// ReleaseEntry, then the map's reference goes.
void letGo(OBJ_MAP *map, void *object) {
    if (map->pfnReleaseEntry != nullptr) map->pfnReleaseEntry(object);
    ObjReleaseInternal(&object);
}

fh::MapSlot search(const OBJ_MAP *map, MapCompareFunction compare, const void *argument) {
    return fh::mapSearch(fh::asMap(map), kEntry, true, compare, argument);
}

bool holdsItem(const OBJ_MAP *map, void *object) {
    return isObjMap(map) && ObjCheckTypeInternal(object, static_cast<uint32_t>(map->iItemMagic));
}

BOOL removeFound(OBJ_MAP *map, MapCompareFunction compare, const void *argument) {
    if (!isObjMap(map) || argument == nullptr) return FALSE;
    const fh::MapSlot slot = search(map, compare, argument);
    if (!slot.found) return FALSE;
    void *object = objectAt(map, slot.index);
    fh::mapRemoveAt(fh::asMap(map), kEntry, slot.index);
    letGo(map, object);
    return TRUE;
}

template <typename Step> BOOL walk(OBJ_MAP *map, MapWalkFunction callback, void *cookie, Step order) {
    if (!isObjMap(map) || callback == nullptr) return FALSE;
    BOOL result = TRUE;
    for (int32_t i = 0; i < map->iCount && result; ++i) result = callback(objectAt(map, order(map, i)), cookie);
    return result;
}

} // namespace

BOOL ObjMapCreateInternal(OBJ_MAP **out, uint32_t itemMagic, int32_t growBy, MapCompareFunction locate,
                          MapCompareFunction find, MapReleaseEntryFunction releaseEntry) {
    const BOOL ok = out != nullptr && locate != nullptr && OBJ_VALID_MAGIC(itemMagic) && growBy >= 0 &&
                    fh::mapCreate(
                        out, [] { return gObjMapType.newInstance(MemGetDefaultPoolId()); }, trace,
                        "Failed to create OBJ_MAP object", static_cast<int32_t>(itemMagic), kEntry, growBy, locate,
                        find, releaseEntry);
    trace(3, 0, 3, "%s = MapCreate(%p, %lx, %ld, %p, %p, %p)", fh::boolText(ok), static_cast<void *>(out),
          static_cast<unsigned long>(itemMagic), static_cast<long>(growBy), reinterpret_cast<void *>(locate),
          reinterpret_cast<void *>(find), reinterpret_cast<void *>(releaseEntry));
    return ok;
}

int32_t ObjMapSize(const OBJ_MAP *map) { return isObjMap(map) ? map->iCount : -1; }

BOOL ObjMapInsert(OBJ_MAP *map, void *object) {
    if (!holdsItem(map, object)) return FALSE;
    const fh::MapSlot slot = search(map, map->pfnLocate, object);
    if (slot.found) {
        trace(5, 0, -1, "Object is already in map");
        return FALSE;
    }
    if (!fh::mapInsertAt(fh::asMap(map), kEntry, slot.index, &object)) return FALSE;
    ObjIncRefCount(object);
    return TRUE;
}

BOOL ObjMapUpdate(OBJ_MAP *map, void *object) {
    if (!holdsItem(map, object)) return FALSE;
    const fh::MapSlot slot = search(map, map->pfnLocate, object);
    if (!slot.found) {
        if (!fh::mapInsertAt(fh::asMap(map), kEntry, slot.index, &object)) return FALSE;
        ObjIncRefCount(object);
        return TRUE;
    }
    ObjIncRefCount(object);
    void *old = objectAt(map, slot.index);
    objectAt(map, slot.index) = object;
    letGo(map, old);
    return TRUE;
}

BOOL ObjMapRemove(OBJ_MAP *map, void *object) {
    return removeFound(map, map != nullptr ? map->pfnLocate : nullptr, object);
}

BOOL ObjMapDelete(OBJ_MAP *map, const void *key) {
    return removeFound(map, map != nullptr ? fh::mapFinder(fh::asMap(map)) : nullptr, key);
}

BOOL ObjMapFind(void **out, const OBJ_MAP *map, const void *key) {
    if (!isObjMap(map) || key == nullptr) return FALSE;
    const fh::MapSlot slot = search(map, fh::mapFinder(fh::asMap(map)), key);
    if (!slot.found) return FALSE;
    if (out != nullptr) {
        *out = objectAt(map, slot.index);
        ObjIncRefCount(*out);
    }
    return TRUE;
}

BOOL ObjMapWalk(OBJ_MAP *map, MapWalkFunction callback, void *cookie) {
    return walk(map, callback, cookie, [](const OBJ_MAP *, int32_t i) { return i; });
}

BOOL ObjMapWalkBackwards(OBJ_MAP *map, MapWalkFunction callback, void *cookie) {
    return walk(map, callback, cookie, [](const OBJ_MAP *m, int32_t i) { return m->iCount - 1 - i; });
}

BOOL ObjMapSearch(void **out, OBJ_MAP *map, MapWalkFunction predicate, void *argument) {
    if (!isObjMap(map) || predicate == nullptr) return FALSE;
    for (int32_t i = 0; i < map->iCount; ++i) {
        void *object = objectAt(map, i);
        if (!predicate(object, argument)) continue;
        if (out != nullptr) {
            ObjIncRefCount(object);
            *out = object;
        }
        return TRUE;
    }
    return FALSE;
}

BOOL ObjMapReleaseEntries(void *object) {
    auto *map = static_cast<OBJ_MAP *>(object);
    if (!isObjMap(map)) return FALSE;
    // Entries leave from the end, so the map stays whole if ReleaseEntry looks.
    while (map->iCount > 0) {
        void *item = objectAt(map, map->iCount - 1);
        --map->iCount;
        letGo(map, item);
    }
    return TRUE;
}

namespace {
int32_t compareAddresses(const void *a, const void *b) {
    const auto x = reinterpret_cast<uintptr_t>(a), y = reinterpret_cast<uintptr_t>(b);
    return x < y ? -1 : x > y ? 1 : 0;
}
} // namespace

int32_t ObjMapAddressLocate(const void *entry, const void *stored) {
    return compareAddresses(static_cast<const ObjMapAddressEntry *>(entry)->pObject,
                            static_cast<const ObjMapAddressEntry *>(stored)->pObject);
}

int32_t ObjMapAddressFind(const void *key, const void *stored) {
    return compareAddresses(key, static_cast<const ObjMapAddressEntry *>(stored)->pObject);
}

BOOL ObjMapInitialize(void) {
    return gObjMapType.declare();
}

BOOL ObjMapInitializeThread(void) { return TRUE; }

void ObjMapReleaseThread(LmContext *) {}
