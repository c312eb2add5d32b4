// Watchdogs: the active list, and the exception task that counts it down.
//
// The active list is a delta list: an entry's count is the number of ticks between its
// predecessor's expiry and its own, so the counts up to an entry add up to its time left, and a
// tick touches one entry. Counts are never negative. The head's is 0 only while a tick is at work:
// the watchdogs due are taken out one at a time, each before its routine is called. A tick that
// ends with its thread therefore leaves the rest in the list, due, for the next one.
//
// Beside the list stands its index (deltaList.h), where a watchdog has a number. It grows with the
// watchdogs created, so that starting one never needs memory; it does not shrink.
//
// Once a watchdog is out of the list for its call, the tick knows only copies of its routine and
// parameter: the record may be started again or freed at any moment.
//
// Locks, outermost first:
//   wdog_lock of a watchdog   one start, cancel or delete of it at a time
//   wdog_list_lock            wdog_list and the records in it, the index and the numbers; the
//                             countdown takes this one alone, creation allocates under it
// Routines are called with neither of them held. task_list_lock, for the block of a task to be
// started afresh, is taken with neither held.
#include "osaWd.h"

#include "deltaList.h"
#include "internal.h"
#include "osaTask.h"

#include <errno.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

static constexpr unsigned int PASS_US = 10'000;        // one pass of the exception task
static constexpr unsigned int LATEST_US = 2 * PASS_US; // measured over more than this: late
static constexpr time_t CLOCK_STEP_S = 1000;           // wall clock: more than this is a step
static constexpr unsigned long CLOCK_STEP_COUNTS_US = 50;
static constexpr uint32_t FIRST_ROOM = 16; // watchdogs that the index begins with
static constexpr int SHOWN_AT_ONCE = 32;   // lines of wdogShow that need no memory

static constexpr lock_role_t wdogHeld;     // wdog_lock of the watchdog in hand
static constexpr lock_role_t wdogListHeld; // wdog_list_lock

static pthread_mutex_t wdog_list_lock = PTHREAD_MUTEX_INITIALIZER;
static v2pt_wdog_t* wdog_list GUARDED_BY(wdogListHeld) = nullptr; // falls due first

static delta_link_t no_links[1]; // of an index without room
static delta_list_t wdog_index GUARDED_BY(wdogListHeld) = {.links = no_links};
static v2pt_wdog_t** wdogs GUARDED_BY(wdogListHeld) = nullptr;     // by number
static uint32_t* spare_numbers GUARDED_BY(wdogListHeld) = nullptr; // spare_count of them
static uint32_t spare_count GUARDED_BY(wdogListHeld) = 0;
static void* index_memory GUARDED_BY(wdogListHeld) = nullptr; // of all four

/** What is left of a watchdog that is due. */
typedef struct {
    int (*routine)(void*);
    void* parm;
} due_t;

/** One line of wdogShow. */
typedef struct {
    void* routine;
    int ticks;
    void* parm;
} shown_t;

/** A look at the monotonic clock, or at the wall clock where that fails. */
typedef struct {
    bool monotonic;
    struct timespec clock_time;
    struct timeval t;
} reading_t;

static v2pt_wdog_t* record_of(WDOG_ID id)
{
    return static_cast<v2pt_wdog_t*>(static_cast<void*>(id));
}

static WDOG_ID id_of(v2pt_wdog_t* wdog)
{
    return static_cast<WDOG_ID>(static_cast<void*>(wdog));
}

// ---- The active list ----

/** The watchdog with a number; null for 0. */
static v2pt_wdog_t* wdog_at(uint32_t number) REQUIRES(wdogListHeld)
{
    return number == 0 ? nullptr : wdogs[number];
}

static void set_next_locked(uint32_t before, v2pt_wdog_t* next) REQUIRES(wdogListHeld)
{
    *(before == 0 ? &wdog_list : &wdogs[before]->next) = next;
}

// Of those due at a tick the latest start comes first.
static int add_wdog(v2pt_wdog_t* new_wdog, int timeout) REQUIRES(wdogListHeld)
{
    const uint32_t number = new_wdog->number;

    new_wdog->ticks_remaining = delta_insert(&wdog_index, number, timeout);
    new_wdog->next = wdog_at(delta_next(&wdog_index, number));
    if (new_wdog->next != nullptr) {
        new_wdog->next->ticks_remaining -= new_wdog->ticks_remaining;
    }
    set_next_locked(delta_before(&wdog_index, number), new_wdog);
    new_wdog->listed = 1;
    return 0;
}

