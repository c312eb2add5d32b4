#include "uTimerClock.cpp" // for the records

#include "fail.h"
#include "timer_calls.h"

#include <sstream>

namespace {

constexpr time_t NOW = 1'700'000'000;

std::atomic<time_t> wall_clock;
std::atomic<void (*)()> after_reading = nullptr; // once
std::ostringstream calls;                        // what the doubles of other modules were asked for

uint32_t arm_at(const char* name, time_t second)
{
    return uTimerEventAdd(NOTE, const_cast<char*>(name), second);
}

/** The records in their order. */
std::vector<uTimerEventInfo_t*> records() UNCHECKED
{
    std::vector<uTimerEventInfo_t*> all;
    for (uTimerEventInfo_t* record = timerEventList; record != nullptr; record = record->next) {
        all.push_back(record);
    }
    return all;
}

/** Lets all timers run, and drops their records. */
void forget_timers() UNCHECKED
{
    uTimerRun(INT32_MAX);
    for (uTimerEventInfo_t* record : records()) {
        uFree(record);
    }
    (void)take_records_locked();
    gTime = 0;
    log_clear();
}

class TimerClockTest : public ::testing::Test {
  protected:
    void SetUp() override
    {
        wall_clock = NOW;
        fire_count = 0;
    }
    void TearDown() override { forget_timers(); }
};

} // namespace

extern "C" time_t __wrap_time(time_t*)
{
    const time_t now = wall_clock;
    void (*const next)() = after_reading.exchange(nullptr);
    if (next != nullptr) {
        next();
    }
    return now;
}

extern "C" status_t __wrap_uAsyncCall(FUNCPTR func, void* param)
{
    EXPECT_EQ(reinterpret_cast<void*>(func), reinterpret_cast<void*>(uTimerCheckSysTimeUpdated));
    calls << "post " << reinterpret_cast<uintptr_t>(param);
    return OK;
}

extern "C" void __wrap_osaUpdateSysTimeBase(struct timeval oldTime, uint32_t elapsedMs)
{
    calls << "base " << oldTime.tv_sec << "." << oldTime.tv_usec << " " << elapsedMs << " ";
}

extern "C" bool_t __wrap_uEventRaise(char* eventName, int32_t* eventParam, size_t paramSize)
{
    calls << eventName << " " << reinterpret_cast<uintptr_t>(eventParam) << " " << paramSize;
    return 1;
}

