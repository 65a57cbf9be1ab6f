#pragma GCC diagnostic ignored "-Wstrict-aliasing"
#include <ev.h>

#include "loop_operations.h"

namespace bench {

namespace {

template <class Watcher>
struct Hooked {
    Watcher watcher;
    Hook hook;
    static void call(struct ev_loop*, Watcher* watcher, int) {
        reinterpret_cast<Hooked*>(watcher)->hook();
    }
};

template <unsigned kBackend>
struct Libev {
    static constexpr bool kBlockedSignals = false;

    struct ev_loop* loop = ev_loop_new(kBackend | EVFLAG_NOENV);
    std::vector<std::unique_ptr<Hooked<ev_io>>> watchers;
    Hooked<ev_signal> signal_watcher{};

    ~Libev() { ev_loop_destroy(loop); }
    void watch(int fd, Hook hook) {
        watchers.push_back(std::make_unique<Hooked<ev_io>>());
        auto* added = watchers.back().get();
        added->hook = hook;
        ev_io_init(&added->watcher, Hooked<ev_io>::call, fd, EV_READ);
        ev_io_start(loop, &added->watcher);
    }
    void signal(int number, Hook hook) {
        signal_watcher.hook = hook;
        ev_signal_init(&signal_watcher.watcher, Hooked<ev_signal>::call, number);
        ev_signal_start(loop, &signal_watcher.watcher);
        signal_started = true;
    }
    bool signal_started = false;
    void run() { ev_run(loop, 0); }
    void change(bool writes) {
        ev_io* watcher = &watchers.back()->watcher;
        ev_io_stop(loop, watcher);
        ev_io_set(watcher, watcher->fd, writes ? EV_READ | EV_WRITE : EV_READ);
        ev_io_start(loop, watcher);
    }
    void pass(unsigned) { ev_run(loop, EVRUN_NOWAIT); }
    void stop() {
        if (signal_started) ev_signal_stop(loop, &signal_watcher.watcher);
        ev_break(loop, EVBREAK_ALL);
    }

    struct Timer {
        Hooked<ev_timer> timer{};
        void arm(Libev& peer, unsigned ms, Hook due) {
            timer.hook = due;
            ev_timer_init(&timer.watcher, Hooked<ev_timer>::call, ms / 1000.0, 0.);
            ev_timer_start(peer.loop, &timer.watcher);
        }
        void disarm(Libev& peer) { ev_timer_stop(peer.loop, &timer.watcher); }
    };
    struct Waker {
        Hooked<ev_async> async{};
        struct ev_loop* loop;
        Waker(Libev& peer, Hook wanted) : loop(peer.loop) {
            async.hook = wanted;
            ev_async_init(&async.watcher, Hooked<ev_async>::call);
            ev_async_start(loop, &async.watcher);
        }
        ~Waker() { ev_async_stop(loop, &async.watcher); }
        void wake() { ev_async_send(loop, &async.watcher); }
    };
};

}  // namespace

void add_libev() {
    add_loop<Libev<EVBACKEND_EPOLL>>("libev epoll");
    add_loop<Libev<EVBACKEND_SELECT>>("libev select");
}

}  // namespace bench
