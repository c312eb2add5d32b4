// What is counted rather than timed: allocations of one operation, and what 10,000 deleted tasks
// leave behind. Writes "name value" lines to the file it is given; standard output belongs to the
// messages of deleted tasks.
#include "osaMsg.h"
#include "osaSem.h"
#include "osaTask.h"
#include "osaWd.h"
#include "uBm.h"
#include "uEvent.h"
#include "uTimer.h"

#include <array>
#include <atomic>
#include <cstdio>
#include <dirent.h>
#include <semaphore.h>
#include <unistd.h>
#include <utility>

static std::atomic<long> allocations = 0;

extern "C" void* __real_malloc(size_t size);
extern "C" void* __real_calloc(size_t count, size_t size);
extern "C" void* __real_realloc(void* block, size_t size);

extern "C" void* __wrap_malloc(size_t size)
{
    allocations++;
    return __real_malloc(size);
}

extern "C" void* __wrap_calloc(size_t count, size_t size)
{
    allocations++;
    return __real_calloc(count, size);
}

extern "C" void* __wrap_realloc(void* block, size_t size)
{
    allocations++;
    return __real_realloc(block, size);
}

extern "C" int __halden_log_print(int, const char*, const char*, ...)
{
    return 0;
}

extern "C" char* uStrnSafeCopy(char* dest, size_t, const char*, size_t)
{
    return dest;
}

extern "C" int hnetInit(void)
{
    return 0;
}

static FILE* results;

template <typename Operation> static void count_allocations(const char* name, Operation operation)
{
    constexpr int rounds = 1000;
    operation(); // what is created on first use
    allocations = 0;
    for (int i = 0; i < rounds; i++) {
        operation();
    }
    fprintf(results, "allocations.%s %g\n", name, static_cast<double>(allocations) / rounds);
}

static int nothing(void*)
{
    return 0;
}

static int post(void* done)
{
    return sem_post(static_cast<sem_t*>(done));
}

template <int number> static int32_t ignore(char*, void*, int32_t*, size_t)
{
    return 0;
}

template <int... numbers> static auto handlers_of(std::integer_sequence<int, numbers...>)
{
    return std::array<EVENTPROCESS, sizeof...(numbers)>{ignore<numbers>...};
}

static void count_raises()
{
    char event[] = "BENCH";
    size_t registered = 0;

    const auto handlers = handlers_of(std::make_integer_sequence<int, 40>());
    for (size_t wanted : {1, 10, 16, 17, 40}) {
        while (registered < wanted) {
            uEventCare(event, handlers[registered++], nullptr);
        }
        char name[32];
        snprintf(name, sizeof name, "raise-to-%zu", wanted);
        count_allocations(name, [&] { uEventRaise(event, nullptr, 0); });
    }
}

static void count_others()
{
    alignas(uBmBufHead_t) static char region[8 * (sizeof(uBmBufHead_t) + 64)];
    const SEM_ID sem = semBCreate(0, SEM_FULL);
    const MSG_Q_ID queue = msgQCreate(4, 16, 0);
    const WDOG_ID watchdog = wdCreate();
    uBmHostHeap_t heap;
    char message[16] = "";
    sem_t done;

    uBmInitHeap(&heap, 8, 64, region);
    sem_init(&done, 0, 0);
    count_allocations("take-and-give", [&] {
        semTake(sem, WAIT_FOREVER);
        semGive(sem);
    });
    count_allocations("send-and-receive", [&] {
        msgQSend(queue, message, sizeof message, WAIT_FOREVER, MSG_PRI_NORMAL);
        msgQReceive(queue, message, sizeof message, WAIT_FOREVER);
    });
    count_allocations("arm-and-drop-a-timer", [] { uTimerDel(uTimerAdd(nullptr, nullptr, 100)); });
    count_allocations("arm-and-fire-a-timer", [] {
        uTimerAdd(reinterpret_cast<void*>(nothing), nullptr, 1);
        uTimerRun(1);
    });
    count_allocations("start-and-fire-a-watchdog", [&] {
        wdStart(watchdog, 1, reinterpret_cast<FUNCPTR>(nothing), nullptr);
        process_wdog();
    });
    count_allocations("pool-block", [&] { uBmFree(uBmAlloc(&heap, 64)); });
    count_allocations("asynchronous-call", [&] {
        uAsyncCall(reinterpret_cast<FUNCPTR>(post), &done);
        sem_wait(&done);
    });
}

static int threads_now()
{
    int count = 0;
    DIR* tasks = opendir("/proc/self/task");
    while (const dirent* entry = readdir(tasks)) {
        count += entry->d_name[0] != '.' ? 1 : 0;
    }
    closedir(tasks);
    return count;
}

static long resident_kib()
{
    long pages = 0;
    FILE* statm = fopen("/proc/self/statm", "r");
    if (fscanf(statm, "%*d %ld", &pages) != 1) {
        pages = 0;
    }
    fclose(statm);
    return pages * (sysconf(_SC_PAGESIZE) / 1024);
}

static int sleep_long(int, int, int, int, int, int, int, int, int, int)
{
    return taskDelay(1000);
}

static void wait_for_threads(int count)
{
    while (threads_now() > count) {
        usleep(1000);
    }
}

// In batches, for memory also grows with the number of threads that are there at once.
static void spawn_and_delete(int count)
{
    char name[] = "tBench";
    const int before = threads_now();

    for (int i = 1; i <= count; i++) {
        taskDelete(taskSpawn(name, 100, 0, 8192, reinterpret_cast<FUNCPTR>(sleep_long), 0, 0, 0, 0,
                             0, 0, 0, 0, 0, 0));
        if (i % 20 == 0) {
            wait_for_threads(before);
        }
    }
    wait_for_threads(before);
}

static void measure_deletions()
{
    spawn_and_delete(1000); // what overlaps most has overlapped
    const long before = resident_kib();
    spawn_and_delete(10'000);
    fprintf(results, "deletions.before-kib %ld\n", before);
    fprintf(results, "deletions.after-kib %ld\n", resident_kib());
}

int main(int argc, char** argv)
{
    results = argc == 2 ? fopen(argv[1], "w") : nullptr;
    if (results == nullptr) {
        fprintf(stderr, "usage: %s file\n", argv[0]);
        return 2;
    }
    count_raises();
    count_others();
    measure_deletions();
    fclose(results);
    fflush(nullptr);
    _exit(0); // not exit: tasks still run
}
