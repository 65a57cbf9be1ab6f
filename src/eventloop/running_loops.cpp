#include "eventloop/running_loops.h"

namespace tessra {

constinit RunningLoops running_loops;

// Links the node at the tail. The store that makes it reachable comes last.
void RunningLoops::add_locked(list_t& node) {
    pid_.store(getpid(), std::memory_order_relaxed);
    node.next = &list_;
    node.prev = list_.prev;
    list_.prev = &node;
    store_next(*node.prev, &node);
}

// Doesn't change the node's own link forwards, since the catcher may be at the node.
void RunningLoops::unlink_locked(list_t& node) {
    store_next(*node.prev, node.next);
    node.next->prev = node.prev;
}

void RunningLoops::forget_parent() {
    unlock();
    store_next(list_, &list_);
    list_.prev = &list_;
    gate_.reset();
}

InsideGate::InsideGate() : side_(running_loops.gate_.enter()) {}

InsideGate::~InsideGate() { running_loops.gate_.leave(side_); }

}  // namespace tessra
