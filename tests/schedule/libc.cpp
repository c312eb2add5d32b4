// The C library that the explored program sees: threads, mutexes, conditions, time, signals and
// memory as the explorer has them. The linker's --wrap leads the calls here; CMakeLists.txt has the
// list.
//
// A mutex keeps its owner, nesting and kind in the C library's own fields, which pthread_mutex_init
// and the initialisers fill in, and which nobody else looks at. A condition keeps nothing but its
// clock: the threads know what they wait on.
#include "engine.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#define HERE __builtin_return_address(0)

static constexpr unsigned MONOTONIC_CONDITION = 2; // bit of __wrefs
static constexpr int64_t NS_PER_US = 1000;

// Restored with the rest of the program's data for each schedule.
static struct sigaction exit_action = {};
static void (*destructors[KEYS])(void*);
static int keys = 0;

static int64_t ns_of(const timespec* t)
{
    return t->tv_sec * NS_PER_S + t->tv_nsec;
}

// ---- Mutexes ----

static bool is_mine(const pthread_mutex_t* m)
{
    return m->__data.__owner == self()->number + 1;
}

static void own(pthread_mutex_t* m)
{
    fiber* me = self();
    m->__data.__owner = me->number + 1;
    m->__data.__count = 1;
    if (me->holds == HELD) {
        fail("holds too many mutexes");
    }
    me->held[me->holds++] = m;
}

static void disown(pthread_mutex_t* m)
{
    fiber* me = self();
    int at = me->holds - 1;
    while (me->held[at] != m) {
        at--;
    }
    me->held[at] = me->held[--me->holds];
    m->__data.__owner = 0;
    m->__data.__count = 0;
}

// Held by the caller: 0 one level more, or EDEADLK; a normal one is waited for in vain.
static int again(pthread_mutex_t* m)
{
    if (m->__data.__kind == PTHREAD_MUTEX_RECURSIVE) {
        m->__data.__count++;
        return 0;
    }
    if (m->__data.__kind == PTHREAD_MUTEX_NORMAL) {
        block(state_t::LOCK, m);
    }
    return EDEADLK;
}

static void await_mutex(pthread_mutex_t* m)
{
    if (m->__data.__owner != 0) {
        block(state_t::LOCK, m);
    }
    own(m);
}

extern "C" int __wrap_pthread_mutex_lock(pthread_mutex_t* m)
{
    before("lock", m, HERE);
    if (is_mine(m)) {
        return again(m);
    }
    await_mutex(m);
    return 0;
}

extern "C" int __wrap_pthread_mutex_trylock(pthread_mutex_t* m)
{
    before("try to lock", m, HERE);
    if (is_mine(m)) {
        return m->__data.__kind == PTHREAD_MUTEX_RECURSIVE ? again(m) : EBUSY;
    }
    if (m->__data.__owner != 0) {
        return EBUSY;
    }
    own(m);
    return 0;
}

extern "C" int __wrap_pthread_mutex_unlock(pthread_mutex_t* m)
{
    before("unlock", m, HERE);
    if (!is_mine(m)) {
        if (m->__data.__kind == PTHREAD_MUTEX_NORMAL) {
            fail("unlocks a mutex that it does not hold");
        }
        return EPERM;
    }
    if (--m->__data.__count == 0) {
        disown(m);
        after(m);
    }
    return 0;
}

extern "C" int __wrap_pthread_mutex_destroy(pthread_mutex_t* m)
{
    if (m->__data.__owner != 0) {
        fail("destroys a mutex that is held");
    }
    return 0;
}

// ---- Conditions ----

static int wait_on(pthread_cond_t* c, pthread_mutex_t* m, int64_t deadline)
{
    fiber* me = self();
    const unsigned level = m->__data.__count - 1;

    if (!is_mine(m)) {
        fail("waits with a mutex that it does not hold");
    }
    me->mutex = m;
    m->__data.__count = level; // one level is let go, whatever the depth
    if (level == 0) {
        disown(m);
    }
    block(state_t::COND, c, deadline);
    const bool timed_out = me->timed_out;
    if (level == 0) {
        await_mutex(m);
    }
    m->__data.__count = level + 1;
    return timed_out ? ETIMEDOUT : 0;
}

extern "C" int __wrap_pthread_cond_wait(pthread_cond_t* c, pthread_mutex_t* m)
{
    before("wait", c, HERE);
    return wait_on(c, m, NEVER);
}

