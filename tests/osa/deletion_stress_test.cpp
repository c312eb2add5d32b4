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
static char word[16];
static const SEM_ID empty_sem = semBCreate(0, SEM_EMPTY);
static const SEM_ID busy_sem = semCCreate(0, 0);
static const SEM_ID held_mutex = semMCreate(0);
static const MSG_Q_ID empty_queue = msgQCreate(2, sizeof word, 0);
static const MSG_Q_ID full_queue = msgQCreate(1, sizeof word, 0);
static const MSG_Q_ID busy_queue = msgQCreate(2, sizeof word, 0);
static ulist_t* const shared_list = uListInit(1);

static void run_queue()
{
    char buffer[16] = {};
    msgQSend(busy_queue, buffer, sizeof buffer, 1, MSG_PRI_NORMAL);
    msgQReceive(busy_queue, buffer, sizeof buffer, 1);
}

static uint32_t add_timer(int delay)
{
    return uTimerAdd(reinterpret_cast<void*>(+[](void*) {}), nullptr, delay);
}

static void run_timer()
{
    const uint32_t id = add_timer(100000);
    uTimerRefresh(id, 200000);
    uTimerRemainGet(id);
    uTimerDel(id);
}

static char event[] = "STRESS";

static int32_t event_seen(char*, void*, int32_t*, size_t)
{
    taskIdVerify(0);
    return 0;
}

static void run_event()
{
    uEventCare(event, event_seen, nullptr);
    uEventRaise(event, nullptr, 0);
    uEventClear(event, event_seen, nullptr);
}

static void run_look_ups()
{
    int priority;
    taskNameToId(word);
    taskIdVerify(taskIdSelf());
    taskPriorityGet(0, &priority);
}

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

static taskId_t spawn_entry(int (*entry)(int, int), int kind, int nth)
{
    static char name[] = "tVictim";
    return taskSpawn(name, 1, 0, 0, reinterpret_cast<FUNCPTR>(entry), kind, nth, 0, 0, 0, 0, 0, 0,
                     0, 0);
}

// Lives until it is deleted: the id of a task that may end by itself may name another one by now.
static int sleeper(int, int)
{
    for (;;) {
        taskDelay(100000);
    }
}

static constexpr void (*STEPS[])() = {
    [] { taskLock(); }, // which somebody else must hold
    [] { semTake(empty_sem, WAIT_FOREVER); },
    [] { semTake(empty_sem, 100000); },
    [] { semTake(held_mutex, WAIT_FOREVER); },
    [] { msgQReceive(empty_queue, word, sizeof word, WAIT_FOREVER); },
    [] { msgQReceive(empty_queue, word, sizeof word, 100000); },
    [] { msgQSend(full_queue, word, sizeof word, WAIT_FOREVER, MSG_PRI_NORMAL); },
    [] { msgQSend(full_queue, word, 8, 100000, MSG_PRI_NORMAL); },
    [] { taskDelay(100000); },
    [] { semGive(busy_sem), semTake(busy_sem, 1); },
    [] { uListAdd(shared_list, word, 0), uListRemove(shared_list, 1); },
    [] { logFdAdd(3), setExLogCallBack(nullptr), logFdDelete(3); },
    [] { taskDelete(spawn_entry(sleeper, 0, 0)); },
    run_queue,
    run_timer,
    run_event,
    run_look_ups,
    spin,
};
static constexpr int LOCK_KIND = 0;

static probe probes[DELETIONS]; // one each: a late victim must not speak for the next

static int victim(int kind, int nth)
{
    for (probe_attach(&probes[nth]);;) {
        STEPS[kind]();
    }
}

static std::atomic<int64_t> latency_ns;   // of all deletions together
static std::atomic<int64_t> oversleep_ns; // of as many sleeps: how late this machine is by itself
static std::atomic<int> measured;

static void delete_many(int first, int end)
{
    std::minstd_rand random(static_cast<unsigned>(first) + 1);
    for (int nth = first; nth < end; nth++) {
        const probe& p = probes[nth];
        const int kind = static_cast<int>(random() % std::size(STEPS));
        if (random() % 8 == 0) { // before it begins, or just then
            ASSERT_EQ(taskDelete(spawn_entry(victim, kind, nth)), OK);
            continue;
        }
        if (kind == LOCK_KIND) {
            taskLock();
        }
        const taskId_t id = spawn_entry(victim, kind, nth);
        while (!p.running) {
            sched_yield();
        }
        const int64_t pause_us = random() % 300;
        const int64_t asleep_at = now_ns();
        usleep(static_cast<useconds_t>(pause_us));
        const int64_t deleted_at = now_ns();
        ASSERT_EQ(taskDelete(id), OK);
        if (kind == LOCK_KIND) {
            usleep(100);
            taskUnlock();
        }
        ASSERT_TRUE(eventually([&] { return p.ended.load(); })) << "kind " << kind;
        oversleep_ns += deleted_at - asleep_at - pause_us * 1000;
        latency_ns += p.ended_at - deleted_at;
        measured++;
    }
}

