// Events: named announcements between modules that do not know each other; and the hash functions
// of names.
//
// A module cares for an event by its name, with a handler function and a handle for itself; anyone
// may raise the event, and all its handlers are called, in the order they were registered, on the
// raiser's thread. There is room for 256 events with handlers at a time, and for any number of
// handlers. An event is there from the first uEventCare to the uEventClear of its last handler.
//
// Names are not stored: two names with the same bkdrHash and the same rsHash modulo 256 are one
// event. A null name counts as empty.
//
// Handlers run with no lock held and may use every operation here. They see the event as it was
// raised: a handler that another one clears meanwhile is still called, and one that is added is
// not. A raise to up to 16 handlers allocates nothing. To more of them it needs one block of
// memory; without it the handlers are called with the registry locked: other threads wait, a
// handler that is cleared meanwhile is not called any more, and a task that is deleted ends only
// when the raise is over.
//
// The registry creates itself on first use, and is created again by the first use after
// uEventUninit. If there is no memory for it operations fail, and the next one tries again. Any
// thread may call any operation; none of them waits but for the registry's lock.
#pragma once

#include "coreBaseTypes.h"

#ifdef __cplusplus
extern "C" {
#endif

/**
 * A handler.
 *
 * @param eventName   the raiser's name, valid during the call
 * @param handle      as registered
 * @param eventParam  the raiser's, whatever it is: some events carry a number in its place
 * @param paramSize   the raiser's
 * @return ignored
 */
typedef int32_t (*EVENTPROCESS)(char* eventName, void* handle, int32_t* eventParam,
                                size_t paramSize);

/** Creates the registry ahead of its first use. If it exists, a line is logged. */
void uEventInit(void);

/** Drops all events with their handlers. If there is no registry, a line is logged. */
void uEventUninit(void);

/**
 * Registers a handler for an event, behind those that are there.
 *
 * @param eventProcess  called on every raise; once per event, whatever the handle: registering it
 *                      again changes nothing, logged at debug level. Null cares for the event, so
 *                      that a raise finds it, and is not called.
 * @param handle        handed to every call; the registry never looks at it
 * @return 1 registered, or registered before; 0, logged as an error, without memory and when there
 *         are 256 other events
 */
bool_t uEventCare(char* eventName, EVENTPROCESS eventProcess, void* handle);

/**
 * Takes a handler off an event. One that a raise on another thread has already picked up is still
 * called.
 *
 * @param handle  not used
 * @return 0 if nobody cares for the event; 1 otherwise, also when this function is not registered,
 *         which is logged at debug level
 */
bool_t uEventClear(char* eventName, EVENTPROCESS eventProcess, void* handle);

/**
 * Calls the handlers of an event and returns when they have. A task that is deleted in one of them
 * ends there, and the others are not called.
 *
 * @param eventParam  handed on, neither copied nor read
 * @param paramSize   handed on
 * @return 1; 0, logged at debug level, if nobody cares for the event
 */
bool_t uEventRaise(char* eventName, int32_t* eventParam, size_t paramSize);

// Hash functions. They read bytes as unsigned and count null as the empty string.

/** 32-bit hash of Robert Sedgewick's, modulo valueMax taken as unsigned; 0: not reduced. */
uint32_t rsHash(char* str, int32_t valueMax);

/** 64-bit hash with the multiplier 131, its low 31 bits. */
int64_t bkdrHash(char* str);

/** Sum of the bytes, its low 31 bits. */
int64_t remainderHash(char* str);

#ifdef __cplusplus
}
#endif
