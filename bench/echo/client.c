/* client PORT ROUNDS: 100 connections, each sends a message of 64 bytes and waits for its echo, ROUNDS times.
 * Every byte is checked. Prints echoes per second; exit 1 when a byte is wrong or a connection ends. */
#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

enum
{
    CONNECTIONS = 100,
    SIZE = 64
};

typedef struct Connection
{
    int fd;
    int got; /* bytes of the echo that have come */
    long round;
    unsigned char message[SIZE];
} Connection;

static Connection s_connections[CONNECTIONS];

static void fail(const char* what)
{
    fprintf(stderr, "client: %s\n", what);
    exit(1);
}

/* No two messages of a run are alike, nor any two neighbouring bytes. */
static void send_message(Connection* connection)
{
    uint64_t word = (uint64_t)(connection - s_connections) << 40 | (uint64_t)connection->round;
    for (int i = 0; i < SIZE; i += 8) {
        word = word * 6364136223846793005u + 1442695040888963407u;
        memcpy(connection->message + i, &word, sizeof(word));
    }
    connection->got = 0;
    if (send(connection->fd, connection->message, SIZE, MSG_NOSIGNAL) != SIZE)
        fail("a message was not taken");
}

/* Non-zero when the whole echo is there. */
static int take_echo(Connection* connection)
{
    unsigned char echo[SIZE + 1];
    ssize_t got = recv(connection->fd, echo, (size_t)(SIZE - connection->got + 1), MSG_DONTWAIT);
    if (got <= 0) fail("a connection has ended");
    if (got > SIZE - connection->got) fail("more came back than was sent");
    if (memcmp(echo, connection->message + connection->got, (size_t)got) != 0) fail("a byte is wrong");
    connection->got += (int)got;
    return connection->got == SIZE;
}

static void connect_all(int set, int port)
{
    struct sockaddr_in address = {.sin_family = AF_INET, .sin_port = htons((uint16_t)port)};
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    for (int i = 0; i < CONNECTIONS; ++i) {
        const int on = 1;
        Connection* connection = &s_connections[i];
        connection->fd = socket(AF_INET, SOCK_STREAM, 0);
        setsockopt(connection->fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
        if (connect(connection->fd, (struct sockaddr*)&address, sizeof(address)) != 0) fail("no connection");
        struct epoll_event event = {.events = EPOLLIN, .data.ptr = connection};
        epoll_ctl(set, EPOLL_CTL_ADD, connection->fd, &event);
    }
}

static void run(int set, long rounds)
{
    struct epoll_event events[CONNECTIONS];
    int open = CONNECTIONS;
    for (int i = 0; i < CONNECTIONS; ++i) send_message(&s_connections[i]);
    while (open > 0) {
        int count = epoll_wait(set, events, CONNECTIONS, 10000);
        if (count <= 0) fail("no echo for 10 seconds");
        for (int i = 0; i < count; ++i) {
            Connection* connection = events[i].data.ptr;
            if (!take_echo(connection)) continue;
            if (++connection->round < rounds)
                send_message(connection);
            else
                --open;
        }
    }
}

static double now(void)
{
    struct timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return (double)time.tv_sec + (double)time.tv_nsec * 1e-9;
}

int main(int argc, char** argv)
{
    if (argc != 3) fail("client PORT ROUNDS");
    const long rounds = atol(argv[2]);
    int set = epoll_create1(0);
    connect_all(set, atoi(argv[1]));
    run(set, 10); /* the first ones find everything cold */
    for (int i = 0; i < CONNECTIONS; ++i) s_connections[i].round = 0;
    const double begin = now();
    run(set, rounds);
    printf("%.0f\n", (double)rounds * CONNECTIONS / (now() - begin));
    return 0;
}
