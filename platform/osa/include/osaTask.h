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
//   - A task inside the C library goes on until it is out again: no lock of the library (of malloc,
//     stdio, the time zone, the environment, the resolver, the loader) stays behind. It is asked
//     again every 200 us, after 20 ms every tick, and ends when that finds it in code of its own.
//     So one that calls such functions without a pause may take a while to be found, and its calls
//     may fail with EINTR meanwhile. Calls that wait are cut short at once, as far as they hold
//     nothing: sleeps, poll and select, read and write, sockets, waits for children and signals,
//     pthread locks and conditions. stdio, a look-up of a name, and with glibc sem_wait and
//     pthread_join, end first. What the library calls back (a comparison for qsort, a handler that
//     runs because of pthread_exit) counts as inside; operations there neither end the task nor
//     give up.
//   - All that is so with glibc and Android's C library on x86-64 and arm64, linked dynamically.
//     Elsewhere, and with KNOWS_C_LIBRARY in endPoint.cpp set to false, a task in the C library
//     ends at once as well, and a lock of the library may stay locked: allocate with ts_malloc or
//     uMalloc there, and delete only tasks that otherwise wait, sleep or compute.
//   - Around a lock of its own it blocks SIGUSR1 (pthread_sigmask). Operations that it calls
//     meanwhile neither end it nor give up; it ends when it lets the signal in again. Locks inside
//     libraries other than the C library are such locks.
//   - It must not be compiled to throw through or catch around the point where it ends; and it is
//     compiled with the unwind tables that are the compilers' default: without, it ends in its next
//     operation only.
//   - A task that ends itself calls taskDelete(taskIdSelf()), and no deletion by somebody else
//     touches it from there on.
// A SIGUSR1 that somebody else in this process sends ends whichever thread receives it, at its next
// safe point: one that waits inside an operation goes on waiting first, and one that is no task
// ends wherever else it is. What another process sends ends nobody; calls that wait may return
// EINTR. Deleting "tExcTask" stops all watchdogs, deleting "tAsyncCall" all asynchronous calls, for
// good.
#pragma once

#include "v2lpthread.h"

#include <pthread.h>
#include <stddef.h>
#include <stdio.h>
#include <sys/time.h>

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
 * @return OK; ERROR, not held, when the caller is no task and the system has no thread-specific key
 *         or memory left to note that it holds the lock: nobody would let it go if the thread ended
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
 * A deleted thread prints "this signal is 10 \n" on standard output once it has let everything go,
 * unless it would have to wait for a reader; one that deletes itself does not.
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
 * Start routine for whoever starts another thread for a task by himself.
 *
 * @param task  a listed block, whose pthrid the pthread_create that starts the thread fills in with
 *              task_list_lock held. Look-ups know the new id once the thread has begun
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

// ---- Clock, ticks and system time ----
//
// Uptime and tick count come from the monotonic clock, whose origin is the boot. Only while that
// clock fails do they follow the wall clock from the instant of tickInit on, 0 for a moment before
// it. Any thread may call any of these; none waits, but for osaUpdateTimeZone.
//
// The program's sysinfo takes the place of libc's for the whole process: it writes nothing and
// returns -1.

/** Milliseconds per tick, 1000 / rate rounded down; every time-out is converted with it. */
extern int msPerTick;

/** Ticks in 30 days, at most INT_MAX. Both change with sysClkRateSet only; read atomically. */
extern int tickPerMonth;

/**
 * The way from val1 up to val2 on a counter that wraps. Equal values are 0 apart; a val2 that lies
 * d below gives 2^64 - d, or 2^32 - d, by which a step back is known.
 */
unsigned long osaLongTimeSpanCompute(unsigned long val1, unsigned long val2);
unsigned int osaIntTimeSpanCompute(unsigned int val1, unsigned int val2);

/** The clock rate in ticks per second, 100 at start. */
int sysClkRateGet(void);

/**
 * Sets the clock rate. Ticks already counted are not rescaled: tickGet jumps to what it would have
 * counted at the new rate, and waits under way keep their deadlines.
 *
 * @param ticks  per second, 1 to 1000; anything else changes nothing
 */
