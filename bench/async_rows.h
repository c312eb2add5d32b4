// The rows of the calls that run later on one thread. Everything happens on one CPU, and whoever
// posts learns by a sem_t that the call has run, whichever service ran it.
//
//   void post(sem_t* done)   a call of sem_post(done) on the service's thread
#pragma once

#include "bench.h"

#include <semaphore.h>

/** One call at a time: from posting it until it has run and its poster goes on. */
template <class Service> void post_to_run(benchmark::State& state)
{
    static Service service;
    sem_t done;

    sem_init(&done, 0, 0);
    for (auto _ : state) {
        service.post(&done);
        sem_wait(&done);
    }
    sem_destroy(&done);
}

/** Many calls at once, per call. The program's queue takes 20. */
template <class Service> void post_batch(benchmark::State& state)
{
    constexpr int batch = 16;
    static Service service;
    sem_t done;

    sem_init(&done, 0, 0);
    while (state.KeepRunningBatch(batch)) {
        for (int i = 0; i < batch; i++) {
            service.post(&done);
        }
        for (int i = 0; i < batch; i++) {
            sem_wait(&done);
        }
    }
    sem_destroy(&done);
}

#define ASYNC_ROWS(type, name)                                                                     \
    BENCHMARK(post_to_run<type>)->Name("async.one/" name)->MeasureProcessCPUTime()->UseRealTime(); \
    BENCHMARK(post_batch<type>)->Name("async.batch/" name)->MeasureProcessCPUTime()->UseRealTime()
