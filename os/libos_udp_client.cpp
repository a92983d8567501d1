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
#define AT(field, offset) (offsetof(UdpClient, field) == (offset))
static_assert(sizeof(void*) != 4 ||
              (AT(local_ip, 1) && AT(local_port, 18) && AT(status, 20) && AT(udata, 24) && AT(read, 28) &&
               AT(write, 36) && AT(write_usr, 40) && AT(fd, 44) && AT(index, 48) && AT(session, 52) &&
               sizeof(UdpClient) == 56));
#undef AT

static UdpClient* s_udps = nullptr;
static uint32 s_max_udp_num = 0, s_udps_num = 0, s_udps_session = 0;
static LMutex s_udps_mutex;
static SlotMap s_udps_free;
static uint32* s_udps_opens = nullptr;

static constexpr Table<UdpClient> UDPS = {KIND_UDP,      &UdpClient::fd, s_udps,
                                          s_max_udp_num, s_udps_num,     s_udps_session,
                                          s_udps_mutex,  s_udps_free,    s_udps_opens};

bool make_udps(uint32 count)
{
    return make_table(UDPS, count, "s_udps_mutex", "UdpClient");
}

void close_udps()
{
    close_taken(UDPS, forget_and_close);
}

// ---- taking and releasing a slot

static UdpClient* take_udp()
{
    MutexGuard guard(&s_udps_mutex);
    if (s_udps_num >= s_max_udp_num)
        return os_refuse(nullptr, "udp num out:udps:%d,max udp:%d", s_udps_num, s_max_udp_num);

    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd == -1) return os_refuse(nullptr, "socket fail");
    UdpClient* client = take_slot(UDPS, fd);
    if (client) return hand_out(UDPS, client);
    close(fd);
    return nullptr;
}

// Behind the lock, since a failure there ends the process: what runs then may want the table.
UdpClient* os_udp_client_create(void)
{
    UdpClient* client = take_udp();
    if (client) setnonblocking(client->fd);
    return client;
}

int os_udp_client_close(UdpClient* client)
{
    if (!client) return os_refuse(0, "client is null");
    const MainGuard guard;
    if (peek(client->status) != 0) {
        put(client->status, 0);
        forget(peek(client->fd));
    }
    return 1;
}

int os_udp_client_destroy(UdpClient* client)
{
    if (!client) return os_refuse(0, "client is null");
    const MainGuard guard;
    os_udp_client_close(client);
    if (!release_slot(UDPS, client)) {
        os_report("client: %x destroy err", static_cast<unsigned int>(reinterpret_cast<uintptr_t>(client)));
        exit(0);
    }
    return 1;
}

// ---- addresses and opening

int os_udp_client_set_local(UdpClient* client, char* ip, uint16 port)
{
    if (!client || !ip) return os_refuse(0, "client is null or ip is null");
    const size_t length = strnlen(ip, sizeof(client->local_ip));
    if (length >= sizeof(client->local_ip)) return os_refuse(0, "ip length out");
    memcpy(client->local_ip, ip, length + 1);
    client->local_port = port;
    return 1;
}

int os_udp_client_get_local(UdpClient* client, char* ip, uint16* port)
{
    if (!client || !ip || !port) return os_refuse(0, "client is null or ip is null or port is null");
    memcpy(ip, client->local_ip, strlen(client->local_ip) + 1);
    *port = client->local_port;
    if (*port != 0) return 0;

    struct sockaddr_in address = {};
    socklen_t length = sizeof(address);
    if (getsockname(peek(client->fd), reinterpret_cast<struct sockaddr*>(&address), &length) != 0)
        return os_refuse(-1, "getsockname failed!");
    *port = ntohs(address.sin_port);
    return 0;
}

int os_udp_client_open(UdpClient* client)
{
    if (!client) return os_refuse(0, "client is null");
    const int fd = peek(client->fd);
    const int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    const struct sockaddr_in address = socket_address(local_ip_number(client->local_ip), client->local_port);
    if (bind(fd, reinterpret_cast<const struct sockaddr*>(&address), sizeof(address)) != 0)
        return os_refuse_errno(0, "bind fail");

    // The status comes first: the loop drops what is announced for a closed slot, and an edge comes once.
    const Opening<UdpClient> opening = begin_opening(UDPS, client);
    put(client->status, 1);
    watch(fd, WATCH_EDGES, event_value(opening));
    return 1;
}

// ---- sending and reading

int32 os_udp_client_send(UdpClient* client, char* data, uint32 len, char* ip, uint16 port)
{
    if (!client || !data || !ip)
        return os_refuse(-1, !client ? "client is null" : !data ? "data is null" : "ip is null");
    const struct sockaddr_in address = socket_address(inet_addr(ip), port);
    const ssize_t sent = sendto(peek(client->fd), data, len, MSG_NOSIGNAL | MSG_DONTWAIT,
                                reinterpret_cast<const struct sockaddr*>(&address), sizeof(address));
    if (sent >= 0) return static_cast<int32>(sent);
    return errno == EAGAIN ? 0 : -1;
}

int32 os_udp_client_read(UdpClient* client, char* data, uint32 len, char* ip, uint16* port)
{
    if (!client || !data || !ip || !port)
        return os_refuse(-1, "client is null or data is null or ip is null or port is null");
    struct sockaddr_in address = {};
    socklen_t length = sizeof(address);
    const ssize_t got = recvfrom(peek(client->fd), data, std::min<uint32>(len, INT32_MAX), MSG_DONTWAIT,
                                 reinterpret_cast<struct sockaddr*>(&address), &length);
    if (got > 0) {
        *port = ntohs(address.sin_port);
        inet_ntop(AF_INET, &address.sin_addr, ip, sizeof(client->local_ip));
        return static_cast<int32>(got);
    }
    if (got < 0 && errno == EAGAIN) return 0;
    if (got == 0) errno = 0; // an empty datagram: the caller tells it from an error, and reads on
    os_report("recv fail");
    return -1;
}

// ---- settings

int32 os_udp_client_get_status(UdpClient* client)
{
    if (!client) return os_refuse(-1, "client is null");
    return peek(client->status);
}

int os_udp_client_set_udata(UdpClient* client, void* udata)
{
    if (!client) return os_refuse(0, "client is null");
    put(client->udata, udata);
    return 1;
}

void* os_udp_client_get_udata(UdpClient* client)
{
    if (!client) return os_refuse(nullptr, "client is null");
    return peek(client->udata);
}

int os_udp_client_bind_read(UdpClient* client, OnUdpClientReadFunc func, void* udata)
{
    if (!client) return os_refuse(0, "client is null");
    bind_callback(client->read, client->read_usr, func, udata);
    return 1;
}

int os_udp_client_bind_write(UdpClient* client, OnUdpClientWriteFunc func, void* udata)
{
    if (!client) return os_refuse(0, "client is null");
    bind_callback(client->write, client->write_usr, func, udata);
    return 1;
}

// ---- events

void epoll_dispath_udp(const Event& event)
{
    if (const char* why = stale_event(UDPS, event)) {
        os_report("%s", why);
        return;
    }
    const Opening<UdpClient> opening = opening_of(UDPS, event);
    UdpClient* client = opening.slot;
    if (!is_open(opening)) return;

    if (event.mask & EPOLLOUT) {
        if (OnUdpClientWriteFunc func = peek(client->write)) func(client, peek(client->write_usr));
        if (!is_open(opening)) return;
    }
    if (event.mask & EPOLLIN)
        if (OnUdpClientReadFunc func = peek(client->read)) func(client, peek(client->read_usr));
}
