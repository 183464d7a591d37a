// Lists: the chain kept sound by every change, the item rule, the odd
// results that callers rely on, sorting, walks, copies, objects by magic,
// extension lists and the release of very long lists.
#include <pthread.h>

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

// The integers of a sound list, read forward and checked backward.
std::vector<int> values(const LIST *list) {
    EXPECT_TRUE(ListVerify(list));
    std::vector<int> forward, backward;
    for (const LISTNODE *n = list->oFirst; n != nullptr; n = n->oNext) forward.push_back(ObjGetInteger(n->oItem));
    for (const LISTNODE *n = list->oLast; n != nullptr; n = n->oPrevious) backward.insert(backward.begin(), ObjGetInteger(n->oItem));
    EXPECT_EQ(forward, backward);
    return forward;
}

std::vector<uint32_t> magics(const LIST *list) {
    std::vector<uint32_t> result;
    for (const LISTNODE *n = list->oFirst; n != nullptr; n = n->oNext) result.push_back(fh::startMagic(n->oItem));
    return result;
}

int32_t references(const void *object) { return fh::objectHeader(object)->RefCount; }

template <typename... Objects> void release(Objects *&...objects) { (ObjReleaseInternal(&objects), ...); }

int32_t ascending(void *a, void *b) {
    const int x = ObjGetInteger(a), y = ObjGetInteger(b);
    return x < y ? -1 : x > y ? 1 : 0;
}
int32_t breaksAfter(void *a, void *b, void *budget) { return --*static_cast<int *>(budget) < 0 ? 2 : ascending(a, b); }
int32_t sameValue(void *key, void *item) { return ObjGetInteger(key) == ObjGetInteger(item); }

std::string withPointers(const char *format, const void *a, const void *b, long n) {
    char text[160];
    snprintf(text, sizeof text, format, a, b, n);
    return text;
}

} // namespace

class ListTest : public LibraryTest {};

namespace {
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

TEST_F(ListTest, AMillionItemsAreCopiedAndReleasedInASmallStack) {
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, 256 * 1024);
    pthread_t thread;
    ASSERT_EQ(pthread_create(&thread, &attributes, buildCopyAndRelease, nullptr), 0);
    void *result = nullptr;
    pthread_join(thread, &result);
    EXPECT_EQ(result, reinterpret_cast<void *>(1));
    EXPECT_EQ(ObjGetInstanceCount(OBJ_INTEGER_MAGIC), 0);
}

TEST_F(ListTest, RemovingFirstLastMiddleAndOnlyNodesKeepsTheChainSound) {
    auto removeNode = [](LISTNODE *(*pick)(LIST *)) {
        return std::function<BOOL(LIST *)>([=](LIST *l) { return ListRemoveItem(pick(l)); });
    };
    auto pop = [](BOOL (*popper)(LIST *, void *)) {
        return std::function<BOOL(LIST *)>([=](LIST *l) {
            void *item = nullptr;
            const BOOL popped = popper(l, &item);
            return popped && ObjReleaseInternal(&item);
        });
    };
    const struct {
        std::vector<int> start;
        std::function<BOOL(LIST *)> remove;
        BOOL result;
        std::vector<int> after;
    } cases[] = {
        {{1, 2, 3}, ListRemoveFirstItem, TRUE, {2, 3}},
        {{1, 2, 3}, ListRemoveLastItem, TRUE, {1, 2}},
        {{1, 2, 3}, removeNode([](LIST *l) { return l->oFirst; }), TRUE, {2, 3}},
        {{1, 2, 3}, removeNode([](LIST *l) { return l->oFirst->oNext; }), TRUE, {1, 3}},
        {{1, 2, 3}, removeNode([](LIST *l) { return l->oLast; }), TRUE, {1, 2}},
        {{1, 2, 3}, pop(ListPopFirstItemInternal), TRUE, {2, 3}},
        {{1, 2, 3}, pop(ListPopLastItemInternal), TRUE, {1, 2}},
        {{7}, ListRemoveFirstItem, TRUE, {}},
        {{7}, ListRemoveLastItem, TRUE, {}},
        {{7}, removeNode([](LIST *l) { return l->oFirst; }), TRUE, {}},
        {{7}, pop(ListPopLastItemInternal), TRUE, {}},
        {{}, ListRemoveFirstItem, FALSE, {}},
        {{}, ListRemoveLastItem, FALSE, {}},
        {{1, 2}, ListReleaseAll, TRUE, {}},
    };
    for (const auto &c : cases) {
        LIST *list = listOf(c.start);
        EXPECT_EQ(c.remove(list), c.result);
        EXPECT_EQ(values(list), c.after);
        EXPECT_EQ(ObjGetInstanceCount(OBJ_INTEGER_MAGIC), static_cast<int32_t>(c.after.size()));
        EXPECT_EQ(list->oFirst == nullptr && list->oLast == nullptr, c.after.empty());
        release(list);
    }
    // A pop from an empty list is no fault: no report, and out is untouched.
    LIST *empty = listOf({});
    void *out = empty;
    EXPECT_FALSE(ListPopFirstItemInternal(empty, &out));
    EXPECT_EQ(out, empty);
    EXPECT_FALSE(traced("LIST", 56, "ListPopFirstItem - Invalid arguments"));
    EXPECT_FALSE(ListPopFirstItemInternal(empty, nullptr));
    EXPECT_TRUE(traced("LIST", 56, "ListPopFirstItem - Invalid arguments"));
    release(empty);
}

