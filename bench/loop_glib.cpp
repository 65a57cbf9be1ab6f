#include <glib-unix.h>
#include <glib.h>

#include "loop_operations.h"

namespace bench {

namespace {

struct Glib {
    static constexpr bool kBlockedSignals = false;

    GMainContext* context = g_main_context_new();
    GMainLoop* loop = g_main_loop_new(context, FALSE);
    std::vector<GSource*> sources;
    std::vector<std::unique_ptr<Hook>> hooks;

    ~Glib() {
        for (GSource* source : sources) {
            g_source_destroy(source);
            g_source_unref(source);
        }
        g_main_loop_unref(loop);
        g_main_context_unref(context);
    }
    void* kept(Hook hook) {
        hooks.push_back(std::make_unique<Hook>(hook));
        return hooks.back().get();
    }
    static gboolean again(void* hook) {
        (*static_cast<Hook*>(hook))();
        return G_SOURCE_CONTINUE;
    }
    static gboolean once(void* hook) {
        (*static_cast<Hook*>(hook))();
        return G_SOURCE_REMOVE;
    }
    void watch(int fd, Hook hook) {
        GSource* source = g_unix_fd_source_new(fd, G_IO_IN);
        const GUnixFDSourceFunc readable = [](int, GIOCondition, void* arg) { return again(arg); };
        g_source_set_callback(source, G_SOURCE_FUNC(readable), kept(hook), nullptr);
        g_source_attach(source, context);
        sources.push_back(source);
    }
    void signal(int number, Hook hook) {
        GSource* source = g_unix_signal_source_new(number);
        g_source_set_callback(source, again, kept(hook), nullptr);
        g_source_attach(source, context);
        sources.push_back(source);
    }
    Hook child_hook{};
    void child(pid_t pid, Hook hook) {
        child_hook = hook;
        GSource* source = g_child_watch_source_new(pid);
        const GChildWatchFunc ended = [](GPid, int, void* arg) { once(arg); };
        g_source_set_callback(source, G_SOURCE_FUNC(ended), &child_hook, nullptr);
        g_source_attach(source, context);
        g_source_unref(source);
    }
    Hook posted{};
    void post(Hook hook) {
        posted = hook;
        GSource* source = g_idle_source_new();
        g_source_set_priority(source, G_PRIORITY_DEFAULT);
        g_source_set_callback(source, once, &posted, nullptr);
        g_source_attach(source, context);
        g_source_unref(source);
    }
    void run() { g_main_loop_run(loop); }
    void stop() { g_main_loop_quit(loop); }

    struct Timer {
        GSource* source = nullptr;
        Hook hook{};
        void arm(Glib& peer, unsigned ms, Hook due) {
            hook = due;
            source = g_timeout_source_new(ms);
            g_source_set_callback(source, once, &hook, nullptr);
            g_source_attach(source, peer.context);
            g_source_unref(source);
        }
        void disarm(Glib&) { g_source_destroy(source); }
    };
    struct Waker {
        Glib& peer;
        Hook hook;
        Waker(Glib& owner, Hook wanted) : peer(owner), hook(wanted) {}
        void wake() { peer.post(hook); }
    };
};

}  // namespace

void add_glib() { add_loop<Glib>("GLib"); }

}  // namespace bench
