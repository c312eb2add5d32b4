// Tasks: named threads, the list of their control blocks, deletion by signal, and the task lock.
//
// A block is linked before task_list_lock is let go, and its thread first of all takes that lock:
// a task always finds itself, unless it was deleted before it began. The list owns the blocks;
// whoever unlinks one frees it. A thread copies from its block what it needs and never looks at
// it again, so a deleter need not wait for it. Only a listed block's thread is signalled, under
// task_list_lock, and a task takes its block out before its thread can end: no signal ever goes
// to an id that is no longer a thread, or is another one by now.
//
// Locks, outermost first:
//   v2pthread_task_lock       locker, taskLock_level; waiters sleep on taskLock_change
//   task_list_lock            task_list and every block in it
//   malloc_lock, free_lock    one allocation each, never held together
// taskLock() returns holding none of them: the task lock is the value of locker.
#include "osaTask.h"

#include "internal.h"

#include <errno.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <unistd.h>

#if defined(__GLIBC__)
#include <execinfo.h>
#endif

static constexpr size_t THREAD_NAME_SIZE = 16; // of the system, terminator included

task_t* task_list GUARDED_BY(taskListHeld) = nullptr; // in spawn order
pthread_mutex_t task_list_lock = PTHREAD_MUTEX_INITIALIZER;
pthread_mutex_t v2pthread_task_lock = PTHREAD_MUTEX_INITIALIZER;

static pthread_t locker GUARDED_BY(taskLockHeld) = 0; // 0: the task lock is free
static unsigned long taskLock_level GUARDED_BY(taskLockHeld) = 0;
static pthread_cond_t taskLock_change = PTHREAD_COND_INITIALIZER;

// Set for a thread that is no task while it may hold the task lock; its destructor lets go.
static pthread_key_t plain_locker_key;
static pthread_once_t plain_locker_once = PTHREAD_ONCE_INIT;

/** What a new thread takes from its block. */
typedef struct {
    task_entry_t entry;
    int parms[10];
    bool named;
    char name[THREAD_NAME_SIZE];
} task_start_t;

// ---- Allocation ----

void* ts_malloc(size_t blksize)
{
    static pthread_mutex_t malloc_lock = PTHREAD_MUTEX_INITIALIZER;
    thread_record_t* me = op_enter();

    pthread_mutex_lock(&malloc_lock);
    void* block = malloc(blksize);
    pthread_mutex_unlock(&malloc_lock);
    if (block != nullptr) {
        memset(block, 0, blksize);
    }
    op_leave(me);
    return block;
}

void ts_free(void* blkaddr)
{
    static pthread_mutex_t free_lock = PTHREAD_MUTEX_INITIALIZER;
    thread_record_t* me = op_enter();

    pthread_mutex_lock(&free_lock);
    free(blkaddr);
    pthread_mutex_unlock(&free_lock);
    op_leave(me);
}

// ---- The list ----

task_t* my_task(void) REQUIRES(taskListHeld)
{
    const pthread_t self = pthread_self();

    task_t* task = task_list;
    while (task != nullptr && task->pthrid != self) {
        task = task->nxt_task;
    }
    return task;
}

task_t* task_for(taskId_t taskid) REQUIRES(taskListHeld)
{
    if (taskid == 0) {
        return my_task();
    }
    task_t* task = task_list;
    while (task != nullptr && task->pthrid != taskid) {
        task = task->nxt_task;
    }
    return task;
}

static void append_block_locked(task_t* task) REQUIRES(taskListHeld)
{
    task_t** link = &task_list;
    while (*link != nullptr) {
        link = &(*link)->nxt_task;
    }
    *link = task;
}

static task_t* unlink_block_locked(taskId_t id) REQUIRES(taskListHeld)
{
    for (task_t** link = &task_list; *link != nullptr; link = &(*link)->nxt_task) {
        task_t* task = *link;
        if (task->pthrid == id) {
            *link = task->nxt_task;
            return task;
        }
    }
    return nullptr;
}

