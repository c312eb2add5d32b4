// Watchdogs on ticks made by hand, the exception task on scripted clocks, and restarts of tasks.
#include "osaWd.h"

#include "fail.h"
#include "osaTask.h"
#include "task_probe.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <random>
#include <semaphore>
#include <thread>

// ---- Scripted clocks, for the thread that has a script ----

struct script {
    // Before and after the sleep of each pass, in ns; where one is negative, the monotonic clock
    // fails and the wall clock shows the absolute value.
    std::vector<int64_t> readings;
    std::vector<unsigned int> sleeps = {};
    size_t read = 0;
};
static constinit thread_local script* scripted = nullptr;

extern "C" {
int __real_clock_gettime(clockid_t, struct timespec*);
int __real_gettimeofday(struct timeval*, void*);
int __real_usleep(useconds_t);

int __wrap_clock_gettime(clockid_t clock, struct timespec* now)
{
    if (scripted == nullptr) {
        return __real_clock_gettime(clock, now);
    }
    const int64_t ns = scripted->readings[scripted->read++];
    *now = {ns / 1'000'000'000, ns % 1'000'000'000};
    return ns < 0 ? -1 : 0;
}

int __wrap_gettimeofday(struct timeval* now, void* zone)
{
    if (scripted == nullptr) {
        return __real_gettimeofday(now, zone);
    }
    const int64_t ns = -scripted->readings[scripted->read - 1];
    *now = {ns / 1'000'000'000, ns % 1'000'000'000 / 1000};
    return 0;
}

int __wrap_usleep(useconds_t us)
{
    if (scripted == nullptr) {
        return __real_usleep(us);
    }
    scripted->sleeps.push_back(us);
    if (scripted->read == scripted->readings.size()) {
        pthread_exit(nullptr);
    }
    return 0;
}
}

// How the exception task sleeps in the first pass, and after each of those read.
static std::vector<unsigned int> sleeps_of(const std::vector<int64_t>& readings)
{
    script s = {readings};
    s.readings.push_back(0);
    std::thread([&s] {
        scripted = &s;
        exception_task(0, 1, 2, 3, 4, 5, 6, 7, 8, 9);
    }).join();
    return s.sleeps;
}

// ---- Watchdogs ----

static FUNCPTR routine_of(int (*routine)(void*))
{
    return reinterpret_cast<FUNCPTR>(routine);
}

static std::string text; // what wdogShow wrote last

/** Shows the list: its counts. Each line makes a tick if asked, and must not find it locked. */
static std::string counts(bool ticking = false)
{
    static std::string all;
    const auto write = [](void* cookie, const char* line, size_t size) {
        char count[16] = {};
        sscanf(line, "%*s %15s", count);
        all += std::string(count) + " ";
        text.append(line, size);
        if (cookie != nullptr) {
            process_wdog();
        }
        return static_cast<ssize_t>(size);
    };
    text = all = "";
    FILE* out = fopencookie(ticking ? &text : nullptr, "w", {nullptr, write, nullptr, nullptr});
    setvbuf(out, nullptr, _IONBF, 0);
    const int lines = wdogShow(out);
    EXPECT_EQ(std::count(all.begin(), all.end(), ' '), lines);
    fclose(out);
    return all;
}

class WatchdogTest : public testing::Test {
  protected:
    ~WatchdogTest() override
    {
        for (WDOG_ID id : made) {
            wdDelete(id);
        }
        EXPECT_EQ(counts(), "");
    }
    WDOG_ID make(int delay, int (*routine)(void*) = nullptr, void* parm = nullptr)
    {
        made.push_back(wdCreate());
        EXPECT_EQ(wdStart(made.back(), delay, routine_of(routine), static_cast<addr_t>(parm)), OK);
        return made.back();
    }
    std::vector<WDOG_ID> made;
};

// ---- The list against a plain model, with routines that start and cancel others and themselves --

struct dog {
    WDOG_ID id;
    int due, started; // due 0: idle
};
static std::vector<dog> dogs;
static int now, starts, last_fired;

static int fire(void* arg);

static void start_or_cancel_any()
{
    static std::mt19937 random(1);
    dog* d = &dogs[random() % dogs.size()];
    const int delay = static_cast<int>(random() % 16) - 1;
    if (delay > 10) {
        EXPECT_EQ(wdCancel(d->id), OK);
        d->due = 0;
        return;
    }
    EXPECT_EQ(wdStart(d->id, delay, routine_of(fire), reinterpret_cast<addr_t>(d)), OK);
    *d = {d->id, now + std::max(delay, 1), ++starts};
}

static int fire(void* arg)
{
    dog* d = static_cast<dog*>(arg);
    EXPECT_EQ(d->due, now);
    EXPECT_LT(d->started, last_fired); // of those of a tick the latest start comes first
    last_fired = d->started;
    d->due = 0;
    start_or_cancel_any();
    return 0;
}

