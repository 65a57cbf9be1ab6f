// The balanced tree. Whatever has a mirror image is written once and told its side.
//
// The building blocks are exported under plain names. A program may well have a leftmost() of its
// own, which then stands for ours wherever that is called by name. So nothing in here calls them:
// they are shells around the private functions that do the work. They are weak, so that such a
// program links with the archive.

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
// tree may be out of balance, with wrong heights or root, when an operation begins.
constinit std::atomic<bool> changed_by_hand = false;

// Called by those building blocks. Hands the node through, which keeps their code short. Relaxed,
// since threads that share a tree synchronise in any case.
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

// In place, so that the side is no variable: -Os would make a call of it on the way of a removal.
[[gnu::always_inline]] inline Node* outermost(Node* node, Side side) {
    if (node == nullptr) return nullptr;
    while (node->*side != nullptr) node = node->*side;
    return node;
}

Node* last_of(const BinaryTree* tree) { return outermost(tree->root, kRight); }

// The neighbour in walking order towards `side`: below if there is anything on that side, else the
// first ancestor that isn't reached from it.
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

// Raises the side `up`, too high by one, and first that side's own inner side if it is the higher.
Node* raise(Node* node, Side down, Side up) {
    Node* high = node->*up;
    if (height_of(high->*down) > height_of(high->*up)) (void)rotate(high, up, down);
    return rotate(node, down, up);
}

// Balances a node whose subtrees are in order, and returns the top of what it was the top of.
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

// Where a height stays as it was, the nodes above see no change. The climb ends there, unless they
// may have been wrong before.
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

// Where an entry sinks to from `node`; null from a leaf.
[[gnu::always_inline]] inline Node* next_below(Node* node) {
    if (node->right != nullptr) return outermost(node->right, kLeft);
    if (node->left != nullptr) return outermost(node->left, kRight);
    return nullptr;
}

// Takes a leaf off its parent. By hand a program can make one that its parent doesn't have.
void unlink(const Node* leaf, Node* above) {
    if (above->left == leaf) {
        above->left = nullptr;
    } else if (above->right == leaf) {
        above->right = nullptr;
    }
}

// The entry sinks to a leaf. It changes places with a neighbour each time, so the order of the
// others stays.
void delete_entry(BinaryTree* tree, Node* node) {
    for (Node* below; (below = next_below(node)) != nullptr; node = below) swap(node, below);
    remove_leaf(tree, node);
}

// What a snapshot has of an entry: a pair as it is handed out, or a slot of the array.
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

// A list with one value of each node in walking order, or null.
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

// The highest tree whose slots an unsigned int counts.
constexpr unsigned int kMaxHeight = sizeof(unsigned int) * CHAR_BIT;

// The array is its own queue: until its turn comes, a node waits in the slot of its entry.
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

// Moves the cursor, and returns the data it arrives at.
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

// Children before their parents: down to a leaf, which goes, and on from the node above it.
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

// The end of the walk is not a place to stand on: the cursor waits on the last node for what comes.
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

// Lists the nodes first and puts a pair in the place of each.
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
