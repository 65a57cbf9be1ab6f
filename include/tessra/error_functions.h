/**
 * @file error_functions.h
 * Lines on standard error for daemons and their command lines, and the orderly end that follows.
 *
 *     int fd = open(path, O_RDONLY);
 *     if (fd == -1) errExit("open %s", path);
 *
 * writes "ERROR [ENOENT No such file or directory] open /etc/none" and ends with status 1.
 *
 * The line of an error is "ERROR [NAME TEXT] MESSAGE" or, where no error number belongs to it,
 * "ERROR: MESSAGE". NAME is the symbolic name of the number, two names with a slash between them
 * where the platform has two ("EAGAIN/EWOULDBLOCK"), empty for the gaps 41 and 58, and "?UNKNOWN?"
 * outside 1 to 133. TEXT is that of strerror(). The line is cut to 499 bytes, newline included: one
 * that is cut has none.
 *
 * The line goes out in one piece, behind what standard output has buffered, unless a function says
 * otherwise. Failures to format or write are passed over. A pipe that nobody reads, at standard
 * output or standard error, raises SIGPIPE as in every write().
 *
 * The end. The functions that end the process do so with status 1 by exit(), which runs its
 * handlers and writes what streams have buffered. If the environment variable EF_DUMPCORE is set
 * and not empty, whatever its value, errExit(), err_exit(), errExitEN() and fatal() call abort()
 * instead.
 *
 * Every format is a printf format, checked by the compiler: never pass foreign text as the format.
 * Threads: any; none may be called from a signal handler. Memory: 1 KiB of stack, and what the
 * formatting takes. Blocks: as long as standard output and standard error don't take what is
 * written.
 */
#ifndef TESSRA_ERROR_FUNCTIONS_H
#define TESSRA_ERROR_FUNCTIONS_H

#ifdef __cplusplus
extern "C" {
#endif

#pragma GCC visibility push(default)

/** Writes the line for errno and returns, with errno as it was, even if the output fails. */
void errMsg(const char* format, ...) __attribute__((format(printf, 1, 2)));

/** Writes the line for errno and ends the process. */
void errExit(const char* format, ...) __attribute__((noreturn, format(printf, 1, 2)));

/**
 * errExit() for a child of fork() that hasn't called exec: it leaves by _exit(), which runs none of
 * the parent's exit handlers, and neither writes nor drops what the parent has buffered on standard
 * output.
 */
void err_exit(const char* format, ...) __attribute__((noreturn, format(printf, 1, 2)));

/**
 * errExit() for an error number that isn't in errno, such as the result of a pthread function.
 *
 * @param errnum  the error number; any value
 * @param format  printf format of the message
 */
void errExitEN(int errnum, const char* format, ...) __attribute__((noreturn, format(printf, 2, 3)));

/** Writes the line without an error number and ends the process. */
void fatal(const char* format, ...) __attribute__((noreturn, format(printf, 1, 2)));

/**
 * Writes "Usage: " and the message, uncut and without a newline of its own, and ends the process
 * with exit(1). The two go out one after the other, so text of another thread or process can come
 * between them. EF_DUMPCORE plays no part.
 */
void usageErr(const char* format, ...) __attribute__((noreturn, format(printf, 1, 2)));

/** As usageErr(), with the words "Command-line usage error: ". */
void cmdLineErr(const char* format, ...) __attribute__((noreturn, format(printf, 1, 2)));

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
