// Random pauses at the product's test points: chance 1 in 8, 0 to 400 us or a yield.
#include <atomic>
#include <cstdint>
#include <random>
#include <sched.h>
#include <unistd.h>

static std::atomic<uint32_t> seeds = 1;

extern "C" void test_point(void)
{
    static thread_local std::minstd_rand random(seeds++ * 2654435761U);
    if (random() % 8 != 0) {
        return;
    }
    const auto pause = static_cast<useconds_t>(random() % 400);
    if (pause < 40) {
        sched_yield();
    } else {
        usleep(pause);
    }
}
