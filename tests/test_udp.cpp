#include <errno.h>

#include "net_support.h"

static char s_loopback[] = "127.0.0.1";

static int32 read_datagrams(UdpClient* client, void* usr)
{
    char data[100], ip[16] = "127.0.0.1";
    uint16 port = 0;
    for (;;) {
        const int32 count = os_udp_client_read(client, data, sizeof(data), ip, &port);
        if (count == 0 || (count < 0 && errno != 0)) return 0;
        EXPECT_STREQ(ip, s_loopback);
        static_cast<std::string*>(usr)->append(data, static_cast<size_t>(std::max(count, 0))) += '/';
    }
}

TEST(Udp, Datagrams)
{
    const std::string reports = in_layer(2, 1, [] {
        std::string got; // each datagram with '/' behind it
        char ip[16] = "", data[8] = "one";
        uint16 port = 0, from = 0;
        UdpClient* client = os_udp_client_create();
        UdpClient* sender = os_udp_client_create();
        EXPECT_EQ(os_udp_client_set_local(client, s_loopback, 0), 1);
        EXPECT_EQ(os_udp_client_bind_read(client, read_datagrams, &got), 1);
        EXPECT_EQ(os_udp_client_open(client), 1);
        EXPECT_EQ(os_udp_client_open(client), 0); // bound already; the first opening's callbacks go on
        EXPECT_EQ(os_udp_client_get_local(client, ip, &port), 0);
        EXPECT_STREQ(ip, s_loopback);
        locked([&] { // so that one event announces all three
            for (const int32 length : {3, 0, 2})
                EXPECT_EQ(os_udp_client_send(sender, data, static_cast<uint32>(length), ip, port), length);
        });
        wait_for([&] { return got == "one//on/"; });
        EXPECT_EQ(os_udp_client_get_local(sender, ip, &from), 0); // the first send bound it
        EXPECT_NE(from, 0);
        EXPECT_EQ(os_udp_client_read(sender, data, sizeof(data), ip, &from), 0);
        EXPECT_EQ(os_udp_client_close(client), 1);
        EXPECT_EQ(os_udp_client_get_status(client), 0);
        EXPECT_EQ(os_udp_client_send(sender, data, 3, s_loopback, port), 3);
        on_loop([] {});
        EXPECT_EQ(os_udp_client_read(client, data, sizeof(data), ip, &from), 3);
    });
    EXPECT_EQ(count_of(reports, " recv fail\n"), 1) << reports;
    EXPECT_EQ(count_of(reports, " bind fail: Invalid argument\n"), 1) << reports;
    EXPECT_EQ(count_of(reports, "\n"), 2) << reports;
}

TEST(Udp, DestroyedByItsOwnCallback)
{
    const std::string reports = in_layer(1, 1, [] {
        const OnUdpClientWriteFunc destroy = [](UdpClient* own, void*) { return os_udp_client_destroy(own); };
        const OnUdpClientReadFunc report = [](UdpClient*, void*) { return os_timer_destroy(nullptr); };
        UdpClient* client = os_udp_client_create();
        os_udp_client_bind_write(client, destroy, nullptr);
        os_udp_client_bind_read(client, report, nullptr);
        on_loop([&] { // so that one event announces input and room
            char ip[16];
            uint16 port = 0;
            EXPECT_EQ(os_udp_client_open(client), 1);
            EXPECT_EQ(os_udp_client_get_local(client, ip, &port), 0);
            EXPECT_EQ(os_udp_client_send(client, ip, 1, s_loopback, port), 1);
        });
        wait_for([&] { return client->index == -1; });
    });
    EXPECT_EQ(reports, "");
}

TEST(Net, RefusesAndReports)
{
    in_layer(1, 2, [] {
        char ip[] = "1234567890123456", data[] = "abc", *fits = ip + 1, zeros[] = "0000127.0000.0000.0001";
        uint16 port = 0;
        TcpServer *server = os_tcp_server_create(), *other = os_tcp_server_create();
        TcpClient* client = os_tcp_client_create();
        UdpClient* udp = os_udp_client_create();
        const auto open_same = [&] {
            other->port = port_of(server->listenfd);
            return os_tcp_server_open(other) + other->listenfd + 1;
        };
        const struct
        {
            int32 result;
            const char* report; // the line's end
            std::function<int32()> call;
        } rows[] = {
            {-1, "server is NULL\n", [] { return os_tcp_server_get_status(nullptr); }},
            {0, "server is NULL\n", [&] { return os_tcp_server_get_local(server, nullptr, &port); }},
            {0, "ip is fail\n", [&] { return os_tcp_server_set_local(server, data, 1); }},
            {0, "ip is fail\n", [&] { return os_tcp_server_set_local(server, zeros, 1); }},
            {1, "", [&] { return os_tcp_server_set_local(server, nullptr, 0); }},
            {1, "", [&] { return os_tcp_server_open(server); }},
            {0, "server is not dislisten\n", [&] { return os_tcp_server_open(server); }},
            {0, "bind fail: Address already in use\n", open_same},
            {1, "", [&] { return os_tcp_server_close(server); }},
            {1, "server is dislisten\n", [&] { return os_tcp_server_close(server); }},
            {1, "", [&] { return os_tcp_server_open(server); }},
            {0, "client is null\n", [] { return os_tcp_client_destroy(nullptr); }},
            {-1, "client is null\n", [&] { return os_tcp_client_send(nullptr, data, 1); }},
            {-1, "data is null\n", [&] { return os_tcp_client_read(client, nullptr, 1); }},
            {-1, "", [&] { return os_tcp_client_send(client, data, 1); }},
            {1, "", [&] { return os_tcp_client_close(client); }},
            {0, "ip length out\n", [&] { return os_tcp_client_set_remote(client, ip, 1); }},
            {1, "", [&] { return os_tcp_client_set_remote(client, fits, 1); }},
            {0, " : Bad file descriptor\n", [&] { return os_tcp_client_set_rcvbuf_len(client, 4096); }},
            {0, "client is null\n", [] { return os_udp_client_open(nullptr); }},
            {0, "ip length out\n", [&] { return os_udp_client_set_local(udp, ip, 1); }},
            {1, "", [&] { return os_udp_client_set_local(udp, fits, 1); }},
            {-1, "or port is null\n", [&] { return os_udp_client_read(udp, data, 1, ip, nullptr); }},
            {0, "timer is null\n", [] { return os_timer_destroy(nullptr); }},
            {0, "func is null\n", [] { return os_post_func(nullptr, nullptr); }},
            {0, "", [] { return os_comm_client_open(os_comm_client_create(1, 9600, 8, 0, 1, 0)); }},
        };
        for (const auto& row : rows) {
            SCOPED_TRACE(&row - rows);
            const std::string line = written_to(2, [&] { EXPECT_EQ(row.call(), row.result); });
            EXPECT_TRUE(line.ends_with(row.report) && line.empty() == !*row.report) << line;
        }
    });
}
