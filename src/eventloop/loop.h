// The main loop and the nested pass.
#ifndef TESSRA_EVENTLOOP_LOOP_H
#define TESSRA_EVENTLOOP_LOOP_H

#include "eventloop/context.h"

namespace tessra {

// Runs a loop. After the start it calls on_start(), unless that is null. If on_start() returns
// false, the loop ends before its first pass, and the watchers stay.
int run_loop(event_loop_ctx_t& el_ctx, bool (*on_start)());
int run_nested_pass(event_loop_ctx_t& el_ctx, unsigned int timeout);

}  // namespace tessra

#endif
