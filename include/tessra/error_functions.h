/**
 * @file error_functions.h
 * Lines on standard error for daemons and their command lines, and the orderly exit of the process.
 *
 *     int fd = open(path, O_RDONLY);
 *     if (fd == -1) errExit("open %s", path);
 *
 * This writes "ERROR [ENOENT No such file or directory] open /etc/none" and exits with status 1.
 *
 * The line of an error is "ERROR [NAME TEXT] MESSAGE", or "ERROR: MESSAGE" if there is no error
 * number. TEXT is the text of strerror(). NAME is one of these:
 * - the symbolic name of the number;
 * - two names with a slash between them ("EAGAIN/EWOULDBLOCK") if the platform has two;
 * - the empty text for the gaps 41 and 58;
 * - "?UNKNOWN?" for a number outside 1 to 133.
 *
 * A line has at most 499 bytes, including the newline. A longer one is cut and has no newline.
 *
 * A function first flushes standard output and then writes its line in one piece, unless its
 * description says otherwise. Failures to format or write are ignored. If standard output or
 * standard error is a pipe that nobody reads, SIGPIPE is raised as in every write().
 *
 * Exit. The functions that terminate the process call exit() with status 1, which runs the exit
 * handlers and flushes the streams. If the environment variable EF_DUMPCORE is set and not empty,
 * errExit(), err_exit(), errExitEN() and fatal() call abort() instead.
 *
 * Every format is a printf format, which the compiler checks: never pass foreign text as the
 * format. Threads: any; none of the functions may be called from a signal handler. Memory: 1 KiB of
 * stack, and the memory that the C library takes to format. Blocks: as long as standard output or
 * standard error doesn't accept the text.
 */
#ifndef TESSRA_ERROR_FUNCTIONS_H
#define TESSRA_ERROR_FUNCTIONS_H

#ifdef __cplusplus
extern "C" {
#endif

#pragma GCC visibility push(default)

/** Writes the line for errno and returns. errno stays as it was, even if the output fails. */
void errMsg(const char* format, ...) __attribute__((format(printf, 1, 2)));

/** Writes the line for errno and terminates the process. */
void errExit(const char* format, ...) __attribute__((noreturn, format(printf, 1, 2)));

/**
 * Writes the line as errExit() does, and terminates a child of fork() that hasn't called exec. The
 * child calls _exit(), which runs none of the parent's exit handlers, and neither writes nor drops
 * the text that the parent has buffered for standard output.
 */
void err_exit(const char* format, ...) __attribute__((noreturn, format(printf, 1, 2)));

/**
 * Does the same as errExit() for an error number that isn't in errno, such as the result of a
 * pthread function.
 *
 * @param errnum  the error number; any value
 * @param format  printf format of the message
 */
void errExitEN(int errnum, const char* format, ...) __attribute__((noreturn, format(printf, 2, 3)));

/** Writes the line without an error number and terminates the process. */
void fatal(const char* format, ...) __attribute__((noreturn, format(printf, 1, 2)));

/**
 * Writes "Usage: " and the message, and terminates the process with exit(1). The message isn't cut
 * and gets no newline. The two texts are written one after the other, so text of another thread or
 * process can come between them. EF_DUMPCORE has no effect.
 */
void usageErr(const char* format, ...) __attribute__((noreturn, format(printf, 1, 2)));

/** Does the same as usageErr(), with the words "Command-line usage error: ". */
void cmdLineErr(const char* format, ...) __attribute__((noreturn, format(printf, 1, 2)));

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
