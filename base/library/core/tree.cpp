// tree.cpp - ordered hierarchies of objects with several roots.
//
// Ownership follows the object format: a tree owns its first root, a node
// owns its first child and its next sibling; Last, LastChild, Parent and
// PreviousSibling are back links. So the reference to a node sits in its
// "owner slot" (the previous sibling's NextSibling, else the parent's
// FirstChild, else the tree's First), and every change of shape is made
// through three primitives that keep those slots and the back links right:
// unhook (take a node with its branch out, its reference passing to the
// caller), insertBefore and insertAfter (the caller's reference passing into
// the chain). Placing at a position, moving, pruning and copying are thin
// over them. Releasing a node releases its branch and the siblings behind
// it without recursion (the object core releases chains in a loop).
//
// Walks step in pre-order with one function, nextNode, which is told
// whether it may go into the children and where the walk is confined.
#include "core/tree.h"

#include <cstring>

#include "core/context.h"
#include "core/memory.h"
#include "core/object.h"
#include "core/objwalk.h"
#include "objcontainer.h"
#include "objcore.h"
#include "tracer.h"

namespace {

constexpr fh::ModuleTracer trace{"TREE        "};

enum TraceId : int32_t {
    kIdCreateNull = 1,
    kIdChildBranchFailed = 2,
    kIdAbort = 7,
    kIdPrune = 8,
    kIdPruneBranch = 9,
    kIdAddBranchArgs = 78,
    kIdAddOnlyBranchArgs = 79,
};

extern const fh::ContainerOperations kTreeOperations; // below
constinit fh::ObjectType<TREE> gTreeType{TREE_MAGIC, TREE_FORMAT, &kTreeOperations};
constinit fh::ObjectType<TREENODE> gNodeType{TREENODE_MAGIC, TREENODE_FORMAT};

MemPool *gPool = nullptr;
MemPool *pool() {
    if (gPool == nullptr) gPool = MemGetDefaultPoolId();
    return gPool;
}

inline bool isTree(const void *p) { return p != nullptr && fh::startMagic(p) == TREE_MAGIC; }
inline bool isNode(const void *p) { return p != nullptr && fh::startMagic(p) == TREENODE_MAGIC; }

// Holds item (whose reference passes to the node).
TREENODE *newNode(void *item, MemPool *from) {
    auto *node = gNodeType.newInstance(from);
    node->oItem = item;
    return node;
}

TREENODE *&ownerSlot(TREENODE *n) {
    return n->oPreviousSibling != nullptr ? n->oPreviousSibling->oNextSibling
           : n->oParent != nullptr        ? n->oParent->oFirstChild
                                          : n->oTree->oFirst;
}
TREENODE *&lastSlot(TREENODE *n) { return n->oParent != nullptr ? n->oParent->oLastChild : n->oTree->oLast; }
TREENODE *firstSibling(TREENODE *n) { return n->oParent != nullptr ? n->oParent->oFirstChild : n->oTree->oFirst; }
TREENODE *lastSibling(TREENODE *n) { return lastSlot(n); }

// Takes n with its branch out of its chain; the reference its owner slot
// held passes to the caller.
void unhook(TREENODE *n) {
    TREENODE *next = n->oNextSibling;
    ownerSlot(n) = next;
    if (next != nullptr)
        next->oPreviousSibling = n->oPreviousSibling;
    else
        lastSlot(n) = n->oPreviousSibling;
    n->oNextSibling = n->oPreviousSibling = n->oParent = nullptr;
}

void insertBefore(TREENODE *s, TREENODE *n) {
    n->oParent = s->oParent;
    n->oTree = s->oTree;
    n->oPreviousSibling = s->oPreviousSibling;
    TREENODE *&owner = ownerSlot(s);
    n->oNextSibling = owner; // the reference on s moves into n
    owner = n;
    s->oPreviousSibling = n;
}

void insertAfter(TREENODE *s, TREENODE *n) {
    n->oParent = s->oParent;
    n->oTree = s->oTree;
    n->oPreviousSibling = s;
    n->oNextSibling = s->oNextSibling;
    s->oNextSibling = n;
    if (n->oNextSibling != nullptr)
        n->oNextSibling->oPreviousSibling = n;
    else
        lastSlot(n) = n;
}

void onlyChild(TREENODE *parent, TREENODE *n) {
    n->oParent = parent;
    n->oTree = parent->oTree;
    parent->oFirstChild = parent->oLastChild = n;
}

void addRoot(TREE *tree, TREENODE *n, bool last) {
    if (tree->oFirst == nullptr) {
        n->oTree = tree;
        tree->oFirst = tree->oLast = n;
    } else if (last) {
        insertAfter(tree->oLast, n);
    } else {
        insertBefore(tree->oFirst, n);
    }
}

// Places n (whose reference passes into the tree) at position relative to r.
bool place(TREENODE *n, TREENODE *r, int32_t position) {
    switch (position) {
    case 0: r->oFirstChild != nullptr ? insertBefore(r->oFirstChild, n) : onlyChild(r, n); return true;
    case 1: r->oLastChild != nullptr ? insertAfter(r->oLastChild, n) : onlyChild(r, n); return true;
    case 2: insertBefore(r, n); return true;
    case 3: insertAfter(r, n); return true;
    case 4: insertAfter(lastSibling(r), n); return true;
    case 5: insertBefore(firstSibling(r), n); return true;
    default: return false;
    }
}

// Releases a node that is out of every chain, with its branch.
void release(TREENODE *n) { ObjReleaseInternal(&n); }

void prune(TREENODE *n) {
    unhook(n);
    release(n);
}

// Releases a whole chain held by slot (and clears last).
void releaseChain(TREENODE *&first, TREENODE *&last) {
    TREENODE *chain = first;
    first = last = nullptr;
    if (chain != nullptr) ObjReleaseInternal(&chain);
}

// The next node in pre-order, into the children when allowed, never
// climbing out of stop (null: the whole tree).
TREENODE *nextNode(const TREENODE *x, bool intoChildren, const TREENODE *stop = nullptr, int32_t *depth = nullptr) {
    if (intoChildren && x->oFirstChild != nullptr) {
        if (depth != nullptr) ++*depth;
        return x->oFirstChild;
    }
    for (const TREENODE *n = x; n != nullptr && n != stop; n = n->oParent) {
        if (n->oNextSibling != nullptr) return n->oNextSibling;
        if (depth != nullptr) --*depth;
    }
    return nullptr;
}

inline bool mayEnter(const TREENODE *n, bool openOnly) { return !openOnly || n->bOpen; }

// A copy of source and its descendants (items shared) for tree; recursion
// only down the depth.
TREENODE *copyBranch(const TREENODE *source, TREE *tree, MemPool *from) {
    if (source->oItem != nullptr) ObjIncRefCount(source->oItem);
    TREENODE *copy = newNode(source->oItem, from);
    copy->oTree = tree;
    copy->bOpen = source->bOpen;
    for (const TREENODE *child = source->oFirstChild; child != nullptr; child = child->oNextSibling) {
        TREENODE *c = copyBranch(child, tree, from);
        copy->oLastChild != nullptr ? insertAfter(copy->oLastChild, c) : onlyChild(copy, c);
    }
    return copy;
}

// Copies node (and the siblings behind it when all) behind the first root.
void addBranches(TREE *tree, const TREENODE *node, bool all) {
    TREENODE *after = tree->oFirst;
    for (const TREENODE *s = node; s != nullptr; s = all ? s->oNextSibling : nullptr) {
        TREENODE *copy = copyBranch(s, tree, fh::objectPool(tree));
        after != nullptr ? insertAfter(after, copy) : addRoot(tree, copy, false);
        after = copy;
    }
}

// The two exported forms of addBranches, which check their arguments.
BOOL addBranchesChecked(TREE *tree, TREENODE *node, bool all) {
    if (!isTree(tree) || !isNode(node)) {
        return trace.fault(FALSE, all ? kIdAddBranchArgs : kIdAddOnlyBranchArgs, 0, "%s(%p,%p) - bad args",
              all ? "TreeAddBranchToRoot" : "TreeAddOnlyBranchToRoot", static_cast<void *>(tree),
              static_cast<void *>(node));
    }
    addBranches(tree, node, all);
    return TRUE;
}

void setTree(TREENODE *branch, TREE *tree) {
    branch->oTree = tree;
    for (TREENODE *n = branch->oFirstChild; n != nullptr; n = nextNode(n, true, branch)) n->oTree = tree;
}

bool inBranch(const TREENODE *n, const TREENODE *branch) {
    for (; n != nullptr; n = n->oParent)
        if (n == branch) return true;
    return false;
}

// Pre-order from node to the end of the tree (or of stop's branch), the
// callback steering as the walk results say.
template <typename Visit> BOOL walkFrom(TREENODE *node, bool openOnly, int32_t depth, Visit visit) {
    for (TREENODE *x = node; x != nullptr;) {
        const int32_t result = visit(x, depth);
        if (result == eTreeWalkAbort) return FALSE;
        const bool enter = result != eTreeWalkSkip && result != eTreeWalkPrune && mayEnter(x, openOnly);
        TREENODE *next = nextNode(x, enter, nullptr, &depth);
        if (result == eTreeWalkPrune) prune(x);
        x = next;
    }
    return TRUE;
}

BOOL walkBranch(TREENODE *node, TreeWalkFunction callback, void *cookie, bool openOnly) {
    switch (callback(cookie, node)) {
    case eTreeWalkAbort: trace(kIdAbort, 0, 3, "Been told to abort"); return FALSE;
    case eTreeWalkSkip: trace(kIdPrune, 0, 3, "Been told to prune"); return TRUE;
    case eTreeWalkPrune:
        trace(kIdPruneBranch, 0, 3, "Been told to prune branch");
        prune(node);
        return TRUE;
    case eTreeWalkContinue: break;
    default: return FALSE;
    }
    if (!mayEnter(node, openOnly)) return TRUE;
    for (TREENODE *child = node->oFirstChild, *next = nullptr; child != nullptr; child = next) {
        next = child->oNextSibling;
        if (!walkBranch(child, callback, cookie, openOnly)) {
            trace(kIdChildBranchFailed, 1, 2, "Failed to walk child branch");
            return FALSE;
        }
    }
    return TRUE;
}

// Children first, then the node: false when a callback said abort.
bool postOrder(TREENODE *node, TreeWalkFunction callback, void *cookie) {
    for (TREENODE *child = node->oFirstChild, *next = nullptr; child != nullptr; child = next) {
        next = child->oNextSibling;
        if (!postOrder(child, callback, cookie)) return false;
    }
    const int32_t result = callback(cookie, node);
    if (result == eTreeWalkAbort) return false;
    if (result == eTreeWalkPrune) prune(node);
    return true;
}

// The first node from node on (within stop's branch when stop is given)
// that matches.
template <typename Match> BOOL findFrom(TREENODE **out, TREENODE *node, bool openOnly, const TREENODE *stop, Match match) {
    for (TREENODE *x = node; x != nullptr; x = nextNode(x, mayEnter(x, openOnly), stop)) {
        if (match(x)) {
            if (out != nullptr) *out = x;
            return TRUE;
        }
    }
    return FALSE;
}

TREENODE *addItem(void *item, TREENODE *node, int32_t position) {
    if (!isNode(node) || position < 0 || position > 5) return nullptr;
    TREENODE *n = newNode(item, fh::objectPool(node));
    place(n, node, position);
    return n;
}

TREENODE *addRootItem(void *item, TREE *tree) {
    TREENODE *n = newNode(item, fh::objectPool(tree));
    addRoot(tree, n, false);
    return n;
}

// Takes the reference out of the caller's variable.
void *takeOver(void *variable) {
    void **slot = static_cast<void **>(variable);
    void *item = *slot;
    *slot = nullptr;
    return item;
}

void *shared(void *item) {
    if (item != nullptr) ObjIncRefCount(item);
    return item;
}

// ---- The tree as a container of the object core, the byte form and the walker

// The traces of the byte form stand under the object module's tag.
constexpr fh::ModuleTracer traceObject{"OBJECT        "};

void copyBranch(fh::ObjectCopier &copier, const TREENODE *from, TREENODE *to) {
    to->bOpen = from->bOpen;
    for (const TREENODE *child = from->oFirstChild; child != nullptr; child = child->oNextSibling) {
        void *item = copier.copy(child->oItem);
        copyBranch(copier, child, TreePushItem(&item, to, 1));
    }
}

// A copy holds the nodes with copies of their items; not the cookie.
void copyTree(fh::ObjectCopier &copier, const void *from, void *to) {
    TREENODE *last = nullptr;
    for (const TREENODE *root = static_cast<const TREE *>(from)->oFirst; root != nullptr; root = root->oNextSibling) {
        void *item = copier.copy(root->oItem);
        last = last != nullptr ? TreePushItem(&item, last, 3) : TreePushRootItem(&item, static_cast<TREE *>(to));
        copyBranch(copier, root, last);
    }
}

// A chain of tree nodes: for each node 1, its Open flag, its item and the
// chain of its children; 0 closes the chain. Recursion goes down the depth.
bool writeChain(fh::ObjectWriter &w, const TREENODE *first) {
    for (const TREENODE *node = first; node != nullptr; node = node->oNextSibling)
        if (!w.byte(1) || !w.byte(node->bOpen ? 1 : 0) || !w.object(node->oItem) || !writeChain(w, node->oFirstChild))
            return false;
    return w.byte(0);
}

// The byte form: the cookie, the chain of roots, and TREE_MAGIC again.
bool writeTree(fh::ObjectWriter &w, const void *container) {
    const auto *tree = static_cast<const TREE *>(container);
    return w.object(tree->oCookie) && writeChain(w, tree->oFirst) && w.u32(TREE_MAGIC);
}

// The chain of children of parent (or the roots, for a null parent).
bool readChain(fh::ObjectReader &r, TREE *tree, TREENODE *parent) {
    if (!r.enter(parent != nullptr ? static_cast<void *>(parent) : tree)) return false;
    const size_t nodeBytes = r.instanceBytes(TREENODE_MAGIC);
    bool ok = true;
    for (TREENODE *last = nullptr;;) {
        uint8_t present = 0, open = 0;
        if (!r.byte(present)) {
            ok = false;
            break;
        }
        if (present == 0) break;
        void *item = nullptr;
        if (!r.byte(open) || !r.object(&item) || !r.charge(nodeBytes)) {
            ObjReleaseInternal(&item);
            ok = false;
            break;
        }
        last = last != nullptr      ? TreePushItem(&item, last, 3)
               : parent != nullptr ? TreePushItem(&item, parent, 0)
                                   : TreePushRootItem(&item, tree);
        last->bOpen = open != 0 ? TRUE : FALSE;
        if (!readChain(r, tree, last)) {
            ok = false;
            break;
        }
    }
    r.leave();
    return ok;
}

bool readTree(fh::ObjectReader &r, int32_t id, void **out) {
    if (!r.charge(r.instanceBytes(TREE_MAGIC))) return false;
    TREE *tree = TreeNewFromPool(pool());
    void *cookie = nullptr;
    uint32_t end = 0;
    const bool entered = r.remember(id, tree) && r.enter(tree);
    bool ok = entered && r.object(&cookie);
    if (ok) {
        TreeSetCookie(tree, cookie);
        ObjReleaseInternal(&cookie);
        ok = readChain(r, tree, nullptr);
    }
    if (entered) r.leave();
    if (ok && (!r.u32(end) || end != TREE_MAGIC)) {
        traceObject(45, 1, -1, "Synchronisation failure");
        ok = false;
    }
    return r.settle(ok, id, tree, out);
}

// The walk of a chain: each node and its item, then its children.
int32_t walkChain(fh::ObjectVisitor &v, TREENODE *first) {
    using Step = fh::ObjectVisitor::NodeStep;
    for (TREENODE *node = first, *next = nullptr; node != nullptr; node = next) {
        next = node->oNextSibling;
        const fh::ObjectVisitor::NodeResult visited =
            v.node(node, &node->oItem, 123, "Not allowed to modify TreeNodeO objects");
        if (visited.step == Step::kStop) return visited.result;
        if (visited.step == Step::kRemove) {
            TreePruneBranch(node);
        } else if (visited.step == Step::kDescend) {
            if (const int32_t children = walkChain(v, node->oFirstChild); children != eObjWalkEnter) return children;
        }
    }
    return eObjWalkEnter;
}

// The walk: the cookie, then the chain of roots.
int32_t walkTree(fh::ObjectVisitor &v, void *container) {
    auto *tree = static_cast<TREE *>(container);
    if (const int32_t cookie = v.slot(&tree->oCookie); cookie != eObjWalkEnter) return cookie;
    return walkChain(v, tree->oFirst);
}

const fh::ContainerOperations kTreeOperations{copyTree, writeTree, readTree, walkTree, nullptr};

} // namespace

