// The indexed list: a chain of nodes behind a record that may carry a lock.
//
// Edits go through the link that points to a node (the record's node or a predecessor's next), so
// the first position is no special case. Nodes are allocated and freed outside the lock. Where a
// caller's function frees an element, its node stays with the operation until the function has
// returned, so that a thread ended there can put back what was not freed.
//
// Lock: the list's own semaphore (listHeld), if it has one; no other is taken inside it, except
// that moving takes the destination's inside the source's.
#include "ulist.h"
#include "internal.h"
#include "nxaLog.h"
#include "osaSem.h"
#include "uBm.h"

static const char* const LOG_TAG = "quarn.utils.list";
static constexpr lock_role_t listHeld; // lockSem of the list at hand

/** Elements on their way to a caller's free function. */
typedef struct {
    ulist_t* list;  // where they come from
    int32_t pos;    // and go back to, if the thread ends
    unode_t* chain; // nodes of those not freed yet
    bool handed;    // the first of them is with the free function
} freeing_t;

static void uListLock(ulist_t* list) ACQUIRES(listHeld) UNCHECKED
{
    if (list->lockSem != nullptr) {
        own_sem_take(list->lockSem);
    }
}

static void uListUnlock(ulist_t* list) RELEASES(listHeld) UNCHECKED
{
    if (list->lockSem != nullptr) {
        own_sem_give(list->lockSem);
    }
}

/** The link to a position, which is 0 to size. */
static unode_t** link_at_locked(ulist_t* list, int32_t pos) REQUIRES(listHeld)
{
    unode_t** link = &list->node;
    for (; pos > 0; pos--) {
        link = &(*link)->next;
    }
    return link;
}

/** Inserts a chain that ends with null; -1 and positions past the end append it. */
static void splice_locked(ulist_t* list, unode_t* chain, int32_t pos) REQUIRES(listHeld)
{
    const int32_t size = list->size;
    unode_t** link = link_at_locked(list, pos < 0 || pos > size ? size : pos);
    unode_t* behind = *link;
    int32_t count = 0;

    store_release(link, chain); // the first node is also looked at without the lock
    for (; *link != nullptr; link = &(*link)->next) {
        count++;
    }
    store_relaxed(link, behind);
    store_relaxed(&list->size, size + count);
}

/** Takes the node at a position out; null when there is none. */
static unode_t* take_node(ulist_t* list, int32_t pos)
{
    unode_t* node = nullptr;

    uListLock(list);
    if (pos >= 0 && pos < list->size) {
        unode_t** link = link_at_locked(list, pos);
        node = *link;
        store_release(link, node->next);
        store_relaxed(&list->size, list->size - 1);
        node->next = nullptr;
    }
    uListUnlock(list);
    return node;
}

/** Moves all to a list of the caller's own, which needs no lock. */
static void uListMoveTo(ulist_t* fromList, ulist_t* toList)
{
    uListLock(fromList);
    splice_locked(toList, fromList->node, -1);
    store_relaxed<unode_t*>(&fromList->node, nullptr);
    store_relaxed(&fromList->size, 0);
    uListUnlock(fromList);
}

/** Cleanup handler: the thread ends while it frees elements. */
static void put_back(void* arg)
{
    ending_enter();
    freeing_t* freeing = static_cast<freeing_t*>(arg);
    unode_t* rest = freeing->chain;
    if (freeing->handed) {
        rest = rest->next;
        uFree(freeing->chain);
    }
    // With nothing to put back the list is not touched: freeFunc may have released it.
    if (rest != nullptr) {
        uListLock(freeing->list);
        splice_locked(freeing->list, rest, freeing->pos);
        uListUnlock(freeing->list);
    }
}

static void free_elements(thread_record_t* me, freeing_t* freeing,
                          uListSpecificFreeFuncPtr freeFunc)
{
    pthread_cleanup_push(put_back, freeing);
    while (freeing->chain != nullptr) {
        unode_t* node = freeing->chain;
        if (freeFunc == nullptr) {
            uFree(node->element);
        } else {
            callout_begin(me);
            freeing->handed = true;
            freeFunc(node->element);
            callout_end(me);
        }
        freeing->chain = node->next;
        freeing->handed = false;
        uFree(node);
    }
    pthread_cleanup_pop(0);
}

ulist_t* uListInit(bool_t withLock)
{
    thread_record_t* me = op_enter();
    ulist_t* list = static_cast<ulist_t*>(uMalloc(sizeof(ulist_t)));
    if (list != nullptr && withLock) {
        list->lockSem = semMCreate(0);
        if (list->lockSem == nullptr) {
            uFree(list);
            list = nullptr;
        }
    }
    op_leave(me);
    return list;
}

