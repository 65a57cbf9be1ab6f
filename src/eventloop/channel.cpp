#include "eventloop/channel.h"

#include <fcntl.h>
#include <limits.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <new>

#include "eventloop/fifo_name.h"
#include "eventloop/running_loops.h"

namespace tessra {

namespace {

constexpr char kWakeUp = '-';
constexpr unsigned char kSignalBase = 'S';
constexpr int kMostUnread = 1024;
// The most reads of a pass. They take more bytes than there can be wake-ups in front of a signal.
// The limit keeps a flood of wake-ups from holding the loop.
constexpr int kMostReads = 4;
static_assert(kMessageSize == 129 && kMessageSize <= PIPE_BUF, "a message is one atomic write");

// Moves the ends away from the numbers of standard input, output and error. A daemon may be started
// with these closed, and the loop would read any text that the daemon prints as messages. For the
// same reason this drops the text that another thread has printed meanwhile.
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

bool is_signal(unsigned char byte) {
    return byte > kSignalBase && byte <= kSignalBase + kMaxSignal;
}

}  // namespace

bool Channel::open_pipe() {
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
    new (&ahead_) ReadAhead;
    waiting_->kept.clear();
    pong_fd_ = ends[0];
    ping_fd_.store(ends[1]);
    return true;
}

bool Channel::open(StartFailure& failure) {
    if (!make_and_remove_fifo(pong_fd_, failure)) return false;
    return open_pipe() || note_failure(failure, kNoReading, __LINE__);
}

void Channel::close_ends(int ping_fd) {
    close_if_open(ping_fd);
    close_if_open(pong_fd_);
}

void Channel::close_leftover() { close_if_open(pong_fd_); }

// From kMostUnread on, this counts the wake-up first and then reads `unread` again. The loop
// subtracts the wake-ups that it has read from `unread` before it takes `unwritten`. So either the
// loop takes this wake-up, too, or the second look shows that the loop has read, and a byte wakes
// it. If the channel is full of signals, the byte is lost, but then the signals wake the loop.
void Channel::wake(int ping_fd) {
    if (ping_fd == kNoFd) return;
    if (ahead_.unread.load(std::memory_order_relaxed) >= kMostUnread) {
        ahead_.unwritten.fetch_add(1);
        if (ahead_.unread.load() >= kMostUnread) return;
    }
    // The count comes after the write, since a write that fails leaves nothing to read.
    if (write(ping_fd, &kWakeUp, 1) == 1) ahead_.unread.fetch_add(1, std::memory_order_relaxed);
}

void make_message(int signal, const siginfo_t& info, unsigned char (&message)[kMessageSize]) {
    message[0] = static_cast<unsigned char>(kSignalBase + signal);
    memcpy(message + 1, &info, sizeof info);
}

void Channel::send_signal(int signal, const siginfo_t& info,
                          const unsigned char (&message)[kMessageSize]) {
    const int fd = ping_fd();
    if (fd == kNoFd || write(fd, message, sizeof message) == sizeof message) return;
    waiting_->kept.keep(signal, info);
    // The loop may have drained the channel and gone to sleep, so wake it. If the channel is still
    // full, this write fails, but then the loop is awake anyway.
    wake(fd);
}

// Sorts `count` bytes that were read in behind the signals: counts the wake-ups, and closes the
// gaps that they leave. Bytes that are no message count as wake-ups.
void Channel::sort_bytes(const unsigned char* bytes, size_t count) {
    int wake_ups = 0;
    for (; count != 0; --count, ++bytes) {
        if (ahead_.missing == 0) {
            if (!is_signal(*bytes)) {
                ++wake_ups;
                continue;
            }
            ahead_.missing = kMessageSize;
        }
        waiting_->read_ahead[ahead_.filled++] = *bytes;
        --ahead_.missing;
    }
    ahead_.owed += static_cast<unsigned>(wake_ups);
    ahead_.unread.fetch_sub(wake_ups);
}

void Channel::read_ahead() {
    for (int reads = 0; reads < kMostReads && !has_signal(); ++reads) {
        unsigned char* const room = waiting_->read_ahead + ahead_.filled;
        const size_t wanted = sizeof waiting_->read_ahead - ahead_.filled;
        const ssize_t got = read(pong_fd_, room, wanted);
        if (got == -1 && errno == EINTR) continue;
        if (got > 0) sort_bytes(room, static_cast<size_t>(got));
        if (got != static_cast<ssize_t>(wanted)) break;  // The channel is empty.
    }
    ahead_.owed += ahead_.unwritten.exchange(0);
}

// Takes a signal that has been read and returns its number. If there is none, takes a wake-up, if
// any, and returns 0.
int Channel::take_message(siginfo_t& info) {
    if (!has_signal()) {
        if (ahead_.owed != 0) --ahead_.owed;
        return 0;
    }
    unsigned char* const messages = waiting_->read_ahead;
    const int signal = messages[0] - kSignalBase;
    memcpy(&info, messages + 1, sizeof info);
    ahead_.filled -= kMessageSize;
    memmove(messages, messages + kMessageSize, ahead_.filled);
    return signal;
}

int Channel::take_signal(bool has_message, siginfo_t& info) {
    int signal = 0;
    if (has_message && !(kept_turn_ && waiting_->kept.any())) signal = take_message(info);
    kept_turn_ = signal != 0;
    return signal != 0 ? signal : waiting_->kept.take(info);
}

Change::Change(Channel& channel, ListMutex& mutex) : channel_(channel), mutex_(mutex) {
    mutex.lock();
}

Change::~Change() {
    if (channel_.ping_fd() == kNoFd) {
        mutex_.unlock();
        return;
    }
    const InsideGate inside;
    const int fd = channel_.ping_fd();
    mutex_.unlock();
    channel_.wake(fd);
}

}  // namespace tessra
