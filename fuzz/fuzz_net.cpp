// The event loop's sockets, with peers that the fuzzer scripts: bytes in pieces, pauses, half-close, reset.
// The layer's side echoes; a peer that behaves gets back what it sent, and in the end every slot is free.
#include "fuzz.h"
#include "libos.h"

#include <algorithm>
#include <set>
#include <string>

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

static const int Slots = 16, Peers = 4;

struct Echo // guarded by the main lock
{
    std::string waiting;
    uint32 at_most = 4096; // to read in one go
};

struct Peer
{
    int fd = -1;
    bool faithful = true; // everything has to come back
    std::string sent, got;
};

static Echo s_echoes[Slots];
static std::set<TcpClient*> s_connected, s_dialled;
static uint32 s_at_most;
static TcpServer* s_server;
static UdpClient* s_udp;
static int s_listener;

struct MainLock
{
    MainLock() { os_main_lock(); }
    ~MainLock() { os_main_unlock(); }
};

static char* local_host()
{
    static char text[] = "127.0.0.1";
    return text;
}

// ---- the layer's side

static int32 send_waiting(TcpClient* client, void* udata)
{
    std::string& waiting = static_cast<Echo*>(udata)->waiting;
    while (!waiting.empty()) {
        const int32 sent = os_tcp_client_send(client, waiting.data(), uint32(waiting.size()));
        if (sent <= 0) break;
        waiting.erase(0, size_t(sent));
    }
    return 0;
}

// 'q' in what comes: we end the connection.
static int32 take_input(TcpClient* client, void* udata)
{
    Echo& echo = *static_cast<Echo*>(udata);
    std::string piece(echo.at_most, '\0');
    int32 got;
    while ((got = os_tcp_client_read(client, piece.data(), echo.at_most)) > 0) {
        echo.waiting.append(piece, 0, size_t(got));
        if (piece.find('q') >= size_t(got)) continue;
        os_tcp_client_close(client);
        return -1;
    }
    send_waiting(client, udata);
    return got;
}

static void forget(TcpClient* client, void*)
{
    REQUIRE(s_connected.erase(client) == 1);
}

static void watch(TcpClient* client)
{
    Echo& echo = s_echoes[client->index];
    echo = {{}, s_at_most};
    REQUIRE(s_connected.insert(client).second);
    os_tcp_client_bind_disconnect(client, forget, nullptr);
    os_tcp_client_bind_read(client, take_input, &echo);
    os_tcp_client_bind_write(client, send_waiting, &echo);
}

static int32 echo_datagrams(UdpClient* client, void*)
{
    char data[2000], ip[16];
    uint16 port;
    for (;;) {
        const int32 got = os_udp_client_read(client, data, sizeof(data), ip, &port);
        if (got == 0 || (got < 0 && errno != 0)) return 0;
        if (got > 0) os_udp_client_send(client, data, uint32(got), ip, port);
    }
}

static uint16_t port_of(int fd)
{
    sockaddr_in address = {};
    socklen_t length = sizeof(address);
    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    return ntohs(address.sin_port);
}

// ---- the peers' side

// Ports that wait for their time to pass can be all that there are, and the fuzzer's own timer interrupts.
static int connect_to(uint16_t port, int type)
{
    const sockaddr_in address = {AF_INET, htons(port), {htonl(INADDR_LOOPBACK)}, {}};
    for (;; usleep(1000)) {
        const int fd = socket(AF_INET, type, 0);
        if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0) return fd;
        REQUIRE(errno == EADDRNOTAVAIL || errno == EINTR);
        close(fd);
    }
}

// Clients that we made keep their slots until we give them back.
static void give_back_dialled()
{
    std::erase_if(s_dialled, [](TcpClient* client) {
        return !s_connected.contains(client) && os_tcp_client_destroy(client) == 1;
    });
}

static bool has_room()
{
    MainLock lock;
    give_back_dialled();
    return s_connected.size() < Slots - Peers;
}

// The layer calls us, or we call it.
static void begin(Peer& peer, bool dialled)
{
    peer = {};
    while (!has_room()) usleep(100);
    if (!dialled) {
        peer.fd = connect_to(port_of(s_server->listenfd), SOCK_STREAM);
        return;
    }
    {
        MainLock lock;
        TcpClient* client = os_tcp_client_create();
        REQUIRE(client && s_dialled.insert(client).second);
        watch(client);
        REQUIRE(os_tcp_client_set_remote(client, local_host(), port_of(s_listener)) == 1);
        REQUIRE(os_tcp_client_open(client, -1) == 1);
    }
    do peer.fd = accept(s_listener, nullptr, nullptr);
    while (peer.fd < 0 && errno == EINTR);
    REQUIRE(peer.fd >= 0);
}

