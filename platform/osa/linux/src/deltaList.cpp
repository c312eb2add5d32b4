// The delta list's index.
//
// The list is cut into cells of at most CELL_MAX neighbours, and the cells are sorted, the latest
// first, in two parallel arrays: their numbers, and a bound of each. No entry of a cell is due
// before its bound, none of an earlier cell after it. So a new entry belongs into the latest cell
// whose bound lies before its due time, or else into the earliest cell: a binary search and a walk
// inside the cell. A bound stays as it is when the first entry of its cell goes.
//
// A full cell is halved and an empty one goes; the rest of the arrays moves by memmove. Cells that
// time empties stand at the end and go without. A cell in use has an entry, so as many cells as
// there are entries always suffice.
#include "deltaList.h"

#include <string.h>

static constexpr uint32_t CELL_MAX = 12;

// ---- Memory ----

size_t delta_bytes(uint32_t entries)
{
    return (entries + size_t{1}) * sizeof(delta_link_t) + entries * sizeof(int64_t) +
           entries * sizeof(delta_cell_t) + entries * sizeof(uint32_t) +
           (entries + size_t{1}) * sizeof(uint32_t);
}

void delta_move(delta_list_t* list, void* memory, uint32_t entries)
{
    delta_list_t moved = *list;

    moved.links = static_cast<delta_link_t*>(memory);
    moved.bounds = reinterpret_cast<int64_t*>(moved.links + entries + 1);
    moved.cells = reinterpret_cast<delta_cell_t*>(moved.bounds + entries);
    moved.order = reinterpret_cast<uint32_t*>(moved.cells + entries);
    moved.cell_of = moved.order + entries;
    moved.room = entries;
    memcpy(moved.links, list->links, (list->room + 1) * sizeof *list->links);
    if (list->room > 0) {
        memcpy(moved.bounds, list->bounds, list->room * sizeof *list->bounds);
        memcpy(moved.cells, list->cells, list->room * sizeof *list->cells);
        memcpy(moved.order, list->order, list->room * sizeof *list->order);
        memcpy(moved.cell_of, list->cell_of, (list->room + 1) * sizeof *list->cell_of);
    }
    for (uint32_t cell = list->room; cell < entries; cell++) {
        moved.order[cell] = cell;
    }
    *list = moved;
}

// ---- Cells ----

/** The cell that an entry due then belongs into, as a place in order; one is in use at least. */
static uint32_t place_for(const delta_list_t* list, int64_t due)
{
    const int64_t* from = list->bounds;

    for (size_t count = list->used; count > 1;) { // it is among the count from here on
        const size_t half = count / 2;
        const int64_t not_before = (due - 1 - from[half - 1]) >> 63; // all ones, or 0: no branch
        from += half & static_cast<size_t>(not_before);
        count -= half;
    }
    return static_cast<uint32_t>(from - list->bounds);
}

/** Puts an unused cell at a place, in front of the earlier ones. @return its number */
static uint32_t open_cell(delta_list_t* list, uint32_t place)
{
    const uint32_t cell = list->order[list->used];
    const size_t earlier = list->used - place;

    memmove(list->bounds + place + 1, list->bounds + place, earlier * sizeof *list->bounds);
    memmove(list->order + place + 1, list->order + place, earlier * sizeof *list->order);
    list->order[place] = cell;
    list->used++;
    return cell;
}

void delta_close_cell(delta_list_t* list, uint32_t cell, int64_t due)
{
    uint32_t place = place_for(list, due);
    while (list->order[place] != cell) { // it is one of the later ones with that very bound
        place--;
    }
    list->used--;
    const size_t earlier = list->used - place;
    memmove(list->bounds + place, list->bounds + place + 1, earlier * sizeof *list->bounds);
    memmove(list->order + place, list->order + place + 1, earlier * sizeof *list->order);
    list->order[list->used] = cell;
}

/** Gives the later half of a cell to a new one. */
static void halve_cell(delta_list_t* list, uint32_t place)
{
    delta_cell_t* cell = &list->cells[list->order[place]];
    const uint32_t later = open_cell(list, place);
    const uint32_t kept = cell->count / 2;

    uint32_t entry = cell->first;
    for (uint32_t i = 0; i < kept; i++) {
        entry = list->links[entry].next;
    }
    list->bounds[place] = list->links[entry].due;
    list->cells[later] = {.first = entry, .count = cell->count - kept};
    for (uint32_t i = kept; i < cell->count; i++) {
        list->cell_of[entry] = later;
        entry = list->links[entry].next;
    }
    cell->count = kept;
}

// ---- The list ----

int32_t delta_insert(delta_list_t* list, uint32_t entry, int32_t timeout)
{
    delta_link_t* links = list->links;
    const int64_t due = links[0].due + timeout;

    if (list->used == 0) {
        list->cells[open_cell(list, 0)] = {.first = 0, .count = 0};
    }
    const uint32_t place = place_for(list, due);
    const uint32_t number = list->order[place];
    delta_cell_t* cell = &list->cells[number];

    uint32_t behind = cell->first;
    if (behind == 0 || links[behind].due >= due) {
        cell->first = entry;
    } else {
        do { // the first of the next cell ends it at the latest
            behind = links[behind].next;
        } while (behind != 0 && links[behind].due < due);
    }
    const uint32_t before = links[behind].before;
    links[entry] = {.due = due, .next = behind, .before = before};
    links[behind].before = entry;
    links[before].next = entry;
    list->cell_of[entry] = number;
    list->size++;
    if (++cell->count > CELL_MAX) {
        halve_cell(list, place);
    }
    return static_cast<int32_t>(due - links[before].due);
}

void delta_pull(delta_list_t* list, uint32_t from, int64_t by)
{
    for (uint32_t entry = from; entry != 0; entry = list->links[entry].next) {
        list->links[entry].due -= by;
    }
    for (uint32_t place = 0; place < list->used; place++) {
        list->bounds[place] = list->links[list->cells[list->order[place]].first].due;
    }
}

/** Takes what is due out of the earliest cell. @return whether the cell is empty now */
static bool cut_cell(delta_list_t* list, delta_cell_t* cell, uint32_t* last)
{
    const delta_link_t* links = list->links;
    const int64_t now = links[0].due;
    uint32_t rest = cell->first;
    uint32_t left = cell->count;

    for (; left > 0 && links[rest].due <= now; left--) {
        *last = rest;
        rest = links[rest].next;
    }
    list->size -= cell->count - left;
    *cell = {.first = rest, .count = left};
    return left == 0;
}

uint32_t delta_cut(delta_list_t* list)
{
    delta_link_t* links = list->links;
    const uint32_t chain = links[0].next;
    uint32_t last = 0;

    while (list->used > 0 && cut_cell(list, &list->cells[list->order[list->used - 1]], &last)) {
        list->used--;
    }
    if (last == 0) {
        return 0;
    }
    links[0].next = links[last].next;
    links[links[0].next].before = 0;
    links[last].next = 0;
    return chain;
}

void delta_put_back(delta_list_t* list, uint32_t chain)
{
    uint32_t reversed = 0; // inserted last, the first one comes first

    while (chain != 0) {
        const uint32_t next = list->links[chain].next;
        list->links[chain].next = reversed;
        reversed = chain;
        chain = next;
    }
    while (reversed != 0) {
        const uint32_t next = list->links[reversed].next;
        delta_insert(list, reversed, 0);
        reversed = next;
    }
}
