#include "uTimer.cpp" // for the module's state: a service made anew, the next id, free blocks

#include "fail.h"
#include "log_double.h"
#include "task_probe.h"

#include <atomic>
#include <cstdarg>
#include <gtest/gtest.h>
#include <iterator>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr time_t NOW = 1'700'000'000;

std::atomic<time_t> wall_clock;
std::atomic<bool> logging_checks_locks;
std::string calls; // what the doubles of other modules were asked for
std::string fired;
std::atomic<int> fire_count;

void* cb(void (*function)(void*))
{
    return reinterpret_cast<void*>(function);
}

/** Callback that notes the name in its parameter. */
void* const NOTE =
    cb([](void* name) { fired += static_cast<const char*>(name) + std::string(" "); });
/** Callback for many timers or threads. */
void* const COUNT = cb([](void*) { fire_count++; });

char* name(const char* text)
{
    return const_cast<char*>(text);
}

uint32_t arm(const char* timer, int32_t timeout)
{
    return uTimerAdd(NOTE, name(timer), timeout);
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
        uTimerEventAdd(COUNT, nullptr, NOW - 1);
        uTimerInit(1);
    }).join();
}

unsigned free_blocks()
{
    return bmMgrTimerPoolHdr.freePoolQ.count;
}

void drop_records() UNCHECKED
{
    for (unode_t* link = timerEventList == nullptr ? nullptr : timerEventList->node; link;) {
        uTimerEventInfo_t* record = record_of(link);
        link = link->next;
        uFree(record);
    }
    uFree(timerEventList);
    timerEventList = nullptr;
    gTime = 0;
}

/** Takes the service back to where it is in a new process. */
void forget_service() UNCHECKED
{
    uFree(timerList);
    uFree(uTimerPool);
    if (timerMutex != nullptr) {
        semDelete(timerMutex);
    }
    timerList = nullptr;
    uTimerPool = nullptr;
    timerMutex = nullptr;
    bmMgrTimerPoolHdr = {};
    uTimerId = 1;
    idle_word = 0;
    drop_records();
}

void set_next_id(uint32_t id) UNCHECKED
{
    uTimerId = id;
}

int32_t record_count() UNCHECKED
{
    return uListSize(timerEventList);
}

class TimerTest : public ::testing::Test {
  protected:
    void SetUp() override
    {
        wall_clock = NOW;
        logging_checks_locks = false;
        fire_count = 0;
        calls.clear();
        log_clear();
    }
    void TearDown() override { forget_service(); }
};

/** Runs a function on a thread that it may end. */
void on_thread(void* (*body)(void*))
{
    pthread_t thread;
    ASSERT_EQ(pthread_create(&thread, nullptr, body, nullptr), 0);
    pthread_join(thread, nullptr);
}

