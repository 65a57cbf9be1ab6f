/**
 * @file loop_test.cpp
 * Start, passes, wake-ups, nested passes and end of a loop.
 */
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <regex>
#include <thread>

#include "support/harness.h"

using namespace tessra_test;

namespace {

constexpr unsigned long long kHour = 3600000;

std::string fifo_path() { return "/tmp/evtloop" + std::to_string(getpid()); }

bool fifo_exists() { return access(fifo_path().c_str(), F_OK) == 0; }

ISOLATED_TEST(Pass, PhasesRunOutOfOrderOrTakeTwoSignals) {
    int passes = 0;
    const int fd = ready_descriptor();
    set_clock(1000);
    Step every_pass = [&] {
        trace += " f";
        if (++passes == 4) event_fd_del(fd);
        if (passes > 1) return;
        raise(SIGUSR1);
        raise(SIGUSR2);
        event_timer_add(note_timer, arg("t"), 0);
    };
    Step on_signal = [] {
        trace += "s";
        event_timer_add(note_timer, arg("t"), 0);
    };
    event_signal_add(run_signal, &on_signal, SIGUSR2);
    event_signal_add(run_signal, &on_signal, SIGUSR1);
    event_fd_add(run_fd, &every_pass, fd, EVENT_FD_READ);
    drive(nullptr);
    EXPECT_EQ(" ft fst fst f", trace);
}

ISOLATED_TEST(Pass, CancelCutsThePassShort) {
    Step cancel = [] { cancel_loop(); };
    event_fd_add(run_fd, &cancel, ready_descriptor(), EVENT_FD_READ);
    event_fd_add(note_fd, arg("f"), ready_descriptor(), EVENT_FD_READ);
    event_timer_add(note_timer, arg("t"), 0);
    EXPECT_EQ(0, et_event_loop());
    EXPECT_EQ("ft", trace);
}

// After a failed select() the sets still name all descriptors: a pass would call the handler.
ISOLATED_TEST(Pass, RunsAfterAnInterruptedWait) {
    Pipe quiet;
    set_clock(1000);
    event_fd_add(note_fd, arg("f"), quiet.in, EVENT_FD_READ);
    event_timer_add(note_timer, arg("t"), 10);
    Step late = [] { trace += " waiting again "; };
    const Drive run = drive(nullptr, {[] { interrupt_wait(); }, late});
    EXPECT_EQ(" waiting again t", trace);
    EXPECT_EQ((std::vector<long long>{10000, 10000, 10000, kEndless}), run.waits_us);
}

ISOLATED_TEST(Loop, ChangeDoesNotWakeItOrWakesItTwice) {
    Pipe quiet;
    const struct {
        const char* what;
        Step change;
        int wakes;
    } rows[] = {
        {"timer", [] { event_timer_add(note_timer, nullptr, kHour); }, 1},
        {"no such timer to delete", [] { event_timer_del(note_timer, arg("none")); }, 1},
        {"question", [] { event_timer_exists(note_timer, nullptr); }, 0},
        {"descriptor", [&] { event_fd_add(note_fd, nullptr, quiet.in, EVENT_FD_READ); }, 1},
        {"no such descriptor to delete", [] { event_fd_del(777); }, 1},
        {"signal", [] { event_signal_add(note_signal, nullptr, SIGUSR1); }, 1},
        {"no such signal to delete", [] { event_signal_del(SIGUSR2); }, 1},
        {"first child, which adds SIGCHLD", [] { event_process_add(getpid(), nullptr, nullptr); },
         2},
        {"child", [] { event_process_add(getpid(), nullptr, nullptr); }, 1},
        {"no such child to delete", [] { event_process_del(1); }, 1},
        {"wake-ups merged",
         [] {
             for (int n = 0; n < 5; n++) event_fd_del(777);
         },
         5},
    };
    for (const auto& row : rows) {
        const Drive run = drive(nullptr, {row.change});
        EXPECT_EQ(row.wakes, run.ready - 1) << row.what;  // One more for the cancel.
        EXPECT_EQ(0, run.result);
    }
}

ISOLATED_TEST(Loop, SecondStartDisturbsTheRunningOne) {
    for (event_loop_ctx_tp context : {event_loop_ctx_tp(), event_mc_init()}) {
        Step start = [&] { EXPECT_EQ(-1, context ? et_event_loop_mc(context) : et_event_loop()); };
        Step start_when_stopping = [&] {
            context ? cancel_loop_mc(context) : cancel_loop();
            start();
            std::thread(start).join();
        };
        context ? cancel_loop_mc(context) : cancel_loop();  // Idle: without a lasting effect.
        EXPECT_EQ(0, drive(context, {start, start_when_stopping}).result);
        event_mc_free(context);
    }
}

ISOLATED_TEST(Loop, EndDropsOrKeepsTheWrongWatchers) {
    const struct {
        event_loop_ctx_tp context;
        const char* second_run;
    } rows[] = {{nullptr, ""}, {event_mc_init(), "tfs"}};
    for (const auto& [context, second_run] : rows) {
        Pipe pipe;
        Step read_it = [&] {
            char byte;
            EXPECT_EQ(1, read(pipe.in, &byte, 1));
            trace += "f";
        };
        trace = "";
        set_clock(1000);
        if (context) {
            event_fd_add_mc(context, run_fd, &read_it, pipe.in, EVENT_FD_READ);
            event_signal_add_mc(context, note_signal, arg("s"), SIGUSR1);
            event_timer_add_mc(context, note_timer, arg("t"), 10);
        } else {
            event_fd_add(run_fd, &read_it, pipe.in, EVENT_FD_READ);
            event_signal_add(note_signal, arg("s"), SIGUSR1);
            event_timer_add(note_timer, arg("t"), 10);
        }
        drive(context, {[&] { context ? cancel_loop_mc(context) : cancel_loop(); }});
        EXPECT_EQ("", trace);
        advance_clock(10);  // The timer is overdue in the first pass of the next run.
        Step stimulate = [&] {
            raise(SIGUSR1);
            EXPECT_EQ(1, write(pipe.out, "x", 1));
        };
        drive(context, {stimulate});
        EXPECT_EQ(second_run, trace);
        event_mc_free(context);
    }
}

ISOLATED_TEST(Loop, FailedAddRegistersOrChangesErrno) {
    Pipe pipe;
    const int fd = ready_descriptor();
    Step once = [&] {
        trace += "f";
        event_fd_del(fd);
    };
    const Step adds[] = {
        [] { event_timer_add(note_timer, arg("t"), 0); },
        [&] { event_fd_add(run_fd, &once, fd, EVENT_FD_READ); },
        [] { event_signal_add(note_signal, arg("s"), SIGUSR1); },
        [] { event_process_add(getpid(), note_process, nullptr); },
        [] {
            if (event_loop_ctx_tp context = event_mc_init()) event_mc_free(context);
        },
    };
    for (const Step& add : adds) {
        for (int nth = 1, failed = 1; failed; nth++) {
            fail_allocation = nth;
            errno = 77;
            add();
            failed = fail_allocation == 0;
            fail_allocation = 0;
            EXPECT_EQ(failed ? ENOMEM : 77, errno) << nth << " of add " << &add - adds;
            ASSERT_LT(nth, 5);
        }
    }
    event_mc_free(nullptr);
    drive(nullptr, {[] { raise(SIGUSR1); }});
    EXPECT_EQ("fts", trace);  // Each once.
}

int lowest_free() {
    const int fd = dup(0);
    close(fd);
    return fd;
}

void limit_descriptors(int limit) {
    rlimit now;
    getrlimit(RLIMIT_NOFILE, &now);
    now.rlim_cur = static_cast<rlim_t>(limit);
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &now));
}

