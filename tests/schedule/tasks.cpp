// Tasks: one deletion of several counts, a task ends in whatever wait it is, restarts and deletions
// meet, and the task lock comes back from whoever ends with it.
#include "explorer.h"
#include "internal.h"
#include "osaMsg.h"
#include "osaSem.h"
#include "osaWd.h"

#include <cerrno>

static taskId_t child;
static int runs; // of the child
static int deletions;
static bool locked;
static SEM_ID sem;
static MSG_Q_ID queue;

static taskId_t spawn(int (*entry)())
{
    static char name[] = "child";
    return taskSpawn(name, 1, 0, 0, reinterpret_cast<FUNCPTR>(entry), 0, 0, 0, 0, 0, 0, 0, 0, 0, 0);
}

static int run_once()
{
    runs++;
    return 0;
}

static int wait_for_ever()
{
    semTake(sem, WAIT_FOREVER);
    return 0;
}

static void remove()
{
    errno = 0;
    const bool first = taskDelete(child) == OK;
    EXPECT(first || errno == S_objLib_OBJ_ID_ERROR);
    deletions += first ? 1 : 0;
}

static void lock_and_unlock()
{
    if (taskLock() == OK) {
        EXPECT(!locked || cut_short());
        locked = true;
        EXPECT(taskLock() == OK && taskUnlock() == OK);
        locked = false;
        taskUnlock();
    }
}

static void lock_and_end()
{
    if (taskLock() == OK) {
        EXPECT(!locked || cut_short());
        taskLock();
        pthread_exit(nullptr);
    }
}

static void look_at_child()
{
    EXPECT(taskIdVerify(child) == OK || errno == S_objLib_OBJ_ID_ERROR);
    const taskId_t named = taskNameToId(const_cast<char*>("child"));
    EXPECT(named == 0 || child == 0 || named == child);
}

// ---- Every wait ----

static bool nobody_deletes()
{
    return !deletes();
}

static void hold_task_lock()
{
    taskLock();
}

static void give_task_lock()
{
    EXPECT(cut_short(0));
    taskUnlock();
}

static void delete_sem()
{
    EXPECT(cut_short(0));
    semDelete(sem);
}

static void delete_queue()
{
    EXPECT(cut_short(0));
    EXPECT(msgQNumMsgs(queue) <= 1 && msgQDelete(queue) == OK);
}

static void wait_for_sem()
{
    semTake(sem, WAIT_FOREVER);
}

// ---- Restarts ----

// Asks for restarts in its first run and ends; stays in its second.
template <int RESTARTS> static int restart()
{
    if (runs++ > 0) {
        return wait_for_ever();
    }
    for (int i = 0; i < RESTARTS; i++) {
        pthread_mutex_lock(&task_list_lock);
        selfRestart(my_task());
        pthread_mutex_unlock(&task_list_lock);
    }
    pthread_exit(nullptr);
}

template <int RESTARTS> static void prepare_restart()
{
    sem = semBCreate(0, SEM_EMPTY);
    child = spawn(restart<RESTARTS>);
}

static void tick()
{
    process_wdog();
}

static taskId_t id_of_child()
{
    return taskNameToId(const_cast<char*>("child"));
}

// It runs again for good, or is gone.
static void check_restart()
{
    process_wdog();
    EXPECT(runs <= 2);
    if (id_of_child() != 0) {
        EXPECT(deletions == 0 && (runs == 2 || cut_short()) && taskDelete(id_of_child()) == OK);
    }
    wait_until([] { return task_list == nullptr || task_list->taskname[0] != 'c'; });
    semDelete(sem);
}

static void remove_by_name()
{
    deletions += taskDelete(id_of_child()) == OK ? 1 : 0;
}

static constexpr int WATCHDOGS = 1; // the memory of their index
static constexpr int QUEUES = 2;

static const scenario tasks[] = {
    {"task.spawn-delete", // at once, and while its entry returns
     nullptr,
     {{"spawner",
       [] {
           child = spawn(run_once);
           remove();
       }},
      {"looker", look_at_child}},
     [] { EXPECT(runs <= 1); }},
    {"task.delete-by-two",
     [] {
         sem = semBCreate(0, SEM_EMPTY);
         child = spawn(wait_for_ever);
     },
     {{"one", remove}, {"two", remove}, {"looker", look_at_child}},
     [] {
         EXPECT(deletions == 1 || cut_short());
         if (taskIdVerify(child) == OK) {
             EXPECT(cut_short() && taskDelete(child) == OK);
         }
         wait_until([] { return taskNameToId(const_cast<char*>("child")) == 0; });
         taskDelay(1);
         EXPECT(semDelete(sem) == OK);
     }},
    {"task.delete-each-other",
     nullptr,
     {{"one", [] { taskDelete(task_of(1)); }}, {"two", [] { taskDelete(task_of(0)); }}},
     [] { EXPECT(cut_short()); }},
    {"task.delete-oneself",
     nullptr,
     {{"self", [] { taskDelete(taskIdSelf()); }}, {"other", [] { taskDelete(task_of(0)); }}},
     [] { EXPECT(cut_short(0) || cut_short(1)); }},
    {"task.delay",
     nullptr,
     {{"sleeper", [] { taskDelay(3); }}, {"other", [] { taskDelete(task_of(0)); }, true}},
     nullptr},
    {"task.wait-for-token",
     [] { sem = semBCreate(0, SEM_EMPTY); },
     {{"waiter", wait_for_sem}},
     delete_sem,
     0,
     nobody_deletes},
    {"task.wait-for-mutex",
     [] {
         sem = semMCreate(0);
         semTake(sem, WAIT_FOREVER);
     },
     {{"waiter", wait_for_sem}},
     [] {
         EXPECT(reinterpret_cast<v2lsem_t*>(sem)->mutex_waiters == 0);
         semGive(sem);
         delete_sem();
     },
     0,
     nobody_deletes},
    {"task.wait-for-message",
     [] { queue = msgQCreate(1, 1, 0); },
     {{"waiter", [] { msgQReceive(queue, nullptr, 1, WAIT_FOREVER); }}},
     delete_queue,
     QUEUES,
     nobody_deletes},
    {"task.wait-for-room",
     [] {
         queue = msgQCreate(1, 1, 0);
         msgQSend(queue, nullptr, 0, NO_WAIT, MSG_PRI_NORMAL);
     },
     {{"waiter", [] { msgQSend(queue, nullptr, 0, WAIT_FOREVER, MSG_PRI_NORMAL); }}},
     delete_queue,
     QUEUES,
     nobody_deletes},
    {"task.wait-for-task-lock",
     hold_task_lock,
     {{"waiter", lock_and_unlock}},
     give_task_lock,
     0,
     nobody_deletes},
    {"task.lock-by-three",
     nullptr,
     {{"one", lock_and_unlock}, {"two", lock_and_unlock}, {"plain", lock_and_unlock, true}},
     nullptr,
     0,
     nullptr,
     1},
    {"task.lock-of-one-that-ends",
     nullptr,
     {{"ends", lock_and_end}, {"plain", lock_and_end, true}, {"waits", lock_and_unlock}},
     nullptr},
    {"task.restart-delete",
     prepare_restart<1>,
     {{"ticks", tick, true}, {"deletes", remove_by_name}},
     check_restart,
     WATCHDOGS},
    {"task.restart-by-two", // ticks are plain: the one that is called goes with who is to call it
     prepare_restart<2>,
     {{"ticks", tick, true}, {"other", tick, true}},
     check_restart,
     WATCHDOGS},
};

static const bool known = add_scenarios(tasks);
