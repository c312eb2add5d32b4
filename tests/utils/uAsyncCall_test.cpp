// Asynchronous calls. The service starts once per process, so each test runs in a child.
#include "uTimer.h"

#include "child.h"
#include "fail.h"
#include "osaMsg.h"
#include "osaTask.h"

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

static int note(void* number)
{
    EXPECT_EQ(taskNameToId(const_cast<char*>("tAsyncCall")), pthread_self());
    order.push_back(reinterpret_cast<long>(number));
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

TEST(AsyncCallTest, TwentyCallsMayWait)
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
        std::vector<long> posted;
        while (posted.size() < 21 && post(note, static_cast<long>(posted.size())) == OK) {
            posted.push_back(static_cast<long>(posted.size()));
        }
        EXPECT_EQ(posted.size(), 20U);
        EXPECT_EQ(errno, S_objLib_OBJ_UNAVAILABLE);
        go.release();
        for (int i = 0; i < 20; i++) {
            ran.acquire();
        }
        EXPECT_EQ(order, posted);
        EXPECT_EQ(msgQDelete(asyncCallMsgQ), OK);
        EXPECT_EQ(post(note), ERROR);
        expect_rest();
    }));
}

TEST(AsyncCallTest, FirstUseByManyThreadsStartsOneService)
{
    for (int round = 0; round < 100; round++) {
        ASSERT_TRUE(passes_in_child([] {
            std::barrier together(16);
            std::vector<std::jthread> threads;
            for (int i = 0; i < 16; i++) {
                threads.emplace_back([&together] {
                    together.arrive_and_wait();
                    EXPECT_EQ(post(note), OK);
                    ran.acquire();
                });
            }
            threads.clear();
            int tasks[2];
            EXPECT_EQ(taskIdListGet(tasks, 2), 1);
        }));
    }
}

TEST(AsyncCallTest, WithoutAQueueCallsFailAndNothingSpins)
{
    EXPECT_TRUE(passes_in_child([] {
        fail_malloc(1);
        EXPECT_EQ(post(note), ERROR);
        EXPECT_EQ(post(note), ERROR);
        EXPECT_EQ(asyncCallMsgQ, nullptr);
        expect_rest();
    }));
}