/** Runs a function on several threads that start together. */
template <typename Function> void together(int count, Function function)
{
    std::atomic<int> missing = count;
    std::vector<std::thread> threads;
    for (int self = 0; self < count; self++) {
        threads.emplace_back([&, self] {
            missing--;
            while (missing > 0) {
                std::this_thread::yield();
            }
            function(self);
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

} // namespace

extern "C" time_t __wrap_time(time_t*)
{
    return wall_clock;
}

extern "C" status_t __wrap_uAsyncCall(FUNCPTR func, void* param)
{
    if (reinterpret_cast<void*>(func) == reinterpret_cast<void*>(uTimerCheckSysTimeUpdated)) {
        calls += "post " + std::to_string(reinterpret_cast<uintptr_t>(param)) + " ";
    }
    return OK;
}

extern "C" void __wrap_osaUpdateSysTimeBase(struct timeval oldTime, uint32_t elapsedMs)
{
    calls += "base " + std::to_string(oldTime.tv_sec) + "." + std::to_string(oldTime.tv_usec) +
             " " + std::to_string(elapsedMs) + " ";
}

extern "C" bool_t __wrap_uEventRaise(char* eventName, int32_t* eventParam, size_t paramSize)
{
    calls += eventName + std::string(" ") +
             std::to_string(reinterpret_cast<uintptr_t>(eventParam)) + " " +
             std::to_string(paramSize) + " depth " +
             std::to_string(self_record == nullptr ? 0 : self_record->depth);
    return 1;
}

extern "C" int __real___halden_log_print(int, const char*, const char*, ...);
extern "C" int __wrap___halden_log_print(int priority, const char* tag, const char* format, ...)
{
    if (logging_checks_locks.exchange(false)) {
        use_elsewhere();
    }
    char text[200];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof text, format, args);
    va_end(args);
    return __real___halden_log_print(priority, tag, "%s", text);
}

// ---- Relative timers ----

TEST_F(TimerTest, EqualDeadlinesRunNewestFirst)
{
    arm("soon", 100);
    const uint32_t older = arm("older", 250);
    const uint32_t newer = arm("newer", 250);
    arm("late", 251);
    EXPECT_EQ(uTimerRemainGet(older), 250);
    EXPECT_EQ(uTimerRemainGet(newer), 250);
    EXPECT_EQ(fired_in(99), "");
    EXPECT_EQ(fired_in(151), "soon newer older ");
    EXPECT_EQ(fired_in(0), "");
    EXPECT_EQ(fired_in(1), "late ");
}

TEST_F(TimerTest, ExpiryCountsFromNow)
{
    arm("one", 30);
    arm("two", 40);
    const uint32_t third = arm("three", 90);
    EXPECT_EQ(fired_in(50), "one two ");
    EXPECT_EQ(uTimerRemainGet(third), 40);
    arm("zero", 0);
    arm("between", 20);
    EXPECT_EQ(uTimerRemainGet(third), 40);
    EXPECT_EQ(fired_in(0), "zero ");
    EXPECT_EQ(fired_in(1000), "between three ");
}

TEST_F(TimerTest, DeletionLeavesTheOthersTheirTime)
{
    const uint32_t first = arm("first", 100);
    const uint32_t middle = arm("middle", 200);
    const uint32_t last = arm("last", 300);

    uTimerDel(middle);
    EXPECT_EQ(uTimerRemainGet(last), 300);
    EXPECT_EQ(uTimerRemainGet(middle), 0);
    uTimerDel(first);
    EXPECT_EQ(uTimerRemainGet(last), 300);
    logging_checks_locks = true;
    uTimerDel(last);
    for (uint32_t id : {first, last, 0U, 12345U}) {
        uTimerDel(id);
    }
    EXPECT_EQ(fired_in(1000), "");
    EXPECT_EQ(free_blocks(), 300U);

    EXPECT_EQ(log_texts(), "uTimerDel: delete timerId=2;\n|uTimerDel: delete timerId=1;\n|"
                           "uTimer is already initialized.\n|uTimerDel: free timerId=3;\n|");
    EXPECT_EQ(log_lines()[0].priority, 3);
    EXPECT_EQ(log_lines()[3].priority, 3);
    EXPECT_EQ(log_lines()[0].tag, "quarn.utils.timer");
}

TEST_F(TimerTest, RefreshKeepsIdAndCallback)
{
    const uint32_t id = arm("it", 20);
    const uint32_t other = arm("other", 400);

    uTimerRefresh(id, 500);
    EXPECT_EQ(uTimerRemainGet(id), 500);
    EXPECT_EQ(uTimerRemainGet(other), 400);
    uTimerRefresh(id, 400); // in front of its equals, as if armed just now
    uTimerRefresh(id, -1);
    uTimerRefresh(0, 1);
    uTimerRefresh(999, 1);
    EXPECT_EQ(uTimerRemainGet(id), 400);
    EXPECT_EQ(fired_in(400), "it other ");

    uTimerRefresh(id, 10); // it is gone
    EXPECT_EQ(fired_in(100), "");
    EXPECT_EQ(free_blocks(), 300U);
}

TEST_F(TimerTest, SecondsAreMillisecondsModulo32Bits)
{
    const uint32_t id = uTimerAddSec(NOTE, name("s"), 2);
    EXPECT_EQ(uTimerRemainGet(id), 2000);
    uTimerRefreshSec(id, 2'147'483);
    EXPECT_EQ(uTimerRemainGet(id), 2'147'483'000);
    uTimerRefreshSec(id, 2'147'484); // negative once multiplied
    EXPECT_EQ(uTimerRemainGet(id), 2'147'483'000);
    EXPECT_EQ(uTimerAddSec(NOTE, name("s"), 2'147'484), 0U);
    EXPECT_EQ(uTimerRemainGet(uTimerAddSec(NOTE, name("s"), 4'294'968)), 704);
    EXPECT_EQ(uTimerAddSec(NOTE, name("s"), INT32_MIN), 3U); // 0 ms
}

TEST_F(TimerTest, GapsOfAnySizeAndSign)
{
    const uint32_t near = arm("near", 10);
    const uint32_t far = arm("far", INT32_MAX);
    EXPECT_EQ(fired_in(-5), "");
    EXPECT_EQ(uTimerRemainGet(near), 15);
    EXPECT_EQ(uTimerRemainGet(far), INT32_MAX); // 5 more, if it could be told
    EXPECT_EQ(fired_in(INT32_MIN), "");
    EXPECT_EQ(uTimerRemainGet(near), INT32_MAX);
    uTimerDel(near);
    EXPECT_EQ(uTimerRemainGet(far), INT32_MAX);
    EXPECT_EQ(fired_in(INT32_MAX), "far ");
    EXPECT_EQ(arm("negative", -1), 0U);
    EXPECT_EQ(arm("negative", INT32_MIN), 0U);
    EXPECT_EQ(free_blocks(), 300U);
}

TEST_F(TimerTest, IdsSkipZero)
{
    uTimerRun(0);
    set_next_id(UINT32_MAX);
    EXPECT_EQ(arm("a", 10), UINT32_MAX);
    EXPECT_EQ(arm("b", 20), 1U);
    EXPECT_EQ(uTimerRemainGet(UINT32_MAX), 10);
    EXPECT_EQ(fired_in(20), "a b ");
}

TEST_F(TimerTest, NullCallbacksExpireSilently)
{
    uTimerAdd(nullptr, nullptr, 5);
    arm("next", 5);
    uTimerAdd(nullptr, nullptr, 5);
    EXPECT_EQ(fired_in(5), "next ");
    EXPECT_EQ(free_blocks(), 300U);
}

TEST_F(TimerTest, ThePoolBoundsTheTimers)
{
    uint32_t id = 0;
    for (int n = 0; n < 300; n++) {
        ASSERT_NE(id = uTimerAdd(COUNT, nullptr, 50 + n), 0U);
    }
    logging_checks_locks = true;
    EXPECT_EQ(arm("one more", 1), 0U);
    EXPECT_EQ(log_texts(),
              "uTimer is already initialized.\n|timer malloc failed! timerListSize=300\n|");
    EXPECT_EQ(log_lines()[1].priority, 6);
    log_clear();
    uTimerRefresh(id, 1); // needs one more for a moment
    EXPECT_EQ(uTimerRemainGet(id), 349);
    EXPECT_EQ(log_texts(), "");

    uTimerRun(50);
    uTimerRefresh(id, 1);
    EXPECT_EQ(uTimerRemainGet(id), 1);
    EXPECT_NE(arm("one more", 1), 0U);
    uTimerRun(1000);
    EXPECT_EQ(fire_count, 300);
    EXPECT_EQ(free_blocks(), 300U);
}

TEST_F(TimerTest, OperationsAllocateNothing)
{
    uTimerRun(0);
    fail_malloc(1, true);
    const uint32_t id = uTimerAdd(COUNT, nullptr, 10);
    uTimerAdd(COUNT, nullptr, 10);
    uTimerDel(uTimerAdd(COUNT, nullptr, 10));
    uTimerRefresh(id, 20);
    uTimerRun(10);
    uTimerRun(10);
    EXPECT_EQ(malloc_calls(), 0);
    fail_nothing();
    EXPECT_EQ(fire_count, 2);
    EXPECT_EQ(free_blocks(), 300U);
}

// Adds, deletions, refreshes and passes at random, beside a list of deadlines that does the same
// the plain way.
TEST_F(TimerTest, AgreesWithAPlainModel)
{
    struct entry {
        uint32_t id;
        int64_t left;
    };
    static std::vector<uint32_t> ran;
    std::vector<entry> model;
    std::mt19937 random(20);
    const auto pick = [&random](uint32_t below) { return static_cast<uint32_t>(random() % below); };
    const auto insert = [&model](uint32_t id, int64_t left) {
        auto at = model.begin();
        while (at != model.end() && at->left < left) {
            ++at;
        }
        model.insert(at, {id, left});
    };

    for (uint32_t step = 0, next_id = 1; step < 6000; step++) {
        const uint32_t timeout = pick(60) * 5;
        const uint32_t id = model.empty() || pick(8) == 0 ? next_id + pick(5)
                                                          : model[pick(uint32_t(model.size()))].id;
        const auto known = std::find_if(model.begin(), model.end(),
                                        [id](const entry& timer) { return timer.id == id; });
        switch (pick(16)) {
        default: {
            void* param = reinterpret_cast<void*>(uintptr_t{next_id});
            void* const note =
                cb([](void* arg) { ran.push_back(uint32_t(reinterpret_cast<uintptr_t>(arg))); });
            ASSERT_EQ(uTimerAdd(note, param, int32_t(timeout)), model.size() < 300 ? next_id : 0);
            if (model.size() < 300) {
                insert(next_id++, timeout);
            }
            break;
        }
        case 0:
        case 1:
            uTimerDel(id);
            if (known != model.end()) {
                model.erase(known);
            }
            break;
        case 2:
        case 3:
        case 4:
            uTimerRefresh(id, int32_t(timeout));
            if (known != model.end() && model.size() < 300) {
                model.erase(known);
                insert(id, timeout);
            }
            break;
        case 5: {
            const int32_t gap = int32_t(pick(30)) - 5;
            std::vector<uint32_t> expected;
            ran.clear();
            uTimerRun(gap);
            while (!model.empty() && model.front().left <= gap) {
                expected.push_back(model.front().id);
                model.erase(model.begin());
            }
            for (entry& timer : model) {
                timer.left -= gap;
            }
            ASSERT_EQ(ran, expected) << step;
            break;
        }
        }
        ASSERT_EQ(free_blocks(), 300 - model.size());
        for (size_t at = 0; at < model.size(); at += step % 50 == 0 ? 1 : 97) {
            ASSERT_EQ(uTimerRemainGet(model[at].id), model[at].left) << step;
        }
    }
}

// ---- Callbacks ----

TEST_F(TimerTest, CallbacksRunUnlockedAtTheCallersDepth)
{
    uTimerAdd(cb([](void*) {
                  EXPECT_EQ(self_record->depth, 0);
                  use_elsewhere();
              }),
              nullptr, 1);
    uTimerRun(1);
}

TEST_F(TimerTest, CallbacksMayUseTheService)
{
    static uint32_t victim;
    static uint32_t waiting;
    uTimerAdd(cb([](void*) {
                  fired += "first ";
                  uTimerDel(victim); // it expired, too: too late
                  arm("zero", 0);    // for the next pass
                  uTimerRefresh(waiting, 7);
                  uTimerRun(7); // nested: runs what has not expired yet
              }),
              nullptr, 10);
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
    EXPECT_EQ(log_texts(), "timer malloc failed! timerListSize=0\n|");
    uTimerRun(5);
    EXPECT_EQ(fire_count, 598);
    EXPECT_EQ(free_blocks(), 300U);
}

TEST_F(TimerTest, AThreadThatEndsInACallbackLosesNothing)
{
    for (int round = 0; round < 100; round++) {
        arm("one", 10);
        uTimerAdd(cb([](void*) { pthread_exit(nullptr); }), nullptr, 20);
        arm("three", 30);
        const uint32_t fourth = arm("four", 40);
        const uint32_t late = arm("late", 100);

        fired.clear();
        on_thread([](void*) -> void* {
            uTimerRun(50);
            return nullptr;
        });
        ASSERT_EQ(fired, "one ");
        ASSERT_EQ(free_blocks(), 297U);
        ASSERT_EQ(uListSize(timerList), 3);
        ASSERT_EQ(uTimerRemainGet(late), 50);
        if (round % 2 == 0) {
            uTimerDel(fourth); // it is armed again, and can be deleted
        }
        arm("new", 0);
        ASSERT_EQ(fired_in(0), round % 2 == 0 ? "new three " : "new three four ");
        ASSERT_EQ(fired_in(50), "late ");
        ASSERT_EQ(free_blocks(), 300U);
    }
}

TEST_F(TimerTest, AThreadToldToEndLeavesAllCallbacksToTheNextPass)
{
    arm("one", 10);
    arm("two", 20);
    fired.clear();
    on_thread([](void*) -> void* {
        op_leave(op_enter());
        record_ask_end(self_record);
        uTimerRun(20);
        return nullptr;
    });
    EXPECT_EQ(fired, "");
    EXPECT_EQ(fired_in(0), "one two ");
    EXPECT_EQ(free_blocks(), 300U);
}

TEST_F(TimerTest, ATaskDeletedInACallbackLosesNothing)
{
    static SEM_ID never;
    static std::atomic<bool> waits;
    never = semBCreate(0, SEM_EMPTY);
    for (int round = 0; round < 20; round++) {
        waits = false;
        uTimerAdd(cb([](void*) {
                      waits = true;
                      semTake(never, WAIT_FOREVER);
                  }),
                  nullptr, 1);
        arm("behind", 2);
        const taskId_t task = spawn([] { uTimerRun(5); });
        ASSERT_TRUE(eventually([] { return waits.load(); }));
        ASSERT_EQ(taskDelete(task), OK);
        ASSERT_TRUE(eventually([] { return fired_in(0) == "behind "; }));
        ASSERT_TRUE(eventually([] { return free_blocks() == 300; }));
    }
    semDelete(never);
}

// ---- Creation ----

TEST_F(TimerTest, IsCreatedOnceAsLargeAsAsked)
{
    uTimerInit(400);
    EXPECT_EQ(log_texts(), "");
    uTimerInit(500);
    EXPECT_EQ(log_texts(), "uTimer is already initialized.\n|");
    EXPECT_EQ(log_lines()[0].priority, 4);
    EXPECT_EQ(log_lines()[0].tag, "quarn.utils.timer");
    for (int n = 0; n < 400; n++) {
        ASSERT_NE(uTimerAdd(COUNT, nullptr, 1), 0U);
    }
    EXPECT_EQ(uTimerAdd(COUNT, nullptr, 1), 0U);
    forget_service();

    for (int32_t total : {INT32_MIN, 0, 299}) {
        uTimerInit(total);
        EXPECT_EQ(free_blocks(), 300U);
        forget_service();
    }
}

TEST_F(TimerTest, OperationsOfNoServiceDoNothing)
{
    uTimerDel(1);
    uTimerRefresh(1, 1);
    EXPECT_EQ(uTimerRemainGet(1), 0);
    EXPECT_EQ(timerList, nullptr);
    EXPECT_EQ(uTimerAdd(COUNT, nullptr, -1), 0U);
    EXPECT_EQ(free_blocks(), 300U); // created all the same
    EXPECT_EQ(log_texts(), "");
}

TEST_F(TimerTest, ComesUpOnceThereIsMemory)
{
    fail_malloc(1, true); // the list
    EXPECT_EQ(uTimerAdd(COUNT, nullptr, 1), 0U);
    uTimerRun(1);
    fail_nothing();
    EXPECT_EQ(log_texts(), "");
    fail_malloc(2, true); // the pool and any lock
    EXPECT_EQ(uTimerAdd(COUNT, nullptr, 1), 0U);
    fail_nothing();
    EXPECT_EQ(log_texts(), "Malloc timer pool failed.|");
    EXPECT_EQ(uTimerAdd(COUNT, nullptr, 1), 1U);
    forget_service();

    for (int nth = 2; nth <= 3; nth++) { // the pool, its lock
        log_clear();
        fail_malloc(nth);
        EXPECT_EQ(uTimerAdd(COUNT, nullptr, 1), 0U);
        fail_nothing();
        EXPECT_EQ(uTimerAdd(COUNT, nullptr, 1), 0U);
        uTimerRun(1);
        EXPECT_EQ(log_texts(), "Malloc timer pool failed.|"
                               "timer malloc failed! timerListSize=0\n|"
                               "timer malloc failed! timerListSize=0\n|");
        EXPECT_EQ(log_lines()[0].priority, 6);
        log_clear();
        forget_service();
    }
    uTimerInit(INT32_MAX); // more than can be asked for
    EXPECT_EQ(log_texts(), "Malloc timer pool failed.|");
}

TEST_F(TimerTest, FirstUseFromManyThreadsCreatesOneService)
{
    for (int round = 0; round < 60; round++) {
        uint32_t ids[8] = {};
        together(8, [&ids](int self) {
            if (self == 0) {
                uTimerRun(0);
            }
            ids[self] = uTimerAdd(COUNT, nullptr, 1000);
            uTimerEventAdd(COUNT, nullptr, NOW + 1000);
        });
        ASSERT_EQ(std::set<uint32_t>(std::begin(ids), std::end(ids)).size(), 8U);
        for (uint32_t id : ids) {
            ASSERT_EQ(uTimerRemainGet(id), 1000);
        }
        ASSERT_EQ(free_blocks(), 284U);
        ASSERT_EQ(record_count(), 8);
        ASSERT_EQ(log_texts(), "");
        forget_service();
    }
}

TEST_F(TimerTest, ThreadsShareTheService)
{
    std::atomic<int> armed = 0;
    std::atomic<bool> done = false;
    const uint32_t witness = uTimerAdd(COUNT, nullptr, INT32_MAX);
    int32_t passed = 0;
    std::thread pump([&] {
        for (; !done; passed++) {
            uTimerRun(1);
        }
    });
    together(3, [&armed](int self) {
        std::mt19937 random(static_cast<unsigned>(self));
        for (int round = 0; round < 2000; round++) {
            const uint32_t id = uTimerAdd(COUNT, nullptr, int32_t(random() % 100));
            armed += id != 0;
            uTimerRefresh(id, int32_t(random() % 100));
            EXPECT_LT(uTimerRemainGet(id), 100);
        }
    });
    done = true;
    pump.join();
    EXPECT_EQ(uTimerRemainGet(witness), INT32_MAX - passed);
    uTimerRun(100);
    uTimerDel(witness);
    EXPECT_EQ(fire_count, armed);
    EXPECT_EQ(free_blocks(), 300U);
}

// ---- Absolute-time timers ----

TEST_F(TimerTest, AbsoluteTimersAreRelativeOnes)
{
    const uint32_t id = uTimerEventAdd(NOTE, name("due"), NOW + 2);
    EXPECT_EQ(uTimerRemainGet(id), 2000);
    EXPECT_EQ(uTimerEventAdd(NOTE, name("now"), NOW), 2U);
    EXPECT_EQ(uTimerEventAdd(NOTE, name("past"), NOW - 1), 0U);
    EXPECT_EQ(uTimerEventAdd(NOTE, name("25 days"), NOW + 25 * 86'400), 0U);
    const uint32_t wrapped = uTimerEventAdd(NOTE, name("60 days"), NOW + 60 * 86'400);
    EXPECT_EQ(uTimerRemainGet(wrapped), 889'032'704); // modulo 2^32
    uTimerEventAdd(NOTE, name("never"), INT64_MIN);
    uTimerEventAdd(NOTE, name("never"), INT64_MAX);
    EXPECT_EQ(record_count(), 7); // kept, whether armed or not
    EXPECT_EQ(log_texts(), "");
}

TEST_F(TimerTest, AbsoluteTimersWithoutMemory)
{
    fail_malloc(1);
    EXPECT_EQ(uTimerEventAdd(COUNT, nullptr, NOW + 1), 0U);
    EXPECT_EQ(log_texts(), ""); // no list
    fail_malloc(2);
    logging_checks_locks = true;
    EXPECT_EQ(uTimerEventAdd(COUNT, nullptr, NOW + 1), 0U);
    fail_nothing();
    EXPECT_EQ(log_texts(), "uTimer is already initialized.\n|uTimerEventAdd: malloc error \n|");
    EXPECT_EQ(log_lines()[1].priority, 5);
    EXPECT_EQ(log_lines()[1].tag, "quarn.utils.timer");
    EXPECT_EQ(record_count(), 1); // the other thread's
}

TEST_F(TimerTest, AgreementWithinATenthChangesNothing)
{
    struct {
        time_t seconds;   // that the wall clock went on
        uint32_t elapses; // that the pump counted
        bool armed_anew;
    } const table[] = {
        {30, 30'000, false}, {32, 30'000, false}, {33, 30'000, true},  {28, 30'000, false},
        {27, 30'000, true},  {27, 30'009, true},  {28, 30'009, false}, {0, 0, true},
        {1, 1'009, false},   {0, 9, true},        {-30, 30'000, true}, {3600, 30'000, true},
    };
    for (const auto& row : table) {
        checktimeoutCb(0);
        const uint32_t id = uTimerEventAdd(COUNT, nullptr, wall_clock + 10'000);
        uTimerRefresh(id, 123'456);
        wall_clock += row.seconds;
        checktimeoutCb(row.elapses);
        const int32_t left = static_cast<int32_t>(10'000 - row.seconds) * 1000;
        EXPECT_EQ(uTimerRemainGet(id), row.armed_anew ? left : 123'456)
            << row.seconds << " " << row.elapses;
        uTimerDel(id);
        drop_records();
    }
}

TEST_F(TimerTest, DeviationIsTakenIn32Bits)
{
    struct {
        time_t now; // seconds, and the deviation counts from the start of the epoch
        uint32_t elapses;
        bool armed_anew;
    } const table[] = {
        {2'147'484, 352, true},     // deviates by 2^31 ms
        {4'294'968, 704, false},    // by 2^32
        {4'294'990, 23'704, false}, // by 1000 less
        {4'294'990, 21'704, false}, // by 1000 more
    };
    for (const auto& row : table) {
        wall_clock = row.now;
        const uint32_t id = uTimerEventAdd(COUNT, nullptr, row.now + 20);
        uTimerRefresh(id, 10'000);
        checktimeoutCb(row.elapses);
        EXPECT_EQ(uTimerRemainGet(id), row.armed_anew ? 20'000 : 10'000) << row.elapses;
        uTimerDel(id);
        drop_records();
    }
}

TEST_F(TimerTest, AStepOfTheClockMovesAbsoluteTimers)
{
    checktimeoutCb(0);
    arm("relative", 6'000'000);
    uTimerEventAdd(NOTE, name("passed"), NOW + 1800);
    const uint32_t later = uTimerEventAdd(NOTE, name("later"), NOW + 5400);
    uTimerEventAdd(NOTE, name("past"), NOW - 1);
    const uint32_t almost = uTimerEventAdd(NOTE, name("almost"), NOW + 31);
    uTimerEventAdd(NOTE, name("fired"), NOW + 1);
    const uint32_t deleted = uTimerEventAdd(NOTE, name("deleted"), NOW + 5400);
    uTimerDel(deleted);
    EXPECT_EQ(fired_in(30'001), "fired ");
    EXPECT_EQ(record_count(), 6);

    wall_clock = NOW + 3600;
    checktimeoutCb(30'001);
    EXPECT_EQ(record_count(), 2); // gone: fired, deleted, never armed, within a second of its time
    EXPECT_EQ(uTimerRemainGet(almost), 999);
    EXPECT_EQ(uTimerRemainGet(later), 1'800'000);
    EXPECT_EQ(fired_in(0), "passed ");

    const uint32_t appended = uTimerEventAdd(NOTE, name("appended"), NOW + 9000);
    wall_clock = NOW - 100;
    checktimeoutCb(30'000);
    EXPECT_EQ(uTimerRemainGet(later), 5'500'000);
    EXPECT_EQ(uTimerRemainGet(appended), 9'100'000);
    EXPECT_EQ(record_count(), 2);
    uTimerRefresh(later, 10);
    uTimerRefresh(appended, 10);
    wall_clock = NOW;
    checktimeoutCb(1000);
    EXPECT_EQ(record_count(), 0);
    EXPECT_NE(uTimerEventAdd(NOTE, name("new"), NOW + 10), 0U);
    EXPECT_EQ(record_count(), 1);
}

TEST_F(TimerTest, RecordsMayBeAddedDuringAResynchronisation)
{
    constexpr int EACH = 60;
    std::atomic<int> ready = 0;
    together(4, [&ready](int self) {
        for (int n = 0; self < 3 && n < EACH; n++) {
            EXPECT_NE(uTimerEventAdd(COUNT, nullptr, NOW + 10'000 + n), 0U);
        }
        ready += self < 3;
        while (self == 3 && ready < 3) {
            wall_clock = NOW + wall_clock % 100 + 1; // never as far as the pump says
            checktimeoutCb(30'000'000);
        }
    });
    EXPECT_EQ(record_count(), 3 * EACH);
    wall_clock = NOW + 100;
    checktimeoutCb(0);
    EXPECT_EQ(record_count(), 3 * EACH);
    uTimerRun(9'899'999);
    EXPECT_EQ(fire_count, 0);
    uTimerRun(60'000);
    EXPECT_EQ(fire_count, 3 * EACH);
}

// Processor time of appending and re-synchronising that many records, all of one live timer.
static double seconds_for_records(int count) UNCHECKED
{
    const uint32_t id = uTimerAdd(COUNT, nullptr, 1'000'000);
    struct timespec start;
    struct timespec end;

    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &start);
    for (int n = 0; n < count; n++) {
        uTimerEventAdd(nullptr, nullptr, NOW - 1);
    }
    for (unode_t* link = timerEventList->node; link != nullptr; link = link->next) {
        record_of(link)->timerId = id;
        record_of(link)->timeSec = NOW + 1000;
    }
    checktimeoutCb(0);
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &end);
    EXPECT_EQ(record_count(), count);
    drop_records();
    uTimerDel(id);
    return double(end.tv_sec - start.tv_sec) + 1e-9 * double(end.tv_nsec - start.tv_nsec);
}

TEST_F(TimerTest, ResynchronisationGrowsWithTheRecordsNotTheirSquare)
{
    seconds_for_records(2'000);
    const double few = seconds_for_records(2'000);
    const double many = seconds_for_records(64'000);
    EXPECT_LT(many / few, 250); // 32 times the records; the square would be 1024
}

TEST_F(TimerTest, EachRecordIsOneAllocation)
{
    uTimerEventAdd(nullptr, nullptr, NOW + 10);
    fail_malloc(0);
    uTimerEventAdd(nullptr, nullptr, NOW + 10);
    checktimeoutCb(0);
    EXPECT_EQ(malloc_calls(), 1);
}

// ---- The wall clock ----

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
        {{100, 999}, {100, 1'998}, 0, false},
        {{100, 50'000}, {100, 50'000}, 0, false},
        {{100, 50'000}, {100, 49'999}, 0, false},
        {{100, 50'000}, {100, 10'000}, 0, false},
        {{100, 500}, {101, 500}, 1000, false},
        {{100, 500}, {101, 1}, 1000, false},
        {{100, 999'999}, {101, 0}, 1, false},
        {{100, 0}, {101, 999'999}, 1999, false},
        {{100, 0}, {110, 999'999}, 10'999, false},
        {{100, 999'999}, {110, 0}, 9'001, false},
        {{100, 7}, {111, 0}, 50, true},
        {{100, 7}, {120, 7}, 50, true},
        {{100, 7}, {99, 999'999}, 50, true},
        {{0, 0}, {INT64_MIN, 0}, 50, true},
        {{INT64_MAX, 0}, {INT64_MIN, 5'000}, 1005, false}, // one apart, modulo 2^64
        {{-1, 0}, {1, 0}, 2000, false},
    };
    for (const auto& row : table) {
        calls.clear();
        EXPECT_EQ(uTimerAdjust(row.t1, row.t2), row.ms) << row.t2.tv_sec << "." << row.t2.tv_usec;
        const std::string base = "base " + std::to_string(row.t1.tv_sec) + "." +
                                 std::to_string(row.t1.tv_usec) + " 50 post 50 ";
        EXPECT_EQ(calls, row.stepped ? base : "");
    }
}

TEST_F(TimerTest, AnnouncesStepsOnItsCallersThread)
{
    uTimerCheckSysTimeUpdated(nullptr);
    EXPECT_EQ(calls, "SYSTEM_TIME_UPDATED 50 4 depth 0");
}
