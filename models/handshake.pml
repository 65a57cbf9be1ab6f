/*
 * thread.cpp: start, cancel and stop of the default context's loop on a thread of its own.
 *
 * In each scenario one more thread cancels the loop at any time. Each of these may happen once:
 * a start of a loop fails, a timer finds no memory, a thread can't be made, a wait for a condition
 * returns without a signal. The scenarios:
 *   - by default two threads start and two stop;
 *   - BESIDE_SYNCHRONOUS: one thread starts twice, one stops, and et_event_loop() runs on another;
 *   - FROM_HANDLERS: one thread starts, one stops, and et_event_loop() runs on another. Handlers
 *     of each loop may call both functions, and so may a logger that reports a failed start.
 *
 * The assertions:
 *   - If a start returns 0, it has made a thread which has fired the handshake's timer. The loop
 *     of this thread runs, unless it has been cancelled since it began.
 *   - Every start and every stop returns.
 *   - A stop returns after the end of every thread that was made before the stop had the lock.
 *   - When a start destroys the handshake's mutex, its timer is on no list, and no thread locks
 *     the mutex afterwards. Only the thread of this start fires the timer.
 *   - Two loops never run on the context at once, and none sleeps while its run flag is cleared.
 *   - Each thread is joined once, and never by itself.
 *
 * Memory order. The model is sequentially consistent: threads take their steps one after another.
 * The code uses seq_cst for the run flag (Run::keeps_running_). The other accesses are:
 *   - relaxed: loop_thread.to_join. A thread that joins by it holds loop_thread.mutex. The new
 *     thread stores it before it answers under handshake.mutex, and then its starter locks that
 *     mutex.
 *   - relaxed: loop_thread.self. A thread only compares it with its own number.
 *   - relaxed: is_active_ and thread_ of the Run. A start that reads an old is_active_ fails as if
 *     it had come earlier, or makes a thread that reads is_active_ again under
 *     running_loops.mutex_. A thread that finds its own number in thread_ has stored it itself.
 *   - plain: waiting and start_error. The starter changes them before it makes the thread. Then
 *     only the thread changes them, and the starter reads them under handshake.mutex.
 * So no property depends on the order of two weaker accesses.
 */

#define NO_THREAD 0
#define SYNCHRONOUS 7     /* The thread in et_event_loop(). */
#define OUTSIDE 8         /* Any thread that runs no loop. */

bool run_flag;            /* Run::keeps_running_ */
bool is_active;           /* Run::is_active_ */
byte run_thread = NO_THREAD; /* Run::thread_ */
byte to_join = NO_THREAD; /* loop_thread.to_join */
byte self = NO_THREAD;    /* loop_thread.self */
bool channel_open;        /* ping_fd_ isn't kNoFd */
bool has_byte;
bool loops_mutex;         /* running_loops.mutex_ */
byte timer = NO_THREAD;   /* The thread whose handshake's timer is on the context's list. */

bool loop_thread_mutex;
bool handshake_exists;
bool handshake_mutex;
bool cond_waits;
bool waiting;
bool start_error;

bool may_fail = true;     /* Each of these may happen once. */
bool may_lack_memory = true;
bool may_lack_thread = true;
bool may_wake = true;     /* A wait returns without a signal. */
byte handler_calls;

byte made;                /* For the assertions: the number of threads, counted from 1. */
bool fired[4], cancelled[4], finished[4], joined[4];
byte calls_under_way;

#ifdef SELF_IN_THE_LOOP_ONLY
#define is_loop_thread(me) (run_thread == me && to_join == me)
#else
#define is_loop_thread(me) (self == me)
#endif

#define lock(mutex)   atomic { !mutex -> mutex = true }
#define unlock(mutex) mutex = false
#define unlock_handshake() atomic { assert(handshake_exists); handshake_mutex = false }

inline lock_handshake() {
    atomic {
        assert(handshake_exists);
        !handshake_mutex;
        assert(handshake_exists);
        handshake_mutex = true
    }
}

inline clear_run_flag() {
    atomic {
        run_flag = false;
        if
        :: is_active && run_thread < SYNCHRONOUS -> cancelled[run_thread] = true
        :: else
        fi
    }
}

/* Run::cancel(); gate.pml has the gate around it. */
inline cancel() {
    clear_run_flag();
    atomic {
        if
        :: channel_open -> has_byte = true
        :: else
        fi
    }
}

