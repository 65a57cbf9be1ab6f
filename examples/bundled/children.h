/**
 * Watched children: work that would delay the loop, such as a shell command or a long answer, runs
 * in a process of its own. The loop watches a pipe for the output, and the child for its exit. The
 * result is complete when the output is at its end and the child has exited.
 */
#ifndef BUNDLED_CHILDREN_H
#define BUNDLED_CHILDREN_H

#include <string>

#include <tessra/list.h>

namespace bundled {

struct Child;

/**
 * The task of a child. It runs in the forked process. Its input is empty, stdout is its output,
 * stderr is the daemon's, and no other descriptor of the daemon is open. Caught signals have their
 * default action again. The loop doesn't run there: the task must not watch or arm anything.
 */
struct ChildTask {
    int (*main)(const void* arg);  ///< Its result is the exit status.
    const void* arg;               ///< Must exist until start() has returned.
    int kept_fd = -1;              ///< A descriptor for the child, where it is kKeptFd.
    bool blocks_signals = false;   ///< If true, only SIGKILL and SIGSTOP reach the child.
};

constexpr int kKeptFd = 3;

/** Returns a task that runs @p line with /bin/sh -c; its stderr goes to the output, too. @p line
 * must exist until start() has returned. */
ChildTask shell_task(const char* line);

struct ChildLimits {
    unsigned int time_ms = 10000;  ///< 0 for no limit.
    unsigned int output_bytes = 65536;
    unsigned int running = 8;  ///< How many may run at a time.
};

struct ChildResult {
    int status;          ///< Raw wait status; 0 if timed_out.
    bool timed_out;      ///< Killed, or given up, at the end of its time.
    bool output_cut;     ///< Killed because it wrote more than its limit.
    std::string output;  ///< The text that it wrote.
};

/** Called once, from the loop, when the child has exited or its time is over. */
using ChildDone = void (*)(void* arg, const ChildResult& result);

/** Describes the end of a child by its wait status: "exit status 3", "signal 9". */
std::string describe_end(int status);

/**
 * Runs children on the default loop. The destructor kills and collects those that still run, and
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
     * Returns the running child, which is valid until @p done or abandon() is called. Returns null
     * with errno if the child can't be started. errno is EAGAIN if as many children run already as
     * @p limits allow.
     */
    Child* start(const ChildTask& task, const ChildLimits& limits, ChildDone done, void* arg);

    /** Gives @p child, which had no limit, a time limit from now on. Returns false with errno after
     * a failure. */
    static bool set_time(Child* child, unsigned int time_ms);

    /** Kills @p child. Its done handler is no longer called. */
    static void abandon(Child* child);

    unsigned int running() const { return running_; }

private:
    friend struct Child;

    list_t children_;
    unsigned int running_ = 0;
};

}  // namespace bundled

#endif
