// Shell commands.

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "eventloop/dispositions.h"
#include "internal/export.h"
#include "internal/guards.h"
#include "tessra/eventloop.h"

namespace tessra {

namespace {

constexpr size_t kCommandSize = 1024;
constexpr unsigned int kDefaultMaxFds = 1024;
constexpr unsigned int kFirstClosedFd = 3;
// The number of close_range(), the same on every architecture. Older headers lack it.
constexpr long kCloseRange = 436;
// An entry of getdents64() has two 64-bit words, its length in two bytes, a byte, and the name.
constexpr unsigned int kEntryLength = 16;
constexpr unsigned int kEntryName = 19;

// The signals whose dispositions a command changes. While it runs, the parent ignores the first
// two, and the third has its default disposition.
constexpr int kCommandSignals[] = {SIGQUIT, SIGINT, SIGCHLD};
constexpr int kCommandSignalCount = sizeof kCommandSignals / sizeof kCommandSignals[0];

// Without a handler this flag has no effect. It marks a SIG_IGN or SIG_DFL that a command has set,
// so that one that another thread sets meanwhile differs from it.
constexpr int kSetByCommand = SA_ONSTACK;

bool is_caught(const struct sigaction& action) {
    return action.sa_handler != SIG_IGN && action.sa_handler != SIG_DFL;
}

bool is_set_by_command(const struct sigaction& action) {
    return (action.sa_flags & kSetByCommand) != 0 && !is_caught(action);
}

void set_uncaught(int signal, void (*ignore_or_default)(int), struct sigaction* before) {
    struct sigaction action = {};
    action.sa_handler = ignore_or_default;
    action.sa_flags = kSetByCommand;
    (void)sigaction(signal, &action, before);
}

// Restores a disposition, unless another thread has set one while the command ran. The lock keeps a
// first watcher from setting the catcher between the query and the change. The daemon's own
// sigaction() takes no lock. If it comes in between, its disposition is replaced, then restored.
void restore_disposition_locked(int signal, const struct sigaction& before) {
    struct sigaction present;
    if (sigaction(signal, nullptr, &present) != 0 || !is_set_by_command(present)) return;
    (void)sigaction(signal, &before, &present);
    if (!is_set_by_command(present)) (void)sigaction(signal, &present, nullptr);
}

// The dispositions that a command needs, for as long as it runs. The destructor restores whole
// records, since a watched signal needs its SA_SIGINFO. Only the constructor sets dispositions. The
// child's own changes after vfork() don't reach the parent, so to set them once more would only
// replace those that another thread has set meanwhile.
class CommandDispositions : NotCopyable {
public:
    CommandDispositions() {
        for (int i = 0; i < kCommandSignalCount; ++i) {
            const int signal = kCommandSignals[i];
            set_uncaught(signal, signal == SIGCHLD ? SIG_DFL : SIG_IGN, &before_[i]);
        }
    }
    ~CommandDispositions() {
        const MutexLock lock(disposition_mutex);
        for (int i = 0; i < kCommandSignalCount; ++i) {
            restore_disposition_locked(kCommandSignals[i], before_[i]);
        }
    }

private:
    struct sigaction before_[kCommandSignalCount];
};

// For the child between vfork() and exec: no handler may run there, since it would write to the
// parent's memory. The C library keeps a few signals for itself and refuses to change or to block
// them. Their handlers do nothing in the child: they act only on signals that a thread of the same
// process has sent, and cancellation is disabled.
void reset_dispositions() {
    for (const int signal : kCommandSignals) set_uncaught(signal, SIG_DFL, nullptr);
    for (int signal = 1; signal < NSIG; ++signal) {
        struct sigaction present;
        const bool known = sigaction(signal, nullptr, &present) == 0;
        if (known && is_caught(present)) set_uncaught(signal, SIG_DFL, nullptr);
    }
}

// One more than the largest descriptor that the child closes.
unsigned int descriptor_bound() {
    rlimit limit;
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_max == static_cast<rlim_t>(-1)) {
        return kDefaultMaxFds;
    }
    constexpr rlim_t kMost = 0x7fffffff;
    return static_cast<unsigned int>(limit.rlim_max < kMost ? limit.rlim_max : kMost);
}

// Closes the open descriptors, which are the names in a directory of the kernel. Returns false if
// the directory can't be read to its end. The C library's calls for directories allocate memory,
// which this child must not do.
bool close_listed_descriptors(unsigned int max_fds) {
    const int listing = open("/proc/self/fd", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (listing == -1) return false;
    char entries[1024];
    long size;
    while ((size = syscall(SYS_getdents64, listing, entries, sizeof entries)) > 0) {
        unsigned short length;
        for (const char* entry = entries; entry < entries + size; entry += length) {
            memcpy(&length, entry + kEntryLength, sizeof length);
            unsigned int fd = 0;  // For "." and "..", too.
            for (const char* digit = entry + kEntryName; *digit >= '0' && *digit <= '9'; ++digit) {
                fd = fd * 10 + static_cast<unsigned int>(*digit - '0');
            }
            const bool ours = fd == static_cast<unsigned int>(listing);
            if (fd >= kFirstClosedFd && fd < max_fds && !ours) (void)close(static_cast<int>(fd));
        }
    }
    (void)close(listing);
    return size == 0;
}

// With a hard limit of a million, a close() each costs about a second per command.
void close_descriptors(unsigned int max_fds) {
    if (max_fds <= kFirstClosedFd) return;
    if (syscall(kCloseRange, kFirstClosedFd, max_fds - 1, 0U) == 0) return;
    if (close_listed_descriptors(max_fds)) return;
    for (unsigned int fd = kFirstClosedFd; fd < max_fds; ++fd) (void)close(static_cast<int>(fd));
}

// The child between vfork() and exec. It shares the parent's memory, so it touches nothing but its
// own dispositions, mask and descriptors. Signals stay blocked until no handler is left.
[[noreturn]] void exec_shell(const char* buffer, const char** env, unsigned int max_fds,
                             const AllSignalsBlocked& blocked) {
    reset_dispositions();
    blocked.restore();
    close_descriptors(max_fds);
    if (env != nullptr) {
        (void)execle("/bin/sh", "sh", "-c", buffer, nullptr, env);
    } else {
        (void)execl("/bin/sh", "sh", "-c", buffer, nullptr);
    }
    _exit(127);
}

pid_t spawn_shell(const char* buffer, const char** env) {
    const unsigned int max_fds = descriptor_bound();
    const AllSignalsBlocked blocked;
    const pid_t child = vfork();
    if (child == 0) exec_shell(buffer, env, max_fds, blocked);
    return child;
}

int close_fds_system(const char* buffer, const char** env) {
    if (buffer == nullptr) return -1;
    const CommandDispositions dispositions;
    const pid_t child = spawn_shell(buffer, env);
    if (child == -1) return -1;
    int status = -1;
    return wait4(child, &status, 0, nullptr) == -1 ? -1 : status;
}

__attribute__((format(printf, 2, 0))) int format_and_run(const char** env, const char* format,
                                                         va_list arguments) {
    const CancelDisabled no_cancel;  // The child calls cancellation points, too.
    char buffer[kCommandSize];
    if (vsnprintf(buffer, sizeof buffer, format, arguments) < 0) return -1;
    return close_fds_system(buffer, env);
}

}  // namespace

}  // namespace tessra

using namespace tessra;

TESSRA_EXPORTED int event_system(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const int status = format_and_run(nullptr, format, arguments);
    va_end(arguments);
    return status;
}

TESSRA_EXPORTED int event_system_env(const char** env, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const int status = format_and_run(env, format, arguments);
    va_end(arguments);
    return status;
}
