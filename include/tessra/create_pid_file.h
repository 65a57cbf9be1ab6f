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

/** Values for @c flags of createPidFile(). */
enum {
    PID_FILE_CLOEXEC = 1 /**< The descriptor is closed on exec. */
};

/**
 * Locks the PID file and writes only the decimal process id and a newline into it. If there is no
 * file, creates it with mode 0600 (less the umask).
 *
 * @param progName  name of the daemon for the message to a second instance
 * @param pidFile   path of the file, in a directory that only the daemon's user can write to. A
 *                  symbolic link is followed, and the file that it points to is overwritten.
 * @param flags     #PID_FILE_CLOEXEC or 0; other bits have no meaning. With 0 the descriptor stays
 *                  open across exec, and the new program holds the lock.
 *
 * Returns the open descriptor, which holds a write lock on the whole file (region_locking.h). Keep
 * it open: the lock, not the file, shows that the daemon runs, and the kernel releases the lock
 * when the process exits or closes the descriptor. Trap: opening and closing the file anywhere else
 * in the process, even only to read it, releases the lock, too. A child of fork() doesn't inherit
 * the lock, so call this function after daemonising.
 *
 * The descriptor is never a standard one: if 0, 1 or 2 is closed, that number stays free. If no
 * other number is left, the process exits with the line of a failed open (EMFILE). Then the call
 * creates no file, and changes no file that exists.
 *
 * After a failure the function doesn't return: errExit() or fatal() (error_functions.h) writes a
 * line to standard error, and the process exits with status 1. If another process holds the lock,
 * the line is "ERROR: PID file 'FILE' is locked; probably 'NAME' is already running", and the file
 * isn't changed. If the process id can't be written, e.g. to a full disk, the file stays empty or
 * incomplete, and unlocked.
 *
 * The function takes over the file of a dead process. It never removes a file: after a removal, two
 * instances could lock two files with the same name.
 *
 * Threads: any, once at the start. #PID_FILE_CLOEXEC takes effect just after the file is opened: a
 * process that another thread starts in between inherits the descriptor, without the lock. Memory:
 * none allocated. Blocks: as opening and writing a file does.
 */
int createPidFile(const char* progName, const char* pidFile, int flags);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
