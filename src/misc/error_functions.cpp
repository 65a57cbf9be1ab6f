// Lines on standard error, and the functions that terminate the process after such a line.

#include "tessra/error_functions.h"

#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "internal/guards.h"
#include "misc/error_names.h"
#include "misc/misc_private.h"

namespace tessra {

namespace {

constexpr size_t kLineSize = 500;

enum class Number { kNone, kGiven };
enum class Stdout { kKeep, kFlush };

// In some C libraries, strerror_r() returns the text. In others, it returns an error number and
// stores the text in the buffer. strerror() isn't used, since threads may share its buffer.
[[maybe_unused]] const char* text_of(const char* text, const char* /*buffer*/) { return text; }
[[maybe_unused]] const char* text_of(int /*error*/, const char* buffer) { return buffer; }

void format_error(char (&line)[kLineSize], int error) {
    char buffer[128] = {};
    const char* const name = error > 0 && error < kErrorNames ? error_name(error) : "?UNKNOWN?";
    const char* const meaning = text_of(strerror_r(error, buffer, sizeof buffer), buffer);
    (void)snprintf(line, sizeof line, "ERROR [%s %s] ", name, meaning);
}

// Formats the whole line first and writes it by one call, so that the lines of several threads
// don't mix. A line that is too long is cut and has no newline.
__attribute__((format(printf, 4, 0))) void output_error(Number number, int error, Stdout flush,
                                                        const char* format, va_list arguments) {
    char line[kLineSize] = "ERROR: ";
    if (number == Number::kGiven) format_error(line, error);
    size_t length = strlen(line);
    (void)vsnprintf(line + length, sizeof line - length, format, arguments);
    length = strlen(line);
    if (length + 1 < sizeof line) {
        line[length] = '\n';
        line[length + 1] = 0;
    }
    if (flush == Stdout::kFlush) (void)fflush(stdout);
    (void)fputs(line, stderr);
    (void)fflush(stderr);
}

bool core_is_wanted() {
    const char* const value = getenv("EF_DUMPCORE");
    return value != nullptr && *value != 0;
}

[[noreturn]] void terminate_by_exit() {
    if (core_is_wanted()) abort();
    exit(1);
}

[[noreturn]] __attribute__((format(printf, 2, 0))) void complain(const char* prefix,
                                                                 const char* format,
                                                                 va_list arguments) {
    (void)fflush(stdout);
    (void)fputs(prefix, stderr);
    (void)vfprintf(stderr, format, arguments);
    (void)fflush(stderr);
    exit(1);
}

}  // namespace

}  // namespace tessra

using namespace tessra;

[[gnu::weak]] void errMsg(const char* format, ...) {
    const ErrnoKeeper keep_errno;
    va_list arguments;
    va_start(arguments, format);
    output_error(Number::kGiven, errno, Stdout::kFlush, format, arguments);
    va_end(arguments);
}

[[gnu::weak]] void errExit(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    output_error(Number::kGiven, errno, Stdout::kFlush, format, arguments);
    va_end(arguments);
    terminate_by_exit();
}

[[gnu::weak]] void err_exit(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    output_error(Number::kGiven, errno, Stdout::kKeep, format, arguments);
    va_end(arguments);
    if (core_is_wanted()) abort();
    _exit(1);
}

[[gnu::weak]] void errExitEN(int errnum, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    output_error(Number::kGiven, errnum, Stdout::kFlush, format, arguments);
    va_end(arguments);
    terminate_by_exit();
}

[[gnu::weak]] void fatal(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    output_error(Number::kNone, 0, Stdout::kFlush, format, arguments);
    va_end(arguments);
    terminate_by_exit();
}

[[gnu::weak]] void usageErr(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    complain("Usage: ", format, arguments);
}

[[gnu::weak]] void cmdLineErr(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    complain("Command-line usage error: ", format, arguments);
}

// NOLINTBEGIN(cert-dcl50-cpp): these are second names of C functions.
[[gnu::alias("errExit")]] void tessra::exit_with_errno(const char* format, ...);
[[gnu::alias("fatal")]] void tessra::exit_with_line(const char* format, ...);
// NOLINTEND(cert-dcl50-cpp)
