// Tasks deleted at random instants, in everything they can be doing. Afterwards the process must
// be as it was: every lock free, of the C library as well, every count right, nothing allocated,
// and nobody else has missed anything. HNETD_DELETIONS says how many; scripts/deletions has many.
#include "endPoint.h"
#include "log_double.h"
#include "osaWd.h"
#include "task_test.h"
#include "uEvent.h"
#include "uTimer.h"
#include "victims.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <thread>
#include <vector>

static constexpr int DELETERS = 3;

// Each kind of end is counted where the product decides on it.
extern "C" {
void __real__Z14end_again_soonP13thread_record(thread_record_t* me);
void __wrap__Z14end_again_soonP13thread_record(thread_record_t* me)
{
    victim_ends(C_LIBRARY);
    __real__Z14end_again_soonP13thread_record(me);
}

void __real__Z17thread_end_if_letP13thread_record(thread_record_t* me);
void __wrap__Z17thread_end_if_letP13thread_record(thread_record_t* me)
{
    victim_ends(OPERATION);
    __real__Z17thread_end_if_letP13thread_record(me);
}
}

// One in ten is a bare thread: what this machine does to anybody's threads meanwhile.
static void delete_many(int deleter, int count)
{
    static constexpr int LONGEST_US = 300;
    std::minstd_rand random(static_cast<unsigned>(deleter) + 1);
    for (int nth = 0; nth < count; nth++) {
        const auto chosen = static_cast<int>(random() % static_cast<unsigned>(VICTIM_KINDS));
        const int kind = !SANITIZED && nth % 10 == 0 ? VICTIM_KINDS : chosen;
        if (SANITIZED && kind < VICTIM_KINDS && (victim_kinds[kind].flags & C_CALLS) != 0) {
            continue; // in a sanitizer's functions, which have locks of their own
        }
        ASSERT_TRUE(victim_delete(kind, deleter, random, LONGEST_US))
            << victim_kinds[kind].name << " goes on";
    }
}

// Each of these hangs or fails if a lock is held by nobody or a count is wrong.
static void expect_all_clean()
{
    std::atomic<bool> through{false};
    std::thread caller([&] {
        c_library_use();
        through = true;
    });
    if (!eventually([&] { return through.load(); }, 60000)) {
        fprintf(stderr, "a lock of the C library is held\n");
        abort();
    }
    caller.join();
    std::thread([] {
        semTake(shared.held_mutex, WAIT_FOREVER), semGive(shared.held_mutex);
    }).join();
    EXPECT_EQ(taskThrPoolDestroy(), OK);
    while (semTake(shared.job_done, NO_WAIT) == OK) {
    }
    for (SEM_ID sem : {shared.empty_sem, shared.busy_sem, shared.job_done}) {
        EXPECT_EQ(reinterpret_cast<v2lsem_t*>(sem)->waiters, 0);
        EXPECT_EQ(reinterpret_cast<v2lsem_t*>(sem)->users, 1);
        EXPECT_EQ(semGive(sem), OK);
        EXPECT_EQ(semTake(sem, NO_WAIT), OK);
    }
    for (SEM_ID sem : {shared.empty_sem, shared.busy_sem, shared.job_done, shared.held_mutex}) {
        EXPECT_EQ(semDelete(sem), OK);
    }
    for (MSG_Q_ID queue :
         {shared.empty_queue, shared.full_queue, shared.busy_queue, shared.others_queue}) {
        EXPECT_EQ(msgQDelete(queue), OK);
    }

    while (uListSize(shared.list) > 0) {
        EXPECT_NE(uListRemove(shared.list, 0), nullptr);
    }
    EXPECT_EQ(uListUninit(shared.list), OK);

    int timers = 0;
    uTimerRun(500000); // what tasks left that were deleted between their add and their delete
    while (uTimerAdd(reinterpret_cast<void*>(victim_timer_due), nullptr, 1) != 0) {
        timers++;
    }
    EXPECT_EQ(timers, 300);
    uTimerRun(1);

    EXPECT_EQ(uEventCare(victim_event, victim_event_seen, nullptr), 1);
    EXPECT_EQ(uEventRaise(victim_event, nullptr, 0), 1);
    uEventUninit();
}

using DeletionStress = TaskTest;

TEST_F(DeletionStress, LeavesNothingBehind)
{
    static char calls[] = "tAsyncCall";
    const char* wanted = getenv("HNETD_DELETIONS");
    const int deletions = wanted != nullptr ? atoi(wanted) : TSAN ? 2000 : 5000;
    int64_t resident = 0;
    log_ignore();
    victims_prepare();
    {
        stdout_capture quiet;
        others_start();
        for (int half = 0; half < 2; half++) {
            resident = resident_bytes();
            std::vector<std::jthread> deleters;
            for (int d = 0; d < DELETERS; d++) {
                deleters.emplace_back([=] { delete_many(d, deletions / DELETERS / 2); });
            }
            deleters.clear();
        }
        const char* wrong = others_stop();
        EXPECT_EQ(wrong, nullptr) << wrong;
        process_wdog(); // what was asked for last
        expect_all_clean();
        taskDelete(taskNameToId(calls));
        EXPECT_TRUE(eventually([this] {
            victims_left(); // one that was deleted at once may be spawning yet
            return thread_count() <= threads_before;
        }));
    }
    victims_report(stdout, true);
    if (!SANITIZED && !EMULATED) { // a kept stack for every hundredth would be far more
        EXPECT_LT(resident_bytes() - resident, 16 << 20);
        histogram all;
        for (int kind = 0; kind < VICTIM_KINDS; kind++) {
            (victim_kinds[kind].flags & C_CALLS) != 0 ? (void)0
                                                      : all.add(victim_results[kind].took);
        }
        const histogram& bare = victim_results[VICTIM_KINDS].took;
        EXPECT_LT(all.percentile(0.5), 2'000'000 + 5 * bare.percentile(0.5));
        EXPECT_LT(all.percentile(0.99), 10'000'000 + 20 * bare.percentile(0.99));
        printf("median %ld us, of bare threads %ld; 99 %% %ld us, of bare threads %ld\n",
               all.percentile(0.5) / 1000, bare.percentile(0.5) / 1000, all.percentile(0.99) / 1000,
               bare.percentile(0.99) / 1000);
    }
}