TEST_F(TimerClockTest, AbsoluteTimersAreRelativeOnes)
{
    fail_malloc(1);
    EXPECT_EQ(arm_at("no record", NOW + 1), 0U);
    fail_nothing();
    EXPECT_EQ(logged(), "5 uTimerEventAdd: malloc error \n|");

    EXPECT_NE(arm_at("now", NOW), 0U);
    EXPECT_EQ(arm_at("past", NOW - 1), 0U);
    EXPECT_EQ(arm_at("25 days", NOW + 25 * 86'400), 0U);
    EXPECT_EQ(uTimerRemainGet(arm_at("60 days", NOW + 60 * 86'400)), 889'032'704); // mod 2^32
    arm_at("never", INT64_MIN);
    arm_at("never", INT64_MAX);
    EXPECT_EQ(records().size(), 6U); // kept, whether armed or not
}

TEST_F(TimerClockTest, DeviationDecidesWhetherTimersAreArmedAnew)
{
    struct {
        time_t from;    // second of the previous check
        time_t seconds; // that the wall clock went on
        uint32_t elapses;
        bool armed_anew;
    } const table[] = {
        {NOW, 32, 30'000, false},      {NOW, 33, 30'000, true},
        {NOW, 28, 30'000, false},      {NOW, 27, 30'000, true},
        {NOW, 1, 1'009, false},        {NOW, 0, 0, true},
        {NOW, -30, 30'000, true},      {NOW, 0, 9, true},
        {0, 2'147'484, 352, true},     // by 2^31 ms
        {0, 4'294'968, 704, false},    // by 2^32
        {0, 4'294'990, 23'704, false}, // by 1000 less
        {0, 4'294'990, 21'704, false}, // by 1000 more
    };
    for (const auto& row : table) {
        wall_clock = row.from;
        checktimeoutCb(0);
        wall_clock += row.seconds;
        const uint32_t id = uTimerEventAdd(COUNT, nullptr, wall_clock + 20);
        uTimerRefresh(id, 10'000);
        checktimeoutCb(row.elapses);
        EXPECT_EQ(uTimerRemainGet(id), row.armed_anew ? 20'000 : 10'000)
            << row.seconds << " " << row.elapses;
        forget_timers();
    }
}

TEST_F(TimerClockTest, AStepOfTheClockMovesAbsoluteTimers)
{
    checktimeoutCb(0);
    const uint32_t relative = uTimerAdd(COUNT, nullptr, 6'000'000);
    arm_at("passed", NOW + 1800);
    const uint32_t later = arm_at("later", NOW + 5400);
    arm_at("past", NOW - 1);
    const uint32_t almost = arm_at("almost", NOW + 31);
    arm_at("fired", NOW + 1);
    uTimerDel(arm_at("deleted", NOW + 5400));
    EXPECT_EQ(fired_in(30'001), "fired ");

    wall_clock = NOW + 3600;
    checktimeoutCb(30'001);
    EXPECT_EQ(records().size(), 2U); // gone: fired, deleted, never armed, due within a second
    EXPECT_EQ(uTimerRemainGet(almost), 999);
    EXPECT_EQ(uTimerRemainGet(later), 1'800'000);
    EXPECT_EQ(uTimerRemainGet(relative), 5'969'999);
    EXPECT_EQ(fired_in(0), "passed ");

    const uint32_t appended = arm_at("appended", NOW + 9000);
    wall_clock = NOW - 100;
    checktimeoutCb(30'000);
    EXPECT_EQ(uTimerRemainGet(later), 5'500'000);
    EXPECT_EQ(uTimerRemainGet(appended), 9'100'000);
    uTimerDel(later);
    uTimerDel(appended);
    checktimeoutCb(30'000);
    EXPECT_EQ(records().size(), 0U);
    for (const time_t ahead : {10, 0, -1}) {
        wall_clock = NOW;
        after_reading = [] { // the step and the check come between the reading and the record
            wall_clock = NOW + 3600;
            checktimeoutCb(30'000);
        };
        const uint32_t id = arm_at("new", NOW + 3600 + ahead);
        EXPECT_EQ(uTimerRemainGet(id), ahead > 0 ? ahead * 1000 : 0) << ahead;
        EXPECT_EQ(fired_in(0), ahead > 0 ? "" : "new ");
    }
}

TEST_F(TimerClockTest, RecordsMayBeAddedDuringAResynchronisation)
{
    std::atomic<int> added = 0;
    together(4, [&added](int self) {
        for (int n = 0; self < 3 && n < 60; n++, added++) {
            EXPECT_NE(uTimerEventAdd(COUNT, nullptr, NOW + 10'000 + n), 0U);
        }
        while (added < 180) {
            checktimeoutCb(30'000'000); // the wall clock never goes as far
        }
    });
    checktimeoutCb(0);
    EXPECT_EQ(records().size(), 180U);
    uTimerRun(9'999'999);
    EXPECT_EQ(fire_count, 0);
    uTimerRun(60'000);
    EXPECT_EQ(fire_count, 180);
}

// Walked by position, or linked by walking, so many records would take minutes.
TEST_F(TimerClockTest, ManyRecordsAreResynchronisedInOneWalk)
{
    constexpr int RECORDS = 300'000;
    const uint32_t id = uTimerAdd(COUNT, nullptr, 1'000'000);
    for (int n = 0; n < RECORDS; n++) {
        arm_at("past", NOW - 1);
    }
    for (uTimerEventInfo_t* record : records()) {
        record->timerId = id;
        record->timeSec = NOW + 1000;
    }
    checktimeoutCb(0);
    EXPECT_EQ(records().size(), size_t{RECORDS});
}

TEST_F(TimerClockTest, MillisecondsBetweenTwoReadings)
{
    struct {
        struct timeval t1;
        struct timeval t2;
        uint32_t ms;
        bool stepped;
    } const table[] = {
        {{100, 900'000}, {101, 100}, 101, false},
        {{100, 0}, {100, 50'999}, 50, false},
        {{100, 50'000}, {100, 10'000}, 0, false},
        {{100, 500}, {101, 1}, 1000, false},
        {{100, 999'999}, {110, 0}, 9'001, false},
        {{100, 7}, {111, 0}, 50, true},
        {{100, 7}, {99, 999'999}, 50, true},
        {{100, 7}, {INT64_MIN, 0}, 50, true},
        {{INT64_MAX, 0}, {INT64_MIN, 5'000}, 1005, false}, // one apart, modulo 2^64
    };
    for (const auto& row : table) {
        calls.str("");
        EXPECT_EQ(uTimerAdjust(row.t1, row.t2), row.ms) << row.t2.tv_sec << "." << row.t2.tv_usec;
        EXPECT_EQ(calls.str(), row.stepped ? "base 100.7 50 post 50" : "");
    }
    calls.str("");
    uTimerCheckSysTimeUpdated(nullptr);
    EXPECT_EQ(calls.str(), "SYSTEM_TIME_UPDATED 50 4");
}
