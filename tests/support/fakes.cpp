// The loader finds a definition in the program before that of the C library, so the library under
// test calls these functions, too. dlsym(RTLD_NEXT) finds the next one: that of a sanitizer, or the
// real one.
#include "fakes.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <link.h>
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/sysinfo.h>
#include <sys/wait.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

// Sanitizers must not instrument a function that runs before they are set up.
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

// Older headers declare wait4() with this type, newer ones with int*.
#ifndef __WAIT_STATUS
#define __WAIT_STATUS int*
#endif

struct fakes fakes;
__thread int fail_allocation;

// The addresses of the code of the library and of the C library. Only calls from there meet faults,
// since GoogleTest and the C++ runtime can't handle one.
static struct Code { uintptr_t begin, end; } code_of[2];

static int note_code(dl_phdr_info* object, size_t, void*) {
    const char* const name = strrchr(object->dlpi_name, '/');
    const int n = name && strncmp(name, "/libtessra.so", 13) == 0 ? 0 : 1;
    if (n == 1 && (!name || strncmp(name, "/libc.so", 8) != 0)) return 0;
    for (int i = 0; i < object->dlpi_phnum; ++i) {
        const auto& segment = object->dlpi_phdr[i];
        if (segment.p_type != PT_LOAD || !(segment.p_flags & PF_X)) continue;
        code_of[n].begin = object->dlpi_addr + segment.p_vaddr;
        code_of[n].end = code_of[n].begin + segment.p_memsz;
    }
    return 0;
}

__attribute__((constructor)) static void find_code() { dl_iterate_phdr(note_code, nullptr); }

static PLAIN bool is_in(const Code& code, const void* caller) {
    const auto at = reinterpret_cast<uintptr_t>(caller);
    return code.begin <= at && at < code.end;
}

static PLAIN bool made_by_library(const void* caller) {
    return is_in(code_of[0], caller) || is_in(code_of[1], caller);
}

PLAIN int fault_hits(int call, const void* caller) {
    if (fakes.on_call && is_in(code_of[0], caller)) {
        const int before = errno;
        fakes.on_call(call);
        errno = before;
    }
    int error = fakes.fail[call];
    struct fault* const fault = fakes.fault;
    if (fault && made_by_library(caller)) {
        const int nth = __atomic_add_fetch(&fault->calls[call], 1, __ATOMIC_RELAXED);
        const bool hit = fault->lasts ? nth >= fault->nth : nth == fault->nth;
        if (call == fault->call && hit) error = fault->error;
    }
    if (error > 0) errno = error;
    return error;
}

static PLAIN void* counted(void* block) {
    if (block) __atomic_add_fetch(&fakes.blocks, 1, __ATOMIC_RELAXED);
    return block;
}

// Returns whether this allocation has to fail, and sets errno to ENOMEM if so.
static PLAIN bool allocation_fails(const void* caller) {
    const bool nth = fail_allocation == 1;
    if (fail_allocation != 0) --fail_allocation;
    if (nth) errno = ENOMEM;
    return fault_hits(FAKE_ALLOC, caller) || nth;
}
#define ALLOCATION_FAILS() allocation_fails(__builtin_return_address(0))

static void record_syslog(int priority, const char* format, va_list args) {
    char* end = strchr(fakes.syslog_text, 0);
    if (end > fakes.syslog_text + sizeof fakes.syslog_text / 2) {
        end = fakes.syslog_text;
        *end = 0;
    }
    const auto room = [&] { return sizeof fakes.syslog_text - size_t(end - fakes.syslog_text); };
    end += snprintf(end, room(), "%d ", priority);
    end += vsnprintf(end, room(), format, args);
    snprintf(end, room(), "\n");
}

