// Thread pool: one per process, a fixed number of plain threads that run the jobs of one queue.
//
// The queue holds all jobs in the order they came. Chained through it run the jobs for any worker
// and, for each worker, those for it alone, so that a worker finds its next job without looking at
// those of others, however many wait for a busy one.
//
// A worker without a job enters the list of idle ones and sleeps on a condition of its own. Whoever
// takes it out of that list wakes it:
//   - A chosen worker that is idle is woken for its job at once, and nobody else is.
//   - For jobs for any worker one scout at a time is on its way, the latest to have fallen asleep.
//     It takes a job and sends the next scout if it leaves others behind. So a burst of small jobs
//     costs a few wake-ups and not one for each, while jobs that take long still get all workers.
// Whenever the mutex is let go, either no job for any waits, or nobody is idle, or a scout is on
// its way; one that ends instead sends another. A scout that finds nothing goes back to sleep.
//
// A worker is inside an operation except while a job runs. When its thread ends in a job, it leaves
// the pool in a cleanup handler; the job was its to free. The pool's memory lives until all its
// threads were joined, so a worker may touch it to the last.
//
// Locks: thrPoolMutex, innermost. Workers sleep on their wake, taskThrPoolDestroy on thrPoolCond.
#include "osaTask.h"

#include "internal.h"

#include <stdio.h>

static constexpr lock_role_t poolHeld; // thrPoolMutex
static constexpr int32_t ANY_WORKER = -1;
static constexpr int32_t WORKERS_MAX = 1 << 22; // Linux has no more thread ids

/** One worker. Guarded by thrPoolMutex unless said otherwise. */
typedef struct thrPoolWorker {
    pthread_cond_t wake;            // signalled once the worker was taken out of the idle list
    thrPoolJobs_t jobs;             // those for this worker alone
    struct thrPoolWorker* nextIdle; // meaningful in the idle list
    bool idle;                      // in the idle list
    bool running;                   // its thread exists and has not begun to end
    thrPoolJobQueue_t* job;         // in its hands; own thread only
} thrPoolWorker_t;

static_assert(alignof(thrPoolWorker_t) <= alignof(thrPool_t), "workers follow the pool's record");

static thrPool_t* thrPool = nullptr; // atomic: released when built, before a worker starts

// ---- The queue ----

static thrPoolJobs_t* jobs_of_kind_locked(thrPool_t* pool, int32_t index) REQUIRES(poolHeld)
{
    return index == ANY_WORKER ? &pool->jobsForAny : &pool->workers[index].jobs;
}

static void append_job_locked(thrPool_t* pool, thrPoolJobQueue_t* job) REQUIRES(poolHeld)
{
    thrPoolJobs_t* kind = jobs_of_kind_locked(pool, job->pthrIndex);
    thrPoolJobQueue_t* tail = pool->jobQueueTail;

    job->number = pool->jobsQueued++;
    job->previousJob = tail;
    *(tail != nullptr ? &tail->nextJobQueue : &pool->jobQueueHead) = job;
    pool->jobQueueTail = job;
    *(kind->last != nullptr ? &kind->last->nextOfKind : &kind->first) = job;
    kind->last = job;
}

// The job is the first of its kind.
static void unlink_job_locked(thrPool_t* pool, thrPoolJobQueue_t* job) REQUIRES(poolHeld)
{
    thrPoolJobs_t* kind = jobs_of_kind_locked(pool, job->pthrIndex);
    thrPoolJobQueue_t* before = job->previousJob;
    thrPoolJobQueue_t* after = job->nextJobQueue;

    kind->first = job->nextOfKind;
    if (kind->first == nullptr) {
        kind->last = nullptr;
    }
    *(before != nullptr ? &before->nextJobQueue : &pool->jobQueueHead) = after;
    *(after != nullptr ? &after->previousJob : &pool->jobQueueTail) = before;
}