void sysClkRateSet(int ticks);

/** Records the wall clock as the start of the fallback uptime; the root task calls it once. */
void tickInit(void);

/**
 * Measures the start offset again and adopts it when the wall clock went back, or forward by more
 * than tickPerMonth times 10 ms; says so on standard output: "tickReInit, adjust offset."
 */
void tickReInit(void);

/** Ticks of uptime. */
ULONG tickGet(void);

/** Uptime in milliseconds. */
unsigned long osaGetSysUpMs(void);

/** Uptime in seconds; by the fallback up to 1 s ahead of osaGetSysUpMs() / 1000. */
unsigned long osaGetSysUpSeconds(void);

/**
 * Takes a step of the wall clock out of the fallback uptime: it goes on now from what it was at
 * oldTime, plus 50 ms. Does nothing while the monotonic clock works, and when oldTime lies before
 * the start in the same second.
 *
 * @param oldTime    wall-clock reading from before the step
 * @param elapsedMs  not used; the way from oldTime to the call counts as 50 ms
 */
void osaUpdateSysTimeBase(struct timeval oldTime, uint32_t elapsedMs);

/**
 * Sets the system's clock to a local date and time. Values out of range carry over as in mktime,
 * and the zone decides whether daylight saving applies.
 *
 * @param tm_year    with the century, 2024
 * @param tm_mon     0 to 11
 * @param tm_mday    1 to 31
 * @param secOffset  seconds to add
 * @return OK, also where there is no such instant or no right to set the clock, which then stays
 */
status_t osaSetTime(int tm_year, int tm_mon, int tm_mday, int tm_hour, int tm_min, int tm_sec,
                    int secOffset);

/** The same as osaSetTime. */
status_t osaSetTimer(int tm_year, int tm_mon, int tm_mday, int tm_hour, int tm_min, int tm_sec,
                     int secOffset);

/**
 * Sets the time zone: TZ of this process, and through the shell the file /etc/TZ for the others.
 * On the device /etc/TZ cannot be written and nobody reads it: there the zone is this process's
 * alone, for as long as it runs.
 *
 * @param tzString  as in TZ, up to 92 characters: letters, digits and + - : , . / _ < >
 * @return OK, whatever the shell made of it; ERROR with nothing changed for a null or empty text,
 *         a longer one, one with any other character, one that leads to a file outside the
 *         directory of zones ("/" in front, also behind ":", or ".."), and without memory
 *
 * Waits for the shell; callers take turns. A task deleted in its own shell command ends after it,
 * one that waits for its turn ends at once. Threads that read the environment or use local time by
 * themselves meanwhile are not protected against the change.
 */
status_t osaUpdateTimeZone(char* tzString);

// ---- Inspection ----
//
// Looking at processes and threads from inside: diagnostics for rare use, printed on standard
// output where nothing else is said. Failures show in the results; errno says nothing.

/** A thread watched by taskListCheckByName. */
typedef struct {
    int threadId; // the system's id of the thread, as gettid gives it
    int exist;    // 1 when the last check found the thread
} TASK_STATUS_T;

/** The threads registered with taskNeedCheck, in that order, and their number. To be read only. */
extern TASK_STATUS_T taskStatus[100];
extern int checkTaskStatusNum;

/**
 * Id of the first process, in the order of /proc, whose command line fits a name: its first
 * argument (of which 255 bytes count) contains the name or is contained in it. Upper and lower
 * case differ; a process without a command line never fits.
 *
 * @return -1 for a null name, when no process fits, and when it is gone before its id was read
 *
 * Every process costs two shell commands, which copy through /tmp/cmdline and /tmp/stat: no other
 * process may search at the same time. Whatever has these names is removed. Where that is not
 * allowed, or where others could exchange the copies because /tmp is theirs or open to all without
 * the sticky bit, no process is found; nor is one on the device, where there is no /tmp and no
 * command is run. Searches of this process take turns; a deletion of the caller takes effect while
 * it waits for its turn and between two processes.
 */
