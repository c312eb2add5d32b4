// Being inside an operation: thread records, waits that a deletion can cut short, and the few
// helpers that several modules of the layer share. The rules are in internal.h.
//
// Locks: wait_lock of each record, innermost but for the mutex that record_wake tries under it.
#include "internal.h"

#include "endPoint.h"
#include "osaTask.h"

#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/time.h>
#include <unistd.h>

static constexpr long NS_PER_S = 1'000'000'000;
static constexpr long NS_PER_MS = 1'000'000;
static constexpr long NS_PER_US = 1'000;
static constexpr unsigned int WAKE_NAP_US = 50; // between two tries to wake a thread

constinit thread_local thread_record_t* self_record = nullptr;

static constinit thread_local thread_record_t plain_record = {
    .depth = 0,
    .pending = 0,
    .ending = 0,
    .signalled = 0,
    .refs = 1, // thread-local storage, never freed
    .restarts = 0,
    .block = nullptr,
    .own_block = nullptr,
    .start = {},
    .wait_lock = PTHREAD_MUTEX_INITIALIZER,
    .wait_cond = nullptr,
    .wait_mutex = nullptr,
    .stack_top = 0,
    .put_off = 0,
    .again_timer = 0,
};

// ---- Records ----

thread_record_t* own_record(void)
{
    self_record = &plain_record;
    return self_record;
}

bool is_plain(const thread_record_t* me)
{
    return me == &plain_record;
}

thread_record_t* record_new(void)
{
    thread_record_t* record = static_cast<thread_record_t*>(ts_malloc(sizeof(thread_record_t)));
    if (record == nullptr) {
        return nullptr;
    }
    pthread_mutex_init(&record->wait_lock, nullptr);
    record->depth = 1;
    record->refs = 1;
    return record;
}

void record_hold(thread_record_t* record)
{
    __atomic_add_fetch(&record->refs, 1, __ATOMIC_RELAXED); // on top of one that keeps it alive
}

void record_drop(thread_record_t* record)
{
    // Whoever frees comes after all that the others did with the record.
    if (__atomic_sub_fetch(&record->refs, 1, __ATOMIC_ACQ_REL) != 0) {
        return;
    }
    pthread_mutex_destroy(&record->wait_lock);
    ts_free(record);
}

void record_retire(thread_record_t* me)
{
    // One store switches over: a signal that is still on its way meets a record that is inert.
    plain_record.depth = 1;
    plain_record.ending = 1;
    __atomic_signal_fence(__ATOMIC_SEQ_CST);
    self_record = &plain_record;
    __atomic_signal_fence(__ATOMIC_SEQ_CST);
    record_drop(me);
}

void record_ask_end(thread_record_t* record)
{
    store_release(&record->pending, 1);
}

void record_wake(thread_record_t* record)
{
    bool done = false;

    while (!done) {
        done = true;
        pthread_mutex_lock(&record->wait_lock);
        if (record->wait_cond != nullptr) {
            // The thread holds wait_mutex from before it published the wait until it sleeps. So a
            // failed try means that it has yet to look at the mark, or a short section of others.
            done = pthread_mutex_trylock(record->wait_mutex) == 0;
            if (done) {
                pthread_cond_broadcast(record->wait_cond);
                pthread_mutex_unlock(record->wait_mutex);
            }
        }
        pthread_mutex_unlock(&record->wait_lock);
        if (!done) {
            usleep(WAKE_NAP_US); // yielding keeps a holder of lower priority from ever getting on
        }
    }
}

void tell_signalled(void)
{
    static constexpr char message[] = "this signal is 10 \n";
    static_assert(SIGUSR1 == 10);
    struct pollfd out = {.fd = STDOUT_FILENO, .events = POLLOUT, .revents = 0};

    // Not printf: the thread may have been struck while it held the lock of the stream.
    if (poll(&out, 1, 0) == 1 && (out.revents & POLLOUT) != 0) {
        [[maybe_unused]] const ssize_t written = write(STDOUT_FILENO, message, sizeof message - 1);
    }
}

void thread_end(thread_record_t* me)
{
    me->ending = 1;
    end_not_again(me);
    store_relaxed(&me->depth, me->depth + 1); // never 0 again
    store_relaxed(&me->pending, 0);           // handlers may wait: nobody asks a second time
    __atomic_signal_fence(__ATOMIC_SEQ_CST);
    me->signalled = 1;
    if (is_plain(me)) {
        task_lock_leave(); // somebody else may fill a pipe between the look and the write
        tell_signalled();
    }
    pthread_exit(nullptr);
}

