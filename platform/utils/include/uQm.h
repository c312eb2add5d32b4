// The queue manager: first-in-first-out queues of blocks, linked through the header that the
// buffer pool (uBm.h) places in front of every block.
//
// Blocks are named by the address of their data. A block is in one queue at most, and comes from a
// pool or is laid out like one of its blocks: a uBmBufHead_t directly in front of the data, which
// need not be aligned. A queue owns nothing; its record belongs to the caller.
//
// Any thread may call any operation. Enqueueing and dequeueing hold the queue's lock for a few
// pointer updates. Null queues and null blocks are ignored.
#pragma once

#include "vxw_defs.h"

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Queue. Guarded by lockSem; whether it is empty may be seen without it. Who has taken lockSem, by
 * semTake, has the queue to itself over several operations.
 *
 * The free queue of a pool is guarded by a word of its own instead (`held`), and lockSem is what
 * threads that find the word held wait with: having taken it keeps nobody out of that queue.
 */
typedef struct uQmQueue {
    SEM_ID lockSem;  // mutual exclusion; null: a queue that works without a lock
    void* headPtr;   // data of the first block, null when empty; atomic, written locked
    void* tailPtr;   // data of the last block, null when empty
    uint16_t count;  // blocks in the queue, modulo 65,536
    uint16_t pooled; // own: 1 in the free queue of a pool; constant
    int32_t held;    // own: 1 while a thread is in such a queue; atomic
} uQmQueue_t;

static_assert(offsetof(uQmQueue_t, headPtr) == 8 && offsetof(uQmQueue_t, tailPtr) == 16);
static_assert(offsetof(uQmQueue_t, count) == 24 && sizeof(uQmQueue_t) == 32);

/**
 * Makes an empty queue of a record, whatever the record held before. Without memory for the lock
 * the queue works without one. The lock is never released: a queue lives as long as its pool.
 */
void uQmInit(uQmQueue_t* queueHeader);

/** Puts a block at the end of a queue. */
void uQmEnq(uQmQueue_t* queueHeader, void* bufPtr);

/** Takes the first block of a queue. @return its data, or null when the queue is empty */
void* uQmDeq(uQmQueue_t* queueHeader);

#ifdef __cplusplus
}
#endif
