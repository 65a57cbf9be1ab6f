/**
 * @file list.h
 * Intrusive circular doubly linked list; hash table, string hash table and named flags built on it.
 *
 * A list_t is both the head of a list and the node inside a listed record. The head belongs to no
 * record; an empty list is a head whose two links point to itself. A listed record has its list_t
 * as first member, so that the address of the node is the address of the record, and listing a
 * record costs no allocation. A record with one node is on at most one list at a time.
 *
 * The list owns nothing: whoever unlinks a record frees it. None of the inline operations allocates
 * or can fail.
 *
 * A hashtable_t is an array of such lists whose length never changes. Choose about as many buckets
 * as entries are expected: a search looks at every entry of one bucket. It is used in three ways,
 * one per table: directly, with records of the caller's own; as a string hash table through the
 * str_hashtable_ functions; as a set of names through the named_flag_ functions.
 *
 * Memory: blocks that change hands come from malloc() and go to free(). A function that runs out of
 * it sets errno to ENOMEM and, if it says nothing else, leaves list and table as they were; one
 * that succeeds leaves errno as it was, and one that frees memory where the C library's free()
 * does. Threads: lists and tables have no lock; the caller holds whatever guards them. Callbacks
 * run on the calling thread, inside the call. Blocks: never.
 *
 * Trap: free() is the plain one. It doesn't tell the tracker of memchk.h, which goes on reporting
 * tracked blocks as leaks after they are freed here; "Blocks that the library frees" there says
 * what to do.
 */
#ifndef TESSRA_LIST_H
#define TESSRA_LIST_H

