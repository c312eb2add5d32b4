// Message queues: sending, receiving, waiting, deleting. The ring is in queueRing.h, the registry
// that every id is looked up in, in queueRegistry.h.
//
// The guard. One lock word guards the ring, the counts and the mark of a queue. Inside an operation
// no thread ends, so none ends with the guard in its hands; nothing is waited for under it. It goes
// with a look whether the queue is there: mqueue_find_lock, mqueue_unlock.
//
// Waiting. A waiter counts itself under the guard, lets go of it, and sleeps until it is called:
// receivers on queue_send with queue_lock, senders on queue_space with qfull_lock. Whoever lets go
// of the guard looks at each end whether fewer are called and on their way than could go on now,
// which is the lesser of those that wait and of the messages or slots there are. Then it calls one:
// it counts the call under the guard (called), posts it under the lock that the waiters sleep with
// (calls), and signals. One is enough, for no section under the guard leaves more than one short.
//
// No call is lost. One that comes before its waiter sleeps is found posted. Of those awake any may
// take it up, and the others sleep on. Whoever wakes and finds a call takes it up in any case: its
// deadline passed or told to end, it gives the call back under the guard, and letting go of the
// guard passes it on if somebody can still go on. A call that is posted when its waiters have left,
// even when another queue has the record, costs the next waiter one look.
//
// A called waiter may find that others were faster; then it waits on, within the same deadline.
// model/queue.pml goes through every order of these steps.
//
// A task that was deleted takes and puts nothing: it looks whether it is to end when it has the
// guard, and a message that is sent after the deletion is put under the guard, too.
//
// Deletion. The mark in send_type, set under the guard, decides who deletes. Waiters leave because
// of it, and the deleting task waits until waitTasks says that the last has gone; whoever lets go
// of the guard of a marked queue tells it to look. One that leaves late (the deleting task was
// itself told to end and did not wait) finds the mark and nothing else, for a record with waiters
// is not used again.
//
// Locks, outermost first:
//   task lock               held by a deletion, waited for with none of the others held
//   guard                   the ring, the counts and the mark of one queue
//   queue_lock, qfull_lock  calls for receivers and for senders, which sleep with them; queue_lock
//                           for those, too, that found the guard taken. Never with another
//   qdlet_lock              the deleting task's sleep; likewise
#include "osaMsg.h"

#include "internal.h"
#include "lockWord.h"
#include "osaTask.h"
#include "queueRegistry.h"
#include "queueRing.h"

#include <errno.h>
#include <limits.h>

static constexpr lock_role_t queueSleepHeld; // queue_lock or qfull_lock
static constexpr lock_role_t queueGoneHeld;  // qdlet_lock

// A ring beyond this is refused: the system might promise the memory and then end the process for
// filling it with zeros.
static constexpr size_t RING_LIMIT = INT_MAX;

static v2pt_mqueue_t* record_of(MSG_Q_ID id)
{
    return static_cast<v2pt_mqueue_t*>(static_cast<void*>(id));
}

static status_t fail_with(STATUS status)
{
    errno = status;
    return ERROR;
}

// ---- The two ends of a queue ----

// What receivers wait for, or senders: where they count, and what they sleep on with what.
typedef struct queue_end {
    queue_waiters_t* waiters;
    pthread_cond_t* cond;
    pthread_mutex_t* mutex;
    int (*waiting_on)(const v2pt_mqueue_t* queue, int pri); // 1: there is no going on yet
} queue_end_t;

// Relaxed: whoever looks holds the guard, under which the mark is set, or the lock that the deleter
// takes after that to wake those asleep.
static bool is_marked(const v2pt_mqueue_t* queue)
{
    return (load_relaxed(&queue->send_type) & SEND_DELETED) != 0;
}

static int room_in(const v2pt_mqueue_t* queue) REQUIRES(queueHeld)
{
    return queue->msgs_per_queue - queue->msg_count; // -1: the spare slot is taken as well
}

static int waiting_on_q_space(const v2pt_mqueue_t* queue, int pri) REQUIRES(queueHeld)
{
    const int least = pri == MSG_PRI_URGENT ? 0 : 1; // 0: the spare slot

    return room_in(queue) < least ? 1 : 0;
}

