/*
 * The gate of channel.cpp: who may use a channel and a context while their loop ends.
 *
 * Two contexts, A and B; each owner frees its context as soon as its last loop has returned. The
 * scenarios, each with a signal that is caught on a thread of its own:
 *   - A runs two loops one after the other, and a thread cancels each, perhaps also once before;
 *     a handler cancels the loop of B;
 *   - CHANGE: a thread adds a watcher to B, whose handler cancels the loop, and another thread
 *     cancels it at any time;
 *   - NESTED: handlers cancel both loops, and a second signal is caught on top of an owner or of
 *     the first catcher, which stands still until the second one has returned;
 *   - STORM: B alone, and two threads that catch signals for ever.
 *
 * The assertions:
 *   - nothing is written to a descriptor that has been closed. Each start takes a new number, so
 *     a write to a number that has been reused is one to a closed number;
 *   - no freed context is touched, and no link that is no node is followed;
 *   - a signal reaches every loop that is on the list from before the catch until after it;
 *   - every loop, cancel, add and end returns: in the end no process waits. So no wake-up is lost
 *     either. With STORM: the end returns although signals never stop (the claim `ends_return`,
 *     if no process stands still for ever).
 *
 * Memory order. The model is sequentially consistent: one step of one thread after another. The
 * code uses seq_cst for run flag, ping_fd, links, side_ and inside_. The weaker ones are:
 *   - relaxed: loops.pid, in_loop and eloopthread at a start, and PendingSignals::clear(). They
 *     are stored before the seq_cst store of the link by which a catcher finds the context. A
 *     catcher that reads an older loops.pid was called beside the start, and may miss that loop.
 *     Other readers of the first three hold loops.mutex or are the loop's own thread.
 *   - plain: a start's ReadAhead, before the seq_cst store of ping_fd. Whoever counts there is
 *     inside the gate and has read that ping_fd. What it counts is the subject of
 *     full_channel.pml.
 *   - relaxed: ping_fd in set_up(), and inside_ in the child of a fork(). No other thread can
 *     reach them then.
 *   - relaxed: Stale. It is set under a list's mutex. A loop that misses it goes to sleep, and
 *     the byte that is written afterwards wakes it: write() and select() order the two. Who finds
 *     no channel writes none. But a start sets Stale itself, after it has stored ping_fd, so the
 *     loop's first look takes the mutex: it sees the change, or the change comes later and sees
 *     ping_fd.
 *   - plain: node.next before the seq_cst store of prev->next that makes the node reachable;
 *     node.prev and the head's prev, which only holders of loops.mutex read; node = {} after the
 *     wait, when nobody stands on it.
 * So no property depends on the order of two weaker accesses.
 */

#define A 0
#define B 1
#define HEAD 2         /* loops.list */
#define NO_NODE 3
#define NO_FD 0        /* kNoFd */
#define NOBODY 255
#ifdef NESTED
#define STANDS_STILL provided (interrupted != _pid)
#else
#define STANDS_STILL
#endif

byte next[3] = HEAD;   /* The links of loops.list. */
byte prev[3] = HEAD;
byte side;             /* loops.gate */
byte inside[2];
bool loops_mutex;
byte ping_fd[2] = NO_FD;
bool run_flag[2];      /* async_loop_started */
bool lists_mutex[2];   /* The mutex of the list that a ChangeLock holds. */
bool stale[2] = true;
bool kept[2];          /* A signal stands beside the full channel. */

bool is_open[4];       /* By descriptor: 1 and 2 are the channels of A, 3 is that of B. */
bool has_byte[4];      /* A channel holds one message; then it is full. */
bool freed[2];
bool watched[2];       /* The list has a watcher whose handler cancels. */

bool listed[2];        /* For the assertions: on loops.list, */
bool owed[4];          /* and so throughout a catch, whose signal hasn't been sent there yet. */
bool last_returned[2];
bool change_made;
bool other_cancel_over;
byte interrupted = NOBODY;

#define lock(mutex)   atomic { !mutex -> mutex = true }
#define unlock(mutex) mutex = false
#define touch(c)      assert(!freed[c])

/* A full channel takes nothing. */
inline write_byte(fd) {
    assert(is_open[fd]);
    has_byte[fd] = true
}

/* It counts in the context, too; full_channel.pml shows how. */
inline write_wake_up(ctx) {
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

/* ReaderGate::wait_for_readers(). Only the holder of loops.mutex changes `side`. */
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

/* channel_send_signal() */
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
                write_wake_up(c)
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

/* channel_cancel() */
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
    :: else -> write_wake_up(ctx)
    fi;
#ifdef FLAG_AFTER_WAKE_UP
    atomic { touch(ctx); run_flag[ctx] = false }
#endif
#ifndef CANCEL_WITHOUT_GATE
    leave(my_side)
#endif
}

/* channel_start() */
inline start(ctx, new_fd) {
    lock(loops_mutex);
#ifdef LISTED_BEFORE_CHANNEL
    link(ctx);
#endif
    atomic { touch(ctx); kept[ctx] = false; is_open[new_fd] = true; ping_fd[ctx] = new_fd }
    atomic { touch(ctx); stale[ctx] = true; run_flag[ctx] = true }
#ifndef LISTED_BEFORE_CHANNEL
    link(ctx);
#endif
    unlock(loops_mutex)
}

/* list_running_locked(). Only holders of loops.mutex read `prev`. */
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

/* unlist_running_locked() */
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

/* channel_end() */
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

/* The loop of run_loop(): a look at the lists if they have changed, then the sleep in select(). */
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

/* event_mc_free(): each list is dropped under its mutex. */
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
    /* The program frees B when the change has been made and the other canceller is through. */
    (ctx != B || (change_made && other_cancel_over));
    free(ctx)
}

/* The program cancels a loop that it has seen running, and once perhaps before. */
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

/* One more cancel of a loop, at any time. */
proctype OtherCanceller(byte ctx) STANDS_STILL {
    byte my_side, fd;
    cancel(ctx);
    other_cancel_over = true
}

/* ChangeLock, around an addition. */
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
        :: else -> write_wake_up(ctx)
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

/* A signal on top of a thread, perhaps in its catcher. */
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