extern "C" int __wrap_pthread_cond_timedwait(pthread_cond_t* c, pthread_mutex_t* m,
                                             const timespec* deadline)
{
    const bool monotonic = (c->__data.__wrefs & MONOTONIC_CONDITION) != 0;
    before("timed wait", c, HERE);
    return wait_on(c, m, ns_of(deadline) - (monotonic ? 0 : EPOCH_NS));
}

static void wake(fiber* waiter)
{
    const auto* m = static_cast<const pthread_mutex_t*>(waiter->mutex);
    waiter->state = m->__data.__count == 0 ? state_t::LOCK : state_t::READY;
    waiter->object = m;
}

static int waiters_of(const pthread_cond_t* c, fiber** waiters)
{
    int count = 0;
    for (int i = 0; i < THREADS; i++) {
        fiber* f = thread_at(i);
        if (f->state == state_t::COND && f->object == c) {
            waiters[count++] = f;
        }
    }
    return count;
}

extern "C" int __wrap_pthread_cond_signal(pthread_cond_t* c)
{
    fiber* waiters[THREADS];

    before("signal", c, HERE);
    const int count = waiters_of(c, waiters);
    if (count > 0) {
        wake(waiters[choose_thread(waiters, count)]);
    }
    after(c);
    return 0;
}

extern "C" int __wrap_pthread_cond_broadcast(pthread_cond_t* c)
{
    fiber* waiters[THREADS];

    before("broadcast", c, HERE);
    for (int count = waiters_of(c, waiters); count > 0; count--) {
        wake(waiters[count - 1]);
    }
    after(c);
    return 0;
}

extern "C" int __wrap_pthread_cond_destroy(pthread_cond_t* c)
{
    fiber* waiters[THREADS];
    if (waiters_of(c, waiters) > 0) {
        fail("destroys a condition that is waited on");
    }
    return 0;
}

// ---- Time ----

extern "C" int __wrap_clock_gettime(clockid_t clock, timespec* now)
{
    const int64_t ns = virtual_now() + (clock == CLOCK_REALTIME ? EPOCH_NS : 0);
    *now = {ns / NS_PER_S, ns % NS_PER_S};
    return 0;
}

extern "C" int __wrap_gettimeofday(timeval* now, void*)
{
    const int64_t us = (virtual_now() + EPOCH_NS) / NS_PER_US;
    *now = {us / 1'000'000, us % 1'000'000};
    return 0;
}

extern "C" time_t __wrap_time(time_t*)
{
    return (virtual_now() + EPOCH_NS) / NS_PER_S;
}

static int sleep_until(state_t state, int64_t deadline)
{
    block(state, nullptr, deadline);
    return self()->interrupted ? EINTR : 0;
}

extern "C" int __wrap_clock_nanosleep(clockid_t, int flags, const timespec* t, timespec*)
{
    before("sleep", nullptr, HERE);
    return sleep_until(state_t::SLEEP, ns_of(t) + (flags == TIMER_ABSTIME ? 0 : virtual_now()));
}

extern "C" int __wrap_usleep(useconds_t us)
{
    before("sleep", nullptr, HERE);
    return sleep_until(state_t::SLEEP, virtual_now() + us * NS_PER_US);
}

// The product's own, which sleeps however often it is interrupted.
extern void sleep_a_tick() __asm__("__wrap__Z12sleep_a_tickv");
void sleep_a_tick()
{
    const int64_t end = virtual_now() + 10'000'000;
    before("sleep a tick", nullptr, HERE);
    block(state_t::TICK, nullptr, end);
}

// ---- Threads ----

static pthread_t id_of(const fiber* f)
{
    return reinterpret_cast<pthread_t>(f);
}

static fiber* thread_of(pthread_t id)
{
    fiber* f = reinterpret_cast<fiber*>(id);
    if (f->state == state_t::FREE || (f->state == state_t::OVER && (f->detached || f->joined))) {
        fail("uses the id of a thread that is gone");
    }
    return f;
}

extern "C" pthread_t __wrap_pthread_self()
{
    return id_of(self());
}

extern "C" int __wrap_pthread_create(pthread_t* id, const pthread_attr_t*, void* (*start)(void*),
                                     void* arg)
{
    before("create", nullptr, HERE);
    *id = id_of(new_thread(start, arg));
    after(nullptr);
    return 0;
}

extern "C" int __wrap_pthread_detach(pthread_t id)
{
    before("detach", thread_of(id), HERE);
    thread_of(id)->detached = true;
    return 0;
}

extern "C" int __wrap_pthread_join(pthread_t id, void** result)
{
    fiber* f = thread_of(id);
    before("join", f, HERE);
    if (f->state != state_t::OVER) {
        block(state_t::JOIN, f);
    }
    f->joined = true;
    if (result != nullptr) {
        *result = f->result;
    }
    return 0;
}

