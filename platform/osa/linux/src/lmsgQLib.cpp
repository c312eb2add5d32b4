// Message queues: a ring of slots under a mutex, a condition that receivers wait on, another one
// for senders, and a registry that every id is looked up in.
//
// The registry. mqueue_list chains every record ever made. A link is set once, and no record goes
// back to the allocator, so the chain is walked without a lock, and whatever is found in it may be
// locked, however late. Whether a queue lives there is for the record to say, under queue_lock: it
// has a ring. Deleting a queue frees the ring and leaves the record to a later msgQCreate. This
// keeps some 400 bytes for each queue of the time when there were most. It makes looking up cost a
// few loads, where a lock and a reference count would cost more than the rest of the operation; and
// it allows wake-ups after the locks are let go: at worst they reach waiters of the record's next
// queue, who look and wait on.
//
// Waiting. A waiter counts itself under queue_lock before it lets go of it, so whoever changes the
// count of messages afterwards knows that somebody is to be woken, and does so after the section.
// Receivers wait with queue_lock. Senders wait with qfull_lock and read msg_count and send_type
// without queue_lock; the wake-up takes qfull_lock, so it cannot fall between their look and their
// sleep. A slot they saw may be gone when they have queue_lock again: then they wait on.
//
// A task that was deleted takes and puts nothing: it looks whether it is to end when it has
// queue_lock, and a message that is sent after the deletion is put with queue_lock held, too.
//
// Deletion. The mark in send_type, set under queue_lock, decides who deletes. Waiters leave because
// of it, and the deleting task waits until waitTasks says that the last has gone. A record with
// waiters is not used again, so one that leaves late (the deleting task was itself told to end and
// did not wait) finds the mark and nothing else.
//
// Locks, outermost first:
//   task lock               held by a deletion, waited for with none of the others held
//   mqueue_list_lock        creation: appends records and hands out spare ones
//   queue_lock              the ring, the counts and the mark of one queue
//   qfull_lock, qdlet_lock  senders' sleep, the deleting task's sleep; never together
#include "osaMsg.h"

#include "internal.h"
#include "osaTask.h"

#include <errno.h>
#include <limits.h>
#include <string.h>

static constexpr lock_role_t queueListHeld; // mqueue_list_lock
static constexpr lock_role_t queueHeld;     // queue_lock
static constexpr lock_role_t queueFullHeld; // qfull_lock
static constexpr lock_role_t queueGoneHeld; // qdlet_lock

static constexpr size_t SLOT_HEADER = offsetof(q_msg_t, msgbuf);

// A ring beyond this is refused: the system might promise the memory and then end the process for
// filling it with zeros.
static constexpr size_t RING_LIMIT = INT_MAX;

static v2pt_mqueue_t* mqueue_list = nullptr; // atomic; written with mqueue_list_lock held
static pthread_mutex_t mqueue_list_lock = PTHREAD_MUTEX_INITIALIZER;

static v2pt_mqueue_t* record_of(MSG_Q_ID id)
{
    return static_cast<v2pt_mqueue_t*>(static_cast<void*>(id));
}

static status_t fail_with(STATUS status)
{
    errno = status;
    return ERROR;
}

// ---- The ring ----

static char* bytes_of(q_msg_t* slot)
{
    return static_cast<char*>(static_cast<void*>(slot));
}

static q_msg_t* slot_at(char* bytes)
{
    return static_cast<q_msg_t*>(static_cast<void*>(bytes));
}

static q_msg_t* slot_after(const v2pt_mqueue_t* queue, q_msg_t* slot)
{
    if (slot == queue->last_msg_in_queue) {
        return queue->first_msg_in_queue;
    }
    return slot_at(bytes_of(slot) + queue->vmsg_len);
}

static q_msg_t* slot_before(const v2pt_mqueue_t* queue, q_msg_t* slot)
{
    if (slot == queue->first_msg_in_queue) {
        return queue->last_msg_in_queue;
    }
    return slot_at(bytes_of(slot) - queue->vmsg_len);
}

// Slots are not aligned, so their headers are copied as well.
static void fill_slot(q_msg_t* slot, const char* msg, uint msglen)
{
    memcpy(bytes_of(slot), &msglen, sizeof msglen);
    if (msg != nullptr) {
        memcpy(bytes_of(slot) + SLOT_HEADER, msg, msglen);
    }
}

static void send_msg_to(v2pt_mqueue_t* queue, const char* msg, uint msglen) REQUIRES(queueHeld)
{
    fill_slot(queue->queue_tail, msg, msglen);
    queue->queue_tail = slot_after(queue, queue->queue_tail);
    store_relaxed(&queue->msg_count, queue->msg_count + 1);
}