BOOL TreeCreateFromPool(TREE **out, MemPool *from) {
    if (out == nullptr) {
        return trace.fault(FALSE, kIdCreateNull, 0, "NULL pointer passed to TreeCreate");
    }
    *out = gTreeType.newInstance(from);
    return TRUE;
}

TREE *TreeNewFromPool(MemPool *from) {
    TREE *tree = nullptr;
    TreeCreateFromPool(&tree, from);
    return tree;
}

TREENODE *TreeAddRootItem(void *item, TREE *tree) { return isTree(tree) ? addRootItem(shared(item), tree) : nullptr; }

TREENODE *TreePushRootItem(void *itemVariable, TREE *tree) {
    return isTree(tree) && itemVariable != nullptr ? addRootItem(takeOver(itemVariable), tree) : nullptr;
}

TREENODE *TreeAddItem(void *item, TREENODE *node, int32_t position) {
    TREENODE *n = addItem(item, node, position);
    if (n != nullptr) shared(item);
    return n;
}

TREENODE *TreePushItem(void *itemVariable, TREENODE *node, int32_t position) {
    if (itemVariable == nullptr) return nullptr;
    TREENODE *n = addItem(*static_cast<void **>(itemVariable), node, position);
    if (n != nullptr) takeOver(itemVariable);
    return n;
}

