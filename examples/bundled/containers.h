/**
 * Owners of the library's containers, and add functions with a result. As in the standard library's
 * containers, exhausted memory is a std::bad_alloc. Texts in containers come from copy().
 */
#ifndef BUNDLED_CONTAINERS_H
#define BUNDLED_CONTAINERS_H

#include <cstring>
#include <memory>
#include <new>

#include <tessra/binarytree.h>
#include <tessra/linkedlist.h>
#include <tessra/list.h>
#include <tessra/memchk.h>

#include "tracking.h"

namespace bundled {

template <auto Free>
struct FreeBy {
    template <class Container>
    void operator()(Container* container) const {
        Free(container);
    }
};

/*
 * Linked lists.
 */

inline void free_texts(LinkedList* list) {
    while (list->itemcount != 0) {
        FreeBlock()(LL_dequeue(list));
    }
    LL_delete(list);
}

using PointerList = std::unique_ptr<LinkedList, FreeBy<LL_delete>>;  ///< Owns no values.
using TextList = std::unique_ptr<LinkedList, FreeBy<free_texts>>;

inline void push(LinkedList& list, void* value) {
    const unsigned int before = list.itemcount;
    LL_push(&list, value);
    if (list.itemcount == before) {
        throw std::bad_alloc();
    }
}

/*
 * Trees whose keys are texts, in the order of their bytes. The data holds the key.
 */

// A walk begins on the side of the negative results, so the arguments are exchanged.
inline int compare_texts(void* stored, void* wanted) {
    return std::strcmp(static_cast<char*>(wanted), static_cast<char*>(stored));
}

/** Calls @p visit for each data. It may free the data if the tree is freed afterwards. */
template <class Data, class Visit>
void for_each(BinaryTree& tree, Visit visit) {
    for (BinaryTreeNode* node = leftmost(&tree); node != nullptr; node = inordernext(node)) {
        visit(static_cast<Data*>(node->data));
    }
}

inline void free_text_tree(BinaryTree* tree) {
    for_each<char>(*tree, FreeBlock());
    BT_delete(tree);
}

using Tree = std::unique_ptr<BinaryTree, FreeBy<BT_delete>>;  ///< Owns neither keys nor data.
using TextTree = std::unique_ptr<BinaryTree, FreeBy<free_text_tree>>;

/** Returns false if the tree already has the key; then it doesn't take the data. */
inline bool enter(BinaryTree& tree, void* key, void* data) {
    const int result = BT_insert(&tree, key, data);
    if (result < 0) {
        throw std::bad_alloc();
    }
    return result == 1;
}

/*
 * String hash tables and named flags.
 */

// The table calls free(), so the tracker's records are removed before.
inline void free_text_table(hashtable_t* table) {
    const auto forget = [](char* key, void* value, void* /*arg*/) {
        remove_allocation(key);
        remove_allocation(value);
    };
    str_hashtable_iterate(table, forget, nullptr);
    str_hashtable_free(table);
}

inline void free_flags(hashtable_t* flags) { hashtable_free(flags, nullptr); }

using TextTable = std::unique_ptr<hashtable_t, FreeBy<free_text_table>>;
using Flags = std::unique_ptr<hashtable_t, FreeBy<free_flags>>;

inline void put(hashtable_t& table, Text key, Text value) {
    (void)checked(str_hashtable_put(&table, key.get(), value.get()));
    (void)key.release();
    (void)value.release();
}

}  // namespace bundled

#endif
