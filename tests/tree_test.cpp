// Trees: placing and moving nodes, the walks and their steering results,
// stepping, copying, and a million siblings released in a small stack.
#include "fixture.h"

#include <functional>

#include <string>
#include <vector>

namespace {

using TreeTest = LibraryTest;

int32_t valueOf(const TREENODE *node) { return ObjGetInteger(node->oItem); }

TREENODE *add(TREENODE *at, int32_t value, int32_t position) {
    OBJ_INTEGER *item = ObjIntegerNew(value);
    return TreePushItem(&item, at, position);
}

// The pre-order of a tree as "value" or "value(children)", roots by commas.
std::string shape(const TREENODE *first) {
    std::string text;
    for (const TREENODE *n = first; n != nullptr; n = n->oNextSibling) {
        if (!text.empty()) text += ",";
        text += std::to_string(valueOf(n));
        if (n->oFirstChild != nullptr) text += "(" + shape(n->oFirstChild) + ")";
        // The back links agree with the chain.
        EXPECT_EQ(n->oNextSibling == nullptr, n == (n->oParent ? n->oParent->oLastChild : n->oTree->oLast));
        EXPECT_TRUE(n->oNextSibling == nullptr || n->oNextSibling->oPreviousSibling == n);
        for (const TREENODE *c = n->oFirstChild; c != nullptr; c = c->oNextSibling) {
            EXPECT_EQ(c->oParent, n);
            EXPECT_EQ(c->oTree, n->oTree);
        }
    }
    return text;
}

// 1(11,12(121),13),2 with 1 and 12 open.
TREE *sample() {
    TREE *tree = TreeNewFromPool(nullptr);
    OBJ_INTEGER *two = ObjIntegerNew(2), *one = ObjIntegerNew(1);
    TreePushRootItem(&two, tree);
    TREENODE *first = TreePushRootItem(&one, tree);
    add(first, 11, 1);
    TREENODE *twelve = add(first, 12, 1);
    add(first, 13, 1);
    add(twelve, 121, 0);
    TreeNodeOpen(first);
    TreeNodeOpen(twelve);
    return tree;
}

TEST_F(TreeTest, PositionsAndRelations) {
    TREE *tree = sample();
    EXPECT_EQ(shape(tree->oFirst), "1(11,12(121),13),2");
    TREENODE *twelve = nullptr;
    ASSERT_TRUE(TreeNodeNthChild(&twelve, tree->oFirst, 2));
    for (const auto &[value, position] : {std::pair{7, 2}, {8, 3}, {9, 4}, {6, 5}, {122, 1}})
        add(twelve, value, position);
    EXPECT_EQ(shape(tree->oFirst), "1(6,11,7,12(121,122),8,13,9),2");
    EXPECT_EQ(TreeAddItem(twelve->oItem, twelve, 6), nullptr);
    EXPECT_EQ(TreeNodeChildCount(tree->oFirst), 7);
    EXPECT_EQ(TreeDepthOfNode(twelve->oFirstChild), 3);
    for (const auto &[relation, value] : {std::pair{4, 9}, {5, 6}, {6, 1}})
        EXPECT_EQ(valueOf(TreeRelativeNode(twelve, relation)), value) << relation;
    EXPECT_EQ(TreeRelativeNode(tree->oLast, 4), tree->oLast); // the last root is its own last sibling
    EXPECT_EQ(TreeRelativeNode(twelve, 7), nullptr);

    // Moving a branch to another tree, and refusing a move into itself.
    TREE *other = TreeNewFromPool(nullptr);
    OBJ_INTEGER *root = ObjIntegerNew(50);
    TREENODE *target = TreePushRootItem(&root, other);
    EXPECT_FALSE(TreeMoveBranch(tree->oFirst, twelve->oFirstChild, 0));
    ASSERT_TRUE(TreeMoveBranch(twelve, target, 0));
    EXPECT_EQ(shape(tree->oFirst), "1(6,11,7,8,13,9),2");
    EXPECT_EQ(shape(other->oFirst), "50(12(121,122))");
    EXPECT_FALSE(TreeMove(tree->oFirst, &tree)); // not into itself
    ASSERT_TRUE(TreeMove(target, &tree));        // every root of tree goes under 50
    EXPECT_EQ(tree, nullptr);
    EXPECT_EQ(shape(other->oFirst), "50(12(121,122),1(6,11,7,8,13,9),2)");
    ASSERT_TRUE(TreePruneAllChildren(target));
    EXPECT_NE(add(target, 51, 1), nullptr); // a new last child after the pruning
    EXPECT_EQ(shape(other->oFirst), "50(51)");
    ObjReleaseInternal(&other);
}

struct Visits {
    std::vector<std::string> seen;
    int32_t pruneAt = -1, skipAt = -1, abortAt = -1;
};
int32_t visit(void *cookie, TREENODE *node) {
    auto &v = *static_cast<Visits *>(cookie);
    v.seen.push_back(std::to_string(valueOf(node)));
    const int32_t value = valueOf(node);
    return value == v.pruneAt ? eTreeWalkPrune : value == v.skipAt ? eTreeWalkSkip : value == v.abortAt ? eTreeWalkAbort : eTreeWalkContinue;
}
int32_t visitWithDepth(void *cookie, TREENODE *node, int32_t depth) {
    static_cast<Visits *>(cookie)->seen.push_back(std::to_string(valueOf(node)) + "@" + std::to_string(depth));
    return eTreeWalkContinue;
}
std::string joined(const Visits &v) {
    std::string text;
    for (const std::string &s : v.seen) text += (text.empty() ? "" : " ") + s;
    return text;
}

TEST_F(TreeTest, WalksVisitEachNodeOnceInTheirOrder) {
    TREE *tree = sample();
    const struct {
        const char *name;
        std::function<BOOL(Visits &)> walk;
        std::string expected;
    } cases[] = {
        {"pre-order", [&](Visits &v) { return TreeWalk(tree, visit, &v, FALSE); }, "1 11 12 121 13 2"},
        {"open only", [&](Visits &v) { TreeNodeClose(tree->oFirst->oFirstChild->oNextSibling);
                                         const BOOL r = TreeWalk(tree, visit, &v, TRUE);
                                         TreeNodeOpen(tree->oFirst->oFirstChild->oNextSibling); return r; }, "1 11 12 13 2"},
        {"skip", [&](Visits &v) { v.skipAt = 12; return TreeWalk(tree, visit, &v, FALSE); }, "1 11 12 13 2"},
        {"from the middle", [&](Visits &v) { return TreeWalkFromNode(tree->oFirst->oLastChild->oPreviousSibling, visit, &v, FALSE); }, "12 121 13 2"},
        {"branch", [&](Visits &v) { return TreeWalkBranch(tree->oFirst, visit, &v, FALSE); }, "1 11 12 121 13"},
        {"post-order", [&](Visits &v) { return TreeWalkPostOrder(tree, visit, &v); }, "11 121 12 13 1 2"},
        {"up", [&](Visits &v) { return TreeWalkUpFromNode(tree->oFirst->oFirstChild->oNextSibling->oFirstChild, visit, &v); }, "121 12 1"},
        {"depth", [&](Visits &v) { return TreeWalkWithDepth(tree, visitWithDepth, &v, FALSE); }, "1@0 11@1 12@1 121@2 13@1 2@0"},
    };
    for (const auto &c : cases) {
        Visits v;
        EXPECT_TRUE(c.walk(v)) << c.name;
        EXPECT_EQ(joined(v), c.expected) << c.name;
    }
    Visits aborted;
    aborted.abortAt = 121;
    EXPECT_FALSE(TreeWalk(tree, visit, &aborted, FALSE));
    EXPECT_EQ(joined(aborted), "1 11 12 121");
    EXPECT_FALSE(TreeWalkBranch(tree->oFirst, visit, &aborted, FALSE));
    EXPECT_TRUE(traced("TREE", 2, "Failed to walk child branch"));

    // Pruning goes on at the node that followed the branch.
    Visits pruned;
    pruned.pruneAt = 12;
    EXPECT_TRUE(TreeWalk(tree, visit, &pruned, FALSE));
    EXPECT_EQ(joined(pruned), "1 11 12 13 2");
    EXPECT_EQ(shape(tree->oFirst), "1(11,13),2");
    ObjReleaseInternal(&tree);
}

TEST_F(TreeTest, SteppingAndBinning) {
    TREE *tree = sample();
    TREENODE *node = nullptr, *last = tree->oLast;
    EXPECT_FALSE(TreeNextNode(&node, last, FALSE));
    EXPECT_EQ(node, nullptr);
    TreeNodeClose(tree->oFirst);
    ASSERT_TRUE(TreeNextNode(&node, tree->oFirst, TRUE));
    EXPECT_EQ(node, last); // a closed node's children are passed over
    int32_t depth = 2;
    ASSERT_TRUE(TreeNextNodeWithDepth(&node, tree->oFirst->oFirstChild->oNextSibling->oFirstChild, FALSE, &depth));
    EXPECT_EQ(valueOf(node), 13);
    EXPECT_EQ(depth, 1);
    ASSERT_TRUE(TreePrevNode(&node, last, FALSE));
    EXPECT_EQ(valueOf(node), 13);
    EXPECT_FALSE(TreePrevNode(&node, tree->oFirst, FALSE));

    std::vector<int32_t> order;
    for (TREENODE *n = tree->oFirst; n != nullptr;) {
        order.push_back(valueOf(n));
        if (!TreeNextNodeAndBin(&n, n, FALSE)) break;
    }
    EXPECT_EQ(order, (std::vector<int32_t>{1, 11, 12, 121, 13, 2}));
    EXPECT_EQ(tree->oFirst, nullptr);
    EXPECT_EQ(tree->oLast, nullptr);
    ObjReleaseInternal(&tree);
}

int32_t isValue(void *key, void *item) { return ObjGetInteger(item) == *static_cast<int32_t *>(key) ? 1 : 0; }

TEST_F(TreeTest, CopiesShareItemsAndKeepShape) {
    TREE *tree = sample();
    TREE *copy = nullptr;
    ASSERT_TRUE(TreeFromSubTree(&copy, tree->oFirst));
    EXPECT_EQ(shape(copy->oFirst), shape(tree->oFirst));
    EXPECT_EQ(copy->oFirst->oItem, tree->oFirst->oItem);
    EXPECT_TRUE(copy->oFirst->bOpen);
    ASSERT_TRUE(TreeAddOnlyBranchToRoot(copy, tree->oLast));
    EXPECT_EQ(shape(copy->oFirst), "1(11,12(121),13),2,2");
    ASSERT_TRUE(TreeReplaceBranch(copy->oLast, tree->oFirst->oFirstChild->oNextSibling));
    EXPECT_EQ(shape(copy->oFirst), "1(11,12(121),13),2,12(121)");
    ASSERT_TRUE(TreeReplaceTreeWithTree(copy, tree));
    EXPECT_EQ(shape(copy->oFirst), shape(tree->oFirst));
    ASSERT_TRUE(TreeUpdateNode(copy->oLast, tree->oFirst));
    EXPECT_TRUE(copy->oLast->bOpen);
    EXPECT_FALSE(TreeAddBranchToRoot(copy, nullptr));
    char text[80];
    snprintf(text, sizeof text, "TreeAddBranchToRoot(%p,%p) - bad args", static_cast<void *>(copy), nullptr);
    EXPECT_TRUE(traced("TREE", 78, text));

    int32_t key = 121;
    TREENODE *found = nullptr;
    ASSERT_TRUE(TreeSearch(&found, tree, isValue, &key, FALSE));
    EXPECT_EQ(valueOf(found), 121);
    TreeNodeClose(tree->oFirst);
    EXPECT_FALSE(TreeSearch(&found, tree, isValue, &key, TRUE));
    EXPECT_FALSE(TreeFindNodeInBranch(&found, tree->oFirst->oFirstChild, found->oItem));
    ASSERT_TRUE(TreeFindNode(&found, tree, found->oItem));

    // A deep copy and the byte form keep shape, flags and shared items (lead
    // bytes follow reference counts: the copy that shares the items goes first).
    ObjReleaseInternal(&copy);
    OBJ_STRING *shared = ObjStringNew("shared");
    TreeAddRootItem(shared, tree);
    TreeAddItem(shared, tree->oFirst, 0);
    TreeSetCookie(tree, shared);
    ObjReleaseInternal(&shared);
    void *duplicate = nullptr, *deep = nullptr;
    ASSERT_TRUE(ObjDuplicate(&duplicate, tree));
    EXPECT_TRUE(ObjCompare(duplicate, tree));
    auto *d = static_cast<TREE *>(duplicate);
    EXPECT_EQ(d->oCookie, d->oFirst->oItem);
    EXPECT_EQ(d->oFirst->oFirstChild->oItem, d->oFirst->oItem);
    ASSERT_TRUE(ObjDuplicateInternal(&deep, tree, FALSE));
    EXPECT_EQ(static_cast<TREE *>(deep)->oCookie, nullptr);

    // The object walker sees the tree, its cookie, each node and each item
    // once; releasing a node's item prunes the node.
    std::vector<void *> walked;
    auto record = [](void *cookie, void **slot) -> int32_t {
        static_cast<std::vector<void *> *>(cookie)->push_back(*slot);
        return ObjCheckTypeInternal(*slot, OBJ_INTEGER_MAGIC) && ObjGetInteger(*slot) == 121 ? eObjWalkRelease
                                                                                                  : eObjWalkEnter;
    };
    ASSERT_TRUE(ObjWalk(&duplicate, record, &walked, 0));
    EXPECT_EQ(walked.size(), 1 + 1 + 8 + 6u); // tree, cookie, 8 nodes, 6 distinct items
    EXPECT_EQ(shape(d->oFirst->oNextSibling), "1(11,12,13),2");
    for (void *t : {static_cast<void *>(tree), duplicate, deep}) ObjReleaseInternal(&t);
}

void *millionSiblings(void *) {
    TREE *tree = TreeNewFromPool(nullptr);
    OBJ_INTEGER *item = ObjIntegerNew(0);
    TREENODE *root = TreePushRootItem(&item, tree), *last = nullptr;
    for (int i = 0; i < 1000000; ++i) {
        item = ObjIntegerNew(i);
        last = last == nullptr ? TreePushItem(&item, root, 0) : TreePushItem(&item, last, 3);
    }
    const bool counted = TreeNodeChildCount(root) == 1000000;
    return reinterpret_cast<void *>(counted && ObjReleaseInternal(&tree));
}

// Releasing along the sibling chain by recursion would overflow this stack.
TEST_F(TreeTest, AMillionSiblingsAreReleasedInASmallStack) {
    EXPECT_EQ(runInSmallStack(millionSiblings), reinterpret_cast<void *>(1));
    EXPECT_EQ(ObjGetInstanceCount(TREENODE_MAGIC), 0);
}

} // namespace
