// Replacements of calls of the C library and of liblog, in the test program. Each passes on to the
// real call until a test asks for something else. Set the fields before you start a thread that
// makes such calls.
#ifndef TESSRA_TESTS_FAKES_H
#define TESSRA_TESTS_FAKES_H

#include <signal.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <sys/types.h>

extern "C" {

// The calls that a test can make fail, or at which it can run a step.
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
    FAKE_CLOSE,  // Closes the descriptor even if it fails.
    FAKE_UNLINK,
    FAKE_SELECT,
    FAKE_CLOCK,  // The error is a jump of the fake clock in minutes.
    FAKE_GETRLIMIT,
    FAKE_SYSINFO,
    FAKE_WAITPID,
    FAKE_WAIT4,
    FAKE_SIGACTION,
    FAKE_SIGMASK,
    FAKE_SYSCALL,  // Makes the calls for which the C library may have no function.
    FAKE_VFORK,    // This and the next two work only where the program itself calls fault_hits().
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
    FAKE_PARK_ONLY,  // The calls from here on can't be made to fail.
    FAKE_FREE = FAKE_PARK_ONLY,
    FAKE_ERRNO,  // The library reads or writes errno.
    FAKE_NANOSLEEP,
    FAKE_MUTEX_TRYLOCK,
    FAKE_CANCELSTATE,
    FAKE_PTHREAD_JOIN,
    FAKE_COND_WAIT,
    FAKE_FORK,  // In a fork(), before the library's own handler.
    FAKE_CALLS
};

// The error number of a read or write that transfers a part.
enum { FAKE_SHORT = -1 };

// A call that fails. Only calls of the library and of the C library count.
struct fault {
    int call, nth, error;       // The nth of these calls from now on, and its error number.
    int lasts;                  // If not 0, all calls after it fail, too.
    int calls[FAKE_CALLS + 1];  // Calls so far; in shared memory also those of children.
};

typedef ssize_t read_call(int fd, void* bytes, size_t count);
typedef int select_call(int nfds, fd_set* rset, fd_set* wset, fd_set* eset, struct timeval* tv);

extern struct fakes {
    int fail[FAKE_CALLS];       // Error number of the call; 0 passes it on.
    struct fault* fault;        // The armed fault, if not null.
    void (*on_call)(int call);  // Runs before each of these calls of the library, if not null.
    long blocks;                // Blocks from malloc() and its like that aren't freed yet.
    select_call* on_select;     // Replaces select(), if not null.
    read_call* on_read;         // Replaces read(), if not null.
    // Runs before a write of a message, a signal or a wake-up, of this size, if not null.
    void (*before_message)(int fd, size_t size);
    // Runs after a sigaction() of the library, if not null. `action` is null for a query.
    void (*after_sigaction)(int signal, const struct sigaction* action);
    // Runs after a successful stat(), if not null.
    void (*after_stat)(const char* path, struct stat64* info);
    void (*before_open)(int nth);  // Runs before the nth open() of the library, if not null.
    int opens;                     // Calls of before_open() so far.
    unsigned long long clock_ns;   // CLOCK_MONOTONIC_RAW and the uptime; 0: the real ones.
    unsigned clock_reads;          // Readings of that clock.
    int core_dumped_by;            // For this signal waitpid() reports a core dump.
    int threads;                   // Threads that are created and not yet joined.
    int log_off;                   // If not 0, nobody wants the library's log.
    void (*on_log)(void);          // Runs for each line of the library's log, if not null.
    char syslog_text[1000];        // "PRIORITY TEXT\n" of the last syslog() calls.
} fakes;

// Returns 0, or the error of a call that has to fail now; a positive one is in errno, too. The call
// returns to the address `caller`.
int fault_hits(int call, const void* caller);
#define FAULT_HITS(call) fault_hits(call, __builtin_return_address(0))

// The n-th allocation of this thread from now on fails, whoever makes it; 0: none.
extern __thread int fail_allocation;

// The C library's own select().
select_call real_select;
// The C library's own read().
read_call real_read;

}  // extern "C"

#endif
