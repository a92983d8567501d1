#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <vector>

#include "net_support.h"

TEST(TcpServer, ArgumentsAndStates)
{
    const std::string reports = in_layer(1, 2, [] {
        char ip[64];
        uint16 port = 1;
        EXPECT_EQ(os_tcp_server_destroy(nullptr), 0);
        EXPECT_EQ(os_tcp_server_open(nullptr), 0);
        EXPECT_EQ(os_tcp_server_close(nullptr), 0);
        EXPECT_EQ(os_tcp_server_get_status(nullptr), -1);
        EXPECT_EQ(os_tcp_server_set_local(nullptr, ip, 1), 0);
        EXPECT_EQ(os_tcp_server_bind_accept(nullptr, nullptr, nullptr), 0);

        TcpServer* server = os_tcp_server_create();
        EXPECT_EQ(os_tcp_server_get_local(server, nullptr, &port), 0);
        EXPECT_EQ(os_tcp_server_get_local(server, ip, nullptr), 0);
        EXPECT_EQ(os_tcp_server_get_local(server, ip, &port), 1);
        EXPECT_STREQ(ip, "0.0.0.0");
        EXPECT_EQ(port, 0);
        EXPECT_EQ(os_tcp_server_set_local(server, nullptr, 8000), 1);
        for (const char* text : {"abc", "255.255.255.255", "0000127.0000.0000.0001"}) {
            EXPECT_EQ(os_tcp_server_set_local(server, const_cast<char*>(text), 8001), 0);
            EXPECT_EQ(os_tcp_server_get_local(server, ip, &port), 1);
            EXPECT_STREQ(ip, "0.0.0.0");
            EXPECT_EQ(port, 8001);
        }
        EXPECT_EQ(os_tcp_server_set_local(server, nullptr, 0), 1);
        EXPECT_EQ(os_tcp_server_open(server), 1);
        EXPECT_EQ(os_tcp_server_open(server), 0);
        TcpServer* other = os_tcp_server_create();
        other->port = port_of(server->listenfd);
        EXPECT_EQ(os_tcp_server_open(other), 0);
        EXPECT_EQ(other->listenfd, -1);
        EXPECT_EQ(os_tcp_server_close(server), 1);
        EXPECT_EQ(os_tcp_server_close(server), 1);
        EXPECT_EQ(os_tcp_server_open(server), 1);
        EXPECT_EQ(os_tcp_server_get_status(server), 1);
        const uint32 session = server->session;
        EXPECT_EQ(os_tcp_server_destroy(server), 1);
        EXPECT_EQ(os_tcp_server_create(), server);
        EXPECT_NE(server->session, session);
    });
    EXPECT_EQ(count_of(reports, " server is NULL\n"), 8);
    EXPECT_EQ(count_of(reports, " ip is fail\n"), 3);
    EXPECT_EQ(count_of(reports, " server is not dislisten\n"), 1);
    EXPECT_EQ(count_of(reports, " server is dislisten\n"), 1);
    EXPECT_EQ(count_of(reports, " bind fail: Address already in use\n"), 1);
}

static void echo_on_accept(TcpServer*, TcpClient* client, void* usr)
{
    char ip[16];
    uint16 port = 0;
    EXPECT_EQ(os_tcp_client_get_status(client), 2);
    EXPECT_EQ(client->create_type, 0);
    EXPECT_EQ(os_tcp_client_get_remote(client, ip, &port), 1);
    EXPECT_STREQ(ip, "127.0.0.1");
    ++*static_cast<std::atomic<int>*>(usr);
    os_tcp_client_bind_read(
        client,
        [](TcpClient* echoing, void*) -> int32 {
            char piece[1000];
            int32 got;
            while ((got = os_tcp_client_read(echoing, piece, sizeof(piece))) > 0)
                EXPECT_EQ(os_tcp_client_send(echoing, piece, static_cast<uint32>(got)), got);
            return got;
        },
        nullptr);
}

TEST(TcpServer, AcceptsAndTheLoopGivesTheSlotBack)
{
    const std::string reports = in_layer(1, 1, [] {
        std::atomic<int> accepted = 0;
        uint16_t port = 0;
        TcpServer* server = open_server(&port, echo_on_accept, &accepted);
        for (int i = 0; i < 20; ++i) { // one slot serves them all
            const int peer = plain_connect(port);
            EXPECT_TRUE(send_all(peer, "ping"));
            EXPECT_EQ(read_up_to(peer, 4), "ping");
            if (i == 10) {
                EXPECT_EQ(os_tcp_server_close(server), 1);
            }
            EXPECT_TRUE(send_all(peer, "pong")); // a closed server leaves its clients
            EXPECT_EQ(read_up_to(peer, 4), "pong");
            i % 2 ? close_with_reset(peer) : static_cast<void>(close(peer));
            EXPECT_TRUE(wait_for([] {
                TcpClient* probe = os_tcp_client_create();
                return probe && os_tcp_client_destroy(probe);
            }));
            if (i == 10) {
                EXPECT_EQ(os_tcp_server_open(server), 1);
                port = port_of(server->listenfd);
            }
        }
        EXPECT_EQ(accepted, 20);
    });
    EXPECT_EQ(count_of(reports, "index"), 0) << reports;
}

