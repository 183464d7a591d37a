/*
 * list.h - doubly linked lists of objects (LIST, LISTNODE).
 *
 * A list is an object holding a chain of LISTNODE objects, each of which
 * holds one reference to its item. A typed list holds only items whose magic
 * is its ItemMagic; an untyped one (ItemMagic 0) holds any valid object. No
 * list holds a null item. Nodes come from the pool of their list. Releasing
 * a list releases its nodes, their items and its cookie, in constant stack
 * whatever its length.
 *
 * Ownership follows the verbs: Add takes a new reference and leaves the
 * caller's alone; Push takes over the caller's reference and clears the
 * caller's variable; Pop hands the list's reference to the caller; Get and
 * Find with an out item give a new reference; a node given out is borrowed.
 * Arguments named "variable" and out items are the address of the caller's
 * pointer variable, of any object pointer type. Positions of the Nth
 * operations count from 1.
 *
 * An extension list is an untyped list used as a small dictionary keyed by
 * magic: it holds at most one item of each magic.
 */
#ifndef FHCORE_LIST_H
#define FHCORE_LIST_H

#include "object.h"
#include "types.h"

FH_BEGIN_DECLS

#define LIST_MAGIC 0xC8A2F9B9u
#define LISTNODE_MAGIC 0xC8A2F9BBu
#define LIST_FORMAT "i;i;L;l;o;"
#define LISTNODE_FORMAT "L;l;L;l;"

typedef struct LISTNODE LISTNODE;

typedef struct LIST {
    int32_t iItemMagic; /* the magic of every item, or 0 for any object */
    int32_t iCount;     /* nodes in the chain */
    LISTNODE *oFirst;   /* holds the chain */
    LISTNODE *oLast;
    void *oCookie; /* an object of the whole list, or null */
} LIST;

struct LISTNODE {
    LISTNODE *oNext;     /* holds the rest of the chain; null at the end */
    LISTNODE *oPrevious; /* null at the start */
    void *oItem;         /* one reference */
    LIST *oList;
};

/* Called for each node of a walk with the walk's cookie; 1 goes on, any
 * other value ends the walk and becomes its result. */
typedef int32_t (*ListWalkFunction)(void *cookie, LISTNODE *node);
/* Called by searches with the key and an item; non-zero is a match. */
typedef int32_t (*ListSearchFunction)(void *key, void *item);

/* ---- Creating ----------------------------------------------------------- */

/* A new empty list for items of itemMagic (0: any object) in *out, from
 * pool (null: the heap). FALSE, with *out unchanged, for a null out. */
FHAPI BOOL ListCreateFromPool(LIST **out, uint32_t itemMagic, MemPool *pool);

/* The same, giving the list with one reference, which the caller owns;
 * null if it can't be made. */
FHAPI LIST *ListNewFromPool(uint32_t itemMagic, MemPool *pool);

/* An untyped list from the default pool in *out, holding the items of list
 * with new references. The result is 0 on every path, so the caller looks at
 * *out: on bad arguments it is unchanged (traced, no ProcCrash). */
FHAPI int32_t ListClone(LIST **out, const LIST *list);

/* A new list of the same ItemMagic in *out, holding the items of list with
 * new references. FALSE for bad arguments, with *out unchanged. */
FHAPI BOOL ListDuplicate(LIST **out, const LIST *list);

/* The same for the first count items. FALSE, with *out unchanged and nothing
 * made, when list has fewer items or count is negative. */
FHAPI BOOL ListDuplicateRange(LIST **out, const LIST *list, int32_t count);

/* ---- Adding: a new reference on the item; the caller keeps its own ------ */

/* Adds item at the head or the tail. FALSE, with nothing changed, for a null
 * list (no trace), not a list, or an item the list may not hold. */
FHAPI BOOL ListAddFirstItem(LIST *list, void *item);
FHAPI BOOL ListAddLastItem(LIST *list, void *item);

/* Adds item at the tail unless compare(item, some item of the list) gives
 * non-zero; TRUE in both cases. FALSE, with nothing changed, for bad
 * arguments as ListAddLastItem, or no comparison. */
FHAPI BOOL ListAddUniqueItem(LIST *list, ListSearchFunction compare, void *item);

