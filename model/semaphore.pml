// The count of a semaphore and those that wait for it, as platform/osa/linux/src/lsemLib.cpp has
// them, through every order of the steps of a few threads. The scenes:
//
//   TASK         a task is deleted, and then somebody gives; it may be struck between any two steps
//   FLUSH        those that wait are flushed
//   OWNER        a taker deletes the semaphore once it has its token
//
// and what is left out of them to see them go wrong:
//
//   NO_MARK      a sleeper leaves 0 behind, and not MAY_SLEEP
//   NO_RECOUNT   a waiter that leaves does not put MAY_SLEEP back for the others
//   NO_PASS_ON   a waiter that leaves wakes nobody for the tokens that are left
//   NO_DEPTH     a task can be ended in the middle of an operation
//   EARLY_LOOK   a taker looks for its own deletion before it has the word
//   UNCOUNTED    a thread that has yet to wake others is no user of the record
//
// holds: TASK
// holds: FLUSH
// holds: OWNER
// fails: FLUSH NO_MARK
// fails: FLUSH NO_RECOUNT
// fails: FLUSH NO_PASS_ON
// fails: TASK NO_DEPTH
// fails: TASK EARLY_LOOK
// fails: OWNER UNCOUNTED
//
// The model is sequentially consistent. What the code touches outside sem_lock are tokens,
// token_count, pending and the mark of semDelete; their memory orders are explained there.

#define MAY_SLEEP (-1)
#define BUSY      (-2)
#define TAKERS    3
#define VICTIM    1 // the only task; the others are threads that nobody can delete

// The record.
short tokens = 0;
short token_count = 0;
bool sem_lock = false;
byte waiters = 0;
byte users = 1;
byte generation = 0; // of flushes
bool deleted = false;
bool freed = false;

// What the C library knows of sem_send, and what op_wait tells a deleter.
bool asleep[TAKERS];
bool published[TAKERS];

// The victim.
byte depth = 0;
bool pending = false;
bool signalled = false; // SIGUSR1 is on its way
bool struck = false;    // it is here, or an operation ended with the mark set
bool returned = false;  // taskDelete has

// For the assertions.
byte given = 0;
byte taken = 0;
byte came_in[TAKERS]; // generation at the begin of the wait
bool arrived[TAKERS]; // under sem_lock, or beyond

#define touch assert(!freed)

inline lock()
{
    atomic { !sem_lock -> touch; sem_lock = true }
}

inline unlock()
{
    atomic { touch; sem_lock = false }
}

inline enter(me)
{
#ifdef NO_DEPTH
    skip
#else
    if
    :: me == VICTIM -> depth++
    :: else
    fi
#endif
}

inline leave(me)
{
#ifdef NO_DEPTH
    skip
#else
    if
    :: me == VICTIM -> atomic { depth--; struck = struck || (depth == 0 && pending) }
    :: else
    fi
#endif
}

inline look(me)
{
    to_end = (me == VICTIM && pending)
}

// What a thread does once it has the word is one step up to the store: until then nobody else can
// tell when it took the word out.
inline take_one(me, sleeper)
{
#ifdef EARLY_LOOK
    look(me);
#endif
    atomic {
        tokens != BUSY -> touch;
#ifndef EARLY_LOOK
        look(me);
#endif
        count = tokens;
        tokens = BUSY;
        got = count > 0 && !to_end;
        to_end = false;
        assert(!got || me != VICTIM || !returned);
        taken = taken + got;
        count = count - got;
#ifndef NO_MARK
        count = (sleeper && !got && count == 0 -> MAY_SLEEP : count)
#endif
    };
    put_count()
}

inline give_one(locked)
{
    atomic {
        tokens != BUSY -> touch;
        count = tokens;
        tokens = BUSY;
        met = (count == MAY_SLEEP);
        count = (!met -> count + 1 : (locked -> 1 : MAY_SLEEP))
    };
    put_count()
}

inline put_count()
{
    atomic { touch; tokens = count; token_count = (tokens > 0 -> tokens : 0); count = 0 }
}

// Wakes at least one of those that sleep: which, nobody says.
inline signal()
{
    atomic {
        touch;
        if
        :: asleep[0] -> asleep[0] = false
        :: asleep[1] -> asleep[1] = false
        :: asleep[2] -> asleep[2] = false
        :: else
        fi
    }
}

inline broadcast()
{
    touch;
    asleep[0] = false;
    asleep[1] = false;
    asleep[2] = false
}

inline count_waker()
{
#ifdef UNCOUNTED
    skip
#else
    users++
#endif
}

inline drop_waker()
{
#ifdef UNCOUNTED
    skip
#else
    lock();
    drop_and_unlock()
#endif
}

inline drop_and_unlock()
{
    atomic { touch; users--; sem_lock = false; freed = (users == 0) }
}

inline give()
{
    atomic { given++; wake = false };
    give_one(false);
    if
    :: met ->
        lock();
        give_one(true);
        atomic { wake = met && waiters > 0; met = false };
        if
        :: wake -> count_waker(); unlock(); signal(); drop_waker(); wake = false
        :: else -> unlock()
        fi
    :: else // and never touches the record again
    fi
}

