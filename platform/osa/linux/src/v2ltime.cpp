// The layer's sense of time: the tick rate, tick count and uptime, spans of wrapping counters, and
// setting the system's clock and zone.
//
// Uptime is the monotonic clock's. Where that clock fails, it is the wall clock's distance from
// sysInitTime, and a step of the wall clock moves sysInitTime along (osaUpdateSysTimeBase).
// The rate is three numbers of which readers take one at a time; a reader beside a change may pair
// an old one with a new one, once, while the tick count jumps anyway.
//
// Locks, outermost first:
//   zone_change        one osaUpdateTimeZone at a time, its shell command included
//   environ_lock       TZ in the environment, against our own use of local time and look-ups
//   time_lock          sysInitTime, offset and changes of the rate; never with the other two
#include "osaTask.h"

#include "internal.h"
#include "longLock.h"

#include <errno.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/sysinfo.h>
#include <sys/time.h>
#include <time.h>

static constexpr int MS_PER_S = 1000;
static constexpr unsigned long US_PER_S = 1'000'000;
static constexpr unsigned long US_PER_MS = 1000;
static constexpr long NS_PER_MS = 1'000'000;
static constexpr long long S_PER_MONTH = 30LL * 24 * 3600;
static constexpr int MAX_RATE = 1000;                // ticks shorter than 1 ms have no length
static constexpr unsigned long REBASE_US = 50'000;   // a pump cycle: from oldTime to the re-basing
static constexpr unsigned long TICK_MS_DEFAULT = 10; // tickReInit counts in these, at any rate

static constexpr char ZONE_COMMAND[] = "echo '%s' > /etc/TZ;source /etc/profile";
static constexpr char ZONE_MARKS[] = "+-:,./_<>"; // allowed beside letters and digits
static constexpr size_t ZONE_MAX = 92;            // characters

static constexpr lock_role_t timeHeld;
static pthread_mutex_t time_lock = PTHREAD_MUTEX_INITIALIZER;
pthread_mutex_t environ_lock = PTHREAD_MUTEX_INITIALIZER;
static constinit long_lock_t zone_change;

// The rate: atomic, set together under time_lock.
static int sysTicks = 100; // ticks per second
int msPerTick = 10;
int tickPerMonth = 259'200'000;

static struct timeval sysInitTime GUARDED_BY(timeHeld) = {}; // wall clock at uptime 0
static ULONG offset GUARDED_BY(timeHeld) = 0;                // ms since the epoch

/** Uptime by the wall clock. */
typedef struct wall_uptime {
    unsigned long seconds;
    unsigned long usecs; // below 1,000,000
} wall_uptime_t;

// ---- Spans ----

unsigned long osaLongTimeSpanCompute(unsigned long val1, unsigned long val2)
{
    return val2 - val1;
}

unsigned int osaIntTimeSpanCompute(unsigned int val1, unsigned int val2)
{
    return val2 - val1;
}

// ---- Uptime by the wall clock ----

static unsigned long seconds_since(const struct timeval* base, const struct timeval* t)
{
    return osaLongTimeSpanCompute(static_cast<unsigned long>(base->tv_sec),
                                  static_cast<unsigned long>(t->tv_sec));
}

// False when t lies before base in the same second: such an uptime counts as zero.
static bool uptime_at(const struct timeval* base, const struct timeval* t, wall_uptime_t* up)
{
    up->seconds = seconds_since(base, t);
    up->usecs = static_cast<unsigned long>(t->tv_usec) - static_cast<unsigned long>(base->tv_usec);
    if (t->tv_usec >= base->tv_usec) {
        return true;
    }
    if (up->seconds == 0) {
        return false;
    }
    up->seconds--;
    up->usecs += US_PER_S;
    return true;
}

// Read as a whole: half of an old base and half of a new one would be an hour off.
static struct timeval init_time(void)
{
    struct timeval base;

    thread_record_t* me = op_enter();
    LOCK_SECTION(&time_lock, timeHeld);
    base = sysInitTime;
    END_SECTION(timeHeld);
    op_leave(me);
    return base;
}

static bool uptime_by_wall_clock(wall_uptime_t* up)
{
    struct timeval now;

    const struct timeval base = init_time();
    gettimeofday(&now, nullptr);
    return uptime_at(&base, &now, up);
}

static bool monotonic_now(struct timespec* now)
{
    return clock_gettime(CLOCK_MONOTONIC, now) == 0;
}

// ---- Ticks ----

int sysClkRateGet(void)
{
    return load_relaxed(&sysTicks);
}