TEST(TcpServer, AFullTableClosesTheConnection)
{
    const std::string reports = in_layer(1, 1, [] {
        std::atomic<int> accepted = 0;
        uint16_t port = 0;
        open_server(&port, echo_on_accept, &accepted);
        TcpClient* all_there_is = os_tcp_client_create();
        EXPECT_TRUE(at_end(plain_connect(port)));
        EXPECT_EQ(os_tcp_client_destroy(all_there_is), 1);
        const int peer = plain_connect(port);
        EXPECT_TRUE(send_all(peer, "ping"));
        EXPECT_EQ(read_up_to(peer, 4), "ping");
    });
    EXPECT_EQ(count_of(reports, " client num out\n"), 1);
    EXPECT_EQ(count_of(reports, " os_tcp_client_create client fail\n"), 1);
}

// An accepted client's own read callback closes it, whatever it says then; the slot comes back either way.
TEST(TcpServer, ClosedByItsReadCallback)
{
    for (const bool says_end : {true, false}) {
        const std::string reports = in_layer(1, 1, [says_end] {
            static std::atomic<int> disconnects;
            static std::atomic<TcpClient*> owned;
            uint16_t port = 0;
            open_server(
                &port,
                [](TcpServer*, TcpClient* client, void* usr) {
                    os_tcp_client_bind_disconnect(
                        client, [](TcpClient*, void*) { ++disconnects; }, nullptr);
                    os_tcp_client_bind_read(
                        client,
                        [](TcpClient* reading, void* end) -> int32 {
                            os_tcp_client_close(reading);
                            if (!end) owned = reading;
                            return end ? -1 : 0;
                        },
                        usr);
                },
                says_end ? &port : nullptr);
            const int peer = plain_connect(port);
            EXPECT_TRUE(send_all(peer, "x"));
            EXPECT_TRUE(at_end(peer));
            on_loop([] {});
            if (!says_end) {
                EXPECT_EQ(os_tcp_client_destroy(owned), 1);
            }
            EXPECT_EQ(disconnects, 1);
            EXPECT_NE(os_tcp_client_create(), nullptr);
        });
        EXPECT_EQ(reports, "");
    }
}

TEST(TcpServer, DestroyedByItsAcceptCallback)
{
    in_layer(2, 1, [] {
        static Watched watched;
        uint16_t port = 0;
        open_server(
            &port,
            [](TcpServer* server, TcpClient* client, void*) {
                watch(watched, client);
                EXPECT_EQ(os_tcp_server_destroy(server), 1);
            },
            nullptr);
        const int peer = plain_connect(port);
        EXPECT_TRUE(send_all(peer, "still here"));
        EXPECT_TRUE(wait_for([] { return watched.received() == "still here"; }));
        EXPECT_NE(os_tcp_server_create(), nullptr);
    });
}

TEST(TcpServer, OutOfDescriptorsItRestsAndServesLater)
{
    const std::string reports = in_layer(8, 2, [] {
        std::atomic<int> accepted = 0;
        uint16_t port = 0, other_port = 0;
        TcpServer* server = open_server(&port, echo_on_accept, &accepted);
        TcpServer* other = open_server(&other_port, echo_on_accept, &accepted);
        std::vector<int> peers, hoard;
        for (int i = 0; i < 3; ++i) peers.push_back(socket(AF_INET, SOCK_STREAM, 0));
        const int others_peer = socket(AF_INET, SOCK_STREAM, 0);
        struct rlimit limit;
        getrlimit(RLIMIT_NOFILE, &limit);
        limit.rlim_cur = 64;
        setrlimit(RLIMIT_NOFILE, &limit);
        for (int fd; (fd = dup(0)) >= 0;) hoard.push_back(fd);

        for (const int peer : peers) connect_plain(peer, port);
        connect_plain(others_peer, other_port);
        std::atomic<int> ticks = 0;
        LTimer* timer = os_timer_create([](void* usr) { ++*static_cast<std::atomic<int>*>(usr); }, 0, &ticks);
        EXPECT_TRUE(wait_for([&] { return ticks >= 2; }));
        EXPECT_EQ(os_timer_destroy(timer), 1);
        EXPECT_EQ(accepted, 0);
        EXPECT_EQ(os_tcp_server_get_status(server), 1);
        EXPECT_EQ(os_tcp_server_destroy(other), 1); // while it rests

        for (const int fd : hoard) close(fd);
        for (const int peer : peers) {
            EXPECT_TRUE(send_all(peer, "ping"));
            EXPECT_EQ(read_up_to(peer, 4), "ping");
        }
        EXPECT_TRUE(at_end(others_peer));
    });
    const int failures = count_of(reports, "fail: Too many open files\n");
    EXPECT_GE(failures, 2) << reports;
    EXPECT_LE(failures, 16) << reports;
}
