// Writes messages to standard error, each by one write(), so that the lines of several processes
// don't mix.
#define _POSIX_C_SOURCE 200809L
#include <errno.h>
#include <stdarg.h>
#include <stddef.h>
#include <stdio.h>
#include <unistd.h>

#include "liblog.h"

// A longer message is cut.
enum { kMessageRoom = 1024 };

// Adds a newline to the text in `message`, unless it ends in one. Returns the length of the text.
static size_t end_line(char* message, size_t length) {
    if (length >= kMessageRoom) length = kMessageRoom - 1;
    if (length > 0 && message[length - 1] == '\n') return length;
    if (length == kMessageRoom - 1) --length;
    message[length] = '\n';
    return length + 1;
}

// Drops messages that aren't wanted. Doesn't change errno, since the library logs before it returns
// an error as well as before it exits. Returns 0.
int __vask_log(int zone, int level, const char* format, ...) {
    if (!logzone_enabled(zone, level)) return 0;
    const int before = errno;
    char message[kMessageRoom];
    va_list args;
    va_start(args, format);
    const int length = vsnprintf(message, sizeof message, format, args);
    va_end(args);
    if (length >= 0) {
        // The result is ignored: there is no other place to report a failure.
        const ssize_t written = write(STDERR_FILENO, message, end_line(message, (size_t)length));
        (void)written;
    }
    errno = before;
    return 0;
}
