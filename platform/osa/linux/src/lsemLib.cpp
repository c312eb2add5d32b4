// Semaphores: the count in one atomic word, a mutex with a condition for those that wait, and the
// recursive mutex of the mutual-exclusion kind.
//
// Whoever changes the count takes the word out, leaving BUSY, and stores a new one a few
// instructions later: one exchange, and a mutex's worth of certainty. In place of 0 stands
// MAY_SLEEP while somebody may be asleep.
//
//   - A give that finds no MAY_SLEEP owes nobody a wake-up, and never touches the record again: a
//     taker may delete the semaphore as soon as it has the token.
//   - A taker looks whether it was deleted while it has the word, and puts it back unchanged if so.
//     No task takes what was given after its deletion, not even for a moment.
//   - token_count follows the word while that is out, so the two agree whenever nobody is busy.
//   - An operation counts its thread's depth: no task is ended with the word in its hands, nor
//     between a change of it and what that entails. A look for a token that is not there writes
//     nothing, and needs no depth.
//
// Waiting is done under sem_lock. Who goes to sleep leaves MAY_SLEEP behind; the give that finds it
// takes it away and wakes one waiter, which has from then on to see to the others: when it leaves,
// with a token or without, it wakes the next if there is a token left, and else puts MAY_SLEEP back
// for those that still sleep. So while somebody sleeps, either MAY_SLEEP stands or a waiter is on
// its way. A flush moves flush_generation; a waiter that finds it moved since it came leaves
// without a token, so exactly the tasks waiting at the flush are released. model/semaphore.pml
// takes all of this, tasks ended at every step included, through every order of events.
//
// A record lives while it has users: the id (until semDelete), every waiter, and every thread that
// has yet to wake others; whoever takes the last one away frees it. So wake-ups happen after
// sem_lock is let go, and nobody is woken only to wait for it.
//
// Locks, outermost first:
//   sem_lock    waiters, flush_generation; waiters sleep on sem_send
//   tokens      while it is BUSY: the count, token_count; whoever finds it so looks again
// semDelete marks the semaphore, lets go, and only then waits for the task lock, whose holder may
// well be giving this semaphore. mutex_lock is the users' own: plain threads, which nobody can
// delete, wait for it; tasks wait on sem_send, and only try it.
#include "osaSem.h"

#include "internal.h"
#include "osaTask.h"

#include <errno.h>
#include <limits.h>
#include <sys/time.h>
#include <unistd.h>

static constexpr lock_role_t semHeld;

static v2lsem_t* record_of(SEM_ID id)
{
    return static_cast<v2lsem_t*>(static_cast<void*>(id));
}

static SEM_ID id_of(v2lsem_t* semaphore)
{
    return static_cast<SEM_ID>(static_cast<void*>(semaphore));
}

static status_t fail_with(int status)
{
    errno = status;
    return ERROR;
}

// ---- The count ----

static constexpr int MAY_SLEEP = -1;   // no token, and perhaps a sleeper
static constexpr int BUSY = INT_MIN;   // a thread has the word
static constexpr int BUSY_LOOKS = 100; // before a nap: that thread may wait for this very CPU
static constexpr unsigned int BUSY_NAP_US = 50;

// Relaxed: waiters and deleters hold sem_lock, and who looks without it came before the deletion if
// it does not see the mark.
static inline bool is_deleted(const v2lsem_t* semaphore)
{
    return (load_relaxed(&semaphore->send_type) & SEND_DELETED) != 0;
}

// Whether nothing can be had at the moment. Relaxed: who is told so touches nothing that a giver
// made.
static inline bool is_empty(const v2lsem_t* semaphore)
{
    const int count = load_relaxed(&semaphore->tokens);
    return count == 0 || count == MAY_SLEEP;
}

[[gnu::noinline]] static int await_count(v2lsem_t* semaphore)
{
    int looks = 0;
    int count = BUSY;

    while (count == BUSY) {
        if (++looks % BUSY_LOOKS == 0) {
            usleep(BUSY_NAP_US);
        }
        if (load_relaxed(&semaphore->tokens) != BUSY) {
            count = exchange_acquire(&semaphore->tokens, BUSY);
        }
    }
    return count;
}

// Takes the word out. Acquire meets the release of the thread that had it last: what a giver did
// before its give, and what its thread knew of deletions, is seen from here on.
static inline int take_count(v2lsem_t* semaphore)
{
    const int count = exchange_acquire(&semaphore->tokens, BUSY);
    TEST_POINT();
    return __builtin_expect(count == BUSY, 0) ? await_count(semaphore) : count;
}

