/**
 * @file eventloop.h
 * A select() event loop with timers and watchers of descriptors, signals and child processes.
 *
 * Life: register watchers, run the loop, cancel it.
 *
 *     event_timer_add(tick, NULL, 1000);
 *     event_signal_add(on_term, NULL, SIGTERM);     // on_term calls cancel_loop()
 *     int failed = et_event_loop();                 // 0 after the cancel
 *
 * Contexts. A context is one loop's watchers, wake-up channel and locks. A process has a default
 * context, which the plain functions work on, and may make others with event_mc_init(), which the
 * functions with the suffix _mc take as first argument. Apart from that the two forms are the same.
 *
 * Handlers run on the loop's thread, one after another, inside a pass: first the handlers of ready
 * descriptors in order of adding, then those of at most one caught signal, then those of due
 * timers. A handler may add and delete watchers of any kind on its own context, itself and its
 * neighbours included, may add and delete timers of any context, may cancel any loop, and may run
 * one nested pass with do_events(). It must not let a C++ exception out, must not end its thread,
 * must not free its own context, and must not block for long: all others wait for it.
 *
 * Threads. Every function may be called from any thread except where it says otherwise; none may be
 * called from a signal handler. Each add, delete and cancel wakes the loop, also one that finds
 * nothing to delete and one made on the loop's own thread: the loop owes it a pass, so n changes
 * are followed by n passes that don't wait. Signals don't wait for these passes. Descriptor, signal
 * and child handlers run with the locks of their watcher lists held, so that an add or delete of
 * such a watcher on another thread waits until they are done: a handler that waits for a thread
 * which is in such a call never ends. For the same reason such a handler changes descriptor, signal
 * and child watchers of its own context only: two loops whose handlers change each other's would
 * wait for each other. A child's handler runs on the default context's loop: that is its own
 * context, whichever one the child is watched on. Timer handlers run without a lock, except in a
 * nested pass: there they run with the locks of the handler that called do_events().
 *
 * Cancelled threads. pthread_cancel() of a thread that runs a loop acts after et_event_loop() has
 * returned, at the thread's next cancellation point: the library defers it, handlers included, and
 * it does not end the loop. A wake-up, the catching of a signal, a start, a stop, a release of a
 * context and a shell command defer it until they are through. Asynchronous cancellation
 * (PTHREAD_CANCEL_ASYNCHRONOUS) must be off in every call. Some C libraries turn it on inside
 * blocking calls. If a signal interrupts such a call while the thread is being cancelled, that
 * signal is lost. So block the watched signals in every thread that may be cancelled.
 *
 * Signals that arrive while no loop runs are dropped. A daemon that must not miss an early SIGTERM,
 * or the SIGCHLD of an early child, blocks it before event_signal_add() and unblocks it in a timer
 * armed with 0, which the loop's first pass runs. A cancel also drops the signals that have been
 * caught and not yet taken.
 *
 * Failure of an add. The add functions have no result. One that can't register (ENOMEM, EMFILE,
 * EINVAL as told there) registers nothing, changes nothing and sets errno. One that registers
 * leaves errno as it was, except event_signal_add() of SIGKILL and SIGSTOP. Set errno to 0 before
 * the call to tell.
 *
 * After fork() a child has no loop. Every context is idle in it: is_event_loop_thread() is 0, also
 * in a child that was forked in a handler, do_events() is -1, and adds, deletes and cancels write
 * nothing anywhere. A context that was idle keeps its watchers in the child, but those of children;
 * a context whose loop ran has none. The child may run a loop on either. Its copies of the parent's
 * wake-up channels stay open and unused until exec. A child that was forked in a handler calls exec
 * or _exit(), or stays in the handler. If the handler returns there, no further handler runs, a
 * do_events() under way returns -1, and et_event_loop() returns -1 with errno ECANCELED; on the
 * thread of event_loop_async_start() the child then ends by exit(0), with the exit handlers and the
 * buffered output of its parent.
 *
 * The library's fork handlers wait for changes, starts and ends that other threads are making. The
 * library's first call registers them. Make that call before another thread can fork(): if another
 * thread forks during that call, a lock may stay locked in the child for ever. A daemon whose own
 * fork handlers call the library, or take a lock under which it is called, registers them after
 * that call. fork() must not be called from a signal handler, and _Fork(), which runs no fork
 * handlers, leaves the child with the parent's loops: it must not call this library.
 *
 * The shared library stays in memory once it is loaded, since the signal catcher may be installed.
 * A plugin that contains the static library is linked with -z nodelete.
 *
 * All times are milliseconds of the clock of event_get_time(), which no one can set.
 */
