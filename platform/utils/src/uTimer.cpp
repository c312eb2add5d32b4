// The timer service: a delta list of one-shot timers aged by the pump.
//
// timerList is ordered by expiry. A node's expires counts from its predecessor's expiry, so the
// gaps up to a node add up to its time left, and a pass with nothing due looks at the head alone.
// Gaps are 0 or more. They add up in 64 bits; a sum beyond 32 bits, which only a negative time_gap
// can bring about, sticks at the largest value. A timer goes in front of those that expire at the
// same time.
//
// Nodes carry their own list link, so nothing here allocates but the creation of the service.
// Timers that expired are cut off the list as one chain, which
// belongs to the uTimerRun that cut it; each goes back to the pool after its callback, and those a
// thread leaves behind when it ends in a callback go back to the head of the list.
//
// A pass with nothing due does not even lock. idle_word holds what it needs: how long it is until
// the first timer expires, and how much of that has passed since the gaps were last brought up to
// date. Whoever locks to change the list takes the word away, brings the first gap up to date, and
// puts a new word there when it is done; a pass that meets no word locks as well. Whoever only
// looks leaves the word alone, and reckons with what has passed.
//
// Locks; none is taken inside another, but for the pool's while it is built:
//   creation_lock     the creation of the service; timerList is stored last
//   timerMutex        timerList's content and uTimerId; idle_word is 0 while they may change. It is
//                     the lock of the pool's free queue as well: a block is taken or given back
//                     inside without a second lock
// Log lines and callbacks come after the locks.
#include "uTimer.h"
#include "internal.h"
#include "nxaLog.h"
#include "osaSem.h"
#include "osaTask.h"
#include "uBm.h"
#include "ulist.h"

#include <pthread.h>

static const char* const uTimerLogName = "quarn.utils.timer";

static constexpr int32_t DEFAULT_TIMERS = 300; // also the smallest pool
static constexpr uint32_t MS_PER_S = 1000;
static constexpr uint32_t CACHE_LINE = 64;

typedef struct uTimerNode {
    int32_t expires;           // ms after the preceding node's expiry; for the first, from when the
                               // list was last let go
    void (*timeout_cb)(void*); // may be null
    void* param;               // for timeout_cb
    uint32_t timerId;          // never 0
    unode_t link;              // in timerList, or in the chain of a uTimerRun
} uTimerNode_t;

static_assert(sizeof(uBmBufHead_t) + sizeof(uTimerNode_t) == CACHE_LINE,
              "a step of a walk touches one line");

/** Where a timer stands, or would stand, in timerList. */
typedef struct {
    unode_t** link; // what points to it
    int64_t before; // ms until the timer in front of it expires
} place_t;

/** Timers that expired and were not dealt with yet. */
typedef struct {
    unode_t* chain; // in order of expiry
    bool called;    // the callback of the first has begun
} due_t;

static constexpr lock_role_t creationHeld; // creation_lock
static constexpr lock_role_t timersHeld;   // timerMutex

static pthread_mutex_t creation_lock = PTHREAD_MUTEX_INITIALIZER;

static ulist_t* timerList = nullptr;    // atomic; set once, when all else is there
static SEM_ID timerMutex = nullptr;     // constant once timerList is set
static uBmHostHeap_t bmMgrTimerPoolHdr; // guarded by timerMutex; all zero: no timers to give
static uint8_t* uTimerPool = nullptr;   // its memory, never freed
static uint64_t idle_word = 0;          // atomic; see idle_of()
static uint32_t uTimerId GUARDED_BY(timersHeld) = 1;

// ---- Creation ----

static bool service_exists(void)
{
    return load_acquire(&timerList) != nullptr;
}

/** Builds the pool. @return false without memory; the pool is empty then */
static bool uTimerBmMgrInit(int32_t timerTotal) REQUIRES(creationHeld)
{
    const uint32_t blocks =
        static_cast<uint32_t>(timerTotal > DEFAULT_TIMERS ? timerTotal : DEFAULT_TIMERS);
    const uint64_t bytes = uint64_t{blocks} * CACHE_LINE;

    if (bytes > UINT32_MAX - CACHE_LINE) {
        return false;
    }
    uTimerPool = static_cast<uint8_t*>(uMalloc(static_cast<uint32_t>(bytes) + CACHE_LINE));
    if (uTimerPool == nullptr) {
        return false;
    }
    uint8_t* line = uTimerPool + CACHE_LINE - reinterpret_cast<uintptr_t>(uTimerPool) % CACHE_LINE;
    uBmInitHeap(&bmMgrTimerPoolHdr, blocks, sizeof(uTimerNode_t), line);
    // An unlocked pool, which uBmInitHeap makes without memory for the lock, would not be safe.
    bmMgrTimerPoolHdr.freePoolQ.pooled = 0; // its lock is timerMutex
    if (bmMgrTimerPoolHdr.freePoolQ.lockSem == nullptr) {
        bmMgrTimerPoolHdr = {};
        uFree(uTimerPool);
        uTimerPool = nullptr;
        return false;
    }
    return true;
}

