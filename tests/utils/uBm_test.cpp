#include "uBm.h"

#include "fail.h"
#include "osaSem.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <gtest/gtest.h>
#include <set>
#include <thread>
#include <vector>

namespace {

/** A pool on memory of its own, exactly as large as it has to be. */
struct pool {
    pool(uint32_t blocks, uint32_t size) : region(new char[blocks * (sizeof(uBmBufHead_t) + size)])
    {
        uBmInitHeap(&head, blocks, size, region);
    }
    ~pool()
    {
        semDelete(head.freePoolQ.lockSem);
        delete[] region;
    }
    char* data(uint32_t block)
    {
        const size_t stride = sizeof(uBmBufHead_t) + head.sizeData;
        return region + block * stride + sizeof(uBmBufHead_t);
    }
    char* region;
    uBmHostHeap_t head;
};

} // namespace

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
    uFree(nullptr);
    fail_malloc(1);
    EXPECT_EQ(uMalloc(0xffffffff), nullptr);
    fail_nothing();
}

TEST(Pool, HandsBlocksOutInOrderAndReusesThemLate)
{
    pool p(3, 24);

    EXPECT_EQ(uBmAlloc(&p.head, 24), p.data(0));
    EXPECT_EQ(uBmAlloc(&p.head, 5000), p.data(1)); // the size asked for does not matter
    uBmFree(p.data(1));
    uBmFree(nullptr);
    EXPECT_EQ(uQmDeq(&p.head.freePoolQ), p.data(2)); // a block is in front of its data
    uQmEnq(&p.head.freePoolQ, p.data(0));
    EXPECT_EQ(p.head.freePoolQ.count, 2);
    EXPECT_EQ(uBmAlloc(&p.head, 0), p.data(1));
    EXPECT_EQ(uBmAlloc(&p.head, 24), p.data(0));
    EXPECT_EQ(uBmAlloc(&p.head, 24), nullptr);
    EXPECT_EQ(p.head.freePoolQ.headPtr, nullptr);
    EXPECT_EQ(p.head.freePoolQ.tailPtr, nullptr);
    EXPECT_EQ(p.head.numBuf, 3U);
    EXPECT_EQ(p.head.numFreeBuf, 3U); // as set up; the queue has the count
    EXPECT_EQ(p.head.lowWaterMark, 3U);
}

TEST(Pool, ToleratesNullAndMissingMemory)
{
    uBmHostHeap_t head;
    uBmInitHeap(&head, 3, 8, nullptr);
    EXPECT_EQ(uBmAlloc(&head, 8), nullptr);
    semDelete(head.freePoolQ.lockSem);
    uBmInitHeap(nullptr, 3, 8, &head);
    EXPECT_EQ(uBmAlloc(nullptr, 8), nullptr);
    uQmInit(nullptr);
    uQmEnq(nullptr, &head);
    EXPECT_EQ(uQmDeq(nullptr), nullptr);

    fail_malloc(1, true);
    pool unlocked(1, 8);
    fail_nothing();
    EXPECT_EQ(unlocked.head.freePoolQ.lockSem, nullptr);
    uBmFree(uBmAlloc(&unlocked.head, 8));
    EXPECT_EQ(uBmAlloc(&unlocked.head, 8), unlocked.data(0));
}

TEST(Pool, KeepsMisalignedHeadersAndDataApart)
{
    for (uint32_t size = 1; size <= 17; size++) {
        pool p(5, size);
        for (uint32_t turn = 0; turn < 20; turn++) {
            char* block = static_cast<char*>(uBmAlloc(&p.head, size));
            ASSERT_EQ(block, p.data(turn % 5));
            memset(block, 0xff, size);
            uBmFree(block);
        }
    }
}

TEST(Pool, HoldsMoreBlocksThanItsCountCanTell)
{
    constexpr uint32_t BLOCKS = 70'000;
    pool p(BLOCKS, 1);
    EXPECT_EQ(p.head.freePoolQ.count, BLOCKS - 65'536);

    for (int pass = 0; pass < 2; pass++) {
        for (uint32_t block = 0; block < BLOCKS; block++) {
            ASSERT_EQ(uBmAlloc(&p.head, 1), p.data(block));
        }
        ASSERT_EQ(uBmAlloc(&p.head, 1), nullptr);
        for (uint32_t block = 0; block < BLOCKS; block++) {
            uBmFree(p.data(block));
        }
    }
}

TEST(Pool, KeepsEveryBlockWhenThreadsRaceForTheLast)
{
    pool p(3, sizeof(int));
    std::atomic<int> stolen = 0;
    std::vector<std::thread> threads;

    for (int self = 1; self <= 4; self++) {
        threads.emplace_back([&p, &stolen, self] {
            for (int round = 0; round < 30'000; round++) {
                int* block = static_cast<int*>(uBmAlloc(&p.head, sizeof(int)));
                if (block == nullptr) {
                    continue;
                }
                *block = self;
                if (round % 64 == 0) {
                    std::this_thread::yield();
                }
                stolen += *block != self;
                uBmFree(block);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(stolen, 0);
    EXPECT_EQ(p.head.freePoolQ.count, 3);
    const std::set<void*> all = {uBmAlloc(&p.head, 4), uBmAlloc(&p.head, 4), uBmAlloc(&p.head, 4)};
    EXPECT_EQ(all, (std::set<void*>{p.data(0), p.data(1), p.data(2)}));
    EXPECT_EQ(uBmAlloc(&p.head, 4), nullptr);
}
