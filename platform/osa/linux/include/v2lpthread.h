// The control blocks behind the handles of the layer.
//
// Fields stand in the order the closed libraries know; what this implementation adds stands at the
// end of a record. Every record comes zero-filled from ts_malloc.
#pragma once

#include "vxw_defs.h"

#include <pthread.h>
#include <sched.h>
#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

struct thread_record; // internal.h: what a thread keeps while it may be ended

/** Entry of a task, with the ten arguments given to taskSpawn. */
typedef int (*task_entry_t)(int, int, int, int, int, int, int, int, int, int);

/** Task control block. The task list owns it; task_list_lock guards all of it. */
typedef struct task_s {
    pthread_mutex_t timemutex; // initialised and destroyed with the block, not used
    pthread_cond_t timecond;   // likewise
    char* taskname;            // own copy; null for a task without a name
    pthread_t pthrid;    // the task id; 0 until the thread exists, odd while there is none and a
                         // restart is to come: no thread has an odd id
    pthread_attr_t attr; // what the thread was created with: all defaults
    struct sched_param prv_priority; // priority that taskUnlock gives the thread back
    task_entry_t entry_point;
    int parms[10];
    int vxw_priority;             // as passed to taskSpawn
    struct task_s* nxt_task;      // next in spawn order
    struct thread_record* record; // what ends the thread behind the block; with a reference
    struct task_s** link;         // what points here in the task list; null when not listed
    struct task_s* same_chain;    // next in the chain of the index
    pthread_t index_id;           // the id that the block stands under there
} task_t;

/** Kinds of semaphore, the values of v2lsem_t::flags. */
static constexpr int SEM_KIND_BINARY = 0;
static constexpr int SEM_KIND_MUTEX = 0x10;
static constexpr int SEM_KIND_COUNTING = 0x20;

/** Bit of the send_type of a semaphore or a queue. */
static constexpr int SEND_DELETED = 2;

/** Semaphore. Guarded by sem_lock unless said otherwise. */
typedef struct v2lsem {
    pthread_mutexattr_t sem_attr; // recursive
    pthread_mutex_t sem_lock;
    pthread_cond_t sem_send;        // signalled on give, broadcast on flush and delete
    pthread_mutexattr_t mutex_attr; // recursive
    pthread_mutex_t mutex_lock;     // the lock that a mutex-kind semaphore is
    int flags;                      // SEM_KIND_, constant
    int token_count;               // written with each change of tokens, for others to read; atomic
    int send_type;                 // SEND_DELETED while going away, else 0; atomic, written locked
    int recursion_level;           // always 0: mutex_lock counts for itself
    struct v2lsem* nxt_sem;        // always null: semaphores are not registered
    int tokens;                    // the count itself, see lsemLib.cpp; atomic
    int waiters;                   // tasks asleep on sem_send
    int users;                     // all that keep the record alive: its id, waiters, wakers
    unsigned int flush_generation; // moves with each flush; a waiter sees that it was flushed
    int mutex_waiters; // tasks asleep on sem_send for mutex_lock; atomic, written with sem_lock
} v2lsem_t;

/** Header of a slot in a queue's ring. Slots are not aligned: read and written with memcpy. */
typedef struct q_msg {
    uint msglen;  // bytes held, 0 when empty
    char* msgbuf; // stands for the message bytes from offset 8, not a pointer
} q_msg_t;

/** A lock for short sections: lockWord.h. */
typedef struct lock_word {
    int held;             // 0 or 1; atomic: acquire by the exchange that takes, release by the give
    int sleepers;         // threads asleep, or about to be; atomic, written with the mutex held
    pthread_cond_t given; // by the monotonic clock
} lock_word_t;

/** The receivers that wait for a message of a queue, or the senders that wait for space in it. */
typedef struct queue_waiters {
    int waiting; // counted in waitTasks as well
    int called;  // calls to go on that nobody has answered by a look under the guard
    int calls;   // those that nobody has taken up yet; guarded by queue_lock or qfull_lock
} queue_waiters_t;

/** Message queue. Guarded by its guard unless said otherwise. */
typedef struct v2pt_mqueue {
    pthread_mutexattr_t queue_attr; // recursive
    pthread_mutex_t queue_lock;
    pthread_cond_t queue_send;      // receivers sleep here, with queue_lock
    pthread_mutexattr_t qdlet_attr; // recursive
    pthread_mutex_t qdlet_lock;
    pthread_cond_t qdlet_cmplt;     // the deleting task sleeps here, with qdlet_lock
    pthread_mutexattr_t qfull_attr; // recursive
    pthread_mutex_t qfull_lock;
    pthread_cond_t queue_space;    // senders sleep here, with qfull_lock
    q_msg_t* queue_head;           // next message to receive
    q_msg_t* queue_tail;           // slot of the next normal message
    int send_type;                 // SEND_DELETED once deletion began; atomic, written guarded
    q_msg_t* first_msg_in_queue;   // slot 0, start of the ring; null: no queue here
    q_msg_t* last_msg_in_queue;    // constant
    struct v2pt_mqueue* nxt_queue; // registry or spare records; guarded by mqueue_list_lock
    int msg_count;
    int msgs_per_queue;        // capacity; constant
    int msg_len;               // longest message in bytes; constant
    size_t vmsg_len;           // slot stride: 8 + msg_len; constant
    int waitTasks;             // tasks waiting on the queue; atomic, written guarded
    queue_waiters_t receivers; // for a message
    queue_waiters_t senders;   // for space
    struct v2pt_mqueue** link; // what points here in the registry; guarded by mqueue_list_lock
    lock_word_t guard;
} v2pt_mqueue_t;

