#include "net_support.h"

#include <arpa/inet.h>

#include <map>
#include <regex>

std::string messages(const std::string& reports)
{
    static const std::regex where(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d file: libos_\w+\.cpp line: \d+ )");
    return std::regex_replace(reports, where, "");
}

std::string in_process(int status, const Work& body)
{
    int ended = 0;
    const std::string reports = written_to(2, [&] {
        ended = in_child([&] {
            alarm(240);
            body();
            fflush(nullptr);
            return ::testing::Test::HasFailure() ? 3 : CAME_TO_ITS_END;
        });
    });
    EXPECT_EQ(ended, status) << reports;
    EXPECT_EQ(count_of(reports, "ThreadSanitizer"), 0) << reports; // it changes only a status of 0
    return messages(reports);
}

std::string in_layer(int clients, int servers, const Work& body)
{
    return in_process(CAME_TO_ITS_END, [&] {
        ASSERT_EQ(os_startup(clients, servers), 1);
        body();
    });
}

void wait_for(const std::function<bool()>& condition)
{
    for (int i = 0; !locked(condition); ++i, os_sleep(1)) ASSERT_LT(i, 60000);
}

void on_loop(const Work& body)
{
    static const Work* next; // under the main lock; one caller at a time
    locked([&] { next = &body; });
    EXPECT_EQ(os_post_func([](void*) { (*std::exchange(next, nullptr))(); }, nullptr), 1);
    wait_for([] { return !next; });
}

int count_of(const std::string& text, const std::string& what)
{
    int count = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++count;
    return count;
}

std::string pattern(size_t count, uint32_t seed)
{
    const Bytes bytes = noise(count, seed);
    return {bytes.begin(), bytes.end()};
}

// ---- plain sockets

static int at_loopback(int (*call)(int, const sockaddr*, socklen_t), int fd, uint16_t port)
{
    const sockaddr_in address = {AF_INET, htons(port), {htonl(INADDR_LOOPBACK)}, {}};
    EXPECT_EQ(call(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    return fd;
}

int bound_socket()
{
    return at_loopback(bind, socket(AF_INET, SOCK_STREAM, 0), 0);
}

int plain_listener()
{
    const int fd = bound_socket();
    EXPECT_EQ(listen(fd, 128), 0);
    return fd;
}

uint16_t port_of(int fd)
{
    sockaddr_in address = {};
    socklen_t length = sizeof(address);
    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    return ntohs(address.sin_port);
}

int plain_connect(uint16_t port, int fd)
{
    return at_loopback(connect, fd, port);
}

bool send_all(int fd, const std::string& data)
{
    return send(fd, data.data(), data.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(data.size());
}

std::string read_up_to(int fd, size_t count)
{
    std::string data(count, '\0');
    data.resize(static_cast<size_t>(std::max<ssize_t>(recv(fd, data.data(), count, MSG_WAITALL), 0)));
    return data;
}

void close_with_reset(int fd)
{
    const linger at_once = {1, 0};
    setsockopt(fd, SOL_SOCKET, SO_LINGER, &at_once, sizeof(at_once));
    close(fd);
}

void close_peer(int fd, bool reset)
{
    if (reset) return close_with_reset(fd);
    close(fd);
}

// ---- the library's side

template <char what>
static int32 note(TcpClient*, void* usr)
{
    Watched* watched = static_cast<Watched*>(usr);
    watched->order += what;
    if (watched->then) watched->then(what);
    return 0;
}

static int32 read_all(TcpClient* client, void* usr)
{
    Watched* watched = static_cast<Watched*>(usr);
    char piece[5000];
    int32 got = 0;
    for (size_t taken = 0; taken < watched->at_most; taken += static_cast<size_t>(got)) {
        if ((got = os_tcp_client_read(client, piece, sizeof(piece))) <= 0) break;
        watched->got.append(piece, static_cast<size_t>(got));
    }
    note<'R'>(client, usr);
    return got < 0 ? got : os_tcp_client_read(client, piece, 0); // -1 when it was closed meanwhile
}

bool Watched::send(const std::string& whole)
{
    while (sent < whole.size()) {
        const uint32 left = static_cast<uint32>(whole.size() - sent);
        last = os_tcp_client_send(client, text(whole) + sent, left);
        if (last <= 0) return false;
        sent += static_cast<size_t>(last);
    }
    return true;
}

void watch(Watched& watched, TcpClient* client)
{
    const OnClientConnectFunc connected = [](TcpClient* of, void* usr) { note<'C'>(of, usr); };
    const OnClientDisconnectFunc disconnected = [](TcpClient* of, void* usr) { note<'D'>(of, usr); };
    watched.client = client;
    os_tcp_client_bind_connect(client, connected, &watched);
    os_tcp_client_bind_disconnect(client, disconnected, &watched);
    os_tcp_client_bind_read(client, read_all, &watched);
    os_tcp_client_bind_write(client, note<'W'>, &watched);
}

void open_watched(Watched& watched, uint16_t port)
{
    locked([&] {
        watch(watched, os_tcp_client_create());
        EXPECT_EQ(os_tcp_client_set_remote(watched.client, text("127.0.0.1"), port), 1);
        EXPECT_EQ(os_tcp_client_open(watched.client, -1), 1);
    });
}

int open_pair(Watched& watched, int listener)
{
    open_watched(watched, port_of(listener));
    const int peer = accept(listener, nullptr, nullptr);
    wait_for([&] { return watched.order.size() >= 2; });
    return peer;
}

TcpServer* open_server(OnServerAcceptFunc accept, void* usr)
{
    TcpServer* server = os_tcp_server_create();
    EXPECT_EQ(os_tcp_server_set_local(server, text("127.0.0.1"), 0), 1);
    EXPECT_EQ(os_tcp_server_bind_accept(server, accept, usr) + os_tcp_server_open(server), 2);
    return server;
}

static int s_open_echoes = 0; // main lock

int open_echoes()
{
    return s_open_echoes;
}

void accept_echo(TcpServer*, TcpClient* client, void* accepted)
{
    static std::map<TcpClient*, Watched> echoes; // main lock
    Watched& echo = echoes[client] = {};
    echo.then = [&echo](char what) { what == 'D' ? --s_open_echoes : echo.send(echo.got); };
    watch(echo, client);
    ++s_open_echoes;
    ++*static_cast<int*>(accepted);
}