// The successor inherits the count, so the others keep their expiries.
static void take_out_locked(v2pt_wdog_t* wdog) REQUIRES(wdogListHeld)
{
    if (wdog->listed == 0) {
        return;
    }
    set_next_locked(delta_before(&wdog_index, wdog->number), wdog->next);
    const uint32_t behind = delta_remove(&wdog_index, wdog->number);
    if (wdog->next != nullptr) {
        wdog->next->ticks_remaining =
            delta_sum(&wdog_index, behind, wdog->next->ticks_remaining, wdog->ticks_remaining);
    }
    wdog->ticks_remaining = 0;
    wdog->next = nullptr;
    wdog->listed = 0;
}

static v2pt_wdog_t* unlink_wdog(v2pt_wdog_t* wdId)
{
    LOCK_SECTION(&wdog_list_lock, wdogListHeld);
    take_out_locked(wdId);
    END_SECTION(wdogListHeld);
    return wdId;
}

// ---- Numbers ----

/** Makes room for more watchdogs in the index. Without memory all stays as it is. */
static void make_room_locked(void) REQUIRES(wdogListHeld)
{
    const uint32_t room = wdog_index.room == 0 ? FIRST_ROOM : 2 * wdog_index.room;
    const size_t records = (room + size_t{1}) * sizeof *wdogs;
    const size_t index = delta_bytes(room);

    char* memory = static_cast<char*>(ts_malloc(records + index + room * sizeof(uint32_t)));
    if (memory == nullptr) {
        return;
    }
    v2pt_wdog_t** moved = reinterpret_cast<v2pt_wdog_t**>(memory);
    if (wdogs != nullptr) {
        memcpy(moved, wdogs, (wdog_index.room + 1) * sizeof *wdogs);
    }
    spare_numbers = reinterpret_cast<uint32_t*>(memory + records + index); // none is left to keep
    for (uint32_t number = room; number > wdog_index.room; number--) {
        spare_numbers[spare_count++] = number;
    }
    delta_move(&wdog_index, memory + records, room);
    wdogs = moved;
    ts_free(index_memory);
    index_memory = memory;
}

/** Gives a watchdog its number. @return false without memory for one */
static bool take_number(v2pt_wdog_t* wdog)
{
    bool taken = false;

    LOCK_SECTION(&wdog_list_lock, wdogListHeld);
    if (spare_count == 0) {
        make_room_locked();
    }
    if (spare_count > 0) {
        wdog->number = spare_numbers[--spare_count];
        wdogs[wdog->number] = wdog;
        taken = true;
    }
    END_SECTION(wdogListHeld);
    return taken;
}

static void give_number(const v2pt_wdog_t* wdog)
{
    LOCK_SECTION(&wdog_list_lock, wdogListHeld);
    spare_numbers[spare_count++] = wdog->number;
    END_SECTION(wdogListHeld);
}

// ---- Create, start, cancel, delete ----

WDOG_ID wdCreate(void)
{
    thread_record_t* me = op_enter();
    v2pt_wdog_t* wdog = static_cast<v2pt_wdog_t*>(ts_malloc(sizeof(v2pt_wdog_t)));
    if (wdog != nullptr && !take_number(wdog)) {
        ts_free(wdog);
        wdog = nullptr;
    }
    if (wdog != nullptr) {
        pthread_mutex_init(&wdog->wdog_lock, nullptr);
    }
    op_leave(me);
    return id_of(wdog);
}

status_t wdStart(WDOG_ID wdIdPtr, int delay, FUNCPTR f, addr_t parm)
{
    if (wdIdPtr == nullptr) {
        return ERROR;
    }
    v2pt_wdog_t* wdog = record_of(wdIdPtr);
    thread_record_t* me = op_enter();
    LOCK_SECTION(&wdog->wdog_lock, wdogHeld);
    LOCK_SECTION(&wdog_list_lock, wdogListHeld);
    take_out_locked(wdog);
    wdog->timeout_func = f;
    wdog->timeout_parm = parm;
    (void)add_wdog(wdog, delay > 0 ? delay : 1);
    END_SECTION(wdogListHeld);
    END_SECTION(wdogHeld);
    op_leave(me);
    return OK;
}

static void stop(v2pt_wdog_t* wdog)
{
    LOCK_SECTION(&wdog->wdog_lock, wdogHeld);
    unlink_wdog(wdog)->timeout_func = nullptr; // unlisted, so no tick looks at it
    END_SECTION(wdogHeld);
}

