#include "sim_clock.h"

#include <algorithm>
#include <cerrno>
#include <pthread.h>
#include <sys/time.h>
#include <unistd.h>

static constinit thread_local sim_clock* mine = nullptr;

sim_clock::~sim_clock()
{
    if (mine == this) {
        mine = nullptr;
    }
}

void sim_clock::enter()
{
    mine = this;
}

void sim_clock::at(int64_t instant_ns, std::function<void()> action)
{
    actions.emplace(instant_ns, std::move(action));
    next_action = actions.begin()->first;
}

// Does the first action. @return false if there is none
bool sim_clock::act()
{
    if (actions.empty()) {
        return false;
    }
    const std::function<void()> action = std::move(actions.begin()->second);
    actions.erase(actions.begin());
    next_action = actions.empty() ? INT64_MAX : actions.begin()->first;
    action();
    return true;
}

void sim_clock::pass(int64_t ns)
{
    const int64_t end = up + std::max<int64_t>(ns, 0);
    while (next_action <= end) {
        wall += next_action - up;
        up = next_action;
        act();
    }
    wall += end - up;
    up = end;
}

void sim_clock::sleep(int64_t ns)
{
    if (late_ns != 0) {
        random = random * 6'364'136'223'846'793'005 + 1;
        ns += static_cast<int64_t>((random >> 32) % late_ns);
    }
    pass(ns);
}

bool sim_clock::wait(int64_t wall_ns)
{
    const int64_t left = std::max<int64_t>(wall_ns - wall, 0);
    if (next_action - up > left) {
        pass(left);
        return true;
    }
    wall += next_action - up;
    up = next_action;
    act();
    return wall >= wall_ns;
}

static int64_t ns_of(const timespec* t)
{
    return t->tv_sec * 1'000'000'000 + t->tv_nsec;
}

extern "C" {
int __real_clock_gettime(clockid_t, timespec*);
int __real_gettimeofday(timeval*, void*);
time_t __real_time(time_t*);
int __real_clock_nanosleep(clockid_t, int, const timespec*, timespec*);
int __real_usleep(useconds_t);
int __real_pthread_cond_timedwait(pthread_cond_t*, pthread_mutex_t*, const timespec*);

int __wrap_clock_gettime(clockid_t id, timespec* now)
{
    if (mine == nullptr) {
        return __real_clock_gettime(id, now);
    }
    if (id == CLOCK_MONOTONIC && !mine->monotonic) {
        errno = EINVAL;
        return -1;
    }
    const int64_t ns = mine->read(id);
    *now = {ns / 1'000'000'000, ns % 1'000'000'000};
    return 0;
}

int __wrap_gettimeofday(timeval* now, void* zone)
{
    if (mine == nullptr) {
        return __real_gettimeofday(now, zone);
    }
    *now = {mine->wall_us() / 1'000'000, mine->wall_us() % 1'000'000};
    return 0;
}

time_t __wrap_time(time_t* where)
{
    return mine == nullptr ? __real_time(where) : mine->wall_us() / 1'000'000;
}

// Relative, or to an instant of the monotonic clock.
int __wrap_clock_nanosleep(clockid_t id, int flags, const timespec* t, timespec* left)
{
    if (mine == nullptr) {
        return __real_clock_nanosleep(id, flags, t, left);
    }
    if ((id == CLOCK_MONOTONIC) != mine->monotonic || t->tv_nsec < 0 || t->tv_nsec > 999'999'999) {
        return EINVAL;
    }
    mine->sleep(ns_of(t) - (flags == TIMER_ABSTIME ? mine->up_ns() : 0));
    return 0;
}

int __wrap_usleep(useconds_t us)
{
    if (mine == nullptr) {
        return __real_usleep(us);
    }
    mine->sleep(int64_t{us} * 1000);
    return 0;
}

// An action may have woken the waiter, or stepped the clock: it has to look for itself.
int __wrap_pthread_cond_timedwait(pthread_cond_t* cond, pthread_mutex_t* mutex, const timespec* end)
{
    if (mine == nullptr) {
        return __real_pthread_cond_timedwait(cond, mutex, end);
    }
    if (end->tv_nsec < 0 || end->tv_nsec > 999'999'999) {
        return EINVAL;
    }
    pthread_mutex_unlock(mutex);
    const bool past = mine->wait(ns_of(end));
    pthread_mutex_lock(mutex);
    return past ? ETIMEDOUT : 0;
}
}
