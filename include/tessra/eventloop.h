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
 * Contexts. A context has the watchers, the wake-up channel and the locks of one loop. A process
 * has a default context, on which the plain functions work. event_mc_init() makes other contexts,
 * which the functions with the suffix _mc take as first argument. Apart from that the two forms are
 * the same.
 *
 * Handlers run on the loop's thread, one after another, inside a pass. A pass first runs the
 * handlers of ready descriptors in the order in which they were added, then those of at most one
 * caught signal, then those of due timers. A handler may do the following:
 * - add and delete watchers of any kind on its own context, including itself and its neighbours;
 * - add and delete timers of any context;
 * - cancel any loop;
 * - run one nested pass with do_events().
 *
 * A handler must not let a C++ exception out, must not terminate its thread, must not free its own
 * context, and must not block for long: all other handlers wait for it.
 *
 * Threads. Every function may be called from any thread, unless its description says otherwise. No
 * function may be called from a signal handler. Each add, delete and cancel wakes the loop, even a
 * delete that finds nothing, and even a call on the loop's own thread. The loop owes each of them a
 * pass, so n passes that don't wait follow n changes. Signals don't wait for these passes.
 *
 * Locks. Descriptor, signal and child handlers run with the locks of their watcher lists held, so
 * an add or delete of such a watcher on another thread waits until they have returned. A handler
 * that waits for a thread in such a call never returns. For the same reason such a handler must
 * change descriptor, signal and child watchers only on its own context: two loops whose handlers
 * change each other's watchers would wait for each other. The handler of a child runs on the
 * default context's loop: the default context is its own context, whichever context the child is
 * watched on. Timer handlers run without a lock, except in a nested pass: there they run with the
 * locks of the handler that called do_events().
 *
 * Cancelled threads. The library defers the cancellation of a thread that runs a loop, also while a
 * handler runs. So pthread_cancel() doesn't stop the loop: it acts after et_event_loop() has
 * returned, at the thread's next cancellation point. A wake-up, the catching of a signal, a start,
 * a stop, the release of a context and a shell command also defer it until they are finished.
 * Asynchronous cancellation (PTHREAD_CANCEL_ASYNCHRONOUS) must be off in every call. Some C
 * libraries turn it on inside blocking calls. If a signal interrupts such a call while the thread
 * is being cancelled, that signal is lost. So block the watched signals in every thread that may be
 * cancelled.
 *
 * Signals that arrive while no loop runs are dropped. A daemon that must not miss an early SIGTERM,
 * or the SIGCHLD of an early child, blocks the signal before event_signal_add(). It unblocks the
 * signal in the handler of a timer of 0, which the loop's first pass runs. A cancel also drops the
 * signals that have been caught and not yet taken.
 *
 * Failure of an add. The add functions have no result. A call that fails registers nothing, changes
 * nothing and sets errno (ENOMEM, EMFILE or EINVAL: see its description). A call that succeeds
 * leaves errno as it was, except event_signal_add() for SIGKILL and SIGSTOP. To detect a failure,
 * set errno to 0 before the call.
 *
 * After fork() the child process runs no loop, and every context in it is idle:
 * - is_event_loop_thread() returns 0, also in a child that was forked in a handler.
 * - do_events() returns -1.
 * - Adds, deletes and cancels write nothing anywhere.
 * - A context that was idle keeps its watchers, except those of children. A context whose loop ran
 *   has no watchers.
 *
 * The child process may run a loop on either kind of context. Its copies of the parent's wake-up
 * channels stay open and unused until exec. A child that was forked in a handler should call exec
 * or _exit(), or stay in the handler. If the handler returns in the child, no further handler runs,
 * a do_events() call under way returns -1, and et_event_loop() returns -1 with errno ECANCELED. On
 * the thread of event_loop_async_start(), the child then exits by exit(0), with the exit handlers
 * and the buffered output of its parent.
 *
 * The library's fork handlers wait for the changes, starts and ends that other threads are making.
 * The first call of the library registers these handlers. Make that call before another thread can
 * fork(): if another thread forks during that call, a lock may stay locked in the child for ever. A
 * daemon may have fork handlers of its own that call the library, or that take a lock under which
 * the daemon calls the library: register them after that call. Never call fork() from a signal
 * handler. _Fork() runs no fork handlers, so its child still has the parent's loops: that child
 * must not call this library.
 *
 * The shared library stays in memory once it is loaded, since the signal catcher may be installed.
 * Link a plugin that contains the static library with -z nodelete.
 *
 * All times are milliseconds of the clock of event_get_time(), which no one can set.
 */
