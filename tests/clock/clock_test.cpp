// All that goes by time, on a clock that is stepped under it, by up to ten years, and for thirty
// days: with the monotonic clock and without it, now and where seconds outgrow 31 and 32 bits.
#include "fail.h"
#include "hnetd.h"
#include "internal.h"
#include "osaMsg.h"
#include "osaSem.h"
#include "osaTask.h"
#include "osaWd.h"
#include "sim_clock.h"
#include "task_probe.h"
#include "uEvent.h"
#include "uTimer.h"

#include <gtest/gtest.h>

#include <random>
#include <thread>

static constexpr int64_t US = 1000, MS = 1000 * US, S = 1000 * MS; // in ns
static constexpr int64_t DAY_S = 86'400;
static constexpr int STEPS = 1000;

// A run, with its beginning by the wall clock and what is random in it.
class ClockTest : public testing::TestWithParam<std::pair<int64_t, bool>> {
  protected:
    ClockTest()
    {
        clock.monotonic = GetParam().second;
        clock.enter();
    }

    int64_t between(int64_t least, int64_t most)
    {
        return std::uniform_int_distribution<int64_t>(least, most)(random);
    }
    // In us: to within ten years of the true time, and as often by up to a minute.
    int64_t any_step()
    {
        if (between(0, 1) == 0) {
            return between(-60'000'000, 60'000'000);
        }
        const int64_t now = GetParam().first * 1'000'000 + clock.up_ns() / US;
        return now - clock.wall_us() + between(-10, 10) * 365 * DAY_S * 1'000'000 +
               between(0, DAY_S * 1'000'000);
    }

    sim_clock clock{GetParam().first * 1'000'000};
    std::mt19937_64 random{1};
};

