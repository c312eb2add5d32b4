// Watching tasks from outside: when their threads end, and what a process has of them.
#pragma once

#include "osaTask.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <string>

/** Nanoseconds of the monotonic clock. */
int64_t now_ns();

/** Waits until a condition holds, looking every 200 us. @return false after the limit */
bool eventually(const std::function<bool()>& holds, int limit_ms = 10000);

/** Threads of this process. */
int thread_count();

/** The same once threads that were joined are gone, which may take a moment longer. */
int threads_at_rest();

/** Resident memory of this process in bytes. */
int64_t resident_bytes();

/** A point in a thread's life that another thread waits for. */
struct probe {
    std::atomic<bool> running{false};
    std::atomic<bool> ended{false};
    std::atomic<int64_t> ended_at{0}; // now_ns() in the dying thread
};

/** Called by a thread: the probe says running now, and ended once the thread is on its way out. */
void probe_attach(probe* p);

/** Spawns a task that runs a function and returns once the task has begun it. */
taskId_t spawn(const std::function<void()>& body, const char* name = "tTest", int pri = 100);

/** Collects what this process writes to standard output, descriptor 1. */
class stdout_capture {
  public:
    stdout_capture();
    ~stdout_capture();
    /** What came so far; the capture goes on. */
    std::string text();

  private:
    int saved;
    int file;
};
