// A net library that looks at the daemon from inside. With HNETD_PROBE=libc it calls the names that
// the daemon takes over from the C library; with HNETD_PROBE=stuck it adds a timer whose callback
// never returns.
//
// HNETD_NO_THREAD names a thread that cannot create others.
#include "nxaLog.h"
#include "osaMsg.h"
#include "osaTask.h"

#include "hostLib.h"
#include "probe.h"
#include "uTimer.h"

#include <dlfcn.h>
#include <errno.h>
#include <signal.h>
#include <stdarg.h>
#include <sys/sysinfo.h>
#include <time.h>
#include <unistd.h>

extern "C" int __halden_log_print(int priority, const char* tag, const char* format, ...)
{
    char text[256];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof text, format, args);
    va_end(args);
    TELL("log: %d %s: %s\n", priority, tag, text);
    return 0;
}

// For the resolver, which nobody asks here.
extern "C" char* uStrnSafeCopy(char* dst, size_t, const char*, size_t)
{
    return dst;
}

// ---- Calls of the daemon that this library takes: it is searched before the C library ----

extern "C" int gettimeofday(struct timeval* tv, void*) noexcept
{
    static int pump_readings = 0;
    if (called_on("callManager") && ++pump_readings == 10) {
        TELL("net: the pump runs\n");
    }
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    *tv = {now.tv_sec, now.tv_nsec / 1'000};
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
    const ssize_t length = by_name(&line, &size, stream);
    fclose(stream);

    struct sysinfo info = {};
    const char too_long[100] = "";
    TELL("net: getline %zd, sysinfo %d, sethostname %d, gettid %d\n", length, sysinfo(&info),
         sethostname(too_long, sizeof too_long), gettid() == getpid());
}

static void stick(void*)
{
    TELL("net: the pump is stuck\n");
    for (;;) {
        pause();
    }
}

extern "C" int hnetInit(void)
{
    static char exception[] = "tExcTask";

    TELL("net: hnetInit on %s\n", called_on("tUsrRoot") ? "tUsrRoot" : "another thread");
    TELL("net: %s exception task, %s arguments, exit value %d, host table %d, log %d\n",
         taskNameToId(exception) != 0 ? "with" : "without", _argv == nullptr ? "no" : "some",
         exit_value, hostInitFlag, logFdAdd(STDOUT_FILENO));
    if (asked("libc")) {
        look_at_libc_names();
    }
    if (asked("stuck")) {
        uTimerAdd(reinterpret_cast<void*>(stick), nullptr, 50);
    }
    return -1; // nobody looks at it
}