// A block that is in no list, with its reference to the record.
static void free_block(task_t* task)
{
    if (task->record != nullptr) {
        record_drop(task->record);
    }
    if (task->taskname != nullptr) {
        ts_free(task->taskname);
    }
    pthread_attr_destroy(&task->attr);
    pthread_mutex_destroy(&task->timemutex);
    pthread_cond_destroy(&task->timecond);
    ts_free(task);
}

static void task_delete(taskId_t tid)
{
    task_t* task = nullptr;

    LOCK_SECTION(&task_list_lock, taskListHeld);
    task = unlink_block_locked(tid);
    END_SECTION(taskListHeld);

    if (task != nullptr) {
        free_block(task);
    }
}

// ---- Ending ----

// Runs in the thread that is to end, between any two of its instructions.
static void thread_exit_handler(int)
{
    thread_record_t* me = self_record;

    if (me == nullptr) {
        thread_end(own_record());
    }
    if (me->ending != 0) {
        return;
    }
    if (me->depth > 0) {
        record_ask_end(me);
        return;
    }
    thread_end(me);
}

static void install_exit_handler(void)
{
    struct sigaction action = {};

    action.sa_handler = thread_exit_handler;
    sigemptyset(&action.sa_mask);
    sigaction(SIGUSR1, &action, nullptr);
}

// Before the first task exists: a task deleted at once must find the handler, not the signal's
// default action, which ends the process.
static void prepare_deletion_locked(void) REQUIRES(taskListHeld)
{
    static bool prepared = false;

    if (prepared) {
        return;
    }
    prepared = true;
    install_exit_handler();
#if defined(__GLIBC__)
    // pthread_exit needs the unwinder and loads it when it is first wanted, which allocates. Now
    // is a better time for that than inside a signal handler.
    void* frame[1];
    backtrace(frame, 1);
#endif
}

static void release_task_lock(void)
{
    LOCK_SECTION(&v2pthread_task_lock, taskLockHeld);
    if (locker == pthread_self()) {
        taskLock_level = 0;
        locker = 0;
        pthread_cond_broadcast(&taskLock_change);
    }
    END_SECTION(taskLockHeld);
}

// Whatever way a task's thread ends. Its block is taken out first: no deleter finds the thread
// from here on.
static void task_wrapper_cleanup(void*)
{
    ending_enter();
    thread_record_t* me = self_record;

    TEST_POINT();
    task_delete(pthread_self());
    release_task_lock();
    record_retire(me);
}

static void plain_locker_gone(void*)
{
    ending_enter();
    release_task_lock();
}

static void create_plain_locker_key(void)
{
    pthread_key_create(&plain_locker_key, plain_locker_gone);
}

// ---- A task's thread ----

// A reference to the record of the caller's block, or null if the block was deleted already.
static thread_record_t* adopt_block(task_start_t* start)
{
    thread_record_t* record = nullptr;

    LOCK_SECTION(&task_list_lock, taskListHeld);
    const task_t* task = my_task();
    if (task != nullptr) {
        start->entry = task->entry_point;
        memcpy(start->parms, task->parms, sizeof start->parms);
        start->named = task->taskname != nullptr;
        if (start->named) {
            strncpy(start->name, task->taskname, THREAD_NAME_SIZE - 1);
        }
        record = task->record;
        record_hold(record);
    }
    END_SECTION(taskListHeld);
    return record;
}

static void let_exit_signal_in(void)
{
    sigset_t signals;

    sigemptyset(&signals);
    sigaddset(&signals, SIGUSR1);
    pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
}

static void run_entry(thread_record_t* me, const task_start_t* start)
{
    const int* p = start->parms;

    pthread_cleanup_push(task_wrapper_cleanup, nullptr);
    callout_begin(me);
    start->entry(p[0], p[1], p[2], p[3], p[4], p[5], p[6], p[7], p[8], p[9]);
    callout_end(me);
    pthread_cleanup_pop(1);
}

