/*
 * Two ends make one result, and either may come first: the end of the output, when the last holder
 * of the pipe's write end has gone, and the end of the child.
 *
 * - No end of a child is missed. One that ends before event_process_add() is noticed late, so the
 *   child waits on a gate, a pipe that the parent closes once the watcher is there. One that ends
 *   while a background task runs is noticed late too, so after the end of the output a timer looks.
 * - A process group is killed only while its leader hasn't been collected: later the number may be
 *   another's.
 * - A command lives until both ends are there, whether or not anyone waits for the result.
 */
#include "commands.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <type_traits>
#include <utility>

#include "descriptor.h"
#include "log.h"

namespace bundled {

struct Command {
    explicit Command(CommandRunner& owner);
    Command(const Command&) = delete;
    Command& operator=(const Command&) = delete;
    ~Command();

    list_t link;  ///< First, so that the address of the node is the address of the command.
    CommandRunner* runner;
    int pid = 0;  ///< 0 as long as there is no child, and again once it is collected.
    int status = 0;
    Descriptor output_pipe;
    std::size_t max_output = 0;
    std::string output;
    bool output_cut = false;
    CommandDone done = nullptr;  ///< Null if no one waits for the result.
    void* done_arg = nullptr;
};

static_assert(std::is_standard_layout_v<Command> && offsetof(Command, link) == 0,
              "a node of the runner's list is cast to its command");

namespace {

constexpr unsigned int kEndCheckMs = 100;

struct Pipe {
    Descriptor read_end;
    Descriptor write_end;

