// In the preset "coverage": a process that ends at once keeps its counts all the same, unless it
// ends with a lock held that writing them needs.
#include <csignal>
#include <cstdlib>
#include <sys/time.h>
#include <unistd.h>

extern "C" {
void __gcov_dump(void);
[[noreturn]] void __real__exit(int status);
[[noreturn]] void __real_abort(void);

static volatile sig_atomic_t status_meant;

static void leave(int)
{
    __real__exit(status_meant);
}

static void dump(void)
{
    const itimerval limit = {{0, 0}, {0, 500'000}};
    sigset_t alarms;

    sigemptyset(&alarms);
    sigaddset(&alarms, SIGALRM);
    signal(SIGALRM, leave);
    setitimer(ITIMER_REAL, &limit, nullptr);
    pthread_sigmask(SIG_UNBLOCK, &alarms, nullptr);
    __gcov_dump();
}

[[noreturn]] void __wrap__exit(int status)
{
    status_meant = status;
    dump();
    __real__exit(status);
}

[[noreturn]] void __wrap_abort(void)
{
    status_meant = 1;
    dump();
    __real_abort();
}
}
