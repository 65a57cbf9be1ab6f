#include "eventloop/list_mutex.h"

#include "internal/at_fork.h"

namespace tessra {

void ListMutex::lock() {
    const pthread_t self = pthread_self();
    if (owner_.load(std::memory_order_relaxed) != self) {
        (void)register_fork_handlers();  // Without them, only a fork() beside this is unsafe.
        (void)pthread_mutex_lock(&mutex_);
        owner_.store(self, std::memory_order_relaxed);
    }
    ++depth_;
}

void ListMutex::unlock() {
    if (!is_held() || --depth_ != 0) return;
    owner_.store(kNoThread, std::memory_order_relaxed);
    (void)pthread_mutex_unlock(&mutex_);
}

}  // namespace tessra
