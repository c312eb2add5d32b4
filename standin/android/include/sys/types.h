// Sizes of a 64-bit process.
#pragma once
#include <sys/cdefs.h>

#include <stddef.h>
#include <stdint.h>

typedef long ssize_t;
typedef int pid_t;
typedef unsigned int uid_t;
typedef unsigned int gid_t;
typedef unsigned int mode_t;
typedef int clockid_t;
typedef void* timer_t;
typedef unsigned int id_t;
typedef unsigned int useconds_t;
typedef long suseconds_t;
typedef long time_t;
typedef long off_t;
typedef uint64_t dev_t;
typedef unsigned long ino_t;
typedef unsigned int nlink_t;
typedef int blksize_t;
typedef long blkcnt_t;
typedef long pthread_t;
typedef unsigned char u_char;
typedef unsigned short u_short;
typedef unsigned int u_int;
typedef unsigned int uint;
typedef unsigned long u_long;
