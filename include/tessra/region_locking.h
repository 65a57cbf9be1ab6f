/**
 * @file region_locking.h
 * Record locks of fcntl() (POSIX.1) on regions of a file.
 *
 * A region is four values: @c type is F_RDLCK, F_WRLCK or F_UNLCK of <fcntl.h> and nothing else, @c
 * whence is SEEK_SET, SEEK_CUR or SEEK_END, @c start counts bytes from there, and @c len is the
 * length in bytes, where 0 reaches to the end of the file, however far it grows. A region may lie
 * behind the end, not before the beginning of the file.
 *
 * Whose locks they are. A record lock belongs to the process, not to the descriptor or the thread:
 * threads of one process never keep each other out, and taking a region again replaces the lock on
 * it. Trap: closing any descriptor of the file, also one that a library has opened and closed
 * behind the caller's back, drops all of the process's locks on it. A child of fork() has none of
 * them; exec keeps them as long as the descriptor stays open.
 *
 * The locks are advisory: they keep out who asks for them.
 *
 * Threads: any. Memory: none allocated. The functions print nothing.
 */
#ifndef TESSRA_REGION_LOCKING_H
#define TESSRA_REGION_LOCKING_H

#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

#pragma GCC visibility push(default)

/**
 * Takes or releases a lock without waiting.
 *
 * @param fd      open for reading for F_RDLCK, for writing for F_WRLCK
 * @param type    F_RDLCK, F_WRLCK, or F_UNLCK to release what the process holds there
 * @param whence  what @p start counts from
 * @param start   offset of the region in bytes, which may be negative
 * @param len     length of the region in bytes; 0 for all up to the end, however far that moves; a
 *                negative one is for the bytes before @p start
 *
 * Returns 0, or -1 with errno from fcntl(): EAGAIN or EACCES (both are allowed) if another process
 * holds it, EBADF, EINVAL, ENOLCK, EOVERFLOW.
 * Blocks: never, on a local file system.
 */
int lockRegion(int fd, int type, int whence, int start, int len);

/**
 * lockRegion() that waits until the lock is free.
 *
 * Also fails with EINTR, if a signal handler installed without SA_RESTART has run, and EDEADLK, if
 * the wait would close a circle of processes. Blocks: without a limit; never on a loop's thread.
 */
int lockRegionWait(int fd, int type, int whence, int start, int len);

/**
 * Tells who is in the way of a lock, without taking it.
 *
 * @param type  the lock that the caller would like to have: a read lock of another process is in
 *              the way of F_WRLCK and not of F_RDLCK, and F_UNLCK is none (EINVAL)
 *
 * The others as in lockRegion(). Returns 0 if the lock could be had, the process id of a holder if
 * not, and -1 with errno on failure. The caller's own locks don't count. The answer can be out of
 * date at once. Trap: a lock of an open file description (F_OFD_SETLK) has no process and gives -1
 * with errno untouched; a holder in a PID namespace that the caller can't see gives 0.
 */
pid_t regionIsLocked(int fd, int type, int whence, int start, int len);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
