// The timer service: a delta list of one-shot timers aged by the pump.
//
// timerList is a delta list with an index (deltaList.h), in milliseconds; a node's expires is its
// gap. Nodes are the blocks of a pool, one to a cache line, and the number of a block is its
// number in the list. Ids lead to nodes by a table of chains. The memory of all this is allocated
// with the service, and none later. Blocks go back to the head of the pool's free queue: the next
// timer gets one that the cache still has.
//
// Timers that expired are cut off the list and belong to the uTimerRun that cut them, a pass. A
// timer is done when its callback has returned, and can be armed again from then on: the pass
// stores how far it is, and frees all blocks together at its end; whoever finds no free block takes
// those that are done from the passes under way. What a thread leaves behind that ends in a
// callback goes back to the head of the list.
//
// Locks; none is taken inside another, but for the pool's while it is built:
//   creation_lock   the creation of the service; service_created is stored last
//   timers_word     what is GUARDED_BY(timersHeld), the nodes in the list, the id table. It stands
//                   for timerMutex, the semaphore of the pool's free queue, with whose mutex those
//                   sleep that find it held
// Log lines and callbacks come after the locks. A section under timers_word is inside an operation
// (depth above 0) and calls nobody, so a task that is deleted meanwhile ends after it.
#include "uTimer.h"
#include "deltaList.h"
#include "internal.h"
#include "lockWord.h"
#include "nxaLog.h"
#include "osaSem.h"
#include "uBm.h"

#include <pthread.h>

static const char* const uTimerLogName = "quarn.utils.timer";

static constexpr int32_t DEFAULT_TIMERS = 300; // also the smallest pool
static constexpr uint32_t MS_PER_S = 1000;
static constexpr uint32_t CACHE_LINE = 64;

typedef struct uTimerNode {
    int32_t expires;           // ms after the preceding node's expiry; for the first, from now
    void (*timeout_cb)(void*); // may be null
    void* param;               // for timeout_cb
    uint32_t timerId;          // never 0
    uint32_t next_id;          // number of the next node in its chain of the id table; 0: none
} uTimerNode_t;

static constexpr uint32_t NODE_BYTES = CACHE_LINE - sizeof(uBmBufHead_t); // a block fills a line

static_assert(sizeof(uTimerNode_t) <= NODE_BYTES);

/** A pass: timers that expired, in their order, linked like the free blocks. */
typedef struct pass {
    uTimerNode_t* done;    // the first one that is not free again; guarded by timers_word
    uTimerNode_t* pending; // the first one that is not done; atomic, written by the pass's thread
    uTimerNode_t* last;    // constant
    uint32_t count;        // from done to last; guarded by timers_word
    bool called;           // the callback of pending has begun; the pass's thread only
    struct pass* next;     // in passes; guarded by timers_word
} pass_t;

static constexpr lock_role_t creationHeld; // creation_lock
static constexpr lock_role_t timersHeld;   // timers_word

static pthread_mutex_t creation_lock = PTHREAD_MUTEX_INITIALIZER;

static bool service_created = false; // atomic; set once, when all else is there
static lock_word_t timers_word;
static delta_link_t no_links[1]; // of a list without room

static delta_list_t timerList GUARDED_BY(timersHeld) = {.links = no_links};
static uBmHostHeap_t bmMgrTimerPoolHdr GUARDED_BY(timersHeld); // all zero: no timers to give
static pass_t* passes GUARDED_BY(timersHeld) = nullptr;        // that run callbacks now
static uint32_t uTimerId GUARDED_BY(timersHeld) = 1;
static bool ids_came_round GUARDED_BY(timersHeld) = false; // an id may be there twice

// Constant once service_created is set.
static SEM_ID timerMutex = nullptr;
static uint8_t* uTimerPool = nullptr;   // memory of nodes, index and ids, never freed
static uint8_t* node_lines = nullptr;   // one line in front of node number 1
static uint32_t no_chains[2];           // without a pool
static uint32_t* id_chains = no_chains; // numbers of their first nodes; 0: empty
static int id_shift = 31;               // bits of a hashed id that are dropped

// ---- Nodes ----

static uTimerNode_t* node_of(uint32_t number)
{
    uint8_t* line = node_lines + size_t{number} * CACHE_LINE;
    return reinterpret_cast<uTimerNode_t*>(line + sizeof(uBmBufHead_t));
}

static uint32_t number_of(const void* node)
{
    const ptrdiff_t offset = static_cast<const uint8_t*>(node) - node_lines;
    return static_cast<uint32_t>(static_cast<size_t>(offset) / CACHE_LINE);
}

