// Comparison in any case.
#pragma once
#include <sys/cdefs.h>

#include <stddef.h>

__BEGIN_DECLS
int strcasecmp(const char*, const char*);
int strncasecmp(const char*, const char*, size_t);
__END_DECLS
