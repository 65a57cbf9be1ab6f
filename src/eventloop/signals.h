// The signal watchers of a context. The catcher writes a caught signal into the channel, and the
// loop calls the handlers outside of signal context.
//
// Lock: `events_mutex` of the context. Handlers run with the lock held.
#ifndef TESSRA_EVENTLOOP_SIGNALS_H
#define TESSRA_EVENTLOOP_SIGNALS_H

#include <signal.h>

#include "eventloop/channel.h"
#include "eventloop/list_mutex.h"
#include "eventloop/run.h"
#include "tessra/eventloop.h"

namespace tessra {

class Signals {
public:
    constexpr Signals(Channel& channel, ListMutex& mutex) : channel_(&channel), mutex_(&mutex) {}

    // Any thread. add() returns false and sets errno if nothing was registered.
    bool add(signal_handler_t handler, void* arg, int signal);
    void del(int signal);
    void free_all();

    // The loop's thread.
    void run_watchers_locked(const Run& run, int signal, siginfo_t& info);

    ListMutex& mutex() { return *mutex_; }

private:
    Channel* channel_;
    ListMutex* mutex_;
    list_t queue_ = {&queue_, &queue_};
};

}  // namespace tessra

#endif
