/* Echo server on nothing but epoll, as bare as it can be: the floor. Prints its port. */
#include <arpa/inet.h>
#include <stdio.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

static void watch(int set, int fd)
{
    struct epoll_event event = {.events = EPOLLIN, .data.fd = fd};
    epoll_ctl(set, EPOLL_CTL_ADD, fd, &event);
}

/* What does not fit the socket ends the connection: a floor carries no load. */
static void echo(int fd)
{
    static char data[65536];
    ssize_t got = recv(fd, data, sizeof(data), MSG_DONTWAIT);
    if (got <= 0 || send(fd, data, (size_t)got, MSG_DONTWAIT | MSG_NOSIGNAL) != got) close(fd);
}

int main(void)
{
    struct sockaddr_in address = {.sin_family = AF_INET, .sin_addr.s_addr = htonl(INADDR_LOOPBACK)};
    socklen_t length = sizeof(address);
    int set = epoll_create1(0);
    int listener = socket(AF_INET, SOCK_STREAM, 0);
    if (bind(listener, (struct sockaddr*)&address, sizeof(address)) != 0 || listen(listener, 1000) != 0)
        return 1;
    getsockname(listener, (struct sockaddr*)&address, &length);
    printf("%d\n", ntohs(address.sin_port));
    fflush(stdout);
    watch(set, listener);

    struct epoll_event events[1000];
    for (;;) {
        int count = epoll_wait(set, events, 1000, -1);
        for (int i = 0; i < count; ++i) {
            if (events[i].data.fd == listener)
                watch(set, accept(listener, NULL, NULL));
            else
                echo(events[i].data.fd);
        }
    }
}
