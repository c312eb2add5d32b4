// The event registry: a table of events, each with its list of handlers.
//
// An event is its two keys. It lies in the slot that its second key names, or in the first one
// behind it that was free. Beside the table there are chains of the events with the same second
// key, for the way from slot to slot gets long as the table fills, and is cut where an event has
// left.
//
// A raise copies the handlers and calls the copies with the registry unlocked. Up to 16 copies lie
// on the stack; a block with more hangs on a cleanup handler during the calls, for a handler may
// end its thread. Without memory for the block the live list is walked with the registry locked:
// the walk is entered in `walks`, whoever frees a node moves the walks that stand on it forward,
// and serials keep a walk from handlers that were registered after it began, for ever if they
// register again.
//
// The registry is locked by a word, registry_word, and who finds it held sleeps with semEvent. The
// word is not recursive, but handlers called in a walk may use the registry. So a walk says whose
// thread it is (walker): that thread passes, and its sections inside do not let the word go.
//
// Word and semaphore are created by the first operation and stay for the life of the process:
// uEventUninit drops the table, but the lock of that moment may have waiters. The table is built
// again under it.
//
// Locks, outermost first:
//   creation_lock   the creation of the lock
//   registry_word   with semEvent for its waiters; everything else here
// Nothing is logged with one of them held.
#include "uEvent.h"

#include "hashMethod.h"
#include "internal.h"
#include "lockWord.h"
#include "nxaLog.h"
#include "osaSem.h"
#include "uBm.h"

static constexpr int32_t SLOTS = 256; // as many as the second key of a name tells apart
static constexpr size_t FEW_HANDLERS = 16;

// What uEventSearchHash answers beside the index of a slot.
static constexpr int32_t TABLE_FULL = -1;
static constexpr int32_t NOT_FOUND = -2;

static const char* const sEventModuleLogTag = "quarn.utils.event";

typedef struct uEventNode {
    struct uEventNode* next;
    void* handle;
    EVENTPROCESS eventProcess;
    uint64_t serial; // number of the registration, ascending along the list
} uEventNode_t;

typedef struct eventBuff {
    int32_t isExist;        // 1: holds an event
    int64_t hashAddressA;   // bkdrHash(name)
    int64_t hashAddressB;   // rsHash(name, SLOTS)
    uEventNode_t* head;     // in order of registration
    struct eventBuff* next; // event with the same hashAddressB
    int32_t index;          // of the slot
} eventBuff_t;

/** A handler as a raise calls it. */
typedef struct {
    void* handle;
    EVENTPROCESS eventProcess;
} copy_t;

/** What a raise hands to every handler. */
typedef struct {
    char* eventName;
    int32_t* eventParam;
    size_t paramSize;
} raise_t;

/** A raise that calls handlers from the live list, on the stack of the thread with the lock. */
typedef struct walk {
    struct walk* outer;
    uEventNode_t* next; // handler to call next
} walk_t;

enum class outcome_t : uint8_t { DONE, ALREADY, FULL, FAILED };

static constexpr lock_role_t eventHeld; // registry_word

static pthread_mutex_t creation_lock = PTHREAD_MUTEX_INITIALIZER;
static SEM_ID semEvent = nullptr; // atomic: released once, with registry_word in order
static lock_word_t registry_word;
static pthread_t walker = 0; // thread of the walks, or 0; atomic, written locked
static eventBuff_t* eventBuffArea_t[SLOTS] GUARDED_BY(eventHeld);
static int32_t sIsEventInit GUARDED_BY(eventHeld) = 0;   // 1: all slots are there
static eventBuff_t* chains[SLOTS] GUARDED_BY(eventHeld); // events by hashAddressB
static int32_t event_count GUARDED_BY(eventHeld) = 0;    // in the table
static uint64_t last_serial GUARDED_BY(eventHeld) = 0;
static walk_t* walks GUARDED_BY(eventHeld) = nullptr; // innermost first

// ---- The lock and the table ----

static bool create_lock(void)
{
    static constexpr lock_role_t creationHeld;
    bool created = false;

    LOCK_SECTION(&creation_lock, creationHeld);
    if (semEvent == nullptr) {
        lock_word_init(&registry_word);
        store_release(&semEvent, semMCreate(0));
    }
    created = semEvent != nullptr;
    END_SECTION(creationHeld);
    return created;
}

// False without memory for the lock: nothing can be done.
static bool has_lock(void)
{
    return load_acquire(&semEvent) != nullptr || create_lock();
}

