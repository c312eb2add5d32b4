// What all benchmarks share: where they run, and how two threads hand over to each other.
//
// A benchmark is named row/contestant, or row/contestant/size: all contestants of a row do the same
// work in the same loop, and table.py sets them side by side. "hnetd" is the program itself and
// "floor" the least that its data model costs: the same locks and the same walk in a few lines.
//
// The main thread is pinned to one CPU from the start and threads inherit that, so a hand-over
// costs a switch and not the wake-up of an idle CPU. A second thread stays parked for the life of
// the process, because the C library leaves out atomic operations while there is only one.
#pragma once

#include <atomic>
#include <benchmark/benchmark.h>
#include <cstdint>
#include <sched.h>
#include <thread>
#include <vector>

/** Pins the calling thread, and those it starts from now on, to one CPU or to all there are. */
void pin_to_one_cpu();
void pin_to_all_cpus();

/** All CPUs while it lives, for rows that measure threads working side by side. */
struct all_cpus {
    all_cpus() { pin_to_all_cpus(); }
    ~all_cpus() { pin_to_one_cpu(); }
};

/** A number from a fixed sequence; the same seed gives every contestant the same work. */
struct sequence {
    uint32_t state;
    explicit sequence(uint32_t seed) : state(seed * 2654435761U | 1U) {}
    uint32_t next()
    {
        state ^= state << 13;
        state ^= state >> 17;
        state ^= state << 5;
        return state;
    }
    uint32_t below(uint32_t limit)
    {
        return static_cast<uint32_t>((uint64_t{next()} * limit) >> 32);
    }
};

/**
 * Round trips between this thread and a partner: there and back, which is two hand-overs.
 *
 * @param there_and_back  gives to the partner and waits for its answer
 * @param partner_takes   the partner's wait
 * @param partner_gives   the partner's answer
 */
template <typename Round, typename Take, typename Give>
void round_trips(benchmark::State& state, Round there_and_back, Take partner_takes,
                 Give partner_gives)
{
    std::atomic<bool> last = false;
    std::thread partner([&] {
        for (bool leave = false; !leave;) {
            partner_takes();
            leave = last.load();
            partner_gives();
        }
    });
    for (auto _ : state) {
        there_and_back();
    }
    last = true;
    there_and_back();
    partner.join();
}
