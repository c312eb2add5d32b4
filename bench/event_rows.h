// The rows of the events: one raised by its name, with a number of handlers that each count the
// call.
//
//   static int called
//   void care(int handler)   handlers numbered from 0, each a function of its own
//   void raise()             by name, among the 20 names that the registry holds
#pragma once

#include "bench.h"

#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>

constexpr int HANDLERS_MAX = 17;
constexpr int OTHER_EVENTS = 19; // each with one handler

inline std::string other_event(int index)
{
    return "OTHER_EVENT_OF_THE_PROGRAM_" + std::to_string(index);
}

struct name_hash {
    using is_transparent = void;
    size_t operator()(std::string_view name) const { return std::hash<std::string_view>{}(name); }
};

/** For contestants that do not know names themselves; finding one allocates nothing. */
template <class T>
using name_table = std::unordered_map<std::string, T, name_hash, std::equal_to<>>;

template <class Registry> void raise_to(benchmark::State& state)
{
    Registry registry;
    const int handlers = static_cast<int>(state.range(0));

    for (int i = 0; i < handlers; i++) {
        registry.care(i);
    }
    Registry::called = 0;
    for (auto _ : state) {
        registry.raise();
    }
    if (Registry::called != handlers * static_cast<int>(state.iterations())) {
        state.SkipWithError("not every handler was called");
    }
}

/** One handler, and a number of events that the registry holds. The program takes 256. */
template <class Registry> void raise_among(benchmark::State& state)
{
    Registry registry(static_cast<int>(state.range(0)) - 1);

    registry.care(0);
    for (auto _ : state) {
        registry.raise();
    }
}

#define EVENT_ROWS(type, name)                                                                     \
    BENCHMARK(raise_to<type>)->Name("event.raise/" name)->Arg(1)->Arg(3)->Arg(10)->Arg(17)
#define MANY_EVENTS_ROWS(type, name)                                                               \
    BENCHMARK(raise_among<type>)->Name("event.among/" name)->Arg(1)->Arg(20)->Arg(250)