BOOL TreeSetCookie(TREE *tree, void *cookie) {
    if (!isTree(tree) || (cookie != nullptr && !ObjHasValidGlobalMagic(cookie))) return FALSE;
    shared(cookie);
    if (tree->oCookie != nullptr) ObjReleaseInternal(&tree->oCookie);
    tree->oCookie = cookie;
    return TRUE;
}

BOOL TreeAddBranchToRoot(TREE *tree, TREENODE *node) { return addBranchesChecked(tree, node, true); }
BOOL TreeAddOnlyBranchToRoot(TREE *tree, TREENODE *node) { return addBranchesChecked(tree, node, false); }

BOOL TreeFromSubTree(TREE **out, TREENODE *node) {
    if (!TreeCreateFromPool(out, pool())) return FALSE;
    if (isNode(node)) addBranches(*out, node, true);
    return TRUE;
}

BOOL TreeMoveBranchInternal(TREENODE *node, TREENODE *target, int32_t position) {
    if (position < 0 || position > 5 || inBranch(target, node)) return FALSE;
    unhook(node);
    setTree(node, target->oTree);
    return place(node, target, position);
}

BOOL TreeMoveBranch(TREENODE *node, TREENODE *target, int32_t position) {
    return isNode(node) && isNode(target) && TreeMoveBranchInternal(node, target, position);
}

