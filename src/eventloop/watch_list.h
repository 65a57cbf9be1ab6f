// The pinned walk: how handlers may change the list that is being walked.
//
// Every watcher record carries `pins` and a `mark`. With the list's mutex held throughout:
//   - A walk pins an entry before it visits the one in front of it, and takes its pin back on
//     arrival. While it visits an entry, the one pointer that it keeps is the pinned successor.
//   - Deleting a pinned entry only marks it. The walk that arrives there frees it, unvisited, once
//     no other walk has it pinned. An entry that isn't pinned is freed at once.
//   - The walk never touches an entry after visiting it, so a handler may delete its own.
// A nested pass walks the same lists from inside a visit. So pins are counted: the inner walk gives
// back its own pin only, and an entry that both have pinned lives until the outer walk gets there.
#ifndef TESSRA_EVENTLOOP_WATCH_LIST_H
#define TESSRA_EVENTLOOP_WATCH_LIST_H

#include <cstdlib>

#include "internal/record_of.h"
#include "tessra/list.h"

namespace tessra {

enum class Mark {
    kNone,
    kDeleted,
    kReported,  // Of a child's watcher: its handler has run. No delete finds it any more.
};

// Timers are on other lists, too, and have their own overload.
template <class Entry>
void unlink_entry(Entry* entry) {
    list_delete(&entry->list);
}

template <class Entry>
void unlink_and_free(Entry* entry) {
    unlink_entry(entry);
    free(entry);
}

// Each delete of a watcher follows this rule.
template <class Entry>
void delete_or_mark(Entry* entry) {
    if (entry->pins != 0) {
        entry->mark = Mark::kDeleted;
    } else {
        unlink_and_free(entry);
    }
}

// Pins of lists that nested walks share.
struct CountedPins {
    static constexpr bool kLeftBehind = false;
    static void pin(int& pins) { ++pins; }
    static void unpin(int& pins) { --pins; }
};

// Pins of a list whose walk stops half-way and leaves one behind. A walk that arrives there clears
// the pin, however old it is.
struct FlagPins {
    static constexpr bool kLeftBehind = true;
    static void pin(int& pins) { pins = 1; }
    static void unpin(int& pins) { pins = 0; }
};

inline list_t* skip_none(list_t* node) { return node; }

// Walks from the first entry until visit() returns false or the walk reaches the head. An entry
// that the walk doesn't want runs no foreign code, so there the walk pins no successor. From such
// an entry skip() may lead the walk past others that it doesn't want, to a later entry or to the
// head. It may pass a marked entry if another walk has that entry pinned, since the other walk
// frees it.
template <class Entry, class Pins, class Wants, class Visit, class Skip = list_t*(list_t*)>
void pinned_walk(list_t& head, Wants wants, Visit visit, Skip skip = skip_none) {
    bool pinned = false;
    for (list_t* node = head.next;;) {
        if (!pinned && node != &head) node = skip(node);
        if (node == &head) return;
        Entry* entry = record_of<Entry>(node);
        list_t* successor = node->next;
        if (pinned || Pins::kLeftBehind) Pins::unpin(entry->pins);
        pinned = entry->mark == Mark::kNone && wants(entry);
        if (pinned) {
            if (successor != &head) Pins::pin(record_of<Entry>(successor)->pins);
            if (!visit(entry)) return;
        } else if (entry->mark != Mark::kNone && entry->pins == 0) {
            unlink_and_free(entry);
        }
        node = successor;
    }
}

// Returns the first entry that matches, or null. Marked entries match, too.
template <class Entry, class Matches>
Entry* find_first(list_t& head, Matches matches) {
    for (list_t* node = head.next; node != &head; node = node->next) {
        Entry* entry = record_of<Entry>(node);
        if (matches(entry)) return entry;
    }
    return nullptr;
}

// Frees every entry, whatever its pins and marks. Runs no handler.
template <class Entry>
void free_all(list_t& head) {
    list_t* node;
    dll_foreach(node, &head) unlink_and_free(record_of<Entry>(node));
}

}  // namespace tessra

#endif
