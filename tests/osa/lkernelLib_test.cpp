#include "fail.h"
#include "osaTask.h"
#include "task_probe.h"

#include <gtest/gtest.h>

#include <deque>
#include <mutex>
#include <random>
#include <semaphore>
#include <set>
#include <signal.h>
#include <thread>
#include <unistd.h>
#include <vector>

#if defined(__SANITIZE_THREAD__)
static constexpr int STRESS_JOBS = 20000;
#else
static constexpr int STRESS_JOBS = 100000;
#endif

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
    body_t* kept = nullptr;
    {
        std::lock_guard<std::mutex> guard(bodies_lock);
        kept = &bodies.emplace_back(body);
    }
    return taskThrPoolAddTask(reinterpret_cast<FUNCPTR>(run_body), kept, index);
}

/** Keeps workers busy until it is opened. */
struct gate {
    std::counting_semaphore<> open{0};
    std::atomic<int> inside{0};

    status_t block(int32_t worker)
    {
        return post(
            [this] {
                inside++;
                open.acquire();
            },
            worker);
    }
};

class PoolTest : public testing::Test {
  protected:
    static void SetUpTestSuite()
    {
        std::thread([] {}).join(); // the first thread of all brings a sanitizer's own with it
        usleep(20000);             // and may linger
        threads_before = thread_count();
    }

    void TearDown() override
    {
        fail_nothing();
        taskThrPoolDestroy();
        EXPECT_TRUE(eventually([] { return thread_count() <= threads_before; }));
        bodies.clear();
    }

    static int threads_before;
};

int PoolTest::threads_before = 0;

TEST_F(PoolTest, ThereIsOnePoolAndItRefusesWhatItCannotRun)
{
    std::atomic<int> ran = 0;

    EXPECT_EQ(taskThrPoolDestroy(), ERROR);
    EXPECT_EQ(post([] {}), ERROR);
    for (int32_t size : {0, -1, INT32_MIN}) {
        EXPECT_EQ(taskThrPoolCreate(size), ERROR) << size;
    }
    ASSERT_EQ(taskThrPoolCreate(2), OK);
    EXPECT_EQ(taskThrPoolCreate(3), ERROR);
    EXPECT_EQ(taskThrPoolAddTask(nullptr, &ran, -1), ERROR);
    for (int32_t index : {2, -2, INT32_MAX, INT32_MIN}) {
        EXPECT_EQ(post([&] { ran += 1000; }, index), ERROR) << index;
    }
    for (int32_t index : {-1, 0, 1}) {
        EXPECT_EQ(post([&] { ran++; }, index), OK) << index;
    }
    EXPECT_TRUE(eventually([&] { return ran == 3; }));
    EXPECT_EQ(taskThrPoolDestroy(), OK);
    EXPECT_EQ(ran, 3);
    EXPECT_EQ(taskThrPoolDestroy(), ERROR);
    EXPECT_EQ(taskThrPoolCreate(1), OK);
}

TEST_F(PoolTest, AWorkerTakesTheOldestJobThatItMayRun)
{
    gate gates[2];
    std::string order[2];

    ASSERT_EQ(taskThrPoolCreate(2), OK);
    for (int i : {0, 1}) {
        gates[i].block(i);
        ASSERT_TRUE(eventually([&] { return gates[i].inside == 1; }));
    }
    const struct {
        char name;
        int32_t index;
    } jobs[] = {{'a', 1}, {'b', -1}, {'c', 0}, {'d', 1}, {'e', 0}, {'f', -1}, {'g', 0}, {'h', 1}};
    std::thread::id worker_0;
    post([&] { worker_0 = std::this_thread::get_id(); }, 0);
    for (const auto& job : jobs) {
        post([&, job] { order[std::this_thread::get_id() == worker_0 ? 0 : 1] += job.name; },
             job.index);
    }
    std::atomic<bool> done[2] = {false, false};
    post([&] { done[0] = true; }, 0);
    post([&] { done[1] = true; }, 1);
    gates[0].open.release();
    EXPECT_TRUE(eventually([&] { return done[0].load(); }));
    gates[1].open.release();
    EXPECT_TRUE(eventually([&] { return done[1].load(); }));
    EXPECT_EQ(order[0], "bcefg");
    EXPECT_EQ(order[1], "adh");
}