TEST(Start, FailureLeavesChannelEndsOrLogsTheWrongLine) {
    const std::string head = "6/1 <%x> %s:%s(%d) - ";
    const std::string filled = "|<1> src/eventloop:et_event_loop_mc(LINE) - ";
    const auto log = [&](const std::string& text) { return head + text + filled + text; };
    const struct {
        const char* what;
        Step prepare;
        int left_open;
        bool fifo_left;
        std::string output;
    } rows[] = {
        {"no FIFO", [] { fakes.fail[FAKE_MKFIFO] = EACCES; }, 0, false,
         log("Failed to create fifo\n")},
        {"no read end", [] { limit_descriptors(lowest_free()); }, 0, true,
         log("Failed to open pingpong fifo for reading\n")},
        {"no write end", [] { limit_descriptors(lowest_free() + 1); }, 1, true,
         log("Failed to open pingpong fifo for writing\n")},
        {"nobody logs", [] { fakes.log_off = 1, fakes.fail[FAKE_MKFIFO] = EACCES; }, 0, false, ""},
    };
    for (const auto& row : rows) {
        const ChildEnd end = run_child([&row] {
            event_loop_ctx_tp context = event_mc_init();
            const int before = open_descriptors();
            row.prepare();
            EXPECT_EQ(-1, et_event_loop_mc(context));
            fakes.fail[FAKE_MKFIFO] = 0;
            limit_descriptors(1024);
            EXPECT_EQ(before + row.left_open, open_descriptors());
            EXPECT_EQ(row.fifo_left, fifo_exists());
            EXPECT_EQ(0, drive(context).result);  // A later start neither fails nor leaks.
            EXPECT_EQ(before, open_descriptors());
            EXPECT_FALSE(fifo_exists());
            event_mc_free(context);
        });
        EXPECT_TRUE(end.completed) << row.what;
        const std::regex line("et_event_loop_mc\\([1-9][0-9]*\\)");
        EXPECT_EQ(row.output, std::regex_replace(end.output, line, "et_event_loop_mc(LINE)"));
    }
}

