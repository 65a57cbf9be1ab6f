/*
 * A full channel: what keep() and take() of pending_signals.h, channel_send_signal() and the
 * passes of the loop do with signals that don't fit into it.
 *
 * The channel holds three units. A signal's message takes two, a wake-up one. Catchers and wakers
 * are processes of their own, so that each takes its steps at any time, as it does on another
 * thread or on top of the loop's own. A catcher waits for nothing, so what it interrupts may
 * stand still.
 *   - Four catchers of three numbers and a waker, each once.
 *   - STORM: signals 1 and 2 are caught for ever, 3 once.
 *
 * The assertions:
 *   - no signal is lost: once the loop has nothing left to do, for each catch the handler has run
 *     since it began, the last bit of `full_` is cleared and each slot is free again;
 *   - none is invented: the handler of a number runs no more often than that number was caught;
 *   - a record that is handed out is whole, and that of its number;
 *   - with STORM: 3 is handed out in the end, whether it is kept or in the channel (the claim
 *     `handed_out`, if no process stands still for ever).
 *
 * Memory order. The model is sequentially consistent: one step of one thread after another. The
 * code uses seq_cst for `full_` and each slot's state. The weaker ones are:
 *   - plain: a slot's record. The catcher that has turned the state from kFree to kWriting writes
 *     it and then stores kFull and the bit. The loop reads it after it has loaded the bit, and
 *     before it stores kFree. So each access is ordered by the state or the bit.
 *   - plain: last_taken_ and pending_turn, which are the loop's own.
 *   - relaxed: clear(), at a start, before the store by which catchers find the context.
 * So no property depends on the order of two weaker accesses.
 */

#define SIGNALS 3
#define ROOM 3            /* Of the channel. */
#define WAKE_UP 0
#define K_FREE 0
#define K_WRITING 1
#define K_FULL 2
#define TORN 0            /* A record that is being written. */
#define bit(signal) (1 << (signal))

chan channel = [ROOM] of { byte };  /* WAKE_UP, or the number of a signal. */
byte used;                          /* Units of it. */

byte full_;
byte state[SIGNALS + 1];
#ifndef STORM
byte record[SIGNALS + 1];
#endif
byte last_taken;
bool pending_turn;

#ifndef STORM
byte caught[SIGNALS + 1];           /* For the assertions. */
byte handled[SIGNALS + 1];
#endif
bool owed[SIGNALS + 1];             /* Caught, and the handler hasn't run since. */

/* Whoever writes to a full channel loses the byte. */
inline write_wake_up() {
    atomic {
        if
        :: used + 1 <= ROOM -> channel ! WAKE_UP; used++
        :: else
        fi
    }
}

inline write_record(signal) {
#ifdef STORM
    skip
#else
    record[signal] = TORN;
    record[signal] = signal
#endif
}

inline copy_record(signal) {
#ifdef STORM
    skip
#else
    assert(record[signal] == signal)
#endif
}

/* PendingSignals::keep() */
inline keep(signal) {
#ifdef TESTED_NOT_EXCHANGED
    taken = state[signal] == K_FREE;
    if
    :: taken -> state[signal] = K_WRITING
    :: else
    fi;
#else
    atomic {
        taken = state[signal] == K_FREE;
        if
        :: taken -> state[signal] = K_WRITING
        :: else
        fi
    }
#endif
    if
    :: taken ->
#ifdef PUBLISHED_BEFORE_WRITTEN
        state[signal] = K_FULL;
        full_ = full_ | bit(signal);
        write_record(signal)
#else
        write_record(signal);
#ifdef BIT_BEFORE_STATE
        full_ = full_ | bit(signal);
        state[signal] = K_FULL
#else
        state[signal] = K_FULL;
        full_ = full_ | bit(signal)
#endif
#endif
    :: else
    fi;
    taken = false
}

