// list.cpp - LIST and LISTNODE, the general container.
//
// A LIST holds the first node of a doubly linked chain of LISTNODE objects.
// Each node holds the next node and one reference to its item, and points
// back at its previous node and its list without holding them, so the chain
// is owned from front to back: releasing the list releases its first node,
// and the object core releases the rest of the chain in a loop.
//
// Invariants, kept by link() and unlink() and changed nowhere else except
// the splice of ListJoin:
//   - First and Last are both null or both set; First's Previous and Last's
//     Next are null;
//   - Count is the length of the chain;
//   - every node's List is its list, and its reference count is 1, held by
//     the list or by the node in front of it;
//   - no node holds a null item; in a typed list every item's start magic
//     is ItemMagic, in an untyped list every item is a valid object.
// Nodes come from the pool of their list, read from the list's block header.
//
// Reports: a trace under the operation's id and, for a fault of the
// caller, ProcCrash(0); then the failure value. A null list given to an add
// is not reported.
#include "core/list.h"

#include <algorithm>
#include <cstddef>
#include <utility>

#include "core/context.h"
#include "core/memory.h"
#include "core/object.h"
#include "core/objwalk.h"
#include "objcontainer.h"
#include "objcore.h"
#include "tracer.h"

namespace {

constexpr fh::ModuleTracer trace{"LIST        "};
MemPool *gPool = nullptr;
extern const fh::ContainerOperations kListOperations; // below
constinit fh::ObjectType<LIST> gListType{LIST_MAGIC, LIST_FORMAT, &kListOperations};
constinit fh::ObjectType<LISTNODE> gNodeType{LISTNODE_MAGIC, LISTNODE_FORMAT};

MemPool *pool() { return gPool != nullptr ? gPool : (gPool = MemGetDefaultPoolId()); }

inline bool isList(const LIST *list) { return list != nullptr && fh::startMagic(list) == LIST_MAGIC; }

// A node that is linked into a list. A node that an extra reference keeps
// alive after its removal belongs to no list and is not one.
inline bool isNode(const LISTNODE *node) {
    return node != nullptr && fh::startMagic(node) == LISTNODE_MAGIC && node->oList != nullptr;
}

// The item rule of every add: no null item; in a typed list the exact magic,
// in an untyped one a valid object.
bool fits(const LIST *list, const void *item) {
    if (item == nullptr) return false;
    if (list->iItemMagic != 0) return fh::startMagic(item) == static_cast<uint32_t>(list->iItemMagic);
    return ObjHasValidGlobalMagic(item);
}

// The magic that the objects-by-magic operations see; a null item has none.
inline uint32_t itemMagic(const LISTNODE *node) {
    return node->oItem != nullptr ? fh::startMagic(node->oItem) : 0xFFFFFFFFu;
}

enum class Side { Front, Behind };
enum class Hold { NewReference, TakeOver };

// Links a new node that holds item in front of or behind beside (null: the
// first or last node of list). The node takes a new reference on item or
// takes over the caller's. False, with nothing changed, when the node can't
// be made.
bool link(LIST *list, Side side, LISTNODE *beside, void *item, Hold hold) {
    auto *node = gNodeType.newInstance(fh::objectPool(list));
    if (node == nullptr) {
        trace(side == Side::Front ? 4 : 7, 1, 2, "failed to create list node");
        return false;
    }
    if (side == Side::Front) {
        node->oNext = beside != nullptr ? beside : list->oFirst;
        node->oPrevious = node->oNext != nullptr ? node->oNext->oPrevious : nullptr;
    } else {
        node->oPrevious = beside != nullptr ? beside : list->oLast;
        node->oNext = node->oPrevious != nullptr ? node->oPrevious->oNext : nullptr;
    }
    (node->oPrevious != nullptr ? node->oPrevious->oNext : list->oFirst) = node;
    (node->oNext != nullptr ? node->oNext->oPrevious : list->oLast) = node;
    node->oList = list;
    node->oItem = item;
    if (hold == Hold::NewReference) ObjIncRefCount(item);
    ++list->iCount;
    return true;
}

// Takes node out of its list and releases it. Its reference on the item is
// dropped with it, or for a pop handed to the caller as the result.
void *unlink(LISTNODE *node, bool pop) {
    LIST *list = node->oList;
    (node->oPrevious != nullptr ? node->oPrevious->oNext : list->oFirst) = node->oNext;
    (node->oNext != nullptr ? node->oNext->oPrevious : list->oLast) = node->oPrevious;
    --list->iCount;
    node->oNext = node->oPrevious = nullptr;
    node->oList = nullptr;
    void *item = pop ? std::exchange(node->oItem, nullptr) : nullptr;
    ObjReleaseInternal(&node);
    return item;
}

inline LISTNODE *endOf(const LIST *list, Side side) { return side == Side::Front ? list->oFirst : list->oLast; }

enum class Direction { Forward, Backward };

// Visits the nodes in direction D while visit gives 1, and gives its last
// value (TRUE for an empty list). The next node is read before visit runs,
// so visit may remove the node it is given.
template <Direction D, typename Visit> int32_t walk(const LIST *list, Visit visit) {
    int32_t result = TRUE;
    LISTNODE *node = D == Direction::Forward ? list->oFirst : list->oLast;
    while (node != nullptr && result == 1) {
        LISTNODE *next = D == Direction::Forward ? node->oNext : node->oPrevious;
        result = visit(node);
        node = next;
    }
    return result;
}

// The first node in direction D that match accepts, or null.
template <Direction D, typename Match> LISTNODE *find(const LIST *list, Match match) {
    LISTNODE *found = nullptr;
    walk<D>(list, [&](LISTNODE *node) { return match(node) ? (found = node, 0) : 1; });
    return found;
}

// The node at position (from 1), counted from the nearer end; null outside
// 1 to Count.
LISTNODE *nodeAt(const LIST *list, int32_t position) {
    if (position < 1 || position > list->iCount) return nullptr;
    int32_t steps = position - 1;
    if (steps <= list->iCount / 2) return find<Direction::Forward>(list, [&](LISTNODE *) { return steps-- == 0; });
    steps = list->iCount - position;
    return find<Direction::Backward>(list, [&](LISTNODE *) { return steps-- == 0; });
}

inline LISTNODE *nodeOfMagic(const LIST *list, uint32_t magic) {
    return find<Direction::Forward>(list, [=](LISTNODE *node) { return itemMagic(node) == magic; });
}

// A new reference on the item of node in *out, when out is given.
void giveItem(void *out, const LISTNODE *node) {
    if (out == nullptr) return;
    ObjIncRefCount(node->oItem);
    *static_cast<void **>(out) = node->oItem;
}

// Puts a new reference on item into node and drops the old one, which may
// be the same object.
void replaceItem(LISTNODE *node, void *item) {
    ObjIncRefCount(item);
    std::swap(node->oItem, item);
    ObjReleaseInternal(&item);
}

// Adds the first count items of from at the tail of to, each with a new
// reference. Nodes added to from itself are not visited.
void copyItems(LIST *to, const LIST *from, int32_t count) {
    walk<Direction::Forward>(from, [&](LISTNODE *node) {
        return count-- > 0 && link(to, Side::Behind, nullptr, node->oItem, Hold::NewReference) ? 1 : 0;
    });
}

LIST *copyOf(const LIST *list, uint32_t itemMagic, int32_t count) {
    LIST *copy = ListNewFromPool(itemMagic, pool());
    if (copy != nullptr) copyItems(copy, list, count);
    return copy;
}

// The reports of one add or push: its ids, and whether the wrong-item report
// names the magic that the list holds.
struct AddReports {
    int32_t notList;
    int32_t noVariable;
    int32_t wrongItem;
    bool namesListMagic;
};
constexpr AddReports kAddFirst{27, 0, 28, false}, kAddLast{34, 0, 35, false}, kAddUnique{37, 0, 39, false},
    kPushFirst{30, 31, 32, true}, kPushLast{41, 42, 43, false};

// The checks in front of an add or push, in the order of their reports: a
// list, the address of the item's variable, an item the list may hold.
bool admits(const LIST *list, void *const *itemVariable, const AddReports &r) {
    if (list == nullptr) return false;
    if (!isList(list)) return trace.fault(FALSE, r.notList, 0, "Not a list");
    if (itemVariable == nullptr) return trace.fault(FALSE, r.noVariable, 0, "Not an object pointer");
    const void *item = *itemVariable;
    if (fits(list, item)) return true;
    if (r.namesListMagic)
        return trace.fault(FALSE, r.wrongItem, 0, "Invalid Object '%s' not '%s'", ObjNameFromObject(item),
                           ObjNameFromMagic(static_cast<uint32_t>(list->iItemMagic)));
    return trace.fault(FALSE, r.wrongItem, 0, "Invalid Object %s", ObjNameFromObject(item));
}

// Add and push at either end.
BOOL addAtEnd(LIST *list, void *itemVariable, Side side, Hold hold, const AddReports &r) {
    auto *variable = static_cast<void **>(itemVariable);
    if (!admits(list, variable, r) || !link(list, side, nullptr, *variable, hold)) return FALSE;
    if (hold == Hold::TakeOver) *variable = nullptr;
    return TRUE;
}

BOOL insertBeside(LISTNODE *node, Side side, void *item, const char *name, int32_t wrongItemId, int32_t notNodeId) {
    if (!isNode(node)) return trace.fault(FALSE, notNodeId, 0, "%s - not a list", name);
    if (!fits(node->oList, item)) return trace.fault(FALSE, wrongItemId, 0, "%s - invalid item type", name);
    return link(node->oList, side, node, item, Hold::NewReference);
}

BOOL removeAtEnd(LIST *list, Side side, int32_t notListId) {
    if (!isList(list)) return trace.fault(FALSE, notListId, 1, "Not a list");
    if (list->iCount == 0) return FALSE;
    unlink(endOf(list, side), false);
    return TRUE;
}

BOOL popAtEnd(LIST *list, void *out, Side side, const char *name, int32_t id) {
    if (!isList(list) || out == nullptr) return trace.fault(FALSE, id, 0, "%s - Invalid arguments", name);
    if (list->iCount == 0) return FALSE;
    *static_cast<void **>(out) = unlink(endOf(list, side), true);
    return TRUE;
}

template <Direction D> BOOL search(const LIST *list, ListSearchFunction compare, void *key, LISTNODE **out) {
    LISTNODE *node = find<D>(list, [=](LISTNODE *n) { return compare(key, n->oItem) != 0; });
    if (node == nullptr) return FALSE;
    if (out != nullptr) *out = node;
    return TRUE;
}

// Every item of the object's magic goes, then the object is linked at the
// tail with a reference that the caller has already taken, so that the
// object survives even if the list held its only other reference.
BOOL replaceObjectsOfMagic(LIST *list, void *object) {
    const uint32_t magic = fh::startMagic(object);
    walk<Direction::Forward>(list, [=](LISTNODE *node) {
        if (itemMagic(node) == magic) unlink(node, false);
        return 1;
    });
    if (link(list, Side::Behind, nullptr, object, Hold::TakeOver)) return TRUE;
    ObjReleaseInternal(&object);
    return FALSE;
}

// The list of ListAddObject and ListPushObjectInternal: an untyped list.
bool byMagicList(const LIST *list, int32_t id, const char *name) {
    return (isList(list) && list->iItemMagic == 0) || trace.faultAt(2, FALSE, id, 1, "%s - bad argument(s)", name);
}

BOOL reportInvalidObject() { return trace.faultAt(2, FALSE, 74, 1, "ListPushAddObject - invailid object"); }

BOOL removeObject(LIST *list, uint32_t magic) {
    LISTNODE *node = nodeOfMagic(list, magic);
    if (node == nullptr) return FALSE;
    unlink(node, false);
    return TRUE;
}

BOOL findObject(void *out, const LIST *list, uint32_t magic) {
    const LISTNODE *node = nodeOfMagic(list, magic);
    if (node == nullptr) return FALSE;
    giveItem(out, node);
    return TRUE;
}

// A function pointer kept as another function type and called only after
// the cast back; the detour through void (*)() says so to the compiler.
template <typename To, typename From> To functionCast(From function) {
    return reinterpret_cast<To>(reinterpret_cast<void (*)()>(function));
}

// ---- The list as a container of the object core, the byte form and the walker

// The traces of the byte form stand under the object module's tag.
constexpr fh::ModuleTracer traceObject{"OBJECT        "};

// A copy holds copies of the items, in order; no item magic, no cookie.
void copyList(fh::ObjectCopier &copier, const void *from, void *to) {
    for (const LISTNODE *node = static_cast<const LIST *>(from)->oFirst; node != nullptr; node = node->oNext) {
        void *item = copier.copy(node->oItem);
        if (!ListPushLastItemInternal(static_cast<LIST *>(to), &item)) ObjReleaseInternal(&item);
    }
}

// The byte form: item magic, count, cookie, the items, and LIST_MAGIC again.
// This writes the head; the writer follows the chain of nodes for the rest.
bool writeList(fh::ObjectWriter &w, const void *container) {
    const auto *list = static_cast<const LIST *>(container);
    return w.u32(static_cast<uint32_t>(list->iItemMagic)) && w.u32(static_cast<uint32_t>(list->iCount)) &&
           w.object(list->oCookie);
}
constexpr fh::NodeChain kListChain{offsetof(LIST, oFirst), offsetof(LISTNODE, oNext), offsetof(LISTNODE, oItem)};

bool readList(fh::ObjectReader &r, int32_t id, void **out) {
    uint32_t itemMagic = 0, count = 0;
    if (!r.u32(itemMagic)) {
        traceObject(125, 0, -1, "Failed to reconstruct item magic");
        return false;
    }
    if (!r.u32(count) || !r.plausible(count)) {
        traceObject(139, 0, -1, "Failed to reconstruct item count");
        return false;
    }
    void *cookie = nullptr;
    if (!r.object(&cookie)) {
        traceObject(126, 0, -1, "Failed to reconstruct list cookie");
        return false;
    }
    LIST *list = nullptr;
    bool ok = r.charge(r.instanceBytes(LIST_MAGIC)) && ListCreateFromPool(&list, itemMagic, pool()) != FALSE;
    if (ok) ListSetCookie(list, cookie);
    ObjReleaseInternal(&cookie);
    if (!ok) return false;
    const bool entered = r.remember(id, list) && r.enter(list);
    ok = entered;
    const size_t nodeBytes = r.instanceBytes(LISTNODE_MAGIC);
    for (uint32_t i = 0; ok && i < count; ++i) {
        void *item = nullptr;
        if (!r.object(&item)) {
            traceObject(128, 0, -1, "Failed to reconstruct list item");
            ok = false;
        } else if (!r.charge(nodeBytes) || !ListPushLastItemInternal(list, &item)) {
            ObjReleaseInternal(&item);
            traceObject(127, 0, -1, "Failed to push list item");
            ok = false;
        }
        if (!ok)
            traceObject(129, 0, -1, "Failed to validate end of list (%ld, %ld)", static_cast<long>(i),
                        static_cast<long>(count));
    }
    if (entered) r.leave();
    uint32_t end = 0;
    if (ok && (!r.u32(end) || end != LIST_MAGIC)) {
        traceObject(129, 0, -1, "Failed to validate end of list (%ld, %ld)", static_cast<long>(end),
                    static_cast<long>(LIST_MAGIC));
        ok = false;
    }
    return r.settle(ok, id, list, out);
}

// The walk: the cookie, then each node and its item.
int32_t walkList(fh::ObjectVisitor &v, void *container) {
    auto *list = static_cast<LIST *>(container);
    if (v.slot(&list->oCookie) == eObjWalkAbort) return eObjWalkAbort;
    for (LISTNODE *node = list->oFirst, *next = nullptr; node != nullptr; node = next) {
        next = node->oNext;
        using Step = fh::ObjectVisitor::NodeStep;
        const fh::ObjectVisitor::NodeResult visited =
            v.node(node, &node->oItem, 124, "Not allowed to modify ListNodeO objects");
        if (visited.step == Step::kStop) return visited.result;
        if (visited.step == Step::kRemove) ListRemoveItem(node);
    }
    return eObjWalkEnter;
}

const fh::ContainerOperations kListOperations{copyList, writeList, readList, walkList, &kListChain};

} // namespace

