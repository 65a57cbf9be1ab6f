#include "harness.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <utility>

namespace tessra_test {

namespace {

constexpr unsigned kTimeLimitSeconds = 100;

// Reads a child's output, without the line that qemu-user adds to an abort.
std::string read_output(FILE* file) {
    std::string text;
    char line[4096];
    rewind(file);
    while (fgets(line, sizeof line, file)) {
        if (std::string(line).rfind("qemu:", 0) != 0) text += line;
    }
    return text;
}

[[noreturn]] void child_main(const Step& body, int output, volatile bool* completed) {
    const rlimit no_core = {0, 0};
    setrlimit(RLIMIT_CORE, &no_core);
    dup2(output, STDOUT_FILENO);
    dup2(output, STDERR_FILENO);
    alarm(kTimeLimitSeconds);
    const testing::TestResult* result =
        testing::UnitTest::GetInstance()->current_test_info()->result();
    const int failed_before = result->total_part_count();
    body();
    *completed = result->total_part_count() == failed_before;
    exit(0);
}

struct Driver {
    Drive drive;
    event_loop_ctx_tp context = nullptr;
    std::vector<Step> steps;
    size_t next_step = 0;
};
Driver* driver;

// Instead of sleeping, runs the next step, advances the clock, or cancels the loop.
void instead_of_sleep(const timeval* tv) {
    if (driver->next_step < driver->steps.size()) {
        driver->steps[driver->next_step++]();
    } else if (tv && fakes.clock_ns != 0) {
        // Half a day at most: the loop takes more than a day for a jump of the clock.
        advance_clock(std::min(tv->tv_sec * 1000LL + tv->tv_usec / 1000, 43200000LL));
    } else {
        cancel_loop_of(driver->context);
    }
}

int driven_select(int nfds, fd_set* rset, fd_set* wset, fd_set* eset, timeval* tv) {
    driver->drive.waits_us.push_back(tv ? tv->tv_sec * 1000000LL + tv->tv_usec : kEndless);
    const fd_set asked[] = {*rset, *wset, *eset};
    timeval poll = {0, 0};
    int ready = real_select(nfds, rset, wset, eset, &poll);
    const bool may_sleep = !tv || tv->tv_sec > 0 || tv->tv_usec > 0;
    if (ready == 0 && may_sleep) {
        instead_of_sleep(tv);
        *rset = asked[0];
        *wset = asked[1];
        *eset = asked[2];
        poll = {0, 0};
        ready = real_select(nfds, rset, wset, eset, &poll);
    }
    driver->drive.awake += ready > 0 || !may_sleep;
    return ready;
}

// A thread that takes a step clears its flag first. There is no lock, since a child of fork() might
// find it locked.
Step steps_at[FAKE_CALLS];
std::atomic<bool> has_step[FAKE_CALLS];

void run_step_at(int call) {
    if (!has_step[call].exchange(false)) return;
    Step step;
    step.swap(steps_at[call]);
    step();
}

}  // namespace

std::string trace;

void at_call(int call, Step step) {
    const bool any = step != nullptr;
    has_step[call] = false;
    steps_at[call] = std::move(step);
    has_step[call] = any;
    fakes.on_call = run_step_at;
}

ChildEnd run_child(const Step& body) {
    FILE* output = tmpfile();
    auto* completed = static_cast<volatile bool*>(
        mmap(nullptr, sizeof(bool), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) child_main(body, fileno(output), completed);
    int status = -1;
    while (waitpid(pid, &status, 0) == -1 && errno == EINTR) {
    }
    ChildEnd end = {WIFEXITED(status) ? WEXITSTATUS(status) : -1,
                    WIFSIGNALED(status) ? WTERMSIG(status) : 0, *completed, read_output(output)};
    munmap(const_cast<bool*>(completed), sizeof(bool));
    fclose(output);
    return end;
}

void run_isolated(const Step& body) {
    const ChildEnd end = run_child(body);
    EXPECT_TRUE(end.completed && end.exit_code == 0)
        << "exit code " << end.exit_code << ", signal " << end.signal
        << (end.signal == SIGALRM ? " (it hung)" : "") << "\n"
        << end.output;
}

pid_t fork_process(const Step& body) {
    const pid_t pid = fork();
    if (pid != 0) return pid;
    alarm(kTimeLimitSeconds);
    body();
    syscall(SYS_exit_group,
            0);  // A sanitizer's _exit() misses the parent's threads.
    return 0;
}

int status_of(pid_t pid) {
    int status = -1;
    waitpid(pid, &status, 0);
    return status;
}

void await_child(pid_t pid) {
    siginfo_t info;
    while (waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WSTOPPED | WNOWAIT) == -1) {
        ASSERT_EQ(EINTR, errno);
    }
}

int open_descriptors() {
    int count = 0;
    for (int fd = 0; fd < 2048; ++fd) count += fcntl(fd, F_GETFD) != -1;
    return count;
}

int ready_descriptor() { return open("/dev/null", O_RDWR); }

void note_timer(void* text) { trace += static_cast<const char*>(text); }
void note_fd(int, void* text) { note_timer(text); }
void note_signal(int, siginfo_t*, void* text) { note_timer(text); }
int note_process(int, void* text, int) {
    note_timer(text);
    return 0;
}
void run_timer(void* step) { (*static_cast<Step*>(step))(); }
void run_fd(int, void* step) { run_timer(step); }
void run_signal(int, siginfo_t*, void* step) { run_timer(step); }

void Script::called(char name) {
    trace += static_cast<char>(nested ? name - 'A' + 'a' : name);
    if (!nested && name != actor) return;
    const char* actions = std::exchange(nested ? inner : outer, "");
    for (; *actions; ++actions) {
        if (*actions != '!') {
            change(*actions);
            continue;
        }
        nested = true;
        EXPECT_EQ(0, do_events(0));
        nested = false;
    }
}

void cancel_loop_of(event_loop_ctx_tp context) {
    if (context) {
        cancel_loop_mc(context);
    } else {
        cancel_loop();
    }
}

Drive drive(event_loop_ctx_tp context, std::vector<Step> steps) {
    Driver here;
    here.context = context;
    here.steps = std::move(steps);
    driver = &here;
    fakes.on_select = driven_select;
    here.drive.result = context ? et_event_loop_mc(context) : et_event_loop();
    fakes.on_select = nullptr;
    return here.drive;
}

size_t selects() { return driver->drive.waits_us.size(); }

void set_clock(unsigned long long ms) { fakes.clock_ns = ms * 1000000; }
void advance_clock(long long ms) {
    fakes.clock_ns += static_cast<unsigned long long>(ms) * 1000000;
}

}  // namespace tessra_test
