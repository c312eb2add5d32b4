#include "uBm.h"

#include "fail.h"
#include "osaSem.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <gtest/gtest.h>
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

void* link_of(void* data)
{
    return (static_cast<uBmBufHead_t*>(data) - 1)->nextPtr;
}

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
    EXPECT_EQ(uBmAlloc(&p.head, 0), p.data(2));
    EXPECT_EQ(uBmAlloc(&p.head, 24), nullptr);

    uBmFree(p.data(1));
    uBmFree(p.data(0));
    uBmFree(nullptr);
    EXPECT_EQ(p.head.freePoolQ.count, 2);
    EXPECT_EQ(uBmAlloc(&p.head, 24), p.data(1));
    uBmFree(p.data(2));
    EXPECT_EQ(uBmAlloc(&p.head, 24), p.data(0));
    EXPECT_EQ(uBmAlloc(&p.head, 24), p.data(2));
    EXPECT_EQ(uBmAlloc(&p.head, 24), nullptr);
    EXPECT_EQ(p.head.freePoolQ.headPtr, nullptr);
    EXPECT_EQ(p.head.freePoolQ.tailPtr, nullptr);
    EXPECT_EQ(p.head.freePoolQ.count, 0);
    EXPECT_EQ(p.head.numBuf, 3U);
    EXPECT_EQ(p.head.numFreeBuf, 3U);
    EXPECT_EQ(p.head.lowWaterMark, 3U);
}

TEST(Queue, LinksBlocksThroughTheirHeaders)
{
    pool p(2, 8);
    EXPECT_EQ(link_of(p.data(0)), p.data(1));
    EXPECT_EQ(link_of(p.data(1)), nullptr);
    EXPECT_EQ(uQmDeq(&p.head.freePoolQ), p.data(0));
    EXPECT_EQ(link_of(p.data(0)), p.data(1)); // until it is queued again
    uQmEnq(&p.head.freePoolQ, p.data(0));
    EXPECT_EQ(link_of(p.data(0)), nullptr);
    EXPECT_EQ(link_of(p.data(1)), p.data(0));
}

TEST(Pool, ToleratesNullAndPoolsWithoutMemory)
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
}

TEST(Pool, WorksUnlockedWithoutMemoryForItsLock)
{
    fail_malloc(1, true);
    pool p(2, 8);
    fail_nothing();
    EXPECT_EQ(p.head.freePoolQ.lockSem, nullptr);
    EXPECT_EQ(uBmAlloc(&p.head, 8), p.data(0));
    uBmFree(p.data(0));
    EXPECT_EQ(uBmAlloc(&p.head, 8), p.data(1));
}

TEST(Pool, KeepsMisalignedHeadersAndDataApart)
{
    for (uint32_t size = 1; size <= 17; size++) {
        pool p(5, size);
        for (int round = 0; round < 12; round++) {
            char* one = static_cast<char*>(uBmAlloc(&p.head, size));
            char* two = static_cast<char*>(uBmAlloc(&p.head, size));
            ASSERT_TRUE(one != nullptr && two != nullptr);
            memset(one, 0xff, size);
            memset(two, 0xff, size);
            uBmFree(two);
            uBmFree(one);
        }
        for (int block = 0; block < 5; block++) {
            ASSERT_NE(uBmAlloc(&p.head, size), nullptr);
        }
        EXPECT_EQ(uBmAlloc(&p.head, size), nullptr);
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
        EXPECT_EQ(p.head.freePoolQ.count, 0);
        for (uint32_t block = 0; block < BLOCKS; block++) {
            uBmFree(p.data(block));
        }
    }
}

TEST(Pool, KeepsEveryBlockWhenThreadsRaceForTheLast)
{
    constexpr int ROUNDS = 30'000;
    pool p(3, sizeof(int));
    std::atomic<int> stolen = 0;
    std::vector<std::thread> threads;

    for (int self = 1; self <= 4; self++) {
        threads.emplace_back([&p, &stolen, self] {
            for (int round = 0; round < ROUNDS; round++) {
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
    std::vector<void*> blocks = {uBmAlloc(&p.head, 4), uBmAlloc(&p.head, 4), uBmAlloc(&p.head, 4)};
    std::sort(blocks.begin(), blocks.end());
    EXPECT_EQ(blocks, (std::vector<void*>{p.data(0), p.data(1), p.data(2)}));
    EXPECT_EQ(uBmAlloc(&p.head, 4), nullptr);
}
