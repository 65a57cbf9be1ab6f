#include <uv.h>

#include "loop_operations.h"

namespace bench {

namespace {

struct Libuv {
    static constexpr bool kBlockedSignals = false;

    template <class Handle>
    static void call(Handle* handle) {
        (*static_cast<Hook*>(handle->data))();
    }

    uv_loop_t loop;
    std::vector<std::unique_ptr<uv_poll_t>> polls;
    std::vector<std::unique_ptr<Hook>> hooks;
    uv_signal_t signal_handle{};

    Libuv() { uv_loop_init(&loop); }
    ~Libuv() {
        uv_walk(
            &loop,
            [](uv_handle_t* handle, void*) {
                if (!uv_is_closing(handle)) uv_close(handle, nullptr);
            },
            nullptr);
        uv_run(&loop, UV_RUN_DEFAULT);
        uv_loop_close(&loop);
    }
    void* kept(Hook hook) {
        hooks.push_back(std::make_unique<Hook>(hook));
        return hooks.back().get();
    }
    void watch(int fd, Hook hook) {
        polls.push_back(std::make_unique<uv_poll_t>());
        uv_poll_t* poll = polls.back().get();
        uv_poll_init(&loop, poll, fd);
        poll->data = kept(hook);
        uv_poll_start(poll, UV_READABLE, [](uv_poll_t* handle, int, int) { call(handle); });
    }
    void signal(int number, Hook hook) {
        uv_signal_init(&loop, &signal_handle);
        signal_handle.data = kept(hook);
        uv_signal_start(
            &signal_handle, [](uv_signal_t* handle, int) { call(handle); }, number);
    }
    void run() { uv_run(&loop, UV_RUN_DEFAULT); }
    void stop() { uv_stop(&loop); }

    struct Timer {
        uv_timer_t* timer = nullptr;
        Hook hook{};
        Timer() = default;
        Timer(const Timer&) = delete;
        // No destructor stops the timer: the loop may be gone already, and the handle with it.
        void arm(Libuv& peer, unsigned ms, Hook due) {
            hook = due;
            if (timer == nullptr) {
                peer.timers.push_back(std::make_unique<uv_timer_t>());
                timer = peer.timers.back().get();
                uv_timer_init(&peer.loop, timer);
                timer->data = &hook;
            }
            uv_timer_start(
                timer, [](uv_timer_t* handle) { call(handle); }, ms, 0);
        }
        void disarm(Libuv&) { uv_timer_stop(timer); }
    };
    std::vector<std::unique_ptr<uv_timer_t>> timers;

    struct Waker {
        uv_async_t* async = new uv_async_t;
        Hook hook;
        Waker(Libuv& peer, Hook wanted) : hook(wanted) {
            uv_async_init(&peer.loop, async, [](uv_async_t* handle) { call(handle); });
            async->data = &hook;
        }
        ~Waker() {
            uv_close(reinterpret_cast<uv_handle_t*>(async),
                     [](uv_handle_t* handle) { delete reinterpret_cast<uv_async_t*>(handle); });
        }
        void wake() { uv_async_send(async); }
    };
};

}  // namespace

void add_libuv() { add_loop<Libuv>("libuv"); }

}  // namespace bench
