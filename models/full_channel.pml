/*
 * The channel: writers of signals and wake-ups, and the passes of a loop that reads ahead. The
 * model has wake(), send_signal(), read_ahead(), take_message() and take_signal() of channel.cpp,
 * and keep() and take() of pending_signals.h for signals that find the channel full.
 *
 * The channel holds four units. A signal's message takes two, a wake-up one; the loop reads up to
 * three. Catchers and wakers are processes of their own. So each takes its steps at any time, as
 * on another thread or in a signal handler that interrupts the loop. A catcher waits for nothing,
 * so the interrupted thread may stop until the catcher returns. The scenarios:
 *   - by default four catchers of three numbers and a change, each once;
 *   - CHANGES: three threads make five changes, and a signal is caught once. While two wake-ups
 *     are in the channel, further ones are only counted;
 *   - STORM: signals 1 and 2 are caught for ever, 3 once. The channel and a read are one unit
 *     smaller, and wake-ups aren't counted, since the loop never sleeps.
 *
 * The assertions:
 *   - No signal is lost: when the loop has nothing left to do, the handler has run after the last
 *     catch of each number, `full_` is 0 and each slot is free.
 *   - No signal is invented: the handler of a number runs no more often than that number was
 *     caught.
 *   - No message is torn, and a record that is handed out is whole and that of its number.
 *   - No change is lost: when the loop sleeps for ever, it has looked since the last change, and
 *     `unwritten` and `unread` are 0.
 *   - Each wake-up that has been written or counted has had a pass, and no other pass takes one.
 *   - A pass takes no wake-up if a signal was read or in the channel when select() returned.
 *   - With STORM signal 3 is handed out in the end, whether it is kept or in the channel (the
 *     claim `handed_out`, under weak fairness: no process that can run waits for ever).
 *
 * A wake-up is counted in `unread` after its write. If the count came first and the write failed,
 * a writer could take the count for a byte (COUNTED_BEFORE_WRITTEN). A pass reads a bounded number
 * of times. Otherwise wake-ups that come as fast as the loop reads would hold the loop in
 * read_ahead() (READS_FOR_EVER).
 *
 * Memory order. The model is sequentially consistent: threads take their steps one after another.
 * The code uses seq_cst for `full_`, each slot's state and `unwritten`. It also uses seq_cst for
 * the two accesses to `unread` that pair with those to `unwritten`: the writer's second look and
 * the loop's subtraction. So if the loop's exchange misses a count, the second look comes after
 * the subtraction and sees it. A wake-up that this look still finds in `unread` is subtracted by
 * a later read, which another exchange follows. The other accesses are:
 *   - relaxed: the first look at `unread`. An old value only chooses between a byte and a count.
 *     The channel may get a few more bytes than kMostUnread, and the second look follows a count.
 *   - relaxed: the addition to `unread`, after the write(). The loop may subtract before it, so
 *     `unread` may be negative for a while. A writer that misses the addition writes a byte.
 *   - plain: a slot's record. The catcher that has turned the state from kFree to kWriting writes
 *     the record, and then stores kFull and the bit. The loop reads the record after it has loaded
 *     the bit, and before it stores kFree. So the state or the bit orders each access.
 *   - plain: last_taken_, kept_turn_, WaitingSignals::read_ahead and the rest of ReadAhead, which
 *     only the loop's thread uses.
 *   - relaxed: clear(), and plain: a new ReadAhead. Both happen at a start, before the stores by
 *     which catchers and writers find the context and its channel.
 * So no property depends on the order of two weaker accesses.
 */

#define SIGNALS 3
#ifdef STORM
#define ROOM 3
#define READ_ROOM 2
#else
#define ROOM 4            /* The size of the channel in units, */
#define READ_ROOM 3       /* and the most that the loop reads at once. */
#endif
#define MESSAGE 2         /* Units of a signal. */
#define MOST_READS 2      /* The reads of a pass; only STORM needs a limit. */
#define MOST_UNREAD 2     /* kMostUnread */
#define WAKE_UP 0
#define K_FREE 0
#define K_WRITING 1
#define K_FULL 2
#define TORN 0            /* A record that is being written. */
#define bit(signal) (1 << (signal))

