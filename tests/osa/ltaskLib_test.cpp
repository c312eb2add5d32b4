#include "osaSem.h"
#include "osaTask.h"
#include "task_test.h"

#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <signal.h>
#include <sys/prctl.h>
#include <thread>
#include <unistd.h>
#include <vector>

// A thread's next sleep does not happen: signals interrupt it so often, then it is over.
static constinit thread_local int interruptions = -1;
static timespec slept_until;

extern "C" int __real_clock_nanosleep(clockid_t, int, const timespec*, timespec*);
extern "C" int __wrap_clock_nanosleep(clockid_t clock, int flags, const timespec* t, timespec* rest)
{
    if (interruptions < 0) {
        return __real_clock_nanosleep(clock, flags, t, rest);
    }
    slept_until = *t;
    return interruptions-- > 0 ? EINTR : 0;
}

static const char DELETED[] = "this signal is 10 \n";

static int wait_forever()
{
    for (;;) {
        taskDelay(100);
    }
}

static taskId_t spawn_entry(char* name, FUNCPTR entry)
{
    return taskSpawn(name, 100, 0, 1024, entry, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10);
}

static std::array<int, 10> got;
static char thread_name[16];
static std::atomic<const char*> own_name;

static int ten_ints(int a, int b, int c, int d, int e, int f, int g, int h, int i, int j)
{
    got = {a, b, c, d, e, f, g, h, i, j};
    prctl(PR_GET_NAME, thread_name);
    own_name = taskIdVerify(0) == OK ? taskName(0) : "no task";
    return wait_forever();
}
static const FUNCPTR TEN_INTS = reinterpret_cast<FUNCPTR>(ten_ints);

TEST_F(TaskTest, SpawnedTaskIsNamedListedAndGivenItsArguments)
{
    char name[] = "tLowPriWithALongName";
    char full[] = "tLowPriWithALongName";
    char spawners[16];
    std::atomic<bool> looked{false};
    int priority = 0;
    prctl(PR_GET_NAME, spawners);
    const auto look = [&] {
        char own[16];
        prctl(PR_GET_NAME, own);
        EXPECT_STREQ(own, spawners);
        looked = true; // what it looked at is the test's again
        wait_forever();
    };
    const taskId_t unnamed = spawn(look, nullptr);
    const taskId_t id = spawn_entry(name, TEN_INTS);
    const taskId_t twin = spawn(wait_forever, full);
    memset(name, 'x', 4); // the task has a copy
    ASSERT_TRUE(eventually([&] { return own_name != nullptr && looked; }));
    EXPECT_EQ(got, (std::array{1, 2, 3, 4, 5, 6, 7, 8, 9, 10}));
    EXPECT_STREQ(thread_name, "tLowPriWithALon");
    EXPECT_STREQ(taskName(id), full);
    EXPECT_EQ(taskName(id), own_name); // the task finds itself
    EXPECT_EQ(taskName(unnamed), nullptr);
    EXPECT_EQ(taskPrioritySet(id, 5), OK); // changes nothing
    EXPECT_EQ(taskPriorityGet(id, &priority), OK);
    EXPECT_EQ(priority, 100);
    EXPECT_EQ(taskPriorityGet(id, nullptr), OK);

    EXPECT_EQ(taskNameToId(full), id); // the older of two
    EXPECT_EQ(taskDelete(id), OK);
    EXPECT_EQ(taskNameToId(full), twin);
    errno = 77;
    for (const char* nobody : {"tLowPriWithALongNam", "", static_cast<const char*>(nullptr)}) {
        EXPECT_EQ(taskNameToId(const_cast<char*>(nobody)), 0U);
    }
    EXPECT_EQ(errno, 77);
    for (const taskId_t stranger : {id, taskIdSelf(), taskId_t{0}}) { // a plain thread is no task
        EXPECT_STREQ(taskName(stranger), "NULLTASK");
        EXPECT_EQ(code_of([=] { return taskIdVerify(stranger); }), S_objLib_OBJ_ID_ERROR);
        EXPECT_EQ(code_of([&] { return taskPriorityGet(stranger, &priority); }),
                  S_objLib_OBJ_ID_ERROR);
    }
    taskDelete(twin);
    taskDelete(unnamed);
}

