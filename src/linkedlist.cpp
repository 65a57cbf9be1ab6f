// The linked list and its cursors.

#include "tessra/linkedlist.h"

#include <cstddef>
#include <cstdlib>

#include "internal/alloc.h"

namespace tessra {

namespace {

static_assert(offsetof(LinkedListElement, value) == 0 &&
                  offsetof(LinkedListElement, next) == sizeof(void*) &&
                  offsetof(LinkedListElement, prev) == 2 * sizeof(void*) &&
                  sizeof(LinkedListElement) == 3 * sizeof(void*),
              "ABI");
static_assert(offsetof(LinkedList, head) == 0 && offsetof(LinkedList, tail) == sizeof(void*) &&
                  offsetof(LinkedList, itemcount) == 2 * sizeof(void*) &&
                  sizeof(LinkedList) == 3 * sizeof(void*),
              "ABI");
static_assert(offsetof(LinkedListEnum, current) == 0 &&
                  offsetof(LinkedListEnum, oflist) == sizeof(void*) &&
                  sizeof(LinkedListEnum) == 2 * sizeof(void*),
              "ABI");

// Moves the cursor to the element; null means before the first. Returns the value there, or null.
void* stand_on(LinkedListEnum* cursor, LinkedListElement* element) {
    cursor->current = element;
    return element != nullptr ? element->value : nullptr;
}

}  // namespace

}  // namespace tessra

using namespace tessra;

LinkedList* LL_create(void) { return new_record<LinkedList>(); }

void LL_push(LinkedList* onlist, void* topush) {
    auto* element = static_cast<LinkedListElement*>(new_block(sizeof(LinkedListElement)));
    if (element == nullptr) return;  // The caller reads errno.
    LinkedListElement* before = onlist->tail;
    *element = {topush, nullptr, before};
    (before != nullptr ? before->next : onlist->head) = element;
    onlist->tail = element;
    ++onlist->itemcount;
}

void* LL_pop(LinkedList* fromlist) {
    if (fromlist->itemcount == 0) return nullptr;
    LinkedListElement* last = fromlist->tail;
    void* value = last->value;
    fromlist->tail = last->prev;
    (last->prev != nullptr ? last->prev->next : fromlist->head) = nullptr;
    --fromlist->itemcount;
    free(last);
    return value;
}

void* LL_dequeue(LinkedList* fromlist) {
    if (fromlist->itemcount == 0) return nullptr;
    LinkedListElement* first = fromlist->head;
    void* value = first->value;
    fromlist->head = first->next;
    (first->next != nullptr ? first->next->prev : fromlist->tail) = nullptr;
    --fromlist->itemcount;
    free(first);
    return value;
}

void LL_delete(LinkedList* todelete) {
    while (todelete->itemcount != 0) (void)LL_pop(todelete);
    free(todelete);
}

LinkedListEnum* LL_newenum(LinkedList* fromlist) {
    auto* cursor = new_record<LinkedListEnum>();
    if (cursor != nullptr) cursor->oflist = fromlist;
    return cursor;
}

// At the end of the walk the cursor stays on the tail, so a later call finds new elements.
void* LL_next(LinkedListEnum* onenum) {
    LinkedListElement* current = onenum->current;
    LinkedListElement* next = current != nullptr ? current->next : onenum->oflist->head;
    return next != nullptr ? stand_on(onenum, next) : nullptr;
}

void* LL_previous(LinkedListEnum* onenum) {
    LinkedListElement* current = onenum->current;
    return stand_on(onenum, current != nullptr ? current->prev : nullptr);
}

void* LL_reset(LinkedListEnum* onenum) { return stand_on(onenum, nullptr); }

void* LL_end(LinkedListEnum* onenum) { return stand_on(onenum, onenum->oflist->tail); }

void LL_enumdelete(LinkedListEnum* todelete) { free(todelete); }
