// The string hash table: entries that own a key and a value.

#include "list/hashtable_private.h"

namespace tessra {

namespace {

static_assert(sizeof(string_hash_t) == sizeof(hashlist_t) + 2 * sizeof(void*));
static_assert(sizeof(ptr_list_t) == sizeof(list_t) + sizeof(void*));

const char* key_of(const string_hash_t* entry) { return entry->key; }

string_hash_t* str_hashtable_get_entry(hashtable_t* ht, const char* key, int str_index) {
    if (ht == nullptr || key == nullptr || str_index < 0) return nullptr;
    // for_each_match() isn't used: its visitor would keep these variables in memory, and most calls
    // are look-ups.
    const unsigned int hash = hash_of(key);
    list_t* bucket = hashtable_get_bucket(ht, hash);
    for (list_t* node = bucket->next; node != bucket; node = node->next) {
        auto* entry = record_of<string_hash_t>(node);
        if (has_text<string_hash_t, key_of>(entry, hash, key) && str_index-- == 0) return entry;
    }
    return nullptr;
}

// Frees an entry and its key. Returns its value.
void* str_hash_free_and_value(string_hash_t* entry) {
    void* value = entry->value;
    free(entry->key);
    free(entry);
    return value;
}

void drop_without_value(list_t* node) {
    (void)str_hash_free_and_value(record_of<string_hash_t>(node));
}

void str_hash_free(list_t* node) { free(str_hash_free_and_value(record_of<string_hash_t>(node))); }

bool str_hashtable_value_collector(list_t* list, void* value) {
    auto* item = static_cast<ptr_list_t*>(new_block(sizeof(ptr_list_t)));
    if (item == nullptr) return false;
    item->pointer = value;
    list_add_tail(list, &item->list);
    return true;
}

}  // namespace

}  // namespace tessra

using namespace tessra;

void* str_hashtable_put(hashtable_t* ht, char* key, void* value) {
    if (ht == nullptr || key == nullptr) {
        errno = EINVAL;
        return nullptr;
    }
    auto* entry = static_cast<string_hash_t*>(new_block(sizeof(string_hash_t)));
    if (entry == nullptr) return nullptr;
    entry->key = key;
    entry->value = value;
    hashtable_put(ht, hash_of(key), &entry->list);
    return value;
}

void* str_hashtable_get_index(hashtable_t* ht, const char* key, int index) {
    const string_hash_t* entry = str_hashtable_get_entry(ht, key, index);
    return entry != nullptr ? entry->value : nullptr;
}

void* str_hashtable_get_and_remove_index(hashtable_t* ht, const char* key, int index) {
    string_hash_t* entry = str_hashtable_get_entry(ht, key, index);
    if (entry == nullptr) return nullptr;
    hashtable_delete(&entry->list);
    return str_hash_free_and_value(entry);
}

void str_hashtable_delete_index(hashtable_t* ht, const char* key, int index) {
    free(str_hashtable_get_and_remove_index(ht, key, index));
}

unsigned int str_hashtable_count(hashtable_t* ht, const char* key) {
    if (ht == nullptr || key == nullptr) return hashtable_count(ht);
    unsigned int count = 0;
    for_each_match<string_hash_t, key_of>(ht, key,
                                          [&count](string_hash_t*) { return ++count != 0; });
    return count;
}

void str_hashtable_iterate(hashtable_t* ht, str_hashtable_iterator_t iter, void* arg) {
    for_each<string_hash_t>(
        ht, [=](const string_hash_t* entry) { iter(entry->key, entry->value, arg); });
}

void str_hashtable_values(hashtable_t* ht, list_t* list) {
    list_init(list);
    bool complete = true;
    for_each<string_hash_t>(ht, [&](const string_hash_t* entry) {
        complete = complete && str_hashtable_value_collector(list, entry->value);
    });
    if (complete) return;
    // The caller would take a part of the values for all of them.
    free_items(list, nullptr);
    list_init(list);
    errno = ENOMEM;
}

// Rejected entries are freed only after the walk: `key` may be the key block of one of them.
void str_hashtable_filter(hashtable_t* ht, const char* key, str_hashtable_filter_t filter,
                          void* arg) {
    if (ht == nullptr || filter == nullptr) return;
    list_t rejected;
    list_init(&rejected);
    auto judge = [&](string_hash_t* entry) {
        if (filter(entry->value, arg) == 0) {
            hashtable_delete(&entry->list);
            list_add_tail(&rejected, &entry->list.list);
        }
        return true;
    };
    if (key != nullptr) {
        for_each_match<string_hash_t, key_of>(ht, key, judge);
    } else {
        for_each<string_hash_t>(ht, judge);
    }
    free_items(&rejected, drop_without_value);
}

void str_hashtable_free(hashtable_t* ht) { hashtable_free(ht, str_hash_free); }