/* channel_send_signal() */
inline send_signal(signal) {
    atomic {
        owed[signal] = true;
#ifndef STORM
        caught[signal]++;
#endif
        if
        :: used + 2 <= ROOM -> channel ! signal; used = used + 2; fits = true
        :: else
        fi
    }
    if
    :: fits -> fits = false
    :: else ->
#ifdef WAKES_BEFORE_IT_KEEPS
        write_wake_up();
        keep(signal)
#else
        keep(signal);
#ifndef NO_WAKE_UP
        write_wake_up()
#endif
#endif
    fi
}

proctype Catcher(byte signal) {
    bool taken, fits;
    send_signal(signal)
}

proctype Storm() {
    bool taken, fits;
    byte signal;
    do
    :: signal = 1; send_signal(signal)
    :: signal = 2; send_signal(signal)
    od
}

proctype Waker() {
    write_wake_up()
}

/* The number that comes next among those of `full`. */
inline choose(bits) {
    d_step {
#ifdef TAKE_LOWEST_FIRST
        signal = 1;
        do
        :: bits & bit(signal) -> break
        :: else -> signal++
        od
#else
        signal = last_taken;
        do
        :: signal = (signal % SIGNALS) + 1;
            if
            :: bits & bit(signal) -> break
            :: else
            fi
        od;
        last_taken = signal
#endif
    }
}

/* PendingSignals::take() */
inline take() {
    bits = full_;
    if
    :: bits == 0
    :: else ->
        choose(bits);
#ifdef FREED_BEFORE_BIT_IS_CLEARED
        copy_record(signal)
        state[signal] = K_FREE;
        full_ = full_ & ~bit(signal)
#else
        full_ = full_ & ~bit(signal);
#ifdef FREED_BEFORE_COPIED
        state[signal] = K_FREE;
        copy_record(signal)
#else
        copy_record(signal)
        state[signal] = K_FREE
#endif
#endif
    fi
}

/* take_signal() of loop.cpp */
inline take_signal() {
    signal = 0;
    if
    :: has_message ->
#ifdef CHANNEL_FIRST
        turn = false;
#else
        turn = pending_turn && full_ != 0;
#endif
#ifdef KEPT_FIRST
        turn = full_ != 0;
#endif
        if
        :: turn
        :: atomic { else -> channel ? signal; used = (signal == WAKE_UP -> used - 1 : used - 2) }
        fi
    :: else
    fi;
    atomic { pending_turn = signal != 0; turn = false; has_message = false }
    if
    :: signal == 0 -> take()
    :: else
    fi
}

inline run_handler() {
    d_step {
        owed[signal] = false;
#ifndef STORM
        handled[signal]++;
        assert(handled[signal] <= caught[signal]);
#endif
        bits = 0; signal = 0
    }
}

/* Passes of the main loop; a wait without a timeout ends with a message alone. */
active proctype Loop() {
    byte bits, signal;
    bool has_message, turn;
    do
    ::
#ifdef NO_LOOK_BEFORE_THE_WAIT
        bits = 0;
#else
        bits = full_;
#endif
        if
        :: bits != 0 -> has_message = len(channel) > 0
        :: bits == 0 ->
end:        nempty(channel) -> has_message = true
        fi;
        bits = 0;
        take_signal();
        if
        :: signal != 0 -> run_handler()
        :: else
        fi
    od
}

#ifdef STORM

init {
    atomic {
        run Storm();
        run Catcher(3)
    }
}

ltl handed_out { [] (owed[3] -> <> !owed[3]) }

#else

proctype Last() {
    timeout;
    assert(!owed[1] && !owed[2] && !owed[3]);
    assert(full_ == 0);
    assert(state[1] == K_FREE && state[2] == K_FREE && state[3] == K_FREE)
}

init {
    atomic {
        run Catcher(1);
        run Catcher(1);
        run Catcher(2);
        run Catcher(3);
        run Waker();
        run Last()
    }
}

#endif
