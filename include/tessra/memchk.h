/**
 * @file memchk.h
 * Allocation tracking: the call sites whose blocks outlive an interval.
 *
 * This module helps to find leaks in a running daemon. The wrappers note each block with the file
 * and line of the call. Each dump lists, by call site, the blocks that have lived through the whole
 * interval since the previous dump and didn't exist at the first one. The allocator isn't hooked:
 * the tracker only knows the blocks of the wrappers and of add_allocation().
 *
 * Tracking is optional. Allocate with the MEMCHK_ macros below and build with -DTESSRA_MEMCHK.
 * Without this option the macros are the plain calls and cost nothing. For C sources that exist
 * already, write a header like the following. Include it last, and only in a build with
 * -DTESSRA_MEMCHK:
 *
 *     #define malloc(size) MEMCHK_CALLOC(1, size)
 *     #define calloc(count, size) MEMCHK_CALLOC(count, size)
 *     #define strdup(text) MEMCHK_STRDUP(text)
 *     #define free(block) MEMCHK_FREE(block)
 *
 * In both cases a timer calls dump_allocation_tree(): first when the daemon has settled, then at an
 * interval that is longer than the life of any block that the daemon frees.
 *
 * Five dumps. "[ 3 allocations from a.c 30 ]" (with tabs in the real line) means that 3 blocks made
 * at line 30 of a.c are alive at this dump, were alive at the previous one, and weren't alive at
 * the first:
 *
 *     1  nothing listed  blocks that are alive now (configuration, caches) are never listed
 *     2  nothing listed  blocks made since dump 1 are noted
 *     3  3 from a.c 30   made between 1 and 2 and still alive
 *        1 from a.c 10
 *     4  5 from a.c 30   two more, made between 2 and 3
 *        1 from a.c 10
 *     5  8 from a.c 30   grows from dump to dump: a leak
 *        1 from a.c 10   stays the same: a block that is made once, on first use
 *
 * Traps. The tracker knows blocks by address, and dumps remember only addresses. A new block at the
 * address of one that was alive at the first dump is never listed, unless that dump ran out of
 * memory. A new block at the address of one that was alive at the previous dump is listed one dump
 * early. So a site whose count goes up and down is busy and doesn't leak.
 * A block that is passed to plain free() or realloc() still counts as alive, even if its address
 * comes back from another site. So free tracked blocks with memchk_free(), and don't resize them.
 *
 * Blocks that the library frees. The library itself calls plain free(), so tracked blocks that it
 * frees are reported as leaks. These are the keys and values of a string hash table, and the
 * records that list_free_items(), list_free() and hashtable_free() dispose of without a destructor.
 * Call remove_allocation() for key and value when str_hashtable_put() has taken them over. Give
 * lists and tables of tracked records a destructor that calls MEMCHK_FREE(). Blocks that the
 * library hands out (of BT_pairs(), base64_encode_alloc()) aren't tracked; memchk_free() frees them
 * like any other.
 *
 * Cost in time. A wrapper's allocation and its memchk_free() together need one more malloc() and
 * one more free(). They also go twice down and up a balanced tree of all n live blocks, each time
 * in about log2(n) steps.
 *
 * Cost in memory, with 32-bit pointers. A live block needs 44 bytes in a block of the allocator. It
 * needs 4 bytes more if the latest dump found it, and again 4 if the first dump did; each of these
 * dumps has one block of the allocator. While a dump runs, it needs 4 bytes per live block and a
 * little per call site. A record is freed with its block. The addresses that dumps remember stay
 * until the process exits.
 *
 * Threads: the module has no locks. A daemon with several threads must hold one mutex of its own
 * around every call, also around a dump. Only p_compare() may run anywhere, at any time. Signal
 * handlers: never, since each call allocates, or walks data that the interrupted code may be
 * changing. After fork() the child has its own copy of everything.
 *
 * Failure. If memory runs out for the tracker itself, the wrapper still returns the daemon's block,
 * and errno is ENOMEM. To detect this, set errno to 0 before the call. Such a block is untracked
 * and is never listed (unless its address was already tracked); memchk_free() frees it like any
 * other.
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
 * All wrappers take the call site: @p file, a name that stays valid and unchanged until the process
 * exits (normally __FILE__), and @p line. Free their blocks with memchk_free(). The tracker
 * compares the address of @p file, not its text: two copies of a name make two lines in a dump.
 * @{
 */

/**
 * Allocates @p size times @p count bytes with calloc() and tracks the block. Trap: calloc() has the
 * two numbers in the other order.
 *
 * Returns the zeroed block, or NULL with errno ENOMEM, also for a product beyond size_t. The size
 * that the tracker notes is the product modulo 2^32. A product of 0 gives the result of calloc(); a
 * NULL isn't tracked.
 */
