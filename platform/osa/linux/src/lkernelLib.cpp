// Calls of the kernel interface that this platform does not support, and the round-robin flag,
// which is kept for whoever asks and read by nothing.
#include "osaTask.h"

#include "internal.h"

#include <errno.h>

static unsigned char round_robin_enabled = 1; // atomic: a flag that stands for nothing else

void enableRoundRobin(void)
{
    store_relaxed(&round_robin_enabled, static_cast<unsigned char>(1));
}

void disableRoundRobin(void)
{
    store_relaxed(&round_robin_enabled, static_cast<unsigned char>(0));
}

int roundRobinIsEnabled(void)
{
    return load_relaxed(&round_robin_enabled);
}

static int not_supported(void)
{
    errno = ENOSYS;
    return ENOSYS;
}

int taskInit(task_t* task, char*, int, int, char*, int, FUNCPTR, int, int, int, int, int, int, int,
             int, int, int)
{
    if (task != nullptr) {
        pthread_mutex_init(&task->timemutex, nullptr);
        pthread_cond_init(&task->timecond, nullptr);
    }
    return not_supported();
}

int taskActivate(taskId_t tid)
{
    return taskResume(tid);
}

int taskSuspend(taskId_t)
{
    return not_supported();
}

int taskResume(taskId_t)
{
    return not_supported();
}

int taskRestart(taskId_t)
{
    return not_supported();
}

int taskSafe(void)
{
    return not_supported();
}

int taskUnsafe(void)
{
    return not_supported();
}

int taskIsReady(taskId_t)
{
    not_supported();
    return 1;
}

int taskIsSuspended(taskId_t)
{
    not_supported();
    return 0;
}