TEST_F(TaskTest, DelaySleepsItsWholeLengthHoweverLongAndOftenInterrupted)
{
    EXPECT_EQ(code_of([] { return taskDelay(-1); }), 0);
    EXPECT_EQ(taskDelay(0), OK);
    for (const int ms : {1, 10}) { // per tick
        sysClkRateSet(1000 / ms);
        for (const int ticks : {99, 999, 214749, INT32_MAX}) {
            const int64_t start = now_ns();
            interruptions = 2;
            EXPECT_EQ(taskDelay(ticks), OK);
            EXPECT_EQ(interruptions, -1); // as long as it takes
            const int64_t end = slept_until.tv_sec * 1000000000LL + slept_until.tv_nsec;
            EXPECT_GE(end - start, 1000000LL * ms * ticks);
            EXPECT_LE(end - start, 1000000LL * ms * ticks + 5000000000LL);
            EXPECT_LT(slept_until.tv_nsec, 1000000000L);
        }
    }
}

// A waiter is deleted meanwhile, which leaves the lock its holder's.
TEST_F(TaskTest, TheTaskLockNestsAndGoesToTheNextHoweverItsHolderLetsGo)
{
    EXPECT_EQ(taskUnlock(), OK); // not held: nothing
    stdout_capture quiet;
    for (const bool holder_ends : {false, true}) {
        std::atomic<bool> held = false, leave = false, taken = false;
        spawn([&] {
            taskLock();
            taskLock();
            for (held = true; !leave;) {
                taskDelay(1);
            }
            taskUnlock();
            taskDelay(1);
            EXPECT_FALSE(taken);
            holder_ends ? OK : taskUnlock();
        });
        ASSERT_TRUE(eventually([&] { return held.load(); }));
        const int threads = thread_count();
        const taskId_t deleted = spawn([] { taskLock(); });
        usleep(2000);
        EXPECT_EQ(taskDelete(deleted), OK);
        EXPECT_TRUE(eventually([=] { return thread_count() == threads; }));
        spawn([&] {
            taskUnlock(); // not its own
            taken = taskPriorityGet(0, nullptr) == OK;
        });
        usleep(2000);
        leave = true;
        EXPECT_TRUE(threads_gone());
        EXPECT_TRUE(taken);
    }
    std::thread([] { taskLock(); }).join(); // a plain thread that ends with it
}

// The priorities of a thread that locks, lowers its own, locks, unlocks and unlocks.
static std::string priorities_under_lock()
{
    std::string seen;
    int (*const operations[])() = {taskLock, nullptr, taskLock, taskUnlock, taskUnlock};
    sched_param param = {.sched_priority = 2};
    int policy = 0;
    if (pthread_setschedparam(pthread_self(), SCHED_RR, &param) != 0) {
        return "";
    }
    for (const auto operation : operations) {
        param.sched_priority = 2;
        operation != nullptr ? operation() : pthread_setschedparam(pthread_self(), policy, &param);
        pthread_getschedparam(pthread_self(), &policy, &param);
        seen += policy == SCHED_RR ? std::to_string(param.sched_priority) + " " : "other ";
    }
    return seen;
}

TEST_F(TaskTest, ATaskThatHoldsTheTaskLockHasTheHighestPriorityOfItsPolicy)
{
    std::string task, thread;
    size_t guard = 0; // behind the stack
    spawn([&] {
        pthread_mutex_lock(&task_list_lock);
        task_for(0)->prv_priority.sched_priority = 3; // a real-time task's own
        pthread_attr_getguardsize(&task_for(0)->attr, &guard);
        pthread_mutex_unlock(&task_list_lock);
        task = priorities_under_lock();
    });
    std::thread([&] { thread = priorities_under_lock(); }).join();
    ASSERT_TRUE(threads_gone());
    EXPECT_GT(guard, 0U);
    if (thread.empty()) {
        GTEST_SKIP() << "no right to a real-time policy";
    }
    EXPECT_EQ(task, "99 2 99 99 3 ");
    EXPECT_EQ(thread, "2 2 2 2 2 ");
}

