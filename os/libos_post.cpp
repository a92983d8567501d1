#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "libos_kinds.h"
#include "libos_watch.h"

struct LMainThreadFunc
{
    PostFunc func;
    void* context;
};

static DList* s_ls_main_thread_func = nullptr;
static int s_pipe_fd_post[2] = {-1, -1};

bool make_posts()
{
    s_ls_main_thread_func = adt_dlist_create(sizeof(void*));
    return s_ls_main_thread_func || os_refuse(false, "adt_dlist_create s_ls_main_thread_func fail");
}

bool make_post_pipe()
{
    return make_pipe(s_pipe_fd_post, KIND_POST, "s_pipe_fd_post");
}

// A function that posts appends here, so one drain ends with an empty list.
void run_posted()
{
    take_bytes(s_pipe_fd_post[0]);
    ListGuard guard(s_ls_main_thread_func);
    while (DListNode* node = adt_dlist_head(s_ls_main_thread_func)) {
        LMainThreadFunc* call;
        // NOLINTNEXTLINE(bugprone-sizeof-expression): the list holds pointers
        memcpy(&call, adt_dlist_getdata(node), sizeof(call));
        call->func(call->context);
        free(call);
        adt_dlist_delete(s_ls_main_thread_func, node);
    }
}

static DListNode* append_call(LMainThreadFunc* call)
{
    ListGuard guard(s_ls_main_thread_func);
    return adt_dlist_add(s_ls_main_thread_func, nullptr, &call);
}

// A byte that waits in the pipe wakes the loop as well as another would, and the loop itself, posting from a
// callback, would wait for ever on a full pipe that only it empties.
static void wake_loop()
{
    struct pollfd waiting = {s_pipe_fd_post[0], POLLIN, 0};
    if (poll(&waiting, 1, 0) > 0) return;

    const ssize_t ignored = write(s_pipe_fd_post[1], "p", 1);
    static_cast<void>(ignored);
}

int os_post_func(PostFunc func, void* context)
{
    if (!func) return os_refuse(0, "func is null");

    const CancelGuard whole;
    LMainThreadFunc* call = static_cast<LMainThreadFunc*>(malloc(sizeof(LMainThreadFunc)));
    if (!call) return os_refuse(0, "malloc fail");
    *call = {func, context};
    const bool appended = append_call(call) != nullptr;
    if (!appended) free(call);
    wake_loop();
    return appended;
}
