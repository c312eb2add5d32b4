// Asynchronous calls. The service starts once per process, so each test runs in a child.
#include "uTimer.h"

#include "child.h"
#include "internal.h"
#include "osaMsg.h"
#include "osaTask.h"
#include "together.h"

#include <cerrno>
#include <semaphore>

// A child ends beside the task that it started; the thread sanitizer need not wait a second for it.
extern "C" const char* __tsan_default_options()
{
    return "atexit_sleep_ms=0";
}

static std::counting_semaphore<> ran(0), go(0), paused(0);
static std::atomic<int> pause_ticks;
static std::vector<long> order; // parameters of the calls; tAsyncCall's until ran was acquired

static status_t post(int (*func)(void*), long param = 0)
{
    return uAsyncCall(reinterpret_cast<FUNCPTR>(func), reinterpret_cast<void*>(param));
}

static int note(void* param)
{
    EXPECT_EQ(taskNameToId(const_cast<char*>("tAsyncCall")), pthread_self());
    order.push_back(reinterpret_cast<long>(param));
    EXPECT_TRUE(param != nullptr || post(note, 20) == OK); // behind those that wait
    ran.release();
    return -1;
}

extern "C" STATUS __real_taskDelay(int ticks);
extern "C" STATUS __wrap_taskDelay(int ticks)
{
    pause_ticks = ticks;
    paused.release();
    return __real_taskDelay(1);
}

// Without a queue to wait at, the one task looks once a second.
static void expect_rest()
{
    int tasks[2], priority = 0;
    EXPECT_EQ(taskIdListGet(tasks, 2), 1);
    EXPECT_EQ(taskPriorityGet(taskNameToId(const_cast<char*>("tAsyncCall")), &priority), OK);
    EXPECT_EQ(priority, 200);
    paused.acquire();
    paused.acquire();
    EXPECT_EQ(pause_ticks, sysClkRateGet());
    EXPECT_FALSE(ran.try_acquire());
}

TEST(AsyncCallTest, TheFirstCallStartsTheServiceAndTwentyMayWait)
{
    EXPECT_TRUE(passes_in_child([] {
        EXPECT_EQ(uAsyncCall(nullptr, nullptr), ERROR);
        EXPECT_EQ(asyncCallMsgQ, nullptr);
        post([](void*) {
            ran.release();
            go.acquire();
            return 0;
        });
        ran.acquire();
        EXPECT_EQ(self_record->depth, 0);
        std::vector<long> expected;
        for (long i = 0; i <= 20; i++) {
            EXPECT_EQ(post(note, i), i < 20 ? OK : ERROR);
            expected.push_back(i);
        }
        EXPECT_EQ(errno, S_objLib_OBJ_UNAVAILABLE);
        go.release();
        for (long i = 0; i <= 20; i++) {
            ran.acquire();
        }
        EXPECT_EQ(order, expected);
        EXPECT_EQ(msgQDelete(asyncCallMsgQ), OK);
        EXPECT_EQ(post(note), ERROR);
        EXPECT_EQ(errno, S_objLib_OBJ_ID_ERROR);
        expect_rest();
    }));
    for (int round = 0; round < 100; round++) {
        ASSERT_TRUE(passes_in_child([] { // by many at once
            together(16, [](long self) { EXPECT_EQ(post(note, self + 1), OK); });
            for (int i = 0; i < 16; i++) {
                ran.acquire();
            }
            int tasks[2];
            EXPECT_EQ(taskIdListGet(tasks, 2), 1);
        }));
    }
}