LIST *ListNewFromPool(uint32_t itemMagic, MemPool *from) {
    auto *list = gListType.newInstance(from);
    if (list != nullptr) list->iItemMagic = static_cast<int32_t>(itemMagic);
    return list;
}

BOOL ListCreateFromPool(LIST **out, uint32_t itemMagic, MemPool *from) {
    LIST *list = out != nullptr ? ListNewFromPool(itemMagic, from) : nullptr;
    if (list == nullptr) return FALSE;
    *out = list;
    return TRUE;
}

int32_t ListClone(LIST **out, const LIST *list) {
    if (out == nullptr || !isList(list))
        trace(65, 1, -1, "ListClone(%p,%p) - invalid arguments", static_cast<void *>(out), list);
    else
        *out = copyOf(list, 0, list->iCount);
    return 0;
}

BOOL ListDuplicate(LIST **out, const LIST *list) {
    if (out == nullptr || !isList(list)) return trace.fault(FALSE, 62, 0, "ListDuplicate - Invalid arguments");
    *out = copyOf(list, static_cast<uint32_t>(list->iItemMagic), list->iCount);
    return *out != nullptr;
}

BOOL ListDuplicateRange(LIST **out, const LIST *list, int32_t count) {
    if (out == nullptr || !isList(list) || count < 0)
        return trace.fault(FALSE, 63, 0, "ListDuplicateRange - Invalid arguments");
    if (list->iCount < count) return FALSE;
    *out = copyOf(list, static_cast<uint32_t>(list->iItemMagic), count);
    return *out != nullptr;
}

