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

/** What wdogShow is to tell of them. */
static std::string counts_of_dogs()
{
    std::vector<dog> started;
    std::copy_if(dogs.begin(), dogs.end(), std::back_inserter(started),
                 [](const dog& d) { return d.due != 0; });
    std::sort(started.begin(), started.end(), [](const dog& a, const dog& b) {
        return a.due != b.due ? a.due < b.due : a.started > b.started;
    });
    std::string all;
    int before = now;
    for (const dog& d : started) {
        all += std::to_string(d.due - before) + " ";
        before = d.due;
    }
    return all;
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
        if (now % 100 == 0) {
            EXPECT_EQ(counts(), counts_of_dogs());
        }
    }
}

TEST_F(WatchdogTest, CreationFailsWhereTheIndexCannotGrowAndStartingNever)
{
    for (WDOG_ID id = wdCreate(); id != nullptr; id = wdCreate()) {
        made.push_back(id);
        fail_malloc(2); // the watchdog is the first
    }
    fail_malloc(1, true);
    for (size_t n = 0; n < made.size(); n++) {
        EXPECT_EQ(wdStart(made[n], static_cast<int>(n) + 1, nullptr, nullptr), OK);
    }
    fail_nothing();
    make(1000);
    EXPECT_EQ(wdDelete(made.front()), OK);
    made.front() = make(1);
    made.pop_back();
    for (size_t n = 1; n < made.size(); n++) {
        process_wdog();
    }
    EXPECT_EQ(counts(), std::to_string(1001 - made.size()) + " ");
}

TEST_F(WatchdogTest, ATickThatEndsWithItsThreadLeavesTheRestToTheNext)
{
    const auto end = [](void*) -> int { pthread_exit(nullptr); };
    make(4);
    make(1);
    make(1, end);
    make(1, end);
    std::thread(process_wdog).join();
    EXPECT_EQ(counts(), "0 0 3 ");
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
    for (int i = 0; i < 40; i++) {
        make(5);
    }
    const std::string all = counts(true); // though they fire meanwhile
    EXPECT_EQ(std::count(all.begin(), all.end(), ' '), 140);
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

static void restart()
{
    pthread_mutex_lock(&task_list_lock);
    selfRestart(task_for(0)); // the lock keeps the block
    pthread_mutex_unlock(&task_list_lock);
}

static void exit_thread()
{
    pthread_exit(nullptr);
}

static std::atomic<bool> leave;

static void stay()
{
    while (!leave) {
        usleep(100);
    }
    pthread_exit(nullptr); // a restart still to come would keep the block
}

static void find_no_memory()
{
    fail_malloc(1, true);
    restart();
    self_starter(0);
    fail_nothing();
    pthread_exit(nullptr);
}

// As somebody else may start a thread for a block.
static void start_by_hand()
{
    pthread_mutex_lock(&task_list_lock);
    task_t* task = my_task();
    const auto entry = reinterpret_cast<void* (*)(void*)>(task_wrapper);
    EXPECT_EQ(pthread_create(&task->pthrid, &task->attr, entry, task), 0);
    pthread_mutex_unlock(&task_list_lock);
    pthread_exit(nullptr);
}

struct restart_case {
    const char* what;
    int asked;      // restarts, by the first run of each of two tasks
    void (*rest)(); // of that run
    bool deleted;   // before the tick
    int no_thread;  // the nth restart gets none
    int total;      // runs of both
};
static std::atomic<const restart_case*> tried;
static std::atomic<int> runs[2];

static int ask_and_end(int which, int, int, int, int, int, int, int, int, int)
{
    const bool first = runs[which] == 0;
    EXPECT_EQ(taskIdVerify(taskIdSelf()), OK); // known by the new id, too
    for (int i = 0; first && i < tried.load()->asked; i++) {
        restart();
    }
    runs[which]++;
    first ? tried.load()->rest() : exit_thread();
    return 0;
}

// A block stays for a restart that its thread does not live to see, and goes with a deletion or
// when no thread is to be had. Meanwhile others may have the thread's id.
TEST_F(WatchdogTest, ARestartRunsItsTaskOnceMoreAndOutlivesItsThread)
{
    static const restart_case cases[] = {
        {"runs on", 1, stay, false, 0, 4},
        {"runs on, no thread for one", 1, stay, false, 1, 3},
        {"ended", 1, exit_thread, false, 0, 4},
        {"ended, no thread for one", 1, exit_thread, false, 1, 3},
        {"asked twice", 2, exit_thread, false, 0, 4},
        {"asked twice, no thread for one time", 2, exit_thread, false, 1, 4},
        {"deleted", 1, exit_thread, true, 0, 2},
        {"deleted itself", 1, [] { taskDelete(taskIdSelf()); }, false, 0, 2},
        {"returned", 1, [] {}, false, 0, 2},
        {"no memory", 0, find_no_memory, false, 0, 2},
        {"at once", 0, [] { self_starter(0), exit_thread(); }, false, 0, 4},
        {"by hand", 0, start_by_hand, false, 0, 4},
    };
    static char name[] = "tAgain";
    const int threads = threads_at_rest();
    for (const restart_case& c : cases) {
        const int staying = c.rest == stay ? 2 : 0;
        const auto at_rest = [=] { return thread_count() == threads + staying; };
        const bool kept = c.rest == stay || c.rest == exit_thread;
        SCOPED_TRACE(c.what);
        tried = &c;
        leave = false;
        taskId_t id = 0;
        for (int which : {0, 1}) {
            runs[which] = 0;
            id = taskSpawn(name, 1, 0, 0, reinterpret_cast<FUNCPTR>(ask_and_end), which, 0, 0, 0, 0,
                           0, 0, 0, 0, 0);
        }
        ASSERT_TRUE(eventually([&] { return runs[0] > 0 && runs[1] > 0 && at_rest(); }));
        spawn([] {
            EXPECT_STREQ(taskName(0), "tTest");
            EXPECT_STREQ(taskName(taskIdSelf()), "tTest");
        });
        ASSERT_TRUE(eventually(at_rest));
        std::binary_semaphore done(0);
        bool unharmed = false;
        std::thread stranger([&] {
            EXPECT_STREQ(taskName(0), "NULLTASK");
            done.acquire();
            unharmed = true;
        });
        EXPECT_EQ(taskIdVerify(taskNameToId(name)), kept ? OK : ERROR);
        EXPECT_EQ(taskIdVerify(id), staying != 0 ? OK : ERROR); // the thread's, not the block's
        for (int i = 0; c.deleted && i < 2; i++) {
            EXPECT_EQ(taskDelete(taskNameToId(name)), OK);
        }
        done.release();
        stranger.join();
        EXPECT_TRUE(unharmed);
        fail_thread(c.no_thread);
        process_wdog();
        fail_nothing();
        EXPECT_TRUE(eventually(at_rest));
        int left[2]; // without a new thread a task goes on as it was
        EXPECT_EQ(taskIdListGet(left, 2), staying != 0 ? 4 - c.total : 0);
        leave = true;
        EXPECT_TRUE(eventually([=] { return thread_count() == threads; }));
        EXPECT_EQ(runs[0] + runs[1], c.total);
        EXPECT_LT(abs(runs[0] - runs[1]), 2);
        EXPECT_EQ(taskNameToId(name), 0U);
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
