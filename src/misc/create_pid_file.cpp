// The locked PID file.

#include "tessra/create_pid_file.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>

#include "misc/misc_private.h"

namespace tessra {

namespace {

// Never a standard descriptor, should they be closed: what is printed, the message about the lock
// first, would go into the file. So "/" takes the free standard numbers while the file is opened.
// The file isn't opened first and moved then: a move can fail, and the file would have been made.
int open_pid_file(const char* path) {
    int taken[STDERR_FILENO + 1];
    int count = 0;
    int fd;
    for (;; ++count) {
        fd = open("/", O_PATH | O_CLOEXEC);
        if (fd == -1) exit_with_errno("Could not open PID file %s", path);
        if (fd > STDERR_FILENO || count > STDERR_FILENO) break;
        taken[count] = fd;
    }
    (void)close(fd);
    fd = open(path, O_RDWR | O_CREAT, S_IRUSR | S_IWUSR);
    if (fd == -1) exit_with_errno("Could not open PID file %s", path);
    while (count > 0) (void)close(taken[--count]);
    return fd;
}

void close_on_exec(int fd, const char* path) {
    const int flags = fcntl(fd, F_GETFD);
    if (flags == -1) exit_with_errno("Could not get flags for PID file %s", path);
    if (fcntl(fd, F_SETFD, flags | FD_CLOEXEC) == -1) {
        exit_with_errno("Could not set flags for PID file %s", path);
    }
}

void lock_pid_file(int fd, const char* path, const char* program) {
    if (lock_region(fd, F_WRLCK, SEEK_SET, 0, 0) != -1) return;
    if (errno == EAGAIN || errno == EACCES) {
        exit_with_line("PID file '%s' is locked; probably '%s' is already running", path, program);
    }
    exit_with_errno("Unable to lock PID file '%s'", path);
}

void write_pid(int fd, const char* path) {
    if (ftruncate(fd, 0) == -1) exit_with_errno("Could not truncate PID file '%s'", path);
    char text[100];
    const int length = snprintf(text, sizeof text, "%ld\n", static_cast<long>(getpid()));
    if (write(fd, text, static_cast<size_t>(length)) != length) {
        exit_with_line("Writing to PID file '%s'", path);
    }
}

}  // namespace

}  // namespace tessra

[[gnu::weak]] int createPidFile(const char* progName, const char* pidFile, int flags) {
    const int fd = tessra::open_pid_file(pidFile);
    if ((flags & PID_FILE_CLOEXEC) != 0) tessra::close_on_exec(fd, pidFile);
    // Truncated only once the lock is won: a second instance leaves the first one's number alone.
    tessra::lock_pid_file(fd, pidFile, progName);
    tessra::write_pid(fd, pidFile);
    return fd;
}
