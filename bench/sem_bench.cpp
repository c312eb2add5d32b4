// Semaphores: taking and giving with nobody waiting, taking what is not there, handing over, and
// giving to one of many that wait.
#include "bench.h"

#include "osaSem.h"

#include <cerrno>
#include <chrono>
#include <mutex>
#include <semaphore.h>
#include <semaphore>
#include <time.h>

namespace {

struct hnetd_binary {
    SEM_ID id;
    explicit hnetd_binary(int tokens) : id(semBCreate(0, tokens)) {}
    void take() { semTake(id, WAIT_FOREVER); }
    bool take_within_a_second() { return semTake(id, 100) == OK; }
    bool take_now() { return semTake(id, NO_WAIT) == OK; }
    bool take_too_late() { return semTake(id, -2) == OK; }
    void give() { semGive(id); }
};

struct hnetd_counting : hnetd_binary {
    explicit hnetd_counting(int tokens) : hnetd_binary(0) { id = semCCreate(0, tokens); }
};

struct hnetd_mutex {
    SEM_ID id = semMCreate(0);
    void take() { semTake(id, WAIT_FOREVER); }
    void give() { semGive(id); }
};

// The model in a few lines: a recursive mutex, a count, and a broadcast on each give.
struct model {
    pthread_mutex_t lock;
    pthread_cond_t change = PTHREAD_COND_INITIALIZER;
    int count;

    explicit model(int tokens) : count(tokens)
    {
        pthread_mutexattr_t recursive;
        pthread_mutexattr_init(&recursive);
        pthread_mutexattr_settype(&recursive, PTHREAD_MUTEX_RECURSIVE);
        pthread_mutex_init(&lock, &recursive);
    }
    [[gnu::noinline]] void take()
    {
        pthread_mutex_lock(&lock);
        while (count == 0) {
            pthread_cond_wait(&change, &lock);
        }
        count--;
        pthread_mutex_unlock(&lock);
    }
    bool take_within_a_second()
    {
        take();
        return true;
    }
    [[gnu::noinline]] bool take_now()
    {
        pthread_mutex_lock(&lock);
        const bool there = count > 0;
        count -= there ? 1 : 0;
        pthread_mutex_unlock(&lock);
        if (!there) {
            errno = EAGAIN;
        }
        return there;
    }
    [[gnu::noinline]] void give()
    {
        pthread_mutex_lock(&lock);
        count++;
        pthread_cond_broadcast(&change);
        pthread_mutex_unlock(&lock);
    }
};

// What a mutex-kind semaphore is.
struct recursive_mutex {
    std::recursive_mutex lock;
    [[gnu::noinline]] void take() { lock.lock(); }
    [[gnu::noinline]] void give() { lock.unlock(); }
};

struct plain_mutex {
    pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
    void take() { pthread_mutex_lock(&lock); }
    void give() { pthread_mutex_unlock(&lock); }
};

struct posix {
    sem_t sem;
    explicit posix(unsigned tokens) { sem_init(&sem, 0, tokens); }
    void take() { sem_wait(&sem); }
    bool take_within_a_second()
    {
        timespec deadline;
        clock_gettime(CLOCK_REALTIME, &deadline);
        deadline.tv_sec++;
        return sem_timedwait(&sem, &deadline) == 0;
    }
    bool take_now() { return sem_trywait(&sem) == 0; }
    bool take_too_late()
    {
        static constexpr timespec passed = {1, 0};
        return sem_timedwait(&sem, &passed) == 0;
    }
    void give() { sem_post(&sem); }
};

struct standard {
    std::counting_semaphore<> sem;
    explicit standard(int tokens) : sem(tokens) {}
    void take() { sem.acquire(); }
    bool take_within_a_second() { return sem.try_acquire_for(std::chrono::seconds(1)); }
    bool take_now() { return sem.try_acquire(); }
    void give() { sem.release(); }
};

template <class Sem> void take_and_give(benchmark::State& state)
{
    static Sem sem(1);
    for (auto _ : state) {
        sem.take();
        sem.give();
    }
}

template <class Mutex> void lock_and_unlock(benchmark::State& state)
{
    static Mutex mutex;
    for (auto _ : state) {
        mutex.take();
        mutex.give();
    }
}

template <class Sem> void take_timed(benchmark::State& state)
{
    static Sem sem(1);
    for (auto _ : state) {
        benchmark::DoNotOptimize(sem.take_within_a_second());
        sem.give();
    }
}

template <class Sem> void take_empty(benchmark::State& state)
{
    static Sem sem(0);
    for (auto _ : state) {
        benchmark::DoNotOptimize(sem.take_now());
    }
}

template <class Sem> void take_too_late(benchmark::State& state)
{
    static Sem sem(0);
    for (auto _ : state) {
        benchmark::DoNotOptimize(sem.take_too_late());
    }
}

// One give, until the thread that it woke says so; all the others sleep on.
template <class Sem> void give_to_one_of(benchmark::State& state)
{
    Sem sem(0);
    posix heard(0);
    std::atomic<bool> last = false;
    std::vector<std::thread> waiters;
    for (int64_t i = 0; i < state.range(0); i++) {
        waiters.emplace_back([&] {
            do {
                sem.take();
                heard.give();
            } while (!last.load());
        });
    }
    for (auto _ : state) {
        sem.give();
        heard.take();
    }
    last = true;
    for (size_t i = 0; i < waiters.size(); i++) {
        sem.give();
    }
    for (std::thread& waiter : waiters) {
        waiter.join();
    }
}

template <class Sem> void hand_over(benchmark::State& state)
{
    static Sem ping(0);
    static Sem pong(0);
    round_trips(
        state,
        [] {
            ping.give();
            pong.take();
        },
        [] { ping.take(); }, [] { pong.give(); });
}

} // namespace

