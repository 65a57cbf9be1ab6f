// From a list node to the record that it is in.
#ifndef TESSRA_INTERNAL_RECORD_OF_H
#define TESSRA_INTERNAL_RECORD_OF_H

#include <cstddef>
#include <type_traits>

#include "tessra/list.h"

namespace tessra {

// For the node at `offset` of the record, which offsetof() gives.
template <class Record>
Record* record_of(list_t* node, size_t offset) {
    static_assert(std::is_standard_layout_v<Record>, "offsetof() is defined for such records only");
    return reinterpret_cast<Record*>(reinterpret_cast<char*>(node) - offset);
}

// For the node at the start of the record, named `list`: free() gets the node's address.
template <class Record>
Record* record_of(list_t* node) {
    static_assert(offsetof(Record, list) == 0, "a node's address is its record's address");
    static_assert(std::is_trivially_destructible_v<Record>, "free() releases it");
    return record_of<Record>(node, 0);
}

}  // namespace tessra

#endif