TEST_F(PoolTest, AJobReachesAWorkerThatSleepsWhicheverItIs)
{
    static constexpr int WORKERS = 4;
    std::mt19937 random(1);
    std::set<std::thread::id> threads[WORKERS + 1]; // the last for jobs for any

    ASSERT_EQ(taskThrPoolCreate(WORKERS), OK);
    // Between a worker's last look at the queue and its sleep there must be no room for a job.
    for (int round = 0; round < 5000; round++) {
        const int32_t index = static_cast<int32_t>(random() % (WORKERS + 1)) - 1;
        std::atomic<bool> ran = false;
        const auto job = [&] {
            threads[index < 0 ? WORKERS : index].insert(std::this_thread::get_id());
            ran = true;
        };
        ASSERT_EQ(post(job, index), OK);
        for (int i = 0; i < 100 && round % 2 == 0 && !ran; i++) {
            sched_yield(); // the next job comes as soon as this one has run
        }
        ASSERT_TRUE(eventually([&] { return ran.load(); })) << "worker " << index;
    }
    std::set<std::thread::id> all;
    for (int i = 0; i < WORKERS; i++) {
        EXPECT_EQ(threads[i].size(), 1U);
        all.insert(threads[i].begin(), threads[i].end());
    }
    EXPECT_EQ(all.size(), static_cast<size_t>(WORKERS));
}

TEST_F(PoolTest, LongJobsPostedAtOnceRunOnAllWorkers)
{
    static constexpr int WORKERS = 4;
    gate all;
    bool together = true;

    ASSERT_EQ(taskThrPoolCreate(WORKERS), OK);
    for (int round = 1; together && round <= 200; round++) {
        // One job may be for a worker that has taken another one; it runs when that has ended.
        for (int i = 0; i < WORKERS; i++) {
            all.block(i == round % WORKERS ? round % 5 - 1 : -1);
        }
        together = eventually([&] { return all.inside >= round * WORKERS - 1; });
        all.open.release(WORKERS);
        together = together && eventually([&] { return all.inside == round * WORKERS; });
    }
    EXPECT_TRUE(together);
    all.open.release(WORKERS);
    EXPECT_EQ(taskThrPoolDestroy(), OK);
}

static double cpu_seconds()
{
    timespec used;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
    return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) / 1e9;
}

TEST_F(PoolTest, JobsForABusyWorkerKeepNobodyElseAwakeOrFromWork)
{
    gate busy;
    std::atomic<int> chosen = 0;
    std::atomic<int> others = 0;

    ASSERT_EQ(taskThrPoolCreate(3), OK);
    busy.block(2);
    ASSERT_TRUE(eventually([&] { return busy.inside == 1; }));
    for (int i = 0; i < 100; i++) {
        post([&] { chosen++; }, 2);
        post([&] { others++; });
    }
    EXPECT_TRUE(eventually([&] { return others == 100; }));
    const double before = cpu_seconds();
    usleep(400000);
    EXPECT_LT(cpu_seconds() - before, 0.02);
    EXPECT_EQ(chosen, 0);
    busy.open.release();
    EXPECT_TRUE(eventually([&] { return chosen == 100; }));
}

TEST_F(PoolTest, DestroyLetsRunningJobsFinishAndDropsTheOthers)
{
    gate running;
    std::atomic<int> dropped = 0;
    status_t from_job[3] = {OK, OK, ERROR};

    ASSERT_EQ(taskThrPoolCreate(2), OK);
    running.block(0);
    post(
        [&] {
            running.inside++;
            running.open.acquire();
            from_job[0] = taskThrPoolDestroy();
            from_job[1] = taskThrPoolCreate(1);
            from_job[2] = post([&] { dropped++; }, 1);
        },
        1);
    ASSERT_TRUE(eventually([&] { return running.inside == 2; }));
    for (int i = 0; i < 50; i++) {
        post([&] { dropped++; }, i % 3 - 1);
    }
    std::atomic<bool> destroyed = false;
    std::thread destroyer([&] {
        EXPECT_EQ(taskThrPoolDestroy(), OK);
        destroyed = true;
    });
    usleep(20000);
    EXPECT_FALSE(destroyed);
    running.open.release(2);
    destroyer.join();
    EXPECT_EQ(from_job[0], ERROR);
    EXPECT_EQ(from_job[1], ERROR);
    EXPECT_EQ(from_job[2], OK);
    EXPECT_EQ(dropped, 0);
    EXPECT_EQ(taskThrPoolCreate(1), OK);
}

