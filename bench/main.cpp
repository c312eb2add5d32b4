// The benchmark program's entry, and doubles of what the closed libraries would bring.
#include "bench.h"

#include "nxaLog.h"

#include <cstdlib>
#include <cstring>
#include <pthread.h>
#include <unistd.h>

static cpu_set_t allowed; // at start
static cpu_set_t one;     // the last of them

void pin_to_one_cpu()
{
    pthread_setaffinity_np(pthread_self(), sizeof one, &one);
}

void pin_to_all_cpus()
{
    pthread_setaffinity_np(pthread_self(), sizeof allowed, &allowed);
}

static void choose_cpu()
{
    sched_getaffinity(0, sizeof allowed, &allowed);
    int last = 0;
    for (int cpu = 0; cpu < CPU_SETSIZE; cpu++) {
        if (CPU_ISSET(cpu, &allowed)) {
            last = cpu;
        }
    }
    CPU_ZERO(&one);
    CPU_SET(last, &one);
}

extern "C" int __halden_log_print(int, const char*, const char*, ...)
{
    return 0;
}

extern "C" char* uStrnSafeCopy(char* dest, size_t size, const char* src, size_t count)
{
    const size_t wanted = strnlen(src, count);
    const size_t length = wanted < size ? wanted : size - 1;
    memcpy(dest, src, length);
    dest[length] = '\0';
    return dest;
}

extern "C" int hnetInit(void)
{
    return 0;
}

int main(int argc, char** argv)
{
    choose_cpu();
    pin_to_one_cpu();
    std::thread([] {
        for (;;) {
            pause();
        }
    }).detach();

    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    fflush(nullptr);
    _exit(0); // not exit: its destructors would run under the threads that still serve
}