#ifndef TESSRA_EVENTLOOP_H
#define TESSRA_EVENTLOOP_H

#include <signal.h>
#include <time.h>

/*
 * Strict ISO C hides siginfo_t in <signal.h>; a handler's type needs it all the same. With other C
 * libraries than glibc, strict programs define _POSIX_C_SOURCE or _GNU_SOURCE.
 */
#if !defined(__USE_POSIX199309) && defined(__GLIBC__) && !defined(__UCLIBC__)
#include <bits/types/siginfo_t.h>
#endif

#ifdef __cplusplus
extern "C" {
#endif

#pragma GCC visibility push(default)

/** One loop: its watchers, its wake-up channel and its locks. Opaque. */
typedef struct event_loop_ctx* event_loop_ctx_tp;

/**
 * @name Contexts
 * @{
 */

/**
 * Makes a new idle context.
 *
 * Returns the context, which the caller ends with event_mc_free(), or NULL with errno ENOMEM.
 * Threads: any. Blocks: never.
 */
event_loop_ctx_tp event_mc_init(void);

/**
 * Releases a context of event_mc_init() and all its watchers; no handler runs.
 *
 * @param ctx  a context whose loop never ran or has returned; NULL is allowed and does nothing
 *
 * If the process's child watchers were set up on this context (see event_process_add_mc()), they
 * stop working for good. A child's handler may free that context: no further child is looked at
 * then. The call takes no lock that handlers of other contexts hold, so such a handler may wait for
 * a thread that is in this call. A handler of a child that is watched on @p ctx must not.
 * Threads: any, but no other thread may be in a call with @p ctx or make one. The cancel_loop_mc()
 * that has ended the loop doesn't count: it is through with the context when the loop has returned.
 */
void event_mc_free(event_loop_ctx_tp ctx);

/** @} */

/**
 * @name Running a loop
 * @{
 */

/**
 * Runs the loop of @p el_ctx on the calling thread until cancel_loop_mc().
 *
 * The start makes a FIFO named "/tmp/evtloop" and the process id, opens both its ends, and removes
 * its name. A pipe without a name then carries the wake-ups and signals, so that no other user can
 * reach them. Its numbers are above 2, and both ends are closed on exec.
 *
 * Returns 0 after a cancel, once the pass under way has finished. Returns -1 with errno ECANCELED
 * in a child of fork() whose handler has returned. Returns -1 if the loop didn't start. Watchers
 * are kept then, and errno is one of these:
 * - EBUSY: the loop runs already, or has not yet returned from a cancelled run. Nothing is logged.
 * - ENOMEM: no memory for the fork handlers. Nothing is logged.
 * - EMFILE, ENFILE, EINVAL: no descriptor left for the channel, or none from 3 to FD_SETSIZE - 1.
 * - EPERM: something else than a FIFO has the name.
 * - ELOOP, ENXIO, EACCES and others: the error of mkfifo() or open() for what has the name.
 *
 * A failure of the channel is logged to liblog, zone 6, level 1. No lock of a loop is held, so the
 * logger may run a loop of its own; it must not wait for another thread's event_loop_async_start()
 * or event_loop_async_stop(). A FIFO that couldn't be opened stays in /tmp and is used again by the
 * next start. If only its write end couldn't be opened, its read end stays open until the next
 * start of the context or event_mc_free(); in a child of fork() until exec.
 *
 * Two processes in different PID namespaces can have the same id and share /tmp. Their starts can
 * disturb each other, so a start tries up to 100 times, with pauses of 0.1 milliseconds or a little
 * more. It does the same if /tmp is missing. Meanwhile other starts, ends of loops and fork() wait.
 *
 * The signal mask of the thread stays as it is.
 *
 * At the end of its loop the default context drops all its watchers without running them; another
 * context keeps them for its next run. Dispositions of signals stay as event_signal_add() set them.
 *
 * Two failures end the process. A watched descriptor that has been closed: exit(-1), no message.
 * A select() that fails for another reason: a message to liblog, then exit(1). Exit handlers of the
 * first run with the lock of the descriptor and signal watchers held: they must not wait for a
 * thread that changes such watchers.
 *
 * Clock: a pause of more than 24 hours in handlers or in the wait, or a step back, counts as a jump
 * of the clock: all deadlines move along with it.
 *
 * Threads: any thread may run a loop; one at a time per context. Blocks: until the cancel.
 */
int et_event_loop_mc(event_loop_ctx_tp el_ctx);
/** et_event_loop_mc() on the default context. */
int et_event_loop(void);

/**
 * Ends the loop of @p el_ctx: the pass under way finishes all its handlers, then et_event_loop_mc()
 * returns 0. On an idle context it has no lasting effect. The caller is through with the context
 * before et_event_loop_mc() returns, so that its owner may free it then.
 * Threads: any. Blocks: never.
 */
void cancel_loop_mc(event_loop_ctx_tp el_ctx);
/** cancel_loop_mc() on the default context. */
void cancel_loop(void);

/**
 * Runs one nested pass from inside a handler: waits for a ready descriptor or a wake-up for at most
 * @p timeout milliseconds, then runs the handlers of what is ready and of all due timers.
 *
 * @param el_ctx   the context whose handler is running
 * @param timeout  0 (poll) to 2147483; timers don't shorten the wait
 *
 * Returns 0 if a pass ran, also when nothing was ready. Returns -1 without a pass on any other
 * thread than the loop's, when the loop doesn't run, inside another do_events() pass of this
 * context, after a signal interrupted the wait (its handler runs in a later pass), when select()
 * has failed three times (a watcher that another thread deletes meanwhile, and whose descriptor it
 * closes, doesn't count), and with errno EINVAL for a @p timeout above 2147483. As in the main
 * loop, a watched descriptor that has been closed ends the process with exit(-1).
 *
 * The nested pass can run the calling handler again if its descriptor is still ready. During one
 * from a descriptor, signal or child handler, other threads' changes of such watchers wait.
 */
int do_events_mc(event_loop_ctx_tp el_ctx, unsigned int timeout);
/** do_events_mc() on the default context. */
int do_events(unsigned int timeout);

/** Returns 1 if the calling thread runs the loop of @p el_ctx now, else 0. Threads: any. */
int is_event_loop_thread_mc(event_loop_ctx_tp el_ctx);
/** is_event_loop_thread_mc() on the default context. */
int is_event_loop_thread(void);

/** Returns the loop's clock, CLOCK_MONOTONIC_RAW, in milliseconds (truncated). Threads: any. */
long long unsigned int event_get_time(void);
/** Returns the seconds of the loop's clock. Threads: any. */
time_t event_get_time_sec(void);

/** @} */

/**
 * @name Timers
 * A timer fires once; a handler that wants to be periodic arms itself again. A timer is known by
 * its handler and argument. The same pair may be armed several times.
 * @{
 */

/**
 * Called when a timer is due, on the loop's thread, without a lock (in a nested pass with those of
 * the handler that called do_events()). The timer is off the list by then: event_timer_exists()
 * doesn't see it and event_timer_del() doesn't reach it.
 * @param arg  as given to event_timer_add(); never looked at or freed by the library
 */
typedef void (*timer_handler_t)(void* arg);

/**
 * Arms a new timer.
 *
 * @param el_ctx   context whose loop will run the handler; it need not run yet
 * @param handler  not null
 * @param arg      handed to @p handler
 * @param timeout  milliseconds from now, below 2^63; 0 fires in the next timer phase
 *
 * Timers fire by deadline, those with the same deadline in order of adding, never early by the
 * clock of event_get_time(). That clock cuts its reading to whole milliseconds, so by a finer clock
 * a timer may fire up to a millisecond early. A late timer fires once. If a timer handler arms a
 * timer of 0, that timer fires in the same phase, as long as the clock shows the same millisecond.
 * A handler that arms itself for more work uses 1, so that descriptors and signals get their turn.
 * On a loop that nothing else wakes once a day, a timer more than 24 hours ahead is taken
 * for a jump of the clock and moved on: re-arm long delays in steps of less than a day.
 * Failure: ENOMEM.
 * Threads: any. Blocks: never for long.
 */
void event_timer_add_mc(event_loop_ctx_tp el_ctx, timer_handler_t handler, void* arg,
                        long long unsigned int timeout);
/** event_timer_add_mc() on the default context. */
void event_timer_add(timer_handler_t handler, void* arg, long long unsigned int timeout);

/**
 * Cancels every timer of @p handler with the argument @p arg, with any argument if that is NULL.
 *
 * Called on the loop's thread: no such timer fires any more. Called on another thread: the handler
 * of a timer that had just become due may still be running when the call returns, and may still
 * use its argument. Deleting what doesn't exist is no error and wakes the loop.
 */
void event_timer_del_mc(event_loop_ctx_tp el_ctx, timer_handler_t handler, void* arg);
/** event_timer_del_mc() on the default context. */
void event_timer_del(timer_handler_t handler, void* arg);

/**
 * Returns 1 if a timer of @p handler with the argument @p arg (any argument if NULL) is armed,
 * else 0. A timer whose handler is running is armed no more.
 */
int event_timer_exists_mc(event_loop_ctx_tp el_ctx, timer_handler_t handler, void* arg);
/** event_timer_exists_mc() on the default context. */
int event_timer_exists(timer_handler_t handler, void* arg);

/** @} */

/**
 * @name Descriptor watchers
 * Level-triggered: a descriptor that stays ready runs its handler in every pass.
 *
 * Cost of a change: before the next wait the loop walks the list of its watchers once, and makes
 * one system call for each that is new.
 * @{
 */

/** Conditions of interest, to be or-ed; what select() takes for readable, writable, exceptional. */
enum {
    EVENT_FD_READ = 1,  /**< Readable, at end of file, or a connection waits. */
    EVENT_FD_WRITE = 2, /**< Writable, or a connect has ended. */
    EVENT_FD_EXCEPT = 4 /**< Out-of-band data and other exceptional conditions. */
};

/**
 * Called when a watched condition holds, on the loop's thread, with the lock of the descriptor and
 * signal watchers held. It runs once per pass, whatever the number of conditions that hold, and
 * isn't told which: make the descriptor non-blocking. A condition may have ended before the handler
 * runs. If a handler closes a ready descriptor, opens another one that gets the same number, and
 * adds a watcher for it, that watcher may run in the same pass although the new one isn't ready.
 */
typedef void (*fd_handler_t)(int fd, void* arg);

/**
 * Watches a descriptor until event_fd_del_mc().
 *
 * @param el_ctx   context whose loop will run the handler; it need not run yet
 * @param handler  not null
 * @param arg      handed to @p handler
 * @param fd       an open descriptor below FD_SETSIZE (1024); stays the caller's. A negative
 *                 number, such as that of a failed open(), counts as one that isn't open.
 * @param type     conditions, or-ed; 0 watches nothing, but the descriptor must still stay open
 *
 * One descriptor may have several watchers; each runs by its own conditions, in order of adding.
 * Failure: ENOMEM; EMFILE for a descriptor at or above FD_SETSIZE. A descriptor that isn't open
 * ends the process as soon as the loop looks at it (see et_event_loop_mc()).
 * Threads: any; on another thread than the loop's it waits for running handlers.
 */
void event_fd_add_mc(event_loop_ctx_tp el_ctx, fd_handler_t handler, void* arg, int fd, int type);
/** event_fd_add_mc() on the default context. */
void event_fd_add(fd_handler_t handler, void* arg, int fd, int type);

/**
 * Deletes the oldest watcher of @p fd. When it returns, on whatever thread, that watcher's handler
 * isn't running and will not run again. The one exception is a handler further up the caller's own
 * stack: the calling handler itself, or the one that called do_events() around it.
 *
 * Trap: delete before you close(). A process that unshares its descriptors (unshare(CLONE_FILES))
 * on a thread must not watch those of that thread's own table: nothing notices when they are
 * closed.
 * Trap: if a handler deletes the watcher that would run next, the library only marks it, and frees
 * it later in the same pass. Until then a second delete of the same number finds the marked watcher
 * and not the younger one. If the descriptor is closed then, the younger watcher ends the process.
 * The same holds for signals and children.
 * Deleting what doesn't exist is no error and wakes the loop.
 * Threads: any; on another thread than the loop's it waits for running handlers.
 */
void event_fd_del_mc(event_loop_ctx_tp el_ctx, int fd);
/** event_fd_del_mc() on the default context. */
void event_fd_del(int fd);

/** @} */

/**
 * @name Signal watchers
 * @{
 */

/**
 * Called for a caught signal, on the loop's thread, as an ordinary function and not in signal
 * context, with the lock of the descriptor and signal watchers held.
 *
 * @param signal  the signal's number
 * @param info    the record of this delivery, valid during the call; copy what you keep
 * @param arg     as given to event_signal_add()
 */
typedef void (*signal_handler_t)(int signal, siginfo_t* info, void* arg);

/**
 * Watches a signal until event_signal_del_mc().
 *
 * @param el_ctx   context whose loop will run the handler; it need not run yet
 * @param handler  not null
 * @param arg      handed to @p handler
 * @param signal   1 to 31
 *
 * From now to the end of the process the signal is caught (SA_SIGINFO, SA_RESTART) and its default
 * action doesn't happen any more, not even while no loop runs: what arrives then is dropped. Every
 * running loop gets each caught signal and runs its own watchers of it, in order of adding. Signals
 * that come faster than a loop takes them wait in a pipe. It holds 496 of them with the kernel's
 * default size of 16 pages, and 488 if changes of watchers wait there, too. When it is full, the
 * library keeps the first signal of each number and drops later ones of that number, as the kernel
 * does with blocked signals. A signal that is kept so may run before signals that came earlier.
 * Failure: ENOMEM; EINVAL for a number outside 1 to 31; that of sigaction(), should the system
 * refuse it. SIGKILL and SIGSTOP can't be caught: they register, with errno EINVAL, and their
 * watcher never runs. SIGSEGV, SIGBUS, SIGFPE and SIGILL must not be watched: after a fault of the
 * program the catcher returns to the faulting instruction, without end.
 * Threads: any; on another thread than the loop's it waits for running handlers.
 */
void event_signal_add_mc(event_loop_ctx_tp el_ctx, signal_handler_t handler, void* arg, int signal);
/** event_signal_add_mc() on the default context. */
void event_signal_add(signal_handler_t handler, void* arg, int signal);

/**
 * Deletes the oldest watcher of @p signal. The signal stays caught. Deleting what doesn't exist is
 * no error and wakes the loop. Threads: as event_fd_del_mc().
 */
void event_signal_del_mc(event_loop_ctx_tp el_ctx, int signal);
/** event_signal_del_mc() on the default context. */
void event_signal_del(int signal);

/** @} */

/**
 * @name Child watchers
 * @{
 */

/**
 * Called once when the child has ended, on the thread of the default context's loop. It holds the
 * lock of that context's descriptor and signal watchers, and the lock of the child watchers of the
 * context that the child is watched on. The watcher is gone by then.
 *
 * @param pid     as given to event_process_add()
 * @param arg     as given to event_process_add()
 * @param status  raw wait status: use WIFEXITED() and its likes
 * @return        ignored
 */
typedef int (*process_handler_t)(int pid, void* arg, int status);

/**
 * Watches a child for its end, then collects its status, writes "Process PID exited normally CODE"
 * or "Process PID exited by signal NUMBER" to syslog (LOG_ERR) and calls @p handler.
 *
 * @param el_ctx   see the trap below
 * @param pid      a child of this process; handed to waitpid() unchanged
 * @param handler  NULL collects the status silently and keeps the watcher
 * @param arg      handed to @p handler
 *
 * Add the watcher as soon as the child exists: one that has ended before, or before the loop runs,
 * may be noticed only when another child ends. Block SIGCHLD until the loop runs, as the top of
 * this file shows for SIGTERM. Of two watchers of one child the older one is called.
 * Stopped children are not reported.
 * While event_system() runs, the end of a child is noticed at the next one's end.
 *
 * Trap: the first call in a process decides the context. The one SIGCHLD watcher of the process
 * lives on the default context, whose loop must run, and looks after the children of the context
 * of that first call alone; watchers on other contexts never fire. The first call takes the default
 * context's lock of signal watchers, on whatever context it is made: if a handler of the default
 * loop waits for the caller's thread, neither goes on. So make the first call before the loops run.
 * The SIGCHLD watcher ends for good when the default loop ends, when event_signal_del() deletes
 * SIGCHLD on the default context, or when the context of the first call is freed. So use
 * event_process_add() and run one default loop. A call that fails decides nothing. In a child of
 * fork() the next call is the first.
 *
 * Failure: ENOMEM, and on the first call as event_signal_add().
 * Threads: any; on another thread than the loop's it waits for running handlers.
 */
void event_process_add_mc(event_loop_ctx_tp el_ctx, int pid, process_handler_t handler, void* arg);
/** event_process_add_mc() on the default context. */
void event_process_add(int pid, process_handler_t handler, void* arg);

/**
 * Deletes the oldest watcher of @p pid. The child goes on, and its status is the caller's to
 * collect. Deleting what doesn't exist is no error and wakes the loop.
 * Threads: as event_fd_del_mc().
 */
void event_process_del_mc(event_loop_ctx_tp el_ctx, int pid);
/** event_process_del_mc() on the default context. */
void event_process_del(int pid);

/** @} */

/**
 * @name The default loop on a thread of its own
 * @{
 */

/**
 * Runs the default context's loop on a new thread and returns once it runs.
 *
 * A former thread of this call whose loop was cancelled is waited for first. Returns 0 when the
 * loop has run a pass; a cancel may end it at once. Returns -1 if it doesn't run; no thread is left
 * then, and errno is:
 * - EBUSY: the default loop runs, or a cancelled et_event_loop() has not returned.
 * - EAGAIN or EPERM: no thread can be made.
 * - ENOMEM and those of et_event_loop_mc(): the loop doesn't start. Watchers are kept.
 * - ECANCELED: the loop was cancelled before its first pass. Watchers are dropped, as at any end.
 *
 * A failing mutex or condition call is a broken process: a line on stderr, then abort().
 *
 * Handlers of the first pass may run before it returns: those of ready descriptors, of a signal,
 * and of timers that are due.
 * Threads: any; calls of this and of event_loop_async_stop() follow one another. In a handler of
 * the default loop it fails with EBUSY. Blocks: until the loop's first pass, before that until the
 * former thread has ended and until other threads' starts and stops are through.
 */
int event_loop_async_start(void);

/**
 * Cancels the loop of event_loop_async_start() and waits for the end of its thread, which drops all
 * watchers of the default context. Always returns 0.
 *
 * If another thread is in a start, it waits until the loop runs and then ends it. If several
 * threads call it, all return after the last handler. Without a thread to wait for it only cancels,
 * as cancel_loop() does: an et_event_loop() that runs ends, and a loop that starts later runs on.
 * Trap: on the loop's own thread it can't wait; it cancels and returns, and the thread is collected
 * by the next stop or start made elsewhere.
 * Threads: any but the loop's. Blocks: until the loop's running handlers have returned.
 */
int event_loop_async_stop(void);

/**
 * Timer handler of the start's handshake; exported, but no daemon needs to call it. Trap: if its
 * timer is deleted, the start waits until the loop is cancelled. A null @p arg is reported on
 * stderr and ends the process with abort().
 */
void event_loop_wait_for_async_loop_ready(void* arg);

/** @} */

/**
 * @name Shell commands
 * @{
 */

/**
 * Formats a command line, runs it with /bin/sh -c and waits for its end.
 *
 * @param format  printf format of the command line, whose text is cut after 1023 characters.
 *                The text goes to a shell: never let foreign text into it unquoted.
 *
 * Returns the raw wait status of the shell: use WIFEXITED() and its likes; exit code 127 if the
 * shell couldn't be started. Returns -1 with the errno of the failing call if vsnprintf() can't
 * format the command line (nothing runs), if no process could be made or if the wait failed. After
 * a wait that a signal interrupted, the command may still be running.
 *
 * The command inherits the descriptors 0, 1 and 2 and no others: all below the hard limit of
 * RLIMIT_NOFILE (1024 if there is none) are closed.
 *
 * Signals in the command. SIGINT, SIGQUIT and SIGCHLD have their default action, even if the
 * process ignores them. Each signal that the process catches, by a watcher or by a handler of its
 * own, has its default action, too. None of these handlers runs in the child before the exec. All
 * other signals that the process ignores stay ignored, also those that were watched before. Blocked
 * signals stay blocked.
 *
 * Signals in the process. While the command runs, the whole process ignores SIGINT and SIGQUIT, and
 * SIGCHLD has its default action: watchers of these three miss what happens meanwhile. Afterwards
 * the earlier dispositions are back. A disposition that another thread sets meanwhile stays, and so
 * does one that the system refuses to change. One that event_signal_add() or event_process_add()
 * sets is in place from then on without a gap. The same holds for a sigaction() of the program's
 * own, but for an instant at the end: the library may replace it, and its next system call puts it
 * back. A child that another thread forks while the command runs keeps the dispositions of that
 * time: it sets its own.
 *
 * Cancellation of the calling thread is disabled during the call. A pthread_cancel() acts at the
 * thread's first cancellation point after it, when the command has ended and the dispositions are
 * back.
 *
 * Threads: any, but one call at a time; event_system_env() and the C library's system() count, too.
 * Blocks: until the shell ends; on a loop's thread that holds up the whole loop.
 */
int event_system(const char* format, ...) __attribute__((format(printf, 1, 2)));

/**
 * event_system() with an environment of its own.
 *
 * @param env     null-terminated array of "NAME=value" strings, handed over unchanged; NULL stands
 *                for the caller's environment
 * @param format  as in event_system()
 */
int event_system_env(const char** env, const char* format, ...)
    __attribute__((format(printf, 2, 3)));

/**
 * A shell command that runs at most once in a while. The caller fills it, owns it and keeps it
 * alive as long as a request is pending, that is until the default loop has ended or the command
 * has run; the library copies nothing and writes only last_ran. Zero last_ran before the first
 * request.
 */
typedef struct {
    char* command_line;         /**< Used as a printf format: write a percent sign as %%. */
    unsigned int minimum_delay; /**< Least time between two starts, in seconds. */
    unsigned int last_ran;      /**< System uptime of the last start, in seconds; 0 before that. */
} bg_task_t;

/**
 * Requests one run of @p tospawn on the default context's loop: in the next timer phase if its last
 * start lies minimum_delay seconds back, else as soon as it does. Requests made while one is
 * pending are served by the same run. The command runs by event_system(): it holds up the loop
 * until its shell ends (end the command line with & if it is long), and the end of a watched child
 * meanwhile is noticed only when another one ends. Its status is dropped, and a failing command
 * counts as a run.
 *
 * Failure: ENOMEM; EINVAL if @p tospawn is NULL. Threads: any; two requests made at the same moment
 * on two threads can make two runs, minimum_delay apart. Blocks: never for long.
 */
void run_bg_task(bg_task_t* tospawn);

/** @} */

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
