// The wake-up channel of a loop, and the list of the running loops that the signal catcher walks.
//
// The channel is a FIFO that exists only as a pair of descriptors. Messages are '-' (look again)
// and 'S' plus a signal number, followed by that signal's siginfo_t. A message is written with a
// single write() below PIPE_BUF, so it is in the channel whole or not at all and never interleaved.
// A signal that finds the channel full is kept beside it; see pending_signals.h.
//
// The catcher runs in signal context, on any thread, at any instant, and takes no lock. What keeps
// it from a freed context or a closed descriptor:
//   - Starts and ends of loops change event_loop_list under channel_mutex, one store of a link at a
//     time, so that every node which the catcher can reach is linked forwards to the head.
//   - Whoever uses a ping_fd stands inside channel_gate. An end takes the context off the list and
//     ping_fd out of it, waits until all who could have seen either have left the gate, and closes.
//   - After fork() the child has the parent's list and descriptors, but not its loops, which
//     loops_pid tells.

#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "eventloop/eventloop_private.h"

namespace tessra {

namespace {

// Lets a writer wait for all readers that may still use what it has withdrawn. Entering and leaving
// are lock-free and signal-safe. Two counters, so that newcomers don't prolong the wait: a waiter
// sends them to the other counter. It does so twice, since a reader that was held up between
// choosing its counter and entering it may stand in the one that the first round didn't wait for.
class ReaderGate {
public:
    unsigned enter() {
        const unsigned side = side_.load();
        inside_[side].fetch_add(1);
        return side;
    }

    void leave(unsigned side) { inside_[side].fetch_sub(1); }

    // For one waiter at a time. Readers only make non-blocking writes, so this is short; it sleeps
    // because a reader that has been preempted may have a lower priority than the waiter.
    void wait_for_readers() {
        for (int round = 0; round < 2; ++round) {
            const unsigned old_side = side_.load();
            side_.store(old_side ^ 1U);
            const timespec pause = {0, 100000};
            while (inside_[old_side].load() != 0) (void)nanosleep(&pause, nullptr);
        }
    }

