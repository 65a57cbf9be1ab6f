// The life of the FIFO's name in /tmp, by which everybody can see that a loop starts.
#ifndef TESSRA_EVENTLOOP_FIFO_NAME_H
#define TESSRA_EVENTLOOP_FIFO_NAME_H

#include "eventloop/log.h"

namespace tessra {

// Also the text of a start that has no descriptors for the channel.
inline constexpr char kNoReading[] = "<%x> %s:%s(%d) - Failed to open pingpong fifo for reading\n";

// Makes the FIFO, opens both ends, removes the name, and closes the ends. If the write end can't be
// opened, the read end stays open in `leftover`, which is closed first.
bool make_and_remove_fifo(int& leftover, StartFailure& failure);

void close_if_open(int& fd);

}  // namespace tessra

#endif
