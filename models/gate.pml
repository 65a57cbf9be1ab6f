/*
 * The gate of reader_gate.h and running_loops.h: which threads may use a channel and a context
 * while their loop ends. run.cpp has the starts, cancels and ends, channel.cpp the writers.
 *
 * There are two contexts, A and B. Each owner frees its context as soon as its last loop has
 * returned. In each scenario a signal is caught on a thread of its own:
 *   - by default A runs two loops one after the other. A thread cancels each of them, and may
 *     cancel once before. A handler cancels the loop of B;
 *   - CHANGE: a thread adds a watcher to B whose handler cancels the loop, and another thread
 *     cancels the loop at any time;
 *   - NESTED: handlers cancel both loops. A second signal interrupts an owner or the first
 *     catcher, which stops until the second catcher has returned;
 *   - STORM: only B has a loop, and two threads catch signals for ever.
 *
 * The assertions:
 *   - No thread writes to a descriptor that has been closed. Each start takes a new number, so a
 *     write to a reused number would be a write to a closed one.
 *   - No thread touches a freed context, or follows a link that isn't a node.
 *   - A signal reaches every loop that is on the list from before the catch until after it.
 *   - Every loop, cancel, addition and end returns: in the end no process waits. So no wake-up is
 *     lost. With STORM the end returns although signals never stop (the claim `ends_return`,
 *     under weak fairness: no process that can run waits for ever).
 *
 * Memory order. The model is sequentially consistent: threads take their steps one after another.
 * The code uses seq_cst for keeps_running_, ping_fd_, the links, side_ and inside_. The other
 * accesses are:
 *   - relaxed: is_active_ and thread_ of the Run and pid_ of running_loops at a start, and
 *     PendingSignals::clear(). They are stored before the seq_cst store of the link by which a
 *     catcher finds the loop. A catcher that reads an older pid_ is concurrent with the start, and
 *     may miss that loop. Others read the first three under running_loops.mutex_ or on the loop's
 *     own thread; handshake.pml names the exceptions.
 *   - plain: a start's new ReadAhead, before the seq_cst store of ping_fd_. A thread that counts
 *     in it is inside the gate and has read that ping_fd_. full_channel.pml checks the counts.
 *   - plain: the first value of ping_fd_ in a new context. Relaxed: inside_ in the child of a
 *     fork(). No other thread can reach them then.
 *   - relaxed: Stale. It is set under a list's mutex. A loop that misses it goes to sleep, and
 *     the byte that is written afterwards wakes the loop: write() and select() order the two. A
 *     thread that finds no channel writes no byte. But run_loop() sets Stale itself, after the
 *     start has stored ping_fd_, so the loop's first look takes the mutex. Either this look sees
 *     the change, or the change comes later and sees ping_fd_.
 *   - plain: node.next, before the seq_cst store of prev->next that makes the node reachable;
 *     node.prev and the head's prev, which only holders of running_loops.mutex_ read; node = {}
 *     after the wait, when no catcher uses the node.
 * So no property depends on the order of two weaker accesses.
 */

#define A 0
#define B 1
#define HEAD 2         /* running_loops.list_ */
#define NO_NODE 3
#define NO_FD 0        /* kNoFd */
#define NOBODY 255
#ifdef NESTED
#define STANDS_STILL provided (interrupted != _pid)
#else
#define STANDS_STILL
#endif

byte next[3] = HEAD;   /* The links of running_loops.list_. */
byte prev[3] = HEAD;
byte side;             /* running_loops.gate_ */
byte inside[2];
bool loops_mutex;      /* running_loops.mutex_ */
byte ping_fd[2] = NO_FD;
bool run_flag[2];      /* keeps_running_ */
bool lists_mutex[2];   /* The mutex of the list that a Change holds. */
bool stale[2] = true;
bool kept[2];          /* A signal is kept beside the full channel. */

bool is_open[4];       /* By descriptor: 1 and 2 are the channels of A, 3 is the channel of B. */
bool has_byte[4];      /* A channel holds one message; then it is full. */
bool freed[2];
bool watched[2];       /* The list has a watcher whose handler cancels. */

bool listed[2];        /* For the assertions: the loop is on running_loops.list_, */
bool owed[4];          /* has been since the catch began, and the signal hasn't been sent there. */
bool last_returned[2];
bool change_made;
bool other_cancel_over;
byte interrupted = NOBODY;

#define lock(mutex)   atomic { !mutex -> mutex = true }
#define unlock(mutex) mutex = false
#define touch(c)      assert(!freed[c])

/* A write to a full channel has no effect. */
inline write_byte(fd) {
    assert(is_open[fd]);
    has_byte[fd] = true
}

/* Channel::wake(). Its counts are the subject of full_channel.pml. */
inline wake(ctx) {
    atomic { write_byte(fd); touch(ctx); fd = NO_FD }
}

/* ReaderGate::enter() */
inline enter(my_side) {
#ifdef ONE_COUNTER
    my_side = 0;
#else
    my_side = side;
#endif
    inside[my_side]++
}

