// Descriptor watchers: which ones run, also after deletions and nested passes in handlers.
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <random>
#include <span>

#include "support/harness.h"

using namespace tessra_test;

namespace {

// Every type with every answer of select().
ISOLATED_TEST(Descriptors, SetsOrCallsDisagreeWithTheType) {
    static int fd, type, answer, calls;
    const fd_handler_t count = [](int, void*) { ++calls; };
    fd = ready_descriptor();
    fakes.on_select = [](int nfds, fd_set* rset, fd_set* wset, fd_set* eset, timeval*) {
        fd_set* const sets[] = {rset, wset, eset};
        EXPECT_EQ(fd + 1, nfds);  // For every type; the channel's ends have lower numbers.
        for (int n = 0; n < 3; ++n) {
            EXPECT_EQ(type >> n & 1, FD_ISSET(fd, sets[n]) != 0) << "set " << n;
            FD_ZERO(sets[n]);
            if (answer >> n & 1) FD_SET(fd, sets[n]);
        }
        cancel_loop();
        return answer ? 1 : 0;
    };
    ASSERT_EQ(100, dup2(fd, 100));
    fd = 100;
    for (type = 0; type < 8; ++type) {
        for (answer = 0; answer < 8; ++answer) {
            calls = 0;
            event_fd_add(count, nullptr, fd, type);
            EXPECT_EQ(0, et_event_loop());
            EXPECT_EQ((type & answer) != 0, calls) << "type " << type << ", answer " << answer;
        }
    }
}

ISOLATED_TEST(Descriptors, DeleteTakesTheYoungerOfTwoOrBoth) {
    const int fd = ready_descriptor();
    set_clock(1000);
    Step end_of_pass = [&] {
        trace += "|";
        event_fd_del(fd);
        advance_clock(1);
        if (trace.size() < 7) event_timer_add(run_timer, &end_of_pass, 0);
    };
    event_fd_add(note_fd, arg("a"), fd, EVENT_FD_READ | EVENT_FD_WRITE);  // One call per pass.
    event_fd_add(note_fd, arg("b"), fd, EVENT_FD_WRITE);
    event_fd_add(note_fd, arg("c"), fd, EVENT_FD_EXCEPT);
    event_timer_add(run_timer, &end_of_pass, 0);
    drive(nullptr);
    EXPECT_EQ("ab|b||", trace.substr(0, 6));
}

TEST(Descriptors, DeletionsInAPassCallTheWrongOnesOrUseFreedOnes) {
    const struct {
        char actor;
        const char *outer, *inner, *called;
    } rows[] = {
        {'A', "A", "", "ABCD"},    // Itself.
        {'A', "B", "", "ACD"},     // The pinned successor.
        {'A', "C", "", "ABD"},     // One that no walk holds.
        {'A', "ABC", "", "AD"},    // All three.
        {'D', "ABC", "", "ABCD"},  // Those before it.
        {'A', "+", "", "ABCDE"},   // A new watcher of a ready descriptor runs in this pass.
        {'D', "+", "", "ABCD"},    // It doesn't if the last watcher has added it.
        {'A', "*", "", "ABCD"},    // Nor does one of a descriptor that this select() didn't have.
        {'A', "!!", "", "AabcdabcdBCD"}, {'D', "!A", "", "ABCDabcd"},
        {'A', "A!", "", "AbcdBCD"},  // A deletion before the nested pass.
        {'A', "B!", "", "AacdCD"},   // The nested pass frees the outer walk's successor.
        {'A', "BC!", "", "AadD"},        {'A', "ABCD!", "", "A"},
        {'A', "B!C", "", "AacdD"},   // The next one is deleted afterwards.
        {'A', "!B", "", "AabcdCD"},  // After the nested pass, which has removed the pin.
        {'A', "!BCD", "", "Aabcd"},      {'A', "!", "B", "AacdCD"},  // In the nested pass.
        {'A', "!", "BC", "AadD"},        {'A', "!", "ABCD", "Aa"},
        {'A', "A!", "B", "AbcdCD"},  // The successor deletes itself in the nested pass.
        {'A', "B!", "CD", "Aa"},         {'A', "!B!", "C", "AabdadD"},
    };
    const auto run = [](const auto& row, int idle_before_first, int idle_before_others) {
        SCOPED_TRACE(std::string() + row.actor + " " + row.outer + " " + row.inner);
        run_isolated([&row, idle_before_first, idle_before_others] {
            static Script script;
            static int fds[4];
            script = {row.actor, row.outer, row.inner, [](char action) {
                          if (action == '+') {
                              event_fd_add(note_fd, arg("E"), fds[0], EVENT_FD_READ);
                          } else if (action == '*') {
                              event_fd_add(note_fd, arg("F"), ready_descriptor(), EVENT_FD_READ);
                          } else {
                              event_fd_del(fds[action - 'A']);
                              close(fds[action - 'A']);
                          }
                      }};
            for (int n = 3; n >= 0; --n) fds[n] = ready_descriptor();
            fds[1] = dup2(fds[1], 900);  // A table by descriptor for the others has no slot for it.
            for (int& fd : fds) {
                const int idle = &fd == fds ? idle_before_first : idle_before_others;
                for (int n = 0; n < idle; ++n) {
                    event_fd_add(note_fd, arg("?"), ready_descriptor(), EVENT_FD_EXCEPT);
                }
                event_fd_add(
                    [](int, void* at) {
                        script.called(static_cast<char>('A' + (static_cast<int*>(at) - fds)));
                    },
                    &fd, fd, EVENT_FD_READ);
            }
            event_timer_add([](void*) { cancel_loop(); }, nullptr, 0);
            EXPECT_EQ(0, et_event_loop());
            EXPECT_EQ(row.called, trace);
        });
    };
    for (const auto& row : rows) {
        run(row, 0, 0);
        // Beside so many idle ones, the loop looks for the ready ones in its table by descriptor.
        run(row, 10, 10);
        run(row, 40, 0);
    }
}

// Few or many watchers are ready, among so many that the loop makes a table by descriptor. It makes
// none if two watchers share a descriptor, or without memory.
ISOLATED_TEST(Descriptors, CrowdIsCalledInAnotherOrderOrNotAtAll) {
    static std::mt19937 random;
    static struct Watcher { int fd, type, answer; } watchers[80];
    static size_t count;
    int fds[80];
    static const int low = dup(0), next = dup(0);  // The channel gets these numbers.
    for (int& fd : fds) fd = ready_descriptor();
    trace.reserve(std::size(fds));
    set_clock(1000);
    fakes.on_select = [](int, fd_set* rset, fd_set* wset, fd_set* eset, timeval*) {
        fd_set* const sets[] = {rset, wset, eset};
        int bits = 0;
        for (fd_set* set : sets) FD_ZERO(set);
        for (const Watcher& watcher : std::span(watchers, count)) {
            for (int n = 0; n < 3; ++n) {
                if (!(watcher.answer >> n & 1) || FD_ISSET(watcher.fd, sets[n])) continue;
                FD_SET(watcher.fd, sets[n]);
                ++bits;
            }
        }
        if (bits % 2) FD_SET(low, rset), ++bits;
        return bits;
    };
    for (const int fd : {low, next}) close(fd);
    for (int seed = 0; seed < 300; ++seed) {
        random.seed(static_cast<unsigned>(seed));
        std::shuffle(std::begin(fds), std::end(fds), random);
        count = 30 + random() % 50;
        const size_t idle_for_one = 1 + random() % 20;
        std::string expected;
        trace = "";
        for (size_t n = 0; n < count; ++n) {
            const int type = static_cast<int>(random() % 8);
            watchers[n] = {fds[n], type, random() % idle_for_one == 0 ? type : 0};
            if (n == 20 && seed % 3 == 0) watchers[n] = {fds[10], type, type};
        }
        static const auto is_ready = [](const Watcher& watcher) {
            int answers = 0;
            for (const Watcher& other : std::span(watchers, count)) {
                if (other.fd == watcher.fd) answers |= other.answer;
            }
            return (watcher.type & answers) != 0;
        };
        for (Watcher& watcher : std::span(watchers, count)) {
            static const auto name = [](const Watcher* at) {
                return static_cast<char>(' ' + (at - watchers));
            };
            event_fd_add([](int, void* at) { trace += name(static_cast<Watcher*>(at)); }, &watcher,
                         watcher.fd, watcher.type);
            if (is_ready(watcher)) expected += name(&watcher);
        }
        // After the walk no pin keeps a watcher from being freed.
        Step end = [] { cancel_loop(); };
        Step renew = [&end] {
            for (const Watcher& watcher : std::span(watchers, count)) {
                event_fd_del(watcher.fd);
                event_fd_add(note_fd, arg("!"), watcher.fd, watcher.type);
                event_fd_del(watcher.fd);
            }
            advance_clock(1);
            event_timer_add(run_timer, &end, 0);
        };
        event_timer_add(run_timer, &renew, 0);
        fail_allocation = seed % 5 == 0;
        EXPECT_EQ(0, et_event_loop());
        fail_allocation = 0;
        EXPECT_EQ(expected, trace) << seed;
    }

    const long blocks = fakes.blocks;
    event_loop_ctx_tp own = event_mc_init();
    Step end = [own] { cancel_loop_mc(own); };
    for (const int fd : fds) event_fd_add_mc(own, note_fd, arg("!"), fd, EVENT_FD_EXCEPT);
    event_timer_add_mc(own, run_timer, &end, 0);
    EXPECT_EQ(0, et_event_loop_mc(own));
    event_mc_free(own);
    EXPECT_EQ(blocks, fakes.blocks);
}

// After a change the loop tests only the new descriptors, however many it watches.
ISOLATED_TEST(Descriptors, ChangeTestsAllOfACrowd) {
    static int tests, passes;
    static std::vector<int> fds;
    for (int n = 0; n < 400; ++n) {
        fds.push_back(ready_descriptor());
        event_fd_add(note_fd, arg("!"), fds.back(), EVENT_FD_EXCEPT);
    }
    static Step change = [] {
        const int fd = fds[static_cast<size_t>(passes)];
        event_fd_del(fd);
        event_fd_add(note_fd, arg("!"), fd, EVENT_FD_EXCEPT);
        fakes.on_call = [](int call) { tests += call == FAKE_FCNTL; };
        if (++passes == 100) return cancel_loop();
        event_timer_add(run_timer, &change, 1);
    };
    event_timer_add(run_timer, &change, 0);
    EXPECT_EQ(0, et_event_loop());
    EXPECT_EQ(99, tests);
}

TEST(Descriptors, ClosedOneGoesUnnoticed) {
    static int fd;
    static const auto watch = [](int type) {
        fd = dup2(ready_descriptor(), 900);  // Not a number that the channel gets.
        event_fd_add(note_fd, arg(""), fd, type);
    };
    static const auto watch_and_close = [](int type) {
        watch(type);
        close(fd);
    };
    // A timer closes the descriptor some passes after the last add, and then may change the list.
    static const auto close_later = [](int type, bool changes, bool nested) {
        watch(type);
        static Step last, first;
        last = [changes, nested] {
            close(fd);
            if (changes) event_fd_add(note_fd, arg(""), ready_descriptor(), EVENT_FD_EXCEPT);
            if (!nested) return;
            do_events(0);
            puts("survived");
            cancel_loop();
        };
        first = [] { event_timer_add(run_timer, &last, 2); };
        event_timer_add(run_timer, &first, 1);
    };
    // A handler adds -1, and the walk goes on. A careless test of the sets takes -1 for 63, which
    // is ready.
    static const auto add_in_handler = [] {
        static Step add = [] { event_fd_add(note_fd, arg("-1"), -1, EVENT_FD_READ); };
        event_fd_add(run_fd, &add, dup2(ready_descriptor(), 63), EVENT_FD_READ);
        event_fd_add([](int, void*) { atexit([] { puts(trace.c_str()); }); }, nullptr, 63,
                     EVENT_FD_READ);
    };
    const Step rows[] = {
        add_in_handler,
        [] { watch_and_close(EVENT_FD_EXCEPT); },
        [] { watch_and_close(0); },
        [] { event_fd_add(note_fd, nullptr, 901, EVENT_FD_READ); },
        [] { event_fd_add(note_fd, nullptr, -1, EVENT_FD_READ); },
        [] { event_fd_add(note_fd, nullptr, INT_MIN, 0); },
        [] { close_later(EVENT_FD_EXCEPT, false, false); },
        [] { close_later(EVENT_FD_READ, false, true); },
        [] { close_later(0, false, false); },
        [] { close_later(0, false, true); },
        [] { close_later(EVENT_FD_READ, true, false); },
        [] { close_later(EVENT_FD_READ, true, true); },
        // An earlier run of the loop has tested the descriptor, which is closed since then.
        [] {
            event_loop_ctx_tp own = event_mc_init();
            Step end = [own] { cancel_loop_mc(own); };
            event_fd_add_mc(own, note_fd, arg(""), ready_descriptor(), EVENT_FD_EXCEPT);
            fd = dup2(ready_descriptor(), 900);
            event_fd_add_mc(own, note_fd, arg(""), fd, EVENT_FD_EXCEPT);
            event_timer_add_mc(own, run_timer, &end, 0);
            if (et_event_loop_mc(own) != 0) _exit(1);
            close(fd);
            exit(status_of(fork_process([own] { et_event_loop_mc(own); })) == 255 << 8 ? 255 : 2);
        },
    };
    for (const Step& row : rows) {
        const ChildEnd end = run_child([&row] {
            row();
            et_event_loop();
        });
        EXPECT_EQ(255, end.exit_code) << "row " << &row - rows;
        EXPECT_EQ(&row == rows ? "\n" : "", end.output);
    }
}

ISOLATED_TEST(Descriptors, NumberBeyondTheSetsOverrunsThem) {
    for (const int fd : {FD_SETSIZE, INT_MAX}) {
        errno = 0;
        event_fd_add(note_fd, nullptr, fd, EVENT_FD_READ);
        EXPECT_EQ(EMFILE, errno);
    }
    Step last = [] { cancel_loop(); };
    event_fd_add(run_fd, &last, dup2(ready_descriptor(), FD_SETSIZE - 1), EVENT_FD_READ);
    EXPECT_EQ(0, et_event_loop());
}

}  // namespace
