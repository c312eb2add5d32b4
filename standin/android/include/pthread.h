// Threads. No cancellation; cleanup handlers are a list of records on the stack.
#pragma once
#include <sys/cdefs.h>

#include <sched.h>
#include <sys/types.h>
#include <time.h>

typedef struct {
    uint32_t flags;
    void* stack_base;
    size_t stack_size;
    size_t guard_size;
    int32_t sched_policy;
    int32_t sched_priority;
    char reserved[16];
} pthread_attr_t;
typedef struct {
    int32_t opaque[10];
} pthread_mutex_t;
typedef struct {
    int32_t opaque[12];
} pthread_cond_t;
typedef long pthread_mutexattr_t;
typedef long pthread_condattr_t;
typedef int pthread_key_t;
typedef int pthread_once_t;

#define PTHREAD_MUTEX_INITIALIZER                                                                  \
    {                                                                                              \
        {                                                                                          \
            0                                                                                      \
        }                                                                                          \
    }
#define PTHREAD_COND_INITIALIZER                                                                   \
    {                                                                                              \
        {                                                                                          \
            0                                                                                      \
        }                                                                                          \
    }
#define PTHREAD_MUTEX_NORMAL     0
#define PTHREAD_MUTEX_RECURSIVE  1
#define PTHREAD_MUTEX_ERRORCHECK 2

// Run by pthread_exit and by the return from a thread alone: nothing here unwinds a stack.
typedef struct __pthread_cleanup_t {
    struct __pthread_cleanup_t* previous;
    void (*routine)(void*);
    void* arg;
} __pthread_cleanup_t;
#define pthread_cleanup_push(routine, argument)                                                    \
    do {                                                                                           \
        __pthread_cleanup_t cleanup;                                                               \
        __pthread_cleanup_push(&cleanup, (routine), (argument));
#define pthread_cleanup_pop(execute)                                                               \
    __pthread_cleanup_pop(&cleanup, (execute));                                                    \
    }                                                                                              \
    while (0)

__BEGIN_DECLS
void __pthread_cleanup_push(__pthread_cleanup_t*, void (*)(void*), void*);
void __pthread_cleanup_pop(__pthread_cleanup_t*, int);
int pthread_attr_destroy(pthread_attr_t*);
int pthread_attr_getschedparam(const pthread_attr_t*, struct sched_param*);
int pthread_attr_getschedpolicy(const pthread_attr_t*, int*);
int pthread_attr_getstack(const pthread_attr_t*, void**, size_t*);
int pthread_attr_init(pthread_attr_t*);
int pthread_cond_broadcast(pthread_cond_t*);
int pthread_cond_destroy(pthread_cond_t*);
int pthread_cond_init(pthread_cond_t*, const pthread_condattr_t*);
int pthread_cond_signal(pthread_cond_t*);
int pthread_cond_timedwait(pthread_cond_t*, pthread_mutex_t*, const struct timespec*);
int pthread_cond_wait(pthread_cond_t*, pthread_mutex_t*);
int pthread_condattr_destroy(pthread_condattr_t*);
int pthread_condattr_init(pthread_condattr_t*);
int pthread_condattr_setclock(pthread_condattr_t*, clockid_t);
int pthread_create(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
int pthread_detach(pthread_t);
int pthread_equal(pthread_t, pthread_t);
void pthread_exit(void*) __attribute__((__noreturn__));
int pthread_getattr_np(pthread_t, pthread_attr_t*);
int pthread_getschedparam(pthread_t, int*, struct sched_param*);
void* pthread_getspecific(pthread_key_t);
int pthread_join(pthread_t, void**);
int pthread_key_create(pthread_key_t*, void (*)(void*));
int pthread_key_delete(pthread_key_t);
int pthread_mutex_destroy(pthread_mutex_t*);
int pthread_mutex_init(pthread_mutex_t*, const pthread_mutexattr_t*);
int pthread_mutex_lock(pthread_mutex_t*);
int pthread_mutex_timedlock(pthread_mutex_t*, const struct timespec*);
int pthread_mutex_trylock(pthread_mutex_t*);
int pthread_mutex_unlock(pthread_mutex_t*);
int pthread_mutexattr_destroy(pthread_mutexattr_t*);
int pthread_mutexattr_init(pthread_mutexattr_t*);
int pthread_mutexattr_settype(pthread_mutexattr_t*, int);
int pthread_once(pthread_once_t*, void (*)(void));
pthread_t pthread_self(void) __attribute__((__const__));
int pthread_setschedparam(pthread_t, int, const struct sched_param*);
int pthread_setspecific(pthread_key_t, const void*);
__END_DECLS