TEST_F(ListTest, ATypedListRefusesItemsOfAnotherMagicAndChangesNothing) {
    LIST *list = listOf({1});
    OBJ_STRING *text = ObjStringNew("x");
    const std::string name = ObjNameFromObject(text), invalid = "Invalid Object " + name;
    const struct {
        const char *operation;
        std::function<BOOL()> call;
        int32_t id;
        std::string trace;
    } cases[] = {
        {"add first", [&] { return ListAddFirstItem(list, text); }, 28, invalid},
        {"add last", [&] { return ListAddLastItem(list, text); }, 35, invalid},
        {"add null", [&] { return ListAddLastItem(list, nullptr); }, 35, "Invalid Object NULL Object"},
        {"add unique", [&] { return ListAddUniqueItem(list, sameValue, text); }, 39, invalid},
        {"push first", [&] { void *v = text; return ListPushFirstItemInternal(list, &v) || v != text; }, 32,
         "Invalid Object '" + name + "' not '" + ObjNameFromMagic(OBJ_INTEGER_MAGIC) + "'"},
        {"push last", [&] { void *v = text; return ListPushLastItemInternal(list, &v) || v != text; }, 43, invalid},
        {"insert before", [&] { return ListInsertBefore(list->oFirst, text); }, 48,
         "ListInsertBefore - invalid item type"},
        {"insert after", [&] { return ListInsertAfter(list->oFirst, text); }, 50, "ListInsertAfter - invalid item type"},
        {"replace", [&] { return ListNodeReplaceObject(list->oFirst, text); }, 87, invalid},
        {"set nth", [&] { return ListSetNthItem(text, list, 1); }, 91,
         withPointers("ListSetNthItem(%p, %p, %ld) - bad params", text, list, 1)},
        {"find node", [&] { return ListFindNode(nullptr, list, text); }, 59,
         "ListFindNode - wrong item type for this list"},
    };
    for (const auto &c : cases) {
        EXPECT_FALSE(c.call()) << c.operation;
        EXPECT_TRUE(traced("LIST", c.id, c.trace)) << c.operation;
        EXPECT_EQ(values(list), std::vector<int>{1}) << c.operation;
        EXPECT_EQ(references(text), 1) << c.operation;
    }
    EXPECT_FALSE(ListAddLastItem(nullptr, text)); // a null list: no report
    LIST *any = listOf({}, 0);
    EXPECT_TRUE(ListAddLastItem(any, text));
    EXPECT_FALSE(ListAddLastItem(any, nullptr));
    EXPECT_EQ(any->iCount, 1);
    release(list, any, text);
}

TEST_F(ListTest, InsertsAndUniqueAddsLandWhereTheySay) {
    LIST *list = listOf({2, 4});
    OBJ_INTEGER *one = ObjIntegerNew(1), *three = ObjIntegerNew(3), *five = ObjIntegerNew(5), *four = ObjIntegerNew(4);
    EXPECT_TRUE(ListInsertBefore(list->oFirst, one));
    EXPECT_TRUE(ListInsertAfter(list->oFirst->oNext, three));
    EXPECT_TRUE(ListInsertAfter(list->oLast, five));
    EXPECT_EQ(values(list), (std::vector<int>{1, 2, 3, 4, 5}));
    EXPECT_TRUE(ListAddUniqueItem(list, sameValue, four)); // only the last but one matches: nothing added
    EXPECT_TRUE(ListAddUniqueItem(list, sameValue, five)); // only the last matches
    EXPECT_EQ(list->iCount, 5);
    EXPECT_EQ(references(five), 2);
    EXPECT_FALSE(ListAddUniqueItem(list, nullptr, five));
    EXPECT_TRUE(traced("LIST", 38, "No compare function"));
    LISTNODE *removed = list->oFirst;
    ObjIncRefCount(removed); // kept alive after its removal, it belongs to no list
    ListRemoveFirstItem(list);
    EXPECT_FALSE(ListInsertAfter(removed, one));
    EXPECT_TRUE(traced("LIST", 51, "ListInsertAfter - not a list"));
    release(removed, list, one, three, four, five);
}