/**
 * Creates the service. Without memory for the list or the lock it does not, and leaves nothing
 * behind.
 *
 * @return false when the pool could not be built
 */
static bool create_service_locked(int32_t timerTotal) REQUIRES(creationHeld)
{
    ulist_t* list = uListInit(FALSE);
    if (list == nullptr) {
        return true;
    }
    const bool built = uTimerBmMgrInit(timerTotal);
    timerMutex = built ? bmMgrTimerPoolHdr.freePoolQ.lockSem : semMCreate(0);
    if (timerMutex == nullptr) {
        uListUninit(list);
        return built;
    }
    store_release(&timerList, list);
    return built;
}

/** Makes sure that the service exists. @return true when it did already */
static bool create_once(int32_t timerTotal)
{
    bool existed = false;
    bool built = true;

    thread_record_t* me = op_enter();
    LOCK_SECTION(&creation_lock, creationHeld);
    existed = service_exists();
    if (!existed) {
        built = create_service_locked(timerTotal);
    }
    END_SECTION(creationHeld);
    if (!built) {
        __halden_log_print(NXA_LOG_ERROR, uTimerLogName, "Malloc timer pool failed.");
    }
    op_leave(me);
    return existed;
}

static bool service_ready(void)
{
    return service_exists() || create_once(DEFAULT_TIMERS) || service_exists();
}

void uTimerInit(int32_t timerTotal)
{
    thread_record_t* me = op_enter();
    if (create_once(timerTotal)) {
        __halden_log_print(NXA_LOG_INFO, uTimerLogName, "uTimer is already initialized.\n");
    }
    op_leave(me);
}

// ---- The delta list ----

static uTimerNode_t* timer_of(unode_t* link)
{
    char* node = reinterpret_cast<char*>(link) - offsetof(uTimerNode_t, link);
    return reinterpret_cast<uTimerNode_t*>(node);
}

/**
 * The word of a list that is let go: in the lower half how long nothing expires, in the upper half
 * how much of that has passed. For an empty list the upper half means nothing.
 */
static uint64_t idle_of(const ulist_t* list)
{
    constexpr uint32_t FOR_EVER = UINT32_MAX;
    return list->node == nullptr ? FOR_EVER : static_cast<uint32_t>(timer_of(list->node)->expires);
}

/** Lets time pass if nothing expires meanwhile. @return false when it takes the lock to tell */
static bool pass_idle(int32_t time_gap)
{
    uint64_t seen = load_relaxed(&idle_word);
    uint64_t passed = 0;

    do {
        passed = seen + (static_cast<uint64_t>(time_gap) << 32);
        if (time_gap < 0 || passed >> 32 >= static_cast<uint32_t>(seen)) {
            return false;
        }
    } while (!__atomic_compare_exchange_n(&idle_word, &seen, passed, true, __ATOMIC_ACQ_REL,
                                          __ATOMIC_RELAXED));
    return true;
}

static void timers_lock(void) ACQUIRES(timersHeld) UNCHECKED
{
    own_sem_take(timerMutex);
    const uint64_t idle = __atomic_exchange_n(&idle_word, 0, __ATOMIC_ACQ_REL);
    if (timerList->node != nullptr) {
        timer_of(timerList->node)->expires -= static_cast<int32_t>(idle >> 32);
    }
}

static void timers_unlock(void) RELEASES(timersHeld) UNCHECKED
{
    store_release(&idle_word, idle_of(timerList));
    own_sem_give(timerMutex);
}

/** How much has passed since the gaps were brought up to date; the list is not empty. */
static int64_t idle_passed_locked(void) REQUIRES(timersHeld)
{
    return static_cast<int64_t>(load_acquire(&idle_word) >> 32);
}

static int32_t saturated(int64_t ms)
{
    return ms > INT32_MAX ? INT32_MAX : static_cast<int32_t>(ms);
}