#ifndef TESSRA_EVENTLOOP_H
#define TESSRA_EVENTLOOP_H

#include <signal.h>
#include <time.h>

/*
 * Strict ISO C hides siginfo_t in <signal.h>, but the type of a handler needs it. With other C
 * libraries than glibc, strict programs must define _POSIX_C_SOURCE or _GNU_SOURCE.
 */
#if !defined(__USE_POSIX199309) && defined(__GLIBC__) && !defined(__UCLIBC__)
#include <bits/types/siginfo_t.h>
#endif

#ifdef __cplusplus
extern "C" {
#endif

#pragma GCC visibility push(default)

/** A context: the watchers, the wake-up channel and the locks of one loop. Opaque. */
typedef struct event_loop_ctx* event_loop_ctx_tp;

/**
 * @name Contexts
 * @{
 */

/**
 * Makes a new idle context.
 *
 * Returns the context, which the caller frees with event_mc_free(), or NULL with errno ENOMEM.
 * Threads: any. Blocks: never.
 */
event_loop_ctx_tp event_mc_init(void);

/**
 * Frees a context of event_mc_init() and all its watchers. Runs no handler.
 *
 * @param ctx  a context whose loop never ran or has returned; for NULL the call does nothing
 *
 * If the process's child watchers were set up on this context (see event_process_add_mc()), they
 * stop working for good. The handler of a child may free that context: the loop then looks at no
 * further child. The call takes no lock that handlers of other contexts hold, so such a handler may
 * wait for a thread that is in this call. The handler of a child that is watched on @p ctx must not
 * wait for it.
 * Threads: any, but no other thread may be in a call with @p ctx or make one. The cancel_loop_mc()
 * that has stopped the loop doesn't count: it no longer uses the context once the loop returns.
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
 * The start makes a FIFO whose name is "/tmp/evtloop" and the process id, opens both its ends, and
 * removes its name. A pipe without a name then carries the wake-ups and signals, so that no other
 * user can reach them. Its descriptors are above 2, and both are closed on exec.
 *
 * Returns 0 after a cancel, once the pass under way has finished. Returns -1 with errno ECANCELED
 * in a child of fork() whose handler has returned. Returns -1 if the loop didn't start. Watchers
 * are kept then, and errno is one of these:
 * - EBUSY: the loop runs already, or has not yet returned from a cancelled run. Nothing is logged.
 * - ENOMEM: no memory for the fork handlers. Nothing is logged.
 * - EMFILE, ENFILE, EINVAL: the channel finds no free descriptor, or none from 3 to FD_SETSIZE - 1.
 * - EPERM: something else than a FIFO has the name.
 * - ELOOP, ENXIO, EACCES and others: the error of mkfifo() or open() for the file with that name.
 *
 * A failure of the channel is logged to liblog, zone 6, level 1. No lock of a loop is held, so the
 * logger may run a loop of its own. But it must not wait for event_loop_async_start() or
 * event_loop_async_stop() on another thread. A FIFO that couldn't be opened stays in /tmp, and the
 * next start uses it again. If only its write end couldn't be opened, its read end stays open until
 * the next start of the context or event_mc_free(). In a child of fork() it stays open until exec.
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
 * Two failures terminate the process. If a watched descriptor has been closed, the loop calls
 * exit(-1) without a message. The exit handlers then run with the lock of the descriptor and signal
 * watchers held, so they must not wait for a thread that changes such watchers. If select() fails
 * for another reason, the loop writes a message to liblog and calls exit(1).
 *
 * Clock. If handlers or the wait take more than 24 hours, or if the clock steps back, this counts
 * as a jump of the clock: all deadlines move along with it.
 *
 * Threads: any thread may run a loop, but only one at a time per context. Blocks: until the cancel.
 */
int et_event_loop_mc(event_loop_ctx_tp el_ctx);
/** et_event_loop_mc() on the default context. */
int et_event_loop(void);

/**
 * Stops the loop of @p el_ctx: the pass under way runs all its handlers, then et_event_loop_mc()
 * returns 0. On an idle context the call has no lasting effect. The call no longer uses the context
 * once et_event_loop_mc() has returned, so that its owner may free it then.
 * Threads: any. Blocks: never.
 */
void cancel_loop_mc(event_loop_ctx_tp el_ctx);
/** cancel_loop_mc() on the default context. */
void cancel_loop(void);

/**
 * Runs one nested pass from inside a handler: waits for a ready descriptor or a wake-up for at most
 * @p timeout milliseconds, then runs the handlers of all that is ready and of all due timers.
 *
 * @param el_ctx   the context whose handler is running
 * @param timeout  0 (poll) to 2147483; timers don't shorten the wait
 *
 * Returns 0 if a pass ran, also when nothing was ready. Returns -1 without a pass in these cases:
 * - The calling thread isn't the loop's thread, or the loop doesn't run.
 * - The call is inside another do_events() pass of this context.
 * - A signal interrupted the wait. Its handler runs in a later pass.
 * - The wait by select() failed three times. A failure doesn't count if another thread meanwhile
 *   deleted a watcher and closed its descriptor.
 * - @p timeout is above 2147483; errno is EINVAL.
 *
 * As in the main loop, the process exits by exit(-1) if a watched descriptor has been closed.
 *
 * The nested pass can run the calling handler again if its descriptor is still ready. While a
 * descriptor, signal or child handler runs a nested pass, other threads' changes of such watchers
 * wait.
 */
int do_events_mc(event_loop_ctx_tp el_ctx, unsigned int timeout);
/** do_events_mc() on the default context. */
int do_events(unsigned int timeout);

/** Returns 1 if the calling thread runs the loop of @p el_ctx now, else 0. Threads: any. */
int is_event_loop_thread_mc(event_loop_ctx_tp el_ctx);
/** is_event_loop_thread_mc() on the default context. */
int is_event_loop_thread(void);

/** Returns the time of the loop's clock, CLOCK_MONOTONIC_RAW, in whole milliseconds (truncated).
 * Threads: any. */
long long unsigned int event_get_time(void);
/** Returns the time of the loop's clock in whole seconds. Threads: any. */
time_t event_get_time_sec(void);

/** @} */

/**
 * @name Timers
 * A timer fires once; the handler of a periodic timer arms it again. Handler and argument identify
 * a timer. The same pair may be armed several times.
 * @{
 */

/**
 * Called when a timer is due, on the loop's thread, without a lock (in a nested pass with the locks
 * of the handler that called do_events()). The timer is off the list by then: event_timer_exists()
 * doesn't see it, and event_timer_del() doesn't find it.
 * @param arg  as given to event_timer_add(); the library never reads or frees what it points to
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
 * Timers fire in the order of their deadlines. Those with the same deadline fire in the order in
 * which they were added. By the clock of event_get_time() a timer is never early. That clock cuts
 * its reading to whole milliseconds, so by a finer clock a timer may fire up to a millisecond
 * early. A late timer fires once. If a timer handler arms a timer of 0, that timer fires in the
 * same phase, as long as the clock shows the same millisecond. A handler that arms itself for more
 * work should use 1, so that descriptors and signals get their turn. If nothing else wakes the loop
 * once a day, the wait for a timer more than 24 hours ahead counts as a jump of the clock, and the
 * timer moves along. So re-arm long delays in steps of less than a day.
 * Failure: ENOMEM.
 * Threads: any. Blocks: never for long.
 */
void event_timer_add_mc(event_loop_ctx_tp el_ctx, timer_handler_t handler, void* arg,
                        long long unsigned int timeout);
/** event_timer_add_mc() on the default context. */
void event_timer_add(timer_handler_t handler, void* arg, long long unsigned int timeout);

/**
 * Deletes every timer of @p handler with the argument @p arg, or with any argument if that is NULL.
 *
 * After a call on the loop's thread, no such timer fires any more. After a call on another thread,
 * the handler of a timer that had just become due may still be running, and may still use its
 * argument. If there is no such timer, this is no error, and the call wakes the loop, too.
 */
void event_timer_del_mc(event_loop_ctx_tp el_ctx, timer_handler_t handler, void* arg);
/** event_timer_del_mc() on the default context. */
void event_timer_del(timer_handler_t handler, void* arg);

/**
 * Returns 1 if a timer of @p handler with the argument @p arg (any argument if NULL) is armed,
 * else 0. A timer whose handler is running is no longer armed.
 */
int event_timer_exists_mc(event_loop_ctx_tp el_ctx, timer_handler_t handler, void* arg);
/** event_timer_exists_mc() on the default context. */
int event_timer_exists(timer_handler_t handler, void* arg);

/** @} */

/**
 * @name Descriptor watchers
 * They are level-triggered: a descriptor that stays ready runs its handler in every pass.
 *
 * Cost of a change: before the next wait the loop walks the list of its watchers once, and makes
 * one system call for each new watcher.
 * @{
 */

/** Conditions to watch, which may be or-ed: those of select(), readable, writable, exceptional. */
enum {
    EVENT_FD_READ = 1,  /**< Readable, at end of file, or a connection waits. */
    EVENT_FD_WRITE = 2, /**< Writable, or a connect() has finished. */
    EVENT_FD_EXCEPT = 4 /**< Out-of-band data and other exceptional conditions. */
};

/**
 * Called when a watched condition holds, on the loop's thread, with the lock of the descriptor and
 * signal watchers held. The handler runs once per pass, whatever the number of conditions that
 * hold. It doesn't learn which ones hold, and a condition may no longer hold when it runs: make the
 * descriptor non-blocking. If a handler closes a ready descriptor, opens another one that gets the
 * same number, and adds a watcher for it, that watcher may run in the same pass although the new
 * descriptor isn't ready.
 */
typedef void (*fd_handler_t)(int fd, void* arg);

/**
 * Watches a descriptor until event_fd_del_mc().
 *
 * @param el_ctx   context whose loop will run the handler; it need not run yet
 * @param handler  not null
 * @param arg      handed to @p handler
 * @param fd       an open descriptor below FD_SETSIZE (1024), which stays the caller's. A negative
 *                 number, such as that of a failed open(), counts as one that isn't open.
 * @param type     conditions, or-ed; 0 watches nothing, but the descriptor must still stay open
 *
 * One descriptor may have several watchers. Each runs by its own conditions, in the order in which
 * they were added.
 * Failure: ENOMEM, or EMFILE for a descriptor at or above FD_SETSIZE. A descriptor that isn't open
 * terminates the process as soon as the loop looks at it (see et_event_loop_mc()).
 * Threads: any; on another thread than the loop's the call waits for running handlers.
 */
void event_fd_add_mc(event_loop_ctx_tp el_ctx, fd_handler_t handler, void* arg, int fd, int type);
/** event_fd_add_mc() on the default context. */
void event_fd_add(fd_handler_t handler, void* arg, int fd, int type);

/**
 * Deletes the oldest watcher of @p fd. When the call returns, on any thread, that watcher's handler
 * isn't running and will not run again. The only exception is a handler further up the caller's own
 * stack: the calling handler itself, or the one that called do_events() around it.
 *
 * Trap: delete before you close(). A process that unshares its descriptors (unshare(CLONE_FILES))
 * on a thread must not watch the descriptors of that thread's own table: the loop doesn't notice
 * when they are closed.
 * Trap: if a handler deletes the watcher that would run next, the library only marks it, and frees
 * it later in the same pass. Until then a second delete of the same number finds the marked watcher
 * and not the younger one. If the descriptor is closed then, the younger watcher terminates the
 * process. The same holds for signals and children.
 * Deleting a watcher that doesn't exist is no error and wakes the loop.
 * Threads: any; on another thread than the loop's the call waits for running handlers.
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
 * @param info    the record of this delivery, valid only during the call; copy what you keep
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
 * From now until the process exits, the signal is caught (SA_SIGINFO, SA_RESTART). Its default
 * action no longer happens, not even while no loop runs: a signal that arrives then is dropped.
 * Every running loop gets each caught signal and runs its own watchers of that signal, in the order
 * in which they were added. Signals that come faster than a loop takes them wait in a pipe. The
 * pipe holds 496 of them with the kernel's default size of 16 pages, and 488 if changes of watchers
 * wait there, too. When the pipe is full, the library keeps the first signal of each number and
 * drops later ones of that number, as the kernel does with blocked signals. The watchers of a kept
 * signal may run before those of signals that came earlier.
 * Failure: ENOMEM; EINVAL for a number outside 1 to 31; the error of sigaction() if the system
 * refuses the signal. SIGKILL and SIGSTOP can't be caught: the call registers their watcher and
 * sets errno to EINVAL, and the watcher never runs. SIGSEGV, SIGBUS, SIGFPE and SIGILL must not be
 * watched: after a fault of the program the catcher returns to the faulting instruction, without
 * end.
 * Threads: any; on another thread than the loop's the call waits for running handlers.
 */
void event_signal_add_mc(event_loop_ctx_tp el_ctx, signal_handler_t handler, void* arg, int signal);
/** event_signal_add_mc() on the default context. */
void event_signal_add(signal_handler_t handler, void* arg, int signal);

/**
 * Deletes the oldest watcher of @p signal. The signal stays caught. Deleting a watcher that doesn't
 * exist is no error and wakes the loop. Threads: as event_fd_del_mc().
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
 * Called once when the child has terminated, on the thread of the default context's loop. The
 * handler runs with two locks held: that of the descriptor and signal watchers of the default
 * context, and that of the child watchers of the context that the child is watched on. The watcher
 * is deleted by then. The result is ignored.
 *
 * @param pid     as given to event_process_add()
 * @param arg     as given to event_process_add()
 * @param status  raw wait status: use WIFEXITED() and similar macros
 */
typedef int (*process_handler_t)(int pid, void* arg, int status);

/**
 * Watches a child until it terminates. The loop then collects its status, writes "Process PID
 * exited normally CODE" or "Process PID exited by signal NUMBER" to syslog (LOG_ERR), and calls
 * @p handler.
 *
 * @param el_ctx   see the trap below
 * @param pid      a child of this process; handed to waitpid() unchanged
 * @param handler  if NULL, the loop collects the status silently and keeps the watcher
 * @param arg      handed to @p handler
 *
 * Add the watcher as soon as the child exists. If the child terminates before the watcher is added
 * or before the loop runs, the loop may notice this only when another child terminates. So block
 * SIGCHLD until the loop runs, as the top of this file shows for SIGTERM. If one child has two
 * watchers, the handler of the older one is called. Stopped children are not reported. If a child
 * terminates while event_system() runs, the loop notices this when the next child terminates.
 *
 * Trap: the first call in a process decides the context. The process has one SIGCHLD watcher. It is
 * on the default context, whose loop must run, and it looks only after the children of the context
 * of that first call; watchers on other contexts never fire. The first call takes the lock of the
 * default context's signal watchers, whatever its own context is: if a handler of the default loop
 * waits for the caller's thread, neither goes on. So make the first call before the loops run. The
 * SIGCHLD watcher stops working for good when one of these happens:
 * - The default loop ends.
 * - A call of event_signal_del() deletes SIGCHLD on the default context.
 * - The context of the first call is freed.
 *
 * So use event_process_add() and run one default loop. A call that fails decides nothing. In a
 * child of fork() the next call is the first.
 *
 * Failure: ENOMEM; the first call also fails in the same way as event_signal_add().
 * Threads: any; on another thread than the loop's the call waits for running handlers.
 */
void event_process_add_mc(event_loop_ctx_tp el_ctx, int pid, process_handler_t handler, void* arg);
/** event_process_add_mc() on the default context. */
void event_process_add(int pid, process_handler_t handler, void* arg);

/**
 * Deletes the oldest watcher of @p pid. The child goes on, and the caller must collect its status.
 * Deleting a watcher that doesn't exist is no error and wakes the loop.
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
 * Runs the default context's loop on a new thread and returns once the loop runs.
 *
 * If the loop of a former thread was cancelled, the call first waits for that thread.
 * Returns 0 when the loop has run a pass; a cancel may stop it at once. Returns -1 if the loop
 * doesn't run. No thread is left then, and errno is one of these:
 * - EBUSY: the default loop runs, or a cancelled et_event_loop() has not returned.
 * - EAGAIN or EPERM: no thread can be made.
 * - ENOMEM and the errors of et_event_loop_mc(): the loop doesn't start. Watchers are kept.
 * - ECANCELED: the loop was cancelled before its first pass. Watchers are dropped, as at any end.
 *
 * If a mutex or condition call fails, the process is broken: the library writes a line to stderr
 * and calls abort().
 *
 * Handlers of the first pass may run before the call returns: those of ready descriptors, of a
 * signal, and of timers that are due.
 * Threads: any; calls of this function and of event_loop_async_stop() follow one another. In a
 * handler of the default loop the call fails with EBUSY. Blocks: until other threads' starts and
 * stops are finished and the former thread has terminated, then until the loop's first pass.
 */
int event_loop_async_start(void);

/**
 * Cancels the loop of event_loop_async_start() and waits until its thread has terminated. The loop
 * drops all watchers of the default context. Always returns 0.
 *
 * If another thread is in a start, the call waits until the loop runs, and then stops it. If
 * several threads call this function, all return after the last handler. If there is no thread to
 * wait for, the call only cancels, as cancel_loop() does: an et_event_loop() that runs returns, and
 * a loop that starts later runs on.
 * Trap: on the loop's own thread the call can't wait. It cancels and returns. The next stop or
 * start on another thread then joins the thread.
 * Threads: any but the loop's. Blocks: until the loop's running handlers have returned.
 */
int event_loop_async_stop(void);

/**
 * The timer handler of the start's handshake. It is exported, but no daemon needs to call it. Trap:
 * if its timer is deleted, the start waits until the loop is cancelled. If @p arg is null, the
 * function writes a line to stderr and calls abort().
 */
void event_loop_wait_for_async_loop_ready(void* arg);

/** @} */

/**
 * @name Shell commands
 * @{
 */

/**
 * Formats a command line, runs it with /bin/sh -c and waits until the shell has terminated.
 *
 * @param format  printf format of the command line, whose text is cut after 1023 characters.
 *                A shell reads the text: never put foreign text into it unquoted.
 *
 * Returns the raw wait status of the shell: use WIFEXITED() and similar macros. The exit code is
 * 127 if the shell couldn't be started. Returns -1 with the errno of the failing call in these
 * cases:
 * - The C library's vsnprintf() can't format the command line. Nothing runs then.
 * - No process can be made.
 * - The wait fails. If a signal has interrupted it, the command may still be running.
 *
 * The command inherits the descriptors 0, 1 and 2 and no others: all others below the hard limit of
 * RLIMIT_NOFILE (1024 if there is none) are closed.
 *
 * Signals in the command. SIGINT, SIGQUIT and SIGCHLD have their default action, even if the
 * process ignores them. Each signal that the process catches, by a watcher or by a handler of its
 * own, has its default action, too. None of these handlers runs in the child before the exec. All
 * other signals that the process ignores stay ignored, also those that were watched before. Blocked
 * signals stay blocked.
 *
 * Signals in the process. While the command runs, the whole process ignores SIGINT and SIGQUIT, and
 * SIGCHLD has its default action: watchers of these three miss the signals that come meanwhile.
 * Afterwards the library restores the earlier dispositions. A disposition that another thread sets
 * meanwhile stays, and so does one that the system refuses to change. A disposition that
 * event_signal_add() or event_process_add() sets is in place from then on without a gap. The same
 * holds for a sigaction() of the program's own, except for an instant at the end: the library may
 * replace this disposition, and restores it with its next system call. A child that another thread
 * forks while the command runs keeps the dispositions of that time: it must set its own.
 *
 * Cancellation of the calling thread is disabled during the call. A pthread_cancel() acts at the
 * thread's first cancellation point after the call. By then the command has terminated and the
 * dispositions are restored.
 *
 * Threads: any, but one call at a time; event_system_env() and the C library's system() count, too.
 * Blocks: until the shell has terminated; on a loop's thread this delays the whole loop.
 */
int event_system(const char* format, ...) __attribute__((format(printf, 1, 2)));

/**
 * Does the same as event_system(), with an environment of its own.
 *
 * @param env     null-terminated array of "NAME=value" strings, handed over unchanged; NULL for the
 *                caller's environment
 * @param format  as in event_system()
 */
int event_system_env(const char** env, const char* format, ...)
    __attribute__((format(printf, 2, 3)));

/**
 * A shell command that runs at most once in a while. The caller fills and owns the task, and must
 * keep it alive as long as a request is pending. A request is pending until the command has run or
 * the default loop has ended. The library copies nothing and writes only last_ran. Set last_ran to
 * 0 before the first request.
 */
typedef struct {
    char* command_line;         /**< Used as a printf format: write a percent sign as %%. */
    unsigned int minimum_delay; /**< Least time between two starts, in seconds. */
    unsigned int last_ran;      /**< System uptime of the last start, in seconds; 0 before that. */
} bg_task_t;

/**
 * Requests one run of @p tospawn on the default context's loop: in the next timer phase if its last
 * start was at least minimum_delay seconds ago, else as soon as this time has passed. One run
 * serves all requests that are made while it is pending. The command runs by event_system(), so it
 * delays the loop until its shell has terminated; if it takes long, put & at the end of the command
 * line. If a watched child terminates meanwhile, the loop notices this only when another child
 * terminates. The status of the command is ignored, and a command that fails counts as a run.
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
