// Compares the balanced tree with std::map, and checks all invariants after every step.
#include "tessra/binarytree.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "support/harness.h"

namespace {

// An ordinary comparison. With it, a walk visits the keys in descending order.
int compare(void* stored, void* wanted) {
    const auto a = reinterpret_cast<uintptr_t>(stored), b = reinterpret_cast<uintptr_t>(wanted);
    return a < b ? INT_MIN : a > b;
}
void* number(uintptr_t n) { return reinterpret_cast<void*>(n); }

using Model = std::map<void*, void*, std::greater<>>;

// Compares the nodes from this one down with their slots; returns their height.
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
    for (size_t i = 0; i < slots; ++i) used += array[2 * i] || array[2 * i + 1];
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
    for (LinkedList* list : {keys, values, pairs}) LL_delete(list);
}

// The fuzzer's corpus checks each step. This checks the array and the lists of a whole tree, and
// the walk back from its end.
TEST(BinaryTree, ArrayOrListsDifferFromTheTree) {
    const unsigned seed = std::random_device()();
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    BinaryTree* tree = BT_create(compare);
    BinaryTreeEnum* cursor = BT_newenum(tree);
    Model model;
    for (int step = 0; step < 2000 && !testing::Test::HasFailure(); ++step) {
        void *key = number(1 + random() % 60), *data = number(random() % 4);
        if (random() % 64 > model.size()) {
            EXPECT_EQ(model.emplace(key, data).second, BT_insert(tree, key, data));
        } else {
            BT_remove(tree, key);
            model.erase(key);
        }
        expect_tree(tree, model);
        BT_reset(cursor);
        void* got = BT_end(cursor);
        for (auto at = model.rbegin(); at != model.rend(); ++at) {
            ASSERT_EQ(at->second, got);
            got = BT_previous(cursor);
        }
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
    fail_allocation = 1;  // BT_toarray() doesn't even try.
    EXPECT_TRUE(!BT_toarray(tree, &slots) && slots == 0 && errno == ENOMEM && fail_allocation);
    fail_allocation = 0;
    EXPECT_EQ(UINT_MAX, CalculateTreeArraySize(tree));
    BT_delete(tree);
}

// Returns a node with its height and its children as text.
std::string shape_of(const BinaryTreeNode* node) {
    if (!node) return "-";
    return std::to_string(reinterpret_cast<uintptr_t>(node->key)) + ':' +
           std::to_string(node->height) + '(' + shape_of(node->left) + shape_of(node->right) + ')';
}

void insert_or_remove(BinaryTree* tree, void* key) {
    if (!BT_insert(tree, key, key)) BT_remove(tree, key);
}

// Does the same with the building blocks, and rebalances up to the root each time.
void by_building_blocks(BinaryTree* tree, void* key) {
    int side;
    BinaryTreeNode* node = findinsertionpoint(tree, key, &side);
    if (side) {
        (side < 0 ? node->left : node->right) = createnode(node, key, key);
        ++tree->itemcount;
        return balanceup(tree, node);
    }
    BinaryTreeNode* below = findreplacement(node);
    while (below != node) {
        void* const data = node->data;
        swapnodes(node, below);
        node = below;
        EXPECT_EQ(data, node->data);
        below = findreplacement(node);
    }
    DeleteLeafNode(tree, node);
}

using Order = std::vector<uintptr_t>;  // The order of insertions.
using Change = void (*)(BinaryTreeNode*);
using Work = void (*)(BinaryTree*, void* key);

// Returns the trees after an insertion or removal of each key, if node n is changed by hand before.
std::string changed(const Order& order, Change change, size_t n, Work work) {
    std::string shapes;
    for (uintptr_t key = 1; key <= 2 * order.size() + 1; ++key) {
        BinaryTree* tree = BT_create(compare);
        for (uintptr_t each : order) BT_insert(tree, number(2 * each), number(each));
        BinaryTreeNode* node = leftmost(tree);
        for (size_t i = 0; i < n; ++i) node = inordernext(node);
        change(node);
        work(tree, number(key));
        EXPECT_EQ(nullptr, tree->root->parent);
        shapes += shape_of(tree->root) + std::to_string(tree->itemcount) + '\n';
        BT_delete(tree);
    }
    return shapes;
}

// Tries all shapes of seven entries. Each change has a process of its own, since after the first
// change by hand the library rebalances all trees up to the root.
TEST(BinaryTree, ChangeByHandIsLeftUnbalanced) {
    const Change changes[] = {
        [](BinaryTreeNode* node) {
            if (node->right) rotateleft(node);
        },
        [](BinaryTreeNode* node) {
            if (node->left) rotateright(node);
        },
        [](BinaryTreeNode* node) {
            if (node->right) return;
            void* key = number(reinterpret_cast<uintptr_t>(node->key) - 1);
            for (int n = 0; n < 2; ++n) {
                node->right = createnode(node, key, key);
                node = node->right;
            }
        },
    };
    std::map<std::string, Order> orders;
    Order order = {1, 2, 3, 4, 5, 6, 7};
    do {
        BinaryTree* tree = BT_create(compare);
        for (uintptr_t each : order) BT_insert(tree, number(each), nullptr);
        orders.emplace(shape_of(tree->root), order);
        BT_delete(tree);
    } while (std::next_permutation(order.begin(), order.end()));
    ASSERT_EQ(17u, orders.size());
    for (const Change change : changes) {
        tessra_test::run_isolated([&] {
            const auto shapes = [&](Work work) {
                std::vector<std::string> all;
                for (const auto& [shape, each] : orders) {
                    for (size_t n = 0; n < 7; ++n) {
                        all.push_back(shape + changed(each, change, n, work));
                    }
                }
                return all;
            };
            const std::vector<std::string> expected = shapes(insert_or_remove);
            EXPECT_EQ(shapes(by_building_blocks), expected);
        });
    }
}

}  // namespace
