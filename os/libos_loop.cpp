#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <algorithm>

#include "libos_net.h"

static const uint32 LOOP_STACK = 0xA00000;

static int s_ep_fd = -1;
static unsigned int s_ep_max_num = 0;
static struct epoll_event* s_events = nullptr;
static LThread s_main_thread;
static LThread s_timer_thread;
static pid_t s_owner; // of the epoll set: a forked child shares it
LMutex s_main_mutex;

uint32 s_max_client_num = 0, s_max_server_num = 0, s_max_udp_num = 0;
TcpClient* s_clients = nullptr;
TcpServer* s_servers = nullptr;
UdpClient* s_udps = nullptr;
uint32 s_clients_num = 0, s_servers_num = 0, s_udps_num = 0;
uint32 s_clients_session = 0, s_servers_session = 0, s_udps_session = 0;
LMutex s_clients_mutex, s_servers_mutex, s_udps_mutex;
SlotMap s_clients_free, s_servers_free, s_udps_free;
uint32 *s_clients_opens = nullptr, *s_servers_opens = nullptr, *s_udps_opens = nullptr;

int s_pipe_fd[2] = {-1, -1};

// ---- descriptors

static bool control(int operation, int fd, uint32 mask, uint64_t value)
{
    struct epoll_event event = {};
    event.events = mask;
    event.data.u64 = value;
    return epoll_ctl(peek(s_ep_fd), operation, fd, &event) == 0;
}

bool loop_watch(int fd, uint32 mask, uint64_t value)
{
    return control(EPOLL_CTL_ADD, fd, mask, value);
}

void loop_rearm(int fd, uint32 mask, uint64_t value)
{
    control(EPOLL_CTL_MOD, fd, mask, value);
}

void loop_forget(int fd)
{
    control(EPOLL_CTL_DEL, fd, 0, 0);
}

void setnonblocking(int sock)
{
    const int flags = fcntl(sock, F_GETFL);
    if (flags < 0) {
        os_report_errno("fcntl sock F_GETFL fail");
        exit(0);
    }
    if (fcntl(sock, F_SETFL, flags | O_NONBLOCK) < 0) {
        os_report_errno("fcntl sock F_SETFL fail");
        exit(0);
    }
}

void close_keeping_errno(int fd)
{
    ErrnoKeeper keeper;
    close(fd);
}

struct sockaddr_in socket_address(uint32 ip, uint16 port)
{
    struct sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = ip;
    address.sin_port = htons(port);
    return address;
}

uint32 local_ip_number(const char* ip)
{
    return ip[0] ? inet_addr(ip) : htonl(INADDR_ANY);
}

void clear_bytes(void* record, size_t from, size_t to)
{
    memset(static_cast<char*>(record) + from, 0, to - from);
}

// ---- the threads

// One read, however much waits: what stays in the pipe wakes the loop again.
static void take_bytes(int fd)
{
    char bytes[32];
    const ssize_t ignored = read(fd, bytes, sizeof(bytes));
    static_cast<void>(ignored);
}

static void dispatch(const Event& event)
{
    MutexGuard guard(&s_main_mutex);
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
        take_bytes(s_pipe_fd_post[0]);
        run_posted();
        break;
    }
}

