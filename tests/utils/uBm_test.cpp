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
    pool(uint32_t blocks, uint32_t size) : region(blocks * (sizeof(uBmBufHead_t) + size))
    {
        uBmInitHeap(&head, blocks, size, region.data());
    }
    ~pool() { semDelete(head.freePoolQ.lockSem); }
    char* data(uint32_t block)
    {
        const size_t stride = sizeof(uBmBufHead_t) + head.sizeData;
        return region.data() + block * stride + sizeof(uBmBufHead_t);
    }
    std::vector<char> region;
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
    fail_malloc(1);
    EXPECT_EQ(uMalloc(0xffffffff), nullptr);
    fail_nothing();
}

// Blocks of every alignment, which leave their neighbours' headers alone.
TEST(Pool, HandsBlocksOutInOrderAndReusesThemLate)
{
    for (uint32_t size = 1; size <= 17; size++) {
        pool p(5, size);
        EXPECT_EQ(p.head.numFreeBuf, 5U); // as set up; the queue has the count
        for (uint32_t turn = 0; turn < 20; turn++) {
            void* block = turn % 2 == 0 ? uBmAlloc(&p.head, 5000) : uQmDeq(&p.head.freePoolQ);
            ASSERT_EQ(block, p.data(turn % 5));
            memset(block, 0xff, size);
            turn % 3 == 0 ? uQmEnq(&p.head.freePoolQ, block) : uBmFree(block);
        }
    }
}

TEST(Pool, ToleratesNullAndMissingMemory)
{
    uBmHostHeap_t head;
    uBmInitHeap(&head, 3, 8, nullptr);
    EXPECT_EQ(uBmAlloc(&head, 8), nullptr);
    semDelete(head.freePoolQ.lockSem);
    uBmInitHeap(nullptr, 3, 8, &head);
    EXPECT_EQ(uBmAlloc(nullptr, 8), nullptr);
    uBmFree(nullptr);
    uQmInit(nullptr);
    uQmEnq(nullptr, &head);
    EXPECT_EQ(uQmDeq(nullptr), nullptr);

    fail_malloc(1);
    pool unlocked(1, 8);
    fail_nothing();
    EXPECT_EQ(unlocked.head.freePoolQ.lockSem, nullptr);
    uBmFree(uBmAlloc(&unlocked.head, 8));
    EXPECT_EQ(uBmAlloc(&unlocked.head, 8), unlocked.data(0));
}

TEST(Pool, HoldsMoreBlocksThanItsCountCanTell)
{
    constexpr uint32_t BLOCKS = 70'000;
    pool p(BLOCKS, 1);
    for (int pass = 0; pass < 2; pass++) {
        EXPECT_EQ(p.head.freePoolQ.count, BLOCKS - 65'536);
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
    std::vector<std::jthread> threads;

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
    threads.clear();
    EXPECT_EQ(stolen, 0);
    EXPECT_EQ(p.head.freePoolQ.count, 3);
    const std::set<void*> all = {uBmAlloc(&p.head, 4), uBmAlloc(&p.head, 4), uBmAlloc(&p.head, 4)};
    EXPECT_EQ(all, (std::set<void*>{p.data(0), p.data(1), p.data(2)}));
    EXPECT_EQ(uBmAlloc(&p.head, 4), nullptr);
}
