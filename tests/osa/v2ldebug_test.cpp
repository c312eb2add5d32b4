#include "osaMsg.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <string>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
static constexpr bool OWN_HEAP = true; // the sanitizer's, with other locks
#else
static constexpr bool OWN_HEAP = false;
#endif

// ---- Clock and system calls, scripted and recorded ----

static int64_t wall_us = 0;

/** What the product did, in memory that forked processes share. */
struct record {
    int forks;
    int waits;
    pid_t waited_for;
    int child_status;
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

long __wrap_syscall(long number, ...)
{
    long args[5];
    va_list list;
    va_start(list, number);
    for (long& arg : args) {
        arg = va_arg(list, long);
    }
    va_end(list);
    if (number == SYS_clone) {
        seen->forks++;
        if (seen->fork_fails || seen->forks > 4) { // nor may a fault here fill the machine
            errno = EAGAIN;
            return -1;
        }
    }
    return __real_syscall(number, args[0], args[1], args[2], args[3], args[4]);
}

pid_t __wrap_waitpid(pid_t pid, int*, int options)
{
    seen->waits++;
    seen->waited_for = pid;
    return __real_waitpid(pid, &seen->child_status, options);
}

unsigned int __wrap_alarm(unsigned int seconds)
{
    seen->alarm_s = seconds;
    return __real_alarm(1); // the test need not wait that long
}
}

// ---- Time stamps ----

class TraceTest : public testing::Test {
  protected:
    void SetUp() override
    {
        setenv("TZ", "UTC0", 1);
        start_tv = prev_tv = {};
    }

    static std::string trace_at(int64_t us)
    {
        wall_us = us;
        testing::internal::CaptureStderr();
        trace_time();
        return testing::internal::GetCapturedStderr();
    }
};

static constexpr int64_t START = 1'705'311'000'000'007; // 15 January 2024, 09:30:00.000007

TEST_F(TraceTest, FirstCallPrintsTheDateAndLaterOnesTheTime)
{
    EXPECT_EQ(trace_at(START), "time=2024-01-15 09:30:00.000007\nuptime=0.000000 s +0.000000 \n");
    EXPECT_EQ(trace_at(START + 500'000), "uptime=0.500000 s +0.500000 \n");
    EXPECT_EQ(trace_at(START + 1'400'000), "uptime=1.400000 s +0.900000 \n");
    EXPECT_EQ(trace_at(START - 100'000), "uptime=-1.900000 s +-2.500000 \n");

    setenv("TZ", "XXX-2", 1);
    start_tv = {};
    EXPECT_EQ(trace_at(START).substr(0, 32), "time=2024-01-15 11:30:00.000007\n");
}

TEST_F(TraceTest, MicrosecondsAloneDecideWhatIsQuiet)
{
    trace_at(START);
    EXPECT_EQ(trace_at(START + 1'005'000), "");
    EXPECT_EQ(trace_at(START + 10'000), "");
    EXPECT_EQ(trace_at(START + 3'010'001), "uptime=3.010001 s +3.010001 \n"); // since the line
    EXPECT_EQ(trace_at(START + 3'010'001), "uptime=3.010001 s +0.000000 \n");
}

// ---- Segmentation faults ----

/** How a process ends that runs a function: its exit status, or minus the signal. */
static int end_of(const std::function<void()>& body)
{
    *seen = {};
    const pid_t pid = fork();
    if (pid == 0) {
        const rlimit no_core = {0, 0};
        setrlimit(RLIMIT_CORE, &no_core);
        dup2(open("/dev/null", O_WRONLY), STDERR_FILENO); // what a sanitizer says of a fault
        body();
        _exit(42);
    }
    for (int i = 0; i < 1500; i++) {
        int status = 0;
        if (__real_waitpid(pid, &status, WNOHANG) == pid) {
            return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
        }
        usleep(10'000);
    }
    kill(pid, SIGKILL);
    __real_waitpid(pid, nullptr, 0);
    return -SIGKILL; // hung
}

// A page of our own: a sanitizer would see to a null pointer before the processor does.
static void fault()
{
    void* page = mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    *static_cast<volatile int*>(page) = 1;
}

TEST(Fault, LeavesOneDeadChildAndEndsTheProcess)
{
    EXPECT_EQ(end_of([] {
                  signal_init();
                  fault();
              }),
              1);
    EXPECT_EQ(seen->forks, 1);
    EXPECT_EQ(seen->waits, 1);
    EXPECT_GT(seen->waited_for, 0);
    EXPECT_TRUE(WIFSIGNALED(seen->child_status)) << seen->child_status;
    EXPECT_EQ(WTERMSIG(seen->child_status), SIGSEGV);
    EXPECT_GT(seen->alarm_s, 0U);
    EXPECT_LE(seen->alarm_s, 5U);
}

TEST(Fault, WithoutAChildNobodyIsWaitedFor)
{
    EXPECT_EQ(end_of([] {
                  seen->fork_fails = true;
                  gdb();
                  gdb();
              }),
              1);
    EXPECT_EQ(seen->forks, 1);
    EXPECT_EQ(seen->waits, 0);
}

TEST(Fault, ExitThatHangsIsCutShort)
{
    EXPECT_EQ(end_of([] {
                  sigset_t alarms;
                  sigemptyset(&alarms);
                  sigaddset(&alarms, SIGALRM);
                  sigprocmask(SIG_BLOCK, &alarms, nullptr);
                  signal(SIGALRM, SIG_IGN);
                  atexit([] {
                      for (;;) {
                          sleep(1);
                      }
                  });
                  seen->fork_fails = true;
                  gdb();
                  gdb();
              }),
              1);
}

static void* sleep_for_ever(void*)
{
    for (;;) {
        sleep(1);
    }
}

// malloc dies on a broken link with its own lock held, which any fork but the bare one waits for.
TEST(Fault, InsideMallocEndsTheProcessAsWell)
{
    if (OWN_HEAP) {
        GTEST_SKIP();
    }
    EXPECT_EQ(end_of([] {
                  pthread_t thread;
                  pthread_create(&thread, nullptr, sleep_for_ever, nullptr); // or there is no lock
                  signal_init();
                  void* volatile block = malloc(100'000);
                  [[maybe_unused]] void* volatile next = malloc(100'000);
                  free(block);
                  for (int i = 0; i < 32; i++) {
                      static_cast<volatile char*>(block)[i] = 0x41;
                  }
                  next = malloc(120'000);
              }),
              1);
    EXPECT_EQ(seen->forks, 1);
}
