// Lists: the chain kept sound by every change, the item rule, sorting,
// walks, join, copies, objects by magic, extension lists, the odd results
// that callers rely on, and the release of very long lists.
#include <algorithm>
#include <cstdio>
#include <functional>
#include <numeric>
#include <random>

#include "fixture.h"

namespace {

LIST *listOf(const std::vector<int> &values, uint32_t itemMagic = OBJ_INTEGER_MAGIC) {
    LIST *list = ListNewFromPool(itemMagic, nullptr);
    for (int value : values) {
        OBJ_INTEGER *item = ObjIntegerNew(value);
        EXPECT_TRUE(ListPushLastItemInternal(list, &item));
    }
    return list;
}

// The integers of a list that ListVerify finds sound, read forward and
// checked backward.
std::vector<int> values(const LIST *list) {
    EXPECT_TRUE(ListVerify(list));
    std::vector<int> forward, backward;
    for (const LISTNODE *n = list->oFirst; n != nullptr; n = n->oNext) forward.push_back(ObjGetInteger(n->oItem));
    for (const LISTNODE *n = list->oLast; n != nullptr; n = n->oPrevious) backward.push_back(ObjGetInteger(n->oItem));
    EXPECT_TRUE(std::equal(forward.begin(), forward.end(), backward.rbegin(), backward.rend()));
    return forward;
}

std::vector<uint32_t> magics(const LIST *list) {
    std::vector<uint32_t> result;
    for (const LISTNODE *n = list->oFirst; n != nullptr; n = n->oNext) result.push_back(fh::startMagic(n->oItem));
    return result;
}


template <typename... Objects> void release(Objects *&...objects) { (ObjReleaseInternal(&objects), ...); }

int32_t ascending(void *a, void *b) { return std::clamp(ObjGetInteger(a) - ObjGetInteger(b), -1, 1); }
int32_t breaksAfter(void *a, void *b, void *budget) { return --*static_cast<int *>(budget) < 0 ? 2 : ascending(a, b); }
int32_t sameValue(void *key, void *item) { return ObjGetInteger(key) == ObjGetInteger(item); }

std::string formatted(const char *format, const void *a, const void *b = nullptr, long n = 0) {
    char text[160];
    snprintf(text, sizeof text, format, a, b, n);
    return text;
}

void *buildCopyAndRelease(void *) {
    LIST *list = listOf({});
    for (int i = 0; i < 1000000; ++i) {
        OBJ_INTEGER *item = ObjIntegerNew(i);
        if (!ListPushLastItemInternal(list, &item)) return nullptr;
    }
    void *copy = nullptr;
    const bool copied = ObjDuplicateInternal(&copy, list, FALSE) && static_cast<LIST *>(copy)->iCount == 1000000;
    return reinterpret_cast<void *>(copied && ObjReleaseInternal(&copy) && ObjReleaseInternal(&list));
}

} // namespace

class ListTest : public LibraryTest {};

// Copying or releasing along the chain by recursion would overflow this stack.
TEST_F(ListTest, AMillionItemsAreCopiedAndReleasedInASmallStack) {
    EXPECT_EQ(runInSmallStack(buildCopyAndRelease), reinterpret_cast<void *>(1));
    EXPECT_EQ(ObjGetInstanceCount(OBJ_INTEGER_MAGIC), 0);
}

namespace {
BOOL removeFirstNode(LIST *list) { return ListRemoveItem(list->oFirst); }
BOOL removeSecondNode(LIST *list) { return ListRemoveItem(list->oFirst->oNext); }
BOOL removeLastNode(LIST *list) { return ListRemoveItem(list->oLast); }
template <BOOL (*pop)(LIST *, void *)> BOOL popAndDrop(LIST *list) {
    void *item = nullptr;
    return pop(list, &item) && ObjReleaseInternal(&item);
}
} // namespace

