// What the explorer's two halves share: explorer.cpp chooses who runs, libc.cpp is the C library
// that the threads see.
#pragma once

#include "explorer.h"

#include <pthread.h>
#include <setjmp.h>
#include <signal.h>

#include <cstdint>
#include <map>
#include <vector>

constexpr size_t STACK = 256 * 1024;
constexpr size_t HEAP = 256 * 1024; // of a thread
constexpr size_t GRAIN = 16;
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

enum class walk_mode : uint8_t { WALK, RANDOM, REPLAY };

/** A choice of a walk that has alternatives. */
struct frame {
    uint32_t instant;
    int count, pick;
    int left;        // preemptions when it came
    unsigned costly; // which of them is one, bit by bit
};

/** What the process that walks has to tell, also when it dies. */
struct shared_state {
    char failure[600];
    uint64_t schedules, longest; // number of them, instants of the longest
    double seconds;              // of CPU time
    bool complete;
    int steps; // choices of the schedule that are not the first of theirs
    struct {
        uint32_t instant;
        uint8_t code;
    } picks[4000];
    int lines;
    struct {
        uint32_t instant;
        const char *thread, *operation;
        const void *object, *pc;
    } trace[20000];
};

struct block_t; // stacks.cpp: in front of what heap_take hands out

struct engine {
    fiber fibers[THREADS]; // the first is the controlling thread, the process's own
    fiber* current;
    jmp_buf boot;

    // A schedule.
    const scenario* scene;
    int victim;  // the actor to be deleted, -1: none
    int used;    // fibers
    int started; // of the actors
    fiber* actors[ACTORS];
    taskId_t ids[ACTORS];
    bool over[ACTORS], cut[ACTORS]; // their bodies, their threads before those
    fiber* deleter;
    bool deletion_over;
    bool gate_open, exploring, released; // actors may begin; choices are made; actors may end
    bool abandoned;                      // the scenario says that it is stuck for good
    int64_t now;                         // ns
    uint64_t operations;
    uint32_t instant; // at which a choice may be, counted

    // The choices.
    walk_mode mode;
    int bound, left; // preemptions
    std::vector<frame> frames;
    size_t depth;
    std::map<uint32_t, uint8_t> replayed;
    uint32_t random;
    bool tracing;
    struct touched { // an object by address, and who used it in any schedule, bit by bit
        const void* object;
        uint16_t threads;
        bool shared;
    } words[8192];
    bool learned; // that one more is shared

    // The image of the program: its data, its thread-local storage.
    std::vector<char> image;
    char* data;
    char* tls;
    size_t tls_size;
    char pristine[sizeof(fiber::tls)];

    char* heap;
    std::vector<uint8_t> freed;   // by grain
    std::vector<block_t*> blocks; // all that were taken
    int alive;
};

// Nothing of the explorer's own lies in what is restored for each schedule but these two.
extern engine* x;
extern shared_state* report; // with the process that reports

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

/** Calls the handler of SIGUSR1, in the thread that is struck. It need not come back. */
void strike();

fiber* new_thread(void* (*start)(void*), void* arg);
[[noreturn]] void thread_over();
void run_destructors();

void* heap_take(size_t size);
void heap_give(void* block);
void check_heap();
bool is_freed(const void* address);

/** Makes stacks, heap and the image of the program's data; and goes back to that image. */
void boot();
void restore();

/** Lets a thread go on where it was. */
void switch_to(fiber* to);

/** A choice of who runs next; the calling thread may be it. */
void run_others();

void count_instant();
void trace(const char* operation, const void* object, const void* pc);
