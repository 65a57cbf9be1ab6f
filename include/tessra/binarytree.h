/**
 * @file binarytree.h
 * Ordered map from pointers to pointers: a balanced (AVL) tree with parent links, cursors and
 * snapshots.
 *
 *     static int by_name(void* stored, void* wanted) { return strcmp(wanted, stored); }
 *
 *     BinaryTree* ports = BT_create(by_name);
 *     if (BT_insert(ports, "http", &http) < 0) return -1;   // no memory
 *     BinaryTreeEnum* walk = BT_newenum(ports);
 *     for (void* port = BT_next(walk); port; port = BT_next(walk)) use(port);
 *     BT_enumdelete(walk);
 *     BT_delete(ports);
 *
 * Order. The tree calls its comparison as compare(stored key, key looked for). A negative result
 * leads to the left, a positive one to the right, and 0 means that the keys are equal. Keys are
 * unique. A walk goes from left to right. First, last, next and previous refer to this order. Trap:
 * the result of an ordinary comparison such as strcmp() is negative if its first argument is the
 * smaller one. With that, the greatest key is leftmost, and a walk descends. For an ascending walk
 * exchange the arguments, as by_name() does above.
 *
 * The tree stores the two pointers. It neither copies nor frees the objects that they point to. A
 * key must compare the same as long as it is in the tree. NULL may be a key if the comparison can
 * handle it. NULL may be data, but a call that returns data also returns NULL if there is no data.
 *
 * Cursors and node pointers after a change. BT_insert() leaves them valid, and a cursor meets a new
 * entry that is ahead of it. BT_remove(), BT_deletenode() and DeleteLeafNode() invalidate them:
 * entries move between nodes, and the freed node is in general not the one that held the removed
 * entry. After one of these calls, a node pointer obtained earlier must not be used, and a cursor
 * must not go on with BT_next() or BT_previous(). BT_reset(), BT_end() and BT_enumdelete() are
 * safe. A tree must outlive its cursors, except that BT_enumdelete() may follow BT_delete().
 *
 * NULL arguments are allowed only where the description says so. Threads: a tree and its cursors
 * have no lock; the caller must ensure that only one thread at a time uses them. Blocks: never. No
 * function recurses, so the stack needed doesn't depend on the size of the tree. The time to find,
 * insert or remove grows with the logarithm of the number of entries. BT_delete() and the snapshots
 * visit all entries.
 *
 * Exhausted memory: a call that can't allocate sets errno to ENOMEM and changes nothing. Calls that
 * succeed leave errno as it was. For those that free memory, this is true only if the C library's
 * free() leaves errno as it was.
 */
#ifndef TESSRA_BINARYTREE_H
#define TESSRA_BINARYTREE_H

#include "tessra/linkedlist.h"

