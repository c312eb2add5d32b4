// Watchdogs on ticks made by hand, the exception task on scripted clocks, and restarts of tasks.
#include "osaWd.h"

#include "fail.h"
#include "osaTask.h"
#include "task_probe.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <random>
#include <semaphore>
#include <string>
#include <sys/prctl.h>
#include <thread>
#include <vector>

// ---- Scripted clocks, for the thread that has a script ----

// Readings before and after the sleep of one pass, in ns; negative: that clock fails.
struct pass {
    int64_t before, after;           // monotonic
    int64_t wall_before, wall_after; // wall clock
};

struct script {
    std::vector<pass> passes;
    size_t reading = 0; // two per pass
    std::vector<unsigned int> sleeps;
    char thread_name[16] = {};
};

static constinit thread_local script* scripted = nullptr;

extern "C" int __real_clock_gettime(clockid_t, struct timespec*);
extern "C" int __real_gettimeofday(struct timeval*, void*);
extern "C" int __real_usleep(useconds_t);

extern "C" int __wrap_clock_gettime(clockid_t clock, struct timespec* now)
{
    if (scripted == nullptr) {
        return __real_clock_gettime(clock, now);
    }
    const pass& p = scripted->passes[scripted->reading / 2];
    const int64_t ns = scripted->reading++ % 2 == 0 ? p.before : p.after;
    now->tv_sec = ns / 1'000'000'000;
    now->tv_nsec = ns % 1'000'000'000;
    return ns < 0 ? -1 : 0;
}

extern "C" int __wrap_gettimeofday(struct timeval* now, void* zone)
{
    if (scripted == nullptr) {
        return __real_gettimeofday(now, zone);
    }
    const size_t last = scripted->reading - 1;
    const pass& p = scripted->passes[last / 2];
    const int64_t ns = last % 2 == 0 ? p.wall_before : p.wall_after;
    now->tv_sec = ns / 1'000'000'000;
    now->tv_usec = ns % 1'000'000'000 / 1000;
    return 0;
}

extern "C" int __wrap_usleep(useconds_t us)
{
    if (scripted == nullptr) {
        return __real_usleep(us);
    }
    scripted->sleeps.push_back(us);
    prctl(PR_GET_NAME, scripted->thread_name);
    if (scripted->sleeps.size() == scripted->passes.size()) {
        pthread_exit(nullptr);
    }
    return 0;
}

// How the exception task sleeps in the first pass, and after each of the given ones.
static std::vector<unsigned int> sleeps_of(const std::vector<pass>& passes)
{
    script s;
    s.passes = passes;
    s.passes.push_back({});
    std::thread([&s] {
        scripted = &s;
        exception_task(0, 1, 2, 3, 4, 5, 6, 7, 8, 9);
    }).join();
    EXPECT_STREQ(s.thread_name, "tExcTask");
    return s.sleeps;
}

static pass lasting(int64_t us)
{
    static constexpr int64_t START = 4'990'000'000; // a pass of 10 ms and more ends in a new second
    return {START, START + us * 1000, 0, 0};
}

// ---- Watchdogs ----

static std::string fired;

static int note(void* name)
{
    fired += static_cast<const char*>(name);
    return 0;
}

static FUNCPTR routine_of(int (*routine)(void*))
{
    return reinterpret_cast<FUNCPTR>(routine);
}

// What wdogShow writes; its result is checked against it.
static std::string shown()
{
    char* text = nullptr;
    size_t size = 0;
    FILE* out = open_memstream(&text, &size);
    const int lines = wdogShow(out);
    fclose(out);
    const std::string all = text;
    free(text);
    EXPECT_EQ(std::count(all.begin(), all.end(), '\n'), lines);
    return all;
}

static std::string counts()
{
    std::string all;
    const std::string text = shown();
    for (size_t at = 0; at < text.size(); at = text.find('\n', at) + 1) {
        const size_t first = text.find(' ', at) + 1;
        all += text.substr(first, text.find(' ', first) - first) + " ";
    }
    return all;
}

