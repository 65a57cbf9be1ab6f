/*
 * A result needs two events, in either order: the end of the output, when the last process has
 * closed the pipe's write end, and the exit of the child.
 *
 * - No exit is missed. The loop notices an exit before event_process_add() late, so the child waits
 *   at a gate, a pipe that the parent closes once it has added the watcher. The loop also notices
 *   an exit late while a background task runs, so after the end of the output a timer checks.
 * - A process group is killed only while its leader hasn't been collected: later another group may
 *   have its number.
 * - A Child exists until both events have come, whether or not anyone waits for the result.
 */
#include "children.h"

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
#include "tracking.h"

namespace bundled {

struct Child : Tracked {
    explicit Child(ChildRunner& owner);
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    ~Child();

    list_t link;  ///< First, so that the address of the node is the address of the child.
    ChildRunner* runner;
    int pid = 0;  ///< 0 before there is a child, and again once it is collected.
    int status = 0;
    Descriptor output_pipe;
    std::size_t max_output = 0;
    std::string output;
    bool output_cut = false;
    ChildDone done = nullptr;  ///< Null if no one waits for the result.
    void* done_arg = nullptr;
};

static_assert(std::is_standard_layout_v<Child> && offsetof(Child, link) == 0,
              "a node of the runner's list is cast to its child");

namespace {

constexpr unsigned int kEndCheckMs = 100;
constexpr int kExitNotStarted = 127;  // As from a shell that can't start a command.

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

// Descriptors that the daemon itself inherited may lack close-on-exec, so all are closed.
void close_from(int first) {
    struct rlimit limit;
    const bool known = getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY;
    const int end = known ? static_cast<int>(limit.rlim_cur) : 1024;
    for (int fd = first; fd < end; ++fd) {
        (void)close(fd);  // Most of them aren't open.
    }
}

// Does what exec() would do: caught signals get their default action, so that none is lost in the
// library's catcher. Ignored ones stay ignored, except for the one that the daemon itself ignores.
void reset_signals(bool stay_blocked) {
    sigset_t mask;
    sigfillset(&mask);
    (void)sigprocmask(SIG_SETMASK, &mask, nullptr);
    for (int number = 1; number < NSIG; ++number) {
        struct sigaction action;
        const bool caught = sigaction(number, nullptr, &action) == 0 &&
                            action.sa_handler != SIG_IGN && action.sa_handler != SIG_DFL;
        if (caught || number == SIGPIPE) {
            (void)signal(number, SIG_DFL);
        }
    }
    if (!stay_blocked) {
        sigemptyset(&mask);
        (void)sigprocmask(SIG_SETMASK, &mask, nullptr);
    }
}

void wait_for_gate(const Pipe& gate) {
    (void)close(gate.write_end.get());  // This copy would keep the gate closed.
    char byte;
    while (read(gate.read_end.get(), &byte, 1) < 0 && errno == EINTR) {
    }
}

// Exits without the destructors and exit handlers of the daemon, whose files and buffers it shares.
[[noreturn]] void run_child(const ChildTask& task, const Pipe& output, const Pipe& gate) {
    wait_for_gate(gate);
    reset_signals(task.blocks_signals);
    const bool keeps = task.kept_fd >= 0;
    const int null = open("/dev/null", O_RDONLY);
    const bool ready = null >= 0 && dup2(null, STDIN_FILENO) >= 0 &&
                       dup2(output.write_end.get(), STDOUT_FILENO) >= 0 &&
                       (!keeps || dup2(task.kept_fd, kKeptFd) >= 0);
    if (!ready) {
        _exit(kExitNotStarted);
    }
    close_from(keeps ? kKeptFd + 1 : STDERR_FILENO + 1);
    _exit(task.main(task.arg));
}

int exec_shell(const void* line) {
    if (dup2(STDOUT_FILENO, STDERR_FILENO) >= 0) {
        (void)execl("/bin/sh", "sh", "-c", static_cast<const char*>(line),
                    static_cast<char*>(nullptr));
    }
    return kExitNotStarted;
}

/*
 * The daemon's side.
 */

void kill_group(const Child& child) {
    if (child.pid != 0) {
        (void)kill(-child.pid, SIGKILL);  // Fails only if the whole group has exited.
    }
}

// For a child whose watcher is deleted or never existed. After the kill the wait is short.
void kill_and_collect(Child& child) {
    kill_group(child);
    while (waitpid(child.pid, &child.status, 0) < 0 && errno == EINTR) {
    }
    child.pid = 0;
}

void finish_if_over(Child* child) {
    if (child->pid != 0 || child->output_pipe.is_open()) {
        return;
    }
    if (const ChildDone done = std::exchange(child->done, nullptr)) {
        done(child->done_arg, {child->status, false, child->output_cut, std::move(child->output)});
    }
    delete child;
}

void child_ended(Child* child, int status) {
    child->pid = 0;
    child->status = status;
    finish_if_over(child);
}

int on_child_end(int /*pid*/, void* arg, int status) noexcept {
    child_ended(static_cast<Child*>(arg), status);
    return 0;
}

// Collects a child whose exit the watcher has not noticed. As long as the watcher exists, the loop
// must collect the status, so this uses WNOWAIT until the watcher is deleted.
void on_end_check(void* arg) noexcept {
    auto* child = static_cast<Child*>(arg);
    siginfo_t info = {};
    const auto id = static_cast<id_t>(child->pid);
    if (waitid(P_PID, id, &info, WEXITED | WNOHANG | WNOWAIT) != 0 || info.si_pid == 0) {
        (void)arm_timer(on_end_check, child, kEndCheckMs);  // If it fails, the watcher is left.
        return;
    }
    event_process_del(child->pid);
    int status = 0;
    (void)waitpid(child->pid, &status, 0);  // Can't fail or wait: waitid() has seen the exit.
    child_ended(child, status);
}

void output_ended(Child* child) {
    child->output_pipe.reset();
    event_timer_del(on_end_check, child);
    if (child->pid != 0) {
        (void)arm_timer(on_end_check, child, kEndCheckMs);  // If it fails, the watcher is left.
    }
    finish_if_over(child);
}

void take_output(Child* child, const char* bytes, std::size_t count) {
    const std::size_t room = child->max_output - child->output.size();
    child->output.append(bytes, std::min(count, room));
    if (count > room) {
        child->output_cut = true;
        kill_group(*child);
        output_ended(child);
    }
}

void on_output(int fd, void* arg) noexcept {
    auto* child = static_cast<Child*>(arg);
    char chunk[4096];
    const ssize_t count = read(fd, chunk, sizeof chunk);
    if (count > 0) {
        take_output(child, chunk, static_cast<std::size_t>(count));
    } else if (count == 0 || (errno != EAGAIN && errno != EINTR)) {
        output_ended(child);
    }
}

// Also stops the wait for an output that a process outside the group keeps open.
void on_time_limit(void* arg) noexcept {
    auto* child = static_cast<Child*>(arg);
    if (const ChildDone done = std::exchange(child->done, nullptr)) {
        done(child->done_arg, {0, true, child->output_cut, std::move(child->output)});
    }
    ChildRunner::abandon(child);
}

// Watches for the child's two events and arms its time limit. Returns false with errno after a
// failure.
bool watch_ends(Child* child, unsigned int limit_ms) {
    return watch_child(child->pid, on_child_end, child) &&
           child->output_pipe.watch(on_output, child, EVENT_FD_READ) &&
           (limit_ms == 0 || arm_timer(on_time_limit, child, limit_ms));
}

// Forks the child, which waits at the gate. After a failure returns false with errno; no child is
// left.
bool fork_and_watch(Child* child, const ChildTask& task, unsigned int limit_ms) {
    Pipe output;
    Pipe gate;
    if (!output.open() || !gate.open() || !make_non_blocking(output.read_end.get())) {
        return false;
    }
    child->pid = fork();
    if (child->pid == 0) {
        run_child(task, output, gate);
    }
    if (child->pid < 0) {
        child->pid = 0;
        return false;
    }
    (void)setpgid(child->pid, child->pid);  // Can't fail: it is our child and waits at the gate.
    child->output_pipe.reset(output.read_end.release());
    if (!watch_ends(child, limit_ms)) {
        const int error = errno;
        event_process_del(child->pid);
        kill_and_collect(*child);
        errno = error;
        return false;
    }
    // The destructors close both write ends here. The child starts when the gate is closed.
    return true;
}

}  // namespace

ChildTask shell_task(const char* line) { return {exec_shell, line}; }

std::string describe_end(int status) {
    if (WIFEXITED(status)) {
        return "exit status " + std::to_string(WEXITSTATUS(status));
    }
    return "signal " + std::to_string(WTERMSIG(status));
}

Child::Child(ChildRunner& owner) : runner(&owner) {
    list_add_tail(&runner->children_, &link);
    ++runner->running_;
}

Child::~Child() {
    event_timer_del(on_time_limit, this);
    event_timer_del(on_end_check, this);
    list_delete(&link);
    --runner->running_;
}

ChildRunner::ChildRunner() { list_init(&children_); }

// The loop has returned and has dropped its watchers, so the children are collected here.
ChildRunner::~ChildRunner() {
    list_t* node;
    dll_foreach(node, &children_) {
        auto* child = reinterpret_cast<Child*>(node);
        if (child->pid != 0) {
            event_process_del(child->pid);
            kill_and_collect(*child);
        }
        child->output_pipe.reset();
        finish_if_over(child);
    }
}

Child* ChildRunner::start(const ChildTask& task, const ChildLimits& limits, ChildDone done,
                          void* arg) {
    if (running_ >= limits.running) {
        errno = EAGAIN;
        return nullptr;
    }
    auto* child = new (here()) Child(*this);
    child->max_output = limits.output_bytes;
    if (!fork_and_watch(child, task, limits.time_ms)) {
        const int error = errno;
        delete child;
        errno = error;
        return nullptr;
    }
    child->done = done;
    child->done_arg = arg;
    return child;
}

bool ChildRunner::set_time(Child* child, unsigned int time_ms) {
    return arm_timer(on_time_limit, child, time_ms);
}

void ChildRunner::abandon(Child* child) {
    child->done = nullptr;
    kill_group(*child);
    output_ended(child);
}

}  // namespace bundled