// Takes the oldest job that a worker may run out of the queue; null if there is none.
static thrPoolJobQueue_t* take_job_locked(thrPool_t* pool, thrPoolWorker_t* worker)
    REQUIRES(poolHeld)
{
    thrPoolJobQueue_t* job = worker->jobs.first;
    thrPoolJobQueue_t* for_any = pool->jobsForAny.first;

    if (job == nullptr || (for_any != nullptr && for_any->number < job->number)) {
        job = for_any;
    }
    if (job != nullptr) {
        unlink_job_locked(pool, job);
    }
    return job;
}

// ---- Idle workers ----

static void unlink_idle_locked(thrPool_t* pool, thrPoolWorker_t* worker) REQUIRES(poolHeld)
{
    thrPoolWorker_t** link = &pool->idle;

    while (*link != worker) {
        link = &(*link)->nextIdle;
    }
    *link = worker->nextIdle;
    worker->idle = false;
}

// Takes a worker for a job out of the idle list, for the caller to signal; null if none is idle.
static thrPoolWorker_t* rouse_locked(thrPool_t* pool, int32_t index) REQUIRES(poolHeld)
{
    thrPoolWorker_t* worker = index == ANY_WORKER ? pool->idle : &pool->workers[index];

    if (worker == nullptr || !worker->idle) {
        return nullptr;
    }
    unlink_idle_locked(pool, worker);
    return worker;
}

// Sends an idle worker for the jobs for any, for the caller to signal; null if none is needed. One
// is sent at a time: it sends the next itself if it leaves jobs behind.
static thrPoolWorker_t* send_scout_locked(thrPool_t* pool) REQUIRES(poolHeld)
{
    if (pool->scout == nullptr && pool->jobsForAny.first != nullptr) {
        pool->scout = rouse_locked(pool, ANY_WORKER);
        return pool->scout;
    }
    return nullptr;
}

static void sleep_locked(thread_record_t* me, thrPool_t* pool, thrPoolWorker_t* worker)
    REQUIRES(poolHeld)
{
    worker->nextIdle = pool->idle;
    pool->idle = worker;
    worker->idle = true;
    op_wait(me, &worker->wake, &pool->thrPoolMutex, nullptr);
    if (worker->idle) {
        unlink_idle_locked(pool, worker); // nobody's doing: the wait returned for no reason
    }
    if (pool->scout == worker) {
        pool->scout = nullptr;
    }
}

// After the mutex was let go, or the worker would wake up only to wait for it.
static void wake(thrPoolWorker_t* worker)
{
    TEST_POINT();
    if (worker != nullptr) {
        pthread_cond_signal(&worker->wake);
    }
}

// ---- A worker's thread ----

// Waits for a job; null when the worker is to end. One whose thread was told to end takes no more,
// or the job would be lost with it.
static thrPoolJobQueue_t* next_job(thread_record_t* me, thrPool_t* pool, thrPoolWorker_t* worker)
{
    thrPoolJobQueue_t* job = nullptr;
    thrPoolWorker_t* other = nullptr;

    LOCK_SECTION(&pool->thrPoolMutex, poolHeld);
    while (job == nullptr && pool->destroyFlag == 0 && !end_asked(me)) {
        job = take_job_locked(pool, worker);
        if (job == nullptr) {
            sleep_locked(me, pool, worker);
        }
    }
    other = send_scout_locked(pool);
    END_SECTION(poolHeld);
    wake(other);
    return job;
}

static void run_job(thread_record_t* me, thrPoolWorker_t* worker, thrPoolJobQueue_t* job)
{
    worker->job = job;
    callout_begin(me);
    reinterpret_cast<int (*)(void*)>(job->entry)(job->arg);
    callout_end(me);
    worker->job = nullptr;
    ts_free(job);
}

// A cleanup handler, for a job may end its thread. The worker is awake then: neither idle nor the
// scout, and whatever it left behind in the queue it sent a scout for when it took its job.
static void leave_pool(void* arg)
{
    ending_enter();
    thrPoolWorker_t* worker = static_cast<thrPoolWorker_t*>(arg);
    thrPool_t* pool = load_acquire(&thrPool);

    LOCK_SECTION(&pool->thrPoolMutex, poolHeld);
    worker->running = false;
    if (--pool->workersLeft == 0) {
        pthread_cond_broadcast(&pool->thrPoolCond);
    }
    END_SECTION(poolHeld);
    ts_free(worker->job);
}

