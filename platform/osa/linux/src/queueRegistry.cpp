// The registry of message queues and their spare records. The idea stands in queueRegistry.h.
//
// Locks: mqueue_list_lock, for the registry, the spare records, and for adding to queue_records. It
// is held for a few instructions, but for the creation of a record, which allocates.
#include "queueRegistry.h"

#include "lockWord.h"
#include "osaTask.h"

static constexpr lock_role_t queueListHeld; // mqueue_list_lock

constinit address_set_t queue_records = {};

static pthread_mutex_t mqueue_list_lock = PTHREAD_MUTEX_INITIALIZER;
static v2pt_mqueue_t* mqueue_list GUARDED_BY(queueListHeld) = nullptr; // in order of creation
static v2pt_mqueue_t** mqueue_list_end GUARDED_BY(queueListHeld) = &mqueue_list;
static v2pt_mqueue_t* spare_records GUARDED_BY(queueListHeld) = nullptr; // by nxt_queue

static v2pt_mqueue_t* new_record(void) REQUIRES(queueListHeld)
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
    lock_word_init(&queue->guard);
    if (!address_set_add(&queue_records, queue)) {
        ts_free(queue);
        return nullptr;
    }
    return queue;
}

// Without a ring nobody comes to wait any more, and those who still leave are soon gone: the list's
// lock shows all who came, and 0 that all of them have left.
static v2pt_mqueue_t* spare_record(void) REQUIRES(queueListHeld)
{
    v2pt_mqueue_t** link = &spare_records;

    while (*link != nullptr && load_acquire(&(*link)->waitTasks) != 0) {
        link = &(*link)->nxt_queue;
    }
    v2pt_mqueue_t* queue = *link;
    if (queue != nullptr) {
        *link = queue->nxt_queue;
    }
    return queue;
}

v2pt_mqueue_t* queue_record_take(void)
{
    v2pt_mqueue_t* queue = nullptr;

    LOCK_SECTION(&mqueue_list_lock, queueListHeld);
    queue = spare_record();
    if (queue == nullptr) {
        queue = new_record();
    }
    END_SECTION(queueListHeld);
    return queue;
}

void link_qcb(v2pt_mqueue_t* new_mqueue)
{
    LOCK_SECTION(&mqueue_list_lock, queueListHeld);
    new_mqueue->nxt_queue = nullptr;
    new_mqueue->link = mqueue_list_end;
    *mqueue_list_end = new_mqueue;
    mqueue_list_end = &new_mqueue->nxt_queue;
    END_SECTION(queueListHeld);
}

void unlink_qcb(v2pt_mqueue_t* qid)
{
    LOCK_SECTION(&mqueue_list_lock, queueListHeld);
    *qid->link = qid->nxt_queue;
    if (qid->nxt_queue != nullptr) {
        qid->nxt_queue->link = qid->link;
    } else {
        mqueue_list_end = qid->link;
    }
    qid->nxt_queue = spare_records;
    spare_records = qid;
    END_SECTION(queueListHeld);
}
