// What the explorer's two halves share: explorer.cpp chooses who runs, libc.cpp is the C library
// that the threads see.
#pragma once

#include <pthread.h>
#include <setjmp.h>
#include <signal.h>

#include <cstdint>

constexpr int THREADS = 14; // alive at a time, the controlling one included
constexpr int KEYS = 4;
constexpr int HELD = 16;
constexpr int64_t NEVER = INT64_MAX;
constexpr int64_t NS_PER_S = 1'000'000'000;
constexpr int64_t EPOCH_NS = 1'700'000'000 * NS_PER_S; // wall clock at instant 0 of a schedule

enum class state_t : uint8_t {
    FREE,
    READY,
    LOOKING, // at a word that nobody has changed meanwhile
    LOCK,    // object: the mutex
    COND,    // object: the condition
    SLEEP,
    TICK,  // the tick that a deletion grants to latecomers
    JOIN,  // object: the thread
    UNTIL, // for what the scenario, or the explorer, wants to be true
    IDLE,  // the deleter, until it is chosen
    OVER,
};

/** A thread of the program: a stack of its own, and thread-local storage that is swapped in. */
struct alignas(64) fiber {
    int number;
    const char* name;
    char* stack;
    jmp_buf entry, context;
    char tls[1024];
    int error; // errno
    void* fake_stack;

    state_t state;
    const void* object;
    bool (*until)();
    int64_t deadline;
    bool timed_out, interrupted;
    void* (*start)(void*);
    void* arg;
    void* result;
    bool detached, joined;
    bool masked, signalled, held_off; // SIGUSR1: blocked, on its way, let wait on purpose
    bool unmoved;                     // in the handler, but waiting
    const void* mutex;                // taken again behind a condition
    __pthread_unwind_buf_t* cleanups;
    void* specifics[KEYS];
    const void* held[HELD];
    int holds;

    bool acted;         // something that others can see, since its last choice
    bool stirred;       // anything at all
    const void* looked; // the word that it loaded last, if it did nothing else since
    int looks;
    uint64_t foreign; // operations of others when it did
    uint64_t own;     // its operations
    char* heap;       // its next block comes from here
};

fiber* self();
int64_t virtual_now();

/** A scheduling point in front of an operation, where it makes a difference. */
void before(const char* operation, const void* object, const void* pc, bool load = false);

/** The same behind one that others may have waited for. */
void after(const void* object);

/** Lets others run until this thread can go on. */
void block(state_t state, const void* object, int64_t deadline = NEVER);

/** One of several threads, by number. */
int choose_thread(const fiber* const* some, int count);

/** All threads that there are or were. */
fiber* thread_at(int number);

/** Lets a signal that is on its way to the calling thread in, or not yet. */
void settle();

/** The handler of SIGUSR1, called in the thread that is struck. */
extern void (*exit_handler)(int, siginfo_t*, void*);

fiber* new_thread(void* (*start)(void*), void* arg);
[[noreturn]] void thread_over();
void run_destructors();

void* heap_take(size_t size);
void heap_give(void* block);
