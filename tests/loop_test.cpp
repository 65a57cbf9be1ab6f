// Start, passes, wake-ups, nested passes and end of a loop.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <fstream>
#include <regex>
#include <thread>

#include "support/harness.h"
#include "tessra/create_pid_file.h"
#include "tessra/misc.h"
#include "tessra/szip.h"

using namespace tessra_test;

namespace {

constexpr unsigned long long kHour = 3600000;

std::string fifo_path() { return "/tmp/evtloop" + std::to_string(getpid()); }

bool fifo_exists() { return access(fifo_path().c_str(), F_OK) == 0; }

ISOLATED_TEST(Pass, PhasesRunOutOfOrderOrAreCutShort) {
    int passes = 0;
    set_clock(1000);
    Step every_pass = [&] {
        trace += " f";
        if (++passes == 3) cancel_loop();
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
    event_fd_add(run_fd, &every_pass, ready_descriptor(), EVENT_FD_READ);
    EXPECT_EQ(0, et_event_loop());
    EXPECT_EQ(" ft fst fst", trace);  // One signal per pass, and the last pass is finished.
}

void change(int count) {
    for (int n = 0; n < count; ++n) event_fd_del(777);
}

ISOLATED_TEST(Loop, ChangeDoesNotWakeItOrWakesItTwice) {
    static const int ready = ready_descriptor();
    static Step nest = [] {
        event_fd_del(ready);
        for (int n = 0; n < 3; ++n) EXPECT_EQ(0, do_events(1000));
    };
    static struct fault full = {FAKE_WRITE, 1, EAGAIN, 0, {}};
    Pipe quiet;
    const struct {
        Step change;
        int wakes = 1;
    } rows[] = {
        {[] { event_timer_add(note_timer, nullptr, kHour); }},
        {[] { event_timer_del(note_timer, arg("none")); }},
        {[&] { event_fd_add(note_fd, nullptr, quiet.in, EVENT_FD_READ); }},
        {[] { event_signal_add(note_signal, nullptr, SIGUSR1); }},
        {[] { event_signal_del(SIGUSR2); }},
        {[] { event_process_add(getpid(), nullptr, nullptr); }, 2},  // The first call adds SIGCHLD.
        {[] { event_process_del(1); }},
        {[] { change(2); }, 2},
        // More than the loop reads at once, more than it lets into the channel, more than a channel
        // has room for.
        {[] { change(1000); }, 1000},
        {[] { change(3000); }, 3000},
        {[] { change(70000); }, 70000},
        {[] { std::thread(change, 70000).join(); }, 70000},
        // Each nested pass takes a wake-up, too.
        {[] {
             change(10);
             event_timer_add(run_timer, &nest, 0);
         },
         12},
        // Those in a descriptor's handler take the wake-ups that the outer pass has seen.
        {[] {
             change(2);
             event_fd_add(run_fd, &nest, ready, EVENT_FD_READ);
         },
         5},
        // The channel is full for the message of a signal, and empty for the wake-up after it.
        {[] {
            fakes.fault = &full;
            raise(SIGUSR1);
        }},
        // A full channel refuses these wake-ups, so the loop has none to read.
        {[] {
             fakes.fail[FAKE_WRITE] = EAGAIN;
             change(1024);
             fakes.fail[FAKE_WRITE] = 0;
         },
         0},
    };
    for (const auto& row : rows) {
        const Drive run = drive(nullptr, {row.change, [] { change(1); }});
        EXPECT_EQ(row.wakes, run.awake - 2) << &row - rows;  // The second step and the cancel.
        EXPECT_EQ(0, run.result);
    }
}

ISOLATED_TEST(Loop, SecondStartDisturbsTheRunningOne) {
    for (event_loop_ctx_tp context : {event_loop_ctx_tp(), event_mc_init()}) {
        Step start = [&] { EXPECT_EQ(-1, context ? et_event_loop_mc(context) : et_event_loop()); };
        Step start_when_stopping = [&] {
            cancel_loop_of(context);
            start();
            std::thread(start).join();
        };
        cancel_loop_of(context);  // An idle loop isn't affected.
        EXPECT_EQ(0, drive(context, {start, start_when_stopping}).result);
        event_mc_free(context);
    }
}

ISOLATED_TEST(Loop, EndDropsOrKeepsTheWrongWatchers) {
    Pipe pipe;
    Step read_it = [&] {
        char byte;
        EXPECT_EQ(1, read(pipe.in, &byte, 1));
        trace += "f";
    };
    const Step events = [&] {
        raise(SIGUSR1);
        EXPECT_EQ(1, write(pipe.out, "x", 1));
    };
    event_loop_ctx_tp own = event_mc_init();
    set_clock(1000);
    event_fd_add_mc(own, run_fd, &read_it, pipe.in, EVENT_FD_READ);
    event_signal_add_mc(own, note_signal, arg("s"), SIGUSR1);
    event_timer_add_mc(own, note_timer, arg("t"), 10);
    const long blocks = fakes.blocks;
    event_fd_add(run_fd, &read_it, pipe.in, EVENT_FD_READ);
    event_signal_add(note_signal, arg("s"), SIGUSR1);
    event_timer_add(note_timer, arg("t"), 10);
    event_process_add(getpid(), nullptr, nullptr);
    drive(own, {[=] { cancel_loop_mc(own); }});
    drive(nullptr, {cancel_loop});
    EXPECT_EQ(blocks, fakes.blocks);
    EXPECT_EQ("", trace);
    advance_clock(10);  // The timer is overdue in the first pass of the next run.
    drive(own, {events});
    EXPECT_EQ("tfs", trace);
    drive(nullptr, {events});
    EXPECT_EQ("tfs", trace);
    fakes.before_message = [](int, size_t) { ADD_FAILURE() << "a message for an idle loop"; };
    event_timer_del_mc(own, note_timer, nullptr);
    event_mc_free(own);
}

std::string logged(const std::string& format, const std::string& text) {
    return "6/1 <%x> %s:%s(%d) - " + format + "|<1> src/eventloop:et_event_loop_mc(LINE) - " + text;
}

std::string without_line(const std::string& output) {
    return std::regex_replace(output, std::regex("loop_mc\\([1-9][0-9]*\\)"), "loop_mc(LINE)");
}

void limit_descriptors(int limit) {
    rlimit now;
    getrlimit(RLIMIT_NOFILE, &now);
    now.rlim_cur = static_cast<rlim_t>(limit);
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &now));
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
    EXPECT_EQ(0, drive(nullptr).result);
}