// The worker that the calling thread is; null for any other thread.
static thrPoolWorker_t* own_worker(thrPool_t* pool)
{
    const pthread_t self = pthread_self();

    for (int32_t i = 0; i < pool->thrPoolSize; i++) {
        if (pool->pthrIds[i] == self) {
            return &pool->workers[i];
        }
    }
    return nullptr;
}

// The creator holds the mutex until pthrIds is complete.
static thrPoolWorker_t* find_own_worker(thrPool_t* pool)
{
    thrPoolWorker_t* worker = nullptr;

    LOCK_SECTION(&pool->thrPoolMutex, poolHeld);
    worker = own_worker(pool);
    END_SECTION(poolHeld);
    return worker;
}

static void work(thread_record_t* me, thrPool_t* pool, thrPoolWorker_t* worker)
{
    thrPoolJobQueue_t* job = next_job(me, pool, worker);

    while (job != nullptr) {
        run_job(me, worker, job);
        job = next_job(me, pool, worker);
    }
    if (end_asked(me)) {
        thread_end(me);
    }
}

static void* taskThreadEntry(void)
{
    thrPool_t* pool = load_acquire(&thrPool);

    if (pool == nullptr) {
        return nullptr;
    }
    op_enter();
    thrPoolWorker_t* const worker = find_own_worker(pool);
    pthread_cleanup_push(leave_pool, worker);
    work(self_record, pool, worker);
    pthread_cleanup_pop(1);
    return nullptr;
}

// ---- The pool ----

static void free_pool(thrPool_t* pool)
{
    for (int32_t i = 0; i < pool->thrPoolSize; i++) {
        pthread_cond_destroy(&pool->workers[i].wake);
    }
    while (pool->jobQueueHead != nullptr) {
        thrPoolJobQueue_t* job = pool->jobQueueHead;
        pool->jobQueueHead = job->nextJobQueue;
        ts_free(job);
    }
    pthread_mutex_destroy(&pool->thrPoolMutex);
    pthread_cond_destroy(&pool->thrPoolCond);
    ts_free(pool->pthrIds);
    ts_free(pool);
}

static thrPool_t* new_pool(int32_t size)
{
    const size_t count = static_cast<size_t>(size);
    const size_t bytes = sizeof(thrPool_t) + count * sizeof(thrPoolWorker_t);
    thrPool_t* pool = static_cast<thrPool_t*>(ts_malloc(bytes));

    if (pool == nullptr) {
        perror("malloc thrPool error");
        return nullptr;
    }
    pool->pthrIds = static_cast<pthread_t*>(ts_malloc(count * sizeof(pthread_t)));
    if (pool->pthrIds == nullptr) {
        perror("malloc pthrIds error");
        ts_free(pool);
        return nullptr;
    }
    pool->thrPoolSize = size;
    pool->workers = reinterpret_cast<thrPoolWorker_t*>(pool + 1);
    pthread_mutex_init(&pool->thrPoolMutex, nullptr);
    pthread_cond_init(&pool->thrPoolCond, nullptr);
    for (int32_t i = 0; i < size; i++) {
        pthread_cond_init(&pool->workers[i].wake, nullptr);
    }
    return pool;
}

static void start_worker_locked(thrPool_t* pool, int32_t index) REQUIRES(poolHeld)
{
    pthread_t* id = &pool->pthrIds[index];

    if (pthread_create(
            id, nullptr, [](void*) { return taskThreadEntry(); }, nullptr) != 0) {
        *id = 0;
        return;
    }
    pool->workers[index].running = true;
    pool->workersLeft++;
}

// Starts as many workers as the system lets; returns how many.
static int32_t start_workers(thrPool_t* pool)
{
    int32_t started = 0;

    LOCK_SECTION(&pool->thrPoolMutex, poolHeld);
    for (int32_t i = 0; i < pool->thrPoolSize; i++) {
        start_worker_locked(pool, i);
    }
    started = pool->workersLeft;
    END_SECTION(poolHeld);
    return started;
}