/* answer() */
inline answer() {
    lock_handshake();
    atomic { waiting = false; cond_waits = false }
    unlock_handshake()
}

/* Run::start() */
inline start_loop(me, failed) {
    lock(loops_mutex);
    if
    :: atomic {
#ifndef FLAG_ALONE_IS_TESTED
        is_active ||
#endif
        run_flag } -> failed = true
    :: atomic { else -> assert(!channel_open); channel_open = true; has_byte = false }
        atomic { assert(!is_active); is_active = true; run_thread = me }
        run_flag = true
    :: atomic { may_fail && !is_active && !run_flag -> may_fail = false; failed = true }
    fi;
    unlock(loops_mutex)
}

/* Run::end() */
inline end_loop() {
    lock(loops_mutex);
    channel_open = false;
    run_thread = NO_THREAD;
    is_active = false;
    unlock(loops_mutex)
}

inline drop_timers() {
#ifndef TIMERS_STAY
    timer = NO_THREAD
#else
    skip
#endif
}

/* join_locked() */
inline join(me, thread) {
    thread = to_join;
    if
    :: thread == NO_THREAD
    :: else ->
        assert(thread != me);
#ifdef IDENTITY_OUT_BEFORE_JOIN
        to_join = NO_THREAD;
        unlock(loop_thread_mutex);
#endif
        atomic { finished[thread] -> assert(!joined[thread]); joined[thread] = true }
#ifdef IDENTITY_OUT_BEFORE_JOIN
        lock(loop_thread_mutex);
#else
        to_join = NO_THREAD
#endif
    fi
}

