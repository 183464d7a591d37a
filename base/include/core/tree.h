/*
 * tree.h - ordered hierarchies of objects with several roots (TREE).
 *
 * A tree is an object made of TREENODE objects; each node holds one
 * reference on its item. A node owns its first child and its next sibling
 * (and the tree its first root), so releasing a node releases its branch and
 * the siblings behind it; the other links are back links. Each node has an
 * Open flag, so that one walk can cover the whole tree or only what a user
 * has expanded ("open only": do not go below a node that isn't Open).
 *
 * Positions for placing a node relative to a node R: 0 first child of R,
 * 1 last child, 2 just before R, 3 just after R, 4 after R's last sibling,
 * 5 before R's first sibling. Relations of a node for TreeRelativeNode:
 * 0 first child, 1 last child, 2 previous sibling, 3 next sibling, 4 last
 * sibling, 5 first sibling (the node itself when it is that sibling),
 * 6 parent. The siblings of a root are the other roots.
 *
 * Every operation tests its tree or node argument by exact magic and gives
 * its failure value, without a trace, for anything else.
 */
#ifndef FHCORE_TREE_H
#define FHCORE_TREE_H

#include "context.h"
#include "memory.h"
#include "types.h"

FH_BEGIN_DECLS

#define TREE_MAGIC 0xC8A2F9A1u
#define TREENODE_MAGIC 0xC8A2F9B6u
#define TREE_FORMAT "o;o;l;"
#define TREENODE_FORMAT "o;l;l;o;l;o;b;l;"

typedef struct TREENODE TREENODE;

typedef struct TREE {
    TREENODE *oFirst; /* the first root; the others hang on its sibling links */
    void *oCookie;    /* an object of the whole tree, or null */
    TREENODE *oLast;  /* the last root */
} TREE;

struct TREENODE {
    void *oItem;                /* one reference */
    TREE *oTree;
    TREENODE *oParent;          /* null for a root */
    TREENODE *oNextSibling;     /* holds the rest of the chain */
    TREENODE *oPreviousSibling;
    TREENODE *oFirstChild;      /* holds the children */
    BOOL bOpen;
    TREENODE *oLastChild;
};

/* Walk callbacks: cookie and node (and depth), answering one of these. */
enum TreeWalkResult {
    eTreeWalkAbort = 0,      /* end the walk */
    eTreeWalkContinue = 1,   /* go on */
    eTreeWalkSkip = 2,       /* go on without the node's descendants */
    eTreeWalkPrune = 3       /* the same, and delete the node with them */
};
typedef int32_t (*TreeWalkFunction)(void *cookie, TREENODE *node);
typedef int32_t (*TreeWalkWithDepthFunction)(void *cookie, TREENODE *node, int32_t depth);
/* Searches: key and item; exactly 1 is a hit. */
typedef int32_t (*TreeSearchFunction)(void *key, void *item);

/* A new empty tree from pool. FALSE (traced) for a null out. */
FHAPI BOOL TreeCreateFromPool(TREE **out, MemPool *pool);
FHAPI TREE *TreeNewFromPool(MemPool *pool);

/* A new node in front of the roots, with Open FALSE, taking a new reference
 * on item (Push: taking over the caller's and clearing the variable). */
FHAPI TREENODE *TreeAddRootItem(void *item, TREE *tree);
FHAPI TREENODE *TreePushRootItem(void *itemVariable, TREE *tree);

/* A new node at position relative to node, as above. Null for a position
 * outside 0 to 5. */
FHAPI TREENODE *TreeAddItem(void *item, TREENODE *node, int32_t position);
FHAPI TREENODE *TreePushItem(void *itemVariable, TREENODE *node, int32_t position);

/* Replaces the cookie with a new reference on cookie (null clears it). */
FHAPI BOOL TreeSetCookie(TREE *tree, void *cookie);

/* Copies node, the siblings behind it (not for the Only form) and all their
 * descendants behind the first root, each behind the one before, or as the
 * first roots of an empty tree. Items are shared, with a new reference
 * each. Bad arguments are a caller's fault. */
FHAPI BOOL TreeAddBranchToRoot(TREE *tree, TREENODE *node);
FHAPI BOOL TreeAddOnlyBranchToRoot(TREE *tree, TREENODE *node);

/* A new tree in *out with a copy of node and the siblings behind it, if node
 * is a node. */
FHAPI BOOL TreeFromSubTree(TREE **out, TREENODE *node);

/* Unhooks node with its descendants and places it at position relative to
 * target, in this tree or another. FALSE, with nothing changed, for a
 * position outside 0 to 5 or a target inside the branch. The Internal form
 * leaves out the type tests. */
FHAPI BOOL TreeMoveBranch(TREENODE *node, TREENODE *target, int32_t position);
FHAPI BOOL TreeMoveBranchInternal(TREENODE *node, TREENODE *target, int32_t position);

/* Moves every root of *treeAddress to the last child position of target,
 * then releases that tree. FALSE, nothing moved, for a target in that tree. */
FHAPI BOOL TreeMove(TREENODE *target, TREE **treeAddress);

/* Item and Open of node from source; the item with a new reference. */
FHAPI BOOL TreeUpdateNode(TREENODE *node, const TREENODE *source);

/* Replaces node's item with a new reference on item. */
FHAPI BOOL TreeReplaceObject(TREENODE *node, void *item);

/* Releases node's children and item, then makes it a copy of source and its
 * descendants (items shared). When source is not a node, node is removed
 * and the result is FALSE. */
FHAPI BOOL TreeReplaceBranch(TREENODE *node, const TREENODE *source);
FHAPI BOOL TreeReplaceBranchWithTree(TREENODE *node, const TREE *tree);

