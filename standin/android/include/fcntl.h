// Opening files.
#pragma once
#include <sys/cdefs.h>

#include <asm/fcntl.h>
#include <sys/types.h>

__BEGIN_DECLS
int fcntl(int, int, ...);
int open(const char*, int, ...);
__END_DECLS