class WatchdogTest : public testing::Test {
  protected:
    void SetUp() override { fired.clear(); }
    void TearDown() override
    {
        for (WDOG_ID id : made) {
            wdDelete(id);
        }
        EXPECT_EQ(counts(), "");
    }
    WDOG_ID make() { return made.emplace_back(wdCreate()); }
    static void start(WDOG_ID id, int delay, const char* name)
    {
        EXPECT_EQ(wdStart(id, delay, routine_of(note), const_cast<char*>(name)), OK);
    }
    static void ticks(int count)
    {
        for (int i = 0; i < count; i++) {
            process_wdog();
        }
    }
    std::vector<WDOG_ID> made;
};

TEST_F(WatchdogTest, CountsAreDeltasAndTheLatestStartOfATickRunsFirst)
{
    static char y_name[] = "y";
    WDOG_ID x = make();
    WDOG_ID y = make();
    WDOG_ID z = make();
    start(x, 5, "x");
    start(y, 3, y_name);
    EXPECT_EQ(counts(), "3 2 ");
    start(z, 5, "z");
    char line[80];
    snprintf(line, sizeof line, "%p 3 %p\n", reinterpret_cast<void*>(note),
             static_cast<void*>(y_name));
    EXPECT_EQ(shown().substr(0, strlen(line)), line);
    EXPECT_EQ(counts(), "3 2 0 ");
    EXPECT_EQ(wdCancel(y), OK);
    EXPECT_EQ(counts(), "5 0 ");
    start(z, 2, "Z");
    EXPECT_EQ(counts(), "2 3 ");
    ticks(1);
    start(y, -5, "Y"); // the next tick, too
    ticks(1);
    EXPECT_EQ(fired, "YZ");
    wdStart(z, 0, nullptr, nullptr); // expires without a call
    ticks(2);
    EXPECT_EQ(fired, "YZ");
    ticks(1);
    EXPECT_EQ(fired, "YZx");
}

TEST_F(WatchdogTest, NullIdsAndNoMemory)
{
    errno = 0;
    EXPECT_EQ(wdStart(nullptr, 1, routine_of(note), nullptr), ERROR);
    EXPECT_EQ(errno, 0);
    for (status_t (*operation)(WDOG_ID) : {wdCancel, wdDelete}) {
        errno = 0;
        EXPECT_EQ(operation(nullptr), ERROR);
        EXPECT_EQ(errno, 0x3d0001);
    }
    fail_malloc(1);
    EXPECT_EQ(wdCreate(), nullptr);
    fail_nothing();
}

// The list against a plain model, with routines that start and cancel others and themselves.
class model_t {
  public:
    static constexpr int COUNT = 40;
    explicit model_t(unsigned seed) : random(seed)
    {
        for (int i = 0; i < COUNT; i++) {
            dogs[i] = {this, wdCreate(), 0, 0};
        }
    }
    ~model_t()
    {
        for (const dog& d : dogs) {
            wdDelete(d.id);
        }
    }
    void act()
    {
        dog& d = dogs[random() % COUNT];
        if (random() % 3 == 0) {
            wdCancel(d.id);
            d.due = 0;
            return;
        }
        const int delay = static_cast<int>(random() % 12) - 1;
        wdStart(d.id, delay, routine_of(fire), static_cast<addr_t>(static_cast<void*>(&d)));
        d.due = now + std::max(delay, 1);
        d.started = ++starts;
    }
    void tick()
    {
        now++;
        process_wdog();
        EXPECT_EQ(next_due(), nullptr) << "left over";
    }

  private:
    struct dog {
        model_t* model;
        WDOG_ID id;
        int due, started; // due 0: idle
    };
    dog* next_due()
    {
        dog* next = nullptr;
        for (dog& d : dogs) {
            if (d.due != 0 && d.due <= now && (next == nullptr || d.started > next->started)) {
                next = &d;
            }
        }
        return next;
    }
    static int fire(void* arg)
    {
        dog* d = static_cast<dog*>(arg);
        EXPECT_EQ(d, d->model->next_due());
        d->due = 0;
        d->model->act();
        return 0;
    }
    std::mt19937 random;
    dog dogs[COUNT];
    int now = 0;
    int starts = 0;
};

TEST_F(WatchdogTest, EveryOneFiresAtItsTickInOrder)
{
    model_t model(1);
    for (int round = 0; round < 20000 && !HasFailure(); round++) {
        model.act();
        model.act();
        model.tick();
    }
}

