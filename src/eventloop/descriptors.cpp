// The sets for select() are kept, and rebuilt only after a change of the list. If a watched
// descriptor is closed, select() fails with EBADF, but only if the number was open once: the kernel
// ignores numbers beyond its table of descriptors, which never shrinks. So a rebuild tests the new
// watchers. The start of a loop tests all, since the list may be a parent process's. A watcher
// without conditions is in no set, so its descriptor is tested before every wait.
//
// If there are many watchers, a rebuild also makes a table of them by descriptor, so that a pass
// with a few ready descriptors doesn't visit all watchers.

#include "eventloop/descriptors.h"

#include <fcntl.h>
#include <limits.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "eventloop/watch_list.h"
#include "internal/alloc.h"

namespace tessra {

struct event_fd_t {
    list_t list;
    fd_handler_t handler;
    void* arg;
    int fd;
    int type;
    int pins;
    Mark mark;
    unsigned int position;  // On the list when the sets were built; kUntested before that.
};

namespace {

constexpr int kAllConditions = EVENT_FD_READ | EVENT_FD_WRITE | EVENT_FD_EXCEPT;

// Up to kFewWatchers, a visit of each watcher costs no more than the table. Beyond kFewReady, the
// searches in the table for the next ready watcher cost more than they save.
constexpr unsigned int kFewWatchers = 32;
constexpr int kFewReady = 4;
constexpr unsigned int kMostSpareSlots = 256;
constexpr unsigned int kUntested = UINT_MAX;

// A word of an fd_set. Its bits are in this order on every Linux.
using Word = unsigned long;
constexpr unsigned int kWordBits = CHAR_BIT * sizeof(Word);
Word word_of(const fd_set& set, unsigned int word) {
    return reinterpret_cast<const Word*>(&set)[word];
}

// A watched descriptor that is closed is a fault of the program. The loop can't go on, since the
// watcher would serve the next file that gets the number. The process exits without a message.
void exit_if_fd_closed(int fd) {
    if (fcntl(fd, F_GETFD) == -1) exit(-1);
}

// A handler may have added a watcher of a negative number. The next rebuild finds that fault.
bool is_ready(const event_fd_t* watcher, const SelectSets& ready) {
    if (watcher->fd < 0) return false;
    return ((watcher->type & EVENT_FD_READ) && contains_fd(watcher->fd, ready.read)) ||
           ((watcher->type & EVENT_FD_WRITE) && contains_fd(watcher->fd, ready.write)) ||
           ((watcher->type & EVENT_FD_EXCEPT) && contains_fd(watcher->fd, ready.except));
}

}  // namespace

// Skips marked watchers, which are deleted: their descriptors may be closed.
void Descriptors::test_locked(bool unselected_only) {
    list_t* node;
    dll_foreach(node, &queue_) {
        const auto* watcher = record_of<event_fd_t>(node);
        if (watcher->mark != Mark::kNone) continue;
        if (unselected_only && (watcher->type & kAllConditions) != 0) continue;
        exit_if_fd_closed(watcher->fd);
    }
}

void Descriptors::drop_table() {
    free(watched_.by_fd);
    watched_.by_fd = nullptr;
    watched_.slots = 0;
}

// Keeps the table if it is large enough, with at most kMostSpareSlots too many.
void Descriptors::make_table_locked() {
    const ErrnoKeeper keep_errno;
    // A slot for each bit of the words that first_ready() looks at.
    const unsigned int needed = static_cast<unsigned int>(watched_.max_fd) + kWordBits;
    if (watched_.slots - needed > kMostSpareSlots) {  // Wraps around if there are too few.
        drop_table();
        watched_.by_fd = static_cast<Slot*>(malloc(needed * sizeof(Slot)));
        if (watched_.by_fd == nullptr) return;
        watched_.slots = needed;
    }
    memset(watched_.by_fd, 0, needed * sizeof(Slot));
    list_t* node;
    dll_foreach(node, &queue_) {
        auto* watcher = record_of<event_fd_t>(node);
        if (watcher->mark != Mark::kNone) continue;
        Slot& slot = watched_.by_fd[watcher->fd];
        if (slot.watcher != nullptr) return drop_table();
        slot.watcher = watcher;
    }
}

void Descriptors::rebuild_locked() {
    unsigned int position = 0;
    watched_.sets = {};
    watched_.max_fd = kNoFd;
    watched_.has_unselected = false;
    list_t* node;
    dll_foreach(node, &queue_) {
        auto* watcher = record_of<event_fd_t>(node);
        const bool is_new = watcher->position == kUntested;
        watcher->position = position++;
        if (watcher->mark != Mark::kNone) continue;
        if (is_new) exit_if_fd_closed(watcher->fd);
        if (watcher->type & EVENT_FD_READ) insert_fd(watcher->fd, watched_.sets.read);
        if (watcher->type & EVENT_FD_WRITE) insert_fd(watcher->fd, watched_.sets.write);
        if (watcher->type & EVENT_FD_EXCEPT) insert_fd(watcher->fd, watched_.sets.except);
        if ((watcher->type & kAllConditions) == 0) watched_.has_unselected = true;
        if (watcher->fd > watched_.max_fd) watched_.max_fd = watcher->fd;
    }
    if (position > kFewWatchers) {
        make_table_locked();
    } else {
        drop_table();
    }
    watched_.stale.clear();
}

// Returns the first watcher in the table, at `node` or behind it on the list, whose descriptor is
// ready, or the head.
list_t* Descriptors::first_ready(const SelectSets& ready, list_t* node) {
    event_fd_t* first = nullptr;
    const auto max_fd = static_cast<unsigned int>(watched_.max_fd);
    for (unsigned int word = 0; word <= max_fd / kWordBits; ++word) {
        Word bits =
            word_of(ready.read, word) | word_of(ready.write, word) | word_of(ready.except, word);
        for (; bits != 0; bits &= bits - 1) {
            const auto bit = static_cast<unsigned int>(__builtin_ctzl(bits));
            event_fd_t* watcher = watched_.by_fd[word * kWordBits + bit].watcher;
            if (watcher == nullptr) continue;  // The channel.
            if (watcher->position < record_of<event_fd_t>(node)->position) continue;
            if (first == nullptr || watcher->position < first->position) first = watcher;
        }
    }
    return first != nullptr ? &first->list : &queue_;
}

int Descriptors::fill_sets(SelectSets& sets) {
    if (watched_.stale || watched_.has_unselected) {
        const ListLock lock(*mutex_);
        if (watched_.stale) {
            rebuild_locked();
        } else {
            test_locked(true);
        }
    }
    sets = watched_.sets;
    const int pong_fd = channel_->pong_fd();
    insert_fd(pong_fd, sets.read);
    return watched_.max_fd > pong_fd ? watched_.max_fd : pong_fd;
}

void Descriptors::exit_if_closed() {
    const ListLock lock(*mutex_);
    test_locked(false);
}

// After a handler has changed the list, the walk visits each of the remaining watchers, unless a
// nested pass has rebuilt the table.
void Descriptors::run_ready_locked(const Run& run, const SelectSets& ready, int ready_count) {
    pinned_walk<event_fd_t, CountedPins>(
        queue_, [&](const event_fd_t* watcher) { return is_ready(watcher, ready); },
        [&run](const event_fd_t* watcher) {
            watcher->handler(watcher->fd, watcher->arg);
            return run.is_here();
        },
        [&](list_t* node) {
            const bool known =
                watched_.by_fd != nullptr && !watched_.stale && ready_count <= kFewReady;
            return known ? first_ready(ready, node) : node;
        });
}

bool Descriptors::add(fd_handler_t handler, void* arg, int fd, int type) {
    if (fd >= FD_SETSIZE) {
        errno = EMFILE;
        return false;
    }
    auto* watcher = new_record<event_fd_t>();
    if (watcher == nullptr) return false;
    *watcher = {{}, handler, arg, fd, type, 0, Mark::kNone, kUntested};
    const Change change(*channel_, *mutex_);
    list_add_tail(&queue_, &watcher->list);
    watched_.stale.set();
    return true;
}

void Descriptors::del(int fd) {
    const Change change(*channel_, *mutex_);
    auto* watcher = find_first<event_fd_t>(
        queue_, [fd](const event_fd_t* candidate) { return candidate->fd == fd; });
    if (watcher == nullptr) return;
    delete_or_mark(watcher);
    watched_.stale.set();
}

void Descriptors::free_all() {
    const ListLock lock(*mutex_);
    tessra::free_all<event_fd_t>(queue_);
    drop_table();
    watched_.stale.set();
}

}  // namespace tessra