// Release: see take_count, and token_count is stored by then. That is relaxed, for it says nothing
// to anybody but a number; while the word is out nobody else stores it.
static inline void put_count(v2lsem_t* semaphore, int count)
{
    store_relaxed(&semaphore->token_count, count > 0 ? count : 0);
    TEST_POINT();
    store_release(&semaphore->tokens, count);
}

// Takes a token, if there is one and the caller is to live. A sleeper that gets none leaves
// MAY_SLEEP; sem_lock keeps givers from waking it before it sleeps.
static inline bool take_one(thread_record_t* me, v2lsem_t* semaphore, bool sleeper)
{
    const int count = take_count(semaphore);
    const bool taken = count > 0 && !end_asked(me);
    const int others = sleeper && count == 0 ? MAY_SLEEP : count;

    put_count(semaphore, taken ? count - 1 : others);
    return taken;
}

// Adds a token and returns the count before. MAY_SLEEP gives way under sem_lock only: without it,
// the caller that gets to see it has yet to give.
static inline int give_one(v2lsem_t* semaphore, bool locked)
{
    const int count = take_count(semaphore);
    const int held = count == MAY_SLEEP ? 0 : count;

    if (count == MAY_SLEEP && !locked) {
        put_count(semaphore, MAY_SLEEP);
    } else {
        put_count(semaphore, held < INT_MAX ? held + 1 : held);
    }
    return count;
}

// ---- Creation and release ----

static v2lsem_t* new_sem(int count)
{
    v2lsem_t* semaphore = static_cast<v2lsem_t*>(ts_malloc(sizeof(v2lsem_t)));

    if (semaphore == nullptr) {
        return nullptr;
    }
    semaphore->token_count = count;
    semaphore->tokens = count;
    recursive_mutex_init(&semaphore->sem_lock, &semaphore->sem_attr);
    pthread_cond_init(&semaphore->sem_send, nullptr);
    recursive_mutex_init(&semaphore->mutex_lock, &semaphore->mutex_attr);
    semaphore->users = 1;
    return semaphore;
}

static SEM_ID create_sem(int kind, int count)
{
    thread_record_t* me = op_enter();
    v2lsem_t* semaphore = new_sem(count);
    if (semaphore != nullptr) {
        semaphore->flags = kind;
    }
    op_leave(me);
    return id_of(semaphore);
}

static void drop_user(v2lsem_t* semaphore)
{
    bool last = false;

    LOCK_SECTION(&semaphore->sem_lock, semHeld);
    last = --semaphore->users == 0;
    END_SECTION(semHeld);

    if (last) {
        ts_free(semaphore);
    }
}

SEM_ID semBCreate(int, SEM_B_STATE initial_state)
{
    return create_sem(SEM_KIND_BINARY, initial_state != SEM_EMPTY ? 1 : 0);
}

SEM_ID semCCreate(int, int initial_count)
{
    if (initial_count < 0) {
        return nullptr;
    }
    return create_sem(SEM_KIND_COUNTING, initial_count);
}

SEM_ID semMCreate(int)
{
    return create_sem(SEM_KIND_MUTEX, 1);
}

// ---- Waking ----

// Both for a section that counted itself in as a user, or still does.
static void wake_one(v2lsem_t* semaphore)
{
    TEST_POINT();
    pthread_cond_signal(&semaphore->sem_send);
    drop_user(semaphore);
}

static void wake_all(v2lsem_t* semaphore)
{
    TEST_POINT();
    pthread_cond_broadcast(&semaphore->sem_send);
    drop_user(semaphore);
}

static void give_to_waiter(v2lsem_t* semaphore)
{
    bool wake = false;

    LOCK_SECTION(&semaphore->sem_lock, semHeld);
    wake = give_one(semaphore, true) == MAY_SLEEP && semaphore->waiters > 0;
    semaphore->users += wake ? 1 : 0;
    END_SECTION(semHeld);

    if (wake) {
        wake_one(semaphore);
    }
}

static void give_token(v2lsem_t* semaphore)
{
    if (__builtin_expect(give_one(semaphore, false) == MAY_SLEEP, 0)) {
        give_to_waiter(semaphore);
    }
}

// A waiter leaves: the wake-up that brought it here was for any of them. Returns whether there is
// something left for the others, one of which has to be woken.
static bool pass_on(v2lsem_t* semaphore) REQUIRES(semHeld)
{
    const bool others = semaphore->waiters > 0;
    // A sleeper's MAY_SLEEP came under sem_lock and is seen. One that a giver is just putting back
    // may be missed: it stays, and costs the next give a look under sem_lock.
    if (!others && load_relaxed(&semaphore->tokens) != MAY_SLEEP) {
        return false;
    }
    const int count = take_count(semaphore);

    if (count > 0) {
        put_count(semaphore, count);
    } else {
        put_count(semaphore, others ? MAY_SLEEP : 0);
    }
    return others && count > 0;
}

