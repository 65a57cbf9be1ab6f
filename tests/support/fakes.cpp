/**
 * @file fakes.cpp
 * Definitions in the program take the place of the C library's for the library under test, too.
 * The real ones are the next in the loader's order, below the sanitizers' if there are any.
 */
#include "fakes.h"

#include <dlfcn.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/sysinfo.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

// What runs before the sanitizers are set up must not be instrumented.
#define PLAIN __attribute__((no_sanitize("thread"), no_sanitize("address")))

#define REAL_AS(call, name)                                                           \
    __extension__({                                                                   \
        static __typeof__(&::call) real;                                              \
        if (!real) real = reinterpret_cast<__typeof__(real)>(dlsym(RTLD_NEXT, name)); \
        real;                                                                         \
    })
#define REAL(call) REAL_AS(call, #call)

// With 64-bit time on a 32-bit system the compiler renames these two.
#if defined(__USE_TIME_BITS64) && __SIZEOF_LONG__ == 4
#define TIME64(plain, renamed) renamed
#else
#define TIME64(plain, renamed) plain
#endif

// Older headers take a void* there, for the sake of an older type.
#ifndef __WAIT_STATUS
#define __WAIT_STATUS int*
#endif

struct fakes fakes;
__thread int fail_allocation;

static PLAIN bool allocation_fails() {
    if (fail_allocation == 0 || --fail_allocation > 0) return false;
    errno = ENOMEM;
    return true;
}

static void record_syslog(int priority, const char* format, va_list args) {
    char* end = strchr(fakes.syslog_text, 0);
    const auto room = [&] { return sizeof fakes.syslog_text - size_t(end - fakes.syslog_text); };
    end += snprintf(end, room(), "%d ", priority);
    end += vsnprintf(end, room(), format, args);
    snprintf(end, room(), "\n");
}

extern "C" {

PLAIN void* malloc(size_t size) __THROW {
    return allocation_fails() ? nullptr : REAL(malloc)(size);
}

PLAIN void* calloc(size_t count, size_t size) __THROW {
    if (allocation_fails()) return nullptr;
    const int countdown = fail_allocation;
    fail_allocation = 0;  // It may well call malloc().
    void* const block = REAL(calloc)(count, size);
    fail_allocation = countdown;
    return block;
}

PLAIN int real_select(int nfds, fd_set* rset, fd_set* wset, fd_set* eset, timeval* tv) {
    return REAL_AS(select, TIME64("select", "__select64"))(nfds, rset, wset, eset, tv);
}

PLAIN int select(int nfds, fd_set* rset, fd_set* wset, fd_set* eset, timeval* tv) {
    return (fakes.on_select ? fakes.on_select : real_select)(nfds, rset, wset, eset, tv);
}

PLAIN ssize_t real_read(int fd, void* bytes, size_t count) { return REAL(read)(fd, bytes, count); }

PLAIN ssize_t read(int fd, void* bytes, size_t count) {
    return (fakes.on_read ? fakes.on_read : real_read)(fd, bytes, count);
}

PLAIN ssize_t write(int fd, const void* bytes, size_t count) {
    constexpr size_t kSignalMessage = 1 + sizeof(siginfo_t);
    if (count == kSignalMessage && fakes.before_message) fakes.before_message(fd);
    return REAL(write)(fd, bytes, count);
}

PLAIN int clock_gettime(clockid_t clock, timespec* now) __THROW {
    if (clock == CLOCK_MONOTONIC_RAW) __atomic_add_fetch(&fakes.clock_reads, 1, __ATOMIC_RELAXED);
    if (clock != CLOCK_MONOTONIC_RAW || fakes.clock_ns == 0)
        return REAL_AS(clock_gettime, TIME64("clock_gettime", "__clock_gettime64"))(clock, now);
    now->tv_sec = static_cast<time_t>(fakes.clock_ns / 1000000000);
    now->tv_nsec = static_cast<long>(fakes.clock_ns % 1000000000);
    return 0;
}

int sysinfo(struct sysinfo* info) __THROW {
    const int result = REAL(sysinfo)(info);
    if (fakes.clock_ns != 0) info->uptime = static_cast<long>(fakes.clock_ns / 1000000000);
    return result;
}

int mkfifo(const char* path, mode_t mode) __THROW {
    if ((errno = fakes.fail[FAKE_MKFIFO]) != 0) return -1;
    return REAL(mkfifo)(path, mode);
}

pid_t waitpid(pid_t pid, int* status, int options) {
    const pid_t result = REAL(waitpid)(pid, status, options);
    if (result > 0 && status && *status && *status == fakes.core_dumped_by) *status |= WCOREFLAG;
    return result;
}

pid_t wait4(pid_t pid, __WAIT_STATUS status, int options, struct rusage* usage) __THROW {
    if (fakes.fail[FAKE_WAIT4] == 0) return REAL(wait4)(pid, status, options, usage);
    errno = fakes.fail[FAKE_WAIT4];
    return -1;
}

PLAIN long syscall(long number, ...) __THROW {
    if ((errno = fakes.fail[FAKE_SYSCALL]) != 0) return -1;
    long arg[6];
    va_list args;
    va_start(args, number);
    for (long& each : arg) each = va_arg(args, long);
    va_end(args);
    return REAL(syscall)(number, arg[0], arg[1], arg[2], arg[3], arg[4], arg[5]);
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

#define FAIL_ON_DEMAND(index, call, parameters, arguments) \
    int call parameters {                                  \
        if (fakes.fail[index]) return fakes.fail[index];   \
        return REAL(call) arguments;                       \
    }

FAIL_ON_DEMAND(FAKE_MUTEX_INIT, pthread_mutex_init,
               (pthread_mutex_t * mutex, const pthread_mutexattr_t* attributes) __THROW,
               (mutex, attributes))
FAIL_ON_DEMAND(FAKE_MUTEX_DESTROY, pthread_mutex_destroy, (pthread_mutex_t * mutex) __THROW,
               (mutex))
FAIL_ON_DEMAND(FAKE_COND_INIT, pthread_cond_init,
               (pthread_cond_t * cond, const pthread_condattr_t* attributes) __THROW,
               (cond, attributes))
FAIL_ON_DEMAND(FAKE_COND_DESTROY, pthread_cond_destroy, (pthread_cond_t * cond) __THROW, (cond))
FAIL_ON_DEMAND(FAKE_COND_SIGNAL, pthread_cond_signal, (pthread_cond_t * cond) __THROWNL, (cond))

__attribute__((format(printf, 2, 3))) void syslog(int priority, const char* format, ...) {
    va_list args;
    va_start(args, format);
    record_syslog(priority, format, args);
    va_end(args);
}

// What syslog() becomes where _FORTIFY_SOURCE is set.
void __syslog_chk(int priority, int, const char* format, ...) {
    va_list args;
    va_start(args, format);
    record_syslog(priority, format, args);
    va_end(args);
}

// liblog. A message goes to stderr as "ZONE/LEVEL FORMAT|TEXT".
int logzone_enabled(int zone, int level) { return zone == 6 && level == 1 && !fakes.log_off; }

int __vask_log(int zone, int level, const char* format, ...) {
    va_list args;
    va_start(args, format);
    dprintf(STDERR_FILENO, "%d/%d %s|", zone, level, format);
    vdprintf(STDERR_FILENO, format, args);
    va_end(args);
    return 0;
}

}  // extern "C"