TEST_F(ListTest, RemovingFirstLastMiddleAndOnlyNodesKeepsTheChainSound) {
    const struct {
        std::vector<int> start;
        BOOL (*remove)(LIST *);
        BOOL result;
        std::vector<int> after;
    } cases[] = {
        {{1, 2, 3}, ListRemoveFirstItem, TRUE, {2, 3}}, {{1, 2, 3}, ListRemoveLastItem, TRUE, {1, 2}},
        {{1, 2, 3}, removeFirstNode, TRUE, {2, 3}}, {{1, 2, 3}, removeSecondNode, TRUE, {1, 3}},
        {{1, 2, 3}, removeLastNode, TRUE, {1, 2}}, {{1, 2, 3}, popAndDrop<ListPopFirstItemInternal>, TRUE, {2, 3}},
        {{1, 2, 3}, popAndDrop<ListPopLastItemInternal>, TRUE, {1, 2}}, {{7}, ListRemoveFirstItem, TRUE, {}},
        {{7}, ListRemoveLastItem, TRUE, {}}, {{7}, removeFirstNode, TRUE, {}},
        {{7}, popAndDrop<ListPopLastItemInternal>, TRUE, {}}, {{}, ListRemoveFirstItem, FALSE, {}},
        {{}, ListRemoveLastItem, FALSE, {}}, {{1, 2}, ListReleaseAll, TRUE, {}},
    };
    for (const auto &c : cases) {
        LIST *list = listOf(c.start);
        EXPECT_EQ(c.remove(list), c.result);
        EXPECT_EQ(values(list), c.after);
        EXPECT_EQ(list->oFirst == nullptr && list->oLast == nullptr, c.after.empty());
        EXPECT_EQ(ObjGetInstanceCount(OBJ_INTEGER_MAGIC), static_cast<int32_t>(c.after.size())); // items dropped
        release(list);
    }
    LIST *empty = listOf({});
    void *out = empty; // a pop from an empty list is no fault: no report, out untouched
    EXPECT_TRUE(!ListPopFirstItemInternal(empty, &out) && out == empty &&
                !traced("LIST", 56, "ListPopFirstItem - Invalid arguments"));
    release(empty);
}

TEST_F(ListTest, ATypedListRefusesItemsOfAnotherMagicAndChangesNothing) {
    LIST *list = listOf({1});
    OBJ_STRING *text = ObjStringNew("x");
    void *variable = text;
    const std::string name = ObjNameFromObject(text), invalid = "Invalid Object " + name;
    const struct {
        std::function<BOOL()> call;
        int32_t id;
        std::string trace;
    } cases[] = {
        {[&] { return ListAddFirstItem(list, text); }, 28, invalid},
        {[&] { return ListAddLastItem(list, text); }, 35, invalid},
        {[&] { return ListAddLastItem(list, nullptr); }, 35, "Invalid Object NULL Object"},
        {[&] { return ListAddUniqueItem(list, sameValue, text); }, 39, invalid},
        {[&] { return ListPushFirstItemInternal(list, &variable); }, 32,
         "Invalid Object '" + name + "' not '" + ObjNameFromMagic(OBJ_INTEGER_MAGIC) + "'"},
        {[&] { return ListPushLastItemInternal(list, &variable); }, 43, invalid},
        {[&] { return ListInsertBefore(list->oFirst, text); }, 48, "ListInsertBefore - invalid item type"},
        {[&] { return ListInsertAfter(list->oFirst, text); }, 50, "ListInsertAfter - invalid item type"},
        {[&] { return ListNodeReplaceObject(list->oFirst, text); }, 87, invalid},
        {[&] { return ListSetNthItem(text, list, 1); }, 91,
         formatted("ListSetNthItem(%p, %p, %ld) - bad params", text, list, 1)},
        {[&] { return ListFindNode(nullptr, list, text); }, 59, "ListFindNode - wrong item type for this list"},
    };
    for (const auto &c : cases) {
        EXPECT_FALSE(c.call()) << c.trace;
        EXPECT_TRUE(traced("LIST", c.id, c.trace)) << c.trace;
        EXPECT_EQ(values(list), std::vector<int>{1}) << c.trace;
        EXPECT_TRUE(fh::refCount(text) == 1) << c.trace;
        EXPECT_TRUE(variable == text) << c.trace;
    }
    EXPECT_FALSE(ListAddLastItem(nullptr, text)); // a null list: no report
    LIST *any = listOf({}, 0);
    EXPECT_TRUE(ListAddLastItem(any, text));
    EXPECT_FALSE(ListAddLastItem(any, nullptr));
    EXPECT_EQ(any->iCount, 1);
    release(list, any, text);
}

