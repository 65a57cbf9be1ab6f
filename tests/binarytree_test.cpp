// The balanced tree against std::map, with all invariants checked after every step.
#include "tessra/binarytree.h"

#include <cerrno>
#include <climits>
#include <map>
#include <random>

#include "support/harness.h"

namespace {

// An ordinary comparison, under which a walk descends.
int compare(void* stored, void* wanted) {
    const auto a = reinterpret_cast<uintptr_t>(stored), b = reinterpret_cast<uintptr_t>(wanted);
    return a < b ? INT_MIN : a > b;
}
void* number(uintptr_t n) { return reinterpret_cast<void*>(n); }

using Model = std::map<void*, void*, std::greater<>>;

// Checks the nodes from this one down against their slots; returns their height.
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
    ASSERT_EQ(0u, keys->itemcount + values->itemcount + pairs->itemcount);
    LL_delete(keys), LL_delete(values), LL_delete(pairs);
}

// The fuzzer's corpus looks at each step; here is what is made of a whole tree, and its ends.
TEST(BinaryTree, ArrayOrListsDifferFromTheTree) {
    const unsigned seed = std::random_device()();
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    BinaryTree* tree = BT_create(compare);
    BinaryTreeEnum* cursor = BT_newenum(tree);
    Model model;
    for (int step = 0; step < 2000 && !testing::Test::HasFailure(); step++) {
        void *key = number(1 + random() % 60), *data = number(random() % 4);
        if (random() % 64 > model.size()) {
            EXPECT_EQ(model.emplace(key, data).second, BT_insert(tree, key, data));
        } else {
            BT_remove(tree, key);
            model.erase(key);
        }
        expect_tree(tree, model);
        auto at = model.rbegin();
        BT_reset(cursor);
        for (void* got = BT_end(cursor); at != model.rend(); got = BT_previous(cursor), at++)
            ASSERT_EQ(at->second, got);
        ASSERT_EQ(nullptr, cursor->curnode);
    }
    BT_enumdelete(cursor);
    BT_delete(tree);
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
