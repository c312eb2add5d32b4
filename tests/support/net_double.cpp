// Stands in for the closed net library: its entry, which the daemon's start hook calls, and the
// bounded copy that the resolver borrows.
#include "hnetd.h"

#include <cstddef>
#include <cstdio>

int hnetInit(void)
{
    return 0;
}

extern "C" char* uStrnSafeCopy(char* dst, size_t size, const char* src, size_t count)
{
    snprintf(dst, size, "%.*s", static_cast<int>(count), src);
    return dst;
}
