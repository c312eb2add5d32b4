// The example net library: what its files share.
//
// A closed library is entered through hnetInit, on the daemon's root task, and calls the daemon by
// the names in the public headers. Each demonstration is one function that sets something going and
// returns; what happens then is reported as it happens, on the thread it happens on.
#pragma once

#include "vxw_defs.h"

#include <signal.h>
#include <stdint.h>

/** Logs a line of the demonstration, with the name of the calling thread as its tag. */
#define SAY(...) __halden_log_print(NXA_LOG_INFO, thread_name().text, __VA_ARGS__)

struct name_t {
    char text[16];
};

/** The calling thread's name, as the system shows it. */
name_t thread_name(void);

/** Microseconds of the monotonic clock. */
int64_t now_us(void);

/** Time-outs and delays of the layer are ticks, at a rate that a library may change. */
int ticks(int ms);

/** Starts a task. One that is to stay calls taskNeedCheck first, and is missed if it ends. */
taskId_t start_task(char* name, int (*entry)(int));

/**
 * Keeps the calling task from being ended, while it holds a lock of the C library or of its own.
 * Operations of the daemon do this for themselves; a library does it around code of its own that
 * must not be left half done, if its tasks may be deleted there.
 *
 * @return what let_deletion_in takes back
 */
sigset_t hold_deletion(void);
void let_deletion_in(const sigset_t& before);

/** What the summary reports; every field is atomic, through count and counted. */
struct totals_t {
    int64_t timers; // software timers that fired, and the sum and the most of their lateness
    int64_t late_us;
    int64_t most_late_us; // written by timer callbacks only, which run one after another
    int64_t watchdogs;    // routines that ran
    int64_t sent;         // messages
    int64_t received;
};
extern totals_t totals;

/** Adds to a total. @return what it is then */
static inline int64_t count(int64_t* total, int64_t n)
{
    return __atomic_add_fetch(total, n, __ATOMIC_RELAXED);
}

static inline int64_t counted(const int64_t* total)
{
    return __atomic_load_n(total, __ATOMIC_RELAXED);
}

// The demonstrations, in the order in which hnetInit starts them.
void demo_timers(void);
void demo_wall_clock(void);
void demo_watchdog(void);
void demo_events(void);
void demo_async_calls(void);
void demo_queue(void);
void demo_deletion(void);
void demo_summary(void);
void demo_net(void);
void demo_inspect(void);