ISOLATED_TEST(Start, ChannelBeyondFdSetsizeOverrunsTheSets) {
    limit_descriptors(2000);
    int last = 0;
    while (last < FD_SETSIZE) last = dup(0);
    const int before = open_descriptors();
    EXPECT_EQ(-1, et_event_loop());
    EXPECT_EQ(before, open_descriptors());
    EXPECT_FALSE(fifo_exists());
    close(FD_SETSIZE - 1);
    close(FD_SETSIZE - 2);
    EXPECT_EQ(0, drive(nullptr).result);
}

ISOLATED_TEST(Start, NameInTmpIsInTheWayOrStays) {
    const Step gone = [] { EXPECT_FALSE(fifo_exists()); };
    EXPECT_EQ(0, drive(nullptr, {gone}).result);
    ASSERT_EQ(0, mkfifo(fifo_path().c_str(), 0666));  // As a dead process of this id leaves it.
    EXPECT_EQ(0, drive(nullptr, {gone, [] { event_fd_del(777); }, gone}).result);
}

ISOLATED_TEST(Start, FileOfAnotherKindIsUsedAsTheChannel) {
    const std::string path = fifo_path();
    const Step makers[] = {
        [&] { close(open(path.c_str(), O_CREAT | O_WRONLY, 0600)); },
        [&] { ASSERT_EQ(0, symlink("/dev/null", path.c_str())); },
    };
    const int before = open_descriptors();
    for (const Step& make : makers) {
        make();
        EXPECT_EQ(-1, et_event_loop());
        EXPECT_EQ(before, open_descriptors());
        EXPECT_EQ(0, remove(path.c_str()));
    }
}

TEST(Loop, SelectFailureGoesUnreportedOrSpins) {
    for (const int log_off : {0, 1}) {
        const ChildEnd end = run_child([log_off] {
            fakes.log_off = log_off;
            fakes.on_select = [](int, fd_set*, fd_set*, fd_set*, timeval*) {
                errno = EBADF;
                return -1;
            };
            et_event_loop();
        });
        EXPECT_EQ(1, end.exit_code);
        const std::string format = "6/1 <%x> %s:%s(%d) - Error in select(), errno=%s(%d) - exit\n";
        const std::string text =
            "|<1> src/eventloop:et_event_loop_mc(LINE) - Error in select(), errno=" +
            std::string(strerror(EBADF)) + "(" + std::to_string(EBADF) + ") - exit\n";
        const std::regex line("et_event_loop_mc\\([1-9][0-9]*\\)");
        EXPECT_EQ(log_off ? "" : format + text,
                  std::regex_replace(end.output, line, "et_event_loop_mc(LINE)"));
    }
}

ISOLATED_TEST(Clock, SecondsOverflowInMilliseconds) {
    fakes.clock_ns = 5000000999999999ULL;  // 5e9 ms don't fit 32 bits; .999999999 is cut.
    EXPECT_EQ(5000000999ULL, event_get_time());
    EXPECT_EQ(5000000, event_get_time_sec());
}