static void urgent_msg_to(v2pt_mqueue_t* queue, const char* msg, uint msglen) REQUIRES(queueHeld)
{
    queue->queue_head = slot_before(queue, queue->queue_head);
    fill_slot(queue->queue_head, msg, msglen);
    store_relaxed(&queue->msg_count, queue->msg_count + 1);
}

static uint fetch_msg_from(v2pt_mqueue_t* queue, char* msg) REQUIRES(queueHeld)
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
    store_relaxed(&queue->msg_count, queue->msg_count - 1);
    return msglen;
}

// ---- The registry ----

// 0: no such queue. 1: there is, and its queue_lock is held.
static int mqueue_find_lock(v2pt_mqueue_t* queue)
    LOCK_ATTRIBUTE(try_acquire_capability(1, queueHeld)) UNCHECKED
{
    const v2pt_mqueue_t* record = load_acquire(&mqueue_list);

    while (record != nullptr && record != queue) {
        record = load_acquire(&record->nxt_queue);
    }
    if (record == nullptr) {
        return 0;
    }
    TEST_POINT();
    pthread_mutex_lock(&queue->queue_lock);
    if (queue->first_msg_in_queue != nullptr) {
        return 1;
    }
    pthread_mutex_unlock(&queue->queue_lock);
    return 0;
}

static void mqueue_unlock(v2pt_mqueue_t* queue) RELEASES(queueHeld)
{
    section_close(&queue->queue_lock, queueHeld);
}

static void link_qcb(v2pt_mqueue_t* new_mqueue) REQUIRES(queueListHeld)
{
    v2pt_mqueue_t** link = &mqueue_list;

    while (*link != nullptr) {
        link = &(*link)->nxt_queue;
    }
    store_release(link, new_mqueue);
}

// Makes the queue unknown; its record stays. Returns the ring.
static q_msg_t* unlink_qcb(v2pt_mqueue_t* qid)
{
    q_msg_t* ring = nullptr;
    q_msg_t* const none = nullptr;

    LOCK_SECTION(&qid->queue_lock, queueHeld);
    ring = qid->first_msg_in_queue;
    store_release(&qid->first_msg_in_queue, none);
    END_SECTION(queueHeld);
    return ring;
}

static void delete_mqueue(v2pt_mqueue_t* queue)
{
    ts_free(unlink_qcb(queue));
}

// ---- Creation ----

static size_t stride_for(int msglen)
{
    return SLOT_HEADER + static_cast<size_t>(msglen);
}

// Neither the sum nor the product of two 31-bit numbers overflows 64 bits.
static q_msg_t* data_extent_for(int max_msgs, int msglen)
{
    const size_t size = stride_for(msglen) * (static_cast<size_t>(max_msgs) + 1);

    return size > RING_LIMIT ? nullptr : static_cast<q_msg_t*>(ts_malloc(size));
}

static v2pt_mqueue_t* new_record(void)
{
    v2pt_mqueue_t* queue = static_cast<v2pt_mqueue_t*>(ts_malloc(sizeof(v2pt_mqueue_t)));

    if (queue == nullptr) {
        return nullptr;
    }
    recursive_mutex_init(&queue->queue_lock, &queue->queue_attr);
    pthread_cond_init(&queue->queue_send, nullptr);
    recursive_mutex_init(&queue->qdlet_lock, &queue->qdlet_attr);
    pthread_cond_init(&queue->qdlet_cmplt, nullptr);
    recursive_mutex_init(&queue->qfull_lock, &queue->qfull_attr);
    pthread_cond_init(&queue->queue_space, nullptr);
    return queue;
}

// Once the ring is gone nobody comes to wait any more, so the second look settles it.
static bool is_spare(const v2pt_mqueue_t* queue)
{
    return load_acquire(&queue->first_msg_in_queue) == nullptr &&
           load_acquire(&queue->waitTasks) == 0;
}

static v2pt_mqueue_t* spare_record(void) REQUIRES(queueListHeld)
{
    v2pt_mqueue_t* queue = mqueue_list;

    while (queue != nullptr && !is_spare(queue)) {
        queue = queue->nxt_queue;
    }
    if (queue != nullptr) {
        return queue;
    }
    queue = new_record();
    if (queue != nullptr) {
        link_qcb(queue);
    }
    return queue;
}

