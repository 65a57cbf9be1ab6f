// The default loop on a thread of its own, and shell commands.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <regex>
#include <semaphore>
#include <sstream>
#include <thread>
#include <utility>

#include "support/harness.h"

using namespace tessra_test;

namespace {

using Semaphore = std::counting_semaphore<>;

ISOLATED_TEST(Thread, StartIgnoresWhatIsRegisteredOrStopKeepsIt) {
    for (int round = 0; round < 2; ++round) {
        Pipe pipe;
        Semaphore called(0);
        Step report = [&] {
            EXPECT_EQ(1, is_event_loop_thread());
            event_fd_del(pipe.in);
            called.release();
        };
        EXPECT_EQ(1, write(pipe.out, "x", 1));
        event_timer_add(run_timer, &report, 1);
        event_fd_add(run_fd, &report, pipe.in, EVENT_FD_READ);
        event_signal_add(run_signal, &report, SIGUSR1);
        ASSERT_EQ(0, event_loop_async_start());
        EXPECT_EQ(-1, event_loop_async_start());
        EXPECT_EQ(-1, et_event_loop());
        EXPECT_EQ(0, is_event_loop_thread());
        EXPECT_EQ(-1, do_events(0));
        kill(getpid(), SIGUSR1);
        for (int n = 0; n < 3; ++n) called.acquire();
        event_timer_add(run_timer, &report, 3600000);
        event_timer_add(run_timer, &report, 0);  // Shortens the wait.
        called.acquire();
        EXPECT_EQ(0, event_loop_async_stop());
        EXPECT_EQ(0, event_timer_exists(run_timer, nullptr));
    }
    EXPECT_EQ(0, drive(nullptr, {[] { EXPECT_EQ(-1, event_loop_async_start()); }}).result);
}

ISOLATED_TEST(Thread, CancelBeforeTheFirstPassHangs) {
    fakes.on_select = [](int, fd_set*, fd_set*, fd_set*, timeval*) {
        cancel_loop();
        errno = EINTR;
        return -1;
    };
    EXPECT_EQ(-1, event_loop_async_start());
    EXPECT_EQ(ECANCELED, errno);
    EXPECT_EQ(0, fakes.threads);
    fakes.on_select = nullptr;
    at_call(FAKE_PIPE, [] {  // In the new thread, before its last step.
        fail_allocation = 1;
        fakes.fail[FAKE_CLOSE] = EIO;
    });
    EXPECT_EQ(-1, event_loop_async_start());
    EXPECT_EQ(ENOMEM, errno);
    fakes.fail[FAKE_CLOSE] = 0;
    EXPECT_EQ(0, event_timer_exists(event_loop_wait_for_async_loop_ready, nullptr));
    EXPECT_EQ(0, event_loop_async_start());
    EXPECT_EQ(0, event_loop_async_stop());
}

TEST(Thread, BrokenHandshakeReportsWrongOrGoesOn) {
    const std::pair<int, const char*> rows[] = {
        {-1, "invalid parameter"},  // The null argument.
        {FAKE_MUTEX_INIT, "mutex init failed"},
        {FAKE_COND_INIT, "cond init failed"},
        {FAKE_COND_SIGNAL, "signal issue"},
        {FAKE_COND_DESTROY, "destroy cond issue"},
        {FAKE_MUTEX_DESTROY, "destroy cond issue"},
    };
    for (const auto& [call, text] : rows) {
        const ChildEnd end = run_child([call = call] {
            errno = ERANGE;  // Has no effect.
            if (call == -1) event_loop_wait_for_async_loop_ready(nullptr);
            fakes.fail[call] = ENOMEM;
            event_loop_async_start();
        });
        EXPECT_EQ(SIGABRT, end.signal) << text;
        const std::string error = strerror(call == -1 ? 0 : ENOMEM);
        const std::regex line(text + (" at \"src/eventloop\":[1-9][0-9]*: " + error + "\n"));
        EXPECT_TRUE(std::regex_match(end.output, line)) << end.output;
    }
}

ISOLATED_TEST(Thread, StopReturnsBeforeTheHandlerOrHangs) {
    EXPECT_EQ(0, event_loop_async_stop());  // Nothing to wait for.
    Semaphore entered(0);
    std::atomic<bool> stopping(false), done(false);
    Step slow = [&] {
        entered.release();
        while (!stopping) std::this_thread::yield();
        for (int n = 0; n < 1000; ++n) std::this_thread::yield();
        done = true;
    };
    ASSERT_EQ(0, event_loop_async_start());
    event_timer_add(run_timer, &slow, 0);
    entered.acquire();
    event_timer_del(note_timer, nullptr);  // These would hang if timer handlers held a lock.
    event_signal_del(SIGUSR1);
    event_process_del(1);
    stopping = true;
    EXPECT_EQ(0, event_loop_async_stop());
    EXPECT_TRUE(done);

    Step stop = [&] {  // On its own thread it can't wait.
        EXPECT_EQ(0, event_loop_async_stop());
        entered.release();
    };
    ASSERT_EQ(0, event_loop_async_start());
    event_timer_add(run_timer, &stop, 0);
    entered.acquire();
    EXPECT_EQ(0, event_loop_async_stop());
    EXPECT_EQ(0, event_loop_async_start());
    EXPECT_EQ(0, event_loop_async_stop());
}

ISOLATED_TEST(Shell, StatusIsWrong) {
    static const std::string too_long(200000, '=');  // Too long for a kernel to pass on.
    static const char *one[] = {"TESSRA_A=1 2", nullptr}, *none[] = {nullptr};
    static const char* no_program[] = {too_long.c_str(), nullptr};
    const struct {
        int status;
        std::string command;
        const char** env = nullptr;
    } rows[] = {
        {768, "exit 3"},
        {0, ""},
        {9, "kill -9 $$"},
        {127 << 8, "/nonexistent"},
        {12 << 8, std::string(1016, ' ') + "exit 12"},  // 1023 characters.
        {1 << 8, std::string(1017, ' ') + "exit 12"},   // The 2 is cut.
        {0, "test \"$TESSRA_A$TESSRA_B\" = '1 2'", one},
        {0, "test -z \"$TESSRA_B\"", none},
        {127 << 8, ":", no_program},
        {0, "test \"$TESSRA_B\" = mine"},
        {0, "kill -INT $PPID; kill -QUIT $PPID"},  // The daemon ignores both.
        {SIGINT, "kill -INT $$; exit 1"},          // The command doesn't.
        {256, "kill -USR1 $$; exit 1"},            // The command ignores it, too.
        {SIGUSR2, "kill -USR2 $$; exit 1"},
    };
    setenv("TESSRA_B", "mine", 1);
    for (const int each : {SIGUSR1, SIGUSR2}) event_signal_add(note_signal, nullptr, each);
    signal(SIGUSR1, SIG_IGN);
    for (const auto& row : rows) {
        EXPECT_EQ(row.status, event_system_env(row.env, "%s", row.command.c_str())) << row.command;
        if (!row.env) EXPECT_EQ(row.status, event_system("%s", row.command.c_str()));
    }
    errno = 0;
    EXPECT_EQ(-1, event_system("exit 0; %ls", L"\x20ac"));
    EXPECT_EQ(EILSEQ, errno);
}

ISOLATED_TEST(Shell, DescriptorReachesTheChild) {
    Step list = [] {
        for (const int fd : {3, 77, 900}) dup2(0, fd);
        rlimit lower;
        getrlimit(RLIMIT_NOFILE, &lower);
        lower.rlim_cur = 100;
        setrlimit(RLIMIT_NOFILE, &lower);
        // The kernel may be too old to close a range, and may show no directory of descriptors.
        // The fault is in shared memory, since a child of vfork() may have its own under a
        // sanitizer or an emulator.
        auto* const no_range =
            static_cast<struct fault*>(mmap(nullptr, sizeof(struct fault), PROT_READ | PROT_WRITE,
                                            MAP_SHARED | MAP_ANONYMOUS, -1, 0));
        *no_range = {FAKE_SYSCALL, 1, ENOSYS, 0, {}};
        for (const int way : {0, 1, 2}) {
            fakes.fault = way == 1 ? no_range : nullptr;
            fakes.fail[FAKE_SYSCALL] = way == 2 ? ENOSYS : 0;
            EXPECT_EQ(0, event_system("for i in $(seq 3 1023); do"
                                      " [ ! -e /proc/self/fd/$i ] || exit 1; done;"
                                      " [ -e /proc/self/fd/0 ]"));
        }
        EXPECT_GE(no_range->calls[FAKE_CLOSE], 4);
        EXPECT_LT(no_range->calls[FAKE_CLOSE], 100);  // It closes only the open ones.
    };
    event_timer_add(run_timer, &list, 0);
    drive(nullptr);  // With the channel open.
}

ISOLATED_TEST(Shell, DispositionsComeBackIncomplete) {
    struct sigaction before = {}, after;
    before.sa_sigaction = [](int, siginfo_t*, void*) {};
    before.sa_flags = SA_SIGINFO | SA_ONSTACK;
    sigaddset(&before.sa_mask, SIGUSR2);
    const int signals[] = {SIGINT, SIGQUIT, SIGCHLD};
    for (const int failing : {0, EINTR}) {
        for (const int signal : signals) sigaction(signal, &before, nullptr);
        fakes.fail[FAKE_WAIT4] = failing;
        EXPECT_EQ(failing ? -1 : 0, event_system("true"));
        for (const int signal : signals) {
            sigaction(signal, nullptr, &after);
            EXPECT_TRUE(after.sa_sigaction == before.sa_sigaction &&
                        (after.sa_flags & before.sa_flags) == before.sa_flags &&
                        sigismember(&after.sa_mask, SIGUSR2) &&
                        !sigismember(&after.sa_mask, SIGINT))
                << signal;
        }
    }
}

ISOLATED_TEST(Shell, WatchedSignalIsBrokenAfterwards) {
    const signal_handler_t check = [](int, siginfo_t* info, void* text) {
        EXPECT_EQ(getpid(), info->si_pid);
        EXPECT_EQ(SI_USER, info->si_code);
        note_timer(text);
    };
    event_signal_add(check, arg("i"), SIGINT);
    event_signal_add(check, arg("q"), SIGQUIT);
    event_signal_add(check, arg("wrong"), SIGCHLD);  // The shell's own exit is no message.
    drive(nullptr, {[] {
              EXPECT_EQ(0, event_system("kill -INT $PPID"));  // The watcher misses it.
              kill(getpid(), SIGINT);
              kill(getpid(), SIGQUIT);
          }});
    EXPECT_EQ("iq", trace);
}

void older(int) {}
void newer(int) {}

void watch(int signal) { event_signal_add(note_signal, nullptr, signal); }
void handle(int signal) { ::signal(signal, newer); }
// Sets the same disposition as the command.
void set_alike(int signal) { ::signal(signal, signal == SIGCHLD ? SIG_DFL : SIG_IGN); }

std::atomic<bool> newer_is_set;
std::thread elsewhere;
void watch_elsewhere(int signal) {
    elsewhere = std::thread(watch, signal);
    for (int n = 0; n < 20000 && !newer_is_set; ++n) sched_yield();
}

// Once another thread has set a disposition, the older one isn't in place at any moment. There is
// one exception: if the daemon itself sets a disposition between the last look and the change, the
// command puts it back a moment later.
ISOLATED_TEST(Shell, DispositionSetMeanwhileStays) {
    static const struct {
        const char* what;
        void (*set)(int signal);
        bool after_look = false;
    } rows[] = {{"watched", watch},
                {"handled", handle},
                {"as the command sets it", set_alike},
                {"handled after the look", handle, true},
                {"watched after the look", watch_elsewhere, true}};
    static const auto* row = rows;
    static int signal;
    static const pid_t daemon = getpid();
    static const auto handler_now = [] {
        struct sigaction now;
        sigaction(signal, nullptr, &now);
        return now.sa_handler;
    };
    static bool armed;
    fakes.after_sigaction = [](int which, const struct sigaction* action) {
        if (getpid() != daemon) return;
        if (which == signal) {
            if (action && action->sa_flags & SA_SIGINFO) newer_is_set = true;  // The catcher.
            if (newer_is_set) EXPECT_NE(older, handler_now()) << row->what;
        }
        const bool all_set = action && which == SIGCHLD, looked = !action && which == signal;
        if (!(row->after_look ? looked : all_set) || !std::exchange(armed, false)) return;
        row->set(signal);
        if (!row->after_look) newer_is_set = true;
    };
    for (; row < std::end(rows); ++row) {
        for (const int each : {SIGINT, SIGQUIT, SIGCHLD}) {
            signal = each;
            ::signal(signal, older);
            newer_is_set = false;
            armed = true;
            EXPECT_EQ(0, event_system(":"));
            EXPECT_FALSE(armed);
            if (elsewhere.joinable()) elsewhere.join();
            EXPECT_NE(older, handler_now()) << row->what;
            const auto uncaught = signal == SIGCHLD ? SIG_DFL : SIG_IGN;
            EXPECT_EQ(row->set == set_alike, handler_now() == uncaught) << row->what;
        }
    }
}

// One cancel comes before the call, another while the command runs. If the kernel can't close a
// range, there are cancellation points between vfork() and exec.
ISOLATED_TEST(Shell, CancelWaitsForTheEndOfTheCommand) {
    char name[] = "/tmp/tessra-shell-XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(name));
    static const std::string fifo = std::string(name) + "/fifo";
    ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
    static struct fault no_range = {FAKE_SYSCALL, 1, ENOSYS, 0, {}};
    fakes.fault = &no_range;
    const int signals[] = {SIGINT, SIGQUIT, SIGCHLD};
    for (const int signal : signals) ::signal(signal, older);
    static int round, status, state_after;
    for (round = 0; round < 2; ++round) {
        no_range.calls[FAKE_SYSCALL] = 0;
        status = state_after = -1;
        pthread_t caller;
        const auto run = [](void*) -> void* {
            if (round == 0) pthread_cancel(pthread_self());
            status = event_system("read x < %s", fifo.c_str());
            pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state_after);
            return nullptr;
        };
        ASSERT_EQ(0, pthread_create(&caller, nullptr, run, nullptr));
        const int running = open(fifo.c_str(), O_WRONLY);
        if (round == 1) pthread_cancel(caller);
        close(running);
        pthread_join(caller, nullptr);
        EXPECT_EQ(256, status);
        EXPECT_EQ(PTHREAD_CANCEL_ENABLE, state_after);
        for (const int signal : signals) EXPECT_EQ(older, ::signal(signal, older));
    }
    unlink(fifo.c_str());
    rmdir(name);
}

