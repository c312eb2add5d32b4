// The task lock: one for the process, nested for its holder. It stops no other thread, it only
// makes other callers of taskLock wait; its holder runs at the highest priority it can get.
//
// A thread that ends lets the lock go: a task in its cleanup, any other thread by a destructor of
// thread-specific data.
//
// Locks, outermost first:
//   v2pthread_task_lock    locker, taskLock_level; waiters sleep on taskLock_change
//   task_list_lock         the caller's block
// taskLock() returns holding neither of them: the task lock is the value of locker.
#include "osaTask.h"

#include "internal.h"

pthread_mutex_t v2pthread_task_lock = PTHREAD_MUTEX_INITIALIZER;

static pthread_t locker GUARDED_BY(taskLockHeld) = 0; // 0: the task lock is free
static unsigned long taskLock_level GUARDED_BY(taskLockHeld) = 0;
static pthread_cond_t taskLock_change = PTHREAD_COND_INITIALIZER;

// Set for a thread that is no task while it may hold the task lock; its destructor lets go.
static pthread_key_t plain_locker_key GUARDED_BY(taskLockHeld);
static bool plain_locker_key_made GUARDED_BY(taskLockHeld) = false;

void task_lock_leave(void)
{
    LOCK_SECTION(&v2pthread_task_lock, taskLockHeld);
    if (locker == pthread_self()) {
        taskLock_level = 0;
        locker = 0;
        pthread_cond_broadcast(&taskLock_change);
    }
    END_SECTION(taskLockHeld);
}

static void plain_locker_gone(void*)
{
    ending_enter();
    task_lock_leave();
}

// Sees to it that the lock goes when the calling thread ends. False when the system has no key or
// no memory left: the thread must not have the lock then, for nobody would take it from the dead.
static bool note_plain_locker_locked(void) REQUIRES(taskLockHeld)
{
    plain_locker_key_made =
        plain_locker_key_made || pthread_key_create(&plain_locker_key, plain_locker_gone) == 0;
    return plain_locker_key_made &&
           pthread_setspecific(plain_locker_key, &plain_locker_key_made) == 0;
}

// Scheduling results are ignored: without the right to raise priorities the lock works as well.
static void set_own_priority(int policy, int priority)
{
    struct sched_param param = {};

    param.sched_priority = priority;
    pthread_setschedparam(pthread_self(), policy, &param);
}

static void raise_priority(void)
{
    struct sched_param param;
    int policy = 0;

    LOCK_SECTION(&task_list_lock, taskListHeld);
    if (pthread_getschedparam(pthread_self(), &policy, &param) == 0) {
        set_own_priority(policy, sched_get_priority_max(policy));
    }
    END_SECTION(taskListHeld);
}

static void restore_priority(void)
{
    struct sched_param param;
    int policy = 0;

    LOCK_SECTION(&task_list_lock, taskListHeld);
    const task_t* task = my_task();
    if (task != nullptr && pthread_getschedparam(pthread_self(), &policy, &param) == 0) {
        set_own_priority(policy, task->prv_priority.sched_priority);
    }
    END_SECTION(taskListHeld);
}

bool task_lock_take(thread_record_t* me)
{
    const pthread_t self = pthread_self();
    // A task that a deleter is just unlisting may count as either: both let go when they end.
    const bool task = load_relaxed(&me->block) != nullptr;
    bool taken = false;

    LOCK_SECTION(&v2pthread_task_lock, taskLockHeld);
    const bool may_have_it = task || note_plain_locker_locked();
    while (may_have_it && locker != 0 && locker != self && !end_asked(me)) {
        op_wait(me, &taskLock_change, &v2pthread_task_lock, nullptr);
    }
    taken = may_have_it && (locker == 0 || locker == self);
    if (taken) {
        locker = self;
        taskLock_level += taskLock_level + 1 != 0 ? 1 : 0; // saturates
    }
    END_SECTION(taskLockHeld);

    if (taken && task) {
        raise_priority();
    }
    return taken;
}

void task_lock_give(void)
{
    LOCK_SECTION(&v2pthread_task_lock, taskLockHeld);
    if (locker == pthread_self()) {
        taskLock_level -= taskLock_level != 0 ? 1 : 0;
        if (taskLock_level == 0) {
            restore_priority();
            locker = 0;
            pthread_cond_broadcast(&taskLock_change);
        }
    }
    END_SECTION(taskLockHeld);
}

int taskLock(void)
{
    thread_record_t* me = op_enter();
    // Not taken when the caller is to end: it does in op_leave, unless an operation that called out
    // with a lock held is around this one.
    const bool taken = task_lock_take(me);
    op_leave(me);
    return taken ? OK : ERROR;
}

int taskUnlock(void)
{
    thread_record_t* me = op_enter();
    task_lock_give();
    op_leave(me);
    return OK;
}
