/* Echo server on libos. Prints its port. */
#include <arpa/inet.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include "libos.h"

typedef struct Echo
{
    int32 from, to; /* what of data is still to be sent */
    char data[65536];
} Echo;

static Echo s_echoes[1000]; /* one per slot */

/* 1 when all is sent, 0 when there is no room for the rest, -1 at the end of the connection. */
static int32 send_held(TcpClient* client, Echo* held)
{
    while (held->from < held->to) {
        int32 sent = os_tcp_client_send(client, held->data + held->from, (uint32)(held->to - held->from));
        if (sent <= 0) return sent;
        held->from += sent;
    }
    held->from = held->to = 0;
    return 1;
}

static int32 echo(TcpClient* client, void* usr)
{
    Echo* held = usr;
    for (;;) {
        int32 sent = send_held(client, held);
        if (sent <= 0) return sent;
        int32 got = os_tcp_client_read(client, held->data, sizeof(held->data));
        if (got <= 0) return got;
        held->to = got;
    }
}

/* Room again: what could not be sent then, and what was left unread because of it. */
static int32 writable(TcpClient* client, void* usr)
{
    Echo* held = usr;
    return held->from < held->to ? echo(client, held) : 0;
}

static void accepted(TcpServer* server, TcpClient* client, void* usr)
{
    Echo* held = &s_echoes[client->index];
    (void)server, (void)usr;
    held->from = held->to = 0;
    os_tcp_client_bind_read(client, echo, held);
    os_tcp_client_bind_write(client, writable, held);
}

int main(void)
{
    if (!os_startup(1000, 1)) return 1;
    TcpServer* server = os_tcp_server_create();
    os_tcp_server_set_local(server, "127.0.0.1", 0);
    os_tcp_server_bind_accept(server, accepted, NULL);
    if (!os_tcp_server_open(server)) return 1;

    struct sockaddr_in address = {0};
    socklen_t length = sizeof(address);
    getsockname(server->listenfd, (struct sockaddr*)&address, &length);
    printf("%d\n", ntohs(address.sin_port));
    fflush(stdout);
    for (;;) pause();
}
