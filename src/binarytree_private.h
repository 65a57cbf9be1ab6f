// The tree's interface for modules that use it with a comparison known at compile time.
#ifndef TESSRA_BINARYTREE_PRIVATE_H
#define TESSRA_BINARYTREE_PRIVATE_H

#include "tessra/binarytree.h"

namespace tessra {

// Returns the node where the search for a key ends, or null on an empty tree. `comparison` gets the
// result of the last comparison: 0 if the node has the key, and also on an empty tree.
template <class Compare>
BinaryTreeNode* search_by(const BinaryTree* tree, void* key, int& comparison, Compare compare) {
    comparison = 0;
    BinaryTreeNode* node = tree->root;
    if (node == nullptr) return nullptr;
    int latest;  // A local variable: `comparison` would be stored in memory at each step.
    for (;;) {
        latest = compare(node->key, key);
        if (latest == 0) break;
        BinaryTreeNode* next = latest < 0 ? node->left : node->right;
        if (next == nullptr) break;
        node = next;
    }
    comparison = latest;
    return node;
}

// The private functions behind leftmost() and inordernext().
BinaryTreeNode* first_of(const BinaryTree* tree);
BinaryTreeNode* next_of(BinaryTreeNode* node);

// Links a new leaf below `parent`, where such a search has ended without finding the leaf's key.
// The heap block of the leaf may be larger than a node: the part behind the node is the caller's.
void link_leaf(BinaryTree* tree, BinaryTreeNode* parent, int comparison, BinaryTreeNode* leaf);

// The node whose entry replaces the entry of `node` when that is removed; null for a leaf.
BinaryTreeNode* replacement_of(BinaryTreeNode* node);

// Unlinks and frees a leaf whose entry was moved to another node or is to be removed.
void remove_leaf(BinaryTree* tree, BinaryTreeNode* leaf);

}  // namespace tessra

#endif
