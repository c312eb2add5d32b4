// Debug aids: time stamps on standard error, and what happens on a segmentation fault.
//
// The fault's handler may find the process in any state: inside malloc, with locks of libc held.
// So nothing in gdb allocates or takes a lock, the fork is the bare system call (libc's wants the
// heap's locks), and exit, which must be tried, is given a limited time.
#include "osaMsg.h"

#include "internal.h"

#include <errno.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

static constexpr long US_PER_S = 1'000'000;
static constexpr long QUIET_US = 10'001; // below it a time stamp says nothing new
static constexpr unsigned int EXIT_LIMIT_S = 3;

// One thread at a time uses these.
struct timeval start_tv = {};
struct timeval prev_tv = {};

int tracev2l = 1;
char trace_fn[100] = {};
int tid = 0;

// The child, -1 while it starts or when it could not; 0: none yet. Atomic; says who came first, and
// nothing of other fields.
static int gdb_pid = 0;

// ---- Time stamps ----

static struct timeval time_between(const struct timeval* from, const struct timeval* to)
{
    struct timeval span = {.tv_sec = to->tv_sec - from->tv_sec,
                           .tv_usec = to->tv_usec - from->tv_usec};

    if (span.tv_usec < 0) {
        span.tv_usec += US_PER_S;
        span.tv_sec--;
    }
    return span;
}

static bool is_zero(const struct timeval* tv)
{
    return tv->tv_sec == 0 && tv->tv_usec == 0;
}

static void print_calendar(time_t when, long usec)
{
    struct tm local;

    zone_local_time(when, &local);
    dprintf(STDERR_FILENO, "time=%04d-%02d-%02d %02d:%02d:%02d.%06d\n", local.tm_year + 1900,
            local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec,
            static_cast<int>(usec));
}

void trace_time(void)
{
    struct timeval now_tv;
    struct timeval passed_tv = {};

    thread_record_t* me = op_enter();
    const time_t time_cur = time(nullptr);
    gettimeofday(&now_tv, nullptr);
    if (start_tv.tv_sec == 0) {
        start_tv = now_tv;
        print_calendar(time_cur, now_tv.tv_usec);
    }
    const struct timeval uptime = time_between(&start_tv, &now_tv);
    if (!is_zero(&prev_tv)) {
        passed_tv = time_between(&prev_tv, &now_tv);
    }
    // Microseconds alone decide: 1.005 s after the last line is quiet as well.
    if (is_zero(&passed_tv) || passed_tv.tv_usec >= QUIET_US) {
        dprintf(STDERR_FILENO, "uptime=%d.%06d s +%d.%06d \n", static_cast<int>(uptime.tv_sec),
                static_cast<int>(uptime.tv_usec), static_cast<int>(passed_tv.tv_sec),
                static_cast<int>(passed_tv.tv_usec));
        prev_tv = now_tv;
    }
    op_leave(me);
}

// ---- Segmentation faults ----

static pid_t bare_fork(void)
{
    // With no flag but the signal for the parent this is fork on every architecture.
    return static_cast<pid_t>(
        syscall(SYS_clone, static_cast<unsigned long>(SIGCHLD), 0L, 0L, 0L, 0L));
}

static void exit_overdue(int)
{
    _exit(1);
}

// exit flushes and calls handlers, and may wait for ever for a lock of the thread that faulted.
[[noreturn]] static void exit_in_time(void)
{
    sigset_t alarms;

    sigemptyset(&alarms);
    sigaddset(&alarms, SIGALRM);
    signal(SIGALRM, exit_overdue);
    pthread_sigmask(SIG_UNBLOCK, &alarms, nullptr);
    alarm(EXIT_LIMIT_S);
    exit(1);
}

void signal_init(void)
{
    signal(SIGSEGV, sighandler);
}

// For the child: once the handler returns and SIGSEGV is let in again, before the next instruction.
// By bare calls: the C library may still have the parent's numbers.
static void die_on_return(void)
{
    syscall(SYS_kill, syscall(SYS_getpid), static_cast<long>(SIGSEGV));
}

void sighandler(int)
{
    const int saved_errno = errno;

    gdb();
    if (load_relaxed(&gdb_pid) == 0) {
        die_on_return();
    }
    errno = saved_errno;
}

void gdb(void)
{
    int none = 0;

    if (!__atomic_compare_exchange_n(&gdb_pid, &none, -1, false, __ATOMIC_RELAXED,
                                     __ATOMIC_RELAXED)) {
        exit_in_time();
    }
    const pid_t child = bare_fork();
    store_relaxed(&gdb_pid, child);
    if (child == 0) {
        // Back into the fault, this time for good: a core, and no child of its own. The signal may
        // also have come from outside, without a fault: sighandler sees to that.
        signal(SIGSEGV, SIG_DFL);
        return;
    }
    // Without a child of its own, -1, it waits for any.
    while (waitpid(child, nullptr, 0) == -1 && errno == EINTR) {
    }
}
