#include "osaMsg.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

// ---- Clock and system calls, scripted and recorded ----

static int64_t wall_us = 0;

/** What the product did, in memory that forked processes share. */
struct record {
    int forks, waits, child_status;
    pid_t waited_for;
    unsigned int alarm_s;
    bool fork_fails;
};
static record* seen = static_cast<record*>(
    mmap(nullptr, sizeof(record), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));

extern "C" {
pid_t __real_waitpid(pid_t pid, int* status, int options);
unsigned int __real_alarm(unsigned int seconds);
long __real_syscall(long number, ...);

int __wrap_gettimeofday(timeval* now, void*)
{
    *now = {wall_us / 1'000'000, wall_us % 1'000'000};
    return 0;
}

time_t __wrap_time(time_t*)
{
    return wall_us / 1'000'000;
}

long __wrap_syscall(long number, long a, long b, long c, long d, long e)
{
    if (number != SYS_clone) {
        return __real_syscall(number, a, b, c, d, e);
    }
    seen->forks++; // a fault here may not fill the machine
    errno = EAGAIN;
    return seen->fork_fails || seen->forks > 4 ? -1 : __real_syscall(number, a, b, c, d, e);
}

pid_t __wrap_waitpid(pid_t pid, int*, int options)
{
    seen->waited_for = pid;
    if (seen->waits++ == 0) {
        errno = EINTR; // a signal comes in between
        return -1;
    }
    return __real_waitpid(pid, &seen->child_status, options);
}

unsigned int __wrap_alarm(unsigned int seconds)
{
    seen->alarm_s = seconds;
    return __real_alarm(1); // the test need not wait that long
}
}

// ---- Time stamps ----

TEST(Trace, DateOnceThenTheTimeUnlessTheMicrosecondsSayNothingNew)
{
    static constexpr int64_t START = 1'705'311'000'000'007; // 15 January 2024, 09:30:00.000007
    const std::pair<int64_t, const char*> table[] = {
        {0, "time=2024-01-15 11:30:00.000007\nuptime=0.000000 s +0.000000 \n"},
        {1'005'000, ""}, // less than 10001 us of a second
        {10'000, ""},
        {3'010'001, "uptime=3.010001 s +3.010001 \n"}, // since the line
        {3'910'000, "uptime=3.910000 s +0.899999 \n"},
        {-100'000, "uptime=-1.900000 s +-5.990000 \n"},
    };
    setenv("TZ", "XXX-2", 1);
    for (const auto& [after, text] : table) {
        wall_us = START + after;
        testing::internal::CaptureStderr();
        trace_time();
        EXPECT_EQ(testing::internal::GetCapturedStderr(), text) << after;
    }
}

// ---- Segmentation faults ----

/** Runs a function in a process, which must end with a status. */
static void expect_end(void (*body)(), int expected = 1)
{
    *seen = {};
    const pid_t pid = fork();
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL); // what hangs ends with the test
        const rlimit no_core = {0, 0};
        setrlimit(RLIMIT_CORE, &no_core);
        dup2(open("/dev/null", O_WRONLY), STDERR_FILENO); // what a sanitizer says of a fault
        body();
        _exit(42);
    }
    int status = 0;
    __real_waitpid(pid, &status, 0);
    EXPECT_EQ(status, expected << 8);
    EXPECT_EQ(seen->forks, 1);
}

static void sleep_for_ever()
{
    for (;;) {
        sleep(1);
    }
}

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
// Their heap has other locks, and they would see to a null pointer before the processor does.
static void fault()
{
    void* page = mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    *static_cast<volatile int*>(page) = 1;
}
#else
// malloc dies on a broken link with its own lock held, which any fork but the bare one waits for.
static void fault()
{
    new std::thread(sleep_for_ever); // or there is no lock
    void* volatile block = malloc(100'000);
    [[maybe_unused]] void* volatile next = malloc(100'000);
    free(block);
    for (int i = 0; i < 32; i++) {
        static_cast<volatile char*>(block)[i] = 0x41;
    }
    next = malloc(120'000);
}
#endif

TEST(Fault, LeavesOneDeadChildAndEndsTheProcess)
{
    expect_end([] { signal_init(), fault(); });
    EXPECT_GT(seen->waited_for, 0);
    EXPECT_EQ(WTERMSIG(seen->child_status), SIGSEGV);
    EXPECT_GT(seen->alarm_s, 0U);
    EXPECT_LE(seen->alarm_s, 5U);
}

// There is no fault to go back to: the child must not live on as a copy with one thread.
TEST(Fault, ASignalFromOutsideLeavesADeadChildAndAProcessThatGoesOn)
{
    const auto body = [] {
        signal_init();
        errno = ENOTTY;
        kill(getpid(), SIGSEGV);
        _exit(errno);
    };
    expect_end(body, ENOTTY);
    EXPECT_EQ(WTERMSIG(seen->child_status), SIGSEGV);
}

TEST(Fault, WithoutAChildOfItsOwnAnyIsWaitedForAndAnExitThatHangsIsCutShort)
{
    const auto body = [] {
        sigset_t alarms;
        sigemptyset(&alarms);
        sigaddset(&alarms, SIGALRM);
        sigprocmask(SIG_BLOCK, &alarms, nullptr);
        signal(SIGALRM, SIG_IGN);
        atexit(sleep_for_ever);
        seen->fork_fails = true;
        gdb();
        gdb();
    };
    expect_end(body);
    EXPECT_EQ(seen->waited_for, -1);
}