/** Watchdog. Guarded by wdog_list_lock. */
typedef struct v2pt_wdog {
    pthread_mutex_t wdog_lock; // serialises start, cancel and delete of this watchdog
    int ticks_remaining;       // after the predecessor's expiry; 0 when idle
    FUNCPTR timeout_func;
    void* timeout_parm;
    struct v2pt_wdog* next;          // active list; null when idle
    struct thread_record* restarted; // of selfRestart: the thread to be replaced; with a reference
    uint32_t number;                 // in the index of the active list; constant
    int listed;                      // 1: in the active list
} v2pt_wdog_t;

struct thrPoolWorker; // lthrPool.cpp: one worker thread

/** Job of the thread pool. The pool's while it is queued, its worker's once it was taken. */
typedef struct thrPoolJobQueue_t {
    FUNCPTR entry;
    void* arg;
    int32_t pthrIndex; // the only worker that may run it; -1 for any
    struct thrPoolJobQueue_t* nextJobQueue;
    struct thrPoolJobQueue_t* previousJob;
    struct thrPoolJobQueue_t* nextOfKind; // next job for the same worker, or for any
    uint64_t number;                      // the older of two jobs has the lower one
} thrPoolJobQueue_t;

/** Jobs for any worker, or for one of them, oldest first; both null when empty. */
typedef struct {
    thrPoolJobQueue_t* first;
    thrPoolJobQueue_t* last;
} thrPoolJobs_t;

/** Thread pool. Guarded by thrPoolMutex unless said otherwise. */
typedef struct thrPool_t {
    int32_t thrPoolSize;        // as passed to taskThrPoolCreate; constant
    int32_t destroyFlag;        // 1 once taskThrPoolDestroy has begun
    pthread_t* pthrIds;         // of worker 0 and up, 0 for one that is missing; constant
    pthread_cond_t thrPoolCond; // broadcast when the last worker leaves
    pthread_mutex_t thrPoolMutex;
    thrPoolJobQueue_t* jobQueueHead; // oldest job of all; null when the queue is empty
    thrPoolJobQueue_t* jobQueueTail; // latest one; likewise
    thrPoolJobs_t jobsForAny;
    uint64_t jobsQueued;           // so far; numbers the jobs
    struct thrPoolWorker* workers; // thrPoolSize of them, at the end of this block; constant
    struct thrPoolWorker* idle;    // those asleep, the latest first
    struct thrPoolWorker* scout;   // roused for a job for any, not there yet; null for none
    int32_t workersLeft;           // threads that have not begun to end
} thrPool_t;

static_assert(offsetof(q_msg_t, msgbuf) == 8, "message bytes start at byte 8 of a slot");

// Layouts shared with the closed libraries, wherever the C library's types have the sizes that they
// have on the device.
#define DEVICE_TYPES                                                                               \
    (sizeof(pthread_mutex_t) == 40 && sizeof(pthread_cond_t) == 48 &&                              \
     sizeof(pthread_attr_t) == 56 && sizeof(struct sched_param) == 4)
#define SHARED_LAYOUT(condition)                                                                   \
    static_assert(!DEVICE_TYPES || (condition), "shared with the closed libraries")
#if defined(__ANDROID__)
static_assert(DEVICE_TYPES);
#endif
SHARED_LAYOUT(offsetof(task_t, taskname) == 88 && offsetof(task_t, pthrid) == 96);
SHARED_LAYOUT(offsetof(task_t, attr) == 104 && offsetof(task_t, prv_priority) == 160);
SHARED_LAYOUT(offsetof(task_t, entry_point) == 168 && offsetof(task_t, parms) == 176);
SHARED_LAYOUT(offsetof(task_t, vxw_priority) == 216 && offsetof(task_t, nxt_task) == 224);
SHARED_LAYOUT(offsetof(v2lsem_t, flags) == 144 && offsetof(v2lsem_t, token_count) == 148);
SHARED_LAYOUT(offsetof(v2lsem_t, send_type) == 152 && offsetof(v2lsem_t, nxt_sem) == 160);
SHARED_LAYOUT(offsetof(v2pt_mqueue_t, queue_head) == 288);
SHARED_LAYOUT(offsetof(v2pt_mqueue_t, send_type) == 304 &&
              offsetof(v2pt_mqueue_t, nxt_queue) == 328);
SHARED_LAYOUT(offsetof(v2pt_mqueue_t, msg_count) == 336 &&
              offsetof(v2pt_mqueue_t, vmsg_len) == 352);
SHARED_LAYOUT(offsetof(v2pt_mqueue_t, waitTasks) == 360);
SHARED_LAYOUT(offsetof(thrPoolJobQueue_t, pthrIndex) == 16);
SHARED_LAYOUT(offsetof(thrPoolJobQueue_t, nextJobQueue) == 24);
SHARED_LAYOUT(offsetof(thrPool_t, pthrIds) == 8 && offsetof(thrPool_t, thrPoolCond) == 16);
SHARED_LAYOUT(offsetof(thrPool_t, thrPoolMutex) == 64 && offsetof(thrPool_t, jobQueueHead) == 104);
SHARED_LAYOUT(offsetof(v2pt_wdog_t, ticks_remaining) == 40);
SHARED_LAYOUT(offsetof(v2pt_wdog_t, timeout_func) == 48 && offsetof(v2pt_wdog_t, next) == 64);
#undef SHARED_LAYOUT
#undef DEVICE_TYPES

#ifdef __cplusplus
}
#endif
