#include <atomic>

#include "net_support.h"

static const int CLIENTS = 64;
static const unsigned THREADS = 4;
static const unsigned ROUNDS = 60;

static uint16_t s_port = 0;
static std::atomic<unsigned> s_posts = 0;

// A connection through the library on both sides; every byte comes back, or it is destroyed in mid-stream.
static void echo_round(int, unsigned dice)
{
    const std::string message = pattern(1 + dice % 40000, dice);
    Watched watched;
    watched.then = [&](char) { watched.send(message); };
    open_watched(watched, s_port);
    if (dice % 4) wait_for([&] { return watched.got.size() >= message.size(); });
    if (dice % 4 == 1) os_tcp_client_close(watched.client);
    EXPECT_EQ(os_tcp_client_destroy(watched.client), 1);
    EXPECT_EQ(watched.times('D'), 1);
    EXPECT_TRUE(dice % 4 == 0 || watched.got == message);
}

// A plain peer may be gone before it is accepted, or answered.
static void plain_round(int, unsigned dice)
{
    const std::string message = pattern(1 + dice % 5000, dice);
    const int peer = plain_connect(s_port);
    EXPECT_TRUE(send_all(peer, message));
    const bool half = dice % 5 == 0; // an end in the middle of the echo
    if (half) shutdown(peer, SHUT_WR);
    EXPECT_TRUE(half || dice % 3 == 0 || read_up_to(peer, message.size()) == message);
    close_peer(peer, dice % 2 != 0);
}

// A plain peer pours until it fails, while the client on the other side is destroyed.
static void pour_round(int listener, unsigned dice)
{
    Watched watched;
    watched.at_most = 30000; // or a fast peer holds the loop
    const int peer = open_pair(watched, listener);
    std::thread pouring([peer] {
        while (send_all(peer, std::string(2000, 'p'))) {
        }
    });
    wait_for([&] { return watched.got.size() > 10000; });
    usleep(dice % 2000); // lets the loop back in, which waited for the lock we just held
    EXPECT_EQ(os_tcp_client_destroy(watched.client), 1);
    pouring.join();
    close_with_reset(peer);
}

static void storm_thread(uint32_t seed)
{
    const int listener = plain_listener();
    for (unsigned round = 0; round < ROUNDS; ++round) {
        seed = seed * 1664525 + 1013904223;
        EXPECT_EQ(os_post_func([](void*) { ++s_posts; }, nullptr), 1);
        LTimer* timer = os_timer_create([](void*) {}, seed % 3000, nullptr);
        const auto kind = round % 3 == 0 ? echo_round : round % 3 == 1 ? plain_round : pour_round;
        kind(listener, seed >> 8);
        EXPECT_EQ(os_timer_destroy(timer), 1);
        UdpClient* udp = os_udp_client_create();
        EXPECT_EQ(os_udp_client_open(udp) + os_udp_client_destroy(udp), 2);
    }
}

TEST(Storm, FourThreadsLoseNoByteAndNoSlot)
{
    const std::string reports = in_layer(CLIENTS, 1, [] {
        int accepted = 0, free_slots = 0;
        TcpServer* server = open_server(accept_echo, &accepted);
        s_port = port_of(server->listenfd);
        std::vector<std::thread> threads;
        for (unsigned i = 0; i < THREADS; ++i) threads.emplace_back(storm_thread, i * 77 + 1);
        for (std::thread& thread : threads) thread.join();
        EXPECT_EQ(os_tcp_server_destroy(server), 1);
        on_loop([] {});
        EXPECT_EQ(s_posts, THREADS * ROUNDS);
        wait_for([&] { // the loop may still find ends
            while (free_slots < CLIENTS && os_tcp_client_create()) ++free_slots;
            return free_slots == CLIENTS;
        });
        for (int i = 0; i < CLIENTS; ++i) EXPECT_NE(os_udp_client_create(), nullptr);
    });
    EXPECT_EQ(count_of(reports, "accept fd"), 0) << reports;
}