static void* next_block(void* node)
{
    return (static_cast<uBmBufHead_t*>(node) - 1)->nextPtr;
}

static void set_next_block(void* node, void* next)
{
    (static_cast<uBmBufHead_t*>(node) - 1)->nextPtr = static_cast<uint32_t*>(next);
}

// ---- Creation ----

static bool service_exists(void)
{
    return load_acquire(&service_created);
}

/** Builds the pool, and what goes with it. @return false without memory; there are none then */
static bool uTimerBmMgrInit(int32_t timerTotal) REQUIRES(creationHeld) UNCHECKED
{
    const uint32_t blocks =
        static_cast<uint32_t>(timerTotal > DEFAULT_TIMERS ? timerTotal : DEFAULT_TIMERS);
    int shift = 32;
    while (uint64_t{1} << (32 - shift) < blocks) {
        shift--;
    }
    const uint64_t lines = (uint64_t{blocks} + 2) * CACHE_LINE; // one to align, one in front
    const uint64_t index = delta_bytes(blocks);
    const uint64_t chains = sizeof(uint32_t) << (32 - shift);

    if (lines + index + chains > UINT32_MAX) {
        return false;
    }
    uTimerPool = static_cast<uint8_t*>(uMalloc(static_cast<uint32_t>(lines + index + chains)));
    if (uTimerPool == nullptr) {
        return false;
    }
    uint8_t* line = uTimerPool + CACHE_LINE - reinterpret_cast<uintptr_t>(uTimerPool) % CACHE_LINE;
    uBmInitHeap(&bmMgrTimerPoolHdr, blocks, NODE_BYTES, line + CACHE_LINE);
    // Without memory for the queue's semaphore there is nothing to sleep with.
    if (bmMgrTimerPoolHdr.freePoolQ.lockSem == nullptr) {
        bmMgrTimerPoolHdr = {};
        uFree(uTimerPool);
        uTimerPool = nullptr;
        return false;
    }
    node_lines = line;
    delta_move(&timerList, line + lines - CACHE_LINE, blocks);
    id_chains = reinterpret_cast<uint32_t*>(line + lines - CACHE_LINE + index);
    id_shift = shift;
    return true;
}

/**
 * Creates the service. Without memory for the lock it does not, and leaves nothing behind.
 *
 * @return false when the pool could not be built
 */
