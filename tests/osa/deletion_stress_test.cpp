// Tasks deleted at random instants, in everything they can be doing. Afterwards the process must
// be as it was: every lock free, every count right, nothing allocated.
#include "osaMsg.h"
#include "osaSem.h"
#include "osaWd.h"
#include "log_double.h"
#include "task_test.h"
#include "uEvent.h"
#include "uTimer.h"
#include "ulist.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <signal.h>
#include <thread>
#include <unistd.h>
#include <vector>

static constexpr int DELETIONS = TSAN ? 2000 : 10000;
static constexpr int DELETERS = 3;

// What the victims share.
static SEM_ID empty_sem, busy_sem, held_mutex;
static MSG_Q_ID empty_queue, full_queue, busy_queue;
static ulist_t* shared_list;
static char word[16];
static char event_name[] = "STRESS";

static void timer_due(void*) {}

static int32_t event_seen(char*, void*, int32_t*, size_t)
{
    taskIdVerify(0);
    return 0;
}

static taskId_t spawn_victim(int kind, int nth);

enum { LOCK_WAITER, MUTEX_WAITER, RESTARTER, SLEEPER };

// What a victim does over and over again.
static constexpr void (*STEPS[])() = {
    [] { taskLock(); }, // held by the deleter, as is the mutex
    [] { semTake(held_mutex, WAIT_FOREVER); },
    [] {
        mask_exit_signal(SIG_BLOCK); // or it might end with the lock in its hands
        pthread_mutex_lock(&task_list_lock);
        task_t* own = my_task();
        pthread_mutex_unlock(&task_list_lock);
        mask_exit_signal(SIG_UNBLOCK);
        selfRestart(own);
    },
    // The sanitizer keeps a signal that comes just before the sleep until the sleep is over.
    [] { taskDelay(TSAN ? 5 : 100000); },
    [] { semTake(empty_sem, WAIT_FOREVER); },
    [] { semTake(empty_sem, 100000); },
    [] { msgQReceive(empty_queue, word, sizeof word, WAIT_FOREVER); },
    [] { msgQReceive(empty_queue, word, sizeof word, 100000); },
    [] { msgQSend(full_queue, word, sizeof word, WAIT_FOREVER, MSG_PRI_NORMAL); },
    [] { msgQSend(full_queue, word, 8, 100000, MSG_PRI_NORMAL); },
    [] { semGive(busy_sem), semTake(busy_sem, 1); },
    [] {
        char buffer[16] = {};
        msgQSend(busy_queue, buffer, sizeof buffer, 1, MSG_PRI_NORMAL);
        msgQReceive(busy_queue, buffer, sizeof buffer, 1);
    },
    [] { uListAdd(shared_list, word, 0), uListRemove(shared_list, 1); },
    [] {
        const uint32_t id = uTimerAdd(reinterpret_cast<void*>(timer_due), nullptr, 100000);
        uTimerRefresh(id, 200000);
        uTimerRemainGet(id);
        uTimerDel(id);
    },
    [] {
        uEventCare(event_name, event_seen, nullptr);
        uEventRaise(event_name, nullptr, 0);
        uEventClear(event_name, event_seen, nullptr);
    },
    [] {
        int priority;
        taskNameToId(event_name);
        taskIdVerify(taskIdSelf());
        taskPriorityGet(0, &priority);
    },
    [] {
        TSAN ? taskIdVerify(0) : OK; // the sanitizer delivers signals at calls it knows
        for (int i = 0; i < 1000; i++) {
            __asm__ volatile("");
        }
    },
    [] { taskDelete(spawn_victim(SLEEPER, -1)); },
};
static constexpr int KINDS = static_cast<int>(std::size(STEPS));

// Of each victim, for a late one must not speak for the next.
static probe probes[DELETIONS];
static int64_t took[DELETIONS]; // its deletion, in ns; 0 if it may not have begun
static int64_t late[DELETIONS]; // a sleep of its deleter: how late this machine is by itself

static int victim(int kind, int nth, int, int, int, int, int, int, int, int)
{
    if (nth >= 0) {
        probe_attach(&probes[nth]);
    }
    for (;;) {
        STEPS[kind]();
    }
}

static taskId_t spawn_victim(int kind, int nth)
{
    static char name[] = "tVictim";
    return taskSpawn(name, 1, 0, 0, reinterpret_cast<FUNCPTR>(victim), kind, nth, 0, 0, 0, 0, 0, 0,
                     0, 0);
}

static void make_shared()
{
    empty_sem = semBCreate(0, SEM_EMPTY);
    busy_sem = semCCreate(0, 0);
    held_mutex = semMCreate(0);
    empty_queue = msgQCreate(2, sizeof word, 0);
    full_queue = msgQCreate(1, sizeof word, 0);
    busy_queue = msgQCreate(2, sizeof word, 0);
    msgQSend(full_queue, word, sizeof word, NO_WAIT, MSG_PRI_NORMAL);
    shared_list = uListInit(1);
    uTimerInit(0);
}

