// The timers of the default context as a sorted vector, for a loop on a fake clock. Numbers of the
// user decide on the changes and on the end of each wait.
#ifndef TESSRA_TESTS_TIMER_MODEL_H
#define TESSRA_TESTS_TIMER_MODEL_H

#include <tessra/eventloop.h>

#include <algorithm>
#include <cerrno>
#include <functional>
#include <vector>

namespace tessra_test {

class TimerModel {
public:
    std::function<unsigned(unsigned)> below;        // The next number below this one.
    std::function<void(unsigned long long)> clock;  // Sets the loop's clock, in milliseconds.
    std::function<void(bool, const char*)> check;   // Reports the text if the condition is false.
    int fired = 0;
    static constexpr unsigned kMaxArgs = 64;
    unsigned most = 12, args = 4, spread = 20;  // Limits of timers, arguments, timeouts.
    std::size_t largest = 0;

    void begin(unsigned long long now) {
        now_ = now;
        phase_time_ = 0;
        clock(now_);
    }

    // Replaces select(): checks the wait, changes timers as another thread would, sleeps.
    int wait(const timeval* tv) {
        const long long sleep_ms = tv ? tv->tv_sec * 1000LL + tv->tv_usec / 1000 : below(50);
        if (!timers_.empty()) {
            check(timers_[0].deadline > phase_time_, "a due timer was left out");
            const auto ahead = static_cast<long long>(timers_[0].deadline - now_);
            check(tv && sleep_ms <= std::max(ahead, 0LL), "overslept");
        }
        for (unsigned n = below(3); n > 0; --n) change();
        const unsigned outcome = below(20);
        if (outcome < 2) {
            const long long jump =
                outcome ? kDay + 1 + below(5) : -1 - static_cast<long long>(below(500));
            advance(jump);
            for (Timer& timer : timers_) timer.deadline += static_cast<unsigned long long>(jump);
        } else {
            advance(outcome < 8 ? below(static_cast<unsigned>(sleep_ms) + 1) : sleep_ms);
        }
        phase_time_ = outcome == 19 ? 0 : now_;
        if (outcome != 19) return 0;
        errno = EINTR;  // No pass.
        return -1;
    }

    // Adds, deletes or asks for a timer.
    void change() {
        static const timer_handler_t kHandlers[] = {on_timer<0>, on_timer<1>};
        const int handler = static_cast<int>(below(2));
        Arg* const arg = &args_[below(args)];
        arg->model = this;
        const bool any = below(args) == 0;
        const auto matches = [&](const Timer& timer) {
            return timer.handler == handler && (any || timer.arg == arg);
        };
        void* const wanted = any ? nullptr : arg;
        largest = std::max(largest, timers_.size());
        const unsigned action = below(timers_.size() < most ? 8 : 3);
        if (action >= 3) {
            const unsigned timeout = below(3) * below(spread);
            const Timer timer = {now_ + timeout, handler, arg};
            timers_.insert(std::upper_bound(timers_.begin(), timers_.end(), timer,
                                            [](const Timer& a, const Timer& b) {
                                                return a.deadline < b.deadline;
                                            }),
                           timer);
            event_timer_add(kHandlers[handler], arg, timeout);
        } else if (action > 0) {
            check(std::any_of(timers_.begin(), timers_.end(), matches) ==
                      (event_timer_exists(kHandlers[handler], wanted) != 0),
                  "armed or not");
        } else {
            timers_.erase(std::remove_if(timers_.begin(), timers_.end(), matches), timers_.end());
            event_timer_del(kHandlers[handler], wanted);
        }
    }

private:
    static constexpr long long kDay = 86400000;
    struct Arg {
        TimerModel* model;
    };
    struct Timer {
        unsigned long long deadline;
        int handler;
        Arg* arg;
    };

    template <int kHandler>
    static void on_timer(void* arg) {
        auto* const known = static_cast<Arg*>(arg);
        known->model->fire(kHandler, known);
    }

    void fire(int handler, const Arg* arg) {
        check(!timers_.empty(), "a deleted timer fires");
        if (timers_.empty()) return;
        check(timers_[0].handler == handler && timers_[0].arg == arg, "wrong order");
        check(timers_[0].deadline <= phase_time_, "early");
        timers_.erase(timers_.begin());
        ++fired;
        advance(below(2) * below(3));
        for (unsigned n = below(3); n > 0; --n) change();
    }

    void advance(long long ms) {
        now_ += static_cast<unsigned long long>(ms);
        clock(now_);
    }

    std::vector<Timer> timers_;
    Arg args_[kMaxArgs] = {};
    unsigned long long now_ = 0, phase_time_ = 0;
};

}  // namespace tessra_test

#endif
