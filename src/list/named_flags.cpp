// Named flags: a set of strings, each in one block with its entry.

#include "list/hashtable_private.h"

namespace tessra {

namespace {

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wpedantic"
struct named_flag_t {
    hashlist_t list;
    char name[];  // NUL-terminated. In this block, so that hashtable_free() needs no destructor.
};
#pragma GCC diagnostic pop
static_assert(offsetof(named_flag_t, name) == sizeof(hashlist_t));

const char* name_of(const named_flag_t* flag) { return flag->name; }

named_flag_t* named_flag_get_entry(hashtable_t* ht, const char* name) {
    if (ht == nullptr || name == nullptr) return nullptr;
    named_flag_t* found = nullptr;
    for_each_match<named_flag_t, name_of>(ht, name, [&found](named_flag_t* flag) {
        found = flag;
        return false;
    });
    return found;
}

}  // namespace

}  // namespace tessra

using namespace tessra;

void named_flag_set(hashtable_t* ht, const char* name) {
    if (ht == nullptr || name == nullptr) {
        errno = EINVAL;
        return;
    }
    if (named_flag_get_entry(ht, name) != nullptr) return;
    const size_t length = strlen(name) + 1;
    auto* flag = static_cast<named_flag_t*>(new_block(offsetof(named_flag_t, name) + length));
    if (flag == nullptr) return;  // The caller reads errno.
    memcpy(flag->name, name, length);
    hashtable_put(ht, hash_of(name), &flag->list);
}

int named_flag_clr(hashtable_t* ht, const char* name) {
    named_flag_t* flag = named_flag_get_entry(ht, name);
    if (flag == nullptr) return 0;
    hashtable_delete(&flag->list);
    free(flag);
    return 1;
}

int named_flag_has(hashtable_t* ht, const char* name) {
    return named_flag_get_entry(ht, name) != nullptr ? 1 : 0;
}

void named_flag_iterate(hashtable_t* ht, named_flag_iterator_t iter, void* arg) {
    for_each<named_flag_t>(ht, [=](const named_flag_t* flag) { iter(flag->name, arg); });
}