BOOL ListAddFirstItem(LIST *list, void *item) {
    return addAtEnd(list, &item, Side::Front, Hold::NewReference, kAddFirst);
}

BOOL ListAddLastItem(LIST *list, void *item) {
    return addAtEnd(list, &item, Side::Behind, Hold::NewReference, kAddLast);
}

BOOL ListAddUniqueItem(LIST *list, ListSearchFunction compare, void *item) {
    if (isList(list) && compare == nullptr) return trace.fault(FALSE, 38, 0, "No compare function");
    if (!admits(list, &item, kAddUnique)) return FALSE;
    if (find<Direction::Forward>(list, [=](LISTNODE *n) { return compare(item, n->oItem) != 0; }) != nullptr)
        return TRUE;
    return link(list, Side::Behind, nullptr, item, Hold::NewReference);
}

BOOL ListInsertBefore(LISTNODE *node, void *item) {
    return insertBeside(node, Side::Front, item, "ListInsertBefore", 48, 49);
}

BOOL ListInsertAfter(LISTNODE *node, void *item) {
    return insertBeside(node, Side::Behind, item, "ListInsertAfter", 50, 51);
}

BOOL ListAppend(LIST *list, const LIST *other) {
    if (!isList(list) || !isList(other) || (list->iItemMagic != 0 && list->iItemMagic != other->iItemMagic))
        return trace.faultAt(3, FALSE, 45, 0, "Invalid or mismatched lists");
    copyItems(list, other, other->iCount);
    return TRUE;
}

