// Children that terminate. They do so before the loop looks, so it finds them in a known order.
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <map>
#include <random>
#include <vector>

#include "support/harness.h"

using namespace tessra_test;

namespace {

// Returns a child that has terminated and isn't collected yet.
pid_t dead_child(const Step& body = [] {}) {
    const pid_t pid = fork_process(body);
    await_child(pid);
    return pid;
}

bool uncollected(pid_t pid) { return waitpid(pid, nullptr, WNOHANG) == pid; }

const Step kSigchld = [] { raise(SIGCHLD); };

// All children have terminated before their watchers are added. One SIGCHLD reports all of them.
ISOLATED_TEST(Children, EndIsMissedOrDecodedWrong) {
    struct Row {
        Step end;
        bool any_child, null_handler;
        const char* log;
        int status;
    };
    static const Row rows[] = {
        {[] {}, false, false, "exited normally 0", 0},
        {[] { _exit(200); }, false, false, "exited normally 200", 200 << 8},
        {[] { _exit(3); }, false, true, "", 0},
        {[] { raise(SIGKILL); }, false, false, "exited by signal 9", 9},
        {[] { raise(SIGTERM); }, false, false, "exited by signal 15", 15 | 0x80},  // With a core.
        {[] { _exit(1); }, true, false, "exited normally 1", 1 << 8},
    };
    static int seen;
    const process_handler_t check = [](int, void* arg, int status) {
        EXPECT_EQ(static_cast<const Row*>(arg)->status, status);
        return seen++;
    };
    std::string log;
    for (const Row& row : rows) {
        const pid_t pid = dead_child(row.end);
        const int watched = row.any_child ? -1 : pid;
        event_process_add(watched, row.null_handler ? nullptr : check, const_cast<Row*>(&row));
        if (*row.log) log += "3 Process " + std::to_string(watched) + " " + row.log + "\n";
    }
    fakes.core_dumped_by = SIGTERM;
    drive(nullptr,
          {[] {}, [] { EXPECT_EQ(0, seen); }, kSigchld, [] { EXPECT_EQ(5, seen); }, kSigchld});
    EXPECT_EQ(5, seen);
    EXPECT_EQ(log, fakes.syslog_text);
    EXPECT_EQ(-1, wait(nullptr));  // The child without a handler is collected, too.
}

ISOLATED_TEST(Children, StoppedOneIsReportedAsEnded) {
    const pid_t pid = dead_child([] { raise(SIGSTOP); });
    event_process_add(pid, note_process, arg("e"));
    const Step kill_it = [pid] {
        EXPECT_EQ("", trace);
        kill(pid, SIGKILL);
        // The stop has been collected, so only the exit is left to wait for.
        siginfo_t info;
        EXPECT_EQ(0, waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT));
        raise(SIGCHLD);
    };
    drive(nullptr, {kSigchld, kill_it});
    EXPECT_EQ("e", trace);
}

