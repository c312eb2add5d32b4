// Memory of the utility library: zero-filled allocation from the heap, and the buffer pool, a fixed
// number of blocks of one size carved out of a region that the caller supplies.
//
// A pool hands its blocks out and takes them back in constant time and never touches the heap. Its
// free blocks queue up first in, first out, so a block that was freed is used again as late as
// possible. Callers see the address of a block's data; the block's header lies right in front of
// it. Data is not cleared, neither when the pool is built nor when a block is handed out.
//
// The pool record and the region belong to the caller, who keeps both for as long as blocks are in
// use; there is no operation to tear a pool down.
//
// Any thread may call any operation. None of them waits but for a thread that is in the middle of
// one with the same pool.
#pragma once

#include "uQm.h"

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct uBmHostHeap uBmHostHeap_t;

/** Header in front of a block's data. Not aligned where the data size is no multiple of 8. */
typedef struct uBmBufHead {
    uBmHostHeap_t* heapHeader; // the pool that owns the block; constant
    uint32_t* nextPtr;         // data of the next block in a queue; null at its end
} uBmBufHead_t;

/** Pool. Constant once built, except for the queue. */
struct uBmHostHeap {
    uint32_t numBuf;       // blocks in the pool
    uint32_t sizeData;     // data bytes in a block
    uint32_t numFreeBuf;   // numBuf; not kept current
    uint32_t lowWaterMark; // numBuf; not kept current
    uQmQueue_t freePoolQ;  // the free blocks
};

static_assert(offsetof(uBmBufHead_t, nextPtr) == 8 && sizeof(uBmBufHead_t) == 16);
static_assert(offsetof(uBmHostHeap_t, lowWaterMark) == 12);
static_assert(offsetof(uBmHostHeap_t, freePoolQ) == 16 && sizeof(uBmHostHeap_t) == 48);

/**
 * Allocates zero-filled memory from the heap.
 *
 * @param num_bytes  bytes; for 0 the result may be either null or an address to free
 * @return the memory, for uFree to release; null when the heap is exhausted
 */
void* uMalloc(uint32_t num_bytes);

/** Releases memory of uMalloc or malloc; null is ignored. */
void uFree(void* ptr);

/**
 * Builds a pool. Its free blocks stand in the order of their addresses.
 *
 * @param heapHeader  record of the pool; what it held before does not matter
 * @param numBuf      blocks
 * @param sizeBuf     data bytes in a block; a header and its data, taken together, are less than
 *                    4 GiB. Blocks lie back to back, so a multiple of 8 keeps them aligned
 * @param basePtr     region of numBuf times (sizeof(uBmBufHead_t) + sizeBuf) bytes; null: the pool
 *                    has no blocks to hand out
 *
 * Without memory for the lock of the free queue the pool works without one.
 */
void uBmInitHeap(uBmHostHeap_t* heapHeader, uint32_t numBuf, uint32_t sizeBuf, void* basePtr);

/**
 * Takes a free block, the one that has been free for longest.
 *
 * @param b_size  not used: a block has the pool's sizeData bytes whatever is asked for
 * @return its data, for uBmFree to release; null when no block is free
 */
void* uBmAlloc(uBmHostHeap_t* heapHeader, uint32_t b_size);

/**
 * Gives a block back to its pool; null is ignored.
 *
 * @param bufPtr  data of a block from uBmAlloc. A block that is free already, or never came from a
 *                pool, is not noticed and breaks the pool.
 */
void uBmFree(void* bufPtr);

#ifdef __cplusplus
}
#endif
