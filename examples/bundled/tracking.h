/**
 * Memory of the daemon's records and texts, which the library's allocation tracker tracks on
 * request, and the tracker's reports.
 */
#ifndef BUNDLED_TRACKING_H
#define BUNDLED_TRACKING_H

#include <cstddef>
#include <memory>
#include <new>
#include <string>
#include <string_view>

namespace bundled {

/** Sets whether new blocks are tracked. Blocks of both kinds may be freed at any time. */
void set_tracking(bool on);

/** Returns the result of an allocating call. If it is null, throws std::bad_alloc. */
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

/** Returns the place of the call. In a default argument that is the place of the outer call. */
constexpr Site here(const char* file = __builtin_FILE(), unsigned int line = __builtin_LINE()) {
    return {file, line};
}

/** Base of records, which are made with new (here()) and freed with delete. */
struct Tracked {
    static void* operator new(std::size_t size, Site site);
    static void operator delete(void* block);
    static void operator delete(void* block, Site site);  ///< For a constructor that throws.
};

/** Frees a block that this file has made, tracked or not. */
struct FreeBlock {
    void operator()(void* block) const;
};

/** A C string in a block of its own. */
using Text = std::unique_ptr<char, FreeBlock>;

/** Returns a copy of @p text, which has no NUL. */
Text copy(std::string_view text, Site site = here());

/** The latest dump of the tracker, made by a timer of the default loop. */
class LeakReports {
public:
    LeakReports() = default;
    LeakReports(const LeakReports&) = delete;
    LeakReports& operator=(const LeakReports&) = delete;
    ~LeakReports();

    /** Dumps every @p interval_ms, which must be longer than the life of records that aren't
     * leaked. Returns false with errno after a failure. */
    bool start(unsigned int interval_ms);
    bool started() const { return interval_ms_ != 0; }

    /** Returns the number and lines of the latest dump, or before the first a text that says so. */
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
