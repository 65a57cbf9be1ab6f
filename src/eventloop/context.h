// A loop's context: its run, its channel, and its watchers of each kind.
//
// Lock order: `events_mutex` of a context, then contexts_mutex, then the lock of the timers or that
// of the children. disposition_mutex comes after `events_mutex`, and no other lock is taken under
// it. A start or an end of a loop takes the lock of running_loops, and before that, for the loop's
// own thread, the lock of thread.cpp. It takes no list lock under these. fork() takes
// contexts_mutex, the lock of running_loops, and then `events_mutex` and the lock of the timers of
// each idle context.
#ifndef TESSRA_EVENTLOOP_CONTEXT_H
#define TESSRA_EVENTLOOP_CONTEXT_H

#include "eventloop/all_contexts.h"
#include "eventloop/channel.h"
#include "eventloop/children.h"
#include "eventloop/descriptors.h"
#include "eventloop/run.h"
#include "eventloop/signals.h"
#include "eventloop/timers.h"

struct event_loop_ctx {
    constexpr explicit event_loop_ctx(tessra::WaitingSignals& waiting) : channel(waiting) {}

    list_t node = {&tessra::contexts, &tessra::contexts};  // On the list of all contexts.
    tessra::Channel channel;
    tessra::Run run{channel};
    tessra::Timers timers{channel};
    tessra::Children children{channel};
    tessra::ListMutex events_mutex;  // Of the signals and the descriptors.
    tessra::Signals signals{channel, events_mutex};
    bool in_nested_pass = false;  // The loop's thread only.
    // Last, since it is the largest: to reach the parts behind it would take more code.
    tessra::Descriptors descriptors{channel, events_mutex};
};

namespace tessra {

using event_loop_ctx_t = event_loop_ctx;

extern event_loop_ctx_t default_el_ctx;

event_loop_ctx_t* make_context();
void free_context(event_loop_ctx_t* el_ctx);
event_loop_ctx_t* context_of(list_t* node);

}  // namespace tessra

#endif
