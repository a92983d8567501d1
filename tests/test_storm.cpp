#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <map>
#include <thread>
#include <vector>

#include "net_support.h"

static const int CLIENTS = 64;
static const int THREADS = 4;
static const int ROUNDS = 60;

// What the library's own server could not echo at once, by client; main lock.
static std::map<TcpClient*, std::string> s_pending;

static int32 flush(TcpClient* client, void*)
{
    std::string& pending = s_pending[client];
    while (!pending.empty()) {
        const int32 sent = os_tcp_client_send(client, pending.data(), static_cast<uint32>(pending.size()));
        if (sent <= 0) return sent;
        pending.erase(0, static_cast<size_t>(sent));
    }
    return 0;
}

static int32 echo(TcpClient* client, void* usr)
{
    char piece[3000];
    int32 got;
    while ((got = os_tcp_client_read(client, piece, sizeof(piece))) > 0) {
        s_pending[client].append(piece, static_cast<size_t>(got));
        flush(client, usr);
    }
    return got;
}

static void accept_echo(TcpServer*, TcpClient* client, void*)
{
    s_pending[client].clear();
    os_tcp_client_bind_read(client, echo, nullptr);
    os_tcp_client_bind_write(client, flush, nullptr);
    os_tcp_client_bind_disconnect(
        client, [](TcpClient* gone, void*) { s_pending.erase(gone); }, nullptr);
}

// A connection through the library on both sides; every byte comes back, or it is destroyed in mid-stream.
static void echo_round(uint16_t port, unsigned seed)
{
    const std::string message = pattern(1 + seed % 40000, seed);
    Watched watched;
    size_t sent = 0;
    watched.then = [&](char) {
        if (os_tcp_client_get_status(watched.client) != 2) return;
        while (sent < message.size()) {
            char* from = const_cast<char*>(message.data()) + sent;
            const int32 count =
                os_tcp_client_send(watched.client, from, static_cast<uint32>(message.size() - sent));
            if (count <= 0) break;
            sent += static_cast<size_t>(count);
        }
    };
    open_watched(watched, port);
    if (seed % 4 == 0) {
        EXPECT_EQ(os_tcp_client_destroy(watched.client), 1);
        return;
    }
    EXPECT_TRUE(wait_for([&] { return watched.received().size() == message.size(); }));
    EXPECT_EQ(watched.received(), message);
    if (seed % 4 == 1) {
        EXPECT_EQ(os_tcp_client_close(watched.client), 1);
    }
    EXPECT_EQ(os_tcp_client_destroy(watched.client), 1);
    EXPECT_EQ(count_of(watched.order, "D"), 1);
}

// A plain peer pours until it fails, while the client on the other side is destroyed.
static void pour_round(int listener, uint16_t port)
{
    Watched watched;
    watched.at_most = 30000; // or a fast peer holds the loop
    open_watched(watched, port);
    const int peer = plain_accept(listener);
    std::thread pouring([peer] {
        const std::string block(2000, 'p');
        while (send_all(peer, block)) {
        }
    });
    EXPECT_TRUE(wait_for([&] { return watched.received().size() > 10000; }));
    EXPECT_EQ(os_tcp_client_destroy(watched.client), 1);
    pouring.join();
    close_with_reset(peer);
}

static void plain_round(uint16_t port, unsigned seed)
{
    const std::string message = pattern(1 + seed % 5000, seed);
    const int peer = plain_connect(port);
    EXPECT_TRUE(send_all(peer, message));
    if (seed % 3) {
        EXPECT_EQ(read_up_to(peer, message.size()), message);
    }
    seed % 2 ? close_with_reset(peer) : static_cast<void>(close(peer));
}

static std::atomic<int> s_posts = 0;

static void storm_thread(uint16_t port, unsigned seed)
{
    uint16_t own_port = 0;
    const int listener = plain_listener(&own_port);
    for (int round = 0; round < ROUNDS; ++round) {
        seed = seed * 1664525 + 1013904223;
        const unsigned dice = seed >> 8;
        EXPECT_EQ(os_post_func([](void*) { ++s_posts; }, nullptr), 1);
        LTimer* timer = os_timer_create([](void*) {}, dice % 3000, nullptr);
        switch (round % 3) {
        case 0:
            echo_round(port, dice);
            break;
        case 1:
            plain_round(port, dice);
            break;
        case 2:
            pour_round(listener, own_port);
            break;
        }
        EXPECT_EQ(os_timer_destroy(timer), 1);
        UdpClient* udp = os_udp_client_create();
        EXPECT_EQ(os_udp_client_open(udp), 1);
        EXPECT_EQ(os_udp_client_destroy(udp), 1);
    }
    close(listener);
}

TEST(Storm, FourThreadsLoseNoByteAndNoSlot)
{
    const std::string reports = in_layer(CLIENTS, 1, [] {
        uint16_t port = 0;
        TcpServer* server = open_server(&port, accept_echo, nullptr);
        std::vector<std::thread> threads;
        for (unsigned i = 0; i < THREADS; ++i) threads.emplace_back(storm_thread, port, i * 77 + 1);
        for (std::thread& thread : threads) thread.join();
        EXPECT_EQ(os_tcp_server_destroy(server), 1);
        on_loop([] {});
        EXPECT_EQ(s_posts, THREADS * ROUNDS);

        std::vector<TcpClient*> slots;
        EXPECT_TRUE(wait_for([&] {
            while (TcpClient* client = slots.size() < CLIENTS ? os_tcp_client_create() : nullptr)
                slots.push_back(client);
            return slots.size() == CLIENTS;
        })) << slots.size();
        locked([] { EXPECT_TRUE(s_pending.empty()); });
        for (int i = 0; i < CLIENTS; ++i) {
            EXPECT_NE(os_udp_client_create(), nullptr);
        }
    });
    EXPECT_EQ(count_of(reports, "accept fd"), 0) << reports;
}
