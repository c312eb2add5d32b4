// Limits: the compiler's, and the longest path.
#pragma once
#include <sys/cdefs.h>

#include_next <limits.h>

#define PATH_MAX 4096
