#include "fail.h"

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <pthread.h>

extern "C" int __real_pthread_create(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);

struct countdown {
    int left;
    bool and_after;
};

static constinit thread_local countdown mallocs = {0, false};
static constinit thread_local countdown threads = {0, false};
static constinit thread_local bool has_failed = false;
static constinit thread_local int calls = 0;

static bool fails(countdown* c)
{
    if (c->left == 0 || --c->left > 0) {
        return false;
    }
    c->left = c->and_after ? 1 : 0;
    has_failed = true;
    return true;
}

void fail_malloc(int nth, bool and_after)
{
    mallocs = {nth, and_after};
    has_failed = false;
    calls = 0;
}

void fail_thread(int nth, bool and_after)
{
    threads = {nth, and_after};
    has_failed = false;
}

void fail_nothing()
{
    mallocs = threads = {0, false};
}

bool failed()
{
    return has_failed;
}

int malloc_calls()
{
    return calls;
}

static bool malloc_fails()
{
    calls++;
    if (!fails(&mallocs)) {
        return false;
    }
    errno = ENOMEM;
    return true;
}

#ifdef FAIL_ALL
static std::atomic<long> live = 0;

long live_blocks()
{
    return live;
}

// Defined in the program, these are the whole process's. A sanitizer has its own behind them, and
// looks who calls: the last thing that is done here is the call, which takes this frame's place.
#define BEHIND(result, name, ...)                                                                  \
    result __libc_##name(__VA_ARGS__);                                                             \
    [[gnu::weak]] result __interceptor_##name(__VA_ARGS__);
#define REAL(name) (__interceptor_##name != nullptr ? __interceptor_##name : __libc_##name)
#define ALLOCATION(name, parameters, is_new, ...)                                                  \
    BEHIND(void*, name, parameters)                                                                \
    void* name(parameters)                                                                         \
    {                                                                                              \
        if (malloc_fails()) {                                                                      \
            return nullptr;                                                                        \
        }                                                                                          \
        live += (is_new) ? 1 : 0; /* as if it succeeded */                                         \
        return REAL(name)(__VA_ARGS__);                                                            \
    }
#define BOTH(first, second) first, second
extern "C" {
ALLOCATION(malloc, size_t size, size <= PTRDIFF_MAX, size)
ALLOCATION(calloc, BOTH(size_t count, size_t size), true, count, size)
ALLOCATION(realloc, BOTH(void* old, size_t size), old == nullptr, old, size)
BEHIND(void, free, void* block)
void free(void* block)
{
    live -= block != nullptr ? 1 : 0;
    REAL(free)(block);
}
}
#else
extern "C" void* __real_malloc(size_t size);
extern "C" void* __wrap_malloc(size_t size)
{
    return malloc_fails() ? nullptr : __real_malloc(size);
}
#endif

extern "C" int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attr,
                                     void* (*entry)(void*), void* arg)
{
    return fails(&threads) ? EAGAIN : __real_pthread_create(thread, attr, entry, arg);
}
