// The schedule explorer: walks the product's own code through every schedule of a scenario, up to
// a bound of preemptions.
//
// The threads of the program are stacks that this one switches between: one runs at a time, and
// another only where this one lets it, at a scheduling point. Points are the calls of the C
// library that threads meet in (libc.cpp), the product's test points and its loads, stores and
// exchanges of shared words. Between two of them a thread runs as if alone.
//
//   Choices. Where a thread cannot go on, any other that can is a choice, and so is which waiter
//   a signal of a condition wakes. Taking the turn from a thread that could go on is a preemption,
//   which the bound counts. A walk goes depth first through all choices within it: each schedule
//   is run from the start, by the choices of the one before with the last that has an alternative
//   changed.
//
//   What is left out, because it makes no difference: a choice where a thread has done nothing
//   since its last one that another could see. What others can see is learned: an object is shared
//   once two threads have used it in any schedule, random ones at the beginning, and the walk
//   begins again when that turns out late.
//
//   Deletion. A variant of a scenario has a thread more, which deletes one of its tasks. It may
//   begin at any point, once, and costs no preemption. SIGUSR1 arrives where the task that it
//   strikes has its next point; that it comes later, at any other, costs one.
//
//   Time stands still while a thread can run. When none can, the earliest deadline comes; that one
//   comes although others could go on (they were slow) costs a preemption. The tick that a
//   deletion grants to latecomers is taken at its word, and passes only when nobody else can run.
//   Who looks at an unchanged word for the third time lets others go first.
//
// A schedule fails when nobody can go on, when it goes on for ever, when something expected does
// not hold, when memory is used after it was freed, freed twice or left behind, when a thread ends
// with a mutex, or when the program dies of it. Its choices, "instant.thread" where they are not
// the first, are printed, and --replay runs them again.
//
// Sequentially consistent: what a processor does out of order is not seen. Nor is a wake-up that
// nobody sent.
#include "explorer.h"

#include "engine.h"
#include "internal.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <link.h>
#include <map>
#include <string>
#include <sys/mman.h>
#include <sys/wait.h>
#include <time.h>
#include <ucontext.h>
#include <unistd.h>
#include <vector>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/asan_interface.h>
#include <sanitizer/common_interface_defs.h>
#define SWITCH_BEGINS(save, to) __sanitizer_start_switch_fiber(save, (to)->stack, STACK)
#define SWITCH_ENDS(saved)      __sanitizer_finish_switch_fiber(saved, nullptr, nullptr)
#else
#define SWITCH_BEGINS(save, to)                 static_cast<void>(0)
#define SWITCH_ENDS(saved)                      static_cast<void>(0)
#define ASAN_POISON_MEMORY_REGION(from, size)   static_cast<void>(0)
#define ASAN_UNPOISON_MEMORY_REGION(from, size) static_cast<void>(0)
#endif

static constexpr size_t STACK = 256 * 1024;
static constexpr size_t HEAP = 256 * 1024; // of a thread
static constexpr size_t GRAIN = 16;
static constexpr uint32_t ENDLESS = 200'000; // instants of a schedule
static constexpr int PATIENCE = 3;           // looks at an unchanged word
static constexpr int WARM_UP = 300;          // random schedules
static constexpr uint8_t FIRES = 16;         // added to a thread's number: its deadline comes
static constexpr unsigned char FREED = 0x5a;
static constexpr int64_t TICK_NS = 10'000'000;

enum class walk_mode : uint8_t { WALK, RANDOM, REPLAY };

struct frame {
    uint32_t instant;
    uint8_t count, pick, left;
    uint16_t costly; // bit by bit
    uint8_t codes[16];
};

struct shared_state { // with the process that reports
    char failure[600];
    uint64_t schedules, longest;
    double seconds;
    bool complete;
    int steps;
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

struct block_t { // in front of what heap_take hands out
    uint32_t size, taken;
    uint64_t alive;
};
static constexpr uint64_t ALIVE = 0x616c697665626c6b;

struct engine {
    fiber fibers[THREADS];
    fiber* current;
    jmp_buf boot;
    const scenario* scene;
    int victim;
    int used;    // fibers
    int started; // of the actors
    fiber* actors[ACTORS];
    taskId_t ids[ACTORS];
    bool over[ACTORS], cut[ACTORS]; // their bodies, their threads before those
    fiber* deleter;
    bool exploring, gate_open, released, abandoned;
    int64_t now;
    uint64_t operations;
    uint32_t instant;

    walk_mode mode;
    int bound, left;
    std::vector<frame> frames;
    size_t depth;
    std::map<uint32_t, uint8_t> replayed;
    uint32_t random;
    bool tracing;

    std::vector<char> image; // of the program's data
    char* data;
    char* tls;
    size_t tls_size;
    char pristine[sizeof(fiber::tls)];

    char* heap;
    std::vector<uint8_t> freed; // by grain
    std::vector<block_t*> blocks;
    int alive;