static taskId_t any_task()
{
    pthread_mutex_lock(&task_list_lock);
    const taskId_t id = task_list != nullptr ? task_list->pthrid : 0;
    pthread_mutex_unlock(&task_list_lock);
    return id;
}

static void expect_free(std::initializer_list<pthread_mutex_t*> locks)
{
    for (pthread_mutex_t* lock : locks) {
        ASSERT_EQ(pthread_mutex_trylock(lock), 0);
        pthread_mutex_unlock(lock);
    }
}

static void expect_sem_clean(SEM_ID id)
{
    v2lsem_t* sem = reinterpret_cast<v2lsem_t*>(id);
    expect_free({&sem->sem_lock});
    EXPECT_EQ(sem->waiters, 0);
    EXPECT_EQ(sem->users, 1);
    EXPECT_EQ(semGive(id), OK);
    EXPECT_EQ(semTake(id, NO_WAIT), OK);
}

static void expect_queue_clean(MSG_Q_ID id)
{
    v2pt_mqueue_t* queue = reinterpret_cast<v2pt_mqueue_t*>(id);
    expect_free({&queue->queue_lock, &queue->qfull_lock, &queue->qdlet_lock});
    EXPECT_EQ(queue->waitTasks, 0);
    EXPECT_EQ(queue->receivers_waiting, 0);
    EXPECT_EQ(queue->senders_waiting, 0);
    EXPECT_EQ(msgQDelete(id), OK);
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
    uTimerRun(500000); // a task deleted between its add and its delete leaves a live timer
    int room = 0;
    while (room <= 300 && add_timer(1) != 0) {
        room++;
    }
    EXPECT_EQ(room, 300);
    uTimerRun(1);
}

TEST(DeletionStress, LeavesNothingBehind)
{
    log_ignore();
    uTimerInit(0);
    logInit(1, 0);
    msgQSend(full_queue, word, sizeof word, NO_WAIT, MSG_PRI_NORMAL);
    semTake(held_mutex, WAIT_FOREVER);
    std::thread([] {}).join(); // the first thread of all brings a sanitizer's own with it
    const int threads_before = threads_at_rest();
    int64_t resident = 0;
    for (int half = 0; half < 2; half++) {
        stdout_capture quiet;
        std::vector<std::jthread> deleters;
        for (int d = 0; d < DELETERS; d++) {
            const int share = DELETIONS / DELETERS / 2;
            const int first = (half * DELETERS + d) * share;
            deleters.emplace_back(delete_many, first, first + share);
        }
        deleters.clear();
        while (const taskId_t id = any_task()) { // left by victims that were about to delete it
            ASSERT_EQ(taskDelete(id), OK);
        }
        resident = half == 0 ? resident_bytes() : resident_bytes() - resident;
    }
    ASSERT_TRUE(eventually([=] { return thread_count() == threads_before; }));

    expect_free({&task_list_lock, &v2pthread_task_lock});
    expect_sem_clean(empty_sem);
    expect_sem_clean(busy_sem);
    semGive(held_mutex);
    std::thread([] { // nobody has these
        EXPECT_EQ(semTake(held_mutex, WAIT_FOREVER), OK);
        semGive(held_mutex);
        taskLock();
        taskUnlock();
    })
        .join();
    for (MSG_Q_ID queue : {empty_queue, full_queue, busy_queue}) {
        expect_queue_clean(queue);
    }
    expect_list_clean();
    expect_timers_clean();
    while (logFdDelete(3) == OK) {
    }
    EXPECT_EQ(logFdAdd(4), OK);
    EXPECT_EQ(uEventCare(event, event_seen, nullptr), 1);
    EXPECT_EQ(uEventRaise(event, nullptr, 0), 1);
    uEventUninit();

    const int64_t took = latency_ns / measured;
    const int64_t late = oversleep_ns / measured;
    std::printf("a deletion took effect in %ld us, a sleep was %ld us late\n",
                static_cast<long>(took / 1000), static_cast<long>(late / 1000));
    if (PLAIN) { // a busy machine delays both
        EXPECT_LT(took, 2000000 + 10 * late);
        EXPECT_LT(resident, 16 << 20); // 5,000 kept stacks would be far more
    }
}
