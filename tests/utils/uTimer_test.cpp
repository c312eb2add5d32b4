#include "uTimer.cpp" // for the module's state: a service made anew, the next id, free blocks

#include "fail.h"
#include "log_double.h"

#include <algorithm>
#include <atomic>
#include <barrier>
#include <gtest/gtest.h>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr time_t NOW = 1'700'000'000;

std::atomic<time_t> wall_clock;
std::atomic<void (*)()> after_reading = nullptr; // once
std::ostringstream calls;                        // what the doubles of other modules were asked for
std::string fired;
std::atomic<int> fire_count;

void* cb(void (*function)(void*))
{
    return reinterpret_cast<void*>(function);
}

void* const NOTE = cb([](void* name) { fired += static_cast<char*>(name) + std::string(" "); });
void* const COUNT = cb([](void*) { fire_count++; });

uint32_t arm(const char* name, int32_t timeout)
{
    return uTimerAdd(NOTE, const_cast<char*>(name), timeout);
}

uint32_t arm_at(const char* name, time_t second)
{
    return uTimerEventAdd(NOTE, const_cast<char*>(name), second);
}

/** Priority and text of each line logged: "6 text|". */
std::string logged()
{
    std::string all;
    for (const log_line& line : log_lines()) {
        EXPECT_EQ(line.tag, "quarn.utils.timer");
        all += std::to_string(line.priority) + " " + line.text + "|";
    }
    return all;
}

std::string fired_in(int32_t time_gap)
{
    fired.clear();
    uTimerRun(time_gap);
    return fired;
}

/** Proves that no lock of the service is held: another thread uses all of them. */
void use_elsewhere()
{
    std::thread([] {
        uTimerRefresh(0xfffffff0, 1);
        arm_at("never", NOW - 1);
        uTimerInit(1);
    }).join();
}

unsigned free_blocks()
{
    return bmMgrTimerPoolHdr.freePoolQ.count;
}

/** The records in their order. */
std::vector<uTimerEventInfo_t*> records() UNCHECKED
{
    std::vector<uTimerEventInfo_t*> all;
    unode_t* link = timerEventList == nullptr ? nullptr : timerEventList->node;
    for (; link != nullptr; link = link->next) {
        all.push_back(record_of(link));
    }
    return all;
}

/** Takes the service back to where it is in a new process, but for the next id. */
void forget_service(uint32_t next_id = 1) UNCHECKED
{
    for (uTimerEventInfo_t* record : records()) {
        uFree(record);
    }
    uFree(timerEventList);
    uFree(timerList);
    uFree(uTimerPool);
    semDelete(timerMutex);
    timerEventList = nullptr;
    timerList = nullptr;
    uTimerPool = nullptr;
    timerMutex = nullptr;
    bmMgrTimerPoolHdr = {};
    idle_word = 0;
    gTime = 0;
    uTimerId = next_id;
    log_clear();
}

class TimerTest : public ::testing::Test {
  protected:
    void SetUp() override
    {
        wall_clock = NOW;
        fire_count = 0;
    }
    void TearDown() override { forget_service(); }
};

/** Runs a function on several threads that start together. */
template <typename Function> void together(int count, Function function)
{
    std::barrier start(count);
    std::vector<std::jthread> threads;
    for (int self = 0; self < count; self++) {
        threads.emplace_back([&, self] {
            start.arrive_and_wait();
            function(self);
        });
    }
}

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

// Adds, deletions, refreshes and passes at random, beside a list of deadlines that does the same
// the plain way: a timer goes in front of its equals, and a refresh needs one more for a moment.
TEST_F(TimerTest, AgreesWithAPlainModel)
{
    struct entry {
        uint32_t id;
        int64_t left;
    };
    static std::vector<void*> ran; // their ids
    void* const note_id = cb([](void* id) { ran.push_back(id); });
    const auto as_param = [](uintptr_t id) { return reinterpret_cast<void*>(id); };
    std::vector<entry> model;
    std::mt19937 random(20);
    const auto pick = [&random](size_t below) { return uint32_t(random() % below); };
    const auto insert = [&model](uint32_t id, int64_t left) {
        const auto later = [left](const entry& timer) { return timer.left >= left; };
        model.insert(std::find_if(model.begin(), model.end(), later), {id, left});
    };
    const auto remove = [&model](uint32_t id) {
        return std::erase_if(model, [id](const entry& timer) { return timer.id == id; }) != 0;
    };

    uTimerRun(0);
    fail_malloc(1, true);
    for (uint32_t step = 0, next_id = 1; step < 6000; step++) {
        const int32_t timeout = int32_t(pick(60)) * 5 - 5;
        const int32_t gap = int32_t(pick(30)) - 5;
        const bool known = !model.empty() && pick(8) != 0;
        const uint32_t id = known ? model[pick(model.size())].id : pick(next_id + 5);
        const bool accepted = model.size() < 300 && timeout >= 0;
        const uint32_t what = pick(64);
        std::vector<void*> expected;

        ran.clear();
        if (what == 0) {
            uTimerRun(gap);
            for (; !model.empty() && model.front().left <= gap; model.erase(model.begin())) {
                expected.push_back(as_param(model.front().id));
            }
            for (entry& timer : model) {
                timer.left -= gap;
            }
        } else if (what < 7) {
            uTimerDel(id);
            remove(id);
        } else if (what < 19) {
            uTimerRefresh(id, timeout);
            if (accepted && remove(id)) {
                insert(id, timeout);
            }
        } else {
            ASSERT_EQ(uTimerAdd(note_id, as_param(next_id), timeout), accepted ? next_id : 0);
            if (accepted) {
                insert(next_id++, timeout);
            }
        }
        ASSERT_EQ(ran, expected) << step;
        ASSERT_EQ(free_blocks(), 300 - model.size());
        for (size_t at = 0; at < model.size(); at += step % 50 == 0 ? 1 : 97) {
            ASSERT_EQ(uTimerRemainGet(model[at].id), model[at].left) << step;
        }
    }
    EXPECT_EQ(malloc_calls(), 0);
    fail_nothing();
    EXPECT_NE(logged().find("6 timer malloc failed! timerListSize=300\n|"), std::string::npos);
}

