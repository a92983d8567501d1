#include <arpa/inet.h>
#include <netinet/in.h>
#include <stddef.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>

#include "libos_kinds.h"
#include "libos_main_lock.h"
#include "libos_socket.h"
#include "libos_table.h"
#include "libos_watch.h"

// The device's layout, which callers built against earlier headers rely on.
#define AT(field, offset) (offsetof(TcpClient, field) == (offset))
static_assert(sizeof(void*) != 4 ||
              (AT(create_type, 1) && AT(remote_ip, 2) && AT(remote_port, 18) && AT(local_ip, 20) &&
               AT(local_port, 36) && AT(status, 40) && AT(udata, 44) && AT(connect, 48) &&
               AT(disconnect, 56) && AT(read, 64) && AT(write, 72) && AT(write_usr, 76) &&
               AT(connectfd, 80) && AT(index, 84) && AT(session, 88) && sizeof(TcpClient) == 92));
#undef AT

static const int32 DISCONNECTED = 0;
static const int32 CONNECTING = 1;
static const int32 CONNECTED = 2;

// What one event discards at most: a busy peer must not hold the loop.
static const size_t DISCARD_LIMIT = 1048576;

static TcpClient* s_clients = nullptr;
static uint32 s_max_client_num = 0, s_clients_num = 0, s_clients_session = 0;
static LMutex s_clients_mutex;
static SlotMap s_clients_free;
static uint32* s_clients_opens = nullptr;

static constexpr Table<TcpClient> CLIENTS = {KIND_CLIENT,      &TcpClient::connectfd, s_clients,
                                             s_max_client_num, s_clients_num,         s_clients_session,
                                             s_clients_mutex,  s_clients_free,        s_clients_opens};

bool make_clients(uint32 count)
{
    return make_table(CLIENTS, count, "s_clients_mutex", "TcpClient");
}

// ---- taking and releasing a slot

TcpClient* os_tcp_client_create(void)
{
    MutexGuard guard(&s_clients_mutex);
    if (s_clients_num >= s_max_client_num) return os_refuse(nullptr, "client num out");

    TcpClient* client = take_slot(CLIENTS, -1);
    if (!client) return nullptr;
    client->create_type = 1;
    return hand_out(CLIENTS, client);
}

// The status before tells whether there was anything to end.
static int32 end_connection(TcpClient* client)
{
    const int32 before = peek(client->status);
    if (before == DISCONNECTED) return before;

    const int fd = peek(client->connectfd);
    put(client->status, DISCONNECTED);
    forget(fd);
    close(fd);
    put(client->connectfd, -1);
    return before;
}

static void end_and_tell(TcpClient* client)
{
    if (end_connection(client) == DISCONNECTED) return;
    if (OnClientDisconnectFunc func = peek(client->disconnect)) func(client, peek(client->disconnect_usr));
}

int os_tcp_client_close(TcpClient* client)
{
    if (!client) return os_refuse(0, "client is null");
    const MainGuard guard;
    end_and_tell(client);
    return 1;
}

int os_tcp_client_destroy(TcpClient* client)
{
    if (!client) return os_refuse(0, "client is null");
    const MainGuard guard;
    end_and_tell(client);
    end_connection(client); // a disconnect callback may have opened it again
    if (!release_slot(CLIENTS, client)) {
        os_report("client: %x destroy err", static_cast<unsigned int>(reinterpret_cast<uintptr_t>(client)));
        exit(0);
    }
    return 1;
}

// ---- addresses

using IpField = char (TcpClient::*)[16];
using PortField = uint16 TcpClient::*;

static int set_address(TcpClient* client, IpField ip_field, PortField port_field, const char* ip, uint16 port)
{
    if (!client || !ip) return os_refuse(0, "client is null or ip is null");
    const size_t length = strnlen(ip, sizeof(client->*ip_field));
    if (length >= sizeof(client->*ip_field)) return os_refuse(0, "ip length out");
    if (peek(client->status) != DISCONNECTED) return os_refuse(0, "client is not disconnect");
    memcpy(client->*ip_field, ip, length + 1);
    client->*port_field = port;
    return 1;
}

static int get_address(const TcpClient* client, IpField ip_field, PortField port_field, char* ip,
                       uint16* port)
{
    if (!client || !ip || !port) return os_refuse(0, "client is null or ip is null or port is NULL");
    memcpy(ip, client->*ip_field, sizeof(client->*ip_field));
    *port = client->*port_field;
    return 1;
}

int os_tcp_client_set_remote(TcpClient* client, char* ip, uint16 port)
{
    return set_address(client, &TcpClient::remote_ip, &TcpClient::remote_port, ip, port);
}