BOOL ListPushFirstItemInternal(LIST *list, void *itemVariable) {
    return addAtEnd(list, itemVariable, Side::Front, Hold::TakeOver, kPushFirst);
}

BOOL ListPushLastItemInternal(LIST *list, void *itemVariable) {
    return addAtEnd(list, itemVariable, Side::Behind, Hold::TakeOver, kPushLast);
}

void ListJoin(LIST *list, LIST *other) {
    if (!isList(list) || !isList(other) || list == other) return;
    if (other->iCount == 0) {
        trace(46, 0, 3, "ListJoin - Doing nothing as 'JoinFrom' list  has no entries");
        return;
    }
    walk<Direction::Forward>(other, [=](LISTNODE *node) {
        node->oList = list;
        return 1;
    });
    (list->oLast != nullptr ? list->oLast->oNext : list->oFirst) = other->oFirst;
    other->oFirst->oPrevious = list->oLast;
    list->oLast = other->oLast;
    list->iCount += other->iCount;
    other->oFirst = other->oLast = nullptr;
    other->iCount = 0;
}

BOOL ListRemoveFirstItem(LIST *list) { return removeAtEnd(list, Side::Front, 10); }
BOOL ListRemoveLastItem(LIST *list) { return removeAtEnd(list, Side::Behind, 11); }

