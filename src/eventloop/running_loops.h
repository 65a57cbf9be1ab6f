// The list of the running loops, which the signal catcher walks, and the gate of their channels.
//
// The catcher runs in signal context, on any thread, at any instant, and takes no lock. These rules
// keep it from using a freed context or a closed descriptor:
//   - Starts and ends of loops change the list under the lock, one store of a link at a time, so
//     that every node which the catcher can reach is linked forwards to the head.
//   - A thread that uses the write end of a channel is inside the gate. An end of a loop takes the
//     loop off the list and the write end out of the channel. Then it waits until all threads that
//     could have seen either have left the gate, and closes the channel.
//   - A cancel enters the gate before it clears the run flag. The owner may free the context as
//     soon as its loop has returned, and the end of the loop waits until the cancel has left the
//     gate.
//   - After fork() the child has the parent's list and descriptors, but not its loops. Until the
//     fork handlers have run there, `pid_` shows that the list belongs to another process.
#ifndef TESSRA_EVENTLOOP_RUNNING_LOOPS_H
#define TESSRA_EVENTLOOP_RUNNING_LOOPS_H

#include <pthread.h>
#include <sys/types.h>
#include <unistd.h>

#include <atomic>

#include "eventloop/reader_gate.h"
#include "internal/guards.h"
#include "tessra/list.h"

namespace tessra {

class RunningLoops {
public:
    // No loop starts or ends while this is held.
    void lock() { (void)pthread_mutex_lock(&mutex_); }
    void unlock() { (void)pthread_mutex_unlock(&mutex_); }

    void add_locked(list_t& node);
    // Unlinks the node, calls withdraw(), and waits until no thread can still use the node or the
    // descriptor that withdraw() has taken out.
    template <class Withdraw>
    void remove_locked(list_t& node, Withdraw withdraw) {
        unlink_locked(node);
        withdraw();
        gate_.wait_for_readers();
        node = {nullptr, nullptr};
    }

    // Signal context: calls visit() with each node, if the list belongs to this process.
    template <class Visit>
    void for_each(Visit visit);

    // For a child of fork(), in which no loop of the parent runs. Releases the lock, too.
    void forget_parent();

private:
    friend class InsideGate;

    static list_t* load_next(list_t& node) { return std::atomic_ref<list_t*>(node.next).load(); }
    static void store_next(list_t& node, list_t* next) {
        std::atomic_ref<list_t*>(node.next).store(next);
    }
    static void unlink_locked(list_t& node);

    list_t list_ = {&list_, &list_};
    std::atomic<pid_t> pid_{0};  // Of the process whose loops these are.
    ReaderGate gate_;
    pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
};

extern RunningLoops running_loops;

// For each thread that uses the write end of a channel, and for the catcher. POSIX doesn't list
// pthread_setcancelstate() as safe in signal handlers, but in glibc, uClibc and musl it is a store
// into the thread's own record.
class InsideGate : NotCopyable {
public:
    InsideGate();
    ~InsideGate();

private:
    CancelDisabled no_cancel_;
    ErrnoKeeper keep_errno_;
    unsigned side_;
};

template <class Visit>
void RunningLoops::for_each(Visit visit) {
    if (pid_.load() != getpid()) return;
    const InsideGate inside;
    for (list_t* node = load_next(list_); node != &list_;) {
        list_t* const next = load_next(*node);
        visit(node);
        node = next;
    }
}

}  // namespace tessra

#endif