void* task_wrapper(task_t*)
{
    task_start_t start = {};

    // SIGUSR1 is still blocked, as the spawner had it. Until the task's own record is adopted the
    // thread is inside an operation on the record of plain threads.
    thread_record_t* starter = op_enter();
    pthread_detach(pthread_self());
    TEST_POINT();
    thread_record_t* me = adopt_block(&start);
    if (me == nullptr) {
        thread_end(starter); // deleted before it began
    }
    self_record = me; // new records are at depth 1
    install_exit_handler();
    let_exit_signal_in();
    TEST_POINT();
    if (start.named) {
        prctl(PR_SET_NAME, start.name, 0, 0, 0);
    }
    run_entry(me, &start);
    return nullptr;
}

static void* thread_start(void* task)
{
    return task_wrapper(static_cast<task_t*>(task));
}

int task_thread_start(task_t* task)
{
    thread_record_t* const old_record = task->record;
    const pthread_t old_id = task->pthrid;
    sigset_t exit_signal;
    sigset_t mask;

    thread_record_t* record = record_new();
    if (record == nullptr) {
        return ENOMEM;
    }
    prepare_deletion_locked();
    task->record = record;
    task->pthrid = 0;
    // The thread inherits the mask and opens it once it can be ended safely.
    sigemptyset(&exit_signal);
    sigaddset(&exit_signal, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &exit_signal, &mask);
    const int error = pthread_create(&task->pthrid, &task->attr, thread_start, task);
    pthread_sigmask(SIG_SETMASK, &mask, nullptr);
    if (error != 0) {
        task->pthrid = old_id;
        task->record = old_record;
        record_drop(record);
        return error;
    }
    if (old_record != nullptr) {
        record_drop(old_record);
    }
    return 0;
}

// ---- Spawn, delay, look-ups ----

static char* copy_name(const char* name)
{
    const size_t size = strlen(name) + 1;

    char* copy = static_cast<char*>(ts_malloc(size));
    if (copy != nullptr) {
        memcpy(copy, name, size);
    }
    return copy;
}

static void fill_block(task_t* task, const char* name, int pri, FUNCPTR entry)
{
    if (name != nullptr) {
        task->taskname = copy_name(name);
    }
    pthread_mutex_init(&task->timemutex, nullptr);
    pthread_cond_init(&task->timecond, nullptr);
    task->vxw_priority = pri;
    pthread_attr_init(&task->attr);
    pthread_attr_getschedparam(&task->attr, &task->prv_priority);
    task->entry_point = reinterpret_cast<task_entry_t>(entry);
}

taskId_t taskSpawn(char* name, int pri, int, int, FUNCPTR entry, int arg1, int arg2, int arg3,
                   int arg4, int arg5, int arg6, int arg7, int arg8, int arg9, int arg10)
{
    const int parms[10] = {arg1, arg2, arg3, arg4, arg5, arg6, arg7, arg8, arg9, arg10};
    taskId_t id = 0;
    int error = 0;

    if (entry == nullptr) {
        errno = S_smObjLib_NOT_INITIALIZED;
        return static_cast<taskId_t>(ERROR);
    }
    thread_record_t* me = op_enter();
    task_t* task = static_cast<task_t*>(ts_malloc(sizeof(task_t)));
    if (task == nullptr) {
        op_leave(me);
        errno = S_smObjLib_NOT_INITIALIZED;
        return static_cast<taskId_t>(ERROR);
    }
    fill_block(task, name, pri, entry);
    memcpy(task->parms, parms, sizeof parms);

    LOCK_SECTION(&task_list_lock, taskListHeld);
    error = task_thread_start(task);
    if (error == 0) {
        append_block_locked(task);
        id = task->pthrid;
    }
    END_SECTION(taskListHeld);

    if (error != 0) {
        free_block(task);
    }
    op_leave(me);
    if (error != 0) {
        errno = S_memLib_NOT_ENOUGH_MEMORY;
        return static_cast<taskId_t>(ERROR);
    }
    return id;
}