BOOL ListRemoveItem(LISTNODE *node) {
    if (!isNode(node)) return trace.fault(FALSE, 44, 0, "ListRemoveItem - not a listnode");
    unlink(node, false);
    return TRUE;
}

BOOL ListPopFirstItemInternal(LIST *list, void *out) {
    return popAtEnd(list, out, Side::Front, "ListPopFirstItem", 56);
}

BOOL ListPopLastItemInternal(LIST *list, void *out) { return popAtEnd(list, out, Side::Behind, "ListPopLastItem", 57); }

BOOL ListReleaseAll(LIST *list) {
    if (!isList(list)) return trace.fault(FALSE, 64, 0, "ListReleaseAll - Invalid arguments");
    while (list->oFirst != nullptr) unlink(list->oFirst, false);
    return TRUE;
}

int32_t ListGetItemCount(const LIST *list, int32_t *count) {
    if (!isList(list))
        trace.fault(FALSE, 47, 0, "ListGetItemCount - not a list");
    else if (count != nullptr)
        *count = list->iCount;
    return -1;
}

BOOL ListGetNthItem(void *out, const LIST *list, int32_t position) {
    if (out == nullptr || !isList(list)) return trace.fault(FALSE, 92, 0, "ListGetNthItem - Invalid arguments");
    const LISTNODE *node = nodeAt(list, position);
    if (node == nullptr) return FALSE;
    giveItem(out, node);
    return TRUE;
}

