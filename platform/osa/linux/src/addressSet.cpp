// The set of addresses: adding. The idea stands in addressSet.h.
//
// Locks: none; whoever adds holds one of the set's owner.
#include "addressSet.h"

#include "osaTask.h"

static constexpr int FIRST_BITS = 4; // 16 slots
static constexpr int PLACE_BITS = 64;

static void put(address_table_t* table, const void* address)
{
    size_t place = address_place(table, address);

    while (table->slots[place] != nullptr) {
        place = (place + 1) & table->mask;
    }
    store_release(&table->slots[place], address); // with what the record held when it was added
    table->taken++;
}

static address_table_t* table_of_bits(int bits)
{
    const size_t slots = size_t{1} << bits;
    void* memory = ts_malloc(sizeof(address_table_t) + slots * sizeof(void*));
    address_table_t* table = static_cast<address_table_t*>(memory);

    if (table != nullptr) {
        table->mask = slots - 1;
        table->shift = PLACE_BITS - bits;
        table->slots = static_cast<const void**>(static_cast<void*>(table + 1));
    }
    return table;
}

static address_table_t* larger_copy(address_table_t* older)
{
    address_table_t* table =
        table_of_bits(older != nullptr ? PLACE_BITS - older->shift + 1 : FIRST_BITS);

    if (table == nullptr || older == nullptr) {
        return table;
    }
    for (size_t place = 0; place <= older->mask; place++) {
        if (older->slots[place] != nullptr) {
            put(table, older->slots[place]);
        }
    }
    table->older = older;
    return table;
}

static bool is_full(const address_table_t* table)
{
    return table == nullptr || 2 * (table->taken + 1) > table->mask + 1;
}

bool address_set_add(address_set_t* set, const void* address)
{
    address_table_t* table = set->table;

    if (!is_full(table)) {
        put(table, address);
        return true;
    }
    table = larger_copy(table);
    if (table == nullptr) {
        return false;
    }
    put(table, address);
    store_release(&set->table, table);
    return true;
}
