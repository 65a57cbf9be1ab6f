// The allocation tracker: a tree of the live blocks by address, and a report on the blocks that
// have outlived the interval between two dumps. The keys of all trees are numbers: addresses of
// blocks, addresses of file names, or line numbers. A dump stores the addresses of the live blocks
// in an array, in the order of the walk. A later dump walks this array and the tree side by side.

#include "tessra/memchk.h"

#include <bit>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "binarytree_private.h"
#include "internal/alloc.h"

namespace tessra {

namespace {

struct _allocation {
    void* pointer;
    unsigned int size;
    const char* file;
    unsigned int line;
    unsigned int count;  // Size of the report group that this record represents, or kExcused.
};

// A heap block: a node of allocation_tree and, behind it, the record, which is the node's data.
struct Live {
    BinaryTreeNode node;
    _allocation record;
};
static_assert(sizeof(void*) != 4 || sizeof(Live) == 44, "the header states the cost");

Live* live_of(BinaryTreeNode* node) { return reinterpret_cast<Live*>(node); }

// The addresses of all blocks that were live at one dump, highest first, in a heap block.
struct Snapshot {
    uintptr_t* addresses;
    size_t count;
};

// Reads a snapshot in step with a walk over the live blocks.
class Beside {
public:
    explicit Beside(const Snapshot& snapshot)
        : next_(snapshot.addresses), end_(snapshot.addresses + snapshot.count) {}

    // Returns true if the snapshot has the address. Each call must pass a lower address than the
    // call before.
    bool has(uintptr_t address) {
        while (next_ != end_ && *next_ > address) ++next_;
        return next_ != end_ && *next_ == address;
    }

private:
    const uintptr_t* next_;
    const uintptr_t* end_;
};

// Marks the blocks of the first dump if there was no memory for their addresses. No group has so
// many blocks.
constexpr unsigned int kExcused = UINT_MAX;

constexpr size_t kLineLimit = 254;

constinit bool dumped_before = false;
constinit Snapshot to_ignore = {nullptr, 0};        // Addresses of the first dump.
constinit Snapshot old_allocations = {nullptr, 0};  // Addresses of the latest dump.
constinit BinaryTree* allocation_tree = nullptr;    // Records of all live blocks.

constexpr int compare(uintptr_t a, uintptr_t b) {
    return static_cast<int>(a > b) - static_cast<int>(a < b);
}

int compare_keys(void* a, void* b) {
    return compare(std::bit_cast<uintptr_t>(a), std::bit_cast<uintptr_t>(b));
}

void* key_of(const char* file) { return const_cast<char*>(file); }
void* key_of(unsigned int line) { return std::bit_cast<void*>(uintptr_t{line}); }

BinaryTree* new_tree() { return BT_create(compare_keys); }

// Returns false if memory is short, or if the tree is null because memory was short before.
bool enter(BinaryTree* tree, void* key, void* data) {
    return tree != nullptr && BT_insert(tree, key, data) != -1;
}

void delete_tree(BinaryTree* tree) {
    if (tree != nullptr) BT_delete(tree);
}

// Calls visit for each node, highest key first. Needs no memory, unlike a cursor.
template <class Visit>
void for_each_node(BinaryTree* tree, Visit visit) {
    if (tree == nullptr) return;
    for (BinaryTreeNode* node = first_of(tree); node != nullptr; node = next_of(node)) {
        visit(node);
    }
}

template <class Data, class Visit>
void for_each(BinaryTree* tree, Visit visit) {
    for_each_node(tree, [&visit](BinaryTreeNode* node) { visit(static_cast<Data*>(node->data)); });
}

BinaryTreeNode* find_allocation(void* pointer, int& comparison) {
    return search_by(allocation_tree, pointer, comparison,
                     [](void* a, void* b) { return compare_keys(a, b); });
}

// Returns the tree of the file's groups, which is made on first use; null if memory is short.
BinaryTree* groups_of_file(BinaryTree* allocations_by_file, const char* file) {
    if (void* known = BT_find(allocations_by_file, key_of(file))) {
        return static_cast<BinaryTree*>(known);
    }
    BinaryTree* allocations_by_line = new_tree();
    if (allocations_by_line == nullptr) return nullptr;
    if (enter(allocations_by_file, key_of(file), allocations_by_line)) return allocations_by_line;
    BT_delete(allocations_by_line);
    return nullptr;
}

// The first record of a group represents the group. Returns false if memory is short; then the
// record isn't counted.
bool count_record(BinaryTree* allocations_by_file, _allocation* record) {
    BinaryTree* allocations_by_line = groups_of_file(allocations_by_file, record->file);
    auto* first = static_cast<_allocation*>(BT_find(allocations_by_line, key_of(record->line)));
    if (first != nullptr) {
        ++first->count;
        return true;
    }
    record->count = 1;
    return enter(allocations_by_line, key_of(record->line), record);
}

// Returns an array for the addresses of all live blocks, or a null array if memory is short.
Snapshot new_snapshot() {
    const size_t count = allocation_tree != nullptr ? allocation_tree->itemcount : 0;
    if (count == 0) return {nullptr, 0};
    auto* addresses = static_cast<uintptr_t*>(new_block(count * sizeof(uintptr_t)));
    return {addresses, count};
}

// Returns false if `latest` has no array because memory was short. Then the old snapshot stays, and
// the next dump notes the newer blocks.
bool replace(Snapshot& old, const Snapshot& latest) {
    if (latest.addresses == nullptr && latest.count != 0) return false;
    free(old.addresses);
    old = latest;
    return true;
}

// Walks once over the live blocks: groups those that the report will list, and stores all addresses
// if `latest` has an array. Returns false if memory is short, so that call sites may be missing.
bool group_survivors(BinaryTree* allocations_by_file, const Snapshot& latest) {
    bool complete = allocations_by_file != nullptr;
    Beside old(old_allocations), ignored(to_ignore);
    uintptr_t* next = latest.addresses;
    for_each_node(allocation_tree, [&](const BinaryTreeNode* node) {
        const auto address = std::bit_cast<uintptr_t>(node->key);
        if (next != nullptr) *next++ = address;
        if (!old.has(address) || ignored.has(address)) return;
        auto* record = static_cast<_allocation*>(node->data);
        if (record->count == kExcused) return;
        if (!count_record(allocations_by_file, record)) complete = false;
    });
    return complete;
}

// Excuses every live block from all reports: by its address in to_ignore or, if memory is short for
// the addresses, by a mark in its record.
bool excuse_all() {
    const Snapshot first = new_snapshot();
    uintptr_t* next = first.addresses;
    for_each_node(allocation_tree, [&](const BinaryTreeNode* node) {
        if (next != nullptr) {
            *next++ = std::bit_cast<uintptr_t>(node->key);
        } else {
            static_cast<_allocation*>(node->data)->count = kExcused;
        }
    });
    return replace(to_ignore, first);
}

void report_group(int log_level, pLog logfunc, const _allocation* record) {
    char _logline[256] = {};
    (void)snprintf(_logline, kLineLimit, " [\t%u\tallocations from %s\t%u\t] ", record->count,
                   record->file, record->line);
    logfunc(log_level, const_cast<char*>("%s"), _logline);
}

// Reports the groups and deletes their trees.
void report(int log_level, pLog logfunc, BinaryTree* allocations_by_file) {
    for_each<BinaryTree>(allocations_by_file, [=](BinaryTree* allocations_by_line) {
        for_each<_allocation>(allocations_by_line, [=](const _allocation* record) {
            report_group(log_level, logfunc, record);
        });
        BT_delete(allocations_by_line);
    });
    delete_tree(allocations_by_file);
}

// Enters the copy that strdup() or strndup() has made, unless it is null.
char* track_text(char* copy, const char* file, unsigned int line) {
    if (copy != nullptr) {
        add_allocation(copy, file, line, static_cast<unsigned int>(strlen(copy) + 1));
    }
    return copy;
}

}  // namespace

}  // namespace tessra