TEST_F(WatchdogTest, EveryOneFiresAtItsTickInOrder)
{
    for (int i = 0; i < 40; i++) {
        dogs.push_back({make(1), 0, 0});
        wdCancel(made.back());
    }
    for (now = 1; now < 20000 && !HasFailure(); now++) {
        last_fired = INT_MAX;
        process_wdog();
        EXPECT_TRUE(std::all_of(dogs.begin(), dogs.end(), [](dog& d) { return d.due != now; }));
        start_or_cancel_any();
        start_or_cancel_any();
    }
}

TEST_F(WatchdogTest, ATickThatEndsWithItsThreadLeavesTheRestToTheNext)
{
    make(3);
    make(1);
    make(1, [](void*) -> int { pthread_exit(nullptr); });
    std::thread(process_wdog).join();
    EXPECT_EQ(counts(), "0 2 ");
    process_wdog();
    EXPECT_EQ(counts(), "1 ");
}

TEST_F(WatchdogTest, ShowCopiesBeforeItWritesAndNeedsNoMemory)
{
    char line[80];
    make(1000, fire, line);
    for (int i = 1; i < 100; i++) {
        make(1000 + i);
    }
    const std::string before = counts(true);
    snprintf(line, sizeof line, "%p 1000 %p\n", reinterpret_cast<void*>(fire),
             static_cast<void*>(line));
    EXPECT_TRUE(text.starts_with(line));
    fail_malloc(1, true);
    const std::string after = counts(true);
    EXPECT_EQ(wdCreate(), nullptr);
    fail_nothing();
    EXPECT_EQ("1000" + after.substr(3), before);
    EXPECT_EQ(counts(), "8" + after.substr(1));
    for (status_t (*operation)(WDOG_ID) : {wdCancel, wdDelete}) {
        errno = 0;
        EXPECT_EQ(operation(nullptr), ERROR);
        EXPECT_EQ(errno, S_objLib_OBJ_ID_ERROR);
    }
}

// ---- The exception task ----

TEST_F(WatchdogTest, PassesArePacedByTheMeasuredTime)
{
    static constexpr int64_t MS = 1'000'000;
    static constexpr int64_t S = 1000 * MS;
    struct {
        const char* what;
        std::vector<int64_t> readings;
        std::vector<unsigned int> sleeps;
    } const table[] = {
        {"longer, on time", {995 * MS, 1007 * MS, S, S + 10 * MS}, {10000, 8000, 10000}},
        {"fractions of a microsecond", {5, 1999, 5, 1004}, {10000, 19999, 10000}},
        {"twice as long", {0, 20 * MS, 0, 5 * MS}, {10000, 0, 15000}},
        {"backlog", {0, 35 * MS, 0, 100'000, 0, 100'000}, {10000, 0, 0, 4800}},
        {"an hour", {0, 3600 * S, 0, 0}, {10000, 0, 0}},
        {"back in the second", {0, 50 * MS, 9 * S + 7, 9 * S + 6}, {10000, 0, 10000}},
        {"back by seconds", {0, 50 * MS, 9 * S, 7 * S + 5}, {10000, 0, 10000}},
        {"monotonic once", {0, 50 * MS, -S, S, S, -S}, {10000, 0, 10000, 10000}},
        {"wall clock", {-995 * MS, -1007 * MS}, {10000, 8000}},
        {"longest by the wall clock", {-S, -1002 * S + 1}, {10000, 0}},
        {"wall clock stepped", {-S, -1002 * S}, {10000, 19950}},
        {"wall clock back", {-3 * S, -2 * S, -S - 2 * MS, -S}, {10000, 10000, 10000}},
    };
    for (const auto& row : table) {
        EXPECT_EQ(sleeps_of(row.readings), row.sleeps) << row.what;
    }
    make(100);
    sleeps_of({0, 1});
    EXPECT_EQ(counts(), "98 "); // a tick in each
}

// ---- Restarts ----

static std::counting_semaphore<> begun(0);
static std::atomic<bool> leave = false;

static int stay()
{
    for (begun.release(); !leave;) {
        taskDelay(1);
    }
    return 0;
}

static taskId_t spawn_entry(char* name, int (*entry)())
{
    return taskSpawn(name, 1, 0, 0, reinterpret_cast<FUNCPTR>(entry), 0, 0, 0, 0, 0, 0, 0, 0, 0, 0);
}

static void restart(taskId_t id)
{
    pthread_mutex_lock(&task_list_lock);
    selfRestart(task_for(id)); // the lock keeps the block
    pthread_mutex_unlock(&task_list_lock);
}

