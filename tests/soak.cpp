// Random operations on several contexts from several threads, and a model of the handlers that must
// have run.
//
//     soak SECONDS [SEED]      rounds of consecutive seeds; 0 seconds for one round
//
// Each round is a process. In rounds of an even seed the default loop runs throughout and watches
// children. In the others a thread starts and stops it all the time. Context 1 runs throughout. The
// other contexts are cancelled and started again.
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <tessra/eventloop.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <mutex>
#include <random>
#include <span>
#include <thread>
#include <vector>

namespace {

constexpr int kContexts = 4;  // Number 0 is the default one.
constexpr int kSteady = 1;
constexpr int kWorkers = 3;
constexpr int kOperations = 600;
constexpr int kBetweenSyncs = 40;  // Keeps the channels from filling up; a full one loses signals.
constexpr int kMaxSignals = 4096;
// A round may take most of a minute on a busy machine. A hang is a finding, too.
constexpr int kPatienceSeconds = 120;
constexpr unsigned kRoundSeconds = 300;

struct Figures {
    std::atomic<long> rounds, operations, timers, bytes, signals, children, nested, restarts,
        contexts, commands;
} * figures;

void check(bool holds, const char* what) {
    if (holds) return;
    fprintf(stderr, "finding: %s\n", what);
    abort();
}

thread_local std::mt19937 random_numbers;
unsigned below(unsigned bound) { return static_cast<unsigned>(random_numbers() % bound); }

template <class Holds>
void await(Holds holds, const char* what) {
    const time_t end = time(nullptr) + kPatienceSeconds;
    while (!holds()) {
        check(time(nullptr) < end, what);
        usleep(100);
    }
}

event_loop_ctx_tp contexts[kContexts];
bool default_is_steady;
// qemu-user hangs in some children of fork(). For a SIGCHLD that comes while a command sets its
// default action, it calls address 0.
const bool has_processes = getenv("TESSRA_EMULATED") == nullptr;
std::atomic<bool> stopping;

bool is_steady(int n) { return n == kSteady || (n == 0 && default_is_steady); }

// Timers. A timer that nobody deletes fires once. A timer that its own loop deletes doesn't fire.
struct Timer {
    enum State { kArmed, kFired, kDeleted, kDeletedByLoop };
    std::atomic<int> state{kArmed};
    int context;
};
void act(int context);

void on_timer(void* arg) {
    auto* const timer = static_cast<Timer*>(arg);
    const int before = timer->state.exchange(Timer::kFired);
    check(before == Timer::kArmed || before == Timer::kDeleted, "a timer fires again");
    ++figures->timers;
    act(timer->context);
}

void arm(Timer* timer, int context) {
    timer->context = context;
    if (context) {
        event_timer_add_mc(contexts[context], on_timer, timer, below(3));
    } else {
        event_timer_add(on_timer, timer, below(3));
    }
}

void disarm(Timer* timer) {
    if (timer->context) {
        event_timer_del_mc(contexts[timer->context], on_timer, timer);
    } else {
        event_timer_del(on_timer, timer);
    }
}

// Makes the calls of a handler, for its own context. The lists of another context may be locked by
// a handler there.
void act(int context) {
    if (stopping) return;
    const unsigned action = below(24);
    if (action < 4) {
        const int result = context ? do_events_mc(contexts[context], 0) : do_events(0);
        figures->nested += result == 0;
    } else if (action == 4 && !is_steady(context) && context) {
        cancel_loop_mc(contexts[context]);
    } else if (action == 5 && context) {
        Timer own;
        event_timer_add_mc(contexts[context], on_timer, &own, 1000);
        event_timer_del_mc(contexts[context], on_timer, &own);
        check(!event_timer_exists_mc(contexts[context], on_timer, &own), "a deleted timer exists");
    }
}

// Descriptors. A handler reads each byte while its watcher lives. None runs after the delete.
struct Watched {
    Watched() { check(pipe2(ends, O_CLOEXEC | O_NONBLOCK) == 0, "pipe"); }
    ~Watched() {
        for (const int end : ends) close(end);
    }
    Watched(const Watched&) = delete;
    int ends[2];
    int context = 0;
    int sent = 0;
    bool live = false;
    std::atomic<bool> dead{true};
    std::atomic<int> got{0};
};

void on_byte(int fd, void* arg) {
    auto* const watched = static_cast<Watched*>(arg);
    check(!watched->dead && fd == watched->ends[0], "a deleted watcher runs");
    char byte;
    if (read(fd, &byte, 1) == 1) {
        ++watched->got;
        ++figures->bytes;
    }
    act(watched->context);
    check(!watched->dead, "a watcher is deleted while it runs");
}

// Signals. A context gets each signal at most once, and exactly once if its loop runs throughout.
std::atomic<int> sent_signals{0};
std::atomic<unsigned char> delivered[kContexts][kMaxSignals];

void on_signal(int signal, siginfo_t* info, void* arg) {
    const auto context = static_cast<int>(reinterpret_cast<intptr_t>(arg));
    const int value = info->si_value.sival_int;
    check(info->si_signo == signal && info->si_code == SI_QUEUE && info->si_pid == getpid() &&
              value >= 0 && value < sent_signals && signal == (value % 2 ? SIGUSR1 : SIGUSR2),
          "a signal that nobody sent");
    check(delivered[context][value]++ == 0, "a signal twice");
    ++figures->signals;
    act(context);
}

bool everywhere(int value) {
    for (int n = 0; n < kContexts; ++n) {
        if (is_steady(n) && !delivered[n][value]) return false;
    }
    return true;
}

// ThreadSanitizer delivers signals here. After two at once it may have left them blocked.
void let_signals_in() {
#ifdef __SANITIZE_THREAD__
    sigset_t none;
    sigemptyset(&none);
    pthread_sigmask(SIG_SETMASK, &none, nullptr);
#endif
}

// Waits for a signal's delivery. If it doesn't come, prints which signals have come.
void await_signal(int value) {
    const time_t end = time(nullptr) + kPatienceSeconds;
    for (; !everywhere(value); usleep(100)) {
        let_signals_in();
        if (time(nullptr) < end) continue;
        for (int context = 0; context < kContexts; ++context) {
            int newest = -1, count = 0;
            for (int each = 0; each < sent_signals; ++each) {
                if (!delivered[context][each]) continue;
                newest = each;
                ++count;
            }
            fprintf(stderr, "context %d: signal %d of %d came %d times; %d came, the newest %d\n",
                    context, value, sent_signals.load(), int(delivered[context][value]), count,
                    newest);
        }
        check(false, "a signal is lost");
    }
}

int send_signal() {
    const int value = sent_signals++;
    check(value < kMaxSignals, "enough numbers for the signals");
    sigval with = {};
    with.sival_int = value;
    pthread_sigqueue(pthread_self(), value % 2 ? SIGUSR1 : SIGUSR2, with);
    let_signals_in();
    return value;
}

// Children. The loop reports each one once, with its own status, or leaves it to the thread that
// has deleted its watcher.
struct Child {
    std::atomic<int> reports{0};
    int pid = 0, code = 0;
};

int on_child(int pid, void* arg, int status) {
    auto* const child = static_cast<Child*>(arg);
    check(child->pid == pid && status == child->code << 8, "a child with another's status");
    check(child->reports++ == 0, "a child is reported twice");
    ++figures->children;
    return 0;
}

void start_child(Child* child) {
    child->code = static_cast<int>(below(100));
    const useconds_t life = below(2000);
    const bool stops = below(4) == 0;
    child->pid = fork();
    if (child->pid == 0) {
        usleep(life);
        _exit(child->code);
    }
    event_process_add(child->pid, on_child, child);
    if (stops) {
        kill(child->pid, SIGSTOP);
        usleep(below(200));
        kill(child->pid, SIGCONT);
    }
    if (below(8)) return;
    event_process_del(child->pid);
    const bool reported = child->reports == 1;
    check((waitpid(child->pid, nullptr, 0) == child->pid) != reported, "whose child is it");
    child->reports = 1;
}

std::mutex one_command;

void run_command() {
    const std::lock_guard<std::mutex> lock(one_command);
    check(event_system("exit %d", 5) == 5 << 8, "a command's status");
    ++figures->commands;
}

void run_own_context() {
    event_loop_ctx_tp own = event_mc_init();
    event_timer_add_mc(
        own, [](void* context) { cancel_loop_mc(static_cast<event_loop_ctx_tp>(context)); }, own,
        below(2));
    check(et_event_loop_mc(own) == 0, "a context of its own runs");
    event_mc_free(own);
    ++figures->contexts;
}

// A thread that makes random operations, with the objects that it uses.
struct Worker {
    std::deque<Timer> timers;
    std::deque<Child> children;
    Watched watched[4];

