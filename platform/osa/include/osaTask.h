// Tasks: named POSIX threads with a control block in one list, looked up by id or name, delayed in
// ticks and deleted by signal; the process-wide task lock; and the layer's allocator.
//
// A task's id is the pthread_t of its thread. Priority, options and stack size do not reach the
// thread: every task runs with the platform's default attributes, and the priority is only
// remembered. There is no suspension, restart or deletion safety; those calls answer ENOSYS.
// Every thread may call every operation. One that was not spawned here has no control block: it is
// not found in look-ups, and taskLock leaves its priority alone.
//
// Being deleted. taskDelete sends SIGUSR1, which this process reserves for it. A task inside an
// operation of the layer or of the utility library finishes or gives up that operation, lets go of
// what the operation holds, and ends on its way out of it; a wait is cut short. A task in code of
// its own ends at once, wherever it is, by pthread_exit: handlers that it pushed with
// pthread_cleanup_push run. What this means for code that may be deleted:
//   - A mutex-kind semaphore that it holds stays locked for ever.
//   - If it is inside the C library at that moment (malloc, printf, a resolver call), a lock of the
//     C library may stay locked. Allocate with ts_malloc or uMalloc, and delete only tasks that
//     otherwise wait, sleep or compute.
//   - It must not be compiled to throw through or catch around the point where it ends.
// A SIGUSR1 that somebody else sends ends whichever thread receives it, at its next safe point: one
// that waits inside an operation goes on waiting first.
// Deleting "tExcTask" stops all watchdogs, deleting "tAsyncCall" all asynchronous calls, for good.
#pragma once

#include "v2lpthread.h"

#include <pthread.h>
#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/** Control blocks of the live tasks, in spawn order. Read and changed under task_list_lock. */
extern task_t* task_list;
extern pthread_mutex_t task_list_lock;

/** Guards the owner and the depth of the task lock; not the task lock itself. */
extern pthread_mutex_t v2pthread_task_lock;

/**
 * Starts a task: a new thread that calls entry with the ten arguments and ends when it returns.
 *
 * @param name     thread name, of which the system shows 15 bytes; copied. Null: a task without a
 *                 name, whose thread keeps the spawner's
 * @param pri      remembered for taskPriorityGet
 * @param opts     not used
 * @param stksize  not used
 * @return the task id, or ERROR (as taskId_t) with errno
 *           S_smObjLib_NOT_INITIALIZED   null entry, or no memory for the control block
 *           S_memLib_NOT_ENOUGH_MEMORY   the thread could not be created
 *         Without memory for the name the task runs unnamed.
 *
 * The task is in the list before it runs, so it finds itself, and may be gone again before the
 * call returns. Locks of the task list are held while the thread is created.
 */
taskId_t taskSpawn(char* name, int pri, int opts, int stksize, FUNCPTR entry, int arg1, int arg2,
                   int arg3, int arg4, int arg5, int arg6, int arg7, int arg8, int arg9, int arg10);

/**
 * Sleeps for a number of ticks of msPerTick milliseconds; 0 yields for a microsecond. The whole
 * time is slept however long it is, on the monotonic clock, interrupted signals included.
 *
 * @return OK; ERROR at once for a negative interval, errno untouched
 *
 * A deletion of the caller takes effect during the sleep.
 */
status_t taskDelay(int interval);

/** The calling thread's id, task or not. */
taskId_t taskIdSelf(void);

/**
 * Tells whether an id names a task; 0 asks about the caller.
 *
 * @return OK, or ERROR with errno S_objLib_OBJ_ID_ERROR
 */
int taskIdVerify(taskId_t taskid);

/**
 * Name of a task; 0 asks for the caller's.
 *
 * @return the task's own copy, valid while the task exists and not to be written to; null for a
 *         task without a name; "NULLTASK" when the id names no task
 */
addr_t taskName(taskId_t tid);

/**
 * Id of the oldest task of exactly this name.
 *
 * @return 0 when there is none, or for a null or empty name; errno untouched
 */
