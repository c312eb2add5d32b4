// Works the daemon from inside, in the place of the closed proxy service: tasks of every kind are
// deleted for a while, beside the pump, the exception task, the demonstrations of the stand-in net
// library, and tasks that nobody deletes. In the end the process must be as big as in the
// beginning.
//
// HNETD_SOAK_S says how many seconds. Figures go to standard error; the process ends with 1 if a
// deletion hung, a lock is held, somebody missed a message, or something grew.
#include "histogram.h"
#include "nxaLog.h"
#include "osaTask.h"
#include "osaWd.h"
#include "uTimer.h"
#include "victims.h"

#include <dirent.h>
#include <errno.h>
#include <pthread.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

static constexpr int DELETERS = 2;
static constexpr int PERIOD_MS = 200; // of the timer and of the watchdog
static constexpr int WATCHDOG_TICK_MS = 10;
static constexpr int MORE_THREADS = 2;     // of the demonstrations, which come and go
static constexpr int MORE_DESCRIPTORS = 2; // likewise
static constexpr long MORE_KB = 16 * 1024; // what deleted tasks had allocated themselves is lost

static int64_t now_ns()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1'000'000'000LL + now.tv_nsec;
}

// ---- Lateness ----

static histogram timer_late, watchdog_late;
static int64_t timer_armed_at, watchdog_armed_at;
static WDOG_ID watchdog;

static void timer_due(void*)
{
    const int64_t now = now_ns();
    if (timer_armed_at != 0) {
        timer_late.add(now - timer_armed_at - PERIOD_MS * 1'000'000LL);
    }
    timer_armed_at = now;
    uTimerAdd(reinterpret_cast<void*>(timer_due), nullptr, PERIOD_MS);
}

static int watchdog_due(void*)
{
    const int64_t now = now_ns();
    if (watchdog_armed_at != 0) {
        watchdog_late.add(now - watchdog_armed_at - PERIOD_MS * 1'000'000LL);
    }
    watchdog_armed_at = now;
    return wdStart(watchdog, PERIOD_MS / WATCHDOG_TICK_MS, reinterpret_cast<FUNCPTR>(watchdog_due),
                   nullptr);
}

// ---- What the process has ----

struct size {
    long threads, descriptors, resident_kb;
};

static long status(const char* key)
{
    FILE* file = fopen("/proc/self/status", "r");
    char line[256];
    long value = -1;
    while (value < 0 && file != nullptr && fgets(line, sizeof line, file) != nullptr) {
        if (strncmp(line, key, strlen(key)) == 0) {
            value = strtol(line + strlen(key), nullptr, 10);
        }
    }
    file != nullptr ? fclose(file) : 0;
    return value;
}

static long descriptors()
{
    DIR* directory = opendir("/proc/self/fd");
    long count = 0;
    while (directory != nullptr && readdir(directory) != nullptr) {
        count++;
    }
    directory != nullptr ? closedir(directory) : 0;
    return count - 3; // ".", ".." and its own
}

// The least of a second, for the demonstrations go on.
static size size_at_rest()
{
    size least = {status("Threads:"), descriptors(), 0};
    for (int look = 0; look < 100; look++) {
        usleep(10'000);
        least.threads = std::min(least.threads, status("Threads:"));
        least.descriptors = std::min(least.descriptors, descriptors());
    }
    least.resident_kb = status("VmRSS:");
    return least;
}

// ---- The work ----

static std::atomic<bool> stopping, hung;

static void* delete_victims(void* number)
{
    const auto deleter = static_cast<int>(reinterpret_cast<intptr_t>(number));
    std::minstd_rand random(static_cast<unsigned>(deleter) + 1);
    while (!stopping && !hung) {
        const auto kind = static_cast<int>(random() % (static_cast<unsigned>(VICTIM_KINDS) + 1));
        if (kind < VICTIM_KINDS && (victim_kinds[kind].flags & RESTARTS) != 0) {
            continue; // by the exception task at its own time, after the deletion
        }
        if (!victim_delete(kind, deleter, random, random() % 8 == 0 ? 20'000 : 300)) {
            fprintf(stderr, "%s goes on\n", victim_kinds[kind].name);
            hung = true;
        }
    }
    return nullptr;
}

static void work(int64_t seconds)
{
    pthread_t deleters[DELETERS];
    stopping = false;
    for (int i = 0; i < DELETERS; i++) {
        pthread_create(&deleters[i], nullptr, delete_victims, reinterpret_cast<void*>(intptr_t{i}));
    }
    for (const int64_t end = now_ns() + seconds * 1'000'000'000; now_ns() < end && !hung;) {
        usleep(100'000);
    }
    stopping = true;
    for (const pthread_t deleter : deleters) {
        pthread_join(deleter, nullptr);
    }
    for (int look = 0; look < 20; look++) { // one may be spawning yet
        victims_left();
        usleep(10'000);
    }
}

// ---- From the start to the figures ----

static void report(const size& before, const size& after)
{
    const auto ms = [](int64_t ns) { return static_cast<double>(ns) / 1e6; };
    victims_report(stderr, false);
    fprintf(stderr,
            "\n| | After the first tenth | At the end |\n|---|---|---|\n"
            "| Threads | %ld | %ld |\n| Descriptors | %ld | %ld |\n"
            "| Resident memory, KB | %ld | %ld |\n",
            before.threads, after.threads, before.descriptors, after.descriptors,
            before.resident_kb, after.resident_kb);
    fprintf(stderr, "\n| Lateness of | Median, ms | 99 %%, ms | Worst, ms |\n|---|---|---|---|\n");
    for (const auto& [name, late] : {std::pair{"a timer of 200 ms", &timer_late},
                                     std::pair{"a watchdog of 200 ms", &watchdog_late}}) {
        fprintf(stderr, "| %s | %.1f | %.1f | %.1f |\n", name, ms(late->percentile(0.5)),
                ms(late->percentile(0.99)), ms(late->maximum()));
    }
}

static bool grown(const size& before, const size& after)
{
    return after.threads > before.threads + MORE_THREADS ||
           after.descriptors > before.descriptors + MORE_DESCRIPTORS ||
           after.resident_kb > before.resident_kb + MORE_KB;
}

static void* soak(void*)
{
    static char last_to_start[] = "tDemoInspect";
    const char* wanted = getenv("HNETD_SOAK_S");
    const int64_t seconds = wanted != nullptr ? atoi(wanted) : 600;

    while (taskNameToId(last_to_start) == 0) {
        usleep(10'000);
    }
    sleep(1);
    victims_prepare();
    others_start();
    watchdog = wdCreate();
    watchdog_due(nullptr);
    uTimerAdd(reinterpret_cast<void*>(timer_due), nullptr,
              1); // on the pump, which has timer_armed_at
    work(seconds / 10);
    const size before = size_at_rest();
    work(seconds - seconds / 10);
    const size after = size_at_rest();
    alarm(60); // ends the process if a lock of the C library is held
    c_library_use();
    const char* wrong = others_stop();
    report(before, after);
    fprintf(stderr, "\n%s\n",
            wrong != nullptr       ? wrong
            : hung                 ? "a deletion hung"
            : grown(before, after) ? "the process has grown"
                                   : "well");
    _exit(wrong != nullptr || hung || grown(before, after) ? 1 : 0);
}

extern "C" int nxaProxyServiceInit(void)
{
    pthread_t thread;
    return pthread_create(&thread, nullptr, soak, nullptr);
}
