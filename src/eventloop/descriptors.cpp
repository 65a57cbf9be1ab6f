// Descriptor watchers.
//
// The sets for select() are kept and rebuilt only after a change of the list. select() reports a
// watched descriptor that has been closed by itself, with EBADF, but only one that was open once:
// the kernel ignores numbers beyond its table, which never shrinks. So a rebuild tests the watchers
// that are new, the start of a loop tests all, since the list may be a parent's, and a watcher
// without conditions, which is in no set, is tested before every wait.
//
// A rebuild also notes who watches each descriptor if there are many, so that a pass doesn't visit
// all for the sake of a few that are ready.

#include <fcntl.h>
#include <limits.h>

#include <cstring>

#include "eventloop/eventloop_private.h"
#include "eventloop/watch_list.h"
#include "internal/alloc.h"

namespace tessra {

namespace {

constexpr int kAllConditions = EVENT_FD_READ | EVENT_FD_WRITE | EVENT_FD_EXCEPT;

// Up to so many watchers a visit of each costs no more than the table does; with more ready ones,
// finding the next costs more than it saves.
constexpr unsigned int kFewWatchers = 32;
constexpr int kFewReady = 4;
constexpr unsigned int kMostSpareSlots = 256;
constexpr unsigned int kUntested = UINT_MAX;

// A word of an fd_set, whose bits every Linux has in this order.
using Word = unsigned long;
constexpr unsigned int kWordBits = CHAR_BIT * sizeof(Word);
Word word_of(const fd_set& set, unsigned int word) {
    return reinterpret_cast<const Word*>(&set)[word];
}

// A watched descriptor that is closed is a fault of the program that can't be waited out: whatever
// it is reused for would be taken for the old one. The process ends, without a word.
void exit_if_closed(int fd) {
    if (fcntl(fd, F_GETFD) == -1) exit(-1);
}

// A marked watcher is as good as gone, and its descriptor may be closed already.
void test_descriptors_locked(event_loop_ctx_tp el_ctx, bool unselected_only) {
    list_t* node;
    dll_foreach(node, &el_ctx->fd_queue) {
        const auto* watcher = entry_of<event_fd_t>(node);
        if (watcher->to_be_deleted) continue;
        if (unselected_only && (watcher->type & kAllConditions) != 0) continue;
        exit_if_closed(watcher->fd);
    }
}

void drop_table(WatchedSets& watched) {
    free(watched.by_fd);
    watched.by_fd = nullptr;
    watched.slots = 0;
}

// The table is kept while it has room and not too much.
void make_table_locked(event_loop_ctx_tp el_ctx) {
    WatchedSets& watched = el_ctx->watched;
    const ErrnoKeeper keep_errno;
    // For each bit of the words that first_ready() looks at.
    const unsigned int needed = static_cast<unsigned int>(watched.max_fd) + kWordBits;
    if (watched.slots - needed > kMostSpareSlots) {  // Wraps around where there are too few.
        drop_table(watched);
        watched.by_fd = static_cast<WatcherSlot*>(malloc(needed * sizeof(WatcherSlot)));
        if (watched.by_fd == nullptr) return;
        watched.slots = needed;
    }
    memset(watched.by_fd, 0, needed * sizeof(WatcherSlot));
    list_t* node;
    dll_foreach(node, &el_ctx->fd_queue) {
        auto* watcher = entry_of<event_fd_t>(node);
        if (watcher->to_be_deleted) continue;
        WatcherSlot& slot = watched.by_fd[watcher->fd];
        if (slot.watcher != nullptr) return drop_table(watched);
        slot.watcher = watcher;
    }
}

void rebuild_sets_locked(event_loop_ctx_tp el_ctx) {
    WatchedSets& watched = el_ctx->watched;
    unsigned int position = 0;
    watched.sets = {};
    watched.max_fd = kNoFd;
    watched.has_unselected = false;
    list_t* node;
    dll_foreach(node, &el_ctx->fd_queue) {
        auto* watcher = entry_of<event_fd_t>(node);
        const bool is_new = watcher->position == kUntested;
        watcher->position = position++;
        if (watcher->to_be_deleted) continue;
        if (is_new) exit_if_closed(watcher->fd);
        if (watcher->type & EVENT_FD_READ) insert_fd(watcher->fd, watched.sets.read);
        if (watcher->type & EVENT_FD_WRITE) insert_fd(watcher->fd, watched.sets.write);
        if (watcher->type & EVENT_FD_EXCEPT) insert_fd(watcher->fd, watched.sets.except);
        if ((watcher->type & kAllConditions) == 0) watched.has_unselected = true;
        if (watcher->fd > watched.max_fd) watched.max_fd = watcher->fd;
    }
    if (position > kFewWatchers) {
        make_table_locked(el_ctx);
    } else {
        drop_table(watched);
    }
    watched.stale.clear();
}

// The first of the noted watchers at `node` or behind it whose descriptor is ready, or the head.
list_t* first_ready(event_loop_ctx_tp el_ctx, const SelectSets& ready, list_t* node) {
    const WatchedSets& watched = el_ctx->watched;
    event_fd_t* first = nullptr;
    const auto max_fd = static_cast<unsigned int>(watched.max_fd);
    for (unsigned int word = 0; word <= max_fd / kWordBits; ++word) {
        Word bits =
            word_of(ready.read, word) | word_of(ready.write, word) | word_of(ready.except, word);
        for (; bits != 0; bits &= bits - 1) {
            const auto bit = static_cast<unsigned int>(__builtin_ctzl(bits));
            event_fd_t* watcher = watched.by_fd[word * kWordBits + bit].watcher;
            if (watcher == nullptr) continue;  // The channel.
            if (watcher->position < entry_of<event_fd_t>(node)->position) continue;
            if (first == nullptr || watcher->position < first->position) first = watcher;
        }
    }
    return first != nullptr ? &first->list : &el_ctx->fd_queue;
}

// A handler may have added a watcher of a number that is no descriptor; the next rebuild finds it.
bool is_ready(const event_fd_t* watcher, const SelectSets& ready) {
    if (watcher->fd < 0) return false;
    return ((watcher->type & EVENT_FD_READ) && contains_fd(watcher->fd, ready.read)) ||
           ((watcher->type & EVENT_FD_WRITE) && contains_fd(watcher->fd, ready.write)) ||
           ((watcher->type & EVENT_FD_EXCEPT) && contains_fd(watcher->fd, ready.except));
}

}  // namespace

// Fills the sets for one select(), the channel included, and returns the largest descriptor.
int fill_select_sets(event_loop_ctx_tp el_ctx, SelectSets& sets) {
    WatchedSets& watched = el_ctx->watched;
    if (watched.stale || watched.has_unselected) {
        const ListLock lock(el_ctx->eventlists_mutex);
        if (watched.stale) {
            rebuild_sets_locked(el_ctx);
        } else {
            test_descriptors_locked(el_ctx, true);
        }
    }
    sets = watched.sets;
    insert_fd(el_ctx->pong_fd, sets.read);
    return watched.max_fd > el_ctx->pong_fd ? watched.max_fd : el_ctx->pong_fd;
}

void exit_if_descriptor_closed(event_loop_ctx_tp el_ctx) {
    const ListLock lock(el_ctx->eventlists_mutex);
    test_descriptors_locked(el_ctx, false);
}

// The descriptor phase. `ready` stays as select() returned it, whatever handlers do. Once one has
// changed the list, the rest of it is walked, unless a nested pass has made the table anew.
void run_ready_descriptors_locked(event_loop_ctx_tp el_ctx, const SelectSets& ready,
                                  int ready_count) {
    const WatchedSets& watched = el_ctx->watched;
    pinned_walk<event_fd_t, CountedPins>(
        el_ctx->fd_queue, [&](const event_fd_t* watcher) { return is_ready(watcher, ready); },
        [el_ctx](const event_fd_t* watcher) {
            watcher->handler(watcher->fd, watcher->arg);
            return is_running_here(*el_ctx);
        },
        [&](list_t* node) {
            const bool known =
                watched.by_fd != nullptr && !watched.stale && ready_count <= kFewReady;
            return known ? first_ready(el_ctx, ready, node) : node;
        });
}

void event_fd_free(event_loop_ctx_tp el_ctx) {
    const ListLock lock(el_ctx->eventlists_mutex);
    free_all<event_fd_t>(el_ctx->fd_queue);
    drop_table(el_ctx->watched);
    el_ctx->watched.stale.set();
}

}  // namespace tessra

