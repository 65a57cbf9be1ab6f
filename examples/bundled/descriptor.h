/**
 * An owned descriptor together with its watcher on the default loop, and the loop's add calls with
 * a result.
 *
 * The loop terminates the process if a watched descriptor has been closed. So the watcher and the
 * descriptor have one owner, which always deletes the watcher before it closes the descriptor.
 */
#ifndef BUNDLED_DESCRIPTOR_H
#define BUNDLED_DESCRIPTOR_H

#include <cerrno>
#include <utility>

#include <unistd.h>

#include <tessra/eventloop.h>

namespace bundled {

/** Owns at most one descriptor and at most one watcher of it. Can't be copied or moved. */
class Descriptor {
public:
    Descriptor() = default;
    explicit Descriptor(int fd) : fd_(fd) {}
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor() { reset(); }

    int get() const { return fd_; }
    bool is_open() const { return fd_ >= 0; }

    /** Deletes the watcher, closes the descriptor and owns @p fd from now on. */
    void reset(int fd = -1) {
        unwatch();
        if (fd_ >= 0) {
            (void)close(fd_);  // Linux frees the number even if close() fails.
        }
        fd_ = fd;
    }

    /** Deletes the watcher and hands over the open descriptor. */
    int release() {
        unwatch();
        return std::exchange(fd_, -1);
    }

    /** Watches for @p conditions instead of the former ones. After a failure returns false with
     * errno, and watches nothing. */
    bool watch(fd_handler_t handler, void* arg, int conditions) {
        unwatch();
        errno = 0;
        event_fd_add(handler, arg, fd_, conditions);
        watched_ = errno == 0;
        return watched_;
    }

    void unwatch() {
        if (watched_) {
            event_fd_del(fd_);
            watched_ = false;
        }
    }

private:
    int fd_ = -1;
    bool watched_ = false;
};

/** Calls event_timer_add(). Returns false with errno if the timer isn't armed. */
inline bool arm_timer(timer_handler_t handler, void* arg, unsigned int timeout_ms) {
    errno = 0;
    event_timer_add(handler, arg, timeout_ms);
    return errno == 0;
}

/** Calls event_signal_add(). Returns false with errno if the signal isn't watched. */
inline bool watch_signal(signal_handler_t handler, void* arg, int signal) {
    errno = 0;
    event_signal_add(handler, arg, signal);
    return errno == 0;
}

/** Calls event_process_add(). Returns false with errno if the child isn't watched. */
inline bool watch_child(int pid, process_handler_t handler, void* arg) {
    errno = 0;
    event_process_add(pid, handler, arg);
    return errno == 0;
}

}  // namespace bundled

#endif
