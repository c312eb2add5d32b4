// Waiting for descriptors.
#pragma once
#include <sys/cdefs.h>

#include <signal.h>
#include <time.h>

#define POLLIN  0x0001
#define POLLOUT 0x0004
#define POLLERR 0x0008
#define POLLHUP 0x0010

typedef unsigned int nfds_t;
struct pollfd {
    int fd;
    short events;
    short revents;
};

__BEGIN_DECLS
int poll(struct pollfd*, nfds_t, int);
int ppoll(struct pollfd*, nfds_t, const struct timespec*, const sigset_t*);
__END_DECLS
