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
#include "engine.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <unistd.h>

static constexpr uint32_t ENDLESS = 200'000; // instants of a schedule
static constexpr int PATIENCE = 3;           // looks at an unchanged word
static constexpr uint8_t FIRES = 16;         // added to a thread's number: its deadline comes

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

bool cut_short(int actor)
{
    return x->cut[actor];
}

bool deletes()
{
    return x->victim >= 0;
}

bool cut_short()
{
    return cut_short(0) || cut_short(1) || cut_short(2) || cut_short(3);
}

taskId_t task_of(int actor)
{
    return x->ids[actor];
}

// ---- Choices ----

static bool listed()
{
    return x->mode == walk_mode::REPLAY && x->replayed.count(x->instant) != 0;
}

static int pick_by_walk(int count, unsigned costly)
{
    if (x->left == 0 && (costly | 1U) == (1U << count) - 1) {
        return 0; // no alternative within the bound
    }
    if (x->depth == x->frames.size()) {
        x->frames.push_back({x->instant, count, 0, x->left, costly});
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
    const int pick = x->mode == walk_mode::WALK     ? pick_by_walk(count, costly)
                     : x->mode == walk_mode::RANDOM ? pick_at_random(count, costly)
                                                    : pick_by_list(codes, count);
    x->left -= static_cast<int>(costly >> pick & 1);
    if (pick != 0 && report->steps < static_cast<int>(std::size(report->picks))) {
        report->picks[report->steps++] = {x->instant, codes[pick]};
    }
    return pick;
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

void run_others()
{
    run_next(who_may_run());
}

void count_instant()
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
        run_others();
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

void trace(const char* operation, const void* object, const void* pc)
{
    if (x->tracing && x->gate_open && report->lines < static_cast<int>(std::size(report->trace))) {
        report->trace[report->lines++] = {x->instant, self()->name, operation, object, pc};
    }
}

static void let_signal_in(fiber* me)
{
    const int error = errno;
    const state_t state = me->state;

    trace("SIGUSR1", nullptr, nullptr);
    me->signalled = me->held_off = false;
    me->interrupted = me->masked = true;
    me->unmoved = state != state_t::READY; // a waiter still, so the handler is one step
    me->state = state_t::READY;
    strike();
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
        let_signal_in(me);
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
        run_others();
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

// ---- The end of a thread ----

void thread_over()
{
    fiber* me = self();

    run_destructors();
    if (me->holds > 0 && x->scene->stuck == nullptr) {
        fail("ends with a mutex");
    }
    x->deletion_over = x->deletion_over || me == x->deleter;
    for (int i = 0; i < x->started; i++) {
        x->cut[i] = x->cut[i] || (x->actors[i] == me && !x->over[i]);
    }
    trace("ends", nullptr, nullptr);
    me->state = state_t::OVER;
    me->signalled = false;
    x->operations++;
    count_instant();
    run_others();
    abort();
}