BOOL TreeMove(TREENODE *target, TREE **treeAddress) {
    if (!isNode(target) || treeAddress == nullptr || !isTree(*treeAddress)) return FALSE;
    TREE *tree = *treeAddress;
    if (target->oTree == tree) return FALSE; // into itself
    while (tree->oFirst != nullptr) TreeMoveBranchInternal(tree->oFirst, target, 1);
    return ObjReleaseInternal(treeAddress);
}

BOOL TreeUpdateNode(TREENODE *node, const TREENODE *source) {
    if (!isNode(node) || !isNode(source) || !TreeReplaceObject(node, source->oItem)) return FALSE;
    node->bOpen = source->bOpen;
    return TRUE;
}

BOOL TreeReplaceObject(TREENODE *node, void *item) {
    if (!isNode(node)) return FALSE;
    shared(item);
    if (node->oItem != nullptr) ObjReleaseInternal(&node->oItem);
    node->oItem = item;
    return TRUE;
}

BOOL TreeReplaceBranch(TREENODE *node, const TREENODE *source) {
    if (!isNode(node)) return FALSE;
    if (!isNode(source)) {
        prune(node);
        return FALSE;
    }
    TreePruneAllChildren(node);
    TreeUpdateNode(node, source);
    for (const TREENODE *child = source->oFirstChild; child != nullptr; child = child->oNextSibling)
        place(copyBranch(child, node->oTree, fh::objectPool(node)), node, 1);
    return TRUE;
}

