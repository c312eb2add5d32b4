// What the system has.
#pragma once
#include <sys/cdefs.h>

#include <linux/sysinfo.h>

__BEGIN_DECLS
int sysinfo(struct sysinfo*);
__END_DECLS
