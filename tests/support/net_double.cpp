// Stands in for the entry of the closed net library, which the daemon's start hook calls.
#include "hnetd.h"

int hnetInit(void)
{
    return 0;
}
