// Asynchronous calls: a queue of functions and the task that makes the calls.
//
// The first call starts the service under start_lock and stores asyncCallInitilized last, so that
// whoever finds it set finds the queue too. A start that fails is not repeated.
#include "uTimer.h"

#include "internal.h"
#include "osaMsg.h"
#include "osaTask.h"

#include <errno.h>

static constexpr int QUEUE_CAPACITY = 20;
static constexpr int TASK_PRIORITY = 200;
static constexpr int TASK_STACK_SIZE = 8192;

/** One posted call, sent by value. */
typedef struct {
    FUNCPTR func;
    void* param;
} asyncCallMsg_t;

static constexpr lock_role_t startHeld; // start_lock

MSG_Q_ID asyncCallMsgQ = nullptr; // atomic: others may delete the queue and clear it

static bool_t asyncCallInitilized = 0; // atomic: released once, after asyncCallMsgQ
static pthread_mutex_t start_lock = PTHREAD_MUTEX_INITIALIZER;

static void uAsyncCallInit(void) REQUIRES(startHeld)
{
    static char name[] = "tAsyncCall";

    store_relaxed(&asyncCallMsgQ, msgQCreate(QUEUE_CAPACITY, sizeof(asyncCallMsg_t), 0));
    taskSpawn(name, TASK_PRIORITY, 0, TASK_STACK_SIZE,
              reinterpret_cast<FUNCPTR>(uAsyncCallTaskEntry), 0, 0, 0, 0, 0, 0, 0, 0, 0, 0);
}

// What is missing shows when a call is posted; errno is for that.
static void start_service(void)
{
    const int saved_errno = errno;

    thread_record_t* me = op_enter();
    LOCK_SECTION(&start_lock, startHeld);
    if (asyncCallInitilized == 0) {
        uAsyncCallInit();
        store_release(&asyncCallInitilized, 1);
    }
    END_SECTION(startHeld);
    op_leave(me);
    errno = saved_errno;
}

status_t uAsyncCall(FUNCPTR func, void* param)
{
    asyncCallMsg_t request = {func, param};

    if (func == nullptr) {
        return ERROR;
    }
    if (load_acquire(&asyncCallInitilized) == 0) {
        start_service();
    }
    MSG_Q_ID queue = load_relaxed(&asyncCallMsgQ);
    if (queue == nullptr) {
        return ERROR;
    }
    return msgQSend(queue, reinterpret_cast<char*>(&request), sizeof request, NO_WAIT,
                    MSG_PRI_NORMAL);
}

int uAsyncCallTaskEntry(void)
{
    for (;;) {
        asyncCallMsg_t request = {};
        if (msgQReceive(load_relaxed(&asyncCallMsgQ), reinterpret_cast<char*>(&request),
                        sizeof request, WAIT_FOREVER) == ERROR) {
            taskDelay(sysClkRateGet());
            continue;
        }
        reinterpret_cast<int (*)(void*)>(request.func)(request.param);
    }
}