TEST_F(WatchdogTest, ATickThatEndsWithItsThreadLeavesTheRestToTheNext)
{
    start(make(), 1, "rest");
    start(make(), 3, "later");
    wdStart(make(), 1, routine_of([](void*) -> int { pthread_exit(nullptr); }), nullptr);
    std::thread(process_wdog).join();
    EXPECT_EQ(counts(), "0 2 ");
    ticks(1);
    EXPECT_EQ(fired, "rest");
    EXPECT_EQ(counts(), "1 ");
}

// Every line that is written makes a tick: it must not find the list locked.
TEST_F(WatchdogTest, ShowCopiesBeforeItWritesAndNeedsNoMemory)
{
    const cookie_io_functions_t ticking = {
        .read = nullptr,
        .write =
            [](void* text, const char* line, size_t size) {
                static_cast<std::string*>(text)->append(line, size);
                process_wdog();
                return static_cast<ssize_t>(size);
            },
        .seek = nullptr,
        .close = nullptr,
    };
    std::string text;
    FILE* out = fopencookie(&text, "w", ticking);
    setvbuf(out, nullptr, _IONBF, 0);
    for (int i = 0; i < 100; i++) {
        start(make(), 1000 + i, "");
    }
    const std::string before = shown();
    EXPECT_EQ(wdogShow(out), 100);
    EXPECT_EQ(text, before);
    EXPECT_EQ(counts().substr(0, 4), "900 ");

    text.clear();
    fail_malloc(1, true);
    EXPECT_EQ(wdogShow(out), 100);
    fail_nothing();
    EXPECT_EQ(text.substr(text.find('\n')), before.substr(before.find('\n')));
    fclose(out);
}

// ---- The exception task ----