static bool create_service_locked(int32_t timerTotal) REQUIRES(creationHeld) UNCHECKED
{
    const bool built = uTimerBmMgrInit(timerTotal);
    timerMutex = built ? bmMgrTimerPoolHdr.freePoolQ.lockSem : semMCreate(0);
    if (timerMutex != nullptr) {
        lock_word_init(&timers_word);
        store_release(&service_created, true);
    }
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

// ---- Locking ----

static pthread_mutex_t* sleepers_mutex(void)
{
    return &reinterpret_cast<v2lsem_t*>(timerMutex)->mutex_lock;
}

static void timers_lock(void) ACQUIRES(timersHeld) UNCHECKED
{
    lock_word_take(&timers_word, sleepers_mutex());
}

static void timers_unlock(void) RELEASES(timersHeld) UNCHECKED
{
    lock_word_give(&timers_word, sleepers_mutex());
}

// ---- Blocks ----

/** Puts a chain of blocks in front of the free ones. */
static void free_blocks_locked(void* first, void* last, uint32_t count) REQUIRES(timersHeld)
{
    uQmQueue_t* queue = &bmMgrTimerPoolHdr.freePoolQ;

    set_next_block(last, queue->headPtr);
    if (queue->headPtr == nullptr) {
        queue->tailPtr = last;
    }
    queue->headPtr = first;
    queue->count = static_cast<uint16_t>(queue->count + count);
}

/**
 * Frees the timers whose callbacks have returned. Acquire pairs with the release after the
 * callback, which is the last that a pass has to do with a timer.
 */
static void free_done_locked(pass_t* pass) REQUIRES(timersHeld)
{
    const void* pending = load_acquire(&pass->pending);

    if (pending == nullptr && pass->done != nullptr) { // all that is left, at once
        free_blocks_locked(pass->done, pass->last, pass->count);
        pass->done = nullptr;
    }
    while (pass->done != pending) {
        uTimerNode_t* node = pass->done;
        pass->done = static_cast<uTimerNode_t*>(next_block(node));
        pass->count--;
        free_blocks_locked(node, node, 1);
    }
}

static bool has_block_locked(void) REQUIRES(timersHeld)
{
    if (bmMgrTimerPoolHdr.freePoolQ.headPtr == nullptr) {
        for (pass_t* pass = passes; pass != nullptr; pass = pass->next) {
            free_done_locked(pass);
        }
    }
    return bmMgrTimerPoolHdr.freePoolQ.headPtr != nullptr;
}

/** Takes the first free block. @return its node's number; 0: there is none */
static uint32_t take_block_locked(void) REQUIRES(timersHeld)
{
    uQmQueue_t* queue = &bmMgrTimerPoolHdr.freePoolQ;

    if (!has_block_locked()) {
        return 0;
    }
    void* node = queue->headPtr;
    queue->headPtr = next_block(node);
    if (queue->headPtr == nullptr) {
        queue->tailPtr = nullptr;
    }
    queue->count--;
    return number_of(node);
}

// ---- Ids ----

static uint32_t* chain_of(uint32_t timerId)
{
    constexpr uint32_t GOLDEN = 2654435769; // spreads consecutive numbers
    return &id_chains[(timerId * GOLDEN) >> id_shift];
}

static void enter_id_locked(uint32_t number) REQUIRES(timersHeld)
{
    uTimerNode_t* node = node_of(number);
    uint32_t* chain = chain_of(node->timerId);

    node->next_id = *chain;
    *chain = number;
}

static void forget_id_locked(uint32_t number) REQUIRES(timersHeld)
{
    const uTimerNode_t* node = node_of(number);
    uint32_t* link = chain_of(node->timerId);

    while (*link != number) {
        link = &node_of(*link)->next_id;
    }
    *link = node->next_id;
}

/** Of two timers with the same id, which takes 2^32 others in between: the first in the list. */
static uint32_t earlier_of(uint32_t one, uint32_t other) REQUIRES(timersHeld)
{
    if (delta_left(&timerList, one) != delta_left(&timerList, other)) {
        return delta_left(&timerList, one) < delta_left(&timerList, other) ? one : other;
    }
    uint32_t number = one;
    while (number != 0 && number != other) {
        number = delta_next(&timerList, number);
    }
    return number == other ? one : other;
}

/** Finds a timer. @return its number, or 0 */
static uint32_t uTimerPositionGet(uint32_t timerId) REQUIRES(timersHeld)
{
    uint32_t found = 0;

    for (uint32_t number = *chain_of(timerId); number != 0; number = node_of(number)->next_id) {
        if (node_of(number)->timerId == timerId) {
            if (!ids_came_round) {
                return number;
            }
            found = found == 0 ? number : earlier_of(found, number);
        }
    }
    return found;
}

// ---- Timers ----

/** Puts a timer into the list for a time from now. */
static void uTimerInsert(uint32_t number, int32_t timeout) REQUIRES(timersHeld)
{
    const int32_t gap = delta_insert(&timerList, number, timeout);
    const uint32_t behind = delta_next(&timerList, number);

    node_of(number)->expires = gap;
    if (behind != 0) {
        node_of(behind)->expires -= gap;
    }
}

/** Takes a timer out of the list. @return the one behind it */
static uint32_t unlink_locked(uint32_t number) REQUIRES(timersHeld)
{
    const uint32_t behind = delta_remove(&timerList, number);

    if (behind != 0) {
        int32_t* gap = &node_of(behind)->expires;
        *gap = delta_sum(&timerList, behind, *gap, node_of(number)->expires);
    }
    return behind;
}

static uint32_t add_locked(void (*timeout_cb)(void*), void* param, int32_t timeout)
    REQUIRES(timersHeld)
{
    const uint32_t number = take_block_locked();
    if (number == 0) {
        return 0;
    }
    uTimerNode_t* node = node_of(number);
    const uint32_t id = uTimerId;
    node->timeout_cb = timeout_cb;
    node->param = param;
    node->timerId = id;
    uTimerId++;
    if (uTimerId == 0) {
        uTimerId = 1;
        ids_came_round = true;
    }
    enter_id_locked(number);
    uTimerInsert(number, timeout);
    return id;
}

uint32_t uTimerAdd(void* cb, void* param, int32_t timeout)
{
    if (!service_ready() || timeout < 0) {
        return 0;
    }
    thread_record_t* me = op_enter();
    timers_lock();
    const uint32_t id = add_locked(reinterpret_cast<void (*)(void*)>(cb), param, timeout);
    const int32_t live = static_cast<int32_t>(timerList.size);
    timers_unlock();

    if (id == 0) {
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
    bool was_last = false;

    timers_lock();
    const uint32_t number = uTimerPositionGet(timerId);
    if (number != 0) {
        forget_id_locked(number);
        was_last = unlink_locked(number) == 0;
        free_blocks_locked(node_of(number), node_of(number), 1);
    }
    timers_unlock();

    if (number != 0) {
        __halden_log_print(NXA_LOG_DEBUG, uTimerLogName,
                           was_last ? "uTimerDel: free timerId=%u;\n"
                                    : "uTimerDel: delete timerId=%u;\n",
                           timerId);
    }
    op_leave(me);
}

void uTimerRefresh(uint32_t timerId, int32_t expires)
{
    if (timerId == 0 || expires < 0 || !service_exists()) {
        return;
    }
    thread_record_t* me = op_enter();
    timers_lock();
    const uint32_t number = uTimerPositionGet(timerId);
    if (number != 0 && has_block_locked()) {
        (void)unlink_locked(number);
        uTimerInsert(number, expires);
    }
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
    timers_lock();
    const uint32_t number = uTimerPositionGet(timerId);
    const int64_t left = number == 0 ? 0 : delta_left(&timerList, number);
    timers_unlock();
    op_leave(me);
    return left > INT32_MAX ? INT32_MAX : static_cast<int32_t>(left);
}

// ---- Expiry ----

/** Ages the list. @return whether timers have expired */
static bool age_locked(int32_t time_gap) REQUIRES(timersHeld)
{
    delta_advance(&timerList, time_gap);
    const uint32_t first = delta_first(&timerList);
    if (first == 0) {
        return false;
    }
    const int64_t left = delta_left(&timerList, first);
    node_of(first)->expires = static_cast<int32_t>(left);
    return left <= 0;
}

/** Makes a pass of the timers that have expired; there is one. */
static void begin_pass_locked(pass_t* pass) REQUIRES(timersHeld)
{
    const uint32_t chain = delta_cut(&timerList);
    const uint32_t first = delta_first(&timerList);
    uTimerNode_t* last = node_of(chain);
    uint32_t count = 1;

    if (first != 0) {
        node_of(first)->expires = static_cast<int32_t>(delta_left(&timerList, first));
    }
    forget_id_locked(chain);
    for (uint32_t number = delta_next(&timerList, chain); number != 0;
         number = delta_next(&timerList, number)) {
        forget_id_locked(number);
        set_next_block(last, node_of(number));
        last = node_of(number);
        count++;
    }
    set_next_block(last, nullptr);
    *pass = {node_of(chain), node_of(chain), last, count, false, passes};
    passes = pass;
}

/** Puts timers that expired back to the head of the list, for the next uTimerRun. */
static void put_back_locked(uTimerNode_t* chain) REQUIRES(timersHeld)
{
    if (chain == nullptr) {
        return;
    }
    const uint32_t first = number_of(chain);
    for (uint32_t number = first; number != 0; number = delta_next(&timerList, number)) {
        enter_id_locked(number);
        node_of(number)->expires = 0;
    }
    delta_put_back(&timerList, first);
}

/** The callback of the first pending timer has returned, or there is none. */
static void step(pass_t* pass)
{
    pass->called = false;
    store_release(&pass->pending, static_cast<uTimerNode_t*>(next_block(pass->pending)));
}

/** Ends a pass that has nothing pending any more, or leaves that to the next uTimerRun. */
static void end_pass_locked(pass_t* pass) REQUIRES(timersHeld)
{
    pass_t** link = &passes;
    while (*link != pass) {
        link = &(*link)->next;
    }
    *link = pass->next;
    free_done_locked(pass);
    put_back_locked(pass->pending);
}

/** Cleanup handler: the thread ends while it runs callbacks. */
static void abandon_pass(void* arg)
{
    ending_enter();
    pass_t* pass = static_cast<pass_t*>(arg);
    if (pass->called) {
        step(pass);
    }
    timers_lock();
    end_pass_locked(pass);
    timers_unlock();
}

static void run_callbacks(thread_record_t* me, pass_t* pass)
{
    pthread_cleanup_push(abandon_pass, pass);
    while (pass->pending != nullptr) {
        const uTimerNode_t* node = pass->pending;
        if (node->timeout_cb != nullptr) {
            callout_begin(me);
            pass->called = true;
            node->timeout_cb(node->param);
            callout_end(me);
        }
        step(pass);
    }
    pthread_cleanup_pop(0);
}

void uTimerRun(int32_t time_gap)
{
    if (!service_ready()) {
        return;
    }
    thread_record_t* me = op_enter();
    pass_t pass;

    timers_lock();
    const bool expired = age_locked(time_gap);
    if (expired) {
        begin_pass_locked(&pass);
    }
    timers_unlock();
    if (expired) {
        run_callbacks(me, &pass);
        timers_lock();
        end_pass_locked(&pass);
        timers_unlock();
    }
    op_leave(me);
}
