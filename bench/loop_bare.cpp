// The raw limit: select() on sets that are built once, and a walk over the ready descriptors.
#include <sys/select.h>
#include <sys/signalfd.h>

#include <cstring>

#include "loop_operations.h"

namespace bench {

namespace {

struct Bare {
    static constexpr bool kBlockedSignals = true;

    struct Watcher {
        int fd;
        Hook hook;
    };
    std::vector<Watcher> watchers;
    fd_set kept;
    int max_fd = -1;
    bool running = false;
    Pipe channel;

    Bare() {
        FD_ZERO(&kept);
        watch(channel.ends[0], hook<Bare, &Bare::awake>(this));
    }
    void awake() { channel.take(); }
    void watch(int fd, Hook hook) {
        watchers.push_back({fd, hook});
        FD_SET(fd, &kept);
        max_fd = std::max(max_fd, fd);
    }
    void run() {
        for (running = true; running;) {
            fd_set ready = kept, write_ready, except_ready;
            FD_ZERO(&write_ready);
            FD_ZERO(&except_ready);
            if (select(max_fd + 1, &ready, &write_ready, &except_ready, nullptr) <= 0) continue;
            for (const Watcher& watcher : watchers) {
                if (FD_ISSET(watcher.fd, &ready)) watcher.hook();
            }
        }
    }
    void stop() { running = false; }

    // A change makes these calls, however the watchers are stored: it tests the descriptor and
    // writes two bytes. Each byte needs a pass with a wait. One read takes all that have come.
    void change(bool) {
        keep(fcntl(watchers.back().fd, F_GETFD));
        for (int n = 0; n < 2; ++n) channel.put();
    }
    void pass(unsigned changes) {
        char bytes[512];
        for (unsigned n = 0; n < 2 * changes; ++n) {
            fd_set ready = kept, write_ready, except_ready;
            FD_ZERO(&write_ready);
            FD_ZERO(&except_ready);
            timeval none = {};
            (void)select(max_fd + 1, &ready, &write_ready, &except_ready, &none);
            if (FD_ISSET(channel.ends[0], &ready)) {
                (void)!read(channel.ends[0], bytes, sizeof bytes);
            }
        }
    }
};

// Sends a byte to a thread in select(), which answers with a byte.
void wake(Loop& loop) {
    Pipe up, down;
    std::thread thread([&] {
        fd_set set;
        FD_ZERO(&set);
        for (char byte = 0; byte != 'e';) {
            FD_SET(up.ends[0], &set);
            if (select(up.ends[0] + 1, &set, nullptr, nullptr, nullptr) <= 0) continue;
            (void)!read(up.ends[0], &byte, 1);
            down.put();
        }
    });
    fcntl(down.ends[0], F_SETFL, 0);
    loop.each([&] {
        up.put();
        down.take();
    });
    (void)!write(up.ends[1], "e", 1);
    thread.join();
}

void signals(Loop& loop) {
    const sigset_t set = set_of(SIGUSR1);
    sigprocmask(SIG_BLOCK, &set, nullptr);
    const int fd = signalfd(-1, &set, SFD_CLOEXEC);
    loop.each([&] {
        kill(getpid(), SIGUSR1);
        fd_set ready;
        FD_ZERO(&ready);
        FD_SET(fd, &ready);
        signalfd_siginfo info;
        if (select(fd + 1, &ready, nullptr, nullptr, nullptr) == 1) {
            (void)!read(fd, &info, sizeof info);
        }
    });
    close(fd);
    sigprocmask(SIG_UNBLOCK, &set, nullptr);
}

// Makes the calls of arming and deleting a timer from any thread, however the list is made: a clock
// reading, a block, and twice the list's lock.
void timer_calls(Loop& loop, unsigned count) {
    pthread_mutex_t list = PTHREAD_MUTEX_INITIALIZER;
    const auto lock_and_unlock = [&] {
        pthread_mutex_lock(&list);
        pthread_mutex_unlock(&list);
    };
    std::vector<void*> blocks(count);
    loop.each([&] {
        for (void*& block : blocks) {
            timespec now;
            clock_gettime(CLOCK_MONOTONIC_RAW, &now);
            keep(now);
            block = malloc(64);
            keep(block);
            lock_and_unlock();
        }
        for (void* block : blocks) {
            lock_and_unlock();
            free(block);
        }
    });
}

}  // namespace

void add_bare() {
    add_loop<Bare>("bare select");
    for (const unsigned count : kTimerCounts) {
        for (const Order order : {Order::kAscending, Order::kDescending, Order::kRandom}) {
            add(add_and_delete_row(count, order), "bare calls",
                [count](Loop& loop) { timer_calls(loop, count); }, {double(count), Clock::kCpu, 3});
        }
    }
    add("wake-up from another thread", "bare pipes", wake, {1, Clock::kWall});
    add("signal", "bare signalfd", signals);
    add("child", "bare waitpid", [](Loop& loop) {
        loop.each([] {
            int status;
            (void)waitpid(short_child(), &status, 0);
        });
    });
}

}  // namespace bench
