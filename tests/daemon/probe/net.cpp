// A net library that looks at the daemon from inside. HNETD_PROBE says at what:
//
//   libc       which module serves the names that the daemon takes over from the C library
//   step +20   a step of the wall clock by so many seconds
//   otherwise  nothing; the start alone is told
//
// HNETD_NO_THREAD names a thread that cannot create others.
#include "nxaLog.h"
#include "osaMsg.h"
#include "osaTask.h"
#include "uEvent.h"
#include "uTimer.h"

#include "hostLib.h"
#include "probe.h"

#include <dlfcn.h>
#include <errno.h>
#include <signal.h>
#include <stdint.h>
#include <sys/sysinfo.h>
#include <time.h>
#include <unistd.h>

extern "C" int __halden_log_print(int, const char*, const char*, ...)
{
    return 0;
}

// For the resolver, which nobody asks here.
extern "C" char* uStrnSafeCopy(char* dst, size_t, const char*, size_t)
{
    return dst;
}

// ---- Calls of the daemon that this library takes: it is searched before the C library ----

static int64_t offset_us = 0; // atomic: what the wall clock is ahead of the system's

static void step_clock(int64_t us)
{
    __atomic_add_fetch(&offset_us, us, __ATOMIC_SEQ_CST);
}

extern "C" int gettimeofday(struct timeval* tv, void*) noexcept
{
    static int pump_readings = 0;
    if (called_on("callManager") && __atomic_add_fetch(&pump_readings, 1, __ATOMIC_RELAXED) == 10) {
        TELL("net: the pump runs\n");
    }
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    const int64_t us = static_cast<int64_t>(now.tv_sec) * 1'000'000 + now.tv_nsec / 1'000 +
                       __atomic_load_n(&offset_us, __ATOMIC_SEQ_CST);
    *tv = {us / 1'000'000, us % 1'000'000};
    return 0;
}

extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attr, void* (*entry)(void*),
                              void* arg) noexcept
{
    const char* victim = getenv("HNETD_NO_THREAD");
    if (victim != nullptr && called_on(victim)) {
        return EAGAIN;
    }
    using create_t = int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
    return reinterpret_cast<create_t>(dlsym(RTLD_NEXT, "pthread_create"))(thread, attr, entry, arg);
}

// ---- Names taken over from the C library ----

static void tell_home(const char* name, long result)
{
    Dl_info where = {};
    dladdr(dlsym(RTLD_DEFAULT, name), &where);
    const char* slash = where.dli_fname != nullptr ? strrchr(where.dli_fname, '/') : nullptr;
    TELL("net: %s of %s gives %ld\n", name, slash != nullptr ? slash + 1 : "nobody", result);
}

// Called in ways that tell the daemon's versions from the C library's and, should they be the
// latter, change nothing on this machine.
static void look_at_libc_names()
{
    char text[] = "abcdefgh\n";
    char buffer[4] = "";
    char* line = buffer;
    size_t size = sizeof buffer;
    FILE* stream = fmemopen(text, sizeof text - 1, "r");
    using getline_t = ssize_t (*)(char**, size_t*, FILE*); // by name: a header may inline it
    const getline_t by_name = reinterpret_cast<getline_t>(dlsym(RTLD_DEFAULT, "getline"));
    tell_home("getline", by_name(&line, &size, stream));
    fclose(stream);

    struct sysinfo info = {};
    tell_home("sysinfo", sysinfo(&info));
    const char too_long[100] = "";
    tell_home("sethostname", sethostname(too_long, sizeof too_long));
    tell_home("gettid", gettid() == getpid() ? 1 : 0);
}

// ---- A step of the wall clock ----

static int32_t on_clock_step(char*, void* handle, int32_t* param, size_t size)
{
    TELL("net: SYSTEM_TIME_UPDATED on %s, parameter %ld, size %zu\n",
         called_on("tAsyncCall") ? "tAsyncCall" : "another thread",
         static_cast<long>(reinterpret_cast<intptr_t>(param)), size);
    __atomic_store_n(static_cast<int*>(handle), 1, __ATOMIC_RELEASE);
    return 0;
}

// A step back from the first moments of a second ends in the second that the cycle began in, and is
// none to the pump. Such moments are avoided; should one come all the same, the step is repeated.
static int step(int seconds, int, int, int, int, int, int, int, int, int)
{
    static char name[] = "SYSTEM_TIME_UPDATED";
    static int seen = 0;

    uEventCare(name, on_clock_step, &seen);
    const uint32_t timer = uTimerAddSec(nullptr, nullptr, 1'000);
    for (int tries = 0; tries < 5 && __atomic_load_n(&seen, __ATOMIC_ACQUIRE) == 0; tries++) {
        struct timeval now;
        do {
            taskDelay(1);
            gettimeofday(&now, nullptr);
        } while (now.tv_usec < 200'000 || now.tv_usec > 600'000); // the cycle is all in one second
        const unsigned long from_ms = osaGetSysUpMs();
        const int32_t left_before = uTimerRemainGet(timer);
        step_clock(seconds * 1'000'000LL);
        for (int i = 0; i < 50 && __atomic_load_n(&seen, __ATOMIC_ACQUIRE) == 0; i++) {
            taskDelay(1);
        }
        taskDelay(10);
        const long aged = left_before - uTimerRemainGet(timer);
        const long passed = static_cast<long>(osaGetSysUpMs() - from_ms);
        TELL("net: timers aged %ld ms in %ld ms\n", aged, passed);
    }
    TELL("net: stepped\n");
    return OK;
}

extern "C" int hnetInit(void)
{
    static char exception[] = "tExcTask";
    static char stepper[] = "tStep";

    TELL("net: hnetInit on %s\n", called_on("tUsrRoot") ? "tUsrRoot" : "another thread");
    TELL("net: %s exception task, %s arguments, exit value %d, host table %d\n",
         taskNameToId(exception) != 0 ? "with" : "without", _argv == nullptr ? "no" : "some",
         exit_value, hostInitFlag);
    if (asked("libc")) {
        look_at_libc_names();
    }
    const char* what = getenv("HNETD_PROBE");
    int seconds = 0;
    if (what != nullptr && sscanf(what, "step %d", &seconds) == 1) {
        taskSpawn(stepper, 0, 0, 0, reinterpret_cast<FUNCPTR>(step), seconds, 0, 0, 0, 0, 0, 0, 0,
                  0, 0);
    }
    return -1; // nobody looks at it
}