TEST_F(TimerTest, NumbersAtTheirEnds)
{
    forget_service(UINT32_MAX);
    const uint32_t near = arm("near", 10);
    const uint32_t far = arm("far", INT32_MAX);
    EXPECT_EQ(near, UINT32_MAX);
    EXPECT_EQ(far, 1U); // 0 is no id
    EXPECT_EQ(fired_in(-5), "");
    EXPECT_EQ(uTimerRemainGet(near), 15);
    EXPECT_EQ(uTimerRemainGet(far), INT32_MAX); // 5 more, if it could be told
    EXPECT_EQ(fired_in(INT32_MIN), "");
    EXPECT_EQ(uTimerRemainGet(near), INT32_MAX);
    uTimerDel(near);
    EXPECT_EQ(fired_in(INT32_MAX), "far ");
    uTimerDel(arm("last", 0));
    EXPECT_EQ(logged(), "3 uTimerDel: delete timerId=4294967295;\n|"
                        "3 uTimerDel: free timerId=2;\n|");

    // Seconds are multiplied modulo 2^32.
    const uint32_t id = uTimerAddSec(COUNT, nullptr, 4'294'968);
    EXPECT_EQ(uTimerRemainGet(id), 704);
    uTimerRefreshSec(id, 2'147'483);
    uTimerRefreshSec(id, 2'147'484); // negative
    EXPECT_EQ(uTimerRemainGet(id), 2'147'483'000);
    EXPECT_EQ(uTimerAddSec(COUNT, nullptr, 2'147'484), 0U);
}

TEST_F(TimerTest, CallbacksMayUseTheService)
{
    static uint32_t victim;
    static uint32_t waiting;
    uTimerAdd(cb([](void*) {
                  EXPECT_EQ(self_record->depth, 0);
                  use_elsewhere();
                  fired += "first ";
                  uTimerDel(victim); // it expired, too: too late
                  arm("zero", 0);    // for the next pass
                  uTimerRefresh(waiting, 7);
                  uTimerRun(7); // nested: runs what has not expired yet
              }),
              nullptr, 10);
    uTimerAdd(nullptr, nullptr, 11); // expires without a call
    victim = arm("victim", 11);
    waiting = arm("waiting", 1000);
    EXPECT_EQ(fired_in(11), "first zero waiting victim ");
    EXPECT_EQ(free_blocks(), 300U);
}

TEST_F(TimerTest, EachExpiredTimerMakesRoomForTheNextCallback)
{
    void* const again = cb([](void*) { fire_count += uTimerAdd(COUNT, nullptr, 5) != 0; });
    for (int n = 0; n < 300; n++) {
        uTimerAdd(again, nullptr, 10);
    }
    uTimerRun(10);
    EXPECT_EQ(fire_count, 299); // during the first call its own block was the first to come back
    EXPECT_EQ(logged(), "6 timer malloc failed! timerListSize=0\n|");
    uTimerRun(5);
    EXPECT_EQ(fire_count, 598);
}

TEST_F(TimerTest, AThreadThatEndsInAPassLosesNothing)
{
    arm("one", 10);
    uTimerAdd(cb([](void*) { pthread_exit(nullptr); }), nullptr, 20);
    arm("three", 30);
    const uint32_t fourth = arm("four", 40);
    const uint32_t late = arm("late", 100);

    fired.clear();
    std::thread([] { uTimerRun(50); }).join();
    EXPECT_EQ(fired, "one ");
    EXPECT_EQ(free_blocks(), 297U);
    EXPECT_EQ(uListSize(timerList), 3);
    EXPECT_EQ(uTimerRemainGet(late), 50);
    uTimerDel(fourth); // it is armed again, and can be deleted
    std::thread([] {
        op_leave(op_enter());
        record_ask_end(self_record); // the pass ends it before the first callback
        uTimerRun(50);
    }).join();
    arm("new", 0);
    EXPECT_EQ(fired_in(0), "new three late ");
    EXPECT_EQ(free_blocks(), 300U);
}

TEST_F(TimerTest, IsCreatedOnceAsLargeAsAskedIfThereIsMemory)
{
    for (int32_t total : {INT32_MIN, 299, 400}) {
        uTimerInit(total);
        uTimerInit(500);
        EXPECT_EQ(logged(), "4 uTimer is already initialized.\n|");
        EXPECT_EQ(free_blocks(), total == 400 ? 400U : 300U);
        forget_service();
    }
    struct {
        int nth;
        bool and_after;
        uint32_t next_id;
    } const table[] = {
        {1, true, 1},  // the list
        {2, true, 1},  // the pool and any lock
        {2, false, 0}, // the pool, for good
        {3, false, 0}, // its lock
    };
    for (const auto& row : table) {
        fail_malloc(row.nth, row.and_after);
        EXPECT_EQ(uTimerAdd(COUNT, nullptr, 1), 0U);
        fail_nothing();
        uTimerRun(1);
        EXPECT_EQ(uTimerAdd(COUNT, nullptr, 1), row.next_id);
        forget_service();
    }
    uTimerInit(INT32_MAX); // more than can be asked for
    EXPECT_EQ(logged(), "6 Malloc timer pool failed.|");
}

TEST_F(TimerTest, FirstUseFromManyThreadsCreatesOneService)
{
    for (int round = 0; round < 60; round++) {
        together(8, [](int) {
            uTimerRun(0);
            EXPECT_NE(uTimerAdd(COUNT, nullptr, 1000), 0U);
            EXPECT_NE(uTimerEventAdd(COUNT, nullptr, NOW + 1000), 0U);
        });
        ASSERT_EQ(uListSize(timerList), 16);
        ASSERT_EQ(free_blocks(), 284U);
        ASSERT_EQ(records().size(), 8U);
        forget_service();
    }
}

// The pump passes without the lock whenever nothing is due: no time may be lost beside the adds.
TEST_F(TimerTest, ThreadsShareTheService)
{
    std::atomic<int> armed = 0;
    std::atomic<int> running = 3;
    int32_t passed = 0;
    const uint32_t witness = uTimerAdd(COUNT, nullptr, INT32_MAX);
    together(4, [&](int self) {
        std::mt19937 random(static_cast<unsigned>(self));
        for (; self == 3 && running > 0; passed++) {
            uTimerRun(1);
        }
        for (int round = 0, left = INT32_MAX; self < 3 && round < 10'000; round++) {
            const int32_t now = uTimerRemainGet(witness);
            EXPECT_LE(now, left);
            left = now;
            if (round % 16 == 0) {
                const uint32_t id = uTimerAdd(COUNT, nullptr, int32_t(random() % 100));
                armed += id != 0;
                uTimerRefresh(id, int32_t(random() % 100));
                EXPECT_LT(uTimerRemainGet(id), 100);
            }
        }
        running--;
    });
    EXPECT_EQ(uTimerRemainGet(witness), INT32_MAX - passed);
    uTimerRun(100);
    uTimerDel(witness);
    EXPECT_EQ(fire_count, armed);
    EXPECT_EQ(free_blocks(), 300U);
}

TEST_F(TimerTest, AbsoluteTimersAreRelativeOnes)
{
    fail_malloc(1);
    EXPECT_EQ(arm_at("no list", NOW + 1), 0U);
    fail_malloc(2);
    EXPECT_EQ(arm_at("no record", NOW + 1), 0U);
    fail_nothing();
    EXPECT_EQ(logged(), "5 uTimerEventAdd: malloc error \n|");

    EXPECT_EQ(arm_at("now", NOW), 1U);
    EXPECT_EQ(arm_at("past", NOW - 1), 0U);
    EXPECT_EQ(arm_at("25 days", NOW + 25 * 86'400), 0U);
    EXPECT_EQ(uTimerRemainGet(arm_at("60 days", NOW + 60 * 86'400)), 889'032'704); // mod 2^32
    arm_at("never", INT64_MIN);
    arm_at("never", INT64_MAX);
    EXPECT_EQ(records().size(), 6U); // kept, whether armed or not
}

TEST_F(TimerTest, DeviationDecidesWhetherTimersAreArmedAnew)
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
        forget_service();
    }
}

TEST_F(TimerTest, AStepOfTheClockMovesAbsoluteTimers)
{
    checktimeoutCb(0);
    const uint32_t relative = arm("relative", 6'000'000);
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
    after_reading = [] { // the step and the check come between the reading and the record
        wall_clock = NOW + 3600;
        checktimeoutCb(30'000);
    };
    EXPECT_EQ(uTimerRemainGet(arm_at("new", NOW + 3610)), 10'000);
    EXPECT_EQ(records().size(), 1U);
}

TEST_F(TimerTest, RecordsMayBeAddedDuringAResynchronisation)
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
TEST_F(TimerTest, ManyRecordsAreResynchronisedInOneWalk)
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

TEST_F(TimerTest, MillisecondsBetweenTwoReadings)
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