extern "C" {

extern int __register_atfork(void (*)(void), void (*)(void), void (*)(void), void*);

PLAIN int* __errno_location() __THROW {
    if (fakes.on_call && is_in(code_of[0], __builtin_return_address(0))) fakes.on_call(FAKE_ERRNO);
    return REAL(__errno_location)();
}

// pthread_cancel() loads a library, and the loader keeps memory where LeakSanitizer doesn't look.
const char* __lsan_default_suppressions() { return "leak:ld-linux"; }

// calloc() and realloc() of some C libraries call malloc() and free(). These calls don't count and
// don't fail.
static __thread bool inside_allocator;

PLAIN void* malloc(size_t size) __THROW {
    if (inside_allocator) return REAL(malloc)(size);
    return ALLOCATION_FAILS() ? nullptr : counted(REAL(malloc)(size));
}

PLAIN void* calloc(size_t count, size_t size) __THROW {
    if (ALLOCATION_FAILS()) return nullptr;
    inside_allocator = true;
    void* const block = REAL(calloc)(count, size);
    inside_allocator = false;
    return counted(block);
}

PLAIN void* realloc(void* block, size_t size) __THROW {
    if (ALLOCATION_FAILS()) return nullptr;
    inside_allocator = true;
    void* const moved = REAL(realloc)(block, size);
    inside_allocator = false;
    return block ? moved : counted(moved);
}

PLAIN void free(void* block) __THROW {
    static void (*real)(void*);
    static bool looking;  // dlsym() itself frees the text of an older error.
    if (!real) {
        if (looking) return;
        looking = true;
        real = REAL(free);
    }
    if (block) FAULT_HITS(FAKE_FREE);
    if (block && !inside_allocator) __atomic_sub_fetch(&fakes.blocks, 1, __ATOMIC_RELAXED);
    real(block);
}

PLAIN int real_select(int nfds, fd_set* rset, fd_set* wset, fd_set* eset, timeval* tv) {
    return REAL_AS(select, TIME64("select", "__select64"))(nfds, rset, wset, eset, tv);
}

PLAIN int select(int nfds, fd_set* rset, fd_set* wset, fd_set* eset, timeval* tv) {
    if (FAULT_HITS(FAKE_SELECT)) return -1;
    return (fakes.on_select ? fakes.on_select : real_select)(nfds, rset, wset, eset, tv);
}

PLAIN ssize_t real_read(int fd, void* bytes, size_t count) { return REAL(read)(fd, bytes, count); }

// A short read or write transfers half of the bytes; one byte stays one byte.
static PLAIN size_t cut(int error, size_t count) {
    return error == FAKE_SHORT && count > 1 ? count / 2 : count;
}

PLAIN ssize_t read(int fd, void* bytes, size_t count) {
    const int error = FAULT_HITS(FAKE_READ);
    if (error > 0) return -1;
    count = cut(error, count);
    return (fakes.on_read ? fakes.on_read : real_read)(fd, bytes, count);
}

PLAIN ssize_t write(int fd, const void* bytes, size_t count) {
    constexpr size_t kSignalMessage = 1 + sizeof(siginfo_t);
    const bool is_message = count == kSignalMessage || (count == 1 && *(const char*)bytes == '-');
    if (is_message && fakes.before_message) fakes.before_message(fd, count);
    const int error = FAULT_HITS(FAKE_WRITE);
    return error > 0 ? -1 : REAL(write)(fd, bytes, cut(error, count));
}

PLAIN int clock_gettime(clockid_t clock, timespec* now) __THROW {
    if (clock == CLOCK_MONOTONIC_RAW) {
        __atomic_add_fetch(&fakes.clock_reads, 1, __ATOMIC_RELAXED);
        const int saved = errno;
        const long long minutes = FAULT_HITS(FAKE_CLOCK);
        if (minutes) fakes.clock_ns += static_cast<unsigned long long>(minutes * 60000000000LL);
        errno = saved;
    }
    if (clock != CLOCK_MONOTONIC_RAW || fakes.clock_ns == 0) {
        return REAL_AS(clock_gettime, TIME64("clock_gettime", "__clock_gettime64"))(clock, now);
    }
    now->tv_sec = static_cast<time_t>(fakes.clock_ns / 1000000000);
    now->tv_nsec = static_cast<long>(fakes.clock_ns % 1000000000);
    return 0;
}

int sysinfo(struct sysinfo* info) __THROW {
    if (FAULT_HITS(FAKE_SYSINFO)) return -1;
    const int result = REAL(sysinfo)(info);
    if (fakes.clock_ns != 0) info->uptime = static_cast<long>(fakes.clock_ns / 1000000000);
    return result;
}

pid_t waitpid(pid_t pid, int* status, int options) {
    if (FAULT_HITS(FAKE_WAITPID)) return -1;
    const pid_t result = REAL(waitpid)(pid, status, options);
    if (result > 0 && status && *status && *status == fakes.core_dumped_by) *status |= WCOREFLAG;
    return result;
}

PLAIN long syscall(long number, ...) __THROW {
    if (FAULT_HITS(FAKE_SYSCALL)) return -1;
    long arg[6];
    va_list args;
    va_start(args, number);
    for (long& each : arg) each = va_arg(args, long);
    va_end(args);
    return REAL(syscall)(number, arg[0], arg[1], arg[2], arg[3], arg[4], arg[5]);
}

// With 64-bit offsets the compiler renames the library's calls to names with 64.
PLAIN int open64(const char* path, int flags, ...) {
    va_list args;
    va_start(args, flags);
    const unsigned mode = flags & O_CREAT ? va_arg(args, unsigned) : 0;
    va_end(args);
    if (made_by_library(__builtin_return_address(0)) && fakes.before_open) {
        ++fakes.opens;
        fakes.before_open(fakes.opens);
    }
    return FAULT_HITS(FAKE_OPEN) ? -1 : REAL(open64)(path, flags, mode);
}

PLAIN int stat64(const char* path, struct stat64* into) __THROW {
    const int result = FAULT_HITS(FAKE_STAT) ? -1 : REAL(stat64)(path, into);
    if (result == 0 && fakes.after_stat) fakes.after_stat(path, into);
    return result;
}

PLAIN int fcntl64(int fd, int command, ...) {
    va_list args;
    va_start(args, command);
    void* const arg = va_arg(args, void*);
    va_end(args);
    return FAULT_HITS(FAKE_FCNTL) ? -1 : REAL(fcntl64)(fd, command, arg);
}

PLAIN int sigaction(int signal, const struct sigaction* action, struct sigaction* before) __THROW {
    if (FAULT_HITS(FAKE_SIGACTION)) return -1;
    const int result = REAL(sigaction)(signal, action, before);
    if (fakes.after_sigaction && made_by_library(__builtin_return_address(0))) {
        fakes.after_sigaction(signal, action);
    }
    return result;
}

PLAIN int close(int fd) {
    const int result = REAL(close)(fd);
    return FAULT_HITS(FAKE_CLOSE) ? -1 : result;
}

#define FAIL_AS(index, type, failed, call, parameters, arguments) \
    PLAIN type call parameters {                                  \
        if (FAULT_HITS(index)) return failed;                     \
        return REAL(call) arguments;                              \
    }
#define FAIL_ON_DEMAND(index, call, parameters, arguments) \
    FAIL_AS(index, int, -1, call, parameters, arguments)

FAIL_ON_DEMAND(FAKE_MKFIFO, mkfifo, (const char* path, mode_t mode)__THROW, (path, mode))
FAIL_ON_DEMAND(FAKE_PIPE, pipe2, (int* ends, int flags)__THROW, (ends, flags))
FAIL_ON_DEMAND(FAKE_FSTAT, fstat64, (int fd, struct stat64* into)__THROW, (fd, into))
FAIL_ON_DEMAND(FAKE_FTRUNCATE, ftruncate64, (int fd, off64_t length)__THROW, (fd, length))
FAIL_ON_DEMAND(FAKE_UNLINK, unlink, (const char* path)__THROW, (path))
FAIL_ON_DEMAND(FAKE_GETRLIMIT, getrlimit64,
               (__rlimit_resource_t resource, struct rlimit64* limit)__THROW, (resource, limit))
FAIL_ON_DEMAND(FAKE_WAIT4, wait4,
               (pid_t pid, __WAIT_STATUS status, int options, rusage* usage)__THROWNL,
               (pid, status, options, usage))
FAIL_AS(FAKE_POPEN, FILE*, nullptr, popen, (const char* command, const char* mode), (command, mode))
FAIL_AS(FAKE_FREAD, size_t, 0, fread, (void* into, size_t size, size_t count, FILE* file),
        (into, size, count, file))

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*start)(void*),
                   void* arg) __THROWNL {
    int error = FAULT_HITS(FAKE_PTHREAD_CREATE);
    if (!error) error = REAL(pthread_create)(thread, attributes, start, arg);
    if (!error) __atomic_add_fetch(&fakes.threads, 1, __ATOMIC_RELAXED);
    return error;
}

