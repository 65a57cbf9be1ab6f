/**
 * @file fakes.h
 * Calls of the C library and of liblog that the test program answers in their place.
 *
 * Everything passes through to the real call until a test asks for something else. Set the fields
 * before the threads that meet them start.
 */
#ifndef TESSRA_TESTS_FAKES_H
#define TESSRA_TESTS_FAKES_H

#include <sys/select.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

enum fake_call {
    FAKE_MKFIFO,
    FAKE_PTHREAD_CREATE,
    FAKE_MUTEX_INIT,
    FAKE_MUTEX_DESTROY,
    FAKE_COND_INIT,
    FAKE_COND_DESTROY,
    FAKE_COND_SIGNAL,
    FAKE_WAIT4,
    FAKE_SYSCALL, /**< The way to calls that the C library may not have. */
    FAKE_CALLS
};

typedef ssize_t read_call(int fd, void* bytes, size_t count);
typedef int select_call(int nfds, fd_set* rset, fd_set* wset, fd_set* eset, struct timeval* tv);

extern struct fakes {
    int fail[FAKE_CALLS];   /**< Error number that the call fails with; 0 lets it through. */
    select_call* on_select; /**< Stands for select(), if not null. */
    read_call* on_read;     /**< Stands for read(), if not null. */
    void (*before_message)(int fd); /**< Called before a signal message is written, if not null. */
    unsigned long long clock_ns; /**< CLOCK_MONOTONIC_RAW, and the uptime; 0 for the real ones. */
    unsigned clock_reads;        /**< Readings of that clock. */
    int core_dumped_by;          /**< waitpid() tells of a core that this signal left. */
    int threads;                 /**< Created and not yet joined. */
    int log_off;                 /**< What the library logs isn't wanted. */
    char syslog_text[1000];      /**< "PRIORITY TEXT\n" for each syslog() call. */
} fakes;

/** The n-th malloc() or calloc() of this thread from now on fails; 0 for none. */
extern __thread int fail_allocation;

/** The C library's own select(). */
select_call real_select;
/** The C library's own read(). */
read_call real_read;

#ifdef __cplusplus
}
#endif

#endif