    void change_watched(Watched& it) {
        if (!it.live) {
            it.context = 1 + static_cast<int>(below(kContexts - 1));
            it.live = true;
            it.dead = false;
            event_fd_add_mc(contexts[it.context], on_byte, &it, it.ends[0], EVENT_FD_READ);
        } else if (below(3)) {
            check(write(it.ends[1], "x", 1) == 1, "write");
            ++it.sent;
        } else {
            event_fd_del_mc(contexts[it.context], it.ends[0]);
            it.dead = true;
            it.live = false;
            char byte;
            while (read(it.ends[0], &byte, 1) == 1) ++it.got;
            check(it.got == it.sent, "a byte is lost");
        }
    }
    void change_timers() {
        const int context = static_cast<int>(below(kContexts));
        if (context == 0 && !default_is_steady) return;
        arm(&timers.emplace_back(), context);
        Timer& old = timers[below(static_cast<unsigned>(timers.size()))];
        int armed = Timer::kArmed;
        if (below(4) || !old.state.compare_exchange_strong(armed, Timer::kDeleted)) return;
        disarm(&old);
    }
    void operate() {
        const unsigned action = below(200);
        const int other = 2 + static_cast<int>(below(kContexts - 2));
        if (action < 80) {
            change_timers();
        } else if (action < 160) {
            change_watched(watched[below(4)]);
        } else if (action < 180) {
            send_signal();
        } else if (action < 188) {
            cancel_loop_mc(contexts[other]);
        } else if (action < 190) {
            run_own_context();
        } else if (action < 191 && has_processes) {
            run_command();
        } else if (action < 196 && has_processes && default_is_steady) {
            start_child(&children.emplace_back());
        } else {
            event_signal_add_mc(contexts[other], on_signal, nullptr, SIGHUP);
            event_signal_del_mc(contexts[other], SIGHUP);
        }
    }
    void run() {
        for (int n = 0; n < kOperations; ++n) {
            operate();
            ++figures->operations;
            if (n % kBetweenSyncs != 0) continue;
            const int last = send_signal();
            await_signal(last);
        }
    }
    void finish() {
        for (Timer& timer : timers) {
            await([&] { return timer.state != Timer::kArmed; }, "a timer is lost");
        }
        for (Watched& it : watched) {
            await([&] { return !it.live || it.got == it.sent; }, "a byte is lost");
        }
        for (Child& child : children) {
            const auto is_reported = [&] {
                if (child.reports == 0) {
                    // The next SIGCHLD reports a child that has exited while a command ran.
                    kill(getpid(), SIGCHLD);
                    usleep(1000);
                }
                return child.reports == 1;
            };
            await(is_reported, "a child is lost");
        }
    }
};

void run_context(int n, unsigned seed) {
    random_numbers.seed(seed);
    while (!stopping) {
        check(et_event_loop_mc(contexts[n]) == 0, "a loop starts");
        ++figures->restarts;
    }
}

void restart_default(unsigned seed, const std::atomic<bool>& done) {
    random_numbers.seed(seed);
    while (!done) {
        check(event_loop_async_start() == 0, "the default loop starts");
        event_fd_add(on_byte, nullptr, STDIN_FILENO, EVENT_FD_EXCEPT);
        event_timer_add([](void*) { ++figures->timers; }, nullptr, below(2));
        usleep(below(1000));
        check(event_loop_async_stop() == 0, "the default loop stops");
        ++figures->restarts;
    }
}

int descriptors() {
    int count = 0;
    for (int fd = 0; fd < 256; ++fd) count += fcntl(fd, F_GETFD) != -1;
    return count;
}

void run_round(unsigned seed) {
    alarm(kRoundSeconds);
    random_numbers.seed(seed);
    int idle_fds[40];
    for (int& fd : idle_fds) fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    const int descriptors_before = descriptors();
    default_is_steady = seed % 2 == 0;
    std::vector<std::thread> threads;
    for (int n = 1; n < kContexts; ++n) {
        contexts[n] = event_mc_init();
        for (const int signal : {SIGUSR1, SIGUSR2}) {
            void* const number = reinterpret_cast<void*>(intptr_t{n});
            event_signal_add_mc(contexts[n], on_signal, number, signal);
        }
        // In two of four rounds many are idle, so that the loop makes its table by descriptor.
        for (const int fd : std::span(idle_fds, seed % 4 < 2 ? std::size(idle_fds) : 0)) {
            event_fd_add_mc(contexts[n], on_byte, nullptr, fd, EVENT_FD_EXCEPT);
        }
        threads.emplace_back(run_context, n, seed + static_cast<unsigned>(n));
    }
    if (default_is_steady) {
        for (const int signal : {SIGUSR1, SIGUSR2}) event_signal_add(on_signal, nullptr, signal);
        check(event_loop_async_start() == 0, "the default loop starts");
    }
#ifdef __SANITIZE_THREAD__
    // ThreadSanitizer's sigaction() reads and writes in two steps. Between them, the end of a
    // command would remove the catcher of a first child: 446 times of 20,000 in a program with
    // these calls alone.
    if (default_is_steady) {
        event_process_add(getpid(), nullptr, nullptr);
        event_process_del(getpid());
    }
#endif
    Timer running;
    arm(&running, kSteady);
    await([&] { return running.state == Timer::kFired; }, "a loop runs");
    {
        std::deque<Worker> workers(kWorkers);
        std::vector<std::thread> working;
        std::atomic<bool> done{false};
        std::thread restarter;
        if (!default_is_steady) restarter = std::thread([&] { restart_default(seed, done); });
        for (unsigned n = 0; n < kWorkers; ++n) {
            working.emplace_back([n, seed, &workers] {
                random_numbers.seed(seed * 16 + n);
                workers[n].run();
            });
        }
        for (std::thread& each : working) each.join();
        for (Worker& worker : workers) worker.finish();
        done = true;
        if (restarter.joinable()) restarter.join();
        for (int value = 0; value < sent_signals; ++value) await_signal(value);
        stopping = true;
        for (int n = 1; n < kContexts; ++n) {
            std::atomic<bool> ended{false};
            std::thread canceller([&] {
                while (!ended) {
                    cancel_loop_mc(contexts[n]);
                    usleep(100);
                }
            });
            threads[static_cast<size_t>(n - 1)].join();
            ended = true;
            canceller.join();
            event_mc_free(contexts[n]);
        }
        check(event_loop_async_stop() == 0, "the default loop stops");
    }
    check(waitpid(-1, nullptr, WNOHANG) == -1, "a zombie is left");
    check(descriptors() == descriptors_before, "a descriptor is left");
}

}  // namespace

