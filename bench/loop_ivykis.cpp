#pragma GCC diagnostic ignored "-Wunused-parameter"
#define this self  // The headers are C.
extern "C" {
#include <iv.h>
#include <iv_event.h>
#include <iv_signal.h>
}
#undef this

#include "loop_operations.h"

namespace bench {

namespace {

// The loop belongs to the calling thread.
struct Ivykis {
    static constexpr bool kBlockedSignals = false;

    static void call(void* hook) { (*static_cast<Hook*>(hook))(); }
    struct Fd {
        struct iv_fd fd;
        Hook hook;
    };
    std::vector<std::unique_ptr<Fd>> fds;
    struct iv_signal caught {};
    Hook signal_hook{};

    Ivykis() { iv_init(); }
    ~Ivykis() {
        if (caught.handler != nullptr) iv_signal_unregister(&caught);
        for (auto& each : fds) iv_fd_unregister(&each->fd);
        iv_deinit();
    }
    void watch(int fd, Hook hook) {
        fds.push_back(std::make_unique<Fd>());
        Fd* added = fds.back().get();
        added->hook = hook;
        IV_FD_INIT(&added->fd);
        added->fd.fd = fd;
        added->fd.cookie = &added->hook;
        added->fd.handler_in = call;
        iv_fd_register(&added->fd);
    }
    void signal(int number, Hook hook) {
        signal_hook = hook;
        IV_SIGNAL_INIT(&caught);
        caught.signum = number;
        caught.flags = 0;
        caught.cookie = &signal_hook;
        caught.handler = call;
        iv_signal_register(&caught);
    }
    void run() { iv_main(); }
    void stop() { iv_quit(); }

    struct Timer {
        struct iv_timer timer {};
        Hook hook{};
        void arm(Ivykis&, unsigned ms, Hook due) {
            hook = due;
            IV_TIMER_INIT(&timer);
            timer.cookie = &hook;
            timer.handler = call;
            iv_validate_now();
            timer.expires = iv_now;
            timer.expires.tv_sec += ms / 1000;
            timer.expires.tv_nsec += ms % 1000 * 1000000L;
            if (timer.expires.tv_nsec >= 1000000000L) {
                ++timer.expires.tv_sec;
                timer.expires.tv_nsec -= 1000000000L;
            }
            iv_timer_register(&timer);
        }
        void disarm(Ivykis&) { iv_timer_unregister(&timer); }
    };
    struct Waker {
        struct iv_event event {};
        Hook hook;
        Waker(Ivykis&, Hook wanted) : hook(wanted) {
            IV_EVENT_INIT(&event);
            event.cookie = &hook;
            event.handler = call;
            iv_event_register(&event);
        }
        ~Waker() { iv_event_unregister(&event); }
        void wake() { iv_event_post(&event); }
    };
};

}  // namespace

void add_ivykis() { add_loop<Ivykis>("ivykis"); }

}  // namespace bench
