// The operations on event loops, the same for all peers. A peer is a class with
//
//     watch(fd, hook)            calls the hook whenever fd is readable
//     struct Timer               arm(peer, ms, hook), one shot; disarm(peer); reusable
//     run(), stop()              stop() from a hook
//
// and, if it can, struct Waker (Waker(peer, hook), wake() from any thread), signal(number, hook),
// child(pid, hook), post(hook) from any thread, and
//
//     change(bool)               watches the last descriptor for reading, or for writing as well
//     pass(changes)              makes the passes of the loop after so many changes, without a wait
//     inside(hook)               calls the hook in a place that allows pass(), if not all do
#ifndef TESSRA_BENCH_LOOP_OPERATIONS_H
#define TESSRA_BENCH_LOOP_OPERATIONS_H

#include <fcntl.h>
#include <semaphore.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <numeric>
#include <string>
#include <thread>
#include <vector>

#include "bench.h"

namespace bench {

struct Hook {
    void (*call)(void*);
    void* arg;
    void operator()() const { call(arg); }
};

template <class Object, void (Object::*method)()>
Hook hook(Object* object) {
    return {[](void* arg) { (static_cast<Object*>(arg)->*method)(); }, object};
}

// Sends a byte through all pipes, one event each.
template <class Peer>
struct Chain {
    struct Link {
        Chain* chain;
        unsigned at;
        Pipe pipe;
        void pass() { chain->passed(at); }
    };
    Loop& loop;
    std::vector<Link> links;
    Peer peer{};

    // Watches `watched` descriptors, of which the first `active` carry the byte.
    Chain(Loop& measured, unsigned watched, unsigned active) : loop(measured), links(watched) {
        for (unsigned n = 0; n < watched; ++n) {
            links[n].chain = this;
            links[n].at = n < active ? n : watched;
        }
        last = active - 1;
        for (Link& link : links) peer.watch(link.pipe.ends[0], hook<Link, &Link::pass>(&link));
        if (!loop.next()) return;
        links[0].pipe.put();
        peer.run();
    }
    void passed(unsigned at) {
        links[at].pipe.take();
        if (at < last) return links[at + 1].pipe.put();
        if (!loop.next()) return peer.stop();
        links[0].pipe.put();
    }
    unsigned last = 0;
};

enum class Order { kAscending, kDescending, kRandom };

inline std::vector<unsigned> numbers(unsigned count, Order order) {
    std::vector<unsigned> all(count);
    std::iota(all.begin(), all.end(), 0);
    if (order == Order::kDescending) std::reverse(all.begin(), all.end());
    if (order != Order::kRandom) return all;
    Random random;
    for (unsigned n = count; n > 1; --n) std::swap(all[n - 1], all[random() % n]);
    return all;
}

inline void nothing(void*) {}

// Adds timers with deadlines in an order and deletes them in an order of that kind. None is due.
template <class Peer>
void add_and_delete(Loop& loop, Peer& peer, unsigned count, Order order) {
    std::vector<typename Peer::Timer> timers(count);
    const std::vector<unsigned> deadlines = numbers(count, order);
    const std::vector<unsigned> victims = numbers(count, order);
    loop.each([&] {
        for (unsigned n = 0; n < count; ++n) {
            timers[n].arm(peer, 100000 + 10 * deadlines[n], {nothing, &timers[n]});
        }
        for (unsigned n = 0; n < count; ++n) timers[victims[n]].disarm(peer);
    });
}

// Does the same in a handler of a running loop, where an add may have to wake the loop.
template <class Peer>
struct Inside {
    Loop& loop;
    unsigned count;
    Peer peer{};
    typename Peer::Timer first{};
    Inside(Loop& measured, unsigned timers) : loop(measured), count(timers) {
        first.arm(peer, 0, hook<Inside, &Inside::work>(this));
        peer.run();
    }
    void work() {
        add_and_delete(loop, peer, count, Order::kRandom);
        peer.stop();
    }
};

// Adds timers, and runs a loop until all have fired.
template <class Peer>
struct Fire {
    Peer peer{};
    unsigned left = 0;
    Fire(Loop& loop, unsigned count) {
        std::vector<typename Peer::Timer> timers(count);
        loop.each([&] {
            left = count;
            for (auto& timer : timers) timer.arm(peer, 0, hook<Fire, &Fire::fired>(this));
            peer.run();
        });
    }
    void fired() {
        if (--left == 0) peer.stop();
    }
};

template <class Peer>
struct Rearm {
    Loop& loop;
    Peer peer{};
    typename Peer::Timer timer{};
    explicit Rearm(Loop& measured) : loop(measured) {
        if (!loop.next()) return;
        timer.arm(peer, 0, hook<Rearm, &Rearm::fired>(this));
        peer.run();
    }
    void fired() {
        if (!loop.next()) return peer.stop();
        timer.arm(peer, 0, hook<Rearm, &Rearm::fired>(this));
    }
};

// Makes changes, and then the passes that the loop needs after them.
template <class Peer>
struct Changes {
    Loop& loop;
    unsigned in_a_burst;
    Peer peer{};
    bool writes = false;
    // All idle descriptors are of one pipe, so that 900 stay below the limit of fd_set.
    Changes(Loop& measured, unsigned idle, unsigned burst) : loop(measured), in_a_burst(burst) {
        const Pipe pipe;
        std::vector<int> fds(idle);
        for (int& fd : fds) {
            fd = dup(pipe.ends[0]);
            peer.watch(fd, {nothing, nullptr});
        }
        if constexpr (requires { peer.inside(Hook{}); }) {
            peer.inside(hook<Changes, &Changes::work>(this));
        } else {
            work();
        }
        for (const int fd : fds) close(fd);
    }
    void work() {
        peer.pass(1);
        loop.each([&] {
            for (unsigned n = 0; n < in_a_burst; ++n) {
                writes = !writes;
                peer.change(writes);
            }
            peer.pass(in_a_burst);
        });
    }
};

// A loop on a thread of its own. This thread makes it do something once or kBurst times.
template <class Peer>
struct FromOutside {
    static constexpr unsigned kBurst = 100;
    sem_t up, done;
    std::unique_ptr<Peer> peer;
    bool ending = false;
    unsigned left = 1;

