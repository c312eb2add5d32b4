// Asynchronous calls. The service starts once per process, so each test runs in a child.
#include "uTimer.h"

#include "child.h"
#include "fail.h"
#include "osaMsg.h"
#include "osaTask.h"

#include <gtest/gtest.h>

#include <atomic>
#include <barrier>
#include <cerrno>
#include <semaphore>
#include <string>
#include <sys/prctl.h>
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
static std::atomic<bool> running;

static status_t post(int (*func)(void*), long param = 0)
{
    return uAsyncCall(reinterpret_cast<FUNCPTR>(func), reinterpret_cast<void*>(param));
}

static int note(void* param)
{
    EXPECT_FALSE(running.exchange(true)) << "two calls at a time";
    order.push_back(reinterpret_cast<long>(param));
    running = false;
    ran.release();
    return -1;
}

static int wait_to_go(void*)
{
    ran.release();
    go.acquire();
    return 0;
}

static int post_more(void* param)
{
    order.push_back(-reinterpret_cast<long>(param));
    EXPECT_EQ(post(note, reinterpret_cast<long>(param)), OK);
    return 0;
}

static int look_around(void*)
{
    static char task_name[] = "tAsyncCall";
    char name[16] = {};
    int priority = 0;
    prctl(PR_GET_NAME, name);
    EXPECT_STREQ(name, task_name);
    EXPECT_EQ(taskNameToId(task_name), pthread_self());
    taskPriorityGet(0, &priority);
    EXPECT_EQ(priority, 200);
    ran.release();
    return 0;
}

static taskId_t service_task()
{
    return taskNameToId(const_cast<char*>("tAsyncCall"));
}

// Milliseconds of CPU that the service used in a third of a second.
static long service_cpu()
{
    clockid_t clock;
    struct timespec used[2];
    pthread_getcpuclockid(service_task(), &clock);
    clock_gettime(clock, &used[0]);
    taskDelay(33);
    clock_gettime(clock, &used[1]);
    return (used[1].tv_sec - used[0].tv_sec) * 1000 + (used[1].tv_nsec - used[0].tv_nsec) / 1000000;
}

TEST(AsyncCallTest, TheFirstCallStartsTheServiceAndRunsOnItsTask)
{
    EXPECT_TRUE(passes_in_child([] {
        EXPECT_EQ(uAsyncCall(nullptr, nullptr), ERROR);
        EXPECT_EQ(asyncCallMsgQ, nullptr);
        EXPECT_EQ(post(look_around), OK);
        EXPECT_NE(asyncCallMsgQ, nullptr);
        ran.acquire();
        EXPECT_EQ(uAsyncCall(nullptr, nullptr), ERROR);
        EXPECT_EQ(post(look_around), OK); // the task is still there
        ran.acquire();
    }));
}

TEST(AsyncCallTest, TwentyMayWaitAndRunInOrder)
{
    EXPECT_TRUE(passes_in_child([] {
        EXPECT_EQ(post(wait_to_go), OK);
        ran.acquire();
        EXPECT_EQ(post(post_more, 100), OK);
        for (long i = 1; i < 20; i++) {
            EXPECT_EQ(post(note, i), OK);
        }
        errno = 0;
        EXPECT_EQ(post(note, 99), ERROR);
        EXPECT_EQ(errno, S_objLib_OBJ_UNAVAILABLE);
        go.release();
        std::vector<long> expected = {-100};
        for (long i = 1; i < 20; i++) {
            ran.acquire();
            expected.push_back(i);
        }
        ran.acquire();
        expected.push_back(100); // posted by a call, behind those that waited
        EXPECT_EQ(order, expected);
    }));
}

static void first_use_by_many()
{
    std::barrier together(16);
    std::vector<std::thread> threads;
    for (long i = 0; i < 16; i++) {
        threads.emplace_back([&together, i] {
            together.arrive_and_wait();
            EXPECT_EQ(post(note, i), OK);
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
        ran.acquire();
    }
    int services = 0;
    pthread_mutex_lock(&task_list_lock);
    for (const task_t* task = task_list; task != nullptr; task = task->nxt_task) {
        services++;
    }
    pthread_mutex_unlock(&task_list_lock);
    EXPECT_EQ(services, 1);
}

TEST(AsyncCallTest, FirstUseByManyThreadsStartsOneService)
{
    for (int round = 0; round < 100; round++) {
        ASSERT_TRUE(passes_in_child(first_use_by_many)) << round;
    }
}

TEST(AsyncCallTest, WithoutAQueueEveryCallFailsAndTheTaskRests)
{
    EXPECT_TRUE(passes_in_child([] {
        fail_malloc(1);
        EXPECT_EQ(post(note), ERROR);
        EXPECT_TRUE(failed());
        EXPECT_EQ(post(note), ERROR);
        EXPECT_EQ(asyncCallMsgQ, nullptr);
        EXPECT_NE(service_task(), 0U);
        EXPECT_LT(service_cpu(), 15);
    }));
    EXPECT_TRUE(passes_in_child([] {
        EXPECT_EQ(post(note), OK);
        ran.acquire();
        EXPECT_EQ(msgQDelete(asyncCallMsgQ), OK);
        errno = 0;
        EXPECT_EQ(post(note), ERROR);
        EXPECT_EQ(errno, S_objLib_OBJ_ID_ERROR);
        EXPECT_LT(service_cpu(), 15);
    }));
}

TEST(AsyncCallTest, WithoutATaskTwentyCallsStay)
{
    EXPECT_TRUE(passes_in_child([] {
        fail_thread(1);
        for (int i = 0; i < 20; i++) {
            EXPECT_EQ(post(note), OK);
        }
        EXPECT_EQ(post(note), ERROR);
        EXPECT_EQ(service_task(), 0U);
    }));
}