static void lock_registry(void) ACQUIRES(eventHeld) UNCHECKED
{
    // Whenever the load is made: a thread sees its own id there exactly while it walks.
    if (!lock_word_try(&registry_word) && load_relaxed(&walker) != pthread_self()) {
        lock_word_wait(&registry_word, sem_mutex(semEvent));
    }
}

static void unlock_registry(void) RELEASES(eventHeld) UNCHECKED
{
    if (walks == nullptr) { // otherwise this section lies inside a walk
        lock_word_give(&registry_word, sem_mutex(semEvent));
    }
}

static void free_slots_locked(void) REQUIRES(eventHeld)
{
    for (eventBuff_t*& slot : eventBuffArea_t) {
        uFree(slot);
        slot = nullptr;
    }
}

static void build_table_locked(void) REQUIRES(eventHeld)
{
    for (eventBuff_t*& slot : eventBuffArea_t) {
        slot = static_cast<eventBuff_t*>(uMalloc(sizeof(eventBuff_t)));
        if (slot == nullptr) {
            free_slots_locked();
            return;
        }
    }
    sIsEventInit = 1;
}

// Without memory the table is not there: nothing is found in it, and nothing registered.
static void lock_table(void) ACQUIRES(eventHeld)
{
    lock_registry();
    if (sIsEventInit == 0) {
        build_table_locked();
    }
}

// ---- Events in the table ----

static eventBuff_t* find_locked(name_keys_t keys) REQUIRES(eventHeld)
{
    eventBuff_t* slot = chains[keys.b];

    while (slot != nullptr && slot->hashAddressA != keys.a) {
        slot = slot->next;
    }
    return slot;
}

static int32_t uEventSearchHash(char* eventName) REQUIRES(eventHeld)
{
    const eventBuff_t* slot = find_locked(keys_of(eventName));

    if (slot != nullptr) {
        return slot->index;
    }
    return event_count == SLOTS ? TABLE_FULL : NOT_FOUND;
}

static int32_t uEventRegister(char*, int64_t hashAddressA, int64_t hashAddressB, int32_t hashStart)
    REQUIRES(eventHeld)
{
    int32_t index = hashStart;

    if (sIsEventInit == 0) {
        return -1;
    }
    while (eventBuffArea_t[index]->isExist != 0) {
        index = (index + 1) % SLOTS;
        if (index == hashStart) {
            return -1;
        }
    }
    eventBuff_t** chain = &chains[hashAddressB];
    *eventBuffArea_t[index] = {1, hashAddressA, hashAddressB, nullptr, *chain, index};
    *chain = eventBuffArea_t[index];
    event_count++;
    return index;
}

static void free_node_locked(uEventNode_t* node) REQUIRES(eventHeld)
{
    for (walk_t* walk = walks; walk != nullptr; walk = walk->outer) {
        if (walk->next == node) {
            walk->next = node->next;
        }
    }
    uFree(node);
}

// Of an event whose handlers are gone.
static void uEventUnregister(char* eventName) REQUIRES(eventHeld)
{
    const int32_t index = uEventSearchHash(eventName);

    if (index < 0) {
        return;
    }
    eventBuff_t* slot = eventBuffArea_t[index];
    eventBuff_t** link = &chains[slot->hashAddressB];
    while (*link != slot) {
        link = &(*link)->next;
    }
    *link = slot->next;
    *slot = {};
    event_count--;
}

// ---- Init and uninit ----

void uEventInit(void)
{
    bool existed = false;

    thread_record_t* me = op_enter();
    if (has_lock()) {
        lock_registry();
        existed = sIsEventInit != 0;
        if (!existed) {
            build_table_locked();
        }
        unlock_registry();
    }
    if (existed) {
        __halden_log_print(NXA_LOG_INFO, sEventModuleLogTag, "Event is alreday init.");
    }
    op_leave(me);
}

static void drop_table_locked(void) REQUIRES(eventHeld)
{
    for (const eventBuff_t* slot : eventBuffArea_t) {
        uEventNode_t* node = slot->head;
        while (node != nullptr) {
            uEventNode_t* const next = node->next;
            free_node_locked(node);
            node = next;
        }
    }
    for (eventBuff_t*& chain : chains) {
        chain = nullptr;
    }
    free_slots_locked();
    event_count = 0;
    sIsEventInit = 0;
}

