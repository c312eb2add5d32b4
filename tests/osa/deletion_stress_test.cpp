// Tasks deleted at random instants, in everything they can be doing. Afterwards the process must
// be as it was: every lock free, every count right, nothing allocated.
#include "internal.h"
#include "osaMsg.h"
#include "osaSem.h"
#include "osaTask.h"
#include "task_probe.h"
#include "log_double.h"
#include "uEvent.h"
#include "uTimer.h"
#include "ulist.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <thread>
#include <unistd.h>
#include <vector>

#if defined(__SANITIZE_THREAD__)
static constexpr int DELETIONS = 2000;
#else
static constexpr int DELETIONS = 10000;
#endif
static constexpr int DELETERS = 3;

// Sanitizers keep freed memory back and slow a loaded machine down beyond any bound.
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
static constexpr bool PLAIN = false;
#else
static constexpr bool PLAIN = true;
#endif

// What the victims share. Mutex-kind semaphores are only waited for: one that a deleted task
// holds stays locked, as it must.
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

// What a victim does over and over again.
static constexpr void (*STEPS[])() = {
    [] { taskLock(); }, // held by somebody else
    [] { taskDelay(100000); },
    [] { semTake(empty_sem, WAIT_FOREVER); },
    [] { semTake(empty_sem, 100000); },
    [] { semTake(held_mutex, WAIT_FOREVER); },
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
#if defined(__SANITIZE_THREAD__)
        taskIdVerify(0); // the sanitizer delivers signals at calls it knows
#else
        for (int i = 0; i < 1000; i++) {
            __asm__ volatile("");
        }
#endif
    },
    [] { taskDelete(spawn_victim(1, -1)); }, // which sleeps
};
static constexpr int KINDS = static_cast<int>(std::size(STEPS));
static constexpr int LOCK_KIND = 0;

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
    semTake(held_mutex, WAIT_FOREVER);
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
        const bool lock = kind == LOCK_KIND && !at_once;
        if (lock) {
            taskLock();
        }
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
        if (lock) {
            usleep(100);
            taskUnlock();
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
    pthread_mutex_lock(&task_list_lock);
    EXPECT_EQ(task_list, nullptr);
    pthread_mutex_unlock(&task_list_lock);
    EXPECT_EQ(taskLock(), OK);
    taskUnlock();
    semGive(held_mutex);
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

static long percentile_99(int64_t (&times)[DELETIONS])
{
    std::sort(times, std::end(times));
    return static_cast<long>(times[DELETIONS / 100 * 99]);
}

TEST(DeletionStress, LeavesNothingBehind)
{
    static constexpr int SHARE = DELETIONS / DELETERS / 2;
    int64_t resident = 0;
    log_ignore();
    make_shared();
    std::thread([] {}).join(); // the first thread of all brings a sanitizer's own with it
    const int threads_before = threads_at_rest();
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
    }
    ASSERT_TRUE(eventually([=] {
        delete_sleepers(); // a victim that was deleted at once may be spawning yet
        return thread_count() == threads_before;
    }));
    if (PLAIN) { // 5,000 kept stacks would be far more
        EXPECT_LT(resident_bytes() - resident, 16 << 20);
    }

    expect_all_clean();
    const long ended = percentile_99(took);
    const long awake = percentile_99(late);
    std::printf("deletion took effect within %ld us, a sleep ended %ld us late (99 %%)\n",
                ended / 1000, awake / 1000);
    if (PLAIN) { // a busy machine delays both
        EXPECT_LT(ended, 10000000 + 30 * awake);
    }
}
