// Where a task that is told to end may end: not while a function of the C library that may hold a
// lock of the library (malloc, stdio, the time zone, the environment, the resolver) is under way in
// it. Such a lock would stay locked for the whole process.
#pragma once

#include "internal.h"

typedef enum {
    OUTSIDE_C_LIBRARY,
    INSIDE_C_LIBRARY, // in a call of the program that may hold a lock of it
    UNSEEN_PLACE,     // the stack cannot be followed, so nothing is known
} place_t;

/**
 * Where the calling task is: the function that called this one, or in a signal handler what the
 * signal interrupted, with all its callers. Changes nothing, allocates nothing and takes no lock.
 *
 * @return OUTSIDE_C_LIBRARY for a thread that is no task, and wherever KNOWS_C_LIBRARY is false
 */
place_t place_of(const thread_record_t* me);

/**
 * Has SIGUSR1 sent to the calling task again in a moment, for its end was put off; called from the
 * handler of that signal, or at a depth above 0. Where the system has no timer left the task ends
 * on its way out of its next operation instead.
 */
void end_again_soon(thread_record_t* me);

/** Stops what end_again_soon started, if it did. Once, when the end of the thread has begun. */
void end_not_again(thread_record_t* me);
