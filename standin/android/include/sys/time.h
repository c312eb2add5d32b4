// The wall clock in microseconds.
#pragma once
#include <sys/cdefs.h>

#include <sys/types.h>
#include <time.h>

struct timeval {
    time_t tv_sec;
    suseconds_t tv_usec;
};
struct timezone;

__BEGIN_DECLS
int gettimeofday(struct timeval*, struct timezone*);
__END_DECLS
