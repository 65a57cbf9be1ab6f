// The operations of the intrusive list that the header doesn't have inline.

#include <cstdlib>

#include "list/hashtable_private.h"

using namespace tessra;

[[gnu::weak]] void list_free_items(list_t* l, list_destructor_t destructor) {
    if (l == nullptr) return;
    list_t* node;
    dll_foreach(node, l) {
        if (destructor != nullptr) {
            destructor(node);
        } else {
            free(node);
        }
    }
}

[[gnu::alias("list_free_items")]] void tessra::free_items(list_t* head,
                                                          list_destructor_t destructor);

[[gnu::weak]] void list_free(list_t* l, list_destructor_t destructor) {
    free_items(l, destructor);
    free(l);
}
