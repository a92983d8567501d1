/* Echo server on libuv, as its guide has it: a buffer and a request for each answer. Prints its port. */
#include <arpa/inet.h>
#include <stdio.h>
#include <stdlib.h>
#include <uv.h>

typedef struct Answer
{
    uv_write_t request; /* first: the request is the answer */
    char* data;
} Answer;

static void closed(uv_handle_t* handle)
{
    free(handle);
}

static void allocate(uv_handle_t* handle, size_t suggested, uv_buf_t* buffer)
{
    (void)handle;
    *buffer = uv_buf_init(malloc(suggested), (unsigned)suggested);
}

static void written(uv_write_t* request, int status)
{
    Answer* answer = (Answer*)request;
    (void)status;
    free(answer->data);
    free(answer);
}

static void echo(uv_stream_t* client, ssize_t got, const uv_buf_t* buffer)
{
    if (got <= 0) {
        free(buffer->base);
        if (got < 0) uv_close((uv_handle_t*)client, closed);
        return;
    }
    Answer* answer = malloc(sizeof(*answer));
    answer->data = buffer->base;
    uv_buf_t out = uv_buf_init(buffer->base, (unsigned)got);
    uv_write(&answer->request, client, &out, 1, written);
}

static void connected(uv_stream_t* server, int status)
{
    if (status < 0) return;
    uv_tcp_t* client = malloc(sizeof(*client));
    uv_tcp_init(server->loop, client);
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