PLAIN int pthread_join(pthread_t thread, void** result) {
    FAULT_HITS(FAKE_PTHREAD_JOIN);
    const int error = REAL(pthread_join)(thread, result);
    if (!error) __atomic_sub_fetch(&fakes.threads, 1, __ATOMIC_RELAXED);
    return error;
}

#define FAIL_BY_RESULT(index, call, parameters, arguments) \
    PLAIN int call parameters {                            \
        const int error = FAULT_HITS(index);               \
        return error ? error : REAL(call) arguments;       \
    }

static void (*prepare_library)(void);
static PLAIN void prepare_and_tell() {
    if (fakes.on_call) fakes.on_call(FAKE_FORK);
    prepare_library();
}

// Each library has its own copy of pthread_atfork(), and all these copies call this function.
PLAIN int __register_atfork(void (*prepare)(void), void (*parent)(void), void (*child)(void),
                            void* library) {
    if (prepare != nullptr && is_in(code_of[0], __builtin_return_address(0))) {
        prepare_library = prepare;
        prepare = prepare_and_tell;
    }
    const int error = FAULT_HITS(FAKE_ATFORK);
    return error ? error : REAL(__register_atfork)(prepare, parent, child, library);
}

FAIL_BY_RESULT(FAKE_MUTEX_TRYLOCK, pthread_mutex_trylock, (pthread_mutex_t * mutex) __THROWNL,
               (mutex))
