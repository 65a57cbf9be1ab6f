// A start first makes a FIFO in /tmp, opens both its ends, and removes its name. Meanwhile anybody
// can see the name and open the FIFO, so the FIFO carries no message. The channel is a pipe.

#include "eventloop/fifo_name.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "eventloop/fd_sets.h"

namespace tessra {

namespace {

constexpr int kTries = 100;
constexpr timespec kPause = {0, 100000};

int open_end(const char* path, int access) {
    return open(path, access | O_NONBLOCK | O_CLOEXEC | O_NOFOLLOW);
}

bool is_fifo(int end) {
    struct stat status;
    return fstat(end, &status) == 0 && S_ISFIFO(status.st_mode);
}

bool use_name(const char* path, int& read_end, StartFailure& failure) {
    close_if_open(read_end);
    if (mkfifo(path, 0666) != 0 && errno != EEXIST) {
        return note_failure(failure, "<%x> %s:%s(%d) - Failed to create fifo\n", __LINE__);
    }
    // The read end is opened first: without a reader, a non-blocking open for writing fails.
    read_end = open_end(path, O_RDONLY);
    if (read_end != kNoFd && !is_fifo(read_end)) {
        close_if_open(read_end);
        errno = EPERM;
    }
    if (read_end == kNoFd) return note_failure(failure, kNoReading, __LINE__);
    int write_end = open_end(path, O_WRONLY);
    if (write_end == kNoFd) {
        return note_failure(failure, "<%x> %s:%s(%d) - Failed to open pingpong fifo for writing\n",
                            __LINE__);
    }
    (void)unlink(path);
    close_if_open(write_end);
    close_if_open(read_end);
    return true;
}

// A process in another PID namespace may have our PID and the same /tmp, so that its start uses
// our name. That process removes the name between two of our steps, or makes it anew. Our step then
// fails with one of these errors.
bool is_other_start() { return errno == ENOENT || errno == ENXIO; }

}  // namespace

bool make_and_remove_fifo(int& leftover, StartFailure& failure) {
    char path[40];
    (void)snprintf(path, sizeof path, "%s%d", "/tmp/evtloop", getpid());
    for (int tries = 1; !use_name(path, leftover, failure); ++tries) {
        if (!is_other_start() || tries == kTries) return false;
        (void)nanosleep(&kPause, nullptr);
    }
    failure = {};
    return true;
}

}  // namespace tessra
