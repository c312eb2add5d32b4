#include "fail.h"
#include "osaSem.h"
#include "osaTask.h"
#include "task_probe.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

static timespec slept_until;
static bool capture_sleep = false;

extern "C" int __real_clock_nanosleep(clockid_t, int, const timespec*, timespec*);
extern "C" int __wrap_clock_nanosleep(clockid_t clock, int flags, const timespec* t, timespec* rest)
{
    if (!capture_sleep) {
        return __real_clock_nanosleep(clock, flags, t, rest);
    }
    slept_until = *t;
    return 0;
}

static constexpr taskId_t NO_TASK = static_cast<taskId_t>(ERROR);

static void wait_forever()
{
    for (;;) {
        taskDelay(1000);
    }
}

static int forever_entry(int, int, int, int, int, int, int, int, int, int)
{
    wait_forever();
    return 0;
}

static int listed_tasks()
{
    int count = 0;
    pthread_mutex_lock(&task_list_lock);
    for (const task_t* task = task_list; task != nullptr; task = task->nxt_task) {
        count++;
    }
    pthread_mutex_unlock(&task_list_lock);
    return count;
}

class TaskTest : public testing::Test {
  protected:
    void SetUp() override
    {
        std::thread([] {}).join(); // the first thread of all brings a sanitizer's own with it
        threads_before = threads_at_rest();
    }

    // Every thread that a test starts is gone when it ends, and so is every block.
    void TearDown() override
    {
        EXPECT_TRUE(eventually([this] { return thread_count() == threads_before; }));
        EXPECT_EQ(listed_tasks(), 0);
    }

    int threads_before = 0;
};

static int got[10];
static std::atomic<bool> got_all;
static char got_name[16];

static int ten_ints(int a, int b, int c, int d, int e, int f, int g, int h, int i, int j)
{
    const int all[10] = {a, b, c, d, e, f, g, h, i, j};
    memcpy(got, all, sizeof got);
    prctl(PR_GET_NAME, got_name);
    got_all = true;
    wait_forever();
    return 0;
}

TEST_F(TaskTest, SpawnedTaskIsNamedListedAndGivenItsArguments)
{
    char name[] = "tLowPriWithALongName";
    got_all = false;
    const taskId_t id = taskSpawn(name, 100, 0, 1024, reinterpret_cast<FUNCPTR>(ten_ints), 1, 2, 3,
                                  4, 5, 6, 7, 8, 9, 10);
    ASSERT_NE(id, NO_TASK);
    memset(name, 'x', 4); // the task has a copy
    ASSERT_TRUE(eventually([] { return got_all.load(); }));
    for (int i = 0; i < 10; i++) {
        EXPECT_EQ(got[i], i + 1);
    }
    EXPECT_STREQ(got_name, "tLowPriWithALon");
    EXPECT_STREQ(taskName(id), "tLowPriWithALongName");
    char full[] = "tLowPriWithALongName";
    char other[] = "tLowPriWithALongNam";
    EXPECT_EQ(taskNameToId(full), id);
    EXPECT_EQ(taskNameToId(other), 0U);
    int priority = 0;
    EXPECT_EQ(taskPriorityGet(id, &priority), OK);
    EXPECT_EQ(priority, 100);
    EXPECT_EQ(taskPrioritySet(id, 5), OK);
    EXPECT_EQ(taskPriorityGet(id, &priority), OK);
    EXPECT_EQ(priority, 100);
    EXPECT_EQ(taskPriorityGet(id, nullptr), OK);

    EXPECT_EQ(taskDelete(id), OK);
    EXPECT_STREQ(taskName(id), "NULLTASK");
    errno = 0;
    EXPECT_EQ(taskIdVerify(id), ERROR);
    EXPECT_EQ(errno, S_objLib_OBJ_ID_ERROR);
    errno = 0;
    EXPECT_EQ(taskPriorityGet(id, &priority), ERROR);
    EXPECT_EQ(errno, S_objLib_OBJ_ID_ERROR);
}

