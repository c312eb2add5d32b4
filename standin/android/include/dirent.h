// Directories.
#pragma once
#include <sys/cdefs.h>

#include <sys/types.h>

struct dirent {
    uint64_t d_ino;
    int64_t d_off;
    unsigned short d_reclen;
    unsigned char d_type;
    char d_name[256];
};
typedef struct DIR DIR;

__BEGIN_DECLS
int closedir(DIR*);
int dirfd(DIR*);
DIR* fdopendir(int);
DIR* opendir(const char*);
struct dirent* readdir(DIR*);
__END_DECLS