// ---- Taking ----

static bool released(const v2lsem_t* semaphore, unsigned int generation) REQUIRES(semHeld)
{
    return is_deleted(semaphore) || semaphore->flush_generation != generation;
}

// retcode: 0 taken, flushed or deleted; ETIMEDOUT; ECANCELED when the caller is to end. A token,
// a flush or a deletion that comes with the deadline wins.
static void waiting_on_sem(v2lsem_t* semaphore, struct timespec* timeout, int* retcode)
    REQUIRES(semHeld)
{
    thread_record_t* me = self_record;
    const unsigned int generation = semaphore->flush_generation;
    int waited = 0;

    *retcode = 0;
    while (!end_asked(me)) {
        if (released(semaphore, generation) || take_one(me, semaphore, true)) {
            return;
        }
        // A wait that fails for any other reason than its deadline would fail for ever.
        if ((waited != 0 && waited != ETIMEDOUT) ||
            (timeout != nullptr && time_expired(timeout) != 0)) {
            *retcode = ETIMEDOUT;
            return;
        }
        waited = op_wait(me, &semaphore->sem_send, &semaphore->sem_lock, timeout);
    }
    *retcode = ECANCELED;
}

// Entered when there is no token; the caller counts as a user of the record.
static status_t wait_for_token(v2lsem_t* semaphore, int max_wait) REQUIRES(semHeld)
{
    struct timespec deadline;
    int retcode = 0;

    if (max_wait != WAIT_FOREVER) {
        deadline_after(max_wait, &deadline);
    }
    semaphore->waiters++;
    waiting_on_sem(semaphore, max_wait != WAIT_FOREVER ? &deadline : nullptr, &retcode);
    semaphore->waiters--;

    if (retcode == ETIMEDOUT) {
        return S_objLib_OBJ_TIMEOUT;
    }
    return retcode == 0 ? OK : S_objLib_OBJ_UNAVAILABLE;
}

// There is no token, or the caller is to end.
[[gnu::noinline]] static status_t take_waiting(thread_record_t* me, v2lsem_t* semaphore,
                                               int max_wait)
{
    status_t status = OK; // without a token, if the semaphore is deleted
    bool wake = false;
    bool last = false;

    LOCK_SECTION(&semaphore->sem_lock, semHeld);
    if (!is_deleted(semaphore)) {
        const unsigned int generation = semaphore->flush_generation;
        semaphore->users++;
        status = wait_for_token(semaphore, max_wait);
        if (status == OK && !released(semaphore, generation) && end_asked(me)) {
            give_one(semaphore, true); // the caller never comes back from its wait
            status = S_objLib_OBJ_UNAVAILABLE;
        }
        wake = pass_on(semaphore);
        last = !wake && --semaphore->users == 0;
    }
    END_SECTION(semHeld);

    if (wake) {
        wake_one(semaphore);
    }
    if (last) {
        ts_free(semaphore);
    }
    return status;
}

void mutex_waiter_wake(v2lsem_t* semaphore)
{
    LOCK_SECTION(&semaphore->sem_lock, semHeld);
    pthread_cond_signal(&semaphore->sem_send);
    END_SECTION(semHeld);
}

static bool try_mutex(v2lsem_t* semaphore)
{
    // EAGAIN: the holder has taken it as often as the C library can count.
    return pthread_mutex_trylock(&semaphore->mutex_lock) != EBUSY;
}

// A task sleeps where its deleter can wake it. One that leaves passes on the wake-up that may have
// been its own: the mutex is free, and nobody else was woken.
[[gnu::noinline]] static bool wait_for_mutex(thread_record_t* me, v2lsem_t* semaphore)
{
    bool taken = false;

    LOCK_SECTION(&semaphore->sem_lock, semHeld);
    store_relaxed(&semaphore->mutex_waiters, semaphore->mutex_waiters + 1);
    full_fence(); // counted before this try and all later ones: see mutex_give
    taken = try_mutex(semaphore);
    while (!taken && !end_asked(me)) {
        op_wait(me, &semaphore->sem_send, &semaphore->sem_lock, nullptr);
        taken = !end_asked(me) && try_mutex(semaphore);
    }
    store_relaxed(&semaphore->mutex_waiters, semaphore->mutex_waiters - 1);
    if (!taken) {
        pthread_cond_signal(&semaphore->sem_send);
    }
    END_SECTION(semHeld);
    return taken;
}