static void end(Peer& peer, bool reset)
{
    const linger at_once = {1, 0};
    if (reset) setsockopt(peer.fd, SOL_SOCKET, SO_LINGER, &at_once, sizeof(at_once));
    close(peer.fd);
    peer.fd = -1;
}

static void take_back(Peer& peer, size_t count, int how)
{
    std::string piece(count, '\0');
    const ssize_t got = recv(peer.fd, piece.data(), count, how);
    REQUIRE(!peer.faithful || got > 0 || (got < 0 && (errno == EINTR || errno == EAGAIN)));
    if (got > 0) peer.got.append(piece, 0, size_t(got));
    REQUIRE(peer.sent.compare(0, peer.got.size(), peer.got) == 0);
}

static void send_some(Peer& peer, FuzzedDataProvider& data)
{
    const uint8_t size = data.ConsumeIntegral<uint8_t>();
    std::string bytes = data.ConsumeBytesAsString(std::min(size, uint8_t{40}));
    if (size > 40) bytes.resize(size_t{size} * 40, char(size));
    const ssize_t sent = send(peer.fd, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent > 0) peer.sent.append(bytes, 0, size_t(sent));
    if (bytes.find('q') != std::string::npos) peer.faithful = false;
}

static void send_datagram(FuzzedDataProvider& data)
{
    uint16 port = 0;
    char ip[16];
    os_udp_client_get_local(s_udp, ip, &port);
    const int fd = connect_to(port, SOCK_DGRAM);
    const std::string bytes = data.ConsumeRandomLengthString(40);
    send(fd, bytes.data(), bytes.size(), 0);
    close(fd);
}

static void step(Peer& peer, uint8_t what, FuzzedDataProvider& data)
{
    if (peer.fd < 0) return begin(peer, what & 1);
    switch (what) {
    case 0:
        shutdown(peer.fd, SHUT_WR);
        peer.faithful = false;
        return;
    case 1:
    case 2:
        return end(peer, what & 1);
    case 3:
        return take_back(peer, 1 + data.ConsumeIntegral<uint8_t>(), MSG_DONTWAIT);
    case 4:
        usleep(data.ConsumeIntegral<uint8_t>());
        return;
    case 5:
        return send_datagram(data);
    default:
        return send_some(peer, data);
    }
}

static void finish(Peer& peer)
{
    if (peer.fd < 0) return;
    while (peer.faithful && peer.sent.size() > peer.got.size())
        take_back(peer, peer.sent.size() - peer.got.size(), 0);
    end(peer, true);
}

static bool all_over()
{
    MainLock lock;
    return s_connected.empty();
}

static void require_free_slots()
{
    for (int tries = 0; !all_over(); ++tries, usleep(200)) REQUIRE(tries < 100000);
    MainLock lock;
    give_back_dialled();
    std::vector<TcpClient*> all(Slots);
    for (TcpClient*& client : all) REQUIRE((client = os_tcp_client_create()) != nullptr);
    for (TcpClient* client : all) os_tcp_client_destroy(client);
}

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    silence_output();
    REQUIRE(os_startup(Slots, 1) == 1);
    s_server = os_tcp_server_create();
    const OnServerAcceptFunc accepted = [](TcpServer*, TcpClient* client, void*) { watch(client); };
    REQUIRE(os_tcp_server_set_local(s_server, local_host(), 0) == 1);
    REQUIRE(os_tcp_server_bind_accept(s_server, accepted, nullptr) + os_tcp_server_open(s_server) == 2);
    s_udp = os_udp_client_create();
    os_udp_client_bind_read(s_udp, echo_datagrams, nullptr);
    REQUIRE(os_udp_client_set_local(s_udp, local_host(), 0) + os_udp_client_open(s_udp) == 2);
    s_listener = socket(AF_INET, SOCK_STREAM, 0);
    return listen(s_listener, Peers);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size)
{
    FuzzedDataProvider data(bytes, size);
    Peer peers[Peers];
    {
        MainLock lock;
        s_at_most = data.ConsumeIntegralInRange<uint32>(1, 4096);
    }
    for (int steps = 0; data.remaining_bytes() > 0 && steps < 300; ++steps) {
        const uint8_t what = data.ConsumeIntegral<uint8_t>();
        step(peers[what % Peers], what / Peers % 8, data);
    }
    for (Peer& peer : peers) finish(peer);
    require_free_slots();
    return 0;
}
