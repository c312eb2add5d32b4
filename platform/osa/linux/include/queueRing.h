// The ring of a message queue: slots of one stride, messages from queue_head on. All of it is
// guarded by the queue's guard, which queueHeld stands for.
#pragma once

#include "internal.h"

#include <stddef.h>
#include <string.h>

inline constexpr lock_role_t queueHeld; // guard

inline constexpr size_t SLOT_HEADER = offsetof(q_msg_t, msgbuf);

static inline char* bytes_of(q_msg_t* slot)
{
    return static_cast<char*>(static_cast<void*>(slot));
}

static inline q_msg_t* slot_at(char* bytes)
{
    return static_cast<q_msg_t*>(static_cast<void*>(bytes));
}

static inline q_msg_t* slot_after(const v2pt_mqueue_t* queue, q_msg_t* slot)
{
    if (slot == queue->last_msg_in_queue) {
        return queue->first_msg_in_queue;
    }
    return slot_at(bytes_of(slot) + queue->vmsg_len);
}

static inline q_msg_t* slot_before(const v2pt_mqueue_t* queue, q_msg_t* slot)
{
    if (slot == queue->first_msg_in_queue) {
        return queue->last_msg_in_queue;
    }
    return slot_at(bytes_of(slot) - queue->vmsg_len);
}

// Slots are not aligned, so their headers are copied as well.
static inline void fill_slot(q_msg_t* slot, const char* msg, uint msglen)
{
    memcpy(bytes_of(slot), &msglen, sizeof msglen);
    if (msg != nullptr) {
        memcpy(bytes_of(slot) + SLOT_HEADER, msg, msglen);
    }
}

static inline void send_msg_to(v2pt_mqueue_t* queue, const char* msg, uint msglen)
    REQUIRES(queueHeld)
{
    fill_slot(queue->queue_tail, msg, msglen);
    queue->queue_tail = slot_after(queue, queue->queue_tail);
    queue->msg_count++;
}

static inline void urgent_msg_to(v2pt_mqueue_t* queue, const char* msg, uint msglen)
    REQUIRES(queueHeld)
{
    queue->queue_head = slot_before(queue, queue->queue_head);
    fill_slot(queue->queue_head, msg, msglen);
    queue->msg_count++;
}

/** Takes the first message, of which there is one. @return bytes copied; 0 for a null msg */
static inline uint fetch_msg_from(v2pt_mqueue_t* queue, char* msg) REQUIRES(queueHeld)
{
    static constexpr uint empty = 0;
    char* slot = bytes_of(queue->queue_head);
    uint msglen = 0;

    if (msg != nullptr) {
        memcpy(&msglen, slot, sizeof msglen);
        memcpy(msg, slot + SLOT_HEADER, msglen);
    }
    memcpy(slot, &empty, sizeof empty);
    if (queue->msg_len > 0) { // else the byte belongs to the next slot, or to nobody
        slot[SLOT_HEADER] = 0;
    }
    queue->queue_head = slot_after(queue, queue->queue_head);
    queue->msg_count--;
    return msglen;
}
