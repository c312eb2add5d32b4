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
static SEM_ID empty_sem;
static SEM_ID busy_sem;
static SEM_ID held_mutex;
static MSG_Q_ID empty_queue;
static MSG_Q_ID full_queue;
static MSG_Q_ID busy_queue;
static ulist_t* shared_list;
static char word[16];

static void wait_take()
{
    semTake(empty_sem, WAIT_FOREVER);
}
static void wait_take_timed()
{
    semTake(empty_sem, 100000);
}
static void wait_mutex()
{
    semTake(held_mutex, WAIT_FOREVER);
}
static void wait_task_lock()
{
    taskLock();
}
static void wait_receive()
{
    msgQReceive(empty_queue, word, sizeof word, WAIT_FOREVER);
}
static void wait_receive_timed()
{
    msgQReceive(empty_queue, word, sizeof word, 100000);
}
static void wait_send()
{
    msgQSend(full_queue, word, sizeof word, WAIT_FOREVER, MSG_PRI_NORMAL);
}
static void wait_send_timed()
{
    msgQSend(full_queue, word, 8, 100000, MSG_PRI_NORMAL);
}
static void wait_delay()
{
    taskDelay(100000);
}

static void run_sem()
{
    semGive(busy_sem);
    semTake(busy_sem, 1);
}

static void run_queue()
{
    char buffer[16] = {};
    msgQSend(busy_queue, buffer, sizeof buffer, 1, MSG_PRI_NORMAL);
    msgQReceive(busy_queue, buffer, sizeof buffer, 1);
}

static void run_list()
{
    uListAdd(shared_list, word, 0);
    uListRemove(shared_list, 1);
}

static void timer_due(void*) {}

static void run_timer()
{
    const uint32_t id = uTimerAdd(reinterpret_cast<void*>(timer_due), nullptr, 100000);
    uTimerRefresh(id, 200000);
    uTimerRemainGet(id);
    uTimerDel(id);
}

static int32_t event_seen(char*, void*, int32_t*, size_t)
{
    taskIdVerify(0);
    return 0;
}

static void run_event()
{
    static char name[] = "STRESS";
    uEventCare(name, event_seen, nullptr);
    uEventRaise(name, nullptr, 0);
    uEventClear(name, event_seen, nullptr);
}

static void run_look_ups()
{
    static char name[] = "nobody";
    taskNameToId(name);
    taskIdVerify(taskIdSelf());
    int priority;
    taskPriorityGet(0, &priority);
}

static void run_spawn_and_delete();

static void spin()
{
#if defined(__SANITIZE_THREAD__)
    taskIdVerify(0); // the sanitizer delivers signals at calls it knows
#else
    for (int i = 0; i < 1000; i++) {
        __asm__ volatile("");
    }
#endif
}

using step_t = void (*)();
static constexpr step_t STEPS[] = {
    wait_take,
    wait_take_timed,
    wait_mutex,
    wait_task_lock,
    wait_receive,
    wait_receive_timed,
    wait_send,
    wait_send_timed,
    wait_delay,
    run_sem,
    run_queue,
    run_list,
    run_timer,
    run_event,
    run_look_ups,
    spin,
    run_spawn_and_delete,
};
static constexpr int KINDS = static_cast<int>(std::size(STEPS));
static constexpr int LOCK_KIND = 3; // wants the task lock held by somebody else

static probe probes[DELETIONS]; // one each: a late victim must not speak for the next

static int victim(int kind, int nth, int, int, int, int, int, int, int, int)
{
    probe_attach(&probes[nth]);
    for (;;) {
        STEPS[kind]();
    }
}

// Lives until it is deleted: the id of a task that may end by itself may name another one by now.
static int sleeper(int, int, int, int, int, int, int, int, int, int)
{
    for (;;) {
        wait_delay();
    }
}

static taskId_t spawn_entry(int (*entry)(int, int, int, int, int, int, int, int, int, int),
                            int kind, int nth)
{
    static char name[] = "tVictim";
    return taskSpawn(name, 1, 0, 0, reinterpret_cast<FUNCPTR>(entry), kind, nth, 0, 0, 0, 0, 0, 0,
                     0, 0);
}

static void run_spawn_and_delete()
{
    taskDelete(spawn_entry(sleeper, 0, 0));
}

class DeletionStress : public testing::Test {
  protected:
    void SetUp() override
    {
        empty_sem = semBCreate(0, SEM_EMPTY);
        busy_sem = semCCreate(0, 0);
        held_mutex = semMCreate(0);
        empty_queue = msgQCreate(2, sizeof word, 0);
        full_queue = msgQCreate(1, sizeof word, 0);
        busy_queue = msgQCreate(2, sizeof word, 0);
        msgQSend(full_queue, word, sizeof word, NO_WAIT, MSG_PRI_NORMAL);
        semTake(held_mutex, WAIT_FOREVER);
        log_ignore();
        shared_list = uListInit(1);
        uTimerInit(0);
        std::thread([] {}).join();
        threads_before = threads_at_rest();
    }

    void delete_many(int deleter, int first, int end);
    int threads_before = 0;
    std::vector<int64_t> latencies[DELETERS];  // of deletions
    std::vector<int64_t> oversleeps[DELETERS]; // of sleeps: how late this machine is by itself
};