/* event_loop_async_start(). Returns the thread of a start that succeeds, or NO_THREAD. */
inline start_call(me) {
    calls_under_way++;
    thread = NO_THREAD;
    if
    :: run_flag
    :: else ->
        if
#ifndef HANDLERS_TAKE_THE_LOCK
        :: atomic { is_loop_thread(me) }
        :: atomic { else ->
#else
        :: atomic { true ->
#endif
            !loop_thread_mutex -> loop_thread_mutex = true }
            start_locked(me);
            unlock(loop_thread_mutex)
        fi
    fi;
    calls_under_way--
}

inline start_locked(me) {
    if
    :: run_flag
    :: else ->
#ifndef FORMER_IS_NOT_JOINED
        join(me, thread);
#endif
        thread = NO_THREAD;
        if
        :: is_active
        :: else -> run_handshake(me)
        fi
    fi
}

/* run_handshake_locked() */
inline run_handshake(me) {
    atomic { assert(!handshake_exists); handshake_exists = true; handshake_mutex = true }
    start_error = false;
#ifndef WAITING_IS_SET_LATE
    waiting = true;
#endif
#ifdef STARTER_ARMS
    timer = made + 1;
#endif
    if
    :: atomic { may_lack_thread -> may_lack_thread = false; waiting = false }
#ifdef STARTER_ARMS
        timer = NO_THREAD
#endif
    :: atomic { made++; thread = made; run LoopThread(thread) }
#ifdef WAITING_IS_SET_LATE
        waiting = true;
#endif
#ifdef LOCK_IS_GIVEN_BACK
        unlock(loop_thread_mutex);
#endif
#ifdef WAITS_ONCE
        wait_for_signal();
#else
        do
        :: waiting -> wait_for_signal()
        :: else -> break
        od;
#endif
#ifdef LOCK_IS_GIVEN_BACK
        lock(loop_thread_mutex)
#endif
    fi;
    unlock_handshake();
    atomic {
        assert(timer == NO_THREAD);
        assert(!handshake_mutex);
        handshake_exists = false
    }
    if
    :: thread == NO_THREAD
    :: atomic { thread != NO_THREAD && !start_error ->
            assert(fired[thread]);
            assert(cancelled[thread] || (is_active && run_flag && run_thread == thread)) }
    :: thread != NO_THREAD && start_error ->
        join(me, thread);
        thread = NO_THREAD
    fi
}

/* pthread_cond_wait() */
inline wait_for_signal() {
    atomic { handshake_mutex = false; cond_waits = true }
    if
    :: !cond_waits
    :: atomic { may_wake -> may_wake = false; cond_waits = false }
    fi;
    lock_handshake()
}

/* event_loop_async_stop() */
inline stop_call(me) {
    calls_under_way++;
    if
#ifndef HANDLERS_TAKE_THE_LOCK
    :: atomic { is_loop_thread(me) } -> cancel()
    :: atomic { else ->
#else
    :: atomic { true ->
#endif
        !loop_thread_mutex -> loop_thread_mutex = true; known = made }
        cancel();
#ifdef STOP_JOINS_WITHOUT_LOCK
        unlock(loop_thread_mutex);
#endif
        join(me, thread);
#ifdef FLAG_STORED_AFTER_JOIN
        clear_run_flag();
#endif
        atomic {
            do
            :: known > 0 -> assert(finished[known]); known--
            :: else -> break
            od
        }
#ifndef STOP_JOINS_WITHOUT_LOCK
        unlock(loop_thread_mutex)
#endif
    fi;
    thread = NO_THREAD;
    calls_under_way--
}

/* A handler or the logger may call both functions. */
inline call_back(me) {
    if
    :: atomic { handler_calls > 0 -> handler_calls-- };
        if
        :: start_call(me)
        :: stop_call(me)
        fi
    :: skip
    fi
}

/* The passes of run_loop(): descriptor handlers, then the timer; or the loop sleeps. */
inline iterate_until_cancelled(me) {
    do
    :: !run_flag -> break
    :: else ->
        call_back(me);
        if
        :: atomic { timer != NO_THREAD ->
#ifndef STARTER_ARMS
                assert(timer == me);
#endif
                if
                :: me < SYNCHRONOUS -> fired[me] = true
                :: else
                fi;
                timer = NO_THREAD }
            answer()
        :: atomic { timer == NO_THREAD && has_byte -> has_byte = false }
        fi
    od
}

/* event_loop_thread() and run_loop() */
proctype LoopThread(byte me) {
    bool failed;
    byte known, thread, error;
    to_join = me;
    self = me;
#ifdef ANSWERS_FIRST
    answer();
#endif
    start_loop(me, failed);
    if
    :: failed -> call_back(me) /* The logger. */
    :: else ->
        if
#ifndef STARTER_ARMS
        :: atomic { may_lack_memory -> may_lack_memory = false; failed = true };
            clear_run_flag();
            end_loop()
        :: timer = me;
#else
        :: skip;
#endif
            iterate_until_cancelled(me);
            drop_timers();
            end_loop()
        fi
    fi;
    if
#ifdef ANSWERS_FAILURES_ONLY
    :: waiting && failed ->
#else
#ifdef FAILURE_IS_NOT_ANSWERED
    :: waiting && !failed ->
#else
    :: waiting ->
#endif
#endif
        start_error = true;
        answer()
    :: else
    fi;
    self = NO_THREAD;
    finished[me] = true
}

proctype Starter(byte starts) {
    byte thread;
    do
    :: starts > 0 -> starts--; start_call(OUTSIDE)
    :: else -> break
    od
}

proctype Stopper() {
    byte thread, known;
    stop_call(OUTSIDE)
}

proctype Canceller() {
    cancel()
}

/* et_event_loop() */
proctype SynchronousLoop() {
    bool failed;
    byte thread, known;
    start_loop(SYNCHRONOUS, failed);
    if
    :: failed -> call_back(SYNCHRONOUS)
    :: else ->
        iterate_until_cancelled(SYNCHRONOUS);
        drop_timers();
        end_loop()
    fi
}

/* Runs when no other process can: all calls have returned, and no sleeping loop is cancelled. */
proctype Last() {
    byte thread, known;
    timeout;
    atomic { assert(calls_under_way == 0); assert(!is_active || run_flag) }
    stop_call(OUTSIDE);
    assert(made < 1 || joined[1]);
    assert(made < 2 || joined[2]);
    assert(made < 3 || joined[3])
}

init {
    atomic {
#if defined(BESIDE_SYNCHRONOUS)
        run Starter(2);
        run Stopper();
        run SynchronousLoop();
#elif defined(FROM_HANDLERS)
        handler_calls = 2;
        run Starter(1);
        run Stopper();
        run SynchronousLoop();
#else
        run Starter(1);
        run Starter(1);
        run Stopper();
        run Stopper();
#endif
        run Canceller();
        run Last()
    }
}
