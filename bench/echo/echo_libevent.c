/* Echo server on libevent. Prints its port. */
#include <arpa/inet.h>
#include <stdio.h>

#include <event2/buffer.h>
#include <event2/bufferevent.h>
#include <event2/event.h>
#include <event2/listener.h>

static void echo(struct bufferevent* client, void* usr)
{
    (void)usr;
    evbuffer_add_buffer(bufferevent_get_output(client), bufferevent_get_input(client));
}

static void ended(struct bufferevent* client, short what, void* usr)
{
    (void)usr;
    if (what & (BEV_EVENT_EOF | BEV_EVENT_ERROR)) bufferevent_free(client);
}

static void connected(struct evconnlistener* listener, evutil_socket_t fd, struct sockaddr* peer, int length,
                      void* usr)
{
    (void)peer, (void)length, (void)usr;
    struct bufferevent* client =
        bufferevent_socket_new(evconnlistener_get_base(listener), fd, BEV_OPT_CLOSE_ON_FREE);
    bufferevent_setcb(client, echo, NULL, ended, NULL);
    bufferevent_enable(client, EV_READ | EV_WRITE);
}

int main(void)
{
    struct event_base* base = event_base_new();
    struct sockaddr_in address = {.sin_family = AF_INET, .sin_addr.s_addr = htonl(INADDR_LOOPBACK)};
    socklen_t length = sizeof(address);
    struct evconnlistener* listener =
        evconnlistener_new_bind(base, connected, NULL, LEV_OPT_CLOSE_ON_FREE | LEV_OPT_REUSEABLE, 1000,
                                (const struct sockaddr*)&address, sizeof(address));
    if (!listener) return 1;
    getsockname(evconnlistener_get_fd(listener), (struct sockaddr*)&address, &length);
    printf("%d\n", ntohs(address.sin_port));
    fflush(stdout);
    return event_base_dispatch(base);
}
