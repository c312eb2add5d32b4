// The lock of one word, as platform/osa/linux/include/lockWord.h has it, on a machine whose stores
// get to memory late. scripts/model makes these runs:
//
// holds: WEAK NAP
// holds: STRONG
//
// and these, with one thing left out or done at the wrong time, which has to go wrong:
//
// fails: WEAK
// fails: WEAK NAP OVERTAKEN
// fails: STRONG UNLOCKED
//
//   WEAK         a store waits in its thread while later loads go on, also past the exchange that
//                takes the word; it is in memory before a mutex is let go, and what stands before
//                a give is in memory before the give is
//   STRONG       every store is in memory at once: nobody is missed, so nobody needs the nap
//   NAP          who sleeps looks again after a while, here when nothing else can go on any more
//   OVERTAKEN    the give is in memory before what was done under the word: store_relaxed
//   UNLOCKED     the wake-up does not take the mutex that the sleepers sleep with

#define THREADS 3

// Memory.
bool held = false;
byte sleepers = 0;
byte sections = 0; // done under the word

// What has yet to get there. The writers of sleepers hold the mutex, so one place is enough.
bool late_give[THREADS];
bool late_section[THREADS];
byte late_sleepers = 0;
byte section[THREADS];

bool mutex = false;
bool asleep[THREADS];
byte done = 0;

inline lock()
{
    atomic { !mutex -> mutex = true }
}

#define ALL_STORED (late_sleepers == sleepers && !late_give[me] && !late_section[me])

inline unlock()
{
    atomic { ALL_STORED -> mutex = false }
}

inline try()
{
    atomic { free = !held; held = true }
}

inline count(change)
{
    atomic {
        late_sleepers = late_sleepers + change;
#ifdef STRONG
        sleepers = late_sleepers
#endif
    }
}

// A sleep that ends by itself costs one nap and no more: the word is free then.
inline nap()
{
    atomic { ALL_STORED -> asleep[me] = true; mutex = false };
    if
    :: !asleep[me]
#ifdef NAP
    :: atomic { timeout -> assert(asleep[me] && !held); asleep[me] = false }
#endif
    fi;
    lock()
}

inline wake()
{
#ifndef UNLOCKED
    lock();
#endif
    atomic {
        if
        :: asleep[0] -> asleep[0] = false
        :: asleep[1] -> asleep[1] = false
        :: asleep[2] -> asleep[2] = false
        :: else
        fi
    };
#ifndef UNLOCKED
    unlock()
#endif
}

active [THREADS] proctype Thread()
{
    bool free;
    byte me = _pid;

    try();
    if
    :: free
    :: else ->
        lock();
        count(1);
        try();
        do
        :: free -> break
        :: else -> nap(); try()
        od;
        count(-1);
        unlock()
    fi;
#ifdef STRONG
    sections++;
    held = false;
#else
    atomic { section[me] = sections + 1; late_section[me] = true };
    late_give[me] = true;
#endif
    if
    :: sleepers > 0 -> wake()
    :: else
    fi;
    done++
}

#ifdef WEAK

inline section_stored(who)
{
    atomic { late_section[who] -> sections = section[who]; late_section[who] = false }
}

inline give_stored(who)
{
    atomic {
#ifdef OVERTAKEN
        late_give[who] ->
#else
        late_give[who] && !late_section[who] ->
#endif
        held = false;
        late_give[who] = false
    }
}

active proctype Memory()
{
    do
    :: atomic { late_sleepers != sleepers -> sleepers = late_sleepers }
    :: section_stored(0)
    :: section_stored(1)
    :: section_stored(2)
    :: give_stored(0)
    :: give_stored(1)
    :: give_stored(2)
    od
}

#endif

// When nobody can do anything any more.
active proctype Rest()
{
#ifdef NAP
    timeout && !(asleep[0] || asleep[1] || asleep[2]);
#else
    timeout;
#endif
    assert(done == THREADS && sections == THREADS && sleepers == 0 && !held)
}