    bool open() {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0) {
            return false;
        }
        read_end.reset(ends[0]);
        write_end.reset(ends[1]);
        return true;
    }
};

bool make_non_blocking(int fd) {
    const int flags = fcntl(fd, F_GETFL);
    return flags >= 0 && fcntl(fd, F_SETFL, flags | O_NONBLOCK) == 0;
}

/*
 * The child's side.
 */

// Descriptors that the daemon itself inherited needn't have close-on-exec set, so all are closed.
void close_from(int first) {
    struct rlimit limit;
    const bool known = getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY;
    const int end = known ? static_cast<int>(limit.rlim_cur) : 1024;
    for (int fd = first; fd < end; ++fd) {
        (void)close(fd);  // Most of them aren't open.
    }
}

// What exec() would hand down: ignored signals stay ignored and blocked ones blocked.
void reset_signals() {
    (void)signal(SIGPIPE, SIG_DFL);
    sigset_t none;
    sigemptyset(&none);
    (void)sigprocmask(SIG_SETMASK, &none, nullptr);
}

void wait_for_gate(const Pipe& gate) {
    (void)close(gate.write_end.get());  // Its own copy would keep the gate shut.
    char byte;
    while (read(gate.read_end.get(), &byte, 1) < 0 && errno == EINTR) {
    }
}

[[noreturn]] void run_child(const char* line, const Pipe& output, const Pipe& gate) {
    wait_for_gate(gate);
    reset_signals();
    const int null = open("/dev/null", O_RDONLY);
    const bool ready = null >= 0 && dup2(null, STDIN_FILENO) >= 0 &&
                       dup2(output.write_end.get(), STDOUT_FILENO) >= 0 &&
                       dup2(output.write_end.get(), STDERR_FILENO) >= 0;
    if (ready) {
        close_from(STDERR_FILENO + 1);
        (void)execl("/bin/sh", "sh", "-c", line, static_cast<char*>(nullptr));
    }
    _exit(127);  // As a shell that can't start a command.
}

/*
 * The daemon's side.
 */

void kill_group(const Command& command) {
    if (command.pid != 0) {
        (void)kill(-command.pid, SIGKILL);  // Fails only if all of it has ended already.
    }
}

// For a child whose watcher is gone or never was. The kill makes the wait a short one.
void kill_and_collect(Command& command) {
    kill_group(command);
    while (waitpid(command.pid, &command.status, 0) < 0 && errno == EINTR) {
    }
    command.pid = 0;
}

void finish_if_over(Command* command) {
    if (command->pid != 0 || command->output_pipe.is_open()) {
        return;
    }
    if (const CommandDone done = std::exchange(command->done, nullptr)) {
        done(command->done_arg,
             {command->status, false, command->output_cut, std::move(command->output)});
    }
    delete command;
}

void child_ended(Command* command, int status) {
    command->pid = 0;
    command->status = status;
    finish_if_over(command);
}

int on_child_end(int /*pid*/, void* arg, int status) noexcept {
    child_ended(static_cast<Command*>(arg), status);
    return 0;
}

// Collects a child whose end the watcher has not noticed. As long as the watcher exists the status
// is the loop's to collect, so this only peeks until the watcher is deleted.
void on_end_check(void* arg) noexcept {
    auto* command = static_cast<Command*>(arg);
    siginfo_t info = {};
    const auto id = static_cast<id_t>(command->pid);
    if (waitid(P_PID, id, &info, WEXITED | WNOHANG | WNOWAIT) != 0 || info.si_pid == 0) {
        (void)arm_timer(on_end_check, command, kEndCheckMs);  // Else the watcher alone must do.
        return;
    }
    event_process_del(command->pid);
    int status = 0;
    (void)waitpid(command->pid, &status, 0);  // Can't fail or wait: the child has just been seen.
    child_ended(command, status);
}

void output_ended(Command* command) {
    command->output_pipe.reset();
    event_timer_del(on_end_check, command);
    if (command->pid != 0) {
        (void)arm_timer(on_end_check, command, kEndCheckMs);  // Else the watcher alone must do.
    }
    finish_if_over(command);
}

void take_output(Command* command, const char* bytes, std::size_t count) {
    const std::size_t room = command->max_output - command->output.size();
    command->output.append(bytes, std::min(count, room));
    if (count > room) {
        command->output_cut = true;
        kill_group(*command);
        output_ended(command);
    }
}

void on_output(int fd, void* arg) noexcept {
    auto* command = static_cast<Command*>(arg);
    char chunk[4096];
    const ssize_t count = read(fd, chunk, sizeof chunk);
    if (count > 0) {
        take_output(command, chunk, static_cast<std::size_t>(count));
    } else if (count == 0 || (errno != EAGAIN && errno != EINTR)) {
        output_ended(command);
    }
}

// Also ends the wait for an output that a process outside the group keeps open.
void on_time_limit(void* arg) noexcept {
    auto* command = static_cast<Command*>(arg);
    if (const CommandDone done = std::exchange(command->done, nullptr)) {
        done(command->done_arg, {0, true, command->output_cut, std::move(command->output)});
    }
    CommandRunner::abandon(command);
}

// Registers everything that the command's two ends and its limit need. False: errno tells.
bool watch_command(Command* command, unsigned int limit_ms) {
    return watch_child(command->pid, on_child_end, command) &&
           command->output_pipe.watch(on_output, command, EVENT_FD_READ) &&
           arm_timer(on_time_limit, command, limit_ms);
}

// Forks the child behind the gate. False: errno tells, and no child is left.
bool fork_and_watch(Command* command, const std::string& line, unsigned int limit_ms) {
    Pipe output;
    Pipe gate;
    if (!output.open() || !gate.open() || !make_non_blocking(output.read_end.get())) {
        return false;
    }
    command->pid = fork();
    if (command->pid == 0) {
        run_child(line.c_str(), output, gate);
    }
    if (command->pid < 0) {
        command->pid = 0;
        return false;
    }
    (void)setpgid(command->pid, command->pid);  // Can't fail: the child is ours and waits.
    command->output_pipe.reset(output.read_end.release());
    if (!watch_command(command, limit_ms)) {
        const int error = errno;
        event_process_del(command->pid);
        kill_and_collect(*command);
        errno = error;
        return false;
    }
    return true;  // Leaving closes both write ends here, and with the gate's the command starts.
}

}  // namespace

Command::Command(CommandRunner& owner) : runner(&owner) {
    list_add_tail(&runner->commands_, &link);
    ++runner->running_;
}

Command::~Command() {
    event_timer_del(on_time_limit, this);
    event_timer_del(on_end_check, this);
    list_delete(&link);
    --runner->running_;
}

CommandRunner::CommandRunner() { list_init(&commands_); }

// The loop has returned and its watchers with it: the children are collected here.
CommandRunner::~CommandRunner() {
    list_t* node;
    dll_foreach(node, &commands_) {
        auto* command = reinterpret_cast<Command*>(node);
        if (command->pid != 0) {
            event_process_del(command->pid);
            kill_and_collect(*command);
        }
        delete command;
    }
}

Command* CommandRunner::start(const std::string& line, const CommandLimits& limits,
                              CommandDone done, void* arg) {
    if (running_ >= kMaxRunningCommands) {
        errno = EAGAIN;
        return nullptr;
    }
    auto* command = new Command(*this);
    command->max_output = limits.output_bytes;
    if (!fork_and_watch(command, line, limits.time_ms)) {
        const int error = errno;
        delete command;
        errno = error;
        return nullptr;
    }
    command->done = done;
    command->done_arg = arg;
    ++started_;
    return command;
}

void CommandRunner::abandon(Command* command) {
    command->done = nullptr;
    kill_group(*command);
    output_ended(command);
}

}  // namespace bundled
