// The balanced tree. A function with a mirror image exists once and takes the side as an argument.
//
// The building blocks are exported under plain names. A program may have its own leftmost(), and
// every call of that name then reaches the program's function. So no code in this file calls a
// building block: each is a shell around a private function that does the work. They are weak, so
// that such a program links with the archive.

#include "tessra/binarytree.h"

#include <atomic>
#include <climits>
#include <cstddef>
#include <cstdlib>

#include "binarytree_private.h"
#include "internal/alloc.h"

namespace tessra {

namespace {

static_assert(offsetof(BinaryTreeNode, key) == 0 &&
                  offsetof(BinaryTreeNode, data) == sizeof(void*) &&
                  offsetof(BinaryTreeNode, left) == 2 * sizeof(void*) &&
                  offsetof(BinaryTreeNode, right) == 3 * sizeof(void*) &&
                  offsetof(BinaryTreeNode, parent) == 4 * sizeof(void*) &&
                  offsetof(BinaryTreeNode, height) == 5 * sizeof(void*) &&
                  sizeof(BinaryTreeNode) == 6 * sizeof(void*),
              "ABI");
static_assert(offsetof(BinaryTree, itemcount) == 0 && offsetof(BinaryTree, root) == sizeof(void*) &&
                  offsetof(BinaryTree, compare) == 2 * sizeof(void*) &&
                  sizeof(BinaryTree) == 3 * sizeof(void*),
              "ABI");
static_assert(offsetof(BinaryTreeEnum, tree) == 0 &&
                  offsetof(BinaryTreeEnum, curnode) == sizeof(void*) &&
                  sizeof(BinaryTreeEnum) == 2 * sizeof(void*),
              "ABI");

using Node = BinaryTreeNode;
using Side = Node* Node::*;

constexpr Side kLeft = &Node::left;
constexpr Side kRight = &Node::right;

// True once the program has called a building block that changes links or heights. From then on any
// tree may be out of balance, or have wrong heights or a wrong root, when an operation begins.
constinit std::atomic<bool> changed_by_hand = false;

// Those building blocks call this. It returns its argument, which keeps their code short. The store
// is relaxed, since threads that share a tree synchronise in any case.
Node* by_hand(Node* node) {
    changed_by_hand.store(true, std::memory_order_relaxed);
    return node;
}

int height_of(const Node* node) { return node != nullptr ? static_cast<int>(node->height) : 0; }

int lean_of(const Node* node) { return height_of(node->right) - height_of(node->left); }

void update_height(Node* node) {
    const int left = height_of(node->left);
    const int right = height_of(node->right);
    node->height = 1 + static_cast<unsigned int>(left > right ? left : right);
}

void* data_of(const Node* node) { return node != nullptr ? node->data : nullptr; }

// Always inlined: -Os would make it a call in each removal, with `side` as a variable.
[[gnu::always_inline]] inline Node* outermost(Node* node, Side side) {
    if (node == nullptr) return nullptr;
    while (node->*side != nullptr) node = node->*side;
    return node;
}

Node* last_of(const BinaryTree* tree) { return outermost(tree->root, kRight); }

// The neighbour in the order of the walk, towards `side`. If there is a child on that side, the
// neighbour is in its subtree. Otherwise it is the first ancestor with the node on the other side.
Node* neighbour(Node* node, Side side, Side opposite) {
    if (node == nullptr) return nullptr;
    if (node->*side != nullptr) return outermost(node->*side, opposite);
    Node* above = node->parent;
    while (above != nullptr && above->*side == node) {
        node = above;
        above = node->parent;
    }
    return above;
}

Node* previous_of(Node* node) { return neighbour(node, kLeft, kRight); }

Node* search(const BinaryTree* tree, void* key, int& comparison) {
    comparison = 0;
    return tree != nullptr ? search_by(tree, key, comparison, tree->compare) : nullptr;
}

Node* find(const BinaryTree* tree, void* key) {
    int comparison;
    Node* node = search(tree, key, comparison);
    return comparison == 0 ? node : nullptr;
}

[[gnu::always_inline]] inline Node* new_leaf(Node* parent, void* key, void* data) {
    auto* leaf = static_cast<Node*>(new_block(sizeof(Node)));
    if (leaf != nullptr) *leaf = {key, data, nullptr, nullptr, parent, 1};
    return leaf;
}

Node* rotate(Node* node, Side down, Side up) {
    Node* top = node->*up;
    Node* above = node->parent;
    if (above != nullptr) (above->left == node ? above->left : above->right) = top;
    top->parent = above;
    node->*up = top->*down;
    if (node->*up != nullptr) (node->*up)->parent = node;
    top->*down = node;
    node->parent = top;
    update_height(node);
    update_height(top);
    return top;
}

// Raises the side `up`, which is too high by one. If the inner side of that subtree is its higher
// one, raises the inner side first.
Node* raise(Node* node, Side down, Side up) {
    Node* high = node->*up;
    if (height_of(high->*down) > height_of(high->*up)) (void)rotate(high, up, down);
    return rotate(node, down, up);
}

// Balances the tree below a node whose two subtrees are balanced. Returns its new top node.
inline Node* balance(Node* node) {
    const int left = height_of(node->left);
    const int right = height_of(node->right);
    const int lean = right - left;
    if (static_cast<unsigned int>(lean + 1) > 2) {
        return lean < 0 ? raise(node, kRight, kLeft) : raise(node, kLeft, kRight);
    }
    node->height = 1 + static_cast<unsigned int>(lean < 0 ? left : right);
    return node;
}

// Balances `node` and the nodes above it. If a height stays as it was, the nodes above need no
// change and the climb stops. It goes on to the root if the program may have changed nodes by hand.
void climb(BinaryTree* tree, Node* node) {
    for (;;) {
        Node* above = node->parent;
        const unsigned int before = node->height;
        node = balance(node);
        if (above == nullptr) break;
        if (node->height == before && !changed_by_hand.load(std::memory_order_relaxed)) return;
        node = above;
    }
    tree->root = node;
}

void swap(Node* a, Node* b) {
    const Node kept = *a;
    a->key = b->key;
    a->data = b->data;
    b->key = kept.key;
    b->data = kept.data;
}

// The node that the entry of `node` moves to on its way down; null for a leaf.
[[gnu::always_inline]] inline Node* next_below(Node* node) {
    if (node->right != nullptr) return outermost(node->right, kLeft);
    if (node->left != nullptr) return outermost(node->left, kRight);
    return nullptr;
}

// Unlinks a leaf from its parent. A leaf that the program has made by hand may have a parent
// without a link to it.
void unlink(const Node* leaf, Node* above) {
    if (above->left == leaf) {
        above->left = nullptr;
    } else if (above->right == leaf) {
        above->right = nullptr;
    }
}

// Moves the entry down to a leaf and removes the leaf. Each step swaps the entry with a neighbour,
// so the order of the other entries stays.
void delete_entry(BinaryTree* tree, Node* node) {
    for (Node* below; (below = next_below(node)) != nullptr; node = below) swap(node, below);
    remove_leaf(tree, node);
}

// An entry in a snapshot: a pair of BT_pairs() or a slot of BT_toarray().
struct Entry {
    void* key;
    void* data;
};
static_assert(offsetof(Entry, data) == sizeof(void*) && sizeof(Entry) == 2 * sizeof(void*),
              "two consecutive void*");

Entry* new_pair(const Node* node) {
    auto* pair = new_record<Entry>();
    if (pair != nullptr) *pair = {node->key, node->data};
    return pair;
}

// Returns a list with one value for each node in the order of the walk, or null.
LinkedList* snapshot(BinaryTree* tree, void* (*value_of)(Node*)) {
    LinkedList* list = LL_create();
    if (list == nullptr) return nullptr;
    unsigned int pushed = 0;
    for (Node* node = first_of(tree); node != nullptr; node = next_of(node)) {
        LL_push(list, value_of(node));
        if (list->itemcount != ++pushed) {
            LL_delete(list);
            errno = ENOMEM;  // Some C libraries' free() may change it.
            return nullptr;
        }
    }
    return list;
}

// The greatest height of a tree whose slots an unsigned int can count.
constexpr unsigned int kMaxHeight = sizeof(unsigned int) * CHAR_BIT;

// The array is also the queue of the nodes: a slot holds a node until the loop gets there and
// replaces the node by its entry.
Entry* new_array(const BinaryTree* tree, size_t slots) {
    if (tree->root->height > kMaxHeight) {
        errno = ENOMEM;
        return nullptr;
    }
    auto* array = new_records<Entry>(slots);
    if (array == nullptr) return nullptr;
    array[0].key = tree->root;
    for (size_t slot = 0; slot < slots; ++slot) {
        const auto* node = static_cast<Node*>(array[slot].key);
        if (node == nullptr) continue;
        if (node->left != nullptr) array[2 * slot + 1].key = node->left;
        if (node->right != nullptr) array[2 * slot + 2].key = node->right;
        array[slot] = {node->key, node->data};
    }
    return array;
}

// Moves the cursor to the node; null means before the first. Returns the data there, or null.
void* stand_on(BinaryTreeEnum* cursor, Node* node) {
    cursor->curnode = node;
    return data_of(node);
}

unsigned int slots_of(const BinaryTree* tree) {
    const auto height = static_cast<unsigned int>(height_of(tree->root));
    return height < kMaxHeight ? (1U << height) - 1 : UINT_MAX;
}

}  // namespace

void link_leaf(BinaryTree* tree, Node* parent, int comparison, Node* leaf) {
    if (parent == nullptr) {
        tree->root = leaf;
        tree->itemcount = 0;
    } else {
        (comparison < 0 ? parent->left : parent->right) = leaf;
        climb(tree, parent);
    }
    ++tree->itemcount;
}

Node* first_of(const BinaryTree* tree) { return outermost(tree->root, kLeft); }

Node* next_of(Node* node) { return neighbour(node, kRight, kLeft); }

Node* replacement_of(Node* node) { return next_below(node); }

void remove_leaf(BinaryTree* tree, Node* leaf) {
    Node* above = leaf->parent;
    if (above == nullptr) {
        tree->root = nullptr;
    } else {
        unlink(leaf, above);
        climb(tree, above);
    }
    free(leaf);
    --tree->itemcount;
}

}  // namespace tessra

