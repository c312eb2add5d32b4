// The queue manager: locked first-in-first-out queues of blocks.
//
// The link to the next block stands in the block's header, which may lie at any address, so it is
// read and written with memcpy. It keeps its value when the block leaves the queue. What decides
// whether a queue is empty is headPtr; count wraps and decides nothing.
//
// Lock (queueHeld): the queue's own semaphore. In the free queue of a pool a word, in front of the
// semaphore: a block is taken or put back in a few nanoseconds, of which a mutex would be two
// thirds. No other lock is taken inside. headPtr alone is also read without it, and relaxed: who
// finds nothing touches nothing, and who knows that a block was put in finds at least that one.
#include "uQm.h"
#include "uBm.h"
#include "internal.h"
#include "osaSem.h"

#include <string.h>
#include <time.h>

static constexpr int LOOKS = 100;      // at a word that is held, before the first nap: most
                                       // sections are over by then, unless the holder was preempted
static constexpr long NAP_NS = 50'000; // lets the holder go on, whatever its priority

static constexpr lock_role_t queueHeld; // lock of the queue at hand

static bool try_word(uQmQueue_t* queue)
{
    return exchange_acquire(&queue->held, 1) == 0;
}

/** Takes the word of a queue once it is free. One thread looks at it, others wait for that one. */
static void wait_for_word(uQmQueue_t* queue)
{
    const struct timespec nap = {.tv_sec = 0, .tv_nsec = NAP_NS};

    own_sem_take(queue->lockSem);
    for (int looks = 0; load_relaxed(&queue->held) != 0 || !try_word(queue); looks++) {
        if (looks >= LOOKS) {
            clock_nanosleep(CLOCK_MONOTONIC, 0, &nap, nullptr);
        }
    }
    own_sem_give(queue->lockSem);
}

/** The longer ways, apart from the one that a pool's blocks go. */
[[gnu::noinline]] static void lock_slowly(uQmQueue_t* queue)
{
    if (queue->pooled != 0) {
        wait_for_word(queue);
    } else if (queue->lockSem != nullptr) {
        own_sem_take(queue->lockSem);
    }
}

[[gnu::noinline]] static void unlock_sem(uQmQueue_t* queue)
{
    if (queue->lockSem != nullptr) {
        own_sem_give(queue->lockSem);
    }
}

static void uQmLock(uQmQueue_t* queueHeader) ACQUIRES(queueHeld) UNCHECKED
{
    if (__builtin_expect(queueHeader->pooled == 0 || !try_word(queueHeader), 0)) {
        lock_slowly(queueHeader);
    }
}

static void uQmUnlock(uQmQueue_t* queueHeader) RELEASES(queueHeld) UNCHECKED
{
    if (__builtin_expect(queueHeader->pooled == 0, 0)) {
        unlock_sem(queueHeader);
    } else {
        store_release(&queueHeader->held, 0);
    }
}

/** Where the header of a block has its nextPtr. */
static char* link_of(void* data)
{
    return static_cast<char*>(data) - sizeof(uBmBufHead_t) + offsetof(uBmBufHead_t, nextPtr);
}

static void set_next(void* data, void* next)
{
    memcpy(link_of(data), &next, sizeof next);
}

static void* next_of(void* data)
{
    void* next = nullptr;
    memcpy(&next, link_of(data), sizeof next);
    return next;
}

static void* dequeue_locked(uQmQueue_t* queue) REQUIRES(queueHeld)
{
    void* head = queue->headPtr;
    if (head == nullptr) {
        return nullptr;
    }
    if (head == queue->tailPtr) {
        store_relaxed<void*>(&queue->headPtr, nullptr);
        queue->tailPtr = nullptr;
    } else {
        store_relaxed(&queue->headPtr, next_of(head));
    }
    queue->count--;
    return head;
}

static void enqueue_locked(uQmQueue_t* queue, void* block) REQUIRES(queueHeld)
{
    set_next(block, nullptr);
    if (queue->headPtr != nullptr) {
        set_next(queue->tailPtr, block);
    } else {
        store_relaxed(&queue->headPtr, block);
    }
    queue->tailPtr = block;
    queue->count++;
}

void uQmInit(uQmQueue_t* queueHeader)
{
    if (queueHeader == nullptr) {
        return;
    }
    thread_record_t* me = op_enter();
    queueHeader->lockSem = semMCreate(0);
    queueHeader->headPtr = nullptr;
    queueHeader->tailPtr = nullptr;
    queueHeader->count = 0;
    queueHeader->pooled = 0;
    queueHeader->held = 0;
    op_leave(me);
}

void uQmEnq(uQmQueue_t* queueHeader, void* bufPtr)
{
    if (queueHeader == nullptr || bufPtr == nullptr) {
        return;
    }
    thread_record_t* me = op_enter();
    uQmLock(queueHeader);
    enqueue_locked(queueHeader, bufPtr);
    uQmUnlock(queueHeader);
    op_leave(me);
}

void* uQmDeq(uQmQueue_t* queueHeader)
{
    if (queueHeader == nullptr || load_relaxed(&queueHeader->headPtr) == nullptr) {
        return nullptr;
    }
    thread_record_t* me = op_enter();
    uQmLock(queueHeader);
    void* head = dequeue_locked(queueHeader);
    uQmUnlock(queueHeader);
    op_leave(me);
    return head;
}
