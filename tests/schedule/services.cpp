// The utility library: services that come into being by two first users, timers against the pump
// that runs them, handlers against raises; and the pools of blocks and of threads.
#include "explorer.h"
#include "internal.h"
#include "osaMsg.h"
#include "uBm.h"
#include "uEvent.h"
#include "uTimer.h"

#include <cerrno>

// ---- Timers ----

static int fired;
static bool ended; // the thread in whose callback it is
static uint32_t ids[3];

static void note(void*)
{
    fired++;
}

static void end_thread(void*)
{
    ended = true;
    pthread_exit(nullptr);
}

static void add_again(void*)
{
    fired++;
    ids[2] = uTimerAdd(reinterpret_cast<void*>(note), nullptr, 10);
}

template <int N, int AFTER = 10> static void add()
{
    ids[N] = uTimerAdd(reinterpret_cast<void*>(note), nullptr, AFTER);
    EXPECT(ids[N] != 0);
}

static void run()
{
    uTimerRun(10);
}

static void add_two()
{
    add<0>();
    add<1>();
}

template <void (*CALLBACK)(void*)> static void add_first()
{
    ids[0] = uTimerAdd(reinterpret_cast<void*>(CALLBACK), nullptr, 10);
    add<1>();
}

static void refresh()
{
    uTimerRefresh(ids[0], 20);
}

static void drop()
{
    uTimerDel(ids[0]);
}

static void run_out()
{
    uTimerRun(100);
    uTimerRun(100);
    EXPECT(uTimerRemainGet(ids[0]) == 0 && uTimerRemainGet(ids[1]) == 0);
}

// Each timer came once, but for those that a deleted task did not live to add.
template <int COUNT> static void check_timers()
{
    run_out();
    EXPECT(fired == COUNT || (cut_short() && fired < COUNT));
}

static constexpr int TIMERS = 2; // the pool and its lock

// ---- Events ----

static char event_name[] = "event";
static int raised, others_raised;

static int32_t on_event(char*, void*, int32_t*, size_t)
{
    raised++;
    return 0;
}

static int32_t on_event_too(char*, void*, int32_t*, size_t)
{
    others_raised++;
    return 0;
}

static int32_t clear_own(char*, void*, int32_t*, size_t)
{
    raised++;
    EXPECT(uEventClear(event_name, clear_own, nullptr) != 0);
    return 0;
}

template <EVENTPROCESS HANDLER> static void care()
{
    EXPECT(uEventCare(event_name, HANDLER, nullptr) != 0);
}

template <EVENTPROCESS HANDLER> static void clear()
{
    uEventClear(event_name, HANDLER, nullptr);
}

static void raise_event()
{
    uEventRaise(event_name, nullptr, 0);
}

static void care_both()
{
    care<on_event>();
    care<on_event_too>();
}

static void check_events()
{
    EXPECT(raised <= 1 && others_raised <= 1);
    raised = others_raised = 0;
    uEventUninit();
    raise_event();
    EXPECT(raised == 0 && others_raised == 0);
    uEventUninit();
}

static constexpr int EVENTS = 1; // their lock

// ---- Asynchronous calls ----

static int called, posted;

static int note_call(void*)
{
    called++;
    return 0;
}

static void post()
{
    posted += uAsyncCall(reinterpret_cast<FUNCPTR>(note_call), nullptr) == OK ? 1 : 0;
}

static void check_calls()
{
    wait_until([] { return called >= posted; });
    EXPECT(called == posted || (cut_short() && called <= posted + 1));
    EXPECT(posted == 2 || cut_short());
    const taskId_t task = taskNameToId(const_cast<char*>("tAsyncCall"));
    EXPECT(posted == 0 || (task != 0 && task_list->nxt_task != nullptr));
    taskDelete(task);
    EXPECT(taskNameToId(const_cast<char*>("tAsyncCall")) == 0);
    if (asyncCallMsgQ != nullptr) {
        msgQDelete(asyncCallMsgQ);
    }
}

// ---- Pools ----

static uBmHostHeap_t blocks;
alignas(16) static char region[2 * (16 + 16)];
static int in_hand;

static void make_blocks()
{
    uBmInitHeap(&blocks, 2, 16, region);
}

static void use_block()
{
    void* block = uBmAlloc(&blocks, 16);
    if (block != nullptr) {
        EXPECT(++in_hand <= 2);
        *static_cast<char*>(block) = 1;
        in_hand--;
        uBmFree(block);
    }
}

static void check_blocks()
{
    int count = 0;
    while (uBmAlloc(&blocks, 16) != nullptr) {
        count++;
    }
    EXPECT(count == 2 || (cut_short() && count == 1)); // a task in code of its own takes its block
}

static int jobs_done, jobs_queued;

static int do_job(void*)
{
    jobs_done++;
    return 0;
}

