// The wake-up channel of a loop: a pipe, and the messages that the loop has read from it ahead of
// its passes.
//
// A message is '-' (a wake-up), or a byte of 'S' plus a signal number, followed by that signal's
// siginfo_t. A single write() of at most PIPE_BUF bytes writes a message. So the message is in the
// channel whole or not at all, and never interleaved. A signal that finds the channel full is kept
// beside it; see pending_signals.h.
//
// A pass takes one message, and takes a signal before any wake-up. So the loop reads ahead, and
// counts the wake-ups as passes that it owes. While kMostUnread wake-ups are in the channel,
// further ones are only counted, so that signals find room there.
//
// Locks: none. A start and an end of the loop change the ends of the pipe under the lock of
// running_loops. The gate of running_loops keeps a channel open while a thread writes to it.
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

// Room for the signals that wait for a pass. It lives as long as the context, but isn't a part of
// it. So the default context's room is zeroed memory, which takes no space in the library's file.
struct WaitingSignals {
    PendingSignals kept;                         // Signals that found the channel full.
    unsigned char read_ahead[4 * kMessageSize];  // Messages of signals, as they came.
};

// Makes the message of a caught signal.
void make_message(int signal, const siginfo_t& info, unsigned char (&message)[kMessageSize]);

class Channel {
public:
    constexpr explicit Channel(WaitingSignals& waiting) : waiting_(&waiting) {}

    // For starts and ends of loops.
    bool open(StartFailure& failure);
    // Takes the write end out, so that no thread finds it any more. Returns it for close_ends().
    int withdraw() { return ping_fd_.exchange(kNoFd); }
    void close_ends(int ping_fd);
    // Closes the end that a failed start has left open.
    void close_leftover();
    // For a child of fork(), where the leftover's number may be another file's.
    void forget_leftover() { pong_fd_ = kNoFd; }
    WaitingSignals& waiting() { return *waiting_; }

    // Any thread. A thread that writes to the end enters the gate before it calls ping_fd().
    int ping_fd() const { return ping_fd_.load(); }
    void wake(int ping_fd);
    // Signal context, inside the gate. `message` is the one of `signal` and `info`.
    void send_signal(int signal, const siginfo_t& info,
                     const unsigned char (&message)[kMessageSize]);

    // The loop's thread.
    int pong_fd() const { return pong_fd_; }
    // Whether the loop must run a pass even if select() finds nothing.
    bool has_work() const { return has_message() || waiting_->kept.any(); }
    bool has_message() const { return ahead_.owed != 0 || has_signal(); }
    // Reads until there is a signal or the channel is empty, but at most kMostReads times.
    void read_ahead();
    // Takes one message if `has_message`, and returns a signal's number, or 0. If no signal was
    // read, one that is kept beside the full channel is returned. Kept signals and those that were
    // read take turns.
    int take_signal(bool has_message, siginfo_t& info);

private:
    struct ReadAhead {
        unsigned int owed = 0;                   // Passes, one for each wake-up.
        unsigned int filled = 0;                 // Bytes of the messages.
        unsigned int missing = 0;                // Bytes that the last of these lacks.
        std::atomic<int> unread{0};              // Wake-ups in the channel. Any thread.
        std::atomic<unsigned int> unwritten{0};  // Wake-ups without a byte. Any thread.
    };

    bool has_signal() const { return ahead_.filled >= kMessageSize; }
    bool open_pipe();
    void sort_bytes(const unsigned char* bytes, size_t count);
    int take_message(siginfo_t& info);

    std::atomic<int> ping_fd_{kNoFd};  // Every thread and the catcher read it.
    int pong_fd_ = kNoFd;              // The loop's thread only, apart from start and end.
    ReadAhead ahead_;
    WaitingSignals* waiting_;
    bool kept_turn_ = false;  // A kept signal goes before the next message.
};

// Holds a list's mutex for a change, and wakes the loop at its end. The destructor writes the byte
// after it has released the mutex. Otherwise the loop would wake only to wait for the mutex, which
// costs two switches of threads on one processor. Once the mutex is free, the loop may see the
// change and end, and its owner may free the context. So the destructor enters the gate, where the
// end of the loop waits, before it releases the mutex.
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
