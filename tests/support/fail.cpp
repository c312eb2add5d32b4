#include "fail.h"

#include <cerrno>
#include <cstddef>
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

void fail_thread(int nth)
{
    threads = {nth, false};
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
// Defined in the program, these are the whole process's. A sanitizer has its own behind them.
#define ALLOCATION(name, parameters, ...)                                                          \
    void* __libc_##name parameters;                                                                \
    [[gnu::weak]] void* __interceptor_##name parameters;                                           \
    void* name parameters                                                                          \
    {                                                                                              \
        const auto real = __interceptor_##name != nullptr ? __interceptor_##name : __libc_##name;  \
        return malloc_fails() ? nullptr : real(__VA_ARGS__);                                       \
    }
extern "C" {
ALLOCATION(malloc, (size_t size), size)
ALLOCATION(calloc, (size_t count, size_t size), count, size)
ALLOCATION(realloc, (void* block, size_t size), block, size)
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