/* A unit: a wake-up, a signal's number, or its record, which may look like a wake-up. */
chan channel = [ROOM] of { byte };

short unread;                       /* The part of ReadAhead that threads share. */
byte unwritten;

byte full_;
byte state[SIGNALS + 1];
#ifndef STORM
byte record[SIGNALS + 1];
#endif

#ifndef STORM
byte caught[SIGNALS + 1];           /* For the assertions. */
byte handled[SIGNALS + 1];
#endif
bool owed[SIGNALS + 1];             /* The number was caught, and the handler hasn't run since. */
#ifndef STORM
bool changed;                       /* A list was changed, and the loop hasn't looked since. */
byte due;                           /* Wake-ups written or counted, and not taken. */
byte sent;                          /* Signals written and not taken. */
#endif

#ifdef STORM
#define one_more(counter) counter = 1
#define note_signal()
#else
#define one_more(counter) counter++
#define note_signal() sent++
#endif

/* Channel::wake(). A write to a full channel fails, and the byte is lost. */
#ifdef STORM
inline wake() {
    atomic {
        if
        :: len(channel) < ROOM -> channel ! WAKE_UP
        :: else
        fi
    }
}
#else
inline wake() {
    many = unread >= MOST_UNREAD;
    if
    :: many ->
#ifndef NO_SECOND_LOOK
        atomic { unwritten++; due++ }
        many = unread >= MOST_UNREAD
#else
        atomic { unwritten++; due++ }
#endif
    :: else
    fi;
    if
    :: many -> many = false
    :: else ->
#ifdef COUNTED_BEFORE_WRITTEN
        unread++;
        if
        :: atomic { len(channel) < ROOM -> channel ! WAKE_UP; due++ }
        :: len(channel) == ROOM -> unread--
        fi
#else
        if
        :: atomic { len(channel) < ROOM -> channel ! WAKE_UP; due++ } -> unread++
        :: len(channel) == ROOM
        fi
#endif
    fi
}
#endif

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

/* Channel::send_signal() */
inline send_signal(signal) {
    atomic {
        owed[signal] = true;
#ifndef STORM
        caught[signal]++;
#endif
        if
        :: len(channel) + MESSAGE <= ROOM ->
            channel ! signal;
            channel ! WAKE_UP;
            note_signal();
            fits = true
        :: else
        fi
    }
    if
    :: fits -> fits = false
    :: else ->
#ifdef WAKES_BEFORE_IT_KEEPS
        wake();
        keep(signal)
#else
        keep(signal);
#ifndef NO_WAKE_UP
        wake()
#endif
#endif
    fi
}

proctype Catcher(byte signal) {
    bool taken, fits, many;
    send_signal(signal)
}

proctype Storm() {
    bool taken, fits, many;
    byte signal;
    do
    :: signal = 1; send_signal(signal)
    :: signal = 2; send_signal(signal)
    od
}

#ifndef STORM
/* Changes of a list. */
proctype Waker(byte changes) {
    bool many;
    do
    :: changes > 0 -> changes--; changed = true; wake()
    :: else -> break
    od
}
#endif

/* Chooses the number that comes next among the bits. */
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

/* A read of the loop. It is a d_step, since only the channel is shared. */
inline read_units_once() {
    d_step {
        wanted = READ_ROOM - filled;
        do
        :: wanted > 0 && len(channel) > 0 ->
            channel ? unit;
            wanted--;
            if
            :: missing == 0 && unit == WAKE_UP -> one_more(owed_passes); one_more(wake_ups)
            :: else ->
                if
                :: missing == 0 -> missing = MESSAGE
                :: else
                fi;
                read_units[filled] = unit;
                filled++;
                missing--
            fi
        :: else -> break
        od;
#ifdef HALF_IS_FORGOTTEN
        missing = 0;
#endif
#ifdef STORM
        wake_ups = 0;
#endif
        unit = 0
    }
}

inline take_unwritten() {
#if !defined(STORM) && !defined(UNWRITTEN_STAYS)
    atomic {
        owed_passes = owed_passes + unwritten;
        unwritten = 0
    }
#else
    skip
#endif
}

