#include <stddef.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>

#include "libos_internal.h"

DList* adt_dlist_create(uint32 node_size)
{
    DList* dlist = static_cast<DList*>(calloc(1, sizeof(DList)));
    if (!dlist) return os_refuse_errno(nullptr, "malloc fail");
    dlist->node_size = node_size;
    os_mutex_init(&dlist->mutex, 1);
    return dlist;
}

int adt_dlist_destroy(DList* dlist)
{
    if (!dlist) return os_refuse(0, "dlist is null");

    for (DListNode* node = dlist->head; node;) {
        DListNode* next = node->next;
        free(node);
        node = next;
    }
    os_mutex_destroy(&dlist->mutex);
    free(dlist);
    return 1;
}

static DListNode* make_node(const DList* dlist, const void* data)
{
    if (!data) return os_refuse(nullptr, "data is null");

    const size_t header = offsetof(DListNode, data);
    if (dlist->node_size > SIZE_MAX - header) {
        errno = ENOMEM;
        os_report_errno("malloc fail");
        return nullptr;
    }
    DListNode* node = static_cast<DListNode*>(malloc(std::max(sizeof(DListNode), header + dlist->node_size)));
    if (!node) return os_refuse_errno(nullptr, "malloc fail");
    node->next = nullptr;
    node->prev = nullptr;
    memcpy(reinterpret_cast<char*>(node) + header, data, dlist->node_size);
    return node;
}

// Put node between two neighbours; a missing one is an end of the list.
static DListNode* link_between(DList* dlist, DListNode* prev, DListNode* node, DListNode* next)
{
    node->prev = prev;
    node->next = next;
    (prev ? prev->next : dlist->head) = node;
    (next ? next->prev : dlist->end) = node;
    ++dlist->len;
    return node;
}

DListNode* adt_dlist_insert(DList* dlist, DListNode* node, void* data)
{
    if (!dlist) return os_refuse(nullptr, "dlist is null");

    DListNode* made = make_node(dlist, data);
    if (!made) return nullptr;
    if (!dlist->head || !node) return link_between(dlist, nullptr, made, dlist->head);
    return link_between(dlist, node->prev, made, node);
}

DListNode* adt_dlist_add(DList* dlist, DListNode* node, void* data)
{
    if (!dlist) return os_refuse(nullptr, "dlist is null");

    DListNode* made = make_node(dlist, data);
    if (!made) return nullptr;
    if (!dlist->head || !node) return link_between(dlist, dlist->end, made, nullptr);
    return link_between(dlist, node, made, node->next);
}

DListNode* adt_dlist_next(DListNode* node)
{
    return node ? node->next : nullptr;
}

DListNode* adt_dlist_prev(DListNode* node)
{
    return node ? node->prev : nullptr;
}

DListNode* adt_dlist_head(DList* dlist)
{
    if (!dlist) return os_refuse(nullptr, "dlist is null");
    return dlist->head;
}

DListNode* adt_dlist_end(DList* dlist)
{
    if (!dlist) return os_refuse(nullptr, "dlist is null");
    return dlist->end;
}

uint32 adt_dlist_size(DList* dlist)
{
    if (!dlist) return os_refuse(0, "dlist is null");
    return dlist->len;
}

int adt_dlist_empty(DList* dlist)
{
    if (!dlist) return os_refuse(0, "dlist is null");
    return dlist->head == nullptr;
}

int adt_dlist_delete(DList* dlist, DListNode* node)
{
    if (!dlist) return os_refuse(0, "dlist is null");
    if (!node) return os_refuse(0, "node is null");

    (node->prev ? node->prev->next : dlist->head) = node->next;
    (node->next ? node->next->prev : dlist->end) = node->prev;
    free(node);
    --dlist->len;
    return 1;
}

DListNode* adt_dlist_delete_ex(DList* dlist, DListNode* node)
{
    if (!dlist) return os_refuse(nullptr, "dlist == NULL");
    if (!node) return os_refuse(nullptr, "node == NULL");

    DListNode* next = node->next;
    if (!adt_dlist_delete(dlist, node)) return os_refuse(nullptr, "dlist delete tmp failed!)");
    return next;
}

void* adt_dlist_getdata(DListNode* node)
{
    return node->data;
}

int adt_dlist_lock(DList* dlist)
{
    if (!dlist) return os_refuse(0, "dlist is null");
    return os_mutex_lock(&dlist->mutex);
}

int adt_dlist_unlock(DList* dlist)
{
    if (!dlist) return os_refuse(0, "dlist is null");
    return os_mutex_unlock(&dlist->mutex);
}

DArray* adt_darray_create(uint32)
{
    return nullptr;
}

int adt_darray_insert(DArray*, uint32, void*)
{
    return 0;
}

int adt_darray_push_back(DArray*, void*)
{
    return 0;
}

int adt_darray_delete(DArray*, uint32)
{
    return 0;
}

void* adt_darray_get_by_index(DArray*, uint32)
{
    return nullptr;
}

int adt_darray_length(DArray*)
{
    return 0;
}

int adt_darray_destroy(DArray*)
{
    return 0;
}
