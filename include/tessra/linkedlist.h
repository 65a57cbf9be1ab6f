/**
 * @file linkedlist.h
 * Doubly linked list of untyped pointers, with cursors.
 *
 * Each value gets an element of its own on the heap, so what is stored needs no node in it and may
 * be on several lists. Values go in at the tail and come out at the tail (a stack) or at the head
 * (a queue).
 *
 *     LinkedList* names = LL_create();
 *     LL_push(names, strdup("eth0"));
 *     while (names->itemcount != 0) free(LL_dequeue(names));
 *     LL_delete(names);
 *
 * The list stores pointers and hands them back; it neither copies nor frees what they point to.
 * NULL may be stored. A call that returns a value returns NULL when it has none, so only
 * @c itemcount tells a stored NULL from an empty list.
 *
 * Arguments aren't checked: no list and no cursor may be NULL. Threads: a list and its cursors have
 * no lock; the caller sees to it that one thread at a time uses them. Blocks: never.
 *
 * Exhausted memory: whatever has to allocate sets errno to ENOMEM and changes nothing. Calls that
 * succeed leave errno as it was; those that free memory do so where the C library's free() does.
 */
#ifndef TESSRA_LINKEDLIST_H
#define TESSRA_LINKEDLIST_H

#ifdef __cplusplus
extern "C" {
#endif

#pragma GCC visibility push(default)

/** One stored value; a heap block that the list owns. */
typedef struct LinkedListElementStruct {
    void* value;                          /**< The stored pointer; NULL is a value too. */
    struct LinkedListElementStruct* next; /**< Towards the tail; NULL on the tail. */
    struct LinkedListElementStruct* prev; /**< Towards the head; NULL on the head. */
} LinkedListElement;

/** A list. The fields are there to be read; the functions below change them. */
typedef struct LinkedListStruct {
    LinkedListElement* head; /**< First element; NULL when the list is empty. */
    LinkedListElement* tail; /**< Last element; NULL when the list is empty. */
    unsigned int itemcount;  /**< Number of elements. */
} LinkedList;

/** A cursor: it stands before the first element or on an element. */
typedef struct LinkedListEnumStruct {
    LinkedListElement* current; /**< The element it stands on; NULL before the first. */
    LinkedList* oflist;         /**< The list walked. */
} LinkedListEnum;

/**
 * @name Lists
 * @{
 */

/** Returns a new empty list, which the caller ends with LL_delete(), or NULL with errno ENOMEM. */
LinkedList* LL_create(void);

/**
 * Appends @p topush, which may be NULL, at the tail.
 *
 * It has no result. Failure: ENOMEM, and the list is as it was. Two ways to tell: @c itemcount
 * hasn't grown, or errno, set to 0 before the call, is ENOMEM after it.
 */
void LL_push(LinkedList* onlist, void* topush);

/** Removes the tail element and returns its value; NULL on an empty list, which stays as it is. */
void* LL_pop(LinkedList* fromlist);

/** Removes the head element and returns its value; NULL on an empty list, which stays as it is. */
void* LL_dequeue(LinkedList* fromlist);

/**
 * Frees the list with all its elements, those that hold NULL included. The values are the caller's:
 * take out first what has to be freed.
 */
void LL_delete(LinkedList* todelete);

/** @} */

/**
 * @name Cursors
 * A cursor reads the list at each call, so it meets what was pushed after it was made. The list
 * doesn't know its cursors. A cursor whose element has been removed must not go on with LL_next()
 * or LL_previous(); LL_reset(), LL_end() and LL_enumdelete() are safe. The list must outlive its
 * cursors, save for LL_enumdelete().
 * @{
 */

/**
 * Returns a new cursor before the first element, which the caller ends with LL_enumdelete(), or
 * NULL with errno ENOMEM.
 */
LinkedListEnum* LL_newenum(LinkedList* fromlist);

/**
 * Moves one element towards the tail and returns its value: from before the first onto the head.
 * Where there is no element to move to, the cursor stays and the result is NULL.
 *
 * Trap: on the tail the cursor stays on it, so a LL_previous() that follows a finished walk returns
 * the last value but one.
 */
void* LL_next(LinkedListEnum* onenum);

/**
 * Moves one element towards the head and returns its value. From the head it moves before the first
 * element, and stays there: NULL. LL_next() then starts with the head again.
 */
void* LL_previous(LinkedListEnum* onenum);

/** Moves before the first element. Returns NULL. */
void* LL_reset(LinkedListEnum* onenum);

/** Moves onto the tail and returns its value; on an empty list before the first element: NULL. */
void* LL_end(LinkedListEnum* onenum);

/** Frees the cursor and doesn't look at its list. */
void LL_enumdelete(LinkedListEnum* todelete);

/** @} */

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