status_t taskDelay(int interval)
{
    if (interval < 0) {
        return ERROR;
    }
    if (interval == 0) {
        usleep(1);
        return OK;
    }
    // At the caller's depth: a task is holding nothing here and ends at once.
    thread_record_t* me = self_record != nullptr ? self_record : own_record();
    op_sleep_ms(me, static_cast<long long>(interval) * load_relaxed(&msPerTick));
    return OK;
}

taskId_t taskIdSelf(void)
{
    return pthread_self();
}

int taskIdVerify(taskId_t taskid)
{
    bool known = false;

    thread_record_t* me = op_enter();
    LOCK_SECTION(&task_list_lock, taskListHeld);
    known = task_for(taskid) != nullptr;
    END_SECTION(taskListHeld);
    op_leave(me);

    if (!known) {
        errno = S_objLib_OBJ_ID_ERROR;
        return ERROR;
    }
    return OK;
}

addr_t taskName(taskId_t tid)
{
    static char NullTaskName[] = "NULLTASK";
    char* name = NullTaskName;

    thread_record_t* me = op_enter();
    LOCK_SECTION(&task_list_lock, taskListHeld);
    const task_t* task = task_for(tid);
    if (task != nullptr) {
        name = task->taskname;
    }
    END_SECTION(taskListHeld);
    op_leave(me);
    return name;
}

taskId_t taskNameToId(char* name)
{
    taskId_t id = 0;

    if (name == nullptr || name[0] == '\0') {
        return 0;
    }
    thread_record_t* me = op_enter();
    LOCK_SECTION(&task_list_lock, taskListHeld);
    for (const task_t* task = task_list; task != nullptr && id == 0; task = task->nxt_task) {
        if (task->taskname != nullptr && strcmp(task->taskname, name) == 0) {
            id = task->pthrid;
        }
    }
    END_SECTION(taskListHeld);
    op_leave(me);
    return id;
}

status_t taskPriorityGet(taskId_t tid, int* priority)
{
    bool known = false;

    thread_record_t* me = op_enter();
    if (task_lock_take(me)) {
        LOCK_SECTION(&task_list_lock, taskListHeld);
        const task_t* task = task_for(tid);
        known = task != nullptr;
        if (known && priority != nullptr) {
            *priority = task->vxw_priority;
        }
        END_SECTION(taskListHeld);
        task_lock_give();
    }
    op_leave(me);

    if (!known) {
        errno = S_objLib_OBJ_ID_ERROR;
        return ERROR;
    }
    return OK;
}

status_t taskPrioritySet(taskId_t, int)
{
    return OK;
}

// ---- The task lock ----

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

// ---- Deletion ----

[[noreturn]] static void delete_self(void)
{
    ending_enter();
    task_delete(pthread_self());
    pthread_exit(nullptr);
}

int taskDeleteForce(taskId_t tid)
{
    task_t* task = nullptr;
    thread_record_t* record = nullptr;

    if (tid == 0) {
        return ERROR;
    }
    if (tid == pthread_self()) {
        delete_self();
    }
    thread_record_t* me = op_enter();
    LOCK_SECTION(&task_list_lock, taskListHeld);
    task = unlink_block_locked(tid);
    if (task != nullptr) {
        record = task->record;
        record_hold(record);
        record_ask_end(record);
        pthread_kill(tid, SIGUSR1);
    }
    END_SECTION(taskListHeld);

    if (task == nullptr) {
        op_leave(me);
        errno = S_objLib_OBJ_ID_ERROR;
        return ERROR;
    }
    TEST_POINT();
    free_block(task);
    record_wake(record);
    record_drop(record);
    op_leave(me);
    return OK;
}

status_t taskDelete(taskId_t tid)
{
    return taskDeleteForce(tid);
}
