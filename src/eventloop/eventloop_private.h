// The event loop's records and what its files offer to one another.
//
// Lock order: eventlists_mutex of a context, then contexts_mutex, then timerlist_mutex or
// processlist_mutex. disposition_mutex comes after eventlists_mutex, and no other lock is taken
// under it. A start or an end of a loop holds none of these; it takes channel.cpp's lock, and
// before it, for the loop's own thread, that of thread.cpp. fork() takes contexts_mutex,
// channel.cpp's lock and the list locks of contexts that are idle.
#ifndef TESSRA_EVENTLOOP_PRIVATE_H
#define TESSRA_EVENTLOOP_PRIVATE_H

#include <pthread.h>
#include <sys/select.h>

#include <atomic>
#include <cstdint>

#include "eventloop/pending_signals.h"
#include "internal/assumptions.h"
#include "internal/guards.h"
#include "tessra/eventloop.h"
#include "tessra/list.h"
#include "tessra/misc.h"

namespace tessra {

using Milliseconds = long long unsigned int;
struct event_fd_t;

inline const pthread_t kNoThread = (pthread_t)-1;
// pthread_equal() is a call in some C libraries, and a comparison in each.
inline bool is_caller(pthread_t thread) { return thread == pthread_self(); }
constexpr int kNoFd = -1;
constexpr char kWakeUp = '-';

// The macros of some C libraries mix the descriptor with sizes.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wsign-conversion"
inline void insert_fd(int fd, fd_set& set) { FD_SET(fd, &set); }
inline bool contains_fd(int fd, const fd_set& set) { return FD_ISSET(fd, &set) != 0; }
#pragma GCC diagnostic pop

// The lock of a context's lists, which its holder may take again. It does what recursive_mutex does
// without the lock that all of those share: `owner_` is the holder's alone to write, so a thread
// that reads itself there is the holder, in whatever order it sees what others write.
class ListMutex {
public:
    void lock();
    // From a thread that isn't the holder this has no effect.
    void unlock();
    bool is_held() const { return is_caller(owner_.load(std::memory_order_relaxed)); }
    void destroy() { (void)pthread_mutex_destroy(&mutex_); }

private:
    pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
    std::atomic<pthread_t> owner_{kNoThread};
    unsigned depth_ = 0;  // Unmatched locks of the holder.
};

// Holds such a lock; unlock() and lock() open a gap in between, around foreign code.
class ListLock : NotCopyable {
public:
    explicit ListLock(ListMutex& mutex) : mutex_(mutex) { lock(); }
    ~ListLock() { unlock(); }

    void lock() { mutex_.lock(); }
    void unlock() { mutex_.unlock(); }

private:
    ListMutex& mutex_;
};

// The three sets of select(), as built from the descriptor watchers or as select() returned them.
struct SelectSets {
    fd_set read;
    fd_set write;
    fd_set except;
};

// Whether the loop's own copy of something needs to be made again. Set by others before they wake
// the loop, which is what orders it: one that is seen late is seen in the next pass. A start sets
// it, since there may have been nobody to wake.
class Stale {
public:
    constexpr explicit Stale(bool stale) : stale_(stale) {}
    explicit operator bool() const { return stale_.load(std::memory_order_relaxed); }
    void set() { stale_.store(true, std::memory_order_relaxed); }
    void clear() { stale_.store(false, std::memory_order_relaxed); }

private:
    std::atomic<bool> stale_;
};

// Who watches a descriptor, if anybody does.
struct WatcherSlot {
    event_fd_t* watcher;
};

// The sets that the watchers ask for, kept until a watcher comes or goes. The channel is not in
// them. The loop's thread only, apart from `stale`, so that it looks at them without a lock.
struct WatchedSets {
    SelectSets sets;
    int max_fd;
    bool has_unselected;  // Some watcher is in no set, so select() doesn't notice its closing.
    // On the heap. Null while watchers are few, if two have one descriptor, or if memory is short.
    WatcherSlot* by_fd;
    unsigned int slots;  // Of that table.
    Stale stale{true};   // Set by whoever changes the list.
};

// The first timer as the loop has last seen it, so that a pass with nothing due takes no lock. The
// loop's thread only, apart from `stale`.
struct FirstTimer {
    Milliseconds deadline;
    bool exists;
    Stale stale{true};  // Set by whoever changes the list, until a timer phase has walked it.
};

constexpr unsigned int kMessageSize = 1 + sizeof(siginfo_t);  // Of a caught signal.

// What the loop has read from its channel ahead of its passes, so that a signal doesn't wait behind
// wake-ups. The loop's thread only, apart from the atomics.
struct ReadAhead {
    unsigned int owed;                    // Passes, one for each wake-up.
    unsigned int filled;                  // Bytes of the context's `signals`.
    unsigned int missing;                 // Bytes of the last of these, if it is not whole.
    std::atomic<int> unread;              // Wake-ups in the channel.
    std::atomic<unsigned int> unwritten;  // Passes that wake-ups without a byte owe.
};
inline bool has_signal(const ReadAhead& ahead) { return ahead.filled >= kMessageSize; }
inline bool has_message(const ReadAhead& ahead) { return ahead.owed != 0 || has_signal(ahead); }

// Ways past most timers of a long list; see timers.cpp. Every timer has a bucket once there is a
// table, and one in four is on the first express lane, one in four of those on the next.
constexpr unsigned int kTimerLanes = 6;
struct TimerIndex {
    list_t lanes[kTimerLanes];
    list_t* buckets;  // Null while timers are few, and if memory is short.
    unsigned int bucket_count;
    unsigned int count;  // Of the timers on the list.
    std::atomic<uint32_t> adds;
};

}  // namespace tessra