BOOL TreeReplaceBranchWithTree(TREENODE *node, const TREE *tree) {
    return isTree(tree) && TreeReplaceBranch(node, tree->oFirst);
}

BOOL TreeReplaceTreeWithTree(TREE *tree, const TREE *other) {
    if (!TreeDeleteContents(tree)) return FALSE;
    if (!isTree(other)) return TRUE;
    for (const TREENODE *root = other->oFirst; root != nullptr; root = root->oNextSibling)
        addRoot(tree, copyBranch(root, tree, fh::objectPool(tree)), true);
    return TRUE;
}

BOOL TreePruneBranch(TREENODE *node) {
    if (!isNode(node)) return FALSE;
    prune(node);
    return TRUE;
}

BOOL TreePruneAllChildren(TREENODE *node) {
    if (!isNode(node)) return FALSE;
    releaseChain(node->oFirstChild, node->oLastChild);
    return TRUE;
}

BOOL TreeDeleteContents(TREE *tree) {
    if (!isTree(tree)) return FALSE;
    releaseChain(tree->oFirst, tree->oLast);
    return TRUE;
}

TREENODE *TreeFirstNode(const TREE *tree) { return isTree(tree) ? tree->oFirst : nullptr; }

void *TreeFirstObject(const TREE *tree) {
    return isTree(tree) && tree->oFirst != nullptr ? tree->oFirst->oItem : nullptr;
}

