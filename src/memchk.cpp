// The allocation tracker: live blocks by address, and a report on those that outlive an interval
// between two dumps. Keys of all trees are bare numbers: addresses of blocks, of file names, lines.

#include "tessra/memchk.h"

#include <bit>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "internal/alloc.h"
#include "tessra/binarytree.h"

namespace tessra {

namespace {

struct _allocation {
    void* pointer;
    unsigned int size;
    const char* file;
    unsigned int line;
    unsigned int count;  // Of the report group that this record stands for, or kExcused.
};
static_assert(sizeof(void*) != 4 || sizeof(_allocation) == 20, "the header tells the cost");
static_assert(sizeof(void*) != 4 || sizeof(BinaryTreeNode) == 24, "the header tells the cost");

// Marks a block of the first dump for which to_ignore had no memory. No group gets that large.
constexpr unsigned int kExcused = UINT_MAX;

constexpr size_t kLineLimit = 254;

constinit bool dumped_before = false;
constinit BinaryTree* to_ignore = nullptr;            // Addresses of the first dump.
constinit BinaryTree* old_allocation_tree = nullptr;  // Addresses of the latest dump.
constinit BinaryTree* allocation_tree = nullptr;      // Records of all live blocks.

int compare_keys(void* a, void* b) {
    return p_compare(std::bit_cast<uintptr_t>(a), std::bit_cast<uintptr_t>(b));
}

void* key_of(const char* file) { return const_cast<char*>(file); }
void* key_of(unsigned int line) { return std::bit_cast<void*>(uintptr_t{line}); }

BinaryTree* new_tree() { return BT_create(compare_keys); }

// False if memory is short, also for the tree that couldn't be made.
bool enter(BinaryTree* tree, void* key, void* data) {
    return tree != nullptr && BT_insert(tree, key, data) != -1;
}

void delete_tree(BinaryTree* tree) {
    if (tree != nullptr) BT_delete(tree);
}

// Calls visit for each entry's data, highest key first. Needs no memory, unlike a cursor.
template <class Data, class Visit>
void for_each(BinaryTree* tree, Visit visit) {
    if (tree == nullptr) return;
    for (BinaryTreeNode* node = leftmost(tree); node != nullptr; node = inordernext(node)) {
        visit(static_cast<Data*>(node->data));
    }
}

bool survives(const _allocation* record) {
    return BT_find(old_allocation_tree, record->pointer) != nullptr && record->count != kExcused &&
           BT_find(to_ignore, record->pointer) == nullptr;
}

// The tree of the file's groups, made on first use; null if memory is short.
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

// The first record of a group stands for it. False if memory is short: the record goes uncounted.
bool count_record(BinaryTree* allocations_by_file, _allocation* record) {
    BinaryTree* allocations_by_line = groups_of_file(allocations_by_file, record->file);
    auto* first = static_cast<_allocation*>(BT_find(allocations_by_line, key_of(record->line)));
    if (first != nullptr) {
        first->count++;
        return true;
    }
    record->count = 1;
    return enter(allocations_by_line, key_of(record->line), record);
}

// Groups what the report will list. False if memory is short and sites may be missing.
bool group_survivors(BinaryTree* allocations_by_file) {
    bool complete = allocations_by_file != nullptr;
    for_each<_allocation>(allocation_tree, [&](_allocation* record) {
        if (survives(record) && !count_record(allocations_by_file, record)) complete = false;
    });
    return complete;
}

// Excuses every live block. An address that finds no room is excused by a mark in its record.
bool excuse_all() {
    to_ignore = new_tree();
    bool complete = to_ignore != nullptr;
    for_each<_allocation>(allocation_tree, [&](_allocation* record) {
        if (enter(to_ignore, record->pointer, record->pointer)) return;
        record->count = kExcused;
        complete = false;
    });
    return complete;
}

// Notes the addresses of all live blocks. A snapshot that would miss some isn't taken; the old one
// stays, and what has come since enters the next.
bool take_snapshot() {
    BinaryTree* new_allocation_tree = new_tree();
    bool complete = new_allocation_tree != nullptr;
    for_each<_allocation>(allocation_tree, [&](_allocation* record) {
        complete = complete && enter(new_allocation_tree, record->pointer, record->pointer);
    });
    delete_tree(complete ? old_allocation_tree : new_allocation_tree);
    if (complete) old_allocation_tree = new_allocation_tree;
    return complete;
}

void report_group(int log_level, pLog logfunc, const _allocation* record) {
    char _logline[256] = {};
    (void)snprintf(_logline, kLineLimit, " [\t%u\tallocations from %s\t%u\t] ", record->count,
                   record->file, record->line);
    logfunc(log_level, const_cast<char*>("%s"), _logline);
}

// Reports the groups and gives their trees back.
void report(int log_level, pLog logfunc, BinaryTree* allocations_by_file) {
    for_each<BinaryTree>(allocations_by_file, [=](BinaryTree* allocations_by_line) {
        for_each<_allocation>(allocations_by_line, [=](const _allocation* record) {
            report_group(log_level, logfunc, record);
        });
        BT_delete(allocations_by_line);
    });
    delete_tree(allocations_by_file);
}

// Enters a copy that strdup() or its like has made, if it has.
char* track_text(char* copy, const char* file, unsigned int line) {
    if (copy != nullptr) {
        add_allocation(copy, file, line, static_cast<unsigned int>(strlen(copy) + 1));
    }
    return copy;
}

}  // namespace

}  // namespace tessra

using namespace tessra;

int p_compare(uintptr_t a, uintptr_t b) {
    return static_cast<int>(a > b) - static_cast<int>(a < b);
}

void add_allocation(void* pointer, const char* file, unsigned int line, unsigned int size) {
    if (allocation_tree == nullptr) allocation_tree = new_tree();
    auto* record = new_record<_allocation>();
    if (record == nullptr) return;  // errno tells.
    *record = {pointer, size, file, line, 0};
    const bool entered =
        allocation_tree != nullptr && BT_insert(allocation_tree, pointer, record) == 1;
    if (!entered) free(record);
}

void remove_allocation(void* pointer) { free(BT_remove(allocation_tree, pointer)); }

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
    const bool counted = group_survivors(allocations_by_file);
    const bool noted = take_snapshot();
    report(log_level, logfunc, allocations_by_file);
    logfunc(log_level, const_cast<char*>("allocation tree - end"));
    errno = excused && counted && noted ? errno_before : ENOMEM;
}
