#include "fail.h"
#include "internal.h"
#include "osaSem.h"
#include "osaTask.h"
#include "task_probe.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <sys/time.h>
#include <thread>
#include <vector>

static timeval scripted = {0, 0};

extern "C" int __real_gettimeofday(timeval* tv, void* zone);
extern "C" int __wrap_gettimeofday(timeval* tv, void* zone)
{
    if (scripted.tv_sec == 0) {
        return __real_gettimeofday(tv, zone);
    }
    *tv = scripted;
    return 0;
}

static v2lsem_t* record(SEM_ID id)
{
    return reinterpret_cast<v2lsem_t*>(id);
}

static int waiters(SEM_ID id)
{
    v2lsem_t* sem = record(id);
    pthread_mutex_lock(&sem->sem_lock);
    const int count = sem->waiters;
    pthread_mutex_unlock(&sem->sem_lock);
    return count;
}

static void expect_take(SEM_ID id, int max_wait, int code)
{
    errno = 0;
    EXPECT_EQ(semTake(id, max_wait), code == 0 ? OK : ERROR);
    EXPECT_EQ(errno, code);
}

TEST(SemTest, FirstCountsAreFormedByKind)
{
    const std::pair<SEM_ID, int> kinds[] = {
        {semBCreate(0, 5), 1}, {semBCreate(4, SEM_EMPTY), 0}, {semBCreate(0, SEM_FULL), 1},
        {semCCreate(0, 3), 3}, {semCCreate(0, 0), 0},
    };
    for (const auto& [id, tokens] : kinds) {
        for (int i = 0; i < tokens; i++) {
            expect_take(id, NO_WAIT, 0);
        }
        expect_take(id, NO_WAIT, S_objLib_OBJ_UNAVAILABLE);
        EXPECT_EQ(semGive(id), OK); // no kind caps its count
        EXPECT_EQ(semGive(id), OK);
        expect_take(id, INT_MIN, 0); // a token is there: the deadline does not matter
        expect_take(id, WAIT_FOREVER, 0);
        EXPECT_EQ(semDelete(id), OK);
    }
    EXPECT_EQ(semCCreate(0, -1), nullptr);
    fail_malloc(1);
    EXPECT_EQ(semMCreate(0), nullptr);
    fail_nothing();
    SEM_ID full = semCCreate(0, INT_MAX);
    semGive(full);
    EXPECT_EQ(record(full)->token_count, INT_MAX);
    semDelete(full);
    expect_take(nullptr, NO_WAIT, S_objLib_OBJ_ID_ERROR);
    for (status_t (*call)(SEM_ID) : {semGive, semFlush, semDelete}) {
        errno = 0;
        EXPECT_EQ(call(nullptr), ERROR);
        EXPECT_EQ(errno, S_objLib_OBJ_ID_ERROR);
    }
}

TEST(SemTest, WaitsEndAtTheirDeadlineAndNotBefore)
{
    SEM_ID id = semCCreate(0, 0);
    const int64_t before = now_ns();
    expect_take(id, 3, S_objLib_OBJ_TIMEOUT);
    EXPECT_GE(now_ns() - before, 29 * 1000000LL); // the wall clock may be slewed a little
    expect_take(id, INT_MIN, S_objLib_OBJ_TIMEOUT);
    std::jthread giver([=] {
        eventually([=] { return waiters(id) == 1; });
        semGive(id);
    });
    expect_take(id, 300000, 0); // far beyond what 32 bits of microseconds hold
    giver.join();
    EXPECT_EQ(record(id)->token_count, 0);
    EXPECT_EQ(record(id)->users, 1);
    semDelete(id);
}

TEST(SemTest, DeadlinesAreComputedIn64Bits)
{
    const struct {
        long usec;
        int ticks;
        long sec;
        long nsec;
    } cases[] = {
        {990000, 1, 1001, 0}, // exactly a second: carried
        {999999, 1, 1001, 9999000},
        {500000, 214748, 3147, 980000000},
        {0, INT_MAX, 21474836 + 1000L, 470000000},
        {0, -2, 999, 980000000}, // past, and in range
        {5000, -1000000, -9000, 5000000},
    };
    for (const auto& c : cases) {
        scripted = {1000, c.usec};
        timespec deadline;
        deadline_after(c.ticks, &deadline);
        EXPECT_EQ(deadline.tv_sec, c.sec) << c.ticks;
        EXPECT_EQ(deadline.tv_nsec, c.nsec) << c.ticks;
        EXPECT_EQ(time_expired(&deadline), c.ticks < 0 ? 1 : 0);
    }
    scripted = {0, 0};
}