static uTimerNode_t* new_timer_locked(void (*timeout_cb)(void*), void* param, int32_t expires,
                                      uint32_t timerId) REQUIRES(timersHeld)
{
    uTimerNode_t* node = static_cast<uTimerNode_t*>(dequeue_locked(&bmMgrTimerPoolHdr.freePoolQ));
    if (node == nullptr) {
        return nullptr;
    }
    *node = {.expires = expires,
             .timeout_cb = timeout_cb,
             .param = param,
             .timerId = timerId,
             .link = {.next = nullptr, .element = reinterpret_cast<addr_t>(node)}};
    return node;
}

static void free_timer_locked(uTimerNode_t* node) REQUIRES(timersHeld)
{
    enqueue_locked(&bmMgrTimerPoolHdr.freePoolQ, node);
}

/** Inserts a node whose expires is its full time left; no timer in front of from expires later. */
static int32_t insert_from_locked(place_t from, uTimerNode_t* node) REQUIRES(timersHeld)
{
    unode_t** link = from.link;
    int64_t before = from.before;

    for (; *link != nullptr; link = &(*link)->next) {
        uTimerNode_t* behind = timer_of(*link);
        if (node->expires <= before + behind->expires) {
            behind->expires -= static_cast<int32_t>(node->expires - before);
            break;
        }
        before += behind->expires;
    }
    node->expires = static_cast<int32_t>(node->expires - before);
    node->link.next = *link;
    *link = &node->link;
    return ++timerList->size;
}

/** The same from the head of the list. @return the new size */
static int32_t uTimerInsert(uTimerNode_t* node) REQUIRES(timersHeld)
{
    return insert_from_locked({.link = &timerList->node, .before = 0}, node);
}

/** Finds a timer. @return its position, or -1 and a place of no use */
static int32_t uTimerPositionGet(uint32_t timerId, place_t* place) REQUIRES(timersHeld)
{
    unode_t** link = &timerList->node;
    int64_t before = 0;

    for (int32_t pos = 0; *link != nullptr; pos++) {
        const uTimerNode_t* node = timer_of(*link);
        if (node->timerId == timerId) {
            *place = {.link = link, .before = before};
            return pos;
        }
        before += node->expires;
        link = &(*link)->next;
    }
    return -1;
}

/** Takes the timer at a place out; those behind it keep their time. @return its successor */
static unode_t* unlink_locked(place_t place) REQUIRES(timersHeld)
{
    const uTimerNode_t* node = timer_of(*place.link);
    unode_t* behind = node->link.next;

    if (behind != nullptr) {
        uTimerNode_t* next = timer_of(behind);
        next->expires = saturated(int64_t{next->expires} + node->expires);
    }
    *place.link = behind;
    timerList->size--;
    return behind;
}

// ---- Relative timers ----

uint32_t uTimerAdd(void* cb, void* param, int32_t timeout)
{
    if (!service_ready() || timeout < 0) {
        return 0;
    }
    thread_record_t* me = op_enter();
    uint32_t id = 0;

    timers_lock();
    uTimerNode_t* node =
        new_timer_locked(reinterpret_cast<void (*)(void*)>(cb), param, timeout, uTimerId);
    if (node != nullptr) {
        id = uTimerId++;
        if (uTimerId == 0) {
            uTimerId = 1;
        }
        (void)uTimerInsert(node); // nothing to allocate, so it cannot fail
    }
    const int32_t live = timerList->size;
    timers_unlock();

    if (node == nullptr) {
        __halden_log_print(NXA_LOG_ERROR, uTimerLogName, "timer malloc failed! timerListSize=%d\n",
                           live);
    }
    op_leave(me);
    return id;
}

/** Modulo 2^32. */
static int32_t ms_of(int32_t seconds)
{
    return static_cast<int32_t>(static_cast<uint32_t>(seconds) * MS_PER_S);
}

uint32_t uTimerAddSec(void* cb, void* param, int32_t timeout)
{
    return uTimerAdd(cb, param, ms_of(timeout));
}

void uTimerDel(uint32_t timerId)
{
    if (timerId == 0 || !service_exists()) {
        return;
    }
    thread_record_t* me = op_enter();
    place_t place;
    bool was_last = false;

    timers_lock();
    const bool known = uTimerPositionGet(timerId, &place) >= 0;
    if (known) {
        uTimerNode_t* node = timer_of(*place.link);
        was_last = unlink_locked(place) == nullptr;
        free_timer_locked(node);
    }
    timers_unlock();

    if (known && was_last) {
        __halden_log_print(NXA_LOG_DEBUG, uTimerLogName, "uTimerDel: free timerId=%u;\n", timerId);
    } else if (known) {
        __halden_log_print(NXA_LOG_DEBUG, uTimerLogName, "uTimerDel: delete timerId=%u;\n",
                           timerId);
    }
    op_leave(me);
}

