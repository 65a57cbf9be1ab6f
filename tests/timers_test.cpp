// Deadlines, their order, clock jumps and the wait for them, all on a fake clock.
#include <cerrno>
#include <random>
#include <span>

#include "support/harness.h"
#include "support/timer_model.h"

using namespace tessra_test;

namespace {

constexpr unsigned long long kNow = 1000000000;
constexpr long long kDay = 86400000;

ISOLATED_TEST(Timers, WaitIsConvertedWrong) {
    const struct {
        unsigned long long timeout_ms;
        long long wait_us;
    } rows[] = {
        {0, 0},
        {1500, 1500000},
        {8589934999, 8589934999000},
        {8589935000, 8589935000000},
        {2147483647999, 2147483647999000},
        {2147483648000, 2147483647000},  // Beyond 32-bit seconds it is 2147483647 ms.
        {1ULL << 62, 2147483647000},
    };
    for (const auto& row : rows) {
        set_clock(kNow);
        event_timer_add(note_timer, arg(""), row.timeout_ms);
        const Drive run = drive(nullptr, {[] {}, [] { event_timer_del(note_timer, nullptr); }});
        EXPECT_EQ(row.wait_us, run.waits_us[0]);
        EXPECT_EQ(kEndless, run.waits_us[2]);
    }
    EXPECT_EQ(kEndless, drive(nullptr).waits_us[0]);
    event_timer_add(note_timer, arg(""), 5);
    advance_clock(7);
    EXPECT_EQ(0, drive(nullptr).waits_us[0]);  // Overdue, not negative.
}

ISOLATED_TEST(Timers, JumpOfTheClockFiresOrStrandsThem) {
    const struct {
        long long jump_ms;
        long long wait_us;  // For a timer 1000 ms ahead, after the jump.
    } rows[] = {
        {999, 1000},         {kDay, 0},  // A day is no jump.
        {kDay + 1, 1000000}, {40 * kDay, 1000000},
        {-1, 1000000},       {-900000, 1000000},
    };
    for (const auto& row : rows) {
        Step jump = [&] { advance_clock(row.jump_ms); };
        Step end = [] { cancel_loop(); };
        set_clock(kNow);
        event_timer_add(note_timer, arg("t"), 1000);
        event_timer_add(run_timer, &jump, 0);  // In a handler; the loop sees it before the wait.
        Drive run = drive(nullptr, {end});
        EXPECT_EQ(row.wait_us, run.waits_us[1]) << row.jump_ms;

        trace = "";
        set_clock(kNow);
        event_timer_add(note_timer, arg("t"), 1000);
        run = drive(nullptr, {jump, end});  // In the wait; the loop sees it afterwards.
        EXPECT_EQ(row.wait_us ? row.wait_us : kEndless, run.waits_us[1]) << row.jump_ms;
        EXPECT_EQ(row.wait_us ? "" : "t", trace);
    }
}

ISOLATED_TEST(Timers, PhaseReadsTheClockTooOftenOrTooEarly) {
    set_clock(kNow);
    size_t phase_of_first = 0, phase_of_second = 0;
    int rearmed = 0;
    Step second = [&] { phase_of_second = selects(); };
    Step first = [&] {
        phase_of_first = selects();
        event_timer_add(run_timer, &second, 1);
        advance_clock(10);  // The second is due by now, but not in this phase.
    };
    event_timer_add(run_timer, &first, 0);
    fakes.clock_reads = 0;
    drive(nullptr);
    EXPECT_EQ(phase_of_first + 1, phase_of_second);
    // The library reads the clock at the start and the add, after each of three waits, and before
    // the two waits that follow a handler.
    EXPECT_EQ(2 + 3 + 2u, fakes.clock_reads);

    const int fd = ready_descriptor();
    Step descriptor = [&] {
        phase_of_first = selects();
        advance_clock(10);
        event_fd_del(fd);
    };
    event_fd_add(run_fd, &descriptor, fd, EVENT_FD_READ);
    event_timer_add(run_timer, &second, 10);
    drive(nullptr);
    EXPECT_EQ(phase_of_first,
              phase_of_second);  // The time that a descriptor's handler takes counts.
    event_fd_add(run_fd, &descriptor, fd, EVENT_FD_READ);
    event_timer_add(note_timer, arg(""), 30);
    EXPECT_EQ(20000, drive(nullptr).waits_us[1]);

    std::vector<size_t> phases;
    Step again = [&] {
        phases.push_back(selects());
        if (++rearmed == 4) advance_clock(1);
        if (rearmed < 6) event_timer_add(run_timer, &again, 0);
    };
    event_timer_add(run_timer, &again, 0);
    drive(nullptr);
    EXPECT_EQ((std::vector<size_t>{1, 1, 1, 1, 2, 2}), phases);
}

// A pass that stops at T1 leaves T2 pinned, so that a delete only marks it.
ISOLATED_TEST(Timers, PinLeftBehindBringsADeletedTimerBack) {
    for (const bool first_fires : {false, true}) {
        event_loop_ctx_tp context = event_mc_init();
        const auto del = [&](const char* text) {
            event_timer_del_mc(context, note_timer, arg(text));
        };
        const char texts[][2] = {"1", "2", "3", "4"};
        set_clock(kNow);
        trace = "";
        for (unsigned n = 0; n < 4; ++n) {
            event_timer_add_mc(context, note_timer, arg(texts[n]), 100 * (n + 1));
        }
        drive(context, {[] {}, [&] { cancel_loop_mc(context); }});
        del(texts[1]);
        del(texts[2]);
        if (!first_fires) del(texts[0]);
        EXPECT_EQ(0, event_timer_exists_mc(context, note_timer, arg(texts[1])));
        EXPECT_EQ(1, event_timer_exists_mc(context, note_timer, arg(texts[3])));
        const Drive run = drive(context, {[] {}});
        // The deadline of a marked timer counts once the timer is first. That pass then frees it.
        EXPECT_EQ(first_fires ? 100000 : 200000, run.waits_us[0]);
        EXPECT_EQ(first_fires ? 100000 : 400000, run.waits_us[1]);
        EXPECT_EQ(first_fires ? "14" : "4", trace);
        event_mc_free(context);
    }
}

// The table by handler and argument is one block.
ISOLATED_TEST(Timers, TableOfABurstStays) {
    static char args[1000];
    for (const size_t staying : {0, 10}) {
        const long before = fakes.blocks;
        event_loop_ctx_tp context = event_mc_init();
        const auto burst = std::span(args).subspan(staying);
        for (char& one : std::span(args, staying)) {
            event_timer_add_mc(context, note_timer, &one, 1000);
        }
        const long blocks = fakes.blocks;
        for (char& one : burst) event_timer_add_mc(context, note_timer, &one, 1000);
        EXPECT_EQ(blocks + std::ssize(burst) + 1, fakes.blocks);
        for (char& one : burst) event_timer_del_mc(context, note_timer, &one);
        drive(context, {[] {}});
        EXPECT_EQ(blocks, fakes.blocks);
        for (char& one : args) {
            EXPECT_EQ(&one < burst.data(), event_timer_exists_mc(context, note_timer, &one));
        }
        for (char& one : burst) event_timer_add_mc(context, note_timer, &one, 1000);
        event_mc_free(context);
        EXPECT_EQ(before, fakes.blocks);
    }
}

// Compares the timers with a sorted vector, with jumps, early wake-ups, EINTR and changes at every
// moment.
size_t compare_with_model(unsigned most, unsigned args, unsigned spread) {
    const unsigned seed = std::random_device()();
    SCOPED_TRACE(seed);
    static TimerModel model;
    static int waits;
    static std::mt19937 random(seed);
    model.most = most;
    model.args = args;
    model.spread = spread;
    model.below = [](unsigned bound) { return static_cast<unsigned>(random() % bound); };
    model.clock = set_clock;
    model.check = [](bool holds, const char* what) { EXPECT_TRUE(holds) << what; };
    model.begin(kNow);
    fakes.on_select = [](int, fd_set* rset, fd_set*, fd_set*, timeval* tv) {
        FD_ZERO(rset);
        if (++waits == 20000 || testing::Test::HasFailure()) cancel_loop();
        return model.wait(tv);
    };
    EXPECT_EQ(0, et_event_loop());
    EXPECT_GT(model.fired, 5000);
    return model.largest;
}

// The second test has enough timers for the express lanes and for a table that grows.
ISOLATED_TEST(Timers, RandomChangesFireTheWrongOnes) { compare_with_model(12, 4, 20); }
ISOLATED_TEST(Timers, RandomChangesOfManyFireTheWrongOnes) {
    EXPECT_GT(compare_with_model(600, TimerModel::kMaxArgs, 2000), 64u);
}

}  // namespace
