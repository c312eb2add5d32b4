// What a file is.
#pragma once
#include <sys/cdefs.h>

#include <sys/types.h>
#include <time.h>

struct stat {
    dev_t st_dev;
    ino_t st_ino;
    mode_t st_mode;
    nlink_t st_nlink;
    uid_t st_uid;
    gid_t st_gid;
    dev_t st_rdev;
    unsigned long pad1;
    off_t st_size;
    int st_blksize;
    int pad2;
    long st_blocks;
    struct timespec st_atim;
    struct timespec st_mtim;
    struct timespec st_ctim;
    unsigned int unused[2];
};

#define S_IFMT      00170000
#define S_IFREG     0100000
#define S_IFIFO     0010000
#define S_ISREG(m)  (((m)&S_IFMT) == S_IFREG)
#define S_ISFIFO(m) (((m)&S_IFMT) == S_IFIFO)
#define S_IRUSR     00400
#define S_IWUSR     00200
#define S_IWGRP     00020
#define S_IWOTH     00002
#define S_ISVTX     0001000

__BEGIN_DECLS
int fstat(int, struct stat*);
int lstat(const char*, struct stat*);
int mkfifo(const char*, mode_t);
int stat(const char*, struct stat*);
__END_DECLS
