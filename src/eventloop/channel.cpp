// The wake-up channel of a loop, and the list of the running loops that the signal catcher walks.
//
// The channel is a pipe. Messages are '-' (look again) and 'S' plus a signal number, followed by
// that signal's siginfo_t. A message is written with a single write() below PIPE_BUF, so it is in
// the channel whole or not at all and never interleaved. A signal that finds the channel full is
// kept beside it; see pending_signals.h.
//
// A pass takes one message, and a signal before all wake-ups. So the loop reads ahead, and wake-ups
// become the number of passes that it owes. While kMostUnread of them are in the channel, further
// ones are only counted, so that signals find room there.
//
// A start makes a FIFO in /tmp first, opens it at both ends and removes its name again. Everybody
// can see that name and open the FIFO in between, so it carries no message: the pipe has no name.
//
// The catcher runs in signal context, on any thread, at any instant, and takes no lock. These rules
// keep it from a freed context or a closed descriptor:
//   - Starts and ends of loops change loops.list under loops.mutex, one store of a link at a
//     time, so that every node which the catcher can reach is linked forwards to the head.
//   - Whoever uses a ping_fd is inside loops.gate. An end takes the context off the list and
//     ping_fd out of it, waits until all who could have seen either have left the gate, and closes.
//   - A cancel enters the gate before it clears the run flag. The owner of the context may free it
//     as soon as its loop has returned, and the end waits for the cancel to be through.
//   - After fork() the child has the parent's list and descriptors, but not its loops. Until the
//     fork handlers have run there, loops.pid shows that the list is another process's.

#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <new>

#include "eventloop/eventloop_private.h"

namespace tessra {

namespace {

constexpr long kPauseNanoseconds = 100000;

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
            const timespec pause = {0, kPauseNanoseconds};
            while (inside_[old_side].load() != 0) (void)nanosleep(&pause, nullptr);
        }
    }

    // For a child of fork(), which inherits the counts of threads that it doesn't have.
    void reset() {
        inside_[0].store(0, std::memory_order_relaxed);
        inside_[1].store(0, std::memory_order_relaxed);
    }

private:
    // Sequentially consistent throughout: a reader's entry and the waiter's look at the counter
    // must have one order, or each could miss the other.
    std::atomic<unsigned> side_{0};
    std::atomic<int> inside_[2]{0, 0};
};

// The running loops of the process. Together, since each name of its own costs code to find it.
struct RunningLoops {
    list_t list = {&list, &list};
    std::atomic<pid_t> pid{0};  // Of the process whose loops these are.
    ReaderGate gate;
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;  // Held by a start or an end.
};
constinit RunningLoops loops;

// For whoever uses a ping_fd, the catcher included. pthread_setcancelstate() is not on POSIX's list
// for signal handlers, but in glibc, uClibc and musl it is a store into the thread's own record.
class InsideGate : NotCopyable {
public:
    [[gnu::noinline]] InsideGate() : side_(loops.gate.enter()) {}
    [[gnu::noinline]] ~InsideGate() { loops.gate.leave(side_); }

private:
    CancelDisabled no_cancel_;
    ErrnoKeeper keep_errno_;
    unsigned side_;
};

constexpr unsigned char kSignalBase = 'S';
constexpr int kNameTries = 100;
constexpr int kMostUnread = 1024;
// Of a pass: more than the wake-ups that can be in front of a signal, and an end for a flood.
constexpr int kMostReads = 4;
static_assert(kMessageSize == 129 && kMessageSize <= PIPE_BUF, "a message is one atomic write");

list_t* load_next(list_t& node) { return std::atomic_ref<list_t*>(node.next).load(); }
void store_next(list_t& node, list_t* next) { std::atomic_ref<list_t*>(node.next).store(next); }