TEST_F(TaskTest, NamesAreFoundInSpawnOrderAndUnnamedTasksNever)
{
    char twin[] = "tTwin";
    char empty[] = "";
    const taskId_t unnamed = spawn(wait_forever, nullptr);
    const taskId_t first = spawn(wait_forever, twin);
    const taskId_t second = spawn(wait_forever, twin);
    EXPECT_EQ(taskName(unnamed), nullptr);
    EXPECT_EQ(taskNameToId(twin), first);
    EXPECT_EQ(taskDelete(first), OK);
    EXPECT_EQ(taskNameToId(twin), second);
    errno = 77;
    EXPECT_EQ(taskNameToId(nullptr), 0U);
    EXPECT_EQ(taskNameToId(empty), 0U);
    EXPECT_EQ(errno, 77);
    taskDelete(second);
    taskDelete(unnamed);
}

TEST_F(TaskTest, ATaskFindsItselfAndAPlainThreadDoesNot)
{
    std::atomic<int> found{0};
    spawn([&] { found = taskIdVerify(0) == OK && std::string(taskName(0)) == "tTest" ? 1 : -1; });
    ASSERT_TRUE(eventually([&] { return found != 0; }));
    EXPECT_EQ(found, 1);
    EXPECT_EQ(taskIdVerify(taskIdSelf()), ERROR);
    EXPECT_STREQ(taskName(0), "NULLTASK");
}

TEST_F(TaskTest, FailedSpawnsLeaveNothing)
{
    errno = 0;
    EXPECT_EQ(taskSpawn(nullptr, 1, 0, 0, nullptr, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0), NO_TASK);
    EXPECT_EQ(errno, S_smObjLib_NOT_INITIALIZED);

    fail_thread(1);
    errno = 0;
    const auto entry = reinterpret_cast<FUNCPTR>(ten_ints);
    char name[] = "tFail";
    EXPECT_EQ(taskSpawn(name, 1, 0, 0, entry, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0), NO_TASK);
    EXPECT_EQ(errno, S_memLib_NOT_ENOUGH_MEMORY);
    EXPECT_EQ(listed_tasks(), 0);

    // block, name, record; a missing name is no failure
    const int codes[] = {S_smObjLib_NOT_INITIALIZED, 0, S_memLib_NOT_ENOUGH_MEMORY};
    for (int nth = 1; nth <= 3; nth++) {
        got_all = false;
        fail_malloc(nth);
        errno = 0;
        const taskId_t id = taskSpawn(name, 1, 0, 0, entry, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0);
        EXPECT_TRUE(failed());
        fail_nothing();
        if (codes[nth - 1] == 0) {
            EXPECT_NE(id, NO_TASK);
            EXPECT_EQ(taskName(id), nullptr);
            EXPECT_TRUE(eventually([] { return got_all.load(); }));
            EXPECT_EQ(taskDelete(id), OK);
        } else {
            EXPECT_EQ(id, NO_TASK);
            EXPECT_EQ(errno, codes[nth - 1]);
        }
        EXPECT_EQ(listed_tasks(), 0);
    }
}

TEST_F(TaskTest, DelaySleepsItsWholeLengthHoweverLong)
{
    errno = 77;
    EXPECT_EQ(taskDelay(-1), ERROR);
    EXPECT_EQ(errno, 77);
    EXPECT_EQ(taskDelay(0), OK);
    const int64_t before = now_ns();
    EXPECT_EQ(taskDelay(3), OK);
    EXPECT_GE(now_ns() - before, 30 * 1000000LL);

    for (const int ticks : {214748, 214749, 300000, INT32_MAX}) {
        const int64_t start = now_ns();
        capture_sleep = true;
        EXPECT_EQ(taskDelay(ticks), OK);
        capture_sleep = false;
        const int64_t end = slept_until.tv_sec * 1000000000LL + slept_until.tv_nsec;
        EXPECT_GE(end - start, ticks * 10000000LL);
        EXPECT_LE(end - start, ticks * 10000000LL + 5000000000LL);
        EXPECT_LT(slept_until.tv_nsec, 1000000000L);
    }
}

TEST_F(TaskTest, TaskLockNestsAndOutlivesNobody)
{
    std::atomic<int> taken{0};
    EXPECT_EQ(taskUnlock(), OK); // not held: nothing
    for (int i = 0; i < 3; i++) {
        EXPECT_EQ(taskLock(), OK);
    }
    spawn([&] { // unlocks nothing, then waits, and ends with the lock in its hands
        taskUnlock();
        taskLock();
        taken = 1;
    });
    taskUnlock();
    taskUnlock();
    taskDelay(3);
    EXPECT_EQ(taken, 0);
    taskUnlock();
    ASSERT_TRUE(eventually([&] { return taken == 1; }));
    EXPECT_EQ(taskLock(), OK);
    taskUnlock();

    std::thread([] { taskLock(); }).join(); // a plain thread that ends with it
    EXPECT_EQ(taskLock(), OK);
    taskUnlock();
}

