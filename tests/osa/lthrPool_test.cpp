#include "fail.h"
#include "task_test.h"

#include <gtest/gtest.h>

#include <ctime>
#include <deque>
#include <mutex>
#include <semaphore>
#include <signal.h>
#include <thread>
#include <unistd.h>
#include <vector>

static constexpr int32_t MOST_WORKERS = 4194304;

using body_t = std::function<void()>;

// Bodies outlive their jobs, for some jobs never run or never return.
static std::mutex bodies_lock;
static std::deque<body_t> bodies;

static int run_body(void* body)
{
    (*static_cast<body_t*>(body))();
    return 0;
}

static status_t post(const body_t& body, int32_t index = -1)
{
    bodies_lock.lock();
    body_t* kept = &bodies.emplace_back(body);
    bodies_lock.unlock();
    return taskThrPoolAddTask(reinterpret_cast<FUNCPTR>(run_body), kept, index);
}

static bool runs_a_job(int32_t worker = -1)
{
    std::atomic<bool> ran = false;
    const bool posted = post([&] { ran = true; }, worker) == OK;
    for (int i = 0; i < 100 && !ran; i++) {
        sched_yield(); // the caller goes on as soon as it has run
    }
    return posted && eventually([&] { return ran.load(); });
}

/** Keeps workers busy until it is opened. */
struct gate {
    std::counting_semaphore<> open{0};
    std::atomic<int> inside{0};

    void pass()
    {
        inside++;
        open.acquire();
    }
    bool blocks(int32_t worker)
    {
        post([this] { pass(); }, worker);
        return eventually([this] { return inside > 0; });
    }
};

class PoolTest : public TaskTest {
  protected:
    void TearDown() override
    {
        fail_nothing();
        taskThrPoolDestroy();
        TaskTest::TearDown();
        bodies.clear();
    }
};

TEST_F(PoolTest, WorksWithTheWorkersThereAre)
{
    EXPECT_EQ(post([] {}), ERROR);
    EXPECT_EQ(taskThrPoolDestroy(), ERROR);
    EXPECT_EQ(taskThrPoolCreate(MOST_WORKERS + 1), ERROR);
    for (int missing : {0, 1, 2}) {
        fail_thread(missing + 1);
        ASSERT_EQ(taskThrPoolCreate(3), OK);
        EXPECT_EQ(taskThrPoolCreate(3), ERROR);
        std::atomic<int> ran = 0;
        for (int32_t index : {-2, -1, 0, 1, 2, 3}) {
            const bool works = index >= -1 && index < 3 && index != missing;
            EXPECT_EQ(post([&] { ran++; }, index), works ? OK : ERROR) << index;
        }
        EXPECT_TRUE(eventually([&] { return ran == 3; }));
        EXPECT_EQ(taskThrPoolDestroy(), OK);
    }
}

TEST_F(PoolTest, AWorkerTakesTheOldestJobThatItMayRun)
{
    gate gates[2];
    std::string order;

    ASSERT_EQ(taskThrPoolCreate(2), OK);
    for (int i : {0, 1}) {
        ASSERT_TRUE(gates[i].blocks(i));
    }
    const int32_t indexes[] = {1, -1, 0, 1, 0, -1, 0, 1}; // of the jobs a to h
    for (char name = 'a'; name <= 'h'; name++) {
        post([&, name] { order += name; }, indexes[name - 'a']);
    }
    for (int i : {0, 1}) { // one worker after the other, each as far as it can
        gates[i].open.release();
        ASSERT_TRUE(runs_a_job(i));
    }
    EXPECT_EQ(order, "bcefgadh");
}

// Between a worker's last look at the queue and its sleep there must be no room for a job.
TEST_F(PoolTest, AJobReachesAWorkerThatSleepsWhicheverItIs)
{
    ASSERT_EQ(taskThrPoolCreate(4), OK);
    for (int round = 0; round < 5000; round++) {
        usleep(round % 8 == 0 ? 100 : 0);
        ASSERT_TRUE(runs_a_job(round * 7 % 5 - 1)) << round;
    }
}

TEST_F(PoolTest, LongJobsPostedAtOnceRunOnAllWorkers)
{
    gate all;
    ASSERT_EQ(taskThrPoolCreate(4), OK);
    for (int round = 1; round <= 200; round++) {
        // One job may be for a worker that has taken another one; it runs when that has ended.
        for (int i = 0; i < 4; i++) {
            post([&] { all.pass(); }, i == round % 4 ? round % 5 - 1 : -1);
        }
        EXPECT_TRUE(eventually([&] { return all.inside >= round * 4 - 1; }));
        all.open.release(4);
        ASSERT_TRUE(eventually([&] { return all.inside == round * 4; }));
    }
    EXPECT_EQ(taskThrPoolDestroy(), OK); // the workers have left the gate
}

TEST_F(PoolTest, JobsForABusyWorkerKeepNobodyElseAwakeOrFromWork)
{
    gate busy;
    std::atomic<int> chosen = 0;

    ASSERT_EQ(taskThrPoolCreate(3), OK);
    ASSERT_TRUE(busy.blocks(2));
    for (int i = 0; i < 100; i++) {
        post([&] { chosen++; }, 2);
    }
    EXPECT_TRUE(runs_a_job());
    const clock_t before = clock(); // CPU time
    usleep(400000);
    EXPECT_LT(clock() - before, CLOCKS_PER_SEC / 50);
    EXPECT_EQ(chosen, 0);
    busy.open.release();
    EXPECT_TRUE(eventually([&] { return chosen == 100; }));
}