    // For a child of fork(), which inherits the counts of threads that it doesn't have.
    void reset() {
        inside_[0].store(0);
        inside_[1].store(0);
    }

private:
    // Sequentially consistent throughout: a reader's entry and the waiter's look at the counter
    // must have one order, or each could miss the other.
    std::atomic<unsigned> side_{0};
    std::atomic<int> inside_[2]{0, 0};
};

class InsideGate : NotCopyable {
public:
    explicit InsideGate(ReaderGate& gate) : gate_(gate), side_(gate.enter()) {}
    ~InsideGate() { gate_.leave(side_); }

private:
    ReaderGate& gate_;
    unsigned side_;
};

constinit list_t event_loop_list = {&event_loop_list, &event_loop_list};
constinit std::atomic<pid_t> loops_pid{0};
constinit ReaderGate channel_gate;
pthread_mutex_t channel_mutex = PTHREAD_MUTEX_INITIALIZER;

constexpr unsigned char kSignalBase = 'S';

struct SignalMessage {
    unsigned char announcement;
    unsigned char info[sizeof(siginfo_t)];
};
static_assert(sizeof(SignalMessage) == 129 && sizeof(SignalMessage) <= PIPE_BUF,
              "a message is one atomic write");

list_t* load_next(list_t& node) { return std::atomic_ref<list_t*>(node.next).load(); }
void store_next(list_t& node, list_t* next) { std::atomic_ref<list_t*>(node.next).store(next); }

// Links the context at the tail; the store that makes it reachable comes last.
void list_running_locked(event_loop_ctx_t& el_ctx) {
    list_t& node = el_ctx.list;
    node.next = &event_loop_list;
    node.prev = event_loop_list.prev;
    event_loop_list.prev = &node;
    store_next(*node.prev, &node);
}

// Unlinks the context, but leaves its own link forwards: a catcher may stand on it.
void unlist_running_locked(event_loop_ctx_t& el_ctx) {
    list_t& node = el_ctx.list;
    store_next(*node.prev, node.next);
    node.next->prev = node.prev;
}

// In a child of fork() no loop of the list runs.
void forget_loops_of_parent_locked() {
    const pid_t self = getpid();
    if (loops_pid.load() == self) return;
    store_next(event_loop_list, &event_loop_list);
    event_loop_list.prev = &event_loop_list;
    channel_gate.reset();
    loops_pid.store(self);
}

void close_if_open(int& fd) {
    if (fd != kNoFd) (void)close(fd);
    fd = kNoFd;
}

// A descriptor of the channel stays with this process: it is closed on exec.
int open_end(const char* path, int access) {
    return open(path, access | O_NONBLOCK | O_CLOEXEC | O_NOFOLLOW);
}

// The name is predictable and lies where everybody can write, so what has been opened is looked at:
// it must be one FIFO at both ends, and this user's own if it was there before.
bool is_our_fifo(int end, bool existed) {
    struct stat status;
    return fstat(end, &status) == 0 && S_ISFIFO(status.st_mode) &&
           (!existed || status.st_uid == geteuid());
}

bool is_same_file(int end, int other_end) {
    struct stat one, other;
    return fstat(end, &one) == 0 && fstat(other_end, &other) == 0 && one.st_dev == other.st_dev &&
           one.st_ino == other.st_ino;
}

bool open_channel_locked(event_loop_ctx_t& el_ctx) {
    char path[40];
    (void)snprintf(path, sizeof path, "%s%d", "/tmp/evtloop", getpid());
    // A start whose write end couldn't be opened has left its read end behind.
    close_if_open(el_ctx.pong_fd);

    const bool made = mkfifo(path, 0666) == 0;
    if (!made && errno != EEXIST) {
        log_start_failure("<%x> %s:%s(%d) - Failed to create fifo\n", __LINE__);
        return false;
    }
    // The read end first: without a reader a non-blocking open for writing fails.
    el_ctx.pong_fd = open_end(path, O_RDONLY);
    if (el_ctx.pong_fd != kNoFd && !is_our_fifo(el_ctx.pong_fd, !made)) {
        close_if_open(el_ctx.pong_fd);
        errno = EPERM;
    }
    if (el_ctx.pong_fd == kNoFd) {
        log_start_failure("<%x> %s:%s(%d) - Failed to open pingpong fifo for reading\n", __LINE__);
        return false;
    }
    int ping_fd = open_end(path, O_WRONLY);
    if (ping_fd == kNoFd) {
        log_start_failure("<%x> %s:%s(%d) - Failed to open pingpong fifo for writing\n", __LINE__);
        return false;
    }
    const bool ours = is_same_file(el_ctx.pong_fd, ping_fd);
    if (ours) (void)unlink(path);
    if (!ours || el_ctx.pong_fd >= FD_SETSIZE) {
        errno = ours ? EMFILE : EPERM;
        close_if_open(ping_fd);
        close_if_open(el_ctx.pong_fd);
        log_start_failure("<%x> %s:%s(%d) - Failed to open pingpong fifo for reading\n", __LINE__);
        return false;
    }
    el_ctx.ping_fd.store(ping_fd);
    return true;
}

// A full channel loses the byte; the bytes in it wake the loop all the same.
void write_wake_up(int fd) {
    if (fd != kNoFd) (void)!write(fd, &kWakeUp, 1);
}

bool read_exactly(int fd, void* into, size_t size_bytes) {
    auto* rest = static_cast<char*>(into);
    while (size_bytes > 0) {
        const ssize_t got = read(fd, rest, size_bytes);
        if (got == -1 && errno == EINTR) continue;
        if (got <= 0) return false;
        rest += got;
        size_bytes -= static_cast<size_t>(got);
    }
    return true;
}

}  // namespace

bool channel_start(event_loop_ctx_t& el_ctx) {
    // Also the place where two threads that start loops at the same moment are kept apart: they
    // would meet at the same FIFO.
    const MutexLock lock(channel_mutex);
    if (el_ctx.in_loop || el_ctx.async_loop_started.load() != 0) {
        errno = EBUSY;
        return false;
    }
    forget_loops_of_parent_locked();
    if (!open_channel_locked(el_ctx)) return false;
    el_ctx.pending->clear();
    // Who changes a list while the channel comes up may not have seen it, and so wakes nobody. The
    // first look takes the lists' locks: what it misses comes later and does see the channel.
    el_ctx.watched.stale.set();
    el_ctx.first_timer.stale.set();
    el_ctx.in_loop = true;
    el_ctx.async_loop_started.store(1);
    el_ctx.eloopthread.store(pthread_self());
    list_running_locked(el_ctx);
    return true;
}

void channel_end(event_loop_ctx_t& el_ctx) {
    const MutexLock lock(channel_mutex);
    unlist_running_locked(el_ctx);
    int ping_fd = el_ctx.ping_fd.exchange(kNoFd);
    channel_gate.wait_for_readers();
    el_ctx.list = {nullptr, nullptr};
    close_if_open(ping_fd);
    close_if_open(el_ctx.pong_fd);
    el_ctx.eloopthread.store(kNoThread);
    el_ctx.in_loop = false;
}

void channel_discard_leftover(event_loop_ctx_t& el_ctx) { close_if_open(el_ctx.pong_fd); }

void ping_eventloop(event_loop_ctx_tp el_ctx) {
    if (el_ctx->ping_fd.load() == kNoFd) return;
    const ErrnoKeeper keep_errno;
    const InsideGate inside(channel_gate);
    write_wake_up(el_ctx->ping_fd.load());
}

ChangeLock::ChangeLock(event_loop_ctx_tp el_ctx, recursive_mutex& mutex)
    : el_ctx_(el_ctx), mutex_(mutex) {
    recursive_mutex_lock(&mutex);
}

ChangeLock::~ChangeLock() {
    if (el_ctx_->ping_fd.load() == kNoFd) {
        recursive_mutex_unlock(&mutex_);
        return;
    }
    const ErrnoKeeper keep_errno;
    const InsideGate inside(channel_gate);
    const int fd = el_ctx_->ping_fd.load();
    recursive_mutex_unlock(&mutex_);
    write_wake_up(fd);
}

void channel_send_signal(int sig, const siginfo_t& info) {
    if (loops_pid.load() != getpid()) return;
    SignalMessage message;
    message.announcement = static_cast<unsigned char>(kSignalBase + sig);
    memcpy(message.info, &info, sizeof message.info);

    const InsideGate inside(channel_gate);
    for (list_t* node = load_next(event_loop_list); node != &event_loop_list;) {
        auto* el_ctx = reinterpret_cast<event_loop_ctx_t*>(node);
        node = load_next(*node);
        const int fd = el_ctx->ping_fd.load();
        if (fd == kNoFd || write(fd, &message, sizeof message) == sizeof message) continue;
        el_ctx->pending->keep(sig, info);
        // By now the channel may be empty and the loop asleep. If it is still full, it isn't.
        write_wake_up(fd);
    }
}

int channel_take_message(const event_loop_ctx_t& el_ctx, siginfo_t& info) {
    unsigned char byte = 0;
    if (!read_exactly(el_ctx.pong_fd, &byte, sizeof byte)) return 0;
    const int signal = byte - kSignalBase;
    if (signal < 1 || signal > kMaxSignal) return 0;
    return read_exactly(el_ctx.pong_fd, &info, sizeof info) ? signal : 0;
}

}  // namespace tessra
