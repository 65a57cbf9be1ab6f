// Record locks.

#include "tessra/region_locking.h"

#include <fcntl.h>

#include "misc/misc_private.h"

namespace tessra {

namespace {

struct flock region(int type, int whence, int start, off_t len) {
    struct flock region = {};
    region.l_type = static_cast<short>(type);
    region.l_whence = static_cast<short>(whence);
    region.l_start = start;
    region.l_len = len;
    return region;
}

int apply_lock(int fd, int cmd, int type, int whence, int start, off_t len) {
    struct flock wanted = region(type, whence, start, len);
    return fcntl(fd, cmd, &wanted);
}

}  // namespace

}  // namespace tessra

using namespace tessra;

[[gnu::weak]] int lockRegion(int fd, int type, int whence, int start, int len) {
    return apply_lock(fd, F_SETLK, type, whence, start, len);
}

[[gnu::weak]] int lockRegionWait(int fd, int type, int whence, int start, int len) {
    return apply_lock(fd, F_SETLKW, type, whence, start, len);
}

[[gnu::weak]] pid_t regionIsLocked(int fd, int type, int whence, int start, int len) {
    struct flock found = region(type, whence, start, len);
    if (fcntl(fd, F_GETLK, &found) == -1) return -1;
    return found.l_type == F_UNLCK ? 0 : found.l_pid;
}

[[gnu::alias("lockRegion")]] int tessra::lock_region(int fd, int type, int whence, int start,
                                                     int len);