// Somebody makes a file of that name before the start does.
TEST(Start, PlantedNameIsUsed) {
    static std::string path, other;
    const auto file = [](const std::string& name) {
        close(open(name.c_str(), O_CREAT | O_WRONLY, 0600));
    };
    const auto link = [](const char* to) { ASSERT_EQ(0, symlink(to, path.c_str())); };
    const auto fifo = [](const std::string& name) { ASSERT_EQ(0, mkfifo(name.c_str(), 0666)); };
    const Step own = [=] { fifo(path); };
    const char* const making = "Failed to create fifo\n";
    const char* const reading = "Failed to open pingpong fifo for reading\n";
    const struct {
        const char* what;
        Step plant;
        const char* text;  // Null for a start that succeeds.
        int error;
    } rows[] = {
        {"nothing", [] {}, nullptr, 0},
        {"a FIFO of ours, as a dead process of this id leaves it", own, nullptr, 0},
        {"none can be made", [] { fakes.fail[FAKE_MKFIFO] = EACCES; }, making, EACCES},
        {"a file", [=] { file(path); }, reading, EPERM},
        {"a directory", [] { ASSERT_EQ(0, mkdir(path.c_str(), 0700)); }, reading, EPERM},
        {"a link to a FIFO",
         [=] {
             fifo(other);
             link(other.c_str());
         },
         reading, ELOOP},
        {"a link to a device", [=] { link("/dev/null"); }, reading, ELOOP},
        {"a link to nothing", [=] { link(other.c_str()); }, reading, ELOOP},
        {"a FIFO of somebody else",
         [=] {
             own();
             ASSERT_EQ(0, chown(path.c_str(), 65534, 65534));
         },
         nullptr, 0},
        // The other process has the same id. It shares /tmp, but not the PID namespace.
        {"another start removes it before the first open",
         [] {
             fakes.before_open = [](int nth) {
                 if (nth == 1) EXPECT_EQ(0, unlink(path.c_str()));
             };
         },
         nullptr, 0},
        {"another start has its own by the second open",
         [] {
             fakes.before_open = [](int nth) {
                 if (nth == 2) EXPECT_TRUE(!unlink(path.c_str()) && !mkfifo(path.c_str(), 0666));
             };
         },
         nullptr, 0},
        {"other starts never cease",
         [] { fakes.before_open = [](int) { EXPECT_EQ(0, unlink(path.c_str())); }; }, reading,
         ENOENT},
    };
    for (const auto& row : rows) {
        if (geteuid() != 0 && strstr(row.what, "somebody")) continue;
        const ChildEnd end = run_child([&row] {
            path = fifo_path();
            other = path + "-other";
            row.plant();
            const int before = open_descriptors();
            if (row.text) {
                EXPECT_EQ(-1, et_event_loop());
                EXPECT_EQ(row.error, errno);
                EXPECT_EQ(before, open_descriptors());
                for (const std::string& name : {path, other}) (void)remove(name.c_str());
                fakes.before_open = nullptr;
                fakes.fail[FAKE_MKFIFO] = 0;
            }
            const Step gone = [] { EXPECT_FALSE(fifo_exists()); };
            EXPECT_EQ(0, drive(nullptr, {gone, [] { event_fd_del(777); }, gone}).result);
            EXPECT_EQ(before, open_descriptors());
        });
        EXPECT_TRUE(end.completed) << row.what << "\n" << end.output;
        EXPECT_EQ(row.text ? logged(row.text, row.text) : "", without_line(end.output)) << row.what;
    }
}