TEST_F(ListTest, SortOrdersAndABrokenComparisonStillLeavesAPermutation) {
    std::vector<int> input(300);
    std::iota(input.begin(), input.end(), 0);
    std::shuffle(input.begin(), input.end(), std::mt19937(5));
    std::vector<int> sorted = input;
    std::sort(sorted.begin(), sorted.end());
    LIST *list = listOf(input), *broken = listOf(input), *single = listOf({9});
    EXPECT_TRUE(ListSort(list, ascending));
    EXPECT_EQ(values(list), sorted);
    EXPECT_TRUE(traced("LIST", 53, "Create an array of 300 entries"));
    int budget = 400;
    EXPECT_TRUE(ListSortWithCookie(broken, breaksAfter, &budget)); // the sort's failure is not the list's
    std::vector<int> after = values(broken);
    EXPECT_NE(after, sorted);
    std::sort(after.begin(), after.end());
    EXPECT_EQ(after, sorted);
    for (const LISTNODE *n = broken->oFirst; n != nullptr; n = n->oNext) ASSERT_EQ(fh::refCount(n->oItem), 1);
    EXPECT_TRUE(!ListSort(list, nullptr));
    EXPECT_TRUE(traced("LIST", 55, "ListSort - Invalid arguments"));
    const int32_t allocations = MemAllocations();
    EXPECT_TRUE(ListSort(single, ascending));
    EXPECT_EQ(MemAllocations(), allocations);
    release(list, broken, single);
}

namespace {
int32_t removeEven(void *, LISTNODE *node) {
    if (ObjGetInteger(node->oItem) % 2 == 0) ListRemoveItem(node);
    return 1;
}
struct Stop {
    int at;
    int32_t result;
    std::vector<int> seen;
};
int32_t stopAt(void *cookie, LISTNODE *node) {
    auto *stop = static_cast<Stop *>(cookie);
    stop->seen.push_back(ObjGetInteger(node->oItem));
    return stop->seen.back() == stop->at ? stop->result : 1;
}
} // namespace

TEST_F(ListTest, WalksMayRemoveTheCurrentNodeAndEndOnAnyResultButOne) {
    for (auto walk : {ListWalk, ListWalkBackwards}) {
        LIST *list = listOf({1, 2, 3, 4, 5, 6});
        EXPECT_EQ(walk(list, removeEven, nullptr), TRUE);
        EXPECT_EQ(values(list), (std::vector<int>{1, 3, 5}));
        release(list);
    }
    const struct {
        int32_t (*walk)(LIST *, ListWalkFunction, void *);
        Stop stop;
        int32_t result;
        std::vector<int> seen;
    } cases[] = {
        {ListWalk, {3, 0, {}}, 0, {1, 2, 3}},          {ListWalk, {3, 2, {}}, 2, {1, 2, 3}},
        {ListWalk, {9, 0, {}}, TRUE, {1, 2, 3, 4, 5}}, {ListWalkBackwards, {4, 0, {}}, 0, {5, 4}},
        {ListWalkBackwards, {4, 2, {}}, 2, {5, 4}},
    };
    LIST *list = listOf({1, 2, 3, 4, 5}), *empty = listOf({});
    for (auto c : cases) {
        EXPECT_EQ(c.walk(list, stopAt, &c.stop), c.result);
        EXPECT_EQ(c.stop.seen, c.seen);
        EXPECT_EQ(c.walk(empty, stopAt, &c.stop), TRUE);
    }
    EXPECT_TRUE(!ListWalk(list, nullptr, nullptr));
    EXPECT_TRUE(traced("LIST", 16, "ListWalk - bad argument(s)"));
    EXPECT_TRUE(!ListWalkBackwards(nullptr, stopAt, nullptr));
    EXPECT_TRUE(traced("LIST", 18, "Bad argument(s)"));
    release(list, empty);
}

