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
 * leads to the left, a positive one to the right, and 0 means that the keys are equal. A walk goes
 * from left to right, and so, trap, an ordinary comparison (negative when its first argument is the
 * smaller: strcmp()) makes it descend: the greatest key is leftmost. For a walk that ascends
 * exchange the arguments as above. First, last, next and previous mean the order of the walk. Keys
 * are unique.
 *
 * The tree holds the two pointers; it neither copies nor frees what they point to. A key must
 * compare the same as long as it is in the tree. NULL is a key if the comparison can handle it, and
 * may be data: a call that returns data returns NULL also when it has none.
 *
 * What a change does to cursors and node pointers. BT_insert() leaves them valid; a new entry ahead
 * of a cursor will be met. BT_remove(), BT_deletenode() and DeleteLeafNode() don't: entries move
 * between nodes, and the node that is freed is in general not the one that held the removed entry.
 * After them no node pointer obtained earlier may be used, and a cursor must not go on with
 * BT_next() or BT_previous(); BT_reset(), BT_end() and BT_enumdelete() are safe. The tree must
 * outlive its cursors, save for BT_enumdelete().
 *
 * NULL arguments are allowed where told and nowhere else. Threads: a tree and its cursors have no
 * lock; the caller sees to it that one thread at a time uses them. Blocks: never. Nothing recurses:
 * the need of stack doesn't depend on the size. Find, insert and remove take time with the
 * logarithm of the number of entries; BT_delete() and the snapshots pass over all.
 *
 * Exhausted memory: whatever has to allocate sets errno to ENOMEM and changes nothing. Calls that
 * succeed leave errno as it was; those that free memory do so where the C library's free() does.
 */
#ifndef TESSRA_BINARYTREE_H
#define TESSRA_BINARYTREE_H

#include "tessra/linkedlist.h"