void uEventUninit(void)
{
    bool existed = false;

    thread_record_t* me = op_enter();
    if (load_acquire(&semEvent) != nullptr) {
        lock_registry();
        existed = sIsEventInit != 0;
        if (existed) {
            drop_table_locked();
        }
        unlock_registry();
    }
    if (!existed) {
        __halden_log_print(NXA_LOG_INFO, sEventModuleLogTag, "Event not init.");
    }
    op_leave(me);
}

// ---- Care and clear ----

// The link that leads to a handler, or the end of the list.
static uEventNode_t** link_of(uEventNode_t** link, EVENTPROCESS eventProcess)
{
    while (*link != nullptr && (*link)->eventProcess != eventProcess) {
        link = &(*link)->next;
    }
    return link;
}

// An event that is not there yet, for its first handler. @return its slot; null if there is no room
static eventBuff_t* register_event_locked(char* eventName) REQUIRES(eventHeld)
{
    const name_keys_t keys = keys_of(eventName);
    const int32_t index = uEventRegister(eventName, keys.a, keys.b, static_cast<int32_t>(keys.b));

    return index >= 0 ? eventBuffArea_t[index] : nullptr;
}

// The node is made first, so that a failure leaves no event without handlers behind.
static outcome_t care_locked(char* eventName, EVENTPROCESS eventProcess, void* handle)
    REQUIRES(eventHeld)
{
    const int32_t index = uEventSearchHash(eventName);
    if (index == TABLE_FULL) {
        return outcome_t::FULL;
    }
    eventBuff_t* slot = index >= 0 ? eventBuffArea_t[index] : nullptr;
    if (slot != nullptr && *link_of(&slot->head, eventProcess) != nullptr) {
        return outcome_t::ALREADY;
    }
    uEventNode_t* node = static_cast<uEventNode_t*>(uMalloc(sizeof(uEventNode_t)));
    if (node == nullptr) {
        return outcome_t::FAILED;
    }
    if (slot == nullptr) {
        slot = register_event_locked(eventName);
    }
    if (slot == nullptr) {
        uFree(node);
        return outcome_t::FAILED;
    }
    *node = {nullptr, handle, eventProcess, ++last_serial};
    *link_of(&slot->head, eventProcess) = node;
    return outcome_t::DONE;
}

bool_t uEventCare(char* eventName, EVENTPROCESS eventProcess, void* handle)
{
    outcome_t outcome = outcome_t::FAILED;

    thread_record_t* me = op_enter();
    if (has_lock()) {
        lock_table();
        outcome = care_locked(eventName, eventProcess, handle);
        unlock_registry();
    }
    if (outcome == outcome_t::FULL) {
        __halden_log_print(NXA_LOG_ERROR, sEventModuleLogTag, "Event hash buffer full.");
    } else if (outcome == outcome_t::FAILED) {
        __halden_log_print(NXA_LOG_ERROR, sEventModuleLogTag, "register event %s fail.",
                           eventName != nullptr ? eventName : "");
    } else if (outcome == outcome_t::ALREADY) {
        __halden_log_print(NXA_LOG_DEBUG, sEventModuleLogTag, "eventprocess has existed\n");
    }
    op_leave(me);
    return outcome == outcome_t::DONE || outcome == outcome_t::ALREADY;
}

static outcome_t clear_locked(char* eventName, EVENTPROCESS eventProcess) REQUIRES(eventHeld)
{
    const int32_t index = uEventSearchHash(eventName);
    if (index < 0) {
        return outcome_t::FAILED;
    }
    uEventNode_t** head = &eventBuffArea_t[index]->head;
    uEventNode_t** link = link_of(head, eventProcess);
    uEventNode_t* node = *link;
    if (node == nullptr) {
        return outcome_t::ALREADY;
    }
    *link = node->next;
    free_node_locked(node);
    if (*head == nullptr) {
        uEventUnregister(eventName);
    }
    return outcome_t::DONE;
}

bool_t uEventClear(char* eventName, EVENTPROCESS eventProcess, void*)
{
    outcome_t outcome = outcome_t::FAILED;

    thread_record_t* me = op_enter();
    if (has_lock()) {
        lock_table();
        outcome = clear_locked(eventName, eventProcess);
        unlock_registry();
    }
    if (outcome == outcome_t::ALREADY) {
        __halden_log_print(NXA_LOG_DEBUG, sEventModuleLogTag, "This eventprocess didn't exist");
    }
    op_leave(me);
    return outcome != outcome_t::FAILED;
}

