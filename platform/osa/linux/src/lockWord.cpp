// The lock of one word: its sleepers. The idea and the rules are in lockWord.h.
//
// Locks: the mutex that the caller names, innermost.
#include "lockWord.h"

#include <time.h>

void lock_word_init(lock_word_t* word)
{
    pthread_condattr_t attr;

    pthread_condattr_init(&attr);
    pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
    pthread_cond_init(&word->given, &attr);
    pthread_condattr_destroy(&attr);
}

static void nap(lock_word_t* word, pthread_mutex_t* mutex)
{
    struct timespec end = {}; // without the clock, no nap but another try

    clock_gettime(CLOCK_MONOTONIC, &end);
    end.tv_nsec += LOCK_WORD_NAP_MS * 1'000'000L;
    if (end.tv_nsec >= 1'000'000'000) {
        end.tv_sec++;
        end.tv_nsec -= 1'000'000'000;
    }
    pthread_cond_timedwait(&word->given, mutex, &end);
}

void lock_word_wait(lock_word_t* word, pthread_mutex_t* mutex)
{
    pthread_mutex_lock(mutex);
    store_relaxed(&word->sleepers, word->sleepers + 1);
    while (!lock_word_try(word)) {
        nap(word, mutex);
    }
    store_relaxed(&word->sleepers, word->sleepers - 1);
    pthread_mutex_unlock(mutex);
}

void lock_word_wake(lock_word_t* word, pthread_mutex_t* mutex)
{
    pthread_mutex_lock(mutex);
    pthread_cond_signal(&word->given);
    pthread_mutex_unlock(mutex);
}
