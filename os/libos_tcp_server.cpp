#include <arpa/inet.h>
#include <limits.h>
#include <netinet/in.h>
#include <stddef.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "libos_kinds.h"
#include "libos_main_lock.h"
#include "libos_socket.h"
#include "libos_table.h"
#include "libos_watch.h"

// The device's layout, which callers built against earlier headers rely on.
#define AT(field, offset) (offsetof(TcpServer, field) == (offset))
static_assert(sizeof(void*) != 4 ||
              (AT(ip, 1) && AT(port, 18) && AT(status, 20) && AT(accept, 24) && AT(accept_usr, 28) &&
               AT(listenfd, 32) && AT(index, 36) && AT(session, 40) && sizeof(TcpServer) == 44));
#undef AT

// A listening socket that could not accept for want of descriptors or memory rests, out of the epoll set,
// until the next tick: it stays readable, and the loop would spin. One flag per server, beside its count.
static uint8 s_servers_rest[SLOTS_MAX];
static uint32 s_servers_resting = 0;

static TcpServer* s_servers = nullptr;
static uint32 s_max_server_num = 0, s_servers_num = 0, s_servers_session = 0;
static LMutex s_servers_mutex;
static SlotMap s_servers_free;
static uint32* s_servers_opens = nullptr;

static constexpr Table<TcpServer> SERVERS = {KIND_SERVER,      &TcpServer::listenfd, s_servers,
                                             s_max_server_num, s_servers_num,        s_servers_session,
                                             s_servers_mutex,  s_servers_free,       s_servers_opens};

bool make_servers(uint32 count)
{
    return make_table(SERVERS, count, "s_servers_mutex", "TcpServer");
}

// ---- taking and releasing a slot

TcpServer* os_tcp_server_create(void)
{
    MutexGuard guard(&s_servers_mutex);
    if (s_servers_num >= s_max_server_num) return os_refuse(nullptr, "server num out");

    TcpServer* server = take_slot(SERVERS, -1);
    if (!server) return nullptr;
    strcpy(server->ip, "0.0.0.0");
    return hand_out(SERVERS, server);
}

int os_tcp_server_destroy(TcpServer* server)
{
    if (!server) return os_refuse(0, "server is NULL");
    const MainGuard guard;
    os_tcp_server_close(server);
    release_slot(SERVERS, server);
    return 1;
}

// ---- resting

static uint8& rest_of(const TcpServer* server)
{
    return s_servers_rest[server - s_servers];
}

static void rest(TcpServer* server)
{
    forget(peek(server->listenfd));
    if (!__atomic_exchange_n(&rest_of(server), uint8{1}, __ATOMIC_ACQ_REL))
        __atomic_add_fetch(&s_servers_resting, 1, __ATOMIC_ACQ_REL);
}

// True when it rested.
static bool end_rest(const TcpServer* server)
{
    if (!__atomic_exchange_n(&rest_of(server), uint8{0}, __ATOMIC_ACQ_REL)) return false;
    __atomic_sub_fetch(&s_servers_resting, 1, __ATOMIC_ACQ_REL);
    return true;
}

static void listen_on(TcpServer* server)
{
    if (!watch(peek(server->listenfd), WATCH_LISTEN, event_value(opening_of(SERVERS, server)))) rest(server);
}

void wake_resting_servers()
{
    for (uint32 i = 0; i < s_max_server_num && peek(s_servers_resting); ++i)
        if (end_rest(&s_servers[i])) listen_on(&s_servers[i]);
}

void close_servers()
{
    for (uint32 i = 0; i < s_max_server_num && peek(s_servers_resting); ++i) end_rest(&s_servers[i]);
    close_taken(SERVERS, forget_and_close);
}

// ---- opening and closing

static int refuse_open(TcpServer* server, const char* message)
{
    close_keeping_errno(peek(server->listenfd));
    put(server->listenfd, -1);
    os_report_errno("%s", message);
    return 0;
}

