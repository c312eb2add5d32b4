// Names of threads.
#pragma once
#include <sys/cdefs.h>

#include <linux/prctl.h>

__BEGIN_DECLS
int prctl(int, ...);
__END_DECLS