FAIL_BY_RESULT(FAKE_CANCELSTATE, pthread_setcancelstate, (int state, int* before), (state, before))
FAIL_BY_RESULT(FAKE_COND_WAIT, pthread_cond_wait, (pthread_cond_t * cond, pthread_mutex_t* mutex),
               (cond, mutex))
FAIL_BY_RESULT(FAKE_NANOSLEEP, nanosleep, (const timespec* time, timespec* rest), (time, rest))
FAIL_BY_RESULT(FAKE_SIGMASK, pthread_sigmask,
               (int how, const sigset_t* signals, sigset_t* before)__THROW, (how, signals, before))
FAIL_BY_RESULT(FAKE_MUTEX_INIT, pthread_mutex_init,
               (pthread_mutex_t * mutex, const pthread_mutexattr_t* attributes) __THROW,
               (mutex, attributes))
FAIL_BY_RESULT(FAKE_MUTEX_DESTROY, pthread_mutex_destroy, (pthread_mutex_t * mutex) __THROW,
               (mutex))
FAIL_BY_RESULT(FAKE_COND_INIT, pthread_cond_init,
               (pthread_cond_t * cond, const pthread_condattr_t* attributes) __THROW,
               (cond, attributes))
FAIL_BY_RESULT(FAKE_COND_DESTROY, pthread_cond_destroy, (pthread_cond_t * cond) __THROW, (cond))
FAIL_BY_RESULT(FAKE_COND_SIGNAL, pthread_cond_signal, (pthread_cond_t * cond) __THROWNL, (cond))

__attribute__((format(printf, 2, 3))) void syslog(int priority, const char* format, ...) {
    va_list args;
    va_start(args, format);
    record_syslog(priority, format, args);
    va_end(args);
}

// With _FORTIFY_SOURCE the compiler calls this instead of syslog().
void __syslog_chk(int priority, int, const char* format, ...) {
    va_list args;
    va_start(args, format);
    record_syslog(priority, format, args);
    va_end(args);
}

// liblog. A message goes to stderr as "ZONE/LEVEL FORMAT|TEXT".
int logzone_enabled(int zone, int level) { return zone == 6 && level == 1 && !fakes.log_off; }

int __vask_log(int zone, int level, const char* format, ...) {
    if (fakes.on_log) fakes.on_log();
    va_list args;
    va_start(args, format);
    dprintf(STDERR_FILENO, "%d/%d %s|", zone, level, format);
    vdprintf(STDERR_FILENO, format, args);
    va_end(args);
    return 0;
}

}  // extern "C"
