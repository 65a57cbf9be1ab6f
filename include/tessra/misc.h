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
 * Life: initialise the fields, call recursive_mutex_lock() and recursive_mutex_unlock() in pairs,
 * then call pthread_mutex_destroy() for @c mutex. Don't copy the lock. Initialise a static one with
 * @ref RECURSIVE_MUTEX_INITIALIZER. There is no function for other ones: call pthread_mutex_init()
 * with default attributes for @c mutex, set @c refcount to 0, and set @c owner to a value that no
 * thread has.
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
 * Guards refcount and owner of every recursive_mutex of the process and nothing else. The library
 * never holds it while foreign code runs. It is exported for debuggers and for daemons with a lock
 * checker: don't use it otherwise.
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
 * Undoes one recursive_mutex_lock() of the calling thread. The last unlock frees @p tounlock.
 *
 * The call has no effect on a free lock, and none on a lock that the calling thread doesn't hold.
 * Threads: any; never from a signal handler. Memory: allocates nothing. Blocks: never for long.
 */
void recursive_mutex_unlock(recursive_mutex* tounlock);

/** @} */

/**
 * @name Output of commands and the device environment
 * Threads: any, at the same time. Blocks: each of these functions waits for a shell. On a loop's
 * thread this delays the whole loop.
 * @{
 */

/**
 * Formats a command line, runs it with the shell and returns the text that it wrote to standard
 * output.
 *
 * @param format  printf format of the command line, not null; the text is cut after 1023 characters
 *                without notice. A shell reads the text: never put foreign text into it unquoted.
 *
 * Returns a string that the caller releases with free(). One newline at the end is removed, and no
 * more. A zero byte in the output stays in the string, which so ends there for the caller. After a
 * read error the rest of the output is missing without notice. A signal handler without SA_RESTART
 * causes a read error if it interrupts the read on this thread.
 *
 * The exit status is ignored: even if the command fails or doesn't exist, the result is the text
 * that it wrote, usually the empty string. Standard error isn't captured. Returns NULL with errno
 * if no process can be made, if memory runs out, or if the text can't be formatted; in the last
 * case no command runs. No descriptor stays open after a failure.
 *
 * The command inherits descriptors and signal dispositions in the way of popen(), without the care
 * that event_system() takes. So use O_CLOEXEC to open a descriptor that the command must not have.
 * The library's end of the pipe is closed on exec.
 *
 * Memory: the whole output, in steps of 1024 bytes and without a limit. If you don't trust the
 * command, add "| head -c N" to it. Blocks: until the command has closed its output and its shell
 * has exited. A process that the command leaves in the background must close that output, too.
 */
char* system_output(const char* format, ...) __attribute__((format(printf, 1, 2)));

/**
 * Returns the value of a variable of the boot loader's environment. The tool fw_printenv, which the
 * shell finds in PATH, reads it.
 *
 * @param part  the variable's name, not null. Trap: it becomes part of a shell command, unquoted.
 *              Never pass foreign text.
 *
 * Returns and fails as system_output() does. If the variable or the tool doesn't exist, the result
 * is "".
 */
char* get_fw_printenv(const char* part);
/** Does the same as get_fw_printenv(), including the trap, for variables of nrv_printenv. */
char* get_nrv_printenv(const char* part);

/**
 * Reads the hardware revision from the variable "hw_rev" (get_nrv_printenv()): the decimal major
 * number, any one character, and the decimal minor number, as in "2.1".
 *
 * @param major  receives the major number; 0 if the text doesn't begin with a number
 * @param minor  receives the minor number; 0 if the text behind the separator is no number. Trap:
 *               the call doesn't set it if the text has no minor part, so set it before the call.
 *
 * If a pointer is null, the call does nothing. If get_nrv_printenv() fails, both numbers are 0. If
 * the variable or the tool doesn't exist, the text is empty: the major number is 0, and @p minor
 * isn't set. A number beyond the range of an int becomes the nearest int.
 */
void get_hw_rev(int* major, int* minor);

/** @} */

/**
 * Returns 1 if @p path is a mount point of the table /etc/mtab, else 0. Returns 0 if @p path is
 * NULL or the table can't be read.
 *
 * The call only compares the text of @p path with that of the table: it handles no trailing slash,
 * no symbolic link and no relative path. The table has \\040, \\011, \\012 and \\134 in place of
 * blanks, tabs, newlines and backslashes; the call compares the characters. Two backslashes of the
 * table are one. A file system of the type autofs with the mount option "ignore" doesn't count, as
 * for getmntent() of glibc.
 *
 * The table's descriptor is closed on exec. With uClibc and musl a process that another thread
 * starts while the table is being opened can inherit the descriptor.
 *
 * Threads: any, at the same time. Memory: a block for the longest line, and the memory that the C
 * library takes for a file; both are freed before the return. If memory runs out, the table can't
 * be read. Blocks: as long as reading the table takes.
 */
int is_mountpoint(const char* path);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
