// The service thread's parts, each on its own: what they call is replaced and recorded.
#include "hnetd.h"

#include "hostLib.h"
#include "internal.h"
#include "lstLib.h"
#include "osaMsg.h"
#include "osaTask.h"
#include "osaWd.h"
#include "uBm.h"
#include "uTimer.h"

#include "fail.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <sys/prctl.h>
#include <vector>

static std::string calls;            // what was called, each closed with '|'
static std::vector<uint32_t> cycles; // what the first cycles measure; 50 ms after that
static std::string checks;           // "cycle:argument " of each checktimeoutCb
static int cycles_run = 0;
static int stop_after = 0;       // the cycle whose timers clear the running flag
static time_t clock_reading = 0; // seconds that gettimeofday gave last
static int pump_errno = 0;       // found by the pump

static void note(const std::string& call)
{
    calls += call + "|";
}

static std::string thread_name()
{
    char name[16] = "";
    prctl(PR_GET_NAME, name, 0, 0, 0);
    return name;
}

// The context, which the product never frees: it makes one, but each test another.
extern "C" void* __real_uMalloc(uint32_t num_bytes);
extern "C" void* __wrap_uMalloc(uint32_t num_bytes)
{
    static void* context = nullptr;
    uFree(context);
    return context = __real_uMalloc(num_bytes);
}

extern "C" int __wrap_gettimeofday(struct timeval* tv, void*)
{
    *tv = {++clock_reading, 0};
    return 0;
}

extern "C" int __wrap_usleep(useconds_t us)
{
    pump_errno = errno;
    note("sleep " + std::to_string(us) + " after reading " + std::to_string(clock_reading));
    return 0;
}

extern "C" uint32_t __wrap_uTimerAdjust(struct timeval t1, struct timeval t2)
{
    note("adjust " + std::to_string(t1.tv_sec) + " " + std::to_string(t2.tv_sec));
    const auto cycle = static_cast<size_t>(cycles_run);
    return cycle < cycles.size() ? cycles[cycle] : 50;
}

extern "C" void __wrap_uTimerRun(int32_t gap)
{
    note("run " + std::to_string(gap));
    if (++cycles_run == stop_after) {
        hnetdStop();
    }
}

extern "C" void __wrap_checktimeoutCb(uint32_t elapses)
{
    checks += std::to_string(cycles_run) + ":" + std::to_string(elapses) + " ";
}

extern "C" taskId_t __wrap_taskSpawn(char* name, int pri, int options, int stack, FUNCPTR entry,
                                     int a, int b, int c, int d, int e, int f, int g, int h, int i,
                                     int j)
{
    EXPECT_EQ(pri | options | stack | a | b | c | d | e | f | g | h | i | j, 0);
    const bool root = entry == reinterpret_cast<FUNCPTR>(root_task);
    const bool exception = entry == reinterpret_cast<FUNCPTR>(exception_task);
    note(thread_name() + " spawns " + name + (root ? " root" : "") + (exception ? " exc" : ""));
    errno = EAGAIN;
    return static_cast<taskId_t>(ERROR);
}

// The root task idles for ever; the test lets it wake twice.
extern "C" status_t __wrap_taskDelay(int interval)
{
    static int naps = 0;
    note("delay " + std::to_string(interval));
    if (++naps == 2) {
        pthread_exit(nullptr);
    }
    return OK;
}

extern "C" STATUS __wrap_logInit(int fd, int maxMsgs)
{
    note("logInit " + std::to_string(fd) + " " + std::to_string(maxMsgs));
    return ERROR;
}

#define PART(name, type, result)                                                                   \
    extern "C" type __wrap_##name(void)                                                            \
    {                                                                                              \
        note(#name);                                                                               \
        return result;                                                                             \
    }
PART(tickInit, void, )
PART(lstLibInit, void, )
PART(hostTblInit, void, )
PART(ifLibInit, void, )
PART(resolvInit, status_t, ERROR)
PART(hnetInit, int, ERROR)

class HnetdTest : public testing::Test {
  protected:
    // A context without its thread: the test is the service thread.
    void SetUp() override
    {
        fail_thread(1);
        ASSERT_EQ(hnetdStart(), -1);
        ASSERT_TRUE(failed());
        calls.clear();
        cycles.clear();
        checks.clear();
        cycles_run = 0;
        clock_reading = 0;
    }

    static void pump(int number_of_cycles)
    {
        stop_after = number_of_cycles;
        user_syskill();
    }
};

// First of all, while there is no context.
TEST(HnetdStartTest, WithoutMemoryNoThreadIsStartedAndStoppingIsHarmless)
{
    hnetdStop();
    fail_thread(1);
    fail_malloc(1);
    EXPECT_EQ(hnetdStart(), -1);
    pthread_t thread;
    const auto nothing = [](void*) -> void* { return nullptr; };
    EXPECT_EQ(pthread_create(&thread, nullptr, nothing, nullptr), EAGAIN) << "a thread was created";
    hnetdStop();
}

TEST_F(HnetdTest, ACycleSpansTheSleepAgesTheTimersByItAndIsTheLastAfterAStop)
{
    cycles = {61, 0};
    pump(2);
    EXPECT_EQ(calls, "sleep 50000 after reading 1|adjust 1 2|run 61|"
                     "sleep 50000 after reading 3|adjust 3 4|run 0|");
    SetUp();
    hnetdStop();
    pump(0);
    EXPECT_EQ(cycles_run, 1) << "at least one cycle";
}

TEST_F(HnetdTest, AbsoluteTimersAreLookedAtEveryThirtySecondsOfPumpTime)
{
    pump(1200);
    EXPECT_EQ(checks, "600:30000 1200:30000 ");

    // What goes beyond 30 s is handed over whole and does not count again; the last cycle, which
    // stops the pump, does all of its work.
    SetUp();
    cycles = {10'999, 10'999, 7'999, 10'999, 10'999, 10'999, 8'001, 1};
    pump(8);
    EXPECT_EQ(checks, "4:40996 8:30000 ");
}

TEST_F(HnetdTest, TheFrameSpawnsTheRootTaskPumpsAndEndsTheProcess)
{
    static char* arguments[] = {nullptr};
    const auto frame = [] {
        exit_value = 7;
        hnetdStop();
        atexit([] {
            fprintf(stderr, "%s%s errno %d%s", calls.c_str(), thread_name().c_str(), pump_errno,
                    _argv == arguments ? " kept the arguments" : "");
        });
        main_v2lin(0, arguments);
    };
    EXPECT_EXIT(frame(), testing::ExitedWithCode(7),
                "^callManager spawns tUsrRoot root\\|sleep 50000 after reading 1\\|"
                "adjust 1 2\\|run 50\\|callManager errno 0 kept the arguments$");
}

TEST_F(HnetdTest, TheRootTaskInitialisesInOrderWhateverFailsAndIdles)
{
    pthread_t thread;
    const auto root = [](void*) -> void* { root_task(0, 0, 0, 0, 0, 0, 0, 0, 0, 0); };
    ASSERT_EQ(pthread_create(&thread, nullptr, root, nullptr), 0);
    pthread_join(thread, nullptr);
    EXPECT_EQ(calls, "tUsrRoot spawns tExcTask exc|logInit 1 100|tickInit|lstLibInit|"
                     "hostTblInit|ifLibInit|resolvInit|hnetInit|delay 500|delay 500|");
}