BOOL ListSetNthItem(void *item, LIST *list, int32_t position) {
    if (!isList(list) || !fits(list, item)) {
        trace(91, 0, -1, "ListSetNthItem(%p, %p, %ld) - bad params", item, static_cast<void *>(list),
              static_cast<long>(position));
        return FALSE;
    }
    LISTNODE *node = nodeAt(list, std::max(position, 1));
    if (node == nullptr) {
        trace(90, 0, -1, "ListSetNthItem - Index out of range (Index %ld, list has %ld items)",
              static_cast<long>(position), static_cast<long>(list->iCount));
        return FALSE;
    }
    replaceItem(node, item);
    return TRUE;
}

BOOL ListGetNthNode(LISTNODE **out, const LIST *list, int32_t position) {
    if (out == nullptr || !isList(list)) return trace.fault(FALSE, 58, 0, "ListGetNthNode - Invalid arguments");
    LISTNODE *node = nodeAt(list, position);
    if (node == nullptr) return trace.fault(FALSE, 93, 0, "ListGetNthNode - Index out of range");
    *out = node;
    return TRUE;
}

BOOL ListFindNode(LISTNODE **out, const LIST *list, const void *item) {
    if (list == nullptr) {
        trace(61, 0, 3, "ListFindNode - invalid arguments");
        return FALSE;
    }
    if (!isList(list)) return trace.fault(FALSE, 60, 0, "ListFindNode - not a list");
    if (!fits(list, item)) return trace.fault(FALSE, 59, 0, "ListFindNode - wrong item type for this list");
    LISTNODE *node = find<Direction::Forward>(list, [=](LISTNODE *n) { return n->oItem == item; });
    if (node == nullptr) return FALSE;
    if (out != nullptr) *out = node;
    return TRUE;
}

int32_t ListGetItemIndex(const LISTNODE *node) {
    if (node == nullptr || fh::startMagic(node) != LISTNODE_MAGIC) return -1;
    int32_t index = 0;
    for (const LISTNODE *previous = node->oPrevious; previous != nullptr; previous = previous->oPrevious) ++index;
    return index;
}

