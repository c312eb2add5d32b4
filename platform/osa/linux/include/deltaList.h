// A delta list with an index: numbered entries in the order in which they fall due, of equals the
// latest first. No operation walks the list, and none allocates.
//
// What a number stands for is the owner's matter: a timer, a watchdog. Its record holds the
// documented gap to the entry in front of it, in milliseconds or ticks, which the owner keeps: each
// operation tells what becomes of the gaps. Due times and links stand here, in arrays: four to a
// cache line, where records take a line or more each.
//
// Gaps are 0 or more and fit 32 bits. Where they would not, which only time that goes back can
// bring about, they stick at the largest value: the entries from there on fall due earlier.
//
// Nothing is locked here: the owner holds a lock over each call.
#pragma once

#include <stddef.h>
#include <stdint.h>

/** An entry; number 0 is the list's two ends in one. */
typedef struct {
    int64_t due;     // on the list's clock; of number 0: now, which nothing is due before
    uint32_t next;   // the entry behind, 0: none; of number 0: the first
    uint32_t before; // the entry in front, 0: none; of number 0: the last
} delta_link_t;

/** Neighbours in the list. */
typedef struct {
    uint32_t first;
    uint32_t count; // 1 or more while in use
} delta_cell_t;

/** To begin with: no room, and links that lead to number 0 alone, all zero. */
struct delta_list_t {
    delta_link_t* links;           // by entry
    uint32_t size = 0;             // entries
    uint32_t room = 0;             // entries have the numbers from 1 to this one
    uint32_t used = 0;             // cells in use
    uint32_t* cell_of = nullptr;   // by entry: the cell's number
    int64_t* bounds = nullptr;     // of the cells in use, the latest first
    uint32_t* order = nullptr;     // numbers of the cells, likewise, and behind them the others'
    delta_cell_t* cells = nullptr; // by number
};

/** Bytes for that many entries. */
size_t delta_bytes(uint32_t entries);

/**
 * Gives a list memory for more entries than it has room for, aligned for int64_t. It does without
 * its earlier memory from then on.
 */
void delta_move(delta_list_t* list, void* memory, uint32_t entries);

/**
 * Inserts an entry that falls due some time from now, 0 or more.
 *
 * @return its gap, which is to be taken off the gap of the entry behind it
 */
int32_t delta_insert(delta_list_t* list, uint32_t entry, int32_t timeout);

/** Cuts off what has fallen due. @return a chain in order of expiry, linked by next; 0: nothing */
uint32_t delta_cut(delta_list_t* list);

/** Puts such a chain in front of all others, due now. */
void delta_put_back(delta_list_t* list, uint32_t chain);

static inline uint32_t delta_next(const delta_list_t* list, uint32_t entry)
{
    return list->links[entry].next;
}

/** The entry in front of another; 0: none. */
static inline uint32_t delta_before(const delta_list_t* list, uint32_t entry)
{
    return list->links[entry].before;
}

/** The entry that falls due first; 0: the list is empty. */
static inline uint32_t delta_first(const delta_list_t* list)
{
    return list->links[0].next;
}

/** Time left. */
static inline int64_t delta_left(const delta_list_t* list, uint32_t entry)
{
    return list->links[entry].due - list->links[0].due;
}

/** Whether there is something for delta_cut. */
static inline bool delta_is_due(const delta_list_t* list)
{
    return delta_first(list) != 0 && delta_left(list, delta_first(list)) <= 0;
}

// ---- The short ones, written into their callers ----

/**
 * Lets time pass, or go back. What has fallen due is to be taken out with delta_cut; after that the
 * first gap is delta_left of the first entry.
 */
static inline void delta_advance(delta_list_t* list, int32_t by)
{
    delta_link_t* ends = &list->links[0];

    ends->due += by;
    if (ends->next != 0 && delta_left(list, ends->next) > INT32_MAX) {
        ends->due = list->links[ends->next].due - INT32_MAX;
    }
}

/** Takes a cell out of use that is empty now that its last entry, due then, has gone. */
void delta_close_cell(delta_list_t* list, uint32_t cell, int64_t due);

/** Lets the entries from one on fall due earlier. */
void delta_pull(delta_list_t* list, uint32_t from, int64_t by);

static inline void delta_leave_cell(delta_list_t* list, uint32_t entry)
{
    const uint32_t number = list->cell_of[entry];
    delta_cell_t* cell = &list->cells[number];

    if (cell->first == entry) {
        cell->first = list->links[entry].next; // of the same cell, if there are more
    }
    if (--cell->count == 0) {
        delta_close_cell(list, number, list->links[entry].due);
    }
}

/**
 * Takes an entry out; those behind it keep their time.
 *
 * @return the one behind it, whose gap is to become delta_sum of both; 0: none
 */
static inline uint32_t delta_remove(delta_list_t* list, uint32_t entry)
{
    const uint32_t behind = list->links[entry].next;
    const uint32_t before = list->links[entry].before;

    delta_leave_cell(list, entry);
    list->links[behind].before = before;
    list->links[before].next = behind;
    list->size--;
    return behind;
}

/** The gap of an entry whose neighbour in front has gone, from the gaps of both. */
static inline int32_t delta_sum(delta_list_t* list, uint32_t entry, int32_t gap, int32_t in_front)
{
    const int64_t sum = int64_t{gap} + in_front;

    if (sum > INT32_MAX) {
        delta_pull(list, entry, sum - INT32_MAX);
        return INT32_MAX;
    }
    return static_cast<int32_t>(sum);
}