status_t wdCancel(WDOG_ID wdIdPtr)
{
    if (wdIdPtr == nullptr) {
        errno = S_objLib_OBJ_ID_ERROR;
        return ERROR;
    }
    thread_record_t* me = op_enter();
    stop(record_of(wdIdPtr));
    op_leave(me);
    return OK;
}

status_t wdDelete(WDOG_ID wdIdPtr)
{
    if (wdIdPtr == nullptr) {
        errno = S_objLib_OBJ_ID_ERROR;
        return ERROR;
    }
    thread_record_t* me = op_enter();
    stop(record_of(wdIdPtr));
    give_number(record_of(wdIdPtr));
    ts_free(wdIdPtr);
    op_leave(me);
    return OK;
}

// ---- Showing ----

// Up to room entries, from position first of the active list.
static int copy_shown_locked(int first, shown_t* lines, int room) REQUIRES(wdogListHeld)
{
    int position = 0;
    int copied = 0;

    for (const v2pt_wdog_t* wdog = wdog_list; wdog != nullptr && copied < room; wdog = wdog->next) {
        if (position++ >= first) {
            lines[copied++] = {reinterpret_cast<void*>(wdog->timeout_func), wdog->ticks_remaining,
                               wdog->timeout_parm};
        }
    }
    return copied;
}

static void write_shown(FILE* out, const shown_t* lines, int count)
{
    for (int i = 0; i < count; i++) {
        fprintf(out, "%p %i %p\n", lines[i].routine, lines[i].ticks, lines[i].parm);
    }
}

int wdogShow(FILE* out)
{
    shown_t few[SHOWN_AT_ONCE];
    shown_t* many = nullptr;
    int copied = 0;

    if (out == nullptr) {
        return 0;
    }
    thread_record_t* me = op_enter();
    LOCK_SECTION(&wdog_list_lock, wdogListHeld);
    const int count = static_cast<int>(wdog_index.size);
    if (count > SHOWN_AT_ONCE) {
        many = static_cast<shown_t*>(ts_malloc(static_cast<size_t>(count) * sizeof(shown_t)));
    }
    copied = many != nullptr ? copy_shown_locked(0, many, count)
                             : copy_shown_locked(0, few, SHOWN_AT_ONCE);
    END_SECTION(wdogListHeld);

    write_shown(out, many != nullptr ? many : few, copied);
    int written = copied;
    while (many == nullptr && copied == SHOWN_AT_ONCE) {
        LOCK_SECTION(&wdog_list_lock, wdogListHeld);
        copied = copy_shown_locked(written, few, SHOWN_AT_ONCE);
        END_SECTION(wdogListHeld);
        write_shown(out, few, copied);
        written += copied;
    }
    ts_free(many);
    op_leave(me);
    return written;
}

// ---- The tick ----

// Time passes for the first entry that is not due yet; those before it were left by a tick that
// ended with its thread, and stay due.
static void count_down_locked(void) REQUIRES(wdogListHeld)
{
    const uint32_t left_over = delta_is_due(&wdog_index) ? delta_cut(&wdog_index) : 0;

    delta_advance(&wdog_index, 1);
    const uint32_t first = delta_first(&wdog_index);
    if (first != 0) {
        wdogs[first]->ticks_remaining = static_cast<int>(delta_left(&wdog_index, first));
    }
    delta_put_back(&wdog_index, left_over);
}

static bool take_due_locked(due_t* due) REQUIRES(wdogListHeld)
{
    v2pt_wdog_t* current_wdog = wdog_list;

    if (current_wdog == nullptr || current_wdog->ticks_remaining > 0) {
        return false;
    }
    *due = {reinterpret_cast<int (*)(void*)>(current_wdog->timeout_func),
            current_wdog->timeout_parm};
    take_out_locked(current_wdog);
    return true;
}

void process_wdog(void)
{
    due_t due = {};
    bool found = false;

    thread_record_t* me = op_enter();
    LOCK_SECTION(&wdog_list_lock, wdogListHeld);
    count_down_locked();
    found = take_due_locked(&due);
    END_SECTION(wdogListHeld);

    while (found) {
        if (due.routine != nullptr) {
            callout_begin(me);
            due.routine(due.parm);
            callout_end(me);
        }
        LOCK_SECTION(&wdog_list_lock, wdogListHeld);
        found = take_due_locked(&due);
        END_SECTION(wdogListHeld);
    }
    op_leave(me);
}