// Inside another operation the caller counts on the lock; it is held for a moment only.
static bool lock_mutex(thread_record_t* me, v2lsem_t* semaphore)
{
    if (is_plain(me) || me->depth > 1) {
        pthread_mutex_lock(&semaphore->mutex_lock);
        return true;
    }
    if (!try_mutex(semaphore) && !wait_for_mutex(me, semaphore)) {
        return false;
    }
    if (!end_asked(me)) {
        return true;
    }
    mutex_give(semaphore);
    return false;
}

[[gnu::noinline]] static status_t take_mutex(v2lsem_t* semaphore)
{
    thread_record_t* me = op_enter();
    const bool taken = lock_mutex(me, semaphore);
    // A task told to end in the gap since the last look ends here, and has the mutex: as if it had
    // been told a moment later.
    op_leave(me);
    return taken ? OK : fail_with(S_objLib_OBJ_UNAVAILABLE);
}

static status_t find_nothing(const v2lsem_t* semaphore)
{
    return is_deleted(semaphore) ? OK : S_objLib_OBJ_UNAVAILABLE;
}

[[gnu::noinline]] static status_t take_token(v2lsem_t* semaphore, int max_wait)
{
    status_t status = OK;

    thread_record_t* me = op_enter();
    if (!take_one(me, semaphore, false)) {
        status =
            max_wait == NO_WAIT ? find_nothing(semaphore) : take_waiting(me, semaphore, max_wait);
    }
    op_leave(me);
    return status == OK ? OK : fail_with(status);
}

status_t semTake(SEM_ID semaphorePtr, int max_wait)
{
    if (semaphorePtr == nullptr) {
        return fail_with(S_objLib_OBJ_ID_ERROR);
    }
    v2lsem_t* semaphore = record_of(semaphorePtr);
    if (semaphore->flags == SEM_KIND_MUTEX) {
        return take_mutex(semaphore);
    }
    if (max_wait == NO_WAIT && is_empty(semaphore) && !is_deleted(semaphore)) {
        return fail_with(S_objLib_OBJ_UNAVAILABLE);
    }
    return take_token(semaphore, max_wait);
}

// ---- Giving, flushing, deleting ----

static void give_mutex(v2lsem_t* semaphore)
{
    thread_record_t* me = op_enter();
    mutex_give(semaphore);
    op_leave(me);
}

status_t semGive(SEM_ID semaphorePtr)
{
    if (semaphorePtr == nullptr) {
        return fail_with(S_objLib_OBJ_ID_ERROR);
    }
    v2lsem_t* semaphore = record_of(semaphorePtr);
    if (semaphore->flags == SEM_KIND_MUTEX) {
        give_mutex(semaphore);
        return OK;
    }
    thread_record_t* me = op_enter();
    give_token(semaphore);
    op_leave(me);
    return OK;
}

status_t semFlush(SEM_ID semaphorePtr)
{
    if (semaphorePtr == nullptr) {
        return fail_with(S_objLib_OBJ_ID_ERROR);
    }
    v2lsem_t* semaphore = record_of(semaphorePtr);
    if (semaphore->flags == SEM_KIND_MUTEX) {
        give_mutex(semaphore);
        return fail_with(S_semLib_INVALID_OPERATION);
    }
    thread_record_t* me = op_enter();
    LOCK_SECTION(&semaphore->sem_lock, semHeld);
    semaphore->flush_generation++;
    semaphore->users++;
    END_SECTION(semHeld);
    wake_all(semaphore);
    op_leave(me);
    return OK;
}

status_t semDelete(SEM_ID semaphorePtr)
{
    bool first = false;

    if (semaphorePtr == nullptr) {
        return fail_with(S_objLib_OBJ_ID_ERROR);
    }
    v2lsem_t* semaphore = record_of(semaphorePtr);
    thread_record_t* me = op_enter();
    LOCK_SECTION(&semaphore->sem_lock, semHeld);
    first = !is_deleted(semaphore);
    store_relaxed(&semaphore->send_type, SEND_DELETED);
    semaphore->users += first ? 1 : 0;
    END_SECTION(semHeld);
    if (!first) {
        op_leave(me);
        return fail_with(S_objLib_OBJ_ID_ERROR);
    }
    wake_all(semaphore);
    // The pause covers callers that have the id in hand and are about to use it. A deleter
    // that is itself told to end waits for no task lock, but leaves them their tick.
    const bool locked = task_lock_take(me);
    sleep_a_tick();
    if (locked) {
        task_lock_give();
    }
    drop_user(semaphore);
    op_leave(me);
    return OK;
}

void semShow(v2lsem_t*, FILE*, int) {}

int semList(FILE*, int)
{
    return 0;
}