int getPidByName(char* processName);

/**
 * Checks that threads of a process exist and are neither dead, zombies nor stopped.
 *
 * @param processName  first word of the process's name, found by getPidByName; null: this process
 * @param thread       the threads; the check sets exist in each. Null: as if threadNum were 0
 * @return 0 when all are well, and when the check cannot be made; otherwise the process id
 *
 * Prints what is amiss: "Can not find process %s!", "file=%s open failed!", "file read error!",
 * "cannot open %s", "one or more thread is not exist!". No two checks of the same entries at a
 * time. With a name, what is said of getPidByName holds here as well.
 */
int taskListCheckByName(char* processName, TASK_STATUS_T* thread, int threadNum);

/** taskListCheckByName of this process for the registered threads; one caller at a time. */
int taskListCheck(void);

/**
 * Registers the calling thread for taskListCheck, for good: it is missed once it has ended. After
 * 100 registrations nothing happens any more. Any thread, also during a check.
 */
void taskNeedCheck(void);

/**
 * Prints one line about a task: id, control block, name ("NULLTASK" if it has none), and the
 * scheduling that its thread was created with. The caller keeps the block alive. Without a block or
 * a stream: nothing.
 */
void taskShow(FILE* out, task_t* t);

/** Writes nothing. @return 0 */
int taskList(FILE* out, int mem);

/**
 * Lists the tasks, oldest first.
 *
 * @param list    the low 32 bits of their ids go here; null ends the process with a message
 * @param maxIds  room at list
 * @return ids stored
 *
 * Waits for the task lock and holds it for the moment.
 */
int taskIdListGet(int* list, int maxIds);

/**
 * Name of a status code.
 *
 * @return a constant; for other numbers the text of strerror, which the thread's next call of
 *         strerror may replace, or "Unknown error" where it has none for want of memory. None of
 *         them may be written to.
 */
char* VxWorksError(int status);

/**
 * Shows that priorities do not reach the threads: starts "tLowPri" and three ticks later
 * "tHighPri", which print 1000 lines each, and returns.
 */
void initCheckPriority(void);

// ---- Thread pool ----
//
// One pool per process: a fixed number of threads that run jobs from one queue, first in, first
// out. The threads are no tasks; they have no control block, name or priority. Jobs run with no
// lock held, may take as long as they like, and may queue further jobs.

/**
 * Creates the pool.
 *
 * @param thrPoolSize  worker threads, 1 to 4194304, which is as many as Linux has thread ids
 * @return OK, also when only some of the threads could be created; ERROR for any other size, when
 *         there is a pool already, without memory (the message "malloc ... error" goes to standard
 *         error) and when no thread could be created, all with nothing left behind
 *
 * Not while another thread is in any of these three operations.
 */
status_t taskThrPoolCreate(int32_t thrPoolSize);

/**
 * Queues a job.
 *
 * @param entry      called with arg as its only argument; the result is ignored
 * @param pthrIndex  the worker that is to run it, from 0; -1 for any. A chosen worker that sleeps
 *                   wakes at once, one at work runs the job when its turn comes
 * @return OK; ERROR without a pool, for a null entry, an index outside the pool, a worker that
 *         could not be created or has ended, and without memory (with a message, as above)
 *
 * Any thread, jobs included. Jobs for any worker begin in the order in which they were queued, and
 * so do the jobs for one worker. A job that ends its thread takes the worker out of the pool: jobs
 * queued for that worker do not run.
 */
status_t taskThrPoolAddTask(FUNCPTR entry, void* arg, int32_t pthrIndex);

/**
 * Shuts the pool down: waits until the jobs that are running have returned, and throws the queued
 * ones away.
 *
 * @return OK, a new pool may be created; ERROR without a pool, and for a job that calls this
 *
 * Not while a thread other than the workers is in any of these three operations. Jobs that are
 * still running may go on to queue jobs, which never run. A task deleted while it waits here
 * leaves a pool that runs no more jobs; another call finishes the work.
 */
status_t taskThrPoolDestroy(void);

#ifdef __cplusplus
}
#endif
