/**
 * @file list.h
 * Intrusive circular doubly linked list; hash table, string hash table and named flags built on it.
 *
 * A list_t is either the head of a list or the node inside a listed record. The head belongs to no
 * record; an empty list is a head whose two links point to itself. A listed record has its list_t
 * as first member, so the address of the node is the address of the record, and listing a record
 * needs no allocation. A record with one node is on at most one list at a time.
 *
 * The list owns nothing: the code that unlinks a record also frees it. None of the inline
 * operations allocates or can fail.
 *
 * A hashtable_t is an array of such lists. Its length never changes. Choose about as many buckets
 * as you expect entries: a search looks at every entry of one bucket. Each table is used in one of
 * three ways:
 * - directly, with records of the caller's own;
 * - as a string hash table, through the str_hashtable_ functions;
 * - as a set of names, through the named_flag_ functions.
 *
 * Memory: blocks that change their owner come from malloc() and go to free(). A function that can't
 * allocate sets errno to ENOMEM and leaves list and table as they were, unless its description says
 * otherwise. Calls that succeed leave errno as it was. For those that free memory, this is true
 * only if the C library's free() leaves errno as it was. Threads: lists and tables have no lock;
 * the caller must ensure that only one thread at a time uses them. Callbacks run on the calling
 * thread, inside the call. Blocks: never.
 *
 * Trap: these functions call the plain free(). The tracker of memchk.h doesn't see that, so it goes
 * on reporting a tracked block as a leak after a function has freed the block. The section "Blocks
 * that the library frees" of memchk.h describes the remedy.
 */
#ifndef TESSRA_LIST_H
#define TESSRA_LIST_H

