// The buffer pool and zero-filled allocation.
#include "bench.h"

#include "osaTask.h"
#include "uBm.h"

#include <cstdlib>
#include <cstring>
#include <glib.h>
#include <mutex>

namespace {

constexpr uint32_t BLOCKS = 300;
constexpr uint32_t BLOCK_BYTES = 64;

struct hnetd {
    uBmHostHeap_t heap;
    std::vector<char> region;
    hnetd() : region(BLOCKS * (sizeof(uBmBufHead_t) + BLOCK_BYTES))
    {
        uBmInitHeap(&heap, BLOCKS, BLOCK_BYTES, region.data());
    }
    void* take() { return uBmAlloc(&heap, BLOCK_BYTES); }
    void put_back(void* block) { uBmFree(block); }
};

// The model in a few lines: a recursive mutex, and blocks reused first in, first out.
struct model {
    struct block {
        block* next;
        char data[BLOCK_BYTES];
    };
    std::recursive_mutex lock;
    std::vector<block> blocks;
    block* head = nullptr;
    block** tail = &head;

    model() : blocks(BLOCKS)
    {
        for (block& each : blocks) {
            put_back(&each);
        }
    }
    [[gnu::noinline]] void* take()
    {
        std::lock_guard guard(lock);
        block* taken = head;
        if (taken != nullptr) {
            head = taken->next;
            tail = head != nullptr ? tail : &head;
        }
        return taken;
    }
    [[gnu::noinline]] void put_back(void* data)
    {
        std::lock_guard guard(lock);
        block* freed = static_cast<block*>(data);
        freed->next = nullptr;
        *tail = freed;
        tail = &freed->next;
    }
};

struct heap {
    void* take() { return malloc(BLOCK_BYTES); }
    void put_back(void* block) { free(block); }
};

struct slices {
    void* take() { return g_slice_alloc(BLOCK_BYTES); }
    void put_back(void* block) { g_slice_free1(BLOCK_BYTES, block); }
};

template <class Pool> void take_and_put_back(benchmark::State& state)
{
    static Pool pool;
    for (auto _ : state) {
        void* block = pool.take();
        benchmark::DoNotOptimize(block);
        pool.put_back(block);
    }
}

// The compiler would make a calloc of malloc and memset.
[[gnu::noinline]] void* malloc_and_clear(size_t bytes)
{
    void* block = malloc(bytes);
    benchmark::DoNotOptimize(block);
    return block != nullptr ? memset(block, 0, bytes) : nullptr;
}

[[gnu::noinline]] void* clear_calloc(size_t bytes)
{
    return calloc(1, bytes);
}

void* layer_malloc(size_t bytes)
{
    return ts_malloc(bytes);
}

void* utility_malloc(size_t bytes)
{
    return uMalloc(static_cast<uint32_t>(bytes));
}

template <void* (*allocate)(size_t), void (*release)(void*)> void zeroed(benchmark::State& state)
{
    const size_t bytes = static_cast<size_t>(state.range(0));
    for (auto _ : state) {
        void* block = allocate(bytes);
        benchmark::DoNotOptimize(block);
        release(block);
    }
}

} // namespace

BENCHMARK(take_and_put_back<hnetd>)->Name("pool.block/hnetd");
BENCHMARK(take_and_put_back<model>)->Name("pool.block/floor");
BENCHMARK(take_and_put_back<heap>)->Name("pool.block/malloc");
BENCHMARK(take_and_put_back<slices>)->Name("pool.block/g_slice");

BENCHMARK(zeroed<utility_malloc, uFree>)->Name("pool.zeroed/hnetd")->Arg(64)->Arg(1024);
BENCHMARK(zeroed<malloc_and_clear, free>)->Name("pool.zeroed/floor")->Arg(64)->Arg(1024);
BENCHMARK(zeroed<clear_calloc, free>)->Name("pool.zeroed/calloc")->Arg(64)->Arg(1024);
BENCHMARK(zeroed<g_malloc0, g_free>)->Name("pool.zeroed/g_malloc0")->Arg(64)->Arg(1024);
BENCHMARK(zeroed<layer_malloc, ts_free>)->Name("pool.zeroed/ts_malloc")->Arg(64)->Arg(1024);