TEST_F(PoolTest, ATaskDeletedWhileItDestroysLeavesThePoolToTheNext)
{
    gate running;
    probe deleted;

    ASSERT_EQ(taskThrPoolCreate(2), OK);
    running.block(0);
    ASSERT_TRUE(eventually([&] { return running.inside == 1; }));
    const taskId_t task = spawn([&] {
        probe_attach(&deleted);
        taskThrPoolDestroy();
    });
    ASSERT_TRUE(
        eventually([&] { return thread_count() <= threads_before + 2; })); // one worker left
    EXPECT_EQ(taskDelete(task), OK);
    EXPECT_TRUE(eventually([&] { return deleted.ended.load(); }));
    EXPECT_EQ(taskThrPoolCreate(1), ERROR);
    running.open.release();
    EXPECT_EQ(taskThrPoolDestroy(), OK);
}

TEST_F(PoolTest, AJobThatEndsItsThreadTakesOnlyItsWorkerAlong)
{
    const body_t ends[] = {
        [] { pthread_exit(nullptr); },
        [] { taskDelete(taskIdSelf()); },
#if !defined(__SANITIZE_THREAD__) // which cannot stand the end of a thread inside a wait
        [] { pthread_cancel(pthread_self()); },
#endif
    };
    std::atomic<int> ran = 0;

    for (const body_t& end : ends) {
        ASSERT_EQ(taskThrPoolCreate(2), OK);
        post(end, 1);
        post([&] { ran += 1000; }, 1); // goes with the worker
        EXPECT_TRUE(eventually([&] { return post([] {}, 1) == ERROR; }));
        ran = 0;
        for (int i = 0; i < 20; i++) {
            EXPECT_EQ(post([&] { ran++; }, i % 2 - 1), OK);
        }
        EXPECT_TRUE(eventually([&] { return ran == 20; }));
        post(end, 0);
        EXPECT_TRUE(eventually([&] { return post([] {}) == ERROR; }));
        EXPECT_EQ(taskThrPoolDestroy(), OK);
    }
}

TEST_F(PoolTest, AWorkerToldToEndTakesNoJobWithIt)
{
    pthread_t worker = 0;
    std::atomic<int> ran = 0;

    spawn([] {}); // the first task brings the handler of the signal
    ASSERT_EQ(taskThrPoolCreate(2), OK);
    post(
        [&] {
            worker = pthread_self();
            ran++;
        },
        1);
    ASSERT_TRUE(eventually([&] { return ran == 1; }));
    usleep(5000); // it sleeps, most likely, and notices when it is woken
    pthread_kill(worker, SIGUSR1);
    for (int i = 0; i < 20; i++) {
        EXPECT_EQ(post([&] { ran++; }), OK);
        usleep(i < 10 ? 500 : 0);
    }
    EXPECT_TRUE(eventually([&] { return ran == 21; }));
    EXPECT_TRUE(eventually([] { return post([] {}, 1) == ERROR; }));
}

TEST_F(PoolTest, WorksWithTheWorkersThatCouldBeCreated)
{
    for (int missing = 0; missing < 3; missing++) {
        std::atomic<int> ran = 0;

        fail_thread(missing + 1);
        ASSERT_EQ(taskThrPoolCreate(3), OK);
        EXPECT_TRUE(failed());
        for (int32_t index : {-1, 0, 1, 2}) {
            EXPECT_EQ(post([&] { ran++; }, index), index == missing ? ERROR : OK) << index;
        }
        EXPECT_TRUE(eventually([&] { return ran == 3; }));
        EXPECT_EQ(taskThrPoolDestroy(), OK);
    }
    fail_thread(1);
    EXPECT_EQ(taskThrPoolCreate(1), ERROR);
    EXPECT_EQ(taskThrPoolDestroy(), ERROR);
    EXPECT_EQ(taskThrPoolCreate(1), OK);
}