static std::atomic<int> runs;
static std::atomic<bool> no_watchdog;

static int restart_and_exit()
{
    if (runs++ == 0) {
        fail_malloc(no_watchdog ? 1 : 0);
        restart(taskIdSelf());
        fail_nothing();
        pthread_exit(nullptr);
    }
    return stay();
}

TEST_F(WatchdogTest, RestartsPendingTogetherEachStartTheirTask)
{
    const int threads = threads_at_rest();
    char names[][8] = {"tFirst", "tSecond"};
    std::vector<taskId_t> ids;
    for (char* name : names) {
        ids.push_back(spawn_entry(name, stay));
        begun.acquire();
        restart(ids.back());
    }
    EXPECT_EQ(counts(), "1 0 ");
    process_wdog();
    for (const taskId_t id : ids) {
        begun.acquire();
        EXPECT_EQ(taskIdVerify(id), ERROR);
    }
    EXPECT_FALSE(begun.try_acquire());

    const taskId_t anew = taskNameToId(names[0]);
    fail_thread(1); // what cannot be had leaves the task as it is
    self_starter(anew);
    EXPECT_TRUE(failed());
    fail_malloc(1, true);
    self_starter(anew);
    restart(anew);
    fail_nothing();
    EXPECT_EQ(taskIdVerify(anew), OK);
    leave = true;
    EXPECT_TRUE(eventually([=] { return thread_count() == threads; }));
    EXPECT_EQ(taskNameToId(names[0]), 0U);
}

// The block stays for the restart, under an id that no thread gets, and goes with a deletion or
// when there is no watchdog or no thread to be had.
TEST_F(WatchdogTest, ARestartOutlivesTheThreadThatAskedForIt)
{
    char name[] = "tAgain";
    const int threads = threads_at_rest();
    enum : int { RESTARTED, DELETED, NO_THREAD, NO_WATCHDOG, OUTCOMES };
    for (int outcome = RESTARTED; outcome < OUTCOMES; outcome++) {
        runs = 0;
        leave = false;
        no_watchdog = outcome == NO_WATCHDOG;
        const taskId_t id = spawn_entry(name, restart_and_exit);
        ASSERT_TRUE(eventually([&] { return runs == 1 && thread_count() == threads; }));
        const taskId_t waiting = taskNameToId(name);
        EXPECT_EQ(waiting != 0, outcome != NO_WATCHDOG);
        EXPECT_NE(waiting, id);
        EXPECT_EQ(taskIdVerify(id), ERROR); // the id may be another thread's by now
        if (outcome == DELETED) {
            std::atomic<bool> spared{false};
            const taskId_t stranger = spawn([&] { spared = true, stay(); });
            begun.acquire();
            EXPECT_EQ(taskDelete(waiting), OK);
            EXPECT_EQ(taskIdVerify(stranger), OK);
            leave = true;
            EXPECT_TRUE(eventually([&] { return spared && thread_count() == threads; }));
        }
        fail_thread(outcome == NO_THREAD ? 1 : 0);
        process_wdog();
        fail_nothing();
        if (outcome == RESTARTED) {
            begun.acquire();
            leave = true;
            EXPECT_TRUE(eventually([&] { return thread_count() == threads; }));
        }
        EXPECT_EQ(taskNameToId(name), 0U);
        EXPECT_EQ(taskDelete(waiting), ERROR);
    }
}

// ---- Many threads ----

// Watchdogs that everybody starts and cancels, and others that end themselves: all of them must.
TEST_F(WatchdogTest, StartCancelAndDeleteUnderTicksAtFullSpeed)
{
    static std::atomic<int> alive = 0;
    std::atomic<int> workers = 4;
    const auto end = [](void* id) { return alive--, wdDelete(static_cast<WDOG_ID>(id)); };
    for (int i = 0; i < 40; i++) {
        make(1);
    }
    std::vector<std::jthread> threads;
    for (unsigned seed = 0; seed < 4; seed++) {
        threads.emplace_back([&, seed] {
            std::mt19937 random(seed);
            for (int round = 0; round < 4000; round++) {
                WDOG_ID own[] = {wdCreate(), wdCreate()};
                WDOG_ID shared = made[random() % made.size()];
                alive++;
                wdStart(own[0], static_cast<int>(random() % 20), routine_of(end), own[0]);
                wdStart(own[1], static_cast<int>(random() % 20), nullptr, nullptr);
                round % 4 == 0 ? wdCancel(shared) : wdStart(shared, round % 20, nullptr, nullptr);
                wdDelete(own[1]);
            }
            workers--;
        });
    }
    for (int rest = 20; rest > 0; rest -= workers == 0 ? 1 : 0) {
        process_wdog();
    }
    EXPECT_EQ(alive, 0);
}