struct event_loop_ctx {
    list_t list;  // Node on the list of running loops; see channel.cpp.
    list_t timer_queue;
    list_t fd_queue;
    list_t process_queue;
    list_t signal_queue;
    std::atomic<int> ping_fd;  // Written at start and end; read by every thread and the catcher.
    int pong_fd;               // The loop's thread only, apart from start and end.
    std::atomic<pthread_t> eloopthread;
    std::atomic<unsigned char> async_loop_started;
    std::atomic<pthread_t> async_loop;
    tessra::ReadAhead ahead;
    tessra::ListMutex timerlist_mutex;    // Guards timer_queue and timer_index.
    tessra::ListMutex eventlists_mutex;   // Guards fd_queue, signal_queue and watched.
    tessra::ListMutex processlist_mutex;  // Guards process_queue.
    int do_events_reentrance;             // The loop's thread only.
    std::atomic<bool> in_loop;            // From a start to the end of its run, beyond a cancel.
    list_t contexts;                      // Node on the list of all contexts; see context.cpp.
    tessra::WatchedSets watched;
    tessra::PendingSignals* pending;  // Beside the context; for as long as it lives.
    bool pending_turn;  // Let one of them go before the next message. The loop's thread only.
    tessra::FirstTimer first_timer;
    tessra::TimerIndex timer_index;
    unsigned char signals[4 * tessra::kMessageSize];  // Read ahead, in their order.
};