static int waiting_on_q_msg(const v2pt_mqueue_t* queue, int) REQUIRES(queueHeld)
{
    return queue->msg_count < 1 ? 1 : 0;
}

static queue_end_t receivers_of(v2pt_mqueue_t* queue)
{
    return {&queue->receivers, &queue->queue_send, &queue->queue_lock, waiting_on_q_msg};
}

static queue_end_t senders_of(v2pt_mqueue_t* queue)
{
    return {&queue->senders, &queue->queue_space, &queue->qfull_lock, waiting_on_q_space};
}

// Notes the call that is owed to one end, if any; call_one() makes it once the guard is given.
static bool owes_call(queue_waiters_t* waiters, int can_go_on) REQUIRES(queueHeld)
{
    if (waiters->called >= waiters->waiting || waiters->called >= can_go_on) {
        return false;
    }
    waiters->called++;
    return true;
}

// Signals unlocked, so that the one who wakes does not run into the lock.
static void call_one(const queue_end_t& end)
{
    TEST_POINT();
    LOCK_SECTION(end.mutex, queueSleepHeld);
    end.waiters->calls++;
    END_SECTION(queueSleepHeld);
    TEST_POINT();
    pthread_cond_signal(end.cond);
}

static void wake_all(const queue_end_t& end)
{
    LOCK_SECTION(end.mutex, queueSleepHeld); // nobody is between the look at the mark and the sleep
    pthread_cond_broadcast(end.cond);
    END_SECTION(queueSleepHeld);
}

// ---- The guard ----

static void guard_take(v2pt_mqueue_t* queue) ACQUIRES(queueHeld)
{
    lock_word_take(&queue->guard, &queue->queue_lock);
    role_taken(queueHeld);
}

static void guard_give(v2pt_mqueue_t* queue) RELEASES(queueHeld)
{
    lock_word_give(&queue->guard, &queue->queue_lock);
    role_given(queueHeld);
}

static void notify_if_delete_complete(v2pt_mqueue_t* queue)
{
    LOCK_SECTION(&queue->qdlet_lock, queueGoneHeld);
    pthread_cond_broadcast(&queue->qdlet_cmplt);
    END_SECTION(queueGoneHeld);
}

// 0: no such queue. 1: there is, and its guard is held.
static inline int mqueue_find_lock(v2pt_mqueue_t* queue)
    LOCK_ATTRIBUTE(try_acquire_capability(1, queueHeld)) UNCHECKED
{
    if (!address_set_has(&queue_records, queue)) {
        return 0;
    }
    TEST_POINT();
    guard_take(queue);
    if (queue->first_msg_in_queue != nullptr) {
        return 1;
    }
    guard_give(queue);
    return 0;
}

[[gnu::noinline]] static void unlock_and_tell(v2pt_mqueue_t* queue) RELEASES(queueHeld)
{
    const bool receiver = owes_call(&queue->receivers, queue->msg_count);
    const bool sender = owes_call(&queue->senders, room_in(queue));
    const bool marked = is_marked(queue);
    guard_give(queue);

    if (receiver) {
        call_one(receivers_of(queue));
    }
    if (sender) {
        call_one(senders_of(queue));
    }
    if (marked) {
        notify_if_delete_complete(queue);
    }
}