    template <class Work>
    void with_thread(Loop& loop, Work work) {
        for (sem_t* each : {&up, &done}) sem_init(each, 0, 0);
        std::thread thread([&] {
            peer = std::make_unique<Peer>();
            work(nullptr);  // Set-up, on the loop's thread.
            typename Peer::Timer timer{};
            timer.arm(*peer, 0, hook<FromOutside, &FromOutside::is_up>(this));
            peer->run();
            work(this);  // Clean-up.
            peer.reset();
        });
        sem_wait(&up);
        loop.each([&] {
            work(&loop);
            while (sem_wait(&done) != 0) {
            }
        });
        ending = true;
        left = 1;
        work(&loop);
        thread.join();
    }
    void is_up() { sem_post(&up); }
    void arrived() {
        if (ending) return peer->stop();
        if (--left == 0) sem_post(&done);
    }
    Hook arrival() { return hook<FromOutside, &FromOutside::arrived>(this); }
};

template <class Peer>
void wake_ups(Loop& loop) {
    FromOutside<Peer> outside;
    std::unique_ptr<typename Peer::Waker> waker;
    outside.with_thread(loop, [&](void* phase) {
        if (phase == nullptr) {
            waker = std::make_unique<typename Peer::Waker>(*outside.peer, outside.arrival());
        } else if (phase == &outside) {
            waker.reset();
        } else {
            outside.left = 1;
            waker->wake();
        }
    });
}

template <class Peer>
void posts(Loop& loop) {
    FromOutside<Peer> outside;
    outside.with_thread(loop, [&](void* phase) {
        if (phase == nullptr || phase == &outside) return;
        const unsigned burst = outside.ending ? 1 : FromOutside<Peer>::kBurst;
        outside.left = burst;
        for (unsigned n = 0; n < burst; ++n) outside.peer->post(outside.arrival());
    });
}

inline sigset_t set_of(int signal) {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, signal);
    return set;
}

template <class Peer>
struct Signals {
    Loop& loop;
    Peer peer{};
    typename Peer::Timer start{};
    explicit Signals(Loop& measured) : loop(measured) {
        const sigset_t set = set_of(SIGUSR1);
        if (Peer::kBlockedSignals) sigprocmask(SIG_BLOCK, &set, nullptr);
        peer.signal(SIGUSR1, hook<Signals, &Signals::caught>(this));
        start.arm(peer, 0, hook<Signals, &Signals::caught>(this));
        peer.run();
        if (Peer::kBlockedSignals) sigprocmask(SIG_UNBLOCK, &set, nullptr);
    }
    void caught() {
        if (!loop.next()) return peer.stop();
        kill(getpid(), SIGUSR1);
    }
};