TEST_F(ListTest, SortOrdersAndABrokenComparisonStillLeavesAPermutation) {
    std::vector<int> input(300);
    std::iota(input.begin(), input.end(), 0);
    std::shuffle(input.begin(), input.end(), std::mt19937(5));
    std::vector<int> sorted = input;
    std::sort(sorted.begin(), sorted.end());
    LIST *list = listOf(input), *broken = listOf(input);
    EXPECT_TRUE(ListSort(list, ascending));
    EXPECT_EQ(values(list), sorted);
    EXPECT_TRUE(traced("LIST", 53, "Create an array of 300 entries"));
    int budget = 400;
    EXPECT_TRUE(ListSortWithCookie(broken, breaksAfter, &budget));
    std::vector<int> after = values(broken);
    EXPECT_NE(after, sorted);
    std::sort(after.begin(), after.end());
    EXPECT_EQ(after, sorted);
    for (const LISTNODE *n = broken->oFirst; n != nullptr; n = n->oNext) ASSERT_EQ(references(n->oItem), 1);
    EXPECT_FALSE(ListSort(list, nullptr));
    EXPECT_FALSE(ListSortWithCookie(nullptr, breaksAfter, &budget));
    EXPECT_TRUE(traced("LIST", 55, "ListSort - Invalid arguments"));
    LIST *single = listOf({9});
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
        {ListWalk, {3, 0, {}}, 0, {1, 2, 3}},     {ListWalk, {3, 2, {}}, 2, {1, 2, 3}},
        {ListWalk, {9, 0, {}}, TRUE, {1, 2, 3, 4, 5}}, {ListWalkBackwards, {4, 0, {}}, 0, {5, 4}},
        {ListWalkBackwards, {4, 2, {}}, 2, {5, 4}}, {ListWalkBackwards, {-1, 0, {}}, TRUE, {5, 4, 3, 2, 1}},
    };
    LIST *list = listOf({1, 2, 3, 4, 5}), *empty = listOf({});
    for (auto c : cases) {
        EXPECT_EQ(c.walk(list, stopAt, &c.stop), c.result);
        EXPECT_EQ(c.stop.seen, c.seen);
        EXPECT_EQ(c.walk(empty, stopAt, &c.stop), TRUE);
    }
    EXPECT_EQ(ListWalk(list, nullptr, nullptr), FALSE);
    EXPECT_TRUE(traced("LIST", 16, "ListWalk - bad argument(s)"));
    EXPECT_EQ(ListWalkBackwards(nullptr, stopAt, nullptr), FALSE);
    EXPECT_TRUE(traced("LIST", 18, "Bad argument(s)"));
    release(list, empty);
}

