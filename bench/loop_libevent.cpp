#include <event2/event.h>
#include <event2/event_struct.h>
#include <event2/thread.h>

#include "loop_operations.h"

namespace bench {

namespace {

template <bool kEpoll>
struct Libevent {
    static constexpr bool kBlockedSignals = false;

    static void on_event(evutil_socket_t, short, void* hook) { (*static_cast<Hook*>(hook))(); }
    struct Event {
        struct event event;
        Hook hook;
        ~Event() { event_del(&event); }
    };

    event_base* base;
    std::vector<std::unique_ptr<Event>> events;

    Libevent() {
        evthread_use_pthreads();
        event_config* config = event_config_new();
        event_config_avoid_method(config, kEpoll ? "poll" : "epoll");
        if (!kEpoll) event_config_avoid_method(config, "poll");
        base = event_base_new_with_config(config);
        event_config_free(config);
    }
    ~Libevent() {
        events.clear();
        event_base_free(base);
    }
    Event* add(int fd, short what, Hook hook) {
        events.push_back(std::make_unique<Event>());
        Event* added = events.back().get();
        added->hook = hook;
        event_assign(&added->event, base, fd, what, on_event, &added->hook);
        event_add(&added->event, nullptr);
        return added;
    }
    void watch(int fd, Hook hook) { add(fd, EV_READ | EV_PERSIST, hook); }
    void signal(int number, Hook hook) { add(number, EV_SIGNAL | EV_PERSIST, hook); }
    void post(Hook hook) {
        posted = hook;
        const timeval now = {};
        event_base_once(
            base, -1, EV_TIMEOUT,
            [](evutil_socket_t, short, void* arg) { (*static_cast<Hook*>(arg))(); }, &posted, &now);
    }
    void run() { event_base_loop(base, EVLOOP_NO_EXIT_ON_EMPTY); }
    void change(bool writes) {
        Event* changed = events.back().get();
        const int what = EV_READ | EV_PERSIST | (writes ? EV_WRITE : 0);
        event_del(&changed->event);
        event_assign(&changed->event, base, event_get_fd(&changed->event), static_cast<short>(what),
                     on_event, &changed->hook);
        event_add(&changed->event, nullptr);
    }
    void pass(unsigned) { event_base_loop(base, EVLOOP_NONBLOCK); }
    void stop() { event_base_loopbreak(base); }
    Hook posted{};

    struct Timer {
        struct event event;
        Hook hook;
        void arm(Libevent& peer, unsigned ms, Hook due) {
            hook = due;
            event_assign(&event, peer.base, -1, 0, on_event, &hook);
            const timeval wait = {ms / 1000, ms % 1000 * 1000};
            event_add(&event, &wait);
        }
        void disarm(Libevent&) { event_del(&event); }
    };
    struct Waker {
        struct event event;
        Hook hook;
        Waker(Libevent& peer, Hook wanted) : hook(wanted) {
            event_assign(&event, peer.base, -1, EV_PERSIST, on_event, &hook);
            event_add(&event, nullptr);
        }
        ~Waker() { event_del(&event); }
        void wake() { event_active(&event, EV_TIMEOUT, 0); }
    };
};

}  // namespace

void add_libevent() {
    add_loop<Libevent<true>>("libevent epoll");
    add_loop<Libevent<false>>("libevent select");
}

}  // namespace bench