#ifdef __cplusplus
extern "C" {
#endif

/** Head of a list, or the first member of a listed record. Not copyable: neighbours point to it. */
typedef struct list {
    struct list* next; /**< Following node; the head's first entry; the head after the last one. */
    struct list* prev; /**< Preceding node; the head's last entry; the head before the first one. */
} list_t;

/** Makes @p list an empty head. An entry that was on it is forgotten, not unlinked. */
static inline void list_init(list_t* list) {
    list->next = list;
    list->prev = list;
}

/**
 * Links an entry between two adjacent nodes.
 *
 * @param entry   record to link, on no list
 * @param before  node that will precede @p entry; may be the head
 * @param after   node that will follow it, now the successor of @p before; may be the head
 */
static inline void list_insert(list_t* entry, list_t* before, list_t* after) {
    before->next = entry;
    after->prev = entry;
    entry->next = after;
    entry->prev = before;
}

/** Links @p entry, which is on no list, as the first entry of @p list. */
static inline void list_add_head(list_t* list, list_t* entry) {
    list_insert(entry, list, list->next);
}

/** Links @p entry, which is on no list, as the last entry of @p list. */
static inline void list_add_tail(list_t* list, list_t* entry) {
    list_insert(entry, list->prev, list);
}

/**
 * Unlinks @p entry from the list that it is on and sets both its links to null. Frees nothing.
 * Trap: an entry that is on no list (null links) must not be given.
 */
static inline void list_delete(list_t* entry) {
    entry->next->prev = entry->prev;
    entry->prev->next = entry->next;
#ifdef __cplusplus
    entry->next = entry->prev = nullptr;
#else
    entry->next = entry->prev = 0;
#endif
}

/** @cond */
#define TESSRA_LIST_PASTE3(a, b, c) a##b##c
#define TESSRA_LIST_SAVED(line) TESSRA_LIST_PASTE3(_dll_x, line, _unique)
#define TESSRA_LIST_FOREACH(saved, cursor, head)                                        \
    for (list_t* saved = ((cursor) = (head)->next, (cursor)->next); (cursor) != (head); \
         (cursor) = saved, saved = (cursor)->next)
/** @endcond */

/**
 * Safe walk: runs the statement that follows once for each entry, first to last.
 *
 * @param cursor  a variable of type list_t*; the entry in the body, the head after a full walk
 * @param head    a list_t*; evaluated several times
 *
 * The successor is saved before the body runs, so the body may unlink and free the entry under the
 * cursor, and that entry only. Walks nest, each on a source line of its own.
 */
#define dll_foreach(cursor, head) TESSRA_LIST_FOREACH(TESSRA_LIST_SAVED(__LINE__), cursor, head)

#pragma GCC visibility push(default)

/** Disposes of the record that @p entry is the first member of. Gets it with its links as they were
 * in the list, which already points to freed records: it must not unlink it. */
typedef void (*list_destructor_t)(list_t* entry);

/**
 * Disposes of every entry of a list, first to last, reading each one's successor beforehand.
 *
 * @param l           head; NULL is allowed and does nothing
 * @param destructor  called for each entry; NULL to free() each entry as one block
 *
 * Trap: the head isn't touched and afterwards points to what was freed. Before it is used again it
 * goes through list_init().
 */
void list_free_items(list_t* l, list_destructor_t destructor);

/** list_free_items(), then free() of the head @p l, a block of its own. NULL does nothing. */
void list_free(list_t* l, list_destructor_t destructor);

/**
 * @name Hash table
 * A chained table of records that belong to the caller and begin with a hashlist_t. It knows hashes
 * and no keys: equal hashes may stand side by side, and the caller tells their records apart.
 *
 *     struct station { hashlist_t list; char mac[18]; int rssi; };      // the caller's record
 *
 *     hashtable_t* stations = hashtable_alloc(64);
 *     hashtable_put(stations, strhash(s->mac), &s->list);
 *
 *     const unsigned int hash = strhash(mac);
 *     hashlist_t* entry;
 *     for (int n = 0; (entry = hashtable_get_index(stations, hash, n)) != NULL; n++)
 *         if (strcmp(((struct station*)entry)->mac, mac) == 0) break;   // entry is the station
 *
 *     hashtable_free(stations, NULL);
 * @{
 */

/** First member of a record in a table. Not copyable while it is there. */
typedef struct hashlist {
    list_t list;       /**< Link in the bucket; first, so that all three share one address. */
    unsigned int hash; /**< The whole hash, as given to hashtable_put(). */
} hashlist_t;

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wpedantic" /* C++ has no name for an array of any length. */
/** A table: one block, made by hashtable_alloc(). Fields are for reading. */
typedef struct hashtable {
    int size;              /**< Number of buckets. */
    hashlist_t hashlist[]; /**< Their heads, of which only the list is used. */
} hashtable_t;
#pragma GCC diagnostic pop

/**
 * Called for one entry of a walk. It may unlink and free that entry, and must not remove another
 * one. It may add entries, which the walk may meet: one that adds an entry each time may not end.
 * @param arg  as given to the walk
 */
typedef void (*hashtable_iterator_t)(hashlist_t* entry, void* arg);

/**
 * Makes a table of @p elements empty buckets.
 *
 * @param elements  fixed for the table's life. Any positive number will do, prime or not. With 0
 *                  the table has one bucket that its size doesn't count.
 *
 * Returns the table, which the caller ends with hashtable_free() or str_hashtable_free(), or NULL
 * with errno ENOMEM: no memory, a size beyond what a block can have, or a negative number.
 */
hashtable_t* hashtable_alloc(int elements);

/** Returns the head of the bucket of @p hash, number @p hash modulo size, for a dll_foreach(). */
static inline list_t* hashtable_get_bucket(hashtable_t* ht, unsigned int hash) {
    const unsigned int size = (unsigned int)ht->size;
    const unsigned int mask =
        size - (size != 0); /* Of a power of two; small processors divide in software. */
    return &ht->hashlist[(size & mask) == 0 ? hash & mask : hash % size].list;
}

/**
 * Adds a record at the end of its bucket.
 *
 * @param ht    not null
 * @param hash  stored in the record
 * @param data  first member of the record, which is in no table; it stays the caller's, who unlinks
 *              and frees it or leaves that to hashtable_free()
 *
 * Nothing is looked up: a record with the same hash stays where it is, in front of the new one.
 */
static inline void hashtable_put(hashtable_t* ht, unsigned int hash, hashlist_t* data) {
    data->hash = hash;
    list_add_tail(hashtable_get_bucket(ht, hash), &data->list);
}

/** Unlinks the record @p list from the table that it is in. Frees nothing. */
static inline void hashtable_delete(hashlist_t* list) { list_delete(&list->list); }

/**
 * Returns entry number @p index, counted from 0 and oldest first, of those with exactly this hash.
 * Returns NULL if there is none, for a negative @p index, and when @p ht is NULL.
 */
hashlist_t* hashtable_get_index(hashtable_t* ht, unsigned int hash, int index);

/**
 * Calls @p iter, not null, for every entry: bucket by bucket, oldest first in each. NULL for @p ht
 * is allowed and does nothing.
 */
void hashtable_iterate(hashtable_t* ht, hashtable_iterator_t iter, void* arg);

/** Returns the number of entries, 0 for NULL. It is counted: size plus entries steps. */
unsigned int hashtable_count(hashtable_t* ht);

/**
 * Disposes of every entry in the manner of list_free_items() and frees the table.
 *
 * @param ht          NULL is allowed and does nothing
 * @param destructor  called for each entry; NULL to free() each entry as one block
 *
 * Trap: a string hash table goes through str_hashtable_free(), or its keys and values leak.
 */
void hashtable_free(hashtable_t* ht, list_destructor_t destructor);

/**
 * Returns the hash of a string, not null: lookup2 (Jenkins, "Hash Functions", Dr. Dobb's Journal,
 * September 1997) of its bytes without the NUL, from the seed 0xdeadbeef.
 *
 * The same in every process and on every machine. The seed is no secret: who chooses the keys can
 * put them all into one bucket, so a table of what strangers send needs a limit on its entries.
 */
unsigned int strhash(const char* k);

/** @} */

/**
 * @name String hash table
 * Strings to pointers, any number of pointers to a string. The entries of a key keep the order of
 * their adding and are numbered from 0, oldest first; a removal moves the later ones down by one.
 * The table is one of hashtable_alloc(). hashtable_count() and hashtable_iterate() work on it, too.
 *
 * Who frees what. str_hashtable_put() takes over key and value, without copying either:
 *
 * | Way out of the table               | key   | value               |
 * | ---------------------------------- | ----- | ------------------- |
 * | str_hashtable_delete_index         | freed | freed               |
 * | str_hashtable_free                 | freed | freed               |
 * | str_hashtable_get_and_remove_index | freed | goes to the caller  |
 * | str_hashtable_filter               | freed | goes to the filter  |
 *
 * So each key is a block of its own, e.g. of strdup(), and never that of another entry. A value
 * that can meet one of the first two ways is such a block or NULL; others must leave by the last
 * two. Key and value that are tracked by memchk.h go through remove_allocation() when
 * str_hashtable_put() has taken them over, or they are reported as leaks once the table frees them.
 * @{
 */

/** An entry: one block, made by str_hashtable_put(). */
typedef struct string_hash {
    hashlist_t list; /**< Link and strhash() of the key. */
    char* key;       /**< Owned by the table. */
    void* value;     /**< Owned by the table; may be NULL. */
} string_hash_t;

/** An item of the list that str_hashtable_values() makes: one block. */
typedef struct ptr_list {
    list_t list;   /**< The link. */
    void* pointer; /**< A value, still the table's. */
} ptr_list_t;

/**
 * Called for one entry of a walk. It may remove that entry, e.g. with str_hashtable_delete_index(),
 * which also ends @p key, and must not remove another one. It may add entries, which the walk may
 * meet: one that adds an entry each time may not end.
 */
typedef void (*str_hashtable_iterator_t)(char* key, void* value, void* arg);

/**
 * Judges one entry. Returns 0 to remove it, and has then taken over @p value; anything else keeps
 * it. It must not remove or add entries by itself.
 */
typedef int (*str_hashtable_filter_t)(void* value, void* arg);

/**
 * Adds an entry behind those that the key has.
 *
 * @param ht     the table
 * @param key    a string in a block of its own; the table's from now on
 * @param value  the table's from now on; NULL is allowed
 *
 * Returns @p value. Returns NULL if nothing was added, with errno ENOMEM, or EINVAL if @p ht or
 * @p key is NULL; key and value are then still the caller's. Set errno to 0 before the call to tell
 * this from a @p value of NULL.
 */
void* str_hashtable_put(hashtable_t* ht, char* key, void* value);

/**
 * Returns the value of entry number @p index of @p key, which stays the table's. Returns NULL if
 * there is no such entry, for a negative @p index, when @p ht or @p key is NULL, and for a stored
 * NULL: str_hashtable_count() can tell.
 */
void* str_hashtable_get_index(hashtable_t* ht, const char* key, int index);

/**
 * Removes entry number @p index of @p key and returns its value, which is the caller's from now on.
 * The results are those of str_hashtable_get_index().
 */
void* str_hashtable_get_and_remove_index(hashtable_t* ht, const char* key, int index);

/** Removes entry number @p index of @p key, if there is one, and frees its value with it. */
void str_hashtable_delete_index(hashtable_t* ht, const char* key, int index);

/** Returns the number of entries of @p key, or of all if @p key is NULL. 0 when @p ht is NULL. */
unsigned int str_hashtable_count(hashtable_t* ht, const char* key);

/** Calls @p iter, not null, for every entry in the order of hashtable_iterate(). */
void str_hashtable_iterate(hashtable_t* ht, str_hashtable_iterator_t iter, void* arg);

/**
 * Makes a list of all values: one ptr_list_t for each entry, in the order of hashtable_iterate().
 *
 * @param ht    NULL gives an empty list
 * @param list  the caller's head, initialised here; entries that it had are forgotten, not freed
 *
 * The items are the caller's: list_free_items(list, NULL) ends them. The values aren't: a pointer
 * is good for as long as its entry's value. Failure: an empty list and ENOMEM.
 */
void str_hashtable_values(hashtable_t* ht, list_t* list);

/**
 * Asks @p filter about every entry of @p key, oldest first, or about every entry of the table in
 * the order of hashtable_iterate() if @p key is NULL, and removes those that it returns 0 for.
 *
 * The keys are freed when the walk is over, the values never. NULL for @p ht or @p filter does
 * nothing.
 */
void str_hashtable_filter(hashtable_t* ht, const char* key, str_hashtable_filter_t filter,
                          void* arg);

/** Frees all keys, values and entries, and the table. NULL is allowed and does nothing. */
void str_hashtable_free(hashtable_t* ht);

/** @} */

/**
 * @name Named flags
 * A set of names. The table is one of hashtable_alloc(), hashtable_count() gives the number of
 * flags that are set, and hashtable_free(ht, NULL) ends them all.
 * @{
 */

/**
 * Called for one flag of a walk. It may clear that flag, which also ends @p name; it must not clear
 * another one. It may set flags; whether the walk meets them is left open.
 */
typedef void (*named_flag_iterator_t)(const char* name, void* arg);

/**
 * Sets a flag; setting it again changes nothing.
 *
 * @param name  copied; any string, the empty one included
 *
 * Failure: the flag isn't set, and errno is ENOMEM, or EINVAL if @p ht or @p name is NULL.
 */
void named_flag_set(hashtable_t* ht, const char* name);

/** Clears a flag. Returns 1 if it was set, 0 if not and when @p ht or @p name is NULL. */
int named_flag_clr(hashtable_t* ht, const char* name);

/** Returns 1 if the flag is set, 0 if not and when @p ht or @p name is NULL. */
int named_flag_has(hashtable_t* ht, const char* name);

/**
 * Calls @p iter, not null, for every flag that is set, in the order of hashtable_iterate(). A name
 * is good for as long as its flag is set. NULL for @p ht does nothing.
 */
void named_flag_iterate(hashtable_t* ht, named_flag_iterator_t iter, void* arg);

/** @} */

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
