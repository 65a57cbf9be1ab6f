/**
 * @file signals_test.cpp
 * Caught signals on their way from the catcher through the channel to the watchers.
 */
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <thread>
#include <utility>

#include "support/harness.h"

using namespace tessra_test;

namespace {

void queue_signal(int signal, int value) {
    sigval with = {};
    with.sival_int = value;
    sigqueue(getpid(), signal, with);
    pthread_sigmask(SIG_BLOCK, nullptr, nullptr);  // Here ThreadSanitizer hands signals on.
}

/** Whether the record is of queue_signal(signal, value). */
bool intact(const siginfo_t* info, int signal, int value) {
    return info->si_signo == signal && info->si_code == SI_QUEUE && info->si_pid == getpid() &&
           info->si_value.sival_int == value;
}

/** Three watchers of SIGUSR1, A to C, called "a" to "c" in a nested pass. */
struct Watched {
    char actor;
    const char* outer;  // 'x' deletes the oldest watcher, '!' is a nested pass, '+' adds "D".
    const char* inner;  // What the first handler of the nested pass does.
    bool nested;
    const siginfo_t* info;
} watched;

void act(int signal, siginfo_t* info, void* arg) {
    const char name = *static_cast<char*>(arg);
    const bool nested = watched.nested;
    trace += static_cast<char>(nested ? name - 'A' + 'a' : name);
    EXPECT_TRUE(intact(info, SIGUSR1, nested ? 8 : 7) && signal == SIGUSR1);
    EXPECT_TRUE(nested || !watched.info || watched.info == info) << "not the same record";
    if (!nested) watched.info = info;
    if (!nested && name != watched.actor) return;
    const char* actions = std::exchange(nested ? watched.inner : watched.outer, "");
    for (; *actions; actions++) {
        if (*actions == 'x') event_signal_del(SIGUSR1);
        if (*actions == '+') event_signal_add(note_signal, tessra_test::arg("D"), SIGUSR1);
        if (*actions != '!') continue;
        watched.nested = true;
        EXPECT_EQ(0, do_events(0));
        watched.nested = false;
    }
}

TEST(Signals, DeletionsInAPassCallTheWrongOnesOrUseFreedOnes) {
    const struct {
        char actor;
        const char *outer, *inner, *called;
    } rows[] = {
        {'A', "", "", "ABC ABC"},    {'A', "x", "", "ABC BC"},  // Itself.
        {'A', "xx", "", "AC C"},      // And the pinned successor, which is marked,
        {'A', "xxx", "", "AC C"},     // and stands before the third one.
        {'C', "xx", "", "ABC C"},     // Those before it.
        {'A', "+", "", "ABCD ABCD"},  // A new one runs,
        {'C', "+", "", "ABC ABCD"},   // but not behind the last one.
        {'A', "!", "", "AabcBC"},    {'A', "x!", "", "AbcBC"},   // Before the nested pass,
        {'A', "xx!", "", "AcC"},     {'A', "!x", "", "AabcBC"},  // after it,
        {'A', "!xx", "", "AabcC"},   {'A', "x!x", "", "AbcC"},
        {'A', "!", "x", "AabcBC"},  // in it.
        {'A', "!", "xx", "AacC"},    {'A', "x!", "x", "AbcC"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(std::string() + row.actor + " " + row.outer + " " + row.inner);
        run_isolated([&row] {
            const bool nests = strchr(row.outer, '!');
            watched = {row.actor, row.outer, row.inner, false, nullptr};
            for (const char& name : "ABC") {
                if (name) event_signal_add(act, arg(&name), SIGUSR1);
            }
            const Step two = [] { queue_signal(SIGUSR1, 7), queue_signal(SIGUSR1, 8); };
            const Step one = [] { queue_signal(SIGUSR1, 7); };
            const Step again = [] {
                trace += " ", watched.info = nullptr, queue_signal(SIGUSR1, 7);
            };
            drive(nullptr, nests ? std::vector<Step>{two} : std::vector<Step>{one, again});
            EXPECT_EQ(row.called, trace.substr(0, strlen(row.called)));
        });
    }
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
    for (int signal = 1; signal <= 31; signal++) {
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
    event_signal_del_mc(other, SIGTERM);
    drive(other, {send});
    send();
    EXPECT_EQ("o", trace);
    event_mc_free(other);
}

// The channel holds some 500 messages; a part of one would turn what follows into nonsense.
ISOLATED_TEST(Signals, FullChannelTearsMessagesOrChangesErrno) {
    static int delivered, torn;
    event_signal_add(
        [](int signal, siginfo_t* info, void*) {
            delivered++;
            torn += !intact(info, signal, signal);
        },
        nullptr, SIGUSR1);
    event_signal_add([](int, siginfo_t*, void*) { torn++; }, nullptr, SIGUSR2);
    const Step flood = [] {
        errno = 77;
        for (int n = 0; n < 1000; n++) queue_signal(SIGUSR1, SIGUSR1);
        EXPECT_EQ(77, errno);
    };
    drive(nullptr, {[&] { event_fd_del(777), flood(); }, [] { delivered = 0; }, flood});
    EXPECT_TRUE(400 < delivered && delivered < 1000) << delivered;
    EXPECT_EQ(0, torn);
}

/** Threads that call something until the object ends. */
class Senders {
public:
    Senders(int count, const std::function<void(int)>& send) {
        for (int n = 0; n < count; n++)
            threads_.emplace_back([this, n, send] {
                while (!stop_) send(n);
            });
    }
    ~Senders() {
        stop_ = true;
        for (std::thread& thread : threads_) thread.join();
    }

private:
    std::atomic<bool> stop_{false};
    std::vector<std::thread> threads_;
};

ISOLATED_TEST(Signals, StormWithWakeUpsMixesTheRecords) {
    static const int kSignals[] = {SIGUSR1, SIGUSR2, SIGHUP, SIGWINCH};
    static int delivered[32], torn;
    for (const int signal : kSignals) {
        event_signal_add(
            [](int number, siginfo_t* info, void*) {
                torn += !intact(info, number, number);
                delivered[number]++;
                for (const int each : kSignals)
                    if (delivered[each] < 200) return;
                cancel_loop();
            },
            nullptr, signal);
    }
    Senders senders(3, [](int n) {
        queue_signal(kSignals[n], kSignals[n]);
        event_timer_del(note_timer, nullptr);
        queue_signal(kSignals[3], kSignals[3]);
        std::this_thread::yield();
    });
    EXPECT_EQ(0, et_event_loop());
    EXPECT_EQ(0, torn);
}

ISOLATED_TEST(Signals, ForkedChildSendsIntoTheParentsChannel) {
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

// The descriptors that this thread opens take the numbers of the channel that has just been closed.
ISOLATED_TEST(Signals, CatcherWritesToAReusedDescriptor) {
    event_loop_ctx_tp context = event_mc_init();
    event_signal_add_mc(
        context, [](int, siginfo_t*, void*) {}, nullptr, SIGUSR1);
    std::atomic<bool> done(false);
    std::thread runner([&] {
        for (int round = 0; round < 300; round++) {
            event_timer_add_mc(
                context, [](void* arg) { cancel_loop_mc(static_cast<event_loop_ctx_tp>(arg)); },
                context, 0);
            EXPECT_EQ(0, et_event_loop_mc(context));
        }
        done = true;
    });
    Senders senders(1, [](int) { queue_signal(SIGUSR1, 0); });
    while (!done) {
        Pipe pipe;
        std::this_thread::yield();
        int unread = 0;
        EXPECT_EQ(0, ioctl(pipe.in, FIONREAD, &unread));
        ASSERT_EQ(0, unread);
    }
    runner.join();
    event_mc_free(context);
}

ISOLATED_TEST(Signals, ContextsThatStartAndEndTogetherLoseSignals) {
    signal(SIGUSR1, SIG_IGN);
    signal(SIGUSR2, SIG_IGN);
    Senders senders(2, [](int n) {
        queue_signal(n ? SIGUSR1 : SIGUSR2, 5);
        std::this_thread::yield();
    });
    std::vector<std::thread> runners;
    for (int n = 0; n < 4; n++) {
        runners.emplace_back([] {
            for (int round = 0; round < 50; round++) {
                event_loop_ctx_tp context = event_mc_init();
                const signal_handler_t end = [](int signal, siginfo_t* info, void* arg) {
                    EXPECT_TRUE(intact(info, signal, 5));
                    cancel_loop_mc(static_cast<event_loop_ctx_tp>(arg));
                };
                event_signal_add_mc(context, end, context, SIGUSR1);
                event_signal_add_mc(context, end, context, SIGUSR2);
                EXPECT_EQ(0, et_event_loop_mc(context));
                event_mc_free(context);
            }
        });
    }
    for (std::thread& runner : runners) runner.join();
}

}  // namespace