// A task that is deleted while it destroys the pool leaves it to the next.
TEST_F(PoolTest, DestroyLetsRunningJobsFinishAndDropsTheOthers)
{
    gate running;
    probe deleted;
    stdout_capture quiet;
    std::atomic<bool> destroyed = false;
    const auto dropped = [] { ADD_FAILURE(); };
    const auto held = [&] {
        running.pass();
        EXPECT_EQ(taskThrPoolDestroy(), ERROR);
        EXPECT_EQ(taskThrPoolCreate(1), ERROR);
        EXPECT_EQ(post(dropped), OK);
        EXPECT_FALSE(destroyed);
    };

    ASSERT_EQ(taskThrPoolCreate(2), OK);
    for (int i = 0; i < 50; i++) {
        i < 2 ? post(held, i) : post(dropped, i % 3 - 1);
    }
    ASSERT_TRUE(eventually([&] { return running.inside == 2; }));
    const taskId_t task = spawn([&] {
        probe_attach(&deleted);
        taskThrPoolDestroy();
    });
    usleep(2000); // it waits
    EXPECT_EQ(taskDelete(task), OK);
    EXPECT_TRUE(eventually([&] { return deleted.ended.load(); }));
    EXPECT_EQ(taskThrPoolCreate(1), ERROR);
    std::jthread destroyer([&] {
        EXPECT_EQ(taskThrPoolDestroy(), OK);
        destroyed = true;
    });
    usleep(20000);
    running.open.release(2);
    destroyer.join();
    EXPECT_EQ(taskThrPoolCreate(1), OK);
}

TEST_F(PoolTest, AJobThatEndsItsThreadTakesOnlyItsWorkerAlong)
{
    const body_t ends[] = {
        [] { pthread_exit(nullptr); },
        [] { taskDelete(taskIdSelf()); },
        [] { pthread_kill(pthread_self(), SIGUSR1), pause(); },
    };
    stdout_capture quiet;
    spawn([] {}); // the first task brings the handler of the signal
    for (const body_t& end : ends) {
        ASSERT_EQ(taskThrPoolCreate(2), OK);
        post(end, 1);
        EXPECT_TRUE(eventually([] { return post([] {}, 1) == ERROR; }));
        EXPECT_TRUE(runs_a_job());
        post(end, 0);
        EXPECT_TRUE(eventually([] { return post([] {}) == ERROR; }));
        EXPECT_EQ(taskThrPoolDestroy(), OK);
    }
}

// It notices when it is woken, for the only job there is, and has another worker woken for that.
TEST_F(PoolTest, AWorkerToldToEndTakesNoJobWithIt)
{
    std::atomic<pthread_t> worker = 0;
    stdout_capture out;

    spawn([] {});
    ASSERT_EQ(taskThrPoolCreate(2), OK);
    post([&] { worker = pthread_self(); }, 1);
    ASSERT_TRUE(runs_a_job(1));
    usleep(5000); // it sleeps, the latest to do so
    pthread_kill(worker, SIGUSR1);
    EXPECT_TRUE(runs_a_job());
    EXPECT_TRUE(eventually([] { return post([] {}, 1) == ERROR; }));
    EXPECT_TRUE(eventually([&] { return out.text() == "this signal is 10 \n"; }));
}

// Jobs of several posters, for any worker or a chosen one, some of which queue another. In the
// first round all run; in the others the pool is destroyed in the middle.
TEST_F(PoolTest, JobsRunOnce)
{
    static constexpr int JOBS = 30000; // and a fifth more
    int cut_off = 0;

    for (int round = 0; round < 6; round++) {
        std::vector<std::atomic<int>> runs(JOBS);
        std::atomic<int> total = 0;
        std::atomic<int> wrong = 0; // refused, or run before
        const auto run = [&](int id, int index) {
            wrong += runs[static_cast<size_t>(id)]++;
            if (id % 5 == 0) {
                wrong += post([&] { total++; }, index) != OK ? 1 : 0;
            }
            total++;
        };
        std::vector<std::jthread> posters;
        ASSERT_EQ(taskThrPoolCreate(4), OK);
        for (int poster = 0; poster < 3; poster++) {
            posters.emplace_back([&, poster] {
                for (int id = poster; id < JOBS; id += 3) {
                    const int index = id % 4 == 0 ? id / 4 % 4 : -1;
                    wrong += post([&run, id, index] { run(id, index); }, index) != OK ? 1 : 0;
                }
            });
        }
        posters.clear();
        EXPECT_TRUE(round > 0 || eventually([&] { return total == JOBS / 5 * 6; }, 60000));
        EXPECT_EQ(taskThrPoolDestroy(), OK);
        EXPECT_EQ(wrong, 0);
        cut_off += total < JOBS / 5 * 6 ? 1 : 0;
        bodies.clear();
    }
    EXPECT_GT(cut_off, 0);
}
