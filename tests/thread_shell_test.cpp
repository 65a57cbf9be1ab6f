/**
 * @file thread_shell_test.cpp
 * The default loop on a thread of its own, loops beside each other, shell commands.
 */
#include <fcntl.h>
#include <semaphore.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <regex>
#include <sstream>
#include <thread>

#include "support/harness.h"

using namespace tessra_test;

namespace {

struct Semaphore {
    Semaphore() { sem_init(&sem, 0, 0); }
    ~Semaphore() { sem_destroy(&sem); }
    void post() { sem_post(&sem); }
    void wait() {
        while (sem_wait(&sem) != 0) {
        }
    }
    sem_t sem;
};

ISOLATED_TEST(Thread, StartIgnoresWhatIsRegisteredOrStopKeepsIt) {
    for (int round = 0; round < 2; round++) {
        Pipe pipe;
        Semaphore called;
        Step report = [&] {
            EXPECT_EQ(1, is_event_loop_thread());
            event_fd_del(pipe.in);
            called.post();
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
        for (int n = 0; n < 3; n++) called.wait();
        event_timer_add(run_timer, &report, 3600000);
        event_timer_add(run_timer, &report, 0);  // Shortens the wait.
        called.wait();
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
    EXPECT_EQ(0, fakes.threads);
    fakes.on_select = nullptr;
    EXPECT_EQ(0, event_timer_exists(event_loop_wait_for_async_loop_ready, nullptr));
    EXPECT_EQ(0, event_loop_async_start());
    EXPECT_EQ(0, event_loop_async_stop());
}

TEST(Thread, BrokenHandshakeReportsWrongOrGoesOn) {
    const struct {
        int call;  // -1: the null argument.
        const char* text;
    } rows[] = {
        {-1, "invalid parameter"},
        {FAKE_MUTEX_INIT, "mutex init failed"},
        {FAKE_COND_INIT, "cond init failed"},
        {FAKE_COND_SIGNAL, "signal issue"},
        {FAKE_COND_DESTROY, "destroy cond issue"},
        {FAKE_MUTEX_DESTROY, "destroy cond issue"},
    };
    for (const auto& row : rows) {
        const ChildEnd end = run_child([&row] {
            errno = ERANGE;  // Plays no part.
            if (row.call == -1) event_loop_wait_for_async_loop_ready(nullptr);
            fakes.fail[row.call] = ENOMEM;
            event_loop_async_start();
        });
        EXPECT_EQ(SIGABRT, end.signal) << row.text;
        const std::regex line(":[1-9][0-9]*:");
        EXPECT_EQ(std::string(row.text) +
                      " at \"src/eventloop\":LINE: " + strerror(row.call == -1 ? 0 : ENOMEM) + "\n",
                  std::regex_replace(end.output, line,
                                     ":LINE:", std::regex_constants::format_first_only));
    }
}

ISOLATED_TEST(Thread, StopReturnsBeforeTheHandlerOrHangs) {
    EXPECT_EQ(0, event_loop_async_stop());  // Nothing to wait for.
    Semaphore entered;
    std::atomic<bool> stopping(false), done(false);
    Step slow = [&] {
        entered.post();
        while (!stopping) std::this_thread::yield();
        for (int n = 0; n < 1000; n++) std::this_thread::yield();
        done = true;
    };
    ASSERT_EQ(0, event_loop_async_start());
    event_timer_add(run_timer, &slow, 0);
    entered.wait();
    event_timer_del(note_timer, nullptr);  // These would hang if timer handlers held a lock.
    event_signal_del(SIGUSR1);
    event_process_del(1);
    stopping = true;
    EXPECT_EQ(0, event_loop_async_stop());
    EXPECT_TRUE(done);

    Step stop = [&] {  // On its own thread it can't wait.
        EXPECT_EQ(0, event_loop_async_stop());
        entered.post();
    };
    ASSERT_EQ(0, event_loop_async_start());
    event_timer_add(run_timer, &stop, 0);
    entered.wait();
    EXPECT_EQ(0, event_loop_async_stop());
    EXPECT_EQ(0, event_loop_async_start());
    EXPECT_EQ(0, event_loop_async_stop());
}

/** One of two loops that pass a byte to and fro and arm each other's timers. */
struct Player {
    event_loop_ctx_tp context = event_mc_init();
    Player* partner = nullptr;
    Pipe pipe;
    int bytes = 0;
    std::atomic<int> timers{0};

    static void on_byte(int fd, void* self) { static_cast<Player*>(self)->pass_on(fd); }
    static void on_timer(void* self) { static_cast<Player*>(self)->timers++; }
    void pass_on(int fd) {
        char byte;
        EXPECT_EQ(1, read(fd, &byte, 1));
        EXPECT_EQ(1, is_event_loop_thread_mc(context));
        EXPECT_EQ(0, is_event_loop_thread_mc(partner->context));
        event_timer_add_mc(partner->context, on_timer, partner, 0);
        EXPECT_EQ(1, write(partner->pipe.out, "x", 1));
        if (++bytes < 1000) return;
        cancel_loop_mc(context);
    }
};

ISOLATED_TEST(Thread, LoopsSideBySideGetInEachOthersWay) {
    Player players[2];
    for (int n = 0; n < 2; n++) {
        players[n].partner = &players[1 - n];
        event_fd_add_mc(players[n].context, Player::on_byte, &players[n], players[n].pipe.in,
                        EVENT_FD_READ);
    }
    EXPECT_EQ(1, write(players[0].pipe.out, "x", 1));
    std::thread other([&] { EXPECT_EQ(0, et_event_loop_mc(players[1].context)); });
    EXPECT_EQ(0, et_event_loop_mc(players[0].context));
    other.join();
    for (Player& player : players) {
        EXPECT_GT(player.timers, 0);
        event_mc_free(player.context);
    }
}

TEST(Shell, StatusIsWrong) {
    const std::string to_1017 = std::string(1017, ' ');
    static const char* const env[] = {"TESSRA_A=1 2", nullptr};
    static const char* const no_env[] = {nullptr};
    static const std::string too_long(200000, '=');  // More than the kernel takes for a program.
    static const char* const no_program[] = {too_long.c_str(), nullptr};
    const struct {
        int status;
        std::function<int()> run;
    } rows[] = {
        {768, [] { return event_system("exit %d", 3); }},
        {9, [] { return event_system("kill -9 $$"); }},
        {127 << 8, [] { return event_system("/nonexistent"); }},
        {12 << 8,
         [&] { return event_system("%sexit 12", to_1017.c_str() + 1); }},      // 1023 characters.
        {1 << 8, [&] { return event_system("%sexit 12", to_1017.c_str()); }},  // The 2 is cut.
        {0,
         [] {
             return event_system_env(const_cast<const char**>(env),
                                     "test \"$TESSRA_A$TESSRA_B\" = '1 2'");
         }},
        {0,
         [] {
             return event_system_env(const_cast<const char**>(no_env), "test -z \"$TESSRA_B\"");
         }},
        {127 << 8, [] { return event_system_env(const_cast<const char**>(no_program), ":"); }},
        {0, [] { return event_system_env(nullptr, "test \"$TESSRA_B\" = %s", "mine"); }},
        {0, [] { return event_system("kill -INT $PPID; kill -QUIT $PPID"); }},  // Ignored.
        {SIGINT, [] { return event_system("kill -INT $$; exit 1"); }},  // Not ignored there.
        {-1,
         [] {
             fakes.fail[FAKE_WAIT4] = EINTR;
             return event_system("true");
         }},
    };
    for (const auto& row : rows) {
        run_isolated([&row] {
            setenv("TESSRA_B", "mine", 1);
            EXPECT_EQ(row.status, row.run());
        });
    }
}

TEST(Shell, MissingShellOrProcessLooksLikeSuccess) {
    if (geteuid() != 0) GTEST_SKIP() << "only root can hide /bin/sh and become another user";
    static char root[] = "/tmp/tessra-root-XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(root));
    const Step checks[] = {
        [] { _exit(chroot(root) == 0 && event_system("true") == 127 << 8 ? 0 : 1); },
        [] {
            const rlimit none = {0, 0};
            signal(SIGINT, SIG_IGN);
            const bool ready = setrlimit(RLIMIT_NPROC, &none) == 0 && setuid(65534) == 0;
            const bool failed = ready && event_system("true") == -1;
            _exit(failed && signal(SIGINT, SIG_DFL) == SIG_IGN ? 0 : 1);
        },
    };
    for (const Step& check : checks) {
        int status = -1;
        EXPECT_GT(waitpid(fork_process(check), &status, 0), 0);
        EXPECT_EQ(0, status) << "check " << &check - checks;
    }
    EXPECT_EQ(0, rmdir(root));
}

ISOLATED_TEST(Shell, DescriptorReachesTheChild) {
    Step list = [] {
        for (const int fd : {3, 77, 900}) dup2(0, fd);
        for (const int failing : {0, ENOSYS}) {  // The kernel may be too old to close a range.
            fakes.fail[FAKE_SYSCALL] = failing;
            EXPECT_EQ(0, event_system("for i in $(seq 3 1023); do"
                                      " [ ! -e /proc/self/fd/$i ] || exit 1; done;"
                                      " [ -e /proc/self/fd/0 ]"));
        }
    };
    event_timer_add(run_timer, &list, 0);
    drive(nullptr);  // With the channel open.
}

bool operator==(const struct sigaction& a, const struct sigaction& b) {
    for (int signal = 1; signal < 32; signal++)
        if (sigismember(&a.sa_mask, signal) != sigismember(&b.sa_mask, signal)) return false;
    return a.sa_flags == b.sa_flags && a.sa_sigaction == b.sa_sigaction;
}

ISOLATED_TEST(Shell, DispositionsComeBackIncomplete) {
    struct sigaction actions[3] = {};
    actions[0].sa_handler = SIG_IGN;
    actions[1].sa_sigaction = [](int, siginfo_t*, void*) {};
    actions[1].sa_flags = SA_SIGINFO | SA_ONSTACK;
    sigaddset(&actions[1].sa_mask, SIGUSR2);
    actions[2].sa_handler = SIG_DFL;
    for (const struct sigaction& action : actions) {
        for (const int failing : {0, EINTR}) {
            struct sigaction before[3], after[3];
            const int signals[] = {SIGINT, SIGQUIT, SIGCHLD};
            for (int n = 0; n < 3; n++) {
                sigaction(signals[n], &action, nullptr);
                sigaction(signals[n], nullptr, &before[n]);
            }
            fakes.fail[FAKE_WAIT4] = failing;
            event_system("true");
            for (int n = 0; n < 3; n++) {
                sigaction(signals[n], nullptr, &after[n]);
                EXPECT_TRUE(before[n] == after[n]) << signals[n];
            }
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
    event_signal_add(check, arg("wrong"), SIGCHLD);  // The shell's own end is no message.
    drive(nullptr, {[] {
              EXPECT_EQ(0, event_system("kill -INT $PPID"));  // Missed meanwhile.
              kill(getpid(), SIGINT);
              kill(getpid(), SIGQUIT);
          }});
    EXPECT_EQ("iq", trace);
}

ISOLATED_TEST(Shell, WatcherAddedMeanwhileIsLostAtItsEnd) {
    char name[] = "/tmp/tessra-shell-XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(name));
    const std::string fifo = std::string(name) + "/fifo";
    ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
    std::thread command([&] { EXPECT_EQ(256, event_system("read x < %s", fifo.c_str())); });
    const int running = open(fifo.c_str(), O_WRONLY);
    for (const int signal : {SIGINT, SIGQUIT, SIGCHLD})
        event_signal_add(note_signal, arg("s"), signal);
    close(running);
    command.join();
    drive(nullptr, {[] { raise(SIGINT), raise(SIGQUIT), raise(SIGCHLD); }});
    EXPECT_EQ("sss", trace);
    unlink(fifo.c_str());
    rmdir(name);
}

// The uptime is the fake clock's.
TEST(BackgroundTask, RunsTooEarlyTwiceOrNever) {
    const struct {
        unsigned uptime, last_ran, minimum_delay, runs_at;
    } rows[] = {
        {100, 0, 0, 100},    {100, 0, 100, 100},
        {100, 0, 101, 101},  // Since boot, as it has never run.
        {100, 95, 10, 105},  {100, 90, 10, 100},
        {100, 200, 10, 100},  // Unsigned wrap-around.
    };
    for (const auto& row : rows) {
        run_isolated([&row] {
            char path[] = "/tmp/tessra-task-XXXXXX",
                 command[] = "echo 100%% >> $TESSRA_TASK; exit 1";
            close(mkstemp(path));
            setenv("TESSRA_TASK", path, 1);
            bg_task_t task = {command, row.minimum_delay, row.last_ran};
            set_clock(row.uptime * 1000ULL);
            for (int n = 0; n < 3; n++) run_bg_task(&task);
            drive(nullptr);
            EXPECT_EQ(row.runs_at, task.last_ran);
            EXPECT_EQ(row.runs_at, fakes.clock_ns / 1000000000);
            std::stringstream text;
            text << std::ifstream(path).rdbuf();
            EXPECT_EQ("100%\n", text.str());
            unlink(path);
        });
    }
}

}  // namespace
