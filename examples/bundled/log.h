/** The daemon's log: lines on stderr. */
#ifndef BUNDLED_LOG_H
#define BUNDLED_LOG_H

namespace bundled {

/** Writes one line, "bundled: " and the formatted text. Leaves errno as it was. */
void log_line(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace bundled

#endif
