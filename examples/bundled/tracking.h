/**
 * Memory of the daemon's records and texts, which the library's allocation tracker sees on request,
 * and the tracker's reports.
 */
#ifndef BUNDLED_TRACKING_H
#define BUNDLED_TRACKING_H

#include <cstddef>
#include <memory>
#include <new>
#include <string>
#include <string_view>

namespace bundled {

/** From now on new blocks are tracked, or not. Blocks of both kinds may be freed at any time. */
void set_tracking(bool on);

/** The result of an allocating call, which isn't null: else std::bad_alloc. */
template <class Made>
Made* checked(Made* made) {
    if (made == nullptr) {
        throw std::bad_alloc();
    }
    return made;
}

/** Where a block is made. */
struct Site {
    const char* file;
    unsigned int line;
};

/** The caller's own place. As a default argument it stands for the caller's caller. */
constexpr Site here(const char* file = __builtin_FILE(), unsigned int line = __builtin_LINE()) {
    return {file, line};
}

/** Base of records: made with new (here()), ended with delete. */
struct Tracked {
    static void* operator new(std::size_t size, Site site);
    static void operator delete(void* block);
    static void operator delete(void* block, Site site);  ///< For a constructor that throws.
};

/** Frees a block of this file's, tracked or not. */
struct FreeBlock {
    void operator()(void* block) const;
};

/** A C string in a block of its own. */
using Text = std::unique_ptr<char, FreeBlock>;

/** A copy of @p text, which has no NUL. */
Text copy(std::string_view text, Site site = here());

/** The latest dump of the tracker, made by a timer of the default loop. */
class LeakReports {
public:
    LeakReports() = default;
    LeakReports(const LeakReports&) = delete;
    LeakReports& operator=(const LeakReports&) = delete;
    ~LeakReports();

    /** Dumps every @p interval_ms, which is longer than healthy records live. False: errno. */
    bool start(unsigned int interval_ms);
    bool started() const { return interval_ms_ != 0; }

    /** The number of the latest dump and its lines; a text that says so before the first. */
    const std::string& latest() const { return latest_; }

private:
    static void on_time(void* arg) noexcept;
    void dump();

    unsigned int interval_ms_ = 0;
    unsigned int dumps_ = 0;
    std::string latest_ = "no dump yet\n";
};

}  // namespace bundled

#endif