void sysClkRateSet(int ticks)
{
    if (ticks < 1 || ticks > MAX_RATE) {
        return;
    }
    const long long month = ticks * S_PER_MONTH;

    thread_record_t* me = op_enter();
    LOCK_SECTION(&time_lock, timeHeld);
    store_relaxed(&sysTicks, ticks);
    store_relaxed(&msPerTick, MS_PER_S / ticks);
    store_relaxed(&tickPerMonth, month < INT_MAX ? static_cast<int>(month) : INT_MAX);
    END_SECTION(timeHeld);
    op_leave(me);
}

// Unknown here: the function stands in for libc's in the whole process, and tells nobody.
int sysinfo(struct sysinfo*)
{
    return -1;
}

// Milliseconds since the epoch: of the boot where its distance is known, else of this instant.
static long long start_instant(const struct timeval* now)
{
    struct sysinfo info;

    const long uptime =
        sysinfo(&info) == 0 ? static_cast<long>(info.uptime) : 0; // unsigned in musl
    return (now->tv_sec - uptime) * MS_PER_S + now->tv_usec / static_cast<long>(US_PER_MS);
}

void tickInit(void)
{
    struct timeval tl;

    thread_record_t* me = op_enter();
    LOCK_SECTION(&time_lock, timeHeld);
    gettimeofday(&tl, nullptr);
    gettimeofday(&sysInitTime, nullptr);
    offset = static_cast<ULONG>(start_instant(&tl));
    END_SECTION(timeHeld);
    op_leave(me);
}

void tickReInit(void)
{
    static long long offsetTmp GUARDED_BY(timeHeld) = 0;
    struct timeval now;
    bool adjust = false;

    thread_record_t* me = op_enter();
    LOCK_SECTION(&time_lock, timeHeld);
    gettimeofday(&now, nullptr);
    offsetTmp = start_instant(&now);
    const ULONG measured = static_cast<ULONG>(offsetTmp);
    const ULONG month = static_cast<ULONG>(load_relaxed(&tickPerMonth));
    adjust = measured < offset || (measured - offset) / TICK_MS_DEFAULT > month;
    if (adjust) {
        offset = measured;
    }
    END_SECTION(timeHeld);
    if (adjust) {
        printf("tickReInit, adjust offset.\n");
    }
    op_leave(me);
}

ULONG tickGet(void)
{
    struct timespec now;
    wall_uptime_t up;

    const long tick_ms = load_relaxed(&msPerTick);
    if (monotonic_now(&now)) {
        const long part = tick_ms != 0 ? now.tv_nsec / NS_PER_MS / tick_ms : 0;
        return static_cast<ULONG>(now.tv_sec * sysClkRateGet() + part);
    }
    if (!uptime_by_wall_clock(&up)) {
        return 0;
    }
    const ULONG tick_us = static_cast<ULONG>(tick_ms) * US_PER_MS;
    const ULONG part = tick_us != 0 ? up.usecs / tick_us : 0;
    return up.seconds * static_cast<ULONG>(sysClkRateGet()) + part;
}

// ---- Uptime ----

unsigned long osaGetSysUpMs(void)
{
    struct timespec now;
    wall_uptime_t up;

    if (monotonic_now(&now)) {
        return static_cast<unsigned long>(now.tv_sec * MS_PER_S + now.tv_nsec / NS_PER_MS);
    }
    if (!uptime_by_wall_clock(&up)) {
        return 0;
    }
    return up.seconds * MS_PER_S + up.usecs / US_PER_MS;
}

unsigned long osaGetSysUpSeconds(void)
{
    struct timespec now;
    struct timeval wall;

    if (monotonic_now(&now)) {
        return static_cast<unsigned long>(now.tv_sec);
    }
    const struct timeval base = init_time();
    gettimeofday(&wall, nullptr);
    return seconds_since(&base, &wall);
}

// The base that makes the uptime at now what it was at oldTime, and a pump cycle more.
static struct timeval base_for(const struct timeval* now, const wall_uptime_t* old_up)
{
    wall_uptime_t up = *old_up;
    struct timeval base;

    up.usecs += REBASE_US;
    if (up.usecs >= US_PER_S) {
        up.seconds++;
        up.usecs -= US_PER_S;
    }
    const unsigned long usecs = static_cast<unsigned long>(now->tv_usec);
    base.tv_sec = static_cast<time_t>(
        osaLongTimeSpanCompute(up.seconds, static_cast<unsigned long>(now->tv_sec)));
    if (usecs >= up.usecs) {
        base.tv_usec = static_cast<suseconds_t>(usecs - up.usecs);
        return base;
    }
    base.tv_sec = base.tv_sec > 0 ? base.tv_sec - 1 : 0;
    base.tv_usec = static_cast<suseconds_t>(usecs + US_PER_S - up.usecs);
    return base;
}