void DeletionStress::delete_many(int deleter, int first, int end)
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
        const taskId_t id = spawn_entry(victim, kind, nth);
        if (!at_once) {
            while (!p.running) {
                sched_yield();
            }
            const int64_t pause_us = random() % 300;
            const int64_t asleep_at = now_ns();
            usleep(static_cast<useconds_t>(pause_us));
            oversleeps[deleter].push_back(now_ns() - asleep_at - pause_us * 1000);
        }
        const int64_t deleted_at = now_ns();
        ASSERT_EQ(taskDelete(id), OK);
        if (lock) {
            usleep(100);
            taskUnlock();
        }
        if (!at_once) {
            ASSERT_TRUE(eventually([&] { return p.ended.load(); })) << "kind " << kind;
            latencies[deleter].push_back(p.ended_at - deleted_at);
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

static void expect_sem_clean(SEM_ID id)
{
    v2lsem_t* sem = reinterpret_cast<v2lsem_t*>(id);
    ASSERT_EQ(pthread_mutex_trylock(&sem->sem_lock), 0);
    EXPECT_EQ(sem->waiters, 0);
    EXPECT_EQ(sem->users, 1);
    pthread_mutex_unlock(&sem->sem_lock);
    EXPECT_EQ(semGive(id), OK);
    EXPECT_EQ(semTake(id, NO_WAIT), OK);
}

static void expect_queue_clean(MSG_Q_ID id)
{
    v2pt_mqueue_t* queue = reinterpret_cast<v2pt_mqueue_t*>(id);
    for (pthread_mutex_t* lock : {&queue->queue_lock, &queue->qfull_lock, &queue->qdlet_lock}) {
        ASSERT_EQ(pthread_mutex_trylock(lock), 0);
        pthread_mutex_unlock(lock);
    }
    EXPECT_EQ(queue->waitTasks, 0);
    EXPECT_EQ(queue->receivers_waiting, 0);
    EXPECT_EQ(queue->senders_waiting, 0);
    const int64_t before = now_ns();
    EXPECT_EQ(msgQDelete(id), OK);
    EXPECT_LT(now_ns() - before, 1000000000LL);
}

static void expect_list_clean()
{
    const int size = uListSize(shared_list);
    EXPECT_EQ(uListAppend(shared_list, word), size + 1);
    for (int i = size; i >= 0; i--) {
        EXPECT_EQ(uListRemove(shared_list, i), word);
    }
    EXPECT_EQ(uListUninit(shared_list), OK);
}

static void expect_timers_clean()
{
    std::vector<uint32_t> ids;
    while (const uint32_t id = uTimerAdd(reinterpret_cast<void*>(timer_due), nullptr, 1000000)) {
        ids.push_back(id);
        ASSERT_LE(ids.size(), 300U);
    }
    // A task deleted between its add and its delete leaves a live timer, which is no leak.
    uTimerRun(500000);
    for (const uint32_t id : ids) {
        uTimerDel(id);
    }
    std::vector<uint32_t> all;
    while (const uint32_t id = uTimerAdd(reinterpret_cast<void*>(timer_due), nullptr, 1)) {
        all.push_back(id);
    }
    EXPECT_EQ(all.size(), 300U);
    uTimerRun(1);
}

static int64_t percentile_99(const std::vector<int64_t> (&shares)[DELETERS])
{
    std::vector<int64_t> all;
    for (const auto& share : shares) {
        all.insert(all.end(), share.begin(), share.end());
    }
    std::sort(all.begin(), all.end());
    return all[all.size() * 99 / 100];
}

TEST_F(DeletionStress, LeavesNothingBehind)
{
    int64_t resident = 0;
    for (int half = 0; half < 2; half++) {
        stdout_capture quiet;
        std::vector<std::thread> deleters;
        for (int d = 0; d < DELETERS; d++) {
            const int share = DELETIONS / DELETERS / 2;
            const int first = (half * DELETERS + d) * share;
            deleters.emplace_back([=, this] { delete_many(d, first, first + share); });
        }
        for (std::thread& deleter : deleters) {
            deleter.join();
        }
        delete_sleepers();
        if (half == 0) {
            resident = resident_bytes();
        }
    }
    ASSERT_TRUE(eventually([this] { return thread_count() == threads_before; }));
    if (PLAIN) { // 5,000 kept stacks would be far more
        EXPECT_LT(resident_bytes() - resident, 16 << 20);
    }

    for (pthread_mutex_t* lock : {&task_list_lock, &v2pthread_task_lock}) {
        ASSERT_EQ(pthread_mutex_trylock(lock), 0);
        pthread_mutex_unlock(lock);
    }
    pthread_mutex_lock(&task_list_lock);
    EXPECT_EQ(task_list, nullptr);
    pthread_mutex_unlock(&task_list_lock);
    std::atomic<bool> lockable{false};
    std::thread([&] {
        taskLock();
        lockable = true;
        taskUnlock();
    }).detach();
    EXPECT_TRUE(eventually([&] { return lockable.load(); }));

    expect_sem_clean(empty_sem);
    expect_sem_clean(busy_sem);
    semGive(held_mutex);
    std::thread([] { // nobody has it
        EXPECT_EQ(semTake(held_mutex, WAIT_FOREVER), OK);
        semGive(held_mutex);
    })
        .join();
    for (MSG_Q_ID queue : {empty_queue, full_queue, busy_queue}) {
        expect_queue_clean(queue);
    }
    expect_list_clean();
    expect_timers_clean();
    static char name[] = "STRESS";
    EXPECT_EQ(uEventCare(name, event_seen, nullptr), 1);
    EXPECT_EQ(uEventRaise(name, nullptr, 0), 1);
    uEventUninit();

    const int64_t took = percentile_99(latencies);
    const int64_t late = percentile_99(oversleeps);
    std::printf("deletion took effect within %ld us, a sleep ended within %ld us (99 %%)\n",
                static_cast<long>(took / 1000), static_cast<long>(late / 1000));
    if (PLAIN) { // a busy machine delays both
        EXPECT_LT(took, 10000000 + 30 * late);
    }
    for (SEM_ID id : {empty_sem, busy_sem, held_mutex}) {
        semDelete(id);
    }
}
