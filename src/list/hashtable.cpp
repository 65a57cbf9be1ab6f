// The hash table core: a block that holds the number of buckets and an array of their list heads.

#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "list/hashtable_private.h"

using namespace tessra;

hashtable_t* hashtable_alloc(int elements) {
    constexpr size_t kHeads = offsetof(hashtable_t, hashlist);
    constexpr size_t kMostElements = (PTRDIFF_MAX - kHeads) / sizeof(hashlist_t);
    // At least one bucket, since hashtable_get_bucket() always returns one. A negative number
    // becomes a size_t above kMostElements.
    const auto count = static_cast<size_t>(elements != 0 ? elements : 1);
    if (count > kMostElements) {
        errno = ENOMEM;
        return nullptr;
    }
    auto* ht = static_cast<hashtable_t*>(new_block(kHeads + count * sizeof(hashlist_t)));
    if (ht == nullptr) return nullptr;
    ht->size = elements;
    for (size_t bucket = 0; bucket < count; ++bucket) list_init(&ht->hashlist[bucket].list);
    return ht;
}

hashlist_t* hashtable_get_index(hashtable_t* ht, unsigned int hash, int index) {
    if (ht == nullptr || index < 0) return nullptr;
    list_t* bucket = hashtable_get_bucket(ht, hash);
    list_t* node;
    dll_foreach(node, bucket) {
        auto* entry = record_of<hashlist_t>(node);
        if (entry->hash == hash && index-- == 0) return entry;
    }
    return nullptr;
}

void hashtable_iterate(hashtable_t* ht, hashtable_iterator_t iter, void* arg) {
    if (ht == nullptr) return;
    int bucket = 0;
    do {
        list_t* node;
        dll_foreach(node, &ht->hashlist[bucket].list) iter(record_of<hashlist_t>(node), arg);
    } while (++bucket < ht->size);
}

unsigned int hashtable_count(hashtable_t* ht) {
    unsigned int count = 0;
    for_each<hashlist_t>(ht, [&count](hashlist_t*) { ++count; });
    return count;
}

void hashtable_free(hashtable_t* ht, list_destructor_t destructor) {
    if (ht == nullptr) return;
    int bucket = 0;
    do {
        free_items(&ht->hashlist[bucket].list, destructor);
    } while (++bucket < ht->size);
    free(ht);
}
