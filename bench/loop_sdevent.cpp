#include <sys/epoll.h>
#include <systemd/sd-event.h>

#include "loop_operations.h"

namespace bench {

namespace {

struct SdEvent {
    static constexpr bool kBlockedSignals = true;

    sd_event* event = nullptr;
    std::vector<std::unique_ptr<Hook>> hooks;
    sd_event_source* child_source = nullptr;

    SdEvent() { sd_event_new(&event); }
    ~SdEvent() {
        sd_event_source_unref(child_source);
        sd_event_unref(event);
    }
    void* kept(Hook hook) {
        hooks.push_back(std::make_unique<Hook>(hook));
        return hooks.back().get();
    }
    static int call(void* hook) {
        (*static_cast<Hook*>(hook))();
        return 0;
    }
    void watch(int fd, Hook hook) {
        sd_event_add_io(
            event, nullptr, fd, EPOLLIN,
            [](sd_event_source*, int, uint32_t, void* arg) { return call(arg); }, kept(hook));
    }
    void signal(int number, Hook hook) {
        sd_event_add_signal(
            event, nullptr, number,
            [](sd_event_source*, const signalfd_siginfo*, void* arg) { return call(arg); },
            kept(hook));
    }
    Hook child_hook{};
    void child(pid_t pid, Hook hook) {
        child_hook = hook;
        sd_event_source_unref(child_source);
        sd_event_add_child(
            event, &child_source, pid, WEXITED,
            [](sd_event_source*, const siginfo_t*, void* arg) { return call(arg); }, &child_hook);
    }
    void run() {
        for (running = true; running;) sd_event_run(event, UINT64_MAX);
    }
    void stop() { running = false; }
    bool running = false;

    struct Timer {
        sd_event_source* source = nullptr;
        Hook hook{};
        Timer() = default;
        Timer(const Timer&) = delete;
        ~Timer() { sd_event_source_unref(source); }
        void arm(SdEvent& peer, unsigned ms, Hook due) {
            hook = due;
            sd_event_source_unref(source);
            sd_event_add_time_relative(
                peer.event, &source, CLOCK_MONOTONIC, ms * 1000ULL, 1,
                [](sd_event_source*, uint64_t, void* arg) { return call(arg); }, &hook);
        }
        void disarm(SdEvent&) { source = sd_event_source_unref(source); }
    };
};

}  // namespace

void add_sdevent() { add_loop<SdEvent>("sd-event"); }

}  // namespace bench
