/**
 * Shell commands as watched children: the output comes through a pipe that the loop watches, the
 * end through the child watcher, and the result is there when both have ended.
 */
#ifndef BUNDLED_COMMANDS_H
#define BUNDLED_COMMANDS_H

#include <string>

#include <tessra/list.h>

namespace bundled {

struct Command;

struct CommandLimits {
    unsigned int time_ms = 10000;
    unsigned int output_bytes = 65536;
};

struct CommandResult {
    int status;          ///< Raw wait status; 0 if timed_out.
    bool timed_out;      ///< Killed, or given up, at the end of its time.
    bool output_cut;     ///< Killed because it wrote more than its limit.
    std::string output;  ///< What it wrote to stdout and stderr.
};

constexpr unsigned int kMaxRunningCommands = 8;

/** Called once, from the loop, when the command has ended or its time is over. */
using CommandDone = void (*)(void* arg, const CommandResult& result);

/** Runs commands on the default loop. The destructor kills and collects those still running. */
class CommandRunner {
public:
    CommandRunner();
    CommandRunner(const CommandRunner&) = delete;
    CommandRunner& operator=(const CommandRunner&) = delete;
    ~CommandRunner();

    /**
     * Starts @p line with /bin/sh -c in a process group of its own, with no input, and with none of
     * the daemon's descriptors.
     *
     * Returns the running command, which is valid until @p done is called or abandon(); null with
     * errno if it can't be started, EAGAIN if kMaxRunningCommands run already.
     */
    Command* start(const std::string& line, const CommandLimits& limits, CommandDone done,
                   void* arg);

    /** Kills @p command; its done handler isn't called any more. */
    static void abandon(Command* command);

    unsigned int started() const { return started_; }
    unsigned int running() const { return running_; }

private:
    friend struct Command;

    list_t commands_;
    unsigned int started_ = 0;
    unsigned int running_ = 0;
};

}  // namespace bundled

#endif
