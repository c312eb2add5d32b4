#include "child.h"
#include "internal.h"
#include "osaSem.h"
#include "osaTask.h"
#include "task_probe.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <sys/time.h>
#include <thread>
#include <vector>

static std::atomic<int> clock_reads;
static timeval scripted = {0, 0};

extern "C" int __real_gettimeofday(timeval* tv, void* zone);
extern "C" int __wrap_gettimeofday(timeval* tv, void* zone)
{
    clock_reads++;
    if (scripted.tv_sec != 0) {
        *tv = scripted;
        return 0;
    }
    return __real_gettimeofday(tv, zone);
}

static std::atomic<bool> asleep; // in a sleep of the product's

extern "C" int __real_clock_nanosleep(clockid_t clock, int flags, const timespec* t,
                                      timespec* left);
extern "C" int __wrap_clock_nanosleep(clockid_t clock, int flags, const timespec* t, timespec* left)
{
    asleep = true;
    return __real_clock_nanosleep(clock, flags, t, left);
}

static std::atomic<void*> watched; // a record whose end is waited for
static std::atomic<int64_t> freed_at;

extern "C" void __real_free(void* block);
extern "C" void __wrap_free(void* block)
{
    if (block != nullptr && block == watched) {
        freed_at = now_ns();
        watched = nullptr;
    }
    __real_free(block);
}

