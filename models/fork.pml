/*
 * fork.cpp and recursive_mutex.cpp: fork() while other threads use the library.
 *
 * There are three contexts. The loop of RAN starts, runs a handler and ends, or its start fails.
 * IDLE is changed. FREED is made, changed and freed. One thread does each of these. Another thread
 * holds the lock of starts and stops, sets a disposition, and catches a signal. One more thread
 * forks. With FROM_HANDLER the thread of RAN forks, in a handler of its loop. The handlers of
 * fork() are registered.
 *
 * Parent and child share no memory, so from the fork() on the model follows one of the two. The
 * child has a copy of the memory, and only one process of the model: the one that forks. It
 * catches a signal at once and another one at the end. In between it changes each context and runs
 * a loop on each. If it was forked in a handler, it leaves the handler last.
 *
 * The assertions:
 *   - The child waits for no lock that a thread of the parent had, and at the gate for no catcher
 *     of the parent.
 *   - No list that the child uses was copied in the middle of a change.
 *   - The child neither writes to a descriptor number of the parent's channels nor closes one.
 *   - The thread that forks waits for no handler, and the parent goes on as before.
 *
 * Memory order. The model is sequentially consistent: threads take their steps one after another.
 * The child has one thread. A ListMutex reads its owner with relaxed order. A thread finds its own
 * number there only if it holds the lock: it stores the number while it holds the lock, and clears
 * it before it unlocks. Any other value that it reads doesn't matter. fork.cpp reads is_active_
 * with relaxed order; is_active_ changes under running_loops.mutex_, which the thread that forks
 * holds. A start stores pid_ of running_loops with relaxed order before its seq_cst store of a
 * link, and a catcher reads pid_ before the links.
 */

#define RAN 0              /* The default context. */
#define IDLE 1
#define FREED 2
#define LISTS 0            /* mutex[LISTS + context]: events_mutex and the lock of the timers; */
#define CHILDREN 3         /* mutex[CHILDREN + context]: the lock of the children. */
#define NOBODY 0
#define FORKER 1
#define NO_FD 0
#define OF_PARENT 1        /* A descriptor number of the parent's channel. */
#define OF_CHILD 2

bool in_child;             /* Which of the two processes the model follows. */
#define OF_THE_PARENT provided (!in_child)

bool mutex[6];             /* ListMutex */
byte depth[6];
byte owner[6] = NOBODY;
bool rec_mutex;            /* Guards the bookkeeping of each recursive_mutex. */
bool contexts_mutex;
bool loops_mutex;          /* running_loops.mutex_ */
bool loop_thread_mutex;    /* loop_thread.mutex */
bool disposition_mutex;

bool on_contexts[3];       /* The list of all contexts. */
bool is_active[3];         /* Run::is_active_ */
byte ping_fd[3] = NO_FD;
byte pong_fd[3] = NO_FD;
bool running[3];           /* running_loops.list_ */
byte inside;               /* running_loops.gate_ */
byte loops_pid;            /* running_loops.pid_: OF_PARENT or OF_CHILD */

bool changing[6];          /* The list that the mutex guards is in the middle of a change. */
bool contexts_changing;
bool forked, child_done;
byte threads_done;

#define lock(plain)   atomic { !plain -> plain = true }
#define unlock(plain) plain = false

/* ListMutex. Only its holder finds itself in `owner`, and only its holder changes `depth`. */
inline list_lock(m, self) {
    if
    :: atomic { owner[m] == self -> depth[m]++ }
    :: else ->
        lock(mutex[m]);
        atomic { owner[m] = self; depth[m]++ }
    fi
}

inline list_unlock(m, self) {
    if
    :: owner[m] != self
    :: atomic { else -> depth[m]-- }
        if
        :: depth[m] == 0 ->
#ifdef OWNER_CLEARED_LATE
            mutex[m] = false;
            owner[m] = NOBODY
#else
            owner[m] = NOBODY;
            mutex[m] = false
#endif
        :: else
        fi
    fi
}

inline change(m, self) {
    list_lock(m, self);
    assert(!changing[m]);
    changing[m] = true;
    changing[m] = false;
    list_unlock(m, self)
}

