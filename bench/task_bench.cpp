// Tasks, from spawning one to its end, beside bare threads; and what a task among many costs.
#include "bench.h"

#include "osaSem.h"
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

SEM_ID go_home;
std::atomic<int> at_home; // tasks of a crowd that have begun and not ended

int wait_to_go_home(int, int, int, int, int, int, int, int, int, int)
{
    at_home++;
    semTake(go_home, WAIT_FOREVER);
    at_home--;
    return 0;
}

/** Tasks that sleep while it lives; the row's own is the latest of them. */
class crowd {
  public:
    explicit crowd(int64_t tasks) : size(static_cast<int>(tasks))
    {
        go_home = semBCreate(0, SEM_EMPTY);
        for (int i = 0; i < size; i++) {
            latest = taskSpawn(task_name, 100, 0, 8192, reinterpret_cast<FUNCPTR>(wait_to_go_home),
                               0, 0, 0, 0, 0, 0, 0, 0, 0, 0);
        }
        while (at_home < size) {
            sched_yield();
        }
    }
    ~crowd()
    {
        semDelete(go_home); // wakes them all
        while (at_home > 0 || taskNameToId(task_name) != 0) {
            sched_yield();
        }
    }

    taskId_t latest = 0;

  private:
    int size;
};

void lock_among(benchmark::State& state)
{
    const crowd others(state.range(0));
    for (auto _ : state) {
        taskLock();
        taskUnlock();
    }
}

void verify_among(benchmark::State& state)
{
    const crowd others(state.range(0));
    for (auto _ : state) {
        benchmark::DoNotOptimize(taskIdVerify(others.latest));
    }
}

void name_among(benchmark::State& state)
{
    const crowd others(state.range(0));
    for (auto _ : state) {
        benchmark::DoNotOptimize(taskName(others.latest));
    }
}

void sem_delete_among(benchmark::State& state)
{
    const crowd others(state.range(0));
    for (auto _ : state) {
        semDelete(semBCreate(0, SEM_FULL));
    }
}

int sleep_long(int, int, int, int, int, int, int, int, int, int)
{
    return taskDelay(100000);
}

void delete_among(benchmark::State& state)
{
    const crowd others(state.range(0));
    for (auto _ : state) {
        taskDelete(taskSpawn(task_name, 100, 0, 8192, reinterpret_cast<FUNCPTR>(sleep_long), 0, 0,
                             0, 0, 0, 0, 0, 0, 0, 0));
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
BENCHMARK(lock_among)->Name("task.lock/hnetd")->Arg(1)->Arg(100)->Arg(2000);
BENCHMARK(verify_among)->Name("task.verify/hnetd")->Arg(1)->Arg(100)->Arg(2000);
BENCHMARK(name_among)->Name("task.name/hnetd")->Arg(1)->Arg(100)->Arg(2000);
BENCHMARK(sem_delete_among)
    ->Name("task.semdelete/hnetd")
    ->Arg(1)
    ->Arg(100)
    ->Arg(2000)
    ->Iterations(10);
BENCHMARK(delete_among)->Name("task.delete/hnetd")->Arg(1)->Arg(100)->Arg(2000)->Iterations(500);