TEST_F(ListTest, PositionsCountFromOneIndexesFromZeroAndSearchesFromEitherEnd) {
    LIST *list = listOf({10, 20, 30, 20, 50});
    for (int position = 1; position <= 5; ++position) {
        LISTNODE *node = nullptr;
        void *item = nullptr;
        ASSERT_TRUE(ListGetNthNode(&node, list, position));
        ASSERT_TRUE(ListGetNthItem(&item, list, position));
        EXPECT_EQ(ListGetItemIndex(node), position - 1);
        EXPECT_EQ(node->oItem, item);
        EXPECT_EQ(references(item), 2);
        ObjReleaseInternal(&item);
    }
    void *item = nullptr;
    LISTNODE *node = nullptr;
    EXPECT_FALSE(ListGetNthItem(&item, list, 0));
    EXPECT_FALSE(ListGetNthItem(&item, list, 6));
    EXPECT_FALSE(traced("LIST", 92, "ListGetNthItem - Invalid arguments"));
    EXPECT_FALSE(ListGetNthNode(&node, list, 0));
    EXPECT_TRUE(traced("LIST", 93, "ListGetNthNode - Index out of range"));
    EXPECT_EQ(ListGetItemIndex(reinterpret_cast<LISTNODE *>(list)), -1);

    OBJ_INTEGER *key = ObjIntegerNew(20);
    EXPECT_TRUE(ListSearch(list, sameValue, key, &node));
    EXPECT_EQ(ListGetItemIndex(node), 1);
    EXPECT_TRUE(ListSearchBackwards(list, sameValue, key, &node));
    EXPECT_EQ(ListGetItemIndex(node), 3);
    EXPECT_TRUE(ListFindNode(&node, list, list->oLast->oItem));
    EXPECT_EQ(node, list->oLast);
    EXPECT_FALSE(ListFindNode(&node, list, key)); // an equal value is not the same item

    EXPECT_TRUE(ListSetNthItem(key, list, 0)); // 1 or less: the first
    EXPECT_FALSE(ListSetNthItem(key, list, 6));
    EXPECT_TRUE(traced("LIST", 90, "ListSetNthItem - Index out of range (Index 6, list has 5 items)"));
    EXPECT_TRUE(ListNodeReplaceObject(list->oLast, key));
    EXPECT_EQ(values(list), (std::vector<int>{20, 20, 30, 20, 20}));
    EXPECT_EQ(references(key), 3);

    int32_t count = 0;
    EXPECT_EQ(ListGetItemCount(list, &count), -1);
    EXPECT_EQ(count, 5);
    EXPECT_EQ(ListGetItemCount(reinterpret_cast<LIST *>(key), &count), -1);
    EXPECT_TRUE(traced("LIST", 47, "ListGetItemCount - not a list"));
    release(list, key);
}

TEST_F(ListTest, JoinMovesEveryNodeIntoAndFromEmptyLists) {
    const struct {
        std::vector<int> into, from, joined;
        bool traced;
    } cases[] = {
        {{}, {1, 2}, {1, 2}, false},
        {{1}, {2, 3}, {1, 2, 3}, false},
        {{1, 2}, {}, {1, 2}, true},
        {{}, {}, {}, true},
    };
    const char *nothing = "ListJoin - Doing nothing as 'JoinFrom' list  has no entries";
    for (const auto &c : cases) {
        LIST *into = listOf(c.into), *from = listOf(c.from, 0); // ItemMagic plays no part
        LISTNODE *first = from->oFirst, *last = from->oLast;
        ListJoin(into, from);
        EXPECT_EQ(values(into), c.joined); // every node now names into as its list
        EXPECT_TRUE(!c.into.empty() || (into->oFirst == first && into->oLast == last));
        EXPECT_TRUE(from->oFirst == nullptr && from->oLast == nullptr && from->iCount == 0);
        EXPECT_EQ(traced("LIST", 46, nothing), c.traced);
        release(into, from);
    }
}

TEST_F(ListTest, CopiesHoldTheSameItemsAndDeepCopiesHoldCopies) {
    LIST *list = listOf({1, 2, 3}), *clone = nullptr, *duplicate = nullptr, *range = nullptr, *tooLong = nullptr;
    OBJ_STRING *cookie = ObjStringNew("cookie");
    ASSERT_TRUE(ListSetCookie(list, cookie));
    EXPECT_EQ(ListClone(&clone, list), 0);
    EXPECT_EQ(clone->iItemMagic, 0);
    EXPECT_EQ(ListClone(nullptr, list), 0);
    EXPECT_TRUE(traced("LIST", 65, withPointers("ListClone(%p,%p) - invalid arguments", nullptr, list, 0)));
    ASSERT_TRUE(ListDuplicate(&duplicate, list));
    EXPECT_EQ(duplicate->iItemMagic, static_cast<int32_t>(OBJ_INTEGER_MAGIC));
    ASSERT_TRUE(ListDuplicateRange(&range, list, 2));
    const int32_t objects = ObjCount();
    EXPECT_FALSE(ListDuplicateRange(&tooLong, list, 4));
    EXPECT_TRUE(tooLong == nullptr && ObjCount() == objects);
    EXPECT_EQ(values(range), (std::vector<int>{1, 2}));
    EXPECT_EQ(clone->oFirst->oItem, list->oFirst->oItem);
    EXPECT_EQ(references(list->oFirst->oItem), 4);

    void *deep = nullptr;
    ASSERT_TRUE(ObjDuplicateInternal(&deep, list, FALSE));
    auto *copy = static_cast<LIST *>(deep);
    EXPECT_EQ(values(copy), (std::vector<int>{1, 2, 3}));
    EXPECT_NE(copy->oFirst->oItem, list->oFirst->oItem);
    EXPECT_TRUE(copy->iItemMagic == 0 && copy->oCookie == nullptr);

    EXPECT_TRUE(ListAppend(list, list)); // onto itself: each item once more
    EXPECT_EQ(values(list), (std::vector<int>{1, 2, 3, 1, 2, 3}));
    EXPECT_FALSE(ListAppend(range, clone)); // typed from untyped
    EXPECT_TRUE(traced("LIST", 45, "Invalid or mismatched lists"));
    EXPECT_TRUE(ListAppend(clone, range));
    EXPECT_EQ(clone->iCount, 5);
    EXPECT_EQ(references(cookie), 2);
    release(list, clone, duplicate, range, copy);
    EXPECT_EQ(references(cookie), 1); // the list's reference went with it
    release(cookie);
}

