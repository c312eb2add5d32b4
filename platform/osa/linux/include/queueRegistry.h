// The records of message queues, and the registry that tells an id from any other address.
//
// A record is made when there is no spare one, and never goes back to the allocator: a deleted
// queue leaves its record to a later one. So whatever address_set_has finds in queue_records may be
// locked, however late; whether a queue lives there is for the record to say. This keeps some 500
// bytes for each queue of the time when there were most. It makes looking up cost a few loads, and
// allows wake-ups after the locks are let go: at worst they reach a waiter of the record's next
// queue, who looks and waits on.
#pragma once

#include "addressSet.h"

/** Every record there is. */
extern constinit address_set_t queue_records;

/**
 * A record without a queue that nobody else takes, spare or new. Late callers with the id of the
 * record's last queue may look into it all the while.
 *
 * @return null without memory
 */
v2pt_mqueue_t* queue_record_take(void);

/** Puts the record of a new queue at the end of the registry. */
void link_qcb(v2pt_mqueue_t* new_mqueue);

/**
 * Takes a record whose ring is gone out of the registry and keeps it for a later queue, which does
 * not get it before the last waiter has left.
 */
void unlink_qcb(v2pt_mqueue_t* qid);
