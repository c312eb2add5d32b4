// The service context, the hooks of the start-up frame, and the timer pump.
//
// The context is made once and never freed: the service thread uses it until the process ends.
// Everything in it but running belongs to the service thread.
//
// SIGTERM may strike any thread, with any lock in its hands: its handler leaves a mark and nothing
// else, and the service thread, which looks at the mark after each cycle, does the stopping.
//
// Lock: mutex of the context guards running, for one read or write at a time.
#include "hnetd.h"

#include "internal.h"
#include "uBm.h"
#include "uTimer.h"

#include <signal.h>
#include <sys/time.h>
#include <unistd.h>

static constexpr useconds_t PUMP_US = 50'000; // length of a pump cycle
static constexpr int CHECK_MS = 30'000;       // pump time between two looks at absolute timers

static constexpr lock_role_t runningHeld; // mutex of the context

typedef struct hnetdContext {
    pthread_t tid; // service thread; never joined or detached
    pthread_mutex_t mutex;
    int running GUARDED_BY(runningHeld); // 0: the pump ends after its cycle
    int count;                           // ms pumped since the last look at absolute timers
} hnetdContext_t;

static hnetdContext_t* gHNetdContext = nullptr; // atomic: hnetdStop may come from any thread
static int stop_signalled = 0;                  // 1: SIGTERM came; atomic, says nothing else

static void set_running(hnetdContext_t* context, int running)
{
    thread_record_t* me = op_enter();
    LOCK_SECTION(&context->mutex, runningHeld);
    context->running = running;
    END_SECTION(runningHeld);
    op_leave(me);
}

static bool is_running(hnetdContext_t* context)
{
    bool running = false;

    thread_record_t* me = op_enter();
    LOCK_SECTION(&context->mutex, runningHeld);
    running = context->running != 0;
    END_SECTION(runningHeld);
    op_leave(me);
    return running;
}

// One cycle. The interval runs from before the sleep to after it: what callbacks take falls between
// two cycles and is not counted, so timers run late by that much, and none is lost.
static void hnetdTimer(void)
{
    hnetdContext_t* context = load_relaxed(&gHNetdContext);
    struct timeval t1 = {};
    struct timeval t2 = {};

    gettimeofday(&t1, nullptr);
    usleep(PUMP_US);
    gettimeofday(&t2, nullptr);

    const uint32_t elapsed = uTimerAdjust(t1, t2);
    uTimerRun(static_cast<int32_t>(elapsed));
    context->count += static_cast<int>(elapsed);
    if (context->count >= CHECK_MS) {
        checktimeoutCb(static_cast<uint32_t>(context->count));
        context->count = 0;
    }
}

static void* hnetdLoopEntry([[maybe_unused]] void* args)
{
    main_v2lin(0, nullptr);
}

static void note_sigterm(int)
{
    store_relaxed(&stop_signalled, 1);
}

static void catch_sigterm(void)
{
    struct sigaction action = {};

    action.sa_handler = note_sigterm;
    action.sa_flags = static_cast<int>(SA_RESTART | SA_RESETHAND);
    sigemptyset(&action.sa_mask);
    sigaddset(&action.sa_mask, SIGUSR1); // a task deleted in the handler would take the mark along
    sigaction(SIGTERM, &action, nullptr);
}

int hnetdStart(void)
{
    hnetdContext_t* context = static_cast<hnetdContext_t*>(uMalloc(sizeof(hnetdContext_t)));
    if (context == nullptr) {
        return -1;
    }
    pthread_mutex_init(&context->mutex, nullptr);
    set_running(context, 1);
    store_release(&gHNetdContext, context); // before the thread that reads it
    if (pthread_create(&context->tid, nullptr, hnetdLoopEntry, nullptr) != 0) {
        return -1; // and nobody to look at the mark: SIGTERM goes on ending the process by itself
    }
    catch_sigterm();
    return 0;
}

void hnetdStop(void)
{
    hnetdContext_t* context = load_acquire(&gHNetdContext);
    if (context != nullptr) {
        set_running(context, 0);
    }
}

void user_sysinit(void)
{
    hnetInit();
}

void user_syskill(void)
{
    do {
        hnetdTimer();
        if (load_relaxed(&stop_signalled) != 0) {
            hnetdStop();
        }
    } while (is_running(load_relaxed(&gHNetdContext)));
}
