#include "lockWord.h"

#include "precompiled.h"
#include "task_probe.h"

static timespec scripted; // what the clock shows, unless 0
static timespec until;    // of the last nap
static std::atomic<int> naps;
static std::atomic<bool> patient; // naps last until a wake-up, and begin late

extern "C" int __real_clock_gettime(clockid_t, timespec*);
extern "C" int __wrap_clock_gettime(clockid_t clock, timespec* now)
{
    *now = scripted;
    return scripted.tv_sec != 0 ? 0 : __real_clock_gettime(clock, now);
}

extern "C" int __real_pthread_cond_timedwait(pthread_cond_t*, pthread_mutex_t*, const timespec*);
extern "C" int __wrap_pthread_cond_timedwait(pthread_cond_t* cond, pthread_mutex_t* mutex,
                                             const timespec* end)
{
    until = *end;
    naps++;
    if (patient) {
        usleep(2000);
        return pthread_cond_wait(cond, mutex);
    }
    return __real_pthread_cond_timedwait(cond, mutex, end);
}

namespace {

// The word is taken inside operations; here every thread is a plain one.
class LockWordTest : public testing::Test {
  protected:
    LockWordTest() { lock_word_init(&word); }

    lock_word_t word = {};
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
};

TEST_F(LockWordTest, OneThreadAtATimeIsInside)
{
    constexpr int THREADS = 4;
    constexpr int ROUNDS = 50'000;
    long inside = 0; // guarded by the word: the thread sanitizer sees that, too
    std::vector<std::thread> threads;

    for (int t = 0; t < THREADS; t++) {
        threads.emplace_back([&] {
            for (int i = 0; i < ROUNDS; i++) {
                lock_word_take(&word, &mutex);
                inside++;
                if (i % 1000 == 0) {
                    sched_yield(); // others run into the held word
                }
                lock_word_give(&word, &mutex);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(inside, THREADS * ROUNDS);
    EXPECT_EQ(word.held, 0);
    EXPECT_EQ(word.sleepers, 0);
}

TEST_F(LockWordTest, ASleeperThatTheGiveMissedGetsTheWordAllTheSame)
{
    ASSERT_TRUE(lock_word_try(&word));
    std::atomic<bool> taken{false};
    std::thread taker([&] {
        lock_word_take(&word, &mutex);
        taken = true;
        lock_word_give(&word, &mutex);
    });
    ASSERT_TRUE(eventually([&] { return load_relaxed(&word.sleepers) == 1; }));
    const int64_t before = now_ns();
    const int napped = naps;
    usleep(10000);
    EXPECT_LE((naps - napped - 1) * 1'000'000LL, now_ns() - before);
    EXPECT_FALSE(taken);
    store_release(&word.held, 0); // without a look for sleepers
    EXPECT_TRUE(eventually([&] { return taken.load(); }));
    taker.join();
}

// It is either asleep by then or has yet to look.
TEST_F(LockWordTest, AGiveWakesASleeperWhoseNapEndsAMillisecondLater)
{
    const timespec naps_at[][2] = {
        {{5, 0}, {5, 1'000'000}}, {{5, 999'000'000}, {6, 0}}, {{5, 999'999'999}, {6, 999'999}}};
    patient = true;
    for (const auto& [now, end] : naps_at) {
        scripted = now;
        naps = 0;
        ASSERT_TRUE(lock_word_try(&word));
        std::thread taker([&] {
            lock_word_take(&word, &mutex);
            lock_word_give(&word, &mutex);
        });
        while (naps == 0) {
            sched_yield();
        }
        EXPECT_EQ(load_relaxed(&word.sleepers), 1);
        lock_word_give(&word, &mutex);
        taker.join();
        EXPECT_EQ(until.tv_sec, end.tv_sec);
        EXPECT_EQ(until.tv_nsec, end.tv_nsec);
    }
    scripted = {};
    patient = false;
}

} // namespace
