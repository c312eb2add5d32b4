// Threads that do the same at the same time.
#pragma once

#include <barrier>
#include <thread>
#include <vector>

/** Runs a function, called with 0 to count - 1, on threads that start together. */
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