// The child of vfork() has the daemon's memory, unless a sanitizer or an emulator gives it its own.
ISOLATED_TEST(Shell, SignalBeforeTheExecRunsNoHandler) {
    static auto* const ran = static_cast<int*>(
        mmap(nullptr, sizeof(int), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    static const pid_t daemon = getpid();
    static int signal;
    fakes.after_sigaction = [](int, const struct sigaction*) {
        if (getpid() != daemon && signal) kill(getpid(), std::exchange(signal, 0));
    };
    for (const int each : {SIGUSR1, SIGUSR2, SIGRTMIN + 1}) {
        signal = each;
        ::signal(signal, [](int) { ++*ran; });
        EXPECT_EQ(each, event_system("exit 1"));
    }
    EXPECT_EQ(0, *ran);
}

// The uptime comes from the fake clock.
TEST(BackgroundTask, RunsTooEarlyTwiceOrNever) {
    const struct {
        unsigned last_ran, minimum_delay, runs_at;
    } rows[] = {{0, 0, 100},   {0, 100, 100}, {0, 101, 101},    // Never run: since boot.
                {95, 10, 105}, {90, 10, 100}, {200, 10, 100}};  // Unsigned wrap-around.
    for (const auto& row : rows) {
        run_isolated([&row] {
            char path[] = "/tmp/tessra-task-XXXXXX",
                 command[] = "echo 100%% >> $TESSRA_TASK; exit 1";
            close(mkstemp(path));
            setenv("TESSRA_TASK", path, 1);
            bg_task_t task = {command, row.minimum_delay, row.last_ran};
            set_clock(100000);
            errno = 0;
            run_bg_task(nullptr);
            EXPECT_EQ(EINVAL, errno);
            for (int n = 0; n < 3; ++n) run_bg_task(&task);
            at_call(FAKE_WAIT4, [] { advance_clock(2000); });  // The command takes two seconds.
            drive(nullptr);
            EXPECT_EQ(row.runs_at, task.last_ran);
            EXPECT_EQ(row.runs_at + 2, fakes.clock_ns / 1000000000);
            std::stringstream text;
            text << std::ifstream(path).rdbuf();
            EXPECT_EQ("100%\n", text.str());
            unlink(path);
        });
    }
}

}  // namespace