using namespace tessra;

[[gnu::weak]] int p_compare(uintptr_t a, uintptr_t b) { return compare(a, b); }

void add_allocation(void* pointer, const char* file, unsigned int line, unsigned int size) {
    if (pointer == nullptr) return;
    if (allocation_tree == nullptr) allocation_tree = new_tree();
    if (allocation_tree == nullptr) return;  // The caller reads errno.
    int comparison;
    BinaryTreeNode* parent = find_allocation(pointer, comparison);
    if (parent != nullptr && comparison == 0) return;
    auto* live = static_cast<Live*>(new_block(sizeof(Live)));
    if (live == nullptr) return;
    *live = {{pointer, &live->record, nullptr, nullptr, parent, 1}, {pointer, size, file, line, 0}};
    link_leaf(allocation_tree, parent, comparison, &live->node);
}

// Entries move between nodes, as in the tree's own removal. But a node's data must stay the record
// behind the node, so the contents of the records move.
void remove_allocation(void* pointer) {
    if (allocation_tree == nullptr) return;
    int comparison;
    BinaryTreeNode* node = find_allocation(pointer, comparison);
    if (node == nullptr || comparison != 0) return;
    for (BinaryTreeNode* below; (below = replacement_of(node)) != nullptr; node = below) {
        node->key = below->key;
        live_of(node)->record = live_of(below)->record;
    }
    remove_leaf(allocation_tree, node);
}

void* memchk_calloc(unsigned int size, unsigned int count, const char* file, unsigned int line) {
    void* block = calloc(count, size);
    if (block != nullptr) add_allocation(block, file, line, size * count);
    return block;
}

char* memchk_dup(const char* todup, const char* file, unsigned int line) {
    return track_text(strdup(todup), file, line);
}

char* memchk_n_dup(const char* todup, unsigned int n, const char* file, unsigned int line) {
    return track_text(strndup(todup, n), file, line);
}

void memchk_free(void* tofree, const char* /*file*/, unsigned int /*line*/) {
    if (tofree == nullptr) return;
    remove_allocation(tofree);
    free(tofree);
}

void dump_allocation_tree(int log_level, pLog logfunc) {
    const int errno_before = errno;
    logfunc(log_level, const_cast<char*>("allocation tree - start"));
    const bool excused = dumped_before || excuse_all();
    dumped_before = true;
    BinaryTree* allocations_by_file = new_tree();
    const Snapshot latest = new_snapshot();
    const bool counted = group_survivors(allocations_by_file, latest);
    const bool noted = replace(old_allocations, latest);
    report(log_level, logfunc, allocations_by_file);
    logfunc(log_level, const_cast<char*>("allocation tree - end"));
    errno = excused && counted && noted ? errno_before : ENOMEM;
}
