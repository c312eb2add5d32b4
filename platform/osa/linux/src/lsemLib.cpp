// Semaphores: a count under a mutex with one condition, and the recursive mutex of the mutual-
// exclusion kind.
//
// A flush moves flush_generation; a waiter that finds it moved since it came leaves without a
// token, so exactly the tasks waiting at the flush are released. A record lives while it has
// users: the id (until semDelete), every waiter, and every giver that has yet to wake the others;
// whoever takes the last one away frees it. So wake-ups happen after sem_lock is let go, and
// nobody is woken only to wait for it.
//
// Locks: sem_lock, innermost. semDelete marks the semaphore, lets go, and only then waits for the
// task lock, whose holder may well be giving this semaphore. mutex_lock is the users' own: plain
// threads, which nobody can delete, wait for it; tasks wait on sem_send, and only try it.
#include "osaSem.h"

#include "internal.h"
#include "osaTask.h"

#include <errno.h>
#include <limits.h>
#include <sys/time.h>

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

// ---- Creation and release ----

static v2lsem_t* new_sem(int count)
{
    v2lsem_t* semaphore = static_cast<v2lsem_t*>(ts_malloc(sizeof(v2lsem_t)));

    if (semaphore == nullptr) {
        return nullptr;
    }
    semaphore->token_count = count;
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

// ---- Taking ----

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
        if ((semaphore->send_type & SEND_DELETED) != 0 ||
            semaphore->flush_generation != generation) {
            return;
        }
        if (semaphore->token_count > 0) {
            semaphore->token_count--;
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
static bool wait_for_mutex(thread_record_t* me, v2lsem_t* semaphore)
{
    bool taken = false;

    LOCK_SECTION(&semaphore->sem_lock, semHeld);
    store_relaxed(&semaphore->mutex_waiters, semaphore->mutex_waiters + 1);
    full_fence(); // counted before the try: see mutex_give
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

static status_t take_mutex(v2lsem_t* semaphore)
{
    thread_record_t* me = op_enter();
    const bool taken = lock_mutex(me, semaphore);
    // A task told to end in the gap since the last look ends here, and has the mutex: as if it had
    // been told a moment later.
    op_leave(me);
    return taken ? OK : fail_with(S_objLib_OBJ_UNAVAILABLE);
}

static status_t take_token(v2lsem_t* semaphore, int max_wait)
{
    status_t status = OK;
    bool last = false;

    thread_record_t* me = op_enter();
    LOCK_SECTION(&semaphore->sem_lock, semHeld);
    if ((semaphore->send_type & SEND_DELETED) != 0) {
        status = OK; // without a token, like the waiters
    } else if (end_asked(me)) {
        status = S_objLib_OBJ_UNAVAILABLE; // what is given after the deletion is not for the dead
    } else if (semaphore->token_count > 0) {
        semaphore->token_count--;
    } else if (max_wait == NO_WAIT) {
        status = S_objLib_OBJ_UNAVAILABLE;
    } else {
        semaphore->users++;
        status = wait_for_token(semaphore, max_wait);
        last = --semaphore->users == 0;
    }
    END_SECTION(semHeld);
    if (last) {
        ts_free(semaphore);
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
    return take_token(semaphore, max_wait);
}

// ---- Giving, flushing, deleting ----

static void give_mutex(v2lsem_t* semaphore)
{
    thread_record_t* me = op_enter();
    mutex_give(semaphore);
    op_leave(me);
}

// Wakes the waiters that a section counted itself in for as a user.
static void wake_waiters(v2lsem_t* semaphore)
{
    TEST_POINT();
    pthread_cond_broadcast(&semaphore->sem_send);
    drop_user(semaphore);
}

status_t semGive(SEM_ID semaphorePtr)
{
    bool wake = false;

    if (semaphorePtr == nullptr) {
        return fail_with(S_objLib_OBJ_ID_ERROR);
    }
    v2lsem_t* semaphore = record_of(semaphorePtr);
    if (semaphore->flags == SEM_KIND_MUTEX) {
        give_mutex(semaphore);
        return OK;
    }
    thread_record_t* me = op_enter();
    LOCK_SECTION(&semaphore->sem_lock, semHeld);
    semaphore->token_count += semaphore->token_count < INT_MAX ? 1 : 0;
    wake = semaphore->waiters > 0;
    semaphore->users += wake ? 1 : 0;
    END_SECTION(semHeld);
    if (wake) {
        wake_waiters(semaphore);
    }
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
    wake_waiters(semaphore);
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
    first = (semaphore->send_type & SEND_DELETED) == 0;
    semaphore->send_type = SEND_DELETED;
    END_SECTION(semHeld);
    if (!first) {
        op_leave(me);
        return fail_with(S_objLib_OBJ_ID_ERROR);
    }
    pthread_cond_broadcast(&semaphore->sem_send);
    // The pause covers callers that have the id in hand and are about to take sem_lock. A deleter
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
