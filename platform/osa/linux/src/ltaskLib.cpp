// Tasks: named threads, the list of their control blocks, and deletion by signal.
//
// A block is linked before task_list_lock is let go, and whoever looks it up takes that lock: a
// task always finds itself, unless it was deleted before it began. The list owns the blocks;
// whoever unlinks one frees it. A thread has in its record what it needs of its block and never
// looks at the block otherwise, so a deleter need not wait for it. Only a listed block's thread is
// signalled, under task_list_lock, and a task parts with its block before its thread can end: no
// signal ever goes to an id that is no longer a thread, or is another one by now.
//
// Block and record point to each other while the block is listed and its thread is the one that
// was started last. Restarts are pending with the record of the thread that they replace: that
// thread cannot lose it, while the block may be freed by a deleter at any moment.
//
// Locks, outermost first:
//   task_list_lock            task_list, its index, and every block in it
//   malloc_lock, free_lock    one allocation each, never held together
#include "osaTask.h"

#include "endPoint.h"
#include "internal.h"
#include "taskIndex.h"

#include <errno.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <unistd.h>

task_t* task_list GUARDED_BY(taskListHeld) = nullptr; // in spawn order
static task_t** task_list_end GUARDED_BY(taskListHeld) = &task_list;
pthread_mutex_t task_list_lock = PTHREAD_MUTEX_INITIALIZER;

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
    task_t* task = self_record != nullptr ? load_relaxed(&self_record->block) : nullptr;

    // Another thread may be in its place by now, or be about to.
    return task != nullptr && task->pthrid == pthread_self() ? task : nullptr;
}

task_t* task_for(taskId_t taskid) REQUIRES(taskListHeld)
{
    return taskid == 0 ? my_task() : task_index_find(taskid);
}

static void append_block_locked(task_t* task) REQUIRES(taskListHeld)
{
    task->link = task_list_end;
    *task_list_end = task;
    task_list_end = &task->nxt_task;
    task_index_add(task);
}

static void part_with_record_locked(const task_t* task) REQUIRES(taskListHeld)
{
    task_t* const none = nullptr;

    store_relaxed(&task->record->block, none);
}

static void unlink_block_locked(task_t* task) REQUIRES(taskListHeld)
{
    *task->link = task->nxt_task;
    if (task->nxt_task != nullptr) {
        task->nxt_task->link = task->link;
    } else {
        task_list_end = task->link;
    }
    task_index_remove(task);
    part_with_record_locked(task);
}

static void change_id_locked(task_t* task, pthread_t id) REQUIRES(taskListHeld)
{
    task_index_remove(task);
    task->pthrid = id;
    task_index_add(task);
}

// Threads are objects of several bytes, so none has an odd address for its id.
static taskId_t id_without_thread(const task_t* task)
{
    return static_cast<taskId_t>(reinterpret_cast<uintptr_t>(task) | 1); // signed on the device
}

static bool has_thread(const task_t* task)
{
    return task->pthrid != id_without_thread(task);
}