// ---- The exception task ----

unsigned long wdAdjust(struct timeval t1, struct timeval t2)
{
    if (t2.tv_sec < t1.tv_sec) {
        return 0;
    }
    // Unsigned, for the two may lie further apart than a signed number holds.
    const unsigned long s =
        static_cast<unsigned long>(t2.tv_sec) - static_cast<unsigned long>(t1.tv_sec);
    if (s > CLOCK_STEP_S) {
        return CLOCK_STEP_COUNTS_US;
    }
    const long us = static_cast<long>(s) * 1'000'000 + (t2.tv_usec - t1.tv_usec);
    return us > 0 ? static_cast<unsigned long>(us) : 0;
}

static void read_clock(reading_t* reading)
{
    reading->monotonic = clock_gettime(CLOCK_MONOTONIC, &reading->clock_time) == 0;
    if (!reading->monotonic) {
        gettimeofday(&reading->t, nullptr);
    }
}

// Adds what passed between two readings. What cannot be measured, for the clock went back or was
// there only once, replaces the sum by one pass.
static unsigned long add_elapsed(unsigned long time_elapsed, const reading_t* before,
                                 const reading_t* after)
{
    if (!before->monotonic && !after->monotonic) {
        return time_elapsed + wdAdjust(before->t, after->t);
    }
    if (before->monotonic != after->monotonic) {
        return PASS_US;
    }
    const long long ns = (after->clock_time.tv_sec - before->clock_time.tv_sec) * 1'000'000'000LL +
                         (after->clock_time.tv_nsec - before->clock_time.tv_nsec);
    if (ns < 0) {
        return PASS_US;
    }
    return time_elapsed + static_cast<unsigned long>(ns / 1000);
}

// Microseconds to sleep in the next pass. A pass measured at 10 ms sleeps as long again; a longer
// one takes its excess off the next sleep. What exceeds that is a backlog, which passes without
// sleep use up.
static unsigned int pace(unsigned long* time_elapsed)
{
    if (*time_elapsed == 0) {
        return PASS_US;
    }
    if (*time_elapsed > LATEST_US) {
        *time_elapsed -= PASS_US;
        return 0;
    }
    const unsigned int delayTicks = LATEST_US - static_cast<unsigned int>(*time_elapsed);
    *time_elapsed = 0;
    return delayTicks;
}

int exception_task(int, int, int, int, int, int, int, int, int, int)
{
    unsigned int delayTicks = PASS_US;
    unsigned long time_elapsed = 0; // microseconds
    reading_t before = {};
    reading_t after = {};

    prctl(PR_SET_NAME, "tExcTask", 0, 0, 0);
    for (;;) {
        read_clock(&before);
        process_wdog();
        usleep(delayTicks);
        read_clock(&after);
        time_elapsed = add_elapsed(time_elapsed, &before, &after);
        delayTicks = pace(&time_elapsed);
    }
}

// ---- Restarting tasks ----

void self_starter(taskId_t taskid)
{
    thread_record_t* me = op_enter();
    LOCK_SECTION(&task_list_lock, taskListHeld);
    task_t* task = task_for(taskid);
    if (task != nullptr) {
        (void)task_thread_start(task); // the block is as it was if there is no thread to be had
    }
    END_SECTION(taskListHeld);
    op_leave(me);
}

// Routine of a restart's watchdog, which comes as the parameter: several may be pending.
static int restart_due(void* parm)
{
    v2pt_wdog_t* wdog = static_cast<v2pt_wdog_t*>(parm);

    thread_record_t* me = op_enter();
    thread_record_t* restarted = wdog->restarted;
    wdDelete(id_of(wdog));
    task_restart_due(restarted);
    op_leave(me);
    return 0;
}

// Takes no task_list_lock: the caller may hold it, to keep the block.
void selfRestart(task_t* restart_task)
{
    if (restart_task == nullptr) {
        return;
    }
    thread_record_t* me = op_enter();
    thread_record_t* restarted = task_restart_expected(restart_task);
    WDOG_ID wdog = wdCreate();
    if (wdog != nullptr) {
        record_of(wdog)->restarted = restarted;
        wdStart(wdog, 1, reinterpret_cast<FUNCPTR>(restart_due), wdog);
    } else {
        task_restart_called_off(restarted);
    }
    op_leave(me);
}
