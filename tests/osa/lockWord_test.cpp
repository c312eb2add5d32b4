#include "lockWord.h"

#include "precompiled.h"
#include "task_probe.h"

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
    EXPECT_FALSE(taken);
    store_release(&word.held, 0); // without a look for sleepers
    EXPECT_TRUE(eventually([&] { return taken.load(); }));
    taker.join();
}

} // namespace