using namespace tessra;

void event_fd_add_mc(event_loop_ctx_tp el_ctx, fd_handler_t handler, void* arg, int fd, int type) {
    if (fd >= FD_SETSIZE) {
        errno = EMFILE;
        return;
    }
    auto* watcher = new_record<event_fd_t>();
    if (watcher == nullptr) return;
    *watcher = {{}, handler, arg, fd, type, 0, 0, kUntested};
    const ChangeLock lock(el_ctx, el_ctx->eventlists_mutex);
    list_add_tail(&el_ctx->fd_queue, &watcher->list);
    el_ctx->watched.stale.set();
}

void event_fd_add(fd_handler_t handler, void* arg, int fd, int type) {
    event_fd_add_mc(&default_el_ctx, handler, arg, fd, type);
}

void event_fd_del_mc(event_loop_ctx_tp el_ctx, int fd) {
    const ChangeLock lock(el_ctx, el_ctx->eventlists_mutex);
    auto* watcher = find_first<event_fd_t>(
        el_ctx->fd_queue, [fd](const event_fd_t* candidate) { return candidate->fd == fd; });
    if (watcher != nullptr) {
        delete_or_mark(watcher);
        el_ctx->watched.stale.set();
    }
}

void event_fd_del(int fd) { event_fd_del_mc(&default_el_ctx, fd); }
