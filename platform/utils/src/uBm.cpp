// The buffer pool: equal blocks in a region of the caller's, whose free list is a queue of uQm.
//
// Headers may lie at any address, so the owner is read and written with memcpy. It is written once,
// before the block enters the free queue, and read by whoever took the block out of it.
//
// Nothing is locked here: the free queue locks itself.
#include "uBm.h"
#include "internal.h"

#include <string.h>

/** Where the header of a block has its heapHeader. */
static char* owner_of(void* data)
{
    return static_cast<char*>(data) - sizeof(uBmBufHead_t) + offsetof(uBmBufHead_t, heapHeader);
}

/** Makes blocks of a region and puts them into the free queue. */
static void queue_blocks(uBmHostHeap_t* pool, char* block)
{
    constexpr uint32_t header = sizeof(uBmBufHead_t);
    const uint32_t stride = header + pool->sizeData;
    const void* owner = pool;

    for (uint32_t left = pool->numBuf; left > 0; left--, block += stride) {
        memcpy(owner_of(block + header), &owner, sizeof owner);
        uQmEnq(&pool->freePoolQ, block + header);
    }
}

void uBmInitHeap(uBmHostHeap_t* heapHeader, uint32_t numBuf, uint32_t sizeBuf, void* basePtr)
{
    if (heapHeader == nullptr) {
        return;
    }
    thread_record_t* me = op_enter();
    heapHeader->numBuf = numBuf;
    heapHeader->sizeData = sizeBuf;
    heapHeader->numFreeBuf = numBuf;
    heapHeader->lowWaterMark = numBuf;
    uQmInit(&heapHeader->freePoolQ);
    heapHeader->freePoolQ.pooled = heapHeader->freePoolQ.lockSem != nullptr;
    if (basePtr != nullptr) {
        queue_blocks(heapHeader, static_cast<char*>(basePtr));
    }
    op_leave(me);
}

void* uBmAlloc(uBmHostHeap_t* heapHeader, [[maybe_unused]] uint32_t b_size)
{
    return heapHeader == nullptr ? nullptr : uQmDeq(&heapHeader->freePoolQ);
}

void uBmFree(void* bufPtr)
{
    if (bufPtr == nullptr) {
        return;
    }
    void* owner = nullptr;
    memcpy(&owner, owner_of(bufPtr), sizeof owner);
    uQmEnq(&static_cast<uBmHostHeap_t*>(owner)->freePoolQ, bufPtr);
}
