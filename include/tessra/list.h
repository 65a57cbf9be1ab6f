/**
 * @file list.h
 * Intrusive circular doubly linked list.
 *
 * A list_t is both the head of a list and the node inside a listed record. The head belongs to no
 * record; an empty list is a head whose two links point to itself. A listed record has its list_t
 * as first member, so that the address of the node is the address of the record, and listing a
 * record costs no allocation. A record with one node is on at most one list at a time.
 *
 * The list owns nothing: whoever unlinks a record frees it.
 *
 * Threads: a list has no lock; the caller holds whatever guards it. Memory: none of the operations
 * allocates. Blocks: never. No operation can fail.
 */
#ifndef TESSRA_LIST_H
#define TESSRA_LIST_H

#ifdef __cplusplus
extern "C" {
#endif

/** Head of a list, or the first member of a listed record. Not copyable: neighbours point to it. */
typedef struct list {
    struct list* next; /**< Following node; the head's first entry; the head after the last one. */
    struct list* prev; /**< Preceding node; the head's last entry; the head before the first one. */
} list_t;

/** Makes @p list an empty head. An entry that was on it is forgotten, not unlinked. */
static inline void list_init(list_t* list) {
    list->next = list;
    list->prev = list;
}

/**
 * Links an entry between two adjacent nodes.
 *
 * @param entry   record to link, on no list
 * @param before  node that will precede @p entry; may be the head
 * @param after   node that will follow it, now the successor of @p before; may be the head
 */
static inline void list_insert(list_t* entry, list_t* before, list_t* after) {
    before->next = entry;
    after->prev = entry;
    entry->next = after;
    entry->prev = before;
}

/** Links @p entry, which is on no list, as the first entry of @p list. */
static inline void list_add_head(list_t* list, list_t* entry) {
    list_insert(entry, list, list->next);
}

/** Links @p entry, which is on no list, as the last entry of @p list. */
static inline void list_add_tail(list_t* list, list_t* entry) {
    list_insert(entry, list->prev, list);
}

/**
 * Unlinks @p entry from the list that it is on and sets both its links to null. Frees nothing.
 * Trap: an entry that is on no list (null links) must not be given.
 */
static inline void list_delete(list_t* entry) {
    entry->next->prev = entry->prev;
    entry->prev->next = entry->next;
    entry->next = 0;
    entry->prev = 0;
}

/** @cond */
#define TESSRA_LIST_PASTE3(a, b, c) a##b##c
#define TESSRA_LIST_SAVED(line) TESSRA_LIST_PASTE3(_dll_x, line, _unique)
#define TESSRA_LIST_FOREACH(saved, cursor, head)                                        \
    for (list_t* saved = ((cursor) = (head)->next, (cursor)->next); (cursor) != (head); \
         (cursor) = saved, saved = (cursor)->next)
/** @endcond */

/**
 * Safe walk: runs the statement that follows once for each entry, first to last.
 *
 * @param cursor  a variable of type list_t*; the entry in the body, the head after a full walk
 * @param head    a list_t*; evaluated several times
 *
 * The successor is saved before the body runs, so the body may unlink and free the entry under the
 * cursor, and that entry only. Walks nest, each on a source line of its own.
 */
#define dll_foreach(cursor, head) TESSRA_LIST_FOREACH(TESSRA_LIST_SAVED(__LINE__), cursor, head)

#ifdef __cplusplus
}
#endif

#endif
