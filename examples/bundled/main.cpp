/*
 * bundled: a small HTTP daemon on one event loop. This file has its start, signals and exit.
 *
 * A caught signal that arrives while no loop runs is dropped. So the signals are blocked before
 * they are watched. A timer unblocks them once the loop runs; an early signal waits until then.
 *
 * After a failure at the start, the library's error functions terminate the process, without
 * destructors.
 */
#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <tessra/create_pid_file.h>
#include <tessra/error_functions.h>
#include <tessra/eventloop.h>
#include <tessra/misc.h>

#include "config.h"
#include "descriptor.h"
#include "log.h"
#include "options.h"
#include "routes.h"

namespace bundled {

namespace {

constexpr int kWatchedSignals[] = {SIGTERM, SIGINT, SIGHUP, SIGUSR1};

struct Life {
    const Options& options;
    Daemon& daemon;
};

// Makes sure that descriptors 0 to 2 are in use, so that no socket or pipe becomes a stdout.
bool open_standard_descriptors() {
    int fd;
    do {
        fd = open("/dev/null", O_RDWR);
    } while (fd >= 0 && fd <= STDERR_FILENO);
    if (fd > STDERR_FILENO) {
        (void)close(fd);
    }
    return fd >= 0;
}

// select() takes no descriptor from FD_SETSIZE on. With this limit, the call that would make such a
// descriptor fails with EMFILE.
bool limit_descriptors() {
    struct rlimit limit;
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) {
        return false;
    }
    limit.rlim_cur = std::min<rlim_t>(limit.rlim_cur, FD_SETSIZE);
    return setrlimit(RLIMIT_NOFILE, &limit) == 0;
}

bool mask_watched_signals(int how) {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int number : kWatchedSignals) {
        sigaddset(&signals, number);
    }
    return sigprocmask(how, &signals, nullptr) == 0;
}

// Reads the file, whose settings replace the defaults of the command line. After a failure the old
// settings remain.
bool configure(const Life& life, std::string& error) {
    Config config;
    if (life.options.idle_ms != 0) {
        config.idle_ms = life.options.idle_ms;
    }
    const char* path = life.options.config_path;
    if (path != nullptr && !load_config(path, config, error)) {
        error = std::string(path) + " refused: " + error;
        return false;
    }
    life.daemon.server.set_idle_ms(config.idle_ms);
    life.daemon.config = std::move(config);
    return true;
}

void reload(Life& life) {
    Counters& counters = life.daemon.counters;
    std::string error;
    if (configure(life, error)) {
        counters.count("reloads");
        log_line("configuration reloaded");
    } else {
        counters.count("reloads refused");
        log_line("configuration %s", error.c_str());
    }
}

void on_signal(int number, siginfo_t* /*info*/, void* arg) noexcept {
    auto* life = static_cast<Life*>(arg);
    life->daemon.counters.count("signals seen");
    if (number == SIGHUP) {
        reload(*life);
    } else if (number == SIGUSR1) {
        log_line("%u open connections, %u commands running, %u bundles under way",
                 life->daemon.server.open_connections(), life->daemon.commands.running(),
                 life->daemon.deliveries.running());
    } else {
        cancel_loop();
    }
}

void on_loop_runs(void* arg) noexcept {
    auto* life = static_cast<Life*>(arg);
    (void)mask_watched_signals(SIG_UNBLOCK);  // The same call succeeded with SIG_BLOCK.
    life->daemon.status_line.refresh();
    std::printf("listening on 127.0.0.1:%u\n", life->daemon.server.port());
    if (std::fflush(stdout) != 0) {
        log_line("cannot write to stdout: %s", std::strerror(errno));
    }
}

bool watch_signals(Life& life) {
    (void)signal(SIGPIPE, SIG_IGN);  // send() reports a client that has left.
    if (!mask_watched_signals(SIG_BLOCK)) {
        return false;
    }
    for (const int number : kWatchedSignals) {
        if (!watch_signal(on_signal, &life, number)) {
            return false;
        }
    }
    return true;
}

// Calls a tool of the device, which is slow, so this happens before the loop runs.
void read_hardware_revision(std::string& revision) {
    int major = 0;
    int minor = 0;
    get_hw_rev(&major, &minor);
    if (major != 0 || minor != 0) {
        revision = std::to_string(major) + "." + std::to_string(minor);
    }
}

// Terminates the process if something fails. The status line's folder is made last, since it would
// stay after a failure.
void start(Life& life) {
    const Options& options = life.options;
    Daemon& daemon = life.daemon;
    std::string error;
    if (!configure(life, error)) {
        fatal("configuration %s", error.c_str());
    }
    read_hardware_revision(daemon.hardware);
    if (!watch_signals(life)) {
        errExit("cannot watch signals");
    }
    if (!daemon.server.listen_on(options.port)) {
        errExit("cannot listen on port %u", options.port);
    }
    if (!arm_timer(on_loop_runs, &life, 0) ||
        (options.track_ms != 0 && !daemon.leaks.start(options.track_ms))) {
        errExit("cannot arm the timers");
    }
    if (!daemon.status_line.open(options.status_delay_s)) {
        errExit("cannot make a folder for the status line");
    }
    daemon.started_ms = event_get_time();
}

int run(const Options& options) {
    if (!open_standard_descriptors() || !limit_descriptors()) {
        errExit("cannot prepare the descriptors");
    }
    if (options.pid_path != nullptr) {
        (void)createPidFile("bundled", options.pid_path, PID_FILE_CLOEXEC);  // Stays open.
    }
    set_tracking(options.track_ms != 0);
    Daemon daemon(options.max_connections);
    Life life = {options, daemon};
    start(life);
    if (et_event_loop() != 0) {
        errMsg("the event loop did not start");
        return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
}

}  // namespace

}  // namespace bundled

int main(int argc, char** argv) { return bundled::run(bundled::parse_options(argc, argv)); }