static void* epoll_thread(void*)
{
    for (;;) {
        const int count = epoll_wait(s_ep_fd, s_events, static_cast<int>(s_ep_max_num), -1);
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

static bool init_mutex(LMutex* mutex, int recursive, const char* name)
{
    if (os_mutex_init(mutex, recursive)) return true;
    os_report("os_mutex_init %s fail", name);
    return false;
}

template <class Slot>
static bool make_slots(Slot*& slots, uint32& max, uint32 count, SlotMap& free_slots, uint32*& opens,
                       const char* name)
{
    const size_t room = std::max(count, 1U);
    Slot* made = static_cast<Slot*>(calloc(room, sizeof(Slot)));
    opens = static_cast<uint32*>(calloc(room, sizeof(uint32)));
    if (!made || !opens) {
        os_report_errno("malloc %s fail", name);
        free(made);
        free(opens);
        opens = nullptr;
        return false;
    }
    for (uint32 i = 0; i < count; ++i) made[i].index = -1;
    slots_init(free_slots, count);
    slots = made;
    max = count;
    return true;
}

static bool make_tables(uint32 clients, uint32 servers)
{
    return init_mutex(&s_clients_mutex, 0, "s_clients_mutex") &&
           make_slots(s_clients, s_max_client_num, clients, s_clients_free, s_clients_opens, "TcpClient") &&
           init_mutex(&s_servers_mutex, 0, "s_servers_mutex") &&
           make_slots(s_servers, s_max_server_num, servers, s_servers_free, s_servers_opens, "TcpServer") &&
           init_mutex(&s_udps_mutex, 0, "s_udps_mutex") &&
           make_slots(s_udps, s_max_udp_num, clients, s_udps_free, s_udps_opens, "UdpClient") &&
           init_mutex(&s_main_mutex, 1, "s_main_mutex");
}

static bool make_list(DList*& list, const char* name)
{
    list = adt_dlist_create(sizeof(void*));
    if (list) return true;
    os_report("adt_dlist_create %s fail", name);
    return false;
}

// From here on the layer counts as started, whatever fails later.
static bool make_epoll(uint32 clients, uint32 servers)
{
    s_ep_max_num = clients + servers + 1;
    s_events = static_cast<struct epoll_event*>(calloc(s_ep_max_num, sizeof(struct epoll_event)));
    if (!s_events) {
        os_report_errno("malloc s_events fail");
        return false;
    }
    put(s_ep_fd, epoll_create1(EPOLL_CLOEXEC));
    if (s_ep_fd != -1) return true;
    os_report_errno("epoll_create s_ep_fd fail");
    return false;
}

static bool make_pipe(int* ends, Kind kind, const char* name)
{
    if (pipe2(ends, O_CLOEXEC) != 0) {
        os_report_errno("pipe %s fail", name);
        return false;
    }
    loop_watch(ends[0], EPOLLIN, event_value(kind, 0, 0, 0));
    return true;
}

static bool start_thread(LThread* thread, uint32 stack, ThreadStartFunc body, const char* name)
{
    if (os_thread_create(thread, stack, body, nullptr)) return true;
    os_report("os_thread_create %s fail", name);
    return false;
}

int os_startup(int32 max_cient_num, int32 max_server_num)
{
    if (os_is_startup()) return 1;

    const uint32 clients = static_cast<uint32>(max_cient_num);
    const uint32 servers = static_cast<uint32>(max_server_num);
    if (clients > SLOTS_MAX || servers > SLOTS_MAX) {
        os_report("size out");
        return 0;
    }
    const CancelGuard whole;
    s_owner = getpid();
    return make_tables(clients, servers) && make_list(s_timer_ls, "s_timer_ls") &&
           make_list(s_ls_main_thread_func, "s_ls_main_thread_func") && make_epoll(clients, servers) &&
           make_pipe(s_pipe_fd, KIND_TICK, "s_pipe_fd") &&
           make_pipe(s_pipe_fd_post, KIND_POST, "s_pipe_fd_post") &&
           start_thread(&s_main_thread, LOOP_STACK, epoll_thread, "s_main_thread") &&
           start_thread(&s_timer_thread, 0, timer_thread, "s_timer_thread");
}

// Closing alone leaves a descriptor in the epoll set while a forked child holds it, and a listener that is
// announced there but cannot be accepted from keeps the loop spinning. The child, for its part, must not
// deafen the parent.
static void close_for_good(int fd)
{
    if (getpid() == s_owner) loop_forget(fd);
    close(fd);
}

int os_cleanup(void)
{
    const CancelGuard whole;
    forget_resting_servers();
    for (uint32 i = 0; i < s_max_server_num; ++i)
        if (peek(s_servers[i].index) != -1) close_for_good(peek(s_servers[i].listenfd));
    for (uint32 i = 0; i < s_max_udp_num; ++i)
        if (peek(s_udps[i].index) != -1) close_for_good(peek(s_udps[i].fd));
    return 1;
}

int os_is_startup(void)
{
    return peek(s_ep_fd) != -1;
}

int os_main_lock(void)
{
    return os_mutex_lock(&s_main_mutex);
}

int os_main_unlock(void)
{
    return os_mutex_unlock(&s_main_mutex);
}
