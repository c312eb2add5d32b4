#include "internal.h"
#include "osaTask.h"
#include "task_probe.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <semaphore>
#include <thread>

// ---- The clocks and the shell, scripted ----

static int64_t monotonic_ns = 0;                        // negative: fails
static thread_local void (*between_fields)() = nullptr; // of this thread's readings of the clock
static std::atomic<int64_t> wall_us = 0;
static int clock_sets = 0;
static int clock_set_result = 0;
static time_t clock_set_to = 0;
static std::vector<std::string> commands;
static std::atomic<int> shells = 0;        // their number
static std::binary_semaphore shell_end(0); // awaited by the shell of a zone with "STOP"
static std::atomic<int> zone_uses = 0;

static constexpr int64_t at(int64_t seconds, int64_t usec)
{
    return seconds * 1'000'000 + usec;
}

extern "C" {
int __wrap_clock_gettime(clockid_t, timespec* now)
{
    *now = {monotonic_ns / 1'000'000'000, monotonic_ns % 1'000'000'000};
    return monotonic_ns < 0 ? -1 : 0;
}

int __wrap_gettimeofday(timeval* now, void*)
{
    const int64_t us = wall_us;
    now->tv_sec = us / 1'000'000;
    if (between_fields) {
        between_fields();
    }
    now->tv_usec = us % 1'000'000;
    return 0;
}

int __wrap_clock_settime(clockid_t id, const timespec* to)
{
    EXPECT_EQ(id, CLOCK_REALTIME);
    clock_sets++;
    clock_set_to = to->tv_sec;
    return clock_set_result;
}

int __wrap_system(const char* command)
{
    commands.push_back(command);
    shells++;
    if (strstr(command, "STOP") != nullptr) {
        shell_end.acquire();
    }
    return 127 << 8; // what a missing shell gives
}

int __real_setenv(const char* name, const char* value, int overwrite);
int __wrap_setenv(const char* name, const char* value, int overwrite)
{
    const int uses = zone_uses;
    usleep(strstr(value, "SLOW") != nullptr ? 1000 : 0);
    EXPECT_EQ(zone_uses, uses); // nobody of ours looks at it meanwhile
    return __real_setenv(name, value, overwrite);
}

time_t __real_mktime(tm* local);
time_t __wrap_mktime(tm* local)
{
    zone_uses++;
    return __real_mktime(local);
}

tm* __real_localtime_r(const time_t* when, tm* local);
tm* __wrap_localtime_r(const time_t* when, tm* local)
{
    zone_uses++;
    return __real_localtime_r(when, local);
}
}

static status_t set_zone(std::string zone)
{
    return osaUpdateTimeZone(zone.data());
}

/** The monotonic clock fails from now on, and the uptime starts at a wall-clock instant. */
static void fall_back(int64_t start)
{
    monotonic_ns = -1;
    wall_us = start;
    tickInit();
}

// ---- Rate and uptime ----