TEST_F(ListTest, AddObjectReplacesEveryItemOfItsMagic) {
    LIST *list = listOf({}, 0);
    void *items[] = {ObjIntegerNew(1), ObjStringNew("a"), ObjIntegerNew(2)};
    for (void *&item : items) ListPushLastItemInternal(list, &item);
    OBJ_INTEGER *three = ObjIntegerNew(3);
    EXPECT_TRUE(ListAddObject(list, three));
    EXPECT_EQ(magics(list), (std::vector<uint32_t>{OBJ_STRING_MAGIC, OBJ_INTEGER_MAGIC}));
    EXPECT_EQ(list->oLast->oItem, three);
    EXPECT_TRUE(ListAddObject(list, list->oFirst->oItem)); // held only by the list: it must survive its removal
    EXPECT_EQ(magics(list), (std::vector<uint32_t>{OBJ_INTEGER_MAGIC, OBJ_STRING_MAGIC}));
    void *four = ObjIntegerNew(4);
    EXPECT_TRUE(ListPushObjectInternal(list, &four));
    EXPECT_EQ(four, nullptr);
    EXPECT_EQ(references(three), 1);

    void *found = nullptr;
    EXPECT_TRUE(ListFindObjectInternal(&found, list, OBJ_INTEGER_MAGIC));
    EXPECT_EQ(ObjGetInteger(found), 4);
    EXPECT_TRUE(ListPopObjectInternal(&four, list, OBJ_STRING_MAGIC));
    EXPECT_STREQ(ObjGetString(four), "a");
    EXPECT_FALSE(ListRemoveObjectInternal(list, OBJ_STRING_MAGIC));
    EXPECT_TRUE(ListRemoveObjectInternal(list, OBJ_INTEGER_MAGIC));
    EXPECT_EQ(list->iCount, 0);

    LIST *typed = listOf({});
    EXPECT_FALSE(ListAddObject(typed, three));
    EXPECT_TRUE(traced("LIST", 72, "ListAddObject - bad argument(s)"));
    EXPECT_FALSE(ListAddObject(list, nullptr));
    EXPECT_TRUE(traced("LIST", 74, "ListPushAddObject - invailid object"));
    EXPECT_FALSE(ListFindObjectInternal(nullptr, nullptr, OBJ_INTEGER_MAGIC));
    EXPECT_TRUE(traced("LIST", 66, "ListFindObject - bad argument(s)"));
    release(list, typed, three, four, found);
}