inline op_wait(me, timed)
{
    published[me] = true;
    look(me);
    if
    :: to_end
    :: else ->
        atomic { touch; asleep[me] = true; sem_lock = false };
        if
        :: !asleep[me]
        :: timed -> asleep[me] = false
        fi;
        lock()
    fi;
    published[me] = false
}

inline wait_for_token(me, timed)
{
    do
    :: true ->
        look(me);
        if
        :: to_end || deleted || generation != came_in[me] -> break
        :: else -> take_one(me, true)
        fi;
        if
        :: got -> break
        :: !got && timed -> break // it is past the deadline
        :: !got -> op_wait(me, timed)
        fi
    od
}

inline pass_on()
{
    atomic {
        tokens != BUSY -> touch;
        count = tokens;
        tokens = BUSY;
        wake = (count > 0 && waiters > 0);
#ifdef NO_PASS_ON
        wake = false;
#endif
#ifdef NO_RECOUNT
        count = (waiters == 0 && count == MAY_SLEEP -> 0 : count)
#else
        count = (count > 0 -> count : (waiters > 0 -> MAY_SLEEP : 0))
#endif
    };
    put_count()
}

inline take_waiting(me, timed)
{
    lock();
    arrived[me] = true;
    if
    :: deleted -> unlock()
    :: else ->
        atomic { users++; waiters++; came_in[me] = generation };
        wait_for_token(me, timed);
        atomic { waiters--; look(me) };
        if
        :: got && to_end ->
            atomic { taken--; got = false };
            give_one(true);
            met = false
        :: else
        fi;
        to_end = false;
        pass_on();
        if
        :: wake -> unlock(); signal(); lock(); wake = false
        :: else
        fi;
        drop_and_unlock()
    fi
}

inline take(me, timed)
{
    enter(me);
    take_one(me, false);
    if
    :: got
    :: else -> take_waiting(me, timed)
    fi;
    leave(me)
}

inline poll(me)
{
    if
    :: tokens == 0 || tokens == MAY_SLEEP // looked at outside of any operation
    :: else -> enter(me); take_one(me, false); leave(me)
    fi
}

proctype Waiter(byte me)
{
    short count;
    bool to_end, got, met, wake;

    take(me, false);
    arrived[me] = true
}

proctype Taker(byte me)
{
    short count;
    bool to_end, got, met, wake;

    {
        if
        :: true -> take(me, false)
        :: true -> take(me, true)
        :: true -> poll(me)
        fi
    } unless {
        me == VICTIM && struck && depth == 0
    }
    arrived[me] = true
}

proctype Poller(byte me)
{
    short count;
    bool to_end, got;

    poll(me)
}

proctype Giver(byte gives)
{
    short count;
    bool met, wake;

    do
    :: gives > 0 -> give(); gives--
    :: else -> break
    od
}

#ifdef TASK

// The try of the lock fails while the victim is about to sleep.
proctype Deleter()
{
    short count;
    bool met, wake;

    pending = true;
    signalled = true;
    if
    :: !published[VICTIM]
    :: atomic { published[VICTIM] && !sem_lock -> broadcast() };
    fi;
    returned = true;
    give()
}

proctype Signal()
{
    signalled -> struck = true
}

#endif

#ifdef FLUSH

proctype Flusher()
{
    lock();
    atomic { generation++; count_waker() };
    unlock();
    atomic { broadcast() };
    drop_waker()
}

#endif

#ifdef OWNER

// Whoever has the id in hand has the tick to get to the semaphore; a give that was made needs none.
proctype Owner(byte me)
{
    short count;
    bool to_end, got, met, wake;

    take(me, false);
    lock();
    atomic { deleted = true; count_waker() };
    unlock();
    atomic { broadcast() };
    drop_waker();
    arrived[0] && arrived[VICTIM];
    lock();
    drop_and_unlock()
}

#endif

init
{
    atomic {
        run Waiter(0);
        run Taker(VICTIM);
#ifdef TASK
        run Poller(2);
        run Giver(1);
        run Deleter();
        run Signal()
#endif
#ifdef FLUSH
        run Poller(2);
        run Giver(2);
        run Flusher()
#endif
#ifdef OWNER
        run Owner(2);
        run Giver(1)
#endif
    }
    timeout;
#ifdef OWNER
    assert(!deleted || (freed && waiters == 0));
#else
    assert(!asleep[VICTIM] || !pending);
#endif
    assert(freed || (tokens != BUSY && !sem_lock));
    assert(token_count == (tokens > 0 -> tokens : 0));
    assert(given == taken + token_count);
    assert(freed || (waiters == asleep[0] + asleep[1] + asleep[2] && users == 1 + waiters));
    assert(waiters == 0 || tokens == MAY_SLEEP); // nothing for them, and the next give sees them
    assert(!asleep[0] || came_in[0] == generation);
    assert(!asleep[1] || came_in[1] == generation);
    assert(!asleep[2] || came_in[2] == generation)
}