static bool exit_signal_blocked(void)
{
    sigset_t blocked;

    pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
    return sigismember(&blocked, SIGUSR1) == 1;
}

bool end_held_off(void)
{
    return exit_signal_blocked() || place_of(self_record) == INSIDE_C_LIBRARY;
}

void thread_end_if_let(thread_record_t* me)
{
    if (exit_signal_blocked()) {
        return; // the signal is on its way, too, and ends the thread once it is let in
    }
    if (place_of(me) != INSIDE_C_LIBRARY) {
        thread_end(me);
    }
    op_enter(); // the handler must not start the timer as well
    end_again_soon(me);
    __atomic_signal_fence(__ATOMIC_SEQ_CST);
    store_relaxed(&me->depth, me->depth - 1);
}

// ---- Waiting ----

static void publish_wait(thread_record_t* me, pthread_cond_t* cond, pthread_mutex_t* mutex)
{
    pthread_mutex_lock(&me->wait_lock);
    me->wait_cond = cond;
    me->wait_mutex = mutex;
    pthread_mutex_unlock(&me->wait_lock);
}

int op_wait(thread_record_t* me, pthread_cond_t* cond, pthread_mutex_t* mutex,
            const struct timespec* deadline)
{
    int result = 0;

    TEST_POINT();
    if (!is_plain(me)) {
        publish_wait(me, cond, mutex);
    }
    TEST_POINT();
    if (!end_asked(me)) {
        // From here to the sleep the mutex keeps the deleter's wake-up out.
        TEST_POINT();
        result = deadline != nullptr ? pthread_cond_timedwait(cond, mutex, deadline)
                                     : pthread_cond_wait(cond, mutex);
    }
    if (!is_plain(me)) {
        publish_wait(me, nullptr, nullptr);
    }
    TEST_POINT();
    return result;
}

void op_sleep_ms(thread_record_t* me, long long ms)
{
    struct timespec end = {};

    // Without the monotonic clock, for so long from now: no step of the wall clock moves that.
    const bool monotonic = clock_gettime(CLOCK_MONOTONIC, &end) == 0;
    const clockid_t clock = monotonic ? CLOCK_MONOTONIC : CLOCK_REALTIME;
    const int flags = monotonic ? TIMER_ABSTIME : 0;
    end.tv_sec += static_cast<time_t>(ms / 1000);
    end.tv_nsec += static_cast<long>(ms % 1000) * NS_PER_MS;
    if (end.tv_nsec >= NS_PER_S) {
        end.tv_sec++;
        end.tv_nsec -= NS_PER_S;
    }
    while (!end_asked(me)) {
        if (clock_nanosleep(clock, flags, &end, &end) != EINTR) { // left over, if it is relative
            return;
        }
    }
}

void sleep_a_tick(void)
{
    const int ms = load_relaxed(&msPerTick);
    struct timespec left = {ms / 1000, ms % 1000 * NS_PER_MS};

    while (clock_nanosleep(CLOCK_MONOTONIC, 0, &left, &left) == EINTR) {
    }
}

// ---- Shared helpers ----

void deadline_after(int ticks, struct timespec* deadline)
{
    struct timeval now;

    const long long us = static_cast<long long>(ticks) * load_relaxed(&msPerTick) * 1000;
    gettimeofday(&now, nullptr);
    // Floored, so that tv_nsec is in range for a time that has passed as well.
    long long sec = us / 1'000'000;
    long long rest = us % 1'000'000 + now.tv_usec;
    if (rest < 0) {
        sec--;
        rest += 1'000'000;
    }
    if (rest >= 1'000'000) {
        sec++;
        rest -= 1'000'000;
    }
    deadline->tv_sec = now.tv_sec + static_cast<time_t>(sec);
    deadline->tv_nsec = static_cast<long>(rest) * NS_PER_US;
}

BOOL time_expired(struct timespec* timeout)
{
    struct timeval now;

    gettimeofday(&now, nullptr);
    if (timeout->tv_sec != now.tv_sec) {
        return timeout->tv_sec < now.tv_sec;
    }
    return timeout->tv_nsec <= now.tv_usec * NS_PER_US;
}

void recursive_mutex_init(pthread_mutex_t* mutex, pthread_mutexattr_t* attr)
{
    pthread_mutexattr_init(attr);
    pthread_mutexattr_settype(attr, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(mutex, attr);
}
