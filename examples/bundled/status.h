/**
 * What /status tells: the daemon's counters, and a line that a rate-limited background task writes
 * into a file.
 */
#ifndef BUNDLED_STATUS_H
#define BUNDLED_STATUS_H

#include <string>

#include <tessra/eventloop.h>

#include "containers.h"

namespace bundled {

/** Counts by name, which are walked in the order of the names. */
class Counters {
public:
    struct Counter : Tracked {
        const char* name;
        unsigned long long value;
    };

    Counters();  ///< With all that /status shows from the start.
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
 * The status line and the scratch folder that it lives in.
 *
 * Life: open(), then refresh() and line() at will; the destructor removes the folder. It must
 * outlive the loop, which may hold a request for the task. Neither copied nor moved.
 */
class StatusLine {
public:
    StatusLine() = default;
    StatusLine(const StatusLine&) = delete;
    StatusLine& operator=(const StatusLine&) = delete;
    ~StatusLine();

    /** Makes the folder. @p delay_s is the least time between two refreshes. False: errno tells. */
    bool open(unsigned int delay_s);

    /** Requests a new line. It will be there in a later pass, and at most once in delay_s. */
    void refresh();

    /** The newest line; a text that says so if there is none. */
    std::string line() const;

private:
    std::string folder_;
    std::string command_;
    bg_task_t task_ = {};
};

}  // namespace bundled

#endif
