// Tests in processes of their own, and a driver that runs a loop without waiting.
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

// How a child process terminated.
struct ChildEnd {
    int exit_code;       // -1 if a signal killed it.
    int signal;          // 0 if it exited.
    bool completed;      // The body returned without a failed expectation.
    std::string output;  // Its text on stdout and stderr, without the emulator's own lines.
};

// Runs body in a child process, and puts its failures in output. SIGALRM kills a child that hangs.
ChildEnd run_child(const Step& body);

// Does the same with a body that has to return, and reports its failures as those of this test.
void run_isolated(const Step& body);

// A test in a process of its own, with an untouched default context and untouched dispositions.
#define ISOLATED_TEST(suite, name)                                   \
    static void suite##_##name();                                    \
    TEST(suite, name) { tessra_test::run_isolated(suite##_##name); } \
    static void suite##_##name()

// Forks a child that runs body and exits with status 0, without a sanitizer's report at its exit.
pid_t fork_process(const Step& body);
// Collects a child's status.
int status_of(pid_t pid);
// Waits until a child has terminated or stopped, without collecting its status.
void await_child(pid_t pid);

// Runs the step before the library's next call of this kind, on whatever thread. The step may park
// that thread. An empty step removes the one before.
void at_call(int call, Step step);

// Number of open descriptors below 2048.
int open_descriptors();
// A descriptor that is always readable and writable, and never has an exceptional condition.
int ready_descriptor();
// A pipe. The destructor closes its ends.
struct Pipe {
    Pipe() { EXPECT_EQ(0, pipe(ends)); }
    ~Pipe() {
        for (const int end : ends) close(end);
    }
    Pipe(const Pipe&) = delete;
    int ends[2];
    const int &in = ends[0], &out = ends[1];
};

// Handlers that append their argument, a text, to the trace, and handlers that run it as a Step.
extern std::string trace;
void note_timer(void* text);
void note_fd(int fd, void* text);
void note_signal(int signal, siginfo_t* info, void* text);
int note_process(int pid, void* text, int status);
void run_timer(void* step);
void run_fd(int fd, void* step);
void run_signal(int signal, siginfo_t* info, void* step);
inline void* arg(const char* text) { return const_cast<char*>(text); }

// Handlers "A" to "D" of one list. The trace shows their calls in a nested pass as "a" to "d".
struct Script {
    char actor;         // The handler that acts in the outer pass.
    const char* outer;  // Its actions: '!' is a nested pass, all others are passed to change.
    const char* inner;  // The actions of the first handler in the nested pass.
    std::function<void(char)> change;
    bool nested = false;

    void called(char name);
};

// Cancels the loop of a context (null: the default one).
void cancel_loop_of(event_loop_ctx_tp context);

constexpr long long kEndless = -1;

struct Drive {
    int result = 0;                   // The loop's.
    int awake = 0;                    // Calls of select() that don't sleep.
    std::vector<long long> waits_us;  // The timeout of each call of select().
};

// Runs the loop of a context (null: the default one) on this thread. Whenever select() would sleep,
// the next step runs instead, and then select() returns the descriptors that are ready. After the
// last step, each wait moves the fake clock to the end of the wait. A wait without an end, and each
// wait without a fake clock, cancels the loop.
Drive drive(event_loop_ctx_tp context, std::vector<Step> steps = {});
// Number of select() calls of the present drive(), which differs from pass to pass.
size_t selects();

// These set the fake clock and advance it.
void set_clock(unsigned long long ms);
void advance_clock(long long ms);

}  // namespace tessra_test

#endif
