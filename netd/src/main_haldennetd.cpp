// Process entry: brings up the proxy service, starts the service thread, serves binder calls.
#include "hnetd.h"

#include <binder/IPCThreadState.h>
#include <binder/ProcessState.h>

#include <signal.h>

int main([[maybe_unused]] int argc, [[maybe_unused]] char** argv)
{
    // A write to a socket or pipe that the other side closed must not end the process.
    signal(SIGPIPE, SIG_IGN);

    // Held until main returns, so that the binder state outlives the pool.
    const android::sp<android::ProcessState> process = android::ProcessState::self();

    nxaProxyServiceInit();
    hnetdStart(); // failed or not, the proxy service is served
    android::ProcessState::self()->startThreadPool();
    android::IPCThreadState::self()->joinThreadPool(true);
    return 0;
}