inline leave(my_side) {
    atomic { inside[my_side]--; my_side = 0 }
}

/* ReaderGate::wait_for_readers(). Only the holder of loops_mutex changes `side`. */
inline wait_for_readers(old) {
#ifdef ONE_COUNTER
    inside[0] == 0
#else
    atomic { old = side; side = 1 - old }
    inside[old] == 0;
#ifndef ONE_ROUND
    atomic { old = side; side = 1 - old }
    inside[old] == 0
#endif
#endif
}

/* send_to_running_loops(), with Channel::send_signal() */
inline send_signal(me) {
    d_step { owed[me + A] = listed[A]; owed[me + B] = listed[B] }
#ifdef CATCHER_LOCKS
    lock(loops_mutex);
#endif
#ifndef CATCHER_OUTSIDE_GATE
    enter(my_side);
#endif
    node = next[HEAD];
    do
    :: node == HEAD -> break
    :: else ->
        atomic { assert(node != NO_NODE); touch(node); c = node; node = next[c] }
        atomic { touch(c); fd = ping_fd[c] }
        if
        :: fd == NO_FD
        :: else ->
            atomic {
                assert(is_open[fd]);
                if
                :: !has_byte[fd] -> has_byte[fd] = true; owed[me + c] = false; fd = NO_FD
                :: else
                fi
            }
            if
            :: fd == NO_FD
            :: else ->
                atomic { touch(c); kept[c] = true; owed[me + c] = false }
                wake(c)
            fi
        fi
    od;
#ifdef CATCHER_OUTSIDE_GATE
    skip;
#else
    leave(my_side);
#endif
#ifdef CATCHER_LOCKS
    unlock(loops_mutex);
#endif
    d_step {
        assert(!owed[me + A] && !owed[me + B]);
        c = 0; node = 0
    }
}

/* Run::cancel() */
inline cancel(ctx) {
#ifdef CANCEL_OUTSIDE_GATE
    atomic { touch(ctx); run_flag[ctx] = false }
    enter(my_side);
#else
#ifndef CANCEL_WITHOUT_GATE
    enter(my_side);
#endif
#ifndef FLAG_AFTER_WAKE_UP
    atomic { touch(ctx); run_flag[ctx] = false }
#endif
#endif
    atomic { touch(ctx); fd = ping_fd[ctx] }
    if
    :: fd == NO_FD
    :: else -> wake(ctx)
    fi;
#ifdef FLAG_AFTER_WAKE_UP
    atomic { touch(ctx); run_flag[ctx] = false }
#endif
#ifndef CANCEL_WITHOUT_GATE
    leave(my_side)
#endif
}

/* Run::start() */
inline start(ctx, new_fd) {
    lock(loops_mutex);
#ifdef LISTED_BEFORE_CHANNEL
    link(ctx);
#endif
    atomic { touch(ctx); kept[ctx] = false; is_open[new_fd] = true; ping_fd[ctx] = new_fd }
    atomic { touch(ctx); run_flag[ctx] = true }
#ifndef LISTED_BEFORE_CHANNEL
    link(ctx);
#endif
    unlock(loops_mutex);
    atomic { touch(ctx); stale[ctx] = true } /* run_loop() */
}

/* RunningLoops::add_locked(). Only holders of loops_mutex read `prev`. */
inline link(ctx) {
    atomic {
#ifndef LINKED_BACKWARDS
        next[ctx] = HEAD;
#endif
        prev[ctx] = prev[HEAD];
        prev[HEAD] = ctx
    }
    d_step { next[prev[ctx]] = ctx; listed[ctx] = true }
#ifdef LINKED_BACKWARDS
    next[ctx] = HEAD
#endif
}

/* RunningLoops::unlink_locked() */
inline unlink(ctx) {
    d_step {
        touch(ctx);
        next[prev[ctx]] = next[ctx];
        prev[next[ctx]] = prev[ctx];
        listed[ctx] = false;
        owed[ctx] = false;
        owed[2 + ctx] = false;
#ifdef UNLINKED_NODE_CLEARED
        next[ctx] = NO_NODE;
#endif
    }
}

/* Run::end(), with RunningLoops::remove_locked() */
inline end_loop(ctx) {
    lock(loops_mutex);
#ifdef CLOSED_BEFORE_UNLISTED
    atomic { touch(ctx); fd = ping_fd[ctx]; is_open[fd] = false; ping_fd[ctx] = NO_FD }
    unlink(ctx);
    wait_for_readers(old);
#else
    unlink(ctx);
#ifdef PING_FD_STAYS
    atomic { touch(ctx); fd = ping_fd[ctx] }
#else
    atomic { touch(ctx); fd = ping_fd[ctx]; ping_fd[ctx] = NO_FD }
#endif
#ifdef CLOSED_BEFORE_WAIT
    is_open[fd] = false;
    wait_for_readers(old);
#else
#ifdef WAIT_WITHOUT_LOCK
    unlock(loops_mutex);
#endif
    wait_for_readers(old);
#endif
#endif
    atomic {
        touch(ctx);
        next[ctx] = NO_NODE;
        prev[ctx] = NO_NODE;
        is_open[fd] = false;
        has_byte[fd] = false;
        ping_fd[ctx] = NO_FD;
        fd = NO_FD;
        old = 0
    }
#ifndef WAIT_WITHOUT_LOCK
    unlock(loops_mutex)
#endif
}

