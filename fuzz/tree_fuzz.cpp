// Compares the tree with std::map. Each pair of bytes is an operation and its key. The shape is
// checked after each operation, and the cursor's position whenever the cursor moves.
#include <tessra/binarytree.h>

#include <cstdint>
#include <cstdlib>
#include <functional>
#include <map>

namespace {

void check(bool holds) {
    if (!holds) abort();
}

int compare(void* stored, void* wanted) {
    const auto a = reinterpret_cast<uintptr_t>(stored), b = reinterpret_cast<uintptr_t>(wanted);
    return a < b ? -1 : a > b;
}

unsigned checked_height(const BinaryTreeNode* node, const BinaryTreeNode* parent, size_t& count) {
    if (!node) return 0;
    ++count;
    check(node->parent == parent && count <= 256);
    const unsigned left = checked_height(node->left, node, count);
    const unsigned right = checked_height(node->right, node, count);
    check(left <= right + 1 && right <= left + 1);
    check(node->height == 1 + (left < right ? right : left));
    return node->height;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    BinaryTree* const tree = BT_create(compare);
    BinaryTreeEnum* const cursor = BT_newenum(tree);
    std::map<void*, void*, std::greater<>> model;
    auto at = model.end();  // end() also means the place before the first entry.
    const auto datum = [&] { return at == model.end() ? nullptr : at->second; };
    for (size_t n = 0; n + 1 < size; n += 2) {
        void* const key = reinterpret_cast<void*>(uintptr_t{1} + data[n + 1]);
        void* const value = const_cast<uint8_t*>(data + n);
        const auto found = model.find(key);
        void* const expected = found == model.end() ? nullptr : found->second;
        const unsigned action = data[n] % 8;
        if (action < 3) {
            check(BT_insert(tree, key, value) == (expected ? 0 : 1));
            model.emplace(key, value);
        } else if (action < 5) {
            if (expected) model.erase(found);
            at = model.end();
            BT_reset(cursor);
            check(BT_remove(tree, key) == expected && BT_find(tree, key) == nullptr);
        } else if (action == 5) {
            check(BT_find(tree, key) == expected);
        } else if (action == 6) {
            const auto next = at == model.end() ? model.begin() : std::next(at);
            check(BT_next(cursor) == (next == model.end() ? nullptr : next->second));
            if (next != model.end()) at = next;
        } else {
            if (at != model.end()) at = at == model.begin() ? model.end() : std::prev(at);
            check(BT_previous(cursor) == datum());
        }
        size_t count = 0;
        checked_height(tree->root, nullptr, count);
        check(count == model.size() && tree->itemcount == count);
    }
    BT_reset(cursor);
    for (const auto& [key, value] : model) check(BT_next(cursor) == value);
    LinkedList* const keys = BT_keys(tree);
    for (const auto& [key, value] : model) check(LL_dequeue(keys) == key);
    LL_delete(keys);
    BT_enumdelete(cursor);
    BT_delete(tree);
    return 0;
}
