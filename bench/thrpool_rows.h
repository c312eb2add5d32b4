// The rows of the thread pools, each of four workers.
//
//   void post(sem_t* done)                  a job that calls sem_post(done)
//   void post(std::atomic<int>* count)      a job that counts itself
#pragma once

#include "bench.h"

#include <semaphore.h>

constexpr int WORKERS = 4;

/** From posting one job until it has run and its poster goes on; all on one CPU. */
template <class Pool> void job_to_run(benchmark::State& state)
{
    Pool pool;
    sem_t done;

    sem_init(&done, 0, 0);
    for (auto _ : state) {
        pool.post(&done);
        sem_wait(&done);
    }
    sem_destroy(&done);
}

/** A thousand jobs posted at once, per job; workers and poster on all CPUs. */
template <class Pool> void jobs(benchmark::State& state)
{
    constexpr int batch = 1000;
    const all_cpus everywhere;
    Pool pool;
    std::atomic<int> run = 0;
    sem_t done;

    sem_init(&done, 0, 0);
    while (state.KeepRunningBatch(batch)) {
        run = 0;
        for (int i = 0; i < batch - 1; i++) {
            pool.post(&run);
        }
        pool.post(&done);
        sem_wait(&done);
        while (run != batch - 1) {
            sched_yield(); // other workers have yet to finish what they took
        }
    }
    sem_destroy(&done);
}

#define THRPOOL_ROWS(type, name)                                                                   \
    BENCHMARK(job_to_run<type>)                                                                    \
        ->Name("thrpool.one/" name)                                                                \
        ->MeasureProcessCPUTime()                                                                  \
        ->UseRealTime();                                                                           \
    BENCHMARK(jobs<type>)->Name("thrpool.jobs/" name)->MeasureProcessCPUTime()->UseRealTime()
