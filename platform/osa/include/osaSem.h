// Semaphores: binary, counting and mutual exclusion.
//
// A binary and a counting semaphore differ only in how their first count is formed; neither caps
// it. A token wakes one of those that wait, and the first to run takes it: there is no order among
// them. A mutex-kind semaphore is a recursive POSIX mutex with its owner and nesting.
//
// Options are accepted and ignored. Time-outs are ticks of msPerTick milliseconds: WAIT_FOREVER,
// NO_WAIT, or a positive number of any size. A wait ends at an instant of the wall clock, so
// stepping the clock moves it: a step back makes a wait longer, a step forward ends it. Negative
// numbers other than WAIT_FOREVER have passed already. A token, a flush or a deletion that comes
// together with the deadline wins.
//
// An id is an address and is not verified, apart from null: S_objLib_OBJ_ID_ERROR.
//
// Any thread may call any operation. A task deleted while it waits leaves the semaphore as if it
// had never come, and never holds it afterwards. What is given once taskDelete has returned never
// goes to the deleted task. One that already holds a mutex-kind semaphore takes it with it, locked.
#pragma once

#include "v2lpthread.h"

#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif

/**
 * A binary semaphore: one token for any initial state but SEM_EMPTY.
 *
 * @param opt  not used
 * @return the semaphore, for semDelete to release; null without memory
 */
SEM_ID semBCreate(int opt, SEM_B_STATE initial_state);

/**
 * A counting semaphore.
 *
 * @param opt            not used
 * @param initial_count  tokens, 0 or more
 * @return the semaphore, for semDelete to release; null without memory, and for a negative count
 *         (errno untouched)
 */
SEM_ID semCCreate(int opt, int initial_count);

/**
 * A mutual-exclusion semaphore, free.
 *
 * @param opt  not used
 * @return the semaphore, for semDelete to release; null without memory
 */
SEM_ID semMCreate(int opt);

/**
 * Takes a token, waiting for one if there is none.
 *
 * The mutex kind ignores max_wait and waits as long as it takes; its holder may take it again and
 * gives it as often.
 *
 * @param max_wait  ticks; with NO_WAIT, and when a token is there, no clock is read
 * @return OK, or ERROR with errno
 *           S_objLib_OBJ_ID_ERROR     null id
 *           S_objLib_OBJ_UNAVAILABLE  no token, and max_wait was NO_WAIT
 *           S_objLib_OBJ_TIMEOUT      no token until the deadline
 *         A waiter that is flushed, or whose semaphore is deleted, gets OK without a token.
 */
status_t semTake(SEM_ID semaphorePtr, int max_wait);

/**
 * Puts a token back and wakes a waiter, if any. A count of INT_MAX stays. A mutex-kind semaphore
 * opens only under its owner; for anybody else nothing happens, with the same result.
 *
 * @return OK, or ERROR with errno S_objLib_OBJ_ID_ERROR for a null id
 */
status_t semGive(SEM_ID semaphorePtr);

/**
 * Releases the tasks that wait at this moment, without tokens; later takes are not affected.
 *
 * @return OK, or ERROR with errno
 *           S_objLib_OBJ_ID_ERROR       null id
 *           S_semLib_INVALID_OPERATION  mutex kind; one level of the caller's hold was given back
 */
status_t semFlush(SEM_ID semaphorePtr);

/**
 * Deletes a semaphore. Waiters of the binary and counting kinds return OK without a token; the
 * record is freed when the last of them has left. Takes the task lock and pauses for one tick.
 *
 * The caller makes sure that nobody uses the id afterwards, and that nobody but itself holds or
 * waits for a mutex-kind semaphore. A give or take that another thread has begun has the tick to
 * get to the semaphore; it passes in full, even if the deleting task is itself deleted meanwhile.
 *
 * @return OK, or ERROR with errno S_objLib_OBJ_ID_ERROR for a null id, and for a semaphore that
 *         another task is deleting at this moment
 */
status_t semDelete(SEM_ID semaphorePtr);

/** Writes nothing. */
void semShow(v2lsem_t* s, FILE* out, int mem);

/** Writes nothing. @return 0 */
int semList(FILE* out, int mem);

#ifdef __cplusplus
}
#endif
