/* Echo server on libuv with as little as it can do: a buffer per connection, sent at once. Prints its port.
 */
#include <arpa/inet.h>
#include <stdio.h>
#include <stdlib.h>
#include <uv.h>

typedef struct Connection
{
    uv_tcp_t tcp; /* first: the handle is the connection */
    uv_write_t request;
    char data[65536];
} Connection;

static void closed(uv_handle_t* handle)
{
    free(handle);
}

static void allocate(uv_handle_t* handle, size_t suggested, uv_buf_t* buffer)
{
    Connection* connection = (Connection*)handle;
    (void)suggested;
    *buffer = uv_buf_init(connection->data, sizeof(connection->data));
}

static void echo(uv_stream_t* client, ssize_t got, const uv_buf_t* buffer);

static void written(uv_write_t* request, int status)
{
    if (status == 0) uv_read_start(request->handle, allocate, echo);
}

/* Nothing is read while something waits to be sent: there is one buffer. */
static void echo(uv_stream_t* client, ssize_t got, const uv_buf_t* buffer)
{
    if (got < 0) uv_close((uv_handle_t*)client, closed);
    if (got <= 0) return;

    uv_buf_t out = uv_buf_init(buffer->base, (unsigned)got);
    int sent = uv_try_write(client, &out, 1);
    if (sent == got) return;

    if (sent < 0) sent = 0;
    out = uv_buf_init(buffer->base + sent, (unsigned)(got - sent));
    uv_read_stop(client);
    uv_write(&((Connection*)client)->request, client, &out, 1, written);
}

static void connected(uv_stream_t* server, int status)
{
    if (status < 0) return;
    Connection* client = malloc(sizeof(*client));
    uv_tcp_init(server->loop, &client->tcp);
    if (uv_accept(server, (uv_stream_t*)client) == 0)
        uv_read_start((uv_stream_t*)client, allocate, echo);
    else
        uv_close((uv_handle_t*)client, closed);
}

int main(void)
{
    uv_loop_t* loop = uv_default_loop();
    uv_tcp_t server;
    struct sockaddr_in address;
    int length = sizeof(address);
    uv_tcp_init(loop, &server);
    uv_ip4_addr("127.0.0.1", 0, &address);
    uv_tcp_bind(&server, (const struct sockaddr*)&address, 0);
    if (uv_listen((uv_stream_t*)&server, 1000, connected) != 0) return 1;
    uv_tcp_getsockname(&server, (struct sockaddr*)&address, &length);
    printf("%d\n", ntohs(address.sin_port));
    fflush(stdout);
    return uv_run(loop, UV_RUN_DEFAULT);
}