TEST_F(TaskTest, OneThatEndsItselfSaysNothingTaskOrNot)
{
    EXPECT_EQ(code_of([] { return taskDelete(0); }), 0);
    stdout_capture out;
    const auto delete_self = [] {
        taskLock();
        taskDelete(taskIdSelf());
        ADD_FAILURE();
    };
    spawn(delete_self);
    std::thread(delete_self).join();
    EXPECT_TRUE(threads_gone());
    EXPECT_EQ(out.text(), "");
}

static std::atomic<int> taken_in_handler;

static void take_in_handler(void* token)
{
    taken_in_handler = semTake(static_cast<SEM_ID>(token), WAIT_FOREVER);
}

// While a task blocks the signal, operations it calls neither end it nor give up. Handlers that it
// pushed may wait, too, and are not cut short by another signal.
TEST_F(TaskTest, ABlockedSignalHoldsTheEndOffAndHandlersMayWait)
{
    stdout_capture quiet;
    for (const bool blocks : {true, false}) {
        SEM_ID token = semBCreate(0, SEM_EMPTY);
        SEM_ID last = semBCreate(0, SEM_EMPTY);
        std::atomic<bool> deleted{false};
        std::atomic<int> taken{77};
        probe p;
        taken_in_handler = 77;
        const taskId_t id = spawn([&] {
            pthread_cleanup_push(take_in_handler, last);
            mask_exit_signal(blocks ? SIG_BLOCK : SIG_UNBLOCK);
            probe_attach(&p);
            while (blocks && !deleted) {
                taskIdVerify(0);
            }
            taken = semTake(token, WAIT_FOREVER);
            mask_exit_signal(SIG_UNBLOCK);
            taken = 78;
            pthread_cleanup_pop(0);
        });
        ASSERT_TRUE(eventually([&] { return p.running.load(); }));
        usleep(2000); // it waits for the token
        EXPECT_EQ(taskDelete(id), OK);
        deleted = true;
        usleep(5000);
        EXPECT_EQ(taken, 77);
        semGive(token);
        EXPECT_TRUE(eventually([&] { return taken == OK || !blocks; }));
        usleep(5000);
        pthread_kill(id, SIGUSR1); // it waits for the last one
        EXPECT_EQ(taken_in_handler, 77);
        semGive(last);
        EXPECT_TRUE(eventually([&] { return p.ended.load(); }));
        EXPECT_EQ(taken_in_handler, OK);
        EXPECT_EQ(taken, blocks ? OK : 77);
        semDelete(token);
        semDelete(last);
    }
}

TEST_F(TaskTest, SeveralDeletersOfOneTaskAndTasksDeletedBeforeTheyBegin)
{
    stdout_capture out;
    std::atomic<int> won = 0;
    for (int round = 0; round < 200; round++) {
        const taskId_t id = spawn_entry(nullptr, reinterpret_cast<FUNCPTR>(wait_forever));
        std::vector<std::jthread> deleters;
        for (int i = 0; i < 3; i++) {
            deleters.emplace_back([&, id] { won += taskDelete(id) == OK ? 1 : 0; });
        }
    }
    EXPECT_EQ(won, 200);
    EXPECT_TRUE(threads_gone());
    EXPECT_EQ(out.text().size(), 200 * strlen(DELETED));
}

TEST_F(TaskTest, UnsupportedCallsSayEnosys)
{
    task_t task;
    memset(&task, 0xff, sizeof task);
    for (const auto& [call, answer] : {std::pair{&taskActivate, 38},
                                       {taskSuspend, 38},
                                       {taskResume, 38},
                                       {taskRestart, 38},
                                       {taskIsReady, 1},
                                       {taskIsSuspended, 0}}) {
        errno = 0;
        EXPECT_EQ(call(1), answer);
        EXPECT_EQ(errno, ENOSYS);
        task_t* const block = answer == 38 ? &task : nullptr;
        EXPECT_EQ(taskInit(block, nullptr, 0, 0, nullptr, 0, nullptr, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0),
                  38);
    }
    EXPECT_EQ(pthread_mutex_trylock(&task.timemutex) + pthread_cond_signal(&task.timecond), 0);
    EXPECT_EQ(taskSafe() + taskUnsafe(), 2 * 38);
    for (const int on : {0, 1}) {
        on != 0 ? enableRoundRobin() : disableRoundRobin();
        EXPECT_EQ(roundRobinIsEnabled(), on);
    }
}