// False when the caller is to end before the last worker has.
static bool stop_workers(thread_record_t* me, thrPool_t* pool)
{
    bool stopped = false;

    LOCK_SECTION(&pool->thrPoolMutex, poolHeld);
    pool->destroyFlag = 1;
    while (pool->idle != nullptr) {
        pthread_cond_signal(&rouse_locked(pool, ANY_WORKER)->wake);
    }
    while (pool->workersLeft > 0 && !end_asked(me)) {
        op_wait(me, &pool->thrPoolCond, &pool->thrPoolMutex, nullptr);
    }
    stopped = pool->workersLeft == 0;
    END_SECTION(poolHeld);
    return stopped;
}

static void join_workers(const thrPool_t* pool)
{
    for (int32_t i = 0; i < pool->thrPoolSize; i++) {
        if (pool->pthrIds[i] != 0) {
            pthread_join(pool->pthrIds[i], nullptr);
        }
    }
}

static bool has_runner_locked(const thrPool_t* pool, int32_t index) REQUIRES(poolHeld)
{
    return index == ANY_WORKER ? pool->workersLeft > 0 : pool->workers[index].running;
}

static status_t queue_job(thrPool_t* pool, FUNCPTR entry, void* arg, int32_t index)
{
    thrPoolWorker_t* worker = nullptr;
    bool queued = false;

    thrPoolJobQueue_t* job = static_cast<thrPoolJobQueue_t*>(ts_malloc(sizeof(thrPoolJobQueue_t)));
    if (job == nullptr) {
        perror("malloc thrPoolJobQueue_t error");
        return ERROR;
    }
    job->entry = entry;
    job->arg = arg;
    job->pthrIndex = index;
    LOCK_SECTION(&pool->thrPoolMutex, poolHeld);
    queued = has_runner_locked(pool, index);
    if (queued) {
        append_job_locked(pool, job);
        worker = index == ANY_WORKER ? send_scout_locked(pool) : rouse_locked(pool, index);
    }
    END_SECTION(poolHeld);

    if (!queued) {
        ts_free(job);
        return ERROR;
    }
    wake(worker);
    return OK;
}

status_t taskThrPoolCreate(int32_t thrPoolSize)
{
    status_t status = ERROR;

    if (thrPoolSize < 1 || thrPoolSize > WORKERS_MAX || load_acquire(&thrPool) != nullptr) {
        return ERROR;
    }
    thread_record_t* me = op_enter();
    thrPool_t* pool = new_pool(thrPoolSize);
    if (pool != nullptr) {
        store_release(&thrPool, pool);
        if (start_workers(pool) > 0) {
            status = OK;
        } else {
            store_release<thrPool_t*>(&thrPool, nullptr);
            free_pool(pool);
        }
    }
    op_leave(me);
    return status;
}

status_t taskThrPoolAddTask(FUNCPTR entry, void* arg, int32_t pthrIndex)
{
    thrPool_t* pool = load_acquire(&thrPool);

    if (pool == nullptr || entry == nullptr || pthrIndex >= pool->thrPoolSize ||
        pthrIndex < ANY_WORKER) {
        return ERROR;
    }
    thread_record_t* me = op_enter();
    const status_t status = queue_job(pool, entry, arg, pthrIndex);
    op_leave(me);
    return status;
}

status_t taskThrPoolDestroy(void)
{
    thrPool_t* pool = load_acquire(&thrPool);

    // A worker would wait for itself.
    if (pool == nullptr || own_worker(pool) != nullptr) {
        return ERROR;
    }
    thread_record_t* me = op_enter();
    const bool stopped = stop_workers(me, pool);
    if (stopped) {
        join_workers(pool);
        store_release<thrPool_t*>(&thrPool, nullptr);
        free_pool(pool);
    }
    op_leave(me);
    return stopped ? OK : ERROR;
}
