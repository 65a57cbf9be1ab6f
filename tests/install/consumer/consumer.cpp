// The same as consumer.c, the C++ way: captureless lambdas as handlers, state in an object, and a
// context of its own.
#include <signal.h>
#include <unistd.h>

#include <iostream>
#include <string>

#include <tessra/eventloop.h>
#include <tessra/list.h>
#include <tessra/misc.h>

namespace {

struct Daemon {
    event_loop_ctx_tp loop = event_mc_init();
    int fds[2] = {-1, -1};
    std::string seen;
};

Daemon& daemon_of(void* arg) { return *static_cast<Daemon*>(arg); }

}  // namespace

int main() {
    Daemon daemon;
    if (daemon.loop == nullptr || pipe(daemon.fds) != 0) return 2;
    event_timer_add_mc(
        daemon.loop,
        [](void* arg) {
            daemon_of(arg).seen += write(daemon_of(arg).fds[1], "x", 1) == 1 ? "timer " : "error ";
        },
        &daemon, 1);
    event_timer_add_mc(
        daemon.loop, [](void* arg) { cancel_loop_mc(daemon_of(arg).loop); }, &daemon, 30000);
    event_fd_add_mc(
        daemon.loop,
        [](int fd, void* arg) {
            char byte = 0;
            if (read(fd, &byte, 1) == 1) daemon_of(arg).seen += "fd ";
            raise(SIGUSR1);
        },
        &daemon, daemon.fds[0], EVENT_FD_READ);
    event_signal_add_mc(
        daemon.loop,
        [](int, siginfo_t* info, void* arg) {
            if (info->si_pid == getpid()) daemon_of(arg).seen += "signal";
            cancel_loop_mc(daemon_of(arg).loop);
        },
        &daemon, SIGUSR1);
    const int result = et_event_loop_mc(daemon.loop);
    event_mc_free(daemon.loop);
    std::cout << "loop " << result << ", seen: " << daemon.seen << '\n';
    return result == 0 && daemon.seen == "timer fd signal" ? 0 : 1;
}
