// What the modules of the layer and of the utility library share: being inside an operation,
// waiting, calling out, locked sections, and the lock annotations.
//
// A task may be ended by SIGUSR1 between any two instructions (taskDelete). An operation that
// takes a lock, allocates or prints brackets itself with op_enter and op_leave: they count its
// thread's depth, and the signal handler of a thread with a depth above 0 only marks it. The
// thread then ends in op_leave, on its way back to depth 0, holding nothing. What follows:
//
//   - A section that merely computes cannot be interrupted and needs no cleanup handler.
//   - Waiting is done with op_wait, which lets the deleter wake the thread. After each op_wait
//     the caller asks end_asked(); if so it takes itself out of its counts, unlocks and leaves.
//   - A function of somebody else (callback, handler, routine, task entry) runs between
//     callout_begin and callout_end, at the depth that the operation's caller had. Its thread may
//     end inside, so what the operation has in its hands then hangs on a cleanup handler, which
//     starts with ending_enter.
//   - An operation that only forwards to others, or takes no lock, needs none of this.
//
// Lock order: wait_lock of a record comes after the lock of the object waited for. The deleter
// holds it while it only tries that lock, so the two cannot wait for each other.
#pragma once

#include "v2lpthread.h"

#include <pthread.h>
#include <stdint.h>
#include <time.h>

// ---- Lock annotations: clang's attributes, nothing elsewhere ----

#if defined(__clang__)
#define LOCK_ATTRIBUTE(x) __attribute__((x))
#else
#define LOCK_ATTRIBUTE(x)
#endif

#define GUARDED_BY(role) LOCK_ATTRIBUTE(guarded_by(role))
#define REQUIRES(...)    LOCK_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define EXCLUDES(...)    LOCK_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define ACQUIRES(role)   LOCK_ATTRIBUTE(acquire_capability(role))
#define RELEASES(role)   LOCK_ATTRIBUTE(release_capability(role))
#define UNCHECKED        LOCK_ATTRIBUTE(no_thread_safety_analysis)

/** Stands for a lock in annotations, which a pthread_mutex_t or a SEM_ID cannot carry. */
struct LOCK_ATTRIBUTE(capability("lock")) lock_role_t {};

inline constexpr lock_role_t taskListHeld; // task_list_lock
inline constexpr lock_role_t taskLockHeld; // v2pthread_task_lock
inline constexpr lock_role_t environHeld;  // environ_lock

/** Tell the analysis that a role's lock was taken or let go by other means than a section. */
static inline void role_taken([[maybe_unused]] const lock_role_t& role) ACQUIRES(role) UNCHECKED {}
static inline void role_given([[maybe_unused]] const lock_role_t& role) RELEASES(role) UNCHECKED {}

/**
 * A section under a mutex. No return, break, continue or goto leaves it; a section left open does
 * not build. Used at a depth above 0 only.
 */
