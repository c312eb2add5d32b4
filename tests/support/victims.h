// Tasks that are deleted at random instants, by kinds: what they do over and over until then, from
// waiting in every operation to being inside the C library. With them others that are not deleted
// and talk beside them. Without a test library, for the soak library has them as well.
#pragma once

#include "histogram.h"
#include "osaMsg.h"
#include "osaSem.h"
#include "ulist.h"

#include <atomic>
#include <random>
#include <time.h>

/**
 * What its deleter holds until after the deletion. C_CALLS: it calls the C library itself. OWNS: it
 * has memory of its own, which is lost with it.
 */
enum : unsigned { TASK_LOCK = 1, MUTEX = 2, RESTARTS = 4, C_CALLS = 8, OWNS = 16 };

struct victim_kind {
    const char* name;
    unsigned flags;
    void (*step)();
};

extern const victim_kind victim_kinds[];
extern const int VICTIM_KINDS;

/** When one ended: unless before it began, at once, on its way out of an operation, or out of C's.
 */
enum victim_end { BEFORE, AT_ONCE, OPERATION, C_LIBRARY, ENDS };

struct victim_figures {
    std::atomic<long> steps; // taken
    std::atomic<long> ends[ENDS];
    histogram
        took; // from the call to the end of the thread; not of those deleted before they began
};

/** By kind; the last one is of bare threads, ended by a bare signal while they compute. */
extern victim_figures* const victim_results;

/** What they share. The semaphores and queues have no other users. */
struct victims_shared {
    SEM_ID empty_sem, busy_sem, held_mutex, job_done;
    MSG_Q_ID empty_queue, full_queue, busy_queue, others_queue;
    ulist_t* list;
    FILE* file;
};
extern victims_shared shared;
extern char victim_event[];
int32_t victim_event_seen(char*, void*, int32_t*, size_t);
void victim_timer_due(void*);

/** Makes what they share, once. */
void victims_prepare();

/**
 * Spawns one and deletes it, sometimes before it begins; or does the same with a bare thread.
 *
 * @param kind      0 to VICTIM_KINDS; VICTIM_KINDS: a bare thread
 * @param deleter   number of the calling thread, below 8
 * @param pause_us  the longest time it has
 * @return false if it did not end within a minute
 */
bool victim_delete(int kind, int deleter, std::minstd_rand& random, int pause_us);

/** Deletes those that lost their deleter. @return whether there were any */
bool victims_left();

/** The calling thread, if it is one that began, ends so at the earliest. */
void victim_ends(victim_end when);

/** A task sends numbers to another; two take turns with a token. */
void others_start();

/** Ends them. @return what went wrong, or null */
const char* others_stop();

/** Calls what has a lock in the C library. Hangs if one is held. */
void c_library_use();

/** Prints a line for each kind: when they ended, or how often they did what they do. */
void victims_report(FILE* out, bool ends_known);