TEST_F(TaskTest, DeletedTaskSaysSoOnceAndLetsTheTaskLockGo)
{
    EXPECT_EQ(taskDelete(0), ERROR);
    stdout_capture out;
    probe p;
    const taskId_t id = spawn([&] {
        taskLock();
        taskLock();
        probe_attach(&p);
        for (;;) {
            taskIdVerify(0);
        }
    });
    ASSERT_TRUE(eventually([&] { return p.running.load(); }));
    EXPECT_EQ(taskDelete(id), OK);
    errno = 0;
    EXPECT_EQ(taskDelete(id), ERROR); // names no task any more, nobody is signalled
    EXPECT_EQ(errno, S_objLib_OBJ_ID_ERROR);
    EXPECT_EQ(taskLock(), OK);
    taskUnlock();
    ASSERT_TRUE(eventually([&] { return p.ended.load(); }));
    EXPECT_EQ(out.text(), "this signal is 10 \n");
}

TEST_F(TaskTest, WhoDeletesItselfEndsSilentlyTaskOrNot)
{
    stdout_capture out;
    std::atomic<bool> returned{false};
    probe probes[2];
    const auto body = [&](probe* p) {
        probe_attach(p);
        taskLock();
        taskDelete(taskIdSelf());
        returned = true;
    };
    spawn([&] { body(&probes[0]); });
    std::thread([&] { body(&probes[1]); }).join();
    EXPECT_TRUE(eventually([&] { return probes[0].ended && probes[1].ended; }));
    EXPECT_EQ(taskLock(), OK);
    taskUnlock();
    EXPECT_FALSE(returned);
    EXPECT_EQ(out.text(), "");
}

// Whatever a task waits in, its deletion ends it, and what it waited for works afterwards.
TEST_F(TaskTest, DeletionEndsEveryWait)
{
    SEM_ID binary = semBCreate(0, SEM_EMPTY);
    SEM_ID mutex = semMCreate(0);
    ASSERT_EQ(semTake(mutex, WAIT_FOREVER), OK);
    taskLock();
    const std::function<void()> waits[] = {
        [&] { semTake(binary, WAIT_FOREVER); },
        [&] { semTake(binary, 100000); },
        [&] { semTake(mutex, WAIT_FOREVER); },
        [] { taskLock(); },
        [] { taskDelay(100000); },
        [] { pause(); },
    };
    for (const auto& wait : waits) {
        probe p;
        std::atomic<bool> came_back{false};
        const taskId_t id = spawn([&] {
            probe_attach(&p);
            wait();
            came_back = true;
        });
        ASSERT_TRUE(eventually([&] { return p.running.load(); }));
        usleep(2000); // most are asleep by now, either way is fine
        const int64_t deleted_at = now_ns();
        EXPECT_EQ(taskDelete(id), OK);
        ASSERT_TRUE(eventually([&] { return p.ended.load(); }));
        EXPECT_FALSE(came_back);
        EXPECT_LT(p.ended_at - deleted_at, 1000000000LL);
    }
    taskUnlock();
    semGive(mutex);
    std::thread([&] { // still its owner's until the give, nobody's after
        EXPECT_EQ(semTake(mutex, WAIT_FOREVER), OK);
        semGive(mutex);
    })
        .join();
    EXPECT_EQ(semGive(binary), OK);
    EXPECT_EQ(semTake(binary, NO_WAIT), OK);
    EXPECT_EQ(semDelete(binary), OK);
    EXPECT_EQ(semDelete(mutex), OK);
}

static std::atomic<int> locked_in_handler;

static void lock_tasks(void*)
{
    locked_in_handler = taskLock();
    taskUnlock();
}

