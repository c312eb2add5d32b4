// Clocks and calendars.
#pragma once
#include <sys/cdefs.h>

#include <sys/types.h>

#define CLOCK_REALTIME  0
#define CLOCK_MONOTONIC 1
#define TIMER_ABSTIME   1

struct timespec {
    time_t tv_sec;
    long tv_nsec;
};
struct itimerspec {
    struct timespec it_interval;
    struct timespec it_value;
};
struct tm {
    int tm_sec;
    int tm_min;
    int tm_hour;
    int tm_mday;
    int tm_mon;
    int tm_year;
    int tm_wday;
    int tm_yday;
    int tm_isdst;
    long int tm_gmtoff;
    const char* tm_zone;
};

__BEGIN_DECLS
int clock_gettime(clockid_t, struct timespec*);
int clock_nanosleep(clockid_t, int, const struct timespec*, struct timespec*);
int clock_settime(clockid_t, const struct timespec*);
struct tm* gmtime_r(const time_t*, struct tm*);
struct tm* localtime(const time_t*);
struct tm* localtime_r(const time_t*, struct tm*);
time_t mktime(struct tm*);
int nanosleep(const struct timespec*, struct timespec*);
size_t strftime(char*, size_t, const char*, const struct tm*);
time_t time(time_t*);
void tzset(void);
__END_DECLS