int os_tcp_server_open(TcpServer* server)
{
    if (!server) return os_refuse(0, "server is NULL");
    if (peek(server->status) != 0) return os_refuse(0, "server is not dislisten");

    const CancelGuard whole;
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    put(server->listenfd, fd);
    if (fd == -1) return os_refuse_errno(0, "socket fail");
    const int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    setnonblocking(fd);
    const struct sockaddr_in address = socket_address(inet_addr(server->ip), server->port);
    if (bind(fd, reinterpret_cast<const struct sockaddr*>(&address), sizeof(address)) != 0)
        return refuse_open(server, "bind fail");
    if (listen(fd, INT_MAX) != 0) return refuse_open(server, "listen fail");

    const Opening<TcpServer> opening = begin_opening(SERVERS, server);
    put(server->status, 1);
    watch(fd, WATCH_LISTEN, event_value(opening));
    return 1;
}

static void stop_listening(TcpServer* server)
{
    const int fd = peek(server->listenfd);
    put(server->status, 0);
    end_rest(server);
    forget(fd);
    close(fd);
    put(server->listenfd, -1);
}

int os_tcp_server_close(TcpServer* server)
{
    if (!server) return os_refuse(0, "server is NULL");
    const MainGuard guard;
    if (peek(server->status) != 0)
        stop_listening(server);
    else
        os_report("server is dislisten");
    return 1;
}

// ---- settings

int os_tcp_server_set_local(TcpServer* server, char* ip, uint16 port)
{
    if (!server) return os_refuse(0, "server is NULL");
    server->port = port;
    if (!ip) return 1;

    const size_t length = strnlen(ip, sizeof(server->ip));
    if (length >= sizeof(server->ip) || inet_addr(ip) == INADDR_NONE) return os_refuse(0, "ip is fail");
    memcpy(server->ip, ip, length + 1);
    return 1;
}

int os_tcp_server_get_local(TcpServer* server, char* ip, uint16* port)
{
    if (!server || !ip || !port) return os_refuse(0, "server is NULL");
    memcpy(ip, server->ip, strlen(server->ip) + 1);
    *port = server->port;
    return 1;
}

int os_tcp_server_get_port(TcpServer* server, uint16* port)
{
    if (!server || !port) return os_refuse(0, "server is NULL");
    if (peek(server->status) == 0) return os_refuse(0, "server is dislisten");

    struct sockaddr_in address = {};
    socklen_t length = sizeof(address);
    if (getsockname(peek(server->listenfd), reinterpret_cast<struct sockaddr*>(&address), &length) != 0)
        return os_refuse_errno(0, "getsockname fail");
    *port = ntohs(address.sin_port);
    return 1;
}

int32 os_tcp_server_get_status(TcpServer* server)
{
    if (!server) return os_refuse(-1, "server is NULL");
    return peek(server->status);
}

int os_tcp_server_bind_accept(TcpServer* server, OnServerAcceptFunc func, void* udata)
{
    if (!server) return os_refuse(0, "server is NULL");
    bind_callback(server->accept, server->accept_usr, func, udata);
    return 1;
}

// ---- events

static bool out_of_resources(int error)
{
    return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}

static void refuse_accept(TcpServer* server, int listenfd)
{
    const int error = errno;
    os_report_errno("accept fd:%d fail", listenfd);
    if (out_of_resources(error)) rest(server);
}

static void accept_one(TcpServer* server)
{
    const int listenfd = peek(server->listenfd);
    const int fd = accept4(listenfd, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd == -1) {
        refuse_accept(server, listenfd);
        return;
    }
    setnonblocking(fd);
    TcpClient* client = os_tcp_client_create();
    if (!client) {
        close(fd);
        os_report("os_tcp_client_create client fail");
        return;
    }
    client->create_type = 0;
    if (!os_tcp_client_open(client, fd)) {
        os_tcp_client_destroy(client);
        close(fd);
        os_report("os_tcp_client_open client fail");
        return;
    }
    watch_accepted(client);
    if (OnServerAcceptFunc func = peek(server->accept)) func(server, client, peek(server->accept_usr));
}

void epoll_dispath_server(const Event& event)
{
    if (const char* why = stale_event(SERVERS, event)) {
        os_report("%s", why);
        return;
    }
    const Opening<TcpServer> opening = opening_of(SERVERS, event);
    if (event.mask & EPOLLIN) accept_one(opening.slot);
    if (event.mask & EPOLLOUT && is_open(opening)) stop_listening(opening.slot);
}
