// Memory for plain records, which free() releases. If memory is short, these functions return null
// and set errno to ENOMEM.
#ifndef TESSRA_INTERNAL_ALLOC_H
#define TESSRA_INTERNAL_ALLOC_H

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <type_traits>

namespace tessra {

// Sets errno as documented: to ENOMEM after a failure, otherwise to its value before the
// allocation. The C library may leave the error of a first attempt in errno, and errno is the only
// result that some callers have.
inline void* with_errno(void* block, int before) {
    errno = block != nullptr ? before : ENOMEM;
    return block;
}

// Returns a block of `size` uninitialised bytes, or null. Always inlined, as new_leaf() is: -Os
// would make it a call in each insertion.
[[gnu::always_inline]] inline void* new_block(size_t size) {
    const int before = errno;
    return with_errno(malloc(size), before);
}

// Returns a zeroed block, or null.
inline void* zeroed_block(size_t count, size_t size) {
    const int before = errno;
    return with_errno(calloc(count, size), before);
}

// Returns an array of `count` zeroed records, or null if memory is short or the size overflows.
template <class Record>
Record* new_records(size_t count) {
    static_assert(std::is_trivially_default_constructible_v<Record> &&
                      std::is_trivially_destructible_v<Record>,
                  "zeroed memory is a record, and free() releases it");
    return static_cast<Record*>(zeroed_block(count, sizeof(Record)));
}

template <class Record>
Record* new_record() {
    return new_records<Record>(1);
}

}  // namespace tessra

#endif
