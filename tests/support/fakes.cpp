/**
 * @file fakes.cpp
 * Definitions in the program take the place of the C library's for the library under test, too;
 * the real ones are the next in the loader's order, below the sanitizers' if there are any.
 *
 * The allocator's run before the sanitizers are set up and must not be instrumented.
 */
#include "fakes.h"

#include <dlfcn.h>
#include <errno.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/sysinfo.h>
#include <sys/wait.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#define PLAIN __attribute__((no_sanitize("thread"), no_sanitize("address")))
#define REAL_AS(call, name)                                                              \
    __extension__({                                                                      \
        static __typeof__(&::call) real_;                                                \
        if (!real_) real_ = reinterpret_cast<__typeof__(real_)>(dlsym(RTLD_NEXT, name)); \
        real_;                                                                           \
    })
#define REAL(call) REAL_AS(call, #call)

/* With 64-bit time on a 32-bit system the compiler renames these two. */
#if defined(__USE_TIME_BITS64) && __SIZEOF_LONG__ == 4
#define TIME64(plain, renamed) renamed
#else
#define TIME64(plain, renamed) plain
#endif

struct fakes fakes;
__thread int fail_allocation;

static void record_syslog(int priority, const char* format, va_list args) {
    size_t used = strlen(fakes.syslog_text);
    char* text = fakes.syslog_text;
    used += (size_t)snprintf(text + used, sizeof fakes.syslog_text - used, "%d ", priority);
    used += (size_t)vsnprintf(text + used, sizeof fakes.syslog_text - used, format, args);
    snprintf(text + used, sizeof fakes.syslog_text - used, "\n");
}

static PLAIN int allocation_fails(void) {
    if (fail_allocation == 0 || --fail_allocation > 0) return 0;
    errno = ENOMEM;
    return 1;
}

extern "C" {

PLAIN void* malloc(size_t size) __THROW {
    return allocation_fails() ? nullptr : REAL(malloc)(size);
}

PLAIN void* calloc(size_t count, size_t size) __THROW {
    return allocation_fails() ? nullptr : REAL(calloc)(count, size);
}

PLAIN int real_select(int nfds, fd_set* rset, fd_set* wset, fd_set* eset, struct timeval* tv) {
    return REAL_AS(select, TIME64("select", "__select64"))(nfds, rset, wset, eset, tv);
}

PLAIN int select(int nfds, fd_set* rset, fd_set* wset, fd_set* eset, struct timeval* tv) {
    return (fakes.on_select ? fakes.on_select : real_select)(nfds, rset, wset, eset, tv);
}

PLAIN int clock_gettime(clockid_t clock, struct timespec* now) __THROW {
    if (clock == CLOCK_MONOTONIC_RAW) __atomic_add_fetch(&fakes.clock_reads, 1, __ATOMIC_RELAXED);
    if (clock != CLOCK_MONOTONIC_RAW || fakes.clock_ns == 0)
        return REAL_AS(clock_gettime, TIME64("clock_gettime", "__clock_gettime64"))(clock, now);
    now->tv_sec = (time_t)(fakes.clock_ns / 1000000000);
    now->tv_nsec = (long)(fakes.clock_ns % 1000000000);
    return 0;
}

int sysinfo(struct sysinfo* info) __THROW {
    int result = REAL(sysinfo)(info);
    if (fakes.clock_ns != 0) info->uptime = (long)(fakes.clock_ns / 1000000000);
    return result;
}

int mkfifo(const char* path, mode_t mode) __THROW {
    if ((errno = fakes.fail[FAKE_MKFIFO]) != 0) return -1;
    return REAL(mkfifo)(path, mode);
}

pid_t waitpid(pid_t pid, int* status, int options) {
    pid_t result = REAL(waitpid)(pid, status, options);
    if (result > 0 && status && *status && *status == fakes.core_dumped_by) *status |= WCOREFLAG;
    return result;
}

pid_t wait4(pid_t pid, int* status, int options, struct rusage* usage) __THROW {
    if (fakes.fail[FAKE_WAIT4] == 0) return REAL(wait4)(pid, status, options, usage);
    errno = fakes.fail[FAKE_WAIT4];
    return -1;
}

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*start)(void*),
                   void* arg) __THROWNL {
    if (fakes.fail[FAKE_PTHREAD_CREATE]) return fakes.fail[FAKE_PTHREAD_CREATE];
    const int error = REAL(pthread_create)(thread, attributes, start, arg);
    if (!error) __atomic_add_fetch(&fakes.threads, 1, __ATOMIC_RELAXED);
    return error;
}

int pthread_join(pthread_t thread, void** result) {
    const int error = REAL(pthread_join)(thread, result);
    if (!error) __atomic_sub_fetch(&fakes.threads, 1, __ATOMIC_RELAXED);
    return error;
}

int pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes) __THROW {
    if (fakes.fail[FAKE_MUTEX_INIT]) return fakes.fail[FAKE_MUTEX_INIT];
    return REAL(pthread_mutex_init)(mutex, attributes);
}

int pthread_mutex_destroy(pthread_mutex_t* mutex) __THROW {
    if (fakes.fail[FAKE_MUTEX_DESTROY]) return fakes.fail[FAKE_MUTEX_DESTROY];
    return REAL(pthread_mutex_destroy)(mutex);
}

int pthread_cond_init(pthread_cond_t* cond, const pthread_condattr_t* attributes) __THROW {
    if (fakes.fail[FAKE_COND_INIT]) return fakes.fail[FAKE_COND_INIT];
    return REAL(pthread_cond_init)(cond, attributes);
}

int pthread_cond_destroy(pthread_cond_t* cond) __THROW {
    if (fakes.fail[FAKE_COND_DESTROY]) return fakes.fail[FAKE_COND_DESTROY];
    return REAL(pthread_cond_destroy)(cond);
}

int pthread_cond_signal(pthread_cond_t* cond) __THROWNL {
    if (fakes.fail[FAKE_COND_SIGNAL]) return fakes.fail[FAKE_COND_SIGNAL];
    return REAL(pthread_cond_signal)(cond);
}

void syslog(int priority, const char* format, ...) {
    va_list args;
    va_start(args, format);
    record_syslog(priority, format, args);
    va_end(args);
}

/* What syslog() becomes where _FORTIFY_SOURCE is set. */
void __syslog_chk(int priority, int flag, const char* format, ...);
void __syslog_chk(int priority, int, const char* format, ...) {
    va_list args;
    va_start(args, format);
    record_syslog(priority, format, args);
    va_end(args);
}

/* liblog: a message goes to stderr as "ZONE/LEVEL FORMAT|TEXT". */
int logzone_enabled(int zone, int level);
int logzone_enabled(int zone, int level) { return zone == 6 && level == 1 && !fakes.log_off; }

int __vask_log(int zone, int level, const char* format, ...);
int __vask_log(int zone, int level, const char* format, ...) {
    va_list args;
    va_start(args, format);
    dprintf(STDERR_FILENO, "%d/%d %s|", zone, level, format);
    vdprintf(STDERR_FILENO, format, args);
    va_end(args);
    return 0;
}

}  // extern "C"