// Lets go of the guard and tells whoever waits for what was done under it.
static inline void mqueue_unlock(v2pt_mqueue_t* queue) RELEASES(queueHeld)
{
    if (__builtin_expect(load_relaxed(&queue->waitTasks) > 0 || is_marked(queue), 0)) {
        unlock_and_tell(queue);
    } else {
        guard_give(queue);
    }
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

static void open_queue(v2pt_mqueue_t* queue, q_msg_t* ring, int max_msgs, int msglen)
{
    guard_take(queue);
    queue->vmsg_len = stride_for(msglen);
    queue->msgs_per_queue = max_msgs;
    queue->msg_len = msglen;
    queue->first_msg_in_queue = ring;
    queue->last_msg_in_queue =
        slot_at(bytes_of(ring) + queue->vmsg_len * static_cast<size_t>(max_msgs));
    queue->queue_head = ring;
    queue->queue_tail = ring;
    queue->msg_count = 0;
    store_relaxed(&queue->send_type, 0);
    guard_give(queue);
}

static STATUS create_queue(int max_msgs, int msglen, v2pt_mqueue_t** created)
{
    if (max_msgs < 1 || msglen < 0) {
        return S_msgQLib_INVALID_MSG_LENGTH;
    }
    q_msg_t* ring = data_extent_for(max_msgs, msglen);
    if (ring == nullptr) {
        return S_memLib_NOT_ENOUGH_MEMORY;
    }
    v2pt_mqueue_t* queue = queue_record_take();
    if (queue == nullptr) {
        ts_free(ring);
        return S_memLib_NOT_ENOUGH_MEMORY;
    }
    open_queue(queue, ring, max_msgs, msglen);
    link_qcb(queue);
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

static constexpr STATUS WAIT_ON = ERROR; // no status code

static const struct timespec* deadline_for(int wait, struct timespec* space)
{
    if (wait == WAIT_FOREVER) {
        return nullptr;
    }
    deadline_after(wait, space);
    return space;
}

static void join_waiters(v2pt_mqueue_t* queue, queue_waiters_t* waiters) REQUIRES(queueHeld)
{
    waiters->waiting++;
    store_relaxed(&queue->waitTasks, queue->waitTasks + 1);
}

static void waitTaskStopWait(v2pt_mqueue_t* queue, queue_waiters_t* waiters) REQUIRES(queueHeld)
{
    waiters->waiting--;
    // Release meets the looks that are made without the guard, the deleter's and spare_record's.
    store_release(&queue->waitTasks, queue->waitTasks - 1);
}

// Sleeps until there is a call, the queue is marked, or there is no point in going on. Takes the
// call up, if there is one; retcode tells how the last sleep ended (0, ETIMEDOUT, ...).
static bool sleep_until_called(thread_record_t* me, const v2pt_mqueue_t* queue,
                               const queue_end_t& end, const struct timespec* deadline,
                               int* retcode)
{
    bool called = false;

    TEST_POINT();
    LOCK_SECTION(end.mutex, queueSleepHeld);
    while (end.waiters->calls == 0 && !is_marked(queue) && *retcode == 0 && !end_asked(me)) {
        *retcode = op_wait(me, end.cond, end.mutex, deadline);
    }
    called = end.waiters->calls > 0;
    if (called) {
        end.waiters->calls--;
    }
    END_SECTION(queueSleepHeld);
    TEST_POINT();
    return called;
}

// What comes together with the deadline wins. A sleep that failed for any other reason would fail
// for ever, so it counts as a time-out as well.
static STATUS wait_status(const thread_record_t* me, const v2pt_mqueue_t* queue, int waiting_on,
                          int retcode)
{
    if (is_marked(queue)) {
        return S_objLib_OBJ_DELETED;
    }
    if (end_asked(me)) {
        return S_objLib_OBJ_UNAVAILABLE;
    }
    if (waiting_on == 0) {
        return OK;
    }
    return retcode != 0 ? S_objLib_OBJ_TIMEOUT : WAIT_ON;
}

// Waits at one end. OK: the caller can go on, and the guard was not let go of since.
//
// The spare slot is for urgent messages that come to a full queue: one that has to wait is called
// for a slot like any other, and takes the spare one only if somebody was faster then.
static STATUS wait_at(thread_record_t* me, v2pt_mqueue_t* queue, const queue_end_t& end, int wait,
                      int pri) REQUIRES(queueHeld)
{
    struct timespec space;
    int retcode = 0;

    if (wait == NO_WAIT) {
        return S_objLib_OBJ_UNAVAILABLE;
    }
    join_waiters(queue, end.waiters);
    mqueue_unlock(queue);
    const struct timespec* deadline = deadline_for(wait, &space);
    for (;;) {
        const bool called = sleep_until_called(me, queue, end, deadline, &retcode);
        guard_take(queue);
        end.waiters->called -= called ? 1 : 0;
        const int waiting_on = end.waiting_on(queue, called ? pri : MSG_PRI_NORMAL);
        const STATUS status = wait_status(me, queue, waiting_on, retcode);
        if (status != WAIT_ON) {
            waitTaskStopWait(queue, end.waiters);
            return status;
        }
        mqueue_unlock(queue);
    }
}

[[gnu::noinline]] static STATUS waitToSend(thread_record_t* me, v2pt_mqueue_t* queue, int wait,
                                           int pri) REQUIRES(queueHeld)
{
    return wait_at(me, queue, senders_of(queue), wait, pri);
}

[[gnu::noinline]] static STATUS wait_to_receive(thread_record_t* me, v2pt_mqueue_t* queue,
                                                int max_wait) REQUIRES(queueHeld)
{
    return wait_at(me, queue, receivers_of(queue), max_wait, MSG_PRI_NORMAL);
}

// ---- Sending and receiving ----

static STATUS send_to(thread_record_t* me, v2pt_mqueue_t* queue, const char* msg, uint msglen,
                      int wait, int pri)
{
    STATUS status = OK;

    if (mqueue_find_lock(queue) == 0) {
        return S_objLib_OBJ_ID_ERROR;
    }
    if (msglen > static_cast<uint>(queue->msg_len)) {
        status = S_msgQLib_INVALID_MSG_LENGTH;
    } else if (end_asked(me)) {
        status = S_objLib_OBJ_UNAVAILABLE;
    } else if (waiting_on_q_space(queue, pri) != 0) {
        status = waitToSend(me, queue, wait, pri);
    }
    if (status == OK) {
        if (pri == MSG_PRI_URGENT) {
            urgent_msg_to(queue, msg, msglen);
        } else {
            send_msg_to(queue, msg, msglen);
        }
    }
    mqueue_unlock(queue);
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

// A result without a status is the caller's: bytes, or ERROR where errno stays untouched.
static STATUS receive_from(thread_record_t* me, v2pt_mqueue_t* queue, char* msgbuf, uint buflen,
                           int max_wait, int32_t* result)
{
    STATUS status = OK;

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
    } else if (waiting_on_q_msg(queue, MSG_PRI_NORMAL) != 0) {
        status = wait_to_receive(me, queue, max_wait);
    }
    if (status == OK) {
        *result = static_cast<int32_t>(fetch_msg_from(queue, msgbuf));
    }
    mqueue_unlock(queue);
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

// Makes the queue unknown; its record stays.
static void delete_mqueue(v2pt_mqueue_t* queue)
{
    guard_take(queue);
    q_msg_t* ring = queue->first_msg_in_queue;
    queue->first_msg_in_queue = nullptr;
    guard_give(queue);
    unlink_qcb(queue);
    ts_free(ring);
}

// Sleeps until the waiters have left; a caller that is itself told to end waits for nobody.
static void wait_for_departures(thread_record_t* me, v2pt_mqueue_t* queue)
{
    LOCK_SECTION(&queue->qdlet_lock, queueGoneHeld); // who leaves after the look takes it to tell
    while (load_acquire(&queue->waitTasks) > 0 && !end_asked(me)) {
        op_wait(me, &queue->qdlet_cmplt, &queue->qdlet_lock, nullptr);
    }
    END_SECTION(queueGoneHeld);
}

// The queue is marked, so only this thread deletes it. One that is told to end waits for nobody any
// more, but finishes, and keeps the tick that latecomers are granted.
static void remove_marked(thread_record_t* me, v2pt_mqueue_t* queue)
{
    (void)task_lock_take(me); // it holds others up; the queue is this thread's without it, too
    TEST_POINT();
    wake_all(receivers_of(queue));
    wake_all(senders_of(queue));
    wait_for_departures(me, queue);
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
    // One operation: a task that ended between the two would take the only id along.
    thread_record_t* me = op_enter();
    const status_t status = msgQDelete(__atomic_exchange_n(queuePtr, nullptr, __ATOMIC_ACQ_REL));
    op_leave(me);
    return status;
}

int msgQShow(v2pt_mqueue_t*, FILE*, int)
{
    return 0;
}

int msgQList(FILE*, int)
{
    return 0;
}