/* Channel::read_ahead() */
inline read_ahead() {
#ifdef UNWRITTEN_FIRST
    take_unwritten();
#endif
    do
    :: filled >= MESSAGE -> break
    :: else ->
        read_units_once();
#ifndef STORM
        atomic { unread = unread - wake_ups; wake_ups = 0 }
#else
#ifndef READS_FOR_EVER
        reads++;
#endif
#endif
#ifdef READS_ONCE
        wanted = 1;
#endif
        if
        :: wanted > 0 || reads == MOST_READS -> break
        :: else
        fi
    od;
    atomic { wanted = 0; reads = 0 }
#ifndef UNWRITTEN_FIRST
    take_unwritten()
#endif
}

/* Channel::take_message() */
inline take_message() {
    d_step {
        if
#ifdef WAKE_UPS_FIRST
        :: owed_passes == 0 && filled >= MESSAGE ->
#else
        :: filled >= MESSAGE ->
#endif
            signal = read_units[0];
            assert(signal != WAKE_UP && read_units[1] == WAKE_UP);
            filled = filled - MESSAGE;
            read_units[0] = read_units[READ_ROOM - 1];
            read_units[1] = 0;
            read_units[READ_ROOM - 1] = 0;
#ifndef STORM
            sent--;
#endif
        :: else ->
#ifndef STORM
            assert(!signal_waits);
            assert(due > 0);
            due--;
#endif
            owed_passes--
        fi
    }
}

/* Channel::take_signal() */
inline take_signal() {
    signal = 0;
    if
    :: has_message ->
#ifdef CHANNEL_FIRST
        turn = false;
#else
        turn = kept_turn && full_ != 0;
#endif
#ifdef KEPT_FIRST
        turn = full_ != 0;
#endif
        if
        :: turn
        :: else -> take_message()
        fi
    :: else
    fi;
    atomic { kept_turn = signal != 0; turn = false; has_message = false }
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

#ifdef SLEEPS_ALTHOUGH_PASSES_ARE_OWED
#define has_read() (filled >= MESSAGE)
#else
#ifdef SLEEPS_ALTHOUGH_A_SIGNAL_IS_READ
#define has_read() (owed_passes != 0)
#else
#define has_read() (owed_passes != 0 || filled >= MESSAGE)
#endif
#endif
#ifdef STORM
#define select_channel() is_readable = nempty(channel)
#else
#define select_channel() is_readable = nempty(channel); signal_waits = sent > 0
#endif

/* The passes of the main loop. A wait without a timeout ends only with a message. */
active proctype Loop() {
    byte owed_passes, filled, missing;  /* ReadAhead */
    byte read_units[READ_ROOM];         /* WaitingSignals::read_ahead */
    byte last_taken;
    bool kept_turn;
    byte bits, signal, wanted, unit, wake_ups, reads;
    bool is_readable, has_message, turn;
#ifndef STORM
    bool signal_waits;
#endif
    do
    ::
#ifdef NO_LOOK_BEFORE_THE_WAIT
        bits = 0;
#else
        bits = full_;
#endif
#ifndef STORM
        changed = false;
#endif
        if
        :: bits != 0 || has_read() -> atomic { select_channel() }
        :: bits == 0 && !has_read() ->
end:        atomic { nempty(channel) -> select_channel() }
        fi;
        bits = 0;
        if
        :: is_readable -> read_ahead()
        :: else
        fi;
        atomic { is_readable = false; has_message = owed_passes != 0 || filled >= MESSAGE }
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
    assert(state[1] == K_FREE && state[2] == K_FREE && state[3] == K_FREE);
    assert(!changed);
    assert(unwritten == 0);
    assert(due == 0);
    assert(sent == 0);
    assert(unread == 0)
}

init {
    atomic {
#ifdef CHANGES
        run Catcher(1);
        run Waker(2);
        run Waker(2);
        run Waker(1);
#else
        run Catcher(1);
        run Catcher(1);
        run Catcher(2);
        run Catcher(3);
        run Waker(1);
#endif
        run Last()
    }
}

#endif
