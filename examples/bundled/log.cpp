#include "log.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>

namespace bundled {

void log_line(const char* format, ...) {
    const int saved_errno = errno;
    char text[512];
    va_list args;
    va_start(args, format);
    (void)std::vsnprintf(text, sizeof text, format, args);  // A line that is too long is cut.
    va_end(args);
    for (char* byte = text; *byte != '\0'; ++byte) {
        const auto code = static_cast<unsigned char>(*byte);
        *byte = code < ' ' || code == 0x7f ? '?' : *byte;  // A file's name must not add a line.
    }
    (void)std::fprintf(stderr, "bundled: %s\n", text);  // A failure can't be reported.
    errno = saved_errno;
}

}  // namespace bundled