taskId_t taskNameToId(char* name);

/**
 * Priority that a task was spawned with; 0 asks for the caller's.
 *
 * @param priority  where it goes; may be null
 * @return OK, or ERROR with errno S_objLib_OBJ_ID_ERROR
 *
 * Waits for the task lock.
 */
status_t taskPriorityGet(taskId_t tid, int* priority);

/** Accepted and ignored: OK. */
status_t taskPrioritySet(taskId_t tid, int pri);

/**
 * Takes the task lock, which stands in for the kernel's preemption lock: other callers of taskLock
 * wait, nothing else does. Recursive. A task that holds it runs at the highest priority of its
 * policy, where the system permits. A thread that ends lets it go.
 *
 * @return OK
 */
int taskLock(void);

/** Undoes one taskLock. By a thread that does not hold the lock: nothing. @return OK */
int taskUnlock(void);

/**
 * Deletes a task, see above for what that means to it. Its control block is gone and its id names
 * nothing when the call returns; the thread itself may need a moment longer.
 *
 * With the caller's own id, task or not, the calling thread ends and the call does not return.
 *
 * @return OK; ERROR for id 0, errno untouched; ERROR with errno S_objLib_OBJ_ID_ERROR for an id
 *         that names no task, in which case nobody is signalled
 *
 * A deleted thread prints "this signal is 10 \n" on standard output; one that deletes itself does
 * not.
 */
status_t taskDelete(taskId_t tid);

/** The same as taskDelete. */
int taskDeleteForce(taskId_t tid);

/** The round-robin flag, 1 at start: stored and reported, read by nothing else. */
void enableRoundRobin(void);
void disableRoundRobin(void);
int roundRobinIsEnabled(void);

/**
 * Allocates zero-filled memory; every control block of the layer comes from here.
 *
 * @param blksize  bytes
 * @return the block, released with ts_free; or null
 */
void* ts_malloc(size_t blksize);

/** Releases memory of ts_malloc; null is ignored. */
void ts_free(void* blkaddr);

/** The caller's control block, or null. The caller holds task_list_lock. */
task_t* my_task(void);

/** The control block of a task, 0: the caller's; or null. The caller holds task_list_lock. */
task_t* task_for(taskId_t taskid);

/**
 * Start routine of every task thread.
 *
 * @param task  a listed block, whose pthrid the pthread_create that starts the thread fills in with
 *              task_list_lock held
 * @return null
 */
void* task_wrapper(task_t* task);

/**
 * Not supported on this platform: errno ENOSYS, which is also the result. taskInit initialises the
 * mutex and the condition of the block it is handed first.
 */
int taskInit(task_t* task, char* name, int pri, int opts, char* pstack, int stksize, FUNCPTR entry,
             int arg1, int arg2, int arg3, int arg4, int arg5, int arg6, int arg7, int arg8,
             int arg9, int arg10);
int taskActivate(taskId_t tid);
int taskSuspend(taskId_t tid);
int taskResume(taskId_t tid);
int taskRestart(taskId_t tid);
int taskSafe(void);
int taskUnsafe(void);

/** Not supported either: errno ENOSYS; always 1. */
int taskIsReady(taskId_t taskid);

/** Not supported either: errno ENOSYS; always 0. */
int taskIsSuspended(taskId_t taskid);

// ---- Start-up frame ----

/** Status with which the process ends when the daemon is stopped; 0 at start, written by nobody. */
extern int exit_value;

/** Argument vector of the frame: null, for the daemon passes none. */
extern char** _argv;

/**
 * Entry of the root task: initialises the layer, starts the net library and idles for ever. Run
 * once, by the daemon. The arguments are not used.
 */
[[noreturn]] int root_task(int dummy0, int dummy1, int dummy2, int dummy3, int dummy4, int dummy5,
                           int dummy6, int dummy7, int dummy8, int dummy9);

#ifdef __cplusplus
}
#endif
