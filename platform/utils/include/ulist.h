// The indexed list: untyped elements addressed by position, 0 for the first, with an optional lock.
//
// An element is an address that means something to the caller alone; it is never null and may stand
// in a list several times. A list owns its nodes, never its elements: only uListRemoveAndFree and
// uListSpecialClear free elements, with the function that the caller names.
//
// Lists are walked like this:
//
//     for (int32_t pos = 0; !uListEol(list, pos); pos++) {
//         use(uListGet(list, pos));
//     }
//
// Access by position walks from the first node and appending walks the whole list, so such a loop
// costs the square of the length: lists are meant to be short.
//
// A list made with a lock may be shared between threads. An operation holds the lock for its own
// duration only; callers that need more than one step to be whole hold a lock of their own over
// them. uListEol, uListSize and uListFirst take no lock: they answer for the moment, and uListFirst
// must not meet a removal in another thread. A list without a lock is guarded by its owner.
//
// Functions of the caller (freeFunc, compareFunc) run on the calling thread with no lock of the
// list held and may use the same list. Null lists, null elements and positions out of range answer
// -1 or null, change nothing and are not logged.
#pragma once

#include "vxw_defs.h"

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct unode {
    struct unode* next; // null at the end
    addr_t element;     // never null
} unode_t;

/** List. Guarded by lockSem, or by the list's owner; size and node are written atomically. */
typedef struct {
    SEM_ID lockSem; // recursive mutual exclusion, or null for a list without a lock
    int32_t size;   // nodes reachable from node
    unode_t* node;  // first node, null when the list is empty
} ulist_t;

static_assert(offsetof(unode_t, element) == 8 && sizeof(unode_t) == 16);
static_assert(offsetof(ulist_t, size) == 8 && offsetof(ulist_t, node) == 16);
static_assert(sizeof(ulist_t) == 24);

/** Frees one element; the result is not looked at. */
typedef addr_t (*uListSpecificFreeFuncPtr)(addr_t element);

/** Compares a stored element with the one searched for. @return 0 for a match */
typedef int32_t (*uListElementCompareFuncPtr)(addr_t stored, addr_t element);

/**
 * Makes an empty list.
 *
 * @param withLock  whether threads are to share it
 * @return the list, for uListUninit to release; null without memory for it or its lock
 */
ulist_t* uListInit(bool_t withLock);

/**
 * Releases an empty list. Nobody may use it any more, in other threads either. One with a lock
 * waits for the task lock and pauses for a tick.
 *
 * @return 0, for a null list too; -1, logged as an error, for a list with elements, which stays
 *         usable
 */
status_t uListUninit(ulist_t* list);

/** Number of elements, -1 for a null list. */
int32_t uListSize(ulist_t* list);

/** 1 when a position is negative or past the last element, and for a null list; else 0. */
bool_t uListEol(ulist_t* list, int32_t pos);

/** The first element, or null. */
addr_t uListFirst(ulist_t* list);

/** The element at a position, or null. */
addr_t uListGet(ulist_t* list, int32_t pos);

/**
 * Inserts an element.
 *
 * @param pos  position that the element will have; -1 and positions past the end append it
 * @return the new size; -1 for a null list or element, a position below -1, or without memory
 */
int32_t uListAdd(ulist_t* list, addr_t element, int32_t pos);

/** Inserts an element at the end. @return as uListAdd */
int32_t uListAppend(ulist_t* list, addr_t element);

/** Takes the element at a position out. @return the element, the caller's again; or null */
addr_t uListRemove(ulist_t* list, int32_t pos);

/**
 * Takes the element at a position out, if there is one, and frees it.
 *
 * @param freeFunc  called with the element; null: uFree. It must not release the list, whose size
 *                  is read when it has returned
 * @return the size afterwards, -1 for a null list
 *
 * A thread that is deleted before freeFunc is called leaves the element where it was; from the call
 * on the element is freeFunc's.
 */
int32_t uListRemoveAndFree(ulist_t* list, int32_t pos, uListSpecificFreeFuncPtr freeFunc);

/** First position that holds exactly this address, or -1. */
int32_t uListPosGetByElement(ulist_t* list, addr_t element);

/**
 * First position whose element matches.
 *
 * @param compareFunc  called for each element in turn until it returns 0; null compares addresses
 * @return the position, or -1
 *
 * The list may change between two comparisons; the search then goes on with the next position.
 */
int32_t uListSearch(ulist_t* list, addr_t element, uListElementCompareFuncPtr compareFunc);

/**
 * Empties a list in one step, then frees its elements in their order.
 *
 * @param freeFunc  called with each element; null: uFree
 *
 * Without memory the list stays as it is, which is logged as an error. A thread that ends in
 * freeFunc, or is deleted between two calls, puts the elements not handed to freeFunc yet back in
 * front of what the list holds then.
 */
void uListSpecialClear(ulist_t* list, uListSpecificFreeFuncPtr freeFunc);

#ifdef __cplusplus
}
#endif