TEST(Children, DeletionsInAPassCallTheWrongOnesOrUseFreedOnes) {
    const struct {
        const char *outer, *inner, *called, *uncollected;
    } rows[] = {
        {"A", "", "ABC", ""},  // Itself, which is no longer on the list.
        {"B", "", "AC", "B"},  // The pinned successor.
        {"C", "", "AB", "C"},  // One that no walk holds.
        {"BC", "", "A", "BC"},  {"+", "", "ABCD", ""},
        {"=BB", "", "ACE", ""},  // The same watcher twice, and not the other one of its process.
        {"!", "", "Abc", ""},    // The nested pass takes all that the outer walk hasn't reached.
        {"B!", "", "Ac", "B"},  {"C!", "", "Ab", "C"},
        {"BC!", "", "A", "BC"}, {"!BC", "", "Abc", ""},
        {"!", "C", "Ab", "C"},  {"!", "AB", "Abc", ""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(std::string(row.outer) + " " + row.inner);
        run_isolated([&row] {
            static Script script;
            static pid_t pids[3];
            script = {'A', row.outer, row.inner, [](char action) {
                          if (action == '+') {
                              event_process_add(dead_child(), note_process, arg("D"));
                          } else if (action == '=') {
                              event_process_add(pids[1], note_process, arg("E"));
                          } else {
                              event_process_del(pids[action - 'A']);
                          }
                      }};
            for (pid_t& pid : pids) {
                pid = dead_child();
                event_process_add(
                    pid,
                    [](int, void* at, int) {
                        if (!script.nested) raise(SIGCHLD);  // A message for the nested pass.
                        script.called(static_cast<char>('A' + (static_cast<pid_t*>(at) - pids)));
                        return 0;
                    },
                    &pid);
            }
            drive(nullptr, {kSigchld});
            EXPECT_EQ(row.called, trace);
            for (int n = 0; n < 3; ++n) {
                EXPECT_EQ(strchr(row.uncollected, 'A' + n) != nullptr, uncollected(pids[n]));
            }
        });
    }
}

// Some children stop and continue. Commands run in between, during which SIGCHLD has its default
// action.
ISOLATED_TEST(Children, OneOfManyIsMissedOrReportedTwice) {
    constexpr int kChildren = 500;
    static std::map<int, int> codes, reports;
    static int reported;
    static std::vector<pid_t> stoppers;
    const unsigned seed = std::random_device()();
    SCOPED_TRACE(seed);
    static std::mt19937 random(seed);
    const process_handler_t check = [](int pid, void*, int status) {
        EXPECT_EQ(codes[pid], status);
        ++reports[pid];
        return ++reported;
    };
    static Step tick = [] {
        for (const pid_t pid : stoppers) kill(pid, SIGCONT);
        if (random() % 8 == 0) EXPECT_EQ(0, event_system("true"));
        if (codes.size() == kChildren)
            raise(SIGCHLD);  // For those whose SIGCHLD a command has hidden.
        if (reported == kChildren) return cancel_loop();
        event_timer_add(run_timer, &tick, 1);
    };
    static Step start = [check] {
        const unsigned life_us = random() % 3000, stops = random() % 3, code = random() % 256;
        const pid_t pid = fork_process([=] {
            for (unsigned n = 0; n < stops; ++n) raise(SIGSTOP);
            usleep(life_us);
            _exit(static_cast<int>(code));
        });
        codes[pid] = static_cast<int>(code << 8);
        if (stops) stoppers.push_back(pid);
        event_process_add(pid, check, nullptr);
        if (codes.size() < kChildren) event_timer_add(run_timer, &start, 0);
    };
    event_timer_add(run_timer, &start, 0);
    event_timer_add(run_timer, &tick, 0);
    EXPECT_EQ(0, et_event_loop());
    EXPECT_EQ(kChildren, reported);
    for (const auto& [pid, count] : reports) EXPECT_EQ(1, count) << pid;
    EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG));  // No zombie is left.
}

TEST(Children, WatchersFireOnTheWrongContext) {
    static event_loop_ctx_tp other;
    static pid_t pid;
    const auto add = [] { event_process_add(pid, note_process, arg("d")); };
    const auto add_mc = [] { event_process_add_mc(other, pid, note_process, arg("o")); };
    const struct {
        std::vector<Step> prepare;
        bool run_other;
        const char* called;
    } rows[] = {
        {{add, add_mc}, false, "d"},
        {{add_mc, add}, false, "o"},
        {{add, add_mc}, true, ""},
        {{add_mc, add}, true, ""},
        {{add, [] { event_process_add(pid, note_process, arg("x")); }}, false, "d"},
        {{add, [] { event_signal_del(SIGCHLD); }, add}, false, ""},
        {{add, [] { event_process_del(pid); }, [] { drive(nullptr); }, add}, false, ""},
        // A first call that fails doesn't choose the context.
        {{[] { fail_allocation = 2; }, add_mc, add}, false, "d"},
        // The context of the first call is freed, and a new context may use its memory.
        {{add_mc, [] { event_mc_free(other); }, [] { other = event_mc_init(); }, add_mc, add},
         false,
         ""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(&row - rows);
        run_isolated([&row] {
            other = event_mc_init();
            pid = dead_child();
            for (const Step& step : row.prepare) step();
            drive(row.run_other ? other : nullptr, {kSigchld, kSigchld});
            EXPECT_EQ(row.called, trace);
        });
    }
}

}  // namespace
