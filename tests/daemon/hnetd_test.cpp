// The timer pump: what it calls is replaced and recorded.
#include "hnetd.h"

#include "fail.h"
#include "internal.h"
#include "uTimer.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

static std::string calls;            // what was called, each closed with '|'
static std::vector<uint32_t> cycles; // what the first cycles measure; 50 ms after that
static std::vector<std::pair<int, uint32_t>> checks; // cycle and argument of checktimeoutCb
static int cycles_run = 0;
static int stop_after = 0;       // the cycle whose timers clear the running flag
static time_t clock_reading = 0; // seconds that gettimeofday gave last

static void note(const std::string& call)
{
    calls += call + "|";
}

// The contexts, which the product never frees: it makes one, but each test another.
extern "C" void* __real_uMalloc(uint32_t num_bytes);
extern "C" void* __wrap_uMalloc(uint32_t num_bytes)
{
    static auto* contexts = new std::vector<void*>;
    contexts->push_back(__real_uMalloc(num_bytes));
    return contexts->back();
}

extern "C" int __wrap_gettimeofday(struct timeval* tv, void*)
{
    *tv = {++clock_reading, 0};
    return 0;
}

extern "C" int __wrap_usleep(useconds_t us)
{
    note("sleep " + std::to_string(us) + " after reading " + std::to_string(clock_reading));
    return 0;
}

extern "C" uint32_t __wrap_uTimerAdjust(struct timeval t1, struct timeval t2)
{
    note("adjust " + std::to_string(t1.tv_sec) + " " + std::to_string(t2.tv_sec));
    const size_t cycle = static_cast<size_t>(cycles_run);
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
    checks.emplace_back(cycles_run, elapses);
}

class HnetdTest : public testing::Test {
  protected:
    // A context without its thread: the test is the service thread.
    void SetUp() override
    {
        fail_thread(1);
        ASSERT_EQ(hnetdStart(), -1);
        ASSERT_TRUE(failed());
        fail_nothing();
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
TEST(HnetdStartTest, WithoutMemoryItFailsAndStoppingIsHarmless)
{
    hnetdStop();
    fail_malloc(1);
    EXPECT_EQ(hnetdStart(), -1);
    fail_nothing();
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
    using check = std::pair<int, uint32_t>;
    pump(1200);
    EXPECT_EQ(checks, (std::vector<check>{{600, 30'000}, {1200, 30'000}}));

    // What goes beyond 30 s is handed over whole and does not count again; the last cycle, which
    // stops the pump, does all of its work.
    SetUp();
    cycles = {10'999, 10'999, 7'999, 10'999, 10'999, 10'999, 8'001, 1};
    pump(8);
    EXPECT_EQ(cycles_run, 8);
    EXPECT_EQ(checks, (std::vector<check>{{4, 40'996}, {8, 30'000}}));
}
