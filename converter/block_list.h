// Lists of index blocks, and guards that are undone on every way out. A list that was never made counts as
// empty.
#pragma once

#include <pthread.h>
#include <string.h>

#include "CLS_SingleAviIndex.h"
#include "libos.h"

// A cancelled thread ends where it stands: what it had locked stays locked, and what it had begun half done.
// So a call that locks or leaves something half done on its way is finished first, and its thread is
// cancelled behind it.
struct CancelGuard
{
    int saved = PTHREAD_CANCEL_ENABLE;

    CancelGuard() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &saved); }
    CancelGuard(const CancelGuard&) = delete;
    CancelGuard& operator=(const CancelGuard&) = delete;
    ~CancelGuard() { pthread_setcancelstate(saved, nullptr); }
};

struct PlainLock
{
    const CancelGuard whole;
    pthread_mutex_t* const mutex;
    const bool held;

    explicit PlainLock(pthread_mutex_t& wanted) : mutex(&wanted), held(pthread_mutex_lock(&wanted) == 0) {}
    PlainLock(const PlainLock&) = delete;
    PlainLock& operator=(const PlainLock&) = delete;
    ~PlainLock()
    {
        if (held) pthread_mutex_unlock(mutex);
    }
};

struct ListLock
{
    const CancelGuard whole;
    DList* const list;

    explicit ListLock(DList* wanted) : list(wanted)
    {
        if (list) adt_dlist_lock(list);
    }
    ListLock(const ListLock&) = delete;
    ListLock& operator=(const ListLock&) = delete;
    ~ListLock()
    {
        if (list) adt_dlist_unlock(list);
    }
};

// The oldest block, no longer in the list; NULL when there is none. The caller holds the list's lock.
inline AVI_IndexBlock* take_first_block(DList* list)
{
    if (!list || adt_dlist_empty(list)) return nullptr;

    DListNode* node = adt_dlist_head(list);
    AVI_IndexBlock* block;
    memcpy(&block, adt_dlist_getdata(node), sizeof(void*));
    adt_dlist_delete(list, node);
    return block;
}

// Append a block. The caller holds the list's lock.
inline bool queue_block(DList* list, AVI_IndexBlock* block)
{
    return list && adt_dlist_add(list, nullptr, &block);
}
