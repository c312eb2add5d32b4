// What the tests of the timers share: callbacks that leave a trace, and threads that start
// together.
#pragma once

#include "log_double.h"
#include "uTimer.h"

#include <atomic>
#include <barrier>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <vector>

namespace {

std::string fired;
std::atomic<int> fire_count;

void* cb(void (*function)(void*))
{
    return reinterpret_cast<void*>(function);
}

void* const NOTE = cb([](void* name) { fired += static_cast<char*>(name) + std::string(" "); });
void* const COUNT = cb([](void*) { fire_count++; });

/** Priority and text of each line logged: "6 text|". */
std::string logged()
{
    std::string all;
    for (const log_line& line : log_lines()) {
        EXPECT_EQ(line.tag, "quarn.utils.timer");
        all += std::to_string(line.priority) + " " + line.text + "|";
    }
    return all;
}

std::string fired_in(int32_t time_gap)
{
    fired.clear();
    uTimerRun(time_gap);
    return fired;
}

/** Runs a function on several threads that start together. */
template <typename Function> void together(int count, Function function)
{
    std::barrier start(count);
    std::vector<std::jthread> threads;
    for (int self = 0; self < count; self++) {
        threads.emplace_back([&, self] {
            start.arrive_and_wait();
            function(self);
        });
    }
}

} // namespace
