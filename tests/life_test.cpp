// Orders of calls between threads, signals and processes that a daemon meets once in many months.
// The tests park one side at a call that it makes. Then the other side makes calls that the first
// one must survive.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <semaphore>
#include <thread>

#include "support/harness.h"
#include "tessra/misc.h"

using namespace tessra_test;

namespace {

using Semaphore = std::counting_semaphore<>;

constexpr unsigned long long kHour = 3600000;

// A place where one thread parks until another lets it go on.
struct Gate {
    void park() {
        reached.release();
        leave.acquire();
    }
    Semaphore reached{0}, leave{0};
};

// A loop on a thread of its own.
struct Runner {
    explicit Runner(const Step& afterwards = [] {}) {
        event_timer_add_mc(context, run_timer, &tell, 0);
        thread = std::thread([this, afterwards] {
            EXPECT_EQ(0, et_event_loop_mc(context));
            afterwards();
        });
        running.acquire();
    }
    void end() {
        cancel_loop_mc(context);
        thread.join();
    }
    event_loop_ctx_tp context = event_mc_init();
    Semaphore running{0};
    Step tell = [this] { running.release(); };
    std::thread thread;
};

// Returns a child that has terminated and isn't collected yet.
pid_t dead_child() {
    const pid_t pid = fork_process([] {});
    await_child(pid);
    return pid;
}

ISOLATED_TEST(Free, TakesNoLockOfAnotherContext) {
    for (const bool children : {false, true}) {
        if (children) event_process_add(getpid(), note_process, nullptr);
        Runner* runner;
        Runner worker([&] { event_mc_free(runner->context); });
        runner = &worker;
        Step stop = [&] {
            worker.end();
            cancel_loop();
        };
        event_fd_add(run_fd, &stop, ready_descriptor(), EVENT_FD_READ);
        EXPECT_EQ(0, et_event_loop());
    }
}

// The test parks the canceller at each kind of call that it makes. If the loop has seen the cancel
// by then, it waits for the canceller in nanosleep(). If not, it waits for events again.
ISOLATED_TEST(Free, MayFollowTheLoopsReturnWhateverACancelDoes) {
    for (const int call : {FAKE_CANCELSTATE, FAKE_ERRNO, FAKE_WRITE}) {
        static Semaphore moved(0);
        static event_loop_ctx_tp context;
        Runner runner([] {
            event_mc_free(context);
            moved.release();
        });
        context = runner.context;
        std::thread([call] {
            at_call(call, [] {
                fakes.on_select = [](int n, fd_set* r, fd_set* w, fd_set* e, timeval* tv) {
                    moved.release();
                    return real_select(n, r, w, e, tv);
                };
                at_call(FAKE_NANOSLEEP, [] { moved.release(); });
                event_timer_del_mc(context, note_timer, nullptr);
                moved.acquire();
            });
            cancel_loop_mc(context);
        }).join();
        runner.thread.join();
        fakes.on_select = nullptr;
        at_call(FAKE_NANOSLEEP, nullptr);
        while (moved.try_acquire()) {
        }
    }
}

int run_process(int, void* step, int) {
    run_timer(step);
    return 0;
}

ISOLATED_TEST(Free, EndsTheWalkOfItsChildrenFromAChildsHandler) {
    event_loop_ctx_tp own = event_mc_init();
    bool nest = true;
    Step free_it = [&] {
        trace += "f";
        if (!std::exchange(nest, false)) return event_mc_free(own);
        raise(SIGCHLD);
        EXPECT_EQ(0, do_events(0));  // In it another child's handler frees the context.
    };
    for (int n = 0; n < 2; ++n) event_process_add_mc(own, dead_child(), run_process, &free_it);
    event_process_add_mc(own, dead_child(), note_process, arg("wrong"));
    const Step sigchld = [] { raise(SIGCHLD); };
    EXPECT_EQ(0, drive(nullptr, {sigchld, sigchld}).result);
    EXPECT_EQ("ff", trace);
    Step fork_it = [&] {
        const pid_t pid = fork_process([&] {
            for (int n = 0; n < 3; ++n) event_process_add(dead_child(), note_process, arg("n"));
            if (drive(nullptr, {sigchld}).result != 0 || trace != "ffnnn") _exit(1);
        });
        EXPECT_EQ(0, status_of(pid));
        cancel_loop();
    };
    event_process_add(-1, note_process, arg("wrong"));  // A child of fork() drops it.
    fork_it();
    event_timer_add(run_timer, &fork_it, 0);
    EXPECT_EQ(0, et_event_loop());
}

// pthread_cancel() is called while the thread is inside the library. The thread goes on until it is
// outside, and leaves nothing locked, open or unsent.
ISOLATED_TEST(Cancelled, ThreadLeavesTheLibraryWhole) {
    static Semaphore signalled(0);
    static Step on_signal = [] { signalled.release(); };
    Runner other;
    event_signal_add_mc(other.context, run_signal, &on_signal, SIGUSR1);
    const Step loop = [] {
        event_loop_ctx_tp own = event_mc_init();
        Step change_and_end = [=] {
            event_timer_add_mc(own, note_timer, nullptr, kHour);
            cancel_loop_mc(own);
        };
        event_timer_add_mc(own, run_timer, &change_and_end, 0);
        EXPECT_EQ(0, et_event_loop_mc(own));
        event_mc_free(own);
    };
    // The loop ends while a canceller still uses its channel, so the loop waits for the canceller.
    const Step end_waits = [] {
        static Gate gate;
        Runner runner;
        std::thread canceller([&] {
            fakes.before_message = [](int, size_t) {
                fakes.before_message = nullptr;
                gate.park();
            };
            cancel_loop_mc(runner.context);
        });
        gate.reached.acquire();
        at_call(FAKE_NANOSLEEP, [&] {
            pthread_cancel(runner.thread.native_handle());
            gate.leave.release();
        });
        event_timer_del_mc(runner.context, note_timer, nullptr);
        canceller.join();
        runner.thread.join();
        pthread_cancel(pthread_self());
    };
    const Step catch_signal = [] {
        raise(SIGUSR1);
        signalled.acquire();
    };
    const Step start_and_stop = [] {
        event_loop_async_start();
        event_loop_async_stop();
    };
    const struct {
        int call;
        Step body;
    } rows[] = {
        {FAKE_MKFIFO, loop},
        {FAKE_OPEN, loop},
        {FAKE_CLOSE, loop},
        {FAKE_WRITE, loop},
        {FAKE_WRITE, [&] { event_timer_add_mc(other.context, note_timer, nullptr, kHour); }},
        {FAKE_WRITE, catch_signal},
        {FAKE_PTHREAD_CREATE, start_and_stop},
        {FAKE_COND_WAIT, start_and_stop},
        {FAKE_PTHREAD_JOIN, start_and_stop},
        {FAKE_CALLS, end_waits},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(&row - rows);
        bool finished = false;
        const Step body = [&] {
            if (row.call != FAKE_CALLS) at_call(row.call, [] { pthread_cancel(pthread_self()); });
            row.body();
            finished = true;
            pthread_testcancel();
        };
        pthread_t thread;
        const auto run = [](void* step) -> void* {
            run_timer(step);
            return nullptr;
        };
        ASSERT_EQ(0, pthread_create(&thread, nullptr, run, const_cast<Step*>(&body)));
        void* result;
        pthread_join(thread, &result);
        EXPECT_TRUE(finished && result == PTHREAD_CANCELED);
        loop();
    }
    other.end();
    event_mc_free(other.context);
}

void lock_and_unlock(recursive_mutex* mutex) {
    recursive_mutex_lock(mutex);
    recursive_mutex_unlock(mutex);
}

// Makes the calls that a child of fork() may make. No other thread could end a wait of the child.
void use_in_child(event_loop_ctx_tp idle) {
    alarm(20);
    for (event_loop_ctx_tp context : {event_loop_ctx_tp(), idle, event_mc_init()}) {
        Step cancel = [=] { cancel_loop_of(context); };
        Step timer = [&] { raise(SIGUSR1); };
        if (context) {
            event_timer_add_mc(context, run_timer, &timer, 0);
            event_signal_add_mc(context, run_signal, &cancel, SIGUSR1);
            event_fd_del_mc(context, 777);
            event_process_del_mc(context, 777);
            if (et_event_loop_mc(context) != 0) _exit(1);
        } else {
            event_timer_add(run_timer, &timer, 0);
            event_signal_add(run_signal, &cancel, SIGUSR1);
            if (et_event_loop() != 0) _exit(2);
        }
    }
#if !defined(__SANITIZE_THREAD__)  // It has no threads in such a child; qemu-user aborts.
    if (!getenv("TESSRA_EMULATED")) {
        if (event_loop_async_start() != 0 || event_loop_async_stop() != 0) _exit(3);
    }
#endif
    recursive_mutex own = RECURSIVE_MUTEX_INITIALIZER;
    lock_and_unlock(&own);
}

// A thread is parked inside the library. It goes on after the fork, or if the fork waits for the
// thread, when the library hears of the fork.
TEST(Fork, ChildCanUseWhatAnotherThreadWasChanging) {
    static event_loop_ctx_tp idle, other;
    static recursive_mutex mutex = RECURSIVE_MUTEX_INITIALIZER, own = RECURSIVE_MUTEX_INITIALIZER;
    static const auto use_own = [] { lock_and_unlock(&own); };
    const Step loop = [] { et_event_loop_mc(other); };
    const struct {
        int call;
        bool fork_waits;
        Step body;
    } rows[] = {
        {FAKE_MUTEX_TRYLOCK, false, [] { lock_and_unlock(&mutex); }},
        {FAKE_MKFIFO, true, loop},
        {FAKE_CLOSE, true, loop},
        {FAKE_FREE, true, [] { event_timer_del_mc(idle, note_timer, nullptr); }},
        {FAKE_SIGACTION, true, [] { event_signal_add_mc(idle, note_signal, nullptr, SIGUSR2); }},
        {FAKE_SIGACTION, false,
         [=] {
             at_call(FAKE_SELECT,
                     [] { event_signal_add_mc(other, note_signal, nullptr, SIGUSR2); });
             loop();
         }},
        {FAKE_FREE, false, [] { event_process_del_mc(idle, 1); }},
        {FAKE_WRITE, false, loop},
        {FAKE_PIPE, true,
         [] {
             event_loop_async_start();
             event_loop_async_stop();
         }},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(&row - rows);
        run_isolated([&row] {
            Gate gate;
            Step cancel = [] { cancel_loop_mc(other); };
            idle = event_mc_init();
            other = event_mc_init();
            pthread_atfork(nullptr, nullptr, use_own);  // After the library's first call.
            event_timer_add_mc(idle, note_timer, nullptr, kHour);
            event_process_add_mc(idle, 1, note_process, nullptr);
            event_timer_add_mc(other, run_timer, &cancel, 0);
            at_call(row.call, [&] { gate.park(); });
            std::thread parked_thread(row.body);
            gate.reached.acquire();
            if (row.fork_waits) at_call(FAKE_FORK, [&] { gate.leave.release(); });
            const pid_t pid = fork_process([] { use_in_child(idle); });
            gate.leave.release();
            EXPECT_EQ(0, status_of(pid));
            parked_thread.join();
            EXPECT_EQ(0, drive(other).result);
        });
    }
}

// Forks in a handler, and beside a thread that is in a handler.
ISOLATED_TEST(Fork, ChildHasNoLoopAndWritesToNoChannel) {
    static event_loop_ctx_tp idle = event_mc_init(), other;
    static int messages;
    Runner runner;
    other = runner.context;
    Gate handler;
    Step wait = [&] { handler.park(); };
    event_signal_add_mc(other, run_signal, &wait, SIGUSR2);
    raise(SIGUSR2);
    handler.reached.acquire();
    Step fork_and_look = [&] {
        const pid_t pid = fork_process([] {
            fakes.before_message = [](int, size_t) { ++messages; };
            bool none = is_event_loop_thread() == 0 && do_events(0) == -1;
            event_timer_add(note_timer, nullptr, kHour);
            none &= event_timer_exists(note_timer, nullptr) == 1;
            event_fd_del(777);
            event_signal_del_mc(other, SIGUSR1);
            cancel_loop_mc(other);
            cancel_loop();
            raise(SIGUSR2);
            if (!none || messages != 0) _exit(4);
            use_in_child(idle);
            use_in_child(other);
        });
        EXPECT_EQ(0, status_of(pid));
        EXPECT_EQ(1, is_event_loop_thread());
        trace += "h";
    };
    const int fd = ready_descriptor();
    Step by_descriptor = [&] {
        event_fd_del(fd);
        fork_and_look();
        raise(SIGUSR1);
    };
    Step by_signal = [&] {
        fork_and_look();
        event_timer_add(run_timer, &fork_and_look, 0);
    };
    event_fd_add(run_fd, &by_descriptor, fd, EVENT_FD_READ);
    event_signal_add(run_signal, &by_signal, SIGUSR1);
    EXPECT_EQ(0, drive(nullptr).result);
    EXPECT_EQ("hhh", trace);
    Step return_into_the_loop = [] {
        if (fork() != 0) return cancel_loop();
        trace = "child";
    };
    event_timer_add(run_timer, &return_into_the_loop, 0);
    const int result = et_event_loop();
    if (trace == "child") _exit(result == -1 && errno == ECANCELED ? 0 : 5);
    EXPECT_EQ(0, status_of(-1));
    handler.leave.release();
    runner.end();
}

// In the child, the pass that has called the handler ends there, whatever the child adds to its
// lists.
TEST(Fork, ChildThatReturnsFromAHandlerLeavesThePass) {
    static event_loop_ctx_tp own;
    static Step fork_it, end;
    static pid_t pid, dead[2];
    static int fds[2];
    const Step descriptors = [] {
        for (const int fd : fds) event_fd_add(run_fd, &fork_it, fd, EVENT_FD_READ);
    };
    const Step kinds[] = {
        descriptors,
        [&] {
            descriptors();
            if (do_events(0) == 0 && pid == 0) trace += "x";
        },
        [] {
            for (int n = 0; n < 2; ++n) event_signal_add(run_signal, &fork_it, SIGUSR1);
            raise(SIGUSR1);
        },
        [] {
            for (int n = 0; n < 2; ++n) event_timer_add(run_timer, &fork_it, 0);
        },
        [] {
            for (const pid_t child : dead) event_process_add_mc(own, child, run_process, &fork_it);
            raise(SIGCHLD);
        },
    };
    for (const Step& kind : kinds) {
        SCOPED_TRACE(&kind - kinds);
        run_isolated([&kind] {
            set_clock(kHour);  // All timers are due in the same phase.
            own = event_mc_init();
            for (pid_t& child : dead) child = dead_child();
            for (int& fd : fds) fd = ready_descriptor();
            pid = -1;
            end = [] {
                trace += "e";
                cancel_loop();
            };
            fork_it = [] {
                trace += "f";
                if (pid != -1) return;
                event_fd_del(fds[1]);  // Only marks it, since it is next in the walk.
                event_process_del_mc(own, dead[1]);
                pid = fork();
                if (pid != 0) return cancel_loop();
                event_fd_add(run_fd, &end, fds[1], EVENT_FD_READ);
                event_timer_add(run_timer, &end, 0);
#if !defined(__SANITIZE_THREAD__)  // It takes a lock that is initialised again for the old one.
                event_mc_free(own);
#endif
            };
            Step start = kind;
            event_timer_add(run_timer, &start, 0);
            const int result = et_event_loop();
            if (pid != 0) {
                EXPECT_EQ(0, status_of(pid));
                return;
            }
            if (result != -1 || errno != ECANCELED || trace != "f") _exit(1);
            event_fd_add(note_fd, arg("n"), fds[0], EVENT_FD_READ);
            event_signal_add(note_signal, arg("s"), SIGCHLD);
            if (et_event_loop() != 0 || trace != "fene") _exit(2);
            use_in_child(event_mc_init());  // Another thread can take the locks.
            _exit(0);
        });
    }
}

ISOLATED_TEST(Fork, ChildOfAProcessWhoseFirstCallIsUnderWay) {
    fakes.fail[FAKE_ATFORK] = ENOMEM;  // Only the loop needs the handlers. Each call tries again.
    errno = 0;
    event_timer_add(note_timer, nullptr, kHour);
    EXPECT_EQ(0, errno);
    ASSERT_TRUE(drive(nullptr).result == -1 && errno == ENOMEM);
    fakes.fail[FAKE_ATFORK] = 0;
    Gate gate;
    at_call(FAKE_ATFORK, [&] { gate.park(); });
    std::thread first([] { event_timer_add(note_timer, nullptr, kHour); });
    gate.reached.acquire();
    EXPECT_EQ(0, status_of(fork_process([] { use_in_child(event_mc_init()); })));
    gate.leave.release();
    first.join();
}

// Only the parent closes a descriptor that a failed start has left open. In the child, its number
// may belong to another file.
ISOLATED_TEST(Fork, ChildClosesNothingForAFailedStart) {
    const int leftover = dup(STDIN_FILENO);
    close(leftover);
    fakes.before_open = [](int nth) { fakes.fail[FAKE_OPEN] = nth % 2 == 0 ? EMFILE : 0; };
    event_loop_ctx_tp own = event_mc_init();
    EXPECT_EQ(-1, et_event_loop_mc(own));
    event_mc_free(own);
    EXPECT_EQ(-1, fcntl(leftover, F_GETFD));
    EXPECT_EQ(-1, et_event_loop());
    EXPECT_EQ(EMFILE, errno);
    fakes.before_open = nullptr;
    fakes.fail[FAKE_OPEN] = 0;
    EXPECT_EQ(0, status_of(fork_process([&] {
                  if (dup2(STDIN_FILENO, leftover) != leftover) _exit(1);
                  if (drive(nullptr).result != 0 || fcntl(leftover, F_GETFD) == -1) _exit(2);
              })));
}

// Starts and stops of the default loop at the same time.
ISOLATED_TEST(StartStop, StartBesideACancelledLoopIsBusy) {
    Step start = [] {
        errno = 0;
        EXPECT_EQ(-1, event_loop_async_start());
        EXPECT_EQ(EBUSY, errno);
    };
    Step cancel_and_start = [&] {
        cancel_loop();
        start();
        std::thread(start).join();
    };
    event_timer_add(run_timer, &cancel_and_start, 0);
    EXPECT_EQ(0, et_event_loop());
    EXPECT_EQ(0, fakes.threads);
    EXPECT_EQ(0, event_timer_exists(event_loop_wait_for_async_loop_ready, nullptr));
    // The second caller may have the identity that the first loop's thread had.
    for (int n = 0; n < 2; ++n) {
        std::thread([] { EXPECT_EQ(0, event_loop_async_start()); }).join();
        EXPECT_EQ(0, event_loop_async_stop());
    }
}

// Starts the default loop, and expects success (0) or an error.
void expect_start(int error) {
    errno = 0;
    EXPECT_EQ(error ? -1 : 0, event_loop_async_start());
    EXPECT_EQ(error, errno);
}

// One stop has cancelled the loop and waits for a handler. Then another stop or a start waits for a
// lock. The test can't see a thread wait for a lock, so it only gives the second call a chance to
// return before the handler does.
ISOLATED_TEST(StartStop, BothWaitForTheLastHandler) {
    const Step stop = [] { EXPECT_EQ(0, event_loop_async_stop()); };
    const Step start = [] { expect_start(0); };
    for (const Step& second_call : {stop, start}) {
        Gate handler;
        Semaphore joining(0);
        std::atomic<bool> left(false);
        Step slow = [&] {
            handler.park();
            left = true;
        };
        expect_start(0);
        event_timer_add(run_timer, &slow, 0);
        handler.reached.acquire();
        at_call(FAKE_PTHREAD_JOIN, [&] { joining.release(); });
        std::thread first([&] {
            stop();
            EXPECT_TRUE(left);
        });
        joining.acquire();
        at_call(FAKE_CANCELSTATE, [&] { handler.leave.release(); });
        std::thread second([&] {
            second_call();
            EXPECT_TRUE(left);
            handler.leave.release();
        });
        first.join();
        second.join();
        EXPECT_EQ(0, event_loop_async_stop());
    }
}

// The stop finds a thread that is created and hasn't begun its loop.
ISOLATED_TEST(StartStop, StopEndsTheLoopThatIsBeingStarted) {
    Gate begin;
    at_call(FAKE_MKFIFO, [&] { begin.park(); });
    at_call(FAKE_COND_WAIT, [&] { begin.reached.release(); });
    std::thread starter([] { event_loop_async_start(); });
    for (int n = 0; n < 2; ++n) begin.reached.acquire();
    for (const int call : {FAKE_PTHREAD_JOIN, FAKE_CANCELSTATE}) {
        at_call(call, [&] { begin.leave.release(); });
    }
    EXPECT_EQ(0, event_loop_async_stop());
    starter.join();
    EXPECT_EQ(0, event_loop_async_stop());
    EXPECT_EQ(0, fakes.threads);
}

// A synchronous loop begins just before the start creates its thread.
ISOLATED_TEST(StartStop, StartBesideASynchronousLoopIsBusy) {
    Semaphore running(0);
    Step tell = [&] { running.release(); };
    std::thread synchronous;
    at_call(FAKE_PTHREAD_CREATE, [&] {
        event_timer_add(run_timer, &tell, 0);
        synchronous = std::thread([] { EXPECT_EQ(0, et_event_loop()); });
        running.acquire();
    });
    expect_start(EBUSY);
    EXPECT_EQ(0, event_timer_exists(event_loop_wait_for_async_loop_ready, nullptr));
    cancel_loop();
    synchronous.join();
    // Another start looks before this one has a loop, and then waits for the lock.
    std::thread other;
    at_call(FAKE_PTHREAD_CREATE, [&] {
        at_call(FAKE_CANCELSTATE, [&] { running.release(); });
        other = std::thread(expect_start, EBUSY);
        running.acquire();
    });
    expect_start(0);
    other.join();
    EXPECT_EQ(0, event_loop_async_stop());
}

// The stop has cancelled a loop, which has ended, and waits for its thread. Then a new loop starts.
ISOLATED_TEST(StartStop, StopLeavesALaterLoopAlone) {
    static Semaphore step(0);
    static thread_local bool is_later_loop;
    Step tell = [] { step.release(); };
    std::thread later;
    expect_start(0);
    at_call(FAKE_PTHREAD_JOIN, [&] {
        fakes.on_select = [](int nfds, fd_set* rset, fd_set* wset, fd_set* eset, timeval* tv) {
            if (std::exchange(is_later_loop, false)) step.release();
            return real_select(nfds, rset, wset, eset, tv);
        };
        later = std::thread([&] {
            is_later_loop = true;
            while (et_event_loop() != 0) EXPECT_EQ(EBUSY, errno);  // The former one ends.
        });
        step.acquire();
    });
    EXPECT_EQ(0, event_loop_async_stop());
    for (int n = 0; n < 2; ++n) {
        event_timer_add(run_timer, &tell, 0);  // Wakes the loop, which would then see a cancel.
        step.acquire();
    }
    cancel_loop();
    later.join();
}

ISOLATED_TEST(Channel, LoggerMayRunALoop) {
    fakes.on_log = [] {
        fakes.fail[FAKE_MKFIFO] = 0;
        fakes.on_log = nullptr;
        std::thread([] { EXPECT_EQ(0, drive(event_mc_init()).result); }).join();
    };
    fakes.fail[FAKE_MKFIFO] = EACCES;
    EXPECT_EQ(-1, et_event_loop());
    EXPECT_EQ(EACCES, errno);
    EXPECT_EQ(nullptr, reinterpret_cast<void*>(fakes.on_log));
    fakes.on_log = [] {
        EXPECT_EQ(0, event_loop_async_stop());
        expect_start(EBUSY);
        fakes.on_log = nullptr;
    };
    fakes.fail[FAKE_MKFIFO] = EACCES;
    expect_start(EACCES);
}

// A daemon without standard descriptors prints text. The loop must not take the text for a message.
ISOLATED_TEST(Channel, LeavesTheStandardDescriptorsFree) {
    const int numbers[] = {0, 1, 2};
    int saved[3];
    for (const int fd : numbers) saved[fd] = fcntl(fd, F_DUPFD, 10);
    for (const int fd : numbers) close(fd);
    bool is_free = true;
    Step print = [&] {
        for (const int fd : numbers) is_free &= fcntl(fd, F_GETFD) == -1;
        EXPECT_EQ(0, do_events(0));
        cancel_loop();
    };
    event_timer_add(run_timer, &print, 0);
    event_signal_add(note_signal, arg("s"), 'T' - 'S');
    // Another thread prints while the channel still has these numbers.
    at_call(FAKE_FCNTL, [] {
        char message[1 + sizeof(siginfo_t)] = {'T'};
        EXPECT_EQ(sizeof message, write(STDOUT_FILENO, message, sizeof message));
    });
    const int result = et_event_loop();
    for (const int fd : numbers) dup2(saved[fd], fd);
    for (const int fd : saved) close(fd);
    EXPECT_TRUE(result == 0 && is_free);
    EXPECT_EQ("", trace);
}

// A process that opened the FIFO while it had a name has no end of the channel.
ISOLATED_TEST(Channel, CannotBeOpenedByItsName) {
    static int stolen = -1;
    at_call(FAKE_UNLINK, [] {
        stolen = open(("/tmp/evtloop" + std::to_string(getpid())).c_str(), O_RDWR | O_NONBLOCK);
    });
    char message[1 + sizeof(siginfo_t)] = {'S' + SIGTERM};
    event_signal_add(note_signal, arg("forged"), SIGTERM);
    const Step forge = [&] {
        EXPECT_EQ(sizeof message, write(stolen, message, sizeof message));
        EXPECT_EQ(sizeof message, read(stolen, message, sizeof message));
        event_timer_del(note_timer, nullptr);
        EXPECT_EQ(-1, read(stolen, message, sizeof message));
    };
    EXPECT_EQ(0, drive(nullptr, {forge}).result);
    EXPECT_EQ("", trace);
}

}  // namespace
