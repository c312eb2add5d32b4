// Asynchronous calls. The service starts once per process, so each test runs in a child.
#include "uTimer.h"

#include "child.h"
#include "fail.h"
#include "osaMsg.h"
#include "osaTask.h"

#include <gtest/gtest.h>

#include <barrier>
#include <cerrno>
#include <ctime>
#include <semaphore>
#include <thread>
#include <vector>

#if defined(__SANITIZE_THREAD__)
// A child ends beside the task that it started; the sanitizer need not wait a second for it.
extern "C" const char* __tsan_default_options()
{
    return "atexit_sleep_ms=0";
}
#endif

static std::counting_semaphore<> ran(0);
static std::counting_semaphore<> go(0);
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

// Without a queue to wait at the service must not spin.
static void expect_rest()
{
    int tasks[2];
    EXPECT_EQ(taskIdListGet(tasks, 2), 1);
    const clock_t before = clock(); // CPU time
    taskDelay(33);
    EXPECT_LT(clock() - before, CLOCKS_PER_SEC * 15 / 1000);
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
        for (long i = 0; i <= 20; i++) {
            EXPECT_EQ(post(note, i), i < 20 ? OK : ERROR);
        }
        EXPECT_EQ(errno, S_objLib_OBJ_UNAVAILABLE);
        go.release();
        std::vector<long> expected;
        for (long i = 0; i <= 20; i++) {
            expected.push_back(i);
            ran.acquire();
        }
        EXPECT_EQ(order, expected);
        EXPECT_EQ(msgQDelete(asyncCallMsgQ), OK);
        EXPECT_EQ(post(note), ERROR);
        EXPECT_EQ(errno, S_objLib_OBJ_ID_ERROR);
        expect_rest();
    }));
}

TEST(AsyncCallTest, FirstUseByManyThreadsStartsOneService)
{
    for (int round = 0; round < 100; round++) {
        ASSERT_TRUE(passes_in_child([] {
            std::barrier together(16);
            std::vector<std::thread> threads;
            for (long i = 1; i <= 16; i++) {
                threads.emplace_back([&together, i] {
                    together.arrive_and_wait();
                    EXPECT_EQ(post(note, i), OK);
                });
            }
            for (std::thread& thread : threads) {
                thread.join();
                ran.acquire();
            }
            int tasks[2];
            EXPECT_EQ(taskIdListGet(tasks, 2), 1);
        }));
    }
}

TEST(AsyncCallTest, WithoutAQueueOrATaskCallsFailAndNothingSpins)
{
    EXPECT_TRUE(passes_in_child([] {
        fail_malloc(1);
        EXPECT_EQ(post(note), ERROR);
        EXPECT_EQ(post(note), ERROR);
        EXPECT_EQ(asyncCallMsgQ, nullptr);
        expect_rest();
    }));
    EXPECT_TRUE(passes_in_child([] {
        fail_thread(1);
        for (int i = 0; i <= 20; i++) { // the queue is there, and nobody empties it
            EXPECT_EQ(post(note), i < 20 ? OK : ERROR);
        }
    }));
}