#ifdef __cplusplus
extern "C" {
#endif

#pragma GCC visibility push(default)

/**
 * Compares the key stored in a node with the key looked for; see Order above. Called by the calls
 * that find, insert and remove, on their thread. It must order all keys of the tree consistently
 * and must not change the tree.
 */
typedef int (*BTCompare)(void* stored, void* wanted);

/** An entry of a tree. */
typedef struct BTNodeStruct BinaryTreeNode;

/** One entry; a heap block that the tree owns. The fields are there to be read. */
struct BTNodeStruct {
    void* key;              /**< Compared only by the tree's comparison. */
    void* data;             /**< What the key stands for. */
    BinaryTreeNode* left;   /**< Left child or NULL. */
    BinaryTreeNode* right;  /**< Right child or NULL. */
    BinaryTreeNode* parent; /**< NULL on the root. */
    unsigned int height;    /**< 1 on a leaf, else 1 + that of the higher child. */
};

/** A tree. The balance of each node, right height minus left height, is -1, 0 or 1. */
typedef struct BinaryTree {
    unsigned int itemcount; /**< Number of entries. */
    BinaryTreeNode* root;   /**< NULL when the tree is empty. */
    BTCompare compare;      /**< As given to BT_create(). */
} BinaryTree;

/** A cursor: it stands before the first node or on a node. */
typedef struct BinaryTreeEnum {
    BinaryTree* tree;        /**< The tree walked. */
    BinaryTreeNode* curnode; /**< The node it stands on; NULL before the first. */
} BinaryTreeEnum;

/**
 * @name Trees
 * @{
 */

/** Returns a new empty tree, which the caller ends with BT_delete(), or NULL with errno ENOMEM. */
BinaryTree* BT_create(BTCompare comparisonfunction);

/** Frees the tree with all its nodes. Keys and data are the caller's. Compares nothing. */
void BT_delete(BinaryTree* todelete);

/**
 * Enters @p data under @p key.
 *
 * Returns 1 if it is entered. Returns 0 if an equal key is there already, which keeps its data and
 * its own key pointer, and if @p pThis is NULL. Returns -1 with errno ENOMEM, the tree unchanged.
 */
int BT_insert(BinaryTree* pThis, void* key, void* data);

/** Returns the data of the key equal to @p tofind; NULL if there is none or @p pThis is NULL. */
void* BT_find(BinaryTree* pThis, void* tofind);

/**
 * Removes the entry with the key equal to @p toremove and returns its data; NULL if there is none
 * or @p pThis is NULL. The stored key isn't told: who has to free it reads it before, from the node
 * of findinsertionpoint().
 */
void* BT_remove(BinaryTree* pThis, void* toremove);

/** Removes the entry that @p curnode, a node of @p pThis, holds. */
void BT_deletenode(BinaryTree* pThis, BinaryTreeNode* curnode);

/** Returns the data of the first entry of the walk; NULL on an empty tree. */
void* BT_leftmost(BinaryTree* tree);

/** Returns the data of the last entry of the walk; NULL on an empty tree. */
void* BT_rightmost(BinaryTree* tree);

/** @} */

/**
 * @name Cursors
 * What they do at both ends is that of the list's cursors.
 * @{
 */

/**
 * Returns a new cursor before the first node, which the caller ends with BT_enumdelete(), or NULL
 * with errno ENOMEM.
 */
BinaryTreeEnum* BT_newenum(BinaryTree* oftree);

/**
 * Moves to the next node, from before the first onto the first, and returns its data. Where there
 * is none, the cursor stays and the result is NULL.
 *
 * Traps: NULL data ends a loop that tests the result, though the cursor has moved.
 * On the last node the cursor stays on it, so a BT_previous() that follows a finished walk returns
 * the last data but one.
 */
void* BT_next(BinaryTreeEnum* btenum);

/**
 * Moves to the previous node and returns its data. From the first it moves before it, and stays
 * there: NULL. BT_next() then starts with the first again.
 */
void* BT_previous(BinaryTreeEnum* btenum);

/** Moves onto the last node and returns its data; on an empty tree before the first: NULL. */
void* BT_end(BinaryTreeEnum* btenum);

/** Moves before the first node. Returns NULL. */
void* BT_reset(BinaryTreeEnum* btenum);

/** Frees the cursor and doesn't look at its tree. */
void BT_enumdelete(BinaryTreeEnum* todelete);

/** @} */

/**
 * @name Snapshots
 * Each returns all or nothing: NULL with errno ENOMEM, everything built so far freed.
 * @{
 */

/**
 * Returns a new list of all data in the order of the walk, head first; empty for an empty tree.
 * The caller ends it with LL_delete(). NULL data is in it as a NULL value.
 */
LinkedList* BT_values(BinaryTree* tree);

/** BT_values() for the keys. */
LinkedList* BT_keys(BinaryTree* tree);

/**
 * BT_values() for pairs: each value is a block of two void*, the key and then the data.
 *
 * Trap: LL_delete() doesn't free the blocks. The caller takes them out first, with LL_dequeue() or
 * LL_pop(), and ends each with free().
 */
LinkedList* BT_pairs(BinaryTree* tree);

/**
 * Returns the tree as an array of slots, level by level. A slot is two consecutive void*: slot i
 * has its key at index 2i and its data at 2i+1. The root is in slot 0, the left child of slot i in
 * slot 2i+1 and the right one in 2i+2. A slot without an entry is two NULLs.
 *
 * @param count  takes the number of slots (not of entries, not of pointers); may be NULL
 *
 * The caller ends the array with free(); keys and data stay the caller's. On an empty tree the
 * result is NULL and the number 0, errno as it was. Failure: NULL with errno ENOMEM and the number
 * 0, also when there are more slots than an unsigned int can count. The array grows with the
 * height: one million entries take 1 million slots if they came in order, some 16 million if they
 * came at random, and 268 million in the worst case.
 */
void** BT_toarray(BinaryTree* tree, unsigned int* count);

/**
 * Returns the slots of BT_toarray(): 2^height - 1, 0 for an empty tree. A height above 32 gives
 * UINT_MAX.
 */
unsigned int CalculateTreeArraySize(BinaryTree* oftree);

/** @} */

/**
 * @name Building blocks
 * What the functions above are made of, for trees with needs of their own. Nothing is checked.
 *
 * A change by hand can leave heights, balance and root wrong. BT_insert(), BT_remove() and
 * balanceup() correct them from the changed leaf up to the root; other parts of the tree stay as
 * they are. BT_toarray() needs exact heights and the right root.
 *
 * Cost: normally BT_insert() and BT_remove() stop where a height stays as it was. Once the program
 * has called createnode(), recalculateheight(), rotateleft(), rotateright(), balanceup() or
 * DeleteLeafNode(), they go up to the root in every tree, and so does the tracker of memchk.h. That
 * takes them 40 % more instructions with 1000 entries.
 * @{
 */

/**
 * Searches from the root.
 *
 * @param intree          may be NULL, which is an empty tree
 * @param lastcomparison  takes the result of the last comparison; 0 if none was made
 *
 * Returns the node with the equal key, comparison 0, or the node below which the key belongs,
 * comparison negative for its left and positive for its right side, or NULL for an empty tree.
 */
BinaryTreeNode* findinsertionpoint(BinaryTree* intree, void* tofind, int* lastcomparison);

/**
 * Returns a new leaf of height 1 whose parent link is @p parent, or NULL with errno ENOMEM. The
 * caller counts it and links it into the tree: as root, or below its parent, and then runs
 * balanceup() from there.
 */
BinaryTreeNode* createnode(BinaryTreeNode* parent, void* key, void* data);

/** Sets the height of @p curnode from those of its children. */
void recalculateheight(BinaryTreeNode* curnode);

/** Returns the height of the right child minus that of the left one; a missing child counts 0. */
int getbalance(BinaryTreeNode* ofnode);

/**
 * Turns @p torotate down to the left: its right child, which must exist, takes its place below the
 * parent, and it becomes that child's left child. Sets the heights of these two and no others.
 * Returns the new top. Trap: the tree's @c root isn't touched; balanceup() sets it.
 */
BinaryTreeNode* rotateleft(BinaryTreeNode* torotate);

/** The mirror image of rotateleft(): the left child, which must exist, takes the place. */
BinaryTreeNode* rotateright(BinaryTreeNode* torotate);

/**
 * Brings the nodes from @p fromnode up to the root into balance, sets their heights, and stores the
 * topmost as root. Expects a balance from -2 to 2 on this way, and none elsewhere out of order.
 */
void balanceup(BinaryTree* tree, BinaryTreeNode* fromnode);

/** Exchanges key and data of two nodes, which may be the same. Links and heights stay. */
void swapnodes(BinaryTreeNode* nodea, BinaryTreeNode* nodeb);

/**
 * Returns the node with which an entry changes places on its way down to a leaf: the next node if
 * there is a right child, else the previous one if there is a left child, else @p ofnode itself.
 * NULL for NULL.
 */
BinaryTreeNode* findreplacement(BinaryTreeNode* ofnode);

/**
 * Unlinks the leaf @p todelete, frees it, counts it off and runs balanceup() from its parent. A
 * parent that doesn't have it as a child keeps its children. Without a parent the tree has no root
 * afterwards. Does nothing if one of the two is NULL. Trap: a node with children must not be given.
 */
void DeleteLeafNode(BinaryTree* intree, BinaryTreeNode* todelete);

/** Returns the first node of the walk; NULL on an empty tree. */
BinaryTreeNode* leftmost(BinaryTree* oftree);

/** Returns the last node of the walk; NULL on an empty tree. */
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
