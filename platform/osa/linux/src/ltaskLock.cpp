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
static pthread_key_t plain_locker_key;
static pthread_once_t plain_locker_once = PTHREAD_ONCE_INIT;

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

static void create_plain_locker_key(void)
{
    pthread_key_create(&plain_locker_key, plain_locker_gone);
}

static bool is_task(void)
{
    bool listed = false;

    LOCK_SECTION(&task_list_lock, taskListHeld);
    listed = my_task() != nullptr;
    END_SECTION(taskListHeld);
    return listed;
}

// Scheduling results are ignored: without the right to raise priorities the lock works as well.
static void set_own_priority(int policy, int priority)
{
    const struct sched_param param = {.sched_priority = priority};

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
    const task_t* task = task_for(pthread_self());
    if (task != nullptr && pthread_getschedparam(pthread_self(), &policy, &param) == 0) {
        set_own_priority(policy, task->prv_priority.sched_priority);
    }
    END_SECTION(taskListHeld);
}

static void unlock_mutex(void* mutex)
{
    pthread_mutex_unlock(static_cast<pthread_mutex_t*>(mutex));
}

static void wait_for_task_lock(thread_record_t* me, pthread_t self) REQUIRES(taskLockHeld)
{
    pthread_cleanup_push(unlock_mutex, &v2pthread_task_lock);
    while (locker != 0 && locker != self && !end_asked(me)) {
        op_wait(me, &taskLock_change, &v2pthread_task_lock, nullptr);
    }
    pthread_cleanup_pop(0);
}

bool task_lock_take(thread_record_t* me)
{
    const pthread_t self = pthread_self();
    bool taken = false;

    const bool task = is_task();
    if (!task) {
        pthread_once(&plain_locker_once, create_plain_locker_key);
        pthread_setspecific(plain_locker_key, &plain_locker_key);
    }

    LOCK_SECTION(&v2pthread_task_lock, taskLockHeld);
    wait_for_task_lock(me, self);
    taken = locker == 0 || locker == self;
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
    // Not taken only when the caller is to end: it does in op_leave, unless an operation that
    // called out with a lock held is around this one.
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
