#include "uTimer.cpp" // for the module's state: a service made anew, the next id, free blocks

#include "fail.h"
#include "task_probe.h"
#include "timer_calls.h"

#include <algorithm>
#include <random>

namespace {

uint32_t arm(const char* name, int32_t timeout)
{
    return uTimerAdd(NOTE, const_cast<char*>(name), timeout);
}

/** Proves that no lock of the service is held: another thread uses all of them. */
void use_elsewhere()
{
    EXPECT_TRUE(ends_in([] { uTimerRefresh(0xfffffff0, 1); }));
    EXPECT_TRUE(ends_in([] { uTimerRemainGet(0xfffffff0); }));
    std::thread(uTimerInit, 1).join();
    uTimerRemainGet(0xfffffff0);
}

unsigned free_blocks()
{
    return bmMgrTimerPoolHdr.freePoolQ.count;
}

/** Takes the service back to where it is in a new process, but for the next id. */
void forget_service(uint32_t next_id = 1) UNCHECKED
{
    uFree(uTimerPool);
    semDelete(timerMutex);
    service_created = false;
    timerList = {.links = no_links};
    no_links[0] = {};
    passes = nullptr;
    ids_came_round = false;
    timers_word = {};
    uTimerPool = nullptr;
    timerMutex = nullptr;
    bmMgrTimerPoolHdr = {};
    id_chains = no_chains;
    id_shift = 31;
    uTimerId = next_id;
    log_clear();
}

class TimerTest : public ::testing::Test {
  protected:
    void SetUp() override { fire_count = 0; }
    void TearDown() override { forget_service(); }
};

} // namespace

// Adds, deletions, refreshes and passes at random, beside a list of deadlines that does the same
// the plain way: a timer goes in front of its equals, a refresh needs one more for a moment, and an
// id means the first that has it.
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
    const auto find = [&model](uint32_t id) {
        return std::find_if(model.begin(), model.end(),
                            [id](const entry& e) { return e.id == id; });
    };

    forget_service(UINT32_MAX - 2000);
    uTimerRun(0);
    fail_malloc(1, true);
    for (uint32_t step = 0, next_id = uTimerId; step < 80'000; step++) {
        const int32_t timeout = int32_t(pick(60)) * 5 - 5;
        const int32_t gap = int32_t(pick(30)) - 5;
        const bool known = !model.empty() && pick(8) != 0;
        const uint32_t id = known ? model[pick(model.size())].id : pick(size_t{next_id} + 5);
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
            if (find(id) != model.end()) {
                model.erase(find(id));
            }
        } else if (what < 19) {
            uTimerRefresh(id, timeout);
            if (accepted && find(id) != model.end()) {
                model.erase(find(id));
                insert(id, timeout);
            }
        } else {
            ASSERT_EQ(uTimerAdd(note_id, as_param(next_id), timeout), accepted ? next_id : 0);
            if (accepted) {
                insert(next_id, timeout);
                next_id = next_id == UINT32_MAX ? 1 : next_id + 1;
            }
        }
        if (step % 1000 == 0 && step > 20'000 && !model.empty()) { // once round: ids in use
            next_id = uTimerId = model[pick(model.size())].id;
        }
        ASSERT_EQ(ran, expected) << step;
        ASSERT_EQ(free_blocks(), 300 - model.size());
        for (size_t at = 0; at < model.size(); at += step % 50 == 0 ? 1 : 97) {
            ASSERT_EQ(uTimerRemainGet(model[at].id), find(model[at].id)->left) << step;
        }
        uint32_t number = delta_first(&timerList);
        int64_t before = 0;
        for (size_t at = 0; step % 50 == 0 && at < model.size(); at++) {
            ASSERT_EQ(node_of(number)->timerId, model[at].id);
            ASSERT_EQ(node_of(number)->expires, model[at].left - before);
            before = model[at].left;
            number = delta_next(&timerList, number);
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
    EXPECT_EQ(free_blocks(), 300U);
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
    EXPECT_EQ(timerList.size, 3U);
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
    uTimerInit(INT32_MAX); // more than can be asked for
    EXPECT_EQ(logged(), "6 Malloc timer pool failed.|");
}

TEST_F(TimerTest, FirstUseFromManyThreadsCreatesOneService)
{
    for (int round = 0; round < 60; round++) {
        together(8, [](int) {
            uTimerRun(0);
            EXPECT_NE(uTimerAdd(COUNT, nullptr, 1000), 0U);
        });
        ASSERT_EQ(timerList.size, 8U);
        ASSERT_EQ(free_blocks(), 292U);
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