#ifdef __cplusplus
extern "C" {
#endif

#pragma GCC visibility push(default)

/**
 * Compares the key stored in a node with the key looked for; see Order above. The functions that
 * find, insert and remove call it on the thread of their caller. It must order all keys of the tree
 * consistently and must not change the tree.
 */
typedef int (*BTCompare)(void* stored, void* wanted);

/** An entry of a tree. */
typedef struct BTNodeStruct BinaryTreeNode;

/** One entry: a heap block that the tree owns. Programs may read its fields. */
struct BTNodeStruct {
    void* key;              /**< Compared only by the tree's comparison. */
    void* data;             /**< The data entered under the key. */
    BinaryTreeNode* left;   /**< Left child or NULL. */
    BinaryTreeNode* right;  /**< Right child or NULL. */
    BinaryTreeNode* parent; /**< Parent, or NULL for the root. */
    unsigned int height;    /**< 1 for a leaf, else 1 + the height of the higher child. */
};

/** A tree. The balance of each node, right height minus left height, is -1, 0 or 1. */
typedef struct BinaryTree {
    unsigned int itemcount; /**< Number of entries. */
    BinaryTreeNode* root;   /**< NULL when the tree is empty. */
    BTCompare compare;      /**< As given to BT_create(). */
} BinaryTree;

/** A cursor. It is on a node, or before the first node. */
typedef struct BinaryTreeEnum {
    BinaryTree* tree;        /**< The tree walked. */
    BinaryTreeNode* curnode; /**< The node that the cursor is on; NULL before the first. */
} BinaryTreeEnum;

/**
 * @name Trees
 * @{
 */

/** Returns a new empty tree, which the caller frees with BT_delete(), or NULL with errno ENOMEM. */
BinaryTree* BT_create(BTCompare comparisonfunction);

/** Frees the tree and all its nodes, but no keys or data. Doesn't call the comparison. */
void BT_delete(BinaryTree* todelete);

/**
 * Enters @p data under @p key.
 *
 * Returns 1 if the tree has the new entry. Returns 0 if an equal key is already in the tree, which
 * keeps its data and its own key pointer, or if @p pThis is NULL. Returns -1 with errno ENOMEM and
 * leaves the tree unchanged.
 */
int BT_insert(BinaryTree* pThis, void* key, void* data);

/** Returns the data of the key equal to @p tofind; NULL if there is none or @p pThis is NULL. */
void* BT_find(BinaryTree* pThis, void* tofind);

/**
 * Removes the entry with the key equal to @p toremove and returns its data; NULL if there is none
 * or @p pThis is NULL. Doesn't return the stored key: a caller that must free it reads it before
 * the removal, from the node that findinsertionpoint() returns.
 */
void* BT_remove(BinaryTree* pThis, void* toremove);

/** Removes the entry that @p curnode, a node of @p pThis, holds. */
void BT_deletenode(BinaryTree* pThis, BinaryTreeNode* curnode);

/** Returns the data of the first entry of the walk; NULL for an empty tree. */
void* BT_leftmost(BinaryTree* tree);

/** Returns the data of the last entry of the walk; NULL for an empty tree. */
void* BT_rightmost(BinaryTree* tree);

/** @} */

/**
 * @name Cursors
 * At both ends of the walk they behave as the cursors of linkedlist.h do.
 * @{
 */

/**
 * Returns a new cursor before the first node, which the caller frees with BT_enumdelete(), or NULL
 * with errno ENOMEM.
 */
BinaryTreeEnum* BT_newenum(BinaryTree* oftree);

/**
 * Moves to the next node and returns its data. A cursor before the first node moves to the first.
 * If there is no next node, the cursor doesn't move and the result is NULL.
 *
 * Traps: NULL data ends a loop that tests the result, although the cursor has moved.
 * After a finished walk the cursor is still on the last node, so BT_previous() returns the data of
 * the last node but one.
 */
void* BT_next(BinaryTreeEnum* btenum);

/**
 * Moves to the previous node and returns its data. A cursor on the first node moves before it, and
 * stays there in further calls; the result is NULL. BT_next() then starts with the first node.
 */
void* BT_previous(BinaryTreeEnum* btenum);

/** Moves to the last node and returns its data. In an empty tree, moves before the first node and
 * returns NULL. */
void* BT_end(BinaryTreeEnum* btenum);

/** Moves before the first node. Returns NULL. */
void* BT_reset(BinaryTreeEnum* btenum);

/** Frees the cursor. Doesn't access its tree. */
void BT_enumdelete(BinaryTreeEnum* todelete);

/** @} */

/**
 * @name Snapshots
 * Each call returns a complete snapshot. If memory runs out, it frees the part built so far and
 * returns NULL with errno ENOMEM.
 * @{
 */

/**
 * Returns a new list of all data in the order of the walk, head first. The list of an empty tree is
 * empty. The caller frees the list with LL_delete(). NULL data is in the list as a NULL value.
 */
LinkedList* BT_values(BinaryTree* tree);

/** Returns the keys as BT_values() returns the data. */
LinkedList* BT_keys(BinaryTree* tree);

/**
 * Returns the entries as BT_values() returns the data. Each value of the list is a block of two
 * void*: the key, then the data.
 *
 * Trap: LL_delete() doesn't free the blocks. The caller first takes them out of the list with
 * LL_dequeue() or LL_pop(), and releases each with free().
 */
LinkedList* BT_pairs(BinaryTree* tree);

/**
 * Returns the tree as an array of slots, level by level. A slot is two consecutive void*: slot i
 * has its key at index 2i and its data at 2i+1. The root is in slot 0, the left child of slot i in
 * slot 2i+1 and the right one in slot 2i+2. A slot without an entry holds two NULLs.
 *
 * @param count  receives the number of slots (not of entries, not of pointers); may be NULL
 *
 * The caller releases the array with free(); keys and data stay the caller's. For an empty tree the
 * result is NULL, the number is 0, and errno stays as it was. After a failure the result is NULL,
 * the number is 0, and errno is ENOMEM. More slots than an unsigned int can count are a failure,
 * too. The array grows with the height: one million entries need 1 million slots if they were
 * inserted in order, about 16 million if inserted at random, and 268 million in the worst case.
 */
void** BT_toarray(BinaryTree* tree, unsigned int* count);

/**
 * Returns the number of slots that BT_toarray() makes: 2^height - 1, which is 0 for an empty tree.
 * Returns UINT_MAX for a height above 32.
 */
unsigned int CalculateTreeArraySize(BinaryTree* oftree);

/** @} */

/**
 * @name Building blocks
 * The steps of the functions above, for programs whose trees have special needs. Arguments are not
 * checked, except where the description says so.
 *
 * A program that changes a tree with these calls can leave heights, balance and root wrong.
 * BT_insert(), BT_remove() and balanceup() correct them from the changed leaf up to the root; other
 * parts of the tree stay as they are. BT_toarray() needs exact heights and the right root.
 *
 * Cost: BT_insert() and BT_remove() go up from the changed leaf, and normally stop at the first
 * node whose height doesn't change. Once the program has called createnode(), recalculateheight(),
 * rotateleft(), rotateright(), balanceup() or DeleteLeafNode(), they go up to the root in every
 * tree, and so does the tracker of memchk.h. With 1000 entries, this takes 40 % more instructions.
 * @{
 */

/**
 * Searches for a key from the root down.
 *
 * @param intree          the tree; NULL counts as an empty tree
 * @param lastcomparison  receives the result of the last comparison; 0 if none was made
 *
 * Returns the node with the equal key; the comparison is 0. If there is none, returns the node
 * below which the key belongs; the comparison is negative for its left side and positive for its
 * right side. Returns NULL for an empty tree.
 */
BinaryTreeNode* findinsertionpoint(BinaryTree* intree, void* tofind, int* lastcomparison);

/**
 * Returns a new leaf of height 1 whose parent link is @p parent, or NULL with errno ENOMEM. The
 * caller adds 1 to itemcount and links the leaf into the tree, as root or below its parent. After
 * linking it below a parent, the caller runs balanceup() from there.
 */
BinaryTreeNode* createnode(BinaryTreeNode* parent, void* key, void* data);

/** Sets the height of @p curnode from the heights of its children. */
void recalculateheight(BinaryTreeNode* curnode);

/** Returns the height of the right child minus that of the left; a missing child counts as 0. */
int getbalance(BinaryTreeNode* ofnode);

/**
 * Rotates @p torotate down to the left: its right child, which must exist, takes its place below
 * the parent, and @p torotate becomes that child's left child. Sets the heights of these two nodes
 * only. Returns the upper of the two. Trap: the tree's @c root isn't changed; balanceup() sets it.
 */
BinaryTreeNode* rotateleft(BinaryTreeNode* torotate);

/** Does the mirror image of rotateleft(): the left child, which must exist, takes the place. */
BinaryTreeNode* rotateright(BinaryTreeNode* torotate);

/**
 * Balances the nodes from @p fromnode up to the root, sets their heights, and stores the topmost
 * node as root. Each node on this path must have a balance from -2 to 2. All other nodes must have
 * exact heights and a balance from -1 to 1.
 */
void balanceup(BinaryTree* tree, BinaryTreeNode* fromnode);

/** Exchanges key and data of two nodes, which may be the same. Links and heights stay. */
void swapnodes(BinaryTreeNode* nodea, BinaryTreeNode* nodeb);

/**
 * Returns the node with which an entry changes places on its way down to a leaf: the next node if
 * there is a right child, else the previous node if there is a left child, else @p ofnode itself.
 * Returns NULL for NULL.
 */
BinaryTreeNode* findreplacement(BinaryTreeNode* ofnode);

/**
 * Unlinks the leaf @p todelete, frees it, subtracts 1 from itemcount and runs balanceup() from its
 * parent. A parent that doesn't have the leaf as a child keeps its children. If the leaf has no
 * parent, the tree has no root afterwards. Does nothing if one of the two arguments is NULL. Trap:
 * the node must not have children.
 */
void DeleteLeafNode(BinaryTree* intree, BinaryTreeNode* todelete);

/** Returns the first node of the walk; NULL for an empty tree. */
BinaryTreeNode* leftmost(BinaryTree* oftree);

/** Returns the last node of the walk; NULL for an empty tree. */
BinaryTreeNode* rightmost(BinaryTree* oftree);

/** Returns the next node of the walk; NULL after the last one and for NULL. */
BinaryTreeNode* inordernext(BinaryTreeNode* ofnode);

/** Returns the previous node of the walk; NULL before the first one and for NULL. */
BinaryTreeNode* inorderprevious(BinaryTreeNode* ofnode);

/** @} */

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