inline pid_t short_child() {
    const pid_t pid = vfork();
    if (pid == 0) _exit(0);
    return pid;
}

template <class Peer>
struct Children {
    Loop& loop;
    Peer peer{};
    typename Peer::Timer start{};
    explicit Children(Loop& measured) : loop(measured) {
        const sigset_t set = set_of(SIGCHLD);
        if (Peer::kBlockedSignals) sigprocmask(SIG_BLOCK, &set, nullptr);
        start.arm(peer, 0, hook<Children, &Children::ended>(this));
        peer.run();
        if (Peer::kBlockedSignals) sigprocmask(SIG_UNBLOCK, &set, nullptr);
    }
    void ended() {
        if (!loop.next()) return peer.stop();
        peer.child(short_child(), hook<Children, &Children::ended>(this));
    }
};

template <class Peer>
void start_and_end(Loop& loop) {
    loop.each([] {
        Peer peer{};
        typename Peer::Timer timer{};
        timer.arm(peer, 0, {[](void* arg) { static_cast<Peer*>(arg)->stop(); }, &peer});
        peer.run();
    });
}

constexpr unsigned kTimerCounts[] = {10, 100, 1000, 10000};

inline std::string add_and_delete_row(unsigned count, Order order) {
    const char* const words[] = {"ascending", "descending", "random"};
    return "timers, add and delete, " + std::to_string(count) + " " + words[int(order)];
}

template <class Peer>
void add_loop(const std::string& name) {
    for (unsigned n : {8U, 64U, 200U, 480U}) {
        add("chain of " + std::to_string(n) + " pipes", name,
            [n](Loop& loop) { Chain<Peer>(loop, n, n); }, {double(n)});
    }
    for (unsigned n : {8U, 64U, 480U}) {
        add("1 ready of " + std::to_string(n), name, [n](Loop& loop) { Chain<Peer>(loop, n, 1); });
    }
    if constexpr (requires { typename Peer::Timer; }) {
        for (unsigned n : kTimerCounts) {
            const std::string count = std::to_string(n);
            for (const Order order : {Order::kAscending, Order::kDescending, Order::kRandom}) {
                add(add_and_delete_row(n, order), name,
                    [n, order](Loop& loop) {
                        Peer peer{};
                        add_and_delete(loop, peer, n, order);
                    },
                    {double(n), Clock::kCpu, 3});
            }
            add("timers, add and fire, " + count, name, [n](Loop& loop) { Fire<Peer>(loop, n); },
                {double(n), Clock::kCpu, 3});
        }
        add("timers, add and delete in the loop, 1000 random", name,
            [](Loop& loop) { Inside<Peer>(loop, 1000); }, {1000, Clock::kCpu, 3});
        add("timer that re-arms itself", name, [](Loop& loop) { Rearm<Peer>{loop}; });
        add("start and end of a loop", name, start_and_end<Peer>);
    }
    if constexpr (requires(Peer peer) { peer.change(true); }) {
        for (unsigned n : {8U, 100U, 400U, 900U}) {
            add("change of a condition beside " + std::to_string(n) + " idle", name,
                [n](Loop& loop) { Changes<Peer>(loop, n, 1); });
        }
        add("burst of 1000 changes beside 8 idle", name,
            [](Loop& loop) { Changes<Peer>(loop, 8, 1000); }, {1000, Clock::kCpu, 3});
    }
    if constexpr (requires { typename Peer::Waker; }) {
        add("wake-up from another thread", name, wake_ups<Peer>, {1, Clock::kWall});
    }
    if constexpr (requires(Peer peer) { peer.post(Hook{}); }) {
        add("burst of 100 posts", name, posts<Peer>, {FromOutside<Peer>::kBurst, Clock::kWall});
    }
    if constexpr (requires(Peer peer) {
                      typename Peer::Timer;
                      peer.signal(1, Hook{});
                  }) {
        add("signal", name, [](Loop& loop) { Signals<Peer>{loop}; });
    }
    if constexpr (requires(Peer peer) { peer.child(1, Hook{}); }) {
        add("child", name, [](Loop& loop) { Children<Peer>{loop}; });
    }
}

}  // namespace bench

#endif
