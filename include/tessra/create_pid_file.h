/**
 * @file create_pid_file.h
 * A locked PID file, which keeps a second instance of a daemon from starting.
 */
#ifndef TESSRA_CREATE_PID_FILE_H
#define TESSRA_CREATE_PID_FILE_H

#ifdef __cplusplus
extern "C" {
#endif

#pragma GCC visibility push(default)

/** For @c flags of createPidFile(). */
enum {
    PID_FILE_CLOEXEC = 1 /**< The descriptor is closed on exec. */
};

/**
 * Locks the PID file, creating it with mode 0600 (less the umask) if there is none, and writes the
 * decimal process id and a newline, nothing else, into it.
 *
 * @param progName  name of the daemon for the message to a second instance
 * @param pidFile   path of the file, in a directory that only the daemon's user can write to: a
 *                  symbolic link is followed, and what it leads to is overwritten
 * @param flags     #PID_FILE_CLOEXEC or 0; other bits have no meaning. With 0 the descriptor stays
 *                  open across exec, and the new program holds the lock.
 *
 * Returns the open descriptor, which holds a write lock on the whole file (region_locking.h). Keep
 * it: the lock, not the file, says that the daemon runs, and it lasts until the process ends or
 * closes the descriptor. Trap: opening and closing the file anywhere else in the process, if only
 * to read it, drops the lock. A child of fork() doesn't have it, so call this after daemonising.
 *
 * The descriptor is never a standard one: if 0, 1 or 2 is closed, that number stays free. If no
 * other number is left, the process ends with the line of a failed open, EMFILE. Then no file is
 * made, and a file that exists is left as it is.
 *
 * Failure: it doesn't return. The process ends with a line on standard error by errExit() or
 * fatal() (error_functions.h), status 1. If another process holds the lock, the line is "ERROR: PID
 * file 'FILE' is locked; probably 'NAME' is already running", and the file is left as it is. If the
 * process id can't be written, as on a full disk, the file stays empty or incomplete, and unlocked.
 *
 * The file of a dead process is taken over and never removed: removing it would let two instances
 * lock two files of one name.
 *
 * Threads: any, once at the start. #PID_FILE_CLOEXEC takes effect just after the file is opened: a
 * process that another thread starts in between inherits the descriptor, without the lock. Memory:
 * none allocated. Blocks: as opening and writing does.
 */
int createPidFile(const char* progName, const char* pidFile, int flags);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