int os_tcp_client_get_remote(TcpClient* client, char* ip, uint16* port)
{
    return get_address(client, &TcpClient::remote_ip, &TcpClient::remote_port, ip, port);
}

int os_tcp_client_set_local(TcpClient* client, char* ip, uint16 port)
{
    return set_address(client, &TcpClient::local_ip, &TcpClient::local_port, ip, port);
}

int os_tcp_client_get_local(TcpClient* client, char* ip, uint16* port)
{
    return get_address(client, &TcpClient::local_ip, &TcpClient::local_port, ip, port);
}

// ---- opening

using AskAddress = int (*)(int fd, struct sockaddr* address, socklen_t* length);

static void store_address(AskAddress ask, int fd, char (&ip)[16], uint16& port, const char* failure)
{
    struct sockaddr_in address = {};
    socklen_t length = sizeof(address);
    if (ask(fd, reinterpret_cast<struct sockaddr*>(&address), &length) != 0) {
        os_report_errno("%s", failure);
        return;
    }
    port = ntohs(address.sin_port);
    inet_ntop(AF_INET, &address.sin_addr, ip, sizeof(ip));
}

static int adopt(TcpClient* client, int sock)
{
    if (peek(client->connectfd) != -1) return os_refuse(0, "connectfd is not -1");
    put(client->connectfd, sock);
    begin_opening(CLIENTS, client);
    put(client->status, CONNECTED);
    store_address(getpeername, sock, client->remote_ip, client->remote_port, "getpeername fail");
    store_address(getsockname, sock, client->local_ip, client->local_port, "getsockname fail");
    return 1;
}

static bool bind_local(const TcpClient* client, int fd)
{
    if (client->local_port == 0 && client->local_ip[0] == '\0') return true;

    const struct sockaddr_in address = socket_address(local_ip_number(client->local_ip), client->local_port);
    return bind(fd, reinterpret_cast<const struct sockaddr*>(&address), sizeof(address)) == 0;
}

static void start_connect(TcpClient* client, int fd)
{
    const struct sockaddr_in address = socket_address(inet_addr(client->remote_ip), client->remote_port);
    if (connect(fd, reinterpret_cast<const struct sockaddr*>(&address), sizeof(address)) == 0) {
        put(client->status, CONNECTED);
        if (OnClientConnectFunc func = peek(client->connect)) func(client, peek(client->connect_usr));
        return;
    }
    if (errno != EINPROGRESS) os_report_errno("connect fail %s %d", client->remote_ip, client->remote_port);
}

static int open_outgoing(TcpClient* client)
{
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    put(client->connectfd, fd);
    if (fd == -1) return os_refuse_errno(0, "socket fail");
    setnonblocking(fd);
    if (!bind_local(client, fd)) {
        os_report_errno("bind fail");
        close_keeping_errno(fd);
        put(client->connectfd, -1);
        return 0;
    }

    const Opening<TcpClient> opening = begin_opening(CLIENTS, client);
    put(client->status, CONNECTING);
    start_connect(client, fd);
    // Registered last: an idle socket would announce itself writable, and hung up, before it connects.
    if (is_open(opening)) watch(fd, WATCH_EDGES, event_value(opening));
    return 1;
}

int os_tcp_client_open(TcpClient* client, int sock)
{
    if (!client) return os_refuse(0, "client is null");
    if (peek(client->status) != DISCONNECTED) return os_refuse(0, "client is not disconnect");
    const CancelGuard whole;
    return sock == -1 ? open_outgoing(client) : adopt(client, sock);
}

// ---- sending and reading

static size_t cut_to_int32(uint32 len)
{
    return std::min<uint32>(len, INT32_MAX);
}

int32 os_tcp_client_send(TcpClient* client, char* data, uint32 len)
{
    if (!client || !data) return os_refuse(-1, client ? "data is null" : "client is null");
    const int32 status = peek(client->status);
    if (status != CONNECTED) return status == CONNECTING ? 0 : -1;

    const ssize_t sent = send(peek(client->connectfd), data, cut_to_int32(len), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent >= 0) return static_cast<int32>(sent);
    return errno == EAGAIN ? 0 : -1;
}

int32 os_tcp_client_read(TcpClient* client, char* data, uint32 len)
{
    if (!client || !data) return os_refuse(-1, client ? "data is null" : "client is null");
    if (peek(client->status) != CONNECTED) return -1;
    if (len == 0) return 0; // a count of 0 would look like the peer's close

    const ssize_t got = recv(peek(client->connectfd), data, cut_to_int32(len), MSG_DONTWAIT);
    if (got > 0) return static_cast<int32>(got);
    return got < 0 && errno == EAGAIN ? 0 : -1;
}

// ---- settings

int32 os_tcp_client_get_status(TcpClient* client)
{
    if (!client) return os_refuse(-1, "client is null");
    return peek(client->status);
}