static void delete_many(int first, int end)
{
    std::minstd_rand random(static_cast<unsigned>(first) + 1);
    for (int nth = first; nth < end; nth++) {
        const probe& p = probes[nth];
        const int kind = static_cast<int>(random() % KINDS);
        const bool at_once = random() % 8 == 0; // before it begins, or just then
        const bool lock = kind == LOCK_WAITER && !at_once;
        // A mutex that a deleted task has stays locked, and a restart must not find its task.
        const bool mutex = kind == MUTEX_WAITER || kind == RESTARTER;
        lock ? taskLock() : mutex ? semTake(held_mutex, WAIT_FOREVER) : OK;
        const taskId_t id = spawn_victim(kind, nth);
        if (!at_once) {
            while (!p.running) {
                sched_yield();
            }
            const int64_t pause_us = random() % 300;
            const int64_t asleep_at = now_ns();
            usleep(static_cast<useconds_t>(pause_us));
            late[nth] = now_ns() - asleep_at - pause_us * 1000;
        }
        const int64_t deleted_at = now_ns();
        ASSERT_EQ(taskDelete(id), OK);
        if (lock || mutex) {
            usleep(random() % 100);
            kind == RESTARTER ? process_wdog() : (void)0;
            lock ? taskUnlock() : semGive(held_mutex);
        }
        if (!at_once) {
            ASSERT_TRUE(eventually([&] { return p.ended.load(); })) << "kind " << kind;
            took[nth] = p.ended_at - deleted_at;
        }
    }
}

// Victims that were deleted between their spawn and their delete leave a sleeper each.
static void delete_sleepers()
{
    for (;;) {
        pthread_mutex_lock(&task_list_lock);
        const taskId_t id = task_list != nullptr ? task_list->pthrid : 0;
        pthread_mutex_unlock(&task_list_lock);
        if (id == 0) {
            return;
        }
        ASSERT_EQ(taskDelete(id), OK);
    }
}

// Each of these hangs or fails if a lock is held by nobody or a count is wrong.
static void expect_all_clean()
{
    std::thread([] { semTake(held_mutex, WAIT_FOREVER), semGive(held_mutex); }).join();
    for (SEM_ID sem : {empty_sem, busy_sem}) {
        EXPECT_EQ(reinterpret_cast<v2lsem_t*>(sem)->waiters, 0);
        EXPECT_EQ(reinterpret_cast<v2lsem_t*>(sem)->users, 1);
        EXPECT_EQ(semGive(sem), OK);
        EXPECT_EQ(semTake(sem, NO_WAIT), OK);
    }
    for (SEM_ID sem : {empty_sem, busy_sem, held_mutex}) {
        EXPECT_EQ(semDelete(sem), OK);
    }
    for (MSG_Q_ID queue : {empty_queue, full_queue, busy_queue}) {
        EXPECT_EQ(msgQDelete(queue), OK);
    }

    for (int size = uListSize(shared_list); size > 0; size--) {
        EXPECT_EQ(uListRemove(shared_list, size - 1), word);
    }
    EXPECT_EQ(uListUninit(shared_list), OK);

    int timers = 0;
    uTimerRun(500000); // what tasks left that were deleted between their add and their delete
    while (uTimerAdd(reinterpret_cast<void*>(timer_due), nullptr, 1) != 0) {
        timers++;
    }
    EXPECT_EQ(timers, 300);
    uTimerRun(1);

    EXPECT_EQ(uEventCare(event_name, event_seen, nullptr), 1);
    EXPECT_EQ(uEventRaise(event_name, nullptr, 0), 1);
    uEventUninit();
}

using DeletionStress = TaskTest;

static long percentile_99(int64_t (&times)[DELETIONS])
{
    std::sort(times, std::end(times));
    return static_cast<long>(times[DELETIONS / 100 * 99]);
}

TEST_F(DeletionStress, LeavesNothingBehind)
{
    static constexpr int SHARE = DELETIONS / DELETERS / 2;
    int64_t resident = 0;
    log_ignore();
    make_shared();
    for (int half = 0; half < 2; half++) {
        stdout_capture quiet;
        resident = resident_bytes();
        std::vector<std::jthread> deleters;
        for (int d = 0; d < DELETERS; d++) {
            const int first = (half * DELETERS + d) * SHARE;
            deleters.emplace_back([=] { delete_many(first, first + SHARE); });
        }
        deleters.clear();
        delete_sleepers();
        process_wdog(); // what was asked for last
    }
    ASSERT_TRUE(eventually([this] {
        delete_sleepers(); // a victim that was deleted at once may be spawning yet
        return thread_count() <= threads_before;
    }));
    if (!SANITIZED) { // 5,000 kept stacks would be far more
        EXPECT_LT(resident_bytes() - resident, 16 << 20);
    }

    expect_all_clean();
    if (!SANITIZED) { // a busy machine delays both
        EXPECT_LT(percentile_99(took), 10000000 + 30 * percentile_99(late));
    }
}