// Late callers with the id of the record's last queue may look into it meanwhile.
static void open_queue(v2pt_mqueue_t* queue, q_msg_t* ring, int max_msgs, int msglen)
{
    LOCK_SECTION(&queue->queue_lock, queueHeld);
    queue->vmsg_len = stride_for(msglen);
    queue->msgs_per_queue = max_msgs;
    queue->msg_len = msglen;
    queue->last_msg_in_queue =
        slot_at(bytes_of(ring) + queue->vmsg_len * static_cast<size_t>(max_msgs));
    queue->queue_head = ring;
    queue->queue_tail = ring;
    store_relaxed(&queue->msg_count, 0);
    store_relaxed(&queue->send_type, 0);
    store_release(&queue->first_msg_in_queue, ring);
    END_SECTION(queueHeld);
}

static STATUS create_queue(int max_msgs, int msglen, v2pt_mqueue_t** created)
{
    v2pt_mqueue_t* queue = nullptr;

    if (max_msgs < 1 || msglen < 0) {
        return S_msgQLib_INVALID_MSG_LENGTH;
    }
    q_msg_t* ring = data_extent_for(max_msgs, msglen);
    if (ring == nullptr) {
        return S_memLib_NOT_ENOUGH_MEMORY;
    }
    LOCK_SECTION(&mqueue_list_lock, queueListHeld);
    queue = spare_record();
    if (queue != nullptr) {
        open_queue(queue, ring, max_msgs, msglen);
    }
    END_SECTION(queueListHeld);

    if (queue == nullptr) {
        ts_free(ring);
        return S_memLib_NOT_ENOUGH_MEMORY;
    }
    *created = queue;
    return OK;
}

MSG_Q_ID msgQCreate(int max_msgs, int msglen, int)
{
    v2pt_mqueue_t* queue = nullptr;

    thread_record_t* me = op_enter();
    const STATUS status = create_queue(max_msgs, msglen, &queue);
    op_leave(me);

    if (status != OK) {
        errno = status;
        return nullptr;
    }
    return static_cast<MSG_Q_ID>(static_cast<void*>(queue));
}

// ---- Waiting ----

// A wait: where it counts, what it sleeps on, and how the last sleep ended (0, ETIMEDOUT, ...).
typedef struct wait_place {
    v2pt_mqueue_t* queue;
    int* waiting; // receivers_waiting or senders_waiting
    pthread_cond_t* cond;
    pthread_mutex_t* mutex;
    int retcode;
} wait_place_t;

static bool is_marked(const v2pt_mqueue_t* queue)
{
    return (load_relaxed(&queue->send_type) & SEND_DELETED) != 0;
}

static bool has_room(const v2pt_mqueue_t* queue, int pri)
{
    const int room = queue->msgs_per_queue - load_relaxed(&queue->msg_count);

    return room > 0 || (room == 0 && pri == MSG_PRI_URGENT); // 0: the spare slot
}

// The spare slot is for urgent messages that come to a full queue: one that has to wait, waits for
// a slot like any other.
static int waiting_on_q_space(const v2pt_mqueue_t* queue, int* retcode)
{
    if (!is_marked(queue) && !has_room(queue, MSG_PRI_NORMAL)) {
        return 1;
    }
    *retcode = 0;
    return 0;
}

static int waiting_on_q_msg(const v2pt_mqueue_t* queue, int* retcode) REQUIRES(queueHeld)
{
    if (!is_marked(queue) && queue->msg_count < 1) {
        return 1;
    }
    *retcode = 0;
    return 0;
}

static void notify_if_delete_complete(v2pt_mqueue_t* queue)
{
    LOCK_SECTION(&queue->qdlet_lock, queueGoneHeld);
    pthread_cond_broadcast(&queue->qdlet_cmplt);
    END_SECTION(queueGoneHeld);
}

static void join_waiters_locked(const wait_place_t* place) REQUIRES(queueHeld)
{
    v2pt_mqueue_t* queue = place->queue;

    ++*place->waiting;
    store_relaxed(&queue->waitTasks, queue->waitTasks + 1);
}

static void waitTaskStopWait(const wait_place_t* place) REQUIRES(queueHeld)
{
    v2pt_mqueue_t* queue = place->queue;

    --*place->waiting;
    store_release(&queue->waitTasks, queue->waitTasks - 1);
    if (is_marked(queue)) {
        notify_if_delete_complete(queue);
    }
}

// How a wait ended. One that failed for any other reason than its deadline would fail for ever, so
// it counts as a time-out as well.
static STATUS wait_status(const thread_record_t* me, const wait_place_t* place)
{
    if (is_marked(place->queue)) {
        return S_objLib_OBJ_DELETED;
    }
    if (end_asked(me)) {
        return S_objLib_OBJ_UNAVAILABLE;
    }
    return place->retcode != 0 ? S_objLib_OBJ_TIMEOUT : OK;
}

