// Finding a task's control block by its id, at a cost that does not grow with the tasks alive: a
// hash table of chains through the blocks, beside the list, which keeps the order.
#pragma once

#include "internal.h"

/** Enters a block under the id that its pthrid holds. */
void task_index_add(task_t* task) REQUIRES(taskListHeld);

/** Takes a block out; nothing if it is not in. */
void task_index_remove(task_t* task) REQUIRES(taskListHeld);

/** @return the block with this id, or null */
task_t* task_index_find(taskId_t id) REQUIRES(taskListHeld);
