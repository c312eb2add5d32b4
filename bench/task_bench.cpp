// Tasks, from spawning one to its end, beside bare threads.
#include "bench.h"

#include "osaTask.h"

#include <pthread.h>
#include <semaphore.h>
#include <sys/prctl.h>

namespace {

sem_t ended;
char task_name[] = "tBench";

int post_end(int, int, int, int, int, int, int, int, int, int)
{
    return sem_post(&ended);
}

void* post_end_named(void*)
{
    prctl(PR_SET_NAME, task_name, 0, 0, 0);
    sem_post(&ended);
    return nullptr;
}

void* post_end_bare(void*)
{
    sem_post(&ended);
    return nullptr;
}

void task(benchmark::State& state)
{
    sem_init(&ended, 0, 0);
    for (auto _ : state) {
        taskSpawn(task_name, 100, 0, 8192, reinterpret_cast<FUNCPTR>(post_end), 0, 0, 0, 0, 0, 0, 0,
                  0, 0, 0);
        sem_wait(&ended);
    }
}

template <void* (*entry)(void*)> void detached_thread(benchmark::State& state)
{
    sem_init(&ended, 0, 0);
    for (auto _ : state) {
        pthread_t thread;
        pthread_create(&thread, nullptr, entry, nullptr);
        pthread_detach(thread);
        sem_wait(&ended);
    }
}

void joined_thread(benchmark::State& state)
{
    sem_init(&ended, 0, 0);
    for (auto _ : state) {
        pthread_t thread;
        pthread_create(&thread, nullptr, post_end_bare, nullptr);
        pthread_join(thread, nullptr);
    }
}

void standard_thread(benchmark::State& state)
{
    for (auto _ : state) {
        std::thread([] { sem_post(&ended); }).join();
    }
}

} // namespace

BENCHMARK(task)->Name("task.spawn/hnetd")->MeasureProcessCPUTime()->UseRealTime();
BENCHMARK(detached_thread<post_end_bare>)
    ->Name("task.spawn/pthread_create")
    ->MeasureProcessCPUTime()
    ->UseRealTime();
BENCHMARK(detached_thread<post_end_named>)
    ->Name("task.spawn/pthread_create, named")
    ->MeasureProcessCPUTime()
    ->UseRealTime();
BENCHMARK(joined_thread)
    ->Name("task.spawn/pthread_create, joined")
    ->MeasureProcessCPUTime()
    ->UseRealTime();
BENCHMARK(standard_thread)
    ->Name("task.spawn/std::thread, joined")
    ->MeasureProcessCPUTime()
    ->UseRealTime();