/* Adds item in front of or behind node, in the node's list. FALSE, with
 * nothing changed, when node is not a node of a list or item doesn't fit it. */
FHAPI BOOL ListInsertBefore(LISTNODE *node, void *item);
FHAPI BOOL ListInsertAfter(LISTNODE *node, void *item);

/* Adds every item of other at the tail of list, each with a new reference.
 * list must be untyped or of other's ItemMagic; otherwise FALSE, unchanged. */
FHAPI BOOL ListAppend(LIST *list, const LIST *other);

/* ---- Pushing: the list takes over the caller's reference ---------------- */

/* Adds the item in *itemVariable at the head or the tail and clears the
 * variable. FALSE, with the variable and the list unchanged, for a null list
 * (no trace), not a list, a null variable, or an item that doesn't fit. */
FHAPI BOOL ListPushFirstItemInternal(LIST *list, void *itemVariable);
FHAPI BOOL ListPushLastItemInternal(LIST *list, void *itemVariable);

/* Moves every node of other behind the last node of list, whatever the
 * ItemMagic of either; other ends up empty. Nothing happens when either is
 * not a list, both are the same, or other is empty. */
FHAPI void ListJoin(LIST *list, LIST *other);

/* ---- Taking out --------------------------------------------------------- */

/* Removes the first or last node and drops its reference on the item.
 * FALSE, with nothing changed, for an empty list or not a list. */
FHAPI BOOL ListRemoveFirstItem(LIST *list);
FHAPI BOOL ListRemoveLastItem(LIST *list);

/* Removes node from its list and drops its reference on the item; node is
 * gone afterwards. FALSE, with nothing changed, for not a node of a list. */
FHAPI BOOL ListRemoveItem(LISTNODE *node);

/* Removes the first or last node and hands its reference on the item to the
 * caller in *out. FALSE, with *out and the list unchanged, for an empty list
 * (no trace), not a list or a null out. */
FHAPI BOOL ListPopFirstItemInternal(LIST *list, void *out);
FHAPI BOOL ListPopLastItemInternal(LIST *list, void *out);

/* Removes every node and drops every item reference; the list stays, empty,
 * with its cookie. FALSE, with nothing changed, for not a list. */
FHAPI BOOL ListReleaseAll(LIST *list);

/* ---- Reading and finding ------------------------------------------------ */

/* Writes the number of items to *count (if count is given). Returns -1 on
 * every path; for not a list *count is unchanged. */
FHAPI int32_t ListGetItemCount(const LIST *list, int32_t *count);

/* A new reference on the item at position (from 1) in *out. FALSE, with *out
 * unchanged, for a position outside 1 to Count, not a list or a null out. */
FHAPI BOOL ListGetNthItem(void *out, const LIST *list, int32_t position);

/* Replaces the item at position (1 or less: the first) by a new reference
 * on item and drops the old one. FALSE, with nothing changed, for a position
 * past the end, not a list or an item that doesn't fit (no ProcCrash). */
FHAPI BOOL ListSetNthItem(void *item, LIST *list, int32_t position);

/* The node at position (from 1) in *out, borrowed. FALSE, with *out
 * unchanged, for a position outside 1 to Count, not a list or a null out. */
FHAPI BOOL ListGetNthNode(LISTNODE **out, const LIST *list, int32_t position);

/* The first node whose item is this very pointer, borrowed, in *out (out may
 * be null). FALSE when there is none, for not a list or a wrong item. */
FHAPI BOOL ListFindNode(LISTNODE **out, const LIST *list, const void *item);

/* The number of nodes in front of node, so 0 for the first (where
 * ListGetNthItem counts it as 1); -1 for null or not a node. */
FHAPI int32_t ListGetItemIndex(const LISTNODE *node);

/* Replaces the item of node by a new reference on item and drops the old one.
 * FALSE, with nothing changed, for not a node or an item its list refuses. */
FHAPI BOOL ListNodeReplaceObject(LISTNODE *node, void *item);

/* Drops the list's cookie and takes a new reference on cookie; null clears
 * it. FALSE, with nothing changed, for not a list or not an object. */
FHAPI BOOL ListSetCookie(LIST *list, void *cookie);

/* Checks the list header, every node and every item, and traces the first
 * fault found. TRUE for a sound list, FALSE for null or a fault. */
