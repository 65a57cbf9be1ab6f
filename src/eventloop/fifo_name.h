// The life of the FIFO's name in /tmp, by which other processes can see that a loop starts.
#ifndef TESSRA_EVENTLOOP_FIFO_NAME_H
#define TESSRA_EVENTLOOP_FIFO_NAME_H

#include "eventloop/log.h"

namespace tessra {

// Also logged if a start finds no descriptors for the channel.
inline constexpr char kNoReading[] = "<%x> %s:%s(%d) - Failed to open pingpong fifo for reading\n";

// Closes `leftover`, makes the FIFO, opens both its ends, removes its name, and closes the ends. If
// the write end can't be opened, the read end stays open in `leftover`.
bool make_and_remove_fifo(int& leftover, StartFailure& failure);

}  // namespace tessra

#endif