namespace tessra {

using event_loop_ctx_t = event_loop_ctx;

extern event_loop_ctx_t default_el_ctx;

// Whether the calling thread runs the loop. After a handler this is false in a child of fork() that
// returns from there: what the context has then is not for the pass that called the handler.
inline bool is_running_here(const event_loop_ctx_t& el_ctx) {
    // Relaxed: only the thread itself stores its identity.
    return is_caller(el_ctx.eloopthread.load(std::memory_order_relaxed));
}

struct event_timer_t {
    list_t list;
    timer_handler_t handler;
    void* arg;
    Milliseconds time;
    list_t bucket;  // Node among the timers with the same hash of handler and argument.
    int locked;
    int to_be_deleted;
    unsigned int lanes;   // Nodes on express lanes follow the record.
    unsigned int* count;  // That of its list.
};

struct event_fd_t {
    list_t list;
    fd_handler_t handler;
    void* arg;
    int fd;
    int type;
    int locked;
    int to_be_deleted;
    unsigned int position;  // On the list when the sets were built; kUntested before that.
};

struct event_signal_t {
    list_t list;
    signal_handler_t handler;
    void* arg;
    int signal;
    int locked;
    int to_be_deleted;
};

struct process_t {
    list_t list;
    int pid;
    process_handler_t handler;
    void* arg;
    int locked;
    int to_be_deleted;
};

// loop.cpp
int run_loop(event_loop_ctx_t& el_ctx, bool (*on_start)());

// thread.cpp: for a child of fork(), which has no such thread.
void thread_forget_parent();

// context.cpp: all contexts.
extern pthread_mutex_t contexts_mutex;
extern list_t contexts;
event_loop_ctx_t* context_of(list_t* node);
// Makes a context as event_mc_init() gives it.
void set_up(event_loop_ctx_t& el_ctx, PendingSignals* pending);

// channel.cpp: the wake-up channel and the list of running loops.
bool channel_start(event_loop_ctx_t& el_ctx);
void channel_end(event_loop_ctx_t& el_ctx);
// Closes what a failed start has left open.
void channel_discard_leftover(event_loop_ctx_t& el_ctx);
void channel_cancel(event_loop_ctx_t& el_ctx);
// No loop starts or ends between these.
void channel_lock();
void channel_unlock();
// For a child of fork(), in which no loop of the parent runs.
void channel_forget_parent();

// fork.cpp
// Registers the handlers that make fork() safe; false if there is no memory for them.
bool register_fork_handlers();

// channel.cpp again.
// Holds a list's mutex for a change, and wakes the loop in the end. The byte is written once the
// mutex is free, so that the loop doesn't wake only to wait for it: with one processor those are
// two switches for nothing. The loop may see the change at once and end, and its owner free the
// context, so the writer enters the gate that the end waits at before it lets go of the mutex.
class ChangeLock : NotCopyable {
public:
    ChangeLock(event_loop_ctx_tp el_ctx, ListMutex& mutex);
    ~ChangeLock();

private:
    event_loop_ctx_tp el_ctx_;
    ListMutex& mutex_;
};

// Reads until there is a signal or the channel is empty.
void channel_read_ahead(event_loop_ctx_t& el_ctx);
// Takes a signal that has been read and returns its number, or a wake-up, or nothing, for 0.
int channel_take_message(event_loop_ctx_t& el_ctx, siginfo_t& info);
void channel_send_signal(int sig, const siginfo_t& info);

// timers.cpp
void unlink_entry(event_timer_t* timer);
bool timer_add(event_loop_ctx_tp el_ctx, timer_handler_t handler, void* arg, Milliseconds timeout);
void update_timers(event_loop_ctx_tp el_ctx, long long int tdiff);
timeval* timer_timeout(event_loop_ctx_tp el_ctx, Milliseconds now, timeval& timeout);
bool run_due_timers(event_loop_ctx_tp el_ctx, Milliseconds now, bool handler_ran);
void event_timer_free(event_loop_ctx_tp el_ctx);

// descriptors.cpp
int fill_select_sets(event_loop_ctx_tp el_ctx, SelectSets& sets);
void exit_if_descriptor_closed(event_loop_ctx_tp el_ctx);
void run_ready_descriptors_locked(event_loop_ctx_tp el_ctx, const SelectSets& ready,
                                  int ready_count);
void event_fd_free(event_loop_ctx_tp el_ctx);

// signals.cpp
// Held where the library sets the catcher, and where the end of a shell command looks at a
// disposition and puts an older one back.
extern pthread_mutex_t disposition_mutex;
bool signal_add(event_loop_ctx_tp el_ctx, signal_handler_t handler, void* arg, int signal);
void run_signal_watchers_locked(event_loop_ctx_tp el_ctx, int signal, siginfo_t& info);
void event_signal_free(event_loop_ctx_tp el_ctx);

// children.cpp
void event_sigchld_hndlr(int signal, siginfo_t* info, void* arg);
void process_free(event_loop_ctx_tp el_ctx);
// From now on SIGCHLD doesn't look at this context, which is about to be freed. Under
// contexts_mutex.
void forget_child_context_locked(event_loop_ctx_tp el_ctx);
// Ends the walks of the context's children that are on this thread's stack, and lets go of the lock
// that they hold.
void leave_child_walks(event_loop_ctx_tp el_ctx);
// For a child of fork(): the next watcher is its first.
void children_forget_parent();

// log.cpp: the loop's failures, for liblog.
void log_start_failure(const char* text, int line);
void log_select_failure(int error, int line);

}  // namespace tessra

#endif
