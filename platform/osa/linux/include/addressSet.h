// A set of addresses that only grows: any number of threads search it without a lock while one
// adds. It tells whether an address is one of ours before anybody follows it.
//
// The addresses stand in a table of twice their number or more, each in the first free slot from
// the place that its hash names. A full table is copied into one of double size; the old one stays,
// for somebody may still be searching it. All tables together take less than twice the latest.
#pragma once

#include "internal.h"

#include <stddef.h>
#include <stdint.h>

typedef struct address_table {
    struct address_table* older; // kept to the end of the process
    size_t taken;                // slots; guarded by whoever adds
    size_t mask;                 // slots - 1; constant, as are the next two
    int shift;                   // leaves as many bits of a hash as a place has
    const void** slots;          // behind this header; atomic, null when free, set once
} address_table_t;

/** Empty when it is all zero. */
typedef struct {
    address_table_t* table; // atomic, release when a larger one takes its place
} address_set_t;

static inline size_t address_place(const address_table_t* table, const void* address)
{
    static constexpr uint64_t GOLDEN = 0x9e37'79b9'7f4a'7c15; // spreads what differs in any bit

    return static_cast<size_t>((reinterpret_cast<uintptr_t>(address) * GOLDEN) >> table->shift);
}

/** @return whether an address was added; null never is. Any thread, without a lock. */
static inline bool address_set_has(const address_set_t* set, const void* address)
{
    const address_table_t* table = load_acquire(&set->table);

    if (table == nullptr) {
        return false;
    }
    size_t place = address_place(table, address);
    const void* found = load_acquire(&table->slots[place]);
    while (found != nullptr && found != address) { // half of the slots are free: this ends
        place = (place + 1) & table->mask;
        found = load_acquire(&table->slots[place]);
    }
    return found != nullptr;
}

/**
 * Adds an address that is not in the set. One thread at a time.
 *
 * @return false without memory, with the set as it was
 */
[[nodiscard]] bool address_set_add(address_set_t* set, const void* address);