int os_tcp_client_set_udata(TcpClient* client, void* udata)
{
    if (!client) return os_refuse(0, "client is null");
    put(client->udata, udata);
    return 1;
}

void* os_tcp_client_get_udata(TcpClient* client)
{
    if (!client) return os_refuse(nullptr, "client is null");
    return peek(client->udata);
}

int os_tcp_client_bind_connect(TcpClient* client, OnClientConnectFunc func, void* udata)
{
    if (!client) return os_refuse(0, "client is null");
    bind_callback(client->connect, client->connect_usr, func, udata);
    return 1;
}

int os_tcp_client_bind_disconnect(TcpClient* client, OnClientDisconnectFunc func, void* udata)
{
    if (!client) return os_refuse(0, "client is null");
    bind_callback(client->disconnect, client->disconnect_usr, func, udata);
    return 1;
}

int os_tcp_client_bind_read(TcpClient* client, OnClientReadFunc func, void* udata)
{
    if (!client) return os_refuse(0, "client is null");
    bind_callback(client->read, client->read_usr, func, udata);
    return 1;
}

int os_tcp_client_bind_write(TcpClient* client, OnClientWriteFunc func, void* udata)
{
    if (!client) return os_refuse(0, "client is null");
    bind_callback(client->write, client->write_usr, func, udata);
    return 1;
}

int os_tcp_client_set_rcvbuf_len(TcpClient* client, int buf_len)
{
    if (!client) return os_refuse(0, "client == NULL");
    if (setsockopt(peek(client->connectfd), SOL_SOCKET, SO_RCVBUF, &buf_len, sizeof(buf_len)) != 0)
        return os_refuse_errno(0, "%s", "");
    return 1;
}

// ---- events

static void tell_writable(TcpClient* client)
{
    if (OnClientWriteFunc func = peek(client->write)) func(client, peek(client->write_usr));
}

// The event ends here. The socket is edge-triggered: input that came along is not announced again by itself.
static void finish_connect(const Opening<TcpClient>& opening, uint32 mask)
{
    TcpClient* client = opening.slot;
    put(client->status, CONNECTED);
    if (OnClientConnectFunc func = peek(client->connect)) func(client, peek(client->connect_usr));
    if (is_open(opening)) tell_writable(client);
    if (mask & EPOLLIN && is_open(opening))
        watch_anew(peek(client->connectfd), WATCH_EDGES, event_value(opening));
}

// True when the connection has ended.
static bool discard_input(const Opening<TcpClient>& opening)
{
    char waste[65535];
    const int fd = peek(opening.slot->connectfd);
    for (size_t total = 0; total < DISCARD_LIMIT;) {
        const ssize_t got = recv(fd, waste, std::min(sizeof(waste), DISCARD_LIMIT - total), MSG_DONTWAIT);
        if (got == 0) return true;
        if (got < 0) return errno != EAGAIN;
        total += static_cast<size_t>(got);
    }
    watch_anew(fd, WATCH_EDGES, event_value(opening));
    return false;
}

static bool input_ended(const Opening<TcpClient>& opening)
{
    TcpClient* client = opening.slot;
    if (OnClientReadFunc func = peek(client->read)) return func(client, peek(client->read_usr)) == -1;
    return discard_input(opening);
}

// The read callback may have closed the client, opened it again or destroyed it before it said -1. An
// accepted client's slot goes all the same; a caller's own client is left as its callback left it.
static void finish_connection(const Opening<TcpClient>& opening)
{
    TcpClient* client = opening.slot;
    if (!holds_slot(opening)) return;

    const bool accepted = client->create_type == 0;
    if (!accepted && !is_open(opening)) return;

    end_and_tell(client);
    if (!accepted || !holds_slot(opening)) return;

    end_connection(client); // a disconnect callback may have opened it again
    release_slot(CLIENTS, client);
}

void watch_accepted(TcpClient* client)
{
    watch(peek(client->connectfd), WATCH_EDGES, event_value(opening_of(CLIENTS, client)));
}

void epoll_dispath_client(const Event& event)
{
    if (const char* why = stale_event(CLIENTS, event)) {
        os_report("%s", why);
        return;
    }
    const Opening<TcpClient> opening = opening_of(CLIENTS, event);
    TcpClient* client = opening.slot;
    if (!is_open(opening)) return;

    if (event.mask & EPOLLOUT) {
        if (peek(client->status) == CONNECTING && !(event.mask & (EPOLLHUP | EPOLLERR))) {
            finish_connect(opening, event.mask);
            return;
        }
        tell_writable(client);
        if (!is_open(opening)) return;
    }
    if (event.mask & EPOLLIN && input_ended(opening)) finish_connection(opening);
}