static const struct timespec* deadline_for(int wait, struct timespec* space)
{
    if (wait == WAIT_FOREVER) {
        return nullptr;
    }
    deadline_after(wait, space);
    return space;
}

static bool goes_on(const thread_record_t* me, const wait_place_t* place)
{
    return place->retcode == 0 && !end_asked(me);
}

// Sleeps until there seems to be room, the queue is marked, or there is no point in going on.
static void wait_for_space(thread_record_t* me, wait_place_t* place,
                           const struct timespec* deadline)
{
    LOCK_SECTION(place->mutex, queueFullHeld);
    while (waiting_on_q_space(place->queue, &place->retcode) != 0 && goes_on(me, place)) {
        place->retcode = op_wait(me, place->cond, place->mutex, deadline);
    }
    END_SECTION(queueFullHeld);
}

// Likewise until there is a message.
static void wait_for_msg(thread_record_t* me, wait_place_t* place, const struct timespec* deadline)
    REQUIRES(queueHeld)
{
    while (waiting_on_q_msg(place->queue, &place->retcode) != 0 && goes_on(me, place)) {
        place->retcode = op_wait(me, place->cond, place->mutex, deadline);
    }
}

// Waits for room. OK: there is room, and queue_lock was not let go of since.
static STATUS waitToSend(thread_record_t* me, v2pt_mqueue_t* queue, int wait, int pri)
    REQUIRES(queueHeld)
{
    wait_place_t place = {queue, &queue->senders_waiting, &queue->queue_space, &queue->qfull_lock,
                          0};
    struct timespec space;
    STATUS status = OK;

    if (wait == NO_WAIT) {
        return S_objLib_OBJ_UNAVAILABLE;
    }
    const struct timespec* deadline = deadline_for(wait, &space);
    join_waiters_locked(&place);
    do {
        mqueue_unlock(queue);
        TEST_POINT();
        wait_for_space(me, &place, deadline);
        TEST_POINT();
        section_open(&queue->queue_lock, queueHeld);
        status = wait_status(me, &place);
    } while (status == OK && !has_room(queue, pri));
    waitTaskStopWait(&place);
    return status;
}

// Waits for a message. OK: there is one, and queue_lock was not let go of since.
static STATUS wait_to_receive(thread_record_t* me, v2pt_mqueue_t* queue, int max_wait)
    REQUIRES(queueHeld)
{
    wait_place_t place = {queue, &queue->receivers_waiting, &queue->queue_send, &queue->queue_lock,
                          0};
    struct timespec space;

    if (max_wait == NO_WAIT) {
        return S_objLib_OBJ_UNAVAILABLE;
    }
    const struct timespec* deadline = deadline_for(max_wait, &space);
    join_waiters_locked(&place);
    wait_for_msg(me, &place, deadline);
    waitTaskStopWait(&place);
    return wait_status(me, &place);
}

// ---- Sending and receiving ----

static STATUS send_to(thread_record_t* me, v2pt_mqueue_t* queue, const char* msg, uint msglen,
                      int wait, int pri)
{
    STATUS status = OK;
    bool wake = false;

    if (mqueue_find_lock(queue) == 0) {
        return S_objLib_OBJ_ID_ERROR;
    }
    if (msglen > static_cast<uint>(queue->msg_len)) {
        status = S_msgQLib_INVALID_MSG_LENGTH;
    } else if (end_asked(me)) {
        status = S_objLib_OBJ_UNAVAILABLE;
    } else if (!has_room(queue, pri)) {
        status = waitToSend(me, queue, wait, pri);
    }
    if (status == OK) {
        if (pri == MSG_PRI_URGENT) {
            urgent_msg_to(queue, msg, msglen);
        } else {
            send_msg_to(queue, msg, msglen);
        }
        wake = queue->receivers_waiting > 0;
    }
    mqueue_unlock(queue);

    if (wake) {
        TEST_POINT();
        pthread_cond_broadcast(&queue->queue_send);
    }
    return status;
}

status_t msgQSend(MSG_Q_ID queuePtr, char* msg, uint msglen, int wait, int pri)
{
    thread_record_t* me = op_enter();
    const STATUS status = send_to(me, record_of(queuePtr), msg, msglen, wait, pri);
    if (status == S_objLib_OBJ_ID_ERROR) {
        printf("msgQSend not found");
    } else if (status == S_msgQLib_INVALID_MSG_LENGTH) {
        printf("msglen > queue->msg_len\n");
    }
    op_leave(me);
    return status == OK ? OK : fail_with(status);
}