int main(int argc, char** argv) {
    const time_t end = time(nullptr) + (argc > 1 ? atoi(argv[1]) : 3);
    const unsigned first =
        argc > 2 ? static_cast<unsigned>(strtoul(argv[2], nullptr, 10)) : std::random_device()();
    figures = static_cast<Figures*>(
        mmap(nullptr, sizeof(Figures), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    printf("seed %u\n", first);
    fflush(stdout);
    for (unsigned seed = first;; ++seed) {
        const pid_t pid = fork();
        if (pid == 0) {
            run_round(seed);
            exit(0);
        }
        int status = 0;
        waitpid(pid, &status, 0);
        if (status != 0) {
            printf("finding in the round of seed %u, wait status %d\n", seed, status);
            return 1;
        }
        ++figures->rounds;
        if (time(nullptr) >= end && (argc < 2 || atoi(argv[1]) == 0 || seed != first)) break;
    }
    printf(
        "%ld rounds, %ld operations; delivered: %ld timers, %ld bytes, %ld signals, "
        "%ld children; %ld nested passes, %ld restarts, %ld short-lived contexts, "
        "%ld commands; 0 findings\n",
        figures->rounds.load(), figures->operations.load(), figures->timers.load(),
        figures->bytes.load(), figures->signals.load(), figures->children.load(),
        figures->nested.load(), figures->restarts.load(), figures->contexts.load(),
        figures->commands.load());
    return 0;
}