TEST_F(ListTest, PositionsCountFromOneIndexesFromZeroAndSearchesRunFromEitherEnd) {
    LIST *list = listOf({10, 20, 30, 20, 50});
    for (int position = 1; position <= 5; ++position) { // the nearer end differs along the way
        LISTNODE *node = nullptr;
        void *item = nullptr;
        ASSERT_TRUE(ListGetNthNode(&node, list, position));
        ASSERT_TRUE(ListGetNthItem(&item, list, position));
        EXPECT_TRUE(ListGetItemIndex(node) == position - 1 && node->oItem == item && fh::refCount(item) == 2);
        ObjReleaseInternal(&item);
    }
    void *item = nullptr;
    LISTNODE *node = nullptr;
    EXPECT_FALSE(ListGetNthItem(&item, list, 0) || ListGetNthItem(&item, list, 6) || ListGetNthNode(&node, list, 0));
    EXPECT_TRUE(traced("LIST", 93, "ListGetNthNode - Index out of range"));
    OBJ_INTEGER *key = ObjIntegerNew(20);
    EXPECT_TRUE(ListSearch(list, sameValue, key, &node));
    EXPECT_TRUE(ListGetItemIndex(node) == 1);
    EXPECT_TRUE(ListSearchBackwards(list, sameValue, key, &node));
    EXPECT_TRUE(ListGetItemIndex(node) == 3);
    EXPECT_FALSE(ListFindNode(&node, list, key)); // an equal value is not the same item
    OBJ_INTEGER *fifty = ObjIntegerNew(50);
    EXPECT_TRUE(ListAddUniqueItem(list, sameValue, fifty) && list->iCount == 5); // only the last item matches
    EXPECT_TRUE(ListSetNthItem(key, list, 0));                                   // 1 or less: the first
    EXPECT_TRUE(!ListSetNthItem(key, list, 6) &&
                traced("LIST", 90, "ListSetNthItem - Index out of range (Index 6, list has 5 items)"));
    EXPECT_EQ(values(list), (std::vector<int>{20, 20, 30, 20, 50}));
    int32_t count = 0;
    EXPECT_TRUE(ListGetItemCount(list, &count) == -1);
    EXPECT_TRUE(count == 5);
    EXPECT_EQ(ListGetItemCount(reinterpret_cast<LIST *>(key), &count), -1);
    release(list, key, fifty);
}

TEST_F(ListTest, JoinMovesEveryNodeIntoAndFromEmptyLists) {
    const struct {
        std::vector<int> into, from, joined;
        bool doesNothing;
    } cases[] = {{{}, {1, 2}, {1, 2}, false}, {{1}, {2, 3}, {1, 2, 3}, false}, {{1, 2}, {}, {1, 2}, true}};
    for (const auto &c : cases) {
        LIST *into = listOf(c.into), *from = listOf(c.from, 0); // ItemMagic plays no part
        LISTNODE *first = from->oFirst, *last = from->oLast;
        ListJoin(into, from);
        EXPECT_EQ(values(into), c.joined); // ListVerify: every node names into as its list
        EXPECT_TRUE(!c.into.empty() || (into->oFirst == first && into->oLast == last));
        EXPECT_TRUE(from->oFirst == nullptr && from->oLast == nullptr && from->iCount == 0);
        EXPECT_EQ(traced("LIST", 46, "ListJoin - Doing nothing as 'JoinFrom' list  has no entries"), c.doesNothing);
        release(into, from);
    }
}

namespace {
int gPoolBlocks = 0;
void *poolAllocate(MemPool *, size_t bytes) { return ++gPoolBlocks, malloc(bytes); }
BOOL poolFree(void *raw) { return --gPoolBlocks, free(raw), TRUE; }
const MemPoolOperations kCountingPool = {nullptr, poolAllocate, poolFree, nullptr};
MemPool gCountingPool = {MEM_POOL_MAGIC, &kCountingPool};
} // namespace