// Links the context at the tail; the store that makes it reachable comes last.
void list_running_locked(event_loop_ctx_t& el_ctx) {
    list_t& node = el_ctx.list;
    node.next = &loops.list;
    node.prev = loops.list.prev;
    loops.list.prev = &node;
    store_next(*node.prev, &node);
}

// Unlinks the context, but leaves its own link forwards: a catcher may stand on it.
void unlist_running_locked(event_loop_ctx_t& el_ctx) {
    list_t& node = el_ctx.list;
    store_next(*node.prev, node.next);
    node.next->prev = node.prev;
}

void close_if_open(int& fd) {
    if (fd != kNoFd) (void)close(fd);
    fd = kNoFd;
}

// The step of a start that failed, for the log.
struct StartFailure {
    const char* text = nullptr;
    int line = 0;
};

// Returns false, the result of the step.
bool note_failure(StartFailure& failure, const char* text, int line) {
    failure = {text, line};
    return false;
}

int open_end(const char* path, int access) {
    return open(path, access | O_NONBLOCK | O_CLOEXEC | O_NOFOLLOW);
}

bool is_fifo(int end) {
    struct stat status;
    return fstat(end, &status) == 0 && S_ISFIFO(status.st_mode);
}

constexpr char kNoReading[] = "<%x> %s:%s(%d) - Failed to open pingpong fifo for reading\n";

// The life of the FIFO's name. A start whose write end can't be opened leaves its read end to the
// context.
bool use_name(const char* path, event_loop_ctx_t& el_ctx, StartFailure& failure) {
    close_if_open(el_ctx.pong_fd);
    if (mkfifo(path, 0666) != 0 && errno != EEXIST) {
        return note_failure(failure, "<%x> %s:%s(%d) - Failed to create fifo\n", __LINE__);
    }
    // The read end first: without a reader a non-blocking open for writing fails.
    el_ctx.pong_fd = open_end(path, O_RDONLY);
    if (el_ctx.pong_fd != kNoFd && !is_fifo(el_ctx.pong_fd)) {
        close_if_open(el_ctx.pong_fd);
        errno = EPERM;
    }
    if (el_ctx.pong_fd == kNoFd) return note_failure(failure, kNoReading, __LINE__);
    int write_end = open_end(path, O_WRONLY);
    if (write_end == kNoFd) {
        return note_failure(failure, "<%x> %s:%s(%d) - Failed to open pingpong fifo for writing\n",
                            __LINE__);
    }
    (void)unlink(path);
    close_if_open(write_end);
    close_if_open(el_ctx.pong_fd);
    return true;
}

// A process in another PID namespace may have our number and the same /tmp, so that its start uses
// our name. It removes the name between two of our steps, or makes it anew, which gives these
// errors.
bool is_other_start() { return errno == ENOENT || errno == ENXIO; }