// ---- Raise ----

// A handler may be null: then somebody cares for the event, and nothing is called.
static const uEventNode_t* callable_from(const uEventNode_t* node)
{
    while (node != nullptr && node->eventProcess == nullptr) {
        node = node->next;
    }
    return node;
}

// Copies the handlers to few, or to a block when there are more. @return number of handlers, with
// *copies null if there is no memory for the block
static size_t copy_handlers_locked(const uEventNode_t* head, copy_t* few, copy_t** copies)
    REQUIRES(eventHeld)
{
    size_t count = 0;

    for (const uEventNode_t* node = callable_from(head); node != nullptr;
         node = callable_from(node->next)) {
        if (count < FEW_HANDLERS) {
            few[count] = {node->handle, node->eventProcess};
        }
        count++;
    }
    *copies = few;
    if (count <= FEW_HANDLERS) {
        return count;
    }
    copy_t* copy = static_cast<copy_t*>(uMalloc(static_cast<uint32_t>(count * sizeof(copy_t))));
    *copies = copy;
    for (const uEventNode_t* node = callable_from(head); node != nullptr && copy != nullptr;
         node = callable_from(node->next)) {
        *copy++ = {node->handle, node->eventProcess};
    }
    return count;
}

// At the depth of the raiser, who may be ended in any of the handlers.
static void call_copies(thread_record_t* me, const raise_t* raise, const copy_t* copies,
                        size_t count)
{
    callout_begin(me);
    for (size_t i = 0; i < count; i++) {
        copies[i].eventProcess(raise->eventName, copies[i].handle, raise->eventParam,
                               raise->paramSize);
    }
    callout_end(me);
}

static void free_copies(void* copies)
{
    ending_enter();
    uFree(copies);
}

static void call_block(thread_record_t* me, const raise_t* raise, copy_t* copies, size_t count)
{
    pthread_cleanup_push(free_copies, copies);
    call_copies(me, raise, copies, count);
    pthread_cleanup_pop(0);
    uFree(copies);
}

static void set_innermost_locked(walk_t* walk) REQUIRES(eventHeld)
{
    walks = walk;
    store_relaxed(&walker, walk != nullptr ? pthread_self() : 0);
}

// A handler ended its thread in the middle of a walk. Walks around this one are given up after it.
static void abandon_walk(void* walk) UNCHECKED
{
    ending_enter();
    set_innermost_locked(static_cast<walk_t*>(walk)->outer);
    unlock_registry();
}

// The lock is held over the handlers, and so they run inside the operation.
static void walk_handlers_locked(const raise_t* raise, uEventNode_t* head) REQUIRES(eventHeld)
{
    walk_t walk = {walks, head};
    const uint64_t newest = last_serial;

    set_innermost_locked(&walk);
    pthread_cleanup_push(abandon_walk, &walk);
    while (walk.next != nullptr && walk.next->serial <= newest) {
        const uEventNode_t* node = walk.next;
        walk.next = node->next;
        if (node->eventProcess != nullptr) {
            node->eventProcess(raise->eventName, node->handle, raise->eventParam, raise->paramSize);
        }
    }
    pthread_cleanup_pop(0);
    set_innermost_locked(walk.outer);
}

bool_t uEventRaise(char* eventName, int32_t* eventParam, size_t paramSize)
{
    const raise_t raise = {eventName, eventParam, paramSize};
    copy_t few[FEW_HANDLERS];
    copy_t* copies = nullptr;
    size_t count = 0;
    bool known = false;

    thread_record_t* me = op_enter();
    const name_keys_t keys = keys_of(eventName);
    if (has_lock()) {
        lock_table();
        const eventBuff_t* slot = find_locked(keys);
        known = slot != nullptr;
        if (known) {
            uEventNode_t* head = slot->head;
            count = copy_handlers_locked(head, few, &copies);
            if (copies == nullptr) {
                walk_handlers_locked(&raise, head);
            }
        }
        unlock_registry();
    }
    if (!known) {
        __halden_log_print(NXA_LOG_DEBUG, sEventModuleLogTag, "No module care event %s.",
                           eventName != nullptr ? eventName : "");
    } else if (copies == few) {
        call_copies(me, &raise, copies, count);
    } else if (copies != nullptr) {
        call_block(me, &raise, copies, count);
    }
    op_leave(me);
    return known;
}