using namespace tessra;

BinaryTree* BT_create(BTCompare comparisonfunction) {
    auto* tree = new_record<BinaryTree>();
    if (tree != nullptr) tree->compare = comparisonfunction;
    return tree;
}

// Frees children before their parents: goes down to a leaf, frees it, and goes on from its parent.
void BT_delete(BinaryTree* todelete) {
    Node* node = todelete->root;
    while (node != nullptr) {
        Node* child = node->left != nullptr ? node->left : node->right;
        if (child != nullptr) {
            node = child;
            continue;
        }
        Node* above = node->parent;
        if (above != nullptr) unlink(node, above);
        free(node);
        node = above;
    }
    free(todelete);
}

int BT_insert(BinaryTree* pThis, void* key, void* data) {
    if (pThis == nullptr) return 0;
    int comparison;
    Node* parent = search(pThis, key, comparison);
    if (comparison == 0 && parent != nullptr) return 0;
    Node* leaf = new_leaf(parent, key, data);
    if (leaf == nullptr) return -1;
    link_leaf(pThis, parent, comparison, leaf);
    return 1;
}

void* BT_find(BinaryTree* pThis, void* tofind) { return data_of(find(pThis, tofind)); }

void* BT_remove(BinaryTree* pThis, void* toremove) {
    Node* node = find(pThis, toremove);
    if (node == nullptr) return nullptr;
    void* data = node->data;
    delete_entry(pThis, node);
    return data;
}

