// Timers and the wall clock: the measuring of its steps, and the records of absolute-time timers.
//
// An absolute-time timer is a timer of the service for the seconds that are left, and a record of
// the second that was meant. A re-synchronisation takes the whole chain of records away while it
// walks it, and puts what is left in front of those that were added meanwhile.
//
// Lock: event_lock guards timerEventList, its end, and gTime. No other is taken inside it.
#include "uTimer.h"
#include "internal.h"
#include "nxaLog.h"
#include "osaTask.h"
#include "uBm.h"
#include "uEvent.h"

#include <pthread.h>
#include <time.h>

static constexpr uint32_t MS_PER_S = 1000;
static constexpr uint32_t STEP_S = 10;          // seconds ahead that still count as time passed
static constexpr uint32_t PUMP_CYCLE_MS = 50;   // what a cycle with a clock step counts as
static constexpr uint32_t TOLERANCE_SHARE = 10; // a tenth of the time may differ

typedef struct uTimerEventInfo {
    time_t timeSec;               // wall-clock second at which the timer is due
    uint32_t timerId;             // the relative timer armed for it, 0: none
    struct uTimerEventInfo* next; // in timerEventList, or in the chain of a re-synchronisation
} uTimerEventInfo_t;

static constexpr lock_role_t eventsHeld; // event_lock

static pthread_mutex_t event_lock = PTHREAD_MUTEX_INITIALIZER;

static uTimerEventInfo_t* timerEventList GUARDED_BY(eventsHeld) = nullptr; // as they were created
static uTimerEventInfo_t** timerEventEnd GUARDED_BY(eventsHeld) = &timerEventList;
static time_t gTime GUARDED_BY(eventsHeld) = 0;        // second of the previous check
static uint32_t steps_seen GUARDED_BY(eventsHeld) = 0; // re-synchronisations so far

// ---- Absolute-time timers ----

/** Seconds from one instant to another, modulo 2^32. */
static int32_t seconds_between(time_t from, time_t to)
{
    return static_cast<int32_t>(static_cast<uint64_t>(to) - static_cast<uint64_t>(from));
}

/** How long it is until an instant, 0 if that has passed. */
static int32_t seconds_left(time_t now, time_t timeSec)
{
    const int32_t left = seconds_between(now, timeSec);
    return left > 0 ? left : 0;
}

/** Takes all records away. @return them as a chain */
static uTimerEventInfo_t* take_records_locked(void) REQUIRES(eventsHeld)
{
    uTimerEventInfo_t* chain = timerEventList;

    timerEventList = nullptr;
    timerEventEnd = &timerEventList;
    return chain;
}

/** Puts a chain of records in front of the list. */
static void put_records_locked(uTimerEventInfo_t* chain) REQUIRES(eventsHeld)
{
    if (chain == nullptr) {
        return;
    }
    uTimerEventInfo_t** end = &chain->next;
    while (*end != nullptr) {
        end = &(*end)->next;
    }
    if (timerEventList == nullptr) {
        timerEventEnd = end;
    }
    *end = timerEventList;
    timerEventList = chain;
}

static uint32_t steps_so_far(void)
{
    uint32_t steps = 0;

    LOCK_SECTION(&event_lock, eventsHeld);
    steps = steps_seen;
    END_SECTION(eventsHeld);
    return steps;
}

/** Arms the timer of a record and links the record, whether or not a timer could be armed. */
static uint32_t arm_record(uTimerEventInfo_t* record, void* cb, void* param)
{
    const uint32_t steps = steps_so_far(); // before the clock is read
    const time_t timeSec = record->timeSec;
    const uint32_t id = uTimerAddSec(cb, param, seconds_between(time(nullptr), timeSec));
    bool stepped = false;

    record->timerId = id;
    LOCK_SECTION(&event_lock, eventsHeld);
    *timerEventEnd = record;
    timerEventEnd = &record->next;
    stepped = steps_seen != steps;
    END_SECTION(eventsHeld);

    // The re-synchronisation did not know of this record. It may be gone by now, its timer not.
    if (stepped) {
        uTimerRefreshSec(id, seconds_left(time(nullptr), timeSec));
    }
    return id;
}

