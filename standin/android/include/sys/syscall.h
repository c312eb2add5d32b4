// Numbers of system calls.
#pragma once
#include <sys/cdefs.h>

#include <asm/unistd.h>

#define SYS_clone         __NR_clone
#define SYS_exit          __NR_exit
#define SYS_getpid        __NR_getpid
#define SYS_gettid        __NR_gettid
#define SYS_kill          __NR_kill
#define SYS_timer_create  __NR_timer_create
#define SYS_timer_delete  __NR_timer_delete
#define SYS_timer_settime __NR_timer_settime