static void watch(SEM_ID id)
{
    freed_at = 0;
    watched = id;
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

// Whatever the task was doing when it was deleted, what is given from then on is for others.
static void give_after_deletion()
{
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
    static constexpr int TRIES = 600;
#else
    static constexpr int TRIES = 3000;
#endif
    static constexpr int WAITS[] = {NO_WAIT, -2, 1, WAIT_FOREVER};
    static probe probes[TRIES];
    stdout_capture quiet;
    SEM_ID id = semBCreate(0, SEM_EMPTY);
    int lost = 0;
    for (int nth = 0; nth < TRIES; nth++) {
        const taskId_t victim = spawn([=] {
            probe_attach(&probes[nth]);
            for (;;) {
                semTake(id, WAITS[nth % 4]);
#if defined(__SANITIZE_THREAD__)
                taskIdVerify(0); // the sanitizer delivers signals at calls it knows
#endif
            }
        });
        usleep(static_cast<useconds_t>(nth / 4 % 40));
        taskDelete(victim);
        semGive(id);
        ASSERT_TRUE(eventually([=] { return probes[nth].ended.load(); }));
        lost += semTake(id, NO_WAIT) != OK ? 1 : 0;
    }
    EXPECT_EQ(lost, 0);
    EXPECT_EQ(record(id)->users, 1);
    semDelete(id);
}

TEST(SemTest, StressedDeletionOfTakersLosesNoTokenGivenAfterIt)
{
    EXPECT_TRUE(passes_in_child(give_after_deletion));
}

// Inside an operation a deleted task goes on for a while.
TEST(SemTest, DeletedTasksTakeNothingOnTheirWayOut)
{
    SEM_ID id = semBCreate(0, SEM_EMPTY);
    for (const int max_wait : {NO_WAIT, 1, WAIT_FOREVER}) {
        std::atomic<int> step{0};
        const taskId_t victim = spawn([&, max_wait] {
            thread_record_t* me = op_enter();
            step = 1;
            while (step != 2) {
                usleep(100);
            }
            expect_take(id, max_wait, S_objLib_OBJ_UNAVAILABLE);
            step = 3;
            op_leave(me);
        });
        ASSERT_TRUE(eventually([&] { return step == 1; }));
        taskDelete(victim);
        semGive(id);
        step = 2;
        ASSERT_TRUE(eventually([&] { return step == 3; }));
        expect_take(id, NO_WAIT, 0);
    }
    semDelete(id);
}

TEST(SemTest, FirstCountsAreFormedByKind)
{
    struct {
        SEM_ID id;
        int tokens;
    } const kinds[] = {
        {semBCreate(0, 5), 1}, {semBCreate(4, SEM_EMPTY), 0}, {semBCreate(0, SEM_FULL), 1},
        {semCCreate(0, 3), 3}, {semCCreate(0, 0), 0},
    };
    clock_reads = 0; // a token that is there, or no wait: no clock is looked at
    for (const auto& kind : kinds) {
        for (int i = 0; i < kind.tokens; i++) {
            expect_take(kind.id, NO_WAIT, 0);
        }
        expect_take(kind.id, NO_WAIT, S_objLib_OBJ_UNAVAILABLE);
        EXPECT_EQ(semGive(kind.id), OK); // no kind caps its count
        EXPECT_EQ(semGive(kind.id), OK);
        expect_take(kind.id, 5, 0);
        expect_take(kind.id, WAIT_FOREVER, 0);
        EXPECT_EQ(semDelete(kind.id), OK);
    }
    EXPECT_EQ(clock_reads, 0);
    SEM_ID full = semCCreate(0, INT_MAX);
    semGive(full);
    EXPECT_EQ(record(full)->token_count, INT_MAX);
    semDelete(full);
}

TEST(SemTest, WaitsEndAtTheirDeadlineAndNotBefore)
{
    SEM_ID id = semCCreate(0, 0);
    const int64_t before = now_ns();
    expect_take(id, 3, S_objLib_OBJ_TIMEOUT);
    EXPECT_GE(now_ns() - before, 29 * 1000000LL); // the wall clock may be slewed a little
    for (const int past : {-2, INT_MIN}) {
        expect_take(id, past, S_objLib_OBJ_TIMEOUT);
        semGive(id);
        expect_take(id, past, 0);
    }
    std::thread giver([&] {
        eventually([&] { return waiters(id) == 1; });
        semGive(id);
    });
    expect_take(id, 300000, 0); // far beyond what 32 bits of microseconds hold
    giver.join();
    semDelete(id);
}

TEST(SemTest, DeadlinesAreComputedIn64Bits)
{
    struct {
        long usec;
        int ticks;
        long sec;
        long nsec;
    } const cases[] = {
        {0, 1, 1000, 10000000},
        {990000, 1, 1001, 0}, // exactly a second: carried
        {999999, 1, 1001, 9999000},
        {500000, 214748, 3147, 980000000},
        {0, 214749, 3147, 490000000},
        {0, 300000, 4000, 0},
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
    }
    struct {
        timespec deadline;
        BOOL expired;
    } const looks[] = {
        {{1000, 500000}, 1},   {{1000, 500001}, 0}, {{1000, 0}, 1},
        {{999, 999999999}, 1}, {{1001, 0}, 0},
    };
    scripted = {1000, 500};
    for (const auto& look : looks) {
        timespec deadline = look.deadline;
        EXPECT_EQ(time_expired(&deadline), look.expired);
    }
    scripted = {0, 0};
}

TEST(SemTest, MutexBelongsToItsOwnerAndNests)
{
    SEM_ID id = semMCreate(4);
    std::atomic<int> step{0};
    expect_take(id, NO_WAIT, 0);
    expect_take(id, NO_WAIT, 0);
    std::thread other([&] {
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
        EXPECT_TRUE(eventually([&] { return waiters(id) == count; }));
    }
    int released()
    {
        for (std::thread& thread : threads) {
            thread.join();
        }
        return ok;
    }

  private:
    std::atomic<int> ok{0};
    std::vector<std::thread> threads;
};

TEST(SemTest, WhoIsToldToEndReleasesTheWaitersFirst)
{
    for (status_t (*call)(SEM_ID) : {semGive, semFlush, semDelete}) {
        SEM_ID id = semBCreate(0, SEM_EMPTY);
        ParkedWaiters parked(id, 1);
        watch(id);
        EXPECT_TRUE(ends_in([=] { call(id); }));
        EXPECT_EQ(parked.released(), 1);
        EXPECT_EQ(call == semDelete ? OK : semDelete(id), OK);
        EXPECT_NE(freed_at, 0);
    }
}

// The one that a give wakes may have been told to end by then.
TEST(SemTest, AMutexFindsTheNextThatWaits)
{
    SEM_ID id = semMCreate(0);
    std::thread([=] { semTake(id, NO_WAIT), record_ask_end(self_record), semGive(id); }).join();
    for (const int told : {0, 1}) {
        std::atomic<int> taken{0};
        std::atomic<thread_record_t*> waiting[2];
        semTake(id, WAIT_FOREVER);
        for (int i = 0; i < 2; i++) {
            spawn([&, i] {
                waiting[i] = self_record;
                taken += semTake(id, WAIT_FOREVER) == OK ? 1 : 0;
                semGive(id);
            });
            ASSERT_TRUE(eventually([&] { return load_relaxed(&record(id)->mutex_waiters) > i; }));
        }
        record_ask_end(waiting[told]);
        semGive(id);
        EXPECT_TRUE(eventually([&] { return taken == 1; }));
        expect_take(id, WAIT_FOREVER, 0);
        semGive(id);
    }
    semDelete(id);
}

// Given one by one, each finds that others sleep on; given at once, the first woken wakes the next.
TEST(SemTest, TokensReachAllThatWait)
{
    SEM_ID id = semCCreate(0, 0);
    for (const bool at_once : {false, true}) {
        ParkedWaiters parked(id, 3);
        EXPECT_EQ(record(id)->token_count, 0);
        at_once ? pthread_mutex_lock(&record(id)->sem_lock) : 0;
        for (int left = 2; left >= 0; left--) {
            EXPECT_EQ(semGive(id), OK);
            EXPECT_TRUE(at_once || eventually([&] { return waiters(id) == left; }));
        }
        at_once ? pthread_mutex_unlock(&record(id)->sem_lock) : 0;
        EXPECT_TRUE(eventually([&] { return waiters(id) == 0; }));
        EXPECT_EQ(semFlush(id), OK); // for those that were forgotten
        EXPECT_EQ(parked.released(), 3);
        EXPECT_EQ(record(id)->token_count, 0);
    }
    semDelete(id);
}

TEST(SemTest, FlushReleasesExactlyThoseWaitingNow)
{
    SEM_ID id = semCCreate(0, 0);
    for (int round = 0; round < 20; round++) {
        ParkedWaiters parked(id, 3, round % 2 == 0 ? WAIT_FOREVER : 100000);
        EXPECT_EQ(semFlush(id), OK);
        expect_take(id, NO_WAIT, S_objLib_OBJ_UNAVAILABLE); // the mark does not stick
        EXPECT_EQ(parked.released(), 3);
        EXPECT_EQ(record(id)->token_count, 0);
    }
    EXPECT_EQ(semFlush(id), OK); // nobody there
    expect_take(id, 1, S_objLib_OBJ_TIMEOUT);
    semDelete(id);
}

// A waiter that comes round finds at once all that happened meanwhile, its deadline included.
TEST(SemTest, WakingWaitersHonourDeletionThenFlushThenTokenThenDeadline)
{
    struct {
        const char* events; // f: flush, g: give, d: deletion
        int code;
        int tokens; // that are left
    } const cases[] = {
        {"", S_objLib_OBJ_TIMEOUT, 0},
        {"g", 0, 0},
        {"f", 0, 0},
        {"gg", 0, 1},
        {"fg", 0, 1},
        {"gf", 0, 1},
        {"d", 0, 0},
        {"gd", 0, 1},
        {"dg", 0, 1},
    };
    for (const auto& c : cases) {
        const bool deleted = strchr(c.events, 'd') != nullptr;
        SCOPED_TRACE(c.events);
        SEM_ID id = semBCreate(0, SEM_EMPTY);
        scripted = {1000, 0};
        std::thread waiter([&] { expect_take(id, 1, c.code); });
        ASSERT_TRUE(eventually([&] { return waiters(id) == 1; }));
        watch(id);
        pthread_mutex_lock(&record(id)->sem_lock);
        scripted = {1001, 0}; // it is past the deadline when the lock is let go
        for (const char* event = c.events; *event != '\0'; event++) {
            const int64_t before = now_ns();
            EXPECT_EQ((*event == 'g' ? semGive : *event == 'f' ? semFlush : semDelete)(id), OK);
            EXPECT_GE(now_ns() - before, *event == 'd' ? msPerTick * 1000000LL : 0);
        }
        EXPECT_EQ(freed_at, 0);
        pthread_mutex_unlock(&record(id)->sem_lock);
        waiter.join();
        scripted = {0, 0};
        EXPECT_EQ(freed_at != 0, deleted); // by the last to leave
        if (!deleted) {
            EXPECT_EQ(record(id)->token_count, c.tokens);
            EXPECT_EQ(semDelete(id), OK);
        }
    }
}

TEST(SemTest, DeletionReleasesAllWaiters)
{
    for (const int count : {1, 2, 8}) {
        SEM_ID id = semCCreate(0, 0);
        ParkedWaiters parked(id, count);
        watch(id);
        EXPECT_EQ(semDelete(id), OK);
        EXPECT_EQ(parked.released(), count);
        EXPECT_NE(freed_at, 0);
    }
}

// Deleted while it waits for the task lock, or in the pause itself.
TEST(SemTest, DeletedDeletersLeaveLatecomersTheirTick)
{
    for (const bool locked : {true, false}) {
        SEM_ID id = semBCreate(0, SEM_EMPTY);
        watch(id);
        if (locked) {
            taskLock();
        }
        asleep = false;
        const int64_t before = now_ns();
        const taskId_t deleter = spawn([=] { semDelete(id); });
        ASSERT_TRUE(eventually([=] { // a marked semaphore's takes come back without a token
            return locked ? semTake(id, NO_WAIT) == OK : asleep.load();
        }));
        taskDelete(deleter);
        ASSERT_TRUE(eventually([] { return freed_at != 0; }));
        EXPECT_GE(freed_at - before, msPerTick * 1000000LL);
        if (locked) {
            taskUnlock();
        }
    }
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

TEST(SemTest, StressedTokensAreNeitherLostNorMade)
{
    constexpr int THREADS = 4;
    constexpr int ROUNDS = 5000;
    SEM_ID tokens = semCCreate(0, 2);
    SEM_ID mutex = semMCreate(0);
    int guarded = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < THREADS; t++) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < ROUNDS; i++) {
                while (semTake(tokens, t % 2 == 0 ? WAIT_FOREVER : 1) != OK) {
                }
                semTake(mutex, WAIT_FOREVER);
                guarded++;
                semGive(mutex);
                semGive(tokens);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(guarded, THREADS * ROUNDS);
    EXPECT_EQ(record(tokens)->token_count, 2);
    EXPECT_EQ(record(tokens)->waiters, 0);
    EXPECT_EQ(record(tokens)->users, 1);
    semDelete(tokens);
    semDelete(mutex);
}

// Records die under waiters, takers with a time-out and givers that are about to wake others. The
// task lock keeps the deleter from finishing until the users, who trust the id, have stopped.
TEST(SemTest, StressedDeletion)
{
    for (int round = 0; round < 60; round++) {
        SEM_ID id = semCCreate(0, 0);
        std::atomic<bool> stop{false};
        ParkedWaiters parked(id, 2);
        taskLock();
        std::vector<std::thread> users;
        for (int i = 0; i < 3; i++) {
            users.emplace_back([&, i] {
                while (!stop) {
                    i == 0 ? semGive(id) : semTake(id, i == 1 ? 1 : NO_WAIT);
                }
            });
        }
        usleep(static_cast<useconds_t>(round * 10));
        std::thread deleter([&] { EXPECT_EQ(semDelete(id), OK); });
        usleep(static_cast<useconds_t>(round * 10));
        stop = true;
        for (std::thread& user : users) {
            user.join();
        }
        taskUnlock();
        deleter.join();
        EXPECT_EQ(parked.released(), 2);
    }
}
