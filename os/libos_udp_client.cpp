#include <arpa/inet.h>
#include <netinet/in.h>
#include <stddef.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>

#include "libos_net.h"

// The device's layout, which callers built against earlier headers rely on.
#define AT(field, offset) (offsetof(UdpClient, field) == (offset))
static_assert(sizeof(void*) != 4 ||
              (AT(local_ip, 1) && AT(local_port, 18) && AT(status, 20) && AT(udata, 24) && AT(read, 28) &&
               AT(write, 36) && AT(write_usr, 40) && AT(fd, 44) && AT(index, 48) && AT(session, 52) &&
               sizeof(UdpClient) == 56));
#undef AT

// ---- taking and releasing a slot

static UdpClient* prepare_slot(int32 index, int fd)
{
    UdpClient* client = &s_udps[index];
    clear_bytes(client, 0, offsetof(UdpClient, status));
    clear_bytes(client, offsetof(UdpClient, udata), offsetof(UdpClient, fd));
    client->type = KIND_UDP;
    put(client->fd, fd);
    put(client->status, 0);
    put(client->session, ++s_udps_session);
    put(client->index, index);
    return client;
}

static UdpClient* take_slot()
{
    MutexGuard guard(&s_udps_mutex);
    if (s_udps_num >= s_max_udp_num) {
        os_report("udp num out:udps:%d,max udp:%d", s_udps_num, s_max_udp_num);
        return nullptr;
    }
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd == -1) {
        os_report("socket fail");
        return nullptr;
    }
    const int32 index = slots_take(s_udps_free);
    if (index == -1) {
        close(fd);
        return nullptr;
    }
    ++s_udps_num;
    return prepare_slot(index, fd);
}

// Behind the lock, since a failure there ends the process: what runs then may want the table.
UdpClient* os_udp_client_create(void)
{
    UdpClient* client = take_slot();
    if (client) setnonblocking(client->fd);
    return client;
}

// False when the slot was free already.
static bool release_slot(UdpClient* client)
{
    MutexGuard guard(&s_udps_mutex);
    const int32 index = peek(client->index);
    if (index == -1) return false;

    put(client->index, -1);
    close(peek(client->fd));
    put(client->fd, -1);
    slots_give(s_udps_free, static_cast<uint32>(index));
    --s_udps_num;
    return true;
}

int os_udp_client_close(UdpClient* client)
{
    if (!client) {
        os_report("client is null");
        return 0;
    }
    MutexGuard guard(&s_main_mutex);
    if (peek(client->status) != 0) {
        put(client->status, 0);
        loop_forget(peek(client->fd));
    }
    return 1;
}

int os_udp_client_destroy(UdpClient* client)
{
    if (!client) {
        os_report("client is null");
        return 0;
    }
    MutexGuard guard(&s_main_mutex);
    os_udp_client_close(client);
    if (!release_slot(client)) {
        os_report("client: %x destroy err", static_cast<unsigned int>(reinterpret_cast<uintptr_t>(client)));
        exit(0);
    }
    return 1;
}

// ---- addresses and opening

int os_udp_client_set_local(UdpClient* client, char* ip, uint16 port)
{
    if (!client || !ip) {
        os_report("client is null or ip is null");
        return 0;
    }
    const size_t length = strnlen(ip, sizeof(client->local_ip));
    if (length >= sizeof(client->local_ip)) {
        os_report("ip length out");
        return 0;
    }
    memcpy(client->local_ip, ip, length + 1);
    client->local_port = port;
    return 1;
}

int os_udp_client_get_local(UdpClient* client, char* ip, uint16* port)
{
    if (!client || !ip || !port) {
        os_report("client is null or ip is null or port is null");
        return 0;
    }
    memcpy(ip, client->local_ip, strlen(client->local_ip) + 1);
    *port = client->local_port;
    if (*port != 0) return 0;

    struct sockaddr_in address = {};
    socklen_t length = sizeof(address);
    if (getsockname(peek(client->fd), reinterpret_cast<struct sockaddr*>(&address), &length) != 0) {
        os_report("getsockname failed!");
        return -1;
    }
    *port = ntohs(address.sin_port);
    return 0;
}

int os_udp_client_open(UdpClient* client)
{
    if (!client) {
        os_report("client is null");
        return 0;
    }
    const int fd = peek(client->fd);
    const int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    const struct sockaddr_in address = socket_address(local_ip_number(client->local_ip), client->local_port);
    if (bind(fd, reinterpret_cast<const struct sockaddr*>(&address), sizeof(address)) != 0) {
        os_report_errno("bind fail");
        return 0;
    }

    // The status comes first: the loop drops what is announced for a closed slot, and an edge comes once.
    const Opening<UdpClient> opening = begin_opening(client);
    put(client->status, 1);
    loop_watch(fd, WATCH_EDGES, event_value(opening));
    return 1;
}

// ---- sending and reading

int32 os_udp_client_send(UdpClient* client, char* data, uint32 len, char* ip, uint16 port)
{
    if (!client || !data || !ip) {
        os_report(!client ? "client is null" : !data ? "data is null" : "ip is null");
        return -1;
    }
    const struct sockaddr_in address = socket_address(inet_addr(ip), port);
    const ssize_t sent = sendto(peek(client->fd), data, len, MSG_NOSIGNAL | MSG_DONTWAIT,
                                reinterpret_cast<const struct sockaddr*>(&address), sizeof(address));
    if (sent >= 0) return static_cast<int32>(sent);
    return errno == EAGAIN ? 0 : -1;
}

int32 os_udp_client_read(UdpClient* client, char* data, uint32 len, char* ip, uint16* port)
{
    if (!client || !data || !ip || !port) {
        os_report("client is null or data is null or ip is null or port is null");
        return -1;
    }
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
    if (!client) {
        os_report("client is null");
        return -1;
    }
    return peek(client->status);
}

int os_udp_client_set_udata(UdpClient* client, void* udata)
{
    if (!client) {
        os_report("client is null");
        return 0;
    }
    put(client->udata, udata);
    return 1;
}

void* os_udp_client_get_udata(UdpClient* client)
{
    if (!client) {
        os_report("client is null");
        return nullptr;
    }
    return peek(client->udata);
}

int os_udp_client_bind_read(UdpClient* client, OnUdpClientReadFunc func, void* udata)
{
    if (!client) {
        os_report("client is null");
        return 0;
    }
    bind_callback(client->read, client->read_usr, func, udata);
    return 1;
}

int os_udp_client_bind_write(UdpClient* client, OnUdpClientWriteFunc func, void* udata)
{
    if (!client) {
        os_report("client is null");
        return 0;
    }
    bind_callback(client->write, client->write_usr, func, udata);
    return 1;
}

// ---- events

void epoll_dispath_udp(const Event& event)
{
    if (const char* why = stale_event(s_udps, s_max_udp_num, event)) {
        os_report("%s", why);
        return;
    }
    UdpClient* client = &s_udps[event.index];
    const Opening<UdpClient> opening = opening_of(client, event);
    if (!is_open(opening)) return;

    if (event.mask & EPOLLOUT) {
        if (OnUdpClientWriteFunc func = peek(client->write)) func(client, peek(client->write_usr));
        if (!is_open(opening)) return;
    }
    if (event.mask & EPOLLIN)
        if (OnUdpClientReadFunc func = peek(client->read)) func(client, peek(client->read_usr));
}
