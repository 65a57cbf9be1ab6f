// The hash table core's interface for the tables that are built on it.
#ifndef TESSRA_LIST_HASHTABLE_PRIVATE_H
#define TESSRA_LIST_HASHTABLE_PRIVATE_H

#include <cstdlib>
#include <cstring>

#include "internal/alloc.h"
#include "internal/record_of.h"
#include "tessra/list.h"

namespace tessra {

// Private names of strhash() and list_free_items().
unsigned int hash_of(const char* text);
void free_items(list_t* head, list_destructor_t destructor);

// hashtable_iterate() with a callable object, such as a lambda.
template <class Record, class Visit>
void for_each(hashtable_t* ht, Visit visit) {
    hashtable_iterate(
        ht,
        [](hashlist_t* entry, void* arg) {
            (*static_cast<Visit*>(arg))(record_of<Record>(&entry->list));
        },
        &visit);
}

// text_of() returns the text of a record.
template <class Record, const char* (*text_of)(const Record*)>
bool has_text(const Record* entry, unsigned int hash, const char* text) {
    return entry->list.hash == hash && strcmp(text_of(entry), text) == 0;
}

// Calls visit() for each entry whose text equals `text`, oldest first, until visit() returns false.
// visit() may unlink the entry.
template <class Record, const char* (*text_of)(const Record*), class Visit>
void for_each_match(hashtable_t* ht, const char* text, Visit visit) {
    const unsigned int hash = hash_of(text);
    list_t* bucket = hashtable_get_bucket(ht, hash);
    list_t* node;
    dll_foreach(node, bucket) {
        auto* entry = record_of<Record>(node);
        if (has_text<Record, text_of>(entry, hash, text) && !visit(entry)) return;
    }
}

}  // namespace tessra

#endif
