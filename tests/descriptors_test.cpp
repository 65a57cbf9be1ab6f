// Descriptor watchers: who is called, and what survives the handlers' deletions and nested passes.
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>

#include "support/harness.h"

using namespace tessra_test;

namespace {

// Every type against every answer of select().
ISOLATED_TEST(Descriptors, SetsOrCallsDisagreeWithTheType) {
    static int fd, type, answer, calls;
    const fd_handler_t count = [](int, void*) { calls++; };
    fd = ready_descriptor();
    fakes.on_select = [](int nfds, fd_set* rset, fd_set* wset, fd_set* eset, timeval*) {
        fd_set* const sets[] = {rset, wset, eset};
        EXPECT_EQ(fd + 1, nfds);  // Whatever the type. The channel's ends are below.
        for (int n = 0; n < 3; n++) {
            EXPECT_EQ(type >> n & 1, FD_ISSET(fd, sets[n]) != 0) << "set " << n;
            FD_ZERO(sets[n]);
            if (answer >> n & 1) FD_SET(fd, sets[n]);
        }
        cancel_loop();
        return answer ? 1 : 0;
    };
    ASSERT_EQ(100, dup2(fd, 100));
    fd = 100;
    for (type = 0; type < 8; type++) {
        for (answer = 0; answer < 8; answer++) {
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
        {'A', "+", "", "ABCDE"},   // A new watcher of a ready descriptor runs in this pass,
        {'D', "+", "", "ABCD"},    // but not behind the last one,
        {'A', "*", "", "ABCD"},    // nor of a descriptor that wasn't asked for.
        {'A', "!!", "", "AabcdabcdBCD"}, {'D', "!A", "", "ABCDabcd"},
        {'A', "A!", "", "AbcdBCD"},  // Before the nested pass:
        {'A', "B!", "", "AacdCD"},   // it reaps the outer walk's successor,
        {'A', "BC!", "", "AadD"},        {'A', "ABCD!", "", "A"},
        {'A', "B!C", "", "AacdD"},   // and the next one goes afterwards.
        {'A', "!B", "", "AabcdCD"},  // After the nested pass, which took the pin away.
        {'A', "!BCD", "", "Aabcd"},      {'A', "!", "B", "AacdCD"},  // In the nested pass.
        {'A', "!", "BC", "AadD"},        {'A', "!", "ABCD", "Aa"},
        {'A', "A!", "B", "AbcdCD"},  // The successor deletes itself there.
        {'A', "B!", "CD", "Aa"},         {'A', "!B!", "C", "AabdadD"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(std::string() + row.actor + " " + row.outer + " " + row.inner);
        run_isolated([&row] {
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
            for (int& fd : fds) {
                fd = ready_descriptor();
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
    }
}

TEST(Descriptors, ClosedOneGoesUnnoticed) {
    static int fd;
    static const auto watch = [](int type) {
        fd = dup2(ready_descriptor(), 900);  // Not where the channel will be.
        event_fd_add(note_fd, arg(""), fd, type);
    };
    // Closed while the list doesn't change: by a timer, some passes after the last add.
    static const auto close_later = [](int type, bool nested) {
        watch(type);
        static Step last, first;
        last = [nested] {
            close(fd);
            if (nested) do_events(0), puts("survived"), cancel_loop();
        };
        first = [] { event_timer_add(run_timer, &last, 2); };
        event_timer_add(run_timer, &first, 1);
    };
    const Step rows[] = {
        [] { watch(EVENT_FD_EXCEPT), close(fd); },
        [] { watch(0), close(fd); },
        [] { event_fd_add(note_fd, nullptr, 901, EVENT_FD_READ); },
        [] { event_fd_add(note_fd, nullptr, -1, EVENT_FD_READ); },
        [] { event_fd_add(note_fd, nullptr, INT_MIN, 0); },
        [] { close_later(EVENT_FD_EXCEPT, false); },
        [] { close_later(EVENT_FD_READ, true); },
        [] { close_later(0, false); },
        [] { close_later(0, true); },
    };
    for (const Step& row : rows) {
        const ChildEnd end = run_child([&row] { row(), et_event_loop(); });
        EXPECT_EQ(255, end.exit_code) << "row " << &row - rows;
        EXPECT_EQ("", end.output);
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
