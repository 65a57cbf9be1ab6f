/**
 * The contents of /status: the daemon's counters, and a line that a rate-limited background task
 * writes into a file.
 */
#ifndef BUNDLED_STATUS_H
#define BUNDLED_STATUS_H

#include <string>

#include <tessra/eventloop.h>

#include "containers.h"

namespace bundled {

/** Counts by name. A walk follows the order of the names. */
class Counters {
public:
    struct Counter : Tracked {
        const char* name;
        unsigned long long value;
    };

    Counters();  ///< Makes the counters that /status shows from the start.
    Counters(const Counters&) = delete;
    Counters& operator=(const Counters&) = delete;
    ~Counters();

    /** Adds one to the counter @p name, a literal. */
    void count(const char* name) { ++find_or_make(name)->value; }

    /** Calls @p visit with each Counter. */
    template <class Visit>
    void for_each(Visit visit) const {
        bundled::for_each<Counter>(*counters_, visit);
    }

private:
    Counter* find_or_make(const char* name);

    Tree counters_{checked(BT_create(compare_texts))};
};

/**
 * The status line and the scratch folder that contains it.
 *
 * Life: call open(), then refresh() and line() at any time; the destructor removes the folder. The
 * object must outlive the loop, which may have a request for the task. Can't be copied or moved.
 */
class StatusLine {
public:
    StatusLine() = default;
    StatusLine(const StatusLine&) = delete;
    StatusLine& operator=(const StatusLine&) = delete;
    ~StatusLine();

    /** Makes the folder. @p delay_s is the least time between two refreshes. Returns false with
     * errno after a failure. */
    bool open(unsigned int delay_s);

    /** Requests a new line. The task writes it in a later pass, at most once in delay_s. */
    void refresh();

    /** Returns the newest line, or a text that says that there is none. */
    std::string line() const;

private:
    std::string folder_;
    std::string command_;
    bg_task_t task_ = {};
};

}  // namespace bundled

#endif
