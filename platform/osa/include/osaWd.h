// Watchdogs: one-shot timers whose routines run on the exception task.
//
// Delays count watchdog ticks of 10 ms, whatever the clock rate of the layer is. The exception
// task makes one tick every 10 ms of the monotonic clock on average; after a late wake-up it makes
// the missed ones up without sleeping, so a watchdog may fire late but no tick is lost.
//
// A routine is an int function of one argument, its result ignored. Routines run one after another
// on the exception task, with no lock of this module held: a routine may start, cancel or delete
// any watchdog, its own included, and one that takes long makes every later tick late. A task that
// is deleted ends its routine with it; "tExcTask" itself deleted stops all watchdogs for good.
//
// An id is an address and is not verified, apart from null. Any thread may start, cancel and
// delete, and none of these waits for a routine: one that has been taken out for its call still
// runs after wdCancel returns. Whoever deletes a watchdog makes sure that nobody else still starts,
// cancels or deletes it; a task deleted between wdCreate and keeping the id loses the watchdog.
#pragma once

#include "v2lpthread.h"

#include <stdio.h>
#include <sys/time.h>

#ifdef __cplusplus
extern "C" {
#endif

/** A watchdog, idle. @return the watchdog, for wdDelete to release; null without memory */
WDOG_ID wdCreate(void);

/**
 * Starts a watchdog, or starts it anew if it is running: its routine is called once, delay ticks
 * from now.
 *
 * Of watchdogs due at the same tick the one started last is called first. A routine that starts
 * its own watchdog with delay 1 is called again at the next tick.
 *
 * @param delay  ticks of 10 ms; 0 and negative numbers mean 1, the next tick
 * @param f      routine; with null the watchdog expires without a call
 * @param parm   handed to the routine, owned by the caller
 * @return OK; ERROR for a null id, errno untouched
 */
status_t wdStart(WDOG_ID wdIdPtr, int delay, FUNCPTR f, addr_t parm);

/**
 * Stops a watchdog, which stays usable. The others keep their times. An idle one is left idle.
 *
 * @return OK, or ERROR with errno S_objLib_OBJ_ID_ERROR for a null id
 */
status_t wdCancel(WDOG_ID wdIdPtr);

/**
 * Stops a watchdog and releases it. Its own routine may do so.
 *
 * @return OK, or ERROR with errno S_objLib_OBJ_ID_ERROR for a null id
 */
status_t wdDelete(WDOG_ID wdIdPtr);

/**
 * Writes a line for each running watchdog, in the order they fall due: routine, ticks after the
 * one before it, parameter.
 *
 * @param out  written to after the list was copied, so a stream that blocks holds up nobody but
 *             the caller. Without memory for a copy of more than 32 watchdogs they are copied and
 *             written 32 at a time, and those that start or end meanwhile may be missed or written
 *             twice.
 * @return lines written; 0 for a null stream
 */
int wdogShow(FILE* out);

/**
 * One watchdog tick: counts the first watchdog down and calls the routines of all that are due.
 * For the exception task; two ticks at the same time are safe but run routines side by side.
 */
void process_wdog(void);

/** Entry of "tExcTask": ticks for ever. The arguments are ignored. @return never */
int exception_task(int dummy0, int dummy1, int dummy2, int dummy3, int dummy4, int dummy5,
                   int dummy6, int dummy7, int dummy8, int dummy9);

/**
 * Microseconds from one wall-clock reading to the next, as the exception task counts them when it
 * has no monotonic clock.
 *
 * @return the difference; 0 when the clock went back, 50 when it went more than 1000 s ahead
 */
unsigned long wdAdjust(struct timeval t1, struct timeval t2);

/**
 * Has the exception task start a task's thread afresh at the next tick: the task's entry runs from
 * its beginning, on a new thread with a new id, on the same control block. Any number of restarts
 * may be pending. Without memory nothing happens.
 *
 * The caller sees to it that the task's thread ends. It may end before the tick, by pthread_exit:
 * the task keeps its block until then, and has an id that is no thread's, under which it can be
 * found and deleted. A task that is deleted, or whose entry returns, is gone and not restarted.
 *
 * @param restart_task  the caller's own block; or that of another live task, with task_list_lock
 *                      held to keep it. Null: nothing happens
 */
void selfRestart(task_t* restart_task);

/**
 * Starts a task's thread afresh at once, on the calling thread. An id that names no task, and a
 * thread that cannot be created, leave everything as it was.
 *
 * @param taskid  the task; 0 is the caller
 */
void self_starter(taskId_t taskid);

#ifdef __cplusplus
}
#endif
