// Compares the linked list and a cursor with a plain deque.
#include <cerrno>
#include <deque>
#include <random>

#include "support/harness.h"
#include "tessra/linkedlist.h"

namespace {
// Both chains must have the values of the model.
void expect_list(const LinkedList* list, const std::deque<void*>& model) {
    ASSERT_EQ(model.size(), list->itemcount);
    LinkedListElement *element = list->head, *before = nullptr;
    for (void* value : model) {
        ASSERT_TRUE(element && element->value == value && element->prev == before);
        before = element;
        element = element->next;
    }
    ASSERT_TRUE(!element && list->tail == before);
}

// LL_delete() gets the rest, NULLs among it, and the leak checker sees what it leaves.
TEST(LinkedList, ValueIsLostReorderedOrLeakedOrCursorGoesAstray) {
    const unsigned seed = std::random_device()();
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    static char values[4];
    LinkedList* list = LL_create();
    LinkedListEnum* cursor = LL_newenum(list);
    std::deque<void*> model;
    size_t at = 0;  // 0 is before the first element, n is on the n-th.
    const auto value_at = [&](size_t n) { return n ? model[n - 1] : nullptr; };
    for (int step = 0; step < 40000 && !testing::Test::HasFailure(); ++step) {
        void *expected = nullptr, *got = nullptr;
        const auto action = random() % (model.size() < 9 ? 6 : 5);
        if (action == 0 || action == 5) {
            void* value = random() % 3 ? &values[random() % 4] : nullptr;
            fail_allocation = random() % 4 == 0;
            if (!fail_allocation) model.push_back(value);
            const int error = fail_allocation ? ENOMEM : 0;
            errno = 0;
            LL_push(list, value);
            ASSERT_EQ(error, errno);
        } else if (action == 1) {
            const bool tail = random() % 2;
            expected = value_at(tail ? model.size() : !model.empty());
            got = tail ? LL_pop(list) : LL_dequeue(list);
            if (!model.empty()) model.erase(tail ? model.end() - 1 : model.begin());
            LL_reset(cursor);
            at = 0;
        } else if (action == 2) {
            if (at > 0) --at;
            expected = value_at(at);
            got = LL_previous(cursor);
        } else if (action == 3 && random() % 4 == 0) {
            at = model.size();
            expected = value_at(at);
            got = LL_end(cursor);
        } else {
            if (at < model.size()) {
                ++at;
                expected = value_at(at);
            }
            got = LL_next(cursor);
        }
        ASSERT_EQ(expected, got) << step;
        expect_list(list, model);
        const LinkedListElement* element = at ? list->head : nullptr;
        for (size_t n = 1; n < at; ++n) element = element->next;
        ASSERT_EQ(element, cursor->current) << step;
    }
    LL_push(list, nullptr);
    LL_push(list, values);
    LL_push(list, nullptr);
    LL_delete(list);
    LL_enumdelete(cursor);
}

}  // namespace
