// Caught signals on their way from the catcher through the channel to the watchers.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <thread>

#include "support/harness.h"

using namespace tessra_test;

namespace {

void queue_signal(int signal, int value) {
    sigval with = {};
    with.sival_int = value;
    sigqueue(getpid(), signal, with);
    pthread_sigmask(SIG_BLOCK, nullptr, nullptr);  // ThreadSanitizer delivers signals here.
}

// Returns whether the record is that of queue_signal(signal, value).
bool intact(const siginfo_t* info, int signal, int value) {
    return info->si_signo == signal && info->si_code == SI_QUEUE && info->si_pid == getpid() &&
           info->si_value.sival_int == value;
}

ISOLATED_TEST(Signals, NumberOutOfRangeIsRegistered) {
    for (const int signal : {0, -1, -83, 32, 64, 173, SIGKILL, SIGSTOP}) {
        errno = 0;
        event_signal_add(note_signal, arg("wrong"), signal);
        EXPECT_EQ(EINVAL, errno) << signal;
    }
    static std::vector<int> seen;
    std::vector<int> expected;
    const signal_handler_t note = [](int signal, siginfo_t* info, void*) {
        EXPECT_EQ(signal, info->si_signo);
        seen.push_back(signal);
    };
    for (int signal = 1; signal <= 31; ++signal) {
        if (signal == SIGKILL || signal == SIGSTOP) continue;
        expected.push_back(signal);
        event_signal_add(note, nullptr, signal);
    }
    drive(nullptr, {[&] {
              for (int signal : expected) raise(signal);
          }});
    EXPECT_EQ(expected, seen);
}

ISOLATED_TEST(Signals, DefaultActionOrBacklogComesBack) {
    event_loop_ctx_tp other = event_mc_init();
    event_signal_add_mc(other, note_signal, arg("o"), SIGTERM);
    struct sigaction action;
    sigaction(SIGTERM, nullptr, &action);
    EXPECT_EQ(SA_SIGINFO | SA_RESTART, action.sa_flags & ~0x04000000);
    const Step send = [] { raise(SIGTERM); };
    send();                  // No loop runs.
    drive(nullptr, {send});  // A loop without a watcher.
    drive(other);
    EXPECT_EQ("", trace);
    drive(other, {send});
    EXPECT_EQ("o", trace);
    drive(other, {[&] {  // More than the channel takes, and the loop ends after one.
              for (int n = 0; n < 1000; ++n) send();
              cancel_loop_mc(other);
          }});
    drive(other);
    EXPECT_EQ("oo", trace);
    event_signal_del_mc(other, SIGTERM);
    drive(other, {send});
    send();
    EXPECT_EQ("oo", trace);
    event_mc_free(other);
}

// The channel has room for some 500 messages. A partial message would spoil all messages after it.
// When the channel is full, the library keeps one signal of each number, the first one.
ISOLATED_TEST(Signals, FullChannelTearsOrLosesMessagesOrChangesErrno) {
    static int delivered, torn;
    static std::string late;
    event_signal_add(
        [](int signal, siginfo_t* info, void*) {
            ++delivered;
            torn += !intact(info, signal, signal);
        },
        nullptr, SIGUSR1);
    const signal_handler_t note = [](int signal, siginfo_t* info, void*) {
        torn += !intact(info, signal, 3);
        late += std::to_string(signal) + " ";
    };
    event_signal_add(note, nullptr, SIGUSR2);
    const Step flood = [] {
        errno = 77;
        for (int n = 0; n < 1000; ++n) queue_signal(SIGUSR1, SIGUSR1);
        for (int value = 3; value < 5; ++value) queue_signal(SIGUSR2, value);
        EXPECT_EQ(77, errno);
    };
    drive(nullptr, {flood});
    EXPECT_TRUE(400 < delivered && delivered < 1000) << delivered;
    EXPECT_EQ("12 ", late);
    EXPECT_EQ(0, torn);
}

#if defined(__SANITIZE_THREAD__)
// ThreadSanitizer runs the handlers of these at once, even while it holds its own locks.
constexpr unsigned kUnsafe = 1u << SIGILL | 1u << SIGTRAP | 1u << SIGABRT | 1u << SIGBUS |
                             1u << SIGFPE | 1u << SIGSEGV | 1u << SIGPIPE | 1u << SIGSYS;
#else
constexpr unsigned kUnsafe = 0;
#endif
constexpr unsigned kCatchable = ~(1u | 1u << SIGKILL | 1u << SIGSTOP | kUnsafe);

// Sends every kind of signal through the smallest channel. In each round several threads send
// bursts while a handler runs. Then the handler floods the channel and sends every kind for the
// last time. Each kind must arrive after that. A lost one never would.
void storm_over_a_full_channel() {
    constexpr int kRounds = sizeof(void*) == 4 ? 200 : 2000;  // Emulated machines are slow.
    constexpr int kSenders = 2;
    static std::atomic<int> sent[32], round, bursts;
    static int delivered[32], torn;
    static unsigned awaited;
    static std::atomic<bool> shrunk;
    static const auto send_all = [](int n) {
        for (int step = 1; step < 32; ++step) {
            const int signal = n ? 32 - step : step;
            if (!(kCatchable >> signal & 1)) continue;
            ++sent[signal];
            queue_signal(signal, signal);
        }
    };
    fakes.before_message = [](int fd, size_t) {
        if (!shrunk.exchange(true)) EXPECT_EQ(4096, fcntl(fd, F_SETPIPE_SZ, 4096));
    };
    static const timer_handler_t next_round = [](void*) {
        if (round == kRounds) return cancel_loop();
        event_fd_del(777);  // The first message shrinks the channel, before it is full.
        bursts = 0;
        ++round;
        while (bursts < kSenders) std::this_thread::yield();
        for (int n = 0; n < (round % 8 ? round % 50 : 4200); ++n) event_fd_del(777);
        awaited = kCatchable;
        send_all(0);
    };
    for (int signal = 1; signal < 32; ++signal) {
        if (!(kCatchable >> signal & 1)) continue;
        event_signal_add(
            [](int number, siginfo_t* info, void*) {
                torn += !intact(info, number, number);
                ++delivered[number];
                const unsigned before = awaited;
                awaited &= ~(1u << number);
                if (before != 0 && awaited == 0) event_timer_add(next_round, nullptr, 0);
            },
            nullptr, signal);
    }
    event_timer_add(next_round, nullptr, 0);
    std::vector<std::thread> senders;
    for (int n = 0; n < kSenders; ++n) {
        senders.emplace_back([n] {
            for (int seen = 0; seen < kRounds; std::this_thread::yield()) {
                queue_signal(0, 0);
                if (seen == round) continue;
                seen = round;
                for (int burst = 0; burst < 3; ++burst) send_all(n);
                ++bursts;
            }
        });
    }
    EXPECT_EQ(0, et_event_loop());
    for (std::thread& sender : senders) sender.join();
    EXPECT_EQ(kRounds, round);
    EXPECT_EQ(0, torn);
    for (int signal = 1; signal < 32; ++signal) EXPECT_LE(delivered[signal], sent[signal]);
}

// A signal waits only for the present pass and for earlier signals, whatever has changed before.
ISOLATED_TEST(Signals, NoneWaitsBehindWakeUps) {
    static size_t first;
    static int before, handled;
    static Step raise_all = [] {
        for (int n = 0; n < before; ++n) event_timer_del(note_timer, nullptr);
        first = selects() + 1;
        for (int value = 0; value < 400; ++value) queue_signal(SIGUSR1, value);
    };
    const signal_handler_t in_order = [](int, siginfo_t* info, void*) {
        EXPECT_EQ(handled, info->si_value.sival_int);
        EXPECT_EQ(first + static_cast<size_t>(handled), selects());
        ++handled;
        for (int n = 0; n < 9; ++n) event_timer_del(note_timer, nullptr);
    };
    for (const int changes : {0, 10, 1000, 50000}) {
        SCOPED_TRACE(changes);
        before = changes;
        handled = 0;
        event_signal_add(in_order, nullptr, SIGUSR1);
        event_timer_add(run_timer, &raise_all, 0);
        EXPECT_EQ(0, drive(nullptr).result);
        EXPECT_EQ(400, handled);
    }
}

// The library keeps SIGHUP again and again: its handler raises more of it than the loop takes.
ISOLATED_TEST(Signals, KeptOnesTakeTurns) {
    static int turns;
    const signal_handler_t refill = [](int, siginfo_t*, void*) {
        for (int n = 0; n < 40; ++n) raise(SIGHUP);
        if (++turns == 3000) cancel_loop();
    };
    const signal_handler_t end = [](int, siginfo_t*, void*) { cancel_loop(); };
    event_signal_add(refill, nullptr, SIGHUP);
    event_signal_add(end, nullptr, SIGTERM);
    drive(nullptr, {[] {
              for (int n = 0; n < 1000; ++n) raise(SIGHUP);
              raise(SIGTERM);
          }});
    EXPECT_LT(turns, 100);
}

TEST(Signals, StormOverAFullChannelLosesOrInventsAKind) {
    if (getenv("TESSRA_EMULATED")) {
        GTEST_SKIP()
            << "qemu-user spoils the record of SIGIO, and crashes of SIGSEGV and of storms";
    }
    run_isolated(storm_over_a_full_channel);
}

ISOLATED_TEST(Signals, ForkedChildSendsIntoTheParentsChannel) {
    pthread_atfork(nullptr, nullptr, [] { raise(SIGUSR1); });  // Before the library's handler.
    event_signal_add(note_signal, arg("wrong"), SIGUSR1);
    pid_t pid = 0;
    const Step fork_one = [&] {
        pid = fork_process([] {
            raise(SIGUSR1);
            event_loop_ctx_tp own = event_mc_init();
            event_signal_add_mc(own, note_signal, arg("own"), SIGUSR1);
            drive(own, {[] { raise(SIGUSR1); }});
            _exit(trace == "own" ? 7 : 8);
        });
        await_child(pid);
    };
    drive(nullptr, {fork_one});
    int status = 0;
    EXPECT_EQ(pid, waitpid(pid, &status, 0));
    EXPECT_EQ(7, WEXITSTATUS(status));
    EXPECT_EQ("", trace);
}

// Holds a writer before its write while the loop ends. The loop must not close the channel yet, and
// the writer must not hold the lock of the list.
ISOLATED_TEST(Signals, WriterMeetsAClosedChannelOrKeepsTheLock) {
    static event_loop_ctx_tp context = event_mc_init();
    static std::atomic<bool> running, writing, ended, same_channel;
    static std::atomic<int> found;
    event_signal_add_mc(context, note_signal, arg(""), SIGUSR1);
    fakes.before_message = [](int fd, size_t) {
        if (!running || writing.exchange(true)) return;
        struct stat before = {}, after = {};
        fstat(fd, &before);
        for (int n = 0; n < 20000 && !ended; ++n) sched_yield();
        same_channel = fstat(fd, &after) == 0 && after.st_ino == before.st_ino && found != -1;
    };
    const Step writers[] = {[] { raise(SIGUSR1); },
                            [] { event_timer_add_mc(context, note_timer, nullptr, 1000); }};
    for (const Step& write : writers) {
        running = writing = ended = same_channel = false;
        found = -1;
        event_timer_add_mc(
            context, [](void*) { running = true; }, nullptr, 0);
        std::thread runner([] {
            EXPECT_EQ(0, et_event_loop_mc(context));
            ended = true;
        });
        while (!running) std::this_thread::yield();
        std::thread ender([] {
            while (!writing) std::this_thread::yield();
            found = event_timer_exists_mc(context, note_timer, nullptr);
            cancel_loop_mc(context);
        });
        write();
        EXPECT_TRUE(same_channel);
        ender.join();
        runner.join();
    }
    event_mc_free(context);
}

}  // namespace
