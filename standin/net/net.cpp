// Stands in for libhalden_net, the closed net library: its entry, and the small calls that the
// daemon makes into it. An author of a library starts from here: hnetInit returns soon, since the
// root task waits for it, and leaves tasks, timers and handlers behind.
#include "nxaLog.h"

#include "demo.h"

#include <pthread.h>
#include <stddef.h>
#include <string.h>
#include <sys/prctl.h>
#include <time.h>

totals_t totals = {};

name_t thread_name(void)
{
    name_t name = {};
    prctl(PR_GET_NAME, name.text, 0, 0, 0);
    return name;
}

int64_t now_us(void)
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1'000'000 + now.tv_nsec / 1'000;
}

sigset_t hold_deletion(void)
{
    sigset_t deletion;
    sigset_t before;
    sigemptyset(&deletion);
    sigaddset(&deletion, SIGUSR1); // what taskDelete sends
    pthread_sigmask(SIG_BLOCK, &deletion, &before);
    return before;
}

void let_deletion_in(const sigset_t& before)
{
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

/**
 * Copies at most so many characters of a text, and never more than fit; the copy is always ended.
 *
 * @param size  bytes at destination
 * @param most  characters of source
 * @return destination
 */
extern "C" char* uStrnSafeCopy(char* destination, size_t size, const char* source, size_t most)
{
    if (size == 0) {
        return destination;
    }
    const size_t length = strnlen(source, most < size ? most : size - 1);
    memcpy(destination, source, length);
    destination[length] = '\0';
    return destination;
}

/** Entry of the library, called once by the root task. */
extern "C" int hnetInit(void)
{
    SAY("net library of the stand-in: starting its demonstrations");
    demo_timers();
    demo_wall_clock();
    demo_watchdog();
    demo_events();
    demo_async_calls();
    demo_queue();
    demo_deletion();
    demo_summary();
    demo_net();
    demo_inspect();
    return 0;
}