void osaUpdateSysTimeBase(struct timeval oldTime, [[maybe_unused]] uint32_t elapsedMs)
{
    struct timespec monotonic;
    struct timeval now;
    wall_uptime_t up;

    if (monotonic_now(&monotonic)) {
        return;
    }
    thread_record_t* me = op_enter();
    LOCK_SECTION(&time_lock, timeHeld);
    if (uptime_at(&sysInitTime, &oldTime, &up)) {
        gettimeofday(&now, nullptr);
        sysInitTime = base_for(&now, &up);
    }
    END_SECTION(timeHeld);
    op_leave(me);
}

// ---- The system's clock and zone ----

void zone_local_time(time_t when, struct tm* local)
{
    LOCK_SECTION(&environ_lock, environHeld);
    tzset(); // localtime_r alone need not notice a new TZ
    localtime_r(&when, local);
    END_SECTION(environHeld);
}

// -1 when there is no such instant.
static time_t instant_of(struct tm* local)
{
    time_t when = -1;

    LOCK_SECTION(&environ_lock, environHeld);
    when = mktime(local);
    END_SECTION(environHeld);
    return when;
}

status_t osaSetTime(int tm_year, int tm_mon, int tm_mday, int tm_hour, int tm_min, int tm_sec,
                    int secOffset)
{
    struct tm local = {};

    if (__builtin_sub_overflow(tm_year, 1900, &local.tm_year)) {
        return OK;
    }
    local.tm_mon = tm_mon;
    local.tm_mday = tm_mday;
    local.tm_hour = tm_hour;
    local.tm_min = tm_min;
    local.tm_sec = tm_sec;
    local.tm_isdst = -1; // the zone's rules know

    thread_record_t* me = op_enter();
    const time_t when = instant_of(&local);
    if (when != -1) {
        const struct timespec ts = {.tv_sec = when + secOffset, .tv_nsec = 0};
        clock_settime(CLOCK_REALTIME, &ts); // without the right to it, the clock stays
    }
    op_leave(me);
    return OK;
}

status_t osaSetTimer(int tm_year, int tm_mon, int tm_mday, int tm_hour, int tm_min, int tm_sec,
                     int secOffset)
{
    return osaSetTime(tm_year, tm_mon, tm_mday, tm_hour, tm_min, tm_sec, secOffset);
}

static bool is_zone_character(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
           strchr(ZONE_MARKS, c) != nullptr;
}

// The C library opens the file that such a text names, whatever it is: a FIFO would stop every use
// of local time. A name without these leads into the directory of zones.
static bool names_any_file(const char* text)
{
    return text[strspn(text, ":")] == '/' || strstr(text, "..") != nullptr;
}

// Nothing that ends the single quotes around it in the command, that is a line of its own, or that
// echo takes for an option.
static bool is_zone(const char* text)
{
    const size_t length = strnlen(text, ZONE_MAX + 1);

    if (length == 0 || length > ZONE_MAX || text[0] == '-' || names_any_file(text)) {
        return false;
    }
    for (size_t i = 0; i < length; i++) {
        if (!is_zone_character(text[i])) {
            return false;
        }
    }
    return true;
}

static bool set_own_zone(const char* zone)
{
    bool set = false;

    LOCK_SECTION(&environ_lock, environHeld);
    set = setenv("TZ", zone, 1) == 0;
    END_SECTION(environHeld);
    return set;
}

status_t osaUpdateTimeZone(char* tzString)
{
    char command[sizeof ZONE_COMMAND + ZONE_MAX] = {};
    bool set = false;

    if (tzString == nullptr || !is_zone(tzString)) {
        return ERROR;
    }
    const int length = snprintf(command, sizeof command, ZONE_COMMAND, tzString);
    if (length < 0 || static_cast<size_t>(length) >= sizeof command) {
        return ERROR;
    }
    thread_record_t* me = op_enter();
    // Over both, or of two callers one could have the process and the other the file.
    if (long_lock_take(me, &zone_change)) {
        set = set_own_zone(tzString);
        if (set) {
            [[maybe_unused]] const int exit_status = system(command); // a failing one goes unsaid
        }
        long_lock_give(&zone_change);
    }
    op_leave(me);
    return set ? OK : ERROR;
}