// While a task blocks the signal, operations it calls neither end it nor give up. Handlers that it
// pushed may wait, too.
TEST_F(TaskTest, ABlockedSignalHoldsTheEndOffAndHandlersMayWait)
{
    SEM_ID token = semBCreate(0, SEM_EMPTY);
    std::atomic<bool> deleted{false};
    std::atomic<int> taken{77};
    probe p;
    locked_in_handler = 77;
    const taskId_t id = spawn([&] {
        sigset_t signals;
        sigemptyset(&signals);
        sigaddset(&signals, SIGUSR1);
        pthread_cleanup_push(lock_tasks, nullptr);
        pthread_sigmask(SIG_BLOCK, &signals, nullptr);
        probe_attach(&p);
        while (!deleted) {
            taskIdVerify(0);
        }
        taken = semTake(token, WAIT_FOREVER);
        pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
        taken = 78;
        pthread_cleanup_pop(0);
    });
    ASSERT_TRUE(eventually([&] { return p.running.load(); }));
    stdout_capture quiet;
    taskLock();
    EXPECT_EQ(taskDelete(id), OK);
    deleted = true;
    usleep(5000);
    EXPECT_EQ(taken, 77);
    semGive(token);
    EXPECT_TRUE(eventually([&] { return taken == OK; }));
    usleep(5000);
    EXPECT_EQ(locked_in_handler, 77);
    taskUnlock();
    EXPECT_TRUE(eventually([&] { return p.ended.load(); }));
    EXPECT_EQ(locked_in_handler, OK);
    EXPECT_EQ(taken, OK);
    semDelete(token);
}

TEST_F(TaskTest, SignalFromOutsideEndsWhoeverReceivesIt)
{
    spawn([] {}); // installs the handler
    stdout_capture out;
    probe p;
    std::thread thread([&] {
        probe_attach(&p);
        for (;;) {
            pause();
        }
    });
    ASSERT_TRUE(eventually([&] { return p.running.load(); }));
    pthread_kill(thread.native_handle(), SIGUSR1);
    thread.join();
    EXPECT_EQ(out.text(), "this signal is 10 \n");
}

TEST_F(TaskTest, SeveralDeletersOfOneTaskAndTasksDeletedBeforeTheyBegin)
{
    stdout_capture out;
    int won = 0;
    for (int round = 0; round < 200; round++) {
        std::atomic<int> ok{0};
        const taskId_t id = taskSpawn(nullptr, 0, 0, 0, reinterpret_cast<FUNCPTR>(forever_entry), 0,
                                      0, 0, 0, 0, 0, 0, 0, 0, 0);
        std::vector<std::thread> deleters;
        for (int i = 0; i < 3; i++) {
            deleters.emplace_back([&] { ok += taskDelete(id) == OK ? 1 : 0; });
        }
        for (std::thread& deleter : deleters) {
            deleter.join();
        }
        won += ok;
    }
    EXPECT_EQ(won, 200);
    EXPECT_TRUE(eventually([this] { return thread_count() == threads_before; }));
    EXPECT_EQ(out.text().size(), 200 * strlen("this signal is 10 \n"));
}

TEST_F(TaskTest, UnsupportedCallsSayEnosys)
{
    int (*const calls[])(taskId_t) = {taskActivate, taskSuspend,     taskResume,
                                      taskRestart,  taskIsSuspended, taskIsReady};
    const int results[] = {38, 38, 38, 38, 0, 1};
    for (size_t i = 0; i < std::size(calls); i++) {
        errno = 0;
        EXPECT_EQ(calls[i](1), results[i]);
        EXPECT_EQ(errno, ENOSYS);
    }
    EXPECT_EQ(taskSafe(), 38);
    EXPECT_EQ(taskUnsafe(), 38);
    task_t block = {};
    errno = 0;
    EXPECT_EQ(taskInit(&block, nullptr, 0, 0, nullptr, 0, nullptr, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0),
              38);
    EXPECT_EQ(errno, ENOSYS);

    EXPECT_EQ(roundRobinIsEnabled(), 1);
    disableRoundRobin();
    EXPECT_EQ(roundRobinIsEnabled(), 0);
    enableRoundRobin();
    EXPECT_EQ(roundRobinIsEnabled(), 1);
}

TEST_F(TaskTest, AllocatorZeroesUsedMemory)
{
    for (int round = 0; round < 20; round++) {
        char* block = static_cast<char*>(ts_malloc(500));
        ASSERT_EQ(std::string(block, 500), std::string(500, '\0'));
        memset(block, 0xee, 500);
        ts_free(block);
    }
}