TEST_F(PoolTest, SaysWhatThereIsNoMemoryForAndLeavesNothing)
{
    const char* const messages[] = {"malloc thrPool error: Cannot allocate memory\n",
                                    "malloc pthrIds error: Cannot allocate memory\n"};

    for (int nth : {1, 2}) {
        fail_malloc(nth);
        testing::internal::CaptureStderr();
        EXPECT_EQ(taskThrPoolCreate(2), ERROR);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), messages[nth - 1]);
        EXPECT_EQ(taskThrPoolDestroy(), ERROR);
    }
    ASSERT_EQ(taskThrPoolCreate(2), OK);
    fail_malloc(1);
    testing::internal::CaptureStderr();
    EXPECT_EQ(taskThrPoolAddTask(reinterpret_cast<FUNCPTR>(run_body), nullptr, -1), ERROR);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "malloc thrPoolJobQueue_t error: Cannot allocate memory\n");
}

// Jobs of several posters, for any worker or a chosen one; every fifth is queued by the job before.
struct stress {
    static constexpr int WORKERS = 4;
    static constexpr int POSTERS = 3;

    std::vector<std::atomic<int>> runs = std::vector<std::atomic<int>>(STRESS_JOBS);
    std::atomic<int> total{0};
    std::atomic<int> wrong{0};         // refused, or before an older one
    int latest[WORKERS][POSTERS] = {}; // each line touched by its worker alone

    static bool from_job(int id) { return id / POSTERS % 5 == 1; }

    void post_all(int poster)
    {
        std::mt19937 random(static_cast<unsigned>(poster));
        for (int id = poster; id < STRESS_JOBS; id += POSTERS) {
            if (!from_job(id)) {
                post_one(id, random() % 4 == 0 ? static_cast<int>(random() % WORKERS) : -1);
            }
        }
    }

    void post_one(int id, int32_t index)
    {
        wrong += post([this, id, index] { run(id, index); }, index) != OK ? 1 : 0;
    }

    void run(int id, int32_t index)
    {
        const int next = id + POSTERS;
        if (index >= 0 && !from_job(id)) {
            wrong += latest[index][id % POSTERS] > id ? 1 : 0;
            latest[index][id % POSTERS] = id;
        }
        if (from_job(next) && next < STRESS_JOBS) {
            post_one(next, index);
        }
        runs[static_cast<size_t>(id)]++;
        total++;
    }
};

TEST_F(PoolTest, EveryJobRunsOnceAndChosenOnesInOrder)
{
    stress load;
    std::vector<std::thread> posters;

    ASSERT_EQ(taskThrPoolCreate(stress::WORKERS), OK);
    for (int i = 0; i < stress::POSTERS; i++) {
        posters.emplace_back([&, i] { load.post_all(i); });
    }
    for (std::thread& poster : posters) {
        poster.join();
    }
    EXPECT_TRUE(eventually([&] { return load.total == STRESS_JOBS; }, 60000)) << load.total;
    EXPECT_EQ(taskThrPoolDestroy(), OK);
    for (const std::atomic<int>& runs : load.runs) {
        ASSERT_EQ(runs, 1);
    }
    EXPECT_EQ(load.wrong, 0);
}

TEST_F(PoolTest, DestroyedInTheMiddleItRunsNothingTwice)
{
    int cut_off = 0;

    for (int round = 0; round < 8; round++) {
        stress load;

        ASSERT_EQ(taskThrPoolCreate(stress::WORKERS), OK);
        load.post_all(round % stress::POSTERS);
        EXPECT_EQ(taskThrPoolDestroy(), OK);
        cut_off += load.total < STRESS_JOBS / stress::POSTERS ? 1 : 0;
        for (const std::atomic<int>& runs : load.runs) {
            ASSERT_LE(runs, 1);
        }
        EXPECT_EQ(load.wrong, 0);
        bodies.clear();
    }
    EXPECT_GT(cut_off, 0);
}
