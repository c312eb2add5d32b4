// A lock of one word, for short sections that threads seldom meet in: one atomic operation takes
// it and a plain store gives it, where a mutex needs two atomic operations.
//
// Whoever finds it held sleeps with a mutex that the caller names, normally one that the record has
// anyway. A give stores first and looks for sleepers then; the two may trade places on their way to
// memory, so that a sleeper which counts itself in that very instant is missed. Sleepers therefore
// look again after LOCK_WORD_NAP_MS: a miss costs that much, where a fence in each give would cost
// as much as the lock. model/lockword.pml takes this through every order of events, with stores
// that come late.
//
// Not recursive. Taken inside an operation only (depth above 0), so no thread ends holding it. A
// section is some dozen instructions and waits for nothing. The give touches the word after others
// may have it, so its memory outlives every give that has begun.
#pragma once

#include "internal.h"

#include <pthread.h>

static constexpr int LOCK_WORD_NAP_MS = 1;

/** Makes a word in memory that is all zero. */
void lock_word_init(lock_word_t* word);

/** Takes a word that was found held. */
void lock_word_wait(lock_word_t* word, pthread_mutex_t* mutex);

/** Wakes one thread that sleeps. */
void lock_word_wake(lock_word_t* word, pthread_mutex_t* mutex);

/**
 * Acquire meets the release of the give before: all that was done under the word is seen.
 *
 * @return whether the word was free, and is the caller's now
 */
[[nodiscard]] static inline bool lock_word_try(lock_word_t* word)
{
    return exchange_acquire(&word->held, 1) == 0;
}

static inline void lock_word_take(lock_word_t* word, pthread_mutex_t* mutex)
{
    if (__builtin_expect(!lock_word_try(word), 0)) {
        lock_word_wait(word, mutex);
    }
}

static inline void lock_word_give(lock_word_t* word, pthread_mutex_t* mutex)
{
    store_release(&word->held, 0);
    if (__builtin_expect(load_relaxed(&word->sleepers) > 0, 0)) {
        lock_word_wake(word, mutex);
    }
}
