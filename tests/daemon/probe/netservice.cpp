// A proxy service that tells in what surroundings it is brought up.
#include "probe.h"

#include <signal.h>

extern "C" int nxaProxyServiceInit(void)
{
    struct sigaction pipe;
    sigaction(SIGPIPE, nullptr, &pipe);
    TELL("proxy: SIGPIPE %s\n", pipe.sa_handler == SIG_IGN ? "ignored" : "not ignored");
    TELL("threads %ld\n", thread_count());
    return -1; // nobody looks at it
}