    struct touched {
        const void* object;
        uint16_t threads;
        bool shared;
    } words[8192];
    bool learned;
};

extern "C" char __data_start[], _end[], __executable_start[];
extern "C" int __real_clock_gettime(clockid_t clock, timespec* now);
extern "C" pthread_t __real_pthread_self();

// Nothing of the engine's own lies in what is restored for each schedule but constant pointers.
static engine* x;
static shared_state* report;

// ---- Small things ----

fiber* self()
{
    return x->current;
}

fiber* thread_at(int number)
{
    return &x->fibers[number];
}

int64_t virtual_now()
{
    return x->now;
}

void fail(const char* format, ...)
{
    va_list args;
    const int length = snprintf(report->failure, sizeof report->failure, "%s: ", self()->name);
    va_start(args, format);
    vsnprintf(report->failure + length, sizeof report->failure - static_cast<size_t>(length),
              format, args);
    va_end(args);
    _exit(1);
}

static std::vector<scenario>& scenarios()
{
    static std::vector<scenario> all;
    return all;
}

bool add_scenarios(std::span<const scenario> some)
{
    scenarios().insert(scenarios().end(), some.begin(), some.end());
    return true;
}

bool cut_short(int actor)
{
    return x->cut[actor];
}

bool cut_short()
{
    return cut_short(0) || cut_short(1) || cut_short(2) || cut_short(3);
}

taskId_t task_of(int actor)
{
    return x->ids[actor];
}

// The sanitizer would object to what lies between variables.
[[gnu::no_sanitize_address, gnu::optimize("no-tree-loop-distribute-patterns")]] static void
copy_raw(char* to, const char* from, size_t size)
{
    for (size_t i = 0; i < size; i += 8) {
        const uint64_t* word = reinterpret_cast<const uint64_t*>(from + i);
        *reinterpret_cast<uint64_t*>(to + i) = *word;
    }
}

// ---- Memory ----

void* heap_take(size_t size)
{
    fiber* me = self();
    block_t* block = reinterpret_cast<block_t*>(me->heap);
    const size_t whole = (sizeof(block_t) + size + 2 * GRAIN - 1) / GRAIN * GRAIN;

    me->heap += whole;
    if (me->heap > x->heap + HEAP * static_cast<size_t>(me->number + 1)) {
        fail("uses up its heap");
    }
    ASAN_UNPOISON_MEMORY_REGION(block, sizeof *block + size);
    *block = {static_cast<uint32_t>(size), x->instant, ALIVE};
    ASAN_POISON_MEMORY_REGION(block, sizeof *block);
    memset(block + 1, 0xa5, size);
    x->blocks.push_back(block);
    x->alive++;
    return block + 1;
}

static size_t grain_of(const void* address)
{
    return static_cast<size_t>(static_cast<const char*>(address) - x->heap) / GRAIN;
}

static bool is_freed(const void* address)
{
    const size_t grain = grain_of(address);
    return grain < x->freed.size() && x->freed[grain] != 0;
}

void heap_give(void* address)
{
    if (address == nullptr) {
        return;
    }
    block_t* block = static_cast<block_t*>(address) - 1;
    ASAN_UNPOISON_MEMORY_REGION(block, sizeof *block);
    if (grain_of(address) >= x->freed.size() || is_freed(address) || block->alive != ALIVE) {
        fail("frees what is not allocated");
    }
    char* data = static_cast<char*>(address);
    for (const fiber& other : x->fibers) {
        const char* object = static_cast<const char*>(other.object);
        if (other.state != state_t::FREE && other.state != state_t::OVER && object >= data &&
            object < data + block->size) {
            fail("frees what %s waits for", other.name);
        }
    }
    memset(data, FREED, block->size);
    memset(&x->freed[grain_of(block)], 1, grain_of(data + block->size - 1) - grain_of(block) + 1);
    ASAN_POISON_MEMORY_REGION(block, sizeof *block + block->size);
    x->alive--;
}

// Freed blocks are not used again before the end of a schedule, so what wrote to them shows.
static void check_heap()
{
    for ([[maybe_unused]] block_t* block : x->blocks) {
#if !defined(__SANITIZE_ADDRESS__) // which has seen it
        const unsigned char* data = reinterpret_cast<unsigned char*>(block + 1);
        if (is_freed(data) && std::any_of(data, data + block->size,
                                          [](unsigned char byte) { return byte != FREED; })) {
            fail("a freed block of %u bytes was written to", block->size);
        }
#endif
    }
    if (x->alive != x->scene->kept) {
        fail("%d blocks are left allocated, not %d", x->alive, x->scene->kept);
    }
}

// ---- Switching ----

static void switch_to(fiber* to)
{
    fiber* from = x->current;

    if (from == to) {
        return;
    }
    from->error = errno;
    copy_raw(from->tls, x->tls, x->tls_size);
    copy_raw(x->tls, to->tls, x->tls_size);
    x->current = to;
    if (_setjmp(from->context) == 0) {
        SWITCH_BEGINS(from->state == state_t::OVER ? nullptr : &from->fake_stack, to);
        _longjmp(to->context, 1);
    }
    SWITCH_ENDS(self()->fake_stack);
    errno = self()->error;
}

// The life of a stack: each thread that gets it begins behind the setjmp.
static void stack_entry()
{
    SWITCH_ENDS(nullptr);
    if (_setjmp(x->current->entry) == 0) {
        SWITCH_BEGINS(&x->current->fake_stack, &x->fibers[0]);
        _longjmp(x->boot, 1);
    }
    SWITCH_ENDS(nullptr);
    errno = 0;
    self()->result = self()->start(self()->arg);
    thread_over();
}

static void boot_stacks()
{
    static ucontext_t context, back;

    for (fiber& f : x->fibers) {
        f.number = static_cast<int>(&f - x->fibers);
        if (f.number == 0) {
            pthread_attr_t attr; // the process's own stack
            void* stack = nullptr;
            size_t size = 0;
            pthread_getattr_np(__real_pthread_self(), &attr);
            pthread_attr_getstack(&attr, &stack, &size);
            pthread_attr_destroy(&attr);
            f.stack = static_cast<char*>(stack) + size - STACK;
            continue;
        }
        f.stack = static_cast<char*>(mmap(nullptr, STACK, PROT_READ | PROT_WRITE,
                                          MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0));
        getcontext(&context);
        context.uc_stack.ss_sp = f.stack;
        context.uc_stack.ss_size = STACK;
        makecontext(&context, stack_entry, 0);
        x->current = &f;
        if (_setjmp(x->boot) == 0) {
            SWITCH_BEGINS(&x->fibers[0].fake_stack, &f);
            swapcontext(&back, &context);
        }
        SWITCH_ENDS(x->fibers[0].fake_stack);
    }
    x->current = &x->fibers[0];
}

// ---- Choices ----

static bool listed()
{
    return x->mode == walk_mode::REPLAY && x->replayed.count(x->instant) != 0;
}

static int pick_by_walk(const uint8_t* codes, int count, unsigned costly)
{
    if (x->left == 0 && (costly | 1U) == (1U << count) - 1) {
        return 0; // no alternative within the bound
    }
    if (x->depth == x->frames.size()) {
        frame made = {x->instant,
                      static_cast<uint8_t>(count),
                      0,
                      static_cast<uint8_t>(x->left),
                      static_cast<uint16_t>(costly),
                      {}};
        std::copy_n(codes, count, made.codes);
        x->frames.push_back(made);
    }
    const frame& f = x->frames[x->depth++];
    if (f.instant != x->instant || f.count != count) {
        fail("the scenario does not repeat itself");
    }
    return f.pick;
}

static int pick_at_random(int count, unsigned costly)
{
    x->random = x->random * 1664525 + 1013904223;
    const int pick = static_cast<int>((x->random >> 16) % static_cast<unsigned>(count));
    const bool costs = (costly >> pick & 1) != 0;
    return costs && (x->left == 0 || x->random >> 29 != 0) ? 0 : pick;
}

static int pick_by_list(const uint8_t* codes, int count)
{
    if (!listed()) {
        return 0;
    }
    const uint8_t* found = std::find(codes, codes + count, x->replayed[x->instant]);
    if (found == codes + count) {
        fail("instant %u has no choice %d", x->instant, x->replayed[x->instant]);
    }
    return static_cast<int>(found - codes);
}

// The first of the codes costs nothing. What is chosen is noted unless it is the first.
static int choose(const uint8_t* codes, int count, unsigned costly)
{
    if (count < 2 || !x->exploring) {
        return 0;
    }
    const int pick = x->mode == walk_mode::WALK     ? pick_by_walk(codes, count, costly)
                     : x->mode == walk_mode::RANDOM ? pick_at_random(count, costly)
                                                    : pick_by_list(codes, count);
    x->left -= static_cast<int>(costly >> pick & 1);
    if (pick != 0 && report->steps < static_cast<int>(std::size(report->picks))) {
        report->picks[report->steps++] = {x->instant, codes[pick]};
    }
    return pick;
}

// To the next schedule: the last choice with an alternative within the bound takes it.
static bool next_schedule()
{
    while (!x->frames.empty()) {
        frame& f = x->frames.back();
        f.pick++;
        while (f.pick < f.count && f.left == 0 && (f.costly >> f.pick & 1) != 0) {
            f.pick++;
        }
        if (f.pick < f.count) {
            return true;
        }
        x->frames.pop_back();
    }
    return false;
}

// ---- Who runs ----

static bool is_due(const fiber* f)
{
    return f->deadline <= x->now;
}

static bool can_go_on(const fiber* f)
{
    switch (f->state) {
    case state_t::READY:
        return true;
    case state_t::LOCK:
        return static_cast<const pthread_mutex_t*>(f->object)->__data.__owner == 0;
    case state_t::COND:
        return is_due(f);
    case state_t::SLEEP:
        return is_due(f) || f->interrupted;
    case state_t::JOIN:
        return static_cast<const fiber*>(f->object)->state == state_t::OVER;
    case state_t::LOOKING:
        return f->foreign != x->operations - f->own;
    case state_t::UNTIL:
        return f->until();
    default:
        return false;
    }
}

static bool is_runnable(const fiber* f)
{
    if (f->signalled && !f->masked && f->state != state_t::FREE && f->state != state_t::OVER) {
        return true;
    }
    return can_go_on(f);
}

struct options {
    uint8_t codes[16];
    int count;
    unsigned costly;