// Moves the ends away from the numbers of standard input, output and error. A daemon may be started
// with these closed, and any text that it prints would be read as messages. So what another thread
// has printed meanwhile is dropped.
bool leave_standard_numbers(int (&ends)[2]) {
    bool fits = true;
    for (int& end : ends) {
        const int low = end;
        end = fcntl(low, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
        fits &= end != kNoFd;
        (void)close(low);
    }
    char printed[64];
    while (fits && read(ends[0], printed, sizeof printed) > 0) continue;
    return fits;
}

bool open_pipe(event_loop_ctx_t& el_ctx) {
    int ends[2];
    if (pipe2(ends, O_NONBLOCK | O_CLOEXEC) != 0) return false;
    // The read end gets the lowest number that is free.
    bool fits = ends[0] > STDERR_FILENO || leave_standard_numbers(ends);
    if (fits && ends[0] >= FD_SETSIZE) {
        errno = EMFILE;
        fits = false;
    }
    if (!fits) {
        const ErrnoKeeper keep_errno;
        for (int& end : ends) close_if_open(end);
        return false;
    }
    new (&el_ctx.ahead) ReadAhead{};
    el_ctx.pong_fd = ends[0];
    el_ctx.ping_fd.store(ends[1]);
    return true;
}

bool open_channel_locked(event_loop_ctx_t& el_ctx, StartFailure& failure) {
    char path[40];
    (void)snprintf(path, sizeof path, "%s%d", "/tmp/evtloop", getpid());
    const timespec pause = {0, kPauseNanoseconds};
    for (int tries = 1; !use_name(path, el_ctx, failure); ++tries) {
        if (!is_other_start() || tries == kNameTries) return false;
        (void)nanosleep(&pause, nullptr);
    }
    failure = {};
    return open_pipe(el_ctx) || note_failure(failure, kNoReading, __LINE__);
}

bool start_locked(event_loop_ctx_t& el_ctx, StartFailure& failure) {
    if (el_ctx.in_loop.load(std::memory_order_relaxed) || el_ctx.async_loop_started.load() != 0) {
        errno = EBUSY;
        return false;
    }
    if (!open_channel_locked(el_ctx, failure)) return false;
    loops.pid.store(getpid(), std::memory_order_relaxed);
    el_ctx.pending->clear();
    // Who changes a list while the channel comes up may not have seen it, and so wakes nobody. The
    // first look takes the lists' locks: what it misses comes later and does see the channel.
    el_ctx.watched.stale.set();
    el_ctx.first_timer.stale.set();
    el_ctx.in_loop.store(true, std::memory_order_relaxed);
    el_ctx.eloopthread.store(pthread_self(), std::memory_order_relaxed);
    el_ctx.async_loop_started.store(1);
    list_running_locked(el_ctx);  // Its store makes those above visible to the catcher.
    return true;
}

// Beyond kMostUnread it counts first and looks again. The loop takes what it has read off `unread`
// before it takes `unwritten`: either it takes this one as well, or it is seen here to have read,
// and a byte wakes it. A channel that is full of signals loses the byte; they wake the loop.
void write_wake_up(ReadAhead& ahead, int fd) {
    if (fd == kNoFd) return;
    if (ahead.unread.load(std::memory_order_relaxed) >= kMostUnread) {
        ahead.unwritten.fetch_add(1);
        if (ahead.unread.load() >= kMostUnread) return;
    }
    // Counted after the write: a write that fails leaves nothing to be read.
    if (write(fd, &kWakeUp, 1) == 1) ahead.unread.fetch_add(1, std::memory_order_relaxed);
}

bool is_signal(unsigned char byte) {
    return byte > kSignalBase && byte <= kSignalBase + kMaxSignal;
}

// Sorts `count` bytes that were read behind the signals: closes the gaps that wake-ups leave. Bytes
// that are no message count as wake-ups.
void sort_bytes(event_loop_ctx_t& el_ctx, const unsigned char* bytes, size_t count) {
    ReadAhead& ahead = el_ctx.ahead;
    int wake_ups = 0;
    for (; count != 0; --count, ++bytes) {
        if (ahead.missing == 0) {
            if (!is_signal(*bytes)) {
                ++wake_ups;
                continue;
            }
            ahead.missing = kMessageSize;
        }
        el_ctx.signals[ahead.filled++] = *bytes;
        --ahead.missing;
    }
    ahead.owed += static_cast<unsigned>(wake_ups);
    ahead.unread.fetch_sub(wake_ups);
}

}  // namespace

void channel_lock() { (void)pthread_mutex_lock(&loops.mutex); }

void channel_unlock() { (void)pthread_mutex_unlock(&loops.mutex); }

// The log is written once loops.mutex is free: the logger may run or end a loop of its own.
bool channel_start(event_loop_ctx_t& el_ctx) {
    if (!register_fork_handlers()) {
        errno = ENOMEM;
        return false;
    }
    StartFailure failure;
    channel_lock();
    const bool started = start_locked(el_ctx, failure);
    channel_unlock();
    if (failure.text != nullptr) log_start_failure(failure.text, failure.line);
    return started;
}

