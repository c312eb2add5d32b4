// The floor of the idle daemon: a bare process with the same threads, which wake up as often, read
// the same clocks and do nothing else.
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

static void report_start(void)
{
    const char* fd = getenv("HNETD_BENCH_FD");
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    if (fd != nullptr) {
        dprintf(atoi(fd), "start %lld\n", now.tv_sec * 1'000'000'000LL + now.tv_nsec);
    }
}

// As the exception task: one pass each 10 ms on average.
static void* tick(void*)
{
    for (long pause_us = 10'000;;) {
        timespec before;
        timespec after;
        clock_gettime(CLOCK_MONOTONIC, &before);
        usleep(static_cast<useconds_t>(pause_us));
        clock_gettime(CLOCK_MONOTONIC, &after);
        const long passed_us =
            (after.tv_sec - before.tv_sec) * 1'000'000 + (after.tv_nsec - before.tv_nsec) / 1000;
        pause_us = passed_us < 20'000 ? 20'000 - passed_us : 0;
    }
}

static void* root(void*)
{
    pthread_t thread;
    pthread_create(&thread, nullptr, tick, nullptr);
    report_start();
    for (;;) {
        usleep(5'000'000);
    }
}

// As the pump: one cycle each 50 ms.
static void* pump(void*)
{
    pthread_t thread;
    pthread_create(&thread, nullptr, root, nullptr);
    for (;;) {
        timeval now;
        gettimeofday(&now, nullptr);
        usleep(50'000);
        gettimeofday(&now, nullptr);
    }
}

static void* serve(void*)
{
    for (;;) {
        pause();
    }
}

int main()
{
    pthread_t thread;
    pthread_create(&thread, nullptr, pump, nullptr);
    pthread_create(&thread, nullptr, serve, nullptr);
    serve(nullptr);
}