/* Empties tree, then copies every root of other in order (none for null). */
FHAPI BOOL TreeReplaceTreeWithTree(TREE *tree, const TREE *other);

/* Unhooks node and releases it with its descendants. */
FHAPI BOOL TreePruneBranch(TREENODE *node);
/* Releases all children of node. */
FHAPI BOOL TreePruneAllChildren(TREENODE *node);
/* Prunes all roots; the cookie stays. */
FHAPI BOOL TreeDeleteContents(TREE *tree);

/* The first root, its item (no new reference), and a node's tree. */
FHAPI TREENODE *TreeFirstNode(const TREE *tree);
FHAPI void *TreeFirstObject(const TREE *tree);
FHAPI TREE *TreeFromNode(const TREENODE *node);

/* The node in relation to node (see above); null for a relation above 6. */
FHAPI TREENODE *TreeRelativeNode(const TREENODE *node, int32_t relation);

/* The next or previous sibling in *out; FALSE when there is none. */
FHAPI BOOL TreeNextSibling(TREENODE **out, const TREENODE *node);
FHAPI BOOL TreePrevSibling(TREENODE **out, const TREENODE *node);

/* TRUE when node has a first child (and, with openOnly, is Open). */
FHAPI BOOL TreeNodeHasChildren(const TREENODE *node, BOOL openOnly);
FHAPI BOOL TreeNodeHasParent(const TREENODE *node);
/* Children of node; -1 for something other than a node. */
FHAPI int32_t TreeNodeChildCount(const TREENODE *node);
/* The child at position (from 1) in *out, when out is given. */
FHAPI BOOL TreeNodeNthChild(TREENODE **out, const TREENODE *node, int32_t position);
/* 1 for a root; 0 for something other than a node. */
FHAPI int32_t TreeDepthOfNode(const TREENODE *node);

FHAPI BOOL TreeNodeOpen(TREENODE *node);
FHAPI BOOL TreeNodeClose(TREENODE *node);
FHAPI BOOL TreeNodeToggleOpen(TREENODE *node);

/* The next node in pre-order in *out (null and FALSE at the end); the With
 * Depth form keeps *depth (+1 into a child, -1 per level climbed); the
 * AndBin form deletes the node and every parent the step climbs out of, so
 * that a loop with it empties the tree (at the end *out is left alone). */
FHAPI BOOL TreeNextNode(TREENODE **out, TREENODE *node, BOOL openOnly);
FHAPI BOOL TreeNextNodeWithDepth(TREENODE **out, TREENODE *node, BOOL openOnly, int32_t *depth);
FHAPI BOOL TreeNextNodeAndBin(TREENODE **out, TREENODE *node, BOOL openOnly);

/* The deepest last descendant of the previous sibling (within openOnly);
 * null and FALSE when there is no previous sibling. */
FHAPI BOOL TreePrevNode(TREENODE **out, TREENODE *node, BOOL openOnly);

/* Pre-order walks to the end of the tree (from the first root, or from node
 * on, which also covers the nodes behind its branch); TRUE unless the last
 * callback gave eTreeWalkAbort. With depth, the first root has depth 0. */
FHAPI BOOL TreeWalk(TREE *tree, TreeWalkFunction callback, void *cookie, BOOL openOnly);
FHAPI BOOL TreeWalkFromNode(TREENODE *node, TreeWalkFunction callback, void *cookie, BOOL openOnly);
FHAPI BOOL TreeWalkWithDepth(TREE *tree, TreeWalkWithDepthFunction callback, void *cookie, BOOL openOnly);
FHAPI BOOL TreeWalkFromNodeWithDepth(TREENODE *node, int32_t depth, TreeWalkWithDepthFunction callback,
                                     void *cookie, BOOL openOnly);

/* Pre-order over node and its descendants only (recursive down the depth). */
FHAPI BOOL TreeWalkBranch(TREENODE *node, TreeWalkFunction callback, void *cookie, BOOL openOnly);

/* Children before their parent, root by root, or for one branch. */
FHAPI BOOL TreeWalkPostOrder(TREE *tree, TreeWalkFunction callback, void *cookie);
FHAPI BOOL TreeWalkBranchPostOrder(TREENODE *node, TreeWalkFunction callback, void *cookie);

/* From node up through its parents; FALSE at a result other than 1. */
FHAPI BOOL TreeWalkUpFromNode(TREENODE *node, TreeWalkFunction callback, void *cookie);

/* The first node in pre-order whose item the comparison gives 1 for, in
 * *out when out is given: from the first root, from node on, or in node's
 * branch. */
FHAPI BOOL TreeSearch(TREENODE **out, TREE *tree, TreeSearchFunction compare, void *key, BOOL openOnly);
FHAPI BOOL TreeSearchFromNode(TREENODE **out, TREENODE *node, TreeSearchFunction compare, void *key, BOOL openOnly);
FHAPI BOOL TreeSearchBranch(TREENODE **out, TREENODE *node, TreeSearchFunction compare, void *key, BOOL openOnly);

/* The first node whose item is this very pointer, in *out (not null). */
FHAPI BOOL TreeFindNode(TREENODE **out, TREE *tree, const void *item);
FHAPI BOOL TreeFindNodeFromNode(TREENODE **out, TREENODE *node, const void *item);
FHAPI BOOL TreeFindNodeInBranch(TREENODE **out, TREENODE *node, const void *item);

/* The module's part of the context ladder. */
FHAPI BOOL TreeInitialize(void);
FHAPI BOOL TreeInitializeThread(void);
FHAPI void TreeReleaseThread(LmContext *context);
FHAPI void TreeCleanup(void);

FH_END_DECLS

#endif /* FHCORE_TREE_H */
