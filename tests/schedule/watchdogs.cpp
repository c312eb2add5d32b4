// Watchdogs against the tick: a routine runs once for each start that is not taken back, whoever
// starts, cancels or deletes meanwhile, and a tick that ends with its task loses none.
#include "explorer.h"
#include "osaWd.h"

static WDOG_ID dog, other;
static int fired, others_fired;
static int started;

static int note(void*)
{
    fired++;
    return 0;
}

static int note_other(void*)
{
    others_fired++;
    return 0;
}

static int delete_own(void*)
{
    fired++;
    EXPECT(wdDelete(dog) == OK);
    dog = nullptr;
    return 0;
}

static int start_again(void*)
{
    fired++;
    wdStart(dog, 1, reinterpret_cast<FUNCPTR>(note), nullptr);
    return 0;
}

static int end_thread(void*)
{
    fired++;
    pthread_exit(nullptr);
}

template <int (*ROUTINE)(void*) = note> static void start()
{
    wdStart(dog, 1, reinterpret_cast<FUNCPTR>(ROUTINE), nullptr);
    started++;
}

static void start_two()
{
    start();
    start();
}

static void cancel()
{
    EXPECT(wdCancel(dog) == OK);
}

static void remove()
{
    EXPECT(wdDelete(dog) == OK);
}

static void tick()
{
    process_wdog();
}

static void tick_twice()
{
    tick();
    tick();
}

static void create()
{
    dog = wdCreate();
    other = wdCreate();
}

template <int (*ROUTINE)(void*)> static void prepare()
{
    create();
    wdStart(other, 1, reinterpret_cast<FUNCPTR>(note_other), nullptr);
    start<ROUTINE>();
}

// All that is still to come has come.
static void settle_down()
{
    tick_twice();
    EXPECT(wdogShow(nullptr) == 0);
}

static void check_others()
{
    settle_down();
    // One whose routine was about to be called goes with the task that was to call it.
    EXPECT(others_fired == 1 || cut_short());
    EXPECT(fired <= started || cut_short());
    wdDelete(other);
}

static void check_both()
{
    check_others();
    wdDelete(dog);
}

static constexpr int INDEX = 1; // its memory stays

static const scenario watchdogs[] = {
    {"watchdog.start",
     create,
     {{"starter", start_two}, {"exception", tick_twice}},
     [] {
         settle_down();
         EXPECT((fired >= 1 && fired <= 2) || cut_short());
         wdDelete(dog);
         wdDelete(other);
     },
     INDEX},
    {"watchdog.start-by-two",
     prepare<note>,
     {{"one", start}, {"two", start}, {"exception", tick, true}},
     check_both,
     INDEX},
    {"watchdog.cancel",
     prepare<note>,
     {{"canceller", cancel}, {"exception", tick}, {"starter", start}},
     check_both,
     INDEX},
    {"watchdog.delete",
     prepare<note>,
     {{"deleter", remove, true}, {"exception", tick_twice}},
     check_others,
     INDEX},
    {"watchdog.deletes-itself",
     prepare<delete_own>,
     {{"exception", tick}, {"pump", tick, true}},
     [] {
         check_others();
         EXPECT((fired == 1 && dog == nullptr) || cut_short());
         if (is_allocated(dog) && dog != nullptr) {
             wdDelete(dog);
         }
     },
     INDEX},
    {"watchdog.starts-itself",
     prepare<start_again>,
     {{"exception", tick_twice}, {"canceller", cancel}},
     [] {
         started = 2;
         check_both();
     },
     INDEX},
    {"watchdog.ends-its-task",
     prepare<end_thread>,
     {{"exception", tick},
      {"starter", [] { wdStart(other, 1, reinterpret_cast<FUNCPTR>(note_other), nullptr); }}},
     [] {
         if (fired == 0) {
             wdCancel(dog); // it would end this thread
         }
         settle_down();
         EXPECT(others_fired >= 1 || cut_short());
         wdDelete(dog);
         wdDelete(other);
     },
     INDEX},
    {"watchdog.create-by-two",
     nullptr,
     {{"one", [] { dog = wdCreate(); }}, {"two", [] { other = wdCreate(); }}},
     [] {
         EXPECT((dog != nullptr && other != nullptr && dog != other) || cut_short());
         for (WDOG_ID id : {dog, other}) {
             if (id != nullptr) {
                 wdDelete(id);
             }
         }
     },
     INDEX,
     nullptr,
     0},
};

static const bool known = add_scenarios(watchdogs);