TEST_F(WatchdogTest, PassesArePacedByTheMeasuredTime)
{
    static constexpr int64_t S = 1'000'000'000;
    static constexpr int64_t NONE = -1;
    struct {
        const char* what;
        std::vector<pass> passes;
        std::vector<unsigned int> sleeps;
    } const table[] = {
        {"on time", {lasting(10000)}, {10000, 10000}},
        {"longer", {lasting(12000), lasting(10000)}, {10000, 8000, 10000}},
        {"fractions of a microsecond", {{5, 1999, 0, 0}, {5, 1004, 0, 0}}, {10000, 19999, 10000}},
        {"twice as long", {lasting(20000), lasting(5000)}, {10000, 0, 15000}},
        {"backlog",
         {lasting(45000), lasting(100), lasting(100), lasting(100)},
         {10000, 0, 0, 0, 4700}},
        {"an hour", {lasting(3'600'000'000), lasting(0), lasting(0)}, {10000, 0, 0, 0}},
        {"back in the second", {lasting(50000), {9 * S + 7, 9 * S + 6, 0, 0}}, {10000, 0, 10000}},
        {"back by seconds", {lasting(50000), {9 * S, 7 * S + 5, 0, 0}}, {10000, 0, 10000}},
        {"wall clock", {{NONE, NONE, 3 * S, 3 * S + 12'000'000}}, {10000, 8000}},
        {"wall clock stepped", {{NONE, NONE, 3 * S, 2003 * S}}, {10000, 19950}},
        {"wall clock back", {{NONE, NONE, 3 * S, 2 * S}}, {10000, 10000}},
        {"monotonic once",
         {lasting(50000), {NONE, S, S, S}, {S, NONE, S, S}},
         {10000, 0, 10000, 10000}},
    };
    for (const auto& row : table) {
        EXPECT_EQ(sleeps_of(row.passes), row.sleeps) << row.what;
    }
    start(make(), 3, "t");
    sleeps_of({lasting(1)});
    EXPECT_EQ(fired, "");
    sleeps_of({lasting(1)});
    EXPECT_EQ(fired, "t");
}

TEST_F(WatchdogTest, WallClockDifferences)
{
    struct {
        struct timeval t1, t2;
        unsigned long us;
    } const table[] = {
        {{5, 900000}, {7, 100000}, 1200000},
        {{5, 10}, {5, 30}, 20},
        {{5, 30}, {5, 10}, 0},
        {{5, 999999}, {6, 0}, 1},
        {{5, 0}, {4, 999999}, 0},
        {{0, 1}, {1000, 0}, 999999999},
        {{0, 0}, {1000, 999999}, 1000999999},
        {{0, 999999}, {1001, 0}, 50},
        {{0, 0}, {2000, 0}, 50},
    };
    for (const auto& row : table) {
        EXPECT_EQ(wdAdjust(row.t1, row.t2), row.us) << row.t2.tv_sec << "." << row.t2.tv_usec;
    }
}

// ---- Restarts ----

static std::counting_semaphore<> begun(0);
static std::atomic<bool> leave;

static task_t* block_of(taskId_t id)
{
    pthread_mutex_lock(&task_list_lock);
    task_t* block = task_for(id);
    pthread_mutex_unlock(&task_list_lock);
    return block;
}

static int stay(int, int, int, int, int, int, int, int, int, int)
{
    begun.release();
    while (!leave) {
        taskDelay(1);
    }
    return 0;
}

static taskId_t spawn_staying(const char* name)
{
    const taskId_t id = taskSpawn(const_cast<char*>(name), 1, 0, 0, reinterpret_cast<FUNCPTR>(stay),
                                  0, 0, 0, 0, 0, 0, 0, 0, 0, 0);
    begun.acquire();
    return id;
}

TEST_F(WatchdogTest, RestartsPendingTogetherEachStartTheirTask)
{
    const int threads = thread_count();
    leave = false;
    const taskId_t first = spawn_staying("tFirst");
    const taskId_t second = spawn_staying("tSecond");
    const taskId_t gone = spawn_staying("tGone");
    selfRestart(block_of(first));
    selfRestart(block_of(second));
    selfRestart(block_of(gone));
    taskDelete(gone);
    EXPECT_EQ(counts(), "1 0 0 ");
    ticks(1);
    begun.acquire();
    begun.acquire();
    EXPECT_FALSE(begun.try_acquire());
    EXPECT_EQ(taskIdVerify(first), ERROR);
    EXPECT_EQ(taskIdVerify(second), ERROR);

    // What cannot be had leaves the task as it is.
    const taskId_t anew = taskNameToId(const_cast<char*>("tFirst"));
    EXPECT_EQ(taskIdVerify(anew), OK);
    fail_thread(1);
    self_starter(anew);
    EXPECT_TRUE(failed());
    fail_malloc(1, true);
    self_starter(anew);
    selfRestart(block_of(anew));
    fail_nothing();
    EXPECT_EQ(taskNameToId(const_cast<char*>("tFirst")), anew);
    leave = true;
    EXPECT_TRUE(eventually([=] { return thread_count() == threads; }));
    for (const char* name : {"tFirst", "tSecond"}) {
        EXPECT_EQ(taskNameToId(const_cast<char*>(name)), 0U);
    }
}

// ---- Many threads ----

// Watchdogs that everybody starts and cancels, and others that end themselves when they fire: as
// many must fire as were started.
TEST_F(WatchdogTest, StartCancelAndDeleteUnderTicksAtFullSpeed)
{
    static std::atomic<int> alive;
    static std::atomic<bool> stop;
    alive = 0;
    stop = false;
    for (int i = 0; i < 40; i++) {
        make();
    }
    const auto work = [this](unsigned seed) {
        std::mt19937 random(seed);
        for (int round = 0; round < 4000; round++) {
            WDOG_ID shared = made[random() % made.size()];
            if (random() % 4 == 0) {
                wdCancel(shared);
            } else {
                wdStart(shared, static_cast<int>(random() % 20), nullptr, nullptr);
            }
            WDOG_ID own = wdCreate();
            const auto end = [](void* id) { return alive--, wdDelete(static_cast<WDOG_ID>(id)); };
            alive++;
            wdStart(own, static_cast<int>(random() % 20), routine_of(end), own);
            WDOG_ID idle = wdCreate();
            wdStart(idle, static_cast<int>(random() % 20), nullptr, nullptr);
            wdDelete(idle);
        }
    };
    std::thread ticker([] {
        while (!stop) {
            process_wdog();
        }
    });
    std::vector<std::thread> workers;
    for (unsigned i = 0; i < 4; i++) {
        workers.emplace_back(work, i);
    }
    for (std::thread& worker : workers) {
        worker.join();
    }
    stop = true;
    ticker.join();
    ticks(20);
    EXPECT_EQ(alive, 0);
    EXPECT_EQ(counts(), "");
}
