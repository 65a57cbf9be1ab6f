/**
 * @file memchk.h
 * Allocation tracking: which call sites leave blocks behind.
 *
 * A debugging aid for the leaks of a running daemon. The wrappers note each block with the file and
 * line of the call; each dump lists, by call site, the blocks that have lived through the whole
 * interval since the dump before and weren't there at the first one. The allocator isn't hooked:
 * only blocks of the wrappers are known.
 *
 * Switching it on. Allocate with the MEMCHK_ macros below and build with -DTESSRA_MEMCHK; without
 * it they are the plain calls and cost nothing. A C source that exists already gets a header of
 * the daemon's own, included last and in a build with -DTESSRA_MEMCHK alone:
 *
 *     #define malloc(size) MEMCHK_CALLOC(1, size)
 *     #define calloc(count, size) MEMCHK_CALLOC(count, size)
 *     #define strdup(text) MEMCHK_STRDUP(text)
 *     #define free(block) MEMCHK_FREE(block)
 *
 * In both cases a timer calls dump_allocation_tree(), first when the daemon has settled, then at an
 * interval longer than any healthy block lives.
 *
 * Five dumps. "[ 3 allocations from a.c 30 ]" (tabs in reality) says that 3 blocks made at line 30
 * of a.c have been alive at this dump and the one before, and weren't at the first:
 *
 *     1  nothing listed  what is alive now (configuration, caches) is excused for good
 *     2  nothing listed  what has come since is noted
 *     3  3 from a.c 30   made between 1 and 2 and still there
 *        1 from a.c 10
 *     4  5 from a.c 30   two more, made between 2 and 3
 *        1 from a.c 10
 *     5  8 from a.c 30   grows from dump to dump: a leak
 *        1 from a.c 10   stays: something that is made once, on first use
 *
 * Traps. The tracker knows blocks by address, and dumps remember bare addresses: a new block in the
 * place of one that was alive at the first dump is never listed (unless that dump ran out of
 * memory), and one in the place of a block of the dump before is listed one dump early. So a site
 * whose count wavers is busy and doesn't leak.
 * A block handed to plain free() or realloc() counts as alive, also when its address comes back
 * from another site: give it back with memchk_free(), and don't resize it.
 *
 * Blocks that the library frees. The library itself calls plain free(), so tracked blocks that it
 * frees are reported as leaks. These are the keys and values of a string hash table, and the
 * records that list_free_items(), list_free() and hashtable_free() dispose of without a destructor.
 * Call remove_allocation() for key and value when str_hashtable_put() has taken them over, and give
 * lists and tables of tracked records a destructor that calls MEMCHK_FREE(). Blocks that the
 * library hands out (of BT_pairs(), base64_encode_alloc()) aren't tracked; memchk_free() frees them
 * like any other.
 *
 * Cost. A wrapper's allocation and its memchk_free() take, besides their own, one more pair of
 * malloc() and free(), and two ways down and up a balanced tree of all live blocks, of about log2
 * of their number steps each. With 32-bit pointers a live block takes 44 bytes in one block of the
 * allocator, 4 more if the latest dump found it, and again 4 if the first one did, in one block per
 * dump; a dump takes 4 per live block and a little per call site while it runs. The records go with
 * their block, what dumps remember stays until the process ends.
 *
 * Threads: no locks. A daemon with several threads holds one mutex of its own around every call,
 * the dump included; p_compare() alone may run anywhere, any time. Signal handlers: never, since
 * all of it allocates or walks what the handler may have interrupted. After fork() the child has
 * its own copy of everything.
 *
 * Failure. When memory runs out for the tracker itself, the daemon's block is handed out all the
 * same and errno is ENOMEM: set it to 0 before the call to tell. Such a block is untracked, is
 * never listed (unless its address was tracked already), and goes to memchk_free() like any other.
 */
#ifndef TESSRA_MEMCHK_H
#define TESSRA_MEMCHK_H