TEST(SemTest, MutexBelongsToItsOwnerAndNests)
{
    SEM_ID id = semMCreate(4);
    std::atomic<int> step{0};
    expect_take(id, NO_WAIT, 0);
    expect_take(id, NO_WAIT, 0);
    std::jthread other([&] {
#ifndef __SANITIZE_THREAD__         // which calls it a fault, though the mutex refuses
        EXPECT_EQ(semGive(id), OK); // not the owner: nothing
#endif
        step = 1;
        EXPECT_EQ(semTake(id, NO_WAIT), OK); // the time-out is not looked at
        step = 2;
        semGive(id);
    });
    ASSERT_TRUE(eventually([&] { return step == 1; }));
    semGive(id);
    taskDelay(6); // longer than a slice of the wait
    EXPECT_EQ(step, 1);
    errno = 0;
    EXPECT_EQ(semFlush(id), ERROR); // gives the last level back
    EXPECT_EQ(errno, S_semLib_INVALID_OPERATION);
    other.join();
    EXPECT_EQ(step, 2);
    EXPECT_EQ(semDelete(id), OK);
}

class ParkedWaiters {
  public:
    ParkedWaiters(SEM_ID id, int count, int max_wait = WAIT_FOREVER)
    {
        for (int i = 0; i < count; i++) {
            threads.emplace_back([=, this] { ok += semTake(id, max_wait) == OK ? 1 : 0; });
        }
        EXPECT_TRUE(eventually([=] { return waiters(id) == count; }));
    }
    int released()
    {
        threads.clear();
        return ok;
    }

  private:
    std::atomic<int> ok{0};
    std::vector<std::jthread> threads;
};

TEST(SemTest, FlushReleasesExactlyThoseWaitingNow)
{
    SEM_ID id = semCCreate(0, 0);
    for (const int max_wait : {WAIT_FOREVER, 100000}) {
        ParkedWaiters parked(id, 3, max_wait);
        EXPECT_EQ(semFlush(id), OK);
        EXPECT_EQ(parked.released(), 3);
        expect_take(id, 1, S_objLib_OBJ_TIMEOUT); // the mark does not stick
    }
    semDelete(id);
}

// The holder of the task lock keeps giving; a deleter that waited for it with the semaphore's lock
// in hand would stop both for ever. The second deleter finds the mark.
TEST(SemTest, DeletionDoesNotBlockTheHolderOfTheTaskLock)
{
    SEM_ID id = semCCreate(0, 0);
    taskLock();
    std::atomic<bool> deleted{false};
    std::thread deleter([&] {
        EXPECT_EQ(semDelete(id), OK);
        deleted = true;
    });
    ASSERT_TRUE(eventually([&] { // a take of the marked semaphore comes back without a token
        return semTake(id, NO_WAIT) == OK;
    }));
    semGive(id);
    errno = 0;
    EXPECT_EQ(semDelete(id), ERROR);
    EXPECT_EQ(errno, S_objLib_OBJ_ID_ERROR);
    EXPECT_FALSE(deleted);
    taskUnlock();
    deleter.join();
}

// Records die under waiters, alone or with takers with a time-out and givers that are about to
// wake others. The task lock keeps the deleter from finishing until the users, who trust the id,
// have stopped.
TEST(SemTest, DeletionReleasesWaitersAndFreesTheRecordAfterTheLast)
{
    for (int round = 0; round < 80; round++) {
        SEM_ID id = semCCreate(0, 0);
        ParkedWaiters parked(id, 1 + round % 8);
        std::vector<std::jthread> users;
        taskLock();
        for (int i = 0; i < round % 4; i++) {
            users.emplace_back([=](const std::stop_token& stop) {
                while (!stop.stop_requested()) {
                    i == 0 ? semGive(id) : semTake(id, i == 1 ? 1 : NO_WAIT);
                }
            });
        }
        usleep(static_cast<useconds_t>(round * 10));
        std::jthread deleter([=] { EXPECT_EQ(semDelete(id), OK); });
        usleep(static_cast<useconds_t>(round * 10));
        users.clear();
        taskUnlock();
        EXPECT_EQ(parked.released(), 1 + round % 8);
    }
}