BENCHMARK(take_and_give<hnetd_binary>)->Name("sem.binary/hnetd");
BENCHMARK(take_and_give<model>)->Name("sem.binary/floor");
BENCHMARK(take_and_give<posix>)->Name("sem.binary/sem_t");
BENCHMARK(take_and_give<standard>)->Name("sem.binary/std::counting_semaphore");

BENCHMARK(take_and_give<hnetd_counting>)->Name("sem.counting/hnetd");
BENCHMARK(take_and_give<model>)->Name("sem.counting/floor");
BENCHMARK(take_and_give<posix>)->Name("sem.counting/sem_t");

BENCHMARK(lock_and_unlock<hnetd_mutex>)->Name("sem.mutex/hnetd");
BENCHMARK(lock_and_unlock<recursive_mutex>)->Name("sem.mutex/floor");
BENCHMARK(lock_and_unlock<plain_mutex>)->Name("sem.mutex/pthread mutex, plain");

BENCHMARK(take_timed<hnetd_binary>)->Name("sem.timed/hnetd");
BENCHMARK(take_timed<model>)->Name("sem.timed/floor");
BENCHMARK(take_timed<posix>)->Name("sem.timed/sem_t");
BENCHMARK(take_timed<standard>)->Name("sem.timed/std::counting_semaphore");

BENCHMARK(take_empty<hnetd_binary>)->Name("sem.empty/hnetd");
BENCHMARK(take_empty<model>)->Name("sem.empty/floor");
BENCHMARK(take_empty<posix>)->Name("sem.empty/sem_t");
BENCHMARK(take_empty<standard>)->Name("sem.empty/std::counting_semaphore");

BENCHMARK(take_too_late<hnetd_binary>)->Name("sem.late/hnetd");
BENCHMARK(take_too_late<posix>)->Name("sem.late/sem_t");

BENCHMARK(hand_over<hnetd_binary>)
    ->Name("sem.handover/hnetd")
    ->MeasureProcessCPUTime()
    ->UseRealTime();
BENCHMARK(hand_over<model>)->Name("sem.handover/floor")->MeasureProcessCPUTime()->UseRealTime();
BENCHMARK(hand_over<posix>)->Name("sem.handover/sem_t")->MeasureProcessCPUTime()->UseRealTime();
BENCHMARK(hand_over<standard>)
    ->Name("sem.handover/std::counting_semaphore")
    ->MeasureProcessCPUTime()
    ->UseRealTime();

BENCHMARK(give_to_one_of<hnetd_binary>)
    ->Name("sem.crowd/hnetd")
    ->Arg(1)
    ->Arg(8)
    ->Arg(64)
    ->MeasureProcessCPUTime()
    ->UseRealTime();
BENCHMARK(give_to_one_of<model>)
    ->Name("sem.crowd/floor")
    ->Arg(1)
    ->Arg(8)
    ->Arg(64)
    ->MeasureProcessCPUTime()
    ->UseRealTime();
BENCHMARK(give_to_one_of<posix>)
    ->Name("sem.crowd/sem_t")
    ->Arg(1)
    ->Arg(8)
    ->Arg(64)
    ->MeasureProcessCPUTime()
    ->UseRealTime();