/* The loop of run_loop(): it looks at the lists if they have changed, or sleeps in select(). */
inline iterate_until_cancelled(ctx, new_fd) {
    do
    :: !run_flag[ctx] -> break
    :: else ->
        if
        :: stale[ctx] ->
            lock(lists_mutex[ctx]);
            atomic {
#ifndef STALE_CLEARED_LATE
                stale[ctx] = false;
#endif
                if
                :: watched[ctx] -> run_flag[ctx] = false
                :: else
                fi
            }
            unlock(lists_mutex[ctx]);
#ifdef STALE_CLEARED_LATE
            stale[ctx] = false
#endif
        :: else ->
            atomic {
                has_byte[new_fd] || kept[ctx];
                has_byte[new_fd] = false;
                kept[ctx] = false
            }
        fi
    od
}

/* event_mc_free(): it drops each list under the list's mutex. */
inline free(ctx) {
#ifndef FREED_WITHOUT_LOCKS
    lock(lists_mutex[ctx]);
    unlock(lists_mutex[ctx]);
#endif
    freed[ctx] = true
}

proctype Owner(byte ctx; byte first_fd; byte last_fd) STANDS_STILL {
    byte life = first_fd;
    byte fd = NO_FD;
    byte old;
    do
    :: start(ctx, life);
        iterate_until_cancelled(ctx, life);
        end_loop(ctx);
        if
        :: life == last_fd -> break
        :: else -> life++
        fi
    od;
    last_returned[ctx] = true;
    /* The program frees B after the change and after the other canceller's call. */
    (ctx != B || (change_made && other_cancel_over));
    free(ctx)
}

/* The program cancels a loop that it has seen running, and may cancel once before. */
proctype Canceller(byte ctx) STANDS_STILL {
    byte my_side, fd;
    if
    :: cancel(ctx)
    :: skip
    fi;
    do
    :: atomic { last_returned[ctx] -> break }
    :: atomic { run_flag[ctx] && !last_returned[ctx] } -> cancel(ctx)
    od
}

/* Cancels a loop once more, at any time. */
proctype OtherCanceller(byte ctx) STANDS_STILL {
    byte my_side, fd;
    cancel(ctx);
    other_cancel_over = true
}

/* A Change, around an addition. */
proctype Adder(byte ctx) STANDS_STILL {
    byte my_side;
    byte fd = NO_FD;
    lock(lists_mutex[ctx]);
    atomic { touch(ctx); watched[ctx] = true; stale[ctx] = true; change_made = true }
#ifdef ENTERS_AFTER_UNLOCK
    atomic { touch(ctx); unlock(lists_mutex[ctx]) }
#endif
    atomic { touch(ctx); fd = ping_fd[ctx] }
    if
    :: fd == NO_FD ->
#ifndef ENTERS_AFTER_UNLOCK
        atomic { touch(ctx); unlock(lists_mutex[ctx]) }
#endif
    :: else ->
        enter(my_side);
#ifndef FIRST_LOOK_IS_USED
        atomic { touch(ctx); fd = ping_fd[ctx] }
#endif
#ifndef ENTERS_AFTER_UNLOCK
        atomic { touch(ctx); unlock(lists_mutex[ctx]) }
#endif
        if
        :: fd == NO_FD
        :: else -> wake(ctx)
        fi;
        leave(my_side)
    fi
}

proctype Catcher(byte me) STANDS_STILL {
    byte my_side, node, c, fd;
#ifdef STORM
    do
    :: send_signal(me)
    od
#else
    send_signal(me)
#endif
}

/* A signal that interrupts a thread, perhaps in the thread's catcher. */
proctype Nested(byte lowest; byte highest) {
    byte my_side, node, c, fd;
    byte host = lowest;
    do
    :: host < highest -> host++
    :: break
    od;
    interrupted = host;
    send_signal(2);
    interrupted = NOBODY
}

init {
    atomic {
#if defined(STORM)
        change_made = true;
        other_cancel_over = true;
        run Owner(B, 3, 3);
        run Canceller(B);
        run Catcher(0);
        run Catcher(2)
#elif defined(NESTED)
        change_made = true;
        other_cancel_over = true;
        watched[B] = true;
        watched[A] = true;
        run Owner(A, 1, 1);
        run Owner(B, 3, 3);
        run Catcher(0);
        run Nested(1, 3)
#elif defined(CHANGE)
        run Owner(B, 3, 3);
        run OtherCanceller(B);
        run Adder(B);
        run Catcher(0)
#else
        change_made = true;
        other_cancel_over = true;
        watched[B] = true;
        run Owner(A, 1, 2);
        run Owner(B, 3, 3);
        run Canceller(A);
        run Catcher(0)
#endif
    }
}

#ifdef STORM
ltl ends_return { <>last_returned[B] }
#endif