// While a loop runs: which descriptors of the library a child inherits, and whether all are closed.
ISOLATED_TEST(Descriptors, OneIsInheritedOrLeftOpen) {
    // Lists the numbers from 3 on that a shell has open. The pipe of seq is closed by then.
    static const char kList[] = "for i in $(seq 3 60); do [ ! -e /proc/$$/fd/$i ] || echo $i; done";
    static const auto inherited = [] {
        char* const list = system_output("%s", kList);
        const std::string text = list;
        free(list);
        return text;
    };
    for (int fd = 3; fd < 60; ++fd) fcntl(fd, F_SETFD, FD_CLOEXEC);  // The test's own.
    char name[] = "/tmp/tessra-inherit-XXXXXX";
    close(mkstemp(name));
    std::ofstream(name) << "0123456789";
    Step look = [&] {
        EXPECT_EQ("", inherited()) << "the channel";
        const int spare = dup2(0, 50);
        EXPECT_EQ("50", inherited()) << "one of the daemon's";
        close(spare);
        const char* files[] = {name};
        szip_info_t* const plan = szip_create_info(files, 1, "/", "/");
        const szip_write_func write_and_look = [](void*, const void*, size_t count) {
            EXPECT_EQ("", inherited()) << "the archive's file";
            return static_cast<ssize_t>(count);
        };
        EXPECT_EQ(1, szip_stream_zip(plan, write_and_look, nullptr, 100));
        szip_free_info(plan);
        for (const int flags : {0, static_cast<int>(PID_FILE_CLOEXEC)}) {
            const int fd = createPidFile("prog", name, flags);
            EXPECT_EQ(flags ? "" : std::to_string(fd), inherited()) << "the PID file";
            close(fd);
        }
    };
    event_timer_add(run_timer, &look, 0);
    drive(nullptr);

    const int before = open_descriptors();
    event_loop_ctx_tp own = event_mc_init();
    const char* files[] = {name};
    szip_info_t* const plan = szip_create_info(files, 1, "/", "/");
    const int null = open("/dev/null", O_WRONLY);
    const int rounds = sizeof(void*) == 4 ? 400 : 1000;  // Emulators are slow.
    for (int round = 0; round < rounds; ++round) {
        EXPECT_EQ(0, drive(own).result);
        EXPECT_EQ(1, szip_stream_zip_fd(null, plan, 100));
        EXPECT_EQ(0, event_system(":"));
        free(system_output(":"));
        EXPECT_EQ(0, event_loop_async_start());
        EXPECT_EQ(0, event_loop_async_stop());
    }
    close(null);
    szip_free_info(plan);
    event_mc_free(own);
    EXPECT_EQ(before, open_descriptors());
    unlink(name);
}

void delete_and_close(int fd) {
    event_fd_del(fd);
    close(fd);
}

// Another thread may do so just before select() looks.
ISOLATED_TEST(Loop, DescriptorDeletedAndClosedMeanwhileEndsTheProcess) {
    const Pipe pipe;
    const int fd = dup(pipe.in);
    event_fd_add(note_fd, arg("wrong"), fd, EVENT_FD_READ);
    event_timer_add(note_timer, arg("t"), 5);
    set_clock(1000);
    EXPECT_EQ(0, drive(nullptr, {[fd] { delete_and_close(fd); }}).result);
    EXPECT_EQ("t", trace);
}

