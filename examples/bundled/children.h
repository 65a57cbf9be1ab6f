/**
 * Watched children: work that would hold up the loop, a shell command or a long answer, in a
 * process of its own. The output comes through a pipe that the loop watches, the end through the
 * child watcher, and the result is there when both have ended.
 */
#ifndef BUNDLED_CHILDREN_H
#define BUNDLED_CHILDREN_H

#include <string>

#include <tessra/list.h>

namespace bundled {

struct Child;

/**
 * What a child does. It runs in the forked process with empty input, stdout as its output, the
 * daemon's stderr, and no other descriptor of the daemon; caught signals are back at their default.
 * The loop isn't there: nothing may be watched or armed.
 */
struct ChildTask {
    int (*main)(const void* arg);  ///< Its result is the exit status.
    const void* arg;               ///< Needed until start() has returned.
    int kept_fd = -1;              ///< A descriptor to hand down: kKeptFd in the child.
    bool blocks_signals = false;   ///< Only SIGKILL and SIGSTOP reach it.
};

constexpr int kKeptFd = 3;

/** Runs @p line, which start() needs, with /bin/sh -c; stderr goes to the output as well. */
ChildTask shell_task(const char* line);

struct ChildLimits {
    unsigned int time_ms = 10000;  ///< 0 for none.
    unsigned int output_bytes = 65536;
    unsigned int running = 8;  ///< How many may run at a time.
};

struct ChildResult {
    int status;          ///< Raw wait status; 0 if timed_out.
    bool timed_out;      ///< Killed, or given up, at the end of its time.
    bool output_cut;     ///< Killed because it wrote more than its limit.
    std::string output;  ///< What it wrote.
};

/** Called once, from the loop, when the child has ended or its time is over. */
using ChildDone = void (*)(void* arg, const ChildResult& result);

/** Text for the end of a child by its wait status: "exit status 3", "signal 9". */
std::string describe_end(int status);

/**
 * Runs children on the default loop. The destructor kills and collects those still running, and
 * calls their done handlers.
 */
class ChildRunner {
public:
    ChildRunner();
    ChildRunner(const ChildRunner&) = delete;
    ChildRunner& operator=(const ChildRunner&) = delete;
    ~ChildRunner();

    /**
     * Starts @p task in a process group of its own.
     *
     * Returns the running child, which is valid until @p done is called or abandon(); null with
     * errno if it can't be started, EAGAIN if as many run already as @p limits allow.
     */
    Child* start(const ChildTask& task, const ChildLimits& limits, ChildDone done, void* arg);

    /** Gives @p child, which had no limit, so much time from now on. False: errno tells. */
    static bool set_time(Child* child, unsigned int time_ms);

    /** Kills @p child; its done handler isn't called any more. */
    static void abandon(Child* child);

    unsigned int running() const { return running_; }

private:
    friend struct Child;

    list_t children_;
    unsigned int running_ = 0;
};

}  // namespace bundled

#endif
