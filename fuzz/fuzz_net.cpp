// The event loop's sockets, with peers that the fuzzer scripts: bytes in pieces, pauses, half-close, reset.
// The layer's side echoes; a peer that behaves gets back what it sent, and in the end every slot is free.
#include <arpa/inet.h>
#include <fuzzer/FuzzedDataProvider.h>

#include <list>

#include "../tests/net_support.h"

static const int Slots = 16, Peers = 4;

struct Peer
{
    int fd = -1;
    bool faithful = true; // everything has to come back
    std::string sent, got;
};

static std::list<Watched> s_accepted, s_dialled; // main lock
static TcpServer* s_server;
static UdpClient* s_udp;
static int s_listener;

// ---- the layer's side

// 'q' in what comes: we end the connection.
static Watched& add_echo(std::list<Watched>& to)
{
    Watched& echo = to.emplace_back();
    echo.then = [&echo](char what) {
        if (echo.got.find('q') == std::string::npos)
            echo.send(echo.got);
        else if (what == 'R')
            os_tcp_client_close(echo.client);
    };
    return echo;
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

// How many connections there are. Clients that we made keep their slots until we give them back.
static size_t count_connections()
{
    const auto ended = [](const Watched& echo) {
        EXPECT_LE(echo.times('D'), 1);
        return echo.times('D') == 1;
    };
    std::erase_if(s_accepted, ended);
    std::erase_if(s_dialled,
                  [&](Watched& echo) { return ended(echo) && os_tcp_client_destroy(echo.client) == 1; });
    return s_accepted.size() + s_dialled.size();
}

// ---- the peers' side

// Ports that wait for their time to pass can be all that there are, and the fuzzer's own timer interrupts.
static int connect_to(uint16_t port, int type)
{
    const sockaddr_in address = {AF_INET, htons(port), {htonl(INADDR_LOOPBACK)}, {}};
    for (;; usleep(1000)) {
        const int fd = socket(AF_INET, type, 0);
        if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0) return fd;
        EXPECT_TRUE(errno == EADDRNOTAVAIL || errno == EINTR);
        close(fd);
    }
}

// The layer calls us, or we call it.
static void begin(Peer& peer, bool dialled)
{
    peer = {};
    wait_for([] { return count_connections() < Slots - Peers; });
    if (!dialled) {
        peer.fd = connect_to(port_of(s_server->listenfd), SOCK_STREAM);
        return;
    }
    locked([] { open_watched(add_echo(s_dialled), port_of(s_listener)); });
    do peer.fd = accept(s_listener, nullptr, nullptr);
    while (peer.fd < 0 && errno == EINTR);
    EXPECT_GE(peer.fd, 0);
}

static void end(Peer& peer, bool reset)
{
    close_peer(peer.fd, reset);
    peer.fd = -1;
}

static void take_back(Peer& peer, size_t count, int how)
{
    std::string piece(count, '\0');
    const ssize_t got = recv(peer.fd, piece.data(), count, how);
    EXPECT_TRUE(!peer.faithful || got > 0 || (got < 0 && (errno == EINTR || errno == EAGAIN)));
    if (got > 0) peer.got.append(piece, 0, size_t(got));
    EXPECT_TRUE(peer.sent.starts_with(peer.got));
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

static void send_datagram(const std::string& bytes)
{
    uint16 port = 0;
    char ip[16];
    os_udp_client_get_local(s_udp, ip, &port);
    const int fd = connect_to(port, SOCK_DGRAM);
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
        return send_datagram(data.ConsumeRandomLengthString(40));
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

// A peer that went before it was accepted still gets a slot for a moment, but not while we hold the main
// lock.
static bool has_all_slots()
{
    if (count_connections() != 0) return false;
    TcpClient* all[Slots];
    for (TcpClient*& client : all) EXPECT_TRUE(client = os_tcp_client_create());
    for (TcpClient* client : all) os_tcp_client_destroy(client);
    return true;
}

static bool start_layer()
{
    EXPECT_EQ(os_startup(Slots, 1), 1);
    s_server = open_server([](TcpServer*, TcpClient* client, void*) { watch(add_echo(s_accepted), client); });
    s_udp = os_udp_client_create();
    os_udp_client_bind_read(s_udp, echo_datagrams, nullptr);
    EXPECT_EQ(os_udp_client_set_local(s_udp, text("127.0.0.1"), 0) + os_udp_client_open(s_udp), 2);
    s_listener = plain_listener();
    return true;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size)
{
    [[maybe_unused]] static const bool started = start_layer();
    FuzzedDataProvider data(bytes, size);
    Peer peers[Peers];
    send_datagram(std::string(data.ConsumeIntegralInRange<size_t>(1, 4096), 'd'));
    for (int steps = 0; data.remaining_bytes() > 0 && steps < 300; ++steps) {
        const uint8_t what = data.ConsumeIntegral<uint8_t>();
        step(peers[what % Peers], what / Peers % 8, data);
    }
    for (Peer& peer : peers) finish(peer);
    wait_for(has_all_slots);
    return 0;
}
