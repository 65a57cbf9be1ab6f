/**
 * @file region_locking.h
 * Record locks of fcntl() (POSIX.1) on regions of a file.
 *
 * Four values describe a lock and its region:
 * - @c type is F_RDLCK, F_WRLCK or F_UNLCK of <fcntl.h>, and nothing else.
 * - @c whence is SEEK_SET, SEEK_CUR or SEEK_END.
 * - @c start is the offset from there in bytes.
 * - @c len is the length in bytes. With 0 the region reaches to the end of the file, however far
 *   the file grows.
 *
 * A region may lie behind the end of the file, but not before its beginning.
 *
 * Owner. A record lock belongs to the process, not to the descriptor or the thread. Threads of one
 * process never exclude each other, and a new lock on a region replaces the process's old one.
 * Trap: closing any descriptor of the file releases all of the process's locks on it, even if a
 * library has opened and closed the descriptor without the caller's knowledge. A child of fork()
 * inherits no lock. exec keeps the locks as long as the descriptor stays open.
 *
 * The locks are advisory: they exclude only processes that ask for them.
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
 * @param type    F_RDLCK, F_WRLCK, or F_UNLCK to release the locks that the process holds there
 * @param whence  the place from which @p start counts
 * @param start   offset of the region in bytes, which may be negative
 * @param len     length of the region in bytes; 0 for all bytes up to the end of the file, however
 *                far that moves; a negative length for the bytes before @p start
 *
 * Returns 0, or -1 with errno from fcntl(): EAGAIN or EACCES (POSIX allows both) if another process
 * holds a conflicting lock, or EBADF, EINVAL, ENOLCK or EOVERFLOW.
 * Blocks: never, on a local file system.
 */
int lockRegion(int fd, int type, int whence, int start, int len);

/**
 * Does the same as lockRegion(), but waits until the lock is free.
 *
 * Also fails with EINTR if a signal handler that was installed without SA_RESTART has run, and with
 * EDEADLK if the wait would close a circle of processes that wait for one another. Blocks: without
 * a limit, so never call this on a loop's thread.
 */
int lockRegionWait(int fd, int type, int whence, int start, int len);

/**
 * Returns the id of a process that prevents a lock, without taking the lock.
 *
 * @param type  the lock that the caller would like to take. A read lock of another process prevents
 *              F_WRLCK but not F_RDLCK. F_UNLCK isn't a lock: the call fails with EINVAL.
 *
 * The other parameters are as in lockRegion(). Returns 0 if the lock could be taken, the process id
 * of a holder if not, and -1 with errno after a failure. The process's own locks don't count. The
 * answer can be out of date at once. Trap: the lock of an open file description (F_OFD_SETLK)
 * belongs to no process; the result is -1, and errno isn't set. For a holder in a PID namespace
 * that the caller can't see, the result is 0.
 */
pid_t regionIsLocked(int fd, int type, int whence, int start, int len);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