ISOLATED_TEST(NestedPass, RunsOnAnotherThreadOrWithoutALoop) {
    const Step refused = [] {
        EXPECT_EQ(-1, do_events(0));
        EXPECT_EQ(0, is_event_loop_thread());
    };
    refused();
    drive(nullptr, {[&] { std::thread(refused).join(); }});
    refused();
}

ISOLATED_TEST(NestedPass, NestsTwiceOrOnlyOnce) {
    int depth = 0;
    std::string depths;
    Step handler = [&] {
        depths += std::to_string(++depth);
        event_timer_add(note_timer, arg("t"), 0);
        EXPECT_EQ(depth == 1 ? 0 : -1, do_events(0));
        if (depth == 1) {
            EXPECT_EQ(0, do_events(0));
            cancel_loop();
        }
        depth--;
    };
    set_clock(1000);
    event_fd_add(run_fd, &handler, ready_descriptor(), EVENT_FD_READ);
    drive(nullptr);
    EXPECT_EQ("122", depths);
    EXPECT_EQ("ttt", trace);
}

struct SelectScript {
    std::vector<int> errors;  // For each call; 0 for success. The last one repeats.
    size_t calls = 0;
    int nfds = 0;
    timeval last = {0, 0};
} script;

int scripted_select(int nfds, fd_set* rset, fd_set* wset, fd_set* eset, timeval* tv) {
    const bool same = script.nfds == nfds && memcmp(&script.last, tv, sizeof *tv) == 0;
    EXPECT_TRUE(same || script.calls == 0);
    script.nfds = nfds;
    script.last = *tv;
    for (fd_set* set : {rset, wset, eset}) FD_ZERO(set);
    errno = script.errors[std::min(script.calls++, script.errors.size() - 1)];
    return errno ? -1 : 0;
}

ISOLATED_TEST(NestedPass, WaitsWrongOrSpinsOnFailure) {
    const struct {
        unsigned timeout;
        std::vector<int> errors;
        int result;
        size_t min_calls, max_calls;
        long usec;
    } rows[] = {
        {0, {0}, 0, 1, 1, 0},
        {1500, {0}, 0, 1, 1, 1500000},  // Not normalised into seconds.
        {2147483, {0}, 0, 1, 1, 2147483000},
        {2147484, {0}, -1, 0, 0, 0},  // The product doesn't fit 32 bits.
        {UINT_MAX, {0}, -1, 0, 0, 0},
        {20, {EINTR}, -1, 1, 1, 20000},     // Not repeated.
        {20, {ENOMEM, 0}, 0, 2, 2, 20000},  // Repeated with the same sets and timeout.
        {20, {EBADF}, -1, 2, 1000, 20000},  // Not for ever.
        {20, {EBADF, EINTR}, -1, 2, 2, 20000},
    };
    Step handler = [&] {
        select_call* driven = fakes.on_select;
        for (const auto& row : rows) {
            script = {row.errors};
            fakes.on_select = scripted_select;
            errno = 0;
            EXPECT_EQ(row.result, do_events(row.timeout)) << row.timeout;
            EXPECT_TRUE(row.max_calls > 0 || errno == EINVAL);
            EXPECT_TRUE(row.min_calls <= script.calls && script.calls <= row.max_calls)
                << script.calls << " calls for " << row.timeout;
            EXPECT_EQ(row.usec, script.last.tv_usec + script.last.tv_sec * 1000000LL);
            fakes.on_select = driven;
            EXPECT_EQ(0, do_events(0)) << "after " << row.timeout;
        }
        trace += "done";
    };
    event_timer_add(run_timer, &handler, 0);
    drive(nullptr);
    EXPECT_EQ("done", trace);
}

// An interrupted nested wait leaves the signal for a later pass.
ISOLATED_TEST(NestedPass, LosesTheSignalThatInterruptsIt) {
    event_signal_add(note_signal, arg("s"), SIGUSR1);
    Step handler = [] {
        std::thread([thread = pthread_self()] { pthread_kill(thread, SIGUSR1); }).join();
        while (trace.empty()) do_events(100);
    };
    event_timer_add(run_timer, &handler, 0);
    drive(nullptr);
    EXPECT_EQ("s", trace);
}

}  // namespace
