// Doubly linked lists of the kernel interface: the records, and an empty list.
//
// A list links NODEs that stand at the start of its elements. It has no lock; its users have one.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

/** Link of a list element. */
typedef struct node {
    struct node* next;     // null at the end
    struct node* previous; // null at the start
} NODE;

/** A list. */
typedef struct {
    NODE node; // next: the first element, previous: the last; null when empty
    int count; // elements
} LIST;

static_assert(sizeof(NODE) == 16 && sizeof(LIST) == 24, "shared with the closed libraries");

/** Prepares the library: nothing to do. */
void lstLibInit(void);

/** Makes a list empty; elements it had are not touched. */
void lstInit(LIST* pList);

#ifdef __cplusplus
}
#endif
