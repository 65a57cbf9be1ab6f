/**
 * @file linkedlist.h
 * Doubly linked list of untyped pointers, with cursors.
 *
 * Each value gets its own element on the heap. So a stored object needs no node in it, and may be
 * on several lists. LL_push() adds values at the tail. LL_pop() removes them at the tail (a stack),
 * LL_dequeue() at the head (a queue).
 *
 *     LinkedList* names = LL_create();
 *     LL_push(names, strdup("eth0"));
 *     while (names->itemcount != 0) free(LL_dequeue(names));
 *     LL_delete(names);
 *
 * The list stores pointers and hands them back. It neither copies nor frees the objects that they
 * point to. NULL may be stored. A call that returns a value returns NULL if there is none, so only
 * @c itemcount distinguishes a stored NULL from an empty list.
 *
 * Arguments aren't checked: no list and no cursor may be NULL. Threads: a list and its cursors have
 * no lock; the caller must ensure that only one thread at a time uses them. Blocks: never.
 *
 * Exhausted memory: a call that can't allocate sets errno to ENOMEM and changes nothing. Calls that
 * succeed leave errno as it was. For those that free memory, this is true only if the C library's
 * free() leaves errno as it was.
 */
#ifndef TESSRA_LINKEDLIST_H
#define TESSRA_LINKEDLIST_H

#ifdef __cplusplus
extern "C" {
#endif

#pragma GCC visibility push(default)

/** One stored value: a heap block that the list owns. */
typedef struct LinkedListElementStruct {
    void* value;                          /**< The stored pointer, which may be NULL. */
    struct LinkedListElementStruct* next; /**< Towards the tail; NULL for the tail. */
    struct LinkedListElementStruct* prev; /**< Towards the head; NULL for the head. */
} LinkedListElement;

/** A list. Programs may read the fields; only the functions below change them. */
typedef struct LinkedListStruct {
    LinkedListElement* head; /**< First element; NULL when the list is empty. */
    LinkedListElement* tail; /**< Last element; NULL when the list is empty. */
    unsigned int itemcount;  /**< Number of elements. */
} LinkedList;

/** A cursor. It is on an element, or before the first element. */
typedef struct LinkedListEnumStruct {
    LinkedListElement* current; /**< The element that the cursor is on; NULL before the first. */
    LinkedList* oflist;         /**< The list walked. */
} LinkedListEnum;

/**
 * @name Lists
 * @{
 */

/** Returns a new empty list, which the caller frees with LL_delete(), or NULL with errno ENOMEM. */
LinkedList* LL_create(void);

/**
 * Appends @p topush, which may be NULL, at the tail.
 *
 * The function has no result. After a failure the list is as it was, and errno is ENOMEM. A caller
 * can detect the failure in two ways: @c itemcount hasn't grown, or errno, set to 0 before the
 * call, is ENOMEM after it.
 */
void LL_push(LinkedList* onlist, void* topush);

/** Removes the tail element and returns its value; NULL for an empty list, which stays as it is. */
void* LL_pop(LinkedList* fromlist);

/** Removes the head element and returns its value; NULL for an empty list, which stays as it is. */
void* LL_dequeue(LinkedList* fromlist);

/**
 * Frees the list and all its elements, including those that hold NULL. The values are the caller's:
 * first take out each value that must be freed.
 */
void LL_delete(LinkedList* todelete);

/** @} */

/**
 * @name Cursors
 * A cursor reads the list at each call, so it meets values that are pushed after it was made. The
 * list doesn't know its cursors. A cursor whose element has been removed must not go on with
 * LL_next() or LL_previous(); LL_reset(), LL_end() and LL_enumdelete() are safe. A list must
 * outlive its cursors, except that LL_enumdelete() may follow LL_delete().
 * @{
 */

/**
 * Returns a new cursor before the first element, which the caller frees with LL_enumdelete(), or
 * NULL with errno ENOMEM.
 */
LinkedListEnum* LL_newenum(LinkedList* fromlist);

/**
 * Moves to the next element, towards the tail, and returns its value. A cursor before the first
 * element moves to the head. If there is no next element, the cursor doesn't move and the result is
 * NULL.
 *
 * Trap: after a finished walk the cursor is still on the tail, so LL_previous() returns the last
 * value but one.
 */
void* LL_next(LinkedListEnum* onenum);

/**
 * Moves to the previous element, towards the head, and returns its value. A cursor on the head
 * moves before the first element, and stays there in further calls; the result is NULL. LL_next()
 * then starts with the head.
 */
void* LL_previous(LinkedListEnum* onenum);

/** Moves before the first element. Returns NULL. */
void* LL_reset(LinkedListEnum* onenum);

/** Moves to the tail and returns its value. In an empty list, moves before the first element and
 * returns NULL. */
void* LL_end(LinkedListEnum* onenum);

/** Frees the cursor. Doesn't access its list. */
void LL_enumdelete(LinkedListEnum* todelete);

/** @} */

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