void BT_deletenode(BinaryTree* pThis, BinaryTreeNode* curnode) { delete_entry(pThis, curnode); }

void* BT_leftmost(BinaryTree* tree) { return data_of(first_of(tree)); }

void* BT_rightmost(BinaryTree* tree) { return data_of(last_of(tree)); }

BinaryTreeEnum* BT_newenum(BinaryTree* oftree) {
    auto* cursor = new_record<BinaryTreeEnum>();
    if (cursor != nullptr) cursor->tree = oftree;
    return cursor;
}

// At the end of the walk the cursor stays on the last node, so a later call finds new entries.
void* BT_next(BinaryTreeEnum* btenum) {
    Node* current = btenum->curnode;
    Node* next = current != nullptr ? next_of(current) : first_of(btenum->tree);
    return next != nullptr ? stand_on(btenum, next) : nullptr;
}

void* BT_previous(BinaryTreeEnum* btenum) { return stand_on(btenum, previous_of(btenum->curnode)); }

void* BT_end(BinaryTreeEnum* btenum) { return stand_on(btenum, last_of(btenum->tree)); }

void* BT_reset(BinaryTreeEnum* btenum) { return stand_on(btenum, nullptr); }

void BT_enumdelete(BinaryTreeEnum* todelete) { free(todelete); }

