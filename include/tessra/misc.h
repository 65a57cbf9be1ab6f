/**
 * @file misc.h
 * Helpers that every daemon needs: the recursive mutex, output of commands, the device environment,
 * mount points.
 */
#ifndef TESSRA_MISC_H
#define TESSRA_MISC_H

#include <pthread.h>

#ifdef __cplusplus
extern "C" {
#endif

#pragma GCC visibility push(default)

/**
 * @name Recursive mutex
 * @{
 */

/**
 * A lock that its holder may take again.
 *
 * Life: set up field by field (@ref RECURSIVE_MUTEX_INITIALIZER for a static one), then
 * recursive_mutex_lock() and recursive_mutex_unlock() in pairs, then pthread_mutex_destroy() of
 * @c mutex. Not copyable. There is no initialising call: pthread_mutex_init() with default
 * attributes for @c mutex, 0 for @c refcount, and a value that no thread has for @c owner.
 */
typedef struct {
    pthread_mutex_t mutex; /**< The real lock; held from the outermost lock to its unlock. */
    unsigned int refcount; /**< Unmatched locks of the owner; 0 when free. Guarded by rec_mutex. */
    pthread_t owner;       /**< Holding thread; all ones after a release. Guarded by rec_mutex. */
} recursive_mutex;

/** Initialiser of a free recursive_mutex with static storage. */
#define RECURSIVE_MUTEX_INITIALIZER \
    { PTHREAD_MUTEX_INITIALIZER, 0, (pthread_t)-1 }

/**
 * Guards refcount and owner of every recursive_mutex of the process and nothing else. Never held
 * while foreign code runs. Exported for debuggers and for daemons with a lock checker: leave it
 * alone.
 */
extern pthread_mutex_t rec_mutex;

/**
 * Takes @p tolock for the calling thread, and once more if that thread holds it already.
 *
 * Threads: any; never from a signal handler. Memory: allocates nothing. Blocks: until the holder
 * has released the lock. Cannot fail.
 */
void recursive_mutex_lock(recursive_mutex* tolock);

/**
 * Undoes one lock of the calling thread; the last one frees the lock.
 *
 * From a thread that doesn't hold @p tounlock, and on a free lock, it has no effect.
 * Threads: any; never from a signal handler. Memory: allocates nothing. Blocks: never for long.
 */
void recursive_mutex_unlock(recursive_mutex* tounlock);

/** @} */

/**
 * @name Output of commands and the device environment
 * Threads: any, at the same time. Blocks: each of these waits for a shell; on a loop's thread that
 * holds up the whole loop.
 * @{
 */

/**
 * Formats a command line, runs it with the shell and returns what it wrote to standard output.
 *
 * @param format  printf format of the command line, not null; the text is cut after 1023 characters
 *                without notice. It goes to a shell: never let foreign text into it unquoted.
 *
 * Returns a string that the caller releases with free(). One newline at its end is taken off, no
 * more. A zero byte in the output is handed over as it is, and so ends the string for the caller.
 * A read error cuts the output off without notice. A signal handler without SA_RESTART causes one
 * if it interrupts the read on this thread.
 *
 * The exit status is dropped: a command that fails, or that doesn't exist, gives what it wrote, as
 * a rule the empty string. Standard error isn't captured. Returns NULL, with the reason in errno,
 * if no process could be made, memory ran out or the text can't be formatted, in which case no
 * command runs; then nothing stays open.
 *
 * The command inherits descriptors and signal dispositions as popen() hands them on, without the
 * care of event_system(): open what it must not have with O_CLOEXEC. The library's end of the pipe
 * is closed on exec.
 *
 * Memory: the whole output, in steps of 1024 bytes and without a limit; trust the command or let
 * it end in "| head -c N". Blocks: until the command has closed its output and its shell has ended.
 * One that leaves a process in the background blocks until that one closes its output, too.
 */
char* system_output(const char* format, ...) __attribute__((format(printf, 1, 2)));

/**
 * Returns the value of a variable of the boot loader's environment, read by the tool fw_printenv,
 * which the shell finds in PATH.
 *
 * @param part  the variable's name, not null. Trap: it becomes part of a shell command, unquoted.
 *              Never pass foreign text.
 *
 * Returns and fails as system_output(). A variable or tool that doesn't exist gives "".
 */
char* get_fw_printenv(const char* part);
/** As get_fw_printenv(), trap included, for the variables of the tool nrv_printenv. */
char* get_nrv_printenv(const char* part);

/**
 * Reads the hardware revision from the variable "hw_rev" (get_nrv_printenv()): the decimal major
 * number, any one character, the decimal minor number, as in "2.1".
 *
 * @param major  takes the major number; 0 if the text doesn't begin with a number
 * @param minor  takes the minor number; 0 if what follows the separator is no number. Trap: it
 *               keeps its value where the text has no minor part, so set it before the call.
 *
 * If a pointer is null, nothing happens. If get_nrv_printenv() fails, both numbers are 0. Without
 * the variable or the tool the text is empty: major 0, minor kept. A number beyond the range of an
 * int becomes the nearest int.
 */
void get_hw_rev(int* major, int* minor);

/** @} */

/**
 * Returns 1 if @p path is a mount point of the table /etc/mtab, else 0; also 0 if @p path is NULL
 * or the table can't be read.
 *
 * Compares the text with what the table has, no more: no trailing slash, no symbolic link, no
 * relative path. Blanks, tabs, newlines and backslashes, which the table has as \\040, \\011, \\012
 * and \\134, are compared as themselves, and two backslashes of the table are one. A file system of
 * the type autofs with the mount option "ignore" doesn't count, as for getmntent() of glibc.
 *
 * The table's descriptor is closed on exec. With uClibc and musl a process that another thread
 * starts while the table is being opened can inherit it.
 *
 * Threads: any, at the same time. Memory: a block for the longest line and what the C library takes
 * for a file, freed before the return. If memory runs out, the table can't be read. Blocks: as long
 * as reading the table takes.
 */
int is_mountpoint(const char* path);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
