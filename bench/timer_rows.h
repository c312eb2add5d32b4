// The rows of the timers and of the watchdogs: many one-shot timers that are armed, moved, asked
// and dropped, and passes that find none of them due, or some.
//
// A contestant keeps timers numbered from 0. The first `live` of them fill the service, due at
// moments so far ahead that no run reaches them; the numbers from there on are the run's own.
//
//   void arm(int number, uint32_t delay)   milliseconds or ticks
//   void arm_due(int number)               due at the next pass
//   void move(int number, uint32_t delay)  arms anew one that is armed
//   uint32_t left(int number)
//   void drop(int number)
//   void tidy()                            outside the measured passes: reaps what dropping left
//   void pass()                            lets time go by and runs what is due
//   static int fired                       how many have run
//   static const bool WALKS                whether its cost grows with the live ones by design
#pragma once

#include "bench.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <string>

/**
 * Most that are alive in this process: 300 or what HNETD_BENCH_MANY says, for the service's pool is
 * as large as it was made, and blocks come from all over it.
 */
constexpr int FEW = 300;
inline const int TIMERS_MAX =
    getenv("HNETD_BENCH_MANY") != nullptr ? atoi(getenv("HNETD_BENCH_MANY")) : FEW;
constexpr int TIMERS_OWN = 100; // numbers that a run arms besides the live ones
constexpr uint32_t FAR_FROM = 500'000'000;
constexpr uint32_t FAR_TO = 2'000'000'000;

/** Delays of the live timers, latest first, so that a sorted list is filled from its head. */
inline const std::vector<uint32_t>& far_delays(int live)
{
    static std::vector<std::vector<uint32_t>> all(static_cast<size_t>(TIMERS_MAX) + 1);
    std::vector<uint32_t>& delays = all[static_cast<size_t>(live)];
    if (delays.empty()) {
        sequence random(7);
        for (int i = 0; i < live; i++) {
            delays.push_back(FAR_FROM + random.below(FAR_TO - FAR_FROM));
        }
        std::sort(delays.begin(), delays.end(), std::greater<>());
    }
    return delays;
}

/** A service with its live timers, which go when the run ends. */
template <class Service> struct filled {
    Service service;
    int live;
    explicit filled(int count) : live(count)
    {
        for (int i = 0; i < live; i++) {
            service.arm(i, far_delays(live)[static_cast<size_t>(i)]);
        }
    }
    ~filled()
    {
        for (int i = live - 1; i >= 0; i--) {
            service.drop(i); // the next one due comes first
        }
        service.tidy();
    }
};

template <class Service> void arm_and_drop(benchmark::State& state)
{
    filled<Service> timers(static_cast<int>(state.range(0)));
    sequence random(11);
    int round = 0;

    for (auto _ : state) {
        timers.service.arm(timers.live, FAR_FROM + random.below(FAR_TO - FAR_FROM));
        timers.service.drop(timers.live);
        if (++round % 64 == 0) {
            timers.service.tidy();
        }
    }
}

/** A random one goes, and comes back for another moment: what is due when is mixed up for good. */
template <class Service> void replace_one(benchmark::State& state)
{
    filled<Service> timers(static_cast<int>(state.range(0)));
    sequence random(19);
    int round = 0;

    for (auto _ : state) {
        const int number = static_cast<int>(random.below(static_cast<uint32_t>(timers.live)));
        timers.service.drop(number);
        timers.service.arm(number, FAR_FROM + random.below(FAR_TO - FAR_FROM));
        if (++round % 64 == 0) {
            timers.service.tidy();
        }
    }
}

template <class Service> void move_one(benchmark::State& state)
{
    filled<Service> timers(static_cast<int>(state.range(0)));
    sequence random(13);
    int round = 0;

    for (auto _ : state) {
        const int number = static_cast<int>(random.below(static_cast<uint32_t>(timers.live)));
        timers.service.move(number, FAR_FROM + random.below(FAR_TO - FAR_FROM));
        if (++round % 64 == 0) {
            timers.service.tidy();
        }
    }
}

template <class Service> void ask_one(benchmark::State& state)
{
    filled<Service> timers(static_cast<int>(state.range(0)));
    sequence random(17);

    for (auto _ : state) {
        const int number = static_cast<int>(random.below(static_cast<uint32_t>(timers.live)));
        benchmark::DoNotOptimize(timers.service.left(number));
    }
}

template <class Service> void pass_idle(benchmark::State& state)
{
    filled<Service> timers(static_cast<int>(state.range(0)));
    const int before = Service::fired;

    for (auto _ : state) {
        timers.service.pass();
    }
    if (Service::fired != before) {
        state.SkipWithError("a timer ran before its time");
    }
}

/** The cost of one firing: a hundred timers due at once, their arming not counted. */
template <class Service> void fire(benchmark::State& state)
{
    filled<Service> timers(static_cast<int>(state.range(0)));
    const int before = Service::fired;
    int expected = before;

    while (state.KeepRunningBatch(TIMERS_OWN)) {
        for (int i = 0; i < TIMERS_OWN; i++) {
            timers.service.arm_due(timers.live + i);
        }
        expected += TIMERS_OWN;
        const auto start = std::chrono::steady_clock::now();
        while (Service::fired != expected) {
            timers.service.pass();
        }
        const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
        state.SetIterationTime(took.count());
    }
}

using row_t = void (*)(benchmark::State&);

/** How many are alive. A service that walks its list is asked for few. */
template <class Service> std::vector<int64_t> sizes_of()
{
    if (TIMERS_MAX == FEW) {
        return {30, FEW};
    }
    return Service::WALKS ? std::vector<int64_t>{} : std::vector<int64_t>{TIMERS_MAX};
}

template <class Service> void add_rows(row_t row, const std::string& name, bool manual = false)
{
    for (int64_t size : sizes_of<Service>()) {
        benchmark::internal::Benchmark* added =
            benchmark::RegisterBenchmark(name.c_str(), row)->Arg(size);
        if (manual) {
            added->UseManualTime();
        }
    }
}

/** The rows that timers and watchdogs share. */
template <class Service>
bool add_watchdogs(const std::string& who, const std::string& kind = "watchdog")
{
    add_rows<Service>(arm_and_drop<Service>, kind + ".arm/" + who);
    add_rows<Service>(move_one<Service>, kind + ".move/" + who);
    add_rows<Service>(pass_idle<Service>, kind + ".pass/" + who);
    add_rows<Service>(fire<Service>, kind + ".fire/" + who, true);
    return true;
}

template <class Service> bool add_timers(const std::string& who)
{
    add_rows<Service>(replace_one<Service>, "timer.replace/" + who);
    add_rows<Service>(ask_one<Service>, "timer.ask/" + who);
    return add_watchdogs<Service>(who, "timer");
}