static int do_two_jobs(void*)
{
    jobs_done++;
    jobs_queued += taskThrPoolAddTask(reinterpret_cast<FUNCPTR>(do_job), nullptr, -1) == OK ? 1 : 0;
    return 0;
}

static int wait_for_job(void*)
{
    wait_until([] { return jobs_done > 0 || cut_short(); });
    jobs_done++;
    return 0;
}

static int end_worker(void*)
{
    jobs_done++;
    pthread_exit(nullptr);
}

template <int WORKER = -1, int (*JOB)(void*) = do_job> static void add_job()
{
    jobs_queued +=
        taskThrPoolAddTask(reinterpret_cast<FUNCPTR>(JOB), nullptr, WORKER) == OK ? 1 : 0;
}

static void add_jobs()
{
    add_job<>();
    add_job<>();
}

template <int SIZE> static void make_pool()
{
    EXPECT(taskThrPoolCreate(SIZE) == OK);
}

// What is queued when nobody destroys the pool is done.
static void check_pool()
{
    if (!cut_short()) {
        wait_until([] { return jobs_done >= jobs_queued; });
    } else {
        taskDelay(1);
    }
    EXPECT(jobs_done == jobs_queued || cut_short());
    EXPECT(taskThrPoolDestroy() == OK);
}

static void destroy_pool()
{
    if (taskThrPoolDestroy() == OK) {
        EXPECT(jobs_done <= jobs_queued);
    }
}

static const scenario services[] = {
    {"first.timers",
     nullptr,
     {{"one", add<0>}, {"two", add<1>}},
     check_timers<2>,
     TIMERS,
     nullptr,
     1,
     1},
    {"timer.refresh", add_two, {{"refresher", refresh}, {"pump", run}}, check_timers<2>, TIMERS},
    {"timer.delete",
     add_two,
     {{"deleter", drop}, {"pump", run}, {"adder", add<2>}},
     [] {
         run_out();
         EXPECT(fired == 3 || fired == 2 || (cut_short() && fired == 1));
     },
     TIMERS},
    {"timer.ends-its-thread",
     add_first<end_thread>,
     {{"pump", run}, {"other", run}},
     [] {
         if (!ended) {
             uTimerDel(ids[0]); // it would end this thread
         }
         run_out();
         EXPECT(fired == 1);
     },
     TIMERS},
    {"timer.adds",
     add_first<add_again>,
     {{"pump", run}, {"adder", add<2>}},
     [] {
         run_out();
         EXPECT(fired == 4 || cut_short());
     },
     TIMERS},
    {"first.events",
     nullptr,
     {{"one", care<on_event>}, {"two", care<on_event_too>}},
     [] {
         raise_event();
         EXPECT((raised == 1 && others_raised == 1) || cut_short());
         check_events();
     },
     EVENTS,
     nullptr,
     1,
     1},
    {"event.clear",
     care_both,
     {{"raiser", raise_event}, {"clearer", clear<on_event>}, {"other", clear<on_event_too>}},
     check_events,
     EVENTS},
    {"event.clears-itself",
     [] {
         care<clear_own>();
         care<on_event_too>();
     },
     {{"raiser", raise_event}, {"clearer", clear<on_event_too>}},
     check_events,
     EVENTS},
    {"event.uninit",
     care_both,
     {{"raiser", raise_event}, {"ender", uEventUninit}, {"carer", care<on_event>}},
     check_events,
     EVENTS,
     nullptr,
     1},
    {"first.calls", nullptr, {{"one", post}, {"two", post}}, check_calls, 2, nullptr, 1, 1},
    {"blocks.take-last",
     make_blocks,
     {{"one", use_block}, {"two", use_block}, {"three", use_block, true}},
     check_blocks,
     1,
     nullptr,
     1},
    {"pool.add", make_pool<2>, {{"adder", add_jobs}, {"chooser", add_job<1>}}, check_pool},
    {"pool.job-adds", make_pool<2>, {{"adder", add_job<-1, do_two_jobs>}}, check_pool},
    {"pool.job-waits", // for one behind it
     make_pool<2>,
     {{"adder",
       [] {
           add_job<-1, wait_for_job>();
           add_job<>();
       }}},
     check_pool},
    {"pool.worker-ends",
     make_pool<2>,
     {{"ender", add_job<0, end_worker>}, {"adder", add_jobs}},
     check_pool},
    {"pool.destroy",
     make_pool<2>,
     {{"destroyer",
       [] {
           add_jobs();
           destroy_pool();
       }}},
     [] {
         const bool left = taskThrPoolDestroy() == OK; // by a task that was deleted meanwhile
         EXPECT(!left || cut_short());
     }},
    {"pool.create",
     nullptr,
     {{"user",
       [] {
           make_pool<1>();
           add_job<>();
           destroy_pool();
       },
       true}},
     nullptr},
};

static const bool known = add_scenarios(services);