TREE *TreeFromNode(const TREENODE *node) { return isNode(node) ? node->oTree : nullptr; }

TREENODE *TreeRelativeNode(const TREENODE *node, int32_t relation) {
    if (!isNode(node)) return nullptr;
    auto *n = const_cast<TREENODE *>(node);
    switch (relation) {
    case 0: return n->oFirstChild;
    case 1: return n->oLastChild;
    case 2: return n->oPreviousSibling;
    case 3: return n->oNextSibling;
    case 4: return lastSibling(n);
    case 5: return firstSibling(n);
    case 6: return n->oParent;
    default: return nullptr;
    }
}

BOOL TreeNextSibling(TREENODE **out, const TREENODE *node) {
    if (out == nullptr || !isNode(node) || node->oNextSibling == nullptr) return FALSE;
    *out = node->oNextSibling;
    return TRUE;
}

BOOL TreePrevSibling(TREENODE **out, const TREENODE *node) {
    if (out == nullptr || !isNode(node) || node->oPreviousSibling == nullptr) return FALSE;
    *out = node->oPreviousSibling;
    return TRUE;
}

BOOL TreeNodeHasChildren(const TREENODE *node, BOOL openOnly) {
    return isNode(node) && node->oFirstChild != nullptr && mayEnter(node, openOnly);
}

