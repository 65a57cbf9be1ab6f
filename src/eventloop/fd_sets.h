// Descriptors, and the sets that select() takes.
#ifndef TESSRA_EVENTLOOP_FD_SETS_H
#define TESSRA_EVENTLOOP_FD_SETS_H

#include <sys/select.h>
#include <unistd.h>

namespace tessra {

constexpr int kNoFd = -1;

inline void close_if_open(int& fd) {
    if (fd != kNoFd) (void)close(fd);
    fd = kNoFd;
}

// The three sets of select(), as built from the descriptor watchers or as select() returned them.
struct SelectSets {
    fd_set read;
    fd_set write;
    fd_set except;
};

// The macros of some C libraries mix the signed descriptor with unsigned sizes.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wsign-conversion"
inline void insert_fd(int fd, fd_set& set) { FD_SET(fd, &set); }
inline bool contains_fd(int fd, const fd_set& set) { return FD_ISSET(fd, &set) != 0; }
#pragma GCC diagnostic pop

}  // namespace tessra

#endif
