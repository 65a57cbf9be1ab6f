// What the tree offers to modules that stand on it and know their comparison.
#ifndef TESSRA_BINARYTREE_PRIVATE_H
#define TESSRA_BINARYTREE_PRIVATE_H

#include "tessra/binarytree.h"

namespace tessra {

// The node where the search for a key ends, and how it compares: 0 if it has that key. Null on an
// empty tree.
template <class Compare>
BinaryTreeNode* search_by(const BinaryTree* tree, void* key, int& comparison, Compare compare) {
    comparison = 0;
    BinaryTreeNode* node = tree->root;
    if (node == nullptr) return nullptr;
    int latest;  // Not `comparison` itself, which would be stored each time.
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

// leftmost() and inordernext().
BinaryTreeNode* first_of(const BinaryTree* tree);
BinaryTreeNode* next_of(BinaryTreeNode* node);

// Makes a node the leaf of an entry where such a search has ended without finding its key. The rest
// of the block behind it is the caller's.
void link_leaf(BinaryTree* tree, BinaryTreeNode* parent, int comparison, BinaryTreeNode* leaf);

// The node whose entry takes the place of that in `node`, which leaves; null for a leaf.
BinaryTreeNode* replacement_of(BinaryTreeNode* node);

// Unlinks and frees a leaf whose entry has left.
void remove_leaf(BinaryTree* tree, BinaryTreeNode* leaf);

}  // namespace tessra

#endif
