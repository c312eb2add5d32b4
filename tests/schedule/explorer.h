// Scenarios of the schedule explorer: a few threads, called actors, that use the product's own
// objects, and what must hold whichever way their steps interleave.
//
// An actor is a task, or a plain thread; it begins when all are there and has prepare() behind it.
// When the last is done, check() looks at the result and takes the objects apart; no step before
// or after the actors' is permuted. Each schedule starts from the program's initial memory, so
// scenarios keep their state in plain static variables. How the explorer works stands in
// explorer.cpp.
#pragma once

#include "osaTask.h"

#include <span>

constexpr int ACTORS = 4;

struct actor {
    const char* name;
    void (*body)();
    bool plain = false; // a thread that is no task, which nobody deletes
};

struct scenario {
    const char* name; // subsystem.what
    void (*prepare)();
    actor actors[ACTORS];
    void (*check)();
    int kept = 0;              // blocks that stay: what the product creates once for good
    bool (*stuck)() = nullptr; // nobody can go on: whether that is right, the schedule is over then
    unsigned victims = ~0U;    // actors that are worth deleting, bit by bit
    int less = 0;              // preemptions fewer than elsewhere, for it takes long
};

/** Adds to what is explored; a static initialiser calls it. @return true */
bool add_scenarios(std::span<const scenario> some);

/** Whether an actor was deleted before its body was over; it may have done all in it even so. */
bool cut_short(int actor);

/** Whether any was. */
bool cut_short();

/** Whether this is a variant that deletes one, at some point or at the end. */
bool deletes();

/** The id of an actor that is a task. */
taskId_t task_of(int actor);

/** Keeps the calling actor waiting for something that others do. */
void wait_until(bool (*holds)());

/** Whether a block that the product allocated is there still. */
bool is_allocated(const void* block);

/** Ends the schedule as a failed one. */
[[noreturn]] void fail(const char* format, ...) __attribute__((format(printf, 1, 2)));

#define EXPECT(condition)                                                                          \
    ((condition) ? static_cast<void>(0) : fail("%s:%d: %s", __FILE_NAME__, __LINE__, #condition))