TEST_F(ListTest, AnExtensionListKeepsOneObjectPerMagic) {
    LIST *extensions = nullptr;
    OBJ_INTEGER *first = ObjIntegerNew(1), *second = ObjIntegerNew(2);
    OBJ_STRING *text = ObjStringNew("t");
    EXPECT_TRUE(ListSetExtensionItem(&extensions, first));
    ASSERT_NE(extensions, nullptr);
    EXPECT_EQ(extensions->iItemMagic, 0);
    EXPECT_TRUE(ListSetExtensionItem(&extensions, text));
    EXPECT_TRUE(ListSetExtensionItem(&extensions, second));
    EXPECT_EQ(magics(extensions), (std::vector<uint32_t>{OBJ_STRING_MAGIC, OBJ_INTEGER_MAGIC}));
    void *got = nullptr;
    EXPECT_TRUE(ListGetExtensionItem(&got, extensions, OBJ_INTEGER_MAGIC));
    EXPECT_EQ(got, second);
    EXPECT_EQ(references(first), 1);
    EXPECT_TRUE(ListRemoveExtensionItem(extensions, OBJ_STRING_MAGIC));
    EXPECT_FALSE(ListGetExtensionItem(nullptr, extensions, OBJ_STRING_MAGIC));
    EXPECT_FALSE(ListGetExtensionItem(nullptr, nullptr, OBJ_INTEGER_MAGIC));
    void *notAList = first;
    EXPECT_FALSE(ListSetExtensionItem(&notAList, second));
    EXPECT_TRUE(traced("LIST", 81, "Extension object is not a list!"));

    // The context's list of context objects is one, released with the
    // per-context state of lists.
    EXPECT_TRUE(ContextSetContextObject(first));
    EXPECT_TRUE(ContextSetContextObject(second));
    EXPECT_TRUE(ContextSetContextObject(text));
    void *object = nullptr;
    EXPECT_TRUE(ContextGetContextObject(&object, OBJ_INTEGER_MAGIC));
    EXPECT_EQ(object, second);
    EXPECT_EQ(references(first), 1);
    EXPECT_FALSE(ContextSetContextObject(nullptr));
    EXPECT_TRUE(traced("CONTEXT", 3, withPointers("ContextSetContextObject(%p) - not passed an object", nullptr,
                                                  nullptr, 0)));
    ListReleaseThread(&gtLmContext);
    EXPECT_EQ(gtLmContext.pContextObjects, nullptr);
    EXPECT_EQ(references(text), 1);
    void *gone = text;
    EXPECT_FALSE(ContextGetContextObject(&gone, OBJ_STRING_MAGIC));
    EXPECT_EQ(gone, nullptr);
    release(extensions, first, second, text, object, got);
}

TEST_F(ListTest, VerifyReportsTheFirstFault) {
    LIST *list = listOf({1, 2, 3});
    void *stranger = ObjStringNew("x");
    // Each damage undoes itself when done twice.
    const struct {
        std::function<void()> damage;
        int32_t id;
        const char *text;
    } cases[] = {
        {[&] { std::swap(list->oFirst->oNext->oItem, stranger); }, 23, "Corrupt item in list"},
        {[&] { std::swap(list->oLast->oPrevious, list->oFirst->oPrevious); }, 24, "Corrupt node in list"},
        {[&] { list->iCount ^= 1; }, 24, "Corrupt node in list"}, // one short
        {[&] { list->iCount ^= 4; }, 24, "Corrupt node in list"}, // four long
        {[&] { *fh::objectHeader(list)->EndMagic ^= 1; }, 25, "Invalid list header"},
    };
    EXPECT_TRUE(ListVerify(list));
    for (const auto &c : cases) {
        c.damage();
        EXPECT_FALSE(ListVerify(list)) << c.text;
        EXPECT_TRUE(traced("LIST", c.id, c.text)) << c.text;
        c.damage();
        EXPECT_TRUE(ListVerify(list)) << c.text;
    }
    EXPECT_FALSE(ListVerify(nullptr));
    EXPECT_TRUE(traced("LIST", 22, "ListVerify(0)"));
    release(list, stranger);
}

namespace {
int gPoolBlocks = 0;
void *poolAllocate(MemPool *, size_t bytes) { return ++gPoolBlocks, malloc(bytes); }
BOOL poolFree(void *raw) { return --gPoolBlocks, free(raw), TRUE; }
const MemPoolOperations kCountingPool = {nullptr, poolAllocate, poolFree, nullptr};
MemPool gCountingPool = {MEM_POOL_MAGIC, &kCountingPool};
} // namespace

TEST_F(ListTest, NodesComeFromThePoolOfTheirListAndTheCookieGoesWithIt) {
    LIST *list = nullptr;
    ASSERT_TRUE(ListCreateFromPool(&list, 0, &gCountingPool));
    OBJ_INTEGER *item = ObjIntegerNew(1);
    OBJ_STRING *cookie = ObjStringNew("c"), *other = ObjStringNew("d");
    for (int i = 0; i < 3; ++i) ListAddLastItem(list, item);
    EXPECT_EQ(gPoolBlocks, 4); // the list and its three nodes
    EXPECT_TRUE(ListSetCookie(list, cookie));
    EXPECT_TRUE(ListSetCookie(list, other));
    EXPECT_TRUE(ListSetCookie(list, other));
    EXPECT_EQ(references(cookie), 1);
    EXPECT_EQ(references(other), 2);
    release(list);
    EXPECT_EQ(gPoolBlocks, 0);
    EXPECT_EQ(references(other), 1);
    EXPECT_EQ(references(item), 1);
    release(item, cookie, other);
}