LinkedList* BT_values(BinaryTree* tree) {
    return snapshot(tree, [](Node* node) { return node->data; });
}

LinkedList* BT_keys(BinaryTree* tree) {
    return snapshot(tree, [](Node* node) { return node->key; });
}

// Lists the nodes first, then replaces each node in the list by its pair.
LinkedList* BT_pairs(BinaryTree* tree) {
    LinkedList* list = snapshot(tree, [](Node* node) -> void* { return node; });
    if (list == nullptr) return nullptr;
    for (LinkedListElement* element = list->head; element != nullptr; element = element->next) {
        Entry* pair = new_pair(static_cast<Node*>(element->value));
        if (pair == nullptr) {
            while (list->head != element) free(LL_dequeue(list));
            LL_delete(list);
            errno = ENOMEM;
            return nullptr;
        }
        element->value = pair;
    }
    return list;
}

void** BT_toarray(BinaryTree* tree, unsigned int* count) {
    unsigned int slots = tree->itemcount != 0 ? slots_of(tree) : 0;
    Entry* array = slots != 0 ? new_array(tree, slots) : nullptr;
    if (array == nullptr) slots = 0;
    if (count != nullptr) *count = slots;
    return reinterpret_cast<void**>(array);
}

[[gnu::weak]] unsigned int CalculateTreeArraySize(BinaryTree* oftree) { return slots_of(oftree); }

[[gnu::weak]] BinaryTreeNode* findinsertionpoint(BinaryTree* intree, void* tofind,
                                                 int* lastcomparison) {
    return search(intree, tofind, *lastcomparison);
}

[[gnu::weak]] BinaryTreeNode* createnode(BinaryTreeNode* parent, void* key, void* data) {
    return new_leaf(by_hand(parent), key, data);
}

[[gnu::weak]] void recalculateheight(BinaryTreeNode* curnode) { update_height(by_hand(curnode)); }

[[gnu::weak]] int getbalance(BinaryTreeNode* ofnode) { return lean_of(ofnode); }

[[gnu::weak]] BinaryTreeNode* rotateleft(BinaryTreeNode* torotate) {
    return rotate(by_hand(torotate), kLeft, kRight);
}

[[gnu::weak]] BinaryTreeNode* rotateright(BinaryTreeNode* torotate) {
    return rotate(by_hand(torotate), kRight, kLeft);
}

[[gnu::weak]] void balanceup(BinaryTree* tree, BinaryTreeNode* fromnode) {
    climb(tree, by_hand(fromnode));
}

[[gnu::weak]] void swapnodes(BinaryTreeNode* nodea, BinaryTreeNode* nodeb) { swap(nodea, nodeb); }

[[gnu::weak]] BinaryTreeNode* findreplacement(BinaryTreeNode* ofnode) {
    Node* below = ofnode != nullptr ? replacement_of(ofnode) : nullptr;
    return below != nullptr ? below : ofnode;
}

[[gnu::weak]] void DeleteLeafNode(BinaryTree* intree, BinaryTreeNode* todelete) {
    if (intree == nullptr || todelete == nullptr) return;
    remove_leaf(intree, by_hand(todelete));
}

[[gnu::weak]] BinaryTreeNode* leftmost(BinaryTree* oftree) { return first_of(oftree); }

[[gnu::weak]] BinaryTreeNode* rightmost(BinaryTree* oftree) { return last_of(oftree); }

[[gnu::weak]] BinaryTreeNode* inordernext(BinaryTreeNode* ofnode) { return next_of(ofnode); }

[[gnu::weak]] BinaryTreeNode* inorderprevious(BinaryTreeNode* ofnode) {
    return previous_of(ofnode);
}