#include <errno.h>
#include <limits.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#ifdef __cplusplus
extern "C" {
#endif

#pragma GCC visibility push(default)

/**
 * @name Wrappers
 * All take the call site: @p file, a name that stays valid and unchanged as long as the process
 * lives (normally __FILE__), and @p line. Blocks are given back with memchk_free(). Sites are told
 * apart by the address of @p file, not by its text: two copies of a name make two lines.
 * @{
 */

/**
 * calloc() of @p size times @p count bytes, tracked. Mind the order of the two.
 *
 * Returns the zeroed block, or NULL with errno ENOMEM, also for a product beyond size_t. The size
 * that is noted is the product modulo 2^32. For a product of 0 see calloc(); a NULL isn't tracked.
 */
void* memchk_calloc(unsigned int size, unsigned int count, const char* file, unsigned int line);

/** strdup() of @p todup, not null, tracked. Returns the copy, or NULL with errno ENOMEM. */
char* memchk_dup(const char* todup, const char* file, unsigned int line);

/**
 * strndup(), tracked: a terminated copy of at most @p n characters of @p todup, not null. Looks at
 * no more than @p n of them. Returns the copy, or NULL with errno ENOMEM.
 */
char* memchk_n_dup(const char* todup, unsigned int n, const char* file, unsigned int line);

/**
 * Forgets a block and frees it; one that isn't tracked is freed all the same. NULL does nothing.
 * Trap: as with free(), a second call for the same block corrupts the heap.
 *
 * @param file,line  of the call; ignored
 */
void memchk_free(void* tofree, const char* file, unsigned int line);

/** @} */

/**
 * @name Switchable calls
 * For the daemon's source, with the arguments and results of the calls that they stand for: tracked
 * with TESSRA_MEMCHK defined, else the plain ones. As a function they evaluate arguments once.
 * Everything that may meet the same block is to be built with the same setting. All sites of
 * one source file share one __FILE__, since compilers keep one copy of equal literals.
 * @{
 */
#ifdef TESSRA_MEMCHK
/** calloc(count, size). With 64-bit pointers, count and size above 32 bits give NULL, ENOMEM. */
#define MEMCHK_CALLOC(count, size) tessra_memchk_calloc(count, size, __FILE__, __LINE__)
/** strdup(todup). */
#define MEMCHK_STRDUP(todup) memchk_dup(todup, __FILE__, __LINE__)
/** strndup(todup, n). With 64-bit pointers, @p n above 32 bits counts as 2^32 - 1. */
#define MEMCHK_STRNDUP(todup, n) tessra_memchk_n_dup(todup, n, __FILE__, __LINE__)
/** free(tofree). */
#define MEMCHK_FREE(tofree) memchk_free(tofree, __FILE__, __LINE__)
#else
#define MEMCHK_CALLOC(count, size) calloc(count, size)
#define MEMCHK_STRDUP(todup) strdup(todup)
#define MEMCHK_STRNDUP(todup, n) strndup(todup, n)
#define MEMCHK_FREE(tofree) free(tofree)
#endif
/** @} */

/** @cond */
static inline void* tessra_memchk_calloc(size_t count, size_t size, const char* file,
                                         unsigned int line) {
    const unsigned int fitting_size = size & UINT_MAX;
    const unsigned int fitting_count = count & UINT_MAX;
    if (fitting_size != size || fitting_count != count) {
        errno = ENOMEM;
#ifdef __cplusplus
        return nullptr;
#else
        return NULL;
#endif
    }
    return memchk_calloc(fitting_size, fitting_count, file, line);
}

static inline char* tessra_memchk_n_dup(const char* todup, size_t n, const char* file,
                                        unsigned int line) {
    const unsigned int fitting = n & UINT_MAX;
    return memchk_n_dup(todup, fitting == n ? fitting : UINT_MAX, file, line);
}
/** @endcond */

/**
 * @name Tracking of other allocators' blocks
 * @{
 */

/**
 * Enters a live block.
 *
 * @param pointer  its address; nothing is read there. NULL does nothing.
 * @param size     its length in bytes; kept for a debugger's eyes, not reported
 *
 * An address that is tracked already keeps its first site. Failure: ENOMEM; nothing changes.
 */
void add_allocation(void* pointer, const char* file, unsigned int line, unsigned int size);

/** Forgets a block without freeing it; to be called before its address can come back. An address
 * that isn't tracked, or NULL, does nothing. */
void remove_allocation(void* pointer);

/** @} */

/**
 * @name Report
 * @{
 */

/**
 * The daemon's log function: gets a level and a printf format with its arguments. It runs on the
 * thread of the dump and inside it. It may make tracked blocks; it must not free any, nor dump.
 */
typedef void (*pLog)(int level, char* format, ...);

/**
 * One dump: reports what has outlived the interval since the last one and starts the next interval.
 *
 * @param log_level  handed to @p logfunc unchanged
 * @param logfunc    not null; called once per line, which has no newline
 *
 * The lines are "allocation tree - start", one per call site with survivors, which reaches
 * @p logfunc by the format "%s", and "allocation tree - end". A site's line is a blank, "[", tab,
 * the number of blocks, tab, "allocations from", a blank, the file, tab, the line, tab, "]" and a
 * blank. More than 253 characters are cut at the end. Files come by falling address of their names,
 * within a file the highest line comes first.
 *
 * errno is ENOMEM afterwards if memory ran out, else what it was before. Then this report may list
 * too little. If the blocks alive now couldn't be noted, those noted last stand in for them, and a
 * block that has come since is listed one report later than otherwise. None is lost for good: all
 * blocks stay tracked, and all that were to be excused are.
 * Blocks: for the lines, and in proportion to the number of live blocks.
 */
void dump_allocation_tree(int log_level, pLog logfunc);

/**
 * The order of the tracker's trees: returns 1 if @p a is above @p b, -1 if it is below, 0 if they
 * are equal, as unsigned numbers. They have the width of an address. It isn't a BTCompare, whose
 * parameters are pointers: a tree gets a function of its own that calls it. Threads: any.
 */
int p_compare(uintptr_t a, uintptr_t b);

/** @} */

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
