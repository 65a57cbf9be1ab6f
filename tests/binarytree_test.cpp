/**
 * @file binarytree_test.cpp
 * The balanced tree against std::map, with all invariants checked after every step.
 */
#include "tessra/binarytree.h"

#include <cerrno>
#include <climits>
#include <map>
#include <random>

#include "support/harness.h"

namespace {

/** An ordinary comparison, under which a walk descends. */
int compare(void* stored, void* wanted) {
    const auto a = reinterpret_cast<uintptr_t>(stored), b = reinterpret_cast<uintptr_t>(wanted);
    return a < b ? INT_MIN : a > b;
}
void* number(uintptr_t n) { return reinterpret_cast<void*>(n); }

using Model = std::map<void*, void*, std::greater<>>;

/** Checks the nodes from this one down against their slots; returns their height. */
unsigned check(BinaryTreeNode* node, BinaryTreeNode* parent, void** slots, size_t i) {
    if (!node) return 0;
    EXPECT_TRUE(node->parent == parent && slots[2 * i] == node->key);
    EXPECT_EQ(node->data, slots[2 * i + 1]);
    const unsigned left = check(node->left, node, slots, 2 * i + 1);
    const unsigned right = check(node->right, node, slots, 2 * i + 2);
    EXPECT_LE(std::max(left, right) - std::min(left, right), 1u);
    EXPECT_EQ(int(right - left), getbalance(node));
    EXPECT_EQ(1 + std::max(left, right), node->height);
    return node->height;
}

void expect_tree(BinaryTree* tree, const Model& model) {
    unsigned slots = 77;
    size_t used = 0;
    void** array = BT_toarray(tree, &slots);
    ASSERT_EQ((1u << check(tree->root, nullptr, array, 0)) - 1, slots);
    for (size_t i = 0; i < slots; i++) used += array[2 * i] || array[2 * i + 1];
    ASSERT_TRUE(used == model.size() && tree->itemcount == used);
    free(array);
    LinkedList *keys = BT_keys(tree), *values = BT_values(tree), *pairs = BT_pairs(tree);
    for (const auto& [key, datum] : model) {
        void** pair = static_cast<void**>(LL_dequeue(pairs));
        ASSERT_TRUE(pair && pair[0] == key && pair[1] == datum);
        ASSERT_TRUE(LL_dequeue(keys) == key && LL_dequeue(values) == datum);
        free(pair);
    }
    for (LinkedList* list : {keys, values, pairs}) {
        ASSERT_EQ(0u, list->itemcount);
        LL_delete(list);
    }
}

/** Spoils the heights above a node. A climb that ends at the root puts them right. */
void spoil_heights_above(BinaryTreeNode* node) {
    while ((node = node->parent)) node->height += 5;
}

int insert_by_blocks(BinaryTree* tree, void* key, void* data) {
    int side = 77;
    BinaryTreeNode* parent = findinsertionpoint(tree, key, &side);
    if (parent && side == 0) return 0;
    BinaryTreeNode* leaf = createnode(parent, key, data);
    if (!leaf) return -1;
    tree->itemcount++;
    if (parent) (side < 0 ? parent->left : parent->right) = leaf;
    spoil_heights_above(leaf);
    balanceup(tree, leaf);
    return 1;
}

void* remove_by_blocks(BinaryTree* tree, BinaryTreeNode* node) {
    void* data = node->data;
    for (BinaryTreeNode* below; (below = findreplacement(node)) != node; node = below) {
        EXPECT_EQ(node->right ? inordernext(node) : inorderprevious(node), below);
        swapnodes(node, below);
    }
    if (node->parent) spoil_heights_above(node->parent);
    DeleteLeafNode(tree, node);
    return data;
}

// Rounds differ in how many keys there are, phases in whether insertions or removals prevail.
TEST(BinaryTree, BalanceOrderEntryOrCursorIsLost) {
    const unsigned seed = std::random_device()();
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    for (const unsigned keys : {3, 8, 20, 60, 300}) {
        BinaryTree* tree = BT_create(compare);
        BinaryTreeEnum* cursor = BT_newenum(tree);
        Model model;
        auto at = model.end();  // The end stands for before the first.
        for (unsigned step = 0; step < 4000 && !testing::Test::HasFailure(); step++) {
            void *key = number(1 + random() % keys), *data = number(random() % 4);
            void *expected = nullptr, *got = nullptr;
            const auto found = model.find(key);
            const auto action = random() % 8;
            const bool by_blocks = random() % 2, growing = step / (4 * keys) % 2 == 0;
            if (action < 4 && growing == (random() % 4 != 0)) {
                fail_allocation = random() % 4 == 0;
                const int result = found != model.end() ? 0 : fail_allocation ? -1 : 1;
                ASSERT_EQ(result, (by_blocks ? insert_by_blocks : BT_insert)(tree, key, data));
                if (result == 1) model.emplace(key, data);
                fail_allocation = 0;
            } else if (action < 4) {
                int side;
                BinaryTreeNode* node = findinsertionpoint(tree, key, &side);
                if (found != model.end()) expected = found->second, model.erase(found);
                ASSERT_EQ(expected, BT_find(tree, key)) << step;
                got = by_blocks && node && side == 0 ? remove_by_blocks(tree, node)
                                                     : BT_remove(tree, key);
                at = (BT_reset(cursor), model.end());
            } else if (action == 4 && !model.empty()) {
                expected = (at = std::prev(model.end()))->second;
                got = BT_end(cursor);
            } else if (action == 5) {
                if (at != model.end()) at = at == model.begin() ? model.end() : std::prev(at);
                if (at != model.end()) expected = at->second;
                got = BT_previous(cursor);
            } else {
                const auto next = at == model.end() ? model.begin() : std::next(at);
                if (next != model.end()) expected = (at = next)->second;
                got = BT_next(cursor);
            }
            ASSERT_EQ(expected, got) << step;
            const BinaryTreeNode* node = cursor->curnode;
            ASSERT_EQ(at == model.end() ? nullptr : at->first, node ? node->key : nullptr) << step;
            expect_tree(tree, model);
        }
        BT_enumdelete(cursor);
        BT_delete(tree);
    }
}

TEST(BinaryTree, ArrayThatNoMemoryHolds) {
    BinaryTree* tree = BT_create(compare);
    ASSERT_EQ(1, BT_insert(tree, number(1), nullptr));
    tree->root->height = 33;
    unsigned slots = 77;
    EXPECT_TRUE(!BT_toarray(tree, &slots) && slots == 0 && errno == ENOMEM);
    EXPECT_EQ(UINT_MAX, CalculateTreeArraySize(tree));
    BT_delete(tree);
}

}  // namespace
