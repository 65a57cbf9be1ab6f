// Tests in processes of their own, and a driver that takes the time out of a loop.
#ifndef TESSRA_TESTS_HARNESS_H
#define TESSRA_TESTS_HARNESS_H

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/types.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

#include "fakes.h"
#include "tessra/eventloop.h"

namespace tessra_test {

using Step = std::function<void()>;

// How a child process came to its end.
struct ChildEnd {
    int exit_code;       // -1 if a signal ended it.
    int signal;          // 0 if it exited.
    bool completed;      // The body returned without a failed expectation.
    std::string output;  // What it wrote to stdout and stderr, without the emulator's own lines.
};

// Runs body in a child process, which SIGALRM ends when it hangs; its failures are in output.
ChildEnd run_child(const Step& body);

// run_child() for a body that has to return; passes its failures on.
void run_isolated(const Step& body);

// A test whose body is a process: the default context and the dispositions are as at the start.
#define ISOLATED_TEST(suite, name)                                   \
    static void suite##_##name();                                    \
    TEST(suite, name) { tessra_test::run_isolated(suite##_##name); } \
    static void suite##_##name()

// Forks a child that runs body and leaves with status 0, without sanitizer reports at its exit.
pid_t fork_process(const Step& body);
// Collects a child's status.
int status_of(pid_t pid);
// Waits until a child has ended or stopped, and leaves its status to be collected.
void await_child(pid_t pid);

// The next call of this kind that the library makes, on whatever thread, runs the step first: a
// place to park the caller at. An empty step takes the place away.
void at_call(int call, Step step);

// Number of open descriptors below 2048.
int open_descriptors();
// A descriptor that is always readable and writable, and never has an exceptional condition.
int ready_descriptor();
// A pipe whose ends are closed with it.
struct Pipe {
    Pipe() { EXPECT_EQ(0, pipe(ends)); }
    ~Pipe() {
        for (const int end : ends) close(end);
    }
    Pipe(const Pipe&) = delete;
    int ends[2];
    const int &in = ends[0], &out = ends[1];
};

// Handlers that append their argument, a text, to the trace, and ones that run it as a Step.
extern std::string trace;
void note_timer(void* text);
void note_fd(int fd, void* text);
void note_signal(int signal, siginfo_t* info, void* text);
int note_process(int pid, void* text, int status);
void run_timer(void* step);
void run_fd(int fd, void* step);
void run_signal(int signal, siginfo_t* info, void* step);
inline void* arg(const char* text) { return const_cast<char*>(text); }

// Handlers "A" to "D" of one list, which are noted as "a" to "d" in a nested pass.
struct Script {
    char actor;         // Whose handler acts in the outer pass.
    const char* outer;  // What it does: '!' is a nested pass, anything else goes to change.
    const char* inner;  // What the first handler of the nested pass does.
    std::function<void(char)> change;
    bool nested = false;

    void called(char name);
};

// Cancels the loop of a context (null: the default one).
void cancel_loop_of(event_loop_ctx_tp context);

constexpr long long kEndless = -1;

struct Drive {
    int result = 0;                   // Of the loop.
    int awake = 0;                    // Calls of select() with something ready or owed.
    std::vector<long long> waits_us;  // Timeouts that select() was called with.
};

// Runs the loop of a context (null: the default one) on this thread. Whenever select() would sleep,
// the next step runs instead, and then select() returns what is ready. After the last step the fake
// clock, if it is set, goes to the end of each wait; a wait that has no such end cancels the loop.
Drive drive(event_loop_ctx_tp context, std::vector<Step> steps = {});
// Number of select() calls of the drive under way, which tells one pass from another.
size_t selects();

// Sets the fake clock, and moves it on.
void set_clock(unsigned long long ms);
void advance_clock(long long ms);

}  // namespace tessra_test

#endif
