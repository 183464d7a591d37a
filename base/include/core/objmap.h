/*
 * objmap.h - sorted maps of objects (OBJ_MAP).
 *
 * An object map holds references to objects of one exact magic, sorted by
 * the creator's Locate comparison. It holds one reference to each object it
 * stores and drops it when the object leaves the map.
 */
#ifndef FHCORE_OBJMAP_H
#define FHCORE_OBJMAP_H

#include "map.h"
#include "types.h"

FH_BEGIN_DECLS

#define OBJ_MAP_MAGIC 0xCAD3102Fu
#define OBJ_MAP_FORMAT MAP_FORMAT

typedef struct OBJ_MAP {
    int32_t iItemMagic;
    int32_t iCount;
    int32_t iCapacity;
    int32_t iGrowBy;
    MapCompareFunction pfnLocate;
    MapCompareFunction pfnFind;
    MapReleaseEntryFunction pfnReleaseEntry;
    ObjData oData; /* the array of object pointers */
} OBJ_MAP;

/* An entry of the maps that pair an id with an object, ordered by the
 * object's address. */
typedef struct ObjMapAddressEntry {
    int32_t iId;
    void *pObject;
} ObjMapAddressEntry;

/* Makes an object map in *out for objects of itemMagic. FALSE unless out and
 * locate are given, the magic is valid and growBy is not negative (0 means
 * 64). */
FHAPI BOOL ObjMapCreateInternal(OBJ_MAP **out, uint32_t itemMagic, int32_t growBy, MapCompareFunction locate,
                                MapCompareFunction find, MapReleaseEntryFunction releaseEntry);

/* Objects in the map; -1 for null or another type of object. */
FHAPI int32_t ObjMapSize(const OBJ_MAP *map);

/* Stores a new reference to object. FALSE for another magic or an object
 * equal to a stored one. */
FHAPI BOOL ObjMapInsert(OBJ_MAP *map, void *object);

/* Replaces the equal object (ReleaseEntry, then its reference dropped), or
 * inserts; takes a new reference. */
FHAPI BOOL ObjMapUpdate(OBJ_MAP *map, void *object);

/* Removes the object equal to object (Locate) or to key (Find), with
 * ReleaseEntry and its reference dropped. FALSE if there is none. */
FHAPI BOOL ObjMapRemove(OBJ_MAP *map, void *object);
FHAPI BOOL ObjMapDelete(OBJ_MAP *map, const void *key);

/* Finds the object of key; *out (if out is given) gets a new reference. */
FHAPI BOOL ObjMapFind(void **out, const OBJ_MAP *map, const void *key);

/* Calls callback with each object, first to last or last to first, stopping
 * at the first FALSE; gives the last result, TRUE for an empty map. */
FHAPI BOOL ObjMapWalk(OBJ_MAP *map, MapWalkFunction callback, void *cookie);
FHAPI BOOL ObjMapWalkBackwards(OBJ_MAP *map, MapWalkFunction callback, void *cookie);

/* The first object for which predicate gives TRUE; *out (may be null) gets
 * a new reference. */
FHAPI BOOL ObjMapSearch(void **out, OBJ_MAP *map, MapWalkFunction predicate, void *argument);

/* ReleaseEntry and a dropped reference for every object, then empties the
 * map. The release callback of OBJ_MAP objects. */
FHAPI BOOL ObjMapReleaseEntries(void *map);

/* Comparisons for maps of ObjMapAddressEntry ordered by object address:
 * Locate compares two entries, Find an object address with an entry. */
FHAPI int32_t ObjMapAddressLocate(const void *entry, const void *stored);
FHAPI int32_t ObjMapAddressFind(const void *key, const void *stored);

/* The module's part of the context ladder. */
FHAPI BOOL ObjMapInitialize(void);
FHAPI BOOL ObjMapInitializeThread(void);
FHAPI void ObjMapReleaseThread(LmContext *context);

FH_END_DECLS

#endif /* FHCORE_OBJMAP_H */
