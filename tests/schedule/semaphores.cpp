// Semaphores: tokens are neither lost nor made, nobody sleeps beside one, and none is left waiting.
#include "explorer.h"
#include "internal.h"
#include "osaSem.h"

#include <cerrno>

static SEM_ID sem;
static int given;
static int taken;
static int deletions;
static int step;

static v2lsem_t* record()
{
    return reinterpret_cast<v2lsem_t*>(sem);
}

static void empty()
{
    sem = semBCreate(0, SEM_EMPTY);
}

static void take_for_ever()
{
    EXPECT(semTake(sem, WAIT_FOREVER) == OK);
    taken++;
}

static void take_in_time()
{
    errno = 0;
    const bool came = semTake(sem, 1) == OK;
    EXPECT(came || errno == S_objLib_OBJ_TIMEOUT);
    taken += came ? 1 : 0;
}

static void look()
{
    errno = 0;
    const bool came = semTake(sem, NO_WAIT) == OK;
    EXPECT(came || errno == S_objLib_OBJ_UNAVAILABLE);
    taken += came ? 1 : 0;
}

static void give()
{
    EXPECT(semGive(sem) == OK);
    given++;
}

static void give_two()
{
    give();
    give();
}

static void remove()
{
    errno = 0;
    const bool first = semDelete(sem) == OK;
    EXPECT(first || errno == S_objLib_OBJ_ID_ERROR);
    deletions += first ? 1 : 0;
}

// Nobody is in the record, and what was given is taken or there. One that was deleted may have
// taken a token with it, or given one that it did not live to count.
static void check_tokens()
{
    int left = 0;

    EXPECT(record()->waiters == 0 && record()->users == 1);
    EXPECT(record()->token_count == record()->tokens || record()->tokens < 0);
    for (; semTake(sem, NO_WAIT) == OK; left++) {
    }
    EXPECT(semDelete(sem) == OK);
    const int lost = given - taken - left;
    EXPECT(lost == 0 || (cut_short() && (lost == 1 || lost == -1)));
}

static void check_flushed() // takes come back without a token as well
{
    taken = given - record()->token_count;
    check_tokens();
}

static bool is_marked()
{
    return !is_allocated(sem) || (record()->send_type & SEND_DELETED) != 0;
}

static void check_deleted()
{
    EXPECT(deletions == 1 || cut_short());
    if (is_allocated(sem)) {
        EXPECT(!is_marked() && semDelete(sem) == OK);
    }
}

// ---- The mutual-exclusion kind ----

static int inside;

static void mutex()
{
    sem = semMCreate(0);
}

static void take_turns()
{
    if (semTake(sem, WAIT_FOREVER) == OK) {
        EXPECT(++inside == 1);
        semTake(sem, WAIT_FOREVER);
        semGive(sem);
        inside--;
        EXPECT(semGive(sem) == OK);
    }
}

static void take_long() // all others come to wait
{
    EXPECT(semTake(sem, WAIT_FOREVER) == OK && ++inside == 1);
    taskDelay(1);
    inside--;
    semGive(sem);
}

static void check_mutex()
{
    EXPECT(record()->mutex_waiters == 0 && record()->users == 1);
    EXPECT(record()->mutex_lock.__data.__owner == 0 || cut_short());
    EXPECT(semDelete(sem) == OK);
}

// A task that is deleted takes what it holds along.
static bool taken_along()
{
    return cut_short() && record()->mutex_lock.__data.__owner != 0;
}

static const scenario semaphores[] = {
    {"sem.take-give", empty, {{"taker", take_for_ever}, {"giver", give, true}}, check_tokens},
    {"sem.two-takers",
     empty,
     {{"taker", take_for_ever}, {"other", take_for_ever}, {"giver", give_two, true}},
     check_tokens},
    {"sem.counting",
     [] { sem = semCCreate(0, given = 1); },
     {{"taker", take_for_ever}, {"looker", look}, {"giver", give, true}},
     check_tokens,
     0,
     [] { return taken == given || cut_short(); }},
    {"sem.time-out", empty, {{"taker", take_in_time}, {"giver", give}}, check_tokens},
    {"sem.pass-on",
     empty,
     {{"hasty", take_in_time}, {"taker", take_for_ever}, {"giver", give_two, true}},
     check_tokens},
    {"sem.flush",
     empty,
     {{"taker", take_for_ever},
      {"hasty", take_in_time},
      {"flusher",
       [] {
           EXPECT(semFlush(sem) == OK);
           give_two();
       },
       true}},
     check_flushed},
    {"sem.delete",
     empty,
     {{"taker", take_for_ever}, {"hasty", take_in_time}, {"deleter", remove}},
     check_deleted,
     0,
     [] { return cut_short(2) && !is_marked(); }},
    {"sem.delete-by-two",
     empty,
     {{"taker", take_for_ever}, {"one", remove}, {"two", remove}},
     check_deleted},
    {"sem.taker-deletes",
     empty,
     {{"taker",
       [] {
           take_for_ever();
           remove();
       },
       true},
      {"giver", give}},
     nullptr,
     0,
     [] { return cut_short(); }},
    {"sem.task-lock",
     empty,
     {{"holder",
       [] {
           EXPECT(taskLock() == OK);
           step = 1;
           give();
           give();
           taskUnlock();
       }},
      {"deleter",
       [] {
           wait_until([] { return step == 1 || cut_short(); });
           remove();
       }}},
     check_deleted},
    {"sem.given-after-deletion", // is never the deleted task's
     empty,
     {{"taker", take_in_time},
      {"giver",
       [] {
           const bool deleted = taskDelete(task_of(0)) == OK && taken == 0;
           give();
           EXPECT(!deleted || taken == 0);
           taken = deleted ? 0 : taken;
       },
       true}},
     [] {
         EXPECT(!cut_short() || record()->token_count == 1);
         check_tokens();
     },
     0,
     nullptr,
     0},
    {"sem.mutex",
     mutex,
     {{"holder", take_long, true}, {"task", take_turns}, {"other", take_turns}},
     check_mutex,
     0,
     taken_along},
};

static const bool known = add_scenarios(semaphores);
