#include "loop_operations.h"
#include "tessra/eventloop.h"

namespace bench {

namespace {

struct Tessra {
    static constexpr bool kBlockedSignals = false;

    static void on_fd(int, void* hook) { (*static_cast<Hook*>(hook))(); }
    static void on_signal(int, siginfo_t*, void* hook) { (*static_cast<Hook*>(hook))(); }

    event_loop_ctx_tp ctx = event_mc_init();
    std::vector<std::unique_ptr<Hook>> hooks;

    ~Tessra() { event_mc_free(ctx); }

    void watch(int fd, Hook hook) {
        hooks.push_back(std::make_unique<Hook>(hook));
        last_fd = fd;
        event_fd_add_mc(ctx, on_fd, hooks.back().get(), fd, EVENT_FD_READ);
    }
    int last_fd = -1;
    void signal(int number, Hook hook) {
        hooks.push_back(std::make_unique<Hook>(hook));
        event_signal_add_mc(ctx, on_signal, hooks.back().get(), number);
    }
    void post(Hook hook) { event_timer_add_mc(ctx, hook.call, hook.arg, 0); }
    void run() { (void)et_event_loop_mc(ctx); }
    void stop() { cancel_loop_mc(ctx); }

    // Deletes and adds the watcher; each of the two needs a pass.
    void change(bool writes) {
        const int type = writes ? EVENT_FD_READ | EVENT_FD_WRITE : EVENT_FD_READ;
        event_fd_del_mc(ctx, last_fd);
        event_fd_add_mc(ctx, on_fd, hooks.back().get(), last_fd, type);
    }
    void pass(unsigned changes) {
        for (unsigned n = 0; n < 2 * changes; ++n) (void)do_events_mc(ctx, 0);
    }
    void inside(Hook hook) {
        struct Inside {
            Tessra& peer;
            Hook hook;
            void call() {
                hook();
                peer.stop();
            }
        } inside{*this, hook};
        post(bench::hook<Inside, &Inside::call>(&inside));
        run();
    }

    struct Timer {
        Hook hook{};
        void arm(Tessra& peer, unsigned ms, Hook due) {
            hook = due;
            event_timer_add_mc(peer.ctx, due.call, due.arg, ms);
        }
        void disarm(Tessra& peer) { event_timer_del_mc(peer.ctx, hook.call, hook.arg); }
    };
    struct Waker {
        Tessra& peer;
        Hook hook;
        Waker(Tessra& owner, Hook wanted) : peer(owner), hook(wanted) {}
        void wake() { peer.post(hook); }
    };
};

// The default context's loop watches children, once in the life of a process.
struct Default {
    static constexpr bool kBlockedSignals = false;

    static int on_child(int, void* hook, int) {
        (*static_cast<Hook*>(hook))();
        return 0;
    }
    Hook hook{};
    // The first child may exit before its watcher is added, so SIGCHLD is caught from the start.
    Default() {
        event_process_add(0x7fffffff, on_child, &hook);
        event_process_del(0x7fffffff);
    }
    void child(pid_t pid, Hook ended) {
        hook = ended;
        event_process_add(pid, on_child, &hook);
    }
    void run() { (void)et_event_loop(); }
    void stop() { cancel_loop(); }
    struct Timer {
        void arm(Default&, unsigned ms, Hook due) { event_timer_add(due.call, due.arg, ms); }
    };
};

void children(Loop& loop) {
    if (Loop::counting()) {
        Children<Default>{loop};
        return;
    }
    constexpr unsigned kRounds = 200;
    while (loop.next()) {
        Pipe result;
        const pid_t pid = fork();
        if (pid == 0) {
            Loop rounds(nullptr);
            const double begin = thread_seconds();
            Children<Default>{rounds.counted("", 1, kRounds)};
            const double each = (thread_seconds() - begin) / kRounds;
            (void)!write(result.ends[1], &each, sizeof each);
            _exit(0);
        }
        double each = 0;
        waitpid(pid, nullptr, 0);
        (void)!read(result.ends[0], &each, sizeof each);
        loop.took(each);
    }
}

// event_system() and system() spend their time in the shell.
void shell(Loop& loop, int (*run)(const char*)) {
    loop.each([run] { (void)run("true"); });
}

}  // namespace

void add_tessra() {
    add_loop<Tessra>("tessra");
    add("child", "tessra", children, {1, Clock::kOwn, 20});
    const Settings shells = {1, Clock::kWall, 5};
    add(
        "shell command", "tessra",
        [](Loop& loop) {
            shell(loop, [](const char* command) { return event_system("%s", command); });
        },
        shells);
    add(
        "shell command", "system()", [](Loop& loop) { shell(loop, system); }, shells);
}

}  // namespace bench
