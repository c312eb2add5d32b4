#include "uBm.h"

#include "fail.h"
#include "osaSem.h"
#include "task_probe.h"
#include "together.h"

#include <algorithm>
#include <cstring>
#include <unistd.h>

/** A pool on memory of its own, exactly as large as it has to be. */
struct pool {
    pool(uint32_t blocks, uint32_t size) : region(blocks * (sizeof(uBmBufHead_t) + size))
    {
        memset(&head, 0xff, sizeof head);
        uBmInitHeap(&head, blocks, size, region.data());
    }
    ~pool() { semDelete(head.freePoolQ.lockSem); }
    char* data(uint32_t block)
    {
        return region.data() + block * head.sizeData + (block + 1) * sizeof(uBmBufHead_t);
    }
    std::vector<char> region;
    uBmHostHeap_t head;
};

TEST(Memory, ComesZeroFilledAlsoFromUsedHeap)
{
    for (uint32_t size = 1; size < 2000; size += 37) {
        void* used = malloc(size);
        memset(used, 0xff, size);
        uFree(used); // memory of plain malloc is welcome, too

        char* block = static_cast<char*>(uMalloc(size));
        ASSERT_EQ(std::count(block, block + size, '\0'), size);
        uFree(block);
    }
    uFree(uMalloc(0));
    fail_malloc(1);
    EXPECT_EQ(uMalloc(0xffffffff), nullptr);
    fail_nothing();
}

// Blocks of every alignment, which leave each other alone; and more than the count can tell.
TEST(Pool, HandsBlocksOutInOrderAndReusesThemLate)
{
    for (uint32_t size = 1; size <= 17; size++) {
        const uint32_t blocks = size < 17 ? 5 : 70'000;
        pool p(blocks, size);
        uQmQueue_t* const queue = &p.head.freePoolQ;
        EXPECT_TRUE(p.head.numBuf == blocks && p.head.sizeData == size);
        EXPECT_TRUE(p.head.numFreeBuf == blocks && p.head.lowWaterMark == blocks);
        for (uint32_t turn = 0; turn < 4 * blocks; turn++) {
            ASSERT_EQ(queue->count, blocks % 65'536);
            void* block = turn % 2 == 0 ? uBmAlloc(&p.head, 5000) : uQmDeq(queue);
            ASSERT_EQ(block, p.data(turn % blocks));
            memset(block, 0xff, size);
            turn % 3 == 0 ? uQmEnq(queue, block) : uBmFree(block);
        }
        for (uint32_t block = 0; block < blocks; block++) {
            ASSERT_EQ(uBmAlloc(&p.head, 1), p.data(block));
        }
        EXPECT_EQ(uBmAlloc(&p.head, 1), nullptr);
        EXPECT_TRUE(queue->headPtr == nullptr && queue->tailPtr == nullptr && queue->count == 0);
        uBmFree(p.data(1));
        uBmFree(p.data(0));
        uBmBufHead_t last;
        memcpy(&last, p.data(0) - sizeof last, sizeof last);
        EXPECT_EQ(last.nextPtr, nullptr);
        EXPECT_EQ(uBmAlloc(&p.head, 1), p.data(1));
    }
}

TEST(Pool, WorksWithoutARegionOrALock)
{
    uBmHostHeap_t head;
    memset(&head, 0xff, sizeof head);
    uBmInitHeap(&head, 3, 8, nullptr);
    EXPECT_EQ(uBmAlloc(&head, 8), nullptr);
    EXPECT_EQ(head.freePoolQ.tailPtr, nullptr);
    uQmEnq(&head.freePoolQ, nullptr);
    semDelete(head.freePoolQ.lockSem);
    void* const block = uMalloc(8);
    EXPECT_TRUE(ends_in([=] { uFree(block); })); // a leak shows under the address sanitizer
    fail_malloc(1);
    pool unlocked(1, 8);
    fail_nothing();
    EXPECT_EQ(unlocked.head.freePoolQ.lockSem, nullptr);
    EXPECT_EQ(unlocked.head.freePoolQ.pooled, 0); // a word needs a semaphore to wait with
    uBmFree(uBmAlloc(&unlocked.head, 8));
    EXPECT_EQ(uBmAlloc(&unlocked.head, 8), unlocked.data(0));
}

// In a queue of one's own: who has taken its semaphore. In the free queue of a pool: who is in it.
TEST(Pool, QueuesWaitForWhoHasThem)
{
    pool p(2, 8);
    uQmQueue_t own;
    uQmInit(&own);
    for (uQmQueue_t* queue : {&own, &p.head.freePoolQ}) {
        void* const blocks[] = {uBmAlloc(&p.head, 8), uBmAlloc(&p.head, 8)};
        std::atomic<bool> done = false;
        queue == &own ? semTake(own.lockSem, WAIT_FOREVER)
                      : __atomic_exchange_n(&queue->held, 1, 5);
        std::jthread other([&] {
            uQmEnq(queue, blocks[1]);
            done = true;
        });
        usleep(2000);
        EXPECT_FALSE(done);
        EXPECT_EQ(queue->headPtr, nullptr);
        queue == &own ? uQmEnq(queue, blocks[0]) : uBmFree(nullptr); // recursive for its holder
        queue == &own ? semGive(own.lockSem) : __atomic_exchange_n(&queue->held, 0, 5);
        other.join();
        EXPECT_EQ(semTake(queue->lockSem, NO_WAIT) + semGive(queue->lockSem), 2 * OK);
        uBmFree(queue == &own ? uQmDeq(queue) : blocks[0]);
        EXPECT_TRUE(ends_in([=] { uQmDeq(queue); })); // having let go of it
        uBmFree(blocks[1]);
    }
    semDelete(own.lockSem);
}

TEST(Pool, KeepsEveryBlockWhenThreadsRaceForTheLast)
{
    pool p(3, sizeof(int));
    std::atomic<int> stolen = 0;
    together(4, [&](int self) {
        for (int round = 0; round < 60'000; round++) {
            int* block = static_cast<int*>(uBmAlloc(&p.head, sizeof(int)));
            if (block != nullptr) {
                *block = self;
                round % 64 == 0 ? std::this_thread::yield() : void();
                stolen += *block != self;
                uBmFree(block);
            }
        }
    });
    EXPECT_EQ(stolen, 0);
    EXPECT_EQ(p.head.freePoolQ.count, 3);
    const auto more = [&p] { return uBmAlloc(&p.head, 4) != nullptr; };
    EXPECT_TRUE(more() && more() && more() && !more());
}
