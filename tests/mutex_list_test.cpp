// The walk over the intrusive list, and the recursive mutex through its public fields.
#include <cerrno>
#include <thread>
#include <vector>

#include "support/harness.h"
#include "tessra/list.h"
#include "tessra/misc.h"

namespace {

struct Record {
    list_t node;
};

TEST(List, WalkFollowsTheEntryThatItsBodyFreed) {
    list_t head;
    list_init(&head);
    for (int n = 0; n < 3; ++n) list_add_tail(&head, &(new Record)->node);
    list_t *outer, *inner;
    int visits = 0, inner_visits = 0;
    dll_foreach(outer, &head) {
        dll_foreach(inner, &head) ++inner_visits;
        list_delete(outer);
        delete reinterpret_cast<Record*>(outer);
        ++visits;
    }
    EXPECT_EQ(3, visits);
    EXPECT_EQ(3 + 2 + 1, inner_visits);
    EXPECT_EQ(&head, head.next);
}

// Returns whether any thread holds the lock.
bool held(recursive_mutex* lock) {
    if (pthread_mutex_trylock(&lock->mutex) == EBUSY) return true;
    pthread_mutex_unlock(&lock->mutex);
    return false;
}

bool is_free(recursive_mutex* lock) {
    return !held(lock) && lock->refcount == 0 && lock->owner == (pthread_t)-1;
}

TEST(RecursiveMutex, UnlockFreesTooEarlyOrForAnotherThread) {
    recursive_mutex lock = RECURSIVE_MUTEX_INITIALIZER, other = RECURSIVE_MUTEX_INITIALIZER;
    recursive_mutex_unlock(&lock);
    EXPECT_TRUE(is_free(&lock));
    recursive_mutex_lock(&lock);
    recursive_mutex_lock(&other);
    recursive_mutex_lock(&lock);
    std::thread([&lock] { recursive_mutex_unlock(&lock); }).join();
    EXPECT_EQ(2u, lock.refcount);
    recursive_mutex_unlock(&lock);
    EXPECT_TRUE(held(&lock) && held(&other));
    recursive_mutex_unlock(&lock);
    EXPECT_TRUE(is_free(&lock) && held(&other));
    recursive_mutex_unlock(&other);
    EXPECT_TRUE(is_free(&other));
}

// A waiter that kept rec_mutex would stop the holder's unlock, and the test would hang.
ISOLATED_TEST(RecursiveMutex, ContendingThreadsOverlapOrDeadlock) {
    recursive_mutex lock = RECURSIVE_MUTEX_INITIALIZER;
    long total = 0;
    std::vector<std::thread> threads;
    for (int n = 0; n < 4; ++n) {
        threads.emplace_back([&] {
            for (int round = 0; round < 5000; ++round) {
                recursive_mutex_lock(&lock);
                recursive_mutex_lock(&lock);
                ++total;
                recursive_mutex_unlock(&lock);
                ++total;
                recursive_mutex_unlock(&lock);
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(4 * 5000 * 2, total);
    EXPECT_TRUE(is_free(&lock));
}

}  // namespace