void channel_end(event_loop_ctx_t& el_ctx) {
    const MutexLock lock(loops.mutex);
    unlist_running_locked(el_ctx);
    int ping_fd = el_ctx.ping_fd.exchange(kNoFd);
    loops.gate.wait_for_readers();
    el_ctx.list = {nullptr, nullptr};
    close_if_open(ping_fd);
    close_if_open(el_ctx.pong_fd);
    el_ctx.eloopthread.store(kNoThread, std::memory_order_relaxed);
    el_ctx.in_loop.store(false, std::memory_order_relaxed);
}

void channel_discard_leftover(event_loop_ctx_t& el_ctx) { close_if_open(el_ctx.pong_fd); }

void channel_cancel(event_loop_ctx_t& el_ctx) {
    const InsideGate inside;
    el_ctx.async_loop_started.store(0);
    write_wake_up(el_ctx.ahead, el_ctx.ping_fd.load());
}

void channel_forget_parent() {
    channel_unlock();
    store_next(loops.list, &loops.list);
    loops.list.prev = &loops.list;
    loops.gate.reset();
}

ChangeLock::ChangeLock(event_loop_ctx_tp el_ctx, ListMutex& mutex)
    : el_ctx_(el_ctx), mutex_(mutex) {
    mutex.lock();
}

ChangeLock::~ChangeLock() {
    if (el_ctx_->ping_fd.load() == kNoFd) {
        mutex_.unlock();
        return;
    }
    const InsideGate inside;
    const int fd = el_ctx_->ping_fd.load();
    mutex_.unlock();
    write_wake_up(el_ctx_->ahead, fd);
}

void channel_send_signal(int sig, const siginfo_t& info) {
    if (loops.pid.load() != getpid()) return;
    unsigned char message[kMessageSize];
    message[0] = static_cast<unsigned char>(kSignalBase + sig);
    memcpy(message + 1, &info, sizeof info);

    const InsideGate inside;
    for (list_t* node = load_next(loops.list); node != &loops.list;) {
        auto* el_ctx = reinterpret_cast<event_loop_ctx_t*>(node);
        node = load_next(*node);
        const int fd = el_ctx->ping_fd.load();
        if (fd == kNoFd || write(fd, message, sizeof message) == sizeof message) continue;
        el_ctx->pending->keep(sig, info);
        // The loop may have drained the channel and gone to sleep, so wake it. If the channel is
        // still full, this write fails, but then the loop is awake anyway.
        write_wake_up(el_ctx->ahead, fd);
    }
}

void channel_read_ahead(event_loop_ctx_t& el_ctx) {
    ReadAhead& ahead = el_ctx.ahead;
    for (int reads = 0; reads < kMostReads && !has_signal(ahead); ++reads) {
        unsigned char* const room = el_ctx.signals + ahead.filled;
        const size_t wanted = sizeof el_ctx.signals - ahead.filled;
        const ssize_t got = read(el_ctx.pong_fd, room, wanted);
        if (got == -1 && errno == EINTR) continue;
        if (got > 0) sort_bytes(el_ctx, room, static_cast<size_t>(got));
        if (got != static_cast<ssize_t>(wanted)) break;  // The channel is empty.
    }
    ahead.owed += ahead.unwritten.exchange(0);
}

int channel_take_message(event_loop_ctx_t& el_ctx, siginfo_t& info) {
    ReadAhead& ahead = el_ctx.ahead;
    if (!has_signal(ahead)) {
        if (ahead.owed != 0) --ahead.owed;
        return 0;
    }
    const int signal = el_ctx.signals[0] - kSignalBase;
    memcpy(&info, el_ctx.signals + 1, sizeof info);
    ahead.filled -= kMessageSize;
    memmove(el_ctx.signals, el_ctx.signals + kMessageSize, ahead.filled);
    return signal;
}

}  // namespace tessra
