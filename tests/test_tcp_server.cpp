#include <sys/resource.h>

#include "net_support.h"

static void ping(int peer)
{
    EXPECT_TRUE(send_all(peer, "ping"));
    EXPECT_EQ(read_up_to(peer, 4), "ping");
}

TEST(TcpServer, OneSlotServesOneAfterTheOther)
{
    const std::string reports = in_layer(1, 1, [] {
        int accepted = 0;
        TcpServer* server = open_server(accept_echo, &accepted);
        for (const bool reset : {false, true, false}) {
            const int peer = plain_connect(port_of(server->listenfd));
            ping(peer);
            EXPECT_EQ(read_up_to(plain_connect(port_of(server->listenfd)), 1), ""); // full
            EXPECT_EQ(os_tcp_server_close(server), 1); // which leaves its clients
            ping(peer);
            close_peer(peer, reset);
            wait_for([] {
                TcpClient* probe = os_tcp_client_create();
                return probe && os_tcp_client_destroy(probe);
            });
            EXPECT_EQ(os_tcp_server_open(server), 1);
        }
        EXPECT_EQ(locked([&] { return accepted; }), 3);
    });
    EXPECT_EQ(count_of(reports, "os_tcp_client_create client fail\n"), 3) << reports;
    EXPECT_EQ(count_of(reports, "index"), 0) << reports;
}

// The accept callback destroys the server, a later one closes the client. The loop gives the client's slot
// back when its read callback has done so, the owner otherwise.
static void close_at(char where)
{
    static Watched watched;
    const OnServerAcceptFunc destroy = [](TcpServer* server, TcpClient* client, void*) {
        char ip[16];
        uint16 port = 0;
        EXPECT_EQ(os_tcp_client_get_status(client) + os_tcp_client_get_remote(client, ip, &port), 3);
        EXPECT_STREQ(ip, "127.0.0.1");
        watch(watched, client);
        EXPECT_EQ(os_tcp_server_destroy(server), 1);
    };
    watched.then = [where](char what) { what == where ? os_tcp_client_close(watched.client) : 0; };
    const int peer = plain_connect(port_of(open_server(destroy)->listenfd));
    EXPECT_TRUE(send_all(peer, "x"));
    EXPECT_EQ(read_up_to(peer, 1), "");
    on_loop([] {});
    EXPECT_TRUE(where == 'R' || os_tcp_client_destroy(watched.client));
    EXPECT_EQ(watched.times('D'), 1);
    EXPECT_TRUE(os_tcp_client_create() && os_tcp_server_create());
}

TEST(TcpServer, ClosedByItsCallbacks)
{
    for (const char where : {'R', 'W'}) EXPECT_EQ(in_layer(1, 1, [&] { close_at(where); }), "");
}

TEST(TcpServer, OutOfDescriptorsItRestsAndServesLater)
{
    const std::string reports = in_layer(8, 2, [] {
        int accepted = 0, ticks = 0, peers[4];
        TcpServer* server = open_server(accept_echo, &accepted);
        TcpServer* other = open_server(accept_echo, &accepted);
        for (int& peer : peers) peer = socket(AF_INET, SOCK_STREAM, 0);
        const rlimit limit = {64, 64};
        setrlimit(RLIMIT_NOFILE, &limit);
        std::vector<int> hoard;
        for (int fd; (fd = dup(0)) >= 0;) hoard.push_back(fd);

        for (int& peer : peers) plain_connect(port_of((&peer == peers ? other : server)->listenfd), peer);
        os_timer_create([](void* usr) { ++*static_cast<int*>(usr); }, 0, &ticks);
        wait_for([&] { return ticks >= 2; });
        EXPECT_EQ(locked([&] { return accepted; }), 0);
        EXPECT_EQ(os_tcp_server_get_status(server), 1);
        EXPECT_EQ(os_tcp_server_destroy(other), 1); // while it rests

        for (const int fd : hoard) close(fd);
        for (int i = 1; i < 4; ++i) ping(peers[i]);
        EXPECT_EQ(read_up_to(peers[0], 1), "");
    });
    const int failures = count_of(reports, "fail: Too many open files\n"); // one per server and tick
    EXPECT_TRUE(failures >= 2 && failures <= 16) << reports;
}
