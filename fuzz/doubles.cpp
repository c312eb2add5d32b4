// Stands in for the closed net library: its entry, its log call, which nobody reads here, and the
// bounded copy that the resolver borrows.
#include "hnetd.h"
#include "nxaLog.h"

#include <cstring>

int hnetInit(void)
{
    return 0;
}

int __halden_log_print(int, const char*, const char*, ...)
{
    return 0;
}

extern "C" char* uStrnSafeCopy(char* dst, size_t size, const char* src, size_t count)
{
    const size_t length = strnlen(src, count < size - 1 ? count : size - 1);
    memcpy(dst, src, length);
    dst[length] = '\0';
    return dst;
}