TEST(ClockTest, RatesOutsideTheirRangeChangeNothing)
{
    const struct {
        int set, rate, ms, month;
    } table[] = {
        {60, 60, 16, 155'520'000}, {0, 60, 16, 155'520'000},     {-1, 60, 16, 155'520'000},
        {1, 1, 1000, 2'592'000},   {828, 828, 1, 2'146'176'000}, {829, 829, 1, INT_MAX},
        {1000, 1000, 1, INT_MAX},  {1001, 1000, 1, INT_MAX},     {100, 100, 10, 259'200'000}};
    monotonic_ns = 100'999'000'000;
    for (const auto& row : table) {
        sysClkRateSet(row.set);
        EXPECT_EQ(sysClkRateGet(), row.rate) << row.set;
        EXPECT_EQ(msPerTick, row.ms) << row.set;
        EXPECT_EQ(tickPerMonth, row.month) << row.set;
        EXPECT_EQ(tickGet(), static_cast<ULONG>(100 * row.rate + 999 / row.ms)) << row.set;
    }
    store_relaxed(&msPerTick, 0); // no division by it
    EXPECT_EQ(tickGet(), 10'000U);
    fall_back(at(1000, 0));
    EXPECT_EQ(tickGet(), 0U);
    sysClkRateSet(100);
}

TEST(ClockTest, UptimeIsTheMonotonicClockAndElseTheWallClock)
{
    struct {
        int64_t now;
        ULONG ticks, ms, seconds;
    } const table[] = {
        {at(0, 0), 1234, 12345, 12},
        {at(1000, 599'999), 0, 0, 0},    // before the start, in its second
        {at(1001, 599'999), 99, 999, 1}, // the seconds run ahead
        {at(1012, 945'678), 1234, 12345, 12},
        {at(999, 600'000), ULONG_MAX - 99, ULONG_MAX - 999, ULONG_MAX},
    };
    wall_us = at(1000, 600'000);
    tickInit();
    monotonic_ns = 12'345'678'901;
    osaUpdateSysTimeBase({1, 0}, 50); // nothing to correct, now or for a later fallback
    for (const auto& row : table) {
        wall_us = row.now;
        EXPECT_EQ(tickGet(), row.ticks) << row.now;
        EXPECT_EQ(osaGetSysUpMs(), row.ms) << row.now;
        EXPECT_EQ(osaGetSysUpSeconds(), row.seconds) << row.now;
        monotonic_ns = -1;
    }
    EXPECT_EQ(osaIntTimeSpanCompute(4294967280U, 16), 32U);
}

TEST(ClockTest, StepsOfTheWallClockAtTheEdgesOfTheFallback)
{
    fall_back(at(1000, 600'000));
    wall_us = at(5000, 0);
    osaUpdateSysTimeBase({1000, 500'000}, 50); // zero uptime: nothing to keep
    EXPECT_EQ(osaGetSysUpMs(), 3'999'400U);
    // A clock set to just after the epoch: the base cannot lie before it and borrow as well.
    wall_us = at(10, 100'000);
    osaUpdateSysTimeBase({1100, 800'000}, 50);
    EXPECT_EQ(osaGetSysUpMs(), 9'250U); // from 0.85 s on, not 100.25 s
}

// The base jumps between two readings that differ in both fields; one made of halves of both is
// off by most of a second.
TEST(ClockTest, ReadersNeverSeeHalfABase)
{
    fall_back(at(1000, 999'999));
    std::atomic<int> readings = 0;
    std::jthread reader([&](const std::stop_token& stop) {
        for (; !stop.stop_requested(); readings++) {
            const long ms = static_cast<long>(osaGetSysUpMs());
            const long ticks = static_cast<long>(tickGet());
            ASSERT_TRUE(ms >= -1 && ms <= 51 && ticks >= -1 && ticks <= 5) << ms << ticks;
        }
    });
    ASSERT_TRUE(eventually([&] { return readings > 0; }));
    between_fields = [] { usleep(20); };
    for (int i = 0; i < 50; i++) {
        wall_us = i % 2 == 0 ? at(1001, 0) : at(1000, 999'999);
        tickInit();
    }
    between_fields = nullptr;
    osaUpdateSysTimeBase({1001, 0}, 50);
}

TEST(ClockTest, OffsetIsAdjustedAfterAStepBackAndAfterAMonth)
{
    const auto adjusted_at = [](int64_t us) {
        stdout_capture out;
        wall_us = us;
        tickReInit();
        return out.text() == "tickReInit, adjust offset.\n";
    };
    const int64_t before = at(1'699'999'999, 500'000);
    const int64_t month = before + at(2'592'000, 0); // tickPerMonth times 10 ms
    fall_back(before + 1'000'000);
    EXPECT_FALSE(adjusted_at(before + 1'000'000));
    EXPECT_TRUE(adjusted_at(before));
    EXPECT_FALSE(adjusted_at(month + 9'999)); // adopted
    EXPECT_TRUE(adjusted_at(month + 10'000));
    sysClkRateSet(1); // the month shrinks with the rate, the 10 ms do not
    EXPECT_TRUE(adjusted_at(month + at(25'920, 20'000)));
    sysClkRateSet(100);
}

// ---- Setting the clock and the zone ----

TEST(ClockTest, ClockIsSetFromALocalDate)
{
    set_zone("CET-1CEST,M3.5.0,M10.5.0/3");
    EXPECT_EQ(osaSetTimer(2024, 0, 15, 12, 0, 0, 3600), OK);
    EXPECT_EQ(clock_set_to, 1'705'320'000); // 15 January 2024, 11:00 UTC, and an hour
    EXPECT_EQ(osaSetTime(2024, 6, 15, 12, 0, 0, -1), OK);
    EXPECT_EQ(clock_set_to, 1'721'037'599); // daylight saving: 10:00 UTC
    clock_set_result = -1;
    EXPECT_EQ(osaSetTime(2024, 0, 15, 8, 30, 0, 0), OK);
    EXPECT_EQ(osaSetTime(INT_MAX, INT_MAX, 1, 0, 0, 0, 0), OK); // no such instant
    EXPECT_EQ(osaSetTime(INT_MIN, 0, 1, 0, 0, 0, 0), OK);
    EXPECT_EQ(clock_sets, 3);
}

TEST(ClockTest, ZonesGoToTheEnvironmentAndTheFileAndHostileOnesAreRefused)
{
    std::string allowed = "+:-,./_<>0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
    for (const std::string& zone : {allowed, std::string(92, 'A')}) {
        EXPECT_EQ(set_zone(zone), OK) << zone;
        EXPECT_EQ(getenv("TZ"), zone);
        EXPECT_EQ(commands.back(), "echo '" + zone + "' > /etc/TZ;source /etc/profile");
    }
    const size_t count = commands.size();
    std::vector<std::string> refused = {"", "-n" /* echo's */, std::string(93, 'A')};
    refused.insert(refused.end(), {"/tmp/x", ":/tmp/x", "::/x", "../x", ":../../tmp/x", "A/../x"});
    for (int c = 1; c < 256; c++) {
        const std::string letter(1, static_cast<char>(c));
        if (allowed.find(letter) == std::string::npos) {
            refused.insert(refused.end(), {"UTC0" + letter, letter + "UTC0"});
        }
    }
    for (const std::string& zone : refused) {
        EXPECT_EQ(set_zone(zone), ERROR) << zone;
    }
    EXPECT_EQ(getenv("TZ"), std::string(92, 'A'));
    EXPECT_EQ(commands.size(), count);
}

TEST(ClockTest, ZonesAreInEffectAtOnceAndNeverChangeUnderTheirUsers)
{
    const auto local_hour = [] {
        tm local;
        thread_record_t* me = op_enter();
        zone_local_time(0, &local);
        op_leave(me);
        return local.tm_hour;
    };
    for (int hours = 1; hours < 3; hours++) {
        set_zone("XXX-" + std::to_string(hours));
        EXPECT_EQ(local_hour(), hours);
    }
    const std::jthread user([&](const std::stop_token& stop) {
        while (!stop.stop_requested()) {
            local_hour();
            osaSetTime(2024, 0, 15, 12, 0, 0, 0);
        }
    });
    for (int i = 0; i < 20; i++) { // it waits in either of them
        set_zone("SLOW1");
    }
}

TEST(ClockTest, CallersTakeTurnsAndATaskThatWaitsForItsOwnEndsWithItsDeletion)
{
    const int before = shells;
    std::jthread holder(set_zone, "STOP1");
    probe waiting;
    ASSERT_TRUE(eventually([&] { return shells > before; }));
    const taskId_t task = spawn([&] {
        probe_attach(&waiting);
        set_zone("LATE1");
    });
    ASSERT_TRUE(eventually([&] { return waiting.running.load(); }));
    EXPECT_EQ(taskDelete(task), OK);
    EXPECT_TRUE(eventually([&] { return waiting.ended.load(); }));
    EXPECT_STREQ(getenv("TZ"), "STOP1"); // as in the file
    shell_end.release();
    EXPECT_EQ(set_zone("NEXT1"), OK);
    EXPECT_EQ(shells, before + 2);
}