static void wake_senders(v2pt_mqueue_t* queue)
{
    TEST_POINT();
    LOCK_SECTION(&queue->qfull_lock, queueFullHeld);
    pthread_cond_broadcast(&queue->queue_space);
    END_SECTION(queueFullHeld);
}

// A result without a status is the caller's: bytes, or ERROR where errno stays untouched.
static STATUS receive_from(thread_record_t* me, v2pt_mqueue_t* queue, char* msgbuf, uint buflen,
                           int max_wait, int32_t* result)
{
    STATUS status = OK;
    bool wake = false;

    *result = ERROR;
    if (queue == nullptr) {
        return OK;
    }
    if (mqueue_find_lock(queue) == 0) {
        return S_objLib_OBJ_ID_ERROR;
    }
    if (is_marked(queue)) {
        mqueue_unlock(queue);
        return OK;
    }
    if (buflen < static_cast<uint>(queue->msg_len)) {
        status = S_msgQLib_INVALID_MSG_LENGTH;
    } else if (end_asked(me)) {
        status = S_objLib_OBJ_UNAVAILABLE;
    } else if (queue->msg_count == 0) {
        status = wait_to_receive(me, queue, max_wait);
    }
    if (status == OK) {
        *result = static_cast<int32_t>(fetch_msg_from(queue, msgbuf));
        wake = queue->senders_waiting > 0;
    }
    mqueue_unlock(queue);

    if (wake) {
        wake_senders(queue);
    }
    return status;
}

int32_t msgQReceive(MSG_Q_ID queuePtr, char* msgbuf, uint buflen, int max_wait)
{
    int32_t result = ERROR;

    thread_record_t* me = op_enter();
    const STATUS status = receive_from(me, record_of(queuePtr), msgbuf, buflen, max_wait, &result);
    if (status == S_msgQLib_INVALID_MSG_LENGTH) {
        printf("buflen < queue->msg_len   dd \n");
    }
    op_leave(me);
    return status == OK ? result : fail_with(status);
}

int msgQNumMsgs(MSG_Q_ID queuePtr)
{
    v2pt_mqueue_t* queue = record_of(queuePtr);
    int held = ERROR;

    thread_record_t* me = op_enter();
    if (mqueue_find_lock(queue) != 0) {
        held = queue->msg_count;
        mqueue_unlock(queue);
    }
    op_leave(me);
    return held;
}

// ---- Deletion ----

static bool mark_deleted(v2pt_mqueue_t* queue)
{
    if (mqueue_find_lock(queue) == 0) {
        return false;
    }
    const bool first = !is_marked(queue);
    store_relaxed(&queue->send_type, queue->send_type | SEND_DELETED);
    mqueue_unlock(queue);
    return first;
}

static void wake_all(v2pt_mqueue_t* queue)
{
    pthread_cond_broadcast(&queue->queue_send); // the mark was set with the receivers' lock
    wake_senders(queue);
}

// Sleeps until the waiters have left; a caller that is itself told to end waits for nobody.
static void wait_for_departures(thread_record_t* me, v2pt_mqueue_t* queue)
{
    LOCK_SECTION(&queue->qdlet_lock, queueGoneHeld);
    while (load_acquire(&queue->waitTasks) > 0 && !end_asked(me)) {
        op_wait(me, &queue->qdlet_cmplt, &queue->qdlet_lock, nullptr);
    }
    END_SECTION(queueGoneHeld);
}

// The queue is marked, so only this thread deletes it. One that is told to end waits for nobody any
// more, but finishes, and keeps the tick that latecomers are granted.
static void remove_marked(thread_record_t* me, v2pt_mqueue_t* queue)
{
    const bool task_locked = task_lock_take(me);
    TEST_POINT();
    wake_all(queue);
    if (task_locked) {
        wait_for_departures(me, queue);
    }
    sleep_a_tick();
    delete_mqueue(queue);
    task_lock_give(); // nothing if it was not taken
}

status_t msgQDelete(MSG_Q_ID queuePtr)
{
    v2pt_mqueue_t* queue = record_of(queuePtr);

    thread_record_t* me = op_enter();
    const bool first = mark_deleted(queue);
    if (first) {
        remove_marked(me, queue);
    }
    op_leave(me);
    return first ? OK : fail_with(S_objLib_OBJ_ID_ERROR);
}

status_t msgQSafeDelete(MSG_Q_ID* queuePtr)
{
    if (queuePtr == nullptr) {
        return ERROR;
    }
    return msgQDelete(__atomic_exchange_n(queuePtr, nullptr, __ATOMIC_ACQ_REL));
}

int msgQShow(v2pt_mqueue_t*, FILE*, int)
{
    return 0;
}

int msgQList(FILE*, int)
{
    return 0;
}
