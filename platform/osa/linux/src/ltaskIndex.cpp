// The index of the task list, see taskIndex.h.
//
// The table starts in constant memory and doubles when there are more blocks than chains. Without
// memory for that it stays as it is, and its chains get longer.
//
// Locks: task_list_lock, held by every caller.
#include "taskIndex.h"

#include "osaTask.h"

static constexpr unsigned int FIRST_BITS = 6;

static task_t* first_chains[1U << FIRST_BITS];

static task_t** chains GUARDED_BY(taskListHeld) = first_chains;
static unsigned int chain_bits GUARDED_BY(taskListHeld) = FIRST_BITS; // 2^bits chains
static size_t blocks GUARDED_BY(taskListHeld) = 0;

// Ids are addresses, alike in their low bits: multiplied by 2^64 over the golden ratio, the upper
// bits depend on all of them.
static task_t** chain_of(taskId_t id) REQUIRES(taskListHeld)
{
    const uint64_t spread = static_cast<uint64_t>(id) * 0x9e3779b97f4a7c15U;

    return &chains[spread >> (64 - chain_bits)];
}

static void link_block_locked(task_t* task) REQUIRES(taskListHeld)
{
    task_t** chain = chain_of(task->index_id);

    task->same_chain = *chain;
    *chain = task;
}

static void grow_locked(void) REQUIRES(taskListHeld)
{
    const size_t old_size = size_t{1} << chain_bits;
    task_t** const old_chains = chains;

    task_t** grown = static_cast<task_t**>(ts_malloc(2 * old_size * sizeof(task_t*)));
    if (grown == nullptr) {
        return;
    }
    chains = grown;
    chain_bits++;
    for (size_t i = 0; i < old_size; i++) {
        while (old_chains[i] != nullptr) {
            task_t* task = old_chains[i];
            old_chains[i] = task->same_chain;
            link_block_locked(task);
        }
    }
    if (old_chains != first_chains) {
        ts_free(old_chains);
    }
}

void task_index_add(task_t* task)
{
    if (blocks >= size_t{1} << chain_bits) {
        grow_locked();
    }
    blocks++;
    task->index_id = task->pthrid;
    link_block_locked(task);
}

void task_index_remove(task_t* task)
{
    task_t** link = chain_of(task->index_id);

    while (*link != nullptr && *link != task) {
        link = &(*link)->same_chain;
    }
    if (*link != nullptr) {
        *link = task->same_chain;
        blocks--;
    }
}

// The id must still be the block's: whoever starts a thread for a block by himself changes it.
task_t* task_index_find(taskId_t id)
{
    task_t* task = *chain_of(id);

    while (task != nullptr && (task->index_id != id || task->pthrid != id)) {
        task = task->same_chain;
    }
    return task;
}