BOOL ListNodeReplaceObject(LISTNODE *node, void *item) {
    if (!isNode(node)) return FALSE;
    if (!fits(node->oList, item)) return trace.fault(FALSE, 87, 0, "Invalid Object %s", ObjNameFromObject(item));
    replaceItem(node, item);
    return TRUE;
}

BOOL ListSetCookie(LIST *list, void *cookie) {
    if (!isList(list) || (cookie != nullptr && !ObjIncRefCount(cookie))) return FALSE;
    std::swap(list->oCookie, cookie);
    ObjReleaseInternal(&cookie);
    return TRUE;
}

// Besides the checks of the header, nodes and items, a node must point back
// at its list and its previous node, and the chain must be Count long; a
// chain that runs on past Count is reported there, so a cycle ends the walk.
BOOL ListVerify(const LIST *list) {
    trace(22, 0, 3, "ListVerify(%#x)", static_cast<unsigned>(reinterpret_cast<uintptr_t>(list)));
    if (list == nullptr) return FALSE;
    if (!ObjCheckTypeInternal(list, LIST_MAGIC)) {
        trace(25, 1, 2, "Invalid list header");
        return FALSE;
    }
    int32_t length = 0;
    const LISTNODE *previous = nullptr;
    for (const LISTNODE *node = list->oFirst; node != nullptr; previous = node, node = node->oNext) {
        if (!ObjCheckTypeInternal(node, LISTNODE_MAGIC) || node->oList != list || node->oPrevious != previous ||
            ++length > list->iCount) {
            trace(24, 1, 2, "Corrupt node in list");
            return FALSE;
        }
        if (!fits(list, node->oItem)) {
            trace(23, 1, 2, "Corrupt item in list");
            return FALSE;
        }
    }
    if (previous != list->oLast || length != list->iCount) {
        trace(24, 1, 2, "Corrupt node in list");
        return FALSE;
    }
    return TRUE;
}

int32_t ListWalk(LIST *list, ListWalkFunction callback, void *cookie) {
    if (!isList(list) || callback == nullptr) return trace.faultAt(2, FALSE, 16, 1, "ListWalk - bad argument(s)");
    return walk<Direction::Forward>(list, [=](LISTNODE *node) { return callback(cookie, node); });
}

int32_t ListWalkBackwards(LIST *list, ListWalkFunction callback, void *cookie) {
    if (!isList(list) || callback == nullptr) return trace.faultAt(2, FALSE, 18, 0, "Bad argument(s)");
    return walk<Direction::Backward>(list, [=](LISTNODE *node) { return callback(cookie, node); });
}

BOOL ListSearch(LIST *list, ListSearchFunction compare, void *key, LISTNODE **out) {
    if (!isList(list) || compare == nullptr) return trace.fault(FALSE, 20, 1, "ListSearch - bad argument(s)");
    return search<Direction::Forward>(list, compare, key, out);
}

BOOL ListSearchBackwards(LIST *list, ListSearchFunction compare, void *key, LISTNODE **out) {
    if (!isList(list) || compare == nullptr) return trace.fault(FALSE, 85, 0, "ListSearchBackwards - bad argument(s)");
    return search<Direction::Backward>(list, compare, key, out);
}

BOOL ListSort(LIST *list, ObjCompareFunction compare) {
    return ListSortInternal(list, functionCast<ObjCompareWithCookieFunction>(compare), nullptr, FALSE);
}

BOOL ListSortWithCookie(LIST *list, ObjCompareWithCookieFunction compare, void *cookie) {
    return ListSortInternal(list, compare, cookie, TRUE);
}