BOOL TreeNodeHasParent(const TREENODE *node) { return isNode(node) && node->oParent != nullptr; }

int32_t TreeNodeChildCount(const TREENODE *node) {
    if (!isNode(node)) return -1;
    int32_t count = 0;
    for (const TREENODE *c = node->oFirstChild; c != nullptr; c = c->oNextSibling) ++count;
    return count;
}

BOOL TreeNodeNthChild(TREENODE **out, const TREENODE *node, int32_t position) {
    if (!isNode(node) || position < 1) return FALSE;
    TREENODE *c = node->oFirstChild;
    while (c != nullptr && --position > 0) c = c->oNextSibling;
    if (c == nullptr) return FALSE;
    if (out != nullptr) *out = c;
    return TRUE;
}

int32_t TreeDepthOfNode(const TREENODE *node) {
    if (!isNode(node)) return 0;
    int32_t depth = 0;
    for (; node != nullptr; node = node->oParent) ++depth;
    return depth;
}

BOOL TreeNodeOpen(TREENODE *node) { return isNode(node) ? (node->bOpen = TRUE) : FALSE; }
BOOL TreeNodeClose(TREENODE *node) { return isNode(node) ? (node->bOpen = FALSE, TRUE) : FALSE; }
BOOL TreeNodeToggleOpen(TREENODE *node) { return isNode(node) ? (node->bOpen = !node->bOpen, TRUE) : FALSE; }

BOOL TreeNextNode(TREENODE **out, TREENODE *node, BOOL openOnly) {
    if (out == nullptr || !isNode(node)) return FALSE;
    *out = nextNode(node, mayEnter(node, openOnly));
    return *out != nullptr;
}

BOOL TreeNextNodeWithDepth(TREENODE **out, TREENODE *node, BOOL openOnly, int32_t *depth) {
    if (out == nullptr || depth == nullptr || !isNode(node)) return FALSE;
    *out = nextNode(node, mayEnter(node, openOnly), nullptr, depth);
    return *out != nullptr;
}

BOOL TreeNextNodeAndBin(TREENODE **out, TREENODE *node, BOOL openOnly) {
    if (out == nullptr || !isNode(node)) return FALSE;
    if (node->oFirstChild != nullptr && mayEnter(node, openOnly)) {
        *out = node->oFirstChild;
        return TRUE;
    }
    for (TREENODE *n = node; n != nullptr;) {
        TREENODE *parent = n->oParent, *next = n->oNextSibling;
        prune(n);
        if (next != nullptr) {
            *out = next;
            return TRUE;
        }
        n = parent;
    }
    return FALSE;
}

BOOL TreePrevNode(TREENODE **out, TREENODE *node, BOOL openOnly) {
    if (out == nullptr || !isNode(node)) return FALSE;
    TREENODE *p = node->oPreviousSibling;
    while (p != nullptr && p->oLastChild != nullptr && mayEnter(p, openOnly)) p = p->oLastChild;
    *out = p;
    return p != nullptr;
}

BOOL TreeWalk(TREE *tree, TreeWalkFunction callback, void *cookie, BOOL openOnly) {
    return isTree(tree) && TreeWalkFromNode(tree->oFirst, callback, cookie, openOnly);
}

BOOL TreeWalkFromNode(TREENODE *node, TreeWalkFunction callback, void *cookie, BOOL openOnly) {
    if (node == nullptr) return TRUE;
    if (!isNode(node) || callback == nullptr) return FALSE;
    return walkFrom(node, openOnly, 0, [&](TREENODE *x, int32_t) { return callback(cookie, x); });
}