INSTANTIATE_TEST_SUITE_P(Beginnings, ClockTest,
                         testing::Values(std::pair(1'700'000'000, true),
                                         std::pair(1'700'000'000, false),
                                         std::pair((int64_t{1} << 31) - 500, true),
                                         std::pair((int64_t{1} << 32) - 500, false)));

// ---- Waits ----

static SEM_ID binary, counting;
static MSG_Q_ID empty, full;
static char message[8];

// Calls that wait, and what ends the wait before its time.
static const struct {
    int (*call)(int ticks);
    void (*serve)();
} waits[] = {
    {[](int ticks) { return semTake(binary, ticks); }, [] { semGive(binary); }},
    {[](int ticks) { return semTake(counting, ticks); }, [] { semGive(counting); }},
    {[](int ticks) { return std::min(msgQReceive(empty, message, 8, ticks), OK); },
     [] { msgQSend(empty, message, 8, NO_WAIT, MSG_PRI_NORMAL); }},
    {[](int ticks) { return msgQSend(full, message, 8, ticks, MSG_PRI_NORMAL); },
     [] { msgQReceive(full, message, 8, NO_WAIT); }},
};

// A wait ends when the wall clock gets to its deadline, however it gets there, or when it is
// served.
TEST_P(ClockTest, WaitsEndAtTheirInstantOfTheWallClock)
{
    binary = semBCreate(0, SEM_EMPTY);
    counting = semCCreate(0, 0);
    empty = msgQCreate(1, 8, 0);
    full = msgQCreate(1, 8, 0);
    msgQSend(full, message, 8, NO_WAIT, MSG_PRI_NORMAL);
    for (int i = 0; i < STEPS / 4; i++) {
        for (const auto& wait : waits) {
            sim_clock one = clock;
            one.enter();
            const int64_t ticks = between(1, 200'000);
            const int64_t length = ticks * 10 * MS;
            const int64_t stepped = between(0, length);
            const int64_t served = between(0, 2 * length);
            const int64_t step = any_step();
            one.at(stepped, [&] { one.step(step); });
            one.at(served, [&] { std::thread(wait.serve).join(); });
            const int64_t end = std::max(stepped, length - step * US);
            errno = 0;
            ASSERT_EQ(wait.call(static_cast<int>(ticks)), served <= end ? OK : ERROR);
            ASSERT_EQ(one.up_ns(), std::min(served, end)) << ticks << " " << step;
            ASSERT_EQ(errno, served <= end ? 0 : S_objLib_OBJ_TIMEOUT);
        }
    }
    clock.enter();
    EXPECT_EQ(semDelete(binary), OK);
    EXPECT_EQ(semDelete(counting), OK);
    EXPECT_EQ(msgQDelete(empty), OK);
    EXPECT_EQ(msgQDelete(full), OK);
}

TEST_P(ClockTest, DelaysDoNotLookAtTheWallClock)
{
    for (int i = 0; i < STEPS; i++) {
        const int64_t length = between(1, 200'000);
        const int64_t end = clock.up_ns() + length * 10 * MS;
        clock.at(between(clock.up_ns(), end), [&] { clock.step(any_step()); });
        ASSERT_EQ(taskDelay(static_cast<int>(length)), OK);
        ASSERT_EQ(clock.up_ns(), end);
    }
}

// ---- The pump ----

static int64_t pumped_ms;  // since the program began
static int64_t counted_us; // the fallback uptime, by what it may go by
static int steps_noticed;
static int updates; // raises of SYSTEM_TIME_UPDATED

extern "C" status_t __wrap_uAsyncCall(FUNCPTR func, void* param)
{
    return func(param), OK;
}

static int32_t count_update(char*, void*, int32_t*, size_t)
{
    return ++updates;
}

// Seconds that go back, or on by more than 10, are a step, and the cycle counts as one without.
// Milliseconds are cut off what is beyond the seconds, or what is missing from them.
static void cycle(const sim_clock& clock)
{
    const int64_t from = clock.wall_us();
    user_syskill(); // one cycle, for the daemon is not running
    const int64_t to = clock.wall_us();
    const int64_t seconds = to / 1'000'000 - from / 1'000'000;
    const int64_t part = to % 1'000'000 - from % 1'000'000;
    if (seconds < 0 || seconds > 10) {
        steps_noticed++;
        pumped_ms += 50;
        counted_us += 50'000;
        return;
    }
    pumped_ms += seconds > 0 || part > 0 ? seconds * 1000 + part / 1000 : 0;
    counted_us += to - from;
}

struct timer {
    int64_t due; // in pumped_ms
    bool fired;
};

static void fire(void* param)
{
    static_cast<timer*>(param)->fired = true;
}

static void* const FIRE = reinterpret_cast<void*>(fire);

class PumpTest : public ClockTest {
  protected:
    PumpTest()
    {
        static const int context = (fail_thread(1), hnetdStart()); // without its thread
        EXPECT_EQ(context, -1);
        hnetdStop();
        fail_nothing();
        tickInit();
        counted_us = 0;
        steps_noticed = 0;
        updates = 0;
        uEventCare(EVENT, count_update, nullptr);
    }

    ~PumpTest() override
    {
        EXPECT_EQ(updates, steps_noticed);
        EXPECT_EQ(uEventClear(EVENT, count_update, nullptr), 1);
    }

    void arm(timer* t)
    {
        const int32_t timeout = static_cast<int32_t>(between(0, 5000));
        *t = {pumped_ms + timeout, false};
        ASSERT_NE(uTimerAdd(FIRE, t, timeout), 0U);
    }

    // The timers' own time is the pump's, to the cycle; the uptime is true.
    void pump(timer* timers, size_t count)
    {
        cycle(clock);
        for (timer* t = timers; t < timers + count; t++) {
            ASSERT_EQ(t->fired, t->due <= pumped_ms) << t->due << " " << pumped_ms;
            if (t->fired) {
                arm(t);
            }
        }
        const int64_t up_us = clock.monotonic ? clock.up_ns() / US : counted_us;
        ASSERT_EQ(osaGetSysUpMs(), static_cast<ULONG>(up_us / 1000));
    }

    void forget_timers()
    {
        uTimerRun(INT32_MAX);
        pumped_ms += INT32_MAX;
    }

    static inline char EVENT[] = "SYSTEM_TIME_UPDATED";
};

// Without the monotonic clock, and across the last second of 31 bits.
class ThirtyDays : public PumpTest {};

INSTANTIATE_TEST_SUITE_P(Beginning, ThirtyDays,
                         testing::Values(std::pair((int64_t{1} << 31) - 10 * DAY_S, false)));

INSTANTIATE_TEST_SUITE_P(Beginnings, PumpTest,
                         testing::Values(std::pair(1'700'000'000, true),
                                         std::pair((int64_t{1} << 31) - 500, false),
                                         std::pair((int64_t{1} << 32) - 500, false)));

TEST_P(PumpTest, CyclesCountStepsAsNoTime)
{
    timer timers[20] = {};
    for (timer& t : timers) {
        arm(&t);
    }
    for (int i = 0; i < 50; i++) { // so that no step goes back behind the start of the uptime
        pump(timers, 20);
    }
    for (int i = 0; i < STEPS && !HasFatalFailure(); i++) {
        const int64_t step = any_step();
        clock.at(clock.up_ns() + between(0, 2 * S), [this, step] { clock.step(step); });
        for (int n = 0; n < 42; n++) {
            pump(timers, 20);
        }
    }
    EXPECT_GT(steps_noticed, STEPS * 3 / 4);
    forget_timers();
}

// Whatever the wall clock does, a timer for one of its seconds fires in that second, or within 30 s
// of the step that went beyond it.
TEST_P(PumpTest, AbsoluteTimersFireInTheirSecondOrSoonAfterTheStepBeyondIt)
{
    forget_timers();
    for (int i = 0; i < STEPS / 2 && !HasFatalFailure(); i++) {
        for (int n = 0; n < 620;
             n++) { // a check between two steps, or they may make up for each other
            cycle(clock);
        }
        timer t = {};
        const int64_t left = between(75, 200);
        const int64_t second = clock.wall_us() / 1'000'000 + left;
        int64_t step = any_step();
        step += step < 0 ? -20'000'000 : 20'000'000; // below a tenth of 30 s nothing is armed anew
        ASSERT_NE(uTimerEventAdd(FIRE, &t, second), 0U);
        const int64_t stepped = clock.up_ns() + between(0, (left - 70) * S);
        clock.at(stepped, [this, step] { clock.step(step); });
        while (clock.up_ns() < stepped + 32 * S) {
            cycle(clock);
        }
        const int64_t late = clock.wall_us() / 1'000'000 - second;
        ASSERT_TRUE(t.fired ? late >= 0 : late < 2) << left << " " << step << " " << late;
        if (step < 0) {
            clock.step(-step); // forward again: what is far away now would never be there
        }
        while (clock.wall_us() < (second + 1) * 1'000'000 + 50'000 && !t.fired) {
            cycle(clock);
        }
        ASSERT_TRUE(t.fired);
        ASSERT_GE(clock.wall_us(), second * 1'000'000);
        clock.step(GetParam().first * 1'000'000 + clock.up_ns() / US - clock.wall_us());
    }
    forget_timers();
}

static constexpr int64_t HALF_NS = (SANITIZED ? 1 : 15) * DAY_S * S / (TSAN ? 8 : 1); // of the run

// Where sleeps are exact the pump is, too. Otherwise each cycle loses or gains less than 1 ms.
TEST_P(ThirtyDays, OfThePumpDriftByWhatItsCyclesCut)
{
    timer timers[3] = {};
    timer hourly = {pumped_ms, true};
    for (timer& t : timers) {
        arm(&t);
    }
    while (clock.up_ns() < 31 * S) { // the first check finds another time than it knew
        pump(timers, 3);
    }
    for (const uint32_t late_ns : {0U, 300'000U}) {
        const int64_t start = clock.up_ns();
        const int64_t pumped_before = pumped_ms;
        int64_t cycles = 0;
        clock.late_ns = late_ns;
        for (; clock.up_ns() < start + HALF_NS && !HasFatalFailure(); cycles++) {
            pump(timers, 3);
            ASSERT_EQ(hourly.fired, hourly.due <= pumped_ms);
            if (hourly.fired) {
                hourly = {pumped_ms + 3'600'000, false};
                ASSERT_NE(uTimerEventAdd(FIRE, &hourly, clock.wall_us() / 1'000'000 + 3600), 0U);
            }
        }
        const int64_t drift = (clock.up_ns() - start) / MS - (pumped_ms - pumped_before);
        EXPECT_LE(std::abs(drift), late_ns == 0 ? 0 : cycles);
    }
    forget_timers();
}

// ---- The exception task ----

static constexpr int TICKS = 100; // from one call of the watchdog to the next
static WDOG_ID watchdog;
static int64_t calls;

static int start_watchdog(void*)
{
    calls++;
    return wdStart(watchdog, TICKS, reinterpret_cast<FUNCPTR>(start_watchdog), nullptr);
}

// Runs the exception task for so long. @return ms, by its ticks
static int64_t ticked(sim_clock* clock, int64_t ns)
{
    watchdog = wdCreate();
    calls = -1;
    start_watchdog(nullptr);
    clock->at(ns, [] { pthread_exit(nullptr); });
    std::thread([clock] {
        clock->enter();
        exception_task(0, 1, 2, 3, 4, 5, 6, 7, 8, 9);
    }).join();
    EXPECT_EQ(wdDelete(watchdog), OK);
    return calls * TICKS * 10;
}

// On the monotonic clock a step is nothing. On the wall clock what looks like at most 1,000 s is
// made up for, tick by tick; each step costs two passes at most.
TEST_P(ClockTest, TicksCountWhatTheirClockCan)
{
    int64_t expected = STEPS * S;
    for (int i = 0; i < STEPS; i++) {
        clock.at(i * S + between(0, S - 30 * MS), [&] { // no two in a pass
            const int64_t step = any_step();
            clock.step(step);
            expected += !clock.monotonic && step > 0 && step <= 60'000'000 ? step * US : 0;
        });
    }
    const int64_t allowed = TICKS * 10 + (clock.monotonic ? 0 : STEPS * 20);
    const int64_t ticks_ms = ticked(&clock, STEPS * S);
    EXPECT_LE(std::abs(ticks_ms - expected / MS), allowed);
}

// Of two passes one makes up for what the other was late, and a microsecond of each is cut.
TEST_P(ThirtyDays, OfTicksDriftByHalfOfWhatSleepsAreLate)
{
    for (const int64_t late_us : {0, 100}) {
        sim_clock half = clock;
        half.late_ns = static_cast<uint32_t>(late_us * US);
        const int64_t passes = HALF_NS / (10 * MS);
        const int64_t drift = HALF_NS / MS - ticked(&half, HALF_NS);
        const int64_t late_ms = passes * late_us / 2 / 1000; // half of the most, on average
        EXPECT_GE(drift, late_ms / 2 * 95 / 100);
        EXPECT_LE(drift, late_ms / 2 * 105 / 100 + passes / 1000 + TICKS * 10);
    }
}
