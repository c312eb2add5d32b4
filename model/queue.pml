// Calls: how a message wakes one of those that wait for it, as platform/osa/linux/src/lmsgQLib.cpp
// does it, through every order of the steps of a few threads. Senders that wait for space do the
// same at the other end. scripts/model makes these runs:
//
// holds: SENDERS
// holds: TASK
// holds: DELETION
// holds: REUSE
//
// and these, with one thing left out or done at the wrong time, which has to go wrong:
//
// fails: TASK NO_PASS_ON
// fails: TASK LEFT_CALL
// fails: TASK EARLY_LOOK
// fails: SENDERS UNPOSTED
// fails: SENDERS UNANSWERED
// fails: SENDERS SIGNAL_FIRST
// fails: DELETION UNLOCKED
// fails: REUSE FORGOTTEN
//
//   NO_PASS_ON    who leaves because it is to end does not look who is owed a call
//   LEFT_CALL     who is to end leaves a call where it is
//   EARLY_LOOK    a receiver looks for its own deletion before it has the guard
//   UNPOSTED      a call is a signal, and nothing tells those who are not asleep yet
//   UNANSWERED    a call that found no message counts as under way for good
//   SIGNAL_FIRST  the signal comes before the post
//   UNLOCKED      the deleter wakes all without the lock that they sleep with
//   FORGOTTEN     a new queue in the record does not count the calls that are under way
//
// Nobody sleeps under the guard and no thread ends there, so what is done under it is one step.
// Three receivers want a message each; the last gives up at its deadline, which may come at any
// time, and with TASK another is a task that is deleted, perhaps before the only message is sent.

#define RECEIVERS 3
#define VICTIM    1 // a process's number, as is that of the one with a deadline
#define IN_TIME   2
#ifdef TASK
#define MESSAGES 1
#else
#define MESSAGES 2
#endif

// The record. Under the guard:
byte messages = 0;
byte waiting = 0;
short called = 0;
bool marked = false; // and looked at without it
bool ring = true;

// Under queue_lock:
bool queue_lock = false;
byte calls = 0;

bool asleep[RECEIVERS];
bool published = false; // the victim's wait
bool pending = false;   // the victim is to end
bool returned = false;  // and taskDelete has returned

inline lock()
{
    atomic { !queue_lock -> queue_lock = true }
}

inline unlock()
{
    queue_lock = false
}

// Which one, nobody says.
inline wake_one()
{
    atomic {
        if
        :: asleep[0] -> asleep[0] = false
        :: asleep[1] -> asleep[1] = false
        :: asleep[2] -> asleep[2] = false
        :: else
        fi
    }
}

inline wake_all()
{
    d_step { asleep[0] = false; asleep[1] = false; asleep[2] = false }
}

// The last step under the guard.
inline owe()
{
    owed = (called < waiting && called < messages);
    called = called + owed
}

inline tell()
{
    if
    :: owed ->
#ifdef SIGNAL_FIRST
        wake_one();
#endif
        lock();
#ifndef UNPOSTED
        calls++;
#endif
        unlock();
#ifndef SIGNAL_FIRST
        wake_one();
#endif
        owed = false
    :: else
    fi
}

inline send()
{
    atomic {
        if
        :: ring -> messages++; owe()
        :: else
        fi
    };
    tell()
}

inline look()
{
    to_end = (_pid == VICTIM && pending)
}

inline take()
{
    assert(ring && !(_pid == VICTIM && returned));
    messages--;
    left = true
}

inline op_wait()
{
    published = published || _pid == VICTIM;
    if
    :: _pid == VICTIM && pending
    :: else ->
        atomic { asleep[_pid] = true; queue_lock = false };
        if
        :: !asleep[_pid]
        :: _pid == IN_TIME -> atomic { asleep[_pid] = false; late = true }
        fi;
        lock()
    fi;
    published = published && _pid != VICTIM
}

inline sleep_until_called()
{
    lock();
    do
    :: calls > 0 || marked || late || (_pid == VICTIM && pending) -> break
    :: else -> op_wait()
    od;
#ifdef LEFT_CALL
    look();
#endif
    atomic { had = (calls > 0 && !to_end); calls = calls - had; queue_lock = false }
}

active [RECEIVERS] proctype Receiver()
{
    bool to_end, owed, had, late, left;

#ifdef EARLY_LOOK
    look();
#endif
    atomic {
#ifndef EARLY_LOOK
        look();
#endif
        if
        :: to_end || marked || !ring -> left = true
        :: else ->
            if
            :: messages > 0 -> take()
            :: else -> waiting++
            fi;
            owe()
        fi
    };
    tell();
    do
    :: left -> break
    :: else ->
        sleep_until_called();
        atomic {
#ifndef UNANSWERED
            called = called - had;
#endif
            look();
            if
            :: marked || to_end -> left = true
            :: else ->
                if
                :: messages > 0 -> take()
                :: else -> left = late
                fi
            fi;
            waiting = waiting - left;
#ifdef NO_PASS_ON
            if
            :: to_end
            :: else -> owe()
            fi
#else
            owe()
#endif
        };
        tell()
    od
}

active [MESSAGES] proctype Sender()
{
    bool owed;

    send()
}

#ifdef TASK

// The try of the lock fails while the victim is about to sleep.
active proctype TaskDeleter()
{
    pending = true;
    if
    :: !published
    :: atomic { published && !queue_lock -> wake_all() }
    fi;
    returned = true
}

#endif

#if defined(DELETION) || defined(REUSE)

// With REUSE, another queue has the record at once.
active proctype Deleter()
{
    bool owed;

    marked = true;
#ifdef UNLOCKED
    wake_all();
#else
    lock();
    wake_all();
    unlock();
#endif
    atomic { waiting == 0 -> ring = false; messages = 0 };
#ifdef REUSE
    atomic {
        marked = false;
#ifdef FORGOTTEN
        called = 0;
#endif
        ring = true
    };
    send()
#endif
}

#endif

// When nobody can do anything any more: no message lies there for one who waits, every call was
// answered or is posted for the next who comes, and a deletion has come to its end.
active proctype Rest()
{
    timeout;
    assert(messages == 0 || waiting == 0);
    assert(called == calls);
#ifdef DELETION
    assert(!ring)
#endif
}
