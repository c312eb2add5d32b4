// A time of its own for one thread. It stands still until the thread sleeps or waits for an
// instant, and then it is that instant. All other threads have the machine's clocks.
//
// A program whose wraps name the calls (hnetd_test with CLOCK) has clock_gettime, gettimeofday,
// time, clock_nanosleep, usleep and pthread_cond_timedwait from here.
#pragma once

#include <cstdint>
#include <ctime>
#include <functional>
#include <map>

class sim_clock {
  public:
    /** A clock that shows so many microseconds of the epoch, on a machine that was just started. */
    explicit sim_clock(int64_t wall_us) : wall(wall_us * 1000) {}
    ~sim_clock();

    /** The calling thread has this clock from now on. */
    void enter();

    int64_t up_ns() const { return up; }
    int64_t wall_us() const { return wall / 1000; }

    /** Whether the monotonic clock is there; without it nobody can sleep by it either. */
    bool monotonic = true;

    /** Each sleep takes up to so much longer. */
    uint32_t late_ns = 0;

    /** Steps the wall clock. */
    void step(int64_t us) { wall += us * 1000; }

    /** Time goes on. What is due on the way is done. */
    void pass(int64_t ns);

    /** Has something done at an instant of the monotonic clock, inside the sleep of that moment. */
    void at(int64_t instant_ns, std::function<void()> action);

    // What the replaced calls are made of.
    int64_t read(clockid_t id) const { return id == CLOCK_MONOTONIC ? up : wall; }
    void sleep(int64_t ns);
    /** Passes the time to an instant of the wall clock or to the next action. @return it is past */
    bool wait(int64_t wall_ns);

  private:
    bool act();

    int64_t up = 0;
    int64_t wall;
    uint64_t random = 1;
    int64_t next_action = INT64_MAX; // instant of the first one
    std::multimap<int64_t, std::function<void()>> actions;
};