/* A loop of the parent: start, handler and end. A start may fail and leave its read end. */
proctype Runner() OF_THE_PARENT {
    do
    :: lock(loops_mutex);
        if
#ifndef FROM_HANDLER
        :: pong_fd[RAN] = OF_PARENT;
            unlock(loops_mutex);
            break
#endif
        :: pong_fd[RAN] = OF_PARENT;
            ping_fd[RAN] = OF_PARENT;
            loops_pid = OF_PARENT;
            is_active[RAN] = true;
            running[RAN] = true;
            unlock(loops_mutex);
#ifdef FROM_HANDLER
            forked;
#else
            list_lock(LISTS + RAN, _pid);
            /* The handler may wait for the thread that forks. */
            if
            :: true -> forked
            :: true
            fi;
            change(CHILDREN + RAN, _pid);
            list_unlock(LISTS + RAN, _pid);
#endif
            lock(loops_mutex);
            running[RAN] = false;
            ping_fd[RAN] = NO_FD;
            inside == 0;
            pong_fd[RAN] = NO_FD;
            is_active[RAN] = false;
            unlock(loops_mutex);
            break
        fi
    od;
    threads_done++
}

proctype Changer() OF_THE_PARENT {
    change(LISTS + IDLE, _pid);
    change(CHILDREN + IDLE, _pid);
    threads_done++
}

/* event_mc_init(), a change, event_mc_free() */
proctype Freer() OF_THE_PARENT {
    lock(contexts_mutex);
    contexts_changing = true;
    atomic { contexts_changing = false; on_contexts[FREED] = true }
    unlock(contexts_mutex);
    change(CHILDREN + FREED, _pid);
    lock(contexts_mutex);
    contexts_changing = true;
    atomic { contexts_changing = false; on_contexts[FREED] = false }
    unlock(contexts_mutex);
    change(LISTS + FREED, _pid);
    change(CHILDREN + FREED, _pid);
    threads_done++
}

/*
 * Takes the locks of a start or a stop, of the end of a command and of a recursive_mutex, and
 * enters the gate as a catcher does.
 */
proctype Holder() OF_THE_PARENT {
    lock(loop_thread_mutex);
    unlock(loop_thread_mutex);
    lock(disposition_mutex);
    unlock(disposition_mutex);
    lock(rec_mutex);
    unlock(rec_mutex);
    inside++;
    inside--;
    threads_done++
}

inline before_fork() {
#ifndef CONTEXTS_NOT_LOCKED
    lock(contexts_mutex);
#endif
#ifndef LOOPS_NOT_LOCKED
    lock(loops_mutex);
#endif
    c = 0;
    do
    :: c > FREED -> break
    :: else ->
        if
#ifdef RUNNING_LOCKED_TOO
        :: on_contexts[c] -> list_lock(LISTS + c, FORKER)
#else
#ifndef IDLE_NOT_LOCKED
        :: on_contexts[c] && !is_active[c] -> list_lock(LISTS + c, FORKER)
#endif
#endif
        :: else
        fi;
        c++
    od
}

inline after_fork_in_parent() {
    c = 0;
    do
    :: c > FREED -> break
    :: else ->
        if
#ifdef RUNNING_LOCKED_TOO
        :: on_contexts[c] -> list_unlock(LISTS + c, FORKER)
#else
#ifndef IDLE_NOT_LOCKED
        :: on_contexts[c] && !is_active[c] -> list_unlock(LISTS + c, FORKER)
#endif
#endif
        :: else
        fi;
        c++
    od;
#ifndef LOOPS_NOT_LOCKED
    unlock(loops_mutex);
#endif
#ifndef CONTEXTS_NOT_LOCKED
    unlock(contexts_mutex)
#endif
}

inline renew(m) {
    mutex[m] = false;
    depth[m] = 0;
    owner[m] = NOBODY;
    changing[m] = false
}