    void add(int code, bool costs)
    {
        costly |= (costs ? 1U : 0U) << count;
        codes[count++] = static_cast<uint8_t>(code);
    }
};

static std::span<const fiber> used_fibers()
{
    return {x->fibers, static_cast<size_t>(x->used)};
}

static void add_timed(options* o)
{
    const fiber* first = nullptr;
    const bool idle = o->count == 0;

    for (const fiber& f : used_fibers()) {
        const bool timed = f.state == state_t::COND || f.state == state_t::SLEEP ||
                           (idle && f.state == state_t::TICK);
        if (timed && f.deadline != NEVER && (first == nullptr || f.deadline < first->deadline)) {
            first = &f;
        }
    }
    if (first != nullptr && idle) {
        o->add(first->number + FIRES, false);
    }
    for (const fiber& f : used_fibers()) {
        const bool timed = (f.state == state_t::COND || f.state == state_t::SLEEP) &&
                           f.deadline != NEVER && !is_due(&f);
        if (timed && !(idle && &f == first)) {
            o->add(f.number + FIRES, !idle || f.deadline > first->deadline);
        }
    }
}

// Who may run next, the one that runs now first if it can go on.
static options who_may_run()
{
    options o = {};
    fiber* me = self();
    fiber* controller = &x->fibers[0];

    if (me != controller && is_runnable(me)) {
        o.add(me->number, false);
    }
    const bool preempts = o.count != 0;
    for (int i = 1; i < x->used; i++) {
        const fiber* f = &x->fibers[(me->number + i) % x->used];
        if (f != controller && is_runnable(f)) {
            o.add(f->number, preempts);
        }
    }
    for (int i = 1; i < x->used && o.count == 0; i++) { // all of them look: one goes on
        if (x->fibers[i].state == state_t::LOOKING) {
            o.add(i, false);
        }
    }
    if (o.count == 0 && is_runnable(controller)) {
        o.add(0, false);
        return o;
    }
    add_timed(&o);
    if (x->deleter != nullptr && x->deleter->state == state_t::IDLE && x->exploring) {
        o.add(x->deleter->number, false);
    }
    return o;
}

bool is_allocated(const void* block)
{
    return !is_freed(block);
}

[[noreturn]] static void stuck()
{
    if (x->scene->stuck != nullptr && x->exploring && x->scene->stuck()) {
        x->abandoned = true;
        x->fibers[0].state = state_t::READY;
        switch_to(&x->fibers[0]);
        abort();
    }
    static const char* const waits[] = {
        "",       "runs",          "looks", "waits for a mutex", "waits on a condition",
        "sleeps", "sleeps a tick", "joins", "is kept waiting",   "is yet to begin"};
    std::string who;

    for (const fiber& f : x->fibers) {
        if (f.state != state_t::FREE && f.state != state_t::OVER && f.number != 0) {
            who += std::string("; ") + f.name + " " + waits[static_cast<int>(f.state)];
        }
    }
    fail("nobody can go on%s", who.c_str());
}

static void run_next(const options& o)
{
    if (o.count == 0) {
        stuck();
    }
    const int code = o.codes[choose(o.codes, o.count, o.costly)];
    fiber* next = &x->fibers[code % FIRES];
    if (code >= FIRES) {
        x->now = std::max(x->now, next->deadline);
        next->state = next->state == state_t::TICK ? state_t::READY : next->state;
    }
    if (next->state == state_t::IDLE) {
        next->state = state_t::READY;
    }
    if (next->state == state_t::LOOKING) {
        next->state = state_t::READY;
    }
    switch_to(next);
}

static void count_instant()
{
    if (++x->instant > ENDLESS) {
        fail("goes on for ever");
    }
}

void block(state_t state, const void* object, int64_t deadline)
{
    fiber* me = self();

    me->state = state;
    me->object = object;
    me->deadline = deadline;
    me->interrupted = false;
    while (!can_go_on(me)) {
        count_instant();
        run_next(who_may_run());
        settle();
    }
    me->timed_out = me->state == state_t::COND; // one that was woken waits for the mutex then
    me->state = state_t::READY;
    me->object = nullptr;
    me->deadline = NEVER;
    me->acted = me->stirred = false;
}

int choose_thread(const fiber* const* some, int count)
{
    uint8_t codes[16];

    for (int i = 0; i < count; i++) {
        codes[i] = static_cast<uint8_t>(some[i]->number);
    }
    count_instant();
    return choose(codes, count, 0);
}

// ---- Points ----

// Notes who uses an object. @return whether several do
static bool touch(const void* object)
{
    const char* address = static_cast<const char*>(object);

    if (address == nullptr || (address >= x->tls && address < x->tls + x->tls_size)) {
        return false;
    }
    size_t place = (reinterpret_cast<uintptr_t>(object) * 0x9e3779b97f4a7c15U) >> 51;
    while (x->words[place].object != nullptr && x->words[place].object != object) {
        place = (place + 1) % std::size(x->words);
    }
    auto* word = &x->words[place];
    word->object = object;
    word->threads = static_cast<uint16_t>(word->threads | 1U << self()->number);
    if (!word->shared && (word->threads & (word->threads - 1)) != 0) {
        x->learned = true;
    }
    return word->shared;
}

static void trace(const char* operation, const void* object, const void* pc)
{
    if (x->tracing && report->lines < static_cast<int>(std::size(report->trace))) {
        report->trace[report->lines++] = {x->instant, self()->name, operation, object, pc};
    }
}

// Runs the handler in the thread that is struck. It need not come back.
static void strike(fiber* me)
{
    const int error = errno;
    const state_t state = me->state;

    trace("SIGUSR1", nullptr, nullptr);
    me->signalled = me->held_off = false;
    me->interrupted = me->masked = true;
    me->unmoved = state != state_t::READY; // a waiter still, so the handler is one step
    me->state = state_t::READY;
    siginfo_t from_here = {};
    from_here.si_code = SI_TKILL;
    from_here.si_pid = getpid();
    exit_handler(SIGUSR1, &from_here, nullptr);
    me->state = state;
    me->unmoved = me->masked = false;
    errno = error;
}

void settle()
{
    fiber* me = self();

    while (me->signalled && !me->masked) {
        if (me->state == state_t::READY) {
            static constexpr uint8_t codes[] = {0, 1}; // now or not yet
            count_instant();
            if (choose(codes, 2, me->held_off ? 0 : 2) != 0) {
                me->held_off = true;
                return;
            }
        }
        strike(me);
    }
}

static void maybe_switch(bool matters)
{
    fiber* me = self();

    count_instant();
    if (!x->exploring || me->unmoved) {
        settle();
        return;
    }
    const bool deletes = x->deleter != nullptr && x->deleter->state == state_t::IDLE;
    if (matters && x->mode == walk_mode::WALK && x->left == 0 && !deletes) {
        me->acted = me->stirred = false; // nobody else may
    } else if (matters || listed() || x->mode == walk_mode::RANDOM) {
        me->acted = me->stirred = false;
        run_next(who_may_run());
    } else if (me->stirred && deletes && me == x->actors[x->victim]) {
        me->stirred = false;
        options o = {};
        o.add(me->number, false);
        o.add(x->deleter->number, false);
        run_next(o);
    }
    settle();
}

// Looks at an unchanged word once more: nothing that others see, and no reason to keep the turn.
static bool looks_in_vain(fiber* me, const void* object)
{
    const uint64_t foreign = x->operations - me->own;

    if (me->looked != object || me->foreign != foreign) {
        me->looked = object;
        me->foreign = foreign;
        me->looks = 0;
    }
    return ++me->looks >= PATIENCE;
}

void before(const char* operation, const void* object, const void* pc, bool load)
{
    fiber* me = self();
    const bool shared = x->exploring && touch(object);

    if (x->exploring && load && looks_in_vain(me, object)) {
        block(state_t::LOOKING, object);
    }
    maybe_switch(me->acted && (shared || object == nullptr));
    if (!load) {
        me->looked = nullptr;
    }
    trace(operation, object, pc);
    if (is_freed(object)) {
        fail("uses freed memory: %s", operation);
    }
    me->stirred = true;
    if (shared && (!load || me->looks <= 1)) {
        me->acted = true;
    }
    me->own += load ? 0 : 1;
    x->operations += load ? 0 : 1;
}

void after(const void* object)
{
    maybe_switch(x->exploring && (object == nullptr || touch(object)));
}

extern "C" void test_point(void)
{
    before("test point", nullptr, __builtin_return_address(0));
}

extern "C" void atomic_point(const void* word, bool load)
{
    before(load ? "load" : "store", word, __builtin_return_address(0), load);
}

// ---- Threads ----

fiber* new_thread(void* (*start)(void*), void* arg)
{
    fiber* made = nullptr;

    for (fiber& f : x->fibers) { // the id of one that has gone is soon used again
        if (f.state == state_t::FREE || (f.state == state_t::OVER && (f.detached || f.joined))) {
            made = &f;
            break;
        }
    }
    if (made == nullptr) {
        fail("there are too many threads");
    }
    ASAN_UNPOISON_MEMORY_REGION(made->stack, STACK);
    memcpy(made->context, made->entry, sizeof made->entry);
    memcpy(made->tls, x->pristine, x->tls_size);
    made->name = "thread";
    made->start = start;
    made->arg = arg;
    made->object = made->result = nullptr;
    made->detached = made->joined = made->signalled = made->held_off = made->unmoved = false;
    made->masked = self()->masked;
    made->cleanups = nullptr;
    memset(made->specifics, 0, sizeof made->specifics);
    made->holds = 0;
    made->acted = made->stirred = false;
    made->looked = nullptr;
    made->fake_stack = nullptr;
    made->state = state_t::READY;
    x->used = std::max(x->used, made->number + 1);
    return made;
}

void thread_over()
{
    fiber* me = self();

    run_destructors();
    if (me->holds > 0 && x->scene->stuck == nullptr) {
        fail("ends with a mutex");
    }
    for (int i = 0; i < x->started; i++) {
        x->cut[i] = x->cut[i] || (x->actors[i] == me && !x->over[i]);
    }
    trace("ends", nullptr, nullptr);
    me->state = state_t::OVER;
    me->signalled = false;
    x->operations++;
    count_instant();
    run_next(who_may_run());
    abort();
}

// ---- A schedule ----

static int actor_entry(int number, int, int, int, int, int, int, int, int, int)
{
    const actor& a = x->scene->actors[number];

    x->actors[number] = self();
    self()->name = a.name;
    wait_until([] { return x->gate_open; });
    a.body();
    x->over[number] = true;
    wait_until([] { return x->released; });
    return 0;
}

static void* plain_entry(void* number)
{
    actor_entry(static_cast<int>(reinterpret_cast<intptr_t>(number)), 0, 0, 0, 0, 0, 0, 0, 0, 0);
    return nullptr;
}

static void* deleter_entry(void*)
{
    self()->name = "deleter";
    block(state_t::IDLE, nullptr);
    taskDelete(x->ids[x->victim]);
    return nullptr;
}

void wait_until(bool (*holds)())
{
    self()->until = holds;
    if (!holds()) {
        block(state_t::UNTIL, nullptr);
    }
}

static bool actors_are_done()
{
    for (int i = 0; i < x->started; i++) {
        if (!x->over[i] && !x->cut[i]) {
            return false;
        }
    }
    return x->deleter == nullptr || x->deleter->state == state_t::OVER;
}

static bool threads_are_gone()
{
    return std::all_of(x->fibers + 1, x->fibers + THREADS, [](const fiber& f) {
        return f.state == state_t::FREE || f.state == state_t::OVER;
    });
}

static void start_actors()
{
    for (int i = 0; i < ACTORS && x->scene->actors[i].body != nullptr; i++) {
        const actor& a = x->scene->actors[i];
        if (a.plain) {
            pthread_t id = 0;
            pthread_create(&id, nullptr, plain_entry, reinterpret_cast<void*>(intptr_t{i}));
            pthread_detach(id);
        } else {
            x->ids[i] =
                taskSpawn(const_cast<char*>(a.name), 100, 0, 0,
                          reinterpret_cast<FUNCPTR>(actor_entry), i, 0, 0, 0, 0, 0, 0, 0, 0, 0);
        }
        x->started = i + 1;
        wait_until([] { return x->actors[x->started - 1] != nullptr; });
    }
    if (x->victim >= 0) {
        pthread_t id = 0;
        pthread_create(&id, nullptr, deleter_entry, nullptr);
        pthread_detach(id);
        x->deleter = reinterpret_cast<fiber*>(id);
        wait_until([] { return x->deleter->state == state_t::IDLE; });
    }
}

// Nobody but the controlling thread is left, and it can have whatever it wants.
static void check_rest()
{
    EXPECT(taskLock() == OK && taskUnlock() == OK);
    EXPECT(taskIdVerify(0) == ERROR && task_list == nullptr);
    EXPECT(self_record->depth == 0 && self()->holds == 0);
    check_heap();
}

static void reset()
{
    copy_raw(x->data, x->image.data(), x->image.size());
    copy_raw(x->tls, x->pristine, x->tls_size);
    for (fiber& f : x->fibers) {
        char* heap = x->heap + HEAP * static_cast<size_t>(f.number);
        if (f.heap != nullptr) {
            memset(&x->freed[grain_of(heap)], 0, grain_of(f.heap) - grain_of(heap));
        }
        f.heap = heap;
        f.state = f.number == 0 ? state_t::READY : state_t::FREE;
        f.object = nullptr;
        f.own = 0;
        f.holds = 0;
        f.signalled = f.masked = f.unmoved = false;
    }
    x->fibers[0].name = "controller";
    ASAN_POISON_MEMORY_REGION(x->heap, x->freed.size() * GRAIN);
    std::fill_n(x->actors, ACTORS, nullptr);
    std::fill_n(x->ids, ACTORS, 0);
    std::fill_n(x->over, ACTORS, false);
    std::fill_n(x->cut, ACTORS, false);
    x->used = 1;
    x->started = 0;
    x->deleter = nullptr;
    x->exploring = x->gate_open = x->released = x->abandoned = false;
    x->now = NS_PER_S;
    x->operations = 0;
    x->instant = 0;
    x->left = x->bound;
    x->depth = 0;
    x->blocks.clear();
    x->alive = 0;
    report->steps = 0;
}

static void run_schedule()
{
    reset();
    if (x->scene->prepare != nullptr) {
        x->scene->prepare();
    }
    start_actors();
    x->gate_open = x->exploring = true;
    wait_until([] { return x->abandoned || actors_are_done(); });
    x->exploring = false;
    if (x->abandoned) {
        return; // with threads in the middle of things: reset() drops them
    }
    if (x->scene->check != nullptr) {
        x->scene->check();
    }
    x->released = true;
    wait_until(threads_are_gone);
    check_rest();
    report->longest = std::max<uint64_t>(report->longest, x->instant);
}

// Objects that turned out to be shared are from now on.
static bool take_up_learned()
{
    if (!x->learned) {
        return false;
    }
    for (auto& word : x->words) {
        word.shared = (word.threads & (word.threads - 1)) != 0;
    }
    x->learned = false;
    return true;
}

static double seconds()
{
    timespec now;
    __real_clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now); // the machine may have other things to do
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

static void walk(double limit)
{
    const double start = seconds();

    x->mode = walk_mode::RANDOM;
    for (int i = 0; i < WARM_UP; i++) {
        run_schedule();
        (void)take_up_learned();
    }
    x->mode = walk_mode::WALK;
    bool more = true;
    while (more && (report->schedules % 256 != 0 || seconds() - start < limit)) {
        run_schedule();
        report->schedules++;
        more = next_schedule();
        if (take_up_learned()) {
            x->frames.clear();
            report->schedules = 0;
            more = true;
        }
    }
    report->complete = !more;
    report->seconds = seconds() - start;
}

// ---- Reports ----

// What a schedule was chosen with: "instant.thread,...", or a deadline of it (+ 16).
static std::string picks_of(const shared_state* r)
{
    std::string text;
    for (int i = 0; i < r->steps; i++) {
        text += (i > 0 ? "," : "") + std::to_string(r->picks[i].instant) + "." +
                std::to_string(r->picks[i].code);
    }
    return text;
}

static std::string variant_name(const scenario& scene, int victim)
{
    return std::string(scene.name) + (victim >= 0 ? "/" : "") +
           (victim >= 0 ? scene.actors[victim].name : "");
}

// The function and line of each step, as addr2line finds them; of what is inlined, the first that
// is no helper of a header.
static std::vector<std::string> lines_of(const shared_state* r)
{
    std::string command = "addr2line -e /proc/" + std::to_string(getpid()) + "/exe -asfipC";
    std::vector<std::string> lines;
    char text[1000];

    for (int i = 0; i < r->lines; i++) {
        const long offset = static_cast<const char*>(r->trace[i].pc) - __executable_start - 1;
        snprintf(text, sizeof text, " %#lx", r->trace[i].pc != nullptr ? offset : 0);
        command += text;
    }
    FILE* out = r->lines > 0 ? popen(command.c_str(), "r") : nullptr;
    while (out != nullptr && fgets(text, sizeof text, out) != nullptr) {
        std::string line(text, strcspn(text, "\n"));
        const size_t at = line.find(": ");
        if (line.compare(0, 2, "0x") == 0 && at != std::string::npos) {
            lines.push_back(line.substr(at + 2));
        } else if (!lines.empty() && lines.back().find(".h:") != std::string::npos) {
            lines.back() = line.substr(line.find("by) ") + 4);
        }
    }
    if (out != nullptr) {
        pclose(out);
    }
    lines.resize(static_cast<size_t>(r->lines));
    return lines;
}

static void print_trace(const shared_state* r)
{
    const std::vector<std::string> lines = lines_of(r);
    std::map<const void*, int> objects;
    const char* last = "";

    for (int i = 0; i < r->lines; i++) {
        const auto& t = r->trace[i];
        const int object =
            t.object == nullptr ? 0 : objects.emplace(t.object, objects.size() + 1).first->second;
        printf("%8u  %-10s %-14s", t.instant, t.thread == last ? "" : t.thread, t.operation);
        printf(object != 0 ? " #%-4d" : "      ", object);
        printf(" %s\n", lines[static_cast<size_t>(i)].c_str());
        last = t.thread;
    }
}

struct wishes {
    int bound = 2;
    double limit = 3600; // seconds for a variant and bound
    std::vector<std::string> names;
    std::string replay;
};

// Runs a variant in a process of its own, which a failure ends. @return whether there was none
static bool run_apart(const scenario& scene, int victim, int bound, double limit,
                      const std::map<uint32_t, uint8_t>* replayed)
{
    fflush(nullptr);
    report->schedules = report->longest = 0;
    report->failure[0] = '\0';
    report->complete = false;
    const pid_t child = fork();
    if (child == 0) {
        alarm(static_cast<unsigned>(limit) + 120);
        dup2(open("/dev/null", O_WRONLY), STDOUT_FILENO); // the program prints there
        x->scene = &scene;
        x->victim = victim;
        x->bound = bound;
        if (replayed != nullptr) {
            report->lines = 0;
            x->mode = walk_mode::REPLAY;
            x->replayed = *replayed;
            x->tracing = true;
            run_schedule();
        } else {
            walk(limit);
        }
        _exit(0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    if (WIFSIGNALED(status) && report->failure[0] == '\0') {
        snprintf(report->failure, sizeof report->failure, "the program died of signal %d",
                 WTERMSIG(status));
    } else if (status != 0 && report->failure[0] == '\0') {
        snprintf(report->failure, sizeof report->failure, "the program ended");
    }
    return status == 0;
}

static bool replay(const scenario& scene, int victim, const std::string& picks)
{
    std::map<uint32_t, uint8_t> replayed;
    unsigned instant = 0, code = 0;
    int length = 0;

    for (const char* at = picks.c_str(); sscanf(at, "%u.%u%n", &instant, &code, &length) == 2;) {
        replayed[instant] = static_cast<uint8_t>(code);
        at += length + (at[length] == ',' ? 1 : 0);
    }
    const bool held = run_apart(scene, victim, 0, 60, &replayed);
    print_trace(report);
    printf("%s\n", held ? "nothing failed" : report->failure);
    return held;
}

// A deletion counts as a preemption, and makes one of a third thread.
static int bound_for(const scenario& scene, int victim, int bound)
{
    const int less = victim < 0 ? 0 : scene.actors[2].body == nullptr ? 1 : 2;
    return std::max(0, std::min(bound, scene.most) - less);
}

// Fewer preemptions first: what fails is shown with as few as it takes.
static bool explore(const scenario& scene, int victim, const wishes& w)
{
    const int most = bound_for(scene, victim, w.bound);
    const std::string name = variant_name(scene, victim);

    for (int bound = 0; bound <= most; bound++) {
        if (!run_apart(scene, victim, bound, w.limit, nullptr)) {
            const std::string picks = picks_of(report);
            printf("%s fails with %d preemptions: %s\n", name.c_str(), bound, report->failure);
            replay(scene, victim, picks);
            printf("again: test_schedule --replay %s:%s\n", name.c_str(), picks.c_str());
            return false;
        }
        if (!report->complete) {
            break;
        }
    }
    printf("%-36s %d %10lu%s %6lu %8.2f s\n", name.c_str(), most,
           static_cast<unsigned long>(report->schedules), report->complete ? " " : "+",
           static_cast<unsigned long>(report->longest), report->seconds);
    return true;
}

static bool is_wanted(const std::string& name, const wishes& w)
{
    return w.names.empty() ||
           std::any_of(w.names.begin(), w.names.end(), [&](const std::string& wanted) {
               return name.compare(0, wanted.size(), wanted) == 0;
           });
}

static int explore_all(const wishes& w)
{
    const std::string wanted = w.replay.substr(0, w.replay.find(':'));
    uint64_t schedules = 0;
    double took = 0;
    int failed = 0;
    int variants = 0;

    if (w.replay.empty()) {
        printf("%-36s %s %10s  %6s %10s\n", "scenario/deleted task", "b", "schedules", "steps",
               "time");
    }
    for (const scenario& scene : scenarios()) {
        for (int victim = -1; victim < ACTORS; victim++) {
            const actor* a = victim >= 0 ? &scene.actors[victim] : nullptr;
            if (a != nullptr &&
                (a->body == nullptr || a->plain || !(scene.victims >> victim & 1))) {
                continue;
            }
            const std::string name = variant_name(scene, victim);
            if (!w.replay.empty()) {
                if (name == wanted) {
                    return replay(scene, victim, w.replay.substr(wanted.size() + 1)) ? 0 : 1;
                }
            } else if (is_wanted(name, w)) {
                failed += explore(scene, victim, w) ? 0 : 1;
                variants++;
                schedules += report->schedules;
                took += report->seconds;
            }
        }
    }
    printf("%d variants, %lu schedules, %d failed, %.1f s\n", variants,
           static_cast<unsigned long>(schedules), failed, took);
    return failed == 0 && variants > 0 ? 0 : 1;
}

static int find_tls(dl_phdr_info* info, size_t, void*)
{
    for (int i = 0; i < info->dlpi_phnum; i++) {
        if (info->dlpi_phdr[i].p_type == PT_TLS) {
            x->tls = static_cast<char*>(info->dlpi_tls_data);
            x->tls_size = (info->dlpi_phdr[i].p_memsz + 7) / 8 * 8;
        }
    }
    return 1; // the program itself comes first
}

static void boot()
{
    static constexpr size_t heaps = HEAP * THREADS;

    report = static_cast<shared_state*>(
        mmap(nullptr, sizeof *report, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    x = new engine{};
    x->heap = static_cast<char*>(mmap(nullptr, heaps, PROT_READ | PROT_WRITE,
                                      MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0));
    x->freed.resize(heaps / GRAIN);
    dl_iterate_phdr(find_tls, nullptr);
    if (x->tls_size > sizeof x->pristine) {
        abort();
    }
    copy_raw(x->pristine, x->tls, x->tls_size);
    boot_stacks();
    x->data = __data_start;
    x->image.resize(static_cast<size_t>(_end - __data_start) / 8 * 8);
    copy_raw(x->image.data(), x->data, x->image.size());
}

// usage: test_schedule [--bound N] [--seconds N] [NAME...]
//        test_schedule --replay NAME:CHOICES
int main(int argc, char** argv)
{
    wishes w;

    for (int i = 1; i < argc; i++) {
        const std::string option = argv[i];
        const char* value = i + 1 < argc ? argv[i + 1] : "";
        if (option == "--bound") {
            w.bound = atoi(value);
        } else if (option == "--seconds") {
            w.limit = atof(value);
        } else if (option == "--replay") {
            w.replay = value;
        } else {
            w.names.push_back(option);
            continue;
        }
        i++;
    }
    setvbuf(stdout, nullptr, _IOLBF, 0);
    boot();
    return explore_all(w);
}