uint32_t uTimerEventAdd(void* cb, void* param, time_t timeSec)
{
    thread_record_t* me = op_enter();
    uint32_t id = 0;

    uTimerEventInfo_t* record = static_cast<uTimerEventInfo_t*>(uMalloc(sizeof(uTimerEventInfo_t)));
    if (record == nullptr) {
        __halden_log_print(NXA_LOG_WARN, "quarn.utils.timer", "%s: malloc error \n",
                           "uTimerEventAdd");
    } else {
        record->timeSec = timeSec;
        id = arm_record(record, cb, param);
    }
    op_leave(me);
    return id;
}

/** Whether the wall clock went differently from the pump since the previous check. */
static bool has_deviated(time_t then, time_t now, uint32_t elapses)
{
    const uint64_t counted = static_cast<uint64_t>(then) * MS_PER_S + elapses;
    const uint64_t difference = static_cast<uint64_t>(now) * MS_PER_S - counted;
    const int32_t signed_ms = static_cast<int32_t>(difference);
    const uint32_t deviation =
        signed_ms < 0 ? 0U - static_cast<uint32_t>(signed_ms) : static_cast<uint32_t>(signed_ms);
    return deviation >= elapses / TOLERANCE_SHARE;
}

/** Arms the timers of a chain of records anew; frees the records that are done. @return the rest */
static uTimerEventInfo_t* resynchronise(uTimerEventInfo_t* chain, time_t now)
{
    uTimerEventInfo_t** link = &chain;

    while (*link != nullptr) {
        uTimerEventInfo_t* record = *link;
        if (uTimerRemainGet(record->timerId) / static_cast<int32_t>(MS_PER_S) == 0) {
            *link = record->next;
            uFree(record);
            continue;
        }
        uTimerRefreshSec(record->timerId, seconds_left(now, record->timeSec));
        link = &record->next;
    }
    return chain;
}

void checktimeoutCb(uint32_t elapses)
{
    thread_record_t* me = op_enter();
    const time_t now = time(nullptr);
    uTimerEventInfo_t* chain = nullptr;

    LOCK_SECTION(&event_lock, eventsHeld);
    if (has_deviated(gTime, now, elapses)) {
        chain = take_records_locked();
        steps_seen++;
    }
    gTime = now;
    END_SECTION(eventsHeld);

    if (chain != nullptr) {
        chain = resynchronise(chain, now);
        LOCK_SECTION(&event_lock, eventsHeld);
        put_records_locked(chain);
        END_SECTION(eventsHeld);
    }
    op_leave(me);
}

// ---- The wall clock ----

/** Milliseconds, truncated, from one number of microseconds to one that is not smaller. */
static uint64_t ms_between_us(suseconds_t from, suseconds_t to)
{
    return (static_cast<uint64_t>(to) - static_cast<uint64_t>(from)) / 1000;
}

uint32_t uTimerAdjust(struct timeval t1, struct timeval t2)
{
    const uint64_t span = osaLongTimeSpanCompute(static_cast<unsigned long>(t1.tv_sec),
                                                 static_cast<unsigned long>(t2.tv_sec));
    if (span > STEP_S) {
        osaUpdateSysTimeBase(t1, PUMP_CYCLE_MS);
        const auto posted = reinterpret_cast<void (*)(void)>(uTimerCheckSysTimeUpdated);
        uAsyncCall(reinterpret_cast<FUNCPTR>(posted), reinterpret_cast<void*>(PUMP_CYCLE_MS));
        return PUMP_CYCLE_MS;
    }
    if (t2.tv_usec >= t1.tv_usec) {
        return static_cast<uint32_t>(span * MS_PER_S + ms_between_us(t1.tv_usec, t2.tv_usec));
    }
    if (span == 0) {
        return 0; // a step back by less than a second
    }
    return static_cast<uint32_t>(span * MS_PER_S - ms_between_us(t2.tv_usec, t1.tv_usec));
}

void uTimerCheckSysTimeUpdated([[maybe_unused]] void* param)
{
    // The number itself, not its address.
    uEventRaise(const_cast<char*>("SYSTEM_TIME_UPDATED"), reinterpret_cast<int32_t*>(PUMP_CYCLE_MS),
                sizeof(int32_t));
}
