#include <stdlib.h>
#include <string.h>

#include "libos_kinds.h"

static const uint32 TICK_MS = 1000;

static DList* s_timer_ls = nullptr;

// Where the walk goes on. A timer function may destroy any timer, also this one; list lock.
static DListNode* s_walk_next = nullptr;

bool make_timers()
{
    s_timer_ls = adt_dlist_create(sizeof(void*));
    return s_timer_ls || os_refuse(false, "adt_dlist_create s_timer_ls fail");
}

static LTimer* timer_in(DListNode* node)
{
    LTimer* timer;
    // NOLINTNEXTLINE(bugprone-sizeof-expression): the list holds pointers
    memcpy(&timer, adt_dlist_getdata(node), sizeof(timer));
    return timer;
}

// The counter stops at its greatest value, or a period close to it would never be over.
static bool count_tick(LTimer* timer)
{
    timer->index = timer->index > UINT32_MAX - TICK_MS ? UINT32_MAX : timer->index + TICK_MS;
    if (timer->index < timer->tm) return false;
    timer->index = 0;
    return true;
}

void run_timers()
{
    ListGuard guard(s_timer_ls);
    s_walk_next = adt_dlist_head(s_timer_ls);
    while (DListNode* node = s_walk_next) {
        s_walk_next = adt_dlist_next(node);
        LTimer* timer = timer_in(node);
        if (count_tick(timer) && timer->func) timer->func(timer->cxt);
    }
}

static DListNode* insert_timer(LTimer* timer)
{
    ListGuard guard(s_timer_ls);
    timer->node = adt_dlist_insert(s_timer_ls, nullptr, &timer);
    return timer->node;
}

LTimer* os_timer_create(OnTimerFunc func, uint32 tm, void* cxt)
{
    const CancelGuard whole;
    LTimer* timer = static_cast<LTimer*>(malloc(sizeof(LTimer)));
    if (!timer) return os_refuse(nullptr, "malloc fail");
    *timer = {func, tm, cxt, 0, nullptr};
    if (!insert_timer(timer)) os_report_exit("%s", "");
    return timer;
}

static int remove_timer(LTimer* timer)
{
    ListGuard guard(s_timer_ls);
    if (timer->node && timer->node == s_walk_next) s_walk_next = adt_dlist_next(timer->node);
    return adt_dlist_delete(s_timer_ls, timer->node);
}

int os_timer_destroy(LTimer* timer)
{
    if (!timer) return os_refuse(0, "timer is null");
    if (!remove_timer(timer)) return 0;

    free(timer);
    return 1;
}
