// The resolver where the C library has one state for all threads: one query at a time.
#include "osaResolv.h"
#include "osaTask.h"

#include "task_probe.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <unistd.h>
#include <vector>

static std::atomic<int> inside = 0;
static std::atomic<int> met = 0;
static std::atomic<int> asked = 0;
static std::atomic<bool> answers_come = true;

extern "C" int __wrap___res_init()
{
    met += inside.fetch_add(1) != 0;
    return 0;
}

extern "C" int __wrap_res_search(const char*, int, int, unsigned char*, int)
{
    asked++;
    do {
        usleep(200);
    } while (!answers_come);
    inside--;
    return -1;
}

TEST(OneResolverTest, ThreadsTakeTurns)
{
    std::vector<std::jthread> threads;

    for (int i = 0; i < 6; i++) {
        threads.emplace_back([] {
            for (int round = 0; round < 20; round++) {
                osaGetHostByName("host.test", QUERY_ADDRESS, SERV_NONE);
            }
        });
    }
    threads.clear();
    EXPECT_EQ(met, 0);
    EXPECT_EQ(asked, 6 * 20 * 2);
}

TEST(OneResolverTest, WhoIsDeletedDoesNotWaitForItsTurn)
{
    probe waiting;

    answers_come = false;
    asked = 0;
    std::jthread busy([] { osaGetHostByName("host.test", QUERY_SRV, SERV_NONE); });
    ASSERT_TRUE(eventually([] { return asked == 1; }));
    const taskId_t task = spawn([&] {
        probe_attach(&waiting);
        osaGetHostByName("host.test", QUERY_SRV, SERV_NONE);
    });
    usleep(20'000); // the usual case is a task that waits already
    EXPECT_EQ(taskDelete(task), OK);
    EXPECT_TRUE(eventually([&] { return waiting.ended.load(); }));
    answers_come = true;
    busy.join();
    EXPECT_EQ(asked, 1);
    EXPECT_EQ(osaGetHostByName("host.test", QUERY_SRV, SERV_NONE), nullptr) << "not given back";
    EXPECT_EQ(asked, 2);
}
