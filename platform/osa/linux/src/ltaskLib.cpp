// Tasks: named threads, the list of their control blocks, and deletion by signal.
//
// A block is linked before task_list_lock is let go, and its thread first of all takes that lock:
// a task always finds itself, unless it was deleted before it began. The list owns the blocks;
// whoever unlinks one frees it. A thread copies from its block what it needs and never looks at
// it again, so a deleter need not wait for it. Only a listed block's thread is signalled, under
// task_list_lock, and a task parts with its block before its thread can end: no signal ever goes
// to an id that is no longer a thread, or is another one by now.
//
// Locks, outermost first:
//   task_list_lock            task_list and every block in it
//   malloc_lock, free_lock    one allocation each, never held together
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
    while (task != nullptr && (task->pthrid != self || task->threadless != 0)) {
        task = task->nxt_task;
    }
    return task;
}

// A block that waits for its restart may share its id with a later thread, which comes first.
task_t* task_for(taskId_t taskid) REQUIRES(taskListHeld)
{
    task_t* waiting = nullptr;

    if (taskid == 0) {
        return my_task();
    }
    for (task_t* task = task_list; task != nullptr; task = task->nxt_task) {
        if (task->pthrid == taskid && task->threadless == 0) {
            return task;
        }
        if (task->pthrid == taskid) {
            waiting = task;
        }
    }
    return waiting;
}

static void append_block_locked(task_t* task) REQUIRES(taskListHeld)
{
    task_t** link = &task_list;
    while (*link != nullptr) {
        link = &(*link)->nxt_task;
    }
    *link = task;
}

static void unlink_block_locked(task_t* task) REQUIRES(taskListHeld)
{
    task_t** link = &task_list;
    while (*link != task) {
        link = &(*link)->nxt_task;
    }
    *link = task->nxt_task;
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

// Takes the caller's block out, if it has one. Unless the task goes for good, a block that waits
// for a restart stays, parted from the thread.
static void task_delete(bool for_good)
{
    task_t* gone = nullptr;

    LOCK_SECTION(&task_list_lock, taskListHeld);
    task_t* task = my_task();
    if (task != nullptr && !for_good && load_relaxed(&task->restarts) > 0) {
        task->threadless = 1;
    } else if (task != nullptr) {
        unlink_block_locked(task);
        gone = task;
    }
    END_SECTION(taskListHeld);

    if (gone != nullptr) {
        free_block(gone);
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

// Whatever way a task's thread ends. It parts with its block first: no deleter finds the thread
// from here on.
static void task_wrapper_cleanup(void*)
{
    ending_enter();
    thread_record_t* me = self_record;

    TEST_POINT();
    task_delete(false);
    task_lock_leave();
    record_retire(me);
}

// ---- A task's thread ----

// A thread that the layer started finds a record of its own in the block. Whoever calls
// pthread_create instead leaves the record of the block's earlier thread there, or none.
static thread_record_t* adopt_record_locked(task_t* task) REQUIRES(taskListHeld)
{
    if (task->record == nullptr || task->record->adopted != 0) {
        thread_record_t* record = record_new();
        if (record == nullptr) {
            return nullptr;
        }
        if (task->record != nullptr) {
            record_drop(task->record);
        }
        task->record = record;
    }
    task->record->adopted = 1;
    record_hold(task->record);
    return task->record;
}

// A reference to the record of the caller's block, or null if the block was deleted already.
static thread_record_t* adopt_block(task_start_t* start)
{
    thread_record_t* record = nullptr;

    LOCK_SECTION(&task_list_lock, taskListHeld);
    task_t* task = my_task();
    if (task != nullptr) {
        start->entry = task->entry_point;
        memcpy(start->parms, task->parms, sizeof start->parms);
        start->named = task->taskname != nullptr;
        if (start->named) {
            strncpy(start->name, task->taskname, THREAD_NAME_SIZE - 1);
        }
        record = adopt_record_locked(task);
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
    task_delete(true); // an entry that returned is not restarted
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
    task->threadless = 0;
    store_relaxed(&task->restarts, 0); // others still pending name the task by its old id
    if (old_record != nullptr) {
        record_drop(old_record);
    }
    return 0;
}

// ---- Restarts ----

void task_restart_expected(task_t* task)
{
    __atomic_add_fetch(&task->restarts, 1, __ATOMIC_RELAXED);
}

void task_restart_called_off(task_t* task)
{
    __atomic_sub_fetch(&task->restarts, 1, __ATOMIC_RELAXED);
}

static task_t* expecting_restart_locked(taskId_t id) REQUIRES(taskListHeld)
{
    task_t* task = task_list;
    while (task != nullptr && (task->pthrid != id || load_relaxed(&task->restarts) == 0)) {
        task = task->nxt_task;
    }
    return task;
}

void task_restart_due(taskId_t id)
{
    task_t* given_up = nullptr;

    LOCK_SECTION(&task_list_lock, taskListHeld);
    task_t* task = expecting_restart_locked(id);
    if (task != nullptr) {
        task_restart_called_off(task);
        const bool started = task_thread_start(task) == 0;
        if (!started && task->threadless != 0 && load_relaxed(&task->restarts) == 0) {
            unlink_block_locked(task); // no thread would ever take it out
            given_up = task;
        }
    }
    END_SECTION(taskListHeld);

    if (given_up != nullptr) {
        free_block(given_up);
    }
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

// ---- Deletion ----

[[noreturn]] static void delete_self(void)
{
    ending_enter();
    task_delete(true);
    pthread_exit(nullptr);
}

// Returns a reference to the thread's record, or null if there is none to be woken.
static thread_record_t* end_thread_of_locked(const task_t* task) REQUIRES(taskListHeld)
{
    if (task->threadless != 0) {
        return nullptr;
    }
    if (task->record != nullptr) {
        record_hold(task->record);
        record_ask_end(task->record);
    }
    pthread_kill(task->pthrid, SIGUSR1);
    return task->record;
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
    task = task_for(tid);
    if (task != nullptr) {
        unlink_block_locked(task);
        record = end_thread_of_locked(task);
    }
    END_SECTION(taskListHeld);

    if (task == nullptr) {
        op_leave(me);
        errno = S_objLib_OBJ_ID_ERROR;
        return ERROR;
    }
    TEST_POINT();
    free_block(task);
    if (record != nullptr) {
        record_wake(record);
        record_drop(record);
    }
    op_leave(me);
    return OK;
}

status_t taskDelete(taskId_t tid)
{
    return taskDeleteForce(tid);
}
