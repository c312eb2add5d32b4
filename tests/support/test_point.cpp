// Random pauses at the product's test points: chance 1 in 8, 0 to 400 us or a yield.
#include <atomic>
#include <cstdint>
#include <sched.h>
#include <unistd.h>

static std::atomic<uint32_t> seeds = 1;

extern "C" void test_point(void)
{
    static constinit thread_local uint32_t state = 0;
    if (state == 0) {
        state = seeds.fetch_add(1) * 2654435761U | 1U;
    }
    state ^= state << 13;
    state ^= state >> 17;
    state ^= state << 5;
    if (state % 8 != 0) {
        return;
    }
    const uint32_t pause = (state >> 8) % 400;
    if (pause < 40) {
        sched_yield();
    } else {
        usleep(pause);
    }
}