BOOL TreeWalkWithDepth(TREE *tree, TreeWalkWithDepthFunction callback, void *cookie, BOOL openOnly) {
    return isTree(tree) && TreeWalkFromNodeWithDepth(tree->oFirst, 0, callback, cookie, openOnly);
}

BOOL TreeWalkFromNodeWithDepth(TREENODE *node, int32_t depth, TreeWalkWithDepthFunction callback, void *cookie,
                               BOOL openOnly) {
    if (node == nullptr) return TRUE;
    if (!isNode(node) || callback == nullptr) return FALSE;
    return walkFrom(node, openOnly, depth, [&](TREENODE *x, int32_t d) { return callback(cookie, x, d); });
}

BOOL TreeWalkBranch(TREENODE *node, TreeWalkFunction callback, void *cookie, BOOL openOnly) {
    return isNode(node) && callback != nullptr && walkBranch(node, callback, cookie, openOnly);
}

BOOL TreeWalkPostOrder(TREE *tree, TreeWalkFunction callback, void *cookie) {
    if (!isTree(tree) || callback == nullptr) return FALSE;
    for (TREENODE *root = tree->oFirst, *next = nullptr; root != nullptr; root = next) {
        next = root->oNextSibling;
        if (!postOrder(root, callback, cookie)) return FALSE;
    }
    return TRUE;
}

BOOL TreeWalkBranchPostOrder(TREENODE *node, TreeWalkFunction callback, void *cookie) {
    return isNode(node) && callback != nullptr && postOrder(node, callback, cookie);
}

BOOL TreeWalkUpFromNode(TREENODE *node, TreeWalkFunction callback, void *cookie) {
    if (!isNode(node) || callback == nullptr) return FALSE;
    for (TREENODE *n = node; n != nullptr; n = n->oParent)
        if (callback(cookie, n) != eTreeWalkContinue) return FALSE;
    return TRUE;
}

BOOL TreeSearch(TREENODE **out, TREE *tree, TreeSearchFunction compare, void *key, BOOL openOnly) {
    return isTree(tree) && TreeSearchFromNode(out, tree->oFirst, compare, key, openOnly);
}

BOOL TreeSearchFromNode(TREENODE **out, TREENODE *node, TreeSearchFunction compare, void *key, BOOL openOnly) {
    if (!isNode(node) || compare == nullptr) return FALSE;
    return findFrom(out, node, openOnly, nullptr, [&](TREENODE *x) { return compare(key, x->oItem) == 1; });
}

BOOL TreeSearchBranch(TREENODE **out, TREENODE *node, TreeSearchFunction compare, void *key, BOOL openOnly) {
    if (!isNode(node) || compare == nullptr) return FALSE;
    return findFrom(out, node, openOnly, node, [&](TREENODE *x) { return compare(key, x->oItem) == 1; });
}

BOOL TreeFindNode(TREENODE **out, TREE *tree, const void *item) {
    return isTree(tree) && TreeFindNodeFromNode(out, tree->oFirst, item);
}

BOOL TreeFindNodeFromNode(TREENODE **out, TREENODE *node, const void *item) {
    if (out == nullptr || !isNode(node)) return FALSE;
    return findFrom(out, node, false, nullptr, [&](TREENODE *x) { return x->oItem == item; });
}

BOOL TreeFindNodeInBranch(TREENODE **out, TREENODE *node, const void *item) {
    if (out == nullptr || !isNode(node)) return FALSE;
    return findFrom(out, node, false, node, [&](TREENODE *x) { return x->oItem == item; });
}

BOOL TreeInitialize(void) {
    return gTreeType.declare() &&
           gNodeType.declare();
}

BOOL TreeInitializeThread(void) { return TRUE; }
void TreeReleaseThread(LmContext *) {}
void TreeCleanup(void) {}