status_t uListUninit(ulist_t* list)
{
    if (list == nullptr) {
        return OK;
    }
    thread_record_t* me = op_enter();
    status_t status = OK;
    if (uListSize(list) > 0) {
        __halden_log_print(NXA_LOG_ERROR, LOG_TAG, "%s: Uninit list that has nodes not free!",
                           "uListUninit");
        status = ERROR;
    } else {
        if (list->lockSem != nullptr) {
            semDelete(list->lockSem);
        }
        *list = {};
        uFree(list);
    }
    op_leave(me);
    return status;
}

int32_t uListSize(ulist_t* list)
{
    return list == nullptr ? -1 : load_relaxed(&list->size);
}

bool_t uListEol(ulist_t* list, int32_t pos)
{
    return list == nullptr || pos < 0 || pos >= load_relaxed(&list->size);
}

addr_t uListFirst(ulist_t* list)
{
    unode_t* first = list == nullptr ? nullptr : load_acquire(&list->node);
    return first == nullptr ? nullptr : first->element;
}

addr_t uListGet(ulist_t* list, int32_t pos)
{
    if (list == nullptr) {
        return nullptr;
    }
    thread_record_t* me = op_enter();
    addr_t element = nullptr;
    uListLock(list);
    if (pos >= 0 && pos < list->size) {
        element = (*link_at_locked(list, pos))->element;
    }
    uListUnlock(list);
    op_leave(me);
    return element;
}

int32_t uListAdd(ulist_t* list, addr_t element, int32_t pos)
{
    if (list == nullptr || element == nullptr || pos < -1) {
        return -1;
    }
    thread_record_t* me = op_enter();
    int32_t size = -1;
    unode_t* node = static_cast<unode_t*>(uMalloc(sizeof(unode_t)));
    if (node != nullptr) {
        node->element = element;
        uListLock(list);
        splice_locked(list, node, pos);
        size = list->size;
        uListUnlock(list);
    }
    op_leave(me);
    return size;
}

int32_t uListAppend(ulist_t* list, addr_t element)
{
    return uListAdd(list, element, -1);
}

addr_t uListRemove(ulist_t* list, int32_t pos)
{
    if (list == nullptr) {
        return nullptr;
    }
    thread_record_t* me = op_enter();
    unode_t* node = take_node(list, pos);
    addr_t element = node == nullptr ? nullptr : node->element;
    uFree(node);
    op_leave(me);
    return element;
}

int32_t uListRemoveAndFree(ulist_t* list, int32_t pos, uListSpecificFreeFuncPtr freeFunc)
{
    if (list == nullptr) {
        return -1;
    }
    thread_record_t* me = op_enter();
    freeing_t freeing = {.list = list, .pos = pos, .chain = take_node(list, pos), .handed = false};
    free_elements(me, &freeing, freeFunc);
    const int32_t size = uListSize(list);
    op_leave(me);
    return size;
}

int32_t uListPosGetByElement(ulist_t* list, addr_t element)
{
    if (list == nullptr || element == nullptr) {
        return -1;
    }
    thread_record_t* me = op_enter();
    int32_t pos = 0;
    uListLock(list);
    const unode_t* node = list->node;
    while (node != nullptr && node->element != element) {
        node = node->next;
        pos++;
    }
    uListUnlock(list);
    op_leave(me);
    return node == nullptr ? -1 : pos;
}

int32_t uListSearch(ulist_t* list, addr_t element, uListElementCompareFuncPtr compareFunc)
{
    if (list == nullptr || element == nullptr) {
        return -1;
    }
    if (compareFunc == nullptr) {
        return uListPosGetByElement(list, element);
    }
    // By position: the comparison may remove the node it was called for, and any other.
    for (int32_t pos = 0;; pos++) {
        addr_t stored = uListGet(list, pos);
        if (stored == nullptr) {
            return -1;
        }
        if (compareFunc(stored, element) == 0) {
            return pos;
        }
    }
}

void uListSpecialClear(ulist_t* list, uListSpecificFreeFuncPtr freeFunc)
{
    if (list == nullptr) {
        return;
    }
    thread_record_t* me = op_enter();
    ulist_t* temporary = uListInit(FALSE);
    if (temporary == nullptr) {
        __halden_log_print(NXA_LOG_ERROR, LOG_TAG, "%s: init list error!", "uListSpecialClear");
    } else {
        uListMoveTo(list, temporary);
        freeing_t freeing = {.list = list, .pos = 0, .chain = temporary->node, .handed = false};
        *temporary = {};
        uListUninit(temporary);
        free_elements(me, &freeing, freeFunc);
    }
    op_leave(me);
}