TEST_F(ListTest, CopiesHoldTheSameItemsAndDeepCopiesHoldCopies) {
    LIST *list = nullptr, *clone = nullptr, *range = nullptr, *tooLong = nullptr;
    ASSERT_TRUE(ListCreateFromPool(&list, OBJ_INTEGER_MAGIC, &gCountingPool));
    for (void *item : {ObjIntegerNew(1), ObjIntegerNew(2), ObjIntegerNew(3)}) ListPushLastItemInternal(list, &item);
    EXPECT_EQ(gPoolBlocks, 4); // nodes come from the pool of their list
    OBJ_STRING *cookie = ObjStringNew("cookie");
    ASSERT_TRUE(ListSetCookie(list, cookie));
    EXPECT_EQ(ListClone(&clone, list), 0);
    EXPECT_EQ(clone->iItemMagic, 0);
    EXPECT_EQ(ListClone(nullptr, list), 0);
    EXPECT_TRUE(traced("LIST", 65, formatted("ListClone(%p,%p) - invalid arguments", nullptr, list)));
    ASSERT_TRUE(ListDuplicateRange(&range, list, 2));
    EXPECT_EQ(range->iItemMagic, static_cast<int32_t>(OBJ_INTEGER_MAGIC));
    const int32_t objects = ObjCount();
    EXPECT_FALSE(ListDuplicateRange(&tooLong, list, 4));
    EXPECT_TRUE(tooLong == nullptr);
    EXPECT_TRUE(ObjCount() == objects);
    EXPECT_EQ(values(range), (std::vector<int>{1, 2}));
    EXPECT_TRUE(clone->oFirst->oItem == list->oFirst->oItem && fh::refCount(list->oFirst->oItem) == 3);

    void *deep = nullptr;
    ASSERT_TRUE(ObjDuplicateInternal(&deep, list, FALSE));
    auto *copy = static_cast<LIST *>(deep);
    EXPECT_EQ(values(copy), (std::vector<int>{1, 2, 3}));
    EXPECT_TRUE(copy->oFirst->oItem != list->oFirst->oItem && copy->iItemMagic == 0 && copy->oCookie == nullptr);

    EXPECT_TRUE(ListAppend(list, list)); // onto itself: each item once more
    EXPECT_EQ(values(list), (std::vector<int>{1, 2, 3, 1, 2, 3}));
    EXPECT_TRUE(!ListAppend(range, clone));
    EXPECT_TRUE(traced("LIST", 45, "Invalid or mismatched lists"));  // typed from untyped
    release(list, clone, range, copy);
    EXPECT_TRUE(fh::refCount(cookie) == 1);
    EXPECT_TRUE(gPoolBlocks == 0);  // the cookie and the nodes went with it
    release(cookie);
}

TEST_F(ListTest, AddObjectReplacesEveryItemOfItsMagic) {
    LIST *list = listOf({}, 0), *typed = listOf({});
    void *items[] = {ObjIntegerNew(1), ObjStringNew("a"), ObjIntegerNew(2)};
    for (void *&item : items) ListPushLastItemInternal(list, &item);
    OBJ_INTEGER *three = ObjIntegerNew(3);
    EXPECT_TRUE(ListAddObject(list, three));
    EXPECT_EQ(magics(list), (std::vector<uint32_t>{OBJ_STRING_MAGIC, OBJ_INTEGER_MAGIC}));
    EXPECT_EQ(list->oLast->oItem, three);
    EXPECT_TRUE(ListAddObject(list, list->oFirst->oItem)); // held only by the list: it must survive its removal
    EXPECT_EQ(magics(list), (std::vector<uint32_t>{OBJ_INTEGER_MAGIC, OBJ_STRING_MAGIC}));
    void *four = ObjIntegerNew(4), *found = nullptr;
    EXPECT_TRUE(ListPushObjectInternal(list, &four));
    EXPECT_TRUE(four == nullptr);
    EXPECT_TRUE(fh::refCount(three) == 1);
    EXPECT_TRUE(ListFindObjectInternal(&found, list, OBJ_INTEGER_MAGIC));
    EXPECT_TRUE(ObjGetInteger(found) == 4);
    EXPECT_TRUE(ListPopObjectInternal(&four, list, OBJ_STRING_MAGIC) && list->iCount == 1);
    EXPECT_TRUE(!ListAddObject(typed, three));
    EXPECT_TRUE(traced("LIST", 72, "ListAddObject - bad argument(s)"));
    EXPECT_TRUE(!ListAddObject(list, nullptr));
    EXPECT_TRUE(traced("LIST", 74, "ListPushAddObject - invailid object"));
    release(list, typed, three, four, found);
}

