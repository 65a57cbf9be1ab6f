// The locked PID file.

#include "tessra/create_pid_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "misc/misc_private.h"

namespace tessra {

namespace {

// The file must not take the place of a closed descriptor 0, 1 or 2: the output of the process,
// such as the message about the lock, would go into the file. So descriptors of "/" occupy the free
// ones of these numbers while the file is opened. The file isn't opened first and its descriptor
// then moved: the move can fail, and a new file would stay behind.
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
    // The file is truncated only under the lock, so a second instance can't erase the first one's
    // process id.
    tessra::lock_pid_file(fd, pidFile, progName);
    tessra::write_pid(fd, pidFile);
    return fd;
}