// A block that is in no list, with its reference to the record.
static void free_block(task_t* task)
{
    if (task->record != nullptr) { // null when there never was a thread
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
    if (task != nullptr && !for_good && load_relaxed(&task->record->restarts) > 0) {
        change_id_locked(task, id_without_thread(task));
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

static bool from_another_process(const siginfo_t* signal)
{
    const int code = signal->si_code; // others name no sender

    return (code == SI_USER || code == SI_TKILL || code == SI_QUEUE) && signal->si_pid != getpid();
}

// Runs in the thread that is to end, between any two of its instructions.
static void thread_exit_handler(int, siginfo_t* signal, void*)
{
    thread_record_t* me = self_record;

    if (from_another_process(signal)) {
        return;
    }
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
    if (place_of(me) != OUTSIDE_C_LIBRARY) {
        end_again_soon(me);
        return;
    }
    thread_end(me);
}

static void install_exit_handler(void)
{
    struct sigaction action = {};

    action.sa_sigaction = thread_exit_handler;
    action.sa_flags = SA_SIGINFO;
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
}

// Whatever way a task's thread ends. It parts with its block first: no deleter finds the thread
// from here on.
static void task_wrapper_cleanup(void*)
{
    ending_enter();
    thread_record_t* me = self_record;

    end_not_again(me);
    TEST_POINT();
    task_delete(false);
    task_lock_leave();
    if (me->signalled != 0) {
        tell_signalled();
    }
    record_retire(me);
}

// ---- A task's thread ----

static void let_exit_signal_in(void)
{
    sigset_t signals;

    sigemptyset(&signals);
    sigaddset(&signals, SIGUSR1);
    pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
}

// The thread's life, at depth 1 and with SIGUSR1 held off until it can be ended like any other. A
// task that was deleted before it began ends when it is about to call its entry.
static void run_task(thread_record_t* me)
{
    const task_start_t* start = &me->start;
    const int* p = start->parms;

    self_record = me;
    me->stack_top = reinterpret_cast<uintptr_t>(__builtin_frame_address(0));
    pthread_cleanup_push(task_wrapper_cleanup, nullptr);
    pthread_detach(pthread_self());
    TEST_POINT();
    install_exit_handler();
    let_exit_signal_in();
    if (start->named) {
        prctl(PR_SET_NAME, start->name, 0, 0, 0);
    }
    callout_begin(me);
    start->entry(p[0], p[1], p[2], p[3], p[4], p[5], p[6], p[7], p[8], p[9]);
    callout_end(me);
    task_delete(true); // an entry that returned is not restarted
    pthread_cleanup_pop(1);
}

static void* thread_start(void* record)
{
    run_task(static_cast<thread_record_t*>(record));
    return nullptr;
}

// A record for a block's next thread, with references for both; not the block's yet.
static thread_record_t* record_for(task_t* task)
{
    thread_record_t* record = record_new();
    if (record == nullptr) {
        return nullptr;
    }
    record_hold(record);
    record->block = task;
    record->own_block = task;
    record->start.entry = task->entry_point;
    memcpy(record->start.parms, task->parms, sizeof task->parms);
    record->start.named = task->taskname != nullptr;
    if (record->start.named) {
        strncpy(record->start.name, task->taskname, THREAD_NAME_SIZE - 1);
    }
    return record;
}

// What restarts are pending with the record that goes find no block any more.
static void change_record_locked(task_t* task, thread_record_t* record) REQUIRES(taskListHeld)
{
    if (task->record != nullptr) { // null for a new block
        part_with_record_locked(task);
        record_drop(task->record);
    }
    task->record = record;
}

// The thread inherits the mask and opens it once it can be ended safely.
static int create_thread(pthread_t* id, const pthread_attr_t* attr, thread_record_t* record)
{
    sigset_t exit_signal;
    sigset_t mask;

    sigemptyset(&exit_signal);
    sigaddset(&exit_signal, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &exit_signal, &mask);
    const int error = pthread_create(id, attr, thread_start, record);
    pthread_sigmask(SIG_SETMASK, &mask, nullptr);
    return error;
}

// The caller enters the block in the index under its new id.
static int new_thread_locked(task_t* task) REQUIRES(taskListHeld)
{
    pthread_t id = 0;

    thread_record_t* record = record_for(task);
    if (record == nullptr) {
        return ENOMEM;
    }
    prepare_deletion_locked();
    const int error = create_thread(&id, &task->attr, record);
    if (error != 0) {
        record_drop(record);
        record_drop(record);
        return error;
    }
    task->pthrid = id;
    change_record_locked(task, record);
    return 0;
}

int task_thread_start(task_t* task)
{
    const int error = new_thread_locked(task);

    if (error == 0) {
        change_id_locked(task, task->pthrid);
    }
    return error;
}

// The block of a thread that was not started here. Its id is not in the index, and the argument may
// be stale.
static thread_record_t* adopt_block(const task_t* block)
{
    thread_record_t* record = nullptr;

    LOCK_SECTION(&task_list_lock, taskListHeld);
    task_t* task = task_list;
    while (task != nullptr && task != block) {
        task = task->nxt_task;
    }
    if (task != nullptr && task->pthrid == pthread_self()) {
        record = record_for(task);
    }
    if (record != nullptr) {
        change_record_locked(task, record);
        change_id_locked(task, task->pthrid);
    }
    END_SECTION(taskListHeld);
    return record;
}

void* task_wrapper(task_t* task)
{
    // Until it has a record of its own the thread is inside an operation on that of plain threads.
    thread_record_t* starter = op_enter();
    thread_record_t* me = adopt_block(task);
    if (me == nullptr) {
        pthread_detach(pthread_self());
        thread_end(starter); // deleted before it began
    }
    run_task(me);
    return nullptr;
}

// ---- Restarts ----

thread_record_t* task_restart_expected(task_t* task)
{
    thread_record_t* me = self_record;
    thread_record_t* restarted = me->own_block == task ? me : task->record;

    record_hold(restarted);
    __atomic_add_fetch(&restarted->restarts, 1, __ATOMIC_RELAXED);
    return restarted;
}

void task_restart_called_off(thread_record_t* restarted)
{
    __atomic_sub_fetch(&restarted->restarts, 1, __ATOMIC_RELAXED);
    record_drop(restarted);
}

void task_restart_due(thread_record_t* restarted)
{
    task_t* given_up = nullptr;

    LOCK_SECTION(&task_list_lock, taskListHeld);
    task_t* task = load_relaxed(&restarted->block);
    if (task != nullptr && task_thread_start(task) != 0 && !has_thread(task) &&
        load_relaxed(&restarted->restarts) == 1) {
        unlink_block_locked(task); // no thread would ever take it out
        given_up = task;
    }
    END_SECTION(taskListHeld);

    if (given_up != nullptr) {
        free_block(given_up);
    }
    task_restart_called_off(restarted);
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
    error = new_thread_locked(task);
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
    if (me->depth == 0 && load_relaxed(&me->pending) != 0) {
        thread_end_if_let(me); // its end was put off on its way into the sleep, or out of it
    }
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
    end_not_again(self_record);
    task_delete(true);
    // Another deleter may have come first, and none can any more. Handlers may wait.
    store_relaxed(&self_record->pending, 0);
    pthread_exit(nullptr);
}

// Returns a reference to the thread's record, or null if there is none to be woken.
static thread_record_t* end_thread_of_locked(const task_t* task) REQUIRES(taskListHeld)
{
    if (!has_thread(task)) {
        return nullptr;
    }
    record_hold(task->record);
    record_ask_end(task->record);
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
