// A lock that its holder keeps for long, over shell commands. Whoever waits for it sleeps on a
// condition, so that a deletion of the waiting task ends the wait.
//
// Not recursive. Taken and given inside one operation.
#pragma once

#include "internal.h"

#include <pthread.h>

typedef struct long_lock {
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER; // guards held
    pthread_cond_t given = PTHREAD_COND_INITIALIZER;
    bool held = false;
} long_lock_t;

/** @return true with the lock held; false, not held, when the caller is to end */
[[nodiscard]] static inline bool long_lock_take(thread_record_t* me, long_lock_t* lock)
{
    pthread_mutex_lock(&lock->mutex);
    while (lock->held && !end_asked(me)) {
        op_wait(me, &lock->given, &lock->mutex, nullptr);
    }
    // A free lock is taken in any case: the wake-up that told of it may have gone to no one else.
    const bool taken = !lock->held;
    lock->held = true;
    pthread_mutex_unlock(&lock->mutex);
    return taken;
}

static inline void long_lock_give(long_lock_t* lock)
{
    pthread_mutex_lock(&lock->mutex);
    lock->held = false;
    pthread_cond_signal(&lock->given);
    pthread_mutex_unlock(&lock->mutex);
}
