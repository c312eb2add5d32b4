// A binder pool that tells what is asked of it, and can be left.
#include "probe.h"

#include <binder/IPCThreadState.h>
#include <binder/ProcessState.h>

#include <unistd.h>

namespace android {

ProcessState* const ProcessState::process = new ProcessState;
constinit IPCThreadState IPCThreadState::state;

// Only the main thread touches the count.
void RefBase::incStrong(const void*) const
{
    TELL("binder: held, %d\n", ++strong);
}

void RefBase::decStrong(const void*) const
{
    TELL("binder: let go, %d\n", --strong);
}

sp<ProcessState> ProcessState::self()
{
    return sp<ProcessState>(process);
}

void ProcessState::startThreadPool()
{
    TELL("binder: startThreadPool\n");
    TELL("threads %ld\n", thread_count());
}

IPCThreadState* IPCThreadState::self()
{
    return &state;
}

void IPCThreadState::joinThreadPool(bool isMain)
{
    TELL("binder: joinThreadPool %d\n", isMain);
    while (!asked("leave", "HNETD_POOL")) {
        pause();
    }
    usleep(300'000); // the daemon starts up beside the pool
}

} // namespace android
