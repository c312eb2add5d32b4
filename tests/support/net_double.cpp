// Stands in for the closed net library: its entry, which the daemon's start hook calls, and the
// bounded copy that the resolver borrows.
#include "hnetd.h"

#include <cstddef>
#include <cstring>

int hnetInit(void)
{
    return 0;
}

extern "C" char* uStrnSafeCopy(char* dst, size_t size, const char* src, size_t count)
{
    const size_t length = strnlen(src, count < size ? count : size - 1);
    memcpy(dst, src, length);
    dst[length] = '\0';
    return dst;
}
