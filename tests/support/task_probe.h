// Watching tasks from outside: when their threads end, and what a process has of them.
#pragma once

#include "osaTask.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <string>

// Sanitizers keep freed memory back and slow a loaded machine down beyond any bound.
#if defined(__SANITIZE_THREAD__)
constexpr bool TSAN = true, SANITIZED = true;
#elif defined(__SANITIZE_ADDRESS__)
constexpr bool TSAN = false, SANITIZED = true;
#else
constexpr bool TSAN = false, SANITIZED = false;
#endif

// The emulator keeps memory of each thread that ended.
#if defined(HNETD_EMULATED)
constexpr bool EMULATED = true;
#else
constexpr bool EMULATED = false;
#endif

/** Nanoseconds of the monotonic clock. */
int64_t now_ns();

/** Waits until a condition holds, looking every 200 us. @return false after the limit */
bool eventually(const std::function<bool()>& holds, int limit_ms = 10000);

/** Threads of this process. */
int thread_count();

/** The same once threads that were joined are gone, and those that a sanitizer starts have come. */
int threads_at_rest();

/** Resident memory of this process in bytes. */
int64_t resident_bytes();

/** SIG_BLOCK: the calling thread blocks the signal that ends tasks. SIG_UNBLOCK: it lets it in. */
void mask_exit_signal(int how);

/** Expects a call to return ERROR, and returns the code that it sets, or 0. */
int code_of(const std::function<int()>& call);

/** Makes a call in a thread that was told to end before: it ends on its way out. @return if so */
bool ends_in(const std::function<void()>& call);

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
