// The timer service and the asynchronous calls.
//
// ---- The timer service ----
//
// One-shot software timers with a resolution of a millisecond and no thread of their own: the
// daemon's pump measures how much time has passed, about every 50 ms, and ages all timers by it
// with uTimerRun. Callbacks run on the thread that calls uTimerRun (the service thread), one after
// another in order of expiry, with no lock held; timers that expire at the same time run newest
// first. A callback may use every operation here, uTimerRun included, and delays all later timers
// while it runs.
//
// A timer is named by its id, which is never 0, and lives until it expires or is deleted. Ids are
// given in order; after 4,294,967,295 of them they begin again, and of two timers with one id that
// operations here are meant for the one that expires first. Timers come from a pool of at least
// 300, so arming one allocates nothing, and fails when all are in use; a timer that expired is in
// use until its callback has returned. No operation takes longer because others are armed, but for
// the pool being larger than the caches.
//
// The service creates itself on first use. If there is no memory for its lock, operations fail as
// for an exhausted pool, and the next call tries again; if there is none for the pool, arming
// timers fails for good. A timer of the pool takes some 110 bytes.
//
// Absolute-time timers (uTimerEventAdd) are relative timers that checktimeoutCb sets again when the
// wall clock does not advance the way the pump counts.
//
// Any thread may call any operation. A thread that is deleted or ends in a callback leaves the
// timers that expired together with it, but were not called yet, to the next uTimerRun.
#pragma once

#include "vxw_defs.h"

#include <stdint.h>
#include <sys/time.h>
#include <time.h>

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Creates the service with a larger pool than the default. If it exists already, nothing changes
 * and a line is logged.
 *
 * @param timerTotal  timers that may be armed at a time; below 300 counts as 300
 */
void uTimerInit(int32_t timerTotal);

/**
 * Arms a timer.
 *
 * @param cb       void (*)(void* param), called once; null: the timer expires without a call
 * @param param    argument of cb
 * @param timeout  milliseconds from now, that is, of the time that uTimerRun will count; 0 expires
 *                 in the next uTimerRun
 * @return the timer's id; 0 for a negative timeout, and, logged as an error, when all timers are in
 *         use
 */
uint32_t uTimerAdd(void* cb, void* param, int32_t timeout);

/** uTimerAdd in seconds, up to 2,147,483: the milliseconds are taken modulo 2^32. */
uint32_t uTimerAddSec(void* cb, void* param, int32_t timeout);

/**
 * Deletes a timer; unknown ids and 0 are ignored.
 *
 * A timer that has expired and waits for its callback is not known any more: its callback still
 * runs. So what param points to has to outlive the uTimerRun that is under way, if there is one.
 */
void uTimerDel(uint32_t timerId);

/**
 * Arms a timer anew under its id, with the callback it has.
 *
 * @param expires  milliseconds from now; negative: nothing happens
 *
 * Unknown ids and 0 are ignored. Takes a second timer from the pool for a moment: when all are in
 * use, the timer stays as it was.
 */
void uTimerRefresh(uint32_t timerId, int32_t expires);

/** uTimerRefresh in seconds, up to 2,147,483: the milliseconds are taken modulo 2^32. */
void uTimerRefreshSec(uint32_t timerId, int32_t expires);

/** Milliseconds until a timer expires; 0 for 0 and unknown ids. */
int32_t uTimerRemainGet(uint32_t timerId);

/**
 * Ages all timers and calls back those that expire; the daemon's pump calls this.
 *
 * @param time_gap  milliseconds since the previous call; negative ones push expiries off
 *
 * Timers armed by callbacks wait for the next call, also those with a timeout of 0. A nested call
 * from a callback ages and runs the timers that have not expired yet.
 */
void uTimerRun(int32_t time_gap);

/**
 * Arms a timer for a second of the wall clock.
 *
 * @param cb       as for uTimerAdd
 * @param timeSec  seconds of the epoch, up to 24 days ahead: the distance is taken as for
 *                 uTimerAddSec
 * @return the timer's id, for uTimerDel and the others; 0 if none could be armed (the second has
 *         passed, all timers are in use) or, logged as a warning, without memory
 *
 * What is noted about the timer stays when it fires or is deleted, some 40 bytes each time. A
 * re-synchronisation releases it, see checktimeoutCb; while wall clock and pump agree there is
 * none.
 */
uint32_t uTimerEventAdd(void* cb, void* param, time_t timeSec);

/**
 * Compares the wall clock with the pump's count, and re-synchronises the absolute-time timers when
 * they differ by a tenth of the time or more: each is armed anew for what is left to its second, 0
 * if that has passed. Timers with less than a second left are left alone. The records of those, and
 * of timers that fired or were deleted, are released.
 *
 * @param elapses  milliseconds that the pump counted since the previous call
 *
 * Takes time in proportion to the records. The pump calls this about every 30 s.
 */
void checktimeoutCb(uint32_t elapses);

/**
 * Milliseconds between two readings of the wall clock.
 *
 * If the second lies more than 10 s ahead of the first, or before it, counting whole seconds, the
 * clock was stepped: the layer's uptime is re-based, uTimerCheckSysTimeUpdated is posted to
 * "tAsyncCall", and the result is 50. Shorter steps forward count as time that passed.
 *
 * @param t1  before the pump's sleep
 * @param t2  after it
 */
uint32_t uTimerAdjust(struct timeval t1, struct timeval t2);

/**
 * Raises the event "SYSTEM_TIME_UPDATED" on the calling thread. Its handlers get the number 50 in
 * the place of the parameter pointer, which they must not follow, and a size of 4.
 *
 * @param param  not used
 */
void uTimerCheckSysTimeUpdated(void* param);

// ---- Asynchronous calls ----
//
// Functions posted here run on the task "tAsyncCall", one after another in the order they were
// posted, so whoever may not wait hands work off with uAsyncCall. A function that blocks makes all
// later ones wait; up to 20 may be waiting. The first call starts the service, which lives as long
// as the process. Deleting the task stops all calls for good.

/** Queue of the posted calls; null before the first one, and if it could not be created. */
extern MSG_Q_ID asyncCallMsgQ;

/**
 * Posts a call, without waiting.
 *
 * @param func   int (*)(void*), called once on "tAsyncCall" at some later time, with no lock held;
 *               its result is ignored. May post calls itself.
 * @param param  its argument, which stays the caller's
 * @return OK; or ERROR: for a null function, or if the service could not be started, errno
 *         untouched; otherwise with errno
 *           S_objLib_OBJ_UNAVAILABLE  20 calls are waiting; this one is lost
 *           S_objLib_OBJ_ID_ERROR     somebody deleted the queue
 *
 * Any thread, except one that holds the task lock. The service is started once: if its queue
 * cannot be created, every call fails; if its task cannot, the first 20 are accepted and stay.
 */
status_t uAsyncCall(FUNCPTR func, void* param);

/** Entry of "tAsyncCall": makes the calls for ever. After a failed receive it waits a second. */
int uAsyncCallTaskEntry(void);

#ifdef __cplusplus
}
#endif