#define LOCK_SECTION(mutex, role)                                                                  \
    {                                                                                              \
        pthread_mutex_t* const role##_mutex = (mutex);                                             \
        section_open(role##_mutex, role)
#define END_SECTION(role)                                                                          \
    section_close(role##_mutex, role);                                                             \
    }                                                                                              \
    static_assert(true)

static inline void section_open(pthread_mutex_t* mutex, [[maybe_unused]] const lock_role_t& role)
    ACQUIRES(role) UNCHECKED
{
    pthread_mutex_lock(mutex);
}

static inline void section_close(pthread_mutex_t* mutex, [[maybe_unused]] const lock_role_t& role)
    RELEASES(role) UNCHECKED
{
    pthread_mutex_unlock(mutex);
}

// ---- Points: where the tests interleave threads on purpose, compiled into some of them only ----

#ifdef HNETD_TEST_POINTS
extern "C" void test_point(void);
#define TEST_POINT() test_point()
#else
#define TEST_POINT() static_cast<void>(0)
#endif

#ifdef HNETD_ATOMIC_POINTS
extern "C" void atomic_point(const void* field, bool load);
#define ATOMIC_POINT(field, load) atomic_point(field, load)
#else
#define ATOMIC_POINT(field, load) static_cast<void>(0)
#endif

// ---- Atomic access to plain fields of the records ----
//
// Where a field is declared, or where the access is, stands what it meets. docs/memory-order.md
// has all pairs, and why each is enough where the machine keeps no order that it is not told to.

template <typename T> static inline T load_relaxed(const T* field)
{
    ATOMIC_POINT(field, true);
    return __atomic_load_n(field, __ATOMIC_RELAXED);
}

template <typename T> static inline T load_acquire(const T* field)
{
    ATOMIC_POINT(field, true);
    return __atomic_load_n(field, __ATOMIC_ACQUIRE);
}

template <typename T> static inline void store_relaxed(T* field, T value)
{
    ATOMIC_POINT(field, false);
    __atomic_store_n(field, value, __ATOMIC_RELAXED);
}

template <typename T> static inline void store_release(T* field, T value)
{
    ATOMIC_POINT(field, false);
    __atomic_store_n(field, value, __ATOMIC_RELEASE);
}

template <typename T> static inline T exchange_acquire(T* field, T value)
{
    ATOMIC_POINT(field, false);
    return __atomic_exchange_n(field, value, __ATOMIC_ACQUIRE);
}

/** Whatever this thread stored before is seen by all before what it loads after. */
static inline void full_fence(void)
{
#if defined(__SANITIZE_THREAD__)
    __atomic_signal_fence(__ATOMIC_SEQ_CST); // the sanitizer does not know fences
#else
    __atomic_thread_fence(__ATOMIC_SEQ_CST);
#endif
}

// ---- The thread's record ----

static constexpr size_t THREAD_NAME_SIZE = 16; // of the system, terminator included

/** What a task's thread needs of its block; a copy, for the block may be gone when it begins. */
typedef struct {
    task_entry_t entry;
    int parms[10];
    bool named;
    char name[THREAD_NAME_SIZE];
} task_start_t;

/**
 * What ends a thread safely. A task's record is allocated with its thread and outlives its control
 * block; any other thread uses one in thread-local storage, which no other thread ever sees.
 */
typedef struct thread_record {
    int depth;                 // operations entered and not left; own thread and handler only,
                               // which signal fences are enough for
    int pending;               // 1: end at the next safe point; atomic. end_asked acquires what
                               // record_ask_end released; the handler, too, sets it in its thread,
                               // so a look on the way to depth 0 needs no order
    int ending;                // 1: the end has begun, the handler is inert; own thread only
    int signalled;             // 1: ended by SIGUSR1, which is to be told; own thread only
    int refs;                  // atomic: block, thread, a deleter at work, restarts; 0 frees
    int restarts;              // pending ones, for which the block outlives its thread; atomic,
                               // looked at with task_list_lock
    task_t* block;             // listed block of the task; written with task_list_lock, atomic:
                               // without it only compared with null
    const task_t* own_block;   // the same for good: compared, never followed; own thread only
    task_start_t start;        // constant once the thread exists
    pthread_mutex_t wait_lock; // guards the two below
    pthread_cond_t* wait_cond; // what the thread waits for; null when it does not wait
    pthread_mutex_t* wait_mutex;
    uintptr_t stack_top; // where a task's own frames end; 0: a plain thread. Own thread only
    int put_off;         // ends put off; above 0: again_timer exists. Own thread only
    int again_timer;     // the system's number of it
} thread_record_t;

/**
 * The calling thread's record, null until its first operation. Constant-initialised, so its first
 * touch runs no code; on targets with emulated thread-local storage the first touch allocates, and
 * therefore happens in a new task before SIGUSR1 is let in.
 */
extern constinit thread_local thread_record_t* self_record;

/** Gives a thread that is no task the record in its thread-local storage. */
thread_record_t* own_record(void);

/**
 * Ends the calling thread, which was deleted: cleanup handlers, message, pthread_exit. The message
 * of a task comes when all that it had of ours is given back.
 */
[[noreturn]] void thread_end(thread_record_t* me);

/**
 * The message of a thread that SIGUSR1 ended, if that can be written without waiting: a reader of
 * standard output that does not read keeps no thread from its end.
 */
void tell_signalled(void);

/** Whether the record is a plain thread's, which nobody else ever wakes or ends. */
bool is_plain(const thread_record_t* me);

/** The calling thread was told to end, and is at a safe point: ends it unless that is held off. */
void thread_end_if_let(thread_record_t* me);

/**
 * Whether the calling thread cannot be ended just here: it blocks SIGUSR1, as a library may while
 * it holds locks of its own, or is a task that the C library called back.
 */
bool end_held_off(void);

/** Whether the calling thread is to end: it was told so, and does not hold its end off. */
static inline bool end_asked(const thread_record_t* me)
{
    return __builtin_expect(load_acquire(&me->pending) != 0, 0) && !end_held_off();
}

/** Enters an operation; its thread cannot be ended until the matching op_leave. */
static inline thread_record_t* op_enter(void)
{
    thread_record_t* me = self_record;
    if (__builtin_expect(me == nullptr, 0)) {
        me = own_record();
    }
    store_relaxed(&me->depth, me->depth + 1);
    __atomic_signal_fence(__ATOMIC_SEQ_CST);
    return me;
}

/** Leaves an operation. Ends the thread here if it was the outermost one and the end was asked. */
static inline void op_leave(thread_record_t* me)
{
    __atomic_signal_fence(__ATOMIC_SEQ_CST);
    const int depth = me->depth - 1;
    store_relaxed(&me->depth, depth);
    __atomic_signal_fence(__ATOMIC_SEQ_CST);
    if (depth == 0 && __builtin_expect(load_relaxed(&me->pending) != 0, 0)) {
        thread_end_if_let(me);
    }
}

/** Goes back to the depth of the operation's caller, for a function that is not ours. */
static inline void callout_begin(thread_record_t* me)
{
    op_leave(me);
}

/** Back inside the operation. */
static inline void callout_end(thread_record_t* me)
{
    store_relaxed(&me->depth, me->depth + 1);
    __atomic_signal_fence(__ATOMIC_SEQ_CST);
}

/** First line of every cleanup handler: no signal ends the thread a second time. */
static inline void ending_enter(void)
{
    thread_record_t* me = op_enter();
    me->ending = 1;
}

/**
 * Waits once on a condition, with the mutex held exactly once; the deleter of this thread can wake
 * it. May return early for no reason, like pthread_cond_wait.
 *
 * @param deadline  instant of CLOCK_REALTIME, or null to wait without limit
 * @return what the POSIX wait returned; 0 when end_asked() made it return at once
 */
int op_wait(thread_record_t* me, pthread_cond_t* cond, pthread_mutex_t* mutex,
            const struct timespec* deadline);

/** Sleeps for a time on the monotonic clock; returns early only when the caller is to end. */
void op_sleep_ms(thread_record_t* me, long long ms);

/** Sleeps for the tick that a deletion grants to latecomers; nothing cuts it short. */
void sleep_a_tick(void);

/** Marks a thread to end; its waits end from now on. The caller signals and wakes it as well. */
void record_ask_end(thread_record_t* record);

/** Wakes the thread of a record out of op_wait, if it is in one. Sleeps for short sections only. */
void record_wake(thread_record_t* record);

/** A new record with one reference, at depth 1, or null without memory. */
thread_record_t* record_new(void);
void record_hold(thread_record_t* record);
void record_drop(thread_record_t* record);

/** Lets go of the record of a task whose thread is ending; its signals have no effect any more. */
void record_retire(thread_record_t* me);

// ---- Shared by several modules of the layer ----

/**
 * Instant of CLOCK_REALTIME that lies a number of ticks ahead, computed in 64 bits. A negative
 * number other than -1 gives an instant that has passed.
 */
void deadline_after(int ticks, struct timespec* deadline);

/** 1 when the deadline is reached, with the microsecond resolution of gettimeofday. */
BOOL time_expired(struct timespec* timeout);

/** Initialises a recursive mutex and the attribute object that its record keeps. */
void recursive_mutex_init(pthread_mutex_t* mutex, pthread_mutexattr_t* attr);

/**
 * Takes the task lock for an operation of the layer.
 *
 * @return false, not held, when the caller is to end, and for a thread that is no task when the
 *         system cannot note that it holds the lock
 */
[[nodiscard]] bool task_lock_take(thread_record_t* me);
void task_lock_give(void);

/** Lets the task lock go, however nested, if the calling thread, which ends, has it. */
void task_lock_leave(void);

/** Wakes one of the tasks that wait for a mutual-exclusion semaphore. */
void mutex_waiter_wake(v2lsem_t* semaphore);

/**
 * Lets go of a mutual-exclusion semaphore. A task that waits for it counted itself before it tried
 * the mutex for the last time, so it either got it or is seen here.
 */
static inline void mutex_give(v2lsem_t* semaphore)
{
    if (pthread_mutex_unlock(&semaphore->mutex_lock) != 0) {
        return; // refused: the caller does not hold it
    }
#if defined(__x86_64__)
    __atomic_signal_fence(__ATOMIC_SEQ_CST); // what lets a mutex go is a locked exchange there
#else
    full_fence(); // meets the one in wait_for_mutex
#endif
    if (__builtin_expect(load_relaxed(&semaphore->mutex_waiters) > 0, 0)) {
        mutex_waiter_wake(semaphore);
    }
}

/**
 * A module takes and gives its own mutual-exclusion semaphore inside an operation: what semTake and
 * semGive come to there, without the calls. The wait cannot be cut short.
 */
static inline void own_sem_take(SEM_ID id)
{
    pthread_mutex_lock(&reinterpret_cast<v2lsem_t*>(id)->mutex_lock);
}

static inline void own_sem_give(SEM_ID id)
{
    mutex_give(reinterpret_cast<v2lsem_t*>(id));
}

/** What a mutual-exclusion semaphore is, for a lock word whose waiters sleep on it. */
static inline pthread_mutex_t* sem_mutex(SEM_ID id)
{
    return &reinterpret_cast<v2lsem_t*>(id)->mutex_lock;
}

/**
 * Held where we change the environment, and over those short calls of ours in which the C library
 * reads it. Innermost; inside an operation only.
 */
extern pthread_mutex_t environ_lock;

/** Local calendar time, serialised with our own changes of the zone; inside an operation only. */
void zone_local_time(time_t when, struct tm* local);

/**
 * Starts a thread, and a record to go with it, for a block; the block's earlier record is dropped.
 * The thread takes what it needs from the block as soon as task_list_lock is let go.
 *
 * @return 0, or an errno value with the block as it was
 */
int task_thread_start(task_t* task) REQUIRES(taskListHeld);

/**
 * A restart of a task is to come, or is not after all. A block with one to come stays in the list
 * when its thread ends, unless the entry returned.
 *
 * @param task  the caller's own block, or one that the caller keeps from being deleted
 * @return the record of the thread to be replaced, with a reference
 */
thread_record_t* task_restart_expected(task_t* task);
void task_restart_called_off(thread_record_t* restarted);

/** The restart has come; nothing happens if the task is gone or has another thread by now. */
void task_restart_due(thread_record_t* restarted);

// ---- Start-up frame ----

extern "C" {

/**
 * The layer's life on the daemon's service thread: names the thread "callManager", starts the root
 * task, runs user_syskill and ends the process with exit_value.
 *
 * @param argv  kept in _argv
 */
[[noreturn]] int main_v2lin(int argc, char** argv);

/** The application's start hook, called once by the root task when the layer is up. */
void user_sysinit(void);

/** The application's main-thread hook; the process ends when it returns. */
void user_syskill(void);
}
