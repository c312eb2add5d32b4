// Demonstrations around time: software timers, a timer for an instant of the wall clock, a
// watchdog, events, asynchronous calls.
#include "nxaLog.h"
#include "osaTask.h"
#include "osaWd.h"
#include "uEvent.h"
#include "uTimer.h"

#include "demo.h"

#include <stddef.h>
#include <time.h>

static constexpr int SHOWN = 3; // runs of a repeated thing that are logged; then only counted

// ---- Software timers: one-shot, in milliseconds, callbacks on the service thread ----

struct armed_t {
    const char* what;
    int32_t ms;
    int64_t due_us;
    int runs;
};

static void on_timer(void* param)
{
    armed_t* timer = static_cast<armed_t*>(param);
    const int64_t late_us = now_us() - timer->due_us;

    // The pump looks every 50 ms and counts whole cycles: some early, some late.
    count(&totals.timers, 1);
    count(&totals.late_us, late_us);
    if (late_us > counted(&totals.most_late_us)) {
        __atomic_store_n(&totals.most_late_us, late_us, __ATOMIC_RELAXED);
    }
    if (++timer->runs <= SHOWN) {
        SAY("%s timer of %d ms fired %+.1f ms late", timer->what, timer->ms,
            static_cast<double>(late_us) / 1e3);
    }
}

static uint32_t arm(armed_t* timer, void (*callback)(void*))
{
    timer->due_us = now_us() + timer->ms * 1'000LL;
    return uTimerAdd(reinterpret_cast<void*>(callback), timer, timer->ms);
}

// A timer runs once; one that is to repeat arms itself again.
static void on_beat(void* param)
{
    on_timer(param);
    arm(static_cast<armed_t*>(param), on_beat);
}

void demo_timers(void)
{
    static armed_t once = {"one-shot", 250, 0, 0};
    static armed_t refreshed = {"refreshed", 1'500, 0, 0};
    static armed_t deleted = {"deleted", 400, 0, 0};
    static armed_t beat = {"repeated", 1'000, 0, 0};

    arm(&once, on_timer);
    arm(&beat, on_beat);
    uTimerDel(arm(&deleted, on_timer)); // logs that it is gone, and never fires

    // Refreshing keeps the id and starts the time anew.
    const uint32_t id = arm(&refreshed, on_timer);
    uTimerRefresh(id, refreshed.ms);
    SAY("timer %u has %d ms left", id, uTimerRemainGet(id));
}

// ---- A timer for an instant of the wall clock: follows when the clock is set ----

static void on_instant(void* param)
{
    const time_t due = *static_cast<const time_t*>(param);
    struct timespec now;

    clock_gettime(CLOCK_REALTIME, &now);
    SAY("the instant came: %+.1f ms late",
        static_cast<double>(now.tv_sec - due) * 1e3 + static_cast<double>(now.tv_nsec) / 1e6);
}

void demo_wall_clock(void)
{
    static time_t due;

    due = time(nullptr) + 4;
    uTimerEventAdd(reinterpret_cast<void*>(on_instant), &due, due);
}

// ---- A watchdog: one-shot, in ticks of 10 ms, routine on the exception task ----

static constexpr int WATCHDOG_TICKS = 100;
static constexpr int64_t WATCHDOG_US = WATCHDOG_TICKS * 10'000LL;
static WDOG_ID watchdog;
static int64_t watchdog_due_us;

static int on_watchdog(addr_t text)
{
    const int64_t late_us = now_us() - watchdog_due_us;
    const int64_t runs = count(&totals.watchdogs, 1);

    if (runs <= SHOWN) {
        SAY("%s: tick %lld, %+.1f ms late", text, static_cast<long long>(runs),
            static_cast<double>(late_us) / 1e3);
    }
    watchdog_due_us = now_us() + WATCHDOG_US;
    wdStart(watchdog, WATCHDOG_TICKS, reinterpret_cast<FUNCPTR>(on_watchdog), text);
    return OK;
}

void demo_watchdog(void)
{
    static char text[] = "watchdog";

    watchdog = wdCreate();
    watchdog_due_us = now_us() + WATCHDOG_US;
    wdStart(watchdog, WATCHDOG_TICKS, reinterpret_cast<FUNCPTR>(on_watchdog), text);
}

// ---- Events: handlers of a name, called on the thread that raises it ----

static int32_t on_clock_step(char* name, [[maybe_unused]] void* handle, int32_t* param,
                             [[maybe_unused]] size_t size)
{
    // Of this event the parameter is a number in the place of a pointer: never read through it.
    SAY("event %s, parameter %ld", name, static_cast<long>(reinterpret_cast<intptr_t>(param)));
    return OK;
}

static int32_t on_hello(char* name, void* handle, int32_t* param, [[maybe_unused]] size_t size)
{
    SAY("event %s for %s, parameter %d", name, static_cast<char*>(handle), *param);
    return OK;
}

void demo_events(void)
{
    static char clock_step[] = "SYSTEM_TIME_UPDATED"; // raised when the wall clock is stepped
    static char hello[] = "DEMO_HELLO";
    static char handle[] = "the demonstration";
    int32_t answer = 42;

    uEventCare(clock_step, on_clock_step, handle);
    uEventCare(hello, on_hello, handle);
    uEventRaise(hello, &answer, sizeof answer);
}

// ---- Asynchronous calls: run later, on a task of their own, in the order they were posted ----

struct posted_t {
    const char* what;
    int64_t at_us;
};

static int on_posted(const posted_t* call)
{
    SAY("%s asynchronous call, %lld us after it was posted", call->what,
        static_cast<long long>(now_us() - call->at_us));
    return OK;
}

void demo_async_calls(void)
{
    static posted_t calls[] = {{"first", 0}, {"second", 0}}; // read later, so not on the stack

    for (posted_t& call : calls) {
        call.at_us = now_us();
        if (uAsyncCall(reinterpret_cast<FUNCPTR>(on_posted), &call) != OK) {
            SAY("the %s asynchronous call was refused", call.what);
        }
    }
}