TEST_F(ListTest, AnExtensionListKeepsOneObjectPerMagic) {
    LIST *extensions = nullptr;
    OBJ_INTEGER *first = ObjIntegerNew(1), *second = ObjIntegerNew(2);
    OBJ_STRING *text = ObjStringNew("t");
    for (void *item : {static_cast<void *>(first), static_cast<void *>(text), static_cast<void *>(second)})
        EXPECT_TRUE(ListSetExtensionItem(&extensions, item));
    EXPECT_EQ(magics(extensions), (std::vector<uint32_t>{OBJ_STRING_MAGIC, OBJ_INTEGER_MAGIC}));
    void *got = nullptr, *notAList = first;
    EXPECT_TRUE(ListGetExtensionItem(&got, extensions, OBJ_INTEGER_MAGIC));
    EXPECT_TRUE(got == second);
    EXPECT_EQ(fh::refCount(first), 1);
    EXPECT_TRUE(ListRemoveExtensionItem(extensions, OBJ_STRING_MAGIC));
    EXPECT_FALSE(ListGetExtensionItem(nullptr, extensions, OBJ_STRING_MAGIC));
    EXPECT_TRUE(!ListSetExtensionItem(&notAList, second));
    EXPECT_TRUE(traced("LIST", 81, "Extension object is not a list!"));

    // The context's list of context objects is one, released with the
    // per-context state of lists.
    for (void *item : {static_cast<void *>(first), static_cast<void *>(second), static_cast<void *>(text)})
        EXPECT_TRUE(ContextSetContextObject(item));
    void *object = nullptr, *gone = text;
    EXPECT_TRUE(ContextGetContextObject(&object, OBJ_INTEGER_MAGIC));
    EXPECT_TRUE(object == second);
    EXPECT_EQ(fh::refCount(first), 1);
    EXPECT_TRUE(!ContextSetContextObject(nullptr) &&
                traced("CONTEXT", 3, formatted("ContextSetContextObject(%p) - not passed an object", nullptr)));
    ListReleaseThread(&gtLmContext);
    EXPECT_TRUE(gtLmContext.pContextObjects == nullptr);
    EXPECT_TRUE(fh::refCount(text) == 1);
    EXPECT_TRUE(!ContextGetContextObject(&gone, OBJ_STRING_MAGIC));
    EXPECT_TRUE(gone == nullptr);
    release(extensions, first, second, text, object, got);
}

TEST_F(ListTest, VerifyReportsTheFirstFault) {
    LIST *list = listOf({1, 2, 3});
    void *stranger = ObjStringNew("x");
    const struct {
        std::function<void()> damage; // done twice, it undoes itself
        int32_t id;
        const char *text;
    } cases[] = {{[&] { std::swap(list->oFirst->oNext->oItem, stranger); }, 23, "Corrupt item in list"},
                 {[&] { std::swap(list->oLast->oPrevious, list->oFirst->oPrevious); }, 24, "Corrupt node in list"},
                 {[&] { list->iCount ^= 1; }, 24, "Corrupt node in list"}, // a chain longer than Count
                 {[&] { *fh::objectHeader(list)->EndMagic ^= 1; }, 25, "Invalid list header"}};
    for (const auto &c : cases) {
        c.damage();
        EXPECT_TRUE(!ListVerify(list)) << c.text;
        EXPECT_TRUE(traced("LIST", c.id, c.text)) << c.text;
        c.damage();
        EXPECT_TRUE(ListVerify(list)) << c.text;
    }
    EXPECT_FALSE(ListVerify(nullptr));
    EXPECT_TRUE(traced("LIST", 22, "ListVerify(0)"));
    release(list, stranger);
}
