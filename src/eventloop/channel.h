// The wake-up channel of a loop: a pipe, and what the loop has read from it ahead of its passes.
//
// Messages are '-' (look again) and 'S' plus a signal number, followed by that signal's siginfo_t.
// A message is written with a single write() below PIPE_BUF. So the message is in the channel whole
// or not at all, and never interleaved. A signal that finds the channel full is kept beside it; see
// pending_signals.h.
//
// A pass takes one message, and a signal before all wake-ups. So the loop reads ahead, and wake-ups
// become the number of passes that it owes. While kMostUnread of them are in the channel, further
// ones are only counted, so that signals find room there.
//
// Locks: none. The ends change under the lock of running_loops, which also keeps a channel open
// while somebody writes to it.
#ifndef TESSRA_EVENTLOOP_CHANNEL_H
#define TESSRA_EVENTLOOP_CHANNEL_H

#include <atomic>

#include "eventloop/fd_sets.h"
#include "eventloop/list_mutex.h"
#include "eventloop/log.h"
#include "eventloop/pending_signals.h"
#include "internal/assumptions.h"
#include "internal/guards.h"

namespace tessra {

constexpr unsigned int kMessageSize = 1 + sizeof(siginfo_t);  // Of a caught signal.

// Room for the signals that wait for a pass. It is beside the context, for as long as the context
// lives: that of the default one is then zeroed memory, and no data of the library's file.
struct WaitingSignals {
    PendingSignals kept;                         // Those that found the channel full.
    unsigned char read_ahead[4 * kMessageSize];  // Messages, in their order.
};

// Makes the message of a caught signal.
void make_message(int signal, const siginfo_t& info, unsigned char (&message)[kMessageSize]);

class Channel {
public:
    constexpr explicit Channel(WaitingSignals& waiting) : waiting_(&waiting) {}

    // Starts and ends of loops.
    bool open(StartFailure& failure);
    // Takes the write end away from those who would use it next. Returns it for close_ends().
    int withdraw() { return ping_fd_.exchange(kNoFd); }
    void close_ends(int ping_fd);
    // What a failed start has left open.
    void close_leftover();
    // In a child of fork() the number of the leftover may be another file's.
    void forget_leftover() { pong_fd_ = kNoFd; }
    WaitingSignals& waiting() { return *waiting_; }

    // Any thread, inside the gate.
    int ping_fd() const { return ping_fd_.load(); }
    void wake(int ping_fd);
    // Signal context. `message` is the whole message of `info`.
    void send_signal(int signal, const siginfo_t& info,
                     const unsigned char (&message)[kMessageSize]);

    // The loop's thread.
    int pong_fd() const { return pong_fd_; }
    // Whether a pass is owed, whatever select() finds.
    bool has_work() const { return has_message() || waiting_->kept.any(); }
    bool has_message() const { return ahead_.owed != 0 || has_signal(); }
    // Reads until there is a signal or the channel is empty.
    void read_ahead();
    // Takes at most one message, if `has_message`, and returns the number of at most one signal.
    // Those that are kept beside a full channel go when the message was a wake-up, and take turns
    // with other signals.
    int take_signal(bool has_message, siginfo_t& info);

private:
    struct ReadAhead {
        unsigned int owed = 0;       // Passes, one for each wake-up.
        unsigned int filled = 0;     // Bytes of the messages.
        unsigned int missing = 0;    // Bytes of the last of these, if it is not whole.
        std::atomic<int> unread{0};  // Wake-ups in the channel. Any thread.
        std::atomic<unsigned int> unwritten{
            0};  // Passes that wake-ups without a byte owe. Any thread.
    };

    bool has_signal() const { return ahead_.filled >= kMessageSize; }
    bool open_pipe();
    void sort_bytes(const unsigned char* bytes, size_t count);
    int take_message(siginfo_t& info);

    std::atomic<int> ping_fd_{kNoFd};  // Every thread and the catcher read it.
    int pong_fd_ = kNoFd;              // The loop's thread only, apart from start and end.
    ReadAhead ahead_;
    WaitingSignals* waiting_;
    bool kept_turn_ = false;  // Let one of those go before the next message.
};

// Holds a list's mutex for a change, and wakes the loop in the end. The byte is written once the
// mutex is free, so that the loop doesn't wake only to wait for it: with one processor those are
// two switches for nothing. The loop may see the change at once and end, and its owner free the
// context. So the writer enters the gate, where the end waits, before it lets go of the mutex.
class Change : NotCopyable {
public:
    Change(Channel& channel, ListMutex& mutex);
    ~Change();

private:
    Channel& channel_;
    ListMutex& mutex_;
};

}  // namespace tessra

#endif
