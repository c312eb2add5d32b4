// Demonstrations of the inspection and of the thread pool, every minute: are the tasks that ought
// to be there still alive, and where do jobs run. Which tasks there are stands in the summary.
#include "nxaLog.h"
#include "osaSem.h"
#include "osaTask.h"

#include "demo.h"

#include <stdio.h>

// ---- Watching tasks ----

// What taskShow prints about the caller. Its control block lives as long as it does; to find it
// takes the list's lock.
static void show_self(char* text, size_t size)
{
    FILE* out = fmemopen(text, size, "w");
    if (out == nullptr) {
        return;
    }
    const sigset_t before = hold_deletion(); // the list's lock is held
    pthread_mutex_lock(&task_list_lock);
    task_t* self = my_task();
    pthread_mutex_unlock(&task_list_lock);
    let_deletion_in(before);
    taskShow(out, self);
    fclose(out);
}

static void check_tasks(void)
{
    int ids[64];
    int alive = 0;
    char self[128] = "";

    const int registered = __atomic_load_n(&checkTaskStatusNum, __ATOMIC_ACQUIRE);
    const int result = taskListCheck(); // says on standard output what is amiss
    for (int i = 0; i < registered; i++) {
        alive += taskStatus[i].exist;
    }
    SAY("task check: %s, %d of %d registered threads are alive; %d tasks in all",
        result == 0 ? "well" : "not well", alive, registered,
        taskIdListGet(ids, sizeof ids / sizeof ids[0]));
    show_self(self, sizeof self);
    SAY("this task: %s", self);
}

// ---- Jobs on a pool ----

static constexpr int WORKERS = 3;
static constexpr int JOBS = 24;

struct job_t {
    int chosen; // worker, -1: any
    pthread_t ran_on;
};

static SEM_ID job_done; // counts

static int run_job(job_t* job)
{
    taskDelay(1); // long enough for the other workers to take part
    job->ran_on = pthread_self();
    semGive(job_done);
    return OK;
}

// Every other job is for a chosen worker, each in turn. @return jobs that were taken
static int queue_jobs(job_t* jobs)
{
    int taken = 0;

    for (int i = 0; i < JOBS; i++) {
        jobs[i] = {i % 2 == 0 ? i / 2 % WORKERS : -1, 0};
        if (taskThrPoolAddTask(reinterpret_cast<FUNCPTR>(run_job), &jobs[i], jobs[i].chosen) ==
            OK) {
            taken++;
        }
    }
    return taken;
}

// The first WORKERS chosen jobs tell the workers' threads: a job does not learn its worker's
// number.
static void report_jobs(const job_t* jobs)
{
    for (int worker = 0; worker < WORKERS; worker++) {
        const pthread_t thread = jobs[size_t{2} * static_cast<size_t>(worker)].ran_on;
        int chosen = 0;
        int others = 0;
        for (int i = 0; i < JOBS; i++) {
            const bool here = thread != 0 && jobs[i].ran_on == thread;
            chosen += here && jobs[i].chosen == worker ? 1 : 0;
            others += here && jobs[i].chosen != worker ? 1 : 0;
        }
        SAY("pool: worker %d ran %d jobs for it and %d others", worker, chosen, others);
    }
}

static void use_the_pool(void)
{
    static job_t jobs[JOBS]; // not on the stack: they outlive a task that is deleted here
    int done = 0;

    if (taskThrPoolCreate(WORKERS) != OK) {
        SAY("no pool");
        return;
    }
    const int taken = queue_jobs(jobs);
    while (done < taken && semTake(job_done, ticks(5'000)) == OK) {
        done++;
    }
    taskThrPoolDestroy();                      // waits for running jobs, throws queued ones away
    while (semTake(job_done, NO_WAIT) == OK) { // of jobs that took too long
        done++;
    }
    SAY("pool: %d of %d jobs ran on %d workers", done, JOBS, WORKERS);
    report_jobs(jobs);
}

static int inspect([[maybe_unused]] int unused)
{
    taskNeedCheck();
    taskDelay(ticks(3'000)); // the others register meanwhile
    for (;;) {
        check_tasks();
        use_the_pool();
        taskDelay(ticks(60'000));
    }
}

void demo_inspect(void)
{
    static char name[] = "tDemoInspect";

    job_done = semCCreate(0, 0);
    if (job_done == nullptr) {
        SAY("no semaphore");
        return;
    }
    start_task(name, inspect);
}
