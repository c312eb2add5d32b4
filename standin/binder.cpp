// Stands in for libbinder: a pool whose threads wait for calls that never come.
#include <binder/IPCThreadState.h>
#include <binder/ProcessState.h>

#include <pthread.h>
#include <stdio.h>
#include <sys/prctl.h>
#include <unistd.h>

namespace android {

ProcessState* const ProcessState::process = new ProcessState;
constinit IPCThreadState IPCThreadState::state;

void RefBase::incStrong(const void* /*id*/) const
{
    __atomic_add_fetch(&strong, 1, __ATOMIC_RELAXED);
}

void RefBase::decStrong(const void* /*id*/) const
{
    __atomic_sub_fetch(&strong, 1, __ATOMIC_RELEASE);
}

static void* pool_thread(void* /*unused*/)
{
    char name[16];

    snprintf(name, sizeof name, "Binder:%d_1", getpid());
    prctl(PR_SET_NAME, name, 0, 0, 0);
    IPCThreadState::self()->joinThreadPool(false);
    return nullptr;
}

sp<ProcessState> ProcessState::self()
{
    return sp<ProcessState>(process);
}

void ProcessState::startThreadPool()
{
    if (__atomic_exchange_n(&started, true, __ATOMIC_RELAXED)) {
        return;
    }
    pthread_t thread;
    if (pthread_create(&thread, nullptr, pool_thread, nullptr) == 0) {
        pthread_detach(thread);
    }
}

IPCThreadState* IPCThreadState::self()
{
    return &state;
}

void IPCThreadState::joinThreadPool(bool /*isMain*/)
{
    for (;;) {
        pause();
    }
}

} // namespace android