static void refresh_locked(uint32_t timerId, int32_t expires) REQUIRES(timersHeld)
{
    place_t place;

    if (uTimerPositionGet(timerId, &place) < 0) {
        return;
    }
    uTimerNode_t* old = timer_of(*place.link);
    uTimerNode_t* node = new_timer_locked(old->timeout_cb, old->param, expires, timerId);
    if (node == nullptr) {
        return;
    }
    unlink_locked(place);
    free_timer_locked(old);
    if (expires > place.before) {
        insert_from_locked(place, node); // no need to walk from the head again
    } else {
        uTimerInsert(node);
    }
}

void uTimerRefresh(uint32_t timerId, int32_t expires)
{
    if (timerId == 0 || expires < 0 || !service_exists()) {
        return;
    }
    thread_record_t* me = op_enter();
    timers_lock();
    refresh_locked(timerId, expires);
    timers_unlock();
    op_leave(me);
}

void uTimerRefreshSec(uint32_t timerId, int32_t expires)
{
    uTimerRefresh(timerId, ms_of(expires));
}

int32_t uTimerRemainGet(uint32_t timerId)
{
    if (timerId == 0 || !service_exists()) {
        return 0;
    }
    thread_record_t* me = op_enter();
    int64_t left = 0;
    place_t place;

    own_sem_take(timerMutex);
    role_taken(timersHeld);
    if (uTimerPositionGet(timerId, &place) >= 0) {
        left = place.before + timer_of(*place.link)->expires - idle_passed_locked();
    }
    role_given(timersHeld);
    own_sem_give(timerMutex);
    op_leave(me);
    return saturated(left);
}

// ---- Expiry ----

/** Ages the list. @return the timers that expired, cut off as a chain; null when none did */
static unode_t* take_due_locked(int32_t time_gap) REQUIRES(timersHeld)
{
    unode_t** end = &timerList->node;
    int64_t left = time_gap;
    int32_t count = 0;

    for (; *end != nullptr; end = &(*end)->next) {
        uTimerNode_t* node = timer_of(*end);
        if (node->expires > left) {
            node->expires = saturated(node->expires - left);
            break;
        }
        left -= node->expires;
        count++;
    }
    unode_t* rest = *end;
    *end = nullptr; // ends the chain; with nothing due it empties the list for a moment
    unode_t* due = timerList->node;
    timerList->node = rest;
    timerList->size -= count;
    return due;
}

/** Puts timers that expired back to the head of the list, for the next uTimerRun. */
static void put_back_locked(unode_t* chain) REQUIRES(timersHeld)
{
    unode_t** link = &chain;
    for (; *link != nullptr; link = &(*link)->next) {
        timer_of(*link)->expires = 0;
        timerList->size++;
    }
    *link = timerList->node;
    timerList->node = chain;
}

/** Cleanup handler: the thread ends while it runs callbacks. */
static void abandon_due(void* arg)
{
    ending_enter();
    due_t* due = static_cast<due_t*>(arg);
    unode_t* first = due->chain;
    if (due->called) {
        due->chain = first->next;
        uBmFree(timer_of(first));
    }
    timers_lock();
    put_back_locked(due->chain);
    timers_unlock();
}

static void run_due(thread_record_t* me, due_t* due)
{
    pthread_cleanup_push(abandon_due, due);
    while (due->chain != nullptr) {
        uTimerNode_t* node = timer_of(due->chain);
        if (node->timeout_cb != nullptr) {
            callout_begin(me);
            due->called = true;
            node->timeout_cb(node->param);
            callout_end(me);
        }
        due->chain = node->link.next;
        due->called = false;
        uBmFree(node);
    }
    pthread_cleanup_pop(0);
}

void uTimerRun(int32_t time_gap)
{
    if (pass_idle(time_gap) || !service_ready()) {
        return;
    }
    thread_record_t* me = op_enter();
    timers_lock();
    due_t due = {.chain = take_due_locked(time_gap), .called = false};
    timers_unlock();
    if (due.chain != nullptr) {
        run_due(me, &due);
    }
    op_leave(me);
}
