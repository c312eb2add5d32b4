// Policies and priorities.
#pragma once
#include <sys/cdefs.h>

#include <sys/types.h>

#define SCHED_OTHER 0
#define SCHED_FIFO  1
#define SCHED_RR    2

struct sched_param {
    int sched_priority;
};

__BEGIN_DECLS
int sched_get_priority_max(int);
int sched_get_priority_min(int);
int sched_yield(void);
__END_DECLS
