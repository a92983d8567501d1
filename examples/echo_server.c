/* An echo server: what comes in goes out again. echo_server [PORT], 7000 when none is given; ^C ends it. */
#include <stdlib.h>
#include <unistd.h>

#include "libos.h"

typedef struct Echo
{
    int32 from, to; /* what of data is still to be sent */
    char data[4096];
} Echo;

static Echo s_echoes[1000]; /* one per slot */

/* Runs when there is something to read and when there is room to send: either way it goes on where it was. */
static int32 echo(TcpClient* client, void* usr)
{
    Echo* held = usr;
    for (;;) {
        while (held->from < held->to) {
            int32 sent = os_tcp_client_send(client, held->data + held->from, (uint32)(held->to - held->from));
            if (sent <= 0) return sent;
            held->from += sent;
        }
        int32 got = os_tcp_client_read(client, held->data, sizeof(held->data));
        if (got <= 0) return got;
        held->from = 0;
        held->to = got;
    }
}

static void accepted(TcpServer* server, TcpClient* client, void* usr)
{
    Echo* held = &s_echoes[client->index];
    (void)server, (void)usr;
    held->from = held->to = 0;
    os_tcp_client_bind_read(client, echo, held);
    os_tcp_client_bind_write(client, echo, held);
}

int main(int argc, char** argv)
{
    TcpServer* server = os_startup(1000, 1) ? os_tcp_server_create() : NULL;
    os_tcp_server_set_local(server, NULL, (uint16)(argc > 1 ? atoi(argv[1]) : 7000));
    os_tcp_server_bind_accept(server, accepted, NULL);
    if (!os_tcp_server_open(server)) return 1;
    for (;;) pause();
}