// The items move to an array with their references, the emptied list is
// filled again in the sorted order, and no reference count changes. A
// comparison that stops the sort leaves the array a permutation, which is
// put back as it is.
BOOL ListSortInternal(LIST *list, ObjCompareWithCookieFunction compare, void *cookie, BOOL withCookie) {
    if (!isList(list) || compare == nullptr) return trace.fault(FALSE, 55, 0, "ListSort - Invalid arguments");
    const int32_t count = list->iCount;
    if (count < 0) return trace.fault(FALSE, 52, 0, "ListSort - List has negative itemcount(!)");
    if (count < 2) return TRUE;
    trace(53, 0, 3, "Create an array of %ld entries", static_cast<long>(count));
    auto **items = static_cast<void **>(MemAllocateFromPool(static_cast<size_t>(count) * sizeof(void *), pool()));
    int32_t taken = 0;
    while (taken < count && list->oFirst != nullptr) items[taken++] = unlink(list->oFirst, true);
    if (withCookie)
        ObjQuickSortWithCookie(items, taken - 1, compare, cookie);
    else
        ObjQuickSort(items, taken - 1, functionCast<ObjCompareFunction>(compare));
    for (int32_t i = 0; i < taken; ++i)
        if (!link(list, Side::Behind, nullptr, items[i], Hold::TakeOver)) ObjReleaseInternal(&items[i]);
    MemFreeInternal(&items);
    if (list->iCount != count) return trace.fault(FALSE, 54, 0, "ListSort - munged your list, sorry");
    return TRUE;
}

BOOL ListFindObjectInternal(void *out, const LIST *list, uint32_t magic) {
    if (!isList(list)) return trace.faultAt(2, FALSE, 66, 1, "ListFindObject - bad argument(s)");
    return findObject(out, list, magic);
}

BOOL ListRemoveObjectInternal(LIST *list, uint32_t magic) {
    if (!isList(list)) return trace.faultAt(2, FALSE, 68, 1, "ListRemoveObject - bad argument(s)");
    return removeObject(list, magic);
}

BOOL ListPopObjectInternal(void *out, LIST *list, uint32_t magic) {
    if (!isList(list)) return trace.faultAt(2, FALSE, 70, 1, "ListPopObject - bad argument(s)");
    LISTNODE *node = nodeOfMagic(list, magic);
    if (node == nullptr) return FALSE;
    void *item = unlink(node, true);
    if (out != nullptr)
        *static_cast<void **>(out) = item;
    else
        ObjReleaseInternal(&item);
    return TRUE;
}

BOOL ListAddObject(LIST *list, void *object) {
    if (!byMagicList(list, 72, "ListAddObject")) return FALSE;
    if (!ObjHasValidGlobalMagic(object)) return reportInvalidObject();
    ObjIncRefCount(object);
    return replaceObjectsOfMagic(list, object);
}

BOOL ListPushObjectInternal(LIST *list, void *objectVariable) {
    if (!byMagicList(list, 75, "ListPushObject")) return FALSE;
    auto *variable = static_cast<void **>(objectVariable);
    if (variable == nullptr || !ObjHasValidGlobalMagic(*variable)) return reportInvalidObject();
    return replaceObjectsOfMagic(list, std::exchange(*variable, nullptr));
}

BOOL ListSetExtensionItem(void *listVariable, void *item) {
    if (listVariable == nullptr) return FALSE;
    void *&slot = *static_cast<void **>(listVariable);
    if (slot != nullptr && !isList(static_cast<LIST *>(slot))) {
        trace(81, 0, 2, "Extension object is not a list!");
        return FALSE;
    }
    if (!ObjHasValidGlobalMagic(item)) return FALSE;
    if (slot == nullptr) slot = ListNewFromPool(0, pool());
    auto *list = static_cast<LIST *>(slot);
    if (list == nullptr || !fits(list, item)) return FALSE;
    ObjIncRefCount(item);
    return replaceObjectsOfMagic(list, item);
}

BOOL ListGetExtensionItem(void *out, const LIST *list, uint32_t magic) {
    return isList(list) && findObject(out, list, magic);
}

BOOL ListRemoveExtensionItem(LIST *list, uint32_t magic) { return isList(list) && removeObject(list, magic); }

BOOL ListInitialize(void) {
    return gListType.declare() &&
           gNodeType.declare();
}

BOOL ListInitializeThread(void) { return TRUE; }

// The context's list of context objects is an extension list; it goes with
// the per-context state of lists.
void ListReleaseThread(LmContext *context) { ObjReleaseInternal(&context->pContextObjects); }

void ListCleanup(void) { trace(1, 0, 2, "ListCleanup"); }
