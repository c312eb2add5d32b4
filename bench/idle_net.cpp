// A net library that asks nothing of the daemon, so that it stands idle; it takes the stand-in's
// place by LD_LIBRARY_PATH. Reports through the descriptor in HNETD_BENCH_FD when it was called, in
// nanoseconds of the monotonic clock. With HNETD_BENCH_TIMERS it arms that many software timers at
// moments spread over the pump's cycle and reports how late they fire, in microseconds.
#include "nxaLog.h"
#include "osaTask.h"
#include "uTimer.h"

#include <atomic>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

namespace {

struct armed {
    long long due; // ns
};

int report_fd = -1;
int wanted = 0;
std::atomic<int> fired = 0;
long long lateness[10'000]; // ns; the pump's thread writes it

long long now_ns()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1'000'000'000LL + now.tv_nsec;
}

int number_of(const char* variable)
{
    const char* text = getenv(variable);
    return text != nullptr ? atoi(text) : -1;
}

void report_lateness()
{
    for (int i = 0; i < wanted; i++) {
        dprintf(report_fd, "late %lld\n", lateness[i] / 1000);
    }
    dprintf(report_fd, "end 0\n");
}

void on_time(void* param)
{
    armed* timer = static_cast<armed*>(param);
    lateness[fired] = now_ns() - timer->due;
    free(timer);
    if (++fired == wanted) {
        report_lateness();
    }
}

// A step of 7.3 ms walks through the 50 ms of the cycle; the time-outs differ as well.
int arm_timers(int, int, int, int, int, int, int, int, int, int)
{
    for (int i = 0; i < wanted; i++) {
        const int timeout = 20 + i * 37 % 400;
        armed* timer = static_cast<armed*>(malloc(sizeof(armed)));
        timer->due = now_ns() + timeout * 1'000'000LL;
        uTimerAdd(reinterpret_cast<void*>(on_time), timer, timeout);
        usleep(7300);
    }
    return 0;
}

} // namespace

extern "C" int __halden_log_print(int, const char*, const char*, ...)
{
    return 0;
}

extern "C" char* uStrnSafeCopy(char* destination, size_t, const char*, size_t)
{
    return destination;
}

extern "C" int hnetInit(void)
{
    const long long called = now_ns();
    char name[] = "tArm";

    report_fd = number_of("HNETD_BENCH_FD");
    wanted = number_of("HNETD_BENCH_TIMERS");
    dprintf(report_fd, "start %lld\n", called);
    if (wanted > 0 && wanted <= static_cast<int>(sizeof lateness / sizeof lateness[0])) {
        taskSpawn(name, 100, 0, 8192, reinterpret_cast<FUNCPTR>(arm_timers), 0, 0, 0, 0, 0, 0, 0, 0,
                  0, 0);
    }
    return 0;
}
