/**
 * What /status tells: the daemon's counters, and a line that a rate-limited background task writes
 * into a file.
 */
#ifndef BUNDLED_STATUS_H
#define BUNDLED_STATUS_H

#include <string>

#include <tessra/eventloop.h>

namespace bundled {

struct Counters {
    unsigned int signals_seen = 0;
    unsigned int reloads = 0;
    unsigned int reloads_refused = 0;
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