// Without exceptions pthread_cleanup_push is a jump buffer in a list of the C library's.
static void unwind() __attribute__((noreturn));
static void unwind()
{
    fiber* me = self();
    if (me->cleanups == nullptr) {
        thread_over();
    }
    _longjmp(reinterpret_cast<__jmp_buf_tag*>(me->cleanups->__cancel_jmp_buf), 1);
}

extern "C" void __wrap___pthread_register_cancel(__pthread_unwind_buf_t* buffer)
{
    buffer->__pad[0] = self()->cleanups;
    self()->cleanups = buffer;
}

extern "C" void __wrap___pthread_unregister_cancel(__pthread_unwind_buf_t* buffer)
{
    self()->cleanups = static_cast<__pthread_unwind_buf_t*>(buffer->__pad[0]);
}

extern "C" [[noreturn]] void __wrap___pthread_unwind_next(__pthread_unwind_buf_t* buffer)
{
    __wrap___pthread_unregister_cancel(buffer);
    unwind();
}

extern "C" [[noreturn]] void __wrap_pthread_exit(void* result)
{
    before("exit", nullptr, HERE);
    self()->unmoved = false; // from a handler: what it struck waits no more
    self()->result = result;
    unwind();
}

void run_destructors()
{
    for (int key = 0; key < keys; key++) {
        void* value = self()->specifics[key];
        self()->specifics[key] = nullptr;
        if (value != nullptr && destructors[key] != nullptr) {
            destructors[key](value);
        }
    }
}

extern "C" int __wrap_pthread_key_create(pthread_key_t* key, void (*destructor)(void*))
{
    if (keys == KEYS) {
        return EAGAIN;
    }
    destructors[keys] = destructor;
    *key = static_cast<pthread_key_t>(keys++);
    return 0;
}

extern "C" int __wrap_pthread_setspecific(pthread_key_t key, const void* value)
{
    self()->specifics[key] = const_cast<void*>(value);
    return 0;
}

extern "C" int __wrap_pthread_getschedparam(pthread_t id, int* policy, sched_param* param)
{
    (void)thread_of(id);
    *policy = SCHED_OTHER;
    param->sched_priority = 0;
    return 0;
}

extern "C" int __wrap_pthread_setschedparam(pthread_t id, int, const sched_param*)
{
    (void)thread_of(id);
    return 0;
}

// ---- Signals ----

extern "C" int __wrap_sigaction(int, const struct sigaction* action, struct sigaction*)
{
    exit_action = *action;
    return 0;
}

void strike()
{
    siginfo_t from = {};

    from.si_code = SI_TKILL;
    from.si_pid = getpid();
    if ((exit_action.sa_flags & SA_SIGINFO) != 0) {
        exit_action.sa_sigaction(SIGUSR1, &from, nullptr);
    } else {
        exit_action.sa_handler(SIGUSR1);
    }
}

extern "C" int __wrap_pthread_sigmask(int how, const sigset_t* set, sigset_t* old)
{
    fiber* me = self();
    const bool named = set != nullptr && sigismember(set, SIGUSR1) == 1;

    if (old != nullptr) {
        sigemptyset(old);
        if (me->masked) {
            sigaddset(old, SIGUSR1);
        }
    }
    if (set != nullptr) {
        me->masked = how == SIG_SETMASK ? named : named ? how == SIG_BLOCK : me->masked;
        settle();
    }
    return 0;
}

extern "C" int __wrap_pthread_kill(pthread_t id, int)
{
    fiber* f = thread_of(id);
    before("SIGUSR1 to", f, HERE);
    if (thread_of(id)->state == state_t::OVER) {
        return 0;
    }
    if (exit_action.sa_handler == nullptr) {
        fail("SIGUSR1 finds no handler");
    }
    f->signalled = true;
    after(nullptr);
    return 0;
}

// ---- Memory, output, and what makes no difference ----

extern "C" void* __wrap_malloc(size_t size)
{
    return heap_take(size);
}

extern "C" void __wrap_free(void* address)
{
    heap_give(address);
}

extern "C" int __wrap_poll(pollfd* fds, nfds_t, int)
{
    fds->revents = fds->events;
    return 1;
}

extern "C" ssize_t __wrap_write(int, const void*, size_t size)
{
    return static_cast<ssize_t>(size);
}

extern "C" int __wrap_prctl(int, ...)
{
    return 0;
}

extern "C" int __wrap_backtrace(void**, int)
{
    return 0;
}

extern "C" void __halden_log_print(int, const char*, const char*, ...) {}
