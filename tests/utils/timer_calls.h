// What the tests of the timers share: callbacks that leave a trace.
#pragma once

#include "log_double.h"
#include "together.h"
#include "uTimer.h"

#include <atomic>
#include <string>

namespace {

std::string fired;
std::atomic<int> fire_count;

void* cb(void (*function)(void*))
{
    return reinterpret_cast<void*>(function);
}

void* const NOTE = cb([](void* name) { fired += static_cast<char*>(name) + std::string(" "); });
void* const COUNT = cb([](void*) { fire_count++; });

std::string logged()
{
    return log_of("quarn.utils.timer");
}

std::string fired_in(int32_t time_gap)
{
    fired.clear();
    uTimerRun(time_gap);
    return fired;
}

} // namespace