FHAPI BOOL ListVerify(const LIST *list);

/* ---- Walking and searching ---------------------------------------------- */

/* Calls callback(cookie, node) from the first node to the last, or from the
 * last to the first, while it gives 1; the result is its last value, TRUE for
 * an empty list, FALSE for bad arguments. The next node is read before the
 * callback runs, so the callback may remove the node it is given. */
FHAPI int32_t ListWalk(LIST *list, ListWalkFunction callback, void *cookie);
FHAPI int32_t ListWalkBackwards(LIST *list, ListWalkFunction callback, void *cookie);

/* The first node, from the first or from the last, whose item gives non-zero
 * with compare(key, item), borrowed, in *out (out may be null). FALSE when
 * there is none and for bad arguments, with *out unchanged. */
FHAPI BOOL ListSearch(LIST *list, ListSearchFunction compare, void *key, LISTNODE **out);
FHAPI BOOL ListSearchBackwards(LIST *list, ListSearchFunction compare, void *key, LISTNODE **out);

/* ---- Sorting ------------------------------------------------------------ */

/* Sorts the items in place with ObjQuickSort (not stable); no reference
 * count changes. A comparison that breaks the sort leaves the items in some
 * order and still gives TRUE. FALSE, unchanged, for not a list or no
 * comparison. ListSortInternal is the common body: with withCookie FALSE,
 * compare is an ObjCompareFunction cast to this type and cookie is unused. */
FHAPI BOOL ListSort(LIST *list, ObjCompareFunction compare);
FHAPI BOOL ListSortWithCookie(LIST *list, ObjCompareWithCookieFunction compare, void *cookie);
FHAPI BOOL ListSortInternal(LIST *list, ObjCompareWithCookieFunction compare, void *cookie, BOOL withCookie);

/* ---- Objects by magic (a null item counts as magic 0xFFFFFFFF) ---------- */

/* The first item of magic: a new reference in *out (out may be null). FALSE
 * when there is none or list is not a list, with *out unchanged. */
FHAPI BOOL ListFindObjectInternal(void *out, const LIST *list, uint32_t magic);

/* Removes the first item of magic, dropping the list's reference. FALSE,
 * with nothing changed, when there is none or for not a list. */
FHAPI BOOL ListRemoveObjectInternal(LIST *list, uint32_t magic);

/* Removes the first item of magic and hands the list's reference to *out (if
 * out is null it is dropped). FALSE, unchanged, when there is none. */
FHAPI BOOL ListPopObjectInternal(void *out, LIST *list, uint32_t magic);

/* Removes every item of the object's magic, then adds object at the tail:
 * Add with a new reference, Push taking over *objectVariable and clearing it.
 * The list must be untyped. FALSE, with nothing changed, for a typed list,
 * not a list, or not an object. */
FHAPI BOOL ListAddObject(LIST *list, void *object);
FHAPI BOOL ListPushObjectInternal(LIST *list, void *objectVariable);

/* ---- Extension lists ---------------------------------------------------- */

/* Stores item in the extension list in *listVariable, replacing an item of
 * the same magic, with a new reference; makes an untyped list in the
 * variable first if it is null. FALSE, with nothing changed, for a null
 * variable, a variable that holds something else, or not an object. */
FHAPI BOOL ListSetExtensionItem(void *listVariable, void *item);

/* The item of magic in an extension list: a new reference in *out (out may
 * be null). FALSE when there is none or list is null or not a list. */
FHAPI BOOL ListGetExtensionItem(void *out, const LIST *list, uint32_t magic);

/* Removes the item of magic from an extension list, dropping the list's
 * reference. FALSE, with nothing changed, when there is none or for not a list. */
FHAPI BOOL ListRemoveExtensionItem(LIST *list, uint32_t magic);

/* ---- The module --------------------------------------------------------- */

/* The module's part of the context ladder. ListReleaseThread releases the
 * context's list of context objects. */
FHAPI BOOL ListInitialize(void);
FHAPI BOOL ListInitializeThread(void);
FHAPI void ListReleaseThread(LmContext *context);

/* Traces its name at level 2 and does nothing else: lists keep no state
 * beyond the context's list of context objects. */
FHAPI void ListCleanup(void);

FH_END_DECLS

#endif /* FHCORE_LIST_H */
