// Calls of the C library and of liblog that the test program answers in their place.
// Everything passes through to the real call until a test asks for something else. Set the fields
// before the threads that meet them start.
#ifndef TESSRA_TESTS_FAKES_H
#define TESSRA_TESTS_FAKES_H

#include <signal.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <sys/types.h>

extern "C" {

// The calls that can be made to fail.
enum fake_call {
    FAKE_ALLOC,  // malloc(), calloc() and realloc().
    FAKE_MKFIFO,
    FAKE_OPEN,
    FAKE_STAT,
    FAKE_FSTAT,
    FAKE_FCNTL,
    FAKE_FTRUNCATE,
    FAKE_READ,
    FAKE_WRITE,
    FAKE_CLOSE,  // Closes all the same.
    FAKE_UNLINK,
    FAKE_SELECT,
    FAKE_CLOCK,  // The error is a jump of the fake clock in minutes.
    FAKE_GETRLIMIT,
    FAKE_SYSINFO,
    FAKE_WAITPID,
    FAKE_WAIT4,
    FAKE_SIGACTION,
    FAKE_SIGMASK,
    FAKE_SYSCALL,  // The way to calls that the C library may not have.
    FAKE_VFORK,    // This and the next two only where the program asks fault_hits() itself.
    FAKE_EXEC,
    FAKE_SETMNTENT,
    FAKE_POPEN,
    FAKE_FREAD,
    FAKE_PTHREAD_CREATE,
    FAKE_MUTEX_INIT,
    FAKE_MUTEX_DESTROY,
    FAKE_COND_INIT,
    FAKE_COND_DESTROY,
    FAKE_COND_SIGNAL,
    FAKE_PIPE,
    FAKE_ATFORK,
    FAKE_PARK_ONLY,  // From here on none that fails.
    FAKE_FREE = FAKE_PARK_ONLY,
    FAKE_ERRNO,  // A look at errno.
    FAKE_NANOSLEEP,
    FAKE_MUTEX_TRYLOCK,
    FAKE_CANCELSTATE,
    FAKE_PTHREAD_JOIN,
    FAKE_COND_WAIT,
    FAKE_FORK,  // Before the library's own handler of a fork().
    FAKE_CALLS
};

// The error of a read or write that comes up short.
enum { FAKE_SHORT = -1 };

// A call that fails. Only calls that the library or the C library makes count.
struct fault {
    int call, nth, error;       // The nth of these calls from now on, and its error number.
    int lasts;                  // All after it fail, too.
    int calls[FAKE_CALLS + 1];  // Made so far, also by children of fork() if it is shared.
};

typedef ssize_t read_call(int fd, void* bytes, size_t count);
typedef int select_call(int nfds, fd_set* rset, fd_set* wset, fd_set* eset, struct timeval* tv);

extern struct fakes {
    int fail[FAKE_CALLS];       // Error number that the call fails with; 0 lets it through.
    struct fault* fault;        // The fault that is armed, if not null.
    void (*on_call)(int call);  // Called before each of these calls of the library, if not null.
    long blocks;                // Of the heap, that malloc() and its likes have made and not freed.
    select_call* on_select;     // Stands for select(), if not null.
    read_call* on_read;         // Stands for read(), if not null.
    // Called before a message of this size is written, a signal or a wake-up, if not null.
    void (*before_message)(int fd, size_t size);
    // Called after a sigaction() of the library, if not null. `action` is null for a query.
    void (*after_sigaction)(int signal, const struct sigaction* action);
    // Called after a stat() that was successful, if not null.
    void (*after_stat)(const char* path, struct stat64* info);
    void (*before_open)(int nth);  // Called before the nth open() of the library, if not null.
    int opens;                     // Made by the library so far.
    unsigned long long clock_ns;   // CLOCK_MONOTONIC_RAW, and the uptime; 0 for the real ones.
    unsigned clock_reads;          // Readings of that clock.
    int core_dumped_by;            // waitpid() tells of a core that this signal left.
    int threads;                   // Created and not yet joined.
    int log_off;                   // What the library logs isn't wanted.
    void (*on_log)(void);          // Called for each line of the library's log, if not null.
    char syslog_text[1000];        // "PRIORITY TEXT\n" for each syslog() call; the last ones.
} fakes;

// Whether a call that `caller`, an address of code, makes is to fail now; sets errno if it is.
int fault_hits(int call, const void* caller);
#define FAULT_HITS(call) fault_hits(call, __builtin_return_address(0))

// The n-th allocation of this thread from now on fails, whoever makes it; 0 for none.
extern __thread int fail_allocation;

// The C library's own select().
select_call real_select;
// The C library's own read().
read_call real_read;

}  // extern "C"

#endif
