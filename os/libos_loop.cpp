#include <stdlib.h>
#include <unistd.h>

#include "libos_kinds.h"
#include "libos_main_lock.h"
#include "libos_slots.h"
#include "libos_watch.h"

static const uint32 LOOP_STACK = 0xA00000;

static unsigned int s_ep_max_num = 0;
static struct epoll_event* s_events = nullptr;
static LThread s_main_thread;
static LThread s_timer_thread;
static int s_pipe_fd[2] = {-1, -1};

// ---- the threads

static void dispatch(const Event& event)
{
    const MainGuard guard;
    switch (event.kind) {
    case KIND_SERVER:
        epoll_dispath_server(event);
        break;
    case KIND_CLIENT:
        epoll_dispath_client(event);
        break;
    case KIND_UDP:
        epoll_dispath_udp(event);
        break;
    case KIND_TICK:
        take_bytes(s_pipe_fd[0]);
        wake_resting_servers();
        run_timers();
        break;
    case KIND_POST:
        run_posted();
        break;
    }
}

static void* epoll_thread(void*)
{
    for (;;) {
        const int count = await_events(s_events, static_cast<int>(s_ep_max_num));
        for (int i = 0; i < count; ++i) dispatch(event_from(s_events[i].data.u64, s_events[i].events));
    }
    return nullptr;
}

static void* timer_thread(void*)
{
    for (;;) {
        os_sleep(1000);
        const ssize_t ignored = write(s_pipe_fd[1], "t", 1);
        static_cast<void>(ignored);
    }
    return nullptr;
}

// ---- start-up

static bool make_events(uint32 count)
{
    s_ep_max_num = count;
    s_events = static_cast<struct epoll_event*>(calloc(count, sizeof(struct epoll_event)));
    return s_events || os_refuse_errno(false, "malloc s_events fail");
}

static bool start_thread(LThread* thread, uint32 stack, ThreadStartFunc body, const char* name)
{
    return os_thread_create(thread, stack, body, nullptr) ||
           os_refuse(false, "os_thread_create %s fail", name);
}

// Once there is an epoll set the layer counts as started, whatever fails later.
int os_startup(int32 max_cient_num, int32 max_server_num)
{
    if (os_is_startup()) return 1;

    const uint32 clients = static_cast<uint32>(max_cient_num);
    const uint32 servers = static_cast<uint32>(max_server_num);
    if (clients > SLOTS_MAX || servers > SLOTS_MAX) return os_refuse(0, "size out");

    const CancelGuard whole;
    return make_clients(clients) && make_servers(servers) && make_udps(clients) && make_main_lock() &&
           make_timers() && make_posts() && make_events(clients + servers + 1) && make_watch() &&
           make_pipe(s_pipe_fd, KIND_TICK, "s_pipe_fd") && make_post_pipe() &&
           start_thread(&s_main_thread, LOOP_STACK, epoll_thread, "s_main_thread") &&
           start_thread(&s_timer_thread, 0, timer_thread, "s_timer_thread");
}

int os_cleanup(void)
{
    const CancelGuard whole;
    close_servers();
    close_udps();
    return 1;
}

int os_is_startup(void)
{
    return has_watch();
}