inline after_fork_in_child() {
    assert(!contexts_changing);
#ifndef REC_MUTEX_KEPT
    rec_mutex = false;
#endif
#ifndef DISPOSITION_MUTEX_KEPT
    disposition_mutex = false;
#endif
    c = 0;
    do
    :: c > FREED -> break
    :: else ->
        if
        :: !on_contexts[c]
#ifndef RAN_IS_KEPT
        :: on_contexts[c] && is_active[c] -> /* make_new() */
            d_step {
                renew(LISTS + c);
                renew(CHILDREN + c);
                ping_fd[c] = NO_FD;
                pong_fd[c] = NO_FD;
                is_active[c] = false
            }
#endif
        :: on_contexts[c] && !is_active[c] ->
#ifndef LEFTOVER_KEPT
            pong_fd[c] = NO_FD;
#endif
#ifndef CHILDREN_KEPT
            d_step { renew(CHILDREN + c) }
#endif
            list_unlock(LISTS + c, FORKER)
        :: else
        fi;
        c++
    od;
#ifndef THREAD_MUTEX_KEPT
    loop_thread_mutex = false;
#endif
    loops_mutex = false;
    d_step {
#ifndef LOOPS_KEPT
        running[RAN] = false;
        running[IDLE] = false;
        running[FREED] = false;
#endif
#ifndef GATE_KEPT
        inside = 0;
#endif
    }
    contexts_mutex = false
}

inline write_byte(fd) {
    assert(fd != OF_PARENT)
}

/* send_to_running_loops() in the child. */
inline send_signal() {
    if
#ifndef NO_PID_TEST
    :: loops_pid != OF_CHILD
    :: loops_pid == OF_CHILD ->
#else
    :: true ->
#endif
        inside++;
        c = 0;
        do
        :: c > FREED -> break
        :: else ->
            if
            :: running[c] -> write_byte(ping_fd[c])
            :: else
            fi;
            c++
        od;
        inside--
    fi
}

/* Changes a context and runs a loop on it. */
inline use(ctx) {
    change(LISTS + ctx, FORKER);
    write_byte(ping_fd[ctx]);
    change(CHILDREN + ctx, FORKER);
    write_byte(ping_fd[ctx]);
    lock(disposition_mutex);
    unlock(disposition_mutex);
    lock(loop_thread_mutex);
    unlock(loop_thread_mutex);
    lock(rec_mutex);
    unlock(rec_mutex);
    lock(loops_mutex);
    assert(!is_active[ctx] && !running[ctx]);
    assert(pong_fd[ctx] != OF_PARENT);
    d_step { pong_fd[ctx] = OF_CHILD; ping_fd[ctx] = OF_CHILD; loops_pid = OF_CHILD }
    d_step { is_active[ctx] = true; running[ctx] = true }
    unlock(loops_mutex);
    send_signal();
    lock(loops_mutex);
    running[ctx] = false;
    ping_fd[ctx] = NO_FD;
    inside == 0;
    assert(pong_fd[ctx] != OF_PARENT);
    pong_fd[ctx] = NO_FD;
    is_active[ctx] = false;
    unlock(loops_mutex)
}

proctype Forker() {
    byte c, ctx;
#ifdef FROM_HANDLER
    running[RAN];
    list_lock(LISTS + RAN, FORKER);
    list_lock(CHILDREN + RAN, FORKER);
#endif
    before_fork();
    if
    :: atomic { /* No other process runs beside the child. */
            in_child = true;
            send_signal();
            after_fork_in_child();
            lock(contexts_mutex);
            unlock(contexts_mutex);
            ctx = 0;
            do
            :: ctx > FREED -> break
            :: else ->
                if
                :: on_contexts[ctx] -> use(ctx)
                :: else
                fi;
                ctx++
            od;
            send_signal();
            child_done = true
        }
    :: after_fork_in_parent();
        forked = true
    fi;
#ifdef FROM_HANDLER
    list_unlock(CHILDREN + RAN, FORKER);
    list_unlock(LISTS + RAN, FORKER)
#endif
}

/* Runs when no other process can. */
proctype Last() {
    timeout;
    if
    :: in_child ->
        assert(child_done);
        assert(!rec_mutex && !mutex[LISTS + RAN] && !mutex[LISTS + IDLE]);
        assert(!on_contexts[FREED] || !mutex[LISTS + FREED]);
        assert(!mutex[CHILDREN + RAN] && !mutex[CHILDREN + IDLE]);
        assert(!on_contexts[FREED] || !mutex[CHILDREN + FREED])
    :: else -> assert(forked && threads_done == 4)
    fi
}

init {
    atomic {
        on_contexts[RAN] = true;
        on_contexts[IDLE] = true;
        run Forker();
        run Runner();
        run Changer();
        run Freer();
        run Holder();
        run Last()
    }
}