// A timer handler holds no lock, so another thread may do so during the handler's nested pass.
ISOLATED_TEST(NestedPass, GoesOnWithoutWhatIsDeletedMeanwhile) {
    static const Pipe quiet;
    static std::vector<int> fds;
    for (int n = 0; n < 3; ++n) {
        fds.push_back(dup(quiet.in));
        event_fd_add(note_fd, arg("wrong"), fds[fds.size() - 1], EVENT_FD_READ);
    }
    event_fd_add(note_fd, arg("r"), ready_descriptor(), EVENT_FD_READ);
    Step nest = [] {
        fakes.on_select = [](int nfds, fd_set* rset, fd_set* wset, fd_set* eset, timeval* tv) {
            std::thread(delete_and_close, fds.back()).join();
            fds.pop_back();
            if (fds.empty()) fakes.on_select = nullptr;
            return real_select(nfds, rset, wset, eset, tv);
        };
        trace = "";
        EXPECT_EQ(0, do_events(0));
        EXPECT_EQ("r", trace);
        cancel_loop();
    };
    event_timer_add(run_timer, &nest, 0);
    EXPECT_EQ(0, et_event_loop());
}

TEST(Loop, SelectFailureGoesUnreportedOrSpins) {
    const std::string filled = strerror(EBADF) + ("(" + std::to_string(EBADF));
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
        EXPECT_EQ(log_off ? ""
                          : logged("Error in select(), errno=%s(%d) - exit\n",
                                   "Error in select(), errno=" + filled + ") - exit\n"),
                  without_line(end.output));
    }
}

ISOLATED_TEST(Clock, SecondsOverflowInMilliseconds) {
    fakes.clock_ns = 5000000999999999ULL;  // 5e9 ms don't fit 32 bits; .999999999 is cut.
    EXPECT_EQ(5000000999ULL, event_get_time());
    EXPECT_EQ(5000000, event_get_time_sec());
}

ISOLATED_TEST(NestedPass, RunsOutsideTheLoopOrInsideAnother) {
    const Step refused = [] { EXPECT_EQ(-1, do_events(0)); };
    std::string depths;
    Step handler = [&, depth = 0]() mutable {
        depths += std::to_string(++depth);
        event_timer_add(note_timer, arg("t"), 0);
        EXPECT_EQ(depth == 1 ? 0 : -1, do_events(0));
        std::thread(refused).join();
        if (depth == 1) {
            EXPECT_EQ(0, do_events(0));
            cancel_loop();
        }
        --depth;
    };
    refused();
    set_clock(1000);
    event_fd_add(run_fd, &handler, ready_descriptor(), EVENT_FD_READ);
    drive(nullptr);
    EXPECT_EQ("122", depths);
    EXPECT_EQ("ttt", trace);
    refused();
}

struct SelectScript {
    std::vector<int> errors;  // One for each call; 0: success. The last one repeats.
    size_t calls = 0;
    long long usec = 0;
} script;

int scripted_select(int, fd_set* rset, fd_set* wset, fd_set* eset, timeval* tv) {
    const long long usec = tv->tv_usec + tv->tv_sec * 1000000LL;
    EXPECT_TRUE(script.calls == 0 || script.usec == usec);
    script.usec = usec;
    for (fd_set* set : {rset, wset, eset}) FD_ZERO(set);
    errno = script.errors[std::min(script.calls, script.errors.size() - 1)];
    ++script.calls;
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
        {20, {EBADF}, -1, 2, 1000, 20000},  // Not repeated for ever.
        {20, {EBADF, EINTR}, -1, 2, 2, 20000},
    };
    Step handler = [&] {
        select_call* driven = fakes.on_select;
        for (const auto& row : rows) {
            script = {row.errors};
            fakes.on_select = scripted_select;
            event_timer_add(note_timer, arg("t"), 0);
            trace = "";
            errno = 0;
            EXPECT_EQ(row.result, do_events(row.timeout)) << row.timeout;
            EXPECT_TRUE(row.max_calls > 0 || errno == EINVAL);
            EXPECT_EQ(row.result == 0 ? "t" : "",
                      trace);  // It isn't a failure if nothing is ready.
            EXPECT_TRUE(row.min_calls <= script.calls && script.calls <= row.max_calls)
                << script.calls << " calls for " << row.timeout;
            EXPECT_EQ(row.usec, script.usec);
            fakes.on_select = driven;
            EXPECT_EQ(0, do_events(0)) << "after " << row.timeout;
            EXPECT_EQ("t", trace);
        }
        trace = "done";
    };
    event_timer_add(run_timer, &handler, 0);
    drive(nullptr);
    EXPECT_EQ("done", trace);
}

}  // namespace
