/*
 * map.h - sorted maps of fixed-size entries (MAP).
 *
 * A map is an object holding one array of entries sorted by the creator's
 * Locate comparison, searched by binary search. Entries are copied in, so a
 * caller's entry may be a local variable; a pointer to a stored entry stays
 * valid until the next change of the map. No two stored entries compare
 * equal.
 *
 * Growth. A full array grows by GrowBy entries or by half its capacity,
 * whichever is more (by GrowBy alone where half would pass the size limit),
 * so that filling a map copies each entry a bounded number of times on
 * average instead of once per GrowBy insertions. The entries, their order
 * and every result are the same as with growth by GrowBy alone; only
 * iCapacity differs (it is never below Count, and starts at GrowBy).
 *
 * Sizes. Lookups are binary searches and appends in key order cost about
 * the same at any size, but an insertion at a random place moves half the
 * array on average: a map is meant for up to some thousands of entries
 * filled in any order (an insertion among 10,000 entries of 8 bytes moves
 * about 40 KB, some 0.7 us; among 100,000 about 5 us), and for larger ones
 * only when they are filled in key order. A table of hundreds of thousands
 * of entries inserted at random places wants another structure.
 */
#ifndef FHCORE_MAP_H
#define FHCORE_MAP_H

#include "object.h"
#include "types.h"

FH_BEGIN_DECLS

#define MAP_MAGIC 0xC938E027u
#define MAP_FORMAT "i;i;i;i;p;p;p;d;"

/* Compares an entry (Locate) or a key (Find) with a stored entry: negative,
 * 0 or positive. Find must agree with Locate on the order. */
typedef int32_t (*MapCompareFunction)(const void *argument, const void *stored);
/* Called with an entry (MAP) or an object (OBJ_MAP) that leaves the map. */
typedef void (*MapReleaseEntryFunction)(void *entry);
/* Walk callbacks and search predicates: entry or object, and the cookie. */
typedef BOOL (*MapWalkFunction)(void *entry, void *cookie);

typedef struct MAP {
    int32_t iEntrySize;
    int32_t iCount;
    int32_t iCapacity;
    int32_t iGrowBy;
    MapCompareFunction pfnLocate;
    MapCompareFunction pfnFind;
    MapReleaseEntryFunction pfnReleaseEntry;
    ObjData oData; /* the array */
} MAP;

/* Makes a map in *out. FALSE unless out and locate are given, entrySize is
 * above 0 and growBy is not negative (0 means 64). A null find means that
 * locate serves for keys too. */
FHAPI BOOL MapCreate(MAP **out, int32_t entrySize, int32_t growBy, MapCompareFunction locate,
                     MapCompareFunction find, MapReleaseEntryFunction releaseEntry);

/* Entries in the map; -1 for null or another type of object. */
FHAPI int32_t MapSize(const MAP *map);

/* Inserts a copy of entry. FALSE, with the stored entry kept, if an equal
 * one is there. */
FHAPI BOOL MapInsertEntry(MAP *map, const void *entry);

/* Overwrites the equal entry (after ReleaseEntry on it), or inserts. */
FHAPI BOOL MapUpdateEntry(MAP *map, const void *entry);

/* Removes the entry equal to entry (Locate) or to key (Find), after
 * ReleaseEntry on it. FALSE if there is none. */
FHAPI BOOL MapRemoveEntry(MAP *map, const void *entry);
FHAPI BOOL MapDeleteEntry(MAP *map, const void *key);

/* Finds the entry of key; *out (if out is given) gets the stored entry's
 * address. MapFindAndCopyEntry copies the entry to out instead. */
FHAPI BOOL MapFindEntry(void **out, const MAP *map, const void *key);
FHAPI BOOL MapFindAndCopyEntry(void *out, const MAP *map, const void *key);

/* Calls callback with each entry in order, stopping at the first FALSE;
 * gives the last result, TRUE for an empty map. */
FHAPI BOOL MapWalk(MAP *map, MapWalkFunction callback, void *cookie);

/* The first entry for which predicate gives TRUE, in *out (may be null). */
FHAPI BOOL MapSearch(void **out, MAP *map, MapWalkFunction predicate, void *argument);

/* ReleaseEntry on every entry, then empties the map; the array stays. The
 * release callback of MAP objects. */
FHAPI BOOL MapReleaseEntries(void *map);

/* The module's part of the context ladder. */
FHAPI BOOL MapInitialize(void);
FHAPI BOOL MapInitializeThread(void);
FHAPI void MapReleaseThread(LmContext *context);

FH_END_DECLS

#endif /* FHCORE_MAP_H */
