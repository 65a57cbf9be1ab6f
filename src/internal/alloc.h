// Memory for plain records, which one free() ends; null and errno ENOMEM if there is none.
#ifndef TESSRA_INTERNAL_ALLOC_H
#define TESSRA_INTERNAL_ALLOC_H

#include <errno.h>

#include <cstddef>
#include <cstdlib>
#include <type_traits>

namespace tessra {

// Keeps what an allocation does to errno to what is documented: ENOMEM if it failed, else nothing.
// The C library may leave the error of a first attempt in it, and some callers have no other
// result.
inline void* with_errno(void* block, int before) {
    errno = block != nullptr ? before : ENOMEM;
    return block;
}

// A block of `size` bytes that aren't set, or null. In place, since -Os would make a call of it on
// the way of each insertion; so is new_leaf().
[[gnu::always_inline]] inline void* new_block(size_t size) {
    const int before = errno;
    return with_errno(malloc(size), before);
}

// A zeroed block, or null.
inline void* zeroed_block(size_t count, size_t size) {
    const int before = errno;
    return with_errno(calloc(count, size), before);
}

// An array of `count` zeroed records, or null, also if its size can't be told.
template <class Record>
Record* new_records(size_t count) {
    static_assert(std::is_trivially_default_constructible_v<Record> &&
                      std::is_trivially_destructible_v<Record>,
                  "zeroed memory is one, and free() ends it");
    return static_cast<Record*>(zeroed_block(count, sizeof(Record)));
}

template <class Record>
Record* new_record() {
    return new_records<Record>(1);
}

}  // namespace tessra

#endif
