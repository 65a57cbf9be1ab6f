// The functions of the platform's logging library that libtessra calls.
#ifndef TESSRA_LIBLOG_H
#define TESSRA_LIBLOG_H

#ifdef __cplusplus
extern "C" {
#endif

#pragma GCC visibility push(default)

// Returns nonzero if messages of the zone and level are wanted.
int logzone_enabled(int zone, int level);

// Records a message, formatted as by printf(). The result has no meaning.
int __vask_log(int zone, int level, const char* format, ...) __attribute__((format(printf, 3, 4)));

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