void* memchk_calloc(unsigned int size, unsigned int count, const char* file, unsigned int line);

/** Copies @p todup, which must not be null, with strdup() and tracks the copy. Returns the copy, or
 * NULL with errno ENOMEM. */
char* memchk_dup(const char* todup, const char* file, unsigned int line);

/**
 * Copies at most @p n characters of @p todup, which must not be null, with strndup() and tracks the
 * copy, which has a terminator. Looks at no more than @p n characters. Returns the copy, or NULL
 * with errno ENOMEM.
 */
char* memchk_n_dup(const char* todup, unsigned int n, const char* file, unsigned int line);

/**
 * Removes the record of a block, if there is one, and frees the block. Does nothing for NULL.
 * Trap: as with free(), a second call for the same block corrupts the heap.
 *
 * @param file,line  the call site; ignored
 */
void memchk_free(void* tofree, const char* file, unsigned int line);

/** @} */

/**
 * @name Switchable calls
 * Macros for the daemon's source, with the arguments and results of the calls that they replace. If
 * TESSRA_MEMCHK is defined, they track blocks, else they are the plain calls. Like functions, they
 * evaluate arguments once. Build all sources that may handle the same block with the same setting.
 * All sites of one source file share one __FILE__, since compilers keep one copy of equal literals.
 * @{
 */
#ifdef TESSRA_MEMCHK
/** Replaces calloc(count, size). With 64-bit pointers, a count or size above 32 bits gives NULL
 * with errno ENOMEM. */
#define MEMCHK_CALLOC(count, size) tessra_memchk_calloc(count, size, __FILE__, __LINE__)
/** Replaces strdup(todup). */
#define MEMCHK_STRDUP(todup) memchk_dup(todup, __FILE__, __LINE__)
/** Replaces strndup(todup, n). With 64-bit pointers, @p n above 32 bits counts as 2^32 - 1. */
#define MEMCHK_STRNDUP(todup, n) tessra_memchk_n_dup(todup, n, __FILE__, __LINE__)
/** Replaces free(tofree). */
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
 * @param pointer  address of the block, which the call doesn't read; for NULL it does nothing
 * @param size     length of the block in bytes; not reported, but visible in a debugger
 *
 * An address that is already tracked keeps its first site. After a failure nothing has changed, and
 * errno is ENOMEM.
 */
void add_allocation(void* pointer, const char* file, unsigned int line, unsigned int size);

/** Removes the record of a block but doesn't free the block. Call this before an allocator can
 * return the address again. Does nothing for an address that isn't tracked, or for NULL. */
void remove_allocation(void* pointer);

/** @} */

/**
 * @name Report
 * @{
 */

/**
 * The daemon's log function. It receives a level and a printf format with its arguments. It runs on
 * the thread of the dump and inside the dump. It may make tracked blocks. It must not free one, and
 * must not start a dump.
 */
typedef void (*pLog)(int level, char* format, ...);

/**
 * Makes a dump: reports the blocks that have outlived the interval since the last dump, and starts
 * the next interval.
 *
 * @param log_level  handed to @p logfunc unchanged
 * @param logfunc    not null; called once per line, which has no newline
 *
 * The first line is "allocation tree - start", the last one "allocation tree - end". Between them
 * there is one line per call site with survivors, which the format "%s" passes to @p logfunc. This
 * line has a blank, "[", tab, the number of blocks, tab, "allocations from", a blank, the file,
 * tab, the line, tab, "]" and a blank. It is cut after 253 characters. The file whose name has the
 * highest address comes first, and within a file the highest line.
 *
 * If memory ran out, errno is ENOMEM afterwards, else errno stays as it was. After ENOMEM this
 * report may be incomplete. If there was no memory to note the blocks that are alive now, the
 * blocks noted last are kept, and a block made since then is listed one report later than
 * otherwise. No block is lost for good: all stay tracked. Those of the first dump stay unlisted.
 * Blocks: for the lines, and in proportion to the number of live blocks.
 */
void dump_allocation_tree(int log_level, pLog logfunc);

/**
 * Compares in the order of the tracker's trees: returns 1 if @p a is above @p b, -1 if it is below,
 * 0 if they are equal. Both are unsigned numbers with the width of an address. This function isn't
 * a BTCompare, whose parameters are pointers: a tree needs a function of its own that calls it.
 * Threads: any.
 */
int p_compare(uintptr_t a, uintptr_t b);

/** @} */

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
