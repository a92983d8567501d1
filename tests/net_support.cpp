#include "net_support.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <stdio.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <thread>

static std::string text_of(FILE* file)
{
    std::string text;
    char piece[4096];
    rewind(file);
    while (const size_t count = fread(piece, 1, sizeof(piece), file)) text.append(piece, count);
    fclose(file);
    return text;
}

ChildResult in_child(const std::function<void()>& body)
{
    FILE* reports = tmpfile();
    fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        alarm(240);
        dup2(fileno(reports), STDERR_FILENO);
        body();
        fflush(nullptr);
        _exit(::testing::Test::HasFailure() ? 1 : CHILD_DONE);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, text_of(reports)};
}

std::string in_layer(int clients, int servers, const std::function<void()>& body)
{
    const ChildResult result = in_child([&] {
        ASSERT_EQ(os_startup(clients, servers), 1);
        body();
    });
    EXPECT_EQ(result.status, CHILD_DONE) << result.reports;
    return result.reports;
}

bool wait_for(const std::function<bool()>& condition)
{
    for (int i = 0; i < 60000; ++i) {
        if (condition()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return false;
}

void locked(const std::function<void()>& body)
{
    os_main_lock();
    body();
    os_main_unlock();
}

void on_loop(const std::function<void()>& body)
{
    struct Call
    {
        const std::function<void()>& body;
        std::atomic<bool> done{false};
    } call{body};
    os_post_func(
        [](void* context) {
            Call* posted = static_cast<Call*>(context);
            posted->body();
            posted->done = true;
        },
        &call);
    EXPECT_TRUE(wait_for([&] { return call.done.load(); }));
}

int count_of(const std::string& text, const std::string& what)
{
    int count = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++count;
    return count;
}

// ---- plain sockets

static sockaddr_in loopback(uint16_t port)
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    return address;
}

uint16_t port_of(int fd)
{
    sockaddr_in address = {};
    socklen_t length = sizeof(address);
    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    return ntohs(address.sin_port);
}

static int bound_socket()
{
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    const sockaddr_in address = loopback(0);
    EXPECT_EQ(bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    return fd;
}

int plain_listener(uint16_t* port)
{
    const int fd = bound_socket();
    EXPECT_EQ(listen(fd, 128), 0);
    *port = port_of(fd);
    return fd;
}

// Bound but not listening for the rest of the process, so that nobody else gets it.
uint16_t unused_port()
{
    return port_of(bound_socket());
}

void connect_plain(int fd, uint16_t port)
{
    const sockaddr_in address = loopback(port);
    EXPECT_EQ(connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
}

int plain_connect(uint16_t port)
{
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    connect_plain(fd, port);
    return fd;
}

int plain_accept(int listener)
{
    const int fd = accept(listener, nullptr, nullptr);
    EXPECT_GE(fd, 0);
    return fd;
}

bool send_all(int fd, const std::string& data)
{
    for (size_t done = 0; done < data.size();) {
        const ssize_t sent = send(fd, data.data() + done, data.size() - done, MSG_NOSIGNAL);
        if (sent <= 0) return false;
        done += static_cast<size_t>(sent);
    }
    return true;
}

std::string read_up_to(int fd, size_t count)
{
    std::string data(count, '\0');
    size_t done = 0;
    while (done < count) {
        const ssize_t got = recv(fd, data.data() + done, count - done, 0);
        if (got <= 0) break;
        done += static_cast<size_t>(got);
    }
    data.resize(done);
    return data;
}

bool at_end(int fd)
{
    char byte;
    return recv(fd, &byte, 1, 0) <= 0;
}

void close_with_reset(int fd)
{
    const linger at_once = {1, 0};
    setsockopt(fd, SOL_SOCKET, SO_LINGER, &at_once, sizeof(at_once));
    close(fd);
}

std::string pattern(size_t count, unsigned seed)
{
    std::string data(count, '\0');
    for (char& byte : data) {
        seed = seed * 1664525 + 1013904223;
        byte = static_cast<char>(seed >> 24);
    }
    return data;
}

// ---- watched clients

static void note(Watched* watched, char what)
{
    watched->order += what;
    if (watched->then) watched->then(what);
}

static int32 read_all(TcpClient* client, void* usr)
{
    Watched* watched = static_cast<Watched*>(usr);
    char piece[5000];
    int32 got = 0;
    size_t taken = 0;
    while (taken < watched->at_most && (got = os_tcp_client_read(client, piece, sizeof(piece))) > 0) {
        watched->got.append(piece, static_cast<size_t>(got));
        taken += static_cast<size_t>(got);
    }
    note(watched, 'R');
    return got;
}

std::string Watched::happened()
{
    std::string copy;
    locked([&] { copy = order; });
    return copy;
}

std::string Watched::received()
{
    std::string copy;
    locked([&] { copy = got; });
    return copy;
}

void watch(Watched& watched, TcpClient* client)
{
    watched.client = client;
    os_tcp_client_bind_connect(
        client, [](TcpClient*, void* usr) { note(static_cast<Watched*>(usr), 'C'); }, &watched);
    os_tcp_client_bind_disconnect(
        client, [](TcpClient*, void* usr) { note(static_cast<Watched*>(usr), 'D'); }, &watched);
    os_tcp_client_bind_read(client, read_all, &watched);
    os_tcp_client_bind_write(
        client,
        [](TcpClient*, void* usr) -> int32 {
            note(static_cast<Watched*>(usr), 'W');
            return 0;
        },
        &watched);
}

void aim(TcpClient* client, uint16_t port)
{
    char ip[] = "127.0.0.1";
    EXPECT_EQ(os_tcp_client_set_remote(client, ip, port), 1);
}

void open_watched(Watched& watched, uint16_t port)
{
    locked([&] {
        watch(watched, os_tcp_client_create());
        aim(watched.client, port);
        EXPECT_EQ(os_tcp_client_open(watched.client, -1), 1);
    });
}

TcpServer* open_server(uint16_t* port, OnServerAcceptFunc accept, void* usr)
{
    char ip[] = "127.0.0.1";
    TcpServer* server = os_tcp_server_create();
    EXPECT_EQ(os_tcp_server_set_local(server, ip, 0), 1);
    EXPECT_EQ(os_tcp_server_bind_accept(server, accept, usr), 1);
    EXPECT_EQ(os_tcp_server_open(server), 1);
    *port = port_of(server->listenfd);
    return server;
}
