// The number lies behind a call of another name.
#pragma once
#include <sys/cdefs.h>

#include <asm/errno.h>

__BEGIN_DECLS
int* __errno(void) __attribute__((__const__));
__END_DECLS

#define errno (*__errno())
#ifndef ENOTSUP
#define ENOTSUP EOPNOTSUPP
#endif