#ifdef __cplusplus
extern "C" {
#endif

/** Head of a list, or first member of a listed record. Don't copy it: others point to it. */
typedef struct list {
    struct list* next; /**< Next node. In the head: the first entry. In the last entry: the head. */
    struct list* prev; /**< Previous one. In the head: the last entry. In the first: the head. */
} list_t;

/** Makes @p list an empty head. Doesn't unlink entries that are on it. */
static inline void list_init(list_t* list) {
    list->next = list;
    list->prev = list;
}

/**
 * Links an entry between two adjacent nodes.
 *
 * @param entry   record to link, which is on no list
 * @param before  node that will precede @p entry; may be the head
 * @param after   node that will follow @p entry, now the successor of @p before; may be the head
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
 * Trap: don't pass an entry that is on no list (its links are null).
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
 * Runs the statement that follows once for each entry, from the first to the last.
 *
 * @param cursor  a variable of type list_t*. It points to the entry in the body, and to the head
 *                after a full walk.
 * @param head    a list_t*; evaluated several times
 *
 * The walk saves the successor before the body runs, so the body may unlink and free the entry that
 * @p cursor points to, and no other one. Walks may nest if each is on a source line of its own.
 */
#define dll_foreach(cursor, head) TESSRA_LIST_FOREACH(TESSRA_LIST_SAVED(__LINE__), cursor, head)

#pragma GCC visibility push(default)

/** Disposes of the record whose first member is @p entry. The links of @p entry are still those of
 * the list and may point to freed records, so the destructor must not unlink it. */
typedef void (*list_destructor_t)(list_t* entry);

/**
 * Disposes of every entry of a list, from the first to the last. Reads the successor of each entry
 * before it disposes of the entry.
 *
 * @param l           head; for NULL the call does nothing
 * @param destructor  called for each entry; NULL to free() each entry as one block
 *
 * Trap: the head isn't changed, so afterwards it points to freed entries. Call list_init() before
 * you use it again.
 */
void list_free_items(list_t* l, list_destructor_t destructor);

/** Disposes of the entries as list_free_items() does, and frees the head @p l, which must be a
 * block of its own. Does nothing for NULL. */
void list_free(list_t* l, list_destructor_t destructor);

/**
 * @name Hash table
 * A chained table of records that belong to the caller and begin with a hashlist_t. It knows hashes
 * and no keys: several records may have the same hash, and the caller compares their keys.
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

/** First member of a record in a table. Don't copy it while it is there. */
typedef struct hashlist {
    list_t list;       /**< Link in the bucket; first, so that link and record share one address. */
    unsigned int hash; /**< The whole hash, as given to hashtable_put(). */
} hashlist_t;

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wpedantic" /* C++ has no flexible array members. */
/** A table: one block that hashtable_alloc() makes. Programs only read the fields. */
typedef struct hashtable {
    int size;              /**< Number of buckets. */
    hashlist_t hashlist[]; /**< The heads of the buckets. Only their field list is used. */
} hashtable_t;
#pragma GCC diagnostic pop

/**
 * Called for one entry of a walk. The iterator may unlink and free that entry, but must not remove
 * another one. It may add entries, and the walk may meet these: if the iterator adds an entry in
 * each call, the walk may never end.
 * @param arg  as given to the walk
 */
typedef void (*hashtable_iterator_t)(hashlist_t* entry, void* arg);

/**
 * Makes a table of @p elements empty buckets.
 *
 * @param elements  fixed for the table's life. Any positive number is good, prime or not. With 0
 *                  the table has one bucket, but its size is 0.
 *
 * Returns the table, which the caller frees with hashtable_free() or str_hashtable_free(). Returns
 * NULL with errno ENOMEM if there is no memory, if the table would be larger than any block can be,
 * or if @p elements is negative.
 */
hashtable_t* hashtable_alloc(int elements);

/** Returns the head of bucket number @p hash modulo size, which dll_foreach() can walk. */
static inline list_t* hashtable_get_bucket(hashtable_t* ht, unsigned int hash) {
    const unsigned int size = (unsigned int)ht->size;
    const unsigned int mask =
        size - (size != 0); /* For a power of two: small processors divide in software. */
    return &ht->hashlist[(size & mask) == 0 ? hash & mask : hash % size].list;
}

/**
 * Adds a record at the end of its bucket.
 *
 * @param ht    not null
 * @param hash  stored in the record
 * @param data  first member of the record, which is in no table. The record stays the caller's, who
 *              unlinks and frees it or leaves both to hashtable_free().
 *
 * The call doesn't search: a record with the same hash stays in the table, in front of the new one.
 */
static inline void hashtable_put(hashtable_t* ht, unsigned int hash, hashlist_t* data) {
    data->hash = hash;
    list_add_tail(hashtable_get_bucket(ht, hash), &data->list);
}

/** Unlinks the record @p list from its table. Frees nothing. */
static inline void hashtable_delete(hashlist_t* list) { list_delete(&list->list); }

/**
 * Returns one of the entries with exactly this hash: number @p index, counted from 0 for the
 * oldest. Returns NULL if there is none, if @p index is negative, or if @p ht is NULL.
 */
hashlist_t* hashtable_get_index(hashtable_t* ht, unsigned int hash, int index);

/**
 * Calls @p iter, which must not be null, for every entry: bucket by bucket, and in each bucket the
 * oldest first. Does nothing if @p ht is NULL.
 */
void hashtable_iterate(hashtable_t* ht, hashtable_iterator_t iter, void* arg);

/** Returns the number of entries; 0 for NULL. Counts them: one step per bucket and per entry. */
unsigned int hashtable_count(hashtable_t* ht);

/**
 * Disposes of every entry in the manner of list_free_items() and frees the table.
 *
 * @param ht          the table; for NULL the call does nothing
 * @param destructor  called for each entry; NULL to free() each entry as one block
 *
 * Trap: free a string hash table with str_hashtable_free(); this call leaks its keys and values.
 */
void hashtable_free(hashtable_t* ht, list_destructor_t destructor);

/**
 * Returns the hash of the string @p k, which must not be null: lookup2 (Jenkins, "Hash Functions",
 * Dr. Dobb's Journal, September 1997) of its bytes without the NUL, from the seed 0xdeadbeef.
 *
 * The hash is the same in every process and on every machine. The seed is no secret: an attacker
 * who chooses the keys can put them all into one bucket. So limit the number of entries in a table
 * of keys that strangers send.
 */
unsigned int strhash(const char* k);

/** @} */

/**
 * @name String hash table
 * Maps strings to pointers. A string may have any number of pointers. The entries of a key keep the
 * order in which they were added, and are numbered from 0 for the oldest. After a removal, the
 * numbers of the later entries are lower by one. hashtable_alloc() makes the table.
 * hashtable_count() and hashtable_iterate() work on it, too.
 *
 * Ownership. str_hashtable_put() takes over key and value and copies neither. These functions
 * remove entries:
 *
 * | Function                           | key   | value               |
 * | ---------------------------------- | ----- | ------------------- |
 * | str_hashtable_delete_index         | freed | freed               |
 * | str_hashtable_free                 | freed | freed               |
 * | str_hashtable_get_and_remove_index | freed | goes to the caller  |
 * | str_hashtable_filter               | freed | goes to the filter  |
 *
 * So each key is a block of its own, e.g. of strdup(), and never that of another entry. A value
 * that one of the first two functions may remove is such a block or NULL. Only the last two
 * functions may remove other values. If memchk.h tracks the key or the value, call
 * remove_allocation() for it after str_hashtable_put() has taken it over. Otherwise the tracker
 * reports it as a leak once the table has freed it.
 * @{
 */

/** An entry: one block that str_hashtable_put() makes. */
typedef struct string_hash {
    hashlist_t list; /**< Link and strhash() of the key. */
    char* key;       /**< Owned by the table. */
    void* value;     /**< Owned by the table; may be NULL. */
} string_hash_t;

/** An item of the list that str_hashtable_values() makes: one block. */
typedef struct ptr_list {
    list_t list;   /**< The link. */
    void* pointer; /**< A value, which the table still owns. */
} ptr_list_t;

/**
 * Called for one entry of a walk. The iterator may remove that entry, e.g. with
 * str_hashtable_delete_index(), which also frees @p key. It must not remove another one. It may add
 * entries, and the walk may meet these: if the iterator adds an entry in each call, the walk may
 * never end.
 */
typedef void (*str_hashtable_iterator_t)(char* key, void* value, void* arg);

/**
 * Decides whether an entry is removed. If the filter returns 0, it has taken over @p value, and the
 * entry is removed. Any other result keeps the entry. The filter must not itself remove or add
 * entries.
 */
typedef int (*str_hashtable_filter_t)(void* value, void* arg);

/**
 * Adds an entry behind those that the key has.
 *
 * @param ht     the table
 * @param key    a string in a block of its own, which the table takes over
 * @param value  a block that the table takes over, see above; may be NULL
 *
 * Returns @p value. If nothing was added, returns NULL with errno ENOMEM, or EINVAL if @p ht or
 * @p key is NULL; key and value then still belong to the caller. To distinguish this from a
 * @p value of NULL, set errno to 0 before the call.
 */
void* str_hashtable_put(hashtable_t* ht, char* key, void* value);

/**
 * Returns the value of entry number @p index of @p key. The table still owns the value. Returns
 * NULL in these cases:
 * - There is no such entry, or @p index is negative.
 * - @p ht or @p key is NULL.
 * - The stored value is NULL. The caller can detect this case with str_hashtable_count().
 */
void* str_hashtable_get_index(hashtable_t* ht, const char* key, int index);

/**
 * Removes entry number @p index of @p key and returns its value, which the caller then owns. The
 * results are the same as those of str_hashtable_get_index().
 */
void* str_hashtable_get_and_remove_index(hashtable_t* ht, const char* key, int index);

/** Removes entry number @p index of @p key, if there is one, and frees its value. */
void str_hashtable_delete_index(hashtable_t* ht, const char* key, int index);

/** Returns the number of entries of @p key, or of all if @p key is NULL; 0 if @p ht is NULL. */
unsigned int str_hashtable_count(hashtable_t* ht, const char* key);

/** Calls @p iter, which must not be null, for every entry in the order of hashtable_iterate(). */
void str_hashtable_iterate(hashtable_t* ht, str_hashtable_iterator_t iter, void* arg);

/**
 * Makes a list of all values: one ptr_list_t for each entry, in the order of hashtable_iterate().
 *
 * @param ht    the table; NULL gives an empty list
 * @param list  the caller's head, which the call initialises; it frees no entries that are on it
 *
 * The caller owns the items and frees them with list_free_items(list, NULL). The table still owns
 * the values: a pointer is valid as long as the value of its entry. After a failure the list is
 * empty, and errno is ENOMEM.
 */
void str_hashtable_values(hashtable_t* ht, list_t* list);

/**
 * Calls @p filter for every entry of @p key, oldest first, and removes the entries for which the
 * filter returns 0. If @p key is NULL, calls it for every entry of the table, in the order of
 * hashtable_iterate().
 *
 * Frees the removed keys after the walk, and never a value. Does nothing if @p ht or @p filter is
 * NULL.
 */
void str_hashtable_filter(hashtable_t* ht, const char* key, str_hashtable_filter_t filter,
                          void* arg);

/** Frees all keys, values and entries, and the table. Does nothing for NULL. */
void str_hashtable_free(hashtable_t* ht);

/** @} */

/**
 * @name Named flags
 * A set of names. hashtable_alloc() makes the table, hashtable_count() returns the number of flags
 * that are set, and hashtable_free(ht, NULL) frees all flags and the table.
 * @{
 */

/**
 * Called for one flag of a walk. The iterator may clear that flag, which also frees @p name. It
 * must not clear another one. It may set flags, and the walk may or may not meet these.
 */
typedef void (*named_flag_iterator_t)(const char* name, void* arg);

/**
 * Sets a flag; setting it again changes nothing.
 *
 * @param name  any string, also the empty one; the call copies it
 *
 * After a failure the flag isn't set, and errno is ENOMEM, or EINVAL if @p ht or @p name is NULL.
 */
void named_flag_set(hashtable_t* ht, const char* name);

/** Clears a flag. Returns 1 if it was set, else 0. Returns 0 if @p ht or @p name is NULL. */
int named_flag_clr(hashtable_t* ht, const char* name);

/** Returns 1 if the flag is set, else 0. Returns 0 if @p ht or @p name is NULL. */
int named_flag_has(hashtable_t* ht, const char* name);

/**
 * Calls @p iter, which must not be null, for every flag that is set, in the order of
 * hashtable_iterate(). A name is valid as long as its flag is set. Does nothing if @p ht is NULL.
 */
void named_flag_iterate(hashtable_t* ht, named_flag_iterator_t iter, void* arg);

/** @} */

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
